// Colour adjustments shared by the tone mapper and bv_adjust_colors: slots, tables, per-pixel
// stages.
#pragma once

#include <Brackvista40Lib1.h>

#include "Utils/colour/colour_math.hpp"

namespace bv::coloradjust {

// Hue steps of the tables the per-pixel stage indexes (trunc(h * 4095)).
constexpr int kLutEntries = 4096;

// Per-band hue shift, saturation and lightness, band b at slots 20 + 3b ..
// 22 + 3b, then master hue, saturation and lightness at 44..46. Values are
// -100..100; anything else (NaN included) is clamped or read as 0.
constexpr int kBandCount = 8;
constexpr int kFirstBandSlot = BV_CA_SLOT_BANDS;
constexpr int kMasterSlot = BV_CA_SLOT_MASTER_HUE;
// Degrees of hue shift per unit of a hue slot.
constexpr double kHueDegreesPerUnit = 0.3;

// Slot value as the colour stages read it: finite, within -100..100.
float colour_slot(const TmParam &p, int slot) noexcept;

// True when any band or master slot is non-zero (the tables are not neutral).
bool has_table_params(const TmParam &p) noexcept;

// Fills entries x 3 hue-table floats and entries value-table floats (entry
// i is hue i / (entries - 1)). Returns 1 when some lightness is non-zero
// (the value table is needed), else 0. entries >= 2.
int build_colour_luts(const TmParam &p, int entries, float *hue, float *value) noexcept;

// Gains that move the white reference to (6500 - step * 260) kelvin.
struct WhiteGains {
    float gx, gz;
};
WhiteGains temperature_gains(float step) noexcept;

// Moves R, G, B through XYZ with the white gains; y is the pixel's
// luminance. Negative results become 0.
inline void apply_temperature(float &r, float &g, float &b, float y, WhiteGains w) noexcept {
    const float x = w.gx * (0.4124f * r + 0.3576f * g + 0.1805f * b);
    const float z = w.gz * (0.0193f * r + 0.1192f * g + 0.9505f * b);
    r = 3.2406f * x - 1.5372f * y - 0.4986f * z;
    g = -0.9689f * x + 1.8758f * y + 0.0415f * z;
    b = 0.0557f * x - 0.2040f * y + 1.0570f * z;
    if (r < 0.0f) r = 0.0f;
    if (g < 0.0f) g = 0.0f;
    if (b < 0.0f) b = 0.0f;
}

// Multiplies the HSL saturation by factor, capped at 1 (and kept >= 0).
inline void apply_saturation(float rgb[3], float factor) noexcept {
    float hsl[3];
    colour::rgb_to_hsl(rgb, hsl);
    float s = hsl[1] * factor;
    if (s > 1.0f) s = 1.0f;
    if (!(s > 0.0f)) s = 0.0f;
    hsl[1] = s;
    colour::hsl_to_rgb(hsl, rgb);
}

inline float clamp01(float v) noexcept {
    if (!(v > 0.0f)) return 0.0f;  // NaN lands here too
    return v < 1.0f ? v : 1.0f;
}

// Re-colours a 0..1 pixel from its hue's table entries: the hue table gives
// the shape between the pixel's low and high channel, the value table
// (0.5 = unchanged) scales coloured pixels by their saturation.
inline void apply_luts(float rgb[3], const float *hue, const float *value,
                       bool use_value) noexcept {
    float hsv[3];
    colour::rgb_to_hsv(rgb, hsv);
    const float v = hsv[2];
    float low = clamp01((1.0f - hsv[1]) * v);
    float high = v;
    const float hi = hsv[0] * 4095.0f;
    int i = 0;
    if (hi >= 4095.0f)
        i = 4095;
    else if (hi > 0.0f)
        i = static_cast<int>(hi);
    if (use_value && v > 0.0f) {
        const float g = value[i];
        const float gain = (2.0f * g - 1.0f) * (1.0f - low / v) + 1.0f;
        low *= gain;
        high = v * gain;
    }
    const float *shape = hue + 3 * i;
    for (int c = 0; c < 3; ++c) rgb[c] = clamp01(shape[c] * (high - low) + low);
}

// The per-pixel colour stages one parameter record asks for, shared by the
// tone mapper and bv_adjust_colors. The tables are attached by the caller.
struct ColourStage {
    bool temperature = false;  // slot 12 as an integer is non-zero
    WhiteGains gains{};
    bool saturation = false;   // slot 13 as an integer is non-zero
    float sat_factor = 1.0f;
    bool tables = false;
    bool use_value = false;
    const float *hue = nullptr;
    const float *value = nullptr;

    bool any() const noexcept { return temperature || saturation || tables; }
    // Saturation, then the hue tables, on a 0..1 pixel.
    void finish(float rgb[3]) const noexcept {
        if (saturation) apply_saturation(rgb, sat_factor);
        if (tables) apply_luts(rgb, hue, value, use_value);
    }
};

// Temperature and saturation settings of a record (tables left off).
inline ColourStage colour_stage_from(const TmParam &p) noexcept {
    ColourStage c;
    const float temperature = p.slot[BV_TM_SLOT_TEMPERATURE];
    const float saturation = p.slot[BV_TM_SLOT_SATURATION];
    c.temperature = static_cast<int>(temperature) != 0;
    if (c.temperature) c.gains = temperature_gains(temperature);
    c.saturation = static_cast<int>(saturation) != 0;
    c.sat_factor = saturation * 0.1f + 1.0f;
    return c;
}

}  // namespace bv::coloradjust
