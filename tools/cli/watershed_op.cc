// The watershed operation: marker-controlled watershed over the smoothed gradient of an image,
// with markers from a file or from the gradient's regional minima, written as a coloured label
// image with white watershed lines.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ops.h"
#include "seg/watershed_members.h"

namespace kvlcli {

const std::vector<Option>& watershedOptions() {
  static const std::vector<Option> options = {
      {"markers", "a grey image of the input's size: 0 unlabelled, labels 1..254 (8-bit) or "
       "1..65534 (16-bit), 255 or 65535 walls",
       {}, "the regional minima (--auto)", Kind::kFile},
      {"auto", "markers at the regional minima of the smoothed gradient (the default)", {}, "off",
       Kind::kFlag},
      {"method", "priority queues per grey level, or path costs swept over the image",
       {"queue", "distance"}, "queue"},
      {"connectivity", "neighbours a label grows to", {"4", "8"}, "8"},
      {"boundary", "also mark where regions touch, with 4 or 8 neighbours", {"none", "4", "8"},
       "none"},
  };
  return options;
}

const char* const kWatershedDetails =
    "  The relief is the gradient of the grey image (RGB as luma): the 3x3 Sobel |gx| + |gy| of\n"
    "  its 3x3 box mean, divided by 4 and saturated at 255, then averaged over 5x5. Labels grow\n"
    "  from the markers over the relief in order of increasing height, and where two labels meet\n"
    "  the pixel becomes a watershed line. With --auto (or no --markers) every regional minimum of\n"
    "  the relief counted in steps of 12 levels (relief / 12: a plateau of 8-connected equal\n"
    "  pixels with no lower neighbour) is a marker of its own. --method distance orders the pixels\n"
    "  of a plateau by their distance from its labelled edge (chessboard steps with 8 neighbours,\n"
    "  city-block with 4). The output colours each label, watershed lines white, pixels no marker\n"
    "  reaches black. The report counts the markers, the labels and the line pixels.";

namespace {

namespace sg = kvl::seg;

const sg::WatershedMember kMembers[] = {KVL_WATERSHED_MEMBERS(KVL_WATERSHED_RECORD)};

// The smoothed gradient of the grey samples.
std::vector<uint8_t> relief(const std::vector<uint8_t>& grey, int w, int h) {
  auto clampAt = [w, h](const std::vector<int>& v, int x, int y) {
    x = x < 0 ? 0 : x >= w ? w - 1 : x;
    y = y < 0 ? 0 : y >= h ? h - 1 : y;
    return v[static_cast<size_t>(y) * w + x];
  };
  auto box = [&](const std::vector<int>& v, int r) {
    std::vector<int> out(v.size());
    const int n = (2 * r + 1) * (2 * r + 1);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        int sum = 0;
        for (int dy = -r; dy <= r; ++dy)
          for (int dx = -r; dx <= r; ++dx) sum += clampAt(v, x + dx, y + dy);
        out[static_cast<size_t>(y) * w + x] = (sum + n / 2) / n;
      }
    return out;
  };
  const std::vector<int> mean = box(std::vector<int>(grey.begin(), grey.end()), 1);
  std::vector<int> g(mean.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      auto m = [&](int dx, int dy) { return clampAt(mean, x + dx, y + dy); };
      const int gx = m(1, -1) + 2 * m(1, 0) + m(1, 1) - m(-1, -1) - 2 * m(-1, 0) - m(-1, 1);
      const int gy = m(-1, 1) + 2 * m(0, 1) + m(1, 1) - m(-1, -1) - 2 * m(0, -1) - m(1, -1);
      const int v = (std::abs(gx) + std::abs(gy)) / 4;
      g[static_cast<size_t>(y) * w + x] = v > 255 ? 255 : v;
    }
  const std::vector<int> smooth = box(g, 2);
  return std::vector<uint8_t>(smooth.begin(), smooth.end());
}

// Regional minima are taken on the relief in steps of this many levels, so that shallow dips
// inside a region do not each become a region of their own.
const int kMinimaStep = 12;

// One label per regional minimum (labels 1, 2, ...); returns how many.
int regionalMinima(const std::vector<uint8_t>& r, int w, int h, std::vector<uint32_t>* labels) {
  labels->assign(r.size(), 0);
  std::vector<uint8_t> seen(r.size(), 0);
  std::vector<size_t> plateau, stack;
  int count = 0;
  for (size_t start = 0; start < r.size(); ++start) {
    if (seen[start]) continue;
    // The 8-connected plateau of equal values through `start`, and whether any neighbour is lower.
    plateau.clear();
    stack.assign(1, start);
    seen[start] = 1;
    bool minimum = true;
    while (!stack.empty()) {
      const size_t p = stack.back();
      stack.pop_back();
      plateau.push_back(p);
      const int x = static_cast<int>(p % w), y = static_cast<int>(p / w);
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
          const int nx = x + dx, ny = y + dy;
          if ((dx == 0 && dy == 0) || nx < 0 || ny < 0 || nx >= w || ny >= h) continue;
          const size_t q = static_cast<size_t>(ny) * w + nx;
          if (r[q] < r[p]) minimum = false;
          if (r[q] == r[p] && !seen[q]) {
            seen[q] = 1;
            stack.push_back(q);
          }
        }
    }
    if (!minimum) continue;
    ++count;
    for (size_t p : plateau) (*labels)[p] = static_cast<uint32_t>((count - 1) % 65534 + 1);
  }
  return count;
}

