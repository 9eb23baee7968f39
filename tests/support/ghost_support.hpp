// Bracket stacks with a pasted moving object, and the library's mask of them.
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

// A textured rectangle at (x, y) in bracket in[0], shifted by dx in in[1] (-1: none);
// `level`: linear brightness at the middle exposure.
struct MovingObject {
    int x, y, w, h, dx;
    int in[2];
    float level;
    uint32_t seed;
};

// Pastes the object; returns the moved region (1 where any bracket changed).
inline std::vector<uint8_t> paste_object(Stack &s, const MovingObject &o) {
    std::vector<float> sorted = s.exposures;
    std::sort(sorted.begin(), sorted.end());
    std::vector<uint8_t> moved(static_cast<size_t>(s.w) * s.h, 0);
    for (int i = 0; i < 2; ++i) {
        if (o.in[i] < 0) continue;
        const int x0 = o.x + i * o.dx;
        const float e = s.exposures[o.in[i]] / sorted[sorted.size() / 2];
        for (int y = std::max(0, o.y); y < std::min(s.h, o.y + o.h); ++y)
            for (int x = std::max(0, x0); x < std::min(s.w, x0 + o.w); ++x) {
                uint32_t v = o.seed * 2654435761u ^ static_cast<uint32_t>((x - x0) / 4) * 40503u ^
                             static_cast<uint32_t>((y - o.y) / 4) * 2246822519u;
                v = (v ^ v >> 15) * 2246822519u;
                const float tex = 0.75f +
                                  0.5f * (static_cast<float>((v ^ v >> 13) & 1023) / 1023.0f) +
                                  (((y - o.y) / 12) & 1 ? 0.25f : -0.25f);
                const size_t p = static_cast<size_t>(y) * s.w + x;
                for (int c = 0; c < 3; ++c) {
                    const float tint = c == 0 ? 1.1f : c == 2 ? 0.85f : 1.0f;
                    const float lin = std::min(1.0f, o.level * tex * tint * e);
                    s.image(o.in[i])[3 * p + c] =
                        static_cast<uint8_t>(255.0f * std::pow(lin, 1.0f / 2.2f) + 0.5f);
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
                    s.image(k)[(static_cast<size_t>(y) * w + x) * 3 + c] = static_cast<uint8_t>(
                        std::pow(std::min(1.0, base * e), 1 / 2.2) * 255 + 0.5);
                }
    }
    return s;
}

// Bit p of a most-significant-first pixel mask.
inline bool bit(const std::vector<uint8_t> &mask, size_t p) {
    return (mask[p >> 3] >> (7 - (p & 7))) & 1;
}

inline std::vector<uint8_t> detect(Stack &s, int threshold, int threads) {
    std::vector<uint8_t> mask((static_cast<size_t>(s.w) * s.h + 7) / 8, 0);
    std::vector<float> ex = s.exposures;
    bv_ghost_detect(&threshold, s.n, s.w, s.h, 3, 8, 0, ex.data(), s.px.data(), mask.data(), -1.0f,
                    threads);
    return mask;
}

}  // namespace bvtest
