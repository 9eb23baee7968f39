// 32-bit float TIFF: reading pixel data into RGBE and writing RGBE out.
#include <Brackvista40Lib1.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "common/boundary.hpp"
#include "common/pixels.hpp"
#include "core/rgbe/rgbe_convert.hpp"
#include "core/rgbe/rgbe_pixel.hpp"

namespace bv::rgbe {
namespace {

constexpr uint16_t kLittle = 0x4949;  // "II"
constexpr uint16_t kBig = 0x4D4D;     // "MM"

// Decodes a 32-bit pattern with exponent bias 128 instead of 127: the reader
// has always halved float TIFF input and the rest of the library is tuned to
// that, so the quirk stays.
float biased_float(uint32_t bits) noexcept {
    if (bits == 0) return 0.0f;
    const int x = static_cast<int>((bits >> 23) & 0xffu);
    const uint32_t q = bits & 0x7fffffu;
    const double v = std::ldexp(1.0 + q * (1.0 / 8388608.0), x - 128);
    return static_cast<float>((bits & 0x80000000u) ? -v : v);
}

float read_biased(uint16_t order, FILE *f) noexcept {
    unsigned char b[4];
    if (!f || std::fread(b, 1, 4, f) != 4) return 0.0f;
    const uint32_t bits =
        order == kLittle
            ? (uint32_t(b[3]) << 24) | (uint32_t(b[2]) << 16) | (uint32_t(b[1]) << 8) | b[0]
            : (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | b[3];
    return biased_float(bits);
}

void put16(unsigned char *p, uint32_t v) noexcept {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}
void put32(unsigned char *p, uint32_t v) noexcept {
    put16(p, v & 0xffffu);
    put16(p + 2, v >> 16);
}

// One IFD entry: SHORT values sit in the low half of the value field.
void put_entry(unsigned char *p, uint16_t tag, uint16_t type, uint32_t count,
               uint32_t value) noexcept {
    put16(p, tag);
    put16(p + 2, type);
    put32(p + 4, count);
    put32(p + 8, value);
}

constexpr uint16_t kShort = 3, kLong = 4;
constexpr size_t kIfdSize = 2 + 11 * 12 + 4 + 6 + 6;

int read_tiff(const char *path, int width, int height, int spp, int64_t offset, float *min_out,
              float *max_out, float *mean_out, unsigned char *rgbe) noexcept {
    bv::File f(path, "rb");
    if (!f) return BV_RGBE_ERR_OPEN;
    unsigned char mark[2] = {0, 0};
    const size_t got = std::fread(mark, 1, 2, f.get());
    const uint16_t order = got == 2 ? static_cast<uint16_t>(mark[0] | (mark[1] << 8)) : 0;
    fseeko(f.get(), static_cast<off_t>(offset), SEEK_SET);
    if ((order != kLittle && order != kBig) || height < 1) {
        *min_out = 25599999475712.0f;
        *max_out = 0.0f;
        return 1;
    }
    // Two or four samples: the last one is alpha and is skipped.
    const bool alpha = spp == 2 || spp == 4;
    const int colours = alpha ? spp - 1 : spp;
    const bv::ChannelOffsets at = bv::channel_offsets(colours);
    std::vector<float> px(static_cast<size_t>(colours));
    const size_t w = static_cast<size_t>(width);

    float lo = 1e11f, hi = 0.0f;
    double sum = 0.0;
    bool at_end = false;
    for (int y = 0; y < height; ++y) {
        const bv::RgbeRowOut row(rgbe, w, static_cast<size_t>(y));
        for (size_t x = 0; x < w; ++x) {
            // Past the end of the file every sample reads as 0; stop touching it.
            for (int c = 0; c < colours; ++c) px[c] = at_end ? 0.0f : read_biased(order, f.get());
            if (!at_end && alpha) {
                unsigned char skip[4];
                if (std::fread(skip, 1, 4, f.get()) != 4) at_end = true;
            }
            if (!at_end && std::feof(f.get())) at_end = true;
            const float r = px[at.r], g = px[at.g], b = px[at.b];
            const float lum = 0.3 * r + 0.6 * g + 0.1 * b;
            if (lum > hi) hi = lum;
            if (lum > 0.0f && lum < lo) lo = lum;
            sum += lum;
            unsigned char enc[4];
            bv::rgbe::encode(r, g, b, 1e-32, enc);
            row.set(x, enc);
        }
    }
    const double count = static_cast<double>(w) * height;
    *min_out = lo * 256.0f;
    *max_out = hi * 256.0f;
    *mean_out = count > 0 ? static_cast<float>(sum * 256.0 / count) : 0.0f;
    return 1;
}

int write_tiff(const char *path, int width, int height, int normalise,
               const unsigned char *rgbe) noexcept {
    const uint64_t data_bytes = static_cast<uint64_t>(width) * height * 12;
    const uint64_t ifd = data_bytes + 8;
    if (ifd + kIfdSize > 0xffffffffu) return BV_RGBE_ERR_ARG;

    const bv::rgbe::Table table;
    bv::rgbe::Normaliser n;
    if (normalise) {
        const int rc = bv::rgbe::make_normaliser(width, height, table.v, rgbe, 1.0f, &n);
        if (rc < 0) return rc;
    }
    const size_t w = static_cast<size_t>(width);
    bv::Scratch<float> line(w * 3);
    bv::Scratch<unsigned char> bytes(w * 12);
    if (!line || !bytes) return BV_RGBE_ERR_NOMEM;

    bv::File f(path, "wb");
    if (!f) return BV_RGBE_ERR_WRITE;
    unsigned char header[8] = {'I', 'I'};
    put16(header + 2, 42);
    put32(header + 4, static_cast<uint32_t>(ifd));
    if (std::fwrite(header, 1, sizeof header, f.get()) != sizeof header) return BV_RGBE_ERR_WRITE;

    for (int y = 0; y < height; ++y) {
        bv::rgbe::decode_row(width, rgbe, y, table.v, n, line.get());
        for (size_t i = 0; i < w * 3; ++i) {
            uint32_t bits;
            std::memcpy(&bits, &line[i], 4);
            put32(bytes.get() + 4 * i, bits);
        }
        if (std::fwrite(bytes.get(), 1, w * 12, f.get()) != w * 12) return BV_RGBE_ERR_WRITE;
    }

    unsigned char dir[kIfdSize] = {};
    const uint32_t at = static_cast<uint32_t>(ifd);
    put16(dir, 11);
    unsigned char *e = dir + 2;
    put_entry(e + 0 * 12, 256, kShort, 1, static_cast<uint32_t>(width));
    put_entry(e + 1 * 12, 257, kShort, 1, static_cast<uint32_t>(height));
    put_entry(e + 2 * 12, 258, kShort, 3, at + 138);
    put_entry(e + 3 * 12, 259, kShort, 1, 1);
    put_entry(e + 4 * 12, 262, kShort, 1, 2);
    put_entry(e + 5 * 12, 273, kLong, 1, 8);
    put_entry(e + 6 * 12, 277, kShort, 1, 3);
    put_entry(e + 7 * 12, 278, kShort, 1, static_cast<uint32_t>(height));
    put_entry(e + 8 * 12, 279, kLong, 1, static_cast<uint32_t>(data_bytes));
    put_entry(e + 9 * 12, 284, kShort, 1, 1);
    put_entry(e + 10 * 12, 339, kShort, 3, at + 144);
    // Next-IFD offset stays 0; then BitsPerSample and SampleFormat values.
    for (int i = 0; i < 3; ++i) {
        put16(dir + 138 + 2 * i, 32);
        put16(dir + 144 + 2 * i, 3);
    }
    if (std::fwrite(dir, 1, sizeof dir, f.get()) != sizeof dir) return BV_RGBE_ERR_WRITE;
    // A full device may only report the failure when buffered data is flushed.
    if (f.close() != 0) return BV_RGBE_ERR_WRITE;
    return height;
}

}  // namespace
}  // namespace bv::rgbe

extern "C" {

float readfloat(uint16_t order, FILE *f) { return bv::rgbe::read_biased(order, f); }

int fp2rgbe(const char *path, int width, int height, int samplesPerPixel, int64_t dataOffset,
            float *minOut, float *maxOut, float *meanOut, unsigned char *rgbe) {
    if (!path || !minOut || !maxOut || !meanOut || width < 0 || samplesPerPixel < 1 ||
        dataOffset < 0 || (height > 0 && width > 0 && !rgbe))
        return BV_RGBE_ERR_ARG;
    return bv::rgbe::read_tiff(path, width, height, samplesPerPixel, dataOffset, minOut, maxOut,
                               meanOut, rgbe);
}

int fp_save(const char *path, int width, int height, int normalise, const unsigned char *rgbe) {
    if (!rgbe || width < 1 || height < 1 || width > 65535 || height > 65535) return BV_RGBE_ERR_ARG;
    if (!path) return BV_RGBE_ERR_WRITE;
    return bv::rgbe::write_tiff(path, width, height, normalise, rgbe);
}

}  // extern "C"
