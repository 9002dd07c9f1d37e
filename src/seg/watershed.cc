// Marker watershed: validation, the priority-queue flooding and the distance method.
//
// Both methods work on a copy of the markers with a one-pixel frame holding the boundary value,
// so no neighbour test needs a bounds check and the frame is never flooded; the copy goes back
// to the caller's markers, without its frame, at the end.
//
// The distance method computes every pixel's ordering key as the least cost of a path from a
// marker, where entering pixel p from a neighbour whose key is k costs
// max(level(p) << 23, k + step): the key of p is the lowest relief level at which a flood from a
// marker reaches it, plus, in the low 23 bits, how far it is from where the flood entered that
// level. The keys are the greatest solution of those equations below the starting keys, which
// every sweep order reaches, so they do not depend on the stripes. Labels then follow the keys:
// a pixel takes the labels of the neighbours its key came from (its parents, all with smaller
// keys), and parents of different labels make it a boundary pixel. That is a recursion down the
// keys with one solution, which one pass in a topological order of the parents finds. The keys
// and the labels come together from a flood in key order, which is such an order (BreadthFlood,
// in stripes); images too small for the flood's queues, and floods whose queues overflow, sweep
// (floodDistance).
#include "seg/watershed.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <type_traits>
#include <utility>

#include "core/check.h"
#include "core/parallel.h"
#include "core/pixel.h"
#include "impl_decls.h"

namespace kvl::seg {
namespace {

// --- Framed label map ---------------------------------------------------------------------------

// Neighbour offsets in a framed map of row length fw, in the order left, right, up, down, then
// up-left, up-right, down-left, down-right.
struct Offsets {
  ptrdiff_t d[8];
  explicit Offsets(ptrdiff_t fw) : d{-1, 1, -fw, fw, -fw - 1, -fw + 1, fw - 1, fw + 1} {}
};

// The markers into the framed map, the frame set to the boundary value.
template <class T>
void copyIn(const T* marker, int step, KvliSize roi, T* map, T boundary) {
  const int w = roi.width, h = roi.height;
  const size_t fw = static_cast<size_t>(w) + 2;
  for (size_t i = 0; i < fw; ++i) {
    map[i] = boundary;
    map[(static_cast<size_t>(h) + 1) * fw + i] = boundary;
  }
  for (int y = 0; y < h; ++y) {
    T* row = map + (static_cast<size_t>(y) + 1) * fw;
    row[0] = boundary;
    row[w + 1] = boundary;
    std::memcpy(row + 1, rowPtr(marker, step, y), static_cast<size_t>(w) * sizeof(T));
  }
}

// The framed map's interior back into the markers, row by row.
template <class T>
void copyOut(const T* map, KvliSize roi, T* marker, int step) {
  const size_t fw = static_cast<size_t>(roi.width) + 2;
  for (int y = 0; y < roi.height; ++y)
    std::memcpy(rowPtr(marker, step, y), map + (static_cast<size_t>(y) + 1) * fw + 1,
                static_cast<size_t>(roi.width) * sizeof(T));
}

// A label in a plain map or in the queue method's cells.
template <class T>
inline T& labelOf(T& v) {
  return v;
}
template <class T>
inline T& labelOf(QueueCell<T>& c) {
  return c.label;
}
template <class T>
inline T& labelOf(BreadthCell<T>& c) {
  return c.label;
}

// The labels of a framed map of cells back into the markers, row by row, at any alignment;
// rowAt(y) gives image row y's cells from column 0.
template <class T, class RowAt>
void labelsOut(RowAt&& rowAt, KvliSize roi, T* marker, int step) {
  for (int y = 0; y < roi.height; ++y) {
    const auto* row = rowAt(y);
    T* labels = rowPtr(marker, step, y);
    for (int x = 0; x < roi.width; ++x) storeAny(labels + x, row[x].label);
  }
}

// Boundary marking, in row order and in place: a pixel with a region label that has a neighbour
// (the first `n` in offset order: 4 or 8) with another region label becomes the boundary value.
// A pixel marked earlier in the scan therefore no longer counts as a region for the ones after it.
// rowAt(y) gives image row y's cells from column 0, for y from -1 to height, each row framed.
template <class E, class T, class RowAt>
void markBoundsRows(RowAt&& rowAt, KvliSize roi, T boundary, int n) {
  for (int y = 0; y < roi.height; ++y) {
    E* row = rowAt(y);
    E* up = rowAt(y - 1);
    E* down = rowAt(y + 1);
    for (int x = 0; x < roi.width; ++x) {
      const T v = labelOf(row[x]);
      if (v == 0 || v == boundary) continue;
      E* const nb[8] = {row + x - 1, row + x + 1, up + x,       down + x,
                        up + x - 1,  up + x + 1,  down + x - 1, down + x + 1};
      for (int k = 0; k < n; ++k) {
        const T u = labelOf(*nb[k]);
        if (u != 0 && u != boundary && u != v) {
          labelOf(row[x]) = boundary;
          break;
        }
      }
    }
  }
}
template <class E, class T>
void markBounds(E* map, KvliSize roi, T boundary, int n) {
  const ptrdiff_t fw = roi.width + 2;
  markBoundsRows<E>([&](int y) { return map + (y + 1) * fw + 1; }, roi, boundary, n);
}

int boundsNeighbours(int flag) {
  return (flag & kWatershedBounds8) ? 8 : (flag & kWatershedBounds4) ? 4 : 0;
}

// --- Priority-queue flooding --------------------------------------------------------------------

// The label of a newly reached pixel q, entered from p (its neighbour in direction kFrom) with
// label lp: lp, unless q has another neighbour with a different region label. Scanning q's other
// neighbours in offset order, such a label turns a region label into the boundary value (and ends
// the scan), and the boundary value into that label.
template <int kNb, int kFrom, class T>
inline T decide(const QueueCell<T>* q, const ptrdiff_t (&d)[8], T lp, T boundary) {
  constexpr int kOpposite[8] = {1, 0, 3, 2, 7, 6, 5, 4};
  constexpr int skip = kOpposite[kFrom];
  // Mostly every other neighbour is unlabelled, the boundary or lp itself: test that first.
  bool foreign = false;
  for (int j = 0; j < kNb; ++j) {
    if (j == skip) continue;
    const T u = q[d[j]].label;
    foreign |= (u != 0) & (u != boundary) & (u != lp);
  }
  if (!foreign) return lp;
  T v = lp;
  for (int j = 0; j < kNb; ++j) {
    if (j == skip) continue;
    const T u = q[d[j]].label;
    if (u == 0 || u == boundary || u == v) continue;
    if (v != boundary) return boundary;
    v = u;
  }
  return v;
}

// The level queues: chains of chunks (see QueueLayout). A queue's read pointer is null when it
// is empty; its write pointer is the slot after its last entry, a chunk start when that chunk is
// full.
class LevelQueues {
 public:
  // `slots` 32-bit slots at pool, in chunks of `chunk`.
  LevelQueues(int32_t* pool, int chunk, size_t slots)
      : pool_(pool), mask_(chunk - 1), fresh_(pool), end_(pool + slots / chunk * chunk) {
    for (int i = 0; i < kBreadthQueues; ++i) read_[i] = write_[i] = nullptr;
  }
  // Whether a push found no chunk free (its entry is lost; the caller gives up).
  bool overflow() const { return overflow_; }
  bool empty(int level) const { return read_[level] == nullptr; }
  // The front entry of a queue that is not empty.
  int32_t front(int level) const { return *read_[level]; }
  // The entry `d` places behind the front of a queue that is not empty, if it is queued and in
  // the front chunk; else nullptr.
  const int32_t* behind(int level, int d) const {
    const int32_t* p = read_[level];
    if (offset(p) + d > mask_) return nullptr;
    const int32_t* c = p - offset(p);
    const int32_t* w = write_[level];
    // The write pointer is in (or just past) the front chunk when that chunk is the last one.
    if (w > c && w <= c + mask_ + 1 && p + d >= w) return nullptr;
    return p + d;
  }
  [[gnu::always_inline]] void push(int level, int32_t r) {
    int32_t* w = write_[level];
    if (w == nullptr || offset(w) == 0) {
      int32_t* c = take();
      if (c == nullptr) {
        overflow_ = true;
        return;
      }
      if (w == nullptr) {
        read_[level] = c + 1;
      } else {
        w[-(mask_ + 1)] = static_cast<int32_t>(c - pool_);
      }
      w = c + 1;
    }
    *w = r;
    write_[level] = w + 1;
  }
  // The front entry of a queue that is not empty, taken off.
  [[gnu::always_inline]] int32_t pop(int level) {
    int32_t* p = read_[level];
    const int32_t r = *p++;
    if (p == write_[level]) {
      give(p - 1 - offset(p - 1));
      read_[level] = write_[level] = nullptr;
    } else if (offset(p) == 0) {
      int32_t* c = p - (mask_ + 1);
      read_[level] = pool_ + c[0] + 1;
      give(c);
    } else {
      read_[level] = p;
    }
    return r;
  }

