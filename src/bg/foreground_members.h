// The foreground models' member table and one record per member, for the tests, the fuzz
// target, the benchmark and the tool (public names only: no library internals).
#pragma once

#include "kvlcv.h"

// Members: X(layout suffix, channels). Every row has InitAlloc, classification and Free of both
// models and the histogram model's Update.
// clang-format off
#define KVL_FG_MEMBERS(X) \
  X(C1R, 1)               \
  X(C3R, 3)
// clang-format on

namespace kvl::bg {

struct ForegroundMember {
  const char* suffix;
  int channels;
  KvlStatus (*gaussInit)(const Kvl8u*, int, KvliSize, const void*, KvliFGGaussianState**);
  KvlStatus (*gauss)(const Kvl8u*, int, Kvl8u*, int, Kvl8u*, int, KvliSize, KvliFGGaussianState*);
  KvlStatus (*gaussFree)(KvliFGGaussianState*);
  KvlStatus (*histInit)(const Kvl8u*, int, KvliSize, const void*, KvliFGHistogramState**);
  KvlStatus (*hist)(const Kvl8u*, int, Kvl8u*, int, Kvl8u*, int, KvliSize, KvliFGHistogramState*);
  KvlStatus (*histUpdate)(const Kvl8u*, int, const Kvl8u*, int, const Kvl8u*, int, KvliSize,
                          KvliFGHistogramState*);
  KvlStatus (*histFree)(KvliFGHistogramState*);
};

#define KVL_FG_MEMBER_RECORD(suffix, C)                                                          \
  kvl::bg::ForegroundMember{#suffix,                                                             \
                            C,                                                                   \
                            &kvliForegroundGaussianInitAlloc_8u_##suffix,                        \
                            &kvliForegroundGaussian_8u_##suffix,                                 \
                            &kvliForegroundGaussianFree_8u_##suffix,                             \
                            &kvliForegroundHistogramInitAlloc_8u_##suffix,                       \
                            &kvliForegroundHistogram_8u_##suffix,                                \
                            &kvliForegroundHistogramUpdate_8u_##suffix,                          \
                            &kvliForegroundHistogramFree_8u_##suffix},

}  // namespace kvl::bg
