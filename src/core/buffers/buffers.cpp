// Row copies, depth conversion, HDR display renderings and raw/strip files.
#include <Brackvista40Lib1.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <utility>

#include "common/boundary.hpp"
#include "common/diag.hpp"
#include "common/pixels.hpp"

namespace bv::buffers {
namespace {

using u8 = unsigned char;

template <class T>
void swap_first_third(T *px) noexcept {
    std::swap(px[0], px[2]);
}

// Exchanges samples 0 and 2 of `width` pixels of 3 samples; src may be dst.
template <class T>
void copy_swapped(int width, int height, size_t src_stride, size_t dst_stride, const void *src,
                  void *dst) noexcept {
    for (int y = 0; y < height; ++y) {
        const T *s = static_cast<const T *>(src) + y * src_stride;
        T *d = static_cast<T *>(dst) + y * dst_stride;
        for (int x = 0; x < width; ++x, s += 3, d += 3) {
            const T r = s[0], g = s[1], b = s[2];
            d[0] = b;
            d[1] = g;
            d[2] = r;
        }
    }
}

// High byte of each 16-bit sample of `height` rows of row_bytes bytes,
// written packed at (row_bytes + 1) / 2 bytes per row. Reads run ahead of
// writes, so src may equal dst.
void high_bytes(int height, size_t row_bytes, const u8 *src, u8 *dst) noexcept {
    const size_t out_row = (row_bytes + 1) / 2;
    for (int y = 0; y < height; ++y) {
        const u8 *s = src + y * row_bytes;
        u8 *d = dst + y * out_row;
        for (size_t i = 0; i < out_row; ++i) {
            // An odd trailing byte is only the low half of a sample: high byte 0.
            uint16_t v = 0;
            if (2 * i + 1 < row_bytes) std::memcpy(&v, s + 2 * i, 2);
            d[i] = static_cast<u8>(v >> 8);
        }
    }
}

// Display value of one channel: pow(x, gamma) * 256 clamped, then truncated.
inline u8 display_value(double x, double gamma) noexcept {
    const double v = std::pow(x, gamma) * 256.0;
    if (!(v > 0.0)) return 0;
    return v >= 255.0 ? 255 : static_cast<u8>(static_cast<int>(v));
}

// Renders one RGBE row as B, G, R bytes. Kind selects the arithmetic: the
// fixed-gain rendering multiplies in double, the scaled ones in single.
template <bool FixedGain>
void render_row(int width, const float *table, const u8 *rgbe, int y, u8 *out, float k,
                double gamma) noexcept {
    const bv::RgbeRow row(rgbe, width, y);
    for (int x = 0; x < width; ++x, out += 3) {
        const u8 e = row.e[x];
        if (e == 0) {
            out[0] = out[1] = out[2] = 0;
            continue;
        }
        const u8 m[3] = {row.r[x], row.g[x], row.b[x]};
        for (int c = 0; c < 3; ++c) {
            double v;
            if (FixedGain)
                v = m[c] * 0.6004653 * table[e];
            else
                v = static_cast<float>(m[c] * k * table[e]);
            out[2 - c] = display_value(v, gamma);
        }
    }
}

constexpr int kErrArg = BV_BUF_ERR_ARG;

}  // namespace

int copy_rows(int rows, size_t bytes, size_t src_stride, size_t dst_stride, const void *src,
              void *dst) noexcept {
    if (rows < 1) return 0;
    if (bytes == 0) return rows;
    if (!src || !dst) return kErrArg;
    for (int y = 0; y < rows; ++y)
        std::memmove(static_cast<u8 *>(dst) + y * dst_stride,
                     static_cast<const u8 *>(src) + y * src_stride, bytes);
    return rows;
}

}  // namespace bv::buffers

using namespace bv::buffers;

