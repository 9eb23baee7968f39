// Per-hue colour tables and the in-place colour adjustment of 8/16-bit and float images.
#include "Utils/colour_adjust/colour_adjust.hpp"

#include <cmath>
#include <cstdint>
#include <vector>

#include "Threading/bands.hpp"
#include "common/boundary.hpp"
#include "common/pixels.hpp"

namespace bv::coloradjust {

namespace {

// Band centres in degrees; the ninth closes the circle back on the reds.
constexpr double kCentre[kBandCount + 1] = {0, 30, 60, 120, 180, 240, 270, 300, 360};

// Fully saturated RGB of hue h (0..1 turns), in double.
void pure_hue(double h, double rgb[3]) {
    h -= std::floor(h);
    const double h6 = h * 6.0;
    const int i = static_cast<int>(h6) % 6;
    const double f = h6 - std::floor(h6);
    switch (i) {
        case 0:
            rgb[0] = 1, rgb[1] = f, rgb[2] = 0;
            break;
        case 1:
            rgb[0] = 1 - f, rgb[1] = 1, rgb[2] = 0;
            break;
        case 2:
            rgb[0] = 0, rgb[1] = 1, rgb[2] = f;
            break;
        case 3:
            rgb[0] = 0, rgb[1] = 1 - f, rgb[2] = 1;
            break;
        case 4:
            rgb[0] = f, rgb[1] = 0, rgb[2] = 1;
            break;
        default:
            rgb[0] = 1, rgb[1] = 0, rgb[2] = 1 - f;
            break;
    }
}

double clamp100(double v) { return v < -100.0 ? -100.0 : (v > 100.0 ? 100.0 : v); }

// Value of adjustment `kind` (0 hue, 1 saturation, 2 lightness) at hue h.
double band_value(const TmParam &p, double h, int kind) {
    const double deg = (h - std::floor(h)) * 360.0;
    int k = 0;
    while (k < kBandCount - 1 && deg >= kCentre[k + 1]) ++k;
    const double t = (deg - kCentre[k]) / (kCentre[k + 1] - kCentre[k]);
    const double a = colour_slot(p, kFirstBandSlot + 3 * k + kind);
    const double b = colour_slot(p, kFirstBandSlot + 3 * ((k + 1) % kBandCount) + kind);
    return clamp100(a + (b - a) * t + colour_slot(p, kMasterSlot + kind));
}

}  // namespace

float colour_slot(const TmParam &p, int slot) noexcept {
    const float v = p.slot[slot];
    if (!(v == v)) return 0.0f;
    return v < -100.0f ? -100.0f : (v > 100.0f ? 100.0f : v);
}

bool has_table_params(const TmParam &p) noexcept {
    for (int s = kFirstBandSlot; s <= BV_CA_SLOT_MASTER_LIGHT; ++s)
        if (colour_slot(p, s) != 0.0f) return true;
    return false;
}

int build_colour_luts(const TmParam &p, int entries, float *hue, float *value) noexcept {
    int needs_value = 0;
    for (int i = 0; i < entries; ++i) {
        const double h = static_cast<double>(i) / (entries - 1);
        double base[3], shifted[3];
        pure_hue(h, base);
        pure_hue(h + band_value(p, h, 0) * kHueDegreesPerUnit / 360.0, shifted);
        // Saturation pivots on the unshifted hue's luminance, so a fully
        // desaturated pixel keeps its own luminance whatever the shift.
        const double y = 0.2126 * base[0] + 0.7152 * base[1] + 0.0722 * base[2];
        const double k = 1.0 + band_value(p, h, 1) / 100.0;
        for (int c = 0; c < 3; ++c) hue[3 * i + c] = static_cast<float>(y + (shifted[c] - y) * k);
        const double light = band_value(p, h, 2);
        if (light != 0.0) needs_value = 1;
        value[i] = static_cast<float>(0.5 + light / 200.0);
    }
    return needs_value;
}

WhiteGains temperature_gains(float step) noexcept {
    float xyz[3];
    colour::kelvin_to_xyz(6500.0f, xyz);  // a temperature off the locus keeps D65
    colour::kelvin_to_xyz(6500.0f - step * 260.0f, xyz);
    return WhiteGains{xyz[0] * 1.0521265f, xyz[2] * 0.9184811f};
}

namespace {

// Everything one band of bv_adjust_colors needs.
struct AdjustJob {
    unsigned char *image;
    int width;
    int channels;
    int bits;    // 8, 16 or 32
    size_t row;  // row length in samples
    bool bgr;
    ColourStage colour;
};

template <class T>
void adjust_rows(const AdjustJob &j, T *base, float range, int first, int end) {
    const ChannelOffsets o = channel_offsets(j.channels, j.bgr);
    const int at[3] = {o.r, o.g, o.b};
    for (int y = first; y < end; ++y) {
        T *px = base + static_cast<size_t>(y) * j.row;
        for (int x = 0; x < j.width; ++x, px += j.channels) {
            float rgb[3] = {static_cast<float>(px[o.r]) / range,
                            static_cast<float>(px[o.g]) / range,
                            static_cast<float>(px[o.b]) / range};
            if (j.colour.temperature) {
                const float lum = 0.2126f * rgb[0] + 0.7152f * rgb[1] + 0.0722f * rgb[2];
                apply_temperature(rgb[0], rgb[1], rgb[2], lum, j.colour.gains);
            }
            j.colour.finish(rgb);
            for (int c = 0; c < 3; ++c) {
                const float v = clamp01(rgb[c]);
                if constexpr (sizeof(T) == 4)
                    px[at[c]] = static_cast<T>(v);
                else
                    px[at[c]] = static_cast<T>(static_cast<int>(v * range + 0.5f));
            }
        }
    }
}

int adjust_colors_orig(const AdjustJob &j, int first, int end) {
    if (j.bits == 16)
        adjust_rows(j, reinterpret_cast<uint16_t *>(j.image), 65535.0f, first, end);
    else if (j.bits == 32)
        adjust_rows(j, reinterpret_cast<float *>(j.image), 1.0f, first, end);
    else
        adjust_rows(j, j.image, 255.0f, first, end);
    return end - first;
}

int adjust_colors(int threads, bv_progress_cb cb, const TmParam &colour, void *image,
                  const DimParam &dim) {
    const threading::DimBands rows(dim, 3);
    switch (rows.status()) {
        case threading::DimBands::kEmpty:
            return 0;
        case threading::DimBands::kFewChannels:
            return dim.height;  // nothing to colour
        case threading::DimBands::kBad:
            return BV_CA_EBADARG;
        case threading::DimBands::kOk:
            break;
    }

    AdjustJob j{};
    j.image = static_cast<unsigned char *>(image);
    j.width = dim.width;
    j.channels = dim.channels;
    j.bits = (dim.bitsOut == 16 || dim.bitsOut == 32) ? dim.bitsOut : 8;
    j.row = rows.row_samples();
    j.bgr = dim.bgr != 0;
    j.colour = colour_stage_from(colour);
    j.colour.tables = has_table_params(colour);
    if (!j.colour.any()) return dim.height;

    if (!threading::report_progress(cb, 0.0f)) return BV_CA_ECANCEL;
    Scratch<float> hue, value;
    if (j.colour.tables) {
        if (!hue.alloc(3 * kLutEntries) || !value.alloc(kLutEntries)) return BV_CA_ENOMEM;
        j.colour.use_value = build_colour_luts(colour, kLutEntries, hue.get(), value.get()) > 0;
        j.colour.hue = hue.get();
        j.colour.value = value.get();
    }
    const int rc = rows.run(
        threads, [&](const threading::Band &b) { return adjust_colors_orig(j, b.first, b.end); },
        BV_CA_EDEPTH);
    if (rc < 0) return rc;
    threading::report_progress(cb, 1.0f);
    return dim.height;
}

}  // namespace
}  // namespace bv::coloradjust

