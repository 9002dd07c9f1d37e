// Vector kernels of the row and column passes, one source compiled for SSE4, AVX2 and AVX-512.
//
// Integer kernels pair taps: two 16-bit inputs are interleaved and multiplied by a (c0, c1)
// coefficient pair with a widening pairwise multiply-add into 32-bit sums, which wrap exactly as
// the scalar sums do. Interleaving works within 128-bit blocks and the final saturating pack
// works the same way, so the pair of sum vectors comes back in element order without shuffles.
// Kernel lengths 3 and 5 are compiled as dedicated paths (taps unrolled, coefficients hoisted);
// the general path serves every other length up to kMaxTaps and the reference beyond.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "filter/pipeline_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include <type_traits>

#include "core/pixel.h"
#include "core/simd.h"
#include "filter/pipeline.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::filter {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

#if KVL_SIMD_TARGET

// Longer kernels run the scalar reference (their coefficients would not stay in registers).
constexpr int kMaxTaps = 64;

// Calls f(taps, unit) with taps = std::integral_constant<int, K> for the dedicated 3- and 5-tap
// paths (0, any length, otherwise) and unit = std::bool_constant<recip == 1>.
template <class F>
HWY_INLINE void byTaps(int K, float recip, F&& f) {
  auto withUnit = [&](auto taps) {
    if (recip == 1.0f) return f(taps, std::true_type{});
    return f(taps, std::false_type{});
  };
  switch (K) {
    case 3: return withUnit(std::integral_constant<int, 3>{});
    case 5: return withUnit(std::integral_constant<int, 5>{});
    default: return withUnit(std::integral_constant<int, 0>{});
  }
}

// A coefficient pair as the bits of one 32-bit lane: c0 in the low (even) 16-bit lane.
inline int32_t pairBits(int c0, int c1) {
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint16_t>(c0)) |
                              (static_cast<uint32_t>(static_cast<uint16_t>(c1)) << 16));
}

template <class D16>
HWY_INLINE hn::Vec<D16> load16(D16 d, const uint8_t* p) {
  return hn::PromoteTo(d, hn::LoadU(hn::Rebind<uint8_t, D16>(), p));
}
template <class D16>
HWY_INLINE hn::Vec<D16> load16(D16 d, const int16_t* p) {
  return hn::LoadU(d, p);
}
template <class DF>
HWY_INLINE hn::Vec<DF> loadF(DF d, const float* p) {
  return hn::LoadU(d, p);
}
template <class DF>
HWY_INLINE hn::Vec<DF> loadF(DF d, const uint16_t* p) {
  const hn::RebindToSigned<DF> di;
  return hn::ConvertTo(d, hn::PromoteTo(di, hn::LoadU(hn::Rebind<uint16_t, DF>(), p)));
}

// Sum of pair products for the lanes of one 16-bit vector: `at(d, k)` loads tap k. The two
// 32-bit results hold the lanes in block-interleaved order, undone by ReorderDemote2To.
template <int kK, class D16, class At>
HWY_INLINE void pairSums(D16 d16, At at, const int32_t* pairs, int K,
                         hn::Vec<hn::Repartition<int32_t, D16>>& lo,
                         hn::Vec<hn::Repartition<int32_t, D16>>& hi) {
  const hn::Repartition<int32_t, D16> d32;
  if constexpr (kK != 0) K = kK;
  auto slo = hn::Zero(d32), shi = hn::Zero(d32), unused = hn::Zero(d32);
  for (int k = 0; k < K; k += 2) {
    const auto a = at(d16, k);
    const auto b = k + 1 < K ? at(d16, k + 1) : a;  // odd tap: its partner's coefficient is 0
    const auto c = hn::BitCast(d16, hn::Set(d32, pairs[k / 2]));
    slo = hn::ReorderWidenMulAccumulate(d32, hn::InterleaveLower(d16, a, b), c, slo, unused);
    shi = hn::ReorderWidenMulAccumulate(d32, hn::InterleaveUpper(d16, a, b), c, shi, unused);
  }
  lo = slo;
  hi = shi;
}

