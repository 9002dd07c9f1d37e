// Motion history update against OpenCV's motion-template update (serial on both sides).
#include <cstring>
#include <memory>

#include "bench.h"

#ifdef KVL_HAVE_OPENCV_OPTFLOW
#include <opencv2/optflow/motempl.hpp>
#endif

namespace kvl::bench {
namespace {

struct MhiImages {
  int silStep = 0, mhiStep = 0;
  std::vector<unsigned char> sil;
  std::vector<float> mhi;
  MhiImages(int w, int h) {
    sil = makeImage(w, h, 1, &silStep);
    for (auto& v : sil) v = (v & 8) ? 255 : 0;
    mhiStep = (w * 4 + 63) / 64 * 64;
    mhi.assign(static_cast<size_t>(mhiStep / 4) * h, 0.0f);
    for (size_t i = 0; i < mhi.size(); ++i) mhi[i] = static_cast<float>(i % 97) * 0.1f;
  }
};

const bool registered = [] {
  for (const Size& s : kSizes) {
    auto im = std::make_shared<std::unique_ptr<MhiImages>>();
    auto get = [im, s]() -> MhiImages& {
      if (!*im) *im = std::make_unique<MhiImages>(s.width, s.height);
      return **im;
    };
    Body peer = nullptr;
#ifdef KVL_HAVE_OPENCV_OPTFLOW
    peer = [=](benchmark::State& st) {
      MhiImages& m = get();
      cv::Mat sil(s.height, s.width, CV_8U, m.sil.data(), m.silStep);
      cv::Mat mhi(s.height, s.width, CV_32F, m.mhi.data(), m.mhiStep);
      double t = 10.0;
      for (auto _ : st) cv::motempl::updateMotionHistory(sil, mhi, t += 1.0, 4.0);
      st.SetBytesProcessed(st.iterations() * s.width * s.height * 9LL);
    };
#endif
    pair(
        "UpdateMotionHistory_8u32f_C1IR/" + s.name(), 1, 1LL * s.width * s.height,
        [=](benchmark::State& st) {
          MhiImages& m = get();
          float t = 10.0f;
          for (auto _ : st)
            kvliUpdateMotionHistory_8u32f_C1IR(m.sil.data(), m.silStep, m.mhi.data(), m.mhiStep,
                                               {s.width, s.height}, t += 1.0f, 4.0f);
          st.SetBytesProcessed(st.iterations() * s.width * s.height * 9LL);
        },
        peer);
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
