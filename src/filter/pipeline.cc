// The separable row and column passes: validation, kernel choice, row splitting and buffer sizes.
#include "filter/pipeline.h"

#include <climits>
#include <cstdint>

#include "core/check.h"
#include "core/parallel.h"
#include "core/services.h"
#include "core/simd.h"
#include "filter/pipeline_sizes.h"
#include "impl_decls.h"

namespace kvl::filter {

Row8u16sFn row8u16s() { return simd::pick(kRow8u16sTable, &ref::row8u16s); }
Row16sFn row16s() { return simd::pick(kRow16sTable, &ref::row16s); }
Row16uFn row16u() { return simd::pick(kRow16uTable, &ref::row16u); }
Row32fFn row32f() { return simd::pick(kRow32fTable, &ref::row32f); }
Column16sFn column16s() { return simd::pick(kColumn16sTable, &ref::column16s); }
Column16s8uFn column16s8u() { return simd::pick(kColumn16s8uTable, &ref::column16s8u); }
Column16s8sFn column16s8s() { return simd::pick(kColumn16s8sTable, &ref::column16s8s); }
Column16uFn column16u() { return simd::pick(kColumn16uTable, &ref::column16u); }
Column32fFn column32f() { return simd::pick(kColumn32fTable, &ref::column32f); }

namespace {

// Pipelines that may split rows go parallel from this many pixels per permitted thread.
constexpr long long kPipelineMinPixelsPerThread = 32768;

enum class Divisor { kNone, kNonZero, kPositive };

struct Scratch {
  Kvl8u* base;
  long long bytes;  // bytes of the whole buffer as sized for the current thread count
};

Kvl8u* align32(Kvl8u* p) {
  return reinterpret_cast<Kvl8u*>((reinterpret_cast<uintptr_t>(p) + 31) & ~uintptr_t{31});
}

// Pixels of the row p0 .. p(w-1) at indices [from, to) (any integers) into out, for modes 0
// (constant) and 1 (replicate); kC channels per pixel.
template <class T, int kC>
void extend(const T* src, int w, int from, int to, int mode, T value, T* out) {
  for (int i = from; i < to; ++i, out += kC) {
    if (i >= 0 && i < w) {
      for (int c = 0; c < kC; ++c) out[c] = src[i * kC + c];
    } else if (mode == kvlBorderConst) {
      for (int c = 0; c < kC; ++c) out[c] = value;
    } else {
      const int j = i < 0 ? 0 : w - 1;
      for (int c = 0; c < kC; ++c) out[c] = src[j * kC + c];
    }
  }
}

// One row of the row pass. Output x reads source pixels x - A .. x + R (R = K - 1 - A). The
// scratch holds at most 2 (K - 1) pixels: only the two ends of the row are extended there; the
// middle outputs A .. w - R - 1 read the source row directly. With mode 6 the whole row reads the
// memory around it.
template <class Src, class Dst, class Ker, int kC>
void rowOne(RowKernel<Src, Dst, Ker> fn, const Src* src, Dst* dst, int w, const Ker* kernel, int K,
            int A, int mode, Src value, float recip, Src* scratch) {
  const int R = K - 1 - A;
  if (mode == kvlBorderInMem) {
    fn(src - A * kC, dst, w * kC, kC, kernel, K, recip);
  } else if (w < K) {  // narrow row: extend it whole (w + K - 1 <= 2 (K - 1) pixels)
    extend<Src, kC>(src, w, -A, w + R, mode, value, scratch);
    fn(scratch, dst, w * kC, kC, kernel, K, recip);
  } else {
    if (A > 0) {
      extend<Src, kC>(src, w, -A, K - 1, mode, value, scratch);
      fn(scratch, dst, A * kC, kC, kernel, K, recip);
    }
    fn(src, dst + A * kC, (w - K + 1) * kC, kC, kernel, K, recip);
    if (R > 0) {
      extend<Src, kC>(src, w, w - K + 1, w + R, mode, value, scratch);
      fn(scratch, dst + (w - R) * kC, R * kC, kC, kernel, K, recip);
    }
  }
}

template <class Src, class Dst, class Ker, int kC>
KvlStatus rowPass(const Src* pSrc, int srcStep, Dst** ppDst, KvliSize roi, const Ker* pKernel,
                  int K, int A, int borderType, Src borderValue, int divisor, Kvl8u* pBuffer,
                  RowMember member, Divisor rule, bool threaded,
                  const RowKernel<Src, Dst, Ker> (&table)[3], RowKernel<Src, Dst, Ker> reference) {
  KVL_TRY(check::nonNull(pSrc, ppDst, pKernel, pBuffer));
  KVL_TRY(check::roi(roi));
  for (int y = 0; y < roi.height; ++y)
    if (ppDst[y] == nullptr) return kvlStatusNullPointer;
  KVL_TRY(check::positive(K));
  if (A < 0 || A >= K) return kvlStatusBadAnchor;
  KVL_TRY(check::steps(roi.width, check::Step<Src, kC>{srcStep}));
  if (borderType != kvlBorderConst && borderType != kvlBorderRepl && borderType != kvlBorderInMem)
    return kvlStatusBadArgument;
  if (rule == Divisor::kNonZero && divisor == 0) return kvlStatusBadArgument;
  if (rule == Divisor::kPositive && divisor < 1) return kvlStatusBadArgument;

  const RowKernel<Src, Dst, Ker> fn = simd::pick(table, reference);
  const float recip = rule == Divisor::kNone ? 1.0f : 1.0f / static_cast<float>(divisor);
  const int threads = ownGetNumThreads();
  int team = 1;
  if (threaded && static_cast<long long>(roi.width) * roi.height >=
                      kPipelineMinPixelsPerThread * owncvGetMaxNumThreads())
    team = threads > 1 ? threads : 1;
  const long long bytes =
      rowPipelineBytes(member, roi.width, roi.height, K, team > 1 ? threads : 1);
  par::runStripes(team, roi.height, [&](const par::Stripe& s) {
    Src* scratch = reinterpret_cast<Src*>(align32(pBuffer + s.bufferOffset(bytes)));
    for (int y = s.y0; y < s.y0 + s.rows; ++y)
      rowOne<Src, Dst, Ker, kC>(fn, rowPtr(pSrc, srcStep, y), ppDst[y], roi.width, pKernel, K, A,
                                borderType, borderValue, recip, scratch);
  });
  return kvlStatusOk;
}

template <class Src, class Dst, class Ker, int kC>
KvlStatus columnPass(const Src** ppSrc, Dst* pDst, int dstStep, KvliSize roi, const Ker* pKernel,
                     int K, int divisor, Kvl8u* pBuffer, bool hasDivisor, bool threaded,
                     const ColumnKernel<Src, Dst, Ker> (&table)[3],
                     ColumnKernel<Src, Dst, Ker> reference) {
  KVL_TRY(check::nonNull(ppSrc, pDst, pKernel));
  KVL_TRY(check::roi(roi));
  const long long rows = static_cast<long long>(roi.height) + K - 1;
  for (long long y = 0; y < rows; ++y)
    if (ppSrc[y] == nullptr) return kvlStatusNullPointer;
  KVL_TRY(check::positive(K));
  KVL_TRY(check::steps(roi.width, check::Step<Dst, kC>{dstStep}));
  KVL_TRY(check::nonNull(pBuffer));
  if (hasDivisor && divisor == 0) return kvlStatusBadArgument;

  const ColumnKernel<Src, Dst, Ker> fn = simd::pick(table, reference);
  const float recip = hasDivisor ? 1.0f / static_cast<float>(divisor) : 1.0f;
  int team = 1;
  if (threaded &&
      static_cast<long long>(roi.width) * roi.height >=
          kPipelineMinPixelsPerThread * owncvGetMaxNumThreads() &&
      runsepomp(K) != 0) {
    const int threads = ownGetNumThreads();
    team = threads > 1 ? threads : 1;
  }
  // The kernels need no scratch: they read the caller's rows in place.
  par::runStripes(team, roi.height, [&](const par::Stripe& s) {
    for (int y = s.y0; y < s.y0 + s.rows; ++y)
      fn(ppSrc + y, rowPtr(pDst, dstStep, y), roi.width * kC, pKernel, K, recip);
  });
  return kvlStatusOk;
}

KvlStatus writeSize(KvliSize roi, int K, int* pBufferSize, long long bytes) {
  KVL_TRY(check::nonNull(pBufferSize));
  if (roi.width < 1 || roi.height < 1 || K < 1) return kvlStatusBadSize;
  if (bytes > INT_MAX) return kvlStatusBadSize;
  *pBufferSize = static_cast<int>(bytes);
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::filter

using kvl::filter::ColumnMember;
using kvl::filter::Divisor;
using kvl::filter::RowMember;

// (suffix, source, destination, kernel, channels, size member, divisor rule, threaded, table,
//  reference kernel)
#define KVL_ROW_PIPELINE_MEMBERS(X)                                                    \
  X(8u16s_C1R, Kvl8u, Kvl16s, Kvl16s, 1, k8u16sC1, kNonZero, true, Row8u16s, row8u16s) \
  X(8u16s_C3R, Kvl8u, Kvl16s, Kvl16s, 3, k8u16sC3, kNonZero, true, Row8u16s, row8u16s) \
  X(16s_C1R, Kvl16s, Kvl16s, Kvl16s, 1, k16sC1, kNonZero, true, Row16s, row16s)        \
  X(16s_C3R, Kvl16s, Kvl16s, Kvl16s, 3, k16sC3, kNonZero, true, Row16s, row16s)        \
  X(Low_16s_C1R, Kvl16s, Kvl16s, Kvl16s, 1, kLow16sC1, kNonZero, true, Row16s, row16s) \
  X(Low_16s_C3R, Kvl16s, Kvl16s, Kvl16s, 3, kLow16sC3, kNonZero, true, Row16s, row16s) \
  X(16u_C1R, Kvl16u, Kvl16u, Kvl16u, 1, k16uC1, kPositive, false, Row16u, row16u)      \
  X(16u_C3R, Kvl16u, Kvl16u, Kvl16u, 3, k16uC3, kPositive, false, Row16u, row16u)

#define KVL_ROW_SIZE_IMPL(sfx, member)                                                  \
  extern "C" KvlStatus impl_kvliFilterRowBorderPipelineGetBufferSize_##sfx(             \
      KvliSize roiSize, int kernelSize, int* pBufferSize) {                             \
    return kvl::filter::writeSize(                                                      \
        roiSize, kernelSize, pBufferSize,                                               \
        kvl::filter::rowPipelineBytes(RowMember::member, roiSize.width, roiSize.height, \
                                      kernelSize, ownGetNumThreads()));                 \
  }

#define KVL_ROW_PIPELINE_IMPL(sfx, S, D, Kt, C, member, rule, thr, table, kern)                   \
  extern "C" KvlStatus impl_kvliFilterRowBorderPipeline_##sfx(                                    \
      const S* pSrc, int srcStep, D** ppDst, KvliSize roiSize, const Kt* pKernel, int kernelSize, \
      int xAnchor, int borderType, S borderValue, int divisor, Kvl8u* pBuffer) {                  \
    return kvl::filter::rowPass<S, D, Kt, C>(                                                     \
        pSrc, srcStep, ppDst, roiSize, pKernel, kernelSize, xAnchor, borderType, borderValue,     \
        divisor, pBuffer, RowMember::member, Divisor::rule, thr, kvl::filter::k##table##Table,    \
        kvl::filter::ref::kern);                                                                  \
  }                                                                                               \
  KVL_ROW_SIZE_IMPL(sfx, member)
KVL_ROW_PIPELINE_MEMBERS(KVL_ROW_PIPELINE_IMPL)

#define KVL_ROW_PIPELINE_32F(sfx, C, member)                                                     \
  extern "C" KvlStatus impl_kvliFilterRowBorderPipeline_##sfx(                                   \
      const Kvl32f* pSrc, int srcStep, Kvl32f** ppDst, KvliSize roiSize, const Kvl32f* pKernel,  \
      int kernelSize, int xAnchor, int borderType, Kvl32f borderValue, Kvl8u* pBuffer) {         \
    return kvl::filter::rowPass<Kvl32f, Kvl32f, Kvl32f, C>(                                      \
        pSrc, srcStep, ppDst, roiSize, pKernel, kernelSize, xAnchor, borderType, borderValue, 1, \
        pBuffer, RowMember::member, Divisor::kNone, false, kvl::filter::kRow32fTable,            \
        kvl::filter::ref::row32f);                                                               \
  }                                                                                              \
  KVL_ROW_SIZE_IMPL(sfx, member)
