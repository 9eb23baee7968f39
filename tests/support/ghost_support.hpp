// Bracket stacks with a pasted moving object, and how well a ghost mask covers it.
#pragma once

#include <Brackvista40Lib1.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace bvtest {

// n RGB8 brackets back to back, with their relative exposures.
struct Stack {
    int n = 0, w = 0, h = 0;
    std::vector<uint8_t> px;
    std::vector<float> exposures;
    uint8_t *image(int k) { return px.data() + static_cast<size_t>(k) * w * h * 3; }
};

// A textured rectangle seen at (x, y) in bracket `in[0]` and shifted by dx
// in bracket `in[1]` (-1: only one bracket). `level` is its linear
// brightness at the middle exposure, so it is exposed like the scene.
struct MovingObject {
    int x, y, w, h, dx;
    int in[2];
    float level;
    uint32_t seed;
};

inline float texture(uint32_t seed, int x, int y) {
    uint32_t v = seed * 2654435761u ^ static_cast<uint32_t>(x / 4) * 40503u ^
                 static_cast<uint32_t>(y / 4) * 2246822519u;
    v ^= v >> 15;
    v *= 2246822519u;
    v ^= v >> 13;
    const float noise = static_cast<float>(v & 1023) / 1023.0f;
    const float stripe = ((y / 12) & 1) ? 0.25f : -0.25f;
    return 0.75f + 0.5f * noise + stripe;  // 0.5 .. 1.5
}

// Pastes the object; returns the moved region (1 where any bracket changed).
inline std::vector<uint8_t> paste_object(Stack &s, const MovingObject &o) {
    std::vector<float> sorted = s.exposures;
    std::sort(sorted.begin(), sorted.end());
    const float mid = sorted[sorted.size() / 2];
    std::vector<uint8_t> moved(static_cast<size_t>(s.w) * s.h, 0);
    for (int i = 0; i < 2; ++i) {
        const int k = o.in[i];
        if (k < 0) continue;
        const int x0 = o.x + i * o.dx;
        const float e = s.exposures[k] / mid;
        uint8_t *img = s.image(k);
        for (int y = std::max(0, o.y); y < std::min(s.h, o.y + o.h); ++y)
            for (int x = std::max(0, x0); x < std::min(s.w, x0 + o.w); ++x) {
                const size_t p = static_cast<size_t>(y) * s.w + x;
                for (int c = 0; c < 3; ++c) {
                    const float tint = c == 0 ? 1.1f : c == 2 ? 0.85f : 1.0f;
                    const float lin = std::min(1.0f, o.level * texture(o.seed, x - x0, y - o.y) * tint * e);
                    img[3 * p + c] = static_cast<uint8_t>(255.0f * std::pow(lin, 1.0f / 2.2f) + 0.5f);
                }
                moved[p] = 1;
            }
    }
    return moved;
}

// A smooth, textured static scene at evenly spaced exposures, gamma 2.2.
inline Stack static_stack(int w, int h, int n, double stops, int bits_seed = 1) {
    Stack s;
    s.n = n, s.w = w, s.h = h;
    s.px.resize(static_cast<size_t>(n) * w * h * 3);
    for (int k = 0; k < n; ++k) {
        const double e = std::exp2((k - n / 2) * stops);
        s.exposures.push_back(static_cast<float>(e));
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                for (int c = 0; c < 3; ++c) {
                    const double base = 0.05 + 0.1 * (1 + std::sin(x * 0.05 + c)) *
                                                   (1 + std::cos(y * 0.07 * bits_seed));
                    const double v = std::pow(std::min(1.0, base * e), 1 / 2.2) * 255 + 0.5;
                    s.image(k)[(static_cast<size_t>(y) * w + x) * 3 + c] = static_cast<uint8_t>(v);
                }
    }
    return s;
}

// Bit p of a most-significant-first pixel mask.
inline bool bit(const std::vector<uint8_t> &mask, size_t p) {
    return (mask[p >> 3] >> (7 - (p & 7))) & 1;
}

inline std::vector<uint8_t> detect(Stack &s, int threshold, int threads, int *rc = nullptr) {
    std::vector<uint8_t> mask((static_cast<size_t>(s.w) * s.h + 7) / 8, 0);
    std::vector<float> ex = s.exposures;
    const int r = bv_ghost_detect(&threshold, s.n, s.w, s.h, 3, 8, 0, ex.data(), s.px.data(),
                                  mask.data(), -1.0f, threads);
    if (rc) *rc = r;
    return mask;
}

struct Coverage {
    double covered = 0;      // fraction of the moved region in the mask
    double flagged = 0;      // fraction of the static pixels in the mask
    double flagged_far = 0;  // the same, beyond `halo` pixels of the moved region
};

// Pixels within `r` (Chebyshev distance) of a marked pixel.
inline std::vector<uint8_t> grow(const std::vector<uint8_t> &m, int w, int h, int r) {
    std::vector<uint8_t> rows(m.size(), 0), out(m.size(), 0);
    for (size_t p = 0; p < m.size(); ++p) {
        const int x = static_cast<int>(p % w);
        for (int d = std::max(-r, -x); d <= std::min(r, w - 1 - x) && !rows[p]; ++d) rows[p] = m[p + d];
    }
    for (size_t p = 0; p < m.size(); ++p) {
        const int y = static_cast<int>(p / w);
        for (int d = std::max(-r, -y); d <= std::min(r, h - 1 - y) && !out[p]; ++d)
            out[p] = rows[p + static_cast<ptrdiff_t>(d) * w];
    }
    return out;
}

// Static pixels are those outside the moved region and outside `excluded`
// (e.g. a scan border that differs between brackets).
inline Coverage measure(Stack &s, const std::vector<uint8_t> &moved, int threshold, int threads,
                        const std::vector<uint8_t> &excluded, int halo = 16) {
    const std::vector<uint8_t> mask = detect(s, threshold, threads);
    const size_t N = static_cast<size_t>(s.w) * s.h;
    const std::vector<uint8_t> none(N, 0);
    const std::vector<uint8_t> &mv = moved.empty() ? none : moved;
    const std::vector<uint8_t> near = grow(mv, s.w, s.h, halo);
    size_t in = 0, in_set = 0, out = 0, out_set = 0, far = 0, far_set = 0;
    for (size_t p = 0; p < N; ++p) {
        const bool m = bit(mask, p);
        if (mv[p]) {
            ++in;
            in_set += m;
        } else if (excluded.empty() || !excluded[p]) {
            ++out;
            out_set += m;
            if (!near[p]) {
                ++far;
                far_set += m;
            }
        }
    }
    Coverage c;
    c.covered = in ? static_cast<double>(in_set) / in : 0.0;
    c.flagged = out ? static_cast<double>(out_set) / out : 0.0;
    c.flagged_far = far ? static_cast<double>(far_set) / far : 0.0;
    return c;
}

}  // namespace bvtest
