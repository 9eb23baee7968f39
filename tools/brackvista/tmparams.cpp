// The simple tone mapper's parameters, named for the command line.
#include "tmparams.hpp"

#include <cmath>
#include <cstdio>
#include <deque>
#include <string>

#include "libcalls.hpp"

namespace bvcli {

const std::vector<TmOption> &tonemap_options() {
    static const std::vector<TmOption> table = {
        {"exposure", 0, -10, 10, false, "exposure, brighter when positive"},
        {"brightness", 1, -10, 10, false, "brightness: bends the contrast curve"},
        {"adaptation", 2, -10, 10, false, "adaptation: local level (-10) to global (10)"},
        {"white-clip", 3, 0, 30, false, "white point clip, in steps of 3 % of the range"},
        {"black-clip", 4, 0, 40, false, "black point clip, in steps of 2 % of the range"},
        {"temperature", 12, -15, 15, true, "colour temperature, -260 K of white per step"},
        {"saturation", 13, -10, 10, true, "saturation, 10 % per step (-10 = grey)"},
    };
    return table;
}

void add_tonemap_options(std::vector<OptionSpec> &specs) {
    // Help strings must outlive the spec list; a deque never moves its items.
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
            usage_error(std::string("--") + o.name + " takes whole steps (got " + args.str(o.name) + ")");
        p.slot[o.slot] = static_cast<float>(v);
    }
    return p;
}

}  // namespace bvcli
