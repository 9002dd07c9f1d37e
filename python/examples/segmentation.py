#!/usr/bin/env python3
"""Flood fill, marker watershed and gradient segmentation of the coins image."""
import os
import sys

import numpy as np

import kvlcv
from _png import DATA, read_png, write_png

out = sys.argv[1] if len(sys.argv) > 1 else "example-out"
os.makedirs(out, exist_ok=True)
img = read_png(os.path.join(DATA, "coins.png"))

# The background from a corner, admitting steps of at most 4 grey levels between neighbours.
filled = img.copy()
region = kvlcv.flood_fill(filled, (10, 10), 0, rule="grad", lo=4, hi=4)
write_png(os.path.join(out, "coins-filled.png"), filled)
print(f"flood fill: {region['area']:.0f} background pixels in {region['rect']}")

# Markers: background (label 1) where the fill reached, a label per 24-pixel grid cell elsewhere;
# the relief is the morphological gradient.
relief = kvlcv.dilate(img) - kvlcv.erode(img)
markers = np.zeros(img.shape, np.uint16)
markers[filled == 0] = 1
ys, xs = np.mgrid[12:img.shape[0]:24, 12:img.shape[1]:24]
inside = filled[ys, xs] != 0
markers[ys[inside], xs[inside]] = 2 + np.arange(inside.sum())
kvlcv.watershed(relief, markers, boundary=8)
print(f"watershed: {len(np.unique(markers)) - 1} labels")
write_png(os.path.join(out, "coins-watershed.png"),
          np.where(markers == 65535, 255, (markers * 37 % 200).astype(np.uint8)).astype(np.uint8))

seg = kvlcv.segment_gradient(img, np.zeros(img.shape, np.uint8), boundary=4)
print(f"gradient segmentation: {len(np.unique(seg)) - 1} regions from the gradient's minima")
write_png(os.path.join(out, "coins-gradseg.png"), seg)
