// Sub-pixel copies and the Lucas-Kanade tracker over the member table: the copies against a
// plain bilinear model on every target, the state's layout and scratch size, the validation
// orders, allocation failures, and the tracker's rules on synthetic scenes.
#include "pyramid/optical_flow.h"

#include <dlfcn.h>

#include <atomic>
#include <cmath>
#include <cstring>
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

template <class Src>
const FlowMember& memberOf() {
  for (const FlowMember& m : kMembers)
    if (m.elemBytes == static_cast<int>(sizeof(Src)) && m.real == std::is_floating_point_v<Src>)
      return m;
  return kMembers[0];
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
        ASSERT_EQ(m.copy(src.roi(), src.step(), dst.roi(), dst.step(), {w, h}, f[0], f[1]),
                  kvlStatusOk);
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
          ASSERT_EQ(m.intersect(src.roi(), src.step(), {W, H}, dst.roi(), dst.step(), win,
                                {px, py}, &rect),
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
          const KvliRect expect = x1 < 0 ? KvliRect{0, 0, 0, 0} : KvliRect{x0, y0, x1 - x0 + 1, y1 - y0 + 1};
          EXPECT_TRUE(rect.x == expect.x && rect.y == expect.y && rect.width == expect.width &&
                      rect.height == expect.height)
              << px << "," << py << ": " << rect.x << " " << rect.y << " " << rect.width << " " << rect.height;
          ASSERT_TRUE(kvl::test::sameBytes(dst.pixels(), want, win.width)) << px << "," << py;
          ASSERT_TRUE(dst.outsideUnchanged());
        }
  });
}

TEST(CopySubpix, MatchesBilinearModel) {
#define KVL_CHECK(Src, copySfx, flowSfx, code) checkCopy<Src>(memberOf<Src>());
  KVL_OPTFLOW_MEMBERS(KVL_CHECK)
#undef KVL_CHECK
}

