// Log-luminance statistics of RGBE and float images, with their histogram.
#include "Utils/loglum/loglum.hpp"

#include <cmath>
#include <cstdint>

#include "common/boundary.hpp"
#include "common/pixels.hpp"

namespace bv::loglum {

int log_histo(uint64_t count, uint32_t nbins, const float *values, int32_t *hist, float lo,
              float hi) noexcept {
    if (!(lo < hi) || nbins == 0 || !hist || (count && !values)) return BV_RGBE_ERR_OPEN;
    const float top = static_cast<float>(nbins - 1);
    const float range = hi - lo;
    for (uint64_t i = 0; i < count; ++i) {
        const float t = (values[i] - lo) * top / range;
        // Clamp before converting: out-of-range or NaN values land in an end bin.
        uint32_t bin = 0;
        if (t >= top)
            bin = nbins - 1;
        else if (t > 0.0f)
            bin = static_cast<uint32_t>(t);
        ++hist[bin];
    }
    return 1;
}

int percentile(uint64_t count, uint32_t nbins, const int32_t *hist, float fraction) noexcept {
    if (nbins < 1 || !hist) return 0;
    // count * fraction is a single-precision product, truncated to unsigned.
    const float want = static_cast<float>(count) * fraction;
    uint64_t target = 0;
    if (want >= 18446744073709551616.0f)
        target = UINT64_MAX;
    else if (want > 0.0f)
        target = static_cast<uint64_t>(want);
    int64_t sum = hist[0];
    if (sum > 0 && target < static_cast<uint64_t>(sum)) return 0;
    for (uint32_t k = 1; k < nbins; ++k) {
        sum += hist[k];
        if (sum > 0 && static_cast<uint64_t>(sum) > target) return static_cast<int>(k);
    }
    return static_cast<int>(nbins);
}

namespace {

// Running statistics over the counted pixels, with a strided sample.
struct Accumulator {
    float lo = 1e11f, hi = -1e11f;
    double sum = 0.0;
    uint64_t counted = 0;
    uint64_t step = 1;
    float *samples = nullptr;
    uint32_t nsamples = 0;

    void add(uint64_t index, double log_value) noexcept {
        const float v = static_cast<float>(log_value);
        if (v < lo) lo = v;
        if (v > hi) hi = v;
        sum += v;
        ++counted;
        if (index % step == 0 && nsamples < static_cast<uint32_t>(kLogSamples))
            samples[nsamples++] = v;
    }
};

void scan_rgbe(int width, int height, const float *table, const uint8_t *rgbe,
               Accumulator &acc) noexcept {
    uint64_t index = 0;
    for (int y = 0; y < height; ++y) {
        const bv::RgbeRow row(rgbe, width, y);
        for (int x = 0; x < width; ++x, ++index) {
            const uint8_t e = row.e[x];
            if (e == 0) continue;
            const double l = 0.2125 * row.r[x] + 0.7154 * row.g[x] + 0.0721 * row.b[x];
            if (!(l > 0.0)) continue;
            acc.add(index, std::log(l * table[e]));
        }
    }
}

void scan_float(int width, int height, int channels, const float *data, Accumulator &acc) noexcept {
    uint64_t index = 0;
    const size_t n = static_cast<size_t>(channels);
    for (int y = 0; y < height; ++y) {
        const float *p = data + static_cast<size_t>(y) * width * n;
        for (int x = 0; x < width; ++x, ++index, p += n) {
            const double l = channels >= 3 ? 0.2125 * p[0] + 0.7154 * p[1] + 0.0721 * p[2] : p[0];
            if (!(l > 0.0) || std::isinf(l)) continue;
            acc.add(index, std::log(l));
        }
    }
}

}  // namespace

int log_min_max_moy(int width, int height, const float *table, const void *data,
                    LogLumStats *stats) noexcept {
    const bool is_float = stats->v[BV_LLS_MIN] == 32.0f;
    const int channels = is_float ? static_cast<int>(stats->v[BV_LLS_MAX]) : 4;
    Scratch<float> samples;
    if (!samples.alloc(kLogSamples)) return BV_RGBE_ERR_NOMEM;

    Accumulator acc;
    acc.samples = samples.get();
    const uint64_t pixels = static_cast<uint64_t>(width) * static_cast<uint64_t>(height);
    acc.step = pixels / kLogSamples + 1;
    if (height > 0 && width > 0) {
        if (is_float)
            scan_float(width, height, channels < 1 ? 1 : channels, static_cast<const float *>(data),
                       acc);
        else
            scan_rgbe(width, height, table, static_cast<const uint8_t *>(data), acc);
    }
    if (acc.counted == 0) acc.hi = 0.0f;  // nothing counted reads as min 1e11, max 0

    float *v = stats->v;
    const float mean =
        acc.counted ? static_cast<float>(acc.sum / acc.counted) : static_cast<float>(acc.sum);
    v[BV_LLS_MIN] = acc.lo;
    v[BV_LLS_MAX] = acc.hi;
    v[BV_LLS_MEAN] = mean;
    v[BV_LLS_MEDIAN] = mean;
    v[BV_LLS_P995] = acc.hi;
    v[BV_LLS_P33] = mean;

    Scratch<int32_t> hist;
    if (acc.lo < acc.hi && hist.alloc(kLogBins) &&
        log_histo(acc.nsamples, kLogBins, samples.get(), hist.get(), acc.lo, acc.hi) == 1) {
        const float range = acc.hi - acc.lo;
        const float fractions[3] = {0.5f, 0.995f, 0.33333334f};
        const int fields[3] = {BV_LLS_MEDIAN, BV_LLS_P995, BV_LLS_P33};
        for (int i = 0; i < 3; ++i) {
            const int bin = percentile(acc.nsamples, kLogBins, hist.get(), fractions[i]);
            v[fields[i]] = acc.lo + static_cast<float>(bin) * range * 1.52587890625e-5f;
        }
    }
    return height > 0 ? height : 0;
}

}  // namespace bv::loglum

extern "C" {

int logMinMaxMoy(int width, int height, const float *table, const void *data, LogLumStats *stats) {
    if (!stats || width < 0) return BV_RGBE_ERR_ARG;
    const bool is_float = stats->v[BV_LLS_MIN] == 32.0f;
    if (height > 0 && width > 0 && (!data || (!is_float && !table))) return BV_RGBE_ERR_ARG;
    return bv::loglum::log_min_max_moy(width, height, table, data, stats);
}

int log_histo(uint64_t count, uint32_t nbins, const float *values, int32_t *hist, float lo,
              float hi) {
    return bv::loglum::log_histo(count, nbins, values, hist, lo, hi);
}

int percentile(uint64_t count, uint32_t nbins, const int32_t *hist, float fraction) {
    return bv::loglum::percentile(count, nbins, hist, fraction);
}

}  // extern "C"
