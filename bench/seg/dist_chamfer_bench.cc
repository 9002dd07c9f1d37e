// Chamfer distance transforms against the peer's distance transform, over the member table, on
// two scenes: the outline of the horse silhouette (data/horse.png scaled up; the silhouette's
// boundary pixels are the zero features, everything else 255) and one random zero feature in
// 1000 pixels. Pairings: 3x3 float against the peer's C, L1 and L2 (mask 3) with float output,
// 5x5 float against L2 mask 5, 8u against L1 with 8-bit output, 8u16u against the float peer of
// the same geometry (the peer has no 16-bit output).
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench.h"
#include "image_io.h"
#include "seg/dist_chamfer_members.h"

namespace kvl::bench {
namespace {

using seg::ChamferMember;

const ChamferMember kMembers[] = {KVL_CHAMFER_MEMBERS(KVL_CHAMFER_MEMBER_RECORD)};

struct Scene {
  int width = 0, height = 0, step = 0;
  std::vector<uint8_t> src;
};

std::shared_ptr<Scene> makeScene(const Size& s, bool horse) {
  auto sc = std::make_shared<Scene>();
  sc->width = s.width, sc->height = s.height, sc->step = (s.width + 63) / 64 * 64;
  sc->src.assign(static_cast<size_t>(sc->step) * s.height, 255);
  if (horse) {
    kvlcli::Picture p;
    if (!kvlcli::readImage(KVL_SOURCE_DIR "/data/horse.png", &p).empty()) return nullptr;
    const std::vector<uint8_t> grey = kvlcli::greySamples(p);
    auto inside = [&](int x, int y) {
      if (x < 0 || y < 0 || x >= s.width || y >= s.height) return false;
      const int sx = static_cast<int>(1LL * x * p.width / s.width);
      const int sy = static_cast<int>(1LL * y * p.height / s.height);
      return grey[static_cast<size_t>(sy) * p.width + sx] < 128;
    };
    for (int y = 0; y < s.height; ++y)
      for (int x = 0; x < s.width; ++x)
        if (inside(x, y) && !(inside(x - 1, y) && inside(x + 1, y) && inside(x, y - 1) &&
                              inside(x, y + 1)))
          sc->src[static_cast<size_t>(y) * sc->step + x] = 0;
  } else {
    std::mt19937 rng(7);
    for (int y = 0; y < s.height; ++y)
      for (int x = 0; x < s.width; ++x)
        if (rng() % 1000 == 0) sc->src[static_cast<size_t>(y) * sc->step + x] = 0;
  }
  return sc;
}

// One of our weight sets and the peer's call it is compared with.
struct Pairing {
  const char* name;
  double a, b, c;
  int peerType, peerMask, peerDepth;
};

std::vector<Pairing> pairings(const ChamferMember& m) {
#ifdef KVL_HAVE_OPENCV
  const int f = CV_32F, u = CV_8U;
  const int dC = cv::DIST_C, dL1 = cv::DIST_L1, dL2 = cv::DIST_L2;
#else
  const int f = 0, u = 0, dC = 0, dL1 = 0, dL2 = 0;
#endif
  if (m.realMetric && m.taps == 3)
    return {{"C", 1, 1, 0, dC, 3, f}, {"L1", 1, 2, 0, dL1, 3, f}, {"L2", 0.955, 1.3693, 0, dL2, 3, f}};
  if (m.realMetric) return {{"L2", 1, 1.4, 2.1969, dL2, 5, f}};
  if (m.outBytes == 1) {
    if (m.taps == 3) return {{"L1", 1, 2, 0, dL1, 3, u}};
    return {{"L1", 1, 2, 3, dL1, 3, u}};
  }
  if (m.taps == 3) return {{"L2", 2, 3, 0, dL2, 3, f}};
  return {{"L2", 5, 7, 11, dL2, 5, f}};
}

const bool registered = [] {
  for (const Size& s : {Size{1920, 1080}, Size{3840, 2160}}) {
    for (bool horse : {true, false}) {
      auto scene = std::make_shared<std::shared_ptr<Scene>>();
      auto get = [scene, s, horse]() -> Scene& {
        if (!*scene) *scene = makeScene(s, horse);
        return **scene;
      };
      for (const ChamferMember& m : kMembers) {
        for (const Pairing& pr : pairings(m)) {
          const std::string name = std::string(m.name) + "/" + pr.name + "/" +
                                   (horse ? "horse_" : "seeds_") + s.name();
          auto out = std::make_shared<std::vector<uint8_t>>();
          for (int threads : {1, 2})
            pair(
                name, threads, 1LL * s.width * s.height,
                [=, &m](benchmark::State& st) {
                  Scene& sc = get();
                  const int dstStep = (s.width * m.outBytes + 63) / 64 * 64;
                  out->assign(static_cast<size_t>(dstStep) * s.height, 0);
                  Kvl32s wi[3] = {static_cast<Kvl32s>(pr.a), static_cast<Kvl32s>(pr.b),
                                  static_cast<Kvl32s>(pr.c)};
                  Kvl32f wf[3] = {static_cast<Kvl32f>(pr.a), static_cast<Kvl32f>(pr.b),
                                  static_cast<Kvl32f>(pr.c)};
                  void* metrics = m.realMetric ? static_cast<void*>(wf) : wi;
                  for (auto _ : st) {
                    if (m.inPlace) {  // the copy of the source is part of the in-place call's cost
                      std::memcpy(out->data(), sc.src.data(), out->size());
                      m.run(nullptr, 0, out->data(), sc.step, {s.width, s.height}, metrics);
                    } else {
                      m.run(sc.src.data(), sc.step, out->data(), dstStep, {s.width, s.height},
                            metrics);
                    }
                  }
                },
                KVL_PEER([=](benchmark::State& st) {
                  Scene& sc = get();
                  cv::Mat src(s.height, s.width, CV_8U, sc.src.data(), sc.step);
                  cv::Mat dst;
                  for (auto _ : st)
                    cv::distanceTransform(src, dst, pr.peerType, pr.peerMask, pr.peerDepth);
                }));
        }
      }
    }
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
