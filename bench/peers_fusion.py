#!/usr/bin/python3
"""Exposure fusion beside enfuse and OpenCV's MergeMertens: picture quality
(MEF-SSIM) on the memorial brackets, and time and peak memory on 24-megapixel
stacks, all in one run. Prints Markdown; --write also writes
bench/results-fusion.md.

Quality: the 16 memorial brackets, 5 of them two stops apart (0065, 0067,
0069, 0071, 0073) and 3 (0067, 0069, 0071); every program with its defaults,
and the library's two-pass mode (pyramid fusion, then the local pass)
called through the shared library, since the tool does not offer it.
Speed: the memorial brackets enlarged to 4000x6000 (24 MP), 3 x 8-bit (0067,
0069, 0071) and 5 x 16-bit (0065 ... 0073), written as uncompressed TIFF;
each program runs as its own process under /usr/bin/time -v with 2 threads
(the time includes reading the brackets and writing the result). bv_blend
figures come from bv_bench (bench/bench_blend.cpp), when it is built.

    /usr/bin/python3 bench/peers_fusion.py [--tool build/tools/brackvista/brackvista]
        [--skip-speed] [--keep DIR] [--write]
"""
import argparse
import ctypes
import datetime
import json
import os
import platform
import re
import shutil
import subprocess
import sys
import tempfile

import cv2
import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from mef_ssim import mef_ssim  # noqa: E402

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DATA = os.path.join(ROOT, "..", "shared", "data", "memorial")
STACKS = [("all 16", list(range(61, 77))), ("5, two stops apart", [65, 67, 69, 71, 73]),
          ("3, two stops apart", [67, 69, 71])]
BIG_W, BIG_H = 4000, 6000  # the memorial brackets are portrait
THREADS = 2

OPENCV_SCRIPT = r"""
import sys, cv2, numpy as np
cv2.setNumThreads(int(sys.argv[1]))
out, files = sys.argv[2], sys.argv[3:]
imgs = [cv2.imread(f, cv2.IMREAD_UNCHANGED) for f in files]
if imgs[0].dtype == np.uint16:  # its 16-bit path scales by 1/255: give it 0..1 floats
    imgs = [i.astype(np.float32) / 65535.0 for i in imgs]
    res = cv2.createMergeMertens().process(imgs)
    cv2.imwrite(out, np.clip(res * 65535.0 + 0.5, 0, 65535).astype(np.uint16))
else:
    res = cv2.createMergeMertens().process(imgs)
    cv2.imwrite(out, np.clip(res * 255.0 + 0.5, 0, 255).astype(np.uint8))
"""


def machine():
    model = platform.machine()
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    mem = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    return "%s, %d cores, %.0f GiB, load %.1f" % (model, os.cpu_count(), mem, os.getloadavg()[0])


def bracket(k):
    return os.path.join(DATA, "memorial%04d.png" % k)


def tool_has_fuse(tool):
    if not tool or not os.path.exists(tool):
        return False
    r = subprocess.run([tool, "fuse", "--help"], capture_output=True, text=True)
    return r.returncode == 0


def run_timed(cmd, env=None):
    """Runs cmd under /usr/bin/time -v; returns (wall s, CPU s, peak MiB) or raises."""
    full = ["/usr/bin/time", "-v"] + cmd
    r = subprocess.run(full, capture_output=True, text=True, env=env)
    if r.returncode != 0:
        raise RuntimeError("%s failed: %s" % (cmd[0], (r.stderr or r.stdout).strip()[-300:]))
    wall = re.search(r"Elapsed \(wall clock\) time.*: (?:(\d+):)?(\d+):([\d.]+)", r.stderr)
    rss = re.search(r"Maximum resident set size \(kbytes\): (\d+)", r.stderr)
    cpu = sum(float(re.search(r"%s time \(seconds\): ([\d.]+)" % k, r.stderr).group(1))
              for k in ("User", "System"))
    h, m, s = wall.groups()
    seconds = int(h or 0) * 3600 + int(m) * 60 + float(s)
    return seconds, cpu, int(rss.group(1)) / 1024.0


def fuse_commands(tool, files, out, bits16=False, temp_dir=None):
    """The three programs as commands writing `out`."""
    env = dict(os.environ, OMP_NUM_THREADS=str(THREADS))
    cmds = {}
    if tool:
        c = [tool, "fuse", "-q", "-j", str(THREADS), "-o", out["ours"]]
        if bits16:
            c += ["--bits", "16"]
        if temp_dir:
            c += ["--temp-dir", temp_dir]
        cmds["Brackvista fuse"] = c + files
    cmds["enfuse (defaults)"] = ["enfuse", "-o", out["enfuse"]] + files
    cmds["OpenCV MergeMertens"] = ["/usr/bin/python3", "-c", OPENCV_SCRIPT, str(THREADS),
                                   out["opencv"]] + files
    return cmds, env


