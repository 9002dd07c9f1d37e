// Scalar reference of the bit-image morphology: the word kernels and the plain per-bit model.
#include <cstring>

#include "core/check.h"
#include "core/pixel.h"
#include "morph/morph_1u.h"

namespace kvl::morph::ref {

void combine2(uint64_t* out, const uint64_t* row, int a, int b, int n, bool erode) {
  for (int t = 0; t < n; ++t) {
    const uint64_t u = shiftedWord(row, t, a), v = shiftedWord(row, t, b);
    out[t] = erode ? (u & v) : (u | v);
  }
}

void reduce(uint64_t* out, const uint64_t* const* rows, const int* shifts, int count, int n,
            bool erode) {
  for (int t = 0; t < n; ++t) {
    uint64_t v = shiftedWord(rows[0], t, shifts[0]);
    for (int i = 1; i < count; ++i) {
      const uint64_t w = shiftedWord(rows[i], t, shifts[i]);
      v = erode ? (v & w) : (v | w);
    }
    out[t] = v;
  }
}

void loadBits(uint64_t* out, const Kvl8u* p, int s, int n) {
  for (int k = 0; k < n; ++k) {
    uint64_t w;
    std::memcpy(&w, p + 8 * k, 8);  // little-endian: byte i holds bits 8i .. 8i + 7
    out[k] = s ? (w >> s) | (static_cast<uint64_t>(p[8 * k + 8]) << (64 - s)) : w;
  }
}

void runInWords(uint64_t* out, const uint64_t* row, int s, int len, int n, bool erode) {
  for (int t = 0; t < n; ++t) {
    uint64_t v = shiftedWord(row, t, s);
    for (int i = 1; i < len; ++i) {
      const uint64_t w = shiftedWord(row, t, s + i);
      v = erode ? (v & w) : (v | w);
    }
    out[t] = v;
  }
}

void row3x3(Kvl8u* out, const Kvl8u* up, const Kvl8u* mid, const Kvl8u* down, int n,
            uint64_t left, uint64_t right, bool erode, bool cross) {
  auto op = [erode](uint64_t a, uint64_t b) { return erode ? (a & b) : (a | b); };
  auto word = [](const Kvl8u* row, int k) {
    uint64_t w;
    std::memcpy(&w, row + 8 * k, 8);
    return w;
  };
  auto middle = [&](int k) {
    if (k < 0) return left;
    if (k >= n) return right;
    return cross ? word(mid, k) : op(op(word(up, k), word(mid, k)), word(down, k));
  };
  for (int k = 0; k < n; ++k) {
    uint64_t v = horizontalWord3(middle(k - 1), middle(k), middle(k + 1), erode);
    if (cross) v = op(v, op(word(up, k), word(down, k)));
    std::memcpy(out + 8 * k, &v, 8);
  }
}

void storeBits(Kvl8u* p, const uint64_t* bits, int sh, int c0, int c1) {
  for (int c = c0; c < c1; ++c) {
    const uint64_t v = sh ? (bits[c] << sh) | (bits[c - 1] >> (64 - sh)) : bits[c];
    std::memcpy(p + 8 * c, &v, 8);
  }
}

namespace {

// Bit i (any integer, negative: memory before the row) of a row at byte p.
inline int bitAt(const Kvl8u* p, long long i) { return (p[i >> 3] >> (i & 7)) & 1; }

}  // namespace

void morph1u(const Kvl8u* src, int srcStep, int srcBitOffset, Kvl8u* dst, int dstStep,
             int dstBitOffset, KvliSize roi, const Kvl8u* mask, int maskWidth, int maskHeight,
             int anchorX, int anchorY, int borderType, bool erode) {
  const int bt = check::normalizeInMem(borderType);
  bool any = false;
  for (int k = 0; k < maskWidth * maskHeight; ++k) any = any || mask[k] != 0;
  // A side reads memory when flagged, else repeats the ROI's edge pixel.
  auto mapped = [](int i, int n, bool memLow, bool memHigh) {
    if (i < 0 && !memLow) return 0;
    if (i >= n && !memHigh) return n - 1;
    return i;
  };
  for (int y = 0; y < roi.height; ++y) {
    Kvl8u* drow = rowPtr(dst, dstStep, y);
    for (int x = 0; x < roi.width; ++x) {
      int v;
      if (!any) {
        v = bitAt(rowPtr(src, srcStep, y), static_cast<long long>(srcBitOffset) + x);
      } else {
        v = erode ? 1 : 0;
        for (int j = 0; j < maskHeight; ++j) {
          const int sy = mapped(y + j - anchorY, roi.height, bt & kvlBorderInMemTop,
                                bt & kvlBorderInMemBottom);
          const Kvl8u* srow = rowPtr(src, srcStep, sy);
          for (int i = 0; i < maskWidth; ++i) {
            if (mask[j * maskWidth + i] == 0) continue;
            const int sx = mapped(x + i - anchorX, roi.width, bt & kvlBorderInMemLeft,
                                  bt & kvlBorderInMemRight);
            const int b = bitAt(srow, static_cast<long long>(srcBitOffset) + sx);
            v = erode ? (v & b) : (v | b);
          }
        }
      }
      const long long at = static_cast<long long>(dstBitOffset) + x;
      Kvl8u& byte = drow[at >> 3];
      byte = static_cast<Kvl8u>((byte & ~(1u << (at & 7))) | (static_cast<unsigned>(v) << (at & 7)));
    }
  }
}

}  // namespace kvl::morph::ref
