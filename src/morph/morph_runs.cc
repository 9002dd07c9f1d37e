// The run engine's driver: mask runs, the ring of horizontal minima, column tiles and borders.
#include "morph/morph_runs.h"

#include <algorithm>

#include "core/border.h"
#include "core/pixel.h"
#include "core/services.h"

#include <hwy/cache_control.h>

namespace kvl::morph {
namespace {

struct Run {
  int row;     // mask row
  int start;   // first column, relative to the first run start of the mask
  int length;  // index into MaskRuns::lengths
};

// The mask cut into runs, with its distinct lengths in increasing order.
struct MaskRuns {
  int runCount = 0, lengthCount = 0;
  int firstRow = 0, lastRow = 0;  // rows holding runs
  int firstCol = 0, width = 0;    // first run start; last run end minus firstCol
  Run runs[kMaxRuns];
  int lengths[kMaxLengths];
  int firstUse[kMaxLengths];  // first mask row with a run of the length
  int uses[kMaxLengths];      // runs of the length

  // False when the mask is beyond the limits (or empty).
  bool build(const Kvl8u* mask, int W, int H) {
    int minStart = W, maxEnd = 0;
    firstRow = -1;
    int len0[kMaxLengths], use0[kMaxLengths];
    for (int j = 0; j < H; ++j) {
      const Kvl8u* m = mask + static_cast<std::ptrdiff_t>(j) * W;
      for (int i = 0; i < W;) {
        if (!m[i]) {
          ++i;
          continue;
        }
        const int s = i;
        while (i < W && m[i]) ++i;
        if (runCount == kMaxRuns) return false;
        const int len = i - s;
        int li = 0;
        while (li < lengthCount && len0[li] != len) ++li;
        if (li == lengthCount) {
          if (lengthCount == kMaxLengths) return false;
          len0[lengthCount] = len;
          use0[lengthCount++] = j;
        }
        runs[runCount++] = {j, s, li};
        minStart = std::min(minStart, s);
        maxEnd = std::max(maxEnd, i);
        if (firstRow < 0) firstRow = j;
        lastRow = j;
      }
    }
    if (runCount == 0) return false;
    firstCol = minStart;
    width = maxEnd - minStart;
    // Lengths in increasing order, the runs renumbered.
    int order[kMaxLengths], rank[kMaxLengths];
    for (int i = 0; i < lengthCount; ++i) order[i] = i;
    std::sort(order, order + lengthCount, [&](int a, int b) { return len0[a] < len0[b]; });
    for (int i = 0; i < lengthCount; ++i) {
      rank[order[i]] = i;
      lengths[i] = len0[order[i]];
      firstUse[i] = use0[order[i]];
      uses[i] = 0;
    }
    for (int r = 0; r < runCount; ++r) {
      runs[r].length = rank[runs[r].length];
      runs[r].start -= firstCol;
      ++uses[runs[r].length];
    }
    return true;
  }
};

constexpr int kMaxFold = 16;  // loads of one fused pass

// Which lengths keep a ring of horizontal minima and where the rows lie. Every source row enters
// the ring of extended rows (P); a kept length L has its own ring, computed from the longest kept
// length below it (or P) by pairwise passes; a run of a length not kept reads its L pixels from P.
// A length is kept when the loads it saves the output rows outweigh the passes that make it.
struct Plan {
  bool kept[kMaxLengths];
  bool fused[kMaxLengths];  // a kept length made in one pass of several loads
  int depth[kMaxLengths];   // ring rows of a kept length
  int slot[kMaxLengths];    // its first ring row
  int extDepth = 0;         // ring rows of P
  int work = -1;            // the work row of the doubling passes, or -1
  int rows = 0;             // all rows

  bool pairs = false;  // output rows in pairs: every ring one row deeper