TEST(CopySubpix, IntersectWritesTheInsidePart) {
#define KVL_CHECK(Src, copySfx, flowSfx, code) checkIntersect<Src>(memberOf<Src>());
  KVL_OPTFLOW_MEMBERS(KVL_CHECK)
#undef KVL_CHECK
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
      KvlStatus wantCopy = r.copy;
      if (u8 && wantCopy == kMult && r.srcOdd) wantCopy = kArg;  // 8u: any step, then the fraction
      Image<Kvl8u> src(9 * m.elemBytes + 1, 9, 0, 1);
      Image<Kvl32f> dst(9, 9, 0, 2);
      KvliRect rect{7, 7, 7, 7};
      const int sstep = r.srcStep * m.elemBytes + r.srcOdd;
      EXPECT_EQ(m.copy(r.nullSrc ? nullptr : src.roi(), sstep, dst.roi(), r.dstStep, r.roi, r.fx, r.fy),
                wantCopy)
          << m.name << " copy: " << r.what;
      EXPECT_TRUE(dst.unchanged()) << r.what;
      const KvlStatus si = m.intersect(r.nullSrc ? nullptr : src.roi(), sstep, {8, 8}, dst.roi(),
                                       r.dstStep, r.win, {r.fx, r.fy}, r.nullRect ? nullptr : &rect);
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
      const int scratch = 4 * (std::max(sh, sv) + 2 * 75 * 50 + 48 * 12 + 96 * 12) + 68;
      EXPECT_EQ(st->roiWidth, 70);
      EXPECT_EQ(st->roiHeight, 45);
      EXPECT_EQ(st->word, 1);
      EXPECT_EQ(st->dataType, m.dataType);
      EXPECT_EQ(st->hint, -77);
      EXPECT_EQ(st->winSize, 9);
      EXPECT_EQ(st->scratchBytes, scratch);
      EXPECT_NE(st->pScratch, nullptr);
      // Another member's Free refuses the state.
      const FlowMember& other = kMembers[(&m - kMembers + 1) % std::size(kMembers)];
      EXPECT_EQ(other.release(st), kvlStatusBadContext);
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

// A scene, its pyramids and a state, for one member.
template <class Src>
struct Scene {
  static constexpr int kW = 96, kH = 80, kTop = 2, kWin = 9;
  std::vector<float> a, b;
  TestPyramid<Src> p1, p2;
  KvliOptFlowPyrLKState* st = nullptr;
  // next = the scene moved by (sx, sy); flat: a constant image.
  Scene(double sx, double sy, bool flat = false)
      : a(frame(0, 0, flat)), b(frame(sx, sy, flat)), p1(a, kW, kH, kTop), p2(b, kW, kH, kTop) {
    EXPECT_EQ(memberOf<Src>().initAlloc(&st, {kW, kH}, kWin, 0), kvlStatusOk);
  }
  ~Scene() { memberOf<Src>().release(st); }
  static std::vector<float> frame(double sx, double sy, bool flat) {
    std::vector<float> f(static_cast<size_t>(kW) * kH);
    for (int y = 0; y < kH; ++y)
      for (int x = 0; x < kW; ++x)
        f[static_cast<size_t>(y) * kW + x] = flat ? 100.0f : kvl::test::scene(x - sx, y - sy);
    return f;
  }
  KvlStatus run(const std::vector<KvliPoint32f>& prev, std::vector<KvliPoint32f>& next,
                std::vector<Kvl8s>& status, std::vector<Kvl32f>& error, int maxLev, int maxIter,
                float threshold) {
    next.assign(prev.size(), {-1, -1});
    status.assign(prev.size(), 99);
    error.assign(prev.size(), -1);
    return memberOf<Src>().track(p1.get(), p2.get(), prev.data(), next.data(), status.data(),
                                 error.data(), static_cast<int>(prev.size()), kWin, maxLev,
                                 maxIter, threshold, st);
  }
};

const std::vector<KvliPoint32f> kPoints = {{40.5f, 33.25f}, {20, 20}, {71.3f, 52.9f}, {48, 60.5f}};

template <class Src>
void checkTracking() {
  std::vector<KvliPoint32f> next;
  std::vector<Kvl8s> status;
  std::vector<Kvl32f> error;
  // Identical frames: no motion at all, for every maxLev and threshold 0 too.
  {
    Scene<Src> s(0, 0);
    for (int maxLev : {0, 2})
      for (float threshold : {0.0f, 0.01f}) {
        ASSERT_EQ(s.run(kPoints, next, status, error, maxLev, 20, threshold), kvlStatusOk);
        for (size_t i = 0; i < kPoints.size(); ++i) {
          EXPECT_EQ(status[i], 0);
          EXPECT_EQ(error[i], 0.0f);
          EXPECT_EQ(next[i].x, kPoints[i].x);
          EXPECT_EQ(next[i].y, kPoints[i].y);
        }
      }
  }
  // A flat image: det 0, lost at the first level processed, error 0, the estimate kept.
  {
    Scene<Src> s(0, 0, true);
    for (int maxLev : {0, 1, 2}) {
      ASSERT_EQ(s.run(kPoints, next, status, error, maxLev, 20, 0.01f), kvlStatusOk);
      for (size_t i = 0; i < kPoints.size(); ++i) {
        EXPECT_EQ(status[i], maxLev + 1);
        EXPECT_EQ(error[i], 0.0f);
        EXPECT_EQ(next[i].x, kPoints[i].x);
      }
    }
  }
  // A sub-pixel move, recovered by level 0 alone and through the pyramid; a point whose window
  // leaves the image at level 0 is lost there (status 1).
  {
    Scene<Src> s(1.35, -0.6);
    std::vector<KvliPoint32f> pts = kPoints;
    pts.push_back({-30, 40});
    for (int maxLev : {0, 2}) {
      ASSERT_EQ(s.run(pts, next, status, error, maxLev, 30, 0.001f), kvlStatusOk);
      for (size_t i = 0; i < kPoints.size(); ++i) {
        EXPECT_EQ(status[i], 0) << i;
        EXPECT_NEAR(next[i].x, pts[i].x + 1.35f, 0.1f) << i;
        EXPECT_NEAR(next[i].y, pts[i].y - 0.6f, 0.1f) << i;
        EXPECT_GT(error[i], 0.0f);
        EXPECT_LT(error[i], 2.0f);
      }
      EXPECT_EQ(status.back(), maxLev + 1);
    }
  }
  // Every target gives the same bytes (one case here; the fuzz replay sweeps the rest).
  {
    Scene<Src> s(3.2, 2.7);
    std::vector<std::vector<uint8_t>> runs;
    kvl::test::forEachTarget([&](int) {
      ASSERT_EQ(s.run(kPoints, next, status, error, 2, 30, 0.0f), kvlStatusOk);
      std::vector<uint8_t> bytes(reinterpret_cast<uint8_t*>(next.data()),
                                 reinterpret_cast<uint8_t*>(next.data() + next.size()));
      bytes.insert(bytes.end(), reinterpret_cast<uint8_t*>(error.data()),
                   reinterpret_cast<uint8_t*>(error.data() + error.size()));
      runs.push_back(bytes);
    });
    for (const auto& r : runs) EXPECT_EQ(r, runs[0]);
  }
}

TEST(OpticalFlow, IdenticalFlatAndShiftedScenes) {
#define KVL_CHECK(Src, copySfx, flowSfx, code) checkTracking<Src>();
  KVL_OPTFLOW_MEMBERS(KVL_CHECK)
#undef KVL_CHECK
}

// pNext may be pPrev itself; a partial overlap is refused.
TEST(OpticalFlow, InPlacePoints) {
  Scene<Kvl8u> s(0.5, 0.25);
  std::vector<KvliPoint32f> pts = kPoints, want;
  std::vector<Kvl8s> status(pts.size());
  std::vector<Kvl32f> error(pts.size());
  ASSERT_EQ(s.run(kPoints, want, status, error, 1, 10, 0.01f), kvlStatusOk);
  const int n = static_cast<int>(pts.size());
  ASSERT_EQ(kvliOpticalFlowPyrLK_8u_C1R(s.p1.get(), s.p2.get(), pts.data(), pts.data(), status.data(),
                                        error.data(), n, 9, 1, 10, 0.01f, s.st),
            kvlStatusOk);
  EXPECT_EQ(std::memcmp(pts.data(), want.data(), sizeof(KvliPoint32f) * n), 0);
  EXPECT_EQ(kvliOpticalFlowPyrLK_8u_C1R(s.p1.get(), s.p2.get(), pts.data(), pts.data() + 1,
                                        status.data(), error.data(), n - 1, 9, 1, 10, 0.01f, s.st),
            kvlStatusInPlaceNotSupported);
}

// Each row breaks one thing of a valid call; the first failing check decides and no output
// changes.
TEST(OpticalFlow, ValidationOrder) {
  for (const FlowMember& m : kMembers) {
    SCOPED_TRACE(m.name);
    // Valid pyramids of any member's element size: the bytes do not matter here.
    std::vector<float> base(64 * 48, 1.0f);
    TestPyramid<Kvl32f> p1(base, 64, 48, 2), p2(base, 64, 48, 2);
    for (auto* p : {&p1, &p2})
      for (int k = 0; k <= 2; ++k) p->steps()[k] = p->rois()[k].width * m.elemBytes;
    KvliOptFlowPyrLKState *st = nullptr, *other = nullptr;
    ASSERT_EQ(m.initAlloc(&st, {64, 48}, 7, 0), kvlStatusOk);
    ASSERT_EQ(kMembers[(&m - kMembers + 1) % std::size(kMembers)].initAlloc(&other, {64, 48}, 7, 0),
              kvlStatusOk);
    struct Call {
      const KvliPyramid *a, *b;
      bool nullPrev = false, nullNext = false, nullStatus = false, nullError = false;
      int numFeat = 3, winSize = 7, maxLev = 2, maxIter = 5;
      float threshold = 0.01f;
      KvliOptFlowPyrLKState* state = nullptr;
    };
    using Mutate = void (*)(Call&, TestPyramid<Kvl32f>&, KvliOptFlowPyrLKState*);
    struct Row {
      const char* what;
      Mutate mutate;
      KvlStatus want;
    };
    // clang-format off
    const Row rows[] = {
        {"null pyramid and bad size", [](Call& c, auto&, auto) { c.b = nullptr; c.numFeat = 0; }, kvlStatusNullPointer},
        {"null state",      [](Call& c, auto&, auto) { c.state = nullptr; c.maxLev = -1; }, kvlStatusNullPointer},
        {"null error",      [](Call& c, auto&, auto) { c.nullError = true; }, kvlStatusNullPointer},
        {"no points",       [](Call& c, auto&, auto o) { c.numFeat = 0; c.state = o; }, kvlStatusBadSize},
        {"window 0",        [](Call& c, auto&, auto) { c.winSize = 0; c.maxIter = 0; }, kvlStatusBadSize},
        {"other state",     [](Call& c, auto&, auto o) { c.state = o; c.winSize = 9; }, kvlStatusBadContext},
        {"window of state", [](Call& c, auto&, auto) { c.winSize = 9; c.maxLev = -1; }, kvlStatusBadSize},
        {"maxLev -1",       [](Call& c, auto&, auto) { c.maxLev = -1; }, kvlStatusBadArgument},
        {"maxIter 0",       [](Call& c, auto&, auto) { c.maxIter = 0; }, kvlStatusBadArgument},
        {"NaN threshold",   [](Call& c, auto&, auto) { c.threshold = std::nanf(""); }, kvlStatusBadArgument},
        {"maxLev above",    [](Call& c, auto& p, auto) { c.maxLev = 3; p.images()[0] = nullptr; }, kvlStatusBadArgument},
        {"null level 2",    [](Call&, auto& p, auto) { p.images()[2] = nullptr; p.rois()[0].width = 0; }, kvlStatusNullPointer},
        {"null rates",      [](Call&, auto& p, auto) { p.record().pRate = nullptr; }, kvlStatusNullPointer},
        {"level 1 empty",   [](Call&, auto& p, auto) { p.rois()[1].height = 0; p.steps()[0] = 1; }, kvlStatusBadSize},
        {"level 0 too big", [](Call&, auto& p, auto) { p.rois()[0].width = 65; p.steps()[0] = 1000; }, kvlStatusBadSize},
        {"short step",      [](Call&, auto& p, auto) { p.steps()[2] -= 1; p.rates()[1] = 0; }, kvlStatusBadStep},
        {"rate 0",          [](Call&, auto& p, auto) { p.rates()[1] = 0; }, kvlStatusBadArgument},
        {"rate NaN",        [](Call&, auto& p, auto) { p.rates()[2] = std::nan(""); }, kvlStatusBadArgument},
    };
    // clang-format on
    for (const Row& r : rows) {
      TestPyramid<Kvl32f> q(base, 64, 48, 2);
      for (int k = 0; k <= 2; ++k) q.steps()[k] = q.rois()[k].width * m.elemBytes;
      Call c{p1.get(), q.get()};
      c.state = st;
      r.mutate(c, q, other);
      std::vector<KvliPoint32f> prev = {{10, 10}, {30, 20}, {50, 40}}, next(3, {-1, -1});
      std::vector<Kvl8s> status(3, 9);
      std::vector<Kvl32f> error(3, -1);
      EXPECT_EQ(m.track(c.a, c.b, c.nullPrev ? nullptr : prev.data(), c.nullNext ? nullptr : next.data(),
                        c.nullStatus ? nullptr : status.data(), c.nullError ? nullptr : error.data(),
                        c.numFeat, c.winSize, c.maxLev, c.maxIter, c.threshold, c.state),
                r.want)
          << r.what;
      EXPECT_TRUE(next[0].x == -1 && status[0] == 9 && error[0] == -1) << r.what;
    }
    // A 16u or 32f level step that is not an element multiple.
    if (m.elemBytes > 1) {
      TestPyramid<Kvl32f> q(base, 64, 48, 2);
      for (int k = 0; k <= 2; ++k) q.steps()[k] = q.rois()[k].width * m.elemBytes;
      q.steps()[1] += 1;
      std::vector<KvliPoint32f> pts(3, {9, 9}), next(3);
      std::vector<Kvl8s> status(3);
      std::vector<Kvl32f> error(3);
      EXPECT_EQ(m.track(p1.get(), q.get(), pts.data(), next.data(), status.data(), error.data(), 3, 7,
                        2, 5, 0.01f, st),
                kvlStatusStepNotMultiple);
    }
    m.release(st);
    kMembers[(&m - kMembers + 1) % std::size(kMembers)].release(other);
  }
}

}  // namespace
