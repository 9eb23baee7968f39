// Merging aligned brackets into one RGBE scanline image.
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "Threading/bands.hpp"
#include "common/boundary.hpp"
#include "common/pixels.hpp"
#include "core/hdrgen/hdrgen.hpp"
#include "core/rgbe/rgbe_pixel.hpp"

namespace bv::hdrgen {

namespace {

using rgbe::frexp_exponent;
using rgbe::pow2f;

constexpr int kLevels = 65536;
constexpr float kNoMin = 1e9f;

// Weight and weight / exposure of one luma level, side by side so that one
// look-up fetches both.
struct Weight {
    float w, f;
};

// Smooth bump over the 16-bit luma: 0 at black, 1 at mid-grey, back to 0 at
// the saturation level `s`, and 0 above it.
void fill_weights(Weight *t, int s, float inv_exposure) {
    const float k16 = 1.0f / 65536.0f, k65535 = 1.0f / 65535.0f;
    const float edge = 0.5f - static_cast<float>(s) * k65535;
    const float c_high = 1.0f / (edge * edge);
    for (int v = 0; v < kLevels; ++v) {
        float w = 0.0f;
        if (v <= s) {
            const float x = static_cast<float>(v) * k16 - 0.5f;
            const float c = v <= 32768 ? 4.0f : c_high;
            const float q = 1.0f - c * (x * x);
            w = q * q;
        }
        t[v] = {w, w * inv_exposure};
    }
}

uint8_t clamp_byte(float v) {
    if (v >= 255.0f) return 255;
    return v > 0.0f ? static_cast<uint8_t>(static_cast<int>(v)) : 0;
}

uint8_t exponent_byte(int e) {
    return static_cast<uint8_t>(e < -128 ? 0 : e > 127 ? 255 : e + 128);
}

// Grey pixel of luminance v; black when there is no usable luminance.
void encode_grey(float v, uint8_t *r, uint8_t *g, uint8_t *b, uint8_t *e) {
    if (!(v > 1e-32f) || !(v < kNoMin)) {
        *r = *g = *b = *e = 0;
        return;
    }
    const int ex = frexp_exponent(v);
    // mantissa * 256 / v * v is exactly v scaled by 2^(8 - ex).
    *r = *g = *b = clamp_byte(v * pow2f(8 - ex));
    *e = exponent_byte(ex);
}

struct Stats {
    float lo = kNoMin, hi = 0.0f;
    double sum = 0.0;
    uint64_t count = 0;
};

// Output of one pixel from its weighted sums.
inline void finish_pixel(float ar, float ag, float ab, float sw, bool all_saturated, uint8_t *pr,
                         uint8_t *pg, uint8_t *pb, uint8_t *pe, Stats &st) {
    if (all_saturated) {
        *pr = *pg = *pb = *pe = 255;
        return;
    }
    if (!(sw > 0.0f)) {
        *pr = *pg = *pb = *pe = 0;
        ++st.count;
        return;
    }
    const float R = ar / sw, G = ag / sw, B = ab / sw;
    const float Y = static_cast<float>(0.2 * R + 0.7 * G + 0.1 * B);
    if (Y < 1e9f) {
        st.sum += Y;
        ++st.count;
        if (Y > st.hi) st.hi = Y;
    }
    if (Y > 0.0f && Y < st.lo) st.lo = Y;
    float m = R;
    if (G > m) m = G;
    if (B > m) m = B;
    if (!(m > 1e-32f)) {
        *pr = *pg = *pb = *pe = 0;
    } else if (m >= 999999999.0f) {
        *pr = *pg = *pb = *pe = 255;
    } else {
        const int e = frexp_exponent(m);
        const float s = pow2f(8 - e);  // frexp mantissa * 256 / m, exactly
        *pr = clamp_byte(R * s);
        *pg = clamp_byte(G * s);
        *pb = clamp_byte(B * s);
        *pe = exponent_byte(e);
    }
}

// One bracket's row as the merge sees it, in ascending exposure order.
template <class T>
struct Source {
    const T *row;
    const Weight *table;
    int sat;
};

// One output row. Each pixel sums its brackets in registers, in ascending
// exposure order; the brackets' rows are read side by side.
template <class T, int kChannels>
void merge_row(const Source<T> *src, int n, int width, int runtime_channels,
               const ChannelOffsets &taps, const float *lut, uint8_t *out, Stats &st) {
    const int ch = kChannels > 0 ? kChannels : runtime_channels;
    const int tr = kChannels == 3 ? 0 : taps.r, tg = kChannels == 3 ? 1 : taps.g,
              tb = kChannels == 3 ? 2 : taps.b;
    constexpr int sh = sizeof(T) == 2 ? 8 : 0;
    const RgbeRowOut o(out, static_cast<size_t>(width));
    for (int x = 0; x < width; ++x) {
        const size_t at = static_cast<size_t>(x) * ch;
        float ar = 0.0f, ag = 0.0f, ab = 0.0f, sw = 0.0f;
        int saturated = 0;
        for (int i = 0; i < n; ++i) {
            const T *p = src[i].row + at;
            const unsigned r = p[tr], g = p[tg], b = p[tb];
            // 0..65280 on the 8-bit scale: indexes the table without a shift.
            const unsigned l = 54u * (r >> sh) + 183u * (g >> sh) + 19u * (b >> sh);
            const Weight wt = src[i].table[l];
            sw += wt.w;
            saturated += static_cast<int>(l) > src[i].sat;
            ar += lut[r] * wt.f;
            ag += lut[g] * wt.f;
            ab += lut[b] * wt.f;
        }
        finish_pixel(ar, ag, ab, sw, saturated == n, o.r + x, o.g + x, o.b + x, o.e + x, st);
    }
}

template <class T>
int merge_pixels(bv_progress_cb cb, int n, int width, int height, int channels, const T *data,
                 const int32_t *order, const Weight *tables, const int32_t *sat, const float *lut,
                 Source<T> *src, uint8_t *output, Stats &st) {
    const size_t row_samples = static_cast<size_t>(width) * static_cast<size_t>(channels);
    const size_t image_samples = row_samples * static_cast<size_t>(height);
    const ChannelOffsets taps = channel_offsets(channels);
    const int progress_step = height / 16;
    for (int i = 0; i < n; ++i) {
        const int j = order[i];
        src[i] = {data + static_cast<size_t>(j) * image_samples,
                  tables + static_cast<size_t>(j) * kLevels, sat[j]};
    }
    for (int y = 0; y < height; ++y) {
        uint8_t *out = output + static_cast<size_t>(y) * 4 * width;
        if (channels == 3)
            merge_row<T, 3>(src, n, width, 3, taps, lut, out, st);
        else
            merge_row<T, 0>(src, n, width, channels, taps, lut, out, st);
        for (int i = 0; i < n; ++i) src[i].row += row_samples;
        const int done = y + 1;
        if (progress_step > 0 && done % progress_step == 50 &&
            !threading::report_progress(cb, static_cast<float>(done) / static_cast<float>(height)))
            return BV_HDR_CANCELLED;
    }
    return height;
}

// Marker pixels become greys of the darkest and brightest luminance.
void paint_markers(int width, int height, float lo, float hi, uint8_t *output) {
    uint8_t dark[4], bright[4];
    encode_grey(lo, &dark[0], &dark[1], &dark[2], &dark[3]);
    encode_grey(hi, &bright[0], &bright[1], &bright[2], &bright[3]);
    fill_markers(output, width, height, dark, bright);
}

// The brackets' merge settings: per bracket (in the caller's order) the
// weight factor 1 / exposure and the saturation level of its weight curve,
// and the ascending exposure order the pixels are summed in.
struct BracketPlan {
    int32_t *order;
    int32_t *sat;
    float *wfac;
};

// Stage 1: the linearisation lut[i] = (i / 2^bits)^gamma, lut[0] = lut[1];
// gamma is lut[0] on entry when gammaGiven is 1, else 2.2.
void fill_linearisation(int bits, int gammaGiven, float *lut) {
    const int levels = 1 << bits;
    const double gamma = gammaGiven == 1 ? static_cast<double>(lut[0]) : 2.2;
    for (int i = 1; i < levels; ++i)
        lut[i] = static_cast<float>(std::pow(static_cast<double>(i) / levels, gamma));
    lut[0] = lut[1];
}

// Stage 2, one bracket or no exposures to read or write: every bracket
// weighs the same.
int plan_equal(int n, float evStep, float *exposures, float *work, const BracketPlan &plan) {
    for (int j = 0; j < n; ++j) {
        plan.wfac[j] = 1.0f;
        plan.sat[j] = 64000;
        work[j] = 1.0f;
    }
    if (n == 1 && exposures && evStep > -0.5f) exposures[0] = 1.0f;
    return ascending_order(n, plan.wfac, work, plan.order) < 0 ? BV_HDR_ENOMEM : 0;
}

// Stage 2, several brackets: exposures estimated from the pixels first
// unless the caller gave them, then checked, ordered and turned into weight
// factors and saturation levels.
int plan_from_exposures(int n, int width, int height, int channels, int bits, float evStep,
                        const void *data, float *exposures, int32_t *bstats, float *work,
                        const BracketPlan &plan) {
    const size_t sn = static_cast<size_t>(n);
    if (evStep > -0.5f) {
        median_stats(n, width, height, width * channels, channels, bits, data, bstats);
        Scratch<float> table(kCorrectionSize), L(sn), ev(sn);
        Scratch<int32_t> swork(sn);
        if (!table || !L || !ev || !swork) return BV_HDR_ENOMEM;
        if (estimate_ev(0, n, bstats, exposures, evStep, table.get(), plan.order, swork.get(),
                        L.get(), ev.get()) < 0)
            return BV_HDR_ENOMEM;
    }
    float lo = exposures[0], hi = exposures[0];
    for (int j = 0; j < n; ++j) {
        const float e = exposures[j];
        if (!(e > 0.0f) || !std::isfinite(e)) return BV_HDR_EINVAL;
        lo = e < lo ? e : lo;
        hi = e > hi ? e : hi;
    }
    if (ascending_order(n, exposures, work, plan.order) < 0) return BV_HDR_ENOMEM;
    const double d = std::log2(static_cast<double>(lo)), b = std::log2(static_cast<double>(hi));
    for (int j = 0; j < n; ++j) {
        plan.wfac[j] = 1.0f / exposures[j];
        if (d < b) {
            // 0 for the darkest bracket down to -1 for the brightest: dark
            // brackets may go closer to white before they count as saturated.
            const double t = (std::log2(static_cast<double>(exposures[j])) - d) / (d - b);
            plan.sat[j] = static_cast<int32_t>(t * 3840 + 64000);
        } else {
            plan.sat[j] = 64000;
        }
    }
    return 0;
}

// Stages 3 and 4: the weight tables, then every pixel (all black for a depth
// other than 8 or 16). Returns height or a code.
int merge_brackets(bv_progress_cb cb, int n, int width, int height, int channels, int bits,
                   const float *lut, const void *data, const BracketPlan &plan,
                   unsigned char *output, Stats &st) {
    const size_t sn = static_cast<size_t>(n);
    Scratch<Weight> tables;
    if (!tables.alloc(sn * kLevels)) return BV_HDR_ENOMEM;
    for (int j = 0; j < n; ++j)
        fill_weights(tables.get() + static_cast<size_t>(j) * kLevels, plan.sat[j], plan.wfac[j]);

    Scratch<Source<uint8_t>> src8(bits == 8 ? sn : 0);
    Scratch<Source<uint16_t>> src16(bits == 16 ? sn : 0);
    if (!src8 || !src16) return BV_HDR_ENOMEM;
    if (bits == 8)
        return merge_pixels(cb, n, width, height, channels, static_cast<const uint8_t *>(data),
                            plan.order, tables.get(), plan.sat, lut, src8.get(), output, st);
    if (bits == 16)
        return merge_pixels(cb, n, width, height, channels, static_cast<const uint16_t *>(data),
                            plan.order, tables.get(), plan.sat, lut, src16.get(), output, st);
    std::memset(output, 0, 4 * static_cast<size_t>(width) * static_cast<size_t>(height));
    return height;
}

// Stage 5: minimum, maximum and mean luminance, each times 256.
void report_stats(const Stats &st, float stats[3]) {
    const double mean = st.count ? st.sum / static_cast<double>(st.count) : st.sum;
    stats[0] = st.lo * 256.0f;
    stats[1] = st.hi * 256.0f;
    stats[2] = static_cast<float>(mean * 256.0);
}

}  // namespace

int merge(bv_progress_cb cb, int mode, int n, int width, int height, int channels, float evStep,
          int bits, int gammaGiven, float *lut, float *exposures, const void *data, float stats[3],
          unsigned char *output) {
    const size_t sn = static_cast<size_t>(n);
    Scratch<int32_t> bstats(sn), order(sn), sat(sn);
    Scratch<float> wfac(sn), work(sn);
    if (!bstats || !order || !sat || !wfac || !work) return BV_HDR_ENOMEM;
    const BracketPlan plan{order.get(), sat.get(), wfac.get()};

    if (bits == 8 || bits == 16) fill_linearisation(bits, gammaGiven, lut);
    const int planned = (n == 1 || !exposures)
                            ? plan_equal(n, evStep, exposures, work.get(), plan)
                            : plan_from_exposures(n, width, height, channels, bits, evStep, data,
                                                  exposures, bstats.get(), work.get(), plan);
    if (planned < 0) return planned;

    Stats st;
    const int rc =
        merge_brackets(cb, n, width, height, channels, bits, lut, data, plan, output, st);
    if (rc < 0) return rc;
    if (stats) report_stats(st, stats);
    if (mode != 2) paint_markers(width, height, st.lo, st.hi, output);
    return height;
}

}  // namespace bv::hdrgen

