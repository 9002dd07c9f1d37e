// Fuzz target: the exact Euclidean transform and fast marching, every member of both tables.
#include <cmath>

#include "fuzz.h"
#include "seg/dist_exact_members.h"
#include "seg/fast_marching_members.h"

namespace {

using namespace kvl::fuzz;

const kvl::seg::DistanceFieldMember kMembers[] = {KVL_DIST_EXACT_MEMBERS(
    KVL_DIST_EXACT_RECORD) KVL_FAST_MARCHING_MEMBERS(KVL_FAST_MARCHING_RECORD)};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const kvl::seg::DistanceFieldMember& m = pickMember(in, kMembers);
  Session s(in);
  // Fast marching sweeps until nothing changes: keep its images a little smaller.
  const KvliSize roi = in.roi(300, 6000);
  // Radii around the times that occur, now and then any float (negative ones are refused).
  const float radius = in.flag() ? static_cast<float>(in.range(0, 80)) / 4 : in.f32();
  s.note("roi %dx%d, radius %.9g", roi.width, roi.height, radius);
  Image& src = s.image("src", Role::kIn, typeOf<Kvl8u>(), roi);
  Image& dst = s.image("dst", Role::kOut, typeOf<Kvl32f>(), roi);
  int bytes = 0;
  const KvlStatus sized = m.getBufferSize(roi, &bytes);
  // A size the query refuses still gets a call, so the validation order runs.
  Kvl8u* buffer = s.scratch("buffer", sized == kvlStatusOk ? static_cast<size_t>(bytes) : 64);
  if (in.oneIn(64)) buffer = nullptr;
  s.run(m.name, [&] {
    return m.run(src.ptr<Kvl8u>(), src.step(), dst.ptr<Kvl32f>(), dst.step(), roi, radius, buffer);
  });
  return 0;
}
