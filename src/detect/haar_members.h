// The members of the Haar classifier family, one per line: the tables that the entry points, the
// tests, the benchmark and the fuzz target expand. Free of library internals, so anything linked
// only against the public library can include it.
//
// State members, X(types, Value): kvliHaarClassifierInitAlloc_<types>,
//   kvliTiltedHaarClassifierInitAlloc_<types>, kvliHaarClassifierFree_<types>,
//   kvliGetHaarClassifierSize_<types>, kvliTiltHaarFeatures_<types>, on KvliHaarClassifier_<types>
//   with weights and values of type Value.
// Apply members, X(Op, suffix, arith, layout, Table, Value, types, sfs): kvli<Op>_<suffix>
//   arith   the arithmetic rule (HaarArith below)
//   layout  Upright: one integral table; Mixed: an upright and a tilted table
//   Table   the integral tables' element; Value the norm's and the thresholds'
//   types   the state it applies: KvliHaarClassifier_<types>
//   sfs     Sfs: a trailing int scaleFactor; NoSfs: none
#pragma once

#include "kvlcv.h"

// clang-format off
#define KVL_HAAR_STATE_MEMBERS(X) \
  X(32f, Kvl32f)                  \
  X(32s, Kvl32s)

#define KVL_HAAR_APPLY_MEMBERS(X)                                                                \
  X(ApplyHaarClassifier,      32f_C1R,    kFloat,    Upright, Kvl32f, Kvl32f, 32f, NoSfs)       \
  X(ApplyHaarClassifier,      32s32f_C1R, kIntFloat, Upright, Kvl32s, Kvl32f, 32f, NoSfs)       \
  X(ApplyHaarClassifier,      32s_C1RSfs, kInt,      Upright, Kvl32s, Kvl32s, 32s, Sfs)         \
  X(ApplyMixedHaarClassifier, 32f_C1R,    kFloat,    Mixed,   Kvl32f, Kvl32f, 32f, NoSfs)       \
  X(ApplyMixedHaarClassifier, 32s32f_C1R, kIntFloat, Mixed,   Kvl32s, Kvl32f, 32f, NoSfs)       \
  X(ApplyMixedHaarClassifier, 32s_C1RSfs, kWide,     Mixed,   Kvl32s, Kvl32s, 32s, Sfs)
// clang-format on

namespace kvl::detect {

// How a weak classifier's sum is formed and compared:
//   kFloat     float tables; sums, products, f and the stage in single precision
//   kIntFloat  32-bit wrapping rectangle sums, converted to float before the product
//   kInt       everything in 32-bit wrapping integers
//   kWide      32-bit rectangle sums, 64-bit products and f, shifted by -scaleFactor
enum class HaarArith : int { kFloat, kIntFloat, kInt, kWide };

// One apply member called through one signature. The state is the member's
// KvliHaarClassifier_<types>; `thrF` is the stage threshold of the float-valued members, `thrI`
// that of the integer ones; `tilt` and `tiltStep` are read by the Mixed members, `scaleFactor` by
// the Sfs ones.
struct HaarApplyMember {
  const char* name;
  HaarArith arith;
  bool mixed;
  bool intTable;  // Kvl32s tables
  bool intValue;  // Kvl32s norm, thresholds and values (a KvliHaarClassifier_32s)
  KvlStatus (*call)(const void* src, int srcStep, const void* tilt, int tiltStep, const void* norm,
                    int normStep, Kvl8u* mask, int maskStep, KvliSize roi, int* pPositive,
                    Kvl32f thrF, Kvl32s thrI, void* state, int scaleFactor);
};

}  // namespace kvl::detect

#define KVL_HAAR_MIXED_Upright false
#define KVL_HAAR_MIXED_Mixed true
#define KVL_HAAR_TILT_ARG_Upright(T)
#define KVL_HAAR_TILT_ARG_Mixed(T) static_cast<const T*>(tl), ts,
#define KVL_HAAR_SFS_ARG_NoSfs
#define KVL_HAAR_SFS_ARG_Sfs , sf
#define KVL_HAAR_THR_Kvl32f thrF
#define KVL_HAAR_THR_Kvl32s thrI

// The record of one apply member, for the tables of tests, benchmarks and fuzz targets.
#define KVL_HAAR_APPLY_MEMBER_RECORD(Op, suffix, arith, layout, Table, Value, types, sfs)          \
  kvl::detect::HaarApplyMember{                                                                    \
      "kvli" #Op "_" #suffix,                                                                      \
      kvl::detect::HaarArith::arith,                                                               \
      KVL_HAAR_MIXED_##layout,                                                                     \
      sizeof(Table) == 4 && static_cast<Table>(0.5f) == 0,                                         \
      static_cast<Value>(0.5f) == 0,                                                               \
      [](const void* s, int ss, const void* tl, int ts, const void* n, int ns, Kvl8u* m, int ms,   \
         KvliSize roi, int* pos, Kvl32f thrF, Kvl32s thrI, void* st, int sf) {                     \
        (void)tl, (void)ts, (void)sf, (void)thrF, (void)thrI;                                      \
        return kvli##Op##_##suffix(static_cast<const Table*>(s), ss,                               \
                                   KVL_HAAR_TILT_ARG_##layout(Table) static_cast<const Value*>(n), \
                                   ns, m, ms, roi, pos, KVL_HAAR_THR_##Value,                      \
                                   static_cast<KvliHaarClassifier_##types*>(st)                    \
                                       KVL_HAAR_SFS_ARG_##sfs);                                    \
      }},
