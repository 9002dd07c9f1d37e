#!/usr/bin/env python3
"""A Laplacian of an image larger than the workers' memory, tile by tile on a local Dask cluster.

The image (default 40000 x 40000 uint8, 1.6 GB; its int16 Laplacian 3.2 GB) is generated chunk
by chunk from pixel coordinates, filtered by kvlcv.dask.map_filter (each tile reads real
neighbour pixels across its inner edges, so the result is bit-identical to one whole-image
call) and reduced to a checksum, so no process ever holds the whole image. Each worker process
gets --memory (default 1 GiB).

    PYTHONPATH=build/release/python /usr/bin/python3 python/examples/dask_large.py \
        --workers 1 2 4 [--whole]

--whole also makes the image and its Laplacian in this process (needs about 5 GB), times the
single call and checks that the checksums agree.
"""
import argparse
import time

import numpy as np
import dask.array as da
from dask.distributed import Client, LocalCluster

import kvlcv
import kvlcv.dask as kd


def pattern(y0, x0, h, w):
    """A deterministic textured image block at (y0, x0)."""
    y = np.arange(y0, y0 + h, dtype=np.uint32)[:, None]
    x = np.arange(x0, x0 + w, dtype=np.uint32)[None, :]
    return ((x * 7 + y * 13) ^ ((x * y) >> 5)).astype(np.uint8)


def block(block_info=None):
    (y0, y1), (x0, x1) = block_info[None]["array-location"]
    return pattern(y0, x0, y1 - y0, x1 - x0)


def checksum(a):
    """Order-independent summary of an int16 block: sum, sum of squares, maximum."""
    a = a.astype(np.int64)
    return np.array([[a.sum(), (a * a).sum(), a.max()]], np.int64)


def run(size, chunk, workers, memory):
    side = (chunk,) * (size // chunk) + ((size % chunk,) if size % chunk else ())
    img = da.map_blocks(block, chunks=(side, side), dtype=np.uint8)
    lap = kd.map_filter(kvlcv.laplacian, img, mask=5, border="mirror")
    parts = lap.map_blocks(checksum, chunks=(1, 3), dtype=np.int64)
    with LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                      memory_limit=memory, dashboard_address=None) as cluster, Client(cluster):
        t = time.perf_counter()
        p = parts.compute().reshape(-1, 3)      # one (sum, squares, max) row per tile
        dt = time.perf_counter() - t
    return np.array([p[:, 0].sum(), p[:, 1].sum(), p[:, 2].max()]), dt


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--size", type=int, default=40000)
    ap.add_argument("--chunk", type=int, default=4096)
    ap.add_argument("--workers", type=int, nargs="+", default=[2])
    ap.add_argument("--memory", default="1GiB")
    ap.add_argument("--whole", action="store_true")
    args = ap.parse_args()
    kvlcv.set_num_threads(1)
    mpix = args.size * args.size / 1e6
    results = []
    for n in args.workers:
        s, dt = run(args.size, args.chunk, n, args.memory)
        results.append(s)
        print(f"{n} worker process(es), {args.memory} each: {dt:.2f} s, {mpix / dt:.0f} Mpixel/s, "
              f"checksum {s.tolist()}")
    if args.whole:
        t0 = time.perf_counter()
        img = pattern(0, 0, args.size, args.size)
        t = time.perf_counter()
        lap = kvlcv.laplacian(img, mask=5, border="mirror")
        dt = time.perf_counter() - t
        stripes = np.concatenate([checksum(lap[y:y + args.chunk])
                                  for y in range(0, args.size, args.chunk)])
        s = np.array([stripes[:, 0].sum(), stripes[:, 1].sum(), stripes[:, 2].max()])
        total = time.perf_counter() - t0
        print(f"whole image in one process: the call {dt:.2f} s ({mpix / dt:.0f} Mpixel/s); with "
              f"making the image and the checksum as the tiles do {total:.2f} s "
              f"({mpix / total:.0f} Mpixel/s); checksum {s.tolist()}")
        assert all((r == s).all() for r in results), "tiled and whole-image results differ"
        print("tiled results equal the whole-image call")


if __name__ == "__main__":
    main()
