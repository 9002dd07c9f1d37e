// Accumulation and absolute difference: validation, kernel choice and row stripes per member.
#include "stat/accum.h"

#include <climits>

#include "core/check.h"
#include "core/parallel.h"
#include "core/pixel.h"
#include "core/services.h"
#include "impl_decls.h"

namespace kvl::stat {

namespace {

using check::Step;

// Calls run(y, n) for the rows of a stripe, n elements each. When the rows of every image follow
// each other without padding, the stripe is one run of rows x n elements: pixels are independent,
// so the bytes are the same and the kernel loses its per-row heads and tails.
template <class Run>
void forRows(const par::Stripe& s, int rowElems, bool contiguous, Run&& run) {
  const long long all = static_cast<long long>(rowElems) * s.rows;
  if (contiguous && all <= INT_MAX) {
    run(s.y0, static_cast<int>(all));
    return;
  }
  for (int y = s.y0; y < s.y0 + s.rows; ++y) run(y, rowElems);
}

// True when `step` is exactly the bytes of `width` elements of T.
template <class T>
bool dense(const T*, int step, int width) {
  return static_cast<long long>(step) ==
         static_cast<long long>(width) * static_cast<long long>(sizeof(T));
}

// Runs the row kernel over the ROI in per-pixel stripes. Null s2 or mask mean "not used".
template <AccOp kOp, class Src, bool kMasked>
KvlStatus accumulateImage(const Src* s1, int s1Step, const Src* s2, int s2Step, const Kvl8u* mask,
                          int maskStep, const Kvl32f* in, int inStep, Kvl32f* out, int outStep,
                          KvliSize roi, float alpha) {
  const AccRowFn<Src> fn = AccKernel<kOp, Src, kMasked>::kernel.pick();
  const int w = roi.width;
  const bool contiguous = dense(s1, s1Step, w) && (!s2 || dense(s2, s2Step, w)) &&
                          (!mask || dense(mask, maskStep, w)) && dense(in, inStep, w) &&
                          dense(out, outStep, w);
  par::runStripes(par::teamPerPixel(roi), roi.height, [&](const par::Stripe& s) {
    forRows(s, w, contiguous, [&](int y, int n) {
      fn(rowPtr(s1, s1Step, y), s2 ? rowPtr(s2, s2Step, y) : nullptr,
         mask ? rowPtr(mask, maskStep, y) : nullptr, rowPtr(in, inStep, y), rowPtr(out, outStep, y),
         n, alpha);
    });
  });
  return kvlStatusOk;
}

template <class T, int kC>
KvlStatus absDiffImage(const T* a, int aStep, const T* b, int bStep, T* dst, int dstStep,
                       KvliSize roi) {
  KVL_TRY(check::nonNull(a, b, dst));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, Step<T, kC>{aStep}, Step<T, kC>{bStep}, Step<T, kC>{dstStep}));
  const long long touched = static_cast<long long>(roi.height) * (0LL + aStep + bStep + dstStep);
  const AbsDiffRowFn<T> fn = streamDestination(touched)
                                ? AbsDiffKernel<T, kC, true>::kernel.pick()
                                : AbsDiffKernel<T, kC, false>::kernel.pick();
  const int n = roi.width * kC;
  const bool contiguous = dense(a, aStep, n) && dense(b, bStep, n) && dense(dst, dstStep, n);
  par::runStripes(par::teamPerPixel(roi), roi.height, [&](const par::Stripe& s) {
    forRows(s, n, contiguous, [&](int y, int count) {
      fn(rowPtr(a, aStep, y), rowPtr(b, bStep, y), rowPtr(dst, dstStep, y), count);
    });
  });
  return kvlStatusOk;
}

// The constant is clamped into the element type's range first (no-op for floats).
template <class T, class V>
KvlStatus absDiffCImage(const T* a, int aStep, T* dst, int dstStep, KvliSize roi, V value) {
  KVL_TRY(check::nonNull(a, dst));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, Step<T>{aStep}, Step<T>{dstStep}));
  T v;
  if constexpr (std::is_floating_point_v<T>) {
    v = value;
  } else {
    v = saturate<T>(value);
  }
  const long long touched = static_cast<long long>(roi.height) * (0LL + aStep + dstStep);
  const AbsDiffCRowFn<T> fn = streamDestination(touched) ? AbsDiffCKernel<T, true>::kernel.pick()
                                                          : AbsDiffCKernel<T, false>::kernel.pick();
  const bool contiguous = dense(a, aStep, roi.width) && dense(dst, dstStep, roi.width);
  par::runStripes(par::teamPerPixel(roi), roi.height, [&](const par::Stripe& s) {
    forRows(s, roi.width, contiguous,
            [&](int y, int n) { fn(rowPtr(a, aStep, y), v, rowPtr(dst, dstStep, y), n); });
  });
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::stat

