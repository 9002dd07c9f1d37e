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

// Runs of one row under the Grad rule. row is the row being grown, seen its visited map (whose
// frame makes index -1 and w read as visited), run the popped run's row (null for the seed run,
// which grows against its own row only) and [xl, xr] the popped run.
template <class T, int kC>
struct GradOps {
  const FillArgs<T>& a;
  static const T* px(const T* base, int x) { return base + x * kC; }
  // The first x in [from, to] that is unvisited and within range of the run's pixel beside it.
  int next(const T* row, const Kvl8u* seen, const T* run, int xl, int xr, int from,
           int to, int /*w*/) const {
    for (; from <= to; ++from)
      if (!seen[from] && near<T, kC>(px(row, from), px(run, std::clamp(from, xl, xr)), a)) break;
    return from;
  }
  // The run's left end grown from x: each pixel against its right neighbour.
  int left(const T* row, const Kvl8u* seen, int x) const {
    while (!seen[x - 1] && near<T, kC>(px(row, x - 1), px(row, x), a)) --x;
    return x;
  }
  // The right end grown from x: against the left neighbour or, up to xr, the run's pixel.
  int right(const T* row, const Kvl8u* seen, const T* run, int xr, int x) const {
    while (!seen[x + 1] && (near<T, kC>(px(row, x + 1), px(row, x), a) ||
                            (x < xr && near<T, kC>(px(row, x + 1), px(run, x + 1), a))))
      ++x;
    return x;
  }
};

template <>
struct GradOps<Kvl8u, 1> {
  using D = hn::FixedTag<uint8_t, kGroup>;
  using V = hn::Vec<D>;
  using M = hn::Mask<D>;
  const FillArgs<Kvl8u>& a;

  // Lanes p within [r - minDelta, r + maxDelta], which is the unsigned test of the rule.
  M nearV(V p, V r) const {
    const D d;
    const V lo = hn::SaturatedSub(r, hn::Set(d, a.minDelta[0]));
    const V hi = hn::SaturatedAdd(r, hn::Set(d, a.maxDelta[0]));
    return hn::And(hn::Eq(hn::Max(p, lo), p), hn::Eq(hn::Min(p, hi), p));
  }
  static M fresh(const Kvl8u* seen) {
    const D d;
    return hn::Eq(hn::LoadU(d, seen), hn::Zero(d));
  }
  bool one(const Kvl8u* p, const Kvl8u* r) const { return near<Kvl8u, 1>(p, r, a); }
  static unsigned bits(M m) {
    uint8_t b[8] = {};
    hn::StoreMaskBits(D(), m, b);
    return static_cast<unsigned>(b[0]) | static_cast<unsigned>(b[1]) << 8;
  }

