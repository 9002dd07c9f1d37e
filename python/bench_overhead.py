#!/usr/bin/env python3
"""Per-call overhead of the Python layers over the C call.

Times kvlcv.laplacian (the Pythonic call: checks, buffer query and allocation, status check),
the same C function through the low-level layer with prepared arguments, and the C call
timed in C (a tiny timing loop compiled here with cc and given the function's address), on a
64x64 and a 1920x1080 uint8 image, one library thread. Run with the build tree's package:
    PYTHONPATH=build/release/python /usr/bin/python3 python/bench_overhead.py
"""
import ctypes
import os
import subprocess
import sys
import tempfile
import time

import numpy as np

# This script's directory holds the package sources without the build's generated table: import
# the package from PYTHONPATH instead.
sys.path = [p for p in sys.path if os.path.abspath(p or ".") != os.path.dirname(
    os.path.abspath(__file__))]
import kvlcv  # noqa: E402
from kvlcv import _ops  # noqa: E402
from kvlcv import lowlevel  # noqa: E402
from kvlcv.lowlevel import lib  # noqa: E402

TIMER_C = r"""
#include <time.h>
typedef struct { int w, h; } Size;
typedef int (*fn2_t)(const void*, int, void*, int, Size, int, int, unsigned char, void*);
double time_calls(void* f, int iters, const void* src, int ss, void* dst, int ds, int w, int h,
                  int mask, int border, void* buf) {
  fn2_t fn = (fn2_t)f;
  Size s = {w, h};
  struct timespec a, b;
  clock_gettime(CLOCK_MONOTONIC, &a);
  for (int i = 0; i < iters; ++i) fn(src, ss, dst, ds, s, mask, border, 0, buf);
  clock_gettime(CLOCK_MONOTONIC, &b);
  return ((b.tv_sec - a.tv_sec) + (b.tv_nsec - a.tv_nsec) * 1e-9) / iters;
}
"""


def c_timer():
    d = tempfile.mkdtemp()
    src = os.path.join(d, "t.c")
    so = os.path.join(d, "t.so")
    with open(src, "w") as f:
        f.write(TIMER_C)
    subprocess.run(["cc", "-O2", "-shared", "-fPIC", src, "-o", so], check=True)
    t = ctypes.CDLL(so).time_calls
    t.restype = ctypes.c_double
    t.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_void_p, ctypes.c_int, ctypes.c_void_p,
                  ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.c_int,
                  ctypes.c_void_p]
    return t


def best(fn, iters, reps=7):
    out = []
    for _ in range(reps):
        t = time.perf_counter()
        for _ in range(iters):
            fn()
        out.append((time.perf_counter() - t) / iters)
    return min(out)


def main():
    kvlcv.set_num_threads(1)
    timer = c_timer()
    cfn = lib.kvliFilterLaplacianBorder_8u16s_C1R
    addr = ctypes.cast(lowlevel._lib.kvliFilterLaplacianBorder_8u16s_C1R, ctypes.c_void_p).value
    print(f"{'image':>10} {'C (in C)':>10} {'low-level':>10} {'Pythonic':>10} "
          f"{'LL-C':>8} {'Py-C':>8} {'Py/C':>6}")
    for h, w, iters in ((64, 64, 20000), (1080, 1920, 100)):
        src = np.random.default_rng(0).integers(0, 256, (h, w), dtype=np.uint8)
        dst = np.empty((h, w), np.int16)
        size = (w, h)
        n = ctypes.c_int()
        lib.kvliFilterLaplacianGetBufferSize_8u16s_C1R(size, 33, ctypes.addressof(n))
        # The C timings use the work buffer the Pythonic call is lent, so all three run on the
        # same addresses (the filter's speed moves by several percent with the buffer's place
        # relative to the images). The three are timed in turn, rep after rep, so that drifts
        # of the machine's speed reach all of them.
        kvlcv.laplacian(src, mask=3, out=dst)
        pb = _ops._scratch_buffer(n.value).address
        ps, pd = src.ctypes.data, dst.ctypes.data
        tc, tl, tp = [], [], []
        for _ in range(9):
            tc.append(timer(addr, iters, ps, w, pd, 2 * w, w, h, 33, 1, pb))
            tl.append(best(lambda: cfn(ps, w, pd, 2 * w, size, 33, 1, 0, pb), iters, 1))
            tp.append(best(lambda: kvlcv.laplacian(src, mask=3, out=dst), iters, 1))
        tc, tl, tp = min(tc), min(tl), min(tp)
        print(f"{w}x{h:<5} {tc * 1e6:9.2f}u {tl * 1e6:9.2f}u {tp * 1e6:9.2f}u "
              f"{(tl - tc) * 1e6:7.2f}u {(tp - tc) * 1e6:7.2f}u {tp / tc:6.3f}")


if __name__ == "__main__":
    sys.exit(main())
