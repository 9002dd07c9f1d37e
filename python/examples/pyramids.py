#!/usr/bin/env python3
"""A Gaussian pyramid of the astronaut photograph, down four levels and back up one."""
import os
import sys

import kvlcv
from _png import DATA, read_png, write_png

out = sys.argv[1] if len(sys.argv) > 1 else "example-out"
os.makedirs(out, exist_ok=True)
level = read_png(os.path.join(DATA, "astronaut.png"))
for k in range(1, 5):
    level = kvlcv.pyr_down(level)
    write_png(os.path.join(out, f"pyramid_{k}.png"), level)
    print(f"level {k}: {level.shape}")
print("up again:", kvlcv.pyr_up(level).shape)

# Track a few points of the photograph into a copy shifted by (3, 2) pixels.
grey = read_png(os.path.join(DATA, "astronaut.png"))[:, :, 1].copy()
moved = grey[:-2, :-3].copy()
grey = grey[2:, 3:].copy()
points = [[100.0, 120.0], [300.0, 200.0], [250.0, 400.0]]
found, status, error = kvlcv.optical_flow_pyr_lk(grey, moved, points, win_size=15, max_level=3)
for p, q, s in zip(points, found, status):
    print(f"({p[0]:.0f}, {p[1]:.0f}) -> ({q[0]:.2f}, {q[1]:.2f}) status {s}")
