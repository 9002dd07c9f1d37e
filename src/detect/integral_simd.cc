// Vector kernels of the integral images, one source for SSE4, AVX2 and AVX-512.
//
// Upright tables of 8-bit sources take the prefix sums of a vector of pixels in int32 lanes (exact:
// a vector's pixels sum to at most 16 x 255^2), add the running sum of the row so far and the row
// above; integer lanes wrap like the tables. On every target the sum tables take two source rows
// per pass with 16-bit prefix sums (sumRows of each target, described there). Float tables convert
// the exact int32 running sum (kept in lanes up to kMaxLaneSumWidth columns, the scalar rules
// beyond) and add the row above in single precision; double square tables add exact integers in
// double, then the row above. The float source's running sum must be taken left to right, so that
// kernel runs the scalar rule on four rows at once instead (four independent sums in flight).
// Tilted rows have no running sum: each element is a vertical combination of the two rows above.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "detect/integral_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include "core/pixel.h"
#include "core/simd.h"
#include "detect/integral.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::detect {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

using DI = hn::ScalableTag<int32_t>;

// Inclusive prefix sums over the lanes of v.
HWY_INLINE hn::Vec<DI> prefixSum(DI d, hn::Vec<DI> v) {
#if HWY_TARGET == HWY_AVX3
  (void)d;
  const __m512i z = _mm512_setzero_si512();
  __m512i r = v.raw;
  r = _mm512_add_epi32(r, _mm512_alignr_epi32(r, z, 15));
  r = _mm512_add_epi32(r, _mm512_alignr_epi32(r, z, 14));
  r = _mm512_add_epi32(r, _mm512_alignr_epi32(r, z, 12));
  r = _mm512_add_epi32(r, _mm512_alignr_epi32(r, z, 8));
  return hn::Vec<DI>{r};
#else
  v = hn::Add(v, hn::ShiftLeftLanes<1>(d, v));
  v = hn::Add(v, hn::ShiftLeftLanes<2>(d, v));
#if HWY_TARGET == HWY_AVX2
  // The upper block adds the lower block's total.
  const __m256i t = hn::Broadcast<3>(v).raw;
  v = hn::Add(v, hn::Vec<DI>{_mm256_permute2x128_si256(t, t, 0x08)});
#endif
  return v;
#endif
}

// Every lane set to the last lane of v.
HWY_INLINE hn::Vec<DI> lastLane(DI d, hn::Vec<DI> v) {
#if HWY_TARGET == HWY_SSE4
  (void)d;
  return hn::Broadcast<3>(v);
#else
  return hn::TableLookupLanes(
      v, hn::IndicesFromVec(d, hn::Set(d, static_cast<int32_t>(hn::Lanes(d) - 1))));
#endif
}

#if HWY_TARGET == HWY_AVX3
// A value the compiler must take as it is. The multipliers of the prefix steps below must stay
// multiplies (the compiler would expand them into shifts and adds, three more instructions on the
// busiest ports), and each source row is loaded once into a register, not folded as a memory
// operand into every instruction that reads it.
template <class V>
HWY_INLINE V opaque(V v) {
  asm("" : "+v"(v));
  return v;
}

