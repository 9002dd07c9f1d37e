// Derivative filters with border: validation orders, buffer sizes, every target against the
// scalar reference, hand-computed edge cases and thread invariance.
#include <functional>
#include <string>
#include <vector>

#include "core/simd.h"
#include "filter/deriv.h"
#include "support/support.h"

namespace {

using kvl::test::Image;

enum class Ty { k8u, k8s, k16s, k32f };

using RunFn = std::function<KvlStatus(const void* src, int srcStep, void* dst, int dstStep,
                                      KvliSize roi, int mask, int bt, float value, int divisor,
                                      Kvl8u* buffer)>;
using SizeFn = std::function<KvlStatus(KvliSize roi, int mask, int* size)>;

struct Member {
  std::string name;
  Ty src, dst;
  bool mask, divisor, general;  // general: the internal first-derivative Sobel members
  RunFn run;
  SizeFn size;
};

void PrintTo(const Member& m, std::ostream* os) { *os << m.name; }

// The family's member table, in the one signature of the tests.
const std::vector<Member>& members() {
  using kvl::filter::deriv::Args;
  using kvl::filter::deriv::Out;
  static const std::vector<Member> all = [] {
    std::vector<Member> r;
    for (const kvl::filter::deriv::Member& m : {KVL_DERIV_MEMBERS(KVL_DERIV_MEMBER_RECORD)}) {
      const Ty dst = m.out == Out::k16s ? Ty::k16s
                     : m.out == Out::k8s ? Ty::k8s
                     : m.out == Out::k8u ? Ty::k8u
                                         : Ty::k32f;
      const bool general = m.args == Args::General;
      r.push_back({std::string(m.name) + (general ? "_general" : ""),
                   m.out == Out::k32f ? Ty::k32f : Ty::k8u, dst, m.args != Args::NoMask,
                   m.out == Out::k8s, general, m.run, m.size});
    }
    return r;
  }();
  return all;
}

const Member& member(const std::string& name) {
  for (const Member& m : members())
    if (m.name == name) return m;
  ADD_FAILURE() << "no member " << name;
  return members()[0];
}

// Calls f.template operator()<Src, Dst>() with the member's element types.
template <class F>
void withTypes(const Member& m, F&& f) {
  if (m.src == Ty::k32f) return f.template operator()<Kvl32f, Kvl32f>();
  switch (m.dst) {
    case Ty::k16s: return f.template operator()<Kvl8u, Kvl16s>();
    case Ty::k8s: return f.template operator()<Kvl8u, Kvl8s>();
    default: return f.template operator()<Kvl8u, Kvl8u>();
  }
}

std::vector<Kvl8u> bufferFor(const Member& m, KvliSize roi, int mask) {
  int bytes = -1;
  EXPECT_EQ(m.size(roi, mask, &bytes), kvlStatusOk) << m.name;
  return std::vector<Kvl8u>(bytes > 0 ? bytes : 1);
}

// Border types: every mode, mode 6, and flags on each side with real pixels around the ROI.
const int kBorders[] = {0, 1, 2, 3, 4, 6, 1 | 16, 0 | 32 | 64, 3 | 128 | 16, 4 | 64 | 32,
                        2 | 16 | 128, 0 | 240, 1 | 64 | 128};
bool accepts(const Member& m, int bt) { return !(m.general && (bt & 15) == 2); }

// One call of a member on `src`; returns the destination pixels and checks that nothing outside
// the ROI changed.
template <class S, class D>
std::vector<D> filterOnce(const Member& m, const Image<S>& src, int mask, int bt, float value,
                          int divisor) {
  const int w = src.width(), h = src.height();
  Image<D> dst(w, h, 0, 7);
  std::vector<Kvl8u> buf = bufferFor(m, {w, h}, mask);
  const KvlStatus st = m.run(src.roi(), src.step(), dst.roi(), dst.step(), {w, h}, mask, bt,
                             value, divisor, buf.data());
  EXPECT_EQ(st, kvlStatusOk) << m.name;
  EXPECT_TRUE(dst.outsideUnchanged()) << m.name << " wrote outside the ROI";
  return dst.pixels();
}

// ---- Every target against the scalar reference. ----
class DerivAgainstReference : public ::testing::TestWithParam<Member> {};

TEST_P(DerivAgainstReference, AwkwardSizesEveryBorder) {
  const Member& m = GetParam();
  withTypes(m, [&]<class S, class D>() {
    int caseNo = 0;
    for (int mask : {33, 55}) {
      if (!m.mask && mask == 55) continue;
      std::vector<std::pair<int, int>> sizes = {{1, 1}, {2, 3}, {3, 2}, {131, 5}, {300, 3}};
      for (int w = 1; w <= 70; ++w) sizes.push_back({w, 1 + (w * 7) % 4});
      for (auto [w, h] : sizes) {
        // random pixels with a margin of 3, which the in-memory flags read
        Image<S> src(w, h, 3, static_cast<uint32_t>(w * 8 + h + mask));
        src.fillRandom(static_cast<uint32_t>(w * 3 + h));
        for (int b = 0; b < 13; ++b) {
          const int bt = kBorders[(b + w) % 13];
          if (!accepts(m, bt)) continue;
          if (w < 60 && b > 2) break;  // narrow rows: three border types each
          ++caseNo;
          const float value = m.src == Ty::k32f ? -3.25f : static_cast<float>(caseNo * 37 % 256);
          static const int kDivisors[] = {1, 3, -2, 7, 16};
          const int divisor = kDivisors[caseNo % 5];
          kvl::simd::forceTarget(kvl::simd::kRef);
          const std::vector<D> want = filterOnce<S, D>(m, src, mask, bt, value, divisor);
          kvl::simd::forceTarget(-1);
          kvl::test::forEachTarget([&](int target) {
            if (target == kvl::simd::kRef) return;
            const std::vector<D> got = filterOnce<S, D>(m, src, mask, bt, value, divisor);
            ASSERT_TRUE(kvl::test::sameBytes(got, want, w))
                << m.name << " " << kvl::test::targetName(target) << " " << w << "x" << h
                << " mask " << mask << " border " << bt << " divisor " << divisor;
          });
          if (HasFatalFailure()) return;
        }
      }
    }
  });
}

// ---- Threaded stripes give the serial bytes (wrap included: the stripes read across). ----
TEST_P(DerivAgainstReference, ThreadsGiveTheSerialBytes) {
  const Member& m = GetParam();
  withTypes(m, [&]<class S, class D>() {
    const int w = 300, h = 700;  // above the threading threshold
    Image<S> src(w, h, 3, 5);
    src.fillRandom(6);
    Image<D> dst(w, h, 0, 7);
    for (int bt : {2, 0 | 64, 3 | 16 | 32}) {
      if (!accepts(m, bt)) continue;
      const int mask = m.mask && bt != 2 ? 55 : 33;
      std::vector<D> serial;
      for (int threads : {1, 2, 3}) {
        kvl::test::ThreadScope scope(threads);
        std::vector<Kvl8u> buf = bufferFor(m, {w, h}, mask);
        ASSERT_EQ(m.run(src.roi(), src.step(), dst.roi(), dst.step(), {w, h}, mask, bt, 9.f, 3,
                        buf.data()),
                  kvlStatusOk);
        if (threads == 1) serial = dst.pixels();
        ASSERT_TRUE(kvl::test::sameBytes(dst.pixels(), serial, w))
            << m.name << " threads " << threads << " border " << bt;
      }
    }
    EXPECT_TRUE(dst.outsideUnchanged());
  });
}

INSTANTIATE_TEST_SUITE_P(Members, DerivAgainstReference, ::testing::ValuesIn(members()),
                         [](const auto& info) { return info.param.name; });

// ---- Validation: each row mutates one good call; failures leave the destination alone. ----
struct Mutation {
  const char* what;
  std::function<void(KvliSize&, int&, int&, int&, int&, int&, bool&, bool&)> apply;
  KvlStatus want;
};

struct ValidationCase {
  const char* member;
  std::vector<Mutation> rows;
};

// Arguments: roi, srcStep, dstStep, mask, border, divisor, null source, null buffer.
#define MUT(body) [](KvliSize& roi, int& ss, int& ds, int& mask, int& bt, int& dv, bool& ns, bool& nb) { \
  (void)roi; (void)ss; (void)ds; (void)mask; (void)bt; (void)dv; (void)ns; (void)nb; body; }

