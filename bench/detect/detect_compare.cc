// Compares kvlCV's detections with the peer's cascade detector on real photographs: the same
// cascade, scale factor, minimum neighbours and minimum size; prints, per photograph, the boxes
// of each, the intersection over union of each of ours with the best-matching one of theirs,
// and how many raw (ungrouped) windows the two searches share.
//
//   kvlcv_detect_compare [--cascade FILE] [IMAGE...]
//
// Without images: the sample photograph, and the photographs of python3-skimage's sample data
// when that package is installed.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <opencv2/objdetect.hpp>

#include "detector.h"
#include "image_io.h"

namespace {

using kvl::detect::Box;

double iou(const Box& a, const cv::Rect& b) {
  const int ix = std::max(0, std::min(a.x + a.width, b.x + b.width) - std::max(a.x, b.x));
  const int iy = std::max(0, std::min(a.y + a.height, b.y + b.height) - std::max(a.y, b.y));
  const double inter = static_cast<double>(ix) * iy;
  return inter / (static_cast<double>(a.width) * a.height + static_cast<double>(b.width) * b.height - inter);
}

}  // namespace

int main(int argc, char** argv) {
  std::string cascade = KVL_SOURCE_DIR "/data/cascades/frontalface_default.xml";
  std::vector<std::string> images;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--cascade" && i + 1 < argc) cascade = argv[++i];
    else images.push_back(a);
  }
  if (images.empty()) {
    images.push_back(KVL_SOURCE_DIR "/data/astronaut.png");
    const std::string sk = "/usr/lib/python3/dist-packages/skimage/data/";
    for (const char* n : {"camera.png", "coffee.png", "chelsea.png", "motorcycle_left.png", "rocket.jpg"}) {
      struct stat st {};
      if (stat((sk + n).c_str(), &st) == 0 && std::string(n).find(".png") != std::string::npos) images.push_back(sk + n);
    }
  }
  try {
    const kvl::detect::Detector detector(kvl::detect::loadCascade(cascade));
    cv::CascadeClassifier peer(cascade);
    kvl::detect::DetectParams p;
    p.scaleFactor = 1.1;
    p.minNeighbors = 3;
    p.minSize = 30;
    std::printf("cascade %s, scale factor %.2f, min neighbours %d, min size %d\n\n", cascade.c_str(),
                p.scaleFactor, p.minNeighbors, p.minSize);
    double iouSum = 0;
    int matched = 0, ours = 0, theirs = 0;
    for (const std::string& path : images) {
      kvlcli::Picture pic;
      const std::string err = kvlcli::readImage(path, &pic);
      if (!err.empty()) {
        std::printf("%s: %s\n", path.c_str(), err.c_str());
        continue;
      }
      std::vector<uint8_t> g = kvlcli::greySamples(pic);
      const cv::Mat img(pic.height, pic.width, CV_8U, g.data());
      const std::vector<Box> boxes = detector.detect(g.data(), pic.width, pic.width, pic.height, p);
      std::vector<cv::Rect> peerBoxes, peerRaw;
      peer.detectMultiScale(img, peerBoxes, p.scaleFactor, p.minNeighbors, 0, cv::Size(p.minSize, p.minSize));
      peer.detectMultiScale(img, peerRaw, p.scaleFactor, 0, 0, cv::Size(p.minSize, p.minSize));
      kvl::detect::DetectParams raw = p;
      raw.minNeighbors = 0;
      std::set<std::tuple<int, int, int>> a, b;
      for (const Box& h : detector.hits(g.data(), pic.width, pic.width, pic.height, raw)) a.insert({h.x, h.y, h.width});
      for (const cv::Rect& r : peerRaw) b.insert({r.x, r.y, r.width});
      size_t shared = 0;
      for (const auto& t : a) shared += b.count(t);
      std::printf("%s (%dx%d): kvlCV %zu boxes, peer %zu; raw windows kvlCV %zu, peer %zu, shared %zu\n",
                  path.substr(path.rfind('/') + 1).c_str(), pic.width, pic.height, boxes.size(),
                  peerBoxes.size(), a.size(), b.size(), shared);
      for (const Box& box : boxes) {
        double best = 0;
        for (const cv::Rect& r : peerBoxes) best = std::max(best, iou(box, r));
        std::printf("  ours %4d %4d %4dx%-4d  best IoU with the peer's %.3f\n", box.x, box.y, box.width,
                    box.height, best);
        if (best > 0.5) iouSum += best, ++matched;
      }
      ours += static_cast<int>(boxes.size());
      theirs += static_cast<int>(peerBoxes.size());
    }
    std::printf("\nall: kvlCV %d boxes, peer %d, %d matched (IoU > 0.5) with mean IoU %.3f\n", ours,
                theirs, matched, matched ? iouSum / matched : 0.0);
  } catch (const kvl::detect::CascadeError& e) {
    std::fprintf(stderr, "kvlcv_detect_compare: %s\n", e.what());
    return 1;
  }
  return 0;
}
