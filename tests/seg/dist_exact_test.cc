// Exact Euclidean transform and fast marching over their member tables: the exact transform
// against a brute-force nearest-feature search, fast marching against a plain serial sweep model,
// buffer sizes, validation order with nothing written, and thread invariance.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "core/parallel.h"
#include "seg/dist_exact_members.h"
#include "seg/fast_marching_members.h"
#include "support/support.h"

namespace {

using kvl::seg::DistanceFieldMember;
using kvl::test::Image;

const DistanceFieldMember kExact[] = {KVL_DIST_EXACT_MEMBERS(KVL_DIST_EXACT_RECORD)};
const DistanceFieldMember kMarch[] = {KVL_FAST_MARCHING_MEMBERS(KVL_FAST_MARCHING_RECORD)};

constexpr float kFar = 3.4028235e38f;

// Features (zeros) at about one pixel in `oneIn` (none for 0), the rest random non-zero bytes.
void scatter(Image<Kvl8u>& src, uint32_t seed, int oneIn) {
  std::mt19937 rng(seed);
  src.fill([&](int, int, int) -> Kvl8u {
    return oneIn > 0 && rng() % oneIn == 0 ? 0 : static_cast<Kvl8u>(1 + rng() % 255);
  });
}

std::vector<Kvl32f> runMember(const DistanceFieldMember& m, const Image<Kvl8u>& src,
                              Image<Kvl32f>& dst, float radius = INFINITY) {
  const KvliSize roi{src.width(), src.height()};
  int bytes = 0;
  EXPECT_EQ(m.getBufferSize(roi, &bytes), kvlStatusOk);
  std::vector<Kvl8u> buffer(bytes + 1);
  // An odd address: the family aligns inside the buffer itself.
  EXPECT_EQ(m.run(src.roi(), src.step(), dst.roi(), dst.step(), roi, radius, buffer.data() + 1),
            kvlStatusOk);
  EXPECT_TRUE(dst.outsideUnchanged() && src.unchanged()) << m.name;
  return dst.pixels();
}

// sqrt of the smallest integer squared distance to a feature, sqrt(3.4028235e38) without one.
std::vector<Kvl32f> bruteForce(const Image<Kvl8u>& src) {
  const int w = src.width(), h = src.height();
  std::vector<std::pair<int, int>> features;
  for (int v = 0; v < h; ++v)
    for (int u = 0; u < w; ++u)
      if (src.px(u, v) == 0) features.emplace_back(u, v);
  std::vector<Kvl32f> out;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      long long best = -1;
      for (const auto& [u, v] : features) {
        const long long d = 1LL * (u - x) * (u - x) + 1LL * (v - y) * (v - y);
        if (best < 0 || d < best) best = d;
      }
      out.push_back(best < 0 ? std::sqrt(kFar) : std::sqrt(static_cast<float>(best)));
    }
  return out;
}

TEST(TrueDistanceTransform, MatchesBruteForceOnEveryTarget) {
  for (const DistanceFieldMember& m : kExact) {
    kvl::test::forEachTarget([&](int target) {
      for (int w = 1; w <= 70; w += (w < 12 ? 1 : 9)) {
        for (int h : {1, 2, 3, 7, 33}) {
          for (int density : {3, 40, 0}) {  // dense, sparse, no feature at all
            Image<Kvl8u> src(w, h, 1, w * 31 + h);
            scatter(src, w * 977 + h * 13 + density, density);
            Image<Kvl32f> dst(w, h, 1, w + h);
            ASSERT_TRUE(kvl::test::sameBytes(runMember(m, src, dst), bruteForce(src), w))
                << m.name << " " << kvl::test::targetName(target) << " " << w << "x" << h
                << " density " << density;
          }
        }
      }
    });
  }
}

