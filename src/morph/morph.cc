// Erosion and dilation: the size functions, the state builders of both interfaces and the entry
// points, expanded from the member table. The paths: an empty mask copies the ROI; a rectangle
// with a replicated border runs the rectangle min/max filters (shifted when the anchor lies
// outside the rectangle); everything else runs the run engine, and the plain reference when the
// engine has too little scratch.
#include <algorithm>
#include <cfloat>
#include <climits>
#include <cstring>

#include "core/border.h"
#include "core/check.h"
#include "core/pixel.h"
#include "core/services.h"
#include "core/simd.h"
#include "impl_decls.h"
#include "morph/minmax_filter.h"
#include "morph/morph_members.h"
#include "morph/morph_ref.h"
#include "morph/morph_runs.h"
#include "morph/morph_state.h"


namespace kvl::morph {
namespace {

constexpr int kStateBytes = static_cast<int>(sizeof(KvliMorphState));
constexpr int kInfoBytes = static_cast<int>(sizeof(KvliMorphMaskInfo));

long long round16(long long v) { return roundUp(v, 16); }

// The per-member pieces: the data-type code and the rectangle filters of the member.
template <class T, int kC>
struct Member;

#define KVL_MORPH_MEMBER_TRAITS(sfx, T, C, code, sizeSfx)                                        \
  template <>                                                                                    \
  struct Member<T, C> {                                                                          \
    static constexpr int kCode = code;                                                           \
    static KvlStatus minSize(int w, KvliSize m, int* s) {                                        \
      return impl_kvliFilterMinGetBufferSize_##sizeSfx(w, m, s);                                 \
    }                                                                                            \
    static KvlStatus maxSize(int w, KvliSize m, int* s) {                                        \
      return impl_kvliFilterMaxGetBufferSize_##sizeSfx(w, m, s);                                 \
    }                                                                                            \
    static KvlStatus filter(bool erode, const T* s, int ss, T* d, int ds, KvliSize r,            \
                            KvliSize m, KvliPoint a, Kvl8u* b) {                                 \
      return erode ? impl_kvliFilterMinBorderReplicate_##sfx(s, ss, d, ds, r, m, a, b)           \
                   : impl_kvliFilterMaxBorderReplicate_##sfx(s, ss, d, ds, r, m, a, b);          \
    }                                                                                            \
  };
KVL_MORPH_BORDER_MEMBERS(KVL_MORPH_MEMBER_TRAITS)
#undef KVL_MORPH_MEMBER_TRAITS

template <class T>
constexpr int kElem = static_cast<int>(sizeof(T));

// The row-run path's scratch size for n horizontal results per mask row.
long long ellipseBytes(int roiWidth, KvliSize m, long long n, int dataType, int channels) {
  const long long es = dataType == kvl32f ? 4 : (dataType == kvl16u || dataType == kvl16s) ? 2 : 1;
  return (m.height * n + 1) * (roiWidth * channels * es + 32LL) + 40LL * m.height + 40;
}

// The data type and channel count a member passes to the row-run size: the 8u members pass 8u
// with one channel whatever their layout, the others their own type and channels.
template <class T, int kC>
constexpr int ellipseChannels() {
  return std::is_same_v<T, Kvl32f> ? kC : 1;
}

long long maskBytes(KvliSize m) { return round16(static_cast<long long>(m.width) * m.height); }

// The larger of the min and max filters' buffer sizes.
template <class T, int kC>
KvlStatus filterBytes(int roiWidth, KvliSize m, long long* bytes) {
  int fmin = 0, fmax = 0;
  KVL_TRY((Member<T, kC>::minSize(roiWidth, m, &fmin)));
  KVL_TRY((Member<T, kC>::maxSize(roiWidth, m, &fmax)));
  *bytes = std::max(fmin, fmax);
  return kvlStatusOk;
}

// The border interface's work buffer B (also a term of the state block size).
template <class T, int kC>
KvlStatus bufferBytes(int roiWidth, KvliSize m, long long* bytes) {
  long long f = 0;
  KVL_TRY((filterBytes<T, kC>(roiWidth, m, &f)));
  const long long e =
      ellipseBytes(roiWidth, m, m.height, Member<T, kC>::kCode, ellipseChannels<T, kC>());
  *bytes = std::max(e, f) + round16(24LL * m.height) + maskBytes(m) + 16LL * m.height + 80;
  return kvlStatusOk;
}

// The state bytes every member reports before the work buffer: the record, the analysis record,
// the mask copy and its two select tables.
long long stateOwnBytes(KvliSize m) { return 33 * maskBytes(m) + 16LL * m.height + 160; }

// The border interface's *pSpecSize and *pBufferSize; the older interface's size is the same
// state block size (8u and 32f add the buffer to it).
template <class T, int kC>
KvlStatus sizes(int roiWidth, KvliSize m, long long* blockSize, long long* buffer) {
  if (roiWidth < 1 || m.width < 1 || m.height < 1) return kvlStatusBadSize;
  KVL_TRY((bufferBytes<T, kC>(roiWidth, m, buffer)));
  constexpr bool kLean = std::is_same_v<T, Kvl16u> || std::is_same_v<T, Kvl16s>;
  *blockSize = stateOwnBytes(m) + (kLean ? 0 : *buffer);
  return (*blockSize > INT_MAX || *buffer > INT_MAX) ? kvlStatusBadSize : kvlStatusOk;
}

// The bytes a state of the class needs (what InitAlloc allocates).
template <class T, int kC>
long long stateBytes(int cls, int roiWidth, KvliSize m, const KvliMorphMaskInfo& info) {
  const long long A = maskBytes(m);
  constexpr long long es = kElem<T>;
  switch (cls) {
    case kvlMorphMaskGeneral:
      return 33 * A +
             std::max(2 * round16((roiWidth + static_cast<long long>(m.width)) * kC * es) *
                          m.height,
                      es * kC * m.height) +
             112;
    case kvlMorphMaskRect: {
      long long f = 0;
      filterBytes<T, kC>(roiWidth, m, &f);  // cannot fail: the sizes were checked
      return A + f + 128;
    }
    case kvlMorphMaskRowRuns:
      return ellipseBytes(roiWidth, m, info.lengthCount, Member<T, kC>::kCode,
                          ellipseChannels<T, kC>()) +
             A + 8LL * (info.rowCount + info.lengthCount) + 160;
    default:
      return A + 96;
  }
}

// Lays out and fills a state in the block at st: the record, the analysis record and its arrays
// (classes 1 and 2), the 16-byte aligned mask copy, the select tables (class 0, and class 1 of
// the border interface) and the scratch area.
template <class T, int kC>
void buildState(KvliMorphState* st, bool border, int roiWidth, const Kvl8u* mask, KvliSize m,
                KvliPoint a, int cls, const KvliMorphMaskInfo& info, const Kvl32s* arrays,
                long long size) {
  Kvl8u* const base = reinterpret_cast<Kvl8u*>(st);
  Kvl8u* p = base + kStateBytes;
  const int W = m.width, H = m.height;
  const long long elements = static_cast<long long>(W) * H;
  KvliMorphMaskInfo* rec = nullptr;
  if (cls == kvlMorphMaskRect || cls == kvlMorphMaskRowRuns) {
    rec = reinterpret_cast<KvliMorphMaskInfo*>(p);
    *rec = info;
    if (cls == kvlMorphMaskRect) {
      rec->rowCount = 0;
      rec->lengthCount = 0;
    } else {
      const int r = info.rowCount, l = info.lengthCount;
      std::memcpy(infoRows(rec), arrays, sizeof(Kvl32s) * r);
      std::memcpy(infoRowLengthIndex(rec), arrays + H, sizeof(Kvl32s) * r);
      std::memcpy(infoLengths(rec), arrays + 2 * H, sizeof(Kvl32s) * l);
      std::memcpy(infoLengthAnchors(rec), arrays + 3 * H, sizeof(Kvl32s) * l);
    }
    p += kInfoBytes + (cls == kvlMorphMaskRowRuns
                           ? 8 * (info.rowCount + info.lengthCount)
                           : 0);
  }
  Kvl8u* const maskCopy = alignUp(p, 16);
  const long long A = maskBytes(m);
  if (cls == kvlMorphMaskEmpty) {
    std::memset(maskCopy, 0, static_cast<size_t>(A));
  } else {
    std::memcpy(maskCopy, mask, static_cast<size_t>(elements));
    std::memset(maskCopy + elements, 0, static_cast<size_t>(A - elements));
  }
  p = maskCopy + A;
  Kvl8u* low = nullptr;
  Kvl8u* high = nullptr;
  if (cls == kvlMorphMaskGeneral || (border && cls == kvlMorphMaskRect)) {
    low = p;
    high = p + 16 * elements;
    p = high + 16 * elements;
    for (long long k = 0; k < elements; ++k) {
      const bool on = mask[k] != 0;
      if constexpr (std::is_same_v<T, Kvl32f>) {
        const Kvl32f lo = on ? -FLT_MAX : FLT_MAX;
        for (int q = 0; q < 4; ++q) {
          std::memcpy(low + 16 * k + 4 * q, &lo, 4);
          const Kvl32f hi = -lo;
          std::memcpy(high + 16 * k + 4 * q, &hi, 4);
        }
      } else {
        std::memset(low + 16 * k, on ? 0x00 : 0xff, 16);
        std::memset(high + 16 * k, on ? 0xff : 0x00, 16);
      }
    }
  }
  const bool empty = cls == kvlMorphMaskEmpty;
  st->pMask = maskCopy;
  st->pSelectLow = low;
  st->pSelectHigh = high;
  st->pWork = p;
  st->pMaskInfo = rec;
  st->maskWidth = W;
  st->maskHeight = H;
  st->anchorX = empty ? 0 : a.x;
  st->anchorY = empty ? 0 : a.y;
  st->rightExtent = empty ? 0 : W - a.x - 1;
  st->bottomExtent = empty ? 0 : H - a.y - 1;
  if (border) {
    st->rowBufferLength = empty ? 0 : static_cast<int>(round16(kC * (roiWidth + 0LL + W)));
  } else {
    st->rowBufferLength = cls == kvlMorphMaskGeneral
                              ? static_cast<int>(round16(kC * (roiWidth + 0LL + W) * kElem<T>))
                              : 0;
  }
  st->stateSize = static_cast<int>(size);
  st->dataType = Member<T, kC>::kCode;
  st->channels = kC;
  st->roiWidth = roiWidth;
  st->minusOne = -1;
  st->maskClass = cls;
}

// ---- Size functions and builders ----

template <class T, int kC>
KvlStatus borderGetSize(int roiWidth, KvliSize m, int* pSpecSize, int* pBufferSize) {
  KVL_TRY(check::nonNull(pSpecSize, pBufferSize));
  long long blockSize = 0, buffer = 0;
  KVL_TRY((sizes<T, kC>(roiWidth, m, &blockSize, &buffer)));
  // 16u and 16s check the centre anchor here; it always lies in a mask of valid size.
  *pSpecSize = static_cast<int>(blockSize);
  *pBufferSize = static_cast<int>(buffer);
  return kvlStatusOk;
}

template <class T, int kC>
KvlStatus borderInit(int roiWidth, const Kvl8u* pMask, KvliSize m, KvliMorphState* pSpec,
                     Kvl8u* pBuffer) {
  KVL_TRY(check::nonNull(pMask, pSpec, pBuffer));
  long long blockSize = 0, buffer = 0;
  KVL_TRY((sizes<T, kC>(roiWidth, m, &blockSize, &buffer)));
  const KvliPoint a{(m.width - 1) >> 1, (m.height - 1) >> 1};
  KvliMorphMaskInfo info;
  Kvl32s* arrays = alignUp(reinterpret_cast<Kvl32s*>(pBuffer), alignof(Kvl32s));
  const int cls = ownCheckKernel(m.width, m.height, pMask, a.x, a.y, true, &info, arrays);
  buildState<T, kC>(pSpec, true, roiWidth, pMask, m, a, cls, info, arrays,
                    stateBytes<T, kC>(cls, roiWidth, m, info));
  return kvlStatusOk;
}

// The older interface's builder. mode 0: *pSize receives the size; 1: builds in *ppState's
// caller block; 2: allocates a block of the class's state size and builds in it.
template <class T, int kC>
KvlStatus ownMorphologyInitAlloc(int mode, int roiWidth, const Kvl8u* pMask, KvliSize m,
                                 KvliPoint a, KvliMorphState** ppState, int* pSize) {
  if (mode == 0) {
    KVL_TRY(check::nonNull(pMask, pSize));
  } else {
    KVL_TRY(check::nonNull(pMask, ppState));
    if (mode == 1) KVL_TRY(check::nonNull(*ppState));
  }
  long long blockSize = 0, buffer = 0;
  KVL_TRY((sizes<T, kC>(roiWidth, m, &blockSize, &buffer)));
  if (mode == 0) {
    *pSize = static_cast<int>(blockSize);
    return kvlStatusOk;
  }
  if (a.x < 0 || a.x >= m.width || a.y < 0 || a.y >= m.height) return kvlStatusBadAnchor;
  Kvl32s* arrays = kvlsMalloc_32s(4 * m.height);
  if (arrays == nullptr) return kvlStatusNoMemory;
  KvliMorphMaskInfo info;
  const int cls = ownCheckKernel(m.width, m.height, pMask, a.x, a.y, false, &info, arrays);
  const long long size = stateBytes<T, kC>(cls, roiWidth, m, info);
  KvliMorphState* st = mode == 1 ? *ppState
                                 : reinterpret_cast<KvliMorphState*>(
                                       kvlsMalloc_8u(static_cast<int>(size)));
  if (st == nullptr) {
    kvlsFree(arrays);
    return kvlStatusNoMemory;
  }
  buildState<T, kC>(st, false, roiWidth, pMask, m, a, cls, info, arrays, size);
  kvlsFree(arrays);
  if (mode == 2) *ppState = st;
  return kvlStatusOk;
}

// ---- Erosion and dilation ----

// The run engine, or false when it cannot run in the scratch it has.
template <class T, int kC>
bool runEngine(const T* src, int srcStep, T* dst, int dstStep, KvliSize roi,
               const KvliMorphState* st, int borderType, bool erode, Kvl8u* scratch,
               long long bytes) {
  return morphRuns<T, kC>(src, srcStep, dst, dstStep, roi, st->pMask,
                          KvliSize{st->maskWidth, st->maskHeight},
                          KvliPoint{st->anchorX, st->anchorY}, borderType, erode, scratch,
                          static_cast<std::size_t>(bytes));
}

// A rectangle of the analysis record with a replicated border. An anchor left of (above) the
// rectangle reads only to its right (below): the filter with anchor 0 on the sub-ROI that starts
// as many columns (rows) in, and the columns it cannot produce repeat the last one it produced;
// an anchor right of (below) the rectangle mirrors that.
template <class T, int kC>
KvlStatus rectPath(const T* src, int srcStep, T* dst, int dstStep, KvliSize roi,
                   const KvliMorphMaskInfo& rect, bool erode, Kvl8u* scratch) {
  struct Axis {
    int src, dst, len, anchor;
  };
  auto place = [](int n, int length, int anchor) {
    if (anchor < 0) {
      const int d = -anchor;
      return Axis{std::min(d, n - 1), 0, std::max(n - d, 1), 0};
    }
    if (anchor >= length) {
      const int e = anchor - (length - 1);
      const int len = std::max(n - e, 1);
      return Axis{0, n - len, len, length - 1};
    }
    return Axis{0, 0, n, anchor};
  };
  const Axis x = place(roi.width, rect.width, rect.anchorX);
  const Axis y = place(roi.height, rect.height, rect.anchorY);
  const T* s = rowPtr(src, srcStep, y.src) + static_cast<std::ptrdiff_t>(x.src) * kC;
  T* d = rowPtr(dst, dstStep, y.dst) + static_cast<std::ptrdiff_t>(x.dst) * kC;
  KVL_TRY((Member<T, kC>::filter(erode, s, srcStep, d, dstStep, KvliSize{x.len, y.len},
                                 KvliSize{rect.width, rect.height},
                                 KvliPoint{x.anchor, y.anchor}, scratch)));
  if (x.len < roi.width || y.len < roi.height) {
    border::extendImage<T, kC>(d, dstStep, x.len, y.len, dst, dstStep, y.dst,
                               roi.height - y.dst - y.len, x.dst, roi.width - x.dst - x.len,
                               kvlBorderRepl, T(0));
  }
  return kvlStatusOk;
}

// The 3x3 plus with its anchor in the middle: its own kernel when the border is replicated.
inline bool isCentredPlus(const Kvl8u* mask, KvliSize m, KvliPoint a) {
  if (m.width != 3 || m.height != 3 || a.x != 1 || a.y != 1) return false;
  for (int i = 0; i < 9; ++i)
    if ((mask[i] != 0) != (i % 2 == 1 || i == 4)) return false;
  return true;
}

template <class T, int kC, bool kBorder>
KvlStatus morphology(bool erode, const T* pSrc, int srcStep, T* pDst, int dstStep, KvliSize roi,
                     int borderType, const KvliMorphState* st, Kvl8u* pBuffer) {
  if constexpr (kBorder) {
    KVL_TRY(check::nonNull(pSrc, pDst, st, pBuffer));
  } else {
    KVL_TRY(check::nonNull(pSrc, pDst, st));
  }
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::stepsCover(roi.width, check::Step<T, kC>{srcStep}, check::Step<T, kC>{dstStep}));
  if constexpr (kBorder) {
    KVL_TRY(check::border(borderType, check::modeBit(kvlBorderRepl) | check::modeBit(kvlBorderInMem),
                          kvlStatusBadBorderType));
  } else {
    if (borderType != kvlBorderRepl) return kvlStatusBadArgument;
  }
  if (roi.width > st->roiWidth) return kvlStatusBadSize;
  if constexpr (std::is_same_v<T, Kvl16s>) {
    if (pSrc == pDst) return kvlStatusInPlaceNotSupported;
  }

