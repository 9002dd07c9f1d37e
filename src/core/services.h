// Internal services: typed allocation wrappers and the thread and cache queries.
#pragma once

#include "kvlcv.h"

// len > 0 elements of the named type from kvlMalloc, else null (also when the byte count
// would not fit an int).
Kvl8u* kvlsMalloc_8u(int len);
Kvl16u* kvlsMalloc_16u(int len);
Kvl32s* kvlsMalloc_32s(int len);
Kvl32f* kvlsMalloc_32f(int len);
Kvl64f* kvlsMalloc_64f(int len);
void kvlsFree(void* p);

// The permitted thread count, read afresh on every call.
int owncvGetMaxNumThreads();
// Inside a parallel region: the team size and the calling thread's number (1 and 0 outside).
int owncvGetNumThreads();
int owncvGetIdThreads();
// kvlGetNumCoresOnDie() unless that is 1, then 0: a function opens a region only if non-zero.
int runomp();
// runomp() for kernel lengths 3 and 5; non-zero for every other length.
int runsepomp(int kernelSize);
// The size in bytes of the largest cache.
int owncvGetCacheSize();

namespace kvl {
// A call that touches more than this many bytes (sources and destination) writes its
// destination with cache-bypassing stores: the images cannot all stay in the last-level cache,
// so the destination would only evict the sources (and everything else) on its way through, and
// the stores skip reading each destination line before overwriting it. Below it every image can
// stay cached between calls, and ordinary stores keep the destination there. The threshold is
// the cache size the library reports, with a floor for machines that report none.
long long streamingThresholdBytes();
inline bool streamDestination(long long touchedBytes) {
  return touchedBytes > streamingThresholdBytes();
}
}  // namespace kvl
