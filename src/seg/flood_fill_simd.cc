// Vector kernels of the flood fills, one source for SSE4, AVX2 and AVX-512.
//
// One template body walks the spans for every member, in exactly the reference's order; it
// works on runs through four operations (the first admitted pixel of a stretch, a run's left and
// right ends, the repaint of a run). For 8u one-channel images the exact and Range rules take
// those kGroup pixels at a time: a vector compare of the group against the rule and the first
// pixel that fails (or passes), and the repaint stores whole groups. A run shorter than a group,
// the last pixels of a row and the other types go pixel by pixel, with the reference's tests.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "seg/flood_fill_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include <algorithm>
#include <cstring>

#include "core/pixel.h"
#include "core/simd.h"
#include "seg/flood_fill.h"

#ifndef KVL_SEG_FLOOD_FILL_ONCE
#define KVL_SEG_FLOOD_FILL_ONCE
namespace kvl::seg {
// 8u pixels scanned and repainted per step.
constexpr int kGroup = 16;
}  // namespace kvl::seg
#endif

HWY_BEFORE_NAMESPACE();
namespace kvl::seg {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

// Runs of one row under the exact or Range rule: the scalar forms, and the grouped 8u forms.
template <int kRule, class T, int kC>
struct RunOps {
  const FillArgs<T>& a;
  bool ok(const T* row, int x) const { return admits<kRule, T, kC>(row + x * kC, a); }
  // The first x in [from, to] that joins, else to + 1.
  int next(const T* row, int from, int to) const {
    while (from <= to && !ok(row, from)) ++from;
    return from;
  }
  // The smallest lo <= x such that lo .. x - 1 all join.
  int left(const T* row, int x) const {
    while (x > 0 && ok(row, x - 1)) --x;
    return x;
  }
  // The largest hi >= x such that x + 1 .. hi all join (hi <= last).
  int right(const T* row, int x, int last) const {
    while (x < last && ok(row, x + 1)) ++x;
    return x;
  }
  void paint(T* row, int lo, int hi) const {
    for (int x = lo; x <= hi; ++x) paintPixel<T, kC>(row + x * kC, a);
  }
};

template <int kRule>
struct RunOps<kRule, Kvl8u, 1> {
  using D = hn::FixedTag<uint8_t, kGroup>;
  using M = hn::Mask<D>;
  const FillArgs<Kvl8u>& a;

  bool ok(const Kvl8u* row, int x) const { return admits<kRule, Kvl8u, 1>(row + x, a); }
  M okV(const Kvl8u* p) const {
    const D d;
    const auto v = hn::LoadU(d, p);
    if constexpr (kRule == kFillExact) {
      return hn::Eq(v, hn::Set(d, a.seed[0]));
    } else {
      const auto inside = hn::And(hn::Eq(hn::Max(v, hn::Set(d, a.lo[0])), v),
                                  hn::Eq(hn::Min(v, hn::Set(d, a.hi[0])), v));
      return hn::AndNot(hn::Eq(v, hn::Set(d, a.newVal[0])), inside);
    }
  }
  static unsigned bits(M m) {
    uint8_t b[8] = {};
    hn::StoreMaskBits(D(), m, b);
    return static_cast<unsigned>(b[0]) | static_cast<unsigned>(b[1]) << 8;
  }
  int next(const Kvl8u* row, int from, int to) const {
    const D d;
    for (; from + kGroup - 1 <= to; from += kGroup) {
      const M m = okV(row + from);
      if (!hn::AllFalse(d, m)) return from + static_cast<int>(hn::FindKnownFirstTrue(d, m));
    }
    while (from <= to && !ok(row, from)) ++from;
    return from;
  }
  int left(const Kvl8u* row, int x) const {
    for (; x >= kGroup; x -= kGroup) {
      const unsigned fail = ~bits(okV(row + x - kGroup)) & 0xffffu;
      if (fail != 0) return x - kGroup + (31 - __builtin_clz(fail)) + 1;
    }
    while (x > 0 && ok(row, x - 1)) --x;
    return x;
  }
  int right(const Kvl8u* row, int x, int last) const {
    const D d;
    for (; x + kGroup <= last; x += kGroup) {
      const M fail = hn::Not(okV(row + x + 1));
      if (!hn::AllFalse(d, fail)) return x + static_cast<int>(hn::FindKnownFirstTrue(d, fail));
    }
    while (x < last && ok(row, x + 1)) ++x;
    return x;
  }
  void paint(Kvl8u* row, int lo, int hi) const { fillBytes(row, lo, hi, a.newVal[0]); }
  static void fillBytes(Kvl8u* row, int lo, int hi, Kvl8u value) {
    const D d;
    const auto v = hn::Set(d, value);
    for (; lo + kGroup - 1 <= hi; lo += kGroup) hn::StoreU(v, d, row + lo);
    for (; lo <= hi; ++lo) row[lo] = value;
  }
};

template <int kRule, int kConn, class T, int kC>
struct Filler {
  T* image;
  int step, w, h;
  const FillArgs<T>& a;
  FillLayout l;
  long long count = 0, cap = 0;
  FillResult r{};

  T* line(int y) const { return rowPtr(image, step, y); }
  T* at(int x, int y) const { return line(y) + static_cast<long long>(x) * kC; }
  Kvl8u* seenRow(int y) const { return l.map + static_cast<long long>(y + 1) * (w + 2) + 1; }

  void push(const Span& s) {
    if (kRule == kFillRange) {
      l.stack[count++] = s;
      if (count >= cap) count = 0;
    } else if (count < l.room) {
      l.stack[count++] = s;
    }
  }

