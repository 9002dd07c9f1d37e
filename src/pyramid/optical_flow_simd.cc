// Vector kernels of the sub-pixel copies and the tracker's sums, one source for SSE4, AVX2 and
// AVX-512. Samples are computed in float vectors; the sums promote them to double and keep the
// kSumLanes partial sums in lanes, so every target adds the same terms in the same order.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "pyramid/optical_flow_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include <type_traits>

#include "core/pixel.h"
#include "core/simd.h"
#include "pyramid/optical_flow.h"

HWY_BEFORE_NAMESPACE();
namespace kvl::pyramid {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

using DF = hn::ScalableTag<float>;
using DD = hn::Repartition<double, DF>;
using DH = hn::Half<DF>;

// Lanes of source elements as float (exact conversions).
template <class Src>
HWY_INLINE hn::Vec<DF> loadF(DF df, const Src* p) {
  if constexpr (std::is_same_v<Src, Kvl32f>) {
    return hn::LoadU(df, p);
  } else {
    const hn::Rebind<int32_t, DF> di;
    return hn::ConvertTo(df, hn::PromoteTo(di, hn::LoadU(hn::Rebind<Src, DF>(), p)));
  }
}

struct Weights {
  hn::Vec<DF> w00, w01, w10, w11;
};
HWY_INLINE Weights weightsOf(DF df, const Subpix& s) {
  return {hn::Set(df, s.w00), hn::Set(df, s.w01), hn::Set(df, s.w10), hn::Set(df, s.w11)};
}

// The vector form of sampleAt: the same terms in the same order.
template <bool kX, bool kY, class Src>
HWY_INLINE hn::Vec<DF> sampleVec(DF df, const Src* r0, const Src* r1, int x, const Weights& w) {
  const hn::Vec<DF> a = loadF(df, r0 + x);
  if constexpr (!kX && !kY) {
    return a;
  } else {
    hn::Vec<DF> v = hn::Mul(a, w.w00);
    if constexpr (kX) v = hn::Add(v, hn::Mul(loadF(df, r0 + x + 1), w.w01));
    if constexpr (kY) v = hn::Add(v, hn::Mul(loadF(df, r1 + x), w.w10));
    if constexpr (kX && kY) v = hn::Add(v, hn::Mul(loadF(df, r1 + x + 1), w.w11));
    return v;
  }
}

template <bool kX, bool kY, class Src>
void subpixT(const Src* src, int srcStep, float* dst, int dstStep, int w, int h, const Subpix& s) {
  const DF df;
  const int N = static_cast<int>(hn::Lanes(df));
  if (w < N) {
    ref::subpix<Src>(src, srcStep, dst, dstStep, w, h, s);
    return;
  }
  const Weights wt = weightsOf(df, s);
  for (int y = 0; y < h; ++y) {
    const Src* r0 = rowPtr(src, srcStep, y);
    const Src* r1 = rowPtr(src, srcStep, y + 1);
    float* out = rowPtr(dst, dstStep, y);
    int x = 0;
    for (; x + N <= w; x += N) hn::StoreU(sampleVec<kX, kY>(df, r0, r1, x, wt), df, out + x);
    // The last vector overlaps its predecessor: the copy has no grouping, so the pixels written
    // twice get the same values.
    if (x < w) hn::StoreU(sampleVec<kX, kY>(df, r0, r1, w - N, wt), df, out + w - N);
  }
}

// Runs f.template operator()<kX, kY>() with kX, kY telling which fractions are non-zero (the
// terms a sample has).
template <class F>
HWY_INLINE void byFractions(const Subpix& s, F f) {
  const bool hx = s.fx != 0.0f, hy = s.fy != 0.0f;
  if (hx && hy) {
    f.template operator()<true, true>();
  } else if (hx) {
    f.template operator()<true, false>();
  } else if (hy) {
    f.template operator()<false, true>();
  } else {
    f.template operator()<false, false>();
  }
}

template <class Src>
void subpix(const Src* src, int srcStep, float* dst, int dstStep, int w, int h, Subpix s) {
  byFractions(s, [&]<bool kX, bool kY>() { subpixT<kX, kY>(src, srcStep, dst, dstStep, w, h, s); });
}

// Float lanes, double lanes, the accumulators that hold the kSumLanes partials, and the elements
// of one step (a whole number of float vectors covering the partials).
constexpr int kNF = static_cast<int>(hn::MaxLanes(DF()));
constexpr int kND = kNF / 2;
constexpr int kGroups = kSumLanes / kND;
constexpr int kStep = kNF > kSumLanes ? kNF : kSumLanes;
constexpr int kVecs = kStep / kNF;
static_assert(kSumLanes % kND == 0 && kStep % kSumLanes == 0, "partials must fill whole lanes");

// The kSumLanes partial sums of one sum in kGroups vectors of double lanes: the double vector t
// of a row step (its elements t kND .. t kND + kND - 1) adds into vector t % kGroups.
struct Acc {
  hn::Vec<DD> v[kGroups];
  void clear(DD dd) {
    for (auto& a : v) a = hn::Zero(dd);
  }
  // Adds the lanes of step vector t into their partials.
  HWY_INLINE void add(int t, hn::Vec<DD> x) { v[t % kGroups] = hn::Add(v[t % kGroups], x); }
  void store(DD dd, double* out) const {
    for (int g = 0; g < kGroups; ++g) hn::StoreU(v[g], dd, out + g * kND);
  }
};

// The double halves of a float vector.
HWY_INLINE hn::Vec<DD> half(DD dd, hn::Vec<DF> f, int which) {
  const DH dh;
  return hn::PromoteTo(dd, which == 0 ? hn::LowerHalf(dh, f) : hn::UpperHalf(dh, f));
}

template <bool kX, bool kY, bool kError, class Src>
void sumsT(const Src* next, int nextStep, int readable, const Subpix& s, const float* prev,
           int prevStride, const double* gx, const double* gy, int gStride, int w, int h,
           double* out) {
  const DF df;
  const DD dd;
  const Weights wt = weightsOf(df, s);
  Acc a, b;
  a.clear(dd);
  b.clear(dd);
  alignas(64) float tail[kStep];
  const int reach = kStep + (kX ? 1 : 0);  // next pixels a step reads
  for (int y = 0; y < h; ++y) {
    const Src* r0 = rowPtr(next, nextStep, y);
    const Src* r1 = rowPtr(next, nextStep, y + 1);
    const float* p = prev + static_cast<ptrdiff_t>(y) * prevStride;
    const double* u = gx + static_cast<ptrdiff_t>(y) * gStride;
    const double* v = gy + static_cast<ptrdiff_t>(y) * gStride;
    // One step at column x: the first `valid` elements count (the rest read the work memory's
    // padding and are masked out after their products).
    auto step = [&](int x, const hn::Vec<DF>* nv, int valid) KVL_INLINE_LAMBDA {
      for (int k = 0; k < kVecs; ++k) {
        const hn::Vec<DF> d = hn::Sub(hn::LoadU(df, p + x + k * kNF), nv[k]);
        for (int part = 0; part < 2; ++part) {
          const int t = 2 * k + part;
          const int first = t * kND;  // offset in the step
          const hn::Vec<DD> dv = half(dd, d, part);
          auto masked = [&](hn::Vec<DD> prod) KVL_INLINE_LAMBDA {
            if (valid >= kStep) return prod;
            const int n = valid - first;
            return hn::IfThenElseZero(hn::FirstN(dd, n < 0 ? 0 : n), prod);
          };
          if constexpr (kError) {
            a.add(t, masked(hn::Mul(dv, dv)));
          } else {
            const hn::Vec<DD> gu = hn::LoadU(dd, u + x + first);
            const hn::Vec<DD> gv = hn::LoadU(dd, v + x + first);
            a.add(t, masked(hn::Mul(dv, gu)));
            b.add(t, masked(hn::Mul(dv, gv)));
          }
        }
      }
    };
    hn::Vec<DF> nv[kVecs];
    int x = 0;
    for (; x + kStep <= w; x += kStep) {
      for (int k = 0; k < kVecs; ++k) nv[k] = sampleVec<kX, kY>(df, r0, r1, x + k * kNF, wt);
      step(x, nv, kStep);
    }
    if (x < w) {
      if (x + reach <= readable) {
        for (int k = 0; k < kVecs; ++k) nv[k] = sampleVec<kX, kY>(df, r0, r1, x + k * kNF, wt);
      } else {  // the row ends near the image's edge: the samples one by one
        for (int i = 0; i < kStep; ++i) tail[i] = x + i < w ? sampleAt(r0, r1, x + i, s) : 0.0f;
        for (int k = 0; k < kVecs; ++k) nv[k] = hn::Load(df, tail + k * kNF);
      }
      step(x, nv, w - x);
    }
  }
  alignas(64) double lanes[kSumLanes];
  a.store(dd, lanes);
  out[0] = combineLanes(lanes);
  if constexpr (!kError) {
    b.store(dd, lanes);
    out[1] = combineLanes(lanes);
  }
}

template <class Src, bool kError>
void sums(const Src* next, int nextStep, int readable, Subpix s, const float* prev,
          int prevStride, const double* gx, const double* gy, int gStride, int w, int h,
          double* out) {
  byFractions(s, [&]<bool kX, bool kY>() {
    sumsT<kX, kY, kError>(next, nextStep, readable, s, prev, prevStride, gx, gy, gStride, w, h, out);
  });
}

void matrix(const float* ix, const float* iy, int stride, int w, int h, double* gx, double* gy,
            int gStride, double* out) {
  const DF df;
  const DD dd;
  const hn::Vec<DF> scale = hn::Set(df, kGradientScale);
  Acc xx, xy, yy;
  xx.clear(dd);
  xy.clear(dd);
  yy.clear(dd);
  for (int y = 0; y < h; ++y) {
    const float* pu = ix + static_cast<ptrdiff_t>(y) * stride;
    const float* pv = iy + static_cast<ptrdiff_t>(y) * stride;
    double* ou = gx + static_cast<ptrdiff_t>(y) * gStride;
    double* ov = gy + static_cast<ptrdiff_t>(y) * gStride;
    // Whole steps; the last one reads and writes past the row into the work memory's padding
    // (the next row's elements it overwrites are written again when that row comes).
    for (int x = 0; x < w; x += kStep) {
      const int valid = w - x;
      for (int k = 0; k < kVecs; ++k) {
        const hn::Vec<DF> fu = hn::Mul(hn::LoadU(df, pu + x + k * kNF), scale);
        const hn::Vec<DF> fv = hn::Mul(hn::LoadU(df, pv + x + k * kNF), scale);
        for (int part = 0; part < 2; ++part) {
          const int t = 2 * k + part;
          const int first = t * kND;
          const hn::Vec<DD> du = half(dd, fu, part), dv = half(dd, fv, part);
          hn::StoreU(du, dd, ou + x + first);
          hn::StoreU(dv, dd, ov + x + first);
          const int n = valid - first;
          const auto m = hn::FirstN(dd, n < 0 ? 0 : (n > kND ? kND : n));
          xx.add(t, hn::IfThenElseZero(m, hn::Mul(du, du)));
          xy.add(t, hn::IfThenElseZero(m, hn::Mul(du, dv)));
          yy.add(t, hn::IfThenElseZero(m, hn::Mul(dv, dv)));
        }
      }
    }
  }
  alignas(64) double lanes[kSumLanes];
  xx.store(dd, lanes);
  out[0] = combineLanes(lanes);
  xy.store(dd, lanes);
  out[1] = combineLanes(lanes);
  yy.store(dd, lanes);
  out[2] = combineLanes(lanes);
}

#endif  // KVL_SIMD_TARGET

}  // namespace HWY_NAMESPACE
}  // namespace kvl::pyramid
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::pyramid {

template <class Src>
const simd::Kernel<SubpixFn<Src>> FlowKernels<Src>::subpix{KVL_TARGETS(subpix<Src>),
                                                           &ref::subpix<Src>};
template <class Src>
const simd::Kernel<SumsFn<Src>> FlowKernels<Src>::sums{KVL_TARGETS(sums<Src, false>),
                                                       &ref::sums<Src, false>};
template <class Src>
const simd::Kernel<SumsFn<Src>> FlowKernels<Src>::error{KVL_TARGETS(sums<Src, true>),
                                                        &ref::sums<Src, true>};
const simd::Kernel<MatrixFn> kMatrix{KVL_TARGETS(matrix), &ref::matrix};

#define KVL_INSTANTIATE(Src, copySfx, flowSfx, code) template struct FlowKernels<Src>;
KVL_OPTFLOW_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::pyramid
#endif  // HWY_ONCE