KVL_ROW_PIPELINE_32F(32f_C1R, 1, k32fC1)
KVL_ROW_PIPELINE_32F(32f_C3R, 3, k32fC3)

// (suffix, source, destination, kernel, channels, size member, has divisor, threaded, table,
//  reference kernel)
#define KVL_COLUMN_PIPELINE_MEMBERS(X)                                                   \
  X(16s_C1R, Kvl16s, Kvl16s, Kvl16s, 1, k16sC1, true, true, Column16s, column16s)        \
  X(16s_C3R, Kvl16s, Kvl16s, Kvl16s, 3, k16sC3, true, true, Column16s, column16s)        \
  X(16s8u_C1R, Kvl16s, Kvl8u, Kvl16s, 1, k16sC1, true, true, Column16s8u, column16s8u)   \
  X(16s8u_C3R, Kvl16s, Kvl8u, Kvl16s, 3, k16sC3, true, true, Column16s8u, column16s8u)   \
  X(16s8s_C1R, Kvl16s, Kvl8s, Kvl16s, 1, k16sC1, true, true, Column16s8s, column16s8s)   \
  X(16s8s_C3R, Kvl16s, Kvl8s, Kvl16s, 3, k16sC3, true, true, Column16s8s, column16s8s)   \
  X(Low_16s_C1R, Kvl16s, Kvl16s, Kvl16s, 1, kLow16sC1, true, true, Column16s, column16s) \
  X(Low_16s_C3R, Kvl16s, Kvl16s, Kvl16s, 3, kLow16sC3, true, true, Column16s, column16s) \
  X(16u_C1R, Kvl16u, Kvl16u, Kvl16u, 1, k16uC1, true, false, Column16u, column16u)       \
  X(16u_C3R, Kvl16u, Kvl16u, Kvl16u, 3, k16uC3, true, false, Column16u, column16u)

