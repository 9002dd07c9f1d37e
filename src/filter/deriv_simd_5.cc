// Unit 5 of the derivative-filter kernels (kUnits in deriv.h splits them so no file compiles long).
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "filter/deriv_simd_5.cc"
#include <hwy/foreach_target.h>  // must come before highway.h
#include <hwy/highway.h>

#include "filter/deriv-inl.h"

#if HWY_ONCE
KVL_DERIV_UNIT_KERNELS(5)
#endif
