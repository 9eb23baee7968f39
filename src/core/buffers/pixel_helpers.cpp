// Rounding and clamping helpers and the big/little-endian file readers.
#include <Brackvista40Lib1.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "common/pixels.hpp"

namespace bv::buffers {
namespace {

// Reads n bytes, missing ones as 0, into b.
void read_bytes(FILE *f, unsigned char *b, int n) noexcept {
    for (int i = 0; i < n; ++i) {
        const int c = f ? std::getc(f) : EOF;
        b[i] = c == EOF ? 0 : static_cast<unsigned char>(c);
    }
}

uint64_t big_endian(FILE *f, int n) noexcept {
    unsigned char b[8];
    read_bytes(f, b, n);
    uint64_t v = 0;
    for (int i = 0; i < n; ++i) v = (v << 8) | b[i];
    return v;
}

uint64_t little_endian(FILE *f, int n) noexcept {
    unsigned char b[8];
    read_bytes(f, b, n);
    uint64_t v = 0;
    for (int i = n - 1; i >= 0; --i) v = (v << 8) | b[i];
    return v;
}

uint64_t ordered(FILE *f, int n, uint16_t order) noexcept {
    return order == 0x4949 ? little_endian(f, n) : big_endian(f, n);
}

}  // namespace
}  // namespace bv::buffers

using namespace bv::buffers;
using bv::round_half_down;
using bv::trunc_to_int;

extern "C" {

int arrondi(float value) {
    // The fraction is taken in single precision, as the value is a float.
    const int t = trunc_to_int(value);
    return (value - static_cast<float>(t) > 0.5f && t != INT_MAX) ? t + 1 : t;
}

int plafond(int a, int b) { return a < b ? a : b; }

int coupeh(int a, float b) { return static_cast<float>(a) > b ? trunc_to_int(b) : a; }

int lim8(int value) { return value < 0 ? 0 : (value > 255 ? 255 : value); }

int lim8int(int value) { return lim8(value); }

int64_t lim16(int64_t value) { return value < 0 ? 0 : (value > 65535 ? 65535 : value); }

uint8_t lim8f(float value) {
    if (value >= 255.0f) return 255;
    if (value > 0.0f) return static_cast<uint8_t>(static_cast<int>(value));
    return 0;
}

int clipvar(int p, double g) { return round_half_down(std::pow(p * 0.01, g) * 1000.0); }

int fclipvar(float p, double g) { return round_half_down(std::pow(p * 0.01, g) * 1000.0); }

float lerp(float a, float b, float t) { return a + (b - a) * t; }

int copie_mem(const void *src, size_t n, void *dst) {
    if (n && src && dst) std::memmove(dst, src, n);
    return 1;
}

uint32_t fget4m(FILE *f) { return static_cast<uint32_t>(big_endian(f, 4)); }
uint64_t fget8m(FILE *f) { return big_endian(f, 8); }
uint16_t fgetm2(FILE *f) { return static_cast<uint16_t>(big_endian(f, 2)); }
uint32_t fgetm4(FILE *f) { return static_cast<uint32_t>(big_endian(f, 4)); }
uint16_t fgetmi2(FILE *f, uint16_t order) { return static_cast<uint16_t>(ordered(f, 2, order)); }
uint32_t fgetmi4(FILE *f, uint16_t order) { return static_cast<uint32_t>(ordered(f, 4, order)); }

}  // extern "C"
