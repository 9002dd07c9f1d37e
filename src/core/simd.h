// Run-time choice of the vector target, and the one way a family dispatches a kernel.
//
// A kernel is written once in a *_simd.cc (or a *-inl.h it includes), compiled by Highway for
// SSE4, AVX2 and AVX-512, and published as a `simd::Kernel<Fn>`: its three target entries plus
// the scalar reference. The family header declares it, the *_simd.cc defines it inside
// `#if HWY_ONCE` with KVL_TARGETS, and the family calls `kernel.pick()` once per call:
//
//   // family.h
//   extern const simd::Kernel<RowFn> kRowSum;
//   // family_simd.cc, after the per-target namespace
//   #if HWY_ONCE
//   const simd::Kernel<RowFn> kRowSum{KVL_TARGETS(rowSum), &ref::rowSum};
//   #endif
//
// A kernel that is a template (one per member of the family's table) is a static member of a
// key struct, instantiated from the member table: see `Kernel` users in src/filter/deriv.h.
// Kernel code sits inside `#if KVL_SIMD_TARGET` so the single-lane baseline Highway always
// compiles is left empty.
#pragma once

namespace kvl::simd {

enum Target : int { kRef = 0, kSSE4 = 1, kAVX2 = 2, kAVX3 = 3 };

// The best target this CPU supports.
int bestTarget();
// The target families use now: bestTarget(), lowered by forceTarget.
int activeTarget();
// Test hook: caps the target (kRef .. kAVX3) for the calls that follow; -1 lifts the cap.
// Only tests, benchmarks and fuzz targets call it; the library itself never changes it.
void forceTarget(int target);

// One kernel on every dispatched target, with its scalar reference.
template <class Fn>
struct Kernel {
  Fn targets[3];  // AVX3, AVX2, SSE4
  Fn ref;         // the scalar reference: the oracle of the tests and the fallback below SSE4

  // The entry for a target (kRef .. kAVX3).
  Fn at(int target) const {
    switch (target) {
      case kAVX3: return targets[0];
      case kAVX2: return targets[1];
      case kSSE4: return targets[2];
      default: return ref;
    }
  }
  // The entry for the active target.
  Fn pick() const { return at(activeTarget()); }
};

}  // namespace kvl::simd

// After the parameter list of a lambda inside a vector kernel: the compiler may otherwise leave
// a lambda out of line and pass its vectors through memory.
#define KVL_INLINE_LAMBDA __attribute__((always_inline))

// The guard around kernel code in a per-target pass: true for the dispatched targets (SSE4 and
// better; Highway numbers better targets lower), false for the baseline it always compiles.
#define KVL_SIMD_TARGET (HWY_TARGET <= HWY_SSE4)

// Inside `#if HWY_ONCE`: the {AVX3, AVX2, SSE4} entries of a per-target function (a template-id
// with commas is fine).
#define KVL_TARGETS(...) {N_AVX3::__VA_ARGS__, N_AVX2::__VA_ARGS__, N_SSE4::__VA_ARGS__}
