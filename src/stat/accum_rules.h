// The per-element rules of accumulation and absolute difference, shared by the reference kernels
// and the scalar tails of the vector kernels so both round identically.
#pragma once

#include <cmath>
#include <cstdint>
#include <type_traits>

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

// Elements before p reaches a multiple of `vectorBytes` (at most n): the vector loops run a scalar
// head first, because stores that split cache lines cost more than a few scalar elements. Zero
// when p is not even element-aligned.
template <class T>
inline int alignedHead(const T* p, int vectorBytes, int n) {
  const uintptr_t mis = reinterpret_cast<uintptr_t>(p) % static_cast<uintptr_t>(vectorBytes);
  if (mis == 0 || mis % sizeof(T) != 0) return 0;
  const int head = static_cast<int>((static_cast<uintptr_t>(vectorBytes) - mis) / sizeof(T));
  return head < n ? head : n;
}

}  // namespace kvl::stat
