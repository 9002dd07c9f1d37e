// Accumulation and absolute difference over the member tables: the public calls against the
// reference rows with threads, padded and unpadded, validation order and hand-computed cases.
// Every target against the scalar kernels over awkward sizes and values is the fuzz target's
// (fuzz/stat_accum.cc).
#include "stat/accum.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>

#include "core/parallel.h"
#include "stat/accum_ref.h"
#include "support/support.h"

namespace {

using kvl::stat::AccOp;
using kvl::test::Image;
using kvl::test::sameBytes;

// Every argument an accumulating member may take; each member passes the ones it has.
template <class Src>
struct Args {
  const Src *s1, *s2;
  int s1Step, s2Step;
  const Kvl8u* mask;
  int maskStep;
  Kvl32f* acc;
  int accStep;
  KvliSize roi;
  float alpha;
};

template <class Src>
struct Member {
  std::string name;
  bool masked, twoSources;
  KvlStatus (*call)(const Args<Src>&);
  kvl::stat::AccRowFn<Src> ref;
};

// The weighted sum of two sources, not in place: the second source plays the old accumulator.
void blendRef(const Kvl32f* s1, const Kvl32f* s2, const Kvl8u*, const Kvl32f*, Kvl32f* out, int n,
              float alpha) {
  kvl::stat::ref::accRow<AccOp::kWeighted, Kvl32f, false>(s1, nullptr, nullptr, s2, out, n, alpha);
}

#define KVL_ADD(fn, S, ref, masked, two, ...) \
  if constexpr (std::is_same_v<Src, S>)       \
    v.push_back({#fn, masked, two, [](const Args<S>& x) { return fn(__VA_ARGS__); }, ref});
#define KVL_MEMBER(fn, S, op, masked, two, ...) \
  KVL_ADD(fn, S, (&kvl::stat::ref::accRow<op, S, masked>), masked, two, __VA_ARGS__)
#define KVL_S1 x.s1, x.s1Step
#define KVL_S2 x.s1, x.s1Step, x.s2, x.s2Step
#define KVL_M x.mask, x.maskStep
#define KVL_ACC x.acc, x.accStep, x.roi
#define KVL_ONE(n, t, S, op) KVL_MEMBER(kvli##n##_##t##_C1IR, S, op, false, false, KVL_S1, KVL_ACC)
#define KVL_ONE_M(n, t, S, op) \
  KVL_MEMBER(kvli##n##_##t##_C1IMR, S, op, true, false, KVL_S1, KVL_M, KVL_ACC)
#define KVL_TWO(n, t, S, op)                                            \
  KVL_MEMBER(kvli##n##_##t##_C1IR, S, op, false, true, KVL_S2, KVL_ACC) \
  KVL_MEMBER(kvli##n##_##t##_C1IMR, S, op, true, true, KVL_S2, KVL_M, KVL_ACC)
#define KVL_W(n, t, S, op)                                                        \
  KVL_MEMBER(kvli##n##_##t##_C1IR, S, op, false, false, KVL_S1, KVL_ACC, x.alpha) \
  KVL_MEMBER(kvli##n##_##t##_C1IMR, S, op, true, false, KVL_S1, KVL_M, KVL_ACC, x.alpha)

template <class Src>
std::vector<Member<Src>> members() {
  std::vector<Member<Src>> v;
  KVL_ACC_ONE_SOURCE_MEMBERS(KVL_ONE)
  KVL_ACC_ONE_SOURCE_MASKED_MEMBERS(KVL_ONE_M)
  KVL_ACC_TWO_SOURCE_MEMBERS(KVL_TWO)
  KVL_ACC_WEIGHTED_MEMBERS(KVL_W)
  KVL_ADD(kvliAddWeighted_32f_C1R, Kvl32f, blendRef, false, true, KVL_S2, KVL_ACC, x.alpha)
  return v;
}

// Sources and a mask with holes (`margin` pixels of valid memory around them), an accumulator.
template <class Src>
struct Images {
  Image<Src> s1, s2;
  Image<Kvl8u> mask;
  Image<Kvl32f> acc;
  Images(int w, int h, int margin)
      : s1(w, h, margin, 1), s2(w, h, margin, 2), mask(w, h, margin, 3), acc(w, h, 1, 4) {
    std::mt19937 rng(5);
    mask.fill([&](int, int, int) { return rng() % 2 ? Kvl8u(0) : Kvl8u(1 + rng() % 255); });
  }
  Args<Src> args(float alpha) const {
    return {s1.roi(), s2.roi(), s1.step(), s2.step(), mask.roi(), mask.step(),
            acc.roi(), acc.step(), {acc.width(), acc.height()}, alpha};
  }
};

template <class T>
class Accumulate : public ::testing::Test {};
using SourceTypes = ::testing::Types<Kvl8u, Kvl8s, Kvl16u, Kvl32f>;
TYPED_TEST_SUITE(Accumulate, SourceTypes);

// Every member against its reference rows on 700 x 400 pixels with 1, 2 and 3 threads: padded
// rows one at a time, then the same pixels without padding as one run.
TYPED_TEST(Accumulate, EveryMemberMatchesTheReferenceRows) {
  constexpr int w = 700, h = 400, row = w * sizeof(TypeParam);
  Images<TypeParam> im(w, h, 0);
  const std::vector<TypeParam> a = im.s1.pixels(), b = im.s2.pixels();
  const std::vector<Kvl8u> mask = im.mask.pixels();
  const std::vector<Kvl32f> start = im.acc.pixels();
  for (const auto& m : members<TypeParam>()) {
    std::vector<Kvl32f> want = start;
    for (int y = 0; y < h; ++y)
      m.ref(a.data() + y * w, b.data() + y * w, &mask[y * w], &want[y * w], &want[y * w], w, 0.25f);
    for (int threads : {1, 2, 3}) {
      kvl::test::ThreadScope scope(threads);
      ASSERT_EQ(kvl::par::teamPerPixel({w, h}) > 1, threads > 1);  // the image really is split
      for (int y = 0; y < h; ++y) std::copy_n(&start[y * w], w, im.acc.at(0, y));
      ASSERT_EQ(m.call(im.args(0.25f)), kvlStatusOk);
      ASSERT_TRUE(sameBytes(im.acc.pixels(), want, w)) << m.name << ", threads " << threads;
      ASSERT_TRUE(im.acc.outsideUnchanged() && im.s1.unchanged() && im.mask.unchanged());
      std::vector<Kvl32f> acc = start;
      ASSERT_EQ(
          m.call({a.data(), b.data(), row, row, mask.data(), w, acc.data(), 4 * w, {w, h}, 0.25f}),
          kvlStatusOk);
      ASSERT_TRUE(sameBytes(acc, want, w)) << m.name << ", threads " << threads << ", unpadded";
    }
  }
}

// Each row mutates valid arguments; the status is the first failing check, and nothing is written.
TYPED_TEST(Accumulate, ValidationOrderAndStepRules) {
  constexpr KvlStatus kNull = kvlStatusNullPointer, kSize = kvlStatusBadSize,
                      kStep = kvlStatusBadStep, kMult = kvlStatusStepNotMultiple, kOk = kvlStatusOk;
  enum { kAll, kMasked, kTwo };                         // the members a row applies to
  constexpr int kS1 = 1, kS2 = 2, kMask = 4, kAcc = 8;  // null pointers
  struct Row {
    const char* what;
    int s1, s2, mask, acc, nulls;  // step changes in bytes, null pointers
    KvliSize roi;
    KvlStatus want[3];  // by source element size 1, 2, 4
    int only;
  };
  // clang-format off
  const Row rows[] = {
      {"null source",                0, 0, 0, 0, kS1,   {13, 3},  {kNull, kNull, kNull}, kAll},
      {"null accumulator, no width", 0, 0, 0, 0, kAcc,  {0, 3},   {kNull, kNull, kNull}, kAll},
      {"null mask",                  0, 0, 0, 0, kMask, {13, 3},  {kNull, kNull, kNull}, kMasked},
      {"null second source",         0, 0, 0, 0, kS2,   {13, 3},  {kNull, kNull, kNull}, kTwo},
      {"zero width, short step",  -100, 0, 0, 0, 0,     {0, 3},   {kSize, kSize, kSize}, kAll},
      {"negative height",            0, 0, 0, 0, 0,     {13, -1}, {kSize, kSize, kSize}, kAll},
      {"source step short, acc odd", -1, 0, 0, 2, 0,    {13, 3},  {kStep, kStep, kStep}, kAll},
      {"negative source step", -100000, 0, 0, 0, 0,     {13, 3},  {kStep, kStep, kStep}, kAll},
      {"second source step short",   0, -1, 0, 0, 0,    {13, 3},  {kStep, kStep, kStep}, kTwo},
      {"mask step short",            0, 0, -1, 0, 0,    {13, 3},  {kStep, kStep, kStep}, kMasked},
      {"accumulator step 4w-1",      0, 0, 0, -1, 0,    {13, 3},  {kStep, kStep, kStep}, kAll},
      {"accumulator step 4w+2",      0, 0, 0, 2, 0,     {13, 3},  {kMult, kMult, kMult}, kAll},
      {"odd source step",            1, 0, 0, 0, 0,     {13, 3},  {kOk,   kMult, kMult}, kAll},
      {"source step +2",             2, 0, 0, 0, 0,     {13, 3},  {kOk,   kOk,   kMult}, kAll},
      {"odd second source step",     0, 1, 0, 0, 0,     {13, 3},  {kOk,   kMult, kMult}, kTwo},
  };
  // clang-format on
  for (const auto& m : members<TypeParam>())
    for (const Row& r : rows) {
      if ((r.only == kMasked && !m.masked) || (r.only == kTwo && !m.twoSources)) continue;
      Images<TypeParam> im(13, 3, 3);
      const int w = r.roi.width > 0 ? r.roi.width : 13, row = w * sizeof(TypeParam);
      const KvlStatus want = r.want[sizeof(TypeParam) / 2];
      auto ptr = [&](auto* p, int flag) { return r.nulls & flag ? nullptr : p; };
      EXPECT_EQ(m.call({ptr(im.s1.roi(), kS1), ptr(im.s2.roi(), kS2), row + r.s1, row + r.s2,
                        ptr(im.mask.roi(), kMask), w + r.mask, ptr(im.acc.roi(), kAcc),
                        4 * w + r.acc, r.roi, 0.5f}),
                want)
          << m.name << ": " << r.what;
      EXPECT_TRUE(want == kOk || im.acc.unchanged()) << m.name << ": " << r.what;
    }
}

// With whole-number accumulators both ends are exact: alpha 0 keeps every bit, alpha 1 copies.
TEST(AddWeighted, AlphaZeroKeepsEveryBitAndAlphaOneTakesTheSource) {
  for (int w : {5, 37}) {
    Image<Kvl8u> src(w, 2, 0, 1);
    Image<Kvl32f> acc(w, 2, 1, 2);
    std::mt19937 rng(3);
    acc.fill([&](int, int, int) { return static_cast<float>(int(rng() % 20001) - 10000); });
    const std::vector<Kvl32f> before = acc.pixels();
    const std::vector<Kvl8u> s = src.pixels();
    const std::vector<Kvl32f> source(s.begin(), s.end());
    for (float alpha : {0.0f, 1.0f}) {
      ASSERT_EQ(
          kvliAddWeighted_8u32f_C1IR(src.roi(), src.step(), acc.roi(), acc.step(), {w, 2}, alpha),
          kvlStatusOk);
      EXPECT_TRUE(sameBytes(acc.pixels(), alpha == 0 ? before : source, w)) << alpha;
    }
    EXPECT_TRUE(acc.outsideUnchanged());
  }
}

// ------------------------------------------------------------------------- absolute differences
// A member as call(a, aStep, b, bStep, dst, dstStep, roi) against its reference rows
// ref(a, b, dst, n) on 700 x 400 pixels with 1, 2 and 3 threads, padded rows, then unpadded ones
// (one run); then the validation order.
template <class T, int kC, class Call, class Ref>
void checkAbsDiff(Call call, Ref ref) {
  constexpr int w = 700, h = 400, n = w * kC, row = n * sizeof(T);
  const Image<T, kC> a(w, h, 0, 1), b(w, h, 0, 2);
  const std::vector<T> da = a.pixels(), db = b.pixels();
  std::vector<T> want(da.size());
  for (int y = 0; y < h; ++y) ref(&da[y * n], &db[y * n], &want[y * n], n);
  for (int threads : {1, 2, 3}) {
    kvl::test::ThreadScope scope(threads);
    ASSERT_EQ(kvl::par::teamPerPixel({w, h}) > 1, threads > 1);  // the image really is split
    Image<T, kC> d(w, h, 1, 3);
    std::vector<T> dd(want.size());
    ASSERT_EQ(call(a.roi(), a.step(), b.roi(), b.step(), d.roi(), d.step(), KvliSize{w, h}),
              kvlStatusOk);
    ASSERT_TRUE(sameBytes(d.pixels(), want, w, kC)) << "threads " << threads;
    ASSERT_TRUE(d.outsideUnchanged());
    ASSERT_EQ(call(da.data(), row, db.data(), row, dd.data(), row, KvliSize{w, h}), kvlStatusOk);
    ASSERT_TRUE(sameBytes(dd, want, w, kC)) << "threads " << threads << ", unpadded";
  }
  // Null pointers, sizes, short steps, then (16u, 32f) steps not a multiple of the element size.
  Image<T, kC> d(5, 1, 1);
  const int r = 5 * kC * sizeof(T);
  EXPECT_EQ(call(nullptr, r, a.roi(), r, d.roi(), r, KvliSize{0, 2}), kvlStatusNullPointer);
  EXPECT_EQ(call(a.roi(), r, a.roi(), r, nullptr, r, KvliSize{0, 2}), kvlStatusNullPointer);
  EXPECT_EQ(call(a.roi(), r, a.roi(), r, d.roi(), r, KvliSize{5, 0}), kvlStatusBadSize);
  EXPECT_EQ(call(a.roi(), r, a.roi(), r, d.roi(), r - 1, KvliSize{5, 1}), kvlStatusBadStep);
  EXPECT_TRUE(d.unchanged());
  EXPECT_EQ(call(a.roi(), r + 1, a.roi(), r, d.roi(), r, KvliSize{5, 1}),
            sizeof(T) == 1 ? kvlStatusOk : kvlStatusStepNotMultiple);
}

TEST(AbsDiff, EveryMember) {
#define KVL_CHECK(suffix, T, kC) \
  checkAbsDiff<T, kC>(kvliAbsDiff_##suffix, kvl::stat::ref::absDiffRow<T>);
  KVL_ABSDIFF_MEMBERS(KVL_CHECK)
#undef KVL_CHECK
}

// Values outside an integer range act as its nearest end (300 as 255, -5 as 0: a plain copy).
template <class T, class V>
void checkAbsDiffC(KvlStatus (*fn)(const T*, int, T*, int, KvliSize, V), std::vector<V> values) {
  using L = std::numeric_limits<T>;
  for (V v : values)
    checkAbsDiff<T, 1>(
        [&](const T* a, int as, const T*, int, T* d, int ds, KvliSize r) {
          return fn(a, as, d, ds, r, v);
        },
        [&](const T* a, const T*, T* d, int n) {
          const T c = std::is_integral_v<T> ? T(std::clamp<V>(v, L::lowest(), L::max())) : T(v);
          kvl::stat::ref::absDiffCRow<T>(a, c, d, n);
        });
}

TEST(AbsDiffC, EveryMember) {
  checkAbsDiffC<Kvl8u, int>(&kvliAbsDiffC_8u_C1R, {0, 1, 128, 255, 300, -5});
  checkAbsDiffC<Kvl16u, int>(&kvliAbsDiffC_16u_C1R, {0, 300, 65535, 90000, -1500});
  checkAbsDiffC<Kvl32f, Kvl32f>(&kvliAbsDiffC_32f_C1R,
                                {0.0f, -2.5f, 1e30f, std::numeric_limits<float>::infinity()});
}

// The streaming row kernels (taken only by images beyond the caches, which the fuzz target never
// makes; the cached ones differ only in their stores) against the reference on every target:
// widths that leave heads, four-vector steps and tails, destinations at every element offset of a
// 64-byte line (so the vector body starts after heads of every length), nothing written around.
template <class T, class Kernel, class Call>
void checkRowKernel(const Kernel& kernel, Call call) {
  kvl::test::forEachTarget([&](int target) {
    for (int n : {1, 15, 16, 63, 64, 65, 130, 300, 1027}) {
      Image<T> a(n, 1, 0, n), b(n, 1, 0, n + 1);
      a.px(0, 0) = std::numeric_limits<T>::max();
      std::vector<T> want(n);
      call(kernel.ref, a.roi(), b.roi(), want.data(), n);
      for (int offset = 0; offset < 64; offset += sizeof(T)) {
        std::vector<unsigned char> buf(n * sizeof(T) + 128, 0xa5);
        T* d = reinterpret_cast<T*>(buf.data() + 64 + offset);
        call(kernel.at(target), a.roi(), b.roi(), d, n);
        ASSERT_TRUE(sameBytes(std::vector<T>(d, d + n), want, n)) << "n " << n << " at " << offset;
        std::memset(d, 0xa5, n * sizeof(T));
        ASSERT_TRUE(std::all_of(buf.begin(), buf.end(), [](unsigned char c) { return c == 0xa5; }))
            << "written around the row, n " << n << " at " << offset;
      }
    }
  });
}

TEST(AbsDiff, StreamingRowKernelsAtEveryDestinationOffset) {
  const auto diff = [](auto fn, const auto* a, const auto* b, auto* d, int n) { fn(a, b, d, n); };
  const auto diffC = [](auto fn, const auto* a, const auto* b, auto* d, int n) {
    fn(a, b[n / 2], d, n);
  };
#define KVL_ROWS(types, T, C) \
  checkRowKernel<T>(kvl::stat::AbsDiffKernel<T, C, true>::kernel, diff);
#define KVL_ROWS_C(types, T, V) \
  checkRowKernel<T>(kvl::stat::AbsDiffCKernel<T, true>::kernel, diffC);
  KVL_ABSDIFF_MEMBERS(KVL_ROWS)
  KVL_ABSDIFFC_MEMBERS(KVL_ROWS_C)
#undef KVL_ROWS
#undef KVL_ROWS_C
}

}  // namespace