// Rows y+1 and y+2 of an upright sum table (kTwo; else row y+1 only) from source rows s0, s1 and
// table row y (`above`). Steps of 32 pixels of both rows:
//  - each row's pixels as 16-bit words, 8 to a 128-bit lane: one 64-bit multiply by
//    0x0001000100010001 leaves in each word the sum of its quarter so far, one byte shuffle adds
//    the lower quarter's total to the upper one;
//  - each lane then adds the sum of the lanes before it: one psadbw gives the 8-pixel sums of both
//    rows, and a multiply by 0x0001000100010000 of those (packed to words) their exclusive
//    prefix;
//  - the words (at most 32 x 255, exact) are widened by a word permute; the row's running sum and
//    the value above are added in 32 bits (wrapping), or for float tables the int32 sum is
//    converted and the value above added in single precision, as the scalar rule does. Row y+2
//    takes row y+1's new values as its row above straight from the registers.
// The steps are software-pipelined three deep (loads and multiplies, 16-bit prefix, widening and
// stores of three successive steps in one iteration): each stage then finds its inputs ready,
// and the out-of-order window, which the long chain from a load to its stores would otherwise
// fill, keeps the stores streaming. The first step ends where row y+1 reaches a 64-byte boundary
// and the last one is partial; both use masked loads and stores. With kStream, row y+1
// (vector-aligned in the full steps) is written with cache-bypassing stores; row y+2 too with
// kCopy, which also stores it at `copy` (aligned like it, in the cache) for the next pass to read
// as its row above.
template <class T, bool kTwo, bool kStream, bool kCopy = false>
HWY_INLINE void sumRows(const Kvl8u* s0, const Kvl8u* s1, const T* above, T* o0, T* o1, int w,
                        T val, T* copy = nullptr) {
  constexpr bool kFloat = std::is_same_v<T, Kvl32f>;
  storeAny(o0, val);
  if constexpr (kTwo) storeAny(o1, val);
  const __m512i z = _mm512_setzero_si512();
  const __m512i quarters = opaque(_mm512_set1_epi64(0x0001000100010001LL));
  const __m128i before = opaque(_mm_set1_epi64x(0x0001000100010000LL));
  // per lane: words 4-7 <- word 3, words 0-3 <- 0
  const __m512i upper = _mm512_set4_epi32(0x07060706, 0x07060706, -1, -1);
  // lane L <- word L (row y), word 4 + L (row y+1) of the exclusive lane sums
  const __m512i laneA = _mm512_set_epi16(3, 3, 3, 3, 3, 3, 3, 3, 2, 2, 2, 2, 2, 2, 2, 2, 1, 1, 1, 1,
                                         1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0);
  const __m512i laneB = _mm512_add_epi16(laneA, _mm512_set1_epi16(4));
  // even words 2k <- word k (pixels 0-15) or 16 + k (pixels 16-31); odd words zeroed
  const __m512i low = _mm512_set_epi16(0, 15, 0, 14, 0, 13, 0, 12, 0, 11, 0, 10, 0, 9, 0, 8, 0, 7,
                                       0, 6, 0, 5, 0, 4, 0, 3, 0, 2, 0, 1, 0, 0);
  const __m512i high = _mm512_add_epi16(low, _mm512_set1_epi32(16));
  const __m512i last = _mm512_set1_epi32(15);
  constexpr __mmask32 kEven = 0x55555555u;
  __m512i ca = z, cb = z;  // running sums of rows y and y+1 before the step, in every lane

  struct Step {
    __m512i a, b, lanes;
  };
  auto load = [&](int x, __mmask32 m) KVL_INLINE_LAMBDA {
    Step st;
    const __m256i ya = opaque(_mm256_maskz_loadu_epi8(m, s0 + x));
    const __m256i yb = kTwo ? opaque(_mm256_maskz_loadu_epi8(m, s1 + x)) : _mm256_setzero_si256();
    st.a = _mm512_mullo_epi64(_mm512_cvtepu8_epi16(ya), quarters);
    st.b = kTwo ? _mm512_mullo_epi64(_mm512_cvtepu8_epi16(yb), quarters) : z;
    const __m512i both = _mm512_inserti64x4(_mm512_castsi256_si512(ya), yb, 1);
    st.lanes = _mm512_zextsi128_si512(
        _mm_mullo_epi64(_mm512_cvtepi64_epi16(_mm512_sad_epu8(both, z)), before));
    return st;
  };
  // The step's 16-bit row sums: each quarter's total so far plus the lanes' offsets.
  auto prefix = [&](Step st) KVL_INLINE_LAMBDA {
    st.a = _mm512_add_epi16(st.a, _mm512_shuffle_epi8(st.a, upper));
    st.a = _mm512_add_epi16(st.a, _mm512_permutexvar_epi16(laneA, st.lanes));
    if constexpr (kTwo) {
      st.b = _mm512_add_epi16(st.b, _mm512_shuffle_epi8(st.b, upper));
      st.b = _mm512_add_epi16(st.b, _mm512_permutexvar_epi16(laneB, st.lanes));
    }
    return st;
  };
  // Table values from running sums r and the values above (vectors of T's lanes).
  auto add = [](__m512i r, auto up) KVL_INLINE_LAMBDA {
    if constexpr (kFloat) {
      return _mm512_add_ps(_mm512_cvtepi32_ps(r), up);
    } else {
      return _mm512_add_epi32(r, up);
    }
  };
  auto loadUp = [](const T* p, __mmask16 m) KVL_INLINE_LAMBDA {
    if constexpr (kFloat) {
      return m == 0xFFFF ? _mm512_loadu_ps(p) : _mm512_maskz_loadu_ps(m, p);
    } else {
      return m == 0xFFFF ? _mm512_loadu_si512(p) : _mm512_maskz_loadu_epi32(m, p);
    }
  };
  auto put = [](T* p, __mmask16 m, auto v, bool stream) KVL_INLINE_LAMBDA {
    if constexpr (kFloat) {
      if (m != 0xFFFF) {
        _mm512_mask_storeu_ps(p, m, v);
      } else if (stream) {
        _mm512_stream_ps(p, v);
      } else {
        _mm512_storeu_ps(p, v);
      }
    } else {
      if (m != 0xFFFF) {
        _mm512_mask_storeu_epi32(p, m, v);
      } else if (stream) {
        _mm512_stream_si512(reinterpret_cast<__m512i*>(p), v);
      } else {
        _mm512_storeu_si512(p, v);
      }
    }
  };
  auto finish = [&](int x, const Step& st, __mmask32 m) KVL_INLINE_LAMBDA {
    const __mmask16 m0 = static_cast<__mmask16>(m), m1 = static_cast<__mmask16>(m >> 16);
    // pixels x .. x+15 (lo) and x+16 .. x+31 (hi) as int32 lanes
    const __m512i la = _mm512_maskz_permutexvar_epi16(kEven, low, st.a);
    const __m512i ha = _mm512_maskz_permutexvar_epi16(kEven, high, st.a);
    const auto a0 = add(_mm512_add_epi32(la, ca), loadUp(above + x + 1, m0));
    const auto a1 = add(_mm512_add_epi32(ha, ca), loadUp(above + x + 17, m1));
    put(o0 + x + 1, m0, a0, kStream);
    put(o0 + x + 17, m1, a1, kStream);
    ca = _mm512_add_epi32(ca, _mm512_permutexvar_epi32(last, ha));
    if constexpr (kTwo) {
      const __m512i lb = _mm512_maskz_permutexvar_epi16(kEven, low, st.b);
      const __m512i hb = _mm512_maskz_permutexvar_epi16(kEven, high, st.b);
      const auto b0 = add(_mm512_add_epi32(lb, cb), a0);
      const auto b1 = add(_mm512_add_epi32(hb, cb), a1);
      put(o1 + x + 1, m0, b0, kCopy);
      put(o1 + x + 17, m1, b1, kCopy);
      if constexpr (kCopy) {
        put(copy + x + 1, m0, b0, false);
        put(copy + x + 17, m1, b1, false);
      }
      cb = _mm512_add_epi32(cb, _mm512_permutexvar_epi32(last, hb));
    }
  };
  auto partial = [](int n) { return n >= 32 ? ~0u : (1u << n) - 1u; };

  int x = 0;
  const int head = alignedHead(o0 + 1, 64, w);
  if (head > 0) {
    finish(0, prefix(load(0, partial(head))), partial(head));
    x = head;
  }
  if (x + 64 <= w) {
    // three steps in flight: loaded, prefixed, finished
    Step prefixed = prefix(load(x, ~0u));
    Step loaded = load(x + 32, ~0u);
    for (; x + 96 <= w; x += 32) {
      const Step next = load(x + 64, ~0u);
      const Step ready = prefix(loaded);
      finish(x, prefixed, ~0u);
      prefixed = ready;
      loaded = next;
    }
    finish(x, prefixed, ~0u);
    finish(x + 32, prefix(loaded), ~0u);
    x += 64;
  } else if (x + 32 <= w) {
    finish(x, prefix(load(x, ~0u)), ~0u);
    x += 32;
  }
  if (x < w) finish(x, prefix(load(x, partial(w - x))), partial(w - x));
}

