// Canny detectors: validation, sizes, hysteresis, golden cases and border rules. Every target
// against the scalar kernels over members, sizes, thresholds and borders is the fuzz target's
// (fuzz/feature_canny.cc).
#include "feature/canny.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "core/border.h"
#include "support/support.h"

namespace {

using kvl::test::forEachTarget;
using kvl::test::GuardedBlock;
using kvl::test::Image;
using kvl::test::sameBytes;
namespace kf = kvl::feature;

// ---- Runners: a buffer of exactly the queried size, ending at a guard page, at an offset ----
template <class T>
KvlStatus callCanny(const T* dx, int dxs, const T* dy, int dys, Kvl8u* dst, int ds, KvliSize roi,
                    float lo, float hi, Kvl8u* buf) {
  if constexpr (sizeof(T) == 2)
    return kvliCanny_16s8u_C1R(dx, dxs, dy, dys, dst, ds, roi, lo, hi, buf);
  else
    return kvliCanny_32f8u_C1R(dx, dxs, dy, dys, dst, ds, roi, lo, hi, buf);
}

// The 16s or 32f detector on hand-set gradients (all other pixels 0).
struct Spot {
  int x, y, dx, dy;
};
template <class T>
std::vector<Kvl8u> spots(int w, int h, const std::vector<Spot>& s, float lo, float hi) {
  Image<T> dx(w, h, 0, 1), dy(w, h, 0, 2);
  dx.fillRandom(1, T(0), T(0)), dy.fillRandom(2, T(0), T(0));
  for (const Spot& p : s) dx.px(p.x, p.y) = T(p.dx), dy.px(p.x, p.y) = T(p.dy);
  int size = 0;
  EXPECT_EQ(kvliCannyGetSize({w, h}, &size), kvlStatusOk);
  GuardedBlock buf(static_cast<size_t>(size), 1, 9);
  Image<Kvl8u> out(w, h, 0, 4);
  EXPECT_EQ(callCanny<T>(dx.roi(), dx.step(), dy.roi(), dy.step(), out.roi(), out.step(), {w, h},
                         lo, hi, buf.data()),
            kvlStatusOk);
  EXPECT_TRUE(out.outsideUnchanged());
  return out.pixels();
}

struct BorderParams {
  int filter = kvlFilterSobel;
  int mask = kvlMaskSize3x3;
  int border = kvlBorderRepl;
  Kvl8u value = 0;
  float lo = 50, hi = 150;
  int norm = kvlNormL1;
};

// The source is checked unchanged when given as an image.
std::vector<Kvl8u> cannyBorder(const Kvl8u* src, int srcStep, KvliSize roi, const BorderParams& p,
                               int offset = 0, const Image<Kvl8u>* image = nullptr) {
  int size = 0;
  EXPECT_EQ(kvliCannyBorderGetSize(roi, p.filter, p.mask, kvl8u, &size), kvlStatusOk);
  GuardedBlock buf(static_cast<size_t>(size) + offset, 1, 5);
  Image<Kvl8u> out(roi.width, roi.height, 0, 6);
  EXPECT_EQ(
      kvliCannyBorder_8u_C1R(src, srcStep, out.roi(), out.step(), roi, p.filter, p.mask, p.border,
                             p.value, p.lo, p.hi, p.norm, buf.data() + offset),
      kvlStatusOk);
  EXPECT_TRUE(out.outsideUnchanged() && (!image || image->unchanged()));
  return out.pixels();
}
std::vector<Kvl8u> cannyBorder(const Image<Kvl8u>& src, const BorderParams& p, int offset = 0) {
  return cannyBorder(src.roi(), src.step(), {src.width(), src.height()}, p, offset, &src);
}

// ---- Validation: each row changes a valid call; a failure writes nothing ----
template <class Args>
struct Case {
  const char* name;
  void (*mutate)(Args&);
  KvlStatus want;
};
#define SET(...) [](auto& a) { __VA_ARGS__; }

// The arguments of a gradient-input call; `elem` is the element size, 2 or 4.
struct GradArgs {
  const void *dx, *dy;
  int dxs, dys, ds;
  Kvl8u *dst, *buf;
  KvliSize roi{};
  float lo = 1, hi = 5;
  int elem = 2;
};
const Case<GradArgs> kGradCases[] = {
    {"dx null", SET(a.dx = nullptr), kvlStatusNullPointer},
    {"dy null", SET(a.dy = nullptr), kvlStatusNullPointer},
    {"dst null", SET(a.dst = nullptr), kvlStatusNullPointer},
    {"buffer null, width 0", SET(a.buf = nullptr, a.roi.width = 0), kvlStatusNullPointer},
    {"width 0", SET(a.roi.width = 0), kvlStatusBadSize},
    {"height -1, low > high", SET(a.roi.height = -1, a.lo = 9), kvlStatusBadSize},
    {"dx step a byte short", SET(a.dxs = a.roi.width * a.elem - 1), kvlStatusBadStep},
    {"dy step short, dx step odd", SET(a.dxs += 1, a.dys = a.roi.width * a.elem - a.elem),
     kvlStatusBadStep},
    {"dst step short", SET(a.ds = a.roi.width - 1), kvlStatusBadStep},
    {"dx step not a multiple", SET(a.dxs += a.elem / 2), kvlStatusStepNotMultiple},
    {"dy step not a multiple, low < 0", SET(a.dys += 3, a.lo = -1), kvlStatusStepNotMultiple},
    {"low < 0", SET(a.lo = -0.5f), kvlStatusBadArgument},
    {"low > high", SET(a.lo = 3, a.hi = 2.5f), kvlStatusBadArgument},
    {"low = high", SET(a.lo = a.hi = 4), kvlStatusOk},
};

template <class T>
void checkGradValidation() {
  const int w = 9, h = 4;
  for (const auto& c : kGradCases) {
    Image<T> dx(w, h, 0, 1), dy(w, h, 0, 2);
    Image<Kvl8u> out(w, h, 0, 3);
    std::vector<Kvl8u> buf(4096);
    GradArgs a{dx.roi(), dy.roi(), dx.step(), dy.step(), out.step(), out.roi(), buf.data()};
    a.roi = {w, h}, a.elem = static_cast<int>(sizeof(T));
    c.mutate(a);
    EXPECT_EQ(callCanny<T>(static_cast<const T*>(a.dx), a.dxs, static_cast<const T*>(a.dy), a.dys,
                           a.dst, a.ds, a.roi, a.lo, a.hi, a.buf),
              c.want)
        << c.name;
    EXPECT_TRUE(c.want == kvlStatusOk || out.unchanged()) << c.name;
  }
}

TEST(CannyValidation, GradientInputs16s) { checkGradValidation<Kvl16s>(); }
TEST(CannyValidation, GradientInputs32f) { checkGradValidation<Kvl32f>(); }

struct BorderArgs {
  const Kvl8u* src;
  int srcStep;
  KvliSize roi;
  BorderParams p;
  Kvl8u* buf;
};
const Case<BorderArgs> kBorderCases[] = {
    {"Scharr 5x5 before null pointers and size",
     SET(a.src = nullptr, a.buf = nullptr, a.roi.width = 0, a.p.filter = kvlFilterScharr,
         a.p.mask = kvlMaskSize5x5),
     kvlStatusBadMaskSize},
    {"mask 35 before null", SET(a.src = nullptr, a.p.mask = 35), kvlStatusBadMaskSize},
    {"src null", SET(a.src = nullptr), kvlStatusNullPointer},
    {"buffer null, bad filter", SET(a.buf = nullptr, a.p.filter = 3), kvlStatusNullPointer},
    {"height 0", SET(a.roi.height = 0), kvlStatusBadSize},
    {"filter 3 before border", SET(a.p.filter = 3, a.p.border = 2), kvlStatusBadArgument},
    {"norm 1", SET(a.p.norm = 1), kvlStatusBadArgument},
    {"low > high before border", SET(a.p.lo = 7, a.p.hi = 6, a.p.border = 3),
     kvlStatusBadArgument},
    {"negative low", SET(a.p.lo = -1), kvlStatusBadArgument},
    {"wrap border", SET(a.p.border = kvlBorderWrap), kvlStatusBadBorderType},
    {"mode 5 with a flag", SET(a.p.border = 5 | kvlBorderInMemTop), kvlStatusBadBorderType},
    {"Scharr 3x3 with L2", SET(a.p.filter = kvlFilterScharr, a.p.norm = kvlNormL2), kvlStatusOk},
    {"no step check", SET(a.srcStep = 1), kvlStatusOk},
    {"bits above the flags ignored", SET(a.p.border = 256 | kvlBorderRepl), kvlStatusOk},
};

TEST(CannyValidation, BorderForm) {
  const int w = 8, h = 3;
  for (const auto& c : kBorderCases) {
    Image<Kvl8u> src(w, h, 0, 1), out(w, h, 0, 2);
    std::vector<Kvl8u> buf(4096);
    BorderArgs a{src.roi(), src.step(), {w, h}, BorderParams{}, buf.data()};
    c.mutate(a);
    EXPECT_EQ(
        kvliCannyBorder_8u_C1R(a.src, a.srcStep, out.roi(), out.step(), a.roi, a.p.filter, a.p.mask,
                               a.p.border, a.p.value, a.p.lo, a.p.hi, a.p.norm, a.buf),
        c.want)
        << c.name;
    EXPECT_TRUE(c.want == kvlStatusOk || out.unchanged()) << c.name;
  }
}

// ---- Size queries: the header's formulas, computed by hand (the last rows wrap in 32 bits); the
// gradient forms switch at 65533 ----
TEST(CannySize, GradientAndBorderForms) {
  const std::pair<KvliSize, int> rows[] = {
      {{1, 1}, 221},           {{10, 10}, 1040},        {{65532, 1}, 2031682},
      {{65533, 1}, 2818133},   {{1, 65532}, 983186},    {{1, 65533}, 1769621},
      {{65532, 65532}, -262028}, {{40000, 40000}, -588494412}};
  for (auto [roi, want] : rows) {
    int size = 7;
    EXPECT_EQ(kvliCannyGetSize(roi, &size), kvlStatusOk);
    EXPECT_EQ(size, want) << roi.width << "x" << roi.height;
  }
  struct Row {
    KvliSize roi;
    int filter, mask, type, want;
  };
  const Row border[] = {{{1, 1}, kvlFilterSobel, 33, kvl8u, 157},
                        {{10, 10}, kvlFilterSobel, 33, kvl8u, 976},
                        {{10, 10}, 99, 55, 99, 1268},
                        {{10, 10}, kvlFilterScharr, 55, kvl32f, 1268},
                        {{65533, 1}, kvlFilterSobel, 33, kvl8u, 2031649},
                        {{40000, 40000}, kvlFilterSobel, 55, kvl8u, -587694384}};
  for (const Row& r : border) {
    int size = 7;
    EXPECT_EQ(kvliCannyBorderGetSize(r.roi, r.filter, r.mask, r.type, &size), kvlStatusOk);
    EXPECT_EQ(size, r.want) << r.roi.width << "x" << r.roi.height << " mask " << r.mask;
  }
  int size = 7;
  EXPECT_EQ(kvliCannyGetSize({0, 5}, nullptr), kvlStatusNullPointer);
  EXPECT_EQ(kvliCannyGetSize({5, 0}, &size), kvlStatusBadSize);
  EXPECT_EQ(kvliCannyBorderGetSize({0, 1}, 2, 35, 1, nullptr), kvlStatusNullPointer);
  EXPECT_EQ(kvliCannyBorderGetSize({0, 1}, 2, 35, 1, &size), kvlStatusBadSize);
  EXPECT_EQ(kvliCannyBorderGetSize({1, 1}, 2, 53, 1, &size), kvlStatusBadMaskSize);
  EXPECT_EQ(size, 7);
}

// ---- Hysteresis ----

// Every edge is a survivor of suppression, and the edges are whole 8-connected components of
// the survivors. With low = high every survivor is strong, so that run gives the survivors. The
// three detectors share the suppression's bookkeeping and the hysteresis; the bordered one also
// takes its stack from what the buffer leaves.
::testing::AssertionResult wholeComponents(const std::vector<Kvl8u>& edges,
                                           const std::vector<Kvl8u>& survivors, int w, int h) {
  std::vector<char> seen(edges.size(), 0);
  for (size_t i = 0; i < edges.size(); ++i)
    if (edges[i] != 0 && survivors[i] == 0)
      return ::testing::AssertionFailure() << "edge at " << i % w << "," << i / w << " is gone";
  for (size_t start = 0; start < edges.size(); ++start) {
    if (survivors[start] == 0 || seen[start]) continue;
    std::vector<size_t> todo{start};
    size_t size = 0, in = 0;
    seen[start] = 1;
    while (!todo.empty()) {
      const size_t i = todo.back();
      todo.pop_back();
      ++size, in += edges[i] != 0;
      const int x = static_cast<int>(i % w), y = static_cast<int>(i / w);
      for (int ny = std::max(y - 1, 0); ny <= std::min(y + 1, h - 1); ++ny)
        for (int nx = std::max(x - 1, 0); nx <= std::min(x + 1, w - 1); ++nx) {
          const size_t j = static_cast<size_t>(ny) * w + nx;
          if (survivors[j] != 0 && !seen[j]) seen[j] = 1, todo.push_back(j);
        }
    }
    if (in != 0 && in != size)
      return ::testing::AssertionFailure() << "component at " << start % w << "," << start / w
                                           << " is partly an edge (" << in << " of " << size << ")";
  }
  return ::testing::AssertionSuccess();
}

TEST(CannyHysteresis, EdgesAreWholeComponentsOfTheSurvivors) {
  const int w = 203, h = 61;  // discs and bars, so edges, ties and all classes occur
  Image<Kvl8u> src(w, h, 0, 3);
  src.fill([](int x, int y, int) {
    return Kvl8u(((x / 9 + y / 7) % 3) * 70 +
                 ((x - 100) * (x - 100) + (y - 30) * (y - 30) < 500 ? 50 : 0) +
                 (x * 13 + y * 7) % 17);
  });
  for (float hi : {60.0f, 130.0f, 400.0f}) {
    const BorderParams p{kvlFilterSobel, 33, kvlBorderRepl, 0, 30, hi, kvlNormL2};
    const BorderParams all{.lo = 30, .hi = 30, .norm = kvlNormL2};  // p with low = high
    const std::vector<Kvl8u> e = cannyBorder(src, p), s = cannyBorder(src, all);
    EXPECT_TRUE(wholeComponents(e, s, w, h)) << hi;
    EXPECT_NE(e, s) << "the thresholds should leave some weak components out";
  }
}

// ---- Golden cases ----

struct Golden {
  const char* name;
  int w, h;
  std::vector<Spot> spots;
  float lo, hi;
  std::vector<int> want;  // row-major, 1 = edge
  bool only16s = false;
};

const Golden kGolden[] = {
    {"1x1 above both thresholds", 1, 1, {{0, 0, 10, 0}}, 5, 9, {1}},
    {"1x1 equal to high is not strong", 1, 1, {{0, 0, 7, -3}}, 5, 10, {0}},
    {"1x1 equal to low is discarded", 1, 1, {{0, 0, 10, 0}}, 10, 10, {0}},
    {"low 10.7 truncates to 10 for 16s", 1, 1, {{0, 0, 10, 0}}, 10.7f, 10.7f, {0}},
    {"high 10.7 truncates to 10: 11 is strong", 1, 1, {{0, 0, 11, 0}}, 10.7f, 10.7f, {1}},
    {"extreme derivatives give 65536", 1, 1, {{0, 0, -32768, -32768}}, 0, 65535, {1}, true},
    {"extreme derivatives are not above 65536", 1, 1, {{0, 0, -32768, -32768}}, 0, 65536, {0},
     true},
    {"horizontal plateau keeps its leftmost pixel", 4, 3,
     {{0, 1, 9, 0}, {1, 1, 9, 0}, {2, 1, -9, 0}, {3, 1, 9, 0}}, 1, 2,
     {0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}},
    {"vertical plateau keeps its topmost pixel", 3, 3,
     {{1, 0, 0, 5}, {1, 1, 0, -5}, {1, 2, 0, 5}}, 1, 2, {0, 1, 0, 0, 0, 0, 0, 0, 0}},
    {"diagonal plateau keeps none", 3, 3, {{0, 0, 6, 6}, {1, 1, 6, 6}, {2, 2, 6, 6}}, 1, 2,
     {0, 0, 0, 0, 0, 0, 0, 0, 0}},
    {"anti-diagonal plateau keeps none", 3, 3, {{2, 0, 6, -6}, {1, 1, -6, 6}, {0, 2, 6, -6}}, 1,
     2, {0, 0, 0, 0, 0, 0, 0, 0, 0}},
    // A weak chain 8-connected to one strong pixel grows; a weak pixel alone does not.
    {"hysteresis follows a diagonal chain", 5, 4,
     {{0, 0, 0, 9}, {1, 1, 0, 3}, {2, 2, 0, 3}, {3, 1, 0, 3}, {4, 3, 0, 3}}, 2, 5,
     {1, 0, 0, 0, 0, 0, 1, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}},
    {"low 0 takes every non-zero magnitude", 3, 1, {{0, 0, 0, 1}, {2, 0, 0, 1}}, 0, 0.5f,
     {1, 0, 1}},
};

TEST(CannyGolden, GradientInputs) {
  for (const Golden& g : kGolden)
    for (int type = 0; type < 2; ++type) {
      if (type == 1 && g.only16s) continue;
      SCOPED_TRACE(testing::Message() << g.name << (type ? " (32f)" : " (16s)"));
      forEachTarget([&](int) {
        const std::vector<Kvl8u> got = type == 0 ? spots<Kvl16s>(g.w, g.h, g.spots, g.lo, g.hi)
                                                 : spots<Kvl32f>(g.w, g.h, g.spots, g.lo, g.hi);
        for (size_t i = 0; i < got.size(); ++i)
          EXPECT_EQ(got[i], g.want[i] ? 255 : 0) << "pixel " << i;
      });
    }
}

// Class decisions at the exact tan boundaries. At |dx| = 3771, |dy| = 9104 the single product
// 2.4142137 x 3771 rounds to exactly 9104 (not vertical), the double product rounds below it
// (vertical), and so does the border form's bound ax + ax + ax x 0.41421357; at 17223, 7134 the
// horizontal test flips the other way. In the 16s detector whole groups of columns take the
// single products and the tail the double ones; the 32f and border forms always the single ones.
TEST(CannyClasses, ExactBoundariesInEveryKernel) {
  struct Row {
    float dx, dy;
    uint8_t group16s, tail16s, f32, border;
  };
  using namespace kf;
  const Row rows[] = {{3771, 9104, kClassDiag, kClassVert, kClassDiag, kClassVert},
                      {-3771, 9104, kClassAntiDiag, kClassVert, kClassAntiDiag, kClassVert},
                      {17223, 7134, kClassHoriz, kClassDiag, kClassHoriz, kClassHoriz},
                      {17223, -7134, kClassHoriz, kClassAntiDiag, kClassHoriz, kClassHoriz},
                      {0, 5, kClassVert, kClassVert, kClassVert, kClassVert},
                      {4, -4, kClassAntiDiag, kClassAntiDiag, kClassAntiDiag, kClassAntiDiag}};
  for (const Row& r : rows)
    forEachTarget([&](int) {
      for (int w = 1; w <= 40; ++w) {
        SCOPED_TRACE(testing::Message() << r.dx << "," << r.dy << " w " << w);
        std::vector<Kvl16s> ix(w, Kvl16s(r.dx)), iy(w, Kvl16s(r.dy));
        std::vector<Kvl32f> fx(w, r.dx), fy(w, r.dy);
        std::vector<int32_t> mag32(w + 2);
        std::vector<float> mag(w + 2);
        std::vector<uint8_t> c16(w), c32(w), cb(w);
        kMagClass16s.pick()(ix.data(), iy.data(), w, 0, mag32.data(), c16.data());
        kMagClass32f.pick()(fx.data(), fy.data(), w, 0, mag.data(), c32.data());
        kMagClassBorder.pick()(ix.data(), iy.data(), w, 0, false, mag.data(), cb.data());
        for (int c = 0; c < w; ++c) {
          ASSERT_EQ(c16[c], c < w / 4 * 4 ? r.group16s : r.tail16s) << "column " << c;
          ASSERT_EQ(c32[c], r.f32) << "column " << c;
          ASSERT_EQ(cb[c], r.border) << "column " << c;
        }
      }
    });
  // The same decision seen in the edge map: the pixel survives only as a vertical pixel, because
  // its up-left neighbour is larger and its vertical neighbours are 0.
  for (int w = 2; w <= 12; ++w)
    forEachTarget([&](int) {
      const int c = w - 1;  // in a group when w is a multiple of 4
      const std::vector<Kvl8u> got =
          spots<Kvl16s>(w, 3, {{c, 1, 3771, 9104}, {c - 1, 0, 9000, 9000}}, 100, 12000);
      EXPECT_EQ(got[w + c], w % 4 == 0 ? 0 : 255) << "w " << w;
    });
}

// ---- The border form ----

// Every kernel, norm and border gives the edges of a copy extended by the border utilities and
// read wholly from memory: constant and replicated sides follow the utilities, flagged sides read
// the real pixels around the ROI, and mode 6 is the constant border (bit 0 clear) on the sides
// without a flag.
TEST(CannyBorder, BorderRulesMatchAnExplicitlyExtendedCopy) {
  struct Kernel {
    int filter, mask, k;
    float scale;  // magnitudes grow with the kernel
  };
  const Kernel kernels[] = {
      {kvlFilterSobel, 33, 1, 1}, {kvlFilterScharr, 33, 1, 4}, {kvlFilterSobel, 55, 2, 12}};
  constexpr int kT = kvlBorderInMemTop, kB = kvlBorderInMemBottom, kL = kvlBorderInMemLeft,
                kR = kvlBorderInMemRight;
  const int borders[] = {kvlBorderConst,           kvlBorderRepl,           kvlBorderInMem,
                         kvlBorderRepl | kT,       kvlBorderConst | kB | kL, kvlBorderRepl | kR | kB,
                         kvlBorderRepl | 240,      kvlBorderInMem | kR | kT};
  for (const Kernel& k : kernels)
    for (int norm : {kvlNormL1, kvlNormL2})
      for (int bt : borders)
        for (int h : {1, 2, 3, 5, 40})
          for (int w : {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 33, 40, 70}) {
            SCOPED_TRACE(testing::Message() << w << "x" << h << " filter " << k.filter << " mask "
                                            << k.mask << " norm " << norm << " border " << bt);
            Image<Kvl8u> src(w, h, 2, w * 17 + h);  // noise around the ROI
            src.fill([&](int x, int y, int) {
              return Kvl8u(((x / 3 + y / 2) % 2) * 120 + (x * 31 + y * 17) % 23);
            });
            const int rule = (bt & 15) == kvlBorderInMem ? bt & 240 : bt;
            Image<Kvl8u> ext(w + 2 * k.k, h + 2 * k.k, 0, 3);
            kvl::border::extendImage<Kvl8u, 1>(src.roi(), src.step(), w, h, ext.roi(), ext.step(),
                                               k.k, k.k, k.k, k.k, rule, Kvl8u(77));
            BorderParams p{k.filter, k.mask, 240, 77, 40 * k.scale, 160 * k.scale, norm};
            const std::vector<Kvl8u> want = cannyBorder(ext.at(k.k, k.k), ext.step(), {w, h}, p);
            p.border = bt;
            ASSERT_TRUE(sameBytes(cannyBorder(src, p, (w + h) % 5), want, w));
          }
}

// A one-row ROI between two memory rows, every pixel with a gradient that survives suppression
// (the rows above and below are outside the ROI, at magnitude 0): the first is strong (70, its
// dy raised by a brighter pixel below it), the rest weak (60). One linking pass makes every weak
// pixel a seed, more than the stack left in the buffer holds, and every pixel is an edge.
TEST(CannyBorder, MoreSeedsThanTheStackHolds) {
  for (int w : {1, 2, 9, 50})
    forEachTarget([&](int) {
      Image<Kvl8u> src(w, 1, 1, 2);
      src.fillRandom(1, 0, 0);
      for (int x = -1; x <= w; ++x) {
        src.px(x, 0) = Kvl8u(5 * (x + 1));  // dx = 20
        src.px(x, 1) = x == 0 ? 15 : 10;    // dy = 40 (50 at x 0, 45 at x 1, where dx is 15)
      }
      src.snapshot();
      const BorderParams p{kvlFilterSobel, 33, kvlBorderConst | 240, 0, 0, 65, kvlNormL1};
      EXPECT_EQ(cannyBorder(src, p), std::vector<Kvl8u>(w, 255)) << "w " << w;
    });
}

}  // namespace
