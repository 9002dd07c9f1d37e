// Exact Euclidean transform against OpenCV's precise L2 transform (1 and 2 threads on both
// sides), and fast marching timed beside it, on two scenes: the horse silhouette stretched over
// the image (its pixels are the features) and sparse random features (one pixel in 1000).
#include <algorithm>
#include <cmath>
#include <memory>
#include <random>

#include "bench.h"
#include "image_io.h"
#include "seg/dist_exact_members.h"
#include "seg/fast_marching_members.h"

namespace kvl::bench {
namespace {

const seg::DistanceFieldMember kExact[] = {KVL_DIST_EXACT_MEMBERS(KVL_DIST_EXACT_RECORD)};
const seg::DistanceFieldMember kMarch[] = {KVL_FAST_MARCHING_MEMBERS(KVL_FAST_MARCHING_RECORD)};

struct Scene {
  int w, h, srcStep, dstStep;
  std::vector<unsigned char> src;
  std::vector<float> dst;
};

std::unique_ptr<Scene> makeScene(bool horse, int w, int h) {
  auto s = std::make_unique<Scene>();
  s->w = w, s->h = h;
  s->srcStep = (w + 63) / 64 * 64;
  s->dstStep = (w * 4 + 63) / 64 * 64;
  s->src.assign(static_cast<size_t>(s->srcStep) * h, 255);
  s->dst.assign(static_cast<size_t>(s->dstStep / 4) * h, 0.0f);
  if (horse) {
    kvlcli::Picture p;
    if (kvlcli::readImage(KVL_SOURCE_DIR "/data/horse.png", &p).empty()) {
      const std::vector<uint8_t> g = kvlcli::greySamples(p);
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
          s->src[static_cast<size_t>(y) * s->srcStep + x] =
              g[static_cast<size_t>(y * p.height / h) * p.width + x * p.width / w] < 128 ? 0 : 255;
    }
  } else {
    std::mt19937 rng(12345);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        if (rng() % 1000 == 0) s->src[static_cast<size_t>(y) * s->srcStep + x] = 0;
  }
  return s;
}

const bool registered = [] {
  for (bool horse : {true, false}) {
    for (const Size& sz : {Size{1920, 1080}, Size{3840, 2160}}) {
      auto cell = std::make_shared<std::unique_ptr<Scene>>();
      auto get = [cell, horse, sz]() -> Scene& {
        if (!*cell) *cell = makeScene(horse, sz.width, sz.height);
        return **cell;
      };
      const std::string scene = std::string(horse ? "horse/" : "sparse/") + sz.name();
      const long long pixels = 1LL * sz.width * sz.height;
      for (int threads : {1, 2}) {
        pair(
            "TrueDistanceTransform_8u32f_C1R/" + scene, threads, pixels,
            [=](benchmark::State& st) {
              Scene& s = get();
              int bytes = 0;
              kExact[0].getBufferSize({s.w, s.h}, &bytes);
              std::vector<Kvl8u> buffer(bytes);
              for (auto _ : st)
                kExact[0].run(s.src.data(), s.srcStep, s.dst.data(), s.dstStep, {s.w, s.h}, 0,
                              buffer.data());
#ifdef KVL_HAVE_OPENCV
              // The largest difference from the peer's precise transform on this scene.
              cv::Mat in(s.h, s.w, CV_8U, s.src.data(), s.srcStep), theirs;
              cv::distanceTransform(in, theirs, cv::DIST_L2, cv::DIST_MASK_PRECISE, CV_32F);
              cv::Mat ours(s.h, s.w, CV_32F, s.dst.data(), s.dstStep);
              st.counters["maxdiff_vs_cv"] = cv::norm(ours, theirs, cv::NORM_INF);
#endif
            },
            KVL_PEER([=](benchmark::State& st) {
              Scene& s = get();
              cv::Mat in(s.h, s.w, CV_8U, s.src.data(), s.srcStep);
              cv::Mat out(s.h, s.w, CV_32F, s.dst.data(), s.dstStep);
              for (auto _ : st)
                cv::distanceTransform(in, out, cv::DIST_L2, cv::DIST_MASK_PRECISE, CV_32F);
            }));
      }
      // Fast marching has no peer; its time beside the exact transform's above gives the context.
      timed(benchmark::RegisterBenchmark(
          ("FastMarching_8u32f_C1R/" + scene + "/t1/kvl").c_str(), [=](benchmark::State& st) {
            kvlSetNumThreads(1);
            Scene& s = get();
            int bytes = 0;
            kMarch[0].getBufferSize({s.w, s.h}, &bytes);
            std::vector<Kvl8u> buffer(bytes);
            for (auto _ : st)
              kMarch[0].run(s.src.data(), s.srcStep, s.dst.data(), s.dstStep, {s.w, s.h}, INFINITY,
                            buffer.data());
            st.SetItemsProcessed(st.iterations() * pixels);
          }));
    }
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
