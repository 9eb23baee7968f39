// brackvista fuse: bracketed exposures straight to one picture by pyramid fusion.
#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "cli.hpp"
#include "fuse.hpp"
#include "ghosts.hpp"
#include "libcalls.hpp"
#include "pipeline.hpp"

namespace bvcli {

namespace {

std::vector<OptionSpec> fuse_options() {
    std::vector<OptionSpec> s = {
        {"output", 'o', "FILE", "picture to write: .png, .tif or .jpg"},
        {"bits", 'b', "8|16", "bits per sample of the picture (default 8)"},
        {"exposure-boost", 0, "G", "how strongly well-exposed pixels win, -10..10 (default 0)"},
        {"rank-bias", 0, "B",
         "favour brighter (B > 0) or darker (B < 0) brackets, whole numbers -10..10 (default 0)"},
        {"curve", 0, "SHAPE",
         "exposure curve: 'gaussian' (default), or a number 0.1..10: a curve whose steepness "
         "adapts to each bracket's clipped share (higher is steeper)"},
        {"detail", 'd', "S", "detail strength 0..20 (default 2; 0 = plain fusion)"},
        {"moire", 0, "M",
         "moire mode 0..7: calm the coarse levels of repeated patterns (default 0)"},
        {"two-pass", 0, nullptr,
         "refine the fused picture with the local-contrast pass (tile grid 85 pixels apart)"},
        {"wrap", 0, nullptr, "the brackets are 360-degree panoramas: blend across the side edges"},
        {"mask", 0, "IMAGE",
         "ghost selection: a picture of the brackets' size whose light pixels take only one "
         "bracket (see --mask-bracket)"},
        {"ghosts", 0, "auto",
         "detect what moved between the brackets and take it from one bracket only (see "
         "--mask-bracket)"},
        {"mask-bracket", 0, "K",
         "bracket (1 = first given) used inside --mask or --ghosts (default middle)"},
        {"temp-dir", 0, "DIR",
         "keep weight maps in temporary files in DIR instead of memory (stacks larger than "
         "memory)"},
    };
    add_common_options(s);
    return s;
}

// Light pixels of the mask image become set bits, one per pixel, MSB first.
std::vector<uint8_t> read_mask(const std::string &path, int width, int height) {
    OIIO::ImageBuf buf(path);
    if (!buf.read(0, 0, true, OIIO::TypeDesc::FLOAT))
        fail("cannot read mask '" + path + "': " + buf.geterror());
    const OIIO::ImageSpec &spec = buf.spec();
    if (spec.width != width || spec.height != height)
        fail("mask '" + path + "' is " + std::to_string(spec.width) + "x" +
             std::to_string(spec.height) + ", the brackets are " + std::to_string(width) + "x" +
             std::to_string(height));
    std::vector<float> px(static_cast<size_t>(width) * height * spec.nchannels);
    buf.get_pixels(buf.roi(), OIIO::TypeDesc::FLOAT, px.data());
    std::vector<uint8_t> bits((static_cast<size_t>(width) * height + 7) / 8, 0);
    for (size_t p = 0; p < static_cast<size_t>(width) * height; ++p)
        if (px[p * spec.nchannels] > 0.5f) bits[p >> 3] |= static_cast<uint8_t>(0x80u >> (p & 7));
    return bits;
}

// Temporary files of the file mode, removed however the command ends.
struct TempNames {
    std::vector<std::string> paths;
    ~TempNames() {
        for (const auto &p : paths) std::remove(p.c_str());
    }
};

}  // namespace

FuseJob::FuseJob() { tmparam_default(10, 0, &param); }

std::vector<uint8_t> fuse_brackets(const BracketSet &set, const FuseJob &job) {
    const int n = static_cast<int>(set.info.size());
    TempNames temps;
    std::string src, wmap, wpyr;
    uint64_t options = static_cast<uint32_t>(job.threads);
    if (!job.temp_dir.empty()) {
        const std::string stem = job.temp_dir + "/bv-fuse-" + std::to_string(getpid());
        src = stem + ".stack";
        wmap = stem + ".weights";
        wpyr = stem + ".pyramid";
        temps.paths = {src, wmap, wpyr};
        options |= 1ull << 32;
    }
    const DimParam dim = lib::rgb_dim(set.width, set.height, set.bits, job.bits);
    // The library works in the output buffer: it spans 2 x 3 x pyram_len2 bytes.
    const size_t pixels = static_cast<size_t>(set.width) * set.height;
    const size_t bound =
        static_cast<size_t>(static_cast<double>(static_cast<float>(pixels)) * 1.5 + 0.5);
    size_t bytes = 2 * 3 * bound;
    if (bytes < pixels * 3 * (job.bits / 8)) bytes = pixels * 3 * (job.bits / 8);
    std::vector<uint8_t> picture(bytes);
    TmParam param = job.param;
    int rc;
    {
        Progress bar("fusing");
        rc = bv_fusion(&Progress::library_callback, &param, nullptr, n, 16, 16, 0.0f, options,
                       job.threads, src.empty() ? nullptr : src.c_str(), 0,
                       wmap.empty() ? nullptr : wmap.c_str(), wpyr.empty() ? nullptr : wpyr.c_str(),
                       0, 0, 0, dim, job.wrap ? 1 : 0, nullptr, set.data.data(),
                       job.slots.empty() ? nullptr : job.slots.data(),
                       job.mask.empty() ? nullptr : job.mask.data(), 0, picture.data());
    }
    if (rc == BV_FU_ECANCEL) check_interrupted();
    if (rc < 0) {
        const char *why = rc == BV_FU_ENOMEM   ? "out of memory"
                          : rc == BV_FU_EREAD  ? "a temporary file could not be read back"
                          : rc == BV_FU_EDEPTH ? "unsupported bit depth or a temporary file "
                                                 "could not be written"
                                               : "bad arguments";
        fail(std::string("fusion failed: ") + why + " (code " + std::to_string(rc) + ")");
    }
    picture.resize(pixels * 3 * (job.bits / 8));
    return picture;
}

int run_fuse(int argc, char **argv) {
    const auto specs = fuse_options();
    Args args(specs, argc, argv);
    if (args.help()) {
        print_help("brackvista fuse [options] -o OUT.png BRACKET BRACKET...",
                   "Fuses bracketed exposures of one scene (JPEG, PNG, 8/16-bit TIFF or camera\n"
                   "raw, all the same size) straight into a natural-looking picture: each pixel\n"
                   "is taken mostly from the brackets that expose it well, blended over a\n"
                   "pyramid so that no seams show. No HDR file and no exposure values needed.",
                   specs, "example:\n  brackvista fuse -o church.png memorial/*.png --detail 4\n");
        return kOk;
    }
    const int threads = apply_common_options(args);
    if (!args.has("output")) usage_error("no output file: give -o OUT.png");
    const std::vector<std::string> &inputs = args.positional();
    if (inputs.empty()) usage_error("no brackets given (see brackvista fuse --help)");
    const int bits = args.integer("bits", 8, 8, 16);
    if (bits != 8 && bits != 16) usage_error("--bits must be 8 or 16");
    const std::string out_path = args.str("output");
    check_picture_extension(out_path, bits);

    FuseJob job;
    TmParam &param = job.param;
    param.slot[0] = static_cast<float>(args.number("exposure-boost", 0, -10, 10));
    param.slot[1] = static_cast<float>(args.integer("rank-bias", 0, -10, 10));
    const std::string curve = args.str("curve", "gaussian");
    param.slot[2] =
        curve == "gaussian" ? 0.0f : static_cast<float>(parse_number(curve, "--curve", 0.1, 10));
    param.slot[8] = static_cast<float>(args.number("detail", 2, 0, 20));
    param.slot[13] = static_cast<float>(args.integer("moire", 0, 0, 7));
    if (args.has("two-pass")) param.slot[9] = 1.0f;
    job.bits = bits;
    job.threads = threads;
    job.wrap = args.has("wrap");
    const int n = static_cast<int>(inputs.size());
    const int mask_bracket = args.integer("mask-bracket", n / 2 + 1, 1, n) - 1;
    if (args.has("mask-bracket") && !args.has("mask") && !args.has("ghosts"))
        usage_error("--mask-bracket needs --mask or --ghosts");
    if (args.has("mask") && args.has("ghosts"))
        usage_error("--mask and --ghosts exclude each other");
    if (args.has("ghosts") && args.str("ghosts") != "auto")
        usage_error("--ghosts takes 'auto' (draw a selection and pass it with --mask)");
    if (args.has("temp-dir")) {
        job.temp_dir = args.str("temp-dir");
        if (!is_directory(job.temp_dir)) fail("--temp-dir '" + job.temp_dir + "' is not a folder");
    }

    OutputFile out(out_path);
    BracketSet set = load_brackets(inputs);
    if (args.has("ghosts")) {
        // Exposures are estimated by the detector itself, as in a merge without EXIF.
        job.mask = detect_ghosts(set, kDefaultGhostThreshold, 0.0f,
                                 std::vector<float>(static_cast<size_t>(n), 0.0f), threads)
                       .bits;
    } else if (args.has("mask")) {
        job.mask = read_mask(args.str("mask"), set.width, set.height);
    }
    if (!job.mask.empty()) {
        job.slots.assign(static_cast<size_t>(n), -1);
        job.slots[static_cast<size_t>(mask_bracket)] = 0;
        // A negative first slot switches the whole selection off: when
        // another bracket owns the mask, bracket 0 gets an empty slot 1
        // (bits width x height onward).
        if (mask_bracket != 0) {
            job.slots[0] = 1;
            job.mask.resize(job.mask.size() * 2 + 1, 0);
        }
    }
    std::vector<uint8_t> picture = fuse_brackets(set, job);
    save_picture(out, set.width, set.height, bits, picture,
                 set.info.empty() ? nullptr : &set.info[static_cast<size_t>(n / 2)].exif);
    if (!args.has("quiet"))
        std::printf("fused %d brackets of %dx%d (%d-bit) -> %s (%d-bit)\n", n, set.width,
                    set.height, set.bits, out_path.c_str(), bits);
    return kOk;
}

}  // namespace bvcli
