// Frames for the tracker's benchmark and comparison: a picture moved by a known sub-pixel amount
// and the points of it a tracker can follow.
#pragma once

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "kvlcv.h"

namespace kvl::bench {

// The image moved by (sx, sy): next(x, y) is img at (x - sx, y - sy) by cubic convolution
// (a = -0.5) in double precision, edges repeated.
inline std::vector<float> shifted(const std::vector<float>& img, int w, int h, double sx, double sy) {
  auto weights = [](double f, double* k) {  // the taps at distances 1 + f, f, 1 - f, 2 - f
    const double a = -0.5, t[4] = {1 + f, f, 1 - f, 2 - f};
    for (int i = 0; i < 4; ++i)
      k[i] = t[i] <= 1 ? ((a + 2) * t[i] - (a + 3)) * t[i] * t[i] + 1
                       : ((a * t[i] - 5 * a) * t[i] + 8 * a) * t[i] - 4 * a;
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
  for (size_t i = 0; i < scored.size() && i < static_cast<size_t>(count); ++i) pts.push_back(scored[i].second);
  return pts;
}

}  // namespace kvl::bench
