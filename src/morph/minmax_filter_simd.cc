// Vector kernels of the rectangle minimum and maximum filters, one source for SSE4, AVX2 and
// AVX-512.
//
// The filter is separable: each source row is first reduced horizontally into a row of keys (the
// mask's width), and the output rows then reduce those rows vertically (the mask's height). Both
// passes cost a fixed number of vector operations per element for small masks and grow with the
// logarithm of the side (horizontally) or not at all (vertically) for large ones:
//  - horizontal, narrow masks: the elements of the window are loaded at shifted offsets and
//    reduced directly; wider masks double a window in place (w2 = min(x, x+1), w4 = min(w2,
//    w2+2), ...) up to the largest power of two P in the width, and the output is the pair of
//    P-windows at both ends of the rectangle;
//  - vertical, short masks: a ring of the needed rows, and each pair of output rows shares the
//    reduction of the rows both of them read; tall masks: the rows are cut into blocks of the
//    mask's height, each block's suffix reductions are kept, the next block's prefix reduction
//    runs alongside, and an output row is one suffix combined with one prefix.
// Masks at most three wide and eight tall (the 3x3 above all) skip both intermediate rows: the
// vertical reduction stays in registers and the horizontal neighbours come from the vectors on
// either side by shuffles (narrow()); the morphology's centred 3x3 plus does the same (plus()).
// Pixels whose window leaves the row on the left or right are made from running prefix and
// suffix reductions of the row, which is what replication gives. Rows above and below the ROI
// are the first and last rows. Floats are carried as order keys (Order<Kvl32f>) from the load to
// the store.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "morph/minmax_filter_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/cache_control.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "core/pixel.h"
#include "core/services.h"
#include "core/simd.h"
#include "morph/minmax_filter.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::morph {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

// The vectors of every pass: at most 256 bits. The passes are bound by the loads, most of which
// are unaligned (shifted windows); a 512-bit unaligned load always spans two cache lines.
template <class K>
using Tag = hn::CappedTag<K, 32 / sizeof(K)>;

// Widest mask reduced by shifted loads; wider ones double their window.
constexpr int kDirectWidth = 5;
// Tallest mask reduced from a ring of rows; taller ones take the block scheme.
constexpr int kRingHeight = 8;

// N keys from p: a caller's float row is converted to keys, key rows and integer rows are loaded.
template <class D, class P>
HWY_INLINE hn::Vec<D> load(D d, const P* p) {
  if constexpr (std::is_same_v<P, Kvl32f>) {
    const auto v = hn::LoadU(d, reinterpret_cast<const int32_t*>(p));
    const hn::RebindToUnsigned<D> du;
    return hn::Xor(v, hn::BitCast(d, hn::ShiftRight<1>(hn::BitCast(du, hn::BroadcastSignBit(v)))));
  } else {
    return hn::LoadU(d, p);
  }
}
// Stores N keys at p, converted back to floats for a caller's float row.
template <class D, class P>
HWY_INLINE void store(D d, hn::Vec<D> v, P* p) {
  if constexpr (std::is_same_v<P, Kvl32f>) {
    const hn::RebindToUnsigned<D> du;
    v = hn::Xor(v, hn::BitCast(d, hn::ShiftRight<1>(hn::BitCast(du, hn::BroadcastSignBit(v)))));
    hn::StoreU(v, d, reinterpret_cast<int32_t*>(p));
  } else {
    hn::StoreU(v, d, p);
  }
}
// store(), as a cache-bypassing store when `stream` is set and p is aligned to the vector.
template <class D, class P>
HWY_INLINE void put(D d, hn::Vec<D> v, P* p, bool stream) {
  if (stream && reinterpret_cast<uintptr_t>(p) % (hn::Lanes(d) * sizeof(hn::TFromD<D>)) == 0) {
    if constexpr (std::is_same_v<P, Kvl32f>) {
      const hn::RebindToUnsigned<D> du;
      v = hn::Xor(v, hn::BitCast(d, hn::ShiftRight<1>(hn::BitCast(du, hn::BroadcastSignBit(v)))));
      hn::Stream(v, d, reinterpret_cast<int32_t*>(p));
    } else {
      hn::Stream(v, d, p);
    }
  } else {
    store(d, v, p);
  }
}
// Elements before out reaches a vector boundary when its stores stream (else 0).
template <class D, class P>
HWY_INLINE int streamHead(D d, const P* out, bool stream, int n) {
  return stream ? alignedHead(out, static_cast<int>(hn::Lanes(d) * sizeof(hn::TFromD<D>)), n) : 0;
}

