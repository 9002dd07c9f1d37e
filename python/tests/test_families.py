"""Pyramids, integral images, min/max filters, morphology, distance transforms, foreground."""
import numpy as np
import pytest
from numpy.lib.stride_tricks import sliding_window_view

import kvlcv
from kvlcv.lowlevel import lib
from conftest import padded
from test_ops import buffer, size_of


@pytest.mark.parametrize("dtype", [np.uint8, np.int8, np.float32])
@pytest.mark.parametrize("channels", [1, 3])
def test_pyramids_match_c(dtype, channels):
    shape = (23, 31) if channels == 1 else (23, 31, 3)
    src = padded(shape, dtype, 11)
    code = {np.uint8: 1, np.int8: 3, np.float32: 13}[dtype]
    suffix = f"{kvlcv._ops._SUFFIX[np.dtype(dtype)]}_C{channels}R"
    for d, dshape in (("Down", (12, 16)), ("Up", (46, 62))):
        want = np.zeros(dshape + shape[2:], dtype)
        buf = buffer(f"kvliPyr{d}GetBufSize_Gauss5x5", 31, code, channels)
        assert getattr(lib, f"kvliPyr{d}_Gauss5x5_{suffix}")(
            src.ctypes.data, src.strides[0], want.ctypes.data, want.strides[0], size_of(src),
            buf.ctypes.data) == 0
        got = kvlcv.pyr_down(src) if d == "Down" else kvlcv.pyr_up(src)
        np.testing.assert_array_equal(got, want)


def test_integrals():
    src = padded((17, 29), np.uint8, 12)
    t = kvlcv.integral(src, offset=5)
    want = np.full((18, 30), 5, np.int64)
    want[1:, 1:] += src.astype(np.int64).cumsum(0).cumsum(1)
    np.testing.assert_array_equal(t, want)
    s, q = kvlcv.sqr_integral(src)
    np.testing.assert_array_equal(q[1:, 1:], (src.astype(np.float64) ** 2).cumsum(0).cumsum(1))
    assert kvlcv.tilted_integral(src).shape == (19, 31)
    assert kvlcv.sqr_integral(src, tilted=True)[1].shape == (19, 31)
    f = padded((17, 29), np.float32, 13)
    assert kvlcv.integral(f).dtype == np.float32


@pytest.mark.parametrize("dtype", [np.uint8, np.uint16, np.int16, np.float32])
def test_min_max_and_morphology_agree_with_numpy(dtype):
    src = padded((21, 26), dtype, 14)
    ext = np.pad(src, ((1, 1), (2, 2)), mode="edge")
    win = sliding_window_view(ext, (3, 5))
    np.testing.assert_array_equal(kvlcv.min_filter(src, (5, 3)), win.min(axis=(2, 3)))
    np.testing.assert_array_equal(kvlcv.max_filter(src, (5, 3)), win.max(axis=(2, 3)))
    kernel = np.ones((3, 5), np.uint8)
    np.testing.assert_array_equal(kvlcv.erode(src, kernel), win.min(axis=(2, 3)))
    np.testing.assert_array_equal(kvlcv.dilate(src, kernel), win.max(axis=(2, 3)))
    m = kvlcv.Morphology(kernel, dtype, max_width=26)
    np.testing.assert_array_equal(m.dilate(src), win.max(axis=(2, 3)))
    with pytest.raises(TypeError):
        m.erode(src.astype(np.float64))


def test_distance_transforms():
    img = np.full((30, 40), 255, np.uint8)
    img[10, 17] = 0
    d = kvlcv.distance_transform(img, mask=3, norm=1, dtype=np.uint8)
    yy, xx = np.mgrid[:30, :40]
    np.testing.assert_array_equal(d, np.minimum(abs(yy - 10) + abs(xx - 17), 255))
    t = kvlcv.true_distance_transform(img)
    np.testing.assert_allclose(t, np.hypot(yy - 10, xx - 17), rtol=1e-5)
    assert kvlcv.distance_transform(img, mask=5, dtype=np.float32).dtype == np.float32
    assert kvlcv.fast_marching(img).shape == img.shape


@pytest.mark.parametrize("model", [kvlcv.ForegroundGaussian, kvlcv.ForegroundHistogram])
def test_foreground_models(model):
    frame = padded((24, 32, 3), np.uint8, 15)
    m = model(frame)
    for _ in range(3):
        bg, fg = m.apply(frame)
    assert bg.shape == frame.shape and fg.shape == (24, 32)
    moved = frame.copy()
    moved[5:15, 5:15] = 255 - moved[5:15, 5:15]
    with pytest.raises(ValueError):
        m.apply(frame[:, 1:])
    del m


