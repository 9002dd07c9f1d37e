// Fuzz target: Gaussian 5x5 pyramid steps, every member of the family's table, with a work
// buffer of exactly the size query's bytes.
#include "fuzz.h"
#include "pyramid/gauss_pyramid_members.h"

namespace {

using namespace kvl::fuzz;
using kvl::pyramid::PyrMember;

const PyrMember kMembers[] = {KVL_PYR_MEMBERS(KVL_PYR_MEMBER_RECORD)};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const PyrMember& m = pickMember(in, kMembers);
  Session s(in);
  // Up-sampling writes four times the source: smaller sources keep the calls quick.
  const KvliSize roi = m.up ? in.roi(300, 3000) : in.roi();
  s.note("roi %dx%d", roi.width, roi.height);
  const Type type{m.kind, m.elemBytes};
  Image& src = s.image("src", Role::kIn, type, roi, m.channels);
  const KvliSize d = roi.width > 0 && roi.height > 0 ? m.dstSize(roi) : roi;
  Image& dst = s.image("dst", Role::kOut, type, d, m.channels);
  int bytes = 0;
  const int width = roi.width > 0 ? roi.width : 1;
  if (m.bufSize(width, m.dataType, m.channels, &bytes) != kvlStatusOk) abort();
  uint8_t* buffer = in.oneIn(64) ? nullptr : s.scratch("buffer", static_cast<size_t>(bytes));
  s.run(m.name, [&] {
    return m.run(src.ptr<void>(), src.step(), dst.ptr<void>(), dst.step(), roi, buffer);
  });
  return 0;
}
