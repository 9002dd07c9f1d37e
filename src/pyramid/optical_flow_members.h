// The members of the sub-pixel copies and the pyramidal Lucas-Kanade tracker, one per line: the
// table that the entry points, the tests, the benchmark, the fuzz target and the command-line
// tool all expand. Public declarations only, so the tool (which links only the public library)
// can include it.
#pragma once

#include "kvlcv.h"

// X(Src, copy, flow, code):
//   Src   the source element type of the copies and the pyramids' level images
//   copy  kvliCopySubpix_<copy>_C1R, kvliCopySubpixIntersect_<copy>_C1R
//   flow  kvliOpticalFlowPyrLK{InitAlloc,,Free}_<flow>_C1R
//   code  the data-type code the state records (kvl8u, kvl16u, kvl32f)
// clang-format off
#define KVL_OPTFLOW_MEMBERS(X)             \
  X(Kvl8u,  8u32f,  8u,  1)                \
  X(Kvl16u, 16u32f, 16u, 5)                \
  X(Kvl32f, 32f,    32f, 13)
// clang-format on

namespace kvl::pyramid {

// A member called through one signature (sources as void).
struct FlowMember {
  const char* name;  // "8u"
  int elemBytes;
  bool real;
  int dataType;
  KvlStatus (*copy)(const void* src, int srcStep, Kvl32f* dst, int dstStep, KvliSize roi,
                    Kvl32f dx, Kvl32f dy);
  KvlStatus (*intersect)(const void* src, int srcStep, KvliSize srcRoi, Kvl32f* dst, int dstStep,
                         KvliSize dstRoi, KvliPoint32f point, KvliRect* rect);
  KvlStatus (*initAlloc)(KvliOptFlowPyrLKState** pp, KvliSize roi, int winSize, int hint);
  KvlStatus (*track)(const KvliPyramid* p1, const KvliPyramid* p2, const KvliPoint32f* prev,
                     KvliPoint32f* next, Kvl8s* status, Kvl32f* error, int numFeat, int winSize,
                     int maxLev, int maxIter, Kvl32f threshold, KvliOptFlowPyrLKState* state);
  KvlStatus (*release)(KvliOptFlowPyrLKState* state);
};

}  // namespace kvl::pyramid

#define KVL_OPTFLOW_MEMBER_RECORD(Src, copySfx, flowSfx, code)                                   \
  ::kvl::pyramid::FlowMember{                                                                   \
      #flowSfx, static_cast<int>(sizeof(Src)), static_cast<Src>(0.5) != 0, code,                 \
      [](const void* s, int ss, Kvl32f* d, int ds, KvliSize r, Kvl32f dx, Kvl32f dy) {           \
        return kvliCopySubpix_##copySfx##_C1R(static_cast<const Src*>(s), ss, d, ds, r, dx, dy); \
      },                                                                                        \
      [](const void* s, int ss, KvliSize sr, Kvl32f* d, int ds, KvliSize dr, KvliPoint32f p,     \
         KvliRect* rect) {                                                                      \
        return kvliCopySubpixIntersect_##copySfx##_C1R(static_cast<const Src*>(s), ss, sr, d, ds, \
                                                       dr, p, rect);                           \
      },                                                                                        \
      &kvliOpticalFlowPyrLKInitAlloc_##flowSfx##_C1R, &kvliOpticalFlowPyrLK_##flowSfx##_C1R,     \
      &kvliOpticalFlowPyrLKFree_##flowSfx##_C1R},
