// Exposure fusion internals: weights, pyramid steps, collapse and the driver.
#pragma once

#include <Brackvista40Lib1.h>

#include <cstddef>
#include <cstdint>

namespace bv::fusion {

// ---- Statistics, exposure curves and weights ---------------------------

// Float input (0..1) is read as 16-bit codes, truncated; NaN reads as 0.
inline uint32_t code16(float v) noexcept {
    if (v >= 1.0f) return 65535u;
    return v > 0.0f ? static_cast<uint32_t>(v * 65535.0f) : 0u;
}
inline uint32_t code16(uint16_t v) noexcept { return v; }
inline uint32_t code16(uint8_t v) noexcept { return v; }

// Per-bracket statistics and the brightest-first order. images: n packed
// images of width x height x channels samples of `bits` (8, 16 or 32 =
// float 0..1). Returns 0, or -4 without memory.
int stats_order_photos(int n, int width, int height, int channels, int bits, const void *images,
                       uint32_t *darkPct, uint32_t *brightPct, uint32_t *saturated, uint32_t *key,
                       int32_t *order);

// Exposure curve of one bracket into lut[levels] (256 or 65536); g2 picks
// the shape, satFraction is its saturated-pixel share.
void exposure_lut(float g2, double satFraction, int levels, float *lut);

// The 65536-entry table that turns a weighted exposure score into a weight.
void boost_lut(float g0, bool floatOutput, float *lut);

// Rank factor of each bracket from its place in the order (0 = not applied).
void image_factors(int n, const int32_t *order, float g1, float *factors);

// q = w * 2^bits / sum rounded to nearest with exact halves down, clamped
// to 0 .. 2^bits - 1.
int quantise_weight(float w, float sum, int bits);

// Everything one band of the weight stage reads and writes.
struct WeightJob {
    int n = 0;
    int width = 0;
    int channels = 3;
    int bits = 8;                       // input samples: 8, 16 or 32 (float)
    const void *const *rows = nullptr;  // per image: its row 0 (packed rows)
    const float *luts = nullptr;        // n x levels
    int levels = 256;
    const float *boost = nullptr;    // 65536
    const float *factors = nullptr;  // n, 0 = not applied
    const int32_t *ghostSlots = nullptr;
    const uint8_t *ghostMask = nullptr;
    size_t pixelBase = 0;    // mask pixel index of row 0
    size_t maskPlane = 0;    // bits per mask slot (width x height)
    int weightBits = 8;      // 8, 16 or 32 (float maps)
    void *planes = nullptr;  // weight map of image i at i * planeStride
    size_t planeStride = 0;  // in weight values
};

// Weights of rows [first, end) (the band worker; w is scratch of n floats)
// and the whole job split in bands over `threads` threads (a thread that
// cannot start runs inline). adj1b_threaded returns 0, or -4 without memory.
void adj1b_orig(const WeightJob &job, int first, int end, float *w);
int adj1b_threaded(const WeightJob &job, int height, int threads);

// ---- Pyramid steps -------------------------------------------------------

// Detail levels of a width x height fusion (<= 0: no detail levels).
int pyramid_depth(int width, int height, int bitsOut);

// Level geometry: sizes and sample offsets (times channels) of levels 0..D.
struct Levels {
    int count = 1;  // D + 1
    int w[32] = {}, h[32] = {};
    size_t off[33] = {};  // pixel offset of each level; off[count] = total
};
Levels level_layout(int width, int height, int depth);

// One reduction step: `out` ((w + 1) / 2 x (h + 1) / 2) from `in` (w x h),
// channels per pixel, 3 x 3 binomial with the border and wrap rules.
void reduce(const uint8_t *in, uint8_t *out, int w, int h, int channels, bool wrap, int threads);
void reduce(const uint16_t *in, uint16_t *out, int w, int h, int channels, bool wrap, int threads);
void reduce(const float *in, float *out, int w, int h, int channels, bool wrap, int threads);

// Row y of the 2x enlargement of a coarse level (cw x ch) to a fine width
// fw; `out` gets fw x channels truncated values. work: 2 x cw x channels.
void expand_row(const uint16_t *coarse, int cw, int ch, int channels, int fw, int y, bool wrap,
                int32_t *out, int32_t *work);

// Gain applied to the detail level k of D under moire mode m.
float fix_moire(int m, int k, int depth, float g);
// Detail strength of level k of D for the strength slot s.
float level_strength(float s, int k, int depth);
// table[a] = the boosted detail of accumulator value a (detail a - 32767).
void detail_table(float sk, int moire, int k, int depth, int32_t *table);

// ---- Driver ----------------------------------------------------------------

// Code a level step of the collapse returns for an accumulator it cannot take.
constexpr int kCollapseWidth = -16;

struct Args {
    bv_progress_cb progress;
    TmParam *params;
    const TmParam *colour;
    int n, weightBits, accBits;
    uint64_t options;
    int64_t fwd9, fwd11, fwd14, fwd15, fwd16;
    const char *sourcePath, *weightPath, *pyramidPath;
    DimParam dim;
    int wrap;
    void *extra, *resultCopy;
    const void *images;
    const int32_t *ghostSlots;
    const uint8_t *ghostMask;
    uint64_t scratchBytes;
    void *output;
};
int fuse(const Args &a);

// The driver behind bv_fusion: its arguments plus `resultCopy` (NULL, or a
// buffer of width x height x channels packed samples that receives the
// final picture).
int bv_fusion5(bv_progress_cb progressContext, TmParam *params, const TmParam *colour, int n,
               int weightBits, int accBits, float reserved, uint64_t options, int64_t local1,
               const char *sourcePath, int64_t local2, const char *weightPath,
               const char *pyramidPath, int64_t local3, int64_t local4, int64_t local5,
               DimParam dim, int wrap, void *extra, void *resultCopy, const void *exposures,
               const int32_t *ghostSlots, const uint8_t *ghostMask, uint64_t scratchBytes,
               void *output);

}  // namespace bv::fusion
