// Scalar reference kernels of the sub-pixel copies and the tracker's sums: the rules written out
// plainly. They are the test oracle and the fallback below SSE4.
#include "core/pixel.h"
#include "pyramid/optical_flow.h"

namespace kvl::pyramid::ref {

template <class Src>
void subpix(const Src* src, int srcStep, float* dst, int dstStep, int w, int h, Subpix s) {
  for (int y = 0; y < h; ++y) {
    const Src* r0 = rowPtr(src, srcStep, y);
    const Src* r1 = rowPtr(src, srcStep, y + 1);
    float* out = rowPtr(dst, dstStep, y);
    for (int x = 0; x < w; ++x) storeAny(out + x, sampleAt(r0, r1, x, s));
  }
}

template <class Src, bool kError>
void sums(const Src* next, int nextStep, int, Subpix s, const float* prev, int prevStride,
          const double* gx, const double* gy, int gStride, int w, int h, double* out) {
  double a[kSumLanes] = {}, b[kSumLanes] = {};
  for (int y = 0; y < h; ++y) {
    const Src* r0 = rowPtr(next, nextStep, y);
    const Src* r1 = rowPtr(next, nextStep, y + 1);
    const float* p = prev + static_cast<std::ptrdiff_t>(y) * prevStride;
    for (int x = 0; x < w; ++x) {
      const double d = static_cast<double>(p[x] - sampleAt(r0, r1, x, s));
      if constexpr (kError) {
        a[x % kSumLanes] += d * d;
      } else {
        const std::ptrdiff_t g = static_cast<std::ptrdiff_t>(y) * gStride + x;
        a[x % kSumLanes] += d * gx[g];
        b[x % kSumLanes] += d * gy[g];
      }
    }
  }
  out[0] = combineLanes(a);
  if constexpr (!kError) out[1] = combineLanes(b);
}

void matrix(const float* ix, const float* iy, int stride, int w, int h, double* gx, double* gy,
            int gStride, double* out) {
  double xx[kSumLanes] = {}, xy[kSumLanes] = {}, yy[kSumLanes] = {};
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const double u = static_cast<double>(ix[static_cast<std::ptrdiff_t>(y) * stride + x] * kGradientScale);
      const double v = static_cast<double>(iy[static_cast<std::ptrdiff_t>(y) * stride + x] * kGradientScale);
      gx[static_cast<std::ptrdiff_t>(y) * gStride + x] = u;
      gy[static_cast<std::ptrdiff_t>(y) * gStride + x] = v;
      xx[x % kSumLanes] += u * u;
      xy[x % kSumLanes] += u * v;
      yy[x % kSumLanes] += v * v;
    }
  }
  out[0] = combineLanes(xx);
  out[1] = combineLanes(xy);
  out[2] = combineLanes(yy);
}

#define KVL_INSTANTIATE(Src, copySfx, flowSfx, code)                                           \
  template void subpix<Src>(const Src*, int, float*, int, int, int, Subpix);                    \
  template void sums<Src, false>(const Src*, int, int, Subpix, const float*, int, const double*, \
                                 const double*, int, int, int, double*);                        \
  template void sums<Src, true>(const Src*, int, int, Subpix, const float*, int, const double*,  \
                                const double*, int, int, int, double*);
KVL_OPTFLOW_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::pyramid::ref