// sum x recip in float, clamped to [mn, mx], then truncated (kRound false) or rounded to
// nearest even (kRound true).
template <bool kRound, class D32>
HWY_INLINE hn::Vec<D32> scaleInt(D32 d32, hn::Vec<D32> s, float recip, float mn, float mx) {
  const hn::RebindToFloat<D32> df;
  const auto f = hn::Min(
      hn::Max(hn::Mul(hn::ConvertTo(df, s), hn::Set(df, recip)), hn::Set(df, mn)), hn::Set(df, mx));
  if constexpr (kRound) {
    return hn::NearestInt(f);
  } else {
    return hn::ConvertTo(d32, f);
  }
}

template <class Ker>
HWY_INLINE int fillPairs(const Ker* kernel, int K, int32_t* pairs) {
  for (int k = 0; k < K; k += 2)
    pairs[k / 2] = pairBits(loadAny(kernel + k), k + 1 < K ? loadAny(kernel + k + 1) : 0);
  return K;
}

// ---- Row pass, integer members (8u16s, 16s) ----
// kUnit: recip is exactly 1, so float(S) x 1 clamped and truncated equals the saturated S and
// the float round trip is skipped.
template <int kK, bool kUnit, class Src>
void rowIntImpl(const Src* e, int16_t* out, int n, int stride, const int16_t* kernel, int K,
                float recip) {
  if constexpr (kK != 0) K = kK;
  int32_t pairs[kMaxTaps / 2];
  fillPairs(kernel, K, pairs);
  auto block = [&](auto d16, int i) {
    const hn::Repartition<int32_t, decltype(d16)> d32;
    hn::Vec<decltype(d32)> lo, hi;
    pairSums<kK>(
        d16, [&](auto d, int k) { return load16(d, e + i + k * stride); }, pairs, K, lo, hi);
    if constexpr (kUnit) {
      return hn::ReorderDemote2To(d16, lo, hi);
    } else {
      return hn::ReorderDemote2To(d16, scaleInt<false>(d32, lo, recip, -32768.f, 32767.f),
                                  scaleInt<false>(d32, hi, recip, -32768.f, 32767.f));
    }
  };
  const hn::ScalableTag<int16_t> d16;
  const int N = static_cast<int>(hn::Lanes(d16));
  int i = 0;
  for (; i + N <= n; i += N) hn::StoreU(block(d16, i), d16, out + i);
  if (i == n) return;
  if (n >= N) {  // the row pass has no group rule: finish with an overlapping vector
    hn::StoreU(block(d16, n - N), d16, out + n - N);
    return;
  }
  const hn::Full128<int16_t> d8;
  for (; i + 8 <= n; i += 8) hn::StoreU(block(d8, i), d8, out + i);
  if (i == n) return;
  if (n >= 8) {
    hn::StoreU(block(d8, n - 8), d8, out + n - 8);
    return;
  }
  for (; i < n; ++i)
    storeAny(out + i,
             rowConvert<int16_t>(static_cast<float>(intSum(e + i, stride, kernel, K)) * recip));
}

template <class Src>
void rowInt(const Src* e, int16_t* out, int n, int stride, const int16_t* kernel, int K,
            float recip) {
  byTaps(K, recip, [&](auto taps, auto unit) {
    rowIntImpl<decltype(taps)::value, decltype(unit)::value>(e, out, n, stride, kernel, K, recip);
  });
}

void row8u16s(const Kvl8u* e, Kvl16s* out, int n, int stride, const Kvl16s* kernel, int K,
              float recip) {
  if (K > kMaxTaps) return ref::row8u16s(e, out, n, stride, kernel, K, recip);
  rowInt(e, out, n, stride, kernel, K, recip);
}
void row16s(const Kvl16s* e, Kvl16s* out, int n, int stride, const Kvl16s* kernel, int K,
            float recip) {
  if (K > kMaxTaps) return ref::row16s(e, out, n, stride, kernel, K, recip);
  rowInt(e, out, n, stride, kernel, K, recip);
}

