// Rectangle standard deviation: validation, the corner rows of every output row, and the row
// stripes of the threaded member.
#include "detect/rect_stddev.h"

#include "core/check.h"
#include "core/parallel.h"
#include "core/pixel.h"
#include "impl_decls.h"

namespace kvl::detect {
namespace {

using check::Step;

// Table element (row, column) relative to the table pointer, rows and columns in 64 bits.
template <class T>
const T* at(const T* t, int step, long long row, long long col) {
  return reinterpret_cast<const T*>(reinterpret_cast<const char*>(t) +
                                    static_cast<std::ptrdiff_t>(row) * step) +
         col;
}

// The four corners of output (y, 0) in the order the rule combines them.
template <bool kTilted, class T>
void cornerRows(const T* t, int step, long long y, KvliRect r, const T* out[4]) {
  if constexpr (kTilted) {
    const long long a = 0LL + r.x + r.y, b = 0LL + r.x - r.y;
    out[0] = at(t, step, y + a + r.width + r.height, b + r.width - r.height);  // P1
    out[1] = at(t, step, y + a + r.height, b - r.height);                      // P2
    out[2] = at(t, step, y + a + r.width, b + r.width);                        // P3
    out[3] = at(t, step, y + a, b);                                            // P4
  } else {
    const long long y0 = y + r.y, y1 = y0 + r.height, x0 = r.x, x1 = x0 + r.width;
    out[0] = at(t, step, y1, x1);
    out[1] = at(t, step, y0, x1);
    out[2] = at(t, step, y0, x0);
    out[3] = at(t, step, y1, x0);
  }
}

template <StdDevRule kRule, bool kTilted, bool kThreaded, class Sum, class Sqr, class Dst>
KvlStatus rectStdDev(const Sum* src, int srcStep, const Sqr* sqr, int sqrStep, Dst* dst,
                     int dstStep, KvliSize roi, KvliRect rect, int scaleFactor) {
  KVL_TRY(check::nonNull(src, sqr, dst));
  KVL_TRY(check::roi(roi));
  // The widest table row the rectangle reaches, in elements.
  const long long e = kTilted ? 0LL + rect.x + rect.y + rect.width + rect.height + roi.width - 1
                              : 0LL + rect.x + rect.width + roi.width;
  KVL_TRY(check::stepsCover(e, Step<Sum>{srcStep}));
  KVL_TRY(check::stepsCover(roi.width, Step<Dst>{dstStep}));
  KVL_TRY(check::stepsCover(e, Step<Sqr>{sqrStep}));
  KVL_TRY(check::stepMultiples(Step<Sum>{srcStep}, Step<Sqr>{sqrStep}, Step<Dst>{dstStep}));
  if (rect.x < 0 || rect.y < 0 || rect.width < 1 || rect.height < 1) return kvlStatusBadArgument;

  const long long n = static_cast<long long>(rect.width) * rect.height * (kTilted ? 2 : 1);
  const StdDevParams p{static_cast<float>(n), static_cast<double>(n), sfsScale(scaleFactor)};
  const StdDevRowFn<Sum, Sqr, Dst> fn = StdDevKernel<kRule, kTilted, Sum, Sqr, Dst>::kernel.pick();
  auto rows = [&](int y0, int count) {
    for (int y = y0; y < y0 + count; ++y) {
      const Sum* s[4];
      const Sqr* q[4];
      cornerRows<kTilted>(src, srcStep, y, rect, s);
      cornerRows<kTilted>(sqr, sqrStep, y, rect, q);
      fn(s, q, rowPtr(dst, dstStep, y), roi.width, p);
    }
  };
  if constexpr (kThreaded) {
    par::runStripes(par::teamRectStdDev(roi), roi.height,
                    [&](const par::Stripe& st) { rows(st.y0, st.rows); }, par::Split::kEven);
  } else {
    rows(0, roi.height);
  }
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::detect

#define KVL_STDDEV_SCALE_PARAM_C1RSfs , int scaleFactor
#define KVL_STDDEV_SCALE_PARAM_C1R
#define KVL_STDDEV_SCALE_VALUE_C1RSfs scaleFactor
#define KVL_STDDEV_SCALE_VALUE_C1R 0

#define KVL_STDDEV(Name, types, Sum, Sqr, Dst, shape, rule, layout, team)                       \
  extern "C" KvlStatus impl_kvli##Name##_##types##_##layout(                                     \
      const Sum* pSrc, int srcStep, const Sqr* pSqr, int sqrStep, Dst* pDst, int dstStep,        \
      KvliSize roiSize, KvliRect rect KVL_STDDEV_SCALE_PARAM_##layout) {                         \
    return kvl::detect::rectStdDev<kvl::detect::StdDevRule::rule, KVL_STDDEV_TILTED_##shape,     \
                                   KVL_STDDEV_THREADED_##team>(                                  \
        pSrc, srcStep, pSqr, sqrStep, pDst, dstStep, roiSize, rect,                              \
        KVL_STDDEV_SCALE_VALUE_##layout);                                                        \
  }
KVL_RECT_STDDEV_MEMBERS(KVL_STDDEV)
#undef KVL_STDDEV
