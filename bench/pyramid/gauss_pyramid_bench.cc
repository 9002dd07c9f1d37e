// Gaussian 5x5 pyramid steps against OpenCV's pyrDown and pyrUp, over the family's member table
// (8u and 32f; OpenCV has no 8s pyramid). kvlCV is single-threaded; the peer runs with 1 and 2
// threads.
#include <cstring>
#include <memory>

#include "bench.h"
#include "pyramid/gauss_pyramid_members.h"

namespace kvl::bench {
namespace {

using pyramid::PyrMember;

// Source, destination and work buffer of one member at one size.
struct PyrImages {
  int srcStep = 0, dstStep = 0;
  std::vector<unsigned char> src, dst;
  std::vector<Kvl8u> buffer;
  PyrImages(const PyrMember& m, Size s) {
    const int pixel = m.channels * m.elemBytes;
    std::vector<unsigned char> bytes = makeImage(s.width * m.channels, s.height, 1, &srcStep);
    if (m.kind == 'f') {  // the same pattern as floats
      const int step8 = srcStep;
      srcStep = (s.width * pixel + 63) / 64 * 64;
      src.assign(static_cast<size_t>(srcStep) * s.height + 64, 0);
      for (int y = 0; y < s.height; ++y)
        for (int x = 0; x < s.width * m.channels; ++x) {
          const float v = bytes[static_cast<size_t>(y) * step8 + x] * 0.37f;
          std::memcpy(&src[static_cast<size_t>(y) * srcStep + 4 * x], &v, 4);
        }
    } else {
      src = std::move(bytes);
    }
    const KvliSize d = m.dstSize({s.width, s.height});
    dstStep = (d.width * pixel + 63) / 64 * 64;
    dst.assign(static_cast<size_t>(dstStep) * d.height + 64, 0);
    int n = 0;
    m.bufSize(s.width, m.dataType, m.channels, &n);
    buffer.assign(static_cast<size_t>(n), 0);
  }
};

const bool registered = [] {
  static const PyrMember members[] = {KVL_PYR_MEMBERS(KVL_PYR_MEMBER_RECORD)};
  for (const Size& s : kSizes) {
    for (const PyrMember& m : members) {
      if (m.kind == 's') continue;
      auto images = std::make_shared<std::unique_ptr<PyrImages>>();  // made on first use
      auto get = [images, &m, s]() -> PyrImages& {
        if (!*images) *images = std::make_unique<PyrImages>(m, s);
        return **images;
      };
      const KvliSize roi{s.width, s.height}, d = m.dstSize(roi);
      const long long pixels = 1LL * s.width * s.height;
      const long long bytes = (pixels + 1LL * d.width * d.height) * m.channels * m.elemBytes;
      for (int threads : {1, 2}) {
        Body kvlBody = [=, &m](benchmark::State& st) {
          PyrImages& im = get();
          for (auto _ : st)
            m.run(im.src.data(), im.srcStep, im.dst.data(), im.dstStep, roi, im.buffer.data());
          st.SetBytesProcessed(st.iterations() * bytes);
        };
        const Body cvBody = KVL_PEER([=, &m](benchmark::State& st) {
          PyrImages& im = get();
          const int type = CV_MAKETYPE(m.kind == 'f' ? CV_32F : CV_8U, m.channels);
          const cv::Mat src(s.height, s.width, type, im.src.data(), im.srcStep);
          cv::Mat dst(d.height, d.width, type, im.dst.data(), im.dstStep);
          for (auto _ : st) {
            if (m.up) {
              cv::pyrUp(src, dst, dst.size());
            } else {
              cv::pyrDown(src, dst, dst.size());
            }
          }
          st.SetBytesProcessed(st.iterations() * bytes);
        });
        pair(std::string(m.name) + "/" + s.name(), threads, pixels, kvlBody, cvBody);
      }
    }
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
