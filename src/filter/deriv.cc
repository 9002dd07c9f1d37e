// The derivative filters with border: validation, buffer sizes, kernel choice and row stripes.
#include <climits>

#include "core/check.h"
#include "core/parallel.h"
#include "core/services.h"
#include "core/simd.h"
#include "filter/deriv.h"
#include "filter/pipeline_sizes.h"
#include "impl_decls.h"

namespace kvl::filter::deriv {
namespace {

// Families that share a buffer-size rule.
enum class Fam { kSobel, kLowpass, kLaplacian, kScharrHoriz, kScharrVert };

// The part of the work size that belongs to the filter itself, per thread.
long long ownBytes(Fam f, Out o, int K, long long w16, long long h) {
  const long long r = K == 5 ? 25 : 21;
  const long long k1 = K == 5 ? 120 : 72, k2 = K == 5 ? 240 : 144;
  switch (f) {
    case Fam::kSobel:
      if (o == Out::k32f) return w16 * 4 * r + k1 + 368;
      return w16 * 2 * r + k1 + (o == Out::k8s ? 304 : 368);
    case Fam::kLowpass:
      if (o == Out::k32f) return w16 * 4 * r + k1 + 304;
      return w16 * 2 * r + k1 + 368;
    case Fam::kLaplacian:
      if (o == Out::k32f) return w16 * 8 * r + k2 + 576;
      // the 5x5 8s member has room for a whole 16-bit intermediate image
      return w16 * 4 * r + k2 + 576 + ((o == Out::k8s && K == 5) ? 2 * w16 * h + 32 : 0);
    case Fam::kScharrHoriz:
      return o == Out::k32f ? w16 * 84 + 440 : w16 * 42 + 376;
    case Fam::kScharrVert:
      if (o == Out::k32f) return w16 * 84 + 440;
      return w16 * 42 + (o == Out::k8s ? 376 : 440);
  }
  return 0;
}

// T x (own + row pass + column pass + 32) bytes, T the permitted thread count now.
long long bufferBytes(Fam f, Out o, KvliSize roi, int K) {
  const int T = ownGetNumThreads();
  const int W = roi.width, H = roi.height;
  const long long w16 = (static_cast<long long>(W) + 15) / 16 * 16;
  const bool f32 = o == Out::k32f;
  const long long R = rowPipelineBytes(f32 ? RowMember::k32fC1 : RowMember::k8u16sC1, W, H, K, T);
  const long long C =
      columnPipelineBytes(f32 ? ColumnMember::k32fC1 : ColumnMember::k16sC1, W, H, K, T);
  const long long bytes = T * (ownBytes(f, o, K, w16, H) + R + C + 32);
  return bytes > INT_MAX ? INT_MAX : bytes;  // the size query reports an int
}

KvlStatus writeSize(long long bytes, int* pBufferSize) {
  *pBufferSize = static_cast<int>(bytes);
  return kvlStatusOk;
}

template <Fam kFam, Out kOut>
KvlStatus sizeQuery(KvliSize roi, int mask, int* pBufferSize) {
  KVL_TRY(check::nonNull(pBufferSize));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::mask3or5(mask));
  return writeSize(bufferBytes(kFam, kOut, roi, check::maskLength(mask)), pBufferSize);
}

template <Fam kFam, Out kOut>
KvlStatus sizeQueryNoMask(KvliSize roi, int* pBufferSize) {
  KVL_TRY(check::nonNull(pBufferSize));
  KVL_TRY(check::roi(roi));
  return writeSize(bufferBytes(kFam, kOut, roi, 3), pBufferSize);
}

// The general-filter Sobel members' work size, without threads.
long long generalBytes(Out o, KvliSize roi, int K) {
  const long long m = roi.width > roi.height ? roi.width : roi.height;
  const long long n = K == 3 ? 3 * m + 6 : 7 * m + 28;
  const long long bytes = o == Out::k32f ? 4 * n : n;
  const long long total = (bytes + 31) / 32 * 32 + 32;
  return total > INT_MAX ? INT_MAX : total;
}

Fn pickKernel(Kind k, int K, Out o) {
  const Fn* table = simd::pick(kTargets, kRef);
  return table[kernelIndex(k, K, o)];
}

// Runs the kernel over the image, in row stripes when the filter-with-border rule allows.
void run(Kind kind, int K, Out o, const void* pSrc, int srcStep, void* pDst, int dstStep,
         KvliSize roi, int bt, float value, float recip, Kvl8u* pBuffer, long long bytes,
         bool threaded) {
  const Fn fn = pickKernel(kind, K, o);
  // 16-bit and float outputs of calls whose images outgrow the cache bypass it; the kernels
  // store 8-bit outputs with ordinary stores only.
  const int inBytes = o == Out::k32f ? 4 : 1, outBytes = o == Out::k32f ? 4 : 2;
  const long long touched = static_cast<long long>(roi.width) * roi.height * (inBytes + outBytes);
  const bool stream = (o == Out::k16s || o == Out::k32f) && streamDestination(touched);
  const Job job{pSrc, srcStep, pDst, dstStep, roi.width, roi.height, 0, roi.height,
                bt, value, recip, pBuffer, bytes, stream, kPrefetchRows};
  const int team = threaded ? par::teamBorderFilter(roi) : 1;
  par::runStripes(team, roi.height, [&](const par::Stripe& s) {
    Job part = job;
    part.y0 = s.y0;
    part.rows = s.rows;
    part.borderType = bt | s.inMemFlags();
    part.buffer = pBuffer + s.bufferOffset(bytes);
    part.bufferBytes = s.bufferPart(bytes);
    fn(part);
  });
}

// The exported members: pointers, ROI, steps (and multiples), border, divisor, mask.
template <Kind kKind, Fam kFam, Out kOut, bool kMask, bool kDivisor, class S, class D, class V>
KvlStatus filter(const S* pSrc, int srcStep, D* pDst, int dstStep, KvliSize roi, int mask,
                 int bt, V value, int divisor, Kvl8u* pBuffer) {
  KVL_TRY(check::nonNull(pSrc, pDst, pBuffer));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, check::Step<S>{srcStep}, check::Step<D>{dstStep}));
  KVL_TRY(check::border(bt, check::kModes01234_6, kvlStatusBadArgument));
  bt = check::normalizeInMem(bt);
  if (kDivisor && divisor == 0) return kvlStatusBadArgument;
  if (kMask) KVL_TRY(check::mask3or5(mask));
  const int K = kMask ? check::maskLength(mask) : 3;
  float recip = 1.0f;
  if (kDivisor) recip = 1.0f / static_cast<float>(divisor);
  if (kOut == Out::k8u) recip = 1.0f / static_cast<float>(K * K);  // the lowpass box average
  run(kKind, K, kOut, pSrc, srcStep, pDst, dstStep, roi, bt, static_cast<float>(value), recip,
      pBuffer, bufferBytes(kFam, kOut, roi, K), true);
  return kvlStatusOk;
}

