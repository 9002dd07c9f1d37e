// Gaussian 5x5 pyramids: the kernel of every member, the arithmetic that the reference and the
// vector kernels' scalar edges share, and the row schedule they all follow.
//
// Down: each source row is filtered horizontally once (only at the even columns the result needs).
// The ring in the work buffer keeps the passes of rows 2y-2, 2y-1 and 2y; one pass along the
// columns filters the next 2n source rows (n up to kMaxFused), makes destination rows y .. y+n-1
// and leaves the last three passes in the ring. A fourth ring row takes the last odd source row
// at the bottom edge. Up: each source row is filtered horizontally once into a ring of two rows;
// destination rows 2j and 2j+1 combine rows j-1, j and j+1, the last of which is made in the same
// pass and replaces row j-1 in the ring. A target's row operations (an `Ops` below) choose how a
// ring row is laid out; the schedule, the narrow-image paths and the borders between rows are
// common.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "core/border.h"
#include "core/pixel.h"
#include "core/simd.h"
#include "kvlcv.h"
#include "pyramid/gauss_pyramid_members.h"

namespace kvl::pyramid {

// A whole pyramid step: source w x h, the destination of the member's size, `buffer` the
// caller's work buffer of the size query's bytes (any alignment).
template <class T>
using PyrFn = void (*)(const T* src, int srcStep, T* dst, int dstStep, int w, int h, Kvl8u* buffer);

template <class T, int kC, bool kUp>
struct PyrKernel {
  static const simd::Kernel<PyrFn<T>> kernel;
};

namespace ref {
template <class T, int kC, bool kUp>
void pyramid(const T* src, int srcStep, T* dst, int dstStep, int w, int h, Kvl8u* buffer);
}  // namespace ref

// ---- Buffer sizes (64-bit; the family refuses what does not fit an int) ----

inline long long downBufferBytes(int w, int channels) {
  return roundUp(static_cast<long long>(w) * 4 * channels, 16) * 6 + 64;
}
inline long long upBufferBytes(int w, int channels) {
  return roundUp(static_cast<long long>(w) * 8 * channels, 16) * 3 + 64;
}

// ---- The arithmetic of one element ----
//
// Integer members sum in int (every sum fits 16 bits, so vector code may keep 16-bit lanes and
// give the same values); 32f sums in single precision, left to right in the order written.

template <class T>
using Wide = std::conditional_t<std::is_floating_point_v<T>, float, int>;

// s(-2) + 4 s(-1) + 6 s(0) + 4 s(1) + s(2), in 32f as ((s(-2) + s(2)) + (s(-1) + s(1)) * 4) +
// s(0) * 6: the pairs first, so that vector code sums whole rows of neighbours.
inline int tap5(int a, int b, int c, int d, int e) { return a + 4 * b + 6 * c + 4 * d + e; }
inline float tap5(float a, float b, float c, float d, float e) {
  return ((a + e) + (b + d) * 4.0f) + c * 6.0f;
}
// The even phase of up-sampling, s(i-1) + 6 s(i) + s(i+1), and the odd one, 4 s(i) + 4 s(i+1).
inline int upEven(int a, int b, int c) { return a + 6 * b + c; }
inline float upEven(float a, float b, float c) { return (a + b * 6.0f) + c; }
inline int upOdd(int b, int c) { return 4 * (b + c); }
inline float upOdd(float b, float c) { return (b + c) * 4.0f; }

// Normalisations. Integer shifts are arithmetic (halves go up, also for negative values).
template <class T>
inline T downOut(Wide<T> v) {
  if constexpr (std::is_floating_point_v<T>) {
    return v * 0.00390625f;
  } else {
    return static_cast<T>((v + 128) >> 8);
  }
}
// The narrow down-sampling paths: the mean of two filtered rows (or columns).
template <class T>
inline T pairOut(Wide<T> a, Wide<T> b) {
  if constexpr (std::is_floating_point_v<T>) {
    return (a + b) * 0.03125f;
  } else {
    return static_cast<T>(((a + b) * 8 + 128) >> 8);
  }
}
template <class T>
inline T upOut(Wide<T> v) {
  if constexpr (std::is_floating_point_v<T>) {
    return v * 0.015625f;
  } else {
    return static_cast<T>((v + 32) >> 6);
  }
}
// A one-row or one-column source: the single filtered direction.
template <class T>
inline T oneOut(Wide<T> v) {
  if constexpr (std::is_floating_point_v<T>) {
    return v * 0.125f;
  } else {
    return static_cast<T>((v * 8 + 32) >> 6);
  }
}

// Row or column j (at most two beyond an edge) of n, mirrored about the edge pixels
// (down-sampling, all four sides). The far side is folded once first, so that j stays an int
// even next to the largest n.
inline int mirror(long long j, int n) {
  if (j >= n) j = 2LL * (n - 1) - j;
  return border::mapIndex(static_cast<int>(j), n, kvlBorderMirror);
}

// Row y of an image; y may exceed the int range only in the up-sampled destination.
template <class T>
inline T* rowAt(T* base, int step, long long y) {
  using Byte = std::conditional_t<std::is_const_v<T>, const char, char>;
  return reinterpret_cast<T*>(reinterpret_cast<Byte*>(base) +
                              static_cast<std::ptrdiff_t>(step) * y);
}
// Element j of a row of n for up-sampling: mirrored at the start, replicated at the end.
inline int upIndex(int j, int n) {
  return border::mapIndex(j, n, j < 0 ? kvlBorderMirror : kvlBorderRepl);
}

template <class T>
inline Wide<T> wide(const T* p) {
  return static_cast<Wide<T>>(loadAny(p));
}

// The horizontal down-sampling pass at output column x of a row of w pixels of kStride
// elements (kStride 1 for a channel plane).
template <class T, int kStride>
inline Wide<T> hDownAt(const T* row, int w, int x) {
  auto s = [&](int k) { return wide(row + mirror(2 * x + k, w) * kStride); };
  return tap5(s(-2), s(-1), s(0), s(1), s(2));
}
// The horizontal up-sampling pass: destination columns 2i (even) and 2i+1 (odd).
template <class T, int kStride>
inline Wide<T> hUpEvenAt(const T* row, int w, int i) {
  auto s = [&](int k) { return wide(row + upIndex(i + k, w) * kStride); };
  return upEven(s(-1), s(0), s(1));
}
template <class T, int kStride>
inline Wide<T> hUpOddAt(const T* row, int w, int i) {
  auto s = [&](int k) { return wide(row + upIndex(i + k, w) * kStride); };
  return upOdd(s(0), s(1));
}

// ---- The work buffer ----

// The caller's buffer from its first 64-byte-aligned byte on.
struct Work {
  Kvl8u* base;
  long long bytes;
  Work(Kvl8u* buffer, long long total) {
    base = alignUp(buffer, 64);
    bytes = total - (base - buffer);
  }
};

// ---- The narrow paths no target vectorises ----

// Down-sampling of a source of width 1 or 2 (height 3 or more): per destination row, the two
// columns are filtered vertically and averaged.
template <class T, int kC>
void downNarrowWidth(const T* src, int srcStep, T* dst, int dstStep, int w, int h) {
  const int hd = (h + 1) >> 1, col1 = w > 1 ? 1 : 0;
  for (int y = 0; y < hd; ++y) {
    const T* r[5];
    for (int k = 0; k < 5; ++k) r[k] = rowPtr(src, srcStep, mirror(2LL * y + k - 2, h));
    T* out = rowPtr(dst, dstStep, y);
    for (int c = 0; c < kC; ++c) {
      auto column = [&](int x) {
        auto s = [&](int k) { return wide(r[k] + x * kC + c); };
        return tap5(s(0), s(1), s(2), s(3), s(4));
      };
      storeAny(out + c, pairOut<T>(column(0), column(col1)));
    }
  }
}

// Up-sampling of a source of width 1 (height 2 or more): each vertical result goes to both
// destination columns.
template <class T, int kC>
void upOneColumn(const T* src, int srcStep, T* dst, int dstStep, int h) {
  for (int j = 0; j < h; ++j) {
    const T* prev = rowPtr(src, srcStep, upIndex(j - 1, h));
    const T* cur = rowPtr(src, srcStep, j);
    const T* next = rowPtr(src, srcStep, upIndex(j + 1, h));
    T* even = rowAt(dst, dstStep, 2LL * j);
    T* odd = rowAt(dst, dstStep, 2LL * j + 1);
    for (int c = 0; c < kC; ++c) {
      const T e = oneOut<T>(upEven(wide(prev + c), wide(cur + c), wide(next + c)));
      const T o = oneOut<T>(upOdd(wide(cur + c), wide(next + c)));
      storeAny(even + c, e);
      storeAny(even + kC + c, e);
      storeAny(odd + c, o);
      storeAny(odd + kC + c, o);
    }
  }
}

// ---- The schedules ----

// Destination rows a down-sampling pass makes at most: each reads two more source rows, and more
// rows at once keep more of them streaming in from memory.
constexpr int kMaxFused = 4;

// Down Ops: `Acc` (the ring element), and
//   long long rowBytes(int w)   bytes of one ring row, a multiple of 16
//   long long scratchBytes(int w)
//   void hRow(const T* src, int w, Acc* out)                        one source row into the ring
//   void vRow(const Acc* const r[5], int w, T* dst)                 rows 2y-2 .. 2y+2 combined
//   void pairRow(const Acc* r0, const Acc* r1, int w, T* dst)       the height-1-or-2 result
//   void fused(const T* const src[2 kMaxFused], int n, int w, Acc* const ring[3],
//              T* const dst[kMaxFused])
//        ring holds rows 2y-2, 2y-1, 2y; src the next 2n rows (n <= kMaxFused). Makes destination
//        rows y .. y+n-1 and leaves the last three source rows' horizontal passes in the ring,
//        element by element after it read them.
//   Kvl8u* scratch                                                  set by the schedule
// Each schedule returns false when the layout does not fit the buffer (then nothing was written).

template <class T, int kC, class Ops>
bool downImage(Ops& ops, const T* src, int srcStep, T* dst, int dstStep, int w, int h,
               Kvl8u* buffer) {
  using Acc = typename Ops::Acc;
  if (h >= 3 && w < 3) {
    downNarrowWidth<T, kC>(src, srcStep, dst, dstStep, w, h);
    return true;
  }
  const Work work(buffer, downBufferBytes(w, kC));
  const long long pitch = ops.rowBytes(w);
  if (4 * pitch + ops.scratchBytes(w) > work.bytes) return false;
  ops.scratch = work.base + 4 * pitch;
  Acc* ring[4];
  for (int k = 0; k < 4; ++k) ring[k] = reinterpret_cast<Acc*>(work.base + k * pitch);
  auto row = [&](long long r) { return rowAt(src, srcStep, r); };
  if (h < 3) {
    ops.hRow(row(0), w, ring[0]);
    if (h == 2) ops.hRow(row(1), w, ring[1]);
    ops.pairRow(ring[0], ring[h - 1], w, dst);
    return true;
  }
  for (int r = 0; r < 3; ++r) ops.hRow(row(r), w, ring[r]);
  const int hd = (h + 1) >> 1;
  int y = 0;
  // ring[0..2] hold rows 2y-2 .. 2y (rows 0 .. 2 before the first); destination row 0 mirrors.
  {
    const Acc* const r[5] = {ring[2], ring[1], ring[0], ring[1], ring[2]};
    ops.vRow(r, w, dst);
    y = 1;
  }
  for (; y < hd;) {
    const long long top = 2LL * y;  // ring[2] holds row top
    int n = kMaxFused;
    while (n > 0 && top + 2 * n >= h) --n;  // rows up to top + 2n must exist
    if (n == 0) break;
    const T* s[2 * kMaxFused] = {};
    T* out[kMaxFused] = {};
    for (int k = 0; k < 2 * n; ++k) s[k] = row(top + 1 + k);
    for (int k = 0; k < n; ++k) out[k] = rowPtr(dst, dstStep, y + k);
    ops.fused(s, n, w, ring, out);
    y += n;
  }
  // At most one row is left; its rows below the image mirror into the ring.
  for (; y < hd; ++y) {
    const long long top = 2LL * y;
    if (top + 1 < h) ops.hRow(row(top + 1), w, ring[3]);
    const Acc* r[5];
    for (int k = 0; k < 5; ++k) {
      const long long j = mirror(top + k - 2, h);
      r[k] = ring[j == top + 1 ? 3 : j - (top - 2)];
    }
    ops.vRow(r, w, rowPtr(dst, dstStep, y));
  }
  return true;
}

// Up Ops: `Acc`, rowBytes, scratchBytes, scratch as above, and
//   void hRow(const T* src, int w, Acc* out)
//   void vPair(const Acc* prev, const Acc* cur, const Acc* next, int w, T* even, T* odd)
//   void fused(const T* src, int w, Acc* prev, const Acc* cur, T* even, T* odd)
//        filters source row j+1 and combines it with prev (row j-1) and cur (row j); its
//        horizontal result replaces prev, element by element after it was read
//   void oneRow(const Acc* r, int w, T* d0, T* d1)                  the height-1 result

template <class T, int kC, class Ops>
bool upImage(Ops& ops, const T* src, int srcStep, T* dst, int dstStep, int w, int h,
             Kvl8u* buffer) {
  using Acc = typename Ops::Acc;
  if (h >= 2 && w == 1) {
    upOneColumn<T, kC>(src, srcStep, dst, dstStep, h);
    return true;
  }
  const Work work(buffer, upBufferBytes(w, kC));
  const long long pitch = ops.rowBytes(w);
  if (2 * pitch + ops.scratchBytes(w) > work.bytes) return false;
  ops.scratch = work.base + 2 * pitch;
  Acc* a = reinterpret_cast<Acc*>(work.base);
  Acc* b = reinterpret_cast<Acc*>(work.base + pitch);
  auto row = [&](int r) { return rowPtr(src, srcStep, r); };
  auto out = [&](long long r) { return rowAt(dst, dstStep, r); };
  ops.hRow(row(0), w, a);
  if (h == 1) {
    ops.oneRow(a, w, out(0), out(1));
    return true;
  }
  ops.hRow(row(1), w, b);
  ops.vPair(b, a, b, w, out(0), out(1));  // row -1 reflects row 1
  Acc* prev = a;
  Acc* cur = b;
  for (int j = 1; j + 1 < h; ++j) {
    ops.fused(row(j + 1), w, prev, cur, out(2LL * j), out(2LL * j + 1));
    Acc* t = prev;
    prev = cur;
    cur = t;
  }
  ops.vPair(prev, cur, cur, w, out(2LL * h - 2), out(2LL * h - 1));  // row h replicates row h-1
  return true;
}

#define KVL_PYR_EXTERN(Dir, type, T, C) extern template struct PyrKernel<T, C, KVL_PYR_UP_##Dir>;
KVL_PYR_MEMBERS(KVL_PYR_EXTERN)
#undef KVL_PYR_EXTERN

}  // namespace kvl::pyramid