class DimParam(ctypes.Structure):
    _fields_ = [(n, ctypes.c_int32) for n in
                "width height channels bitsIn bitsOut rowIn rowOut bgr layout sourceKind".split()]


def load_library(path):
    if not path or not os.path.exists(path):
        return None
    lib = ctypes.CDLL(path)
    if not hasattr(lib, "bv_fusion"):
        return None
    vp, i64, cp = ctypes.c_void_p, ctypes.c_int64, ctypes.c_char_p
    lib.bv_fusion.argtypes = [vp, vp, vp, ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.c_float,
                              ctypes.c_uint64, i64, cp, i64, cp, cp, i64, i64, i64, DimParam,
                              ctypes.c_int, vp, vp, vp, vp, ctypes.c_uint64, vp]
    return lib


def fuse_two_pass(lib, sources):
    """The library's two-pass mode (default record of the fusion with slot 9 =
    1: the pyramid fusion, then the local pass), on BGR arrays as cv2 reads."""
    h, w = sources[0].shape[:2]
    stack = np.ascontiguousarray(np.stack([s[..., ::-1] for s in sources]))  # RGB
    param = (ctypes.c_float * 60)()
    lib.tmparam_default(10, 0, param)
    param[9] = 1.0
    dim = DimParam(w, h, 3, 8, 8, 0, 0, 0, 0, 0)
    out = np.zeros(2 * 3 * int(1.5 * w * h + 0.5) + 16, np.uint8)
    rc = lib.bv_fusion(None, param, None, len(sources), 16, 16, 0.0, THREADS, 0, None, 0, None,
                       None, 0, 0, 0, dim, 0, None, stack.ctypes.data, None, None, 0,
                       out.ctypes.data)
    if rc < 0:
        raise RuntimeError("bv_fusion returned %d" % rc)
    return out[: w * h * 3].reshape(h, w, 3)[..., ::-1].copy()


def quality(tool, keep, lib=None):
    rows = []
    work = keep or tempfile.mkdtemp(prefix="bv-fusion-q-")
    os.makedirs(work, exist_ok=True)
    for name, ks in STACKS:
        files = [bracket(k) for k in ks]
        sources = [cv2.imread(f, cv2.IMREAD_UNCHANGED) for f in files]
        tag = "%d" % len(ks)
        out = {"ours": os.path.join(work, "ours-%s.png" % tag),
               "enfuse": os.path.join(work, "enfuse-%s.tif" % tag),
               "opencv": os.path.join(work, "opencv-%s.png" % tag)}
        cmds, env = fuse_commands(tool, files, out)
        row = {"stack": name}
        for prog, cmd in cmds.items():
            r = subprocess.run(cmd, capture_output=True, text=True, env=env)
            if r.returncode != 0:
                row[prog] = "failed"
                continue
            path = cmd[cmd.index("-o") + 1] if "-o" in cmd else cmd[4]
            fused = cv2.imread(path, cv2.IMREAD_UNCHANGED)
            if fused.ndim == 3 and fused.shape[2] == 4:
                fused = fused[..., :3]  # enfuse adds an alpha channel
            q, _ = mef_ssim(sources, fused)
            row[prog] = "%.4f" % q
        if lib:
            fused = fuse_two_pass(lib, sources)
            cv2.imwrite(os.path.join(work, "ours-two-pass-%s.png" % tag), fused)
            row["Brackvista two-pass"] = "%.4f" % mef_ssim(sources, fused)[0]
        rows.append(row)
    if not keep:
        shutil.rmtree(work, ignore_errors=True)
    return rows


def make_big_stacks(work):
    stacks = {}
    for name, ks, bits in [("3 x 8-bit", [67, 69, 71], 8),
                           ("5 x 16-bit", [65, 67, 69, 71, 73], 16)]:
        files = []
        for k in ks:
            img = cv2.imread(bracket(k), cv2.IMREAD_UNCHANGED).astype(np.float32)
            big = cv2.resize(img, (BIG_W, BIG_H), interpolation=cv2.INTER_CUBIC)
            if bits == 16:
                big = np.clip(big * 257.0 + 0.5, 0, 65535).astype(np.uint16)
            else:
                big = np.clip(big + 0.5, 0, 255).astype(np.uint8)
            path = os.path.join(work, "big%d-%04d.tif" % (bits, k))
            cv2.imwrite(path, big, [cv2.IMWRITE_TIFF_COMPRESSION, 1])
            files.append(path)
        stacks[name] = (files, bits)
    return stacks


