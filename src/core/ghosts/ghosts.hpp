// Ghost handling internals: mask-file scanning, the detection's mask pyramid, polygon fill.
#pragma once

#include <Brackvista40Lib1.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace bv::ghosts {

// ---- mask files ----------------------------------------------------------

// Characters from a zero-terminated buffer or a stream, with one character
// of push-back: the same reading rules serve both mask-file readers.
class CharSource {
public:
    explicit CharSource(const char *text) : text_(text) {}
    explicit CharSource(FILE *f) : file_(f) {}
    int get() noexcept;  // next character, EOF at the end
    void unget(int c) noexcept;

private:
    const char *text_ = nullptr;
    FILE *file_ = nullptr;
    int pushed_ = -2;  // -2: nothing pushed back
};

// Reads `pattern` the way the C library's scanf family does for the only
// directives mask files use: a blank matches any run of white space (also
// none), %d skips white space and reads an optionally signed decimal, any
// other character must match exactly. Numbers beyond 32 bits saturate.
// Returns the number of values stored, or -1 when the input ended before
// the first one.
int scan(CharSource &in, const char *pattern, int32_t *const *values);

// ---- detection -----------------------------------------------------------

// Size of one level of the mask pyramid.
struct Level {
    int w, h;
    size_t offset;  // first byte of the level in the pyramid buffer
};

// Reductions used for an image whose larger side is `side`.
int reductions_for(int side) noexcept;

// Averaging 2x2 halving of a one-channel byte image into ceil(w/2) x
// ceil(h/2); a missing column or row at an odd edge repeats the last one.
// Rows [y0, y1) of the destination.
void deghost21a(const uint8_t *src, int w, int h, uint8_t *dst, int y0, int y1) noexcept;

// 3x3 grey dilation in place, left-right then up-down; `tmp` holds w * h bytes.
void dilate(uint8_t *mask, int w, int h, uint8_t *tmp) noexcept;

// 2x smoothing enlargement of a byte image of w x h into exactly dw x dh
// (dw is 2w or 2w - 1, likewise dh), rows [y0, y1) of the destination.
// Kernel (1 6 1)/8 on coinciding pixels and (4 4)/8 between them, per axis;
// missing neighbours at the border repeat the border pixel.
void deghost22b(const uint8_t *src, int w, int h, uint8_t *dst, int dw, int dh, int y0,
                int y1) noexcept;

// Detection; the arguments are checked by the exported adapter.
int detect(int threshold, int n, int width, int height, int channels, int bits, int bgr,
           float *exposures, const void *data, unsigned char *mask, float evStep, int threads);

// Output threshold of the binarisation for a detection threshold.
int output_threshold(int threshold) noexcept;

}  // namespace bv::ghosts
