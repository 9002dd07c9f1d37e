// The members of fast marching, one per line: the table that the entry points, the tests, the
// benchmark, the fuzz target and the command-line tool expand. Public declarations only, so that
// code linking only the public library can include it.
#pragma once

#include "kvlcv.h"
#include "seg/dist_exact_members.h"

// X(types): kvliFastMarching_<types>_C1R and its buffer-size query.
// clang-format off
#define KVL_FAST_MARCHING_MEMBERS(X) \
  X(8u32f)
// clang-format on

// A kvl::seg::DistanceFieldMember record of a fast-marching member (the radius is passed on).
#define KVL_FAST_MARCHING_RECORD(types)                                                     \
  ::kvl::seg::DistanceFieldMember{                                                          \
      "FastMarching_" #types "_C1R",                                                        \
      [](KvliSize r, int* b) { return kvliFastMarchingGetBufferSize_##types##_C1R(r, b); }, \
      [](const Kvl8u* s, int ss, Kvl32f* d, int ds, KvliSize r, Kvl32f radius, Kvl8u* b) {  \
        return kvliFastMarching_##types##_C1R(s, ss, d, ds, r, radius, b);                  \
      }},
