// The threading rules at their thresholds and the stripe runner's split.
#include <atomic>
#include <mutex>

#include "core/parallel.h"
#include "support/support.h"

namespace {

using kvl::par::Stripe;

TEST(Stripes, LastThreadTakesTheRest) {
  struct Case {
    int height, team;
    std::vector<int> rows;
  };
  const Case cases[] = {
      {1000, 3, {333, 333, 334}},
      {1000, 1, {1000}},
      {7, 2, {3, 4}},
      {2, 3, {0, 0, 2}},  // fewer rows than threads: only the last thread works
  };
  for (const Case& c : cases) {
    int next = 0;
    for (int t = 0; t < c.team; ++t) {
      const Stripe s = kvl::par::stripeOf(t, c.team, c.height);
      EXPECT_EQ(s.rows, c.rows[t]) << c.height << " rows over " << c.team << ", thread " << t;
      if (s.rows > 0) { EXPECT_EQ(s.y0, next); }
      next += s.rows > 0 ? s.rows : 0;
    }
    EXPECT_EQ(next, c.height);
  }
}

TEST(Stripes, InnerEdgesAreMarkedInMemory) {
  EXPECT_EQ(kvl::par::stripeOf(0, 3, 1000).inMemFlags(), kvlBorderInMemBottom);
  EXPECT_EQ(kvl::par::stripeOf(1, 3, 1000).inMemFlags(), kvlBorderInMemTop | kvlBorderInMemBottom);
  EXPECT_EQ(kvl::par::stripeOf(2, 3, 1000).inMemFlags(), kvlBorderInMemTop);
  EXPECT_EQ(kvl::par::stripeOf(0, 1, 1000).inMemFlags(), 0);
  EXPECT_EQ(kvl::par::stripeOf(2, 3, 2).inMemFlags(), 0);  // the one working thread has it all
  EXPECT_EQ(kvl::par::stripeOf(2, 3, 1000).bufferOffset(3001), 2000);
}

TEST(Rules, PerPixelSplitsFrom262144Pixels) {
  EXPECT_EQ(kvl::par::teamPerPixel({511, 511}, 4), 1);
  EXPECT_EQ(kvl::par::teamPerPixel({512, 512}, 4), 4);
  EXPECT_EQ(kvl::par::teamPerPixel({262144, 1}, 2), 2);
  EXPECT_EQ(kvl::par::teamPerPixel({512, 512}, 1), 1);
}

TEST(Rules, BorderFilters) {
  struct Case {
    KvliSize roi;
    int maxThreads, cores, runomp, threads, team;
  };
  const Case cases[] = {
      {{300, 255}, 2, 2, 2, 2, 1},    // height < 256
      {{300, 256}, 2, 2, 2, 2, 2},    // 256 / 128 = 2
      {{255, 1000}, 2, 2, 2, 2, 1},   // width < 256
      {{256, 1000}, 1, 2, 2, 1, 1},   // one thread permitted
      {{256, 1000}, 2, 1, 0, 2, 1},   // one core: runomp() is 0
      {{256, 1000}, 8, 8, 8, 8, 7},   // 1000 / 128 = 7
      {{256, 300}, 64, 64, 64, 64, 1},  // height < 5 T
      {{256, 1000}, 4, 2, 2, 4, 2},   // the core count caps the team
  };
  for (const Case& c : cases)
    EXPECT_EQ(kvl::par::teamBorderFilter(c.roi, c.maxThreads, c.cores, c.runomp, c.threads), c.team)
        << c.roi.width << "x" << c.roi.height << " T=" << c.maxThreads;
}

TEST(Runner, EveryRowOnceAndTheTeamOfOneTakesAll) {
  for (int team : {1, 2, 3, 5}) {
    std::vector<std::atomic<int>> seen(1000);
    std::mutex m;
    std::vector<Stripe> stripes;
    kvl::par::runStripes(team, 1000, [&](const Stripe& s) {
      for (int y = s.y0; y < s.y0 + s.rows; ++y) seen[y]++;
      std::lock_guard<std::mutex> lock(m);
      stripes.push_back(s);
    });
    for (auto& v : seen) ASSERT_EQ(v.load(), 1);
    for (const Stripe& s : stripes) EXPECT_EQ(s.rows, 1000 / s.team + (s.index == s.team - 1 ? 1000 % s.team : 0));
  }
}

TEST(Services, AllocationAndThreadCount) {
  EXPECT_EQ(kvlMalloc(0), nullptr);
  EXPECT_EQ(kvlMalloc(-4), nullptr);
  void* p = kvlMalloc(100);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 64, 0u);
  kvlFree(p);
  EXPECT_EQ(kvlsMalloc_32f(0x40000000), nullptr);  // the byte count would not fit an int
  EXPECT_EQ(kvlsMalloc_64f(-1), nullptr);
  Kvl64f* d = kvlsMalloc_64f(3);
  ASSERT_NE(d, nullptr);
  kvlsFree(d);

  {
    kvl::test::ThreadScope scope(3);
    EXPECT_EQ(ownGetNumThreads(), 3);
    EXPECT_EQ(owncvGetMaxNumThreads(), 3);
  }
  EXPECT_EQ(kvlSetNumThreads(0), kvlStatusBadArgument);
  EXPECT_EQ(kvlGetNumThreads(nullptr), kvlStatusNullPointer);
  EXPECT_EQ(runsepomp(7), 1);
  EXPECT_EQ(runsepomp(3), runomp());
  EXPECT_EQ(runomp(), kvlGetNumCoresOnDie() == 1 ? 0 : kvlGetNumCoresOnDie());
  EXPECT_GT(owncvGetCacheSize(), 0);
}

}  // namespace
