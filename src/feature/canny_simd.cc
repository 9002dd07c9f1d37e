// Vector kernels of the Canny detector, one source for SSE4, AVX2 and AVX-512.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "feature/canny_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include <cstring>

#include "core/pixel.h"
#include "core/simd.h"
#include "feature/canny.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::feature {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

using DI = hn::ScalableTag<int32_t>;
using DF = hn::ScalableTag<float>;
using DB = hn::Rebind<uint8_t, DI>;  // one byte per 32-bit lane
using DH = hn::Rebind<int16_t, DI>;  // one 16-bit value per 32-bit lane
using VI = hn::Vec<DI>;
using VF = hn::Vec<DF>;
using MI = hn::Mask<DI>;

// Class codes from the three decisions, in their order of precedence.
HWY_INLINE void storeClasses(MI vert, MI horiz, MI diffSign, uint8_t* out) {
  const DI di;
  const VI c = hn::IfThenElse(vert, hn::Set(di, kClassVert),
                              hn::IfThenElse(horiz, hn::Set(di, kClassHoriz),
                                             hn::IfThenElse(diffSign, hn::Set(di, kClassAntiDiag),
                                                            hn::Set(di, kClassDiag))));
  hn::StoreU(hn::DemoteTo(DB(), c), DB(), out);
}

HWY_INLINE MI signsDiffer(VI a, VI b) {
  const DI di;
  return hn::Lt(hn::Xor(a, b), hn::Zero(di));
}

void magClass16s(const Kvl16s* dx, const Kvl16s* dy, int w, int32_t low, int32_t* mag,
                 uint8_t* cls) {
  const DI di;
  const DF df;
  const int N = static_cast<int>(hn::Lanes(di));
  // Only whole groups take the single-precision products; lane counts are multiples of the group.
  const int groups = w / kCannyGroup * kCannyGroup;
  const VI vlow = hn::Set(di, low);
  const VF k67 = hn::Set(df, kTan67), k22 = hn::Set(df, kTan22);
  int c = 0;
  for (; c + N <= groups; c += N) {
    const VI x = hn::PromoteTo(di, hn::LoadU(DH(), dx + c));
    const VI y = hn::PromoteTo(di, hn::LoadU(DH(), dy + c));
    const VI ax = hn::Abs(x), ay = hn::Abs(y);
    const VI m = hn::Add(ax, ay);
    const MI keep = hn::Gt(m, vlow);
    hn::StoreU(hn::IfThenElseZero(keep, m), di, mag + 1 + c);
    const VF fx = hn::ConvertTo(df, ax), fy = hn::ConvertTo(df, ay);
    storeClasses(hn::RebindMask(di, hn::Gt(fy, hn::Mul(k67, fx))),
                 hn::RebindMask(di, hn::Gt(hn::Mul(k22, fx), fy)), signsDiffer(x, y), cls + c);
  }
  ref::magClass16sRange(dx, dy, w, c, low, mag, cls);
}

void magClass32f(const Kvl32f* dx, const Kvl32f* dy, int w, float low, float* mag, uint8_t* cls) {
  const DI di;
  const DF df;
  const int N = static_cast<int>(hn::Lanes(df));
  const VF vlow = hn::Set(df, low);
  const VF k67 = hn::Set(df, kTan67), k22 = hn::Set(df, kTan22);
  int c = 0;
  for (; c + N <= w; c += N) {
    const VF x = hn::LoadU(df, dx + c), y = hn::LoadU(df, dy + c);
    const VF ax = hn::Abs(x), ay = hn::Abs(y);
    const VF m = hn::Add(ax, ay);
    const auto keep = hn::Gt(m, vlow);
    hn::StoreU(hn::IfThenElseZero(keep, m), df, mag + 1 + c);
    storeClasses(hn::RebindMask(di, hn::Gt(ay, hn::Mul(k67, ax))),
                 hn::RebindMask(di, hn::Gt(hn::Mul(k22, ax), ay)),
                 signsDiffer(hn::BitCast(di, x), hn::BitCast(di, y)), cls + c);
  }
  ref::magClass32f(dx + c, dy + c, w - c, low, mag + c, cls + c);
}

