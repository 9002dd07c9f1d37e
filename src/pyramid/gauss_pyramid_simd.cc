// Vector kernels of the Gaussian 5x5 pyramids, one source for SSE4, AVX2 and AVX-512.
//
// 8u and 8s work in 16-bit lanes (every sum of the rules fits 16 bits; wrapping adds give the
// exact int results), 32f in float lanes with the reference's order of operations. Three-channel
// rows are split into channel planes in the work buffer first, so that one code path serves both
// layouts; the destination is interleaved again on the way out.
//
// Down: a pair of source bytes read as one 16-bit lane gives the even pixel (low byte) and the
// odd one (high byte), so the horizontal pass at the even columns takes three overlapping loads;
// floats are split into even and odd lanes. Ring rows hold channel planes of 16-bit (or float)
// sums, 64-byte aligned. Up: the horizontal pass stores its even and odd columns interleaved, so
// the vertical pass and the destination stores run along full rows.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "pyramid/gauss_pyramid_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include "core/simd.h"
#include "pyramid/gauss_pyramid.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::pyramid {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

// The lane type of a member's sums: 16-bit integers for 8-bit images, float for 32f.
template <class T>
using LaneOf = std::conditional_t<std::is_same_v<T, Kvl8u>, uint16_t,
                                  std::conditional_t<std::is_same_v<T, Kvl8s>, int16_t, float>>;

inline long long align64(long long v) { return (v + 63) / 64 * 64; }

template <class T>
struct VecOps {
  using L = LaneOf<T>;
  using D = hn::ScalableTag<L>;
  using V = hn::Vec<D>;
  static constexpr bool kFloat = std::is_floating_point_v<T>;

  static HWY_INLINE V splat(float f) {
    const D d;
    if constexpr (kFloat) {
      return hn::Set(d, f);
    } else {
      return hn::Set(d, static_cast<L>(f));
    }
  }
  // ((((a + 4b) + 6c) + 4d) + e)
  static HWY_INLINE V tap5(V a, V b, V c, V dd, V e) {
    if constexpr (kFloat) {
      const V four = splat(4.0f), six = splat(6.0f);
      return hn::Add(hn::Add(hn::Add(hn::Add(a, hn::Mul(b, four)), hn::Mul(c, six)),
                             hn::Mul(dd, four)),
                     e);
    } else {
      return hn::Add(hn::Add(hn::Add(hn::Add(a, hn::ShiftLeft<2>(b)), hn::Mul(c, splat(6))),
                             hn::ShiftLeft<2>(dd)),
                     e);
    }
  }
  static HWY_INLINE V upEven(V a, V b, V c) {
    if constexpr (kFloat) {
      return hn::Add(hn::Add(a, hn::Mul(b, splat(6.0f))), c);
    } else {
      return hn::Add(hn::Add(a, hn::Mul(b, splat(6))), c);
    }
  }
  static HWY_INLINE V upOdd(V b, V c) {
    if constexpr (kFloat) {
      return hn::Mul(hn::Add(b, c), splat(4.0f));
    } else {
      return hn::ShiftLeft<2>(hn::Add(b, c));
    }
  }
  static HWY_INLINE V downOut(V v) {
    if constexpr (kFloat) {
      return hn::Mul(v, splat(0.00390625f));
    } else {
      return hn::ShiftRight<8>(hn::Add(v, splat(128)));
    }
  }
  static HWY_INLINE V pairOut(V a, V b) {
    if constexpr (kFloat) {
      return hn::Mul(hn::Add(a, b), splat(0.03125f));
    } else {
      return hn::ShiftRight<8>(hn::Add(hn::ShiftLeft<3>(hn::Add(a, b)), splat(128)));
    }
  }
  static HWY_INLINE V upOut(V v) {
    if constexpr (kFloat) {
      return hn::Mul(v, splat(0.015625f));
    } else {
      return hn::ShiftRight<6>(hn::Add(v, splat(32)));
    }
  }
  static HWY_INLINE V oneOut(V v) {
    if constexpr (kFloat) {
      return hn::Mul(v, splat(0.125f));
    } else {
      return hn::ShiftRight<6>(hn::Add(hn::ShiftLeft<3>(v), splat(32)));
    }
  }