// One key at p (a caller's element or a key of the work rows), and its store.
template <class K, class P>
HWY_INLINE K loadOne(const P* p) {
  if constexpr (std::is_same_v<P, Kvl32f>) {
    return Order<Kvl32f>::key(loadAny(p));
  } else {
    return loadAny(p);
  }
}
template <class K, class P>
HWY_INLINE void storeOne(P* p, K k) {
  if constexpr (std::is_same_v<P, Kvl32f>) {
    storeAny(p, Order<Kvl32f>::value(k));
  } else {
    storeAny(p, k);
  }
}

template <bool kMax, class V>
HWY_INLINE V pick(V a, V b) {
  if constexpr (kMax) {
    return hn::Max(a, b);
  } else {
    return hn::Min(a, b);
  }
}

// out[j] for j in [j0, j1) reduces s[j], s[j + kC], ..., s[j + (kW - 1) kC].
template <bool kMax, int kC, int kW, class K, class In, class Out>
void direct(const In* s, Out* out, int j0, int j1, bool stream) {
  static_assert(kW <= kDirectWidth);
  const Tag<K> d;
  const int N = static_cast<int>(hn::Lanes(d));
  auto one = [&](int j) KVL_INLINE_LAMBDA {
    K v = loadOne<K>(s + j);
    for (int i = 1; i < kW; ++i) v = better<kMax>(v, loadOne<K>(s + j + i * kC));
    storeOne(out + j, v);
  };
  int j = j0;
  for (const int head = j0 + streamHead(d, out + j0, stream, j1 - j0); j < head; ++j) one(j);
  for (; j + N <= j1; j += N) {
    auto v = load(d, s + j);
    for (int i = 1; i < kW; ++i) v = pick<kMax>(v, load(d, s + j + i * kC));
    put(d, v, out + j, stream);
  }
  for (; j < j1; ++j) one(j);
}

