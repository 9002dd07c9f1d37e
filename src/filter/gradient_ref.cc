// Scalar reference kernels of the colour-to-grey gradient combination.
#include "filter/gradient.h"

namespace kvl::filter::ref {

template <class T, int kNorm>
void gradientRow(const T* src, T* dst, int n) {
  for (int x = 0; x < n; ++x)
    storeAny(dst + x, gradientPixel<T, kNorm>(loadAny(src + 3 * x), loadAny(src + 3 * x + 1),
                                              loadAny(src + 3 * x + 2)));
}

#define KVL_INSTANTIATE(suffix, T)                               \
  template void gradientRow<T, kGradNormInf>(const T*, T*, int); \
  template void gradientRow<T, kGradNormL1>(const T*, T*, int);  \
  template void gradientRow<T, kGradNormL2>(const T*, T*, int);
KVL_GRADIENT_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::filter::ref
