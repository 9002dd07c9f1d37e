"""The Pythonic layer: NumPy arrays in, NumPy arrays out.

Images are 2-D arrays (height, width) for one channel or 3-D (height, width, channels) for
interleaved channels. Any row stride works (the row step is strides[0]), so views, crops and
padded arrays go to the library without a copy; the pixels of a row must be contiguous and rows
must go downwards, else ValueError. A dtype with no member raises TypeError. Outputs are
allocated unless ``out=`` is given (then it is written and returned; it must be writable and of
the result's shape and dtype). Work buffers are sized and allocated internally. A negative
library status raises kvlcv.Error, a positive one warns kvlcv.KvlWarning. The GIL is released
during every library call.
"""
import ctypes

import numpy as np

from .lowlevel import KvliSize, lib, core, check, CONSTANTS

_SUFFIX = {np.dtype(np.uint8): "8u", np.dtype(np.int8): "8s", np.dtype(np.uint16): "16u",
           np.dtype(np.int16): "16s", np.dtype(np.int32): "32s", np.dtype(np.float32): "32f",
           np.dtype(np.float64): "64f"}
_DTYPE = {v: k for k, v in _SUFFIX.items()}

BORDERS = {"constant": 0, "replicate": 1, "wrap": 2, "mirror": 3, "mirror_r": 4, "inmem": 6}
_SIDES = {"top": 16, "bottom": 32, "left": 64, "right": 128}


def border_code(border="replicate", inmem=()):
    """The library's border code for a mode name (or int) and the sides read from memory
    around the image ('top', 'bottom', 'left', 'right')."""
    code = BORDERS[border] if isinstance(border, str) else int(border)
    for side in inmem:
        code |= _SIDES[side]
    return code


def _mask(mask):
    return {3: 33, 5: 55, 33: 33, 55: 55}.get(mask, mask)


def set_num_threads(n):
    """Sets the number of threads the library may use (results never depend on it)."""
    check(core.kvlSetNumThreads(int(n)), "kvlSetNumThreads")


def get_num_threads():
    n = ctypes.c_int()
    check(core.kvlGetNumThreads(ctypes.byref(n)), "kvlGetNumThreads")
    return n.value


def _channels(a):
    return 1 if a.ndim == 2 else a.shape[2]