// The general-filter members: pointers, ROI, step multiples only, mask, border (no wrap,
// nothing above 255); serial.
template <Kind kKind, Out kOut, class S, class D, class V>
KvlStatus general(const S* pSrc, int srcStep, D* pDst, int dstStep, KvliSize roi, int mask,
                  int bt, V value, Kvl8u* pBuffer) {
  KVL_TRY(check::nonNull(pSrc, pDst, pBuffer));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::stepMultiples(check::Step<S>{srcStep}, check::Step<D>{dstStep}));
  KVL_TRY(check::mask3or5(mask));
  KVL_TRY(check::border(bt, check::kModes0134_6, kvlStatusBadArgument));
  if (static_cast<unsigned>(bt) > 255u) return kvlStatusBadArgument;
  bt = check::normalizeInMem(bt);
  const int K = check::maskLength(mask);
  run(kKind, K, kOut, pSrc, srcStep, pDst, dstStep, roi, bt, static_cast<float>(value), 1.0f,
      pBuffer, generalBytes(kOut, roi, K), false);
  return kvlStatusOk;
}

template <Out kOut>
KvlStatus generalSize(KvliSize roi, int mask, int* pBufferSize) {
  KVL_TRY(check::nonNull(pBufferSize));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::mask3or5(mask));
  return writeSize(generalBytes(kOut, roi, check::maskLength(mask)), pBufferSize);
}

}  // namespace
}  // namespace kvl::filter::deriv

