// The pyramid record: its block layout and contents, level counts, allocation failures, the
// level-size rules on sizes where the search moves, and the validation order.
#include <dlfcn.h>

#include <climits>
#include <cmath>
#include <utility>
#include <vector>

#include "support/support.h"

// The test binary's kvlMalloc stands in front of the core library's: it records the lengths asked
// for and fails the allocation numbered gFailAt (counted from the last reset).
namespace {
int gFailAt = -1;
std::vector<int> gLengths;
}  // namespace
extern "C" void* kvlMalloc(int length) {
  using Fn = void* (*)(int);
  static const Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "kvlMalloc"));
  gLengths.push_back(length);
  return static_cast<int>(gLengths.size()) - 1 == gFailAt ? nullptr : real(length);
}

namespace {

void resetAllocations(int failAt = -1) {
  gLengths.clear();
  gFailAt = failAt;
}
std::pair<int, int> wh(KvliSize s) { return {s.width, s.height}; }

TEST(PyramidRecord, LayoutAndContents) {
  struct Case {
    KvliSize roi;
    float rate;
    int level, wantLevel;
  };
  const Case cases[] = {
      {{1, 1}, 2.0f, 5, 0},        {{2, 1}, 2.0f, 5, 1},  {{640, 480}, 2.0f, 3, 3},
      {{640, 480}, 2.0f, 100, 10}, {{5, 2}, 1.5f, 10, 4}, {{7, 1000}, 1.37f, 50, 23},
      {{3, 3}, 10.0f, 4, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.roi.width << "x" << c.roi.height << " rate " << c.rate);
    resetAllocations();
    KvliPyramid* p = nullptr;
    ASSERT_EQ(kvliPyramidInitAlloc(&p, c.level, c.roi, c.rate), kvlStatusOk);
    ASSERT_EQ(p->level, c.wantLevel);
    // The temporary sizes, then the block of 52 level + 152 bytes.
    EXPECT_EQ(gLengths, (std::vector<int>{8 * std::max(c.roi.width, c.roi.height), 52 * p->level + 152}));
    // The 48-byte header, then the arrays of 8-byte entries: pRoi, pImage, pRate, pStep.
    const auto* block = reinterpret_cast<const char*>(p);
    const long long n = p->level + 1;
    EXPECT_EQ(reinterpret_cast<const char*>(p->pRoi), block + 48);
    EXPECT_EQ(reinterpret_cast<const char*>(p->pImage), block + 48 + 8 * n);
    EXPECT_EQ(reinterpret_cast<const char*>(p->pRate), block + 48 + 16 * n);
    EXPECT_EQ(reinterpret_cast<const char*>(p->pStep), block + 48 + 24 * n);
    EXPECT_EQ(p->pState, nullptr);
    KvliSize size = c.roi;
    double rate = 1.0;
    for (int k = 0; k <= p->level; ++k) {
      if (k > 0) {
        ASSERT_EQ(kvliGetPyramidDownROI(p->pRoi[k - 1], &size, c.rate), kvlStatusOk);
        rate *= 1.0 / static_cast<double>(c.rate);
      }
      EXPECT_EQ(wh(p->pRoi[k]), wh(size)) << k;
      EXPECT_EQ(p->pRate[k], rate) << k;
      EXPECT_TRUE(p->pImage[k] == nullptr && p->pStep[k] == 0) << k;
    }
    // Asked for more than the image allows: the last level has both sides below 2.
    const KvliSize top = p->pRoi[p->level];
    EXPECT_EQ(top.width < 2 && top.height < 2, c.level > c.wantLevel);
    EXPECT_EQ(kvliPyramidFree(p), kvlStatusOk);
  }
}

// Either allocation failing gives kvlStatusNoMemory, keeps nothing (the sanitizer build checks
// for leaks) and leaves *ppPyr alone.
TEST(PyramidRecord, AllocationFailures) {
  for (int failAt : {0, 1}) {
    resetAllocations(failAt);
    KvliPyramid* p = reinterpret_cast<KvliPyramid*>(&failAt);
    EXPECT_EQ(kvliPyramidInitAlloc(&p, 3, {64, 48}, 2.0f), kvlStatusNoMemory) << failAt;
    EXPECT_EQ(p, reinterpret_cast<KvliPyramid*>(&failAt));
    EXPECT_EQ(static_cast<int>(gLengths.size()), failAt + 1);
  }
  resetAllocations();
}

TEST(PyramidRecord, LevelSizes) {
  struct Case {
    KvliSize src;
    float rate;
    KvliSize down, upMin, upMax;
  };
  // The rows after the first three are sizes where the search leaves its starting candidate
  // (found by search): width 5 at rate 1.5 starts at 3 and moves up to 4, side 2 at 1.1 starts at
  // 2 and moves down to 1, side 4 at rate 3 moves from 1 to 2; the other side stays put.
  // clang-format off
  const Case cases[] = {
      {{640, 480}, 2.0f,  {320, 240}, {1279, 959},  {1280, 960}},
      {{320, 240}, 2.0f,  {160, 120}, {639, 479},   {640, 480}},
      {{1, 1},     2.0f,  {1, 1},     {1, 1},       {2, 2}},
      {{5, 2},     1.5f,  {4, 1},     {7, 3},       {7, 3}},
      {{2, 5},     1.5f,  {1, 4},     {3, 7},       {3, 7}},
      {{2, 9},     1.1f,  {1, 8},     {3, 10},      {3, 10}},
      {{4, 13},    3.0f,  {2, 5},     {10, 37},     {12, 39}},
      {{11, 1},    10.0f, {2, 1},     {101, 1},     {110, 10}},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.src.width << "x" << c.src.height << " rate " << c.rate);
    KvliSize d{-1, -1}, lo{-1, -1}, hi{-1, -1};
    ASSERT_EQ(kvliGetPyramidDownROI(c.src, &d, c.rate), kvlStatusOk);
    ASSERT_EQ(kvliGetPyramidUpROI(c.src, &lo, &hi, c.rate), kvlStatusOk);
    EXPECT_EQ(wh(d), wh(c.down));
    EXPECT_EQ(wh(lo), wh(c.upMin));
    EXPECT_EQ(wh(hi), wh(c.upMax));
    // The down size is one whose up-range holds the source.
    ASSERT_EQ(kvliGetPyramidUpROI(d, &lo, &hi, c.rate), kvlStatusOk);
    EXPECT_TRUE(lo.width <= c.src.width && c.src.width <= hi.width);
    EXPECT_TRUE(lo.height <= c.src.height && c.src.height <= hi.height);
  }
  // The largest sides saturate instead of overflowing.
  KvliSize lo, hi;
  ASSERT_EQ(kvliGetPyramidUpROI({INT_MAX, 3}, &lo, &hi, 10.0f), kvlStatusOk);
  EXPECT_TRUE(lo.width == INT_MAX && hi.width == INT_MAX);
}

