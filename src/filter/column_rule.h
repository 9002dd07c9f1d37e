// The column pass's conversion of integer sums: the bulk of each row is converted in groups of
// kColumnGroup elements, rounding to nearest with ties to even; the last (elements % kColumnGroup)
// elements of a row (elements = width x channels) are converted one at a time, truncating toward
// zero. Every path (scalar reference, every vector target) applies the same split, so the split is
// a constant of the family and never the vector length.
#pragma once

#include "core/pixel.h"

namespace kvl::filter {

constexpr int kColumnGroup = 8;

// Elements [0, columnBodyEnd(n)) are converted in groups; the rest are the tail.
constexpr int columnBodyEnd(int elements) { return elements - elements % kColumnGroup; }

// sum x (1 / divisor) in single precision, clamped to Dst's range, then rounded (group) or
// truncated (tail).
template <class Dst>
inline Dst columnConvertGroup(int sum, float recip) {
  return static_cast<Dst>(roundTiesEven(clampToRange<Dst>(static_cast<float>(sum) * recip)));
}
template <class Dst>
inline Dst columnConvertTail(int sum, float recip) {
  return static_cast<Dst>(truncToward0(clampToRange<Dst>(static_cast<float>(sum) * recip)));
}

}  // namespace kvl::filter
