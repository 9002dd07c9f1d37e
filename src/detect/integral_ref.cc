// Scalar reference kernels of the integral images: the table rules written out plainly.
#include "core/pixel.h"
#include "detect/integral.h"

namespace kvl::detect::ref {
namespace {

template <class T>
void fillRow(T* row, int n, T v) {
  for (int x = 0; x < n; ++x) storeAny(row + x, v);
}

// Row y+1 of an upright table from source row y and table row y: column 0 is val, then the
// running sum of the row plus the value above.
template <class Src, class T, class Term>
void uprightRow(const Src* s, const T* above, T* out, int w, T val, Term termOf) {
  Running<Src, T> r = 0;
  storeAny(out, val);
  for (int x = 0; x < w; ++x) {
    if constexpr (std::is_floating_point_v<Src>) {
      r += loadAny(s + x);
    } else {
      r += termOf(s[x]);
    }
    storeAny(out + x + 1, withAbove(r, loadAny(above + x + 1)));
  }
}

// Row y+2 of a tilted table from source row y and table rows y+1 (up) and y (up2).
template <class T, class Term>
void tiltedRow(const Kvl8u* s, const T* up, const T* up2, T* out, int w, Term termOf) {
  auto at = [](const T* row, int x) { return loadAny(row + x); };
  storeAny(out, at(up, 1));
  auto element = [&](int x, uint32_t pix) {
    storeAny(out + x, tilted(pix, at(up, x - 1), at(up, x + 1), at(up2, x)));
  };
  for (int x = 1; x <= w - 1; ++x) element(x, termOf(s[x - 1]) + termOf(s[x]));
  element(w, termOf(s[w - 1]));
  storeAny(out + w + 1, at(up, w));
}

template <class Src, class T, Shape kShape, class Term>
void table(const Src* src, int srcStep, T* t, int step, int w, int h, T val, Term termOf) {
  constexpr int kPad = kShape == Shape::kUpright ? 1 : 2;
  for (int y = 0; y < kPad; ++y) fillRow(rowPtr(t, step, y), w + kPad, val);
  for (int y = 0; y < h; ++y) {
    const Src* s = rowPtr(src, srcStep, y);
    if constexpr (kShape == Shape::kUpright) {
      uprightRow(s, rowPtr(t, step, y), rowPtr(t, step, y + 1), w, val, termOf);
    } else {
      tiltedRow(s, rowPtr(t, step, y + 1), rowPtr(t, step, y), rowPtr(t, step, y + 2), w, termOf);
    }
  }
}

}  // namespace

template <class Src, class Sum, class Sqr, Shape kShape>
void integral(const Src* src, int srcStep, Sum* sum, int sumStep, SqrElem<Sqr>* sqr, int sqrStep,
              int w, int h, Sum val, SqrElem<Sqr> valSqr) {
  table<Src, Sum, kShape>(src, srcStep, sum, sumStep, w, h, val, [](Src v) { return term(v); });
  if constexpr (!std::is_void_v<Sqr>) {
    table<Src, Sqr, kShape>(src, srcStep, sqr, sqrStep, w, h, valSqr,
                            [](Src v) { return square(v); });
  }
}

#define KVL_INSTANTIATE(Name, types, Src, Sum, Sqr, shape, form)                              \
  template void integral<Src, Sum, Sqr, Shape::k##shape>(const Src*, int, Sum*, int,          \
                                                          SqrElem<Sqr>*, int, int, int, Sum, \
                                                          SqrElem<Sqr>);
KVL_INTEGRAL_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::detect::ref
