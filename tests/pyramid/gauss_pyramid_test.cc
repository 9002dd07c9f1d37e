// Gaussian 5x5 pyramids over the member table: every target against a plain model of the weights
// and borders in guarded memory, hand-computed cases, size queries and the validation order.
#include <climits>
#include <cmath>
#include <initializer_list>

#include "pyramid/gauss_pyramid_members.h"
#include "support/support.h"

namespace {

using kvl::pyramid::PyrMember;
using kvl::test::GuardedBlock;
using kvl::test::Image;

const PyrMember kMembers[] = {KVL_PYR_MEMBERS(KVL_PYR_MEMBER_RECORD)};

// Calls f.template operator()<T, C>() with the member's element type and channel count.
template <class F>
void withTypes(const PyrMember& m, F f) {
  const bool c3 = m.channels == 3;
  switch (m.kind) {
    case 'u':
      c3 ? f.template operator()<Kvl8u, 3>() : f.template operator()<Kvl8u, 1>();
      break;
    case 's':
      c3 ? f.template operator()<Kvl8s, 3>() : f.template operator()<Kvl8s, 1>();
      break;
    default:
      c3 ? f.template operator()<Kvl32f, 3>() : f.template operator()<Kvl32f, 1>();
      break;
  }
}

// ---- The model: each destination pixel straight from the source ----

template <class T>
using Sum = std::conditional_t<std::is_floating_point_v<T>, float, int>;

// Weights applied left to right (the up-sampling order of 32f).
template <class T, class At>
Sum<T> weigh(std::initializer_list<int> w, At at) {
  Sum<T> acc = 0;
  int k = 0;
  for (int wk : w) acc = acc + static_cast<Sum<T>>(wk) * at(k++);
  return acc;
}
// The five down-sampling taps: in 32f the outer pair, the inner pair times 4, the centre times 6.
template <class T, class At>
Sum<T> weigh5(At at) {
  return ((at(0) + at(4)) + (at(1) + at(3)) * 4) + at(2) * 6;
}

// Index i of n: mirrored without repeating the edge (down-sampling).
int reflect(int i, int n) {
  if (n == 1) return 0;
  while (i < 0 || i >= n) i = i < 0 ? -i : 2 * (n - 1) - i;
  return i;
}
// Up-sampling: reflected before the start, replicated after the end.
int upIdx(int i, int n) { return i < 0 ? (n > 1 ? -i : 0) : (i >= n ? n - 1 : i); }

template <class T>
T shiftOut(Sum<T> v, int shift, float scale) {
  if constexpr (std::is_floating_point_v<T>) {
    return v * scale;
  } else {
    return static_cast<T>((v + (1 << (shift - 1))) >> shift);
  }
}

template <class T, int kC>
T modelDown(const Image<T, kC>& s, int x, int y, int c) {
  const int w = s.width(), h = s.height();
  auto px = [&](int col, int row) { return static_cast<Sum<T>>(s.px(col, row, c)); };
  auto hAt = [&](int row) {
    return weigh5<T>([&](int k) { return px(reflect(2 * x + k - 2, w), row); });
  };
  auto vAt = [&](int col) {
    return weigh5<T>([&](int k) { return px(col, reflect(2 * y + k - 2, h)); });
  };
  auto pair = [&](Sum<T> a, Sum<T> b) {
    return shiftOut<T>(weigh<T>({8, 8}, [&](int k) { return k ? b : a; }), 8, 1.0f / 256);
  };
  if (h < 3) {
    if constexpr (std::is_floating_point_v<T>) return (hAt(0) + hAt(h - 1)) * 0.03125f;
    return pair(hAt(0), hAt(h - 1));
  }
  if (w < 3) {
    if constexpr (std::is_floating_point_v<T>) return (vAt(0) + vAt(w - 1)) * 0.03125f;
    return pair(vAt(0), vAt(w - 1));
  }
  return shiftOut<T>(weigh5<T>([&](int k) { return hAt(reflect(2 * y + k - 2, h)); }), 8,
                     1.0f / 256);
}

template <class T, int kC>
T modelUp(const Image<T, kC>& s, int X, int Y, int c) {
  const int w = s.width(), h = s.height(), i = X / 2, j = Y / 2;
  auto px = [&](int col, int row) { return static_cast<Sum<T>>(s.px(col, row, c)); };
  // The even phase weighs n-1, n, n+1 by 1, 6, 1; the odd one n, n+1 by 4, 4.
  auto phase = [&](bool odd, int n, int len, auto at) {
    return odd ? weigh<T>({4, 4}, [&](int k) { return at(upIdx(n + k, len)); })
               : weigh<T>({1, 6, 1}, [&](int k) { return at(upIdx(n + k - 1, len)); });
  };
  auto hAt = [&](int row) { return phase(X % 2, i, w, [&](int col) { return px(col, row); }); };
  if (h == 1) return shiftOut<T>(8 * hAt(0), 6, 0.125f / 8);
  if (w == 1)
    return shiftOut<T>(8 * phase(Y % 2, j, h, [&](int row) { return px(0, row); }), 6, 0.125f / 8);
  return shiftOut<T>(phase(Y % 2, j, h, hAt), 6, 1.0f / 64);
}

template <class T, int kC>
void checkAgainstModel(const PyrMember& m, int w, int h, uint32_t seed) {
  Image<T, kC> src(w, h, 1, seed);
  src.fillRandom(seed);
  const KvliSize d = m.dstSize({w, h});
  Image<T, kC> dst(d.width, d.height, 1, seed + 1);
  int bytes = 0;
  ASSERT_EQ(m.bufSize(w, m.dataType, kC, &bytes), kvlStatusOk);
  GuardedBlock buffer(bytes, 1, seed);  // exactly the queried bytes, ending at a guard page
  ASSERT_EQ(m.run(src.roi(), src.step(), dst.roi(), dst.step(), {w, h}, buffer.data()),
            kvlStatusOk);
  std::vector<T> want;
  for (int y = 0; y < d.height; ++y)
    for (int x = 0; x < d.width; ++x)
      for (int c = 0; c < kC; ++c)
        want.push_back(m.up ? modelUp(src, x, y, c) : modelDown(src, x, y, c));
  ASSERT_TRUE(kvl::test::sameBytes(dst.pixels(), want, d.width, kC))
      << m.name << " " << w << "x" << h;
  ASSERT_TRUE(dst.outsideUnchanged() && src.unchanged()) << m.name << " " << w << "x" << h;
}

// Widths 1..80 (heights 1..7 in turn) cover the narrow paths and every vector head and tail;
// the wider ones reach the vector bodies of every target and channel count.
TEST(GaussPyramid, EveryTargetMatchesTheModel) {
  for (const PyrMember& m : kMembers) {
    SCOPED_TRACE(m.name);
    kvl::test::forEachTarget([&](int) {
      withTypes(m, [&]<class T, int kC>() {
        for (int w = 1; w <= 80; ++w) checkAgainstModel<T, kC>(m, w, 1 + w % 7, w);
        for (int w = 81; w <= 330; w += 23) checkAgainstModel<T, kC>(m, w, 3 + w % 10, w);
        for (int h : {1, 2, 3, 4, 5, 8, 11}) checkAgainstModel<T, kC>(m, 1 + h % 3, h, h);
      });
    });
  }
}

// Every path's weights add up to its normaliser: a constant stays exactly constant.
TEST(GaussPyramid, ConstantsStayConstant) {
  for (const PyrMember& m : kMembers) {
    withTypes(m, [&]<class T, int kC>() {
      for (const T value : {T(0), T(1), T(-1), T(100), std::numeric_limits<T>::max(),
                            std::numeric_limits<T>::lowest()}) {
        if (std::is_floating_point_v<T> && std::abs(static_cast<double>(value)) > 1000) continue;
        for (KvliSize s : {KvliSize{1, 1},
                           {2, 1},
                           {1, 2},
                           {2, 2},
                           {3, 2},
                           {2, 3},
                           {5, 4},
                           {4, 5},
                           {75, 3},
                           {200, 6}}) {
          Image<T, kC> src(s.width, s.height);
          src.fill([&](int, int, int) { return value; });
          const KvliSize d = m.dstSize(s);
          Image<T, kC> dst(d.width, d.height);
          int bytes = 0;
          m.bufSize(s.width, m.dataType, kC, &bytes);
          std::vector<Kvl8u> buffer(bytes);
          ASSERT_EQ(m.run(src.roi(), src.step(), dst.roi(), dst.step(), s, buffer.data()),
                    kvlStatusOk);
          for (T v : dst.pixels())
            ASSERT_EQ(v, value) << m.name << " " << s.width << "x" << s.height << " " << +value;
        }
      }
    });
  }
}

// Hand-computed rows: the edge weights, rounding halves upwards (also below zero) and the
// narrow paths.
TEST(GaussPyramid, HandComputed) {
  struct Case {
    const char* member;
    KvliSize size;
    std::vector<int> src;
    std::vector<int> dst;
  };
  const Case cases[] = {
      // One row: (16 h + 128) >> 8 with h = 0, 255, 6 * 255 (s(5) = s(3), s(6) = s(2)).
      {"PyrDown_Gauss5x5_8u_C1R", {5, 1}, {0, 0, 0, 0, 255}, {0, 16, 96}},
      // Even width, four equal rows: the last column weighs columns 0..3 by 1, 4, 7, 4; the
      // first weighs 0..2 by 6, 8, 2.
      {"PyrDown_Gauss5x5_8u_C1R",
       {4, 4},
       {0, 0, 64, 0, 0, 0, 64, 0, 0, 0, 64, 0, 0, 0, 64, 0},
       {8, 28, 8, 28}},
      {"PyrDown_Gauss5x5_8s_C1R", {1, 1}, {-1}, {-1}},
      // Two rows of one pixel: (16 (s0 + s1) * 8 + 128) >> 8, -0.5 goes up to 0.
      {"PyrDown_Gauss5x5_8s_C1R", {1, 2}, {-1, 0}, {0}},
      {"PyrDown_Gauss5x5_8s_C1R", {1, 2}, {-1, -1}, {-1}},
      {"PyrDown_Gauss5x5_8s_C1R", {3, 1}, {0, -1, -2}, {-1, -1}},
      {"PyrUp_Gauss5x5_8u_C1R", {1, 1}, {200}, {200, 200, 200, 200}},
      // One row, columns 6 s0 + 2 s1, 4 s0 + 4 s1, s0 + 7 s1, 8 s1: 191.25, 127.5 (up), 31.875, 0.
      {"PyrUp_Gauss5x5_8u_C1R", {2, 1}, {255, 0}, {191, 128, 32, 0, 191, 128, 32, 0}},
      // -0.75 -> -1, -0.5 -> 0 (halves up), -0.125 -> 0.
      {"PyrUp_Gauss5x5_8s_C1R", {2, 1}, {-1, 0}, {-1, 0, 0, 0, -1, 0, 0, 0}},
      // One column: rows 6 s0 + 2 s1, 4 s0 + 4 s1, s0 + 7 s1, 8 s1, each twice.
      {"PyrUp_Gauss5x5_8s_C1R", {1, 2}, {-128, 64}, {-80, -80, -32, -32, 40, 40, 64, 64}},
  };
  for (const Case& c : cases) {
    const PyrMember* m = nullptr;
    for (const PyrMember& k : kMembers)
      if (std::string(k.name) == c.member) m = &k;
    ASSERT_NE(m, nullptr);
    kvl::test::forEachTarget([&](int) {
      std::vector<Kvl8u> src(c.src.begin(), c.src.end()), dst(c.dst.size(), 0x5a);
      const KvliSize d = m->dstSize(c.size);
      int bytes = 0;
      m->bufSize(c.size.width, m->dataType, 1, &bytes);
      std::vector<Kvl8u> buffer(bytes);
      ASSERT_EQ(m->run(src.data(), c.size.width, dst.data(), d.width, c.size, buffer.data()),
                kvlStatusOk);
      std::vector<int> got;
      for (Kvl8u v : dst) got.push_back(m->kind == 's' ? static_cast<Kvl8s>(v) : v);
      EXPECT_EQ(got, c.dst) << c.member << " " << c.size.width << "x" << c.size.height;
    });
  }
}

// roundup16(w * 4 * c) * 6 + 64 and roundup16(w * 8 * c) * 3 + 64; null, width, channels, type.
TEST(GaussPyramid, BufferSizes) {
  for (const PyrMember& m : kMembers) {
    for (int w : {1, 2, 3, 5, 640, 1921})
      for (int c : {1, 3}) {
        int bytes = -1;
        ASSERT_EQ(m.bufSize(w, m.dataType, c, &bytes), kvlStatusOk);
        const int row = m.up ? w * 8 * c : w * 4 * c;
        EXPECT_EQ(bytes, (row + 15) / 16 * 16 * (m.up ? 3 : 6) + 64) << m.name << " " << w;
      }
    int bytes = 7;
    EXPECT_EQ(m.bufSize(0, 99, 2, nullptr), kvlStatusNullPointer);
    EXPECT_EQ(m.bufSize(0, 99, 2, &bytes), kvlStatusBadSize);
    EXPECT_EQ(m.bufSize(4, 99, 2, &bytes), kvlStatusBadChannels);
    EXPECT_EQ(m.bufSize(4, 99, 4, &bytes), kvlStatusBadChannels);
    for (int type : {int{kvl16u}, int{kvl16s}, int{kvl64f}, 0, 2})
      EXPECT_EQ(m.bufSize(4, type, 3, &bytes), kvlStatusBadDataType);
    EXPECT_EQ(m.bufSize(INT_MAX / 24, kvl8s, 3, &bytes), kvlStatusBadSize);  // does not fit an int
    EXPECT_EQ(bytes, 7);
  }
}

// Each row mutates valid arguments; the first failing check decides and nothing is written.
TEST(GaussPyramid, ValidationOrder) {
  for (const PyrMember& m : kMembers) {
    withTypes(m, [&]<class T, int kC>() {
      const int pixel = kC * static_cast<int>(sizeof(T));
      const KvliSize size{9, 4}, d = m.dstSize(size);
      const bool multiple = sizeof(T) > 1;
      struct Row {
        const char* what;
        bool nullSrc, nullDst, nullBuf;
        KvliSize roi;
        int srcDelta, dstDelta;
        KvlStatus want;
      };
      // clang-format off
      const Row rows[] = {
          {"null source",       true,  false, false, {0, 4}, -1, 0,  kvlStatusNullPointer},
          {"null destination",  false, true,  false, {9, 4}, 0,  0,  kvlStatusNullPointer},
          {"null buffer",       false, false, true,  {9, 4}, 0,  0,  kvlStatusNullPointer},
          {"zero width",        false, false, false, {0, 4}, -1, 0,  kvlStatusBadSize},
          {"negative height",   false, false, false, {9, -1}, 0, 0,  kvlStatusBadSize},
          {"source step short", false, false, false, {9, 4}, -1, 2,  kvlStatusBadStep},
          {"dest step short",   false, false, false, {9, 4}, 2,  -1, kvlStatusBadStep},
          {"source step +2",    false, false, false, {9, 4}, 2,  0,  multiple ? kvlStatusStepNotMultiple : kvlStatusOk},
          {"dest step +1",      false, false, false, {9, 4}, 0,  1,  multiple ? kvlStatusStepNotMultiple : kvlStatusOk},
      };
      // clang-format on
      for (const Row& r : rows) {
        Image<T, kC> src(9, 4, 1, 1);
        std::vector<Kvl8u> dst(static_cast<size_t>(d.width * pixel + 8) * d.height, 0x33);
        std::vector<Kvl8u> buffer(4096);
        const KvlStatus got = m.run(r.nullSrc ? nullptr : src.roi(), 9 * pixel + r.srcDelta,
                                    r.nullDst ? nullptr : dst.data(), d.width * pixel + r.dstDelta,
                                    r.roi, r.nullBuf ? nullptr : buffer.data());
        EXPECT_EQ(got, r.want) << m.name << ": " << r.what;
        if (got != kvlStatusOk) {
          EXPECT_EQ(std::count(dst.begin(), dst.end(), 0x33), static_cast<long>(dst.size()))
              << m.name << ": " << r.what;
        }
      }
      // A width whose buffer size the query refuses is refused before the steps.
      T one[3];
      Kvl8u buffer[64];
      EXPECT_EQ(m.run(one, 1, one, 1, {INT_MAX / 16, 1}, buffer), kvlStatusBadSize) << m.name;
    });
  }
}

}  // namespace
