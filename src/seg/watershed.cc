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
// keys with one solution, which the label sweeps find whatever their order.
#include "seg/watershed.h"

#include <climits>
#include <cstring>

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

// The same neighbours as column and row steps.
constexpr int kDx[8] = {-1, 1, 0, 0, -1, 1, -1, 1};
constexpr int kDy[8] = {0, 0, -1, 1, -1, -1, 1, 1};

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

// Boundary marking, in row order and in place: a pixel with a region label that has a neighbour
// (the first `n` of the offsets: 4 or 8) with another region label becomes the boundary value.
// A pixel marked earlier in the scan therefore no longer counts as a region for the ones after it.
template <class T>
void markBounds(T* map, KvliSize roi, T boundary, int n) {
  const ptrdiff_t fw = roi.width + 2;
  const Offsets o(fw);
  for (int y = 0; y < roi.height; ++y) {
    T* row = map + (y + 1) * fw + 1;
    for (int x = 0; x < roi.width; ++x) {
      const T v = row[x];
      if (v == 0 || v == boundary) continue;
      for (int k = 0; k < n; ++k) {
        const T u = row[x + o.d[k]];
        if (u != 0 && u != boundary && u != v) {
          row[x] = boundary;
          break;
        }
      }
    }
  }
}

int boundsNeighbours(int flag) {
  return (flag & kWatershedBounds8) ? 8 : (flag & kWatershedBounds4) ? 4 : 0;
}

// --- Priority-queue flooding --------------------------------------------------------------------

template <class T>
void floodQueue(const Kvl8u* src, int srcStep, T* marker, int markerStep, KvliSize roi, int norm,
                int flag, Kvl8u* buffer, T boundary) {
  const int w = roi.width, h = roi.height;
  const ptrdiff_t fw = w + 2;
  const size_t n = static_cast<size_t>(w) * h;
  QueueNode* pool = reinterpret_cast<QueueNode*>(alignUp(buffer, 8));
  T* map = reinterpret_cast<T*>(pool + n);
  const Offsets o(fw);
  const int nb = norm == 0 ? 8 : 4;

  // The free list in address order; every queue empty.
  for (size_t i = 0; i + 1 < n; ++i) pool[i].next = &pool[i + 1];
  pool[n - 1].next = nullptr;
  QueueNode* freeList = pool;
  LevelQueue queue[kLevels];
  for (LevelQueue& q : queue) q = {nullptr, nullptr};
  auto push = [&](int level, int x, int y) {
    QueueNode* node = freeList;
    freeList = node->next;
    node->next = nullptr;
    node->x = x;
    node->y = y;
    LevelQueue& q = queue[level];
    if (q.tail != nullptr) {
      q.tail->next = node;
    } else {
      q.head = node;
    }
    q.tail = node;
  };

  copyIn(marker, markerStep, roi, map, boundary);
  // Labelled pixels beside an unlabelled one join the queue of their own level.
  for (int y = 0; y < h; ++y) {
    const T* row = map + (y + 1) * fw + 1;
    const Kvl8u* level = rowPtr(src, srcStep, y);
    for (int x = 0; x < w; ++x) {
      if (row[x] == 0) continue;
      for (int k = 0; k < nb; ++k) {
        if (row[x + o.d[k]] == 0) {
          push(level[x], x, y);
          break;
        }
      }
    }
  }
  // The boundary marking of the same scan changes labelled pixels only, which the queueing test
  // above does not tell apart, so it may run as a pass of its own.
  if (const int bn = boundsNeighbours(flag)) markBounds(map, roi, boundary, bn);

  for (int level = 0; level < kLevels; ++level) {
    LevelQueue& q = queue[level];
    while (q.head != nullptr) {
      QueueNode* node = q.head;
      q.head = node->next;
      if (q.head == nullptr) q.tail = nullptr;
      const int px = node->x, py = node->y;
      node->next = freeList;
      freeList = node;

      T* p = map + (py + 1) * fw + (px + 1);
      const T lp = *p;
      for (int k = 0; k < nb; ++k) {
        T* qp = p + o.d[k];
        if (*qp != 0) continue;
        const int qx = px + kDx[k], qy = py + kDy[k];
        const int lq = rowPtr(src, srcStep, qy)[qx];
        push(lq > level ? lq : level, qx, qy);
        // The label: lp, unless another region label is beside q.
        T v = lp;
        for (int j = 0; j < nb; ++j) {
          const T* r = qp + o.d[j];
          if (r == p) continue;
          const T u = *r;
          if (u == 0 || u == boundary || u == v) continue;
          if (v != boundary) {
            v = boundary;
            break;
          }
          v = u;
        }
        *qp = v;
      }
    }
  }
  copyOut(map, roi, marker, markerStep);
}

// --- Distance method ----------------------------------------------------------------------------