#endif

#if HWY_TARGET == HWY_AVX2 || HWY_TARGET == HWY_SSE4
// Columns x .. end-1 of the rows sumRows makes, one pixel at a time, carrying the running sums
// ra and rb (the heads and tails around the vector steps).
template <class T, bool kTwo, bool kCopy>
HWY_INLINE void scalarSums(const Kvl8u* s0, const Kvl8u* s1, const T* above, T* o0, T* o1, T* copy,
                           int& x, int end, uint32_t& ra, uint32_t& rb) {
  for (; x < end; ++x) {
    ra += term(s0[x]);
    const T a = withAbove(ra, loadAny(above + x + 1));
    storeAny(o0 + x + 1, a);
    if constexpr (kTwo) {
      rb += term(s1[x]);
      const T b = withAbove(rb, a);
      storeAny(o1 + x + 1, b);
      if constexpr (kCopy) storeAny(copy + x + 1, b);
    }
  }
}
#endif

#if HWY_TARGET == HWY_AVX2
// Rows y+1 and y+2 of an upright sum table (kTwo; else row y+1 only) from source rows s0, s1 and
// table row y (`above`), as the AVX-512 sumRows on 256-bit vectors. The 128-bit lanes hold the two
// rows (row y in the lower one, row y+1 in the upper; without kTwo both hold row y), so that every
// step of the prefix sums stays within a lane. Steps of up to 32 pixels of both rows, in groups of
// 8 pixels as 16-bit words:
//  - a byte shuffle puts each pixel beside its left neighbour (a zero at the start of a quarter)
//    and one multiply-add of bytes by 1 leaves in each word the sum of the two; one shift-and-add
//    within each 64-bit quarter makes it the sum of its quarter so far, one byte shuffle adds the
//    lower quarter's total to the upper one;
//  - each group adds the last word of the group before it (at most 32 x 255 per word, exact);
//  - the words are widened to int32 lanes, and the row's running sum and the value above are
//    added in 32 bits (wrapping), or for float tables the int32 sum is converted and the value
//    above added in single precision, as the scalar rule does. Row y+2 takes row y+1's new values
//    as its row above from the registers. The running sums take the step's totals, found apart
//    from them, so that the only chain from step to step is one add per row.
// A scalar head runs until row y+1 reaches a 32-byte boundary, steps of 32, 16 and 8 pixels
// follow (loads never reach past the row), and a scalar tail takes what is left. kStream and
// kCopy as on AVX-512.
template <class T, bool kTwo, bool kStream, bool kCopy = false>
HWY_INLINE void sumRows(const Kvl8u* s0, const Kvl8u* s1, const T* above, T* o0, T* o1, int w,
                        T val, T* copy = nullptr) {
  constexpr bool kFloat = std::is_same_v<T, Kvl32f>;
  storeAny(o0, val);
  if constexpr (kTwo) storeAny(o1, val);
  int x = 0;
  uint32_t ra = 0, rb = 0;
  auto scalar = [&](int end) {
    scalarSums<T, kTwo, kCopy>(s0, s1, above, o0, o1, copy, x, end, ra, rb);
  };
  scalar(alignedHead(o0 + 1, 32, w));
  if (x + 8 <= w) {
    const Kvl8u* const s1v = kTwo ? s1 : s0;
    // word i of a group at byte 8g of the lane: bytes 8g+i-1 (a zero for the first word of each
    // quarter) and 8g+i; the quarter's shift-and-add then adds words 0 and 1 to words 2 and 3
    auto pairs = [](int g) {
      const int o = 8 * g;
      return _mm256_setr_epi8(
          -128, o, o, o + 1, o + 1, o + 2, o + 2, o + 3, -128, o + 4, o + 4, o + 5, o + 5, o + 6,
          o + 6, o + 7, -128, o, o, o + 1, o + 1, o + 2, o + 2, o + 3, -128, o + 4, o + 4, o + 5,
          o + 5, o + 6, o + 6, o + 7);
    };
    const __m256i pairs0 = pairs(0), pairs1 = pairs(1);
    const __m256i ones = _mm256_set1_epi8(1);
    // per lane: words 4-7 <- word 3, words 0-3 <- 0
    const __m256i upper =
        _mm256_setr_epi32(-1, -1, 0x07060706, 0x07060706, -1, -1, 0x07060706, 0x07060706);
    // per lane: every word <- word 7
    const __m256i word7 = _mm256_set1_epi16(0x0F0E);
    const __m256i last = _mm256_set1_epi32(7);
    __m256i ca = _mm256_set1_epi32(static_cast<int32_t>(ra));
    __m256i cb = _mm256_set1_epi32(static_cast<int32_t>(rb));
    // Sums of group g (pixels 8g .. 8g+7 of the lanes' bytes) within its own quarters and pair.
    auto group = [&](__m256i bytes, const __m256i& idx) KVL_INLINE_LAMBDA {
      __m256i v = _mm256_maddubs_epi16(_mm256_shuffle_epi8(bytes, idx), ones);
      v = _mm256_add_epi16(v, _mm256_slli_epi64(v, 32));
      return _mm256_add_epi16(v, _mm256_shuffle_epi8(v, upper));
    };
    auto add = [](__m256i r, auto up) KVL_INLINE_LAMBDA {
      if constexpr (kFloat) {
        return _mm256_add_ps(_mm256_cvtepi32_ps(r), up);
      } else {
        return _mm256_add_epi32(r, up);
      }
    };
    auto loadUp = [](const T* p) KVL_INLINE_LAMBDA {
      if constexpr (kFloat) {
        return _mm256_loadu_ps(p);
      } else {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
      }
    };
    auto put = [](T* p, auto v, bool stream) KVL_INLINE_LAMBDA {
      if constexpr (kFloat) {
        if (stream) {
          _mm256_stream_ps(p, v);
        } else {
          _mm256_storeu_ps(p, v);
        }
      } else {
        if (stream) {
          _mm256_stream_si256(reinterpret_cast<__m256i*>(p), v);
        } else {
          _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v);
        }
      }
    };
    // Both rows' 16 pixels at x (8 when kHalf) in the lanes.
    auto load = [&](int x, bool half) KVL_INLINE_LAMBDA {
      if (half) {
        const __m128i a = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(s0 + x));
        const __m128i b = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(s1v + x));
        return _mm256_inserti128_si256(_mm256_castsi128_si256(a), b, 1);
      }
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s0 + x));
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s1v + x));
      return _mm256_inserti128_si256(_mm256_castsi128_si256(a), b, 1);
    };
    // Elements x+1 .. x+8 of both rows from group sums v (the groups before added).
    auto finish = [&](int x, __m256i v) KVL_INLINE_LAMBDA {
      const __m256i la = _mm256_cvtepu16_epi32(_mm256_castsi256_si128(v));
      const auto a = add(_mm256_add_epi32(la, ca), loadUp(above + x + 1));
      put(o0 + x + 1, a, kStream);
      if constexpr (kTwo) {
        const __m256i lb = _mm256_cvtepu16_epi32(_mm256_extracti128_si256(v, 1));
        const auto b = add(_mm256_add_epi32(lb, cb), a);
        put(o1 + x + 1, b, kCopy);
        if constexpr (kCopy) put(copy + x + 1, b, false);
      }
    };
    // The running sums take the step's last group sums v.
    auto carry = [&](__m256i v) KVL_INLINE_LAMBDA {
      ca = _mm256_add_epi32(
          ca, _mm256_permutevar8x32_epi32(_mm256_cvtepu16_epi32(_mm256_castsi256_si128(v)), last));
      if constexpr (kTwo) {
        cb = _mm256_add_epi32(cb, _mm256_permutevar8x32_epi32(
                                      _mm256_cvtepu16_epi32(_mm256_extracti128_si256(v, 1)), last));
      }
    };
    auto next = [&](__m256i v, __m256i before) KVL_INLINE_LAMBDA {
      return _mm256_add_epi16(v, _mm256_shuffle_epi8(before, word7));
    };
    for (; x + 32 <= w; x += 32) {
      const __m256i b0 = load(x, false), b1 = load(x + 16, false);
      const __m256i g0 = group(b0, pairs0);
      const __m256i g1 = next(group(b0, pairs1), g0);
      const __m256i g2 = next(group(b1, pairs0), g1);
      const __m256i g3 = next(group(b1, pairs1), g2);
      finish(x, g0);
      finish(x + 8, g1);
      finish(x + 16, g2);
      finish(x + 24, g3);
      carry(g3);
    }
    if (x + 16 <= w) {
      const __m256i b0 = load(x, false);
      const __m256i g0 = group(b0, pairs0);
      const __m256i g1 = next(group(b0, pairs1), g0);
      finish(x, g0);
      finish(x + 8, g1);
      carry(g1);
      x += 16;
    }
    if (x + 8 <= w) {
      const __m256i g0 = group(load(x, true), pairs0);
      finish(x, g0);
      carry(g0);
      x += 8;
    }
    ra = static_cast<uint32_t>(_mm256_cvtsi256_si32(ca));
    rb = static_cast<uint32_t>(_mm256_cvtsi256_si32(cb));
  }
  scalar(w);
}
#endif

