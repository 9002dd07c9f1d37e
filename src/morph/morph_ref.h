// The scalar reference of erosion and dilation: the definition written out plainly. It needs no
// scratch memory, so every path may fall back to it; the tests and the fuzz target compare the
// fast paths with it.
#pragma once

#include "kvlcv.h"

namespace kvl::morph::ref {

// dst(x, y, c) = min (erode) or max over the non-zero mask elements (i, j) of
// src(x + i - anchor.x, y + j - anchor.y, c), the source read outside the ROI by borderType:
// 6 (memory on every side), or 1 plus any of the side flags 16/32/64/128 (a flagged side reads
// memory, the others replicate). An all-zero mask copies the ROI. Source and destination must
// not overlap. Floats are ordered by their bits read as sign and magnitude: -0 lies below +0.
template <class T, int kC>
void morph(const T* src, int srcStep, T* dst, int dstStep, KvliSize roi, const Kvl8u* mask,
           KvliSize maskSize, KvliPoint anchor, int borderType, bool erode);

}  // namespace kvl::morph::ref