  const int cls = st->maskClass;
  if (cls == kvlMorphMaskEmpty) {
    for (int yy = 0; yy < roi.height; ++yy)
      std::memmove(rowPtr(pDst, dstStep, yy), rowPtr(pSrc, srcStep, yy),
                   sizeof(T) * kC * roi.width);
    return kvlStatusOk;
  }
  const KvliSize m{st->maskWidth, st->maskHeight};
  const KvliPoint a{st->anchorX, st->anchorY};
  const int bt = (borderType & 15) == kvlBorderInMem ? kvlBorderInMem : borderType;
  if (simd::activeTarget() == simd::kRef) {
    ref::morph<T, kC>(pSrc, srcStep, pDst, dstStep, roi, st->pMask, m, a, bt, erode);
    return kvlStatusOk;
  }
  // The scratch: the caller's buffer (border interface) or the state's own work area.
  Kvl8u* scratch = pBuffer;
  long long bytes = 0;
  if constexpr (kBorder) {
    long long blockSize = 0;
    sizes<T, kC>(st->roiWidth, m, &blockSize, &bytes);
  } else {
    scratch = st->pWork;
    bytes = st->stateSize - (st->pWork - reinterpret_cast<const Kvl8u*>(st));
  }
  if (bt == kvlBorderRepl && isCentredPlus(st->pMask, m, a)) {
    PlusKernel<T, kC>::kernel.pick()(pSrc, srcStep, pDst, dstStep, roi.width, roi.height, !erode);
    return kvlStatusOk;
  }
  if (cls == kvlMorphMaskRect && bt == kvlBorderRepl) {
    long long f = 0;
    filterBytes<T, kC>(st->roiWidth, m, &f);
    if (f <= bytes) {
      return rectPath<T, kC>(pSrc, srcStep, pDst, dstStep, roi, *st->pMaskInfo, erode, scratch);
    }
  }
  if (!runEngine<T, kC>(pSrc, srcStep, pDst, dstStep, roi, st, bt, erode, scratch, bytes))
    ref::morph<T, kC>(pSrc, srcStep, pDst, dstStep, roi, st->pMask, m, a, bt, erode);
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::morph

#define KVL_MORPH_BORDER_IMPL(sfx, T, C, code, sizeSfx)                                          \
  extern "C" KvlStatus impl_kvliMorphologyBorderGetSize_##sfx(int roiWidth, KvliSize maskSize,   \
                                                              int* pSpecSize, int* pBufferSize) { \
    return kvl::morph::borderGetSize<T, C>(roiWidth, maskSize, pSpecSize, pBufferSize);          \
  }                                                                                              \
  extern "C" KvlStatus impl_kvliMorphologyBorderInit_##sfx(                                      \
      int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliMorphState* pSpec,                \
      Kvl8u* pBuffer) {                                                                          \
    return kvl::morph::borderInit<T, C>(roiWidth, pMask, maskSize, pSpec, pBuffer);              \
  }                                                                                              \
  extern "C" KvlStatus impl_kvliErodeBorder_##sfx(const T* pSrc, int srcStep, T* pDst,           \
                                                  int dstStep, KvliSize roiSize, int borderType, \
                                                  T, const KvliMorphState* pSpec,                \
                                                  Kvl8u* pBuffer) {                              \
    return kvl::morph::morphology<T, C, true>(true, pSrc, srcStep, pDst, dstStep, roiSize,       \
                                              borderType, pSpec, pBuffer);                       \
  }                                                                                              \
  extern "C" KvlStatus impl_kvliDilateBorder_##sfx(const T* pSrc, int srcStep, T* pDst,          \
                                                   int dstStep, KvliSize roiSize,                \
                                                   int borderType, T,                            \
                                                   const KvliMorphState* pSpec,                  \
                                                   Kvl8u* pBuffer) {                             \
    return kvl::morph::morphology<T, C, true>(false, pSrc, srcStep, pDst, dstStep, roiSize,      \
                                              borderType, pSpec, pBuffer);                       \
  }
