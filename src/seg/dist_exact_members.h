// The members of the exact Euclidean distance transform, one per line: the table that the entry
// points, the tests, the benchmark, the fuzz target and the command-line tool expand. Public
// declarations only, so that code linking only the public library can include it.
#pragma once

#include "kvlcv.h"

// X(types): kvliTrueDistanceTransform_<types>_C1R and its buffer-size query.
// clang-format off
#define KVL_DIST_EXACT_MEMBERS(X) \
  X(8u32f)
// clang-format on

namespace kvl::seg {

// A distance-field member called through one signature: an 8u feature image (zero = feature) in,
// a 32f field out, a work buffer sized by getBufferSize. `radius` is the fast-marching bound; the
// exact transform ignores it.
struct DistanceFieldMember {
  const char* name;  // "TrueDistanceTransform_8u32f_C1R"
  KvlStatus (*getBufferSize)(KvliSize roi, int* bytes);
  KvlStatus (*run)(const Kvl8u* src, int srcStep, Kvl32f* dst, int dstStep, KvliSize roi,
                   Kvl32f radius, Kvl8u* buffer);
};

}  // namespace kvl::seg

#define KVL_DIST_EXACT_RECORD(types)                                                \
  ::kvl::seg::DistanceFieldMember{                                                  \
      "TrueDistanceTransform_" #types "_C1R",                                       \
      [](KvliSize r, int* b) {                                                      \
        return kvliTrueDistanceTransformGetBufferSize_##types##_C1R(r, b);          \
      },                                                                            \
      [](const Kvl8u* s, int ss, Kvl32f* d, int ds, KvliSize r, Kvl32f, Kvl8u* b) { \
        return kvliTrueDistanceTransform_##types##_C1R(s, ss, d, ds, r, b);         \
      }},
