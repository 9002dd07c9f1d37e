// Vector kernels of accumulation and absolute difference, one source for SSE4, AVX2 and AVX-512.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "stat/accum_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include "core/pixel.h"
#include "core/simd.h"
#include "stat/accum.h"
#include "stat/accum_rules.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::stat {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

// Lanes of source type Src converted exactly to float.
template <class Src, class DF>
HWY_INLINE hn::Vec<DF> loadAsFloat(DF df, const Src* p) {
  if constexpr (std::is_same_v<Src, Kvl32f>) {
    return hn::LoadU(df, p);
  } else {
    const hn::Rebind<int32_t, DF> di;
    const hn::Rebind<Src, DF> ds;
    return hn::ConvertTo(df, hn::PromoteTo(di, hn::LoadU(ds, p)));
  }
}

// The float lanes whose mask byte is non-zero.
template <class DF>
HWY_INLINE hn::Mask<DF> loadMask(DF df, const Kvl8u* p) {
  const hn::Rebind<uint32_t, DF> du;
  const hn::Rebind<uint8_t, DF> d8;
  return hn::RebindMask(df, hn::Ne(hn::PromoteTo(du, hn::LoadU(d8, p)), hn::Zero(du)));
}

// Elements x .. x + lanes - 1. s2 is touched only by kProduct and mask only when masked, so the
// unused pointers may be null.
template <AccOp kOp, class Src, bool kMasked, class DF>
HWY_INLINE void accStep(DF df, const Src* s1, const Src* s2, const Kvl8u* mask, const Kvl32f* in,
                        Kvl32f* out, int x, hn::Vec<DF> alpha) {
  const auto a = hn::LoadU(df, in + x);
  const auto f1 = loadAsFloat(df, s1 + x);
  hn::Vec<DF> r;
  if constexpr (kOp == AccOp::kAdd) {
    r = hn::Add(a, f1);
  } else if constexpr (kOp == AccOp::kSquare) {
    r = hn::Add(a, hn::Mul(f1, f1));
  } else if constexpr (kOp == AccOp::kProduct) {
    r = hn::Add(a, hn::Mul(f1, loadAsFloat(df, s2 + x)));
  } else {
    r = hn::Add(a, hn::Mul(alpha, hn::Sub(f1, a)));
  }
  if constexpr (kMasked) {
#if HWY_TARGET == HWY_AVX3
    // Masked kernels run in place: a masked store skips the lanes under a zero mask byte, which
    // keeps their bits, and one byte test makes the lane mask.
    const hn::Rebind<uint8_t, DF> d8;
    const auto bytes = hn::LoadU(d8, mask + x);
    hn::Mask<DF> m;
    m.raw = _mm_test_epi8_mask(bytes.raw, bytes.raw);
    hn::BlendedStore(r, m, df, out + x);
    return;
#else
    // The blend stores the old bits back unchanged under a zero mask byte.
    r = hn::IfThenElse(loadMask(df, mask + x), r, a);
#endif
  }
  hn::StoreU(r, df, out + x);
}

template <AccOp kOp, class Src, bool kMasked>
void accRow(const Src* s1, const Src* s2, const Kvl8u* mask, const Kvl32f* in, Kvl32f* out, int n,
            float alpha) {
  const hn::ScalableTag<float> df;
  const int N = static_cast<int>(hn::Lanes(df));
  const auto va = hn::Set(df, alpha);
  auto scalar = [&](int x) {
    if constexpr (kMasked) {
      if (mask[x] == 0) return;
    }
    const Src v1 = loadAny(s1 + x);
    const Src v2 = kOp == AccOp::kProduct ? loadAny(s2 + x) : v1;
    storeAny(out + x, accumulate<kOp>(loadAny(in + x), v1, v2, alpha));
  };
  int x = 0;
  for (const int head = alignedHead(out, N * 4, n); x < head; ++x) scalar(x);
  for (; x + 2 * N <= n; x += 2 * N) {
    accStep<kOp, Src, kMasked>(df, s1, s2, mask, in, out, x, va);
    accStep<kOp, Src, kMasked>(df, s1, s2, mask, in, out, x + N, va);
  }
  for (; x < n; ++x) scalar(x);
}

template <class D>
HWY_INLINE hn::Vec<D> absDiffVec(hn::Vec<D> a, hn::Vec<D> b) {
  if constexpr (std::is_floating_point_v<hn::TFromD<D>>) {
    return hn::Abs(hn::Sub(a, b));
  } else {
    return hn::Or(hn::SaturatedSub(a, b), hn::SaturatedSub(b, a));
  }
}

// Stores v at dst: a cache-bypassing store when kStream is set and dst is vector-aligned.
template <bool kStream, class D>
HWY_INLINE void put(D d, hn::Vec<D> v, hn::TFromD<D>* dst, bool aligned) {
  if constexpr (kStream) {
    if (aligned) {
      hn::Stream(v, d, dst);
      return;
    }
  }
  hn::StoreU(v, d, dst);
}

// Orders the cache-bypassing stores before anything the caller does next.
template <bool kStream>
HWY_INLINE void fenceStreams() {
#if HWY_ARCH_X86
  if constexpr (kStream) _mm_sfence();
#endif
}

