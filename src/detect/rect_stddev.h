// Rectangle standard deviation over integral images: the row kernel's signature, the rules of one
// output element (shared by the reference and the vector tails) and the kernel of every member of
// KVL_RECT_STDDEV_MEMBERS.
#pragma once

#include <climits>
#include <cmath>
#include <cstdint>
#include <type_traits>

#include "core/pixel.h"
#include "core/simd.h"
#include "detect/integral_members.h"
#include "kvlcv.h"

namespace kvl::detect {

// How Sum and SumSq become a standard deviation:
//   kSfs      32-bit wrapping corners, single-precision mean and variance, double root, scaled
//             and stored as an integer (0.5 added, truncated, saturated)
//   kSingle   integer sum corners, square corners each rounded to float and combined in float;
//             mean, variance and root in single precision
//   kWidened  corners in double, rounded to float; mean, variance and root in single precision
//   kDouble   corners, mean and variance in double; the variance rounded to float, root in float
enum class StdDevRule { kSfs, kSingle, kWidened, kDouble };

// The constants of one call: N as float and as double, and the Sfs scale.
struct StdDevParams {
  float nf;
  double nd;
  float scale;
};

// One output row of n elements. s and q each hold the four corner rows a, b, c, d of the sum and
// square tables, already advanced to the corner columns of output x = 0 (Corners below).
template <class Sum, class Sqr, class Dst>
using StdDevRowFn = void (*)(const Sum* const* s, const Sqr* const* q, Dst* dst, int n,
                             const StdDevParams& p);

template <StdDevRule kRule, bool kTilted, class Sum, class Sqr, class Dst>
struct StdDevKernel {
  static const simd::Kernel<StdDevRowFn<Sum, Sqr, Dst>> kernel;
};

namespace ref {
template <StdDevRule kRule, bool kTilted, class Sum, class Sqr, class Dst>
void stdDevRow(const Sum* const* s, const Sqr* const* q, Dst* dst, int n, const StdDevParams& p);
}  // namespace ref

// ---- The rules of one element ----

// The corners in the order they combine: upright a - b + c - d with a = (y1, x1), b = (y0, x1),
// c = (y0, x0), d = (y1, x0); tilted a - b - c + d with a = P1, b = P2, c = P3, d = P4. Integers
// wrap modulo 2^32.
template <bool kTilted, class T>
inline T combine(T a, T b, T c, T d) {
  if constexpr (std::is_integral_v<T>) {
    const uint32_t ua = static_cast<uint32_t>(a), ub = static_cast<uint32_t>(b);
    const uint32_t uc = static_cast<uint32_t>(c), ud = static_cast<uint32_t>(d);
    return static_cast<T>(kTilted ? ua - ub - uc + ud : ua - ub + uc - ud);
  } else {
    return kTilted ? a - b - c + d : a - b + c - d;
  }
}

// A variance below 0 becomes 0; NaN stays.
template <class T>
inline T clampVariance(T v) {
  return v < T(0) ? T(0) : v;
}

// 0.5 + scale x root, truncated toward zero, saturated at INT_MAX (the value is at least 0.5).
inline int32_t scaledRoot(double root, float scale) {
  const double v = 0.5 + static_cast<double>(scale) * root;
  return v >= 2147483647.0 ? INT_MAX : static_cast<int32_t>(v);
}

// 2^-scaleFactor as the Sfs members scale: 1u << (|scaleFactor| mod 32) as float, its
// reciprocal for a positive scaleFactor.
inline float sfsScale(int scaleFactor) {
  const unsigned magnitude =
      scaleFactor < 0 ? 0u - static_cast<unsigned>(scaleFactor) : static_cast<unsigned>(scaleFactor);
  const float p = static_cast<float>(1u << (magnitude & 31u));
  return scaleFactor > 0 ? 1.0f / p : p;
}

// The four corners of a table at column x, each converted to To, combined in To. The tables may
// sit at any address.
template <bool kTilted, class To, class T>
inline To cornersAt(const T* const* t, int x) {
  auto at = [&](int k) { return static_cast<To>(loadAny(t[k] + x)); };
  return combine<kTilted>(at(0), at(1), at(2), at(3));
}

template <StdDevRule kRule, bool kTilted, class Sum, class Sqr, class Dst>
inline Dst stdDev(const Sum* const* s, const Sqr* const* q, int x, const StdDevParams& p) {
  if constexpr (kRule == StdDevRule::kSfs) {
    const float sum = static_cast<float>(cornersAt<kTilted, Sum>(s, x));
    const float sq = static_cast<float>(cornersAt<kTilted, Sqr>(q, x));
    const float mean = sum / p.nf;
    const float var = clampVariance(sq / p.nf - mean * mean);
    return scaledRoot(std::sqrt(static_cast<double>(var)), p.scale);
  } else if constexpr (kRule == StdDevRule::kSingle) {
    const float sum = static_cast<float>(cornersAt<kTilted, Sum>(s, x));
    const float sq = cornersAt<kTilted, float>(q, x);
    const float mean = sum / p.nf;
    return std::sqrt(clampVariance(sq / p.nf - mean * mean));
  } else if constexpr (kRule == StdDevRule::kWidened) {
    const float sum = static_cast<float>(cornersAt<kTilted, double>(s, x));
    const float sq = static_cast<float>(cornersAt<kTilted, Sqr>(q, x));
    const float mean = sum / p.nf;
    return std::sqrt(clampVariance(sq / p.nf - mean * mean));
  } else {
    const double sum = cornersAt<kTilted, double>(s, x);
    const double sq = cornersAt<kTilted, Sqr>(q, x);
    const double mean = sum / p.nd;
    return std::sqrt(static_cast<float>(clampVariance(sq / p.nd - mean * mean)));
  }
}

#define KVL_STDDEV_EXTERN(Name, types, Sum, Sqr, Dst, shape, rule, layout, team) \
  extern template struct StdDevKernel<StdDevRule::rule, KVL_STDDEV_TILTED_##shape, Sum, Sqr, Dst>;
KVL_RECT_STDDEV_MEMBERS(KVL_STDDEV_EXTERN)
#undef KVL_STDDEV_EXTERN

}  // namespace kvl::detect