extern "C" BV_API int bv_hdr_merge(bv_progress_cb progressContext, int mode, int n, int width,
                                   int height, int channels, float evStep, int bitsPerSample,
                                   int gammaGiven, float *lut, float *exposures, const void *data,
                                   float stats[3], unsigned char *output) {
    return bv::c_boundary(BV_HDR_ENOMEM, BV_HDR_EINVAL, [&]() -> int {
        if (height == 0) {
            if (stats) {
                stats[0] = 2.56e11f;
                stats[1] = stats[2] = 0.0f;
            }
            return 0;
        }
        if (n < 1 || n > 65535 || width < 0 || height < 0 || channels < 1 || !lut || !data ||
            !output || static_cast<int64_t>(width) * channels > INT32_MAX)
            return BV_HDR_EINVAL;
        size_t total;
        if (!bv::checked_mul(static_cast<size_t>(width), static_cast<size_t>(height), &total) ||
            !bv::checked_mul(total, static_cast<size_t>(channels) * 2, &total) ||
            !bv::checked_mul(total, static_cast<size_t>(n), &total))
            return BV_HDR_EINVAL;
        return bv::hdrgen::merge(progressContext, mode, n, width, height, channels, evStep,
                                 bitsPerSample, gammaGiven, lut, exposures, data, stats, output);
    });
}
