// Vector kernels of the integral images, one source for SSE4, AVX2 and AVX-512.
//
// Upright tables of 8-bit sources take the prefix sums of a vector of pixels in int32 lanes
// (exact: a vector's pixels sum to at most 16 x 255^2), add the running sum of the row so far and
// the row above; integer lanes wrap like the tables. Float tables convert the exact int32 running
// sum (kept in lanes up to kMaxLaneSumWidth columns, the scalar rules beyond) and add the row
// above in single precision; double square tables add exact integers in double, then the row
// above. The float source's running sum must be taken left to right, so that kernel runs the
// scalar rule on four rows at once instead (four independent sums in flight). Tilted rows have no
// running sum: each element is a vertical combination of the two rows above.
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
      for (; x + n <= w; x += n) {
        const auto p = prefixSum(di, terms<kSquare>(di, s + x));
        const auto sum = hn::Add(p, carry);
        carry = hn::Add(carry, lastLane(di, p));
        if constexpr (std::is_same_v<T, Kvl32s>) {
          hn::StoreU(hn::Add(sum, hn::LoadU(di, above + x + 1)), di, out + x + 1);
        } else {
          const hn::Rebind<float, DI> df;
          hn::StoreU(hn::Add(hn::ConvertTo(df, sum), hn::LoadU(df, above + x + 1)), df,
                     out + x + 1);
        }
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

template <class T, Shape kShape, bool kSquare>
void table8u(const Kvl8u* src, int srcStep, T* t, int step, int w, int h, T val) {
  constexpr int kPad = kShape == Shape::kUpright ? 1 : 2;
  for (int y = 0; y < kPad; ++y) {
    T* row = rowPtr(t, step, y);
    for (int x = 0; x < w + kPad; ++x) storeAny(row + x, val);
  }
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

template <class Src, class Sum, class Sqr, Shape kShape>
void integral(const Src* src, int srcStep, Sum* sum, int sumStep, SqrElem<Sqr>* sqr, int sqrStep,
              int w, int h, Sum val, SqrElem<Sqr> valSqr) {
  if constexpr (std::is_same_v<Src, Kvl32f>) {
    table32f(src, srcStep, sum, sumStep, w, h, val);
  } else {
    table8u<Sum, kShape, false>(src, srcStep, sum, sumStep, w, h, val);
    if constexpr (!std::is_void_v<Sqr>) {
      table8u<Sqr, kShape, true>(src, srcStep, sqr, sqrStep, w, h, valSqr);
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
    KVL_TARGETS(integral<Src, Sum, Sqr, kShape>), &ref::integral<Src, Sum, Sqr, kShape>};

#define KVL_INSTANTIATE(Name, types, Src, Sum, Sqr, shape, form) \
  template struct IntegralKernel<Src, Sum, Sqr, Shape::k##shape>;
KVL_INTEGRAL_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::detect
#endif  // HWY_ONCE
