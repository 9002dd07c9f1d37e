// Vector kernel of the rectangle standard deviation, one source for SSE4, AVX2 and AVX-512.
// Every rule runs on as many pixels as a vector of doubles holds, with the float and int32 work
// in vectors of the same lane count; division and square root are IEEE in every lane.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "detect/rect_stddev_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include "core/simd.h"
#include "detect/rect_stddev.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::detect {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

using DD = hn::ScalableTag<double>;
using DF = hn::Rebind<float, DD>;
using DI = hn::Rebind<int32_t, DD>;

// The four corners of a table at x, combined in the element's own type (int32 lanes wrap).
template <bool kTilted, class D, class T>
HWY_INLINE hn::Vec<D> corners(D d, const T* const* t, int x) {
  const auto a = hn::LoadU(d, t[0] + x), b = hn::LoadU(d, t[1] + x);
  const auto c = hn::LoadU(d, t[2] + x), e = hn::LoadU(d, t[3] + x);
  return kTilted ? hn::Add(hn::Sub(hn::Sub(a, b), c), e) : hn::Sub(hn::Add(hn::Sub(a, b), c), e);
}

// Float corners widened to double, then combined.
template <bool kTilted>
HWY_INLINE hn::Vec<DD> widenedCorners(const Kvl32f* const* t, int x) {
  const DD dd;
  const DF df;
  auto w = [&](int k) { return hn::PromoteTo(dd, hn::LoadU(df, t[k] + x)); };
  return kTilted ? hn::Add(hn::Sub(hn::Sub(w(0), w(1)), w(2)), w(3))
                 : hn::Sub(hn::Add(hn::Sub(w(0), w(1)), w(2)), w(3));
}

template <class D>
HWY_INLINE hn::Vec<D> clampVariance(D d, hn::Vec<D> v) {
  return hn::IfThenZeroElse(hn::Lt(v, hn::Zero(d)), v);
}

template <StdDevRule kRule, bool kTilted, class Sum, class Sqr, class Dst>
void stdDevRow(const Sum* const* s, const Sqr* const* q, Dst* dst, int n, const StdDevParams& p) {
  const DD dd;
  const DF df;
  const DI di;
  const int lanes = static_cast<int>(hn::Lanes(dd));
  int x = 0;
  for (; x + lanes <= n; x += lanes) {
    if constexpr (kRule == StdDevRule::kDouble) {
      const auto sum = widenedCorners<kTilted>(s, x);
      const auto sq = corners<kTilted>(dd, q, x);
      const auto nd = hn::Set(dd, p.nd);
      const auto mean = hn::Div(sum, nd);
      const auto var = clampVariance(dd, hn::Sub(hn::Div(sq, nd), hn::Mul(mean, mean)));
      hn::StoreU(hn::Sqrt(hn::DemoteTo(df, var)), df, dst + x);
    } else {
      hn::Vec<DF> sum, sq;
      if constexpr (kRule == StdDevRule::kWidened) {
        sum = hn::DemoteTo(df, widenedCorners<kTilted>(s, x));
        sq = hn::DemoteTo(df, corners<kTilted>(dd, q, x));
      } else {
        sum = hn::ConvertTo(df, corners<kTilted>(di, s, x));
        if constexpr (kRule == StdDevRule::kSfs) {
          sq = hn::ConvertTo(df, corners<kTilted>(di, q, x));
        } else {
          auto f = [&](int k) { return hn::DemoteTo(df, hn::LoadU(dd, q[k] + x)); };
          sq = kTilted ? hn::Add(hn::Sub(hn::Sub(f(0), f(1)), f(2)), f(3))
                       : hn::Sub(hn::Add(hn::Sub(f(0), f(1)), f(2)), f(3));
        }
      }
      const auto nf = hn::Set(df, p.nf);
      const auto mean = hn::Div(sum, nf);
      const auto var = clampVariance(df, hn::Sub(hn::Div(sq, nf), hn::Mul(mean, mean)));
      if constexpr (kRule == StdDevRule::kSfs) {
        const auto root = hn::Sqrt(hn::PromoteTo(dd, var));
        auto v = hn::Add(hn::Set(dd, 0.5), hn::Mul(hn::Set(dd, static_cast<double>(p.scale)), root));
        v = hn::Min(v, hn::Set(dd, 2147483647.0));  // never NaN: the tables are integers
        hn::StoreU(hn::DemoteTo(di, v), di, dst + x);
      } else {
        hn::StoreU(hn::Sqrt(var), df, dst + x);
      }
    }
  }
  for (; x < n; ++x) storeAny(dst + x, stdDev<kRule, kTilted, Sum, Sqr, Dst>(s, q, x, p));
}

#endif  // KVL_SIMD_TARGET
}  // namespace HWY_NAMESPACE
}  // namespace kvl::detect
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::detect {

template <StdDevRule kRule, bool kTilted, class Sum, class Sqr, class Dst>
const simd::Kernel<StdDevRowFn<Sum, Sqr, Dst>> StdDevKernel<kRule, kTilted, Sum, Sqr, Dst>::kernel{
    KVL_TARGETS(stdDevRow<kRule, kTilted, Sum, Sqr, Dst>),
    &ref::stdDevRow<kRule, kTilted, Sum, Sqr, Dst>};

#define KVL_INSTANTIATE(Name, types, Sum, Sqr, Dst, shape, rule, layout, team) \
  template struct StdDevKernel<StdDevRule::rule, KVL_STDDEV_TILTED_##shape, Sum, Sqr, Dst>;
KVL_RECT_STDDEV_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::detect
#endif  // HWY_ONCE
