// Exact Euclidean distance transform: the constants, the buffer layout and the kernels shared by
// the family, its reference and its vector code.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/simd.h"
#include "kvlcv.h"
#include "seg/dist_exact_members.h"

namespace kvl::seg {

// The largest finite float: the squared distance of a column without a feature pixel, and the
// outer boundaries of the lower envelope.
constexpr float kFarSq = 3.4028235e38f;

// A column count no distance reaches: the column pass counts steps from the last feature pixel
// and stops counting here, which stands for "no feature pixel on this side".
constexpr int32_t kNoFeature = 0x7fffffff;

// The column pass works on blocks of this many columns: both of its passes over a block run
// while the block's destination rows are still in the core's cache.
constexpr int kColumnBlock = 64;

// One thread's share of the work buffer: (24 * max(align4(width), align4(height)) + 56) bytes.
inline long long exactBytesPerThread(KvliSize roi) {
  const long long w4 = (static_cast<long long>(roi.width) + 3) / 4 * 4;
  const long long h4 = (static_cast<long long>(roi.height) + 3) / 4 * 4;
  return 24 * (w4 > h4 ? w4 : h4) + 56;
}

// The squared distance of a step count: q * q rounded to float, the far value without a feature.
inline float squaredSteps(int32_t q) {
  return q >= kNoFeature ? kFarSq : static_cast<float>(q) * static_cast<float>(q);
}

// Column pass over columns [0, n) of a block: every destination pixel receives the squared
// vertical distance to the nearest zero source pixel of its column (kFarSq when the column has
// none). `count` holds n step counters.
using ColumnPassFn = void (*)(const Kvl8u* src, int srcStep, Kvl32f* dst, int dstStep, int n,
                              int height, int32_t* count);
extern const simd::Kernel<ColumnPassFn> kColumnPass;

// A parabola of the lower envelope: its vertex p, the column-pass value f(p) there, sq[p], and
// the boundary z where it starts.
struct Parabola {
  int32_t p;
  float f;
  float sq;
  float z;
};
// The per-thread scratch of the row pass, laid out in the thread's part of the work buffer.
// sq[q] = q * q rounded to float is computed where it is needed (the product of two exact
// floats), so only the reciprocals are a table.
struct EnvelopeScratch {
  float* recip;        // recip[d] = 1 / (2 d), 0 < d < width
  Parabola* envelope;  // width entries
};
// Lays the scratch out in `part` (at least exactBytesPerThread bytes) and fills the table.
EnvelopeScratch envelopeScratch(uint8_t* part, int width);

// Row pass of one row in place: the lower envelope of the parabolas over the row's column-pass
// values, leaving the squared distances; sqrtRow then takes their square roots.
void envelopeRow(Kvl32f* row, int width, const EnvelopeScratch& s);
using SqrtRowFn = void (*)(Kvl32f* row, int width);
extern const simd::Kernel<SqrtRowFn> kSqrtRow;

namespace ref {
void columnPass(const Kvl8u* src, int srcStep, Kvl32f* dst, int dstStep, int n, int height,
                int32_t* count);
void sqrtRow(Kvl32f* row, int width);
}  // namespace ref

}  // namespace kvl::seg