void magClassBorder(const Kvl16s* dx, const Kvl16s* dy, int w, float low, bool l2, float* mag,
                    uint8_t* cls) {
  const DI di;
  const DF df;
  const int N = static_cast<int>(hn::Lanes(df));
  const VF vlow = hn::Set(df, low);
  const VF k22 = hn::Set(df, kTan22);
  int c = 0;
  for (; c + N <= w; c += N) {
    const VI x = hn::PromoteTo(di, hn::LoadU(DH(), dx + c));
    const VI y = hn::PromoteTo(di, hn::LoadU(DH(), dy + c));
    const VF ax = hn::ConvertTo(df, hn::Abs(x)), ay = hn::ConvertTo(df, hn::Abs(y));
    const VF m = l2 ? hn::Sqrt(hn::Add(hn::Mul(ax, ax), hn::Mul(ay, ay))) : hn::Add(ax, ay);
    const auto keep = hn::Gt(m, vlow);
    hn::StoreU(hn::IfThenElseZero(keep, m), df, mag + 1 + c);
    const VF vertBound = hn::Add(hn::Add(ax, ax), hn::Mul(ax, k22));
    storeClasses(hn::RebindMask(di, hn::Gt(ay, vertBound)),
                 hn::RebindMask(di, hn::Gt(hn::Mul(k22, ax), ay)), signsDiffer(x, y), cls + c);
  }
  ref::magClassBorder(dx + c, dy + c, w - c, low, l2, mag + c, cls + c);
}

// Suppression of whole vectors; D is the magnitude type's tag.
template <class D, class M>
int nmsBody(D d, const M* prev, const M* cur, const M* next, const uint8_t* cls, int w, M high,
            uint8_t* mapRow) {
  const DI di;
  const int N = static_cast<int>(hn::Lanes(d));
  const auto vhigh = hn::Set(d, high);
  const auto zero = hn::Zero(d);
  const VI edge = hn::Set(di, kEdge), cand = hn::Set(di, kCandidate);
  const VI c1 = hn::Set(di, kClassHoriz), c2 = hn::Set(di, kClassAntiDiag),
           c3 = hn::Set(di, kClassVert);
  int c = 0;
  for (; c + N <= w; c += N) {
    const auto m = hn::LoadU(d, cur + 1 + c);
    if (hn::AllTrue(d, hn::Eq(m, zero))) {  // most of an image lies below the low threshold
      hn::StoreU(hn::Zero(DB()), DB(), mapRow + c);
      continue;
    }
    const VI k = hn::PromoteTo(di, hn::LoadU(DB(), cls + c));
    const auto isH = hn::RebindMask(d, hn::Eq(k, c1));
    const auto isV = hn::RebindMask(d, hn::Eq(k, c3));
    const auto isA = hn::RebindMask(d, hn::Eq(k, c2));
    const auto a = hn::IfThenElse(
        isH, hn::LoadU(d, cur + c),
        hn::IfThenElse(isV, hn::LoadU(d, prev + 1 + c),
                       hn::IfThenElse(isA, hn::LoadU(d, prev + 2 + c), hn::LoadU(d, prev + c))));
    const auto b = hn::IfThenElse(
        isH, hn::LoadU(d, cur + 2 + c),
        hn::IfThenElse(isV, hn::LoadU(d, next + 1 + c),
                       hn::IfThenElse(isA, hn::LoadU(d, next + c), hn::LoadU(d, next + 2 + c))));
    const auto keepB = hn::Or(hn::Gt(m, b), hn::And(hn::Eq(m, b), hn::Or(isH, isV)));
    const auto surv = hn::And(hn::And(hn::Ne(m, zero), hn::Gt(m, a)), keepB);
    const auto isStrong = hn::And(surv, hn::Gt(m, vhigh));
    const VI v = hn::IfThenElse(hn::RebindMask(di, isStrong), edge,
                                hn::IfThenElseZero(hn::RebindMask(di, surv), cand));
    hn::StoreU(hn::DemoteTo(DB(), v), DB(), mapRow + c);
  }
  return c;
}

void nms32s(const int32_t* prev, const int32_t* cur, const int32_t* next, const uint8_t* cls, int w,
            int32_t high, uint8_t* mapRow) {
  const int c = nmsBody(DI(), prev, cur, next, cls, w, high, mapRow);
  ref::nms32s(prev + c, cur + c, next + c, cls + c, w - c, high, mapRow + c);
}

