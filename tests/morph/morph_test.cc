// Morphology over the member tables: the mask analysis, the state's layout and sizes, the
// validation orders, and every member against a plain min/max model on every mask class,
// border mode and side flag, in guarded memory.
#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "morph/morph_state.h"
#include "support/support.h"

namespace {

// ---- The mask analysis ----

// A mask drawn as text: one string per row, '#' an element.
struct Drawn {
  int w, h;
  std::vector<Kvl8u> bytes;
};
Drawn draw(const std::vector<const char*>& rows) {
  Drawn d{0, static_cast<int>(rows.size()), {}};
  for (const char* r : rows) {
    d.w = static_cast<int>(strlen(r));
    for (const char* p = r; *p; ++p) d.bytes.push_back(*p == '#' ? 1 : 0);
  }
  return d;
}

struct MaskCase {
  std::vector<const char*> rows;
  int ax, ay;
  bool forbid;
  int cls;
  KvliMorphMaskInfo info;  // compared for classes 1..3
  std::vector<int> arrays;  // class 2: rows, rowLengthIndex, lengths, lengthAnchors
};

TEST(MorphMask, Classes) {
  const MaskCase cases[] = {
      {{"...", "...", "..."}, 1, 1, false, 3, {1, 1, 0, 0, {0, 0}, 0, 0}, {}},
      {{"...", "...", "..#"}, 1, 1, true, 1, {1, 1, -1, -1, {0, 0}, 0, 0}, {}},
      {{"...", "...", "..#"}, 1, 1, false, 1, {1, 1, -1, -1, {0, 0}, 0, 0}, {}},
      {{"###", "###", "###"}, 1, 1, true, 1, {3, 3, 1, 1, {0, 0}, 0, 0}, {}},
      {{".....", ".##..", ".##.."}, 4, 0, true, 1, {2, 2, 3, -1, {0, 0}, 0, 0}, {}},
      {{".#.", "###", ".#."}, 1, 1, false, 2, {3, 3, 1, 1, {0, 0}, 3, 2},
       {0, 1, 2, /**/ 1, 0, 1, /**/ 3, 1, /**/ 1, 0}},
      {{".#.", "###", ".#."}, 1, 1, true, 0, {}, {}},
      {{"#.#", "...", "..."}, 0, 0, false, 0, {}, {}},
      // anchor outside a run: irregular, so general
      {{"##.", ".##", "##."}, 0, 1, false, 0, {}, {}},
      // anchor row outside the non-empty rows
      {{"...", ".#.", "###"}, 1, 0, false, 0, {}, {}},
      // equal lengths with different anchor offsets
      {{"##.", ".##", "###"}, 1, 1, false, 0, {}, {}},
      // a gap between rows is still row runs; lengths sorted decreasing
      {{"..#..", ".....", "#####", ".###."}, 2, 2, false, 2, {5, 4, 2, 2, {0, 0}, 3, 3},
       {0, 2, 3, /**/ 2, 0, 1, /**/ 5, 3, 1, /**/ 2, 1, 0}},
  };
  for (const MaskCase& c : cases) {
    const Drawn m = draw(c.rows);
    KvliMorphMaskInfo info;
    std::vector<Kvl32s> arrays(4 * m.h, -7);
    const int cls = ownCheckKernel(m.w, m.h, m.bytes.data(), c.ax, c.ay, c.forbid, &info,
                                   arrays.data());
    SCOPED_TRACE(std::string(c.rows[0]) + "/" + c.rows[1] + " anchor " + std::to_string(c.ax) +
                 "," + std::to_string(c.ay));
    ASSERT_EQ(cls, c.cls);
    if (cls == 0) continue;
    EXPECT_EQ(info.width, c.info.width);
    EXPECT_EQ(info.height, c.info.height);
    EXPECT_EQ(info.anchorX, c.info.anchorX);
    EXPECT_EQ(info.anchorY, c.info.anchorY);
    EXPECT_EQ(info.reserved[0] | info.reserved[1], 0);
    EXPECT_EQ(info.rowCount, c.info.rowCount);
    EXPECT_EQ(info.lengthCount, c.info.lengthCount);
    if (cls != 2) continue;
    const int r = info.rowCount, l = info.lengthCount, H = m.h;
    std::vector<int> got;
    got.insert(got.end(), arrays.begin(), arrays.begin() + r);
    got.insert(got.end(), arrays.begin() + H, arrays.begin() + H + r);
    got.insert(got.end(), arrays.begin() + 2 * H, arrays.begin() + 2 * H + l);
    got.insert(got.end(), arrays.begin() + 3 * H, arrays.begin() + 3 * H + l);
    EXPECT_EQ(got, c.arrays);
  }
}

}  // namespace
