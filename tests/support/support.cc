// Guarded memory, target forcing and thread scopes for the tests.
#include "support.h"

namespace kvl::test {

GuardedBlock::GuardedBlock(size_t bytes, size_t align, uint32_t seed)
    : pages_(bytes + align), bytes_(bytes) {
  // The block ends as close to the guard page as the alignment allows.
  uintptr_t start = reinterpret_cast<uintptr_t>(pages_.end()) - bytes;
  start -= start % align;
  data_ = reinterpret_cast<uint8_t*>(start);
  std::mt19937 rng(seed);
  for (size_t i = 0; i < bytes; ++i) data_[i] = static_cast<uint8_t>(rng());
}

void forEachTarget(const std::function<void(int)>& fn) {
  const int best = simd::bestTarget();
  for (int t = simd::kRef; t <= best; ++t) {
    simd::forceTarget(t);
    SCOPED_TRACE(targetName(t));
    fn(t);
  }
  simd::forceTarget(-1);
}

const char* targetName(int target) {
  static const char* names[] = {"scalar", "SSE4", "AVX2", "AVX3"};
  return target >= 0 && target <= 3 ? names[target] : "?";
}

ThreadScope::ThreadScope(int n) {
  kvlGetNumThreads(&saved_);
  kvlSetNumThreads(n);
}
ThreadScope::~ThreadScope() { kvlSetNumThreads(saved_); }

}  // namespace kvl::test
