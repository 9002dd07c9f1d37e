// Chamfer distance transforms and the mask query: validation, the rule of the call and the
// kernel call, always on the calling thread.
#include "seg/dist_chamfer.h"

#include <cmath>

#include "core/check.h"
#include "core/pixel.h"
#include "impl_decls.h"

namespace kvl::seg {
namespace {

// Weights of the mask table by kernel size (row 0: 3x3, row 1: 5x5) and norm.
constexpr Kvl32s kIntWeights[2][3][3] = {{{1, 1, 0}, {1, 2, 0}, {2, 3, 0}},
                                         {{1, 1, 2}, {1, 2, 3}, {5, 7, 11}}};
constexpr Kvl32f kRealWeights[2][3][3] = {{{1.0f, 1.0f, 0}, {1.0f, 2.0f, 0}, {0.955f, 1.3693f, 0}},
                                          {{1.0f, 1.0f, 2.0f}, {1.0f, 2.0f, 3.0f},
                                           {1.0f, 1.4f, 2.1969f}}};

template <class T>
KvlStatus maskWeights(int kerSize, int norm, T* pMetrics, const T (&table)[2][3][3]) {
  KVL_TRY(check::nonNull(pMetrics));
  if (kerSize != 3 && kerSize != 5) return kvlStatusBadSize;
  if (norm < 0 || norm > 2) return kvlStatusBadArgument;
  const T* w = table[kerSize == 5][norm];
  for (int i = 0; i < (kerSize == 5 ? 3 : 2); ++i) storeAny(pMetrics + i, w[i]);
  return kvlStatusOk;
}

// Rows whose sums a float computation keeps exact: small integer weights, and images small
// enough that every finite distance (at most the largest weight times the steps of a path along
// the axes, plus the 64-lane reach of a doubling step) stays below 2^24.
bool exactIntegers(const float* w, int n, KvliSize roi) {
  float largest = 0;
  for (int i = 0; i < n; ++i) {
    if (w[i] != std::floor(w[i])) return false;
    largest = w[i] > largest ? w[i] : largest;
  }
  return static_cast<double>(largest) * (static_cast<double>(roi.width) + roi.height + 130.0) <
         16777216.0;
}

template <class Out, class Metric, int kTaps>
KvlStatus chamfer(const Kvl8u* src, int srcStep, Out* dst, int dstStep, KvliSize roi,
                  const Metric* metrics) {
  KVL_TRY(check::nonNull(src, dst, metrics));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::stepsCover(roi.width, check::Step<Kvl8u>{srcStep}, check::Step<Out>{dstStep}));
  KVL_TRY(check::stepMultiples(check::Step<Out>{dstStep}));
  constexpr int kWeights = kTaps == 5 ? 3 : 2;
  Metric w[3] = {1, 1, 1};
  for (int i = 0; i < kWeights; ++i) {
    w[i] = loadAny(metrics + i);
    if constexpr (std::is_floating_point_v<Metric>) {
      if (!(w[i] > 0)) return kvlStatusBadMetric;
    } else {
      if (w[i] < 1) return kvlStatusBadMetric;
    }
  }
  Rule<Out> rule{};
  bool exact = true;
  if constexpr (std::is_floating_point_v<Out>) {
    rule.a = w[0], rule.b = w[1], rule.c = w[2];
    exact = exactIntegers(w, kWeights, roi);
  } else {
    auto clamp = [](Metric v) {
      return static_cast<Out>(v > static_cast<Metric>(kFar<Out>) ? kFar<Out> : v);
    };
    rule.a = clamp(w[0]), rule.b = clamp(w[1]), rule.c = clamp(w[2]);
  }
  // The comparisons use the weights as given (saturation clamps each sum, not the ordering).
  const double a = w[0], b = w[1], c = w[2];
  rule.doubling = exact;
  rule.axisOnly = exact && b >= 2 * a && (kTaps == 3 || c >= 3 * a);
  ChamferKernel<Out, kTaps>::kernel.pick()(src, srcStep, dst, dstStep, roi.width, roi.height,
                                           rule);
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::seg

extern "C" KvlStatus impl_kvliGetDistanceTransformMask_32s(int kerSize, int norm,
                                                           Kvl32s* pMetrics) {
  return kvl::seg::maskWeights(kerSize, norm, pMetrics, kvl::seg::kIntWeights);
}

extern "C" KvlStatus impl_kvliGetDistanceTransformMask_32f(int kerSize, int norm,
                                                           Kvl32f* pMetrics) {
  return kvl::seg::maskWeights(kerSize, norm, pMetrics, kvl::seg::kRealWeights);
}

extern "C" KvlStatus impl_kvliGetDistanceTransformMask(int maskType, Kvl32f* pMetrics) {
  const int norm = maskType % 10;
  if (norm < 0 || norm > 2) return kvlStatusBadArgument;
  return impl_kvliGetDistanceTransformMask_32f(maskType / 10, norm, pMetrics);
}

#define KVL_CHAMFER_PARAMS_C1R(Out, Metric) \
  const Kvl8u *pSrc, int srcStep, Out *pDst, int dstStep, KvliSize roiSize, Metric *pMetrics
#define KVL_CHAMFER_PARAMS_C1IR(Out, Metric) \
  Out *pSrcDst, int srcDstStep, KvliSize roiSize, Metric *pMetrics
#define KVL_CHAMFER_ARGS_C1R pSrc, srcStep, pDst, dstStep, roiSize, pMetrics
#define KVL_CHAMFER_ARGS_C1IR pSrcDst, srcDstStep, pSrcDst, srcDstStep, roiSize, pMetrics

#define KVL_CHAMFER(mask, taps, types, layout, Out, Metric, kernel)                          \
  extern "C" KvlStatus impl_kvliDistanceTransform_##mask##_##types##_##layout(              \
      KVL_CHAMFER_PARAMS_##layout(Out, Metric)) {                                           \
    return kvl::seg::chamfer<Out, Metric, taps>(KVL_CHAMFER_ARGS_##layout);                 \
  }
KVL_CHAMFER_MEMBERS(KVL_CHAMFER)
#undef KVL_CHAMFER
