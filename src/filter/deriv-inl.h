// Vector kernels of the derivative filters, per target: the row pass of each source row into a
// ring of K intermediate rows per column tile, then the column pass from the ring into the
// destination. Included by every deriv_simd_<unit>.cc under Highway's per-target loop.

// Per-target include guard: this header is included once per target.
#if defined(KVL_FILTER_DERIV_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef KVL_FILTER_DERIV_INL_H_
#undef KVL_FILTER_DERIV_INL_H_
#else
#define KVL_FILTER_DERIV_INL_H_
#endif

#include <hwy/highway.h>
#include <immintrin.h>

#include <algorithm>
#include <array>
#include <type_traits>
#include <utility>

#include "core/pixel.h"
#include "core/simd.h"
#include "filter/deriv.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::filter::deriv {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

// k x v with the products by +-1 and 2 as exact additions (the same bits as the multiply).
template <class D, class V>
HWY_INLINE V scaled(D d, V v, int k) {
  if (k == 1) return v;
  if (k == -1) return hn::Neg(v);
  if (k == 2) return hn::Add(v, v);
  return hn::Mul(v, hn::Set(d, static_cast<hn::TFromD<D>>(k)));
}

// Whether the taps mirror each other about the centre with the same sign (sign +1) or the
// opposite sign (sign -1).
constexpr bool mirrored(const Taps& t, int sign) {
  for (int i = 0; i < t.n / 2; ++i)
    if (t.k[i] != sign * t.k[t.n - 1 - i]) return false;
  return sign == 1 || t.k[t.n / 2] == 0;
}

// The vector form of tapSum: the same terms in the same order. Integer lanes wrap exactly, so
// for them a mirrored kernel first pairs the outer pixels and scales each pair once (one
// product per pair instead of two, the same bits).
template <Taps kT, class D, class L>
HWY_INLINE hn::Vec<D> vecTapSum(D d, const L& load) {
  if constexpr (!hwy::IsFloat<hn::TFromD<D>>() && (mirrored(kT, 1) || mirrored(kT, -1))) {
    constexpr bool kSame = mirrored(kT, 1);
    hn::Vec<D> s = hn::Zero(d);
    bool first = true;
    // s += k x v, negative k as a subtraction
    auto add = [&](hn::Vec<D> v, int k) KVL_INLINE_LAMBDA {
      if (first) {
        s = scaled(d, v, k);
      } else {
        s = k < 0 ? hn::Sub(s, scaled(d, v, -k)) : hn::Add(s, scaled(d, v, k));
      }
      first = false;
    };
#pragma GCC unroll 2
    for (int i = 0; i < kT.n / 2; ++i) {
      const int k = kT.k[kT.n - 1 - i];
      if (k == 0) continue;
      const hn::Vec<D> lo = load(i), hi = load(kT.n - 1 - i);
      if (kSame) {
        add(hn::Add(lo, hi), k);
      } else {  // k x (hi - lo), kept a positive multiple of the difference
        add(k > 0 ? hn::Sub(hi, lo) : hn::Sub(lo, hi), k > 0 ? k : -k);
      }
    }
    if (kT.k[kT.n / 2] != 0) add(load(kT.n / 2), kT.k[kT.n / 2]);
    return s;
  }
  hn::Vec<D> s = hn::Zero(d);
  bool first = true;
#pragma GCC unroll 5
  for (int i = 0; i < kT.n; ++i) {
    const int k = kT.k[i];
    if (k == 0) continue;
    const hn::Vec<D> v = load(i);
    if (first) {
      s = scaled(d, v, k);
    } else if (k == 1) {
      s = hn::Add(s, v);
    } else if (k == -1) {
      s = hn::Sub(s, v);
    } else {
      s = hn::Add(s, scaled(d, v, k));
    }
    first = false;
  }
  return s;
}

template <class Src>
using WorkTag = hn::ScalableTag<Work<Src>>;

