// Gaussian 5x5 pyramids over the member table: every target against a plain model of the weights
// and borders in guarded memory, constants, hand-computed cases, size queries and the validation
// order.
#include <algorithm>
#include <climits>
#include <cmath>

#include "pyramid/gauss_pyramid_members.h"
#include "support/support.h"

namespace {

using kvl::pyramid::PyrMember;
using kvl::test::Image;

const PyrMember kMembers[] = {KVL_PYR_MEMBERS(KVL_PYR_MEMBER_RECORD)};

// Calls f.template operator()<T, C>(member) for every member, T and C its element type and
// channel count.
template <class F>
void forEachMember(F f) {
  int i = 0;
#define KVL_EACH(Dir, type, T, C) f.template operator()<T, C>(kMembers[i++]);
  KVL_PYR_MEMBERS(KVL_EACH)
#undef KVL_EACH
}

// ---- The model: each destination pixel straight from the source ----

template <class T>
using Sum = std::conditional_t<std::is_floating_point_v<T>, float, int>;

// The five down-sampling taps: in 32f the outer pair, the inner pair times 4, the centre times 6.
template <class T, class At>
Sum<T> weigh5(At at) {
  return ((at(0) + at(4)) + (at(1) + at(3)) * 4) + at(2) * 6;
}
// v / 2^shift: integers rounded to nearest with halves up (also below zero).
template <class T>
T normalised(Sum<T> v, int shift) {
  if constexpr (std::is_floating_point_v<T>) {
    return v * std::ldexp(1.0f, -shift);
  } else {
    return static_cast<T>((v + (1 << (shift - 1))) >> shift);
  }
}

// Index i of n: mirrored without repeating the edge (down-sampling).
int reflect(int i, int n) {
  if (n == 1) return 0;
  while (i < 0 || i >= n) i = i < 0 ? -i : 2 * (n - 1) - i;
  return i;
}

// A source of height 1 or 2 averages the two filtered rows (width 1 or 2: the two columns).
template <class T, int kC>
T modelDown(const Image<T, kC>& s, int x, int y, int c) {
  const int w = s.width(), h = s.height();
  auto px = [&](int col, int row) { return static_cast<Sum<T>>(s.px(reflect(col, w), reflect(row, h), c)); };
  auto hAt = [&](int row) { return weigh5<T>([&](int k) { return px(2 * x + k - 2, row); }); };
  auto vAt = [&](int col) { return weigh5<T>([&](int k) { return px(col, 2 * y + k - 2); }); };
  if (h < 3) return normalised<T>((hAt(0) + hAt(h - 1)) * 8, 8);
  if (w < 3) return normalised<T>((vAt(0) + vAt(w - 1)) * 8, 8);
  return normalised<T>(weigh5<T>([&](int k) { return hAt(2 * y + k - 2); }), 8);
}

// A source of one row (or one column) is filtered in its one direction only.
template <class T, int kC>
T modelUp(const Image<T, kC>& s, int X, int Y, int c) {
  // Reflected before the start, replicated after the end.
  auto idx = [](int i, int n) { return i < 0 ? (n > 1 ? -i : 0) : std::min(i, n - 1); };
  // Output P of n = P / 2: the even phase weighs n-1, n, n+1 by 1, 6, 1, the odd one n, n+1 by
  // 4, 4 (in 32f left to right).
  auto phase = [&](int P, int len, auto at) {
    auto s = [&](int k) { return at(idx(P / 2 + k, len)); };
    return P % 2 ? 4 * s(0) + 4 * s(1) : (s(-1) + 6 * s(0)) + s(1);
  };
  const int w = s.width(), h = s.height();
  auto px = [&](int col, int row) { return static_cast<Sum<T>>(s.px(col, row, c)); };
  auto hAt = [&](int row) { return phase(X, w, [&](int col) { return px(col, row); }); };
  if (h == 1) return normalised<T>(8 * hAt(0), 6);
  if (w == 1) return normalised<T>(8 * phase(Y, h, [&](int row) { return px(0, row); }), 6);
  return normalised<T>(phase(Y, h, hAt), 6);
}

// One call in guarded memory with a work buffer of exactly the queried bytes: the destination is
// the model's (given `constant`, a constant source gives that constant everywhere), and nothing
// else is written.
template <class T, int kC>
void check(const PyrMember& m, KvliSize s, uint32_t seed, const T* constant = nullptr) {
  Image<T, kC> src(s.width, s.height, 1, seed);
  if (constant)
    src.fill([&](int, int, int) { return *constant; });
  else
    src.fillRandom(seed);
  const KvliSize d = m.dstSize(s);
  Image<T, kC> dst(d.width, d.height, 1, seed + 1);
  int bytes = 0;
  ASSERT_EQ(m.bufSize(s.width, m.dataType, kC, &bytes), kvlStatusOk);
  kvl::test::GuardedBlock buffer(bytes, 1, seed);
  ASSERT_EQ(m.run(src.roi(), src.step(), dst.roi(), dst.step(), s, buffer.data()), kvlStatusOk);
  std::vector<T> want;
  for (int y = 0; y < d.height; ++y)
    for (int x = 0; x < d.width; ++x)
      for (int c = 0; c < kC; ++c)
        want.push_back(constant ? *constant : m.up ? modelUp(src, x, y, c) : modelDown(src, x, y, c));
  ASSERT_TRUE(kvl::test::sameBytes(dst.pixels(), want, d.width, kC))
      << m.name << " " << s.width << "x" << s.height << (constant ? " constant " : " ")
      << +(constant ? *constant : T(0));
  ASSERT_TRUE(dst.outsideUnchanged() && src.unchanged()) << m.name << " " << s.width << "x" << s.height;
}

// Widths 1..80 (heights 1..7 in turn) cover the narrow paths and every vector head and tail;
// the wider ones reach the vector bodies of every target and channel count.
TEST(GaussPyramid, EveryTargetMatchesTheModel) {
  forEachMember([&]<class T, int kC>(const PyrMember& m) {
    SCOPED_TRACE(m.name);
    kvl::test::forEachTarget([&](int) {
      for (int w = 1; w <= 80; ++w) check<T, kC>(m, {w, 1 + w % 7}, w);
      for (int w = 81; w <= 330; w += 23) check<T, kC>(m, {w, 3 + w % 10}, w);
      for (int h : {1, 2, 3, 4, 5, 8, 11}) check<T, kC>(m, {1 + h % 3, h}, h);
    });
  });
}

// Every path's weights add up to its normaliser: a constant stays exactly constant.
TEST(GaussPyramid, ConstantsStayConstant) {
  forEachMember([&]<class T, int kC>(const PyrMember& m) {
    using L = std::numeric_limits<T>;
    for (const T v : {T(0), T(1), T(-1), T(100), L::max(), L::lowest()}) {
      if (std::is_floating_point_v<T> && std::abs(static_cast<double>(v)) > 1000) continue;
      for (KvliSize s : {KvliSize{1, 1}, {2, 1}, {1, 2}, {2, 2}, {3, 2}, {2, 3}, {5, 4}, {4, 5},
                         {75, 3}, {200, 6}})
        check<T, kC>(m, s, 1, &v);
    }
  });
}

// Hand-computed rows: the edge weights, rounding halves upwards (also below zero) and the
// narrow paths (constant sources are the test above's).
TEST(GaussPyramid, HandComputed) {
  struct Case {
    const char* member;
    KvliSize size;
    std::vector<int> src, dst;
  };
  const Case cases[] = {
      // One row: (16 h + 128) >> 8 with h = 0, 255, 6 * 255 (s(5) = s(3), s(6) = s(2)).
      {"PyrDown_Gauss5x5_8u_C1R", {5, 1}, {0, 0, 0, 0, 255}, {0, 16, 96}},
      // Even width, four equal rows: the last column weighs columns 0..3 by 1, 4, 7, 4; the
      // first weighs 0..2 by 6, 8, 2.
      {"PyrDown_Gauss5x5_8u_C1R", {4, 4}, {0, 0, 64, 0, 0, 0, 64, 0, 0, 0, 64, 0, 0, 0, 64, 0}, {8, 28, 8, 28}},
      // Two rows of one pixel: (16 (s0 + s1) * 8 + 128) >> 8, -0.5 goes up to 0.
      {"PyrDown_Gauss5x5_8s_C1R", {1, 2}, {-1, 0}, {0}},
      {"PyrDown_Gauss5x5_8s_C1R", {3, 1}, {0, -1, -2}, {-1, -1}},
      // One row, columns 6 s0 + 2 s1, 4 s0 + 4 s1, s0 + 7 s1, 8 s1: 191.25, 127.5 (up), 31.875, 0.
      {"PyrUp_Gauss5x5_8u_C1R", {2, 1}, {255, 0}, {191, 128, 32, 0, 191, 128, 32, 0}},
      // -0.75 -> -1, -0.5 -> 0 (halves up), -0.125 -> 0.
      {"PyrUp_Gauss5x5_8s_C1R", {2, 1}, {-1, 0}, {-1, 0, 0, 0, -1, 0, 0, 0}},
      // One column: rows 6 s0 + 2 s1, 4 s0 + 4 s1, s0 + 7 s1, 8 s1, each twice.
      {"PyrUp_Gauss5x5_8s_C1R", {1, 2}, {-128, 64}, {-80, -80, -32, -32, 40, 40, 64, 64}},
  };
  for (const Case& c : cases) {
    const PyrMember* m = std::find_if(std::begin(kMembers), std::end(kMembers),
                                      [&](const PyrMember& k) { return std::string(k.name) == c.member; });
    ASSERT_NE(m, std::end(kMembers));
    kvl::test::forEachTarget([&](int) {
      std::vector<Kvl8u> src(c.src.begin(), c.src.end()), dst(c.dst.size(), 0x5a);
      int bytes = 0;
      m->bufSize(c.size.width, m->dataType, 1, &bytes);
      std::vector<Kvl8u> buffer(bytes);
      ASSERT_EQ(m->run(src.data(), c.size.width, dst.data(), m->dstSize(c.size).width, c.size, buffer.data()),
                kvlStatusOk);
      std::vector<int> got;
      for (Kvl8u v : dst) got.push_back(m->kind == 's' ? static_cast<Kvl8s>(v) : v);
      EXPECT_EQ(got, c.dst) << c.member << " " << c.size.width << "x" << c.size.height;
    });
  }
}

// Rows of roundup16(w * 4 * c) * 6 + 64 (down) and roundup16(w * 8 * c) * 3 + 64 (up) worked
// out by hand; then null, width, channels, type and a size that does not fit an int.
TEST(GaussPyramid, BufferSizes) {
  struct Row {
    int w, c, down, up;
  };
  const Row rows[] = {{1, 1, 160, 112}, {2, 1, 160, 112}, {5, 3, 448, 448},
                      {1921, 1, 46240, 46192}, {1921, 3, 138400, 138400}};
  for (const PyrMember& m : kMembers) {
    for (const Row& r : rows) {
      int bytes = -1;
      ASSERT_EQ(m.bufSize(r.w, m.dataType, r.c, &bytes), kvlStatusOk);
      EXPECT_EQ(bytes, m.up ? r.up : r.down) << m.name << " " << r.w << " x " << r.c;
    }
    int bytes = 7;
    EXPECT_EQ(m.bufSize(0, 99, 2, nullptr), kvlStatusNullPointer);
    EXPECT_EQ(m.bufSize(0, 99, 2, &bytes), kvlStatusBadSize);
    EXPECT_EQ(m.bufSize(4, 99, 2, &bytes), kvlStatusBadChannels);
    EXPECT_EQ(m.bufSize(4, 99, 4, &bytes), kvlStatusBadChannels);
    for (int type : {int{kvl16u}, int{kvl16s}, int{kvl64f}, 0, 2})
      EXPECT_EQ(m.bufSize(4, type, 3, &bytes), kvlStatusBadDataType);
    EXPECT_EQ(m.bufSize(INT_MAX / 24, kvl8s, 3, &bytes), kvlStatusBadSize);
    EXPECT_EQ(bytes, 7);
  }
}

// Each row mutates valid arguments; the first failing check decides and nothing is written.
TEST(GaussPyramid, ValidationOrder) {
  struct Row {
    const char* what;
    bool nullSrc, nullDst, nullBuf;
    KvliSize roi;
    int srcDelta, dstDelta;  // added to the tight steps
    KvlStatus want;          // kvlStatusStepNotMultiple: kvlStatusOk for 8-bit members
  };
  // clang-format off
  const Row rows[] = {
      {"null source",       true,  false, false, {0, 4},  -1, 0,  kvlStatusNullPointer},
      {"null destination",  false, true,  false, {9, 4},  0,  0,  kvlStatusNullPointer},
      {"null buffer",       false, false, true,  {9, 4},  0,  0,  kvlStatusNullPointer},
      {"zero width",        false, false, false, {0, 4},  -1, 0,  kvlStatusBadSize},
      {"negative height",   false, false, false, {9, -1}, 0,  0,  kvlStatusBadSize},
      {"source step short", false, false, false, {9, 4},  -1, 2,  kvlStatusBadStep},
      {"dest step short",   false, false, false, {9, 4},  2,  -1, kvlStatusBadStep},
      {"source step +2",    false, false, false, {9, 4},  2,  0,  kvlStatusStepNotMultiple},
      {"dest step +1",      false, false, false, {9, 4},  0,  1,  kvlStatusStepNotMultiple},
  };
  // clang-format on
  forEachMember([&]<class T, int kC>(const PyrMember& m) {
    const int pixel = kC * static_cast<int>(sizeof(T));
    const KvliSize d = m.dstSize({9, 4});
    for (const Row& r : rows) {
      Image<T, kC> src(9, 4, 1, 1);
      std::vector<Kvl8u> dst(static_cast<size_t>(d.width * pixel + 8) * d.height, 0x33), buffer(4096);
      const KvlStatus want = r.want == kvlStatusStepNotMultiple && sizeof(T) == 1 ? kvlStatusOk : r.want;
      const KvlStatus got = m.run(r.nullSrc ? nullptr : src.roi(), 9 * pixel + r.srcDelta,
                                  r.nullDst ? nullptr : dst.data(), d.width * pixel + r.dstDelta, r.roi,
                                  r.nullBuf ? nullptr : buffer.data());
      EXPECT_EQ(got, want) << m.name << ": " << r.what;
      if (got != kvlStatusOk) {
        EXPECT_EQ(std::count(dst.begin(), dst.end(), 0x33), static_cast<long>(dst.size())) << m.name << ": " << r.what;
      }
    }
    // A width whose buffer size the query refuses is refused before the steps.
    T one[3];
    Kvl8u buffer[64];
    EXPECT_EQ(m.run(one, 1, one, 1, {INT_MAX / 16, 1}, buffer), kvlStatusBadSize) << m.name;
  });
}

}  // namespace
