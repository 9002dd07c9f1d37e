// Pyramidal Lucas-Kanade tracking of 1000 textured points of the sample photograph into a copy
// moved by (2.3, -1.7) pixels: window 21, levels 0..2, at most 30 steps, threshold 0.01, the
// pyramids built beforehand on both sides. The 8u member runs against the peer's tracker (which
// computes its derivatives in the call as well: its pyramid is built without them) with 1 and 2
// permitted threads; every member also runs against the library's scalar reference.
#include <memory>

#include "bench.h"
#include "image_io.h"
#include "lk_frames.h"
#include "pyramid/flow_support.h"
#include "pyramid/optical_flow_members.h"

#ifdef KVL_HAVE_OPENCV_VIDEO
#include <opencv2/video/tracking.hpp>
#endif

namespace kvl::bench {
namespace {

constexpr int kPoints = 1000, kWin = 21, kMaxLev = 2, kMaxIter = 30;
constexpr float kThreshold = 0.01f;
constexpr double kShiftX = 2.3, kShiftY = -1.7;

// The photograph as float grey, its moved copy and the points, made once.
struct Frames {
  int w = 0, h = 0;
  std::vector<float> a, b;
  std::vector<KvliPoint32f> points;
};
const Frames& frames() {
  static const Frames f = [] {
    Frames r;
    kvlcli::Picture p;
    if (!kvlcli::readImage(KVL_SOURCE_DIR "/data/astronaut.png", &p).empty()) return r;
    const std::vector<uint8_t> g = kvlcli::greySamples(p);
    r.w = p.width, r.h = p.height;
    r.a.assign(g.begin(), g.end());
    r.b = shifted(r.a, r.w, r.h, kShiftX, kShiftY);
    r.points = texturedPoints(r.a, r.w, r.h, kPoints, 6, 24, 7);
    return r;
  }();
  return f;
}

template <class Src>
struct Run {
  test::TestPyramid<Src> p1, p2;
  KvliOptFlowPyrLKState* st = nullptr;
  std::vector<KvliPoint32f> next;
  std::vector<Kvl8s> status;
  std::vector<Kvl32f> error;
  const pyramid::FlowMember& m;
  Run(const Frames& f, const pyramid::FlowMember& member)
      : p1(scaled(f.a), f.w, f.h, kMaxLev), p2(scaled(f.b), f.w, f.h, kMaxLev), m(member) {
    m.initAlloc(&st, {f.w, f.h}, kWin, 0);
    next.resize(f.points.size());
    status.resize(f.points.size());
    error.resize(f.points.size());
  }
  ~Run() { m.release(st); }
  // 16u frames use the whole range (x 257).
  static std::vector<float> scaled(std::vector<float> v) {
    if (sizeof(Src) == 2)
      for (float& x : v) x *= 257.0f;
    return v;
  }
  void track(const Frames& f) {
    m.track(p1.get(), p2.get(), f.points.data(), next.data(), status.data(), error.data(),
            static_cast<int>(f.points.size()), kWin, kMaxLev, kMaxIter, kThreshold, st);
  }
};

const pyramid::FlowMember kMembers[] = {KVL_OPTFLOW_MEMBERS(KVL_OPTFLOW_MEMBER_RECORD)};

template <class Src>
Body kvlBody(const pyramid::FlowMember& m) {
  auto run = std::make_shared<std::unique_ptr<Run<Src>>>();
  return [run, &m](benchmark::State& st) {
    const Frames& f = frames();
    if (f.w == 0) {
      st.SkipWithError("the sample photograph could not be read");
      return;
    }
    if (!*run) *run = std::make_unique<Run<Src>>(f, m);
    for (auto _ : st) (*run)->track(f);
  };
}

const bool registered = [] {
  const std::string tail = "/astronaut_1000pts_win21_3levels";
#define KVL_REGISTER(Src, copySfx, flowSfx, code)                                              \
  {                                                                                             \
    const pyramid::FlowMember* m = nullptr;                                                     \
    for (const auto& r : kMembers)                                                              \
      if (std::string(r.name) == #flowSfx) m = &r;                                              \
    versusReference("OpticalFlowPyrLK_" #flowSfx "_C1R" + tail, kPoints, kvlBody<Src>(*m));     \
  }
  KVL_OPTFLOW_MEMBERS(KVL_REGISTER)
#undef KVL_REGISTER
  for (int threads : {1, 2}) {
    Body peer = nullptr;
#ifdef KVL_HAVE_OPENCV_VIDEO
    auto pyrs = std::make_shared<std::vector<cv::Mat>>();
    peer = [pyrs](benchmark::State& st) {
      const Frames& f = frames();
      if (f.w == 0) {
        st.SkipWithError("the sample photograph could not be read");
        return;
      }
      static std::vector<cv::Mat> p1, p2;
      if (p1.empty()) {
        cv::Mat a(f.h, f.w, CV_32F, const_cast<float*>(f.a.data())), b(f.h, f.w, CV_32F, const_cast<float*>(f.b.data()));
        cv::Mat a8, b8;
        a.convertTo(a8, CV_8U);
        b.convertTo(b8, CV_8U);
        cv::buildOpticalFlowPyramid(a8, p1, cv::Size(kWin, kWin), kMaxLev, false);
        cv::buildOpticalFlowPyramid(b8, p2, cv::Size(kWin, kWin), kMaxLev, false);
      }
      std::vector<cv::Point2f> prev, next;
      for (const KvliPoint32f& p : f.points) prev.push_back({p.x, p.y});
      std::vector<uchar> status;
      std::vector<float> error;
      const cv::TermCriteria tc(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, kMaxIter, kThreshold);
      for (auto _ : st)
        cv::calcOpticalFlowPyrLK(p1, p2, prev, next, status, error, cv::Size(kWin, kWin), kMaxLev, tc);
    };
#endif
    pair("OpticalFlowPyrLK_8u_C1R" + tail, threads, kPoints, kvlBody<Kvl8u>(kMembers[0]), peer);
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
