// Named members of the row extender, the bordered, framed and in-memory copies, copy and set.
#include "border.h"

#include "check.h"
#include "pixel.h"
#include "services.h"

namespace kvl::border {
namespace {

// Rows of 1024 bytes and more go through a block copy, shorter ones a simple loop.
template <class T>
void copyRow(const T* s, T* d, int n) {
  if (static_cast<size_t>(n) * sizeof(T) >= 1024) {
    std::memcpy(d, s, static_cast<size_t>(n) * sizeof(T));
  } else {
    for (int i = 0; i < n; ++i) storeAny(d + i, loadAny(s + i));
  }
}

template <class T, int kC>
T* copyWithBorder(const T* src, int srcStep, KvliSize roi, int mode, int left, int right, int top,
                  int bottom, T value) {
  const long long rowLen = static_cast<long long>(left + roi.width + right) * kC;
  const long long n = rowLen * (top + roi.height + bottom);
  if (left < 0 || right < 0 || top < 0 || bottom < 0 || n > 0x7fffffff / static_cast<long long>(sizeof(T)))
    return nullptr;
  T* out = nullptr;
  if constexpr (sizeof(T) == 1) out = reinterpret_cast<T*>(kvlsMalloc_8u(static_cast<int>(n)));
  if constexpr (sizeof(T) == 2) out = reinterpret_cast<T*>(kvlsMalloc_16u(static_cast<int>(n)));
  if constexpr (sizeof(T) == 4) out = reinterpret_cast<T*>(kvlsMalloc_32f(static_cast<int>(n)));
  if (!out) return nullptr;
  extendImage<T, kC>(src, srcStep, roi.width, roi.height, out,
                     static_cast<int>(rowLen * sizeof(T)), top, bottom, left, right, mode & 15,
                     value);
  return out;
}

KvlStatus framedChecks(const void* s, int srcStep, KvliSize src, const void* d, int dstStep,
                       KvliSize dst, int top, int left) {
  KVL_TRY(check::nonNull(s, d));
  if (srcStep < 1 || dstStep < 1) return kvlStatusBadStep;
  if (src.width < 1 || src.height < 1 || dst.width < 1 || dst.height < 1 || top < 0 ||
      left < 0 || static_cast<long long>(dst.width) < static_cast<long long>(src.width) + left ||
      static_cast<long long>(dst.height) < static_cast<long long>(src.height) + top)
    return kvlStatusBadSize;
  return kvlStatusOk;
}

// The framed copy over an element of the same width: replicate (mode 1) or constant (mode 0).
template <class T, int kC>
KvlStatus framed(const T* src, int srcStep, KvliSize s, T* dst, int dstStep, KvliSize d, int top,
                 int left, int mode, T value) {
  KVL_TRY(framedChecks(src, srcStep, s, dst, dstStep, d, top, left));
  if (src == dst) {  // in place: the pointer is the source's top-left inside the destination
    dst = reinterpret_cast<T*>(reinterpret_cast<char*>(dst) -
                               static_cast<std::ptrdiff_t>(dstStep) * top) - left * kC;
    srcStep = dstStep;
  }
  extendImage<T, kC>(src, srcStep, s.width, s.height, dst, dstStep, top, d.height - s.height - top,
                     left, d.width - s.width - left, mode, value);
  return kvlStatusOk;
}

template <class T, int kC>
KvlStatus framedInPlace(T* p, int step, KvliSize s, KvliSize d, int top, int left) {
  KVL_TRY(framedChecks(p, step, s, p, step, d, top, left));
  return framed<T, kC>(p, step, s, p, step, d, top, left, kvlBorderRepl, T{});
}

template <class T, int kC>
KvlStatus copy(const T* src, int srcStep, T* dst, int dstStep, KvliSize roi) {
  KVL_TRY(check::nonNull(src, dst));
  KVL_TRY(check::roi(roi));
  for (int y = 0; y < roi.height; ++y)
    copyRow(rowPtr(src, srcStep, y), rowPtr(dst, dstStep, y), roi.width * kC);
  return kvlStatusOk;
}

template <class T>
KvlStatus set(T value, T* dst, int dstStep, KvliSize roi) {
  KVL_TRY(check::nonNull(dst));
  KVL_TRY(check::roi(roi));
  for (int y = 0; y < roi.height; ++y) {
    T* d = rowPtr(dst, dstStep, y);
    for (int x = 0; x < roi.width; ++x) storeAny(d + x, value);
  }
  return kvlStatusOk;
}

KvlStatus inMemChecks(const void* s, int srcStep, KvliSize roi, const void* d, int dstStep, int top,
                      int bottom, int left, int right) {
  KVL_TRY(check::nonNull(s, d));
  if (srcStep < 1 || dstStep < 1) return kvlStatusBadStep;
  KVL_TRY(check::roi(roi));
  if (top < 0 || bottom < 0 || left < 0 || right < 0) return kvlStatusBadSize;
  return kvlStatusOk;
}

template <class T, int kC>
KvlStatus inMem(const T* src, int srcStep, KvliSize roi, T* dst, int dstStep, int top, int bottom,
                int left, int right, int borderType, T value) {
  KVL_TRY(inMemChecks(src, srcStep, roi, dst, dstStep, top, bottom, left, right));
  extendImage<T, kC>(src, srcStep, roi.width, roi.height, dst, dstStep, top, bottom, left, right,
                     check::normalizeInMem(borderType), value);
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::border

using namespace kvl::border;

#define KVL_FILL_BORDER(sfx, T, C)                                                          \
  void FillBorder_##sfx(const T* pSrc, T* pDst, int width, int kernelSize, int anchor,      \
                        int borderType, T value) {                                          \
    fillRow<T, C>(pSrc, pDst, width, kernelSize, anchor, borderType, value);                \
  }
KVL_FILL_BORDER(8u_C1, Kvl8u, 1)
KVL_FILL_BORDER(8u_C3, Kvl8u, 3)
KVL_FILL_BORDER(16s_C1, Kvl16s, 1)
KVL_FILL_BORDER(16s_C3, Kvl16s, 3)
KVL_FILL_BORDER(16u_C3, Kvl16u, 3)
KVL_FILL_BORDER(32f_C1, Kvl32f, 1)
KVL_FILL_BORDER(32f_C3, Kvl32f, 3)

#define KVL_DEFINE_COPY_WITH_BORDER(sfx, T, C)                                                 \
  T* ownCopyWithBorder_##sfx(const T* pSrc, int srcStep, KvliSize roiSize, int borderMode,     \
                             int left, int right, int top, int bottom, T value) {              \
    return copyWithBorder<T, C>(pSrc, srcStep, roiSize, borderMode, left, right, top, bottom,  \
                                value);                                                        \
  }
KVL_COPY_WITH_BORDER_MEMBERS(KVL_DEFINE_COPY_WITH_BORDER)

// The 16u and 32f members move the bits of the 16s and 32s work of the same width.
template <class T>
using Bits = std::conditional_t<sizeof(T) == 1, Kvl8u, std::conditional_t<sizeof(T) == 2, Kvl16s, Kvl32s>>;

#define KVL_DEFINE_REPL(sfx, T, C)                                                              \
  KvlStatus kvliCopyReplicateBorder_##sfx(const T* pSrc, int srcStep, KvliSize srcRoiSize,      \
                                          T* pDst, int dstStep, KvliSize dstRoiSize, int top,   \
                                          int left) {                                           \
    using B = Bits<T>;                                                                          \
    return framed<B, C>(reinterpret_cast<const B*>(pSrc), srcStep, srcRoiSize,                  \
                        reinterpret_cast<B*>(pDst), dstStep, dstRoiSize, top, left,             \
                        kvlBorderRepl, B{});                                                    \
  }
