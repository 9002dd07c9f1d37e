// Row and column pipeline passes over their member tables: golden cases, validation, threads.
#include "filter/pipeline.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <string>

#include "core/parallel.h"
#include "support/support.h"

namespace {

using kvl::test::forEachTarget;
using kvl::test::GuardedBlock;
using kvl::test::Image;
using kvl::test::sameBytes;
using kvl::test::ThreadScope;

enum class Div { kNone, kNonZero, kPositive };  // the tables' divisor rules

// Every member of the two tables in one signature: untyped element pointers and a divisor that the
// kNone members ignore. Vector targets against the scalar kernels over awkward sizes, anchors and
// borders are the fuzz target's (fuzz/filter_pipeline.cc); the golden cases pin the wiring.
template <class Run>
struct Member {
  const char* name;
  int channels;
  Div divisor;
  bool threaded;
  Run* run;
  KvlStatus (*size)(KvliSize roi, int K, int* bytes);
};
using RowMember = Member<KvlStatus(const void* src, int srcStep, void* dstRows, KvliSize roi,
                                   const void* kernel, int K, int anchor, int border, double value,
                                   int divisor, Kvl8u* buffer)>;
using ColumnMember = Member<KvlStatus(void* srcRows, void* dst, int dstStep, KvliSize roi,
                                      const void* kernel, int K, int divisor, Kvl8u* buffer)>;

// f.template operator()<Src, Dst, Ker>(record) for a row of a table.
#define DIVISOR_ARG_kNonZero(d) d,
#define DIVISOR_ARG_kPositive(d) d,
#define DIVISOR_ARG_kNone(d)
#define ROW_VISIT(types, S, D, Kr, C, sizes, div, threaded, kernel)                          \
  f.template operator()<S, D, Kr>(RowMember{                                                   \
      #types, C, Div::div, threaded,                                                           \
      [](const void* s, int ss, void* d, KvliSize roi, const void* k, int K, int A, int bt,    \
         double v, [[maybe_unused]] int dv, Kvl8u* b) {                                        \
        return kvliFilterRowBorderPipeline_##types(                                            \
            static_cast<const S*>(s), ss, static_cast<D**>(d), roi, static_cast<const Kr*>(k), \
            K, A, bt, static_cast<S>(v), DIVISOR_ARG_##div(dv) b);                             \
      },                                                                                       \
      kvliFilterRowBorderPipelineGetBufferSize_##types});
#define COLUMN_VISIT(types, S, D, Kr, C, sizes, div, threaded, kernel)                         \
  f.template operator()<S, D, Kr>(ColumnMember{                                                \
      #types, C, Div::div, threaded,                                                           \
      [](void* s, void* d, int ds, KvliSize roi, const void* k, int K, [[maybe_unused]] int dv, \
         Kvl8u* b) {                                                                           \
        return kvliFilterColumnPipeline_##types(static_cast<const S**>(s), static_cast<D*>(d), \
                                                ds, roi, static_cast<const Kr*>(k), K,         \
                                                DIVISOR_ARG_##div(dv) b);                      \
      },                                                                                       \
      kvliFilterColumnPipelineGetBufferSize_##types});
template <class F>
void forEachRow(F&& f) {
  KVL_ROW_PIPELINE_MEMBERS(ROW_VISIT)
}
template <class F>
void forEachColumn(F&& f) {
  KVL_COLUMN_PIPELINE_MEMBERS(COLUMN_VISIT)
}

// ---- Golden cases over the tables, on every target ----
TEST(RowPipeline, GoldenCases) {
  struct Case {
    const char *member, *what;
    std::vector<double> src, kernel;
    int anchor, border;  // border 0 constant, 1 replicate, 6 memory (one pixel each side)
    double value;
    int divisor;
    std::vector<double> want;
  };
  const Case cases[] = {
      {"8u16s_C1R", "40000 saturates", {100, 100}, {200, 200}, 0, 1, 0, 1, {32767, 32767}},
      {"8u16s_C1R", "-40000 saturates", {100, 100}, {-200, -200}, 0, 1, 0, 1, {-32768, -32768}},
      {"8u16s_C1R", "-7 / 2 truncates", {1, 1, 1}, {-7}, 0, 0, 0, 2, {-3, -3, -3}},
      {"8u16s_C1R", "7 / -2 truncates", {1}, {7}, 0, 0, 0, -2, {-3}},
      {"8u16s_C1R", "one tap equal to the divisor copies", {0, 9, 255, 4}, {5}, 0, 1, 0, 5,
       {0, 9, 255, 4}},
      {"8u16s_C1R", "anchor K-1 extends on the left only", {10, 20, 30, 40}, {1, 0, 0}, 2, 1, 0, 1,
       {10, 10, 10, 20}},
      {"8u16s_C1R", "anchor 0 extends on the right only", {10, 20, 30, 40}, {0, 0, 1}, 0, 0, 7, 1,
       {30, 40, 7, 7}},
      {"8u16s_C1R", "correlation, not convolution", {1, 2, 3, 4, 5}, {1, 10, 100}, 1, 0, 0, 1,
       {210, 321, 432, 543, 54}},
      {"8u16s_C1R", "10 / 3 across a vector and its tail", std::vector<double>(37, 10), {1}, 0, 1,
       0, 3, std::vector<double>(37, 3)},
      {"16u_C1R", "(2 x 65535 + 2) / 2 clamps; (4 + 3) / 2 and (6 + 3) / 2 truncate",
       {65535, 2, 3}, {2, 1}, 0, 1, 0, 2, {65535, 3, 4}},
      {"32f_C1R", "float sums, constant border", {0.5, -1, 2}, {1, 0.25, -2}, 1, 0, 8, 1,
       {8 + 0.125 + 2, 0.5 - 0.25 - 4, -1 + 0.5 - 16}},
      {"8u16s_C1R", "a row narrower than the kernel takes the constant", {5}, {1, 10, 100}, 1, 0,
       9, 1, {959}},
      {"8u16s_C3R", "three channels, both ends replicated", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12},
       {1, 10, 100}, 1, 1, 0, 1, {411, 522, 633, 741, 852, 963, 1074, 1185, 1296, 1107, 1218, 1329}},
      {"8u16s_C3R", "three channels read from memory", {20, 21, 22, 1, 2, 3, 4, 5, 6, 30, 31, 32},
       {1, 10, 100}, 1, kvlBorderInMem, 0, 1, {430, 541, 652, 3041, 3152, 3263}},
  };
  forEachRow([&]<class S, class D, class Kr>(const RowMember& m) {
    for (const Case& c : cases) {
      if (c.member != std::string(m.name)) continue;
      const std::vector<S> src(c.src.begin(), c.src.end());
      const std::vector<Kr> kernel(c.kernel.begin(), c.kernel.end());
      const int lead = c.border == kvlBorderInMem, C = m.channels;
      const int w = static_cast<int>(src.size()) / C - 2 * lead, K = static_cast<int>(kernel.size());
      std::vector<Kvl8u> buffer(1 << 16);
      forEachTarget([&](int) {
        std::vector<D> out(w * C);
        D* rows[1] = {out.data()};
        ASSERT_EQ(m.run(src.data() + lead * C, w * C * sizeof(S), rows, {w, 1}, kernel.data(), K,
                        c.anchor, c.border, c.value, c.divisor, buffer.data()),
                  kvlStatusOk);
        EXPECT_EQ(std::vector<double>(out.begin(), out.end()), c.want) << m.name << ": " << c.what;
      });
    }
  });
}

// Exact halves on both sides of the group/tail boundary: 11 elements are one group of 8 (ties to
// even) and a tail of 3 (truncation); a C3 row of 3 pixels is 8 + 1. Tap k multiplies rows[k],
// which need not be in image order; height 1 and K 3 read exactly three rows.
TEST(ColumnPipeline, GoldenCases) {
  struct Case {
    const char* member;
    std::vector<std::vector<double>> rows;
    std::vector<double> kernel;
    int divisor;
    std::vector<double> want;
  };
  const Case cases[] = {
      {"16s_C1R", {{1, 3, 5, -1, -3, -5, 7, 9, 3, -3, 5}}, {1}, 2,
       {0, 2, 2, 0, -2, -2, 4, 4, 1, -1, 2}},
      {"16s_C3R", {{1, 3, 5, -1, -3, -5, 7, 9, 3}}, {1}, 2, {0, 2, 2, 0, -2, -2, 4, 4, 1}},
      {"16s8u_C1R", {{5, 7, -6, 600, 1, 3, 9, 11, 5, 7}}, {1}, 2, {2, 4, 0, 255, 0, 2, 4, 6, 2, 3}},
      {"16s_C1R", {{100, 200, 300, 400}, {1, 2, 3, 4}, {10, 20, 30, 40}}, {1, 2, 3}, 1,
       {132, 264, 396, 528}},
      {"16s_C1R", {{6, -6, 7}}, {1}, -2, {-3, 3, -3}},
  };
  forEachColumn([&]<class S, class D, class Kr>(const ColumnMember& m) {
    for (const Case& c : cases) {
      if (c.member != std::string(m.name)) continue;
      std::vector<std::vector<S>> data;
      for (const auto& r : c.rows) data.emplace_back(r.begin(), r.end());
      GuardedBlock rowBlock(data.size() * sizeof(S*), alignof(S*), 1);
      const S** rows = reinterpret_cast<const S**>(rowBlock.data());
      for (size_t k = 0; k < data.size(); ++k) rows[k] = data[k].data();
      const std::vector<Kr> kernel(c.kernel.begin(), c.kernel.end());
      const int n = static_cast<int>(c.want.size()), K = static_cast<int>(kernel.size());
      std::vector<Kvl8u> buffer(1 << 16);
      forEachTarget([&](int) {
        std::vector<D> out(n);
        ASSERT_EQ(m.run(rows, out.data(), n * sizeof(D), {n / m.channels, 1}, kernel.data(), K,
                        c.divisor, buffer.data()),
                  kvlStatusOk);
        EXPECT_EQ(std::vector<double>(out.begin(), out.end()), c.want) << m.name;
      });
    }
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
  std::vector<Kvl8u> buf(1 << 16);
  for (int channels : {1, 3}) {
    const int n = w * channels;
    std::vector<std::vector<Kvl16u>> rows(h + K - 1, std::vector<Kvl16u>(n));
    std::vector<const Kvl16u*> ptrs;
    for (auto& r : rows) {
      for (Kvl16u& v : r) v = static_cast<Kvl16u>(rng());
      ptrs.push_back(r.data());
    }
    forEachTarget([&](int) {
      std::vector<Kvl16u> out(static_cast<size_t>(n) * h);
      const auto run =
          channels == 1 ? kvliFilterColumnPipeline_16u_C1R : kvliFilterColumnPipeline_16u_C3R;
      ASSERT_EQ(run(ptrs.data(), out.data(), n * 2, {w, h}, kernel.data(), K, divisor, buf.data()),
                kvlStatusOk);
      for (int y = 0; y < h; ++y)
        for (int i = 0; i < n; ++i) {
          long long sum = 0;
          for (int k = 0; k < K; ++k) sum += 1LL * kernel[k] * rows[y + k][i];
          const float v = std::min(static_cast<float>(sum) * (1.0f / divisor), 65535.0f);
          const int want = i < n - n % 8 ? std::nearbyint(v) : v;
          ASSERT_EQ(out[static_cast<size_t>(y) * n + i], want) << "row " << y << ", " << i;
        }
    });
  }
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
// What a member returns for a row: the members without a divisor do not check it.
KvlStatus expected(const Validation& c, size_t elementBytes, Div rule) {
  KvlStatus want = elementBytes > 1 && c.want16 != 1 ? KvlStatus(c.want16) : c.want;
  if (rule == Div::kPositive && c.wantOther != 1) want = KvlStatus(c.wantOther);
  if (rule == Div::kNone && c.a.divisor == 0 && want == kvlStatusBadArgument) want = kvlStatusOk;
  return want;
}

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
      {"odd step before border", {.border = 3, .stepDelta = 1}, kvlStatusBadArgument,
       kvlStatusStepNotMultiple},
      {"mirror border", {.border = kvlBorderMirror}, kvlStatusBadArgument},
      {"wrap border", {.border = kvlBorderWrap}, kvlStatusBadArgument},
      {"border 5", {.border = 5}, kvlStatusBadArgument},
      {"replicate with a side flag", {.border = 1 | kvlBorderInMemLeft}, kvlStatusBadArgument},
      {"divisor 0", {.divisor = 0}, kvlStatusBadArgument},
      {"negative divisor", {.divisor = -3}, kvlStatusOk, 1, kvlStatusBadArgument},
  };
  forEachRow([&]<class S, class D, class Kr>(const RowMember& m) {
    const int C = m.channels;
    for (const Validation& c : table) {
      const Args& a = c.a;
      Image<S> src(8 * C, 3, 3 * C);
      Image<D> dst(8 * C, 3);
      std::vector<D*> rows = {dst.at(0, 0), dst.at(0, 1), dst.at(0, 2)};
      if (a.nullRow >= 0) rows[a.nullRow] = nullptr;
      const std::vector<Kr> kernel(3, 1);
      std::vector<Kvl8u> buffer(1 << 16);
      const KvlStatus got = m.run(
          a.nullSrc ? nullptr : src.roi(), 8 * C * sizeof(S) + a.stepDelta,
          a.nullDst ? nullptr : rows.data(), {a.width, a.height},
          a.nullKernel ? nullptr : kernel.data(), a.K, a.anchor, a.border, 0, a.divisor,
          a.nullBuffer ? nullptr : buffer.data());
      EXPECT_EQ(got, expected(c, sizeof(S), m.divisor)) << m.name << ": " << c.what;
      EXPECT_TRUE(got == kvlStatusOk || dst.unchanged()) << m.name << ": " << c.what;
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
      {"step one byte short, before null buffer", {.nullBuffer = true, .stepDelta = -1},
       kvlStatusBadStep},
      {"odd step", {.stepDelta = 1}, kvlStatusOk, kvlStatusStepNotMultiple},
      {"null buffer after steps, before divisor", {.nullBuffer = true, .divisor = 0},
       kvlStatusNullPointer},
      {"divisor 0", {.divisor = 0}, kvlStatusBadArgument},
      {"negative divisor", {.divisor = -2}, kvlStatusOk},
  };
  forEachColumn([&]<class S, class D, class Kr>(const ColumnMember& m) {
    const int C = m.channels;
    for (const Validation& c : table) {
      const Args& a = c.a;
      Image<S> src(8 * C, 5);
      Image<D> dst(8 * C, 3);
      std::vector<const S*> rows(5);
      for (int j = 0; j < 5; ++j) rows[j] = src.at(0, j);
      if (a.nullRow >= 0) rows[a.nullRow] = nullptr;
      const std::vector<Kr> kernel(3, 1);
      Kvl8u buffer[64];
      const KvlStatus got =
          m.run(a.nullSrc ? nullptr : rows.data(), a.nullDst ? nullptr : dst.roi(),
                8 * C * sizeof(D) + a.stepDelta, {a.width, a.height},
                a.nullKernel ? nullptr : kernel.data(), a.K, a.divisor,
                a.nullBuffer ? nullptr : buffer);
      EXPECT_EQ(got, expected(c, sizeof(D), m.divisor)) << m.name << ": " << c.what;
      EXPECT_TRUE(got == kvlStatusOk || dst.unchanged()) << m.name << ": " << c.what;
    }
  });
}

// ---- Buffer sizes: NULL, sizes below 1 and sizes above INT_MAX fail, leaving the size alone ----
TEST(PipelineBufferSize, Validation) {
  auto check = [](const char* name, KvlStatus (*size)(KvliSize, int, int*)) {
    int out = -1;
    EXPECT_EQ(size({4, 4}, 3, nullptr), kvlStatusNullPointer) << name;
    EXPECT_EQ(size({0, 4}, 3, nullptr), kvlStatusNullPointer) << name;
    EXPECT_EQ(size({0, 4}, 3, &out), kvlStatusBadSize) << name;
    EXPECT_EQ(size({4, 0}, 3, &out), kvlStatusBadSize) << name;
    EXPECT_EQ(size({4, 4}, 0, &out), kvlStatusBadSize) << name;
    EXPECT_EQ(out, -1) << name;
  };
  forEachRow([&]<class, class, class>(const RowMember& m) { check(m.name, m.size); });
  forEachColumn([&]<class, class, class>(const ColumnMember& m) { check(m.name, m.size); });
  // 36 x 10^8 bytes do not fit an int; the row sizes do not grow with the width.
  int out = -1;
  EXPECT_EQ(kvliFilterColumnPipelineGetBufferSize_16s_C3R({100000000, 1}, 3, &out),
            kvlStatusBadSize);
  EXPECT_EQ(out, -1);
  EXPECT_EQ(kvliFilterRowBorderPipelineGetBufferSize_16s_C1R({100000000, 1}, 3, &out), kvlStatusOk);
}

// ---- 1, 2 and 3 threads give the same bytes, on an image the team rules split ----
// Runs call(dst) with 1, 2 and 3 permitted threads; team() is the split the rule makes then.
template <class D, class Team, class Call>
void threadInvariant(int n, int h, const std::string& what, Team&& team, Call&& call) {
  std::vector<D> serial;
  for (int t = 1; t <= 3; ++t) {
    ThreadScope threads(t);
    ASSERT_TRUE(t == 1 || team() > 1) << what << ": no split with " << t << " threads";
    Image<D> dst(n, h, 1, 9);
    ASSERT_EQ(call(dst), kvlStatusOk) << what;
    if (t == 1) serial = dst.pixels();
    EXPECT_TRUE(sameBytes(dst.pixels(), serial, n)) << what << ", " << t << " threads";
    EXPECT_TRUE(dst.outsideUnchanged()) << what;
  }
}

TEST(Pipeline, ThreadedEqualsSerial) {
  constexpr int W = 300, H = 330;  // 99000 pixels: at least 32768 per thread for three threads
  const int kTaps[] = {1, -3, 7, 2, -1, 4, 1};
  forEachRow([&]<class S, class D, class Kr>(const RowMember& m) {
    if (!m.threaded) return;
    Image<S> src(W * m.channels, H, 0, 5);
    const std::vector<Kr> kernel(kTaps, kTaps + 5);
    threadInvariant<D>(
        W * m.channels, H, m.name, [&] { return kvl::par::teamPipelineRow({W, H}); },
        [&](Image<D>& dst) {
          std::vector<D*> rows(H);
          for (int y = 0; y < H; ++y) rows[y] = dst.at(0, (y * 7) % H);  // scrambled
          int bytes = 0;
          EXPECT_EQ(m.size({W, H}, 5, &bytes), kvlStatusOk);
          GuardedBlock buffer(bytes, 1, 1);
          return m.run(src.roi(), src.step(), rows.data(), {W, H}, kernel.data(), 5, 2,
                       kvlBorderRepl, 0, 3, buffer.data());
        });
  });
  forEachColumn([&]<class S, class D, class Kr>(const ColumnMember& m) {
    if (!m.threaded) return;
    Image<S> src(W * m.channels, H, 0, 5);
    for (int K : {3, 7}) {  // 3 and 5 taps split only on a die with several cores
      std::vector<const S*> rows(H + K - 1);  // the rows clamped at the top and bottom
      for (int j = 0; j < H + K - 1; ++j) rows[j] = src.at(0, std::clamp(j - K / 2, 0, H - 1));
      const std::vector<Kr> kernel(kTaps, kTaps + K);
      threadInvariant<D>(
          W * m.channels, H, m.name + (" K " + std::to_string(K)),
          [&] { return kvl::par::teamPipelineColumn({W, H}, K); },
          [&](Image<D>& dst) {
            int bytes = 0;
            EXPECT_EQ(m.size({W, H}, K, &bytes), kvlStatusOk);
            GuardedBlock buffer(bytes, 1, 2);
            return m.run(rows.data(), dst.roi(), dst.step(), {W, H}, kernel.data(), K, 5,
                         buffer.data());
          });
    }
  });
}

}  // namespace
