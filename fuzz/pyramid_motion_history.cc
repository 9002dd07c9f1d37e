// Fuzz target: motion history update, every member of the family's table.
#include "fuzz.h"
#include "pyramid/motion_history.h"

namespace {

using namespace kvl::fuzz;

struct Member {
  const char* name;
  Type silhouette;
  KvlStatus (*call)(const void* sil, int silStep, Kvl32f* mhi, int mhiStep, KvliSize roi,
                    float timestamp, float duration);
};

#define KVL_MHI(suffix, Sil)                                                                     \
  {"kvliUpdateMotionHistory_" #suffix "_C1IR", typeOf<Sil>(),                                    \
   [](const void* s, int ss, Kvl32f* h, int hs, KvliSize r, float t, float d) {                  \
     return kvliUpdateMotionHistory_##suffix##_C1IR(static_cast<const Sil*>(s), ss, h, hs, r, t, \
                                                    d);                                          \
   }},
const Member kMembers[] = {KVL_MHI_MEMBERS(KVL_MHI)};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const Member& m = pickMember(in, kMembers);
  Session s(in);
  const KvliSize roi = in.roi();
  // Times near the history's values make the strict comparison with the limit matter.
  const float timestamp = in.flag() ? in.f32() : static_cast<float>(in.range(-4, 40)) / 4;
  const float duration = in.flag() ? in.f32() : static_cast<float>(in.range(-1, 40)) / 4;
  s.note("roi %dx%d, timestamp %.9g, duration %.9g", roi.width, roi.height, timestamp, duration);
  Image& sil = s.image("silhouette", Role::kIn, m.silhouette, roi);
  Image& mhi = s.image("mhi", Role::kOut, typeOf<Kvl32f>(), roi);
  s.run(m.name, [&] {
    return m.call(sil.ptr<void>(), sil.step(), mhi.ptr<Kvl32f>(), mhi.step(), roi, timestamp,
                  duration);
  });
  return 0;
}
