// Vector kernel of the Gaussian foreground model, one source for SSE4, AVX2 and AVX-512.
//
// One lane per pixel: the component records of neighbouring pixels (160 bytes apart) are
// gathered field by field into vectors, every rule runs on whole vectors with masks standing
// in for the branches, and the records are scattered back. Each lane performs the scalar rules'
// operations in the same order, so the bytes equal the reference's.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "bg/foreground_gauss_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include "bg/foreground.h"
#include "core/simd.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::bg {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

#if HWY_TARGET == HWY_AVX3
// AVX-512: the records of eight neighbouring samples are moved between memory and field vectors
// by a transposition (one 32-byte load or store per sample and component, and shuffles), which
// costs less than a gather or scatter per field.
constexpr bool kTransposed = true;
// The count word, weight, variance and mean of component records at p, p + 20, ..., p + 140
// (doubles).
HWY_INLINE void loadFields(const double* p, __m512d& c, __m512d& w, __m512d& v, __m512d& m) {
  auto pairAt = [p](int a) KVL_INLINE_LAMBDA {
    return _mm512_insertf64x4(_mm512_castpd256_pd512(_mm256_loadu_pd(p + 20 * a)),
                              _mm256_loadu_pd(p + 20 * (a + 1)), 1);
  };
  const __m512d z01 = pairAt(0), z23 = pairAt(2), z45 = pairAt(4), z67 = pairAt(6);
  const __m512d t0 = _mm512_unpacklo_pd(z01, z23), t1 = _mm512_unpackhi_pd(z01, z23);
  const __m512d t2 = _mm512_unpacklo_pd(z45, z67), t3 = _mm512_unpackhi_pd(z45, z67);
  const __m512i even = _mm512_setr_epi64(0, 4, 1, 5, 8, 12, 9, 13);
  const __m512i odd = _mm512_setr_epi64(2, 6, 3, 7, 10, 14, 11, 15);
  c = _mm512_permutex2var_pd(t0, even, t2);
  v = _mm512_permutex2var_pd(t0, odd, t2);
  w = _mm512_permutex2var_pd(t1, even, t3);
  m = _mm512_permutex2var_pd(t1, odd, t3);
}
HWY_INLINE void storeFields(double* p, __m512d c, __m512d w, __m512d v, __m512d m) {
  const __m512i low = _mm512_setr_epi64(0, 2, 8, 10, 1, 3, 9, 11);
  const __m512i high = _mm512_setr_epi64(4, 6, 12, 14, 5, 7, 13, 15);
  const __m512d t0 = _mm512_permutex2var_pd(c, low, v), t2 = _mm512_permutex2var_pd(c, high, v);
  const __m512d t1 = _mm512_permutex2var_pd(w, low, m), t3 = _mm512_permutex2var_pd(w, high, m);
  auto pairTo = [p](int a, __m512d z) KVL_INLINE_LAMBDA {
    _mm256_storeu_pd(p + 20 * a, _mm512_castpd512_pd256(z));
    _mm256_storeu_pd(p + 20 * (a + 1), _mm512_extractf64x4_pd(z, 1));
  };
  pairTo(0, _mm512_unpacklo_pd(t0, t1));
  pairTo(2, _mm512_unpackhi_pd(t0, t1));
  pairTo(4, _mm512_unpacklo_pd(t2, t3));
  pairTo(6, _mm512_unpackhi_pd(t2, t3));
}
#else
constexpr bool kTransposed = false;
#endif

