#!/usr/bin/python3
"""MEF-SSIM: how well a fused picture keeps the structure and contrast of its
source exposures (Ma, Zeng and Wang, "Perceptual Quality Assessment for
Multi-Exposure Image Fusion", IEEE Trans. Image Processing 24(11), 2015).

Per patch, every source patch x_k is split into its contrast c_k (norm of the
mean-removed patch) and its structure. The wanted patch has the largest
contrast of the stack and the structure of the sources averaged with weights
c_k^p (p = 4), normalised to unit norm. It is compared with the fused patch by
the structure-and-contrast part of SSIM, (2 s_xy + C) / (s_x^2 + s_y^2 + C);
the mean over all patches gives one scale, and three dyadic scales are
combined as a weighted product (weights 0.0448, 0.2856, 0.3001 renormalised).
Patches are 11 x 11 with Gaussian weights (sigma 1.5), on the luminance of
images on the 0..255 scale, C = (0.03 * 255)^2.

The map is computed from local covariances (every pair of sources), which is
exact algebra on the per-patch definition; --self-check compares it with a
direct construction of the wanted patch at random positions.

    /usr/bin/python3 bench/mef_ssim.py FUSED SOURCE SOURCE...
    /usr/bin/python3 bench/mef_ssim.py --self-check
"""
import argparse
import sys

import numpy as np

WINDOW, SIGMA = 11, 1.5
P_EXPONENT = 4.0
C2 = (0.03 * 255.0) ** 2
_MS = np.array([0.0448, 0.2856, 0.3001])
SCALE_WEIGHTS = _MS / _MS.sum()


def gaussian_1d():
    t = np.arange(WINDOW) - (WINDOW - 1) / 2.0
    g = np.exp(-t * t / (2 * SIGMA * SIGMA))
    return g / g.sum()


def filt(img):
    """Gaussian-weighted mean over every full window ('valid' positions)."""
    g = gaussian_1d()
    h, w = img.shape
    rows = sum(g[t] * img[t:h - WINDOW + 1 + t, :] for t in range(WINDOW))
    return sum(g[t] * rows[:, t:w - WINDOW + 1 + t] for t in range(WINDOW))


def luminance(img):
    """0..255 luminance of an 8- or 16-bit (or float 0..1) RGB/grey array."""
    a = np.asarray(img)
    if a.dtype == np.uint8:
        a = a.astype(np.float64)
    elif a.dtype == np.uint16:
        a = a.astype(np.float64) / 257.0
    else:
        a = a.astype(np.float64) * 255.0
    if a.ndim == 3:
        # OpenCV order (B, G, R) is what cv2.imread gives; callers pass that.
        a = 0.114 * a[..., 0] + 0.587 * a[..., 1] + 0.299 * a[..., 2]
    return a


def quality_map(sources, fused):
    """Per-patch scores at one scale; sources is a list of 2-D float arrays."""
    k = len(sources)
    mu = [filt(x) for x in sources]
    mu_y = filt(fused)
    var_y = np.maximum(filt(fused * fused) - mu_y * mu_y, 0.0)
    var = [np.maximum(filt(x * x) - m * m, 0.0) for x, m in zip(sources, mu)]
    contrast = [np.sqrt(v) for v in var]
    c_hat = np.maximum.reduce(contrast)
    weight = [c ** P_EXPONENT for c in contrast]
    total = sum(weight)
    safe_total = np.where(total > 0, total, 1.0)
    # s_bar = sum_k w_k x~_k / W; its squared norm and its product with y~.
    cross = np.zeros_like(mu_y)
    norm2 = np.zeros_like(mu_y)
    for i in range(k):
        cov_iy = filt(sources[i] * fused) - mu[i] * mu_y
        cross += weight[i] * cov_iy
        norm2 += weight[i] * weight[i] * var[i]
        for j in range(i + 1, k):
            cov_ij = filt(sources[i] * sources[j]) - mu[i] * mu[j]
            norm2 += 2.0 * weight[i] * weight[j] * cov_ij
    cross /= safe_total
    norm2 = np.maximum(norm2, 0.0) / (safe_total * safe_total)
    norm = np.sqrt(norm2)
    # x_hat = c_hat * s_bar / |s_bar|: variance c_hat^2, covariance with y below.
    cov_hat_y = np.where(norm > 0, c_hat * cross / np.where(norm > 0, norm, 1.0), 0.0)
    var_hat = np.where(norm > 0, c_hat * c_hat, 0.0)
    return (2.0 * cov_hat_y + C2) / (var_hat + var_y + C2)


