// Border extension and copies: the row extender, bordered and framed copies, plain copy and set.
// Internal: none of these is exported. Images may lie at any byte address: elements move through
// loadAny/storeAny or memcpy.
#pragma once

#include <cstring>

#include "core/pixel.h"
#include "kvlcv.h"

namespace kvl::border {

// Index i (any integer) of a row of w pixels folded into 0 .. w-1 by mode 1..4; the fold is
// repeated, so rows narrower than the margin stay inside the row. Mode 0 gives -1 (constant).
inline int mapIndex(int i, int w, int mode) {
  if (i >= 0 && i < w) return i;
  switch (mode) {
    case kvlBorderRepl:
      return i < 0 ? 0 : w - 1;
    case kvlBorderWrap: {
      const int m = i % w;
      return m < 0 ? m + w : m;
    }
    case kvlBorderMirror: {
      if (w == 1) return 0;
      const int p = 2 * w - 2;
      int m = i % p;
      if (m < 0) m += p;
      return m < w ? m : p - m;
    }
    case kvlBorderMirrorR: {
      const int p = 2 * w;
      int m = i % p;
      if (m < 0) m += p;
      return m < w ? m : p - 1 - m;
    }
    default:
      return -1;
  }
}

// Index i of a row or column of n pixels, as a filter reads it under border type bt: i itself
// inside, or on a side whose in-memory flag (flagLow below 0, flagHigh above n - 1) is set or
// with mode 6; the folded index for modes 1..4; kConstant for the constant border (mode 0).
constexpr int kConstant = -2147483647 - 1;
inline int sourceIndex(int i, int n, int bt, int flagLow, int flagHigh) {
  if (i >= 0 && i < n) return i;
  const int mode = bt & 15;
  if (mode == kvlBorderInMem || (bt & (i < 0 ? flagLow : flagHigh))) return i;
  const int j = mapIndex(i, n, mode);  // -1: mode 0 (or a mode no caller accepts)
  return j < 0 ? kConstant : j;
}
// The image row a filter reads for row y of an image of h rows (kConstant: a constant row).
inline int sourceRow(int y, int h, int bt) {
  return sourceIndex(y, h, bt, kvlBorderInMemTop, kvlBorderInMemBottom);
}
// Pixel x (any integer) of a one-channel row of w pixels extended by the row rule.
template <class T>
inline T pixelAt(const T* row, int x, int w, int bt, T value) {
  if (x >= 0 && x < w) return loadAny(row + x);
  const int j = sourceIndex(x, w, bt, kvlBorderInMemLeft, kvlBorderInMemRight);
  return j == kConstant ? value : loadAny(row + j);
}

// Pixels [from, to) (any integers) of the row p0 .. p(w-1) of kC channels, extended by the row
// rule, into out: the middle is copied, the sides follow the mode or read memory.
template <class T, int kC>
void extendRange(const T* src, int w, int from, int to, int bt, T value, T* out) {
  for (int i = from; i < to; ++i, out += kC) {
    const int j = sourceIndex(i, w, bt, kvlBorderInMemLeft, kvlBorderInMemRight);
    for (int c = 0; c < kC; ++c)
      storeAny(out + c, j == kConstant ? value : loadAny(src + j * kC + c));
  }
}

// Writes the L extension pixels left of the row p0 .. p(w-1) to dst[0 .. L) and the R pixels
// right of it to dst[L + w .. L + w + R) (in pixels of kC channels).
template <class T, int kC>
void fillSides(const T* src, T* dst, int w, int L, int R, int borderType, T value) {
  extendRange<T, kC>(src, w, -L, 0, borderType, value, dst);
  extendRange<T, kC>(src, w, w, w + R, borderType, value, dst + (L + w) * kC);
}

// Writes A + w + (K - 1 - A) pixels: the row extended by A pixels on the left and K - 1 - A on
// the right (anchor A of a kernel of length K).
template <class T, int kC>
void fillRow(const T* src, T* dst, int w, int K, int A, int borderType, T value) {
  fillSides<T, kC>(src, dst, w, A, K - 1 - A, borderType, value);
  if (dst + A * kC != src) std::memcpy(dst + A * kC, src, sizeof(T) * kC * w);
}

// Extends an image of w x h pixels into dst, which holds (left + w + right) x (top + h + bottom)
// pixels with dst pointing at its top-left. Rows are extended first (row rule), then the margin
// rows are made from extended rows (column rule), so corners follow both. Flagged sides read
// memory around the source; src may lie inside dst (in place) as long as the margins are free.
template <class T, int kC>
void extendImage(const T* src, int srcStep, int w, int h, T* dst, int dstStep, int top,
                 int bottom, int left, int right, int borderType, T value) {
  const int mode = borderType & 15;
  const bool inMem = mode == kvlBorderInMem;
  const bool memT = inMem || (borderType & kvlBorderInMemTop);
  const bool memB = inMem || (borderType & kvlBorderInMemBottom);
  auto srow = [&](int y) {
    return reinterpret_cast<const T*>(reinterpret_cast<const char*>(src) +
                                      static_cast<std::ptrdiff_t>(srcStep) * y);
  };
  auto drow = [&](int r) {
    return reinterpret_cast<T*>(reinterpret_cast<char*>(dst) + static_cast<std::ptrdiff_t>(dstStep) * r);
  };
  const int rowLen = (left + w + right) * kC;
  auto extendRow = [&](const T* s, T* d) {
    fillRow<T, kC>(s, d, w, left + right + 1, left, borderType, value);
  };
  for (int y = 0; y < h; ++y) extendRow(srow(y), drow(top + y));
  auto margin = [&](int y, bool mem) {
    T* d = drow(top + y);
    if (mem) {
      extendRow(srow(y), d);
    } else if (mode == kvlBorderConst || mode == kvlBorderInMem) {
      for (int i = 0; i < rowLen; ++i) storeAny(d + i, value);
    } else {
      std::memcpy(d, drow(top + mapIndex(y, h, mode)), sizeof(T) * rowLen);
    }
  };
  for (int y = -1; y >= -top; --y) margin(y, memT);  // from the row next to the image outwards
  for (int y = h; y < h + bottom; ++y) margin(y, memB);
}

}  // namespace kvl::border

