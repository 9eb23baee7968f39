// brackvista enhance: an HDR file to a picture with the local tone enhancer.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "cli.hpp"
#include "imageio.hpp"
#include "pipeline.hpp"
#include "progress.hpp"

namespace bvcli {

namespace {

// One user-facing slot: option name, slot number, range.
struct SlotOption {
    const char *name;
    int slot;
    double lo, hi;
    const char *help;
};

const SlotOption kSlots[] = {
    {"strength", 1, 0, 100, "local contrast, 0 (global) .. 100 (default 70)"},
    {"saturation", 2, 0, 100, "colour saturation, 0 (grey) .. 100 (default 46)"},
    {"white-clip", 3, 0, 10, "per cent of pixels rendered pure white (default 0.25)"},
    {"detail", 5, 0.25, 4, "lift of fine texture, 0.25 .. 4 (default 1)"},
    {"noise-floor", 7, 0, 10, "keeps shadow noise down, 0 .. 10 (default 2)"},
    {"brightness", 8, 0, 100, "mid-tones, 0 (dark) .. 100 (bright) (default 50)"},
    {"iterations", 17, -20, 20, "solver effort: 50 x 3^(v/10) steps per level (default 0)"},
};

std::string temp_name(const std::string &dir, const char *what) {
    return dir + "/brackvista-enhance-" + std::to_string(getpid()) + "-" + what + ".tmp";
}

}  // namespace

int run_enhance(int argc, char **argv) {
    std::vector<OptionSpec> specs = {
        {"output", 'o', "FILE", "picture to write: .png, .tif or .jpg"},
        {"bits", 'b', "8|16", "bits per sample of the picture (default 8)"},
        {"preview", 0, nullptr, "render a quick preview about 1024 pixels wide"},
        {"panorama", 0, nullptr, "the image is a 360-degree panorama (closes horizontally)"},
        {"relax", 0, nullptr, "use the relaxation solver (slower, little memory)"},
        {"temp-dir", 0, "DIR", "stream the solver through files in DIR (big images)"},
        {"exposures", 'e', "LIST|FILE",
         "brackets: relative exposures, as brackvista merge takes them"},
    };
    for (const SlotOption &s : kSlots) specs.push_back({s.name, 0, "V", s.help});
    add_common_options(specs);
    Args args(specs, argc, argv);
    if (args.help()) {
        print_help("brackvista enhance [options] IN.hdr -o OUT.png\n"
                   "       brackvista enhance [options] BRACKET BRACKET... -o OUT.png",
                   "Renders an HDR image (Radiance .hdr, or .exr / float .tif through\n"
                   "OpenImageIO) with the library's local tone enhancer: large contrasts\n"
                   "are compressed while detail in shadows and highlights is kept.\n"
                   "Every parameter starts at the library's default. Given bracketed\n"
                   "exposures instead, it merges them first (as brackvista merge does).",
                   specs,
                   "example:\n  brackvista enhance atrium.hdr -o atrium.png --strength 85\n");
        return kOk;
    }
    const int threads = apply_common_options(args);
    std::vector<std::string> inputs = args.positional();
    ExposureChoice choice;
    if (args.has("exposures")) parse_exposures(args.str("exposures"), inputs, choice.given);
    if (inputs.empty()) usage_error("no HDR file or brackets given");
    if (!args.has("output")) usage_error("no output file: give -o OUT.png");
    const int bits = args.integer("bits", 8, 8, 16);
    if (bits != 8 && bits != 16) usage_error("--bits must be 8 or 16");
    const std::string in_path = inputs[0], out_path = args.str("output");
    check_picture_extension(out_path, bits);

    TmParam param;
    tmparam_default(1, 0, &param);
    for (const SlotOption &s : kSlots)
        if (args.has(s.name))
            param.slot[s.slot] = static_cast<float>(args.number(s.name, 0, s.lo, s.hi));
    if (args.has("panorama")) param.slot[15] = 1.0f;
    if (args.has("relax")) param.slot[16] = 0.0f;

    optimParam optim;
    init_optim_param(&optim);
    optim.threads = threads;
    optim.mode = args.has("preview") ? 1 : 0;
    const std::string dir = args.has("temp-dir") ? args.str("temp-dir") : "/tmp";
    const std::string t_log = temp_name(dir, "log"), t_base = temp_name(dir, "base"),
                      t_p = temp_name(dir, "p"), t_r = temp_name(dir, "r"),
                      t_t = temp_name(dir, "t");
    optim.tempPath1 = t_log.c_str();
    optim.solverBase = t_base.c_str();
    optim.solverP = t_p.c_str();
    optim.solverR = t_r.c_str();
    optim.solverT = t_t.c_str();
    // The relaxation solver parks planes in files and sizes its work for that.
    if (args.has("temp-dir") || args.has("relax")) optim.useTempFiles = 1;

    OutputFile out(out_path);
    DimParam dim;
    init_dim_param(&dim);
    dim.bitsOut = bits;
    // Radiance files are read by the library straight into its work buffer.
    HdrImage hdr;
    const bool brackets = inputs.size() > 1;
    const bool radiance = !brackets && extension_of(in_path) == ".hdr";
    if (brackets) {
        BracketSet set = load_brackets(inputs);
        MergeReport report;
        hdr = merge_brackets(set, choice, &report, threads);
        dim.width = hdr.width;
        dim.height = hdr.height;
        dim.sourceKind = hdr.is_float ? 10 : 0;
    } else if (radiance) {
        std::FILE *f = std::fopen(in_path.c_str(), "rb");
        if (!f) fail("cannot open '" + in_path + "'");
        std::fclose(f);
        RgbeDims d{};
        if (rgbe_dim(in_path.c_str(), nullptr, &d) < 0)
            fail("'" + in_path + "' is not a readable Radiance file");
        dim.width = d.width;
        dim.height = d.height;
        optim.sourceFile = in_path.c_str();
    } else {
        hdr = load_hdr(in_path);
        dim.width = hdr.width;
        dim.height = hdr.height;
        dim.sourceKind = hdr.is_float ? 10 : 0;
    }
    int ow = dim.width, oh = dim.height;
    int64_t bytes = 0;
    if (mem4enhancer(0, &param, nullptr, &bytes, dim) < 0) fail("image too small");
    // Left uninitialised: pages the enhancer never touches (the image area is
    // sized for float pixels, a Radiance file fills a third of it) cost no
    // memory.
    std::unique_ptr<uint8_t[]> work(new uint8_t[static_cast<size_t>(bytes)]);
    if (optim.mode == 1) {
        optimParam q = optim;
        q.mode = 9;
        bv_tm_enhancer(0, &param, nullptr, nullptr, nullptr, nullptr, dim, q, nullptr,
                       radiance ? nullptr : hdr.is_float ? static_cast<const void *>(hdr.rgb.data())
                                                         : hdr.rgbe.data(),
                       work.get());
        const int32_t *wh = reinterpret_cast<const int32_t *>(work.get());
        if (!radiance && (dim.height >= dim.width ? 0.75 * dim.height : dim.width) <= 512) {
            // Small buffers are rendered at full size.
        } else {
            ow = wh[0];
            oh = wh[1];
        }
    }
    std::vector<uint8_t> pixels(static_cast<size_t>(ow) * oh * 3 * (bits == 16 ? 2 : 1));
    int rc;
    {
        Progress bar("enhancing " + in_path);
        const void *input = radiance ? nullptr
                            : hdr.is_float ? static_cast<const void *>(hdr.rgb.data())
                                           : hdr.rgbe.data();
        rc = bv_tm_enhancer(0, &param, pixels.data(), nullptr, nullptr, nullptr, dim, optim,
                            &Progress::library_callback, input, work.get());
    }
    for (const std::string *t : {&t_log, &t_base, &t_p, &t_r, &t_t}) std::remove(t->c_str());
    if (rc == BV_EN_ECANCEL) throw Failure(kCancelled, "cancelled");
    if (rc < 0) fail("the enhancer failed with code " + std::to_string(rc));
    work.reset();
    save_picture(out, ow, oh, bits, pixels, hdr.has_exif ? &hdr.exif : nullptr);
    if (!args.has("quiet"))
        std::printf("enhanced %s%s (%dx%d) -> %s (%dx%d, %d-bit)\n", in_path.c_str(),
                    brackets ? " and the other brackets" : "", dim.width,
                    dim.height, out_path.c_str(), ow, oh, bits);
    return kOk;
}

}  // namespace bvcli
