// Bracket brightness statistics, exposure ordering and exposure-value estimation.
#include <cmath>
#include <cstring>

#include "common/boundary.hpp"
#include "core/hdrgen/hdrgen.hpp"

namespace bv::hdrgen {

namespace {

// Marks an entry already taken by the brightest-first selection.
constexpr int32_t kTakenStat = -999999;
constexpr float kTakenValue = -1e8f;

// First bin whose running count exceeds `limit`, or -1.
int first_bin_above(const uint64_t hist[256], uint64_t limit) {
    uint64_t run = 0;
    for (int b = 0; b < 256; ++b) {
        run += hist[b];
        if (run > limit) return b;
    }
    return -1;
}

template <class T>
void luma_histogram(const T *img, int width, int height, size_t rowStride, int channels,
                    uint64_t hist[256]) {
    const ChannelOffsets t = stat_taps(channels);
    const int shift = sizeof(T) == 2 ? 8 : 0;
    for (int y = 0; y < height; ++y) {
        const T *p = img + static_cast<size_t>(y) * rowStride;
        for (int x = 0; x < width; ++x, p += channels) {
            const unsigned r = p[t.r] >> shift, g = p[t.g] >> shift, b = p[t.b] >> shift;
            ++hist[(54 * r + 183 * g + 19 * b) >> 8];
        }
    }
}

// Replaces the entries of `order` flagged in `unfound` by the indices that
// never made it into the order, lowest index first.
void repair_order(int n, int32_t *order, const bool *unfound, bool *present) {
    for (int i = 0; i < n; ++i) present[i] = false;
    for (int i = 0; i < n; ++i)
        if (!unfound[i]) present[order[i]] = true;
    int next = 0;
    for (int i = 0; i < n; ++i) {
        if (!unfound[i]) continue;
        while (next < n && present[next]) ++next;
        if (next < n) present[next] = true;
        order[i] = next < n ? next : order[i];
    }
}

// Repeatedly takes the largest value above `floor` not taken yet (ties to
// the lowest index), marking it `taken`; passes that find nothing repeat the
// previous pick and are repaired afterwards. Returns 0, or -4 without memory.
template <class T>
int take_largest_first(int n, T *work, T floor, T taken, int32_t *picked) {
    Scratch<bool> flags(2 * static_cast<size_t>(n));
    if (!flags) return -4;
    bool *unfound = flags.get();
    int prev = 0;
    for (int i = 0; i < n; ++i) {
        int best = -1;
        T best_v = floor;
        for (int j = 0; j < n; ++j)
            if (work[j] > best_v) {
                best_v = work[j];
                best = j;
            }
        if (best < 0) {
            picked[i] = prev;
            unfound[i] = true;
            continue;
        }
        work[best] = taken;
        picked[i] = prev = best;
    }
    repair_order(n, picked, unfound, flags.get() + n);
    return 0;
}

}  // namespace

ChannelOffsets stat_taps(int channels) noexcept {
    if (channels == 4) return {0, 1, 2};
    if (channels == 2) return {0, 0, 0};
    return channel_offsets(channels);
}

void fill_correction_table(float *table) {
    static const int lv[9] = {0, 8, 14, 60, 90, 125, 160, 190, 255};
    static const float fac[9] = {1.1f, 1.2f, 1.3f, 1.5f, 1.8f, 2.3f, 3.3f, 4.7f, 6.0f};
    for (int k = 0; k < 8; ++k) {
        const int l0 = lv[k] << 8, l1 = lv[k + 1] << 8;
        const float slope = fac[k + 1] - fac[k];
        const float span = static_cast<float>(l1 - l0);
        for (int i = l0; i < l1; ++i) table[i] = fac[k] + static_cast<float>(i - l0) * slope / span;
    }
    table[65280] = 6.0f;
    // Levels above the last breakpoint give no correction at all: a pair of
    // nearly white brackets says nothing reliable about their spacing.
    for (int i = 65281; i < kCorrectionSize; ++i) table[i] = 0.0f;
}

int median_stats(int n, int width, int height, int rowStride, int channels, int bits,
                 const void *data, int32_t *stats) {
    const double N = static_cast<double>(width) * height;
    const int median_rank = static_cast<int>(0.5 * static_cast<double>(width) * height);
    const uint64_t lim50 = static_cast<uint64_t>(0.5 * N);
    const uint64_t lim95 = static_cast<uint64_t>(0.95 * N);
    const uint64_t lim17 = static_cast<uint64_t>(0.17 * N);
    const size_t image_samples = static_cast<size_t>(rowStride) * static_cast<size_t>(height);
    for (int k = 0; k < n; ++k) {
        uint64_t hist[256] = {};
        if (bits == 8)
            luma_histogram(static_cast<const uint8_t *>(data) + k * image_samples, width, height,
                           rowStride, channels, hist);
        else if (bits == 16)
            luma_histogram(static_cast<const uint16_t *>(data) + k * image_samples, width, height,
                           rowStride, channels, hist);
        stats[k] = histogram_key(hist, lim50, lim95, lim17);
    }
    return median_rank;
}

int32_t histogram_key(const uint64_t hist[256], uint64_t lim50, uint64_t lim95, uint64_t lim17) {
    const int m = first_bin_above(hist, lim50);
    if (m >= 0 && m < 5) {
        // Nearly black: rank by the bright tail, below every normal image.
        const int b = first_bin_above(hist, lim95);
        return b >= 0 ? b : 256;
    }
    if (m >= 0 && m * 256 < 64513) return m * 256;
    // Nearly white: rank by the dark tail, above every normal image.
    const int b = first_bin_above(hist, lim17);
    return b >= 0 ? 65536 + b : 65792;
}

int order_brightest_first(int n, const int32_t *stats, int32_t *work, int32_t *order) {
    std::memcpy(work, stats, sizeof(int32_t) * static_cast<size_t>(n));
    // Only statistics of 0 or more can be taken.
    return take_largest_first<int32_t>(n, work, -1, kTakenStat, order);
}

int estimate_ev(int wholeStops, int n, int32_t *stats, float *result, float evStep, float *table,
                int32_t *order, int32_t *work, float *L, float *ev) {
    if (order_brightest_first(n, stats, work, order) < 0) return -4;
    const int mid = n / 2;
    if (evStep > 0.0f) {
        for (int i = 0; i < n; ++i)
            result[order[i]] =
                static_cast<float>(std::exp2(static_cast<double>((mid - i) * evStep)));
        return n;
    }
    fill_correction_table(table);
    for (int i = 0; i < n; ++i)
        if (stats[i] < 1) stats[i] = 1;
    for (int i = 0; i < n; ++i) {
        float v = static_cast<float>(stats[order[i]]);
        L[i] = v > 65535.0f ? 65535.0f : v;
    }
    ev[mid] = 0.0f;
    // Each step is log2 of the neighbours' brightness ratio, stretched by the
    // correction of the level halfway between them.
    for (int i = mid + 1; i < n; ++i)
        ev[i] = static_cast<float>(ev[i - 1] -
                                   1.442695 * table[static_cast<int>((L[i - 1] + L[i]) * 0.5)] *
                                       std::log(L[i - 1] / L[i]));
    for (int i = mid - 1; i >= 0; --i)
        ev[i] = static_cast<float>(ev[i + 1] -
                                   1.442695 * table[static_cast<int>((L[i] + L[i + 1]) * 0.5)] *
                                       std::log(L[i + 1] / L[i]));
    if (wholeStops) {
        for (int i = 0; i < n; ++i) {
            stats[i] = order[i];
            result[i] = static_cast<float>(std::round(static_cast<double>(ev[i])));
        }
    } else {
        for (int i = 0; i < n; ++i)
            result[order[i]] = static_cast<float>(std::exp2(static_cast<double>(ev[i])));
    }
    return n;
}

int ascending_order(int n, const float *values, float *work, int32_t *order) {
    std::memcpy(work, values, sizeof(float) * static_cast<size_t>(n));
    Scratch<int32_t> desc(static_cast<size_t>(n));
    if (!desc) return -4;
    // -99999999 rounds to the taken mark -1e8 in single precision, so one
    // comparison keeps out both taken entries and anything below it.
    if (take_largest_first<float>(n, work, -99999999.0f, kTakenValue, desc.get()) < 0) return -4;
    for (int i = 0; i < n; ++i) order[i] = desc[n - 1 - i];
    return n;
}

}  // namespace bv::hdrgen