const std::vector<ValidationCase>& validationCases() {
  static const std::vector<ValidationCase> cases = {
      {"SobelHoriz_8u8s",
       {{"good", MUT(), kvlStatusOk},
        {"null source and empty ROI", MUT(ns = true; roi.width = 0), kvlStatusNullPointer},
        {"null buffer", MUT(nb = true), kvlStatusNullPointer},
        {"width 0", MUT(roi.width = 0), kvlStatusBadSize},
        {"height 0 before a short step", MUT(roi.height = 0; ss = 1), kvlStatusBadSize},
        {"source step one short", MUT(ss = roi.width - 1), kvlStatusBadStep},
        {"destination step one short", MUT(ds = roi.width - 1), kvlStatusBadStep},
        {"odd 8s step is fine", MUT(ds = roi.width + 1), kvlStatusOk},
        {"short step before bad border", MUT(ss = 3; bt = 5), kvlStatusBadStep},
        {"mode 5", MUT(bt = 5), kvlStatusBadArgument},
        {"mode 5 with a flag", MUT(bt = 16 | 5), kvlStatusBadArgument},
        {"256: a high bit without a flag", MUT(bt = 256), kvlStatusBadArgument},
        {"wrap", MUT(bt = 2), kvlStatusOk},
        {"mode 6", MUT(bt = 6), kvlStatusOk},
        {"flags only", MUT(bt = 240), kvlStatusOk},
        {"border before divisor", MUT(bt = 7; dv = 0), kvlStatusBadArgument},
        {"divisor 0 before mask", MUT(dv = 0; mask = 35), kvlStatusBadArgument},
        {"mask 35", MUT(mask = 35), kvlStatusBadMaskSize},
        {"mask 53", MUT(mask = 53), kvlStatusBadMaskSize},
        {"negative divisor", MUT(dv = -3), kvlStatusOk}}},
      {"SobelNegVert_8u16s",
       {{"good", MUT(), kvlStatusOk},
        {"odd destination step", MUT(ds = 2 * roi.width + 1), kvlStatusStepNotMultiple},
        {"short before odd", MUT(ds = 2 * roi.width - 1), kvlStatusBadStep},
        {"odd step before bad border", MUT(ds = 2 * roi.width + 3; bt = 5), kvlStatusStepNotMultiple},
        {"border before mask", MUT(bt = 8; mask = 35), kvlStatusBadArgument},
        {"wrap accepted", MUT(bt = 2), kvlStatusOk},
        {"mask 53", MUT(mask = 53), kvlStatusBadMaskSize}}},
      {"Laplacian_32f",
       {{"good", MUT(), kvlStatusOk},
        {"source step 4w+2", MUT(ss = 4 * roi.width + 2), kvlStatusStepNotMultiple},
        {"destination step 4w+2", MUT(ds = 4 * roi.width + 2), kvlStatusStepNotMultiple},
        {"both steps checked for size first", MUT(ss = 4 * roi.width + 2; ds = 4), kvlStatusBadStep},
        {"mask 35", MUT(mask = 35), kvlStatusBadMaskSize}}},
      {"ScharrVert_8u8s",
       {{"good", MUT(), kvlStatusOk},
        {"any mask code: Scharr has none", MUT(mask = 35), kvlStatusOk},
        {"divisor 0", MUT(dv = 0), kvlStatusBadArgument},
        {"mode 5", MUT(bt = 5), kvlStatusBadArgument}}},
      {"SobelHoriz_8u16s_general",
       {{"good", MUT(), kvlStatusOk},
        {"null source and empty ROI", MUT(ns = true; roi.height = -1), kvlStatusNullPointer},
        {"width 0", MUT(roi.width = 0; ds = 1), kvlStatusBadSize},
        {"a short even step is not checked", MUT(ds = 2 * roi.width - 2), kvlStatusOk},
        {"a short source step is not checked", MUT(ss = 1), kvlStatusOk},
        {"odd destination step", MUT(ds = 2 * roi.width + 1), kvlStatusStepNotMultiple},
        {"odd step before bad mask", MUT(ds = 3; mask = 35), kvlStatusStepNotMultiple},
        {"mask before border", MUT(mask = 35; bt = 2), kvlStatusBadMaskSize},
        {"wrap", MUT(bt = 2), kvlStatusBadArgument},
        {"wrap with flags", MUT(bt = 2 | 16), kvlStatusBadArgument},
        {"above 255", MUT(bt = 256 | 16 | 1), kvlStatusBadArgument},
        {"mode 6", MUT(bt = 6), kvlStatusOk},
        {"mirror with flags", MUT(bt = 3 | 64), kvlStatusOk}}},
      {"SobelVert_32f_general",
       {{"good", MUT(), kvlStatusOk},
        {"source step 4w+2", MUT(ss = 4 * roi.width + 2), kvlStatusStepNotMultiple},
        {"source step below the row", MUT(ss = 4), kvlStatusOk},
        {"wrap", MUT(bt = 2), kvlStatusBadArgument},
        {"mode 5", MUT(bt = 5), kvlStatusBadArgument}}},
  };
  return cases;
}

