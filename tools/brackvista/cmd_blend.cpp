// brackvista blend: paint bracketed exposures back into a processed picture.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "cli.hpp"
#include "libcalls.hpp"
#include "pipeline.hpp"

namespace bvcli {

namespace {

struct LayerSpec {
    float opacity = 0;  // percent
    float ev = 0;       // stops from the middle bracket
};

// "OPACITY@EV", e.g. "40@-2" or "100@+1.5".
LayerSpec parse_layer(const std::string &text, const std::string &what) {
    const size_t at = text.find('@');
    if (at == std::string::npos)
        usage_error(what + " '" + text + "' is not OPACITY@EV (for example 40@-2)");
    LayerSpec l;
    l.opacity = static_cast<float>(parse_number(text.substr(0, at), what + " opacity", 0, 100));
    l.ev = static_cast<float>(parse_number(text.substr(at + 1), what + " EV", -30, 30));
    return l;
}

std::vector<std::string> split_commas(const std::string &text) {
    std::vector<std::string> items;
    std::stringstream ss(text);
    std::string item;
    while (std::getline(ss, item, ','))
        if (!item.empty()) items.push_back(item);
    return items;
}

// Stops of each bracket from the middle one (of the brightness order).
std::vector<float> bracket_evs(const std::vector<float> &exposures) {
    std::vector<float> sorted = exposures;
    std::sort(sorted.begin(), sorted.end());
    const float middle = sorted[(sorted.size() - 1) / 2];
    std::vector<float> evs;
    for (float e : exposures) evs.push_back(static_cast<float>(std::log2(e / middle)));
    return evs;
}

// Brush pairs (strength, layer) from one grey mask per brush layer: a pixel
// belongs to the mask that paints it most (the first on a tie).
std::vector<uint8_t> brush_from_masks(const std::vector<std::string> &paths, int width,
                                      int height) {
    const size_t pixels = static_cast<size_t>(width) * height;
    std::vector<uint8_t> brush(pixels * 2, 0);
    for (size_t p = 0; p < pixels; ++p) brush[2 * p + 1] = 255;
    for (size_t k = 0; k < paths.size(); ++k) {
        const BracketSet mask = load_brackets({paths[k]});
        if (mask.width != width || mask.height != height)
            fail("brush mask '" + paths[k] + "' is " + std::to_string(mask.width) + "x" +
                 std::to_string(mask.height) + ", the picture is " + std::to_string(width) + "x" +
                 std::to_string(height));
        for (size_t p = 0; p < pixels; ++p) {
            const int v = mask.bits == 8 ? mask.data[p * 3]
                                         : reinterpret_cast<const uint16_t *>(mask.data.data())[p * 3] >> 8;
            if (v > brush[2 * p]) {
                brush[2 * p] = static_cast<uint8_t>(v);
                brush[2 * p + 1] = static_cast<uint8_t>(k);
            }
        }
    }
    return brush;
}

// The last bracket at 8 bits with every painted pixel tinted in proportion
// to its strength, to check a mask against the picture.
void show_brush(const std::string &path, const BracketSet &set, const std::vector<uint8_t> &brush) {
    const size_t samples = set.image_samples(), pixels = samples / 3;
    const size_t n = set.info.size();
    std::vector<uint8_t> last(samples), shown(samples), strength(pixels);
    for (size_t i = 0; i < samples; ++i)
        last[i] = set.bits == 8 ? set.data[(n - 1) * samples + i]
                                : reinterpret_cast<const uint16_t *>(set.data.data())[(n - 1) * samples + i] >> 8;
    for (size_t p = 0; p < pixels; ++p) strength[p] = brush[2 * p + 1] == 255 ? 0 : brush[2 * p];
    const int row = set.width * 3;
    if (brush_selection_preview(0, 1, set.width, set.height, row, row, 3, last.data(),
                                strength.data(), shown.data()) < 0)
        fail("cannot draw the brush preview");
    OutputFile out(path);
    save_picture(out, set.width, set.height, 8, shown);
}

}  // namespace

int run_blend(int argc, char **argv) {
    std::vector<OptionSpec> specs = {
        {"output", 'o', "FILE", "picture to write: .png, .tif or .jpg (the result's bit depth)"},
        {"base", 0, "OPACITY@EV",
         "mix OPACITY percent (0..100, used up to 99) of the bracket nearest EV everywhere"},
        {"layers", 0, "OP@EV,...", "brush layers, painted where the matching --brush mask says"},
        {"brush", 0, "MASK,...", "one grey mask per brush layer: 0 unpainted .. 255 full"},
        {"exposures", 'e', "LIST|FILE",
         "relative exposures of the brackets (default: estimated from the pixels)"},
        {"show-brush", 0, "FILE",
         "also write the last bracket with the painted area tinted blue (8-bit picture)"},
    };
    add_common_options(specs);
    Args args(specs, argc, argv);
    if (args.help()) {
        print_help(
            "brackvista blend [options] -o OUT.png RESULT BRACKET...",
            "Paints bracketed exposures back into a processed picture (a fused or\n"
            "tone-mapped RESULT of the same scene and size). Each layer takes the\n"
            "bracket whose exposure is nearest its EV, counted in stops from the\n"
            "middle bracket (0 = middle, -2 = two stops darker), at the given opacity\n"
            "(at most 99 %). The base layer covers the whole picture; brush layers only\n"
            "where their mask is painted, in proportion to its grey level.",
            specs,
            "example:\n  brackvista blend -o out.png fused.png b1.jpg b2.jpg b3.jpg \\\n"
            "      --base 20@0 --layers 80@-2 --brush windows.png\n");
        return kOk;
    }
    const int threads = apply_common_options(args);
    if (!args.has("output")) usage_error("no output file: give -o OUT.png");
    if (args.positional().size() < 2)
        usage_error("give the processed picture, then at least one bracket");
    std::vector<LayerSpec> layers(1);
    if (args.has("base")) layers[0] = parse_layer(args.str("base"), "--base");
    std::vector<std::string> masks;
    if (args.has("layers"))
        for (const std::string &t : split_commas(args.str("layers")))
            layers.push_back(parse_layer(t, "--layers"));
    if (args.has("brush")) masks = split_commas(args.str("brush"));
    if (masks.size() != layers.size() - 1)
        usage_error(std::to_string(layers.size() - 1) + " brush layers but " +
                    std::to_string(masks.size()) + " --brush masks: give one mask per layer");
    bool any = false;
    for (const LayerSpec &l : layers) any = any || l.opacity > 0;
    if (!any) usage_error("nothing to blend: give --base and/or --layers with an opacity above 0");

    const std::string out_path = args.str("output");
    std::vector<std::string> inputs(args.positional().begin() + 1, args.positional().end());
    std::vector<float> exposures;
    if (args.has("exposures")) parse_exposures(args.str("exposures"), inputs, exposures);
    OutputFile out(out_path);
    BracketSet result = load_brackets({args.positional()[0]});
    check_picture_extension(out_path, result.bits);
    BracketSet set = load_brackets(inputs);
    if (set.width != result.width || set.height != result.height)
        fail("the picture is " + std::to_string(result.width) + "x" +
             std::to_string(result.height) + " but the brackets are " + std::to_string(set.width) +
             "x" + std::to_string(set.height));
    if (exposures.empty())
        exposures = inputs.size() < 2 ? std::vector<float>{1.0f}
                                      : lib::estimate_exposures(static_cast<int>(inputs.size()),
                                                                set.width, set.height, set.bits,
                                                                set.data.data());
    const std::vector<float> evs = bracket_evs(exposures);
    std::vector<uint8_t> brush;
    if (!masks.empty()) brush = brush_from_masks(masks, set.width, set.height);

    std::vector<TmParam> records(layers.size());
    for (size_t k = 0; k < layers.size(); ++k) {
        std::memset(&records[k], 0, sizeof(TmParam));
        records[k].slot[51] = layers[k].opacity;
        records[k].slot[52] = layers[k].ev;
    }
    records[0].slot[55] = static_cast<float>(layers.size() - 1);
    const DimParam dim = lib::rgb_dim(set.width, set.height, set.bits, result.bits);
    check_interrupted();
    const int rc = bv_blend(threads, static_cast<int>(inputs.size()), records.data(), evs.data(),
                            brush.empty() ? nullptr : brush.data(), set.data.data(), dim,
                            result.data.data());
    if (rc < 0)
        fail(rc == BV_BLEND_ENOMEM ? "out of memory while blending"
                                   : "blending failed (code " + std::to_string(rc) + ")");
    if (args.has("show-brush")) {
        if (brush.empty()) usage_error("--show-brush needs --brush masks");
        show_brush(args.str("show-brush"), set, brush);
    }
    save_picture(out, result.width, result.height, result.bits, result.data);
    if (!args.has("quiet")) {
        std::printf("blended %zu layer(s) from %zu brackets into %s (%dx%d, %d-bit) -> %s\n",
                    layers.size(), inputs.size(), args.positional()[0].c_str(), result.width,
                    result.height, result.bits, out_path.c_str());
        for (size_t i = 0; i < inputs.size(); ++i)
            std::printf("  %-28s %+6.2f EV\n",
                        inputs[i].substr(inputs[i].find_last_of('/') + 1).c_str(), evs[i]);
    }
    return kOk;
}

}  // namespace bvcli
