// Scalar reference kernels of accumulation and absolute difference: the rules written out plainly.
#pragma once

#include <cmath>

#include "stat/accum.h"
#include "stat/accum_rules.h"

namespace kvl::stat::ref {

template <AccOp kOp, class Src, bool kMasked>
void accRow(const Src* s1, const Src* s2, const Kvl8u* mask, const Kvl32f* in, Kvl32f* out, int n,
            float alpha) {
  for (int x = 0; x < n; ++x) {
    if constexpr (kMasked) {
      if (mask[x] == 0) continue;
    }
    out[x] = accumulate<kOp>(in[x], s1[x], kOp == AccOp::kProduct ? s2[x] : s1[x], alpha);
  }
}

template <class T>
void absDiffRow(const T* a, const T* b, T* dst, int n) {
  for (int x = 0; x < n; ++x) dst[x] = absDiff(a[x], b[x]);
}

template <class T>
void absDiffCRow(const T* a, T v, T* dst, int n) {
  for (int x = 0; x < n; ++x) dst[x] = absDiff(a[x], v);
}

}  // namespace kvl::stat::ref