// Ranking: insertion sort of each lane's records by key, each lane stopping where the scalar
// does. The keys w / sqrt(v) are compared first through w_a^2 v_b < w_b^2 v_a, which decides the
// comparison of the rounded keys whenever the two products are clearly apart; when any
// comparison of the group is close (or a value is out of the safe range [tiny, huge]), the group
// is ranked again on the keys themselves, computed as the scalar rules compute them.
// empty(k): the lanes where component k has count 0. swapDown(keys, j, moving): where `moving`,
// records j - 1 and j and their keys change places. restore(): the records as they were before
// ranking. Returns the lanes where a record moved.
template <int K, class D, class Empty, class Swap, class Restore>
HWY_INLINE hn::Mask<D> rankComponents(D d, hn::Vec<D>* w, hn::Vec<D>* var, hn::Vec<D> tiny,
                                      hn::Vec<D> huge, hn::Vec<D> margin, Empty empty,
                                      Swap swapDown, Restore restore) {
  using V = hn::Vec<D>;
  using M = hn::Mask<D>;
  const V zero = hn::Zero(d);
  M moved = hn::Lt(zero, zero);
  // Components a product can stand for: count 0 (key 0), or weight and variance in range.
  M unsafe = hn::Lt(zero, zero);
  for (int k = 0; k < K; ++k) {
    const M inRange = hn::And(hn::And(hn::Ge(w[k], tiny), hn::Le(w[k], huge)),
                              hn::And(hn::Ge(var[k], tiny), hn::Le(var[k], huge)));
    unsafe = hn::Or(unsafe, hn::AndNot(empty(k), hn::Not(inRange)));
  }
  bool exact = !hn::AllFalse(d, unsafe);
  if (!exact) {
    V w2[K];
    for (int k = 0; k < K; ++k) w2[k] = hn::Mul(w[k], w[k]);
    M doubtful = hn::Lt(zero, zero);
    for (int k = 1; k < K; ++k) {
      M moving = hn::Eq(zero, zero);
      for (int j = k; j > 0; --j) {
        // key[j-1] < key[j]: 0 < key when only j-1 is empty; never when j is empty.
        const M emptyA = empty(j - 1), emptyB = empty(j);
        const V pa = hn::Mul(w2[j - 1], var[j]), pb = hn::Mul(w2[j], var[j - 1]);
        const M both = hn::Not(hn::Or(emptyA, emptyB));
        const M close = hn::Le(hn::Abs(hn::Sub(pa, pb)), hn::Mul(margin, hn::Max(pa, pb)));
        doubtful = hn::Or(doubtful, hn::And(moving, hn::And(both, close)));
        const M less = hn::Or(hn::AndNot(emptyB, emptyA), hn::And(both, hn::Lt(pa, pb)));
        moving = hn::And(moving, less);
        if (hn::AllFalse(d, moving)) break;
        moved = hn::Or(moved, moving);
        swapDown(w2, j, moving);
      }
    }
    exact = !hn::AllFalse(d, doubtful);
  }
  if (exact) {
    moved = hn::Lt(zero, zero);
    restore();
    V key[K];
    for (int k = 0; k < K; ++k) key[k] = hn::IfThenZeroElse(empty(k), hn::Div(w[k], hn::Sqrt(var[k])));
    for (int k = 1; k < K; ++k) {
      M moving = hn::Eq(zero, zero);
      for (int j = k; j > 0; --j) {
        moving = hn::And(moving, hn::Lt(key[j - 1], key[j]));
        if (hn::AllFalse(d, moving)) break;
        moved = hn::Or(moved, moving);
        swapDown(key, j, moving);
      }
    }
  }
  return moved;
}

// The foreground: cleared where a pre-ranking component matched at a ranked position up to the
// one whose accumulated weight exceeds bgRatio.
template <int K, class D>
HWY_INLINE hn::Mask<D> clearedLanes(D d, const hn::Vec<D>* w, const hn::Mask<D>* matched,
                                    hn::Vec<D> bgRatio) {
  hn::Vec<D> acc = hn::Zero(d);
  hn::Mask<D> cleared = hn::Lt(acc, acc), done = cleared;
  for (int k = 0; k < K; ++k) {
    acc = hn::Add(acc, w[k]);
    cleared = hn::Or(cleared, hn::AndNot(done, matched[k]));
    done = hn::Or(done, hn::Gt(acc, bgRatio));
  }
  return cleared;
}

