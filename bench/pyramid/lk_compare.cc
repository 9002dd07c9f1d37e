// Compares kvlCV's tracker with the peer's on the sample photograph and copies of it moved by
// known amounts: both track the same 1000 textured points through the same pyramid levels (the
// peer's, which the kvlCV pyramid record points at), window 21, levels 0..2, at most 30 steps,
// threshold 0.01. Prints, per move, how many points each tracked, the median and the worst
// distance between the two results, and each one's mean distance from the true move.
//
//   kvlcv_lk_compare
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/video/tracking.hpp>

#include "image_io.h"
#include "kvlcv.h"
#include "lk_frames.h"
#include "pyramid/flow_support.h"

namespace {

constexpr int kWin = 21, kMaxLev = 2, kMaxIter = 30;
constexpr float kThreshold = 0.01f;

// A KvliPyramid record over the peer's level images.
struct Record {
  std::vector<Kvl8u*> images;
  std::vector<KvliSize> rois;
  std::vector<double> rates;
  std::vector<int> steps;
  KvliPyramid rec{};
  explicit Record(std::vector<cv::Mat>& levels) {
    for (size_t k = 0; k < levels.size(); ++k) {
      images.push_back(levels[k].data);
      rois.push_back({levels[k].cols, levels[k].rows});
      rates.push_back(std::ldexp(1.0, -static_cast<int>(k)));
      steps.push_back(static_cast<int>(levels[k].step));
    }
    rec = {images.data(), rois.data(), rates.data(), steps.data(), nullptr,
           static_cast<int>(levels.size()) - 1};
  }
};

cv::Mat to8u(const std::vector<float>& v, int w, int h) {
  cv::Mat m(h, w, CV_8U);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      m.at<uint8_t>(y, x) = kvl::test::fromFloat<Kvl8u>(v[static_cast<size_t>(y) * w + x]);
  return m;
}

}  // namespace

int main() {
  kvlcli::Picture pic;
  const std::string err = kvlcli::readImage(KVL_SOURCE_DIR "/data/astronaut.png", &pic);
  if (!err.empty()) {
    std::fprintf(stderr, "kvlcv_lk_compare: %s\n", err.c_str());
    return 1;
  }
  const std::vector<uint8_t> g = kvlcli::greySamples(pic);
  const int w = pic.width, h = pic.height;
  const std::vector<float> a(g.begin(), g.end());
  const std::vector<KvliPoint32f> pts = kvl::bench::texturedPoints(a, w, h, 1000, 6, 24, 7);
  std::vector<cv::Point2f> cvPts;
  for (const KvliPoint32f& p : pts) cvPts.push_back({p.x, p.y});
  KvliOptFlowPyrLKState* st = nullptr;
  if (kvliOpticalFlowPyrLKInitAlloc_8u_C1R(&st, {w, h}, kWin, 0) != kvlStatusOk) return 1;
  std::vector<cv::Mat> prevPyr;
  const cv::Mat prev = to8u(a, w, h);
  cv::buildOpticalFlowPyramid(prev, prevPyr, cv::Size(kWin, kWin), kMaxLev, false);
  Record prevRec(prevPyr);
  std::printf("sample photograph %dx%d, %zu points, window %d, levels 0..%d, %d steps, threshold %g\n\n",
              w, h, pts.size(), kWin, kMaxLev, kMaxIter, kThreshold);
  std::printf("%-16s %8s %8s %8s %12s %12s %14s %14s\n", "move", "kvl ok", "peer ok", "both",
              "median diff", "worst diff", "kvl mean err", "peer mean err");
  std::vector<double> all;
  for (const auto& [sx, sy] : {std::pair{0.3, -0.7}, {2.3, -1.7}, {-6.4, 4.1}, {11.25, 7.5}}) {
    const cv::Mat next = to8u(kvl::bench::shifted(a, w, h, sx, sy), w, h);
    std::vector<cv::Mat> nextPyr;
    cv::buildOpticalFlowPyramid(next, nextPyr, cv::Size(kWin, kWin), kMaxLev, false);
    Record nextRec(nextPyr);
    std::vector<KvliPoint32f> ours(pts.size());
    std::vector<Kvl8s> status(pts.size());
    std::vector<Kvl32f> error(pts.size());
    if (kvliOpticalFlowPyrLK_8u_C1R(&prevRec.rec, &nextRec.rec, pts.data(), ours.data(), status.data(),
                                    error.data(), static_cast<int>(pts.size()), kWin, kMaxLev, kMaxIter,
                                    kThreshold, st) != kvlStatusOk)
      return 1;
    std::vector<cv::Point2f> theirs;
    std::vector<uchar> cvStatus;
    std::vector<float> cvError;
    cv::calcOpticalFlowPyrLK(prevPyr, nextPyr, cvPts, theirs, cvStatus, cvError, cv::Size(kWin, kWin),
                             kMaxLev,
                             cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, kMaxIter, kThreshold));
    int okOurs = 0, okTheirs = 0;
    double errOurs = 0, errTheirs = 0;
    std::vector<double> diff;
    for (size_t i = 0; i < pts.size(); ++i) {
      const bool a1 = status[i] == 0, b1 = cvStatus[i] != 0;
      okOurs += a1, okTheirs += b1;
      if (a1) errOurs += std::hypot(ours[i].x - pts[i].x - sx, ours[i].y - pts[i].y - sy);
      if (b1) errTheirs += std::hypot(theirs[i].x - pts[i].x - sx, theirs[i].y - pts[i].y - sy);
      if (a1 && b1) diff.push_back(std::hypot(ours[i].x - theirs[i].x, ours[i].y - theirs[i].y));
    }
    all.insert(all.end(), diff.begin(), diff.end());
    std::sort(diff.begin(), diff.end());
    char move[32];
    std::snprintf(move, sizeof(move), "(%.2f, %.2f)", sx, sy);
    std::printf("%-16s %8d %8d %8zu %12.4f %12.4f %14.4f %14.4f\n", move, okOurs, okTheirs, diff.size(),
                diff.empty() ? 0.0 : diff[diff.size() / 2], diff.empty() ? 0.0 : diff.back(),
                okOurs ? errOurs / okOurs : 0.0, okTheirs ? errTheirs / okTheirs : 0.0);
  }
  std::sort(all.begin(), all.end());
  if (!all.empty())
    std::printf("\nall moves: %zu points tracked by both, median difference %.4f px, worst %.4f px\n",
                all.size(), all[all.size() / 2], all.back());
  kvliOpticalFlowPyrLKFree_8u_C1R(st);
  return 0;
}
