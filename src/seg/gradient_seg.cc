// Gradient segmentation: validation, the relief of the colour gradient, seeds from its regional
// minima when the caller gives none, flooding by increasing height with one FIFO per level, and
// the optional boundary pass. Single-threaded; the relief rows run on the best vector target.
#include <climits>
#include <cstddef>
#include <cstdint>

#include "core/check.h"
#include "core/pixel.h"
#include "impl_decls.h"
#include "seg/gradient_seg.h"

namespace kvl::seg {
namespace {

// The buffer size in 64 bits; above INT_MAX the ROI is refused.
long long segBytes(KvliSize roi) {
  const long long pixels = static_cast<long long>(roi.width) * roi.height;  // below 2^62
  return pixels > INT_MAX ? LLONG_MAX : kSegBytesPerPixel * pixels + kSegFixedBytes;
}

KvlStatus segBufferSize(KvliSize roi, int* bytes) {
  KVL_TRY(check::nonNull(bytes));
  KVL_TRY(check::roi(roi));
  const long long total = segBytes(roi);
  if (total > INT_MAX) return kvlStatusBadSize;
  *bytes = static_cast<int>(total);
  return kvlStatusOk;
}

// Neighbour offsets in the order every scan visits them: left, right, up, down, then the
// diagonals up-left, up-right, down-left, down-right.
constexpr int kDx[8] = {-1, 1, 0, 0, -1, 1, -1, 1};
constexpr int kDy[8] = {0, 0, -1, 1, -1, -1, 1, 1};

// The flooding state: the caller's marker image, the relief and the per-pixel links.
class Flood {
 public:
  Flood(Kvl8u* marker, int markerStep, KvliSize roi, int neighbours, const Kvl8u* relief,
        int32_t* link)
      : m_(marker), ms_(markerStep), w_(roi.width), h_(roi.height), n_(neighbours), g_(relief),
        link_(link) {
    for (int l = 0; l < 256; ++l) head_[l] = tail_[l] = -1;
  }

  Kvl8u& label(int x, int y) const { return rowPtr(m_, ms_, y)[x]; }
  bool inside(int x, int y) const { return x >= 0 && y >= 0 && x < w_ && y < h_; }

  // True when no pixel carries a label.
  bool unlabelled() const {
    for (int y = 0; y < h_; ++y)
      for (int x = 0; x < w_; ++x)
        if (label(x, y) != 0) return false;
    return true;
  }

  // Labels every regional minimum of the coarse relief g >> kSeedShift (a plateau, connected by
  // the flooding's neighbourhood, with no lower neighbour) in row order of its first pixel with
  // 1, 2, ..., 254, 1, 2, ... Visited plateaus carry 255 until the last pass clears the others
  // again.
  void seedMinima() {
    int count = 0;
    int32_t* q = link_;
    for (int y0 = 0; y0 < h_; ++y0)
      for (int x0 = 0; x0 < w_; ++x0) {
        if (label(x0, y0) != 0) continue;
        const int level = g_[index(x0, y0)] >> kSeedShift;
        int size = 0, next = 0;
        bool minimum = true;
        label(x0, y0) = kSegBoundary;
        q[size++] = index(x0, y0);
        while (next < size) {
          const int p = q[next++], x = p % w_, y = p / w_;
          for (int k = 0; k < n_; ++k) {
            const int nx = x + kDx[k], ny = y + kDy[k];
            if (!inside(nx, ny)) continue;
            const int v = g_[index(nx, ny)] >> kSeedShift;
            if (v < level) {
              minimum = false;
            } else if (v == level && label(nx, ny) == 0) {
              label(nx, ny) = kSegBoundary;
              q[size++] = index(nx, ny);
            }
          }
        }
        if (minimum) {
          const Kvl8u l = static_cast<Kvl8u>(1 + count % 254);
          ++count;
          for (int i = 0; i < size; ++i) label(q[i] % w_, q[i] / w_) = l;
        }
      }
    for (int y = 0; y < h_; ++y)
      for (int x = 0; x < w_; ++x)
        if (label(x, y) == kSegBoundary) label(x, y) = 0;
  }

  // Queues every labelled pixel with an unlabelled neighbour at its relief level, in row order.
  void queueSeeds() {
    for (int y = 0; y < h_; ++y)
      for (int x = 0; x < w_; ++x) {
        if (label(x, y) == 0) continue;
        for (int k = 0; k < n_; ++k) {
          const int nx = x + kDx[k], ny = y + kDy[k];
          if (inside(nx, ny) && label(nx, ny) == 0) {
            push(index(x, y), g_[index(x, y)]);
            break;
          }
        }
      }
  }

  // Grows the labels from the lowest non-empty level up. A newly reached pixel joins the level of
  // its relief, or the current one if it is lower, and takes the label of the pixel that reached
  // it unless another of its neighbours holds a different label: then it becomes 255 (a pixel
  // reached from a 255 takes the first label among its other neighbours instead).
  void grow() {
    if (n_ == 8) {
      growWith<8>();
    } else {
      growWith<4>();
    }
  }

  // In row order and in place: a pixel with a label in 1..254 next to a different label in
  // 1..254 (over `neighbours` neighbours) becomes 255.
  void markBoundaries(int neighbours) {
    std::ptrdiff_t mo[8];
    for (int k = 0; k < 8; ++k) mo[k] = kDx[k] + static_cast<std::ptrdiff_t>(kDy[k]) * ms_;
    for (int y = 0; y < h_; ++y) {
      Kvl8u* row = rowPtr(m_, ms_, y);
      for (int x = 0; x < w_; ++x) {
        const Kvl8u l = row[x];
        if (l == 0 || l == kSegBoundary) continue;
        const bool inner = x > 0 && y > 0 && x < w_ - 1 && y < h_ - 1;
        for (int k = 0; k < neighbours; ++k) {
          if (!inner && !inside(x + kDx[k], y + kDy[k])) continue;
          const Kvl8u o = row[x + mo[k]];
          if (o != 0 && o != kSegBoundary && o != l) {
            row[x] = kSegBoundary;
            break;
          }
        }
      }
    }
  }

