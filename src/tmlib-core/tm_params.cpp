// Parameter records, their defaults and the slider mapping.
#include <Brackvista40Lib1.h>

#include <cmath>
#include <cstring>

#include "common/pixels.hpp"

namespace bv::tmcore {

void set_defaults(unsigned method, int flag, TmParam &rec) {
    std::memset(&rec, 0, sizeof rec);
    float *s = rec.slot;
    switch (method) {
        case 1:
            s[1] = flag > 0 ? 40.0f : 70.0f;
            s[2] = 46.0f;
            s[3] = 0.25f;
            s[5] = 1.0f;
            s[7] = 2.0f;
            s[8] = 50.0f;
            s[16] = 1.0f;
            break;
        case 3:
            s[0] = 50.0f;
            s[2] = 20.0f;
            s[3] = 0.6f;
            s[4] = 0.25f;
            break;
        case 10:
            s[8] = 2.0f;
            break;
        case 11:
            s[2] = 70.0f;
            break;
        case 12:
        case 15:
            s[8] = 2.0f;
            s[9] = 1.0f;
            break;
        default:
            break;
    }
}

int param_to_slider(float value, double exponent) {
    return round_half_down(std::pow(value * 5e-6, exponent) * 100.0);
}

int slider_to_param(int slider, double exponent) {
    return round_half_down(std::pow(slider * 0.01, exponent) * 200000.0);
}

}  // namespace bv::tmcore

extern "C" {

BV_API int tmparam_default(unsigned method, int flag, TmParam *rec) {
    if (!rec) return BV_TM_EBADARG;
    bv::tmcore::set_defaults(method, flag, *rec);
    return 0;
}

BV_API void init_optim_param(optimParam *p) {
    if (!p) return;
    std::memset(p, 0, sizeof *p);
    p->sourceFile = nullptr;
    p->reserved1 = nullptr;
    p->tempPath1 = nullptr;
    p->solverBase = p->solverP = p->solverR = p->solverT = nullptr;
}

BV_API void init_dim_param(DimParam *p) {
    if (!p) return;
    *p = DimParam{0, 0, 3, 8, 8, 0, 0, 0, 0, 0};
}

BV_API int param2slider(float value, double exponent) {
    return bv::tmcore::param_to_slider(value, exponent);
}

BV_API int slider2param(int slider, double exponent) {
    return bv::tmcore::slider_to_param(slider, exponent);
}

}  // extern "C"
