// Fixed derivative and smoothing filters with border: kernel tables, the per-call job, the
// kernels' dispatch, the arithmetic the reference and the vector kernels share, and the internal
// Sobel members.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "core/border.h"
#include "core/pixel.h"
#include "core/simd.h"
#include "filter/column_rule.h"
#include "filter/deriv_members.h"
#include "kvlcv.h"

namespace kvl::filter::deriv {

// ---- Kernel tables (taps applied as a correlation: tap 0 multiplies the leftmost / topmost
// pixel). ----
constexpr Kvl16s kerSobel_3_16s[3] = {1, 2, 1};
constexpr Kvl16s kerSobel_5_16s[5] = {1, 4, 6, 4, 1};
constexpr Kvl16s kerDx_3_16s[3] = {-1, 0, 1};
constexpr Kvl16s kerDx_5_16s[5] = {-1, -2, 0, 2, 1};
constexpr Kvl16s kerDxNeg_3_16s[3] = {1, 0, -1};
constexpr Kvl16s kerDxNeg_5_16s[5] = {1, 2, 0, -2, -1};
constexpr Kvl16s kerD2x_3_16s[3] = {1, -2, 1};
constexpr Kvl16s kerD2x_5_16s[5] = {1, 0, -2, 0, 1};
constexpr Kvl16s kerScharr_3_16s[3] = {3, 10, 3};
constexpr Kvl16s kerAvr_3_16s[3] = {1, 1, 1};
constexpr Kvl16s kerAvr_5_16s[5] = {1, 1, 1, 1, 1};
constexpr Kvl16s kerLap_3_16s[3] = {1, 0, 1};

// A kernel of n taps (3 or 5) as integers; the 16s and 32f tables above hold the same values.
struct Taps {
  int n;
  int k[5];
};

template <class T, size_t N>
constexpr Taps taps(const T (&t)[N]) {
  Taps r{static_cast<int>(N), {0, 0, 0, 0, 0}};
  for (size_t i = 0; i < N; ++i) r.k[i] = static_cast<int>(t[i]);
  return r;
}

// The 3x3 Laplacian is 2 x (kerLap rows, kerLap columns) - 8 x centre, which is the kernel
// [2 0 2; 0 -8 0; 2 0 2]; the 5x5 one adds a second pair.
constexpr int pairsOf(Kind k, int K) { return (k == Kind::kLaplacian && K == 5) ? 2 : 1; }
// The 3x3 Laplacian's column step adds the centre pixel to the kerLap pair.
constexpr bool centreForm(Kind k, int K) { return k == Kind::kLaplacian && K == 3; }

constexpr Taps rowTaps(Kind k, int K, int pair) {
  const bool five = K == 5;
  switch (k) {
    case Kind::kSobelHoriz:
    case Kind::kSobelHorizSecond: return five ? taps(kerSobel_5_16s) : taps(kerSobel_3_16s);
    case Kind::kSobelNegVert:
    case Kind::kSobelCross: return five ? taps(kerDxNeg_5_16s) : taps(kerDxNeg_3_16s);
    case Kind::kSobelDx: return five ? taps(kerDx_5_16s) : taps(kerDx_3_16s);
    case Kind::kSobelVertSecond: return five ? taps(kerD2x_5_16s) : taps(kerD2x_3_16s);
    case Kind::kScharrHoriz: return taps(kerScharr_3_16s);
    case Kind::kScharrVert: return taps(kerDx_3_16s);
    case Kind::kLaplacian:
      if (!five) return taps(kerLap_3_16s);
      return pair == 0 ? taps(kerD2x_5_16s) : taps(kerSobel_5_16s);
    case Kind::kLowpass: return five ? taps(kerAvr_5_16s) : taps(kerAvr_3_16s);
    default: return Taps{0, {0, 0, 0, 0, 0}};
  }
}

constexpr Taps colTaps(Kind k, int K, int pair) {
  const bool five = K == 5;
  switch (k) {
    case Kind::kSobelHoriz:
    case Kind::kSobelCross:
    case Kind::kScharrHoriz: return five ? taps(kerDx_5_16s) : taps(kerDx_3_16s);
    case Kind::kSobelNegVert:
    case Kind::kSobelDx:
    case Kind::kSobelVertSecond: return five ? taps(kerSobel_5_16s) : taps(kerSobel_3_16s);
    case Kind::kSobelHorizSecond: return five ? taps(kerD2x_5_16s) : taps(kerD2x_3_16s);
    case Kind::kScharrVert: return taps(kerScharr_3_16s);
    case Kind::kLaplacian:
      if (!five) return taps(kerLap_3_16s);  // used as 2 x (T(y-1) + T(y+1)) - 8 x centre
      return pair == 0 ? taps(kerSobel_5_16s) : taps(kerD2x_5_16s);
    case Kind::kLowpass: return five ? taps(kerAvr_5_16s) : taps(kerAvr_3_16s);
    default: return Taps{0, {0, 0, 0, 0, 0}};
  }
}

// One call (or one thread's stripe) of a filter. src and dst address row 0 of the ROI; the
// kernel writes rows y0 .. y0 + rows - 1. Rows outside 0 .. height-1 come from the border rule in
// image coordinates, so a stripe computes exactly the rows the whole-image call would.
struct Job {
  const void* src;
  int srcStep;
  void* dst;
  int dstStep;
  int width, height;
  int y0, rows;
  int borderType;  // mode 6 already rewritten to the four flags
  float value;     // border value (8u values are exact in float)
  float recip;     // 1 / divisor for the 8s and 8u outputs
  int dstY0;       // the row number dst points at (0: the ROI's first row)
  void* buffer;    // this stripe's work memory
  long long bufferBytes;
  bool stream;     // outputs larger than the caches: store 16s/32f rows around the caches
  int prefetchRows;  // source rows fetched ahead of the row pass (0: none)
};
using Fn = void (*)(const Job&);

// ---- The kernels: one per (kind, kernel length, output) that a member or another family uses,
// derived from the member table. ----
struct KernelKey {
  Kind kind;
  int K;  // 3 or 5
  Out out;
  constexpr bool operator==(const KernelKey&) const = default;
};

// Kernels other families run without a member of their own: Canny's horizontal derivative.
#define KVL_DERIV_EXTRA_KERNELS(X) X(kSobelDx, 3, k16s) X(kSobelDx, 5, k16s)

namespace detail {
// Each member needs its kind and output at K = 3, and at K = 5 unless it is always 3x3.
#define KVL_DERIV_KEYS_OF(Name, types, kind, out, args)                            \
  KernelKey{Kind::kind, 3, Out::out},                                             \
      KernelKey{Kind::kind, Args::args == Args::NoMask ? 3 : 5, Out::out},
#define KVL_DERIV_EXTRA_KEY(kind, K, out) KernelKey{Kind::kind, K, Out::out},
inline constexpr KernelKey kAllKeys[] = {KVL_DERIV_MEMBERS(KVL_DERIV_KEYS_OF)
                                             KVL_DERIV_EXTRA_KERNELS(KVL_DERIV_EXTRA_KEY)};
#undef KVL_DERIV_KEYS_OF
#undef KVL_DERIV_EXTRA_KEY
constexpr bool firstOf(size_t i) {
  for (size_t j = 0; j < i; ++j)
    if (kAllKeys[j] == kAllKeys[i]) return false;
  return true;
}
constexpr size_t countDistinct() {
  size_t n = 0;
  for (size_t i = 0; i < std::size(kAllKeys); ++i) n += firstOf(i) ? 1 : 0;
  return n;
}
}  // namespace detail

// The distinct kernels, in table order.
inline constexpr size_t kNumKernels = detail::countDistinct();
inline constexpr std::array<KernelKey, kNumKernels> kKernels = [] {
  std::array<KernelKey, kNumKernels> r{};
  size_t n = 0;
  for (size_t i = 0; i < std::size(detail::kAllKeys); ++i)
    if (detail::firstOf(i)) r[n++] = detail::kAllKeys[i];
  return r;
}();
constexpr int kernelIndex(KernelKey k) {
  for (size_t i = 0; i < kNumKernels; ++i)
    if (kKernels[i] == k) return static_cast<int>(i);
  return -1;
}

// The kernels are compiled in one file per unit (deriv_simd_<u>.cc), unit u holding the kernels
// [unitBegin(u), unitBegin(u + 1)), so no file takes long to compile. Each file defines kUnit<u>.
#define KVL_DERIV_UNITS(X) X(0) X(1) X(2) X(3) X(4) X(5) X(6) X(7)
#define KVL_DERIV_UNIT_DECLARE(u) extern const simd::Kernel<Fn>* const kUnit##u;
KVL_DERIV_UNITS(KVL_DERIV_UNIT_DECLARE)
#undef KVL_DERIV_UNIT_DECLARE
#define KVL_DERIV_UNIT_COUNT(u) +1
inline constexpr int kUnits = 0 KVL_DERIV_UNITS(KVL_DERIV_UNIT_COUNT);
#undef KVL_DERIV_UNIT_COUNT
constexpr int unitBegin(int u) { return static_cast<int>(kNumKernels * u / kUnits); }
constexpr int unitOf(int index) {
  int u = 0;
  while (u + 1 < kUnits && index >= unitBegin(u + 1)) ++u;
  return u;
}

// The kernel of a key.
inline const simd::Kernel<Fn>& kernelFor(KernelKey k) {
#define KVL_DERIV_UNIT_POINTER(u) kUnit##u,
  static const simd::Kernel<Fn>* const units[kUnits] = {KVL_DERIV_UNITS(KVL_DERIV_UNIT_POINTER)};
#undef KVL_DERIV_UNIT_POINTER
  const int i = kernelIndex(k);
  return units[unitOf(i)][i - unitBegin(unitOf(i))];
}

// ---- Arithmetic shared by the reference and the vector kernels' edge pixels. ----

// Work type of the intermediate rows: 16-bit for 8u sources, float for 32f.
template <class Src>
using Work = std::conditional_t<std::is_same_v<Src, Kvl32f>, float, Kvl16s>;
// Accumulator of sums: int for 8u sources (every sum fits 16 bits), float for 32f.
template <class Src>
using Acc = std::conditional_t<std::is_same_v<Src, Kvl32f>, float, int>;

// Sum of k[i] x v(i) over the non-zero taps, left to right: the first non-zero tap starts the
// sum, each further one is added. Float paths depend on this order.
template <class A, class V>
inline A tapSum(const Taps& t, V&& v) {
  A s{};
  bool first = true;
  for (int i = 0; i < t.n; ++i) {
    if (t.k[i] == 0) continue;
    const A p = static_cast<A>(t.k[i]) * static_cast<A>(v(i));
    s = first ? p : static_cast<A>(s + p);
    first = false;
  }
  return s;
}

using border::kConstant;
using border::sourceRow;

// Row pass at pixel x with the border rule (edges and narrow rows).
template <class Src>
inline Work<Src> rowAtEdge(const Taps& a, const Src* row, int x, int w, int bt, Src value) {
  const int c = a.n / 2;
  return static_cast<Work<Src>>(
      tapSum<Acc<Src>>(a, [&](int i) { return border::pixelAt<Src>(row, x + i - c, w, bt, value); }));
}

// Row pass of a constant row (the rows above and below for the constant border).
template <class Src>
inline Work<Src> rowOfConstant(const Taps& a, Src value) {
  return static_cast<Work<Src>>(tapSum<Acc<Src>>(a, [&](int) { return value; }));
}

// The 3x3 Laplacian's column step: 2 x (T(y-1) + T(y+1)) - 8 x centre.
template <class A>
inline A centreColumn(A t0, A t2, A centre) {
  return static_cast<A>(static_cast<A>(static_cast<A>(t0 + t2) * static_cast<A>(2)) -
                        static_cast<A>(centre * static_cast<A>(8)));
}

// Stores one output element at any address; x decides between the group and the tail conversion.
template <Out kOut, class A>
inline void storeOut(void* dstRow, int x, A s, int bodyEnd, float recip) {
  if constexpr (kOut == Out::k16s) {
    storeAny(static_cast<Kvl16s*>(dstRow) + x, static_cast<Kvl16s>(s));
  } else if constexpr (kOut == Out::k32f) {
    storeAny(static_cast<Kvl32f*>(dstRow) + x, static_cast<Kvl32f>(s));
  } else {
    using D = std::conditional_t<kOut == Out::k8s, Kvl8s, Kvl8u>;
    static_cast<D*>(dstRow)[x] = x < bodyEnd ? columnConvertGroup<D>(static_cast<int>(s), recip)
                                             : columnConvertTail<D>(static_cast<int>(s), recip);
  }
}

// Columns of the work buffer per tile: each tile keeps pairs x K rows of Work elements. Tiles
// keep the ring within the first-level caches; the buffer decides the largest tile.
constexpr long long kRingTarget = 256 * 1024;
// Source rows are prefetched this many rows ahead of the row pass: on large images the
// hardware prefetcher alone leaves the loads waiting on memory (measured on 4K frames; 2 rows
// is too close for 32f, 16 too far).
constexpr int kPrefetchRows = 4;
// Rows per band when a row is split into tiles: the band's source rows stay in the second-level
// cache while the tiles after the first read them again.
constexpr long long kBandBytes = 256 * 1024;
inline int bandRows(int width, int srcBytes, int rows) {
  long long b = kBandBytes / (static_cast<long long>(width) * srcBytes);
  if (b < 16) b = 16;
  return b > rows ? rows : static_cast<int>(b);
}
inline int tileWidth(const Job& j, int K, int pairs, int workBytes) {
  const long long perCol = static_cast<long long>(pairs) * K * workBytes;
  long long usable = j.bufferBytes - 32;  // slack for aligning the ring to 32 bytes
  long long t = usable / perCol;
  const long long cap = kRingTarget / perCol;
  if (t > cap) t = cap;
  if (t >= 64) t -= t % 64;
  if (t > j.width) t = j.width;
  return t < 1 ? 1 : static_cast<int>(t);
}

}  // namespace kvl::filter::deriv

