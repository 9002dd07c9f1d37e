// Vector kernels of the chamfer transforms, one source for SSE4, AVX2 and AVX-512.
//
// Each row of a pass is cut into chunks of kChunk pixels. For a chunk, the terms from the rows
// already final (the row above, or below, and the one beyond it for 5x5) are independent across
// x and are taken a vector at a time into a small buffer; then the in-row term (d(x-1) + a
// forward, d(x+1) + a backward) is propagated through the buffer, and the chunk is copied out.
// The propagation either follows the row one pixel at a time (floats in general: each step
// rounds, so k additions of a are not one addition of k x a; several rows then run side by side,
// see transformBands) or, where they are equal (see Rule::doubling), takes doubling steps within
// a vector's reach and then carries a vector at a time:
//   window: t(x) = min over m < N of v(x - m) + m a        (steps 1, 2, 4, .. N/2)
//   carry:  d(x) = min(t(x), d(x - N) + N a)               (one vector after the other)
// The buffer keeps N final distances of the previous chunk (or infinities at the row's end)
// beside the chunk, so both steps reach across chunk edges.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "seg/dist_chamfer_simd.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include <cstring>

#include "core/pixel.h"
#include "core/simd.h"
#include "seg/dist_chamfer.h"

#ifndef KVL_SEG_DIST_CHAMFER_ONCE
#define KVL_SEG_DIST_CHAMFER_ONCE
namespace kvl::seg {
// Pixels per chunk, and the buffer's margin on each side (at least the widest vector's lanes).
constexpr int kChunk = 1024;
constexpr int kMargin = 64;
// Float rows that propagate one pixel at a time run kBandRows side by side, in segments of
// kSegment pixels, each kLag segments behind the row before it.
constexpr int kBandRows = 4;
constexpr int kSegment = 128;
constexpr int kLag = 2;
}  // namespace kvl::seg
#endif

