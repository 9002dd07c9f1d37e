// Boosted cascades of Haar-like features: the in-memory form and the loader of the trained XML
// cascades (stump classifiers; upright and 45-degree tilted features).
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace kvl::detect {

// One weighted rectangle of a feature, in window pixels. Upright: {x, y} is the top-left corner.
// Tilted: {x, y} is the top corner, `width` runs down-right and `height` down-left.
struct CascadeRect {
  int x, y, width, height;
  float weight;
};

struct Feature {
  std::vector<CascadeRect> rects;  // 1 to kMaxRects
  bool tilted = false;
};

// A stump: the feature's weighted sum f, over the window area times the window's standard
// deviation, below `threshold` gives `below`, else `above`.
struct WeakClassifier {
  int feature;
  float threshold;
  float below, above;
};

struct Stage {
  float threshold;  // the window passes when the sum of its classifiers' outputs is >= this
  std::vector<WeakClassifier> weak;
};

struct Cascade {
  int width = 0, height = 0;  // the window
  std::vector<Stage> stages;
  std::vector<Feature> features;
  bool hasTilted() const;
};

// Limits on what a cascade may hold: the trained cascades stay far below them, and a file beyond
// them is refused before anything proportional to its claims is allocated.
constexpr size_t kMaxCascadeBytes = 64u << 20;
constexpr int kMaxWindowSide = 1024;
constexpr int kMaxRects = 3;

// One line naming the first problem found, such as "stage 3, classifier 7: feature 4000 of 2913".
class CascadeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Parses the XML text of a cascade (`size` bytes, no terminator needed). Throws CascadeError.
Cascade parseCascade(const char* data, size_t size);
// Reads and parses a cascade file: a regular file of at most kMaxCascadeBytes, or a pipe read up
// to that many bytes. Throws CascadeError naming the file.
Cascade loadCascade(const std::string& path);

}  // namespace kvl::detect
