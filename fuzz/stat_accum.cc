// Fuzz target: accumulation and absolute differences, every member of the family's tables.
#include "fuzz.h"
#include "stat/accum.h"

namespace {

using namespace kvl::fuzz;

// The arguments of every shape; each member passes on the ones its prototype has.
struct Args {
  const void *a, *b;
  const Kvl8u* mask;
  void* dst;
  int aStep, bStep, maskStep, dstStep;
  KvliSize roi;
  float alpha, fvalue;
  int ivalue;
};

struct Member {
  const char* name;
  Type src, dst;
  int channels;
  bool twoSources, masked, inPlace;
  KvlStatus (*call)(const Args&);
};

template <class V>
V valueOf(const Args& x) {
  if constexpr (std::is_same_v<V, int>)
    return x.ivalue;
  else
    return x.fvalue;
}

// clang-format off
#define KVL_A(T) static_cast<const T*>(x.a), x.aStep
#define KVL_B(T) static_cast<const T*>(x.b), x.bStep
#define KVL_D(T) static_cast<T*>(x.dst), x.dstStep
#define KVL_M x.mask, x.maskStep
#define KVL_ENTRY(fn, S, D, ch, two, masked, inPlace, ...) \
  {#fn, typeOf<S>(), typeOf<D>(), ch, two, masked, inPlace, \
   [](const Args& x) { return fn(__VA_ARGS__); }},

#define KVL_ONE(name, suffix, S, op) \
  KVL_ENTRY(kvli##name##_##suffix##_C1IR, S, Kvl32f, 1, false, false, true, KVL_A(S), \
            KVL_D(Kvl32f), x.roi)
#define KVL_ONE_M(name, suffix, S, op) \
  KVL_ENTRY(kvli##name##_##suffix##_C1IMR, S, Kvl32f, 1, false, true, true, KVL_A(S), KVL_M, \
            KVL_D(Kvl32f), x.roi)
#define KVL_TWO(name, suffix, S, op)                                                       \
  KVL_ENTRY(kvli##name##_##suffix##_C1IR, S, Kvl32f, 1, true, false, true, KVL_A(S),       \
            KVL_B(S), KVL_D(Kvl32f), x.roi)                                                \
  KVL_ENTRY(kvli##name##_##suffix##_C1IMR, S, Kvl32f, 1, true, true, true, KVL_A(S),       \
            KVL_B(S), KVL_M, KVL_D(Kvl32f), x.roi)
#define KVL_WEIGHTED(name, suffix, S, op)                                                  \
  KVL_ENTRY(kvli##name##_##suffix##_C1IR, S, Kvl32f, 1, false, false, true, KVL_A(S),      \
            KVL_D(Kvl32f), x.roi, x.alpha)                                                 \
  KVL_ENTRY(kvli##name##_##suffix##_C1IMR, S, Kvl32f, 1, false, true, true, KVL_A(S), KVL_M, \
            KVL_D(Kvl32f), x.roi, x.alpha)
#define KVL_ABSDIFF(suffix, T, ch) \
  KVL_ENTRY(kvliAbsDiff_##suffix, T, T, ch, true, false, false, KVL_A(T), KVL_B(T), \
            KVL_D(T), x.roi)
#define KVL_ABSDIFFC(suffix, T, V) \
  KVL_ENTRY(kvliAbsDiffC_##suffix, T, T, 1, false, false, false, KVL_A(T), KVL_D(T), x.roi, \
            valueOf<V>(x))

const Member kMembers[] = {
    KVL_ACC_ONE_SOURCE_MEMBERS(KVL_ONE)
    KVL_ACC_ONE_SOURCE_MASKED_MEMBERS(KVL_ONE_M)
    KVL_ACC_TWO_SOURCE_MEMBERS(KVL_TWO)
    KVL_ACC_WEIGHTED_MEMBERS(KVL_WEIGHTED)
    KVL_ENTRY(kvliAddWeighted_32f_C1R, Kvl32f, Kvl32f, 1, true, false, false, KVL_A(Kvl32f),
              KVL_B(Kvl32f), KVL_D(Kvl32f), x.roi, x.alpha)
    KVL_ABSDIFF_MEMBERS(KVL_ABSDIFF)
    KVL_ABSDIFFC_MEMBERS(KVL_ABSDIFFC)
};
// clang-format on

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const Member& m = pickMember(in, kMembers);
  Session s(in);
  Args x{};
  x.roi = in.roi();
  x.alpha = in.f32();
  x.fvalue = in.f32();
  x.ivalue = static_cast<int>(in.pick<long long>(
      {in.range(-300, 300), in.range(0, 70000), in.range(INT32_MIN, INT32_MAX)}));
  s.note("roi %dx%d, alpha %.9g, value %d / %.9g", x.roi.width, x.roi.height, x.alpha, x.ivalue,
         x.fvalue);
  Image& a = s.image("src1", Role::kIn, m.src, x.roi, m.channels);
  x.a = a.ptr<void>(), x.aStep = a.step();
  if (m.twoSources) {
    Image& b = s.image("src2", Role::kIn, m.src, x.roi, m.channels);
    x.b = b.ptr<void>(), x.bStep = b.step();
  }
  if (m.masked) {
    Image& mask = s.image("mask", Role::kIn, typeOf<Kvl8u>(), x.roi);
    x.mask = mask.ptr<Kvl8u>(), x.maskStep = mask.step();
  }
  Image& d = s.image(m.inPlace ? "srcDst" : "dst", Role::kOut, m.dst, x.roi, m.channels);
  x.dst = d.ptr<void>(), x.dstStep = d.step();
  s.run(m.name, [&] { return m.call(x); });
  return 0;
}
