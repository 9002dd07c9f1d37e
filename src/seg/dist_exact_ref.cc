// Exact Euclidean distance transform: the scalar column pass and the row pass every target runs.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "core/pixel.h"
#include "seg/dist_exact.h"

namespace kvl::seg {

namespace ref {

// Counts steps down each column from the last feature pixel, then up, and keeps the nearer.
void columnPass(const Kvl8u* src, int srcStep, Kvl32f* dst, int dstStep, int n, int height,
                int32_t* count) {
  for (int x = 0; x < n; ++x) count[x] = kNoFeature;
  for (int y = 0; y < height; ++y) {
    const Kvl8u* s = rowPtr(src, srcStep, y);
    Kvl32f* d = rowPtr(dst, dstStep, y);
    for (int x = 0; x < n; ++x) {
      const int32_t c = s[x] == 0 ? 0 : (count[x] < kNoFeature ? count[x] + 1 : kNoFeature);
      count[x] = c;
      storeAny(d + x, squaredSteps(c));
    }
  }
  for (int x = 0; x < n; ++x) count[x] = kNoFeature;
  for (int y = height - 1; y >= 0; --y) {
    const Kvl8u* s = rowPtr(src, srcStep, y);
    Kvl32f* d = rowPtr(dst, dstStep, y);
    for (int x = 0; x < n; ++x) {
      const int32_t c = s[x] == 0 ? 0 : (count[x] < kNoFeature ? count[x] + 1 : kNoFeature);
      count[x] = c;
      const float up = squaredSteps(c);
      const float down = loadAny(d + x);
      storeAny(d + x, up < down ? up : down);
    }
  }
}

}  // namespace ref

EnvelopeScratch envelopeScratch(uint8_t* part, int width) {
  float* base = reinterpret_cast<float*>(alignUp(part, 32));
  const size_t n = static_cast<size_t>(width);
  EnvelopeScratch s{base, base + n, reinterpret_cast<int32_t*>(base + 2 * n), base + 3 * n,
                    base + 4 * n + 1};
  for (int q = 0; q < width; ++q) s.sq[q] = static_cast<float>(q) * static_cast<float>(q);
  s.recip[0] = 0.0f;  // never read: a vertex and the parabola after it are never at one place
  for (int q = 1; q < width; ++q) s.recip[q] = 1.0f / (2.0f * static_cast<float>(q));
  return s;
}

void envelopeRow(Kvl32f* row, int width, const EnvelopeScratch& sc) {
  float* const f = sc.f;
  int32_t* const v = sc.v;
  float* const z = sc.z;
  const float* const sq = sc.sq;
  const float* const recip = sc.recip;
  std::memcpy(f, row, static_cast<size_t>(width) * sizeof(float));

  // The lower envelope of q -> f(p) + (q - p)^2: each new parabola drops the vertices it hides
  // (an intersection at or left of a vertex's own boundary) and starts at its intersection.
  int k = 0;
  v[0] = 0;
  z[0] = -kFarSq;
  z[1] = kFarSq;
  for (int p = 1; p < width; ++p) {
    const float fp = f[p] + sq[p];
    float s;
    for (;;) {
      const int32_t vk = v[k];
      s = (fp - f[vk] - sq[vk]) * recip[p - vk];
      if (s > z[k]) break;
      --k;
    }
    ++k;
    v[k] = p;
    z[k] = s;
    z[k + 1] = kFarSq;
  }

  // Each position q takes the parabola whose interval holds it: the boundaries increase, so the
  // k that "advance while z[k + 1] < q" reaches is the one with z[k] < q <= z[k + 1], and each
  // parabola fills its run of positions. (q - v)^2 as float equals sq[|q - v|].
  if (width > (1 << 24)) {  // positions no longer exact as floats: compare them as written
    k = 0;
    for (int q = 0; q < width; ++q) {
      while (z[k + 1] < static_cast<float>(q)) ++k;
      const int32_t vk = v[k];
      storeAny(row + q, sq[std::abs(q - vk)] + f[vk]);
    }
    return;
  }
  int q = 0;
  for (int j = 0; j <= k && q < width; ++j) {
    const float right = z[j + 1];
    const int end = right >= static_cast<float>(width - 1) ? width
                    : right < 0.0f                         ? 0
                                                           : static_cast<int>(right) + 1;
    const int32_t vj = v[j];
    const float fv = f[vj];
    for (; q < end; ++q) {
      const float dq = static_cast<float>(q - vj);
      storeAny(row + q, dq * dq + fv);
    }
  }
}

namespace ref {
void sqrtRow(Kvl32f* row, int width) {
  for (int x = 0; x < width; ++x) storeAny(row + x, std::sqrt(loadAny(row + x)));
}
}  // namespace ref

}  // namespace kvl::seg