void gaussRow(const Kvl8u* src, int n, KvliFGGaussComponent* recs, const GaussParams& p,
              Kvl8u* bg, Kvl8u* fg) {
  constexpr int K = kComponents;
  constexpr int64_t kStride = K * sizeof(KvliFGGaussComponent) / sizeof(double);  // 20
  constexpr int64_t kFields = sizeof(KvliFGGaussComponent) / sizeof(double);      // 4
  constexpr int kAhead = 6;  // groups
  const hn::ScalableTag<double> d;
  const hn::RebindToSigned<decltype(d)> di;
  const hn::Rebind<int32_t, decltype(d)> d32;
  const hn::Rebind<uint8_t, decltype(d)> d8;
  using V = hn::Vec<decltype(d)>;
  using M = hn::Mask<decltype(d)>;
  const int N = static_cast<int>(hn::Lanes(d));

  const V thr2 = hn::Set(d, p.threshold2);
  const V bgRatio = hn::Set(d, p.bgRatio);
  const V initVar = hn::Set(d, p.initVariance);
  const V one = hn::Set(d, 1.0);
  const V zero = hn::Zero(d);
  const V half = hn::Set(d, 0.5);
  const V hist = hn::Set(d, static_cast<double>(p.history));
  const V rHist = hn::Set(d, 1.0 / p.history);
  const V keepHist = hn::Sub(one, rHist);
  const auto lowWord = hn::Set(di, 0xffffffffll);
  const V tiny = hn::Set(d, 1e-100), huge = hn::Set(d, 1e100), margin = hn::Set(d, 1e-9);
  const auto lane = hn::Mul(hn::Iota(di, 0), hn::Set(di, kStride));

  int i = 0;
  for (; i + N <= n; i += N) {
    double* base = reinterpret_cast<double*>(recs + static_cast<std::ptrdiff_t>(i) * K);
    int64_t* ibase = reinterpret_cast<int64_t*>(base);
    const V x = hn::PromoteTo(d, hn::PromoteTo(d32, hn::LoadU(d8, src + i)));
    // The records stream through once per frame: fetch the lines a few groups ahead, which the
    // gathers alone do not ask for early enough.
    if (i + (kAhead + 1) * N <= n) {
      const char* ahead = reinterpret_cast<const char*>(base + kAhead * N * kStride);
      for (int b = 0; b < N * kStride * 8; b += 64) __builtin_prefetch(ahead + b, 1, 3);
    }

    V cnt[K], w[K], var[K], mu[K], dev[K], wIn[K];
    M matched[K];
    M pending = hn::FirstN(d, N);  // no component matched yet
    for (int k = 0; k < K; ++k) {
      const auto idx = hn::Add(lane, hn::Set(di, k * kFields));
#if HWY_TARGET == HWY_AVX3
      if constexpr (kTransposed) {
        (void)idx;
        __m512d c;
        loadFields(base + k * kFields, c, w[k].raw, var[k].raw, mu[k].raw);
        cnt[k] = hn::ConvertTo(d, hn::And(hn::BitCast(di, V{c}), lowWord));
      }
#else
      cnt[k] = hn::ConvertTo(d, hn::And(hn::GatherIndex(di, ibase, idx), lowWord));
      w[k] = hn::GatherIndex(d, base + 1, idx);
      var[k] = hn::GatherIndex(d, base + 2, idx);
      mu[k] = hn::GatherIndex(d, base + 3, idx);
#endif
      wIn[k] = w[k];
      dev[k] = hn::Sub(x, mu[k]);
      matched[k] = hn::And(pending, hn::Gt(hn::Mul(thr2, var[k]), hn::Mul(dev[k], dev[k])));
      pending = hn::AndNot(matched[k], pending);
    }
    const bool anyUnmatched = !hn::AllFalse(d, pending);

    // The matched lanes' means and variances move towards x by rho.
    auto learn = [&](V rho) KVL_INLINE_LAMBDA {
      for (int k = 0; k < K; ++k) {
        mu[k] = hn::IfThenElse(matched[k], hn::Add(mu[k], hn::Mul(rho, dev[k])), mu[k]);
        var[k] = hn::IfThenElse(
            matched[k], hn::Add(var[k], hn::Mul(rho, hn::Sub(hn::Mul(dev[k], dev[k]), var[k]))),
            var[k]);
      }
    };
    // Lanes where nothing matched: the last component starts again at x; the counts' sum after.
    auto replaceLast = [&]() KVL_INLINE_LAMBDA {
      cnt[K - 1] = hn::IfThenElse(pending, one, cnt[K - 1]);
      var[K - 1] = hn::IfThenElse(pending, initVar, var[K - 1]);
      mu[K - 1] = hn::IfThenElse(pending, x, mu[K - 1]);
      V total = cnt[0];
      for (int k = 1; k < K; ++k) total = hn::Add(total, cnt[k]);
      return total;
    };
    if (!p.atHistory) {
      V sum = cnt[0];
      for (int k = 1; k < K; ++k) sum = hn::Add(sum, cnt[k]);
      const V r = hn::Div(one, hn::Add(one, sum));
      V cm = one;
      for (int k = 0; k < K; ++k) {
        const V mk = hn::IfThenElseZero(matched[k], one);
        cnt[k] = hn::Add(cnt[k], mk);
        w[k] = hn::Add(w[k], hn::Mul(r, hn::Sub(mk, w[k])));
        cm = hn::IfThenElse(matched[k], cnt[k], cm);
      }
      const V rho = hn::Div(one, cm);
      learn(rho);
      if (anyUnmatched) {
        const V total = replaceLast();
        for (int k = 0; k < K; ++k) w[k] = hn::IfThenElse(pending, hn::Div(cnt[k], total), w[k]);
      }
    } else {
      V wm = one;
      for (int k = 0; k < K; ++k) {
        const V mk = hn::IfThenElseZero(matched[k], one);
        w[k] = hn::Add(w[k], hn::Mul(rHist, hn::Sub(mk, w[k])));
        wm = hn::IfThenElse(matched[k], w[k], wm);
      }
      const V rho = hn::Div(one, hn::Mul(hist, wm));
      learn(rho);
      if (anyUnmatched) {
        const V total = replaceLast();
        w[K - 1] = hn::IfThenElse(pending, hn::Div(one, total), w[K - 1]);
        for (int k = 0; k < K - 1; ++k)
          w[k] = hn::IfThenElse(pending, hn::Mul(w[k], keepHist), w[k]);
      }
    }

    V c0[K], w0[K], v0[K], m0[K];
    for (int k = 0; k < K; ++k) c0[k] = cnt[k], w0[k] = w[k], v0[k] = var[k], m0[k] = mu[k];
    const M moved = rankComponents<K>(
        d, w, var, tiny, huge, margin, [&](int k) KVL_INLINE_LAMBDA { return hn::Eq(cnt[k], zero); },
        [&](V* keys, int j, M moving) KVL_INLINE_LAMBDA {
          for (V* a : {keys, cnt, w, var, mu}) {
            const V lo = a[j - 1], hi = a[j];
            a[j - 1] = hn::IfThenElse(moving, hi, lo);
            a[j] = hn::IfThenElse(moving, lo, hi);
          }
        },
        [&]() KVL_INLINE_LAMBDA {
          for (int k = 0; k < K; ++k) cnt[k] = c0[k], w[k] = w0[k], var[k] = v0[k], mu[k] = m0[k];
        });

    const auto bg32 = hn::DemoteTo(d32, hn::Add(mu[0], half));
    hn::StoreU(hn::DemoteTo(d8, bg32), d8, bg + i);
    const M cleared = clearedLanes<K>(d, w, matched, bgRatio);
    const auto fg32 = hn::DemoteTo(d32, hn::IfThenZeroElse(cleared, hn::Set(d, 255.0)));
    hn::StoreU(hn::DemoteTo(d8, fg32), d8, fg + i);

    // Count, variance and mean change only where a component matched, was replaced or moved;
    // a weight may stay (an empty component keeps 0). A component unchanged in every lane is not
    // written, so the cache lines of unused components stay clean and are not written back.
    const bool anyMoved = !hn::AllFalse(d, moved);
    for (int k = 0; k < K; ++k) {
      const bool fields = anyMoved || (k == K - 1 && anyUnmatched) || !hn::AllFalse(d, matched[k]);
      const bool weightKept =
          hn::AllTrue(di, hn::Eq(hn::BitCast(di, w[k]), hn::BitCast(di, wIn[k])));
      if (!fields && weightKept) continue;
#if HWY_TARGET == HWY_AVX3
      if constexpr (kTransposed) {
        storeFields(base + k * kFields, hn::BitCast(d, hn::ConvertTo(di, cnt[k])).raw, w[k].raw,
                    var[k].raw, mu[k].raw);
        continue;
      }
#endif
      const auto idx = hn::Add(lane, hn::Set(di, k * kFields));
      hn::ScatterIndex(w[k], d, base + 1, idx);
      if (fields) {
        hn::ScatterIndex(hn::ConvertTo(di, cnt[k]), di, ibase, idx);
        hn::ScatterIndex(var[k], d, base + 2, idx);
        hn::ScatterIndex(mu[k], d, base + 3, idx);
      }
    }
  }
  ref::gaussRow(src + i, n - i, recs + static_cast<std::ptrdiff_t>(i) * K, p, bg + i, fg + i);
}