#if HWY_TARGET == HWY_SSE4
// The AVX2 sumRows on 128-bit vectors: each row in its own vectors, steps of up to 16 pixels of
// both rows in groups of 8, each group's words widened to two int32 vectors.
template <class T, bool kTwo, bool kStream, bool kCopy = false>
HWY_INLINE void sumRows(const Kvl8u* s0, const Kvl8u* s1, const T* above, T* o0, T* o1, int w,
                        T val, T* copy = nullptr) {
  constexpr bool kFloat = std::is_same_v<T, Kvl32f>;
  storeAny(o0, val);
  if constexpr (kTwo) storeAny(o1, val);
  int x = 0;
  uint32_t ra = 0, rb = 0;
  auto scalar = [&](int end) {
    scalarSums<T, kTwo, kCopy>(s0, s1, above, o0, o1, copy, x, end, ra, rb);
  };
  scalar(alignedHead(o0 + 1, 16, w));
  if (x + 8 <= w) {
    // as on AVX2
    auto pairs = [](int g) {
      const int o = 8 * g;
      return _mm_setr_epi8(-128, o, o, o + 1, o + 1, o + 2, o + 2, o + 3, -128, o + 4, o + 4,
                           o + 5, o + 5, o + 6, o + 6, o + 7);
    };
    const __m128i pairs0 = pairs(0), pairs1 = pairs(1);
    const __m128i ones = _mm_set1_epi8(1);
    const __m128i upper = _mm_setr_epi32(-1, -1, 0x07060706, 0x07060706);
    const __m128i word7 = _mm_set1_epi16(0x0F0E);
    const __m128i z = _mm_setzero_si128();
    __m128i ca = _mm_set1_epi32(static_cast<int32_t>(ra));
    __m128i cb = _mm_set1_epi32(static_cast<int32_t>(rb));
    auto group = [&](__m128i bytes, const __m128i& idx) KVL_INLINE_LAMBDA {
      __m128i v = _mm_maddubs_epi16(_mm_shuffle_epi8(bytes, idx), ones);
      v = _mm_add_epi16(v, _mm_slli_epi64(v, 32));
      return _mm_add_epi16(v, _mm_shuffle_epi8(v, upper));
    };
    auto next = [&](__m128i v, __m128i before) KVL_INLINE_LAMBDA {
      return _mm_add_epi16(v, _mm_shuffle_epi8(before, word7));
    };
    auto add = [](__m128i r, auto up) KVL_INLINE_LAMBDA {
      if constexpr (kFloat) {
        return _mm_add_ps(_mm_cvtepi32_ps(r), up);
      } else {
        return _mm_add_epi32(r, up);
      }
    };
    auto loadUp = [](const T* p) KVL_INLINE_LAMBDA {
      if constexpr (kFloat) {
        return _mm_loadu_ps(p);
      } else {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
      }
    };
    auto put = [](T* p, auto v, bool stream) KVL_INLINE_LAMBDA {
      if constexpr (kFloat) {
        if (stream) {
          _mm_stream_ps(p, v);
        } else {
          _mm_storeu_ps(p, v);
        }
      } else {
        if (stream) {
          _mm_stream_si128(reinterpret_cast<__m128i*>(p), v);
        } else {
          _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
        }
      }
    };
    // Elements x+1 .. x+8 of both rows from the group sums va, vb.
    auto finish = [&](int x, __m128i va, __m128i vb) KVL_INLINE_LAMBDA {
      const auto a0 = add(_mm_add_epi32(_mm_cvtepu16_epi32(va), ca), loadUp(above + x + 1));
      const auto a1 = add(_mm_add_epi32(_mm_unpackhi_epi16(va, z), ca), loadUp(above + x + 5));
      put(o0 + x + 1, a0, kStream);
      put(o0 + x + 5, a1, kStream);
      if constexpr (kTwo) {
        const auto b0 = add(_mm_add_epi32(_mm_cvtepu16_epi32(vb), cb), a0);
        const auto b1 = add(_mm_add_epi32(_mm_unpackhi_epi16(vb, z), cb), a1);
        put(o1 + x + 1, b0, kCopy);
        put(o1 + x + 5, b1, kCopy);
        if constexpr (kCopy) {
          put(copy + x + 1, b0, false);
          put(copy + x + 5, b1, false);
        }
      }
    };
    auto carry = [&](__m128i va, __m128i vb) KVL_INLINE_LAMBDA {
      ca = _mm_add_epi32(ca, _mm_shuffle_epi32(_mm_unpackhi_epi16(va, z), 0xFF));
      if constexpr (kTwo) {
        cb = _mm_add_epi32(cb, _mm_shuffle_epi32(_mm_unpackhi_epi16(vb, z), 0xFF));
      }
    };
    for (; x + 16 <= w; x += 16) {
      const __m128i ba = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s0 + x));
      const __m128i a0 = group(ba, pairs0), a1 = next(group(ba, pairs1), a0);
      __m128i b0 = a0, b1 = a1;
      if constexpr (kTwo) {
        const __m128i bb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s1 + x));
        b0 = group(bb, pairs0);
        b1 = next(group(bb, pairs1), b0);
      }
      finish(x, a0, b0);
      finish(x + 8, a1, b1);
      carry(a1, b1);
    }
    if (x + 8 <= w) {
      const __m128i a0 = group(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(s0 + x)), pairs0);
      const __m128i b0 =
          kTwo ? group(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(s1 + x)), pairs0) : a0;
      finish(x, a0, b0);
      carry(a0, b0);
      x += 8;
    }
    ra = static_cast<uint32_t>(_mm_cvtsi128_si32(ca));
    rb = static_cast<uint32_t>(_mm_cvtsi128_si32(cb));
  }
  scalar(w);
}
#endif

