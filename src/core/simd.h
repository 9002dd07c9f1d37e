// Run-time choice of the vector target: each *_simd.cc compiles one source for SSE4, AVX2 and
// AVX-512, and a family picks the best table entry this CPU runs, or the scalar reference.
#pragma once

namespace kvl::simd {

enum Target : int { kRef = 0, kSSE4 = 1, kAVX2 = 2, kAVX3 = 3 };

// The best target this CPU supports.
int bestTarget();
// The target families use now: bestTarget(), lowered by forceTarget.
int activeTarget();
// Test hook: caps the target (kRef .. kAVX3) for the calls that follow; -1 lifts the cap.
// Only tests call it; the library itself never changes it.
void forceTarget(int target);

// table = {AVX3, AVX2, SSE4} entries of one kernel; ref = the scalar reference.
template <class Fn>
Fn pick(const Fn (&table)[3], Fn ref) {
  switch (activeTarget()) {
    case kAVX3: return table[0];
    case kAVX2: return table[1];
    case kSSE4: return table[2];
    default: return ref;
  }
}

}  // namespace kvl::simd

// After the parameter list of a lambda inside a vector kernel: the compiler may otherwise leave
// a lambda out of line and pass its vectors through memory.
#define KVL_INLINE_LAMBDA __attribute__((always_inline))

// Inside `#if HWY_ONCE` of a *_simd.cc: the per-target entries of kernel `fn`.
#define KVL_SIMD_TABLE(fn) {N_AVX3::fn, N_AVX2::fn, N_SSE4::fn}