// Horizontal pass of one row of w pixels of kC channels: out[x] reduces in[x - left .. x +
// right] (clamped to the row). `scratch` holds w*kC keys for the doubling windows.
template <bool kMax, int kC, class K, class In, class Out>
void rowPass(const In* in, Out* out, int w, int left, int right, K* scratch, bool stream) {
  const Tag<K> d;
  const int N = static_cast<int>(hn::Lanes(d));
  const int n = w * kC;
  const int width = left + right + 1;
  if constexpr (std::is_same_v<In, Kvl32f>) {
    // A float row is converted to keys once, rather than at each of the shifted loads.
    if (width > 1 && width <= kDirectWidth) {
      int j = 0;
      for (; j + N <= n; j += N) hn::StoreU(load(d, in + j), d, scratch + j);
      for (; j < n; ++j) scratch[j] = loadOne<K>(in + j);
      return rowPass<kMax, kC, K>(static_cast<const K*>(scratch), out, w, left, right, scratch,
                                  stream);
    }
  }
  // The pixels whose window lies inside the row: [left, w - right).
  const int x0 = left, x1 = std::max(left, w - right);
  const int j0 = x0 * kC, j1 = x1 * kC;
  if (j1 > j0) {
    if (width <= kDirectWidth) {
      const In* from = in - left * kC;
      switch (width) {
        case 1: direct<kMax, kC, 1, K>(from, out, j0, j1, stream); break;
        case 2: direct<kMax, kC, 2, K>(from, out, j0, j1, stream); break;
        case 3: direct<kMax, kC, 3, K>(from, out, j0, j1, stream); break;
        case 4: direct<kMax, kC, 4, K>(from, out, j0, j1, stream); break;
        default: direct<kMax, kC, 5, K>(from, out, j0, j1, stream); break;
      }
    } else {
      // scratch[j] reduces pixels j/kC .. j/kC + span - 1 (same channel), valid for j < valid.
      int span = 1;
      int valid = n;
      auto level = [&](auto* src) {
        const int step = span * kC;
        valid -= step;
        int j = 0;
        for (; j + N <= valid; j += N)
          hn::StoreU(pick<kMax>(load(d, src + j), load(d, src + j + step)), d, scratch + j);
        for (; j < valid; ++j)
          scratch[j] = better<kMax>(loadOne<K>(src + j), loadOne<K>(src + j + step));
        span *= 2;
      };
      level(in);
      while (2 * span <= width) level(scratch);
      // In place: each store lands below every element a later iteration reads.
      const K* a = scratch - left * kC;
      const K* b = a + (width - span) * kC;
      int j = j0;
      for (const int head = j0 + streamHead(d, out + j0, stream, j1 - j0); j < head; ++j)
        storeOne(out + j, better<kMax>(a[j], b[j]));
      for (; j + N <= j1; j += N)
        put(d, pick<kMax>(hn::LoadU(d, a + j), hn::LoadU(d, b + j)), out + j, stream);
      for (; j < j1; ++j) storeOne(out + j, better<kMax>(a[j], b[j]));
    }
  }
  // Pixels whose window leaves the row: running reductions from either end.
  for (int c = 0; c < kC; ++c) {
    K m = loadOne<K>(in + c);
    int upTo = 0;
    for (int x = 0; x < x0 && x < w; ++x) {
      const int end = std::min(w - 1, x + right);
      for (; upTo < end; ++upTo) m = better<kMax>(m, loadOne<K>(in + (upTo + 1) * kC + c));
      storeOne(out + x * kC + c, m);
    }
    m = loadOne<K>(in + (w - 1) * kC + c);
    int downTo = w - 1;
    for (int x = w - 1; x >= x1 && x >= x0; --x) {
      const int start = x - left;
      for (; downTo > start; --downTo) m = better<kMax>(m, loadOne<K>(in + (downTo - 1) * kC + c));
      storeOne(out + x * kC + c, m);
    }
  }
}

// Vertical reduction of kCount key rows (the rows two outputs share), written to out0 combined
// with `first` and, when out1 is not null, to out1 combined with `last`.
template <bool kMax, int kCount, class K, class Out>
void columnPass(const K* const* rows, const K* first, Out* out0, const K* last, Out* out1, int n,
                bool stream) {
  const Tag<K> d;
  const int N = static_cast<int>(hn::Lanes(d));
  const K* r[kCount];
  for (int i = 0; i < kCount; ++i) r[i] = rows[i];
  auto one = [&](int j) KVL_INLINE_LAMBDA {
    K m = r[0][j];
    for (int i = 1; i < kCount; ++i) m = better<kMax>(m, r[i][j]);
    storeOne(out0 + j, better<kMax>(m, first[j]));
    if (out1 != nullptr) storeOne(out1 + j, better<kMax>(m, last[j]));
  };
  auto shared = [&](int at) KVL_INLINE_LAMBDA {
    auto m = hn::LoadU(d, r[0] + at);
    for (int i = 1; i < kCount; ++i) m = pick<kMax>(m, hn::LoadU(d, r[i] + at));
    return m;
  };
  int j = 0;
  for (const int head = streamHead(d, out0, stream, n); j < head; ++j) one(j);
  if (out1 != nullptr) {
    for (; j + N <= n; j += N) {
      const auto m = shared(j);
      put(d, pick<kMax>(m, hn::LoadU(d, first + j)), out0 + j, stream);
      put(d, pick<kMax>(m, hn::LoadU(d, last + j)), out1 + j, stream);
    }
  } else {
    for (; j + N <= n; j += N) put(d, pick<kMax>(shared(j), hn::LoadU(d, first + j)), out0 + j, stream);
  }
  for (; j < n; ++j) one(j);
}

