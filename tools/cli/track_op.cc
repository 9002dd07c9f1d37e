// The track operation: points of the first image followed into the second with the pyramidal
// Lucas-Kanade tracker; the motion vectors are drawn on an RGB copy of the first image and each
// point is listed on standard output.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "ops.h"

namespace kvlcli {

const std::vector<Option>& trackOptions() {
  static const std::vector<Option> options = {
      {"points", "a file of points, one \"x y\" line each (blank lines and # comments allowed)", {},
       "a grid of points", Kind::kFile},
      {"grid", "spacing in pixels of the default grid of points", {}, "32", Kind::kInteger, 1, kMaxSide},
      {"window", "side of the square window, in pixels", {}, "21", Kind::kInteger, 1, 255},
      {"levels", "pyramid levels above the image (0: the image alone)", {}, "3", Kind::kInteger, 0, 10},
      {"iterations", "most steps per level", {}, "30", Kind::kInteger, 1, 1000},
      {"threshold", "a step shorter than this (pixels) ends a level", {}, "0.01", Kind::kNumber, 0, 100},
      {"json", "list the points as one JSON array", {}, "off", Kind::kFlag},
  };
  return options;
}

const char* const kTrackDetails =
    "  kvlcv track [options] <first> <second> <output>: both images have the same size (RGB is\n"
    "  converted to luma, 16-bit samples are taken by their high byte). Prints one line per point\n"
    "  (from, to, status, error: status 0 is tracked, k + 1 lost at pyramid level k), or with\n"
    "  --json one array of {\"from\": [x, y], \"to\": [x, y], \"status\": s, \"error\": e}\n"
    "  objects. The output is the first image in RGB with a green line from each tracked point\n"
    "  (a yellow dot) to where it went (a green dot), and a red cross on each lost one.";

namespace {

// Points files: at most this many points, of at most this many bytes.
constexpr size_t kMaxPoints = 1000000;
constexpr std::streamoff kMaxPointsFileBytes = 64 << 20;

// Reads "x y" lines; empty on success, else a one-line message. The file is read up to the
// size limit whatever it is (a pipe or a device included).
std::string loadPoints(const std::string& path, std::vector<KvliPoint32f>* pts) {
  std::ifstream f(path, std::ios::binary);
  if (!f) return "--points " + path + ": cannot be opened (" + std::strerror(errno) + ")";
  std::string text;
  char chunk[65536];
  while (f.read(chunk, sizeof(chunk)) || f.gcount() > 0) {
    text.append(chunk, static_cast<size_t>(f.gcount()));
    if (static_cast<std::streamoff>(text.size()) > kMaxPointsFileBytes)
      return "--points " + path + ": larger than 64 MiB";
  }
  if (f.bad()) return "--points " + path + ": read error";
  std::istringstream lines(text);
  std::string line;
  size_t n = 0;
  while (std::getline(lines, line)) {
    const std::string at = "--points " + path + ": line " + std::to_string(++n) + ": ";
    if (line.find('\0') != std::string::npos) return at + "not text";
    const size_t hash = line.find('#');
    if (hash != std::string::npos) line.resize(hash);
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    const char* p = line.c_str();
    char* end = nullptr;
    double v[2];
    for (double& c : v) {
      c = std::strtod(p, &end);
      if (end == p) return at + "expected two numbers \"x y\"";
      if (!std::isfinite(c) || std::fabs(c) > 1e7)
        return at + "a coordinate is not a finite number within 1e7";
      p = end;
    }
    if (std::string(p).find_first_not_of(" \t\r") != std::string::npos)
      return at + "unexpected text after \"x y\"";
    if (pts->size() >= kMaxPoints) return "--points " + path + ": more than 1000000 points";
    pts->push_back({static_cast<float>(v[0]), static_cast<float>(v[1])});
  }
  if (pts->empty()) return "--points " + path + ": no points";
  return "";
}

// A number for JSON and the listing: finite values with 4 decimals, others as null.
std::string num(double v) {
  if (!std::isfinite(v)) return "null";
  char b[32];
  std::snprintf(b, sizeof(b), "%.4f", v);
  return b;
}

void put(Picture* p, long x, long y, uint8_t r, uint8_t g, uint8_t b) {
  if (x < 0 || y < 0 || x >= p->width || y >= p->height) return;
  uint8_t* px = p->row(static_cast<int>(y)) + 3 * x;
  px[0] = r, px[1] = g, px[2] = b;
}

void line(Picture* p, double x0, double y0, double x1, double y1) {
  const int steps = static_cast<int>(std::min(4096.0, std::ceil(std::max(std::fabs(x1 - x0), std::fabs(y1 - y0)))));
  for (int i = 0; i <= steps; ++i) {
    const double t = steps ? static_cast<double>(i) / steps : 0.0;
    put(p, std::lround(x0 + (x1 - x0) * t), std::lround(y0 + (y1 - y0) * t), 0, 255, 0);
  }
}

// The pyramid of an 8-bit grey image: kvliPyramidInitAlloc's record filled by PyrDown.
struct Pyramid {
  KvliPyramid* rec = nullptr;
  std::vector<std::vector<Kvl8u>> levels;
  ~Pyramid() {
    if (rec) kvliPyramidFree(rec);
  }
  KvlStatus build(const std::vector<uint8_t>& grey, int w, int h, int top) {
    if (KvlStatus s = kvliPyramidInitAlloc(&rec, top < 1 ? 1 : top, {w, h}, 2.0f)) return s;
    levels.assign(static_cast<size_t>(rec->level) + 1, {});
    levels[0] = grey;
    for (int k = 0; k <= rec->level; ++k) {
      const KvliSize s = rec->pRoi[k];
      if (k > 0) {
        const KvliSize below = rec->pRoi[k - 1];
        int bytes = 0;
        if (KvlStatus st = kvliPyrDownGetBufSize_Gauss5x5(below.width, kvl8u, 1, &bytes)) return st;
        std::vector<Kvl8u> buffer(static_cast<size_t>(bytes));
        levels[k].assign(static_cast<size_t>(s.width) * s.height, 0);
        if (KvlStatus st = kvliPyrDown_Gauss5x5_8u_C1R(levels[k - 1].data(), below.width, levels[k].data(),
                                                       s.width, below, buffer.data()))
          return st;
      }
      rec->pImage[k] = levels[k].data();
      rec->pStep[k] = s.width;
    }
    return kvlStatusOk;
  }
};

}  // namespace

RunResult runTrack(const Args& a, const Picture& first, const Picture& second, Picture* out) {
  RunResult r;
  if (first.width != second.width || first.height != second.height) {
    r.error = "the images differ in size (" + std::to_string(first.width) + "x" +
              std::to_string(first.height) + " and " + std::to_string(second.width) + "x" +
              std::to_string(second.height) + ")";
    return r;
  }
  auto opt = [&](const char* name, double fallback) {
    auto it = a.find(name);
    return it == a.end() ? fallback : std::strtod(it->second.c_str(), nullptr);
  };
  const int w = first.width, h = first.height;
  const int window = static_cast<int>(opt("window", 21)), top = static_cast<int>(opt("levels", 3));
  const int iterations = static_cast<int>(opt("iterations", 30));
  const float threshold = static_cast<float>(opt("threshold", 0.01));
  std::vector<KvliPoint32f> pts;
  if (a.count("points")) {
    r.error = loadPoints(a.at("points"), &pts);
    if (!r.error.empty()) return r;
  } else {
    const int grid = static_cast<int>(opt("grid", 32));
    for (long y = grid / 2; y < h; y += grid)
      for (long x = grid / 2; x < w && pts.size() < kMaxPoints; x += grid)
        pts.push_back({static_cast<float>(x), static_cast<float>(y)});
    if (pts.empty()) pts.push_back({0.5f * (w - 1), 0.5f * (h - 1)});
  }
  Pyramid p1, p2;
  if ((r.status = p1.build(greySamples(first), w, h, top)) != kvlStatusOk) return r;
  if ((r.status = p2.build(greySamples(second), w, h, top)) != kvlStatusOk) return r;
  // The record holds at least one level above the image; --levels is the deepest one used.
  const int maxLev = std::min(top, p1.rec->level);
  KvliOptFlowPyrLKState* st = nullptr;
  if ((r.status = kvliOpticalFlowPyrLKInitAlloc_8u_C1R(&st, {w, h}, window, 0)) != kvlStatusOk) return r;
  std::vector<KvliPoint32f> next(pts.size());
  std::vector<Kvl8s> status(pts.size());
  std::vector<Kvl32f> error(pts.size());
  const auto t0 = std::chrono::steady_clock::now();
  r.status = kvliOpticalFlowPyrLK_8u_C1R(p1.rec, p2.rec, pts.data(), next.data(), status.data(),
                                         error.data(), static_cast<int>(pts.size()), window, maxLev,
                                         iterations, threshold, st);
  r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  kvliOpticalFlowPyrLKFree_8u_C1R(st);
  if (r.status != kvlStatusOk) return r;

  // The first image in RGB, the vectors on it.
  out->allocate(w, h, 3, 8);
  const std::vector<uint8_t> grey = greySamples(first);
  for (size_t i = 0; i < grey.size(); ++i)
    for (int c = 0; c < 3; ++c) out->data[3 * i + c] = grey[i];
  const bool json = a.count("json") != 0;
  std::string report(json ? "[" : "");
  for (size_t i = 0; i < pts.size(); ++i) {
    const KvliPoint32f f = pts[i], t = next[i];
    if (status[i] == 0) {
      for (int d = -1; d <= 1; ++d)
        for (int e = -1; e <= 1; ++e) put(out, std::lround(f.x) + d, std::lround(f.y) + e, 255, 255, 0);
      line(out, f.x, f.y, t.x, t.y);
      for (int d = -1; d <= 1; ++d)
        for (int e = -1; e <= 1; ++e) put(out, std::lround(t.x) + d, std::lround(t.y) + e, 0, 255, 0);
    } else {
      for (int d = -2; d <= 2; ++d) {
        put(out, std::lround(f.x) + d, std::lround(f.y) + d, 255, 0, 0);
        put(out, std::lround(f.x) + d, std::lround(f.y) - d, 255, 0, 0);
      }
    }
    if (json) {
      report += std::string(i ? "," : "") + "\n  {\"from\": [" + num(f.x) + ", " + num(f.y) + "], \"to\": [" +
                num(t.x) + ", " + num(t.y) + "], \"status\": " + std::to_string(status[i]) +
                ", \"error\": " + num(error[i]) + "}";
    } else {
      report += num(f.x) + " " + num(f.y) + " -> " + num(t.x) + " " + num(t.y) + " status " +
                std::to_string(status[i]) + " error " + num(error[i]) + "\n";
    }
  }
  if (json) report += pts.empty() ? "]\n" : "\n]\n";
  r.report = std::move(report);
  return r;
}

}  // namespace kvlcli
