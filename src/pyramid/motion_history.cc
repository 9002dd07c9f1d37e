// Motion history update: validation and the row loop, always on the calling thread.
#include "pyramid/motion_history.h"

#include "core/check.h"
#include "core/pixel.h"
#include "impl_decls.h"

namespace kvl::pyramid {
namespace {

template <class Sil>
KvlStatus updateMotionHistory(const Sil* sil, int silStep, Kvl32f* mhi, int mhiStep, KvliSize roi,
                              Kvl32f timestamp, Kvl32f duration) {
  KVL_TRY(check::nonNull(sil, mhi));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, check::Step<Sil>{silStep}, check::Step<Kvl32f>{mhiStep}));
  if (duration < 0.0f) return kvlStatusOutOfRange;
  // The limit is rounded to float once; every pixel compares against the same value.
  const float limit = timestamp - duration;
  const MhiRowFn<Sil> fn = MhiKernel<Sil>::kernel.pick();
  for (int y = 0; y < roi.height; ++y)
    fn(rowPtr(sil, silStep, y), rowPtr(mhi, mhiStep, y), roi.width, timestamp, limit);
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::pyramid

#define KVL_MHI(suffix, Sil)                                                                     \
  extern "C" KvlStatus impl_kvliUpdateMotionHistory_##suffix##_C1IR(                             \
      const Sil* pSilhouette, int silhStep, Kvl32f* pMHI, int mhiStep, KvliSize roiSize,         \
      Kvl32f timestamp, Kvl32f mhiDuration) {                                                    \
    return kvl::pyramid::updateMotionHistory<Sil>(pSilhouette, silhStep, pMHI, mhiStep, roiSize, \
                                                  timestamp, mhiDuration);                       \
  }
KVL_MHI_MEMBERS(KVL_MHI)
#undef KVL_MHI
