// The morphology state and the mask analysis shared by every morphology member (8u, 16u, 16s,
// 32f and the bit images). Plain structs: the tests read the layout here, and the builders of
// each element type lay out their blocks with these records.
#pragma once

#include <cstddef>

#include "kvlcv.h"

// What the analysis finds in a mask; kept in the state's maskClass.
enum KvliMorphMaskClass : int {
  kvlMorphMaskGeneral = 0,  // anything not covered below
  kvlMorphMaskRect = 1,     // the non-zero elements form one solid rectangle
  kvlMorphMaskRowRuns = 2,  // one run per non-empty row containing the anchor column, and rows
                            // of equal length with equal anchor offsets
  kvlMorphMaskEmpty = 3,    // no non-zero element
};

// The analysis record. In a state of class 2 four int32 arrays follow it directly, in this
// order: rows[rowCount], rowLengthIndex[rowCount], lengths[lengthCount],
// lengthAnchors[lengthCount] (see infoRows etc. below). A class-1 state keeps the record alone,
// with rowCount and lengthCount 0.
struct KvliMorphMaskInfo {
  Kvl32s width;        // bounding-box width of the non-zero elements (max run end - min start)
  Kvl32s height;       // class 1: non-empty rows; class 2: last - first non-empty row + 1
  Kvl32s anchorX;      // anchor x - minimum run start (class 1: may lie outside the rectangle)
  Kvl32s anchorY;      // anchor y - first non-empty row
  Kvl32s reserved[2];  // always 0
  Kvl32s rowCount;     // class 2: non-empty rows
  Kvl32s lengthCount;  // class 2: distinct run lengths
};
static_assert(sizeof(KvliMorphMaskInfo) == 32, "the analysis record is eight words");

// The state. Every pointer points inside the state's own block: the block may be copied only
// as a whole by re-running the builder, never by memcpy to another address.
struct KvliMorphState {
  Kvl8u* pMask;                  // mask copy, maskWidth*maskHeight bytes, 16-byte aligned
  Kvl8u* pSelectLow;             // 16 bytes per mask element (class 0; class 1 of the border
  Kvl8u* pSelectHigh;            //   interface), else null
  Kvl8u* pWork;                  // scratch inside the block
  KvliMorphMaskInfo* pMaskInfo;  // classes 1 and 2, else null
  Kvl32s maskWidth;
  Kvl32s maskHeight;
  Kvl32s anchorX;  // 0 for class 3
  Kvl32s anchorY;
  Kvl32s rightExtent;   // maskWidth - anchorX - 1 (0 for class 3)
  Kvl32s bottomExtent;  // maskHeight - anchorY - 1 (0 for class 3)
  Kvl32s rowBufferLength;
  Kvl32s stateSize;  // bytes of the block the class needs
  Kvl32s dataType;   // 1 (8u), 5 (16u), 7 (16s), 13 (32f)
  Kvl32s channels;   // 1, 3 or 4
  Kvl32s roiWidth;   // the widest ROI the state serves
  Kvl32s minusOne;   // always -1
  Kvl32s maskClass;  // KvliMorphMaskClass
};
static_assert(sizeof(KvliMorphState) == 96, "the state's fields take 96 bytes");
static_assert(offsetof(KvliMorphState, maskWidth) == 40, "five pointers, then the words");
static_assert(offsetof(KvliMorphState, maskClass) == 88, "thirteen words after the pointers");

// The mask analysis. W x H mask bytes (non-zero = element), anchor (ax, ay), and whether class 2
// is forbidden (the border interface forbids it). Fills *info and, for classes 1 and 2, the
// scratch `arrays` (room for 4*H ints: rows at [0, H), rowLengthIndex at [H, 2H), lengths at
// [2H, 3H), lengthAnchors at [3H, 4H)). Returns the class. Never fails; arguments are the
// caller's to validate.
int ownCheckKernel(int W, int H, const Kvl8u* mask, int ax, int ay, bool forbidRowRuns,
                   KvliMorphMaskInfo* info, Kvl32s* arrays);

namespace kvl::morph {

// The arrays that follow a class-2 record inside a state.
inline Kvl32s* infoRows(KvliMorphMaskInfo* info) { return reinterpret_cast<Kvl32s*>(info + 1); }
inline Kvl32s* infoRowLengthIndex(KvliMorphMaskInfo* info) {
  return infoRows(info) + info->rowCount;
}
inline Kvl32s* infoLengths(KvliMorphMaskInfo* info) {
  return infoRowLengthIndex(info) + info->rowCount;
}
inline Kvl32s* infoLengthAnchors(KvliMorphMaskInfo* info) {
  return infoLengths(info) + info->lengthCount;
}
inline const Kvl32s* infoRows(const KvliMorphMaskInfo* info) {
  return reinterpret_cast<const Kvl32s*>(info + 1);
}
inline const Kvl32s* infoRowLengthIndex(const KvliMorphMaskInfo* info) {
  return infoRows(info) + info->rowCount;
}
inline const Kvl32s* infoLengths(const KvliMorphMaskInfo* info) {
  return infoRowLengthIndex(info) + info->rowCount;
}
inline const Kvl32s* infoLengthAnchors(const KvliMorphMaskInfo* info) {
  return infoLengths(info) + info->lengthCount;
}

}  // namespace kvl::morph
