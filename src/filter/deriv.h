// Fixed derivative and smoothing filters with border: kernel tables, the per-call job, the
// shared scalar arithmetic, the kernel tables per target and the internal Sobel members.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

#include "core/border.h"
#include "filter/column_rule.h"
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
constexpr Kvl32f kerSobel_3_32f[3] = {1, 2, 1};
constexpr Kvl32f kerSobel_5_32f[5] = {1, 4, 6, 4, 1};
constexpr Kvl32f kerDx_3_32f[3] = {-1, 0, 1};
constexpr Kvl32f kerDx_5_32f[5] = {-1, -2, 0, 2, 1};
constexpr Kvl32f kerDxNeg_3_32f[3] = {1, 0, -1};
constexpr Kvl32f kerDxNeg_5_32f[5] = {1, 2, 0, -2, -1};
constexpr Kvl32f kerD2x_3_32f[3] = {1, -2, 1};
constexpr Kvl32f kerD2x_5_32f[5] = {1, 0, -2, 0, 1};
constexpr Kvl32f kerScharr_3_32f[3] = {3, 10, 3};
constexpr Kvl32f kerAvr_3_32f[3] = {1, 1, 1};
constexpr Kvl32f kerAvr_5_32f[5] = {1, 1, 1, 1, 1};
constexpr Kvl32f kerLap_3_32f[3] = {1, 0, 1};

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

// The filters. Each is a row kernel A followed by a column kernel B; the 5x5 Laplacian adds a
// second pair, and the 3x3 Laplacian is 2 x (kerLap rows, kerLap columns) - 8 x centre, which
// is the kernel [2 0 2; 0 -8 0; 2 0 2].
enum class Kind : int {
  kSobelHoriz,        // kerSobel rows, kerDx columns: row below minus row above
  kSobelNegVert,      // kerDxNeg rows, kerSobel columns: left column minus right column
  kSobelHorizSecond,  // kerSobel rows, kerD2x columns
  kSobelVertSecond,   // kerD2x rows, kerSobel columns
  kSobelCross,        // kerDxNeg rows, kerDx columns
  kScharrHoriz,       // kerScharr rows, kerDx columns
  kScharrVert,        // kerDx rows, kerScharr columns
  kLaplacian,
  kLowpass,           // kerAvr rows and columns
  kCount
};

// Output element of a member: the integer members keep 16-bit sums (16s), divide and saturate
// (8s, and 8u for the lowpass), or store single precision sums (32f).
enum class Out : int { k16s, k8s, k8u, k32f, kCount };

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

// Which (kind, kernel length, output) combinations exist.
constexpr bool exists(Kind k, int K, Out o) {
  if ((k == Kind::kScharrHoriz || k == Kind::kScharrVert) && K != 3) return false;
  if (k == Kind::kLowpass) return o == Out::k8u || o == Out::k32f;
  return o != Out::k8u;
}

constexpr int kNumKernels = static_cast<int>(Kind::kCount) * 2 * static_cast<int>(Out::kCount);
constexpr int kernelIndex(Kind k, int K, Out o) {
  return (static_cast<int>(k) * 2 + (K == 5 ? 1 : 0)) * static_cast<int>(Out::kCount) +
         static_cast<int>(o);
}
constexpr Kind kindOf(int i) { return static_cast<Kind>(i / (2 * static_cast<int>(Out::kCount))); }
constexpr int lengthOf(int i) { return (i / static_cast<int>(Out::kCount)) % 2 ? 5 : 3; }
constexpr Out outOf(int i) { return static_cast<Out>(i % static_cast<int>(Out::kCount)); }

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
  void* buffer;    // this stripe's work memory
  long long bufferBytes;
  bool stream;     // outputs larger than the caches: store 16s/32f rows around the caches
  int prefetchRows;  // source rows fetched ahead of the row pass (0: none)
};
using Fn = void (*)(const Job&);

// Per-target kernel tables ({AVX3, AVX2, SSE4}), indexed by kernelIndex; null where no member.
extern const Fn* const kTargets[3];
// The scalar reference kernels, the same index.
extern const Fn* const kRef;

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

constexpr int kConstRow = std::numeric_limits<int>::min();

