// Integral images: validation and the kernel call of every member, on the calling thread.
#include "detect/integral.h"

#include "core/check.h"
#include "core/services.h"
#include "impl_decls.h"

namespace kvl::detect {
namespace {

using check::Step;

template <class Src, class Sum, class Sqr, Shape kShape>
KvlStatus integralImage(const Src* src, int srcStep, Sum* sum, int sumStep, SqrElem<Sqr>* sqr,
                        int sqrStep, KvliSize roi, Sum val, SqrElem<Sqr> valSqr) {
  constexpr bool kHasSqr = !std::is_void_v<Sqr>;
  if constexpr (kHasSqr) {
    KVL_TRY(check::nonNull(src, sum, sqr));
  } else {
    KVL_TRY(check::nonNull(src, sum));
  }
  KVL_TRY(check::roi(roi));
  const long long tableWidth = roi.width + (kShape == Shape::kUpright ? 1LL : 2LL);
  KVL_TRY(check::stepsCover(roi.width, Step<Src>{srcStep}));
  KVL_TRY(check::stepsCover(tableWidth, Step<Sum>{sumStep}));
  if constexpr (kHasSqr) {
    KVL_TRY(check::stepsCover(tableWidth, Step<Sqr>{sqrStep}));
    KVL_TRY(check::stepMultiples(Step<Src>{srcStep}, Step<Sum>{sumStep}, Step<Sqr>{sqrStep}));
  } else {
    KVL_TRY(check::stepMultiples(Step<Src>{srcStep}, Step<Sum>{sumStep}));
  }
  // The bytes the call reads and writes (the elements, not the steps' padding). Streaming pays
  // from about half the reported cache size on: the cache is shared with other cores, and a table
  // rewritten from the top on every call is what its replacement evicts first (on a 32 MB cache
  // shared with other work: even at 18 MB, a third faster from 23 MB).
  const long long touched = 1LL * roi.width * roi.height * static_cast<long long>(sizeof(Src)) +
                            (tableWidth * (roi.height + 1LL)) * static_cast<long long>(sizeof(Sum));
  using K = IntegralKernel<Src, Sum, Sqr, kShape>;
  const auto& kernel =
      kStreams<Src, Sqr, kShape> && streamDestination(2 * touched) ? K::streamed : K::kernel;
  kernel.pick()(src, srcStep, sum, sumStep, sqr, sqrStep, roi.width, roi.height, val, valSqr);
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::detect

// The parameter lists and the forwarding call of the three forms.
#define KVL_INTEGRAL_PARAMS_Val(Src, Sum, Sqr) \
  const Src *pSrc, int srcStep, Sum *pDst, int dstStep, KvliSize roiSize, Sum val
#define KVL_INTEGRAL_PARAMS_NoVal(Src, Sum, Sqr) \
  const Src *pSrc, int srcStep, Sum *pDst, int dstStep, KvliSize roiSize
#define KVL_INTEGRAL_PARAMS_Sqr(Src, Sum, Sqr)                                              \
  const Src *pSrc, int srcStep, Sum *pDst, int dstStep, Sqr *pSqr, int sqrStep, KvliSize roiSize, \
      Sum val, Sqr valSqr
#define KVL_INTEGRAL_ARGS_Val pSrc, srcStep, pDst, dstStep, nullptr, 0, roiSize, val, 0
#define KVL_INTEGRAL_ARGS_NoVal pSrc, srcStep, pDst, dstStep, nullptr, 0, roiSize, 0, 0
#define KVL_INTEGRAL_ARGS_Sqr pSrc, srcStep, pDst, dstStep, pSqr, sqrStep, roiSize, val, valSqr

#define KVL_INTEGRAL(Name, types, Src, Sum, Sqr, shape, form)                               \
  extern "C" KvlStatus impl_kvli##Name##_##types##_C1R(KVL_INTEGRAL_PARAMS_##form(Src, Sum, Sqr)) { \
    return kvl::detect::integralImage<Src, Sum, Sqr, kvl::detect::Shape::k##shape>(            \
        KVL_INTEGRAL_ARGS_##form);                                                            \
  }
KVL_INTEGRAL_MEMBERS(KVL_INTEGRAL)
#undef KVL_INTEGRAL