  int next(const Kvl8u* row, const Kvl8u* seen, const Kvl8u* run, int xl, int xr, int from,
           int to, int w) const {
    const D d;
    for (; from <= to && from < xl; ++from)
      if (!seen[from] && one(row + from, run + xl)) return from;
    // Lanes beside the run, a group at a time; the last, partial group masked (its loads stay
    // inside the row).
    const int last = std::min(to, xr);
    for (int n = last - from + 1; n > 0; from += std::min(n, kGroup), n = last - from + 1) {
      if (n < kGroup && from + kGroup > w) break;
      M m = hn::And(fresh(seen + from), nearV(hn::LoadU(d, row + from), hn::LoadU(d, run + from)));
      if (n < kGroup) m = hn::And(m, hn::FirstN(d, static_cast<size_t>(n)));
      if (!hn::AllFalse(d, m)) return from + static_cast<int>(hn::FindKnownFirstTrue(d, m));
    }
    for (; from <= to; ++from)
      if (!seen[from] && one(row + from, run + std::clamp(from, xl, xr))) break;
    return from;
  }
  int left(const Kvl8u* row, const Kvl8u* seen, int x) const {
    const D d;
    for (; x >= kGroup; x -= kGroup) {
      const int i = x - kGroup;
      const M pass = hn::And(fresh(seen + i),
                             nearV(hn::LoadU(d, row + i), hn::LoadU(d, row + i + 1)));
      const unsigned fail = ~bits(pass) & 0xffffu;
      if (fail != 0) return i + (31 - __builtin_clz(fail)) + 1;
    }
    while (!seen[x - 1] && one(row + x - 1, row + x)) --x;
    return x;
  }
  // w: the row's width (vector loads stay inside it).
  int right(const Kvl8u* row, const Kvl8u* seen, const Kvl8u* run, int xr, int x, int w) const {
    const D d;
    for (;;) {
      const int i = x + 1;  // lanes i .. i + kGroup - 1
      if (i + kGroup > w) {
        if (seen[i] ||
            !(one(row + i, row + x) || (run != nullptr && x < xr && one(row + i, run + i))))
          return x;
        ++x;
        continue;
      }
      const V p = hn::LoadU(d, row + i);
      M pass = nearV(p, hn::LoadU(d, row + x));
      // Lanes up to xr may also pass against the run's pixel beside them.
      const int beside = run == nullptr ? 0 : std::clamp(xr - i + 1, 0, kGroup);
      if (beside > 0)
        pass = hn::Or(pass, hn::And(hn::FirstN(d, static_cast<size_t>(beside)),
                                    nearV(p, hn::LoadU(d, run + i))));
      const M fail = hn::AndNot(hn::And(fresh(seen + i), pass), hn::FirstN(d, kGroup));
      if (!hn::AllFalse(d, fail)) return x + static_cast<int>(hn::FindKnownFirstTrue(d, fail));
      x += kGroup;
    }
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

  void walkGrad(const GradOps<T, kC>& ops, int y, int from, int to, const Span& p, int dir) {
    if (y < 0 || y >= h) return;  // the map's frame rows: nothing joins there
    Kvl8u* seen = seenRow(y);
    const T* run = line(p.y);
    const T* row = line(y);
    for (int x = ops.next(row, seen, run, p.xl, p.xr, from, to, w); x <= to;
         x = ops.next(row, seen, run, p.xl, p.xr, x, to, w)) {
      const int lo = ops.left(row, seen, x), hi = rightEnd(ops, row, seen, run, p.xr, x);
      std::memset(seen + lo, 1, static_cast<size_t>(hi - lo + 1));
      push({y, lo, hi, p.xl, p.xr, dir});
      x = hi + 2;
    }
  }

  int rightEnd(const GradOps<T, kC>& ops, const T* row, const Kvl8u* seen, const T* run, int xr,
               int x) const {
    if constexpr (std::is_same_v<T, Kvl8u> && kC == 1) {
      return ops.right(row, seen, run, xr, x, w);
    } else {
      return run != nullptr ? ops.right(row, seen, run, xr, x) : ops.right(row, seen, row, -1, x);
    }
  }

  void run(int sx, int sy) {
    constexpr bool kGrad = kRule == kFillGrad;
    int lo = sx, hi = sx;
    if constexpr (kGrad) {
      clearMap(l.map, w, h);
      const GradOps<T, kC> ops{a};
      Kvl8u* seen = seenRow(sy);
      const T* row = line(sy);
      lo = ops.left(row, seen, sx), hi = rightEnd(ops, row, seen, nullptr, -1, sx);
      std::memset(seen + lo, 1, static_cast<size_t>(hi - lo + 1));
      r = {0, lo, sy, hi, sy};
      push({sy, lo, hi, hi + 1, hi, 1});
      while (count > 0) {
        const Span s = l.stack[--count];
        widen(s);
        const int from = kConn == 8 ? s.xl - 1 : s.xl, to = kConn == 8 ? s.xr + 1 : s.xr;
        walkGrad(ops, s.y - s.dir, from, to, s, s.dir);
        walkGrad(ops, s.y + s.dir, from, s.pl - 1, s, -s.dir);
        walkGrad(ops, s.y + s.dir, s.pr + 1, to, s, -s.dir);
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
