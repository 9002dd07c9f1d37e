// Morphology over the member tables: the mask analysis, the state's layout and sizes, the
// validation orders, and every member against a plain min/max model on every mask class,
// border mode and side flag, in guarded memory.
#include <algorithm>
#include <string>
#include <vector>

#include "morph/morph_members.h"
#include "morph/morph_state.h"
#include "support/failing_alloc.h"
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
INSTANTIATE_TEST_SUITE_P(Table, MorphMembers, ::testing::ValuesIn(kMembers),
                         [](const ::testing::TestParamInfo<MorphMember>& p) {
                           return std::string(p.param.name);
                         });

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

// ---- Sizes and the state's layout ----

long long up16(long long v) { return (v + 15) / 16 * 16; }

// The size formulas written out: the rectangle filters' buffer, the row-run scratch, the work
// buffer B, the stateBlock size, and the state size of each class.
struct Formulas {
  const MorphMember& m;
  int roiWidth;
  KvliSize k;
  long long es() const { return m.elemBytes; }
  long long A() const { return up16(1LL * k.width * k.height); }
  long long F() const {
    return es() * m.channels * (2LL * k.height * (roiWidth + 32) + 32LL * k.height + 32);
  }
  long long E(long long n) const {  // the 8u members pass one channel of 8u
    const long long ch = m.dataType == kvl32f ? m.channels : 1;
    return (k.height * n + 1) * (roiWidth * ch * es() + 32) + 40LL * k.height + 40;
  }
  long long B() const {
    return std::max(E(k.height), F()) + up16(24LL * k.height) + A() + 16LL * k.height + 80;
  }
  long long stateBlock() const {
    const bool lean = m.dataType == kvl16u || m.dataType == kvl16s;
    return 33 * A() + 16LL * k.height + 160 + (lean ? 0 : B());
  }
  long long state(int cls, const KvliMorphMaskInfo& info) const {
    switch (cls) {
      case 0:
        return 33 * A() +
               std::max(2 * up16((roiWidth + 1LL * k.width) * m.channels * es()) * k.height,
                        es() * m.channels * k.height) +
               112;
      case 1: return A() + F() + 128;
      case 2: return E(info.lengthCount) + A() + 8LL * (info.rowCount + info.lengthCount) + 160;
      default: return A() + 96;
    }
  }
};

TEST_P(MorphMembers, SizeFormulas) {
  const MorphMember& m = GetParam();
  for (int roiWidth : {1, 2, 17, 100, 1920, 4000})
    for (KvliSize k : {KvliSize{1, 1}, KvliSize{3, 3}, KvliSize{5, 1}, KvliSize{1, 7},
                       KvliSize{11, 11}, KvliSize{4, 6}}) {
      const Formulas f{m, roiWidth, k};
      int stateBlock = -1, buffer = -1;
      std::vector<Kvl8u> mask(k.width * k.height, 1);
      ASSERT_EQ(m.getSize(roiWidth, mask.data(), k, &stateBlock, &buffer), kvlStatusOk);
      EXPECT_EQ(stateBlock, f.stateBlock()) << m.name << " " << roiWidth << " " << k.width << "x" << k.height;
      if (m.border) {
        EXPECT_EQ(buffer, f.B());
      }
    }
}

TEST(MorphSizes, HandComputed) {
  // 8u C1, width 100, 3x3: A 16, E 10*132+160 = 1480 (above the filters' 920), B 1480+80+16+
  // 48+80 = 1704, stateBlock 528+48+160+1704 = 2440. 16u C1 leaves B out of its stateBlock: 736.
  int stateBlock = 0, buffer = 0;
  ASSERT_EQ(kvliMorphologyBorderGetSize_8u_C1R(100, {3, 3}, &stateBlock, &buffer), kvlStatusOk);
  EXPECT_EQ(buffer, 1704);
  EXPECT_EQ(stateBlock, 2440);
  ASSERT_EQ(kvliMorphologyBorderGetSize_16u_C1R(100, {3, 3}, &stateBlock, &buffer), kvlStatusOk);
  EXPECT_EQ(stateBlock, 736);
  // 8u C3 keeps one channel in E (10*132+160 = 1480) and so takes the filters' 3*920 = 2760;
  // 32f C3 takes its own: 10*(1200+32)+160 = 12480.
  ASSERT_EQ(kvliMorphologyBorderGetSize_8u_C3R(100, {3, 3}, &stateBlock, &buffer), kvlStatusOk);
  EXPECT_EQ(buffer, 2760 + 224);
  ASSERT_EQ(kvliMorphologyBorderGetSize_32f_C3R(100, {3, 3}, &stateBlock, &buffer), kvlStatusOk);
  EXPECT_EQ(buffer, 12480 + 224);
  // Sizes that do not fit an int.
  EXPECT_EQ(kvliMorphologyBorderGetSize_8u_C1R(1 << 30, {3, 3}, &stateBlock, &buffer), kvlStatusBadSize);
  EXPECT_EQ(kvliMorphologyBorderGetSize_32f_C4R(100, {40000, 40000}, &stateBlock, &buffer),
            kvlStatusBadSize);
}

