"""Tiled processing of 2-D dask arrays with kvlCV, bit-identical to the whole-image call.

A neighbourhood filter of radius r runs on every chunk extended by r pixels of its neighbours
(dask's overlap without boundary padding). The filter is called on the chunk's own region as a
view into that extended block, with the in-memory border flag set on each inner side, so inner
edges read the real neighbour pixels while the image's outer edges get the requested border
mode. Every tile therefore computes exactly what the whole-image call computes for its pixels.

    import dask.array as da, kvlcv, kvlcv.dask
    img = da.from_array(big_uint8_array, chunks=2048)
    dx = kvlcv.dask.map_filter(kvlcv.laplacian, img, mask=5, border="mirror")
    dx.to_zarr(...) / dx.compute() / dx.store(...)

Needs dask (Debian: python3-dask); only this module imports it.
"""
import inspect

import numpy as np
import dask.array as da

from . import _ops

# Radius of each filter's neighbourhood for a mask size.
_FIXED_RADIUS = {"scharr_horiz": 1, "scharr_vert": 1}


def _radius(func, mask):
    name = getattr(func, "__name__", "")
    if name in _FIXED_RADIUS:
        return _FIXED_RADIUS[name]
    return {3: 1, 33: 1, 5: 2, 55: 2}[mask]


def map_filter(func, arr, depth=None, mask=3, border="replicate", **kwargs):
    """Applies the neighbourhood filter func (a kvlcv function taking src, border=, inmem= and
    returning an array of src's height and width) to the 2-D dask array arr chunk by chunk.
    depth is the filter's radius (default from func and mask). Returns a dask array with arr's
    chunks whose computed value equals func(arr.compute(), mask=mask, border=border, **kwargs).
    border may be any mode except 'inmem'."""
    if arr.ndim != 2:
        raise ValueError("map_filter: a 2-D dask array is expected")
    if border == "inmem" or border == 6:
        raise ValueError("map_filter: the image's outer border needs a mode other than 'inmem'")
    if depth is None:
        depth = _radius(func, mask)
    if "mask" in inspect.signature(func).parameters:
        kwargs["mask"] = mask
    probe = func(np.zeros((8, 8), arr.dtype), border=border, **kwargs)
    # Each chunk must be at least depth wide for the overlap.
    if min(min(c) for c in arr.chunks) < depth:
        arr = arr.rechunk({0: max(depth, max(arr.chunks[0])), 1: max(depth, max(arr.chunks[1]))})
    if depth == 0:
        return arr.map_blocks(lambda b: func(b, border=border, **kwargs), dtype=probe.dtype)
    # The periodic border reads the opposite edge, which dask's periodic overlap supplies: then
    # every side of every tile is read from memory.
    periodic = border in ("wrap", 2)
    bound = "periodic" if periodic else "none"
    ext = da.overlap.overlap(arr, depth={0: depth, 1: depth}, boundary={0: bound, 1: bound})
    nrows, ncols = (1, 1) if periodic else (len(arr.chunks[0]), len(arr.chunks[1]))

    def tile(block, block_info=None):
        i, j = (0, 0) if periodic else block_info[None]["chunk-location"]
        top = depth if i > 0 or periodic else 0
        bottom = depth if i < nrows - 1 or periodic else 0
        left = depth if j > 0 or periodic else 0
        right = depth if j < ncols - 1 or periodic else 0
        view = block[top:block.shape[0] - bottom, left:block.shape[1] - right]
        inmem = [s for s, on in (("top", top), ("bottom", bottom), ("left", left),
                                 ("right", right)) if on]
        return func(view, border=border, inmem=inmem, **kwargs)

    return ext.map_blocks(tile, chunks=arr.chunks, dtype=probe.dtype)


def map_pixels(func, *arrays, **kwargs):
    """Applies a per-pixel kvlcv function (absdiff, absdiff_scalar, ...) to 2-D dask arrays of
    one shape chunk by chunk (the chunks are aligned first); extra keyword arguments are passed
    through."""
    first = arrays[0]
    probe = func(*(np.zeros((2, 2), a.dtype) for a in arrays), **kwargs)
    arrays = [a.rechunk(first.chunks) for a in arrays]
    return da.map_blocks(lambda *bs: func(*bs, **kwargs), *arrays, dtype=probe.dtype)


def canny_derivatives(arr, border="replicate", **kwargs):
    """The horizontal and vertical Scharr derivatives (int16) of a 2-D uint8 dask array, tile
    by tile; kvlcv.canny_from_derivatives then finds the edges (the edge tracing links pixels
    across the whole image, so it runs on the whole image)."""
    dx = map_filter(_ops.scharr_vert, arr, border=border, dtype=np.int16, **kwargs)
    dy = map_filter(_ops.scharr_horiz, arr, border=border, dtype=np.int16, **kwargs)
    return dx, dy
