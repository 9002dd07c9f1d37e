// Bit-image erosion and dilation over the member table: every mask class, widths and bit offsets
// on both sides, every border type and side flag with real bits around the ROI in guarded memory,
// the destination's other bits, strips of a narrow buffer, validation order and sizes.
#include <algorithm>
#include <random>
#include <vector>

#include "morph/morph_1u.h"
#include "morph/morph_state.h"
#include "support/support.h"

namespace {

using kvl::test::Image;

using MorphFn = KvlStatus (*)(const Kvl8u*, int, int, Kvl8u*, int, int, KvliSize, int, int,
                              const KvliMorphState*, Kvl8u*);
struct Member {
  const char* name;
  bool erode;
  MorphFn fn;
};
#define KVL_MEMBER(Op, erode) {#Op, erode, kvli##Op##Border_1u_C1R},
const Member kMembers[] = {KVL_MORPH_1U_MEMBERS(KVL_MEMBER)};
#undef KVL_MEMBER

struct Mask {
  int w, h;
  std::vector<Kvl8u> bytes;
};
Mask draw(std::vector<const char*> rows) {
  Mask m{static_cast<int>(strlen(rows[0])), static_cast<int>(rows.size()), {}};
  for (const char* r : rows)
    for (const char* p = r; *p; ++p) m.bytes.push_back(*p == '#' ? 1 : 0);
  return m;
}
// One of each class and the shapes that stress the runs: anchor outside the rectangle, two runs
// in a row, equal lengths at several starts, a mask row left empty, a wide run.
std::vector<Mask> masks() {
  std::vector<Mask> v = {
      draw({"###", "###", "###"}),
      draw({"...", "...", "..#"}),
      draw({"...", "...", "..."}),
      draw({".#.", "###", ".#."}),
      draw({"#.#", ".#.", "#.#"}),
      draw({"..#..", ".###.", "#####", ".###.", "..#.."}),
      draw({"##.##", ".....", "#..#."}),
      draw({"#", "#", "#", "#", "#"}),
      draw({"##############################################################################"}),
      draw({"###.", "#.##"}),
  };
  std::mt19937 rng(5);
  Mask r{9, 7, {}};
  for (int k = 0; k < 63; ++k) r.bytes.push_back(rng() % 3 == 0);
  v.push_back(r);
  v.push_back({15, 15, std::vector<Kvl8u>(225, 1)});  // runs doubled inside the words
  v.push_back(draw({"..........##########################################........"}));
  return v;
}

// A bit image: W x H pixels at bit offset `off` inside a guarded byte image with `margin` bytes
// of random bits on every side.
struct Bits {
  Image<Kvl8u> img;
  int off;
  Bits(int W, int H, int off, int margin, uint32_t seed)
      : img((off + W + 7) / 8, H, margin, seed), off(off) {
    img.fillRandom(seed);
  }
  int at(int x, int y) const {  // any x, y the margin covers
    const long long b = off + static_cast<long long>(x);
    return (img.at(0, y)[b >> 3] >> (b & 7)) & 1;
  }
};

// The plain model: AND / OR of the bits the mask's elements reach, through the border rule.
int model(const Bits& s, KvliSize roi, const Mask& m, int x, int y, int bt, bool erode) {
  const int ax = (m.w - 1) >> 1, ay = (m.h - 1) >> 1;
  if ((bt & 15) == kvlBorderInMem) bt |= 240;
  bool any = false;
  int v = erode;
  for (int j = 0; j < m.h; ++j)
    for (int i = 0; i < m.w; ++i) {
      if (!m.bytes[j * m.w + i]) continue;
      any = true;
      int sx = x + i - ax, sy = y + j - ay;
      if (sx < 0 && !(bt & 64)) sx = 0;
      if (sx >= roi.width && !(bt & 128)) sx = roi.width - 1;
      if (sy < 0 && !(bt & 16)) sy = 0;
      if (sy >= roi.height && !(bt & 32)) sy = roi.height - 1;
      v = erode ? (v & s.at(sx, sy)) : (v | s.at(sx, sy));
    }
  return any ? v : s.at(x, y);
}

struct State {
  std::vector<Kvl8u> stateBlock, buffer;
  KvliMorphState* get() { return reinterpret_cast<KvliMorphState*>(stateBlock.data()); }
  State(int roiWidth, const Mask& m) {
    int stateBlockSize = 0, bufSize = 0;
    EXPECT_EQ(kvliMorphologyBorderGetSize_1u_C1R(roiWidth, {m.w, m.h}, &stateBlockSize, &bufSize),
              kvlStatusOk);
    stateBlock.assign(stateBlockSize, 0xcd);
    buffer.assign(bufSize, 0xcd);
    EXPECT_EQ(kvliMorphologyBorderInit_1u_C1R(roiWidth, m.bytes.data(), {m.w, m.h}, get(),
                                              buffer.data()),
              kvlStatusOk);
  }
};

// Runs one call and compares every destination bit: the ROI's with the model, the others
// (before the offset, after the last pixel, other bytes) with what was there.
void check(const Member& mb, const Mask& m, KvliSize roi, int soff, int doff, int bt,
           uint32_t seed, int stateWidth = -1) {
  SCOPED_TRACE(testing::Message() << mb.name << " mask " << m.w << "x" << m.h << " roi "
                                  << roi.width << "x" << roi.height << " offsets " << soff << ","
                                  << doff << " border " << bt);
  State st(stateWidth > 0 ? stateWidth : roi.width, m);
  Bits src(roi.width, roi.height, soff, 10, seed);
  kvl::test::forEachTarget([&](int) {
    Bits dst(roi.width, roi.height, doff, 2, seed + 1);
    kvl::test::GuardedBlock buf(st.buffer.size(), 8, seed);  // the exact size, guarded
    ASSERT_EQ(mb.fn(src.img.roi(), src.img.step(), soff, dst.img.roi(), dst.img.step(), doff,
                    roi, bt, 0, st.get(), buf.data()),
              kvlStatusOk);
    ASSERT_TRUE(src.img.unchanged());
    ASSERT_TRUE(dst.img.outsideUnchanged());
    const Bits before(roi.width, roi.height, doff, 2, seed + 1);
    for (int y = 0; y < roi.height; ++y) {
      for (int b = 0; b < doff; ++b) ASSERT_EQ(dst.at(b - doff, y), before.at(b - doff, y));
      for (int x = roi.width; (doff + x) % 8 != 0; ++x) ASSERT_EQ(dst.at(x, y), before.at(x, y));
      for (int x = 0; x < roi.width; ++x)
        ASSERT_EQ(dst.at(x, y), model(src, roi, m, x, y, bt, mb.erode)) << "x " << x << " y " << y;
    }
  });
}

class Morph1u : public testing::TestWithParam<Member> {};

TEST_P(Morph1u, EveryMaskWidthAndOffset) {
  const std::vector<Mask> ms = masks();
  uint32_t seed = 1;
  for (size_t k = 0; k < ms.size(); ++k)
    for (int w = 1; w <= 70; w += (w < 10 ? 1 : 7))
      check(GetParam(), ms[k], {w, 1 + w % 5}, (w + 3 * static_cast<int>(k)) % 8, w % 8, 1, ++seed);
  for (int soff : {0, 3, 7, 8, 13, 66})
    for (int doff : {0, 1, 5, 7, 9, 64})
      check(GetParam(), ms[5], {67, 3}, soff, doff, 1, ++seed);
}

TEST_P(Morph1u, EveryBorderTypeAndFlag) {
  const std::vector<Mask> ms = masks();
  uint32_t seed = 100;
  for (int bt : {1, 6, 1 + 16, 1 + 32, 1 + 64, 1 + 128, 1 + 16 + 64, 1 + 32 + 128, 1 + 240,
                 6 + 16})
    for (size_t k : {0, 1, 3, 5, 6, 8, 10})
      for (KvliSize roi : {KvliSize{1, 1}, KvliSize{9, 4}, KvliSize{64, 2}, KvliSize{70, 7}}) {
        ++seed;
        check(GetParam(), ms[k], roi, (seed * 3) % 11, seed % 8, bt, seed);
      }
}

// The 3x3 rectangle and cross with both offsets 0 take their own row passes: every word and
// partial-word tail, every border side.
TEST_P(Morph1u, ThreeByThreeAtOffsetZero) {
  const std::vector<Mask> ms = masks();
  uint32_t seed = 500;
  for (size_t k : {0, 3})
    for (int w : {1, 2, 7, 8, 9, 56, 63, 64, 65, 120, 128, 129, 575, 576, 1000})
      for (int bt : {1, 6, 1 + 64, 1 + 128, 1 + 16 + 32, 6 + 16})
        check(GetParam(), ms[k], {w, 1 + (w + bt) % 4}, 0, 0, bt, ++seed);
}

// A ROI much wider than the state was built for: the buffer sized for the state holds a strip
// of the rows at a time.
TEST_P(Morph1u, WiderThanTheStateInStrips) {
  const std::vector<Mask> ms = masks();
  check(GetParam(), ms[5], {7000, 6}, 3, 5, 1 + 64, 7, 400);
  check(GetParam(), ms[8], {3000, 3}, 1, 6, 6, 8, 1000);
  check(GetParam(), ms[10], {4000, 9}, 0, 2, 1 + 128, 9, 200);
  check(GetParam(), ms[8], {12000, 2}, 5, 0, 1 + 64, 10, 3000);
}

// Images taller than a batch of rows: the rows a batch shares with the next are read again.
TEST_P(Morph1u, TallImagesInBatches) {
  const std::vector<Mask> ms = masks();
  uint32_t seed = 300;
  for (size_t k : {0, 3, 5, 7, 10})
    for (int bt : {1, 6, 1 + 32})
      check(GetParam(), ms[k], {45 + static_cast<int>(k), 33 + 13 * static_cast<int>(k)}, 2, 3, bt,
            ++seed);
}

INSTANTIATE_TEST_SUITE_P(Members, Morph1u, testing::ValuesIn(kMembers),
                         [](const testing::TestParamInfo<Member>& p) { return std::string(p.param.name); });

// Validation order; every row also checks that the destination stayed as it was.
TEST(Morph1uCalls, ValidationOrder) {
  const Mask m = masks()[3];
  State st(8, m);
  Bits src(24, 4, 0, 0, 1), dst(24, 4, 0, 0, 2);
  struct Case {
    const Kvl8u* s;
    Kvl8u* d;
    int sstep, dstep, soff, doff, w, h, bt;
    bool noState, noBuf;
    KvlStatus want;
  };
  const Kvl8u* S = src.img.roi();
  Kvl8u* D = dst.img.roi();
  const int ss = src.img.step(), ds = dst.img.step();
  const Case cases[] = {
      {nullptr, D, ss, ds, 0, 0, 0, 4, 5, false, false, kvlStatusNullPointer},
      {S, nullptr, ss, ds, 0, 0, 16, 4, 1, false, false, kvlStatusNullPointer},
      {S, D, ss, ds, 0, 0, 16, 4, 1, true, false, kvlStatusNullPointer},
      {S, D, ss, ds, 0, 0, 16, 4, 1, false, true, kvlStatusNullPointer},
      {S, D, ss, ds, -1, 0, 16, 4, 1, false, false, kvlStatusBadSize},
      {S, D, 0, ds, 0, -1, 16, 4, 1, false, false, kvlStatusBadSize},
      {S, D, 0, ds, 0, 0, 0, 4, 1, false, false, kvlStatusBadSize},
      {S, D, ss, ds, 0, 0, 16, 0, 1, false, false, kvlStatusBadSize},
      {S, D, 1, ds, 0, 0, 16, 4, 5, false, false, kvlStatusBadStep},
      {S, D, ss, 1, 0, 0, 16, 4, 1, false, false, kvlStatusBadStep},
      {S, D, 2, 2, 0, 0, 16, 4, 0, false, false, kvlStatusBadBorderType},  // 2 bytes: enough
      {S, D, ss, ds, 0, 0, 16, 4, 2, false, false, kvlStatusBadBorderType},
      {S, D, ss, ds, 0, 0, 16, 4, 256 + 1, false, false, kvlStatusBadBorderType},
      {S, D, ss, ds, 0, 0, 16, 4, 16 + 5, false, false, kvlStatusBadBorderType},
      {S, const_cast<Kvl8u*>(S), ss, ss, 0, 0, 16, 4, 1, false, false,
       kvlStatusInPlaceNotSupported},
      {S, D, ss, ds, 0, 0, 17, 4, 1, false, false, kvlStatusOk},  // wider than the state: fine
  };
  for (const Member& mb : kMembers)
    for (const Case& c : cases) {
      dst.img.snapshot();
      src.img.snapshot();
      EXPECT_EQ(mb.fn(c.s, c.sstep, c.soff, c.d, c.dstep, c.doff, {c.w, c.h}, c.bt, 0,
                      c.noState ? nullptr : st.get(), c.noBuf ? nullptr : st.buffer.data()),
                c.want)
          << mb.name << " case " << (&c - cases);
      if (c.want != kvlStatusOk) {
        EXPECT_TRUE(dst.img.unchanged() && src.img.unchanged());
      }
    }
}

TEST(Morph1uCalls, SizesAndState) {
  int stateBlock = 0, buf = 0;
  // B = max(E, F) + roundup16(24 H) + A + 16 H + 80 with the 8u one-channel E and F.
  ASSERT_EQ(kvliMorphologyBorderGetSize_1u_C1R(1920, {3, 3}, &stateBlock, &buf), kvlStatusOk);
  EXPECT_EQ(stateBlock, 3 * 16 + 96);
  EXPECT_EQ(buf, 10 * 1952 + 160 + 80 + 16 + 48 + 80);
  ASSERT_EQ(kvliMorphologyBorderGetSize_1u_C1R(100, {40, 1}, &stateBlock, &buf), kvlStatusOk);
  EXPECT_EQ(stateBlock, 3 * 48 + 96);
  EXPECT_EQ(buf, (2 * 132 + 80) + 32 + 48 + 16 + 80);  // the row-run term is the larger
  EXPECT_EQ(kvliMorphologyBorderGetSize_1u_C1R(0, {3, 3}, &stateBlock, &buf), kvlStatusBadSize);
  EXPECT_EQ(kvliMorphologyBorderGetSize_1u_C1R(5, {3, 0}, nullptr, &buf), kvlStatusNullPointer);
  EXPECT_EQ(kvliMorphologyBorderGetSize_1u_C1R(1 << 30, {99, 99}, &stateBlock, &buf), kvlStatusBadSize);
  std::vector<Kvl8u> block(400), scratch(100000);
  const Mask m = masks()[0];
  EXPECT_EQ(kvliMorphologyBorderInit_1u_C1R(8, m.bytes.data(), {3, 3}, nullptr, scratch.data()),
            kvlStatusNullPointer);
  EXPECT_EQ(kvliMorphologyBorderInit_1u_C1R(8, m.bytes.data(), {3, 0},
                                            reinterpret_cast<KvliMorphState*>(block.data()),
                                            scratch.data()),
            kvlStatusBadSize);
  // The fields, class by class: rectangle with its record, general, empty.
  struct Want {
    Mask m;
    int cls, stateSize, rowBuffer;
    bool info;
  };
  for (const Want& w : {Want{masks()[1], 1, 144, 16, true}, Want{masks()[3], 0, 144, 16, false},
                        Want{masks()[2], 3, 112, 0, false}}) {
    KvliMorphState* s = reinterpret_cast<KvliMorphState*>(block.data());
    ASSERT_EQ(kvliMorphologyBorderInit_1u_C1R(10, w.m.bytes.data(), {3, 3}, s, scratch.data()),
              kvlStatusOk);
    EXPECT_EQ(s->maskClass, w.cls);
    EXPECT_EQ(s->stateSize, w.stateSize);
    EXPECT_EQ(s->rowBufferLength, w.rowBuffer);
    EXPECT_EQ(s->roiWidth, 10);
    EXPECT_EQ(s->minusOne, -1);
    EXPECT_EQ(s->pMask, block.data() + 96);
    EXPECT_EQ(s->pSelectLow, nullptr);
    EXPECT_EQ(s->pMaskInfo != nullptr, w.info);
    if (w.info) {
      EXPECT_EQ(s->pMaskInfo->anchorX, -1);
    }
    EXPECT_EQ(s->anchorX, w.cls == 3 ? 0 : 1);
    EXPECT_EQ(std::count(s->pMask, s->pMask + 9, 0), w.cls == 3 ? 9 : 9 - std::count(w.m.bytes.begin(), w.m.bytes.end(), 1));
  }
}

}  // namespace
