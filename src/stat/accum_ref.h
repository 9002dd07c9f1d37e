// Scalar reference kernels of accumulation and absolute difference: the rules written out plainly.
// Elements are read and written through loadAny/storeAny: the callers' images may lie at any byte
// address.
#pragma once

#include <cmath>

#include "core/pixel.h"
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
    const Src v1 = loadAny(s1 + x);
    const Src v2 = kOp == AccOp::kProduct ? loadAny(s2 + x) : v1;
    storeAny(out + x, accumulate<kOp>(loadAny(in + x), v1, v2, alpha));
  }
}

template <class T>
void absDiffRow(const T* a, const T* b, T* dst, int n) {
  for (int x = 0; x < n; ++x) storeAny(dst + x, absDiff(loadAny(a + x), loadAny(b + x)));
}

template <class T>
void absDiffCRow(const T* a, T v, T* dst, int n) {
  for (int x = 0; x < n; ++x) storeAny(dst + x, absDiff(loadAny(a + x), v));
}

}  // namespace kvl::stat::ref