  // The element type's lanes of a vector of normalised results (N elements).
  using DT = hn::Rebind<T, D>;
  static HWY_INLINE hn::Vec<DT> narrow(V v) {
    if constexpr (kFloat) {
      return v;
    } else {
      const hn::Rebind<int16_t, D> di;
      return hn::DemoteTo(DT(), hn::BitCast(di, v));
    }
  }
  // Stores N results of one plane.
  static HWY_INLINE void store(V v, T* p) { hn::StoreU(narrow(v), DT(), p); }
  // Stores N pixels of three planes, interleaved.
  static HWY_INLINE void store3(V v0, V v1, V v2, T* p) {
    hn::StoreInterleaved3(narrow(v0), narrow(v1), narrow(v2), DT(), p);
  }

  // N source elements from an image row or a plane, widened to lanes.
  static HWY_INLINE V loadWide(const T* p) {
    if constexpr (kFloat) {
      return hn::LoadU(D(), p);
    } else {
      return hn::PromoteTo(D(), hn::LoadU(DT(), p));
    }
  }

  // The horizontal down-sampling pass at output columns x .. x+N-1 of a plane: source elements
  // 2x-2 .. 2x+2N+1 are read.
  static HWY_INLINE V hDown(const T* p, int x) {
    const D d;
    if constexpr (kFloat) {
      const size_t N = hn::Lanes(d);
      const float* q = p + 2 * x;
      auto even = [&](int o) { return hn::ConcatEven(d, hn::LoadU(d, q + o + N), hn::LoadU(d, q + o)); };
      auto odd = [&](int o) { return hn::ConcatOdd(d, hn::LoadU(d, q + o + N), hn::LoadU(d, q + o)); };
      return tap5(even(-2), odd(-2), even(0), odd(0), even(2));
    } else {
      // Byte pairs (2k, 2k+1) as one lane: the low byte is the even pixel.
      const hn::Repartition<T, D> d8;
      auto pairs = [&](int o) { return hn::BitCast(d, hn::LoadU(d8, p + 2 * x + o)); };
      auto lo = [&](V v) {
        if constexpr (std::is_signed_v<T>) {
          return hn::ShiftRight<8>(hn::ShiftLeft<8>(v));
        } else {
          return hn::And(v, splat(255));
        }
      };
      const V v0 = pairs(-2), v1 = pairs(0), v2 = pairs(2);
      return tap5(lo(v0), hn::ShiftRight<8>(v0), lo(v1), hn::ShiftRight<8>(v1), lo(v2));
    }
  }
};

// Splits a three-channel row of w pixels into three planes.
template <class T>
void splitPlanes(const T* src, int w, T* p0, T* p1, T* p2) {
  const hn::ScalableTag<T> d;
  const int N = static_cast<int>(hn::Lanes(d));
  int i = 0;
  for (; i + N <= w; i += N) {
    hn::Vec<decltype(d)> a, b, c;
    hn::LoadInterleaved3(d, src + 3 * i, a, b, c);
    hn::StoreU(a, d, p0 + i);
    hn::StoreU(b, d, p1 + i);
    hn::StoreU(c, d, p2 + i);
  }
  for (; i < w; ++i) {
    p0[i] = loadAny(src + 3 * i);
    p1[i] = loadAny(src + 3 * i + 1);
    p2[i] = loadAny(src + 3 * i + 2);
  }
}

// ---- Down-sampling ----

template <class T, int kC>
struct DownOps {
  using W = VecOps<T>;
  using Acc = typename W::L;
  using V = typename W::V;
  Kvl8u* scratch = nullptr;
  static int lanes() { return static_cast<int>(hn::Lanes(typename W::D())); }

