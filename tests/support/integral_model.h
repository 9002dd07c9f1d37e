// Plain integral tables of an 8-bit image for tests: upright and tilted, as Kvl32s (wrapping) or
// Kvl32f, written straight from their definitions with 64-bit sums.
#pragma once

#include <cstdint>
#include <vector>

namespace kvl::test {

// A table of `cols` x `rows` elements, row-major, no padding.
template <class T>
struct IntegralTable {
  int cols = 0, rows = 0;
  std::vector<T> v;
  T& at(int row, int col) { return v[static_cast<size_t>(row) * cols + col]; }
};

template <class T>
T fromSum(int64_t s) {
  if constexpr (sizeof(T) == 4 && static_cast<T>(0.5f) == 0) {
    return static_cast<T>(static_cast<uint32_t>(s));
  } else {
    return static_cast<T>(s);
  }
}

// (w+1) x (h+1): element (y, x) is the sum of pixels above row y and left of column x.
template <class T>
IntegralTable<T> uprightIntegral(const std::vector<uint8_t>& img, int w, int h) {
  std::vector<int64_t> s(static_cast<size_t>(w + 1) * (h + 1), 0);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      s[(y + 1) * (w + 1) + x + 1] = img[y * w + x] + s[y * (w + 1) + x + 1] +
                                     s[(y + 1) * (w + 1) + x] - s[y * (w + 1) + x];
  IntegralTable<T> t{w + 1, h + 1, {}};
  for (int64_t v : s) t.v.push_back(fromSum<T>(v));
  return t;
}

// (w+2) x (h+2): rows 0 and 1 are 0; row y+2 from rows y+1 and y and source row y.
template <class T>
IntegralTable<T> tiltedIntegral(const std::vector<uint8_t>& img, int w, int h) {
  const int c = w + 2;
  std::vector<int64_t> s(static_cast<size_t>(c) * (h + 2), 0);
  auto px = [&](int y, int x) -> int64_t { return img[y * w + x]; };
  auto at = [&](int y, int x) -> int64_t& { return s[static_cast<size_t>(y) * c + x]; };
  for (int y = 0; y < h; ++y) {
    at(y + 2, 0) = at(y + 1, 1);
    for (int x = 1; x <= w - 1; ++x)
      at(y + 2, x) = px(y, x - 1) + px(y, x) + at(y + 1, x - 1) + at(y + 1, x + 1) - at(y, x);
    at(y + 2, w) = px(y, w - 1) + at(y + 1, w - 1) + at(y + 1, w + 1) - at(y, w);
    at(y + 2, w + 1) = at(y + 1, w);
  }
  IntegralTable<T> t{c, h + 2, {}};
  for (int64_t v : s) t.v.push_back(fromSum<T>(v));
  return t;
}

}  // namespace kvl::test
