#!/usr/bin/python3
"""OpenCV's Radiance reader and writer, driven by the Radiance tests.

  cv2_hdr.py decode IN.hdr OUT.raw ...   each OUT gets int32 width, height,
                                         then float32 R, G, B per pixel
  cv2_hdr.py encode IN.raw OUT.hdr DECODED.raw
                                         writes IN's floats as .hdr, then decodes it
Exit status 77 when OpenCV's Python module is missing.
"""
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


if sys.argv[1] == "decode":
    decode(sys.argv[2:])
else:
    with open(sys.argv[2], "rb") as f:
        w, h = struct.unpack("<ii", f.read(8))
        rgb = np.frombuffer(f.read(), dtype=np.float32).reshape(h, w, 3)
    if not cv2.imwrite(sys.argv[3], np.ascontiguousarray(rgb[:, :, ::-1])):
        sys.exit(3)
    decode(sys.argv[3:5])
