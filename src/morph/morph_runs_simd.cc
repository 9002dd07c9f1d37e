// Vector kernels of the run engine, one source for SSE4, AVX2 and AVX-512.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "morph/morph_runs_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>
#include <hwy/cache_control.h>

#include "core/simd.h"
#include "morph/morph_runs.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::morph {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

// At most 32-byte vectors: the rows are read at every byte offset, and wider unaligned loads
// split a cache line each time.
template <class U>
using Tag = hn::CappedTag<U, 32 / sizeof(U)>;

template <bool kMin, class V>
HWY_INLINE V pickV(V a, V b) {
  if constexpr (kMin) {
    return hn::Min(a, b);
  } else {
    return hn::Max(a, b);
  }
}

// Float bits to keys and back (the same involution).
template <class D, class V>
HWY_INLINE V keyV(D d, V bits) {
  return hn::Xor(bits, hn::And(hn::ShiftRight<31>(bits), hn::Set(d, 0x7fffffff)));
}

// One vector of a caller's row of T as keys, and back.
template <class T, class D>
HWY_INLINE hn::Vec<D> loadKeys(D d, const T* p) {
  if constexpr (std::is_same_v<T, Kvl32f>) {
    const hn::Rebind<float, D> df;
    return keyV(d, hn::BitCast(d, hn::LoadU(df, p)));
  } else {
    return hn::LoadU(d, p);
  }
}
template <class T, class D>
HWY_INLINE void storeKeys(D d, hn::Vec<D> v, T* p) {
  if constexpr (std::is_same_v<T, Kvl32f>) {
    const hn::Rebind<float, D> df;
    hn::StoreU(hn::BitCast(df, keyV(d, v)), df, p);
  } else {
    hn::StoreU(v, d, p);
  }
}
// storeKeys(), bypassing the cache when `stream` is set and p is aligned to the vector.
template <class T, class D>
HWY_INLINE void putKeys(D d, hn::Vec<D> v, T* p, bool stream) {
  if (!stream || reinterpret_cast<uintptr_t>(p) % (hn::Lanes(d) * sizeof(T)) != 0) {
    storeKeys<T>(d, v, p);
  } else if constexpr (std::is_same_v<T, Kvl32f>) {
    const hn::Rebind<float, D> df;
    hn::Stream(hn::BitCast(df, keyV(d, v)), df, p);
  } else {
    hn::Stream(v, d, p);
  }
}
// Elements before `out` reaches a vector boundary when the stores stream (else 0).
template <class D, class T>
HWY_INLINE int streamHead(D d, const T* out, bool stream, int n) {
  return stream ? alignedHead(out, static_cast<int>(hn::Lanes(d) * sizeof(T)), n) : 0;
}

template <class U, bool kMin>
void pairRow(const U* a, const U* b, U* out, int n) {
  const Tag<U> d;
  const int N = static_cast<int>(hn::Lanes(d));
  int i = 0;
  // Loads of a step ahead of the stores, so out == a (b after a) stays correct.
  for (; i + 2 * N <= n; i += 2 * N) {
    const auto a0 = hn::LoadU(d, a + i), a1 = hn::LoadU(d, a + i + N);
    const auto b0 = hn::LoadU(d, b + i), b1 = hn::LoadU(d, b + i + N);
    hn::StoreU(pickV<kMin>(a0, b0), d, out + i);
    hn::StoreU(pickV<kMin>(a1, b1), d, out + i + N);
  }
  for (; i + N <= n; i += N)
    hn::StoreU(pickV<kMin>(hn::LoadU(d, a + i), hn::LoadU(d, b + i)), d, out + i);
  ref::pairRow<U, kMin>(a + i, b + i, out + i, n - i);
}

template <class U, bool kMin>
void foldRow(const U* const* rows, int count, U* out, int n) {
  const Tag<U> d;
  const int N = static_cast<int>(hn::Lanes(d));
  int i = 0;
  for (; i + 2 * N <= n; i += 2 * N) {
    auto v0 = hn::LoadU(d, rows[0] + i), v1 = hn::LoadU(d, rows[0] + i + N);
    for (int r = 1; r < count; ++r) {
      v0 = pickV<kMin>(v0, hn::LoadU(d, rows[r] + i));
      v1 = pickV<kMin>(v1, hn::LoadU(d, rows[r] + i + N));
    }
    hn::StoreU(v0, d, out + i);
    hn::StoreU(v1, d, out + i + N);
  }
  auto one = [&](int k) KVL_INLINE_LAMBDA {
    auto v = hn::LoadU(d, rows[0] + k);
    for (int r = 1; r < count; ++r) v = pickV<kMin>(v, hn::LoadU(d, rows[r] + k));
    hn::StoreU(v, d, out + k);
  };
  for (; i + N <= n; i += N) one(i);
  if (i < n && n >= N) {
    one(n - N);
    i = n;
  }
  ref::foldRange<U, kMin>(rows, count, out, i, n);
}

