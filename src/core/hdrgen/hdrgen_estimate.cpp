// Relative exposures measured from the pixels: the brightness ratio of each
// pair of neighbouring brackets over the pixels both exposed well.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>

#include "Threading/bands.hpp"
#include "common/boundary.hpp"
#include "core/hdrgen/hdrgen.hpp"

namespace bv::hdrgen {

namespace {

// A regular grid of about this many pixels decides every ratio. Even a pair
// that shares only 1 % of them keeps thousands of pixels, which puts the
// median's own scatter far below 0.01 stop, and the work stays a few
// milliseconds whatever the image size.
constexpr double kSampleTarget = 262144.0;
// Progress is reported and cancellation honoured between chunks of rows.
constexpr int kChunks = 16;
// The order of brightness compares every pair of images.
constexpr int kMaxImages = 64;

struct Job {
    int n, width, channels, bits, step, cols, rows;
    size_t image_samples;
    const void *data;
    const float *lin;          // linear value per level
    const int32_t *ascending;  // image indices, darkest first
    unsigned lo, hi;           // well-exposed levels, inclusive
    double *sums;              // rows x n level sums
    int32_t *votes;            // rows x n (n - 1) / 2 brightness votes
    float *values;             // (n - 1) pairs x rows x cols log2 ratios
    int32_t *counts;           // (n - 1) pairs x rows
};

template <class T>
const T *sample_row(const Job &j, int image, int row) {
    const size_t y = static_cast<size_t>(row) * static_cast<size_t>(j.step);
    return static_cast<const T *>(j.data) + static_cast<size_t>(image) * j.image_samples +
           y * static_cast<size_t>(j.width) * static_cast<size_t>(j.channels);
}

// Whether every colour of a pixel lies in [lo, hi].
template <class T>
inline bool in_window(const T *p, const ChannelOffsets &t, unsigned lo, unsigned hi) {
    const unsigned r = p[t.r], g = p[t.g], b = p[t.b];
    return std::min(r, std::min(g, b)) >= lo && std::max(r, std::max(g, b)) <= hi;
}

// Evidence for the order of brightness, per sample row: the R + G + B level
// sum of every image, and for every pair of images (a < b) the pixels where
// a is brighter minus those where b is. A pixel votes on a pair only when it
// is well exposed in one of the two: pixels lost in a dark frame's base
// level (film fog, a scanner's offset, which wander from frame to frame)
// would otherwise outvote the few that carry light. Pure colours (a colour
// at 0 and another at the top level, as in a scanner's border) never vote.
template <class T>
void order_rows(const Job &j, int first, int end) {
    const ChannelOffsets t = stat_taps(j.channels);
    const size_t px = static_cast<size_t>(j.step) * static_cast<size_t>(j.channels);
    const unsigned top = (1u << j.bits) - 1;
    const size_t pairs = static_cast<size_t>(j.n) * (j.n - 1) / 2;
    const T *p[kMaxImages];
    unsigned level[kMaxImages];
    bool well[kMaxImages], usable[kMaxImages];
    for (int r = first; r < end; ++r) {
        int32_t *votes = j.votes + static_cast<size_t>(r) * pairs;
        double *sums = j.sums + static_cast<size_t>(r) * j.n;
        for (int k = 0; k < j.n; ++k) p[k] = sample_row<T>(j, k, r);
        for (int c = 0; c < j.cols; ++c) {
            for (int k = 0; k < j.n; ++k) {
                const T *q = p[k];
                level[k] = q[t.r] + q[t.g] + q[t.b];
                sums[k] += level[k];
                well[k] = in_window(q, t, j.lo, j.hi);
                const unsigned r = q[t.r], g = q[t.g], b = q[t.b];
                usable[k] = std::min(r, std::min(g, b)) > 0 || std::max(r, std::max(g, b)) < top;
                p[k] += px;
            }
            size_t q = 0;
            for (int a = 0; a < j.n; ++a)
                for (int b = a + 1; b < j.n; ++b, ++q)
                    if ((well[a] || well[b]) && usable[a] && usable[b])
                        votes[q] += (level[a] > level[b]) - (level[a] < level[b]);
        }
    }
}

// log2 of the brighter over the darker bracket of every pair, packed at the
// start of each row's slot. A pixel counts when its right-hand neighbour
// (left-hand in the last column) is well exposed in both brackets: choosing
// by the pixel's own levels would keep those that noise lifted above the
// dark end or pushed below the bright end, and bias every ratio low. The
// pixel itself need only be off black and below clipping.
template <class T>
void ratio_rows(const Job &j, int first, int end) {
    const ChannelOffsets t = stat_taps(j.channels);
    const size_t px = static_cast<size_t>(j.step) * static_cast<size_t>(j.channels);
    const size_t slot = static_cast<size_t>(j.rows) * static_cast<size_t>(j.cols);
    const unsigned top = (1u << j.bits) - 2;
    for (int r = first; r < end; ++r)
        for (int p = 0; p + 1 < j.n; ++p) {
            const T *a = sample_row<T>(j, j.ascending[p], r);
            const T *b = sample_row<T>(j, j.ascending[p + 1], r);
            float *out = j.values + static_cast<size_t>(p) * slot +
                         static_cast<size_t>(r) * static_cast<size_t>(j.cols);
            int32_t count = 0;
            for (int c = 0; c < j.cols; ++c, a += px, b += px) {
                const long x = static_cast<long>(c) * j.step;
                const long d = x + 1 < j.width ? j.channels : x > 0 ? -j.channels : 0;
                if (!in_window(a + d, t, j.lo, j.hi) || !in_window(b + d, t, j.lo, j.hi) ||
                    !in_window(a, t, 1, top) || !in_window(b, t, 1, top))
                    continue;
                const double ya = j.lin[a[t.r]] + j.lin[a[t.g]] + j.lin[a[t.b]];
                const double yb = j.lin[b[t.r]] + j.lin[b[t.g]] + j.lin[b[t.b]];
                out[count++] = static_cast<float>(std::log2(yb / ya));
            }
            j.counts[static_cast<size_t>(p) * static_cast<size_t>(j.rows) + r] = count;
        }
}

// Runs `body` over the sample rows in chunks spread on the threads, telling
// progress from `from` to `to` between chunks. False when cancelled.
template <class F>
bool over_rows(const Job &j, int threads, bv_progress_cb cb, float from, float to, F body) {
    const int chunk = std::max(1, (j.rows + kChunks - 1) / kChunks);
    for (int r0 = 0; r0 < j.rows; r0 += chunk) {
        const int r1 = std::min(j.rows, r0 + chunk);
        threading::run_bands(
            r0, r1, std::min(threads, r1 - r0),
            [&](const threading::Band &b) { body(b.first, b.end); },
            threading::OnSpawnFailure::RunInline);
        if (!progress(cb, from + (to - from) * static_cast<float>(r1) / j.rows)) return false;
    }
    return true;
}

struct PairFit {
    double step;        // stops from the darker to the brighter bracket
    double confidence;  // 0 when the pair fell back
    bool measured;
};

// Median of v[0..n) (which it reorders); the mean of the two middle values
// for even n.
double median_of(float *v, size_t n) {
    std::nth_element(v, v + n / 2, v + n);
    const double upper = v[n / 2];
    if (n % 2) return upper;
    return 0.5 * (*std::max_element(v, v + n / 2) + upper);
}

// Robust step of one pair from its n log ratios: their median, with a
// confidence that grows with the pixel count and falls with the spread.
PairFit fit_pair(float *v, size_t n, float *work) {
    const double m = median_of(v, n);
    for (size_t i = 0; i < n; ++i) work[i] = static_cast<float>(std::fabs(v[i] - m));
    const double sigma = 1.4826 * median_of(work, n);
    const double count_term = static_cast<double>(n) / (static_cast<double>(n) + 100.0);
    const double s = sigma / 0.2;
    return {m, count_term / (1.0 + s * s), true};
}

}  // namespace

int estimate_exposures(bv_progress_cb cb, int threads, int n, int width, int height, int channels,
                       int bits, const float *lin, const void *data, float *exposures,
                       float *confidence) {
    const size_t sn = static_cast<size_t>(n);
    Job j{};
    j.n = n;
    j.width = width;
    j.channels = channels;
    j.bits = bits;
    j.step = std::max(
        1, static_cast<int>(std::sqrt(static_cast<double>(width) * height / kSampleTarget)));
    j.cols = (width + j.step - 1) / j.step;
    j.rows = (height + j.step - 1) / j.step;
    j.image_samples =
        static_cast<size_t>(width) * static_cast<size_t>(height) * static_cast<size_t>(channels);
    j.data = data;
    j.lin = lin;
    const unsigned levels = 1u << bits;
    // Noise dominates below an eighth of the range; curves bend and channels
    // clip in the top sixteenth.
    j.lo = levels / 8;
    j.hi = levels - 1 - levels / 16;
    if (threads < 1) threads = 1;

    const size_t rows = static_cast<size_t>(j.rows);
    const size_t slot = rows * static_cast<size_t>(j.cols);
    const size_t pairs = sn * (sn - 1) / 2;
    Scratch<double> sums(rows * sn);
    Scratch<int32_t> ascending(sn), counts(rows * (sn - 1)), votes(rows * pairs);
    Scratch<float> values, work(std::max(slot, sn));
    Scratch<PairFit> fits(sn - 1);
    if (!sums || !ascending || !counts || !votes || !work || !fits ||
        !values.alloc(slot * (sn - 1)))
        return BV_HDR_ENOMEM;
    j.sums = sums.get();
    j.votes = votes.get();
    j.ascending = ascending.get();
    j.values = values.get();
    j.counts = counts.get();

    const bool wide = bits == 16;
    if (!over_rows(j, threads, cb, 0.0f, 0.2f, [&](int a, int b) {
            wide ? order_rows<uint16_t>(j, a, b) : order_rows<uint8_t>(j, a, b);
        }))
        return BV_HDR_CANCELLED;
    {
        // Darkest first: by the number of images each one outvotes, then by
        // level sum, then by index. Integer and whole-number sums come out
        // the same in any order of addition.
        Scratch<double> total(sn);
        Scratch<int64_t> tally(pairs);
        Scratch<int32_t> wins(sn);
        if (!total || !tally || !wins) return BV_HDR_ENOMEM;
        for (size_t r = 0; r < rows; ++r) {
            for (size_t k = 0; k < sn; ++k) total[k] += sums[r * sn + k];
            for (size_t q = 0; q < pairs; ++q) tally[q] += votes[r * pairs + q];
        }
        size_t q = 0;
        for (int a = 0; a < n; ++a)
            for (int b = a + 1; b < n; ++b, ++q) {
                if (tally[q] > 0) ++wins[a];
                if (tally[q] < 0) ++wins[b];
            }
        for (int k = 0; k < n; ++k) ascending[k] = k;
        std::stable_sort(ascending.get(), ascending.get() + n, [&](int32_t a, int32_t b) {
            return wins[a] != wins[b] ? wins[a] < wins[b] : total[a] < total[b];
        });
    }
    if (!over_rows(j, threads, cb, 0.2f, 0.9f, [&](int a, int b) {
            wide ? ratio_rows<uint16_t>(j, a, b) : ratio_rows<uint8_t>(j, a, b);
        }))
        return BV_HDR_CANCELLED;

    // A pair needs 0.1 % of the sample, and at least 20 pixels, to be measured.
    const size_t needed = std::max<size_t>(20, slot / 1000);
    int measured = 0;
    for (size_t p = 0; p + 1 < sn; ++p) {
        // Pack the rows' values in row order; only their multiset matters.
        float *v = j.values + p * slot;
        size_t total = 0;
        for (size_t r = 0; r < rows; ++r) {
            const size_t c = static_cast<size_t>(j.counts[p * rows + r]);
            if (c) std::memmove(v + total, v + r * static_cast<size_t>(j.cols), c * sizeof(float));
            total += c;
        }
        fits[p] = {0.0, 0.0, false};
        if (total >= needed) {
            fits[p] = fit_pair(v, total, work.get());
            ++measured;
        }
    }

    const int mid = n - 1 - n / 2;  // the (n/2)-th brightest, as guess_ev
    if (measured == 0) {
        // Nothing overlaps: the median-brightness rule is all there is.
        Scratch<int32_t> bstats(sn), order(sn), swork(sn);
        Scratch<float> table(kCorrectionSize), L(sn), ev(sn);
        if (!bstats || !order || !swork || !table || !L || !ev) return BV_HDR_ENOMEM;
        median_stats(n, width, height, width * channels, channels, bits, data, bstats.get());
        if (estimate_ev(0, n, bstats.get(), exposures, 0.0f, table.get(), order.get(), swork.get(),
                        L.get(), ev.get()) < 0)
            return BV_HDR_ENOMEM;
        if (confidence)
            for (int k = 0; k < n; ++k) confidence[k] = 0.0f;
        progress(cb, 1.0f);
        return 0;
    }
    // Brackets are nearly always evenly spaced: an unmeasured pair takes the
    // median step of the measured ones.
    {
        size_t m = 0;
        for (size_t p = 0; p + 1 < sn; ++p)
            if (fits[p].measured) work[m++] = static_cast<float>(fits[p].step);
        const double typical = median_of(work.get(), m);
        for (size_t p = 0; p + 1 < sn; ++p)
            if (!fits[p].measured) fits[p].step = typical;
    }
    // Chain the steps outwards from the middle bracket; a bracket is as
    // trustworthy as the weakest link between it and the middle.
    exposures[ascending[mid]] = 1.0f;
    if (confidence) confidence[ascending[mid]] = 1.0f;
    double ev = 0.0, conf = 1.0;
    for (int i = mid + 1; i < n; ++i) {
        ev += fits[i - 1].step;
        conf = std::min(conf, fits[i - 1].confidence);
        exposures[ascending[i]] = static_cast<float>(std::exp2(ev));
        if (confidence) confidence[ascending[i]] = static_cast<float>(conf);
    }
    ev = 0.0, conf = 1.0;
    for (int i = mid - 1; i >= 0; --i) {
        ev -= fits[i].step;
        conf = std::min(conf, fits[i].confidence);
        exposures[ascending[i]] = static_cast<float>(std::exp2(ev));
        if (confidence) confidence[ascending[i]] = static_cast<float>(conf);
    }
    progress(cb, 1.0f);
    return measured;
}

}  // namespace bv::hdrgen

