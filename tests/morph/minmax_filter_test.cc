// Rectangle minimum and maximum filters over the member table: every target against a plain model
// of the rule, the validation order, the buffer sizes and the signed-zero order of floats.
#include "morph/minmax_filter_members.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>
#include <vector>

#include "core/services.h"
#include "support/support.h"

namespace {

using kvl::morph::MinMaxMember;
using kvl::test::GuardedBlock;

const MinMaxMember kMembers[] = {KVL_MINMAX_MEMBERS(KVL_MINMAX_MEMBER_RECORD)};

// An image in guarded memory: noise in a one-pixel margin and the row padding, the ROI from a
// seeded generator. Elements are handled as bytes so one test serves every member.
struct Img {
  const MinMaxMember& m;
  int w, h, px, step;
  std::unique_ptr<GuardedBlock> block;
  uint8_t* roi;
  Img(const MinMaxMember& mm, int width, int height, uint32_t seed) : m(mm), w(width), h(height) {
    px = m.elemBytes * m.channels;
    step = (w + 2) * px + static_cast<int>(seed % 3);  // not always an element multiple
    const size_t bytes = static_cast<size_t>(step) * (h + 1) + static_cast<size_t>(w + 1) * px;
    block = std::make_unique<GuardedBlock>(bytes, 1, seed);
    roi = block->data() + step + px;
  }
  uint8_t* at(int x, int y) const { return roi + static_cast<ptrdiff_t>(y) * step + x * px; }
  // A value of the element type from a small range, so ties and plateaus are common; floats also
  // take both zeros.
  void fill(uint32_t seed) {
    std::mt19937 rng(seed);
    for (int y = 0; y < h; ++y)
      for (int i = 0; i < w * m.channels; ++i) set(at(0, y) + i * m.elemBytes, rng() % 13);
  }
  void set(uint8_t* p, unsigned r) const {
    if (m.kind == 'f') {
      const float v = r == 0 ? -0.0f : r == 1 ? 0.0f : static_cast<float>(static_cast<int>(r) - 6) * 1.5f;
      std::memcpy(p, &v, 4);
    } else if (m.elemBytes == 1) {
      *p = static_cast<uint8_t>(r * 21);
    } else {
      const int16_t v = static_cast<int16_t>(m.kind == 's' ? (static_cast<int>(r) - 6) * 5000 : r * 5000);
      std::memcpy(p, &v, 2);
    }
  }
};

// The element at p as a number that orders like the filters do (floats: -0 below +0).
double key(const MinMaxMember& m, const uint8_t* p) {
  if (m.kind == 'f') {
    float v;
    std::memcpy(&v, p, 4);
    return v == 0.0f ? (std::signbit(v) ? -1e-300 : 0.0) : v;
  }
  if (m.elemBytes == 1) return *p;
  uint16_t u;
  std::memcpy(&u, p, 2);
  return m.kind == 's' ? static_cast<int16_t>(u) : u;
}

// The model: the source element of least (greatest) key over the rectangle around (x, y),
// positions clamped into the ROI.
const uint8_t* modelAt(const Img& s, KvliSize mask, KvliPoint anchor, bool isMax, int x, int y,
                       int c) {
  const uint8_t* best = nullptr;
  for (int j = 0; j < mask.height; ++j)
    for (int i = 0; i < mask.width; ++i) {
      const int sx = std::clamp(x + i - anchor.x, 0, s.w - 1);
      const int sy = std::clamp(y + j - anchor.y, 0, s.h - 1);
      const uint8_t* p = s.at(sx, sy) + c * s.m.elemBytes;
      if (best == nullptr || (isMax ? key(s.m, p) > key(s.m, best) : key(s.m, p) < key(s.m, best)))
        best = p;
    }
  return best;
}

std::vector<uint8_t> model(const Img& s, KvliSize mask, KvliPoint anchor, bool isMax) {
  const int eb = s.m.elemBytes, ch = s.m.channels;
  std::vector<uint8_t> out(static_cast<size_t>(s.w) * s.h * s.px);
  for (int y = 0; y < s.h; ++y)
    for (int x = 0; x < s.w; ++x)
      for (int c = 0; c < ch; ++c)
        std::memcpy(&out[((static_cast<size_t>(y) * s.w + x) * ch + c) * eb],
                    modelAt(s, mask, anchor, isMax, x, y, c), eb);
  return out;
}

std::vector<uint8_t> roiBytes(const Img& d) {
  std::vector<uint8_t> v;
  for (int y = 0; y < d.h; ++y) v.insert(v.end(), d.at(0, y), d.at(0, y) + d.w * d.px);
  return v;
}

std::vector<uint8_t> blockBytes(const Img& d) {
  return {d.block->data(), d.block->data() + d.block->size()};
}

// Runs one call with a buffer of exactly the queried size and compares with the model; checks
// that nothing outside the destination's ROI and nothing of the source changed.
void expectModel(const MinMaxMember& m, int w, int h, KvliSize mask, KvliPoint anchor, bool isMax,
                 uint32_t seed) {
  Img src(m, w, h, seed), dst(m, w, h, seed + 1);
  src.fill(seed);
  int bytes = 0;
  ASSERT_EQ(m.size(isMax, w, mask, &bytes), kvlStatusOk);
  GuardedBlock buffer(bytes, 1, seed);
  const auto srcBefore = blockBytes(src);
  auto dstBefore = blockBytes(dst);
  ASSERT_EQ(m.run(isMax, src.roi, src.step, dst.roi, dst.step, {w, h}, mask, anchor, buffer.data()),
            kvlStatusOk);
  const auto want = model(src, mask, anchor, isMax);
  ASSERT_EQ(roiBytes(dst), want) << m.name << (isMax ? " max " : " min ") << w << "x" << h
                                 << " mask " << mask.width << "x" << mask.height << " anchor "
                                 << anchor.x << "," << anchor.y;
  ASSERT_EQ(blockBytes(src), srcBefore);
  for (int y = 0; y < h; ++y)  // the ROI may change; nothing else
    std::memcpy(&dstBefore[dst.at(0, y) - dst.block->data()], dst.at(0, y), w * dst.px);
  ASSERT_EQ(blockBytes(dst), dstBefore) << "write outside the ROI";
}

class MinMax : public ::testing::TestWithParam<int> {
 protected:
  const MinMaxMember& m() const { return kMembers[GetParam()]; }
};

// Masks up to 7x5 with every anchor, on small images of every width class.
TEST_P(MinMax, SmallMasksEveryAnchorEveryTarget) {
  kvl::test::forEachTarget([&](int) {
    uint32_t seed = 1;
    for (int mh = 1; mh <= 5; ++mh)
      for (int mw = 1; mw <= 7; ++mw)
        for (int ay = 0; ay < mh; ++ay)
          for (int ax = 0; ax < mw; ++ax) {
            const int w = 1 + static_cast<int>(seed * 37 % 70), h = 1 + static_cast<int>(seed % 5);
            expectModel(m(), w, h, {mw, mh}, {ax, ay}, (seed & 1) != 0, seed);
            ++seed;
          }
  });
}

// Every width 1..70 and height 1..5 with the masks that take each horizontal and vertical path
// (direct, doubled; ring, blocks), including 15x15 and masks far larger than the image.
TEST_P(MinMax, WidthsAndHeightsEveryTarget) {
  const KvliSize masks[] = {{3, 3}, {6, 2}, {15, 15}, {1, 9}, {9, 1}, {40, 12}};
  kvl::test::forEachTarget([&](int) {
    uint32_t seed = 7;
    for (int w = 1; w <= 70; ++w)
      for (int h = 1; h <= 5; ++h) {
        const KvliSize mk = masks[seed % 6];
        expectModel(m(), w, h, mk, {static_cast<int>(seed % mk.width), static_cast<int>(seed / 3 % mk.height)},
                    (seed & 2) != 0, seed);
        ++seed;
      }
    // Tall images for the block scheme's bank changes and partial last blocks.
    for (int h : {9, 23, 31, 32, 33})
      expectModel(m(), 37, h, {15, 15}, {static_cast<int>(h % 15), 7}, (h & 1) != 0, h);
    expectModel(m(), 40, 30, {3, 11}, {1, 10}, false, 3);
  });
}

// Each row mutates valid arguments; the first failing check decides and nothing is written.
TEST_P(MinMax, Validation) {
  struct Row {
    const char* what;
    bool nullSrc, nullDst, nullBuf;
    KvliSize roi, mask;
    KvliPoint anchor;
    int stepDelta;
    KvlStatus want;
  };
  // clang-format off
  const Row rows[] = {
      {"null source",      true,  false, false, {0, 4}, {3, 3}, {9, 9},  -1, kvlStatusNullPointer},
      {"null destination", false, true,  false, {8, 4}, {3, 3}, {1, 1},  0,  kvlStatusNullPointer},
      {"null buffer",      false, false, true,  {8, 4}, {3, 3}, {1, 1},  0,  kvlStatusNullPointer},
      {"zero width",       false, false, false, {0, 4}, {3, 3}, {9, 9},  -1, kvlStatusBadSize},
      {"zero height",      false, false, false, {8, 0}, {3, 3}, {1, 1},  0,  kvlStatusBadSize},
      {"zero mask width",  false, false, false, {8, 4}, {0, 3}, {9, 9},  -1, kvlStatusBadSize},
      {"negative mask",    false, false, false, {8, 4}, {3, -1}, {1, 1}, 0,  kvlStatusBadSize},
      {"short step",       false, false, false, {8, 4}, {3, 3}, {9, 9},  -1, kvlStatusBadStep},
      {"anchor x = width", false, false, false, {8, 4}, {3, 3}, {3, 0},  0,  kvlStatusBadAnchor},
      {"anchor y < 0",     false, false, false, {8, 4}, {3, 3}, {0, -1}, 0,  kvlStatusBadAnchor},
      {"anchor y = height",false, false, false, {8, 4}, {3, 2}, {0, 2},  0,  kvlStatusBadAnchor},
      {"valid",            false, false, false, {8, 4}, {3, 3}, {2, 2},  0,  kvlStatusOk},
  };
  // clang-format on
  for (const Row& r : rows) {
    Img src(m(), 8, 4, 3), dst(m(), 8, 4, 4);
    std::vector<uint8_t> buffer(4096);
    const auto before = blockBytes(dst);
    const int step = 8 * src.px + r.stepDelta;
    for (bool isMax : {false, true}) {
      EXPECT_EQ(m().run(isMax, r.nullSrc ? nullptr : src.roi, step, r.nullDst ? nullptr : dst.roi,
                        step, r.roi, r.mask, r.anchor, r.nullBuf ? nullptr : buffer.data()),
                r.want)
          << r.what;
      if (r.want != kvlStatusOk) {
        EXPECT_EQ(blockBytes(dst), before) << r.what;
      }
    }
  }
}

// The stated sizes, the same for minimum and maximum, and the refusals.
TEST_P(MinMax, BufferSizes) {
  const long long px = 1LL * m().elemBytes * m().channels;
  struct Case {
    int w;
    KvliSize mask;
  };
  for (const Case c : {Case{1, {1, 1}}, Case{1920, {3, 3}}, Case{3840, {15, 15}}, Case{5, {1, 40}}}) {
    const long long want = px * (2LL * c.mask.height * (c.w + 32) + 32LL * c.mask.height + 32);
    for (bool isMax : {false, true}) {
      int got = -1;
      ASSERT_EQ(m().size(isMax, c.w, c.mask, &got), kvlStatusOk);
      EXPECT_EQ(got, want) << c.w;
    }
  }
  int got = 7;
  EXPECT_EQ(m().size(false, 0, {3, 3}, nullptr), kvlStatusNullPointer);
  EXPECT_EQ(m().size(true, 0, {3, 3}, &got), kvlStatusBadSize);
  EXPECT_EQ(m().size(false, 9, {3, 0}, &got), kvlStatusBadSize);
  EXPECT_EQ(m().size(true, INT_MAX / 4, {3, 100}, &got), kvlStatusBadSize);  // above INT_MAX
  EXPECT_EQ(got, 7);
}

// Images too large to stay in the cache together take the cache-bypassing stores: every pass
// that writes the output, with rows at every alignment (odd width and step), against the model on
// the first, middle and last rows.
TEST(MinMaxStreamed, BeyondTheCache) {
  for (const MinMaxMember& member : kMembers) {
    if (member.channels != 1 || member.elemBytes == 2) continue;  // one 8-bit and one float member
    const long long cache = kvl::streamingThresholdBytes();
    const int w = 4099;
    const int h = static_cast<int>(cache / (2LL * w * member.elemBytes)) + 3;
    Img src(member, w, h, 5), dst(member, w, h, 6);
    src.fill(5);
    const std::pair<KvliSize, KvliPoint> cases[] = {
        {{3, 3}, {1, 1}}, {{5, 1}, {4, 0}}, {{1, 12}, {0, 3}}, {{9, 2}, {2, 1}}};
    kvl::test::forEachTarget([&](int target) {
      if (target == kvl::simd::kRef) return;  // the vector passes only
      for (const auto& [mask, anchor] : cases) {
        int bytes = 0;
        ASSERT_EQ(member.size(false, w, mask, &bytes), kvlStatusOk);
        std::vector<Kvl8u> buffer(bytes);
        ASSERT_EQ(member.run(false, src.roi, src.step, dst.roi, dst.step, {w, h}, mask, anchor,
                          buffer.data()),
                  kvlStatusOk);
        for (int y : {0, 1, 2, h / 2, h / 2 + 1, h - 2, h - 1})
          for (int x = 0; x < w; ++x)
            ASSERT_EQ(std::memcmp(dst.at(x, y), modelAt(src, mask, anchor, false, x, y, 0),
                                  member.elemBytes),
                      0)
                << "mask " << mask.width << "x" << mask.height << " at " << x << "," << y;
      }
    });
  }
}

INSTANTIATE_TEST_SUITE_P(Members, MinMax,
                         ::testing::Range(0, static_cast<int>(std::size(kMembers))));

// The 8u C1 size is the fixed formula exactly.
TEST(MinMaxSize, Formula8uC1) {
  int got = 0;
  ASSERT_EQ(kvliFilterMinGetBufferSize_8u_C1R(100, {5, 7}, &got), kvlStatusOk);
  EXPECT_EQ(got, 2 * 7 * (100 + 32) + 32 * 7 + 32);
}

// Floats: -0 counts below +0 whatever their positions; the plateau of equal values stays.
TEST(MinMaxFloat, SignedZerosByHand) {
  kvl::test::forEachTarget([&](int) {
    for (int w : {3, 41}) {  // odd: each column holds both zeros
      std::vector<float> src(w * 2), dst(w * 2);
      for (int i = 0; i < w * 2; ++i) src[i] = (i % 2) ? 0.0f : -0.0f;
      std::vector<Kvl8u> buf(100000);
      ASSERT_EQ(kvliFilterMinBorderReplicate_32f_C1R(src.data(), w * 4, dst.data(), w * 4, {w, 2},
                                                     {3, 1}, {1, 0}, buf.data()),
                kvlStatusOk);
      for (float v : dst) EXPECT_TRUE(v == 0.0f && std::signbit(v));
      ASSERT_EQ(kvliFilterMaxBorderReplicate_32f_C1R(src.data(), w * 4, dst.data(), w * 4, {w, 2},
                                                     {1, 2}, {0, 1}, buf.data()),
                kvlStatusOk);
      for (int i = 0; i < w * 2; ++i)  // row 0 reads itself only, row 1 both zeros
        EXPECT_EQ(std::signbit(dst[i]), i < w && i % 2 == 0) << i;
    }
  });
}

}  // namespace