#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX2 || HWY_TARGET == HWY_SSE4
// The whole upright sum table (row 0 already written), two rows per pass. kStream: both rows of a
// pass are streamed when they can be vector-aligned together (their pointers element-aligned and
// a multiple of 64 bytes apart) and the row fits the copy kept for the next pass; otherwise only
// the first, and the second is the next pass's row above in the table.
template <class T, bool kStream>
void sumTable(const Kvl8u* src, int srcStep, T* t, int step, int w, int h, T val) {
  constexpr int kCopyMax = 8192;  // elements: 32 KB on the stack
  alignas(64) T copyBuf[kStream ? kCopyMax + 16 : 1];
  const T* prev = t;  // the row above the next pass
  int y = 0;
  for (; y + 2 <= h; y += 2) {
    const Kvl8u* s0 = rowPtr(src, srcStep, y);
    const Kvl8u* s1 = rowPtr(src, srcStep, y + 1);
    T* o0 = rowPtr(t, step, y + 1);
    T* o1 = rowPtr(t, step, y + 2);
    const bool aligned = reinterpret_cast<uintptr_t>(o0) % sizeof(T) == 0;
    if (kStream && aligned && w < kCopyMax &&
        (reinterpret_cast<uintptr_t>(o1) - reinterpret_cast<uintptr_t>(o0)) % 64 == 0) {
      // both rows streamed; row y+2 also kept in copyBuf, aligned like it, for the next pass
      T* copy = copyBuf + (reinterpret_cast<uintptr_t>(o1) % 64) / sizeof(T);
      sumRows<T, true, true, true>(s0, s1, prev, o0, o1, w, val, copy);
      prev = copy;
    } else if (kStream && aligned) {
      sumRows<T, true, kStream>(s0, s1, prev, o0, o1, w, val);
      prev = o1;
    } else {
      sumRows<T, true, false>(s0, s1, prev, o0, o1, w, val);
      prev = o1;
    }
  }
  if (y < h) {
    sumRows<T, false, false>(rowPtr(src, srcStep, y), nullptr, prev, rowPtr(t, step, y + 1),
                                 nullptr, w, val);
  }
  if (kStream) _mm_sfence();
}
#endif