  static long long planeBytes(int w) { return align64(static_cast<long long>((w + 1) >> 1) * sizeof(Acc)); }
  static long long srcPlaneBytes(int w) { return align64(static_cast<long long>(w) * sizeof(T)); }
  long long rowBytes(int w) const { return kC * planeBytes(w); }
  long long scratchBytes(int w) const { return kC == 1 ? 0 : 6 * srcPlaneBytes(w); }

  // Plane c of a ring row, and of the split source rows (k 0: first row, 1: second).
  static Acc* plane(Acc* r, int w, int c) {
    return reinterpret_cast<Acc*>(reinterpret_cast<Kvl8u*>(r) + c * planeBytes(w));
  }
  static const Acc* plane(const Acc* r, int w, int c) { return plane(const_cast<Acc*>(r), w, c); }
  T* srcPlane(int w, int k, int c) const {
    return reinterpret_cast<T*>(scratch + (3 * k + c) * srcPlaneBytes(w));
  }
  // The planes of source row `src` (split into scratch row k for three channels).
  void planes(const T* src, int w, int k, const T* out[kC]) const {
    if constexpr (kC == 1) {
      out[0] = src;
    } else {
      splitPlanes(src, w, srcPlane(w, k, 0), srcPlane(w, k, 1), srcPlane(w, k, 2));
      for (int c = 0; c < kC; ++c) out[c] = srcPlane(w, k, c);
    }
  }

  // Runs body(x) over vectors of output columns 1 .. and edge(x) on the columns no whole vector
  // can read: column 0 and the last one or two. The last vector may overlap its predecessor.
  template <class Body, class Edge>
  static void columns(int w, Body body, Edge edge) {
    const int wd = (w + 1) >> 1, N = lanes();
    edge(0);
    int x = 1;
    if (w >= 2 * N + 4) {
      const int last = (w - 2 * N - 2) / 2;  // the last column a whole vector may start at
      for (; x <= last; x += N) body(x);
      if (x < last + N) body(last);
      x = last + N;
    }
    for (; x < wd; ++x) edge(x);
  }
  // Runs body(i) over vectors of the n elements of a ring row and edge(i) on the rest.
  template <class Body, class Edge>
  static void elements(int n, Body body, Edge edge) {
    const int N = lanes();
    int i = 0;
    for (; i + N <= n; i += N) body(i);
    if (i < n && n >= N) {
      body(n - N);
      i = n;
    }
    for (; i < n; ++i) edge(i);
  }

  void hRow(const T* src, int w, Acc* out) const {
    const T* p[kC];
    planes(src, w, 0, p);
    for (int c = 0; c < kC; ++c) {
      Acc* o = plane(out, w, c);
      columns(
          w, [&](int x) KVL_INLINE_LAMBDA { hn::StoreU(W::hDown(p[c], x), typename W::D(), o + x); },
          [&](int x) { o[x] = static_cast<Acc>(hDownAt<T, 1>(p[c], w, x)); });
    }
  }

  void vRow(const Acc* const r[5], int w, T* dst) const {
    const typename W::D d;
    const int wd = (w + 1) >> 1;
    auto vec = [&](int c, int x) KVL_INLINE_LAMBDA {
      auto at = [&](int k) { return hn::LoadU(d, plane(r[k], w, c) + x); };
      return W::downOut(W::tap5(at(0), at(1), at(2), at(3), at(4)));
    };
    elements(
        wd,
        [&](int x) KVL_INLINE_LAMBDA {
          if constexpr (kC == 1) {
            W::store(vec(0, x), dst + x);
          } else {
            W::store3(vec(0, x), vec(1, x), vec(2, x), dst + 3 * x);
          }
        },
        [&](int x) {
          for (int c = 0; c < kC; ++c) {
            auto at = [&](int k) { return static_cast<Wide<T>>(plane(r[k], w, c)[x]); };
            storeAny(dst + x * kC + c, downOut<T>(tap5(at(0), at(1), at(2), at(3), at(4))));
          }
        });
  }

