#!/usr/bin/python3
"""OpenCV's Radiance reader, writer and HDR merge for the tests (exit 77 without OpenCV).

  decode IN.hdr OUT.raw ...          OUT: int32 width, height, float32 RGB pixels
  encode IN.raw OUT.hdr DECODED.raw  IN's floats written as .hdr, then decoded
  merge STEP DATA_DIR OUT_DIR NAME=i,j,k ...  every STEP-th pixel and row of the brackets
      to brackets.u8 (RGB8) and size.txt ("w h e0 e1 ..."); Debevec merges to NAME.f32.
"""
import os
import struct
import sys

try:
    import cv2
    import numpy as np
except ImportError:
    sys.exit(77)


def decode(pairs):
    for src, dst in zip(pairs[::2], pairs[1::2]):
        img = cv2.imread(src, cv2.IMREAD_ANYDEPTH | cv2.IMREAD_COLOR)
        if img is None:
            sys.exit(2)
        with open(dst, "wb") as f:
            f.write(struct.pack("<ii", img.shape[1], img.shape[0]))
            f.write(np.ascontiguousarray(img[:, :, ::-1], dtype=np.float32).tobytes())


def merge(step, data, out, subsets):
    rows = [r for r in (line.split() for line in open(os.path.join(data, "exposures.txt")))
            if r and not r[0].startswith("#")]
    images = [cv2.imread(os.path.join(data, r[0]), cv2.IMREAD_COLOR) for r in rows]
    if any(im is None for im in images):
        sys.exit("could not read the brackets")
    images = [np.ascontiguousarray(im[::step, ::step]) for im in images]
    with open(os.path.join(out, "brackets.u8"), "wb") as f:
        for im in images:
            f.write(np.ascontiguousarray(im[:, :, ::-1]).tobytes())
    with open(os.path.join(out, "size.txt"), "w") as f:
        h, w = images[0].shape[:2]
        f.write("%d %d %s\n" % (w, h, " ".join(r[1] for r in rows)))
    cv2.setRNGSeed(1)
    for name, idx in (s.split("=") for s in subsets):
        sel = [int(i) for i in idx.split(",")]
        imgs = [images[i] for i in sel]
        t = np.array([float(rows[i][1]) for i in sel], dtype=np.float32)
        curve = cv2.createCalibrateDebevec().process(imgs, t)
        hdr = cv2.createMergeDebevec().process(imgs, t, curve)
        np.ascontiguousarray(hdr[:, :, ::-1], dtype="<f4").tofile(os.path.join(out, name + ".f32"))


if sys.argv[1] == "decode":
    decode(sys.argv[2:])
elif sys.argv[1] == "merge":
    merge(int(sys.argv[2]), sys.argv[3], sys.argv[4], sys.argv[5:])
else:
    with open(sys.argv[2], "rb") as f:
        w, h = struct.unpack("<ii", f.read(8))
        rgb = np.frombuffer(f.read(), dtype=np.float32).reshape(h, w, 3)
    if not cv2.imwrite(sys.argv[3], np.ascontiguousarray(rgb[:, :, ::-1])):
        sys.exit(3)
    decode(sys.argv[3:5])
