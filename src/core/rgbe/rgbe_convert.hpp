// Conversions between RGBE scanline images and float or half-float pixels.
#pragma once

#include <cstdint>

namespace bv::rgbe {

// Optional linear remapping of decoded values onto the image's log-luminance
// range: v' = max((v - lo) * scale, 0).
struct Normaliser {
    bool active = false;
    float lo = 0.0f;
    float scale = 1.0f;
    float apply(float v) const noexcept {
        if (!active) return v;
        const float n = (v - lo) * scale;
        return n > 0.0f ? n : 0.0f;
    }
};

// Fills n from the statistics of an RGBE image: lo = exp(minimum), hi =
// exp(99.5th percentile), scale = numerator / (hi - lo); inactive when the
// range is empty. Returns 0 or -4 when statistics memory is short.
int make_normaliser(int width, int height, const float *table, const uint8_t *rgbe, float numerator,
                    Normaliser *n) noexcept;

// Decodes RGBE row y into width * 3 floats.
void decode_row(int width, const uint8_t *rgbe, int y, const float *table, const Normaliser &n,
                float *out) noexcept;

uint16_t float_to_half(float f) noexcept;

}  // namespace bv::rgbe