void nms32f(const float* prev, const float* cur, const float* next, const uint8_t* cls, int w,
            float high, uint8_t* mapRow) {
  const int c = nmsBody(DF(), prev, cur, next, cls, w, high, mapRow);
  ref::nms32f(prev + c, cur + c, next + c, cls + c, w - c, high, mapRow + c);
}

int link(const uint8_t* prev, uint8_t* cur, const uint8_t* next, int w, uint32_t* cols) {
  const hn::ScalableTag<uint8_t> d8;
  const int N = static_cast<int>(hn::Lanes(d8));
  const auto edge = hn::Set(d8, kEdge), cand = hn::Set(d8, kCandidate);
  int n = 0;
  int c = 0;
  for (; c + N <= w; c += N) {
    const auto v = hn::LoadU(d8, cur + c);
    const auto isCand = hn::Eq(v, cand);
    if (hn::AllFalse(d8, isCand)) continue;
    auto near = hn::Or(
        hn::Or(hn::Eq(hn::LoadU(d8, prev + c - 1), edge), hn::Eq(hn::LoadU(d8, prev + c), edge)),
        hn::Or(hn::Eq(hn::LoadU(d8, prev + c + 1), edge),
               hn::Eq(hn::LoadU(d8, cur + c - 1), edge)));
    near = hn::Or(near, hn::Or(hn::Or(hn::Eq(hn::LoadU(d8, cur + c + 1), edge),
                                      hn::Eq(hn::LoadU(d8, next + c - 1), edge)),
                               hn::Or(hn::Eq(hn::LoadU(d8, next + c), edge),
                                      hn::Eq(hn::LoadU(d8, next + c + 1), edge))));
    const auto hit = hn::And(isCand, near);
    if (hn::AllFalse(d8, hit)) continue;
    hn::StoreU(hn::IfThenElse(hit, edge, v), d8, cur + c);
    uint8_t bytes[8] = {};
    hn::StoreMaskBits(d8, hit, bytes);
    uint64_t bits;
    std::memcpy(&bits, bytes, sizeof(bits));
    for (; bits != 0; bits &= bits - 1)
      cols[n++] =
          static_cast<uint32_t>(c + static_cast<int>(hwy::Num0BitsBelowLS1Bit_Nonzero64(bits)));
  }
  const int m = ref::link(prev + c, cur + c, next + c, w - c, cols + n);
  for (int i = n; i < n + m; ++i) cols[i] += static_cast<uint32_t>(c);
  return n + m;
}

void edges(const uint8_t* mapRow, int w, Kvl8u* out) {
  const hn::ScalableTag<uint8_t> d8;
  const int N = static_cast<int>(hn::Lanes(d8));
  const auto e = hn::Set(d8, kEdge);
  int c = 0;
  for (; c + N <= w; c += N)
    hn::StoreU(hn::VecFromMask(d8, hn::Eq(hn::LoadU(d8, mapRow + c), e)), d8, out + c);
  ref::edges(mapRow + c, w - c, out + c);
}

#endif  // KVL_SIMD_TARGET

}  // namespace HWY_NAMESPACE
}  // namespace kvl::feature
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::feature {
const simd::Kernel<MagClass16sFn> kMagClass16s{KVL_TARGETS(magClass16s), &ref::magClass16s};
const simd::Kernel<MagClass32fFn> kMagClass32f{KVL_TARGETS(magClass32f), &ref::magClass32f};
const simd::Kernel<MagClassBorderFn> kMagClassBorder{KVL_TARGETS(magClassBorder),
                                                     &ref::magClassBorder};
const simd::Kernel<Nms32sFn> kNms32s{KVL_TARGETS(nms32s), &ref::nms32s};
const simd::Kernel<Nms32fFn> kNms32f{KVL_TARGETS(nms32f), &ref::nms32f};
const simd::Kernel<EdgesFn> kEdges{KVL_TARGETS(edges), &ref::edges};
const simd::Kernel<LinkFn> kLink{KVL_TARGETS(link), &ref::link};
}  // namespace kvl::feature
#endif
