// Test pyramids for the tracker: levels made by the library's 5x5 Gaussian down-sampling of the
// float image (then rounded to the element type), rate 2, in a caller-visible record whose arrays
// the test owns.
#pragma once

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>
#include <vector>

#include "kvlcv.h"

namespace kvl::test {

template <class Src>
Src fromFloat(float v) {
  if constexpr (std::is_floating_point_v<Src>) {
    return v;
  } else {
    const float hi = static_cast<float>(std::numeric_limits<Src>::max());
    return static_cast<Src>(std::lround(std::clamp(v, 0.0f, hi)));
  }
}

// Level 0 is `base` (w x h floats, converted), then `top` halvings. Rows are `pixelBytes` per
// pixel apart (the element's size unless given). The arrays are the caller's to change.
template <class Src>
struct TestPyramid {
  std::vector<std::vector<Src>> pixels;
  std::vector<Kvl8u*> images;
  std::vector<KvliSize> rois;
  std::vector<double> rates;
  std::vector<int> steps;
  KvliPyramid rec{};

  TestPyramid(const std::vector<float>& base, int w, int h, int top,
              int pixelBytes = static_cast<int>(sizeof(Src))) {
    std::vector<float> cur = base;
    for (int k = 0; k <= top; ++k) {
      pixels.emplace_back(cur.size());
      std::transform(cur.begin(), cur.end(), pixels.back().begin(), fromFloat<Src>);
      rois.push_back({w, h});
      steps.push_back(w * pixelBytes);
      rates.push_back(std::ldexp(1.0, -k));
      if (k == top) break;
      const int w2 = (w + 1) / 2, h2 = (h + 1) / 2;
      std::vector<float> next(static_cast<size_t>(w2) * h2);
      int bytes = 0;
      kvliPyrDownGetBufSize_Gauss5x5(w, 13, 1, &bytes);
      std::vector<Kvl8u> buffer(static_cast<size_t>(bytes));
      kvliPyrDown_Gauss5x5_32f_C1R(cur.data(), w * 4, next.data(), w2 * 4, {w, h}, buffer.data());
      cur.swap(next);
      w = w2, h = h2;
    }
    for (auto& p : pixels) images.push_back(reinterpret_cast<Kvl8u*>(p.data()));
    rec = KvliPyramid{images.data(), rois.data(), rates.data(), steps.data(), nullptr, top};
  }
  TestPyramid(const TestPyramid&) = delete;
  TestPyramid& operator=(const TestPyramid&) = delete;
  const KvliPyramid* get() const { return &rec; }
};

}  // namespace kvl::test
