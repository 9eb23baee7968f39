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
constexpr float kAlpha = 0.8f;

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

// Divergence of the attenuated gradient field of one level into out:
// fluxes (H(x+1) - H(x)) * mean of the two attenuations, zero across the
// border unless wrap. log_row(y, dst) delivers row y of the log plane.
// Each band keeps three log rows and one row of vertical fluxes in rowbuf
// (4 x width floats per band).
template <class LogRow>
void divergence(int w, int h, bool wrap, int threads, const float *Phi, float *rowbuf,
                const LogRow &log_row, float *out) {
    threading::run_bands(
        0, h, threads,
        [&](const threading::Band &b) {
            float *Hp = rowbuf + static_cast<size_t>(b.index) * 4 * w;
            float *Hc = Hp + w, *Hn = Hc + w, *fy = Hn + w;
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
                float *o = out + static_cast<size_t>(y) * w;
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
             int levels, Exposure *ex) noexcept {
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
                loglum::log_histo(static_cast<uint64_t>(m), kBins, lr, hb, lmin, lhi);
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
        const int k = loglum::percentile(count, kBins, hist.get(), fraction);
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
    ex->floor = std::max(look.noise * 0.1f * p1, ymin * 1e-3f);

    // 3. The log plane (in rhs level 0 for now) halved down the solver's
    // levels; the analysis copy is one of them.
    const float floor = ex->floor;
    rows(h, threads, [&](int y0, int y1) {
        for (size_t i = static_cast<size_t>(y0) * w; i < static_cast<size_t>(y1) * w; ++i)
            rhs[i] = std::log(lum[i] + floor);
    });
    int aw, ah;
    analysis_size(w, h, &aw, &ah);
    const std::vector<Level> chain = halving_chain(w, h, 1, 0);
    size_t s = 0;  // chain index of the analysis copy
    while (s + 1 < chain.size() && (chain[s].w > aw || chain[s].h > ah)) ++s;
    size_t natt = 1;  // attenuation levels: from s while both sides >= 32
    while (s + natt < chain.size() && chain[s + natt].w >= kCoarsestSide &&
           chain[s + natt].h >= kCoarsestSide)
        ++natt;
    const auto lv = solver::level_sizes(w, h, levels);
    size_t K = std::max(s + natt, lv.size());
    K = std::min(K, chain.size());
    size_t reduced = 0;  // floats of chain levels 1 .. K-1
    for (size_t k = 1; k < K; ++k) reduced += static_cast<size_t>(chain[k].w) * chain[k].h;
    auto off = [&](size_t k) { return chain[k].offset - n; };  // into the reduced planes
    // Attenuation levels: from the analysis copy (chain level s) down.
    const size_t att_total = chain[s + natt - 1].offset - chain[s].offset +
                             static_cast<size_t>(chain[s + natt - 1].w) * chain[s + natt - 1].h;
    Scratch<float> Hs(reduced + 1), Ps(reduced + 1), grad(att_total), full(n);
    if (!Hs || !Ps || !grad || !full) return -4;
    auto Hl = [&](size_t k) { return k == 0 ? rhs : Hs.get() + off(k); };
    auto Pl = [&](size_t k) { return k == 0 ? full.get() : Ps.get() + off(k); };
    for (size_t k = 1; k < K; ++k)
        halve(Hl(k - 1), chain[k - 1].w, chain[k - 1].h, Hl(k), chain[k].w, chain[k].h);

    // 4. Attenuation per analysis level, phi = ((|grad| + noise) / alpha)^(beta - 1),
    // multiplied coarse to fine through the map enlargement.
    double gsum = 0.0;
    for (size_t j = 0; j < natt; ++j) {
        const Level &c = chain[s + j];
        const double t = gradient_magnitude(Hl(s + j), c.w, c.h, static_cast<int>(j), look.wrap,
                                            grad.get() + (chain[s + j].offset - chain[s].offset));
        if (j == 0) gsum = t;
    }
    const size_t an = static_cast<size_t>(aw) * ah;
    float alpha = static_cast<float>(kAlpha * look.detail * gsum / static_cast<double>(an));
    if (!(alpha > 1e-4f)) alpha = 1e-4f;
    ex->alpha = alpha;
    for (size_t i = 0; i < att_total; ++i) grad[i] = std::max(grad[i], 2e-5f);
    solver::tm1b(static_cast<int>(att_total), 1, alpha, look.beta - 1.0f,
                 alpha * look.noise * 0.1f, threads, grad.get());
    auto G = [&](size_t k) { return grad.get() + (chain[k].offset - chain[s].offset); };
    {
        const size_t c = s + natt - 1;
        std::memcpy(Pl(c), G(c), static_cast<size_t>(chain[c].w) * chain[c].h * sizeof(float));
        for (size_t k = c; k-- > s;) {
            tmcore::tm1_init(chain[k].w, chain[k].h, chain[k + 1].w, chain[k + 1].h, look.wrap,
                             Pl(k + 1), Pl(k));
            // The finest analysed level only carries the coarser factors:
            // its own gradients are mostly pixel noise, which a factor
            // above 1 would amplify.
            if (k == s && natt > 1) continue;
            const float *g = G(k);
            float *f = Pl(k);
            for (size_t i = 0; i < static_cast<size_t>(chain[k].w) * chain[k].h; ++i) f[i] *= g[i];
        }
    }
    // 5. The map enlarged back to full size, one doubling per level, and
    // halved below the coarsest analysed level for the solver's last levels.
    for (size_t k = s; k-- > 0;)
        tmcore::tm1_init(chain[k].w, chain[k].h, chain[k + 1].w, chain[k + 1].h, look.wrap,
                         Pl(k + 1), Pl(k));
    for (size_t k = s + natt; k < K; ++k)
        halve(Pl(k - 1), chain[k - 1].w, chain[k - 1].h, Pl(k), chain[k].w, chain[k].h);

    // 6. Right-hand side of every solver level: the divergence of that
    // level's attenuated gradients, fluxes between neighbours, zero across
    // the border (or wrapping), matching the solver's Laplacian. Coarse
    // levels are built from their own log plane, so their solutions are
    // consistent starting points for the finer ones. Level 0 last: its log
    // plane is rhs itself, recomputed row by row from the luminance.
    const size_t nb = threading::split_rows(0, h, threads).size();
    Scratch<float> rowbuf(nb * 4 * static_cast<size_t>(w));
    if (!rowbuf) return -4;
    for (size_t k = lv.size(); k-- > 0;) {
        float *out = rhs + lv[k].offset;
        const int lw = lv[k].width, lh = lv[k].height;
        if (k + 1 < lv.size() && lv[k + 1].width == lw && lv[k + 1].height == lh) {
            std::memcpy(out, rhs + lv[k + 1].offset, static_cast<size_t>(lw) * lh * sizeof(float));
            continue;
        }
        size_t ck = 0;  // the chain level of this size
        while (ck + 1 < K && (chain[ck].w != lw || chain[ck].h != lh)) ++ck;
        const float *Hk = k == 0 ? nullptr : Hl(ck);
        divergence(lw, lh, look.wrap && lw > 1, k == 0 ? threads : 1, Pl(ck), rowbuf.get(),
                   [&](int y, float *dst) {
                       if (Hk) {
                           std::memcpy(dst, Hk + static_cast<size_t>(y) * lw, lw * sizeof(float));
                           return;
                       }
                       const float *r = lum + static_cast<size_t>(y) * w;
                       for (int x = 0; x < w; ++x) dst[x] = std::log(r[x] + floor);
                   },
                   out);
    }
    return h;
}

}  // namespace bv::enhancer
