// Core services: aligned allocation, core count, cache size, CPU features, permitted threads.
#include "kvlcore.h"

#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>

namespace {

constexpr int kAlign = 64;
constexpr int kMaxThreads = 1024;

int availableCores() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof(set), &set) == 0) {
    const int n = CPU_COUNT(&set);
    if (n > 0) return n;
  }
  const long n = sysconf(_SC_NPROCESSORS_ONLN);
  return n > 0 ? static_cast<int>(n) : 1;
}

// 0 until the first query or until a caller sets a count.
std::atomic<int> gThreads{0};

long readCacheIndex(int index) {
  char path[96];
  snprintf(path, sizeof(path), "/sys/devices/system/cpu/cpu0/cache/index%d/size", index);
  FILE* f = fopen(path, "r");
  if (!f) return -1;
  long value = 0;
  char unit = 0;
  const int got = fscanf(f, "%ld%c", &value, &unit);
  fclose(f);
  if (got < 1) return -1;
  if (unit == 'K') value *= 1024;
  if (unit == 'M') value *= 1024 * 1024;
  return value;
}

}  // namespace

extern "C" {

void* kvlMalloc(int length) {
  if (length <= 0) return nullptr;
  void* p = nullptr;
  if (posix_memalign(&p, kAlign, static_cast<size_t>(length)) != 0) return nullptr;
  return p;
}

void kvlFree(void* ptr) { free(ptr); }

int kvlGetNumCoresOnDie(void) { return availableCores(); }

int ownGetNumThreads(void) {
  int n = gThreads.load(std::memory_order_relaxed);
  if (n > 0) return n;
  n = availableCores();
  int expected = 0;
  gThreads.compare_exchange_strong(expected, n, std::memory_order_relaxed);
  return gThreads.load(std::memory_order_relaxed);
}

KvlStatus kvlSetNumThreads(int numThreads) {
  if (numThreads < 1 || numThreads > kMaxThreads) return -5;
  gThreads.store(numThreads, std::memory_order_relaxed);
  return 0;
}

KvlStatus kvlGetNumThreads(int* pNumThreads) {
  if (!pNumThreads) return -8;
  *pNumThreads = ownGetNumThreads();
  return 0;
}

KvlStatus kvlGetMaxCacheSizeB(int* size) {
  if (!size) return -8;
  long best = -1;
  for (int i = 0; i < 8; ++i) {
    const long v = readCacheIndex(i);
    if (v > best) best = v;
  }
  if (best <= 0) best = sysconf(_SC_LEVEL3_CACHE_SIZE);
  if (best <= 0) best = sysconf(_SC_LEVEL2_CACHE_SIZE);
  if (best <= 0) best = 1 << 20;
  *size = best > 0x7fffffff ? 0x7fffffff : static_cast<int>(best);
  return 0;
}

KvlStatus kvlGetCpuFeatures(Kvl64u* pFeaturesMask) {
  if (!pFeaturesMask) return -8;
  __builtin_cpu_init();
  Kvl64u m = 0;
  struct Bit {
    int on;
    Kvl64u bit;
  };
  const Bit bits[] = {
      {__builtin_cpu_supports("sse2"), KVL_CPU_SSE2},
      {__builtin_cpu_supports("sse3"), KVL_CPU_SSE3},
      {__builtin_cpu_supports("ssse3"), KVL_CPU_SSSE3},
      {__builtin_cpu_supports("sse4.1"), KVL_CPU_SSE41},
      {__builtin_cpu_supports("sse4.2"), KVL_CPU_SSE42},
      {__builtin_cpu_supports("avx"), KVL_CPU_AVX},
      {__builtin_cpu_supports("avx2"), KVL_CPU_AVX2},
      {__builtin_cpu_supports("fma"), KVL_CPU_FMA3},
      {__builtin_cpu_supports("avx512f"), KVL_CPU_AVX512F},
      {__builtin_cpu_supports("avx512bw"), KVL_CPU_AVX512BW},
      {__builtin_cpu_supports("avx512dq"), KVL_CPU_AVX512DQ},
      {__builtin_cpu_supports("avx512vl"), KVL_CPU_AVX512VL},
      {__builtin_cpu_supports("bmi2"), KVL_CPU_BMI2},
      {__builtin_cpu_supports("popcnt"), KVL_CPU_POPCNT},
  };
  for (const Bit& b : bits)
    if (b.on) m |= b.bit;
  *pFeaturesMask = m;
  return 0;
}

Kvl64u kvlGetEnabledCpuFeatures(void) {
  Kvl64u m = 0;
  kvlGetCpuFeatures(&m);
  return m;
}

}  // extern "C"
