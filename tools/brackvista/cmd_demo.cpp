// brackvista demo: the whole workflow, on the built-in scene or a folder of brackets.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "cli.hpp"
#include "libcalls.hpp"
#include "pipeline.hpp"
#include "fuse.hpp"
#include "scene.hpp"


namespace bvcli {
namespace {

// What the steps share; each step reads what earlier ones left here.
struct Demo {
    std::string out_dir;
    std::string folder;  // empty: the built-in scene
    int width = 1024, height = 683;
    uint64_t seed = 1;
    int threads = 1;
    bool quiet = false;

    FloatImage scene;  // built-in only
    BracketSet set;
    std::vector<std::string> names;
    std::vector<float> truth;  // reference exposures, empty when unknown
    std::string truth_source;
    std::vector<float> estimated;
    HdrImage hdr;
    MergeReport merge;
    std::vector<std::string> lines;  // the summary
    std::vector<std::string> written;

    std::string path(const std::string &name) const { return out_dir + "/" + name; }
    void say(const std::string &line) { lines.push_back(line); }
    void wrote(const std::string &name) { written.push_back(name); }
};

struct Step {
    const char *name;
    std::function<void(Demo &)> run;
};

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char *fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

void make_dir(const std::string &dir) {
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
        fail("cannot create folder '" + dir + "': " + std::strerror(errno));
    if (!is_directory(dir)) fail("'" + dir + "' exists and is not a folder");
}

void step_brackets(Demo &d) {
    if (!d.folder.empty()) {
        std::vector<std::string> inputs = list_images(d.folder);
        std::string list = d.folder + "/exposures.txt";
        if (std::FILE *f = std::fopen(list.c_str(), "r")) {
            std::fclose(f);
            inputs.clear();
            parse_exposures(list, inputs, d.truth);
            d.truth_source = "exposures.txt";
        }
        if (inputs.size() < 2)
            fail("folder '" + d.folder + "' holds " + std::to_string(inputs.size()) +
                 " image(s); the demo needs at least two brackets");
        d.set = load_brackets(inputs);
        for (const auto &p : inputs) d.names.push_back(p.substr(p.find_last_of('/') + 1));
        if (d.truth.empty()) {
            bool exif = true;
            std::vector<std::array<int32_t, 7>> rec;
            for (const auto &b : d.set.info) {
                exif = exif && b.exposure_time > 0;
                rec.push_back({b.exif.exposureNum, b.exif.exposureDen, b.exif.fNumberNum,
                               b.exif.fNumberDen, 0, b.iso, 0});
            }
            if (exif) {
                d.truth = lib::exposures_from_camera(rec);
                d.truth_source = "EXIF";
            }
        }
        d.say(format("brackets: %zu files from %s, %dx%d, %d-bit", inputs.size(), d.folder.c_str(),
                     d.set.width, d.set.height, d.set.bits));
        return;
    }
    d.scene = render_scene(d.width, d.height);
    {
        OutputFile out(d.path("scene-truth.exr"));
        write_float_image(out.temp(), out.path(), ".exr", d.scene);
        out.commit();
        d.wrote("scene-truth.exr");
    }
    BracketPlan plan = default_bracket_plan();
    d.set = render_brackets(d.scene, plan, d.seed);
    d.truth = plan.exposures;
    d.truth_source = "true";
    make_dir(d.path("brackets"));
    const size_t samples = d.set.image_samples();
    Progress bar("writing brackets");
    for (size_t k = 0; k < d.set.info.size(); ++k) {
        std::string name = "brackets/bracket-" + std::to_string(k + 1) + ".jpg";
        OutputFile out(d.path(name));
        write_picture(out.temp(), out.path(), ".jpg", d.set.width, d.set.height, 8,
                      d.set.data.data() + k * samples, &d.set.info[k].exif);
        out.commit();
        d.wrote(name);
        d.names.push_back(name);
        bar.update(static_cast<float>(k + 1) / d.set.info.size());
    }
    d.say(
        format("scene: built-in interior with a sunlit window, %dx%d, %.1f stops of dynamic range",
               d.width, d.height, dynamic_range_stops(d.scene)));
    d.say(
        format("brackets: %zu exposures 2 stops apart through an sRGB camera curve with noise "
               "(seed %llu)",
               d.set.info.size(), static_cast<unsigned long long>(d.seed)));
}

void step_exposures(Demo &d) {
    const int n = static_cast<int>(d.set.info.size());
    d.estimated =
        lib::estimate_exposures(n, d.set.width, d.set.height, d.set.bits, d.set.data.data());
    // Compare in stops relative to the bracket the estimate calls 1.
    size_t ref = 0;
    for (size_t k = 1; k < d.estimated.size(); ++k)
        if (std::fabs(std::log(d.estimated[k])) < std::fabs(std::log(d.estimated[ref]))) ref = k;
    if (d.truth.empty()) {
        d.say("exposures estimated from the pixels (no reference in the files):");
        for (int k = 0; k < n; ++k)
            d.say(format("  %-28s %+6.2f EV", d.names[k].c_str(), std::log2(d.estimated[k])));
        return;
    }
    d.say(format("exposures, estimated from the pixels against the %s ones (stops):",
                 d.truth_source.c_str()));
    d.say(format("  %-28s %8s %10s %7s", "bracket", d.truth_source.c_str(), "estimated", "error"));
    double worst = 0;
    for (int k = 0; k < n; ++k) {
        double t = std::log2(d.truth[k] / d.truth[ref]);
        double e = std::log2(d.estimated[k]);
        worst = std::max(worst, std::fabs(e - t));
        d.say(format("  %-28s %+8.2f %+10.2f %+7.2f", d.names[k].c_str(), t, e, e - t));
    }
    d.say(format("  largest error %.2f stops", worst));
}

// How well the merge recovered the scene: per-pixel luminance ratio to the
// truth after one global scale (the merge knows exposures only relatively).
void compare_with_truth(Demo &d) {
    std::vector<float> rgb = lib::rgbe_to_float(d.hdr.width, d.hdr.height, d.hdr.rgbe);
    std::vector<double> stops;
    stops.reserve(rgb.size() / 3);
    for (size_t i = 0; i + 2 < rgb.size(); i += 3) {
        double m = 0.2126 * rgb[i] + 0.7152 * rgb[i + 1] + 0.0722 * rgb[i + 2];
        double t =
            0.2126 * d.scene.rgb[i] + 0.7152 * d.scene.rgb[i + 1] + 0.0722 * d.scene.rgb[i + 2];
        if (m > 0 && t > 0) stops.push_back(std::log2(m / t));
    }
    if (stops.empty()) return;
    auto median = [](std::vector<double> v) {
        std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
        return v[v.size() / 2];
    };
    const double scale = median(stops);
    size_t close = 0;
    for (auto &s : stops) {
        s = std::fabs(s - scale);
        if (s <= 0.25) ++close;
    }
    d.say(
        format("merged against the true scene (one global scale): median deviation %.3f stops, "
               "%.1f%% of pixels within a quarter stop",
               median(stops), 100.0 * close / stops.size()));
}

void step_merge(Demo &d) {
    ExposureChoice choice;
    // The built-in scene shows estimation at work; real brackets use the
    // best exposures they carry.
    choice.given = d.folder.empty() || d.truth.empty() ? d.estimated : d.truth;
    OutputFile hdr_out(d.path("merged.hdr"));
    OutputFile tif_out(d.path("merged.tif"));
    d.hdr = merge_brackets(d.set, choice, &d.merge, d.threads);
    save_hdr(hdr_out, d.hdr);
    d.wrote("merged.hdr");
    save_hdr(tif_out, d.hdr);
    d.wrote("merged.tif");
    LogLumStats s = hdr_stats(d.hdr);
    d.say(
        format("merged HDR: %.1f stops from the darkest to the brightest pixel "
               "(median to 99.5%%: %.1f stops), gamma %.3g (%s)",
               (s.v[BV_LLS_MAX] - s.v[BV_LLS_MIN]) / std::log(2.0),
               (s.v[BV_LLS_P995] - s.v[BV_LLS_MEDIAN]) / std::log(2.0), d.merge.gamma,
               d.merge.gamma_source.c_str()));
    if (!d.scene.rgb.empty()) compare_with_truth(d);
}

void step_tonemap(Demo &d) {
    OutputFile out(d.path("tonemapped.png"));
    LogLumStats s = hdr_stats(d.hdr);
    std::vector<uint8_t> px = tonemap_image(d.hdr, s, lib::tonemap_defaults(), 8, d.threads);
    save_picture(out, d.hdr.width, d.hdr.height, 8, px, &d.hdr.exif);
    d.wrote("tonemapped.png");
}

// The brackets fused straight into a picture, with no HDR file between.
void step_fuse(Demo &d) {
    OutputFile out(d.path("fused.png"));
    FuseJob job;
    job.threads = d.threads;
    std::vector<uint8_t> px = fuse_brackets(d.set, job);
    const exifInfo *meta = d.set.info.empty() ? nullptr : &d.set.info[d.set.info.size() / 2].exif;
    save_picture(out, d.set.width, d.set.height, 8, px, meta);
    d.wrote("fused.png");
    double sum = 0;
    for (uint8_t v : px) sum += v;
    d.say(format("fused %zu brackets straight into fused.png (no HDR file): mean level %.0f of 255",
                 d.set.info.size(), sum / static_cast<double>(px.size())));
}

// The workflow in order; a new capability adds its step here.
const std::vector<Step> &steps() {
    static const std::vector<Step> table = {
        {"brackets", step_brackets},
        {"exposures", step_exposures},
        {"merge", step_merge},
        {"tonemap", step_tonemap},
        {"fuse", step_fuse},
    };
    return table;
}

}  // namespace

int run_demo(int argc, char **argv) {
    std::vector<OptionSpec> specs = {
        {"output-dir", 'o', "DIR", "folder for every result (default ./brackvista-demo)"},
        {"size", 's', "WxH", "size of the built-in scene (default 1024x683)"},
        {"seed", 0, "N", "seed of the simulated camera noise (default 1)"},
    };
    add_common_options(specs);
    Args args(specs, argc, argv);
    if (args.help()) {
        print_help("brackvista demo [options] [FOLDER]",
                   "Without FOLDER: renders a built-in HDR scene (a dim brick interior with a\n"
                   "sunlit window, sky and sun), exposes it into 7 brackets through a camera\n"
                   "curve with noise, estimates the exposures, merges, writes the HDR and tone-\n"
                   "maps it. With FOLDER: the same on the images in it (exposures from an\n"
                   "exposures.txt beside them, else EXIF, else estimated). Everything goes into\n"
                   "the output folder, and a summary is printed and saved as summary.txt.",
                   specs);
        return kOk;
    }
    Demo d;
    d.threads = apply_common_options(args);
    d.quiet = args.has("quiet");
    d.out_dir = args.str("output-dir", "brackvista-demo");
    d.seed = static_cast<uint64_t>(args.number("seed", 1, 0, 1e15));
    if (args.has("size")) {
        int w = 0, h = 0;
        char tail = 0;
        if (std::sscanf(args.str("size").c_str(), "%dx%d%c", &w, &h, &tail) != 2 || w < kMinSide ||
            h < kMinSide || w > 16384 || h > 16384)
            usage_error("--size must be WxH with sides from " + std::to_string(kMinSide) +
                        " to 16384 (got '" + args.str("size") + "')");
        d.width = w;
        d.height = h;
    }
    if (args.positional().size() > 1) usage_error("give at most one folder of brackets");
    if (!args.positional().empty()) {
        d.folder = args.positional()[0];
        if (!is_directory(d.folder)) fail("'" + d.folder + "' is not a folder of brackets");
    }
    make_dir(d.out_dir);
    for (const auto &s : steps()) {
        check_interrupted();
        s.run(d);
    }
    d.say("files written in " + d.out_dir + "/:");
    for (const auto &w : d.written) {
        struct stat st;
        long long size = stat(d.path(w).c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
        d.say(format("  %-28s %10lld bytes", w.c_str(), size));
    }
    std::string text;
    for (const auto &l : d.lines) text += l + "\n";
    {
        OutputFile out(d.path("summary.txt"));
        std::FILE *f = std::fopen(out.temp().c_str(), "w");
        bool ok = f && std::fputs(text.c_str(), f) >= 0;
        if (f) ok = std::fclose(f) == 0 && ok;
        if (!ok) fail("cannot write '" + out.path() + "'");
        out.commit();
    }
    if (!d.quiet) std::fputs((text + "  summary.txt\n").c_str(), stdout);
    return kOk;
}

}  // namespace bvcli
