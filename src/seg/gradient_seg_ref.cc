// Gradient segmentation: the scalar relief rows every target falls back to at the row ends.
#include "seg/gradient_seg.h"

namespace kvl::seg::ref {

template <int kC>
void gradientColumns(const Kvl8u* up, const Kvl8u* mid, const Kvl8u* down, int width, int cross,
                     int x0, int x1, Kvl8u* out) {
  for (int x = x0; x < x1; ++x) {
    const int l = x > 0 ? x - 1 : x, r = x + 1 < width ? x + 1 : x;
    int best = 0;
    for (int c = 0; c < kC; ++c) {
      int lo = mid[x * kC + c], hi = lo;
      auto take = [&](const Kvl8u* row, int i) {
        const int v = row[i * kC + c];
        lo = v < lo ? v : lo;
        hi = v > hi ? v : hi;
      };
      take(mid, l);
      take(mid, r);
      take(up, x);
      take(down, x);
      if (!cross) {
        take(up, l);
        take(up, r);
        take(down, l);
        take(down, r);
      }
      best = hi - lo > best ? hi - lo : best;
    }
    out[x] = static_cast<Kvl8u>(best);
  }
}
template void gradientColumns<1>(const Kvl8u*, const Kvl8u*, const Kvl8u*, int, int, int, int,
                                 Kvl8u*);
template void gradientColumns<3>(const Kvl8u*, const Kvl8u*, const Kvl8u*, int, int, int, int,
                                 Kvl8u*);

void gradientRowC1(const Kvl8u* up, const Kvl8u* mid, const Kvl8u* down, int width, int cross,
                   Kvl8u* out) {
  gradientColumns<1>(up, mid, down, width, cross, 0, width, out);
}
void gradientRowC3(const Kvl8u* up, const Kvl8u* mid, const Kvl8u* down, int width, int cross,
                   Kvl8u* out) {
  gradientColumns<3>(up, mid, down, width, cross, 0, width, out);
}

}  // namespace kvl::seg::ref