#define KVL_DEFINE_REPL_I(sfx, T, C)                                                          \
  KvlStatus kvliCopyReplicateBorder_##sfx(T* pSrcDst, int srcDstStep, KvliSize srcRoiSize,    \
                                          KvliSize dstRoiSize, int top, int left) {           \
    return framedInPlace<T, C>(pSrcDst, srcDstStep, srcRoiSize, dstRoiSize, top, left);       \
  }
#define KVL_DEFINE_CONST(sfx, T, C)                                                             \
  KvlStatus kvliCopyConstBorder_##sfx(const T* pSrc, int srcStep, KvliSize srcRoiSize, T* pDst, \
                                      int dstStep, KvliSize dstRoiSize, int top, int left,      \
                                      T value) {                                                \
    using B = Bits<T>;                                                                          \
    B bits;                                                                                     \
    std::memcpy(&bits, &value, sizeof(B));                                                      \
    return framed<B, C>(reinterpret_cast<const B*>(pSrc), srcStep, srcRoiSize,                  \
                        reinterpret_cast<B*>(pDst), dstStep, dstRoiSize, top, left,             \
                        kvlBorderConst, bits);                                                  \
  }
KVL_REPL_BORDER_MEMBERS(KVL_DEFINE_REPL)
KVL_REPL_BORDER_INPLACE_MEMBERS(KVL_DEFINE_REPL_I)
KVL_CONST_BORDER_MEMBERS(KVL_DEFINE_CONST)

