// The argument-validation toolkit: small checks that each return the first failing status.
//
// Families compose them in the order they validate; the common order is
//   KVL_TRY(check::nonNull(pSrc, pDst, pBuffer));        // every pointer first
//   KVL_TRY(check::roi(roiSize));                        // sizes
//   KVL_TRY(check::steps(roiSize.width, check::Step<Kvl8u, 1>{srcStep},
//                        check::Step<Kvl16s, 1>{dstStep})); // all steps, then all multiples
//   KVL_TRY(check::border(borderType, check::kModes01234, kvlStatusBadArgument));
// and a family with another order composes the same checks differently.
#pragma once

#include "kvlcv.h"

#define KVL_TRY(expr)                                 \
  do {                                                \
    const KvlStatus kvl_try_status_ = (expr);         \
    if (kvl_try_status_ != kvlStatusOk) return kvl_try_status_; \
  } while (0)

namespace kvl::check {

// kvlStatusNullPointer when any pointer is null.
template <class... P>
constexpr KvlStatus nonNull(const P*... p) {
  return ((p != nullptr) && ...) ? kvlStatusOk : kvlStatusNullPointer;
}

// kvlStatusBadSize when the ROI is empty.
inline KvlStatus roi(KvliSize s) {
  return (s.width >= 1 && s.height >= 1) ? kvlStatusOk : kvlStatusBadSize;
}

// kvlStatusBadSize when any size argument is < 1.
template <class... I>
constexpr KvlStatus positive(I... v) {
  return ((v >= 1) && ...) ? kvlStatusOk : kvlStatusBadSize;
}

// A row step of an image of kC channels of T.
template <class T, int kC = 1>
struct Step {
  int step;
  // The step covers a row of `width` pixels (64-bit: a table row may be wider than the ROI).
  bool covers(long long width) const {
    // Signed throughout: a negative step must not wrap into a huge unsigned one.
    return static_cast<long long>(step) >=
           static_cast<long long>(width) * kC * static_cast<long long>(sizeof(T));
  }
  // 16- and 32-bit (and wider) element types need steps that are element multiples.
  bool multiple() const { return sizeof(T) == 1 || step % static_cast<int>(sizeof(T)) == 0; }
};

// kvlStatusBadStep when a step is shorter than its row.
template <class... S>
KvlStatus stepsCover(long long width, S... s) {
  return (s.covers(width) && ...) ? kvlStatusOk : kvlStatusBadStep;
}

// kvlStatusStepNotMultiple when a 16/32-bit step is not an element multiple.
template <class... S>
KvlStatus stepMultiples(S... s) {
  return (s.multiple() && ...) ? kvlStatusOk : kvlStatusStepNotMultiple;
}

// Every step against the width first, then every step for its multiple.
template <class... S>
KvlStatus steps(int width, S... s) {
  KVL_TRY(stepsCover(width, s...));
  return stepMultiples(s...);
}

// Border-type modes as bit sets over the low four bits.
constexpr unsigned modeBit(int m) { return 1u << m; }
constexpr unsigned kModes01234 = 0x1f;
constexpr unsigned kModes01234_6 = kModes01234 | modeBit(6);
constexpr unsigned kModes0134_6 = modeBit(0) | modeBit(1) | modeBit(3) | modeBit(4) | modeBit(6);
constexpr int kInMemFlags = kvlBorderInMemTop | kvlBorderInMemBottom | kvlBorderInMemLeft |
                            kvlBorderInMemRight;

// `fail` when the mode (low four bits) is not in `modes`, or bits 4..15 are set without any of
// the four in-memory flags.
inline KvlStatus border(int borderType, unsigned modes, KvlStatus fail) {
  const int mode = borderType & 15;
  if (!(modes & modeBit(mode))) return fail;
  if ((borderType & 0xfff0) != 0 && (borderType & kInMemFlags) == 0) return fail;
  return kvlStatusOk;
}

// Mode 6 means all four sides in memory: rewrite it as the four flags.
inline int normalizeInMem(int borderType) {
  return (borderType & 15) == kvlBorderInMem ? ((borderType & ~15) | kInMemFlags) : borderType;
}

// kvlStatusBadMaskSize unless the mask is 3x3 or 5x5.
inline KvlStatus mask3or5(int mask) {
  return (mask == kvlMaskSize3x3 || mask == kvlMaskSize5x5) ? kvlStatusOk : kvlStatusBadMaskSize;
}

inline int maskLength(int mask) { return mask == kvlMaskSize5x5 ? 5 : 3; }

}  // namespace kvl::check
