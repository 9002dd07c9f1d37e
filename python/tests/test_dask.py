"""Tiled dask results equal the whole-image call."""
import numpy as np
import pytest

import kvlcv

da = pytest.importorskip("dask.array")
import dask  # noqa: E402
import kvlcv.dask as kd  # noqa: E402
from conftest import padded  # noqa: E402

CASES = [(kvlcv.laplacian, np.uint8, 5), (kvlcv.sobel_neg_vert, np.uint8, 3),
         (kvlcv.lowpass, np.float32, 5), (kvlcv.scharr_horiz, np.uint8, 3),
         (kvlcv.sobel_cross, np.float32, 3)]


@pytest.mark.parametrize("func,dtype,mask", CASES)
@pytest.mark.parametrize("chunks", [(16, 16), (23, 40), (7, 64), (64, 9)])
@pytest.mark.parametrize("border", ["constant", "replicate", "wrap", "mirror", "mirror_r"])
def test_tiles_equal_whole_image(func, dtype, mask, chunks, border):
    img = np.ascontiguousarray(padded((61, 67), dtype, seed=chunks[0]))
    whole = func(img, mask=mask, border=border, border_value=7)
    tiled = kd.map_filter(func, da.from_array(img, chunks=chunks), mask=mask, border=border,
                          border_value=7)
    with dask.config.set(scheduler="threads"):
        np.testing.assert_array_equal(tiled.compute(), whole)


def test_canny_derivatives_and_pixels():
    img = np.ascontiguousarray(padded((50, 70), np.uint8, 3))
    dx, dy = kd.canny_derivatives(da.from_array(img, chunks=(13, 17)))
    with dask.config.set(scheduler="threads"):
        dx, dy = dx.compute(), dy.compute()
    np.testing.assert_array_equal(dx, kvlcv.scharr_vert(img, dtype=np.int16))
    np.testing.assert_array_equal(kvlcv.canny_from_derivatives(dx, dy, 30, 90),
                                  kvlcv.canny_from_derivatives(
                                      kvlcv.scharr_vert(img, dtype=np.int16),
                                      kvlcv.scharr_horiz(img, dtype=np.int16), 30, 90))
    other = np.ascontiguousarray(padded((50, 70), np.uint8, 4))
    diff = kd.map_pixels(kvlcv.absdiff, da.from_array(img, chunks=16),
                         da.from_array(other, chunks=(25, 35)))
    with dask.config.set(scheduler="threads"):
        np.testing.assert_array_equal(diff.compute(), kvlcv.absdiff(img, other))


def test_local_cluster_two_processes():
    distributed = pytest.importorskip("distributed")
    img = np.ascontiguousarray(padded((120, 90), np.uint8, 5))
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster, \
            distributed.Client(cluster) as client:
        tiled = kd.map_filter(kvlcv.laplacian, da.from_array(img, chunks=(40, 45)), mask=5,
                              border="mirror")
        np.testing.assert_array_equal(client.compute(tiled).result(),
                                      kvlcv.laplacian(img, mask=5, border="mirror"))


def test_wider_overlap_and_refused_border():
    img = np.ascontiguousarray(padded((45, 52), np.uint8, 6))
    arr = da.from_array(img, chunks=(11, 13))
    with dask.config.set(scheduler="threads"):
        got = kd.map_filter(kvlcv.laplacian, arr, depth=4, mask=5, border="mirror").compute()
    np.testing.assert_array_equal(got, kvlcv.laplacian(img, mask=5, border="mirror"))
    with pytest.raises(ValueError):
        kd.map_filter(kvlcv.laplacian, arr, border="inmem")
