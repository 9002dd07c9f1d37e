// Internal services over the core-services library and the OpenMP runtime.
#include "services.h"

#include <omp.h>

namespace {
template <class T>
T* typedMalloc(int len) {
  if (len <= 0 || len > 0x7fffffff / static_cast<int>(sizeof(T))) return nullptr;
  return static_cast<T*>(kvlMalloc(len * static_cast<int>(sizeof(T))));
}
}  // namespace

Kvl8u* kvlsMalloc_8u(int len) { return typedMalloc<Kvl8u>(len); }
Kvl16u* kvlsMalloc_16u(int len) { return typedMalloc<Kvl16u>(len); }
Kvl32s* kvlsMalloc_32s(int len) { return typedMalloc<Kvl32s>(len); }
Kvl32f* kvlsMalloc_32f(int len) { return typedMalloc<Kvl32f>(len); }
Kvl64f* kvlsMalloc_64f(int len) { return typedMalloc<Kvl64f>(len); }
void kvlsFree(void* p) { kvlFree(p); }

int owncvGetMaxNumThreads() { return ownGetNumThreads(); }
int owncvGetNumThreads() { return omp_get_num_threads(); }
int owncvGetIdThreads() { return omp_get_thread_num(); }

int runomp() {
  const int cores = kvlGetNumCoresOnDie();
  return cores != 1 ? cores : 0;
}

int runsepomp(int kernelSize) {
  if (kernelSize == 3 || kernelSize == 5) return runomp();
  return 1;
}

int owncvGetCacheSize() {
  int size = 0;
  kvlGetMaxCacheSizeB(&size);
  return size;
}

namespace kvl {
long long streamingThresholdBytes() {
  static const long long bytes = [] {
    constexpr long long kFloor = 1LL << 20;  // when the cache size is unknown or tiny
    const long long cache = owncvGetCacheSize();
    return cache > kFloor ? cache : kFloor;
  }();
  return bytes;
}
}  // namespace kvl
