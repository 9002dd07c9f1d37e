// Fuzz target: Haar classifier apply, every member of the family's table, on random classifiers
// (upright, partly tilted by the rewrite, tilted), tables, norms, masks, steps and thresholds.
#include "detect/haar.h"
#include "fuzz.h"

namespace {

using namespace kvl::fuzz;
using kvl::detect::HaarApplyMember;
using kvl::detect::HaarArith;

const HaarApplyMember kMembers[] = {KVL_HAAR_APPLY_MEMBERS(KVL_HAAR_APPLY_MEMBER_RECORD)};

// A weak classifier value of the member's type, as 4 raw bytes.
uint32_t value(Input& in, bool intValue) {
  if (intValue) {
    return static_cast<uint32_t>(in.oneIn(4) ? in.range(INT32_MIN, INT32_MAX) : in.range(-9, 9));
  }
  const float f = in.oneIn(4) ? in.f32() : static_cast<float>(in.range(-40, 40)) / 4;
  return std::bit_cast<uint32_t>(f);
}

template <class V, class St>
KvlStatus build(Input& in, const HaarApplyMember& m, St** pp, int kind) {
  const int length = static_cast<int>(in.oneIn(16) ? in.range(13, 60) : in.range(0, 12));
  std::vector<int> num;
  std::vector<KvliRect> rects;
  std::vector<uint32_t> weights, thr, v1, v2;
  const bool tilted = kind == 2;
  for (int i = 0; i < length; ++i) {
    const int n = in.pick({1, 2, 2, 2, 3, 3, 4});
    num.push_back(n);
    for (int k = 0; k < n; ++k) {
      const int x = static_cast<int>(in.range(0, 7)), y = static_cast<int>(in.range(0, 7));
      const int w = static_cast<int>(in.range(1, 8));
      const int h = static_cast<int>(tilted ? in.range(1, x + 1) : in.range(1, 8));
      rects.push_back(in.oneIn(64) ? KvliRect{x, y, 0, h} : KvliRect{x, y, w, h});
      weights.push_back(value(in, m.intValue));
    }
    thr.push_back(value(in, m.intValue));
    v1.push_back(value(in, m.intValue));
    v2.push_back(value(in, m.intValue));
  }
  num.push_back(0);  // never an empty array
  for (auto* v : {&weights, &thr, &v1, &v2}) v->push_back(0);
  rects.push_back({});
  using Init =
      KvlStatus (*)(St**, const KvliRect*, const V*, const V*, const V*, const V*, const int*, int);
  Init init;
  if constexpr (std::is_same_v<V, Kvl32f>) {
    init = tilted ? kvliTiltedHaarClassifierInitAlloc_32f : kvliHaarClassifierInitAlloc_32f;
  } else {
    init = tilted ? kvliTiltedHaarClassifierInitAlloc_32s : kvliHaarClassifierInitAlloc_32s;
  }
  auto as = [](const std::vector<uint32_t>& v) { return reinterpret_cast<const V*>(v.data()); };
  const KvlStatus status =
      init(pp, rects.data(), as(weights), as(thr), as(v1), as(v2), num.data(), length);
  if (status == kvlStatusBadArgument && *pp != nullptr) abort();  // must be freed and cleared
  if (status != kvlStatusOk || kind != 1) return status;
  std::vector<Kvl8u> marks(length + 1);
  for (auto& b : marks) b = in.oneIn(3);
  const int flag = in.flag();
  if constexpr (std::is_same_v<V, Kvl32f>) {
    return kvliTiltHaarFeatures_32f(marks.data(), flag, *pp);
  } else {
    return kvliTiltHaarFeatures_32s(marks.data(), flag, *pp);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const HaarApplyMember& m = pickMember(in, kMembers);
  const int kind = static_cast<int>(in.range(0, 2));  // upright, rewritten, tilted
  void* state = nullptr;
  KvliRect bounds{};
  if (m.intValue) {
    KvliHaarClassifier_32s* st = nullptr;
    build<Kvl32s>(in, m, &st, kind);
    state = st;
    if (st) bounds = kvl::detect::stateOf(st)->bounds;
  } else {
    KvliHaarClassifier_32f* st = nullptr;
    build<Kvl32f>(in, m, &st, kind);
    state = st;
    if (st) bounds = kvl::detect::stateOf(st)->bounds;
  }
  Session s(in);
  const KvliSize roi = in.roi(120, 4000);
  // Every corner of every window, from both table origins (the tilted one is one down, one right).
  const Around band{std::max(0, -bounds.x), std::max(0, -bounds.y),
                    std::max(0, bounds.x + bounds.width + 1),
                    std::max(0, bounds.y + bounds.height + 1)};
  const Type table = m.intTable ? typeOf<Kvl32s>() : typeOf<Kvl32f>();
  const Type val = m.intValue ? typeOf<Kvl32s>() : typeOf<Kvl32f>();
  Image& src = s.image("table", Role::kIn, table, roi, 1, band);
  Image& tilt = s.image("tilted", Role::kIn, table, roi, 1, band);
  Image& norm = s.image("norm", Role::kIn, val, roi);
  Image& mask = s.image("mask", Role::kOut, typeOf<Kvl8u>(), roi);
  Image& positive = s.image("positive", Role::kOut, typeOf<Kvl32s>(), {1, 1}, 1, {}, false);
  const uint32_t threshold = value(in, m.intValue);
  const int sf = static_cast<int>(in.oneIn(8) ? in.range(-70, 2) : 0);
  s.note("roi %dx%d, state kind %d%s, threshold 0x%08x, scaleFactor %d", roi.width, roi.height,
         kind, state ? "" : " (not built)", threshold, sf);
  s.run(m.name, [&] {
    // *pPositive through an aligned int whose bytes travel to and from the compared image, so a
    // write by a failing call still shows.
    int* out = positive.ptr<int>();
    int count = 0;
    if (out) std::memcpy(&count, out, sizeof count);
    const KvlStatus status =
        m.call(src.ptr<void>(), src.step(), tilt.ptr<void>(), tilt.step(), norm.ptr<void>(),
               norm.step(), mask.ptr<Kvl8u>(), mask.step(), roi, out ? &count : nullptr,
               std::bit_cast<float>(threshold), static_cast<Kvl32s>(threshold), state, sf);
    if (out) std::memcpy(out, &count, sizeof count);
    return status;
  });
  if (state && m.intValue) kvliHaarClassifierFree_32s(static_cast<KvliHaarClassifier_32s*>(state));
  if (state && !m.intValue) kvliHaarClassifierFree_32f(static_cast<KvliHaarClassifier_32f*>(state));
  return 0;
}