// ---- The row extender, one routine per element type and channel count ----
void FillBorder_8u_C1(const Kvl8u* pSrc, Kvl8u* pDst, int width, int kernelSize, int anchor,
                      int borderType, Kvl8u value);
void FillBorder_8u_C3(const Kvl8u* pSrc, Kvl8u* pDst, int width, int kernelSize, int anchor,
                      int borderType, Kvl8u value);
void FillBorder_16s_C1(const Kvl16s* pSrc, Kvl16s* pDst, int width, int kernelSize, int anchor,
                       int borderType, Kvl16s value);
void FillBorder_16s_C3(const Kvl16s* pSrc, Kvl16s* pDst, int width, int kernelSize, int anchor,
                       int borderType, Kvl16s value);
void FillBorder_16u_C3(const Kvl16u* pSrc, Kvl16u* pDst, int width, int kernelSize, int anchor,
                       int borderType, Kvl16u value);
void FillBorder_32f_C1(const Kvl32f* pSrc, Kvl32f* pDst, int width, int kernelSize, int anchor,
                       int borderType, Kvl32f value);
void FillBorder_32f_C3(const Kvl32f* pSrc, Kvl32f* pDst, int width, int kernelSize, int anchor,
                       int borderType, Kvl32f value);

// ---- Bordered copies: a new array of (left + w + right) x (top + h + bottom) elements from
// kvlsMalloc (row length left + w + right pixels), modes 0..4; null when allocation fails.
// Release with kvlsFree. ----
#define KVL_COPY_WITH_BORDER_MEMBERS(X) \
  X(8u_C1R, Kvl8u, 1) X(8u_C3R, Kvl8u, 3) X(16u_C1R, Kvl16u, 1) X(16u_C3R, Kvl16u, 3) \
  X(32f_C1R, Kvl32f, 1) X(32f_C3R, Kvl32f, 3)
#define KVL_DECLARE_COPY_WITH_BORDER(sfx, T, C)                                               \
  T* ownCopyWithBorder_##sfx(const T* pSrc, int srcStep, KvliSize roiSize, int borderMode,    \
                             int left, int right, int top, int bottom, T value);
KVL_COPY_WITH_BORDER_MEMBERS(KVL_DECLARE_COPY_WITH_BORDER)

// ---- Framed copies: dst (dstRoiSize) receives src at (left, top); the frame replicates the
// nearest source pixel, or takes the constant. Validation: null pointers, steps < 1
// (kvlStatusBadStep), then sizes and offsets (kvlStatusBadSize). Equal pointers make the call
// in place: the pointer is the source's top-left inside the larger destination. ----
#define KVL_REPL_BORDER_MEMBERS(X)                                                     \
  X(8u_C1R, Kvl8u, 1) X(8u_C3R, Kvl8u, 3) X(8u_C4R, Kvl8u, 4) X(16s_C1R, Kvl16s, 1)    \
  X(16u_C1R, Kvl16u, 1) X(32s_C1R, Kvl32s, 1) X(32s_C3R, Kvl32s, 3) X(32s_C4R, Kvl32s, 4) \
  X(32f_C1R, Kvl32f, 1) X(32f_C3R, Kvl32f, 3) X(32f_C4R, Kvl32f, 4)
