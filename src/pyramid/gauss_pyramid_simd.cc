// Vector kernels of the Gaussian 5x5 pyramids, one source for SSE4, AVX2 and AVX-512.
//
// 8u and 8s work in 16-bit lanes (every sum of the rules fits 16 bits, so wrapping adds give the
// exact int results), 32f in float lanes with the reference's order of operations.
//
// Ring rows are laid out like image rows, except for three-channel 8-bit images, which are split
// into channel planes first (a split of bytes is cheap, and it lets each plane use the byte-pair
// trick below) and interleaved again on the way out.
//
// Down, the horizontal pass at the even columns: 8-bit planes read a pair of source bytes as one
// 16-bit lane (the low byte is the even pixel, the high byte the odd one), so three overlapping
// loads give all five taps; 32f with one channel sums neighbour pairs in whole vectors and keeps
// the even lanes; 32f with three channels sums the taps around every element of two vectors and
// picks the even pixels' lanes by a lookup per output vector (`LookupTable`). Up to four
// destination rows are made per pass over the ring, so that eight source rows stream in at once,
// each prefetched ahead of its loads.
// Up, the horizontal pass stores its even and odd columns interleaved (a lane lookup for 32f
// with three channels, `ExpandTable`), so the vertical pass and the stores run along whole rows.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "pyramid/gauss_pyramid_simd.cc"
#include <hwy/cache_control.h>
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include <algorithm>

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

// Bytes ahead of its loads that a down-sampling pass prefetches each source row (measured on
// 4K frames: 1 to 2 KiB beat both less and more).
constexpr int kPrefetchBytes = 2048;

template <class T>
struct VecOps {
  using L = LaneOf<T>;
  using D = hn::ScalableTag<L>;
  using V = hn::Vec<D>;
  using DT = hn::Rebind<T, D>;  // the element type, one per lane
  static constexpr bool kFloat = std::is_floating_point_v<T>;

  static HWY_INLINE int lanes() { return static_cast<int>(hn::Lanes(D())); }
  static HWY_INLINE V splat(float f) {
    if constexpr (kFloat) {
      return hn::Set(D(), f);
    } else {
      return hn::Set(D(), static_cast<L>(f));
    }
  }
  static HWY_INLINE V times4(V v) {
    if constexpr (kFloat) {
      return hn::Mul(v, splat(4.0f));
    } else {
      return hn::ShiftLeft<2>(v);
    }
  }
  // ((a + e) + (b + d) * 4) + c * 6
  static HWY_INLINE V tap5(V a, V b, V c, V d, V e) {
    return hn::Add(hn::Add(hn::Add(a, e), times4(hn::Add(b, d))), hn::Mul(c, splat(6.0f)));
  }
  static HWY_INLINE V upEven(V a, V b, V c) {
    return hn::Add(hn::Add(a, hn::Mul(b, splat(6.0f))), c);
  }
  static HWY_INLINE V upOdd(V b, V c) { return times4(hn::Add(b, c)); }
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

  // Normalised results as elements (8-bit: saturating packs of values already in range).
  static HWY_INLINE hn::Vec<DT> narrow(V v) {
    if constexpr (kFloat) {
      return v;
    } else {
      return hn::DemoteTo(DT(), hn::BitCast(hn::Rebind<int16_t, D>(), v));
    }
  }
  static HWY_INLINE void store(V v, T* p) { hn::StoreU(narrow(v), DT(), p); }
  static HWY_INLINE void store3(V v0, V v1, V v2, T* p) {
    hn::StoreInterleaved3(narrow(v0), narrow(v1), narrow(v2), DT(), p);
  }
  // N source elements widened to lanes.
  static HWY_INLINE V loadWide(const T* p) {
    if constexpr (kFloat) {
      return hn::LoadU(D(), p);
    } else {
      return hn::PromoteTo(D(), hn::LoadU(DT(), p));
    }
  }

