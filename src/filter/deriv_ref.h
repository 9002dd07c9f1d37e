// Scalar reference of the derivative filters: every output pixel from the row pass of the K rows
// around it, written out literally. It is the test oracle and the fallback below SSE4.
#pragma once

#include <algorithm>
#include <type_traits>

#include "core/pixel.h"
#include "filter/deriv.h"

namespace kvl::filter::deriv::ref {

template <Kind kKind, int kK, Out kOut>
void kernel(const Job& j) {
  using Src = std::conditional_t<kOut == Out::k32f, Kvl32f, Kvl8u>;
  using W = Work<Src>;
  using A = Acc<Src>;
  constexpr int kPairs = pairsOf(kKind, kK);
  constexpr int c = kK / 2;
  const int w = j.width;
  const Src value = static_cast<Src>(j.value);
  const int tw = tileWidth(j, kK, kPairs, sizeof(W));
  W* ring = static_cast<W*>(alignUp(j.buffer, 32));
  const int bodyEnd = columnBodyEnd(w);
  auto srcRow = [&](int y) { return rowPtr(static_cast<const Src*>(j.src), j.srcStep, y); };
  for (int x0 = 0; x0 < w; x0 += tw) {
    const int n = std::min(tw, w - x0);
    for (int y = j.y0; y < j.y0 + j.rows; ++y) {
      // Row pass of the K rows around y (rows outside the image by the column rule).
      for (int p = 0; p < kPairs; ++p) {
        const Taps a = rowTaps(kKind, kK, p);
        for (int r = 0; r < kK; ++r) {
          W* t = ring + (p * kK + r) * tw;
          const int sy = sourceRow(y + r - c, j.height, j.borderType);
          for (int x = 0; x < n; ++x)
            t[x] = sy == kConstant
                       ? rowOfConstant<Src>(a, value)
                       : rowAtEdge<Src>(a, srcRow(sy), x0 + x, w, j.borderType, value);
        }
      }
      // Column pass.
      void* out = rowPtr(static_cast<char*>(j.dst), j.dstStep, y - j.dstY0);
      for (int x = 0; x < n; ++x) {
        A s;
        if constexpr (centreForm(kKind, kK)) {
          const A centre = static_cast<A>(loadAny(srcRow(y) + x0 + x));
          s = centreColumn<A>(ring[x], ring[2 * tw + x], centre);
        } else {
          s = tapSum<A>(colTaps(kKind, kK, 0), [&](int r) { return ring[r * tw + x]; });
          if constexpr (kPairs == 2) {
            const A s2 =
                tapSum<A>(colTaps(kKind, kK, 1), [&](int r) { return ring[(kK + r) * tw + x]; });
            s = static_cast<A>(s + s2);
          }
        }
        storeOut<kOut, A>(out, x0 + x, s, bodyEnd, j.recip);
      }
    }
  }
}

}  // namespace kvl::filter::deriv::ref