extern "C" BV_API int bv_hdr_estimate_exposures(bv_progress_cb progressCb, int threads, int n,
                                                int width, int height, int channels,
                                                int bitsPerSample, float gamma,
                                                const float *response, const void *data,
                                                float *exposures, float *confidence) {
    return bv::c_boundary(BV_HDR_ENOMEM, BV_HDR_EINVAL, [&]() -> int {
        if (n < 2 || n > 64 || width < 1 || height < 1 || channels < 1 || channels > 64 || !data ||
            !exposures)
            return BV_HDR_EINVAL;
        if (bitsPerSample != 8 && bitsPerSample != 16) return BV_HDR_EDEPTH;
        size_t total;
        if (!bv::checked_mul(static_cast<size_t>(width), static_cast<size_t>(height), &total) ||
            !bv::checked_mul(total, static_cast<size_t>(channels) * 2, &total) ||
            !bv::checked_mul(total, static_cast<size_t>(n), &total) ||
            static_cast<int64_t>(width) * channels > INT32_MAX)
            return BV_HDR_EINVAL;
        const int levels = 1 << bitsPerSample;
        bv::Scratch<float> lin(static_cast<size_t>(levels));
        if (!lin) return BV_HDR_ENOMEM;
        if (response) {
            // Any increasing curve will do; its scale cancels in the ratios.
            for (int i = 0; i < levels; ++i) {
                if (!std::isfinite(response[i]) || response[i] < 0.0f ||
                    (i > 0 && response[i] < response[i - 1]))
                    return BV_HDR_EINVAL;
                lin[i] = response[i];
            }
            if (!(lin[levels / 8] > 0.0f)) return BV_HDR_EINVAL;
        } else {
            if (!(gamma >= 0.1f && gamma <= 10.0f)) return BV_HDR_EINVAL;  // also NaN
            for (int i = 1; i < levels; ++i)
                lin[i] = static_cast<float>(
                    std::pow(static_cast<double>(i) / levels, static_cast<double>(gamma)));
            lin[0] = lin[1];
        }
        return bv::hdrgen::estimate_exposures(progressCb, threads, n, width, height, channels,
                                              bitsPerSample, lin.get(), data, exposures,
                                              confidence);
    });
}
