// Pyramid sizing and the integer reduce / enlarge-difference operators for 8- and 16-bit levels.
#include <cmath>
#include <cstdint>

#include "Utils/pyramid/pyramid.hpp"
#include "common/boundary.hpp"

namespace bv::pyramid {

int64_t pyram_len(int width, int height) {
    if (width <= 0 || height <= 0) return 0;
    const int m = width < height ? width : height;
    const int levels = static_cast<int>(std::log2(static_cast<float>(m)));
    int64_t total = static_cast<int64_t>(width) * height;
    if (levels < 2) return total;
    int64_t w = width, h = height;
    for (int k = 1; k < levels; ++k) {
        w = (w + 1) / 2;
        h = (h + 1) / 2;
        total += w * h;
    }
    return total;
}

uint64_t pyram_len2(int width, int height) {
    // The product wraps as a 32-bit integer before it becomes a float.
    const int32_t product =
        static_cast<int32_t>(static_cast<uint32_t>(width) * static_cast<uint32_t>(height));
    const double bound = static_cast<double>(static_cast<float>(product)) * 1.5 + 0.5;
    return bound > 0.0 ? static_cast<uint64_t>(bound) : 0;
}

namespace {

// Column of the neighbour at x + dx (dx = -1 or +1) of a row `width` wide:
// the centre column itself beyond an edge, the opposite edge with wrap.
inline int side(int x, int dx, int width, int wrap) {
    const int n = x + dx;
    if (n >= 0 && n < width) return n;
    if (!wrap) return x;
    return n < 0 ? width - 1 : 0;
}

}  // namespace

template <class T>
int reduce(int width, int height, int channels, int wrap, const T *fine, T *coarse) {
    if (channels != 1 && channels != 3) return BV_PYR_EARG;
    if (width < 0 || height < 0) return BV_PYR_EARG;
    if (width == 0 || height == 0) return 0;
    if (!fine || !coarse) return BV_PYR_EARG;
    const int cw = (width + 1) / 2, ch = (height + 1) / 2;
    const size_t stride = static_cast<size_t>(width) * channels;
    for (int i = 0; i < ch; ++i) {
        const int y = 2 * i;
        const T *row = fine + static_cast<size_t>(y) * stride;
        const T *up = fine + static_cast<size_t>(y > 0 ? y - 1 : y) * stride;
        const T *dn = fine + static_cast<size_t>(y + 1 < height ? y + 1 : y) * stride;
        T *out = coarse + static_cast<size_t>(i) * cw * channels;
        for (int j = 0; j < cw; ++j) {
            const int x = 2 * j;
            const size_t c0 = static_cast<size_t>(x) * channels;
            const size_t l = static_cast<size_t>(side(x, -1, width, wrap)) * channels;
            const size_t r = static_cast<size_t>(side(x, +1, width, wrap)) * channels;
            for (int c = 0; c < channels; ++c) {
                const uint32_t centre = row[c0 + c];
                const uint32_t edges = up[c0 + c] + dn[c0 + c] + row[l + c] + row[r + c];
                const uint32_t diag = up[l + c] + up[r + c] + dn[l + c] + dn[r + c];
                out[static_cast<size_t>(j) * channels + c] =
                    static_cast<T>((centre >> 2) + (edges >> 3) + (diag >> 4));
            }
        }
    }
    return ch;
}

template <class C, class F>
int expand(int fineWidth, int fineHeight, int coarseWidth, int coarseHeight, int channels, int wrap,
           const C *coarse, F *fine, int sign) {
    if (channels != 1 && channels != 3) return BV_PYR_EARG;
    if (fineWidth < 0 || fineHeight < 0) return BV_PYR_EARG;
    if (fineHeight == 0 || fineWidth == 0) return fineHeight;
    if (!coarse || !fine) return BV_PYR_EARG;
    if (coarseWidth < (fineWidth + 1) / 2 || coarseHeight < (fineHeight + 1) / 2)
        return BV_PYR_EARG;
    const size_t cstride = static_cast<size_t>(coarseWidth) * channels;
    const size_t fstride = static_cast<size_t>(fineWidth) * channels;
    for (int y = 0; y < fineHeight; ++y) {
        const int cy = y / 2;
        const bool last_row = cy == coarseHeight - 1;
        const C *prow = coarse + static_cast<size_t>(cy) * cstride;
        const C *drow = last_row ? prow : prow + cstride;
        F *out = fine + static_cast<size_t>(y) * fstride;
        for (int x = 0; x < fineWidth; ++x) {
            const int cx = x / 2;
            const size_t pc = static_cast<size_t>(cx) * channels;
            // Right neighbour column; on the last coarse column the pixel
            // itself, or with wrap the first pixel of the row.
            size_t rc = pc + channels;
            if (cx == coarseWidth - 1) rc = wrap ? 0 : pc;
            for (int c = 0; c < channels; ++c) {
                const int p = prow[pc + c];
                int v;
                if (!(y & 1) && !(x & 1)) {
                    v = p;
                } else if (!(y & 1)) {
                    v = (p + static_cast<int>(prow[rc + c])) >> 1;
                } else if (!(x & 1)) {
                    v = (p + static_cast<int>(drow[pc + c])) >> 1;
                } else {
                    // On the last coarse column drow[rc] is d, or with wrap the
                    // first pixel of the next row; on the last row it is r.
                    const int r = prow[rc + c], d = drow[pc + c], q = drow[rc + c];
                    v = (p + r + d + q) >> 2;
                }
                const unsigned f = out[static_cast<size_t>(x) * channels + c];
                out[static_cast<size_t>(x) * channels + c] = static_cast<F>(
                    sign < 0 ? f - static_cast<unsigned>(v) : f + static_cast<unsigned>(v));
            }
        }
    }
    return fineHeight;
}

template int reduce<uint16_t>(int, int, int, int, const uint16_t *, uint16_t *);
template int reduce<uint8_t>(int, int, int, int, const uint8_t *, uint8_t *);
template int expand<int16_t, uint16_t>(int, int, int, int, int, int, const int16_t *, uint16_t *,
                                       int);
template int expand<uint8_t, uint8_t>(int, int, int, int, int, int, const uint8_t *, uint8_t *,
                                      int);

}  // namespace bv::pyramid

