// Flood fills and their size queries: validation, the early return, the arguments of the call,
// the kernel call and the region record, always on the calling thread.
#include "seg/flood_fill.h"

#include <cstring>

#include "core/check.h"
#include "impl_decls.h"

namespace kvl::seg {
namespace {

KvlStatus storeSize(KvliSize roi, int* pSize, long long bytes) {
  KVL_TRY(check::nonNull(pSize));
  KVL_TRY(check::roi(roi));
  *pSize = static_cast<int>(bytes);
  return kvlStatusOk;
}

template <int kRule, int kConn, class T, int kC, int kStepC>
KvlStatus floodFill(T* pImage, int imageStep, KvliSize roi, KvliPoint seed, const T* newVal,
                    const T* minDelta, const T* maxDelta, KvliConnectedComp* pRegion,
                    Kvl8u* pBuffer) {
  KVL_TRY(check::nonNull(pImage, pRegion, pBuffer, newVal, minDelta, maxDelta));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, check::Step<T, kStepC>{imageStep}));
  if (seed.x < 0 || seed.x >= roi.width || seed.y < 0 || seed.y >= roi.height)
    return kvlStatusOutOfRange;

  FillArgs<T> a{};
  const T* s = rowPtr(pImage, imageStep, seed.y) + static_cast<long long>(seed.x) * kC;
  bool same = true;
  for (int c = 0; c < kC; ++c) {
    a.newVal[c] = newVal[c];
    a.seed[c] = loadAny(s + c);
    same = same && a.seed[c] == a.newVal[c];
  }
  if (kRule != kFillGrad && same) return kvlStatusOk;
  for (int c = 0; c < kC; ++c) {
    const T lo = minDelta[c], hi = maxDelta[c], v = a.seed[c];
    a.minDelta[c] = lo, a.maxDelta[c] = hi;
    if constexpr (std::is_floating_point_v<T>) {
      a.lo[c] = v - lo, a.hi[c] = v + hi;
      a.shift[c] = 0.5f * (lo - hi), a.half[c] = 0.5f * (lo + hi);
    } else {
      constexpr long long kMax = std::numeric_limits<T>::max();
      const long long l = static_cast<long long>(v) - lo, u = static_cast<long long>(v) + hi;
      a.lo[c] = static_cast<T>(l < 0 ? 0 : l), a.hi[c] = static_cast<T>(u > kMax ? kMax : u);
    }
  }

  FillResult r{};
  FillKernel<kRule, kConn, T, kC>::kernel.pick()(pImage, imageStep, roi.width, roi.height, seed.x,
                                                 seed.y, a, pBuffer, &r);
  KvliConnectedComp out{};
  out.area = static_cast<double>(r.area);
  for (int c = 0; c < kC; ++c) out.value[c] = static_cast<double>(a.newVal[c]);
  out.rect = {r.x0, r.y0, r.x1 - r.x0 + 1, r.y1 - r.y0 + 1};
  std::memcpy(pRegion, &out, sizeof out);  // the caller's record may sit at any address
  return kvlStatusOk;
}

// Exact fills have no deltas: any non-null pointer stands in for them.
template <int kRule, int kConn, class T, int kC, int kStepC>
KvlStatus exactFill(T* pImage, int imageStep, KvliSize roi, KvliPoint seed, const T* newVal,
                    KvliConnectedComp* pRegion, Kvl8u* pBuffer) {
  const T none[3] = {};
  return floodFill<kRule, kConn, T, kC, kStepC>(pImage, imageStep, roi, seed, newVal, none, none,
                                                pRegion, pBuffer);
}

}  // namespace
}  // namespace kvl::seg

extern "C" KvlStatus impl_kvliFloodFillGetSize(KvliSize roiSize, int* pSize) {
  return kvl::seg::storeSize(roiSize, pSize,
                             kvl::seg::fillBufferBytes(roiSize.width, roiSize.height));
}

extern "C" KvlStatus impl_kvliFloodFillGetSize_Grad(KvliSize roiSize, int* pSize) {
  return kvl::seg::storeSize(roiSize, pSize,
                             kvl::seg::gradBufferBytes(roiSize.width, roiSize.height));
}

// Parameter lists by rule and channels, and the call of the template body.
#define KVL_FF_PARAMS_Exact_1(T) T newVal, KvliConnectedComp *pRegion, Kvl8u *pBuffer
#define KVL_FF_PARAMS_Exact_3(T) const T newVal[3], KvliConnectedComp *pRegion, Kvl8u *pBuffer
#define KVL_FF_PARAMS_Delta_1(T) \
  T newVal, T minDelta, T maxDelta, KvliConnectedComp *pRegion, Kvl8u *pBuffer
#define KVL_FF_PARAMS_Delta_3(T)                                                      \
  const T newVal[3], const T minDelta[3], const T maxDelta[3], KvliConnectedComp *pRegion, \
      Kvl8u *pBuffer
#define KVL_FF_PARAMS_Range_1 KVL_FF_PARAMS_Delta_1
#define KVL_FF_PARAMS_Range_3 KVL_FF_PARAMS_Delta_3
#define KVL_FF_PARAMS_Grad_1 KVL_FF_PARAMS_Delta_1
#define KVL_FF_PARAMS_Grad_3 KVL_FF_PARAMS_Delta_3
#define KVL_FF_BODY_Exact_1(F) return F(pImage, imageStep, roiSize, seed, &newVal, pRegion, pBuffer)
#define KVL_FF_BODY_Exact_3(F) return F(pImage, imageStep, roiSize, seed, newVal, pRegion, pBuffer)
#define KVL_FF_BODY_Delta_1(F) \
  return F(pImage, imageStep, roiSize, seed, &newVal, &minDelta, &maxDelta, pRegion, pBuffer)
#define KVL_FF_BODY_Delta_3(F) \
  return F(pImage, imageStep, roiSize, seed, newVal, minDelta, maxDelta, pRegion, pBuffer)
#define KVL_FF_BODY_Range_1 KVL_FF_BODY_Delta_1
#define KVL_FF_BODY_Range_3 KVL_FF_BODY_Delta_3
#define KVL_FF_BODY_Grad_1 KVL_FF_BODY_Delta_1
#define KVL_FF_BODY_Grad_3 KVL_FF_BODY_Delta_3
#define KVL_FF_TEMPLATE_Exact exactFill
#define KVL_FF_TEMPLATE_Range floodFill
#define KVL_FF_TEMPLATE_Grad floodFill

#define KVL_FLOOD_FILL(variant, rule, conn, types, T, ch, stepCh)                              \
  extern "C" KvlStatus impl_kvliFloodFill_##variant##_##types##_C##ch##IR(                    \
      T* pImage, int imageStep, KvliSize roiSize, KvliPoint seed,                             \
      KVL_FF_PARAMS_##rule##_##ch(T)) {                                                       \
    KVL_FF_BODY_##rule##_##ch((kvl::seg::KVL_FF_TEMPLATE_##rule<KVL_FLOOD_FILL_RULE_##rule, conn, \
                                                                 T, ch, stepCh>));            \
  }
KVL_FLOOD_FILL_MEMBERS(KVL_FLOOD_FILL)
#undef KVL_FLOOD_FILL
