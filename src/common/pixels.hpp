// Pixel helpers every operation shares: channel offsets, planar RGBE rows,
// the marker fill and the library's rounding rule.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>

namespace bv {

// Sample offsets of R, G and B inside a pixel of `step` samples: R first, G
// in the middle, B last; bgr exchanges R and B.
struct ChannelOffsets {
    int r, g, b;
};

constexpr ChannelOffsets channel_offsets(int step, bool bgr = false) noexcept {
    return bgr ? ChannelOffsets{step - 1, (step - 1) / 2, 0}
               : ChannelOffsets{0, (step - 1) / 2, step - 1};
}

// One row of an RGBE scanline image: `width` R mantissas, then the G ones,
// the B ones and the shared exponents. Byte is uint8_t (writable) or const
// uint8_t (read only).
template <class Byte>
struct RgbePlanes {
    Byte *r, *g, *b, *e;

    // The row that starts at `row`.
    RgbePlanes(Byte *row, size_t width) noexcept
        : r(row), g(row + width), b(row + 2 * width), e(row + 3 * width) {}
    // Row y of an image `width` pixels wide.
    RgbePlanes(Byte *image, size_t width, size_t y) noexcept
        : RgbePlanes(image + y * 4 * width, width) {}

    void get(size_t x, uint8_t px[4]) const noexcept {
        px[0] = r[x];
        px[1] = g[x];
        px[2] = b[x];
        px[3] = e[x];
    }
    // Only for writable rows.
    void set(size_t x, const uint8_t px[4]) const noexcept {
        r[x] = px[0];
        g[x] = px[1];
        b[x] = px[2];
        e[x] = px[3];
    }
};

using RgbeRow = RgbePlanes<const uint8_t>;
using RgbeRowOut = RgbePlanes<uint8_t>;

// Marker pixels (exponent byte 0 or 255, what the encoders leave where no
// bracket carries information) become `dark` and `bright`.
inline void fill_markers(uint8_t *rgbe, int width, int height, const uint8_t dark[4],
                         const uint8_t bright[4]) noexcept {
    const size_t w = static_cast<size_t>(width);
    for (size_t y = 0; y < static_cast<size_t>(height); ++y) {
        const RgbeRowOut row(rgbe, w, y);
        for (size_t x = 0; x < w; ++x) {
            const uint8_t e = row.e[x];
            if (e == 0)
                row.set(x, dark);
            else if (e == 255)
                row.set(x, bright);
        }
    }
}

// Truncation toward zero that saturates instead of being undefined for
// values outside int, and maps NaN to 0.
inline int trunc_to_int(double v) noexcept {
    if (!(v == v)) return 0;
    if (v >= static_cast<double>(INT_MAX)) return INT_MAX;
    if (v <= static_cast<double>(INT_MIN)) return INT_MIN;
    return static_cast<int>(v);
}

// Nearest integer with exact halves going down, after the truncation rule:
// the integer part, plus one when the fraction exceeds one half.
inline int round_half_down(double v) noexcept {
    const int t = trunc_to_int(v);
    return (v - t > 0.5 && t != INT_MAX) ? t + 1 : t;
}

}  // namespace bv
