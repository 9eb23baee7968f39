// Merging aligned brackets into one RGBE scanline image.
#include <cmath>
#include <climits>
#include <cstdint>
#include <cstring>

#include "core/bv_internal.hpp"
#include "core/hdrgen.hpp"

namespace bv::hdrgen {

namespace {

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

// Exponent e of frexp(m) for a normal positive float m, read from its bits
// (exact, and much cheaper than the library call per pixel).
int frexp_exponent(float m) {
    uint32_t bits;
    std::memcpy(&bits, &m, sizeof bits);
    return static_cast<int>((bits >> 23) & 0xffu) - 126;
}

// 2^k as a float, for -126 <= k <= 127.
float pow2f(int k) {
    const uint32_t bits = static_cast<uint32_t>(k + 127) << 23;
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

uint8_t exponent_byte(int e) { return static_cast<uint8_t>(e < -128 ? 0 : e > 127 ? 255 : e + 128); }

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

struct RowAcc {
    float *r, *g, *b, *w;
    uint16_t *saturated;
};

template <class T, int kChannels>
void accumulate_row(const T *src, int width, int runtime_channels, const Taps &taps,
                    const Weight *table, int sat, const float *lut, const RowAcc &acc) {
    const int ch = kChannels > 0 ? kChannels : runtime_channels;
    const int tr = kChannels == 3 ? 0 : taps.r, tg = kChannels == 3 ? 1 : taps.g,
              tb = kChannels == 3 ? 2 : taps.b;
    constexpr int sh = sizeof(T) == 2 ? 8 : 0;
    for (int x = 0; x < width; ++x, src += ch) {
        const unsigned r = src[tr], g = src[tg], b = src[tb];
        // 0..65280 on the 8-bit scale: indexes the table without a shift.
        const unsigned l = 54u * (r >> sh) + 183u * (g >> sh) + 19u * (b >> sh);
        const Weight wt = table[l];
        acc.w[x] += wt.w;
        acc.saturated[x] += static_cast<int>(l) > sat;
        acc.r[x] += lut[r] * wt.f;
        acc.g[x] += lut[g] * wt.f;
        acc.b[x] += lut[b] * wt.f;
    }
}

struct Stats {
    float lo = kNoMin, hi = 0.0f;
    double sum = 0.0;
    uint64_t count = 0;
};

void finish_row(int n, int width, const RowAcc &acc, uint8_t *out, Stats &st) {
    uint8_t *pr = out, *pg = out + width, *pb = out + 2 * width, *pe = out + 3 * width;
    for (int x = 0; x < width; ++x) {
        if (acc.saturated[x] == n) {
            pr[x] = pg[x] = pb[x] = pe[x] = 255;
            continue;
        }
        const float sw = acc.w[x];
        if (!(sw > 0.0f)) {
            pr[x] = pg[x] = pb[x] = pe[x] = 0;
            ++st.count;
            continue;
        }
        const float R = acc.r[x] / sw, G = acc.g[x] / sw, B = acc.b[x] / sw;
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
            pr[x] = pg[x] = pb[x] = pe[x] = 0;
        } else if (m >= 999999999.0f) {
            pr[x] = pg[x] = pb[x] = pe[x] = 255;
        } else {
            const int e = frexp_exponent(m);
            const float s = pow2f(8 - e);  // frexp mantissa * 256 / m, exactly
            pr[x] = clamp_byte(R * s);
            pg[x] = clamp_byte(G * s);
            pb[x] = clamp_byte(B * s);
            pe[x] = exponent_byte(e);
        }
    }
}

template <class T>
int merge_pixels(bv_progress_cb cb, int n, int width, int height, int channels,
                 const T *data, const int32_t *order, const Weight *tables, const int32_t *sat,
                 const float *lut, const RowAcc &acc, uint8_t *output, Stats &st) {
    const size_t row_samples = static_cast<size_t>(width) * static_cast<size_t>(channels);
    const size_t image_samples = row_samples * static_cast<size_t>(height);
    const Taps taps = merge_taps(channels);
    const int progress_step = height / 16;
    for (int y = 0; y < height; ++y) {
        std::memset(acc.r, 0, sizeof(float) * width);
        std::memset(acc.g, 0, sizeof(float) * width);
        std::memset(acc.b, 0, sizeof(float) * width);
        std::memset(acc.w, 0, sizeof(float) * width);
        std::memset(acc.saturated, 0, sizeof(uint16_t) * width);
        // Images in ascending exposure order, one row at a time: every pixel
        // sums its brackets in the same order a per-pixel loop would.
        for (int i = 0; i < n; ++i) {
            const int j = order[i];
            const T *src = data + static_cast<size_t>(j) * image_samples + y * row_samples;
            const Weight *table = tables + static_cast<size_t>(j) * kLevels;
            if (channels == 3)
                accumulate_row<T, 3>(src, width, 3, taps, table, sat[j], lut, acc);
            else
                accumulate_row<T, 0>(src, width, channels, taps, table, sat[j], lut, acc);
        }
        finish_row(n, width, acc, output + static_cast<size_t>(y) * 4 * width, st);
        const int done = y + 1;
        if (progress_step > 0 && done % progress_step == 50 &&
            !progress(cb, static_cast<float>(done) / static_cast<float>(height)))
            return BV_HDR_CANCELLED;
    }
    return height;
}

void fill_markers(int width, int height, float lo, float hi, uint8_t *output) {
    uint8_t dark[4], bright[4];
    encode_grey(lo, &dark[0], &dark[1], &dark[2], &dark[3]);
    encode_grey(hi, &bright[0], &bright[1], &bright[2], &bright[3]);
    for (int y = 0; y < height; ++y) {
        uint8_t *row = output + static_cast<size_t>(y) * 4 * width;
        uint8_t *pe = row + 3 * width;
        for (int x = 0; x < width; ++x) {
            const uint8_t *g = pe[x] == 0 ? dark : pe[x] == 255 ? bright : nullptr;
            if (!g) continue;
            row[x] = g[0];
            row[width + x] = g[1];
            row[2 * width + x] = g[2];
            pe[x] = g[3];
        }
    }
}

}  // namespace

int merge(bv_progress_cb cb, int mode, int n, int width, int height, int channels,
          float evStep, int bits, int gammaGiven, float *lut, float *exposures,
          const void *data, float stats[3], unsigned char *output) {
    const size_t sn = static_cast<size_t>(n);
    Scratch<int32_t> bstats(sn), order(sn), sat(sn);
    Scratch<float> wfac(sn), work(sn);
    if (!bstats || !order || !sat || !wfac || !work) return BV_HDR_ENOMEM;

    const bool depth_ok = bits == 8 || bits == 16;
    if (depth_ok) {
        const int levels = 1 << bits;
        const double gamma = gammaGiven == 1 ? static_cast<double>(lut[0]) : 2.2;
        for (int i = 1; i < levels; ++i)
            lut[i] = static_cast<float>(std::pow(static_cast<double>(i) / levels, gamma));
        lut[0] = lut[1];
    }

    if (n == 1 || !exposures) {
        // One bracket, or no exposures to read or write: every bracket weighs the same.
        for (int j = 0; j < n; ++j) {
            wfac[j] = 1.0f;
            sat[j] = 64000;
            work[j] = 1.0f;
        }
        if (n == 1 && exposures && evStep > -0.5f) exposures[0] = 1.0f;
        if (ascending_order(n, wfac.get(), work.get(), order.get()) < 0)
            return BV_HDR_ENOMEM;
    } else {
        if (evStep > -0.5f) {
            median_stats(n, width, height, width * channels, channels, bits, data, bstats.get());
            Scratch<float> table(kCorrectionSize), L(sn), ev(sn);
            Scratch<int32_t> swork(sn);
            if (!table || !L || !ev || !swork) return BV_HDR_ENOMEM;
            if (estimate_ev(0, n, bstats.get(), exposures, evStep, table.get(), order.get(),
                            swork.get(), L.get(), ev.get()) < 0)
                return BV_HDR_ENOMEM;
        }
        float lo = exposures[0], hi = exposures[0];
        for (int j = 0; j < n; ++j) {
            const float e = exposures[j];
            if (!(e > 0.0f) || !std::isfinite(e)) return BV_HDR_EINVAL;
            lo = e < lo ? e : lo;
            hi = e > hi ? e : hi;
        }
        if (ascending_order(n, exposures, work.get(), order.get()) < 0) return BV_HDR_ENOMEM;
        const double d = std::log2(static_cast<double>(lo)), b = std::log2(static_cast<double>(hi));
        for (int j = 0; j < n; ++j) {
            wfac[j] = 1.0f / exposures[j];
            if (d < b) {
                // 0 for the darkest bracket down to -1 for the brightest: dark
                // brackets may go closer to white before they count as saturated.
                const double t = (std::log2(static_cast<double>(exposures[j])) - d) / (d - b);
                sat[j] = static_cast<int32_t>(t * 3840 + 64000);
            } else {
                sat[j] = 64000;
            }
        }
    }

    Scratch<Weight> tables;
    if (!tables.alloc(sn * kLevels)) return BV_HDR_ENOMEM;
    for (int j = 0; j < n; ++j) fill_weights(tables.get() + static_cast<size_t>(j) * kLevels, sat[j], wfac[j]);

    const size_t sw = static_cast<size_t>(width);
    Scratch<float> accbuf(4 * sw);
    Scratch<uint16_t> satbuf(sw);
    if (!accbuf || !satbuf) return BV_HDR_ENOMEM;
    const RowAcc acc{accbuf.get(), accbuf.get() + sw, accbuf.get() + 2 * sw, accbuf.get() + 3 * sw,
                     satbuf.get()};

    Stats st;
    int rc = height;
    if (depth_ok && bits == 8)
        rc = merge_pixels(cb, n, width, height, channels, static_cast<const uint8_t *>(data),
                          order.get(), tables.get(), sat.get(), lut, acc, output, st);
    else if (depth_ok)
        rc = merge_pixels(cb, n, width, height, channels, static_cast<const uint16_t *>(data),
                          order.get(), tables.get(), sat.get(), lut, acc, output, st);
    else
        std::memset(output, 0, 4 * sw * static_cast<size_t>(height));
    if (rc < 0) return rc;

    const double mean = st.count ? st.sum / static_cast<double>(st.count) : st.sum;
    if (stats) {
        stats[0] = st.lo * 256.0f;
        stats[1] = st.hi * 256.0f;
        stats[2] = static_cast<float>(mean * 256.0);
    }
    if (mode != 2) fill_markers(width, height, st.lo, st.hi, output);
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
