// Local refinement of a fused picture: the fusion's second pass.
#pragma once

#include <Brackvista40Lib1.h>

namespace bv::fusion {

// Grid step of the local pass, in pixels. Module-wide like the fusion
// itself: a two-pass fusion sets it to 85 before calling the local pass.
extern int InterpolationInterval;

// Initial value of InterpolationInterval.
constexpr int kDefaultInterpolationInterval = 40;

// Mode-2 refinement of `image` in place (see bv_fusion_local in the public
// header); `interval` is the grid step. Returns 1 or a BV_FLOCAL_* code.
int refine_local_contrast(bv_progress_cb progress_cb, const TmParam &params, bool wrap,
                          void *image, const DimParam &dim, int threads, int interval);

}  // namespace bv::fusion
