"""The Pythonic layer: NumPy arrays in, NumPy arrays out.

Images are 2-D arrays (height, width) for one channel or 3-D (height, width, channels) for
interleaved channels. Any row stride works (the row step is strides[0]), so views, crops and
padded arrays go to the library without a copy; the pixels of a row must be contiguous and rows
must go downwards, else ValueError. A dtype with no member raises TypeError. Outputs are
allocated unless ``out=`` is given (then it is written and returned; it must be writable and of
the result's shape and dtype). Work buffers are sized and allocated internally; each thread
keeps its largest one (up to 64 MiB) for its next calls. A negative library status raises
kvlcv.Error, a positive one warns kvlcv.KvlWarning. The GIL is released during every library
call.
"""
import ctypes
import threading

import numpy as np

from . import _native
from .lowlevel import KvliSize, lib, core, check, CONSTANTS

_native_image = _native._image

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
    check(core.kvlGetNumThreads(ctypes.addressof(n)), "kvlGetNumThreads")
    return n.value


def _channels(a):
    return 1 if a.ndim == 2 else a.shape[2]


def _image(a, what, writable=False):
    """(address, row step) of an image array, after checking its layout."""
    if not isinstance(a, np.ndarray):
        raise TypeError(f"{what}: expected a numpy.ndarray, got {type(a).__name__}")
    # The compiled module reads the layout through the buffer protocol and takes every layout
    # the library can (the checks below, in C); it returns None for the rest.
    r = _native_image(a, writable)
    if r is not None:
        return r
    st = a.strides
    it = a.itemsize
    if a.size == 0:
        return a.ctypes.data, 0     # the library reports the empty size
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
    return _address(a), step


def _address(a):
    """The address of a's first element. A writable contiguous array's address is read through
    the buffer protocol, which costs a third of building the array's ctypes view."""
    f = a.flags
    if f.c_contiguous and f.writeable and a.size:
        return ctypes.addressof(ctypes.c_char.from_buffer(a))
    return a.ctypes.data


def _size(a):
    return (a.shape[1], a.shape[0])     # a KvliSize (width, height)


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


# Work buffers are scratch: the library never reads what a call did not write in them. Each
# Python thread keeps the largest one it has used (up to _SCRATCH_KEEP bytes) and lends it to its
# next call, so a call on a large image does not map and fault in fresh pages for its buffer.
# Threads never share one, as the GIL is released during the calls.
_SCRATCH_KEEP = 64 << 20
_scratch = threading.local()


class _Scratch:
    __slots__ = ("array", "address")

    def __init__(self, nbytes):
        self.array = np.empty(nbytes, np.uint8)
        self.address = _address(self.array)


def _scratch_buffer(nbytes):
    """A work buffer of at least nbytes bytes; .address is what the library is given."""
    n = max(nbytes, 1)
    buf = getattr(_scratch, "buf", None)
    if buf is not None and buf.array.size >= n:
        return buf
    buf = _Scratch(n)
    if n <= _SCRATCH_KEEP:
        _scratch.buf = buf
    return buf


def _buffer(query, *args):
    n = ctypes.c_int()
    check(getattr(lib, query)(*args, ctypes.addressof(n)), query)
    return _scratch_buffer(n.value)


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
    # Per source dtype, the candidate members: (result dtype suffix, result dtype, filter,
    # buffer query, and the two C names for error messages), named once here so that a call
    # builds no strings.
    members = {}
    for s, d, suffix in _DERIV_TYPES:
        if hasattr(lib, f"{cname}_{suffix}"):
            members.setdefault(s, []).append((d, _DTYPE[d], getattr(lib, f"{cname}_{suffix}"),
                                              getattr(lib, f"{query}_{suffix}"),
                                              f"{cname}_{suffix}", f"{query}_{suffix}",
                                              suffix == "8u8s_C1R"))

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
            member = cands[0]
        else:
            want = _SUFFIX.get(np.dtype(dtype))
            for member in cands:
                if member[0] == want:
                    break
            else:
                raise TypeError(f"{opname}: no member from {src.dtype} to {np.dtype(dtype)}")
        _, rtype, fn, q, fname, qname, has_divisor = member
        ps, ss = _image(src, "src")
        dst = _output(out, src.shape, rtype)
        pd, sd = _image(dst, "out", True)
        size = (src.shape[1], src.shape[0])
        code = border_code(border, inmem)
        n = ctypes.c_int()
        if has_mask:
            m = _mask(mask)
            check(q(size, m, ctypes.addressof(n)), qname)
            args = (ps, ss, pd, sd, size, m, code, border_value)
        else:
            check(q(size, ctypes.addressof(n)), qname)
            args = (ps, ss, pd, sd, size, code, border_value)
        if has_divisor:
            args += (divisor,)
        check(fn(*args, _scratch_buffer(n.value).address), fname)
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
                                     border_value, low, high, _NORMS[norm], buf.address),
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
    check(fn(px, sx, py, sy, pd, sd, size, low, high, buf.address), "kvliCanny")
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
    """acc = acc + alpha * (src - acc) in single precision (where mask != 0); dtypes as add."""
    return _accumulate("kvliAddWeighted", (src,), acc, mask, (alpha,))


