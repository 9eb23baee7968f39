#!/usr/bin/python3
"""Reference HDR merges of the memorial brackets by an independent tool.

Usage: memorial_reference.py [--step S] DATA_DIR OUT_DIR NAME=i,j,k [NAME=...]
With --step S only every S-th pixel of every S-th row is used (the merge is
per pixel, so this equals subsampling its result). Per named subset: OpenCV's
Debevec calibration and merge with the known exposure times, written to
OUT_DIR/NAME.f32 (height x width x RGB little-endian floats). The decoded
brackets go to OUT_DIR/brackets.u8 (file order, RGB, 8 bits), their size to
OUT_DIR/size.txt ("width height"). Exits 77 when OpenCV or NumPy is missing.
"""
import os
import sys

try:
    import cv2
    import numpy as np
except ImportError:
    sys.exit(77)

argv = sys.argv[1:]
step = 1
if argv[:1] == ["--step"]:
    step, argv = int(argv[1]), argv[2:]
data, out = argv[0], argv[1]
rows = [line.split() for line in open(os.path.join(data, "exposures.txt"))]
rows = [r for r in rows if r and not r[0].startswith("#")]
images = [cv2.imread(os.path.join(data, r[0]), cv2.IMREAD_COLOR) for r in rows]
if any(im is None for im in images):
    sys.exit("could not read the brackets")
images = [np.ascontiguousarray(im[::step, ::step]) for im in images]
with open(os.path.join(out, "brackets.u8"), "wb") as f:
    for im in images:
        f.write(np.ascontiguousarray(im[:, :, ::-1]).tobytes())
with open(os.path.join(out, "size.txt"), "w") as f:
    f.write("%d %d\n" % (images[0].shape[1], images[0].shape[0]))
cv2.setRNGSeed(1)
for subset in argv[2:]:
    name, idx = subset.split("=")
    sel = [int(i) for i in idx.split(",")]
    imgs = [images[i] for i in sel]
    t = np.array([float(rows[i][1]) for i in sel], dtype=np.float32)
    hdr = cv2.createMergeDebevec().process(imgs, t, cv2.createCalibrateDebevec().process(imgs, t))
    np.ascontiguousarray(hdr[:, :, ::-1], dtype="<f4").tofile(os.path.join(out, name + ".f32"))
