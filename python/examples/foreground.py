#!/usr/bin/env python3
"""Foreground models on a synthetic video: a bright square crossing a photograph."""
import os
import sys

import numpy as np

import kvlcv
from _png import DATA, read_png, write_png

out = sys.argv[1] if len(sys.argv) > 1 else "example-out"
os.makedirs(out, exist_ok=True)
scene = read_png(os.path.join(DATA, "astronaut.png"))[::2, ::2].copy()
models = {"gaussian": kvlcv.ForegroundGaussian(scene),
          "histogram": kvlcv.ForegroundHistogram(scene)}
for t in range(30):
    frame = scene.copy()
    frame[100:140, 5 * t:5 * t + 40] = 255
    for name, m in models.items():
        background, mask = m.apply(frame)
for name, m in models.items():
    background, mask = m.apply(frame)
    write_png(os.path.join(out, f"foreground_{name}.png"), mask)
    print(f"{name}: {np.count_nonzero(mask)} foreground pixels in the last frame")
