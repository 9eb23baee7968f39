// HSL/HSV arithmetic shared by every exported colour helper and the per-pixel loops.
#pragma once

namespace bv::colour {

// Hue, saturation, lightness of a 0..1 RGB triple, all three in 0..1.
inline void rgb_to_hsl(const float rgb[3], float hsl[3]) noexcept {
    const float r = rgb[0], g = rgb[1], b = rgb[2];
    float mn = r, mx = r;
    if (g < mn) mn = g;
    if (b < mn) mn = b;
    if (g > mx) mx = g;
    if (b > mx) mx = b;
    const float sum = mn + mx;
    hsl[2] = sum * 0.5f;
    if (mx == mn) {
        hsl[0] = hsl[1] = 0.0f;
        return;
    }
    const float d = mx - mn;
    hsl[1] = (sum < 1.0f) ? d / sum : d / (2.0f - sum);
    float h;
    if (mx == r)
        h = (g - b) / d;
    else if (mx != g)
        h = (r - g) / d + 4.0f;
    else
        h = (b - r) / d + 2.0f;
    h *= 1.0f / 6.0f;
    if (h < 0.0f) h += 1.0f;
    if (h > 1.0f) h -= 1.0f;
    hsl[0] = h;
}

inline float hue_to_rgb(float p, float q, float h) noexcept {
    if (h < 0.0f) h += 1.0f;
    if (h > 1.0f) h -= 1.0f;
    if (h < 1.0 / 6.0) return p + (q - p) * (6.0f * h);
    if (h < 0.5f) return q;
    // This branch is evaluated in double on purpose, then stored as float.
    if (h < 2.0 / 3.0) return static_cast<float>(p + (q - p) * (4.0 - 6.0 * h));
    return p;
}

inline void hsl_to_rgb(const float hsl[3], float rgb[3]) noexcept {
    const float h = hsl[0], s = hsl[1], l = hsl[2];
    if (s == 0.0f) {
        rgb[0] = rgb[1] = rgb[2] = l;
        return;
    }
    const float q = (l <= 0.5f) ? l * (1.0f + s) : l + s - l * s;
    const float p = 2.0f * l - q;
    // The two thirds differ in their last digit; results depend on it.
    rgb[0] = hue_to_rgb(p, q, static_cast<float>(h + 0.333333333333));
    rgb[1] = hue_to_rgb(p, q, h);
    rgb[2] = hue_to_rgb(p, q, static_cast<float>(h - 0.3333333333333));
}

// Hue, saturation, value of a 0..1 RGB triple; the hue rule is the HSL one.
inline void rgb_to_hsv(const float rgb[3], float hsv[3]) noexcept {
    const float r = rgb[0], g = rgb[1], b = rgb[2];
    float mn = r, mx = r;
    if (g < mn) mn = g;
    if (b < mn) mn = b;
    if (g > mx) mx = g;
    if (b > mx) mx = b;
    hsv[2] = mx;
    if (mx == 0.0f || mx == mn) {
        hsv[0] = hsv[1] = 0.0f;
        return;
    }
    const float d = mx - mn;
    hsv[1] = d / mx;
    float h;
    if (mx == r)
        h = (g - b) / d;
    else if (mx != g)
        h = (r - g) / d + 4.0f;
    else
        h = (b - r) / d + 2.0f;
    h *= 1.0f / 6.0f;
    if (h < 0.0f) h += 1.0f;
    if (h > 1.0f) h -= 1.0f;
    hsv[0] = h;
}

// Sector-wise inverse. A hue of exactly 1 falls in no sector and leaves rgb
// as it was, which callers rely on staying that way.
inline void hsv_to_rgb(const float hsv[3], float rgb[3]) noexcept {
    const float h = hsv[0], s = hsv[1], v = hsv[2];
    if (s == 0.0f) {
        rgb[0] = rgb[1] = rgb[2] = v;
        return;
    }
    const float h6 = 6.0f * h;
    // Outside (-1, 6) the truncated sector is not 0..5 (NaN included): no case.
    if (!(h6 > -1.0f && h6 < 6.0f)) return;
    const int i = static_cast<int>(h6);
    const float p = (1.0f - s) * v;
    const float f = (h6 - static_cast<float>(i)) * (v - p);
    const float q = v - f;
    const float t = f + p;
    switch (i) {
        case 0:
            rgb[0] = v, rgb[1] = t, rgb[2] = p;
            break;
        case 1:
            rgb[0] = q, rgb[1] = v, rgb[2] = p;
            break;
        case 2:
            rgb[0] = p, rgb[1] = v, rgb[2] = t;
            break;
        case 3:
            rgb[0] = p, rgb[1] = q, rgb[2] = v;
            break;
        case 4:
            rgb[0] = t, rgb[1] = p, rgb[2] = v;
            break;
        case 5:
            rgb[0] = v, rgb[1] = p, rgb[2] = q;
            break;
        default:
            break;
    }
}

// XYZ (Y = 1) of the daylight white at temperature t kelvin; false when the
// locus gives y = 0 or t is not a usable temperature, leaving xyz untouched.
bool kelvin_to_xyz(float t, float xyz[3]) noexcept;

}  // namespace bv::colour
