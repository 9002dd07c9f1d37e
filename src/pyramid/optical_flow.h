// Sub-pixel copies and the pyramidal Lucas-Kanade tracker: the state record, the kernels'
// signatures and dispatch, and the arithmetic the reference and the vector tails share.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "core/pixel.h"
#include "core/simd.h"
#include "kvlcv.h"
#include "pyramid/optical_flow_members.h"

// The tracker's state: this record (its fields in this order) and one scratch block.
struct KvliOptFlowPyrLKState {
  int32_t roiWidth, roiHeight;  // the largest level-0 image served
  int32_t word;                 // kvl::pyramid::kStateWord
  int32_t dataType;             // kvl8u, kvl16u or kvl32f
  int32_t scratchBytes;         // the size of pScratch
  int32_t hint;                 // stored, not interpreted
  int32_t winSize;
  uint8_t* pScratch;
};

namespace kvl::pyramid {

constexpr int32_t kStateWord = 1;

// The determinant below which a point is lost, and the step-reversal bound of the oscillation
// test (the double and the root of the single-precision epsilon).
constexpr double kDetMin = 2.220446049250313e-16;
constexpr double kOscillation = 0.0003452669770922512;
// Gradients are the Scharr sums times this (the kernel's weights sum to 32).
constexpr float kGradientScale = 0.03125f;

// Every sum of the tracker keeps this many partial sums: element j of a row (counted from the
// summed rectangle's left edge) goes to partial j % kSumLanes. The vector kernels hold the
// partials in lanes, whatever their vector length.
constexpr int kSumLanes = 8;
inline double combineLanes(const double* s) {
  return ((s[0] + s[1]) + (s[2] + s[3])) + ((s[4] + s[5]) + (s[6] + s[7]));
}

// The fractions of a sample position and the four bilinear weights.
struct Subpix {
  float fx, fy;
  float w00, w01, w10, w11;
};
inline Subpix subpixOf(float fx, float fy) {
  const float gx = 1.0f - fx, gy = 1.0f - fy;
  return {fx, fy, gx * gy, fx * gy, gx * fy, fx * fy};
}

// The sample at column x of the rows r0 and r1 (r1 is read only when fy > 0, column x + 1 only
// when fx > 0): terms left to right, each product rounded, zero-weight terms left out.
template <class Src>
inline float sampleAt(const Src* r0, const Src* r1, int x, const Subpix& s) {
  const bool hx = s.fx != 0.0f, hy = s.fy != 0.0f;
  const float a = static_cast<float>(loadAny(r0 + x));
  if (!hx && !hy) return a;
  float v = a * s.w00;
  if (hx) v = v + static_cast<float>(loadAny(r0 + x + 1)) * s.w01;
  if (hy) v = v + static_cast<float>(loadAny(r1 + x)) * s.w10;
  if (hx && hy) v = v + static_cast<float>(loadAny(r1 + x + 1)) * s.w11;
  return v;
}

// ---- Kernels. ----

// Copies w x h samples: dst(x, y) from rows y, y + 1 of src at columns x, x + 1. dst may lie at
// any address (steps in bytes).
template <class Src>
using SubpixFn = void (*)(const Src* src, int srcStep, float* dst, int dstStep, int w, int h,
                          Subpix s);

// The sums over a w x h rectangle between the previous patch (float rows, stride in elements)
// and the next image sampled from `next` (readable: pixels of each next row that may be read
// from `next` on): kError false, out[0] = sum d gx, out[1] = sum d gy with d = prev - sample;
// kError true, out[0] = sum d d (gx, gy unused).
template <class Src>
using SumsFn = void (*)(const Src* next, int nextStep, int readable, Subpix s, const float* prev,
                        int prevStride, const double* gx, const double* gy, int gStride, int w,
                        int h, double* out);

// The gradient sums of a w x h rectangle: gx = ix x kGradientScale, gy likewise (single
// precision, stored as double with stride gStride), out = {sum gx gx, sum gx gy, sum gy gy}.
using MatrixFn = void (*)(const float* ix, const float* iy, int stride, int w, int h, double* gx,
                          double* gy, int gStride, double* out);

template <class Src>
struct FlowKernels {
  static const simd::Kernel<SubpixFn<Src>> subpix;
  static const simd::Kernel<SumsFn<Src>> sums;
  static const simd::Kernel<SumsFn<Src>> error;
};
extern const simd::Kernel<MatrixFn> kMatrix;

namespace ref {
template <class Src>
void subpix(const Src* src, int srcStep, float* dst, int dstStep, int w, int h, Subpix s);
template <class Src, bool kError>
void sums(const Src* next, int nextStep, int readable, Subpix s, const float* prev,
          int prevStride, const double* gx, const double* gy, int gStride, int w, int h,
          double* out);
void matrix(const float* ix, const float* iy, int stride, int w, int h, double* gx, double* gy,
            int gStride, double* out);
}  // namespace ref

#define KVL_OPTFLOW_EXTERN(Src, copySfx, flowSfx, code) extern template struct FlowKernels<Src>;
KVL_OPTFLOW_MEMBERS(KVL_OPTFLOW_EXTERN)
#undef KVL_OPTFLOW_EXTERN

// ---- Geometry. ----

// The integer corner and fraction of a real coordinate: c = floor(v), f = v - c in single
// precision, c + 1 and 0 when that rounds to 1. Coordinates outside +-2^32 (and NaN) are
// refused: no window of an int size can reach an image from there.
struct Corner {
  long long c;
  float f;
};
inline bool cornerOf(float v, Corner* out) {
  if (!(v > -4294967296.0f && v < 4294967296.0f)) return false;
  const float fl = std::floor(v);
  float f = v - fl;
  long long c = static_cast<long long>(fl);
  if (f >= 1.0f) {
    c += 1;
    f = 0.0f;
  }
  *out = {c, f};
  return true;
}

// A rectangle of window coordinates; w or h 0: empty.
struct Span {
  int x, y, w, h;
};
// The window samples (ww x wh, top-left at column c0 + fx, row r0 + fy) whose pixels lie inside
// an image of W x H.
inline Span insideOf(Corner cx, Corner cy, int ww, int wh, int W, int H) {
  auto axis = [](Corner c, int n, int size, int* lo, int* len) {
    const long long first = c.c < 0 ? -c.c : 0;
    long long last = static_cast<long long>(size) - 1 - (c.f != 0.0f ? 1 : 0) - c.c;
    if (last > n - 1) last = n - 1;
    *lo = 0, *len = 0;
    if (last >= first) {
      *lo = static_cast<int>(first);
      *len = static_cast<int>(last - first + 1);
    }
  };
  Span s{};
  axis(cx, ww, W, &s.x, &s.w);
  axis(cy, wh, H, &s.y, &s.h);
  if (s.w == 0 || s.h == 0) return {0, 0, 0, 0};
  return s;
}

inline Span intersect(Span a, Span b) {
  const int x0 = a.x > b.x ? a.x : b.x, y0 = a.y > b.y ? a.y : b.y;
  const int x1 = a.x + a.w < b.x + b.w ? a.x + a.w : b.x + b.w;
  const int y1 = a.y + a.h < b.y + b.h ? a.y + a.h : b.y + b.h;
  if (x1 <= x0 || y1 <= y0) return {0, 0, 0, 0};
  return {x0, y0, x1 - x0, y1 - y0};
}

}  // namespace kvl::pyramid
