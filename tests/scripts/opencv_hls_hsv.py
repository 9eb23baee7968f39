#!/usr/bin/python3
"""Prints random 0..1 RGB triples with OpenCV's float HLS and HSV conversions
(hue in degrees): an independent reference for the library's HSL/HSV helpers,
read by test_colour through a pipe."""
import cv2
import numpy as np

rng = np.random.default_rng(20261122)
rgb = rng.random((400, 3), dtype=np.float32)
rgb[:20] = np.round(rgb[:20] * 4) / 4  # some greys, primaries and ties
rgb[20:24] = [[0.5, 0.5, 0.5], [1, 0, 0], [0, 1, 0], [0, 0, 1]]
img = rgb.reshape(1, -1, 3)
hls = cv2.cvtColor(img, cv2.COLOR_RGB2HLS).reshape(-1, 3)
hsv = cv2.cvtColor(img, cv2.COLOR_RGB2HSV).reshape(-1, 3)
for c, a, b in zip(rgb, hls, hsv):
    print("%.9g %.9g %.9g %.9g %.9g %.9g %.9g %.9g %.9g" % (*c, *a, *b))
