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
constexpr Fam famOf(Kind k) {
  switch (k) {
    case Kind::kLowpass: return Fam::kLowpass;
    case Kind::kLaplacian: return Fam::kLaplacian;
    case Kind::kScharrHoriz: return Fam::kScharrHoriz;
    case Kind::kScharrVert: return Fam::kScharrVert;
    default: return Fam::kSobel;
  }
}

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

// The general-filter Sobel members' work size, without threads.
long long generalBytes(Out o, KvliSize roi, int K) {
  const long long m = roi.width > roi.height ? roi.width : roi.height;
  const long long n = K == 3 ? 3 * m + 6 : 7 * m + 28;
  const long long bytes = o == Out::k32f ? 4 * n : n;
  const long long total = roundUp(bytes, 32) + 32;
  return total > INT_MAX ? INT_MAX : total;
}

// Runs the kernel over the image, in row stripes when the filter-with-border rule allows.
void run(Kind kind, int K, Out o, const void* pSrc, int srcStep, void* pDst, int dstStep,
         KvliSize roi, int bt, float value, float recip, Kvl8u* pBuffer, long long bytes,
         bool threaded) {
  const Fn fn = kernelFor({kind, K, o}).pick();
  // 16-bit and float outputs of calls whose images outgrow the cache bypass it; the kernels
  // store 8-bit outputs with ordinary stores only.
  const int inBytes = o == Out::k32f ? 4 : 1, outBytes = o == Out::k32f ? 4 : 2;
  const long long touched = static_cast<long long>(roi.width) * roi.height * (inBytes + outBytes);
  const bool stream = (o == Out::k16s || o == Out::k32f) && streamDestination(touched);
  const Job job{pSrc,  srcStep, pDst,   dstStep, roi.width, roi.height, 0, roi.height, bt,
                value, recip,   0,      pBuffer, bytes,   stream,    kPrefetchRows};
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
template <Kind kKind, Out kOut, Args kArgs, class S, class D>
KvlStatus filter(const S* pSrc, int srcStep, D* pDst, int dstStep, KvliSize roi, int mask,
                 int bt, S value, int divisor, Kvl8u* pBuffer) {
  constexpr bool kMask = kArgs == Args::Mask;
  KVL_TRY(check::nonNull(pSrc, pDst, pBuffer));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, check::Step<S>{srcStep}, check::Step<D>{dstStep}));
  KVL_TRY(check::border(bt, check::kModes01234_6, kvlStatusBadArgument));
  bt = check::normalizeInMem(bt);
  if (kOut == Out::k8s && divisor == 0) return kvlStatusBadArgument;
  if (kMask) KVL_TRY(check::mask3or5(mask));
  const int K = kMask ? check::maskLength(mask) : 3;
  float recip = 1.0f;
  if (kOut == Out::k8s) recip = 1.0f / static_cast<float>(divisor);
  if (kOut == Out::k8u) recip = 1.0f / static_cast<float>(K * K);  // the lowpass box average
  run(kKind, K, kOut, pSrc, srcStep, pDst, dstStep, roi, bt, static_cast<float>(value), recip,
      pBuffer, bufferBytes(famOf(kKind), kOut, roi, K), true);
  return kvlStatusOk;
}

// The general-filter members: pointers, ROI, step multiples only, mask, border (no wrap,
// nothing above 255); serial.
template <Kind kKind, Out kOut, Args, class S, class D>
KvlStatus general(const S* pSrc, int srcStep, D* pDst, int dstStep, KvliSize roi, int mask,
                  int bt, S value, int, Kvl8u* pBuffer) {
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

template <Kind kKind, Out kOut, Args kArgs>
KvlStatus sizeQuery(KvliSize roi, int mask, int* pBufferSize) {
  KVL_TRY(check::nonNull(pBufferSize));
  KVL_TRY(check::roi(roi));
  if (kArgs == Args::NoMask) return writeSize(bufferBytes(famOf(kKind), kOut, roi, 3), pBufferSize);
  KVL_TRY(check::mask3or5(mask));
  const int K = check::maskLength(mask);
  return writeSize(kArgs == Args::General ? generalBytes(kOut, roi, K)
                                          : bufferBytes(famOf(kKind), kOut, roi, K),
                   pBufferSize);
}

}  // namespace
}  // namespace kvl::filter::deriv

namespace dv = kvl::filter::deriv;

// Every member of the table: its filter and its size query. The exported ones are the impl_
// functions the entry points jump to; the General ones are internal functions of the same name.
#define KVL_DERIV_NAME_Mask(Name, types) impl_kvliFilter##Name##Border_##types##_C1R
#define KVL_DERIV_NAME_NoMask(Name, types) impl_kvliFilter##Name##Border_##types##_C1R
#define KVL_DERIV_NAME_General(Name, types) kvliFilter##Name##Border_##types##_C1R
#define KVL_DERIV_SIZE_NAME_Mask(Name, types) impl_kvliFilter##Name##GetBufferSize_##types##_C1R
#define KVL_DERIV_SIZE_NAME_NoMask(Name, types) impl_kvliFilter##Name##GetBufferSize_##types##_C1R
#define KVL_DERIV_SIZE_NAME_General(Name, types) kvliFilter##Name##GetBufferSize_##types##_C1R
#define KVL_DERIV_LINKAGE_Mask extern "C"
#define KVL_DERIV_LINKAGE_NoMask extern "C"
#define KVL_DERIV_LINKAGE_General
#define KVL_DERIV_BODY_Mask dv::filter
#define KVL_DERIV_BODY_NoMask dv::filter
#define KVL_DERIV_BODY_General dv::general
#define KVL_DERIV_MASK_VALUE_Mask mask
#define KVL_DERIV_MASK_VALUE_General mask
#define KVL_DERIV_MASK_VALUE_NoMask kvlMaskSize3x3
#define KVL_DERIV_DIVISOR_VALUE_k16s 1
#define KVL_DERIV_DIVISOR_VALUE_k8s divisor
#define KVL_DERIV_DIVISOR_VALUE_k8u 1
#define KVL_DERIV_DIVISOR_VALUE_k32f 1

#define KVL_DERIV_DEFINE(Name, types, kind, out, args)                                          \
  KVL_DERIV_LINKAGE_##args KvlStatus KVL_DERIV_NAME_##args(Name, types)(                        \
      KVL_DERIV_PARAMS(out, args)) {                                                            \
    return KVL_DERIV_BODY_##args<dv::Kind::kind, dv::Out::out, dv::Args::args>(                 \
        pSrc, srcStep, pDst, dstStep, roiSize, KVL_DERIV_MASK_VALUE_##args, borderType,         \
        borderValue, KVL_DERIV_DIVISOR_VALUE_##out, pBuffer);                                   \
  }                                                                                             \
  KVL_DERIV_LINKAGE_##args KvlStatus KVL_DERIV_SIZE_NAME_##args(Name, types)(                   \
      KvliSize roiSize, KVL_DERIV_MASK_PARAM_##args int* pBufferSize) {                         \
    return dv::sizeQuery<dv::Kind::kind, dv::Out::out, dv::Args::args>(                         \
        roiSize, KVL_DERIV_MASK_VALUE_##args, pBufferSize);                                     \
  }
KVL_DERIV_MEMBERS(KVL_DERIV_DEFINE)
