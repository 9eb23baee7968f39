#!/usr/bin/python3
"""The tone enhancer beside pfstools' local and global operators.

1. Quality: TMQI (bench/tmqi.py) of `brackvista enhance` with its defaults and
   of pfstmo_fattal02, pfstmo_mantiuk06 and pfstmo_drago03 (defaults, then
   `pfsgamma -g 2.2`) on the atrium photograph and on an HDR merged from the
   memorial brackets (`brackvista merge`).
2. Preview against full size: mean CIE delta E 2000 between the full-size
   rendering and the preview (--preview) enlarged to full size, on both images
   at their own size and scaled up 2x and 4x (the preview only reduces images
   wider than 1024 pixels, or taller than about 1366).
3. Speed and memory: the atrium scaled up to 6000 x 4000 (24 MP), rendered at
   full size in memory, with --temp-dir and as a preview, each with 2
   threads, beside pfstmo_fattal02 on the same file, in the same run (wall time
   of the whole command and peak resident memory, /usr/bin/time).

    /usr/bin/python3 bench/peers_enhancer.py [--tool build/tools/brackvista/brackvista]
                                             [--skip-speed] [--write]
"""
import argparse
import datetime
import os
import platform
import re
import subprocess
import sys
import tempfile

import cv2
import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import tmqi  # noqa: E402

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DATA = os.path.join(os.path.dirname(ROOT), "shared", "data")
PEERS = ["pfstmo_fattal02", "pfstmo_mantiuk06", "pfstmo_drago03"]


def run(cmd, shell=False):
    return subprocess.run(cmd, shell=shell, check=True, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True)


def timed(cmd):
    """Wall seconds and peak resident MiB of a shell command (its largest process)."""
    r = run(["/usr/bin/time", "-f", "TIME %e %M", "sh", "-c", cmd])
    m = re.findall(r"TIME ([0-9.]+) ([0-9]+)", r.stderr)
    wall, kb = m[-1]
    return float(wall), int(kb) / 1024.0


def peer(hdr, op, out):
    run("pfsin '%s' | %s 2>/dev/null | pfsgamma -g 2.2 | pfsout '%s'" % (hdr, op, out), shell=True)


def srgb_to_lab(img8):
    return cv2.cvtColor(img8.astype(np.float32) / 255.0, cv2.COLOR_BGR2Lab).astype(np.float64)


def delta_e_2000(lab1, lab2):
    """Mean CIEDE2000 difference (Sharma, Wu and Dalal 2005) of two Lab images."""
    L1, a1, b1 = lab1[..., 0], lab1[..., 1], lab1[..., 2]
    L2, a2, b2 = lab2[..., 0], lab2[..., 1], lab2[..., 2]
    C1, C2 = np.hypot(a1, b1), np.hypot(a2, b2)
    Cm = (C1 + C2) / 2
    G = 0.5 * (1 - np.sqrt(Cm ** 7 / (Cm ** 7 + 25.0 ** 7)))
    a1p, a2p = (1 + G) * a1, (1 + G) * a2
    C1p, C2p = np.hypot(a1p, b1), np.hypot(a2p, b2)
    h1p = np.degrees(np.arctan2(b1, a1p)) % 360
    h2p = np.degrees(np.arctan2(b2, a2p)) % 360
    dLp, dCp = L2 - L1, C2p - C1p
    dh = h2p - h1p
    dh = np.where(dh > 180, dh - 360, np.where(dh < -180, dh + 360, dh))
    dh = np.where(C1p * C2p == 0, 0, dh)
    dHp = 2 * np.sqrt(C1p * C2p) * np.sin(np.radians(dh / 2))
    Lpm, Cpm = (L1 + L2) / 2, (C1p + C2p) / 2
    hs = h1p + h2p
    hpm = np.where(np.abs(h1p - h2p) > 180, np.where(hs < 360, hs + 360, hs - 360), hs) / 2
    hpm = np.where(C1p * C2p == 0, hs, hpm)
    T = (1 - 0.17 * np.cos(np.radians(hpm - 30)) + 0.24 * np.cos(np.radians(2 * hpm))
         + 0.32 * np.cos(np.radians(3 * hpm + 6)) - 0.20 * np.cos(np.radians(4 * hpm - 63)))
    dtheta = 30 * np.exp(-(((hpm - 275) / 25) ** 2))
    Rc = 2 * np.sqrt(Cpm ** 7 / (Cpm ** 7 + 25.0 ** 7))
    Sl = 1 + 0.015 * (Lpm - 50) ** 2 / np.sqrt(20 + (Lpm - 50) ** 2)
    Sc, Sh = 1 + 0.045 * Cpm, 1 + 0.015 * Cpm * T
    Rt = -np.sin(np.radians(2 * dtheta)) * Rc
    d = np.sqrt((dLp / Sl) ** 2 + (dCp / Sc) ** 2 + (dHp / Sh) ** 2 + Rt * (dCp / Sc) * (dHp / Sh))
    return float(d.mean())


def check_delta_e():
    # Worked pairs from Sharma, Wu and Dalal's test data (pairs 1, 7 and 17).
    pairs = [((50, 2.6772, -79.7751), (50, 0, -82.7485), 2.0425),
             ((50, 0, 0), (50, -1, 2), 2.3669),
             ((50, 2.5, 0), (73, 25, -18), 27.1492)]
    for p, q, want in pairs:
        got = delta_e_2000(np.array([[p]], float), np.array([[q]], float))
        assert abs(got - want) < 1e-4, (p, q, got, want)


