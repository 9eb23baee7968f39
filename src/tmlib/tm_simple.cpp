// Simple global tone mapping of float RGB or RGBE rows to 8/16-bit output, with region sets.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "Threading/bands.hpp"
#include "Utils/colour_adjust/colour_adjust.hpp"
#include "common/boundary.hpp"
#include "common/pixels.hpp"
#include "tmlib-core/tmlib_core.hpp"

namespace bv::tm {

namespace {

// Region indices are one byte and 255 means "none", so at most 255 region
// sets can ever be addressed.
constexpr int kMaxRegionSets = 255;

// Curve and colour constants of one parameter set.
struct CurveSet {
    float a;    // scale that maps the median to exp(k)
    float c;    // adaptation blend
    float a0;   // base adaptation
    float f;    // exposure factor
    float m;    // contrast exponent
    float lo;   // black end, after the black clip
    float inv;  // 1 / (white end after the clip - black end)
    coloradjust::ColourStage colour;
};

struct Job {
    const CurveSet *sets;  // base set, then region sets
    int regions;           // region sets after the base
    const unsigned char *region_map;
    const float *exp_table;
    const unsigned char *input;
    void *output;
    DimParam dim;
    bool rgbe;
    bool planar;
    float range;             // 255 or 65535
    size_t out_row;          // interleaved row length in samples
    int first_row, end_row;  // optional row window of the base set
};

CurveSet make_curve(const TmParam &p, const LogLumStats &st, float range) {
    const float *s = p.slot;
    const double mn = st.v[0], mx = st.v[1], med = st.v[3], high = st.v[4];
    CurveSet cs{};
    const double r = high - med;
    const double k = (r <= 4.0) ? -1.5 : ((med - high) + 1.0) * 0.5;
    const double a = std::exp(k - med);
    const double s1 = s[BV_TM_SLOT_BRIGHTNESS], s2 = s[BV_TM_SLOT_ADAPTATION];
    double c;
    if (s2 <= 0.0 || s1 <= 0.0) {
        c = (s2 + 10.0) * 0.05;
    } else {
        const double t = s1 * 0.1 + 1.0;
        c = ((s2 + 10.0 * t) * 0.05) / t;
    }
    const double a0 = (1.0 - c) * a * std::exp(med);
    float m = 0.3f;
    if (mn < mx) m = static_cast<float>(std::pow(r / (mx - mn), 1.4) * 0.6 + 0.3);
    if (!(m == m)) m = 0.3f;  // a percentile below the median would give NaN
    if (s1 < 0.0)
        m = static_cast<float>((s1 + 10.0) * 0.1 * (m - 0.01) + 0.01);
    else if (s1 > 0.0)
        m = static_cast<float>((10.0 - s1) * 0.1 * (m - 0.9) + 0.9);
    const double s0 = s[BV_TM_SLOT_EXPOSURE];
    double x;
    if (s0 > 0.0)
        x = s0 * (0.4 - 0.01 * s0);
    else if (s0 > -6.0)
        x = s0 * 0.5;
    else
        x = s0 * ((-6.0 - s0) * 0.1 + 0.5);
    const double f = std::exp(-x);

    const double H = a * std::exp(mx), L = a * std::exp(mn);
    const double hi = range * H / (std::pow(f * (c * H + a0), m) + H + 1e-20);
    const double lo = range * L / (std::pow(f * (c * L + a0), m) + L + 1e-20);
    const double d = hi - lo;
    const double lo_clip = lo + s[BV_TM_SLOT_BLACK_CLIP] * 0.02 * d;
    cs.a = static_cast<float>(a);
    cs.c = static_cast<float>(c);
    cs.a0 = static_cast<float>(a0);
    cs.f = static_cast<float>(f);
    cs.m = m;
    cs.lo = static_cast<float>(lo_clip);
    cs.inv = static_cast<float>(1.0 / ((hi - s[BV_TM_SLOT_WHITE_CLIP] * 0.03 * d) - lo_clip));
    cs.colour = coloradjust::colour_stage_from(p);
    return cs;
}

// One pixel through one set: out is near 0..1 before the final scaling.
// e_scale is the RGBE exponent scale (1 for float input).
inline void render(const CurveSet &s, float range, float r, float g, float b, float e_scale,
                   float out[3]) {
    const float scale = s.a * e_scale;
    const float y = 0.2126f * r + 0.7152f * g + 0.0722f * b;
    const float lambda = y * scale * s.c + s.a0;
    if (s.colour.temperature) coloradjust::apply_temperature(r, g, b, y, s.colour.gains);
    const float sigma = std::pow(s.f * lambda, s.m) + 1e-20f;
    const float in[3] = {r, g, b};
    for (int ch = 0; ch < 3; ++ch) {
        const float cp = in[ch] * scale;
        out[ch] = (range * cp / (cp + sigma) - s.lo) * s.inv;
    }
    s.colour.finish(out);
}

// Where the three samples of an output pixel go: interleaved at the channel
// offsets, or into three planes (plane order swapped alike for BGR).
template <class T>
struct PixelSink {
    T *out;
    size_t plane, row;
    int width, ch;
    ChannelOffsets at;
    bool planar;
    explicit PixelSink(const Job &j)
        : out(static_cast<T *>(j.output)),
          plane(static_cast<size_t>(j.dim.width) * static_cast<size_t>(j.dim.height)),
          row(j.out_row),
          width(j.dim.width),
          ch(j.dim.channels),
          at(channel_offsets(j.planar ? 3 : j.dim.channels, j.dim.bgr != 0)),
          planar(j.planar) {}
    void store(int y, int x, T r, T g, T b) const {
        if (planar) {
            const size_t p = static_cast<size_t>(y) * width + x;
            out[at.r * plane + p] = r;
            out[at.g * plane + p] = g;
            out[at.b * plane + p] = b;
        } else {
            T *px = out + static_cast<size_t>(y) * row + static_cast<size_t>(x) * ch;
            px[at.r] = r;
            px[at.g] = g;
            px[at.b] = b;
        }
    }
};

// Input row y: RGBE planes, or interleaved floats of dim.channels samples
// per pixel (only the member of the job's kind is set).
struct InputRow {
    RgbeRow rgbe;
    const float *floats;
    InputRow(const Job &j, int y)
        : rgbe(j.input, static_cast<size_t>(j.dim.width), j.rgbe ? static_cast<size_t>(y) : 0),
          floats(j.rgbe ? nullptr
                        : reinterpret_cast<const float *>(j.input) +
                              static_cast<size_t>(y) * j.dim.width * j.dim.channels) {}
};

template <class T>
inline T to_sample(float v, float range) {
    v *= range;
    if (!(v > 0.0f)) return 0;  // NaN too
    if (v >= range) return static_cast<T>(range);
    return static_cast<T>(static_cast<int>(v));
}

template <class T>
void map_rows(const Job &j, int first, int end) {
    const DimParam &d = j.dim;
    const int w = d.width;
    const int ch = d.channels;
    const ChannelOffsets in = channel_offsets(ch);
    const PixelSink<T> sink(j);
    const CurveSet &base = j.sets[0];
    for (int y = first; y < end; ++y) {
        const InputRow row(j, y);
        const unsigned char *map =
            j.region_map ? j.region_map + static_cast<size_t>(y) * w * 2 : nullptr;
        for (int x = 0; x < w; ++x) {
            float r, g, b, e_scale = 1.0f;
            bool black = false;
            if (j.rgbe) {
                const unsigned e = row.rgbe.e[x];
                black = e == 0;
                r = row.rgbe.r[x], g = row.rgbe.g[x], b = row.rgbe.b[x];
                e_scale = j.exp_table[e];
            } else {
                const float *px = row.floats + static_cast<size_t>(x) * ch;
                r = px[in.r], g = px[in.g], b = px[in.b];
            }
            float o[3] = {0.0f, 0.0f, 0.0f};
            if (!black) {
                int set = -1;
                int weight = 0;
                if (map && j.regions > 0) {
                    weight = map[2 * x];
                    const int idx = map[2 * x + 1];
                    if (idx != 255 && weight != 0) set = idx < j.regions ? idx : j.regions - 1;
                }
                if (set < 0) {
                    render(base, j.range, r, g, b, e_scale, o);
                } else {
                    render(j.sets[set + 1], j.range, r, g, b, e_scale, o);
                    const int t = 256 - (weight + 1);
                    if (t != 0) {
                        float bo[3];
                        render(base, j.range, r, g, b, e_scale, bo);
                        const float keep = 1.0f - t / 256.0f, mix = t / 256.0f;
                        for (int c = 0; c < 3; ++c) o[c] = o[c] * keep + bo[c] * mix;
                    }
                }
            }
            const T sr = to_sample<T>(o[0], j.range), sg = to_sample<T>(o[1], j.range),
                    sb = to_sample<T>(o[2], j.range);
            sink.store(y, x, sr, sg, sb);
        }
    }
}

// The common case (no colour stages, no regions), a chunk of pixels at a
// time so that the per-channel divisions run four lanes wide. Every lane
// does the same IEEE operations in the same order as render(), so the
// output is bit-identical to the per-pixel path.
template <class T>
void map_rows_plain(const Job &j, int first, int end) {
    constexpr int kChunk = 256;
    const DimParam &d = j.dim;
    const int w = d.width;
    const int ch = d.channels;
    const ChannelOffsets in = channel_offsets(ch);
    const CurveSet &s = j.sets[0];
    const PixelSink<T> sink(j);
    alignas(16) float cp[3][kChunk];
    alignas(16) float sig[kChunk];
    alignas(16) int32_t q[3][kChunk];
    bool black[kChunk];
    for (int y = first; y < end; ++y) {
        const InputRow row(j, y);
        for (int x0 = 0; x0 < w; x0 += kChunk) {
            const int n = (w - x0 < kChunk) ? w - x0 : kChunk;
            for (int i = 0; i < n; ++i) {
                const int x = x0 + i;
                float r, g, b, e_scale = 1.0f;
                if (j.rgbe) {
                    const unsigned e = row.rgbe.e[x];
                    black[i] = e == 0;
                    r = row.rgbe.r[x], g = row.rgbe.g[x], b = row.rgbe.b[x];
                    e_scale = j.exp_table[e];
                } else {
                    const float *px = row.floats + static_cast<size_t>(x) * ch;
                    black[i] = false;
                    r = px[in.r], g = px[in.g], b = px[in.b];
                }
                const float scale = s.a * e_scale;
                const float lum = 0.2126f * r + 0.7152f * g + 0.0722f * b;
                const float lambda = lum * scale * s.c + s.a0;
                sig[i] = std::pow(s.f * lambda, s.m) + 1e-20f;
                cp[0][i] = r * scale;
                cp[1][i] = g * scale;
                cp[2][i] = b * scale;
            }
            for (int c = 0; c < 3; ++c) {
                int i = 0;
#if defined(__SSE2__)
                const __m128 range = _mm_set1_ps(j.range), lo = _mm_set1_ps(s.lo),
                             inv = _mm_set1_ps(s.inv), zero = _mm_setzero_ps();
                for (; i + 4 <= n; i += 4) {
                    const __m128 v = _mm_load_ps(&cp[c][i]);
                    const __m128 o = _mm_mul_ps(
                        _mm_sub_ps(
                            _mm_div_ps(_mm_mul_ps(range, v), _mm_add_ps(v, _mm_load_ps(&sig[i]))),
                            lo),
                        inv);
                    // max(x, 0) yields 0 for NaN, as to_sample does.
                    const __m128 t = _mm_min_ps(_mm_max_ps(_mm_mul_ps(o, range), zero), range);
                    _mm_store_si128(reinterpret_cast<__m128i *>(&q[c][i]), _mm_cvttps_epi32(t));
                }
#endif
                for (; i < n; ++i) {
                    const float v = cp[c][i];
                    q[c][i] =
                        to_sample<int32_t>((j.range * v / (v + sig[i]) - s.lo) * s.inv, j.range);
                }
            }
            for (int i = 0; i < n; ++i) {
                const int x = x0 + i;
                const T sr = black[i] ? 0 : static_cast<T>(q[0][i]);
                const T sg = black[i] ? 0 : static_cast<T>(q[1][i]);
                const T sb = black[i] ? 0 : static_cast<T>(q[2][i]);
                sink.store(y, x, sr, sg, sb);
            }
        }
    }
}

}  // namespace

// One band of rows [first, end), clipped to the base set's row window.
// Returns the band's row count.
int tm_simple_orig(const Job &j, int first, int end) {
    const int lo = first > j.first_row ? first : j.first_row;
    const int hi = end < j.end_row ? end : j.end_row;
    if (lo < hi) {
        const CurveSet &b = j.sets[0];
        const bool plain = !(j.region_map && j.regions > 0) && !b.colour.any();
        if (j.range > 255.0f)
            plain ? map_rows_plain<uint16_t>(j, lo, hi) : map_rows<uint16_t>(j, lo, hi);
        else
            plain ? map_rows_plain<uint8_t>(j, lo, hi) : map_rows<uint8_t>(j, lo, hi);
    }
    return end - first;
}

namespace {

// Stage 1: arguments. Returns 1 to go on, 0 for an empty image, or a code.
int check_arguments(const DimParam &dim, const threading::DimBands &rows, const float *exp_table,
                    const void *input, const void *output) {
    const bool rgbe = dim.sourceKind != BV_SOURCE_FLOAT_RGB;
    const bool planar = dim.layout == BV_LAYOUT_PLANES;
    if ((rgbe && !exp_table) || dim.channels < 1 || (planar && dim.channels < 3))
        return BV_TM_EBADARG;
    if (rows.status() == threading::DimBands::kEmpty) return 0;
    if (rows.status() != threading::DimBands::kOk || !input || !output) return BV_TM_EBADARG;
    return 1;
}

// Stage 2: region sets following the base record (only with a region map).
int region_set_count(const TmParam &base, const unsigned char *region_map) {
    if (!region_map) return 0;
    const float v = base.slot[BV_TM_SLOT_REGION_SETS];
    if (!(v > 0.0f)) return 0;
    return v >= kMaxRegionSets ? kMaxRegionSets : static_cast<int>(v);
}

// Hue and value tables of every parameter set, side by side.
struct ColourTables {
    static constexpr size_t kLut = static_cast<size_t>(coloradjust::kLutEntries);
    Scratch<float> hue, value;
    bool alloc(size_t sets) { return hue.alloc(sets * kLut * 3) && value.alloc(sets * kLut); }
    float *hue_of(size_t set) const { return hue.get() + set * kLut * 3; }
    float *value_of(size_t set) const { return value.get() + set * kLut; }
};

// Stage 3: curve constants of every set, with its colour tables when its
// colour slots or its saturation ask for them.
void build_curves(const TmParam *params, const LogLumStats &stats, float range,
                  const ColourTables &tables, std::vector<CurveSet> &curves) {
    for (size_t k = 0; k < curves.size(); ++k) {
        TmParam colour;
        std::memcpy(&colour, &params[k], sizeof colour);
        CurveSet &c = curves[k];
        c = make_curve(colour, stats, range);
        if (!coloradjust::has_table_params(colour) && colour.slot[BV_TM_SLOT_SATURATION] == 0.0f)
            continue;
        c.colour.tables = true;
        c.colour.hue = tables.hue_of(k);
        c.colour.value = tables.value_of(k);
        c.colour.use_value =
            coloradjust::build_colour_luts(colour, coloradjust::kLutEntries, tables.hue_of(k),
                                           tables.value_of(k)) != 0;
    }
}

// Stage 4: the job every band reads, with the base set's row window.
Job make_job(const std::vector<CurveSet> &curves, const unsigned char *region_map,
             const float *exp_table, const void *input, void *output, const DimParam &dim,
             size_t out_row, float range) {
    Job j{};
    j.sets = curves.data();
    j.regions = static_cast<int>(curves.size()) - 1;
    j.region_map = region_map;
    j.exp_table = exp_table;
    j.input = static_cast<const unsigned char *>(input);
    j.output = output;
    j.dim = dim;
    j.rgbe = dim.sourceKind != BV_SOURCE_FLOAT_RGB;
    j.planar = dim.layout == BV_LAYOUT_PLANES;
    j.range = range;
    j.out_row = out_row;
    return j;
}

void set_row_window(const TmParam &base, int height, Job &j) {
    j.first_row = 0;
    j.end_row = height;
    const float first = base.slot[BV_TM_SLOT_FIRST_ROW], end = base.slot[BV_TM_SLOT_END_ROW];
    if (first > 0.0f && first < height - 1) j.first_row = static_cast<int>(first);
    if (end > 0.0f && end < height) j.end_row = static_cast<int>(end);
}

int tm_simple_impl(const TmParam *params, const unsigned char *region_map, const LogLumStats &stats,
                   const float *exp_table, const void *input, void *output, const DimParam &dim,
                   int threads) {
    const threading::DimBands rows(dim, 1);
    const int checked = check_arguments(dim, rows, exp_table, input, output);
    if (checked <= 0) return checked;

    const size_t sets = static_cast<size_t>(region_set_count(params[0], region_map)) + 1;
    ColourTables tables;
    if (!tables.alloc(sets)) return BV_TM_ENOMEM;
    // Also rejects NaN statistics.
    if (!(stats.v[0] < stats.v[1])) return BV_TM_ESTATS;

    const float range = dim.bitsOut == 16 ? 65535.0f : 255.0f;
    std::vector<CurveSet> curves(sets);
    build_curves(params, stats, range, tables, curves);
    Job j = make_job(curves, region_map, exp_table, input, output, dim, rows.row_samples(), range);
    set_row_window(params[0], dim.height, j);

    return rows.run(
        threads, [&](const threading::Band &b) { return tm_simple_orig(j, b.first, b.end); },
        BV_TM_ETHREAD);
}

}  // namespace
}  // namespace bv::tm

extern "C" {

BV_API int tm_simple(TmParam *params, const unsigned char *regionMap, const LogLumStats *stats,
                     const float *expTable, void *input, uint16_t *output, DimParam dim,
                     int threads) {
    if (!params || !stats) return BV_TM_EBADARG;
    return bv::c_boundary(BV_TM_ENOMEM, BV_TM_ENOMEM, [&] {
        return bv::tm::tm_simple_impl(params, regionMap, *stats, expTable, input, output, dim,
                                      threads);
    });
}

}  // extern "C"
