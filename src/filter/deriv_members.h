// The members of the derivative filters with border, one per line: the table that the entry
// points, the tests, the benchmarks, the fuzz target and the command-line tool all expand.
//
// X(Name, types, kind, out, args):
//   Name, types  the function is kvliFilter<Name>Border_<types>_C1R, its size query
//                kvliFilter<Name>GetBufferSize_<types>_C1R
//   kind         the kernel pair (Kind below)
//   out          the output element and its rule (Out below)
//   args         Mask: exported, takes a mask code; NoMask: exported, always 3x3 (Scharr);
//                General: internal (not exported), computed by the general fixed-kernel filter with
//                its own validation order, serial, and a buffer sized without threads
// A member the header exports and the table lacks leaves its entry point without an
// implementation, and a table row the header lacks defines an undeclared implementation: both
// fail the build.
#pragma once

#include "kvlcv.h"

// clang-format off
#define KVL_DERIV_MEMBERS(X)                                        \
  X(SobelHoriz,       8u8s,  kSobelHoriz,       k8s,  Mask)         \
  X(SobelHoriz,       8u16s, kSobelHoriz,       k16s, General)      \
  X(SobelHoriz,       32f,   kSobelHoriz,       k32f, General)      \
  X(SobelVert,        8u8s,  kSobelNegVert,     k8s,  Mask)         \
  X(SobelVert,        8u16s, kSobelNegVert,     k16s, General)      \
  X(SobelVert,        32f,   kSobelNegVert,     k32f, General)      \
  X(SobelNegVert,     8u16s, kSobelNegVert,     k16s, Mask)         \
  X(SobelNegVert,     8u8s,  kSobelNegVert,     k8s,  Mask)         \
  X(SobelNegVert,     32f,   kSobelNegVert,     k32f, Mask)         \
  X(SobelHorizSecond, 8u16s, kSobelHorizSecond, k16s, Mask)         \
  X(SobelHorizSecond, 8u8s,  kSobelHorizSecond, k8s,  Mask)         \
  X(SobelHorizSecond, 32f,   kSobelHorizSecond, k32f, Mask)         \
  X(SobelVertSecond,  8u16s, kSobelVertSecond,  k16s, Mask)         \
  X(SobelVertSecond,  8u8s,  kSobelVertSecond,  k8s,  Mask)         \
  X(SobelVertSecond,  32f,   kSobelVertSecond,  k32f, Mask)         \
  X(SobelCross,       8u16s, kSobelCross,       k16s, Mask)         \
  X(SobelCross,       8u8s,  kSobelCross,       k8s,  Mask)         \
  X(SobelCross,       32f,   kSobelCross,       k32f, Mask)         \
  X(Laplacian,        8u16s, kLaplacian,        k16s, Mask)         \
  X(Laplacian,        8u8s,  kLaplacian,        k8s,  Mask)         \
  X(Laplacian,        32f,   kLaplacian,        k32f, Mask)         \
  X(ScharrHoriz,      8u16s, kScharrHoriz,      k16s, NoMask)       \
  X(ScharrHoriz,      8u8s,  kScharrHoriz,      k8s,  NoMask)       \
  X(ScharrHoriz,      32f,   kScharrHoriz,      k32f, NoMask)       \
  X(ScharrVert,       8u16s, kScharrVert,       k16s, NoMask)       \
  X(ScharrVert,       8u8s,  kScharrVert,       k8s,  NoMask)       \
  X(ScharrVert,       32f,   kScharrVert,       k32f, NoMask)       \
  X(Lowpass,          8u,    kLowpass,          k8u,  Mask)         \
  X(Lowpass,          32f,   kLowpass,          k32f, Mask)
// clang-format on

namespace kvl::filter::deriv {

// The kernel pairs: a row kernel A, then a column kernel B.
enum class Kind : int {
  kSobelHoriz,        // kerSobel rows, kerDx columns: row below minus row above
  kSobelNegVert,      // kerDxNeg rows, kerSobel columns: left column minus right column
  kSobelDx,           // kerDx rows, kerSobel columns: right column minus left (Canny's dx)
  kSobelHorizSecond,  // kerSobel rows, kerD2x columns
  kSobelVertSecond,   // kerD2x rows, kerSobel columns
  kSobelCross,        // kerDxNeg rows, kerDx columns
  kScharrHoriz,       // kerScharr rows, kerDx columns
  kScharrVert,        // kerDx rows, kerScharr columns
  kLaplacian,         // see rowTaps / colTaps
  kLowpass,           // kerAvr rows and columns
};

// The output element and its rule: 16-bit sums kept (16s), divided and saturated (8s, and 8u
// for the lowpass box average), or single-precision sums (32f, from 32f sources).
enum class Out : int { k16s, k8s, k8u, k32f };

enum class Args : int { Mask, NoMask, General };

// A member called through one signature. `value` is the border value (converted to the source
// type), `divisor` is read by the 8s members only, `mask` by the members that take one.
struct Member {
  const char* name;  // "SobelNegVert_8u16s"
  Kind kind;
  Out out;
  Args args;
  KvlStatus (*run)(const void* src, int srcStep, void* dst, int dstStep, KvliSize roi, int mask,
                   int borderType, float value, int divisor, Kvl8u* buffer);
  KvlStatus (*size)(KvliSize roi, int mask, int* bytes);
};

}  // namespace kvl::filter::deriv

