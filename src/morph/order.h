// The order every morphology path compares elements in, shared by the rectangle filters, the run
// engine and the reference.
#pragma once

#include <bit>
#include <cstdint>

#include "kvlcv.h"

namespace kvl::morph {

// The key an element is compared by. Integers compare as themselves. A float compares by its
// bits mapped to a signed integer that orders all of them: negative values have their magnitude
// bits inverted, so -0.0 sorts just below +0.0 and every float has exactly one place. The minimum
// of {-0.0, +0.0} is therefore -0.0 and the maximum +0.0 whatever the order of the elements, and
// every target, whatever order it combines elements in, gives the same bits. (NaNs sort beyond
// the infinities by their bits; the results they give are not part of the contract.) The map is
// its own inverse.
template <class T>
struct Order {
  using Key = T;
  static Key key(T v) { return v; }
  static T value(Key k) { return k; }
};
template <>
struct Order<Kvl32f> {
  using Key = int32_t;
  static Key flip(Key i) { return i ^ static_cast<Key>(static_cast<uint32_t>(i >> 31) >> 1); }
  static Key key(Kvl32f v) { return flip(std::bit_cast<Key>(v)); }
  static Kvl32f value(Key k) { return std::bit_cast<Kvl32f>(flip(k)); }
};
template <class T>
using KeyOf = typename Order<T>::Key;

// The lesser (kMax: greater) of two keys.
template <bool kMax, class K>
inline K better(K a, K b) {
  if constexpr (kMax) {
    return a < b ? b : a;
  } else {
    return b < a ? b : a;
  }
}

}  // namespace kvl::morph