// The pixels at p as int32 lanes, squared for the square tables.
template <bool kSquare>
HWY_INLINE hn::Vec<DI> terms(DI d, const Kvl8u* p) {
  const auto v = hn::PromoteTo(d, hn::LoadU(hn::Rebind<uint8_t, DI>(), p));
  return kSquare ? hn::Mul(v, v) : v;
}

// Row y+1 of an upright table T from the 8-bit source row s and the row above. kSquare: the
// square table. The running sum of the row so far sits in every lane of `carry`.
template <class T, bool kSquare>
void uprightRow(const Kvl8u* s, const T* above, T* out, int w, T val) {
  const DI di;
  const int n = static_cast<int>(hn::Lanes(di));
  storeAny(out, val);
  int x = 0;
  Running<Kvl8u, T> r = 0;
  auto scalar = [&](int end) {
    for (; x < end; ++x) {
      r += kSquare ? square(s[x]) : term(s[x]);
      storeAny(out + x + 1, withAbove(r, loadAny(above + x + 1)));
    }
  };
  // float tables hold the row's sum in int32 lanes only while it fits
  if (!std::is_same_v<T, Kvl32f> || w <= kMaxLaneSumWidth) {
    // A scalar head first, so the vector stores (n x 4 bytes) do not split cache lines.
    scalar(alignedHead(out + 1, n * 4, w));
    if constexpr (std::is_same_v<T, Kvl64f>) {
      // Exact integers in double: lanes of the vector's prefix plus the row's sum so far.
      const hn::Half<DI> dh;
      const hn::Rebind<double, decltype(dh)> dd;
      const int nd = static_cast<int>(hn::Lanes(dd));
      auto carry = hn::Set(dd, r);
      for (; x + n <= w; x += n) {
        const auto p = prefixSum(di, terms<kSquare>(di, s + x));
        const auto lo = hn::Add(hn::PromoteTo(dd, hn::LowerHalf(dh, p)), carry);
        const auto hi = hn::Add(hn::PromoteTo(dd, hn::UpperHalf(dh, p)), carry);
        hn::StoreU(hn::Add(lo, hn::LoadU(dd, above + x + 1)), dd, out + x + 1);
        hn::StoreU(hn::Add(hi, hn::LoadU(dd, above + x + 1 + nd)), dd, out + x + 1 + nd);
        carry = hn::Add(carry, hn::PromoteTo(dd, hn::UpperHalf(dh, lastLane(di, p))));
      }
      r = hn::GetLane(carry);
    } else {
      auto carry = hn::Set(di, static_cast<int32_t>(r));
      // Elements x+1 .. x+n from the row's running sums at x .. x+n-1.
      auto put = [&](int x, hn::Vec<DI> sum) KVL_INLINE_LAMBDA {
        if constexpr (std::is_same_v<T, Kvl32s>) {
          hn::StoreU(hn::Add(sum, hn::LoadU(di, above + x + 1)), di, out + x + 1);
        } else {
          const hn::Rebind<float, DI> df;
          hn::StoreU(hn::Add(hn::ConvertTo(df, sum), hn::LoadU(df, above + x + 1)), df,
                     out + x + 1);
        }
      };
      for (; x + n <= w; x += n) {
        const auto p = prefixSum(di, terms<kSquare>(di, s + x));
        put(x, hn::Add(p, carry));
        carry = hn::Add(carry, lastLane(di, p));
      }
      r = static_cast<uint32_t>(hn::GetLane(carry));
    }
  }
  scalar(w);
}

