// The separable row and column passes: validation, kernel choice, row splitting and buffer sizes.
#include "filter/pipeline.h"

#include <climits>
#include <cstdint>

#include "core/border.h"
#include "core/check.h"
#include "core/parallel.h"
#include "core/services.h"
#include "core/simd.h"
#include "filter/pipeline_sizes.h"
#include "impl_decls.h"

namespace kvl::filter {

namespace {

enum class Divisor { kNone, kNonZero, kPositive };

struct Scratch {
  Kvl8u* base;
  long long bytes;  // bytes of the whole buffer as sized for the current thread count
};

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
    border::extendRange<Src, kC>(src, w, -A, w + R, mode, value, scratch);
    fn(scratch, dst, w * kC, kC, kernel, K, recip);
  } else {
    if (A > 0) {
      border::extendRange<Src, kC>(src, w, -A, K - 1, mode, value, scratch);
      fn(scratch, dst, A * kC, kC, kernel, K, recip);
    }
    fn(src, dst + A * kC, (w - K + 1) * kC, kC, kernel, K, recip);
    if (R > 0) {
      border::extendRange<Src, kC>(src, w, w - K + 1, w + R, mode, value, scratch);
      fn(scratch, dst + (w - R) * kC, R * kC, kC, kernel, K, recip);
    }
  }
}

template <class Src, class Dst, class Ker, int kC>
KvlStatus rowPass(const Src* pSrc, int srcStep, Dst** ppDst, KvliSize roi, const Ker* pKernel,
                  int K, int A, int borderType, Src borderValue, int divisor, Kvl8u* pBuffer,
                  RowMember member, Divisor rule, bool threaded,
                  const simd::Kernel<RowKernel<Src, Dst, Ker>>& kernel) {
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

  const RowKernel<Src, Dst, Ker> fn = kernel.pick();
  const float recip = rule == Divisor::kNone ? 1.0f : 1.0f / static_cast<float>(divisor);
  const int team = threaded ? par::teamPipelineRow(roi) : 1;
  const long long bytes = rowPipelineBytes(member, roi.width, roi.height, K, team);
  par::runStripes(team, roi.height, [&](const par::Stripe& s) {
    Src* scratch = reinterpret_cast<Src*>(alignUp(pBuffer + s.bufferOffset(bytes), 32));
    for (int y = s.y0; y < s.y0 + s.rows; ++y)
      rowOne<Src, Dst, Ker, kC>(fn, rowPtr(pSrc, srcStep, y), ppDst[y], roi.width, pKernel, K, A,
                                borderType, borderValue, recip, scratch);
  });
  return kvlStatusOk;
}

template <class Src, class Dst, class Ker, int kC>
KvlStatus columnPass(const Src** ppSrc, Dst* pDst, int dstStep, KvliSize roi, const Ker* pKernel,
                     int K, int divisor, Kvl8u* pBuffer, bool hasDivisor, bool threaded,
                     const simd::Kernel<ColumnKernel<Src, Dst, Ker>>& kernel) {
  KVL_TRY(check::nonNull(ppSrc, pDst, pKernel));
  KVL_TRY(check::roi(roi));
  const long long rows = static_cast<long long>(roi.height) + K - 1;
  for (long long y = 0; y < rows; ++y)
    if (ppSrc[y] == nullptr) return kvlStatusNullPointer;
  KVL_TRY(check::positive(K));
  KVL_TRY(check::steps(roi.width, check::Step<Dst, kC>{dstStep}));
  KVL_TRY(check::nonNull(pBuffer));
  if (hasDivisor && divisor == 0) return kvlStatusBadArgument;

  const ColumnKernel<Src, Dst, Ker> fn = kernel.pick();
  const float recip = hasDivisor ? 1.0f / static_cast<float>(divisor) : 1.0f;
  const int team = threaded ? par::teamPipelineColumn(roi, K) : 1;
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

#define KVL_ROW_PIPELINE_IMPL(types, S, D, Kt, C, member, rule, threaded, kernel)                 \
  extern "C" KvlStatus impl_kvliFilterRowBorderPipeline_##types(                                  \
      const S* pSrc, int srcStep, D** ppDst, KvliSize roiSize, const Kt* pKernel, int kernelSize, \
      int xAnchor, int borderType, S borderValue, KVL_PIPELINE_DIVISOR_PARAM_##rule Kvl8u* pBuffer) { \
    return kvl::filter::rowPass<S, D, Kt, C>(                                                     \
        pSrc, srcStep, ppDst, roiSize, pKernel, kernelSize, xAnchor, borderType, borderValue,     \
        KVL_PIPELINE_DIVISOR_ARG_##rule, pBuffer, RowMember::member, Divisor::rule, threaded,   \
        kvl::filter::kernel);                                                                     \
  }                                                                                               \
  extern "C" KvlStatus impl_kvliFilterRowBorderPipelineGetBufferSize_##types(                     \
      KvliSize roiSize, int kernelSize, int* pBufferSize) {                                       \
    return kvl::filter::writeSize(                                                                \
        roiSize, kernelSize, pBufferSize,                                                         \
        kvl::filter::rowPipelineBytes(RowMember::member, roiSize.width, roiSize.height,           \
                                      kernelSize, ownGetNumThreads()));                           \
  }
KVL_ROW_PIPELINE_MEMBERS(KVL_ROW_PIPELINE_IMPL)

#define KVL_COLUMN_PIPELINE_IMPL(types, S, D, Kt, C, member, rule, threaded, kernel)              \
  extern "C" KvlStatus impl_kvliFilterColumnPipeline_##types(                                     \
      const S** ppSrc, D* pDst, int dstStep, KvliSize roiSize, const Kt* pKernel, int kernelSize, \
      KVL_PIPELINE_DIVISOR_PARAM_##rule Kvl8u* pBuffer) {                                         \
    return kvl::filter::columnPass<S, D, Kt, C>(                                                  \
        ppSrc, pDst, dstStep, roiSize, pKernel, kernelSize, KVL_PIPELINE_DIVISOR_ARG_##rule,      \
        pBuffer, Divisor::rule != Divisor::kNone, threaded, kvl::filter::kernel);                 \
  }                                                                                               \
  extern "C" KvlStatus impl_kvliFilterColumnPipelineGetBufferSize_##types(                        \
      KvliSize roiSize, int kernelSize, int* pBufferSize) {                                       \
    return kvl::filter::writeSize(                                                                \
        roiSize, kernelSize, pBufferSize,                                                         \
        kvl::filter::columnPipelineBytes(ColumnMember::member, roiSize.width, roiSize.height,     \
                                         kernelSize, ownGetNumThreads()));                        \
  }
KVL_COLUMN_PIPELINE_MEMBERS(KVL_COLUMN_PIPELINE_IMPL)
