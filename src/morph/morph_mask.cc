// The mask analysis: which of the four computation paths a mask takes, and the record the
// rectangle and row-run paths work from.
#include "morph/morph_state.h"

int ownCheckKernel(int W, int H, const Kvl8u* mask, int ax, int ay, bool forbidRowRuns,
                   KvliMorphMaskInfo* info, Kvl32s* arrays) {
  *info = KvliMorphMaskInfo{1, 1, 0, 0, {0, 0}, 0, 0};
  if (W < 1 || H < 1) return kvlMorphMaskEmpty;
  // Scratch while scanning: each row's length in the rowLengthIndex slot, its anchor offset in
  // the lengthAnchors slot (the list built later only writes slots of rows already read).
  Kvl32s* rows = arrays;
  Kvl32s* rowIndex = arrays + H;
  Kvl32s* lengths = arrays + 2 * H;
  Kvl32s* anchors = arrays + 3 * H;
  int count = 0, minStart = W, maxEnd = 0, irregular = forbidRowRuns ? 1 : 0;
  for (int j = 0; j < H; ++j) {
    const Kvl8u* row = mask + static_cast<std::ptrdiff_t>(j) * W;
    int start = 0;
    while (start < W && row[start] == 0) ++start;
    if (start == W) continue;
    int end = start;
    while (end < W && row[end] != 0) ++end;
    for (int i = end; i < W; ++i) {
      if (row[i] != 0) {  // two runs in one row
        return kvlMorphMaskGeneral;
      }
    }
    if (start < minStart) minStart = start;
    if (end > maxEnd) maxEnd = end;
    rows[count] = j;
    rowIndex[count] = end - start;
    anchors[count] = ax - start;
    if (ax < start || ax >= end) ++irregular;
    ++count;
  }
  if (count == 0) return kvlMorphMaskEmpty;
  const int first = rows[0], last = rows[count - 1];
  if (ay < first || ay > last) ++irregular;
  info->width = maxEnd - minStart;
  info->anchorX = ax - minStart;
  info->anchorY = ay - first;

  bool solid = last - first + 1 == count;
  for (int k = 1; k < count && solid; ++k)
    solid = rowIndex[k] == rowIndex[0] && anchors[k] == anchors[0];
  if (solid) {
    info->height = count;
    return kvlMorphMaskRect;
  }
  info->height = last - first + 1;
  if (irregular != 0) return kvlMorphMaskGeneral;

  // Row runs: the distinct lengths in decreasing order, each with its anchor offset.
  int nLengths = 0;
  for (int k = 0; k < count; ++k) {
    const int len = rowIndex[k], off = anchors[k];
    int at = 0;
    while (at < nLengths && lengths[at] > len) ++at;
    if (at < nLengths && lengths[at] == len) {
      if (anchors[at] != off) return kvlMorphMaskGeneral;
      continue;
    }
    for (int m = nLengths; m > at; --m) {
      lengths[m] = lengths[m - 1];
      anchors[m] = anchors[m - 1];
    }
    lengths[at] = len;
    anchors[at] = off;
    ++nLengths;
  }
  for (int k = 0; k < count; ++k) {
    int at = 0;
    while (lengths[at] != rowIndex[k]) ++at;
    rowIndex[k] = at;
    rows[k] -= first;
  }
  info->rowCount = count;
  info->lengthCount = nLengths;
  return kvlMorphMaskRowRuns;
}