template <class T, bool kMin>
void combineRow(const KeyOf<T>* const* rows, int count, T* out, int n, bool accumulate,
                bool stream) {
  using U = KeyOf<T>;
  const Tag<U> d;
  const int N = static_cast<int>(hn::Lanes(d));
  int i = streamHead(d, out, stream, n);
  ref::combineRange<T, kMin>(rows, count, out, 0, i, accumulate);
  for (; i + 2 * N <= n; i += 2 * N) {
    auto v0 = hn::LoadU(d, rows[0] + i), v1 = hn::LoadU(d, rows[0] + i + N);
    if (accumulate) {
      v0 = pickV<kMin>(v0, loadKeys<T>(d, out + i));
      v1 = pickV<kMin>(v1, loadKeys<T>(d, out + i + N));
    }
    for (int r = 1; r < count; ++r) {
      const U* p = rows[r] + i;
      v0 = pickV<kMin>(v0, hn::LoadU(d, p));
      v1 = pickV<kMin>(v1, hn::LoadU(d, p + N));
    }
    putKeys<T>(d, v0, out + i, stream);
    putKeys<T>(d, v1, out + i + N, stream);
  }
  // The last vector ends at n, overlapping stored elements with the same values (the output
  // never aliases the rows); unless accumulating, which reads the output.
  auto one = [&](int k) KVL_INLINE_LAMBDA {
    auto v = hn::LoadU(d, rows[0] + k);
    if (accumulate) v = pickV<kMin>(v, loadKeys<T>(d, out + k));
    for (int r = 1; r < count; ++r) v = pickV<kMin>(v, hn::LoadU(d, rows[r] + k));
    putKeys<T>(d, v, out + k, stream);
  };
  for (; i + N <= n; i += N) one(i);
  if (i < n && n >= N && !accumulate) {
    one(n - N);
    i = n;
  }
  ref::combineRange<T, kMin>(rows, count, out, i, n, accumulate);
}

