#!/usr/bin/env python3
"""Canny edges of the coins image, from the image and from its derivatives."""
import os
import sys

import numpy as np

import kvlcv
from _png import DATA, read_png, write_png

out = sys.argv[1] if len(sys.argv) > 1 else "example-out"
os.makedirs(out, exist_ok=True)
img = read_png(os.path.join(DATA, "coins.png"))
edges = kvlcv.canny(img, 60, 180, kernel="sobel", mask=3, norm="l2")
dx = kvlcv.scharr_vert(img, dtype=np.int16)
dy = kvlcv.scharr_horiz(img, dtype=np.int16)
edges2 = kvlcv.canny_from_derivatives(dx, dy, 300, 900)
write_png(os.path.join(out, "canny.png"), edges)
write_png(os.path.join(out, "canny_scharr.png"), edges2)
print(f"edge pixels: {np.count_nonzero(edges)} (Sobel, L2), {np.count_nonzero(edges2)} (Scharr)")
