// The kvlcv tool's operation table and the helpers every operation shares.
#pragma once

#include <kvlcv.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "image_io.h"

namespace kvlcli {

using Args = std::map<std::string, std::string>;

enum class Kind {
  kWord,     // one of `values`
  kNumber,   // a finite decimal number within [min, max]
  kInteger,  // a whole number (digits only) within [min, max]
  kFlag,     // takes no value
  kFile,     // a file name (any non-empty text), or one of `values` where they are given
  kSize,     // "WxH" or "N" (N x N), each side a whole number within [min, max]
  kPoint,    // "X,Y", each a whole number within [min, max]
};

struct Option {
  const char* name;
  const char* help;
  std::vector<const char*> values;  // kWord: the accepted words
  const char* fallback;             // the default, as text
  Kind kind = Kind::kWord;
  double min = -1e300;  // kNumber, kInteger: the accepted range
  double max = 1e300;
  bool nonzero = false;  // kNumber, kInteger: 0 is refused
  bool aboveMin = false;  // kNumber: min itself is refused
};

// An image written beside the output: <output name without extension><suffix>.<extension>.
struct ExtraImage {
  std::string suffix;
  Picture picture;
};

struct RunResult {
  KvlStatus status = kvlStatusOk;
  std::string error;     // a problem found before the library was called
  double seconds = 0.0;  // wall time of the library call
  std::string report;    // printed on standard output once the output image is written
  std::vector<ExtraImage> extras;  // written after the output, in order
};

// The path of an extra image beside `output`: "dir/out.png" with "-2" gives "dir/out-2.png".
std::string extraPath(const std::string& output, const std::string& suffix);

struct Operation {
  const char* name;
  const char* summary;
  const char* details;
  std::vector<Option> options;
  RunResult (*run)(const Args& args, const Picture& in, Picture* out);
  // Operations of two input images (track) have this instead of run.
  RunResult (*runPair)(const Args& args, const Picture& first, const Picture& second,
                       Picture* out) = nullptr;
  int inputs() const { return runPair ? 2 : 1; }
};

struct StatusInfo {
  const char* name;
  const char* meaning;
};

// ---- Helpers every operation shares ----

template <class F>
RunResult timed(F&& call) {
  RunResult r;
  const auto t0 = std::chrono::steady_clock::now();
  r.status = call();
  r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  return r;
}

// A library status before the timed call.
inline RunResult failed(KvlStatus status) {
  RunResult r;
  r.status = status;
  return r;
}

inline RunResult problem(std::string msg) {
  RunResult r;
  r.error = std::move(msg);
  return r;
}

inline double number(const Args& a, const char* name, double fallback) {
  auto it = a.find(name);
  return it == a.end() ? fallback : std::strtod(it->second.c_str(), nullptr);
}

inline std::string word(const Args& a, const char* name, const char* fallback) {
  auto it = a.find(name);
  return it == a.end() ? fallback : it->second;
}

inline bool flag(const Args& a, const char* name) { return a.count(name) != 0; }

const std::vector<Operation>& operations();
// The detect operation (detect_op.cc).
RunResult runDetect(const Args& args, const Picture& in, Picture* out);
const std::vector<Option>& detectOptions();
extern const char* const kDetectDetails;
// The track operation (track_op.cc).
RunResult runTrack(const Args& args, const Picture& first, const Picture& second, Picture* out);
const std::vector<Option>& trackOptions();
extern const char* const kTrackDetails;
// The distance operation (distance_op.cc).
RunResult runDistance(const Args& args, const Picture& in, Picture* out);
const std::vector<Option>& distanceOptions();
extern const char* const kDistanceDetails;
// The floodfill operation (floodfill_op.cc).
RunResult runFloodFill(const Args& args, const Picture& in, Picture* out);
const std::vector<Option>& floodFillOptions();
extern const char* const kFloodFillDetails;
// The watershed operation (watershed_op.cc).
RunResult runWatershed(const Args& args, const Picture& in, Picture* out);
const std::vector<Option>& watershedOptions();
extern const char* const kWatershedDetails;
// The gradient segmentation operation (gradient_seg_op.cc).
RunResult runGradientSeg(const Args& args, const Picture& in, Picture* out);
const std::vector<Option>& gradientSegOptions();
extern const char* const kGradientSegDetails;
// The morphology operations erode, dilate, open, close and gradient (morph_op.cc).
RunResult runMorph(const char* op, const Args& args, const Picture& in, Picture* out);
const std::vector<Option>& morphOptions();
extern const char* const kMorphDetails;
// The foreground operation over a sequence of frames (foreground_op.cc): not in the table of
// one-image operations; main.cc runs it as `kvlcv foreground [options] <frame>... <outdir>`.
extern const char* const kForegroundDetails;
const std::vector<Option>& foregroundOptions();
// Every frame through the chosen model (the first also creates it): one mask and one background
// per frame; seconds covers all the library calls.
RunResult runForegroundFrames(const Args& args, const std::vector<Picture>& frames,
                              std::vector<Picture>* masks, std::vector<Picture>* backgrounds);
// The command: reads the frames in name order, checks they agree, writes mask-NNNN.png and
// background-NNNN.png (NNNN from 0001) into outDir, prints frames per second; returns the exit
// code.
int runForeground(const Args& args, std::vector<std::string> files, const std::string& outDir,
                  uint64_t maxPixels, bool time);
// `count` frames of the photograph with two shapes moving across it and light noise.
std::vector<Picture> syntheticVideo(const Picture& photo, int count);
const Operation* findOperation(const std::string& name);
StatusInfo statusInfo(KvlStatus status);
// Empty when `value` is acceptable for `opt`, else a message naming the option, such as
// "--divisor: 2.5 is not an integer".
std::string checkValue(const Option& opt, const std::string& value);
// Runs every operation on the built-in photograph, writes PNGs into `dir`, prints a table.
int demo(const std::string& dir);

}  // namespace kvlcli