// Row pass of one source row over tile columns [x0, x0 + n) into t (t[0] is column x0). Pixels
// within c of the image's left or right edge take the border rule; the others read the row.
template <Taps kA, class Src>
HWY_INLINE void rowPass(const Src* row, int w, int bt, Src value, int x0, int n, Work<Src>* t) {
  constexpr int c = kA.n / 2;
  const WorkTag<Src> d;
  const int N = static_cast<int>(hn::Lanes(d));
  const int x1 = x0 + n;
  const int lo = std::max(x0, c), hi = std::min(x1, w - c);
  if (lo >= hi) {
    for (int x = x0; x < x1; ++x) t[x - x0] = rowAtEdge<Src>(kA, row, x, w, bt, value);
    return;
  }
  for (int x = x0; x < lo; ++x) t[x - x0] = rowAtEdge<Src>(kA, row, x, w, bt, value);
  // The interior in whole vectors; the last one overlaps its predecessor rather than leaving
  // a scalar remainder (the row pass has no grouping, so recomputed pixels are identical).
  auto vecAt = [&](int x) KVL_INLINE_LAMBDA {
    if constexpr (std::is_same_v<Src, Kvl8u>) {
      const hn::Rebind<uint8_t, decltype(d)> d8;
      return vecTapSum<kA>(d, [&](int i) KVL_INLINE_LAMBDA {
        return hn::PromoteTo(d, hn::LoadU(d8, row + x + i - c));
      });
    } else {
      return vecTapSum<kA>(
          d, [&](int i) KVL_INLINE_LAMBDA { return hn::LoadU(d, row + x + i - c); });
    }
  };
  int x = lo;
  if (hi - lo >= N) {
    for (; x + N <= hi; x += N) hn::StoreU(vecAt(x), d, t + (x - x0));
    if (x < hi) hn::StoreU(vecAt(hi - N), d, t + (hi - N - x0));
    x = hi;
  }
  for (; x < hi; ++x)
    t[x - x0] = static_cast<Work<Src>>(
        tapSum<Acc<Src>>(kA, [&](int i) { return loadAny(row + x + i - c); }));
  for (x = hi; x < x1; ++x) t[x - x0] = rowAtEdge<Src>(kA, row, x, w, bt, value);
}

// The group conversion of 16-bit sums: x recip in single precision, round to nearest even,
// saturate to D (clamping before rounding gives the same integers, the range ends being whole).
template <class D8, class D16>
HWY_INLINE hn::Vec<D8> convertGroup(D8 d8, D16 d16, hn::Vec<D16> s,
                                    hn::Vec<hn::Repartition<float, D16>> r) {
  const hn::Repartition<int32_t, D16> d32;
  const hn::Repartition<float, D16> df;
  const hn::Half<D16> dh;
  auto half = [&](auto h) KVL_INLINE_LAMBDA {
    return hn::NearestInt(hn::Mul(hn::ConvertTo(df, hn::PromoteTo(d32, h)), r));
  };
  const auto lo = half(hn::LowerHalf(dh, s));
  const auto hi = half(hn::UpperHalf(dh, s));
  const auto v16 = hn::Combine(d16, hn::DemoteTo(dh, hi), hn::DemoteTo(dh, lo));
  return hn::DemoteTo(d8, v16);
}

