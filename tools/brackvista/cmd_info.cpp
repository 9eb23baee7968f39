// brackvista info: what an HDR file holds: size, camera metadata, luminance range.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "cli.hpp"
#include "libcalls.hpp"
#include "pipeline.hpp"

namespace bvcli {
namespace {

void print_rational(const char *label, const char *unit, int32_t num, int32_t den, bool as_time) {
    if (num < 1 || den < 1) return;
    double v = static_cast<double>(num) / den;
    if (as_time && v < 1)
        std::printf("  %-14s 1/%.0f%s\n", label, 1.0 / v, unit);
    else
        std::printf("  %-14s %.4g%s\n", label, v, unit);
}

void print_exif(const exifInfo &e) {
    if (e.camera[0]) std::printf("  %-14s %.*s\n", "camera", 64, e.camera);
    if (e.capDate[0]) std::printf("  %-14s %.*s\n", "captured", 20, e.capDate);
    static const char *kProfiles[] = {"sRGB", "Adobe RGB", "ProPhoto RGB"};
    if (e.profile >= 0 && e.profile <= 2)
        std::printf("  %-14s %s\n", "profile", kProfiles[e.profile]);
    print_rational("exposure time", " s", e.exposureNum, e.exposureDen, true);
    print_rational("f-number", "", e.fNumberNum, e.fNumberDen, false);
    if (e.iso > 0) std::printf("  %-14s %d\n", "ISO", e.iso);
    print_rational("focal length", " mm", e.focalNum, e.focalDen, false);
}

void describe(const std::string &path, bool stats) {
    std::printf("%s\n", path.c_str());
    std::string ext = extension_of(path);
    HdrImage img;
    if (ext == ".hdr" || ext == ".pic" || ext == ".rgbe") {
        lib::RadianceHeader h = lib::read_radiance_header(path);
        std::printf("  %-14s Radiance RGBE\n", "format");
        std::printf("  %-14s %d x %d\n", "size", h.width, h.height);
        std::printf("  %-14s %lld bytes\n", "file size", static_cast<long long>(h.file_size));
        if (h.has_primaries)
            std::printf("  %-14s R %.4f %.4f  G %.4f %.4f  B %.4f %.4f  W %.4f %.4f\n", "primaries",
                        h.primaries[0], h.primaries[1], h.primaries[2], h.primaries[3],
                        h.primaries[4], h.primaries[5], h.primaries[6], h.primaries[7]);
        print_exif(h.exif);
        if (!stats) return;
        img.width = h.width;
        img.height = h.height;
        img.rgbe = lib::read_radiance(path, h.width, h.height);
    } else {
        img = load_hdr(path);
        std::printf("  %-14s float RGB (%s)\n", "format", ext.empty() ? "?" : ext.c_str() + 1);
        std::printf("  %-14s %d x %d\n", "size", img.width, img.height);
        if (!stats) return;
    }
    LogLumStats s = hdr_stats(img);
    if (s.v[BV_LLS_MIN] > s.v[BV_LLS_MAX]) {
        std::printf("  %-14s all black\n", "luminance");
        return;
    }
    std::printf("  %-14s min %.4g  median %.4g  99.5%% %.4g  max %.4g\n", "luminance",
                std::exp(s.v[BV_LLS_MIN]), std::exp(s.v[BV_LLS_MEDIAN]), std::exp(s.v[BV_LLS_P995]),
                std::exp(s.v[BV_LLS_MAX]));
    std::printf("  %-14s %.1f stops\n", "dynamic range",
                (s.v[BV_LLS_MAX] - s.v[BV_LLS_MIN]) / std::log(2.0));
}

}  // namespace

int run_info(int argc, char **argv) {
    std::vector<OptionSpec> specs = {
        {"header", 0, nullptr, "read only the header (no luminance statistics)"},
    };
    add_common_options(specs);
    Args args(specs, argc, argv);
    if (args.help()) {
        print_help("brackvista info [options] FILE.hdr...",
                   "Prints the size, header metadata (camera, capture date, exposure, colour\n"
                   "profile, primaries) and luminance range of HDR files.",
                   specs);
        return kOk;
    }
    apply_common_options(args);
    if (args.positional().empty()) usage_error("no HDR file given");
    const bool stats = !args.has("header");
    for (const auto &p : args.positional()) describe(p, stats);
    return kOk;
}

}  // namespace bvcli
