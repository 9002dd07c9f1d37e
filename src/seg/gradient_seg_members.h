// The members of gradient segmentation, one per line: the table that the entry points, the tests,
// the benchmark, the fuzz target and the command-line tool expand. Public declarations only, so
// that code linking only the public library can include it.
#pragma once

#include "kvlcv.h"

// X(layout, channels): kvliSegmentGradient_8u_<layout>IR and kvliSegmentGradientGetBufferSize_8u_
// <layout>R.
// clang-format off
#define KVL_GRADIENT_SEG_MEMBERS(X) \
  X(C1, 1)                          \
  X(C3, 3)
// clang-format on

namespace kvl::seg {

// A gradient-segmentation member called through one signature.
struct GradientSegMember {
  const char* name;  // "SegmentGradient_8u_C1IR"
  int channels;
  KvlStatus (*getBufferSize)(KvliSize roi, int* bytes);
  KvlStatus (*run)(const Kvl8u* src, int srcStep, Kvl8u* marker, int markerStep, KvliSize roi,
                   int norm, int flag, Kvl8u* buffer);
};

}  // namespace kvl::seg

#define KVL_GRADIENT_SEG_RECORD(layout, channels)                                           \
  ::kvl::seg::GradientSegMember{                                                            \
      "SegmentGradient_8u_" #layout "IR", channels,                                         \
      [](KvliSize r, int* b) { return kvliSegmentGradientGetBufferSize_8u_##layout##R(r, b); }, \
      [](const Kvl8u* s, int ss, Kvl8u* m, int ms, KvliSize r, int n, int f, Kvl8u* b) {    \
        return kvliSegmentGradient_8u_##layout##IR(s, ss, m, ms, r, n, f, b);               \
      }},