  // 8-bit: the horizontal down-sampling pass at columns x .. x+N-1 of a plane; source bytes
  // 2x-2 .. 2x+2N+1 are read.
  static HWY_INLINE V hDownPairs(const T* p, int x) {
    const D d;
    const hn::Repartition<T, D> d8;
    auto pairs = [&](int o)
                     KVL_INLINE_LAMBDA { return hn::BitCast(d, hn::LoadU(d8, p + 2 * x + o)); };
    auto lo = [&](V v) KVL_INLINE_LAMBDA {
      if constexpr (std::is_signed_v<T>) {
        return hn::ShiftRight<8>(hn::ShiftLeft<8>(v));
      } else {
        return hn::And(v, splat(255));
      }
    };
    const V v0 = pairs(-2), v1 = pairs(0), v2 = pairs(2);
    return tap5(lo(v0), hn::ShiftRight<8>(v0), lo(v1), hn::ShiftRight<8>(v1), lo(v2));
  }
  // 32f: the down-sampling taps around every element e .. e+N-1 of a row of stride kStride.
  template <int kStride>
  static HWY_INLINE V hFull(const T* p, int e) {
    const D d;
    auto at = [&](int k) KVL_INLINE_LAMBDA { return hn::LoadU(d, p + e + k * kStride); };
    return tap5(at(-2), at(-1), at(0), at(1), at(2));
  }
};

// Splits a three-channel row of w pixels into three planes.
template <class T>
void splitPlanes(const T* src, int w, T* const p[3]) {
  const hn::ScalableTag<T> d;
  const int N = static_cast<int>(hn::Lanes(d));
  int i = 0;
  for (; i + N <= w; i += N) {
    hn::Vec<decltype(d)> a, b, c;
    hn::LoadInterleaved3(d, src + 3 * i, a, b, c);
    hn::StoreU(a, d, p[0] + i);
    hn::StoreU(b, d, p[1] + i);
    hn::StoreU(c, d, p[2] + i);
  }
  for (; i < w; ++i)
    for (int c = 0; c < 3; ++c) p[c][i] = loadAny(src + 3 * i + c);
}

// Lane lookups from two vectors of float sums: output lane j takes lane idx0[j] of the first
// (j < split) or idx1[j] of the second, one table per phase of the output vector's start.
template <class D>
struct LookupTable {
  using Indices = decltype(hn::SetTableIndices(D(), static_cast<const int32_t*>(nullptr)));
  static constexpr bool kTwoTables = HWY_TARGET == HWY_AVX3 && hn::MaxLanes(D()) == 16;
  int base0 = 0, base1 = 0;  // offsets of the two source vectors from the anchor
  Indices idx0, idx1;
  hn::Mask<D> first;
#if HWY_TARGET == HWY_AVX3
  __m512i both;  // one permutation of the two vectors' 32 lanes
#endif

  // Lane j needs source element at(j) (non-decreasing) from the anchor.
  template <class At>
  void build(At at) {
    const D d;
    const int N = static_cast<int>(hn::Lanes(d));
    HWY_ALIGN int32_t i0[16] = {}, i1[16] = {}, i2[16] = {};
    base0 = at(0);
    int split = N;
    for (int j = 0; j < N; ++j) {
      if (split == N && at(j) >= base0 + N) split = j;
      if (j < split) {
        i0[j] = i2[j] = at(j) - base0;
      } else {
        i1[j] = at(j) - at(split);
        i2[j] = N + i1[j];
      }
    }
    base1 = split < N ? at(split) : base0;
    idx0 = hn::SetTableIndices(d, i0);
    idx1 = hn::SetTableIndices(d, i1);
    first = hn::FirstN(d, static_cast<size_t>(split));
#if HWY_TARGET == HWY_AVX3
    both = _mm512_loadu_si512(i2);
#endif
  }
  HWY_INLINE hn::Vec<D> pick(hn::Vec<D> v0, hn::Vec<D> v1) const {
#if HWY_TARGET == HWY_AVX3
    if constexpr (kTwoTables) return hn::Vec<D>{_mm512_permutex2var_ps(v0.raw, both, v1.raw)};
#endif
    return hn::IfThenElse(first, hn::TableLookupLanes(v0, idx0), hn::TableLookupLanes(v1, idx1));
  }
};

