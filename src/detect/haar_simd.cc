// Vector kernels of the Haar classifier apply, one source for SSE4, AVX2 and AVX-512.
//
// Each lane is one candidate pixel and does the per-pixel rule's operations in the rule's order
// (no fused multiply-add), so every target gives the reference's bytes. A row is taken in spans
// of one vector of neighbouring pixels, starting at a candidate: the windows of neighbouring
// pixels are neighbouring table elements, so a span of candidates only is evaluated with plain
// loads, and one with enough candidates among other pixels with masked loads (AVX2 and AVX-512,
// whose masked loads read nothing for the other lanes). The candidates of thinner spans are
// listed, across rows, and evaluated a vector at a time with gathers from their listed offsets; a
// short last piece of the list takes the scalar rule. Nothing is read for a pixel whose mask byte
// is 0.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "detect/haar_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include <cstring>

#include "core/pixel.h"
#include "core/simd.h"
#include "detect/haar.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::detect {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

// Candidates listed before a gather pass, and the most lanes a vector has.
constexpr int kListCap = 512;
constexpr int kMaxLanes = HWY_MAX_BYTES / 4;
// A listed band of rows keeps its element offsets below this, so an offset plus a corner offset
// stays in 32 bits; tables with longer rows take the scalar rule.
constexpr ptrdiff_t kBandLimit = ptrdiff_t{1} << 30;
// A span with at least this many candidates (and not only candidates) takes masked loads.
#ifndef KVL_HAAR_MIN_MASKED
#define KVL_HAAR_MIN_MASKED 2
#endif
constexpr int kMinMasked = KVL_HAAR_MIN_MASKED;
// Vectors of every lane (16 on AVX-512) take spans of candidates only; thinner spans and the list
// take vectors of at most 8 lanes, which waste fewer lanes on the pixels between candidates.
constexpr size_t kFull = kMaxLanes;
constexpr size_t kHalf = 8;

// The candidates among the N pixels from x (lanes past the row's end are not).
template <class DV>
HWY_INLINE hn::Mask<DV> candidates(DV dv, const Kvl8u* mask, int x, int w) {
  const hn::Rebind<uint8_t, DV> d8;
  const hn::Rebind<uint32_t, DV> du;
  const int N = static_cast<int>(hn::Lanes(dv));
  hn::Vec<decltype(d8)> bytes;
  if (x + N <= w) {
    bytes = hn::LoadU(d8, mask + x);
  } else {
    alignas(64) uint8_t tail[kMaxLanes] = {};
    std::memcpy(tail, mask + x, static_cast<size_t>(w - x));
    bytes = hn::Load(d8, tail);
  }
  return hn::RebindMask(dv, hn::Ne(hn::PromoteTo(du, bytes), hn::Zero(du)));
}

template <class D>
HWY_INLINE uint64_t maskBits(D d, hn::Mask<D> m) {
  uint8_t bytes[8] = {};
  hn::StoreMaskBits(d, m, bytes);
  uint64_t bits;
  std::memcpy(&bits, bytes, 8);
  return bits;
}

// The vector form of each rule, on vectors of at most kCap lanes: f, its terms and the
// comparison with norm x threshold.
template <HaarArith A, size_t kCap>
struct VecRule {
  using Table = typename HaarTypes<A>::Table;
  using Value = typename HaarTypes<A>::Value;
  using DT = hn::CappedTag<Table, kCap>;
  using DV = hn::CappedTag<Value, kCap>;
  using VT = hn::Vec<DT>;
  using VV = hn::Vec<DV>;
  using F = VV;     // f, one lane per candidate
  using Norm = VV;  // what the comparison needs of the candidates' norms

