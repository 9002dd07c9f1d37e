// Haar classifiers over the member tables: the state's layout and grouping, tilting, sizes, the
// validation orders, and the tie, wrapping, shift and order rules by hand.
#include "detect/haar.h"

#include <dlfcn.h>

#include <array>
#include <atomic>
#include <bit>
#include <climits>
#include <cmath>
#include <memory>

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
using kvl::detect::HaarState;
using kvl::test::Image;

// The state members of each value type.
template <class V>
struct Api;
#define KVL_API_OF(types, V)                                                      \
  template <>                                                                     \
  struct Api<V> {                                                                 \
    using State = KvliHaarClassifier_##types;                                     \
    static constexpr auto init = kvliHaarClassifierInitAlloc_##types;             \
    static constexpr auto initTilted = kvliTiltedHaarClassifierInitAlloc_##types; \
    static constexpr auto release = kvliHaarClassifierFree_##types;               \
    static constexpr auto size = kvliGetHaarClassifierSize_##types;               \
    static constexpr auto tilt = kvliTiltHaarFeatures_##types;                    \
  };
KVL_HAAR_STATE_MEMBERS(KVL_API_OF)
#undef KVL_API_OF

// A classifier in the caller's flat arrays (values converted to the state's type when built).
struct Arrays {
  std::vector<int> num;
  std::vector<KvliRect> rects;
  std::vector<double> weight, thr, val1, val2;
  Arrays& add(std::vector<KvliRect> r, std::vector<double> w, double t, double v1, double v2) {
    num.push_back(static_cast<int>(r.size()));
    rects.insert(rects.end(), r.begin(), r.end());
    weight.insert(weight.end(), w.begin(), w.end());
    thr.push_back(t), val1.push_back(v1), val2.push_back(v2);
    return *this;
  }
};

template <class V>
std::shared_ptr<typename Api<V>::State> build(const Arrays& s, bool tilted = false) {
  auto as = [](const std::vector<double>& d) {  // one spare element: never an empty array
    std::vector<V> v(d.begin(), d.end());
    return v.push_back(0), v;
  };
  std::vector<int> num = s.num;
  std::vector<KvliRect> rects = s.rects;
  num.push_back(0), rects.push_back({});
  typename Api<V>::State* st = nullptr;
  EXPECT_EQ((tilted ? Api<V>::initTilted : Api<V>::init)(
                &st, rects.data(), as(s.weight).data(), as(s.thr).data(), as(s.val1).data(),
                as(s.val2).data(), num.data(), static_cast<int>(s.thr.size())),
            kvlStatusOk);
  return {st, Api<V>::release};
}
std::shared_ptr<void> buildFor(const HaarApplyMember& m, const Arrays& s, bool tilted = false) {
  if (m.intValue) return build<Kvl32s>(s, tilted);
  return build<Kvl32f>(s, tilted);
}
template <class St>
const HaarState<Kvl32s>& view(St* st) {  // the layout is the same for both value types
  return *reinterpret_cast<const HaarState<Kvl32s>*>(st);
}
bool samePoints(const KvliPoint* got, std::array<KvliPoint, 4> want) {
  return std::memcmp(got, want.data(), sizeof want) == 0;
}
bool sameRect(KvliRect a, KvliRect b) { return std::memcmp(&a, &b, sizeof a) == 0; }

