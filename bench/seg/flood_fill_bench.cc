// Flood fills against the peer's flood fill without a mask, 3840x2160, one thread, on two
// scenes: the coins photograph (data/coins.png) scaled up, filled from its top-left corner (the
// background, most of the image; the exact rule fills the background of the photograph cut at
// grey level 100), and a uniform image filled whole. Pairings: exact against a zero range,
// Range against the peer's fixed range, Grad against its floating range, 4- and 8-connected,
// 8u and 32f, one and three channels. Every repetition restores the image outside the timed
// region. The counter same_as_cv is 1 where both fills leave identical images (exact and Range
// rules, which the peer shares; its floating range differs from Grad in the reference pixel).
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench.h"
#include "image_io.h"
#include "seg/flood_fill_members.h"

namespace kvl::bench {
namespace {

using seg::FloodFillMember;

const FloodFillMember kMembers[] = {KVL_FLOOD_FILL_MEMBERS(KVL_FLOOD_FILL_MEMBER_RECORD)};

constexpr int kW = 3840, kH = 2160;
// The seed: in the photograph's background near its top-left corner (whose very first pixel is
// an outlier).
constexpr KvliPoint kSeed{kW * 10 / 384, kH * 10 / 303};

struct Scene {
  int step = 0;
  std::vector<unsigned char> image;  // the pristine image, restored before every repetition
};

// The scene for one member: grey values (coins) or a constant, as the member's type and
// channels, rows padded to 64 bytes.
std::unique_ptr<Scene> makeScene(const FloodFillMember& m, bool coins) {
  auto s = std::make_unique<Scene>();
  const int elem = m.bytes * m.channels;
  s->step = (kW * elem + 63) / 64 * 64;
  s->image.assign(static_cast<size_t>(s->step) * kH, 0);
  std::vector<uint8_t> grey(static_cast<size_t>(kW) * kH, 100);
  kvlcli::Picture p;
  if (coins && kvlcli::readImage(KVL_SOURCE_DIR "/data/coins.png", &p).empty()) {
    const std::vector<uint8_t> g = kvlcli::greySamples(p);
    for (int y = 0; y < kH; ++y)
      for (int x = 0; x < kW; ++x)
        grey[static_cast<size_t>(y) * kW + x] =
            g[static_cast<size_t>(y * p.height / kH) * p.width + x * p.width / kW];
    if (m.rule == seg::kFillExact) {  // the exact scene: the background made one value
      int bytes = 0;
      kvliFloodFillGetSize({kW, kH}, &bytes);
      std::vector<Kvl8u> buffer(static_cast<size_t>(bytes));
      KvliConnectedComp r;
      kvliFloodFill_Range4Con_8u_C1IR(grey.data(), kW, {kW, kH}, kSeed, 7, 40, 40, &r,
                                      buffer.data());
    }
  }
  for (int y = 0; y < kH; ++y)
    for (int x = 0; x < kW; ++x) {
      const int v = grey[static_cast<size_t>(y) * kW + x];
      unsigned char* px = s->image.data() + static_cast<size_t>(y) * s->step + x * elem;
      for (int c = 0; c < m.channels; ++c) {
        if (m.kind == 'f') {
          const float f = static_cast<float>(v);
          std::memcpy(px + c * 4, &f, 4);
        } else {
          px[c] = static_cast<unsigned char>(v);
        }
      }
    }
  return s;
}

// The deltas of a rule on a scene (the peer's loDiff and upDiff).
double deltaOf(const FloodFillMember& m, bool coins) {
  if (m.rule == seg::kFillExact) return 0;
  if (m.rule == seg::kFillRange) return coins ? 40 : 10;
  return coins ? 6 : 1;
}

const bool registered = [] {
  for (const FloodFillMember& m : kMembers) {
    if (m.bytes == 2 || m.kind == 's') continue;  // the peer has no 16-bit fill; 32s is exact only
    for (bool coins : {true, false}) {
      auto cell = std::make_shared<std::unique_ptr<Scene>>();
      auto get = [cell, &m, coins]() -> Scene& {
        if (!*cell) *cell = makeScene(m, coins);
        return **cell;
      };
      auto work = std::make_shared<std::vector<unsigned char>>();
      const double d = deltaOf(m, coins);
      const std::string name =
          std::string(m.name) + "/" + (coins ? "coins_" : "uniform_") + Size{kW, kH}.name();
      pair(
          name, 1, 1LL * kW * kH,
          [=, &m](benchmark::State& st) {
            Scene& s = get();
            int bytes = 0;
            m.getSize({kW, kH}, &bytes);
            std::vector<Kvl8u> buffer(static_cast<size_t>(bytes));
            const double nv[3] = {200, 201, 202}, delta[3] = {d, d, d};
            KvliConnectedComp region{};
            for (auto _ : st) {
              st.PauseTiming();
              *work = s.image;
              st.ResumeTiming();
              m.run(work->data(), s.step, {kW, kH}, kSeed, nv, delta, delta, &region,
                    buffer.data());
            }
            st.counters["area"] = region.area;
#ifdef KVL_HAVE_OPENCV
            const int type = CV_MAKETYPE(m.kind == 'f' ? CV_32F : CV_8U, m.channels);
            std::vector<unsigned char> theirs = s.image;
            cv::Mat img(kH, kW, type, theirs.data(), s.step);
            const int flags = m.conn | (m.rule == seg::kFillGrad ? 0 : cv::FLOODFILL_FIXED_RANGE);
            cv::floodFill(img, cv::Point(kSeed.x, kSeed.y), cv::Scalar(200, 201, 202), nullptr,
                          cv::Scalar::all(d), cv::Scalar::all(d), flags);
            st.counters["same_as_cv"] = theirs == *work ? 1 : 0;
#endif
          },
          KVL_PEER([=, &m](benchmark::State& st) {
            Scene& s = get();
            const int type = CV_MAKETYPE(m.kind == 'f' ? CV_32F : CV_8U, m.channels);
            const int flags = m.conn | (m.rule == seg::kFillGrad ? 0 : cv::FLOODFILL_FIXED_RANGE);
            std::vector<unsigned char> theirs;
            for (auto _ : st) {
              st.PauseTiming();
              theirs = s.image;
              cv::Mat img(kH, kW, type, theirs.data(), s.step);
              st.ResumeTiming();
              cv::floodFill(img, cv::Point(kSeed.x, kSeed.y), cv::Scalar(200, 201, 202), nullptr,
                            cv::Scalar::all(d), cv::Scalar::all(d), flags);
            }
          }));
    }
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
