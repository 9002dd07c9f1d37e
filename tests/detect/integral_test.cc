// Integral images over the member table: the tables against exact sums and hand-made tilted
// tables, the streamed tables, wrapped 32-bit sums, the float accumulation order, and the
// validation order.
#include "detect/integral.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "support/support.h"

namespace {

using kvl::detect::IntegralMember;
using kvl::detect::Shape;
using kvl::test::Image;

const IntegralMember kMembers[] = {KVL_INTEGRAL_MEMBERS(KVL_INTEGRAL_MEMBER_RECORD)};

template <class Src, class Sum, class Sqr, Shape kShape>
void checkMember(const IntegralMember& m) {
  using Q = kvl::detect::SqrElem<Sqr>;
  constexpr bool kHasSqr = !std::is_void_v<Sqr>;
  constexpr int kPad = kShape == Shape::kUpright ? 1 : 2;
  SCOPED_TRACE(m.name);

  // Upright tables on every target are the definition: val + the sum of the rectangle above-left,
  // exact here (integer val, small image) in every table type. Every target against the reference
  // at any size is the fuzz target's job (fuzz/detect_integral.cc).
  if constexpr (kShape == Shape::kUpright) {
    Image<Src> src(9, 5, 0, 3);
    src.fill([](int x, int y, int) { return Src((x * 37 + y * 11) % 256); });
    kvl::test::forEachTarget([&](int) {
      std::vector<Sum> sum(60);
      std::vector<Q> sqr(60);
      ASSERT_EQ(m.run(src.roi(), src.step(), sum.data(), 10 * sizeof(Sum), sqr.data(),
                      10 * sizeof(Q), {9, 5}, 7, 11),
                kvlStatusOk);
      for (int y = 0; y <= 5; ++y)
        for (int x = 0; x <= 9; ++x) {
          double s = m.hasVal ? 7 : 0, q = 11;
          for (int r = 0; r < y; ++r)
            for (int c = 0; c < x; ++c) s += src.px(c, r), q += double(src.px(c, r)) * src.px(c, r);
          ASSERT_EQ(double(sum[y * 10 + x]), s) << x << "," << y;
          ASSERT_EQ(kHasSqr ? double(sqr[y * 10 + x]) : q, q) << x << "," << y;
        }
    });
  }

  // Validation: each row mutates valid arguments; the first failing check decides and nothing
  // is written.
  struct Row {
    const char* what;
    bool nullSrc, nullSum, nullSqr;
    KvliSize roi;
    int srcDelta, sumDelta, sqrDelta;
    KvlStatus want;
  };
  const KvlStatus oddSrc = sizeof(Src) > 1 ? kvlStatusStepNotMultiple : kvlStatusOk;
  const KvlStatus sqrNull = kHasSqr ? kvlStatusNullPointer : kvlStatusOk;
  // clang-format off
  const Row rows[] = {
      {"null source + bad size",  true,  false, false, {0, 3}, 0,  0,  0,  kvlStatusNullPointer},
      {"null table",              false, true,  false, {8, 3}, -1, 0,  0,  kvlStatusNullPointer},
      {"null square table",       false, false, true,  {8, 3}, 0,  0,  0,  sqrNull},
      {"zero height + short step",false, false, false, {8, 0}, -1, 0,  0,  kvlStatusBadSize},
      {"source step short",       false, false, false, {8, 3}, -1, 2,  0,  kvlStatusBadStep},
      {"table step short",        false, false, false, {8, 3}, 0,  -1, 2,  kvlStatusBadStep},
      {"table step not multiple", false, false, false, {8, 3}, 1,  2,  0,  kvlStatusStepNotMultiple},
      {"square step short",       false, false, false, {8, 3}, 0,  2,  kHasSqr ? -1 : 0,
       kHasSqr ? kvlStatusBadStep : kvlStatusStepNotMultiple},
      {"square step not multiple",false, false, false, {8, 3}, 0,  0,  kHasSqr ? 4 : 0,
       kHasSqr ? kvlStatusStepNotMultiple : kvlStatusOk},
      {"odd source step",         false, false, false, {8, 3}, 2,  0,  0,  oddSrc},
  };
  // clang-format on
  auto zero = [](auto& v) { return std::none_of(v.begin(), v.end(), [](uint8_t b) { return b; }); };
  for (const Row& r : rows) {
    Image<Src> src(8, 3, 0, 1);
    const int sumStep = (8 + kPad) * sizeof(Sum), sqrStep = (8 + kPad) * sizeof(Q);
    std::vector<uint8_t> big(static_cast<size_t>(sumStep + 8) * 8);  // room for the longer steps
    std::vector<uint8_t> bigSqr(static_cast<size_t>(sqrStep + 8) * 8);
    const KvlStatus got =
        m.run(r.nullSrc ? nullptr : src.roi(), 8 * sizeof(Src) + r.srcDelta,
              r.nullSum ? nullptr : static_cast<void*>(big.data()), sumStep + r.sumDelta,
              r.nullSqr ? nullptr : static_cast<void*>(bigSqr.data()),
              sqrStep + (r.sqrDelta == 4 ? sizeof(Q) / 2 : r.sqrDelta), r.roi, 1, 1);
    EXPECT_EQ(got, r.want) << r.what;
    EXPECT_TRUE(got == kvlStatusOk || (zero(big) && zero(bigSqr))) << r.what;
  }

  // The streamed form of the tables that have one (chosen for tables beyond the cache, which the
  // fuzz target's images never reach) on every target against the reference: widths around the
  // 32-pixel steps, odd and even heights, tables at every element offset of a 64-byte line and
  // one not element-aligned, with steps that keep the rows' offsets or move them; nothing written
  // around the table.
  if constexpr (kvl::detect::kStreams<Src, Sqr, kShape>) {
    const auto& kernel = kvl::detect::IntegralKernel<Src, Sum, Sqr, kShape>::streamed;
    const Sum val = std::is_floating_point_v<Sum> ? Sum(-0.75) : Sum(-2000000000);
    auto untouched = [](uint8_t b) { return b == 0xa5; };
    for (int w : {1, 17, 32, 33, 47, 95, 200}) {
      const int rowBytes = (w + 1) * static_cast<int>(sizeof(Sum));
      for (int step : {rowBytes + 20, (rowBytes + 63) / 64 * 64}) {
        for (int h : {1, 2, 5}) {
          Image<Src> src(w, h, 0, w * 8 + h);
          const size_t bytes = static_cast<size_t>(step) * (h + 1);
          std::vector<uint8_t> want(bytes, 0xa5);
          kernel.ref(src.roi(), src.step(), reinterpret_cast<Sum*>(want.data()), step, nullptr, 0,
                     w, h, val, 0);
          kvl::test::forEachTarget([&](int target) {
            for (int offset = 0; offset <= 64; offset += offset == 64 ? 1 : 4) {
              const int at = offset == 64 ? 2 : offset;  // last: not element-aligned
              std::vector<uint8_t> buf(bytes + 128, 0xa5);
              Sum* table = reinterpret_cast<Sum*>(buf.data() + 64 + at);
              kernel.at(target)(src.roi(), src.step(), table, step, nullptr, 0, w, h, val, 0);
              ASSERT_TRUE(std::equal(want.begin(), want.end(), buf.begin() + 64 + at))
                  << w << "x" << h << ", step " << step << " at " << at << " on "
                  << kvl::test::targetName(target);
              ASSERT_TRUE(std::all_of(buf.begin(), buf.begin() + 64 + at, untouched));
              ASSERT_TRUE(std::all_of(buf.end() - 64 + at, buf.end(), untouched));
            }
          });
        }
      }
    }
  }
}

TEST(Integral, EveryMember) {
  size_t i = 0;
#define KVL_CHECK(Name, types, Src, Sum, Sqr, shape, form) \
  checkMember<Src, Sum, Sqr, Shape::k##shape>(kMembers[i++]);
  KVL_INTEGRAL_MEMBERS(KVL_CHECK)
#undef KVL_CHECK
}

// The tilted rows by hand: a 1x1 source meets only the edge columns' rules; a 2x2 source the
// inner rule too.
TEST(Integral, TiltedEdgeRules) {
  const Kvl8u one = 9, two[4] = {1, 2, 3, 4};
  Kvl32s t1[9], t2[16];
  Kvl64f q2[16];
  ASSERT_EQ(kvliTiltedIntegral_8u32s_C1R(&one, 1, t1, 12, {1, 1}, 5), kvlStatusOk);
  EXPECT_EQ(std::vector<Kvl32s>(t1, t1 + 9), (std::vector<Kvl32s>{5, 5, 5, 5, 5, 5, 5, 14, 5}));
  ASSERT_EQ(kvliTiltedSqrIntegral_8u32s64f_C1R(two, 2, t2, 16, q2, 32, {2, 2}, 0, 0.5),
            kvlStatusOk);
  EXPECT_EQ(std::vector<Kvl32s>(t2 + 8, t2 + 16), (std::vector<Kvl32s>{0, 3, 2, 0, 3, 9, 7, 2}));
  EXPECT_EQ(std::vector<Kvl64f>(q2 + 8, q2 + 16),
            (std::vector<Kvl64f>{0.5, 5.5, 4.5, 0.5, 5.5, 29.5, 21.5, 4.5}));
  Image<Kvl32f> tf(3, 3);  // the 32f sum table of the 1x1 source
  ASSERT_EQ(kvliTiltedIntegral_8u32f_C1R(&one, 1, tf.roi(), tf.step(), {1, 1}, -0.5f), kvlStatusOk);
  EXPECT_EQ(tf.pixels(), (std::vector<Kvl32f>{-.5f, -.5f, -.5f, -.5f, -.5f, -.5f, -.5f, 8.5f, -.5f}));
}

// Float rules: the 8u row sum is an exact integer converted once, then added to the value above;
// the 32f row sum runs left to right in single precision.
TEST(Integral, FloatAccumulationOrder) {
  const float big = 16777216.0f;  // 2^24: floats step by 2 above it
  const Kvl8u ones[3] = {1, 1, 1};
  const Kvl32f vals[4] = {1e8f, 1.0f, -1e8f, 1.0f};
  Kvl32f t[8];
  kvl::test::forEachTarget([&](int) {
    ASSERT_EQ(kvliIntegral_8u32f_C1R(ones, 3, t, 16, {3, 1}, big), kvlStatusOk);
    EXPECT_EQ(std::vector<Kvl32f>(t + 4, t + 8), (std::vector<Kvl32f>{big, big, big + 2, big + 4}));
    Kvl32f u[10];
    ASSERT_EQ(kvliIntegral_32f_C1R(vals, 16, u, 20, {4, 1}), kvlStatusOk);
    EXPECT_EQ(std::vector<Kvl32f>(u + 5, u + 10), (std::vector<Kvl32f>{0, 1e8f, 1e8f, 0, 1}));
  });
}

// A row of 8421505 pixels of 255 (its last four 0, 10, 20, 30) sums past 2^31: the 32-bit tables
// wrap, every target matches the reference (the float tables' row sums leave the int32 lanes
// there), and a rectangle whose sums fit still gives its standard deviation from wrapped corners.
TEST(Integral, WrapsPast31Bits) {
  const int w = 8421505;
  std::vector<Kvl8u> src(w, 255);
  for (int k = 0; k < 4; ++k) src[w - 4 + k] = static_cast<Kvl8u>(10 * k);
  std::vector<Kvl32s> want(2 * (w + 1)), got(want.size()), sqr(want.size());
  std::vector<Kvl32f> wantF(want.size()), gotF(want.size());
  kvl::test::forEachTarget([&](int target) {
    ASSERT_EQ(kvliSqrIntegral_8u32s_C1R(src.data(), w, got.data(), (w + 1) * 4, sqr.data(),
                                         (w + 1) * 4, {w, 1}, 0, 0),
              kvlStatusOk);
    ASSERT_EQ(kvliIntegral_8u32f_C1R(src.data(), w, gotF.data(), (w + 1) * 4, {w, 1}, 0.0f),
              kvlStatusOk);
    if (target == kvl::simd::kRef) {
      want = got, wantF = gotF;
      const uint32_t sum = 255u * (w - 4) + 60, squares = 65025u * (w - 4) + 1400;  // mod 2^32
      EXPECT_EQ(static_cast<uint32_t>(got[2 * w + 1]), sum);
      EXPECT_EQ(static_cast<uint32_t>(sqr[2 * w + 1]), squares);
      EXPECT_EQ(gotF[2 * w + 1], static_cast<float>(sum));  // the unsigned row sum, rounded once
    }
    EXPECT_EQ(got, want);
    EXPECT_TRUE(std::memcmp(gotF.data(), wantF.data(), gotF.size() * 4) == 0);
  });
  // The last four pixels: mean 15, variance 125, 256 x sqrt(125) + 0.5 = 2862.7.
  Kvl32s dev = 0;
  ASSERT_EQ(kvliRectStdDev_32s_C1RSfs(got.data(), (w + 1) * 4, sqr.data(), (w + 1) * 4, &dev, 4,
                                      {1, 1}, {w - 4, 0, 4, 1}, -8),
            kvlStatusOk);
  EXPECT_EQ(dev, 2862);
}

}  // namespace
