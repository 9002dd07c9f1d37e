// Scalar reference kernels of the row and column passes: one general path for every kernel length.
#include "core/pixel.h"
#include "filter/pipeline.h"

namespace kvl::filter::ref {
namespace {

template <class Src, class Dst, class Ker>
void rowInt(const Src* e, Dst* out, int n, int stride, const Ker* kernel, int K, float recip) {
  for (int i = 0; i < n; ++i)
    storeAny(out + i,
             rowConvert<Dst>(static_cast<float>(intSum(e + i, stride, kernel, K)) * recip));
}

// The column pass: elements below columnBodyEnd(n) round to nearest (ties to even), the rest
// truncate toward zero.
template <class Src, class Dst, class Ker>
void columnInt(const Src* const* rows, Dst* out, int n, const Ker* kernel, int K, float recip) {
  const int body = columnBodyEnd(n);
  for (int i = 0; i < n; ++i) {
    const int32_t s = columnIntSum(rows, i, kernel, K);
    storeAny(out + i,
             i < body ? columnConvertGroup<Dst>(s, recip) : columnConvertTail<Dst>(s, recip));
  }
}

}  // namespace

void row8u16s(const Kvl8u* e, Kvl16s* out, int n, int stride, const Kvl16s* kernel, int K,
              float recip) {
  rowInt(e, out, n, stride, kernel, K, recip);
}
void row16s(const Kvl16s* e, Kvl16s* out, int n, int stride, const Kvl16s* kernel, int K,
            float recip) {
  rowInt(e, out, n, stride, kernel, K, recip);
}
void row16u(const Kvl16u* e, Kvl16u* out, int n, int stride, const Kvl16u* kernel, int K,
            float recip) {
  for (int i = 0; i < n; ++i)
    storeAny(out + i, rowConvert<Kvl16u>(floatSum(e + i, stride, kernel, K) * recip));
}
void row32f(const Kvl32f* e, Kvl32f* out, int n, int stride, const Kvl32f* kernel, int K, float) {
  for (int i = 0; i < n; ++i) storeAny(out + i, floatSum(e + i, stride, kernel, K));
}

void column16s(const Kvl16s* const* rows, Kvl16s* out, int n, const Kvl16s* kernel, int K,
               float recip) {
  columnInt(rows, out, n, kernel, K, recip);
}
void column16s8u(const Kvl16s* const* rows, Kvl8u* out, int n, const Kvl16s* kernel, int K,
                 float recip) {
  columnInt(rows, out, n, kernel, K, recip);
}
void column16s8s(const Kvl16s* const* rows, Kvl8s* out, int n, const Kvl16s* kernel, int K,
                 float recip) {
  columnInt(rows, out, n, kernel, K, recip);
}
void column16u(const Kvl16u* const* rows, Kvl16u* out, int n, const Kvl16u* kernel, int K,
               float recip) {
  columnInt(rows, out, n, kernel, K, recip);
}
void column32f(const Kvl32f* const* rows, Kvl32f* out, int n, const Kvl32f* kernel, int K, float) {
  for (int i = 0; i < n; ++i) storeAny(out + i, columnFloatSum(rows, i, kernel, K));
}

}  // namespace kvl::filter::ref