def speed(tool):
    work = tempfile.mkdtemp(prefix="bv-fusion-s-")
    rows = []
    try:
        stacks = make_big_stacks(work)
        for name, (files, bits) in stacks.items():
            out = {"ours": os.path.join(work, "ours.tif"),
                   "enfuse": os.path.join(work, "enfuse.tif"),
                   "opencv": os.path.join(work, "opencv.tif")}
            cmds, env = fuse_commands(tool, files, out, bits16=bits == 16)
            if tool:
                tmp = os.path.join(work, "spill")
                os.makedirs(tmp, exist_ok=True)
                c2, _ = fuse_commands(tool, files, out, bits16=bits == 16, temp_dir=tmp)
                cmds = dict(list(cmds.items())[:1] +
                            [("Brackvista fuse --temp-dir", c2["Brackvista fuse"])] +
                            list(cmds.items())[1:])
            for prog, cmd in cmds.items():
                try:
                    s, cpu, mib = run_timed(cmd, env)
                    rows.append((name, prog, "%.1f" % s, "%.1f" % cpu, "%.0f" % mib))
                except RuntimeError as e:
                    rows.append((name, prog, "failed", "-", str(e)[:60]))
                for p in out.values():
                    if os.path.exists(p):
                        os.remove(p)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return rows


def blend_bench(bench):
    """bv_blend beside plain copies, from bv_bench: (case, threads, wall ms,
    CPU ms of the calling thread), best of 5."""
    out = subprocess.run([bench, "--benchmark_filter=Blend|Copy", "--benchmark_format=json",
                          "--benchmark_repetitions=5"], cwd=ROOT, check=True,
                         capture_output=True, text=True).stdout
    best = {}
    for b in json.loads(out)["benchmarks"]:
        if b.get("run_type") != "iteration" or b.get("error_occurred"):
            continue
        name = b["run_name"].replace("/real_time", "")
        wall, cpu = b["real_time"], b["cpu_time"]
        if name not in best or wall < best[name][0]:
            best[name] = (wall, cpu)
    rows = []
    for name, (wall, cpu) in best.items():
        case, threads = name.rsplit("/", 1)
        rows.append((case, threads, "%.1f" % wall, "%.1f" % cpu if threads == "1" else "-"))
    return rows


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--tool", default=os.path.join(ROOT, "build", "tools", "brackvista",
                                                   "brackvista"))
    ap.add_argument("--lib", default=os.path.join(ROOT, "build", "libBrackvista40Lib1.so"),
                    help="shared library for the two-pass mode, which the tool does not offer")
    ap.add_argument("--bench", default=os.path.join(ROOT, "build-bench", "bench", "bv_bench"),
                    help="benchmark program for the bv_blend figures (skipped when absent)")
    ap.add_argument("--skip-speed", action="store_true")
    ap.add_argument("--keep", help="folder that keeps the fused memorial pictures")
    ap.add_argument("--write", action="store_true", help="also write bench/results-fusion.md")
    args = ap.parse_args()
    if not os.path.isdir(DATA):
        sys.exit("the memorial brackets are missing (../shared/data/memorial)")
    tool = args.tool if tool_has_fuse(args.tool) else None
    lib = load_library(args.lib)
    progs = ((["Brackvista fuse"] if tool else []) + (["Brackvista two-pass"] if lib else []) +
             ["enfuse (defaults)", "OpenCV MergeMertens"])

    lines = ["# Exposure fusion: quality, speed and memory beside enfuse and OpenCV", ""]
    commit = subprocess.run(["git", "-C", ROOT, "rev-parse", "--short", "HEAD"],
                            capture_output=True, text=True).stdout.strip()
    lines.append("Date %s, commit %s, %s." % (
        datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"), commit,
        machine()))
    if not tool:
        lines.append("")
        lines.append("`brackvista fuse` was not available in this build: peers only.")
    lines += ["", "## MEF-SSIM on the memorial brackets (higher is better)", "",
              "| Stack | " + " | ".join(progs) + " |", "|---" * (len(progs) + 1) + "|"]
    for row in quality(tool, args.keep, lib):
        lines.append("| %s | %s |" % (row["stack"], " | ".join(row.get(p, "-") for p in progs)))
    if not args.skip_speed:
        lines += ["", "## 24-megapixel stacks, %d threads (incl. file I/O; CPU = user + system)"
                  % THREADS, "", "| Stack | Program | Wall s | CPU s | Peak MiB |",
                  "|---|---|---|---|---|"]
        for r in speed(tool):
            lines.append("| %s | %s | %s | %s | %s |" % r)
    if not args.skip_speed and os.path.exists(args.bench):
        lines += ["", "## bv_blend of 24 MP (6000x4000, 3 exposures) beside plain copies", "",
                  "| Case | Threads | Wall ms | CPU ms |", "|---|---|---|---|"]
        for r in blend_bench(args.bench):
            lines.append("| %s | %s | %s | %s |" % r)
    text = "\n".join(lines) + "\n"
    print(text)
    if args.write:
        with open(os.path.join(ROOT, "bench", "results-fusion.md"), "w") as f:
            f.write(text)
    return 0


if __name__ == "__main__":
    sys.exit(main())
