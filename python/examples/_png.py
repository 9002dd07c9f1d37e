"""A small PNG reader and writer for the examples (8-bit grey, grey+alpha, RGB and RGBA,
non-interlaced), using only zlib and NumPy."""
import os
import struct
import zlib

import numpy as np

DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "data")
CHANNELS = {0: 1, 2: 3, 4: 2, 6: 4}


def read_png(path):
    """Returns a uint8 array (h, w) for grey images, (h, w, 3) for colour (alpha dropped)."""
    with open(path, "rb") as f:
        data = f.read()
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError(f"{path}: not a PNG file")
    pos, idat, header = 8, [], None
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        chunk = data[pos + 8:pos + 8 + length]
        pos += 12 + length
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", chunk)
        elif kind == b"IDAT":
            idat.append(chunk)
        elif kind == b"IEND":
            break
    w, h, depth, colour, _, _, interlace = header
    if depth != 8 or interlace or colour not in CHANNELS:
        raise ValueError(f"{path}: only 8-bit non-interlaced grey/RGB(A) PNGs are read here")
    n = CHANNELS[colour]
    raw = np.frombuffer(zlib.decompress(b"".join(idat)), np.uint8).reshape(h, 1 + w * n)
    out = np.zeros((h, w * n), np.int32)
    prev = np.zeros(w * n, np.int32)
    for y in range(h):
        kind, line = raw[y, 0], raw[y, 1:].astype(np.int32)
        if kind == 0:
            cur = line
        elif kind == 2:
            cur = (line + prev) & 255
        else:  # Sub, Average and Paeth depend on the pixel to the left: go pixel by pixel
            cur = np.zeros_like(line)
            for x in range(w * n):
                a = cur[x - n] if x >= n else 0
                b = prev[x]
                c = prev[x - n] if x >= n else 0
                if kind == 1:
                    p = a
                elif kind == 3:
                    p = (a + b) >> 1
                else:
                    pa, pb, pc = abs(b - c), abs(a - c), abs(a + b - 2 * c)
                    p = a if pa <= pb and pa <= pc else (b if pb <= pc else c)
                cur[x] = (line[x] + p) & 255
        out[y] = prev = cur
    img = out.astype(np.uint8).reshape(h, w, n)
    return img[:, :, 0] if n <= 2 else np.ascontiguousarray(img[:, :, :3])


def write_png(path, img):
    """Writes a uint8 (h, w) or (h, w, 3) array."""
    img = np.ascontiguousarray(img, np.uint8)
    h, w = img.shape[:2]
    colour = 0 if img.ndim == 2 else 2
    raw = np.hstack([np.zeros((h, 1), np.uint8), img.reshape(h, -1)]).tobytes()

    def chunk(kind, payload):
        return (struct.pack(">I", len(payload)) + kind + payload
                + struct.pack(">I", zlib.crc32(kind + payload) & 0xFFFFFFFF))

    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n"
                + chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, colour, 0, 0, 0))
                + chunk(b"IDAT", zlib.compress(raw, 6)) + chunk(b"IEND", b""))


def grey(img):
    """Luma of an RGB image (ITU-R 601 weights), uint8."""
    if img.ndim == 2:
        return img
    return (img @ np.array([0.299, 0.587, 0.114])).round().clip(0, 255).astype(np.uint8)


def to_u8(a):
    """Scales any array to 0..255 for viewing."""
    a = a.astype(np.float64)
    lo, hi = a.min(), a.max()
    return ((a - lo) * (255.0 / (hi - lo if hi > lo else 1))).astype(np.uint8)
