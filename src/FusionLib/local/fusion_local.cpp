// bv_fusion_local: tiled local-contrast refinement of a fused picture.
#include "FusionLib/local/fusion_local.hpp"

#include <cstring>

#include "Threading/bands.hpp"
#include "common/boundary.hpp"
#include "common/pixels.hpp"

namespace bv::fusion {

int InterpolationInterval = kDefaultInterpolationInterval;

namespace {

constexpr int kBins = 256;
// A curve is known at the 257 bin edges and linear in between.
constexpr int kKnots = kBins + 1;
// Share of the equalised curve mixed into the identity at slot 18 = 1.
constexpr float kMixPerUnit = 0.35f;
// Grid steps below this give tiles too small for a meaningful histogram.
constexpr int kMinInterval = 8;
// Rows of the apply stage between two progress reports.
constexpr int kProgressChunks = 8;

struct Grid {
    int step;        // pixels between tile centres
    int cols, rows;  // tiles
    bool wrap;
};

struct Image {
    void *data;
    int width, height, channels, bits;
    size_t row;  // samples
    ChannelOffsets at;
};

// Integer luma (54 R + 183 G + 19 B) / 256, on the image's own scale.
template <class T>
inline int luma_of(const T *px, const Image &im) {
    if (im.channels < 3) return px[0];
    return (54 * px[im.at.r] + 183 * px[im.at.g] + 19 * px[im.at.b]) >> 8;
}

// Tile (tx, ty)'s curve from the luma histogram of its window of 2 x step
// pixels around its centre: contrast-limited equalisation mixed with the
// identity. Knot k holds the new luma for old luma k * 2^bits / 256.
template <class T>
void tile_curve(const Image &im, const Grid &g, int tx, int ty, float clip, float mix,
                float *curve) {
    const int cx = tx * g.step + g.step / 2, cy = ty * g.step + g.step / 2;
    int y0 = cy - g.step, y1 = cy + g.step;
    if (y0 < 0) y0 = 0;
    if (y1 > im.height) y1 = im.height;
    int x0 = cx - g.step, x1 = cx + g.step;
    if (!g.wrap || x1 - x0 >= im.width) {
        if (x0 < 0) x0 = 0;
        if (x1 > im.width) x1 = im.width;
    }
    const int shift = im.bits - 8;
    uint32_t hist[kBins] = {};
    const T *base = static_cast<const T *>(im.data);
    for (int y = y0; y < y1; ++y) {
        const T *row = base + static_cast<size_t>(y) * im.row;
        for (int xx = x0; xx < x1; ++xx) {
            const int x = xx < 0 ? xx + im.width : (xx >= im.width ? xx - im.width : xx);
            ++hist[luma_of(row + static_cast<size_t>(x) * im.channels, im) >> shift];
        }
    }
    uint64_t total = 0;
    for (uint32_t h : hist) total += h;
    const float full = static_cast<float>(1 << im.bits);
    if (total == 0) {
        for (int k = 0; k < kKnots; ++k) curve[k] = full * k / kBins;
        return;
    }
    // Clip every bin at `clip` times the mean and share the excess evenly, so
    // the curve's slope stays below about `clip`.
    const uint64_t limit = static_cast<uint64_t>(clip * static_cast<float>(total) / kBins) + 1;
    uint64_t excess = 0;
    for (uint32_t &h : hist)
        if (h > limit) excess += h - limit, h = static_cast<uint32_t>(limit);
    const double each = static_cast<double>(excess) / kBins;
    double cdf = 0.0;
    curve[0] = 0.0f;
    for (int k = 0; k < kBins; ++k) {
        cdf += hist[k] + each;
        const float eq = static_cast<float>(cdf / static_cast<double>(total)) * full;
        const float id = full * (k + 1) / kBins;
        curve[k + 1] = id + mix * (eq - id);
    }
}

// Where a coordinate falls between tile centres: the two tiles and the
// weight of the second.
struct Span {
    int a, b;
    float t;
};

// Span of every coordinate 0..length-1 of an axis with `tiles` centres at
// half + i * step. Without wrap the curves are held beyond the outer centres;
// with wrap the last and first centres are neighbours across the seam, a
// gap of length - (tiles - 1) * step apart.
bool spans(int length, int tiles, int step, bool wrap, Scratch<Span> *out) {
    if (!out->alloc(static_cast<size_t>(length))) return false;
    const int half = step / 2, last = (tiles - 1) * step + half;
    const int gap = length - (tiles - 1) * step;
    for (int p = 0; p < length; ++p) {
        Span &s = (*out)[static_cast<size_t>(p)];
        const int q = (wrap && p < half) ? p + length : p;
        if (q < half) {
            s = Span{0, 0, 0.0f};
        } else if (q >= last) {
            s = wrap ? Span{tiles - 1, 0, static_cast<float>(q - last) / gap}
                     : Span{tiles - 1, tiles - 1, 0.0f};
        } else {
            const int a = (q - half) / step;
            s = Span{a, a + 1, static_cast<float>(q - half - a * step) / step};
        }
    }
    return true;
}

inline float eval(const float *curve, int knot, float frac) {
    return curve[knot] + (curve[knot + 1] - curve[knot]) * frac;
}

template <class T>
void apply_rows(const Image &im, const Grid &g, const float *curves, const Span *xs,
                const Span *ys, int first, int end) {
    const int shift = im.bits - 8;
    const float inv_step = 1.0f / static_cast<float>(1 << shift);
    const int mask = (1 << shift) - 1;
    const float max = static_cast<float>((1 << im.bits) - 1);
    T *base = static_cast<T *>(im.data);
    for (int y = first; y < end; ++y) {
        const Span &sy = ys[static_cast<size_t>(y)];
        const float *row_a = curves + static_cast<size_t>(sy.a) * g.cols * kKnots;
        const float *row_b = curves + static_cast<size_t>(sy.b) * g.cols * kKnots;
        T *row = base + static_cast<size_t>(y) * im.row;
        for (int x = 0; x < im.width; ++x) {
            T *px = row + static_cast<size_t>(x) * im.channels;
            const int lum = luma_of(px, im);
            if (lum == 0) continue;
            const Span &sx = xs[static_cast<size_t>(x)];
            const int knot = lum >> shift;
            const float frac = static_cast<float>(lum & mask) * inv_step;
            const size_t ca = static_cast<size_t>(sx.a) * kKnots, cb = static_cast<size_t>(sx.b) * kKnots;
            const float top = eval(row_a + ca, knot, frac) +
                              (eval(row_a + cb, knot, frac) - eval(row_a + ca, knot, frac)) * sx.t;
            const float bottom = eval(row_b + ca, knot, frac) +
                                 (eval(row_b + cb, knot, frac) - eval(row_b + ca, knot, frac)) * sx.t;
            const float target = top + (bottom - top) * sy.t;
            const float gain = target / static_cast<float>(lum);
            auto scale = [&](T &v) {
                const float s = static_cast<float>(v) * gain + 0.5f;
                v = static_cast<T>(s >= max ? max : static_cast<float>(static_cast<int>(s)));
            };
            if (im.channels < 3) {
                scale(px[0]);
            } else {
                scale(px[im.at.r]);
                scale(px[im.at.g]);
                scale(px[im.at.b]);
            }
        }
    }
}

template <class T>
int refine(bv_progress_cb progress_cb, const Image &im, const Grid &g, float clip, float mix,
           int threads) {
    Scratch<float> curves;
    Scratch<Span> xs, ys;
    if (!curves.alloc(static_cast<size_t>(g.cols) * g.rows * kKnots) ||
        !spans(im.width, g.cols, g.step, g.wrap, &xs) || !spans(im.height, g.rows, g.step, false, &ys))
        return BV_FLOCAL_ENOMEM;
    // Curves read the untouched image, so they are all built before any pixel changes.
    threading::run_bands(
        0, g.rows, threads,
        [&](const threading::Band &b) {
            for (int ty = b.first; ty < b.end; ++ty)
                for (int tx = 0; tx < g.cols; ++tx)
                    tile_curve<T>(im, g, tx, ty, clip, mix,
                                  curves.get() + (static_cast<size_t>(ty) * g.cols + tx) * kKnots);
        },
        threading::OnSpawnFailure::RunInline);
    for (int c = 0; c < kProgressChunks; ++c) {
        if (!threading::report_progress(progress_cb, 0.4f + 0.6f * static_cast<float>(c) / kProgressChunks))
            return BV_FLOCAL_ECANCEL;
        const int first = static_cast<int>(static_cast<int64_t>(im.height) * c / kProgressChunks);
        const int end = static_cast<int>(static_cast<int64_t>(im.height) * (c + 1) / kProgressChunks);
        threading::run_bands(
            first, end, threads,
            [&](const threading::Band &b) { apply_rows<T>(im, g, curves.get(), xs.get(), ys.get(), b.first, b.end); },
            threading::OnSpawnFailure::RunInline);
    }
    threading::report_progress(progress_cb, 1.0f);
    return 1;
}

}  // namespace

int refine_local_contrast(bv_progress_cb progress_cb, const TmParam &params, bool wrap, void *image,
                          const DimParam &dim, int threads, int interval) {
    if (dim.bitsOut != 8 && dim.bitsOut != 16) return BV_FLOCAL_EDEPTH;
    const threading::DimBands rows(dim, 1);
    if (rows.status() == threading::DimBands::kBad ||
        rows.status() == threading::DimBands::kFewChannels)
        return BV_FLOCAL_EBADARG;
    const float clip = params.slot[10], strength = params.slot[18];
    if (!(clip > 0.0f) || !(strength > 0.0f) || rows.status() == threading::DimBands::kEmpty)
        return 1;
    const float mix = strength * kMixPerUnit < 1.0f ? strength * kMixPerUnit : 1.0f;
    // At 256 times the mean no bin can be clipped any more.
    const float limit = clip < kBins ? clip : static_cast<float>(kBins);

    Grid g;
    // One tile over the whole picture is the coarsest grid there is.
    const int longest = dim.width > dim.height ? dim.width : dim.height;
    g.step = interval < kMinInterval ? kMinInterval : (interval > longest ? longest : interval);
    g.cols = (dim.width + g.step - 1) / g.step;
    g.rows = (dim.height + g.step - 1) / g.step;
    g.wrap = wrap;
    Image im;
    im.data = image;
    im.width = dim.width, im.height = dim.height, im.channels = dim.channels, im.bits = dim.bitsOut;
    im.row = rows.row_samples();
    im.at = channel_offsets(dim.channels, dim.bgr != 0);
    if (dim.bitsOut == 8) return refine<uint8_t>(progress_cb, im, g, limit, mix, threads);
    return refine<uint16_t>(progress_cb, im, g, limit, mix, threads);
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
