// Scalar reference kernels of the Canny detector: one pixel at a time, literally by the rules.
// The callers' gradient images may lie at any byte address (read through loadAny); the magnitude,
// class and map rows are the detector's own, aligned in its buffer.
#include <cmath>
#include <cstdlib>

#include "core/pixel.h"
#include "feature/canny.h"

namespace kvl::feature::ref {
namespace {

// Class by the single-precision products; `sameSign` when dx and dy have equal sign bits.
uint8_t classOf(bool vert, bool horiz, bool sameSign) {
  if (vert) return kClassVert;
  if (horiz) return kClassHoriz;
  return sameSign ? kClassDiag : kClassAntiDiag;
}

}  // namespace

void magClass16sRange(const Kvl16s* dx, const Kvl16s* dy, int w, int c0, int32_t low, int32_t* mag,
                      uint8_t* cls) {
  const int groups = w / kCannyGroup * kCannyGroup;
  for (int c = c0; c < w; ++c) {
    const Kvl16s gx = loadAny(dx + c), gy = loadAny(dy + c);
    const int32_t adx = std::abs(static_cast<int32_t>(gx));
    const int32_t ady = std::abs(static_cast<int32_t>(gy));
    const int32_t m = adx + ady;
    mag[c + 1] = m > low ? m : 0;
    const float ax = static_cast<float>(adx), ay = static_cast<float>(ady);
    bool vert, horiz;
    if (c < groups) {
      vert = ay > kTan67 * ax;
      horiz = kTan22 * ax > ay;
    } else {  // the tail multiplies in double and rounds the product to single
      vert = ay > static_cast<float>(kTan67d * static_cast<double>(ax));
      horiz = static_cast<float>(kTan22d * static_cast<double>(ax)) > ay;
    }
    cls[c] = classOf(vert, horiz, (gx ^ gy) >= 0);
  }
}

void magClass16s(const Kvl16s* dx, const Kvl16s* dy, int w, int32_t low, int32_t* mag,
                 uint8_t* cls) {
  magClass16sRange(dx, dy, w, 0, low, mag, cls);
}

void magClass32f(const Kvl32f* dx, const Kvl32f* dy, int w, float low, float* mag, uint8_t* cls) {
  for (int c = 0; c < w; ++c) {
    const float gx = loadAny(dx + c), gy = loadAny(dy + c);
    const float ax = std::fabs(gx), ay = std::fabs(gy);
    const float m = ax + ay;
    mag[c + 1] = m > low ? m : 0.0f;
    cls[c] = classOf(ay > kTan67 * ax, kTan22 * ax > ay, std::signbit(gx) == std::signbit(gy));
  }
}

void magClassBorder(const Kvl16s* dx, const Kvl16s* dy, int w, float low, bool l2, float* mag,
                    uint8_t* cls) {
  for (int c = 0; c < w; ++c) {
    const float ax = static_cast<float>(std::abs(static_cast<int>(dx[c])));
    const float ay = static_cast<float>(std::abs(static_cast<int>(dy[c])));
    const float m = l2 ? std::sqrt(ax * ax + ay * ay) : ax + ay;
    mag[c + 1] = m > low ? m : 0.0f;
    const float vertBound = (ax + ax) + ax * kTan22;
    cls[c] = classOf(ay > vertBound, kTan22 * ax > ay, (dx[c] ^ dy[c]) >= 0);
  }
}

namespace {

// A survivor is above its first neighbour and above its second, or equal to the second when the
// pair is horizontal or vertical (so runs keep their first pixel and diagonal plateaus none).
template <class M>
void nms(const M* prev, const M* cur, const M* next, const uint8_t* cls, int w, M high,
         uint8_t* mapRow) {
  for (int c = 0; c < w; ++c) {
    const int i = c + 1;
    const M m = cur[i];
    uint8_t v = 0;
    if (m != 0) {
      M a, b;
      switch (cls[c]) {
        case kClassHoriz:
          a = cur[i - 1];
          b = cur[i + 1];
          break;
        case kClassVert:
          a = prev[i];
          b = next[i];
          break;
        case kClassAntiDiag:
          a = prev[i + 1];
          b = next[i - 1];
          break;
        default:
          a = prev[i - 1];
          b = next[i + 1];
          break;
      }
      const bool straight = cls[c] == kClassHoriz || cls[c] == kClassVert;
      if (m > a && (m > b || (m == b && straight))) v = m > high ? kEdge : kCandidate;
    }
    mapRow[c] = v;
  }
}

}  // namespace

void nms32s(const int32_t* prev, const int32_t* cur, const int32_t* next, const uint8_t* cls, int w,
            int32_t high, uint8_t* mapRow) {
  nms(prev, cur, next, cls, w, high, mapRow);
}

void nms32f(const float* prev, const float* cur, const float* next, const uint8_t* cls, int w,
            float high, uint8_t* mapRow) {
  nms(prev, cur, next, cls, w, high, mapRow);
}

int link(const uint8_t* prev, uint8_t* cur, const uint8_t* next, int w, uint32_t* cols) {
  int n = 0;
  for (int c = 0; c < w; ++c) {
    if (cur[c] != kCandidate) continue;
    bool touches = cur[c - 1] == kEdge || cur[c + 1] == kEdge;
    for (int d = -1; d <= 1; ++d) touches = touches || prev[c + d] == kEdge || next[c + d] == kEdge;
    if (touches) {
      cur[c] = kEdge;
      cols[n++] = static_cast<uint32_t>(c);
    }
  }
  return n;
}

void edges(const uint8_t* mapRow, int w, Kvl8u* out) {
  for (int c = 0; c < w; ++c) out[c] = mapRow[c] == kEdge ? 255 : 0;
}

}  // namespace kvl::feature::ref
