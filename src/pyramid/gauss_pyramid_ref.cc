// Scalar reference of the Gaussian 5x5 pyramids: the rules of gauss_pyramid.h element by
// element, with ring rows of plain int (or float) sums laid out like the image rows.
#include "pyramid/gauss_pyramid.h"

namespace kvl::pyramid::ref {
namespace {

template <class T, int kC>
struct DownOps {
  using Acc = Wide<T>;
  Kvl8u* scratch = nullptr;

  static int count(int w) { return ((w + 1) >> 1) * kC; }
  long long rowBytes(int w) const { return roundUp(4LL * count(w), 16); }
  long long scratchBytes(int) const { return 0; }

  void hRow(const T* src, int w, Acc* out) const {
    for (int x = 0; x < (w + 1) >> 1; ++x)
      for (int c = 0; c < kC; ++c) out[x * kC + c] = hDownAt<T, kC>(src + c, w, x);
  }
  void vRow(const Acc* const r[5], int w, T* dst) const {
    for (int i = 0; i < count(w); ++i)
      storeAny(dst + i, downOut<T>(tap5(r[0][i], r[1][i], r[2][i], r[3][i], r[4][i])));
  }
  void fused(const T* const src[kMaxFused * 2], int n, int w, Acc* const ring[3],
             T* const dst[kMaxFused]) const {
    for (int x = 0; x < (w + 1) >> 1; ++x)
      for (int c = 0; c < kC; ++c) {
        const int i = x * kC + c;
        Acc h[3 + 2 * kMaxFused] = {ring[0][i], ring[1][i], ring[2][i]};  // rows 2y-2 .. 2y+2n
        for (int k = 0; k < 2 * n; ++k) h[3 + k] = hDownAt<T, kC>(src[k] + c, w, x);
        for (int k = 0; k < n; ++k)
          storeAny(dst[k] + i, downOut<T>(tap5(h[2 * k], h[2 * k + 1], h[2 * k + 2], h[2 * k + 3],
                                               h[2 * k + 4])));
        for (int k = 0; k < 3; ++k) ring[k][i] = h[2 * n + k];
      }
  }
  void pairRow(const Acc* r0, const Acc* r1, int w, T* dst) const {
    for (int i = 0; i < count(w); ++i) storeAny(dst + i, pairOut<T>(r0[i], r1[i]));
  }
};

template <class T, int kC>
struct UpOps {
  using Acc = Wide<T>;
  Kvl8u* scratch = nullptr;

  static int count(int w) { return 2 * w * kC; }
  long long rowBytes(int w) const { return roundUp(4LL * count(w), 16); }
  long long scratchBytes(int) const { return 0; }

  // Destination columns 2i and 2i+1 of channel c.
  static void pixelPair(const T* src, int w, int i, int c, Acc* out) {
    out[0] = hUpEvenAt<T, kC>(src + c, w, i);
    out[1] = hUpOddAt<T, kC>(src + c, w, i);
  }
  void hRow(const T* src, int w, Acc* out) const {
    for (int i = 0; i < w; ++i)
      for (int c = 0; c < kC; ++c) {
        Acc pair[2];
        pixelPair(src, w, i, c, pair);
        out[2 * i * kC + c] = pair[0];
        out[(2 * i + 1) * kC + c] = pair[1];
      }
  }
  void vPair(const Acc* prev, const Acc* cur, const Acc* next, int w, T* even, T* odd) const {
    for (int k = 0; k < count(w); ++k) {
      storeAny(even + k, upOut<T>(upEven(prev[k], cur[k], next[k])));
      storeAny(odd + k, upOut<T>(upOdd(cur[k], next[k])));
    }
  }
  void fused(const T* src, int w, Acc* prev, const Acc* cur, T* even, T* odd) const {
    for (int i = 0; i < w; ++i)
      for (int c = 0; c < kC; ++c) {
        Acc next[2];
        pixelPair(src, w, i, c, next);
        for (int p = 0; p < 2; ++p) {
          const int k = (2 * i + p) * kC + c;
          storeAny(even + k, upOut<T>(upEven(prev[k], cur[k], next[p])));
          storeAny(odd + k, upOut<T>(upOdd(cur[k], next[p])));
          prev[k] = next[p];
        }
      }
  }
  void oneRow(const Acc* r, int w, T* d0, T* d1) const {
    for (int k = 0; k < count(w); ++k) {
      storeAny(d0 + k, oneOut<T>(r[k]));
      storeAny(d1 + k, oneOut<T>(r[k]));
    }
  }
};

}  // namespace

template <class T, int kC, bool kUp>
void pyramid(const T* src, int srcStep, T* dst, int dstStep, int w, int h, Kvl8u* buffer) {
  // The reference's rings fit every size the queries give (checked by the tests).
  if constexpr (kUp) {
    UpOps<T, kC> ops;
    upImage<T, kC>(ops, src, srcStep, dst, dstStep, w, h, buffer);
  } else {
    DownOps<T, kC> ops;
    downImage<T, kC>(ops, src, srcStep, dst, dstStep, w, h, buffer);
  }
}

#define KVL_INSTANTIATE(Dir, type, T, C) \
  template void pyramid<T, C, KVL_PYR_UP_##Dir>(const T*, int, T*, int, int, int, Kvl8u*);
KVL_PYR_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::pyramid::ref
