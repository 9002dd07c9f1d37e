// Vector relief rows of gradient segmentation, one source for SSE4, AVX2 and AVX-512: the columns
// whose whole neighbourhood lies inside the row are the lanes, the two row ends scalar.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "seg/gradient_seg_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include "core/simd.h"
#include "seg/gradient_seg.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::seg {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

// max - min of one channel's neighbourhood, given its nine (or five) loaded values.
template <class D, class V>
HWY_INLINE V spread(D, int cross, V ul, V u, V ur, V l, V m, V r, V dl, V dn, V dr) {
  V lo = hn::Min(hn::Min(m, l), hn::Min(r, hn::Min(u, dn)));
  V hi = hn::Max(hn::Max(m, l), hn::Max(r, hn::Max(u, dn)));
  if (!cross) {
    lo = hn::Min(lo, hn::Min(hn::Min(ul, ur), hn::Min(dl, dr)));
    hi = hn::Max(hi, hn::Max(hn::Max(ul, ur), hn::Max(dl, dr)));
  }
  return hn::Sub(hi, lo);
}

void gradientRowC1(const Kvl8u* up, const Kvl8u* mid, const Kvl8u* down, int width, int cross,
                   Kvl8u* out) {
  const hn::ScalableTag<uint8_t> d;
  const int N = static_cast<int>(hn::Lanes(d));
  int x = 1;
  for (; x + N + 1 <= width; x += N) {
    const auto g = spread(d, cross, hn::LoadU(d, up + x - 1), hn::LoadU(d, up + x),
                          hn::LoadU(d, up + x + 1), hn::LoadU(d, mid + x - 1),
                          hn::LoadU(d, mid + x), hn::LoadU(d, mid + x + 1),
                          hn::LoadU(d, down + x - 1), hn::LoadU(d, down + x),
                          hn::LoadU(d, down + x + 1));
    hn::StoreU(g, d, out + x);
  }
  ref::gradientColumns<1>(up, mid, down, width, cross, 0, 1 < width ? 1 : width, out);
  if (x < width) ref::gradientColumns<1>(up, mid, down, width, cross, x, width, out);
}

void gradientRowC3(const Kvl8u* up, const Kvl8u* mid, const Kvl8u* down, int width, int cross,
                   Kvl8u* out) {
  const hn::ScalableTag<uint8_t> d;
  const int N = static_cast<int>(hn::Lanes(d));
  using V = hn::Vec<decltype(d)>;
  int x = 1;
  for (; x + N + 1 <= width; x += N) {
    V a[9][3];
    const Kvl8u* rows[3] = {up, mid, down};
    for (int j = 0; j < 3; ++j)
      for (int i = 0; i < 3; ++i)
        hn::LoadInterleaved3(d, rows[j] + (x - 1 + i) * 3, a[j * 3 + i][0], a[j * 3 + i][1],
                             a[j * 3 + i][2]);
    V g = hn::Zero(d);
    for (int c = 0; c < 3; ++c)
      g = hn::Max(g, spread(d, cross, a[0][c], a[1][c], a[2][c], a[3][c], a[4][c], a[5][c],
                            a[6][c], a[7][c], a[8][c]));
    hn::StoreU(g, d, out + x);
  }
  ref::gradientColumns<3>(up, mid, down, width, cross, 0, 1 < width ? 1 : width, out);
  if (x < width) ref::gradientColumns<3>(up, mid, down, width, cross, x, width, out);
}

#endif  // KVL_SIMD_TARGET
}  // namespace HWY_NAMESPACE
}  // namespace kvl::seg
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::seg {
const simd::Kernel<GradientRowFn> kGradientRowC1{KVL_TARGETS(gradientRowC1), &ref::gradientRowC1};
const simd::Kernel<GradientRowFn> kGradientRowC3{KVL_TARGETS(gradientRowC3), &ref::gradientRowC3};
}  // namespace kvl::seg
#endif  // HWY_ONCE
