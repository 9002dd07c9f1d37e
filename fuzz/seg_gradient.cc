// Fuzz target: gradient segmentation, every member of the table, on seeds as decoded, thinned to
// a few, or none at all (the regional-minima path).
#include "fuzz.h"
#include "seg/gradient_seg_members.h"

namespace {

using namespace kvl::fuzz;

const kvl::seg::GradientSegMember kMembers[] = {
    KVL_GRADIENT_SEG_MEMBERS(KVL_GRADIENT_SEG_RECORD)};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const kvl::seg::GradientSegMember& m = pickMember(in, kMembers);
  Session s(in);
  const KvliSize roi = in.roi(300, 8000);
  const int norm = in.oneIn(16) ? static_cast<int>(in.range(-1, 3)) : static_cast<int>(in.range(0, 1));
  const int flag = in.oneIn(16) ? static_cast<int>(in.range(0, 300)) : in.pick({0, 64, 128, 192});
  const int seeds = static_cast<int>(in.range(0, 2));  // as decoded, thinned, none
  s.note("roi %dx%d, norm %d, flag %d, seeds %d", roi.width, roi.height, norm, flag, seeds);
  Image& src = s.image("src", Role::kIn, typeOf<Kvl8u>(), roi, m.channels);
  Image& marker = s.image("marker", Role::kOut, typeOf<Kvl8u>(), roi);
  int bytes = 0;
  const KvlStatus sized = m.getBufferSize(roi, &bytes);
  Kvl8u* buffer = s.scratch("buffer", sized == kvlStatusOk ? static_cast<size_t>(bytes) : 64);
  if (in.oneIn(64)) buffer = nullptr;
  // The seed edits are made only for calls that pass validation, which write the marker anyway.
  const bool valid = src.ptr<Kvl8u>() && marker.ptr<Kvl8u>() && buffer && sized == kvlStatusOk &&
                     src.step() >= m.channels * roi.width && marker.step() >= roi.width &&
                     (norm == 0 || norm == 1) && (flag & ~192) == 0;
  s.run(m.name, [&] {
    Kvl8u* mk = marker.ptr<Kvl8u>();
    if (valid && seeds > 0) {
      for (int y = 0; y < roi.height; ++y)
        for (int x = 0; x < roi.width; ++x) {
          Kvl8u& v = mk[static_cast<ptrdiff_t>(y) * marker.step() + x];
          if (seeds == 2 || (x * 7 + y * 13) % 29 != 0) v = 0;
        }
    }
    return m.run(src.ptr<Kvl8u>(), src.step(), mk, marker.step(), roi, norm, flag, buffer);
  });
  return 0;
}
