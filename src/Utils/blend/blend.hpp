// The exposure blend: painting source exposures back into a processed result.
#pragma once

#include <Brackvista40Lib1.h>

#include <cstdint>

namespace bv::blend {

// Index of the exposure whose EV is closest to target (0 when n < 2 or evs
// is NULL). An exact match returns at once; equal distances go to the lower
// EV for a negative target, the higher for a positive one, the first for 0.
int getIndexClosestEv(int n, const float *evs, float target);

// Blends `rows` rows. stack, brush and result point at the band's first row
// (stack at exposure 0); offsets are sample offsets of each layer's exposure
// from there. Returns rows.
int blend_orig(int rows, const float *opacities, const int64_t *offsets, int brushLayers,
               const uint8_t *brush, const void *stack, const DimParam &dim, void *result);

// Band worker: unpacks a BlendBand and calls blend_orig.
void *blend_threaded(void *record);

struct BlendBand {
    int first, end;  // rows of the band
    const float *opacities;
    const int64_t *offsets;
    int brushLayers;
    const uint8_t *brush;  // whole image (NULL: no brush)
    const void *stack;     // whole stack
    const DimParam *dim;   // row lengths already resolved
    void *result;          // whole result
    int status;
};

}  // namespace bv::blend
