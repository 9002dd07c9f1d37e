// Flood fills: the span record, the work-buffer layout, what a call runs with, the admission
// tests the reference and the vector kernels share, and the kernel of every member of
// KVL_FLOOD_FILL_MEMBERS.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "core/pixel.h"
#include "core/simd.h"
#include "kvlcv.h"
#include "seg/flood_fill_members.h"

namespace kvl::seg {

static_assert(sizeof(KvliConnectedComp) == 48, "the region record is 48 bytes");

// One record of the span stack: an admitted run [xl, xr] of row y, found from row y + dir
// beside its parent run [pl, pr]; row y - dir is still to be looked at.
struct Span {
  int32_t y, xl, xr, pl, pr, dir;
};
static_assert(sizeof(Span) == 24, "the span record is six 32-bit integers");

// Work-buffer sizes in 64 bits (the size queries store them as 32 bits).
constexpr long long fillBufferBytes(long long w, long long h) { return (24 * w * h) / 4 + 32; }
constexpr long long gradBufferBytes(long long w, long long h) {
  return (w + 2) * (h + 2) + (48 * w * h) / 3 + 64;
}

// Where things lie in the caller's buffer: the visited map (Grad only, (w + 2) x (h + 2) bytes),
// the stack, and how many records fit in what the size query gave.
struct FillLayout {
  Kvl8u* map;
  Span* stack;
  long long room;
};

inline FillLayout fillLayout(Kvl8u* buffer, int w, int h, bool grad) {
  FillLayout l{};
  Kvl8u* p = alignUp(buffer, 8);
  long long total = grad ? gradBufferBytes(w, h) : fillBufferBytes(w, h);
  if (grad) {
    l.map = p;
    p = alignUp(p + static_cast<long long>(w + 2) * (h + 2), 8);
  }
  l.stack = reinterpret_cast<Span*>(p);
  l.room = (total - (p - buffer)) / static_cast<long long>(sizeof(Span));
  return l;
}

// The Grad map: the frame reads as visited, the interior not yet.
inline void clearMap(Kvl8u* map, int w, int h) {
  const long long mw = w + 2;
  std::memset(map, 1, static_cast<size_t>(mw));
  std::memset(map + mw, 0, static_cast<size_t>(mw * h));
  std::memset(map + (h + 1) * mw, 1, static_cast<size_t>(mw));
  for (long long y = 1; y <= h; ++y) map[y * mw] = 1, map[y * mw + w + 1] = 1;
}

// What a call runs with, per channel: the fill value; the seed's value (exact); the admission
// interval (Range, clamped for integers); the deltas (Grad) and, for 32f Grad, the centre shift
// 0.5 (minDelta - maxDelta) and half width 0.5 (minDelta + maxDelta) in single precision.
template <class T>
struct FillArgs {
  T newVal[3];
  T seed[3];
  T lo[3], hi[3];
  T minDelta[3], maxDelta[3];
  float shift[3], half[3];
};

// The region as the kernel found it: pixel count and inclusive bounds.
struct FillResult {
  long long area;
  int x0, y0, x1, y1;
};

template <class T>
using FillFn = void (*)(T* image, int step, int w, int h, int sx, int sy, const FillArgs<T>& a,
                        Kvl8u* buffer, FillResult* result);

// Exact and Range: does pixel p (kC channels at any address) join?
template <int kRule, class T, int kC>
inline bool admits(const T* p, const FillArgs<T>& a) {
  if constexpr (kRule == kFillExact) {
    for (int c = 0; c < kC; ++c)
      if (!(loadAny(p + c) == a.seed[c])) return false;
    return true;
  } else {
    bool painted = true;
    for (int c = 0; c < kC; ++c) {
      const T v = loadAny(p + c);
      if (!(a.lo[c] <= v && v <= a.hi[c])) return false;
      painted = painted && v == a.newVal[c];
    }
    return !painted;
  }
}

// Grad: is candidate p within the deltas of reference r (every channel)?
template <class T, int kC>
inline bool near(const T* p, const T* r, const FillArgs<T>& a) {
  for (int c = 0; c < kC; ++c) {
    const T pv = loadAny(p + c), rv = loadAny(r + c);
    if constexpr (std::is_floating_point_v<T>) {
      const float t = (pv - rv) + a.shift[c];
      if (!((t < 0 ? -t : t) <= a.half[c])) return false;
    } else {
      const unsigned d = static_cast<unsigned>(pv) + a.minDelta[c] - rv;
      if (!(d <= static_cast<unsigned>(a.minDelta[c]) + a.maxDelta[c])) return false;
    }
  }
  return true;
}

template <class T, int kC>
inline void paintPixel(T* p, const FillArgs<T>& a) {
  for (int c = 0; c < kC; ++c) storeAny(p + c, a.newVal[c]);
}

template <int kRule, int kConn, class T, int kC>
struct FillKernel {
  static const simd::Kernel<FillFn<T>> kernel;
};

namespace ref {
// The span fill written out pixel by pixel.
template <int kRule, int kConn, class T, int kC>
void fill(T* image, int step, int w, int h, int sx, int sy, const FillArgs<T>& a, Kvl8u* buffer,
          FillResult* result);
}  // namespace ref

#define KVL_FLOOD_FILL_EXTERN(variant, rule, conn, types, T, ch, stepCh) \
  extern template struct FillKernel<KVL_FLOOD_FILL_RULE_##rule, conn, T, ch>;
KVL_FLOOD_FILL_MEMBERS(KVL_FLOOD_FILL_EXTERN)
#undef KVL_FLOOD_FILL_EXTERN

}  // namespace kvl::seg
