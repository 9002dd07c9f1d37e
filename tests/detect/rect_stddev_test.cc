// Rectangle standard deviation over the member table: exact values from hand-made corners (signs,
// positions, scaling, clamping), constant images, thread invariance and the validation order.
#include "detect/rect_stddev.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "core/parallel.h"
#include "support/support.h"

namespace {

using kvl::detect::StdDevMember;
using kvl::test::Image;
using kvl::test::sameBytes;

const StdDevMember kMembers[] = {KVL_RECT_STDDEV_MEMBERS(KVL_STDDEV_MEMBER_RECORD)};

template <class Sum, class Sqr, class Dst>
void checkMember(const StdDevMember& m) {
  SCOPED_TRACE(m.name);
  // Every target against the reference on random tables is the fuzz target's job.
  // Exact values: corners chosen so that only the right signs and positions give Sum 6 and
  // SumSq 20 over N = 2 (mean 3, variance 1), then Sum 3 and SumSq 4 (variance -0.25, clamped).
  const KvliRect rect = m.tilted ? KvliRect{1, 0, 1, 1} : KvliRect{0, 0, 2, 1};
  // Corner (row, column) in combination order: upright (y1,x1), (y0,x1), (y0,x0), (y1,x0);
  // tilted P1, P2, P3, P4.
  const int at[4][2] = {{m.tilted ? 3 : 1, m.tilted ? 1 : 2}, {m.tilted ? 2 : 0, m.tilted ? 0 : 2},
                        {m.tilted ? 2 : 0, m.tilted ? 2 : 0}, {1, m.tilted ? 1 : 0}};
  const double sums[2][4] = {{10, 3, m.tilted ? 2.0 : 1.0, m.tilted ? 1.0 : 2.0}, {3, 0, 0, 0}};
  const double squares[2][4] = {{30, 7, m.tilted ? 5.0 : 2.0, m.tilted ? 2.0 : 5.0}, {4, 0, 0, 0}};
  for (int c = 0; c < 2; ++c) {
    std::vector<Sum> sum(16);  // 4 x 4, zero but for the corners
    std::vector<Sqr> sqr(16);
    for (int k = 0; k < 4; ++k) {
      sum[at[k][0] * 4 + at[k][1]] = static_cast<Sum>(sums[c][k]);
      sqr[at[k][0] * 4 + at[k][1]] = static_cast<Sqr>(squares[c][k]);
    }
    const int scales[] = {0, -2, 1, 32, -31};
    const double rootOne[] = {1, 4, 1, 1, 2147483647};  // 0.5 + scale x 1, truncated, saturated
    for (int s = 0; s < (m.scaled ? 5 : 1); ++s) {
      Dst out{};
      ASSERT_EQ(m.run(sum.data(), 4 * sizeof(Sum), sqr.data(), 4 * sizeof(Sqr), &out, 4, {1, 1},
                      rect, scales[s]),
                kvlStatusOk);
      const double want = c == 1 ? 0.0 : m.scaled ? rootOne[s] : 1.0;
      EXPECT_EQ(static_cast<double>(out), want) << "case " << c << " scale " << scales[s];
      EXPECT_FALSE(std::signbit(static_cast<double>(out)));
    }
  }
}

TEST(RectStdDev, EveryMember) {
  size_t i = 0;
#define KVL_CHECK(Name, types, Sum, Sqr, Dst, shape, rule, layout, team) \
  checkMember<Sum, Sqr, Dst>(kMembers[i++]);
  KVL_RECT_STDDEV_MEMBERS(KVL_CHECK)
#undef KVL_CHECK
}

// Constant images: the standard deviation is 0 at every position of every rectangle, on the
// tables the integral members make of them (small enough that every corner is exact in float).
TEST(RectStdDev, ConstantImagesGiveZero) {
  const KvliRect rects[] = {{0, 0, 1, 1}, {2, 3, 7, 3}, {1, 0, 11, 9}};
  for (int value : {0, 1, 77, 255}) {
    const std::vector<Kvl8u> src(16 * 16, static_cast<Kvl8u>(value));
    std::vector<Kvl32s> sum(17 * 17), sq32(17 * 17);
    std::vector<Kvl32f> sumF(17 * 17);
    std::vector<Kvl64f> sq64(17 * 17);
    ASSERT_EQ(kvliSqrIntegral_8u32s_C1R(src.data(), 16, sum.data(), 68, sq32.data(), 68, {16, 16},
                                        5, 6), kvlStatusOk);
    ASSERT_EQ(kvliSqrIntegral_8u32f64f_C1R(src.data(), 16, sumF.data(), 68, sq64.data(), 136,
                                           {16, 16}, 5, 6), kvlStatusOk);
    for (const StdDevMember& m : kMembers) {
      if (m.tilted) continue;
      const void* sums = m.sum.real ? static_cast<void*>(sumF.data()) : sum.data();
      const void* squares = m.sqr.real ? static_cast<void*>(sq64.data()) : sq32.data();
      for (const KvliRect& rect : rects) {
        const KvliSize roi{16 - rect.x - rect.width, 16 - rect.y - rect.height};
        std::vector<uint32_t> out(roi.width * roi.height, ~0u);
        ASSERT_EQ(m.run(sums, 68, squares, 17 * m.sqr.bytes, out.data(), roi.width * 4, roi, rect,
                        -8),
                  kvlStatusOk);
        for (const uint32_t v : out)
          ASSERT_EQ(m.dst.real ? double(std::bit_cast<float>(v)) : double(int32_t(v)), 0.0)
              << m.name << ", value " << value;
      }
    }
  }
}

// 1, 2 and 3 threads give the same bytes, on an image the rule really splits.
TEST(RectStdDev, ThreadInvariance) {
  const int w = 300, h = 90;
  Image<Kvl32f> sum(w + 9, h + 9, 0, 3);
  Image<Kvl64f> sqr(w + 9, h + 9, 0, 4);
  std::vector<Kvl32f> first;
  for (int threads : {1, 2, 3}) {
    kvl::test::ThreadScope scope(threads);
    ASSERT_EQ(kvl::par::teamRectStdDev({w, h}) > 1, threads > 1);
    std::vector<Kvl32f> out(w * h);
    ASSERT_EQ(kvliRectStdDev_32f_C1R(sum.roi(), sum.step(), sqr.roi(), sqr.step(),
                                     out.data(), w * 4, {w, h}, {3, 2, 6, 7}),
              kvlStatusOk);
    if (first.empty()) first = out;
    ASSERT_TRUE(sameBytes(out, first, w)) << threads << " threads";
  }
}

TEST(RectStdDev, ValidationOrder) {
  struct Row {
    const char* what;
    bool nullSum, nullSqr, nullDst;
    KvliSize roi;
    KvliRect rect;
    int sumDelta, sqrDelta, dstDelta;
    KvlStatus want;
  };
  // Steps are E elements (E from the row's rectangle) plus the row's deltas in bytes.
  // clang-format off
  const Row rows[] = {
      {"null square + bad size", false, true,  false, {0, 2}, {1, 1, 2, 2}, 0,  0,  0,  kvlStatusNullPointer},
      {"null destination",       false, false, true,  {6, 2}, {1, 1, 2, 2}, -4, 0,  0,  kvlStatusNullPointer},
      {"zero width",             false, false, false, {0, 2}, {1, 1, 0, 2}, -4, 0,  0,  kvlStatusBadSize},
      {"sum step one short",     false, false, false, {6, 2}, {1, 1, 0, 2}, -1, 0,  0,  kvlStatusBadStep},
      {"square step short",      false, false, false, {6, 2}, {1, 1, 2, 2}, 2,  -4, 0,  kvlStatusBadStep},
      {"destination step short", false, false, false, {6, 2}, {1, 1, 2, 2}, 0,  0,  -1, kvlStatusBadStep},
      {"step not multiple",      false, false, false, {6, 2}, {1, 1, 0, 2}, 2,  0,  0,  kvlStatusStepNotMultiple},
      {"rect width 0",           false, false, false, {6, 2}, {1, 1, 0, 2}, 0,  0,  0,  kvlStatusBadArgument},
      {"rect x -1",              false, false, false, {6, 2}, {-1, 1, 2, 2}, 0, 0,  0,  kvlStatusBadArgument},
      {"rect y -1",              false, false, false, {6, 2}, {1, -1, 2, 2}, 0, 0,  0,  kvlStatusBadArgument},
      {"rect height 0",          false, false, false, {6, 2}, {1, 1, 2, 0}, 0,  0,  0,  kvlStatusBadArgument},
  };
  // clang-format on
  for (const StdDevMember& m : kMembers) {
    for (const Row& r : rows) {
      const int e = m.tilted ? r.rect.x + r.rect.y + r.rect.width + r.rect.height + r.roi.width - 1
                             : r.rect.x + r.rect.width + r.roi.width;
      std::vector<uint8_t> sum(64 * 8, 1), sqr(128 * 8, 1), dst(64 * 4, 0);
      const KvlStatus got =
          m.run(r.nullSum ? nullptr : sum.data(), e * m.sum.bytes + r.sumDelta,
                r.nullSqr ? nullptr : sqr.data(), e * m.sqr.bytes + r.sqrDelta,
                r.nullDst ? nullptr : dst.data(), 6 * m.dst.bytes + r.dstDelta, r.roi, r.rect, 0);
      EXPECT_EQ(got, r.want) << m.name << ": " << r.what;
      EXPECT_TRUE(std::all_of(dst.begin(), dst.end(), [](uint8_t b) { return b == 0; }));
    }
  }
}

}  // namespace
