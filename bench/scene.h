// A deterministic synthetic grey scene for benchmarks that need real structure: a smooth
// background, filled discs and triangles of different grey levels, thin lines and light noise.
// The number of shapes grows with the area, so edge density is alike at every size.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace kvl::bench {

// Returns step * height bytes (plus 64 spare), rows padded to 64 bytes.
inline std::vector<uint8_t> renderScene(int width, int height, int* step) {
  *step = (width + 63) / 64 * 64;
  const int s = *step;
  std::vector<uint8_t> img(static_cast<size_t>(s) * height + 64, 0);
  uint32_t state = 0x2545F491u;
  auto rnd = [&state](uint32_t n) {
    state = state * 1664525u + 1013904223u;
    return static_cast<int>((state >> 8) % n);
  };
  auto at = [&](int x, int y) -> uint8_t& { return img[static_cast<size_t>(y) * s + x]; };
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      at(x, y) = static_cast<uint8_t>(50 + 90 * x / width + 50 * y / height);

  const int shapes = static_cast<int>(50.0 * width * height / (640.0 * 480.0)) + 1;
  for (int i = 0; i < shapes; ++i) {
    const uint8_t grey = static_cast<uint8_t>(rnd(256));
    const int cx = rnd(width), cy = rnd(height);
    const int r = 8 + rnd(48);
    if (i % 2 == 0) {  // disc
      for (int y = std::max(0, cy - r); y <= std::min(height - 1, cy + r); ++y)
        for (int x = std::max(0, cx - r); x <= std::min(width - 1, cx + r); ++x)
          if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r) at(x, y) = grey;
    } else {  // triangle by its three edge functions
      int px[3], py[3];
      for (int k = 0; k < 3; ++k) {
        px[k] = cx + rnd(2 * r + 1) - r;
        py[k] = cy + rnd(2 * r + 1) - r;
      }
      const long long area =
          1LL * (px[1] - px[0]) * (py[2] - py[0]) - 1LL * (py[1] - py[0]) * (px[2] - px[0]);
      if (area == 0) continue;
      for (int y = std::max(0, cy - r); y <= std::min(height - 1, cy + r); ++y)
        for (int x = std::max(0, cx - r); x <= std::min(width - 1, cx + r); ++x) {
          bool inside = true;
          for (int k = 0; k < 3 && inside; ++k) {
            const int j = (k + 1) % 3;
            const long long e =
                1LL * (px[j] - px[k]) * (y - py[k]) - 1LL * (py[j] - py[k]) * (x - px[k]);
            inside = area > 0 ? e >= 0 : e <= 0;
          }
          if (inside) at(x, y) = grey;
        }
    }
  }
  const int lines = shapes / 4 + 1;
  for (int i = 0; i < lines; ++i) {  // thin lines
    const uint8_t grey = static_cast<uint8_t>(rnd(256));
    const int x0 = rnd(width), y0 = rnd(height), x1 = rnd(width), y1 = rnd(height);
    const int n = std::max(std::abs(x1 - x0), std::abs(y1 - y0)) + 1;
    for (int t = 0; t < n; ++t) at(x0 + (x1 - x0) * t / n, y0 + (y1 - y0) * t / n) = grey;
  }
  for (int y = 0; y < height; ++y)  // light noise
    for (int x = 0; x < width; ++x)
      at(x, y) = static_cast<uint8_t>(std::clamp(at(x, y) + rnd(7) - 3, 0, 255));
  return img;
}

}  // namespace kvl::bench