// Row y+2 of a tilted table T from source row s, row y+1 (up) and row y (up2).
template <class T, bool kSquare>
void tiltedRow(const Kvl8u* s, const T* up, const T* up2, T* out, int w) {
  auto termOf = [](Kvl8u v) { return kSquare ? square(v) : term(v); };
  auto at = [](const T* row, int x) { return loadAny(row + x); };
  // One element from the source pixels `pix` and the two rows above.
  auto element = [&](int x, uint32_t pix) {
    storeAny(out + x, tilted(pix, at(up, x - 1), at(up, x + 1), at(up2, x)));
  };
  storeAny(out, at(up, 1));
  int x = 1;
  // A scalar head first, so the vector stores do not split cache lines.
  for (const int head = 1 + alignedHead(out + 1, static_cast<int>(hn::Lanes(DI())) * 4, w - 1);
       x < head; ++x)
    element(x, termOf(s[x - 1]) + termOf(s[x]));
  if constexpr (std::is_same_v<T, Kvl64f>) {
    const hn::ScalableTag<double> dd;
    const hn::Rebind<int32_t, decltype(dd)> di;
    const hn::Rebind<uint8_t, decltype(dd)> d8;
    const int n = static_cast<int>(hn::Lanes(dd));
    for (; x + n <= w; x += n) {
      const auto a = hn::PromoteTo(di, hn::LoadU(d8, s + x - 1));
      const auto b = hn::PromoteTo(di, hn::LoadU(d8, s + x));
      const auto pix = kSquare ? hn::Add(hn::Mul(a, a), hn::Mul(b, b)) : hn::Add(a, b);
      auto v = hn::Add(hn::PromoteTo(dd, pix), hn::LoadU(dd, up + x - 1));
      v = hn::Sub(hn::Add(v, hn::LoadU(dd, up + x + 1)), hn::LoadU(dd, up2 + x));
      hn::StoreU(v, dd, out + x);
    }
  } else {
    const DI di;
    const int n = static_cast<int>(hn::Lanes(di));
    for (; x + n <= w; x += n) {
      const auto pix = hn::Add(terms<kSquare>(di, s + x - 1), terms<kSquare>(di, s + x));
      if constexpr (std::is_same_v<T, Kvl32s>) {
        const auto v = hn::Add(hn::Add(pix, hn::LoadU(di, up + x - 1)), hn::LoadU(di, up + x + 1));
        hn::StoreU(hn::Sub(v, hn::LoadU(di, up2 + x)), di, out + x);
      } else {
        const hn::Rebind<float, DI> df;
        auto v = hn::Add(hn::ConvertTo(df, pix), hn::LoadU(df, up + x - 1));
        v = hn::Sub(hn::Add(v, hn::LoadU(df, up + x + 1)), hn::LoadU(df, up2 + x));
        hn::StoreU(v, df, out + x);
      }
    }
  }
  for (; x <= w - 1; ++x) element(x, termOf(s[x - 1]) + termOf(s[x]));
  element(w, termOf(s[w - 1]));
  storeAny(out + w + 1, at(up, w));
}

// Upright tables of fewer than kNarrow columns: the scalar rule on four rows at once, each row
// taking the new values of the row before it from registers (through memory, the store and the
// reload of each value above would be the chain that sets the pace).
constexpr int kNarrow = 12;
template <class T, bool kSquare>
void narrowTable(const Kvl8u* src, int srcStep, T* t, int step, int w, int h, T val) {
  constexpr int kRows = 4;
  auto termOf = [](Kvl8u v) { return kSquare ? square(v) : term(v); };
  int y = 0;
  for (; y + kRows <= h; y += kRows) {
    const Kvl8u* s[kRows];
    T* o[kRows];
    Running<Kvl8u, T> r[kRows];
    for (int k = 0; k < kRows; ++k) {
      s[k] = rowPtr(src, srcStep, y + k);
      o[k] = rowPtr(t, step, y + k + 1);
      storeAny(o[k], val);
      r[k] = 0;
    }
    const T* above = rowPtr(t, step, y);
    for (int x = 0; x < w; ++x) {
      T v = loadAny(above + x + 1);
      for (int k = 0; k < kRows; ++k) {
        r[k] += termOf(s[k][x]);
        v = withAbove(r[k], v);
        storeAny(o[k] + x + 1, v);
      }
    }
  }
  for (; y < h; ++y) {
    const Kvl8u* s = rowPtr(src, srcStep, y);
    const T* above = rowPtr(t, step, y);
    T* out = rowPtr(t, step, y + 1);
    storeAny(out, val);
    Running<Kvl8u, T> r = 0;
    for (int x = 0; x < w; ++x) {
      r += termOf(s[x]);
      storeAny(out + x + 1, withAbove(r, loadAny(above + x + 1)));
    }
  }
}

