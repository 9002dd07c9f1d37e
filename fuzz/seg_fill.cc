// Fuzz target: flood fills, every member of the family's table, the vector targets against the
// plain reference, with the work buffer exactly the size query's bytes and the region record in
// guarded memory.
#include "fuzz.h"
#include "seg/flood_fill_members.h"

namespace {

using namespace kvl::fuzz;
using kvl::seg::FloodFillMember;

const FloodFillMember kMembers[] = {KVL_FLOOD_FILL_MEMBERS(KVL_FLOOD_FILL_MEMBER_RECORD)};

// A value the member's element can hold: mostly the small ones the images are made of (so
// regions and intervals meet), sometimes anything.
double value(Input& in, const FloodFillMember& m) {
  if (m.kind == 'f') {
    if (in.oneIn(4)) return static_cast<double>(in.f32());
    return static_cast<double>(in.range(-4, 8)) / static_cast<double>(in.pick<int>({1, 1, 8}));
  }
  const long long top = m.kind == 's' ? 2147483647LL : (1LL << (8 * m.bytes)) - 1;
  const long long bottom = m.kind == 's' ? -2147483647LL - 1 : 0;
  if (in.oneIn(5)) return static_cast<double>(in.range(bottom, top));
  return static_cast<double>(in.range(0, 4));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const FloodFillMember& m = pickMember(in, kMembers);
  Session s(in);
  const KvliSize roi = in.roi(400, 20000);
  KvliPoint seed{static_cast<int>(in.range(0, roi.width > 1 ? roi.width - 1 : 0)),
                 static_cast<int>(in.range(0, roi.height > 1 ? roi.height - 1 : 0))};
  if (in.oneIn(32)) seed = {static_cast<int>(in.range(-1, roi.width)), static_cast<int>(in.range(-1, roi.height))};
  double newVal[3], lo[3], hi[3];
  for (int c = 0; c < 3; ++c) newVal[c] = value(in, m), lo[c] = value(in, m), hi[c] = value(in, m);
  const bool nullArray = m.channels == 3 && in.oneIn(64);
  s.note("roi %dx%d seed %d,%d newVal %g %g %g lo %g %g %g hi %g %g %g%s", roi.width, roi.height,
         seed.x, seed.y, newVal[0], newVal[1], newVal[2], lo[0], lo[1], lo[2], hi[0], hi[1], hi[2],
         nullArray ? " (a null array)" : "");
  // The three-channel forms whose step bound counts one channel would accept rows that overlap,
  // which the guarded image cannot tell from writes outside the ROI: their steps stay whole.
  Image& image = s.image("image", Role::kOut, Type{m.kind, m.bytes}, roi, m.channels, {},
                         m.stepChannels == m.channels);
  Image& region = s.image("region", Role::kOut, Type{'u', 1}, {48, 1}, 1, {}, false);
  int bytes = 0;
  if (m.getSize(roi, &bytes) != kvlStatusOk) bytes = 64;
  uint8_t* buffer = s.scratch("buffer", static_cast<size_t>(bytes));
  s.run(m.name, [&] {
    return m.run(image.ptr<void>(), image.step(), roi, seed, nullArray ? nullptr : newVal, lo, hi,
                 region.ptr<KvliConnectedComp>(), buffer);
  });
  return 0;
}