extern "C" {

BV_API int64_t pyram_len(int width, int height) { return bv::pyramid::pyram_len(width, height); }

BV_API uint64_t pyram_len2(int width, int height) { return bv::pyramid::pyram_len2(width, height); }

BV_API int bv_short_downsample(int width, int height, int channels, int wrap, const uint16_t *fine,
                               uint16_t *coarse) {
    return bv::pyramid::reduce(width, height, channels, wrap, fine, coarse);
}

BV_API int bv_uchar_downsample(int width, int height, int channels, int wrap, const uint8_t *fine,
                               uint8_t *coarse) {
    return bv::pyramid::reduce(width, height, channels, wrap, fine, coarse);
}

BV_API int bv_short_diff(int fineWidth, int fineHeight, int coarseWidth, int coarseHeight,
                         int channels, int wrap, const int16_t *coarse, uint16_t *fine) {
    return bv::pyramid::expand(fineWidth, fineHeight, coarseWidth, coarseHeight, channels, wrap,
                               coarse, fine, -1);
}

BV_API int bv_short_upsample(int fineWidth, int fineHeight, int coarseWidth, int coarseHeight,
                             int channels, int wrap, const int16_t *coarse, uint16_t *fine) {
    return bv::pyramid::expand(fineWidth, fineHeight, coarseWidth, coarseHeight, channels, wrap,
                               coarse, fine, +1);
}

BV_API int bv_uchar_diff(int fineWidth, int fineHeight, int coarseWidth, int coarseHeight,
                         int channels, int wrap, const uint8_t *coarse, uint8_t *fine) {
    return bv::pyramid::expand(fineWidth, fineHeight, coarseWidth, coarseHeight, channels, wrap,
                               coarse, fine, -1);
}

BV_API int bv_uchar_upsample(int fineWidth, int fineHeight, int coarseWidth, int coarseHeight,
                             int channels, int wrap, const uint8_t *coarse, uint8_t *fine) {
    return bv::pyramid::expand(fineWidth, fineHeight, coarseWidth, coarseHeight, channels, wrap,
                               coarse, fine, +1);
}

}  // extern "C"