template <class T, Shape kShape, bool kSquare, bool kStream>
void table8u(const Kvl8u* src, int srcStep, T* t, int step, int w, int h, T val) {
  constexpr int kPad = kShape == Shape::kUpright ? 1 : 2;
  const hn::ScalableTag<T> dt;
  const int nt = static_cast<int>(hn::Lanes(dt));
  for (int y = 0; y < kPad; ++y) {
    T* row = rowPtr(t, step, y);
    int x = 0;
    for (; x + nt <= w + kPad; x += nt) hn::StoreU(hn::Set(dt, val), dt, row + x);
    for (; x < w + kPad; ++x) storeAny(row + x, val);
  }
  if constexpr (kShape == Shape::kUpright) {
    if (w < kNarrow) {
      narrowTable<T, kSquare>(src, srcStep, t, step, w, h, val);
      return;
    }
  }
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX2 || HWY_TARGET == HWY_SSE4
  if constexpr (kShape == Shape::kUpright && !kSquare && sizeof(T) == 4) {
    // float tables hold the row's sum in int32 lanes only while it fits
    if (std::is_same_v<T, Kvl32s> || w <= kMaxLaneSumWidth) {
      sumTable<T, kStream>(src, srcStep, t, step, w, h, val);
      return;
    }
  }
#endif
  for (int y = 0; y < h; ++y) {
    const Kvl8u* s = rowPtr(src, srcStep, y);
    if constexpr (kShape == Shape::kUpright) {
      uprightRow<T, kSquare>(s, rowPtr(t, step, y), rowPtr(t, step, y + 1), w, val);
    } else {
      tiltedRow<T, kSquare>(s, rowPtr(t, step, y + 1), rowPtr(t, step, y), rowPtr(t, step, y + 2),
                            w);
    }
  }
}

// The float source: the scalar rule, four rows at a time so that four running sums are in flight;
// each row still adds its pixels left to right and then the row above, as the rule says.
void table32f(const Kvl32f* src, int srcStep, Kvl32f* t, int step, int w, int h, Kvl32f val) {
  for (int x = 0; x <= w; ++x) storeAny(t + x, val);
  constexpr int kRows = 4;
  int y = 0;
  for (; y + kRows <= h; y += kRows) {
    const Kvl32f* s[kRows];
    Kvl32f* o[kRows + 1];
    float r[kRows];
    o[0] = rowPtr(t, step, y);
    for (int k = 0; k < kRows; ++k) {
      s[k] = rowPtr(src, srcStep, y + k);
      o[k + 1] = rowPtr(t, step, y + k + 1);
      storeAny(o[k + 1], val);
      r[k] = 0.0f;
    }
    for (int x = 0; x < w; ++x) {
      for (int k = 0; k < kRows; ++k) {
        r[k] += loadAny(s[k] + x);
        storeAny(o[k + 1] + x + 1, r[k] + loadAny(o[k] + x + 1));
      }
    }
  }
  for (; y < h; ++y) {
    const Kvl32f* s = rowPtr(src, srcStep, y);
    const Kvl32f* above = rowPtr(t, step, y);
    Kvl32f* out = rowPtr(t, step, y + 1);
    storeAny(out, val);
    float r = 0.0f;
    for (int x = 0; x < w; ++x) {
      r += loadAny(s + x);
      storeAny(out + x + 1, r + loadAny(above + x + 1));
    }
  }
}

template <class Src, class Sum, class Sqr, Shape kShape, bool kStream>
void integral(const Src* src, int srcStep, Sum* sum, int sumStep, SqrElem<Sqr>* sqr, int sqrStep,
              int w, int h, Sum val, SqrElem<Sqr> valSqr) {
  if constexpr (std::is_same_v<Src, Kvl32f>) {
    table32f(src, srcStep, sum, sumStep, w, h, val);
  } else {
    table8u<Sum, kShape, false, kStream>(src, srcStep, sum, sumStep, w, h, val);
    if constexpr (!std::is_void_v<Sqr>) {
      table8u<Sqr, kShape, true, false>(src, srcStep, sqr, sqrStep, w, h, valSqr);
    }
  }
}

#endif  // KVL_SIMD_TARGET
}  // namespace HWY_NAMESPACE
}  // namespace kvl::detect
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::detect {

template <class Src, class Sum, class Sqr, Shape kShape>
const simd::Kernel<IntegralFn<Src, Sum, Sqr>> IntegralKernel<Src, Sum, Sqr, kShape>::kernel{
    KVL_TARGETS(integral<Src, Sum, Sqr, kShape, false>), &ref::integral<Src, Sum, Sqr, kShape>};

template <class Src, class Sum, class Sqr, Shape kShape>
const simd::Kernel<IntegralFn<Src, Sum, Sqr>> IntegralKernel<Src, Sum, Sqr, kShape>::streamed{
    KVL_TARGETS(integral<Src, Sum, Sqr, kShape, kStreams<Src, Sqr, kShape>>),
    &ref::integral<Src, Sum, Sqr, kShape>};

#define KVL_INSTANTIATE(Name, types, Src, Sum, Sqr, shape, form) \
  template struct IntegralKernel<Src, Sum, Sqr, Shape::k##shape>;
KVL_INTEGRAL_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::detect
#endif  // HWY_ONCE
