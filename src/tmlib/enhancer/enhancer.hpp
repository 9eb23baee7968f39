// Internal interface of the tone enhancer: slot meanings, the luminance and colour stages.
#pragma once

#include <Brackvista40Lib1.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/pixels.hpp"

namespace bv::enhancer {

// The user-facing meaning of every slot method 1 of tmparam_default writes,
// turned into the numbers the stages use. Out-of-range slots are clamped.
struct Look {
    float beta;         // attenuation exponent per scale; 1 = none (slot 1 strength)
    float saturation;   // colour exponent on C / L (slot 2)
    float white_clip;   // fraction of pixels allowed above white (slot 3, in %)
    float detail;       // multiplier of the neutral gradient alpha (slot 5)
    float noise;        // shadow noise floor setting 0..10 (slot 7)
    float brightness;   // mid-tone exponent multiplier (slot 8, 50 = neutral)
    int wrap;           // slot 15: the image closes horizontally (360 degree panorama)
};
Look look_from(const TmParam &p) noexcept;

// Fixed look constants, shared by the stages and the tests.
constexpr float kBlackClip = 0.01f;   // fraction of pixels at or below black
constexpr float kLogRange = 5.0f;       // natural-log units from black to white on screen
constexpr float kMidGrey = 0.18f;       // display luminance the key lands on
constexpr uint32_t kBins = 65536;       // histogram bins of the exposure statistics

// An HDR image as the stages read it: interleaved float RGB or RGBE rows.
struct Image {
    int width = 0, height = 0;
    int channels = 3;       // float samples per pixel (R, G, B at 0, (c-1)/2, c-1)
    bool rgbe = false;      // RGBE scanline rows of 4 x width bytes
    size_t row = 0;         // float input: samples per row
    const void *data = nullptr;
    const float *exp_table = nullptr;  // RGBE exponent scales
    // Linear R, G, B of pixel x of row y.
    inline void rgb(int x, int y, float out[3]) const noexcept;
};

// Exposure statistics of the input luminance, carried to the colour stage.
struct Exposure {
    float key_fraction = 0.5f;  // fraction of pixels darker than the key
    float floor = 0.0f;         // linear luminance added before the log in the contrast stage
    float alpha = 0.0f;         // neutral gradient of the attenuation
    LogLumStats stats{};        // ln luminance: min, max, mean, median, 99.5 %, 33.3 %
};

// Halving chain of a plane: level k + 1 is ceil(w/2) x ceil(h/2) of level k.
struct Level {
    int w, h;
    size_t offset;  // floats from the start of the chain
};
// Levels from (w, h) down while both sides stay at least min_side (the
// first level is always kept), at most max_levels when positive.
std::vector<Level> halving_chain(int w, int h, int min_side, int max_levels);

// The preview size of a w x h image, which is also the size the attenuation
// is analysed at, so that a preview and its full-size image see the same
// scales: no reduction when the measure (the width, or 3/4 of the height
// when the height is not smaller) is at most 1024; otherwise halved, each
// side (v + 1) / 2 while both exceed 3, until the width is at most 1024
// (landscape) or 3 x height at most 4099 (portrait), at most
// trunc(log2((w + h) / 2)) times.
void analysis_size(int w, int h, int *aw, int *ah) noexcept;

// Luminance stage. lum (w x h) receives the linear luminance
// 0.2126 R + 0.7152 G + 0.0722 B; rhs (the solver's `levels` levels, as
// solver::level_sizes) the divergence of the attenuated log-luminance
// gradients of every level; exp the exposure statistics. Returns height,
// or -4 when scratch memory cannot be had.
int calc_tm1(const Image &img, const Look &look, int threads, float *lum, float *rhs, int levels,
             Exposure *exp) noexcept;

// Colour stage: from the log luminance of the input (log_lum) and the solved
// linear luminance (solved, overwritten with the display luminance 0..1),
// writes the 8- or 16-bit picture described by dim into out. Rows outside
// [first, end) are not written. Returns height, or -4.
int calc_tm3(const Image &img, const Look &look, const Exposure &exp, const float *log_lum,
             float *solved, int threads, void *out, const DimParam &dim, int first,
             int end) noexcept;

// Centres every level of a right-hand-side pyramid on zero (rows summed
// in order): with reflecting borders the Laplacian ignores constants, so
// only a right-hand side that sums to zero has a solution.
void centre_levels(float *rhs, int w, int h, int levels);

inline void Image::rgb(int x, int y, float out[3]) const noexcept {
    if (rgbe) {
        const RgbeRow r(static_cast<const uint8_t *>(data), static_cast<size_t>(width),
                        static_cast<size_t>(y));
        const uint8_t e = r.e[x];
        if (e == 0) {
            out[0] = out[1] = out[2] = 0.0f;
            return;
        }
        const float s = exp_table[e];
        out[0] = r.r[x] * s;
        out[1] = r.g[x] * s;
        out[2] = r.b[x] * s;
    } else {
        const float *p = static_cast<const float *>(data) + static_cast<size_t>(y) * row +
                         static_cast<size_t>(x) * channels;
        const ChannelOffsets o = channel_offsets(channels);
        out[0] = p[o.r];
        out[1] = p[o.g];
        out[2] = p[o.b];
    }
}

}  // namespace bv::enhancer
