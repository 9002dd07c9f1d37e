// Marker watershed against the peer's watershed on the coins photograph (data/coins.png) scaled
// to 1920x1080: the peer floods the photograph itself (three equal channels, its priorities the
// colour differences), kvlCV floods a gradient magnitude of it (|gx| + |gy| of the 3x3 Sobel over
// a 3x3 box mean, divided by 4), with the same markers: 3x3 seeds on a 48-pixel grid, labels 1 ..
// 254 cycling. Both copy their markers back to the seeds inside the timed loop (the peer's 32-bit
// labels, kvlCV's 8-bit ones). The queue method runs at 1 thread, the distance method at 1 and 2.
#include <memory>
#include <string>
#include <vector>

#include "bench.h"
#include "image_io.h"
#include "seg/watershed_members.h"

namespace kvl::bench {
namespace {

const seg::WatershedMember kMembers[] = {KVL_WATERSHED_MEMBERS(KVL_WATERSHED_RECORD)};

struct Scene {
  int w = 0, h = 0;
  std::vector<uint8_t> grey, relief, seeds, work;
  std::vector<int32_t> seeds32, work32;
  std::vector<uint8_t> rgb;
};

std::shared_ptr<Scene> makeScene(int w, int h) {
  auto s = std::make_shared<Scene>();
  s->w = w, s->h = h;
  s->grey.assign(static_cast<size_t>(w) * h, 128);
  kvlcli::Picture p;
  if (kvlcli::readImage(KVL_SOURCE_DIR "/data/coins.png", &p).empty()) {
    const std::vector<uint8_t> g = kvlcli::greySamples(p);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        s->grey[static_cast<size_t>(y) * w + x] =
            g[static_cast<size_t>(1LL * y * p.height / h) * p.width + 1LL * x * p.width / w];
  }
  auto at = [&](const std::vector<int>& v, int x, int y) {
    x = x < 0 ? 0 : x >= w ? w - 1 : x;
    y = y < 0 ? 0 : y >= h ? h - 1 : y;
    return v[static_cast<size_t>(y) * w + x];
  };
  std::vector<int> g(s->grey.begin(), s->grey.end()), mean(g.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      int sum = 0;
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) sum += at(g, x + dx, y + dy);
      mean[static_cast<size_t>(y) * w + x] = sum / 9;
    }
  s->relief.resize(g.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const int gx = at(mean, x + 1, y - 1) + 2 * at(mean, x + 1, y) + at(mean, x + 1, y + 1) -
                     at(mean, x - 1, y - 1) - 2 * at(mean, x - 1, y) - at(mean, x - 1, y + 1);
      const int gy = at(mean, x - 1, y + 1) + 2 * at(mean, x, y + 1) + at(mean, x + 1, y + 1) -
                     at(mean, x - 1, y - 1) - 2 * at(mean, x, y - 1) - at(mean, x + 1, y - 1);
      const int m = ((gx < 0 ? -gx : gx) + (gy < 0 ? -gy : gy)) / 4;
      s->relief[static_cast<size_t>(y) * w + x] = static_cast<uint8_t>(m > 255 ? 255 : m);
    }
  s->seeds.assign(g.size(), 0);
  int label = 0;
  for (int y = 24; y + 1 < h; y += 48)
    for (int x = 24; x + 1 < w; x += 48) {
      label = label % 254 + 1;
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx)
          s->seeds[static_cast<size_t>(y + dy) * w + x + dx] = static_cast<uint8_t>(label);
    }
  s->seeds32.assign(s->seeds.begin(), s->seeds.end());
  s->work = s->seeds;
  s->work32 = s->seeds32;
  s->rgb.resize(g.size() * 3);
  for (size_t i = 0; i < g.size(); ++i) s->rgb[3 * i] = s->rgb[3 * i + 1] = s->rgb[3 * i + 2] = s->grey[i];
  return s;
}

const bool registered = [] {
  const Size sz{1920, 1080};
  auto cell = std::make_shared<std::shared_ptr<Scene>>();
  auto get = [cell, sz]() -> Scene& {
    if (!*cell) *cell = makeScene(sz.width, sz.height);
    return **cell;
  };
  const long long pixels = 1LL * sz.width * sz.height;
  struct Case {
    const char* method;
    int flag, norm;
    std::vector<int> threads;
  };
  // The peer floods 4-connected, as "queue" and "distance" do; the 8-connected floods and the
  // distance method's weighted and fast-marching norms, which the peer has no counterpart for,
  // are shown beside it for their cost.
  const Case cases[] = {{"queue", 1, 1, {1}},
                        {"queue8", 1, 0, {1}},
                        {"distance", 2, 1, {1, 2}},
                        {"distance8", 2, 0, {1, 2}},
                        {"distance-weighted", 2, 2, {1, 2}},
                        {"distance-marching", 2, 3, {1, 2}}};
  for (const Case& c : cases) {
    for (int threads : c.threads) {
      const int flag = c.flag, norm = c.norm;
      pair(std::string("SegmentWatershed_8u_C1IR/") + c.method + "/coins/" + sz.name(), threads,
           pixels,
           [=](benchmark::State& st) {
             Scene& s = get();
             int bytes = 0;
             kMembers[0].getBufferSize({s.w, s.h}, &bytes);
             std::vector<Kvl8u> buffer(bytes);
             for (auto _ : st) {
               s.work = s.seeds;
               kMembers[0].run(s.relief.data(), s.w, s.work.data(), s.w, {s.w, s.h}, norm, flag,
                               buffer.data());
             }
           },
           KVL_PEER([=](benchmark::State& st) {
             Scene& s = get();
             cv::Mat image(s.h, s.w, CV_8UC3, s.rgb.data());
             cv::Mat markers(s.h, s.w, CV_32S, s.work32.data());
             for (auto _ : st) {
               s.work32 = s.seeds32;
               cv::watershed(image, markers);
             }
           }));
    }
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