template <Kind kKind, int kK, Out kOut>
void kernel(const Job& j) {
  using Src = std::conditional_t<kOut == Out::k32f, Kvl32f, Kvl8u>;
  using W = Work<Src>;
  using A = Acc<Src>;
  constexpr int kPairs = pairsOf(kKind, kK);
  constexpr int c = kK / 2;
  constexpr Taps kA0 = rowTaps(kKind, kK, 0), kA1 = rowTaps(kKind, kK, 1);
  constexpr Taps kB0 = colTaps(kKind, kK, 0), kB1 = colTaps(kKind, kK, 1);
  const WorkTag<Src> d;
  const int N = static_cast<int>(hn::Lanes(d));
  const int w = j.width;
  const int bt = j.borderType;
  const Src value = static_cast<Src>(j.value);
  const int tw = tileWidth(j, kK, kPairs, sizeof(W));
  W* ring = static_cast<W*>(alignUp(j.buffer, 32));
  const int bodyEnd = columnBodyEnd(w);
  auto srcRow = [&](int y) { return rowPtr(static_cast<const Src*>(j.src), j.srcStep, y); };
  auto slot = [&](int p, int yy) { return ring + (p * kK + ((yy % kK) + kK) % kK) * tw; };

  // With more than one tile the rows go in bands, each band through every tile, so the band's
  // source rows are still cached when the next tile reads them; each band and tile restarts
  // the ring c rows above the band.
  const int band = tw < w ? bandRows(w, static_cast<int>(sizeof(Src)), j.rows) : j.rows;
  for (int yb = j.y0; yb < j.y0 + j.rows; yb += band) {
    const int yEnd = std::min(j.y0 + j.rows, yb + band);
    for (int x0 = 0; x0 < w; x0 += tw) {
      const int n = std::min(tw, w - x0);
      // The row pass of virtual row yy into its ring slot.
      auto fillRow = [&](int yy) {
        const int sy = sourceRow(yy, j.height, bt);
        for (int p = 0; p < kPairs; ++p) {
          W* t = slot(p, yy);
          if (sy == kConstant) {
            std::fill(t, t + n, rowOfConstant<Src>(p == 0 ? kA0 : kA1, value));
          } else if (p == 0) {
            rowPass<kA0, Src>(srcRow(sy), w, bt, value, x0, n, t);
          } else {
            rowPass<kA1, Src>(srcRow(sy), w, bt, value, x0, n, t);
          }
        }
      };
      for (int yy = yb - c; yy < yb + c; ++yy) fillRow(yy);
      for (int y = yb; y < yEnd; ++y) {
        if (j.prefetchRows > 0) {  // the tile's span of a source row a few rows below
          const int py = y + c + j.prefetchRows;
          if (py < j.height) {
            const char* pr = reinterpret_cast<const char*>(srcRow(py) + x0);
            const int bytes = n * static_cast<int>(sizeof(Src));
            for (int b = 0; b < bytes; b += 64) _mm_prefetch(pr + b, _MM_HINT_T0);
          }
        }
        fillRow(y + c);
        const W* r0[kK];
        const W* r1[kK];
        for (int r = 0; r < kK; ++r) {
          r0[r] = slot(0, y + r - c);
          r1[r] = slot(kPairs - 1, y + r - c);
        }
        const Src* centre = srcRow(y) + x0;
        auto vecSum = [&](int i) KVL_INLINE_LAMBDA {
          if constexpr (centreForm(kKind, kK)) {
            const auto t02 = hn::Add(hn::LoadU(d, r0[0] + i), hn::LoadU(d, r0[2] + i));
            hn::Vec<decltype(d)> ctr;
            if constexpr (std::is_same_v<Src, Kvl8u>) {
              ctr = hn::PromoteTo(d, hn::LoadU(hn::Rebind<uint8_t, decltype(d)>(), centre + i));
            } else {
              ctr = hn::LoadU(d, centre + i);
            }
            if constexpr (std::is_same_v<Src, Kvl8u>) {
              return hn::Sub(hn::ShiftLeft<1>(t02), hn::ShiftLeft<3>(ctr));
            } else {
              return hn::Sub(hn::Mul(t02, hn::Set(d, 2.0f)), hn::Mul(ctr, hn::Set(d, 8.0f)));
            }
          } else {
            auto s = vecTapSum<kB0>(
                d, [&](int r) KVL_INLINE_LAMBDA { return hn::LoadU(d, r0[r] + i); });
            if constexpr (kPairs == 2)
              s = hn::Add(s, vecTapSum<kB1>(d, [&](int r) KVL_INLINE_LAMBDA {
                            return hn::LoadU(d, r1[r] + i);
                          }));
            return s;
          }
        };
        auto scalarSum = [&](int i) -> A {
          if constexpr (centreForm(kKind, kK)) {
            return centreColumn<A>(r0[0][i], r0[2][i], static_cast<A>(loadAny(centre + i)));
          } else {
            A s = tapSum<A>(kB0, [&](int r) { return r0[r][i]; });
            if constexpr (kPairs == 2)
              s = static_cast<A>(s + tapSum<A>(kB1, [&](int r) { return r1[r][i]; }));
            return s;
          }
        };
        char* outRow = rowPtr(static_cast<char*>(j.dst), j.dstStep, y - j.dstY0);
        int i = 0;
        if constexpr (kOut == Out::k16s || kOut == Out::k32f) {
          W* out = reinterpret_cast<W*>(outRow) + x0;
          const uintptr_t vb = static_cast<uintptr_t>(N) * sizeof(W);
          const uintptr_t mis = reinterpret_cast<uintptr_t>(out) % vb;
          const int head = static_cast<int>((vb - mis) % vb / sizeof(W));
          if (j.stream && mis % sizeof(W) == 0 && head + N <= n) {
            // Streaming stores from the first vector-aligned pixel; the unaligned head and the
            // overlapping last vector use ordinary stores (overlapping pixels get the same values
            // from both, so the weak ordering of the streaming stores does not matter).
            if (head > 0) hn::StoreU(vecSum(0), d, out);
            for (i = head; i + N <= n; i += N) hn::Stream(vecSum(i), d, out + i);
            if (i < n) hn::StoreU(vecSum(n - N), d, out + n - N);
            i = n;
          } else if (n >= N) {
            for (; i + N <= n; i += N) hn::StoreU(vecSum(i), d, out + i);
            if (i < n) hn::StoreU(vecSum(n - N), d, out + n - N);  // overlapping last vector
            i = n;
          }
        } else {
          using D8 = std::conditional_t<kOut == Out::k8s, int8_t, uint8_t>;
          const hn::Rebind<D8, decltype(d)> d8;
          const hn::Repartition<float, decltype(d)> df;
          const auto recip = hn::Set(df, j.recip);
          D8* out = reinterpret_cast<D8*>(outRow) + x0;
          const int groupEnd = std::min(n, bodyEnd - x0);
          if (groupEnd >= N) {
            for (; i + N <= groupEnd; i += N)
              hn::StoreU(convertGroup(d8, d, vecSum(i), recip), d8, out + i);
            if (i < groupEnd)  // overlapping last vector, still inside the rounded groups
              hn::StoreU(convertGroup(d8, d, vecSum(groupEnd - N), recip), d8, out + groupEnd - N);
            i = groupEnd;
          }
        }
        for (; i < n; ++i) storeOut<kOut, A>(outRow, x0 + i, scalarSum(i), bodyEnd, j.recip);
      }
    }
  }
}

