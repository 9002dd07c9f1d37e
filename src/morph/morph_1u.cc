// Erosion and dilation of bit images: sizes, the state builder, validation and the word engine.
#include "morph/morph_1u.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "core/check.h"
#include "core/pixel.h"
#include "impl_decls.h"
#include "morph/morph_state.h"

namespace kvl::morph {
namespace {

// Bit i (any integer; negative reaches memory before the row) of a row at byte p.
inline int bitAt(const Kvl8u* p, long long i) { return (p[i >> 3] >> (i & 7)) & 1; }

// Sets bits [t0, t1) of a word row to v.
void fillBits(uint64_t* w, long long t0, long long t1, int v) {
  for (long long t = t0; t < t1;) {
    const long long k = t >> 6;
    const int lo = static_cast<int>(t & 63);
    const int hi = static_cast<int>(std::min<long long>(t1 - (k << 6), 64));
    const uint64_t m = (hi == 64 ? ~0ull : (1ull << hi) - 1) & ~((1ull << lo) - 1);
    w[k] = v ? (w[k] | m) : (w[k] & ~m);
    t = (k + 1) << 6;
  }
}

// Pixels [x0, x1) (ROI coordinates, any integers) of a source row of W pixels at bit offset
// `off`, with its border rule, into words: bit t of out is pixel x0 + t. A side reads memory when
// its flag is set and repeats its edge pixel otherwise. Only the bytes holding pixels that the
// rule reads from memory are touched. Writes (x1 - x0 + 63) / 64 words.
void extractRow(const Kvl8u* row, int off, int W, int x0, int x1, bool memL, bool memR,
                uint64_t* out, LoadBitsFn load) {
  const int n = (x1 - x0 + 63) >> 6;
  const int mx0 = memL ? x0 : std::max(x0, 0);
  const int mx1 = memR ? x1 : std::min(x1, W);
  long long lo = 0, hi = -1;  // the bytes that may be read, both included
  if (mx0 < mx1) {
    lo = (static_cast<long long>(off) + mx0) >> 3;
    hi = (static_cast<long long>(off) + mx1 - 1) >> 3;
  }
  const long long b0 = static_cast<long long>(off) + x0, q0 = b0 >> 3;
  const int s = static_cast<int>(b0 & 7);
  // Word k takes bytes q0 + 8k .. q0 + 8k + 8: the words whose bytes all may be read go to the
  // kernel, the others (at most a few at each end) byte by byte.
  long long kA = 0, kB = 0;
  if (lo <= hi) {
    kA = std::max<long long>(0, -((q0 - lo) >> 3));
    kB = std::min<long long>(n, ((hi - 8 - q0) >> 3) + 1);
    kB = std::max(kA, kB);
  }
  auto load64 = [&](long long at) {
    uint64_t v;
    std::memcpy(&v, row + at, 8);  // little-endian: byte i holds pixels 8i .. 8i + 7
    return v;
  };
  auto slow = [&](long long k) {  // the bytes of word k that may be read, the others as 0
    const long long q = q0 + 8 * k;
    const long long from = std::max(q, lo), to = std::min(q + 8, hi);
    uint64_t w = 0, top = 0;
    if (from > to) {
      // Nothing readable: the border rule fills these bits, or they lie past the row.
    } else if (from > q && from <= q + 7 && to >= q + 7 && from + 7 <= hi) {
      // The row's first bytes: eight readable bytes from `from` on, moved up into place.
      w = load64(from) << (8 * (from - q));
      top = to >= q + 8 ? row[q + 8] : 0;
    } else if (from == q && to <= q + 7 && to - 7 >= lo) {
      // The row's last bytes: eight readable bytes ending at `to`, moved down into place.
      w = load64(to - 7) >> (8 * (q + 7 - to));
    } else {
      for (long long i = from; i <= to; ++i) {  // in registers: no store to reload
        if (i - q < 8)
          w |= static_cast<uint64_t>(row[i]) << (8 * (i - q));
        else
          top = row[i];
      }
    }
    out[k] = s ? (w >> s) | (top << (64 - s)) : w;
  };
  for (long long k = 0; k < kA; ++k) slow(k);
  if (kB > kA) load(out + kA, row + q0 + 8 * kA, s, static_cast<int>(kB - kA));
  for (long long k = kB; k < n; ++k) slow(k);
  const long long len = static_cast<long long>(x1) - x0;
  if (x0 < mx0) fillBits(out, 0, std::min<long long>(mx0 - x0, len), bitAt(row, off));
  if (mx1 < x1)
    fillBits(out, std::max<long long>(mx1 - x0, 0), len,
             bitAt(row, static_cast<long long>(off) + W - 1));
}

// Writes `count` pixels from words (bit t of bits is pixel x0 + t) into a destination row at bit
// offset `off`; the other bits of the first and last bytes keep their values.
void storeRow(Kvl8u* row, int off, int x0, int count, const uint64_t* bits, StoreBitsFn store) {
  const long long b0 = static_cast<long long>(off) + x0;
  Kvl8u* p = row + (b0 >> 3);
  const int sh = static_cast<int>(b0 & 7);
  const long long total = sh + static_cast<long long>(count);
  const long long nbytes = (total + 7) >> 3;
  const long long nw = (static_cast<long long>(count) + 63) >> 6;
  // Chunks of 8 bytes: [cA, cB) are whole, chunk 0 (when shifted) and cB (when the row ends
  // inside it) are merged with the bits they keep.
  const long long cA = sh ? 1 : 0, cB = total >> 6;
  if (cB > cA) store(p, bits, sh, static_cast<int>(cA), static_cast<int>(cB));
  auto partial = [&](long long c) {
    uint64_t v = c < nw ? bits[c] << sh : 0;
    if (sh != 0 && c > 0) v |= bits[c - 1] >> (64 - sh);
    const long long first = c << 6;
    const int lo = static_cast<int>(std::max<long long>(first, sh) - first);
    const int hi = static_cast<int>(std::min<long long>(first + 64, total) - first);
    const uint64_t m = (hi == 64 ? ~0ull : (1ull << hi) - 1) & ~((1ull << lo) - 1);
    const size_t bytes = static_cast<size_t>(std::min<long long>(8, nbytes - (c << 3)));
    Kvl8u* at = p + (c << 3);
    uint64_t old = 0;
    std::memcpy(&old, at, bytes);
    old = (old & ~m) | (v & m);
    std::memcpy(at, &old, bytes);
  };
  if (sh != 0) partial(0);
  if ((total & 63) != 0 && !(sh != 0 && cB == 0)) partial(cB);
}

inline int floorLog2(int v) { return 31 - __builtin_clz(static_cast<unsigned>(v)); }

// One horizontal run of a mask row: its row (from the first non-empty row), its start (from the
// leftmost run start) and the index of its length.
struct Run {
  int row, start, lengthIndex;
};

// Carves aligned pieces off the work buffer; `ok` turns false when one does not fit.
struct Carver {
  Kvl8u* p;
  Kvl8u* end;
  bool ok = true;
  template <class T>
  T* take(long long count, size_t align = alignof(T)) {
    Kvl8u* a = alignUp(p, align);
    const long long bytes = count * static_cast<long long>(sizeof(T));
    if (!ok || a > end || bytes > end - a) {
      ok = false;
      return nullptr;
    }
    p = a + bytes;
    return reinterpret_cast<T*>(a);
  }
};

// Bytes [0, n) of a row as a word, the others 0.
inline uint64_t partialWord(const Kvl8u* p, int n) {
  uint64_t w = 0;
  std::memcpy(&w, p, static_cast<size_t>(n));
  return w;
}

// The 3x3 rectangle (cross false) or centred cross with both bit offsets 0, row by row: the
// kernel writes the whole words, the edges' outer neighbours and the last partial word (merged
// into the bytes it shares with what lies past the ROI) are worked out here.
void morph1u3x3(const Kvl8u* src, int srcStep, Kvl8u* dst, int dstStep, KvliSize roi, bool cross,
                int bt, bool erode) {
  const bool memT = bt & kvlBorderInMemTop, memB = bt & kvlBorderInMemBottom;
  const bool memL = bt & kvlBorderInMemLeft, memR = bt & kvlBorderInMemRight;
  const int W = roi.width, H = roi.height;
  const int nF = W >> 6, rem = W & 63;
  const Row3x3Fn row3x3 = kRow3x3.pick();
  auto op = [erode](uint64_t a, uint64_t b) { return erode ? (a & b) : (a | b); };
  auto middle = [&](uint64_t a, uint64_t b, uint64_t c) { return cross ? b : op(op(a, b), c); };
  // The last partial word's bytes, and one more for pixel W when it starts a byte that the right
  // side reads from memory.
  const int tailBytes = (rem + 7) >> 3, tailRead = tailBytes + (memR && (rem & 7) == 0 ? 1 : 0);
  const size_t at = static_cast<size_t>(nF) * 8;
  for (int y = 0; y < H; ++y) {
    const Kvl8u* up = rowPtr(src, srcStep, y > 0 || memT ? y - 1 : 0);
    const Kvl8u* mid = rowPtr(src, srcStep, y);
    const Kvl8u* down = rowPtr(src, srcStep, y < H - 1 || memB ? y + 1 : H - 1);
    auto word = [&](int k) {
      const size_t b = static_cast<size_t>(k) * 8;
      return middle(partialWord(up + b, 8), partialWord(mid + b, 8), partialWord(down + b, 8));
    };
    // The middle terms of the last partial word (pixel W in place when it is read from
    // memory, a copy of pixel W - 1 otherwise) and of the pixels just outside the edges.
    uint64_t a = 0, c = 0, tail = 0;
    if (rem) {
      a = partialWord(up + at, tailRead);
      c = partialWord(down + at, tailRead);
      tail = middle(a, partialWord(mid + at, tailRead), c);
      if (!memR) tail = (tail & ~(1ull << rem)) | (((tail >> (rem - 1)) & 1) << rem);
    }
    const uint64_t first = nF ? word(0) : tail, last = nF ? word(nF - 1) : 0;
    const uint64_t right = rem    ? tail
                           : memR ? middle(up[at], mid[at], down[at])
                                  : last >> 63;
    const uint64_t left = memL ? middle(up[-1], mid[-1], down[-1]) << 56 : first << 63;
    Kvl8u* out = rowPtr(dst, dstStep, y);
    if (nF) row3x3(out, up, mid, down, nF, left, right, erode, cross);
    if (rem) {
      uint64_t v = horizontalWord3(nF ? last : left, tail, 0, erode);
      if (cross) v = op(v, op(a, c));
      const uint64_t keep = ~0ull << rem;
      const uint64_t merged = (partialWord(out + at, tailBytes) & keep) | (v & ~keep);
      std::memcpy(out + at, &merged, static_cast<size_t>(tailBytes));
    }
  }
}

}  // namespace

void copyBits(const Kvl8u* src, int srcStep, int srcBitOffset, Kvl8u* dst, int dstStep,
              int dstBitOffset, KvliSize roi) {
  constexpr int kChunk = 64 * 64;
  uint64_t words[kChunk / 64];
  const LoadBitsFn load = kLoadBits.pick();
  const StoreBitsFn store = kStoreBits.pick();
  for (int y = 0; y < roi.height; ++y) {
    const Kvl8u* s = rowPtr(src, srcStep, y);
    Kvl8u* d = rowPtr(dst, dstStep, y);
    for (int x = 0; x < roi.width; x += kChunk) {
      const int c = std::min(kChunk, roi.width - x);
      extractRow(s, srcBitOffset, roi.width, x, x + c, false, false, words, load);
      storeRow(d, dstBitOffset, x, c, words, store);
    }
  }
}

bool morph1u(const Kvl8u* src, int srcStep, int srcBitOffset, Kvl8u* dst, int dstStep,
             int dstBitOffset, KvliSize roi, const Kvl8u* mask, int mw, int mh, int ax, int ay,
             int borderType, bool erode, Kvl8u* buffer, std::size_t bufferBytes) {
  const int bt = check::normalizeInMem(borderType);
  const bool memT = bt & kvlBorderInMemTop, memB = bt & kvlBorderInMemBottom;
  const bool memL = bt & kvlBorderInMemLeft, memR = bt & kvlBorderInMemRight;
  const int W = roi.width, H = roi.height;

  // The runs of the mask and their bounding box.
  int j0 = -1, j1 = -1, i0 = mw, i1 = 0, runCount = 0, maxLen = 0;
  for (int j = 0; j < mh; ++j) {
    const Kvl8u* m = mask + static_cast<std::ptrdiff_t>(j) * mw;
    for (int i = 0; i < mw;) {
      if (m[i] == 0) {
        ++i;
        continue;
      }
      const int s = i;
      while (i < mw && m[i] != 0) ++i;
      ++runCount;
      maxLen = std::max(maxLen, i - s);
      i0 = std::min(i0, s);
      i1 = std::max(i1, i);
      if (j0 < 0) j0 = j;
      j1 = j;
    }
  }
  if (runCount == 0) {
    copyBits(src, srcStep, srcBitOffset, dst, dstStep, dstBitOffset, roi);
    return true;
  }
  if (mw == 3 && mh == 3 && ax == 1 && ay == 1 && srcBitOffset == 0 && dstBitOffset == 0) {
    int set = 0, corners = 0;
    for (int k = 0; k < 9; ++k) {
      set += mask[k] != 0;
      corners += (k == 0 || k == 2 || k == 6 || k == 8) && mask[k] != 0;
    }
    const bool plus = set == 5 && corners == 0 && mask[4] != 0;
    if (set == 9 || plus) {
      morph1u3x3(src, srcStep, dst, dstStep, roi, plus, bt, erode);
      return true;
    }
  }

  Carver carve{buffer, buffer + bufferBytes};
  int* lengthSlot = carve.take<int>(maxLen + 1);  // length -> index, -1 while unseen
  Run* runs = carve.take<Run>(runCount);
  const int maxLengths = std::min(runCount, maxLen);
  int* lengths = carve.take<int>(maxLengths);
  int* homes = carve.take<int>(maxLengths);  // where each length's rows are kept shifted to
  const uint64_t** terms = carve.take<const uint64_t*>(runCount);
  int* shifts = carve.take<int>(runCount);
  if (!carve.ok) return false;

  // Each distinct length is kept shifted to the leftmost start among its runs, so every run
  // reads its length's row shifted right by a non-negative amount.
  int lengthCount = 0, r = 0;
  std::fill(lengthSlot, lengthSlot + maxLen + 1, -1);
  for (int j = j0; j <= j1; ++j) {
    const Kvl8u* m = mask + static_cast<std::ptrdiff_t>(j) * mw;
    for (int i = 0; i < mw;) {
      if (m[i] == 0) {
        ++i;
        continue;
      }
      const int s = i;
      while (i < mw && m[i] != 0) ++i;
      const int len = i - s;
      if (lengthSlot[len] < 0) {
        lengthSlot[len] = lengthCount;
        lengths[lengthCount] = len;
        homes[lengthCount] = s - i0;
        ++lengthCount;
      }
      homes[lengthSlot[len]] = std::min(homes[lengthSlot[len]], s - i0);
      runs[r++] = {j - j0, s - i0, lengthSlot[len]};
    }
  }
  // A run of one pixel reads the source row itself, from the leftmost column.
  for (int u = 0; u < runCount; ++u)
    shifts[u] = lengths[runs[u].lengthIndex] == 1 ? runs[u].start
                                                   : runs[u].start - homes[runs[u].lengthIndex];

  // Rows of words, in batches of G output rows: every plane holds the G + K - 1 source rows a
  // batch reads, one after the other at `stride` words, and a kernel runs over a whole plane as
  // one long row; each plane ends with `pad` words of slack for the kernels' reach.
  // Planes: the source rows' copies, one per distinct run length above 1, the doubling levels
  // above the copy; then the batch's output rows.
  const int K = j1 - j0 + 1;
  // Runs of up to kDirect pixels combine their shifted copies in one pass, runs of up to kInWords
  // double inside each word's window in registers; longer ones double through planes (pixel runs
  // of 1, 2, 4, ... at the levels) and join two copies of the top level they need.
  constexpr int kDirect = 5, kInWords = 64;
  constexpr int kBatch = 32;
  int levels = 1, longer = 0;
  for (int li = 0; li < lengthCount; ++li) {
    if (lengths[li] > 1) ++longer;
    if (lengths[li] > kInWords) levels = std::max(levels, floorLog2(lengths[li]) + 1);
  }
  // A rectangle (one run per row, the same in every row) ANDs its rows by doubling too: row
  // shifts are word shifts of a whole stride inside a plane, into two planes of its own.
  bool rect = runCount == K && K > 4;
  for (int u = 0; u < runCount && rect; ++u)
    rect = runs[u].row == u && runs[u].start == runs[0].start &&
           runs[u].lengthIndex == runs[0].lengthIndex;
  const int planes = 1 + longer + (levels - 1) + (rect ? 2 : 0);
  const int span = i1 - i0;  // the columns a run reaches, from the leftmost one
  const int pad = (span >> 6) + 2 + kPadWords;
  Kvl8u* base = alignUp(carve.p, 64);
  if (base >= carve.end) return false;
  const long long avail = (carve.end - base) / 8;  // words
  // Words for batches of g rows of `stride` words.
  auto need = [&](long long g, long long stride) {
    return ((g + K - 1) * stride + pad) * planes + g * stride + pad;
  };
  // The widest strip whose single-row batches fit, then as many rows per batch as fit.
  const long long perRow = static_cast<long long>(K) * planes + 1;
  const long long wordsMax = (avail - pad * (planes + 1)) / perRow;
  if (wordsMax < 1) return false;
  const long long stripMax = 64 * wordsMax - span + 1;
  if (stripMax < 1) return false;
  const int strip = static_cast<int>(std::min<long long>(W, stripMax));
  // Rows follow each other without gaps: what a row's shifts read past its end is the next
  // row's start, which only ever reaches bits past the row's last valid one.
  const long long stride = (static_cast<long long>(strip) + span - 1 + 63) / 64;
  // Each batch reads its first K - 1 rows again: tall masks take taller batches, within about
  // half a megabyte of work rows (a core's second-level cache) where the buffer allows.
  constexpr long long kBatchWords = (512 << 10) / 8;
  int G = std::min(H, std::max(kBatch, 8 * K));
  while (G > kBatch && need(G, stride) > std::min(avail, kBatchWords)) --G;
  while (G > 1 && need(G, stride) > avail) --G;
  if (need(G, stride) > avail) return false;
  const long long planeWords = (static_cast<long long>(G) + K - 1) * stride + pad;
  uint64_t* words = reinterpret_cast<uint64_t*>(base);
  // What the kernels read past the words they wrote only reaches bits past a row's last valid
  // one; the words are cleared so that those reads see defined values.
  std::memset(words, 0, static_cast<size_t>(need(G, stride) * 8));
  auto plane = [&](int i) { return words + i * planeWords; };  // 0: copies, 1..: lengths
  int* planeOf = lengthSlot;  // reused: length index -> its plane (0 for length 1)
  for (int li = 0, next = 1; li < lengthCount; ++li) planeOf[li] = lengths[li] == 1 ? 0 : next++;
  auto level = [&](int p) { return plane(p == 0 ? 0 : longer + p); };
  uint64_t* acc = plane(planes);
  rect = rect && 64ll * stride * K <= INT_MAX;  // bit shifts of whole rows must fit an int

  const Combine2Fn combine2 = kCombine2.pick();
  const ReduceFn reduce = kReduce.pick();
  const RunFn runInWords = kRunInWords.pick();
  const LoadBitsFn load = kLoadBits.pick();
  const StoreBitsFn store = kStoreBits.pick();
  const int rFirst = j0 - ay;  // the source row of output row 0 and the first mask row

  for (int tx0 = 0; tx0 < W; tx0 += strip) {
    const int wt = std::min(strip, W - tx0);
    const int nIn = (wt + span - 1 + 63) >> 6;
    const int x0 = tx0 + i0 - ax, x1 = tx0 + wt + i1 - 1 - ax;
    for (int y0 = 0; y0 < H; y0 += G) {
      const int g = std::min(G, H - y0);
      const int rowsIn = g + K - 1;
      for (int i = 0; i < rowsIn; ++i) {
        const int rr = rFirst + y0 + i;
        const int sy = rr < 0 ? (memT ? rr : 0) : rr >= H ? (memB ? rr : H - 1) : rr;
        extractRow(rowPtr(src, srcStep, sy), srcBitOffset, W, x0, x1, memL, memR,
                   plane(0) + i * stride, load);
      }
      // Whole planes at once: the last row needs only its nIn words.
      const int n = static_cast<int>((rowsIn - 1) * stride + nIn);
      for (int p = 1; p < levels; ++p) combine2(level(p), level(p - 1), 0, 1 << (p - 1), n, erode);
      for (int li = 0; li < lengthCount; ++li) {
        const int len = lengths[li], p = floorLog2(len);
        if (len == 1) continue;
        if (len > kDirect && len <= kInWords) {
          runInWords(plane(planeOf[li]), plane(0), homes[li], len, n, erode);
        } else if (len <= kDirect) {
          const uint64_t* copies[kDirect];
          int at[kDirect];
          for (int i = 0; i < len; ++i) {
            copies[i] = plane(0);
            at[i] = homes[li] + i;
          }
          reduce(plane(planeOf[li]), copies, at, len, n, erode);
        } else {
          combine2(plane(planeOf[li]), level(p), homes[li], homes[li] + len - (1 << p), n, erode);
        }
      }
      const int nOut = static_cast<int>((g - 1) * stride + nIn);
      if (rect) {
        // Rows 0 .. rowsIn - q of level q are the runs of q rows down from each.
        const uint64_t* cur = plane(planeOf[runs[0].lengthIndex]);
        int q = 1;
        for (int w = 0; 2 * q <= K; q *= 2, w ^= 1) {
          uint64_t* next = plane(planes - 2 + w);
          combine2(next, cur, 0, static_cast<int>(64 * stride * q),
                   static_cast<int>((rowsIn - 2 * q) * stride + nIn), erode);
          cur = next;
        }
        combine2(acc, cur, shifts[0], shifts[0] + static_cast<int>(64 * stride * (K - q)), nOut,
                 erode);
      } else {
        for (int u = 0; u < runCount; ++u)
          terms[u] = plane(planeOf[runs[u].lengthIndex]) + runs[u].row * stride;
        reduce(acc, terms, shifts, runCount, nOut, erode);
      }
      for (int i = 0; i < g; ++i)
        storeRow(rowPtr(dst, dstStep, y0 + i), dstBitOffset, tx0, wt, acc + i * stride, store);
    }
  }
  return true;
}

long long bufferSize1u(int roiWidth, KvliSize maskSize) {
  const long long w = roiWidth, mw = maskSize.width, mh = maskSize.height;
  const long long a = roundUp(mw * mh, 16);
  // The 8u one-channel terms: the row-run scratch and the rectangle filters' buffers.
  const long long runs = (mh * mh + 1) * (w + 32) + 40 * mh + 40;
  const long long rect = 2 * mh * (w + 32) + 32 * mh + 32;
  const long long b = std::max(runs, rect) + roundUp(24 * mh, 16) + a + 16 * mh + 80;
  return b > INT_MAX ? -1 : b;
}

long long stateBlockSize1u(KvliSize maskSize) {
  const long long s =
      3 * roundUp(static_cast<long long>(maskSize.width) * maskSize.height, 16) + 96;
  return s > INT_MAX ? -1 : s;
}

namespace {

KvlStatus getSize(int roiWidth, KvliSize maskSize, int* pSpecSize, int* pBufferSize) {
  KVL_TRY(check::nonNull(pSpecSize, pBufferSize));
  KVL_TRY(check::positive(roiWidth, maskSize.width, maskSize.height));
  const long long stateBlock = stateBlockSize1u(maskSize), buf = bufferSize1u(roiWidth, maskSize);
  if (stateBlock < 0 || buf < 0) return kvlStatusBadSize;
  *pSpecSize = static_cast<int>(stateBlock);
  *pBufferSize = static_cast<int>(buf);
  return kvlStatusOk;
}

// The state: the 96 bytes of fields, the mask copy right after them (A bytes), and for a
// rectangle the analysis record after the copy. Fields are written through a local copy, so the
// block needs no particular alignment.
KvlStatus ownMorphologyBorderInit_1u(int roiWidth, const Kvl8u* pMask, KvliSize maskSize,
                                     KvliMorphState* pSpec, Kvl8u* pBuffer) {
  KVL_TRY(check::nonNull(pMask, pSpec, pBuffer));
  KVL_TRY(check::positive(roiWidth, maskSize.width, maskSize.height));
  if (stateBlockSize1u(maskSize) < 0 || bufferSize1u(roiWidth, maskSize) < 0) return kvlStatusBadSize;
  const int mw = maskSize.width, mh = maskSize.height;
  const int ax = (mw - 1) >> 1, ay = (mh - 1) >> 1;
  const long long area = static_cast<long long>(mw) * mh, a = roundUp(area, 16);

  KvliMorphMaskInfo info{};
  Kvl32s* arrays = alignUp(reinterpret_cast<Kvl32s*>(pBuffer), alignof(Kvl32s));
  const int cls = ownCheckKernel(mw, mh, pMask, ax, ay, true, &info, arrays);

  Kvl8u* block = reinterpret_cast<Kvl8u*>(pSpec);
  Kvl8u* maskCopy = block + sizeof(KvliMorphState);
  KvliMorphState st{};
  st.pMask = maskCopy;
  st.pSelectLow = nullptr;
  st.pSelectHigh = nullptr;
  st.pMaskInfo = nullptr;
  st.maskWidth = mw;
  st.maskHeight = mh;
  st.dataType = 1;  // the bit images keep the 8u one-channel terms
  st.channels = 1;
  st.roiWidth = roiWidth;
  st.minusOne = -1;
  st.maskClass = cls;
  if (cls == kvlMorphMaskEmpty) {
    std::memset(maskCopy, 0, static_cast<size_t>(a));
    st.pWork = maskCopy + a;
    st.stateSize = static_cast<Kvl32s>(a + 96);
  } else {
    std::memcpy(maskCopy, pMask, static_cast<size_t>(area));
    std::memset(maskCopy + area, 0, static_cast<size_t>(a - area));
    st.anchorX = ax;
    st.anchorY = ay;
    st.rightExtent = mw - ax - 1;
    st.bottomExtent = mh - ay - 1;
    st.rowBufferLength = static_cast<Kvl32s>(roundUp(static_cast<long long>(roiWidth) + mw, 16));
    st.stateSize = static_cast<Kvl32s>(3 * a + 96);
    st.pWork = maskCopy + a;
    if (cls == kvlMorphMaskRect) {
      info.rowCount = 0;
      info.lengthCount = 0;
      std::memcpy(maskCopy + a, &info, sizeof info);
      st.pMaskInfo = reinterpret_cast<KvliMorphMaskInfo*>(maskCopy + a);
      st.pWork = maskCopy + a + sizeof info;
    }
  }
  std::memcpy(block, &st, sizeof st);
  return kvlStatusOk;
}

KvlStatus erodeDilate(const Kvl8u* pSrc, int srcStep, int srcBitOffset, Kvl8u* pDst, int dstStep,
                      int dstBitOffset, KvliSize roi, int borderType, const KvliMorphState* pSpec,
                      Kvl8u* pBuffer, bool erode) {
  KVL_TRY(check::nonNull(pSrc, pDst, pSpec, pBuffer));
  if (srcBitOffset < 0 || dstBitOffset < 0) return kvlStatusBadSize;
  KVL_TRY(check::roi(roi));
  const long long rowBytes = (static_cast<long long>(roi.width) + 7) >> 3;
  if (srcStep < rowBytes || dstStep < rowBytes) return kvlStatusBadStep;
  KVL_TRY(check::border(borderType, check::modeBit(kvlBorderRepl) | check::modeBit(kvlBorderInMem),
                        kvlStatusBadBorderType));
  if (pSrc == pDst) return kvlStatusInPlaceNotSupported;

  KvliMorphState st;
  std::memcpy(&st, pSpec, sizeof st);
  if (st.maskClass == kvlMorphMaskEmpty) {
    copyBits(pSrc, srcStep, srcBitOffset, pDst, dstStep, dstBitOffset, roi);
    return kvlStatusOk;
  }
  const KvliSize maskSize{st.maskWidth, st.maskHeight};
  const long long bytes = bufferSize1u(st.roiWidth, maskSize);
  // The scalar target runs the plain model: the vector targets are checked against it.
  if (simd::activeTarget() == simd::kRef ||
      !morph1u(pSrc, srcStep, srcBitOffset, pDst, dstStep, dstBitOffset, roi, st.pMask,
               st.maskWidth, st.maskHeight, st.anchorX, st.anchorY, borderType, erode, pBuffer,
               bytes < 0 ? 0 : static_cast<std::size_t>(bytes))) {
    ref::morph1u(pSrc, srcStep, srcBitOffset, pDst, dstStep, dstBitOffset, roi, st.pMask,
                 st.maskWidth, st.maskHeight, st.anchorX, st.anchorY, borderType, erode);
  }
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::morph

extern "C" KvlStatus impl_kvliMorphologyBorderGetSize_1u_C1R(int roiWidth, KvliSize maskSize,
                                                             int* pSpecSize, int* pBufferSize) {
  return kvl::morph::getSize(roiWidth, maskSize, pSpecSize, pBufferSize);
}

extern "C" KvlStatus impl_kvliMorphologyBorderInit_1u_C1R(int roiWidth, const Kvl8u* pMask,
                                                          KvliSize maskSize, KvliMorphState* pSpec,
                                                          Kvl8u* pBuffer) {
  return kvl::morph::ownMorphologyBorderInit_1u(roiWidth, pMask, maskSize, pSpec, pBuffer);
}

#define KVL_MORPH_1U(Op, erode)                                                                 \
  extern "C" KvlStatus impl_kvli##Op##Border_1u_C1R(                                            \
      const Kvl8u* pSrc, int srcStep, int srcBitOffset, Kvl8u* pDst, int dstStep,               \
      int dstBitOffset, KvliSize roiSize, int borderType, int borderValue,                      \
      const KvliMorphState* pSpec, Kvl8u* pBuffer) {                                            \
    (void)borderValue;                                                                          \
    return kvl::morph::erodeDilate(pSrc, srcStep, srcBitOffset, pDst, dstStep, dstBitOffset,    \
                                   roiSize, borderType, pSpec, pBuffer, erode);                 \
  }
KVL_MORPH_1U_MEMBERS(KVL_MORPH_1U)
#undef KVL_MORPH_1U
