// The pyramid record and the level sizes of real-rate pyramids, on the calling thread.
#include "pyramid/pyramid_record.h"

#include <algorithm>
#include <climits>

#include "core/check.h"
#include "core/services.h"
#include "impl_decls.h"

namespace kvl::pyramid {
namespace {

bool rateAccepted(float rate) { return rate > 1.0f && rate <= 10.0f; }  // NaN is not

// A non-negative single-precision product truncated toward zero, saturated at INT_MAX.
long long truncated(float v) { return v >= 2147483648.0f ? INT_MAX : static_cast<long long>(v); }
int saturated(long long v) { return static_cast<int>(std::min<long long>(v, INT_MAX)); }

// The range of one side of the next larger level.
void upRange(int n, float rate, int* lo, int* hi) {
  const long long next = n + 1LL;
  *lo = n == 1 ? 1 : saturated(std::max(next, truncated(static_cast<float>(n - 1) * rate) + 1));
  *hi = saturated(std::max(next, truncated(static_cast<float>(n) * rate)));
}

void upRoi(KvliSize s, float rate, KvliSize* lo, KvliSize* hi) {
  upRange(s.width, rate, &lo->width, &hi->width);
  upRange(s.height, rate, &lo->height, &hi->height);
}

KvliSize downRoi(KvliSize s, float rate) {
  auto start = [&](int n) {
    const float v = 0.5f + static_cast<float>(n) / rate;
    return std::max(1, static_cast<int>(v));  // v < n + 0.5: fits an int
  };
  KvliSize c{start(s.width), start(s.height)};
  for (;;) {
    KvliSize lo, hi;
    upRoi(c, rate, &lo, &hi);
    bool heightFits = false;
    if (s.height < lo.height) {
      --c.height;
    } else if (s.height <= hi.height) {
      heightFits = true;
    } else {
      ++c.height;
    }
    if (s.width < lo.width) {
      --c.width;
    } else if (s.width > hi.width) {
      ++c.width;
    } else if (heightFits) {
      return c;
    }
  }
}

}  // namespace
}  // namespace kvl::pyramid

using namespace kvl::pyramid;

extern "C" KvlStatus impl_kvliGetPyramidUpROI(KvliSize srcRoi, KvliSize* pDstRoiMin,
                                              KvliSize* pDstRoiMax, Kvl32f rate) {
  KVL_TRY(kvl::check::nonNull(pDstRoiMin, pDstRoiMax));
  KVL_TRY(kvl::check::roi(srcRoi));
  if (!rateAccepted(rate)) return kvlStatusBadArgument;
  KvliSize lo, hi;
  upRoi(srcRoi, rate, &lo, &hi);
  *pDstRoiMin = lo;
  *pDstRoiMax = hi;
  return kvlStatusOk;
}

extern "C" KvlStatus impl_kvliGetPyramidDownROI(KvliSize srcRoi, KvliSize* pDstRoi, Kvl32f rate) {
  KVL_TRY(kvl::check::nonNull(pDstRoi));
  KVL_TRY(kvl::check::roi(srcRoi));
  if (!rateAccepted(rate)) return kvlStatusBadArgument;
  *pDstRoi = downRoi(srcRoi, rate);
  return kvlStatusOk;
}

extern "C" KvlStatus impl_kvliPyramidInitAlloc(KvliPyramid** ppPyr, int level, KvliSize roiSize,
                                               Kvl32f rate) {
  KVL_TRY(kvl::check::nonNull(ppPyr));
  KVL_TRY(kvl::check::roi(roiSize));
  if (!rateAccepted(rate) || level < 1) return kvlStatusBadArgument;
  // Every level is at least one pixel narrower or lower than the last, so max(w, h) entries
  // hold them all.
  const long long entries = std::max(roiSize.width, roiSize.height);
  const long long tempBytes = entries * static_cast<long long>(sizeof(KvliSize));
  auto* sizes = tempBytes <= INT_MAX
                    ? reinterpret_cast<KvliSize*>(kvlsMalloc_8u(static_cast<int>(tempBytes)))
                    : nullptr;
  if (sizes == nullptr) return kvlStatusNoMemory;
  sizes[0] = roiSize;
  int available = 0;
  while (sizes[available].width >= 2 || sizes[available].height >= 2) {
    sizes[available + 1] = downRoi(sizes[available], rate);
    ++available;
  }
  const int levels = std::min(level, available);
  const PyramidLayout layout = pyramidLayout(levels);
  Kvl8u* block =
      layout.blockBytes <= INT_MAX ? kvlsMalloc_8u(static_cast<int>(layout.blockBytes)) : nullptr;
  if (block == nullptr) {
    kvlsFree(sizes);
    return kvlStatusNoMemory;
  }
  auto* pyr = reinterpret_cast<KvliPyramid*>(block);
  pyr->pRoi = reinterpret_cast<KvliSize*>(block + layout.roi);
  pyr->pImage = reinterpret_cast<Kvl8u**>(block + layout.image);
  pyr->pRate = reinterpret_cast<Kvl64f*>(block + layout.rate);
  pyr->pStep = reinterpret_cast<int*>(block + layout.step);
  pyr->pState = nullptr;
  pyr->level = levels;
  const double scale = 1.0 / static_cast<double>(rate);
  double running = 1.0;
  for (int k = 0; k <= levels; ++k) {
    pyr->pRoi[k] = sizes[k];
    pyr->pRate[k] = running;
    pyr->pImage[k] = nullptr;
    pyr->pStep[k] = 0;
    running *= scale;
  }
  kvlsFree(sizes);
  *ppPyr = pyr;
  return kvlStatusOk;
}

extern "C" KvlStatus impl_kvliPyramidFree(KvliPyramid* pPyr) {
  KVL_TRY(kvl::check::nonNull(pPyr));
  kvlsFree(pPyr);
  return kvlStatusOk;
}