// Every pointer inside the block, the mask copy, the select tables, the analysis record and the
// fields, for every mask class; built in the caller's block and, for the older interface, by
// InitAlloc (whose block is exactly stateSize bytes).
TEST_P(MorphMembers, StateLayout) {
  const MorphMember& m = GetParam();
  const int roiWidth = 37;
  for (const Mask& mask : masks())
    for (const bool alloc : {false, true}) {
      if (alloc && m.border) continue;
      SCOPED_TRACE(std::string(m.name) + " " + mask.name + (alloc ? " InitAlloc" : " Init"));
      const auto b = build(m, roiWidth, mask, alloc);
      ASSERT_EQ(b->status, kvlStatusOk);
      const KvliMorphState& st = *b->state;
      const KvliPoint a =
          m.border ? KvliPoint{(mask.w - 1) >> 1, (mask.h - 1) >> 1} : mask.anchor;
      KvliMorphMaskInfo info;
      std::vector<Kvl32s> arrays(4 * mask.h);
      const int cls =
          ownCheckKernel(mask.w, mask.h, mask.bytes.data(), a.x, a.y, m.border, &info,
                         arrays.data());
      const Formulas f{m, roiWidth, mask.size()};
      const long long elements = 1LL * mask.w * mask.h;
      EXPECT_EQ(st.maskClass, cls);
      EXPECT_EQ(st.stateSize, f.state(cls, info));
      if (!m.border) {
        EXPECT_LE(st.stateSize, f.stateBlock()) << "an older state must fit the size query's block";
      }
      EXPECT_EQ(st.maskWidth, mask.w);
      EXPECT_EQ(st.maskHeight, mask.h);
      EXPECT_EQ(st.anchorX, cls == 3 ? 0 : a.x);
      EXPECT_EQ(st.anchorY, cls == 3 ? 0 : a.y);
      EXPECT_EQ(st.rightExtent, cls == 3 ? 0 : mask.w - a.x - 1);
      EXPECT_EQ(st.bottomExtent, cls == 3 ? 0 : mask.h - a.y - 1);
      const long long row = 1LL * m.channels * (roiWidth + mask.w);
      EXPECT_EQ(st.rowBufferLength, m.border ? (cls == 3 ? 0 : up16(row))
                                             : (cls == 0 ? up16(row * m.elemBytes) : 0));
      EXPECT_EQ(st.dataType, m.dataType);
      EXPECT_EQ(st.channels, m.channels);
      EXPECT_EQ(st.roiWidth, roiWidth);
      EXPECT_EQ(st.minusOne, -1);

      const Kvl8u* base = reinterpret_cast<const Kvl8u*>(b->state);
      const Kvl8u* end = base + (alloc ? st.stateSize : b->blockBytes);
      auto inside = [&](const void* p, long long bytes) {
        const Kvl8u* q = static_cast<const Kvl8u*>(p);
        return q >= base + sizeof(KvliMorphState) && q + bytes <= end;
      };
      EXPECT_TRUE(inside(st.pMask, f.A()));
      EXPECT_EQ(reinterpret_cast<uintptr_t>(st.pMask) % 16, 0u);
      for (long long k = 0; k < elements; ++k)
        ASSERT_EQ(st.pMask[k], cls == 3 ? 0 : mask.bytes[k]);
      EXPECT_TRUE(inside(st.pWork, 0));
      const bool tables = cls == 0 || (m.border && cls == 1);
      ASSERT_EQ(st.pSelectLow != nullptr, tables);
      ASSERT_EQ(st.pSelectHigh != nullptr, tables);
      if (tables) {
        EXPECT_TRUE(inside(st.pSelectLow, 16 * elements));
        EXPECT_EQ(st.pSelectHigh, st.pSelectLow + 16 * elements);
        EXPECT_GE(st.pWork, st.pSelectHigh + 16 * elements);
        for (long long k = 0; k < elements; ++k) {
          const bool on = mask.bytes[k] != 0;
          for (int q = 0; q < 4; ++q) {
            uint32_t lo, hi;
            std::memcpy(&lo, st.pSelectLow + 16 * k + 4 * q, 4);
            std::memcpy(&hi, st.pSelectHigh + 16 * k + 4 * q, 4);
            if (m.real) {
              ASSERT_EQ(lo, on ? 0xff7fffffu : 0x7f7fffffu);
              ASSERT_EQ(hi, on ? 0x7f7fffffu : 0xff7fffffu);
            } else {
              ASSERT_EQ(lo, on ? 0u : 0xffffffffu);
              ASSERT_EQ(hi, on ? 0xffffffffu : 0u);
            }
          }
        }
      }
      ASSERT_EQ(st.pMaskInfo != nullptr, cls == 1 || cls == 2);
      if (st.pMaskInfo == nullptr) continue;
      const KvliMorphMaskInfo& r = *st.pMaskInfo;
      EXPECT_TRUE(inside(&r, sizeof r));
      EXPECT_EQ(r.width, info.width);
      EXPECT_EQ(r.height, info.height);
      EXPECT_EQ(r.anchorX, info.anchorX);
      EXPECT_EQ(r.anchorY, info.anchorY);
      if (cls != 2) continue;
      EXPECT_EQ(r.rowCount, info.rowCount);
      EXPECT_EQ(r.lengthCount, info.lengthCount);
      EXPECT_TRUE(inside(kvl::morph::infoRows(&r), 8LL * (r.rowCount + r.lengthCount)));
      for (int k = 0; k < r.rowCount; ++k) {
        EXPECT_EQ(kvl::morph::infoRows(&r)[k], arrays[k]);
        EXPECT_EQ(kvl::morph::infoRowLengthIndex(&r)[k], arrays[mask.h + k]);
      }
      for (int k = 0; k < r.lengthCount; ++k) {
        EXPECT_EQ(kvl::morph::infoLengths(&r)[k], arrays[2 * mask.h + k]);
        EXPECT_EQ(kvl::morph::infoLengthAnchors(&r)[k], arrays[3 * mask.h + k]);
      }
    }
}