 private:
  ptrdiff_t offset(const int32_t* p) const { return (p - pool_) & mask_; }
  int32_t* take() {
    if (free_ == nullptr) {
      if (fresh_ == end_) return nullptr;
      int32_t* c = fresh_;
      fresh_ += mask_ + 1;
      return c;
    }
    int32_t* c = free_;
    free_ = c[0] < 0 ? nullptr : pool_ + c[0];
    return c;
  }
  void give(int32_t* c) {
    c[0] = free_ == nullptr ? -1 : static_cast<int32_t>(free_ - pool_);
    free_ = c;
  }

  int32_t* pool_;
  ptrdiff_t mask_;
  int32_t* fresh_;
  int32_t* end_;
  int32_t* free_ = nullptr;
  bool overflow_ = false;
  // One queue per level, then the distance method's queues of keys just above the one taken.
  int32_t* read_[kBreadthQueues];
  int32_t* write_[kBreadthQueues];
};

template <class T, int kNb, size_t... kK>
inline void reach(QueueCell<T>* p, int32_t r, int level, const ptrdiff_t (&d)[8], T boundary,
                  LevelQueues& queues, std::index_sequence<kK...>) {
  const T lp = p->label;
  // Every unlabelled neighbour joins the queue of its level (a lower one the current level) and
  // takes its label at once, in offset order.
  auto one = [&]<int k>(std::integral_constant<int, k>) {
    QueueCell<T>* q = p + d[k];
    if (q->label != 0) return;
    const int lq = q->level;
    queues.push(lq > level ? lq : level, r + static_cast<int32_t>(d[k]));
    q->label = decide<kNb, k>(q, d, lp, boundary);
  };
  (one(std::integral_constant<int, static_cast<int>(kK)>{}), ...);
}

template <class T, int kNb>
void floodQueue(const Kvl8u* src, int srcStep, T* marker, int markerStep, KvliSize roi, int flag,
                Kvl8u* buffer, T boundary) {
  using Cell = QueueCell<T>;
  const int w = roi.width, h = roi.height;
  const ptrdiff_t fw = w + 2;
  const QueueLayout lay = queueLayout(roi, sizeof(T), watershedBytes(roi, sizeof(T)));
  uint8_t* base = alignUp(buffer, 8);
  Cell* map = reinterpret_cast<Cell*>(base + lay.cells);
  // Pixels are numbered by their framed index less that of the first interior pixel: pixel r is
  // first[r].
  Cell* first = map + fw + 1;
  LevelQueues queues(reinterpret_cast<int32_t*>(base + lay.chunks), lay.chunk,
                     (lay.end - lay.chunks) / 4);
  const Offsets o(fw);

  // The markers and the relief into the cells; the frame reads as the boundary (its levels are
  // never read).
  for (ptrdiff_t i = 0; i < fw; ++i) {
    map[i] = {boundary, 0};
    map[(h + 1) * fw + i] = {boundary, 0};
  }
  for (int y = 0; y < h; ++y) {
    Cell* row = first + y * fw;
    const T* labels = rowPtr(marker, markerStep, y);
    const Kvl8u* levels = rowPtr(src, srcStep, y);
    row[-1] = {boundary, 0};
    row[w] = {boundary, 0};
    for (int x = 0; x < w; ++x) row[x] = {loadAny(labels + x), levels[x]};
  }
  // Labelled pixels beside an unlabelled one join the queue of their own level. Runs of
  // unlabelled pixels are skipped a word at a time.
  constexpr int kPerWord = 8 / sizeof(Cell);
  uint64_t labelBits = 0;
  {
    Cell ones[kPerWord];
    std::memset(ones, 0, sizeof(ones));
    for (Cell& c : ones) c.label = static_cast<T>(~T{0});
    std::memcpy(&labelBits, ones, 8);
  }
  for (int y = 0; y < h; ++y) {
    const int32_t r0 = static_cast<int32_t>(y * fw);
    const Cell* row = first + r0;
    int x = 0;
    while (x < w) {
      if (x + kPerWord <= w) {
        uint64_t word;
        std::memcpy(&word, row + x, 8);
        if ((word & labelBits) == 0) {
          x += kPerWord;
          continue;
        }
      }
      if (row[x].label != 0) {
        for (int k = 0; k < kNb; ++k) {
          if (row[x + o.d[k]].label == 0) {
            queues.push(row[x].level, r0 + x);
            break;
          }
        }
      }
      ++x;
    }
  }
  // The boundary marking of the same scan changes labelled pixels only, which the queueing test
  // above does not tell apart, so it may run as a pass of its own.
  if (const int bn = boundsNeighbours(flag)) markBounds(map, roi, boundary, bn);

  for (int level = 0; level < kLevels; ++level) {
    while (!queues.empty(level)) {
      const int32_t r = queues.pop(level);
      reach<T, kNb>(first + r, r, level, o.d, boundary, queues, std::make_index_sequence<kNb>{});
    }
  }
  labelsOut([&](int y) { return first + y * fw; }, roi, marker, markerStep);
}

// --- Distance method ----------------------------------------------------------------------------

template <class T>
struct Field {
  const Kvl8u* src;
  int srcStep;
  int w, h;
  ptrdiff_t fw;
  int32_t* key;   // height rows of fw keys, the first and last of each row walls
  int32_t* wall;  // fw walls: the rows above and below the image
  T* label;       // the framed label map
  T boundary;
  // Image row y's keys from column 0 (column -1 and width are walls); walls outside the image.
  int32_t* row(int y) const { return (y < 0 || y >= h ? wall : key + y * fw) + 1; }
};

// The eikonal update in fixed point from the smaller key along x (t1) and along y (t2):
// min + unit when |t1 - t2| >= unit, else floor((t1 + t2 + floor(sqrt(2 unit^2 - (t1 - t2)^2))) / 2),
// raised to max(t1, t2) + 1 where the rounding leaves it at max(t1, t2).
struct MarchTable {
  int32_t root[kMarchUnit];
  MarchTable() {
    for (int d = 0; d < kMarchUnit; ++d) {
      const int v = 2 * kMarchUnit * kMarchUnit - d * d;
      int r = 0;
      while ((r + 1) * (r + 1) <= v) ++r;
      root[d] = r;
    }
  }
};
const MarchTable kMarch;

// The least path cost into pixel x of the middle row from its neighbours, before the level:
// kKeyUnreached when no neighbour is reached. `parents` receives the bit of each neighbour
// (offset order) the cost comes from.
template <int kNorm>
inline int32_t arrival(const int32_t* const k[3], int x, unsigned* parents) {
  const int32_t nb[8] = {k[1][x - 1], k[1][x + 1], k[0][x], k[2][x],
                         k[0][x - 1], k[0][x + 1], k[2][x - 1], k[2][x + 1]};
  unsigned from = 0;
  int64_t best = kKeyUnreached;
  if constexpr (kNorm == 3) {
    const int32_t t1 = nb[0] < nb[1] ? nb[0] : nb[1];
    const int32_t t2 = nb[2] < nb[3] ? nb[2] : nb[3];
    const bool r1 = t1 < kKeyUnreached, r2 = t2 < kKeyUnreached;
    if (!r1 && !r2) {
      *parents = 0;
      return kKeyUnreached;
    }
    const int64_t d = r1 && r2 ? (t1 > t2 ? t1 - t2 : t2 - t1) : kMarchUnit;
    bool useX = r1, useY = r2;
    if (d >= kMarchUnit) {
      useX = r1 && (!r2 || t1 < t2);
      useY = !useX;
      best = static_cast<int64_t>(useX ? t1 : t2) + kMarchUnit;
    } else {
      // At least one above the larger key, so a parent's key is always below its child's.
      best = (static_cast<int64_t>(t1) + t2 + kMarch.root[d]) >> 1;
      const int64_t above = static_cast<int64_t>(t1 > t2 ? t1 : t2) + 1;
      if (best < above) best = above;
    }
    if (useX) from |= (nb[0] == t1 ? 1u : 0u) | (nb[1] == t1 ? 2u : 0u);
    if (useY) from |= (nb[2] == t2 ? 4u : 0u) | (nb[3] == t2 ? 8u : 0u);
  } else {
    constexpr StepCost c = kStepCost[kNorm];
    constexpr int n = c.diagonal != 0 ? 8 : 4;
    for (int i = 0; i < n; ++i) {
      if (nb[i] >= kKeyUnreached) continue;
      const int64_t v = static_cast<int64_t>(nb[i]) + (i < 4 ? c.axis : c.diagonal);
      if (v < best) {
        best = v;
        from = 1u << i;
      } else if (v == best) {
        from |= 1u << i;
      }
    }
  }
  if (best >= kKeyUnreached) {
    *parents = 0;
    return kKeyUnreached;
  }
  *parents = from;
  return static_cast<int32_t>(best);
}

// The cost alone, as arrival computes it, for the sweeps: a neighbour not reached (or a wall)
// contributes at least kKeyUnreached, and the 64-bit sums cannot wrap.
template <int kNorm>
inline int64_t cost(const int32_t* const k[3], int x) {
  if constexpr (kNorm == 3) {
    const int64_t t1 = k[1][x - 1] < k[1][x + 1] ? k[1][x - 1] : k[1][x + 1];
    const int64_t t2 = k[0][x] < k[2][x] ? k[0][x] : k[2][x];
    const int64_t lo = t1 < t2 ? t1 : t2, hi = t1 < t2 ? t2 : t1;
    if (lo >= kKeyUnreached) return kKeyUnreached;
    const int64_t d = hi - lo;
    if (d >= kMarchUnit || hi >= kKeyUnreached) return lo + kMarchUnit;  // one axis decides
    const int64_t g = (lo + hi + kMarch.root[d]) >> 1;
    return g > hi ? g : hi + 1;
  } else {
    constexpr StepCost c = kStepCost[kNorm];
    auto low = [](int64_t a, int64_t b) { return a < b ? a : b; };
    int64_t best = low(low(k[1][x - 1], k[1][x + 1]), low(k[0][x], k[2][x])) + c.axis;
    if constexpr (c.diagonal != 0) {
      const int64_t diag = low(low(k[0][x - 1], k[0][x + 1]), low(k[2][x - 1], k[2][x + 1]));
      best = low(best, diag + c.diagonal);
    }
    return best;
  }
}

// One row of a key sweep, in place; returns how many keys went down.
template <int kNorm, class T>
int keyRow(const Field<T>& f, int y, const int32_t* const k[3], bool forward) {
  int32_t* key = const_cast<int32_t*>(k[1]);
  const T* label = f.label + (y + 1) * f.fw + 1;
  const Kvl8u* level = rowPtr(f.src, f.srcStep, y);
  int changes = 0;
  for (int i = 0; i < f.w; ++i) {
    const int x = forward ? i : f.w - 1 - i;
    const int32_t floor = static_cast<int32_t>(level[x]) << kLevelShift;
    // Markers and walls keep their keys; a key at its level's floor cannot go lower.
    if (label[x] != 0 || key[x] == floor) continue;
    int64_t c = cost<kNorm>(k, x);
    if (c >= kKeyUnreached) continue;
    if (c < floor) c = floor;
    if (c < key[x]) {
      key[x] = static_cast<int32_t>(c);
      ++changes;
    }
  }
  return changes;
}

// The parents of pixel (x, y) (bits in offset order).
template <int kNorm, class T>
unsigned parentsAt(const Field<T>& f, int x, int y) {
  const int32_t* k[3] = {f.row(y - 1), f.row(y), f.row(y + 1)};
  unsigned parents;
  arrival<kNorm>(k, x, &parents);
  return parents;
}

// Labels down the keys, in a topological order of the parent relation: a pixel is labelled once
// its last parent is. Parents that are not mixed decide (one label: that label; several: mixed,
// carrying the smallest); a pixel whose parents are all mixed takes the smallest of their
// labels, unmixed. `waiting` (framed like the labels) holds, for an unlabelled pixel, its parents
// not yet labelled, and for a labelled one whether it is mixed; `stack` the labelled pixels whose
// children are still to visit.
template <int kNorm, class T>
void labelDown(const Field<T>& f, uint8_t* waiting, int32_t* stack) {
  const Offsets o(f.fw);
  static constexpr int kOpposite[8] = {1, 0, 3, 2, 7, 6, 5, 4};
  size_t top = 0;
  std::memset(waiting, 0, static_cast<size_t>(f.fw) * (f.h + 2));
  for (int y = 0; y < f.h; ++y) {
    const ptrdiff_t row = (y + 1) * f.fw + 1;
    for (int x = 0; x < f.w; ++x) {
      const ptrdiff_t i = row + x;
      if (f.row(y)[x] >= kKeyUnreached) continue;
      if (f.label[i] != 0) {
        stack[top++] = static_cast<int32_t>(i);
      } else {
        waiting[i] = static_cast<uint8_t>(parentsAt<kNorm>(f, x, y));
      }
    }
  }
  constexpr int n = kNorm == 1 || kNorm == 3 ? 4 : 8;
  while (top > 0) {
    const ptrdiff_t s = stack[--top];
    for (int k = 0; k < n; ++k) {
      const ptrdiff_t c = s + o.d[k];
      const uint8_t bit = static_cast<uint8_t>(1u << kOpposite[k]);
      if (f.label[c] != 0 || !(waiting[c] & bit)) continue;
      waiting[c] = static_cast<uint8_t>(waiting[c] & ~bit);
      if (waiting[c] != 0) continue;
      const unsigned parents = parentsAt<kNorm>(f, static_cast<int>(c % f.fw) - 1, static_cast<int>(c / f.fw) - 1);
      T plain = 0, least = 0;
      bool several = false;
      for (int j = 0; j < 8; ++j) {
        if (!(parents & (1u << j))) continue;
        const T u = f.label[c + o.d[j]];
        if (least == 0 || u < least) least = u;
        if (waiting[c + o.d[j]]) continue;
        if (plain == 0) {
          plain = u;
        } else if (u != plain) {
          several = true;
          if (u < plain) plain = u;
        }
      }
      f.label[c] = plain != 0 ? plain : least;
      waiting[c] = several ? 1 : 0;
      stack[top++] = static_cast<int32_t>(c);
    }
  }
}

// The distance method in key order: a pixel is taken when no waiting pixel has a smaller key.
// Its parents all have smaller keys, so they are labelled when it is taken, and it is labelled
// then. Pixels entered at their level's floor (and the markers) wait in one queue per level; a
// floor is the least key a pixel can have, so that entry is final. With unit steps (norms 0 and
// 1) the first cost a pixel is offered (max(its floor, key + 1) from the pixel being taken) is
// its key, as later pixels are taken at keys no smaller: pixels offered key + 1 join one
// first-in-first-out queue, whose keys never decrease. With larger steps (norm 2) or the
// eikonal update (norm 3, recomputed from the pixel's neighbours at every offer) a key can go
// down after its first offer: such pixels wait in the queue of their key modulo a window wider
// than any step, and an entry whose pixel has since moved lower is passed over. Fast marching in
// this order gives the sweeps' keys, as the update is monotone and always above the keys it uses.
//
// The rows are split into stripes, each flooded in its own block of cells by one thread. The row
// above and the row below a block hold copies of the neighbouring stripes' edge rows (keys, labels
// and mixed flags) as they stood after the last pass; they join the flood in key order, already
// labelled, and are never offered a key. The first pass floods every stripe with walls in the
// copies; each later pass brings up to date the stripes whose copies changed, and passes repeat
// until none did. Every key starts at least at its final value and only goes down, so the copies
// settle; once the keys have, each pass fixes the labels of every pixel whose parents' labels
// were fixed before it. The passes therefore end, at the keys and labels of one flood over the
// whole image, whatever the number of stripes.
//
// A later pass revisits only what a changed copy reaches: in key order (a heap, in the room of the
// stripe's queues), a pixel whose key went down, or a neighbour of smaller key changed, is
// labelled again, and if it changed its neighbours of larger key are revisited in turn. Should the
// heap fill up, the stripe is flooded again from its markers instead.
static_assert(kBreadthMaxStripes >= par::kWatershedMaxTeam);

template <int kNorm, class T>
class BreadthFlood {
 public:
  using Cell = BreadthCell<T>;
  static constexpr bool kUnit = kNorm <= 1;
  static constexpr int kNb = kNorm == 0 || kNorm == 2 ? 8 : 4;
  static constexpr uint32_t kUnreached = kKeyUnreached, kWall = kKeyWall;
  // Norms 2 and 3: queues for the keys just above the one taken, after the level queues. Offers
  // reach up to 7 above it for the weighted norm and 16 for fast marching; kNear is a power of
  // two above that, so a key's queue is key & (kNear - 1). Unit steps use one queue, kNext.
  static constexpr int kNear = kNorm == 2 ? 8 : kNorm == 3 ? 32 : 1;
  static_assert(kNorm < 2 || (kNear & (kNear - 1)) == 0);
  static_assert(kNorm != 3 || kNear > kMarchUnit);
  static_assert(kLevels + kNear <= kBreadthQueues);
  static constexpr int kNext = kLevels;  // unit steps: the queue of keys one above the key taken

