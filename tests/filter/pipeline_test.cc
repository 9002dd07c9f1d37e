// Row and column pipeline passes: every member on every vector target against the scalar
// reference kernels, golden rounding and saturation cases, validation order, buffer sizes and
// thread invariance.
#include "filter/pipeline.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <tuple>

#include "core/border.h"
#include "support/support.h"

namespace {

using kvl::test::forEachTarget;
using kvl::test::GuardedBlock;
using kvl::test::Image;
using kvl::test::sameBytes;
using kvl::test::ThreadScope;
namespace ref = kvl::filter::ref;

// Uniform views of the members; the 32f members take no divisor (adapters below drop it).
template <class S, class D, class Kr, int kC>
struct RowMember {
  using Src = S;
  using Dst = D;
  using Ker = Kr;
  static constexpr int C = kC;
  const char* name;
  KvlStatus (*run)(const S*, int, D**, KvliSize, const Kr*, int, int, int, S, int, Kvl8u*);
  KvlStatus (*size)(KvliSize, int, int*);
  kvl::filter::RowKernel<S, D, Kr> ref;
  int divisor;  // 0: none, 1: non-zero, 2: positive
};
template <class S, class D, class Kr, int kC>
struct ColumnMember {
  using Src = S;
  using Dst = D;
  using Ker = Kr;
  static constexpr int C = kC;
  const char* name;
  KvlStatus (*run)(const S**, D*, int, KvliSize, const Kr*, int, int, Kvl8u*);
  KvlStatus (*size)(KvliSize, int, int*);
  kvl::filter::ColumnKernel<S, D, Kr> ref;
  bool hasDivisor;
};

#define ROW32F(C)                                                                               \
  KvlStatus row32fC##C(const Kvl32f* s, int st, Kvl32f** d, KvliSize r, const Kvl32f* k, int K, \
                       int A, int bt, Kvl32f v, int, Kvl8u* b) {                                \
    return kvliFilterRowBorderPipeline_32f_C##C##R(s, st, d, r, k, K, A, bt, v, b);             \
  }                                                                                             \
  KvlStatus col32fC##C(const Kvl32f** s, Kvl32f* d, int st, KvliSize r, const Kvl32f* k, int K, \
                       int, Kvl8u* b) {                                                         \
    return kvliFilterColumnPipeline_32f_C##C##R(s, d, st, r, k, K, b);                          \
  }
ROW32F(1)
ROW32F(3)

