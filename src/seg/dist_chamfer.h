// Chamfer distance transforms: the rule a call runs with, the whole-image kernel's signature,
// the arithmetic the reference and the vector kernels share, and the kernel of every
// (output, mask) pair of KVL_CHAMFER_MEMBERS.
#pragma once

#include <cfloat>
#include <limits>
#include <type_traits>

#include "core/simd.h"
#include "kvlcv.h"
#include "seg/dist_chamfer_members.h"

namespace kvl::seg {

// Infinity of an output: its largest value (the largest finite float for Kvl32f).
template <class Out>
constexpr Out kFar = std::is_floating_point_v<Out> ? static_cast<Out>(FLT_MAX)
                                                   : std::numeric_limits<Out>::max();

// One candidate: a neighbour's distance plus a weight, saturated at kFar for integers, one
// single-precision addition for floats. Integer weights are already clamped to kFar.
template <class Out>
inline Out plus(Out d, Out w) {
  if constexpr (std::is_floating_point_v<Out>) {
    return d + w;
  } else {
    const unsigned s = static_cast<unsigned>(d) + static_cast<unsigned>(w);
    return static_cast<Out>(s > kFar<Out> ? kFar<Out> : s);
  }
}

template <class Out>
inline Out lesser(Out p, Out q) {
  return q < p ? q : p;
}

// What a call runs with: the weights in the output's arithmetic (integers clamped to kFar; c
// unused by 3x3 masks), and the two shortcuts the vector kernels may take. Both give exactly
// the two-pass result; the reference ignores them.
//   doubling  the in-row propagation d(x) = min(v(x), d(x-1) + a) may be evaluated by doubling
//             steps, because k additions of a equal one addition of k x a: always for saturating
//             integers; for floats when the weights are small integers, so every finite sum is
//             an exact integer below 2^24 and every sum with infinity stays infinity.
//   axisOnly  exact arithmetic (doubling) with b >= 2a (and c >= 3a for 5x5): every weight is at
//             least a times its step's city-block length, and the two passes of the axis steps
//             alone already reach a x the city-block distance to the nearest feature, which no
//             path can undercut; the diagonal and (2,1) terms are left out.
template <class Out>
struct Rule {
  Out a, b, c;
  bool doubling;
  bool axisOnly;
};

// The whole transform of a w x h image: src and dst may be the same image (in place).
template <class Out>
using ChamferFn = void (*)(const Kvl8u* src, int srcStep, Out* dst, int dstStep, int w, int h,
                           const Rule<Out>& rule);

template <class Out, int kTaps>
struct ChamferKernel {
  static const simd::Kernel<ChamferFn<Out>> kernel;
};

namespace ref {
// The two passes written out pixel by pixel.
template <class Out, int kTaps>
void chamfer(const Kvl8u* src, int srcStep, Out* dst, int dstStep, int w, int h,
             const Rule<Out>& rule);
}  // namespace ref

#define KVL_CHAMFER_EXTERN_Own(Out, taps) extern template struct ChamferKernel<Out, taps>;
#define KVL_CHAMFER_EXTERN_Shared(Out, taps)
#define KVL_CHAMFER_EXTERN(mask, taps, types, layout, Out, Metric, kernel) \
  KVL_CHAMFER_EXTERN_##kernel(Out, taps)
KVL_CHAMFER_MEMBERS(KVL_CHAMFER_EXTERN)
#undef KVL_CHAMFER_EXTERN

}  // namespace kvl::seg