template <bool kMax, class K, class Out>
void columnPass(int count, const K* const* rows, const K* first, Out* out0, const K* last,
                Out* out1, int n, bool stream) {
  static_assert(kRingHeight == 8);
  switch (count) {
    case 1: return columnPass<kMax, 1>(rows, first, out0, last, out1, n, stream);
    case 2: return columnPass<kMax, 2>(rows, first, out0, last, out1, n, stream);
    case 3: return columnPass<kMax, 3>(rows, first, out0, last, out1, n, stream);
    case 4: return columnPass<kMax, 4>(rows, first, out0, last, out1, n, stream);
    case 5: return columnPass<kMax, 5>(rows, first, out0, last, out1, n, stream);
    case 6: return columnPass<kMax, 6>(rows, first, out0, last, out1, n, stream);
    default: return columnPass<kMax, 7>(rows, first, out0, last, out1, n, stream);
  }
}

// v = a combined with b; `keep` (when not null) receives v, and out receives v combined with c
// (v alone when c is null).
template <bool kMax, class K, class Out>
void combine(const K* a, const K* b, K* keep, const K* c, Out* out, int n, bool stream = false) {
  const Tag<K> d;
  const int N = static_cast<int>(hn::Lanes(d));
  auto one = [&](int j) KVL_INLINE_LAMBDA {
    K v = better<kMax>(a[j], b[j]);
    if (keep != nullptr) keep[j] = v;
    if (c != nullptr) v = better<kMax>(v, c[j]);
    storeOne(out + j, v);
  };
  int j = 0;
  for (const int head = streamHead(d, out, stream, n); j < head; ++j) one(j);
  for (; j + N <= n; j += N) {
    auto v = pick<kMax>(hn::LoadU(d, a + j), hn::LoadU(d, b + j));
    if (keep != nullptr) hn::StoreU(v, d, keep + j);
    if (c != nullptr) v = pick<kMax>(v, hn::LoadU(d, c + j));
    put(d, v, out + j, stream);
  }
  for (; j < n; ++j) one(j);
}

// The vector of the elements kS elements left (right) of `cur`, taken from `cur` and the vector
// before (after) it: two shuffles instead of a shifted load. kS elements span at most 16 bytes.
template <int kS, class D>
HWY_INLINE hn::Vec<D> fromLeft(D d, hn::Vec<D> prev, hn::Vec<D> cur) {
  constexpr int kB = kS * static_cast<int>(sizeof(hn::TFromD<D>));
  static_assert(kB <= 16);
  if constexpr (hn::MaxLanes(D()) * sizeof(hn::TFromD<D>) == 16) {
    if constexpr (kB == 16) {
      return prev;
    } else {
      return hn::CombineShiftRightBytes<16 - kB>(d, cur, prev);
    }
  } else {
    const auto t = hn::ConcatLowerUpper(d, cur, prev);  // prev's upper half, cur's lower half
    if constexpr (kB == 16) {
      return t;
    } else {
      return hn::CombineShiftRightBytes<16 - kB>(d, cur, t);
    }
  }
}
template <int kS, class D>
HWY_INLINE hn::Vec<D> fromRight(D d, hn::Vec<D> cur, hn::Vec<D> next) {
  constexpr int kB = kS * static_cast<int>(sizeof(hn::TFromD<D>));
  static_assert(kB <= 16);
  if constexpr (hn::MaxLanes(D()) * sizeof(hn::TFromD<D>) == 16) {
    if constexpr (kB == 16) {
      return next;
    } else {
      return hn::CombineShiftRightBytes<kB>(d, next, cur);
    }
  } else {
    const auto t = hn::ConcatLowerUpper(d, next, cur);  // cur's upper half, next's lower half
    if constexpr (kB == 16) {
      return t;
    } else {
      return hn::CombineShiftRightBytes<kB>(d, t, cur);
    }
  }
}