using kvl::check::Step;
using kvl::stat::AccOp;

#define KVL_ONE_SOURCE(name, suffix, Src, op)                                                   \
  extern "C" KvlStatus impl_kvli##name##_##suffix##_C1IR(                                       \
      const Src* pSrc, int srcStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize) {        \
    KVL_TRY(kvl::check::nonNull(pSrc, pSrcDst));                                                \
    KVL_TRY(kvl::check::roi(roiSize));                                                          \
    KVL_TRY(kvl::check::steps(roiSize.width, Step<Src>{srcStep}, Step<Kvl32f>{srcDstStep}));    \
    return kvl::stat::accumulateImage<op, Src, false>(pSrc, srcStep, nullptr, 0, nullptr, 0,    \
                                                      pSrcDst, srcDstStep, pSrcDst, srcDstStep, \
                                                      roiSize, 0.0f);                           \
  }
KVL_ACC_ONE_SOURCE_MEMBERS(KVL_ONE_SOURCE)
#undef KVL_ONE_SOURCE

#define KVL_ONE_SOURCE_MASKED(name, suffix, Src, op)                                             \
  extern "C" KvlStatus impl_kvli##name##_##suffix##_C1IMR(                                       \
      const Src* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst,           \
      int srcDstStep, KvliSize roiSize) {                                                        \
    KVL_TRY(kvl::check::nonNull(pSrc, pMask, pSrcDst));                                          \
    KVL_TRY(kvl::check::roi(roiSize));                                                           \
    KVL_TRY(kvl::check::steps(roiSize.width, Step<Src>{srcStep}, Step<Kvl8u>{maskStep},          \
                              Step<Kvl32f>{srcDstStep}));                                        \
    return kvl::stat::accumulateImage<op, Src, true>(pSrc, srcStep, nullptr, 0, pMask, maskStep, \
                                                     pSrcDst, srcDstStep, pSrcDst, srcDstStep,   \
                                                     roiSize, 0.0f);                             \
  }
KVL_ACC_ONE_SOURCE_MASKED_MEMBERS(KVL_ONE_SOURCE_MASKED)
#undef KVL_ONE_SOURCE_MASKED

#define KVL_TWO_SOURCE(name, suffix, Src, op)                                                      \
  extern "C" KvlStatus impl_kvli##name##_##suffix##_C1IR(                                          \
      const Src* pSrc1, int src1Step, const Src* pSrc2, int src2Step, Kvl32f* pSrcDst,             \
      int srcDstStep, KvliSize roiSize) {                                                          \
    KVL_TRY(kvl::check::nonNull(pSrc1, pSrc2, pSrcDst));                                           \
    KVL_TRY(kvl::check::roi(roiSize));                                                             \
    KVL_TRY(kvl::check::steps(roiSize.width, Step<Src>{src1Step}, Step<Src>{src2Step},             \
                              Step<Kvl32f>{srcDstStep}));                                          \
    return kvl::stat::accumulateImage<op, Src, false>(pSrc1, src1Step, pSrc2, src2Step, nullptr,   \
                                                      0, pSrcDst, srcDstStep, pSrcDst, srcDstStep, \
                                                      roiSize, 0.0f);                              \
  }                                                                                                \
  extern "C" KvlStatus impl_kvli##name##_##suffix##_C1IMR(                                         \
      const Src* pSrc1, int src1Step, const Src* pSrc2, int src2Step, const Kvl8u* pMask,          \
      int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize) {                           \
    KVL_TRY(kvl::check::nonNull(pSrc1, pSrc2, pMask, pSrcDst));                                    \
    KVL_TRY(kvl::check::roi(roiSize));                                                             \
    KVL_TRY(kvl::check::steps(roiSize.width, Step<Src>{src1Step}, Step<Src>{src2Step},             \
                              Step<Kvl8u>{maskStep}, Step<Kvl32f>{srcDstStep}));                   \
    return kvl::stat::accumulateImage<op, Src, true>(pSrc1, src1Step, pSrc2, src2Step, pMask,      \
                                                     maskStep, pSrcDst, srcDstStep, pSrcDst,       \
                                                     srcDstStep, roiSize, 0.0f);                   \
  }
