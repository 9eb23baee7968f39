#!/usr/bin/python3
"""Times bv_hdr_merge and OpenCV's MergeDebevec on the same 24-megapixel stacks.

Usage: bench/peers_hdrgen.py [path/to/libBrackvista40Lib1.so] [--repeat N]
Both merges get the same brackets (two stops apart, rendered through gamma
2.2), the true exposure times and the same gamma 2.2 response, so they do the
same work. MergeDebevec takes 8-bit images only; 16-bit stacks are timed for
this library alone. Prints a Markdown table of megapixels per second (wall
clock and CPU time); OpenCV is timed with one thread and with its default.
"""
import ctypes
import os
import sys
import time

import cv2
import numpy as np

W, H = 6000, 4000


def make_stack(n, bits):
    levels = 1 << bits
    steps = 64 * 40
    t = np.arange(steps)
    v = np.minimum(1.0, np.exp2((t - 64 * 30) / 64.0))
    level = np.minimum(levels - 1.0, levels * v ** (1 / 2.2)).astype(np.uint16 if bits == 16 else np.uint8)
    rng = np.random.default_rng(12345)
    x = np.arange(W)[None, :]
    y = np.arange(H)[:, None]
    base = (64 * 30 - 64 * 12 + (x * 64 * 16) // W + (y * 37) % 64).astype(np.int32)
    base = base + rng.integers(0, 8, size=(H, W), dtype=np.int32)
    imgs, exposures = [], []
    for k in range(n):
        shift = 64 * 2 * (k - n // 2)
        exposures.append(2.0 ** (2 * (k - n // 2)))
        chans = [level[np.clip(base + shift + 10 * (c - 1), 0, steps - 1)] for c in range(3)]
        imgs.append(np.ascontiguousarray(np.stack(chans, axis=2)))  # RGB
    return imgs, np.array(exposures, dtype=np.float32)


def timed(fn, repeat):
    best_wall, best_cpu = 1e30, 1e30
    for _ in range(repeat):
        w0, c0 = time.perf_counter(), time.process_time()
        fn()
        best_wall = min(best_wall, time.perf_counter() - w0)
        best_cpu = min(best_cpu, time.process_time() - c0)
    return best_wall, best_cpu


def main():
    args = [a for a in sys.argv[1:] if not a.startswith("--")]
    repeat = 3
    if "--repeat" in sys.argv:
        repeat = int(sys.argv[sys.argv.index("--repeat") + 1])
    lib_path = args[0] if args else os.path.join("build-bench", "libBrackvista40Lib1.so")
    lib = ctypes.CDLL(os.path.abspath(lib_path))
    merge = lib.bv_hdr_merge
    merge.restype = ctypes.c_int
    fp = ctypes.POINTER(ctypes.c_float)
    merge.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.c_int,
                      ctypes.c_float, ctypes.c_int, ctypes.c_int, fp, fp, ctypes.c_void_p, fp, ctypes.c_void_p]
    mp = W * H / 1e6
    print("| stack | merge | wall s | CPU s | MP/s (wall) | MP/s (CPU) |")
    print("|---|---|---|---|---|---|")
    for bits in (8, 16):
        for n in (3, 5):
            imgs, ex = make_stack(n, bits)
            stack = np.ascontiguousarray(np.stack(imgs))
            lut = np.zeros(1 << bits, dtype=np.float32)
            out = np.zeros(4 * W * H, dtype=np.uint8)
            stats = np.zeros(3, dtype=np.float32)

            def ours():
                e = ex.copy()
                rc = merge(None, 0, n, W, H, 3, -1.0, bits, 0, lut.ctypes.data_as(fp), e.ctypes.data_as(fp),
                           stack.ctypes.data, stats.ctypes.data_as(fp), out.ctypes.data)
                assert rc == H, rc

            rows = [("bv_hdr_merge", ours)]
            if bits == 8:
                bgr = [np.ascontiguousarray(im[:, :, ::-1]) for im in imgs]
                resp = ((np.arange(256) / 256.0) ** 2.2).astype(np.float32)
                resp[0] = resp[1]
                response = np.repeat(resp[:, None, None], 3, axis=2)
                md = cv2.createMergeDebevec()

                def cv_one():
                    cv2.setNumThreads(1)
                    md.process(bgr, ex, response)

                def cv_default():
                    cv2.setNumThreads(-1)
                    md.process(bgr, ex, response)

                rows += [("OpenCV MergeDebevec, 1 thread", cv_one),
                         ("OpenCV MergeDebevec, default threads", cv_default)]
            for name, fn in rows:
                wall, cpu = timed(fn, repeat)
                print("| %d x %d-bit | %s | %.3f | %.3f | %.1f | %.1f |" % (n, bits, name, wall, cpu, mp / wall, mp / cpu),
                      flush=True)
            del stack, imgs
    return 0


if __name__ == "__main__":
    sys.exit(main())
