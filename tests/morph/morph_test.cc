// Morphology over the member tables: the mask analysis, the state's layout and sizes, the
// validation orders, and every member against a plain min/max model on every mask class,
// border mode and side flag, in guarded memory.
#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "morph/morph_members.h"
#include "morph/morph_state.h"
#include "support/support.h"

// Allocation failures on demand: the test binary's kvlMalloc stands in front of the core
// library's and fails the allocation numbered gFailAt (1 = the next one) of those that follow.
namespace {
std::atomic<int> gFailAt{0};
}
extern "C" void* kvlMalloc(int length) {
  using Fn = void* (*)(int);
  static const Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "kvlMalloc"));
  if (gFailAt > 0 && --gFailAt == 0) return nullptr;
  return real(length);
}

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


// ---- The members ----

using kvl::morph::MorphMember;
using kvl::test::GuardedBlock;
using kvl::test::Image;

const MorphMember kMembers[] = {KVL_MORPH_BORDER_MEMBERS(KVL_MORPH_BORDER_RECORD)
                                    KVL_MORPH_OLDER_MEMBERS(KVL_MORPH_OLDER_RECORD)};

// Calls f.template operator()<T, C>() with the member's element type and channels.
template <class F>
void withType(const MorphMember& m, F&& f) {
  switch (m.dataType * 10 + m.channels) {
    case 11: f.template operator()<Kvl8u, 1>(); break;
    case 13: f.template operator()<Kvl8u, 3>(); break;
    case 14: f.template operator()<Kvl8u, 4>(); break;
    case 51: f.template operator()<Kvl16u, 1>(); break;
    case 71: f.template operator()<Kvl16s, 1>(); break;
    case 131: f.template operator()<Kvl32f, 1>(); break;
    case 133: f.template operator()<Kvl32f, 3>(); break;
    case 134: f.template operator()<Kvl32f, 4>(); break;
    default: FAIL() << "no such member type";
  }
}

// A mask with the anchor the older interface is given (the border interface takes the centre).
struct Mask {
  std::string name;
  int w, h;
  std::vector<Kvl8u> bytes;
  KvliPoint anchor;
  KvliSize size() const { return {w, h}; }
};
Mask drawn(const char* name, const std::vector<const char*>& rows, KvliPoint anchor) {
  const Drawn d = draw(rows);
  return {name, d.w, d.h, d.bytes, anchor};
}
Mask randomMask(int w, int h, uint32_t seed) {
  std::mt19937 rng(seed);
  Mask m{"random" + std::to_string(seed), w, h, std::vector<Kvl8u>(w * h), {}};
  for (auto& b : m.bytes) b = rng() % 3 == 0 ? 0 : static_cast<Kvl8u>(1 + rng() % 255);
  m.anchor = {static_cast<int>(rng() % w), static_cast<int>(rng() % h)};
  return m;
}
std::vector<Mask> masks() {
  return {
      drawn("empty", {"...", "...", "..."}, {1, 1}),
      drawn("rect3x3", {"###", "###", "###"}, {0, 2}),
      drawn("bottomRight", {"...", "...", "..#"}, {1, 1}),
      drawn("topLeft", {"#..", "...", "..."}, {2, 2}),
      drawn("row5", {"#####"}, {4, 0}),
      drawn("column4", {"#", "#", "#", "#"}, {0, 3}),
      drawn("farCorner", {".....", ".....", ".....", "...##", "...##"}, {0, 0}),
      drawn("plus", {".#.", "###", ".#."}, {1, 1}),
      drawn("twoRuns", {"#.#", ".#.", "#.#"}, {1, 1}),
      drawn("ellipse", {"..#..", "#####", "#####", "#####", "..#.."}, {2, 2}),
      drawn("steps", {"#....", "###..", "#####"}, {0, 1}),
      randomMask(4, 3, 1),
      randomMask(5, 5, 2),
      randomMask(7, 2, 3),
  };
}

// A state built by a member, with its work buffer, in guarded memory.
struct Built {
  KvlStatus status = kvlStatusOk;
  std::unique_ptr<GuardedBlock> block;
  std::unique_ptr<GuardedBlock> buffer;
  KvliMorphState* allocated = nullptr;
  KvliMorphState* state = nullptr;
  int blockBytes = 0, bufferBytes = 0;
  ~Built() {
    if (allocated != nullptr) kvliMorphologyFree(allocated);
  }
};
std::unique_ptr<Built> build(const MorphMember& m, int roiWidth, const Mask& mask,
                             bool alloc = false) {
  auto b = std::make_unique<Built>();
  KvliPoint anchor = m.border ? KvliPoint{(mask.w - 1) >> 1, (mask.h - 1) >> 1} : mask.anchor;
  if (!m.border && alloc) {
    b->status = m.initAlloc(roiWidth, mask.bytes.data(), mask.size(), anchor, &b->allocated);
    b->state = b->allocated;
    b->blockBytes = b->allocated ? b->allocated->stateSize : 0;
    return b;
  }
  b->status = m.getSize(roiWidth, mask.bytes.data(), mask.size(), &b->blockBytes, &b->bufferBytes);
  if (b->status != kvlStatusOk) return b;
  b->block = std::make_unique<GuardedBlock>(b->blockBytes, 64, 5);
  b->buffer = std::make_unique<GuardedBlock>(std::max(b->bufferBytes, 1), 1, 6);
  b->state = reinterpret_cast<KvliMorphState*>(b->block->data());
  b->status = m.init(roiWidth, mask.bytes.data(), mask.size(), anchor, b->state,
                     b->buffer->data());
  return b;
}