def weighted_sum(src1, src2, alpha, out=None):
    """Returns src2 + alpha * (src1 - src2) in single precision (kvliAddWeighted_32f_C1R;
    float32 2-D images of one shape)."""
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


def _key1(src, what):
    """Member key (e.g. '8u_C3R') and channel count of a source image."""
    if not isinstance(src, np.ndarray):
        raise TypeError(f"{what}: expected a numpy.ndarray, got {type(src).__name__}")
    if src.ndim not in (2, 3):
        raise ValueError(f"{what}: expected a 2-D or 3-D image, got shape {src.shape}")
    return _key(src)


# ------------------------------------------------------------------------------------------------
# Gaussian pyramids
_PYR = {d: _members(f"kvliPyr{d}_Gauss5x5", [f"{t}_C{c}R" for t in ("8u", "8s", "32f")
                                              for c in (1, 3)]) for d in ("Down", "Up")}


def _pyr(direction, src, out):
    key = _key1(src, f"pyr_{direction.lower()}")
    fn = _member(f"pyr_{direction.lower()}", key, _PYR[direction])
    h, w = src.shape[:2]
    shape = ((h + 1) >> 1, (w + 1) >> 1) if direction == "Down" else (2 * h, 2 * w)
    dst = _output(out, shape + src.shape[2:], src.dtype)
    buf = _buffer(f"kvliPyr{direction}GetBufSize_Gauss5x5", w, CONSTANTS["kvl" + key.split("_")[0]],
                  _channels(src))
    check(fn(*_image(src, "src"), *_image(dst, "out", True), _size(src), buf.address),
          f"kvliPyr{direction}_Gauss5x5_{key}")
    return dst


def pyr_down(src, out=None):
    """One Gaussian pyramid level down: uint8, int8 or float32, 1 or 3 channels; the result is
    ((h+1)//2, (w+1)//2[, 3])."""
    return _pyr("Down", src, out)


def pyr_up(src, out=None):
    """One Gaussian pyramid level up: uint8, int8 or float32, 1 or 3 channels; the result is
    (2h, 2w[, 3])."""
    return _pyr("Up", src, out)


# ------------------------------------------------------------------------------------------------
# Integral images
_INTEGRAL = {("8u", "32s"): lib.kvliIntegral_8u32s_C1R, ("8u", "32f"): lib.kvliIntegral_8u32f_C1R,
             ("32f", "32f"): lib.kvliIntegral_32f_C1R}
_TILTED = {"32s": lib.kvliTiltedIntegral_8u32s_C1R, "32f": lib.kvliTiltedIntegral_8u32f_C1R}
_SQR = {("32s", "32s"): "8u32s", ("32s", "64f"): "8u32s64f", ("32f", "64f"): "8u32f64f"}


def integral(src, offset=0, dtype=np.int32, out=None):
    """Summed-area table (h+1, w+1) of a 2-D image: uint8 -> int32 (default) or float32, float32
    -> float32. Row 0 and column 0 hold offset (not used for float32 sources)."""
    if not isinstance(src, np.ndarray) or src.ndim != 2:
        raise TypeError("integral: a 2-D numpy array is expected")
    if src.dtype == np.float32:
        dtype = np.float32
    key = (_SUFFIX.get(src.dtype), _SUFFIX.get(np.dtype(dtype)))
    fn = _member("integral", key, _INTEGRAL)
    dst = _output(out, (src.shape[0] + 1, src.shape[1] + 1), dtype)
    args = [*_image(src, "src"), *_image(dst, "out", True), _size(src)]
    if key[0] == "8u":
        args.append(offset)
    check(fn(*args), "kvliIntegral")
    return dst