  BreadthFlood(const Kvl8u* src, int srcStep, const T* marker, int markerStep, KvliSize roi,
               const BreadthLayout& lay, Kvl8u* buffer, T boundary)
      : src_(src), srcStep_(srcStep), marker_(marker), markerStep_(markerStep), w_(roi.width),
        h_(roi.height), fw_(roi.width + 2), lay_(lay), base_(alignUp(buffer, 8)),
        boundary_(boundary), wall_{kWall, boundary, kBreadthFixed, 0}, o_(roi.width + 2) {}

  // Image row y's cells from column 0, for y from -1 to height: the rows beyond the image are
  // the copy rows of the first and last blocks, which hold walls.
  Cell* rowAt(int y) const {
    if (y < 0) return block(0) + 1;
    if (y >= h_) return block(lay_.stripes - 1) + (lay_.rows[lay_.stripes - 1] + 1) * fw_ + 1;
    int s = y / lay_.rows[0];
    if (s >= lay_.stripes) s = lay_.stripes - 1;
    return block(s) + (y - lay_.y0[s] + 1) * fw_ + 1;
  }

  // Sets the copy rows of stripe s: walls in the first pass, then the neighbours' edge rows
  // (their reached cells; the others read as walls). Lists the cells that changed and returns
  // whether any did.
  bool copyEdges(int s, bool first) {
    Cell* b = block(s);
    const int rows = lay_.rows[s];
    int32_t* list = order(s);
    int n = 0;
    auto copy = [&](ptrdiff_t r, const Cell* from) {
      Cell* to = b + r * fw_;
      for (ptrdiff_t x = 0; x < fw_; ++x) {
        Cell c = from == nullptr || from[x].key >= kUnreached ? wall_ : from[x];
        c.bits = static_cast<uint8_t>((c.bits & kBreadthMixed) | kBreadthFixed);
        if (first || to[x].key != c.key || to[x].label != c.label || to[x].bits != c.bits) {
          to[x] = c;
          if (!first) list[n++] = static_cast<int32_t>(r * fw_ + x);
        }
      }
    };
    copy(0, first || s == 0 ? nullptr : block(s - 1) + lay_.rows[s - 1] * fw_);
    copy(rows + 1, first || s + 1 == lay_.stripes ? nullptr : block(s + 1) + fw_);
    changes_[s] = n;
    return n > 0;
  }

