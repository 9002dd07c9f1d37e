// Canny on a synthetic scene: the image form (3x3 Sobel, replicated border, L1 and L2) against
// the peer's image form, and the 16s gradient form against the peer's gradient form on the same
// derivatives. The peer runs on one thread, as the detector does.
#include <memory>
#include <vector>

#include "bench.h"
#include "scene.h"

namespace kvl::bench {
namespace {

constexpr float kLow = 50, kHigh = 150;

struct Scene {
  int step = 0, dstep = 0;
  std::vector<uint8_t> img, dst;
  std::vector<Kvl16s> dx, dy;  // 3x3 Sobel derivatives, rows of `step` elements
  std::vector<uint8_t> buf, gradBuf;
};

std::shared_ptr<Scene> makeScene(const Size& s) {
  auto sc = std::make_shared<Scene>();
  sc->img = renderScene(s.width, s.height, &sc->step);
  sc->dstep = sc->step;
  sc->dst.resize(static_cast<size_t>(sc->dstep) * s.height);
  const int w = s.width, h = s.height, st = sc->step;
  sc->dx.resize(static_cast<size_t>(st) * h);
  sc->dy.resize(static_cast<size_t>(st) * h);
  auto p = [&](int x, int y) {
    x = x < 0 ? 0 : (x >= w ? w - 1 : x);
    y = y < 0 ? 0 : (y >= h ? h - 1 : y);
    return static_cast<int>(sc->img[static_cast<size_t>(y) * st + x]);
  };
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      sc->dx[static_cast<size_t>(y) * st + x] =
          static_cast<Kvl16s>(p(x + 1, y - 1) - p(x - 1, y - 1) + 2 * (p(x + 1, y) - p(x - 1, y)) +
                              p(x + 1, y + 1) - p(x - 1, y + 1));
      sc->dy[static_cast<size_t>(y) * st + x] =
          static_cast<Kvl16s>(p(x - 1, y + 1) - p(x - 1, y - 1) + 2 * (p(x, y + 1) - p(x, y - 1)) +
                              p(x + 1, y + 1) - p(x + 1, y - 1));
    }
  int size = 0;
  kvliCannyBorderGetSize({w, h}, kvlFilterSobel, kvlMaskSize3x3, kvl8u, &size);
  sc->buf.resize(size);
  kvliCannyGetSize({w, h}, &size);
  sc->gradBuf.resize(size);
  return sc;
}

const bool registered = [] {
  for (const Size& s : kSizes) {
    auto sc = makeScene(s);
    const KvliSize roi{s.width, s.height};
    const long long pixels = 1LL * s.width * s.height;
    for (bool l2 : {false, true}) {
      pair(
          std::string("CannyBorder_8u_") + (l2 ? "L2" : "L1") + "/" + s.name(), 1, pixels,
          [=](benchmark::State& st) {
            for (auto _ : st)
              kvliCannyBorder_8u_C1R(sc->img.data(), sc->step, sc->dst.data(), sc->dstep, roi,
                                     kvlFilterSobel, kvlMaskSize3x3, kvlBorderRepl, 0, kLow, kHigh,
                                     l2 ? kvlNormL2 : kvlNormL1, sc->buf.data());
          },
          KVL_PEER([=](benchmark::State& st) {
            cv::Mat src(s.height, s.width, CV_8U, sc->img.data(), sc->step);
            cv::Mat dst(s.height, s.width, CV_8U, sc->dst.data(), sc->dstep);
            for (auto _ : st) cv::Canny(src, dst, kLow, kHigh, 3, l2);
          }));
    }
    pair(
        "Canny_16s8u/" + s.name(), 1, pixels,
        [=](benchmark::State& st) {
          for (auto _ : st)
            kvliCanny_16s8u_C1R(sc->dx.data(), sc->step * 2, sc->dy.data(), sc->step * 2,
                                sc->dst.data(), sc->dstep, roi, kLow, kHigh, sc->gradBuf.data());
        },
        KVL_PEER([=](benchmark::State& st) {
          cv::Mat dx(s.height, s.width, CV_16S, sc->dx.data(), sc->step * 2);
          cv::Mat dy(s.height, s.width, CV_16S, sc->dy.data(), sc->step * 2);
          cv::Mat dst(s.height, s.width, CV_8U, sc->dst.data(), sc->dstep);
          for (auto _ : st) cv::Canny(dx, dy, dst, kLow, kHigh, false);
        }));
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