// Colour pixels, one lane per pixel in single precision (twice the lanes of the grey kernel):
// the same steps on a joint mixture, with the records' count, weight, variance and three means
// moved as 32-bit fields. On AVX-512 two transpositions of eight records each give the qword
// slots {count, weight}, {variance, mean 0}, {mean 1, mean 2} of sixteen pixels, split into their
// halves by one permute per field.
void gaussRow3(const Kvl8u* src, int n, KvliFGGaussColourComponent* recs, const GaussParams& p,
               Kvl8u* bg, Kvl8u* fg) {
  constexpr int K = kComponents;
  constexpr int kFloats = sizeof(KvliFGGaussColourComponent) / sizeof(float);  // 8
  constexpr int kStride = K * kFloats;                                        // 40
  constexpr int kAhead = 6;  // groups
  const hn::ScalableTag<float> d;
  const hn::RebindToSigned<decltype(d)> di;
  using V = hn::Vec<decltype(d)>;
  using VI = hn::Vec<decltype(di)>;
  using M = hn::Mask<decltype(d)>;
  const int N = static_cast<int>(hn::Lanes(d));

  const V thr2 = hn::Set(d, static_cast<float>(p.threshold2));
  const V three = hn::Set(d, 3.0f);
  const V bgRatio = hn::Set(d, static_cast<float>(p.bgRatio));
  const V initVar = hn::Set(d, static_cast<float>(p.initVariance));
  const V one = hn::Set(d, 1.0f), zero = hn::Zero(d), half = hn::Set(d, 0.5f);
  const VI oneI = hn::Set(di, 1), zeroI = hn::Zero(di);
  const V hist = hn::Set(d, static_cast<float>(p.history));
  const V rHist = hn::Div(one, hist);
  const V keepHist = hn::Sub(one, rHist);
  const V tiny = hn::Set(d, 1e-6f), huge = hn::Set(d, 1e6f), margin = hn::Set(d, 1e-5f);
  const VI lane = hn::Mul(hn::Iota(di, 0), hn::Set(di, kStride));
  HWY_ALIGN float xs[3][HWY_MAX_BYTES / 4];
  HWY_ALIGN int32_t bgs[3][HWY_MAX_BYTES / 4];

  int i = 0;
  for (; i + N <= n; i += N) {
    float* base = reinterpret_cast<float*>(recs + static_cast<std::ptrdiff_t>(i) * K);
    int32_t* ibase = reinterpret_cast<int32_t*>(base);
    for (int l = 0; l < N; ++l)
      for (int ch = 0; ch < 3; ++ch) xs[ch][l] = src[3 * (i + l) + ch];
    V x[3];
    for (int ch = 0; ch < 3; ++ch) x[ch] = hn::Load(d, xs[ch]);
    if (i + (kAhead + 1) * N <= n) {
      const char* ahead = reinterpret_cast<const char*>(base + kAhead * N * kStride);
      for (int b = 0; b < N * kStride * 4; b += 64) __builtin_prefetch(ahead + b, 1, 3);
    }

    VI cnt[K];
    V w[K], var[K], mu[K][3], wIn[K], dev[3] = {zero, zero, zero}, dist = zero;
    M matched[K];
    M pending = hn::FirstN(d, N);
    for (int k = 0; k < K; ++k) {
#if HWY_TARGET == HWY_AVX3
      {
        __m512d a0, a1, a2, a3, b0, b1, b2, b3;
        loadFields(reinterpret_cast<const double*>(base) + k * 4, a0, a1, a2, a3);
        loadFields(reinterpret_cast<const double*>(base) + 8 * 20 + k * 4, b0, b1, b2, b3);
        (void)a3, (void)b3;
        const __m512i lo = _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
        const __m512i hi = _mm512_setr_epi32(1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31);
        auto half16 = [](__m512d a, __m512i idx, __m512d b) KVL_INLINE_LAMBDA {
          return V{_mm512_permutex2var_ps(_mm512_castpd_ps(a), idx, _mm512_castpd_ps(b))};
        };
        cnt[k] = hn::BitCast(di, half16(a0, lo, b0));
        w[k] = half16(a0, hi, b0);
        var[k] = half16(a1, lo, b1);
        mu[k][0] = half16(a1, hi, b1);
        mu[k][1] = half16(a2, lo, b2);
        mu[k][2] = half16(a2, hi, b2);
      }
#else
      {
        const VI idx = hn::Add(lane, hn::Set(di, k * kFloats));
        cnt[k] = hn::GatherIndex(di, ibase, idx);
        w[k] = hn::GatherIndex(d, base + 1, idx);
        var[k] = hn::GatherIndex(d, base + 2, idx);
        for (int ch = 0; ch < 3; ++ch) mu[k][ch] = hn::GatherIndex(d, base + 3 + ch, idx);
      }
#endif
      wIn[k] = w[k];
      V dk[3];
      for (int ch = 0; ch < 3; ++ch) dk[ch] = hn::Sub(x[ch], mu[k][ch]);
      const V e = hn::Add(hn::Add(hn::Mul(dk[0], dk[0]), hn::Mul(dk[1], dk[1])), hn::Mul(dk[2], dk[2]));
      matched[k] = hn::And(pending, hn::Gt(hn::Mul(hn::Mul(thr2, var[k]), three), e));
      for (int ch = 0; ch < 3; ++ch) dev[ch] = hn::IfThenElse(matched[k], dk[ch], dev[ch]);
      dist = hn::IfThenElse(matched[k], e, dist);
      pending = hn::AndNot(matched[k], pending);
    }
    const bool anyUnmatched = !hn::AllFalse(d, pending);
    auto countOf = [&](const VI& c) KVL_INLINE_LAMBDA { return hn::ConvertTo(d, c); };
    auto maskI = [&](M m) KVL_INLINE_LAMBDA { return hn::RebindMask(di, m); };

    auto learn = [&](V rho) KVL_INLINE_LAMBDA {
      const V varStep = hn::Div(dist, three);
      for (int k = 0; k < K; ++k) {
        for (int ch = 0; ch < 3; ++ch)
          mu[k][ch] = hn::IfThenElse(matched[k], hn::Add(mu[k][ch], hn::Mul(rho, dev[ch])), mu[k][ch]);
        var[k] = hn::IfThenElse(matched[k], hn::Add(var[k], hn::Mul(rho, hn::Sub(varStep, var[k]))),
                                var[k]);
      }
    };
    auto replaceLast = [&]() KVL_INLINE_LAMBDA {
      cnt[K - 1] = hn::IfThenElse(maskI(pending), oneI, cnt[K - 1]);
      var[K - 1] = hn::IfThenElse(pending, initVar, var[K - 1]);
      for (int ch = 0; ch < 3; ++ch) mu[K - 1][ch] = hn::IfThenElse(pending, x[ch], mu[K - 1][ch]);
      VI total = cnt[0];
      for (int k = 1; k < K; ++k) total = hn::Add(total, cnt[k]);
      return countOf(total);
    };
    if (!p.atHistory) {
      VI sum = cnt[0];
      for (int k = 1; k < K; ++k) sum = hn::Add(sum, cnt[k]);
      const V r = hn::Div(one, countOf(hn::Add(oneI, sum)));
      VI cm = oneI;
      for (int k = 0; k < K; ++k) {
        cnt[k] = hn::Add(cnt[k], hn::IfThenElseZero(maskI(matched[k]), oneI));
        w[k] = hn::Add(w[k], hn::Mul(r, hn::Sub(hn::IfThenElseZero(matched[k], one), w[k])));
        cm = hn::IfThenElse(maskI(matched[k]), cnt[k], cm);
      }
      learn(hn::Div(one, countOf(cm)));
      if (anyUnmatched) {
        const V total = replaceLast();
        for (int k = 0; k < K; ++k)
          w[k] = hn::IfThenElse(pending, hn::Div(countOf(cnt[k]), total), w[k]);
      }
    } else {
      V wm = one;
      for (int k = 0; k < K; ++k) {
        w[k] = hn::Add(w[k], hn::Mul(rHist, hn::Sub(hn::IfThenElseZero(matched[k], one), w[k])));
        wm = hn::IfThenElse(matched[k], w[k], wm);
      }
      learn(hn::Div(one, hn::Mul(hist, wm)));
      if (anyUnmatched) {
        const V total = replaceLast();
        w[K - 1] = hn::IfThenElse(pending, hn::Div(one, total), w[K - 1]);
        for (int k = 0; k < K - 1; ++k)
          w[k] = hn::IfThenElse(pending, hn::Mul(w[k], keepHist), w[k]);
      }
    }

    VI c0[K];
    V w0[K], v0[K], m0[K][3];
    for (int k = 0; k < K; ++k) {
      c0[k] = cnt[k], w0[k] = w[k], v0[k] = var[k];
      for (int ch = 0; ch < 3; ++ch) m0[k][ch] = mu[k][ch];
    }
    auto swapV = [](V& lo, V& hi, M moving) KVL_INLINE_LAMBDA {
      const V l = lo, h = hi;
      lo = hn::IfThenElse(moving, h, l);
      hi = hn::IfThenElse(moving, l, h);
    };
    const M moved = rankComponents<K>(
        d, w, var, tiny, huge, margin,
        [&](int k) KVL_INLINE_LAMBDA { return hn::RebindMask(d, hn::Eq(cnt[k], zeroI)); },
        [&](V* keys, int j, M moving) KVL_INLINE_LAMBDA {
          swapV(keys[j - 1], keys[j], moving);
          swapV(w[j - 1], w[j], moving);
          swapV(var[j - 1], var[j], moving);
          for (int ch = 0; ch < 3; ++ch) swapV(mu[j - 1][ch], mu[j][ch], moving);
          const VI l = cnt[j - 1], h = cnt[j];
          cnt[j - 1] = hn::IfThenElse(maskI(moving), h, l);
          cnt[j] = hn::IfThenElse(maskI(moving), l, h);
        },
        [&]() KVL_INLINE_LAMBDA {
          for (int k = 0; k < K; ++k) {
            cnt[k] = c0[k], w[k] = w0[k], var[k] = v0[k];
            for (int ch = 0; ch < 3; ++ch) mu[k][ch] = m0[k][ch];
          }
        });

    for (int ch = 0; ch < 3; ++ch)
      hn::Store(hn::ConvertTo(di, hn::Add(mu[0][ch], half)), di, bgs[ch]);
    for (int l = 0; l < N; ++l)
      for (int ch = 0; ch < 3; ++ch) bg[3 * (i + l) + ch] = static_cast<Kvl8u>(bgs[ch][l]);
    const M cleared = clearedLanes<K>(d, w, matched, bgRatio);
    const VI flag = hn::IfThenZeroElse(maskI(cleared), hn::Set(di, 255));
    hn::Store(flag, di, bgs[0]);
    for (int l = 0; l < N; ++l) fg[i + l] = static_cast<Kvl8u>(bgs[0][l]);

    const bool anyMoved = !hn::AllFalse(d, moved);
    for (int k = 0; k < K; ++k) {
      const bool fields = anyMoved || (k == K - 1 && anyUnmatched) || !hn::AllFalse(d, matched[k]);
      const bool weightKept = hn::AllTrue(di, hn::Eq(hn::BitCast(di, w[k]), hn::BitCast(di, wIn[k])));
      if (!fields && weightKept) continue;
#if HWY_TARGET == HWY_AVX3
      const __m512i lo = _mm512_setr_epi32(0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
      const __m512i hi = _mm512_setr_epi32(8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31);
      auto pairs = [](V a, __m512i idx, V b) KVL_INLINE_LAMBDA {
        return _mm512_castps_pd(_mm512_permutex2var_ps(a.raw, idx, b.raw));
      };
      const V c = hn::BitCast(d, cnt[k]);
      const __m512d z = _mm512_setzero_pd();
      storeFields(reinterpret_cast<double*>(base) + k * 4, pairs(c, lo, w[k]),
                  pairs(var[k], lo, mu[k][0]), pairs(mu[k][1], lo, mu[k][2]), z);
      storeFields(reinterpret_cast<double*>(base) + 8 * 20 + k * 4, pairs(c, hi, w[k]),
                  pairs(var[k], hi, mu[k][0]), pairs(mu[k][1], hi, mu[k][2]), z);
#else
      const VI idx = hn::Add(lane, hn::Set(di, k * kFloats));
      hn::ScatterIndex(w[k], d, base + 1, idx);
      if (fields) {
        hn::ScatterIndex(cnt[k], di, ibase, idx);
        hn::ScatterIndex(var[k], d, base + 2, idx);
        for (int ch = 0; ch < 3; ++ch) hn::ScatterIndex(mu[k][ch], d, base + 3 + ch, idx);
      }
#endif
    }
  }
  ref::gaussRow3(src + 3 * i, n - i, recs + static_cast<std::ptrdiff_t>(i) * K, p, bg + 3 * i,
                 fg + i);
}

#endif  // KVL_SIMD_TARGET
}  // namespace HWY_NAMESPACE
}  // namespace kvl::bg
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::bg {
const simd::Kernel<GaussRowFn> kGaussRow{KVL_TARGETS(gaussRow), &ref::gaussRow};
const simd::Kernel<GaussRow3Fn> kGaussRow3{KVL_TARGETS(gaussRow3), &ref::gaussRow3};
}  // namespace kvl::bg
#endif  // HWY_ONCE
