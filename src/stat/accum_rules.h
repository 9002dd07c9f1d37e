// The per-element rules of accumulation and absolute difference, shared by the reference kernels
// and the scalar tails of the vector kernels so both round identically.
#pragma once

#include <cmath>
#include <cstdint>
#include <type_traits>

#include "core/pixel.h"
#include "stat/accum.h"

namespace kvl::stat {

// Single precision throughout: the sources convert to float exactly, then the product or
// difference is rounded to float before it is added to the old value a.
template <AccOp kOp, class Src>
inline float accumulate(float a, Src s1, Src s2, float alpha) {
  const float f1 = static_cast<float>(s1);
  if constexpr (kOp == AccOp::kAdd) {
    return a + f1;
  } else if constexpr (kOp == AccOp::kSquare) {
    return a + f1 * f1;
  } else if constexpr (kOp == AccOp::kProduct) {
    return a + f1 * static_cast<float>(s2);
  } else {
    return a + alpha * (f1 - a);
  }
}

// |a - b|, exact: integer types never overflow, floats take the magnitude of the float difference.
template <class T>
inline T absDiff(T a, T b) {
  if constexpr (std::is_floating_point_v<T>) {
    return std::fabs(a - b);
  } else {
    return static_cast<T>(a > b ? a - b : b - a);
  }
}

}  // namespace kvl::stat