KVL_ACC_TWO_SOURCE_MEMBERS(KVL_TWO_SOURCE)
#undef KVL_TWO_SOURCE

#define KVL_WEIGHTED(name, suffix, Src, op)                                                      \
  extern "C" KvlStatus impl_kvli##name##_##suffix##_C1IR(const Src* pSrc, int srcStep,           \
                                                         Kvl32f* pSrcDst, int srcDstStep,        \
                                                         KvliSize roiSize, Kvl32f alpha) {       \
    KVL_TRY(kvl::check::nonNull(pSrc, pSrcDst));                                                 \
    KVL_TRY(kvl::check::roi(roiSize));                                                           \
    KVL_TRY(kvl::check::steps(roiSize.width, Step<Src>{srcStep}, Step<Kvl32f>{srcDstStep}));     \
    return kvl::stat::accumulateImage<op, Src, false>(pSrc, srcStep, nullptr, 0, nullptr, 0,     \
                                                      pSrcDst, srcDstStep, pSrcDst, srcDstStep,  \
                                                      roiSize, alpha);                           \
  }                                                                                              \
  extern "C" KvlStatus impl_kvli##name##_##suffix##_C1IMR(                                       \
      const Src* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst,           \
      int srcDstStep, KvliSize roiSize, Kvl32f alpha) {                                          \
    KVL_TRY(kvl::check::nonNull(pSrc, pMask, pSrcDst));                                          \
    KVL_TRY(kvl::check::roi(roiSize));                                                           \
    KVL_TRY(kvl::check::steps(roiSize.width, Step<Src>{srcStep}, Step<Kvl8u>{maskStep},          \
                              Step<Kvl32f>{srcDstStep}));                                        \
    return kvl::stat::accumulateImage<op, Src, true>(pSrc, srcStep, nullptr, 0, pMask, maskStep, \
                                                     pSrcDst, srcDstStep, pSrcDst, srcDstStep,   \
                                                     roiSize, alpha);                            \
  }
KVL_ACC_WEIGHTED_MEMBERS(KVL_WEIGHTED)
#undef KVL_WEIGHTED

// The second source stands in for the old accumulator: dst = s2 + alpha * (s1 - s2).
extern "C" KvlStatus impl_kvliAddWeighted_32f_C1R(const Kvl32f* pSrc1, int src1Step,
                                                  const Kvl32f* pSrc2, int src2Step, Kvl32f* pDst,
                                                  int dstStep, KvliSize roiSize, Kvl32f alpha) {
  KVL_TRY(kvl::check::nonNull(pSrc1, pSrc2, pDst));
  KVL_TRY(kvl::check::roi(roiSize));
  KVL_TRY(kvl::check::steps(roiSize.width, Step<Kvl32f>{src1Step}, Step<Kvl32f>{src2Step},
                            Step<Kvl32f>{dstStep}));
  return kvl::stat::accumulateImage<AccOp::kWeighted, Kvl32f, false>(
      pSrc1, src1Step, nullptr, 0, nullptr, 0, pSrc2, src2Step, pDst, dstStep, roiSize, alpha);
}

#define KVL_ABSDIFF(suffix, T, kC)                                                             \
  extern "C" KvlStatus impl_kvliAbsDiff_##suffix(const T* pSrc1, int src1Step, const T* pSrc2, \
                                                 int src2Step, T* pDst, int dstStep,           \
                                                 KvliSize roiSize) {                           \
    return kvl::stat::absDiffImage<T, kC>(pSrc1, src1Step, pSrc2, src2Step, pDst, dstStep,     \
                                          roiSize);                                            \
  }
KVL_ABSDIFF_MEMBERS(KVL_ABSDIFF)
#undef KVL_ABSDIFF

#define KVL_ABSDIFFC(suffix, T, V)                                                          \
  extern "C" KvlStatus impl_kvliAbsDiffC_##suffix(const T* pSrc, int srcStep, T* pDst,      \
                                                  int dstStep, KvliSize roiSize, V value) { \
    return kvl::stat::absDiffCImage<T, V>(pSrc, srcStep, pDst, dstStep, roiSize, value);    \
  }
KVL_ABSDIFFC_MEMBERS(KVL_ABSDIFFC)
#undef KVL_ABSDIFFC
