// RGBE decoding to float/half, encoding of 8/16-bit brackets, half floats.
#include <Brackvista40Lib1.h>

#include <cmath>
#include <cstring>

#include "Utils/loglum/loglum.hpp"
#include "common/boundary.hpp"
#include "common/pixels.hpp"
#include "core/rgbe/rgbe_convert.hpp"
#include "core/rgbe/rgbe_pixel.hpp"

namespace bv::rgbe {

int make_normaliser(int width, int height, const float *table, const uint8_t *rgbe, float numerator,
                    Normaliser *n) noexcept {
    LogLumStats stats{};
    stats.v[BV_LLS_MIN] = 8.0f;  // RGBE input
    const int rc = bv::loglum::log_min_max_moy(width, height, table, rgbe, &stats);
    if (rc < 0) return rc;
    const float lo = static_cast<float>(std::exp(stats.v[BV_LLS_MIN]));
    const float hi = static_cast<float>(std::exp(stats.v[BV_LLS_P995]));
    n->active = hi - lo > 0.0f;
    n->lo = n->active ? lo : 0.0f;
    n->scale = n->active ? numerator / (hi - lo) : 1.0f;
    return 0;
}

void decode_row(int width, const uint8_t *rgbe, int y, const float *table, const Normaliser &n,
                float *out) noexcept {
    const bv::RgbeRow row(rgbe, width, y);
    for (int x = 0; x < width; ++x, out += 3) {
        decode(row.r[x], row.g[x], row.b[x], row.e[x], table, out);
        if (n.active && row.e[x] != 0)
            for (int c = 0; c < 3; ++c) out[c] = n.apply(out[c]);
    }
}

uint16_t float_to_half(float f) noexcept {
    uint32_t x;
    std::memcpy(&x, &f, sizeof x);
    const uint16_t sign = static_cast<uint16_t>((x >> 16) & 0x8000u);
    const uint32_t ax = x & 0x7fffffffu;
    if (ax >= 0x7f800000u) {  // infinity, or NaN kept quiet with its top payload
        if (ax == 0x7f800000u) return sign | 0x7c00u;
        return static_cast<uint16_t>(sign | 0x7e00u | ((ax >> 13) & 0x3ffu));
    }
    if (ax >= 0x477ff000u) return sign | 0x7c00u;  // 65520 and up round to infinity
    if (ax >= 0x38800000u) {                       // normal half
        uint32_t r = ax - 0x38000000u;             // exponent bias 127 -> 15
        r += 0x0fffu + ((r >> 13) & 1u);           // nearest, ties to even
        return static_cast<uint16_t>(sign | (r >> 13));
    }
    if (ax <= 0x33000000u) return sign;  // at most 2^-25: ties to even give zero
    // Subnormal half: value / 2^-24 rounded to nearest even.
    const uint32_t e = ax >> 23;
    const uint32_t m = (ax & 0x7fffffu) | 0x800000u;
    const uint32_t shift = 126 - e;
    uint32_t r = m >> shift;
    const uint32_t rem = m & ((1u << shift) - 1u);
    const uint32_t half = 1u << (shift - 1);
    if (rem > half || (rem == half && (r & 1u))) ++r;
    return static_cast<uint16_t>(sign | r);
}

namespace {

constexpr int kErrArg = BV_RGBE_ERR_ARG;

// Pixels too dark or too bright to carry information are marked first and
// painted grey at the extreme luminance of the rest of the image afterwards.
template <class Sample>
void encode_bracket(int width, int height, int step, int row_step, const ChannelOffsets &o,
                    const float *table, const Sample *src, uint8_t *out, float *min_y, float *max_y,
                    bool *found) noexcept {
    const size_t w = static_cast<size_t>(width);
    for (int y = 0; y < height; ++y) {
        const Sample *row = src + static_cast<size_t>(y) * row_step;
        const RgbeRowOut dst(out, w, static_cast<size_t>(y));
        for (int x = 0; x < width; ++x) {
            const Sample *p = row + static_cast<size_t>(x) * step;
            const unsigned R = p[o.r], G = p[o.g], B = p[o.b];
            int mark = 0;  // 0 encode, 1 dark, 2 saturated
            if (sizeof(Sample) == 1) {
                const unsigned luma = 54 * R + 183 * G + 19 * B;
                mark = luma < 1280 ? 1 : ((luma >> 8) >= 254 ? 2 : 0);
            } else {
                // The raw blue sample is compared with 8 on purpose: this keeps
                // the long-standing classification of 16-bit brackets.
                const unsigned luma = 54 * (R >> 8) + 183 * (G >> 8) + (B > 8 ? 19 : 0);
                mark = luma < 1280 ? 1 : 0;
            }
            uint8_t px[4];
            if (mark) {
                const uint8_t v = mark == 1 ? 0 : 255;
                px[0] = px[1] = px[2] = px[3] = v;
            } else {
                const float r = table[R], g = table[G], b = table[B];
                const float lum = 0.3 * r + 0.6 * g + 0.1 * b;
                if (lum > *max_y) *max_y = lum;
                if (lum > 0.0f) {
                    *found = true;
                    if (lum < *min_y) *min_y = lum;
                }
                encode(r, g, b, 0.0, px);
            }
            dst.set(static_cast<size_t>(x), px);
        }
    }
}

// Second pass: every pixel whose exponent byte is 0 or 255 (marked, or encoded
// that way by chance) becomes a grey at the minimum or maximum luminance.
void paint_marked(int width, int height, float min_y, float max_y, bool found,
                  uint8_t *out) noexcept {
    uint8_t dark[4] = {0, 0, 0, 0}, bright[4] = {0, 0, 0, 0};
    // With no usable pixel at all the image stays black rather than grey at
    // the search's start value.
    if (found) encode(min_y, min_y, min_y, 0.0, dark);
    encode(max_y, max_y, max_y, 0.0, bright);
    fill_markers(out, width, height, dark, bright);
}

}  // namespace
}  // namespace bv::rgbe

