// Face detection of the sample photograph (and of the same photograph enlarged to 1024x1024):
// the whole multi-scale search with the frontal-face cascade against the peer's cascade
// detector with the same cascade file, scale factor, minimum neighbours and minimum size, on
// 1 and 2 threads. Loading the cascade is outside the timed loop for both.
#include <memory>
#include <vector>

#include "bench.h"
#include "detector.h"
#include "image_io.h"

#ifdef KVL_HAVE_OPENCV
#include <opencv2/objdetect.hpp>
#endif

namespace kvl::bench {
namespace {

const char* const kCascade = KVL_SOURCE_DIR "/data/cascades/frontalface_default.xml";
constexpr double kScale = 1.1;
constexpr int kNeighbors = 3, kMinSize = 30;

struct Photo {
  int width = 0, height = 0;
  std::vector<uint8_t> grey;
};

std::shared_ptr<Photo> loadPhoto(int side) {
  kvlcli::Picture p;
  auto photo = std::make_shared<Photo>();
  if (!kvlcli::readImage(KVL_SOURCE_DIR "/data/astronaut.png", &p).empty() || p.channels != 3) return photo;
  const std::vector<uint8_t> grey = kvlcli::greySamples(p);
  photo->width = photo->height = side;
  photo->grey.resize(static_cast<size_t>(side) * side);
  detect::resizeBilinear(grey.data(), p.width, p.width, p.height, photo->grey.data(), side, side, side);
  return photo;
}

const bool registered = [] {
  std::shared_ptr<const detect::Detector> detector;
  try {
    detector = std::make_shared<const detect::Detector>(detect::loadCascade(kCascade));
  } catch (const detect::CascadeError& e) {
    std::fprintf(stderr, "detect benchmark skipped: %s\n", e.what());
    return false;
  }
  for (int side : {512, 1024}) {
    auto photo = loadPhoto(side);
    if (photo->grey.empty()) continue;
    const std::string name = "DetectFaces/astronaut_" + std::to_string(side) + "x" + std::to_string(side);
    for (int threads : {1, 2})
      pair(
          name, threads, 1LL * side * side,
          [=](benchmark::State& st) {
            detect::DetectParams p;
            p.scaleFactor = kScale;
            p.minNeighbors = kNeighbors;
            p.minSize = kMinSize;
            size_t found = 0;
            for (auto _ : st) found = detector->detect(photo->grey.data(), side, side, side, p).size();
            st.counters["faces"] = static_cast<double>(found);
          },
          KVL_PEER([=](benchmark::State& st) {
            cv::CascadeClassifier cc(kCascade);
            const cv::Mat img(side, side, CV_8U, photo->grey.data());
            std::vector<cv::Rect> faces;
            for (auto _ : st)
              cc.detectMultiScale(img, faces, kScale, kNeighbors, 0, cv::Size(kMinSize, kMinSize));
            st.counters["faces"] = static_cast<double>(faces.size());
          }));
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
