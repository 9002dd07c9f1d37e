// Sub-pixel copies and the Lucas-Kanade tracker over the member table: the copies against a
// plain bilinear model on every target, the state's layout and scratch size, the validation
// orders, allocation failures, and the tracker's rules and known moves on synthetic scenes.
#include "pyramid/optical_flow.h"

#include <dlfcn.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <tuple>
#include <vector>

#include "flow_support.h"
#include "support/support.h"

// Allocation failures on demand: the test binary's kvlMalloc stands in front of the core
// library's; while gAllocsLeft is 0 every allocation fails, and each success counts it down.
namespace {
std::atomic<int> gAllocsLeft{-1};
}
extern "C" void* kvlMalloc(int length) {
  using Fn = void* (*)(int);
  static const Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "kvlMalloc"));
  const int left = gAllocsLeft.load();
  if (left == 0) return nullptr;
  if (left > 0) gAllocsLeft = left - 1;
  return real(length);
}

namespace {

using kvl::pyramid::FlowMember;
using kvl::test::Image;
using kvl::test::TestPyramid;

const FlowMember kMembers[] = {KVL_OPTFLOW_MEMBERS(KVL_OPTFLOW_MEMBER_RECORD)};

// Calls f.template operator()<Src>(member) for every member, Src its source element type.
template <class F>
void forEachMember(F f) {
  int i = 0;
#define KVL_EACH(Src, copySfx, flowSfx, code) f.template operator()<Src>(kMembers[i++]);
  KVL_OPTFLOW_MEMBERS(KVL_EACH)
#undef KVL_EACH
}
const FlowMember& nextMember(const FlowMember& m) {
  return kMembers[(&m - kMembers + 1) % std::size(kMembers)];
}

// The bilinear rule written out: four weights, terms with a zero fraction left out.
template <class Src>
float model(const Src* r0, const Src* r1, int x, float fx, float fy) {
  const float gx = 1.0f - fx, gy = 1.0f - fy;
  float v = static_cast<float>(r0[x]);
  if (fx == 0.0f && fy == 0.0f) return v;
  v = v * (gx * gy);
  if (fx != 0.0f) v = v + static_cast<float>(r0[x + 1]) * (fx * gy);
  if (fy != 0.0f) v = v + static_cast<float>(r1[x]) * (gx * fy);
  if (fx != 0.0f && fy != 0.0f) v = v + static_cast<float>(r1[x + 1]) * (fx * fy);
  return v;
}

const float kFractions[][2] = {{0, 0}, {0.25f, 0}, {0, 0.75f}, {0.3f, 0.6f}, {0.999f, 0.001f}};

// Every target against the model; the source ends at a guard page right after the last pixel
// the rule reads, so one more column or row read faults.
template <class Src>
void checkCopy(const FlowMember& m) {
  kvl::test::forEachTarget([&](int) {
    for (int w : {1, 2, 3, 5, 8, 9, 15, 16, 17, 23, 33, 40})
      for (const auto& f : kFractions) {
        const int h = 1 + w % 3, hx = f[0] > 0, hy = f[1] > 0;
        Image<Src> src(w + hx, h + hy, 0, w);
        Image<Kvl32f> dst(w, h, 1, w + 7);
        ASSERT_EQ(m.copy(src.roi(), src.step(), dst.roi(), dst.step(), {w, h}, f[0], f[1]), kvlStatusOk);
        std::vector<Kvl32f> want;
        for (int y = 0; y < h; ++y)
          for (int x = 0; x < w; ++x)
            want.push_back(model(src.at(0, y), hy ? src.at(0, y + 1) : nullptr, x, f[0], f[1]));
        ASSERT_TRUE(kvl::test::sameBytes(dst.pixels(), want, w)) << m.name << " w " << w;
        ASSERT_TRUE(dst.outsideUnchanged());
      }
  });
}

// Windows around and across a 13 x 9 image: the samples inside are the model's, the rectangle
// is their bounding box, everything else is left alone.
template <class Src>
void checkIntersect(const FlowMember& m) {
  kvl::test::forEachTarget([&](int) {
    const int W = 13, H = 9;
    Image<Src> src(W, H, 0, 3);
    for (KvliSize win : {KvliSize{5, 4}, KvliSize{20, 3}, KvliSize{1, 12}})
      for (float py : {-12.5f, -2.25f, 0.0f, 3.75f, 8.0f, 8.5f})
        for (float px : {-25.3f, -4.5f, -0.0001f, 0.0f, 2.2f, 9.0f, 12.0f, 12.5f}) {
          Image<Kvl32f> dst(win.width, win.height, 1, 5);
          KvliRect rect{-1, -1, -1, -1};
          ASSERT_EQ(m.intersect(src.roi(), src.step(), {W, H}, dst.roi(), dst.step(), win, {px, py}, &rect),
                    kvlStatusOk);
          const float cx = std::floor(px), cy = std::floor(py);
          const float fx = px - cx, fy = py - cy;
          std::vector<Kvl32f> want = dst.pixels();
          int x0 = win.width, y0 = win.height, x1 = -1, y1 = -1;
          for (int y = 0; y < win.height; ++y)
            for (int x = 0; x < win.width; ++x) {
              const int c = static_cast<int>(cx) + x, r = static_cast<int>(cy) + y;
              if (c < 0 || r < 0 || c + (fx > 0) > W - 1 || r + (fy > 0) > H - 1) continue;
              want[y * win.width + x] = model(src.at(0, r), src.at(0, std::min(r + 1, H - 1)), c, fx, fy);
              x0 = std::min(x0, x), y0 = std::min(y0, y), x1 = std::max(x1, x), y1 = std::max(y1, y);
            }
          const KvliRect e = x1 < 0 ? KvliRect{0, 0, 0, 0} : KvliRect{x0, y0, x1 - x0 + 1, y1 - y0 + 1};
          EXPECT_EQ(std::tie(rect.x, rect.y, rect.width, rect.height), std::tie(e.x, e.y, e.width, e.height))
              << px << "," << py;
          ASSERT_TRUE(kvl::test::sameBytes(dst.pixels(), want, win.width)) << px << "," << py;
          ASSERT_TRUE(dst.outsideUnchanged());
        }
  });
}

TEST(CopySubpix, BothFormsMatchTheBilinearModel) {
  forEachMember([]<class Src>(const FlowMember& m) {
    checkCopy<Src>(m);
    checkIntersect<Src>(m);
  });
}

// Each row mutates valid arguments; the first failing check decides and nothing is written.
// The copy's ROI and the window are 4 x 4 unless a row says otherwise; the intersecting form's
// source is 8 x 8.
TEST(CopySubpix, ValidationOrder) {
  struct Row {
    const char* what;
    bool nullSrc, nullRect;
    KvliSize roi, win;
    int srcStep, srcOdd, dstStep;  // source step in pixels, plus srcOdd bytes
    float fx, fy;
    KvlStatus copy, intersect, intersect8u;
  };
  const float nan = std::nanf(""), inf = INFINITY;
  constexpr KvlStatus kOk = kvlStatusOk, kNull = kvlStatusNullPointer, kSize = kvlStatusBadSize,
                      kStep = kvlStatusBadStep, kMult = kvlStatusStepNotMultiple,
                      kArg = kvlStatusBadArgument;
  // clang-format off
  const Row rows[] = {
      {"null source",        true,  false, {0, 4}, {0, 4}, 0, 0, 0,  2,    0,      kNull, kNull, kNull},
      {"null rectangle",     false, true,  {0, 4}, {0, 4}, 8, 0, 16, 0.5f, 0,      kSize, kNull, kNull},
      {"empty window",       false, false, {4, 4}, {4, 0}, 3, 0, 16, 0,    0,      kStep, kSize, kSize},
      {"short source step",  false, false, {9, 1}, {4, 4}, 7, 0, 36, 2,    0,      kStep, kStep, kStep},
      {"short dst step",     false, false, {4, 4}, {4, 4}, 8, 0, 15, 2,    0,      kStep, kStep, kStep},
      {"dst step 4w+2",      false, false, {4, 4}, {4, 4}, 8, 0, 18, 2,    0,      kMult, kMult, kMult},
      {"odd source step",    false, false, {4, 4}, {4, 4}, 8, 1, 16, 2,    0,      kMult, kMult, kOk},
      {"fraction 1",         false, false, {4, 4}, {4, 4}, 8, 0, 16, 1,    0,      kArg,  kOk,   kOk},
      {"negative fraction",  false, false, {4, 4}, {4, 4}, 8, 0, 16, 0,    -0.25f, kArg,  kOk,   kOk},
      {"NaN",                false, false, {4, 4}, {4, 4}, 8, 0, 16, nan,  0,      kArg,  kArg,  kArg},
      {"infinity",           false, false, {4, 4}, {4, 4}, 8, 0, 16, 0,    -inf,   kArg,  kArg,  kArg},
  };
  // clang-format on
  for (const FlowMember& m : kMembers)
    for (const Row& r : rows) {
      const bool u8 = m.elemBytes == 1;
      // 8u: any source step, then the fraction decides.
      const KvlStatus wantCopy = u8 && r.copy == kMult && r.srcOdd ? kArg : r.copy;
      Image<Kvl8u> src(9 * m.elemBytes + 1, 9, 0, 1);
      Image<Kvl32f> dst(9, 9, 0, 2);
      KvliRect rect{7, 7, 7, 7};
      const int sstep = r.srcStep * m.elemBytes + r.srcOdd;
      const void* s = r.nullSrc ? nullptr : src.roi();
      EXPECT_EQ(m.copy(s, sstep, dst.roi(), r.dstStep, r.roi, r.fx, r.fy), wantCopy) << m.name << " copy: " << r.what;
      EXPECT_TRUE(dst.unchanged()) << r.what;
      const KvlStatus si = m.intersect(s, sstep, {8, 8}, dst.roi(), r.dstStep, r.win, {r.fx, r.fy},
                                       r.nullRect ? nullptr : &rect);
      EXPECT_EQ(si, u8 ? r.intersect8u : r.intersect) << m.name << " intersect: " << r.what;
      if (si != kvlStatusOk) {
        EXPECT_TRUE(dst.unchanged() && rect.x == 7) << r.what;
      }
    }
}

// ---- The state. ----

TEST(OpticalFlowState, LayoutScratchSizeAndStatuses) {
  for (const FlowMember& m : kMembers) {
    SCOPED_TRACE(m.name);
    for (int threads : {1, 3}) {
      kvl::test::ThreadScope scope(threads);
      KvliOptFlowPyrLKState* st = nullptr;
      ASSERT_EQ(m.initAlloc(&st, {70, 45}, 9, -77), kvlStatusOk);
      int sh = 0, sv = 0;
      if (m.dataType == kvl8u) {
        kvliFilterScharrHorizGetBufferSize_8u16s_C1R({75, 50}, &sh);
        kvliFilterScharrVertGetBufferSize_8u16s_C1R({75, 50}, &sv);
      } else {
        kvliFilterScharrHorizGetBufferSize_32f_C1R({75, 50}, &sh);
        kvliFilterScharrVertGetBufferSize_32f_C1R({75, 50}, &sv);
      }
      // 4 (S + 2 (W + 5) (H + 5) + (4 L + 12) (L + 3) + (8 L + 24) (L + 3)) + 68 with L = 9.
      const int scratch = 4 * (std::max(sh, sv) + 2 * 75 * 50 + 48 * 12 + 96 * 12) + 68;
      EXPECT_EQ(std::tuple(st->roiWidth, st->roiHeight, st->word, st->dataType, st->hint, st->winSize, st->scratchBytes),
                std::tuple(70, 45, 1, m.dataType, -77, 9, scratch));
      EXPECT_NE(st->pScratch, nullptr);
      EXPECT_EQ(nextMember(m).release(st), kvlStatusBadContext);  // another member's Free refuses it
      EXPECT_EQ(m.release(st), kvlStatusOk);
    }
    KvliOptFlowPyrLKState* st = nullptr;
    EXPECT_EQ(m.initAlloc(nullptr, {0, 0}, 0, 0), kvlStatusNullPointer);
    EXPECT_EQ(m.initAlloc(&st, {5, 5}, 0, 0), kvlStatusBadSize);
    EXPECT_EQ(m.initAlloc(&st, {5, 0}, 3, 0), kvlStatusBadSize);
    EXPECT_EQ(m.initAlloc(&st, {65536, 65536}, 3, 0), kvlStatusNoMemory);  // over 2^31 bytes
    // The record's allocation, then the scratch's: nothing stays allocated (the sanitizer build
    // reports a leak otherwise) and *ppState is left alone.
    for (int before : {0, 1}) {
      gAllocsLeft = before;
      EXPECT_EQ(m.initAlloc(&st, {5, 5}, 3, 0), kvlStatusNoMemory);
      gAllocsLeft = -1;
      EXPECT_EQ(st, nullptr);
    }
    EXPECT_EQ(m.release(nullptr), kvlStatusNullPointer);
  }
}

// ---- Tracking. ----

// A smooth textured test scene: sums of sines, values in about 20 .. 230.
float scene(double x, double y) {
  return static_cast<float>(125.0 + 40.0 * std::sin(0.31 * x + 0.05 * y) +
                            35.0 * std::cos(0.23 * y - 0.11 * x) + 25.0 * std::sin(0.07 * x * 1.3 + 0.17 * y));
}

// The scene, the same moved by (sx, sy) (flat: a constant image), their pyramids, a state and the
// outputs of the last run. 16-bit frames use the whole range.
template <class Src>
struct Scene {
  static constexpr int kW = 96, kH = 80, kTop = 2, kWin = 9;
  static constexpr float kScale = sizeof(Src) == 2 ? 257.0f : 1.0f;
  const FlowMember& m;
  TestPyramid<Src> p1, p2;
  KvliOptFlowPyrLKState* st = nullptr;
  std::vector<KvliPoint32f> next;
  std::vector<Kvl8s> status;
  std::vector<Kvl32f> error;
  Scene(const FlowMember& member, double sx, double sy, bool flat = false)
      : m(member), p1(frame(0, 0, flat), kW, kH, kTop), p2(frame(sx, sy, flat), kW, kH, kTop) {
    EXPECT_EQ(m.initAlloc(&st, {kW, kH}, kWin, 0), kvlStatusOk);
  }
  ~Scene() { m.release(st); }
  static std::vector<float> frame(double sx, double sy, bool flat) {
    std::vector<float> f(static_cast<size_t>(kW) * kH);
    for (int y = 0; y < kH; ++y)
      for (int x = 0; x < kW; ++x)
        f[static_cast<size_t>(y) * kW + x] = kScale * (flat ? 100.0f : scene(x - sx, y - sy));
    return f;
  }
  KvlStatus run(const std::vector<KvliPoint32f>& prev, int maxLev, int maxIter, float threshold) {
    next.assign(prev.size(), {-1, -1});
    status.assign(prev.size(), 99);
    error.assign(prev.size(), -1);
    return m.track(p1.get(), p2.get(), prev.data(), next.data(), status.data(), error.data(),
                   static_cast<int>(prev.size()), kWin, maxLev, maxIter, threshold, st);
  }
};

const std::vector<KvliPoint32f> kPoints = {{40.5f, 33.25f}, {20, 20}, {71.3f, 52.9f}, {48, 60.5f}};

template <class Src>
void checkTracking(const FlowMember& m) {
  // Identical frames: no motion at all, for every maxLev and threshold 0 too. A point whose
  // window lies outside the image is lost at the first level processed.
  {
    Scene<Src> s(m, 0, 0);
    std::vector<KvliPoint32f> pts = kPoints;
    pts.push_back({-30, 40});
    for (int maxLev : {0, 2})
      for (float threshold : {0.0f, 0.01f}) {
        ASSERT_EQ(s.run(pts, maxLev, 20, threshold), kvlStatusOk);
        for (size_t i = 0; i < kPoints.size(); ++i) {
          EXPECT_TRUE(s.status[i] == 0 && s.error[i] == 0.0f) << i;
          EXPECT_TRUE(s.next[i].x == pts[i].x && s.next[i].y == pts[i].y) << i;
        }
        EXPECT_TRUE(s.status.back() == maxLev + 1 && s.error.back() == 0.0f);
      }
  }
  // A flat image: det 0, lost at the first level processed, error 0, the estimate kept.
  {
    Scene<Src> s(m, 0, 0, true);
    for (int maxLev : {0, 1, 2}) {
      ASSERT_EQ(s.run(kPoints, maxLev, 20, 0.01f), kvlStatusOk);
      for (size_t i = 0; i < kPoints.size(); ++i)
        EXPECT_TRUE(s.status[i] == maxLev + 1 && s.error[i] == 0.0f && s.next[i].x == kPoints[i].x) << i;
    }
  }
  // Known moves, recovered at a grid of points (more than the tracker takes in one batch): a
  // small one by level 0 alone and through the pyramid, and one that only the coarser levels find
  // (almost twice the half window; the bilinear samples of the sines err more there).
  std::vector<KvliPoint32f> grid;
  for (float y = 18.5f; y < 64; y += 10) {
    for (float x = 18.25f; x < 80; x += 12) grid.push_back({x, y});
  }
  for (const auto& [sx, sy, maxLev, tol] :
       {std::tuple{1.35, -0.6, 0, 0.05}, {1.35, -0.6, 2, 0.05}, {-7.5, 6.25, 2, 0.1}}) {
    Scene<Src> s(m, sx, sy);
    ASSERT_EQ(s.run(grid, maxLev, 30, 0.001f), kvlStatusOk);
    for (size_t i = 0; i < grid.size(); ++i) {
      SCOPED_TRACE(testing::Message() << m.name << " move " << sx << ", " << sy << " maxLev " << maxLev << " point " << i);
      EXPECT_EQ(s.status[i], 0);
      EXPECT_NEAR(s.next[i].x, grid[i].x + sx, tol);
      EXPECT_NEAR(s.next[i].y, grid[i].y + sy, tol);
      EXPECT_TRUE(s.error[i] > 0.0f && s.error[i] < 2.0f * Scene<Src>::kScale) << s.error[i];
    }
  }
}

TEST(OpticalFlow, IdenticalFlatAndMovedScenes) {
  forEachMember([]<class Src>(const FlowMember& m) { checkTracking<Src>(m); });
}

// pNext may be pPrev itself; a partial overlap is refused.
TEST(OpticalFlow, InPlacePoints) {
  Scene<Kvl8u> s(kMembers[0], 0.5, 0.25);
  ASSERT_EQ(s.run(kPoints, 1, 10, 0.01f), kvlStatusOk);
  std::vector<KvliPoint32f> pts = kPoints;
  const int n = static_cast<int>(pts.size());
  ASSERT_EQ(kvliOpticalFlowPyrLK_8u_C1R(s.p1.get(), s.p2.get(), pts.data(), pts.data(), s.status.data(),
                                        s.error.data(), n, 9, 1, 10, 0.01f, s.st),
            kvlStatusOk);
  EXPECT_EQ(std::memcmp(pts.data(), s.next.data(), sizeof(KvliPoint32f) * n), 0);
  EXPECT_EQ(kvliOpticalFlowPyrLK_8u_C1R(s.p1.get(), s.p2.get(), pts.data(), pts.data() + 1, s.status.data(),
                                        s.error.data(), n - 1, 9, 1, 10, 0.01f, s.st),
            kvlStatusInPlaceNotSupported);
}

// Each row breaks one thing of a valid call; the first failing check decides and no output
// changes. The level bytes do not matter here: the pyramids hold floats, their steps are the
// member's element size per pixel.
TEST(OpticalFlow, ValidationOrder) {
  struct Call {
    TestPyramid<Kvl32f>& b;  // the next pyramid, made afresh for each row
    const KvliPyramid* pyr2;
    KvliOptFlowPyrLKState *state, *other;  // the member's state and another member's
    bool nullError = false;
    int numFeat = 3, winSize = 7, maxLev = 2, maxIter = 5;
    float threshold = 0.01f;
  };
  struct Row {
    const char* what;
    void (*mutate)(Call&);
    KvlStatus want;  // kvlStatusStepNotMultiple: kvlStatusBadArgument for 8u (the rate decides)
  };
  // clang-format off
  const Row rows[] = {
      {"null pyramid and bad size", [](Call& c) { c.pyr2 = nullptr; c.numFeat = 0; }, kvlStatusNullPointer},
      {"null state",      [](Call& c) { c.state = nullptr; c.maxLev = -1; }, kvlStatusNullPointer},
      {"null error",      [](Call& c) { c.nullError = true; }, kvlStatusNullPointer},
      {"no points",       [](Call& c) { c.numFeat = 0; c.state = c.other; }, kvlStatusBadSize},
      {"window 0",        [](Call& c) { c.winSize = 0; c.maxIter = 0; }, kvlStatusBadSize},
      {"other state",     [](Call& c) { c.state = c.other; c.winSize = 9; }, kvlStatusBadContext},
      {"window of state", [](Call& c) { c.winSize = 9; c.maxLev = -1; }, kvlStatusBadSize},
      {"maxLev -1",       [](Call& c) { c.maxLev = -1; }, kvlStatusBadArgument},
      {"maxIter 0",       [](Call& c) { c.maxIter = 0; }, kvlStatusBadArgument},
      {"NaN threshold",   [](Call& c) { c.threshold = std::nanf(""); }, kvlStatusBadArgument},
      {"maxLev above",    [](Call& c) { c.maxLev = 3; c.b.images[0] = nullptr; }, kvlStatusBadArgument},
      {"null level 2",    [](Call& c) { c.b.images[2] = nullptr; c.b.rois[0].width = 0; }, kvlStatusNullPointer},
      {"null rates",      [](Call& c) { c.b.rec.pRate = nullptr; }, kvlStatusNullPointer},
      {"level 1 empty",   [](Call& c) { c.b.rois[1].height = 0; c.b.steps[0] = 1; }, kvlStatusBadSize},
      {"level 0 too big", [](Call& c) { c.b.rois[0].width = 65; c.b.steps[0] = 1000; }, kvlStatusBadSize},
      {"short step",      [](Call& c) { c.b.steps[2] -= 1; c.b.rates[1] = 0; }, kvlStatusBadStep},
      {"step + 1",        [](Call& c) { c.b.steps[1] += 1; c.b.rates[1] = 0; }, kvlStatusStepNotMultiple},
      {"rate 0",          [](Call& c) { c.b.rates[1] = 0; }, kvlStatusBadArgument},
      {"rate NaN",        [](Call& c) { c.b.rates[2] = std::nan(""); }, kvlStatusBadArgument},
  };
  // clang-format on
  const std::vector<float> base(64 * 48, 1.0f);
  for (const FlowMember& m : kMembers) {
    SCOPED_TRACE(m.name);
    KvliOptFlowPyrLKState *st = nullptr, *other = nullptr;
    ASSERT_EQ(m.initAlloc(&st, {64, 48}, 7, 0), kvlStatusOk);
    ASSERT_EQ(nextMember(m).initAlloc(&other, {64, 48}, 7, 0), kvlStatusOk);
    TestPyramid<Kvl32f> a(base, 64, 48, 2, m.elemBytes);
    for (const Row& r : rows) {
      TestPyramid<Kvl32f> b(base, 64, 48, 2, m.elemBytes);
      Call c{b, b.get(), st, other};
      r.mutate(c);
      const KvlStatus want = r.want == kvlStatusStepNotMultiple && m.elemBytes == 1 ? kvlStatusBadArgument : r.want;
      std::vector<KvliPoint32f> prev = {{10, 10}, {30, 20}, {50, 40}}, next(3, {-1, -1});
      std::vector<Kvl8s> status(3, 9);
      std::vector<Kvl32f> error(3, -1);
      EXPECT_EQ(m.track(a.get(), c.pyr2, prev.data(), next.data(), status.data(), c.nullError ? nullptr : error.data(),
                        c.numFeat, c.winSize, c.maxLev, c.maxIter, c.threshold, c.state),
                want)
          << r.what;
      EXPECT_TRUE(next[0].x == -1 && status[0] == 9 && error[0] == -1) << r.what;
    }
    m.release(st);
    nextMember(m).release(other);
  }
}

}  // namespace