def scaled_hdr(src, factor, dst):
    img = cv2.imread(src, cv2.IMREAD_UNCHANGED)
    h, w = img.shape[:2]
    cv2.imwrite(dst, cv2.resize(img, (w * factor, h * factor), interpolation=cv2.INTER_LINEAR))


def machine():
    try:
        with open("/proc/cpuinfo") as f:
            model = re.search(r"model name\s*:\s*(.*)", f.read()).group(1).strip()
    except (OSError, AttributeError):
        model = platform.processor() or platform.machine()
    return "%s, %d cores x86-64 VM, load %.1f" % (model, os.cpu_count(), os.getloadavg()[0])


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--tool", default=os.path.join(ROOT, "build", "tools", "brackvista", "brackvista"))
    ap.add_argument("--skip-speed", action="store_true")
    ap.add_argument("--skip-quality", action="store_true")
    ap.add_argument("--write", action="store_true", help="append to bench/results-enhancer.md")
    a = ap.parse_args()
    check_delta_e()
    tmp = tempfile.mkdtemp(prefix="bv-enh-")
    tool = a.tool
    lines = []
    out = lambda s="": (print(s), lines.append(s))  # noqa: E731

    atrium = os.path.join(DATA, "hdr", "mpi_atrium_3.hdr")
    memorial = os.path.join(tmp, "memorial.hdr")
    run([tool, "merge", "-q", "-o", memorial, "--exposures", os.path.join(DATA, "memorial", "exposures.txt")])
    images = [("atrium", atrium), ("memorial (merged)", memorial)]

    if a.skip_quality:
        images = []
    else:
        out("## Quality: TMQI (Q, structural fidelity S, naturalness N)")
        out()
        out("| Image | Operator | Q | S | N |")
        out("|---|---|---|---|---|")
    for name, hdr in images:
        src = tmqi.read_rgb(hdr)
        rows = []
        ours = os.path.join(tmp, "ours.png")
        run([tool, "enhance", "-q", hdr, "-o", ours, "--threads", "2"])
        rows.append(("brackvista enhance (defaults)", ours))
        for op in PEERS:
            p = os.path.join(tmp, op + ".png")
            peer(hdr, op, p)
            rows.append((op, p))
        for label, p in rows:
            q, s, n = tmqi.tmqi(src, tmqi.read_rgb(p))
            out("| %s | %s | %.4f | %.4f | %.4f |" % (name, label, q, s, n))
    if images:
        out()
        out("## Preview against full size: mean CIE delta E 2000")
        out()
        out("| Image | Size | Preview size | mean dE2000 |")
        out("|---|---|---|---|")
    for name, hdr in images:
        for factor in (1, 2, 4):
            src = hdr
            if factor > 1:
                src = os.path.join(tmp, "scaled%d.hdr" % factor)
                scaled_hdr(hdr, factor, src)
            full, prev = os.path.join(tmp, "full.png"), os.path.join(tmp, "prev.png")
            run([tool, "enhance", "-q", src, "-o", full, "--threads", "2"])
            run([tool, "enhance", "-q", src, "-o", prev, "--threads", "2", "--preview"])
            f, p = cv2.imread(full), cv2.imread(prev)
            pe = cv2.resize(p, (f.shape[1], f.shape[0]), interpolation=cv2.INTER_LINEAR)
            d = delta_e_2000(srgb_to_lab(f), srgb_to_lab(pe))
            out("| %s x%d | %dx%d | %dx%d | %.2f |" % (name, factor, f.shape[1], f.shape[0],
                                                       p.shape[1], p.shape[0], d))
    if images:
        out()

    if not a.skip_speed:
        big = os.path.join(tmp, "atrium24.hdr")
        img = cv2.imread(atrium, cv2.IMREAD_UNCHANGED)
        cv2.imwrite(big, cv2.resize(img, (6000, 4000), interpolation=cv2.INTER_LINEAR))
        # JPEG outputs on both sides: PNG's deflate would dominate the times.
        png = os.path.join(tmp, "big.jpg")
        out("## Speed and memory: atrium scaled to 6000 x 4000 (24 MP), 2 threads")
        out()
        out("| Run | Wall s | Peak MiB |")
        out("|---|---|---|")
        cases = [
            ("brackvista enhance, in memory", "%s enhance -q -j 2 %s -o %s" % (tool, big, png)),
            ("brackvista enhance --temp-dir (streaming solver)",
             "%s enhance -q -j 2 --temp-dir %s %s -o %s" % (tool, tmp, big, png)),
            ("brackvista enhance --preview", "%s enhance -q -j 2 --preview %s -o %s" % (tool, big, png)),
            ("pfsin, pfstmo_fattal02, pfsgamma, pfsout (pipeline)",
             "pfsin %s | pfstmo_fattal02 2>/dev/null | pfsgamma -g 2.2 | pfsout %s/f.jpg" % (big, tmp)),
        ]
        for label, cmd in cases:
            # Peak: the largest process of the command (for the pipeline,
            # fattal02 itself), as getrusage reports for waited children.
            wall, mib = timed(cmd)
            out("| %s | %.2f | %.0f |" % (label, wall, mib))
        out()
    stamp = "Date %s UTC, commit %s, %s." % (
        datetime.datetime.utcnow().strftime("%Y-%m-%d %H:%M"),
        run(["git", "-C", ROOT, "rev-parse", "--short", "HEAD"]).stdout.strip(), machine())
    print(stamp)
    if a.write:
        with open(os.path.join(ROOT, "bench", "results-enhancer.md"), "a") as f:
            f.write("\n" + stamp + "\n\n" + "\n".join(lines) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
