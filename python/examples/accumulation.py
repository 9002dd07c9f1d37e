#!/usr/bin/env python3
"""Running mean, variance and weighted average over frames made by shifting a photograph."""
import os

import numpy as np

import kvlcv
from _png import DATA, read_png

img = read_png(os.path.join(DATA, "horse.png"))
frames = [np.roll(img, 2 * k, axis=1) for k in range(8)]
total = np.zeros(img.shape, np.float32)
squares = np.zeros(img.shape, np.float32)
running = frames[0].astype(np.float32)
for f in frames:
    kvlcv.add(f, total)
    kvlcv.add_square(f, squares)
    kvlcv.add_weighted(f, running, 0.25)
mean = total / len(frames)
var = squares / len(frames) - mean * mean
print(f"mean {mean.mean():.2f}, mean variance {var.mean():.2f}, "
      f"running average {running.mean():.2f}")
mask = (img > 128).astype(np.uint8)
bright = kvlcv.add(img, np.zeros(img.shape, np.float32), mask=mask)
print(f"sum over bright pixels: {bright.sum():.0f}")
