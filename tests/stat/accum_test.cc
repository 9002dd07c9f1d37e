// Accumulation and absolute difference: every member against the scalar reference on every target,
// validation order, thread invariance and the hand-computed cases.
#include "stat/accum.h"
#include "stat/accum_ref.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "core/services.h"
#include "support/support.h"

namespace {

using kvl::stat::AccOp;
using kvl::test::Image;
using kvl::test::sameBytes;

constexpr float kInf = std::numeric_limits<float>::infinity();

template <class Src>
using AccCall = KvlStatus (*)(const Src*, int, const Src*, int, const Kvl8u*, int, Kvl32f*, int,
                              KvliSize, float);

// One exported accumulating member behind a uniform call, with its reference row kernel.
template <class Src>
struct AccMember {
  const char* name;
  bool masked, twoSources;
  AccCall<Src> call;
  kvl::stat::AccRowFn<Src> ref;
};

#define KVL_ARGS_1 const Src *a, int as, const Src *, int, const Kvl8u *, int
#define KVL_ARGS_1M const Src *a, int as, const Src *, int, const Kvl8u *m, int ms
#define KVL_ARGS_2 const Src *a, int as, const Src *b, int bs, const Kvl8u *, int
#define KVL_ARGS_2M const Src *a, int as, const Src *b, int bs, const Kvl8u *m, int ms
#define KVL_MEMBER(name, suffix, form, S, op, masked, two, args, ...)                    \
  if constexpr (std::is_same_v<Src, S>)                                                  \
    v.push_back({#name "_" #suffix "_" #form, masked, two,                               \
                 [](args, Kvl32f* d, int ds, KvliSize r, [[maybe_unused]] float alpha) { \
                   return kvli##name##_##suffix##_##form(__VA_ARGS__);                   \
                 },                                                                      \
                 &kvl::stat::ref::accRow<op, Src, masked>});
#define KVL_ONE(n, s, S, op) \
  KVL_MEMBER(n, s, C1IR, S, op, false, false, KVL_ARGS_1, a, as, d, ds, r)
#define KVL_ONE_M(n, s, S, op) \
  KVL_MEMBER(n, s, C1IMR, S, op, true, false, KVL_ARGS_1M, a, as, m, ms, d, ds, r)
#define KVL_TWO(n, s, S, op)                                                     \
  KVL_MEMBER(n, s, C1IR, S, op, false, true, KVL_ARGS_2, a, as, b, bs, d, ds, r) \
  KVL_MEMBER(n, s, C1IMR, S, op, true, true, KVL_ARGS_2M, a, as, b, bs, m, ms, d, ds, r)
#define KVL_W(n, s, S, op)                                                        \
  KVL_MEMBER(n, s, C1IR, S, op, false, false, KVL_ARGS_1, a, as, d, ds, r, alpha) \
  KVL_MEMBER(n, s, C1IMR, S, op, true, false, KVL_ARGS_1M, a, as, m, ms, d, ds, r, alpha)

template <class Src>
std::vector<AccMember<Src>> accMembers() {
  std::vector<AccMember<Src>> v;
  KVL_ACC_ONE_SOURCE_MEMBERS(KVL_ONE)
  KVL_ACC_ONE_SOURCE_MASKED_MEMBERS(KVL_ONE_M)
  KVL_ACC_TWO_SOURCE_MEMBERS(KVL_TWO)
  KVL_ACC_WEIGHTED_MEMBERS(KVL_W)
  return v;
}

// Full-range values with extremes: negative 8s, 16u 0 and 65535, float infinities. The
// accumulator (kWithNaN) also holds NaNs with a payload.
constexpr bool kWithNaN = true;
template <class T>
void fillExtremes(Image<T>& img, uint32_t seed, bool nan = false) {
  std::mt19937 rng(seed);
  img.fillRandom(seed);
  using L = std::numeric_limits<T>;
  const bool fp = std::is_floating_point_v<T>;
  const T ends[3] = {fp ? -L::infinity() : L::lowest(), fp ? L::infinity() : L::max(),
                     nan ? L::quiet_NaN() : L::max()};
  for (int y = 0; y < img.height(); ++y)
    for (int x = 0; x < img.width(); ++x)
      if (rng() % 8 == 0) img.px(x, y) = ends[rng() % (fp ? 3 : 2)];
  if constexpr (std::is_floating_point_v<T>) {
    if (nan) img.px(0, 0) = std::nanf("0x1234");
  }
  img.snapshot();
}
void fillMask(Image<Kvl8u>& m, uint32_t seed) {
  std::mt19937 rng(seed);
  m.fill([&](int, int, int) { return rng() % 2 ? Kvl8u(0) : static_cast<Kvl8u>(1 + rng() % 255); });
}

template <class Src>
struct AccImages {
  Image<Src> s1, s2;
  Image<Kvl8u> mask;
  Image<Kvl32f> acc;
  // `margin` pixels of valid memory around the sources and the mask, one around the accumulator.
  AccImages(int w, int h, uint32_t seed, int margin = 0)
      : s1(w, h, margin, seed),
        s2(w, h, margin, seed + 1),
        mask(w, h, margin, seed + 2),
        acc(w, h, 1, seed + 3) {
    fillExtremes(s1, seed);
    fillExtremes(s2, seed + 1);
    fillMask(mask, seed + 2);
    fillExtremes(acc, seed + 3, kWithNaN);
  }
  KvlStatus run(const AccMember<Src>& m, float alpha) {
    return m.call(s1.roi(), s1.step(), s2.roi(), s2.step(), mask.roi(), mask.step(), acc.roi(),
                  acc.step(), {acc.width(), acc.height()}, alpha);
  }
  void restoreAccumulator(const std::vector<Kvl32f>& v) {
    for (int y = 0; y < acc.height(); ++y)
      std::copy_n(&v[static_cast<size_t>(y) * acc.width()], acc.width(), acc.at(0, y));
  }
  std::vector<Kvl32f> expected(const AccMember<Src>& m, float alpha) const {
    std::vector<Kvl32f> want = acc.pixels();
    const int w = acc.width();
    for (int y = 0; y < acc.height(); ++y)
      m.ref(s1.at(0, y), s2.at(0, y), mask.at(0, y), &want[y * w], &want[y * w], w, alpha);
    return want;
  }
};

template <class T>
class Accumulate : public ::testing::Test {};
using SourceTypes = ::testing::Types<Kvl8u, Kvl8s, Kvl16u, Kvl32f>;
TYPED_TEST_SUITE(Accumulate, SourceTypes);

TYPED_TEST(Accumulate, EveryMemberMatchesTheReferenceOnEveryTarget) {
  for (const auto& m : accMembers<TypeParam>()) {
    kvl::test::forEachTarget([&](int target) {
      for (int w = 1; w <= 70; ++w) {
        const int h = 1 + w % 4;
        const float alpha = (w % 3 == 0) ? -0.75f : 0.3f + w / 50.0f;  // also beyond 1
        AccImages<TypeParam> im(w, h, 1000u * w + h);
        std::vector<Kvl32f> acc = im.acc.pixels();
        const std::vector<Kvl32f> want = im.expected(m, alpha);
        ASSERT_EQ(im.run(m, alpha), kvlStatusOk);
        ASSERT_TRUE(sameBytes(im.acc.pixels(), want, w))
            << m.name << " " << kvl::test::targetName(target) << " " << w << "x" << h;
        ASSERT_TRUE(im.acc.outsideUnchanged() && im.s1.unchanged() && im.mask.unchanged())
            << m.name;
        // Rows without padding are processed as one run: the same bytes.
        const std::vector<TypeParam> a = im.s1.pixels(), b = im.s2.pixels();
        const std::vector<Kvl8u> mask = im.mask.pixels();
        const int row = w * sizeof(TypeParam);
        ASSERT_EQ(
            m.call(a.data(), row, b.data(), row, mask.data(), w, acc.data(), 4 * w, {w, h}, alpha),
            kvlStatusOk);
        ASSERT_TRUE(sameBytes(acc, want, w)) << m.name << " unpadded";
      }
    });
  }
}

TYPED_TEST(Accumulate, ThreadCountDoesNotChangeTheResult) {
  for (KvliSize s : {KvliSize{512, 512}, KvliSize{700, 400}}) {
    AccImages<TypeParam> im(s.width, s.height, 7);
    const std::vector<Kvl32f> start = im.acc.pixels();
    for (const auto& m : accMembers<TypeParam>()) {
      std::vector<Kvl32f> first;
      for (int threads : {1, 2, 3}) {
        kvl::test::ThreadScope scope(threads);
        im.restoreAccumulator(start);
        ASSERT_EQ(im.run(m, 0.25f), kvlStatusOk);
        if (threads == 1) {
          first = im.acc.pixels();
        } else {
          ASSERT_TRUE(sameBytes(im.acc.pixels(), first, s.width)) << m.name << " " << threads;
        }
        ASSERT_TRUE(im.acc.outsideUnchanged());
      }
    }
  }
}

// Each row mutates valid arguments; the status is the first failing check, and nothing is written.
struct BadArgs {
  const char* what;
  int s1, s2, mask, acc;  // step changes in bytes
  bool nullS1, nullS2, nullMask, nullAcc;
  KvliSize roi;
  KvlStatus want8, want16, want32;  // by source element size
  int only;                         // 1: masked members only, 2: two-source members only
};

TYPED_TEST(Accumulate, ValidationOrderAndStepRules) {
  constexpr KvlStatus kNull = kvlStatusNullPointer, kSize = kvlStatusBadSize,
                      kStep = kvlStatusBadStep, kMult = kvlStatusStepNotMultiple, kOk = kvlStatusOk;
  // clang-format off
  const BadArgs rows[] = {
      {"null source",               0, 0, 0, 0,     1, 0, 0, 0, {13, 3}, kNull, kNull, kNull, 0},
      {"null accumulator, no width", 0, 0, 0, 0,    0, 0, 0, 1, {0, 3},  kNull, kNull, kNull, 0},
      {"null mask",                 0, 0, 0, 0,     0, 0, 1, 0, {13, 3}, kNull, kNull, kNull, 1},
      {"null second source",        0, 0, 0, 0,     0, 1, 0, 0, {13, 3}, kNull, kNull, kNull, 2},
      {"zero width, short step",    -100, 0, 0, 0,  0, 0, 0, 0, {0, 3},  kSize, kSize, kSize, 0},
      {"negative height",           0, 0, 0, 0,     0, 0, 0, 0, {13, -1}, kSize, kSize, kSize, 0},
      {"source step short, acc odd", -1, 0, 0, 2,   0, 0, 0, 0, {13, 3}, kStep, kStep, kStep, 0},
      {"negative source step",      -100000, 0, 0, 0, 0, 0, 0, 0, {13, 3}, kStep, kStep, kStep, 0},
      {"second source step short",  0, -1, 0, 0,    0, 0, 0, 0, {13, 3}, kStep, kStep, kStep, 2},
      {"mask step short",           0, 0, -1, 0,    0, 0, 0, 0, {13, 3}, kStep, kStep, kStep, 1},
      {"accumulator step 4w-1",     0, 0, 0, -1,    0, 0, 0, 0, {13, 3}, kStep, kStep, kStep, 0},
      {"accumulator step 4w+2",     0, 0, 0, 2,     0, 0, 0, 0, {13, 3}, kMult, kMult, kMult, 0},
      {"odd source step",           1, 0, 0, 0,     0, 0, 0, 0, {13, 3}, kOk,   kMult, kMult, 0},
      {"source step +2",            2, 0, 0, 0,     0, 0, 0, 0, {13, 3}, kOk,   kOk,   kMult, 0},
      {"odd second source step",    0, 1, 0, 0,     0, 0, 0, 0, {13, 3}, kOk,   kMult, kMult, 2},
  };
  // clang-format on
  for (const auto& m : accMembers<TypeParam>())
    for (const BadArgs& r : rows) {
      if ((r.only == 1 && !m.masked) || (r.only == 2 && !m.twoSources)) continue;
      AccImages<TypeParam> im(13, 3, 3, 2);
      const int w = r.roi.width > 0 ? r.roi.width : 13, row = w * sizeof(TypeParam);
      const size_t size = sizeof(TypeParam);
      const KvlStatus want = size == 1 ? r.want8 : size == 2 ? r.want16 : r.want32;
      EXPECT_EQ(
          m.call(r.nullS1 ? nullptr : im.s1.roi(), row + r.s1, r.nullS2 ? nullptr : im.s2.roi(),
                 row + r.s2, r.nullMask ? nullptr : im.mask.roi(), w + r.mask,
                 r.nullAcc ? nullptr : im.acc.roi(), 4 * w + r.acc, r.roi, 0.5f),
          want)
          << m.name << ": " << r.what;
      EXPECT_TRUE(want == kOk || im.acc.unchanged()) << m.name << ": " << r.what;
    }
}

// With whole-number accumulators both ends are exact: alpha 0 keeps every bit, alpha 1 copies.
TEST(AddWeighted, AlphaOneTakesTheSourceAndAlphaZeroKeepsEveryBit) {
  for (int w : {5, 37}) {
    Image<Kvl8u> src(w, 2, 0, 1);
    Image<Kvl32f> acc(w, 2, 1, 2);
    std::mt19937 rng(3);
    acc.fill(
        [&](int, int, int) { return static_cast<float>(static_cast<int>(rng() % 20001) - 10000); });
    const std::vector<Kvl32f> before = acc.pixels();
    ASSERT_EQ(
        kvliAddWeighted_8u32f_C1IR(src.roi(), src.step(), acc.roi(), acc.step(), {w, 2}, 0.0f),
        kvlStatusOk);
    EXPECT_TRUE(sameBytes(acc.pixels(), before, w));
    ASSERT_EQ(
        kvliAddWeighted_8u32f_C1IR(src.roi(), src.step(), acc.roi(), acc.step(), {w, 2}, 1.0f),
        kvlStatusOk);
    const std::vector<Kvl8u> s = src.pixels();
    EXPECT_TRUE(sameBytes(acc.pixels(), std::vector<Kvl32f>(s.begin(), s.end()), w));
    EXPECT_TRUE(acc.outsideUnchanged());
  }
}

TEST(AddWeighted, TwoSourcesBlendTowardTheFirst) {
  for (int w : {1, 7, 33, 70}) {
    kvl::test::forEachTarget([&](int target) {
      Image<Kvl32f> a(w, 3, 0, 1), b(w, 3, 0, 2), dst(w, 3, 1, 3);
      fillExtremes(a, 4);
      fillExtremes(b, 5);
      std::vector<Kvl32f> want(3 * w);
      for (int y = 0; y < 3; ++y)  // the second source plays the old accumulator
        kvl::stat::ref::accRow<AccOp::kWeighted, Kvl32f, false>(
            a.at(0, y), nullptr, nullptr, b.at(0, y), &want[y * w], w, 0.375f);
      ASSERT_EQ(kvliAddWeighted_32f_C1R(a.roi(), a.step(), b.roi(), b.step(), dst.roi(), dst.step(),
                                        {w, 3}, 0.375f),
                kvlStatusOk);
      EXPECT_TRUE(sameBytes(dst.pixels(), want, w)) << kvl::test::targetName(target);
      EXPECT_TRUE(dst.outsideUnchanged() && b.unchanged());
    });
  }
  Image<Kvl32f> a(4, 1), b(4, 1), dst(4, 1);
  EXPECT_EQ(kvliAddWeighted_32f_C1R(a.roi(), 16, b.roi(), 18, dst.roi(), 16, {4, 1}, 0.5f),
            kvlStatusStepNotMultiple);
  EXPECT_EQ(kvliAddWeighted_32f_C1R(a.roi(), 16, nullptr, 16, dst.roi(), 15, {4, 1}, 0.5f),
            kvlStatusNullPointer);
  EXPECT_TRUE(dst.unchanged());
}

// ------------------------------------------------------------------------- absolute differences
// Against the reference on every target (extremes both ways, infinities), threaded above the
// threshold, and the step rules.
template <class T, int kC>
void checkAbsDiff(KvlStatus (*fn)(const T*, int, const T*, int, T*, int, KvliSize),
                  const char* name) {
  kvl::test::forEachTarget([&](int target) {
    for (int w = 1; w <= 70; ++w) {
      const int h = 1 + w % 4;
      Image<T, kC> a(w, h, 0, w), b(w, h, 0, w + 1), d(w, h, 1, w + 2);
      a.fillRandom(w);
      b.fillRandom(w + 1);
      a.px(0, 0) = std::is_floating_point_v<T> ? std::numeric_limits<T>::infinity()
                                               : std::numeric_limits<T>::max();
      b.px(0, 0) = 0, b.px(w - 1, h - 1) = std::numeric_limits<T>::max(), a.px(w - 1, h - 1) = 0;
      std::vector<T> want(static_cast<size_t>(w) * h * kC);
      for (int y = 0; y < h; ++y)
        kvl::stat::ref::absDiffRow<T>(a.at(0, y), b.at(0, y), &want[y * w * kC], w * kC);
      ASSERT_EQ(fn(a.roi(), a.step(), b.roi(), b.step(), d.roi(), d.step(), {w, h}), kvlStatusOk);
      ASSERT_TRUE(sameBytes(d.pixels(), want, w, kC))
          << name << " " << kvl::test::targetName(target);
      ASSERT_TRUE(d.outsideUnchanged());
      const std::vector<T> da = a.pixels(), db = b.pixels();  // unpadded rows: one run
      std::vector<T> dd(da.size());
      const int row = w * kC * sizeof(T);
      ASSERT_EQ(fn(da.data(), row, db.data(), row, dd.data(), row, {w, h}), kvlStatusOk);
      ASSERT_TRUE(sameBytes(dd, want, w, kC)) << name << " unpadded";
    }
  });
  std::vector<T> first;
  Image<T, kC> a(700, 400, 0, 1), b(700, 400, 0, 2);
  for (int threads : {1, 2, 3}) {
    kvl::test::ThreadScope scope(threads);
    Image<T, kC> d(700, 400, 0, 3);
    ASSERT_EQ(fn(a.roi(), a.step(), b.roi(), b.step(), d.roi(), d.step(), {700, 400}), kvlStatusOk);
    if (threads == 1) first = d.pixels();
    EXPECT_TRUE(sameBytes(d.pixels(), first, 700, kC)) << name << " threads " << threads;
    const std::vector<T> da = a.pixels(), db = b.pixels();  // unpadded stripes run whole
    std::vector<T> dd(da.size());
    const int row = 700 * kC * sizeof(T);
    ASSERT_EQ(fn(da.data(), row, db.data(), row, dd.data(), row, {700, 400}), kvlStatusOk);
    EXPECT_TRUE(sameBytes(dd, first, 700, kC)) << name << " unpadded, threads " << threads;
  }
  const int row = 5 * kC * sizeof(T);
  const KvlStatus odd = sizeof(T) == 1 ? kvlStatusOk : kvlStatusStepNotMultiple;
  EXPECT_EQ(fn(a.roi(), row, nullptr, row, a.roi(), row, {0, 2}), kvlStatusNullPointer) << name;
  EXPECT_EQ(fn(a.roi(), row, a.roi(), row, a.roi(), row, {5, 0}), kvlStatusBadSize) << name;
  EXPECT_EQ(fn(a.roi(), row, a.roi(), row, a.roi(), row - 1, {5, 2}), kvlStatusBadStep) << name;
  EXPECT_EQ(fn(a.roi(), row + 1, a.roi(), row, b.roi(), row, {5, 2}), odd) << name;
}

TEST(AbsDiff, EveryMember) {
#define KVL_CHECK(suffix, T, kC) checkAbsDiff<T, kC>(&kvliAbsDiff_##suffix, #suffix);
  KVL_ABSDIFF_MEMBERS(KVL_CHECK)
#undef KVL_CHECK
}

// In-range constants against the reference; outside the range they act as the nearest end.
template <class T, class V>
void checkAbsDiffC(KvlStatus (*fn)(const T*, int, T*, int, KvliSize, V), std::vector<V> inRange,
                   std::vector<std::pair<V, V>> sameAs) {
  Image<T> a(70, 3, 0, 1);
  a.fillRandom(1);
  for (V v : inRange)
    kvl::test::forEachTarget([&](int target) {
      for (int w = 1; w <= 70; w += 3) {
        Image<T> d(w, 3, 1, w);
        std::vector<T> want(3 * w);
        for (int y = 0; y < 3; ++y)
          kvl::stat::ref::absDiffCRow<T>(a.at(0, y), T(v), &want[y * w], w);
        ASSERT_EQ(fn(a.roi(), a.step(), d.roi(), d.step(), {w, 3}, v), kvlStatusOk);
        ASSERT_TRUE(sameBytes(d.pixels(), want, w)) << kvl::test::targetName(target) << " " << +v;
        ASSERT_TRUE(d.outsideUnchanged());
      }
    });
  for (auto [v, like] : sameAs) {
    Image<T> d1(70, 3), d2(70, 3);
    ASSERT_EQ(fn(a.roi(), a.step(), d1.roi(), d1.step(), {70, 3}, v), kvlStatusOk);
    ASSERT_EQ(fn(a.roi(), a.step(), d2.roi(), d2.step(), {70, 3}, like), kvlStatusOk);
    EXPECT_EQ(d1.pixels(), d2.pixels()) << +v << " should act as " << +like;
  }
  EXPECT_EQ(fn(a.roi(), a.step(), nullptr, a.step(), {0, 0}, V(0)), kvlStatusNullPointer);
  EXPECT_EQ(fn(a.roi(), 70 * sizeof(T) + 1, a.roi(), a.step(), {70, 3}, V(0)),
            sizeof(T) == 1 ? kvlStatusOk : kvlStatusStepNotMultiple);
}

TEST(AbsDiffC, EveryMember) {
  checkAbsDiffC<Kvl8u, int>(&kvliAbsDiffC_8u_C1R, {0, 1, 128, 255}, {{300, 255}, {-5, 0}});
  checkAbsDiffC<Kvl16u, int>(&kvliAbsDiffC_16u_C1R, {0, 300, 65535}, {{70000, 65535}, {-1, 0}});
  checkAbsDiffC<Kvl32f, Kvl32f>(&kvliAbsDiffC_32f_C1R, {0.0f, -2.5f, 1e30f, kInf}, {});
}

// A value of -5 copies the source (|s - 0| = s).
TEST(AbsDiffC, NegativeValueCopiesTheSource) {
  Image<Kvl8u> a(37, 2, 0, 1), d(37, 2);
  ASSERT_EQ(kvliAbsDiffC_8u_C1R(a.roi(), a.step(), d.roi(), d.step(), {37, 2}, -5), kvlStatusOk);
  EXPECT_EQ(d.pixels(), a.pixels());
}

// The row kernels, cached and cache-bypassing, write the same bytes as the reference: every
// element type, every target, widths that leave heads, four-vector steps and tails, and
// destinations at every element offset inside a 64-byte line (so the vector body starts after
// heads of every length).
template <class T>
void checkRowKernels() {
  kvl::test::forEachTarget([&](int target) {
    for (bool stream : {false, true}) {
      const auto diff = stream ? kvl::stat::AbsDiffKernel<T, 1, true>::kernel.pick()
                               : kvl::stat::AbsDiffKernel<T, 1, false>::kernel.pick();
      const auto diffC = stream ? kvl::stat::AbsDiffCKernel<T, true>::kernel.pick()
                                : kvl::stat::AbsDiffCKernel<T, false>::kernel.pick();
      for (int n : {1, 15, 16, 63, 64, 65, 130, 300, 1027}) {
        Image<T> a(n, 1, 0, n), b(n, 1, 0, n + 1);
        a.fillRandom(n);
        b.fillRandom(n + 1);
        a.px(0, 0) = std::numeric_limits<T>::max();
        std::vector<T> want(n), wantC(n);
        const T v = b.px(n / 2, 0);
        kvl::stat::ref::absDiffRow<T>(a.at(0, 0), b.at(0, 0), want.data(), n);
        kvl::stat::ref::absDiffCRow<T>(a.at(0, 0), v, wantC.data(), n);
        const int stride = static_cast<int>(sizeof(T)) * (n < 100 ? 1 : 3);
        for (int offset = 0; offset < 64; offset += stride) {
          std::vector<unsigned char> buf((n + 2) * sizeof(T) + 128, 0xa5);
          const std::vector<unsigned char> clean = buf;
          T* d = reinterpret_cast<T*>(buf.data() + 64 + offset);
          const auto check = [&](const std::vector<T>& expect, const char* what) {
            std::vector<T> got(n);
            std::memcpy(got.data(), d, n * sizeof(T));
            ASSERT_TRUE(sameBytes(got, expect, n))
                << what << (stream ? " streamed" : " cached") << " n " << n << " offset "
                << offset << " " << kvl::test::targetName(target);
            // Nothing before or after the row changed.
            ASSERT_TRUE(std::equal(buf.begin(), buf.begin() + 64 + offset, clean.begin()));
            ASSERT_TRUE(std::equal(buf.begin() + 64 + offset + n * sizeof(T), buf.end(),
                                   clean.begin() + 64 + offset + n * sizeof(T)));
          };
          diff(a.at(0, 0), b.at(0, 0), d, n);
          check(want, "AbsDiff");
          diffC(a.at(0, 0), v, d, n);
          check(wantC, "AbsDiffC");
        }
      }
    }
  });
}

TEST(AbsDiff, RowKernelsMatchTheReference) {
  checkRowKernels<Kvl8u>();
  checkRowKernels<Kvl16u>();
  checkRowKernels<Kvl32f>();
}

// Images just above the streaming threshold through the exported functions, with padded
// rows, on one and two threads.
TEST(AbsDiff, DestinationAboveTheStreamingThreshold) {
  const int w = 1021, step = 1088;  // odd width, rows padded to a multiple of 64 bytes
  const long long threshold = kvl::streamingThresholdBytes();
  const int h = static_cast<int>(threshold / (2 * step)) + 3;  // AbsDiffC touches 2 images
  ASSERT_TRUE(kvl::streamDestination(static_cast<long long>(h) * 2 * step));
  std::vector<Kvl8u> a(static_cast<size_t>(h) * step), b(a.size());
  for (size_t i = 0; i < a.size(); ++i) {
    a[i] = static_cast<Kvl8u>(i * 2654435761u >> 13);
    b[i] = static_cast<Kvl8u>(i * 40503u >> 5);
  }
  std::vector<Kvl8u> want(a.size(), 0), wantC(a.size(), 0);
  for (int y = 0; y < h; ++y) {
    const size_t o = static_cast<size_t>(y) * step;
    kvl::stat::ref::absDiffRow<Kvl8u>(&a[o], &b[o], &want[o], w);
    kvl::stat::ref::absDiffCRow<Kvl8u>(&a[o], Kvl8u{77}, &wantC[o], w);
  }
  for (int threads : {1, 2}) {
    kvl::test::ThreadScope scope(threads);
    std::vector<Kvl8u> d(a.size(), 0);
    ASSERT_EQ(kvliAbsDiff_8u_C1R(a.data(), step, b.data(), step, d.data(), step, {w, h}),
              kvlStatusOk);
    EXPECT_TRUE(d == want) << "threads " << threads;  // padding stays zero in both
    ASSERT_EQ(kvliAbsDiffC_8u_C1R(a.data(), step, d.data(), step, {w, h}, 77), kvlStatusOk);
    EXPECT_TRUE(d == wantC) << "threads " << threads;
  }
}

}  // namespace