  static HWY_INLINE Norm norm(VV n) { return n; }
  static HWY_INLINE F zero() { return hn::Zero(DV()); }
  // f += weight x rectangle sum
  static HWY_INLINE void add(F& f, Value w, VT s) {
    const DV dv;
    if constexpr (A == HaarArith::kIntFloat) {
      f = hn::Add(f, hn::Mul(hn::Set(dv, w), hn::ConvertTo(dv, s)));
    } else {
      f = hn::Add(f, hn::Mul(hn::Set(dv, w), s));
    }
  }
  // Lanes whose f lies below norm x threshold: they take val1.
  static HWY_INLINE hn::Mask<DV> below(const F& f, Value thr, const Norm& n, int) {
    const DV dv;
    if constexpr (A == HaarArith::kInt) {
      return hn::Lt(f, hn::Mul(hn::Set(dv, thr), n));
    } else {
      return hn::Gt(hn::Mul(n, hn::Set(dv, thr)), f);
    }
  }
};

// The wide rule: 64-bit products and f, kept as the even lanes and the odd lanes.
template <size_t kCap>
struct VecRule<HaarArith::kWide, kCap> {
  using Table = Kvl32s;
  using Value = Kvl32s;
  using DT = hn::CappedTag<int32_t, kCap>;
  using DV = DT;
  using D64 = hn::Repartition<int64_t, DT>;
  using DU64 = hn::Repartition<uint64_t, DT>;
  using VT = hn::Vec<DT>;
  using VV = VT;
  using V64 = hn::Vec<D64>;
  struct F {
    V64 even, odd;
  };
  struct Norm {
    VV even, odd;  // the odd lanes moved down to the even places
  };

  static HWY_INLINE VV odd(VV v) {
    return hn::BitCast(DT(), hn::ShiftRight<32>(hn::BitCast(DU64(), v)));
  }
  static HWY_INLINE Norm norm(VV n) { return {n, odd(n)}; }
  static HWY_INLINE F zero() { return {hn::Zero(D64()), hn::Zero(D64())}; }
  static HWY_INLINE void add(F& f, Value w, VT s) {
    const VV wv = hn::Set(DT(), w);
    f.even = hn::Add(f.even, hn::MulEven(wv, s));
    f.odd = hn::Add(f.odd, hn::MulEven(wv, odd(s)));
  }
  static HWY_INLINE hn::Mask<DV> below(const F& f, Value thr, const Norm& n, int shift) {
    const D64 d64;
    const VV tv = hn::Set(DT(), thr);
    const V64 fe = shift >= 64 ? hn::Zero(d64) : hn::ShiftLeftSame(f.even, shift);
    const V64 fo = shift >= 64 ? hn::Zero(d64) : hn::ShiftLeftSame(f.odd, shift);
    const VV e = hn::BitCast(DT(), hn::VecFromMask(d64, hn::Lt(fe, hn::MulEven(tv, n.even))));
    const VV o = hn::BitCast(DT(), hn::VecFromMask(d64, hn::Lt(fo, hn::MulEven(tv, n.odd))));
    return hn::MaskFromVec(hn::OddEven(o, e));
  }
};

// How a vector of candidates reads its windows: lane l's window at up + l (and tl + l), for
// every lane or only for the lanes of `lanes`, or at up + iu[l] (and tl + it[l]).
enum Access : int { kRun, kMasked, kGather };
// Masked loads that leave the other lanes unread.
#define KVL_HAAR_MASKED_LOADS (HWY_TARGET <= HWY_AVX2)

// The stage sum of one vector of candidates.
template <HaarArith A, bool kMixed, int kAccess, size_t kCap>
struct Stage {
  using R = VecRule<A, kCap>;
  using Table = typename R::Table;
  using Value = typename R::Value;
  using DT = typename R::DT;
  using DV = typename R::DV;
  using VI = hn::Vec<hn::RebindToSigned<DT>>;

  const HaarJob<A>& j;
  const Table* up;
  const Table* tl;
  VI iu, it;
  hn::Mask<DT> lanes;