// ---- Row pass, float members (16u: scaled and truncated; 32f: the sum) ----
template <class DF, class Src>
HWY_INLINE hn::Vec<DF> floatTaps(DF df, const Src* p, int stride, const float* kf, int K) {
  auto s = hn::Mul(hn::Set(df, kf[0]), loadF(df, p));
  for (int k = 1; k < K; ++k)
    s = hn::Add(s, hn::Mul(hn::Set(df, kf[k]), loadF(df, p + k * stride)));
  return s;
}

template <class DF, class Dst>
HWY_INLINE void storeF(DF df, hn::Vec<DF> v, Dst* p) {
  if constexpr (sizeof(Dst) == 4) {
    hn::StoreU(v, df, p);
  } else {  // v holds exact integers in 0..65535
    const hn::RebindToSigned<DF> di;
    hn::StoreU(hn::DemoteTo(hn::Rebind<uint16_t, DF>(), hn::ConvertTo(di, v)),
               hn::Rebind<uint16_t, DF>(), p);
  }
}

template <int kK, class Src, class Ker>
void rowFloatImpl(const Src* e, Src* out, int n, int stride, const Ker* kernel, int K,
                  float recip) {
  if constexpr (kK != 0) K = kK;
  float kf[kMaxTaps];
  for (int k = 0; k < K; ++k) kf[k] = static_cast<float>(loadAny(kernel + k));
  constexpr bool kInt = sizeof(Src) == 2;
  auto block = [&](auto df, int i) {
    auto s = floatTaps(df, e + i, stride, kf, kK ? kK : K);
    if constexpr (kInt) {
      s = hn::Min(hn::Max(hn::Mul(s, hn::Set(df, recip)), hn::Zero(df)), hn::Set(df, 65535.f));
      const hn::RebindToSigned<decltype(df)> di;
      s = hn::ConvertTo(df, hn::ConvertTo(di, s));  // truncate toward zero
    }
    storeF(df, s, out + i);
  };
  const hn::ScalableTag<float> df;
  const int N = static_cast<int>(hn::Lanes(df));
  int i = 0;
  for (; i + N <= n; i += N) block(df, i);
  if (i == n) return;
  if (n >= N) return block(df, n - N);
  const hn::Full128<float> d4;
  for (; i + 4 <= n; i += 4) block(d4, i);
  if (i == n) return;
  if (n >= 4) return block(d4, n - 4);
  for (; i < n; ++i) {
    const float s = floatSum(e + i, stride, kernel, K);
    if constexpr (kInt) {
      storeAny(out + i, rowConvert<Src>(s * recip));
    } else {
      storeAny(out + i, s);
    }
  }
}

template <class Src, class Ker>
void rowFloat(const Src* e, Src* out, int n, int stride, const Ker* kernel, int K, float recip) {
  byTaps(K, recip, [&](auto taps, auto) {
    rowFloatImpl<decltype(taps)::value>(e, out, n, stride, kernel, K, recip);
  });
}

void row16u(const Kvl16u* e, Kvl16u* out, int n, int stride, const Kvl16u* kernel, int K,
            float recip) {
  if (K > kMaxTaps) return ref::row16u(e, out, n, stride, kernel, K, recip);
  rowFloat(e, out, n, stride, kernel, K, recip);
}
void row32f(const Kvl32f* e, Kvl32f* out, int n, int stride, const Kvl32f* kernel, int K,
            float recip) {
  if (K > kMaxTaps) return ref::row32f(e, out, n, stride, kernel, K, recip);
  rowFloat(e, out, n, stride, kernel, K, recip);
}

// ---- Column pass, integer members: groups round to nearest even, the tail truncates ----
template <class D16, class Dst>
HWY_INLINE void store16(D16 d16, hn::Vec<D16> v, Dst* p) {
  if constexpr (sizeof(Dst) == 2) {
    hn::StoreU(v, d16, p);
  } else {
    const hn::Rebind<Dst, D16> d8;
    hn::StoreU(hn::DemoteTo(d8, v), d8, p);
  }
}

