"""The low-level layer: every exported C function, callable from Python.

The functions come from _native, a compiled module the build generates from the public headers
(as it generates the signature table _abi.py), so the layer needs no per-function code. Each
takes the C function's arguments positionally and returns what it returns (the raw status for
the image functions). Argument forms: a pointer is an int address (e.g. ``a.ctypes.data`` or
``ctypes.addressof(x)``) or None; an integer or enumeration an int, checked against its C type's
range (OverflowError); Kvl32f and Kvl64f any real number; KvliSize, KvliPoint, KvliPoint32f and
KvliRect a tuple of their fields (``(width, height)``) or an instance of the Structure classes
below. Every call releases the GIL while the C function runs.
"""
import ctypes
import os
import warnings

from . import _abi, _native

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


# The compiled functions look the C functions up in the two libraries loaded above.
_missing = _native.bind(_lib._handle, _core._handle)
if _missing:
    raise ImportError(f"kvlcv: {LIBRARY_PATH} lacks {len(_missing)} functions of the package's "
                      f"headers (first: {_missing[0]}): the library and the package differ")


class _Namespace:
    """Attribute access to the compiled functions of one library."""

    def __init__(self, table):
        self._names = list(table)
        for name in table:
            setattr(self, name, getattr(_native, name))

    def __dir__(self):
        return list(self._names)


lib = _Namespace(_abi.FUNCTIONS)
core = _Namespace(_abi.CORE_FUNCTIONS)
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
