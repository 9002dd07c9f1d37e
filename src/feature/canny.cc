// Canny edge detection: validation, work-buffer layout, the row loop and the hysteresis.
#include "feature/canny.h"

#include <climits>
#include <cstdint>
#include <cstring>

#include "core/check.h"
#include "core/pixel.h"
#include "core/simd.h"
#include "filter/deriv.h"
#include "impl_decls.h"

namespace kvl::feature {
namespace {

// The stack switches to 32-bit coordinates at this width or height.
constexpr int kWideStackFrom = 65533;
// CannyBorder computes its derivatives this many rows at a time (fewer when the buffer is small):
// each band restarts the derivative kernels' ring above it, so longer bands waste less.
constexpr int kCannyBandRows = 32;


// Thresholds of the 16s detector as integers, truncated toward zero; a threshold beyond the
// int range (or NaN, which no magnitude exceeds) becomes INT_MAX.
int32_t truncThreshold(float t) { return t < 2147483520.0f ? static_cast<int32_t>(t) : INT32_MAX; }

template <class C>
struct Pair {
  C r, c;
};

// The edge stack over the map. A push that finds the stack full marks the cell kPending
// instead; the hysteresis later expands such cells by scanning the map, so the result never
// depends on the capacity.
template <class C>
struct EdgeStack {
  Pair<C>* data;
  size_t cap;
  size_t n = 0;
  bool spilled = false;
  void push(uint8_t* cell, size_t r, size_t c) {
    if (n < cap) {
      data[n++] = Pair<C>{static_cast<C>(r), static_cast<C>(c)};
    } else {
      *cell = kPending;
      spilled = true;
    }
  }
};

// The candidate map: (w + 2) x (h + 2) cells, pixel (r, c) at (r + 1) * stride + c + 1, with a
// frame of zeros.
struct Map {
  uint8_t* cells;
  ptrdiff_t stride;
  uint8_t* row(int r) const { return cells + (r + 1) * stride + 1; }
};

// Reads 4 bytes at p (3 used). The map is followed by other regions of the buffer, so the
// fourth byte of the last frame row is still inside it.
inline uint32_t load4(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, sizeof(v));
  return v;
}

// True when a byte selected by `keep` (0x80 per byte) may be kCandidate; exact when none is.
inline bool mayHoldCandidate(uint32_t v, uint32_t keep) {
  const uint32_t x = v ^ 0x80808080u;  // candidate bytes become 0
  return ((x - 0x01010101u) & ~x & keep) != 0;
}

// Grows edges from the stacked pixels through candidates, neighbours in the order up-left, up,
// up-right, left, right, down-left, down, down-right.
template <class C>
void hysteresis(const Map& map, int w, int h, EdgeStack<C>& st) {
  const ptrdiff_t s = map.stride;
  auto expand = [&](size_t r, size_t c) {
    uint8_t* m = map.cells + static_cast<ptrdiff_t>(r + 1) * s + static_cast<ptrdiff_t>(c + 1);
    // Most popped pixels have no candidate left around them: one test for all eight.
    if (!mayHoldCandidate(load4(m - s - 1), 0x808080u) &&
        !mayHoldCandidate(load4(m - 1), 0x800080u) &&
        !mayHoldCandidate(load4(m + s - 1), 0x808080u))
      return;
    auto visit = [&](ptrdiff_t off, size_t nr, size_t nc) {
      if (m[off] == kCandidate) {
        m[off] = kEdge;
        st.push(m + off, nr, nc);
      }
    };
    visit(-s - 1, r - 1, c - 1);
    visit(-s, r - 1, c);
    visit(-s + 1, r - 1, c + 1);
    visit(-1, r, c - 1);
    visit(1, r, c + 1);
    visit(s - 1, r + 1, c - 1);
    visit(s, r + 1, c);
    visit(s + 1, r + 1, c + 1);
  };
  auto drain = [&] {
    while (st.n > 0) {
      const Pair<C> p = st.data[--st.n];
      expand(p.r, p.c);
    }
  };
  drain();
  while (st.spilled) {  // rare: the stack was too small for every queued pixel
    st.spilled = false;
    for (int r = 0; r < h; ++r) {
      uint8_t* row = map.row(r);
      for (int c = 0; c < w; ++c) {
        if (row[c] != kPending) continue;
        row[c] = kEdge;
        expand(static_cast<size_t>(r), static_cast<size_t>(c));
        drain();
      }
    }
  }
}

// The ring of magnitude rows (w + 2 elements, zero at both ends), of class rows, and the seed
// columns of the row just suppressed.
template <class M>
struct Rings {
  M* mag[3];
  uint8_t* cls[2];
  uint32_t* seeds;
};

// Carves the magnitude and class rings out of `p` and returns the first byte after them.
template <class M>
uint8_t* carveRings(uint8_t* p, int w, Rings<M>& rings) {
  const size_t rowBytes = (static_cast<size_t>(w) + 2) * sizeof(M);
  for (M*& m : rings.mag) {
    m = reinterpret_cast<M*>(p);
    std::memset(m, 0, rowBytes);
    p += rowBytes;
  }
  const size_t clsBytes = (static_cast<size_t>(w) + 3) / 4 * 4;
  for (uint8_t*& c : rings.cls) {
    c = p;
    p += clsBytes;
  }
  rings.seeds = reinterpret_cast<uint32_t*>(p);
  return p + static_cast<size_t>(w) * sizeof(uint32_t);
}

// The detector body shared by all three functions: magRow(y, mag, cls) fills the magnitude and
// class rows of ROI row y; suppression runs one row behind it. Then, row by row, candidates that
// touch a strong pixel are marked and grown through the other candidates, and the map becomes
// the output. The edges are the candidates 8-connected to a strong pixel, whatever the order.
template <class C, class M, class NmsFn, class MagRow>
void detect(const Map& map, Rings<M>& rings, EdgeStack<C>& st, int w, int h, M high, NmsFn nms,
            MagRow&& magRow, Kvl8u* pDst, int dstStep) {
  std::memset(map.cells, 0, static_cast<size_t>(map.stride));
  std::memset(map.row(h) - 1, 0, static_cast<size_t>(map.stride));
  auto suppress = [&](int r, const M* next) {
    uint8_t* row = map.row(r);
    row[-1] = 0;
    row[w] = 0;
    nms(rings.mag[(r + 2) % 3], rings.mag[r % 3], next, rings.cls[r % 2], w, high, row);
  };
  for (int y = 0; y < h; ++y) {
    magRow(y, rings.mag[y % 3], rings.cls[y % 2]);
    if (y > 0) suppress(y - 1, rings.mag[y % 3]);
  }
  M* below = rings.mag[h % 3];
  std::memset(below, 0, (static_cast<size_t>(w) + 2) * sizeof(M));
  suppress(h - 1, below);

  const LinkFn link = kLink.pick();
  for (int r = 0; r < h; ++r) {
    uint8_t* row = map.row(r);
    const int n = link(map.row(r - 1), row, map.row(r + 1), w, rings.seeds);
    for (int i = 0; i < n; ++i)
      st.push(row + rings.seeds[i], static_cast<size_t>(r), rings.seeds[i]);
    hysteresis(map, w, h, st);  // grows while the rows around r are in cache
  }
  const EdgesFn edges = kEdges.pick();
  for (int r = 0; r < h; ++r) edges(map.row(r), w, rowPtr(pDst, dstStep, r));
}

// Layout of the gradient-input detectors: map, ring (3 magnitude rows, 2 class rows, seeds), stack;
// each region starts on a 32-byte boundary.
template <class C, class M, class NmsFn, class MagRow>
void runGradient(Kvl8u* pBuffer, int w, int h, M high, NmsFn nms, MagRow&& magRow, Kvl8u* pDst,
                 int dstStep) {
  uint8_t* p = alignUp(pBuffer, 32);
  const Map map{p, static_cast<ptrdiff_t>(w) + 2};
  p += roundUp(static_cast<long long>(w + 2) * (h + 2), 32);
  Rings<M> rings;
  p = alignUp(carveRings(p, w, rings), 32);
  // Every ROI pixel is pushed at most once.
  EdgeStack<C> st{reinterpret_cast<Pair<C>*>(p), static_cast<size_t>(w) * static_cast<size_t>(h)};
  detect(map, rings, st, w, h, high, nms, magRow, pDst, dstStep);
}

template <class M, class NmsFn, class MagRow>
void runGradientStack(Kvl8u* pBuffer, int w, int h, M high, NmsFn nms, MagRow&& magRow, Kvl8u* pDst,
                      int dstStep) {
  if (w < kWideStackFrom && h < kWideStackFrom)
    runGradient<uint16_t>(pBuffer, w, h, high, nms, magRow, pDst, dstStep);
  else
    runGradient<uint32_t>(pBuffer, w, h, high, nms, magRow, pDst, dstStep);
}

KvlStatus checkThresholds(float low, float high) {
  return (low < 0.0f || low > high) ? kvlStatusBadArgument : kvlStatusOk;
}

// 5 W H + 16 W + 64 with W, H the ROI grown by the kernel's reach on both sides, in the 32-bit
// arithmetic of the size query.
uint32_t borderSize(KvliSize roi, int mask) {
  const uint32_t b = mask == kvlMaskSize5x5 ? 4u : 2u;
  const uint32_t W = static_cast<uint32_t>(roi.width) + b,
                 H = static_cast<uint32_t>(roi.height) + b;
  return 5u * W * H + 16u * W + 64u;
}

}  // namespace
}  // namespace kvl::feature

