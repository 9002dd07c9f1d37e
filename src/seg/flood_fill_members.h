// The members of the flood fills, one per line: the table that the entry points, the tests, the
// benchmark, the fuzz target and the command-line tool all expand. Public declarations only, so
// the tool (which links only the public library) can include it.
#pragma once

#include <type_traits>

#include "kvlcv.h"

// kvliFloodFill_<variant>_<types>_C<ch>IR: X(variant, rule, conn, types, T, ch, stepCh)
//   rule    Exact (equal to the seed), Range (fixed interval around the seed) or Grad (interval
//           around the admitted neighbour)
//   conn    4 or 8
//   stepCh  the channels the step bound counts (the 8u and 32f three-channel forms keep the
//           one-channel bound)
// clang-format off
#define KVL_FLOOD_FILL_MEMBERS(X)                      \
  X(4Con,      Exact, 4, 8u,  Kvl8u,  1, 1)            \
  X(4Con,      Exact, 4, 16u, Kvl16u, 1, 1)            \
  X(4Con,      Exact, 4, 32s, Kvl32s, 1, 1)            \
  X(4Con,      Exact, 4, 32f, Kvl32f, 1, 1)            \
  X(4Con,      Exact, 4, 8u,  Kvl8u,  3, 1)            \
  X(4Con,      Exact, 4, 16u, Kvl16u, 3, 3)            \
  X(4Con,      Exact, 4, 32f, Kvl32f, 3, 1)            \
  X(8Con,      Exact, 8, 8u,  Kvl8u,  1, 1)            \
  X(8Con,      Exact, 8, 16u, Kvl16u, 1, 1)            \
  X(8Con,      Exact, 8, 32s, Kvl32s, 1, 1)            \
  X(8Con,      Exact, 8, 32f, Kvl32f, 1, 1)            \
  X(8Con,      Exact, 8, 8u,  Kvl8u,  3, 1)            \
  X(8Con,      Exact, 8, 16u, Kvl16u, 3, 3)            \
  X(8Con,      Exact, 8, 32f, Kvl32f, 3, 1)            \
  X(Range4Con, Range, 4, 8u,  Kvl8u,  1, 1)            \
  X(Range4Con, Range, 4, 16u, Kvl16u, 1, 1)            \
  X(Range4Con, Range, 4, 32f, Kvl32f, 1, 1)            \
  X(Range4Con, Range, 4, 8u,  Kvl8u,  3, 1)            \
  X(Range4Con, Range, 4, 16u, Kvl16u, 3, 3)            \
  X(Range4Con, Range, 4, 32f, Kvl32f, 3, 1)            \
  X(Range8Con, Range, 8, 8u,  Kvl8u,  1, 1)            \
  X(Range8Con, Range, 8, 16u, Kvl16u, 1, 1)            \
  X(Range8Con, Range, 8, 32f, Kvl32f, 1, 1)            \
  X(Range8Con, Range, 8, 8u,  Kvl8u,  3, 1)            \
  X(Range8Con, Range, 8, 16u, Kvl16u, 3, 3)            \
  X(Range8Con, Range, 8, 32f, Kvl32f, 3, 1)            \
  X(Grad4Con,  Grad,  4, 8u,  Kvl8u,  1, 1)            \
  X(Grad4Con,  Grad,  4, 16u, Kvl16u, 1, 1)            \
  X(Grad4Con,  Grad,  4, 32f, Kvl32f, 1, 1)            \
  X(Grad4Con,  Grad,  4, 8u,  Kvl8u,  3, 1)            \
  X(Grad4Con,  Grad,  4, 16u, Kvl16u, 3, 3)            \
  X(Grad4Con,  Grad,  4, 32f, Kvl32f, 3, 1)            \
  X(Grad8Con,  Grad,  8, 8u,  Kvl8u,  1, 1)            \
  X(Grad8Con,  Grad,  8, 16u, Kvl16u, 1, 1)            \
  X(Grad8Con,  Grad,  8, 32f, Kvl32f, 1, 1)            \
  X(Grad8Con,  Grad,  8, 8u,  Kvl8u,  3, 1)            \
  X(Grad8Con,  Grad,  8, 16u, Kvl16u, 3, 3)            \
  X(Grad8Con,  Grad,  8, 32f, Kvl32f, 3, 1)
