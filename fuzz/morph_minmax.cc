// Fuzz target: rectangle minimum and maximum filters, every member of the family's table, the
// vector targets against the scalar reference byte for byte. Float images hold any bits, NaNs
// included: the filters order floats by their bits, so every target gives the same bits even
// there.
#include "fuzz.h"
#include "morph/minmax_filter_members.h"

namespace {

using namespace kvl::fuzz;

const kvl::morph::MinMaxMember kMembers[] = {KVL_MINMAX_MEMBERS(KVL_MINMAX_MEMBER_RECORD)};

// A mask side: mostly the small ones reduced directly, often beyond the doubling
// and block thresholds, now and then longer than the image, rarely refused.
int maskSide(Input& in) {
  switch (in.byte() & 7) {
    case 0:
      return in.oneIn(8) ? static_cast<int>(in.range(-1, 0)) : 1;
    case 1:
    case 2:
    case 3:
      return static_cast<int>(in.range(2, 5));
    case 4:
    case 5:
      return static_cast<int>(in.range(6, 17));
    default:
      return static_cast<int>(in.range(18, 80));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const kvl::morph::MinMaxMember& m = pickMember(in, kMembers);
  const bool isMax = in.flag();
  Session s(in);
  const KvliSize roi = in.roi(200, 6000);
  const KvliSize mask{maskSide(in), maskSide(in)};
  KvliPoint anchor{mask.width > 0 ? static_cast<int>(in.range(0, mask.width - 1)) : 0,
                   mask.height > 0 ? static_cast<int>(in.range(0, mask.height - 1)) : 0};
  if (in.oneIn(32)) anchor = {static_cast<int>(in.range(-1, 3)), static_cast<int>(in.range(-1, 3))};
  s.note("%s, roi %dx%d, mask %dx%d, anchor %d,%d", isMax ? "max" : "min", roi.width, roi.height,
         mask.width, mask.height, anchor.x, anchor.y);
  const Type type{m.kind, m.elemBytes};
  Image& src = s.image("src", Role::kIn, type, roi, m.channels);
  Image& dst = s.image("dst", Role::kOut, type, roi, m.channels);
  // The buffer for this ROI's width (a larger roiWidth now and then), of exactly the queried size.
  const int sizedFor = roi.width + (in.oneIn(4) ? static_cast<int>(in.range(0, 9)) : 0);
  int bytes = 0;
  if (m.size(isMax, sizedFor > 0 ? sizedFor : 1, {mask.width > 0 ? mask.width : 1,
                                                   mask.height > 0 ? mask.height : 1},
             &bytes) != kvlStatusOk)
    return 0;
  uint8_t* buffer = s.scratch("buffer", static_cast<size_t>(bytes));
  s.run(m.name, [&] {
    return m.run(isMax, src.ptr<void>(), src.step(), dst.ptr<void>(), dst.step(), roi, mask,
                 anchor, buffer);
  });
  return 0;
}
