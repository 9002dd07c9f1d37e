// Colour-to-grey gradient combination: the member table, the per-pixel rules and the kernels.
#pragma once

#include <cmath>
#include <type_traits>

#include "core/pixel.h"
#include "core/simd.h"
#include "kvlcv.h"

namespace kvl::filter {

// Members, kvliGradientColorToGray_<suffix>_C3C1R: X(suffix, T).
// clang-format off
#define KVL_GRADIENT_MEMBERS(X) \
  X(8u,  Kvl8u)                 \
  X(16u, Kvl16u)                \
  X(32f, Kvl32f)
// clang-format on
// Norm codes of this family.
constexpr int kGradNormInf = 0, kGradNormL1 = 1, kGradNormL2 = 2;

// One row of n three-channel pixels into n one-channel pixels. Rows need not be aligned to the
// element size (steps are not required to be element multiples).
template <class T>
using GradientRowFn = void (*)(const T* src, T* dst, int n);

// The kernel of one member and norm, instantiated for every row of the member table.
template <class T, int kNorm>
struct GradientKernel {
  static const simd::Kernel<GradientRowFn<T>> kernel;
};
#define KVL_GRADIENT_EXTERN(suffix, T)              \
  extern template struct GradientKernel<T, kGradNormInf>; \
  extern template struct GradientKernel<T, kGradNormL1>;  \
  extern template struct GradientKernel<T, kGradNormL2>;
KVL_GRADIENT_MEMBERS(KVL_GRADIENT_EXTERN)
#undef KVL_GRADIENT_EXTERN

namespace ref {
template <class T, int kNorm>
void gradientRow(const T* src, T* dst, int n);
}  // namespace ref

// x if x > y, else y: the vector max on every target, NaN included.
inline float maxOrSecond(float x, float y) { return x > y ? x : y; }

// One pixel by norm kNorm. The integer members average over the channels (L1 by a fixed-point
// third rounded up at one half, L2 as the root of the mean square, rounded half up); the float
// member sums without dividing by 3.
template <class T, int kNorm>
inline T gradientPixel(T c0, T c1, T c2) {
  if constexpr (std::is_same_v<T, Kvl32f>) {
    if constexpr (kNorm == kGradNormInf) {
      return maxOrSecond(maxOrSecond(std::fabs(c0), std::fabs(c1)), std::fabs(c2));
    } else if constexpr (kNorm == kGradNormL1) {
      return std::fabs(c0) + std::fabs(c1) + std::fabs(c2);
    } else {
      return std::sqrt(c0 * c0 + c1 * c1 + c2 * c2);
    }
  } else {
    const int a = c0, b = c1, c = c2;
    if constexpr (kNorm == kGradNormInf) {
      return static_cast<T>(a > b ? (a > c ? a : c) : (b > c ? b : c));
    } else if constexpr (kNorm == kGradNormL1) {
      if constexpr (std::is_same_v<T, Kvl8u>)
        return static_cast<T>(((a + b + c) * 1365 + 2048) >> 12);
      else
        return static_cast<T>(((a + b + c) * 5461 + 8192) >> 14);
    } else if constexpr (std::is_same_v<T, Kvl8u>) {
      // Squares summed in int, divided by 3 in float; root and rounding in double.
      const float mean = static_cast<float>(a * a + b * b + c * c) / 3.0f;
      return static_cast<T>(std::sqrt(static_cast<double>(mean)) + 0.5);
    } else {
      // 16u squares overflow int: everything in double.
      const double da = a, db = b, dc = c;
      const double mean = (da * da + db * db + dc * dc) / 3.0;
      return static_cast<T>(std::sqrt(mean) + 0.5);
    }
  }
}

}  // namespace kvl::filter