HWY_BEFORE_NAMESPACE();
namespace kvl::seg {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
#if KVL_SIMD_TARGET

template <class D, class V>
HWY_INLINE V plusV(D, V d, V w) {
  if constexpr (hwy::IsFloat<hn::TFromD<D>>()) {
    return hn::Add(d, w);
  } else {
    return hn::SaturatedAdd(d, w);
  }
}

// Lanes whose source byte is 0.
template <class D>
HWY_INLINE hn::Mask<D> featureLanes(D d, const Kvl8u* p) {
  using T = hn::TFromD<D>;
  if constexpr (sizeof(T) == 1) {
    const auto s = hn::LoadU(d, p);
    return hn::Eq(s, hn::Zero(d));
  } else {
    using U = hwy::MakeUnsigned<T>;
    const hn::Rebind<U, D> du;
    const auto s = hn::PromoteTo(du, hn::LoadU(hn::Rebind<Kvl8u, D>(), p));
    return hn::RebindMask(d, hn::Eq(s, hn::Zero(du)));
  }
}

// The terms of lanes x .. x+N-1 from the adjacent final row r1 and (5x5) the one beyond, r2
// (null when outside the image), folded into m. Every load lies within the row: 2 <= x and
// x + N + 2 <= w.
template <int kTaps, bool kAxis, class D, class V, class Out>
HWY_INLINE V nearV(D d, const Out* r1, const Out* r2, int x, V a, V b, V c, V m) {
  m = hn::Min(m, plusV(d, hn::LoadU(d, r1 + x), a));
  if constexpr (!kAxis) {
    m = hn::Min(m, plusV(d, hn::Min(hn::LoadU(d, r1 + x - 1), hn::LoadU(d, r1 + x + 1)), b));
    if constexpr (kTaps == 5) {
      m = hn::Min(m, plusV(d, hn::Min(hn::LoadU(d, r1 + x - 2), hn::LoadU(d, r1 + x + 2)), c));
      if (r2 != nullptr)
        m = hn::Min(m, plusV(d, hn::Min(hn::LoadU(d, r2 + x - 1), hn::LoadU(d, r2 + x + 1)), c));
    }
  }
  return m;
}

// The same for one pixel anywhere in the row.
template <int kTaps, bool kAxis, class Out>
HWY_INLINE Out nearAt(const Out* r1, const Out* r2, int x, int w, const Rule<Out>& r, Out m) {
  auto take = [&](const Out* row, int nx, Out weight) KVL_INLINE_LAMBDA {
    if (row != nullptr && nx >= 0 && nx < w) m = lesser(m, plus(loadAny(row + nx), weight));
  };
  take(r1, x, r.a);
  if constexpr (!kAxis) {
    take(r1, x - 1, r.b);
    take(r1, x + 1, r.b);
    if constexpr (kTaps == 5) {
      take(r1, x - 2, r.c);
      take(r1, x + 2, r.c);
      take(r2, x - 1, r.c);
      take(r2, x + 1, r.c);
    }
  }
  return m;
}

// t[0 .. n) = the pixels x0 .. x0+n-1 of a row before the in-row term: forward (src non-null),
// 0 on features and otherwise the terms of the rows above; backward, the forward distance and
// the terms of the rows below (cur is the row itself).
template <int kTaps, bool kAxis, class Out>
HWY_INLINE void rowTerms(const Kvl8u* src, const Out* cur, const Out* r1, const Out* r2, int x0,
                         int n, int w, const Rule<Out>& r, Out* t) {
  const hn::ScalableTag<Out> d;
  const int N = static_cast<int>(hn::Lanes(d));
  const bool forward = src != nullptr;
  auto one = [&](int x) KVL_INLINE_LAMBDA {
    if (forward) {
      Out v = src[x] == 0 ? Out(0) : kFar<Out>;
      if (src[x] != 0 && r1 != nullptr) v = nearAt<kTaps, kAxis>(r1, r2, x, w, r, v);
      t[x - x0] = v;
    } else {
      const Out v = loadAny(cur + x);
      t[x - x0] = r1 != nullptr ? nearAt<kTaps, kAxis>(r1, r2, x, w, r, v) : v;
    }
  };
  const int end = x0 + n;
  int lo = x0 < 2 ? 2 : x0;
  const int hi = end < w - 2 ? end : w - 2;
  if (r1 == nullptr || lo + N > hi) lo = end;  // no vector part
  int x = x0;
  for (; x < lo; ++x) one(x);
  if (lo < end) {
    const auto a = hn::Set(d, r.a), b = hn::Set(d, r.b), c = hn::Set(d, r.c);
    const auto far = hn::Set(d, kFar<Out>);
    if (forward) {
      for (; x + N <= hi; x += N) {
        const auto m = nearV<kTaps, kAxis>(d, r1, r2, x, a, b, c, far);
        hn::StoreU(hn::IfThenZeroElse(featureLanes(d, src + x), m), d, t + (x - x0));
      }
    } else {
      for (; x + N <= hi; x += N)
        hn::StoreU(nearV<kTaps, kAxis>(d, r1, r2, x, a, b, c, hn::LoadU(d, cur + x)), d,
                   t + (x - x0));
    }
  }
  for (; x < end; ++x) one(x);
}

// k x a in the output's arithmetic (exact for the rows that double).
template <class Out>
HWY_INLINE Out times(Out a, int k) {
  if constexpr (std::is_floating_point_v<Out>) {
    return a * static_cast<Out>(k);
  } else {
    const unsigned v = static_cast<unsigned>(a) * static_cast<unsigned>(k);
    return static_cast<Out>(v > kFar<Out> ? kFar<Out> : v);
  }
}

// The in-row term over t[0 .. n) by doubling steps, arriving from the left (kForward) or the
// right. The N buffer elements beyond the arriving side hold final distances (or kFar); the N
// beyond the other side are scratch.
template <bool kForward, class Out>
HWY_INLINE void propagate(Out* t, int n, Out a) {
  const hn::ScalableTag<Out> d;
  const int N = static_cast<int>(hn::Lanes(d));
  const int cover = (n + N - 1) / N * N;
  // Vectors start at first and step by N; the last partial one reaches into the scratch side.
  const int first = kForward ? 0 : n - cover;
  for (int k = 1; k < N; k *= 2) {
    const auto ka = hn::Set(d, times(a, k));
    // Each vector reads k elements towards the arriving side: visit the vectors from the
    // other side so those still hold the previous step's values.
    if constexpr (kForward) {
      for (int i = first + cover - N; i >= first; i -= N)
        hn::StoreU(hn::Min(hn::LoadU(d, t + i), plusV(d, hn::LoadU(d, t + i - k), ka)), d,
                   t + i);
    } else {
      for (int i = first; i <= first + cover - N; i += N)
        hn::StoreU(hn::Min(hn::LoadU(d, t + i), plusV(d, hn::LoadU(d, t + i + k), ka)), d,
                   t + i);
    }
  }
  const auto na = hn::Set(d, times(a, N));
  if constexpr (kForward) {
    auto prev = hn::LoadU(d, t - N);
    for (int i = 0; i < cover; i += N) {
      prev = hn::Min(hn::LoadU(d, t + i), plusV(d, prev, na));
      hn::StoreU(prev, d, t + i);
    }
  } else {
    auto prev = hn::LoadU(d, t + n);
    for (int i = n - N; i >= first; i -= N) {
      prev = hn::Min(hn::LoadU(d, t + i), plusV(d, prev, na));
      hn::StoreU(prev, d, t + i);
    }
  }
}

template <class Out, int kTaps, bool kAxis>
void transform(const Kvl8u* src, int srcStep, Out* dst, int dstStep, int w, int h,
               const Rule<Out>& r) {
  const hn::ScalableTag<Out> d;
  const int N = static_cast<int>(hn::Lanes(d));
  HWY_ALIGN Out buf[kMargin + kChunk + kMargin];
  Out* const t = buf + kMargin;
  auto fill = [](Out* p, int count) KVL_INLINE_LAMBDA {
    for (int i = 0; i < count; ++i) p[i] = kFar<Out>;
  };
  auto row = [&](int y) KVL_INLINE_LAMBDA { return rowPtr(dst, dstStep, y); };
  for (int y = 0; y < h; ++y) {
    Out* cur = row(y);
    const Out* r1 = y >= 1 ? row(y - 1) : nullptr;
    const Out* r2 = kTaps == 5 && y >= 2 ? row(y - 2) : nullptr;
    const Kvl8u* s = rowPtr(src, srcStep, y);
    for (int x0 = 0; x0 < w; x0 += kChunk) {
      const int n = w - x0 < kChunk ? w - x0 : kChunk;
      if (x0 == 0) {
        fill(t - N, N);
      } else {
        std::memcpy(t - N, cur + x0 - N, sizeof(Out) * N);
      }
      fill(t + n, N);
      rowTerms<kTaps, kAxis>(s, cur, r1, r2, x0, n, w, r, t);
      propagate<true>(t, n, r.a);
      std::memcpy(cur + x0, t, sizeof(Out) * n);
    }
  }
  for (int y = h - 1; y >= 0; --y) {
    Out* cur = row(y);
    const Out* r1 = y + 1 < h ? row(y + 1) : nullptr;
    const Out* r2 = kTaps == 5 && y + 2 < h ? row(y + 2) : nullptr;
    for (int x1 = w; x1 > 0;) {
      const int n = x1 < kChunk ? x1 : kChunk;
      const int x0 = x1 - n;
      if (x1 == w) {
        fill(t + n, N);
      } else {
        std::memcpy(t + n, cur + x1, sizeof(Out) * N);
      }
      fill(t - N, N);
      rowTerms<kTaps, kAxis, Out>(nullptr, cur, r1, r2, x0, n, w, r, t);
      propagate<false>(t, n, r.a);
      std::memcpy(cur + x0, t, sizeof(Out) * n);
      x1 = x0;
    }
  }
}

// Floats that follow the row one pixel at a time: each step waits for the previous one, so
// kBandRows rows run side by side, each kLag segments of kSegment pixels behind the row above
// (whose terms it needs up to two pixels past its own segment), and their chains interleave.
// Rows past the image's end and segments past the row's ends run on stale buffer values and are
// not copied out.
template <int kTaps>
void transformBands(const Kvl8u* src, int srcStep, float* dst, int dstStep, int w, int h,
                    const Rule<float>& r) {
  constexpr int R = kBandRows, S = kSegment;
  float buf[R][S + 2];
  for (auto& b : buf)
    for (float& v : b) v = kFar<float>;
  float* t[R];
  for (int k = 0; k < R; ++k) t[k] = buf[k] + 1;
  const float a = r.a;
  const int segs = (w + S - 1) / S;
  auto row = [&](int y) KVL_INLINE_LAMBDA { return rowPtr(dst, dstStep, y); };
  int x0[R], n[R];
  for (int y0 = 0; y0 < h; y0 += R) {
    const int rows = h - y0 < R ? h - y0 : R;
    for (int j = 0; j < segs + kLag * (rows - 1); ++j) {
      for (int k = 0; k < R; ++k) {
        const int seg = j - kLag * k, y = y0 + k;
        n[k] = 0;
        if (k >= rows || seg < 0 || seg >= segs) continue;
        x0[k] = seg * S;
        n[k] = w - x0[k] < S ? w - x0[k] : S;
        float* cur = row(y);
        t[k][-1] = x0[k] == 0 ? kFar<float> : loadAny(cur + x0[k] - 1);
        rowTerms<kTaps, false>(rowPtr(src, srcStep, y), cur, y >= 1 ? row(y - 1) : nullptr,
                               kTaps == 5 && y >= 2 ? row(y - 2) : nullptr, x0[k], n[k], w, r,
                               t[k]);
      }
      float p[R];
      for (int k = 0; k < R; ++k) p[k] = t[k][-1];
      for (int i = 0; i < S; ++i)
        for (int k = 0; k < R; ++k) p[k] = t[k][i] = lesser(t[k][i], p[k] + a);
      for (int k = 0; k < R; ++k)
        if (n[k] > 0) std::memcpy(row(y0 + k) + x0[k], t[k], sizeof(float) * n[k]);
    }
  }
  // Backward: rows upwards, segments from the right, each right-aligned in its buffer.
  for (int y0 = h - 1; y0 >= 0; y0 -= R) {
    const int rows = y0 + 1 < R ? y0 + 1 : R;
    for (int j = 0; j < segs + kLag * (rows - 1); ++j) {
      for (int k = 0; k < R; ++k) {
        const int seg = j - kLag * k, y = y0 - k;
        n[k] = 0;
        if (k >= rows || seg < 0 || seg >= segs) continue;
        const int x1 = w - seg * S;
        n[k] = x1 < S ? x1 : S;
        x0[k] = x1 - n[k];
        float* cur = row(y);
        t[k][S] = x1 == w ? kFar<float> : loadAny(cur + x1);
        rowTerms<kTaps, false, float>(nullptr, cur, y + 1 < h ? row(y + 1) : nullptr,
                                      kTaps == 5 && y + 2 < h ? row(y + 2) : nullptr, x0[k],
                                      n[k], w, r, t[k] + (S - n[k]));
      }
      float p[R];
      for (int k = 0; k < R; ++k) p[k] = t[k][S];
      for (int i = S - 1; i >= 0; --i)
        for (int k = 0; k < R; ++k) p[k] = t[k][i] = lesser(t[k][i], p[k] + a);
      for (int k = 0; k < R; ++k)
        if (n[k] > 0) std::memcpy(row(y0 - k) + x0[k], t[k] + (S - n[k]), sizeof(float) * n[k]);
    }
  }
}

template <class Out, int kTaps>
void chamfer(const Kvl8u* src, int srcStep, Out* dst, int dstStep, int w, int h,
             const Rule<Out>& r) {
  if (!r.doubling) {
    if constexpr (std::is_floating_point_v<Out>) {
      return transformBands<kTaps>(src, srcStep, dst, dstStep, w, h, r);
    }
  }
  if (r.axisOnly) return transform<Out, kTaps, true>(src, srcStep, dst, dstStep, w, h, r);
  transform<Out, kTaps, false>(src, srcStep, dst, dstStep, w, h, r);
}

#endif  // KVL_SIMD_TARGET
}  // namespace HWY_NAMESPACE
}  // namespace kvl::seg
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kvl::seg {

template <class Out, int kTaps>
const simd::Kernel<ChamferFn<Out>> ChamferKernel<Out, kTaps>::kernel{
    KVL_TARGETS(chamfer<Out, kTaps>), &ref::chamfer<Out, kTaps>};

#define KVL_INSTANTIATE_Own(Out, taps) template struct ChamferKernel<Out, taps>;
#define KVL_INSTANTIATE_Shared(Out, taps)
#define KVL_INSTANTIATE(mask, taps, types, layout, Out, Metric, kernel) \
  KVL_INSTANTIATE_##kernel(Out, taps)
KVL_CHAMFER_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::seg
#endif  // HWY_ONCE
