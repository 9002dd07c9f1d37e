// Haar classifiers: the state's layout, the per-pixel rule shared by the reference and the vector
// kernels' short tails, and the apply kernels' signature.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "core/pixel.h"
#include "core/simd.h"
#include "detect/haar_members.h"
#include "kvlcv.h"

namespace kvl::detect {

// ---- The state: one allocation of 32 x length + 36 x rectangles + 56 bytes ----
// Header (48 bytes), then `length` classifier records (32 bytes each), then the rectangle
// records (36 bytes each) in record order; 8 bytes spare at the end. V is Kvl32f or Kvl32s.

// A rectangle: four corners (column, row), summed as X[p0] - X[p1] - X[p2] + X[p3], and its
// weight.
template <class V>
struct HaarRect {
  KvliPoint p[4];
  V weight;
};

// A weak classifier.
template <class V>
struct HaarRecord {
  int32_t n;  // rectangles, >= 1
  HaarRect<V>* rects;
  V threshold, val1, val2;
  uint32_t index;  // position in the caller's arrays << 8; bit 0 set: read from the tilted table
};

template <class V>
struct HaarState {
  int32_t length;     // weak classifiers
  int32_t rectCount;  // rectangles in all
  HaarRecord<V>* records;
  KvliRect bounds;      // the smallest box holding every corner of every rectangle as it is
                        // now ({0, 0, 0, 0} for none): x, y the least column and row, width
                        // and height the spans to the greatest
  uint32_t flags;       // bit 0: holds tilted features
  int32_t offsetRects;  // rectCount again: sizes the apply's offset table
  int32_t count2;       // records with exactly 2 rectangles, first (upright InitAlloc; else 0)
  int32_t count23;      // records with 2 or 3 rectangles (the 3s follow the 2s); else 0
};

static_assert(sizeof(HaarRect<float>) == 36 && sizeof(HaarRect<int32_t>) == 36);
static_assert(sizeof(HaarRecord<float>) == 32 && sizeof(HaarRecord<int32_t>) == 32);
static_assert(sizeof(HaarState<float>) == 48 && sizeof(HaarState<int32_t>) == 48);

constexpr uint32_t kTiltedFlag = 1;

inline long long haarStateBytes(long long length, long long rects) {
  return 32 * length + 36 * rects + 56;
}

// The layout behind the opaque handles.
inline HaarState<Kvl32f>* stateOf(KvliHaarClassifier_32f* s) {
  return reinterpret_cast<HaarState<Kvl32f>*>(s);
}
inline HaarState<Kvl32s>* stateOf(KvliHaarClassifier_32s* s) {
  return reinterpret_cast<HaarState<Kvl32s>*>(s);
}

// ---- Arithmetic of each rule ----
template <HaarArith A>
struct HaarTypes;
template <>
struct HaarTypes<HaarArith::kFloat> {
  using Table = Kvl32f;
  using Value = Kvl32f;
  using Sum = float;  // f
};
template <>
struct HaarTypes<HaarArith::kIntFloat> {
  using Table = Kvl32s;
  using Value = Kvl32f;
  using Sum = float;
};
template <>
struct HaarTypes<HaarArith::kInt> {
  using Table = Kvl32s;
  using Value = Kvl32s;
  using Sum = uint32_t;  // wraps
};
template <>
struct HaarTypes<HaarArith::kWide> {
  using Table = Kvl32s;
  using Value = Kvl32s;
  using Sum = uint64_t;  // wraps
};

// A corner's element offset from the window origin, p.row x stride + p.column in 32 bits.
inline int32_t cornerOffset(KvliPoint p, ptrdiff_t stride) {
  return static_cast<int32_t>(static_cast<uint32_t>(p.y) * static_cast<uint32_t>(stride) +
                              static_cast<uint32_t>(p.x));
}

// One rectangle's sum at origin o: ((X[o0] - X[o1]) - X[o2]) + X[o3] in the table's type, integers
// wrapping. The caller's tables may sit at any address.
template <class Table>
inline Table cornerSum(const Table* o, const int32_t* off) {
  const Table x0 = loadAny(o + off[0]), x1 = loadAny(o + off[1]);
  const Table x2 = loadAny(o + off[2]), x3 = loadAny(o + off[3]);
  if constexpr (std::is_floating_point_v<Table>) {
    return ((x0 - x1) - x2) + x3;
  } else {
    const uint32_t s = static_cast<uint32_t>(x0) - static_cast<uint32_t>(x1) -
                       static_cast<uint32_t>(x2) + static_cast<uint32_t>(x3);
    return static_cast<Table>(s);
  }
}

// weight x rectangle sum, the term f adds.
template <HaarArith A>
inline typename HaarTypes<A>::Sum haarTerm(typename HaarTypes<A>::Value w,
                                           typename HaarTypes<A>::Table s) {
  if constexpr (A == HaarArith::kFloat || A == HaarArith::kIntFloat) {
    return w * static_cast<float>(s);
  } else if constexpr (A == HaarArith::kInt) {
    return static_cast<uint32_t>(w) * static_cast<uint32_t>(s);
  } else {
    return static_cast<uint64_t>(static_cast<int64_t>(w) * static_cast<int64_t>(s));
  }
}

// True when the weak classifier answers val1: f below norm x threshold (a tie gives val2).
// `shift` is -scaleFactor of the wide rule (0..; 64 and more shift everything out).
template <HaarArith A>
inline bool haarBelow(typename HaarTypes<A>::Sum f, typename HaarTypes<A>::Value thr,
                      typename HaarTypes<A>::Value norm, int shift) {
  if constexpr (A == HaarArith::kFloat || A == HaarArith::kIntFloat) {
    return norm * thr > f;
  } else if constexpr (A == HaarArith::kInt) {
    return static_cast<int32_t>(f) <
           static_cast<int32_t>(static_cast<uint32_t>(thr) * static_cast<uint32_t>(norm));
  } else {
    const uint64_t shifted = shift >= 64 ? 0 : f << shift;
    return static_cast<int64_t>(shifted) < static_cast<int64_t>(thr) * static_cast<int64_t>(norm);
  }
}

template <class Value>
inline Value haarAddStage(Value stage, Value v) {
  if constexpr (std::is_floating_point_v<Value>) {
    return stage + v;
  } else {
    return static_cast<Value>(static_cast<uint32_t>(stage) + static_cast<uint32_t>(v));
  }
}

// ---- The apply kernels ----

// What one apply call hands its kernel. Tables are addressed in elements, the norm and the mask
// in bytes. The tilted table pointer is already moved to the origin of the window at (0, 0), one
// row down and one column right of its first element.
template <HaarArith A>
struct HaarJob {
  using Table = typename HaarTypes<A>::Table;
  using Value = typename HaarTypes<A>::Value;
  const Table* src;
  ptrdiff_t srcStride;
  const Table* tilt;  // Mixed only
  ptrdiff_t tiltStride;
  const Value* norm;
  int normStep;
  Kvl8u* mask;
  int maskStep;
  KvliSize roi;
  const HaarState<Value>* state;
  const int32_t* offsets;  // upright: the four corner offsets of every rectangle in record order
  Value threshold;
  int shift;  // wide rule: -scaleFactor
};

// Evaluates every candidate pixel of the job, clears the mask of those that fail and returns the
// number that stay.
template <HaarArith A>
using HaarApplyFn = int (*)(const HaarJob<A>& job);

template <HaarArith A, bool kMixed>
struct HaarKernel {
  static const simd::Kernel<HaarApplyFn<A>> kernel;
};

namespace ref {
template <HaarArith A, bool kMixed>
int haarApply(const HaarJob<A>& job);
}  // namespace ref

// The whole rule at one candidate: `up` and `tl` are the window's origins in the upright and
// tilted tables. True when the pixel stays. Weak classifiers and rectangles go in record order.
template <HaarArith A, bool kMixed>
inline bool haarStays(const HaarJob<A>& j, const typename HaarTypes<A>::Table* up,
                      const typename HaarTypes<A>::Table* tl, typename HaarTypes<A>::Value norm) {
  using Value = typename HaarTypes<A>::Value;
  using Sum = typename HaarTypes<A>::Sum;
  const HaarState<Value>& st = *j.state;
  const int32_t* off = j.offsets;
  Value stage = 0;
  for (int i = 0; i < st.length; ++i) {
    const HaarRecord<Value>& c = st.records[i];
    const bool tilted = kMixed && (c.index & kTiltedFlag);
    const typename HaarTypes<A>::Table* o = tilted ? tl : up;
    Sum f = 0;
    for (int k = 0; k < c.n; ++k) {
      int32_t corners[4];
      if constexpr (kMixed) {
        const ptrdiff_t stride = tilted ? j.tiltStride : j.srcStride;
        for (int q = 0; q < 4; ++q) corners[q] = cornerOffset(c.rects[k].p[q], stride);
      } else {
        for (int q = 0; q < 4; ++q) corners[q] = off[q];
        off += 4;
      }
      f = f + haarTerm<A>(c.rects[k].weight, cornerSum(o, corners));
    }
    stage = haarAddStage(stage, haarBelow<A>(f, c.threshold, norm, j.shift) ? c.val1 : c.val2);
  }
  if constexpr (std::is_floating_point_v<Value>) {
    return !(j.threshold > stage);
  } else {
    return stage >= j.threshold;
  }
}

#define KVL_HAAR_EXTERN(Op, suffix, arith, layout, Table, Value, types, sfs) \
  extern template struct HaarKernel<HaarArith::arith, KVL_HAAR_MIXED_##layout>;
KVL_HAAR_APPLY_MEMBERS(KVL_HAAR_EXTERN)
#undef KVL_HAAR_EXTERN

}  // namespace kvl::detect
