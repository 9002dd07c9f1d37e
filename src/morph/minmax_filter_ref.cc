// Scalar reference of the rectangle minimum and maximum filters and of the 3x3 plus: every output
// element compares the whole element, read through the replicated border.
#include <algorithm>
#include <utility>

#include "core/pixel.h"
#include "morph/minmax_filter.h"

namespace kvl::morph::ref {
namespace {

template <bool kMax, class T, int kC>
void filter(const T* src, int srcStep, T* dst, int dstStep, int w, int h, int mw, int mh, int ax,
            int ay) {
  using O = Order<T>;
  // Replicating a side more than the ROI is long adds nothing: clamp the reaches to the ROI.
  const int left = std::min(ax, w - 1), right = std::min(mw - 1 - ax, w - 1);
  const int up = std::min(ay, h - 1), down = std::min(mh - 1 - ay, h - 1);
  for (int y = 0; y < h; ++y) {
    T* d = rowPtr(dst, dstStep, y);
    for (int x = 0; x < w; ++x) {
      for (int c = 0; c < kC; ++c) {
        typename O::Key best = O::key(loadAny(rowPtr(src, srcStep, y) + x * kC + c));
        for (int j = -up; j <= down; ++j) {
          const T* s = rowPtr(src, srcStep, std::clamp(y + j, 0, h - 1));
          for (int i = -left; i <= right; ++i) {
            const int xi = std::clamp(x + i, 0, w - 1);
            best = better<kMax>(best, O::key(loadAny(s + xi * kC + c)));
          }
        }
        storeAny(d + x * kC + c, O::value(best));
      }
    }
  }
}

template <bool kMax, class T, int kC>
void plusFilter(const T* src, int srcStep, T* dst, int dstStep, int w, int h) {
  using O = Order<T>;
  auto at = [&](int x, int y, int c) {
    return O::key(loadAny(rowPtr(src, srcStep, std::clamp(y, 0, h - 1)) +
                          std::clamp(x, 0, w - 1) * kC + c));
  };
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < kC; ++c) {
        typename O::Key best = at(x, y, c);
        for (const auto& [dx, dy] : {std::pair{-1, 0}, {1, 0}, {0, -1}, {0, 1}})
          best = better<kMax>(best, at(x + dx, y + dy, c));
        storeAny(rowPtr(dst, dstStep, y) + x * kC + c, O::value(best));
      }
}

}  // namespace

template <class T, int kC>
void plus(const T* src, int srcStep, T* dst, int dstStep, int w, int h, bool isMax) {
  if (isMax) {
    plusFilter<true, T, kC>(src, srcStep, dst, dstStep, w, h);
  } else {
    plusFilter<false, T, kC>(src, srcStep, dst, dstStep, w, h);
  }
}

template <class T, int kC>
void minMax(const T* src, int srcStep, T* dst, int dstStep, int w, int h, int mw, int mh, int ax,
            int ay, bool isMax, Kvl8u*) {
  if (isMax) {
    filter<true, T, kC>(src, srcStep, dst, dstStep, w, h, mw, mh, ax, ay);
  } else {
    filter<false, T, kC>(src, srcStep, dst, dstStep, w, h, mw, mh, ax, ay);
  }
}

#define KVL_INSTANTIATE(types, layout, T, ch)                                                     \
  template void minMax<T, ch>(const T*, int, T*, int, int, int, int, int, int, int, bool, Kvl8u*); \
  template void plus<T, ch>(const T*, int, T*, int, int, int, bool);
KVL_MINMAX_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::morph::ref