// ---- Down-sampling ----

// What the down and up passes share: the ring rows' planes (three-channel 8-bit rows are split
// into channel planes, see above) and the stores of results, interleaved again for them.
template <class T, int kC>
struct RingPlanes {
  using W = VecOps<T>;
  using Acc = typename W::L;
  using V = typename W::V;
  static constexpr bool kPlanar = kC == 3 && !W::kFloat;
  static constexpr int kPlanes = kPlanar ? 3 : 1;
  Kvl8u* scratch = nullptr;
  int w = 0;
  int n = 0;                    // ring elements per plane
  long long planeBytes = 0;     // ring plane pitch
  long long srcPlaneBytes = 0;  // pitch of the split source planes in scratch

  RingPlanes(int width, int elements)
      : w(width),
        n(elements),
        planeBytes(roundUp(static_cast<long long>(elements) * sizeof(Acc), 64)),
        srcPlaneBytes(roundUp(static_cast<long long>(width) * sizeof(T), 64)) {}
  long long rowBytes(int) const { return kPlanes * planeBytes; }

  Acc* plane(Acc* r, int c) const {
    return reinterpret_cast<Acc*>(reinterpret_cast<Kvl8u*>(r) + c * planeBytes);
  }
  const Acc* plane(const Acc* r, int c) const { return plane(const_cast<Acc*>(r), c); }
  // The planes of a source row (split into scratch row k for planar layouts).
  void sourcePlanes(const T* src, int k, const T* out[kPlanes]) const {
    if constexpr (kPlanar) {
      T* p[3];
      for (int c = 0; c < 3; ++c)
        p[c] = reinterpret_cast<T*>(scratch + (3 * k + c) * srcPlaneBytes);
      splitPlanes(src, w, p);
      for (int c = 0; c < 3; ++c) out[c] = p[c];
    } else {
      out[0] = src;
    }
  }
  // Stores the results of ring elements k .. k+N-1 of every plane.
  HWY_INLINE void put(const V* v, T* dst, int k) const {
    if constexpr (kPlanar) {
      W::store3(v[0], v[1], v[2], dst + 3 * k);
    } else {
      W::store(v[0], dst + k);
    }
  }
  static void putScalar(T* dst, int k, int c, T v) { storeAny(dst + (kPlanar ? 3 * k + c : k), v); }
};
// The shared members by name in DownOps and UpOps (a dependent base hides them otherwise).
#define KVL_RING_PLANES()                                                                         \
  using Base = RingPlanes<T, kC>;                                                                 \
  using typename Base::W;                                                                         \
  using typename Base::Acc;                                                                       \
  using typename Base::V;                                                                         \
  using Base::kPlanar, Base::kPlanes, Base::scratch, Base::w, Base::n, Base::planeBytes;          \
  using Base::srcPlaneBytes, Base::plane, Base::sourcePlanes, Base::put, Base::putScalar

template <class T, int kC>
struct DownOps : RingPlanes<T, kC> {
  KVL_RING_PLANES();
  static constexpr int kStride = kPlanar ? 1 : kC;  // source elements between a plane's pixels
  int first = 1, last = 0;              // the ring elements a whole vector may start at
  LookupTable<typename W::D> phase[3];  // 32f, three channels: by the vector's start modulo 3

  explicit DownOps(int width)
      : Base(width, kPlanar ? (width + 1) >> 1 : ((width + 1) >> 1) * kC) {
    const int N = W::lanes();
    if constexpr (W::kFloat && kC == 3) {
      // Output element k = 3x + c sums around source element 6x + c = 2k - c.
      int lo = 0, hi = 0;
      for (int f = 0; f < 3; ++f) {
        phase[f].build([f](int j) { return 2 * j - (f + j) % 3; });
        lo = std::min(lo, phase[f].base0);
        hi = std::max(hi, std::max(phase[f].base0, phase[f].base1) + N - 1);
      }
      first = (6 - lo + 1) / 2;
      last = (3 * w - 7 - hi) / 2;  // the vector at k reads 2k + lo - 6 .. 2k + hi + 6
      if (3 * w - 7 - hi < 0) last = -1;
    } else {
      first = 1;
      last = w >= 2 * N + 4 ? (w - 2 * N - 2) / 2 : 0;  // reads 2k - 2 .. 2k + 2N + 1
    }
  }
  long long scratchBytes(int) const { return kPlanar ? 6 * kMaxFused * srcPlaneBytes : 0; }