template <int kK, bool kUnit, class Dst>
void columnIntImpl(const int16_t* const* rows, Dst* out, int n, const int16_t* kernel, int K,
                   float recip) {
  if constexpr (kK != 0) K = kK;
  int32_t pairs[kMaxTaps / 2];
  fillPairs(kernel, K, pairs);
  const int16_t* r[kMaxTaps];
  for (int k = 0; k < K; ++k) r[k] = rows[k];
  constexpr float mn = kMinF<Dst>, mx = kMaxF<Dst>;
  auto block = [&](auto d16, int i) {
    const hn::Repartition<int32_t, decltype(d16)> d32;
    hn::Vec<decltype(d32)> lo, hi;
    pairSums<kK>(
        d16, [&](auto d, int k) { return hn::LoadU(d, r[k] + i); }, pairs, K, lo, hi);
    if constexpr (kUnit) {
      store16(d16, hn::ReorderDemote2To(d16, lo, hi), out + i);
    } else {
      store16(d16,
              hn::ReorderDemote2To(d16, scaleInt<true>(d32, lo, recip, mn, mx),
                                   scaleInt<true>(d32, hi, recip, mn, mx)),
              out + i);
    }
  };
  const int body = columnBodyEnd(n);
  const hn::ScalableTag<int16_t> d16;
  const int N = static_cast<int>(hn::Lanes(d16));
  int i = 0;
  for (; i + N <= body; i += N) block(d16, i);
  const hn::Full128<int16_t> d8;  // one group of kColumnGroup elements
  static_assert(kColumnGroup == 8);
  for (; i < body; i += 8) block(d8, i);
  for (; i < n; ++i)
    storeAny(out + i, columnConvertTail<Dst>(columnIntSum(rows, i, kernel, K), recip));
}

template <class Dst>
void columnInt(const int16_t* const* rows, Dst* out, int n, const int16_t* kernel, int K,
               float recip) {
  byTaps(K, recip, [&](auto taps, auto unit) {
    columnIntImpl<decltype(taps)::value, decltype(unit)::value>(rows, out, n, kernel, K, recip);
  });
}

void column16s(const Kvl16s* const* rows, Kvl16s* out, int n, const Kvl16s* kernel, int K,
               float recip) {
  if (K > kMaxTaps) return ref::column16s(rows, out, n, kernel, K, recip);
  columnInt(rows, out, n, kernel, K, recip);
}
void column16s8u(const Kvl16s* const* rows, Kvl8u* out, int n, const Kvl16s* kernel, int K,
                 float recip) {
  if (K > kMaxTaps) return ref::column16s8u(rows, out, n, kernel, K, recip);
  columnInt(rows, out, n, kernel, K, recip);
}
void column16s8s(const Kvl16s* const* rows, Kvl8s* out, int n, const Kvl16s* kernel, int K,
                 float recip) {
  if (K > kMaxTaps) return ref::column16s8s(rows, out, n, kernel, K, recip);
  columnInt(rows, out, n, kernel, K, recip);
}

// ---- Column pass, 32f ----
template <int kK>
void column32fImpl(const float* const* rows, float* out, int n, const float* kernel, int K) {
  if constexpr (kK != 0) K = kK;
  float kf[kMaxTaps];
  const float* r[kMaxTaps];
  for (int k = 0; k < K; ++k) {
    kf[k] = loadAny(kernel + k);
    r[k] = rows[k];
  }
  auto block = [&](auto df, int i) {
    auto s = hn::Mul(hn::Set(df, kf[0]), hn::LoadU(df, r[0] + i));
    for (int k = 1; k < (kK ? kK : K); ++k)
      s = hn::Add(s, hn::Mul(hn::Set(df, kf[k]), hn::LoadU(df, r[k] + i)));
    hn::StoreU(s, df, out + i);
  };
  const hn::ScalableTag<float> df;
  const hn::Full128<float> d4;
  const int N = static_cast<int>(hn::Lanes(df));
  int i = 0;
  for (; i + N <= n; i += N) block(df, i);
  if (i == n) return;
  if (n >= N) return block(df, n - N);  // no group rule: an overlapping last vector
  for (; i + 4 <= n; i += 4) block(d4, i);
  if (i == n) return;
  if (n >= 4) return block(d4, n - 4);
  for (; i < n; ++i) storeAny(out + i, columnFloatSum(rows, i, kernel, K));
}

