// The run engine's driver: mask runs, the ring of horizontal minima, column tiles and borders.
#include "morph/morph_runs.h"

#include <algorithm>

#include "core/border.h"
#include "core/pixel.h"

namespace kvl::morph {
namespace {

struct Run {
  int row;     // mask row
  int start;   // first column, relative to the first run start of the mask
  int length;  // index into MaskRuns::lengths
};

// The mask cut into runs, with its distinct lengths in increasing order and the ring rows each
// length keeps.
struct MaskRuns {
  int runCount = 0, lengthCount = 0;
  int firstRow = 0, lastRow = 0;  // rows holding runs
  int firstCol = 0, width = 0;    // first run start; last run end minus firstCol
  Run runs[kMaxRuns];
  int lengths[kMaxLengths];
  int depth[kMaxLengths];  // ring rows of the length: lastRow - its first row + 1
  int slot[kMaxLengths];   // first ring row of the length
  int ringRows = 0;        // all ring rows, the work row included

  // False when the mask is beyond the limits (or empty).
  bool build(const Kvl8u* mask, int W, int H) {
    int minStart = W, maxEnd = 0;
    firstRow = -1;
    int firstUse[kMaxLengths];
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
        while (li < lengthCount && lengths[li] != len) ++li;
        if (li == lengthCount) {
          if (lengthCount == kMaxLengths) return false;
          lengths[lengthCount] = len;
          firstUse[lengthCount++] = j;
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
    // Sort the lengths increasing, renumbering the runs.
    int order[kMaxLengths], rank[kMaxLengths];
    for (int i = 0; i < lengthCount; ++i) order[i] = i;
    std::sort(order, order + lengthCount, [&](int a, int b) { return lengths[a] < lengths[b]; });
    int sorted[kMaxLengths], use[kMaxLengths];
    for (int i = 0; i < lengthCount; ++i) {
      rank[order[i]] = i;
      sorted[i] = lengths[order[i]];
      use[i] = firstUse[order[i]];
    }
    ringRows = 0;
    for (int i = 0; i < lengthCount; ++i) {
      lengths[i] = sorted[i];
      depth[i] = lastRow - use[i] + 1;
      slot[i] = ringRows;
      ringRows += depth[i];
    }
    for (int r = 0; r < runCount; ++r) {
      runs[r].length = rank[runs[r].length];
      runs[r].start -= firstCol;
    }
    if (lengths[lengthCount - 1] > 1) ++ringRows;  // the work row of the doubling passes
    return true;
  }
};

constexpr std::size_t kAlign = 16;

std::size_t rowBytesFor(int tile, int width, int channels, int keySize) {
  return static_cast<std::size_t>(
      roundUp(static_cast<long long>(tile + width - 1) * channels * keySize, kAlign));
}

template <class T, int kC, bool kMin>
bool runEngine(const T* src, int srcStep, T* dst, int dstStep, KvliSize roi, const Kvl8u* mask,
               KvliSize maskSize, KvliPoint anchor, int bt, Kvl8u* buffer, std::size_t bytes) {
  using U = KeyOf<T>;
  MaskRuns m;
  if (!m.build(mask, maskSize.width, maskSize.height)) return false;
  const int W = roi.width, H = roi.height;
  // Alignment slack, then the widest tile whose ring fits.
  Kvl8u* base = alignUp(buffer, kAlign);
  const std::size_t slack = static_cast<std::size_t>(base - buffer);
  if (bytes <= slack) return false;
  const std::size_t perRow = (bytes - slack) / static_cast<std::size_t>(m.ringRows) / kAlign * kAlign;
  const long long fitPixels = static_cast<long long>(perRow / (kC * sizeof(U))) - (m.width - 1);
  if (fitPixels < 1) return false;
  const int maxTile = static_cast<int>(std::min<long long>(fitPixels, W));
  const int tiles = (W + maxTile - 1) / maxTile;
  const int tileW = (W + tiles - 1) / tiles;

  const auto pair = RunKernels<T, kMin>::pair.pick();
  const auto combine = RunKernels<T, kMin>::combine.pick();
  const auto keys = RunKernels<T, kMin>::keys.pick();

  const bool memLeft = (bt & 15) == kvlBorderInMem || (bt & kvlBorderInMemLeft);
  const bool memRight = (bt & 15) == kvlBorderInMem || (bt & kvlBorderInMemRight);
  const int shiftY = anchor.y;  // output row y reads source row y - ay + j for mask row j
  const bool hasOne = m.lengths[0] == 1;
  const U* rows[64];

  for (int x0 = 0; x0 < W; x0 += tileW) {
    const int tw = std::min(tileW, W - x0);
    const int pn = tw + m.width - 1;  // pixels of an extended row
    const std::size_t rowBytes = rowBytesFor(tw, m.width, kC, sizeof(U));
    auto ringRow = [&](int li, int r) {
      int k = r % m.depth[li];
      if (k < 0) k += m.depth[li];
      return reinterpret_cast<U*>(base + (m.slot[li] + k) * rowBytes);
    };
    U* work = reinterpret_cast<U*>(base + (m.ringRows - 1) * rowBytes);
    const int c0 = x0 - anchor.x + m.firstCol;  // source column of extended pixel 0
    // Columns [a, b) of the extended row come from memory in one piece; the rest go through
    // the border rule pixel by pixel.
    const int a = std::min(pn, memLeft ? 0 : std::max(0, -c0));
    const int b = std::max(a, memRight ? pn : std::min(pn, W - c0));

    auto ingest = [&](int r) {
      const int sy = border::sourceRow(r, H, bt);
      const T* s = rowPtr(src, srcStep, sy);
      U* p = hasOne ? ringRow(0, r) : work;
      for (int k = 0; k < a; ++k) {
        const int c = border::sourceIndex(c0 + k, W, bt, kvlBorderInMemLeft, kvlBorderInMemRight);
        for (int ch = 0; ch < kC; ++ch) p[k * kC + ch] = toKey<T>(loadAny(s + c * kC + ch));
      }
      if (b > a) keys(s + (c0 + a) * kC, p + a * kC, (b - a) * kC);
      for (int k = b; k < pn; ++k) {
        const int c = border::sourceIndex(c0 + k, W, bt, kvlBorderInMemLeft, kvlBorderInMemRight);
        for (int ch = 0; ch < kC; ++ch) p[k * kC + ch] = toKey<T>(loadAny(s + c * kC + ch));
      }
      // Each length from the longest shorter one (doubling the work row first while that one
      // is below half the length); a row of length L holds pn - L + 1 valid pixels.
      const U* cur = p;
      int curLen = 1;
      for (int li = hasOne ? 1 : 0; li < m.lengthCount; ++li) {
        const int L = m.lengths[li];
        while (2 * curLen < L) {
          pair(cur, cur + curLen * kC, work, (pn - 2 * curLen + 1) * kC);
          cur = work;
          curLen *= 2;
        }
        U* out = ringRow(li, r);
        pair(cur, cur + (L - curLen) * kC, out, (pn - L + 1) * kC);
        cur = out;
        curLen = L;
      }
    };

    const int rFirst = m.firstRow - shiftY;
    const int rLast = H - 1 - shiftY + m.lastRow;
    for (int r = rFirst; r <= rLast; ++r) {
      ingest(r);
      const int y = r + shiftY - m.lastRow;
      if (y < 0) continue;
      T* out = rowPtr(dst, dstStep, y) + x0 * kC;
      int n = 0;
      bool acc = false;
      for (int i = 0; i < m.runCount; ++i) {
        const Run& run = m.runs[i];
        rows[n++] = ringRow(run.length, y - shiftY + run.row) + run.start * kC;
        if (n == 64) {
          combine(rows, n, out, tw * kC, acc);
          acc = true;
          n = 0;
        }
      }
      if (n) combine(rows, n, out, tw * kC, acc);
    }
  }
  return true;
}

}  // namespace

std::size_t morphRunsBytes(const Kvl8u* mask, KvliSize maskSize, int channels, int elementSize,
                           int tile) {
  MaskRuns m;
  if (!m.build(mask, maskSize.width, maskSize.height)) return 0;
  return m.ringRows * rowBytesFor(tile, m.width, channels, elementSize);
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

#define KVL_INSTANTIATE(sfx, T, C)                                                             \
  template bool morphRuns<T, C>(const T*, int, T*, int, KvliSize, const Kvl8u*, KvliSize,      \
                                KvliPoint, int, bool, Kvl8u*, std::size_t);
KVL_MORPH_RUNS_MEMBERS(KVL_INSTANTIATE)
#undef KVL_INSTANTIATE

}  // namespace kvl::morph
