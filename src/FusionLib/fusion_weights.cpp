// Fusion weights: bracket statistics, exposure curves, rank factors, per-pixel weight maps.
#include <cmath>

#include "FusionLib/fusion.hpp"
#include "Threading/bands.hpp"
#include "common/boundary.hpp"
#include "common/pixels.hpp"
#include "core/hdrgen/hdrgen.hpp"

namespace bv::fusion {

int quantise_weight(float w, float sum, int bits) {
    if (!(sum > 0.0f)) return 0;
    const int qmax = (1 << bits) - 1;
    // The quotient is a float; its fraction is exact in double.
    const int q = round_half_down(w * static_cast<float>(1 << bits) / sum);
    return q < 0 ? 0 : (q > qmax ? qmax : q);
}

namespace {

template <class T>
void image_stats(const T *img, size_t pixels, int channels, uint32_t threshold, uint64_t *hist,
                 uint32_t *saturated) {
    const ChannelOffsets o = channel_offsets(channels);
    const int shift = sizeof(T) == 1 ? 0 : 8;
    uint32_t sat = 0;
    for (size_t p = 0; p < pixels; ++p, img += channels) {
        const uint32_t R = code16(img[o.r]), G = code16(img[o.g]), B = code16(img[o.b]);
        if (R > threshold && G > threshold && B > threshold) ++sat;
        ++hist[(54 * (R >> shift) + 183 * (G >> shift) + 19 * (B >> shift)) >> 8];
    }
    *saturated = sat;
}

uint32_t brightness_key(const uint64_t *hist, double pixels) {
    // The fusion truncates its limits through int before ranking.
    auto limit = [&](double f) { return static_cast<uint64_t>(static_cast<int>(f * pixels)); };
    return static_cast<uint32_t>(hdrgen::histogram_key(hist, limit(0.5), limit(0.95), limit(0.17)));
}

template <class T>
inline void weigh_row(const WeightJob &j, int y, float *w) {
    const size_t width = static_cast<size_t>(j.width);
    const int ch = j.channels;
    const ChannelOffsets o = channel_offsets(ch);
    const bool ghosts = j.ghostSlots && j.ghostMask && j.ghostSlots[0] >= 0;
    const size_t rowpix = static_cast<size_t>(y) * width;
    for (size_t x = 0; x < width; ++x) {
        const size_t pix = rowpix + x;
        if (j.n == 1) {
            w[0] = 1.0f;  // a lone bracket takes the whole weight, whatever its exposure
        } else {
            for (int i = 0; i < j.n; ++i) {
                const T *p = static_cast<const T *>(j.rows[i]) + pix * ch;
                const float *lut = j.luts + static_cast<size_t>(i) * j.levels;
                // 0.2, 0.7 and 0.1 of 65536 for the first, middle and last channel.
                const double score = lut[code16(p[o.r])] * 13107.2 + lut[code16(p[o.g])] * 45875.2 +
                                     lut[code16(p[o.b])] * 6553.6;
                int idx = static_cast<int>(score);
                if (idx > 65535) idx = 65535;
                float wi = j.boost[idx];
                if (j.factors[i] > 0.0f) wi *= j.factors[i];
                w[i] = wi;
            }
        }
        if (ghosts) {
            const size_t k0 = j.pixelBase + pix;
            for (int i = 0; i < j.n; ++i) {
                const int32_t s = j.ghostSlots[i];
                if (s < 0) continue;
                const size_t k = static_cast<size_t>(s) * j.maskPlane + k0;
                if (!(j.ghostMask[k >> 3] & (0x80u >> (k & 7)))) continue;
                for (int m = 0; m < j.n; ++m) w[m] = m == i ? 1.0f : 0.0f;
                break;
            }
        }
        float sum = 0.0f;
        for (int i = 0; i < j.n; ++i) sum += w[i];
        for (int i = 0; i < j.n; ++i) {
            const size_t at = static_cast<size_t>(i) * j.planeStride + pix;
            if (j.weightBits == 32) {
                static_cast<float *>(j.planes)[at] = sum > 0.0f ? w[i] / sum : 0.0f;
                continue;
            }
            const int q = quantise_weight(w[i], sum, j.weightBits);
            if (j.weightBits == 8)
                static_cast<uint8_t *>(j.planes)[at] = static_cast<uint8_t>(q);
            else
                static_cast<uint16_t *>(j.planes)[at] = static_cast<uint16_t>(q);
        }
    }
}

}  // namespace

int stats_order_photos(int n, int width, int height, int channels, int bits, const void *images,
                       uint32_t *darkPct, uint32_t *brightPct, uint32_t *saturated, uint32_t *key,
                       int32_t *order) {
    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    const size_t image_samples = pixels * static_cast<size_t>(channels);
    Scratch<int32_t> keys(static_cast<size_t>(n)), work(static_cast<size_t>(n));
    if (!keys || !work) return -4;
    for (int i = 0; i < n; ++i) {
        uint64_t hist[256] = {};
        const size_t at = static_cast<size_t>(i) * image_samples;
        if (bits == 8)
            image_stats(static_cast<const uint8_t *>(images) + at, pixels, channels, 250, hist,
                        &saturated[i]);
        else if (bits == 16)
            image_stats(static_cast<const uint16_t *>(images) + at, pixels, channels, 64000, hist,
                        &saturated[i]);
        else
            image_stats(static_cast<const float *>(images) + at, pixels, channels, 64000, hist,
                        &saturated[i]);
        uint64_t dark = 0, bright = 0;
        for (int b = 0; b < 16; ++b) dark += hist[b];
        for (int b = 233; b < 256; ++b) bright += hist[b];
        darkPct[i] = pixels ? static_cast<uint32_t>(100 * dark / pixels) : 0;
        brightPct[i] = pixels ? static_cast<uint32_t>(100 * bright / pixels) : 0;
        key[i] = brightness_key(hist, static_cast<double>(pixels));
        keys[i] = static_cast<int32_t>(key[i]);
    }
    return bv::hdrgen::order_brightest_first(n, keys.get(), work.get(), order) < 0 ? -4 : 0;
}

void exposure_lut(float g2, double satFraction, int levels, float *lut) {
    const int c = levels / 2;
    if (g2 <= 0.0f) {
        for (int v = 0; v < levels; ++v) {
            const float x = static_cast<float>(v - c) / static_cast<float>(levels);
            lut[v] = std::exp(-12.499999f * (x * x));
        }
        return;
    }
    const double g = g2, f = satFraction;
    const double a = f < 0.2 ? g + 1.0 : (g - 1.0) * 0.5 + 2.0;
    double b;
    if (f < 0.05)
        b = 2.0;
    else if (f <= 0.2)
        b = f * (g - 1.0) * 6.666666666666667 + (1.0 - g) * 0.33333333333333337 + 2.0;
    else
        b = g + 1.0;
    const double k = std::exp(a * 0.44531101665536404);
    const double N = levels;
    for (int v = 0; v < levels; ++v) {
        const double t = 2.0 * v / N;
        const double y = v < c ? 1.0 - std::pow(1.0 - t, b) : 1.0 - k * std::pow(t - 1.0, a);
        lut[v] = static_cast<float>(y > 0.0 ? y : 0.0);
    }
}

void boost_lut(float g0, bool floatOutput, float *lut) {
    if (floatOutput) {
        for (int i = 0; i < 65536; ++i) lut[i] = static_cast<float>(i / 65536.0);
        return;
    }
    const double e = std::exp2(g0 >= 0.0f ? g0 * 0.2 + 0.5 : g0 * 0.1 + 0.5);
    for (int i = 0; i < 65536; ++i)
        lut[i] = static_cast<float>(std::pow((1.0 - i / 65536.0) + 0.000001, -e));
}

void image_factors(int n, const int32_t *order, float g1, float *factors) {
    const int h = n / 2;
    for (int i = 0; i < n; ++i) factors[i] = 0.0f;
    // A single bracket has no rank to speak of (h = 0): leave it unweighted.
    if (static_cast<int>(g1) == 0 || h == 0) return;
    for (int p = 0; p < n; ++p) {
        const double r = std::exp2(static_cast<double>(h - p) / h * g1 * 0.25);
        const double f = r * r;
        factors[order[p]] = static_cast<float>(f < 0.1 ? 0.1 : f);
    }
}

void adj1b_orig(const WeightJob &job, int first, int end, float *w) {
    for (int y = first; y < end; ++y) {
        if (job.bits == 8)
            weigh_row<uint8_t>(job, y, w);
        else if (job.bits == 16)
            weigh_row<uint16_t>(job, y, w);
        else
            weigh_row<float>(job, y, w);
    }
}

int adj1b_threaded(const WeightJob &job, int height, int threads) {
    if (threads < 1) threads = 1;
    Scratch<float> w(static_cast<size_t>(job.n) * static_cast<size_t>(threads));
    if (!w) return -4;
    // A band whose thread cannot start runs on the calling thread; every
    // pixel depends only on itself, so the maps are the same either way.
    threading::run_bands(
        0, height, threads,
        [&](const threading::Band &b) {
            adj1b_orig(job, b.first, b.end, w.get() + static_cast<size_t>(b.index) * job.n);
        },
        threading::OnSpawnFailure::RunInline);
    return 0;
}

}  // namespace bv::fusion