  // Floods stripe s from its markers and its copy rows; false when the queues ran out of room
  // (only a relief built to make keys go down again and again can do that).
  bool flood(int s) {
    Cell* cell = block(s);
    const int rows = lay_.rows[s], y0 = lay_.y0[s];
    LevelQueues queues(reinterpret_cast<int32_t*>(base_ + lay_.chunks[s]), lay_.chunk,
                       slots(s));
    int lowest = kLevels;  // no level's queue below this one holds a pixel
    auto enlist = [&](int queue, int32_t i) __attribute__((always_inline)) {
      queues.push(queue, i);
      lowest = queue < lowest ? queue : lowest;
    };
    // The markers with the boundary value are walls; the other markers join the queue of their
    // level.
    for (int r = 1; r <= rows; ++r) {
      Cell* row = cell + r * fw_;
      const Kvl8u* level = rowPtr(src_, srcStep_, y0 + r - 1);
      const T* labels = rowPtr(marker_, markerStep_, y0 + r - 1);
      row[0] = row[fw_ - 1] = wall_;
      for (int x = 0; x < w_; ++x) {
        const T v = loadAny(labels + x);
        const uint8_t l = level[x];
        if (v == 0) {
          row[x + 1] = Cell{kUnreached, 0, 0, l};
        } else if (v == boundary_) {
          row[x + 1] = Cell{kWall, v, kBreadthFixed, l};
        } else {
          row[x + 1] = Cell{static_cast<uint32_t>(l) << kLevelShift, v, kBreadthFixed, l};
          enlist(l, static_cast<int32_t>(r * fw_ + x + 1));
        }
      }
    }
    // The reached cells of the copy rows, in key order.
    int32_t* edge = order(s);
    int edges = 0, taken = 0;
    if (lay_.stripes > 1) {
      for (const ptrdiff_t r : {ptrdiff_t{0}, static_cast<ptrdiff_t>(rows + 1)})
        for (ptrdiff_t x = 1; x <= w_; ++x)
          if (cell[r * fw_ + x].key < kUnreached) edge[edges++] = static_cast<int32_t>(r * fw_ + x);
      std::sort(edge, edge + edges, [&](int32_t a, int32_t b) { return cell[a].key < cell[b].key; });
    }

    // With steps above one (norms 2 and 3) a key can go down after its first offer, so a pixel
    // may wait in a queue more than once; an entry whose pixel's key is no longer its queue's is
    // passed over. Near queue kLevels + (key & (kNear - 1)) holds the keys from the key last
    // taken (`now`) to at most kNear - 1 above it, so no two keys waiting share a queue.
    constexpr uint32_t kMask = kNear - 1;
    uint32_t now = 0;
    uint32_t nearMin = kWall;  // no near queue holds a key below this
    int near = 0;              // entries in the near queues
    for (;;) {
      if constexpr (!kUnit) {
        if (queues.overflow()) return false;
      }
      while (lowest < kLevels && queues.empty(lowest)) ++lowest;
      uint32_t least = lowest < kLevels ? static_cast<uint32_t>(lowest) << kLevelShift : kWall;
      int from = lowest;
      if constexpr (kUnit) {
        if (!queues.empty(kNext) && cell[queues.front(kNext)].key <= least) {
          from = kNext;
          least = cell[queues.front(kNext)].key;
        }
      } else if (near > 0) {
        uint32_t key = nearMin < now ? now : nearMin;
        while (queues.empty(kLevels + static_cast<int>(key & kMask))) ++key;
        nearMin = key;
        if (key <= least) {
          least = key;
          from = kLevels + static_cast<int>(key & kMask);
        }
      }
      int32_t i;
      if (taken < edges && cell[edge[taken]].key < least) {
        i = edge[taken++];
      } else if (least == kWall) {
        break;
      } else {
        if constexpr (!kUnit) near -= from >= kLevels ? 1 : 0;
        i = popAhead(queues, from, cell);
        if constexpr (!kUnit) {
          if (cell[i].key != least) continue;
        }
      }
      Cell* c = cell + i;
      const uint32_t k = c->key;
      if constexpr (kUnit) {
        if (c->label == 0) label(c, from == kNext ? k - 1 : least1(c));
        // The neighbours not yet offered a key: key + 1 puts them in the first queue, their
        // floor (when higher) in their level's. The queue is chosen without a branch, as both
        // are common.
        const uint32_t up = k + 1;
        if (up >= kUnreached) continue;
        for (int j = 0; j < kNb; ++j) {
          Cell& q = c[o_.d[j]];
          if (q.key != kUnreached) continue;
          const uint32_t fl = static_cast<uint32_t>(q.level) << kLevelShift;
          const bool next = up >= fl;
          q.key = next ? up : fl;
          enlist(next ? kNext : q.level, i + static_cast<int32_t>(o_.d[j]));
        }
      } else {
        now = k;
        if (c->label == 0) labelFrom(c, parents(c));
        for (int j = 0; j < kNb; ++j) {
          const int32_t qi = i + static_cast<int32_t>(o_.d[j]);
          Cell& q = cell[qi];
          if (q.bits & kBreadthFixed) continue;
          const uint32_t offer = offerFrom(k, j, &q);
          if (offer >= q.key) continue;
          q.key = offer;
          const bool floor = offer == static_cast<uint32_t>(q.level) << kLevelShift;
          const int queue = floor ? q.level : kLevels + static_cast<int>(offer & kMask);
          if (!floor) {
            ++near;
            nearMin = offer < nearMin ? offer : nearMin;
          }
          enlist(queue, qi);
        }
      }
    }
    return !queues.overflow();
  }