// ---- Pieces of the expansions, chosen by pasting `out` or `args`. ----
#define KVL_DERIV_SRC_k16s Kvl8u
#define KVL_DERIV_SRC_k8s Kvl8u
#define KVL_DERIV_SRC_k8u Kvl8u
#define KVL_DERIV_SRC_k32f Kvl32f
#define KVL_DERIV_DST_k16s Kvl16s
#define KVL_DERIV_DST_k8s Kvl8s
#define KVL_DERIV_DST_k8u Kvl8u
#define KVL_DERIV_DST_k32f Kvl32f
#define KVL_DERIV_DIVISOR_PARAM_k16s
#define KVL_DERIV_DIVISOR_PARAM_k8s int divisor,
#define KVL_DERIV_DIVISOR_PARAM_k8u
#define KVL_DERIV_DIVISOR_PARAM_k32f
#define KVL_DERIV_DIVISOR_ARG_k16s
#define KVL_DERIV_DIVISOR_ARG_k8s divisor,
#define KVL_DERIV_DIVISOR_ARG_k8u
#define KVL_DERIV_DIVISOR_ARG_k32f
#define KVL_DERIV_MASK_PARAM_Mask KvliMaskSize mask,
#define KVL_DERIV_MASK_PARAM_General KvliMaskSize mask,
#define KVL_DERIV_MASK_PARAM_NoMask
#define KVL_DERIV_MASK_ARG_Mask mask,
#define KVL_DERIV_MASK_ARG_General mask,
#define KVL_DERIV_MASK_ARG_NoMask
#define KVL_DERIV_EXPORTED_Mask(...) __VA_ARGS__
#define KVL_DERIV_EXPORTED_NoMask(...) __VA_ARGS__
#define KVL_DERIV_EXPORTED_General(...)

// The parameter list of a member's filter function.
#define KVL_DERIV_PARAMS(out, args)                                                            \
  const KVL_DERIV_SRC_##out *pSrc, int srcStep, KVL_DERIV_DST_##out *pDst, int dstStep,         \
      KvliSize roiSize, KVL_DERIV_MASK_PARAM_##args int borderType,                            \
      KVL_DERIV_SRC_##out borderValue, KVL_DERIV_DIVISOR_PARAM_##out Kvl8u *pBuffer

// A Member record calling kvliFilter<Name>Border_<types>_C1R and its size query (for the
// General rows, the internal declarations of src/filter/deriv.h must be visible).
#define KVL_DERIV_MEMBER_RECORD(Name, types, kind, out, args)                                    \
  ::kvl::filter::deriv::Member{                                                                 \
      #Name "_" #types, ::kvl::filter::deriv::Kind::kind, ::kvl::filter::deriv::Out::out,        \
      ::kvl::filter::deriv::Args::args,                                                         \
      [](const void* s, int ss, void* d, int ds, KvliSize roi, [[maybe_unused]] int mask,         \
         int borderType, float value, [[maybe_unused]] int divisor, Kvl8u* buffer) {              \
        using S = KVL_DERIV_SRC_##out;                                                          \
        using D = KVL_DERIV_DST_##out;                                                          \
        return kvliFilter##Name##Border_##types##_C1R(                                          \
            static_cast<const S*>(s), ss, static_cast<D*>(d), ds, roi,                          \
            KVL_DERIV_MASK_ARG_##args borderType, static_cast<S>(value),                        \
            KVL_DERIV_DIVISOR_ARG_##out buffer);                                                \
      },                                                                                        \
      [](KvliSize roi, [[maybe_unused]] int mask, int* bytes) {                                 \
        return kvliFilter##Name##GetBufferSize_##types##_C1R(roi, KVL_DERIV_MASK_ARG_##args bytes); \
      }},
// The same for the exported rows only (what a program linking the public library can call).
#define KVL_DERIV_EXPORTED_RECORD(Name, types, kind, out, args) \
  KVL_DERIV_EXPORTED_##args(KVL_DERIV_MEMBER_RECORD(Name, types, kind, out, args))
