// Vector word kernels of the bit-image morphology, one source for SSE4, AVX2 and AVX-512.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "morph/morph_1u_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include <algorithm>
#include <cstring>

#include "core/simd.h"
#include "morph/morph_1u.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::morph {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

using DW = hn::ScalableTag<uint64_t>;
using VW = hn::Vec<DW>;

// Words t .. t + N - 1 of a row shifted right by s pixels, with the carries across words.
HWY_INLINE VW shifted(DW d, const uint64_t* row, size_t t, int s) {
  const int q = s >> 6, r = s & 63;
  const VW lo = hn::LoadU(d, row + t + q);
  if (r == 0) return lo;
  const VW hi = hn::LoadU(d, row + t + q + 1);
  return hn::Or(hn::ShiftRightSame(lo, r), hn::ShiftLeftSame(hi, 64 - r));
}

template <bool kErode>
HWY_INLINE VW op(VW a, VW b) {
  return kErode ? hn::And(a, b) : hn::Or(a, b);
}

template <bool kErode>
void combine2T(uint64_t* out, const uint64_t* row, int a, int b, int n) {
  const DW d;
  const size_t N = hn::Lanes(d);
  if (a == b) {
    for (size_t t = 0; t < static_cast<size_t>(n); t += N) hn::StoreU(shifted(d, row, t, a), d, out + t);
    return;
  }
  for (size_t t = 0; t < static_cast<size_t>(n); t += N)
    hn::StoreU(op<kErode>(shifted(d, row, t, a), shifted(d, row, t, b)), d, out + t);
}

void combine2(uint64_t* out, const uint64_t* row, int a, int b, int n, bool erode) {
  erode ? combine2T<true>(out, row, a, b, n) : combine2T<false>(out, row, a, b, n);
}

// Two vectors per pass over the terms: each term's pointer and shift are read once for both.
template <bool kErode>
void reduceT(uint64_t* out, const uint64_t* const* rows, const int* shifts, int count, int n) {
  const DW d;
  const size_t N = hn::Lanes(d);
  size_t t = 0;
  for (; t + N < static_cast<size_t>(n); t += 2 * N) {
    VW v0 = shifted(d, rows[0], t, shifts[0]);
    VW v1 = shifted(d, rows[0], t + N, shifts[0]);
    for (int i = 1; i < count; ++i) {
      v0 = op<kErode>(v0, shifted(d, rows[i], t, shifts[i]));
      v1 = op<kErode>(v1, shifted(d, rows[i], t + N, shifts[i]));
    }
    hn::StoreU(v0, d, out + t);
    hn::StoreU(v1, d, out + t + N);
  }
  for (; t < static_cast<size_t>(n); t += N) {
    VW v = shifted(d, rows[0], t, shifts[0]);
    for (int i = 1; i < count; ++i) v = op<kErode>(v, shifted(d, rows[i], t, shifts[i]));
    hn::StoreU(v, d, out + t);
  }
}

// Rows taken as they are (every shift 0): plain loads, two vectors per pass (up to 16 words,
// kPadWords, past n).
template <bool kErode>
void reduceAlignedT(uint64_t* out, const uint64_t* const* rows, int count, int n) {
  const DW d;
  const size_t N = hn::Lanes(d);
  for (size_t t = 0; t < static_cast<size_t>(n); t += 2 * N) {
    VW v0 = hn::LoadU(d, rows[0] + t), v1 = hn::LoadU(d, rows[0] + t + N);
    for (int i = 1; i < count; ++i) {
      v0 = op<kErode>(v0, hn::LoadU(d, rows[i] + t));
      v1 = op<kErode>(v1, hn::LoadU(d, rows[i] + t + N));
    }
    hn::StoreU(v0, d, out + t);
    hn::StoreU(v1, d, out + t + N);
  }
}

// One row shifted by s, s + 1, ..., s + count - 1 pixels, all inside one word pair: each vector
// loads its two words once.
template <bool kErode>
void runT(uint64_t* out, const uint64_t* row, int s, int count, int n) {
  const DW d;
  const size_t N = hn::Lanes(d);
  const int q = s >> 6, r = s & 63;
  for (size_t t = 0; t < static_cast<size_t>(n); t += N) {
    const VW lo = hn::LoadU(d, row + t + q), hi = hn::LoadU(d, row + t + q + 1);
    VW v = r == 0 ? lo : hn::Or(hn::ShiftRightSame(lo, r), hn::ShiftLeftSame(hi, 64 - r));
    for (int i = 1; i < count; ++i)
      v = op<kErode>(v, hn::Or(hn::ShiftRightSame(lo, r + i), hn::ShiftLeftSame(hi, 64 - r - i)));
    hn::StoreU(v, d, out + t);
  }
}