// ---- Validation ----

// One call of a member with every argument in reach of a mutation.
struct Call {
  const void* src;
  int srcStep;
  void* dst;
  int dstStep;
  KvliSize roi;
  int borderType;
  const KvliMorphState* state;
  Kvl8u* buffer;
};

struct RunCase {
  const char* what;
  void (*mutate)(Call&, int rowBytes);
  KvlStatus border, older;  // expected of each interface
};

TEST_P(MorphMembers, RunValidation) {
  const MorphMember& m = GetParam();
  constexpr KvlStatus kNull = kvlStatusNullPointer, kSize = kvlStatusBadSize,
                      kStep = kvlStatusBadStep, kBorder = kvlStatusBadBorderType,
                      kArg = kvlStatusBadArgument, kOk = kvlStatusOk;
  const RunCase cases[] = {
      {"valid", [](Call&, int) {}, kOk, kOk},
      {"null src", [](Call& c, int) { c.src = nullptr; }, kNull, kNull},
      {"null dst", [](Call& c, int) { c.dst = nullptr; }, kNull, kNull},
      {"null state", [](Call& c, int) { c.state = nullptr; }, kNull, kNull},
      {"null buffer", [](Call& c, int) { c.buffer = nullptr; }, kNull, kOk},
      {"null and no width", [](Call& c, int) { c.src = nullptr, c.roi.width = 0; }, kNull, kNull},
      {"no width", [](Call& c, int) { c.roi.width = 0; }, kSize, kSize},
      {"no height", [](Call& c, int) { c.roi.height = -1; }, kSize, kSize},
      {"no height, short step", [](Call& c, int r) { c.roi.height = 0, c.srcStep = r - 1; },
       kSize, kSize},
      {"short src step", [](Call& c, int r) { c.srcStep = r - 1; }, kStep, kStep},
      {"short dst step", [](Call& c, int r) { c.dstStep = r - 1; }, kStep, kStep},
      {"short step, border 0", [](Call& c, int r) { c.dstStep = r - 1, c.borderType = 0; },
       kStep, kStep},
      {"border 0", [](Call& c, int) { c.borderType = 0; }, kBorder, kArg},
      {"border 2", [](Call& c, int) { c.borderType = 2; }, kBorder, kArg},
      {"border 5", [](Call& c, int) { c.borderType = 5; }, kBorder, kArg},
      {"border 16+5", [](Call& c, int) { c.borderType = 16 + 5; }, kBorder, kArg},
      {"border 256+1", [](Call& c, int) { c.borderType = 256 + 1; }, kBorder, kArg},
      {"border 6", [](Call& c, int) { c.borderType = 6; }, kOk, kArg},
      {"border 1+64", [](Call& c, int) { c.borderType = 1 + 64; }, kOk, kArg},
      {"border 0, too wide", [](Call& c, int) { c.borderType = 0, c.roi.width += 1; }, kBorder,
       kArg},
      {"one wider than the state", [](Call& c, int) { c.roi.width += 1; }, kSize, kSize},
  };
  withType(m, [&]<class T, int C>() {
    const int w = 9, h = 4;
    const Mask mask = masks()[9];  // an ellipse: general or row runs
    const auto st = build(m, w, mask);
    ASSERT_EQ(st->status, kvlStatusOk);
    Image<T, C> src(w + 1, h, 4, 3);  // one column more than the state, for the wide case
    Image<T, C> dst(w + 1, h, 4, 4);
    for (const RunCase& rc : cases) {
      Call c{src.roi(), src.step(), dst.roi(), dst.step(), {w, h}, kvlBorderRepl, st->state,
             st->buffer ? st->buffer->data() : nullptr};
      rc.mutate(c, static_cast<int>(w * C * sizeof(T)));
      const KvlStatus want = m.border ? rc.border : rc.older;
      EXPECT_EQ(m.run(true, c.src, c.srcStep, c.dst, c.dstStep, c.roi, c.borderType, c.state,
                      c.buffer),
                want)
          << m.name << ": " << rc.what;
      if (want != kOk) {
        EXPECT_TRUE(dst.unchanged()) << m.name << ": " << rc.what;
      }
      dst.snapshot();
    }
    if (m.dataType == kvl16s) {  // in place is refused last
      EXPECT_EQ(m.run(false, src.roi(), src.step(), src.roi(), src.step(), {w, h}, kvlBorderRepl,
                      st->state, st->buffer->data()),
                kvlStatusInPlaceNotSupported);
      EXPECT_EQ(m.run(false, src.roi(), src.step(), src.roi(), src.step(), {w + 1, h},
                      kvlBorderRepl, st->state, st->buffer->data()),
                kvlStatusBadSize);
      EXPECT_TRUE(src.unchanged());
    }
  });
}

