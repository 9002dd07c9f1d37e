import numpy as np
import pytest


def padded(shape, dtype, seed=0, pad=7):
    """A random image stored as a view into a wider array (row step larger than the row)."""
    rng = np.random.default_rng(seed)
    h, w = shape[:2]
    big_shape = (h + 2, w + pad) + tuple(shape[2:])
    if np.dtype(dtype).kind == "f":
        big = rng.uniform(-100, 100, big_shape).astype(dtype)
    else:
        info = np.iinfo(dtype)
        big = rng.integers(info.min, info.max, big_shape, endpoint=True).astype(dtype)
    return big[1:h + 1, 2:w + 2]


@pytest.fixture
def img8():
    return padded((37, 53), np.uint8)
