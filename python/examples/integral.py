#!/usr/bin/env python3
"""Box means in constant time from integral images."""
import os

import numpy as np

import kvlcv
from _png import DATA, read_png

img = read_png(os.path.join(DATA, "coins.png"))
s, q = kvlcv.sqr_integral(img)
r = 7                                         # 15 x 15 boxes
h, w = img.shape
y0, x0 = np.mgrid[0:h - 2 * r, 0:w - 2 * r]
e = 2 * r + 1


def box(t):
    return t[y0 + e, x0 + e] - t[y0, x0 + e] - t[y0 + e, x0] + t[y0, x0]



n = (2 * r + 1) ** 2
mean = box(s) / n
std = np.sqrt(np.maximum(box(q) / n - mean * mean, 0))
print(f"box mean range {mean.min():.1f}..{mean.max():.1f}, largest local std {std.max():.1f}")
print("tilted table:", kvlcv.tilted_integral(img).shape)
