// Separable row and column passes: member tables, row/column kernel signatures and the per-element
// sums that every kernel (scalar reference and vector tails) shares.
//
// A row kernel computes n output elements from an extended row e: out[i] = rule(sum over
// k = 0..K-1 of kernel[k] x e[i + k x stride]), stride being the channel count, so one kernel
// serves C1 and C3. A column kernel computes n elements of one output row from K input rows:
// out[i] = rule(sum over k of kernel[k] x rows[k][i]). Kernels never validate, thread or allocate;
// they are exposed here so other families can run the same passes on their own rows.
#pragma once

#include <cstdint>

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
    s += static_cast<uint32_t>(static_cast<int32_t>(kernel[k]) *
                               static_cast<int32_t>(e[k * stride]));
  return static_cast<int32_t>(s);
}
// Float members (16u and 32f): single precision, one order: kernel[0] x e[0] first, then the
// products of k = 1..K-1 added one by one. Every path uses this order.
template <class Src, class Ker>
inline float floatSum(const Src* e, int stride, const Ker* kernel, int K) {
  float s = static_cast<float>(kernel[0]) * static_cast<float>(e[0]);
  for (int k = 1; k < K; ++k)
    s = s + static_cast<float>(kernel[k]) * static_cast<float>(e[k * stride]);
  return s;
}
template <class Src, class Ker>
inline int32_t columnIntSum(const Src* const* rows, int i, const Ker* kernel, int K) {
  uint32_t s = 0;
  for (int k = 0; k < K; ++k)
    s += static_cast<uint32_t>(static_cast<int32_t>(kernel[k]) * static_cast<int32_t>(rows[k][i]));
  return static_cast<int32_t>(s);
}
template <class Src, class Ker>
inline float columnFloatSum(const Src* const* rows, int i, const Ker* kernel, int K) {
  float s = static_cast<float>(kernel[0]) * static_cast<float>(rows[0][i]);
  for (int k = 1; k < K; ++k)
    s = s + static_cast<float>(kernel[k]) * static_cast<float>(rows[k][i]);
  return s;
}

// The row pass converts sum x recip, clamped in float, truncating toward zero.
template <class Dst>
inline Dst rowConvert(float v) {
  return static_cast<Dst>(truncToward0(clampToRange<Dst>(v)));
}
// The column pass's rule for float sums (16u): groups round ties to even, the tail truncates.
template <class Dst>
inline Dst columnConvertGroupF(float v) {
  return static_cast<Dst>(roundTiesEven(clampToRange<Dst>(v)));
}
template <class Dst>
inline Dst columnConvertTailF(float v) {
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

// ---- Vector kernels, {AVX3, AVX2, SSE4} ----
extern const Row8u16sFn kRow8u16sTable[3];
extern const Row16sFn kRow16sTable[3];
extern const Row16uFn kRow16uTable[3];
extern const Row32fFn kRow32fTable[3];
extern const Column16sFn kColumn16sTable[3];
extern const Column16s8uFn kColumn16s8uTable[3];
extern const Column16s8sFn kColumn16s8sTable[3];
extern const Column16uFn kColumn16uTable[3];
extern const Column32fFn kColumn32fTable[3];

// The best kernel for this CPU (reference below the lowest vector target).
Row8u16sFn row8u16s();
Row16sFn row16s();
Row16uFn row16u();
Row32fFn row32f();
Column16sFn column16s();
Column16s8uFn column16s8u();
Column16s8sFn column16s8s();
Column16uFn column16u();
Column32fFn column32f();

}  // namespace kvl::filter
