// The distance operation: the distance from every pixel to the nearest feature pixel, by a chamfer
// mask, the exact Euclidean transform or fast marching, written as a false-colour map or as raw
// distances.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "ops.h"
#include "seg/dist_chamfer_members.h"
#include "seg/dist_exact_members.h"
#include "seg/fast_marching_members.h"

namespace kvlcli {

const std::vector<Option>& distanceOptions() {
  static const std::vector<Option> options = {
      {"metric", "how distances are measured", {"chamfer3", "chamfer5", "exact", "marching"},
       "exact"},
      {"norm", "the chamfer mask's weights (exact and marching are Euclidean whatever it says)",
       {"l1", "l2", "inf"}, "l2"},
      {"threshold", "a pixel is a feature when its grey value is below this", {}, "128",
       Kind::kInteger, 1, 256},
      {"invert", "features are the pixels at or above --threshold instead", {}, "off",
       Kind::kFlag},
      {"radius", "marching: times beyond this become radius + 0.00001", {}, "inf", Kind::kNumber,
       0},
      {"raw", "write the distances as a 16-bit grey image of round(16 x distance), saturated",
       {}, "off", Kind::kFlag},
  };
  return options;
}

const char* const kDistanceDetails =
    "  The grey image (RGB as luma, 16-bit by its high byte) is thresholded first: pixels below\n"
    "  --threshold are the features (with --invert, the pixels at or above it), so on a dark\n"
    "  shape over a light ground --invert measures inside the shape. Features are at distance 0.\n"
    "  chamfer3 and chamfer5 propagate the float weights of the 3x3 or 5x5 mask of --norm (l1:\n"
    "  1, 2 (, 3); inf: 1, 1 (, 2); l2: 0.955, 1.3693 or 1, 1.4, 2.1969); exact is the Euclidean\n"
    "  distance; marching the arrival time of a front that leaves the features at unit speed.\n"
    "  The map colours 0 dark blue through cyan, green and yellow to red at the largest distance\n"
    "  found; pixels no feature reaches (an image without features) are black. --raw writes\n"
    "  round(16 x distance) as 16-bit grey instead, 65535 for 4095.94 and beyond. The report\n"
    "  gives the features and the largest distance.";

namespace {

namespace sg = kvl::seg;

const sg::ChamferMember kChamfer[] = {KVL_CHAMFER_MEMBERS(KVL_CHAMFER_MEMBER_RECORD)};
const sg::DistanceFieldMember kFields[] = {KVL_DIST_EXACT_MEMBERS(KVL_DIST_EXACT_RECORD)
                                               KVL_FAST_MARCHING_MEMBERS(KVL_FAST_MARCHING_RECORD)};

// Distances at or above this were not reached by any feature (the float chamfer's infinity, the
// exact transform's sqrt of it, fast marching's 999999).
constexpr float kUnreached = 999999.0f;

// The false-colour ramp: dark blue, blue, cyan, green, yellow, red.
void colour(double t, uint8_t* rgb) {
  static const double stops[6][3] = {{0, 0, 96},    {0, 64, 255},  {0, 224, 255},
                                     {32, 208, 64}, {255, 230, 0}, {230, 24, 0}};
  t = std::clamp(t, 0.0, 1.0) * 5;
  const int i = std::min(4, static_cast<int>(t));
  const double f = t - i;
  for (int c = 0; c < 3; ++c)
    rgb[c] = static_cast<uint8_t>(std::lround(stops[i][c] + (stops[i + 1][c] - stops[i][c]) * f));
}

}  // namespace

RunResult runDistance(const Args& a, const Picture& in, Picture* out) {
  const std::string metric = word(a, "metric", "exact");
  const bool chamfer = metric == "chamfer3" || metric == "chamfer5";
  if (metric != "marching" && a.count("radius"))
    return problem("--radius applies to marching only");
  const int threshold = static_cast<int>(number(a, "threshold", 128));
  const bool invert = flag(a, "invert");
  const int w = in.width, h = in.height;
  const KvliSize roi{w, h};
  const std::vector<uint8_t> grey = greySamples(in);
  std::vector<Kvl8u> features(grey.size());
  long long count = 0;
  for (size_t i = 0; i < grey.size(); ++i) {
    const bool feature = (grey[i] < threshold) != invert;
    features[i] = feature ? 0 : 255;
    count += feature;
  }
  std::vector<Kvl32f> dist(grey.size());
  RunResult r;
  if (chamfer) {
    const int taps = metric == "chamfer3" ? 3 : 5;
    const std::string norm = word(a, "norm", "l2");
    const int code = norm == "inf" ? 0 : norm == "l1" ? 1 : 2;
    Kvl32f weights[3] = {};
    if ((r.status = kvliGetDistanceTransformMask_32f(taps, code, weights))) return r;
    const sg::ChamferMember* m = nullptr;
    for (const sg::ChamferMember& c : kChamfer)
      if (c.taps == taps && c.realMetric && !c.inPlace) m = &c;
    r = timed([&] { return m->run(features.data(), w, dist.data(), w * 4, roi, weights); });
  } else {
    const std::string name = metric == "exact" ? "TrueDistanceTransform" : "FastMarching";
    const sg::DistanceFieldMember* field = kFields;
    for (const sg::DistanceFieldMember& f : kFields)
      if (std::string(f.name).rfind(name, 0) == 0) field = &f;
    const sg::DistanceFieldMember& m = *field;
    int bytes = 0;
    if ((r.status = m.getBufferSize(roi, &bytes))) return r;
    std::vector<Kvl8u> buffer(static_cast<size_t>(bytes));
    const float radius = static_cast<float>(number(a, "radius", HUGE_VAL));
    r = timed([&] {
      return m.run(features.data(), w, dist.data(), w * 4, roi, radius, buffer.data());
    });
  }
  if (r.status != kvlStatusOk) return r;

  float largest = 0;
  for (const float d : dist)
    if (d < kUnreached) largest = std::max(largest, d);
  char line[160];
  std::snprintf(line, sizeof line, "%lld feature pixels (%.1f%%), largest distance %.3f\n", count,
                100.0 * static_cast<double>(count) / static_cast<double>(grey.size()), largest);
  r.report = count ? line : "no feature pixels: no distance is finite\n";
  if (flag(a, "raw")) {
    out->allocate(w, h, 1, 16);
    auto* o = reinterpret_cast<uint16_t*>(out->data.data());
    for (size_t i = 0; i < dist.size(); ++i)
      o[i] = static_cast<uint16_t>(std::min(65535.0, std::nearbyint(16.0 * dist[i])));
    return r;
  }
  out->allocate(w, h, 3, 8);
  for (size_t i = 0; i < dist.size(); ++i) {
    uint8_t* p = out->data.data() + 3 * i;
    if (dist[i] >= kUnreached) {
      p[0] = p[1] = p[2] = 0;
    } else {
      colour(largest > 0 ? dist[i] / largest : 0.0, p);
    }
  }
  return r;
}

}  // namespace kvlcli