def sqr_integral(src, offset=0, sqr_offset=0, dtype=np.int32, sqr_dtype=np.float64, tilted=False):
    """(sum table, square-sum table) of a 2-D uint8 image: (h+1, w+1), or (h+2, w+2) when
    tilted. dtype/sqr_dtype: int32/int32, int32/float64 (default) or float32/float64."""
    if getattr(src, "dtype", None) != np.uint8 or src.ndim != 2:
        raise TypeError("sqr_integral: a 2-D uint8 array is expected")
    key = (_SUFFIX[np.dtype(dtype)], _SUFFIX[np.dtype(sqr_dtype)])
    suffix = _member("sqr_integral", key, _SQR)
    pad = 2 if tilted else 1
    shape = (src.shape[0] + pad, src.shape[1] + pad)
    dst, sqr = np.empty(shape, dtype), np.empty(shape, sqr_dtype)
    name = f"kvli{'Tilted' if tilted else ''}SqrIntegral_{suffix}_C1R"
    check(getattr(lib, name)(*_image(src, "src"), *_image(dst, "sum", True),
                             *_image(sqr, "sqr", True), _size(src), offset, sqr_offset), name)
    return dst, sqr


def tilted_integral(src, offset=0, dtype=np.int32, out=None):
    """Tilted (45 degree) summed-area table (h+2, w+2) of a 2-D uint8 image; int32 or float32."""
    if getattr(src, "dtype", None) != np.uint8 or src.ndim != 2:
        raise TypeError("tilted_integral: a 2-D uint8 array is expected")
    fn = _member("tilted_integral", _SUFFIX.get(np.dtype(dtype)), _TILTED)
    dst = _output(out, (src.shape[0] + 2, src.shape[1] + 2), dtype)
    check(fn(*_image(src, "src"), *_image(dst, "out", True), _size(src), offset),
          "kvliTiltedIntegral")
    return dst


# ------------------------------------------------------------------------------------------------
# Min/max filters and morphology
_MINMAX = {op: _members(f"kvliFilter{op}BorderReplicate",
                        [f"{t}_C{c}R" for t in ("8u", "16u", "16s", "32f") for c in (1, 3, 4)])
           for op in ("Min", "Max")}