  // Brings stripe s up to date with its copy cells that changed; floods it again from its
  // markers if the heap runs out of room. False when that flood runs out of room too.
  bool update(int s) {
    Cell* cell = block(s);
    uint64_t* heap = reinterpret_cast<uint64_t*>(base_ + lay_.chunks[s]);
    const size_t room = slots(s) / 2;
    size_t n = 0;
    auto push = [&](uint32_t key, int32_t i) {
      if (n == room) return false;
      heap[n++] = static_cast<uint64_t>(key) << 32 | static_cast<uint32_t>(i);
      std::push_heap(heap, heap + n, std::greater<uint64_t>());
      return true;
    };
    // Pixel i changed: neighbours it now offers a lower key move down; the others of larger key
    // may count it among their parents, so they are labelled again too.
    auto spread = [&](int32_t i) {
      const uint32_t k = cell[i].key;
      for (int j = 0; j < kNb; ++j) {
        const int32_t qi = i + static_cast<int32_t>(o_.d[j]);
        Cell& q = cell[qi];
        if (q.bits & kBreadthFixed) continue;
        const uint32_t offer = offerFrom(k, j, &q);
        if (offer < q.key) {
          q.key = offer;
          q.bits |= kBreadthMoved;
          if (!push(offer, qi)) return false;
        } else if (k < q.key && q.key < kUnreached) {
          if (!push(q.key, qi)) return false;
        }
      }
      return true;
    };
    bool fits = true;
    const int32_t* list = order(s);
    for (int e = 0; fits && e < changes_[s]; ++e) fits = spread(list[e]);
    while (fits && n > 0) {
      std::pop_heap(heap, heap + n, std::greater<uint64_t>());
      const uint64_t top = heap[--n];
      const int32_t i = static_cast<int32_t>(static_cast<uint32_t>(top));
      Cell* c = cell + i;
      if (c->key != static_cast<uint32_t>(top >> 32)) continue;  // moved lower since
      const T was = c->label;
      const uint8_t bits = c->bits;
      if constexpr (kUnit) {
        label(c, least1(c));
      } else {
        labelFrom(c, parents(c));
      }
      if ((bits & kBreadthMoved) || c->label != was || c->bits != bits) fits = spread(i);
    }
    return fits || flood(s);
  }

