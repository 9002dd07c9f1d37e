// Colour-to-grey gradient combination: validation, kernel choice and row stripes.
#include "filter/gradient.h"

#include "core/check.h"
#include "core/parallel.h"
#include "core/pixel.h"
#include "impl_decls.h"

namespace kvl::filter {

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
  const GradientRowFn<T> fn = norm == kGradNormInf  ? GradientKernel<T, kGradNormInf>::kernel.pick()
                             : norm == kGradNormL1 ? GradientKernel<T, kGradNormL1>::kernel.pick()
                                                   : GradientKernel<T, kGradNormL2>::kernel.pick();
  par::runStripes(par::teamGradient(roi), roi.height, [&](const par::Stripe& s) {
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