def test_rect_std_dev_matches_numpy():
    src = padded((20, 24), np.uint8, 16)
    s, q = kvlcv.sqr_integral(src)
    sd = kvlcv.rect_std_dev(s, q, (0, 0, 4, 3))
    win = sliding_window_view(src.astype(np.float64), (3, 4))
    np.testing.assert_allclose(sd, win.std(axis=(2, 3)), rtol=1e-3, atol=1e-2)
    t, tq = kvlcv.sqr_integral(src, tilted=True)
    assert kvlcv.rect_std_dev(t, tq, (3, 0, 2, 2), tilted=True).dtype == np.float32


@pytest.mark.parametrize("dtype", [np.uint8, np.float32])
def test_optical_flow_follows_a_shift(dtype):
    yy, xx = np.mgrid[:96, :128]
    base = (128 + 60 * np.sin(xx / 5.0) * np.cos(yy / 7.0)).astype(dtype)
    moved = np.roll(np.roll(base, 2, axis=1), 1, axis=0)
    pts = np.array([[40, 40], [64, 50], [80, 30]], np.float32)
    nxt, status, err = kvlcv.optical_flow_pyr_lk(base, moved, pts, win_size=11, max_level=2)
    np.testing.assert_array_equal(status, 0)                 # 0: tracked
    np.testing.assert_allclose(nxt - pts, [[2, 1]] * 3, atol=0.1)


def test_haar_classifier_against_numpy():
    img = padded((30, 40), np.uint8, 17)
    table = kvlcv.integral(img, dtype=np.float32)
    # one weak classifier: left half minus right half of a 4 x 6 window
    c = kvlcv.HaarClassifier([[0, 0, 2, 6], [2, 0, 2, 6]], [1, -1], [0], [1], [0], [2])
    assert c.size == (4, 6)
    mask, kept = c.apply(table, 1.0, 0.5)
    win = sliding_window_view(img.astype(np.float64), (6, 4))[:mask.shape[0], :mask.shape[1]]
    f = win[..., :2].sum(axis=(2, 3)) - win[..., 2:].sum(axis=(2, 3))
    np.testing.assert_array_equal(mask != 0, f < 0)
    assert kept == np.count_nonzero(f < 0)
    with pytest.raises(ValueError):
        c.apply(table[:5, :5], 1.0, 0.5)


@pytest.mark.parametrize("dtype", [np.uint8, np.uint16, np.float32])
@pytest.mark.parametrize("channels", [1, 3])
def test_flood_fill(dtype, channels):
    shape = (20, 30) if channels == 1 else (20, 30, channels)
    img = np.zeros(shape, dtype)
    img[5:12, 4:20] = 7      # a block, joined to a thin line only through a diagonal
    img[12, 20] = 7
    for connectivity, area in ((4, 7 * 16), (8, 7 * 16 + 1)):
        work = img.copy()
        r = kvlcv.flood_fill(work, (6, 6), 9, connectivity=connectivity)
        assert r["area"] == area and r["rect"][:2] == (4, 5)
        painted = (work == 9).all(axis=-1) if channels == 3 else work == 9
        assert painted.sum() == area
    work = img.copy()
    assert kvlcv.flood_fill(work, (0, 0), 0)["area"] == 0      # already the new value
    r = kvlcv.flood_fill(work, (0, 0), 3, rule="range", lo=0, hi=7)
    assert r["area"] == 20 * 30
    ramp = np.tile(np.arange(30, dtype=dtype), (20, 1))
    if channels == 3:
        ramp = np.repeat(ramp[:, :, None], 3, axis=2)
    assert kvlcv.flood_fill(ramp, (0, 0), 200, rule="grad", lo=1, hi=1)["area"] == 20 * 30


@pytest.mark.parametrize("mtype", [np.uint8, np.uint16])
@pytest.mark.parametrize("method", ["queue", "distance"])
def test_watershed_and_gradient_segmentation(mtype, method):
    relief = np.zeros((16, 24), np.uint8)
    relief[:, 11:13] = 200            # a ridge between two basins
    markers = np.zeros(relief.shape, mtype)
    markers[8, 3], markers[8, 20] = 1, 2
    kvlcv.watershed(relief, markers, method=method)
    assert (markers[:, :11] == 1).all() and (markers[:, 13:] == 2).all()
    img = np.zeros((16, 24, 3), np.uint8)
    img[:, 12:] = (200, 40, 90)
    seg = kvlcv.segment_gradient(img, np.zeros((16, 24), np.uint8), boundary=4)
    assert len(set(np.unique(seg)) - {255}) == 2
    with pytest.raises(TypeError):
        kvlcv.watershed(relief.astype(np.uint16), markers)