// The size queries and builders: pointers, sizes, then the anchor.
TEST_P(MorphMembers, BuildValidation) {
  const MorphMember& m = GetParam();
  const Kvl8u mask[6] = {1, 1, 1, 0, 1, 0};
  const KvliSize k{3, 2};
  int stateBlock = 0, buffer = 0;
  ASSERT_EQ(m.getSize(20, mask, k, &stateBlock, &buffer), kvlStatusOk);
  std::vector<uint64_t> block((stateBlock + 7) / 8, 0x5a5a5a5a5a5a5a5aull);
  const std::vector<uint64_t> untouched = block;
  std::vector<Kvl8u> buf(std::max(buffer, 1));
  auto* st = reinterpret_cast<KvliMorphState*>(block.data());
  int* const none = nullptr;
  EXPECT_EQ(m.getSize(20, mask, k, none, &buffer), kvlStatusNullPointer);
  if (m.border) {
    EXPECT_EQ(m.getSize(20, mask, k, &stateBlock, none), kvlStatusNullPointer);
  } else {
    EXPECT_EQ(m.getSize(20, nullptr, k, &stateBlock, &buffer), kvlStatusNullPointer);
  }
  EXPECT_EQ(m.getSize(0, mask, k, &stateBlock, &buffer), kvlStatusBadSize);
  EXPECT_EQ(m.getSize(20, mask, {0, 2}, &stateBlock, &buffer), kvlStatusBadSize);
  EXPECT_EQ(m.getSize(20, mask, {3, -1}, &stateBlock, &buffer), kvlStatusBadSize);
  struct {
    const char* what;
    int roiWidth;
    const Kvl8u* mask;
    KvliSize size;
    KvliPoint anchor;
    KvliMorphState* state;
    Kvl8u* buffer;
    KvlStatus border, older;
  } const cases[] = {
      {"null mask", 20, nullptr, k, {1, 1}, st, buf.data(), kvlStatusNullPointer,
       kvlStatusNullPointer},
      {"null state", 20, mask, k, {1, 1}, nullptr, buf.data(), kvlStatusNullPointer,
       kvlStatusNullPointer},
      {"null buffer", 0, mask, k, {1, 1}, st, nullptr, kvlStatusNullPointer, kvlStatusBadSize},
      {"no roi", 0, mask, k, {5, 1}, st, buf.data(), kvlStatusBadSize, kvlStatusBadSize},
      {"no mask width", 20, mask, {0, 2}, {1, 1}, st, buf.data(), kvlStatusBadSize,
       kvlStatusBadSize},
      {"anchor x = width", 20, mask, k, {3, 0}, st, buf.data(), kvlStatusOk,
       kvlStatusBadAnchor},
      {"anchor y < 0", 20, mask, k, {0, -1}, st, buf.data(), kvlStatusOk, kvlStatusBadAnchor},
  };
  for (const auto& c : cases) {
    const KvlStatus want = m.border ? c.border : c.older;
    EXPECT_EQ(m.init(c.roiWidth, c.mask, c.size, c.anchor, c.state, c.buffer), want)
        << m.name << ": " << c.what;
    if (want != kvlStatusOk) {
      EXPECT_TRUE(block == untouched) << m.name << ": " << c.what;
    }
    block = untouched;
    if (m.initAlloc == nullptr || c.state == nullptr) continue;
    KvliMorphState* made = reinterpret_cast<KvliMorphState*>(&block);
    EXPECT_EQ(m.initAlloc(c.roiWidth, c.mask, c.size, c.anchor, &made), want) << c.what;
    if (want == kvlStatusOk) kvliMorphologyFree(made);
  }
  if (m.initAlloc != nullptr) {
    EXPECT_EQ(m.initAlloc(20, mask, k, {0, 0}, nullptr), kvlStatusNullPointer);
  }
}

