"""kvlCV for Python: computer-vision primitives on NumPy arrays.

kvlcv.<operation>(...) are the Pythonic functions (see kvlcv._ops for the array rules);
kvlcv.lowlevel.lib.<C name> is every exported C function as generated from the header.
"""
from . import lowlevel
from .lowlevel import Error, KvlWarning
from ._ops import *  # noqa: F401,F403
from ._ops import set_num_threads, get_num_threads, border_code, BORDERS  # noqa: F401

__all__ = [n for n in dir() if not n.startswith("_")]
