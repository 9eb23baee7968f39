// Exposure fusion's own names for the HSL conversions (same arithmetic).
#include <Brackvista40Lib1.h>

#include "Utils/colour/colour_math.hpp"

extern "C" {

BV_API int frgb2hsl(const float rgb[3], float hsl[3]) {
    if (!rgb || !hsl) return BV_COLOUR_EARG;
    bv::colour::rgb_to_hsl(rgb, hsl);
    return 1;
}

BV_API float fhue2rgb(float p, float q, float h) { return bv::colour::hue_to_rgb(p, q, h); }

BV_API int fhsl2rgb(const float hsl[3], float rgb[3]) {
    if (!rgb || !hsl) return BV_COLOUR_EARG;
    bv::colour::hsl_to_rgb(hsl, rgb);
    return 1;
}

}  // extern "C"
