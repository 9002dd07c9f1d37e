// Multi-scale object detection with a boosted Haar cascade on kvlCV's integral images and
// classifiers: one library classifier per stage, built once per cascade; for every scale the
// image is resized, its tables are built and the stages are applied in turn to a candidate mask;
// the windows that pass every stage are grouped. Tilted rectangles are read as runs of rows
// from the upright table (tiltedRows), which gives exactly the pixels the cascades were trained
// on; the library's tilted table centres its cones between pixels and cannot.
#pragma once

#include <kvlcv.h>

#include <cstdint>
#include <vector>

#include "cascade.h"

namespace kvl::detect {

struct DetectParams {
  double scaleFactor = 1.1;  // > 1: each scale's window is this much larger than the last
  int minNeighbors = 3;      // a box needs at least this many other hits grouped with it
  int minSize = 0;           // smallest box side in image pixels (the window size at least)
  int maxSize = 0;           // largest box side in image pixels; 0: no limit
  int threads = 0;           // scales searched at once; 0: the library's permitted thread count
};

// A box in image pixels; `neighbors` is the number of hits grouped into it (1 for a raw hit).
struct Box {
  int x, y, width, height;
  int neighbors;
  bool operator==(const Box&) const = default;
};

// The scales searched for an image: the window grows by `scaleFactor` from 1 while it fits the
// image and maxSize; scales whose window is below minSize are left out.
std::vector<double> searchScales(int width, int height, int winWidth, int winHeight,
                                 const DetectParams& p);

// The pixels a tilted rectangle covers, as one upright rectangle (a run of one row) per row, top
// to bottom, appended to `out`.
void tiltedRows(const CascadeRect& r, std::vector<KvliRect>* out);

// Bilinear resize of an 8-bit grey image (pixel centres aligned, edges replicated), with 11-bit
// fixed-point weights and the result rounded to nearest.
void resizeBilinear(const uint8_t* src, int srcStep, int srcWidth, int srcHeight, uint8_t* dst,
                    int dstStep, int dstWidth, int dstHeight);

// Groups hits whose corners all lie within a fifth of their mean size of each other (and, through
// them, their neighbours' neighbours). A group of at least minNeighbors + 1 hits gives their mean
// box; a box inside another kept box with at least as many hits is dropped. Ordered by y, x, size.
std::vector<Box> groupBoxes(const std::vector<Box>& hits, int minNeighbors);

// A search whose windows pass the cascade more often than this (a cascade that accepts nearly
// everything) is refused rather than grouped.
constexpr size_t kMaxHits = size_t{1} << 22;

class Detector {
 public:
  // Builds one classifier per stage. Throws CascadeError when the library refuses a stage.
  explicit Detector(const Cascade& cascade);
  ~Detector();
  Detector(const Detector&) = delete;
  Detector& operator=(const Detector&) = delete;

  // Every window that passes all stages, scale by scale (in searchScales order), row by row.
  // Scales run in up to p.threads threads; the list does not depend on their number. Throws
  // CascadeError when a library call fails or more than kMaxHits windows pass, and
  // std::bad_alloc when memory runs out.
  std::vector<Box> hits(const uint8_t* grey, int step, int width, int height,
                        const DetectParams& p) const;
  // hits() grouped by groupBoxes() with p.minNeighbors.
  std::vector<Box> detect(const uint8_t* grey, int step, int width, int height,
                          const DetectParams& p) const;

  int windowWidth() const { return width_; }
  int windowHeight() const { return height_; }

 private:
  struct StageState {
    KvliHaarClassifier_32f* state;
    float threshold;
  };
  struct Workspace;
  std::vector<Box> searchScale(const uint8_t* grey, int step, int width, int height, double scale,
                               Workspace& ws) const;

  int width_, height_;
  std::vector<StageState> stages_;
};

}  // namespace kvl::detect