using kvl::filter::deriv::Fam;
using kvl::filter::deriv::Kind;
using kvl::filter::deriv::Out;
namespace dv = kvl::filter::deriv;

// ---- Exported members with a mask argument: 8u16s, 8u8s (divisor) and 32f. ----
#define KVL_DERIV_MASKED(Name, kind, fam)                                                       \
  extern "C" KvlStatus impl_kvliFilter##Name##Border_8u16s_C1R(                                 \
      const Kvl8u* pSrc, int srcStep, Kvl16s* pDst, int dstStep, KvliSize roiSize,              \
      KvliMaskSize mask, int borderType, Kvl8u borderValue, Kvl8u* pBuffer) {                   \
    return dv::filter<kind, fam, Out::k16s, true, false>(pSrc, srcStep, pDst, dstStep, roiSize, \
                                                        mask, borderType, borderValue, 1,       \
                                                        pBuffer);                               \
  }                                                                                             \
  extern "C" KvlStatus impl_kvliFilter##Name##Border_32f_C1R(                                   \
      const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize,             \
      KvliMaskSize mask, int borderType, Kvl32f borderValue, Kvl8u* pBuffer) {                  \
    return dv::filter<kind, fam, Out::k32f, true, false>(pSrc, srcStep, pDst, dstStep, roiSize, \
                                                        mask, borderType, borderValue, 1,       \
                                                        pBuffer);                               \
  }                                                                                             \
  extern "C" KvlStatus impl_kvliFilter##Name##GetBufferSize_8u16s_C1R(                          \
      KvliSize roiSize, KvliMaskSize mask, int* pBufferSize) {                                  \
    return dv::sizeQuery<fam, Out::k16s>(roiSize, mask, pBufferSize);                           \
  }                                                                                             \
  extern "C" KvlStatus impl_kvliFilter##Name##GetBufferSize_32f_C1R(                            \
      KvliSize roiSize, KvliMaskSize mask, int* pBufferSize) {                                  \
    return dv::sizeQuery<fam, Out::k32f>(roiSize, mask, pBufferSize);                           \
  }

#define KVL_DERIV_MASKED_8S(Name, kind, fam)                                                      \
  extern "C" KvlStatus impl_kvliFilter##Name##Border_8u8s_C1R(                                    \
      const Kvl8u* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize,                 \
      KvliMaskSize mask, int borderType, Kvl8u borderValue, int divisor, Kvl8u* pBuffer) {        \
    return dv::filter<kind, fam, Out::k8s, true, true>(pSrc, srcStep, pDst, dstStep, roiSize,     \
                                                      mask, borderType, borderValue, divisor,     \
                                                      pBuffer);                                   \
  }                                                                                               \
  extern "C" KvlStatus impl_kvliFilter##Name##GetBufferSize_8u8s_C1R(                             \
      KvliSize roiSize, KvliMaskSize mask, int* pBufferSize) {                                    \
    return dv::sizeQuery<fam, Out::k8s>(roiSize, mask, pBufferSize);                              \
  }

KVL_DERIV_MASKED(SobelNegVert, Kind::kSobelNegVert, Fam::kSobel)
KVL_DERIV_MASKED(SobelHorizSecond, Kind::kSobelHorizSecond, Fam::kSobel)
KVL_DERIV_MASKED(SobelVertSecond, Kind::kSobelVertSecond, Fam::kSobel)
KVL_DERIV_MASKED(SobelCross, Kind::kSobelCross, Fam::kSobel)
KVL_DERIV_MASKED(Laplacian, Kind::kLaplacian, Fam::kLaplacian)
KVL_DERIV_MASKED_8S(SobelHoriz, Kind::kSobelHoriz, Fam::kSobel)
// The Vert 8u8s member uses the NegVert kernels: left column minus right column.
KVL_DERIV_MASKED_8S(SobelVert, Kind::kSobelNegVert, Fam::kSobel)
KVL_DERIV_MASKED_8S(SobelNegVert, Kind::kSobelNegVert, Fam::kSobel)
KVL_DERIV_MASKED_8S(SobelHorizSecond, Kind::kSobelHorizSecond, Fam::kSobel)
KVL_DERIV_MASKED_8S(SobelVertSecond, Kind::kSobelVertSecond, Fam::kSobel)
KVL_DERIV_MASKED_8S(SobelCross, Kind::kSobelCross, Fam::kSobel)
KVL_DERIV_MASKED_8S(Laplacian, Kind::kLaplacian, Fam::kLaplacian)

