// The members of the morphology family (erosion and dilation with their states), one per line:
// the tables that the entry points, the tests, the benchmarks and the fuzz target expand. Public
// declarations only, so that code linking only the public library can include it.
#pragma once

#include <type_traits>

#include "kvlcv.h"

// X(sfx, T, C, code, sizeSfx)
//   sfx      layout suffix of the entry points (kvliErodeBorder_<sfx>, ...)
//   T, C     element type and channels
//   code     the data-type code the state records (1 8u, 5 16u, 7 16s, 13 32f)
//   sizeSfx  the member of the rectangle min/max filters whose buffer sizes the size functions
//            take (16s takes the 16u sizes)
// Border interface: kvliMorphologyBorderGetSize/Init, kvliErodeBorder, kvliDilateBorder.
// clang-format off
#define KVL_MORPH_BORDER_MEMBERS(X)           \
  X(8u_C1R,  Kvl8u,  1, 1,  8u_C1R)           \
  X(8u_C3R,  Kvl8u,  3, 1,  8u_C3R)           \
  X(8u_C4R,  Kvl8u,  4, 1,  8u_C4R)           \
  X(32f_C1R, Kvl32f, 1, 13, 32f_C1R)          \
  X(32f_C3R, Kvl32f, 3, 13, 32f_C3R)          \
  X(32f_C4R, Kvl32f, 4, 13, 32f_C4R)          \
  X(16u_C1R, Kvl16u, 1, 5,  16u_C1R)          \
  X(16s_C1R, Kvl16s, 1, 7,  16u_C1R)
// Older interface: kvliMorphologyGetSize/Init/InitAlloc, kvliErodeBorderReplicate,
// kvliDilateBorderReplicate (and kvliMorphologyFree for all of them).
#define KVL_MORPH_OLDER_MEMBERS(X)            \
  X(8u_C1R,  Kvl8u,  1, 1,  8u_C1R)           \
  X(8u_C3R,  Kvl8u,  3, 1,  8u_C3R)           \
  X(8u_C4R,  Kvl8u,  4, 1,  8u_C4R)           \
  X(32f_C1R, Kvl32f, 1, 13, 32f_C1R)          \
  X(32f_C3R, Kvl32f, 3, 13, 32f_C3R)          \
  X(32f_C4R, Kvl32f, 4, 13, 32f_C4R)
// clang-format on

namespace kvl::morph {

// A member of either interface called through one signature. getSize: the border interface
// writes *stateBlock and *buffer and ignores the mask; the older one writes its size to *stateBlock and
// leaves *buffer alone. init: the border interface ignores the anchor (it takes the centre), the
// older one ignores the buffer. run: erosion or dilation; the older interface ignores the buffer,
// the border one passes a zero border value.
struct MorphMember {
  const char* name;  // "Border_8u_C3R", "Replicate_32f_C1R"
  bool border;       // the border interface
  int channels;
  int elemBytes;
  bool real;
  int dataType;
  KvlStatus (*getSize)(int roiWidth, const Kvl8u* mask, KvliSize maskSize, int* stateBlock,
                       int* buffer);
  KvlStatus (*init)(int roiWidth, const Kvl8u* mask, KvliSize maskSize, KvliPoint anchor,
                    KvliMorphState* state, Kvl8u* buffer);
  KvlStatus (*initAlloc)(int roiWidth, const Kvl8u* mask, KvliSize maskSize, KvliPoint anchor,
                         KvliMorphState** state);  // null for the border interface
  KvlStatus (*run)(bool erode, const void* src, int srcStep, void* dst, int dstStep,
                   KvliSize roi, int borderType, const KvliMorphState* state, Kvl8u* buffer);
};

}  // namespace kvl::morph

// A MorphMember record of the border interface.
#define KVL_MORPH_BORDER_RECORD(sfx, T, C, code, sizeSfx)                                       \
  ::kvl::morph::MorphMember{                                                                    \
      "Border_" #sfx, true, C, static_cast<int>(sizeof(T)), std::is_floating_point_v<T>, code,  \
      [](int w, const Kvl8u*, KvliSize m, int* s, int* b) {                                     \
        return kvliMorphologyBorderGetSize_##sfx(w, m, s, b);                                   \
      },                                                                                        \
      [](int w, const Kvl8u* mask, KvliSize m, KvliPoint, KvliMorphState* st, Kvl8u* buf) {     \
        return kvliMorphologyBorderInit_##sfx(w, mask, m, st, buf);                             \
      },                                                                                        \
      nullptr,                                                                                  \
      [](bool erode, const void* s, int ss, void* d, int ds, KvliSize r, int bt,                \
         const KvliMorphState* st, Kvl8u* buf) {                                                \
        return erode ? kvliErodeBorder_##sfx(static_cast<const T*>(s), ss, static_cast<T*>(d),  \
                                             ds, r, bt, T(0), st, buf)                          \
                     : kvliDilateBorder_##sfx(static_cast<const T*>(s), ss,                     \
                                              static_cast<T*>(d), ds, r, bt, T(0), st, buf);    \
      }},

// A MorphMember record of the older interface.
#define KVL_MORPH_OLDER_RECORD(sfx, T, C, code, sizeSfx)                                        \
  ::kvl::morph::MorphMember{                                                                    \
      "Replicate_" #sfx, false, C, static_cast<int>(sizeof(T)), std::is_floating_point_v<T>,    \
      code,                                                                                     \
      [](int w, const Kvl8u* mask, KvliSize m, int* s, int*) {                                  \
        return kvliMorphologyGetSize_##sfx(w, mask, m, s);                                      \
      },                                                                                        \
      [](int w, const Kvl8u* mask, KvliSize m, KvliPoint a, KvliMorphState* st, Kvl8u*) {       \
        return kvliMorphologyInit_##sfx(w, mask, m, a, st);                                     \
      },                                                                                        \
      [](int w, const Kvl8u* mask, KvliSize m, KvliPoint a, KvliMorphState** st) {              \
        return kvliMorphologyInitAlloc_##sfx(w, mask, m, a, st);                                \
      },                                                                                        \
      [](bool erode, const void* s, int ss, void* d, int ds, KvliSize r, int bt,                \
         const KvliMorphState* st, Kvl8u*) {                                                    \
        return erode ? kvliErodeBorderReplicate_##sfx(static_cast<const T*>(s), ss,             \
                                                      static_cast<T*>(d), ds, r, bt, st)        \
                     : kvliDilateBorderReplicate_##sfx(static_cast<const T*>(s), ss,            \
                                                       static_cast<T*>(d), ds, r, bt, st);      \
      }},
