#!/usr/bin/env python3
"""Derivative and smoothing filters on the astronaut photograph."""
import os
import sys

import numpy as np

import kvlcv
from _png import DATA, grey, read_png, to_u8, write_png

out = sys.argv[1] if len(sys.argv) > 1 else "example-out"
os.makedirs(out, exist_ok=True)
img = grey(read_png(os.path.join(DATA, "astronaut.png")))
dx = kvlcv.sobel_neg_vert(img, mask=3)                    # int16: left minus right column
dy = kvlcv.scharr_horiz(img, border="mirror")             # int16: row below minus row above
lap = kvlcv.laplacian(img.astype(np.float32), mask=5)     # float32 member
smooth = kvlcv.lowpass(img, mask=5)                       # uint8: 5x5 box average
crop = kvlcv.laplacian(img[100:300, 150:350], mask=5, border="replicate", inmem=["top", "left"])
for name, a in (("sobel_dx", dx), ("scharr_dy", dy), ("laplacian", lap), ("lowpass", smooth),
                ("laplacian_crop", crop)):
    write_png(os.path.join(out, f"{name}.png"), to_u8(np.abs(a.astype(np.float64))))
    print(f"{name}: {a.dtype} {a.shape} range {a.min()}..{a.max()}")
