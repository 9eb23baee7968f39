#!/usr/bin/python3
"""OpenCV's Radiance reader and writer, driven by the Radiance tests.

Exit status 77 when OpenCV's Python module is missing.
  cv2_hdr.py decode IN.hdr OUT.raw ... decodes each IN; its OUT gets int32 width,
                                       height then float32 R, G, B per pixel
  cv2_hdr.py encode IN.raw OUT.hdr [DECODED.raw]
                                       the reverse: writes IN's floats as .hdr,
                                       then optionally decodes that file
"""
import struct
import sys

try:
    import cv2
    import numpy as np
except ImportError:
    sys.exit(77)


def main(argv):
    if argv[1] == "decode":
        for src, dst in zip(argv[2::2], argv[3::2]):
            img = cv2.imread(src, cv2.IMREAD_ANYDEPTH | cv2.IMREAD_COLOR)
            if img is None:
                return 2
            h, w = img.shape[:2]
            rgb = np.ascontiguousarray(img[:, :, ::-1], dtype=np.float32)
            with open(dst, "wb") as f:
                f.write(struct.pack("<ii", w, h))
                f.write(rgb.tobytes())
        return 0
    if argv[1] == "encode":
        with open(argv[2], "rb") as f:
            w, h = struct.unpack("<ii", f.read(8))
            rgb = np.frombuffer(f.read(), dtype=np.float32).reshape(h, w, 3)
        if not cv2.imwrite(argv[3], np.ascontiguousarray(rgb[:, :, ::-1])):
            return 3
        return main([argv[0], "decode", argv[3], argv[4]]) if len(argv) > 4 else 0
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
