// The members of the rectangle minimum and maximum filters, one per line: the table that the entry
// points, the tests, the benchmark and the fuzz target all expand. Public declarations only.
#pragma once

#include <type_traits>

#include "kvlcv.h"

// kvliFilter{Min,Max}BorderReplicate_<types>_<layout> and their size queries:
// X(types, layout, T, channels)
// clang-format off
#define KVL_MINMAX_MEMBERS(X)      \
  X(8u,  C1R, Kvl8u,  1)           \
  X(8u,  C3R, Kvl8u,  3)           \
  X(8u,  C4R, Kvl8u,  4)           \
  X(16u, C1R, Kvl16u, 1)           \
  X(16s, C1R, Kvl16s, 1)           \
  X(32f, C1R, Kvl32f, 1)           \
  X(32f, C3R, Kvl32f, 3)           \
  X(32f, C4R, Kvl32f, 4)
// clang-format on

namespace kvl::morph {

// A member called through one signature; `isMax` picks the maximum filter (else the minimum).
struct MinMaxMember {
  const char* name;  // "8u_C3R"
  char kind;         // 'u' unsigned, 's' signed, 'f' float
  int elemBytes;
  int channels;
  KvlStatus (*size)(bool isMax, int roiWidth, KvliSize mask, int* pBufferSize);
  KvlStatus (*run)(bool isMax, const void* src, int srcStep, void* dst, int dstStep, KvliSize roi,
                   KvliSize mask, KvliPoint anchor, Kvl8u* buffer);
};

template <class T>
constexpr char kindOf() {
  return std::is_floating_point_v<T> ? 'f' : (std::is_signed_v<T> ? 's' : 'u');
}

}  // namespace kvl::morph

// A MinMaxMember record calling the member's four functions.
#define KVL_MINMAX_MEMBER_RECORD(types, layout, T, ch)                                            \
  ::kvl::morph::MinMaxMember{                                                                     \
      #types "_" #layout,                                                                         \
      ::kvl::morph::kindOf<T>(),                                                                  \
      static_cast<int>(sizeof(T)),                                                                \
      ch,                                                                                         \
      [](bool isMax, int w, KvliSize m, int* p) {                                                 \
        return isMax ? kvliFilterMaxGetBufferSize_##types##_##layout(w, m, p)                     \
                     : kvliFilterMinGetBufferSize_##types##_##layout(w, m, p);                    \
      },                                                                                          \
      [](bool isMax, const void* s, int ss, void* d, int ds, KvliSize roi, KvliSize m,            \
         KvliPoint a, Kvl8u* b) {                                                                 \
        const T* src = static_cast<const T*>(s);                                                  \
        T* dst = static_cast<T*>(d);                                                              \
        return isMax ? kvliFilterMaxBorderReplicate_##types##_##layout(src, ss, dst, ds, roi, m, a, b) \
                     : kvliFilterMinBorderReplicate_##types##_##layout(src, ss, dst, ds, roi, m, a, b); \
      }},
