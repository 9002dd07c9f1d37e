// Vector column pass of the exact Euclidean distance transform, one source for SSE4, AVX2 and
// AVX-512: the columns of a block are the lanes, the rows are walked down and then up.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "seg/dist_exact_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include "core/pixel.h"
#include "core/simd.h"
#include "seg/dist_exact.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::seg {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

void columnPass(const Kvl8u* src, int srcStep, Kvl32f* dst, int dstStep, int n, int height,
                int32_t* count) {
  const hn::ScalableTag<int32_t> di;
  const hn::RebindToFloat<decltype(di)> df;
  const hn::Rebind<uint8_t, decltype(di)> d8;
  const int N = static_cast<int>(hn::Lanes(di));
  const int nv = n / N * N;
  const auto one = hn::Set(di, 1);
  const auto none = hn::Set(di, kNoFeature);
  const auto last = hn::Set(di, kNoFeature - 1);
  const auto far = hn::Set(df, kFarSq);

  // One step of a column walk: the lane's count grows by one, restarts at a feature pixel and
  // stops at kNoFeature; returns the squared distance it stands for.
  auto step = [&](const Kvl8u* s, int x) KVL_INLINE_LAMBDA {
    const auto feature = hn::Eq(hn::PromoteTo(di, hn::LoadU(d8, s + x)), hn::Zero(di));
    // min(count + 1, kNoFeature) without overflow: count <= kNoFeature - 1 before the step.
    const auto c =
        hn::IfThenZeroElse(feature, hn::Add(hn::Min(hn::Load(di, count + x), last), one));
    hn::Store(c, di, count + x);
    const auto cf = hn::ConvertTo(df, c);
    return hn::IfThenElse(hn::RebindMask(df, hn::Eq(c, none)), far, hn::Mul(cf, cf));
  };

  if (nv > 0) {
    for (int x = 0; x < nv; x += N) hn::Store(none, di, count + x);
    for (int y = 0; y < height; ++y) {
      const Kvl8u* s = rowPtr(src, srcStep, y);
      Kvl32f* d = rowPtr(dst, dstStep, y);
      for (int x = 0; x < nv; x += N) hn::StoreU(step(s, x), df, d + x);
    }
    for (int x = 0; x < nv; x += N) hn::Store(none, di, count + x);
    for (int y = height - 1; y >= 0; --y) {
      const Kvl8u* s = rowPtr(src, srcStep, y);
      Kvl32f* d = rowPtr(dst, dstStep, y);
      for (int x = 0; x < nv; x += N)
        hn::StoreU(hn::Min(hn::LoadU(df, d + x), step(s, x)), df, d + x);
    }
  }
  if (nv < n) ref::columnPass(src + nv, srcStep, dst + nv, dstStep, n - nv, height, count + nv);
}

// Correctly rounded square roots of a row, in place.
void sqrtRow(Kvl32f* row, int width) {
  const hn::ScalableTag<float> df;
  const int N = static_cast<int>(hn::Lanes(df));
  int x = 0;
  for (; x + N <= width; x += N) hn::StoreU(hn::Sqrt(hn::LoadU(df, row + x)), df, row + x);
  ref::sqrtRow(row + x, width - x);
}

#endif  // KVL_SIMD_TARGET
}  // namespace HWY_NAMESPACE
}  // namespace kvl::seg
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::seg {
const simd::Kernel<ColumnPassFn> kColumnPass{KVL_TARGETS(columnPass), &ref::columnPass};
const simd::Kernel<SqrtRowFn> kSqrtRow{KVL_TARGETS(sqrtRow), &ref::sqrtRow};
}  // namespace kvl::seg
#endif  // HWY_ONCE
