// Exact Euclidean distance transform: validation, then one region in which the team takes blocks
// of columns for the column pass and, once every block is done, chunks of rows for the row pass.
// Any thread may take any unit; each works in its own part of the buffer, so the bytes written do
// not depend on the team.
#include "seg/dist_exact.h"

#include <atomic>
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
  const int blocks = (roi.width + kColumnBlock - 1) / kColumnBlock;
  const int chunks = (roi.height + kRowChunk - 1) / kRowChunk;
  par::WorkQueue columnWork(blocks), rowWork(chunks);
  std::atomic<int> columnsDone{0};
  par::runTeam(par::teamDistance(roi), [&](int t, int n) {
    Kvl8u* part = buffer + t * (bufferSize / n);
    // Column pass: blocks of columns, each finished while its rows are cached.
    int32_t* count = reinterpret_cast<int32_t*>(alignUp(part, 64));
    int done = 0;
    for (int b; columnWork.take(&b); ++done) {
      const int x0 = b * kColumnBlock;
      const int cols = roi.width - x0 < kColumnBlock ? roi.width - x0 : kColumnBlock;
      column(src + x0, srcStep, dst + x0, dstStep, cols, roi.height, count);
    }
    // The rows need every column: wait for the blocks other threads are still finishing (not
    // for threads that have not started, which find no block left).
    columnsDone.fetch_add(done, std::memory_order_acq_rel);
    par::waitUntil(columnsDone, blocks);
    // Row pass: chunks of rows, each thread with its own tables in its part of the buffer.
    const EnvelopeScratch scratch = envelopeScratch(part, roi.width);
    for (int c; rowWork.take(&c);) {
      const int y1 = (c + 1) * kRowChunk < roi.height ? (c + 1) * kRowChunk : roi.height;
      for (int y = c * kRowChunk; y < y1; ++y) {
        envelopeRow(rowPtr(dst, dstStep, y), roi.width, scratch);
        root(rowPtr(dst, dstStep, y), roi.width);
      }
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
