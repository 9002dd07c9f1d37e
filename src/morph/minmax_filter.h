// Rectangle minimum and maximum filters: the kernel signature, the order the filters compare
// elements in, and the kernel of every member of KVL_MINMAX_MEMBERS.
#pragma once

#include <cstdint>
#include <type_traits>

#include "core/simd.h"
#include "morph/minmax_filter_members.h"
#include "morph/order.h"
#include "kvlcv.h"

namespace kvl::morph {

// Work buffer bytes of a member with `elemBytes` x `channels` bytes per pixel: the 8u C1 size
// 2*maskHeight*(roiWidth + 32) + 32*maskHeight + 32, times the bytes of a pixel. The filter lays
// out up to 2*maskHeight rows of roiWidth pixels in it, each rounded up to 32 bytes, 32-byte
// aligned.
inline long long minMaxBufferBytes(int roiWidth, KvliSize mask, int elemBytes, int channels) {
  const long long mh = mask.height;
  return static_cast<long long>(elemBytes) * channels * (2 * mh * (roiWidth + 32LL) + 32 * mh + 32);
}

// The whole filter on one ROI of w x h pixels, with the mask (mw x mh, anchor ax, ay) already
// validated and `buffer` of at least minMaxBufferBytes bytes.
template <class T, int kC>
using MinMaxFn = void (*)(const T* src, int srcStep, T* dst, int dstStep, int w, int h, int mw,
                          int mh, int ax, int ay, bool isMax, Kvl8u* buffer);

template <class T, int kC>
struct MinMaxKernel {
  static const simd::Kernel<MinMaxFn<T, kC>> kernel;
};

// The centred 3x3 plus (the middle row and the middle column of a 3x3 mask) on a w x h ROI with
// every side replicated; the morphology's fast path for that element. It needs no buffer.
template <class T, int kC>
using PlusFn = void (*)(const T* src, int srcStep, T* dst, int dstStep, int w, int h, bool isMax);

template <class T, int kC>
struct PlusKernel {
  static const simd::Kernel<PlusFn<T, kC>> kernel;
};

namespace ref {
template <class T, int kC>
void plus(const T* src, int srcStep, T* dst, int dstStep, int w, int h, bool isMax);
template <class T, int kC>
void minMax(const T* src, int srcStep, T* dst, int dstStep, int w, int h, int mw, int mh, int ax,
            int ay, bool isMax, Kvl8u* buffer);
}  // namespace ref

#define KVL_MINMAX_EXTERN(types, layout, T, ch) \
  extern template struct MinMaxKernel<T, ch>;   \
  extern template struct PlusKernel<T, ch>;
KVL_MINMAX_MEMBERS(KVL_MINMAX_EXTERN)
#undef KVL_MINMAX_EXTERN

}  // namespace kvl::morph