// The register passes read two new source rows per pair of output rows; asking for them 2 KiB
// ahead keeps the reads of large images from waiting on memory. The address is formed as an
// integer: it may lie beyond the row, and a prefetch never faults.
template <class T>
HWY_INLINE void prefetchAhead(const T* p) {
  hwy::Prefetch(reinterpret_cast<const T*>(reinterpret_cast<uintptr_t>(p) + 2048));
}

// The first q (< N) elements of v at out, through a stack vector: the row ends before a whole
// vector would.
template <class D, class T>
HWY_INLINE void putFirst(D d, hn::Vec<D> v, T* out, int q) {
  HWY_ALIGN T part[hn::MaxLanes(D())];
  put(d, v, part, false);
  std::memcpy(out, part, sizeof(T) * static_cast<std::size_t>(q));
}

// Masks at most three wide (one element each side) and at most kRingHeight tall, both passes in
// registers: two output rows at a time reduce the source rows they share once, each output
// vector's horizontal neighbours come from the vertical reductions on either side of it by
// shuffles, and nothing goes through intermediate rows. Beyond the row's ends the neighbour
// vectors hold the reduction's identity, which is what replication gives (an edge pixel's
// outer neighbour is itself). The last partial vector goes through a small stack row.
// kFixed: 0 takes the shape from the arguments; 1 and 2 are the centred 3x3 rectangle with
// ordinary (1) or streamed (2) stores, compiled with that shape so the loop has no tests.
template <bool kMax, int kC, class T, int kFixed>
void narrow(const T* src, int srcStep, T* dst, int dstStep, int w, int h, bool leftArg,
            bool rightArg, int up, int down, bool streamArg) {
  using K = typename Order<T>::Key;
  const bool left = kFixed ? true : leftArg, right = kFixed ? true : rightArg;
  const bool stream = kFixed ? kFixed == 2 : streamArg;
  const Tag<K> d;
  using V = hn::Vec<decltype(d)>;
  constexpr int kMaxN = 32 / sizeof(K);
  const int N = static_cast<int>(hn::Lanes(d));
  const int n = w * kC, rows = kFixed ? 3 : up + down + 1;
  const K none = kMax ? std::numeric_limits<K>::lowest() : std::numeric_limits<K>::max();
  const V identity = hn::Set(d, none);
  const T* in[kRingHeight + 1];
  auto horizontal = [&](V p, V c, V x) KVL_INLINE_LAMBDA {
    if (left) c = pick<kMax>(c, fromLeft<kC>(d, p, c));
    if (right) c = pick<kMax>(c, fromRight<kC>(d, c, x));
    return c;
  };
  // Output y reads rows in[0 .. rows - 1], output y + 1 rows in[1 .. rows].
  auto vertical = [&](int j, V& v0, V& v1) KVL_INLINE_LAMBDA {
    if (rows == 1) {
      v0 = load(d, in[0] + j);
      v1 = load(d, in[1] + j);
      return;
    }
    V s = load(d, in[1] + j);
    for (int i = 2; i < rows; ++i) s = pick<kMax>(s, load(d, in[i] + j));
    v0 = pick<kMax>(s, load(d, in[0] + j));
    v1 = pick<kMax>(s, load(d, in[rows] + j));
  };
  HWY_ALIGN K tail0[kMaxN], tail1[kMaxN];
  for (int y = 0; y < h; y += 2) {
    const bool two = y + 1 < h;
    for (int i = 0; i <= rows; ++i) in[i] = rowPtr(src, srcStep, std::clamp(y - up + i, 0, h - 1));
    T* out0 = rowPtr(dst, dstStep, y);
    T* out1 = two ? rowPtr(dst, dstStep, y + 1) : nullptr;
    V p0 = identity, p1 = identity, c0, c1, x0, x1;
    vertical(0, c0, c1);
    int j = 0;
    for (; j + 2 * N <= n; j += N) {
      vertical(j + N, x0, x1);
      prefetchAhead(in[rows - 1] + j);
      prefetchAhead(in[rows] + j);
      put(d, horizontal(p0, c0, x0), out0 + j, stream);
      if (two) put(d, horizontal(p1, c1, x1), out1 + j, stream);
      p0 = c0, p1 = c1, c0 = x0, c1 = x1;
    }
    // [j, j + N) is the last full vector; q elements follow it.
    const int q = n - j - N;
    for (int e = 0; e < N; ++e) {
      K v0 = none, v1 = none;
      if (e < q) {
        const int at = j + N + e;
        K s = loadOne<K>(in[1] + at);
        for (int i = 2; i < rows; ++i) s = better<kMax>(s, loadOne<K>(in[i] + at));
        v0 = rows == 1 ? loadOne<K>(in[0] + at) : better<kMax>(s, loadOne<K>(in[0] + at));
        v1 = rows == 1 ? s : better<kMax>(s, loadOne<K>(in[rows] + at));
      }
      tail0[e] = v0;
      tail1[e] = v1;
    }
    x0 = hn::Load(d, tail0);
    x1 = hn::Load(d, tail1);
    put(d, horizontal(p0, c0, x0), out0 + j, stream);
    if (two) put(d, horizontal(p1, c1, x1), out1 + j, stream);
    if (q > 0) {
      putFirst(d, horizontal(c0, x0, identity), out0 + j + N, q);
      if (two) putFirst(d, horizontal(c1, x1, identity), out1 + j + N, q);
    }
  }
}

