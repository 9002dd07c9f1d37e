// Rectangle minimum and maximum filters against OpenCV's erosion and dilation by a rectangle
// (replicated border): 3x3 and 15x15, 8u C1 and C3, 16u C1 and 32f C1, at 1080p and 4K. kvlCV
// runs on the calling thread; the peer runs with 1 and with 2 threads.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench.h"
#include "morph/minmax_filter_members.h"

namespace kvl::bench {
namespace {

const morph::MinMaxMember kMembers[] = {KVL_MINMAX_MEMBERS(KVL_MINMAX_MEMBER_RECORD)};

#ifdef KVL_HAVE_OPENCV
int cvType(const morph::MinMaxMember& m) {
  const int depth = m.kind == 'f' ? CV_32F : m.elemBytes == 2 ? (m.kind == 's' ? CV_16S : CV_16U) : CV_8U;
  return CV_MAKETYPE(depth, m.channels);
}
#endif

const bool registered = [] {
  for (const morph::MinMaxMember& m : kMembers) {
    const std::string name(m.name);
    if (name != "8u_C1R" && name != "8u_C3R" && name != "16u_C1R" && name != "32f_C1R") continue;
    for (int k : {3, 15})
      for (const Size& s : kSizes) {
        if (s.width < 1920) continue;
        const int px = m.elemBytes * m.channels;
        auto step = std::make_shared<int>();
        auto src = std::make_shared<std::vector<unsigned char>>(makeImage(s.width, s.height, px, step.get()));
        if (m.kind == 'f') {  // small float values from the byte pattern
          for (size_t i = 0; i + 4 <= src->size(); i += 4) {
            const float v = static_cast<float>((*src)[i]) * 0.5f;
            std::memcpy(src->data() + i, &v, 4);
          }
        }
        auto dst = std::make_shared<std::vector<unsigned char>>(src->size());
        const KvliSize roi{s.width, s.height};
        const KvliSize mask{k, k};
        for (bool isMax : {false, true})
          for (int threads : {1, 2}) {
            pair(
                std::string(isMax ? "FilterMax_" : "FilterMin_") + name + "/" + std::to_string(k) +
                    "x" + std::to_string(k) + "/" + s.name(),
                threads, 1LL * s.width * s.height,
                [=, &m](benchmark::State& st) {
                  int bytes = 0;
                  m.size(isMax, s.width, mask, &bytes);
                  std::vector<Kvl8u> buf(bytes);
                  for (auto _ : st)
                    m.run(isMax, src->data(), *step, dst->data(), *step, roi, mask,
                          {k / 2, k / 2}, buf.data());
                },
                KVL_PEER([=, &m](benchmark::State& st) {
                  const cv::Mat a(s.height, s.width, cvType(m), src->data(), *step);
                  cv::Mat b(s.height, s.width, cvType(m), dst->data(), *step);
                  const cv::Mat kernel = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(k, k));
                  for (auto _ : st) {
                    if (isMax)
                      cv::dilate(a, b, kernel, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
                    else
                      cv::erode(a, b, kernel, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
                  }
                }));
          }
      }
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