void PrintTo(const ValidationCase& c, std::ostream* os) { *os << c.member; }

class DerivValidation : public ::testing::TestWithParam<ValidationCase> {};

TEST_P(DerivValidation, FirstFailingCheckAndNothingWritten) {
  const ValidationCase& vc = GetParam();
  const Member& m = member(vc.member);
  withTypes(m, [&]<class S, class D>() {
    for (const Mutation& row : vc.rows) {
      Image<S> src(9, 6, 3, 3);  // flagged sides read the margin
      Image<D> dst(9, 6, 0, 4);
      KvliSize roi{9, 6};
      int ss = src.step(), ds = dst.step(), mask = 33, bt = 1, dv = 2;
      bool ns = false, nb = false;
      row.apply(roi, ss, ds, mask, bt, dv, ns, nb);
      std::vector<Kvl8u> buf = bufferFor(m, {9, 6}, 55);
      const KvlStatus st = m.run(ns ? nullptr : src.roi(), ss, dst.roi(), ds, roi, mask, bt,
                                 1.f, dv, nb ? nullptr : buf.data());
      EXPECT_EQ(st, row.want) << m.name << ": " << row.what;
      if (st != kvlStatusOk) {
        EXPECT_TRUE(dst.unchanged()) << m.name << ": " << row.what;
      }
    }
  });
}

