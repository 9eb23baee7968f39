// The simple tone mapper's parameters, named for the command line.
#include "tmparams.hpp"

#include <cmath>
#include <cstdio>
#include <deque>
#include <string>

#include "libcalls.hpp"

namespace bvcli {

const std::vector<TmOption> &tonemap_options() {
    static const std::vector<TmOption> table = [] {
        std::vector<TmOption> t = {
            {"exposure", BV_TM_SLOT_EXPOSURE, -10, 10, false, "exposure, brighter when positive"},
            {"brightness", BV_TM_SLOT_BRIGHTNESS, -10, 10, false,
             "brightness: bends the contrast curve"},
            {"adaptation", BV_TM_SLOT_ADAPTATION, -10, 10, false,
             "adaptation: to the whole image (-10) or each pixel (10)"},
            {"white-clip", BV_TM_SLOT_WHITE_CLIP, 0, 30, false,
             "white point clip, in steps of 3 % of the range"},
            {"black-clip", BV_TM_SLOT_BLACK_CLIP, 0, 40, false,
             "black point clip, in steps of 2 % of the range"},
            {"temperature", BV_TM_SLOT_TEMPERATURE, -15, 15, true,
             "colour temperature, -260 K of white per step"},
            {"saturation", BV_TM_SLOT_SATURATION, -10, 10, true,
             "saturation, 10 % per step (-10 = grey)"},
        };
        // Colour adjustments per hue band, three slots each from slot 20,
        // then the master values that add to every band.
        static const char *kBands[] = {"reds",  "oranges", "yellows", "greens",
                                       "aquas", "blues",   "purples", "magentas"};
        static std::deque<std::string> names, helps;
        auto add = [&](const std::string &name, int slot, const std::string &help) {
            names.push_back(name);
            helps.push_back(help);
            t.push_back({names.back().c_str(), slot, -100, 100, false, helps.back().c_str()});
        };
        for (int b = 0; b < 8; ++b) {
            std::string band = kBands[b];
            add(band + "-hue", BV_CA_SLOT_BANDS + 3 * b,
                band + ": hue shift, 0.3 degrees per unit");
            add(band + "-sat", BV_CA_SLOT_BANDS + 3 * b + 1, band + ": saturation (-100 grey)");
            add(band + "-light", BV_CA_SLOT_BANDS + 3 * b + 2, band + ": lightness (-100 black)");
        }
        add("hue", BV_CA_SLOT_MASTER_HUE, "all hues: hue shift, added to every band");
        add("sat", BV_CA_SLOT_MASTER_SAT, "all hues: saturation, added to every band");
        add("light", BV_CA_SLOT_MASTER_LIGHT, "all hues: lightness, added to every band");
        return t;
    }();
    return table;
}

void add_tonemap_options(std::vector<OptionSpec> &specs) {
    // Help strings must outlive the option list; a deque never moves its items.
    static std::deque<std::string> texts;
    TmParam defaults = lib::tonemap_defaults();
    for (const auto &o : tonemap_options()) {
        char buf[200];
        std::snprintf(buf, sizeof buf, "%s; %g..%g, default %g", o.help, o.lo, o.hi,
                      defaults.slot[o.slot]);
        texts.push_back(buf);
        specs.push_back({o.name, 0, o.whole ? "N" : "X", texts.back().c_str()});
    }
}

TmParam tonemap_param_from(const Args &args) {
    TmParam p = lib::tonemap_defaults();
    for (const auto &o : tonemap_options()) {
        if (!args.has(o.name)) continue;
        double v = args.number(o.name, 0, o.lo, o.hi);
        if (o.whole && v != std::floor(v))
            usage_error(std::string("--") + o.name + " takes whole steps (got " + args.str(o.name) +
                        ")");
        p.slot[o.slot] = static_cast<float>(v);
    }
    return p;
}

}  // namespace bvcli
