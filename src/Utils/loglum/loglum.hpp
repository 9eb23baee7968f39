// Log-luminance statistics, histogram and percentile search.
#pragma once

#include <Brackvista40Lib1.h>

#include <cstdint>

namespace bv::loglum {

// Bins of the statistics histogram and the sample budget it is built from.
constexpr uint32_t kLogBins = 65536;
constexpr int kLogSamples = 40000;

// See logMinMaxMoy in the public header; arguments already checked.
int log_min_max_moy(int width, int height, const float *table, const void *data,
                    LogLumStats *stats) noexcept;
int log_histo(uint64_t count, uint32_t nbins, const float *values, int32_t *hist, float lo,
              float hi) noexcept;
int percentile(uint64_t count, uint32_t nbins, const int32_t *hist, float fraction) noexcept;

}  // namespace bv::loglum