  // The horizontal pass: ring elements k .. k+N-1 of a plane, and ring element k alone.
  using Table = LookupTable<typename W::D>;
  // The lookups of the vector at ring element k (32f, three channels), taken once per vector
  // and shared by every row.
  HWY_INLINE const Table& tableAt(int k) const { return phase[W::kFloat && kC == 3 ? k % 3 : 0]; }
  HWY_INLINE V hVec(const T* p, int k, const Table& t) const {
    if constexpr (!W::kFloat) {
      return W::hDownPairs(p, k);
    } else if constexpr (kC == 1) {
      // Neighbour pairs summed across two loads, then the even (or odd) lanes kept: three lane
      // permutations give the outer pairs, the inner pairs and the centres.
      const typename W::D d;
      const int N = W::lanes();
      const float* q = p + 2 * k;
      const V a0 = hn::LoadU(d, q - 2), a1 = hn::LoadU(d, q - 2 + N);
      const V b0 = hn::LoadU(d, q), b1 = hn::LoadU(d, q + N);
      const V c0 = hn::LoadU(d, q + 2), c1 = hn::LoadU(d, q + 2 + N);
      const V outer = hn::ConcatEven(d, hn::Add(a1, c1), hn::Add(a0, c0));
      const V inner = hn::ConcatOdd(d, hn::Add(a1, b1), hn::Add(a0, b0));
      const V centre = hn::ConcatEven(d, b1, b0);
      return hn::Add(hn::Add(outer, W::times4(inner)), hn::Mul(centre, W::splat(6.0f)));
    } else {
      return t.pick(W::template hFull<3>(p, 2 * k + t.base0),
                    W::template hFull<3>(p, 2 * k + t.base1));
    }
  }
  Wide<T> hScalar(const T* p, int k) const {
    if constexpr (kStride == 1) {
      return hDownAt<T, 1>(p, w, k);
    } else {
      return hDownAt<T, kStride>(p + k % kC, w, k / kC);
    }
  }

  // Runs body(k) over vectors of ring elements and edge(k) on the elements no whole vector can
  // take; the last vector may overlap its predecessor.
  template <bool kOverlap = true, class Body, class Edge>
  void columns(Body body, Edge edge) const {
    const int N = W::lanes();
    int k = 0;
    if (last >= first) {
      for (; k < first; ++k) edge(k);
      for (; k <= last; k += N) body(k);
      if constexpr (kOverlap) {
        if (k < last + N) body(last);
        k = last + N;
      }
    }
    for (; k < n; ++k) edge(k);
  }
  // Runs body(k) over vectors of the n ring elements and edge(k) on the rest.
  template <class Body, class Edge>
  void elements(Body body, Edge edge) const {
    const int N = W::lanes();
    int k = 0;
    for (; k + N <= n; k += N) body(k);
    if (k < n && n >= N) {
      body(n - N);
      k = n;
    }
    for (; k < n; ++k) edge(k);
  }
  void hRow(const T* src, int, Acc* out) const {
    const T* p[kPlanes];
    sourcePlanes(src, 0, p);
    for (int c = 0; c < kPlanes; ++c) {
      Acc* o = plane(out, c);
      const T* s = p[c];
      columns([&](int k)
                  KVL_INLINE_LAMBDA { hn::StoreU(hVec(s, k, tableAt(k)), typename W::D(), o + k); },
              [&](int k) { o[k] = static_cast<Acc>(hScalar(s, k)); });
    }
  }