// ---- Scharr: always 3x3, no mask argument. ----
#define KVL_DERIV_SCHARR(Name, kind, fam)                                                          \
  extern "C" KvlStatus impl_kvliFilter##Name##Border_8u16s_C1R(                                    \
      const Kvl8u* pSrc, int srcStep, Kvl16s* pDst, int dstStep, KvliSize roiSize, int borderType, \
      Kvl8u borderValue, Kvl8u* pBuffer) {                                                         \
    return dv::filter<kind, fam, Out::k16s, false, false>(pSrc, srcStep, pDst, dstStep, roiSize,   \
                                                         kvlMaskSize3x3, borderType, borderValue,  \
                                                         1, pBuffer);                              \
  }                                                                                                \
  extern "C" KvlStatus impl_kvliFilter##Name##Border_8u8s_C1R(                                     \
      const Kvl8u* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize, int borderType,  \
      Kvl8u borderValue, int divisor, Kvl8u* pBuffer) {                                            \
    return dv::filter<kind, fam, Out::k8s, false, true>(pSrc, srcStep, pDst, dstStep, roiSize,     \
                                                       kvlMaskSize3x3, borderType, borderValue,    \
                                                       divisor, pBuffer);                          \
  }                                                                                                \
  extern "C" KvlStatus impl_kvliFilter##Name##Border_32f_C1R(                                      \
      const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize,                \
      int borderType, Kvl32f borderValue, Kvl8u* pBuffer) {                                        \
    return dv::filter<kind, fam, Out::k32f, false, false>(pSrc, srcStep, pDst, dstStep, roiSize,   \
                                                         kvlMaskSize3x3, borderType, borderValue,  \
                                                         1, pBuffer);                              \
  }                                                                                                \
  extern "C" KvlStatus impl_kvliFilter##Name##GetBufferSize_8u16s_C1R(KvliSize roiSize,            \
                                                                      int* pBufferSize) {          \
    return dv::sizeQueryNoMask<fam, Out::k16s>(roiSize, pBufferSize);                              \
  }                                                                                                \
  extern "C" KvlStatus impl_kvliFilter##Name##GetBufferSize_8u8s_C1R(KvliSize roiSize,             \
                                                                     int* pBufferSize) {           \
    return dv::sizeQueryNoMask<fam, Out::k8s>(roiSize, pBufferSize);                               \
  }                                                                                                \
  extern "C" KvlStatus impl_kvliFilter##Name##GetBufferSize_32f_C1R(KvliSize roiSize,              \
                                                                    int* pBufferSize) {            \
    return dv::sizeQueryNoMask<fam, Out::k32f>(roiSize, pBufferSize);                              \
  }

KVL_DERIV_SCHARR(ScharrHoriz, Kind::kScharrHoriz, Fam::kScharrHoriz)
KVL_DERIV_SCHARR(ScharrVert, Kind::kScharrVert, Fam::kScharrVert)