  // After the last pass: pixels whose parents carry several labels become boundaries, boundary
  // marking runs over the whole image, and the labels go back to the markers.
  void finish(int flag, T* marker) const {
    for (int y = 0; y < h_; ++y) {
      Cell* row = rowAt(y);
      for (int x = 0; x < w_; ++x)
        if (row[x].bits & kBreadthMixed) row[x].label = boundary_;
    }
    if (const int bn = boundsNeighbours(flag))
      markBoundsRows<Cell>([&](int y) { return rowAt(y); }, {w_, h_}, boundary_, bn);
    labelsOut([&](int y) { return rowAt(y); }, {w_, h_}, marker, markerStep_);
  }

 private:
  Cell* block(int s) const { return reinterpret_cast<Cell*>(base_ + lay_.cells[s]); }
  int32_t* order(int s) const { return reinterpret_cast<int32_t*>(base_ + lay_.order[s]); }
  // The 32-bit slots of stripe s's queue room.
  size_t slots(int s) const {
    const size_t end = s + 1 < lay_.stripes ? lay_.chunks[s + 1] : lay_.end;
    return (end - lay_.chunks[s]) / 4;
  }

  // The front of a queue, taken off. Pixels in a queue were mostly queued long before: the
  // neighbourhood of the one 8 places behind is fetched ahead.
  [[gnu::always_inline]] int32_t popAhead(LevelQueues& queues, int from, const Cell* cell) const {
    if (const int32_t* a = queues.behind(from, 8)) {
      __builtin_prefetch(cell + *a - fw_);
      __builtin_prefetch(cell + *a);
      __builtin_prefetch(cell + *a + fw_);
    }
    return queues.pop(from);
  }

  // The key pixel q (neighbour j of a pixel of key k) is offered: max(its floor, the cost from
  // that pixel's key), kUnreached when out of reach. Fast marching works the cost out from q's
  // neighbours as they stand, the pixel of key k among them.
  [[gnu::always_inline]] uint32_t offerFrom(uint32_t k, int j, const Cell* q) const {
    int64_t cost;
    if constexpr (kNorm == 3) {
      (void)k;
      (void)j;
      const int64_t t1 = q[-1].key < q[1].key ? q[-1].key : q[1].key;
      const int64_t t2 = q[-fw_].key < q[fw_].key ? q[-fw_].key : q[fw_].key;
      const int64_t lo = t1 < t2 ? t1 : t2, hi = t1 < t2 ? t2 : t1;
      if (lo >= kUnreached) return kUnreached;
      const int64_t d = hi - lo;
      if (d >= kMarchUnit || hi >= kUnreached) {
        cost = lo + kMarchUnit;  // one axis decides
      } else {
        const int64_t g = (lo + hi + kMarch.root[d]) >> 1;
        cost = g > hi ? g : hi + 1;
      }
    } else {
      constexpr StepCost c = kStepCost[kNorm];
      cost = static_cast<int64_t>(k) + (j < 4 ? c.axis : c.diagonal);
    }
    if (cost >= kUnreached) return kUnreached;
    const uint32_t fl = static_cast<uint32_t>(q->level) << kLevelShift;
    return static_cast<uint32_t>(cost) < fl ? fl : static_cast<uint32_t>(cost);
  }

  // Unit steps: the least key among the neighbours of c.
  [[gnu::always_inline]] uint32_t least1(const Cell* c) const {
    uint32_t b = kUnreached;
    for (int j = 0; j < kNb; ++j) {
      const uint32_t u = c[o_.d[j]].key;
      b = u < b ? u : b;
    }
    return b;
  }

  // Unit steps: labels pixel c from its parents, its neighbours whose key is `best`. A pixel
  // offered key + 1 by the pixel taken at key has its parents at that key (any lower one would
  // have been taken, and have offered its own, before).
  [[gnu::always_inline]] void label(Cell* c, uint32_t best) const {
    // Mostly the parents carry one label and none is mixed: test that without branches first.
    T one = 0;
    for (int j = 0; j < kNb; ++j) {
      const Cell& pj = c[o_.d[j]];
      const T u = pj.key == best ? pj.label : T{0};
      one = u > one ? u : one;
    }
    bool odd = false;
    for (int j = 0; j < kNb; ++j) {
      const Cell& pj = c[o_.d[j]];
      odd |= (pj.key == best) & ((pj.label != one) | ((pj.bits & kBreadthMixed) != 0));
    }
    if (!odd) {
      c->label = one;
      c->bits = 0;
      return;
    }
    unsigned mask = 0;
    for (int j = 0; j < kNb; ++j) mask |= (c[o_.d[j]].key == best ? 1u : 0u) << j;
    labelFrom(c, mask);
  }

