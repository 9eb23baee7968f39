// The RGBE pixel rules every encoder and decoder of the library shares.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

namespace bv::rgbe {

// Exponent table: entry e is 2^(e - 136); entry 0 is never used for colour
// (E = 0 is black) and holds a fixed bit pattern so tables compare equal.
inline void fill_exp_table(float table[256]) noexcept {
    const uint32_t zero_bits = 0x00002000u;
    std::memcpy(&table[0], &zero_bits, sizeof(float));
    for (int e = 1; e < 256; ++e) table[e] = static_cast<float>(std::ldexp(1.0, e - 136));
}

struct Table {
    float v[256];
    Table() noexcept { fill_exp_table(v); }
    float operator[](int e) const noexcept { return v[e]; }
};

// Decodes one pixel; mantissas are not offset by half a step.
inline void decode(uint8_t r, uint8_t g, uint8_t b, uint8_t e, const float *table,
                   float out[3]) noexcept {
    if (e == 0) {
        out[0] = out[1] = out[2] = 0.0f;
        return;
    }
    const float s = table[e];
    out[0] = r * s;
    out[1] = g * s;
    out[2] = b * s;
}

// Exponent e of frexp(m) for a normal positive float m, read straight from its
// exponent bits: the same value as the library call, without the call.
inline int frexp_exponent(float m) noexcept {
    uint32_t bits;
    std::memcpy(&bits, &m, sizeof bits);
    return static_cast<int>((bits >> 23) & 0xffu) - 126;
}

// 2^k as a float, for -126 <= k <= 127.
inline float pow2f(int k) noexcept {
    const uint32_t bits = static_cast<uint32_t>(k + 127) << 23;
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

// Truncated mantissa of an already scaled channel. A channel never exceeds the
// largest one, so finite inputs land in [0, 256); negatives and NaN (which
// only arise from bad input) become 0 instead of wrapping.
inline uint8_t mantissa(double v) noexcept {
    if (!(v > 0.0)) return 0;
    return v < 255.0 ? static_cast<uint8_t>(static_cast<int>(v)) : 255;
}

// Encodes one pixel with truncated mantissas. `threshold`: the largest
// channel must exceed it, else the pixel is black. The exponent byte keeps
// only the low 8 bits of e + 128, as the file format has always done.
inline void encode(float r, float g, float b, double threshold, uint8_t out[4]) noexcept {
    float m = r;
    if (g > m) m = g;
    if (b > m) m = b;
    if (!(m > threshold)) {
        out[0] = out[1] = out[2] = out[3] = 0;
        return;
    }
    if (std::isinf(m)) {  // saturate rather than produce NaN mantissas
        out[0] = std::isinf(r) ? 255 : 0;
        out[1] = std::isinf(g) ? 255 : 0;
        out[2] = std::isinf(b) ? 255 : 0;
        out[3] = 255;
        return;
    }
    // (f, e) = frexp(m) and s = f * 256 / m = 2^(8 - e): a power of two, so
    // scaling is exact in double whatever m is (a float scale would overflow
    // for m below about 2^-120). For normal floats e comes straight from the
    // exponent bits, which is the same value without the library call.
    int e;
    double s;
    if (std::isnormal(m)) {
        e = frexp_exponent(m);
        const uint64_t sbits = static_cast<uint64_t>(1023 + 8 - e) << 52;
        std::memcpy(&s, &sbits, sizeof s);
    } else {
        s = std::frexp(static_cast<double>(m), &e) * 256.0 / m;
    }
    out[0] = mantissa(r * s);
    out[1] = mantissa(g * s);
    out[2] = mantissa(b * s);
    out[3] = static_cast<uint8_t>((e + 128) & 0xff);
}

}  // namespace bv::rgbe
