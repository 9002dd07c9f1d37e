// Haar classifiers: building, tilting, sizing and freeing the state, and the apply entry points
// (validation, the corner-offset table, the kernel), always on the calling thread.
#include "detect/haar.h"

#include <algorithm>
#include <climits>

#include "core/check.h"
#include "core/services.h"
#include "impl_decls.h"

namespace kvl::detect {
namespace {

constexpr uint32_t kIndexShift = 8;
// Positions of the caller's classifiers kept in an index word.
constexpr long long kIndexPositions = 1LL << (32 - kIndexShift);

// Wrapping 32-bit sums for corner coordinates, so absurd rectangles cannot overflow.
inline int wrapAdd(int a, int b) {
  return static_cast<int>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
inline int wrapSub(int a, int b) {
  return static_cast<int>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

// The corners of a caller's rectangle.
void uprightCorners(const KvliRect& r, KvliPoint* p) {
  const int x1 = wrapAdd(r.x, r.width), y1 = wrapAdd(r.y, r.height);
  p[0] = {x1, y1};
  p[1] = {r.x, y1};
  p[2] = {x1, r.y};
  p[3] = {r.x, r.y};
}
void tiltedCorners(const KvliRect& r, KvliPoint* p) {
  const int w = r.width, h = r.height;
  p[0] = {wrapSub(wrapAdd(r.x, w), h), wrapAdd(wrapAdd(r.y, w), h)};
  p[1] = {wrapSub(r.x, h), wrapAdd(r.y, h)};
  p[2] = {wrapAdd(r.x, w), wrapAdd(r.y, w)};
  p[3] = {r.x, r.y};
}

bool rectAccepted(const KvliRect& r, bool tilted) {
  if (r.x < 0 || r.y < 0 || r.width < 1 || r.height < 1) return false;
  return !tilted || static_cast<long long>(r.height) <= static_cast<long long>(r.x) + 1;
}

template <class V>
void updateBounds(HaarState<V>* st) {
  bool any = false;
  int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  for (int i = 0; i < st->length; ++i) {
    const HaarRecord<V>& c = st->records[i];
    for (int k = 0; k < c.n; ++k) {
      for (const KvliPoint& p : c.rects[k].p) {
        x0 = any ? std::min(x0, p.x) : p.x;
        y0 = any ? std::min(y0, p.y) : p.y;
        x1 = any ? std::max(x1, p.x) : p.x;
        y1 = any ? std::max(y1, p.y) : p.y;
        any = true;
      }
    }
  }
  st->bounds = {x0, y0, wrapSub(x1, x0), wrapSub(y1, y0)};
}

template <class V>
KvlStatus initAlloc(HaarState<V>** ppState, const KvliRect* pFeature, const V* pWeight,
                    const V* pThreshold, const V* pVal1, const V* pVal2, const int* pNum,
                    int length, bool tilted) {
  KVL_TRY(check::nonNull(ppState, pFeature, pWeight, pThreshold, pVal1, pVal2, pNum));
  if (length < 0) return kvlStatusBadSize;
  long long total = 0;
  for (int i = 0; i < length; ++i) {
    const int n = loadAny(pNum + i);
    if (n < 1) return kvlStatusBadSize;
    total += n;
  }
  const long long bytes = haarStateBytes(length, total);
  if (bytes > INT_MAX) return kvlStatusNoMemory;
  Kvl8u* mem = kvlsMalloc_8u(static_cast<int>(bytes));
  if (mem == nullptr) return kvlStatusNoMemory;

  auto* st = reinterpret_cast<HaarState<V>*>(mem);
  auto* records = reinterpret_cast<HaarRecord<V>*>(mem + sizeof(HaarState<V>));
  auto* rects =
      reinterpret_cast<HaarRect<V>*>(mem + sizeof(HaarState<V>) + sizeof(HaarRecord<V>) * length);
  *st = HaarState<V>{length,
                     static_cast<int32_t>(total),
                     records,
                     {0, 0, 0, 0},
                     tilted ? kTiltedFlag : 0,
                     static_cast<int32_t>(total),
                     0,
                     0};
  // Upright classifiers in three passes (2 rectangles, 3, the rest); tilted ones in one.
  int next = 0;
  HaarRect<V>* out = rects;
  bool accepted = true;
  for (int pass = tilted ? 2 : 0; pass < 3; ++pass) {
    long long first = 0;  // the classifier's first rectangle in the caller's arrays
    for (int i = 0; i < length; first += loadAny(pNum + i), ++i) {
      const int n = loadAny(pNum + i);
      if (!tilted && (pass == 0 ? n != 2 : pass == 1 ? n != 3 : (n == 2 || n == 3))) continue;
      HaarRecord<V>& c = records[next++];
      c = HaarRecord<V>{n,
                        out,
                        loadAny(pThreshold + i),
                        loadAny(pVal1 + i),
                        loadAny(pVal2 + i),
                        (static_cast<uint32_t>(i) << kIndexShift) | (tilted ? kTiltedFlag : 0)};
      for (int k = 0; k < n; ++k, ++out) {
        const KvliRect r = loadAny(pFeature + first + k);
        accepted = accepted && rectAccepted(r, tilted);
        tilted ? tiltedCorners(r, out->p) : uprightCorners(r, out->p);
        out->weight = loadAny(pWeight + first + k);
      }
    }
    if (pass == 0) st->count2 = next;
    if (pass == 1) st->count23 = next;
  }
  if (!accepted) {
    kvlsFree(mem);
    storeAny(ppState, static_cast<HaarState<V>*>(nullptr));
    return kvlStatusBadArgument;
  }
  updateBounds(st);
  storeAny(ppState, st);
  return kvlStatusOk;
}

template <class V>
KvlStatus freeState(HaarState<V>* st) {
  KVL_TRY(check::nonNull(st));
  kvlsFree(st);
  return kvlStatusOk;
}

template <class V>
KvlStatus classifierSize(const HaarState<V>* st, KvliSize* pSize) {
  KVL_TRY(check::nonNull(st, pSize));
  KvliSize s{0, 0};
  bool any = false;
  for (int i = 0; i < st->length; ++i) {
    const HaarRecord<V>& c = st->records[i];
    for (int k = 0; k < c.n; ++k) {
      s.width = any ? std::max(s.width, c.rects[k].p[2].x) : c.rects[k].p[2].x;
      s.height = any ? std::max(s.height, c.rects[k].p[0].y) : c.rects[k].p[0].y;
      any = true;
    }
  }
  storeAny(pSize, s);
  return kvlStatusOk;
}

// Rewrites one upright classifier's rectangles as diamonds of side w.
template <class V>
void tiltRecord(HaarRecord<V>& c, bool hanging) {
  for (int k = 0; k < c.n; ++k) {
    KvliPoint* p = c.rects[k].p;
    const int x = p[3].x, y = p[3].y;
    const int w = wrapSub(p[0].x, x), h = wrapSub(p[0].y, y);
    const int w2 = wrapAdd(w, w);
    if (hanging) {
      p[3] = {x, y};
      p[2] = {wrapAdd(x, w), wrapAdd(y, w)};
      p[1] = {wrapSub(x, w), wrapAdd(y, w)};
      p[0] = {x, wrapAdd(y, w2)};
    } else {
      const int bottom = wrapAdd(y, h);
      p[0] = {x, bottom};
      p[1] = {wrapSub(x, w), wrapSub(bottom, w)};
      p[2] = {wrapAdd(x, w), wrapSub(bottom, w)};
      p[3] = {x, wrapSub(bottom, w2)};
    }
  }
  c.index = kTiltedFlag;  // the position is dropped: no later search finds this record
}

template <class V>
KvlStatus tiltFeatures(const Kvl8u* pMask, int flag, HaarState<V>* st) {
  KVL_TRY(check::nonNull(pMask, st));
  if (st->flags & kTiltedFlag) return kvlStatusBadArgument;
  bool any = false;
  if (st->length <= kIndexPositions) {
    // Every position appears in exactly one index word, so one pass over the records tilts the
    // same ones as a search for each marked position would.
    for (int r = 0; r < st->length; ++r) {
      HaarRecord<V>& c = st->records[r];
      if (c.index & kTiltedFlag) continue;
      if (pMask[c.index >> kIndexShift] == 0) continue;
      tiltRecord(c, flag != 0);
      any = true;
    }
  } else {
    // Positions wrap in the index word: search for each marked one, first match wins.
    for (long long i = 0; i < kIndexPositions; ++i) {
      if (pMask[i] == 0) continue;
      for (int r = 0; r < st->length; ++r) {
        HaarRecord<V>& c = st->records[r];
        if ((c.index >> kIndexShift) != static_cast<uint32_t>(i)) continue;
        tiltRecord(c, flag != 0);
        any = true;
        break;
      }
    }
  }
  if (any) {
    st->flags |= kTiltedFlag;
    updateBounds(st);
  }
  return kvlStatusOk;
}

template <HaarArith A, bool kMixed>
KvlStatus apply(const typename HaarTypes<A>::Table* src, int srcStep,
                const typename HaarTypes<A>::Table* tilt, int tiltStep,
                const typename HaarTypes<A>::Value* norm, int normStep, Kvl8u* mask, int maskStep,
                KvliSize roi, int* pPositive, typename HaarTypes<A>::Value threshold,
                const HaarState<typename HaarTypes<A>::Value>* st, int scaleFactor) {
  using Table = typename HaarTypes<A>::Table;
  using Value = typename HaarTypes<A>::Value;
  KVL_TRY(check::nonNull(src, kMixed ? tilt : src, norm, mask, pPositive, st));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, check::Step<Table>{srcStep},
                       check::Step<Table>{kMixed ? tiltStep : srcStep},
                       check::Step<Value>{normStep}, check::Step<Kvl8u>{maskStep}));
  if (A == HaarArith::kWide && scaleFactor > 0) return kvlStatusBadArgument;

  HaarJob<A> job{src,      srcStep / 4, nullptr, tiltStep / 4, norm,      normStep, mask,
                 maskStep, roi,         st,      nullptr,      threshold, 0};
  Kvl32s* offsets = nullptr;
  if constexpr (kMixed) {
    job.tilt = tilt + job.tiltStride + 1;
    job.shift = static_cast<int>(std::min(-static_cast<long long>(scaleFactor), 64LL));
  } else if (st->offsetRects > 0) {
    offsets = kvlsMalloc_32s(4 * st->offsetRects);
    if (offsets == nullptr) return kvlStatusNoMemory;
    Kvl32s* o = offsets;
    for (int i = 0; i < st->length; ++i) {
      const HaarRecord<Value>& c = st->records[i];
      for (int k = 0; k < c.n; ++k)
        for (const KvliPoint& p : c.rects[k].p) *o++ = cornerOffset(p, job.srcStride);
    }
    job.offsets = offsets;
  }
  const int positive = HaarKernel<A, kMixed>::kernel.pick()(job);
  kvlsFree(offsets);
  storeAny(pPositive, positive);
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::detect

#define KVL_HAAR_STATE(types, V)                                                                  \
  extern "C" KvlStatus impl_kvliHaarClassifierInitAlloc_##types(                                  \
      KvliHaarClassifier_##types** ppState, const KvliRect* pFeature, const V* pWeight,           \
      const V* pThreshold, const V* pVal1, const V* pVal2, const int* pNum, int length) {         \
    return kvl::detect::initAlloc<V>(reinterpret_cast<kvl::detect::HaarState<V>**>(ppState),      \
                                     pFeature, pWeight, pThreshold, pVal1, pVal2, pNum, length,   \
                                     false);                                                      \
  }                                                                                               \
  extern "C" KvlStatus impl_kvliTiltedHaarClassifierInitAlloc_##types(                            \
      KvliHaarClassifier_##types** ppState, const KvliRect* pFeature, const V* pWeight,           \
      const V* pThreshold, const V* pVal1, const V* pVal2, const int* pNum, int length) {         \
    return kvl::detect::initAlloc<V>(reinterpret_cast<kvl::detect::HaarState<V>**>(ppState),      \
                                     pFeature, pWeight, pThreshold, pVal1, pVal2, pNum, length,   \
                                     true);                                                       \
  }                                                                                               \
  extern "C" KvlStatus impl_kvliHaarClassifierFree_##types(KvliHaarClassifier_##types* pState) {  \
    return kvl::detect::freeState(kvl::detect::stateOf(pState));                                  \
  }                                                                                               \
  extern "C" KvlStatus impl_kvliGetHaarClassifierSize_##types(KvliHaarClassifier_##types* pState, \
                                                              KvliSize* pSize) {                  \
    return kvl::detect::classifierSize(kvl::detect::stateOf(pState), pSize);                      \
  }                                                                                               \
  extern "C" KvlStatus impl_kvliTiltHaarFeatures_##types(const Kvl8u* pMask, int flag,            \
                                                         KvliHaarClassifier_##types* pState) {    \
    return kvl::detect::tiltFeatures(pMask, flag, kvl::detect::stateOf(pState));                  \
  }
