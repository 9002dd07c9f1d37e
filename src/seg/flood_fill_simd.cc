// Vector kernels of the flood fills, one source for SSE4, AVX2 and AVX-512.
//
// One template body walks the spans for every member, in exactly the reference's order; it
// works on runs through a few operations (the first admitted pixel of a stretch, a run's left and
// right ends, the repaint of a run), and those take a group of pixels at a time: a vector test of
// the group against the rule (for Grad, against the neighbours the rule names) and the first
// pixel that fails (or passes), and stores of whole groups. Pixels too near a row's end for a
// whole group go one by one, with the reference's tests.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "seg/flood_fill_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/cache_control.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cstring>

#include "core/pixel.h"
#include "core/simd.h"
#include "seg/flood_fill.h"

#ifndef KVL_SEG_FLOOD_FILL_ONCE
#define KVL_SEG_FLOOD_FILL_ONCE
namespace kvl::seg {
// The most pixels a group holds: sixteen 8u pixels; 16u and 32f as many as a vector holds.
constexpr int kGroup = 16;
// The longest stretch of a row (in bytes) that a fill prefetches: longer ones are streamed by
// the hardware, and asking for them as well only slows a fill of long runs.
constexpr long long kPrefetchBytes = 4096;

// The Grad fill's visited map, a bit per pixel: row y's bits start at byte (y + 1) * stride, bit
// x + 1 (bit k of a row is bit k % 8 of its byte k / 8), so the frame is column -1 and column w,
// row -1 and row h, all set. An eighth of the byte map's traffic: clearing it per call and its
// misses while the fill follows a region from row to row cost that much less. It lies in the
// map's (w + 2) x (h + 2) bytes with eight bytes to spare for the word reads of its last rows, so
// the stack stays where the layout puts it.
struct VisitedBits {
  Kvl8u* base;
  long long stride;

  VisitedBits(Kvl8u* map, int w, int h) : base(map), stride((w + 2 + 7) / 8) {
    std::memset(base, 0, static_cast<size_t>(stride * (h + 2)));
    std::memset(base, 0xff, static_cast<size_t>(stride));
    std::memset(base + (h + 1) * stride, 0xff, static_cast<size_t>(stride));
    for (int y = 0; y < h; ++y) set(row(y), -1), set(row(y), w);
  }
  Kvl8u* row(int y) const { return base + (y + 1) * stride; }

  static bool test(const Kvl8u* r, int x) { return (r[(x + 1) >> 3] >> ((x + 1) & 7)) & 1; }
  static void set(Kvl8u* r, int x) { r[(x + 1) >> 3] |= static_cast<Kvl8u>(1u << ((x + 1) & 7)); }
  // The bits of columns x, x + 1, ... (at least 57 of them) from bit 0 up.
  static uint64_t window(const Kvl8u* r, int x) {
    uint64_t v;
    std::memcpy(&v, r + ((x + 1) >> 3), sizeof v);
    return v >> ((x + 1) & 7);
  }
  // Columns lo .. hi set.
  static void mark(Kvl8u* r, int lo, int hi) {
    int b0 = lo + 1;
    const int b1 = hi + 1;
    const int k0 = b0 >> 3, k1 = b1 >> 3;
    if (k0 == k1) {
      r[k0] |= static_cast<Kvl8u>((0xffu << (b0 & 7)) & (0xffu >> (7 - (b1 & 7))));
      return;
    }
    r[k0] |= static_cast<Kvl8u>(0xffu << (b0 & 7));
    if (k1 > k0 + 1) std::memset(r + k0 + 1, 0xff, static_cast<size_t>(k1 - k0 - 1));
    r[k1] |= static_cast<Kvl8u>(0xffu >> (7 - (b1 & 7)));
  }
};
}  // namespace kvl::seg
#endif

