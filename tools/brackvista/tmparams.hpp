// Tone-mapping parameters by name: one table gives options, help, ranges and slots.
#pragma once

#include <Brackvista40Lib1.h>

#include <vector>

#include "cli.hpp"

namespace bvcli {

struct TmOption {
    const char *name;
    int slot;       // TmParam slot it sets
    double lo, hi;  // accepted range
    bool whole;     // integer steps only
    const char *help;
};
const std::vector<TmOption> &tonemap_options();

// Appends one --name VALUE option per parameter (help shows range and default).
void add_tonemap_options(std::vector<OptionSpec> &specs);
// Library defaults overridden by the options given.
TmParam tonemap_param_from(const Args &args);

}  // namespace bvcli