KVL_MORPH_BORDER_MEMBERS(KVL_MORPH_BORDER_IMPL)
#undef KVL_MORPH_BORDER_IMPL

#define KVL_MORPH_OLDER_IMPL(sfx, T, C, code, sizeSfx)                                           \
  extern "C" KvlStatus impl_kvliMorphologyGetSize_##sfx(int roiWidth, const Kvl8u* pMask,        \
                                                        KvliSize maskSize, int* pSize) {         \
    return kvl::morph::ownMorphologyInitAlloc<T, C>(0, roiWidth, pMask, maskSize, {0, 0},        \
                                                    nullptr, pSize);                             \
  }                                                                                              \
  extern "C" KvlStatus impl_kvliMorphologyInit_##sfx(int roiWidth, const Kvl8u* pMask,           \
                                                     KvliSize maskSize, KvliPoint anchor,        \
                                                     KvliMorphState* pState) {                   \
    return kvl::morph::ownMorphologyInitAlloc<T, C>(1, roiWidth, pMask, maskSize, anchor,        \
                                                    &pState, nullptr);                           \
  }                                                                                              \
  extern "C" KvlStatus impl_kvliMorphologyInitAlloc_##sfx(int roiWidth, const Kvl8u* pMask,      \
                                                          KvliSize maskSize, KvliPoint anchor,   \
                                                          KvliMorphState** ppState) {            \
    return kvl::morph::ownMorphologyInitAlloc<T, C>(2, roiWidth, pMask, maskSize, anchor,        \
                                                    ppState, nullptr);                           \
  }                                                                                              \
  extern "C" KvlStatus impl_kvliErodeBorderReplicate_##sfx(const T* pSrc, int srcStep, T* pDst,  \
                                                           int dstStep, KvliSize roiSize,        \
                                                           int borderType,                       \
                                                           const KvliMorphState* pState) {       \
    return kvl::morph::morphology<T, C, false>(true, pSrc, srcStep, pDst, dstStep, roiSize,      \
                                               borderType, pState, nullptr);                     \
  }                                                                                              \
  extern "C" KvlStatus impl_kvliDilateBorderReplicate_##sfx(                                     \
      const T* pSrc, int srcStep, T* pDst, int dstStep, KvliSize roiSize, int borderType,        \
      const KvliMorphState* pState) {                                                            \
    return kvl::morph::morphology<T, C, false>(false, pSrc, srcStep, pDst, dstStep, roiSize,     \
                                               borderType, pState, nullptr);                     \
  }
KVL_MORPH_OLDER_MEMBERS(KVL_MORPH_OLDER_IMPL)
#undef KVL_MORPH_OLDER_IMPL

extern "C" KvlStatus impl_kvliMorphologyFree(KvliMorphState* pState) {
  if (pState == nullptr) return kvlStatusNullPointer;
  kvlsFree(pState);
  return kvlStatusOk;
}