// ---- Column pass, 16u: 32-bit products and sums (wrapping), then the integer rule ----
template <int kK>
void column16uImpl(const uint16_t* const* rows, uint16_t* out, int n, const uint16_t* kernel,
                   int K, float recip) {
  if constexpr (kK != 0) K = kK;
  int32_t kc[kMaxTaps];
  const uint16_t* r[kMaxTaps];
  for (int k = 0; k < K; ++k) {
    kc[k] = loadAny(kernel + k);
    r[k] = rows[k];
  }
  auto block = [&](auto d32, int i) {
    const hn::Rebind<uint16_t, decltype(d32)> d16;
    auto s = hn::Mul(hn::Set(d32, kc[0]), hn::PromoteTo(d32, hn::LoadU(d16, r[0] + i)));
    for (int k = 1; k < (kK ? kK : K); ++k)
      s = hn::Add(s, hn::Mul(hn::Set(d32, kc[k]), hn::PromoteTo(d32, hn::LoadU(d16, r[k] + i))));
    store16(d16, hn::DemoteTo(d16, scaleInt<true>(d32, s, recip, 0.0f, 65535.0f)), out + i);
  };
  const int body = columnBodyEnd(n);
  const hn::ScalableTag<int32_t> d32;
  const int N = static_cast<int>(hn::Lanes(d32));
  int i = 0;
  for (; i + N <= body; i += N) block(d32, i);
  const hn::CappedTag<int32_t, 4> d4;  // the body is whole groups of 8, vectors whole fours
  for (; i < body; i += 4) block(d4, i);
  for (; i < n; ++i)
    storeAny(out + i, columnConvertTail<Kvl16u>(columnIntSum(rows, i, kernel, K), recip));
}

void column16u(const Kvl16u* const* rows, Kvl16u* out, int n, const Kvl16u* kernel, int K,
               float recip) {
  if (K > kMaxTaps) return ref::column16u(rows, out, n, kernel, K, recip);
  byTaps(K, recip, [&](auto taps, auto) {
    column16uImpl<decltype(taps)::value>(rows, out, n, kernel, K, recip);
  });
}
void column32f(const Kvl32f* const* rows, Kvl32f* out, int n, const Kvl32f* kernel, int K,
               float recip) {
  if (K > kMaxTaps) return ref::column32f(rows, out, n, kernel, K, recip);
  byTaps(K, recip, [&](auto taps, auto) {
    column32fImpl<decltype(taps)::value>(rows, out, n, kernel, K);
  });
}

#endif  // KVL_SIMD_TARGET

}  // namespace HWY_NAMESPACE
}  // namespace kvl::filter
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::filter {
const simd::Kernel<Row8u16sFn> kRow8u16s{KVL_TARGETS(row8u16s), &ref::row8u16s};
const simd::Kernel<Row16sFn> kRow16s{KVL_TARGETS(row16s), &ref::row16s};
const simd::Kernel<Row16uFn> kRow16u{KVL_TARGETS(row16u), &ref::row16u};
const simd::Kernel<Row32fFn> kRow32f{KVL_TARGETS(row32f), &ref::row32f};
const simd::Kernel<Column16sFn> kColumn16s{KVL_TARGETS(column16s), &ref::column16s};
const simd::Kernel<Column16s8uFn> kColumn16s8u{KVL_TARGETS(column16s8u), &ref::column16s8u};
const simd::Kernel<Column16s8sFn> kColumn16s8s{KVL_TARGETS(column16s8s), &ref::column16s8s};
const simd::Kernel<Column16uFn> kColumn16u{KVL_TARGETS(column16u), &ref::column16u};
const simd::Kernel<Column32fFn> kColumn32f{KVL_TARGETS(column32f), &ref::column32f};
}  // namespace kvl::filter
#endif