  void vRow(const Acc* const r[5], int, T* dst) const {
    const typename W::D d;
    const Acc* rp[kPlanes][5];
    for (int c = 0; c < kPlanes; ++c)
      for (int i = 0; i < 5; ++i) rp[c][i] = plane(r[i], c);
    elements(
        [&](int k) KVL_INLINE_LAMBDA {
          V v[kPlanes];
          for (int c = 0; c < kPlanes; ++c) {
            const Acc* const* q = rp[c];
            v[c] = W::downOut(W::tap5(hn::LoadU(d, q[0] + k), hn::LoadU(d, q[1] + k),
                                      hn::LoadU(d, q[2] + k), hn::LoadU(d, q[3] + k),
                                      hn::LoadU(d, q[4] + k)));
          }
          put(v, dst, k);
        },
        [&](int k) {
          for (int c = 0; c < kPlanes; ++c) {
            const Acc* const* q = rp[c];
            putScalar(dst, k, c,
                      downOut<T>(tap5(Wide<T>(q[0][k]), Wide<T>(q[1][k]), Wide<T>(q[2][k]),
                                      Wide<T>(q[3][k]), Wide<T>(q[4][k]))));
          }
        });
  }

  void fused(const T* const src[kMaxFused * 2], int nOut, int, Acc* const ring[3],
             T* const dst[kMaxFused]) const {
    const T* p[kMaxFused * 2][kPlanes];
    for (int r = 0; r < 2 * nOut; ++r) sourcePlanes(src[r], r, p[r]);
    Acc* rp[kPlanes][3];
    for (int c = 0; c < kPlanes; ++c)
      for (int i = 0; i < 3; ++i) rp[c][i] = plane(ring[i], c);
    if constexpr (kMaxFused >= 4) {
      if (nOut == 4) return fusedRows<4>(p, rp, dst);
    }
    if constexpr (kMaxFused >= 3) {
      if (nOut == 3) return fusedRows<3>(p, rp, dst);
    }
    if (nOut == 2) return fusedRows<2>(p, rp, dst);
    fusedRows<1>(p, rp, dst);
  }
  // kOut destination rows from 2 kOut source rows. The ring is rewritten in place, so the last
  // vector, which overlaps its predecessor, takes the ring values it needs before the others
  // change them.
  template <int kOut>
  void fusedRows(const T* const (&p)[kMaxFused * 2][kPlanes], Acc* const (&rp)[kPlanes][3],
                 T* const dst[kMaxFused]) const {
    constexpr int kRows = 2 * kOut;
    const typename W::D d;
    V lastRing[kPlanes][3];
    if (last >= first)
      for (int c = 0; c < kPlanes; ++c)
        for (int i = 0; i < 3; ++i) lastRing[c][i] = hn::LoadU(d, rp[c][i] + last);
    auto step = [&](int k, bool isLast) KVL_INLINE_LAMBDA {
      if constexpr (!kPlanar) {
        // The lines the next vectors read (by address only: they may lie past the image).
        for (int r = 0; r < kRows; ++r)
          for (int l = 0; l < 2 * W::lanes() * static_cast<int>(sizeof(T)); l += 64)
            hwy::Prefetch(reinterpret_cast<const T*>(reinterpret_cast<uintptr_t>(p[r][0] + 2 * k) +
                                                     kPrefetchBytes + l));
      }
      V h[kPlanes][3 + kRows];
      const Table& t = tableAt(k);
      for (int c = 0; c < kPlanes; ++c) {
        for (int i = 0; i < 3; ++i) h[c][i] = isLast ? lastRing[c][i] : hn::LoadU(d, rp[c][i] + k);
        for (int r = 0; r < kRows; ++r) h[c][3 + r] = hVec(p[r][c], k, t);
        for (int i = 0; i < 3; ++i) hn::StoreU(h[c][kRows + i], d, rp[c][i] + k);
      }
      for (int j = 0; j < kOut; ++j) {
        V v[kPlanes];
        for (int c = 0; c < kPlanes; ++c)
          v[c] = W::downOut(W::tap5(h[c][2 * j], h[c][2 * j + 1], h[c][2 * j + 2], h[c][2 * j + 3],
                                    h[c][2 * j + 4]));
        put(v, dst[j], k);
      }
    };
    columns([&](int k) KVL_INLINE_LAMBDA { step(k, k == last); },
            [&](int k) {
              for (int c = 0; c < kPlanes; ++c) {
                Wide<T> h[3 + kRows];
                for (int i = 0; i < 3; ++i) h[i] = rp[c][i][k];
                for (int r = 0; r < kRows; ++r) h[3 + r] = hScalar(p[r][c], k);
                for (int i = 0; i < 3; ++i) rp[c][i][k] = static_cast<Acc>(h[kRows + i]);
                for (int j = 0; j < kOut; ++j)
                  putScalar(dst[j], k, c,
                            downOut<T>(tap5(h[2 * j], h[2 * j + 1], h[2 * j + 2], h[2 * j + 3],
                                            h[2 * j + 4])));
              }
            });
  }