TEST(PyramidRecord, ValidationOrder) {
  const float nan = std::nanf("");
  KvliSize a{7, 7}, b{7, 7};
  KvliPyramid* p = nullptr;
  struct Row {
    const char* what;
    KvlStatus got, want;
  };
  const Row rows[] = {
      {"down: null", kvliGetPyramidDownROI({0, 1}, nullptr, 0.5f), kvlStatusNullPointer},
      {"down: size", kvliGetPyramidDownROI({1, 0}, &a, 0.5f), kvlStatusBadSize},
      {"down: rate 1", kvliGetPyramidDownROI({1, 1}, &a, 1.0f), kvlStatusBadArgument},
      {"down: rate above 10", kvliGetPyramidDownROI({1, 1}, &a, 10.000001f), kvlStatusBadArgument},
      {"down: NaN rate", kvliGetPyramidDownROI({1, 1}, &a, nan), kvlStatusBadArgument},
      {"up: null min", kvliGetPyramidUpROI({0, 1}, nullptr, &b, 0.5f), kvlStatusNullPointer},
      {"up: null max", kvliGetPyramidUpROI({0, 1}, &a, nullptr, 0.5f), kvlStatusNullPointer},
      {"up: size", kvliGetPyramidUpROI({-3, 1}, &a, &b, 0.5f), kvlStatusBadSize},
      {"up: rate", kvliGetPyramidUpROI({1, 1}, &a, &b, -2.0f), kvlStatusBadArgument},
      {"init: null", kvliPyramidInitAlloc(nullptr, 0, {0, 0}, 0.5f), kvlStatusNullPointer},
      {"init: size", kvliPyramidInitAlloc(&p, 0, {4, 0}, 0.5f), kvlStatusBadSize},
      {"init: rate", kvliPyramidInitAlloc(&p, 1, {4, 4}, 1.0f), kvlStatusBadArgument},
      {"init: level 0", kvliPyramidInitAlloc(&p, 0, {4, 4}, 2.0f), kvlStatusBadArgument},
      {"free: null", kvliPyramidFree(nullptr), kvlStatusNullPointer},
  };
  for (const Row& r : rows) EXPECT_EQ(r.got, r.want) << r.what;
  EXPECT_TRUE(a.width == 7 && a.height == 7 && b.width == 7 && p == nullptr);
  // Rate 10 itself is accepted.
  ASSERT_EQ(kvliPyramidInitAlloc(&p, 1, {4, 4}, 10.0f), kvlStatusOk);
  EXPECT_EQ(p->level, 1);
  EXPECT_EQ(kvliPyramidFree(p), kvlStatusOk);
}

}  // namespace
