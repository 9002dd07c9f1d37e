// Rectangle minimum and maximum filters: validation, the size queries and the kernel call of
// every member, on the calling thread.
#include <climits>

#include "core/check.h"
#include "core/pixel.h"
#include "impl_decls.h"
#include "morph/minmax_filter.h"

namespace kvl::morph {
namespace {

template <class T, int kC>
KvlStatus bufferSize(int roiWidth, KvliSize mask, int* pBufferSize) {
  KVL_TRY(check::nonNull(pBufferSize));
  KVL_TRY(check::positive(roiWidth, mask.width, mask.height));
  const long long bytes = minMaxBufferBytes(roiWidth, mask, static_cast<int>(sizeof(T)), kC);
  if (bytes > INT_MAX) return kvlStatusBadSize;
  *pBufferSize = static_cast<int>(bytes);
  return kvlStatusOk;
}

template <class T, int kC>
KvlStatus filter(bool isMax, const T* src, int srcStep, T* dst, int dstStep, KvliSize roi,
                 KvliSize mask, KvliPoint anchor, Kvl8u* buffer) {
  KVL_TRY(check::nonNull(src, dst, buffer));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::positive(mask.width, mask.height));
  KVL_TRY(check::stepsCover(roi.width, check::Step<T, kC>{srcStep}, check::Step<T, kC>{dstStep}));
  if (anchor.x < 0 || anchor.x >= mask.width || anchor.y < 0 || anchor.y >= mask.height)
    return kvlStatusBadAnchor;
  MinMaxKernel<T, kC>::kernel.pick()(src, srcStep, dst, dstStep, roi.width, roi.height,
                                     mask.width, mask.height, anchor.x, anchor.y, isMax, buffer);
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::morph

#define KVL_MINMAX(types, layout, T, ch)                                                       \
  extern "C" KvlStatus impl_kvliFilterMinGetBufferSize_##types##_##layout(                    \
      int roiWidth, KvliSize maskSize, int* pBufferSize) {                                     \
    return kvl::morph::bufferSize<T, ch>(roiWidth, maskSize, pBufferSize);                    \
  }                                                                                            \
  extern "C" KvlStatus impl_kvliFilterMaxGetBufferSize_##types##_##layout(                    \
      int roiWidth, KvliSize maskSize, int* pBufferSize) {                                     \
    return kvl::morph::bufferSize<T, ch>(roiWidth, maskSize, pBufferSize);                    \
  }                                                                                            \
  extern "C" KvlStatus impl_kvliFilterMinBorderReplicate_##types##_##layout(                  \
      const T* pSrc, int srcStep, T* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize,   \
      KvliPoint anchor, Kvl8u* pBuffer) {                                                      \
    return kvl::morph::filter<T, ch>(false, pSrc, srcStep, pDst, dstStep, roiSize, maskSize,  \
                                     anchor, pBuffer);                                         \
  }                                                                                            \
  extern "C" KvlStatus impl_kvliFilterMaxBorderReplicate_##types##_##layout(                  \
      const T* pSrc, int srcStep, T* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize,   \
      KvliPoint anchor, Kvl8u* pBuffer) {                                                      \
    return kvl::morph::filter<T, ch>(true, pSrc, srcStep, pDst, dstStep, roiSize, maskSize,   \
                                     anchor, pBuffer);                                         \
  }
KVL_MINMAX_MEMBERS(KVL_MINMAX)
#undef KVL_MINMAX