// The centred 3x3 plus, in registers as narrow() does: two output rows share the minimum of the
// two middle source rows, and the horizontal neighbours of each output row's own source row come
// from the vectors on either side by shuffles.
template <bool kMax, int kC, class T, bool kStream>
void plus(const T* src, int srcStep, T* dst, int dstStep, int w, int h) {
  using K = typename Order<T>::Key;
  const Tag<K> d;
  using V = hn::Vec<decltype(d)>;
  constexpr int kMaxN = 32 / sizeof(K);
  const int N = static_cast<int>(hn::Lanes(d));
  const int n = w * kC;
  const K none = kMax ? std::numeric_limits<K>::lowest() : std::numeric_limits<K>::max();
  const V identity = hn::Set(d, none);
  // Output y: its row r1 with its neighbours, the rows above (r0) and below (r2).
  auto out = [&](V above, V below, V p, V c, V x) KVL_INLINE_LAMBDA {
    return pick<kMax>(pick<kMax>(above, below),
                      pick<kMax>(c, pick<kMax>(fromLeft<kC>(d, p, c), fromRight<kC>(d, c, x))));
  };
  HWY_ALIGN K tail[4][kMaxN];
  for (int y = 0; y < h; y += 2) {
    const bool two = y + 1 < h;
    const T* in[4];
    for (int i = 0; i < 4; ++i) in[i] = rowPtr(src, srcStep, std::clamp(y - 1 + i, 0, h - 1));
    T* out0 = rowPtr(dst, dstStep, y);
    T* out1 = two ? rowPtr(dst, dstStep, y + 1) : nullptr;
    V p1 = identity, p2 = identity, c1 = load(d, in[1]), c2 = load(d, in[2]);
    int j = 0;
    for (; j + 2 * N <= n; j += N) {
      const V x1 = load(d, in[1] + j + N), x2 = load(d, in[2] + j + N);
      prefetchAhead(in[2] + j);
      prefetchAhead(in[3] + j);
      put(d, out(load(d, in[0] + j), c2, p1, c1, x1), out0 + j, kStream);
      if (two) put(d, out(c1, load(d, in[3] + j), p2, c2, x2), out1 + j, kStream);
      p1 = c1, c1 = x1, p2 = c2, c2 = x2;
    }
    // [j, j + N) is the last full vector; q elements follow it, staged with the identity after.
    const int q = n - j - N;
    for (int i = 0; i < 4; ++i)
      for (int e = 0; e < N; ++e) tail[i][e] = e < q ? loadOne<K>(in[i] + j + N + e) : none;
    const V x1 = hn::Load(d, tail[1]), x2 = hn::Load(d, tail[2]);
    put(d, out(load(d, in[0] + j), c2, p1, c1, x1), out0 + j, kStream);
    if (two) put(d, out(c1, load(d, in[3] + j), p2, c2, x2), out1 + j, kStream);
    if (q > 0) {
      putFirst(d, out(hn::Load(d, tail[0]), x2, c1, x1, identity), out0 + j + N, q);
      if (two) putFirst(d, out(x1, hn::Load(d, tail[3]), c2, x2, identity), out1 + j + N, q);
    }
  }
}

