// Prototypes of the integral-image entry points the detector calls, for builds
// whose kvlcv.h does not declare them yet; pending_lib.cc gives plain versions of them.
#pragma once

#include <kvlcv.h>

#ifdef __cplusplus
extern "C" {
#endif
KvlStatus kvliIntegral_8u32s_C1R(const Kvl8u* pSrc, int srcStep, Kvl32s* pDst, int dstStep, KvliSize roiSize, Kvl32s val);
KvlStatus kvliSqrIntegral_8u32f64f_C1R(const Kvl8u* pSrc, int srcStep, Kvl32f* pDst, int dstStep, Kvl64f* pSqr, int sqrStep, KvliSize roiSize, Kvl32f val, Kvl64f valSqr);
KvlStatus kvliRectStdDev_32f_C1R(const Kvl32f* pSrc, int srcStep, const Kvl64f* pSqr, int sqrStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliRect rect);
#ifdef __cplusplus
}
#endif