INSTANTIATE_TEST_SUITE_P(Orders, DerivValidation, ::testing::ValuesIn(validationCases()),
                         [](const auto& info) {
                           std::string n = info.param.member;
                           return n;
                         });

// ---- Buffer sizes: hand-computed values for 1, 2 and 3 permitted threads. ----
struct SizeCase {
  const char* member;
  KvliSize roi;
  int mask;
  int want[3];
};

TEST(DerivBufferSize, HandComputedValues) {
  const SizeCase cases[] = {
      {"SobelNegVert_8u16s", {100, 50}, 33, {7540, 19808, 36804}},
      {"SobelCross_8u8s", {100, 50}, 33, {7476, 19680, 36612}},
      {"SobelVertSecond_32f", {100, 50}, 55, {12944, 27952, 45024}},
      {"Laplacian_8u8s", {40, 10}, 55, {7748, 17712, 29892}},  // room for a 16-bit image
      {"Laplacian_8u16s", {40, 10}, 55, {6756, 15728, 26916}},
      {"ScharrVert_8u16s", {33, 7}, 0, {3396, 8608, 15636}},
      {"ScharrVert_8u8s", {33, 7}, 0, {3332, 8480, 15444}},
      {"ScharrHoriz_8u16s", {33, 7}, 0, {3332, 8480, 15444}},
      {"Lowpass_32f", {1, 1}, 55, {2888, 7056, 12504}},
      {"Lowpass_8u", {1, 1}, 33, {1572, 4000, 7284}},
      // the general members ignore threads: align32(3M + 6 | 7M + 28) + 32, 32f four times
      {"SobelVert_8u16s_general", {100, 50}, 33, {352, 352, 352}},
      {"SobelHoriz_8u16s_general", {50, 100}, 55, {768, 768, 768}},
      {"SobelHoriz_32f_general", {100, 1}, 33, {1280, 1280, 1280}},
  };
  for (const SizeCase& c : cases)
    for (int t = 1; t <= 3; ++t) {
      kvl::test::ThreadScope scope(t);
      int size = -1;
      EXPECT_EQ(member(c.member).size(c.roi, c.mask, &size), kvlStatusOk);
      EXPECT_EQ(size, c.want[t - 1]) << c.member << " threads " << t;
    }
}