// InitAlloc reports an allocation failure of its analysis scratch or of the state, and leaves
// nothing allocated (the sanitizer build checks the leak) and the caller's pointer alone.
TEST(MorphOlder, InitAllocNoMemory) {
  const Kvl8u mask[9] = {0, 1, 0, 1, 1, 1, 0, 1, 0};
  for (const MorphMember& m : kMembers) {
    if (m.initAlloc == nullptr) continue;  // the border interface does not allocate
    for (int failing : {1, 2}) {
      KvliMorphState* st = reinterpret_cast<KvliMorphState*>(&gFailAt);
      gFailAt = failing;
      EXPECT_EQ(m.initAlloc(40, mask, {3, 3}, {1, 1}, &st), kvlStatusNoMemory) << failing;
      gFailAt = 0;
      EXPECT_EQ(st, reinterpret_cast<KvliMorphState*>(&gFailAt));
    }
    KvliMorphState* st = nullptr;
    ASSERT_EQ(m.initAlloc(40, mask, {3, 3}, {1, 1}, &st), kvlStatusOk);
    EXPECT_EQ(kvliMorphologyFree(st), kvlStatusOk);
  }
  EXPECT_EQ(kvliMorphologyFree(nullptr), kvlStatusNullPointer);
}

}  // namespace