  void make(const MaskRuns& m, bool direct, bool twoRows) {
    pairs = twoRows;
    int curLen = 1, firstDirect = m.lastRow;
    bool anyDoubled = false;
    for (int li = 0; li < m.lengthCount; ++li) {
      // From the kept length A below (or 1): one pass folding ceil(L / A) shifted loads, or
      // doubling passes of two loads each; a store counts as two loads.
      const int L = m.lengths[li];
      int passes = 1, len = curLen;
      while (2 * len < L) len *= 2, ++passes;
      const int loads = (L + curLen - 1) / curLen;
      fused[li] = loads <= kMaxFold && loads + 2 <= 4 * passes;
      const int cost = fused[li] ? loads + 2 : 4 * passes;
      kept[li] = !direct && L > 1 && (L - 1) * m.uses[li] > cost;
      if (kept[li]) {
        curLen = L;
        anyDoubled |= !fused[li];
      } else {
        firstDirect = std::min(firstDirect, m.firstUse[li]);
      }
    }
    extDepth = m.lastRow - firstDirect + 1 + pairs;
    rows = extDepth;
    for (int li = 0; li < m.lengthCount; ++li) {
      if (!kept[li]) continue;
      depth[li] = m.lastRow - m.firstUse[li] + 1 + pairs;
      slot[li] = rows;
      rows += depth[li];
    }
    work = anyDoubled ? rows++ : -1;
  }
};

// The loads of one output row: a ring row of a kept length at the run's start, or each pixel of
// the run in the extended row. Two output rows y, y + 1 share the loads of a source row where
// mask rows j and j - 1 have the same tap.
struct Tap {
  int row, length, col;  // mask row; length index, or -1 for one extended pixel; column offset
  bool inPrev, inNext;   // mask row j - 1 (j + 1) has the same tap
  int entry;             // its row's entry in the pair's table of ring rows
};
constexpr int kPairTaps = 256;  // loads per pair of output rows
constexpr int kMaxTaps = kPairTaps;

constexpr int kTable = 1024;  // ring rows a pair of output rows may name

// The taps of a plan, and for a pair of output rows the table of the ring rows they name: for
// each ring (the extended rows first, then each kept length), the rows span = jmax - jmin + 2.
struct TapList {
  Tap taps[kMaxTaps];
  int count = 0, shared = 0, onlyNext = 0;  // taps; taps with inPrev; taps without inNext
  int span = 0, rings = 0;
  int ringOf[kMaxLengths];  // table ring of a kept length

