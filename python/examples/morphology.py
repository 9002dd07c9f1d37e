#!/usr/bin/env python3
"""Min/max filters, erosion and dilation with a disc, and an opening."""
import os
import sys

import numpy as np

import kvlcv
from _png import DATA, read_png, write_png

out = sys.argv[1] if len(sys.argv) > 1 else "example-out"
os.makedirs(out, exist_ok=True)
img = read_png(os.path.join(DATA, "coins.png"))
yy, xx = np.mgrid[-3:4, -3:4]
disc = (xx * xx + yy * yy <= 9).astype(np.uint8)
element = kvlcv.Morphology(disc, np.uint8, max_width=img.shape[1])   # built once, used twice
opened = element.dilate(element.erode(img))
write_png(os.path.join(out, "opened.png"), opened)
write_png(os.path.join(out, "min5.png"), kvlcv.min_filter(img, 5))
write_png(os.path.join(out, "max5.png"), kvlcv.max_filter(img, (9, 3)))
print("opening removed", int(img.astype(int).sum() - opened.astype(int).sum()), "grey levels")