using namespace kvl;
using namespace kvl::feature;

extern "C" KvlStatus impl_kvliCannyGetSize(KvliSize roiSize, int* pBufferSize) {
  KVL_TRY(check::nonNull(pBufferSize));
  KVL_TRY(check::roi(roiSize));
  const uint32_t w = static_cast<uint32_t>(roiSize.width),
                 h = static_cast<uint32_t>(roiSize.height);
  const uint32_t perCell =
      (roiSize.width < kWideStackFrom && roiSize.height < kWideStackFrom) ? 5u : 9u;
  *pBufferSize = static_cast<int>(perCell * (w + 2u) * (h + 2u) + 16u * w + 160u);
  return kvlStatusOk;
}

extern "C" KvlStatus impl_kvliCanny_16s8u_C1R(const Kvl16s* pSrcDx, int srcDxStep,
                                              const Kvl16s* pSrcDy, int srcDyStep, Kvl8u* pDstEdges,
                                              int dstEdgeStep, KvliSize roiSize,
                                              Kvl32f lowThreshold, Kvl32f highThreshold,
                                              Kvl8u* pBuffer) {
  KVL_TRY(check::nonNull(pSrcDx, pSrcDy, pDstEdges, pBuffer));
  KVL_TRY(check::roi(roiSize));
  KVL_TRY(check::steps(roiSize.width, check::Step<Kvl16s>{srcDxStep},
                       check::Step<Kvl16s>{srcDyStep}, check::Step<Kvl8u>{dstEdgeStep}));
  KVL_TRY(checkThresholds(lowThreshold, highThreshold));
  const int w = roiSize.width, h = roiSize.height;
  const int32_t low = truncThreshold(lowThreshold), high = truncThreshold(highThreshold);
  const MagClass16sFn magClass = kMagClass16s.pick();
  auto magRow = [&](int y, int32_t* mag, uint8_t* cls) {
    magClass(rowPtr(pSrcDx, srcDxStep, y), rowPtr(pSrcDy, srcDyStep, y), w, low, mag, cls);
  };
  runGradientStack<int32_t>(pBuffer, w, h, high, kNms32s.pick(), magRow,
                            pDstEdges, dstEdgeStep);
  return kvlStatusOk;
}