  HWY_INLINE typename R::VT corner(const Table* b, VI idx, int32_t o) const {
    (void)idx;
    if constexpr (kAccess == kGather) {
#if HWY_TARGET == HWY_SSE4
      // SSE4 has no gather instruction and Highway's stand-in reads typed elements, which the
      // caller's table (at any address) does not allow: read each lane's element as bytes.
      const DT dt;
      alignas(16) int32_t at[hn::MaxLanes(dt)];
      alignas(16) Table lanes[hn::MaxLanes(dt)];
      hn::Store(idx, hn::RebindToSigned<DT>(), at);
      for (size_t l = 0; l < hn::Lanes(dt); ++l) lanes[l] = loadAny(b + o + at[l]);
      return hn::Load(dt, lanes);
#else
      return hn::GatherIndex(DT(), b + o, idx);
#endif
#if KVL_HAAR_MASKED_LOADS
    } else if constexpr (kAccess == kMasked) {
      return hn::MaskedLoad(lanes, DT(), b + o);
#endif
    } else {
      return hn::LoadU(DT(), b + o);
    }
  }

  // Weak classifiers from..to-1, each of kN rectangles (0: as the record says).
  template <int kN>
  HWY_INLINE void records(int from, int to, const int32_t*& off, const typename R::Norm& norm,
                          typename R::VV& stage) const {
    const DV dv;
    const HaarRecord<Value>* recs = j.state->records;
    for (int i = from; i < to; ++i) {
      const HaarRecord<Value>& c = recs[i];
      const bool tilted = kMixed && (c.index & kTiltedFlag);
      const Table* b = tilted ? tl : up;
      const VI idx = tilted ? it : iu;
      const ptrdiff_t stride = tilted ? j.tiltStride : j.srcStride;
      typename R::F f = R::zero();
      const int n = kN ? kN : c.n;
      for (int k = 0; k < n; ++k) {
        const HaarRect<Value>& q = c.rects[k];
        int32_t o[4];
        if constexpr (kMixed) {
          for (int p = 0; p < 4; ++p) o[p] = cornerOffset(q.p[p], stride);
        } else {
          (void)stride;
          for (int p = 0; p < 4; ++p) o[p] = off[p];
          off += 4;
        }
        const auto s = hn::Add(
            hn::Sub(hn::Sub(corner(b, idx, o[0]), corner(b, idx, o[1])), corner(b, idx, o[2])),
            corner(b, idx, o[3]));
        R::add(f, q.weight, s);
      }
      stage = hn::Add(stage, hn::IfThenElse(R::below(f, c.threshold, norm, j.shift),
                                            hn::Set(dv, c.val1), hn::Set(dv, c.val2)));
    }
  }

  // Bit l set when lane l stays.
  HWY_INLINE uint64_t stays(typename R::VV normv) const {
    const DV dv;
    const HaarState<Value>& st = *j.state;
    const typename R::Norm norm = R::norm(normv);
    const int32_t* off = j.offsets;
    typename R::VV stage = hn::Zero(dv);
    records<2>(0, st.count2, off, norm, stage);
    records<3>(st.count2, st.count23, off, norm, stage);
    records<0>(st.count23, st.length, off, norm, stage);
    return maskBits(dv, hn::Not(hn::Gt(hn::Set(dv, j.threshold), stage)));
  }
};

// Clears the mask bytes of the lanes in `fail`; `at(l)` is lane l's mask byte.
template <class At>
HWY_INLINE void clearFailed(uint64_t fail, const At& at) {
  while (fail != 0) {
    *at(__builtin_ctzll(fail)) = 0;
    fail &= fail - 1;
  }
}

// The candidates of a band of rows that are not in a run of full vectors.
template <class Value>
struct CandidateList {
  int n = 0;
  int r0 = 0;  // the band's first row: offsets count from its origins
  alignas(64) int32_t up[kListCap + kMaxLanes];
  alignas(64) int32_t tl[kListCap + kMaxLanes];
  alignas(64) Value norm[kListCap + kMaxLanes];
  Kvl8u* mask[kListCap];
};

