// Motion history update: the member table and the row kernel's signature.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "core/simd.h"
#include "kvlcv.h"

namespace kvl::pyramid {

// Members, kvliUpdateMotionHistory_<suffix>_C1IR: X(suffix, silhouette type).
// clang-format off
#define KVL_MHI_MEMBERS(X) \
  X(8u32f,  Kvl8u)         \
  X(16u32f, Kvl16u)        \
  X(32f,    Kvl32f)
// clang-format on

// One row of n pixels: a non-zero silhouette value stamps the history with `timestamp`; otherwise
// a history value below `limit` (strictly; NaN never is) becomes 0 and any other stays.
template <class Sil>
using MhiRowFn = void (*)(const Sil* sil, Kvl32f* mhi, int n, float timestamp, float limit);

// The kernel of one member, instantiated for every row of the member table.
template <class Sil>
struct MhiKernel {
  static const simd::Kernel<MhiRowFn<Sil>> kernel;
};

namespace ref {
template <class Sil>
void mhiRow(const Sil* sil, Kvl32f* mhi, int n, float timestamp, float limit);
}  // namespace ref

// The per-pixel rule, shared by the reference and the vector tails. A float silhouette counts as
// set for any value other than +0 and -0, NaN included.
template <class Sil>
inline float mhiUpdate(Sil s, float h, float timestamp, float limit) {
  if (s != Sil{0}) return timestamp;
  return h < limit ? 0.0f : h;
}

#define KVL_MHI_EXTERN(suffix, Sil) extern template struct MhiKernel<Sil>;
KVL_MHI_MEMBERS(KVL_MHI_EXTERN)
#undef KVL_MHI_EXTERN

}  // namespace kvl::pyramid
