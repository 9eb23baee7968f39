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

// Encodes one pixel with truncated mantissas. `threshold`: the largest
// channel must exceed it, else the pixel is black.
inline void encode(float r, float g, float b, float threshold, uint8_t out[4]) noexcept {
    float m = r;
    if (g > m) m = g;
    if (b > m) m = b;
    if (!(m > threshold)) {
        out[0] = out[1] = out[2] = out[3] = 0;
        return;
    }
    int e;
    const float s = static_cast<float>(std::frexp(static_cast<double>(m), &e) * 256.0 / m);
    out[0] = static_cast<uint8_t>(static_cast<int>(r * s));
    out[1] = static_cast<uint8_t>(static_cast<int>(g * s));
    out[2] = static_cast<uint8_t>(static_cast<int>(b * s));
    out[3] = static_cast<uint8_t>(e + 128);
}

}  // namespace bv::rgbe