template <class V>
void checkLayout() {
  using A = Api<V>;
  Arrays s;  // positions 0..5 with 1, 3, 2, 4, 2, 3 rectangles {i + k, k, 2 + k, 1 + i}
  const int counts[] = {1, 3, 2, 4, 2, 3}, first[] = {0, 1, 4, 6, 10, 12};  // first rectangle
  for (int i = 0; i < 6; ++i) {
    Arrays one;
    for (int k = 0; k < counts[i]; ++k) one.rects.push_back({i + k, k, 2 + k, 1 + i});
    s.add(one.rects, std::vector<double>(counts[i], i), 10 + i, 20 + i, 30 + i);
  }
  auto p = build<V>(s);
  const HaarState<Kvl32s>& st = view(p.get());
  const char* base = reinterpret_cast<const char*>(p.get());
  const std::vector<long long> header{st.length, st.rectCount, st.offsetRects, st.count2,
                                      st.count23, st.flags,
                                      reinterpret_cast<char*>(st.records) - base};
  EXPECT_EQ(header, (std::vector<long long>{6, 15, 15, 2, 4, 0, 48}));
  const int order[] = {2, 4, 1, 5, 0, 3};  // the 2s, the 3s, the rest, each in caller order
  const char* rect = base + 48 + 32 * 6;
  for (int r = 0; r < 6; ++r) {
    const int i = order[r];
    EXPECT_EQ(st.records[r].index, static_cast<uint32_t>(i) << 8);
    EXPECT_EQ(st.records[r].n, counts[i]);
    EXPECT_EQ(reinterpret_cast<const char*>(st.records[r].rects), rect);
    rect += 36 * counts[i];
    const KvliRect q = s.rects[first[i]];
    EXPECT_TRUE(samePoints(st.records[r].rects[0].p, {{{q.x + q.width, q.y + q.height},
                                                       {q.x, q.y + q.height},
                                                       {q.x + q.width, q.y},
                                                       {q.x, q.y}}}));
  }
  EXPECT_EQ(rect, base + kvl::detect::haarStateBytes(6, 15) - 8);
  auto size = [](typename A::State* state) {
    KvliSize z{-1, -1};
    EXPECT_EQ(A::size(state, &z), kvlStatusOk);
    return std::pair(z.width, z.height);
  };
  EXPECT_EQ(size(p.get()), std::pair(11, 8));  // max x + w, y + h
  EXPECT_TRUE(sameRect(st.bounds, {0, 0, 11, 8}));

  // Hanging diamonds for classifiers 1 and 3: their positions go, the others stay; once only.
  const Kvl8u marks[6] = {0, 1, 0, 7, 0, 0}, none[6] = {};
  EXPECT_EQ(A::tilt(none, 1, p.get()), kvlStatusOk);  // tilts nothing: may come again
  EXPECT_EQ(st.flags, 0u);
  EXPECT_EQ(A::tilt(marks, 1, p.get()), kvlStatusOk);
  EXPECT_EQ(st.flags + st.records[2].index + st.records[5].index, 3u);
  EXPECT_EQ(st.records[3].index, 5u << 8);
  // The hanging corners themselves meet a table in HaarApply.DiamondsReachOutsideTheirWindow.
  EXPECT_TRUE(sameRect(st.bounds, {-1, 0, 12, 13}));  // x - w of classifier 1, y + 2w of 3's last
  EXPECT_EQ(A::tilt(none, 1, p.get()), kvlStatusBadArgument);
  EXPECT_EQ(A::tilt(nullptr, 1, p.get()), kvlStatusNullPointer);
  EXPECT_EQ(A::tilt(marks, 1, nullptr), kvlStatusNullPointer);
  const KvliRect q = s.rects[1];  // classifier 1's first rectangle: side 2
  auto standing = build<V>(s);
  ASSERT_EQ(A::tilt(marks, 0, standing.get()), kvlStatusOk);
  EXPECT_TRUE(samePoints(view(standing.get()).records[2].rects[0].p,
                         {{{q.x, q.y + 2}, {q.x - 2, q.y}, {q.x + 2, q.y}, {q.x, q.y - 2}}}));

  // The tilted InitAlloc: caller's order, no groups, every classifier tilted (its corners meet
  // the tilted table in the tie test).
  auto t = build<V>(s, true);
  const HaarState<Kvl32s>& ts = view(t.get());
  EXPECT_EQ(ts.flags + ts.count2 + ts.count23, 1u);
  for (int r = 0; r < 6; ++r) EXPECT_EQ(ts.records[r].index, (static_cast<uint32_t>(r) << 8) | 1);
  EXPECT_EQ(A::tilt(none, 1, t.get()), kvlStatusBadArgument);
  EXPECT_EQ(size(t.get()), std::pair(11, 12));  // max x + w, y + w + h
  auto empty = build<V>(Arrays{});
  EXPECT_EQ(size(empty.get()), std::pair(0, 0));
  KvliSize z;
  EXPECT_EQ(A::size(nullptr, &z), kvlStatusNullPointer);
  EXPECT_EQ(A::size(empty.get(), nullptr), kvlStatusNullPointer);
  EXPECT_EQ(A::release(nullptr), kvlStatusNullPointer);
}

