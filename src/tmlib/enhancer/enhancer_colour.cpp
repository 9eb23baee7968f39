// The enhancer's colour stage: solved luminance and original colours to an 8- or 16-bit picture.
#include <algorithm>
#include <cmath>

#include "Threading/bands.hpp"
#include "Utils/loglum/loglum.hpp"
#include "common/boundary.hpp"
#include "tmlib/enhancer/enhancer.hpp"

namespace bv::enhancer {

namespace {

// Display gamma of the picture (the inverse of a 2.2 display).
constexpr float kGamma = 1.0f / 2.2f;
// Half-width of the toe at black, in log units of the screen's range.
constexpr float kToe = 0.3f;

template <class T>
void store(const DimParam &dim, void *out, int x, int y, float maxv, const float rgb[3]) {
    T v[3];
    for (int c = 0; c < 3; ++c) {
        float s = rgb[c];
        s = s > 0.0f ? (s < 1.0f ? std::pow(s, kGamma) : 1.0f) : 0.0f;
        v[c] = static_cast<T>(s * maxv + 0.5f);
    }
    T *o = static_cast<T *>(out);
    const int ch = dim.channels;
    if (dim.layout == 3) {
        const size_t plane = static_cast<size_t>(dim.width) * dim.height;
        const size_t p = static_cast<size_t>(y) * dim.width + x;
        o[(dim.bgr ? 2 : 0) * plane + p] = v[0];
        o[plane + p] = v[1];
        o[(dim.bgr ? 0 : 2) * plane + p] = v[2];
        return;
    }
    const size_t row = dim.rowOut > 0 ? static_cast<size_t>(dim.rowOut)
                                      : static_cast<size_t>(dim.width) * ch;
    T *px = o + static_cast<size_t>(y) * row + static_cast<size_t>(x) * ch;
    const ChannelOffsets off = channel_offsets(ch, dim.bgr != 0);
    px[off.r] = v[0];
    px[off.g] = v[1];
    px[off.b] = v[2];
}

}  // namespace

Look look_from(const TmParam &p) noexcept {
    auto clamp = [](float v, float lo, float hi) {
        if (!(v == v)) return lo;
        return v < lo ? lo : (v > hi ? hi : v);
    };
    const float *s = p.slot;
    Look l;
    // Strength 0..100: up to 0.24 of the gradient range compressed per scale.
    l.beta = 1.0f - clamp(s[1], 0.0f, 100.0f) * 0.0024f;
    l.saturation = clamp(s[2], 0.0f, 100.0f) * 0.013f;
    l.white_clip = clamp(s[3], 0.0f, 10.0f) * 0.01f;
    l.detail = clamp(s[5] == 0.0f ? 1.0f : s[5], 0.25f, 4.0f);
    l.noise = clamp(s[7], 0.0f, 10.0f);
    l.brightness = std::exp2((50.0f - clamp(s[8], 0.0f, 100.0f)) / 50.0f);
    l.wrap = static_cast<int>(s[15]) != 0;
    return l;
}

int calc_tm3(const Image &img, const Look &look, const Exposure &ex, const float *log_lum,
             float *solved, int threads, void *out, const DimParam &dim, int first,
             int end) noexcept {
    const int w = img.width, h = img.height;
    const auto bands = threading::split_rows(0, h, threads);
    const size_t nb = bands.size();

    // Log of the solved plane and its range (per band, merged: exact).
    std::vector<float> lo_b(nb, 1e30f), hi_b(nb, -1e30f);
    threading::run_bands(
        0, h, threads,
        [&](const threading::Band &b) {
            float lo = 1e30f, hi = -1e30f;
            for (size_t i = static_cast<size_t>(b.first) * w; i < static_cast<size_t>(b.end) * w;
                 ++i) {
                // exp of the solution may have overflowed or underflowed.
                float v = solved[i] > 1e-30f ? std::log(solved[i]) : -69.0f;
                if (!(v < 88.0f)) v = 88.0f;
                solved[i] = v;
                lo = std::min(lo, v);
                hi = std::max(hi, v);
            }
            lo_b[b.index] = lo;
            hi_b[b.index] = hi;
        },
        threading::OnSpawnFailure::RunInline);
    float lmin = 1e30f, lmax = -1e30f;
    for (size_t i = 0; i < nb; ++i) {
        lmin = std::min(lmin, lo_b[i]);
        lmax = std::max(lmax, hi_b[i]);
    }
    if (!(lmax > lmin)) lmax = lmin + 1.0f;
    Scratch<int32_t> hist(static_cast<size_t>(kBins) * nb);
    if (!hist) return -4;
    threading::run_bands(
        0, h, threads,
        [&](const threading::Band &b) {
            int32_t *hb = hist.get() + static_cast<size_t>(b.index) * kBins;
            for (int y = b.first; y < b.end; ++y)
                loglum::log_histo(static_cast<uint64_t>(w), kBins,
                                 solved + static_cast<size_t>(y) * w, hb, lmin, lmax);
        },
        threading::OnSpawnFailure::RunInline);
    for (size_t b = 1; b < nb; ++b)
        for (uint32_t i = 0; i < kBins; ++i) hist[i] += hist[b * kBins + i];
    const uint64_t count = static_cast<uint64_t>(w) * h;
    auto at = [&](float fraction) {
        const int k = loglum::percentile(count, kBins, hist.get(), fraction);
        return lmin + (lmax - lmin) * static_cast<float>(k) / static_cast<float>(kBins - 1);
    };
    const float white = at(1.0f - look.white_clip), black = at(kBlackClip);
    const float key = at(ex.key_fraction);
    // Black lands at the end of the screen's log range, white at 0.
    const float span = white - black;
    const float c = span > 1e-6f ? kLogRange / span : 1.0f;
    const float floor = std::exp(-kLogRange), norm = 1.0f / (1.0f - floor);
    // A toe around black, kToe log units either side: pixels just below
    // the black point (sensor noise in the deepest shadows) fade to black
    // instead of being cut to it, which would sprinkle black dots.
    const float toe_top = -kLogRange + kToe;
    const float toe_value = (std::exp(toe_top) - floor) * norm;
    auto display = [&](float v) {
        float z = (v - white) * c;
        if (z > 0.0f) z = 0.0f;
        if (z >= toe_top) return (std::exp(z) - floor) * norm;
        const float t = (z - (-kLogRange - kToe)) / (2.0f * kToe);
        return t > 0.0f ? toe_value * t * t : 0.0f;
    };
    // The key lands on mid grey through a power that keeps black and white,
    // then the brightness setting bends it.
    const float yk = display(key);
    float q = (yk > 0.0f && yk < 1.0f) ? std::log(kMidGrey) / std::log(yk) : 1.0f;
    q = std::min(std::max(q, 0.25f), 4.0f) * look.brightness;

    const float maxv = dim.bitsOut == 16 ? 65535.0f : 255.0f;
    const float sat = look.saturation;
    threading::run_bands(
        0, h, threads,
        [&](const threading::Band &b) {
            for (int y = b.first; y < b.end; ++y) {
                const bool write = y >= first && y < end;
                for (int x = 0; x < w; ++x) {
                    const size_t i = static_cast<size_t>(y) * w + x;
                    // The log plane is clamped at 5.0 below white and spread
                    // over the whole output range.
                    const float yd = display(solved[i]);
                    const float Yd = yd > 0.0f ? std::pow(yd, q) : 0.0f;
                    solved[i] = Yd;
                    if (!write) continue;
                    float rgb[3];
                    img.rgb(x, y, rgb);
                    const float L = std::exp(log_lum[i]);
                    if (L > 0.0f) {
                        const float inv = 1.0f / L;
                        for (int k = 0; k < 3; ++k) {
                            const float r = rgb[k] > 0.0f ? rgb[k] * inv : 0.0f;
                            rgb[k] = (sat == 1.0f ? r : std::pow(r, sat)) * Yd;
                        }
                    } else {
                        rgb[0] = rgb[1] = rgb[2] = 0.0f;
                    }
                    if (dim.bitsOut == 16)
                        store<uint16_t>(dim, out, x, y, maxv, rgb);
                    else
                        store<uint8_t>(dim, out, x, y, maxv, rgb);
                }
            }
        },
        threading::OnSpawnFailure::RunInline);
    return h;
}

}  // namespace bv::enhancer