extern "C" KvlStatus impl_kvliCanny_32f8u_C1R(const Kvl32f* pSrcDx, int srcDxStep,
                                              const Kvl32f* pSrcDy, int srcDyStep, Kvl8u* pDstEdges,
                                              int dstEdgeStep, KvliSize roiSize,
                                              Kvl32f lowThreshold, Kvl32f highThreshold,
                                              Kvl8u* pBuffer) {
  KVL_TRY(check::nonNull(pSrcDx, pSrcDy, pDstEdges, pBuffer));
  KVL_TRY(check::roi(roiSize));
  KVL_TRY(check::steps(roiSize.width, check::Step<Kvl32f>{srcDxStep},
                       check::Step<Kvl32f>{srcDyStep}, check::Step<Kvl8u>{dstEdgeStep}));
  KVL_TRY(checkThresholds(lowThreshold, highThreshold));
  const int w = roiSize.width, h = roiSize.height;
  const MagClass32fFn magClass = kMagClass32f.pick();
  auto magRow = [&](int y, float* mag, uint8_t* cls) {
    magClass(rowPtr(pSrcDx, srcDxStep, y), rowPtr(pSrcDy, srcDyStep, y), w, lowThreshold, mag, cls);
  };
  runGradientStack<float>(pBuffer, w, h, highThreshold, kNms32f.pick(),
                          magRow, pDstEdges, dstEdgeStep);
  return kvlStatusOk;
}

extern "C" KvlStatus impl_kvliCannyBorderGetSize(KvliSize roiSize,
                                                 KvliDifferentialKernel /*filterType*/,
                                                 KvliMaskSize mask, KvlDataType /*dataType*/,
                                                 int* pBufferSize) {
  KVL_TRY(check::nonNull(pBufferSize));
  KVL_TRY(check::roi(roiSize));
  KVL_TRY(check::mask3or5(mask));
  *pBufferSize = static_cast<int>(borderSize(roiSize, mask));
  return kvlStatusOk;
}