#define KVL_COLUMN_SIZE_IMPL(sfx, member)                                                     \
  extern "C" KvlStatus impl_kvliFilterColumnPipelineGetBufferSize_##sfx(                      \
      KvliSize roiSize, int kernelSize, int* pBufferSize) {                                   \
    return kvl::filter::writeSize(                                                            \
        roiSize, kernelSize, pBufferSize,                                                     \
        kvl::filter::columnPipelineBytes(ColumnMember::member, roiSize.width, roiSize.height, \
                                         kernelSize, ownGetNumThreads()));                    \
  }

#define KVL_COLUMN_PIPELINE_IMPL(sfx, S, D, Kt, C, member, div, thr, table, kern)                 \
  extern "C" KvlStatus impl_kvliFilterColumnPipeline_##sfx(                                       \
      const S** ppSrc, D* pDst, int dstStep, KvliSize roiSize, const Kt* pKernel, int kernelSize, \
      int divisor, Kvl8u* pBuffer) {                                                              \
    return kvl::filter::columnPass<S, D, Kt, C>(                                                  \
        ppSrc, pDst, dstStep, roiSize, pKernel, kernelSize, divisor, pBuffer, div, thr,           \
        kvl::filter::k##table##Table, kvl::filter::ref::kern);                                    \
  }                                                                                               \
  KVL_COLUMN_SIZE_IMPL(sfx, member)
KVL_COLUMN_PIPELINE_MEMBERS(KVL_COLUMN_PIPELINE_IMPL)

#define KVL_COLUMN_PIPELINE_32F(sfx, C)                                                         \
  extern "C" KvlStatus impl_kvliFilterColumnPipeline_##sfx(                                     \
      const Kvl32f** ppSrc, Kvl32f* pDst, int dstStep, KvliSize roiSize, const Kvl32f* pKernel, \
      int kernelSize, Kvl8u* pBuffer) {                                                         \
    return kvl::filter::columnPass<Kvl32f, Kvl32f, Kvl32f, C>(                                  \
        ppSrc, pDst, dstStep, roiSize, pKernel, kernelSize, 1, pBuffer, false, false,           \
        kvl::filter::kColumn32fTable, kvl::filter::ref::column32f);                             \
  }
KVL_COLUMN_PIPELINE_32F(32f_C1R, 1)
KVL_COLUMN_PIPELINE_32F(32f_C3R, 3)
KVL_COLUMN_SIZE_IMPL(32f_C1R, k32fC1)
KVL_COLUMN_SIZE_IMPL(32f_C3R, k32fC3)