def _minmax(op, src, size, anchor, out):
    key = _key1(src, f"{op.lower()}_filter")
    fn = _member(f"{op.lower()}_filter", key, _MINMAX[op])
    mw, mh = (size, size) if np.isscalar(size) else size
    ax, ay = anchor if anchor is not None else (mw // 2, mh // 2)
    dst = _output(out, src.shape, src.dtype)
    msize = (mw, mh)
    buf = _buffer(f"kvliFilter{op}GetBufferSize_{key}", src.shape[1], msize)
    check(fn(*_image(src, "src"), *_image(dst, "out", True), _size(src), msize,
             (ax, ay), buf.address), f"kvliFilter{op}BorderReplicate_{key}")
    return dst


def min_filter(src, size=3, anchor=None, out=None):
    """Minimum over a size (int or (width, height)) window, edges replicated; anchor (x, y)
    defaults to the centre. uint8, uint16, int16 or float32 images (channels as the library
    provides)."""
    return _minmax("Min", src, size, anchor, out)


def max_filter(src, size=3, anchor=None, out=None):
    """Maximum over a window; as min_filter."""
    return _minmax("Max", src, size, anchor, out)


_MORPH = {op: _members(f"kvli{op}Border", [f"{t}_C{c}R" for t in ("8u", "16u", "16s", "32f")
                                           for c in (1, 3, 4)]) for op in ("Erode", "Dilate")}


class Morphology:
    """A structuring element prepared for images up to max_width wide and a source's key.

    Morphology(kernel, dtype, channels=1, max_width): kernel a 2-D array, nonzero = element,
    anchored at ((w-1)//2, (h-1)//2). Its erode/dilate may run from several threads at once (each
    thread has its own work buffer)."""

    def __init__(self, kernel, dtype, channels=1, max_width=4096):
        k = np.ascontiguousarray(kernel, dtype=np.uint8)
        if k.ndim != 2:
            raise ValueError("Morphology: the kernel must be 2-D")
        self.key = f"{_SUFFIX.get(np.dtype(dtype))}_C{channels}R"
        if self.key not in _MORPH["Erode"]:
            raise TypeError(f"Morphology: no member for {self.key}")
        self.max_width = max_width
        self.kernel_size = (k.shape[1], k.shape[0])
        state, buf = ctypes.c_int(), ctypes.c_int()
        name = f"kvliMorphologyBorderGetSize_{self.key}"
        check(getattr(lib, name)(max_width, self.kernel_size, ctypes.addressof(state),
                                 ctypes.addressof(buf)), name)
        self.buffer_size = max(buf.value, 1)
        self._state = np.empty(max(state.value, 1), np.uint8)
        scratch = np.empty(self.buffer_size, np.uint8)
        name = f"kvliMorphologyBorderInit_{self.key}"
        check(getattr(lib, name)(max_width, k.ctypes.data, self.kernel_size,
                                 self._state.ctypes.data, scratch.ctypes.data), name)

    def _run(self, op, src, border, inmem, out):
        key = _key1(src, op.lower())
        if key != self.key:
            raise TypeError(f"{op.lower()}: image is {key}, the element was built for {self.key}")
        dst = _output(out, src.shape, src.dtype)
        buf = _scratch_buffer(self.buffer_size)
        check(_MORPH[op][key](*_image(src, "src"), *_image(dst, "out", True), _size(src),
                              border_code(border, inmem), 0, self._state.ctypes.data,
                              buf.address), f"kvli{op}Border_{key}")
        return dst

    def erode(self, src, border="replicate", inmem=(), out=None):
        return self._run("Erode", src, border, inmem, out)

    def dilate(self, src, border="replicate", inmem=(), out=None):
        return self._run("Dilate", src, border, inmem, out)


def _element(kernel):
    if kernel is None:
        return np.ones((3, 3), np.uint8)
    if np.isscalar(kernel):
        return np.ones((kernel, kernel), np.uint8)
    return kernel


def erode(src, kernel=None, border="replicate", inmem=(), out=None):
    """Erosion (minimum over the structuring element) of a uint8, uint16, int16 or float32
    image (uint8/float32 also 3 or 4 channels). kernel: None (3x3 square), an int n (n x n
    square) or a 2-D array (nonzero = element, anchored at its centre, (w-1)//2, (h-1)//2).
    border: 'replicate' or 'inmem'; inmem= sides read from memory. To reuse one element on many
    images build a Morphology once."""
    m = Morphology(_element(kernel), src.dtype, 1 if src.ndim == 2 else src.shape[2],
                   src.shape[1])
    return m.erode(src, border, inmem, out)


def dilate(src, kernel=None, border="replicate", inmem=(), out=None):
    """Dilation (maximum over the structuring element); as erode."""
    m = Morphology(_element(kernel), src.dtype, 1 if src.ndim == 2 else src.shape[2],
                   src.shape[1])
    return m.dilate(src, border, inmem, out)


# ------------------------------------------------------------------------------------------------
# Distance transforms
def distance_transform(src, mask=3, norm=2, dtype=np.float32, metrics=None, out=None):
    """Chamfer distance of every pixel of a 2-D uint8 image to the nearest zero pixel. mask 3 or
    5; norm 0 (L-infinity), 1 (L1) or 2 (Euclidean approximation) picks the library's weights
    unless metrics (a, b[, c]) is given; dtype uint8, uint16 (integer weights) or float32."""
    if getattr(src, "dtype", None) != np.uint8 or src.ndim != 2:
        raise TypeError("distance_transform: a 2-D uint8 array is expected")
    dkey = _SUFFIX.get(np.dtype(dtype))
    m = _mask(mask) // 11
    suffix = {"8u": "8u_C1R", "16u": "8u16u_C1R", "32f": "8u32f_C1R"}.get(dkey)
    if suffix is None or m not in (3, 5):
        raise TypeError("distance_transform: dtype uint8, uint16 or float32; mask 3 or 5")
    wtype = np.float32 if dkey == "32f" else np.int32
    if metrics is None:
        w = np.zeros(3, wtype)
        q = "kvliGetDistanceTransformMask_32f" if dkey == "32f" else \
            "kvliGetDistanceTransformMask_32s"
        check(getattr(lib, q)(m, norm, w.ctypes.data), q)
    else:
        w = np.ascontiguousarray(metrics, wtype)
    dst = _output(out, src.shape, dtype)
    name = f"kvliDistanceTransform_{m}x{m}_{suffix}"
    check(getattr(lib, name)(*_image(src, "src"), *_image(dst, "out", True), _size(src),
                             w.ctypes.data), name)
    return dst


def true_distance_transform(src, out=None):
    """Exact Euclidean distance (float32) of every pixel of a 2-D uint8 image to the nearest
    zero pixel."""
    if getattr(src, "dtype", None) != np.uint8 or src.ndim != 2:
        raise TypeError("true_distance_transform: a 2-D uint8 array is expected")
    dst = _output(out, src.shape, np.float32)
    buf = _buffer("kvliTrueDistanceTransformGetBufferSize_8u32f_C1R", _size(src))
    check(lib.kvliTrueDistanceTransform_8u32f_C1R(*_image(src, "src"), *_image(dst, "out", True),
                                                  _size(src), buf.address),
          "kvliTrueDistanceTransform_8u32f_C1R")
    return dst


def fast_marching(src, radius=0.0, out=None):
    """Fast-marching distance (float32) from the zero pixels of a 2-D uint8 image."""
    if getattr(src, "dtype", None) != np.uint8 or src.ndim != 2:
        raise TypeError("fast_marching: a 2-D uint8 array is expected")
    dst = _output(out, src.shape, np.float32)
    buf = _buffer("kvliFastMarchingGetBufferSize_8u32f_C1R", _size(src))
    check(lib.kvliFastMarching_8u32f_C1R(*_image(src, "src"), *_image(dst, "out", True),
                                         _size(src), radius, buf.address),
          "kvliFastMarching_8u32f_C1R")
    return dst


# ------------------------------------------------------------------------------------------------
# Segmentation: flood fill, watershed, gradient segmentation
class _ConnectedComp(ctypes.Structure):
    _fields_ = [("area", ctypes.c_double), ("value", ctypes.c_double * 3), ("x", ctypes.c_int),
                ("y", ctypes.c_int), ("width", ctypes.c_int), ("height", ctypes.c_int)]


_FILL_RULES = {("exact", 4): "4Con", ("exact", 8): "8Con", ("range", 4): "Range4Con",
               ("range", 8): "Range8Con", ("grad", 4): "Grad4Con", ("grad", 8): "Grad8Con"}


def flood_fill(image, seed, new_value, rule="exact", connectivity=4, lo=0, hi=0):
    """Repaints in place the connected region of `image` around seed (x, y) with new_value and
    returns the region record {'area', 'value', 'rect': (x, y, width, height)}. rule 'exact'
    (pixels equal to the seed's), 'range' (within [seed - lo, seed + hi]) or 'grad' (within
    [neighbour - lo, neighbour + hi] of the admitted neighbour it is reached from);
    connectivity 4 or 8. uint8/uint16/float32 images with 1 or 3 channels (exact also int32
    with 1); for 3 channels new_value, lo and hi are per channel. When the seed already holds
    new_value (exact and range) nothing is painted and area is 0."""
    name = _FILL_RULES.get((rule, connectivity))
    if name is None:
        raise ValueError("flood_fill: rule 'exact', 'range' or 'grad'; connectivity 4 or 8")
    key = _key1(image, "flood_fill")
    fn = getattr(lib, f"kvliFloodFill_{name}_{key[:-1]}IR", None)
    if fn is None:
        raise TypeError(f"flood_fill: no {rule} member for {key}")
    ptr, step = _image(image, "image", True)
    query = "kvliFloodFillGetSize_Grad" if rule == "grad" else "kvliFloodFillGetSize"
    buf = _buffer(query, _size(image))
    region = _ConnectedComp()
    args = [new_value] + ([lo, hi] if rule != "exact" else [])
    if _channels(image) == 3:
        arrays = [np.ascontiguousarray(np.broadcast_to(v, 3), image.dtype) for v in args]
        args = [a.ctypes.data for a in arrays]
    check(fn(ptr, step, _size(image), tuple(seed), *args, ctypes.addressof(region), buf.address),
          fn.__name__)
    return {"area": region.area, "value": tuple(region.value),
            "rect": (region.x, region.y, region.width, region.height)}


def watershed(src, markers, method="queue", norm=0, boundary=None):
    """Grows the labels of `markers` (uint8: labels 1..254, boundary 255; uint16: labels
    1..65534, boundary 65535; 0 unlabelled) over the uint8 relief `src`, in place, and returns
    markers. method 'queue' (norm 0: 8 neighbours, 1: 4) or 'distance' (norm 0..3: chessboard,
    city-block, 5/7 steps, fast marching); boundary None, 4 or 8 marks the lines between labels."""
    if getattr(src, "dtype", None) != np.uint8 or src.ndim != 2:
        raise TypeError("watershed: src must be a 2-D uint8 array")
    _same_shape(src, markers, "markers")
    types = {np.dtype(np.uint8): "8u", np.dtype(np.uint16): "8u16u"}
    t = types.get(markers.dtype)
    if t is None:
        raise TypeError("watershed: markers must be uint8 or uint16")
    flag = {"queue": 1, "distance": 2}.get(method)
    if flag is None:
        raise ValueError("watershed: method 'queue' or 'distance'")
    flag |= {None: 0, 4: 64, 8: 128}[boundary]
    buf = _buffer(f"kvliSegmentWatershedGetBufferSize_{t}_C1R", _size(src))
    name = f"kvliSegmentWatershed_{t}_C1IR"
    check(getattr(lib, name)(*_image(src, "src"), *_image(markers, "markers", True), _size(src),
                             norm, flag, buf.address), name)
    return markers


def segment_gradient(src, markers, norm=0, boundary=None):
    """Segments a uint8 image with 1 or 3 channels by its gradient into the uint8 marker image
    (labels 1..254 grown from the seeds it holds, or from the gradient's regional minima when it
    holds none; 255 boundaries), in place, and returns markers. norm 0: 8 neighbours, 1: 4;
    boundary None, 4 or 8."""
    key = _key1(src, "segment_gradient")
    if key not in ("8u_C1R", "8u_C3R"):
        raise TypeError("segment_gradient: src must be uint8 with 1 or 3 channels")
    if getattr(markers, "dtype", None) != np.uint8 or markers.shape != src.shape[:2]:
        raise ValueError(f"segment_gradient: markers must be uint8 of shape {src.shape[:2]}")
    buf = _buffer(f"kvliSegmentGradientGetBufferSize_{key}", _size(src))
    name = f"kvliSegmentGradient_{key[:-1]}IR"
    check(getattr(lib, name)(*_image(src, "src"), *_image(markers, "markers", True), _size(src),
                             norm, {None: 0, 4: 64, 8: 128}[boundary], buf.address), name)
    return markers


# ------------------------------------------------------------------------------------------------
# Foreground models
class _Foreground:
    _base = ""

    def __init__(self, first_frame):
        key = _key1(first_frame, self._base)
        if key not in ("8u_C1R", "8u_C3R"):
            raise TypeError(f"{self._base}: uint8 frames with 1 or 3 channels expected")
        self.key, self.shape = key, first_frame.shape
        self._model = ctypes.c_int(0)          # the library never reads the model record
        state = ctypes.c_void_p()
        name = f"kvliForeground{self._base}InitAlloc_{key}"
        check(getattr(lib, name)(*_image(first_frame, "frame"), _size(first_frame),
                                 ctypes.addressof(self._model), ctypes.addressof(state)), name)
        self._state = state.value              # the state's address
        self._free = getattr(lib, f"kvliForeground{self._base}Free_{key}")

    def __del__(self):
        state, self._state = getattr(self, "_state", None), None
        if state:
            self._free(state)

    def apply(self, frame, background=None, foreground=None):
        """Feeds one frame (same shape and dtype as the first); returns (background image,
        foreground mask uint8 2-D)."""
        if _key1(frame, "frame") != self.key or frame.shape != self.shape:
            raise ValueError(f"frame: expected {self.key} of shape {self.shape}")
        bg = _output(background, self.shape, np.uint8, "background")
        fg = _output(foreground, self.shape[:2], np.uint8, "foreground")
        name = f"kvliForeground{self._base}_{self.key}"
        check(getattr(lib, name)(*_image(frame, "frame"), *_image(bg, "background", True),
                                 *_image(fg, "foreground", True), _size(frame), self._state), name)
        return bg, fg


class ForegroundGaussian(_Foreground):
    """Per-pixel Gaussian-mixture background model, built from a first uint8 frame."""
    _base = "Gaussian"


class ForegroundHistogram(_Foreground):
    """Per-pixel colour/change histogram background model, built from a first uint8 frame."""
    _base = "Histogram"


# ------------------------------------------------------------------------------------------------
# Pyramidal Lucas-Kanade tracking
class _Pyramid(ctypes.Structure):
    _fields_ = [("pImage", ctypes.POINTER(ctypes.c_void_p)), ("pRoi", ctypes.POINTER(KvliSize)),
                ("pRate", ctypes.POINTER(ctypes.c_double)), ("pStep", ctypes.POINTER(ctypes.c_int)),
                ("pState", ctypes.c_void_p), ("level", ctypes.c_int)]


_LK = _members("kvliOpticalFlowPyrLK", ["8u_C1R", "16u_C1R", "32f_C1R"])


def _pointer(p):
    """The address a ctypes pointer holds."""
    return ctypes.cast(p, ctypes.c_void_p).value


def _pyramid_levels(img, max_level):
    if isinstance(img, (list, tuple)):
        return list(img)
    levels = [img]
    while len(levels) <= max_level and min(levels[-1].shape) >= 2:
        levels.append(pyr_down(levels[-1]))
    return levels


def optical_flow_pyr_lk(prev, next, points, win_size=21, max_level=3, max_iter=30,
                        threshold=0.01):
    """Tracks points (an (N, 2) array of x, y in prev's pixels) from prev into next with
    pyramidal Lucas-Kanade. prev and next: 2-D uint8 or float32 images (their Gaussian
    pyramids, rate 2, are built with pyr_down), or lists of levels (level 0 first, each level
    the rate-2 size of the one before; the way to track uint16 images). Returns (new points
    float32 (N, 2), status int8 (N,): 0 where the point was tracked, k + 1 where it was lost
    at level k, error float32 (N,))."""
    lv1, lv2 = _pyramid_levels(prev, max_level), _pyramid_levels(next, max_level)
    key = _key1(lv1[0], "prev")
    fn = _member("optical_flow_pyr_lk", key, _LK)
    for a in lv1 + lv2:
        if _key1(a, "level") != key:
            raise TypeError("optical_flow_pyr_lk: every level must have prev's dtype, 1 channel")
    _same_shape(lv1[0], lv2[0], "next")
    pts = np.ascontiguousarray(points, np.float32).reshape(-1, 2)
    n = pts.shape[0]
    nxt = np.empty((n, 2), np.float32)
    status = np.empty(n, np.int8)
    err = np.empty(n, np.float32)
    size = _size(lv1[0])
    recs, keep = [], []
    try:
        for levels in (lv1, lv2):
            rec = ctypes.POINTER(_Pyramid)()
            check(lib.kvliPyramidInitAlloc(ctypes.addressof(rec), max(1, len(levels) - 1), size,
                                           2.0), "kvliPyramidInitAlloc")
            recs.append(rec)
            r = rec.contents
            for k in range(min(r.level, len(levels) - 1) + 1):
                a = levels[k]
                roi = r.pRoi[k]
                if (roi.height, roi.width) != a.shape:
                    raise ValueError(f"pyramid level {k}: shape {a.shape}, the record expects "
                                     f"{(roi.height, roi.width)}")
                r.pImage[k], r.pStep[k] = _image(a, f"level {k}")
                keep.append(a)
        top = min(max_level, min(len(lv1), len(lv2)) - 1, recs[0].contents.level,
                  recs[1].contents.level)
        cell = ctypes.c_void_p()
        check(getattr(lib, f"kvliOpticalFlowPyrLKInitAlloc_{key}")(ctypes.addressof(cell), size,
                                                                  win_size, 0),
              "kvliOpticalFlowPyrLKInitAlloc")
        state = cell.value
        try:
            check(fn(_pointer(recs[0]), _pointer(recs[1]), pts.ctypes.data, nxt.ctypes.data,
                     status.ctypes.data, err.ctypes.data, n, win_size, top, max_iter, threshold,
                     state), f"kvliOpticalFlowPyrLK_{key}")
        finally:
            getattr(lib, f"kvliOpticalFlowPyrLKFree_{key}")(state)
    finally:
        for rec in recs:
            lib.kvliPyramidFree(_pointer(rec))
    return nxt, status, err


# ------------------------------------------------------------------------------------------------
# Rectangle standard deviation from integral tables
_RSD = {("32s", "64f"): "32s32f_C1R", ("32f", "64f"): "32f_C1R"}


def rect_std_dev(sum_table, sqr_table, rect, tilted=False, out=None):
    """Standard deviation over the rectangle rect = (x, y, width, height) placed at every
    position, from the tables of sqr_integral (int32 or float32 sums with float64 squares).
    The output (float32) has one pixel per position where the rectangle lies inside the tables
    (upright: (H - y - height, W - x - width) for H x W tables)."""
    from .lowlevel import KvliRect
    key = (_SUFFIX.get(sum_table.dtype), _SUFFIX.get(sqr_table.dtype))
    suffix = _member("rect_std_dev", key, _RSD)
    _same_shape(sum_table, sqr_table, "sqr_table")
    x, y, w, h = rect
    th, tw = sum_table.shape
    if tilted:
        if x - y - h < 0:
            raise ValueError("rect_std_dev: a tilted rectangle needs x - y - height >= 0 (it "
                             "would read left of the table)")
        # the library's row-length rule for tilted tables: x + y + width + height + w - 1
        shape = (th - (x + y + w + h), tw - (x + y + w + h) + 1)
    else:
        shape = (th - (y + h), tw - (x + w))
    if min(shape) < 1:
        raise ValueError(f"rect_std_dev: the rectangle {tuple(rect)} does not fit the tables")
    dst = _output(out, shape, np.float32)
    name = f"kvli{'Tilted' if tilted else ''}RectStdDev_{suffix}"
    check(getattr(lib, name)(*_image(sum_table, "sum_table"), *_image(sqr_table, "sqr_table"),
                             *_image(dst, "out", True), _size(dst), KvliRect(x, y, w, h)), name)
    return dst


# ------------------------------------------------------------------------------------------------
# Haar classifiers (upright)
class HaarClassifier:
    """One stage of weak Haar classifiers, upright.

    HaarClassifier(rects, weights, thresholds, val1, val2, counts, dtype=np.float32):
    rects (R, 4) int (x, y, width, height), weights (R,), counts (C,) ints (rectangles of each
    weak classifier, in order; they sum to R), thresholds, val1, val2 (C,). dtype float32 or
    int32 picks the classifier's arithmetic. ``size`` is the window (width, height) it needs."""

    def __init__(self, rects, weights, thresholds, val1, val2, counts, dtype=np.float32):
        from .lowlevel import KvliRect
        self.kind = _SUFFIX.get(np.dtype(dtype))
        if self.kind not in ("32f", "32s"):
            raise TypeError("HaarClassifier: dtype float32 or int32")
        r = np.ascontiguousarray(rects, np.int32).reshape(-1, 4)
        arr = [np.ascontiguousarray(a, dtype) for a in (weights, thresholds, val1, val2)]
        num = np.ascontiguousarray(counts, np.int32)
        if len(arr[0]) != len(r) or int(num.sum()) != len(r) or \
                not len(arr[1]) == len(arr[2]) == len(arr[3]) == len(num):
            raise ValueError("HaarClassifier: inconsistent lengths")
        feats = (KvliRect * max(len(r), 1))(*[KvliRect(*map(int, x)) for x in r])
        state = ctypes.c_void_p()
        name = f"kvliHaarClassifierInitAlloc_{self.kind}"
        check(getattr(lib, name)(ctypes.addressof(state), ctypes.addressof(feats),
                                 *[a.ctypes.data for a in arr], num.ctypes.data, len(num)), name)
        self._state = state.value              # the classifier's address
        self._free = getattr(lib, f"kvliHaarClassifierFree_{self.kind}")
        s = KvliSize()
        check(getattr(lib, f"kvliGetHaarClassifierSize_{self.kind}")(self._state,
                                                                     ctypes.addressof(s)),
              "kvliGetHaarClassifierSize")
        self.size = (s.width, s.height)

    def __del__(self):
        state, self._state = getattr(self, "_state", None), None
        if state:
            self._free(state)

    def apply(self, table, norm, threshold, mask=None):
        """Runs the stage at every window position of an upright integral table (float32 for a
        float32 classifier; int32 for either). Positions: the table's size minus the window's
        (every corner of every window then lies inside the table). norm: a scalar or an array
        of that shape (float32; int32 for int32 classifiers). mask (uint8, that shape, default
        all 1) is updated in place: a position the stage rejects becomes 0. Returns (mask,
        number of positions kept)."""
        tkey = _SUFFIX.get(getattr(table, "dtype", None))
        suffix = {("32f", "32f"): "32f_C1R", ("32s", "32f"): "32s32f_C1R",
                  ("32s", "32s"): "32s_C1RSfs"}.get((tkey, self.kind))
        if suffix is None or table.ndim != 2:
            raise TypeError(f"apply: a 2-D {'float32 or ' if self.kind == '32f' else ''}int32 "
                            f"table is expected")
        shape = (table.shape[0] - self.size[1], table.shape[1] - self.size[0])
        if min(shape) < 1:
            raise ValueError(f"apply: the table {table.shape} is smaller than the window "
                             f"{self.size}")
        ntype = np.float32 if self.kind == "32f" else np.int32
        norm = np.full(shape, norm, ntype) if np.isscalar(norm) else norm
        if getattr(norm, "dtype", None) != ntype or norm.shape != shape:
            raise ValueError(f"apply: norm must be {np.dtype(ntype)} of shape {shape}")
        mask = np.ones(shape, np.uint8) if mask is None else mask
        if getattr(mask, "dtype", None) != np.uint8 or mask.shape != shape:
            raise ValueError(f"apply: mask must be uint8 of shape {shape}")
        positive = ctypes.c_int()
        args = [*_image(table, "table"), *_image(norm, "norm"), *_image(mask, "mask", True),
                (shape[1], shape[0]), ctypes.addressof(positive), threshold, self._state]
        if suffix == "32s_C1RSfs":
            args.append(0)
        name = f"kvliApplyHaarClassifier_{suffix}"
        check(getattr(lib, name)(*args), name)
        return mask, positive.value


# The package's names: every public function and class defined here.
__all__ = [n for n, v in list(globals().items()) if not n.startswith("_")
           and getattr(v, "__module__", None) == __name__] + ["BORDERS"]