extern "C" KvlStatus impl_kvliCannyBorder_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst,
                                                 int dstStep, KvliSize roiSize,
                                                 KvliDifferentialKernel filterType,
                                                 KvliMaskSize mask, KvliBorderType borderType,
                                                 Kvl8u borderValue, Kvl32f lowThreshold,
                                                 Kvl32f highThreshold, KvlNormType norm,
                                                 Kvl8u* pBuffer) {
  if (filterType == kvlFilterScharr && mask == kvlMaskSize5x5) return kvlStatusBadMaskSize;
  KVL_TRY(check::mask3or5(mask));
  KVL_TRY(check::nonNull(pSrc, pDst, pBuffer));
  KVL_TRY(check::roi(roiSize));
  if (filterType != kvlFilterSobel && filterType != kvlFilterScharr) return kvlStatusBadArgument;
  if (norm != kvlNormL1 && norm != kvlNormL2) return kvlStatusBadArgument;
  KVL_TRY(checkThresholds(lowThreshold, highThreshold));
  const int mode = borderType & 15;
  if (mode != kvlBorderConst && mode != kvlBorderRepl && mode != kvlBorderInMem)
    return kvlStatusBadBorderType;

  const int w = roiSize.width, h = roiSize.height;
  const int K = mask == kvlMaskSize5x5 ? 5 : 3;
  // The derivatives come from the derivative filters' kernels: dx is kerDx along the rows and
  // the smoothing kernel down the columns (right minus left), dy the transpose (below minus
  // above). Bit 0 of the border type chooses replicate or constant, so mode 6 alone is the
  // constant border; only the flags read memory.
  namespace dv = kvl::filter::deriv;
  const bool scharr = filterType == kvlFilterScharr;
  const dv::Fn derivDx =
      dv::kernelFor({scharr ? dv::Kind::kScharrVert : dv::Kind::kSobelDx, K, dv::Out::k16s}).pick();
  const dv::Fn derivDy =
      dv::kernelFor({scharr ? dv::Kind::kScharrHoriz : dv::Kind::kSobelHoriz, K, dv::Out::k16s})
          .pick();
  const int bt = ((borderType & 1) ? kvlBorderRepl : kvlBorderConst) | (borderType & check::kInMemFlags);

  // Layout: map, the magnitude and class rings, a band of dx and dy rows, the derivative kernels'
  // ring, then the stack of 32-bit pairs in whatever the size query left. A stack too small for
  // every strong pixel only costs rescans (see EdgeStack), so the band and ring come first.
  uint8_t* const end = pBuffer + borderSize(roiSize, mask);
  uint8_t* p = alignUp(pBuffer, 32);
  const Map map{p, static_cast<ptrdiff_t>(w) + 2};
  p += roundUp(static_cast<long long>(w + 2) * (h + 2), 32);
  Rings<float> rings;
  p = carveRings(p, w, rings);  // 4-byte aligned
  // The band of dx and dy rows, then the ring, packed: the smallest ROIs leave only a few bytes
  // beyond one row of each (the kernels align their ring themselves and tile a row that does not
  // fit it whole).
  const size_t rowBytes = static_cast<size_t>(w) * sizeof(Kvl16s);
  const size_t ringBytes = static_cast<size_t>(K) * rowBytes + 64;
  const size_t free = static_cast<size_t>(end - p);
  int band = kCannyBandRows < h ? kCannyBandRows : h;
  while (band > 1 && 2 * rowBytes * band + ringBytes > free) --band;
  Kvl16s* dx = reinterpret_cast<Kvl16s*>(p);
  Kvl16s* dy = dx + static_cast<size_t>(w) * band;
  p += 2 * rowBytes * band;
  const size_t left = static_cast<size_t>(end - p);
  const size_t ringHave = left < ringBytes ? left : ringBytes;
  uint8_t* ring = p;
  p += ringHave;
  p += (8 - reinterpret_cast<uintptr_t>(p) % 8) % 8;  // the stack's pairs
  const size_t stackCap = p < end ? static_cast<size_t>(end - p) / sizeof(Pair<uint32_t>) : 0;
  EdgeStack<uint32_t> st{reinterpret_cast<Pair<uint32_t>*>(p), stackCap};

  dv::Job job{pSrc, srcStep, dx, static_cast<int>(rowBytes), w, h, 0, 0, bt,
              static_cast<float>(borderValue), 1.0f, 0, ring, static_cast<long long>(ringHave),
              false, dv::kPrefetchRows};
  const MagClassBorderFn magClass = kMagClassBorder.pick();
  const bool l2 = norm == kvlNormL2;
  auto magRow = [&](int y, float* mag, uint8_t* cls) {
    const int i = y % band;
    if (i == 0) {  // the next band of derivative rows
      job.y0 = job.dstY0 = y;
      job.rows = h - y < band ? h - y : band;
      job.dst = dx;
      derivDx(job);
      job.dst = dy;
      derivDy(job);
    }
    const size_t at = static_cast<size_t>(i) * static_cast<size_t>(w);
    magClass(dx + at, dy + at, w, lowThreshold, l2, mag, cls);
  };
  detect(map, rings, st, w, h, highThreshold, kNms32f.pick(), magRow, pDst, dstStep);
  return kvlStatusOk;
}