  void pairRow(const Acc* r0, const Acc* r1, int, T* dst) const {
    const typename W::D d;
    elements(
        [&](int k) KVL_INLINE_LAMBDA {
          V v[kPlanes];
          for (int c = 0; c < kPlanes; ++c)
            v[c] = W::pairOut(hn::LoadU(d, plane(r0, c) + k), hn::LoadU(d, plane(r1, c) + k));
          put(v, dst, k);
        },
        [&](int k) {
          for (int c = 0; c < kPlanes; ++c)
            putScalar(dst, k, c, pairOut<T>(plane(r0, c)[k], plane(r1, c)[k]));
        });
  }
};

// ---- Up-sampling ----

// 32f, three channels: ring element o = 6i + 3p + c (destination pixel 2i + p, channel c) is
// phase p of source element 3i + c. A vector of ring elements from o0 takes its lanes from the
// even and odd sums of source elements anchor + base .. + N-1, anchor = 3 (o0 / 6), one table per
// o0 modulo 6.
struct ExpandTable {
  using D = VecOps<float>::D;
  using Indices = decltype(hn::SetTableIndices(D(), static_cast<const int32_t*>(nullptr)));
  int base = 0;
  Indices idx;
  hn::Mask<D> odd;

  void build(int f) {
    const D d;
    const hn::RebindToSigned<D> di;
    const int N = static_cast<int>(hn::Lanes(d));
    auto source = [f](int j) { return 3 * ((f + j) / 6) + (f + j) % 3; };
    base = source(0);
    for (int j = 0; j < N; ++j) base = std::min(base, source(j));
    HWY_ALIGN int32_t lane[16] = {}, phase[16] = {};
    for (int j = 0; j < N; ++j) {
      lane[j] = source(j) - base;
      phase[j] = ((f + j) / 3) % 2;
    }
    idx = hn::SetTableIndices(d, lane);
    odd = hn::RebindMask(d, hn::Ne(hn::Load(di, phase), hn::Zero(di)));
  }
};

template <class T, int kC>
struct UpOps : RingPlanes<T, kC> {
  KVL_RING_PLANES();
  static constexpr bool kExpand = W::kFloat && kC == 3;
  ExpandTable phase[6];
  int tail = -1;  // lastBlock()

  explicit UpOps(int width) : Base(width, kPlanar ? 2 * width : 2 * width * kC) {
    if constexpr (kExpand)
      for (int f = 0; f < 6; ++f) phase[f].build(f);
    tail = findLastBlock();
  }
  long long scratchBytes(int) const { return kPlanar ? 3 * srcPlaneBytes : 0; }