// A column with no feature next to one with a feature far down: the far values meet the
// envelope's arithmetic, and the result is still the exact distance.
TEST(TrueDistanceTransform, OneFeatureAndLongRows) {
  Image<Kvl8u> src(300, 2, 0, 5);
  src.fill([](int x, int y, int) -> Kvl8u { return x == 299 && y == 1 ? 0 : 9; });
  Image<Kvl32f> dst(300, 2, 0, 6);
  const std::vector<Kvl32f> got = runMember(kExact[0], src, dst);
  EXPECT_TRUE(kvl::test::sameBytes(got, bruteForce(src), 300));
  EXPECT_EQ(got[0], std::sqrt(299.0f * 299.0f + 1.0f));
}

TEST(TrueDistanceTransform, OnePixel) {
  for (Kvl8u v : {0, 1, 255}) {
    Image<Kvl8u> src(1, 1, 2, v + 1);
    src.fill([&](int, int, int) { return v; });
    Image<Kvl32f> dst(1, 1, 2, 3);
    EXPECT_EQ(runMember(kExact[0], src, dst)[0], v == 0 ? 0.0f : std::sqrt(kFar));
  }
}

// Fast marching's model: plain serial sweeps in the documented order, every pixel evaluated,
// until a sweep changes nothing; then the bound.
std::vector<Kvl32f> marchModel(const Image<Kvl8u>& src, float radius) {
  const int w = src.width(), h = src.height();
  std::vector<float> t(static_cast<size_t>(w) * h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) t[y * w + x] = src.px(x, y) == 0 ? 0.0f : 999999.0f;
  auto at = [&](int x, int y) {
    return x < 0 || y < 0 || x >= w || y >= h ? 999999.0f : t[y * w + x];
  };
  for (int k = 1;; ++k) {
    const bool down = k % 4 == 1 || k % 4 == 2, right = k % 4 == 1 || k % 4 == 0;
    int changes = 0;
    for (int i = 0; i < h; ++i)
      for (int j = 0; j < w; ++j) {
        const int y = down ? i : h - 1 - i, x = right ? j : w - 1 - j;
        const float t1 = std::min(at(x - 1, y), at(x + 1, y));
        const float t2 = std::min(at(x, y - 1), at(x, y + 1));
        const float c = std::fabs(t1 - t2) >= 1.0f
                            ? 1.0f + std::min(t1, t2)
                            : 0.5f * (t1 + t2 + std::sqrt(2.0f - (t1 - t2) * (t1 - t2)));
        if (c < t[y * w + x]) {
          t[y * w + x] = c;
          ++changes;
        }
      }
    if (changes == 0) break;
  }
  const float bound = radius + 0.00001f;
  for (float& v : t) v = v > bound ? bound : v;
  return t;
}

TEST(FastMarching, MatchesSerialSweepModel) {
  for (const DistanceFieldMember& m : kMarch) {
    for (int w : {1, 2, 5, 31, 129, 140}) {
      for (int h : {1, 2, 9, 40}) {
        for (int density : {4, 60, 0}) {
          Image<Kvl8u> src(w, h, 1, w * 7 + h);
          scatter(src, w * 131 + h * 17 + density, density);
          for (float radius : {INFINITY, 3.5f, 0.0f}) {
            Image<Kvl32f> dst(w, h, 1, w + 2 * h);
            ASSERT_TRUE(
                kvl::test::sameBytes(runMember(m, src, dst, radius), marchModel(src, radius), w))
                << m.name << " " << w << "x" << h << " density " << density << " radius " << radius;
          }
        }
      }
    }
  }
}

