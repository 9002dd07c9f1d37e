// Motion history update: every member against the scalar reference on every target, the strict
// clearing rule, NaN and infinities, and the validation order.
#include "pyramid/motion_history.h"

#include <cmath>
#include <limits>

#include "support/support.h"

namespace {

using kvl::test::Image;
using kvl::test::sameBytes;

constexpr float kInf = std::numeric_limits<float>::infinity();

template <class Sil>
using MhiCall = KvlStatus (*)(const Sil*, int, Kvl32f*, int, KvliSize, Kvl32f, Kvl32f);

// Silhouettes of mostly zeros with holes; float silhouettes also hold -0 (unset), NaN and
// infinities (set).
template <class Sil>
void fillSilhouette(Image<Sil>& s, uint32_t seed) {
  std::mt19937 rng(seed);
  s.fill([&](int, int, int) -> Sil {
    const unsigned r = rng() % 8;
    if constexpr (std::is_floating_point_v<Sil>) {
      const Sil values[] = {0.0f, -0.0f, std::nanf(""), -kInf, 1e-45f, 0.0f, 2.5f, 0.0f};
      return values[r];
    } else {
      return r < 4 ? Sil(0) : static_cast<Sil>(1 + rng() % std::numeric_limits<Sil>::max());
    }
  });
}

// History values around the limit 10 - 4 = 6: equal, one ulp either side, NaN, infinities.
void fillHistory(Image<Kvl32f>& h, uint32_t seed) {
  std::mt19937 rng(seed);
  const float values[] = {6.0f,
                          std::nextafter(6.0f, 0.0f),
                          std::nextafter(6.0f, 7.0f),
                          std::nanf("0x55"),
                          -kInf,
                          kInf,
                          0.0f,
                          10.0f,
                          -3.0f,
                          9.5f};
  h.fill([&](int, int, int) { return values[rng() % 10]; });
}

template <class Sil>
void checkMember(MhiCall<Sil> fn, const char* name) {
  kvl::test::forEachTarget([&](int target) {
    for (int w = 1; w <= 70; ++w) {
      const int h = 1 + w % 4;
      Image<Sil> sil(w, h, 0, w);
      Image<Kvl32f> mhi(w, h, 1, w + 1);
      fillSilhouette(sil, w);
      fillHistory(mhi, w + 2);
      std::vector<Kvl32f> want = mhi.pixels();
      for (int y = 0; y < h; ++y)
        kvl::pyramid::ref::mhiRow<Sil>(sil.at(0, y), &want[y * w], w, 10.0f, 6.0f);
      ASSERT_EQ(fn(sil.roi(), sil.step(), mhi.roi(), mhi.step(), {w, h}, 10.0f, 4.0f), kvlStatusOk);
      ASSERT_TRUE(sameBytes(mhi.pixels(), want, w))
          << name << " " << kvl::test::targetName(target) << " w=" << w;
      ASSERT_TRUE(mhi.outsideUnchanged() && sil.unchanged());
    }
  });

  // Validation: every failing row leaves the history untouched.
  struct Row {
    const char* what;
    bool nullSil, nullMhi;
    KvliSize roi;
    int silDelta, mhiDelta;
    float duration;
    KvlStatus want;
  };
  const bool wide = sizeof(Sil) > 1;
  // clang-format off
  const Row rows[] = {
      {"null silhouette",       true,  false, {0, 2}, 0,  0,  -1.0f, kvlStatusNullPointer},
      {"null history",          false, true,  {9, 2}, 0,  0,  1.0f,  kvlStatusNullPointer},
      {"zero height",           false, false, {9, 0}, -1, 0,  -1.0f, kvlStatusBadSize},
      {"silhouette step short", false, false, {9, 2}, -1, 2,  -1.0f, kvlStatusBadStep},
      {"history step 4w-2",     false, false, {9, 2}, 0,  -2, 1.0f,  kvlStatusBadStep},
      {"history step 4w+2",     false, false, {9, 2}, 0,  2,  -1.0f, kvlStatusStepNotMultiple},
      {"odd silhouette step",   false, false, {9, 2}, 1,  0,  -1.0f,
       wide ? kvlStatusStepNotMultiple : kvlStatusOutOfRange},
      {"negative duration",     false, false, {9, 2}, 0,  0,  -1e-30f, kvlStatusOutOfRange},
  };
  // clang-format on
  for (const Row& r : rows) {
    Image<Sil> sil(9, 2, 1, 1);
    Image<Kvl32f> mhi(9, 2, 1, 2);
    const int silStep = 9 * sizeof(Sil) + r.silDelta, mhiStep = 36 + r.mhiDelta;
    EXPECT_EQ(fn(r.nullSil ? nullptr : sil.roi(), silStep, r.nullMhi ? nullptr : mhi.roi(), mhiStep,
                 r.roi, 5.0f, r.duration),
              r.want)
        << name << ": " << r.what;
    EXPECT_TRUE(mhi.unchanged()) << name << ": " << r.what;
  }
}

TEST(MotionHistory, EveryMemberAgainstTheReference) {
#define KVL_CHECK(suffix, Sil) checkMember<Sil>(&kvliUpdateMotionHistory_##suffix##_C1IR, #suffix);
  KVL_MHI_MEMBERS(KVL_CHECK)
#undef KVL_CHECK
}

// Hand-computed: the silhouette wins, the limit itself and NaN stay, older values clear.
TEST(MotionHistory, StrictLimitAndZeroDuration) {
  struct Case {
    Kvl8u sil;
    float before, timestamp, duration, after;
  };
  const float nan = std::nanf("0x77");
  const Case cases[] = {
      {1, nan, 8.0f, 2.0f, 8.0f},    {255, 100.0f, 8.0f, 2.0f, 8.0f}, {0, 6.0f, 8.0f, 2.0f, 6.0f},
      {0, 5.999f, 8.0f, 2.0f, 0.0f}, {0, 7.9f, 8.0f, 0.0f, 0.0f},     {0, 8.0f, 8.0f, 0.0f, 8.0f},
      {0, -kInf, 8.0f, 0.0f, 0.0f},  {0, 1.0f, 8.0f, kInf, 1.0f},     {0, nan, 8.0f, 2.0f, nan},
  };
  for (const Case& c : cases) {
    // Wide enough for the vector body and the scalar tail.
    std::vector<Kvl8u> sil(37, c.sil);
    std::vector<Kvl32f> mhi(37, c.before);
    ASSERT_EQ(kvliUpdateMotionHistory_8u32f_C1IR(sil.data(), 37, mhi.data(), 148, {37, 1},
                                                 c.timestamp, c.duration),
              kvlStatusOk);
    for (float v : mhi)
      EXPECT_EQ(std::memcmp(&v, &c.after, 4), 0) << c.before << " -> " << v;  // bits
  }
}

}  // namespace
