// Scalar reference of the flood fills: the span fill pixel by pixel, in the same order as the
// kernels (the Range cap and the Grad references depend on the order).
#include <algorithm>

#include "seg/flood_fill.h"

namespace kvl::seg::ref {
namespace {

template <int kRule, int kConn, class T, int kC>
struct Filler {
  T* image;
  int step, w, h;
  const FillArgs<T>& a;
  FillLayout l;
  long long count = 0, cap = 0;
  FillResult r{};

  T* at(int x, int y) const { return rowPtr(image, step, y) + static_cast<long long>(x) * kC; }
  Kvl8u& seen(int x, int y) const {
    return l.map[static_cast<long long>(y + 1) * (w + 2) + (x + 1)];
  }

  void push(const Span& s) {
    if (kRule == kFillRange) {
      l.stack[count++] = s;
      if (count >= cap) count = 0;
    } else if (count < l.room) {
      l.stack[count++] = s;
    }
  }

  // Exact and Range: admits and repaints the run through x of row y, pushes it.
  void walk(int y, int from, int to, const Span& p, int dir) {
    for (int x = from; x <= to;) {
      if (!admits<kRule, T, kC>(at(x, y), a)) {
        ++x;
        continue;
      }
      paintPixel<T, kC>(at(x, y), a);
      int lo = x, hi = x;
      while (lo > 0 && admits<kRule, T, kC>(at(lo - 1, y), a)) paintPixel<T, kC>(at(--lo, y), a);
      while (hi < w - 1 && admits<kRule, T, kC>(at(hi + 1, y), a))
        paintPixel<T, kC>(at(++hi, y), a);
      push({y, lo, hi, p.xl, p.xr, dir});
      r.area += hi - lo + 1;
      x = hi + 2;
    }
  }

  // Grad: admits (marks) the run through x of row y against the popped run p, pushes it.
  void walkGrad(int y, int from, int to, const Span& p, int dir) {
    for (int x = from; x <= to;) {
      const int beside = std::clamp(x, static_cast<int>(p.xl), static_cast<int>(p.xr));
      if (seen(x, y) || !near<T, kC>(at(x, y), at(beside, p.y), a)) {
        ++x;
        continue;
      }
      seen(x, y) = 1;
      int lo = x, hi = x;
      while (!seen(lo - 1, y) && near<T, kC>(at(lo - 1, y), at(lo, y), a)) seen(--lo, y) = 1;
      while (!seen(hi + 1, y) && (near<T, kC>(at(hi + 1, y), at(hi, y), a) ||
                                  (hi < p.xr && near<T, kC>(at(hi + 1, y), at(hi + 1, p.y), a))))
        seen(++hi, y) = 1;
      push({y, lo, hi, p.xl, p.xr, dir});
      x = hi + 2;
    }
  }

  void run(int sx, int sy) {
    constexpr bool kGrad = kRule == kFillGrad;
    int lo = sx, hi = sx;
    if constexpr (kGrad) {
      clearMap(l.map, w, h);
      seen(sx, sy) = 1;
      while (!seen(lo - 1, sy) && near<T, kC>(at(lo - 1, sy), at(lo, sy), a)) seen(--lo, sy) = 1;
      while (!seen(hi + 1, sy) && near<T, kC>(at(hi + 1, sy), at(hi, sy), a)) seen(++hi, sy) = 1;
      r = {0, lo, sy, hi, sy};
    } else {
      paintPixel<T, kC>(at(sx, sy), a);
      while (lo > 0 && admits<kRule, T, kC>(at(lo - 1, sy), a)) paintPixel<T, kC>(at(--lo, sy), a);
      while (hi < w - 1 && admits<kRule, T, kC>(at(hi + 1, sy), a))
        paintPixel<T, kC>(at(++hi, sy), a);
      r = {hi - lo + 1, lo, sy, hi, sy};
      if (h == 1) return;
    }
    push({sy, lo, hi, hi + 1, hi, !kGrad && sy == h - 1 ? -1 : 1});
    while (count > 0) {
      const Span s = l.stack[--count];
      r.x0 = std::min(r.x0, static_cast<int>(s.xl));
      r.x1 = std::max(r.x1, static_cast<int>(s.xr));
      r.y0 = std::min(r.y0, static_cast<int>(s.y));
      r.y1 = std::max(r.y1, static_cast<int>(s.y));
      const int yf = s.y - s.dir, yb = s.y + s.dir;
      if constexpr (kGrad) {
        const int from = kConn == 8 ? s.xl - 1 : s.xl, to = kConn == 8 ? s.xr + 1 : s.xr;
        walkGrad(yf, from, to, s, s.dir);
        walkGrad(yb, from, s.pl - 1, s, -s.dir);
        walkGrad(yb, s.pr + 1, to, s, -s.dir);
        for (int x = s.xl; x <= s.xr; ++x) paintPixel<T, kC>(at(x, s.y), a);
        r.area += s.xr - s.xl + 1;
      } else {
        const int from = kConn == 8 ? std::max(s.xl - 1, 0) : s.xl;
        const int to = kConn == 8 ? std::min(s.xr + 1, w - 1) : s.xr;
        if (yf >= 0 && yf < h) walk(yf, from, to, s, s.dir);
        walk(yb, from, s.pl - 1, s, -s.dir);
        walk(yb, s.pr + 1, to, s, -s.dir);
      }
    }
  }
};

}  // namespace

template <int kRule, int kConn, class T, int kC>
void fill(T* image, int step, int w, int h, int sx, int sy, const FillArgs<T>& a, Kvl8u* buffer,
          FillResult* result) {
  Filler<kRule, kConn, T, kC> f{image, step, w, h, a, fillLayout(buffer, w, h, kRule == kFillGrad)};
  f.cap = static_cast<long long>(w) * h / 4;
  f.run(sx, sy);
  *result = f.r;
}

#define KVL_INSTANTIATE(variant, rule, conn, types, T, ch, stepCh)                           \
  template void fill<KVL_FLOOD_FILL_RULE_##rule, conn, T, ch>(T*, int, int, int, int, int, \
                                                               const FillArgs<T>&, Kvl8u*,  \
                                                               FillResult*);
KVL_FLOOD_FILL_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::seg::ref
