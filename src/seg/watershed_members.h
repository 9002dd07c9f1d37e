// The members of the marker watershed, one per line: the table that the entry points, the tests,
// the benchmark, the fuzz target and the command-line tool expand. Public declarations only, so
// that code linking only the public library can include it.
#pragma once

#include <cstdint>

#include "kvlcv.h"

// kvliSegmentWatershed_<types>_C1IR and its buffer-size query: X(types, Marker, boundary)
//   Marker    the marker (label) element
//   boundary  the label of watershed lines; region labels are 1 .. boundary - 1
// clang-format off
#define KVL_WATERSHED_MEMBERS(X) \
  X(8u,    Kvl8u,  255)          \
  X(8u16u, Kvl16u, 65535)
// clang-format on

namespace kvl::seg {

// The flag bits and norm codes of the watershed.
constexpr int kWatershedQueue = 1;      // priority-queue flooding
constexpr int kWatershedDistance = 2;   // distance method (when bit 1 is clear)
constexpr int kWatershedBounds4 = 64;   // mark boundaries between labels, 4-connected
constexpr int kWatershedBounds8 = 128;  // the same, 8-connected

// A watershed member called through one signature; the marker image is `markerBytes`-byte
// elements.
struct WatershedMember {
  const char* name;  // "SegmentWatershed_8u16u_C1IR"
  int markerBytes;   // 1 or 2
  uint32_t boundary;  // 255 or 65535
  KvlStatus (*getBufferSize)(KvliSize roi, int* bytes);
  KvlStatus (*run)(const Kvl8u* src, int srcStep, void* marker, int markerStep, KvliSize roi,
                   int norm, int flag, Kvl8u* buffer);
};

}  // namespace kvl::seg

#define KVL_WATERSHED_RECORD(types, Marker, boundary)                                           \
  ::kvl::seg::WatershedMember{                                                                  \
      "SegmentWatershed_" #types "_C1IR",                                                       \
      static_cast<int>(sizeof(Marker)),                                                         \
      boundary,                                                                                 \
      [](KvliSize r, int* b) { return kvliSegmentWatershedGetBufferSize_##types##_C1R(r, b); }, \
      [](const Kvl8u* s, int ss, void* m, int ms, KvliSize r, int norm, int flag, Kvl8u* b) {  \
        return kvliSegmentWatershed_##types##_C1IR(s, ss, static_cast<Marker*>(m), ms, r, norm, \
                                                   flag, b);                                    \
      }},