  void fused(const T* a, const T* b, int w, const Acc* const r[3], Acc* ha, Acc* hb,
             T* dst) const {
    const typename W::D d;
    const T* pa[kC];
    const T* pb[kC];
    planes(a, w, 0, pa);
    planes(b, w, 1, pb);
    auto vec = [&](int c, int x) KVL_INLINE_LAMBDA {
      const V va = W::hDown(pa[c], x), vb = W::hDown(pb[c], x);
      hn::StoreU(va, d, plane(ha, w, c) + x);
      hn::StoreU(vb, d, plane(hb, w, c) + x);
      auto at = [&](int k) { return hn::LoadU(d, plane(r[k], w, c) + x); };
      return W::downOut(W::tap5(at(0), at(1), at(2), va, vb));
    };
    columns(
        w,
        [&](int x) KVL_INLINE_LAMBDA {
          if constexpr (kC == 1) {
            W::store(vec(0, x), dst + x);
          } else {
            W::store3(vec(0, x), vec(1, x), vec(2, x), dst + 3 * x);
          }
        },
        [&](int x) {
          for (int c = 0; c < kC; ++c) {
            const Wide<T> va = hDownAt<T, 1>(pa[c], w, x), vb = hDownAt<T, 1>(pb[c], w, x);
            plane(ha, w, c)[x] = static_cast<Acc>(va);
            plane(hb, w, c)[x] = static_cast<Acc>(vb);
            auto at = [&](int k) { return static_cast<Wide<T>>(plane(r[k], w, c)[x]); };
            storeAny(dst + x * kC + c, downOut<T>(tap5(at(0), at(1), at(2), va, vb)));
          }
        });
  }

  void pairRow(const Acc* r0, const Acc* r1, int w, T* dst) const {
    const typename W::D d;
    auto vec = [&](int c, int x) KVL_INLINE_LAMBDA {
      return W::pairOut(hn::LoadU(d, plane(r0, w, c) + x), hn::LoadU(d, plane(r1, w, c) + x));
    };
    elements(
        (w + 1) >> 1,
        [&](int x) KVL_INLINE_LAMBDA {
          if constexpr (kC == 1) {
            W::store(vec(0, x), dst + x);
          } else {
            W::store3(vec(0, x), vec(1, x), vec(2, x), dst + 3 * x);
          }
        },
        [&](int x) {
          for (int c = 0; c < kC; ++c)
            storeAny(dst + x * kC + c,
                     pairOut<T>(plane(r0, w, c)[x], plane(r1, w, c)[x]));
        });
  }
};

// ---- Up-sampling ----

template <class T, int kC>
struct UpOps {
  using W = VecOps<T>;
  using Acc = typename W::L;
  using V = typename W::V;
  Kvl8u* scratch = nullptr;
  static int lanes() { return static_cast<int>(hn::Lanes(typename W::D())); }

  // A ring row: per channel, the 2w destination columns in order.
  static long long planeBytes(int w) { return align64(2LL * w * sizeof(Acc)); }
  static long long srcPlaneBytes(int w) { return align64(static_cast<long long>(w) * sizeof(T)); }
  long long rowBytes(int w) const { return kC * planeBytes(w); }
  long long scratchBytes(int w) const { return kC == 1 ? 0 : 3 * srcPlaneBytes(w); }