template <class V>
void checkInitValidation() {
  struct Row {
    const char* what;
    int length, num1;
    KvliRect rect;  // classifier 1's rectangle
    KvlStatus upright, tilted;
    bool failAllocation = false;
  };
  const KvliRect ok{1, 1, 2, 2};
  const KvlStatus size = kvlStatusBadSize, arg = kvlStatusBadArgument, mem = kvlStatusNoMemory;
  // clang-format off
  const Row rows[] = {
      {"negative length",               -1, 1,       ok,             size, size},
      {"pNum 0 before a bad rectangle", 2,  0,       {1, 1, 0, 2},   size, size},
      {"pNum negative",                 2,  -3,      ok,             size, size},
      {"larger than an int",            2,  INT_MAX, ok,             mem,  mem},
      {"width 0",                       2,  1,       {1, 1, 0, 2},   arg,  arg},
      {"height 0",                      2,  1,       {1, 1, 2, 0},   arg,  arg},
      {"x -1",                          2,  1,       {-1, 1, 2, 2},  arg,  arg},
      {"y -1",                          2,  1,       {1, -1, 2, 2},  arg,  arg},
      {"height x + 2",                  2,  1,       {1, 0, 2, 3},   kvlStatusOk, arg},
      {"height x + 1",                  2,  1,       {1, 0, 2, 2},   kvlStatusOk, kvlStatusOk},
      {"empty",                         0,  1,       ok,             kvlStatusOk, kvlStatusOk},
      {"allocation fails",              1,  1,       ok,             mem,  mem,  true},
  };
  // clang-format on
  const V values[2] = {};
  auto* const untouched = reinterpret_cast<typename Api<V>::State*>(uintptr_t{0x1230});
  for (const bool tilted : {false, true}) {
    const auto init = tilted ? Api<V>::initTilted : Api<V>::init;
    for (int nullArg = 0; nullArg < 7; ++nullArg) {  // every pointer, even with a bad length
      const KvliRect rects[1] = {ok};
      const int num[1] = {1};
      auto* st = untouched;
      auto v = [&](int k) { return k == nullArg ? nullptr : values; };
      EXPECT_EQ(init(nullArg == 0 ? nullptr : &st, nullArg == 1 ? nullptr : rects, v(2), v(3), v(4),
                     v(5), nullArg == 6 ? nullptr : num, -1),
                kvlStatusNullPointer);
      EXPECT_EQ(st, untouched);
    }
    for (const Row& r : rows) {
      const KvliRect rects[2] = {ok, r.rect};
      const int num[2] = {1, r.num1};
      auto* st = untouched;
      const KvlStatus want = tilted ? r.tilted : r.upright;
      gFailAllocations = r.failAllocation;
      EXPECT_EQ(init(&st, rects, values, values, values, values, num, r.length), want)
          << (tilted ? "tilted: " : "") << r.what;
      gFailAllocations = false;
      if (want == kvlStatusOk) {
        EXPECT_EQ(Api<V>::release(st), kvlStatusOk);
      } else {  // freed and cleared (a leak shows in the sanitizer build), or not written
        EXPECT_EQ(st, want == kvlStatusBadArgument ? nullptr : untouched) << r.what;
      }
    }
  }
}

