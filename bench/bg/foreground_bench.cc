// The Gaussian foreground model on a 1920x1080 video (the sample photograph tiled, two discs and
// a rectangle moving across it, light noise), one frame per iteration, against the peer's
// mixture subtractors (the mixture model with history 200, 5 components, background share 0.7,
// and the adaptive mixture with its defaults) on the same frames, with 1 and 2 permitted threads.
// Grey frames for the one-channel member, colour frames for the three-channel one.
#include <cstdlib>
#include <memory>

#include "bench.h"
#include "bg/foreground_members.h"
#include "image_io.h"

#ifdef KVL_HAVE_OPENCV_BGSEGM
#include <opencv2/bgsegm.hpp>
#include <opencv2/video/background_segm.hpp>
#endif

namespace kvl::bench {
namespace {

constexpr int kW = 1920, kH = 1080, kFrames = 8;

// kFrames frames of C channels, rows packed.
struct Video {
  int channels = 0;
  std::vector<std::vector<uint8_t>> frames;
};

const Video& video(int C) {
  static Video v[2];
  Video& out = v[C == 1 ? 0 : 1];
  if (!out.frames.empty()) return out;
  out.channels = C;
  kvlcli::Picture p;
  if (!kvlcli::readImage(KVL_SOURCE_DIR "/data/astronaut.png", &p).empty()) std::abort();
  const std::vector<uint8_t> grey = kvlcli::greySamples(p);
  uint32_t seed = 12345;
  for (int t = 0; t < kFrames; ++t) {
    std::vector<uint8_t> f(static_cast<size_t>(kW) * kH * C);
    for (int y = 0; y < kH; ++y)
      for (int x = 0; x < kW; ++x) {
        const int px = x % p.width, py = y % p.height;
        for (int c = 0; c < C; ++c) {
          int s = C == 1 ? grey[static_cast<size_t>(py) * p.width + px]
                         : p.data[(static_cast<size_t>(py) * p.width + px) * p.channels +
                                  (p.channels == 3 ? c : 0)];
          const int dx1 = x - (300 + 40 * t), dy1 = y - 400;
          const int dx2 = x - (1500 - 30 * t), dy2 = y - (700 + 10 * t);
          if (dx1 * dx1 + dy1 * dy1 < 120 * 120) s = 30 + 60 * c;
          if (dx2 * dx2 + dy2 * dy2 < 90 * 90) s = 220 - 40 * c;
          if (x >= 800 + 25 * t && x < 1000 + 25 * t && y >= 100 && y < 250) s = 128;
          seed = seed * 1664525u + 1013904223u;
          s += static_cast<int>((seed >> 24) % 7) - 3;
          f[(static_cast<size_t>(y) * kW + x) * C + c] =
              static_cast<uint8_t>(s < 0 ? 0 : s > 255 ? 255 : s);
        }
      }
    out.frames.push_back(std::move(f));
  }
  return out;
}

const bool registered = [] {
  const bg::ForegroundMember members[] = {KVL_FG_MEMBERS(KVL_FG_MEMBER_RECORD)};
  for (const bg::ForegroundMember& m : members) {
    const int C = m.channels;
    const std::string name = std::string("ForegroundGaussian_8u_") + m.suffix + "/";
    const long long pixels = 1LL * kW * kH;
    auto kvlBody = [=](benchmark::State& st) {
      const Video& v = video(C);
      const int model = 0;
      KvliFGGaussianState* s = nullptr;
      if (m.gaussInit(v.frames[0].data(), kW * C, {kW, kH}, &model, &s) != kvlStatusOk) {
        st.SkipWithError("InitAlloc failed");
        return;
      }
      std::vector<uint8_t> bg(static_cast<size_t>(kW) * kH * C), fg(static_cast<size_t>(kW) * kH);
      int t = 1;
      for (auto _ : st) {
        m.gauss(v.frames[t].data(), kW * C, bg.data(), kW * C, fg.data(), kW, {kW, kH}, s);
        t = (t + 1) % kFrames;
      }
      m.gaussFree(s);
      st.counters["frames/s"] = benchmark::Counter(static_cast<double>(st.iterations()),
                                                   benchmark::Counter::kIsRate);
    };
    for (int peer = 0; peer < 2; ++peer) {
      Body cvBody = nullptr;
#ifdef KVL_HAVE_OPENCV_BGSEGM
      cvBody = [=](benchmark::State& st) {
        const Video& v = video(C);
        const int type = C == 1 ? CV_8UC1 : CV_8UC3;
        cv::Ptr<cv::BackgroundSubtractor> sub;
        if (peer == 0)
          sub = cv::bgsegm::createBackgroundSubtractorMOG(200, 5, 0.7);
        else
          sub = cv::createBackgroundSubtractorMOG2();
        cv::Mat mask;
        sub->apply(cv::Mat(kH, kW, type, const_cast<uint8_t*>(v.frames[0].data())), mask);
        int t = 1;
        for (auto _ : st) {
          sub->apply(cv::Mat(kH, kW, type, const_cast<uint8_t*>(v.frames[t].data())), mask);
          t = (t + 1) % kFrames;
        }
        st.counters["frames/s"] = benchmark::Counter(static_cast<double>(st.iterations()),
                                                     benchmark::Counter::kIsRate);
      };
#endif
      for (int threads : {1, 2})
        pair(name + (peer == 0 ? "vsMOG/" : "vsMOG2/") + std::to_string(kW) + "x" +
                 std::to_string(kH),
             threads, pixels, kvlBody, KVL_PEER(cvBody));
    }
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
