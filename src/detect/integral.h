// Integral images: the table kernels' signature, the per-element rules the reference and the
// vector tails share, and the kernel of every member of KVL_INTEGRAL_MEMBERS.
#pragma once

#include <cstdint>
#include <type_traits>

#include "core/simd.h"
#include "detect/integral_members.h"
#include "kvlcv.h"

namespace kvl::detect {

// The square-table element, or a stand-in when the member has none (its pointer is then null).
template <class Sqr>
using SqrElem = std::conditional_t<std::is_void_v<Sqr>, Kvl32s, Sqr>;

// Fills the whole table (and the square table when sqr is non-null) of a w x h source: rows 0
// (and 1 for the tilted shape) with val, then one row per source row.
template <class Src, class Sum, class Sqr>
using IntegralFn = void (*)(const Src* src, int srcStep, Sum* sum, int sumStep, SqrElem<Sqr>* sqr,
                            int sqrStep, int w, int h, Sum val, SqrElem<Sqr> valSqr);

enum class Shape { kUpright, kTilted };

// Whether a member's tables have a streaming form: the sum-only upright tables of 8-bit sources.
template <class Src, class Sqr, Shape kShape>
constexpr bool kStreams =
    std::is_same_v<Src, Kvl8u> && std::is_void_v<Sqr> && kShape == Shape::kUpright;

template <class Src, class Sum, class Sqr, Shape kShape>
struct IntegralKernel {
  static const simd::Kernel<IntegralFn<Src, Sum, Sqr>> kernel;
  // The same tables, written with cache-bypassing stores on the targets that have such a form
  // (the members without one: the same entries as `kernel`). For tables that cannot stay in the
  // cache with their source: each pass of two rows streams both and keeps a copy of the second,
  // the next pass's row above, on the stack (rows narrower than 8192 elements whose steps keep
  // them aligned alike; otherwise the second row is stored as usual).
  static const simd::Kernel<IntegralFn<Src, Sum, Sqr>> streamed;
};

namespace ref {
template <class Src, class Sum, class Sqr, Shape kShape>
void integral(const Src* src, int srcStep, Sum* sum, int sumStep, SqrElem<Sqr>* sqr, int sqrStep,
              int w, int h, Sum val, SqrElem<Sqr> valSqr);
}  // namespace ref

// ---- The arithmetic of one element ----

// The running sum of a row of table T: unsigned 32-bit for 8-bit sources (wrapping modulo 2^32,
// like the tables), single precision for float sources, double for the squares of a Kvl64f table.
template <class Src, class T>
using Running = std::conditional_t<std::is_floating_point_v<Src>, float,
                                   std::conditional_t<sizeof(T) == 8, double, uint32_t>>;

// A source pixel as a term of the sum table, or squared for the square table.
template <class Src>
inline uint32_t term(Src v) {
  return static_cast<uint32_t>(v);
}
template <class Src>
inline uint32_t square(Src v) {
  return static_cast<uint32_t>(v) * static_cast<uint32_t>(v);
}

// The table value from the row's running sum r and the value above: integers wrap, floats add
// the running sum (converted to the table's type) to the value above.
template <class T, class R>
inline T withAbove(R r, T above) {
  if constexpr (std::is_floating_point_v<T>) {
    return static_cast<T>(r) + above;
  } else {
    return static_cast<T>(static_cast<uint32_t>(r) + static_cast<uint32_t>(above));
  }
}

// One tilted element: the source terms added exactly as an integer first, then, in the table's
// type, + left-above + right-above - two rows up, in that order.
template <class T>
inline T tilted(uint32_t pixels, T upLeft, T upRight, T up2) {
  if constexpr (std::is_floating_point_v<T>) {
    return static_cast<T>(pixels) + upLeft + upRight - up2;
  } else {
    return static_cast<T>(pixels + static_cast<uint32_t>(upLeft) + static_cast<uint32_t>(upRight) -
                          static_cast<uint32_t>(up2));
  }
}

// Widest 8-bit row whose running sum fits a signed 32-bit lane: the vector kernels keep the
// float tables' row sums in int32 lanes up to this width and take the scalar path beyond it.
constexpr long long kMaxLaneSumWidth = 0x7fffffff / 255;

#define KVL_INTEGRAL_EXTERN(Name, types, Src, Sum, Sqr, shape, form) \
  extern template struct IntegralKernel<Src, Sum, Sqr, Shape::k##shape>;
KVL_INTEGRAL_MEMBERS(KVL_INTEGRAL_EXTERN)
#undef KVL_INTEGRAL_EXTERN

}  // namespace kvl::detect
