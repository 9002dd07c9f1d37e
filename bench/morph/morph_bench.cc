// Erosion and dilation against OpenCV's, replicated border: rectangles 3x3 and 15x15 through the
// border interface, ellipses 5x5 and 11x11 and a 3x3 cross through both interfaces (the older one
// keeps ellipses and crosses as row runs), 8u C1 and C3, 16u C1 and 32f C1, at 1080p and 4K.
// Both use the same mask bytes. kvlCV runs on the calling thread; the peer with 1 and 2 threads.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench.h"
#include "morph/morph_members.h"

namespace kvl::bench {
namespace {

const morph::MorphMember kMembers[] = {KVL_MORPH_BORDER_MEMBERS(KVL_MORPH_BORDER_RECORD)
                                           KVL_MORPH_OLDER_MEMBERS(KVL_MORPH_OLDER_RECORD)};

struct Shape {
  const char* name;
  int kind;  // 0 rectangle, 1 ellipse, 2 cross
  int size;
};
const Shape kShapes[] = {{"rect", 0, 3}, {"rect", 0, 15}, {"ellipse", 1, 5}, {"ellipse", 1, 11},
                         {"cross", 2, 3}};

// The shape's mask bytes, as the peer's structuring element has them.
std::vector<Kvl8u> maskOf(const Shape& sh) {
  const int k = sh.size;
  std::vector<Kvl8u> m(k * k, sh.kind == 0 ? 1 : 0);
#ifdef KVL_HAVE_OPENCV
  const int cvShape = sh.kind == 0 ? cv::MORPH_RECT : sh.kind == 1 ? cv::MORPH_ELLIPSE : cv::MORPH_CROSS;
  const cv::Mat e = cv::getStructuringElement(cvShape, cv::Size(k, k));
  for (int y = 0; y < k; ++y)
    for (int x = 0; x < k; ++x) m[y * k + x] = e.at<unsigned char>(y, x);
#else
  for (int y = 0; y < k; ++y)
    for (int x = 0; x < k; ++x) {
      const double dx = (x - k / 2) / (k / 2.0 + 0.5), dy = (y - k / 2) / (k / 2.0 + 0.5);
      if (sh.kind == 1) m[y * k + x] = dx * dx + dy * dy <= 1.0;
      if (sh.kind == 2) m[y * k + x] = x == k / 2 || y == k / 2;
    }
#endif
  return m;
}

#ifdef KVL_HAVE_OPENCV
int cvType(const morph::MorphMember& m) {
  const int depth = m.real ? CV_32F : m.elemBytes == 2 ? (m.dataType == kvl16s ? CV_16S : CV_16U) : CV_8U;
  return CV_MAKETYPE(depth, m.channels);
}
#endif

const bool registered = [] {
  for (const morph::MorphMember& m : kMembers) {
    const std::string name(m.name);
    const std::string sfx = name.substr(name.find('_') + 1);
    if (sfx != "8u_C1R" && sfx != "8u_C3R" && sfx != "16u_C1R" && sfx != "32f_C1R") continue;
    for (const Shape& sh : kShapes) {
      if (!m.border && sh.kind == 0) continue;  // rectangles: the border interface only
      const auto mask = std::make_shared<std::vector<Kvl8u>>(maskOf(sh));
      const std::string shape = std::string(sh.name) + std::to_string(sh.size) + "x" +
                                std::to_string(sh.size);
      for (const Size& s : kSizes) {
        if (s.width < 1920) continue;
        const int px = m.elemBytes * m.channels;
        auto step = std::make_shared<int>();
        auto src = std::make_shared<std::vector<unsigned char>>(
            makeImage(s.width, s.height, px, step.get()));
        if (m.real) {  // small float values from the byte pattern
          for (size_t i = 0; i + 4 <= src->size(); i += 4) {
            const float v = static_cast<float>((*src)[i]) * 0.5f;
            std::memcpy(src->data() + i, &v, 4);
          }
        }
        auto dst = std::make_shared<std::vector<unsigned char>>(src->size());
        const KvliSize roi{s.width, s.height};
        const KvliSize msize{sh.size, sh.size};
        for (bool erode : {true, false})
          for (int threads : {1, 2}) {
            pair(
                std::string(erode ? "Erode" : "Dilate") + "_" + name + "/" + shape + "/" +
                    s.name(),
                threads, 1LL * s.width * s.height,
                [=, &m](benchmark::State& st) {
                  int stateBlock = 0, bytes = 0;
                  m.getSize(s.width, mask->data(), msize, &stateBlock, &bytes);
                  std::vector<uint64_t> block((stateBlock + 7) / 8);
                  std::vector<Kvl8u> buf(bytes > 0 ? bytes : 1);
                  auto* state = reinterpret_cast<KvliMorphState*>(block.data());
                  m.init(s.width, mask->data(), msize, {sh.size / 2, sh.size / 2}, state,
                         buf.data());
                  for (auto _ : st)
                    m.run(erode, src->data(), *step, dst->data(), *step, roi, kvlBorderRepl,
                          state, buf.data());
                },
                KVL_PEER([=, &m](benchmark::State& st) {
                  const cv::Mat a(s.height, s.width, cvType(m), src->data(), *step);
                  cv::Mat b(s.height, s.width, cvType(m), dst->data(), *step);
                  const cv::Mat kernel(sh.size, sh.size, CV_8U, mask->data());
                  for (auto _ : st) {
                    if (erode)
                      cv::erode(a, b, kernel, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
                    else
                      cv::dilate(a, b, kernel, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
                  }
                }));
          }
      }
    }
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
