// The members of the integral-image and rectangle standard-deviation family, one per line: the
// tables that the entry points, the tests, the benchmarks, the fuzz target and the command-line
// tool all expand. Public declarations only, so the tool (which links only the public library)
// can include it.
#pragma once

#include <type_traits>

#include "kvlcv.h"

// Tables, kvli<Name>_<types>_C1R: X(Name, types, Src, Sum, Sqr, shape, form)
//   Src, Sum, Sqr  source, sum-table and square-table elements (Sqr void: no square table)
//   shape          Upright: (w+1) x (h+1) tables; Tilted: (w+2) x (h+2)
//   form           Val: takes val; NoVal: val is 0 and not an argument; Sqr: val and valSqr
// clang-format off
#define KVL_INTEGRAL_MEMBERS(X)                                                \
  X(Integral,          8u32s,    Kvl8u,  Kvl32s, void,   Upright, Val)      \
  X(Integral,          8u32f,    Kvl8u,  Kvl32f, void,   Upright, Val)      \
  X(Integral,          32f,      Kvl32f, Kvl32f, void,   Upright, NoVal)    \
  X(SqrIntegral,       8u32s,    Kvl8u,  Kvl32s, Kvl32s, Upright, Sqr)      \
  X(SqrIntegral,       8u32s64f, Kvl8u,  Kvl32s, Kvl64f, Upright, Sqr)      \
  X(SqrIntegral,       8u32f64f, Kvl8u,  Kvl32f, Kvl64f, Upright, Sqr)      \
  X(TiltedIntegral,    8u32s,    Kvl8u,  Kvl32s, void,   Tilted,  Val)      \
  X(TiltedIntegral,    8u32f,    Kvl8u,  Kvl32f, void,   Tilted,  Val)      \
  X(TiltedSqrIntegral, 8u32s,    Kvl8u,  Kvl32s, Kvl32s, Tilted,  Sqr)      \
  X(TiltedSqrIntegral, 8u32s64f, Kvl8u,  Kvl32s, Kvl64f, Tilted,  Sqr)      \
  X(TiltedSqrIntegral, 8u32f64f, Kvl8u,  Kvl32f, Kvl64f, Tilted,  Sqr)

// Standard deviation over a rectangle, kvli<Name>_<types>_<layout>: X(Name, types, Sum, Sqr, Dst,
// shape, rule, layout, team)
//   rule    how mean and variance are computed (StdDevRule in src/detect/rect_stddev.h)
//   layout  C1RSfs: takes a scale factor; C1R: does not
//   team    Team: splits its rows over threads by teamRectStdDev; Serial: the calling thread
#define KVL_RECT_STDDEV_MEMBERS(X)                                                       \
  X(RectStdDev,       32s,    Kvl32s, Kvl32s, Kvl32s, Upright, kSfs,    C1RSfs, Serial)  \
  X(RectStdDev,       32s32f, Kvl32s, Kvl64f, Kvl32f, Upright, kSingle, C1R,    Serial)  \
  X(RectStdDev,       32f,    Kvl32f, Kvl64f, Kvl32f, Upright, kWidened, C1R,   Team)    \
  X(TiltedRectStdDev, 32s,    Kvl32s, Kvl32s, Kvl32s, Tilted,  kSfs,    C1RSfs, Serial)  \
  X(TiltedRectStdDev, 32s32f, Kvl32s, Kvl64f, Kvl32f, Tilted,  kSingle, C1R,    Serial)  \
  X(TiltedRectStdDev, 32f,    Kvl32f, Kvl64f, Kvl32f, Tilted,  kDouble, C1R,    Serial)
// clang-format on

namespace kvl::detect {

// An element type as the records describe it: its size and whether it is floating point.
struct Elem {
  int bytes;  // 0: absent
  bool real;
};

// A table member called through one signature; val and valSqr are converted to the member's
// types (so they must fit them; ignored where it takes none), sqr is ignored without a square
// table.
struct IntegralMember {
  const char* name;  // "TiltedSqrIntegral_8u32f64f"
  int pad;           // tables are (w + pad) x (h + pad)
  bool hasVal;
  Elem src, sum, sqr;
  KvlStatus (*run)(const void* src, int srcStep, void* sum, int sumStep, void* sqr, int sqrStep,
                   KvliSize roi, double val, double valSqr);
};

// A standard-deviation member called through one signature; scaleFactor is ignored by the
// members without one.
struct StdDevMember {
  const char* name;  // "RectStdDev_32s32f"
  bool tilted;
  bool scaled;
  bool threaded;
  Elem sum, sqr, dst;
  KvlStatus (*run)(const void* sum, int sumStep, const void* sqr, int sqrStep, void* dst,
                   int dstStep, KvliSize roi, KvliRect rect, int scaleFactor);
};

template <class T>
constexpr Elem elemOf() {
  if constexpr (std::is_void_v<T>) {
    return {0, false};
  } else {
    return {static_cast<int>(sizeof(T)), std::is_floating_point_v<T>};
  }
}

}  // namespace kvl::detect

