// Scalar reference of the chamfer transforms: the two passes pixel by pixel, every neighbour
// inside the image taken, no shortcut.
#include "core/pixel.h"
#include "seg/dist_chamfer.h"

namespace kvl::seg::ref {
namespace {

// The neighbour terms of one pixel in one pass: dy = -1 (forward, rows above) or +1 (backward,
// rows below); the row terms (x -/+ 1, a) are taken by the caller.
template <class Out, int kTaps>
Out nearTerms(const Out* dst, int dstStep, int w, int h, int x, int y, int dy,
              const Rule<Out>& r) {
  Out m = kFar<Out>;
  auto take = [&](int ox, int oy, Out weight) {
    const int nx = x + ox, ny = y + oy;
    if (nx < 0 || nx >= w || ny < 0 || ny >= h) return;
    m = lesser(m, plus(loadAny(rowPtr(dst, dstStep, ny) + nx), weight));
  };
  take(-1, dy, r.b);
  take(0, dy, r.a);
  take(1, dy, r.b);
  if constexpr (kTaps == 5) {
    take(-1, 2 * dy, r.c);
    take(1, 2 * dy, r.c);
    take(-2, dy, r.c);
    take(2, dy, r.c);
  }
  return m;
}

}  // namespace

template <class Out, int kTaps>
void chamfer(const Kvl8u* src, int srcStep, Out* dst, int dstStep, int w, int h,
             const Rule<Out>& r) {
  for (int y = 0; y < h; ++y) {
    const Kvl8u* s = rowPtr(src, srcStep, y);
    Out* d = rowPtr(dst, dstStep, y);
    for (int x = 0; x < w; ++x) {
      Out v = s[x] == 0 ? Out(0) : kFar<Out>;
      if (s[x] != 0) {
        if (x > 0) v = lesser(v, plus(loadAny(d + x - 1), r.a));
        v = lesser(v, nearTerms<Out, kTaps>(dst, dstStep, w, h, x, y, -1, r));
      }
      storeAny(d + x, v);
    }
  }
  for (int y = h - 1; y >= 0; --y) {
    Out* d = rowPtr(dst, dstStep, y);
    for (int x = w - 1; x >= 0; --x) {
      Out v = loadAny(d + x);
      if (x + 1 < w) v = lesser(v, plus(loadAny(d + x + 1), r.a));
      v = lesser(v, nearTerms<Out, kTaps>(dst, dstStep, w, h, x, y, 1, r));
      storeAny(d + x, v);
    }
  }
}

#define KVL_INSTANTIATE_Own(Out, taps) \
  template void chamfer<Out, taps>(const Kvl8u*, int, Out*, int, int, int, const Rule<Out>&);
#define KVL_INSTANTIATE_Shared(Out, taps)
#define KVL_INSTANTIATE(mask, taps, types, layout, Out, Metric, kernel) \
  KVL_INSTANTIATE_##kernel(Out, taps)
KVL_CHAMFER_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::seg::ref
