// Haar classifiers over the member tables: the state's layout and grouping, tilting, sizes, the
// validation orders, the tie, wrapping and shift rules by hand, and every vector target against
// the scalar reference on random classifiers, masks and tables.
#include "detect/haar.h"

#include <dlfcn.h>

#include <atomic>
#include <bit>
#include <array>
#include <climits>
#include <cmath>
#include <memory>
#include <numeric>

#include "support/integral_model.h"
#include "support/support.h"

// Allocation failures on demand: the test binary's kvlMalloc stands in front of the core
// library's and fails while gFailAllocations is set.
namespace {
std::atomic<bool> gFailAllocations{false};
}
extern "C" void* kvlMalloc(int length) {
  using Fn = void* (*)(int);
  static const Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "kvlMalloc"));
  return gFailAllocations ? nullptr : real(length);
}

namespace {

using kvl::detect::HaarApplyMember;
using kvl::detect::HaarArith;
using kvl::detect::HaarRecord;
using kvl::detect::HaarState;
using kvl::test::Image;

// The state members through one signature; values travel as doubles and are converted.
struct StateOps {
  const char* name;
  bool intValue;
  KvlStatus (*init)(void** pp, const KvliRect* f, const void* w, const void* t, const void* v1,
                    const void* v2, const int* num, int length, bool tilted);
  KvlStatus (*release)(void* st);
  KvlStatus (*size)(void* st, KvliSize* s);
  KvlStatus (*tilt)(const Kvl8u* mask, int flag, void* st);
};
#define KVL_STATE_OPS(types, V)                                                                  \
  StateOps{#types, static_cast<V>(0.5f) == 0,                                                    \
           [](void** pp, const KvliRect* f, const void* w, const void* t, const void* v1,        \
              const void* v2, const int* num, int length, bool tilted) {                         \
             auto** p = reinterpret_cast<KvliHaarClassifier_##types**>(pp);                      \
             auto* fn = tilted ? kvliTiltedHaarClassifierInitAlloc_##types                       \
                               : kvliHaarClassifierInitAlloc_##types;                            \
             return fn(p, f, static_cast<const V*>(w), static_cast<const V*>(t),                 \
                       static_cast<const V*>(v1), static_cast<const V*>(v2), num, length);       \
           },                                                                                    \
           [](void* st) {                                                                        \
             return kvliHaarClassifierFree_##types(static_cast<KvliHaarClassifier_##types*>(st)); \
           },                                                                                    \
           [](void* st, KvliSize* s) {                                                           \
             return kvliGetHaarClassifierSize_##types(                                           \
                 static_cast<KvliHaarClassifier_##types*>(st), s);                               \
           },                                                                                    \
           [](const Kvl8u* m, int flag, void* st) {                                              \
             return kvliTiltHaarFeatures_##types(m, flag,                                        \
                                                 static_cast<KvliHaarClassifier_##types*>(st));   \
           }},
const StateOps kStateOps[] = {KVL_HAAR_STATE_MEMBERS(KVL_STATE_OPS)};
const HaarApplyMember kApply[] = {KVL_HAAR_APPLY_MEMBERS(KVL_HAAR_APPLY_MEMBER_RECORD)};
const StateOps& opsFor(const HaarApplyMember& m) { return kStateOps[m.intValue ? 1 : 0]; }

// A classifier in the caller's flat arrays.
struct Spec {
  std::vector<int> num;
  std::vector<KvliRect> rects;
  std::vector<double> weight, thr, val1, val2;
  void add(std::vector<KvliRect> r, std::vector<double> w, double t, double v1, double v2) {
    num.push_back(static_cast<int>(r.size()));
    rects.insert(rects.end(), r.begin(), r.end());
    weight.insert(weight.end(), w.begin(), w.end());
    thr.push_back(t), val1.push_back(v1), val2.push_back(v2);
  }
};

// The arrays of a Spec in the state's value type (4 bytes each), kept alive with the state.
struct Values {
  std::vector<uint32_t> w, t, v1, v2;
  static std::vector<uint32_t> of(const std::vector<double>& d, bool intValue) {
    std::vector<uint32_t> out(d.size() + 1);
    for (size_t i = 0; i < d.size(); ++i) {
      if (intValue) {
        out[i] = static_cast<uint32_t>(static_cast<int64_t>(d[i]));
      } else {
        const float f = static_cast<float>(d[i]);
        std::memcpy(&out[i], &f, 4);
      }
    }
    return out;
  }
  Values(const Spec& s, bool intValue)
      : w(of(s.weight, intValue)), t(of(s.thr, intValue)), v1(of(s.val1, intValue)),
        v2(of(s.val2, intValue)) {}
};

using StatePtr = std::unique_ptr<void, std::function<void(void*)>>;
StatePtr build(const StateOps& ops, const Spec& s, bool tilted = false) {
  const Values v(s, ops.intValue);
  void* st = nullptr;
  const KvliRect noRect{};
  const int noNum = 0;
  EXPECT_EQ(ops.init(&st, s.rects.empty() ? &noRect : s.rects.data(), v.w.data(), v.t.data(),
                     v.v1.data(), v.v2.data(), s.num.empty() ? &noNum : s.num.data(),
                     static_cast<int>(s.thr.size()), tilted),
            kvlStatusOk);
  return StatePtr(st, [&ops](void* p) { ops.release(p); });
}
template <class V>
const HaarState<V>& view(void* st) {
  return *static_cast<const HaarState<V>*>(st);
}

TEST(HaarState, LayoutGroupingAndTilt) {
  Spec s;  // positions 0..5 with 1, 3, 2, 4, 2, 3 rectangles
  const int counts[] = {1, 3, 2, 4, 2, 3};
  for (int i = 0; i < 6; ++i) {
    std::vector<KvliRect> r;
    std::vector<double> w;
    for (int k = 0; k < counts[i]; ++k) r.push_back({i + k, k, 2 + k, 1 + i}), w.push_back(k - i);
    s.add(r, w, 10 + i, 20 + i, 30 + i);
  }
  for (const StateOps& ops : kStateOps) {
    SCOPED_TRACE(ops.name);
    StatePtr p = build(ops, s);
    const HaarState<Kvl32s>& st = view<Kvl32s>(p.get());  // the layout is the same for both
    const auto* base = reinterpret_cast<const char*>(p.get());
    EXPECT_EQ(st.length, 6);
    EXPECT_EQ(st.rectCount, 15);
    EXPECT_EQ(st.offsetRects, 15);
    EXPECT_EQ(st.count2, 2);
    EXPECT_EQ(st.count23, 4);
    EXPECT_EQ(st.flags, 0u);
    EXPECT_EQ(reinterpret_cast<const char*>(st.records), base + 48);
    const int order[] = {2, 4, 1, 5, 0, 3};  // the 2s, the 3s, the rest, each in caller order
    const char* rect = base + 48 + 32 * 6;
    for (int r = 0; r < 6; ++r) {
      const HaarRecord<Kvl32s>& c = st.records[r];
      const int i = order[r];
      EXPECT_EQ(c.index, static_cast<uint32_t>(i) << 8);
      EXPECT_EQ(c.n, counts[i]);
      EXPECT_EQ(reinterpret_cast<const char*>(c.rects), rect);
      rect += 36 * c.n;
      const KvliRect q = s.rects[std::accumulate(counts, counts + i, 0)];
      const KvliPoint want[4] = {
          {q.x + q.width, q.y + q.height}, {q.x, q.y + q.height}, {q.x + q.width, q.y}, {q.x, q.y}};
      EXPECT_EQ(std::memcmp(c.rects[0].p, want, sizeof want), 0) << "classifier " << i;
    }
    EXPECT_EQ(rect, base + kvl::detect::haarStateBytes(6, 15) - 8);
    KvliSize size;
    ASSERT_EQ(ops.size(p.get(), &size), kvlStatusOk);
    EXPECT_EQ(size.width, 11);  // max x + w: classifier 5's last, 7 + 4
    EXPECT_EQ(size.height, 8);  // max y + h: classifier 5's last, 2 + 6
    const KvliRect bounds{0, 0, 11, 8};
    EXPECT_EQ(std::memcmp(&st.bounds, &bounds, sizeof bounds), 0);

    // Tilt classifiers 1 (hanging) and 3; positions go, the rest stays; once only.
    const Kvl8u mask[6] = {0, 1, 0, 7, 0, 0};
    const Kvl8u none[6] = {};
    EXPECT_EQ(ops.tilt(none, 1, p.get()), kvlStatusOk);
    EXPECT_EQ(st.flags, 0u);
    EXPECT_EQ(ops.tilt(mask, 1, p.get()), kvlStatusOk);
    EXPECT_EQ(st.flags, 1u);
    EXPECT_EQ(st.records[2].index, 1u);
    EXPECT_EQ(st.records[5].index, 1u);
    EXPECT_EQ(st.records[3].index, 5u << 8);
    const KvliRect q = s.rects[1];  // classifier 1's first rectangle, w = 2
    const KvliPoint hanging[4] = {{q.x, q.y + 4}, {q.x - 2, q.y + 2}, {q.x + 2, q.y + 2}, {q.x, q.y}};
    EXPECT_EQ(std::memcmp(st.records[2].rects[0].p, hanging, sizeof hanging), 0);
    const KvliRect tiltedBounds{-1, 0, 12, 13};  // x - w of classifier 1; y + 2w of 3's last
    EXPECT_EQ(std::memcmp(&st.bounds, &tiltedBounds, sizeof tiltedBounds), 0);
    EXPECT_EQ(ops.tilt(none, 1, p.get()), kvlStatusBadArgument);
    EXPECT_EQ(ops.tilt(nullptr, 1, p.get()), kvlStatusNullPointer);
    EXPECT_EQ(ops.tilt(mask, 1, nullptr), kvlStatusNullPointer);

    // Standing diamonds; the tilted InitAlloc keeps the caller's order and is tilted already.
    StatePtr p2 = build(ops, s);
    ASSERT_EQ(ops.tilt(mask, 0, p2.get()), kvlStatusOk);
    const KvliPoint standing[4] = {
        {q.x, q.y + 2}, {q.x - 2, q.y}, {q.x + 2, q.y}, {q.x, q.y - 2}};
    EXPECT_EQ(std::memcmp(view<Kvl32s>(p2.get()).records[2].rects[0].p, standing, sizeof standing),
              0);
    StatePtr t = build(ops, s, true);
    const HaarState<Kvl32s>& ts = view<Kvl32s>(t.get());
    EXPECT_EQ(ts.flags, 1u);
    EXPECT_EQ(ts.count2, 0);
    EXPECT_EQ(ts.count23, 0);
    for (int r = 0; r < 6; ++r) EXPECT_EQ(ts.records[r].index, (static_cast<uint32_t>(r) << 8) | 1);
    const KvliRect u = s.rects[4];  // classifier 2's first rectangle
    const KvliPoint tilted[4] = {{u.x + u.width - u.height, u.y + u.width + u.height},
                                 {u.x - u.height, u.y + u.height},
                                 {u.x + u.width, u.y + u.width},
                                 {u.x, u.y}};
    EXPECT_EQ(std::memcmp(ts.records[2].rects[0].p, tilted, sizeof tilted), 0);
    EXPECT_EQ(ops.tilt(none, 1, t.get()), kvlStatusBadArgument);
    ASSERT_EQ(ops.size(t.get(), &size), kvlStatusOk);
    EXPECT_EQ(size.width, 11);   // max x + w
    EXPECT_EQ(size.height, 12);  // max y + w + h: classifier 5's last, 2 + 4 + 6

    Spec empty;
    StatePtr e = build(ops, empty);
    ASSERT_EQ(ops.size(e.get(), &size), kvlStatusOk);
    EXPECT_EQ(size.width, 0);
    EXPECT_EQ(size.height, 0);
    EXPECT_EQ(ops.size(nullptr, &size), kvlStatusNullPointer);
    EXPECT_EQ(ops.size(e.get(), nullptr), kvlStatusNullPointer);
    EXPECT_EQ(ops.release(nullptr), kvlStatusNullPointer);
  }
}

TEST(HaarState, InitValidation) {
  struct Row {
    const char* what;
    int nullArg;  // 0 ppState, 1 pFeature, .. 6 pNum; -1 none
    int length, num1;
    KvliRect rect;  // classifier 1's rectangle
    KvlStatus upright, tilted;
  };
  const KvliRect ok{1, 1, 2, 2};
  // clang-format off
  const Row rows[] = {
      {"null ppState, bad length", 0, -1, 1, ok, kvlStatusNullPointer, kvlStatusNullPointer},
      {"null pFeature", 1, 2, 1, ok, kvlStatusNullPointer, kvlStatusNullPointer},
      {"null pWeight", 2, 2, 1, ok, kvlStatusNullPointer, kvlStatusNullPointer},
      {"null pThreshold", 3, 2, 1, ok, kvlStatusNullPointer, kvlStatusNullPointer},
      {"null pVal1", 4, 2, 1, ok, kvlStatusNullPointer, kvlStatusNullPointer},
      {"null pVal2", 5, 2, 1, ok, kvlStatusNullPointer, kvlStatusNullPointer},
      {"null pNum", 6, 2, 1, ok, kvlStatusNullPointer, kvlStatusNullPointer},
      {"negative length", -1, -1, 1, ok, kvlStatusBadSize, kvlStatusBadSize},
      {"pNum 0 before a bad rectangle", -1, 2, 0, {1, 1, 0, 2}, kvlStatusBadSize, kvlStatusBadSize},
      {"pNum negative", -1, 2, -3, ok, kvlStatusBadSize, kvlStatusBadSize},
      {"larger than an int", -1, 2, INT_MAX, ok, kvlStatusNoMemory, kvlStatusNoMemory},
      {"width 0", -1, 2, 1, {1, 1, 0, 2}, kvlStatusBadArgument, kvlStatusBadArgument},
      {"height 0", -1, 2, 1, {1, 1, 2, 0}, kvlStatusBadArgument, kvlStatusBadArgument},
      {"x -1", -1, 2, 1, {-1, 1, 2, 2}, kvlStatusBadArgument, kvlStatusBadArgument},
      {"y -1", -1, 2, 1, {1, -1, 2, 2}, kvlStatusBadArgument, kvlStatusBadArgument},
      {"height x + 2", -1, 2, 1, {1, 0, 2, 3}, kvlStatusOk, kvlStatusBadArgument},
      {"height x + 1", -1, 2, 1, {1, 0, 2, 2}, kvlStatusOk, kvlStatusOk},
      {"empty", -1, 0, 1, ok, kvlStatusOk, kvlStatusOk},
  };
  // clang-format on
  const uint32_t values[8] = {};
  for (const StateOps& ops : kStateOps) {
    for (const bool tilted : {false, true}) {
      for (const Row& r : rows) {
        const KvliRect rects[2] = {ok, r.rect};
        const int num[2] = {1, r.num1};
        const void* args[7] = {nullptr, rects, values, values, values, values, num};
        void* st = reinterpret_cast<void*>(uintptr_t{0x1230});
        auto arg = [&](int k) { return k == r.nullArg ? nullptr : args[k]; };
        const KvlStatus got = ops.init(r.nullArg == 0 ? nullptr : &st,
                                       static_cast<const KvliRect*>(arg(1)), arg(2), arg(3),
                                       arg(4), arg(5), static_cast<const int*>(arg(6)), r.length,
                                       tilted);
        const KvlStatus want = tilted ? r.tilted : r.upright;
        EXPECT_EQ(got, want) << ops.name << (tilted ? " tilted: " : ": ") << r.what;
        if (want == kvlStatusOk) {
          EXPECT_EQ(ops.release(st), kvlStatusOk);
        } else if (want == kvlStatusBadArgument) {
          EXPECT_EQ(st, nullptr) << r.what;  // freed (a leak shows in the sanitizer build)
        } else {
          EXPECT_EQ(st, reinterpret_cast<void*>(uintptr_t{0x1230})) << r.what;
        }
      }
      const KvliRect rects[2] = {ok, ok};
      const int num[2] = {1, 1};
      void* st = reinterpret_cast<void*>(uintptr_t{0x1230});
      gFailAllocations = true;
      EXPECT_EQ(ops.init(&st, rects, values, values, values, values, num, 2, tilted),
                kvlStatusNoMemory);
      gFailAllocations = false;
      EXPECT_EQ(st, reinterpret_cast<void*>(uintptr_t{0x1230}));
    }
  }
}

// ---- Apply ----

// Values of a member's table or value type, as raw 4-byte words.
std::vector<uint32_t> words(const std::vector<double>& v, bool isInt) {
  return Values::of(v, isInt);
}
template <class T>
std::vector<uint32_t> words(const kvl::test::IntegralTable<T>& t) {
  std::vector<uint32_t> out(t.v.size());
  std::memcpy(out.data(), t.v.data(), 4 * t.v.size());
  return out;
}

struct Outcome {
  KvlStatus status;
  int positive;
  std::vector<Kvl8u> mask;
};

// Runs a member on tables with `cols` elements a row (tilted: `tcols`), norms of `w` a row.
Outcome run(const HaarApplyMember& m, const std::vector<uint32_t>& up, int cols,
            const std::vector<uint32_t>& tl, int tcols, const std::vector<uint32_t>& norm,
            std::vector<Kvl8u> mask, KvliSize roi, double threshold, void* st, int sf = 0) {
  int positive = -7;
  const KvlStatus status =
      m.call(up.data(), 4 * cols, tl.data(), 4 * tcols, norm.data(), 4 * roi.width, mask.data(),
             roi.width, roi, &positive, static_cast<float>(threshold),
             static_cast<Kvl32s>(threshold), st, sf);
  return {status, positive, mask};
}

class HaarApply : public ::testing::TestWithParam<HaarApplyMember> {};

// A tie between f and norm x threshold gives val2, a stage equal to the threshold stays: on an
// image of ones, an upright 2x3 rectangle and a tilted 1x3 one both sum to 6.
TEST_P(HaarApply, TiesOnAnImageOfOnes) {
  const HaarApplyMember& m = GetParam();
  const std::vector<uint8_t> ones(16 * 16, 1);
  const auto up = m.intTable ? words(kvl::test::uprightIntegral<Kvl32s>(ones, 16, 16))
                             : words(kvl::test::uprightIntegral<Kvl32f>(ones, 16, 16));
  const auto tl = m.intTable ? words(kvl::test::tiltedIntegral<Kvl32s>(ones, 16, 16))
                             : words(kvl::test::tiltedIntegral<Kvl32f>(ones, 16, 16));
  const KvliSize roi{4, 4};
  const std::vector<Kvl8u> mask(16, 5);
  for (const bool tilted : {false, true}) {
    if (tilted && !m.mixed) continue;
    for (const double thr : {3.0, 4.0}) {
      Spec s;
      s.add({tilted ? KvliRect{2, 0, 1, 3} : KvliRect{1, 1, 2, 3}}, {1}, thr, 10, 20);
      StatePtr st = build(opsFor(m), s, tilted);
      const auto norm = words(std::vector<double>(16, 2.0), m.intValue);
      const double stage = thr == 3.0 ? 20 : 10;  // 2 x 3 == 6 ties: val2; 2 x 4 > 6: val1
      const Outcome stay = run(m, up, 17, tl, 18, norm, mask, roi, stage, st.get());
      EXPECT_EQ(stay.status, kvlStatusOk);
      EXPECT_EQ(stay.positive, 16) << thr << (tilted ? " tilted" : "");
      EXPECT_EQ(stay.mask, mask);
      const double above =
          m.intValue ? stage + 1 : std::nextafter(static_cast<float>(stage), 100.0f);
      const Outcome fail = run(m, up, 17, tl, 18, norm, mask, roi, above, st.get());
      EXPECT_EQ(fail.positive, 0);
      EXPECT_EQ(fail.mask, std::vector<Kvl8u>(16, 0));
    }
  }
}

// Integer rectangle sums wrap in 32 bits: INT_MAX - (-1) is INT_MIN, below a threshold of 0.
TEST_P(HaarApply, IntegerSumsWrap) {
  const HaarApplyMember& m = GetParam();
  if (!m.intTable) GTEST_SKIP();
  const std::vector<uint32_t> up = {0, 0, 0xffffffffu, 0x7fffffffu}, tl(9, 0);
  Spec s;
  s.add({{0, 0, 1, 1}}, {1}, 0, 1, 0);
  StatePtr st = build(opsFor(m), s);
  const Outcome o = run(m, up, 2, tl, 3, words({1}, m.intValue), {1}, {1, 1}, 1, st.get());
  EXPECT_EQ(o.positive, 1);
}

// Products: 65536 x 65536 wraps to 0 in 32 bits (below 1: val1) but not in 64 (val2). The wide
// form shifts f left by -scaleFactor: 3 << 61 is large, 3 << 62 and 3 << 63 are negative, 64 and
// more shift everything out. The 32-bit form ignores scaleFactor.
TEST_P(HaarApply, ProductsAndShifts) {
  const HaarApplyMember& m = GetParam();
  if (!m.intValue) GTEST_SKIP();
  const std::vector<uint32_t> tl(9, 0);
  Spec big;
  big.add({{0, 0, 1, 1}}, {65536}, 1, 1, 0);
  StatePtr st = build(opsFor(m), big);
  for (const int sf : {0, 7, -7}) {
    if (sf > 0 && m.arith == HaarArith::kWide) continue;
    const Outcome o =
        run(m, {0, 0, 0, 65536}, 2, tl, 3, words({1}, true), {1}, {1, 1}, 1, st.get(), sf);
    EXPECT_EQ(o.positive, m.arith == HaarArith::kInt ? 1 : 0) << sf;
  }
  if (m.arith != HaarArith::kWide) return;
  Spec three;
  three.add({{0, 0, 1, 1}}, {1}, 10, 1, 0);
  StatePtr s3 = build(opsFor(m), three);
  const std::pair<int, int> cases[] = {{0, 1},   {-1, 1},  {-2, 0},  {-61, 0},
                                       {-62, 1}, {-63, 1}, {-64, 1}, {INT_MIN, 1}};
  for (const auto& [sf, stays] : cases) {
    const Outcome o = run(m, {0, 0, 0, 3}, 2, tl, 3, words({1}, true), {1}, {1, 1}, 1, s3.get(), sf);
    EXPECT_EQ(o.positive, stays) << sf;
  }
  EXPECT_EQ(run(m, {0, 0, 0, 3}, 2, tl, 3, words({1}, true), {1}, {1, 1}, 1, s3.get(), 1).status,
            kvlStatusBadArgument);
}

// The stage adds in record order: the 2-rectangle classifiers (+1e8, -1e8) before the
// 1-rectangle one (+1), so the stage is 1; the caller's order would lose the 1 to rounding.
TEST_P(HaarApply, FloatStageAddsInRecordOrder) {
  const HaarApplyMember& m = GetParam();
  if (m.intValue) GTEST_SKIP();
  Spec s;
  s.add({{0, 0, 1, 1}}, {1}, 0, 1, 1);
  s.add({{0, 0, 1, 1}, {0, 0, 1, 1}}, {1, 1}, 0, 1e8, 1e8);
  s.add({{0, 0, 1, 1}, {0, 0, 1, 1}}, {1, 1}, 0, -1e8, -1e8);
  StatePtr st = build(opsFor(m), s);
  const Outcome o =
      run(m, std::vector<uint32_t>(4, 0), 2, std::vector<uint32_t>(9, 0), 3, words({1}, false),
          {1}, {1, 1}, 1, st.get());
  EXPECT_EQ(o.positive, 1);
}

// An empty classifier's stage is 0; masked-out pixels are neither read, written nor counted (a
// zero mask with windows far outside the tables reads nothing).
TEST_P(HaarApply, EmptyClassifiersAndZeroMasks) {
  const HaarApplyMember& m = GetParam();
  StatePtr empty = build(opsFor(m), Spec{});
  const std::vector<uint32_t> table(64, 0);
  const std::vector<Kvl8u> mask = {0, 3, 0, 255, 1, 0, 0, 9};
  const auto norm = words(std::vector<double>(8, 1), m.intValue);
  std::vector<double> below = {0.0, m.intValue ? 1.0 : 1e-45};
  if (!m.intValue) below.push_back(std::nan(""));  // a NaN threshold keeps every pixel
  for (const double thr : below) {
    const Outcome o = run(m, table, 8, table, 8, norm, mask, {4, 2}, thr, empty.get());
    const bool stays = thr <= 0 || std::isnan(thr);
    EXPECT_EQ(o.positive, stays ? 4 : 0) << thr;
    EXPECT_EQ(o.mask, stays ? mask : std::vector<Kvl8u>(8, 0));
  }
  Spec far;
  far.add({{100000, 100000, 1, 1}}, {1}, 0, 1, 1);
  StatePtr st = build(opsFor(m), far);
  const Outcome o = run(m, table, 8, table, 8, norm, std::vector<Kvl8u>(8, 0), {4, 2}, 0, st.get());
  EXPECT_EQ(o.status, kvlStatusOk);
  EXPECT_EQ(o.positive, 0);
  EXPECT_EQ(o.mask, std::vector<Kvl8u>(8, 0));
}

// A hanging diamond of side 3 at x 0 reaches three columns left of its window: the elements
// there are read from memory as they are.
TEST_P(HaarApply, DiamondsReachOutsideTheirWindow) {
  const HaarApplyMember& m = GetParam();
  if (!m.mixed) GTEST_SKIP();
  Image<Kvl32s> tilted(6, 12, 4);
  tilted.fill([](int x, int y, int) { return x * 3 + y * 7 - 20; });
  for (int y = -4; y < 16; ++y)
    for (int x = -4; x < 0; ++x) tilted.px(x, y) = x * 11 - y;  // left of the table
  if (!m.intTable) {
    for (int y = -4; y < 16; ++y)
      for (int x = -4; x < 10; ++x) {
        const float f = static_cast<float>(tilted.px(x, y));
        std::memcpy(&tilted.px(x, y), &f, 4);
      }
  }
  // Corners from the origin (1, 1): p0 (0, 8), p1 (-3, 5), p2 (3, 5), p3 (0, 2).
  auto at = [&](int col, int row) {
    int32_t v = tilted.px(1 + col, 1 + row);
    if (!m.intTable) v = static_cast<int32_t>(std::bit_cast<float>(v));
    return v;
  };
  const int32_t sum = at(0, 8) - at(-3, 5) - at(3, 5) + at(0, 2);
  const std::vector<uint32_t> up(64, 0);
  for (const int nudge : {0, 1}) {
    Spec s;
    s.add({{0, 2, 3, 1}}, {1}, sum + nudge, 1, 0);
    StatePtr st = build(opsFor(m), s);
    const Kvl8u flags[1] = {1};
    ASSERT_EQ(opsFor(m).tilt(flags, 1, st.get()), kvlStatusOk);
    kvl::test::forEachTarget([&](int) {
      int positive = -1;
      Kvl8u mask = 1;
      const auto norm = words({1}, m.intValue);
      ASSERT_EQ(m.call(up.data(), 32, tilted.roi(), tilted.step(), norm.data(), 4, &mask, 1,
                       {1, 1}, &positive, 1.0f, 1, st.get(), 0),
                kvlStatusOk);
      EXPECT_EQ(positive, nudge);  // f == sum ties (val2 = 0); below sum + 1 takes val1
    });
  }
}

// Validation in order; a failing call writes neither the mask nor *pPositive.
TEST_P(HaarApply, Validation) {
  const HaarApplyMember& m = GetParam();
  struct Row {
    const char* what;
    int nullArg;  // 0 src, 1 tilt, 2 norm, 3 mask, 4 pPositive, 5 state
    KvliSize roi;
    int srcDelta, tiltDelta, normDelta, maskDelta, sf;
    KvlStatus upright, mixed, wide;  // wide: the mixed 32s member
  };
  const KvlStatus ok = kvlStatusOk, null = kvlStatusNullPointer, size = kvlStatusBadSize;
  const KvlStatus step = kvlStatusBadStep, mult = kvlStatusStepNotMultiple;
  // clang-format off
  const Row rows[] = {
      {"null src, zero width", 0, {0, 2}, 0, 0, 0, 0, 0, null, null, null},
      {"null tilt",            1, {4, 2}, 0, 0, 0, 0, 0, ok, null, null},
      {"null norm",            2, {4, 2}, 0, 0, 0, 0, 0, null, null, null},
      {"null mask",            3, {4, 2}, 0, 0, 0, 0, 0, null, null, null},
      {"null pPositive",       4, {4, 2}, 0, 0, 0, 0, 0, null, null, null},
      {"null state",           5, {4, 2}, 0, 0, 0, 0, 0, null, null, null},
      {"zero height",         -1, {4, 0}, -1, 0, 0, 0, 1, size, size, size},
      {"negative width",      -1, {-1, 2}, 0, 0, 0, 0, 0, size, size, size},
      {"src short, norm odd", -1, {4, 2}, -4, 0, 2, 0, 1, step, step, step},
      {"tilt short",          -1, {4, 2}, 0, -4, 0, 0, 0, ok, step, step},
      {"norm short",          -1, {4, 2}, 2, 0, -4, 0, 0, step, step, step},
      {"mask short",          -1, {4, 2}, 2, 0, 0, -1, 0, step, step, step},
      {"src 4w + 2",          -1, {4, 2}, 2, 0, 0, 0, 1, mult, mult, mult},
      {"tilt 4w + 1",         -1, {4, 2}, 0, 1, 0, 0, 1, ok, mult, mult},
      {"norm 4w + 3",         -1, {4, 2}, 0, 0, 3, 0, 0, mult, mult, mult},
      {"mask step odd",       -1, {4, 2}, 0, 0, 0, 1, 0, ok, ok, ok},
      {"scale factor 1",      -1, {4, 2}, 0, 0, 0, 0, 1, ok, ok, kvlStatusBadArgument},
      {"scale factor -70",    -1, {4, 2}, 0, 0, 0, 0, -70, ok, ok, ok},
  };
  // clang-format on
  Spec s;
  s.add({{0, 0, 1, 1}}, {1}, 0, 1, 1);
  StatePtr st = build(opsFor(m), s);
  std::vector<uint32_t> table(256, 0), norm(64, 0);
  for (const Row& r : rows) {
    std::vector<Kvl8u> mask(64, 1);
    int positive = -7;
    auto ptr = [&](int k, auto* p) { return k == r.nullArg ? nullptr : p; };
    const KvlStatus got =
        m.call(ptr(0, table.data()), 16 + r.srcDelta, ptr(1, table.data()), 16 + r.tiltDelta,
               ptr(2, norm.data()), 16 + r.normDelta, ptr(3, mask.data()), 4 + r.maskDelta, r.roi,
               ptr(4, &positive), 1.0f, 1, ptr(5, st.get()), r.sf);
    const KvlStatus want = !m.mixed ? r.upright : m.arith == HaarArith::kWide ? r.wide : r.mixed;
    EXPECT_EQ(got, want) << r.what;
    if (got != kvlStatusOk) {
      EXPECT_EQ(positive, -7) << r.what;
      EXPECT_EQ(mask, std::vector<Kvl8u>(64, 1)) << r.what;
    }
  }
  // The upright members allocate their offset table; the mixed ones allocate nothing.
  std::vector<Kvl8u> mask(64, 1);
  int positive = -7;
  gFailAllocations = true;
  const KvlStatus got = m.call(table.data(), 16, table.data(), 16, norm.data(), 16, mask.data(), 4,
                               {4, 2}, &positive, 1.0f, 1, st.get(), 0);
  gFailAllocations = false;
  EXPECT_EQ(got, m.mixed ? kvlStatusOk : kvlStatusNoMemory);
  if (!m.mixed) {
    EXPECT_EQ(positive, -7);
  }
}

// A random classifier inside an 8x8 window: mostly 2 and 3 rectangles, tilted ones keeping their
// left corner at column -1 or right of it. Small integers make ties between f and norm x
// threshold common; otherwise values have fractions (float sums then round in every step).
Spec randomSpec(std::mt19937& rng, int length, bool tilted, bool intValue, bool small) {
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  auto real = [&](double lo, double hi) {
    const double v = std::uniform_real_distribution<double>(lo, hi)(rng);
    return small || intValue ? std::round(v) : v;
  };
  Spec s;
  for (int i = 0; i < length; ++i) {
    const int n = std::array<int, 8>{2, 2, 2, 3, 3, 1, 4, 5}[pick(0, 7)];
    std::vector<KvliRect> r;
    std::vector<double> w;
    for (int k = 0; k < n; ++k) {
      const int x = pick(0, 7), y = pick(0, tilted ? 2 : 7);
      const int width = pick(1, 8 - x);
      r.push_back({x, y, width, tilted ? pick(1, std::min(x + 1, 6)) : pick(1, 8 - y)});
      w.push_back(small ? pick(-2, 3) : real(-3, 3) + (intValue && pick(0, 9) == 0 ? 1e6 : 0));
    }
    s.add(r, w, small ? pick(-3, 3) : real(-300, 300), real(-5, 5), real(-5, 5));
  }
  return s;
}

// Every target against the scalar reference: random classifiers (upright, upright with some
// classifiers tilted, tilted), random tables, norms and masks of every density, at widths that
// cross the vector sizes and with enough sparse candidates to fill the list several times.
TEST_P(HaarApply, EveryTargetMatchesTheReference) {
  const HaarApplyMember& m = GetParam();
  const KvliSize sizes[] = {{1, 1}, {3, 4}, {8, 3}, {15, 2}, {16, 4}, {17, 3},
                            {33, 2}, {64, 3}, {100, 4}, {700, 9}};
  int seed = 0;
  for (const KvliSize roi : sizes) {
    for (int kind = 0; kind < 3; ++kind) {
      if (kind == 2 && !m.mixed) continue;
      for (int density = 0; density < 4; ++density) {
        std::mt19937 rng(++seed);
        const bool small = seed % 2 == 0;
        const int length = std::array<int, 4>{0, 3, 9, 30}[seed % 4];
        const Spec spec = randomSpec(rng, length, kind == 2, m.intValue, small);
        StatePtr st = build(opsFor(m), spec, kind == 2);
        if (kind == 1) {
          std::vector<Kvl8u> tiltMask(spec.thr.size() + 1);
          for (auto& b : tiltMask) b = rng() % 3 == 0;
          ASSERT_EQ(opsFor(m).tilt(tiltMask.data(), static_cast<int>(rng() % 2), st.get()),
                    kvlStatusOk);
        }
        // Tables with room around the ROI for every window, diamonds included.
        constexpr int kRoom = 18;
        Image<Kvl32s> up(roi.width + kRoom, roi.height + kRoom, kRoom, seed);
        Image<Kvl32s> tl(roi.width + kRoom, roi.height + kRoom, kRoom, seed + 1);
        Image<Kvl32s> norm(roi.width, roi.height, 0, seed + 2);
        for (Image<Kvl32s>* t : {&up, &tl, &norm}) {
          const bool isInt = t == &norm ? m.intValue : m.intTable;
          const bool isNorm = t == &norm;
          t->fillRandom(rng());
          if (isInt && !small) continue;  // full-range integers: sums and products wrap
          const int margin = isNorm ? 0 : kRoom;
          for (int y = -margin; y < t->height() + margin; ++y) {
            for (int x = -margin; x < t->width() + margin; ++x) {
              const double v = small ? static_cast<int>(rng() % 9) - 4
                                     : (isNorm ? 0.01 : 1.0) * static_cast<int>(rng() % 200001) - 1000.0;
              if (isInt) {
                t->px(x, y) = static_cast<Kvl32s>(v);
              } else {
                const float f = static_cast<float>(v * (isNorm ? 1.0 : 0.37));
                std::memcpy(&t->px(x, y), &f, 4);
              }
            }
          }
        }
        Image<Kvl8u> mask(roi.width, roi.height, 1, seed + 3);
        const int percent = std::array<int, 4>{100, 90, 50, 12}[density];
        int run = 0;
        bool on = true;
        mask.fill([&](int, int, int) -> Kvl8u {
          if (density == 2) {  // runs of 1 to 40
            if (run-- <= 0) run = static_cast<int>(rng() % 40), on = !on;
            return on ? static_cast<Kvl8u>(1 + rng() % 255) : 0;
          }
          return static_cast<int>(rng() % 100) < percent ? static_cast<Kvl8u>(1 + rng() % 255) : 0;
        });
        const std::vector<Kvl8u> before = mask.pixels();
        const double threshold = small ? static_cast<int>(rng() % 5) - 2.0
                                       : (static_cast<int>(rng() % 11) - 5) * 0.7;
        Outcome want{};
        kvl::test::forEachTarget([&](int target) {
          Image<Kvl8u> out(roi.width, roi.height, 1, seed + 3);
          out.fill([&](int x, int y, int) { return before[y * roi.width + x]; });
          int positive = -1;
          const KvlStatus status =
              m.call(up.roi(), up.step(), tl.roi(), tl.step(), norm.roi(), norm.step(), out.roi(),
                     out.step(), roi, &positive, static_cast<float>(threshold),
                     static_cast<Kvl32s>(threshold), st.get(), -(seed % 3));
          ASSERT_EQ(status, kvlStatusOk);
          ASSERT_TRUE(out.outsideUnchanged());
          if (target == kvl::simd::kRef) {
            want = {status, positive, out.pixels()};
            return;
          }
          ASSERT_EQ(positive, want.positive) << roi.width << "x" << roi.height << " seed " << seed;
          ASSERT_TRUE(kvl::test::sameBytes(out.pixels(), want.mask, roi.width)) << "seed " << seed;
        });
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Members, HaarApply, ::testing::ValuesIn(kApply),
                         [](const ::testing::TestParamInfo<HaarApplyMember>& info) {
                           return std::string(info.param.name + 4);  // without "kvli"
                         });

}  // namespace
