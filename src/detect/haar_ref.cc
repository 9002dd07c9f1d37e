// Scalar reference of the Haar classifier apply: the per-pixel rule, row by row, pixel by pixel.
#include "core/pixel.h"
#include "detect/haar.h"

namespace kvl::detect::ref {

template <HaarArith A, bool kMixed>
int haarApply(const HaarJob<A>& j) {
  int positive = 0;
  for (int r = 0; r < j.roi.height; ++r) {
    const auto* up = j.src + r * j.srcStride;
    const auto* tl = kMixed ? j.tilt + r * j.tiltStride : nullptr;
    const auto* norm = rowPtr(j.norm, j.normStep, r);
    Kvl8u* mask = rowPtr(j.mask, j.maskStep, r);
    for (int c = 0; c < j.roi.width; ++c) {
      if (mask[c] == 0) continue;
      if (haarStays<A, kMixed>(j, up + c, kMixed ? tl + c : nullptr, loadAny(norm + c))) {
        ++positive;
      } else {
        mask[c] = 0;
      }
    }
  }
  return positive;
}

#define KVL_INSTANTIATE(Op, suffix, arith, layout, Table, Value, types, sfs) \
  template int haarApply<HaarArith::arith, KVL_HAAR_MIXED_##layout>(         \
      const HaarJob<HaarArith::arith>&);
KVL_HAAR_APPLY_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::detect::ref