// The image row a virtual row yy reads: itself inside the image or on a side in memory, the
// folded row for modes 1..4, or kConstRow for the constant border.
inline int sourceRow(int yy, int h, int bt) {
  if (yy >= 0 && yy < h) return yy;
  if (yy < 0 && (bt & kvlBorderInMemTop)) return yy;
  if (yy >= h && (bt & kvlBorderInMemBottom)) return yy;
  const int mode = bt & 15;
  if (mode == kvlBorderConst) return kConstRow;
  return border::mapIndex(yy, h, mode);
}

// Pixel x of a row extended by the row rule (memory on flagged sides).
template <class Src>
inline Src pixelAt(const Src* row, int x, int w, int bt, Src value) {
  if (x >= 0 && x < w) return row[x];
  if ((x < 0 && (bt & kvlBorderInMemLeft)) || (x >= w && (bt & kvlBorderInMemRight)))
    return row[x];
  const int mode = bt & 15;
  if (mode == kvlBorderConst) return value;
  return row[border::mapIndex(x, w, mode)];
}

// Row pass at pixel x with the border rule (edges and narrow rows).
template <class Src>
inline Work<Src> rowAtEdge(const Taps& a, const Src* row, int x, int w, int bt, Src value) {
  const int c = a.n / 2;
  return static_cast<Work<Src>>(
      tapSum<Acc<Src>>(a, [&](int i) { return pixelAt<Src>(row, x + i - c, w, bt, value); }));
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

// Stores one output element; x decides between the group and the tail conversion.
template <Out kOut, class A>
inline void storeOut(void* dstRow, int x, A s, int bodyEnd, float recip) {
  if constexpr (kOut == Out::k16s) {
    static_cast<Kvl16s*>(dstRow)[x] = static_cast<Kvl16s>(s);
  } else if constexpr (kOut == Out::k32f) {
    static_cast<Kvl32f*>(dstRow)[x] = s;
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

inline void* alignUp(void* p, size_t a) {
  return reinterpret_cast<void*>((reinterpret_cast<uintptr_t>(p) + a - 1) & ~(uintptr_t)(a - 1));
}

}  // namespace kvl::filter::deriv

// ---- The four first-derivative Sobel members computed by the general fixed-kernel filter.
// Not exported: Canny and the command-line tool call them. They run on the calling thread and
// validate in their own order: null pointers, ROI size, step multiples (the steps are not
// compared with the width), mask (33, 55), then the border type (modes 0, 1, 3, 4, 6 with flags,
// nothing above 255), all but the mask failing with kvlStatusBadArgument. SobelVert is the left
// column minus the right column, SobelHoriz the row below minus the row above. Buffer: 8u16s
// align32(mask 33 ? 3M + 6 : 7M + 28) + 32 bytes, 32f four times that count before alignment,
// M = max(width, height). ----
KvlStatus kvliFilterSobelVertBorder_8u16s_C1R(const Kvl8u* pSrc, int srcStep, Kvl16s* pDst,
                                              int dstStep, KvliSize roiSize, KvliMaskSize mask,
                                              int borderType, Kvl8u borderValue, Kvl8u* pBuffer);
KvlStatus kvliFilterSobelHorizBorder_8u16s_C1R(const Kvl8u* pSrc, int srcStep, Kvl16s* pDst,
                                               int dstStep, KvliSize roiSize, KvliMaskSize mask,
                                               int borderType, Kvl8u borderValue, Kvl8u* pBuffer);
KvlStatus kvliFilterSobelVertBorder_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst,
                                            int dstStep, KvliSize roiSize, KvliMaskSize mask,
                                            int borderType, Kvl32f borderValue, Kvl8u* pBuffer);
KvlStatus kvliFilterSobelHorizBorder_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst,
                                             int dstStep, KvliSize roiSize, KvliMaskSize mask,
                                             int borderType, Kvl32f borderValue, Kvl8u* pBuffer);
KvlStatus kvliFilterSobelVertGetBufferSize_8u16s_C1R(KvliSize roiSize, KvliMaskSize mask,
                                                     int* pBufferSize);
KvlStatus kvliFilterSobelHorizGetBufferSize_8u16s_C1R(KvliSize roiSize, KvliMaskSize mask,
                                                      int* pBufferSize);
KvlStatus kvliFilterSobelVertGetBufferSize_32f_C1R(KvliSize roiSize, KvliMaskSize mask,
                                                   int* pBufferSize);
KvlStatus kvliFilterSobelHorizGetBufferSize_32f_C1R(KvliSize roiSize, KvliMaskSize mask,
                                                    int* pBufferSize);
