#!/usr/bin/env python3
"""Motion history of a square moving over ten frames."""
import os
import sys

import numpy as np

import kvlcv
from _png import to_u8, write_png

out = sys.argv[1] if len(sys.argv) > 1 else "example-out"
os.makedirs(out, exist_ok=True)
mhi = np.zeros((120, 160), np.float32)
for t in range(10):
    silhouette = np.zeros(mhi.shape, np.uint8)
    silhouette[40:80, 10 + 12 * t:40 + 12 * t] = 1
    kvlcv.update_motion_history(silhouette, mhi, timestamp=float(t), duration=5.0)
write_png(os.path.join(out, "motion_history.png"), to_u8(mhi))
print("pixels moved within the last 5 frames:", np.count_nonzero(mhi))