  // The units of the horizontal pass: a source column of a plane (its two ring elements 2i,
  // 2i+1) or, for kExpand, a ring element. A vector block covers N units.
  bool fits(int u) const {
    const int N = W::lanes();
    if constexpr (kExpand) {
      // The block at o0 reads source elements anchor + base - 3 .. anchor + base + N + 2.
      return u >= 6 && u + N <= n && 3 * (u / 6) + phase[u % 6].base + N + 2 <= 3 * w - 1;
    } else {
      return u >= 1 && u + N <= w - 1;  // reads columns u-1 .. u+N
    }
  }
  int firstBlock() const { return kExpand ? 6 : 1; }
  // The block after the regular ones that overlaps the last of them to reach the row's end, or -1.
  int findLastBlock() const {
    const int N = W::lanes();
    int u = firstBlock();
    while (fits(u)) u += N;
    for (int v = (kExpand ? n : w - 1) - N; v > u - N; --v)
      if (fits(v)) return v;
    return -1;
  }
  int lastBlock() const { return tail; }
  // Runs body(u, last) on the vector blocks (last: the overlapping one) and edge(u) on every
  // other unit.
  template <class Body, class Edge>
  void columns(Body body, Edge edge) const {
    const int N = W::lanes(), units = kExpand ? n : w;
    int u = 0;
    for (; u < firstBlock() && u < units; ++u) edge(u);
    for (; fits(u); u += N) body(u, false);
    if (tail >= 0) {
      body(tail, true);
      u = tail + N;
    }
    for (; u < units; ++u) edge(u);
  }
  // Ring unit u of source plane p: its one (kExpand) or two ring elements, in scalar.
  void hScalar(const T* p, int u, Acc* out) const {
    if constexpr (kExpand) {
      const int pixel = u / 3, c = u % 3, i = pixel / 2;
      out[0] = pixel % 2 ? hUpOddAt<T, 3>(p + c, w, i) : hUpEvenAt<T, 3>(p + c, w, i);
    } else {
      out[0] = static_cast<Acc>(hUpEvenAt<T, 1>(p, w, u));
      out[1] = static_cast<Acc>(hUpOddAt<T, 1>(p, w, u));
    }
  }
  static constexpr int kPerUnit = kExpand ? 1 : 2;
  // The horizontal pass of the block at unit u into out (ring elements kPerUnit u on).
  HWY_INLINE void hBlock(const T* p, int u, Acc* out) const {
    const typename W::D d;
    if constexpr (kExpand) {
      const ExpandTable& t = phase[u % 6];
      const float* q = p + 3 * (u / 6) + t.base;
      const V l = hn::LoadU(d, q - 3), m = hn::LoadU(d, q), r = hn::LoadU(d, q + 3);
      const V v = hn::IfThenElse(t.odd, hn::TableLookupLanes(W::upOdd(m, r), t.idx),
                                 hn::TableLookupLanes(W::upEven(l, m, r), t.idx));
      hn::StoreU(v, d, out);
    } else {
      const V l = W::loadWide(p + u - 1), m = W::loadWide(p + u), r = W::loadWide(p + u + 1);
      hn::StoreInterleaved2(W::upEven(l, m, r), W::upOdd(m, r), d, out);
    }
  }
  void hRow(const T* src, int, Acc* out) const {
    const T* p[kPlanes];
    sourcePlanes(src, 0, p);
    for (int c = 0; c < kPlanes; ++c) {
      Acc* o = plane(out, c);
      const T* s = p[c];
      columns([&](int u, bool) KVL_INLINE_LAMBDA { hBlock(s, u, o + kPerUnit * u); },
              [&](int u) { hScalar(s, u, o + kPerUnit * u); });
    }
  }

  // Both destination rows over every ring element, from rows(c, k, even, odd).
  template <class Rows, class Scalar>
  void bothRows(T* even, T* odd, Rows rows, Scalar scalar) const {
    const int N = W::lanes();
    auto block = [&](int k) KVL_INLINE_LAMBDA {
      V e[kPlanes], o[kPlanes];
      for (int c = 0; c < kPlanes; ++c) rows(c, k, e[c], o[c]);
      put(e, even, k);
      put(o, odd, k);
    };
    int k = 0;
    for (; k + N <= n; k += N) block(k);
    if (k < n && n >= N) {
      block(n - N);  // overlapping: these write no ring element
      k = n;
    }
    for (; k < n; ++k)
      for (int c = 0; c < kPlanes; ++c) scalar(c, k);
  }

