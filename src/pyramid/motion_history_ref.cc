// Scalar reference kernel of the motion history update.
#include "core/pixel.h"
#include "pyramid/motion_history.h"

namespace kvl::pyramid::ref {

template <class Sil>
void mhiRow(const Sil* sil, Kvl32f* mhi, int n, float timestamp, float limit) {
  for (int x = 0; x < n; ++x)
    storeAny(mhi + x, mhiUpdate(loadAny(sil + x), loadAny(mhi + x), timestamp, limit));
}

#define KVL_INSTANTIATE(suffix, Sil) \
  template void mhiRow<Sil>(const Sil*, Kvl32f*, int, float, float);
KVL_MHI_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::pyramid::ref
