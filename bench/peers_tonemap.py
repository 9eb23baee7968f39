#!/usr/bin/python3
"""Times tm_simple (through bv_bench) and OpenCV's TonemapReinhard on the same
24-megapixel image in one run, and prints a Markdown table of megapixels per
second. Run from anywhere; the image is the atrium photograph tiled to
6000x4000, exactly as bench_tonemap.cpp builds it.

    scripts/build.sh build-bench -DCMAKE_BUILD_TYPE=Release -DBV_BUILD_BENCH=ON
    /usr/bin/python3 bench/peers_tonemap.py [--bench build-bench/bench/bv_bench]
                                            [--threads 2] [--repeat 3] [--write]
"""
import argparse
import datetime
import json
import os
import platform
import subprocess
import sys
import time

import cv2
import numpy as np

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
WIDTH, HEIGHT = 6000, 4000


def machine():
    model = platform.processor() or platform.machine()
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    return "%s, %d cores, load %.1f" % (model, os.cpu_count(), os.getloadavg()[0])


def run_ours(bench, repeat):
    out = subprocess.run(
        [bench, "--benchmark_filter=TmSimple|AdjustColors", "--benchmark_format=json",
         "--benchmark_repetitions=%d" % repeat],
        cwd=ROOT, check=True, capture_output=True, text=True).stdout
    best = {}
    for b in json.loads(out)["benchmarks"]:
        # The best repetition is the one least disturbed by other load.
        if b.get("run_type") != "iteration" or b.get("error_occurred"):
            continue
        name = b["run_name"].replace("/real_time", "")
        best[name] = max(best.get(name, 0.0), b["MP/s"])
    return list(best.items())


def run_opencv(threads, repeat):
    hdr = cv2.imread(os.path.join(ROOT, "..", "shared", "data", "hdr", "mpi_atrium_3.hdr"),
                     cv2.IMREAD_ANYDEPTH | cv2.IMREAD_COLOR)
    if hdr is None:
        sys.exit("the atrium photograph is missing (../shared/data/hdr/mpi_atrium_3.hdr)")
    h, w = hdr.shape[:2]
    big = np.tile(hdr, (-(-HEIGHT // h), -(-WIDTH // w), 1))[:HEIGHT, :WIDTH].copy()
    cv2.setNumThreads(threads)
    tonemap = cv2.createTonemapReinhard()
    best = float("inf")
    for _ in range(repeat):
        t0 = time.perf_counter()
        ldr = tonemap.process(big)
        out = np.clip(ldr * 255, 0, 255).astype(np.uint8)
        best = min(best, time.perf_counter() - t0)
    assert out.shape == (HEIGHT, WIDTH, 3)
    return WIDTH * HEIGHT / 1e6 / best


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--bench", default=os.path.join(ROOT, "build-bench", "bench", "bv_bench"))
    ap.add_argument("--threads", type=int, default=2)
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--write", action="store_true", help="also write bench/results-tonemap.md")
    args = ap.parse_args()

    ours = run_ours(args.bench, args.repeat)
    peer = run_opencv(args.threads, args.repeat)
    commit = subprocess.run(["git", "rev-parse", "--short", "HEAD"], cwd=ROOT,
                            capture_output=True, text=True).stdout.strip()
    lines = [
        "# Simple tone mapping: speed beside OpenCV",
        "",
        "Date %s UTC, commit %s, %s." % (
            datetime.datetime.utcnow().strftime("%Y-%m-%d %H:%M"), commit, machine()),
        "Image: the atrium photograph tiled to %dx%d (24 MP), 8-bit output, default "
        "parameters. Best of %d runs; OpenCV %s with %d threads, TonemapReinhard "
        "(defaults) including its own statistics and the conversion to 8 bits. "
        "BM_AdjustColors is bv_adjust_colors on the tone-mapped 8-bit picture "
        "(saturation step, a hue shift, a lightness change)."
        % (WIDTH, HEIGHT, args.repeat, cv2.__version__, args.threads),
        "",
        "| Case | Threads | MP/s | vs OpenCV |",
        "|---|---|---|---|",
    ]
    for name, mps in ours:
        base, threads = name.rsplit("/", 1)
        if "TmSimple" in base:
            lines.append("| %s | %s | %.1f | %.2fx |" % (base, threads, mps, mps / peer))
        else:  # not a tone mapper: shown for its own speed only
            lines.append("| %s | %s | %.1f | - |" % (base, threads, mps))
    lines.append("| OpenCV TonemapReinhard | %d | %.1f | 1.00x |" % (args.threads, peer))
    if os.getloadavg()[0] > os.cpu_count():
        lines += ["", "The machine was busy with other work (load above its core count): "
                  "absolute figures are low and the second thread shows little gain; "
                  "both libraries ran under the same load, one after the other."]
    text = "\n".join(lines) + "\n"
    print(text)
    if args.write:
        with open(os.path.join(ROOT, "bench", "results-tonemap.md"), "w") as f:
            f.write(text)


if __name__ == "__main__":
    main()
