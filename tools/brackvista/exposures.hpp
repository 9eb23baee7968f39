// Where a bracket set's exposures come from, and how far to trust the EXIF.
#pragma once

#include <string>
#include <vector>

#include "imageio.hpp"
#include "pipeline.hpp"

namespace bvcli {

struct ExposurePlan {
    std::vector<float> exposures;  // per bracket; empty with ev_step >= 0
    float ev_step = 0.0f;          // as the merge takes it (-1: exposures given)
    std::string source;            // for the summary line
    std::vector<float> estimate;   // pixel estimate per bracket, empty if not made
    std::vector<float> confidence;
    std::vector<std::string> warnings;  // one line each
};

// Given values, then a fixed spacing, then EXIF checked against the pixels,
// then the pixels themselves (or the median-brightness rule when asked).
// The pixels are linearised by `gamma`, or by the sRGB curve when `srgb`.
ExposurePlan choose_exposures(const BracketSet &set, const ExposureChoice &choice, float gamma,
                              bool srgb, int threads);

}  // namespace bvcli