TEST(DerivBufferSize, ValidationOrder) {
  for (const Member& m : members()) {
    int size = 7;
    EXPECT_EQ(m.size({0, 0}, 35, nullptr), kvlStatusNullPointer) << m.name;
    EXPECT_EQ(m.size({1, 0}, 35, &size), kvlStatusBadSize) << m.name;
    EXPECT_EQ(m.size({0, 1}, 33, &size), kvlStatusBadSize) << m.name;
    EXPECT_EQ(m.size({4, 4}, 35, &size), m.mask ? kvlStatusBadMaskSize : kvlStatusOk) << m.name;
  }
}

// ---- Hand-computed cases. ----
template <class S, class D>
std::vector<D> filterImage(const Member& m, Image<S>& src, int mask, int bt, float value,
                           int divisor) {
  Image<D> dst(src.width(), src.height(), 0, 2);
  std::vector<Kvl8u> buf = bufferFor(m, {src.width(), src.height()}, mask);
  EXPECT_EQ(m.run(src.roi(), src.step(), dst.roi(), dst.step(), {src.width(), src.height()},
                  mask, bt, value, divisor, buf.data()),
            kvlStatusOk);
  return dst.pixels();
}

TEST(DerivGolden, ConstantImageGivesZeroAtTheEdgesWithReplicate) {
  for (const Member& m : members()) {
    withTypes(m, [&]<class S, class D>() {
      for (int mask : {33, 55}) {
        Image<S> src(37, 6, 0, 1);
        src.fill([](int, int, int) { return S(77); });
        kvl::test::forEachTarget([&](int) {
          const std::vector<D> got = filterImage<S, D>(m, src, mask, kvlBorderRepl, 0.f, 1);
          const int k = mask == 55 && m.mask ? 25 : 9;
          // lowpass: 8u averages back to 77, 32f keeps the box sum
          const D want = m.name == "Lowpass_8u" ? D(77)
                         : m.name == "Lowpass_32f" ? D(77 * k) : D(0);
          for (size_t i = 0; i < got.size(); ++i)
            ASSERT_EQ(got[i], want) << m.name << " mask " << mask << " at " << i;
        });
      }
    });
  }
}

TEST(DerivGolden, StepEdgeGivesMinus400BesideTheStep) {
  Image<Kvl8u> src(10, 5, 0, 1);
  src.fill([](int x, int, int) { return Kvl8u(x < 5 ? 0 : 100); });
  kvl::test::forEachTarget([&](int) {
    const auto neg = filterImage<Kvl8u, Kvl16s>(member("SobelNegVert_8u16s"), src, 33, 1, 0, 1);
    const auto hor =
        filterImage<Kvl8u, Kvl16s>(member("SobelHoriz_8u16s_general"), src, 33, 1, 0, 1);
    for (int y = 0; y < 5; ++y)
      for (int x = 0; x < 10; ++x) {
        EXPECT_EQ(neg[y * 10 + x], (x == 4 || x == 5) ? -400 : 0) << x << "," << y;
        EXPECT_EQ(hor[y * 10 + x], 0) << x << "," << y;
      }
  });
}

TEST(DerivGolden, SignConventionsOfTheGeneralMembers) {
  // A ramp to the right and downwards: Vert is left minus right, Horiz below minus above.
  Image<Kvl32f> src(8, 8, 0, 1);
  src.fill([](int x, int y, int) { return Kvl32f(x + 10 * y); });
  const auto vert = filterImage<Kvl32f, Kvl32f>(member("SobelVert_32f_general"), src, 33, 1, 0, 1);
  const auto hor = filterImage<Kvl32f, Kvl32f>(member("SobelHoriz_32f_general"), src, 33, 1, 0, 1);
  EXPECT_EQ(vert[3 * 8 + 3], -8.f);  // (x-1) - (x+1) = -2, weights 1 2 1
  EXPECT_EQ(hor[3 * 8 + 3], 80.f);   // 10 (y+1) - 10 (y-1) = 20, weights 1 2 1
}