// clang-format off
#define ROW(sfx, S, D, C, kern, div, run) \
  RowMember<S, D, D, C>{#sfx, run, kvliFilterRowBorderPipelineGetBufferSize_##sfx, ref::kern, div}
#define COL(sfx, S, D, C, kern, div, run) \
  ColumnMember<S, D, S, C>{#sfx, run, kvliFilterColumnPipelineGetBufferSize_##sfx, ref::kern, div}
// clang-format on
#define R_(sfx) kvliFilterRowBorderPipeline_##sfx
#define C_(sfx) kvliFilterColumnPipeline_##sfx

const auto kRowMembers =
    std::make_tuple(ROW(8u16s_C1R, Kvl8u, Kvl16s, 1, row8u16s, 1, R_(8u16s_C1R)),
                    ROW(8u16s_C3R, Kvl8u, Kvl16s, 3, row8u16s, 1, R_(8u16s_C3R)),
                    ROW(16s_C1R, Kvl16s, Kvl16s, 1, row16s, 1, R_(16s_C1R)),
                    ROW(16s_C3R, Kvl16s, Kvl16s, 3, row16s, 1, R_(16s_C3R)),
                    ROW(Low_16s_C1R, Kvl16s, Kvl16s, 1, row16s, 1, R_(Low_16s_C1R)),
                    ROW(Low_16s_C3R, Kvl16s, Kvl16s, 3, row16s, 1, R_(Low_16s_C3R)),
                    ROW(16u_C1R, Kvl16u, Kvl16u, 1, row16u, 2, R_(16u_C1R)),
                    ROW(16u_C3R, Kvl16u, Kvl16u, 3, row16u, 2, R_(16u_C3R)),
                    ROW(32f_C1R, Kvl32f, Kvl32f, 1, row32f, 0, row32fC1),
                    ROW(32f_C3R, Kvl32f, Kvl32f, 3, row32f, 0, row32fC3));

const auto kColumnMembers =
    std::make_tuple(COL(16s_C1R, Kvl16s, Kvl16s, 1, column16s, true, C_(16s_C1R)),
                    COL(16s_C3R, Kvl16s, Kvl16s, 3, column16s, true, C_(16s_C3R)),
                    COL(16s8u_C1R, Kvl16s, Kvl8u, 1, column16s8u, true, C_(16s8u_C1R)),
                    COL(16s8u_C3R, Kvl16s, Kvl8u, 3, column16s8u, true, C_(16s8u_C3R)),
                    COL(16s8s_C1R, Kvl16s, Kvl8s, 1, column16s8s, true, C_(16s8s_C1R)),
                    COL(16s8s_C3R, Kvl16s, Kvl8s, 3, column16s8s, true, C_(16s8s_C3R)),
                    COL(Low_16s_C1R, Kvl16s, Kvl16s, 1, column16s, true, C_(Low_16s_C1R)),
                    COL(Low_16s_C3R, Kvl16s, Kvl16s, 3, column16s, true, C_(Low_16s_C3R)),
                    COL(16u_C1R, Kvl16u, Kvl16u, 1, column16u, true, C_(16u_C1R)),
                    COL(16u_C3R, Kvl16u, Kvl16u, 3, column16u, true, C_(16u_C3R)),
                    COL(32f_C1R, Kvl32f, Kvl32f, 1, column32f, false, col32fC1),
                    COL(32f_C3R, Kvl32f, Kvl32f, 3, column32f, false, col32fC3));

template <class Tuple, class Fn>
void forEachMember(const Tuple& t, Fn&& fn) {
  std::apply([&](const auto&... m) { (fn(m), ...); }, t);
}

// Small taps make rounding matter, full-range ones (wide) make saturation and wrapping matter.
template <class T>
std::vector<T> randomKernel(std::mt19937& rng, int K, bool wide) {
  std::vector<T> k(K);
  for (T& v : k) {
    if constexpr (std::is_floating_point_v<T>) {
      v = std::uniform_real_distribution<T>(-2, 2)(rng);
    } else {
      const long long lo = std::is_signed_v<T> ? (wide ? -32768 : -40) : 0;
      v = static_cast<T>(std::uniform_int_distribution<long long>(lo, wide ? 65535 + lo : 40)(rng));
    }
  }
  return k;
}

int pickDivisor(std::mt19937& rng, int rule) {
  static const int kDivisors[] = {1, 2, 3, 4, 16, 255, -1, -2, -7};
  return rule == 0 ? 1 : kDivisors[rng() % (rule == 2 ? 6 : 9)];
}

const int kKernels[] = {1, 2, 3, 4, 5, 7, 9};

// Heights 1..4 over the widths, with 1x1 and 2x3 among them.
int heightFor(int width) { return width == 1 ? 1 : width == 2 ? 3 : 1 + width % 4; }

// Row pass against the reference kernel run over whole rows extended by the border utility (or
// read from the memory around the row for mode 6); destination rows in scrambled order.
template <class M>
void rowSweep(const M& m, int width) {
  using Src = typename M::Src;
  using Dst = typename M::Dst;
  constexpr int C = M::C;
  std::mt19937 rng(width * 31 + C);
  const int h = heightFor(width), n = width * C;
  Image<Src, C> src(width, h, 9, width);
  src.fillRandom(rng());
  Image<Dst, C> dst(width, h, 2, width + 1);
  std::vector<int> perm(h);
  std::iota(perm.begin(), perm.end(), 0);
  std::shuffle(perm.begin(), perm.end(), rng);
  std::vector<Dst*> rows(h);
  for (int y = 0; y < h; ++y) rows[y] = dst.at(0, perm[y]);
  for (int K : kKernels)
    for (int A = 0; A < K; ++A)
      for (int bt : {kvlBorderConst, kvlBorderRepl, kvlBorderInMem}) {
        const auto kernel = randomKernel<typename M::Ker>(rng, K, rng() % 4 == 0);
        const int divisor = pickDivisor(rng, m.divisor);
        const Src value = Image<Src, C>::uniform(rng, std::numeric_limits<Src>::lowest(),
                                                 std::numeric_limits<Src>::max());
        std::vector<Dst> want(static_cast<size_t>(n) * h);
        std::vector<Src> ext((width + K - 1) * C);
        for (int y = 0; y < h; ++y) {
          if (bt == kvlBorderInMem) {
            std::copy(src.at(-A, y), src.at(-A, y) + ext.size(), ext.begin());
          } else {
            kvl::border::fillRow<Src, C>(src.at(0, y), ext.data(), width, K, A, bt, value);
          }
          m.ref(ext.data(), want.data() + y * n, n, C, kernel.data(), K, 1.0f / divisor);
        }
        int bytes = 0;
        ASSERT_EQ(m.size({width, h}, K, &bytes), kvlStatusOk);
        GuardedBlock buffer(bytes, 1, K);
        forEachTarget([&](int) {
          ASSERT_EQ(m.run(src.roi(), src.step(), rows.data(), {width, h}, kernel.data(), K, A, bt,
                          value, divisor, buffer.data()),
                    kvlStatusOk);
          std::vector<Dst> got;
          for (int y = 0; y < h; ++y) got.insert(got.end(), rows[y], rows[y] + n);
          ASSERT_TRUE(sameBytes(got, want, width, C))
              << m.name << " w " << width << " K " << K << " A " << A << " border " << bt
              << " divisor " << divisor;
        });
      }
  EXPECT_TRUE(dst.outsideUnchanged()) << m.name << " w " << width;
  EXPECT_TRUE(src.unchanged()) << m.name << " w " << width;
}

// Column pass against the reference kernel on the same row pointers: any order, some rows used
// twice (as a replicated border would); narrow then full-range sources.
template <class M>
void columnSweep(const M& m, int width) {
  using Src = typename M::Src;
  using Dst = typename M::Dst;
  constexpr int C = M::C;
  std::mt19937 rng(width * 17 + C);
  const int h = heightFor(width), n = width * C;
  Image<Dst, C> dst(width, h, 2, width + 3);
  for (int K : kKernels)
    for (int pass = 0; pass < 2; ++pass) {
      const int inRows = h + K - 1;
      Image<Src, C> src(width, inRows, 0, width * 7 + K);
      if (pass == 0 && !std::is_floating_point_v<Src>)
        src.fillRandom(rng(), static_cast<Src>(std::is_signed_v<Src> ? -300 : 0), Src(300));
      else
        src.fillRandom(rng());
      std::vector<const Src*> rows(inRows);
      for (auto& r : rows) r = src.at(0, static_cast<int>(rng() % inRows));
      const auto kernel = randomKernel<typename M::Ker>(rng, K, pass == 1 && rng() % 2);
      const int divisor = pickDivisor(rng, m.hasDivisor ? 1 : 0);
      std::vector<Dst> want(static_cast<size_t>(n) * h);
      for (int y = 0; y < h; ++y)
        m.ref(rows.data() + y, want.data() + y * n, n, kernel.data(), K, 1.0f / divisor);
      int bytes = 0;
      ASSERT_EQ(m.size({width, h}, K, &bytes), kvlStatusOk);
      GuardedBlock buffer(bytes, 1, K);
      forEachTarget([&](int) {
        ASSERT_EQ(m.run(rows.data(), dst.roi(), dst.step(), {width, h}, kernel.data(), K, divisor,
                        buffer.data()),
                  kvlStatusOk);
        ASSERT_TRUE(sameBytes(dst.pixels(), want, width, C))
            << m.name << " w " << width << " K " << K << " divisor " << divisor;
      });
    }
  EXPECT_TRUE(dst.outsideUnchanged()) << m.name << " w " << width;
}

class PipelineWidths : public ::testing::TestWithParam<int> {};
TEST_P(PipelineWidths, RowPassMatchesReferenceOnEveryTarget) {
  forEachMember(kRowMembers, [&](const auto& m) { rowSweep(m, GetParam()); });
}
TEST_P(PipelineWidths, ColumnPassMatchesReferenceOnEveryTarget) {
  forEachMember(kColumnMembers, [&](const auto& m) { columnSweep(m, GetParam()); });
}
INSTANTIATE_TEST_SUITE_P(Widths1To70, PipelineWidths, ::testing::Range(1, 71));

// ---- Golden cases ----
TEST(RowPipeline, GoldenCases) {
  struct Case {
    const char* what;
    std::vector<Kvl8u> src;
    std::vector<Kvl16s> kernel;
    int anchor, border, value, divisor;
    std::vector<Kvl16s> want;
  };
  const Case cases[] = {
      {"40000 saturates", {100, 100}, {200, 200}, 0, kvlBorderRepl, 0, 1, {32767, 32767}},
      {"-40000 saturates", {100, 100}, {-200, -200}, 0, kvlBorderRepl, 0, 1, {-32768, -32768}},
      {"-7 / 2 truncates", {1, 1, 1}, {-7}, 0, kvlBorderConst, 0, 2, {-3, -3, -3}},
      {"7 / -2 truncates", {1}, {7}, 0, kvlBorderConst, 0, -2, {-3}},
      {"one tap equal to the divisor copies",
       {0, 9, 255, 4},
       {5},
       0,
       kvlBorderRepl,
       0,
       5,
       {0, 9, 255, 4}},
      {"anchor K-1 extends on the left only",
       {10, 20, 30, 40},
       {1, 0, 0},
       2,
       kvlBorderRepl,
       0,
       1,
       {10, 10, 10, 20}},
      {"anchor 0 extends on the right only",
       {10, 20, 30, 40},
       {0, 0, 1},
       0,
       kvlBorderConst,
       7,
       1,
       {30, 40, 7, 7}},
      {"correlation, not convolution",
       {1, 2, 3, 4, 5},
       {1, 10, 100},
       1,
       kvlBorderConst,
       0,
       1,
       {210, 321, 432, 543, 54}},
      {"10 / 3 across a vector and its tail",
       std::vector<Kvl8u>(37, 10),
       {1},
       0,
       kvlBorderRepl,
       0,
       3,
       std::vector<Kvl16s>(37, 3)},
  };
  for (const Case& c : cases) {
    const int w = static_cast<int>(c.src.size()), K = static_cast<int>(c.kernel.size());
    std::vector<Kvl8u> buffer(4096);
    forEachTarget([&](int) {
      std::vector<Kvl16s> out(w);
      Kvl16s* rows[1] = {out.data()};
      ASSERT_EQ(kvliFilterRowBorderPipeline_8u16s_C1R(c.src.data(), w, rows, {w, 1},
                                                      c.kernel.data(), K, c.anchor, c.border,
                                                      Kvl8u(c.value), c.divisor, buffer.data()),
                kvlStatusOk);
      EXPECT_EQ(out, c.want) << c.what;
    });
  }
}

TEST(RowPipeline, SixteenBitUnsignedAndFloatGolden) {
  const Kvl16u src16u[3] = {65535, 2, 3}, k16u[2] = {2, 1};
  const Kvl32f src32f[3] = {0.5f, -1.0f, 2.0f}, k32f[3] = {1.0f, 0.25f, -2.0f};
  Kvl16u out16u[3];
  Kvl32f out32f[3];
  Kvl16u* rows16u[1] = {out16u};
  Kvl32f* rows32f[1] = {out32f};
  std::vector<Kvl8u> buffer(4096);
  forEachTarget([&](int) {
    // (2 x 65535 + 2) / 2 clamps to 65535; (4 + 3) / 2 and (6 + 3) / 2 truncate.
    ASSERT_EQ(kvliFilterRowBorderPipeline_16u_C1R(src16u, 6, rows16u, {3, 1}, k16u, 2, 0,
                                                  kvlBorderRepl, 0, 2, buffer.data()),
              kvlStatusOk);
    EXPECT_EQ(std::vector<int>(out16u, out16u + 3), (std::vector<int>{65535, 3, 4}));
    ASSERT_EQ(kvliFilterRowBorderPipeline_32f_C1R(src32f, 12, rows32f, {3, 1}, k32f, 3, 1,
                                                  kvlBorderConst, 8.0f, buffer.data()),
              kvlStatusOk);
    EXPECT_EQ(
        std::vector<float>(out32f, out32f + 3),
        (std::vector<float>{8.0f + 0.125f + 2.0f, 0.5f - 0.25f - 4.0f, -1.0f + 0.5f - 16.0f}));
  });
}

// Exact halves on both sides of the group/tail boundary: 11 elements are one group of 8 (ties to
// even) and a tail of 3 (truncation); a C3 row of 3 pixels is 8 + 1.
TEST(ColumnPipeline, HalvesRoundInGroupsAndTruncateInTheTail) {
  const Kvl16s in[11] = {1, 3, 5, -1, -3, -5, 7, 9, 3, -3, 5}, one[1] = {1};
  const Kvl16s group[8] = {0, 2, 2, 0, -2, -2, 4, 4};
  const Kvl16s in8[10] = {5, 7, -6, 600, 1, 3, 9, 11, 5, 7};
  const Kvl8u want8[10] = {2, 4, 0, 255, 0, 2, 4, 6, 2, 3};  // tail: 2.5 -> 2, 3.5 -> 3
  const Kvl16s* rows[1] = {in};
  const Kvl16s* rows8[1] = {in8};
  Kvl8u buffer[8], out8[10];
  forEachTarget([&](int) {
    for (int C : {1, 3}) {
      const int w = C == 1 ? 11 : 3;
      Kvl16s out[11] = {};
      ASSERT_EQ(C == 1 ? kvliFilterColumnPipeline_16s_C1R(rows, out, 22, {w, 1}, one, 1, 2, buffer)
                       : kvliFilterColumnPipeline_16s_C3R(rows, out, 22, {w, 1}, one, 1, 2, buffer),
                kvlStatusOk);
      for (int i = 0; i < 8; ++i) EXPECT_EQ(out[i], group[i]) << "C" << C << " i " << i;
      for (int i = 8; i < w * C; ++i) EXPECT_EQ(out[i], in[i] / 2) << "C" << C << " tail " << i;
    }
    ASSERT_EQ(kvliFilterColumnPipeline_16s8u_C1R(rows8, out8, 10, {10, 1}, one, 1, 2, buffer),
              kvlStatusOk);
    EXPECT_EQ(std::vector<Kvl8u>(out8, out8 + 10), std::vector<Kvl8u>(want8, want8 + 10));
  });
}

// The 16u column pass sums its products in 32-bit integers and scales the sum once: long kernels
// with large coefficients and values, against the rule computed in 64 bits (the sums here stay
// below 2^31), for one and three channels.
TEST(ColumnPipeline, SixteenBitUnsignedSumsInIntegers) {
  const int w = 100, h = 5, K = 9, divisor = 9802;
  std::mt19937 rng(96);
  std::vector<Kvl16u> kernel(K);
  for (Kvl16u& k : kernel) k = static_cast<Kvl16u>(900 + rng() % 400);
  for (int channels : {1, 3}) {
    const int n = w * channels;
    std::vector<std::vector<Kvl16u>> rows(h + K - 1, std::vector<Kvl16u>(n));
    for (auto& r : rows)
      for (Kvl16u& v : r) v = static_cast<Kvl16u>(rng());
    std::vector<const Kvl16u*> ptrs;
    for (const auto& r : rows) ptrs.push_back(r.data());
    const float recip = 1.0f / static_cast<float>(divisor);
    kvl::test::forEachTarget([&](int) {
      std::vector<Kvl16u> out(static_cast<size_t>(n) * h);
      int bytes = 0;
      auto size = channels == 1 ? kvliFilterColumnPipelineGetBufferSize_16u_C1R
                                : kvliFilterColumnPipelineGetBufferSize_16u_C3R;
      auto run = channels == 1 ? kvliFilterColumnPipeline_16u_C1R : kvliFilterColumnPipeline_16u_C3R;
      ASSERT_EQ(size({w, h}, K, &bytes), kvlStatusOk);
      std::vector<Kvl8u> buf(bytes);
      ASSERT_EQ(run(ptrs.data(), out.data(), n * 2, {w, h}, kernel.data(), K, divisor, buf.data()),
                kvlStatusOk);
      for (int y = 0; y < h; ++y)
        for (int i = 0; i < n; ++i) {
          long long sum = 0;
          for (int k = 0; k < K; ++k) sum += 1LL * kernel[k] * rows[y + k][i];
          const float v = std::min(static_cast<float>(sum) * recip, 65535.0f);
          const int want = i < n - n % 8 ? static_cast<int>(std::nearbyint(v)) : static_cast<int>(v);
          ASSERT_EQ(out[static_cast<size_t>(y) * n + i], want) << "row " << y << " element " << i;
        }
    });
  }
}

TEST(ColumnPipeline, HeightOneKernelThreeReadsExactlyThreeRows) {
  const Kvl16s a[4] = {1, 2, 3, 4}, b[4] = {10, 20, 30, 40}, c[4] = {100, 200, 300, 400};
  const Kvl16s kernel[3] = {1, 2, 3};
  auto rows = std::make_unique<const Kvl16s*[]>(3);  // exactly three pointers, in any order
  rows[0] = c, rows[1] = a, rows[2] = b;
  forEachTarget([&](int) {
    Kvl16s out[4];
    Kvl8u buffer[1];
    ASSERT_EQ(kvliFilterColumnPipeline_16s_C1R(rows.get(), out, 8, {4, 1}, kernel, 3, 1, buffer),
              kvlStatusOk);
    EXPECT_EQ(std::vector<Kvl16s>(out, out + 4), (std::vector<Kvl16s>{132, 264, 396, 528}));
  });
}

// ---- Validation: each row changes valid arguments; a failure writes nothing ----
struct Args {
  bool nullSrc = false, nullDst = false, nullKernel = false, nullBuffer = false;
  int width = 8, height = 3, K = 3, anchor = 1, border = kvlBorderRepl, divisor = 1;
  int stepDelta = 0, nullRow = -1;
};
struct Validation {
  const char* what;
  Args a;
  KvlStatus want;     // 8-bit images, integer members
  int want16 = 1;     // 16/32-bit images, when it differs
  int wantOther = 1;  // row: 16u (positive divisor); column: no effect
};

TEST(RowPipeline, ValidationOrder) {
  const Validation table[] = {
      {"valid", {}, kvlStatusOk},
      {"null source", {.nullSrc = true}, kvlStatusNullPointer},
      {"null row array", {.nullDst = true}, kvlStatusNullPointer},
      {"null kernel", {.nullKernel = true}, kvlStatusNullPointer},
      {"null buffer before size", {.nullBuffer = true, .width = 0}, kvlStatusNullPointer},
      {"width 0", {.width = 0}, kvlStatusBadSize},
      {"height 0 before a null row", {.height = 0, .nullRow = 0}, kvlStatusBadSize},
      {"last row null", {.nullRow = 2}, kvlStatusNullPointer},
      {"null row before kernel size", {.K = 0, .nullRow = 0}, kvlStatusNullPointer},
      {"kernel size before anchor", {.K = 0, .anchor = 5}, kvlStatusBadSize},
      {"anchor = kernel size, before step", {.anchor = 3, .stepDelta = -1}, kvlStatusBadAnchor},
      {"anchor -1", {.anchor = -1}, kvlStatusBadAnchor},
      {"step one byte short, before border", {.border = 3, .stepDelta = -1}, kvlStatusBadStep},
      {"odd step", {.stepDelta = 1}, kvlStatusOk, kvlStatusStepNotMultiple},
      {"odd step before border",
       {.border = 3, .stepDelta = 1},
       kvlStatusBadArgument,
       kvlStatusStepNotMultiple},
      {"mirror border", {.border = kvlBorderMirror}, kvlStatusBadArgument},
      {"wrap border", {.border = kvlBorderWrap}, kvlStatusBadArgument},
      {"border 5", {.border = 5}, kvlStatusBadArgument},
      {"replicate with a side flag", {.border = 1 | kvlBorderInMemLeft}, kvlStatusBadArgument},
      {"divisor 0", {.divisor = 0}, kvlStatusBadArgument},
      {"negative divisor", {.divisor = -3}, kvlStatusOk, 1, kvlStatusBadArgument},
  };
  forEachMember(kRowMembers, [&](const auto& m) {
    using M = std::decay_t<decltype(m)>;
    using Src = typename M::Src;
    for (const Validation& c : table) {
      const Args& a = c.a;
      KvlStatus want = sizeof(Src) > 1 && c.want16 != 1 ? c.want16 : c.want;
      if (m.divisor == 2 && c.wantOther != 1) want = c.wantOther;
      if (m.divisor == 0 && a.divisor == 0) want = kvlStatusOk;  // 32f: no divisor
      Image<Src, M::C> src(8, 3, 3);
      Image<typename M::Dst, M::C> dst(8, 3);
      std::vector<typename M::Dst*> rows = {dst.at(0, 0), dst.at(0, 1), dst.at(0, 2)};
      if (a.nullRow >= 0) rows[a.nullRow] = nullptr;
      const std::vector<typename M::Ker> kernel(3, 1);
      std::vector<Kvl8u> buffer(1 << 16);
      const int step = 8 * M::C * static_cast<int>(sizeof(Src)) + a.stepDelta;
      const KvlStatus got =
          m.run(a.nullSrc ? nullptr : src.roi(), step, a.nullDst ? nullptr : rows.data(),
                {a.width, a.height}, a.nullKernel ? nullptr : kernel.data(), a.K, a.anchor,
                a.border, 0, a.divisor, a.nullBuffer ? nullptr : buffer.data());
      EXPECT_EQ(got, want) << m.name << ": " << c.what;
      if (got != kvlStatusOk) {
        EXPECT_TRUE(dst.unchanged()) << m.name << ": " << c.what;
      }
    }
  });
}

TEST(ColumnPipeline, ValidationOrder) {
  const Validation table[] = {
      {"valid", {}, kvlStatusOk},
      {"null row array", {.nullSrc = true}, kvlStatusNullPointer},
      {"null destination", {.nullDst = true}, kvlStatusNullPointer},
      {"null kernel before size", {.nullKernel = true, .width = 0}, kvlStatusNullPointer},
      {"width 0", {.width = 0}, kvlStatusBadSize},
      {"height 0", {.height = 0}, kvlStatusBadSize},
      {"last source row null", {.nullRow = 4}, kvlStatusNullPointer},
      {"null row before kernel size", {.K = 0, .nullRow = 1}, kvlStatusNullPointer},
      {"kernel size before step", {.K = -2, .stepDelta = -1}, kvlStatusBadSize},
      {"step one byte short, before null buffer",
       {.nullBuffer = true, .stepDelta = -1},
       kvlStatusBadStep},
      {"odd step", {.stepDelta = 1}, kvlStatusOk, kvlStatusStepNotMultiple},
      {"null buffer after steps, before divisor",
       {.nullBuffer = true, .divisor = 0},
       kvlStatusNullPointer},
      {"divisor 0", {.divisor = 0}, kvlStatusBadArgument},
      {"negative divisor", {.divisor = -2}, kvlStatusOk},
  };
  forEachMember(kColumnMembers, [&](const auto& m) {
    using M = std::decay_t<decltype(m)>;
    using Dst = typename M::Dst;
    for (const Validation& c : table) {
      const Args& a = c.a;
      KvlStatus want = sizeof(Dst) > 1 && c.want16 != 1 ? c.want16 : c.want;
      if (!m.hasDivisor && want == kvlStatusBadArgument) want = kvlStatusOk;  // 32f: no divisor
      Image<typename M::Src, M::C> src(8, 5);
      Image<Dst, M::C> dst(8, 3);
      std::vector<const typename M::Src*> rows(5);
      for (int j = 0; j < 5; ++j) rows[j] = src.at(0, j);
      if (a.nullRow >= 0) rows[a.nullRow] = nullptr;
      const std::vector<typename M::Ker> kernel(3, 1);
      Kvl8u buffer[64];
      const int step = 8 * M::C * static_cast<int>(sizeof(Dst)) + a.stepDelta;
      const KvlStatus got =
          m.run(a.nullSrc ? nullptr : rows.data(), a.nullDst ? nullptr : dst.roi(), step,
                {a.width, a.height}, a.nullKernel ? nullptr : kernel.data(), a.K, a.divisor,
                a.nullBuffer ? nullptr : buffer);
      EXPECT_EQ(got, want) << m.name << ": " << c.what;
      if (got != kvlStatusOk) {
        EXPECT_TRUE(dst.unchanged()) << m.name << ": " << c.what;
      }
    }
  });
}

// ---- Buffer sizes, computed by hand for 1, 2 and 3 permitted threads ----
TEST(PipelineBufferSize, HandComputed) {
  struct Case {
    KvlStatus (*fn)(KvliSize, int, int*);
    KvliSize roi;
    int K;
    int want[3];
  };
  const Case cases[] = {
      // 32 + 8 (10 + 3) + 36 x 3 + 112 = 356 per thread
      {kvliFilterRowBorderPipelineGetBufferSize_8u16s_C1R, {100, 10}, 3, {356, 712, 1068}},
      // 32 + 8 x 2 + 288 + 64 = 400 per thread
      {kvliFilterRowBorderPipelineGetBufferSize_32f_C3R, {1, 1}, 1, {400, 800, 1200}},
      // 128 x 5 + 96 whatever the thread count
      {kvliFilterRowBorderPipelineGetBufferSize_16u_C3R, {7, 7}, 5, {736, 736, 736}},
      // ceil4(10) = 12: 32 + 8 (4 + 3) + 12 x 12 + 32 = 264 per thread
      {kvliFilterColumnPipelineGetBufferSize_16s8u_C1R, {10, 4}, 3, {264, 528, 792}},
      // ceil8(10) = 16: 32 + 56 + 36 x 16 + 32 = 696 per thread
      {kvliFilterColumnPipelineGetBufferSize_Low_16s_C3R, {10, 4}, 3, {696, 1392, 2088}},
      // 32 ((30 + 3) / 4 + 3) + 64 = 416; 32 x 5 + 32 = 192
      {kvliFilterColumnPipelineGetBufferSize_16u_C3R, {10, 4}, 3, {416, 416, 416}},
      {kvliFilterColumnPipelineGetBufferSize_32f_C1R, {640, 480}, 5, {192, 192, 192}},
  };
  for (int t = 1; t <= 3; ++t) {
    ThreadScope threads(t);
    for (const Case& c : cases) {
      int got = -1;
      ASSERT_EQ(c.fn(c.roi, c.K, &got), kvlStatusOk);
      EXPECT_EQ(got, c.want[t - 1]) << "case " << &c - cases << " threads " << t;
    }
  }
}

TEST(PipelineBufferSize, Validation) {
  struct Case {
    KvliSize roi;
    int K;
    bool null;
    KvlStatus wantColumn, wantRow;
  };
  const Case cases[] = {
      {{4, 4}, 3, true, kvlStatusNullPointer, kvlStatusNullPointer},
      {{0, 4}, 3, true, kvlStatusNullPointer, kvlStatusNullPointer},
      {{0, 4}, 3, false, kvlStatusBadSize, kvlStatusBadSize},
      {{4, 0}, 3, false, kvlStatusBadSize, kvlStatusBadSize},
      {{4, 4}, 0, false, kvlStatusBadSize, kvlStatusBadSize},
      // 36 x 10^8 bytes do not fit an int; the row sizes do not grow with the width
      {{100000000, 1}, 3, false, kvlStatusBadSize, kvlStatusOk},
  };
  for (const Case& c : cases) {
    int out = -1;
    EXPECT_EQ(kvliFilterColumnPipelineGetBufferSize_16s_C3R(c.roi, c.K, c.null ? nullptr : &out),
              c.wantColumn);
    EXPECT_EQ(out, -1);
    EXPECT_EQ(kvliFilterRowBorderPipelineGetBufferSize_16s_C1R(c.roi, c.K, c.null ? nullptr : &out),
              c.wantRow);
  }
}

// ---- Above the threshold, 1, 2 and 3 threads give the same bytes ----
TEST(Pipeline, ThreadedEqualsSerial) {
  constexpr int W = 301, H = 333;  // 100233 pixels: parallel even for three threads
  Image<Kvl8u, 3> src(W, H, 0, 5);
  const std::vector<Kvl16s> kernel = {1, -3, 7, 2, -1, 4, 1};
  for (int K : {3, 5, 7}) {
    std::vector<Kvl16s> mids[3];
    std::vector<Kvl8u> outs[3];
    for (int t = 1; t <= 3; ++t) {
      ThreadScope threads(t);
      Image<Kvl16s, 3> mid(W, H, 0, 9);
      std::vector<Kvl16s*> rows(H);
      for (int y = 0; y < H; ++y) rows[y] = mid.at(0, (y * 7) % H);  // scrambled
      int bytes = 0;
      ASSERT_EQ(kvliFilterRowBorderPipelineGetBufferSize_8u16s_C3R({W, H}, K, &bytes), kvlStatusOk);
      GuardedBlock rowBuffer(bytes, 1, 1);
      ASSERT_EQ(kvliFilterRowBorderPipeline_8u16s_C3R(src.roi(), src.step(), rows.data(), {W, H},
                                                      kernel.data(), K, K / 2, kvlBorderRepl, 0, 3,
                                                      rowBuffer.data()),
                kvlStatusOk);
      // The column pass reads the rows clamped at the image's top and bottom.
      std::vector<const Kvl16s*> crows(H + K - 1);
      for (int j = 0; j < H + K - 1; ++j) crows[j] = rows[std::clamp(j - K / 2, 0, H - 1)];
      Image<Kvl8u, 1> dst(W * 3, H, 1, 3);
      ASSERT_EQ(kvliFilterColumnPipelineGetBufferSize_16s8u_C1R({W * 3, H}, K, &bytes),
                kvlStatusOk);
      GuardedBlock colBuffer(bytes, 1, 2);
      ASSERT_EQ(kvliFilterColumnPipeline_16s8u_C1R(crows.data(), dst.roi(), dst.step(), {W * 3, H},
                                                   kernel.data(), K, 5, colBuffer.data()),
                kvlStatusOk);
      EXPECT_TRUE(dst.outsideUnchanged());
      for (int y = 0; y < H; ++y) mids[t - 1].insert(mids[t - 1].end(), rows[y], rows[y] + W * 3);
      outs[t - 1] = dst.pixels();
    }
    for (int t = 1; t < 3; ++t) {
      EXPECT_TRUE(sameBytes(mids[t], mids[0], W, 3)) << "row pass, K " << K << ", " << t + 1;
      EXPECT_TRUE(sameBytes(outs[t], outs[0], W * 3)) << "column pass, K " << K << ", " << t + 1;
    }
  }
}

}  // namespace