TEST(HaarState, LayoutTiltSizeAndValidation) {
#define KVL_CHECK(types, V) checkLayout<V>(), checkInitValidation<V>();
  KVL_HAAR_STATE_MEMBERS(KVL_CHECK)
#undef KVL_CHECK
}

// ---- Apply ----

// Raw 4-byte words of a member's tables or values.
std::vector<uint32_t> words(const std::vector<double>& d, bool isInt) {
  std::vector<uint32_t> out;
  for (double v : d)
    out.push_back(isInt ? static_cast<uint32_t>(static_cast<int64_t>(v))
                        : std::bit_cast<uint32_t>(static_cast<float>(v)));
  return out;
}

struct Outcome {
  KvlStatus status;
  int positive;
  std::vector<Kvl8u> mask;
};

// Runs a member on tables of `cols` (tilted: `tcols`) elements a row, norms 1 unless given.
Outcome run(const HaarApplyMember& m, const std::vector<uint32_t>& up, int cols,
            const std::vector<uint32_t>& tl, int tcols, std::vector<Kvl8u> mask, KvliSize roi,
            double threshold, void* st, int sf = 0, double normValue = 1) {
  const auto norm = words(std::vector<double>(mask.size(), normValue), m.intValue);
  int positive = -7;
  const KvlStatus status = m.call(
      up.data(), 4 * cols, tl.data(), 4 * tcols, norm.data(), 4 * roi.width, mask.data(), roi.width,
      roi, &positive, static_cast<float>(threshold), static_cast<Kvl32s>(threshold), st, sf);
  return {status, positive, mask};
}

class HaarApply : public ::testing::TestWithParam<HaarApplyMember> {};

// A tie between f and norm x threshold gives val2, a stage equal to the threshold stays: on the
// tables of an image of ones, an upright 2x3 rectangle and a tilted 1x3 one both sum to 6
// (f = -6 with weight -1 lies below the classifier's threshold -3 but ties norm 2 x -3).
TEST_P(HaarApply, TiesOnAnImageOfOnes) {
  const HaarApplyMember& m = GetParam();
  const std::vector<Kvl8u> ones(16 * 16, 1);
  auto table = [&](int cols, auto fn32s, auto fn32f) {
    std::vector<uint32_t> t(cols * cols);
    EXPECT_EQ(m.intTable ? fn32s(ones.data(), 16, reinterpret_cast<Kvl32s*>(t.data()), 4 * cols,
                                 KvliSize{16, 16}, 0)
                         : fn32f(ones.data(), 16, reinterpret_cast<Kvl32f*>(t.data()), 4 * cols,
                                 KvliSize{16, 16}, 0.0f),
              kvlStatusOk);
    return t;
  };
  const auto up = table(17, kvliIntegral_8u32s_C1R, kvliIntegral_8u32f_C1R);
  const auto tl = table(18, kvliTiltedIntegral_8u32s_C1R, kvliTiltedIntegral_8u32f_C1R);
  const std::vector<Kvl8u> mask(16, 5);
  for (const bool tilted : {false, true}) {
    if (tilted && !m.mixed) continue;
    const KvliRect rect = tilted ? KvliRect{2, 0, 1, 3} : KvliRect{1, 1, 2, 3};
    auto st = buildFor(m, Arrays().add({rect}, {-1}, -3, 10, 20), tilted);  // -6 == 2 x -3: val2
    const Outcome stay = run(m, up, 17, tl, 18, mask, {4, 4}, 20, st.get(), 0, 2);
    EXPECT_EQ(stay.status, kvlStatusOk);
    EXPECT_EQ(stay.positive, 16) << (tilted ? "tilted" : "upright");
    EXPECT_EQ(stay.mask, mask);
    const double above = m.intValue ? 21 : std::nextafter(20.0f, 99.0f);
    const Outcome fail = run(m, up, 17, tl, 18, mask, {4, 4}, above, st.get(), 0, 2);
    EXPECT_EQ(fail.positive, 0);
    EXPECT_EQ(fail.mask, std::vector<Kvl8u>(16, 0));
  }
}

