#!/usr/bin/python3
"""Reference HDR merges of the memorial brackets by an independent tool.

Usage: memorial_reference.py [--step S] DATA_DIR OUT_DIR NAME=i,j,k [NAME=...]
With --step S only every S-th pixel of every S-th row is used, to keep the
test quick; the merge is per pixel, so this equals subsampling its result.
For each named subset, recovers the camera response from the brackets with
OpenCV's Debevec calibration, merges them with the known exposure times and
writes OUT_DIR/NAME.f32: height x width x 3 little-endian floats, RGB order.
The decoded brackets themselves go to OUT_DIR/brackets.u8 (all of them, in
file order, RGB, 8 bits) with their size in OUT_DIR/size.txt ("width height").
Exits 77 when OpenCV or NumPy is missing, so the caller can skip.
"""
import os
import sys

try:
    import cv2
    import numpy as np
except ImportError:
    sys.exit(77)


def main():
    argv = sys.argv[1:]
    step = 1
    if len(argv) > 1 and argv[0] == "--step":
        step = int(argv[1])
        argv = argv[2:]
    if len(argv) < 3:
        print(__doc__)
        return 2
    data, out = argv[0], argv[1]
    files, times = [], []
    with open(os.path.join(data, "exposures.txt")) as f:
        for line in f:
            parts = line.split()
            if not parts or parts[0].startswith("#"):
                continue
            files.append(parts[0])
            times.append(float(parts[1]))
    images = [cv2.imread(os.path.join(data, name), cv2.IMREAD_COLOR) for name in files]
    if any(im is None for im in images):
        print("could not read the brackets", file=sys.stderr)
        return 1
    images = [np.ascontiguousarray(im[::step, ::step]) for im in images]
    h, w = images[0].shape[:2]
    with open(os.path.join(out, "brackets.u8"), "wb") as f:
        for im in images:
            f.write(np.ascontiguousarray(im[:, :, ::-1]).tobytes())
    with open(os.path.join(out, "size.txt"), "w") as f:
        f.write("%d %d\n" % (w, h))
    cv2.setRNGSeed(1)
    for subset in argv[2:]:
        name, idx = subset.split("=")
        sel = [int(i) for i in idx.split(",")]
        imgs = [images[i] for i in sel]
        t = np.array([times[i] for i in sel], dtype=np.float32)
        response = cv2.createCalibrateDebevec().process(imgs, t)
        hdr = cv2.createMergeDebevec().process(imgs, t, response)
        rgb = np.ascontiguousarray(hdr[:, :, ::-1], dtype="<f4")
        rgb.tofile(os.path.join(out, name + ".f32"))
    return 0


if __name__ == "__main__":
    sys.exit(main())
