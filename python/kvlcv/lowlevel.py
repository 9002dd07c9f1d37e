"""The low-level layer: every exported C function as a ctypes function.

The prototypes come from _abi.py, which the build derives from the public headers, so the layer
needs no per-function code. Conventions: pointers of any type are passed as integers (an
array's address, e.g. ``a.ctypes.data``) or None; KvliSize, KvliPoint, KvliPoint32f and KvliRect
are passed by value as the Structure classes below; scalars as Python numbers. Every call
releases the GIL while the C function runs. Functions return the raw status (an int).
"""
import ctypes
import os
import warnings

from . import _abi

try:
    from . import _paths
    _LIBRARY_DIRS = _paths.LIBRARY_DIRS
except ImportError:  # a source checkout without the build's path file
    _LIBRARY_DIRS = ()


class KvliSize(ctypes.Structure):
    _fields_ = [("width", ctypes.c_int), ("height", ctypes.c_int)]


class KvliPoint(ctypes.Structure):
    _fields_ = [("x", ctypes.c_int), ("y", ctypes.c_int)]


class KvliPoint32f(ctypes.Structure):
    _fields_ = [("x", ctypes.c_float), ("y", ctypes.c_float)]


class KvliRect(ctypes.Structure):
    _fields_ = [("x", ctypes.c_int), ("y", ctypes.c_int), ("width", ctypes.c_int),
                ("height", ctypes.c_int)]


_SCALARS = {
    "int": ctypes.c_int, "KvlStatus": ctypes.c_int, "Kvl8u": ctypes.c_uint8,
    "Kvl8s": ctypes.c_int8, "Kvl16u": ctypes.c_uint16, "Kvl16s": ctypes.c_int16,
    "Kvl32s": ctypes.c_int32, "Kvl32u": ctypes.c_uint32, "Kvl64s": ctypes.c_int64,
    "Kvl64u": ctypes.c_uint64, "Kvl32f": ctypes.c_float, "Kvl64f": ctypes.c_double,
    "KvliSize": KvliSize, "KvliPoint": KvliPoint, "KvliPoint32f": KvliPoint32f,
    "KvliRect": KvliRect,
    # enumeration typedefs are plain ints
    "KvliBorderType": ctypes.c_int, "KvliMaskSize": ctypes.c_int, "KvlDataType": ctypes.c_int,
    "KvliDifferentialKernel": ctypes.c_int, "KvlNormType": ctypes.c_int,
}


def ctype_of(ctype):
    """The ctypes type standing for a C type spelled as in the header."""
    if ctype == "void":
        return None
    if ctype.endswith("*"):
        return ctypes.c_void_p
    return _SCALARS[ctype.replace("const ", "")]


def _candidates(name, soname):
    env = os.environ.get("KVLCV_LIBRARY")
    if env and name == "kvlcv":
        yield env
    if env and name == "kvlcore":
        yield os.path.join(os.path.dirname(env), soname)
    here = os.path.dirname(os.path.abspath(__file__))
    for d in _LIBRARY_DIRS:
        yield os.path.normpath(os.path.join(here, d, soname))
    yield soname  # the system loader's search path


def _load(name):
    soname = f"lib{name}.so.8"
    errors = []
    for path in _candidates(name, soname):
        if os.sep in path and not os.path.exists(path):
            continue
        try:
            # RTLD_GLOBAL: libkvlcv's dependency on libkvlcore resolves to the copy loaded here.
            return ctypes.CDLL(path, mode=ctypes.RTLD_GLOBAL), path
        except OSError as e:
            errors.append(f"{path}: {e}")
    raise ImportError(f"kvlcv: cannot load lib{name}.so (set KVLCV_LIBRARY to libkvlcv.so): "
                      + "; ".join(errors))


_core, CORE_PATH = _load("kvlcore")
_lib, LIBRARY_PATH = _load("kvlcv")


class _Namespace:
    """Attribute access to the prototyped C functions."""

    def __init__(self, lib, table):
        self._names = []
        for name, (ret, params) in table.items():
            fn = getattr(lib, name)
            fn.restype = ctype_of(ret)
            fn.argtypes = [ctype_of(t) for t, _ in params]
            setattr(self, name, fn)
            self._names.append(name)

    def __dir__(self):
        return list(self._names)


lib = _Namespace(_lib, _abi.FUNCTIONS)
core = _Namespace(_core, _abi.CORE_FUNCTIONS)
FUNCTIONS = _abi.FUNCTIONS
CONSTANTS = {name: value for name, (value, _) in _abi.CONSTANTS.items()}
STATUS = {value: (name, doc) for name, (value, doc) in _abi.CONSTANTS.items()
          if name.startswith("kvlStatus")}


def signature(name):
    """The C prototype of an exported function, as a string."""
    ret, params = FUNCTIONS[name]
    return f"{ret} {name}({', '.join(f'{t} {n}' for t, n in params) or 'void'})"


class Error(Exception):
    """A library call failed: ``status`` (int), ``name`` (e.g. 'kvlStatusBadSize'), ``meaning``
    and ``function`` (the C function that returned it)."""

    def __init__(self, status, function=""):
        self.status = status
        self.name, self.meaning = STATUS.get(status, (f"status {status}", "unknown status"))
        self.function = function
        super().__init__(f"{function}: {self.name} ({status}): {self.meaning}")


class KvlWarning(UserWarning):
    """A library call succeeded with a warning status (the output is complete)."""

    def __init__(self, status, function=""):
        self.status = status
        self.name, self.meaning = STATUS.get(status, (f"status {status}", "unknown status"))
        self.function = function
        super().__init__(f"{function}: {self.name} ({status}): {self.meaning}")


def check(status, function=""):
    """Raises Error on a negative status, warns KvlWarning on a positive one."""
    if status < 0:
        raise Error(status, function)
    if status > 0:
        warnings.warn(KvlWarning(status, function), stacklevel=3)
    return status
