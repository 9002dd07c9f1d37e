// Erosion and dilation of bit images (one bit per pixel): the member table, the word kernels and
// the engine that runs them.
//
// A bit row is worked on as 64-bit words, pixel t of a row in bit t & 63 of word t >> 6. The
// engine copies each source row it needs into words with its border bits, combines neighbours by
// shifts with carries across words (runs of length L by doubling: AND of a row and itself shifted
// by 1, 2, 4, ... pixels), and combines the rows a mask needs by plain word operations.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/simd.h"
#include "kvlcv.h"

namespace kvl::morph {

// Members, kvli<Op>Border_1u_C1R: X(Op, erode).
// clang-format off
#define KVL_MORPH_1U_MEMBERS(X) \
  X(Erode,  true)               \
  X(Dilate, false)
// clang-format on

// Words of vector slack after every row the engine keeps: the kernels may write up to this many
// words past a row's end and read this many past the shifts they are given.
constexpr int kPadWords = 16;

// Word t of a row shifted right by s pixels (s >= 0): bit b of the result is pixel b + s of the
// row, taken across the word boundary.
inline uint64_t shiftedWord(const uint64_t* row, std::ptrdiff_t t, int s) {
  const int q = s >> 6, r = s & 63;
  const uint64_t lo = row[t + q];
  return r == 0 ? lo : (lo >> r) | (row[t + q + 1] << (64 - r));
}

// out[t] = (row shifted by a)[t] op (row shifted by b)[t] for t in [0, n): op is AND for erosion,
// OR for dilation. May write up to kPadWords words past n and reads row up to
// n + max(a, b) / 64 + 1 + kPadWords words.
using Combine2Fn = void (*)(uint64_t* out, const uint64_t* row, int a, int b, int n, bool erode);

// out[t] = op over i < count of (rows[i] shifted by shifts[i])[t], for t in [0, n); count >= 1.
// May write up to kPadWords words past n.
using ReduceFn = void (*)(uint64_t* out, const uint64_t* const* rows, const int* shifts,
                          int count, int n, bool erode);

// Words from bytes: out[k] = the 64 bits that start at bit s (0..7) of byte p + 8k, for k in
// [0, n). Reads bytes p .. p + 8n - 1, and p + 8n when s > 0.
using LoadBitsFn = void (*)(uint64_t* out, const Kvl8u* p, int s, int n);

// Bytes from words: writes bytes p + 8c .. p + 8c + 7 for c in [c0, c1) with the words shifted
// left by sh (0..7) bits: chunk c is bits[c] << sh with the top sh bits of bits[c - 1] below
// (c0 >= 1 when sh > 0).
using StoreBitsFn = void (*)(Kvl8u* p, const uint64_t* bits, int sh, int c0, int c1);

// The 3x3 rectangle and the centred 3x3 cross at bit offset 0 run row by row, straight from the
// source rows to the destination row. The middle term of word k is the AND (erode) or OR of word
// k of the rows above, at and below (rectangle), or word k of the row itself (cross); output word
// k is the middle term op its left and right neighbours (op words k of the rows above and below
// for a cross). Computes the n whole words of one row: the top bit of `left` is the middle term
// of pixel -1 and bit 0 of `right` that of pixel 64n. Reads bytes [0, 8n) of each row, writes
// exactly bytes [0, 8n) of out.
using Row3x3Fn = void (*)(Kvl8u* out, const Kvl8u* up, const Kvl8u* mid, const Kvl8u* down, int n,
                          uint64_t left, uint64_t right, bool erode, bool cross);

// Word `mid` op its pixels' left and right neighbours, the outer ones from the words beside it.
inline uint64_t horizontalWord3(uint64_t left, uint64_t mid, uint64_t right, bool erode) {
  const uint64_t l = (mid << 1) | (left >> 63), r = (mid >> 1) | (right << 63);
  return erode ? (mid & l & r) : (mid | l | r);
}

// out[t] = op over i < len of (row shifted by s + i)[t], for t in [0, n), 2 <= len <= 64: the run
// doubles inside each word's 128-bit window. May write up to kPadWords words past n and reads row
// up to n + s / 64 + 2 + kPadWords words.
using RunFn = void (*)(uint64_t* out, const uint64_t* row, int s, int len, int n, bool erode);

extern const simd::Kernel<Row3x3Fn> kRow3x3;
extern const simd::Kernel<RunFn> kRunInWords;
extern const simd::Kernel<Combine2Fn> kCombine2;
extern const simd::Kernel<LoadBitsFn> kLoadBits;
extern const simd::Kernel<StoreBitsFn> kStoreBits;
extern const simd::Kernel<ReduceFn> kReduce;

namespace ref {
void combine2(uint64_t* out, const uint64_t* row, int a, int b, int n, bool erode);
void reduce(uint64_t* out, const uint64_t* const* rows, const int* shifts, int count, int n,
            bool erode);
void loadBits(uint64_t* out, const Kvl8u* p, int s, int n);
void storeBits(Kvl8u* p, const uint64_t* bits, int sh, int c0, int c1);
void runInWords(uint64_t* out, const uint64_t* row, int s, int len, int n, bool erode);
void row3x3(Kvl8u* out, const Kvl8u* up, const Kvl8u* mid, const Kvl8u* down, int n,
            uint64_t left, uint64_t right, bool erode, bool cross);

// The plain model: each destination bit is the AND (erode) or OR of the source bits at the
// mask's non-zero positions, read through the border rule (mode 1 with side flags, or 6); an
// all-zero mask copies the ROI. Bits of the destination's bytes outside the ROI stay as they
// are. No scratch memory.
void morph1u(const Kvl8u* src, int srcStep, int srcBitOffset, Kvl8u* dst, int dstStep,
             int dstBitOffset, KvliSize roi, const Kvl8u* mask, int maskWidth, int maskHeight,
             int anchorX, int anchorY, int borderType, bool erode);
}  // namespace ref

// The word engine. The same result as ref::morph1u, using only buffer[0, bufferBytes) as scratch
// (the ROI is cut into column strips when its rows do not fit at once). Returns false, writing
// nothing, when not even a narrow strip fits; the caller then runs the plain model.
bool morph1u(const Kvl8u* src, int srcStep, int srcBitOffset, Kvl8u* dst, int dstStep,
             int dstBitOffset, KvliSize roi, const Kvl8u* mask, int maskWidth, int maskHeight,
             int anchorX, int anchorY, int borderType, bool erode, Kvl8u* buffer,
             std::size_t bufferBytes);

// Copies the ROI's bits from source to destination, leaving the destination's other bits.
void copyBits(const Kvl8u* src, int srcStep, int srcBitOffset, Kvl8u* dst, int dstStep,
              int dstBitOffset, KvliSize roi);

// Bytes of the work buffer and of the state for a state built for roiWidth pixels and a mask of
// maskSize (the buffer takes the 8u one-channel terms); -1 when a size exceeds INT_MAX.
long long bufferSize1u(int roiWidth, KvliSize maskSize);
long long stateBlockSize1u(KvliSize maskSize);

}  // namespace kvl::morph