// One window over a 2x2 table whose corners are {0, 0; p1, p0}: a rectangle {0, 0, 1, 1} sums to
// p0 - p1. Norm and stage threshold 1; val1 1 and val2 0, so a pixel stays when f is below.
TEST_P(HaarApply, OneWindowRules) {
  const HaarApplyMember& m = GetParam();
  const Arrays unit = Arrays().add({{0, 0, 1, 1}}, {1}, 0, 1, 0);
  // Float stages add in record order: the 2-rectangle classifiers (+1e8, -1e8), then the
  // 1-rectangle one (+1), so the stage is 1; the caller's order would lose the 1 to rounding.
  const Arrays order = Arrays()
                           .add({{0, 0, 1, 1}}, {1}, 0, 1, 1)
                           .add({{0, 0, 1, 1}, {0, 0, 1, 1}}, {1, 1}, 0, 1e8, 1e8)
                           .add({{0, 0, 1, 1}, {0, 0, 1, 1}}, {1, 1}, 0, -1e8, -1e8);
  struct Row {
    const char* what;
    double p0, p1;
    Arrays arrays;
    int sf;
    int stays[4];  // by HaarArith: float, int sums to float, int, wide; -1: not this rule
  };
  const Arrays big = Arrays().add({{0, 0, 1, 1}}, {65536}, 1, 1, 0);
  const Arrays ten = Arrays().add({{0, 0, 1, 1}}, {1}, 10, 1, 0);
  // clang-format off
  const Row rows[] = {
      {"f == norm x threshold: val2",    6,     0, Arrays().add({{0, 0, 1, 1}}, {1}, 6, 1, 0), 0, {0, 0, 0, 0}},
      {"f below: val1",                  6,     0, Arrays().add({{0, 0, 1, 1}}, {1}, 7, 1, 0), 0, {1, 1, 1, 1}},
      {"sums wrap: INT_MAX - (-1) < 0",  INT_MAX, -1, unit,   0,       {-1, 1, 1, 1}},
      {"65536 x 65536 is 0 in 32 bits",  65536, 0, big,   0,       {-1, -1, 1, 0}},
      {"the 32-bit rule ignores sf",     65536, 0, big,   7,       {-1, -1, 1, -1}},
      {"3 < 10",                         3,     0, ten,   0,       {-1, -1, 1, 1}},
      {"3 << 1 < 10",                    3,     0, ten,   -1,      {-1, -1, 1, 1}},
      {"3 << 2 >= 10",                   3,     0, ten,   -2,      {-1, -1, 1, 0}},
      {"3 << 61 is large",               3,     0, ten,   -61,     {-1, -1, 1, 0}},
      {"3 << 62 is negative",            3,     0, ten,   -62,     {-1, -1, 1, 1}},
      {"3 << 63 is negative",            3,     0, ten,   -63,     {-1, -1, 1, 1}},
      {"3 << 64 is 0",                   3,     0, ten,   -64,     {-1, -1, 1, 1}},
      {"INT_MIN shifts everything out",  3,     0, ten,   INT_MIN, {-1, -1, 1, 1}},
      {"record order",                   0,     0, order, 0,       {1, 1, -1, -1}},
  };
  // clang-format on
  for (const Row& r : rows) {
    const int want = r.stays[static_cast<int>(m.arith)];
    if (want < 0) continue;
    auto st = buildFor(m, r.arrays);
    const Outcome o = run(m, words({0, 0, r.p1, r.p0}, m.intTable), 2, std::vector<uint32_t>(9, 0),
                          3, {1}, {1, 1}, 1, st.get(), r.sf);
    EXPECT_EQ(o.positive, want) << r.what;
  }
}