// ---- The four first-derivative Sobel members computed by the general fixed-kernel filter.
// Not exported (members of the table with args General). They run on the calling thread and
// validate in their own order: null pointers, ROI size, step multiples (the steps are not
// compared with the width), mask (33, 55), then the border type (modes 0, 1, 3, 4, 6 with flags,
// nothing above 255), all but the mask failing with kvlStatusBadArgument. SobelVert is the left
// column minus the right column, SobelHoriz the row below minus the row above. Buffer: 8u16s
// align32(mask 33 ? 3M + 6 : 7M + 28) + 32 bytes, 32f four times that count before alignment,
// M = max(width, height). ----
#define KVL_DERIV_DECLARE_General(Name, types, out)                                            \
  KvlStatus kvliFilter##Name##Border_##types##_C1R(KVL_DERIV_PARAMS(out, General));             \
  KvlStatus kvliFilter##Name##GetBufferSize_##types##_C1R(KvliSize roiSize, KvliMaskSize mask,  \
                                                           int* pBufferSize);
#define KVL_DERIV_DECLARE_Mask(Name, types, out)
#define KVL_DERIV_DECLARE_NoMask(Name, types, out)
#define KVL_DERIV_DECLARE(Name, types, kind, out, args) KVL_DERIV_DECLARE_##args(Name, types, out)
KVL_DERIV_MEMBERS(KVL_DERIV_DECLARE)
#undef KVL_DERIV_DECLARE