  static Acc* plane(Acc* r, int w, int c) {
    return reinterpret_cast<Acc*>(reinterpret_cast<Kvl8u*>(r) + c * planeBytes(w));
  }
  static const Acc* plane(const Acc* r, int w, int c) { return plane(const_cast<Acc*>(r), w, c); }
  void planes(const T* src, int w, const T* out[kC]) const {
    if constexpr (kC == 1) {
      out[0] = src;
    } else {
      T* p[3];
      for (int c = 0; c < 3; ++c) p[c] = reinterpret_cast<T*>(scratch + c * srcPlaneBytes(w));
      splitPlanes(src, w, p[0], p[1], p[2]);
      for (int c = 0; c < 3; ++c) out[c] = p[c];
    }
  }

  // Runs body(i) over vectors of source columns 1 .. w-1-N (each reads i-1 .. i+N) and edge(i)
  // on every other column, each column exactly once.
  template <class Body, class Edge>
  static void columns(int w, Body body, Edge edge) {
    const int N = lanes();
    edge(0);
    int i = 1;
    for (; i + N <= w - 1; i += N) body(i);
    for (; i < w; ++i) edge(i);
  }

  // The horizontal pass of source columns i .. i+N-1 of a plane, interleaved: destination
  // columns 2i .. 2i+2N-1 at out.
  static HWY_INLINE void hVec(const T* p, int i, Acc* out) {
    const V l = W::loadWide(p + i - 1), m = W::loadWide(p + i), r = W::loadWide(p + i + 1);
    hn::StoreInterleaved2(W::upEven(l, m, r), W::upOdd(m, r), typename W::D(), out);
  }
  static void hEdge(const T* p, int w, int i, Acc* out) {
    out[0] = static_cast<Acc>(hUpEvenAt<T, 1>(p, w, i));
    out[1] = static_cast<Acc>(hUpOddAt<T, 1>(p, w, i));
  }

  void hRow(const T* src, int w, Acc* out) const {
    const T* p[kC];
    planes(src, w, p);
    for (int c = 0; c < kC; ++c) {
      Acc* o = plane(out, w, c);
      columns(
          w, [&](int i) KVL_INLINE_LAMBDA { hVec(p[c], i, o + 2 * i); },
          [&](int i) { hEdge(p[c], w, i, o + 2 * i); });
    }
  }

  // Destination columns k .. k+N-1 (k counts elements of one channel plane) of both rows.
  template <class Rows>
  static HWY_INLINE void outVec(Rows rows, int k, T* even, T* odd) {
    V e[kC], o[kC];
    for (int c = 0; c < kC; ++c) rows(c, k, e[c], o[c]);
    if constexpr (kC == 1) {
      W::store(e[0], even + k);
      W::store(o[0], odd + k);
    } else {
      W::store3(e[0], e[1], e[2], even + 3 * k);
      W::store3(o[0], o[1], o[2], odd + 3 * k);
    }
  }

  void vPair(const Acc* prev, const Acc* cur, const Acc* next, int w, T* even, T* odd) const {
    const typename W::D d;
    const int n = 2 * w, N = lanes();
    auto rows = [&](int c, int k, V& e, V& o) KVL_INLINE_LAMBDA {
      const V p = hn::LoadU(d, plane(prev, w, c) + k), m = hn::LoadU(d, plane(cur, w, c) + k),
              q = hn::LoadU(d, plane(next, w, c) + k);
      e = W::upOut(W::upEven(p, m, q));
      o = W::upOut(W::upOdd(m, q));
    };
    int k = 0;
    for (; k + N <= n; k += N) outVec(rows, k, even, odd);
    if (k < n && n >= N) outVec(rows, n - N, even, odd);  // overlapping: nothing is written back
    else
      for (; k < n; ++k)
        for (int c = 0; c < kC; ++c) {
          const Wide<T> p = plane(prev, w, c)[k], m = plane(cur, w, c)[k], q = plane(next, w, c)[k];
          storeAny(even + k * kC + c, upOut<T>(upEven(p, m, q)));
          storeAny(odd + k * kC + c, upOut<T>(upOdd(m, q)));
        }
  }

