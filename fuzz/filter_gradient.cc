// Fuzz target: colour-to-grey gradient combination, every member and norm code.
#include "filter/gradient.h"
#include "fuzz.h"

namespace {

using namespace kvl::fuzz;

struct Member {
  const char* name;
  Type type;
  KvlStatus (*call)(const void* src, int srcStep, void* dst, int dstStep, KvliSize roi, int norm);
};

#define KVL_GRADIENT(suffix, T)                                                        \
  {"kvliGradientColorToGray_" #suffix "_C3C1R", typeOf<T>(),                           \
   [](const void* s, int ss, void* d, int ds, KvliSize r, int norm) {                  \
     return kvliGradientColorToGray_##suffix##_C3C1R(static_cast<const T*>(s), ss,     \
                                                     static_cast<T*>(d), ds, r, norm); \
   }},
const Member kMembers[] = {KVL_GRADIENT_MEMBERS(KVL_GRADIENT)};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const Member& m = pickMember(in, kMembers);
  Session s(in);
  const KvliSize roi = in.roi();
  const int norm =
      in.oneIn(16) ? static_cast<int>(in.range(-1, 3)) : static_cast<int>(in.range(0, 2));
  s.note("roi %dx%d, norm %d", roi.width, roi.height, norm);
  Image& src = s.image("src", Role::kIn, m.type, roi, 3);
  Image& dst = s.image("dst", Role::kOut, m.type, roi, 1);
  s.run(m.name, [&] {
    return m.call(src.ptr<void>(), src.step(), dst.ptr<void>(), dst.step(), roi, norm);
  });
  return 0;
}
