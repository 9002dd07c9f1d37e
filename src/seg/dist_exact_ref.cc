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
  float* recip = reinterpret_cast<float*>(alignUp(part, 32));
  Parabola* envelope = reinterpret_cast<Parabola*>(alignUp(recip + width, 16));
  recip[0] = 0.0f;  // never read: a vertex and the parabola after it are never at one place
  for (int q = 1; q < width; ++q) recip[q] = 1.0f / (2.0f * static_cast<float>(q));
  return EnvelopeScratch{recip, envelope};
}

void envelopeRow(Kvl32f* row, int width, const EnvelopeScratch& sc) {
  const float* const recip = sc.recip;
  Parabola* const e = sc.envelope;
  auto sq = [](int32_t q) { return static_cast<float>(q) * static_cast<float>(q); };

  // The lower envelope of q -> f(p) + (q - p)^2: each new parabola drops the ones it hides (an
  // intersection s at or left of the last one's own boundary) and starts at its intersection,
  //   s = (f(p) + sq[p] - f(v) - sq[v]) * recip[p - v]
  // from left to right. Each entry keeps its f and sq, so the loop reads one record per step.
  int k = 0;
  e[0] = Parabola{0, loadAny(row), 0.0f, -kFarSq};
  for (int p = 1; p < width; ++p) {
    const float fp = loadAny(row + p);
    const float sqp = sq(p);
    const float gp = fp + sqp;
    float s;
    for (;;) {
      const Parabola& t = e[k];
      s = (gp - t.f - t.sq) * recip[p - t.p];
      if (s > t.z) break;
      --k;
    }
    e[++k] = Parabola{p, fp, sqp, s};
  }

  // Each position q takes the parabola whose interval holds it: the boundaries increase, so the
  // k that "advance while z[k + 1] < q" reaches (the last boundary being 3.4028235e38) is the one
  // with z[k] < q <= z[k + 1], and each parabola fills its run of positions with
  // sq[|q - v|] + f(v); (q - v)^2 as float is that sq.
  if (width > (1 << 24)) {  // positions no longer exact as floats: compare them as written
    int j = 0;
    for (int q = 0; q < width; ++q) {
      while ((j < k ? e[j + 1].z : kFarSq) < static_cast<float>(q)) ++j;
      storeAny(row + q, sq(std::abs(q - e[j].p)) + e[j].f);
    }
    return;
  }
  int q = 0;
  for (int j = 0; j <= k && q < width; ++j) {
    const float right = j < k ? e[j + 1].z : kFarSq;
    const int end = right >= static_cast<float>(width - 1) ? width
                    : right < 0.0f                         ? 0
                                                           : static_cast<int>(right) + 1;
    const int32_t vj = e[j].p;
    const float fv = e[j].f;
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