KVL_HAAR_STATE_MEMBERS(KVL_HAAR_STATE)
#undef KVL_HAAR_STATE

#define KVL_HAAR_TILT_PARAMS_Upright(Table)
#define KVL_HAAR_TILT_PARAMS_Mixed(Table) const Table *pTilt, int tiltStep,
#define KVL_HAAR_TILT_PASS_Upright nullptr, 0
#define KVL_HAAR_TILT_PASS_Mixed pTilt, tiltStep
#define KVL_HAAR_SFS_PARAMS_NoSfs
#define KVL_HAAR_SFS_PARAMS_Sfs , int scaleFactor
#define KVL_HAAR_SFS_PASS_NoSfs 0
#define KVL_HAAR_SFS_PASS_Sfs scaleFactor
#define KVL_HAAR_APPLY(Op, suffix, arith, layout, Table, Value, types, sfs)                        \
  extern "C" KvlStatus impl_kvli##Op##_##suffix(                                                   \
      const Table* pSrc, int srcStep, KVL_HAAR_TILT_PARAMS_##layout(Table) const Value* pNorm,     \
      int normStep, Kvl8u* pMask, int maskStep, KvliSize roiSize, int* pPositive, Value threshold, \
      KvliHaarClassifier_##types* pState KVL_HAAR_SFS_PARAMS_##sfs) {                              \
    return kvl::detect::apply<kvl::detect::HaarArith::arith, KVL_HAAR_MIXED_##layout>(             \
        pSrc, srcStep, KVL_HAAR_TILT_PASS_##layout, pNorm, normStep, pMask, maskStep, roiSize,     \
        pPositive, threshold, kvl::detect::stateOf(pState), KVL_HAAR_SFS_PASS_##sfs);              \
  }
KVL_HAAR_APPLY_MEMBERS(KVL_HAAR_APPLY)
#undef KVL_HAAR_APPLY
