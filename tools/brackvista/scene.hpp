// The demo's built-in scene: a procedural HDR interior with a sunlit window,
// and its bracket set as a camera would record it.
#pragma once

#include <cstdint>
#include <vector>

#include "imageio.hpp"

namespace bvcli {

// Linear radiance of the scene (float RGB), deterministic for a size.
FloatImage render_scene(int width, int height);

struct BracketPlan {
    std::vector<float> exposures;    // relative exposure of each bracket, darkest first
    double seconds_at_1 = 1.0 / 64;  // exposure time of exposure factor 1 (for EXIF)
};
BracketPlan default_bracket_plan();

// Renders the brackets through an sRGB-like camera curve with shot and read
// noise (fixed seed), quantised to 8 bits, with EXIF-style metadata filled.
BracketSet render_brackets(const FloatImage &scene, const BracketPlan &plan, uint64_t seed);

// Largest over smallest positive luminance, in stops.
double dynamic_range_stops(const FloatImage &img);

}  // namespace bvcli