def downsample(img):
    h, w = img.shape[0] // 2 * 2, img.shape[1] // 2 * 2
    a = img[:h, :w]
    return 0.25 * (a[0::2, 0::2] + a[1::2, 0::2] + a[0::2, 1::2] + a[1::2, 1::2])


def mef_ssim(sources, fused):
    """Score (0..1, higher is better) and the per-scale means."""
    xs = [luminance(s) for s in sources]
    y = luminance(fused)
    per_scale = []
    for level in range(len(SCALE_WEIGHTS)):
        per_scale.append(float(quality_map(xs, y).mean()))
        if level + 1 < len(SCALE_WEIGHTS):
            xs = [downsample(x) for x in xs]
            y = downsample(y)
    q = float(np.prod([max(s, 1e-12) ** b for s, b in zip(per_scale, SCALE_WEIGHTS)]))
    return q, per_scale


def direct_patch_score(sources, fused, r, c):
    """The score of the patch at (r, c) built literally from its definition."""
    g = np.outer(gaussian_1d(), gaussian_1d())
    pats = [x[r:r + WINDOW, c:c + WINDOW] for x in sources]
    py = fused[r:r + WINDOW, c:c + WINDOW]
    wnorm = lambda v: np.sqrt(np.sum(g * v * v))
    tilde = [p - np.sum(g * p) for p in pats]
    contrast = [wnorm(t) for t in tilde]
    c_hat = max(contrast)
    w = [cc ** P_EXPONENT for cc in contrast]
    if sum(w) > 0:
        s_bar = sum(wi * t for wi, t in zip(w, tilde)) / sum(w)
    else:
        s_bar = np.zeros_like(py)
    n = wnorm(s_bar)
    x_hat = c_hat * s_bar / n if n > 0 else np.zeros_like(py)
    mx, my = np.sum(g * x_hat), np.sum(g * py)
    vx = np.sum(g * (x_hat - mx) ** 2)
    vy = np.sum(g * (py - my) ** 2)
    cxy = np.sum(g * (x_hat - mx) * (py - my))
    return (2 * cxy + C2) / (vx + vy + C2)


def self_check():
    rng = np.random.default_rng(7)
    h, w, k = 40, 52, 4
    base = rng.uniform(0, 1, (h, w))
    base[:, : w // 3] = 0.5  # a flat region: zero-contrast patches
    sources = [np.clip(255 * base * 2.0 ** (e - 1.5) + rng.normal(0, 2, (h, w)), 0, 255)
               for e in range(k)]
    sources[0][:, : w // 3] = 0.0  # fully flat in one source
    fused = np.clip(255 * base + rng.normal(0, 5, (h, w)), 0, 255)
    qmap = quality_map(sources, fused)
    worst = 0.0
    for r, c in [(0, 0), (5, 3), (20, 30), (h - WINDOW, w - WINDOW), (13, 8), (2, 40)]:
        worst = max(worst, abs(qmap[r, c] - direct_patch_score(sources, fused, r, c)))
    # The best possible fusion scores 1 where the stack has a single source.
    one = quality_map([fused], fused)
    ok = worst < 1e-9 and np.allclose(one, 1.0)
    print("self-check: largest difference to the direct per-patch score %.3g, "
          "identical single source %s -> %s" % (worst, np.allclose(one, 1.0),
                                                  "ok" if ok else "FAILED"))
    return 0 if ok else 1


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--self-check", action="store_true")
    ap.add_argument("fused", nargs="?")
    ap.add_argument("sources", nargs="*")
    args = ap.parse_args()
    if args.self_check:
        return self_check()
    if not args.fused or not args.sources:
        ap.error("give the fused picture and its source exposures")
    import cv2
    read = lambda p: cv2.imread(p, cv2.IMREAD_UNCHANGED)
    fused = read(args.fused)
    sources = [read(p) for p in args.sources]
    if fused is None or any(s is None for s in sources):
        sys.exit("mef_ssim: cannot read an input picture")
    q, per = mef_ssim(sources, fused)
    print("MEF-SSIM %.4f  (scales %s)" % (q, ", ".join("%.4f" % s for s in per)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