HWY_BEFORE_NAMESPACE();
namespace kvl::seg {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

// A group of pixels of kC interleaved channels of T: at most kGroup lanes per channel (sixteen
// 8u pixels; 16u and 32f pixels as many as a vector holds, up to sixteen).
template <class T, int kC>
struct Group {
  using D = hn::CappedTag<T, kGroup>;
  using V = hn::Vec<D>;
  using M = hn::Mask<D>;
  struct Px {
    V c[kC];
  };
  static HWY_INLINE int lanes() { return static_cast<int>(hn::Lanes(D())); }
  // Pixels x .. x + lanes - 1 of a row.
  static HWY_INLINE Px load(const T* row, int x) {
    const D d;
    Px p;
    if constexpr (kC == 1) {
      p.c[0] = hn::LoadU(d, row + x);
    } else {
      hn::LoadInterleaved3(d, row + static_cast<long long>(x) * 3, p.c[0], p.c[1], p.c[2]);
    }
    return p;
  }
  static HWY_INLINE Px splat(const T* v) {
    const D d;
    Px p;
    for (int c = 0; c < kC; ++c) p.c[c] = hn::Set(d, v[c]);
    return p;
  }
  static HWY_INLINE void store(const Px& p, T* row, int x) {
    const D d;
    if constexpr (kC == 1) {
      hn::StoreU(p.c[0], d, row + x);
    } else {
      hn::StoreInterleaved3(p.c[0], p.c[1], p.c[2], d, row + static_cast<long long>(x) * 3);
    }
  }
  // Pixels x .. hi of a row set to v, a group at a time.
  static HWY_INLINE void paint(T* row, int x, int hi, const T* v) {
    const Px p = splat(v);
    for (const int n = lanes(); x + n - 1 <= hi; x += n) store(p, row, x);
    for (; x <= hi; ++x)
      for (int c = 0; c < kC; ++c) storeAny(row + static_cast<long long>(x) * kC + c, v[c]);
  }
  // Lanes of v within [lo, hi] (integers by min and max, floats by ordered compares).
  static HWY_INLINE M within(V v, V lo, V hi) {
    if constexpr (std::is_floating_point_v<T>) {
      return hn::And(hn::Le(lo, v), hn::Le(v, hi));
    } else {
      return hn::And(hn::Eq(hn::Max(v, lo), v), hn::Eq(hn::Min(v, hi), v));
    }
  }
  static HWY_INLINE unsigned bits(M m) {
    uint8_t b[8] = {};
    hn::StoreMaskBits(D(), m, b);
    return static_cast<unsigned>(b[0]) | static_cast<unsigned>(b[1]) << 8;
  }
  static HWY_INLINE unsigned all() { return (1u << lanes()) - 1; }
};

// Runs of one row under the exact or Range rule, a group at a time where the row allows, else
// pixel by pixel with the reference's test.
template <int kRule, class T, int kC>
struct RunOps {
  using G = Group<T, kC>;
  using M = typename G::M;
  const FillArgs<T>& a;

  bool ok(const T* row, int x) const {
    return admits<kRule, T, kC>(row + static_cast<long long>(x) * kC, a);
  }
  HWY_INLINE M okV(const T* row, int x) const {
    const typename G::D d;
    const typename G::Px p = G::load(row, x);
    if constexpr (kRule == kFillExact) {
      M m = hn::Eq(p.c[0], hn::Set(d, a.seed[0]));
      for (int c = 1; c < kC; ++c) m = hn::And(m, hn::Eq(p.c[c], hn::Set(d, a.seed[c])));
      return m;
    } else {
      M inside = G::within(p.c[0], hn::Set(d, a.lo[0]), hn::Set(d, a.hi[0]));
      M painted = hn::Eq(p.c[0], hn::Set(d, a.newVal[0]));
      for (int c = 1; c < kC; ++c) {
        inside = hn::And(inside, G::within(p.c[c], hn::Set(d, a.lo[c]), hn::Set(d, a.hi[c])));
        painted = hn::And(painted, hn::Eq(p.c[c], hn::Set(d, a.newVal[c])));
      }
      return hn::AndNot(painted, inside);
    }
  }
  // The first x in [from, to] that joins, else to + 1.
  int next(const T* row, int from, int to) const {
    const typename G::D d;
    for (const int n = G::lanes(); from + n - 1 <= to; from += n) {
      const M m = okV(row, from);
      if (!hn::AllFalse(d, m)) return from + static_cast<int>(hn::FindKnownFirstTrue(d, m));
    }
    while (from <= to && !ok(row, from)) ++from;
    return from;
  }
  // The smallest lo <= x such that lo .. x - 1 all join.
  int left(const T* row, int x) const {
    for (const int n = G::lanes(); x >= n; x -= n) {
      const unsigned fail = ~G::bits(okV(row, x - n)) & G::all();
      if (fail != 0) return x - n + (31 - __builtin_clz(fail)) + 1;
    }
    while (x > 0 && ok(row, x - 1)) --x;
    return x;
  }
  // The largest hi >= x such that x + 1 .. hi all join (hi <= last).
  int right(const T* row, int x, int last) const {
    const typename G::D d;
    for (const int n = G::lanes(); x + n <= last; x += n) {
      const M fail = hn::Not(okV(row, x + 1));
      if (!hn::AllFalse(d, fail)) return x + static_cast<int>(hn::FindKnownFirstTrue(d, fail));
    }
    while (x < last && ok(row, x + 1)) ++x;
    return x;
  }
  void paint(T* row, int lo, int hi) const { G::paint(row, lo, hi, a.newVal); }
};

// Runs of one row under the Grad rule. row is the row being grown, vis its visited bits
// (whose frame makes columns -1 and w read as visited), run the popped run's row (null for the
// seed run, which grows against its own row only) and [xl, xr] the popped run. Lane masks meet
// the visited bits as integers: bit k of both is lane k.
template <class T, int kC>
struct GradOps {
  using G = Group<T, kC>;
  using M = typename G::M;
  using V = typename G::V;
  using VB = VisitedBits;
  const FillArgs<T>& a;

