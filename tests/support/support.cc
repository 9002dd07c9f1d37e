// Guarded memory, target forcing and thread scopes for the tests.
#include "support.h"

#include <sys/mman.h>
#include <unistd.h>

namespace kvl::test {

GuardedBlock::GuardedBlock(size_t bytes, size_t align, uint32_t seed) : bytes_(bytes) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t body = (bytes + align + page - 1) / page * page;
  mapBytes_ = body + page;
  void* p = mmap(nullptr, mapBytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) abort();
  map_ = static_cast<uint8_t*>(p);
  mprotect(map_ + body, page, PROT_NONE);
  // The block ends as close to the guard page as the alignment allows.
  uintptr_t start = reinterpret_cast<uintptr_t>(map_ + body) - bytes;
  start -= start % align;
  data_ = reinterpret_cast<uint8_t*>(start);
  std::mt19937 rng(seed);
  for (size_t i = 0; i < bytes; ++i) data_[i] = static_cast<uint8_t>(rng());
}

GuardedBlock::~GuardedBlock() { munmap(map_, mapBytes_); }

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
