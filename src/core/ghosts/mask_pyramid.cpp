// The detection's mask pyramid: halving, dilation, smoothing enlargement, binarisation threshold.
#include <cstring>

#include "core/ghosts/ghosts.hpp"

namespace bv::ghosts {

int reductions_for(int side) noexcept {
    if (side < 1000) return 2;
    if (side < 2000) return 3;
    if (side < 4000) return 4;
    if (side < 8000) return 5;
    return 6;
}

void deghost21a(const uint8_t *src, int w, int h, uint8_t *dst, int y0, int y1) noexcept {
    const int dw = (w + 1) / 2;
    for (int y = y0; y < y1; ++y) {
        const uint8_t *a = src + static_cast<size_t>(2 * y) * w;
        const uint8_t *b = 2 * y + 1 < h ? a + w : a;
        uint8_t *out = dst + static_cast<size_t>(y) * dw;
        const int pairs = w / 2;
        for (int x = 0; x < pairs; ++x)
            out[x] = static_cast<uint8_t>((a[2 * x] + a[2 * x + 1] + b[2 * x] + b[2 * x + 1]) >> 2);
        if (w & 1) out[pairs] = static_cast<uint8_t>((2 * a[w - 1] + 2 * b[w - 1]) >> 2);
    }
}

void dilate(uint8_t *mask, int w, int h, uint8_t *tmp) noexcept {
    auto mx = [](uint8_t a, uint8_t b) { return a > b ? a : b; };
    for (int y = 0; y < h; ++y) {
        const uint8_t *s = mask + static_cast<size_t>(y) * w;
        uint8_t *d = tmp + static_cast<size_t>(y) * w;
        for (int x = 0; x < w; ++x) {
            uint8_t v = s[x];
            if (x > 0) v = mx(v, s[x - 1]);
            if (x + 1 < w) v = mx(v, s[x + 1]);
            d[x] = v;
        }
    }
    for (int y = 0; y < h; ++y) {
        const uint8_t *s = tmp + static_cast<size_t>(y) * w;
        uint8_t *d = mask + static_cast<size_t>(y) * w;
        for (int x = 0; x < w; ++x) {
            uint8_t v = s[x];
            if (y > 0) v = mx(v, s[x - static_cast<size_t>(w)]);
            if (y + 1 < h) v = mx(v, s[x + static_cast<size_t>(w)]);
            d[x] = v;
        }
    }
}

void deghost22b(const uint8_t *src, int w, int h, uint8_t *dst, int dw, int dh, int y0,
                int y1) noexcept {
    auto row = [&](int y) { return src + static_cast<size_t>(y < 0 ? 0 : y >= h ? h - 1 : y) * w; };
    // One column of vertical sums (scale 8) per source column, plus one
    // repeated border column each side; kept on the stack in chunks.
    constexpr int kChunk = 512;
    uint16_t col[kChunk + 2];
    (void)dh;
    for (int Y = y0; Y < y1; ++Y) {
        const uint8_t *r0, *r1, *r2;
        const bool on = (Y & 1) == 0;
        if (on) {
            r0 = row(Y / 2 - 1), r1 = row(Y / 2), r2 = row(Y / 2 + 1);
        } else {
            r0 = row((Y - 1) / 2), r1 = row((Y + 1) / 2), r2 = nullptr;
        }
        uint8_t *out = dst + static_cast<size_t>(Y) * dw;
        // Destination columns [2 * c0, 2 * c1) read source columns c0 - 1 .. c1.
        for (int c0 = 0; c0 < w; c0 += kChunk) {
            const int c1 = c0 + kChunk < w ? c0 + kChunk : w;
            for (int c = c0 - 1; c <= c1; ++c) {
                const int s = c < 0 ? 0 : c >= w ? w - 1 : c;
                col[c - c0 + 1] = static_cast<uint16_t>(
                    on ? r0[s] + 6 * r1[s] + r2[s] : 4 * (r0[s] + r1[s]));
            }
            const uint16_t *v = col + 1 - c0;  // v[c] = vertical sum of source column c
            for (int c = c0; c < c1; ++c) {
                const int X = 2 * c;
                out[X] = static_cast<uint8_t>((v[c - 1] + 6 * v[c] + v[c + 1]) >> 6);
                if (X + 1 < dw) out[X + 1] = static_cast<uint8_t>((4 * (v[c] + v[c + 1])) >> 6);
            }
        }
    }
}

int output_threshold(int threshold) noexcept {
    return threshold >= 70 ? 15 : static_cast<int>(threshold * 0.6 - 27);
}

}  // namespace bv::ghosts