// ---- Pieces of the expansions, chosen by pasting a column. ----
#define KVL_INTEGRAL_PAD_Upright 1
#define KVL_INTEGRAL_PAD_Tilted 2
#define KVL_INTEGRAL_HASVAL_Val true
#define KVL_INTEGRAL_HASVAL_NoVal false
#define KVL_INTEGRAL_HASVAL_Sqr true
// The call of a member from the record's arguments.
#define KVL_INTEGRAL_CALL_Val(fn, Sum, Sqr) \
  fn(s, ss, static_cast<Sum*>(d), ds, roi, static_cast<Sum>(val))
#define KVL_INTEGRAL_CALL_NoVal(fn, Sum, Sqr) fn(s, ss, static_cast<Sum*>(d), ds, roi)
#define KVL_INTEGRAL_CALL_Sqr(fn, Sum, Sqr)                                             \
  fn(s, ss, static_cast<Sum*>(d), ds, static_cast<Sqr*>(q), qs, roi, static_cast<Sum>(val), \
     static_cast<Sqr>(valSqr))
#define KVL_STDDEV_TILTED_Upright false
#define KVL_STDDEV_TILTED_Tilted true
#define KVL_STDDEV_SCALED_C1RSfs true
#define KVL_STDDEV_SCALED_C1R false
#define KVL_STDDEV_THREADED_Team true
#define KVL_STDDEV_THREADED_Serial false
#define KVL_STDDEV_SCALE_ARG_C1RSfs , scaleFactor
#define KVL_STDDEV_SCALE_ARG_C1R

// An IntegralMember record calling kvli<Name>_<types>_C1R.
#define KVL_INTEGRAL_MEMBER_RECORD(Name, types, Src, Sum, Sqr, shape, form)                    \
  ::kvl::detect::IntegralMember{                                                                \
      #Name "_" #types,                                                                         \
      KVL_INTEGRAL_PAD_##shape,                                                                 \
      KVL_INTEGRAL_HASVAL_##form,                                                               \
      ::kvl::detect::elemOf<Src>(),                                                             \
      ::kvl::detect::elemOf<Sum>(),                                                             \
      ::kvl::detect::elemOf<Sqr>(),                                                             \
      [](const void* sv, int ss, void* d, int ds, [[maybe_unused]] void* q,                     \
         [[maybe_unused]] int qs, KvliSize roi, [[maybe_unused]] double val,                    \
         [[maybe_unused]] double valSqr) {                                                      \
        const Src* s = static_cast<const Src*>(sv);                                             \
        return KVL_INTEGRAL_CALL_##form(kvli##Name##_##types##_C1R, Sum, Sqr);                  \
      }},

// A StdDevMember record calling kvli<Name>_<types>_<layout>.
#define KVL_STDDEV_MEMBER_RECORD(Name, types, Sum, Sqr, Dst, shape, rule, layout, team)         \
  ::kvl::detect::StdDevMember{                                                                  \
      #Name "_" #types,                                                                         \
      KVL_STDDEV_TILTED_##shape,                                                                \
      KVL_STDDEV_SCALED_##layout,                                                               \
      KVL_STDDEV_THREADED_##team,                                                               \
      ::kvl::detect::elemOf<Sum>(),                                                             \
      ::kvl::detect::elemOf<Sqr>(),                                                             \
      ::kvl::detect::elemOf<Dst>(),                                                             \
      [](const void* s, int ss, const void* q, int qs, void* d, int ds, KvliSize roi,           \
         KvliRect rect, [[maybe_unused]] int scaleFactor) {                                     \
        return kvli##Name##_##types##_##layout(static_cast<const Sum*>(s), ss,                  \
                                               static_cast<const Sqr*>(q), qs,                  \
                                               static_cast<Dst*>(d), ds, roi,                   \
                                               rect KVL_STDDEV_SCALE_ARG_##layout);             \
      }},
