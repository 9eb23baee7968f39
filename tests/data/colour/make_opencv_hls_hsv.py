#!/usr/bin/python3
"""Writes opencv_hls_hsv.csv: random 0..1 RGB triples with OpenCV's float HLS
and HSV conversions (hue in degrees), an independent reference for the
library's HSL/HSV helpers. Run: /usr/bin/python3 make_opencv_hls_hsv.py"""
import os

import cv2
import numpy as np

rng = np.random.default_rng(20261122)
rgb = rng.random((400, 3), dtype=np.float32)
rgb[:20] = np.round(rgb[:20] * 4) / 4  # some greys, primaries and ties
rgb[20:24] = [[0.5, 0.5, 0.5], [1, 0, 0], [0, 1, 0], [0, 0, 1]]
img = rgb.reshape(1, -1, 3)
hls = cv2.cvtColor(img, cv2.COLOR_RGB2HLS).reshape(-1, 3)
hsv = cv2.cvtColor(img, cv2.COLOR_RGB2HSV).reshape(-1, 3)
out = os.path.join(os.path.dirname(os.path.abspath(__file__)), "opencv_hls_hsv.csv")
with open(out, "w") as f:
    f.write("# r g b | OpenCV %s RGB2HLS: h(deg) l s | RGB2HSV: h(deg) s v\n" % cv2.__version__)
    for c, a, b in zip(rgb, hls, hsv):
        f.write("%.9g %.9g %.9g %.9g %.9g %.9g %.9g %.9g %.9g\n" % (*c, *a, *b))
