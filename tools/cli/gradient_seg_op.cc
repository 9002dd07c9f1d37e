// The gradseg operation: segmentation by the colour gradient, from seed labels in a marker image
// or, without one, from the gradient's regional minima; written as a coloured label image with
// white boundaries.
#include <cstdio>
#include <string>
#include <vector>

#include "ops.h"
#include "seg/gradient_seg_members.h"

namespace kvlcli {

const std::vector<Option>& gradientSegOptions() {
  static const std::vector<Option> options = {
      {"markers", "a grey image of the input's size: 1..254 seed labels, 0 unlabelled, 255 boundary",
       {}, "the gradient's regional minima", Kind::kFile},
      {"connectivity", "neighbourhood of the gradient, the flooding and the boundaries", {"8", "4"},
       "8"},
  };
  return options;
}

const char* const kGradientSegDetails =
    "  The relief is the largest per-channel (max - min) over each pixel's 3x3 square (or its 4\n"
    "  neighbours with --connectivity 4); labels grow over it from the seeds in order of increasing\n"
    "  relief, and pixels where two labels meet become boundary. Without --markers every regional\n"
    "  minimum of the relief is a seed (labels cycle through 1..254), which over-segments textured\n"
    "  images. RGB inputs are segmented in colour, grey ones in grey (16-bit by the high byte).\n"
    "  Output: each label in its own colour, boundaries white, unreached pixels black; the report\n"
    "  counts the labels found and the boundary pixels.";

namespace {

const kvl::seg::GradientSegMember kMembers[] = {KVL_GRADIENT_SEG_MEMBERS(KVL_GRADIENT_SEG_RECORD)};

}  // namespace

RunResult runGradientSeg(const Args& a, const Picture& in, Picture* out) {
  const int w = in.width, h = in.height;
  const int channels = in.channels == 3 ? 3 : 1;
  std::vector<Kvl8u> src(static_cast<size_t>(w) * h * channels);
  for (int y = 0; y < h; ++y)
    for (int i = 0; i < w * channels; ++i)
      src[static_cast<size_t>(y) * w * channels + i] =
          static_cast<Kvl8u>(in.sample8(y, channels == 3 ? i : i * in.channels));
  std::vector<Kvl8u> marker(static_cast<size_t>(w) * h, 0);
  if (a.count("markers")) {
    Picture m;
    const std::string file = word(a, "markers", "");
    const std::string err = readImage(file, &m, static_cast<uint64_t>(w) * h);
    if (!err.empty()) return problem(err);
    if (m.width != w || m.height != h)
      return problem(file + ": the markers are " + std::to_string(m.width) + "x" +
                     std::to_string(m.height) + ", the input " + std::to_string(w) + "x" +
                     std::to_string(h));
    marker = greySamples(m);
  }
  const bool four = word(a, "connectivity", "8") == "4";
  const kvl::seg::GradientSegMember& mem = kMembers[channels == 3 ? 1 : 0];
  int bytes = 0;
  if (const KvlStatus st = mem.getBufferSize({w, h}, &bytes)) return failed(st);
  std::vector<Kvl8u> buffer(static_cast<size_t>(bytes));
  RunResult r = timed([&] {
    return mem.run(src.data(), w * channels, marker.data(), w, {w, h}, four ? 1 : 0,
                   four ? 64 : 128, buffer.data());
  });
  if (r.status != kvlStatusOk) return r;

  bool seen[256] = {};
  long long bounds = 0, unreached = 0;
  out->allocate(w, h, 3, 8);
  for (size_t i = 0; i < marker.size(); ++i) {
    const int l = marker[i];
    uint8_t* p = out->data.data() + 3 * i;
    seen[l] = true;
    bounds += l == 255;
    unreached += l == 0;
    if (l == 255 || l == 0) {
      p[0] = p[1] = p[2] = static_cast<uint8_t>(l);
    } else {  // well-spread, mid-bright colours
      p[0] = static_cast<uint8_t>(40 + (l * 97) % 180);
      p[1] = static_cast<uint8_t>(40 + (l * 57 + 60) % 180);
      p[2] = static_cast<uint8_t>(40 + (l * 131 + 120) % 180);
    }
  }
  int labels = 0;
  for (int l = 1; l < 255; ++l) labels += seen[l];
  char line[160];
  std::snprintf(line, sizeof line, "%d labels, %lld boundary pixels, %lld unreached\n", labels,
                bounds, unreached);
  r.report = line;
  return r;
}

}  // namespace kvlcli