  bool make(const MaskRuns& m, const Plan& p) {
    count = 0;
    span = m.lastRow - m.firstRow + 2;
    rings = 1;
    for (int li = 0; li < m.lengthCount; ++li)
      if (p.kept[li]) ringOf[li] = rings++;
    if (rings * span > kTable) return false;
    for (int i = 0; i < m.runCount; ++i) {
      const Run& run = m.runs[i];
      const bool kept = p.kept[run.length];
      const int n = kept ? 1 : m.lengths[run.length];
      if (count + n > kMaxTaps) return false;
      const int entry = (kept ? ringOf[run.length] : 0) * span + run.row - m.firstRow;
      for (int t = 0; t < n; ++t)
        taps[count++] = {run.row, kept ? run.length : -1, run.start + t, false, false, entry};
    }
    shared = onlyNext = 0;
    for (int i = 0; i < count; ++i) {
      for (int k = 0; k < count; ++k) {
        if (taps[k].length != taps[i].length || taps[k].col != taps[i].col) continue;
        if (taps[k].row == taps[i].row - 1) taps[i].inPrev = true;
        if (taps[k].row == taps[i].row + 1) taps[i].inNext = true;
      }
      shared += taps[i].inPrev;
      onlyNext += !taps[i].inNext;
    }
    return count + onlyNext <= kPairTaps;
  }
};

constexpr std::size_t kAlign = 16;

std::size_t rowBytesFor(int tile, int width, int channels, int keySize) {
  return static_cast<std::size_t>(
      roundUp(static_cast<long long>(tile + width - 1) * channels * keySize, kAlign));
}

// The widest tile (at most maxW) whose plan fits into `bytes` from a 16-byte boundary; 0 if none.
int fitTile(const MaskRuns& m, int rows, std::size_t bytes, int channels, int keySize, int maxW) {
  if (rows == 0) return maxW;
  const std::size_t perRow = bytes / static_cast<std::size_t>(rows) / kAlign * kAlign;
  const long long fit = static_cast<long long>(perRow / (channels * keySize)) - (m.width - 1);
  return fit < 1 ? 0 : static_cast<int>(std::min<long long>(fit, maxW));
}

// Width of the tiles at the replicated sides (integer types read the others in place).
constexpr int kEdge = 64;

// Below this tile width the full plan gives way to the plain one when that fits wider tiles.
constexpr int kNarrowTile = 256;

template <class T, int kC, bool kMin>
bool runEngine(const T* src, int srcStep, T* dst, int dstStep, KvliSize roi, const Kvl8u* mask,
               KvliSize maskSize, KvliPoint anchor, int bt, Kvl8u* buffer, std::size_t bytes) {
  using U = KeyOf<T>;
  MaskRuns m;
  if (!m.build(mask, maskSize.width, maskSize.height)) return false;
  const int W = roi.width, H = roi.height;
  Kvl8u* base = alignUp(buffer, kAlign);
  const std::size_t slack = static_cast<std::size_t>(base - buffer);
  if (bytes <= slack) return false;
  // Plans from the fastest to the smallest: kept lengths and paired rows, kept lengths alone,
  // paired rows alone, neither. The first whose tile is not narrow wins, else the one with the
  // widest tile.
  Plan plan;
  TapList tapList;
  int maxTile = 0;
  bool paired = false;
  for (int c = 0; c < 4; ++c) {
    Plan p;
    p.make(m, c >= 2, c % 2 == 0);
    if (p.pairs && !tapList.make(m, p)) continue;
    const int t = fitTile(m, p.rows, bytes - slack, kC, sizeof(U), W);
    if (t > maxTile) plan = p, maxTile = t, paired = p.pairs;
    if (maxTile >= std::min(W, kNarrowTile)) break;
  }
  if (maxTile < 1) return false;
  if (paired) tapList.make(m, plan);

  const auto pair = RunKernels<T, kMin>::pair.pick();
  const auto fold = RunKernels<T, kMin>::fold.pick();
  const auto combine = RunKernels<T, kMin>::combine.pick();
  const auto combine2 = RunKernels<T, kMin>::combine2.pick();
  const auto keys = RunKernels<T, kMin>::keys.pick();

  // Images that cannot stay in the cache together take cache-bypassing stores for the output.
  const bool stream = streamDestination(2LL * W * H * kC * static_cast<long long>(sizeof(T)));
  const bool memLeft = (bt & 15) == kvlBorderInMem || (bt & kvlBorderInMemLeft);
  const bool memRight = (bt & 15) == kvlBorderInMem || (bt & kvlBorderInMemRight);
  const int shiftY = anchor.y;  // output row y reads source row y - ay + j for mask row j
  constexpr int kTaps = 64;
  const U* taps[kTaps];
  const U* pairTaps[kPairTaps];
  const U* table[kTable];

  auto runTile = [&](int x0, int tw) {
    const int pn = tw + m.width - 1;  // pixels of an extended row
    const std::size_t rowBytes = rowBytesFor(tw, m.width, kC, sizeof(U));
    const int c0 = x0 - anchor.x + m.firstCol;  // source column of extended pixel 0
    // Columns [a, b) of the extended row come from memory in one piece; the rest go through
    // the border rule pixel by pixel.
    const int a = std::min(pn, memLeft ? 0 : std::max(0, -c0));
    const int b = std::max(a, memRight ? pn : std::min(pn, W - c0));
    // Integer rows that need no border pixel are read in place instead of from the ring.
    const bool inPlace = std::is_same_v<T, U> && a == 0 && b == pn;
    // A tile read in place has no ring of extended rows: the other rings move up by its depth.
    const int skip = inPlace ? plan.extDepth : 0;
    auto ringRow = [&](int first, int depth, int r) {
      int k = r % depth;
      if (k < 0) k += depth;
      return reinterpret_cast<U*>(base + (first - skip + k) * rowBytes);
    };
    U* work = plan.work < 0 ? nullptr : reinterpret_cast<U*>(base + (plan.work - skip) * rowBytes);
    auto extRow = [&](int r) -> const U* {
      if (inPlace)
        return reinterpret_cast<const U*>(rowPtr(src, srcStep, border::sourceRow(r, H, bt))) +
               c0 * kC;
      return ringRow(0, plan.extDepth, r);
    };

    auto fill = [&](const T* s, U* p) {
      for (int k = 0; k < a; ++k) {
        const int c = border::sourceIndex(c0 + k, W, bt, kvlBorderInMemLeft, kvlBorderInMemRight);
        for (int ch = 0; ch < kC; ++ch) p[k * kC + ch] = Order<T>::key(loadAny(s + c * kC + ch));
      }
      if (b > a) keys(s + (c0 + a) * kC, p + a * kC, (b - a) * kC);
      for (int k = b; k < pn; ++k) {
        const int c = border::sourceIndex(c0 + k, W, bt, kvlBorderInMemLeft, kvlBorderInMemRight);
        for (int ch = 0; ch < kC; ++ch) p[k * kC + ch] = Order<T>::key(loadAny(s + c * kC + ch));
      }
    };
    // The source row two ahead of the one entering the rings is asked for from memory now, a
    // cache line at a time, so that large images do not wait on each row's first lines. The
    // addresses are formed as integers: a prefetch never faults, and the span may pass the row.
    const std::size_t rowSpan = static_cast<std::size_t>(pn) * kC * sizeof(T);
    auto prefetchRow = [&](int r) {
      if (r < 0 || r >= H) return;
      const uintptr_t q =
          reinterpret_cast<uintptr_t>(rowPtr(src, srcStep, r)) + std::max(c0, 0) * kC * sizeof(T);
      for (std::size_t o = 0; o < rowSpan; o += 64)
        hwy::Prefetch(reinterpret_cast<const T*>(q + o));
    };
    auto ingest = [&](int r) {
      U* p = nullptr;
      prefetchRow(r + 2);
      if (!inPlace)
        fill(rowPtr(src, srcStep, border::sourceRow(r, H, bt)), p = ringRow(0, plan.extDepth, r));
      // Each kept length from the longest kept one below it, doubling in the work row first
      // while that is below half the length; a row of length L holds pn - L + 1 valid pixels.
      const U* cur = inPlace ? extRow(r) : p;
      int curLen = 1;
      for (int li = 0; li < m.lengthCount; ++li) {
        if (!plan.kept[li]) continue;
        const int L = m.lengths[li];
        U* out = ringRow(plan.slot[li], plan.depth[li], r);
        if (plan.fused[li]) {
          // Loads at 0, A, 2A, ... and L - A cover the L pixels from each position.
          const U* rows[kMaxFold];
          int c = 0;
          for (int o = 0; o < L - curLen; o += curLen) rows[c++] = cur + o * kC;
          rows[c++] = cur + (L - curLen) * kC;
          fold(rows, c, out, (pn - L + 1) * kC);
          cur = out;
          curLen = L;
          continue;
        }
        while (2 * curLen < L) {
          pair(cur, cur + curLen * kC, work, (pn - 2 * curLen + 1) * kC);
          cur = work;
          curLen *= 2;
        }
        pair(cur, cur + (L - curLen) * kC, out, (pn - L + 1) * kC);
        cur = out;
        curLen = L;
      }
    };

    // Output rows one at a time: the taps straight from the runs, in chunks.
    auto single = [&](int y) {
      T* out = rowPtr(dst, dstStep, y) + x0 * kC;
      int n = 0;
      bool acc = false;
      auto tap = [&](const U* t) {
        taps[n++] = t;
        if (n == kTaps) {
          combine(taps, n, out, tw * kC, acc, stream);
          acc = true;
          n = 0;
        }
      };
      for (int i = 0; i < m.runCount; ++i) {
        const Run& run = m.runs[i];
        const int li = run.length, sr = y - shiftY + run.row;
        if (plan.kept[li]) {
          tap(ringRow(plan.slot[li], plan.depth[li], sr) + run.start * kC);
        } else {
          const U* e = extRow(sr) + run.start * kC;
          for (int t = 0; t < m.lengths[li]; ++t) tap(e + t * kC);
        }
      }
      if (n) combine(taps, n, out, tw * kC, acc, stream);
    };
    // Rows y and y + 1 together: shared taps, then those of y only, then those of y + 1 only.
    auto twoRows = [&](int y) {
      // The table of ring rows: row y - ay + jmin + i of ring g at table[g * span + i].
      const int span = tapList.span, r0 = y - shiftY + m.firstRow;
      auto ringRows = [&](const U** t, int first, int depth) {
        int k = r0 % depth;
        if (k < 0) k += depth;
        for (int i = 0; i < span; ++i) {
          t[i] = reinterpret_cast<const U*>(base + (first - skip + k) * rowBytes);
          if (++k == depth) k = 0;
        }
      };
      if (inPlace) {
        for (int i = 0; i < span; ++i) table[i] = extRow(r0 + i);
      } else {
        ringRows(table, 0, plan.extDepth);
      }
      for (int li = 0; li < m.lengthCount; ++li)
        if (plan.kept[li])
          ringRows(table + tapList.ringOf[li] * span, plan.slot[li], plan.depth[li]);
      int ns = 0, na = tapList.shared, nb = tapList.count;
      for (int i = 0; i < tapList.count; ++i) {
        const Tap& t = tapList.taps[i];
        const U* p = table[t.entry] + t.col * kC;
        if (t.inPrev) {
          pairTaps[ns++] = p;
        } else {
          pairTaps[na++] = p;
        }
        if (!t.inNext) pairTaps[nb++] = table[t.entry + 1] + t.col * kC;
      }
      combine2(pairTaps, ns, tapList.count - ns, tapList.onlyNext,
               rowPtr(dst, dstStep, y) + x0 * kC, rowPtr(dst, dstStep, y + 1) + x0 * kC, tw * kC,
               stream);
    };

    int next = m.firstRow - shiftY;  // next source row to enter the rings
    for (int y = 0; y < H;) {
      const bool two = paired && y + 1 < H;
      for (const int last = y + two - shiftY + m.lastRow; next <= last; ++next) ingest(next);
      if (two) {
        twoRows(y);
        y += 2;
      } else {
        single(y);
        y += 1;
      }
    }
  };

  // Regions. With one tile, the whole width goes through the ring. Otherwise integer types read
  // the columns whose loads stay inside the ROI (or reach only in-memory sides) in place, which
  // needs no ring of extended rows and so allows wider tiles; the columns that reach a replicated
  // side (widened to kEdge) go through the ring.
  const int eL = memLeft ? 0 : std::clamp(anchor.x - m.firstCol, 0, W);
  const int eR = memRight ? 0 : std::clamp(m.firstCol + m.width - 1 - anchor.x, 0, W);
  int cuts[4] = {0, 0, W, W};
  int widest[3] = {maxTile, maxTile, maxTile};
  if (std::is_same_v<T, U> && (maxTile < W || eL + eR == 0) &&
      (eL + eR == 0 || W >= eL + eR + 4 * kEdge)) {
    cuts[1] = eL ? std::max(eL, kEdge) : 0;
    cuts[2] = W - (eR ? std::max(eR, kEdge) : 0);
    widest[1] =
        std::max(maxTile, fitTile(m, plan.rows - plan.extDepth, bytes - slack, kC, sizeof(U), W));
  }
  for (int g = 0; g < 3; ++g) {
    const int len = cuts[g + 1] - cuts[g];
    if (len <= 0) continue;
    const int tiles = (len + widest[g] - 1) / widest[g];
    const int tileW = (len + tiles - 1) / tiles;
    for (int x0 = cuts[g]; x0 < cuts[g + 1]; x0 += tileW)
      runTile(x0, std::min(tileW, cuts[g + 1] - x0));
  }
  if (stream) hwy::FlushStream();
  return true;
}

}  // namespace

std::size_t morphRunsBytes(const Kvl8u* mask, KvliSize maskSize, int channels, int keySize,
                           int tile, int plan) {
  MaskRuns m;
  if (!m.build(mask, maskSize.width, maskSize.height)) return 0;
  Plan p;
  p.make(m, plan >= 2, plan % 2 == 0);
  TapList taps;
  if (p.pairs && !taps.make(m, p)) p.make(m, plan >= 2, false);
  return p.rows * rowBytesFor(tile, m.width, channels, keySize);
}

template <class T, int kC>
bool morphRuns(const T* src, int srcStep, T* dst, int dstStep, KvliSize roi, const Kvl8u* mask,
               KvliSize maskSize, KvliPoint anchor, int borderType, bool erode, Kvl8u* buffer,
               std::size_t bufferBytes) {
  return erode ? runEngine<T, kC, true>(src, srcStep, dst, dstStep, roi, mask, maskSize, anchor,
                                        borderType, buffer, bufferBytes)
               : runEngine<T, kC, false>(src, srcStep, dst, dstStep, roi, mask, maskSize, anchor,
                                         borderType, buffer, bufferBytes);
}

#define KVL_INSTANTIATE(sfx, T, C)                                                        \
  template bool morphRuns<T, C>(const T*, int, T*, int, KvliSize, const Kvl8u*, KvliSize, \
                                KvliPoint, int, bool, Kvl8u*, std::size_t);
KVL_MORPH_RUNS_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::morph
