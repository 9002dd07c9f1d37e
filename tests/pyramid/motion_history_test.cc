// Motion history update over the member table: every target against the scalar reference, the
// validation order, and the strict clearing rule with NaN and infinities by hand.
#include "pyramid/motion_history.h"

#include <array>
#include <cmath>
#include <cstring>
#include <limits>

#include "support/support.h"

namespace {

using kvl::test::Image;

constexpr float kInf = std::numeric_limits<float>::infinity();

// Silhouettes of mostly zeros with holes (float ones also hold -0, which is unset, and NaN, -inf
// and a denormal, which are set) over a history around the limit 10 - 4 = 6: equal, one ulp
// either side, NaN, infinities.
template <class Sil>
void checkMember(KvlStatus (*fn)(const Sil*, int, Kvl32f*, int, KvliSize, Kvl32f, Kvl32f)) {
  const float below = std::nextafter(6.0f, 0.0f), above = std::nextafter(6.0f, 7.0f);
  const float history[] = {6.0f, below, above, std::nanf("0x55"), -kInf, kInf, 0, 10, -3, 9.5f};
  kvl::test::forEachTarget([&](int) {
    for (int w = 1; w <= 70; ++w) {
      const int h = 1 + w % 4;
      Image<Sil> sil(w, h, 0, w);
      Image<Kvl32f> mhi(w, h, 1, w + 1);
      std::mt19937 rng(w);
      sil.fill([&](int, int, int) -> Sil {
        const unsigned r = rng() % 8;
        if constexpr (std::is_floating_point_v<Sil>) {
          return std::array<Sil, 8>{0.0f, -0.0f, std::nanf(""), -kInf, 1e-45f, 0.0f, 2.5f, 0.0f}[r];
        } else {
          return r < 4 ? Sil(0) : static_cast<Sil>(1 + rng() % std::numeric_limits<Sil>::max());
        }
      });
      mhi.fill([&](int, int, int) { return history[rng() % 10]; });
      std::vector<Kvl32f> want = mhi.pixels();
      for (int y = 0; y < h; ++y)
        kvl::pyramid::ref::mhiRow<Sil>(sil.at(0, y), &want[y * w], w, 10.0f, 6.0f);
      ASSERT_EQ(fn(sil.roi(), sil.step(), mhi.roi(), mhi.step(), {w, h}, 10.0f, 4.0f), kvlStatusOk);
      ASSERT_TRUE(kvl::test::sameBytes(mhi.pixels(), want, w)) << "w " << w;
      ASSERT_TRUE(mhi.outsideUnchanged() && sil.unchanged());
    }
  });

  // Each row mutates valid arguments; the first failing check decides, nothing is written.
  struct Row {
    const char* what;
    bool nullSil, nullMhi;
    KvliSize roi;
    int silDelta, mhiDelta;
    float duration;
    KvlStatus want;
  };
  const KvlStatus oddSilStep = sizeof(Sil) > 1 ? kvlStatusStepNotMultiple : kvlStatusOutOfRange;
  // clang-format off
  const Row rows[] = {
      {"null silhouette",       true,  false, {0, 2}, 0,  0,  -1.0f,   kvlStatusNullPointer},
      {"null history",          false, true,  {9, 2}, 0,  0,  1.0f,    kvlStatusNullPointer},
      {"zero height",           false, false, {9, 0}, -1, 0,  -1.0f,   kvlStatusBadSize},
      {"silhouette step short", false, false, {9, 2}, -1, 2,  -1.0f,   kvlStatusBadStep},
      {"history step 4w-2",     false, false, {9, 2}, 0,  -2, 1.0f,    kvlStatusBadStep},
      {"history step 4w+2",     false, false, {9, 2}, 0,  2,  -1.0f,   kvlStatusStepNotMultiple},
      {"odd silhouette step",   false, false, {9, 2}, 1,  0,  -1.0f,   oddSilStep},
      {"negative duration",     false, false, {9, 2}, 0,  0,  -1e-30f, kvlStatusOutOfRange},
  };
  // clang-format on
  for (const Row& r : rows) {
    Image<Sil> sil(9, 2, 1, 1);
    Image<Kvl32f> mhi(9, 2, 1, 2);
    EXPECT_EQ(fn(r.nullSil ? nullptr : sil.roi(), 9 * sizeof(Sil) + r.silDelta,
                 r.nullMhi ? nullptr : mhi.roi(), 36 + r.mhiDelta, r.roi, 5.0f, r.duration),
              r.want)
        << r.what;
    EXPECT_TRUE(mhi.unchanged()) << r.what;
  }
}

TEST(MotionHistory, EveryMember) {
#define KVL_CHECK(suffix, Sil) checkMember<Sil>(&kvliUpdateMotionHistory_##suffix##_C1IR);
  KVL_MHI_MEMBERS(KVL_CHECK)
#undef KVL_CHECK
}

// The silhouette wins; otherwise the limit itself and NaN stay and older values clear.
TEST(MotionHistory, StrictLimitAndZeroDuration) {
  const float nan = std::nanf("0x77");
  // {silhouette, history before, duration, history after} at timestamp 8.
  const std::array<float, 4> cases[] = {
      {1, nan, 2, 8}, {255, 100, 2, 8}, {0, 6, 2, 6},    {0, 5.999f, 2, 0}, {0, 7.9f, 0, 0},
      {0, 8, 0, 8},   {0, -kInf, 0, 0}, {0, 1, kInf, 1}, {0, nan, 2, nan},
  };
  for (const auto& [s, before, duration, after] : cases) {
    std::vector<Kvl8u> sil(37, static_cast<Kvl8u>(s));  // the vector body and the scalar tail
    std::vector<Kvl32f> mhi(37, before);
    ASSERT_EQ(kvliUpdateMotionHistory_8u32f_C1IR(sil.data(), 37, mhi.data(), 148, {37, 1}, 8.0f,
                                                 duration),
              kvlStatusOk);
    for (float v : mhi) EXPECT_EQ(std::memcmp(&v, &after, 4), 0) << before << " -> " << v;
  }
}

}  // namespace
