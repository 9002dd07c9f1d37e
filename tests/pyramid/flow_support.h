// Test pyramids for the tracker: levels made by the library's 5x5 Gaussian down-sampling of the
// float image (then rounded to the element type), rate 2, in a caller-visible record whose arrays
// the test owns.
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
      int bytes = 0;
      kvliPyrDownGetBufSize_Gauss5x5(w, 13, 1, &bytes);
      std::vector<Kvl8u> buffer(static_cast<size_t>(bytes));
      kvliPyrDown_Gauss5x5_32f_C1R(cur.data(), w * 4, next.data(), w2 * 4, {w, h}, buffer.data());
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

// The image moved by (sx, sy): next(x, y) is img at (x - sx, y - sy) by cubic convolution
// (a = -0.5) in double precision, edges repeated.
inline std::vector<float> shifted(const std::vector<float>& img, int w, int h, double sx, double sy) {
  auto weights = [](double f, double* k) {
    const double a = -0.5;
    const double t[4] = {1 + f, f, 1 - f, 2 - f};
    for (int i = 0; i < 4; ++i) {
      const double d = t[i];
      k[i] = d <= 1 ? ((a + 2) * d - (a + 3)) * d * d + 1 : ((a * d - 5 * a) * d + 8 * a) * d - 4 * a;
    }
  };
  std::vector<float> out(img.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const double px = x - sx, py = y - sy, fx = std::floor(px), fy = std::floor(py);
      double kx[4], ky[4];
      weights(px - fx, kx);
      weights(py - fy, ky);
      double s = 0;
      for (int j = 0; j < 4; ++j)
        for (int i = 0; i < 4; ++i) {
          const long c = std::clamp<long>(static_cast<long>(fx) - 1 + i, 0, w - 1);
          const long r = std::clamp<long>(static_cast<long>(fy) - 1 + j, 0, h - 1);
          s += kx[i] * ky[j] * img[static_cast<size_t>(r) * w + c];
        }
      out[static_cast<size_t>(y) * w + x] = static_cast<float>(s);
    }
  return out;
}

// The image smoothed by the binomial kernel 1 4 6 4 1 / 16 along rows and columns (edges
// repeated): a moved copy made by interpolation is then close to a true move.
inline std::vector<float> smoothed(const std::vector<float>& img, int w, int h) {
  static const float k[5] = {1 / 16.0f, 4 / 16.0f, 6 / 16.0f, 4 / 16.0f, 1 / 16.0f};
  std::vector<float> t(img.size()), out(img.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      float s = 0;
      for (int i = -2; i <= 2; ++i) s += k[i + 2] * img[static_cast<size_t>(y) * w + std::clamp(x + i, 0, w - 1)];
      t[static_cast<size_t>(y) * w + x] = s;
    }
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      float s = 0;
      for (int i = -2; i <= 2; ++i) s += k[i + 2] * t[static_cast<size_t>(std::clamp(y + i, 0, h - 1)) * w + x];
      out[static_cast<size_t>(y) * w + x] = s;
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