using namespace bv::rgbe;

extern "C" {

int exp_lut_old(float table[256]) {
    if (!table) return kErrArg;
    fill_exp_table(table);
    return 256;
}

int rgbe2float(const unsigned char *row, const float *table, int gOff, int bOff, int eOff, int x,
               float out[3]) {
    if (!row || !table || !out || x < 0 || gOff < 0 || bOff < 0 || eOff < 0) return kErrArg;
    const unsigned char e = row[eOff + x];
    decode(row[x], row[gOff + x], row[bOff + x], e, table, out);
    return e;
}

int rgbe2fp(int width, int height, int rowStride, int normalise, int half,
            const unsigned char *rgbe, void *out, float scale) {
    if (height < 1) return 0;
    if (width < 0 || rowStride < 0) return kErrArg;
    const size_t row_len =
        rowStride ? static_cast<size_t>(rowStride) : static_cast<size_t>(width) * 3;
    if (row_len < static_cast<size_t>(width) * 3) return kErrArg;
    if (width == 0) return height;
    if (!rgbe || !out) return kErrArg;

    const Table table;
    Normaliser n;
    if (normalise) {
        const int rc = make_normaliser(width, height, table.v, rgbe, scale, &n);
        if (rc < 0) return rc;
    }
    if (!half) {
        for (int y = 0; y < height; ++y)
            decode_row(width, rgbe, y, table.v, n, static_cast<float *>(out) + y * row_len);
        return height;
    }
    bv::Scratch<float> line(static_cast<size_t>(width) * 3);
    if (!line) return BV_RGBE_ERR_NOMEM;
    for (int y = 0; y < height; ++y) {
        decode_row(width, rgbe, y, table.v, n, line.get());
        uint16_t *dst = static_cast<uint16_t *>(out) + y * row_len;
        for (size_t i = 0; i < static_cast<size_t>(width) * 3; ++i) dst[i] = float_to_half(line[i]);
    }
    return height;
}

int convert_to_rgbe(int bits, int width, int height, int pixelStep, int rowStep, int bgr,
                    const float *table, const void *src, unsigned char *out) {
    if (height < 1) return 0;
    if (width < 0 || pixelStep < 1 || rowStep < 0) return kErrArg;
    if (width == 0) return height;
    const bool known = bits == 8 || bits == 16;
    if (!out || (known && (!table || !src))) return kErrArg;

    float min_y = 1e11f, max_y = 0.0f;
    bool found = false;
    const bv::ChannelOffsets o = bv::channel_offsets(pixelStep, bgr != 0);
    if (bits == 8)
        encode_bracket(width, height, pixelStep, rowStep, o, table,
                       static_cast<const uint8_t *>(src), out, &min_y, &max_y, &found);
    else if (bits == 16)
        encode_bracket(width, height, pixelStep, rowStep, o, table,
                       static_cast<const uint16_t *>(src), out, &min_y, &max_y, &found);
    else  // unsupported depth: everything is dark
        std::memset(out, 0, static_cast<size_t>(width) * 4 * height);
    paint_marked(width, height, min_y, max_y, found, out);
    return height;
}

uint16_t floatToHalf(float f) { return float_to_half(f); }

}  // extern "C"
