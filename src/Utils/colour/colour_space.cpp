// Colour-space helpers: ranged and normalised HSL, HSV, L*a*b*, daylight white, RGB/XYZ matrices.
#include <Brackvista40Lib1.h>

#include <cmath>

#include "Utils/colour/colour_math.hpp"

namespace bv::colour {

bool kelvin_to_xyz(float t, float xyz[3]) noexcept {
    if (!(t > 0.0f) || !std::isfinite(t)) return false;
    const double T = t;
    const double T2 = T * T, T3 = T2 * T;
    const double x = (T > 7000.0) ? -2.0064e9 / T3 + 1.9018e6 / T2 + 247.48 / T + 0.23704
                                  : -4.607e9 / T3 + 2.9678e6 / T2 + 99.11 / T + 0.244063;
    const double y = -3.0 * x * x + 2.87 * x - 0.275;
    if (y == 0.0) return false;
    xyz[0] = static_cast<float>(x / y);
    xyz[1] = 1.0f;
    xyz[2] = static_cast<float>((1.0 - x - y) / y);
    return true;
}

namespace {

// L*a*b* companding; the exponent is 0.33333, not an exact third.
double lab_f(double t) { return t > 0.008856 ? std::pow(t, 0.33333) : (903.3 * t + 16.0) / 116.0; }

double lab_f_inverse(double f) {
    const double c = f * f * f;
    return c > 0.008856 ? c : (116.0 * f - 16.0) / 903.3;
}

float range_of(int range) { return range >= 1 ? static_cast<float>(range) : 1.0f; }

struct SpaceMatrices {
    float to[9];
    float from[9];
};

// Rows X, Y, Z (to XYZ) and R, G, B (from XYZ), single precision.
const SpaceMatrices kSpaces[3] = {
    {{0.412456f, 0.357576f, 0.180438f, 0.212673f, 0.715152f, 0.072175f, 0.019334f, 0.119192f,
      0.950304f},
     {3.240454f, -1.537138f, -0.498531f, -0.969266f, 1.876011f, 0.041556f, 0.055643f, -0.204026f,
      1.057225f}},
    {{0.576731f, 0.185554f, 0.188185f, 0.297377f, 0.627349f, 0.075274f, 0.027034f, 0.070687f,
      0.991108f},
     {2.041369f, -0.564946f, -0.344694f, -0.969266f, 1.876011f, 0.041556f, 0.013447f, -0.11839f,
      1.01541f}},
    {{0.797675f, 0.135192f, 0.031353f, 0.28804f, 0.711874f, 0.000086f, 0.0f, 0.0f, 0.82521f},
     {1.345943f, -0.255607f, -0.051112f, -0.544599f, 1.508167f, 0.020535f, 0.0f, 0.0f, 1.211813f}},
};

}  // namespace
}  // namespace bv::colour