  void vPair(const Acc* prev, const Acc* cur, const Acc* next, int, T* even, T* odd) const {
    const typename W::D d;
    bothRows(
        even, odd,
        [&](int c, int k, V& e, V& o) KVL_INLINE_LAMBDA {
          const V p = hn::LoadU(d, plane(prev, c) + k), m = hn::LoadU(d, plane(cur, c) + k),
                  q = hn::LoadU(d, plane(next, c) + k);
          e = W::upOut(W::upEven(p, m, q));
          o = W::upOut(W::upOdd(m, q));
        },
        [&](int c, int k) {
          const Wide<T> p = plane(prev, c)[k], m = plane(cur, c)[k], q = plane(next, c)[k];
          putScalar(even, k, c, upOut<T>(upEven(p, m, q)));
          putScalar(odd, k, c, upOut<T>(upOdd(m, q)));
        });
  }

  void oneRow(const Acc* r, int, T* d0, T* d1) const {
    const typename W::D d;
    bothRows(
        d0, d1,
        [&](int c, int k, V& e, V& o)
            KVL_INLINE_LAMBDA { e = o = W::oneOut(hn::LoadU(d, plane(r, c) + k)); },
        [&](int c, int k) {
          const T v = oneOut<T>(static_cast<Wide<T>>(plane(r, c)[k]));
          putScalar(d0, k, c, v);
          putScalar(d1, k, c, v);
        });
  }

  void fused(const T* src, int, Acc* prev, const Acc* cur, T* even, T* odd) const {
    const typename W::D d;
    const int N = W::lanes();
    const T* p[kPlanes];
    sourcePlanes(src, 0, p);
    Acc* pp[kPlanes];
    const Acc* cp[kPlanes];
    for (int c = 0; c < kPlanes; ++c) {
      pp[c] = plane(prev, c);
      cp[c] = plane(cur, c);
    }
    // Row j-1 is read before row j+1 takes its place; the overlapping last block reads it before
    // the blocks it overlaps change it.
    V lastPrev[kPlanes][kPerUnit];
    if (tail >= 0)
      for (int c = 0; c < kPlanes; ++c)
        for (int h = 0; h < kPerUnit; ++h)
          lastPrev[c][h] = hn::LoadU(d, pp[c] + kPerUnit * tail + h * N);
    columns(
        [&](int u, bool isLast) KVL_INLINE_LAMBDA {
          V pv[kPlanes][kPerUnit];
          for (int c = 0; c < kPlanes; ++c) {
            for (int h = 0; h < kPerUnit; ++h)
              pv[c][h] = isLast ? lastPrev[c][h] : hn::LoadU(d, pp[c] + kPerUnit * u + h * N);
            hBlock(p[c], u, pp[c] + kPerUnit * u);
          }
          for (int h = 0; h < kPerUnit; ++h) {
            const int k = kPerUnit * u + h * N;  // the ring elements of this half of the block
            V e[kPlanes], o[kPlanes];
            for (int c = 0; c < kPlanes; ++c) {
              const V m = hn::LoadU(d, cp[c] + k), q = hn::LoadU(d, pp[c] + k);
              e[c] = W::upOut(W::upEven(pv[c][h], m, q));
              o[c] = W::upOut(W::upOdd(m, q));
            }
            put(e, even, k);
            put(o, odd, k);
          }
        },
        [&](int u) {
          for (int c = 0; c < kPlanes; ++c) {
            Acc next[2];
            hScalar(p[c], u, next);
            for (int h = 0; h < kPerUnit; ++h) {
              const int k = kPerUnit * u + h;
              const Wide<T> pv = pp[c][k], m = cp[c][k], q = next[h];
              putScalar(even, k, c, upOut<T>(upEven(pv, m, q)));
              putScalar(odd, k, c, upOut<T>(upOdd(m, q)));
              pp[c][k] = next[h];
            }
          }
        });
  }
};

#undef KVL_RING_PLANES

template <class T, int kC, bool kUp>
void pyramid(const T* src, int srcStep, T* dst, int dstStep, int w, int h, Kvl8u* buffer) {
  bool done;
  if constexpr (kUp) {
    UpOps<T, kC> ops(w);
    done = upImage<T, kC>(ops, src, srcStep, dst, dstStep, w, h, buffer);
  } else {
    DownOps<T, kC> ops(w);
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