using namespace bv::hdrgen;

extern "C" {

BV_API int mediane_images(int n, int width, int height, int rowStride, int channels,
                          int bitsPerSample, const void *data, int32_t *stats) {
    return bv::c_boundary(BV_HDR_ENOMEM, BV_HDR_EINVAL, [&]() -> int {
        const int rank = static_cast<int>(0.5 * static_cast<double>(width) * height);
        if (n < 1) return rank;
        // Rows narrower than their pixels would read past the n images.
        if (!data || !stats || width < 0 || height < 0 || channels < 1 || channels > 4 ||
            static_cast<int64_t>(rowStride) < static_cast<int64_t>(width) * channels)
            return BV_HDR_EINVAL;
        return median_stats(n, width, height, rowStride, channels, bitsPerSample, data, stats);
    });
}

BV_API int guess_ev(int wholeStops, int n, int32_t *stats, float *result, float evStep) {
    return bv::c_boundary(BV_HDR_ENOMEM, BV_HDR_EINVAL, [&]() -> int {
        if (n < 1) return 0;
        if (!stats || !result) return BV_HDR_EINVAL;
        const size_t sn = static_cast<size_t>(n);
        bv::Scratch<float> table(kCorrectionSize), L(sn), ev(sn);
        bv::Scratch<int32_t> order(sn), work(sn);
        if (!table || !L || !ev || !order || !work) return BV_HDR_ENOMEM;
        return estimate_ev(wholeStops, n, stats, result, evStep, table.get(), order.get(),
                           work.get(), L.get(), ev.get());
    });
}

BV_API int get_ev(int n, int32_t *records) {
    if (n < 1) return 1;
    if (!records) return BV_HDR_EINVAL;
    float *factors = reinterpret_cast<float *>(records);
    for (int k = 0; k < n; ++k) {
        // Read the whole record first: factor k overwrites words of records <= k.
        int32_t w[7];
        std::memcpy(w, records + 7 * static_cast<size_t>(k), sizeof w);
        float f;
        if (w[0] == 0 && w[1] == 0) {
            const float stops = static_cast<float>(w[4]) * 0.001f;
            f = static_cast<float>(std::exp2(static_cast<double>(stops)));
        } else {
            const float t = w[1] == 0 ? 0.0f : static_cast<float>(w[0]) / static_cast<float>(w[1]);
            const float fn = (w[2] == 0 || w[3] == 0)
                                 ? 8.0f
                                 : static_cast<float>(w[2]) / static_cast<float>(w[3]);
            const float iso = w[5] == 0 ? 100.0f : static_cast<float>(w[5]);
            f = t * 20.64516f * iso / (fn * fn);
        }
        std::memcpy(factors + k, &f, sizeof f);
    }
    return 1;
}

BV_API int fClassementCroissant(int n, const float *values, int32_t *order) {
    return bv::c_boundary(BV_HDR_ENOMEM, BV_HDR_EINVAL, [&]() -> int {
        if (n < 1) return 0;
        if (!values || !order) return BV_HDR_EINVAL;
        bv::Scratch<float> work(static_cast<size_t>(n));
        if (!work) return BV_HDR_ENOMEM;
        return ascending_order(n, values, work.get(), order);
    });
}

BV_API int moy_image(int width, int height, int rowStride, int pixelStep, int bitsPerSample,
                     const void *data) {
    // Samples 0..2 are read, so a pixel must have at least three.
    if ((bitsPerSample != 8 && bitsPerSample != 16) || !data || width < 1 || height < 1 ||
        pixelStep < 3 || rowStride < 0)
        return 0;
    const int sx = width / 50 + 1, sy = height / 50 + 1;
    uint64_t sum = 0, visited = 0;
    for (int y = 0; y < height; y += sy) {
        const size_t row = static_cast<size_t>(y) * static_cast<size_t>(rowStride);
        for (int x = 0; x < width; x += sx) {
            const size_t p = row + static_cast<size_t>(x) * static_cast<size_t>(pixelStep);
            if (bitsPerSample == 8) {
                const uint8_t *s = static_cast<const uint8_t *>(data) + p;
                sum += static_cast<uint64_t>(s[0]) + s[1] + s[2];
            } else {
                const uint16_t *s = static_cast<const uint16_t *>(data) + p;
                sum += static_cast<uint64_t>(s[0] >> 8) + (s[1] >> 8) + (s[2] >> 8);
            }
            ++visited;
        }
    }
    return visited ? static_cast<int>(sum / (3 * visited)) : 0;
}

BV_API int mid_im(int n, const int32_t *values) {
    if (n < 1 || !values) return BV_HDR_EINVAL;
    int prev_index = 0;
    int32_t prev_value = 255;
    int at_middle = 0;
    for (int i = 0; i <= n / 2; ++i) {
        int best = -1;
        int32_t best_v = 0;
        for (int j = 0; j < n; ++j)
            if (values[j] > best_v && values[j] < prev_value) {
                best_v = values[j];
                best = j;
            }
        if (best >= 0) {
            prev_index = best;
            prev_value = best_v;
        }
        at_middle = prev_index;
    }
    return at_middle;
}

}  // extern "C"
