// Prototypes of the integral-image and classifier entry points the detector calls, for builds
// whose kvlcv.h does not declare them yet; pending_lib.cc gives plain versions of them.
#pragma once

#include <kvlcv.h>

#ifdef __cplusplus
extern "C" {
#endif
typedef struct KvliHaarClassifier_32f KvliHaarClassifier_32f;
KvlStatus kvliIntegral_8u32s_C1R(const Kvl8u* pSrc, int srcStep, Kvl32s* pDst, int dstStep, KvliSize roiSize, Kvl32s val);
KvlStatus kvliSqrIntegral_8u32f64f_C1R(const Kvl8u* pSrc, int srcStep, Kvl32f* pDst, int dstStep, Kvl64f* pSqr, int sqrStep, KvliSize roiSize, Kvl32f val, Kvl64f valSqr);
KvlStatus kvliRectStdDev_32f_C1R(const Kvl32f* pSrc, int srcStep, const Kvl64f* pSqr, int sqrStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliRect rect);
KvlStatus kvliHaarClassifierInitAlloc_32f(KvliHaarClassifier_32f** ppState, const KvliRect* pFeature, const Kvl32f* pWeight, const Kvl32f* pThreshold, const Kvl32f* pVal1, const Kvl32f* pVal2, const int* pNum, int length);
KvlStatus kvliHaarClassifierFree_32f(KvliHaarClassifier_32f* pState);
KvlStatus kvliApplyHaarClassifier_32s32f_C1R(const Kvl32s* pSrc, int srcStep, const Kvl32f* pNorm, int normStep, Kvl8u* pMask, int maskStep, KvliSize roiSize, int* pPositive, Kvl32f threshold, KvliHaarClassifier_32f* pState);
#ifdef __cplusplus
}
#endif
