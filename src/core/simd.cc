// Picks the vector target from the CPU's features.
#include "simd.h"

#include <cpuid.h>

#include <atomic>

namespace kvl::simd {
namespace {
std::atomic<int> gCap{-1};

// F16C from CPUID leaf 1 (not every compiler's feature builtin knows its name).
bool hasF16c() {
  unsigned a, b, c, d;
  return __get_cpuid(1, &a, &b, &c, &d) && (c & bit_F16C) != 0;
}

int detect() {
  __builtin_cpu_init();
  const bool sse4 = __builtin_cpu_supports("sse4.2") && __builtin_cpu_supports("pclmul") &&
                    __builtin_cpu_supports("aes");
  const bool avx2 = sse4 && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
                    __builtin_cpu_supports("bmi2") && hasF16c();
  const bool avx3 = avx2 && __builtin_cpu_supports("avx512f") &&
                    __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512dq") &&
                    __builtin_cpu_supports("avx512bw");
  return avx3 ? kAVX3 : avx2 ? kAVX2 : sse4 ? kSSE4 : kRef;
}
}  // namespace

int bestTarget() {
  static const int best = detect();
  return best;
}

int activeTarget() {
  const int cap = gCap.load(std::memory_order_relaxed);
  const int best = bestTarget();
  return (cap >= 0 && cap < best) ? cap : best;
}

void forceTarget(int target) { gCap.store(target, std::memory_order_relaxed); }

}  // namespace kvl::simd
