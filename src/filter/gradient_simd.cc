// Vector kernels of the colour-to-grey gradient combination, one source for SSE4, AVX2, AVX-512.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "filter/gradient_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include "core/simd.h"
#include "filter/gradient.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::filter {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

#if KVL_SIMD_TARGET
// The largest int32 vector of any target, in lanes.
constexpr int kMaxLanes32 = 16;

// sqrt(v) + 0.5 truncated toward zero, in double, for every lane of two double halves.
template <class DI, class DD>
HWY_INLINE hn::Vec<DI> roundedRoot(DI di, DD dd, hn::Vec<DD> lo, hn::Vec<DD> hi) {
  const hn::Half<DI> dh;
  const auto half = hn::Set(dd, 0.5);
  const auto rlo = hn::DemoteTo(dh, hn::Add(hn::Sqrt(lo), half));
  const auto rhi = hn::DemoteTo(dh, hn::Add(hn::Sqrt(hi), half));
  return hn::Combine(di, rhi, rlo);
}

// Integer members: N pixels (3N elements) are widened to int32, deinterleaved through a stack
// copy, combined in int32 / float / double lanes and narrowed back.
template <class T, int kNorm>
void gradientRowInt(const T* src, T* dst, int n) {
  const hn::ScalableTag<int32_t> di;
  const hn::Rebind<float, decltype(di)> df;
  const hn::Rebind<T, decltype(di)> dt;
  const hn::Half<decltype(di)> dih;
  const hn::Half<decltype(df)> dfh;
  const hn::Rebind<double, decltype(dih)> dd;
  const int N = static_cast<int>(hn::Lanes(di));
  HWY_ALIGN int32_t wide[3 * kMaxLanes32];
  int x = 0;
  for (; x + N <= n; x += N) {
    const T* s = src + 3 * x;
    for (int k = 0; k < 3; ++k)
      hn::Store(hn::PromoteTo(di, hn::LoadU(dt, s + k * N)), di, wide + k * N);
    hn::Vec<decltype(di)> c0, c1, c2, r;
    hn::LoadInterleaved3(di, wide, c0, c1, c2);
    if constexpr (kNorm == kGradNormInf) {
      r = hn::Max(hn::Max(c0, c1), c2);
    } else if constexpr (kNorm == kGradNormL1) {
      const auto sum = hn::Add(hn::Add(c0, c1), c2);
      if constexpr (std::is_same_v<T, Kvl8u>) {
        r = hn::ShiftRight<12>(hn::Add(hn::Mul(sum, hn::Set(di, 1365)), hn::Set(di, 2048)));
      } else {
        r = hn::ShiftRight<14>(hn::Add(hn::Mul(sum, hn::Set(di, 5461)), hn::Set(di, 8192)));
      }
    } else if constexpr (std::is_same_v<T, Kvl8u>) {
      const auto ss = hn::Add(hn::Add(hn::Mul(c0, c0), hn::Mul(c1, c1)), hn::Mul(c2, c2));
      const auto mean = hn::Div(hn::ConvertTo(df, ss), hn::Set(df, 3.0f));
      r = roundedRoot(di, dd, hn::PromoteTo(dd, hn::LowerHalf(dfh, mean)),
                      hn::PromoteTo(dd, hn::UpperHalf(dfh, mean)));
    } else {
      // Squares of 16-bit values overflow int32: square and sum in double.
      auto sumSquares = [&](auto half) {
        const auto a = hn::PromoteTo(dd, half(c0)), b = hn::PromoteTo(dd, half(c1)),
                   c = hn::PromoteTo(dd, half(c2));
        return hn::Div(hn::Add(hn::Add(hn::Mul(a, a), hn::Mul(b, b)), hn::Mul(c, c)),
                       hn::Set(dd, 3.0));
      };
      r = roundedRoot(di, dd, sumSquares([&](auto v) { return hn::LowerHalf(dih, v); }),
                      sumSquares([&](auto v) { return hn::UpperHalf(dih, v); }));
    }
    hn::StoreU(hn::DemoteTo(dt, r), dt, dst + x);
  }
  ref::gradientRow<T, kNorm>(src + 3 * x, dst + x, n - x);
}

template <int kNorm>
void gradientRowFloat(const Kvl32f* src, Kvl32f* dst, int n) {
  const hn::ScalableTag<float> df;
  const int N = static_cast<int>(hn::Lanes(df));
  int x = 0;
  for (; x + N <= n; x += N) {
    hn::Vec<decltype(df)> c0, c1, c2, r;
    hn::LoadInterleaved3(df, src + 3 * x, c0, c1, c2);
    if constexpr (kNorm == kGradNormInf) {
      r = hn::Max(hn::Max(hn::Abs(c0), hn::Abs(c1)), hn::Abs(c2));
    } else if constexpr (kNorm == kGradNormL1) {
      r = hn::Add(hn::Add(hn::Abs(c0), hn::Abs(c1)), hn::Abs(c2));
    } else {
      r = hn::Sqrt(hn::Add(hn::Add(hn::Mul(c0, c0), hn::Mul(c1, c1)), hn::Mul(c2, c2)));
    }
    hn::StoreU(r, df, dst + x);
  }
  ref::gradientRow<Kvl32f, kNorm>(src + 3 * x, dst + x, n - x);
}

template <class T, int kNorm>
void gradientRow(const T* src, T* dst, int n) {
  if constexpr (std::is_same_v<T, Kvl32f>) {
    gradientRowFloat<kNorm>(src, dst, n);
  } else {
    gradientRowInt<T, kNorm>(src, dst, n);
  }
}

#endif  // KVL_SIMD_TARGET

}  // namespace HWY_NAMESPACE
}  // namespace kvl::filter
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::filter {

template <class T, int kNorm>
const simd::Kernel<GradientRowFn<T>> GradientKernel<T, kNorm>::kernel{
    KVL_TARGETS(gradientRow<T, kNorm>), &ref::gradientRow<T, kNorm>};

#define KVL_INSTANTIATE(suffix, T)                 \
  template struct GradientKernel<T, kGradNormInf>; \
  template struct GradientKernel<T, kGradNormL1>;  \
  template struct GradientKernel<T, kGradNormL2>;
KVL_GRADIENT_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::filter
#endif  // HWY_ONCE
