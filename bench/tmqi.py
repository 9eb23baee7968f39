#!/usr/bin/python3
"""Tone-mapped image quality index (TMQI) of a picture against its HDR source.

Written from Yeganeh and Wang, "Objective Quality Assessment of Tone-Mapped
Images", IEEE Transactions on Image Processing 22(2), 2013:
    Q = a S^alpha + (1 - a) N^beta,  a = 0.8012, alpha = 0.3046, beta = 0.7088
S, the structural fidelity, compares local standard deviations (passed
through a visibility model, a Gaussian cumulative distribution centred on
the contrast threshold of the scale) and local correlations of the HDR and
the picture's luminance at five scales. N, the statistical naturalness, is
the product of a Gaussian density of the picture's mean luminance and a
beta density of its mean local contrast, both normalised to peak 1.

usage: tmqi.py HDR PICTURE [PICTURE ...]    (prints Q S N per picture)
       tmqi.py --selftest                   (worked cases)
"""
import math
import sys

import numpy as np

A, ALPHA, BETA = 0.8012, 0.3046, 0.7088
SCALE_WEIGHTS = [0.0448, 0.2856, 0.3001, 0.2363, 0.1333]
C1, C2 = 0.01, 10.0
MEAN_MU, MEAN_SIGMA = 115.94, 27.99        # naturalness: brightness
CONTRAST_A, CONTRAST_B, CONTRAST_UNIT = 4.4, 10.1, 64.29
BLOCK = 11                                 # naturalness: contrast blocks


def luminance(rgb):
    """Y of an RGB array (last axis R, G, B)."""
    return 0.2126 * rgb[..., 0] + 0.7152 * rgb[..., 1] + 0.0722 * rgb[..., 2]


def gaussian_window(size=11, sigma=1.5):
    r = np.arange(size) - (size - 1) / 2.0
    g = np.exp(-(r * r) / (2 * sigma * sigma))
    return g / g.sum()


def filter_valid(img, g):
    """Separable correlation with the 1-D kernel g in both directions, 'valid' part."""
    k = len(g)
    h, w = img.shape
    rows = sum(g[i] * img[:, i:w - k + 1 + i] for i in range(k))
    return sum(g[i] * rows[i:h - k + 1 + i, :] for i in range(k))


def normal_cdf(x, mu, sigma):
    z = (x - mu) / (sigma * math.sqrt(2.0))
    # erf by Abramowitz and Stegun 7.1.26 (error below 1.5e-7), odd extension
    s = np.sign(z)
    a = np.abs(z)
    t = 1.0 / (1.0 + 0.3275911 * a)
    y = 1.0 - (((((1.061405429 * t - 1.453152027) * t) + 1.421413741) * t - 0.284496736) * t
               + 0.254829592) * t * np.exp(-a * a)
    return 0.5 * (1.0 + s * y)


def local_structure(hdr, ldr, sf):
    """Mean of the local structural-fidelity map at spatial frequency sf."""
    g = gaussian_window()
    mu1, mu2 = filter_valid(hdr, g), filter_valid(ldr, g)
    s1 = np.sqrt(np.maximum(filter_valid(hdr * hdr, g) - mu1 * mu1, 0.0))
    s2 = np.sqrt(np.maximum(filter_valid(ldr * ldr, g) - mu2 * mu2, 0.0))
    s12 = filter_valid(hdr * ldr, g) - mu1 * mu2
    # Contrast sensitivity at sf sets the visibility threshold of the scale.
    csf = 100.0 * 2.6 * (0.0192 + 0.114 * sf) * math.exp(-(0.114 * sf) ** 1.1)
    u = 128.0 / (1.4 * csf)
    p1, p2 = normal_cdf(s1, u, u / 3.0), normal_cdf(s2, u, u / 3.0)
    smap = ((2 * p1 * p2 + C1) / (p1 * p1 + p2 * p2 + C1)) * ((s12 + C2) / (s1 * s2 + C2))
    return float(smap.mean())


def halve(img):
    """2 x 2 mean (edges repeated), then every other pixel."""
    p = np.pad(img, ((0, 1), (0, 1)), mode="symmetric")
    m = 0.25 * (p[:-1, :-1] + p[1:, :-1] + p[:-1, 1:] + p[1:, 1:])
    return m[::2, ::2]


def structural_fidelity(hdr_y, ldr_y):
    lo, hi = hdr_y.min(), hdr_y.max()
    # The HDR is spread over 32 bits: any variation it has counts as visible.
    h = np.round((2.0 ** 32 - 1) / (hi - lo if hi > lo else 1.0) * (hdr_y - lo))
    l = ldr_y.astype(np.float64)
    s, sf = 1.0, 32.0
    for level, weight in enumerate(SCALE_WEIGHTS):
        sf /= 2.0
        # An anti-correlated picture can make a scale's mean negative; it
        # counts as no structure at all (the product stays real).
        s *= max(local_structure(h, l, sf), 1e-12) ** weight
        if level + 1 < len(SCALE_WEIGHTS):
            h, l = halve(h), halve(l)
    return s


def beta_pdf(x, a, b):
    if x <= 0.0 or x >= 1.0:
        return 0.0
    return math.exp((a - 1) * math.log(x) + (b - 1) * math.log(1 - x)
                    + math.lgamma(a + b) - math.lgamma(a) - math.lgamma(b))


