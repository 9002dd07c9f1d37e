#!/usr/bin/env python3
"""Distance of every pixel to the nearest edge of the coins image."""
import os
import sys

import numpy as np

import kvlcv
from _png import DATA, read_png, to_u8, write_png

out = sys.argv[1] if len(sys.argv) > 1 else "example-out"
os.makedirs(out, exist_ok=True)
img = read_png(os.path.join(DATA, "coins.png"))
features = np.where(kvlcv.canny(img, 60, 180) > 0, 0, 255).astype(np.uint8)  # edges are 0
chamfer = kvlcv.distance_transform(features, mask=5, norm=2, dtype=np.float32)
exact = kvlcv.true_distance_transform(features)
write_png(os.path.join(out, "distance.png"), to_u8(exact))
print(f"largest distance {exact.max():.2f}; chamfer 5x5 differs by at most "
      f"{np.abs(chamfer - exact).max():.2f}")