  void fused(const T* src, int w, Acc* prev, const Acc* cur, T* even, T* odd) const {
    const typename W::D d;
    const int N = lanes();
    const T* p[kC];
    planes(src, w, p);
    columns(
        w,
        [&](int i) KVL_INLINE_LAMBDA {
          // Row j-1 is read before row j+1 takes its place.
          V pv[kC][2];
          for (int c = 0; c < kC; ++c) {
            Acc* q = plane(prev, w, c) + 2 * i;
            pv[c][0] = hn::LoadU(d, q);
            pv[c][1] = hn::LoadU(d, q + N);
            hVec(p[c], i, q);
          }
          for (int h = 0; h < 2; ++h) {
            auto rows = [&](int c, int k, V& e, V& o) KVL_INLINE_LAMBDA {
              const V m = hn::LoadU(d, plane(cur, w, c) + k), q = hn::LoadU(d, plane(prev, w, c) + k);
              e = W::upOut(W::upEven(pv[c][h], m, q));
              o = W::upOut(W::upOdd(m, q));
            };
            outVec(rows, 2 * i + h * N, even, odd);
          }
        },
        [&](int i) {
          for (int c = 0; c < kC; ++c) {
            Acc next[2];
            hEdge(p[c], w, i, next);
            for (int ph = 0; ph < 2; ++ph) {
              const int k = 2 * i + ph;
              Acc& pr = plane(prev, w, c)[k];
              const Wide<T> m = plane(cur, w, c)[k];
              storeAny(even + k * kC + c, upOut<T>(upEven(static_cast<Wide<T>>(pr), m, static_cast<Wide<T>>(next[ph]))));
              storeAny(odd + k * kC + c, upOut<T>(upOdd(m, static_cast<Wide<T>>(next[ph]))));
              pr = next[ph];
            }
          }
        });
  }

  void oneRow(const Acc* r, int w, T* d0, T* d1) const {
    const typename W::D d;
    const int n = 2 * w, N = lanes();
    auto rows = [&](int c, int k, V& e, V& o) KVL_INLINE_LAMBDA {
      e = o = W::oneOut(hn::LoadU(d, plane(r, w, c) + k));
    };
    int k = 0;
    for (; k + N <= n; k += N) outVec(rows, k, d0, d1);
    if (k < n && n >= N) outVec(rows, n - N, d0, d1);
    else
      for (; k < n; ++k)
        for (int c = 0; c < kC; ++c) {
          const T v = oneOut<T>(static_cast<Wide<T>>(plane(r, w, c)[k]));
          storeAny(d0 + k * kC + c, v);
          storeAny(d1 + k * kC + c, v);
        }
  }
};

template <class T, int kC, bool kUp>
void pyramid(const T* src, int srcStep, T* dst, int dstStep, int w, int h, Kvl8u* buffer) {
  bool done;
  if constexpr (kUp) {
    UpOps<T, kC> ops;
    done = upImage<T, kC>(ops, src, srcStep, dst, dstStep, w, h, buffer);
  } else {
    DownOps<T, kC> ops;
    done = downImage<T, kC>(ops, src, srcStep, dst, dstStep, w, h, buffer);
  }
  // Narrow rows leave too little room for the aligned planes: the reference takes them.
  if (!done) ref::pyramid<T, kC, kUp>(src, srcStep, dst, dstStep, w, h, buffer);
}

#endif  // KVL_SIMD_TARGET
}  // namespace HWY_NAMESPACE
}  // namespace kvl::pyramid
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::pyramid {

template <class T, int kC, bool kUp>
const simd::Kernel<PyrFn<T>> PyrKernel<T, kC, kUp>::kernel{KVL_TARGETS(pyramid<T, kC, kUp>),
                                                           &ref::pyramid<T, kC, kUp>};

#define KVL_INSTANTIATE(Dir, type, T, C) template struct PyrKernel<T, C, KVL_PYR_UP_##Dir>;
KVL_PYR_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::pyramid
#endif  // HWY_ONCE