template <class T, int kC>
void plusFilter(const T* src, int srcStep, T* dst, int dstStep, int w, int h, bool isMax) {
  using K = typename Order<T>::Key;
  if (w * kC < 2 * static_cast<int>(hn::Lanes(Tag<K>()))) {
    ref::plus<T, kC>(src, srcStep, dst, dstStep, w, h, isMax);
    return;
  }
  const bool stream = streamDestination(2LL * w * h * kC * static_cast<long long>(sizeof(T)));
  if (isMax) {
    (stream ? plus<true, kC, T, true> : plus<true, kC, T, false>)(src, srcStep, dst, dstStep, w, h);
  } else {
    (stream ? plus<false, kC, T, true> : plus<false, kC, T, false>)(src, srcStep, dst, dstStep, w,
                                                                    h);
  }
  if (stream) hwy::FlushStream();
}

template <bool kMax, class T, int kC>
void filter(const T* src, int srcStep, T* dst, int dstStep, int w, int h, int mw, int mh, int ax,
            int ay, Kvl8u* buffer, bool stream) {
  using K = typename Order<T>::Key;
  // Replicating a side more than the ROI is long adds nothing: clamp the reaches to the ROI.
  const int left = std::min(ax, w - 1), right = std::min(mw - 1 - ax, w - 1);
  const int up = std::min(ay, h - 1), down = std::min(mh - 1 - ay, h - 1);
  const int rows = up + down + 1;
  const int n = w * kC;
  const size_t slotBytes = static_cast<size_t>(roundUp(static_cast<long long>(n) * sizeof(K), 32));
  Kvl8u* base = alignUp(buffer, 32);
  auto slot = [&](int i) { return reinterpret_cast<K*>(base + slotBytes * i); };
  auto srcRow = [&](int r) { return rowPtr(src, srcStep, std::clamp(r, 0, h - 1)); };
  auto dstRow = [&](int y) { return rowPtr(dst, dstStep, y); };
  auto horizontal = [&](int r, auto* out, K* scratch, bool toDst = false) {
    rowPass<kMax, kC, K>(srcRow(r), out, w, left, right, scratch, toDst && stream);
  };

  // Narrow masks on rows of at least a few vectors: everything in registers.
  if (left <= 1 && right <= 1 && rows <= kRingHeight &&
      n >= 2 * static_cast<int>(hn::Lanes(Tag<K>()))) {
    if (left == 1 && right == 1 && up == 1 && down == 1) {
      (stream ? narrow<kMax, kC, T, 2> : narrow<kMax, kC, T, 1>)(src, srcStep, dst, dstStep, w, h,
                                                                 true, true, 1, 1, stream);
    } else {
      narrow<kMax, kC, T, 0>(src, srcStep, dst, dstStep, w, h, left == 1, right == 1, up, down,
                             stream);
    }
    return;
  }

  if (rows == 1) {
    for (int y = 0; y < h; ++y) horizontal(y, dstRow(y), slot(0), true);
    return;
  }
  if (rows <= kRingHeight) {
    // A ring of rows + 1 rows (two output rows read rows + 1 rows), and one slot of scratch.
    const int ringSize = rows + 1;
    K* const scratch = slot(ringSize);
    auto ring = [&](int r) { return slot((r + up) % ringSize); };
    int next = -up;  // the next virtual row to reduce horizontally
    auto ensure = [&](int last) {
      for (; next <= last; ++next) horizontal(next, ring(next), scratch);
    };
    const K* shared[kRingHeight];
    for (int y = 0; y < h; y += 2) {
      const bool two = y + 1 < h;
      ensure(y + down + (two ? 1 : 0));
      for (int i = 0; i < rows - 1; ++i) shared[i] = ring(y - up + 1 + i);
      columnPass<kMax, K>(rows - 1, shared, ring(y - up), dstRow(y), ring(y + down + 1),
                          two ? dstRow(y + 1) : nullptr, n, stream);
    }
    return;
  }
  // Blocks of `rows` rows from row -up on. Output y reads rows y - up .. y - up + rows - 1: the
  // suffix of its block from row y - up (bank S, reduced towards the block's start) and the
  // prefix of the next block up to the row before y - up + rows (bank T, raw rows, whose running
  // prefix is kept in the S slots that the outputs have finished with).
  int sOff = 0, tOff = rows;
  auto S = [&](int k) { return slot(sOff + k); };
  auto T_ = [&](int k) { return slot(tOff + k); };
  auto suffixes = [&] {
    for (int k = rows - 2; k >= 0; --k)
      combine<kMax, K>(S(k), S(k + 1), nullptr, nullptr, S(k), n);
  };
  for (int k = 0; k < rows; ++k) horizontal(-up + k, S(k), T_(0));
  suffixes();
  int start = -up;  // the virtual row of S(0)
  for (int y = 0;;) {
    combine<kMax, K>(S(0), S(0), nullptr, nullptr, dstRow(y), n, stream);
    if (++y >= h) return;
    const int next = start + rows;
    for (int k = 1; k < rows; ++k) {
      horizontal(next + k - 1, T_(k - 1), T_(rows - 1));
      if (k == 1) {
        combine<kMax, K>(S(1), T_(0), nullptr, nullptr, dstRow(y), n, stream);
      } else {
        const K* prefix = k == 2 ? T_(0) : S(k - 2);
        combine<kMax, K>(prefix, T_(k - 1), k + 1 < rows ? S(k - 1) : nullptr, S(k), dstRow(y), n,
                         stream);
      }
      if (++y >= h) return;
    }
    horizontal(next + rows - 1, T_(rows - 1), S(0));
    std::swap(sOff, tOff);
    start = next;
    suffixes();
  }
}