void reduce(uint64_t* out, const uint64_t* const* rows, const int* shifts, int count, int n,
            bool erode) {
  bool run = (shifts[0] & 63) + count - 1 < 64;
  for (int i = 1; i < count && run; ++i) run = rows[i] == rows[0] && shifts[i] == shifts[0] + i;
  if (run) {
    erode ? runT<true>(out, rows[0], shifts[0], count, n) : runT<false>(out, rows[0], shifts[0], count, n);
    return;
  }
  bool aligned = true;
  for (int i = 0; i < count; ++i) aligned = aligned && shifts[i] == 0;
  if (aligned) {
    erode ? reduceAlignedT<true>(out, rows, count, n) : reduceAlignedT<false>(out, rows, count, n);
    return;
  }
  erode ? reduceT<true>(out, rows, shifts, count, n) : reduceT<false>(out, rows, shifts, count, n);
}

// The window of each word is its 128 bits from pixel s on (b:a). Each doubling step combines it
// with itself shifted by the run so far; the zeros a shift brings in at the top only reach bits
// whose run would end past the window, and the low word's runs end inside it.
template <bool kErode>
void runInWordsT(uint64_t* out, const uint64_t* row, int s, int len, int n) {
  const DW d;
  const size_t N = hn::Lanes(d);
  const int q = s >> 6, r = s & 63;
  int steps[8], count = 0;
  for (int span = 1; span < len; span += steps[count++]) steps[count] = std::min(span, len - span);
  for (size_t t = 0; t < static_cast<size_t>(n); t += N) {
    VW a = hn::LoadU(d, row + t + q), b = hn::LoadU(d, row + t + q + 1);
    if (r) {
      const VW c = hn::LoadU(d, row + t + q + 2);
      a = hn::Or(hn::ShiftRightSame(a, r), hn::ShiftLeftSame(b, 64 - r));
      b = hn::Or(hn::ShiftRightSame(b, r), hn::ShiftLeftSame(c, 64 - r));
    }
    for (int i = 0; i < count; ++i) {
      const int k = steps[i];
      a = op<kErode>(a, hn::Or(hn::ShiftRightSame(a, k), hn::ShiftLeftSame(b, 64 - k)));
      b = op<kErode>(b, hn::ShiftRightSame(b, k));
    }
    hn::StoreU(a, d, out + t);
  }
}

void runInWords(uint64_t* out, const uint64_t* row, int s, int len, int n, bool erode) {
  erode ? runInWordsT<true>(out, row, s, len, n) : runInWordsT<false>(out, row, s, len, n);
}

// [a[N - 1], b[0], ..., b[N - 2]] and [a[1], ..., a[N - 1], b[0]]: the words beside each lane.
HWY_INLINE VW slideUp1(VW a, VW b) {
#if HWY_TARGET == HWY_AVX3
  return VW{_mm512_alignr_epi64(b.raw, a.raw, 7)};
#elif HWY_TARGET == HWY_AVX2
  return VW{_mm256_alignr_epi8(b.raw, _mm256_permute2x128_si256(a.raw, b.raw, 0x21), 8)};
#else
  return VW{_mm_alignr_epi8(b.raw, a.raw, 8)};
#endif
}
HWY_INLINE VW slideDown1(VW a, VW b) {
#if HWY_TARGET == HWY_AVX3
  return VW{_mm512_alignr_epi64(b.raw, a.raw, 1)};
#elif HWY_TARGET == HWY_AVX2
  return VW{_mm256_alignr_epi8(_mm256_permute2x128_si256(a.raw, b.raw, 0x21), a.raw, 8)};
#else
  return VW{_mm_alignr_epi8(b.raw, a.raw, 8)};
#endif
}

// The middle terms stay in registers: each vector takes its outer neighbours' bits from the
// vectors before and after it. A row that is not a whole number of vectors ends with a vector
// overlapping the one before it, its left neighbour word computed on its own.
template <bool kErode, bool kCross>
void row3x3T(Kvl8u* out, const Kvl8u* up, const Kvl8u* mid, const Kvl8u* down, size_t n,
             uint64_t left, uint64_t right) {
  const DW d;
  const hn::Repartition<uint8_t, DW> d8;
  const size_t N = hn::Lanes(d);
  auto load = [&](const Kvl8u* row, size_t k) KVL_INLINE_LAMBDA {
    return hn::BitCast(d, hn::LoadU(d8, row + 8 * k));
  };
  auto middle = [&](size_t k) KVL_INLINE_LAMBDA {
    return kCross ? load(mid, k) : op<kErode>(op<kErode>(load(up, k), load(mid, k)), load(down, k));
  };
  auto put = [&](size_t k, VW prev, VW cur, VW next) KVL_INLINE_LAMBDA {
    const VW l = hn::Or(hn::ShiftLeft<1>(cur), hn::ShiftRight<63>(slideUp1(prev, cur)));
    const VW r = hn::Or(hn::ShiftRight<1>(cur), hn::ShiftLeft<63>(slideDown1(cur, next)));
    VW v = op<kErode>(op<kErode>(cur, l), r);
    if (kCross) v = op<kErode>(v, op<kErode>(load(up, k), load(down, k)));
    hn::StoreU(hn::BitCast(d8, v), d8, out + 8 * k);
  };
  auto middleWord = [&](size_t k) KVL_INLINE_LAMBDA {
    uint64_t a, b, c;
    std::memcpy(&a, up + 8 * k, 8);
    std::memcpy(&b, mid + 8 * k, 8);
    std::memcpy(&c, down + 8 * k, 8);
    return kCross ? b : (kErode ? (a & b & c) : (a | b | c));
  };
  if (n < N) {
    ref::row3x3(out, up, mid, down, static_cast<int>(n), left, right, kErode, kCross);
    return;
  }
  size_t k = 0;
  VW prev = hn::Set(d, left), cur = middle(0);
  for (; k + 2 * N <= n; k += N) {
    const VW next = middle(k + N);
    put(k, prev, cur, next);
    prev = cur;
    cur = next;
  }
  if (k + N == n) {
    put(k, prev, cur, hn::Set(d, right));
    return;
  }
  put(k, prev, cur, hn::Set(d, middleWord(k + N)));
  put(n - N, hn::Set(d, middleWord(n - N - 1)), middle(n - N), hn::Set(d, right));
}