// Streaming stores are weakly ordered: fence them before the caller (or the region's end) goes on.
template <Kind kKind, int kK, Out kOut>
void kernelFenced(const Job& j) {
  kernel<kKind, kK, kOut>(j);
  if (j.stream) _mm_sfence();
}

#endif  // KVL_SIMD_TARGET

}  // namespace HWY_NAMESPACE
}  // namespace kvl::filter::deriv
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard

#if HWY_ONCE && !defined(KVL_FILTER_DERIV_UNIT_H_)
#define KVL_FILTER_DERIV_UNIT_H_
#include "filter/deriv_ref.h"

namespace kvl::filter::deriv {
// The kernels [unitBegin(kUnit), unitBegin(kUnit + 1)) on every target, with their references.
template <int kUnit, size_t... I>
constexpr std::array<simd::Kernel<Fn>, sizeof...(I)> unitKernels(std::index_sequence<I...>) {
  constexpr int b = unitBegin(kUnit);
  return {simd::Kernel<Fn>{
      KVL_TARGETS(kernelFenced<kKernels[b + I].kind, kKernels[b + I].K, kKernels[b + I].out>),
      &ref::kernel<kKernels[b + I].kind, kKernels[b + I].K, kKernels[b + I].out>}...};
}
}  // namespace kvl::filter::deriv

// Defines kUnit<u>; the file deriv_simd_<u>.cc says it once, after the per-target passes.
#define KVL_DERIV_UNIT_KERNELS(u)                                                           \
  namespace kvl::filter::deriv {                                                            \
  constexpr auto kUnit##u##Kernels =                                                        \
      unitKernels<u>(std::make_index_sequence<unitBegin(u + 1) - unitBegin(u)>{});          \
  const simd::Kernel<Fn>* const kUnit##u = kUnit##u##Kernels.data();                       \
  }
#endif
