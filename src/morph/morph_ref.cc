// The scalar reference of erosion and dilation.
#include "morph/morph_ref.h"

#include <cstring>
#include <type_traits>

#include "core/border.h"
#include "core/pixel.h"
#include "morph/order.h"

namespace kvl::morph::ref {
namespace {

// The comparisons follow the shared key order (-0 below +0).
template <class T>
bool below(T a, T b) {
  return Order<T>::key(a) < Order<T>::key(b);
}

}  // namespace

template <class T, int kC>
void morph(const T* src, int srcStep, T* dst, int dstStep, KvliSize roi, const Kvl8u* mask,
           KvliSize maskSize, KvliPoint anchor, int borderType, bool erode) {
  const int w = roi.width, h = roi.height;
  const int bt = (borderType & 15) == kvlBorderInMem ? kvlBorderInMem : borderType;
  const int W = maskSize.width, H = maskSize.height;
  bool any = false;
  for (int k = 0; k < W * H && !any; ++k) any = mask[k] != 0;
  for (int y = 0; y < h; ++y) {
    T* d = rowPtr(dst, dstStep, y);
    if (!any) {
      std::memcpy(d, rowPtr(src, srcStep, y), sizeof(T) * kC * w);
      continue;
    }
    bool first = true;
    for (int j = 0; j < H; ++j) {
      const int sy = border::sourceRow(y + j - anchor.y, h, bt);
      const T* s = rowPtr(src, srcStep, sy);
      for (int i = 0; i < W; ++i) {
        if (mask[j * W + i] == 0) continue;
        for (int x = 0; x < w; ++x) {
          const int sx = border::sourceIndex(x + i - anchor.x, w, bt, kvlBorderInMemLeft,
                                             kvlBorderInMemRight);
          for (int c = 0; c < kC; ++c) {
            const T v = loadAny(s + static_cast<std::ptrdiff_t>(sx) * kC + c);
            if (first) {
              storeAny(d + x * kC + c, v);
              continue;
            }
            const T a = loadAny(d + x * kC + c);
            if (erode ? below(v, a) : below(a, v)) storeAny(d + x * kC + c, v);
          }
        }
        first = false;
      }
    }
  }
}

#define KVL_MORPH_REF_INSTANCE(T, C)                                                            \
  template void morph<T, C>(const T*, int, T*, int, KvliSize, const Kvl8u*, KvliSize, KvliPoint, \
                            int, bool);
KVL_MORPH_REF_INSTANCE(Kvl8u, 1)
KVL_MORPH_REF_INSTANCE(Kvl8u, 3)
KVL_MORPH_REF_INSTANCE(Kvl8u, 4)
KVL_MORPH_REF_INSTANCE(Kvl16u, 1)
KVL_MORPH_REF_INSTANCE(Kvl16s, 1)
KVL_MORPH_REF_INSTANCE(Kvl32f, 1)
KVL_MORPH_REF_INSTANCE(Kvl32f, 3)
KVL_MORPH_REF_INSTANCE(Kvl32f, 4)
#undef KVL_MORPH_REF_INSTANCE

}  // namespace kvl::morph::ref
