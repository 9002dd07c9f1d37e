// Fuzz target: chamfer distance transforms, every member of the family's table, with weights
// that take each of the vector kernels' paths, the vector targets against the plain reference.
#include "fuzz.h"
#include "seg/dist_chamfer_members.h"

namespace {

using namespace kvl::fuzz;
using kvl::seg::ChamferMember;

const ChamferMember kMembers[] = {KVL_CHAMFER_MEMBERS(KVL_CHAMFER_MEMBER_RECORD)};

Type outType(const ChamferMember& m) { return {m.realMetric ? 'f' : 'u', m.outBytes}; }

// A weight: small integers (exact, b >= 2a and c >= 3a often), values past the outputs' maxima,
// fractions, and now and then anything (zero, negative, NaN: the refused ones).
double weight(Input& in, bool real) {
  switch (in.range(0, 7)) {
    case 0:
      return static_cast<double>(in.range(1, 4));
    case 1:
      return real ? static_cast<double>(in.range(1, 40000)) / 64.0
                  : static_cast<double>(in.range(200, 70000));
    case 2:
      return in.oneIn(4) ? static_cast<double>(in.f32()) : static_cast<double>(in.range(-1, 0));
    case 3:
      return real ? static_cast<double>(in.pick<float>({0.955f, 1.3693f, 1.4f, 2.1969f, 1e30f}))
                  : static_cast<double>(in.pick<int>({2, 3, 5, 7, 11, 2147483647}));
    default:
      return static_cast<double>(in.range(1, 12));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const ChamferMember& m = pickMember(in, kMembers);
  Session s(in);
  const KvliSize roi = in.roi(1200, 20000);
  Kvl32s wi[3];
  Kvl32f wf[3];
  for (int k = 0; k < 3; ++k) {
    const double v = weight(in, m.realMetric);
    wf[k] = static_cast<Kvl32f>(v);
    wi[k] = v >= 2147483647.0 ? 2147483647 : (v <= -2147483647.0 || v != v ? 0 : static_cast<Kvl32s>(v));
  }
  // The source's decoded styles give features from one in 256 pixels up to most of them.
  s.note("roi %dx%d, weights %d %d %d / %.9g %.9g %.9g", roi.width, roi.height, wi[0], wi[1],
         wi[2], wf[0], wf[1], wf[2]);
  Image& src = s.image("src", m.inPlace ? Role::kOut : Role::kIn, Type{'u', 1}, roi);
  Image* dst = m.inPlace ? &src : &s.image("dst", Role::kOut, outType(m), roi);
  s.run(m.name, [&] {
    return m.run(src.ptr<Kvl8u>(), src.step(), dst->ptr<void>(), dst->step(), roi,
                 m.realMetric ? static_cast<void*>(wf) : static_cast<void*>(wi));
  });
  return 0;
}
