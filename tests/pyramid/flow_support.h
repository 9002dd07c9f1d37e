// Test pyramids for the tracker: levels made by 2 x 2 averaging (edges repeated), rate 2, in a
// caller-visible record whose arrays the test owns.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstring>
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

template <class Src>
class TestPyramid {
 public:
  // Level 0 is `base` (w x h floats, converted), then `top` halvings.
  TestPyramid(const std::vector<float>& base, int w, int h, int top) {
    std::vector<float> cur = base;
    for (int k = 0; k <= top; ++k) {
      pixels_.emplace_back(cur.size());
      std::transform(cur.begin(), cur.end(), pixels_.back().begin(), fromFloat<Src>);
      rois_.push_back({w, h});
      steps_.push_back(w * static_cast<int>(sizeof(Src)));
      rates_.push_back(std::ldexp(1.0, -k));
      if (k == top) break;
      const int w2 = (w + 1) / 2, h2 = (h + 1) / 2;
      std::vector<float> next(static_cast<size_t>(w2) * h2);
      auto at = [&](int x, int y) {
        return cur[static_cast<size_t>(std::min(y, h - 1)) * w + std::min(x, w - 1)];
      };
      for (int y = 0; y < h2; ++y)
        for (int x = 0; x < w2; ++x)
          next[static_cast<size_t>(y) * w2 + x] = 0.25f * (at(2 * x, 2 * y) + at(2 * x + 1, 2 * y) +
                                                          at(2 * x, 2 * y + 1) + at(2 * x + 1, 2 * y + 1));
      cur.swap(next);
      w = w2, h = h2;
    }
    for (auto& p : pixels_) images_.push_back(reinterpret_cast<Kvl8u*>(p.data()));
    rec_ = KvliPyramid{images_.data(), rois_.data(), rates_.data(), steps_.data(), nullptr, top};
  }
  TestPyramid(const TestPyramid&) = delete;
  TestPyramid& operator=(const TestPyramid&) = delete;

  const KvliPyramid* get() const { return &rec_; }
  KvliPyramid& record() { return rec_; }
  std::vector<Kvl8u*>& images() { return images_; }
  std::vector<KvliSize>& rois() { return rois_; }
  std::vector<double>& rates() { return rates_; }
  std::vector<int>& steps() { return steps_; }

 private:
  std::vector<std::vector<Src>> pixels_;
  std::vector<Kvl8u*> images_;
  std::vector<KvliSize> rois_;
  std::vector<double> rates_;
  std::vector<int> steps_;
  KvliPyramid rec_{};
};

// A smooth textured test scene: sums of sines, values in about 20 .. 230.
inline float scene(double x, double y) {
  return static_cast<float>(125.0 + 40.0 * std::sin(0.31 * x + 0.05 * y) +
                            35.0 * std::cos(0.23 * y - 0.11 * x) + 25.0 * std::sin(0.07 * x * 1.3 + 0.17 * y));
}

// The image moved by (sx, sy): next(x, y) is the bilinear sample of img at (x - sx, y - sy) in
// double precision, edges repeated.
inline std::vector<float> shifted(const std::vector<float>& img, int w, int h, double sx, double sy) {
  std::vector<float> out(img.size());
  auto at = [&](long x, long y) {
    x = std::clamp<long>(x, 0, w - 1), y = std::clamp<long>(y, 0, h - 1);
    return static_cast<double>(img[static_cast<size_t>(y) * w + x]);
  };
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const double px = x - sx, py = y - sy, fx = std::floor(px), fy = std::floor(py);
      const double ax = px - fx, ay = py - fy;
      const long c = static_cast<long>(fx), r = static_cast<long>(fy);
      out[static_cast<size_t>(y) * w + x] = static_cast<float>(
          (1 - ay) * ((1 - ax) * at(c, r) + ax * at(c + 1, r)) +
          ay * ((1 - ax) * at(c, r + 1) + ax * at(c + 1, r + 1)));
    }
  return out;
}

// Up to `count` points on a grid of `spacing` pixels, at least `margin` from the edges, with the
// largest smaller eigenvalue of the gradient matrix over a window of `win` pixels: the points a
// tracker can follow.
inline std::vector<KvliPoint32f> texturedPoints(const std::vector<float>& img, int w, int h,
                                                int count, int spacing, int margin, int win) {
  std::vector<std::pair<double, KvliPoint32f>> scored;
  const int r = win / 2;
  for (int y = margin; y < h - margin; y += spacing)
    for (int x = margin; x < w - margin; x += spacing) {
      double xx = 0, xy = 0, yy = 0;
      for (int j = y - r; j <= y + r; ++j)
        for (int i = x - r; i <= x + r; ++i) {
          const size_t o = static_cast<size_t>(j) * w + i;
          const double gx = 0.5 * (img[o + 1] - img[o - 1]), gy = 0.5 * (img[o + w] - img[o - w]);
          xx += gx * gx, xy += gx * gy, yy += gy * gy;
        }
      const double minEig = 0.5 * (xx + yy - std::sqrt((xx - yy) * (xx - yy) + 4 * xy * xy));
      scored.push_back({minEig, {static_cast<float>(x), static_cast<float>(y)}});
    }
  std::stable_sort(scored.begin(), scored.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  std::vector<KvliPoint32f> pts;
  for (size_t i = 0; i < scored.size() && static_cast<int>(pts.size()) < count; ++i)
    pts.push_back(scored[i].second);
  return pts;
}

}  // namespace kvl::test
