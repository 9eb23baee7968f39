// brackvista tonemap: an HDR file to an 8- or 16-bit picture with the simple tone mapper.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli.hpp"
#include "libcalls.hpp"
#include "pipeline.hpp"
#include "tmparams.hpp"

namespace bvcli {

int run_enhance(int argc, char **argv);

int run_tonemap(int argc, char **argv) {
    // --method enhancer hands the rest of the command line to `enhance`.
    for (int i = 0; i + 1 < argc; ++i)
        if (!std::strcmp(argv[i], "--method")) {
            const std::string m = argv[i + 1];
            if (m != "enhancer" && m != "simple")
                usage_error("--method must be simple or enhancer, got '" + m + "'");
            std::vector<char *> rest(argv, argv + argc);
            rest.erase(rest.begin() + i, rest.begin() + i + 2);
            if (m == "enhancer") return run_enhance(static_cast<int>(rest.size()), rest.data());
            return run_tonemap(static_cast<int>(rest.size()), rest.data());
        }
    std::vector<OptionSpec> specs = {
        {"output", 'o', "FILE", "picture to write: .png, .tif or .jpg"},
        {"bits", 'b', "8|16", "bits per sample of the picture (default 8; JPEG is 8 only)"},
        {"method", 0, "simple|enhancer",
         "simple (default): this global mapping; enhancer: the local tone enhancer "
         "(brackvista enhance --help)"},
    };
    add_tonemap_options(specs);
    add_common_options(specs);
    Args args(specs, argc, argv);
    if (args.help()) {
        print_help("brackvista tonemap [options] IN.hdr -o OUT.png",
                   "Renders an HDR image (Radiance .hdr, or .exr / float .tif through\n"
                   "OpenImageIO) into a picture with the library's simple global tone mapper.\n"
                   "Every parameter starts at the library's default.",
                   specs,
                   "example:\n  brackvista tonemap church.hdr -o church.png --brightness 2 "
                   "--saturation 1\n");
        return kOk;
    }
    const int threads = apply_common_options(args);
    if (args.positional().size() != 1)
        usage_error(args.positional().empty() ? "no HDR file given"
                                              : "one HDR file at a time, got " +
                                                    std::to_string(args.positional().size()));
    if (!args.has("output")) usage_error("no output file: give -o OUT.png");
    const int bits = args.integer("bits", 8, 8, 16);
    if (bits != 8 && bits != 16) usage_error("--bits must be 8 or 16");
    const std::string out_path = args.str("output");
    check_picture_extension(out_path, bits);
    TmParam param = tonemap_param_from(args);

    OutputFile out(out_path);
    HdrImage hdr = load_hdr(args.positional()[0]);
    LogLumStats stats = hdr_stats(hdr);
    std::vector<uint8_t> pixels = tonemap_image(hdr, stats, param, bits, threads);
    save_picture(out, hdr.width, hdr.height, bits, pixels, hdr.has_exif ? &hdr.exif : nullptr);
    if (!args.has("quiet"))
        std::printf("tone-mapped %s (%dx%d) -> %s (%d-bit)\n", args.positional()[0].c_str(),
                    hdr.width, hdr.height, out_path.c_str(), bits);
    return kOk;
}

}  // namespace bvcli
