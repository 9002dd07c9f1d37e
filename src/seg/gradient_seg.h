// Gradient segmentation: the kernels and constants shared by the family, its reference and its
// vector code.
#pragma once

#include <cstdint>

#include "core/simd.h"
#include "kvlcv.h"
#include "seg/gradient_seg_members.h"

namespace kvl::seg {

// The boundary-marking flag bits: after flooding, a label that meets another across a 4- or an
// 8-neighbour edge becomes kSegBoundary.
constexpr int kSegBounds4 = 64;
constexpr int kSegBounds8 = 128;
constexpr Kvl8u kSegBoundary = 255;

// Without seed labels, the seeds are the regional minima of the relief shifted right by this
// many bits: steps of less than 8 grey levels inside a smooth region do not split it.
constexpr int kSeedShift = 4;

// Bytes of work memory per pixel and the fixed part of the size formula.
constexpr long long kSegBytesPerPixel = 17;
constexpr long long kSegFixedBytes = 115;

// One row of the relief: out[x] is the largest, over the channels, of (largest - smallest) value
// in the pixel's neighbourhood: the 3x3 square when cross is 0, the pixel and its 4 neighbours
// when cross is 1. up and down are the rows above and below (the row itself at the image's top
// and bottom); columns outside the row are left out of the neighbourhood.
using GradientRowFn = void (*)(const Kvl8u* up, const Kvl8u* mid, const Kvl8u* down, int width,
                               int cross, Kvl8u* out);
extern const simd::Kernel<GradientRowFn> kGradientRowC1;
extern const simd::Kernel<GradientRowFn> kGradientRowC3;

template <int kC>
const simd::Kernel<GradientRowFn>& gradientRowKernel() {
  if constexpr (kC == 1) {
    return kGradientRowC1;
  } else {
    return kGradientRowC3;
  }
}

namespace ref {
// Columns [x0, x1) of a row of kC channels; any columns of the row may be asked for.
template <int kC>
void gradientColumns(const Kvl8u* up, const Kvl8u* mid, const Kvl8u* down, int width, int cross,
                     int x0, int x1, Kvl8u* out);
void gradientRowC1(const Kvl8u* up, const Kvl8u* mid, const Kvl8u* down, int width, int cross,
                   Kvl8u* out);
void gradientRowC3(const Kvl8u* up, const Kvl8u* mid, const Kvl8u* down, int width, int cross,
                   Kvl8u* out);
}  // namespace ref

}  // namespace kvl::seg
