// Accumulation and absolute difference: the member tables and the row kernels' signatures.
#pragma once

#include "core/simd.h"
#include "kvlcv.h"

namespace kvl::stat {

// The four accumulating operations; the old accumulator value is `a`, the source values s1, s2:
//   kAdd      a + s1
//   kSquare   a + s1 * s1
//   kProduct  a + s1 * s2
//   kWeighted a + alpha * (s1 - a)
enum class AccOp { kAdd, kSquare, kProduct, kWeighted };

// One row of n elements: out[x] = op(in[x], s1[x], s2[x]) where mask[x] != 0, or everywhere when
// the kernel is unmasked (mask is then ignored). Masked kernels work in place (in == out) and
// leave every unmasked element with its exact bits. Unmasked kernels also serve the two-source
// weighted sum, whose second source is `in`. s2 is read only by kProduct.
template <class Src>
using AccRowFn = void (*)(const Src* s1, const Src* s2, const Kvl8u* mask, const Kvl32f* in,
                          Kvl32f* out, int n, float alpha);

// dst[x] = |a[x] - b[x]| over n elements.
template <class T>
using AbsDiffRowFn = void (*)(const T* a, const T* b, T* dst, int n);
// dst[x] = |a[x] - v| over n elements; v already lies in T's range.
template <class T>
using AbsDiffCRowFn = void (*)(const T* a, T v, T* dst, int n);

// The kernel of each member, instantiated from the member tables below. Stream: the
// absolute-difference kernels write the vector body of each row with cache-bypassing stores (same
// values, the destination just does not stay in cache) and fence them before returning, so the
// rows are visible to other threads when the kernel returns.
template <AccOp kOp, class Src, bool kMasked>
struct AccKernel {
  static const simd::Kernel<AccRowFn<Src>> kernel;
};
template <class T, int kC, bool kStream>
struct AbsDiffKernel {
  static const simd::Kernel<AbsDiffRowFn<T>> kernel;
};
template <class T, bool kStream>
struct AbsDiffCKernel {
  static const simd::Kernel<AbsDiffCRowFn<T>> kernel;
};

// ---- The members, one per line ----
// clang-format off
// One source, kvli<Name>_<types>_C1IR: X(Name, types, Src, op).
#define KVL_ACC_ONE_SOURCE_MEMBERS(X)          \
  X(Add,       8u32f,  Kvl8u,  AccOp::kAdd)    \
  X(Add,       8s32f,  Kvl8s,  AccOp::kAdd)    \
  X(Add,       16u32f, Kvl16u, AccOp::kAdd)    \
  X(AddSquare, 8u32f,  Kvl8u,  AccOp::kSquare) \
  X(AddSquare, 8s32f,  Kvl8s,  AccOp::kSquare) \
  X(AddSquare, 16u32f, Kvl16u, AccOp::kSquare) \
  X(AddSquare, 32f,    Kvl32f, AccOp::kSquare)
// Masked one source, kvli<Name>_<types>_C1IMR: the same plus the masked 32f addition.
#define KVL_ACC_ONE_SOURCE_MASKED_MEMBERS(X) \
  KVL_ACC_ONE_SOURCE_MEMBERS(X)              \
  X(Add,       32f,    Kvl32f, AccOp::kAdd)
// Two sources, C1IR and C1IMR: X(Name, types, Src, op).
#define KVL_ACC_TWO_SOURCE_MEMBERS(X)              \
  X(AddProduct,  8u32f,  Kvl8u,  AccOp::kProduct)  \
  X(AddProduct,  8s32f,  Kvl8s,  AccOp::kProduct)  \
  X(AddProduct,  16u32f, Kvl16u, AccOp::kProduct)  \
  X(AddProduct,  32f,    Kvl32f, AccOp::kProduct)
// Weighted, C1IR and C1IMR (and the two-source kvliAddWeighted_32f_C1R on the unmasked 32f
// kernel): X(Name, types, Src, op).
#define KVL_ACC_WEIGHTED_MEMBERS(X)                 \
  X(AddWeighted, 8u32f,  Kvl8u,  AccOp::kWeighted)  \
  X(AddWeighted, 8s32f,  Kvl8s,  AccOp::kWeighted)  \
  X(AddWeighted, 16u32f, Kvl16u, AccOp::kWeighted)  \
  X(AddWeighted, 32f,    Kvl32f, AccOp::kWeighted)
// Absolute differences, kvliAbsDiff_<types>: X(types, T, channels).
#define KVL_ABSDIFF_MEMBERS(X) \
  X(8u_C1R,  Kvl8u,  1)        \
  X(8u_C3R,  Kvl8u,  3)        \
  X(16u_C1R, Kvl16u, 1)        \
  X(32f_C1R, Kvl32f, 1)
// kvliAbsDiffC_<types>: X(types, T, value type).
#define KVL_ABSDIFFC_MEMBERS(X)   \
  X(8u_C1R,  Kvl8u,  int)         \
  X(16u_C1R, Kvl16u, int)         \
  X(32f_C1R, Kvl32f, Kvl32f)
// clang-format on

// The kernels are defined and instantiated from these tables in accum_simd.cc.
#define KVL_ACC_EXTERN(Name, types, Src, op)         \
  extern template struct AccKernel<op, Src, false>; \
  extern template struct AccKernel<op, Src, true>;
#define KVL_ACC_EXTERN_MASKED(Name, types, Src, op) extern template struct AccKernel<op, Src, true>;
#define KVL_ACC_EXTERN_ONE(Name, types, Src, op) extern template struct AccKernel<op, Src, false>;
KVL_ACC_ONE_SOURCE_MEMBERS(KVL_ACC_EXTERN_ONE)
KVL_ACC_ONE_SOURCE_MASKED_MEMBERS(KVL_ACC_EXTERN_MASKED)
KVL_ACC_TWO_SOURCE_MEMBERS(KVL_ACC_EXTERN)
KVL_ACC_WEIGHTED_MEMBERS(KVL_ACC_EXTERN)
#define KVL_ABSDIFF_EXTERN(types, T, C)                 \
  extern template struct AbsDiffKernel<T, C, false>;   \
  extern template struct AbsDiffKernel<T, C, true>;
#define KVL_ABSDIFFC_EXTERN(types, T, V)                \
  extern template struct AbsDiffCKernel<T, false>;     \
  extern template struct AbsDiffCKernel<T, true>;
KVL_ABSDIFF_MEMBERS(KVL_ABSDIFF_EXTERN)
KVL_ABSDIFFC_MEMBERS(KVL_ABSDIFFC_EXTERN)
#undef KVL_ACC_EXTERN
#undef KVL_ACC_EXTERN_MASKED
#undef KVL_ACC_EXTERN_ONE
#undef KVL_ABSDIFF_EXTERN
#undef KVL_ABSDIFFC_EXTERN

}  // namespace kvl::stat
