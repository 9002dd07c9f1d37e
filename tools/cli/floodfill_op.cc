// The floodfill operation: repaints the connected region around a seed pixel with one value, by
// the exact, Range or Grad rule, and reports the region (pixels, value, bounding rectangle).
#include <cstdio>
#include <string>

#include "ops.h"
#include "seg/flood_fill_members.h"

namespace kvlcli {

const std::vector<Option>& floodFillOptions() {
  static const std::vector<Option> options = {
      {"seed", "the seed pixel, column and row from the top-left corner", {}, "0,0", Kind::kPoint,
       0, 16777215},
      {"value", "the fill value (every channel; 0..255 for 8-bit images)", {}, "0",
       Kind::kInteger, 0, 65535},
      {"rule", "which pixels join", {"exact", "range", "grad"}, "exact"},
      {"lo", "range, grad: how far below the reference a pixel may be", {}, "0", Kind::kInteger,
       0, 65535},
      {"hi", "range, grad: how far above the reference a pixel may be", {}, "0", Kind::kInteger,
       0, 65535},
      {"connectivity", "4: through edges; 8: through corners too", {"4", "8"}, "4"},
  };
  return options;
}

const char* const kFloodFillDetails =
    "  The region of the seed is repainted with --value in every channel of a copy of the image\n"
    "  (grey or RGB; 16-bit images through the 16-bit fills). exact: pixels equal to the seed's\n"
    "  value join; range: pixels within [seed - lo, seed + hi] in every channel; grad: pixels\n"
    "  within [r - lo, r + hi] of the joined neighbour r they are reached from, so a smooth ramp\n"
    "  fills whole. A seed already equal to --value leaves the image as it is (exact and range).\n"
    "  The report gives the region's pixel count, value and bounding rectangle.";

namespace {

namespace sg = kvl::seg;

const sg::FloodFillMember kFills[] = {KVL_FLOOD_FILL_MEMBERS(KVL_FLOOD_FILL_MEMBER_RECORD)};

}  // namespace

RunResult runFloodFill(const Args& a, const Picture& in, Picture* out) {
  const std::string rule = word(a, "rule", "exact");
  if (rule == "exact" && (a.count("lo") || a.count("hi")))
    return problem("--lo and --hi apply to the range and grad rules only");
  const std::string seedText = word(a, "seed", "0,0");
  const KvliPoint seed{std::stoi(seedText), std::stoi(seedText.substr(seedText.find(',') + 1))};
  const double value = number(a, "value", 0);
  if (in.depth == 8 && value > 255) return problem("--value: " + word(a, "value", "") + " is above 255 for an 8-bit image");
  const int ruleCode = rule == "exact" ? sg::kFillExact : rule == "range" ? sg::kFillRange : sg::kFillGrad;
  const int conn = word(a, "connectivity", "4") == "8" ? 8 : 4;
  const sg::FloodFillMember* m = nullptr;
  for (const sg::FloodFillMember& f : kFills)
    if (f.rule == ruleCode && f.conn == conn && f.kind == 'u' && f.bytes == in.depth / 8 &&
        f.channels == in.channels)
      m = &f;
  if (m == nullptr) return problem("no fill for this image");
  *out = in;
  const KvliSize roi{in.width, in.height};
  int bytes = 0;
  if (KvlStatus s = m->getSize(roi, &bytes)) return failed(s);
  std::vector<Kvl8u> buffer(static_cast<size_t>(bytes));
  const double values[3] = {value, value, value};
  const double lo[3] = {number(a, "lo", 0), number(a, "lo", 0), number(a, "lo", 0)};
  const double hi[3] = {number(a, "hi", 0), number(a, "hi", 0), number(a, "hi", 0)};
  KvliConnectedComp region{};
  region.area = -1;  // stays so when the seed already holds the value
  RunResult r = timed([&] {
    return m->run(out->data.data(), out->step(), roi, seed, values, lo, hi, &region,
                  buffer.data());
  });
  if (r.status != kvlStatusOk) return r;
  char line[200];
  if (region.area < 0) {
    std::snprintf(line, sizeof line, "the seed already holds %g: nothing repainted\n", value);
  } else {
    std::snprintf(line, sizeof line,
                  "region: %.0f pixels, value %g, rect x=%d y=%d width=%d height=%d\n",
                  region.area, region.value[0], region.rect.x, region.rect.y, region.rect.width,
                  region.rect.height);
  }
  r.report = line;
  return r;
}

}  // namespace kvlcli
