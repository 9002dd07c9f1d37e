// Guarded pages: memory whose usable part ends right at an inaccessible page, so any access past
// the end faults. Shared by the test support and the fuzz targets; needs POSIX only.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace kvl::test {

// At least `bytes` readable and writable bytes before end(), the first byte of the inaccessible
// page. Users place their block so that it ends at end() or a chosen few bytes before it.
class GuardedPages {
 public:
  explicit GuardedPages(size_t bytes) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t body = (bytes + page - 1) / page * page;
    mapBytes_ = body + page;
    void* p = mmap(nullptr, mapBytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) abort();
    map_ = static_cast<uint8_t*>(p);
    end_ = map_ + body;
    if (mprotect(end_, page, PROT_NONE) != 0) abort();
  }
  ~GuardedPages() { munmap(map_, mapBytes_); }
  GuardedPages(const GuardedPages&) = delete;
  GuardedPages& operator=(const GuardedPages&) = delete;

  uint8_t* end() const { return end_; }

 private:
  uint8_t* map_ = nullptr;
  size_t mapBytes_ = 0;
  uint8_t* end_ = nullptr;
};

}  // namespace kvl::test
