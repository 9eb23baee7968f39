// Pyramid fusion of decoded brackets, shared by `brackvista fuse` and the demo.
#pragma once

#include <Brackvista40Lib1.h>

#include <cstdint>
#include <string>
#include <vector>

#include "imageio.hpp"

namespace bvcli {

struct FuseJob {
    FuseJob();  // tmparam_default method 10, 8-bit output, one thread
    TmParam param;
    int bits = 8, threads = 1;
    bool wrap = false;
    std::vector<int32_t> slots;  // ghost selection: slot per bracket, empty = none
    std::vector<uint8_t> mask;   // its bit mask, one bit per pixel and slot
    std::string temp_dir;        // non-empty: temporary-file mode in that folder
};

// The fused picture, width x height x 3 samples of job.bits; progress bar,
// Ctrl-C, and a one-line failure on error.
std::vector<uint8_t> fuse_brackets(const BracketSet &set, const FuseJob &job);

}  // namespace bvcli