template <HaarArith A, bool kMixed>
int evaluateList(const HaarJob<A>& j, CandidateList<typename HaarTypes<A>::Value>& list) {
  using R = VecRule<A, kHalf>;
  using DV = typename R::DV;
  using VI = hn::Vec<hn::RebindToSigned<typename R::DT>>;
  const DV dv;
  const hn::RebindToSigned<typename R::DT> di;
  const int N = static_cast<int>(hn::Lanes(dv));
  const auto* up = j.src + list.r0 * j.srcStride;
  const auto* tl = kMixed ? j.tilt + list.r0 * j.tiltStride : nullptr;
  int positive = 0;
  // Whole vectors, and a padded last one unless fewer than a quarter of its lanes are candidates:
  // those are cheaper one by one.
  int vectorEnd = list.n - list.n % N;
  if (list.n % N >= (N + 3) / 4) {
    for (int k = list.n; k < vectorEnd + N; ++k) {  // the last candidate's window again
      list.up[k] = list.up[list.n - 1];
      list.tl[k] = list.tl[list.n - 1];
      list.norm[k] = list.norm[list.n - 1];
    }
    vectorEnd += N;
  }
  int i = 0;
  for (; i < vectorEnd; i += N) {
    const VI iu = hn::LoadU(di, list.up + i);
    const VI it = kMixed ? hn::LoadU(di, list.tl + i) : iu;
    const Stage<A, kMixed, kGather, kHalf> s{j, up, tl, iu, it, hn::FirstN(typename R::DT(), N)};
    const int valid = list.n - i < N ? list.n - i : N;
    const uint64_t lanes = (1ull << valid) - 1;
    const uint64_t pass = s.stays(hn::LoadU(dv, list.norm + i)) & lanes;
    positive += __builtin_popcountll(pass);
    clearFailed(~pass & lanes, [&](int l) { return list.mask[i + l]; });
  }
  for (; i < list.n; ++i) {
    if (haarStays<A, kMixed>(j, up + list.up[i], kMixed ? tl + list.tl[i] : nullptr,
                             list.norm[i])) {
      ++positive;
    } else {
      *list.mask[i] = 0;
    }
  }
  list.n = 0;
  return positive;
}

// The first index >= c below `end` whose mask byte is 0 (run end), or whose byte is non-zero
// (run start), eight bytes at a time.
HWY_INLINE int skipWhile(const Kvl8u* m, int c, int end, bool nonZero) {
  for (; c + 8 <= end; c += 8) {
    uint64_t w;
    std::memcpy(&w, m + c, 8);
    // A byte is zero where (w - 0x01..) & ~w & 0x80.. has its top bit (exact for the lowest).
    const uint64_t zeros = (w - 0x0101010101010101ull) & ~w & 0x8080808080808080ull;
    if (nonZero ? zeros != 0 : w != 0) break;
  }
  while (c < end && ((m[c] != 0) == nonZero)) ++c;
  return c;
}

