// HDR generation internals: bracket statistics, exposure estimation, response curve, merge.
#pragma once

#include <Brackvista40Lib1.h>

#include <cstddef>
#include <cstdint>

#include "common/pixels.hpp"

namespace bv::hdrgen {

constexpr int kCorrectionSize = 65536;

// Piecewise-linear correction of EV steps over the 16-bit level (guess_ev).
void fill_correction_table(float *table);

// Offsets read by the brightness statistic: unlike everywhere else, with 4
// channels B is sample 2, and with 2 channels all three read sample 0.
ChannelOffsets stat_taps(int channels) noexcept;

int median_stats(int n, int width, int height, int rowStride, int channels, int bits,
                 const void *data, int32_t *stats);
// The brightness statistic of a 256-bin luma histogram, given its running-count
// limits at 50, 95 and 17 %: median bin x 256; nearly black images rank by
// their bright tail (below every other), nearly white ones by their dark tail
// plus 65536 (above every other). Fusion orders its brackets by it too.
int32_t histogram_key(const uint64_t hist[256], uint64_t lim50, uint64_t lim95, uint64_t lim17);
// Brightest-first order of images with statistic >= 0; the others are
// appended in ascending index order. `work` is scratch of n ints; -4 when
// its own scratch cannot be had, else 0.
int order_brightest_first(int n, const int32_t *stats, int32_t *work, int32_t *order);
int estimate_ev(int wholeStops, int n, int32_t *stats, float *result, float evStep, float *table,
                int32_t *order, int32_t *work, float *L, float *ev);
int ascending_order(int n, const float *values, float *work, int32_t *order);

// ICC profile gamma; profile holds at least 4 bytes.
int profile_gamma(const unsigned char *profile, int expectedSize, float *gamma);
// Response gamma estimated from the brackets; arguments already checked.
int response_gamma(int n, int width, int height, int channels, int bits, const void *data,
                   const float *exposures, float result[3]);

// Exposures from neighbour ratios over well-exposed pixels; lin holds the
// linear value of every level. Returns the pairs measured, or a code.
int estimate_exposures(bv_progress_cb cb, int threads, int n, int width, int height, int channels,
                       int bits, const float *lin, const void *data, float *exposures,
                       float *confidence);

// Merge; the arguments are checked by the exported adapter.
int merge(bv_progress_cb cb, int mode, int n, int width, int height, int channels, float evStep,
          int bits, int gammaGiven, float *lut, float *exposures, const void *data, float stats[3],
          unsigned char *output);

}  // namespace bv::hdrgen
