// The pyramid record's block: the header of KvliPyramid followed by its four arrays, and the
// level-size rules the record is built from.
#pragma once

#include <cstddef>

#include "core/pixel.h"
#include "kvlcv.h"

namespace kvl::pyramid {

// The header occupies 48 bytes; the arrays follow it in the order pRoi, pImage, pRate, pStep,
// each at an 8-byte-aligned offset (the block itself comes 64-byte aligned from kvlMalloc).
static_assert(sizeof(KvliPyramid) == 48, "the pyramid header is 48 bytes");
static_assert(offsetof(KvliPyramid, pImage) == 0 && offsetof(KvliPyramid, pRoi) == 8 &&
                  offsetof(KvliPyramid, pRate) == 16 && offsetof(KvliPyramid, pStep) == 24 &&
                  offsetof(KvliPyramid, pState) == 32 && offsetof(KvliPyramid, level) == 40,
              "the pyramid header's fields");

struct PyramidLayout {
  long long roi, image, rate, step;  // byte offsets of the arrays from the block's start
  long long blockBytes;              // the size requested for a record of `level` levels
};

inline PyramidLayout pyramidLayout(int level) {
  const long long n = level + 1LL;
  PyramidLayout l{};
  l.roi = roundUp(sizeof(KvliPyramid), 8);
  l.image = roundUp(l.roi + n * static_cast<long long>(sizeof(KvliSize)), 8);
  l.rate = roundUp(l.image + n * static_cast<long long>(sizeof(Kvl8u*)), 8);
  l.step = roundUp(l.rate + n * static_cast<long long>(sizeof(Kvl64f)), 8);
  l.blockBytes = 52LL * level + 152;
  return l;
}

}  // namespace kvl::pyramid
