// Gradient segmentation at 1920x1080 on the sample photograph (scaled up): with a grid of seeds
// against OpenCV's marker watershed on the same seeds (colour image), and with no seeds (the
// regional-minima path) against the scalar reference.
#include <cstring>
#include <memory>

#include "bench.h"
#include "image_io.h"
#include "seg/gradient_seg_members.h"

namespace kvl::bench {
namespace {

const seg::GradientSegMember kMembers[] = {KVL_GRADIENT_SEG_MEMBERS(KVL_GRADIENT_SEG_RECORD)};
constexpr int kW = 1920, kH = 1080, kGrid = 60;

struct Scene {
  std::vector<uint8_t> src[2];  // grey, colour; rows packed
  std::vector<uint8_t> seeds, none, marker;
  std::vector<int32_t> cvSeeds, cvMarker;
  std::vector<uint8_t> buffer;
};

Scene& scene() {
  static std::unique_ptr<Scene> s;
  if (s) return *s;
  s = std::make_unique<Scene>();
  kvlcli::Picture p;
  if (!kvlcli::readImage(KVL_SOURCE_DIR "/data/astronaut.png", &p).empty()) std::abort();
  s->src[0].resize(static_cast<size_t>(kW) * kH);
  s->src[1].resize(static_cast<size_t>(kW) * kH * 3);
  const std::vector<uint8_t> grey = kvlcli::greySamples(p);
  for (int y = 0; y < kH; ++y)
    for (int x = 0; x < kW; ++x) {
      const int px = x * p.width / kW, py = y * p.height / kH;
      const size_t i = static_cast<size_t>(y) * kW + x;
      s->src[0][i] = grey[static_cast<size_t>(py) * p.width + px];
      for (int c = 0; c < 3; ++c)
        s->src[1][i * 3 + c] = p.row(py)[px * p.channels + (p.channels == 3 ? c : 0)];
    }
  s->seeds.assign(static_cast<size_t>(kW) * kH, 0);
  s->none = s->seeds;
  s->cvSeeds.assign(s->seeds.size(), 0);
  int label = 0;
  for (int y = kGrid / 2; y < kH; y += kGrid)
    for (int x = kGrid / 2; x < kW; x += kGrid) {
      const int l = 1 + label++ % 254;
      s->seeds[static_cast<size_t>(y) * kW + x] = static_cast<uint8_t>(l);
      s->cvSeeds[static_cast<size_t>(y) * kW + x] = l;
    }
  s->marker = s->seeds;
  s->cvMarker = s->cvSeeds;
  int bytes = 0;
  kMembers[0].getBufferSize({kW, kH}, &bytes);
  s->buffer.resize(bytes);
  return *s;
}

// One call on fresh seeds (the copy is timed on both sides).
void run(const seg::GradientSegMember& m, bool seeded) {
  Scene& s = scene();
  std::memcpy(s.marker.data(), seeded ? s.seeds.data() : s.none.data(), s.marker.size());
  m.run(s.src[m.channels == 3].data(), kW * m.channels, s.marker.data(), kW, {kW, kH}, 0, 128,
        s.buffer.data());
}

const bool registered = [] {
  const long long pixels = 1LL * kW * kH;
  const std::string size = Size{kW, kH}.name();
  pair(
      "SegmentGradient_8u_C3IR/seeds/" + size, 1, pixels,
      [](benchmark::State& st) {
        scene();  // made once, outside the timing
        for (auto _ : st) run(kMembers[1], true);
      },
      KVL_PEER([](benchmark::State& st) {
        Scene& s = scene();
        cv::Mat img(kH, kW, CV_8UC3, s.src[1].data());
        cv::Mat markers(kH, kW, CV_32S, s.cvMarker.data());
        for (auto _ : st) {
          std::memcpy(s.cvMarker.data(), s.cvSeeds.data(), s.cvSeeds.size() * 4);
          cv::watershed(img, markers);
        }
      }));
  for (const seg::GradientSegMember& m : kMembers) {
    for (bool seeded : {true, false}) {
      versusReference(std::string(m.name) + (seeded ? "/seeds/" : "/minima/") + size, pixels,
                      [&m, seeded](benchmark::State& st) {
                        scene();
                        for (auto _ : st) run(m, seeded);
                      });
    }
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