// Three consecutive rows of the framed arrays, each pointing at column 0 of the image.
template <class T>
struct Rows {
  const int32_t* key[3];  // above, this, below
  const T* label[3];
  const uint8_t* mixed[3];
};

template <class T>
struct Field {
  const Kvl8u* src;
  int srcStep;
  int w, h;
  ptrdiff_t fw;
  int32_t* key;
  T* label;
  uint8_t* mixed;
  int norm;
  T boundary;
  int32_t keyAt(int row, int x) const { return key[row * fw + x]; }  // framed row index
};

// The eikonal update in fixed point from the smaller key along x (t1) and along y (t2):
// min + unit when |t1 - t2| >= unit, else floor((t1 + t2 + sqrt(2 unit^2 - (t1 - t2)^2)) / 2).
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
inline int32_t arrival(const int32_t* const k[3], int x, int norm, unsigned* parents) {
  const int32_t nb[8] = {k[1][x - 1], k[1][x + 1], k[0][x], k[2][x],
                         k[0][x - 1], k[0][x + 1], k[2][x - 1], k[2][x + 1]};
  unsigned from = 0;
  int64_t best = kKeyUnreached;
  if (norm == 3) {
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
      best = (static_cast<int64_t>(t1) + t2 + kMarch.root[d]) >> 1;
    }
    if (useX) from |= (nb[0] == t1 ? 1u : 0u) | (nb[1] == t1 ? 2u : 0u);
    if (useY) from |= (nb[2] == t2 ? 4u : 0u) | (nb[3] == t2 ? 8u : 0u);
  } else {
    const StepCost c = kStepCost[norm];
    const int n = c.diagonal != 0 ? 8 : 4;
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

// One row of a key sweep, in place; returns how many keys went down.
template <class T>
int keyRow(const Field<T>& f, int y, const int32_t* const k[3], bool forward) {
  int32_t* key = const_cast<int32_t*>(k[1]);
  const T* label = f.label + (y + 1) * f.fw + 1;
  const Kvl8u* level = rowPtr(f.src, f.srcStep, y);
  int changes = 0;
  for (int i = 0; i < f.w; ++i) {
    const int x = forward ? i : f.w - 1 - i;
    if (label[x] != 0) continue;  // markers and walls keep their keys
    unsigned parents;
    int32_t c = arrival(k, x, f.norm, &parents);
    if (c >= kKeyUnreached) continue;
    const int32_t floor = static_cast<int32_t>(level[x]) << kLevelShift;
    if (c < floor) c = floor;
    if (c < key[x]) {
      key[x] = c;
      ++changes;
    }
  }
  return changes;
}

// One row of a label sweep: every reached, still unlabelled pixel whose parents all have labels
// takes theirs. Parents that are not mixed decide (one label: that label; several: mixed, carrying
// the smallest); a pixel whose parents are all mixed takes the smallest of their labels, unmixed.
template <class T>
int labelRow(const Field<T>& f, int y, const Rows<T>& r, T* label, uint8_t* mixed) {
  int changes = 0;
  for (int x = 0; x < f.w; ++x) {
    if (label[x] != 0 || r.key[1][x] >= kKeyUnreached) continue;
    unsigned parents;
    arrival(r.key, x, f.norm, &parents);
    T plain = 0, least = 0;
    bool several = false, known = true;
    for (int i = 0; i < 8 && known; ++i) {
      if (!(parents & (1u << i))) continue;
      const T u = r.label[1 + kDy[i]][x + kDx[i]];
      if (u == 0) {
        known = false;
        break;
      }
      if (least == 0 || u < least) least = u;
      if (r.mixed[1 + kDy[i]][x + kDx[i]]) continue;
      if (plain == 0) {
        plain = u;
      } else if (u != plain) {
        several = true;
        if (u < plain) plain = u;
      }
    }
    if (!known || least == 0) continue;
    label[x] = plain != 0 ? plain : least;
    mixed[x] = several ? 1 : 0;
    ++changes;
  }
  (void)y;
  return changes;
}

// Per-stripe copies of the rows just outside it, taken before each pass so that no stripe reads
// rows another thread is writing.
template <class T>
struct Halo {
  int32_t* key[2];
  T* label[2];
  uint8_t* mixed[2];
};

template <class T>
Halo<T> haloAt(uint8_t* part, ptrdiff_t fw) {
  Halo<T> h;
  h.key[0] = reinterpret_cast<int32_t*>(part);
  h.key[1] = h.key[0] + fw;
  h.label[0] = reinterpret_cast<T*>(h.key[1] + fw);
  h.label[1] = h.label[0] + fw;
  h.mixed[0] = reinterpret_cast<uint8_t*>(h.label[1] + fw);
  h.mixed[1] = h.mixed[0] + fw;
  return h;
}

template <class T>
void floodDistance(const Kvl8u* src, int srcStep, T* marker, int markerStep, KvliSize roi,
                   int norm, int flag, Kvl8u* buffer, T boundary) {
  const int w = roi.width, h = roi.height;
  const ptrdiff_t fw = w + 2;
  int team = par::teamWatershed(roi);
  DistanceLayout lay = distanceLayout(roi, sizeof(T), team);
  if (static_cast<long long>(lay.end) + 7 > watershedBytes(roi, sizeof(T))) {
    team = 1;
    lay = distanceLayout(roi, sizeof(T), 1);
  }
  uint8_t* base = alignUp(buffer, 8);
  Field<T> f{src, srcStep, w, h, fw,
             reinterpret_cast<int32_t*>(base + lay.keys), reinterpret_cast<T*>(base + lay.labels),
             base + lay.mixed, norm, boundary};
  const size_t framed = static_cast<size_t>(fw) * (h + 2);

  copyIn(marker, markerStep, roi, f.label, boundary);
  std::memset(f.mixed, 0, framed);
  for (size_t i = 0; i < framed; ++i) {
    const T v = f.label[i];
    f.key[i] = v == 0 ? kKeyUnreached : v == boundary ? kKeyWall : 0;
  }
  for (int y = 0; y < h; ++y) {
    int32_t* key = f.key + (y + 1) * fw + 1;
    const Kvl8u* level = rowPtr(src, srcStep, y);
    for (int x = 0; x < w; ++x)
      if (key[x] == 0) key[x] = static_cast<int32_t>(level[x]) << kLevelShift;
  }

  // Passes of a forward and a backward sweep over every stripe until one changes nothing. Each
  // stripe reads the rows beside it from copies taken at the start of the pass.
  int changes[par::kWatershedMaxTeam];
  auto passes = [&](auto&& rowFn) {
    for (;;) {
      if (team > 1) {
        par::runStripes(team, h, [&](const par::Stripe& s) {
          const Halo<T> hl = haloAt<T>(base + lay.halos + s.index * lay.haloBytes, fw);
          const int rows[2] = {s.y0, s.y0 + s.rows + 1};  // framed rows above and below
          for (int j = 0; j < 2; ++j) {
            std::memcpy(hl.key[j], f.key + rows[j] * fw, fw * sizeof(int32_t));
            std::memcpy(hl.label[j], f.label + rows[j] * fw, fw * sizeof(T));
            std::memcpy(hl.mixed[j], f.mixed + rows[j] * fw, fw);
          }
        });
      }
      for (int& c : changes) c = 0;
      par::runStripes(team, h, [&](const par::Stripe& s) {
        const Halo<T> hl = haloAt<T>(team > 1 ? base + lay.halos + s.index * lay.haloBytes : base, fw);
        auto rowsOf = [&](int y) {
          Rows<T> r;
          for (int j = 0; j < 3; ++j) {
            const int fy = y + j;  // framed row of image row y - 1 + j
            const bool above = fy < s.y0 + 1, below = fy > s.y0 + s.rows;
            if (team > 1 && (above || below)) {
              r.key[j] = hl.key[above ? 0 : 1] + 1;
              r.label[j] = hl.label[above ? 0 : 1] + 1;
              r.mixed[j] = hl.mixed[above ? 0 : 1] + 1;
            } else {
              r.key[j] = f.key + fy * fw + 1;
              r.label[j] = f.label + fy * fw + 1;
              r.mixed[j] = f.mixed + fy * fw + 1;
            }
          }
          return r;
        };
        int c = 0;
        for (int i = 0; i < s.rows; ++i) c += rowFn(s.y0 + i, rowsOf(s.y0 + i), true);
        for (int i = s.rows - 1; i >= 0; --i) c += rowFn(s.y0 + i, rowsOf(s.y0 + i), false);
        changes[s.index] = c;
      });
      int total = 0;
      for (int c : changes) total += c;
      if (total == 0) break;
    }
  };
  passes([&](int y, const Rows<T>& r, bool forward) { return keyRow(f, y, r.key, forward); });
  passes([&](int y, const Rows<T>& r, bool) {
    return labelRow(f, y, r, f.label + (y + 1) * fw + 1, f.mixed + (y + 1) * fw + 1);
  });
  for (int y = 0; y < h; ++y) {
    T* label = f.label + (y + 1) * fw + 1;
    const uint8_t* mixed = f.mixed + (y + 1) * fw + 1;
    for (int x = 0; x < w; ++x)
      if (mixed[x]) label[x] = boundary;
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
    floodQueue(src, srcStep, marker, markerStep, roi, norm, flag, buffer, boundary);
  } else {
    floodDistance(src, srcStep, marker, markerStep, roi, norm, flag, buffer, boundary);
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