// An empty classifier's stage is 0; masked-out pixels are neither read, written nor counted (a
// zero mask with windows far outside the tables reads nothing).
TEST_P(HaarApply, EmptyClassifiersAndZeroMasks) {
  const HaarApplyMember& m = GetParam();
  auto empty = buildFor(m, Arrays{});
  const std::vector<uint32_t> table(64, 0);
  const std::vector<Kvl8u> mask = {0, 3, 0, 255, 1, 0, 0, 9};
  std::vector<double> below = {0.0, m.intValue ? 1.0 : 1e-45};
  if (!m.intValue) below.push_back(std::nan(""));  // a NaN threshold keeps every pixel
  for (const double thr : below) {
    const Outcome o = run(m, table, 8, table, 8, mask, {4, 2}, thr, empty.get());
    const bool stays = thr <= 0 || std::isnan(thr);
    EXPECT_EQ(o.positive, stays ? 4 : 0) << thr;
    EXPECT_EQ(o.mask, stays ? mask : std::vector<Kvl8u>(8, 0));
  }
  auto far = buildFor(m, Arrays().add({{100000, 100000, 1, 1}}, {1}, 0, 1, 1));
  const Outcome o = run(m, table, 8, table, 8, std::vector<Kvl8u>(8, 0), {4, 2}, 0, far.get());
  EXPECT_EQ(o.status, kvlStatusOk);
  EXPECT_EQ(o.positive, 0);
  EXPECT_EQ(o.mask, std::vector<Kvl8u>(8, 0));
}

