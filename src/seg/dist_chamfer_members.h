// The members of the chamfer distance transforms, one per line: the table that the entry points,
// the tests, the benchmarks, the fuzz target and the command-line tool all expand. Public
// declarations only, so the tool (which links only the public library) can include it.
#pragma once

#include <type_traits>

#include "kvlcv.h"

// kvliDistanceTransform_<mask>_<types>_<layout>: X(mask, taps, types, layout, Out, Metric, kernel)
//   taps    the mask's side, 3 or 5
//   Out     destination element (in place: the source image itself)
//   Metric  weight element, Kvl32s or Kvl32f
//   kernel  Own: the row names the kernel for (Out, taps); Shared: it uses the one a row above
//           names (the in-place form computes exactly what the copying form does)
// clang-format off
#define KVL_CHAMFER_MEMBERS(X)                                       \
  X(3x3, 3, 8u,    C1R,  Kvl8u,  Kvl32s, Own)                        \
  X(3x3, 3, 8u,    C1IR, Kvl8u,  Kvl32s, Shared)                     \
  X(3x3, 3, 8u16u, C1R,  Kvl16u, Kvl32s, Own)                        \
  X(3x3, 3, 8u32f, C1R,  Kvl32f, Kvl32f, Own)                        \
  X(5x5, 5, 8u,    C1R,  Kvl8u,  Kvl32s, Own)                        \
  X(5x5, 5, 8u,    C1IR, Kvl8u,  Kvl32s, Shared)                     \
  X(5x5, 5, 8u16u, C1R,  Kvl16u, Kvl32s, Own)                        \
  X(5x5, 5, 8u32f, C1R,  Kvl32f, Kvl32f, Own)
// clang-format on

namespace kvl::seg {

// A chamfer member called through one signature. In-place members ignore src and transform dst
// (the caller copies the source there first). metrics points at 2 (taps 3) or 3 (taps 5)
// weights of the member's type: Kvl32s, or Kvl32f when realMetric.
struct ChamferMember {
  const char* name;  // "DistanceTransform_3x3_8u16u_C1R"
  int taps;
  bool inPlace;
  int outBytes;      // 1, 2 or 4
  bool realMetric;   // Kvl32f weights (and output)
  KvlStatus (*run)(const Kvl8u* src, int srcStep, void* dst, int dstStep, KvliSize roi,
                   void* metrics);
};

}  // namespace kvl::seg

#define KVL_CHAMFER_INPLACE_C1R false
#define KVL_CHAMFER_INPLACE_C1IR true
#define KVL_CHAMFER_CALL_C1R(fn, Out, Metric) \
  fn(src, srcStep, static_cast<Out*>(dst), dstStep, roi, static_cast<Metric*>(metrics))
#define KVL_CHAMFER_CALL_C1IR(fn, Out, Metric) \
  fn(static_cast<Out*>(dst), dstStep, roi, static_cast<Metric*>(metrics))

// A ChamferMember record calling kvliDistanceTransform_<mask>_<types>_<layout>.
#define KVL_CHAMFER_MEMBER_RECORD(mask, taps, types, layout, Out, Metric, kernel)              \
  ::kvl::seg::ChamferMember{                                                                   \
      "DistanceTransform_" #mask "_" #types "_" #layout,                                       \
      taps,                                                                                    \
      KVL_CHAMFER_INPLACE_##layout,                                                            \
      static_cast<int>(sizeof(Out)),                                                           \
      std::is_floating_point_v<Metric>,                                                        \
      [](const Kvl8u* src, int srcStep, void* dst, int dstStep, KvliSize roi, void* metrics) { \
        (void)src;                                                                             \
        (void)srcStep;                                                                         \
        return KVL_CHAMFER_CALL_##layout(kvliDistanceTransform_##mask##_##types##_##layout,    \
                                         Out, Metric);                                         \
      }},