// Whether side flags read memory for border type bt.
bool memSide(int bt, int flag) { return (bt & 15) == kvlBorderInMem || (bt & flag) != 0; }

// The plain model: min (max) over the mask's elements, outside pixels replicated unless their
// side reads memory; an empty mask copies.
template <class T, int C>
std::vector<T> model(const Image<T, C>& src, const Mask& mask, KvliPoint a, int bt, bool erode) {
  const int w = src.width(), h = src.height();
  auto resolve = [](int v, int n, bool lowMem, bool highMem) {
    if (v < 0 && !lowMem) return 0;
    if (v >= n && !highMem) return n - 1;
    return v;
  };
  std::vector<T> out;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < C; ++c) {
        bool any = false;
        T best{};
        for (int j = 0; j < mask.h; ++j)
          for (int i = 0; i < mask.w; ++i) {
            if (mask.bytes[j * mask.w + i] == 0) continue;
            const int sx = resolve(x + i - a.x, w, memSide(bt, kvlBorderInMemLeft),
                                   memSide(bt, kvlBorderInMemRight));
            const int sy = resolve(y + j - a.y, h, memSide(bt, kvlBorderInMemTop),
                                   memSide(bt, kvlBorderInMemBottom));
            const T v = src.px(sx, sy, c);
            if (!any || (erode ? v < best : v > best)) best = v;
            any = true;
          }
        out.push_back(any ? best : src.px(x, y, c));
      }
  return out;
}

class MorphMembers : public ::testing::TestWithParam<MorphMember> {};
INSTANTIATE_TEST_SUITE_P(Table, MorphMembers, ::testing::ValuesIn(kMembers));

constexpr int kBorders[] = {kvlBorderRepl,
                            kvlBorderInMem,
                            kvlBorderRepl | kvlBorderInMemTop,
                            kvlBorderRepl | kvlBorderInMemBottom,
                            kvlBorderRepl | kvlBorderInMemLeft,
                            kvlBorderRepl | kvlBorderInMemRight,
                            kvlBorderRepl | kvlBorderInMemTop | kvlBorderInMemLeft,
                            kvlBorderInMem | kvlBorderInMemTop,
                            kvlBorderRepl | 240};

// Every mask at widths 1..70 (heights 1..5), each width with the state's roiWidth exact or
// wider, the border modes and flags in rotation, erosion and dilation, on every target.
TEST_P(MorphMembers, MatchesModel) {
  const MorphMember& m = GetParam();
  withType(m, [&]<class T, int C>() {
    const std::vector<Mask> all = masks();
    for (size_t mi = 0; mi < all.size(); ++mi) {
      const Mask& mask = all[mi];
      const KvliPoint a =
          m.border ? KvliPoint{(mask.w - 1) >> 1, (mask.h - 1) >> 1} : mask.anchor;
      for (int w = 1; w <= 70; ++w) {
        const int h = 1 + (w + static_cast<int>(mi)) % 5;
        const int bt =
            m.border ? kBorders[(w + mi) % std::size(kBorders)] : static_cast<int>(kvlBorderRepl);
        const int roiWidth = w % 3 == 0 ? w + w % 7 : w;
        const auto st = build(m, roiWidth, mask, w % 2 == 0);
        ASSERT_EQ(st->status, kvlStatusOk);
        Image<T, C> src(w, h, 8, static_cast<uint32_t>(w * 31 + mi));
        if (w % 4 == 1) src.fillRandom(w, T(0), T(3));  // plateaus and ties
        Image<T, C> dst(w, h, 2, static_cast<uint32_t>(w * 17 + mi));
        for (const bool erode : {true, false}) {
          const std::vector<T> want = model(src, mask, a, bt, erode);
          kvl::test::forEachTarget([&](int target) {
            SCOPED_TRACE(std::string(m.name) + " " + mask.name + (erode ? " erode" : " dilate") +
                         " w=" + std::to_string(w) + " h=" + std::to_string(h) +
                         " border=" + std::to_string(bt) + " " + kvl::test::targetName(target));
            ASSERT_EQ(m.run(erode, src.roi(), src.step(), dst.roi(), dst.step(), {w, h}, bt,
                            st->state, st->buffer ? st->buffer->data() : nullptr),
                      kvlStatusOk);
            ASSERT_TRUE(kvl::test::sameBytes(dst.pixels(), want, w, C));
            ASSERT_TRUE(src.unchanged());
            ASSERT_TRUE(dst.outsideUnchanged());
          });
        }
      }
    }
  });
}

}  // namespace