// Along the axes through a lone feature the times are whole steps; a seed pattern symmetric about
// both centre lines gives times symmetric about them.
TEST(FastMarching, AxesAndSymmetry) {
  const int w = 41, h = 31;
  Image<Kvl8u> src(w, h, 0, 8);
  src.fill([](int x, int y, int) -> Kvl8u { return x == 20 && y == 15 ? 0 : 1; });
  Image<Kvl32f> dst(w, h, 0, 9);
  const std::vector<Kvl32f> t = runMember(kMarch[0], src, dst);
  for (int k = 0; k <= 15; ++k) {
    EXPECT_EQ(t[15 * w + 20 + k], static_cast<float>(k));
    EXPECT_EQ(t[(15 - k) * w + 20], static_cast<float>(k));
  }
  EXPECT_GT(t[0], std::hypot(20.0f, 15.0f));  // the upwind scheme overestimates diagonals
  EXPECT_LT(t[0], 20.0f + 15.0f);

  src.fill([](int x, int y, int) -> Kvl8u {
    const int dx = std::abs(x - 20), dy = std::abs(y - 15);
    return (dx == 9 && dy == 4) || (dx == 3 && dy == 11) ? 0 : 7;
  });
  const std::vector<Kvl32f> s = runMember(kMarch[0], src, dst);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const float v = s[y * w + x];
      EXPECT_NEAR(v, s[y * w + (w - 1 - x)], 1e-5f * v) << x << "," << y;
      EXPECT_NEAR(v, s[(h - 1 - y) * w + x], 1e-5f * v) << x << "," << y;
    }
}

// Times beyond radius + 0.00001 become that bound; an image without a feature is all bound (or
// 999999 when the bound is larger).
TEST(FastMarching, RadiusBound) {
  Image<Kvl8u> src(6, 1, 0, 2);
  src.fill([](int x, int, int) -> Kvl8u { return x == 0 ? 0 : 5; });
  for (float radius : {0.0f, -0.0f, 2.0f, 2.5f, 1e9f, INFINITY, NAN}) {
    Image<Kvl32f> dst(6, 1, 0, 3);
    const std::vector<Kvl32f> t = runMember(kMarch[0], src, dst, radius);
    const float bound = radius + 0.00001f;
    for (int x = 0; x < 6; ++x)
      EXPECT_EQ(t[x], static_cast<float>(x) > bound ? bound : static_cast<float>(x)) << radius;
  }
  src.fill([](int, int, int) -> Kvl8u { return 1; });
  for (float radius : {4.0f, 2e6f}) {
    Image<Kvl32f> dst(6, 1, 0, 3);
    for (float v : runMember(kMarch[0], src, dst, radius))
      EXPECT_EQ(v, std::min(999999.0f, radius + 0.00001f));
  }
}

TEST(DistanceFields, BufferSizes) {
  struct Case {
    KvliSize roi;
    int threads, exact, march;
  };
  // exact: (24 * max(align4 w, align4 h) + 56) * T; march: (h + 34) * (align32 w + 5) + 40.
  const Case cases[] = {
      {{1, 1}, 1, 152, 35 * 37 + 40},
      {{5, 2}, 1, 24 * 8 + 56, 36 * 37 + 40},
      {{33, 100}, 2, (24 * 100 + 56) * 2, 134 * 69 + 40},
      {{1920, 1080}, 3, (24 * 1920 + 56) * 3, 1114 * 1925 + 40},
  };
  for (const Case& c : cases) {
    kvl::test::ThreadScope threads(c.threads);
    int exact = -1, march = -1;
    ASSERT_EQ(kExact[0].getBufferSize(c.roi, &exact), kvlStatusOk);
    ASSERT_EQ(kMarch[0].getBufferSize(c.roi, &march), kvlStatusOk);
    EXPECT_EQ(exact, c.exact);
    EXPECT_EQ(march, c.march);
  }
  int bytes = 7;
  for (const DistanceFieldMember* m : {&kExact[0], &kMarch[0]}) {
    EXPECT_EQ(m->getBufferSize({0, 5}, nullptr), kvlStatusNullPointer);
    EXPECT_EQ(m->getBufferSize({5, 0}, &bytes), kvlStatusBadSize);
    EXPECT_EQ(m->getBufferSize({1 << 27, 1}, &bytes), kvlStatusBadSize);
    EXPECT_EQ(bytes, 7);
  }
}