TEST(DerivGolden, LaplacianImpulseResponses) {
  Image<Kvl8u> src(7, 7, 0, 1);
  src.fill([](int x, int y, int) { return Kvl8u(x == 3 && y == 3); });
  kvl::test::forEachTarget([&](int) {
    const auto l3 = filterImage<Kvl8u, Kvl16s>(member("Laplacian_8u16s"), src, 33, 0, 0, 1);
    const int want3[3][3] = {{2, 0, 2}, {0, -8, 0}, {2, 0, 2}};
    for (int y = 0; y < 7; ++y)
      for (int x = 0; x < 7; ++x) {
        const bool in = std::abs(x - 3) <= 1 && std::abs(y - 3) <= 1;
        EXPECT_EQ(l3[y * 7 + x], in ? want3[y - 2][x - 2] : 0) << x << "," << y;
      }
    const auto l5 = filterImage<Kvl8u, Kvl16s>(member("Laplacian_8u16s"), src, 55, 0, 0, 1);
    EXPECT_EQ(l5[3 * 7 + 3], -24);  // 2 x (-2 x 6)
    EXPECT_EQ(l5[1 * 7 + 1], 2);    // corners: 2 x (1 x 1)
    EXPECT_EQ(l5[1 * 7 + 3], 4);    // two rows up: 1 x -2 + 1 x 6
  });
}

TEST(DerivGolden, ConstantBorderRowsHoldTheRowPassOfTheValue) {
  Image<Kvl8u> src(6, 4, 0, 1);
  src.fill([](int, int, int) { return Kvl8u(10); });
  kvl::test::forEachTarget([&](int) {
    const auto got =
        filterImage<Kvl8u, Kvl16s>(member("SobelHoriz_8u16s_general"), src, 33, 0, 50, 1);
    EXPECT_EQ(got[2], 40 - 200);     // top row: below 4 x 10, above 4 x 50
    EXPECT_EQ(got[0], 80 - 200);     // corner: the row below sees 50 at its left end
    EXPECT_EQ(got[3 * 6 + 5], 200 - 80);  // bottom right
    EXPECT_EQ(got[1 * 6 + 2], 0);
  });
}

struct RoundingCase {
  int width, slope, divisor;
  std::vector<int> want;
};

TEST(DerivGolden, EightBitRoundsGroupsAndTruncatesTheTail) {
  // v(x) = slope x on every row: S = 4 (v(x-1) - v(x+1)) = -8 slope inside, -4 slope at the
  // replicated ends. Groups of 8 round ties to even, the width % 8 tail truncates.
  const RoundingCase cases[] = {
      {13, 3, 16, {-1, -2, -2, -2, -2, -2, -2, -2, -1, -1, -1, -1, 0}},
      {16, 3, 16, {-1, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2, -1}},
      {9, 1, 16, {0, 0, 0, 0, 0, 0, 0, 0, 0}},  // -0.5 ties to 0; the tail -0.25 truncates to 0
      {10, 1, -16, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {11, 3, 8, {-2, -3, -3, -3, -3, -3, -3, -3, -3, -3, -1}},  // -1.5 -> -2, -3 exact
      {6, 40, 1, {-128, -128, -128, -128, -128, -128}},  // saturation, all tail
      {6, 40, -1, {127, 127, 127, 127, 127, 127}},
  };
  for (const char* name : {"SobelNegVert_8u8s", "SobelVert_8u8s"})
    for (const RoundingCase& c : cases) {
      Image<Kvl8u> src(c.width, 3, 0, 1);
      src.fill([&](int x, int, int) { return Kvl8u(c.slope * x); });
      kvl::test::forEachTarget([&](int target) {
        const auto got = filterImage<Kvl8u, Kvl8s>(member(name), src, 33, 1, 0, c.divisor);
        for (int y = 0; y < 3; ++y)
          for (int x = 0; x < c.width; ++x)
            ASSERT_EQ(got[y * c.width + x], c.want[x])
                << name << " " << kvl::test::targetName(target) << " width " << c.width
                << " divisor " << c.divisor << " x " << x;
      });
    }
}

}  // namespace

