// brackvista merge: bracketed exposures to one HDR file.
#include <cmath>
#include <cstdio>

#include "cli.hpp"
#include "libcalls.hpp"
#include "pipeline.hpp"

namespace bvcli {

namespace {

std::vector<OptionSpec> merge_options() {
    std::vector<OptionSpec> s = {
        {"output", 'o', "FILE", "HDR file to write: .hdr (Radiance) or .tif (32-bit float TIFF)"},
        {"exposures", 'e', "LIST|FILE",
         "relative exposures: comma-separated, one per bracket, or a file of 'name exposure' "
         "lines"},
        {"ev-step", 0, "STOPS", "brackets are evenly spaced this many stops apart (0.1..10)"},
        {"estimate", 0, "[=median]",
         "estimate exposures from the pixels even when EXIF has them; =median uses the "
         "median-brightness rule instead of pixel ratios"},
        {"gamma", 'g', "G", "response curve exponent (0.2..5; default: ICC profile, else 2.2)"},
    };
    add_common_options(s);
    return s;
}

}  // namespace

// Prints the exposures as stops relative to the middle bracket, with the
// pixel estimate and its confidence when one was made.
void print_exposures(const std::vector<std::string> &names, const MergeReport &r) {
    const double mid = r.exposures[static_cast<size_t>(r.middle)];
    for (size_t i = 0; i < names.size(); ++i) {
        std::printf("  %-28s %+6.2f EV", names[i].substr(names[i].find_last_of('/') + 1).c_str(),
                    std::log2(r.exposures[i] / mid));
        if (i < r.estimate.size()) {
            const double e = std::log2(r.estimate[i] / r.estimate[static_cast<size_t>(r.middle)]);
            if (r.exposure_source == "EXIF") std::printf("   pixels %+6.2f EV", e);
            std::printf("   confidence %.2f", r.confidence[i]);
        }
        std::printf("\n");
    }
}

int run_merge(int argc, char **argv) {
    const auto specs = merge_options();
    Args args(specs, argc, argv);
    if (args.help()) {
        print_help(
            "brackvista merge [options] -o OUT.hdr BRACKET BRACKET...",
            "Merges bracketed exposures of one scene (JPEG, PNG, 8/16-bit TIFF or camera\n"
            "raw, all the same size) into an HDR image. Exposures come from --exposures,\n"
            "--ev-step, the files' EXIF (exposure time, f-number, ISO), or are measured\n"
            "from the pixels (the brightness ratio of neighbouring brackets over pixels\n"
            "well exposed in both), in that order. EXIF is checked against the pixels:\n"
            "a bracket more than half a stop off is named, and EXIF that is invalid or\n"
            "the same for brackets whose pixels differ is ignored. The middle bracket's\n"
            "camera metadata goes into the Radiance header.",
            specs,
            "example:\n  brackvista merge -o church.hdr --exposures memorial/exposures.txt\n");
        return kOk;
    }
    const int threads = apply_common_options(args);
    if (!args.has("output")) usage_error("no output file: give -o OUT.hdr");
    std::vector<std::string> inputs = args.positional();
    ExposureChoice choice;
    if (args.has("exposures")) parse_exposures(args.str("exposures"), inputs, choice.given);
    choice.ev_step = args.number("ev-step", 0, 0.1, 10);
    choice.estimate = args.has("estimate");
    const std::string how = args.str("estimate");
    if (!how.empty() && how != "median" && how != "pixels")
        usage_error("--estimate takes 'median' or 'pixels' (got '" + how + "')");
    choice.median = how == "median";
    choice.gamma = args.number("gamma", 0, 0.2, 5);
    if (inputs.empty()) usage_error("no brackets given (see brackvista merge --help)");

    const std::string out_path = args.str("output");
    check_hdr_extension(out_path);
    if (inputs.size() < 2) {
        probe_bracket(inputs[0]);  // a missing or unreadable file says so first
        fail("merging needs at least two brackets of one scene (got 1)");
    }
    OutputFile out(out_path);  // fails now, not after the work, when unwritable
    BracketSet set = load_brackets(inputs);
    MergeReport report;
    HdrImage hdr = merge_brackets(set, choice, &report, threads);
    save_hdr(out, hdr);
    if (!args.has("quiet"))
        for (const auto &w : report.warnings)
            std::fprintf(stderr, "brackvista merge: %s\n", w.c_str());
    if (!args.has("quiet")) {
        std::printf("merged %zu brackets of %dx%d (%d-bit), exposures %s, gamma %.3g (%s)\n",
                    inputs.size(), set.width, set.height, set.bits, report.exposure_source.c_str(),
                    report.gamma, report.gamma_source.c_str());
        print_exposures(inputs, report);
        std::printf("luminance %.4g .. %.4g, %.1f stops -> %s\n", report.stats[0] / 256.0,
                    report.stats[1] / 256.0,
                    report.stats[0] > 0 ? std::log2(report.stats[1] / report.stats[0]) : 0.0,
                    out_path.c_str());
    }
    return kOk;
}

}  // namespace bvcli