TEST(DistanceFields, ValidationOrderWritesNothing) {
  // Each row mutates valid arguments; the first failing check decides. The exact transform has
  // no radius, so the last row succeeds there.
  struct Row {
    const char* what;
    bool nullSrc, nullDst, nullBuf;
    KvliSize roi;
    int srcDelta, dstDelta;
    float radius;
    KvlStatus want;
  };
  // clang-format off
  const Row rows[] = {
      {"null source",      true,  false, false, {0, 3},  0,  0,  -1,      kvlStatusNullPointer},
      {"null destination", false, true,  false, {8, 3},  -1, 0,  -1,      kvlStatusNullPointer},
      {"null buffer",      false, false, true,  {8, 3},  0,  0,  1,       kvlStatusNullPointer},
      {"zero width",       false, false, false, {0, 3},  -9, 1,  -1,      kvlStatusBadSize},
      {"negative height",  false, false, false, {8, -1}, 0,  0,  1,       kvlStatusBadSize},
      {"source step",      false, false, false, {8, 3},  -1, 2,  -1,      kvlStatusBadStep},
      {"destination step", false, false, false, {8, 3},  0,  -4, -1,      kvlStatusBadStep},
      {"step multiple",    false, false, false, {8, 3},  0,  2,  -1,      kvlStatusStepNotMultiple},
      {"negative radius",  false, false, false, {8, 3},  0,  0,  -1e-30f, kvlStatusBadArgument},
  };
  // clang-format on
  for (const DistanceFieldMember* m : {&kExact[0], &kMarch[0]}) {
    const bool exact = m == &kExact[0];
    for (const Row& r : rows) {
      Image<Kvl8u> src(8, 3, 1, 4);
      Image<Kvl32f> dst(8, 3, 2, 5);
      std::vector<Kvl8u> buffer(4096, 0xab);
      const KvlStatus got =
          m->run(r.nullSrc ? nullptr : src.roi(), 8 + r.srcDelta, r.nullDst ? nullptr : dst.roi(),
                 32 + r.dstDelta, r.roi, r.radius, r.nullBuf ? nullptr : buffer.data());
      const KvlStatus want = exact && r.want == kvlStatusBadArgument ? kvlStatusOk : r.want;
      EXPECT_EQ(got, want) << m->name << ": " << r.what;
      if (got != kvlStatusOk) {
        EXPECT_TRUE(dst.unchanged()) << m->name << ": " << r.what;
        EXPECT_TRUE(std::all_of(buffer.begin(), buffer.end(), [](Kvl8u b) { return b == 0xab; }));
      }
    }
  }
}

// 1, 2 and 3 threads give the same bytes on an image the rule splits.
TEST(DistanceFields, ThreadInvariance) {
  const KvliSize roi{300, 260};
  {
    kvl::test::ThreadScope two(2);
    ASSERT_GT(kvl::par::teamDistance(roi), 1) << "the image must be split for this test to count";
  }
  for (const DistanceFieldMember* m : {&kExact[0], &kMarch[0]}) {
    for (int density : {50, 5000}) {
      Image<Kvl8u> src(roi.width, roi.height, 0, density);
      scatter(src, density, density);
      std::vector<std::vector<Kvl32f>> results;
      for (int threads : {1, 2, 3}) {
        kvl::test::ThreadScope scope(threads);
        Image<Kvl32f> dst(roi.width, roi.height, 1, threads);
        results.push_back(runMember(*m, src, dst, 30.0f));
      }
      if (m == &kExact[0]) {
        EXPECT_TRUE(kvl::test::sameBytes(results[0], bruteForce(src), roi.width));
      }
      EXPECT_TRUE(kvl::test::sameBytes(results[1], results[0], roi.width)) << m->name;
      EXPECT_TRUE(kvl::test::sameBytes(results[2], results[0], roi.width)) << m->name;
    }
  }
}

}  // namespace
