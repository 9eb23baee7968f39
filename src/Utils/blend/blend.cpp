// bv_blend and brush_selection_preview: fixed-point layer blending over row bands.
#include "Utils/blend/blend.hpp"

#include <cmath>
#include <cstring>

#include "Threading/bands.hpp"
#include "common/boundary.hpp"
#include "common/pixels.hpp"

namespace bv::blend {

namespace {

// A brush byte addresses at most 255 layers (255 itself means "not painted").
constexpr int kMaxBrushLayers = 255;

// Fixed-point factors of one layer: (src * a + res * b) >> shift.
struct Factors {
    int a, b;
};

struct Scales {
    int result_scale, source_scale, shift, max;
};

Scales scales_for(const DimParam &dim) {
    const bool out8 = dim.bitsOut == 8;
    return Scales{out8 ? 65535 : 255, dim.bitsIn == 8 ? 65535 : 255, out8 ? 16 : 8,
                  out8 ? 255 : 65535};
}

Factors factors_for(float opacity, const Scales &s) {
    return Factors{static_cast<int>(opacity * static_cast<float>(s.source_scale)),
                   static_cast<int>((1.0f - opacity) * static_cast<float>(s.result_scale))};
}

inline int mix(int src, int res, const Factors &f, int shift, int max) {
    const int v = (src * f.a + res * f.b) >> shift;
    return v < max ? v : max;
}

// Pixels per chunk of the three-channel path: the untouched result of a
// chunk stays on the stack for the brush layers.
constexpr int kChunk = 512;

// result[i] = min((src[i] * a + result[i] * b) >> shift, max) over n samples,
// and the brush mix of such a layer value into the base value. Plain loops
// the compiler vectorises; built twice (AVX2 and the baseline) and chosen
// at load time, with the same integer results either way.
// ThreadSanitizer's runtime is not up yet when load-time resolvers run, so
// its builds keep the baseline only.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define BV_NO_CLONES
#endif
#endif
#if defined(__SANITIZE_THREAD__) || !defined(__x86_64__)
#define BV_NO_CLONES
#endif
#ifdef BV_NO_CLONES
#define BV_CLONES
#else
#define BV_CLONES __attribute__((target_clones("avx2", "default")))
#endif
#define BV_BLEND_KERNELS(In, Out)                                                              \
    BV_CLONES void base_run(                                                                   \
        const In *src, Out *res, int n, Factors f, int shift, int max) {                      \
        for (int i = 0; i < n; ++i) {                                                          \
            const int v = (src[i] * f.a + res[i] * f.b) >> shift;                              \
            res[i] = static_cast<Out>(v < max ? v : max);                                      \
        }                                                                                      \
    }                                                                                          \
    BV_CLONES void layer_run(                                                                  \
        const In *src, const Out *orig, const int *s1, Out *res, int n, Factors f, int shift,  \
        int max) {                                                                             \
        for (int i = 0; i < n; ++i) {                                                          \
            int u = (src[i] * f.a + orig[i] * f.b) >> shift;                                   \
            u = u < max ? u : max;                                                             \
            res[i] = static_cast<Out>((res[i] * (256 - s1[i]) + u * s1[i]) >> 8);              \
        }                                                                                      \
    }
BV_BLEND_KERNELS(uint8_t, uint8_t)
BV_BLEND_KERNELS(uint8_t, uint16_t)
BV_BLEND_KERNELS(uint16_t, uint8_t)
BV_BLEND_KERNELS(uint16_t, uint16_t)
#undef BV_BLEND_KERNELS
#undef BV_CLONES

// Natural-order three-channel results, the common case: the base layer over
// whole chunks, then each run of pixels painted with one brush layer.
template <class In, class Out>
void blend_rows_rgb(int rows, const Factors &base, const Factors *layer, int brush_layers,
                    const uint8_t *brush, const In *stack, const int64_t *offsets,
                    const DimParam &dim, const Scales &sc, Out *result) {
    const int w = dim.width;
    const size_t row_in = static_cast<size_t>(dim.rowIn), row_out = static_cast<size_t>(dim.rowOut);
    Out orig[3 * kChunk];
    int s1[3 * kChunk];
    int16_t which[kChunk];
    for (int y = 0; y < rows; ++y) {
        const In *s0 = stack + offsets[0] + y * row_in;
        Out *res = result + y * row_out;
        const uint8_t *br = brush ? brush + static_cast<size_t>(y) * 2 * w : nullptr;
        for (int x0 = 0; x0 < w; x0 += kChunk) {
            const int n = w - x0 < kChunk ? w - x0 : kChunk;
            Out *r = res + 3 * static_cast<size_t>(x0);
            if (br) std::memcpy(orig, r, sizeof(Out) * 3 * n);
            base_run(s0 + 3 * static_cast<size_t>(x0), r, 3 * n, base, sc.shift, sc.max);
            if (!br) continue;
            const uint8_t *bp = br + 2 * static_cast<size_t>(x0);
            for (int p = 0; p < n; ++p) {
                const int strength = bp[2 * p], k = bp[2 * p + 1];
                const int l = k < brush_layers ? k : brush_layers - 1;
                which[p] = static_cast<int16_t>(k == 255 || strength == 0 ? -1 : l);
            }
            for (int p = 0; p < n;) {
                const int l = which[p];
                int q = p + 1;
                while (q < n && which[q] == l) ++q;
                if (l >= 0) {
                    for (int i = p; i < q; ++i)
                        s1[3 * i] = s1[3 * i + 1] = s1[3 * i + 2] = bp[2 * i] + 1;
                    const In *sl = stack + offsets[l + 1] + y * row_in + 3 * static_cast<size_t>(x0 + p);
                    layer_run(sl, orig + 3 * p, s1 + 3 * p, r + 3 * p, 3 * (q - p), layer[l],
                              sc.shift, sc.max);
                }
                p = q;
            }
        }
    }
}

template <class In, class Out>
int blend_rows(int rows, const float *opacities, const int64_t *offsets, int brush_layers,
               const uint8_t *brush, const In *stack, const DimParam &dim, Out *result) {
    const Scales sc = scales_for(dim);
    const int w = dim.width, ch = dim.channels;
    const ChannelOffsets in = channel_offsets(ch), out = channel_offsets(ch, dim.bgr != 0);
    const int mid = in.g, last = in.b, out_r = out.r, out_b = out.b;
    const size_t row_in = static_cast<size_t>(dim.rowIn), row_out = static_cast<size_t>(dim.rowOut);
    const Factors base = factors_for(opacities[0], sc);
    const bool painted = brush && brush_layers > 0;
    Factors layer[kMaxBrushLayers];
    for (int l = 0; painted && l < brush_layers; ++l) layer[l] = factors_for(opacities[l + 1], sc);
    if (ch == 3 && !dim.bgr) {
        blend_rows_rgb(rows, base, layer, brush_layers, painted ? brush : nullptr, stack, offsets,
                       dim, sc, result);
        return rows;
    }
    const In *src0 = stack + offsets[0];
    for (int y = 0; y < rows; ++y) {
        const In *s0 = src0 + static_cast<size_t>(y) * row_in;
        Out *res = result + static_cast<size_t>(y) * row_out;
        const uint8_t *br = painted ? brush + static_cast<size_t>(y) * 2 * w : nullptr;
        for (int x = 0; x < w; ++x, s0 += ch, res += ch) {
            // Read all three before writing: with one channel the roles share a sample.
            const int r0 = res[out_r], g0 = res[mid], b0 = res[out_b];
            int vr = mix(s0[0], r0, base, sc.shift, sc.max);
            int vg = mix(s0[mid], g0, base, sc.shift, sc.max);
            int vb = mix(s0[last], b0, base, sc.shift, sc.max);
            if (br) {
                const int strength = br[2 * x], k = br[2 * x + 1];
                if (k < 255 && strength > 0) {
                    const int l = k < brush_layers ? k : brush_layers - 1;
                    const Factors &f = layer[l];
                    const In *sl = stack + offsets[l + 1] + static_cast<size_t>(y) * row_in +
                                   static_cast<size_t>(x) * ch;
                    const int s1 = strength + 1, keep = 256 - s1;
                    vr = (vr * keep + mix(sl[0], r0, f, sc.shift, sc.max) * s1) >> 8;
                    vg = (vg * keep + mix(sl[mid], g0, f, sc.shift, sc.max) * s1) >> 8;
                    vb = (vb * keep + mix(sl[last], b0, f, sc.shift, sc.max) * s1) >> 8;
                }
            }
            res[out_r] = static_cast<Out>(vr);
            res[mid] = static_cast<Out>(vg);
            res[out_b] = static_cast<Out>(vb);
        }
    }
    return rows;
}

}  // namespace

int getIndexClosestEv(int n, const float *evs, float target) {
    if (n < 2 || !evs) return 0;
    float best = 1e12f;
    int index = 0;
    for (int i = 0; i < n; ++i) {
        if (evs[i] == target) return i;
        const float d = std::fabs(evs[i] - target);
        if (d < best) {
            best = d;
            index = i;
        } else if (d == best) {
            if ((target < 0.0f && evs[i] < evs[index]) || (target > 0.0f && evs[i] > evs[index]))
                index = i;
        }
    }
    return index;
}

int blend_orig(int rows, const float *opacities, const int64_t *offsets, int brushLayers,
               const uint8_t *brush, const void *stack, const DimParam &dim, void *result) {
    const bool in8 = dim.bitsIn == 8, out8 = dim.bitsOut == 8;
    if (in8 && out8)
        return blend_rows(rows, opacities, offsets, brushLayers, brush,
                          static_cast<const uint8_t *>(stack), dim, static_cast<uint8_t *>(result));
    if (in8)
        return blend_rows(rows, opacities, offsets, brushLayers, brush,
                          static_cast<const uint8_t *>(stack), dim, static_cast<uint16_t *>(result));
    if (out8)
        return blend_rows(rows, opacities, offsets, brushLayers, brush,
                          static_cast<const uint16_t *>(stack), dim, static_cast<uint8_t *>(result));
    return blend_rows(rows, opacities, offsets, brushLayers, brush,
                      static_cast<const uint16_t *>(stack), dim, static_cast<uint16_t *>(result));
}

void *blend_threaded(void *record) {
    auto *b = static_cast<BlendBand *>(record);
    const DimParam &d = *b->dim;
    const size_t in_bytes = d.bitsIn == 8 ? 1 : 2, out_bytes = d.bitsOut == 8 ? 1 : 2;
    const size_t first = static_cast<size_t>(b->first);
    const uint8_t *brush = b->brush ? b->brush + first * 2 * static_cast<size_t>(d.width) : nullptr;
    const void *stack = static_cast<const uint8_t *>(b->stack) + first * d.rowIn * in_bytes;
    void *result = static_cast<uint8_t *>(b->result) + first * d.rowOut * out_bytes;
    b->status = blend_orig(b->end - b->first, b->opacities, b->offsets, b->brushLayers, brush,
                           stack, d, result);
    return nullptr;
}

namespace {

bool row_length(int32_t given, int width, int channels, int32_t *out) {
    const int64_t packed = static_cast<int64_t>(width) * channels;
    if (packed > INT32_MAX || given < 0 || (given > 0 && given < packed)) return false;
    *out = given > 0 ? given : static_cast<int32_t>(packed);
    return true;
}

int blend_impl(int threads, int n, const TmParam *layers, const float *evs, const uint8_t *brush,
               const void *stack, DimParam dim, void *result) {
    const threading::DimBands rows(dim, 1);
    if (!layers || !stack || !result || n < 1 || rows.status() == threading::DimBands::kBad ||
        rows.status() == threading::DimBands::kFewChannels ||
        (dim.bitsIn != 8 && dim.bitsIn != 16) || (dim.bitsOut != 8 && dim.bitsOut != 16) ||
        !row_length(dim.rowIn, dim.width, dim.channels, &dim.rowIn) ||
        !row_length(dim.rowOut, dim.width, dim.channels, &dim.rowOut))
        return BV_BLEND_EBADARG;

    int brush_layers = 0;
    if (brush) {
        const float v = layers[0].slot[55];
        if (v > 0.0f) brush_layers = v >= kMaxBrushLayers ? kMaxBrushLayers : static_cast<int>(v);
    }
    const size_t records = static_cast<size_t>(brush_layers) + 1;
    Scratch<float> opacity;
    Scratch<int64_t> offset;
    if (!opacity.alloc(records) || !offset.alloc(records)) return BV_BLEND_ENOMEM;
    const int64_t exposure_len = static_cast<int64_t>(dim.rowIn) * dim.height;
    bool any = false;
    for (size_t r = 0; r < records; ++r) {
        const float percent = layers[r].slot[51];
        if (!(percent > 0.0f)) continue;
        const double o = percent * 0.01;
        opacity[r] = static_cast<float>(o < 0.99 ? o : 0.99);
        offset[r] = (n < 2 || !evs) ? 0 : getIndexClosestEv(n, evs, layers[r].slot[52]) * exposure_len;
        any = true;
    }
    if (!any) return BV_BLEND_UNTOUCHED;
    if (rows.status() == threading::DimBands::kEmpty) return 0;

    const BlendBand whole{0, dim.height, opacity.get(), offset.get(), brush_layers, brush,
                          stack, &dim, result, 0};
    // Bands thinner than three rows are not worth a thread: one call then.
    const int bands = (threads < 2 || dim.height / threads < 3) ? 1 : threads;
    return rows.run(
        bands,
        [&](const threading::Band &b) {
            BlendBand rec = whole;
            rec.first = b.first;
            rec.end = b.end;
            blend_threaded(&rec);
            return rec.status;
        },
        BV_BLEND_ETHREAD);
}

// Pixel index k of a bit mask: bit 0x80 >> (k % 8) of byte k / 8.
inline bool bit_set(const uint8_t *mask, size_t k) {
    return (mask[k >> 3] & (0x80u >> (k & 7u))) != 0;
}

int preview_impl(int mode, int n, int width, int rows, int in_row, int out_row, int channels,
                 const uint8_t *stack, const uint8_t *selection, uint8_t *out) {
    const int64_t packed = static_cast<int64_t>(width) * channels;
    if (!stack || !selection || !out || n < 1 || width < 0 || rows < 0 || channels < 1 ||
        in_row < packed || out_row < packed)
        return BV_BLEND_EBADARG;
    const uint8_t *src = stack + static_cast<size_t>(n - 1) * in_row * rows;
    const ChannelOffsets at = channel_offsets(channels);
    const int mid = at.g, last = at.b;
    for (int y = 0; y < rows; ++y) {
        const uint8_t *s = src + static_cast<size_t>(y) * in_row;
        uint8_t *o = out + static_cast<size_t>(y) * out_row;
        std::memcpy(o, s, static_cast<size_t>(packed));
        for (int x = 0; x < width; ++x, o += channels) {
            const size_t k = static_cast<size_t>(y) * width + x;
            // Read all three before writing: with one channel the roles share a sample.
            const float r = o[0], g = o[mid], b = o[last];
            if (mode != 0) {
                if (!bit_set(selection, k)) continue;
                o[0] = static_cast<uint8_t>(static_cast<int>(r * 0.75f));
                o[mid] = static_cast<uint8_t>(static_cast<int>(g * 0.75f));
                o[last] = static_cast<uint8_t>(static_cast<int>(b * 0.75f + 63.75f));
            } else {
                const int m = selection[k];
                if (m == 0) continue;
                const float a = m * 0.0009803922f, keep = 1.0f - a;
                o[0] = static_cast<uint8_t>(static_cast<int>(r * keep));
                o[mid] = static_cast<uint8_t>(static_cast<int>(g * keep));
                o[last] = static_cast<uint8_t>(static_cast<int>(a * 255.0f + b * keep));
            }
        }
    }
    return 0;
}

}  // namespace

}  // namespace bv::blend

extern "C" BV_API int bv_blend(int threads, int n, const TmParam *layers, const float *evs,
                               const uint8_t *brush, const void *stack, DimParam dim,
                               void *result) {
    return bv::c_boundary(BV_BLEND_ENOMEM, BV_BLEND_ETHREAD, [&] {
        return bv::blend::blend_impl(threads, n, layers, evs, brush, stack, dim, result);
    });
}

extern "C" BV_API int brush_selection_preview(int mode, int n, int width, int rows, int inRowLen,
                                              int outRowLen, int channels, const uint8_t *stack,
                                              const uint8_t *selection, uint8_t *out) {
    return bv::c_boundary(BV_BLEND_ENOMEM, BV_BLEND_EBADARG, [&] {
        return bv::blend::preview_impl(mode, n, width, rows, inRowLen, outRowLen, channels, stack,
                                       selection, out);
    });
}
