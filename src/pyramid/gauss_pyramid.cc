// Gaussian 5x5 pyramids: the size queries and the validation and kernel call of every member,
// always on the calling thread.
#include "pyramid/gauss_pyramid.h"

#include <climits>

#include "core/check.h"
#include "impl_decls.h"

namespace kvl::pyramid {
namespace {

using check::Step;

KvlStatus bufSize(int roiWidth, int dataType, int channels, int* pBufSize, bool up) {
  KVL_TRY(check::nonNull(pBufSize));
  if (roiWidth < 1) return kvlStatusBadSize;
  if (channels != 1 && channels != 3) return kvlStatusBadChannels;
  if (dataType != kvl8u && dataType != kvl8s && dataType != kvl32f) return kvlStatusBadDataType;
  const long long bytes =
      up ? upBufferBytes(roiWidth, channels) : downBufferBytes(roiWidth, channels);
  if (bytes > INT_MAX) return kvlStatusBadSize;
  *pBufSize = static_cast<int>(bytes);
  return kvlStatusOk;
}

template <class T, int kC, bool kUp>
KvlStatus pyramidStep(const T* src, int srcStep, T* dst, int dstStep, KvliSize roi, Kvl8u* buffer) {
  KVL_TRY(check::nonNull(src, dst, buffer));
  KVL_TRY(check::roi(roi));
  // A width whose work buffer the size query refuses is refused here too.
  const long long bytes = kUp ? upBufferBytes(roi.width, kC) : downBufferBytes(roi.width, kC);
  if (bytes > INT_MAX) return kvlStatusBadSize;
  const long long dstWidth = kUp ? 2LL * roi.width : (roi.width + 1LL) >> 1;
  KVL_TRY(check::stepsCover(roi.width, Step<T, kC>{srcStep}));
  KVL_TRY(check::stepsCover(dstWidth, Step<T, kC>{dstStep}));
  KVL_TRY(check::stepMultiples(Step<T, kC>{srcStep}, Step<T, kC>{dstStep}));
  PyrKernel<T, kC, kUp>::kernel.pick()(src, srcStep, dst, dstStep, roi.width, roi.height, buffer);
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::pyramid

extern "C" KvlStatus impl_kvliPyrDownGetBufSize_Gauss5x5(int roiWidth, KvlDataType dataType,
                                                         int channels, int* pBufSize) {
  return kvl::pyramid::bufSize(roiWidth, dataType, channels, pBufSize, false);
}

extern "C" KvlStatus impl_kvliPyrUpGetBufSize_Gauss5x5(int roiWidth, KvlDataType dataType,
                                                       int channels, int* pBufSize) {
  return kvl::pyramid::bufSize(roiWidth, dataType, channels, pBufSize, true);
}

#define KVL_PYR(Dir, type, T, C)                                                            \
  extern "C" KvlStatus impl_kvliPyr##Dir##_Gauss5x5_##type##_C##C##R(                       \
      const T* pSrc, int srcStep, T* pDst, int dstStep, KvliSize roiSize, Kvl8u* pBuffer) { \
    return kvl::pyramid::pyramidStep<T, C, KVL_PYR_UP_##Dir>(pSrc, srcStep, pDst, dstStep,  \
                                                             roiSize, pBuffer);             \
  }
KVL_PYR_MEMBERS(KVL_PYR)
#undef KVL_PYR