template <class T, int kC>
void minMax(const T* src, int srcStep, T* dst, int dstStep, int w, int h, int mw, int mh, int ax,
            int ay, bool isMax, Kvl8u* buffer) {
  // Images that cannot stay in the cache together take cache-bypassing stores for the output.
  const bool stream = streamDestination(2LL * w * h * kC * static_cast<long long>(sizeof(T)));
  if (isMax) {
    filter<true, T, kC>(src, srcStep, dst, dstStep, w, h, mw, mh, ax, ay, buffer, stream);
  } else {
    filter<false, T, kC>(src, srcStep, dst, dstStep, w, h, mw, mh, ax, ay, buffer, stream);
  }
  if (stream) hwy::FlushStream();
}

#endif  // KVL_SIMD_TARGET
}  // namespace HWY_NAMESPACE
}  // namespace kvl::morph
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::morph {

template <class T, int kC>
const simd::Kernel<MinMaxFn<T, kC>> MinMaxKernel<T, kC>::kernel{KVL_TARGETS(minMax<T, kC>),
                                                               &ref::minMax<T, kC>};
template <class T, int kC>
const simd::Kernel<PlusFn<T, kC>> PlusKernel<T, kC>::kernel{KVL_TARGETS(plusFilter<T, kC>),
                                                           &ref::plus<T, kC>};

#define KVL_INSTANTIATE(types, layout, T, ch) \
  template struct MinMaxKernel<T, ch>;        \
  template struct PlusKernel<T, ch>;
KVL_MINMAX_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::morph
#endif  // HWY_ONCE
