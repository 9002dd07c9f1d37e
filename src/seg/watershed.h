// Marker watershed: the constants, the work-buffer layouts and the framed-map helpers shared by
// the family, its tests and its fuzz target.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kvlcv.h"
#include "seg/watershed_members.h"

namespace kvl::seg {

// --- Priority-queue method ----------------------------------------------------------------------

constexpr int kLevels = 256;

// Chunks for queues of 32-bit entries, `queues` of them holding `entries` entries in all over
// time: a chunk holds chunk - 1 entries, and chunks read to their end are taken again, so no
// more than min(entries, entries / (chunk - 1) + 1 + queues) are ever in use (queueBytes). The
// chunk is the longest power of two (2 .. 64 slots) whose chunks fit in `room` bytes, their bytes
// in `*bytes`; 0 when none does.
inline size_t queueBytes(size_t entries, size_t queues, int chunk) {
  const size_t spread = entries / (chunk - 1) + 1 + queues;
  return 4 * static_cast<size_t>(chunk) * (spread < entries ? spread : entries);
}
inline int queueChunk(size_t entries, size_t queues, size_t room, size_t* bytes) {
  for (int c = 64; c >= 2; c /= 2) {
    *bytes = queueBytes(entries, queues, c);
    if (*bytes <= room) return c;
  }
  *bytes = 0;
  return 0;
}

// The priority-queue method's layout in the buffer (its start rounded up to 8 bytes): the framed
// map of cells, each a pixel's label beside its relief level (2 bytes for 8-bit labels, 4 for
// 16-bit ones), so that one read of a neighbourhood brings both; then the queue chunks. Each
// level's queue is a chain of chunks of `chunk` 32-bit slots, the first slot linking to the next
// chunk and the others holding pixels in order; a chunk read to its end goes back to a free
// list. A pixel joins a queue at most once (when it is labelled, or at the start when it already
// was), so at most width * height entries are ever queued, and chunks never run out: the chunk is
// the longest (of at most 64 slots) for which the buffer holds min(pixels, pixels / (chunk - 1)
// + 257) chunks (two slots always fit).
template <class T>
struct QueueCell {
  T label;
  uint8_t level;
};
struct QueueLayout {
  size_t cells, chunks;  // offsets from the aligned start
  int chunk;             // slots per chunk, a power of two
  size_t end;
};
inline QueueLayout queueLayout(KvliSize roi, int markerBytes, long long bufferBytes) {
  const size_t fw = static_cast<size_t>(roi.width) + 2, fh = static_cast<size_t>(roi.height) + 2;
  const size_t n = static_cast<size_t>(roi.width) * roi.height;
  const size_t cellBytes = markerBytes == 1 ? sizeof(QueueCell<uint8_t>) : sizeof(QueueCell<uint16_t>);
  QueueLayout l{};
  l.cells = 0;
  l.chunks = (fw * fh * cellBytes + 3) / 4 * 4;
  size_t bytes = 0;
  l.chunk = queueChunk(n, kLevels, static_cast<size_t>(bufferBytes) - 7 - l.chunks, &bytes);
  l.end = l.chunks + bytes;
  return l;
}

// --- Distance method ----------------------------------------------------------------------------

// Ordering keys: (relief level << 23) + distance. Unlabelled pixels start at kKeyUnreached;
// marker pixels holding the boundary value, and the frame, are walls at kKeyWall.
constexpr int kLevelShift = 23;
constexpr int32_t kKeyUnreached = 0x7FC00000;
constexpr int32_t kKeyWall = 0x7FFFFFFF;

// Step costs inside the distance field, per norm: norm 0 counts chessboard steps, norm 1 city-block
// steps (4-neighbourhood), norm 2 weighs an axis step 5 and a diagonal step 7.
struct StepCost {
  int32_t axis;
  int32_t diagonal;  // 0: the norm has no diagonal neighbours
};
constexpr StepCost kStepCost[3] = {{1, 1}, {1, 0}, {5, 7}};
// Norm 3: the upwind eikonal update in fixed point, kMarchUnit per pixel.
constexpr int32_t kMarchUnit = 16;

// Stripes of the distance method: at most par::kWatershedMaxTeam.

// --- Buffer -------------------------------------------------------------------------------------

// The size formula in 64-bit: max(A, B) with W = align32(width * markerBytes),
// A = height + 4 height W + 66 + 2 (W + height W),
// B = 16 width height + markerBytes (width + 2)(height + 2) + 48.
inline long long watershedBytes(KvliSize roi, int markerBytes) {
  const long long w = roi.width, h = roi.height;
  const long long W = (w * markerBytes + 31) / 32 * 32;
  const long long a = h + 4 * h * W + 66 + 2 * (W + h * W);
  const long long b = 16 * w * h + markerBytes * (w + 2) * (h + 2) + 48;
  return a > b ? a : b;
}
// The same formula evaluated in signed 32-bit arithmetic (wrapping), as the size query reports it.
inline int32_t watershedBytes32(KvliSize roi, int markerBytes) {
  const long long w = roi.width, h = roi.height;
  const long long W = (w * markerBytes + 31) / 32 * 32;
  auto wrap = [](long long v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); };
  const int32_t a = wrap(h + 4 * h * W + 66 + 2 * (W + h * W));
  const int32_t b = wrap(16 * w * h + markerBytes * (w + 2) * (h + 2) + 48);
  return a > b ? a : b;
}