// The vector body walks dst from its first vector-aligned element; `aligned` is false only when
// dst is not even element-aligned, and then the body uses ordinary stores. Vectors are at most
// 32 bytes: with two sources and a destination streaming through the caches, 64-byte vectors
// ran up to a quarter slower on 4K frames (measured against 32 on the same AVX-512 machine).
template <class T, bool kStream>
void absDiffRow(const T* a, const T* b, T* dst, int n) {
  const hn::CappedTag<T, 32 / sizeof(T)> d;
  const int N = static_cast<int>(hn::Lanes(d));
  const size_t vectorBytes = N * sizeof(T);
  int x = 0;
  for (const int head = alignedHead(dst, static_cast<int>(vectorBytes), n); x < head; ++x)
    storeAny(dst + x, absDiff(loadAny(a + x), loadAny(b + x)));
  const bool aligned = reinterpret_cast<uintptr_t>(dst + x) % vectorBytes == 0;
  // Four vectors a step, all loads first: more lines in flight from each source.
  for (; x + 4 * N <= n; x += 4 * N) {
    hn::Vec<decltype(d)> va[4], vb[4];
    for (int k = 0; k < 4; ++k) {
      va[k] = hn::LoadU(d, a + x + k * N);
      vb[k] = hn::LoadU(d, b + x + k * N);
    }
    for (int k = 0; k < 4; ++k)
      put<kStream>(d, absDiffVec<decltype(d)>(va[k], vb[k]), dst + x + k * N, aligned);
  }
  for (; x + N <= n; x += N)
    put<kStream>(d, absDiffVec<decltype(d)>(hn::LoadU(d, a + x), hn::LoadU(d, b + x)), dst + x,
                 aligned);
  for (; x < n; ++x) storeAny(dst + x, absDiff(loadAny(a + x), loadAny(b + x)));
  fenceStreams<kStream>();
}

template <class T, bool kStream>
void absDiffCRow(const T* a, T v, T* dst, int n) {
  const hn::ScalableTag<T> d;
  const int N = static_cast<int>(hn::Lanes(d));
  const size_t vectorBytes = N * sizeof(T);
  const auto vv = hn::Set(d, v);
  int x = 0;
  for (const int head = alignedHead(dst, static_cast<int>(vectorBytes), n); x < head; ++x)
    storeAny(dst + x, absDiff(loadAny(a + x), v));
  const bool aligned = reinterpret_cast<uintptr_t>(dst + x) % vectorBytes == 0;
  for (; x + 2 * N <= n; x += 2 * N) {
    put<kStream>(d, absDiffVec<decltype(d)>(hn::LoadU(d, a + x), vv), dst + x, aligned);
    put<kStream>(d, absDiffVec<decltype(d)>(hn::LoadU(d, a + x + N), vv), dst + x + N, aligned);
  }
  for (; x < n; ++x) storeAny(dst + x, absDiff(loadAny(a + x), v));
  fenceStreams<kStream>();
}

#endif  // KVL_SIMD_TARGET

}  // namespace HWY_NAMESPACE
}  // namespace kvl::stat
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include "stat/accum_ref.h"

namespace kvl::stat {

template <AccOp kOp, class Src, bool kMasked>
const simd::Kernel<AccRowFn<Src>> AccKernel<kOp, Src, kMasked>::kernel{
    KVL_TARGETS(accRow<kOp, Src, kMasked>), &ref::accRow<kOp, Src, kMasked>};
template <class T, int kC, bool kStream>
const simd::Kernel<AbsDiffRowFn<T>> AbsDiffKernel<T, kC, kStream>::kernel{
    KVL_TARGETS(absDiffRow<T, kStream>), &ref::absDiffRow<T>};
template <class T, bool kStream>
const simd::Kernel<AbsDiffCRowFn<T>> AbsDiffCKernel<T, kStream>::kernel{
    KVL_TARGETS(absDiffCRow<T, kStream>), &ref::absDiffCRow<T>};

#define KVL_UNMASKED(Name, types, Src, op) template struct AccKernel<op, Src, false>;
#define KVL_MASKED(Name, types, Src, op) template struct AccKernel<op, Src, true>;
KVL_ACC_ONE_SOURCE_MEMBERS(KVL_UNMASKED)
KVL_ACC_ONE_SOURCE_MASKED_MEMBERS(KVL_MASKED)
KVL_ACC_TWO_SOURCE_MEMBERS(KVL_UNMASKED)
KVL_ACC_TWO_SOURCE_MEMBERS(KVL_MASKED)
KVL_ACC_WEIGHTED_MEMBERS(KVL_UNMASKED)
KVL_ACC_WEIGHTED_MEMBERS(KVL_MASKED)
#undef KVL_UNMASKED
#undef KVL_MASKED
#define KVL_ABSDIFF(types, T, C)                   \
  template struct AbsDiffKernel<T, C, false>;      \
  template struct AbsDiffKernel<T, C, true>;
KVL_ABSDIFF_MEMBERS(KVL_ABSDIFF)
#undef KVL_ABSDIFF
#define KVL_ABSDIFFC(types, T, V)             \
  template struct AbsDiffCKernel<T, false>;   \
  template struct AbsDiffCKernel<T, true>;
KVL_ABSDIFFC_MEMBERS(KVL_ABSDIFFC)
#undef KVL_ABSDIFFC

}  // namespace kvl::stat
#endif  // HWY_ONCE