  // The parents of c (bits in offset order): the reached neighbours its cost comes from.
  [[gnu::always_inline]] unsigned parents(const Cell* c) const {
    uint32_t nb[8];
    for (int j = 0; j < kNb; ++j) nb[j] = c[o_.d[j]].key;
    unsigned from = 0;
    if constexpr (kNorm == 3) {
      const uint32_t t1 = nb[0] < nb[1] ? nb[0] : nb[1];
      const uint32_t t2 = nb[2] < nb[3] ? nb[2] : nb[3];
      const bool r1 = t1 < kUnreached, r2 = t2 < kUnreached;
      const uint32_t d = r1 && r2 ? (t1 > t2 ? t1 - t2 : t2 - t1) : kMarchUnit;
      bool useX = r1, useY = r2;
      if (d >= static_cast<uint32_t>(kMarchUnit)) {
        useX = r1 && (!r2 || t1 < t2);
        useY = !useX && r2;
      }
      if (useX) from |= (nb[0] == t1 ? 1u : 0u) | (nb[1] == t1 ? 2u : 0u);
      if (useY) from |= (nb[2] == t2 ? 4u : 0u) | (nb[3] == t2 ? 8u : 0u);
    } else {
      // Costs in 32 bits: keys are below 2^31, steps small.
      constexpr StepCost sc = kStepCost[kNorm];
      uint32_t cost[8], best = kUnreached;
      for (int j = 0; j < kNb; ++j) {
        cost[j] = nb[j] + static_cast<uint32_t>(j < 4 ? sc.axis : sc.diagonal);
        best = cost[j] < best ? cost[j] : best;
      }
      for (int j = 0; j < kNb; ++j) from |= (cost[j] == best && nb[j] < kUnreached ? 1u : 0u) << j;
    }
    return from;
  }

  // Labels pixel c from the parents in `mask`: the parents that are not mixed decide (one label:
  // that label; several: mixed, carrying the smallest); when all are mixed, the smallest label
  // they carry, unmixed.
  void labelFrom(Cell* c, unsigned mask) const {
    // Mostly the parents carry one label and none is mixed: test that without branches first.
    T one = 0;
    for (int j = 0; j < kNb; ++j) {
      const T u = (mask >> j) & 1 ? c[o_.d[j]].label : T{0};
      one = u > one ? u : one;
    }
    bool odd = false;
    for (int j = 0; j < kNb; ++j) {
      const Cell& pj = c[o_.d[j]];
      odd |= ((mask >> j) & 1) != 0 && (pj.label != one || (pj.bits & kBreadthMixed) != 0);
    }
    if (!odd) {
      c->label = one;
      c->bits = 0;
      return;
    }
    T plain = 0, least = 0;
    bool several = false;
    for (int j = 0; j < kNb; ++j) {
      if (!(mask & (1u << j))) continue;
      const Cell& pj = c[o_.d[j]];
      const T u = pj.label;
      if (least == 0 || u < least) least = u;
      if (pj.bits & kBreadthMixed) continue;
      if (plain == 0) {
        plain = u;
      } else if (u != plain) {
        several = true;
        if (u < plain) plain = u;
      }
    }
    c->label = plain != 0 ? plain : least;
    c->bits = several ? kBreadthMixed : 0;
  }