#define KVL_DEFINE_COPY(sfx, T, C)                                                          \
  KvlStatus kvliCopy_##sfx(const T* pSrc, int srcStep, T* pDst, int dstStep, KvliSize roi) { \
    using B = Bits<T>;                                                                      \
    return copy<B, C>(reinterpret_cast<const B*>(pSrc), srcStep, reinterpret_cast<B*>(pDst), \
                      dstStep, roi);                                                        \
  }
KVL_COPY_MEMBERS(KVL_DEFINE_COPY)

KvlStatus kvliSet_8u_C1R(Kvl8u value, Kvl8u* pDst, int dstStep, KvliSize roiSize) {
  return set(value, pDst, dstStep, roiSize);
}
KvlStatus kvliSet_16s_C1R(Kvl16s value, Kvl16s* pDst, int dstStep, KvliSize roiSize) {
  return set(value, pDst, dstStep, roiSize);
}

#define KVL_DEFINE_INMEM(sfx, T, C)                                                            \
  KvlStatus ownkvliCopyInMemBorder_##sfx(const T* pSrc, int srcStep, KvliSize roiSize,         \
                                         T* pDst, int dstStep, int top, int bottom, int left,   \
                                         int right, int borderType, T borderValue) {            \
    return inMem<T, C>(pSrc, srcStep, roiSize, pDst, dstStep, top, bottom, left, right,         \
                       borderType, borderValue);                                                \
  }
KVL_INMEM_MEMBERS(KVL_DEFINE_INMEM)

KvlStatus ownkvliCopyInMemBorder_1u_C1R(const Kvl8u* pSrc, int srcStep, int srcBitOffset,
                                        KvliSize roi, Kvl8u* pDst, int dstStep, int dstBitOffset,
                                        int top, int bottom, int left, int right, int borderType,
                                        Kvl8u borderValue) {
  KVL_TRY(inMemChecks(pSrc, srcStep, roi, pDst, dstStep, top, bottom, left, right));
  if (srcBitOffset < 0 || dstBitOffset < 0) return kvlStatusBadSize;
  borderType = kvl::check::normalizeInMem(borderType);
  const int mode = borderType & 15;
  auto bitAt = [](const Kvl8u* row, long long i) -> int {  // i may be negative (memory left)
    const long long b = i >> 3;
    return (row[b] >> (i & 7)) & 1;
  };
  auto pick = [&](int i, int n, int flag) -> int {  // -2: memory, -1: constant, else index
    if (i >= 0 && i < n) return i;
    if (borderType & flag) return -2;
    return mapIndex(i, n, mode);
  };
  for (int r = 0; r < top + roi.height + bottom; ++r) {
    const int y = r - top;
    const int ys = pick(y, roi.height, y < 0 ? kvlBorderInMemTop : kvlBorderInMemBottom);
    Kvl8u* drow = kvl::rowPtr(pDst, dstStep, r);
    const Kvl8u* srow = kvl::rowPtr(pSrc, srcStep, ys == -2 ? y : ys);
    for (int c = 0; c < left + roi.width + right; ++c) {
      const int x = c - left;
      int v = borderValue ? 1 : 0;
      if (ys != -1) {
        const int xs = pick(x, roi.width, x < 0 ? kvlBorderInMemLeft : kvlBorderInMemRight);
        if (xs != -1) v = bitAt(srow, static_cast<long long>(srcBitOffset) + (xs == -2 ? x : xs));
      }
      const long long bit = static_cast<long long>(dstBitOffset) + c;
      Kvl8u& byte = drow[bit >> 3];
      byte = static_cast<Kvl8u>((byte & ~(1u << (bit & 7))) | (v << (bit & 7)));
    }
  }
  return kvlStatusOk;
}
