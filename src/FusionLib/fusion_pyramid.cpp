// Fusion pyramids: level geometry, the reduce and expand steps, detail gains.
#include <cmath>
#include <cstdlib>
#include <type_traits>

#include "FusionLib/fusion.hpp"
#include "Threading/bands.hpp"

namespace bv::fusion {

namespace {

// Border kernels: [2, 1] / 3 on an axis whose neighbour is missing, the
// weights written as the fusion has always used them.
constexpr double kEdgeCentre = 0.333, kEdgeSide = 0.1667, kEdgeCorner = 0.08333333333333333;
constexpr double kCornerCentre = 4.0 / 9.0, kCornerSide = 2.0 / 9.0, kCornerCorner = 1.0 / 9.0;

template <class T>
inline T from_double(double v) {
    return static_cast<T>(static_cast<int>(v));
}
template <>
inline float from_double<float>(double v) {
    return static_cast<float>(v);
}

template <class T>
inline T binomial(T c, T e0, T e1, T e2, T e3, T k0, T k1, T k2, T k3) {
    return static_cast<T>(((k0 + k1 + k2 + k3) >> 4) + ((e0 + e1 + e2 + e3) >> 3) + (c >> 2));
}
template <>
inline float binomial<float>(float c, float e0, float e1, float e2, float e3, float k0, float k1,
                             float k2, float k3) {
    return 0.25f * c + 0.125f * (e0 + e1 + e2 + e3) + 0.0625f * (k0 + k1 + k2 + k3);
}

// Sums of 8-bit and 16-bit samples are taken in int.
template <class T>
using Acc = typename std::conditional<std::is_same<T, float>::value, float, int>::type;

// One output sample with missing neighbours counted as 0 beside the
// kernel that skips them.
template <class T>
inline T reduce_border(const T *ru, const T *rc, const T *rd, size_t L, size_t C, size_t R, bool mu,
                       bool md, bool ml, bool mr) {
    using A = Acc<T>;
    const A u = mu ? A(0) : A(ru[C]), d = md ? A(0) : A(rd[C]);
    const A l = ml ? A(0) : A(rc[L]), r = mr ? A(0) : A(rc[R]);
    const A ul = (mu || ml) ? A(0) : A(ru[L]), ur = (mu || mr) ? A(0) : A(ru[R]);
    const A dl = (md || ml) ? A(0) : A(rd[L]), dr = (md || mr) ? A(0) : A(rd[R]);
    const A centre = rc[C], sides = u + d + l + r, corners = ul + ur + dl + dr;
    const bool mv = mu || md, mh = ml || mr;
    if (!mv && !mh) return binomial<A>(rc[C], u, d, l, r, ul, ur, dl, dr);
    if (mv && mh)
        return from_double<T>(kCornerCentre * centre + kCornerSide * sides +
                              kCornerCorner * corners);
    return from_double<T>(kEdgeCentre * centre + kEdgeSide * sides + kEdgeCorner * corners);
}

template <class T>
void reduce_rows(const T *in, T *out, int w, int h, int ch, bool wrap, int y0, int y1) {
    using A = Acc<T>;
    const int ow = (w + 1) / 2;
    const size_t stride = static_cast<size_t>(w) * ch;
    for (int oy = y0; oy < y1; ++oy) {
        const int cy = 2 * oy;
        const bool mu = cy - 1 < 0, md = cy + 1 >= h;
        const T *rc = in + static_cast<size_t>(cy) * stride;
        const T *ru = mu ? rc : rc - stride;
        const T *rd = md ? rc : rc + stride;
        T *o = out + static_cast<size_t>(oy) * ow * ch;
        auto general = [&](int ox) {
            const int cx = 2 * ox;
            int xl = cx - 1, xr = cx + 1;
            bool ml = xl < 0, mr = xr >= w;
            if (wrap) {
                if (ml) xl = w - 1, ml = false;
                if (mr) xr = 0, mr = false;
            }
            const size_t C = static_cast<size_t>(cx) * ch;
            const size_t L = static_cast<size_t>(ml ? cx : xl) * ch;
            const size_t R = static_cast<size_t>(mr ? cx : xr) * ch;
            for (int c = 0; c < ch; ++c)
                o[static_cast<size_t>(ox) * ch + c] =
                    reduce_border(ru, rc, rd, L + c, C + c, R + c, mu, md, ml, mr);
        };
        if (mu || md || ow < 3) {
            for (int ox = 0; ox < ow; ++ox) general(ox);
            continue;
        }
        general(0);
        // Inside: every neighbour exists.
        const size_t end = static_cast<size_t>(ow - 1) * ch;
        for (size_t s = ch; s < end; ++s) {
            const size_t C = 2 * s - (s % ch), L = C - ch, R = C + ch;
            o[s] = binomial<A>(rc[C], ru[C], rd[C], rc[L], rc[R], ru[L], ru[R], rd[L], rd[R]);
        }
        general(ow - 1);
    }
}

template <class T>
void reduce_any(const T *in, T *out, int w, int h, int ch, bool wrap, int threads) {
    const int oh = (h + 1) / 2;
    threading::run_bands(
        0, oh, threads,
        [&](const threading::Band &b) { reduce_rows(in, out, w, h, ch, wrap, b.first, b.end); },
        threading::OnSpawnFailure::RunInline);
}

}  // namespace

int pyramid_depth(int width, int height, int bitsOut) {
    const int m = width < height ? width : height;
    if (m < 1) return -1;
    int d = static_cast<int>(std::log(static_cast<double>(m)) * 1.4426950408889634) - 1;
    if (d > 5 && bitsOut == 32) --d;
    return d;
}

Levels level_layout(int width, int height, int depth) {
    Levels L;
    L.count = depth > 0 ? depth + 1 : 1;
    if (L.count > 31) L.count = 31;
    L.w[0] = width;
    L.h[0] = height;
    L.off[0] = 0;
    for (int k = 0; k < L.count; ++k) {
        if (k > 0) {
            L.w[k] = (L.w[k - 1] + 1) / 2;
            L.h[k] = (L.h[k - 1] + 1) / 2;
        }
        L.off[k + 1] = L.off[k] + static_cast<size_t>(L.w[k]) * static_cast<size_t>(L.h[k]);
    }
    return L;
}

void reduce(const uint8_t *in, uint8_t *out, int w, int h, int ch, bool wrap, int threads) {
    reduce_any(in, out, w, h, ch, wrap, threads);
}
void reduce(const uint16_t *in, uint16_t *out, int w, int h, int ch, bool wrap, int threads) {
    reduce_any(in, out, w, h, ch, wrap, threads);
}
void reduce(const float *in, float *out, int w, int h, int ch, bool wrap, int threads) {
    reduce_any(in, out, w, h, ch, wrap, threads);
}

void expand_row(const uint16_t *coarse, int cw, int chh, int ch, int fw, int y, bool wrap,
                int32_t *out, int32_t *work) {
    const int cy = y / 2;
    const size_t stride = static_cast<size_t>(cw) * ch;
    const uint16_t *C = coarse + static_cast<size_t>(cy) * stride;
    const uint16_t *U = cy > 0 ? C - stride : C;
    const uint16_t *D = cy + 1 < chh ? C + stride : C;
    const bool yodd = y & 1;
    // Column sums of the coarse rows the fine row reads: even rows use the
    // centre row (A) and the rows above and below (B); odd rows the pair
    // of rows around them (A). The weights then apply to integer sums.
    int32_t *A = work, *B = work + stride;
    if (yodd) {
        for (size_t s = 0; s < stride; ++s) A[s] = C[s] + D[s];
    } else {
        for (size_t s = 0; s < stride; ++s) {
            A[s] = C[s];
            B[s] = U[s] + D[s];
        }
    }
    auto pair = [&](int cx, int l, int r) {
        const size_t pc = static_cast<size_t>(cx) * ch, pl = static_cast<size_t>(l) * ch,
                     pr = static_cast<size_t>(r) * ch;
        int32_t *e = out + 2 * pc, *o = e + ch;
        const bool odd_too = 2 * cx + 1 < fw;
        for (int c = 0; c < ch; ++c) {
            if (yodd) {
                e[c] = static_cast<int32_t>(0.375 * A[pc + c] + 0.0625 * (A[pl + c] + A[pr + c]));
                if (odd_too) o[c] = (A[pc + c] + A[pr + c]) >> 2;
            } else {
                e[c] = static_cast<int32_t>(0.5626 * A[pc + c] +
                                            0.09375 * (B[pc + c] + A[pl + c] + A[pr + c]) +
                                            0.0156 * (B[pl + c] + B[pr + c]));
                if (odd_too)
                    o[c] = static_cast<int32_t>(0.375 * (A[pc + c] + A[pr + c]) +
                                                0.0625 * (B[pc + c] + B[pr + c]));
            }
        }
    };
    auto border = [&](int cx) {
        pair(cx, cx > 0 ? cx - 1 : (wrap ? cw - 1 : 0), cx + 1 < cw ? cx + 1 : (wrap ? 0 : cx));
    };
    const int pairs = (fw + 1) / 2;
    border(0);
    if (pairs > 1) {
        // Inside: both neighbours exist; one flat loop the compiler can
        // vectorise.
        const size_t lo = static_cast<size_t>(ch), hi = static_cast<size_t>(pairs - 1) * ch;
        if (yodd) {
            for (size_t s = lo; s < hi; ++s) {
                const size_t x2 = 2 * s - (s % ch);
                out[x2] = static_cast<int32_t>(0.375 * A[s] + 0.0625 * (A[s - ch] + A[s + ch]));
                out[x2 + ch] = (A[s] + A[s + ch]) >> 2;
            }
        } else {
            for (size_t s = lo; s < hi; ++s) {
                const size_t x2 = 2 * s - (s % ch);
                out[x2] =
                    static_cast<int32_t>(0.5626 * A[s] + 0.09375 * (B[s] + A[s - ch] + A[s + ch]) +
                                         0.0156 * (B[s - ch] + B[s + ch]));
                out[x2 + ch] =
                    static_cast<int32_t>(0.375 * (A[s] + A[s + ch]) + 0.0625 * (B[s] + B[s + ch]));
            }
        }
        border(pairs - 1);
    }
}

float fix_moire(int m, int k, int depth, float g) {
    const int h = depth / 2, q = depth / 4, e = 7 * depth / 8, u = 13 * depth / 16;
    const bool fine = k < h;
    const float mid = k <= q ? g : static_cast<float>(1.25 * g);
    switch (m) {
        case 1:
            return fine ? g : 0.0f;
        case 2:
            return fine ? g : 0.2f;
        case 3:
            return fine ? static_cast<float>(1.4 * g) : 0.0f;
        case 4:
            return fine ? static_cast<float>(1.4 * g) : 0.2f;
        case 5:
            return fine ? mid : (k < e ? 0.0f : static_cast<float>(1.5 * g));
        case 6:
        case 7: {
            const int lim = m == 6 ? e : u;
            if (fine) return mid;
            return k < lim ? (g < 0.15f ? g : 0.15f) : static_cast<float>(1.5 * g);
        }
        default:
            return g;
    }
}

float level_strength(float s, int k, int depth) {
    if (!(s > 5.0f)) return s;
    const int h = depth / 2;
    // With fewer than two levels the ramp has no length: no boost at all.
    if (h == 0) return 0.0f;
    const double c = s * 0.08 - 0.4;
    const double kh = static_cast<double>(k) / h;
    if (k > h) return static_cast<float>(s / ((kh - 1.0) * c + 1.0));
    return static_cast<float>(s * (c * (1.0 - kh) + 1.0));
}

void detail_table(float sk, int moire, int k, int depth, int32_t *table) {
    const bool boost = 0.2 * sk > 0.0;
    for (int a = 0; a < 65536; ++a) {
        const int d = a - 32767;
        if (!boost) {
            table[a] = d;
            continue;
        }
        const double t = std::abs(d) * 0.0003051851;
        float g = std::exp(static_cast<float>(-5.0 * (t * t)));
        if (moire > 0) g = fix_moire(moire, k, depth, g);
        table[a] = static_cast<int32_t>(0.2 * sk * d * g + d);
    }
}

}  // namespace bv::fusion