  static const T* px(const T* base, int x) { return base + static_cast<long long>(x) * kC; }
  HWY_INLINE bool one(const T* p, const T* r) const { return near<T, kC>(p, r, a); }
  // Lanes of p within the deltas of r, every channel: integers by saturated bounds (the
  // unsigned test of the rule), floats by |p - r + shift| <= half.
  HWY_INLINE M nearV(const typename G::Px& p, const typename G::Px& r) const {
    const typename G::D d;
    M m = hn::FirstN(d, kGroup);
    for (int c = 0; c < kC; ++c) {
      if constexpr (std::is_floating_point_v<T>) {
        const V t = hn::Add(hn::Sub(p.c[c], r.c[c]), hn::Set(d, a.shift[c]));
        m = hn::And(m, hn::Le(hn::Abs(t), hn::Set(d, a.half[c])));
      } else {
        const V lo = hn::SaturatedSub(r.c[c], hn::Set(d, a.minDelta[c]));
        const V hi = hn::SaturatedAdd(r.c[c], hn::Set(d, a.maxDelta[c]));
        m = hn::And(m, G::within(p.c[c], lo, hi));
      }
    }
    return m;
  }

  // The first x in [from, to] that is unvisited and within range of the run's pixel beside it.
  int next(const T* row, const Kvl8u* vis, const T* run, int xl, int xr, int from, int to,
           int w) const {
    const int n = G::lanes();
    for (; from <= to && from < xl; ++from)
      if (!VB::test(vis, from) && one(px(row, from), px(run, xl))) return from;
    // Lanes beside the run, a group at a time; the last, partial group masked (its loads stay
    // inside the row). Stretches the fill has already covered are common (a sibling run took
    // them): their pixels are not loaded at all.
    const int last = std::min(to, xr);
    for (int k = last - from + 1; k > 0; from += std::min(k, n), k = last - from + 1) {
      if (k < n && from + n > w) break;
      const unsigned lanes = k < n ? (1u << k) - 1 : G::all();
      const unsigned fresh = ~static_cast<unsigned>(VB::window(vis, from)) & lanes;
      if (fresh == 0) continue;
      const unsigned m = G::bits(nearV(G::load(row, from), G::load(run, from))) & fresh;
      if (m != 0) return from + __builtin_ctz(m);
    }
    for (; from <= to; ++from)
      if (!VB::test(vis, from) && one(px(row, from), px(run, std::clamp(from, xl, xr)))) break;
    return from;
  }
  // The run's left end grown from x: each pixel against its right neighbour.
  int left(const T* row, const Kvl8u* vis, int x) const {
    if (VB::test(vis, x - 1)) return x;
    for (const int n = G::lanes(); x >= n; x -= n) {
      const int i = x - n;
      const unsigned pass = G::bits(nearV(G::load(row, i), G::load(row, i + 1))) &
                            ~static_cast<unsigned>(VB::window(vis, i));
      const unsigned fail = ~pass & G::all();
      if (fail != 0) return i + (31 - __builtin_clz(fail)) + 1;
    }
    while (!VB::test(vis, x - 1) && one(px(row, x - 1), px(row, x))) --x;
    return x;
  }
  // The right end grown from x: against the left neighbour or, up to xr, the run's pixel.
  int right(const T* row, const Kvl8u* vis, const T* run, int xr, int x, int w) const {
    const int n = G::lanes();
    for (;;) {
      const int i = x + 1;  // lanes i .. i + n - 1
      if (i + n > w) {
        if (VB::test(vis, i) ||
            !(one(px(row, i), px(row, x)) || (run != nullptr && x < xr && one(px(row, i), px(run, i)))))
          return x;
        ++x;
        continue;
      }
      const unsigned fresh = ~static_cast<unsigned>(VB::window(vis, i)) & G::all();
      const typename G::Px p = G::load(row, i);
      // Lanes up to xr may also pass against the run's pixel beside them; beside the run, the
      // left neighbours are compared only when that test leaves a lane out.
      const int beside = run == nullptr ? 0 : std::clamp(xr - i + 1, 0, n);
      unsigned pass;
      if (beside == n) {
        pass = G::bits(nearV(p, G::load(run, i)));
        if ((pass & fresh) != G::all()) pass |= G::bits(nearV(p, G::load(row, x)));
      } else {
        pass = G::bits(nearV(p, G::load(row, x)));
        if (beside > 0) pass |= G::bits(nearV(p, G::load(run, i))) & ((1u << beside) - 1);
      }
      const unsigned fail = ~(pass & fresh) & G::all();
      if (fail != 0) return x + __builtin_ctz(fail);
      x += n;
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

  void push(const Span& s) {
    if (kRule == kFillRange) {
      l.stack[count++] = s;
      if (count >= cap) count = 0;
    } else if (count < l.room) {
      l.stack[count++] = s;
    }
  }

  void paintRun(T* row, int lo, int hi) const { Group<T, kC>::paint(row, lo, hi, a.newVal); }

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

  void walkGrad(const GradOps<T, kC>& ops, const VisitedBits& vb, int y, int from, int to,
                const Span& p, int dir) {
    if (y < 0 || y >= h) return;  // the map's frame rows: nothing joins there
    Kvl8u* vis = vb.row(y);
    const T* run = line(p.y);
    const T* row = line(y);
    for (int x = ops.next(row, vis, run, p.xl, p.xr, from, to, w); x <= to;
         x = ops.next(row, vis, run, p.xl, p.xr, x, to, w)) {
      const int lo = ops.left(row, vis, x), hi = ops.right(row, vis, run, p.xr, x, w);
      VisitedBits::mark(vis, lo, hi);
      push({y, lo, hi, p.xl, p.xr, dir});
      x = hi + 2;
    }
  }

  // Asks for the pixels of columns [from - kGroup, to + kGroup] of row y a cache line at a time,
  // when they take at most kPrefetchBytes.
  // A fill mostly follows a region from row to row: the record popped next is most often a run
  // just found in the row ahead, so that row and the one after it are fetched while the walks
  // of this record run. Rows lie a step apart, where the hardware does not look ahead.
  // (Inlined by force: a call to a function that only prefetches may be dropped as pure.)
  HWY_INLINE void prefetchRow(int y, int from, int to) const {
    if (y < 0 || y >= h) return;
    from = std::max(from - kGroup, 0), to = std::min(to + kGroup, w - 1);
    const Kvl8u* p = reinterpret_cast<const Kvl8u*>(at(from, y));
    const Kvl8u* end = reinterpret_cast<const Kvl8u*>(at(to, y) + kC);
    if (end - p > kPrefetchBytes) return;
    for (; p < end; p += 64) hwy::Prefetch(p);
    hwy::Prefetch(end - 1);
  }

  void run(int sx, int sy) {
    constexpr bool kGrad = kRule == kFillGrad;
    int lo = sx, hi = sx;
    if constexpr (kGrad) {
      const VisitedBits vb(l.map, w, h);
      const GradOps<T, kC> ops{a};
      Kvl8u* vis = vb.row(sy);
      const T* row = line(sy);
      lo = ops.left(row, vis, sx), hi = ops.right(row, vis, nullptr, -1, sx, w);
      VisitedBits::mark(vis, lo, hi);
      r = {0, lo, sy, hi, sy};
      push({sy, lo, hi, hi + 1, hi, 1});
      while (count > 0) {
        const Span s = l.stack[--count];
        widen(s);
        const int from = kConn == 8 ? s.xl - 1 : s.xl, to = kConn == 8 ? s.xr + 1 : s.xr;
        if constexpr (sizeof(T) * kC > 1) {  // one-byte rows come in fast enough by themselves
          prefetchRow(s.y - s.dir, from, to);
          prefetchRow(s.y - 2 * s.dir, from, to);
        }
        walkGrad(ops, vb, s.y - s.dir, from, to, s, s.dir);
        walkGrad(ops, vb, s.y + s.dir, from, s.pl - 1, s, -s.dir);
        walkGrad(ops, vb, s.y + s.dir, s.pr + 1, to, s, -s.dir);
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
        if constexpr (sizeof(T) * kC > 1) {
          prefetchRow(yf, from, to);
          prefetchRow(yf - s.dir, from, to);
        }
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