 private:
  template <int kN>
  void growWith() {
    // The neighbour opposite each direction: the pixel a newly reached one was reached from.
    constexpr int kOpposite[8] = {1, 0, 3, 2, 7, 6, 5, 4};
    std::ptrdiff_t mo[8];  // marker byte offsets and relief index offsets of the neighbours
    int go[8];
    for (int k = 0; k < 8; ++k) {
      mo[k] = kDx[k] + static_cast<std::ptrdiff_t>(kDy[k]) * ms_;
      go[k] = kDx[k] + kDy[k] * w_;
    }
    for (int level = 0; level < 256;) {
      const int p = head_[level];
      if (p < 0) {
        ++level;
        continue;
      }
      head_[level] = link_[p];
      if (head_[level] < 0) tail_[level] = -1;
      const int y = p / w_, x = p - y * w_;
      Kvl8u* mp = &label(x, y);
      const int lp = *mp;
      const bool inner = x > 0 && y > 0 && x < w_ - 1 && y < h_ - 1;
      for (int k = 0; k < kN; ++k) {
        const int qx = x + kDx[k], qy = y + kDy[k];
        if (!inner && !inside(qx, qy)) continue;
        Kvl8u* mq = mp + mo[k];
        if (*mq != 0) continue;
        const int q = p + go[k];
        push(q, g_[q] > level ? g_[q] : level);
        int v = lp;
        const bool qInner = qx > 0 && qy > 0 && qx < w_ - 1 && qy < h_ - 1;
        for (int j = 0; j < kN; ++j) {
          if (j == kOpposite[k] || (!qInner && !inside(qx + kDx[j], qy + kDy[j]))) continue;
          const int lr = mq[mo[j]];
          if (lr == 0 || lr == kSegBoundary || lr == v) continue;
          if (v < kSegBoundary) {
            v = kSegBoundary;
            break;
          }
          v = lr;
        }
        *mq = static_cast<Kvl8u>(v);
      }
    }
  }

  int index(int x, int y) const { return y * w_ + x; }
  void push(int p, int level) {
    link_[p] = -1;
    if (tail_[level] < 0) {
      head_[level] = p;
    } else {
      link_[tail_[level]] = p;
    }
    tail_[level] = p;
  }

  Kvl8u* m_;
  int ms_, w_, h_, n_;
  const Kvl8u* g_;
  int32_t* link_;
  int32_t head_[256], tail_[256];
};

template <int kC>
KvlStatus segmentGradient(const Kvl8u* src, int srcStep, Kvl8u* marker, int markerStep,
                          KvliSize roi, int norm, int flag, Kvl8u* buffer) {
  KVL_TRY(check::nonNull(src, marker, buffer));
  KVL_TRY(check::roi(roi));
  if (segBytes(roi) > INT_MAX) return kvlStatusBadSize;
  KVL_TRY(check::steps(roi.width, check::Step<Kvl8u, kC>{srcStep},
                       check::Step<Kvl8u>{markerStep}));
  if (norm != 0 && norm != 1) return kvlStatusBadArgument;
  if ((flag & ~(kSegBounds4 | kSegBounds8)) != 0) return kvlStatusBadArgument;

  const int w = roi.width, h = roi.height;
  Kvl8u* relief = alignUp(buffer, 64);
  int32_t* link = reinterpret_cast<int32_t*>(
      alignUp(relief + static_cast<std::ptrdiff_t>(w) * h, alignof(int32_t)));
  const GradientRowFn row = gradientRowKernel<kC>().pick();
  for (int y = 0; y < h; ++y)
    row(rowPtr(src, srcStep, y > 0 ? y - 1 : y), rowPtr(src, srcStep, y),
        rowPtr(src, srcStep, y + 1 < h ? y + 1 : y), w, norm, relief + static_cast<std::ptrdiff_t>(y) * w);

  Flood flood(marker, markerStep, roi, norm == 0 ? 8 : 4, relief, link);
  if (flood.unlabelled()) flood.seedMinima();
  flood.queueSeeds();
  flood.grow();
  if (flag & kSegBounds8) {
    flood.markBoundaries(8);
  } else if (flag & kSegBounds4) {
    flood.markBoundaries(4);
  }
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::seg

#define KVL_GRADIENT_SEG(layout, channels)                                                     \
  extern "C" KvlStatus impl_kvliSegmentGradientGetBufferSize_8u_##layout##R(KvliSize roiSize,  \
                                                                           int* pBufSize) {    \
    return kvl::seg::segBufferSize(roiSize, pBufSize);                                         \
  }                                                                                            \
  extern "C" KvlStatus impl_kvliSegmentGradient_8u_##layout##IR(                               \
      const Kvl8u* pSrc, int srcStep, Kvl8u* pMarker, int markerStep, KvliSize roiSize,        \
      int norm, int flag, Kvl8u* pBuffer) {                                                    \
    return kvl::seg::segmentGradient<channels>(pSrc, srcStep, pMarker, markerStep, roiSize,    \
                                               norm, flag, pBuffer);                           \
  }
KVL_GRADIENT_SEG_MEMBERS(KVL_GRADIENT_SEG)
#undef KVL_GRADIENT_SEG
