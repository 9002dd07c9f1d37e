// The run engine: erosion and dilation of an image by an arbitrary byte mask. Internal; the
// morphology family calls it for its general and row-run paths of both interfaces.
//
// Design. Each mask row is cut into runs of non-zero elements. Every source row needed enters a
// ring of rows extended by the border rule (as comparison keys). For a run length shared by
// enough runs, the engine also keeps a ring of the horizontal running minimum (maximum) of that
// width, made once per source row by shifted pairwise passes from the longest kept length below
// it. An output row is the element-wise minimum of one ring row per run of a kept length, read
// at the run's column offset, and of the run's L extended pixels for any other run. When the
// rings do not fit into the buffer the ROI is processed in column tiles.
//
// Exactness: only comparisons, so every target gives the same bytes. 32f values are compared as
// a total order in which -0 lies below +0 (erosion of {-0, +0} gives -0, dilation gives +0) and
// NaNs order by their bits, positive ones above +inf and negative ones below -inf.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "core/pixel.h"
#include "core/simd.h"
#include "kvlcv.h"
#include "morph/order.h"

namespace kvl::morph {

// Members of the engine: X(suffix, element type, channels).
// clang-format off
#define KVL_MORPH_RUNS_MEMBERS(X) \
  X(8u_C1,  Kvl8u,  1)            \
  X(8u_C3,  Kvl8u,  3)            \
  X(8u_C4,  Kvl8u,  4)            \
  X(16u_C1, Kvl16u, 1)            \
  X(16s_C1, Kvl16s, 1)            \
  X(32f_C1, Kvl32f, 1)            \
  X(32f_C3, Kvl32f, 3)            \
  X(32f_C4, Kvl32f, 4)
// Element types of the kernels (channels are interleaved elements to them).
#define KVL_MORPH_RUNS_TYPES(X) X(Kvl8u) X(Kvl16u) X(Kvl16s) X(Kvl32f)
// clang-format on

// Erosion (erode = true, minimum) or dilation (maximum) of the ROI by the non-zero elements of
// the mask with the anchor (0 <= ax < W, 0 <= ay < H, may lie on a zero element), reading
// outside the ROI by borderType: kvlBorderInMem (6), or kvlBorderRepl (1) plus any of the
// in-memory side flags 16/32/64/128 (a flagged side reads memory, the others replicate).
// Only the rows and columns that the mask's non-zero elements reach are read outside the ROI.
// Uses only buffer[0, bufferBytes) as scratch (any alignment); returns false (writing nothing)
// when that is too small for it, and the caller then runs the plain reference instead. The
// source and destination must not overlap. The mask is never empty when it is called.
//
// Memory rule. Let rows jmin .. jmax of the mask hold runs, Wb be the width from the first run
// start to the last run end, and jminL be the first row with a run of length L. A plan may keep a
// length L > 1, made from the kept length A below it (or A = 1) either in one pass of c = ceil(L/A)
// loads (when c <= 16 and c + 2 <= 4p) or in p doubling passes (p: the passes that double A while
// it is below L / 2, plus one); the full plan keeps it when (L - 1) x (runs of length L) exceeds
// that cost (c + 2, or 4p). A plan may also pair the output rows (when the loads of two rows number
// at most 256 and the rings name at most 1024 rows per pair), which makes every ring one row deeper
// (e = 1, else 0). The rings hold: (jmax - jminD + 1 + e) extended rows (jminD: the first row with
// a run of a length not kept; 1 + e rows when every length is kept), (jmax - jminL + 1 + e) rows
// for each kept L, and one work row when a kept length is made by doubling. Each row holds (tile +
// Wb - 1) pixels of kC elements of the comparison type (8u: 1 byte, 16u/16s: 2, 32f: 4), rounded up
// to 16 bytes; the rows start at the buffer's first 16-byte boundary. The plans, in order: full and
// paired, full and single, plain (nothing kept) and paired, plain and single. The first whose
// widest fitting tile (at most the ROI width) is at least min(256, ROI width) is used, else the one
// with the widest tile. When that tile is the whole ROI it is used as one tile. Otherwise the
// columns whose loads reach a replicated side (widened to 64 columns) are cut into equal tiles of
// that width, and the columns between them into equal tiles as wide as the rings without the
// extended rows allow (integer types read those columns in place; 32f uses the first tile width
// throughout). The engine returns false when not even a tile of one pixel fits the last plan, or
// when the mask has more than kMaxRuns runs or kMaxLengths distinct lengths.
template <class T, int kC>
bool morphRuns(const T* src, int srcStep, T* dst, int dstStep, KvliSize roi, const Kvl8u* mask,
               KvliSize maskSize, KvliPoint anchor, int borderType, bool erode, Kvl8u* buffer,
               std::size_t bufferBytes);

constexpr int kMaxRuns = 1024;
constexpr int kMaxLengths = 256;

// Bytes the rings take for a tile of `tile` pixels from a 16-byte boundary on, by plan (0 full and
// paired, 1 full and single, 2 plain and paired, 3 plain and single; the rule above); 0 when the
// mask is beyond the limits. keySize: the comparison type's size. Tests and callers that size their
// own buffers use it.
std::size_t morphRunsBytes(const Kvl8u* mask, KvliSize maskSize, int channels, int keySize,
                           int tile, int plan);

// ---- Kernels. The ring holds comparison keys (Order<T>, morph/order.h): the element itself for
// the integer types, and for 32f the bits as a signed integer with the magnitude bits of negative
// values inverted, so that integer order is the float order with -0 below +0. ----

// out[i] = min (max) of a[i] and b[i], i < n; out may equal a when b lies after a (the pass
// runs forward). The rows the kernels read may be the caller's integer image rows, at any
// address.
template <class U>
using PairRowFn = void (*)(const U* a, const U* b, U* out, int n);
// out[i] = min (max) of rows[r][i] over r < count (count >= 1); out never aliases the rows.
template <class U>
using FoldRowFn = void (*)(const U* const* rows, int count, U* out, int n);
// out[i] = min (max) of rows[r][i] over r < count (and of out[i] itself when accumulate), back
// from keys to T; out is the caller's image, at any address. With `stream`, the vector stores
// that are aligned bypass the cache (the caller fences once after its last row).
template <class T>
using CombineRowFn = void (*)(const KeyOf<T>* const* rows, int count, T* out, int n,
                              bool accumulate, bool stream);
// Two output rows at once from taps = [shared (ns) | first row only (na) | second only (nb)]:
// out0[i] = min over the shared and first-row taps, out1[i] over the shared and second-row taps.
// ns + na >= 1 and ns + nb >= 1. `stream` as for CombineRowFn.
template <class T>
using Combine2RowFn = void (*)(const KeyOf<T>* const* taps, int ns, int na, int nb, T* out0,
                               T* out1, int n, bool stream);
// out[i] = the key of in[i] (in: the caller's image, at any address).
template <class T>
using KeyRowFn = void (*)(const T* in, KeyOf<T>* out, int n);

template <class T, bool kMin>
struct RunKernels {
  static const simd::Kernel<PairRowFn<KeyOf<T>>> pair;
  static const simd::Kernel<FoldRowFn<KeyOf<T>>> fold;
  static const simd::Kernel<CombineRowFn<T>> combine;
  static const simd::Kernel<Combine2RowFn<T>> combine2;
  static const simd::Kernel<KeyRowFn<T>> keys;
};

namespace ref {
template <class U, bool kMin>
void pairRow(const U* a, const U* b, U* out, int n) {
  for (int i = 0; i < n; ++i) out[i] = better<!kMin>(loadAny(a + i), loadAny(b + i));
}
template <class U, bool kMin>
void foldRange(const U* const* rows, int count, U* out, int from, int n) {
  for (int i = from; i < n; ++i) {
    U v = loadAny(rows[0] + i);
    for (int r = 1; r < count; ++r) v = better<!kMin>(v, loadAny(rows[r] + i));
    out[i] = v;
  }
}
template <class U, bool kMin>
void foldRow(const U* const* rows, int count, U* out, int n) {
  foldRange<U, kMin>(rows, count, out, 0, n);
}
// Elements [from, n) of the kernels below (the vector kernels finish their rows with these).
template <class T, bool kMin>
void combineRange(const KeyOf<T>* const* rows, int count, T* out, int from, int n,
                  bool accumulate) {
  using U = KeyOf<T>;
  for (int i = from; i < n; ++i) {
    U v = loadAny(rows[0] + i);
    if (accumulate) v = better<!kMin>(Order<T>::key(loadAny(out + i)), v);
    for (int r = 1; r < count; ++r) v = better<!kMin>(v, loadAny(rows[r] + i));
    storeAny(out + i, Order<T>::value(v));
  }
}
template <class T, bool kMin>
void combine2Range(const KeyOf<T>* const* taps, int ns, int na, int nb, T* out0, T* out1, int from,
                   int n) {
  using U = KeyOf<T>;
  auto fold = [&](const KeyOf<T>* const* t, int count, int i, U v) {
    for (int r = 0; r < count; ++r) v = better<!kMin>(v, loadAny(t[r] + i));
    return v;
  };
  for (int i = from; i < n; ++i) {
    const U s = ns ? fold(taps + 1, ns - 1, i, loadAny(taps[0] + i)) : U{};
    const U v0 = ns ? fold(taps + ns, na, i, s) : fold(taps + 1, na - 1, i, loadAny(taps[0] + i));
    const KeyOf<T>* const* b = taps + ns + na;
    const U v1 = ns ? fold(b, nb, i, s) : fold(b + 1, nb - 1, i, loadAny(b[0] + i));
    storeAny(out0 + i, Order<T>::value(v0));
    storeAny(out1 + i, Order<T>::value(v1));
  }
}
template <class T, bool kMin>
void combineRow(const KeyOf<T>* const* rows, int count, T* out, int n, bool accumulate, bool) {
  combineRange<T, kMin>(rows, count, out, 0, n, accumulate);
}
template <class T, bool kMin>
void combine2Row(const KeyOf<T>* const* taps, int ns, int na, int nb, T* out0, T* out1, int n,
                 bool) {
  combine2Range<T, kMin>(taps, ns, na, nb, out0, out1, 0, n);
}
template <class T>
void keyRow(const T* in, KeyOf<T>* out, int n) {
  for (int i = 0; i < n; ++i) {
    T v;
    std::memcpy(&v, in + i, sizeof v);
    out[i] = Order<T>::key(v);
  }
}
}  // namespace ref

#define KVL_MORPH_RUNS_EXTERN(T)              \
  extern template struct RunKernels<T, true>; \
  extern template struct RunKernels<T, false>;
KVL_MORPH_RUNS_TYPES(KVL_MORPH_RUNS_EXTERN)
#undef KVL_MORPH_RUNS_EXTERN

}  // namespace kvl::morph