// ---- Lowpass: the box sum, 8u averaged by 9 or 25, 32f stored as the sum. ----
extern "C" KvlStatus impl_kvliFilterLowpassBorder_8u_C1R(const Kvl8u* pSrc, int srcStep,
                                                         Kvl8u* pDst, int dstStep,
                                                         KvliSize roiSize, KvliMaskSize mask,
                                                         int borderType, Kvl8u borderValue,
                                                         Kvl8u* pBuffer) {
  return dv::filter<Kind::kLowpass, Fam::kLowpass, Out::k8u, true, false>(
      pSrc, srcStep, pDst, dstStep, roiSize, mask, borderType, borderValue, 1, pBuffer);
}
extern "C" KvlStatus impl_kvliFilterLowpassBorder_32f_C1R(const Kvl32f* pSrc, int srcStep,
                                                          Kvl32f* pDst, int dstStep,
                                                          KvliSize roiSize, KvliMaskSize mask,
                                                          int borderType, Kvl32f borderValue,
                                                          Kvl8u* pBuffer) {
  return dv::filter<Kind::kLowpass, Fam::kLowpass, Out::k32f, true, false>(
      pSrc, srcStep, pDst, dstStep, roiSize, mask, borderType, borderValue, 1, pBuffer);
}
extern "C" KvlStatus impl_kvliFilterLowpassGetBufferSize_8u_C1R(KvliSize roiSize,
                                                                KvliMaskSize mask,
                                                                int* pBufferSize) {
  return dv::sizeQuery<Fam::kLowpass, Out::k8u>(roiSize, mask, pBufferSize);
}
extern "C" KvlStatus impl_kvliFilterLowpassGetBufferSize_32f_C1R(KvliSize roiSize,
                                                                 KvliMaskSize mask,
                                                                 int* pBufferSize) {
  return dv::sizeQuery<Fam::kLowpass, Out::k32f>(roiSize, mask, pBufferSize);
}

// ---- The general-filter Sobel members (internal). ----
KvlStatus kvliFilterSobelVertBorder_8u16s_C1R(const Kvl8u* pSrc, int srcStep, Kvl16s* pDst,
                                              int dstStep, KvliSize roiSize, KvliMaskSize mask,
                                              int borderType, Kvl8u borderValue, Kvl8u* pBuffer) {
  return dv::general<Kind::kSobelNegVert, Out::k16s>(pSrc, srcStep, pDst, dstStep, roiSize, mask,
                                                     borderType, borderValue, pBuffer);
}
KvlStatus kvliFilterSobelHorizBorder_8u16s_C1R(const Kvl8u* pSrc, int srcStep, Kvl16s* pDst,
                                               int dstStep, KvliSize roiSize, KvliMaskSize mask,
                                               int borderType, Kvl8u borderValue,
                                               Kvl8u* pBuffer) {
  return dv::general<Kind::kSobelHoriz, Out::k16s>(pSrc, srcStep, pDst, dstStep, roiSize, mask,
                                                   borderType, borderValue, pBuffer);
}
KvlStatus kvliFilterSobelVertBorder_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst,
                                            int dstStep, KvliSize roiSize, KvliMaskSize mask,
                                            int borderType, Kvl32f borderValue, Kvl8u* pBuffer) {
  return dv::general<Kind::kSobelNegVert, Out::k32f>(pSrc, srcStep, pDst, dstStep, roiSize, mask,
                                                     borderType, borderValue, pBuffer);
}
KvlStatus kvliFilterSobelHorizBorder_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst,
                                             int dstStep, KvliSize roiSize, KvliMaskSize mask,
                                             int borderType, Kvl32f borderValue,
                                             Kvl8u* pBuffer) {
  return dv::general<Kind::kSobelHoriz, Out::k32f>(pSrc, srcStep, pDst, dstStep, roiSize, mask,
                                                   borderType, borderValue, pBuffer);
}
KvlStatus kvliFilterSobelVertGetBufferSize_8u16s_C1R(KvliSize roiSize, KvliMaskSize mask,
                                                     int* pBufferSize) {
  return dv::generalSize<Out::k16s>(roiSize, mask, pBufferSize);
}
KvlStatus kvliFilterSobelHorizGetBufferSize_8u16s_C1R(KvliSize roiSize, KvliMaskSize mask,
                                                      int* pBufferSize) {
  return dv::generalSize<Out::k16s>(roiSize, mask, pBufferSize);
}
KvlStatus kvliFilterSobelVertGetBufferSize_32f_C1R(KvliSize roiSize, KvliMaskSize mask,
                                                   int* pBufferSize) {
  return dv::generalSize<Out::k32f>(roiSize, mask, pBufferSize);
}
KvlStatus kvliFilterSobelHorizGetBufferSize_32f_C1R(KvliSize roiSize, KvliMaskSize mask,
                                                    int* pBufferSize) {
  return dv::generalSize<Out::k32f>(roiSize, mask, pBufferSize);
}