// The distance method's layout in the buffer (rounded up to 8 bytes first): the framed label map;
// the keys, height rows of width + 2 (a wall each side) and one row of walls for above and below
// the image; per framed pixel a byte of parents still unlabelled (the mixed flag once labelled);
// a stack of width * height pixel indices; a byte per row saying whether it needs sweeping;
// and, for a team above one, per stripe copies of the
// keys of the two rows beside it. `end` is the bytes needed from the aligned start.
struct DistanceLayout {
  size_t labels, keys, waiting, stack, dirty, halos;  // offsets from the aligned start
  size_t haloBytes;                            // per stripe
  size_t end;
};
inline DistanceLayout distanceLayout(KvliSize roi, int markerBytes, int team) {
  const size_t fw = static_cast<size_t>(roi.width) + 2, fh = static_cast<size_t>(roi.height) + 2;
  const size_t n = static_cast<size_t>(roi.width) * roi.height;
  auto up = [](size_t v, size_t a) { return (v + a - 1) / a * a; };
  DistanceLayout l{};
  l.labels = 0;
  l.keys = up(fw * fh * markerBytes, 4);
  l.waiting = l.keys + fw * (fh - 1) * 4;
  l.stack = up(l.waiting + fw * fh, 4);
  l.dirty = l.stack + 4 * n;
  l.halos = up(l.dirty + static_cast<size_t>(roi.height), 8);
  l.haloBytes = team > 1 ? 2 * fw * 4 : 0;
  l.end = l.halos + l.haloBytes * static_cast<size_t>(team > 1 ? team : 0);
  return l;
}

// The distance method floods in key order, in stripes of rows (height / stripes each, the last
// one taking the rest too), from the start rounded up to 8 bytes: per stripe a block of cells,
// its rows framed and one more row above and below holding the neighbouring stripes' edge rows
// (walls at the image's edges); a cell is a pixel's key, label, state bits and relief level.
// Then, with several stripes, per stripe a list of its edge rows' cells; then per stripe the
// chunks of its kBreadthQueues queues, room for all its pixels at once (a pixel whose key goes
// down may wait twice: a flood that runs out of room gives way to the sweeps); later passes use
// that room as a heap. Images that the buffer formula leaves too little room for sweep instead
// (`stripes` 0).
constexpr int kBreadthMaxStripes = 16;
// Queues: one per level, then up to 32 for keys just above the one taken.
constexpr int kBreadthQueues = kLevels + 32;
template <class T>
struct BreadthCell {
  uint32_t key;
  T label;
  uint8_t bits;  // kBreadthMixed, kBreadthFixed, kBreadthMoved
  uint8_t level;
};
constexpr uint8_t kBreadthMixed = 1;  // labelled from parents of several labels
constexpr uint8_t kBreadthFixed = 2;  // a marker, a wall or a copy of a neighbour's edge
constexpr uint8_t kBreadthMoved = 4;  // its key went down in this pass and it is not yet retaken
struct BreadthLayout {
  int stripes;  // 0: the layout does not fit
  int chunk;    // slots per chunk
  int y0[kBreadthMaxStripes], rows[kBreadthMaxStripes];
  size_t cells[kBreadthMaxStripes], order[kBreadthMaxStripes], chunks[kBreadthMaxStripes];
  size_t end;   // bytes needed from the aligned start
};
inline BreadthLayout breadthLayout(KvliSize roi, long long bufferBytes, int stripes) {
  static_assert(sizeof(BreadthCell<uint8_t>) == 8 && sizeof(BreadthCell<uint16_t>) == 8);
  const size_t fw = static_cast<size_t>(roi.width) + 2;
  BreadthLayout l{};
  size_t at = 0;
  for (int s = 0; s < stripes; ++s) {
    l.rows[s] = roi.height / stripes;
    l.y0[s] = s * l.rows[s];
    if (s == stripes - 1) l.rows[s] += roi.height % stripes;
    l.cells[s] = at;
    at += 8 * fw * (static_cast<size_t>(l.rows[s]) + 2);
  }
  for (int s = 0; s < stripes; ++s) {
    l.order[s] = at;
    if (stripes > 1) at += 4 * 2 * fw;
  }
  const long long room = bufferBytes - 7 - static_cast<long long>(at);
  auto pool = [&](int s, int c) {
    return queueBytes(static_cast<size_t>(roi.width) * l.rows[s], kBreadthQueues, c);
  };
  for (int c = 64; c >= 2 && room > 0; c /= 2) {
    size_t bytes = 0;
    for (int s = 0; s < stripes; ++s) bytes += pool(s, c);
    if (bytes > static_cast<size_t>(room)) continue;
    l.stripes = stripes;
    l.chunk = c;
    for (int s = 0; s < stripes; ++s) {
      l.chunks[s] = at;
      at += pool(s, c);
    }
    l.end = at;
    return l;
  }
  l.stripes = 0;
  return l;
}

}  // namespace kvl::seg
