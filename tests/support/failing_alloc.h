// Allocation failures on demand, for the tests of functions that allocate: a test binary includes
// this header in exactly one source file, and its kvlMalloc then stands in front of the core
// library's and fails the allocation numbered gFailAt (1 = the next one) of those that follow.
#pragma once

#include <dlfcn.h>

#include <atomic>

namespace {
std::atomic<int> gFailAt{0};
}
extern "C" void* kvlMalloc(int length) {
  using Fn = void* (*)(int);
  static const Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "kvlMalloc"));
  if (gFailAt > 0 && --gFailAt == 0) return nullptr;
  return real(length);
}