// A bright colour per label, the same on every run.
void colour(uint32_t label, uint8_t* rgb) {
  uint32_t v = label * 2654435761u;
  for (int c = 0; c < 3; ++c, v >>= 8) rgb[c] = static_cast<uint8_t>(64 + (v & 0xff) * 3 / 4);
}

}  // namespace

RunResult runWatershed(const Args& a, const Picture& in, Picture* out) {
  if (a.count("markers") && flag(a, "auto"))
    return problem("--markers and --auto cannot be combined");
  const int w = in.width, h = in.height;
  const KvliSize roi{w, h};
  const std::vector<uint8_t> rel = relief(greySamples(in), w, h);
  std::vector<uint32_t> labels;
  bool wide = true;  // 16-bit markers
  std::string source;
  if (a.count("markers")) {
    Picture m;
    const std::string path = a.at("markers");
    const std::string err = readImage(path, &m);
    if (!err.empty()) return problem(err);
    if (m.width != w || m.height != h) {
      return problem(path + ": the markers are " + std::to_string(m.width) + "x" +
                     std::to_string(m.height) + ", the image " + std::to_string(w) + "x" +
                     std::to_string(h));
    }
    if (m.channels != 1) return problem(path + ": the markers must be a grey image");
    wide = m.depth == 16;
    labels.resize(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) labels[static_cast<size_t>(y) * w + x] = m.sample(y, x);
    source = "from " + path;
  } else {
    std::vector<uint8_t> coarse(rel.size());
    for (size_t i = 0; i < rel.size(); ++i) coarse[i] = static_cast<uint8_t>(rel[i] / kMinimaStep);
    const int minima = regionalMinima(coarse, w, h, &labels);
    source = std::to_string(minima) + " regional minima";
  }
  const sg::WatershedMember& member = kMembers[wide ? 1 : 0];
  const bool queue = word(a, "method", "queue") == "queue";
  const int norm = word(a, "connectivity", "8") == "8" ? 0 : 1;
  const std::string bounds = word(a, "boundary", "none");
  const int flag = (queue ? sg::kWatershedQueue : sg::kWatershedDistance) |
                   (bounds == "4" ? sg::kWatershedBounds4 : bounds == "8" ? sg::kWatershedBounds8 : 0);
  int bytes = 0;
  if (const KvlStatus s = member.getBufferSize(roi, &bytes)) return failed(s);
  if (bytes <= 0) return problem("the image is too large for the watershed's work buffer");
  std::vector<Kvl8u> buffer(static_cast<size_t>(bytes));
  std::vector<Kvl8u> m8;
  std::vector<Kvl16u> m16;
  for (uint32_t v : labels) {
    if (wide) {
      m16.push_back(static_cast<Kvl16u>(v));
    } else {
      m8.push_back(static_cast<Kvl8u>(v));
    }
  }
  void* markers = wide ? static_cast<void*>(m16.data()) : m8.data();
  RunResult r = timed([&] {
    return member.run(rel.data(), w, markers, w * member.markerBytes, roi, norm, flag,
                      buffer.data());
  });
  if (r.status != kvlStatusOk) return r;

  out->allocate(w, h, 3, 8);
  std::vector<uint8_t> used(65536, 0);
  long long lines = 0;
  int regions = 0;
  for (size_t i = 0; i < labels.size(); ++i) {
    const uint32_t v = wide ? m16[i] : m8[i];
    uint8_t* p = out->data.data() + 3 * i;
    if (v == member.boundary) {
      p[0] = p[1] = p[2] = 255;
      ++lines;
    } else if (v == 0) {
      p[0] = p[1] = p[2] = 0;
    } else {
      colour(v, p);
      regions += used[v] == 0;
      used[v] = 1;
    }
  }
  char line[200];
  std::snprintf(line, sizeof line, "markers: %s; %d labels, %lld line pixels (%.1f%%)\n",
                source.c_str(), regions, lines, 100.0 * static_cast<double>(lines) / labels.size());
  r.report = line;
  return r;
}

}  // namespace kvlcli
