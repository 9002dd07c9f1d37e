// Separable row and column passes: member tables, row/column kernel signatures and the per-element
// sums that every kernel (scalar reference and vector tails) shares.
//
// A row kernel computes n output elements from an extended row e: out[i] = rule(sum over
// k = 0..K-1 of kernel[k] x e[i + k x stride]), stride being the channel count, so one kernel
// serves C1 and C3. A column kernel computes n elements of one output row from K input rows:
// out[i] = rule(sum over k of kernel[k] x rows[k][i]). Kernels never validate, thread or allocate;
// they are exposed here so other families can run the same passes on their own rows. Rows and
// kernels may lie at any byte address (the row pointers themselves are read as pointers).
#pragma once

#include <cstdint>

#include "core/pixel.h"
#include "core/simd.h"
#include "filter/column_rule.h"
#include "kvlcv.h"

namespace kvl::filter {

template <class Src, class Dst, class Ker>
using RowKernel = void (*)(const Src* e, Dst* out, int n, int stride, const Ker* kernel, int K,
                           float recip);
template <class Src, class Dst, class Ker>
using ColumnKernel = void (*)(const Src* const* rows, Dst* out, int n, const Ker* kernel, int K,
                              float recip);

using Row8u16sFn = RowKernel<Kvl8u, Kvl16s, Kvl16s>;
using Row16sFn = RowKernel<Kvl16s, Kvl16s, Kvl16s>;
using Row16uFn = RowKernel<Kvl16u, Kvl16u, Kvl16u>;
using Row32fFn = RowKernel<Kvl32f, Kvl32f, Kvl32f>;
using Column16sFn = ColumnKernel<Kvl16s, Kvl16s, Kvl16s>;
using Column16s8uFn = ColumnKernel<Kvl16s, Kvl8u, Kvl16s>;
using Column16s8sFn = ColumnKernel<Kvl16s, Kvl8s, Kvl16s>;
using Column16uFn = ColumnKernel<Kvl16u, Kvl16u, Kvl16u>;
using Column32fFn = ColumnKernel<Kvl32f, Kvl32f, Kvl32f>;

// ---- Per-element sums ----
// Integer members: products of 16-bit values summed in 32 bits; the sum wraps modulo 2^32
// (the vector paths add pairs of products the same way).
template <class Src, class Ker>
inline int32_t intSum(const Src* e, int stride, const Ker* kernel, int K) {
  uint32_t s = 0;
  for (int k = 0; k < K; ++k)
    s += static_cast<uint32_t>(static_cast<int32_t>(loadAny(kernel + k)) *
                               static_cast<int32_t>(loadAny(e + k * stride)));
  return static_cast<int32_t>(s);
}
// Float members (the 16u row pass and 32f): single precision, one order: kernel[0] x e[0] first, then the
// products of k = 1..K-1 added one by one. Every path uses this order.
template <class Src, class Ker>
inline float floatSum(const Src* e, int stride, const Ker* kernel, int K) {
  float s = static_cast<float>(loadAny(kernel)) * static_cast<float>(loadAny(e));
  for (int k = 1; k < K; ++k)
    s = s + static_cast<float>(loadAny(kernel + k)) * static_cast<float>(loadAny(e + k * stride));
  return s;
}
template <class Src, class Ker>
inline int32_t columnIntSum(const Src* const* rows, int i, const Ker* kernel, int K) {
  uint32_t s = 0;  // products and sum modulo 2^32 (16u x 16u products exceed int)
  for (int k = 0; k < K; ++k)
    s += static_cast<uint32_t>(static_cast<int32_t>(loadAny(kernel + k))) *
         static_cast<uint32_t>(static_cast<int32_t>(loadAny(rows[k] + i)));
  return static_cast<int32_t>(s);
}
template <class Src, class Ker>
inline float columnFloatSum(const Src* const* rows, int i, const Ker* kernel, int K) {
  float s = static_cast<float>(loadAny(kernel)) * static_cast<float>(loadAny(rows[0] + i));
  for (int k = 1; k < K; ++k)
    s = s + static_cast<float>(loadAny(kernel + k)) * static_cast<float>(loadAny(rows[k] + i));
  return s;
}

// The row pass converts sum x recip, clamped in float, truncating toward zero.
template <class Dst>
inline Dst rowConvert(float v) {
  return static_cast<Dst>(truncToward0(clampToRange<Dst>(v)));
}
// ---- Scalar reference kernels (the oracle and the fallback) ----
namespace ref {
void row8u16s(const Kvl8u* e, Kvl16s* out, int n, int stride, const Kvl16s* kernel, int K,
              float recip);
void row16s(const Kvl16s* e, Kvl16s* out, int n, int stride, const Kvl16s* kernel, int K,
            float recip);
void row16u(const Kvl16u* e, Kvl16u* out, int n, int stride, const Kvl16u* kernel, int K,
            float recip);
void row32f(const Kvl32f* e, Kvl32f* out, int n, int stride, const Kvl32f* kernel, int K,
            float recip);
void column16s(const Kvl16s* const* rows, Kvl16s* out, int n, const Kvl16s* kernel, int K,
               float recip);
void column16s8u(const Kvl16s* const* rows, Kvl8u* out, int n, const Kvl16s* kernel, int K,
                 float recip);
void column16s8s(const Kvl16s* const* rows, Kvl8s* out, int n, const Kvl16s* kernel, int K,
                 float recip);
void column16u(const Kvl16u* const* rows, Kvl16u* out, int n, const Kvl16u* kernel, int K,
               float recip);
void column32f(const Kvl32f* const* rows, Kvl32f* out, int n, const Kvl32f* kernel, int K,
               float recip);
}  // namespace ref

// ---- The kernels on every target ----
extern const simd::Kernel<Row8u16sFn> kRow8u16s;
extern const simd::Kernel<Row16sFn> kRow16s;
extern const simd::Kernel<Row16uFn> kRow16u;
extern const simd::Kernel<Row32fFn> kRow32f;
extern const simd::Kernel<Column16sFn> kColumn16s;
extern const simd::Kernel<Column16s8uFn> kColumn16s8u;
extern const simd::Kernel<Column16s8sFn> kColumn16s8s;
extern const simd::Kernel<Column16uFn> kColumn16u;
extern const simd::Kernel<Column32fFn> kColumn32f;

}  // namespace kvl::filter

