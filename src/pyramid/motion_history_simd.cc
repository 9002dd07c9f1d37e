// Vector kernel of the motion history update, one source for SSE4, AVX2 and AVX-512.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "pyramid/motion_history_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include "core/simd.h"
#include "pyramid/motion_history.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::pyramid {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

// Lanes whose silhouette value is non-zero. Floats are tested on their bits without the sign, so
// -0 counts as zero and NaN as set on every target alike.
template <class Sil, class DF>
HWY_INLINE hn::Mask<DF> silhouetteSet(DF df, const Sil* p) {
  const hn::Rebind<uint32_t, DF> du;
  hn::Vec<decltype(du)> bits;
  if constexpr (std::is_same_v<Sil, Kvl32f>) {
    bits = hn::And(hn::BitCast(du, hn::LoadU(df, p)), hn::Set(du, 0x7fffffffu));
  } else {
    bits = hn::PromoteTo(du, hn::LoadU(hn::Rebind<Sil, DF>(), p));
  }
  return hn::RebindMask(df, hn::Ne(bits, hn::Zero(du)));
}

template <class Sil>
void mhiRow(const Sil* sil, Kvl32f* mhi, int n, float timestamp, float limit) {
  const hn::ScalableTag<float> df;
  const int N = static_cast<int>(hn::Lanes(df));
  const auto ts = hn::Set(df, timestamp);
  const auto lim = hn::Set(df, limit);
  int x = 0;
  for (; x + N <= n; x += N) {
    const auto h = hn::LoadU(df, mhi + x);
    // Lt is an ordered comparison: a NaN history is kept.
    const auto kept = hn::IfThenZeroElse(hn::Lt(h, lim), h);
    hn::StoreU(hn::IfThenElse(silhouetteSet(df, sil + x), ts, kept), df, mhi + x);
  }
  ref::mhiRow<Sil>(sil + x, mhi + x, n - x, timestamp, limit);
}

#endif  // KVL_SIMD_TARGET

}  // namespace HWY_NAMESPACE
}  // namespace kvl::pyramid
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::pyramid {

template <class Sil>
const simd::Kernel<MhiRowFn<Sil>> MhiKernel<Sil>::kernel{KVL_TARGETS(mhiRow<Sil>), &ref::mhiRow<Sil>};

#define KVL_INSTANTIATE(suffix, Sil) template struct MhiKernel<Sil>;
KVL_MHI_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::pyramid
#endif  // HWY_ONCE