  const Kvl8u* src_;
  int srcStep_;
  const T* marker_;
  int markerStep_;
  int w_, h_;
  ptrdiff_t fw_;
  const BreadthLayout& lay_;
  uint8_t* base_;
  T boundary_;
  Cell wall_;
  Offsets o_;
  int changes_[kBreadthMaxStripes] = {};
};

// The key-order flood over the layout's stripes; false (having written no marker) when its
// queues ran out of room, for the sweeps to take over.
template <int kNorm, class T>
bool floodBreadth(const Kvl8u* src, int srcStep, T* marker, int markerStep, KvliSize roi,
                  int flag, Kvl8u* buffer, T boundary, const BreadthLayout& lay, int team) {
  BreadthFlood<kNorm, T> f(src, srcStep, marker, markerStep, roi, lay, buffer, boundary);
  bool changed[kBreadthMaxStripes], fits[kBreadthMaxStripes];
  auto allFit = [&] {
    for (int s = 0; s < lay.stripes; ++s)
      if (!fits[s]) return false;
    return true;
  };
  par::runEach(team, lay.stripes, [&](int s) {
    f.copyEdges(s, true);
    fits[s] = f.flood(s);
  });
  if (!allFit()) return false;
  while (lay.stripes > 1) {
    par::runEach(team, lay.stripes, [&](int s) { changed[s] = f.copyEdges(s, false); });
    bool any = false;
    for (int s = 0; s < lay.stripes; ++s) any |= changed[s];
    if (!any) break;
    par::runEach(team, lay.stripes, [&](int s) { fits[s] = !changed[s] || f.update(s); });
    if (!allFit()) return false;
  }
  f.finish(flag, marker);
  return true;
}

template <int kNorm, class T>
void floodDistance(const Kvl8u* src, int srcStep, T* marker, int markerStep, KvliSize roi,
                   int flag, Kvl8u* buffer, T boundary) {
  const int w = roi.width, h = roi.height;
  const ptrdiff_t fw = w + 2;
  int team = par::teamWatershed(roi);
  DistanceLayout lay = distanceLayout(roi, sizeof(T), team);
  if (static_cast<long long>(lay.end) + 7 > watershedBytes(roi, sizeof(T))) {
    team = 1;
    lay = distanceLayout(roi, sizeof(T), 1);
  }
  uint8_t* base = alignUp(buffer, 8);
  int32_t* keys = reinterpret_cast<int32_t*>(base + lay.keys);
  Field<T> f{src, srcStep, w, h, fw, keys, keys + static_cast<size_t>(fw) * h,
             reinterpret_cast<T*>(base + lay.labels), boundary};
  uint8_t* waiting = base + lay.waiting;
  uint8_t* dirty = base + lay.dirty;

  copyIn(marker, markerStep, roi, f.label, boundary);
  for (ptrdiff_t i = 0; i < fw; ++i) f.wall[i] = kKeyWall;
  for (int y = 0; y < h; ++y) {
    int32_t* key = f.row(y);
    const T* label = f.label + (y + 1) * fw + 1;
    const Kvl8u* level = rowPtr(src, srcStep, y);
    key[-1] = kKeyWall;
    key[w] = kKeyWall;
    for (int x = 0; x < w; ++x) {
      const T v = label[x];
      key[x] = v == 0 ? kKeyUnreached
               : v == boundary ? kKeyWall
                               : static_cast<int32_t>(level[x]) << kLevelShift;
    }
  }
  std::memset(dirty, 1, static_cast<size_t>(h));

  // Passes of a forward and a backward sweep over every stripe until one lowers no key. A stripe
  // reads the rows beside it from copies taken at the start of the pass, and sweeps only the rows
  // whose neighbourhood changed since they were last swept (`dirty`); the rows beside it that its
  // changes make dirty are marked between passes.
  struct Slot {
    int changes;
    int dirtyAbove, dirtyBelow;  // rows of other stripes to mark, or -1
  };
  Slot slots[par::kWatershedMaxTeam];
  for (;;) {
    for (Slot& sl : slots) sl = {0, -1, -1};
    auto copyHalo = [&](const par::Stripe& s) {
      if (team <= 1) return;
      int32_t* halo = reinterpret_cast<int32_t*>(base + lay.halos + s.index * lay.haloBytes);
      std::memcpy(halo, f.row(s.y0 - 1) - 1, fw * sizeof(int32_t));
      std::memcpy(halo + fw, f.row(s.y0 + s.rows) - 1, fw * sizeof(int32_t));
    };
    auto sweepStripe = [&](const par::Stripe& s) {
      const int32_t* halo =
          team > 1 ? reinterpret_cast<int32_t*>(base + lay.halos + s.index * lay.haloBytes) : nullptr;
      const int y1 = s.y0 + s.rows;
      Slot& sl = slots[s.index];
      auto sweep = [&](int y, bool forward) {
        if (!dirty[y]) return;
        dirty[y] = 0;
        const int32_t* k[3];
        for (int j = 0; j < 3; ++j) {
          const int r = y - 1 + j;
          k[j] = (halo && r < s.y0) ? halo + 1 : (halo && r >= y1) ? halo + fw + 1 : f.row(r);
        }
        const int c = keyRow<kNorm>(f, y, k, forward);
        if (c == 0) return;
        sl.changes += c;
        dirty[y] = 1;
        if (y > s.y0) dirty[y - 1] = 1; else if (y > 0) sl.dirtyAbove = y - 1;
        if (y + 1 < y1) dirty[y + 1] = 1; else if (y + 1 < h) sl.dirtyBelow = y + 1;
      };
      for (int y = s.y0; y < y1; ++y) sweep(y, true);
      for (int y = y1 - 1; y >= s.y0; --y) sweep(y, false);
    };
    par::runStripesPhased(team, h, copyHalo, sweepStripe);
    int total = 0;
    for (const Slot& sl : slots) {
      total += sl.changes;
      if (sl.dirtyAbove >= 0) dirty[sl.dirtyAbove] = 1;
      if (sl.dirtyBelow >= 0) dirty[sl.dirtyBelow] = 1;
    }
    if (total == 0) break;
  }

  labelDown<kNorm>(f, waiting, reinterpret_cast<int32_t*>(base + lay.stack));
  for (int y = 0; y < h; ++y) {
    T* label = f.label + (y + 1) * fw + 1;
    const uint8_t* mixed = waiting + (y + 1) * fw + 1;
    for (int x = 0; x < w; ++x)
      if (label[x] != 0 && mixed[x]) label[x] = boundary;
  }
  if (const int bn = boundsNeighbours(flag)) markBounds(f.label, roi, boundary, bn);
  copyOut(f.label, roi, marker, markerStep);
}

// --- Entry ------------------------------------------------------------------------------------

template <class T>
KvlStatus bufferSize(KvliSize roi, int* bytes) {
  KVL_TRY(check::nonNull(bytes));
  KVL_TRY(check::roi(roi));
  *bytes = watershedBytes32(roi, sizeof(T));
  return kvlStatusOk;
}

template <class T>
KvlStatus watershed(const Kvl8u* src, int srcStep, T* marker, int markerStep, KvliSize roi,
                    int norm, int flag, Kvl8u* buffer, T boundary) {
  KVL_TRY(check::nonNull(src));
  KVL_TRY(check::nonNull(marker, buffer));
  if (roi.width < 1 || roi.height < 1) return kvlStatusBadSize;
  // The size formula must fit in 32 bits for the caller to have been able to allocate it.
  if (watershedBytes(roi, sizeof(T)) > INT_MAX) return kvlStatusBadSize;
  if (srcStep < roi.width || markerStep < roi.width) return kvlStatusBadStep;
  if (!(flag & kWatershedQueue)) {
    if (!(flag & kWatershedDistance) || norm < 0 || norm > 3) return kvlStatusBadArgument;
  } else if (norm != 0 && norm != 1) {
    return kvlStatusBadArgument;
  }
  if (flag & kWatershedQueue) {
    if (norm == 0) {
      floodQueue<T, 8>(src, srcStep, marker, markerStep, roi, flag, buffer, boundary);
    } else {
      floodQueue<T, 4>(src, srcStep, marker, markerStep, roi, flag, buffer, boundary);
    }
  } else {
    // A flood in key order, in as many stripes as threads when the buffer holds them; sweeps
    // for images whose buffer is too small for the flood's queues, or whose queues overflow.
    const int team = par::teamWatershed(roi);
    const long long bytes = watershedBytes(roi, sizeof(T));
    BreadthLayout lay = breadthLayout(roi, bytes, team);
    if (lay.stripes == 0 && team > 1) lay = breadthLayout(roi, bytes, 1);
    const int breadthTeam = lay.stripes > 1 ? team : 1;
    auto run = [&]<int kNorm>(std::integral_constant<int, kNorm>) {
      if (lay.stripes == 0 || !floodBreadth<kNorm>(src, srcStep, marker, markerStep, roi, flag,
                                                   buffer, boundary, lay, breadthTeam))
        floodDistance<kNorm>(src, srcStep, marker, markerStep, roi, flag, buffer, boundary);
    };
    switch (norm) {
      case 0:
        run(std::integral_constant<int, 0>{});
        break;
      case 1:
        run(std::integral_constant<int, 1>{});
        break;
      case 2:
        run(std::integral_constant<int, 2>{});
        break;
      default:
        run(std::integral_constant<int, 3>{});
        break;
    }
  }
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::seg

#define KVL_WATERSHED(types, Marker, boundary)                                                    \
  extern "C" KvlStatus impl_kvliSegmentWatershedGetBufferSize_##types##_C1R(KvliSize roiSize,     \
                                                                            int* pBufSize) {      \
    return kvl::seg::bufferSize<Marker>(roiSize, pBufSize);                                       \
  }                                                                                               \
  extern "C" KvlStatus impl_kvliSegmentWatershed_##types##_C1IR(                                  \
      const Kvl8u* pSrc, int srcStep, Marker* pMarker, int markerStep, KvliSize roiSize, int norm, \
      int flag, Kvl8u* pBuffer) {                                                                 \
    return kvl::seg::watershed<Marker>(pSrc, srcStep, pMarker, markerStep, roiSize, norm, flag,   \
                                       pBuffer, boundary);                                        \
  }
KVL_WATERSHED_MEMBERS(KVL_WATERSHED)
#undef KVL_WATERSHED