def _image(a, what, writable=False):
    """(address, row step) of an image array, after checking its layout."""
    if not isinstance(a, np.ndarray):
        raise TypeError(f"{what}: expected a numpy.ndarray, got {type(a).__name__}")
    st = a.strides
    it = a.itemsize
    if a.ndim == 2:
        ok = st[1] == it or a.shape[1] == 1
    elif a.ndim == 3:
        ok = (st[2] == it or a.shape[2] == 1) and (st[1] == it * a.shape[2] or a.shape[1] == 1)
    else:
        raise ValueError(f"{what}: expected a 2-D or 3-D image, got shape {a.shape}")
    if not ok:
        raise ValueError(f"{what}: the pixels of a row must be contiguous (strides {st})")
    step = st[0]
    row = it * (a.size // a.shape[0] if a.shape[0] else 0)
    if a.shape[0] <= 1:
        step = max(step, row)
    elif step < row:
        raise ValueError(f"{what}: rows must go downwards without overlap (strides {st})")
    if writable and not a.flags.writeable:
        raise ValueError(f"{what}: the array is not writable")
    return a.ctypes.data, step


def _size(a):
    return KvliSize(a.shape[1], a.shape[0])


def _output(out, shape, dtype, what="out"):
    if out is None:
        return np.empty(shape, dtype)
    if not isinstance(out, np.ndarray):
        raise TypeError(f"{what}: expected a numpy.ndarray")
    if out.dtype != dtype:
        raise TypeError(f"{what}: dtype {out.dtype}, expected {np.dtype(dtype)}")
    if out.shape != tuple(shape):
        raise ValueError(f"{what}: shape {out.shape}, expected {tuple(shape)}")
    return out


def _same_shape(a, b, what):
    if a.shape != b.shape:
        raise ValueError(f"{what}: shape {b.shape} differs from {a.shape}")


def _member(base, key, table):
    name = table.get(key)
    if name is None:
        raise TypeError(f"{base}: no member for {key}; supported: {sorted(table)}")
    return name


def _buffer(query, *args):
    n = ctypes.c_int()
    check(getattr(lib, query)(*args, ctypes.byref(n)), query)
    return np.empty(max(n.value, 1), np.uint8)


def _members(prefix, suffixes):
    """{suffix: C function} for the members of prefix that exist in the library."""
    return {s: getattr(lib, f"{prefix}_{s}") for s in suffixes if hasattr(lib, f"{prefix}_{s}")}


# ------------------------------------------------------------------------------------------------
# Fixed derivative and smoothing filters. One table row per operation: the C names of the filter
# and its buffer query, and whether it takes a mask size.
_DERIV = {
    "sobel_horiz": ("kvliFilterSobelHorizBorder", "kvliFilterSobelHorizGetBufferSize", True),
    "sobel_vert": ("kvliFilterSobelVertBorder", "kvliFilterSobelVertGetBufferSize", True),
    "sobel_neg_vert": ("kvliFilterSobelNegVertBorder", "kvliFilterSobelNegVertGetBufferSize", True),
    "sobel_horiz_second": ("kvliFilterSobelHorizSecondBorder",
                           "kvliFilterSobelHorizSecondGetBufferSize", True),
    "sobel_vert_second": ("kvliFilterSobelVertSecondBorder",
                          "kvliFilterSobelVertSecondGetBufferSize", True),
    "sobel_cross": ("kvliFilterSobelCrossBorder", "kvliFilterSobelCrossGetBufferSize", True),
    "scharr_horiz": ("kvliFilterScharrHorizBorder", "kvliFilterScharrHorizGetBufferSize", False),
    "scharr_vert": ("kvliFilterScharrVertBorder", "kvliFilterScharrVertGetBufferSize", False),
    "laplacian": ("kvliFilterLaplacianBorder", "kvliFilterLaplacianGetBufferSize", True),
    "lowpass": ("kvliFilterLowpassBorder", "kvliFilterLowpassGetBufferSize", True),
}
# (source, destination) dtype suffixes -> member suffix, in order of preference for the default.
_DERIV_TYPES = [("8u", "16s", "8u16s_C1R"), ("8u", "8s", "8u8s_C1R"), ("8u", "8u", "8u_C1R"),
                ("32f", "32f", "32f_C1R")]


def _make_deriv(opname, cname, query, has_mask):
    members = {}
    for s, d, suffix in _DERIV_TYPES:
        if hasattr(lib, f"{cname}_{suffix}"):
            members.setdefault(s, []).append((d, getattr(lib, f"{cname}_{suffix}"),
                                              getattr(lib, f"{query}_{suffix}"), suffix))

    def op(src, mask=3, border="replicate", border_value=0, divisor=1, dtype=None, inmem=(),
           out=None):
        if not isinstance(src, np.ndarray):
            raise TypeError("src: expected a numpy.ndarray")
        if src.ndim != 2:
            raise ValueError(f"{opname}: src must be a 2-D image, got shape {src.shape}")
        cands = members.get(_SUFFIX.get(src.dtype))
        if cands is None:
            raise TypeError(f"{opname}: takes 2-D images of dtype "
                            f"{sorted(str(_DTYPE[k]) for k in members)}; got {src.dtype} "
                            f"with shape {src.shape}")
        if dtype is None and out is not None:
            dtype = out.dtype
        if dtype is None:
            d, fn, q, suffix = cands[0]
        else:
            want = _SUFFIX.get(np.dtype(dtype))
            for d, fn, q, suffix in cands:
                if d == want:
                    break
            else:
                raise TypeError(f"{opname}: no member from {src.dtype} to {np.dtype(dtype)}")
        ps, ss = _image(src, "src")
        dst = _output(out, src.shape, _DTYPE[d])
        pd, sd = _image(dst, "out", True)
        size = KvliSize(src.shape[1], src.shape[0])
        code = border_code(border, inmem)
        m = _mask(mask)
        args = [ps, ss, pd, sd, size]
        qargs = [size]
        if has_mask:
            args.append(m)
            qargs.append(m)
        args += [code, border_value]
        if suffix == "8u8s_C1R":
            args.append(divisor)
        n = ctypes.c_int()
        check(q(*qargs, ctypes.byref(n)), f"{query}_{suffix}")
        buf = np.empty(max(n.value, 1), np.uint8)
        args.append(buf.ctypes.data)
        check(fn(*args), f"{cname}_{suffix}")
        return dst

    types = ", ".join(f"{_DTYPE[s]}->{_DTYPE[d]}" for s, c in members.items() for d, *_ in c)
    op.__name__ = op.__qualname__ = opname
    op.__doc__ = (
        f"{opname}(src, mask=3, border='replicate', border_value=0, divisor=1, dtype=None, "
        f"inmem=(), out=None)\n\n"
        f"Applies {cname} to a 2-D image and returns an array of src's shape.\n"
        f"dtypes (src->result; the first is the default, choose with dtype= or out=): {types}.\n"
        f"mask: 3 or 5{'' if has_mask else ' (ignored: the filter has a fixed 3x3 kernel)'}; "
        f"divisor: 8-bit results only.\nborder: 'constant' (border_value), 'replicate', 'wrap', "
        f"'mirror', 'mirror_r' or 'inmem' (all sides read from memory around src); inmem= lists "
        f"sides read from memory with any mode (src must then be a view into a larger array).")
    return op


for _name, (_c, _q, _m) in _DERIV.items():
    globals()[_name] = _make_deriv(_name, _c, _q, _m)

_SOBEL = {"horiz": "sobel_horiz", "vert": "sobel_vert", "neg_vert": "sobel_neg_vert",
          "horiz_second": "sobel_horiz_second", "vert_second": "sobel_vert_second",
          "cross": "sobel_cross"}


def sobel(src, direction="horiz", **kwargs):
    """Sobel derivative: direction is 'horiz' (row below minus row above), 'vert', 'neg_vert'
    (left minus right column), 'horiz_second', 'vert_second' or 'cross'. Other arguments as
    sobel_horiz."""
    return globals()[_SOBEL[direction]](src, **kwargs)


def scharr(src, direction="horiz", **kwargs):
    """Scharr derivative: direction 'horiz' or 'vert'. Other arguments as scharr_horiz."""
    return globals()["scharr_" + direction](src, **kwargs)


# ------------------------------------------------------------------------------------------------
# Canny
_KERNELS = {"sobel": 2, "scharr": 5}
_NORMS = {"l1": 2, "l2": 4}


def canny(src, low, high, kernel="sobel", mask=3, norm="l2", border="replicate", border_value=0,
          inmem=(), out=None):
    """Canny edges of a 2-D uint8 image: returns a uint8 image of src's shape (255 edge, 0 not).
    kernel 'sobel' (mask 3 or 5) or 'scharr' (mask 3); norm 'l1' or 'l2'; border as sobel."""
    if not isinstance(src, np.ndarray) or src.dtype != np.uint8 or src.ndim != 2:
        raise TypeError("canny: src must be a 2-D uint8 array")
    ps, ss = _image(src, "src")
    dst = _output(out, src.shape, np.uint8)
    pd, sd = _image(dst, "out", True)
    size = _size(src)
    k, m = _KERNELS[kernel], _mask(mask)
    buf = _buffer("kvliCannyBorderGetSize", size, k, m, CONSTANTS["kvl8u"])
    check(lib.kvliCannyBorder_8u_C1R(ps, ss, pd, sd, size, k, m, border_code(border, inmem),
                                     border_value, low, high, _NORMS[norm], buf.ctypes.data),
          "kvliCannyBorder_8u_C1R")
    return dst


def canny_from_derivatives(dx, dy, low, high, out=None):
    """Canny edges from horizontal and vertical derivatives (both int16 or both float32, 2-D,
    same shape); returns uint8 edges."""
    table = {"16s": lib.kvliCanny_16s8u_C1R, "32f": lib.kvliCanny_32f8u_C1R}
    fn = table.get(_SUFFIX.get(getattr(dx, "dtype", None)))
    if fn is None or getattr(dy, "dtype", None) != dx.dtype or dx.ndim != 2:
        raise TypeError("canny_from_derivatives: dx and dy must be 2-D, both int16 or float32")
    _same_shape(dx, dy, "dy")
    px, sx = _image(dx, "dx")
    py, sy = _image(dy, "dy")
    dst = _output(out, dx.shape, np.uint8)
    pd, sd = _image(dst, "out", True)
    size = _size(dx)
    buf = _buffer("kvliCannyGetSize", size)
    check(fn(px, sx, py, sy, pd, sd, size, low, high, buf.ctypes.data), "kvliCanny")
    return dst


# ------------------------------------------------------------------------------------------------
# Accumulation: acc (2-D float32) is updated in place and returned.
def _accumulate(base, srcs, acc, mask, extra=()):
    s0 = srcs[0]
    if not isinstance(s0, np.ndarray) or not isinstance(acc, np.ndarray):
        raise TypeError(f"{base}: arrays expected")
    suffix = "32f" if s0.dtype == np.float32 else f"{_SUFFIX.get(s0.dtype, s0.dtype)}32f"
    suffix += "_C1IR" if mask is None else "_C1IMR"
    fn = getattr(lib, f"{base}_{suffix}", None)
    if fn is None or s0.ndim != 2:
        raise TypeError(f"{base}: no member for a {s0.ndim}-D {s0.dtype} source"
                        f"{'' if mask is None else ' with a mask'}")
    if acc.dtype != np.float32:
        raise TypeError(f"{base}: acc must be float32, got {acc.dtype}")
    args = []
    for i, s in enumerate(srcs):
        if s.dtype != s0.dtype:
            raise TypeError(f"{base}: sources differ in dtype")
        _same_shape(acc, s, f"source {i}")
        args += _image(s, f"source {i}")
    if mask is not None:
        if getattr(mask, "dtype", None) != np.uint8:
            raise TypeError(f"{base}: mask must be uint8")
        _same_shape(acc, mask, "mask")
        args += _image(mask, "mask")
    args += _image(acc, "acc", True)
    check(fn(*args, _size(acc), *extra), f"{base}_{suffix}")
    return acc


def add(src, acc, mask=None):
    """acc += src (where mask != 0). src uint8, int8, uint16 or float32 (float32 needs a mask);
    acc float32 of the same 2-D shape, updated in place and returned."""
    return _accumulate("kvliAdd", (src,), acc, mask)


def add_square(src, acc, mask=None):
    """acc += src * src (where mask != 0); dtypes as add."""
    return _accumulate("kvliAddSquare", (src,), acc, mask)


def add_product(src1, src2, acc, mask=None):
    """acc += src1 * src2 (where mask != 0); src1, src2 of one dtype, as add."""
    return _accumulate("kvliAddProduct", (src1, src2), acc, mask)


def add_weighted(src, acc, alpha, mask=None):
    """acc = acc * (1 - alpha) + src * alpha (where mask != 0); dtypes as add."""
    return _accumulate("kvliAddWeighted", (src,), acc, mask, (alpha,))


def weighted_sum(src1, src2, alpha, out=None):
    """Returns src1 * alpha + src2 * (1 - alpha) as computed by kvliAddWeighted_32f_C1R
    (float32 2-D images of one shape)."""
    for a in (src1, src2):
        if getattr(a, "dtype", None) != np.float32 or a.ndim != 2:
            raise TypeError("weighted_sum: float32 2-D images expected")
    _same_shape(src1, src2, "src2")
    dst = _output(out, src1.shape, np.float32)
    check(lib.kvliAddWeighted_32f_C1R(*_image(src1, "src1"), *_image(src2, "src2"),
                                      *_image(dst, "out", True), _size(src1), alpha),
          "kvliAddWeighted_32f_C1R")
    return dst


# ------------------------------------------------------------------------------------------------
# Absolute difference
_ABSDIFF = _members("kvliAbsDiff", ["8u_C1R", "8u_C3R", "16u_C1R", "32f_C1R"])
_ABSDIFFC = _members("kvliAbsDiffC", ["8u_C1R", "16u_C1R", "32f_C1R"])


def _key(a):
    if not isinstance(a, np.ndarray):
        raise TypeError(f"expected a numpy.ndarray, got {type(a).__name__}")
    return f"{_SUFFIX.get(a.dtype, a.dtype)}_C{_channels(a)}R"


def absdiff(src1, src2, out=None):
    """|src1 - src2| per pixel: uint8 (1 or 3 channels), uint16 or float32; same shapes."""
    key = _key(src1)
    fn = _member("absdiff", key, _ABSDIFF)
    if getattr(src2, "dtype", None) != src1.dtype:
        raise TypeError("absdiff: src2 must have src1's dtype")
    _same_shape(src1, src2, "src2")
    dst = _output(out, src1.shape, src1.dtype)
    check(fn(*_image(src1, "src1"), *_image(src2, "src2"), *_image(dst, "out", True),
             _size(src1)), f"kvliAbsDiff_{key}")
    return dst


def absdiff_scalar(src, value, out=None):
    """|src - value| per pixel: uint8, uint16 (value an int) or float32 (value a float)."""
    key = _key(src)
    fn = _member("absdiff_scalar", key, _ABSDIFFC)
    dst = _output(out, src.shape, src.dtype)
    check(fn(*_image(src, "src"), *_image(dst, "out", True), _size(src), value),
          f"kvliAbsDiffC_{key}")
    return dst


# ------------------------------------------------------------------------------------------------
# Motion history
_MHI = _members("kvliUpdateMotionHistory", ["8u32f_C1IR", "16u32f_C1IR", "32f_C1IR"])


def update_motion_history(silhouette, mhi, timestamp, duration):
    """Updates the float32 motion-history image mhi in place from a 2-D silhouette (uint8,
    uint16 or float32, nonzero = moving) and returns it."""
    s = _SUFFIX.get(getattr(silhouette, "dtype", None))
    fn = _member("update_motion_history", "32f_C1IR" if s == "32f" else f"{s}32f_C1IR", _MHI)
    if getattr(mhi, "dtype", None) != np.float32:
        raise TypeError("update_motion_history: mhi must be float32")
    _same_shape(mhi, silhouette, "silhouette")
    check(fn(*_image(silhouette, "silhouette"), *_image(mhi, "mhi", True), _size(mhi),
             timestamp, duration), "kvliUpdateMotionHistory")
    return mhi
