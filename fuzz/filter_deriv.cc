// Fuzz target: the derivative filters with border, every member of the family's table.
#include "filter/deriv.h"
#include "fuzz.h"

namespace {

using namespace kvl::fuzz;
namespace dv = kvl::filter::deriv;

const dv::Member kMembers[] = {KVL_DERIV_MEMBERS(KVL_DERIV_MEMBER_RECORD)};

// Border types: every mode (and invalid ones now and then) with any combination of side flags.
int borderType(Input& in) {
  if (in.oneIn(16)) return static_cast<int>(in.range(-1, 300));
  return static_cast<int>(in.pick<long long>({0, 1, 2, 3, 4, 6}) | (in.range(0, 15) << 4));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const dv::Member& m = pickMember(in, kMembers);
  Session s(in);
  const KvliSize roi = in.roi();
  const int mask = in.oneIn(16) ? static_cast<int>(in.range(0, 60)) : in.pick<int>({33, 55});
  const int bt = borderType(in);
  const bool f32 = m.out == dv::Out::k32f;
  const float value = f32 ? in.f32() : static_cast<float>(in.byte());
  const int divisor = in.oneIn(16) ? 0 : static_cast<int>(in.range(-300, 300)) | 1;
  s.note("%s roi %dx%d, mask %d, border %d, value %.9g, divisor %d", m.name, roi.width,
         roi.height, mask, bt, value, divisor);
  // Rows and columns beside the ROI are read when the border type has their flags.
  const int reach = 2;
  const Around readable{(bt & kvlBorderInMemLeft) || (bt & 15) == 6 ? reach : 0,
                        (bt & kvlBorderInMemTop) || (bt & 15) == 6 ? reach : 0,
                        (bt & kvlBorderInMemRight) || (bt & 15) == 6 ? reach : 0,
                        (bt & kvlBorderInMemBottom) || (bt & 15) == 6 ? reach : 0};
  const Type src = f32 ? typeOf<Kvl32f>() : typeOf<Kvl8u>();
  const Type dst = m.out == dv::Out::k16s  ? typeOf<Kvl16s>()
                   : m.out == dv::Out::k8s ? typeOf<Kvl8s>()
                   : m.out == dv::Out::k8u ? typeOf<Kvl8u>()
                                           : typeOf<Kvl32f>();
  // The general members take the caller's word for the steps (they check multiples only).
  const bool general = m.args == dv::Args::General;
  Image& a = s.image("src", Role::kIn, src, roi, 1, readable, !general);
  Image& d = s.image("dst", Role::kOut, dst, roi, 1, {}, !general);
  int bytes = 0;
  const KvliSize sizeRoi{roi.width > 0 ? roi.width : 1, roi.height > 0 ? roi.height : 1};
  if (m.size(sizeRoi, 33, &bytes) != kvlStatusOk || m.size(sizeRoi, 55, &bytes) != kvlStatusOk)
    return 0;
  uint8_t* buffer = s.scratch("buffer", static_cast<size_t>(bytes));
  s.run(m.name, [&] {
    return m.run(a.ptr<void>(), a.step(), d.ptr<void>(), d.step(), roi, mask, bt, value, divisor,
                 buffer);
  });
  return 0;
}
