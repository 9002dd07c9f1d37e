// Exact Euclidean distance transform: validation, then a region for the column pass (blocks of
// columns shared out evenly) and one for the row pass (rows / T per thread, the rest to the last).
// Each thread works in its own part of the buffer, so the bytes written do not depend on the team.
#include "seg/dist_exact.h"

#include <climits>
#include <cstdint>

#include "core/check.h"
#include "core/parallel.h"
#include "core/pixel.h"
#include "core/services.h"
#include "impl_decls.h"

namespace kvl::seg {
namespace {

KvlStatus exactBufferSize(KvliSize roi, int* bytes) {
  KVL_TRY(check::nonNull(bytes));
  KVL_TRY(check::roi(roi));
  const long long total = exactBytesPerThread(roi) * owncvGetMaxNumThreads();
  if (total > INT_MAX) return kvlStatusBadSize;
  *bytes = static_cast<int>(total);
  return kvlStatusOk;
}

KvlStatus exactTransform(const Kvl8u* src, int srcStep, Kvl32f* dst, int dstStep, KvliSize roi,
                         Kvl8u* buffer) {
  KVL_TRY(check::nonNull(src, dst, buffer));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, check::Step<Kvl8u>{srcStep}, check::Step<Kvl32f>{dstStep}));

  // The buffer was sized for the permitted thread count, so every thread of a team of at most
  // that many owns bufferSize / team >= exactBytesPerThread bytes of it.
  const long long bufferSize = exactBytesPerThread(roi) * owncvGetMaxNumThreads();
  const ColumnPassFn column = kColumnPass.pick();
  const SqrtRowFn root = kSqrtRow.pick();
  const int team = par::teamDistance(roi);
  // Column pass: the blocks of columns shared out evenly, each finished while its rows are cached.
  const int blocks = (roi.width + kColumnBlock - 1) / kColumnBlock;
  par::runStripes(
      team, blocks,
      [&](const par::Stripe& s) {
        Kvl8u* part = buffer + s.bufferOffset(bufferSize);
        int32_t* count = reinterpret_cast<int32_t*>(alignUp(part, 64));
        for (int b = s.y0; b < s.y0 + s.rows; ++b) {
          const int x0 = b * kColumnBlock;
          const int cols = roi.width - x0 < kColumnBlock ? roi.width - x0 : kColumnBlock;
          column(src + x0, srcStep, dst + x0, dstStep, cols, roi.height, count);
        }
      },
      par::Split::kEven);
  // Row pass: rows / T rows per thread, the last thread also the rest, each thread with its own
  // tables in its part of the buffer.
  par::runStripes(team, roi.height, [&](const par::Stripe& s) {
    const EnvelopeScratch scratch = envelopeScratch(buffer + s.bufferOffset(bufferSize), roi.width);
    for (int y = s.y0; y < s.y0 + s.rows; ++y) {
      envelopeRow(rowPtr(dst, dstStep, y), roi.width, scratch);
      root(rowPtr(dst, dstStep, y), roi.width);
    }
  });
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::seg

#define KVL_DIST_EXACT(types)                                                        \
  extern "C" KvlStatus impl_kvliTrueDistanceTransformGetBufferSize_##types##_C1R(    \
      KvliSize roiSize, int* pBufferSize) {                                          \
    return kvl::seg::exactBufferSize(roiSize, pBufferSize);                          \
  }                                                                                  \
  extern "C" KvlStatus impl_kvliTrueDistanceTransform_##types##_C1R(                 \
      const Kvl8u* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize,   \
      Kvl8u* pBuffer) {                                                              \
    return kvl::seg::exactTransform(pSrc, srcStep, pDst, dstStep, roiSize, pBuffer); \
  }
KVL_DIST_EXACT_MEMBERS(KVL_DIST_EXACT)
#undef KVL_DIST_EXACT