template <class T, bool kMin>
void combine2Row(const KeyOf<T>* const* taps, int ns, int na, int nb, T* out0, T* out1, int n,
                 bool stream) {
  using U = KeyOf<T>;
  const Tag<U> d;
  using V = hn::Vec<decltype(d)>;
  const int N = static_cast<int>(hn::Lanes(d));
  const U* const* a = taps + ns;
  const U* const* b = a + na;
  const int a0 = ns ? 0 : 1;
  // Streamed rows start their vectors at out0's first vector boundary (out1 streams when its
  // row lies at the same offset from one, as with steps that are multiples of the vector).
  int i = streamHead(d, out0, stream, n);
  ref::combine2Range<T, kMin>(taps, ns, na, nb, out0, out1, 0, i);
  // Four vectors of each row per step: the loops over the taps cost as much as their loads.
  for (; i + 4 * N <= n; i += 4 * N) {
    V v0, v1, v2, v3, w0, w1, w2, w3;
    if (ns) {
      const U* t = taps[0] + i;
      V s0 = hn::LoadU(d, t), s1 = hn::LoadU(d, t + N), s2 = hn::LoadU(d, t + 2 * N),
        s3 = hn::LoadU(d, t + 3 * N);
      for (int r = 1; r < ns; ++r) {
        t = taps[r] + i;
        s0 = pickV<kMin>(s0, hn::LoadU(d, t));
        s1 = pickV<kMin>(s1, hn::LoadU(d, t + N));
        s2 = pickV<kMin>(s2, hn::LoadU(d, t + 2 * N));
        s3 = pickV<kMin>(s3, hn::LoadU(d, t + 3 * N));
      }
      v0 = w0 = s0, v1 = w1 = s1, v2 = w2 = s2, v3 = w3 = s3;
    } else {
      const U* t = a[0] + i;
      v0 = hn::LoadU(d, t), v1 = hn::LoadU(d, t + N), v2 = hn::LoadU(d, t + 2 * N),
      v3 = hn::LoadU(d, t + 3 * N);
      t = b[0] + i;
      w0 = hn::LoadU(d, t), w1 = hn::LoadU(d, t + N), w2 = hn::LoadU(d, t + 2 * N),
      w3 = hn::LoadU(d, t + 3 * N);
    }
    for (int r = a0; r < na; ++r) {
      const U* t = a[r] + i;
      v0 = pickV<kMin>(v0, hn::LoadU(d, t));
      v1 = pickV<kMin>(v1, hn::LoadU(d, t + N));
      v2 = pickV<kMin>(v2, hn::LoadU(d, t + 2 * N));
      v3 = pickV<kMin>(v3, hn::LoadU(d, t + 3 * N));
    }
    for (int r = a0; r < nb; ++r) {
      const U* t = b[r] + i;
      w0 = pickV<kMin>(w0, hn::LoadU(d, t));
      w1 = pickV<kMin>(w1, hn::LoadU(d, t + N));
      w2 = pickV<kMin>(w2, hn::LoadU(d, t + 2 * N));
      w3 = pickV<kMin>(w3, hn::LoadU(d, t + 3 * N));
    }
    putKeys<T>(d, v0, out0 + i, stream);
    putKeys<T>(d, v1, out0 + i + N, stream);
    putKeys<T>(d, v2, out0 + i + 2 * N, stream);
    putKeys<T>(d, v3, out0 + i + 3 * N, stream);
    putKeys<T>(d, w0, out1 + i, stream);
    putKeys<T>(d, w1, out1 + i + N, stream);
    putKeys<T>(d, w2, out1 + i + 2 * N, stream);
    putKeys<T>(d, w3, out1 + i + 3 * N, stream);
  }
  // Then single vectors, the last one ending at n (it may store some elements again with the
  // same values: the outputs never alias the taps).
  auto one = [&](int k) {
    V v, w;
    if (ns) {
      V s = hn::LoadU(d, taps[0] + k);
      for (int r = 1; r < ns; ++r) s = pickV<kMin>(s, hn::LoadU(d, taps[r] + k));
      v = w = s;
    } else {
      v = hn::LoadU(d, a[0] + k);
      w = hn::LoadU(d, b[0] + k);
    }
    for (int r = a0; r < na; ++r) v = pickV<kMin>(v, hn::LoadU(d, a[r] + k));
    for (int r = a0; r < nb; ++r) w = pickV<kMin>(w, hn::LoadU(d, b[r] + k));
    putKeys<T>(d, v, out0 + k, stream);
    putKeys<T>(d, w, out1 + k, stream);
  };
  for (; i + N <= n; i += N) one(i);
  if (i < n && n >= N) {
    one(n - N);
    i = n;
  }
  ref::combine2Range<T, kMin>(taps, ns, na, nb, out0, out1, i, n);
}

template <class T>
void keyRow(const T* in, KeyOf<T>* out, int n) {
  if constexpr (std::is_same_v<T, Kvl32f>) {
    const Tag<int32_t> d;
    const int N = static_cast<int>(hn::Lanes(d));
    int i = 0;
    for (; i + N <= n; i += N) hn::StoreU(loadKeys<T>(d, in + i), d, out + i);
    ref::keyRow<T>(in + i, out + i, n - i);
  } else {
    std::memcpy(out, in, sizeof(T) * static_cast<std::size_t>(n));
  }
}

#endif  // KVL_SIMD_TARGET
}  // namespace HWY_NAMESPACE
}  // namespace kvl::morph
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::morph {

template <class T, bool kMin>
const simd::Kernel<PairRowFn<KeyOf<T>>> RunKernels<T, kMin>::pair{
    KVL_TARGETS(pairRow<KeyOf<T>, kMin>), &ref::pairRow<KeyOf<T>, kMin>};
template <class T, bool kMin>
const simd::Kernel<FoldRowFn<KeyOf<T>>> RunKernels<T, kMin>::fold{
    KVL_TARGETS(foldRow<KeyOf<T>, kMin>), &ref::foldRow<KeyOf<T>, kMin>};
template <class T, bool kMin>
const simd::Kernel<CombineRowFn<T>> RunKernels<T, kMin>::combine{KVL_TARGETS(combineRow<T, kMin>),
                                                                 &ref::combineRow<T, kMin>};
template <class T, bool kMin>
const simd::Kernel<Combine2RowFn<T>> RunKernels<T, kMin>::combine2{
    KVL_TARGETS(combine2Row<T, kMin>), &ref::combine2Row<T, kMin>};
template <class T, bool kMin>
const simd::Kernel<KeyRowFn<T>> RunKernels<T, kMin>::keys{KVL_TARGETS(keyRow<T>), &ref::keyRow<T>};

#define KVL_INSTANTIATE(T)             \
  template struct RunKernels<T, true>; \
  template struct RunKernels<T, false>;
KVL_MORPH_RUNS_TYPES(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::morph
#endif  // HWY_ONCE