// ---- The members, one per line. ----
// Row pass: X(types, Src, Dst, Kernel, channels, size rule, divisor rule, threaded, kernel):
// kvliFilterRowBorderPipeline_<types> and kvliFilterRowBorderPipelineGetBufferSize_<types>.
// Divisor rules: kNonZero (any non-zero divisor), kPositive (divisor >= 1), kNone (no divisor
// argument: the float members).
// clang-format off
#define KVL_ROW_PIPELINE_MEMBERS(X)                                                        \
  X(8u16s_C1R,   Kvl8u,  Kvl16s, Kvl16s, 1, k8u16sC1,  kNonZero,  true,  kRow8u16s)       \
  X(8u16s_C3R,   Kvl8u,  Kvl16s, Kvl16s, 3, k8u16sC3,  kNonZero,  true,  kRow8u16s)       \
  X(16s_C1R,     Kvl16s, Kvl16s, Kvl16s, 1, k16sC1,    kNonZero,  true,  kRow16s)         \
  X(16s_C3R,     Kvl16s, Kvl16s, Kvl16s, 3, k16sC3,    kNonZero,  true,  kRow16s)         \
  X(Low_16s_C1R, Kvl16s, Kvl16s, Kvl16s, 1, kLow16sC1, kNonZero,  true,  kRow16s)         \
  X(Low_16s_C3R, Kvl16s, Kvl16s, Kvl16s, 3, kLow16sC3, kNonZero,  true,  kRow16s)         \
  X(16u_C1R,     Kvl16u, Kvl16u, Kvl16u, 1, k16uC1,    kPositive, false, kRow16u)         \
  X(16u_C3R,     Kvl16u, Kvl16u, Kvl16u, 3, k16uC3,    kPositive, false, kRow16u)         \
  X(32f_C1R,     Kvl32f, Kvl32f, Kvl32f, 1, k32fC1,    kNone,     false, kRow32f)         \
  X(32f_C3R,     Kvl32f, Kvl32f, Kvl32f, 3, k32fC3,    kNone,     false, kRow32f)
// Column pass: X(types, Src, Dst, Kernel, channels, size rule, divisor rule, threaded, kernel):
// kvliFilterColumnPipeline_<types> and kvliFilterColumnPipelineGetBufferSize_<types>.
#define KVL_COLUMN_PIPELINE_MEMBERS(X)                                                     \
  X(16s_C1R,     Kvl16s, Kvl16s, Kvl16s, 1, k16sC1,    kNonZero,  true,  kColumn16s)      \
  X(16s_C3R,     Kvl16s, Kvl16s, Kvl16s, 3, k16sC3,    kNonZero,  true,  kColumn16s)      \
  X(16s8u_C1R,   Kvl16s, Kvl8u,  Kvl16s, 1, k16sC1,    kNonZero,  true,  kColumn16s8u)    \
  X(16s8u_C3R,   Kvl16s, Kvl8u,  Kvl16s, 3, k16sC3,    kNonZero,  true,  kColumn16s8u)    \
  X(16s8s_C1R,   Kvl16s, Kvl8s,  Kvl16s, 1, k16sC1,    kNonZero,  true,  kColumn16s8s)    \
  X(16s8s_C3R,   Kvl16s, Kvl8s,  Kvl16s, 3, k16sC3,    kNonZero,  true,  kColumn16s8s)    \
  X(Low_16s_C1R, Kvl16s, Kvl16s, Kvl16s, 1, kLow16sC1, kNonZero,  true,  kColumn16s)      \
  X(Low_16s_C3R, Kvl16s, Kvl16s, Kvl16s, 3, kLow16sC3, kNonZero,  true,  kColumn16s)      \
  X(16u_C1R,     Kvl16u, Kvl16u, Kvl16u, 1, k16uC1,    kNonZero,  false, kColumn16u)      \
  X(16u_C3R,     Kvl16u, Kvl16u, Kvl16u, 3, k16uC3,    kNonZero,  false, kColumn16u)      \
  X(32f_C1R,     Kvl32f, Kvl32f, Kvl32f, 1, k32fC1,    kNone,     false, kColumn32f)      \
  X(32f_C3R,     Kvl32f, Kvl32f, Kvl32f, 3, k32fC3,    kNone,     false, kColumn32f)
// clang-format on
// The divisor parameter of a member and the divisor it passes on (1 without one), by its rule.
#define KVL_PIPELINE_DIVISOR_PARAM_kNonZero int divisor,
#define KVL_PIPELINE_DIVISOR_PARAM_kPositive int divisor,
#define KVL_PIPELINE_DIVISOR_PARAM_kNone
#define KVL_PIPELINE_DIVISOR_ARG_kNonZero divisor
#define KVL_PIPELINE_DIVISOR_ARG_kPositive divisor
#define KVL_PIPELINE_DIVISOR_ARG_kNone 1
