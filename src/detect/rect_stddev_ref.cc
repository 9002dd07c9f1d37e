// Scalar reference kernel of the rectangle standard deviation.
#include "detect/rect_stddev.h"

namespace kvl::detect::ref {

template <StdDevRule kRule, bool kTilted, class Sum, class Sqr, class Dst>
void stdDevRow(const Sum* const* s, const Sqr* const* q, Dst* dst, int n, const StdDevParams& p) {
  for (int x = 0; x < n; ++x) storeAny(dst + x, stdDev<kRule, kTilted, Sum, Sqr, Dst>(s, q, x, p));
}

#define KVL_INSTANTIATE(Name, types, Sum, Sqr, Dst, shape, rule, layout, team)                \
  template void stdDevRow<StdDevRule::rule, KVL_STDDEV_TILTED_##shape, Sum, Sqr, Dst>(        \
      const Sum* const*, const Sqr* const*, Dst*, int, const StdDevParams&);
KVL_RECT_STDDEV_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::detect::ref
