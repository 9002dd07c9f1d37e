// Element traits, the conversion rules every family names (saturation, rounding, truncation) and
// element access at any address.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

#include "kvlcv.h"

namespace kvl {

// Smallest and largest value of an integer element type, as float (exact for 8/16-bit types).
template <class T>
constexpr float kMinF = static_cast<float>(std::numeric_limits<T>::lowest());
template <class T>
constexpr float kMaxF = static_cast<float>(std::numeric_limits<T>::max());

// Clamps a float into T's range (single precision, as the filters clamp).
template <class T>
inline float clampToRange(float v) {
  if constexpr (std::is_floating_point_v<T>) {
    return v;
  } else {
    return v < kMinF<T> ? kMinF<T> : (v > kMaxF<T> ? kMaxF<T> : v);
  }
}

// Clamps an int into T's range.
template <class T>
inline T saturate(int v) {
  constexpr int lo = std::numeric_limits<T>::lowest();
  constexpr int hi = std::numeric_limits<T>::max();
  return static_cast<T>(v < lo ? lo : (v > hi ? hi : v));
}

// Float to int, ties to even (the default rounding of the vector conversions). NaN gives 0.
inline int roundTiesEven(float v) {
  if (!(v == v)) return 0;
  return static_cast<int>(std::nearbyint(v));
}

// Float to int, toward zero. The value must already lie within int range.
inline int truncToward0(float v) { return static_cast<int>(v); }

// Double to int, adding one half and truncating toward zero.
inline int roundHalfUp(double v) { return static_cast<int>(v + 0.5); }

// One element at any address. Callers' images need not be aligned to their element size (steps
// and pointers are byte counts), so scalar code reads and writes their 16- and 32-bit elements
// through these; the copies compile to the same single move as a typed access. Memory the
// library lays out itself (aligned work rings, local arrays) is accessed directly.
template <class T>
inline T loadAny(const T* p) {
  T v;
  std::memcpy(&v, p, sizeof(T));
  return v;
}
template <class T>
inline void storeAny(T* p, T v) {
  std::memcpy(p, &v, sizeof(T));
}

// Byte addressing of rows: every image argument carries its step in bytes.
template <class T>
inline T* rowPtr(T* base, int step, int y) {
  return reinterpret_cast<T*>(reinterpret_cast<std::conditional_t<std::is_const_v<T>, const char, char>*>(base) +
                              static_cast<std::ptrdiff_t>(step) * y);
}

// v rounded up to a multiple of a; and the first address at or after p that is a multiple of a
// bytes (a power of two). Work memory is laid out with these.
constexpr long long roundUp(long long v, long long a) { return (v + a - 1) / a * a; }
template <class T>
inline T* alignUp(T* p, size_t a) {
  return reinterpret_cast<T*>((reinterpret_cast<uintptr_t>(p) + a - 1) & ~static_cast<uintptr_t>(a - 1));
}

// Elements before p reaches a multiple of `vectorBytes` (at most n): the vector loops run a scalar
// head first, because stores that split cache lines cost more than a few scalar elements. Zero
// when p is not even element-aligned.
template <class T>
inline int alignedHead(const T* p, int vectorBytes, int n) {
  const uintptr_t mis = reinterpret_cast<uintptr_t>(p) % static_cast<uintptr_t>(vectorBytes);
  if (mis == 0 || mis % sizeof(T) != 0) return 0;
  const int head = static_cast<int>((static_cast<uintptr_t>(vectorBytes) - mis) / sizeof(T));
  return head < n ? head : n;
}

}  // namespace kvl