template <HaarArith A, bool kMixed>
int haarApply(const HaarJob<A>& j) {
  using Value = typename HaarTypes<A>::Value;
  using RF = VecRule<A, kFull>;
  using RH = VecRule<A, kHalf>;
  if (j.srcStride > kBandLimit || (kMixed && j.tiltStride > kBandLimit)) {
    return ref::haarApply<A, kMixed>(j);
  }
  const typename RF::DV df;
  const typename RH::DV dh;
  const int Nf = static_cast<int>(hn::Lanes(df)), Nh = static_cast<int>(hn::Lanes(dh));
  const uint64_t allF = (1ull << Nf) - 1, allH = (1ull << Nh) - 1;
  const auto zeroF = hn::Zero(hn::RebindToSigned<typename RF::DT>());
  const auto zeroH = hn::Zero(hn::RebindToSigned<typename RH::DT>());
  CandidateList<Value> list;
  int positive = 0;
  const int w = j.roi.width;
  for (int r = 0; r < j.roi.height; ++r) {
    const auto* up = j.src + r * j.srcStride;
    const auto* tl = kMixed ? j.tilt + r * j.tiltStride : nullptr;
    const Value* norm = rowPtr(j.norm, j.normStep, r);
    Kvl8u* mask = rowPtr(j.mask, j.maskStep, r);
    const ptrdiff_t rows = r - list.r0 + 1;
    if (list.n > 0 && (rows * j.srcStride > kBandLimit || rows * j.tiltStride > kBandLimit)) {
      positive += evaluateList<A, kMixed>(j, list);
    }
    if (list.n == 0) list.r0 = r;
    // Lists pixel x of this row, evaluating the list when it fills; the next band starts here.
    auto enlist = [&](int x) {
      list.up[list.n] = static_cast<int32_t>((r - list.r0) * j.srcStride + x);
      list.tl[list.n] = kMixed ? static_cast<int32_t>((r - list.r0) * j.tiltStride + x) : 0;
      list.norm[list.n] = loadAny(norm + x);
      list.mask[list.n] = mask + x;
      if (++list.n == kListCap) {
        positive += evaluateList<A, kMixed>(j, list);
        list.r0 = r;
      }
    };
    // Counts and clears the span at x after its evaluation.
    auto settle = [&](int x, uint64_t pass, uint64_t bits) {
      positive += __builtin_popcountll(pass & bits);
      clearFailed(~pass & bits, [&](int l) { return mask + x + l; });
    };
    for (int x = skipWhile(mask, 0, w, false); x < w;) {
      const uint64_t bits = maskBits(df, candidates(df, mask, x, w));
      int next = x + Nf;
      if (bits == allF) {
        const Stage<A, kMixed, kRun, kFull> s{j,     up + x, kMixed ? tl + x : nullptr,
                                              zeroF, zeroF,  hn::FirstN(typename RF::DT(), Nf)};
        settle(x, s.stays(hn::LoadU(df, norm + x)), bits);
#if KVL_HAAR_MASKED_LOADS
      } else if (Nf > Nh && 2 * __builtin_popcountll(bits) >= Nf) {
        // Half or more of a full span (every other pixel, say): masked loads across all of it.
        const auto cand = candidates(df, mask, x, w);
        const Stage<A, kMixed, kMasked, kFull> s{
            j,     up + x, kMixed ? tl + x : nullptr,
            zeroF, zeroF,  hn::RebindMask(typename RF::DT(), cand)};
        settle(x, s.stays(hn::MaskedLoad(cand, df, norm + x)), bits);
#endif
      } else {
        // Only the first (at most 8) pixels: the scan goes on at the next candidate after them.
        next = x + Nh;
        const uint64_t hb = bits & allH;
        if (hb == allH) {
          const Stage<A, kMixed, kRun, kHalf> s{j,     up + x, kMixed ? tl + x : nullptr,
                                                zeroH, zeroH,  hn::FirstN(typename RH::DT(), Nh)};
          settle(x, s.stays(hn::LoadU(dh, norm + x)), hb);
#if KVL_HAAR_MASKED_LOADS
        } else if (__builtin_popcountll(hb) >= kMinMasked) {
          const auto cand = candidates(dh, mask, x, w);
          const Stage<A, kMixed, kMasked, kHalf> s{
              j,     up + x, kMixed ? tl + x : nullptr,
              zeroH, zeroH,  hn::RebindMask(typename RH::DT(), cand)};
          settle(x, s.stays(hn::MaskedLoad(cand, dh, norm + x)), hb);
#endif
        } else {
          for (uint64_t b = hb; b != 0; b &= b - 1) enlist(x + __builtin_ctzll(b));
        }
      }
      x = skipWhile(mask, next < w ? next : w, w, false);
    }
  }
  if (list.n > 0) positive += evaluateList<A, kMixed>(j, list);
  return positive;
}

#endif  // KVL_SIMD_TARGET
}  // namespace HWY_NAMESPACE
}  // namespace kvl::detect
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::detect {

template <HaarArith A, bool kMixed>
const simd::Kernel<HaarApplyFn<A>> HaarKernel<A, kMixed>::kernel{KVL_TARGETS(haarApply<A, kMixed>),
                                                                 &ref::haarApply<A, kMixed>};

#define KVL_INSTANTIATE(Op, suffix, arith, layout, Table, Value, types, sfs) \
  template struct HaarKernel<HaarArith::arith, KVL_HAAR_MIXED_##layout>;
KVL_HAAR_APPLY_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::detect
#endif  // HWY_ONCE