// clang-format on

namespace kvl::seg {

enum FillRule : int { kFillExact = 0, kFillRange = 1, kFillGrad = 2 };

// A flood-fill member called through one signature. Values come as doubles and are converted
// to the member's element type (the caller keeps them within its range); a null array is passed
// on as null to three-channel members and reads as zeros for one-channel members. Exact members
// ignore minDelta and maxDelta.
struct FloodFillMember {
  const char* name;  // "FloodFill_Range8Con_16u_C3IR"
  int rule;          // FillRule
  int conn;          // 4 or 8
  char kind;         // 'u', 's' or 'f'
  int bytes;         // element size
  int channels;      // 1 or 3
  int stepChannels;  // the channels of the step bound
  KvlStatus (*run)(void* image, int step, KvliSize roi, KvliPoint seed, const double* newVal,
                   const double* minDelta, const double* maxDelta, KvliConnectedComp* region,
                   Kvl8u* buffer);
  KvlStatus (*getSize)(KvliSize roi, int* size);
};

namespace detail {

template <class T, int kC>
struct Values {
  T v[3] = {};
  const T* p = nullptr;
  explicit Values(const double* d) {
    if (d == nullptr) return;
    for (int c = 0; c < kC; ++c) v[c] = static_cast<T>(d[c]);
    p = v;
  }
};

template <int kRule, class T, int kC, auto kFn>
KvlStatus callFill(void* image, int step, KvliSize roi, KvliPoint seed, const double* newVal,
                   const double* minDelta, const double* maxDelta, KvliConnectedComp* region,
                   Kvl8u* buffer) {
  T* img = static_cast<T*>(image);
  const Values<T, kC> nv(newVal), lo(minDelta), hi(maxDelta);
  if constexpr (kRule == kFillExact && kC == 1) {
    return kFn(img, step, roi, seed, nv.v[0], region, buffer);
  } else if constexpr (kRule == kFillExact) {
    return kFn(img, step, roi, seed, nv.p, region, buffer);
  } else if constexpr (kC == 1) {
    return kFn(img, step, roi, seed, nv.v[0], lo.v[0], hi.v[0], region, buffer);
  } else {
    return kFn(img, step, roi, seed, nv.p, lo.p, hi.p, region, buffer);
  }
}

}  // namespace detail
}  // namespace kvl::seg

#define KVL_FLOOD_FILL_RULE_Exact ::kvl::seg::kFillExact
#define KVL_FLOOD_FILL_RULE_Range ::kvl::seg::kFillRange
#define KVL_FLOOD_FILL_RULE_Grad ::kvl::seg::kFillGrad
#define KVL_FLOOD_FILL_SIZE_Exact kvliFloodFillGetSize
#define KVL_FLOOD_FILL_SIZE_Range kvliFloodFillGetSize
#define KVL_FLOOD_FILL_SIZE_Grad kvliFloodFillGetSize_Grad

// A FloodFillMember record calling kvliFloodFill_<variant>_<types>_C<ch>IR.
#define KVL_FLOOD_FILL_MEMBER_RECORD(variant, rule, conn, types, T, ch, stepCh)              \
  ::kvl::seg::FloodFillMember{                                                              \
      "FloodFill_" #variant "_" #types "_C" #ch "IR",                                      \
      KVL_FLOOD_FILL_RULE_##rule,                                                           \
      conn,                                                                                 \
      std::is_floating_point_v<T> ? 'f' : (std::is_signed_v<T> ? 's' : 'u'),               \
      static_cast<int>(sizeof(T)),                                                          \
      ch,                                                                                   \
      stepCh,                                                                               \
      &::kvl::seg::detail::callFill<KVL_FLOOD_FILL_RULE_##rule, T, ch,                      \
                                    &kvliFloodFill_##variant##_##types##_C##ch##IR>,        \
      &KVL_FLOOD_FILL_SIZE_##rule},
