// Internal interface of the integer pyramid operators and the area/Gaussian resamplers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace bv::pyramid {

// Pixel count of a whole pyramid and the quick 1.5 x bound (see the header).
int64_t pyram_len(int width, int height);
uint64_t pyram_len2(int width, int height);

// One reduction step; returns the coarse height, -1 for bad arguments.
template <class T>
int reduce(int width, int height, int channels, int wrap, const T *fine, T *coarse);

// Subtracts (sign -1) or adds (sign +1) the 2x enlargement of coarse to fine.
// Coarse samples are C, fine samples F; sums wrap in F. Returns fineHeight or -1.
template <class C, class F>
int expand(int fineWidth, int fineHeight, int coarseWidth, int coarseHeight, int channels, int wrap,
           const C *coarse, F *fine, int sign);

// Separable Gaussian blur of 8-bit samples in place; see bv_downtower.
int downtower(int radius, int width, int height, int channels, int threads, uint8_t *image);

// Area reduction (see bv_downsample) of interleaved float samples, used by
// callers that hold float RGB rather than RGBE rows. Returns dstHeight, -1
// for bad arguments, -4 when memory is short.
int downsample_float(int srcWidth, int srcHeight, int dstWidth, int dstHeight, int channels,
                     const float *src, float *dst, int threads);

// The same from 8/16-bit interleaved samples (bits 8, 16) or RGBE rows to
// float RGB (bits 32).
int downsample(int srcWidth, int srcHeight, int dstWidth, int dstHeight, int channels, int bits,
               const void *src, void *dst, int threads);

}  // namespace bv::pyramid
