// Colour-to-grey gradient combination: validation, the family's team rule and row stripes.
#include "filter/gradient.h"

#include "core/check.h"
#include "core/parallel.h"
#include "core/pixel.h"
#include "impl_decls.h"

namespace kvl::filter {

// min(width x height / 1024, height / 16, threads); 1 or less runs on the calling thread. Pixels
// are independent, so the standard stripe split gives the same bytes as any other.
int gradientTeam(KvliSize roi, int threads) {
  long long team = static_cast<long long>(roi.width) * roi.height / 1024;
  if (roi.height / 16 < team) team = roi.height / 16;
  if (threads < team) team = threads;
  return team > 1 ? static_cast<int>(team) : 1;
}

namespace {

template <class T>
KvlStatus gradientColorToGray(const T* src, int srcStep, T* dst, int dstStep, KvliSize roi,
                              int norm) {
  KVL_TRY(check::nonNull(src, dst));
  KVL_TRY(check::roi(roi));
  // Steps must cover their rows but need not be element multiples.
  KVL_TRY(check::stepsCover(roi.width, check::Step<T, 3>{srcStep}, check::Step<T, 1>{dstStep}));
  if (norm != kGradNormInf && norm != kGradNormL1 && norm != kGradNormL2)
    return kvlStatusBadArgument;
  const GradientRowFn<T> fn = gradientRowKernel<T>(norm);
  par::runStripes(gradientTeam(roi, ownGetNumThreads()), roi.height, [&](const par::Stripe& s) {
    for (int y = s.y0; y < s.y0 + s.rows; ++y)
      fn(rowPtr(src, srcStep, y), rowPtr(dst, dstStep, y), roi.width);
  });
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::filter

#define KVL_GRADIENT(suffix, T)                                                              \
  extern "C" KvlStatus impl_kvliGradientColorToGray_##suffix##_C3C1R(                        \
      const T* pSrc, int srcStep, T* pDst, int dstStep, KvliSize roiSize, int norm) {        \
    return kvl::filter::gradientColorToGray<T>(pSrc, srcStep, pDst, dstStep, roiSize, norm); \
  }
KVL_GRADIENT_MEMBERS(KVL_GRADIENT)
#undef KVL_GRADIENT
