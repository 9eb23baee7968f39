#!/usr/bin/python3
"""OpenCV's Radiance reader and writer, driven by the Radiance tests.

  cv2_hdr.py check                     exit 0 when cv2 can be imported, else 77
  cv2_hdr.py decode IN.hdr OUT.raw     decodes IN; OUT gets int32 width, height
                                       then float32 R, G, B per pixel
  cv2_hdr.py encode IN.raw OUT.hdr     the reverse: writes IN's floats as .hdr
"""
import struct
import sys

try:
    import cv2
    import numpy as np
except ImportError:
    sys.exit(77)


def main(argv):
    if argv[1] == "check":
        return 0
    if argv[1] == "decode":
        img = cv2.imread(argv[2], cv2.IMREAD_ANYDEPTH | cv2.IMREAD_COLOR)
        if img is None:
            return 2
        h, w = img.shape[:2]
        rgb = np.ascontiguousarray(img[:, :, ::-1], dtype=np.float32)
        with open(argv[3], "wb") as f:
            f.write(struct.pack("<ii", w, h))
            f.write(rgb.tobytes())
        return 0
    if argv[1] == "encode":
        with open(argv[2], "rb") as f:
            w, h = struct.unpack("<ii", f.read(8))
            rgb = np.frombuffer(f.read(), dtype=np.float32).reshape(h, w, 3)
        return 0 if cv2.imwrite(argv[3], np.ascontiguousarray(rgb[:, :, ::-1])) else 3
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
