// bv_fusion_local: tiled local-contrast refinement of a fused picture.
#include "FusionLib/local/fusion_local.hpp"

#include "common/boundary.hpp"

namespace bv::fusion {

int InterpolationInterval = kDefaultInterpolationInterval;

int refine_local_contrast(bv_progress_cb, const TmParam &, bool, void *, const DimParam &, int,
                          int) {
    return 1;
}

}  // namespace bv::fusion

extern "C" BV_API int bv_fusion_local(int mode, bv_progress_cb progressCb, const TmParam *params,
                                      int wrap, void *image, int64_t threads, int64_t, int64_t,
                                      int64_t, int64_t, DimParam dim) {
    return bv::c_boundary(BV_FLOCAL_ENOMEM, BV_FLOCAL_ENOMEM, [&]() -> int {
        if (mode != 2) return BV_FLOCAL_EMODE;
        if (!params || !image) return BV_FLOCAL_EBADARG;
        const int t = threads > 64 ? 64 : static_cast<int>(threads < 1 ? 1 : threads);
        return bv::fusion::refine_local_contrast(progressCb, *params, wrap != 0, image, dim, t,
                                                 bv::fusion::InterpolationInterval);
    });
}