namespace {

// Streaming stores (chosen for outputs beyond the caches) give the same rows, on every target,
// from any alignment of the destination.
TEST(DerivKernels, StreamingStoresMatchTheReference) {
  using namespace kvl::filter::deriv;
  const int kLevel[3] = {kvl::simd::kAVX3, kvl::simd::kAVX2, kvl::simd::kSSE4};
  struct K {
    KernelKey key;
    bool f32;
  };
  for (K k : {K{{Kind::kSobelCross, 5, Out::k32f}, true}, K{{Kind::kLaplacian, 3, Out::k16s}, false}})
    for (int offset : {0, 4, 12, 128})  // bytes from a 64-byte boundary
      for (int w : {67, 130}) {
        const int h = 4, outBytes = k.f32 ? 4 : 2;
        Image<Kvl32f> srcF(w, h, 2, 11);
        Image<Kvl8u> src8(w, h, 2, 11);
        srcF.fillRandom(12);
        src8.fillRandom(12);
        std::vector<Kvl8u> buf(1 << 16);
        alignas(64) static Kvl8u want[4 * 130 * 4 + 256], got[4 * 130 * 4 + 256];
        auto job = [&](Kvl8u* out, bool stream) {
          return Job{k.f32 ? static_cast<const void*>(srcF.roi()) : src8.roi(),
                     k.f32 ? srcF.step() : src8.step(), out + offset, w * outBytes, w, h, 0, h,
                     kvlBorderRepl, 0.f, 1.f, 0, buf.data(), static_cast<long long>(buf.size()),
                     stream, 0};
        };
        std::memset(want, 0, sizeof(want));
        kernelFor(k.key).ref(job(want, false));
        for (int t = 0; t < 3; ++t) {
          if (kvl::simd::bestTarget() < kLevel[t]) continue;
          std::memset(got, 0, sizeof(got));
          kernelFor(k.key).at(kLevel[t])(job(got, true));
          EXPECT_EQ(0, std::memcmp(got, want, sizeof(got)))
              << kvl::test::targetName(kLevel[t]) << " width " << w << " offset " << offset;
        }
      }
}

// A work buffer too small for a whole row splits it into column tiles, taken band by band down
// the image; prefetching ahead is on. Every band and tile edge must give the reference rows.
TEST(DerivKernels, TilesAndBandsMatchTheReference) {
  using namespace kvl::filter::deriv;
  const int kLevel[3] = {kvl::simd::kAVX3, kvl::simd::kAVX2, kvl::simd::kSSE4};
  struct K {
    KernelKey key;
    bool f32;
    int perColumn;  // ring bytes per column: pairs x K x work bytes
  };
  const int w = 300, h = 1800;  // 256 KiB bands of 8u rows: 873 rows, so three bands
  Image<Kvl32f> srcF(w, h, 2, 21);
  Image<Kvl8u> src8(w, h, 2, 21);
  srcF.fillRandom(22);
  src8.fillRandom(22);
  std::vector<Kvl8u> want(static_cast<size_t>(w) * h * 4), got(want.size());
  for (K k : {K{{Kind::kScharrVert, 3, Out::k16s}, false, 6},
              K{{Kind::kLaplacian, 5, Out::k8s}, false, 20},
              K{{Kind::kSobelCross, 5, Out::k32f}, true, 20}})
    for (int cols : {64, 128, 100}) {  // tiles of 64, 128 and 64 columns
      const int outBytes = k.f32 ? 4 : 2;
      std::vector<Kvl8u> buf(32 + static_cast<size_t>(k.perColumn) * cols);
      auto job = [&](Kvl8u* out, int rows, int prefetch) {
        return Job{k.f32 ? static_cast<const void*>(srcF.roi()) : src8.roi(),
                   k.f32 ? srcF.step() : src8.step(), out, w * outBytes, w, h, 0, rows,
                   kvlBorderRepl | kvlBorderInMemTop, 0.f, 0.25f, 0, buf.data(),
                   static_cast<long long>(buf.size()), false, prefetch};
      };
      std::fill(want.begin(), want.end(), 0);
      kernelFor(k.key).ref(job(want.data(), h, 0));
      for (int t = 0; t < 3; ++t) {
        if (kvl::simd::bestTarget() < kLevel[t]) continue;
        std::fill(got.begin(), got.end(), 0);
        kernelFor(k.key).at(kLevel[t])(job(got.data(), h, kPrefetchRows));
        EXPECT_TRUE(got == want) << kvl::test::targetName(kLevel[t]) << " kernel " << kernelIndex(k.key)
                                 << " columns " << cols;
      }
    }
}

}  // namespace
