#!/usr/bin/python3
"""Times the Radiance reader and writer beside OpenCV's imread/imwrite of the
same 24-megapixel file, in one run, and prints a Markdown table.

  bench/peers_radiance.py [path/to/bv_bench] [repetitions]

Run from the project root (the benchmark tiles ../shared/data/hdr/mpi_atrium_3.hdr).
"""
import json
import os
import statistics
import subprocess
import sys
import time

import cv2

BENCH = sys.argv[1] if len(sys.argv) > 1 else "build-bench/bench/bv_bench"
REPS = int(sys.argv[2]) if len(sys.argv) > 2 else 5
HDR = "/tmp/bv_bench_radiance.hdr"
CV_OUT = "/tmp/bv_bench_radiance_opencv.hdr"
MP = 6000 * 4000 / 1e6

env = dict(os.environ, BV_BENCH_HDR=HDR)
out = subprocess.run([BENCH, "--benchmark_filter=Radiance", "--benchmark_format=json",
                      "--benchmark_repetitions=%d" % REPS, "--benchmark_report_aggregates_only=true"],
                     env=env, check=True, capture_output=True, text=True).stdout
ours, ours_cpu = {}, {}
for b in json.loads(out)["benchmarks"]:
    if b.get("aggregate_name") == "median":
        name = b["run_name"].split("/")[0].replace("BM_", "")
        ours[name] = b["real_time"] / 1000.0  # ms -> s
        ours_cpu[name] = b["cpu_time"] / 1000.0

cv2.setNumThreads(1)
size = os.path.getsize(HDR)


def timed(fn):
    """Median wall-clock and CPU seconds of REPS calls."""
    ts, cs = [], []
    for _ in range(REPS):
        t0, c0 = time.perf_counter(), time.process_time()
        fn()
        ts.append(time.perf_counter() - t0)
        cs.append(time.process_time() - c0)
    return statistics.median(ts), statistics.median(cs)


img = cv2.imread(HDR, cv2.IMREAD_ANYDEPTH | cv2.IMREAD_COLOR)
assert img is not None and img.shape[:2] == (4000, 6000)
cv_read = timed(lambda: cv2.imread(HDR, cv2.IMREAD_ANYDEPTH | cv2.IMREAD_COLOR))
cv_write = timed(lambda: cv2.imwrite(CV_OUT, img))
cv_size = os.path.getsize(CV_OUT)

rows = [
    ("read (RGBE rows)", "bv_io_read_rgbe", "RadianceRead24MP", cv_read),
    ("read + decode to float", "bv_io_read_rgbe + rgbe2fp", "RadianceReadToFloat24MP", cv_read),
    ("write", "bv_io_rgbe_write", "RadianceWrite24MP", cv_write),
    ("preview 1500x1000", "bv_io_read_preview_rgbe", "RadiancePreview24MP", None),
]
print("| operation | ours | ms | MP/s | file MB/s | CPU ms | OpenCV ms | OpenCV MP/s | OpenCV CPU ms "
      "| speed-up (wall) | speed-up (CPU) |")
print("|---|---|---|---|---|---|---|---|---|---|---|")
for name, fn, key, cv in rows:
    t, c = ours[key], ours_cpu[key]
    cvs = ("%.0f | %.1f | %.0f | %.2fx | %.2fx" % (cv[0] * 1e3, MP / cv[0], cv[1] * 1e3, cv[0] / t, cv[1] / c)
           if cv else "- | - | - | - | -")
    print("| %s | `%s` | %.0f | %.1f | %.0f | %.0f | %s |"
          % (name, fn, t * 1e3, MP / t, size / t / 1e6, c * 1e3, cvs))
print()
print("File: %dx%d, %.1f MB run-length coded by us; OpenCV's own output %.1f MB. "
      "OpenCV with one thread (cv2.setNumThreads(1)); median of %d runs; OpenCV %s."
      % (6000, 4000, size / 1e6, cv_size / 1e6, REPS, cv2.__version__))
