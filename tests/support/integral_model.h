// Plain integral tables of an 8-bit image for tests, upright and tilted, written straight from
// their definitions with 64-bit sums and stored as T (Kvl32s wrapping, or Kvl32f).
#pragma once

#include <cstdint>
#include <vector>

namespace kvl::test {

template <class T>
std::vector<T> narrowSums(const std::vector<int64_t>& s) {
  std::vector<T> t;
  for (int64_t v : s)
    t.push_back(static_cast<T>(static_cast<T>(0.5f) == 0 ? static_cast<uint32_t>(v) : v));
  return t;
}

// (w+1) x (h+1), row-major: element (y, x) sums the pixels above row y and left of column x.
template <class T>
std::vector<T> uprightIntegral(const std::vector<uint8_t>& img, int w, int h) {
  const int c = w + 1;
  std::vector<int64_t> s(static_cast<size_t>(c) * (h + 1), 0);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      s[(y + 1) * c + x + 1] =
          img[y * w + x] + s[y * c + x + 1] + s[(y + 1) * c + x] - s[y * c + x];
  return narrowSums<T>(s);
}

// (w+2) x (h+2), row-major: rows 0 and 1 are 0; row y+2 from rows y+1 and y and source row y.
template <class T>
std::vector<T> tiltedIntegral(const std::vector<uint8_t>& img, int w, int h) {
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
  return narrowSums<T>(s);
}

}  // namespace kvl::test