extern "C" {

BV_API int rgb2hsl(int range, const float rgb[3], float hsl[3]) {
    if (!rgb || !hsl) return BV_COLOUR_EARG;
    const float r = bv::colour::range_of(range);
    const float n[3] = {rgb[0] / r, rgb[1] / r, rgb[2] / r};
    bv::colour::rgb_to_hsl(n, hsl);
    return 1;
}

BV_API float hue2rgb(int range, float p, float q, float h) {
    const float r = bv::colour::range_of(range);
    return bv::colour::hue_to_rgb(p / r, q / r, h) * r;
}

BV_API int hsl2rgb(int range, const float hsl[3], float rgb[3]) {
    if (!rgb || !hsl) return BV_COLOUR_EARG;
    const float r = bv::colour::range_of(range);
    bv::colour::hsl_to_rgb(hsl, rgb);
    for (int c = 0; c < 3; ++c) rgb[c] *= r;
    return 1;
}

BV_API int rgb2hsl_norm(const float rgb[3], float hsl[3]) {
    if (!rgb || !hsl) return BV_COLOUR_EARG;
    bv::colour::rgb_to_hsl(rgb, hsl);
    return 1;
}

BV_API int hsl2rgb_norm(const float hsl[3], float rgb[3]) {
    if (!rgb || !hsl) return BV_COLOUR_EARG;
    bv::colour::hsl_to_rgb(hsl, rgb);
    return 1;
}

BV_API int rgb2hsv_norm(const float rgb[3], float hsv[3]) {
    if (!rgb || !hsv) return BV_COLOUR_EARG;
    bv::colour::rgb_to_hsv(rgb, hsv);
    return 1;
}

BV_API int hsv2rgb_norm(const float hsv[3], float rgb[3]) {
    if (!rgb || !hsv) return BV_COLOUR_EARG;
    bv::colour::hsv_to_rgb(hsv, rgb);
    return 1;
}

BV_API int rgb2Lab(int useFloats, const float rgb[3], const float *table, const int32_t index[3],
                   float Lab[3]) {
    if (!Lab) return BV_COLOUR_EARG;
    double c[3];
    if (useFloats) {
        if (!rgb) return BV_COLOUR_EARG;
        for (int i = 0; i < 3; ++i) c[i] = rgb[i];
    } else {
        if (!table || !index) return BV_COLOUR_EARG;
        for (int i = 0; i < 3; ++i) {
            if (index[i] < 0) return BV_COLOUR_EARG;
            c[i] = table[index[i]];
        }
    }
    const double X = 0.5767309 * c[0] + 0.185554 * c[1] + 0.1881852 * c[2];
    const double Y = 0.2973769 * c[0] + 0.6273491 * c[1] + 0.0752741 * c[2];
    const double Z = 0.0270343 * c[0] + 0.0706872 * c[1] + 0.9911085 * c[2];
    const double fx = bv::colour::lab_f(X * 1.0521111);
    const double fy = bv::colour::lab_f(Y);
    const double fz = bv::colour::lab_f(Z * 0.91841704);
    Lab[0] = static_cast<float>(116.0 * fy - 16.0);
    Lab[1] = static_cast<float>(500.0 * (fx - fy));
    Lab[2] = static_cast<float>(200.0 * (fy - fz));
    return 1;
}

BV_API int Lab2rgb(int useFloats, const float Lab[3], float rgb[3], int n, const float *table,
                   float out[3]) {
    if (!Lab) return BV_COLOUR_EARG;
    if (useFloats ? !rgb : (!table || !out || n < 0)) return BV_COLOUR_EARG;
    const double L = Lab[0];
    const double fy = (L + 16.0) / 116.0;
    const double fx = fy + Lab[1] * 0.002;
    const double fz = fy - Lab[2] * 0.005;
    const double x = bv::colour::lab_f_inverse(fx);
    const double z = bv::colour::lab_f_inverse(fz);
    const double Y = (L <= 7.999625) ? L / 903.3 : fy * fy * fy;
    const double X = 0.95047 * x, Z = 1.08883 * z;
    const double c[3] = {2.041369 * X - 0.5649464 * Y - 0.3446944 * Z,
                         -0.969266 * X + 1.8760108 * Y + 0.041556 * Z,
                         0.0134474 * X - 0.1183897 * Y + 1.0154096 * Z};
    for (int i = 0; i < 3; ++i) {
        if (useFloats) {
            rgb[i] = static_cast<float>(c[i]);
            continue;
        }
        const double v = c[i] * n + 0.5;
        int k = 0;  // negative (or NaN) indices take the first entry
        if (v >= static_cast<double>(n))
            k = n;
        else if (v >= 0.0)
            k = static_cast<int>(v);
        out[i] = table[k];
    }
    return 1;
}

BV_API int kelvin2XYZ(float T, float XYZ[3]) {
    if (!XYZ) return BV_COLOUR_EARG;
    return bv::colour::kelvin_to_xyz(T, XYZ) ? 1 : 0;
}

BV_API int getRGB_to_from_XYZ(int space, float toXYZ[9], float fromXYZ[9]) {
    if (space < 0 || space > 2) return 1;
    if (!toXYZ || !fromXYZ) return BV_COLOUR_EARG;
    const bv::colour::SpaceMatrices &m = bv::colour::kSpaces[space];
    for (int i = 0; i < 9; ++i) {
        toXYZ[i] = m.to[i];
        fromXYZ[i] = m.from[i];
    }
    return 1;
}

}  // extern "C"