#define KVL_REPL_BORDER_INPLACE_MEMBERS(X) \
  X(8u_C1IR, Kvl8u, 1) X(8u_C4IR, Kvl8u, 4) X(16s_C1IR, Kvl16s, 1) X(32s_C1IR, Kvl32s, 1)
#define KVL_CONST_BORDER_MEMBERS(X) \
  X(8u_C1R, Kvl8u, 1) X(16s_C1R, Kvl16s, 1) X(16u_C1R, Kvl16u, 1) X(32s_C1R, Kvl32s, 1) \
  X(32f_C1R, Kvl32f, 1)
#define KVL_DECLARE_REPL(sfx, T, C)                                                           \
  KvlStatus kvliCopyReplicateBorder_##sfx(const T* pSrc, int srcStep, KvliSize srcRoiSize,    \
                                          T* pDst, int dstStep, KvliSize dstRoiSize, int top, \
                                          int left);
#define KVL_DECLARE_REPL_I(sfx, T, C)                                                       \
  KvlStatus kvliCopyReplicateBorder_##sfx(T* pSrcDst, int srcDstStep, KvliSize srcRoiSize,  \
                                          KvliSize dstRoiSize, int top, int left);
#define KVL_DECLARE_CONST(sfx, T, C)                                                     \
  KvlStatus kvliCopyConstBorder_##sfx(const T* pSrc, int srcStep, KvliSize srcRoiSize,   \
                                      T* pDst, int dstStep, KvliSize dstRoiSize, int top, \
                                      int left, T value);
KVL_REPL_BORDER_MEMBERS(KVL_DECLARE_REPL)
KVL_REPL_BORDER_INPLACE_MEMBERS(KVL_DECLARE_REPL_I)
KVL_CONST_BORDER_MEMBERS(KVL_DECLARE_CONST)

// ---- Plain copy and set of an ROI: null pointers, then the ROI size. ----
#define KVL_COPY_MEMBERS(X)                                                                   \
  X(8u_C1R, Kvl8u, 1) X(8u_C3R, Kvl8u, 3) X(8u_C4R, Kvl8u, 4) X(16s_C1R, Kvl16s, 1)           \
  X(16u_C1R, Kvl16u, 1) X(32f_C1R, Kvl32f, 1) X(32f_C3R, Kvl32f, 3) X(32f_C4R, Kvl32f, 4)
#define KVL_DECLARE_COPY(sfx, T, C) \
  KvlStatus kvliCopy_##sfx(const T* pSrc, int srcStep, T* pDst, int dstStep, KvliSize roiSize);
KVL_COPY_MEMBERS(KVL_DECLARE_COPY)
KvlStatus kvliSet_8u_C1R(Kvl8u value, Kvl8u* pDst, int dstStep, KvliSize roiSize);
KvlStatus kvliSet_16s_C1R(Kvl16s value, Kvl16s* pDst, int dstStep, KvliSize roiSize);

// ---- In-memory copy for morphology: the ROI and top/bottom/left/right surrounding pixels into
// dst (its top-left), reading memory on flagged sides (6 = all four) and extending the others
// by the mode. Validation: null pointers, steps < 1 (kvlStatusBadStep), sizes and margins
// (kvlStatusBadSize). ----
#define KVL_INMEM_MEMBERS(X)                                                              \
  X(8u_C1R, Kvl8u, 1) X(8u_C3R, Kvl8u, 3) X(8u_C4R, Kvl8u, 4) X(16s_C1R, Kvl16s, 1)       \
  X(32f_C1R, Kvl32f, 1) X(32f_C3R, Kvl32f, 3)
#define KVL_DECLARE_INMEM(sfx, T, C)                                                         \
  KvlStatus ownkvliCopyInMemBorder_##sfx(const T* pSrc, int srcStep, KvliSize roiSize,       \
                                         T* pDst, int dstStep, int top, int bottom, int left, \
                                         int right, int borderType, T borderValue);
KVL_INMEM_MEMBERS(KVL_DECLARE_INMEM)
// The bit-image member: pixel x of a row is bit (offset + x) & 7 of byte (offset + x) >> 3, least
// significant bit first; a negative offset is kvlStatusBadSize. borderValue is 0 or 1.
KvlStatus ownkvliCopyInMemBorder_1u_C1R(const Kvl8u* pSrc, int srcStep, int srcBitOffset,
                                        KvliSize roiSize, Kvl8u* pDst, int dstStep,
                                        int dstBitOffset, int top, int bottom, int left, int right,
                                        int borderType, Kvl8u borderValue);
