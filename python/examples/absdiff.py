#!/usr/bin/env python3
"""Absolute difference of two frames and against a constant."""
import os
import sys

import numpy as np

import kvlcv
from _png import DATA, read_png, write_png

out = sys.argv[1] if len(sys.argv) > 1 else "example-out"
os.makedirs(out, exist_ok=True)
img = read_png(os.path.join(DATA, "astronaut.png"))         # 3 channels
moved = np.roll(img, 4, axis=1)
diff = kvlcv.absdiff(img, moved)
write_png(os.path.join(out, "absdiff.png"), diff)
grey = np.ascontiguousarray(img[:, :, 1])
print("changed pixels:", np.count_nonzero(diff.max(axis=2) > 30),
      "| mean |g - 128|:", kvlcv.absdiff_scalar(grey, 128).mean())
