// The threading rules at their thresholds, the stripe split and the core services.
#include "core/parallel.h"

#include "support/support.h"

namespace {

using kvl::par::stripeOf;

TEST(Stripes, EachThreadTakesHeightOverTeamAndTheLastTheRest) {
  struct Case {
    int height, team;
    std::vector<int> rows;
  };
  // The last thread takes the rest; with fewer rows than threads it takes them all.
  const Case cases[] = {
      {1000, 3, {333, 333, 334}}, {1000, 1, {1000}}, {7, 2, {3, 4}}, {2, 3, {0, 0, 2}}};
  for (const Case& c : cases) {
    int y = 0;
    for (int t = 0; t < c.team; ++t) {
      const kvl::par::Stripe s = stripeOf(t, c.team, c.height);
      EXPECT_EQ(s.rows, c.rows[t]) << c.height << " rows, thread " << t << " of " << c.team;
      if (s.rows > 0) {
        EXPECT_EQ(s.y0, y);
      }
      y += s.rows;
    }
    EXPECT_EQ(y, c.height);
  }
  // Inner stripe edges read their neighbours' rows; the image edges keep the caller's rule.
  EXPECT_EQ(stripeOf(0, 3, 1000).inMemFlags(), kvlBorderInMemBottom);
  EXPECT_EQ(stripeOf(1, 3, 1000).inMemFlags(), kvlBorderInMemTop | kvlBorderInMemBottom);
  EXPECT_EQ(stripeOf(2, 3, 1000).inMemFlags(), kvlBorderInMemTop);
  EXPECT_EQ(stripeOf(2, 3, 2).inMemFlags(), 0);  // the one working thread has every row
}

TEST(Rules, AtTheirThresholds) {
  struct Case {
    KvliSize roi;
    int maxThreads, cores, runomp, threads, perPixel, borderFilter;
  };
  // clang-format off
  const Case cases[] = {
      {{511, 511},    4, 4, 4, 4,   1, 3},  // below 262144 pixels; 511 / 128 = 3
      {{512, 512},    4, 4, 4, 4,   4, 4},  // 262144 pixels; 512 / 128 = 4
      {{262144, 1},   2, 2, 2, 2,   2, 1},
      {{512, 512},    1, 2, 2, 1,   1, 1},  // one thread permitted
      {{300, 255},    2, 2, 2, 2,   1, 1},  // height < 256
      {{300, 256},    2, 2, 2, 2,   1, 2},  // 256 / 128 = 2
      {{255, 1000},   2, 2, 2, 2,   1, 1},  // width < 256
      {{256, 1000},   2, 1, 0, 2,   1, 1},  // one core: runomp() is 0
      {{256, 1000},   8, 8, 8, 8,   1, 7},  // 1000 / 128 = 7
      {{256, 300},   64, 64, 64, 64, 1, 1},  // height < 5 T
      {{256, 1000},   4, 2, 2, 4,   1, 2},  // the core count caps the team
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.roi.width << "x" << c.roi.height << " T=" << c.maxThreads);
    EXPECT_EQ(kvl::par::teamPerPixel(c.roi, c.threads), c.perPixel);
    EXPECT_EQ(kvl::par::teamBorderFilter(c.roi, c.maxThreads, c.cores, c.runomp, c.threads),
              c.borderFilter);
  }
}

// Rectangle standard deviation: min(maxThreads, pixels / 1024), serial at 1, capped at 32 and at
// the permitted threads; its stripes differ by at most one row.
TEST(Rules, RectStdDevTeamAndEvenStripes) {
  EXPECT_EQ(kvl::par::teamRectStdDev({2047, 1}, 8, 8), 1);
  EXPECT_EQ(kvl::par::teamRectStdDev({1024, 2}, 8, 8), 2);
  EXPECT_EQ(kvl::par::teamRectStdDev({1024, 100}, 64, 64), 32);
  EXPECT_EQ(kvl::par::teamRectStdDev({1024, 100}, 64, 3), 3);
  EXPECT_EQ(kvl::par::teamRectStdDev({1024, 100}, 1, 8), 1);
  const int rows[][4] = {{333, 333, 334, 0}, {2, 3, 2, 3}, {0, 1, 0, 1}};
  const int heights[] = {1000, 10, 2}, teams[] = {3, 4, 4};
  for (int c = 0; c < 3; ++c) {
    int y = 0;
    for (int t = 0; t < teams[c]; ++t) {
      const kvl::par::Stripe s = kvl::par::evenStripeOf(t, teams[c], heights[c]);
      EXPECT_EQ(s.y0, y);
      EXPECT_EQ(s.rows, rows[c][t]) << heights[c] << " rows, thread " << t;
      y += s.rows;
    }
    EXPECT_EQ(y, heights[c]);
  }
}

TEST(Services, AllocationAndThreadCount) {
  EXPECT_EQ(kvlMalloc(0), nullptr);
  void* p = kvlMalloc(100);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 64, 0u);
  kvlFree(p);
  EXPECT_EQ(kvlsMalloc_32f(0x40000000), nullptr);  // the byte count would not fit an int
  {
    kvl::test::ThreadScope scope(3);
    EXPECT_EQ(ownGetNumThreads(), 3);
    EXPECT_EQ(owncvGetMaxNumThreads(), 3);
    EXPECT_EQ(kvlSetNumThreads(0), kvlStatusBadArgument);
    EXPECT_EQ(ownGetNumThreads(), 3);  // unchanged
  }
  EXPECT_EQ(kvlGetNumThreads(nullptr), kvlStatusNullPointer);
}

}  // namespace
