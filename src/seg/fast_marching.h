// Fast marching: the constants, the arrival-time update and the sweep of one span of a row, shared
// by the family and its tests.
#pragma once

#include <atomic>
#include <cmath>
#include <cstdint>

#include "kvlcv.h"
#include "seg/fast_marching_members.h"

namespace kvl::seg {

// The time of a pixel no front has reached yet (and of the missing neighbours past the edges).
constexpr float kUnreached = 999999.0f;
// Added to the radius to make the bound of the final pass.
constexpr float kRadiusSlack = 0.00001f;
// Sweeps are run in blocks of this many columns: a stripe's block can start once the stripe
// before it in the sweep has finished the same block.
constexpr int kMarchBlock = 128;
// The most threads a sweep uses, and the fewest rows each of them takes.
constexpr int kMarchMaxTeam = 16;
constexpr int kMarchMinRows = 8;

// The upwind update from the best time along x (t1) and along y (t2).
inline float arrivalTime(float t1, float t2) {
  const float d = t1 - t2;
  if (std::fabs(d) >= 1.0f) return 1.0f + (t2 < t1 ? t2 : t1);
  return 0.5f * (t1 + t2 + std::sqrt(2.0f - d * d));
}

// Sweep k (1, 2, ...) goes down the rows for k % 4 in {1, 2} and up otherwise, and along each
// row to the right for k % 4 in {1, 0} and to the left otherwise.
inline bool sweepDown(int k) { return k % 4 == 1 || k % 4 == 2; }
inline bool sweepRight(int k) { return k % 4 == 1 || k % 4 == 0; }

// The change mark of sweep k, cycling through 1..255 (0 is never used, so the initial mark of
// sweep 0 is 1).
inline uint8_t sweepMark(int k) { return static_cast<uint8_t>(k % 255 + 1); }

// The times and change marks of one call: the times live in the destination, one mark byte per
// pixel in the work buffer (the sweep in which the pixel last changed).
struct MarchField {
  Kvl32f* time;
  int step;
  uint8_t* mark;  // width bytes per row
  int width, height;
};

// Updates pixels [x0, x1) of row y in the order of sweep k and returns how many changed. A pixel
// is evaluated only when it or one of its four neighbours changed in this sweep or the one
// before: otherwise its update would give the same time as its last evaluation, which it already
// does not exceed.
int sweepSpan(const MarchField& f, int y, int x0, int x1, int k);

// Work buffer layout: the marks, then one slot per thread on its own cache line.
struct alignas(64) MarchSlot {
  std::atomic<int> progress;  // blocks this stripe has finished in the current sweep
  int changes;                // pixels it changed
};

}  // namespace kvl::seg
