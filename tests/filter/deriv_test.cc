// Derivative filters with border over their member table: threads, validation, sizes, golden
// cases, large-image kernel paths (every target against the scalar ones: fuzz/filter_deriv.cc).
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/parallel.h"
#include "core/simd.h"
#include "filter/deriv.h"
#include "support/support.h"

namespace {

using kvl::test::forEachTarget;
using kvl::test::GuardedBlock;
using kvl::test::Image;
namespace dv = kvl::filter::deriv;

// The family's member table, in the one signature of its record.
const std::vector<dv::Member>& members() {
  static const std::vector<dv::Member> all = {KVL_DERIV_MEMBERS(KVL_DERIV_MEMBER_RECORD)};
  return all;
}
bool general(const dv::Member& m) { return m.args == dv::Args::General; }
std::string nameOf(const dv::Member& m) {
  return std::string(m.name) + (general(m) ? "_general" : "");
}

const dv::Member& member(const std::string& name) {
  for (const dv::Member& m : members())
    if (nameOf(m) == name) return m;
  ADD_FAILURE() << "no member " << name;
  return members()[0];
}

// Calls f.template operator()<Src, Dst>() with the member's element types.
template <class F>
void withTypes(const dv::Member& m, F&& f) {
  switch (m.out) {
    case dv::Out::k16s: return f.template operator()<Kvl8u, Kvl16s>();
    case dv::Out::k8s: return f.template operator()<Kvl8u, Kvl8s>();
    case dv::Out::k8u: return f.template operator()<Kvl8u, Kvl8u>();
    case dv::Out::k32f: return f.template operator()<Kvl32f, Kvl32f>();
  }
}

// A work buffer of exactly the queried size, followed by an inaccessible page.
std::unique_ptr<GuardedBlock> bufferFor(const dv::Member& m, KvliSize roi, int mask) {
  int bytes = -1;
  EXPECT_EQ(m.size(roi, mask, &bytes), kvlStatusOk) << nameOf(m);
  return std::make_unique<GuardedBlock>(bytes > 0 ? bytes : 1, 1, 3);
}

// One call of a member on `src`: the destination pixels; nothing outside the ROI may change.
template <class S, class D>
std::vector<D> filterOnce(const dv::Member& m, const Image<S>& src, int mask, int bt, float value,
                          int divisor) {
  const int w = src.width(), h = src.height();
  Image<D> dst(w, h, 0, 7);
  const auto buf = bufferFor(m, {w, h}, mask);
  EXPECT_EQ(m.run(src.roi(), src.step(), dst.roi(), dst.step(), {w, h}, mask, bt, value, divisor,
                  buf->data()),
            kvlStatusOk)
      << nameOf(m);
  EXPECT_TRUE(dst.outsideUnchanged()) << nameOf(m) << " wrote outside the ROI";
  return dst.pixels();
}

// Threaded stripes give the serial bytes (wrap included: the stripes read across their edges);
// the general members run on the calling thread.
TEST(DerivThreads, StripesGiveTheSerialBytes) {
  if (kvlGetNumCoresOnDie() < 2) GTEST_SKIP() << "one core: the rule never splits";
  for (const dv::Member& m : members()) withTypes(m, [&]<class S, class D>() {
    if (general(m)) return;
    const int w = 300, h = 300;
    Image<S> src(w, h, 3, 5);
    src.fillRandom(6);
    for (int bt : {2, 0 | 64, 3 | 16 | 32}) {
      const int mask = m.args == dv::Args::Mask && bt != 2 ? 55 : 33;
      std::vector<D> serial;
      for (int threads : {1, 2, 3}) {
        kvl::test::ThreadScope scope(threads);
        ASSERT_TRUE(threads == 1 || kvl::par::teamBorderFilter({w, h}) > 1) << "no split";
        const std::vector<D> got = filterOnce<S, D>(m, src, mask, bt, 9.f, 3);
        if (threads == 1) serial = got;
        ASSERT_TRUE(kvl::test::sameBytes(got, serial, w))
            << nameOf(m) << " threads " << threads << " border " << bt;
      }
    }
  });
}

// ---- Validation: each row mutates one good call; failures leave the destination alone. ----
struct Call {
  KvliSize roi;
  int ss, ds, mask, bt, dv;
  bool nullSrc, nullBuf;
};
struct Mutation {
  const char* what;
  void (*apply)(Call&);
  KvlStatus want;
};
struct ValidationCase {
  const char* member;
  std::vector<Mutation> rows;
};
#define MUT(...) [](Call& c) { (void)c; __VA_ARGS__; }

TEST(DerivValidation, FirstFailingCheckAndNothingWritten) {
  const ValidationCase cases[] = {
      {"SobelHoriz_8u8s",
       {{"good", MUT(), kvlStatusOk},
        {"null source and empty ROI", MUT(c.nullSrc = true, c.roi.width = 0), kvlStatusNullPointer},
        {"null buffer", MUT(c.nullBuf = true), kvlStatusNullPointer},
        {"width 0", MUT(c.roi.width = 0), kvlStatusBadSize},
        {"height 0 before a short step", MUT(c.roi.height = 0, c.ss = 1), kvlStatusBadSize},
        {"source step one short", MUT(c.ss = c.roi.width - 1), kvlStatusBadStep},
        {"destination step one short", MUT(c.ds = c.roi.width - 1), kvlStatusBadStep},
        {"odd 8s step is fine", MUT(c.ds = c.roi.width + 1), kvlStatusOk},
        {"short step before bad border", MUT(c.ss = 3, c.bt = 5), kvlStatusBadStep},
        {"mode 5", MUT(c.bt = 5), kvlStatusBadArgument},
        {"mode 5 with a flag", MUT(c.bt = 16 | 5), kvlStatusBadArgument},
        {"256: a high bit without a flag", MUT(c.bt = 256), kvlStatusBadArgument},
        {"wrap", MUT(c.bt = 2), kvlStatusOk},
        {"mode 6", MUT(c.bt = 6), kvlStatusOk},
        {"flags only", MUT(c.bt = 240), kvlStatusOk},
        {"border before divisor", MUT(c.bt = 7, c.dv = 0), kvlStatusBadArgument},
        {"divisor 0 before mask", MUT(c.dv = 0, c.mask = 35), kvlStatusBadArgument},
        {"mask 35", MUT(c.mask = 35), kvlStatusBadMaskSize},
        {"mask 53", MUT(c.mask = 53), kvlStatusBadMaskSize},
        {"negative divisor", MUT(c.dv = -3), kvlStatusOk}}},
      {"SobelNegVert_8u16s",
       {{"good", MUT(), kvlStatusOk},
        {"odd destination step", MUT(c.ds = 2 * c.roi.width + 1), kvlStatusStepNotMultiple},
        {"short before odd", MUT(c.ds = 2 * c.roi.width - 1), kvlStatusBadStep},
        {"odd step before bad border", MUT(c.ds = 2 * c.roi.width + 3, c.bt = 5),
         kvlStatusStepNotMultiple},
        {"border before mask", MUT(c.bt = 8, c.mask = 35), kvlStatusBadArgument},
        {"wrap accepted", MUT(c.bt = 2), kvlStatusOk}}},
      {"Laplacian_32f",
       {{"good", MUT(), kvlStatusOk},
        {"source step 4w+2", MUT(c.ss = 4 * c.roi.width + 2), kvlStatusStepNotMultiple},
        {"destination step 4w+2", MUT(c.ds = 4 * c.roi.width + 2), kvlStatusStepNotMultiple},
        {"both steps checked for size first", MUT(c.ss = 4 * c.roi.width + 2, c.ds = 4),
         kvlStatusBadStep}}},
      {"ScharrVert_8u8s",
       {{"good", MUT(), kvlStatusOk},
        {"any mask code: Scharr has none", MUT(c.mask = 35), kvlStatusOk},
        {"divisor 0", MUT(c.dv = 0), kvlStatusBadArgument}}},
      {"SobelHoriz_8u16s_general",
       {{"good", MUT(), kvlStatusOk},
        {"null source and empty ROI", MUT(c.nullSrc = true, c.roi.height = -1),
         kvlStatusNullPointer},
        {"width 0", MUT(c.roi.width = 0, c.ds = 1), kvlStatusBadSize},
        {"a short even step is not checked", MUT(c.ds = 2 * c.roi.width - 2), kvlStatusOk},
        {"a short source step is not checked", MUT(c.ss = 1), kvlStatusOk},
        {"odd destination step", MUT(c.ds = 2 * c.roi.width + 1), kvlStatusStepNotMultiple},
        {"odd step before bad mask", MUT(c.ds = 3, c.mask = 35), kvlStatusStepNotMultiple},
        {"mask before border", MUT(c.mask = 35, c.bt = 2), kvlStatusBadMaskSize},
        {"wrap", MUT(c.bt = 2), kvlStatusBadArgument},
        {"wrap with flags", MUT(c.bt = 2 | 16), kvlStatusBadArgument},
        {"above 255", MUT(c.bt = 256 | 16 | 1), kvlStatusBadArgument},
        {"mode 6", MUT(c.bt = 6), kvlStatusOk},
        {"mirror with flags", MUT(c.bt = 3 | 64), kvlStatusOk}}},
      {"SobelVert_32f_general",
       {{"good", MUT(), kvlStatusOk},
        {"source step 4w+2", MUT(c.ss = 4 * c.roi.width + 2), kvlStatusStepNotMultiple},
        {"source step below the row", MUT(c.ss = 4), kvlStatusOk},
        {"mode 5", MUT(c.bt = 5), kvlStatusBadArgument}}},
  };
  for (const ValidationCase& vc : cases) withTypes(member(vc.member), [&]<class S, class D>() {
    const dv::Member& m = member(vc.member);
    for (const Mutation& row : vc.rows) {
      Image<S> src(9, 6, 3, 3);  // flagged sides read the margin
      Image<D> dst(9, 6, 0, 4);
      Call c{{9, 6}, src.step(), dst.step(), 33, 1, 2, false, false};
      row.apply(c);
      const auto buf = bufferFor(m, {9, 6}, 55);
      const KvlStatus st = m.run(c.nullSrc ? nullptr : src.roi(), c.ss, dst.roi(), c.ds, c.roi,
                                 c.mask, c.bt, 1.f, c.dv, c.nullBuf ? nullptr : buf->data());
      EXPECT_EQ(st, row.want) << nameOf(m) << ": " << row.what;
      EXPECT_TRUE(st == kvlStatusOk || dst.unchanged()) << nameOf(m) << ": " << row.what;
    }
  });
}

// ---- Buffer sizes: T x (A + R + C + 32) bytes at T permitted threads, A the filter's own rows,
// R and C the 8u16s or 32f row-pass and 16s or 32f column-pass pipeline sizes at T; the general
// members' sizes do not depend on T. Null pointer, then size, then mask code. ----
TEST(DerivBufferSize, PerThreadWithThePipelineSizesAfterValidation) {
  for (const dv::Member& m : members()) {
    int size = 7;
    EXPECT_EQ(m.size({0, 0}, 35, nullptr), kvlStatusNullPointer) << nameOf(m);
    EXPECT_EQ(m.size({1, 0}, 35, &size), kvlStatusBadSize) << nameOf(m);
    EXPECT_EQ(m.size({0, 1}, 33, &size), kvlStatusBadSize) << nameOf(m);
    EXPECT_EQ(m.size({4, 4}, 35, &size),
              m.args == dv::Args::NoMask ? kvlStatusOk : kvlStatusBadMaskSize)
        << nameOf(m);
    for (int mask : {33, 55}) {
      const int K = mask == 55 && m.args != dv::Args::NoMask ? 5 : 3;
      const bool f32 = m.out == dv::Out::k32f;
      auto rest = [&](int t) {  // size - T x (R + C + 32): T x A for the exported members
        kvl::test::ThreadScope scope(t);
        int size = -1, row = -1, column = -1;
        EXPECT_EQ(m.size({100, 50}, mask, &size), kvlStatusOk);
        (f32 ? kvliFilterRowBorderPipelineGetBufferSize_32f_C1R
             : kvliFilterRowBorderPipelineGetBufferSize_8u16s_C1R)({100, 50}, K, &row);
        (f32 ? kvliFilterColumnPipelineGetBufferSize_32f_C1R
             : kvliFilterColumnPipelineGetBufferSize_16s_C1R)({100, 50}, K, &column);
        return general(m) ? size : size - t * (row + column + 32);
      };
      for (int t : {2, 3})
        EXPECT_EQ(rest(t), general(m) ? rest(1) : t * rest(1))
            << nameOf(m) << " mask " << mask << " threads " << t;
    }
  }
}

// ---- Hand-computed cases, on every target. ----
TEST(DerivGolden, ConstantImageGivesZeroAtTheEdgesWithReplicate) {
  for (const dv::Member& m : members())
    withTypes(m, [&]<class S, class D>() {
      Image<S> src(37, 6, 0, 1);
      src.fill([](int, int, int) { return S(77); });
      for (int mask : {33, 55})
        forEachTarget([&](int) {
          const std::vector<D> got = filterOnce<S, D>(m, src, mask, kvlBorderRepl, 0.f, 1);
          const int k = mask == 55 && m.args != dv::Args::NoMask ? 25 : 9;
          // lowpass: 8u averages back to 77, 32f keeps the box sum
          const D want = m.out == dv::Out::k8u                                   ? D(77)
                         : m.kind == dv::Kind::kLowpass && m.out == dv::Out::k32f ? D(77 * k)
                                                                                  : D(0);
          for (size_t i = 0; i < got.size(); ++i)
            ASSERT_EQ(got[i], want) << nameOf(m) << " mask " << mask << " at " << i;
        });
    });
}

TEST(DerivGolden, SignConventionsOfTheGeneralMembers) {
  // A ramp x + 10 y: Vert is left minus right (-2), Horiz below minus above (20), Scharr's dx is
  // right minus left; times the smoothing taps' sum, 4 (Sobel) or 16 (Scharr).
  const std::pair<const char*, int> cases[] = {
      {"SobelNegVert_8u16s", -8},        {"SobelVert_8u8s", -8},
      {"SobelVert_8u16s_general", -8},   {"SobelVert_32f_general", -8},
      {"SobelHoriz_8u8s", 80},           {"SobelHoriz_8u16s_general", 80},
      {"SobelHoriz_32f_general", 80},    {"ScharrVert_8u16s", 32},
      {"ScharrHoriz_32f", 320},          {"SobelCross_8u16s", 0}};
  for (auto [name, want] : cases)
    withTypes(member(name), [&]<class S, class D>() {
      Image<S> src(8, 8, 0, 1);
      src.fill([](int x, int y, int) { return S(x + 10 * y); });
      forEachTarget([&](int) {
        EXPECT_EQ((filterOnce<S, D>(member(name), src, 33, 1, 0, 1)[3 * 8 + 3]), D(want)) << name;
      });
    });
}

TEST(DerivGolden, LaplacianImpulseResponses) {
  Image<Kvl8u> src(7, 7, 0, 1);
  src.fill([](int x, int y, int) { return Kvl8u(x == 3 && y == 3); });
  const dv::Member& m = member("Laplacian_8u16s");
  forEachTarget([&](int) {
    const auto l3 = filterOnce<Kvl8u, Kvl16s>(m, src, 33, 0, 0, 1);
    const int want3[3][3] = {{2, 0, 2}, {0, -8, 0}, {2, 0, 2}};
    for (int y = 0; y < 7; ++y)
      for (int x = 0; x < 7; ++x) {
        const bool in = std::abs(x - 3) <= 1 && std::abs(y - 3) <= 1;
        EXPECT_EQ(l3[y * 7 + x], in ? want3[y - 2][x - 2] : 0) << x << "," << y;
      }
    const auto l5 = filterOnce<Kvl8u, Kvl16s>(m, src, 55, 0, 0, 1);
    EXPECT_EQ(l5[3 * 7 + 3], -24);  // 2 x (-2 x 6)
    EXPECT_EQ(l5[1 * 7 + 1], 2);    // corners: 2 x (1 x 1)
    EXPECT_EQ(l5[1 * 7 + 3], 4);    // two rows up: 1 x -2 + 1 x 6
  });
}

TEST(DerivGolden, ConstantBorderRowsHoldTheRowPassOfTheValue) {
  Image<Kvl8u> src(6, 4, 0, 1);
  src.fill([](int, int, int) { return Kvl8u(10); });
  forEachTarget([&](int) {
    const auto got =
        filterOnce<Kvl8u, Kvl16s>(member("SobelHoriz_8u16s_general"), src, 33, 0, 50, 1);
    EXPECT_EQ(got[2], 40 - 200);          // top row: below 4 x 10, above 4 x 50
    EXPECT_EQ(got[0], 80 - 200);          // corner: the row below sees 50 at its left end
    EXPECT_EQ(got[3 * 6 + 5], 200 - 80);  // bottom right
    EXPECT_EQ(got[1 * 6 + 2], 0);
  });
}

TEST(DerivGolden, EightBitRoundsGroupsAndTruncatesTheTail) {
  // v(x) = slope x on every row: S = 4 (v(x-1) - v(x+1)) = -8 slope inside, -4 slope at the
  // replicated ends. Groups of 8 round ties to even, the width % 8 tail truncates.
  struct Case {
    int width, slope, divisor;
    std::vector<int> want;
  };
  const Case cases[] = {
      {13, 3, 16, {-1, -2, -2, -2, -2, -2, -2, -2, -1, -1, -1, -1, 0}},
      {16, 3, 16, {-1, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2, -1}},
      {9, 1, 16, {0, 0, 0, 0, 0, 0, 0, 0, 0}},  // -0.5 ties to 0; the tail -0.25 truncates to 0
      {10, 1, -16, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {11, 3, 8, {-2, -3, -3, -3, -3, -3, -3, -3, -3, -3, -1}},  // -1.5 -> -2, -3 exact
      {6, 40, 1, {-128, -128, -128, -128, -128, -128}},          // saturation, all tail
      {6, 40, -1, {127, 127, 127, 127, 127, 127}},
  };
  for (const char* name : {"SobelNegVert_8u8s", "SobelVert_8u8s"})
    for (const Case& c : cases) {
      Image<Kvl8u> src(c.width, 3, 0, 1);
      src.fill([&](int x, int, int) { return Kvl8u(c.slope * x); });
      forEachTarget([&](int) {
        const auto got = filterOnce<Kvl8u, Kvl8s>(member(name), src, 33, 1, 0, c.divisor);
        for (int i = 0; i < 3 * c.width; ++i)
          ASSERT_EQ(got[i], c.want[i % c.width])
              << name << " width " << c.width << " divisor " << c.divisor << " x " << i % c.width;
      });
    }
}

// ---- Kernel paths the public calls take only on very large images, run directly: each vector
// target's output bytes (and the bytes around them) equal the reference kernel's. ----
void kernelMatchesReference(dv::KernelKey key, int w, int h, int offset, long long bufferBytes,
                            bool stream, int prefetch) {
  const bool f32 = key.out == dv::Out::k32f;
  const int outBytes = f32 ? 4 : key.out == dv::Out::k16s ? 2 : 1;
  Image<Kvl32f> srcF(w, h, 2, 21);
  Image<Kvl8u> src8(w, h, 2, 21);
  std::vector<Kvl8u> buf(bufferBytes);
  const size_t bytes = static_cast<size_t>(w) * h * outBytes + offset;
  auto run = [&](dv::Fn fn) {
    auto out = std::make_unique<GuardedBlock>(bytes, 64, 1);  // offset from a 64-byte boundary
    fn({f32 ? static_cast<const void*>(srcF.roi()) : src8.roi(), f32 ? srcF.step() : src8.step(),
        out->data() + offset, w * outBytes, w, h, 0, h, kvlBorderRepl | kvlBorderInMemTop, 0.f,
        0.25f, 0, buf.data(), bufferBytes, stream, prefetch});
    return out;
  };
  const auto want = run(dv::kernelFor(key).ref);
  forEachTarget([&](int target) {
    if (target == kvl::simd::kRef) return;
    EXPECT_EQ(0, std::memcmp(run(dv::kernelFor(key).at(target))->data(), want->data(), bytes))
        << "kernel " << dv::kernelIndex(key) << " width " << w << " offset " << offset
        << " buffer " << bufferBytes;
  });
}

// Streaming stores (chosen for outputs beyond the caches) from any alignment of the destination;
// a work buffer too small for a whole row splits it into column tiles, taken band by band down
// the image (bands of 256 KiB of source rows: three for 300 x 1800 8u), prefetching ahead.
TEST(DerivKernels, StreamingTilesAndBandsMatchTheReference) {
  for (dv::KernelKey key : {dv::KernelKey{dv::Kind::kSobelCross, 5, dv::Out::k32f},
                            dv::KernelKey{dv::Kind::kLaplacian, 3, dv::Out::k16s}})
    for (int offset : {0, 4, 12, 128})
      for (int w : {67, 130}) kernelMatchesReference(key, w, 4, offset, 1 << 16, true, 0);
  const std::pair<dv::KernelKey, int> kernels[] = {  // ring bytes per column: pairs x K x work
      {{dv::Kind::kScharrVert, 3, dv::Out::k16s}, 6},
      {{dv::Kind::kLaplacian, 5, dv::Out::k8s}, 20},
      {{dv::Kind::kSobelCross, 5, dv::Out::k32f}, 20}};
  for (auto [key, perColumn] : kernels)
    for (int cols : {64, 128, 100})  // tiles of 64, 128 and 64 columns
      kernelMatchesReference(key, 300, 1800, 0, 32 + perColumn * cols, false, dv::kPrefetchRows);
}

}  // namespace