void row3x3(Kvl8u* out, const Kvl8u* up, const Kvl8u* mid, const Kvl8u* down, int n,
            uint64_t left, uint64_t right, bool erode, bool cross) {
  const size_t m = static_cast<size_t>(n);
  if (cross)
    erode ? row3x3T<true, true>(out, up, mid, down, m, left, right)
          : row3x3T<false, true>(out, up, mid, down, m, left, right);
  else
    erode ? row3x3T<true, false>(out, up, mid, down, m, left, right)
          : row3x3T<false, false>(out, up, mid, down, m, left, right);
}

// The last vector of a row overlaps the one before it instead of leaving a scalar tail: its
// words (or bytes) are computed again from the same input, so they come out the same.
void loadBits(uint64_t* out, const Kvl8u* p, int s, int n) {
  const DW d;
  const hn::Repartition<uint8_t, DW> d8;
  const size_t N = hn::Lanes(d);
  auto at = [&](size_t k) KVL_INLINE_LAMBDA {
    const VW lo = hn::BitCast(d, hn::LoadU(d8, p + 8 * k));
    if (s == 0) {
      hn::StoreU(lo, d, out + k);
      return;
    }
    const VW hi = hn::BitCast(d, hn::LoadU(d8, p + 8 * k + 8));
    hn::StoreU(hn::Or(hn::ShiftRightSame(lo, s), hn::ShiftLeftSame(hi, 64 - s)), d, out + k);
  };
  // A shifted vector at k reads through byte 8(k + N) + 7: the last word then goes alone.
  const size_t vecEnd = static_cast<size_t>(n) - (s ? 1 : 0);
  size_t k = 0;
  if (static_cast<size_t>(n) >= N + (s ? 1 : 0)) {
    for (; k + N <= vecEnd; k += N) at(k);
    if (k < vecEnd) at(vecEnd - N);
    k = vecEnd;
  }
  ref::loadBits(out + k, p + 8 * k, s, n - static_cast<int>(k));
}

void storeBits(Kvl8u* p, const uint64_t* bits, int sh, int c0, int c1) {
  const DW d;
  const hn::Repartition<uint8_t, DW> d8;
  const size_t N = hn::Lanes(d);
  auto at = [&](size_t c) KVL_INLINE_LAMBDA {
    VW v = hn::LoadU(d, bits + c);
    if (sh) v = hn::Or(hn::ShiftLeftSame(v, sh), hn::ShiftRightSame(hn::LoadU(d, bits + c - 1), 64 - sh));
    hn::StoreU(hn::BitCast(d8, v), d8, p + 8 * c);
  };
  size_t c = static_cast<size_t>(c0);
  const size_t end = static_cast<size_t>(c1);
  if (end > c && end - c >= N) {
    for (; c + N <= end; c += N) at(c);
    if (c < end) at(end - N);
    c = end;
  }
  ref::storeBits(p, bits, sh, static_cast<int>(c), c1);
}

#endif  // KVL_SIMD_TARGET
}  // namespace HWY_NAMESPACE
}  // namespace kvl::morph
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::morph {

const simd::Kernel<RunFn> kRunInWords{KVL_TARGETS(runInWords), &ref::runInWords};
const simd::Kernel<Row3x3Fn> kRow3x3{KVL_TARGETS(row3x3), &ref::row3x3};
const simd::Kernel<Combine2Fn> kCombine2{KVL_TARGETS(combine2), &ref::combine2};
const simd::Kernel<ReduceFn> kReduce{KVL_TARGETS(reduce), &ref::reduce};
const simd::Kernel<LoadBitsFn> kLoadBits{KVL_TARGETS(loadBits), &ref::loadBits};
const simd::Kernel<StoreBitsFn> kStoreBits{KVL_TARGETS(storeBits), &ref::storeBits};

}  // namespace kvl::morph
#endif  // HWY_ONCE
