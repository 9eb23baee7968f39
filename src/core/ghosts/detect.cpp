// Automatic ghost detection: neighbour brackets predicted from each other, then smoothed regions.
#include <climits>
#include <cmath>
#include <cstring>
#include <functional>

#include "Threading/bands.hpp"
#include "common/boundary.hpp"
#include "common/pixels.hpp"
#include "core/ghosts/ghosts.hpp"
#include "core/hdrgen/hdrgen.hpp"

namespace bv::ghosts {

namespace {

constexpr int kLumaMax = 65280;    // 255 * (54 + 183 + 19)
constexpr int kWeightShift = 4;    // confidence tables are indexed by luma >> 4
constexpr int kWeightSize = (kLumaMax >> kWeightShift) + 1;
// Width of the ramp, on the luma scale, over which a bracket's confidence
// falls from 1 to 0 as its luma approaches one of its thresholds: about 16
// 8-bit levels, the range where film grain and sensor noise or the first
// signs of clipping start to dominate the comparison.
constexpr float kRamp = 4096.0f;

// Usable luma range of one bracket, from its brightness statistic.
struct Range {
    int low, high;
};

Range luma_range(int32_t s) {
    const int m = s / 256;
    Range r;
    if (s < 38656) {
        r.low = m < 41 ? 10240 : static_cast<int>((150 - m) * 7680 * 0.00909090909090909 + 2560);
        r.high = 61440;
    } else {
        r.low = 2560;
        if (m < 200)
            r.high = 61440;
        else if (m < 250)
            r.high = static_cast<int>(61440 - (200 - m) * 5120 * 0.02);
        else
            r.high = 56320;
    }
    return r;
}

// Multiplier on the exposure ratio for a darker bracket's 8-bit level: the
// response of a real camera or film rises faster than a pure power curve
// in its toe, so very dark levels predict relatively brighter values.
float dark_factor(int v) {
    const float level = static_cast<float>(v);
    if (v < 11) return 3.0f;
    if (v < 21) return 4.0f - 0.1f * level;
    if (v < 41) return 2.5f - 0.025f * level;
    if (v < 61) return 2.1f - 0.015f * level;
    return 1.0f;
}

// Confidence of a prediction made from one bracket, by its luma: 1 well
// inside the bracket's usable range, falling linearly to 0 at either
// threshold and 0 beyond; divided by the square of the dark-level factor,
// since the further the toe correction departs from 1, the less the
// prediction can be trusted.
void fill_confidence(const Range &r, float *table) {
    for (int i = 0; i < kWeightSize; ++i) {
        const float l = static_cast<float>(i << kWeightShift);
        float a = (l - static_cast<float>(r.low)) / kRamp;
        float b = (static_cast<float>(r.high) - l) / kRamp;
        a = a < 0.0f ? 0.0f : a > 1.0f ? 1.0f : a;
        b = b < 0.0f ? 0.0f : b > 1.0f ? 1.0f : b;
        const float f = dark_factor((i << kWeightShift) >> 8);
        table[i] = (a < b ? a : b) / (f * f);
    }
}

// Brighter bracket's 8-bit level predicted from the darker one's, for one
// gamma-space exposure ratio; very dark levels get a larger multiplier.
void fill_prediction(float ratio, float *table) {
    for (int v = 0; v < 256; ++v) {
        // Below level 5 the level itself is too uncertain: read it as 5.
        const float level = static_cast<float>(v < 5 ? 5 : v);
        const float p = level * (dark_factor(v) * ratio);
        table[v] = p < 0.0f ? 0.0f : p > 255.0f ? 255.0f : p;
    }
}

// Exposure factors from the brackets' statistics, as the merge finds them.
int estimate(int n, int32_t *stats, float *exposures, float evStep) {
    const size_t sn = static_cast<size_t>(n);
    Scratch<float> table(hdrgen::kCorrectionSize), fl(3 * sn);
    Scratch<int32_t> order(2 * sn);
    if (!table || !fl || !order) return -4;
    return hdrgen::estimate_ev(0, n, stats, exposures, evStep, table.get(), order.get(),
                               order.get() + n, fl.get(), fl.get() + n) < 0
               ? -4
               : 0;
}

struct Detector {
    int n, width, channels, threshold;
    int tr, tg, tb;               // sample offsets of R, G, B
    size_t image_samples;
    const int32_t *asc;           // ascending exposure order
    const Range *range;           // per image
    const float *confidence;      // per image, kWeightSize each
    const float *prediction;      // per pair, 256 each
};

template <class T>
void detect_rows(const Detector &d, const T *data, uint8_t *mask, int y0, int y1) {
    constexpr int sh = sizeof(T) == 2 ? 8 : 0;
    const int pairs = d.n - 1;
    const float min_weight = 0.25f * static_cast<float>(pairs);
    const uint8_t too_few = d.threshold >= 0 ? 0 : 255;
    int luma[2];
    unsigned rgb[2][3];
    for (int y = y0; y < y1; ++y) {
        const size_t row = static_cast<size_t>(y) * d.width;
        for (int x = 0; x < d.width; ++x) {
            const size_t at = (row + x) * static_cast<size_t>(d.channels);
            float sum = 0.0f, weights = 0.0f;
            for (int k = 0; k <= pairs; ++k) {
                const int j = d.asc[k];
                const T *p = data + static_cast<size_t>(j) * d.image_samples + at;
                unsigned *c = rgb[k & 1];
                c[0] = p[d.tr] >> sh, c[1] = p[d.tg] >> sh, c[2] = p[d.tb] >> sh;
                luma[k & 1] = static_cast<int>(54 * c[0] + 183 * c[1] + 19 * c[2]);
                if (k == 0) continue;
                const int a = d.asc[k - 1];
                const int la = luma[(k - 1) & 1], lb = luma[k & 1];
                const Range &ra = d.range[a], &rb = d.range[j];
                if (la < ra.low && lb < rb.low) continue;
                if ((la < 512 ? 512 : la) > ra.high && (lb < 512 ? 512 : lb) > rb.high) continue;
                // The darker bracket makes the prediction, so its luma says
                // how far the comparison can be trusted; a brighter bracket
                // clipped where the prediction is not is a real conflict.
                const float w = d.confidence[static_cast<size_t>(a) * kWeightSize + (la >> kWeightShift)];
                const float *pred = d.prediction + static_cast<size_t>(k - 1) * 256;
                const unsigned *ca = rgb[(k - 1) & 1];
                const float diff = std::fabs(pred[ca[0]] - static_cast<float>(c[0])) +
                                   std::fabs(pred[ca[1]] - static_cast<float>(c[1])) +
                                   std::fabs(pred[ca[2]] - static_cast<float>(c[2]));
                sum += diff * w;
                weights += w;
            }
            uint8_t out = too_few;
            if (weights > min_weight && pairs > 0)
                out = static_cast<int>(sum / weights) / 2 > d.threshold ? 255 : 0;
            mask[row + x] = out;
        }
    }
}

}  // namespace

int detect(int threshold, int n, int width, int height, int channels, int bits, int bgr,
           float *exposures, const void *data, unsigned char *mask, float evStep, int threads) {
    const size_t sn = static_cast<size_t>(n);
    Scratch<int32_t> stats(sn), asc(sn);
    Scratch<float> work(sn);
    Scratch<Range> range(sn);
    if (!stats || !asc || !work || !range) return BV_GHOST_ERR_NOMEM;

    hdrgen::median_stats(n, width, height, width * channels, channels, bits, data, stats.get());
    if (evStep > -0.5f && estimate(n, stats.get(), exposures, evStep) < 0)
        return BV_GHOST_ERR_NOMEM;
    for (int j = 0; j < n; ++j)
        if (!(exposures[j] > 0.0f) || !std::isfinite(exposures[j])) return BV_GHOST_ERR_ARG;
    if (hdrgen::ascending_order(n, exposures, work.get(), asc.get()) < 0) return BV_GHOST_ERR_NOMEM;

    Scratch<float> confidence(sn * kWeightSize), prediction(sn * 256);
    if (!confidence || !prediction) return BV_GHOST_ERR_NOMEM;
    for (int j = 0; j < n; ++j) {
        range[j] = luma_range(stats[j]);
        fill_confidence(range[j], confidence.get() + static_cast<size_t>(j) * kWeightSize);
    }
    for (int k = 0; k + 1 < n; ++k) {
        const float q = exposures[asc[k + 1]] / exposures[asc[k]];
        const float r = static_cast<float>(std::pow(static_cast<double>(q), 0.4545454680919647));
        fill_prediction(r, prediction.get() + static_cast<size_t>(k) * 256);
    }

    // The pyramid: full-size mask first, then each halving.
    const int levels = reductions_for(width > height ? width : height);
    Level lv[8];
    size_t total = 0;
    for (int k = 0; k <= levels; ++k) {
        lv[k].w = k ? (lv[k - 1].w + 1) / 2 : width;
        lv[k].h = k ? (lv[k - 1].h + 1) / 2 : height;
        lv[k].offset = total;
        total += static_cast<size_t>(lv[k].w) * lv[k].h;
    }
    const Level &top = lv[levels];
    Scratch<uint8_t> pyramid(total), tmp(static_cast<size_t>(top.w) * top.h);
    if (!pyramid || !tmp) return BV_GHOST_ERR_NOMEM;
    uint8_t *base = pyramid.get();

    threads = threads < 1 ? 1 : threads > height ? height : threads;
    const ChannelOffsets t = channel_offsets(channels, bgr != 0);
    Detector d{n, width, channels, threshold, t.r, t.g, t.b,
               static_cast<size_t>(width) * height * channels, asc.get(), range.get(),
               confidence.get(), prediction.get()};
    auto bands = [&](int rows, const std::function<void(int, int)> &body) {
        const int tc = threads > rows ? rows : threads;
        threading::run_bands(0, rows, tc, [&](const threading::Band &b) { body(b.first, b.end); },
                             threading::OnSpawnFailure::RunInline);
    };

    bands(height, [&](int y0, int y1) {
        if (bits == 8)
            detect_rows(d, static_cast<const uint8_t *>(data), base, y0, y1);
        else
            detect_rows(d, static_cast<const uint16_t *>(data), base, y0, y1);
    });
    for (int k = 1; k <= levels; ++k)
        bands(lv[k].h, [&](int y0, int y1) {
            deghost21a(base + lv[k - 1].offset, lv[k - 1].w, lv[k - 1].h, base + lv[k].offset, y0,
                       y1);
        });
    dilate(base + top.offset, top.w, top.h, tmp.get());
    for (int k = levels; k >= 1; --k)
        bands(lv[k - 1].h, [&](int y0, int y1) {
            deghost22b(base + lv[k].offset, lv[k].w, lv[k].h, base + lv[k - 1].offset,
                       lv[k - 1].w, lv[k - 1].h, y0, y1);
        });

    // Eight pixels per byte, first pixel in the top bit; bands of whole
    // bytes, so no two threads touch one byte.
    const int U = output_threshold(threshold);
    const size_t pixels = static_cast<size_t>(width) * height;
    const int bytes = static_cast<int>((pixels + 7) / 8);
    bands(bytes, [&](int b0, int b1) {
        for (int b = b0; b < b1; ++b) {
            const size_t p0 = static_cast<size_t>(b) * 8;
            unsigned v = 0;
            for (int i = 0; i < 8 && p0 + i < pixels; ++i)
                if (base[p0 + i] > U) v |= 0x80u >> i;
            mask[b] |= static_cast<uint8_t>(v);
        }
    });
    return bytes * 8;
}

}  // namespace bv::ghosts

extern "C" BV_API int bv_ghost_detect(const int *threshold, int n, int width, int height,
                                      int channels, int bitsPerSample, int bgr, float *exposures,
                                      const void *data, unsigned char *mask, float evStep,
                                      int threads) {
    return bv::c_boundary(BV_GHOST_ERR_NOMEM, BV_GHOST_ERR_ARG, [&]() -> int {
        if (bitsPerSample != 8 && bitsPerSample != 16) return BV_GHOST_ERR_DEPTH;
        if (!threshold || !exposures || !data || !mask || n < 1 || n > 65535 || width < 0 ||
            height < 0 || channels < 1 || channels > 64)
            return BV_GHOST_ERR_ARG;
        if (width == 0 || height == 0) return 0;
        const int64_t pixels = static_cast<int64_t>(width) * height;
        size_t samples;
        if (pixels > INT_MAX - 7 ||
            !bv::checked_mul(static_cast<size_t>(pixels) * channels, static_cast<size_t>(n),
                             &samples))
            return BV_GHOST_ERR_ARG;
        return bv::ghosts::detect(*threshold, n, width, height, channels, bitsPerSample, bgr,
                                  exposures, data, mask, evStep, threads);
    });
}
