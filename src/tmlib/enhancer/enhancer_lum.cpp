// The enhancer's luminance stage: luminance plane, exposure statistics, attenuated-gradient divergence.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "Threading/bands.hpp"
#include "Utils/loglum/loglum.hpp"
#include "common/boundary.hpp"
#include "tmlib-core/solver/solver.hpp"
#include "tmlib-core/tmlib_core.hpp"
#include "tmlib/enhancer/enhancer.hpp"

namespace bv::enhancer {

namespace {

// Coarsest side of the attenuation pyramid: below it a level holds too
// few pixels for its gradients to mean anything.
constexpr int kCoarsestSide = 32;
// Fraction of the mean gradient that is left unchanged at detail 1.
constexpr float kAlpha = 0.1f;

// Runs body over row bands; with a single band it runs inline.
template <class F>
void rows(int height, int threads, F &&body) {
    threading::run_bands(
        0, height, threads, [&](const threading::Band &b) { body(b.first, b.end); },
        threading::OnSpawnFailure::RunInline);
}

// 2 x 2 averaging of a plane (odd sizes average what is there).
void halve(const float *in, int w, int h, float *out, int ow, int oh) {
    for (int y = 0; y < oh; ++y) {
        const float *r0 = in + static_cast<size_t>(2 * y) * w;
        const float *r1 = (2 * y + 1 < h) ? r0 + w : r0;
        float *o = out + static_cast<size_t>(y) * ow;
        for (int x = 0; x < ow; ++x) {
            const int x0 = 2 * x, x1 = (2 * x + 1 < w) ? 2 * x + 1 : 2 * x;
            o[x] = 0.25f * ((r0[x0] + r0[x1]) + (r1[x0] + r1[x1]));
        }
    }
}

// Gradient magnitude of level k (central differences, in units of the
// analysis level's pixels) into g; returns the sum in row order.
double gradient_magnitude(const float *H, int w, int h, int k, int wrap, float *g) {
    const float unit = 1.0f / static_cast<float>(1 << (k + 1));
    double total = 0.0;
    for (int y = 0; y < h; ++y) {
        const float *r = H + static_cast<size_t>(y) * w;
        const float *up = H + static_cast<size_t>(y > 0 ? y - 1 : 0) * w;
        const float *dn = H + static_cast<size_t>(y + 1 < h ? y + 1 : h - 1) * w;
        double row = 0.0;
        for (int x = 0; x < w; ++x) {
            int xl = x - 1, xr = x + 1;
            if (xl < 0) xl = wrap ? w - 1 : 0;
            if (xr >= w) xr = wrap ? 0 : w - 1;
            const float gx = (r[xr] - r[xl]) * unit, gy = (dn[x] - up[x]) * unit;
            const float m = std::sqrt(gx * gx + gy * gy);
            g[static_cast<size_t>(y) * w + x] = m;
            row += m;
        }
        total += row;
    }
    return total;
}

}  // namespace

std::vector<Level> halving_chain(int w, int h, int min_side, int max_levels) {
    std::vector<Level> v;
    size_t off = 0;
    v.push_back({w, h, 0});
    off += static_cast<size_t>(w) * h;
    while (max_levels <= 0 || static_cast<int>(v.size()) < max_levels) {
        const int nw = (w + 1) / 2, nh = (h + 1) / 2;
        if (nw < min_side || nh < min_side || (nw == w && nh == h)) break;
        w = nw;
        h = nh;
        v.push_back({w, h, off});
        off += static_cast<size_t>(w) * h;
    }
    return v;
}

void analysis_size(int w, int h, int *aw, int *ah) noexcept {
    *aw = w;
    *ah = h;
    const double measure = h >= w ? 0.75 * h : static_cast<double>(w);
    if (measure <= 1024.0) return;
    const int L = static_cast<int>(std::log2((static_cast<double>(w) + h) / 2.0));
    for (int i = 0; i < L && w > 3 && h > 3; ++i) {
        if (h < w ? w <= 1024 : 3 * h <= 4099) break;
        w = (w + 1) / 2;
        h = (h + 1) / 2;
    }
    *aw = w;
    *ah = h;
}

int calc_tm1(const Image &img, const Look &look, int threads, float *lum, float *rhs,
             Exposure *ex) noexcept {
    const int w = img.width, h = img.height;
    const size_t n = static_cast<size_t>(w) * h;

    // 1. Luminance and its positive range.
    const auto bands = threading::split_rows(0, h, threads);
    std::vector<float> band_lo(bands.size(), 1e30f), band_hi(bands.size(), -1e30f);
    threading::run_bands(
        0, h, threads,
        [&](const threading::Band &b) {
            float lo = 1e30f, hi = -1e30f;
            for (int y = b.first; y < b.end; ++y) {
                float *o = lum + static_cast<size_t>(y) * w;
                for (int x = 0; x < w; ++x) {
                    float c[3];
                    img.rgb(x, y, c);
                    float Y = 0.2126f * c[0] + 0.7152f * c[1] + 0.0722f * c[2];
                    if (!(Y > 0.0f) || !std::isfinite(Y)) Y = 0.0f;
                    o[x] = Y;
                    if (Y > 0.0f) {
                        lo = std::min(lo, Y);
                        hi = std::max(hi, Y);
                    }
                }
            }
            band_lo[b.index] = lo;
            band_hi[b.index] = hi;
        },
        threading::OnSpawnFailure::RunInline);
    float ymin = 1e30f, ymax = -1e30f;
    for (size_t i = 0; i < bands.size(); ++i) {
        ymin = std::min(ymin, band_lo[i]);
        ymax = std::max(ymax, band_hi[i]);
    }
    if (!(ymin <= ymax)) ymin = ymax = 1.0f;  // an all-black image
    const float lmin = std::log(ymin), lmax = std::log(ymax);
    const float lhi = lmax > lmin ? lmax : lmin + 1.0f;

    // 2. Histogram of ln Y (integer counts per band, summed: exact for any
    // thread count) and the mean log in row order.
    Scratch<int32_t> hist(static_cast<size_t>(kBins) * bands.size());
    Scratch<double> row_sum(static_cast<size_t>(h));
    Scratch<float> logs(static_cast<size_t>(w) * bands.size());
    if (!hist || !row_sum || !logs) return -4;
    threading::run_bands(
        0, h, threads,
        [&](const threading::Band &b) {
            int32_t *hb = hist.get() + static_cast<size_t>(b.index) * kBins;
            float *lr = logs.get() + static_cast<size_t>(b.index) * w;
            for (int y = b.first; y < b.end; ++y) {
                const float *r = lum + static_cast<size_t>(y) * w;
                int m = 0;
                double s = 0.0;
                for (int x = 0; x < w; ++x)
                    if (r[x] > 0.0f) {
                        lr[m] = std::log(r[x]);
                        s += lr[m++];
                    }
                utils::log_histo(static_cast<uint64_t>(m), kBins, lr, hb, lmin, lhi);
                row_sum[y] = s;
            }
        },
        threading::OnSpawnFailure::RunInline);
    for (size_t b = 1; b < bands.size(); ++b)
        for (uint32_t i = 0; i < kBins; ++i) hist[i] += hist[b * kBins + i];
    uint64_t count = 0;
    double total = 0.0;
    for (uint32_t i = 0; i < kBins; ++i) count += static_cast<uint64_t>(hist[i]);
    for (int y = 0; y < h; ++y) total += row_sum[y];
    auto at = [&](float fraction) {
        const int k = utils::percentile(count, kBins, hist.get(), fraction);
        return lmin + (lhi - lmin) * static_cast<float>(k) / static_cast<float>(kBins - 1);
    };
    LogLumStats &st = ex->stats;
    st.v[0] = lmin;
    st.v[1] = lmax;
    st.v[2] = count ? static_cast<float>(total / static_cast<double>(count)) : lmin;
    st.v[3] = at(0.5f);
    st.v[4] = at(0.995f);
    st.v[5] = at(0.33333f);
    // The key: the median, moved up for images whose bulk sits in the
    // darkest quarter of their range (a night scene is not made daylight).
    tmcore::GlobalCntAdjust = 0;
    ex->key_fraction = tmcore::adjust_percentile(count, static_cast<int>(kBins), hist.get(), 0.5f);
    // Shadow floor: luminance added before the log, so sensor noise in the
    // deepest shadows yields small log gradients that are not amplified.
    const float p1 = std::exp(at(0.01f));
    ex->floor = std::max(look.noise * 0.25f * p1, ymin * 1e-3f);

    // 3. Log plane (in rhs for now) and its copy at the analysis size.
    const float floor = ex->floor;
    rows(h, threads, [&](int y0, int y1) {
        for (size_t i = static_cast<size_t>(y0) * w; i < static_cast<size_t>(y1) * w; ++i)
            rhs[i] = std::log(lum[i] + floor);
    });
    int aw, ah;
    analysis_size(w, h, &aw, &ah);
    std::vector<Level> up;  // full size down to the analysis size
    for (const Level &l : halving_chain(w, h, 1, 0)) {
        up.push_back(l);
        if (l.w <= aw && l.h <= ah) break;
    }
    const std::vector<Level> att = halving_chain(aw, ah, kCoarsestSide, 0);
    size_t up_total = 0, att_total = 0;
    for (size_t i = 1; i < up.size(); ++i) up_total += static_cast<size_t>(up[i].w) * up[i].h;
    for (const Level &l : att) att_total += static_cast<size_t>(l.w) * l.h;
    // pyr: reduced log planes; phi: attenuation per level; two ping-pong
    // planes for the enlargement back to full size.
    Scratch<float> pyr(up_total + att_total), phi(att_total), grad(att_total);
    Scratch<float> full(n), ping(up_total + 1), pong(up_total + 1);
    if (!pyr || !phi || !grad || !full || !ping || !pong) return -4;
    {
        const float *src = rhs;
        size_t off = 0;
        for (size_t i = 1; i < up.size(); ++i) {
            halve(src, up[i - 1].w, up[i - 1].h, pyr.get() + off, up[i].w, up[i].h);
            src = pyr.get() + off;
            off += static_cast<size_t>(up[i].w) * up[i].h;
        }
        // Attenuation levels live after the full-size chain; level 0 is a copy.
        float *a0 = pyr.get() + up_total;
        std::memcpy(a0, src, static_cast<size_t>(aw) * ah * sizeof(float));
        for (size_t k = 1; k < att.size(); ++k)
            halve(a0 + att[k - 1].offset, att[k - 1].w, att[k - 1].h, a0 + att[k].offset,
                  att[k].w, att[k].h);
    }

    // 4. Attenuation per level, phi_k = ((|grad| + noise) / alpha)^(beta - 1),
    // multiplied coarse to fine through the map enlargement.
    const float *a0 = pyr.get() + up_total;
    const size_t an = static_cast<size_t>(aw) * ah;
    double gsum = 0.0;
    for (size_t k = 0; k < att.size(); ++k) {
        const double s = gradient_magnitude(a0 + att[k].offset, att[k].w, att[k].h,
                                            static_cast<int>(k), look.wrap, grad.get() + att[k].offset);
        if (k == 0) gsum = s;
    }
    float alpha = static_cast<float>(kAlpha * look.detail * gsum / static_cast<double>(an));
    if (!(alpha > 1e-4f)) alpha = 1e-4f;
    ex->alpha = alpha;
    for (size_t i = 0; i < att_total; ++i) grad[i] = std::max(grad[i], 2e-5f);
    const float offset = alpha * look.noise * 0.05f;
    solver::tm1b(static_cast<int>(att_total), 1, alpha, look.beta - 1.0f, offset, threads,
                 grad.get());
    {
        const Level &c = att.back();
        std::memcpy(phi.get() + c.offset, grad.get() + c.offset,
                    static_cast<size_t>(c.w) * c.h * sizeof(float));
        for (size_t k = att.size() - 1; k-- > 0;) {
            float *fine = phi.get() + att[k].offset;
            tmcore::tm1_init(att[k].w, att[k].h, att[k + 1].w, att[k + 1].h, look.wrap,
                             phi.get() + att[k + 1].offset, fine);
            const float *g = grad.get() + att[k].offset;
            for (size_t i = 0; i < static_cast<size_t>(att[k].w) * att[k].h; ++i) fine[i] *= g[i];
        }
    }
    // 5. Enlarge the map back to full size, one doubling per recorded level.
    const float *src = phi.get();
    for (size_t i = up.size() - 1; i > 0; --i) {
        float *dst = (i == 1) ? full.get() : ((i & 1) ? ping.get() : pong.get());
        tmcore::tm1_init(up[i - 1].w, up[i - 1].h, up[i].w, up[i].h, look.wrap, src, dst);
        src = dst;
    }
    if (up.size() == 1) std::memcpy(full.get(), phi.get(), n * sizeof(float));
    const float *Phi = full.get();

    // 6. Divergence of the attenuated gradients: fluxes between neighbours,
    // zero across the border (or wrapping), matching the solver's Laplacian.
    // Each band keeps three log rows and one row of vertical fluxes.
    const size_t nb = threading::split_rows(0, h, threads).size();
    Scratch<float> rowbuf(nb * 4 * static_cast<size_t>(w));
    if (!rowbuf) return -4;
    const bool wrap = look.wrap && w > 1;
    threading::run_bands(
        0, h, threads,
        [&](const threading::Band &b) {
            float *Hp = rowbuf.get() + static_cast<size_t>(b.index) * 4 * w;
            float *Hc = Hp + w, *Hn = Hc + w, *fy = Hn + w;
            auto log_row = [&](int y, float *dst) {
                const float *r = lum + static_cast<size_t>(y) * w;
                for (int x = 0; x < w; ++x) dst[x] = std::log(r[x] + floor);
            };
            auto P = [&](int y) { return Phi + static_cast<size_t>(y) * w; };
            log_row(b.first, Hc);
            if (b.first > 0) {
                log_row(b.first - 1, Hp);
                const float *p0 = P(b.first - 1), *p1 = P(b.first);
                for (int x = 0; x < w; ++x) fy[x] = (Hc[x] - Hp[x]) * 0.5f * (p0[x] + p1[x]);
            } else {
                std::fill(fy, fy + w, 0.0f);
            }
            for (int y = b.first; y < b.end; ++y) {
                const bool below = y + 1 < h;
                if (below) log_row(y + 1, Hn);
                const float *pc = P(y), *pn = below ? P(y + 1) : nullptr;
                float *o = rhs + static_cast<size_t>(y) * w;
                float left = 0.0f;
                if (wrap) left = (Hc[0] - Hc[w - 1]) * 0.5f * (pc[w - 1] + pc[0]);
                for (int x = 0; x < w; ++x) {
                    float right = 0.0f;
                    if (x + 1 < w)
                        right = (Hc[x + 1] - Hc[x]) * 0.5f * (pc[x] + pc[x + 1]);
                    else if (wrap)
                        right = (Hc[0] - Hc[x]) * 0.5f * (pc[x] + pc[0]);
                    const float down = below ? (Hn[x] - Hc[x]) * 0.5f * (pc[x] + pn[x]) : 0.0f;
                    o[x] = (right - left) + (down - fy[x]);
                    fy[x] = down;
                    left = right;
                }
                std::swap(Hp, Hc);
                std::swap(Hc, Hn);
            }
        },
        threading::OnSpawnFailure::RunInline);
    return h;
}

}  // namespace bv::enhancer