def naturalness(ldr_y):
    l = ldr_y.astype(np.float64)
    mean = float(l.mean())
    h, w = l.shape
    stds = []
    for y in range(0, h, BLOCK):
        for x in range(0, w, BLOCK):
            b = l[y:y + BLOCK, x:x + BLOCK]
            stds.append((float(b.std(ddof=1)) if b.size > 1 else 0.0, b.size))
    contrast = sum(s * n for s, n in stds) / float(h * w)
    mode = (CONTRAST_A - 1) / (CONTRAST_A + CONTRAST_B - 2)
    pc = beta_pdf(contrast / CONTRAST_UNIT, CONTRAST_A, CONTRAST_B) / beta_pdf(mode, CONTRAST_A, CONTRAST_B)
    pb = math.exp(-((mean - MEAN_MU) ** 2) / (2 * MEAN_SIGMA ** 2))
    return pb * pc


def tmqi(hdr_rgb, ldr_rgb):
    s = structural_fidelity(luminance(hdr_rgb.astype(np.float64)), luminance(ldr_rgb.astype(np.float64)))
    n = naturalness(luminance(ldr_rgb.astype(np.float64)))
    return A * s ** ALPHA + (1 - A) * n ** BETA, s, n


def read_rgb(path):
    import cv2
    img = cv2.imread(path, cv2.IMREAD_UNCHANGED | cv2.IMREAD_ANYDEPTH)
    if img is None:
        raise SystemExit("cannot read " + path)
    img = img[..., ::-1].astype(np.float64)  # BGR -> RGB
    if path.lower().endswith((".png", ".tif", ".tiff", ".jpg")) and img.max() > 255.5:
        img = img / 257.0  # 16-bit pictures on the 8-bit scale
    return img


def selftest():
    rng = np.random.default_rng(1)
    ok = True

    def check(name, got, want, tol):
        nonlocal ok
        good = abs(got - want) <= tol
        ok &= good
        print("%-52s %.6f (want %.6f) %s" % (name, got, want, "ok" if good else "FAIL"))

    # Naturalness peaks at 1 for the preferred mean and mean local contrast.
    mode = (CONTRAST_A - 1) / (CONTRAST_A + CONTRAST_B - 2)
    check("beta density at its mode / itself", beta_pdf(mode, 4.4, 10.1) / beta_pdf(mode, 4.4, 10.1), 1, 0)
    check("normal cdf at the mean", float(normal_cdf(np.array(3.0), 3.0, 1.0)), 0.5, 1e-7)
    check("normal cdf one sigma above", float(normal_cdf(np.array(1.0), 0.0, 1.0)), 0.841344746, 2e-7)
    # A flat mid-grey picture has no contrast: naturalness 0.
    check("naturalness of a flat grey picture", naturalness(np.full((64, 64), 115.94)), 0.0, 1e-9)
    # Mean 115.94, std of every 11 x 11 block near 64.29 * mode: brightness
    # factor 1, contrast factor near 1.
    c = CONTRAST_UNIT * mode
    blocks = np.where((np.indices((110, 110)).sum(axis=0) % 2) == 0, 115.94 + c, 115.94 - c)
    n = naturalness(blocks)
    check("naturalness at the preferred mean and contrast", n, 1.0, 0.01)
    # Brightness factor alone: one sigma away gives exp(-1/2).
    blocks2 = blocks + MEAN_SIGMA
    check("naturalness one brightness sigma away / at peak", naturalness(blocks2) / n, math.exp(-0.5), 1e-6)
    # A picture that equals its (already 8-bit range) source keeps all
    # structure: S = 1 when the HDR is not stretched.
    y = rng.uniform(0, 255, (256, 256))
    y = filter_valid(np.pad(y, 5, mode="edge"), gaussian_window(11, 3.0)) * 1.0
    s = 1.0
    h, l, sf = y.copy(), y.copy(), 32.0
    for level, w in enumerate(SCALE_WEIGHTS):
        sf /= 2.0
        s *= local_structure(h, l, sf) ** w
        if level + 1 < len(SCALE_WEIGHTS):
            h, l = halve(h), halve(l)
    check("structure of an image against itself", s, 1.0, 1e-9)
    # An inverted picture correlates negatively: much lower fidelity.
    s_inv = structural_fidelity(y, 255 - y)
    s_same = structural_fidelity(y, y)
    print("%-52s %.4f < %.4f %s" % ("inverted picture scores below the faithful one", s_inv, s_same,
                                     "ok" if s_inv < s_same else "FAIL"))
    ok &= s_inv < s_same
    # A flat picture of a textured HDR has no visible structure.
    s_flat = structural_fidelity(y, np.full_like(y, 128.0))
    print("%-52s %.4f < 0.5 %s" % ("flat picture of a textured scene", s_flat, "ok" if s_flat < 0.5 else "FAIL"))
    ok &= s_flat < 0.5
    return ok


def main(argv):
    if len(argv) == 2 and argv[1] == "--selftest":
        return 0 if selftest() else 1
    if len(argv) < 3:
        print(__doc__)
        return 2
    hdr = read_rgb(argv[1])
    for p in argv[2:]:
        ldr = read_rgb(p)
        if ldr.shape[:2] != hdr.shape[:2]:
            print("%s: size %s differs from the HDR's %s" % (p, ldr.shape[:2], hdr.shape[:2]))
            continue
        q, s, n = tmqi(hdr, ldr)
        print("%.4f %.4f %.4f %s" % (q, s, n, p))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