  void paintRun(T* row, int lo, int hi) const {
    if constexpr (std::is_same_v<T, Kvl8u> && kC == 1) {
      RunOps<kFillExact, Kvl8u, 1>::fillBytes(row, lo, hi, a.newVal[0]);
    } else {
      for (int x = lo; x <= hi; ++x) paintPixel<T, kC>(row + x * kC, a);
    }
  }

  void walk(const RunOps<kRule, T, kC>& ops, int y, int from, int to, const Span& p, int dir) {
    T* row = line(y);
    for (int x = ops.next(row, from, to); x <= to; x = ops.next(row, x, to)) {
      const int lo = ops.left(row, x), hi = ops.right(row, x, w - 1);
      ops.paint(row, lo, hi);
      push({y, lo, hi, p.xl, p.xr, dir});
      r.area += hi - lo + 1;
      x = hi + 2;
    }
  }

  void walkGrad(int y, int from, int to, const Span& p, int dir) {
    if (y < 0 || y >= h) return;  // the map's frame rows: nothing joins there
    Kvl8u* seen = seenRow(y);
    const T* run = line(p.y);
    const T* row = line(y);
    auto px = [&](const T* base, int x) KVL_INLINE_LAMBDA { return base + x * kC; };
    for (int x = from; x <= to;) {
      const int beside = std::clamp(x, static_cast<int>(p.xl), static_cast<int>(p.xr));
      if (seen[x] || !near<T, kC>(px(row, x), px(run, beside), a)) {
        ++x;
        continue;
      }
      int lo = x, hi = x;
      while (!seen[lo - 1] && near<T, kC>(px(row, lo - 1), px(row, lo), a)) --lo;
      while (!seen[hi + 1] && (near<T, kC>(px(row, hi + 1), px(row, hi), a) ||
                               (hi < p.xr && near<T, kC>(px(row, hi + 1), px(run, hi + 1), a))))
        ++hi;
      std::memset(seen + lo, 1, static_cast<size_t>(hi - lo + 1));
      push({y, lo, hi, p.xl, p.xr, dir});
      x = hi + 2;
    }
  }

  void run(int sx, int sy) {
    constexpr bool kGrad = kRule == kFillGrad;
    int lo = sx, hi = sx;
    if constexpr (kGrad) {
      clearMap(l.map, w, h);
      Kvl8u* seen = seenRow(sy);
      const T* row = line(sy);
      while (!seen[lo - 1] && near<T, kC>(row + (lo - 1) * kC, row + lo * kC, a)) --lo;
      while (!seen[hi + 1] && near<T, kC>(row + (hi + 1) * kC, row + hi * kC, a)) ++hi;
      std::memset(seen + lo, 1, static_cast<size_t>(hi - lo + 1));
      r = {0, lo, sy, hi, sy};
      push({sy, lo, hi, hi + 1, hi, 1});
      while (count > 0) {
        const Span s = l.stack[--count];
        widen(s);
        const int from = kConn == 8 ? s.xl - 1 : s.xl, to = kConn == 8 ? s.xr + 1 : s.xr;
        walkGrad(s.y - s.dir, from, to, s, s.dir);
        walkGrad(s.y + s.dir, from, s.pl - 1, s, -s.dir);
        walkGrad(s.y + s.dir, s.pr + 1, to, s, -s.dir);
        paintRun(line(s.y), s.xl, s.xr);
        r.area += s.xr - s.xl + 1;
      }
    } else {
      const RunOps<kRule, T, kC> ops{a};
      T* row = line(sy);
      lo = ops.left(row, sx), hi = ops.right(row, sx, w - 1);
      ops.paint(row, lo, hi);
      r = {hi - lo + 1, lo, sy, hi, sy};
      if (h == 1) return;
      push({sy, lo, hi, hi + 1, hi, sy == h - 1 ? -1 : 1});
      while (count > 0) {
        const Span s = l.stack[--count];
        widen(s);
        const int yf = s.y - s.dir, yb = s.y + s.dir;
        const int from = kConn == 8 ? std::max(s.xl - 1, 0) : s.xl;
        const int to = kConn == 8 ? std::min(s.xr + 1, w - 1) : s.xr;
        if (yf >= 0 && yf < h) walk(ops, yf, from, to, s, s.dir);
        walk(ops, yb, from, s.pl - 1, s, -s.dir);
        walk(ops, yb, s.pr + 1, to, s, -s.dir);
      }
    }
  }

  void widen(const Span& s) {
    r.x0 = std::min(r.x0, static_cast<int>(s.xl));
    r.x1 = std::max(r.x1, static_cast<int>(s.xr));
    r.y0 = std::min(r.y0, static_cast<int>(s.y));
    r.y1 = std::max(r.y1, static_cast<int>(s.y));
  }
};

template <int kRule, int kConn, class T, int kC>
void fill(T* image, int step, int w, int h, int sx, int sy, const FillArgs<T>& a, Kvl8u* buffer,
          FillResult* result) {
  Filler<kRule, kConn, T, kC> f{image, step, w, h, a, fillLayout(buffer, w, h, kRule == kFillGrad)};
  f.cap = static_cast<long long>(w) * h / 4;
  f.run(sx, sy);
  *result = f.r;
}

#endif  // KVL_SIMD_TARGET
}  // namespace HWY_NAMESPACE
}  // namespace kvl::seg
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::seg {

template <int kRule, int kConn, class T, int kC>
const simd::Kernel<FillFn<T>> FillKernel<kRule, kConn, T, kC>::kernel{
    KVL_TARGETS(fill<kRule, kConn, T, kC>), &ref::fill<kRule, kConn, T, kC>};

#define KVL_INSTANTIATE(variant, rule, conn, types, T, ch, stepCh) \
  template struct FillKernel<KVL_FLOOD_FILL_RULE_##rule, conn, T, ch>;
KVL_FLOOD_FILL_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::seg
#endif  // HWY_ONCE