extern "C" {

int copyImageRows(int rows, size_t bytesPerRow, size_t srcStride, size_t dstStride, const void *src,
                  void *dst) {
    return copy_rows(rows, bytesPerRow, srcStride, dstStride, src, dst);
}

int copyAndConvertImageRows(int width, int height, int srcStride, int dstStride,
                            int samplesPerPixel, int bitsPerSample, int swap, const void *src,
                            void *dst) {
    if (width < 0 || srcStride < 0 || dstStride < 0) return kErrArg;
    if (swap) {
        if (samplesPerPixel != 3 || (bitsPerSample != 8 && bitsPerSample != 16))
            return BV_BUF_ERR_FILE;  // the family's code for a swap it cannot do
        if (height < 1) return 0;
        if (!src || !dst) return kErrArg;
        if (bitsPerSample == 8)
            copy_swapped<uint8_t>(width, height, srcStride, dstStride, src, dst);
        else
            copy_swapped<uint16_t>(width, height, srcStride, dstStride, src, dst);
        return height;
    }
    const size_t bytes_per_sample = static_cast<size_t>(bitsPerSample > 0 ? bitsPerSample : 0) >> 3;
    const size_t samples = static_cast<size_t>(dstStride < srcStride ? dstStride : srcStride);
    const int rc = copy_rows(height, samples * bytes_per_sample, srcStride * bytes_per_sample,
                             dstStride * bytes_per_sample, src, dst);
    // Callers only test for -1, so a successful copy reports 0 rather than rows.
    return rc < 0 ? rc : 0;
}

int fillRowStride(int height, int bitsPerPixel, int width, int paddedWidth, const void *src,
                  void *dst) {
    if (height < 0 || width < 0 || bitsPerPixel < 0) return kErrArg;
    const size_t in_row = static_cast<size_t>(width) * bitsPerPixel / 8;
    const size_t out_row =
        static_cast<size_t>(paddedWidth > 0 ? paddedWidth : 0) * bitsPerPixel / 8;
    if (paddedWidth <= width || out_row <= in_row) return 1;
    if (height == 0) return 0;
    if (!src || !dst) return kErrArg;
    // Last row first, so widening in place never overwrites unread rows.
    for (int y = height - 1; y >= 0; --y) {
        u8 *d = static_cast<u8 *>(dst) + y * out_row;
        std::memmove(d, static_cast<const u8 *>(src) + y * in_row, in_row);
        std::memset(d + in_row, 0, out_row - in_row);
    }
    return height;
}

int bgr2rgb(int width, int height, int rowStride, int samplesPerPixel, int bitsPerSample,
            void *buffer) {
    if ((bitsPerSample != 8 && bitsPerSample != 16) || samplesPerPixel < 3) return BV_BUF_ERR_FILE;
    if (width < 0 || height < 0) return kErrArg;
    if (width == 0 || height == 0) return height;
    const size_t bytes = static_cast<size_t>(bitsPerSample >> 3);
    if (!buffer || rowStride < 0 ||
        static_cast<size_t>(rowStride) < static_cast<size_t>(width) * samplesPerPixel * bytes)
        return kErrArg;
    for (int y = 0; y < height; ++y) {
        u8 *row = static_cast<u8 *>(buffer) + static_cast<size_t>(y) * rowStride;
        for (int x = 0; x < width; ++x) {
            u8 *px = row + static_cast<size_t>(x) * samplesPerPixel * bytes;
            if (bytes == 1) {
                swap_first_third(px);
            } else {
                uint16_t s[3];
                std::memcpy(s, px, sizeof s);
                swap_first_third(s);
                std::memcpy(px, s, sizeof s);
            }
        }
    }
    return height;
}

int from16to8(int width, int height, int samplesPerPixel, int rowBytes, void *buffer) {
    (void)width;
    (void)samplesPerPixel;
    if (height < 0 || rowBytes < 0) return kErrArg;
    if (height == 0 || rowBytes == 0) return height;
    if (!buffer) return kErrArg;
    high_bytes(height, static_cast<size_t>(rowBytes), static_cast<u8 *>(buffer),
               static_cast<u8 *>(buffer));
    return height;
}

int from16to8copy(int width, int height, int samplesPerPixel, int rowBytes, const void *src,
                  void *dst) {
    (void)width;
    (void)samplesPerPixel;
    if (height < 0 || rowBytes < 0) return kErrArg;
    if (height == 0 || rowBytes == 0) return height;
    if (!src || !dst) return kErrArg;
    high_bytes(height, static_cast<size_t>(rowBytes), static_cast<const u8 *>(src),
               static_cast<u8 *>(dst));
    return height;
}

int generateOriginalFrom16Bit(int width, int height, int srcStride, int dstStride,
                              int samplesPerPixel, const uint16_t *src, uint8_t *dst) {
    if (width < 0 || height < 0 || samplesPerPixel < 1 || srcStride < 0 || dstStride < 0)
        return kErrArg;
    if (width == 0 || height == 0) return height;
    if (!src || !dst) return kErrArg;
    const size_t n = static_cast<size_t>(width) * samplesPerPixel;
    for (int y = 0; y < height; ++y) {
        const uint16_t *s = src + static_cast<size_t>(y) * srcStride;
        uint8_t *d = dst + static_cast<size_t>(y) * dstStride;
        for (size_t i = 0; i < n; ++i) d[i] = static_cast<uint8_t>(s[i] >> 8);
    }
    return height;
}

int applyGammaToHDR(int width, int height, const float *table, int extraBytes, const uint8_t *rgbe,
                    uint8_t *dst) {
    if (width < 0 || height < 0 || extraBytes < 0) return kErrArg;
    if (width == 0 || height == 0) return height;
    if (!table || !rgbe || !dst) return kErrArg;
    const size_t stride = static_cast<size_t>(width) * 3 + extraBytes;
    for (int y = 0; y < height; ++y)
        render_row<true>(width, table, rgbe, y, dst + y * stride, 0.0f, 0.45);
    return height;
}

int getTonemappedRep(int width, int height, const float *table, const uint8_t *rgbe, uint8_t *dst,
                     float scale) {
    if (width < 0 || height < 0) return kErrArg;
    if (width == 0 || height == 0) return height;
    if (!table || !rgbe || !dst) return kErrArg;
    const size_t stride = static_cast<size_t>(width) * 3;
    for (int y = 0; y < height; ++y)
        render_row<false>(width, table, rgbe, y, dst + y * stride, scale, 0.45454544f);
    return height;
}

int generateOriginalFromHDR(int width, int height, int dstStride, const float *table,
                            const uint8_t *rgbe, uint8_t *dst, float gamma, float scale) {
    if (width < 0 || height < 0) return kErrArg;
    if (width == 0 || height == 0) return height;
    if (!table || !rgbe || !dst || dstStride < 0 ||
        static_cast<size_t>(dstStride) < static_cast<size_t>(width) * 3)
        return kErrArg;
    for (int y = 0; y < height; ++y)
        render_row<false>(width, table, rgbe, y, dst + static_cast<size_t>(y) * dstStride, scale,
                          gamma);
    return height;
}

int64_t save_buffer(const char *path, const void *buffer, int64_t size) {
    if (!path || size < 0 || (size > 0 && !buffer)) return kErrArg;
    bv::File f(path, "wb");
    if (!f) return BV_BUF_ERR_FILE;
    const size_t n = static_cast<size_t>(size);
    const size_t written = n ? std::fwrite(buffer, 1, n, f.get()) : 0;
    // A full device often only shows up when the buffered data is flushed.
    if (f.close() != 0 || written != n) return BV_BUF_ERR_FILE;
    return size;
}

int load_buffer(const char *path, void *buffer, int64_t size, int64_t *outSize) {
    if (!path || !outSize || size < 0 || (size > 0 && !buffer)) return kErrArg;
    bv::File f(path, "rb");
    if (!f) return BV_BUF_ERR_FILE;
    const size_t n = static_cast<size_t>(size);
    if (n && std::fread(buffer, 1, n, f.get()) != n) return BV_BUF_ERR_FILE;
    *outSize = size;
    return 1;
}

int write_strip(FILE *f, int64_t offset, int64_t count, const float *data) {
    if (!f || offset < 0 || count < 0 || offset > INT64_MAX / 4) return BV_STRIP_ERR_SEEK;
    if (fseeko(f, static_cast<off_t>(offset * 4), SEEK_SET) != 0) return BV_STRIP_ERR_SEEK;
    if (count == 0) return 4;
    // Four items of `count` bytes: together the count floats.
    const size_t items = data ? std::fwrite(data, static_cast<size_t>(count), 4, f) : 0;
    if (items != 4) {
        bv::diag(bv::Stream::Out,
                 "could not write to temporary file in tm20 - - returned %d instead of 4 \n",
                 static_cast<int>(items));
        return BV_STRIP_ERR_WRITE;
    }
    return 4;
}

int read_strip(FILE *f, int64_t offset, int64_t count, float *data) {
    if (!f || offset < 0 || count < 0 || offset > INT64_MAX / 4) return BV_STRIP_ERR_SEEK;
    if (fseeko(f, static_cast<off_t>(offset * 4), SEEK_SET) != 0) return BV_STRIP_ERR_SEEK;
    if (count == 0) return 4;
    const size_t items = data ? std::fread(data, static_cast<size_t>(count), 4, f) : 0;
    if (items != 4) {
        bv::diag(bv::Stream::Out,
                 "can not read temporary file - returned %d instead of 4 in tm20\n",
                 static_cast<int>(items));
        return BV_STRIP_ERR_READ;
    }
    return 4;
}

}  // extern "C"
