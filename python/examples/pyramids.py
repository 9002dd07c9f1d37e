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