// A hanging diamond of side 3 at x 0 reaches three columns left of its window: the elements
// there are read from memory as they are, on every target.
TEST_P(HaarApply, DiamondsReachOutsideTheirWindow) {
  const HaarApplyMember& m = GetParam();
  if (!m.mixed || !m.intTable) GTEST_SKIP();
  Image<Kvl32s> tilted(6, 12, 4);
  tilted.fillRandom(5, -1000, 1000);  // the margin left of the table included
  // Corners from the origin (1, 1): p0 (0, 8), p1 (-3, 5), p2 (3, 5), p3 (0, 2).
  auto at = [&](int col, int row) { return tilted.px(1 + col, 1 + row); };
  const int32_t sum = at(0, 8) - at(-3, 5) - at(3, 5) + at(0, 2);
  for (const int nudge : {0, 1}) {
    auto st = buildFor(m, Arrays().add({{0, 2, 3, 1}}, {1}, sum + nudge, 1, 0));
    const Kvl8u marks[1] = {1};
    void* raw = st.get();
    const KvlStatus tilt =
        m.intValue ? kvliTiltHaarFeatures_32s(marks, 1, static_cast<KvliHaarClassifier_32s*>(raw))
                   : kvliTiltHaarFeatures_32f(marks, 1, static_cast<KvliHaarClassifier_32f*>(raw));
    ASSERT_EQ(tilt, kvlStatusOk);
    kvl::test::forEachTarget([&](int) {
      int positive = -1;
      Kvl8u mask = 1;
      const auto up = words(std::vector<double>(64, 0), true), norm = words({1}, m.intValue);
      ASSERT_EQ(m.call(up.data(), 32, tilted.roi(), tilted.step(), norm.data(), 4, &mask, 1, {1, 1},
                       &positive, 1.0f, 1, st.get(), 0),
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
    KvliSize roi;
    int srcDelta, tiltDelta, normDelta, maskDelta, sf;
    KvlStatus upright, mixed, wide;  // wide: the mixed 32s member
    bool failAllocation = false;
  };
  const KvlStatus ok = kvlStatusOk, size = kvlStatusBadSize, mem = kvlStatusNoMemory;
  const KvlStatus step = kvlStatusBadStep, mult = kvlStatusStepNotMultiple;
  // clang-format off
  const Row rows[] = {
      {"valid",               {4, 2},  0,  0,  0,  0,  0,   ok,   ok,   ok},
      {"zero height",         {4, 0},  -1, 0,  0,  0,  1,   size, size, size},
      {"negative width",      {-1, 2}, 0,  0,  0,  0,  0,   size, size, size},
      {"src short, norm odd", {4, 2},  -4, 0,  2,  0,  1,   step, step, step},
      {"tilt short",          {4, 2},  0,  -4, 0,  0,  0,   ok,   step, step},
      {"norm short",          {4, 2},  2,  0,  -4, 0,  0,   step, step, step},
      {"mask short",          {4, 2},  2,  0,  0,  -1, 0,   step, step, step},
      {"src 4w + 2",          {4, 2},  2,  0,  0,  0,  1,   mult, mult, mult},
      {"tilt 4w + 1",         {4, 2},  0,  1,  0,  0,  1,   ok,   mult, mult},
      {"norm 4w + 3",         {4, 2},  0,  0,  3,  0,  0,   mult, mult, mult},
      {"mask step odd",       {4, 2},  0,  0,  0,  1,  0,   ok,   ok,   ok},
      {"scale factor 1",      {4, 2},  0,  0,  0,  0,  1,   ok,   ok,   kvlStatusBadArgument},
      {"scale factor -70",    {4, 2},  0,  0,  0,  0,  -70, ok,   ok,   ok},
      // The upright members allocate their offset table; the mixed ones allocate nothing.
      {"allocation fails",    {4, 2},  0,  0,  0,  0,  0,   mem,  ok,   ok, true},
  };
  // clang-format on
  auto st = buildFor(m, Arrays().add({{0, 0, 1, 1}}, {1}, 0, 1, 1));
  std::vector<uint32_t> table(256, 0), norm(64, 0);
  auto call = [&](const Row& r, int nullArg, std::vector<Kvl8u>& mask, int& positive) {
    auto p = [&](int k, auto* q) { return k == nullArg ? nullptr : q; };
    return m.call(p(0, table.data()), 16 + r.srcDelta, p(1, table.data()), 16 + r.tiltDelta,
                  p(2, norm.data()), 16 + r.normDelta, p(3, mask.data()), 4 + r.maskDelta, r.roi,
                  p(4, &positive), 1.0f, 1, p(5, st.get()), r.sf);
  };
  for (int nullArg = -1; nullArg < 6; ++nullArg) {  // a null pointer before anything else
    for (const Row& r : rows) {
      std::vector<Kvl8u> mask(64, 1);
      int positive = -7;
      const KvlStatus want = nullArg >= 0 && (nullArg != 1 || m.mixed) ? kvlStatusNullPointer
                             : !m.mixed                                ? r.upright
                             : m.arith == HaarArith::kWide             ? r.wide
                                                                       : r.mixed;
      gFailAllocations = r.failAllocation;
      EXPECT_EQ(call(r, nullArg, mask, positive), want) << r.what << ", null " << nullArg;
      gFailAllocations = false;
      EXPECT_EQ(positive, want == kvlStatusOk ? 8 : -7) << r.what;  // every window passes
      EXPECT_EQ(mask, std::vector<Kvl8u>(64, 1)) << r.what;
    }
  }
}

// Every vector target against the scalar reference, on random classifiers (upright, partly
// tilted, tilted), tables, norms and masks of every density, is the fuzz target's job
// (fuzz/detect_haar.cc, replayed with thousands of generated calls in every build).

INSTANTIATE_TEST_SUITE_P(Members, HaarApply, ::testing::ValuesIn([] {
                           return std::vector<HaarApplyMember>{
                               KVL_HAAR_APPLY_MEMBERS(KVL_HAAR_APPLY_MEMBER_RECORD)};
                         }()),
                         [](const ::testing::TestParamInfo<HaarApplyMember>& info) {
                           return std::string(info.param.name + 4);  // without "kvli"
                         });

}  // namespace
