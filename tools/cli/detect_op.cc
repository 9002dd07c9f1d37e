// The detect operation: a cascade (the embedded frontal-face one, or --cascade FILE) searched
// over the image at every scale; the boxes are drawn on an RGB copy and listed on standard output.
#include <chrono>
#include <cstdio>
#include <new>

#include "detector.h"
#include "ops.h"

extern "C" const char kvl_default_cascade[];
extern "C" const char kvl_default_cascade_end[];

namespace kvlcli {

namespace kd = kvl::detect;

// A function, so that the operation table of another file can copy it during static start-up.
const std::vector<Option>& detectOptions() {
  static const std::vector<Option> options = {
    {"cascade", "a trained Haar cascade (XML, stump classifiers)", {},
     "the built-in frontal-face cascade", Kind::kFile},
    {"scale-factor", "each search scale is this much larger than the last (above 1)", {}, "1.1",
     Kind::kNumber, 1, 100, false, true},
    {"min-neighbors", "hits a box needs besides its own", {}, "3", Kind::kInteger, 0, 1000000},
    {"min-size", "smallest box side in pixels (the cascade's window at least)", {}, "0",
     Kind::kInteger, 0, kMaxSide},
    {"max-size", "largest box side in pixels (0: no limit)", {}, "0", Kind::kInteger, 0, kMaxSide},
    {"json", "list the boxes as one JSON array", {}, "off", Kind::kFlag},
  };
  return options;
}

const char* const kDetectDetails =
    "  Prints one line per box (x y width height, and the hits grouped into it), or with --json\n"
    "  one array of {\"x\", \"y\", \"width\", \"height\", \"neighbors\"} objects; the output image is\n"
    "  the input in RGB with the boxes drawn in green. 16-bit samples are taken by their high byte.";

namespace {

void drawBox(Picture* p, const kd::Box& b) {
  const int t = std::max(2, std::min(b.width, b.height) / 40);
  auto fill = [&](int x0, int y0, int x1, int y1) {
    x0 = std::max(x0, 0), y0 = std::max(y0, 0);
    x1 = std::min(x1, p->width), y1 = std::min(y1, p->height);
    for (int y = y0; y < y1; ++y)
      for (int x = x0; x < x1; ++x) {
        uint8_t* px = p->row(y) + 3 * x;
        px[0] = 0, px[1] = 255, px[2] = 0;
      }
  };
  fill(b.x, b.y, b.x + b.width, b.y + t);
  fill(b.x, b.y + b.height - t, b.x + b.width, b.y + b.height);
  fill(b.x, b.y, b.x + t, b.y + b.height);
  fill(b.x + b.width - t, b.y, b.x + b.width, b.y + b.height);
}

}  // namespace

RunResult runDetect(const Args& a, const Picture& in, Picture* out) {
  RunResult r;
  kd::DetectParams p;
  auto num = [&](const char* name, double fallback) {
    auto it = a.find(name);
    return it == a.end() ? fallback : std::strtod(it->second.c_str(), nullptr);
  };
  p.scaleFactor = num("scale-factor", 1.1);
  p.minNeighbors = static_cast<int>(num("min-neighbors", 3));
  p.minSize = static_cast<int>(num("min-size", 0));
  p.maxSize = static_cast<int>(num("max-size", 0));
  if (p.maxSize > 0 && p.maxSize < p.minSize) {
    r.error = "--max-size " + a.at("max-size") + " is below --min-size " + a.at("min-size");
    return r;
  }
  const bool json = a.count("json") != 0;
  std::vector<kd::Box> boxes;
  try {
    const auto c = a.count("cascade")
                       ? kd::loadCascade(a.at("cascade"))
                       : kd::parseCascade(kvl_default_cascade,
                                          static_cast<size_t>(kvl_default_cascade_end - kvl_default_cascade));
    const kd::Detector detector(c);
    const std::vector<uint8_t> g = kvlcli::greySamples(in);
    const auto t0 = std::chrono::steady_clock::now();
    boxes = detector.detect(g.data(), in.width, in.width, in.height, p);
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  } catch (const kd::CascadeError& e) {
    r.error = e.what();
    return r;
  }
  out->allocate(in.width, in.height, 3, 8);
  for (int y = 0; y < in.height; ++y)
    for (int x = 0; x < in.width; ++x)
      for (int c = 0; c < 3; ++c) {
        const int i = x * in.channels + (in.channels == 3 ? c : 0);
        out->row(y)[3 * x + c] = static_cast<uint8_t>(in.sample8(y, i));
      }
  for (const kd::Box& b : boxes) drawBox(out, b);
  char line[160];
  std::string report(json ? 1 : 0, '[');
  for (size_t i = 0; i < boxes.size(); ++i) {
    const kd::Box& b = boxes[i];
    if (json)
      std::snprintf(line, sizeof(line),
                    "%s\n  {\"x\": %d, \"y\": %d, \"width\": %d, \"height\": %d, \"neighbors\": %d}",
                    i ? "," : "", b.x, b.y, b.width, b.height, b.neighbors);
    else
      std::snprintf(line, sizeof(line), "x=%d y=%d width=%d height=%d neighbors=%d\n", b.x, b.y,
                    b.width, b.height, b.neighbors);
    report += line;
  }
  if (json) report += boxes.empty() ? "]\n" : "\n]\n";
  r.report = std::move(report);
  return r;
}

}  // namespace kvlcli
