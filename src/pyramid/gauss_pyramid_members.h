// The members of the Gaussian 5x5 pyramid family, one per line: the table that the entry points,
// the tests, the benchmark, the fuzz target and the command-line tool all expand. Public
// declarations only, so the tool (which links only the public library) can include it.
#pragma once

#include <type_traits>

#include "kvlcv.h"

// kvliPyr<Dir>_Gauss5x5_<type>_C<C>R: X(Dir, type, T, C)
//   Dir   Down: halves the source; Up: doubles it
//   T, C  element type and interleaved channels
// clang-format off
#define KVL_PYR_MEMBERS(X)      \
  X(Down, 8u,  Kvl8u,  1)       \
  X(Down, 8u,  Kvl8u,  3)       \
  X(Down, 8s,  Kvl8s,  1)       \
  X(Down, 8s,  Kvl8s,  3)       \
  X(Down, 32f, Kvl32f, 1)       \
  X(Down, 32f, Kvl32f, 3)       \
  X(Up,   8u,  Kvl8u,  1)       \
  X(Up,   8u,  Kvl8u,  3)       \
  X(Up,   8s,  Kvl8s,  1)       \
  X(Up,   8s,  Kvl8s,  3)       \
  X(Up,   32f, Kvl32f, 1)       \
  X(Up,   32f, Kvl32f, 3)
// clang-format on

namespace kvl::pyramid {

// A member called through one signature.
struct PyrMember {
  const char* name;  // "PyrDown_Gauss5x5_8u_C3R"
  bool up;
  int channels;
  int elemBytes;
  char kind;     // 'u', 's' or 'f'
  int dataType;  // the code its size query takes: kvl8u, kvl8s or kvl32f
  KvlStatus (*run)(const void* src, int srcStep, void* dst, int dstStep, KvliSize roi,
                   Kvl8u* buffer);
  // The direction's size query (kvliPyr<Dir>GetBufSize_Gauss5x5).
  KvlStatus (*bufSize)(int width, int dataType, int channels, int* bytes);

  // The destination size of a source of size `s`.
  KvliSize dstSize(KvliSize s) const {
    return up ? KvliSize{2 * s.width, 2 * s.height}
              : KvliSize{(s.width + 1) >> 1, (s.height + 1) >> 1};
  }
};

template <class T>
constexpr char kindOf() {
  return std::is_floating_point_v<T> ? 'f' : std::is_signed_v<T> ? 's' : 'u';
}
template <class T>
constexpr int dataTypeOf() {
  return std::is_floating_point_v<T> ? kvl32f : std::is_signed_v<T> ? kvl8s : kvl8u;
}

}  // namespace kvl::pyramid

#define KVL_PYR_UP_Down false
#define KVL_PYR_UP_Up true

// A PyrMember record calling kvliPyr<Dir>_Gauss5x5_<type>_C<C>R and its size query.
#define KVL_PYR_MEMBER_RECORD(Dir, type, T, C)                                                \
  ::kvl::pyramid::PyrMember{                                                                  \
      "Pyr" #Dir "_Gauss5x5_" #type "_C" #C "R",                                              \
      KVL_PYR_UP_##Dir,                                                                       \
      C,                                                                                      \
      static_cast<int>(sizeof(T)),                                                            \
      ::kvl::pyramid::kindOf<T>(),                                                            \
      ::kvl::pyramid::dataTypeOf<T>(),                                                        \
      [](const void* s, int ss, void* d, int ds, KvliSize roi, Kvl8u* buffer) {               \
        return kvliPyr##Dir##_Gauss5x5_##type##_C##C##R(static_cast<const T*>(s), ss,         \
                                                        static_cast<T*>(d), ds, roi, buffer); \
      },                                                                                      \
      [](int width, int dataType, int channels, int* bytes) {                                 \
        return kvliPyr##Dir##GetBufSize_Gauss5x5(width, dataType, channels, bytes);           \
      }},