extern "C" {

BV_API int has_color_param(int mode, const TmParam *rec) {
    if (!rec) return BV_CA_EBADARG;
    if (mode == BV_CA_MODE_TABLES) return bv::coloradjust::has_table_params(*rec) ? mode : 0;
    if (mode == BV_CA_MODE_ALL) {
        const bool any = static_cast<int>(rec->slot[BV_TM_SLOT_TEMPERATURE]) != 0 ||
                         static_cast<int>(rec->slot[BV_TM_SLOT_SATURATION]) != 0 ||
                         bv::coloradjust::has_table_params(*rec);
        return any ? mode : 0;
    }
    return BV_CA_EBADARG;
}

BV_API int getColorAdjustmentLUTs(int mode, const TmParam *rec, int entries, int bits,
                                  float *hueTable, float *valueTable) {
    if (!rec || !hueTable || !valueTable) return BV_CA_EBADARG;
    if (mode != BV_CA_MODE_ALL && mode != BV_CA_MODE_TABLES) return BV_CA_EBADARG;
    if (entries < 2 || (bits != 8 && bits != 16 && bits != 32)) return BV_CA_EBADARG;
    return bv::coloradjust::build_colour_luts(*rec, entries, hueTable, valueTable);
}

BV_API int bv_adjust_colors(int threads, bv_progress_cb progressCb, int code, const TmParam *params,
                            const TmParam *colour, void *image, DimParam dim) {
    (void)code;
    (void)params;
    if (!colour || !image) return BV_CA_EBADARG;
    return bv::c_boundary(BV_CA_ENOMEM, BV_CA_ENOMEM, [&] {
        return bv::coloradjust::adjust_colors(threads, progressCb, *colour, image, dim);
    });
}

}  // extern "C"
