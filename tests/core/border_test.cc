// The border rule on hand-written rows, and every member of the border module over its table.
#include "core/border.h"

#include <cstring>
#include <string>
#include <utility>

#include "core/services.h"
#include "support/support.h"

namespace {

using kvl::border::kConstant;
using kvl::test::Image;

constexpr int kL = kvlBorderInMemLeft, kR = kvlBorderInMemRight, kT = kvlBorderInMemTop,
              kB = kvlBorderInMemBottom;
// Every mode, single flags and flag pairs, mode 6 and all four flags over the constant.
constexpr int kTypes[] = {0,      1,           2,           3,           4,           6,
                          0 | kR, 1 | kL | kT, 3 | kR | kB, 2 | kL | kR, 4 | kT | kB, 240};

// Rows of lower-case pixels between upper-case memory, seven pixels extended on either side
// (z: the constant), written "left|row|right". Rows narrower than the margin fold again and again.
TEST(BorderRule, HandWrittenRows) {
  const std::pair<int, std::string> cases[] = {
      {0, "zzzzzzz|abc|zzzzzzz"},      {1, "aaaaaaa|abc|ccccccc"},
      {2, "cabcabc|abc|abcabca"},      {3, "bcbabcb|abc|babcbab"},
      {4, "aabccba|abc|cbaabcc"},      {2, "bababab|ab|abababa"},
      {3, "bababab|ab|abababa"},       {4, "bbaabba|ab|baabbaa"},
      {3, "aaaaaaa|a|aaaaaaa"},        {2, "aaaaaaa|a|aaaaaaa"},
      {6, "ABCDEFG|abc|HIJKLMN"},      {0 | kL, "ABCDEFG|abc|zzzzzzz"},
      {3 | kR, "bcbabcb|abc|HIJKLMN"}, {2 | kL | kR, "ABCDEFG|ab|HIJKLMN"},
  };
  for (const auto& [bt, text] : cases) {
    SCOPED_TRACE(testing::Message() << text << ", bt " << bt);
    const int w = static_cast<int>(text.size()) - 16;
    const std::string memory = "ABCDEFG" + text.substr(8, w) + "HIJKLMN";
    const std::string want = text.substr(0, 7) + text.substr(8, w) + text.substr(9 + w);
    const Kvl8u* row = reinterpret_cast<const Kvl8u*>(memory.data()) + 7;
    std::string out(want.size(), '?');
    FillBorder_8u_C1(row, reinterpret_cast<Kvl8u*>(out.data()), w, 15, 7, bt, 'z');
    EXPECT_EQ(out, want);
    // The filters' readers: pixelAt along the row, sourceRow down a column (flags moved there).
    const int down = (bt & 15) | (bt & kL ? kT : 0) | (bt & kR ? kB : 0);
    for (int i = -7; i < w + 7; ++i) {
      EXPECT_EQ(kvl::border::pixelAt(row, i, w, bt, Kvl8u('z')), want[i + 7]) << i;
      const int y = kvl::border::sourceRow(i, w, down);
      EXPECT_EQ(y == kConstant ? 'z' : row[y], want[i + 7]) << i;
    }
  }
}

struct Margins {
  int top, bottom, left, right;
};

// True when out (its top-left pixel, rows `step` bytes apart) is src extended by the margins:
// the row rule, then the column rule, through the index rule the rows above pin.
template <class T, int kC>
testing::AssertionResult extends(const Image<T, kC>& src, const T* out, int step, Margins m, int bt,
                                 T value) {
  const int w = src.width(), h = src.height();
  for (int y = -m.top; y < h + m.bottom; ++y)
    for (int x = -m.left; x < w + m.right; ++x) {
      const int xs = kvl::border::sourceIndex(x, w, bt, kL, kR);
      const int ys = kvl::border::sourceIndex(y, h, bt, kT, kB);
      const T* got = reinterpret_cast<const T*>(reinterpret_cast<const char*>(out) +
                                                static_cast<std::ptrdiff_t>(step) * (y + m.top)) +
                     (x + m.left) * kC;
      for (int c = 0; c < kC; ++c) {
        const T want = xs == kConstant || ys == kConstant ? value : src.px(xs, ys, c);
        if (std::memcmp(&got[c], &want, sizeof(T)) != 0)
          return testing::AssertionFailure() << "bt " << bt << " x " << x << " y " << y << " c "
                                             << c << ": " << +got[c] << ", want " << +want;
      }
    }
  return testing::AssertionSuccess();
}

// The row extenders at every anchor of kernels up to 17 taps on rows of 1..7 pixels.
template <class T, int kC>
void checkFill(void (*fill)(const T*, T*, int, int, int, int, T)) {
  for (int w = 1; w <= 7; ++w)
    for (int K : {1, 2, 3, 5, 9, 17}) {
      const Image<T, kC> src(w, 1, K, w * 100 + K);
      for (int A = 0; A < K; ++A)
        for (int bt : kTypes) {
          std::vector<T> out((w + K - 1) * kC);
          fill(src.roi(), out.data(), w, K, A, bt, T(77));
          ASSERT_TRUE(extends(src, out.data(), 0, {0, 0, A, K - 1 - A}, bt, T(77))) << "K " << K;
        }
    }
}

// Bordered copies (modes 0..4) and in-memory copies (every type) of images up to 5 x 3 pixels,
// margins wider than the image.
constexpr Margins kMargins{4, 1, 3, 2};
template <class T, int kC>
void checkCopyWithBorder(T* (*copy)(const T*, int, KvliSize, int, int, int, int, int, T)) {
  for (int w : {1, 2, 5})
    for (int h : {1, 3})
      for (int mode = 0; mode <= 4; ++mode) {
        const Image<T, kC> src(w, h, 0, w + h);
        T* out = copy(src.roi(), src.step(), {w, h}, mode, 3, 2, 4, 1, T(9));
        ASSERT_NE(out, nullptr);
        EXPECT_TRUE(extends(src, out, (3 + w + 2) * kC * sizeof(T), kMargins, mode, T(9)));
        kvlsFree(out);
      }
}

template <class T, int kC>
void checkInMem(KvlStatus (*copy)(const T*, int, KvliSize, T*, int, int, int, int, int, int, T)) {
  const Image<T, kC> src(5, 3, 4, 11);
  const int step = 10 * kC * sizeof(T);
  for (int bt : kTypes) {
    std::vector<T> out(10 * 8 * kC);
    ASSERT_EQ(copy(src.roi(), src.step(), {5, 3}, out.data(), step, 4, 1, 3, 2, bt, T(9)),
              kvlStatusOk);
    EXPECT_TRUE(extends(src, out.data(), step, kMargins, bt, T(9)));
  }
  T px[4] = {};
  EXPECT_EQ(copy(px, 0, {1, 1}, px, 4, 0, 0, 0, 0, 1, T(1)), kvlStatusBadStep);
  EXPECT_EQ(copy(px, 4, {1, 1}, px, 4, -1, 0, 0, 0, 1, T(1)), kvlStatusBadSize);
  EXPECT_EQ(px[0], T(0));
}

// Framed copies replicate (mode 1) or take the constant 99 (mode 0), around a source inside a
// larger frame and with equal sizes (a plain copy). An equal pointer works in place: the source
// is then already inside the destination.
template <class T>
using FramedFn = KvlStatus (*)(const T*, int, KvliSize, T*, int, KvliSize, int, int);

template <class T, int kC>
void checkFramed(FramedFn<T> fn, int mode, bool onlyInPlace) {
  struct Geometry {
    KvliSize s, d;
    int top, left;
  };
  for (const Geometry& g : {Geometry{{3, 2}, {7, 6}, 1, 2}, Geometry{{9, 4}, {9, 4}, 0, 0}})
    for (int inPlace = onlyInPlace; inPlace < 2; ++inPlace) {
      const Image<T, kC> src(g.s.width, g.s.height, 0, 4);
      Image<T, kC> dst(g.d.width, g.d.height, 0, 5);
      const T* in = src.roi();
      T* out = dst.roi();
      int inStep = src.step();
      if (inPlace) {
        for (int y = 0; y < g.s.height; ++y)
          std::memcpy(dst.at(g.left, g.top + y), src.at(0, y), g.s.width * kC * sizeof(T));
        dst.snapshot();
        in = out = dst.at(g.left, g.top);
        inStep = dst.step();
      }
      ASSERT_EQ(fn(in, inStep, g.s, out, dst.step(), g.d, g.top, g.left), kvlStatusOk);
      const Margins m{g.top, g.d.height - g.s.height - g.top, g.left,
                      g.d.width - g.s.width - g.left};
      EXPECT_TRUE(extends(src, dst.roi(), dst.step(), m, mode, T(99))) << "in place " << inPlace;
      EXPECT_TRUE(dst.outsideUnchanged());
    }
}

// Plain copies: null pointers, then the size; rows of 1024 bytes and more take a block copy.
template <class T, int kC>
void checkCopy(KvlStatus (*copy)(const T*, int, T*, int, KvliSize)) {
  for (int w : {5, 1100}) {
    const Image<T, kC> src(w, 3, 0, 1);
    Image<T, kC> dst(w, 3, 1, 2);
    EXPECT_EQ(copy(nullptr, src.step(), dst.roi(), dst.step(), {0, 0}), kvlStatusNullPointer);
    EXPECT_EQ(copy(src.roi(), src.step(), dst.roi(), dst.step(), {0, 3}), kvlStatusBadSize);
    EXPECT_TRUE(dst.unchanged());
    ASSERT_EQ(copy(src.roi(), src.step(), dst.roi(), dst.step(), {w, 3}), kvlStatusOk);
    EXPECT_TRUE(kvl::test::sameBytes(dst.pixels(), src.pixels(), w, kC));
    EXPECT_TRUE(dst.outsideUnchanged());
  }
}

TEST(BorderMembers, EveryTable) {
  checkFill<Kvl8u, 1>(FillBorder_8u_C1);
  checkFill<Kvl8u, 3>(FillBorder_8u_C3);
  checkFill<Kvl16s, 1>(FillBorder_16s_C1);
  checkFill<Kvl16s, 3>(FillBorder_16s_C3);
  checkFill<Kvl16u, 3>(FillBorder_16u_C3);
  checkFill<Kvl32f, 1>(FillBorder_32f_C1);
  checkFill<Kvl32f, 3>(FillBorder_32f_C3);
#define KVL_WITH_BORDER(sfx, T, C) checkCopyWithBorder<T, C>(ownCopyWithBorder_##sfx);
#define KVL_IN_MEM(sfx, T, C) checkInMem<T, C>(ownkvliCopyInMemBorder_##sfx);
#define KVL_REPL(sfx, T, C) checkFramed<T, C>(kvliCopyReplicateBorder_##sfx, 1, false);
#define KVL_CONST(sfx, T, C) \
  checkFramed<T, C>([](auto... a) { return kvliCopyConstBorder_##sfx(a..., T(99)); }, 0, false);
#define KVL_REPL_I(sfx, T, C)                                                                \
  checkFramed<T, C>([](const T*, int, KvliSize s, T* d, int ds, KvliSize dz, int t,          \
                       int l) { return kvliCopyReplicateBorder_##sfx(d, ds, s, dz, t, l); }, \
                    1, true);
#define KVL_COPY(sfx, T, C) checkCopy<T, C>(kvliCopy_##sfx);
  KVL_COPY_WITH_BORDER_MEMBERS(KVL_WITH_BORDER)
  KVL_INMEM_MEMBERS(KVL_IN_MEM)
  KVL_REPL_BORDER_MEMBERS(KVL_REPL)
  KVL_CONST_BORDER_MEMBERS(KVL_CONST)
  KVL_REPL_BORDER_INPLACE_MEMBERS(KVL_REPL_I)
  KVL_COPY_MEMBERS(KVL_COPY)
  Image<Kvl8u> a(5, 3, 1, 1);
  Image<Kvl16s> b(5, 3, 1, 2);
  ASSERT_EQ(kvliSet_8u_C1R(200, a.roi(), a.step(), {5, 3}), kvlStatusOk);
  ASSERT_EQ(kvliSet_16s_C1R(-9, b.roi(), b.step(), {5, 3}), kvlStatusOk);
  EXPECT_EQ(a.pixels(), std::vector<Kvl8u>(15, 200));
  EXPECT_EQ(b.pixels(), std::vector<Kvl16s>(15, -9));
  EXPECT_TRUE(a.outsideUnchanged() && b.outsideUnchanged());
}

struct FramedCase {
  KvliSize src, dst;
  int srcStep, dstStep, top, left;
  bool nullSrc;
  KvlStatus want;
};

TEST(FramedCopy, ValidationOrder) {
  const FramedCase cases[] = {
      {{0, 0}, {4, 4}, 0, 4, 0, 0, true, kvlStatusNullPointer},  // null before step and size
      {{0, 2}, {4, 4}, 0, 4, 0, 0, false, kvlStatusBadStep},     // step < 1 before sizes
      {{2, 2}, {4, 4}, 1, 4, 0, 0, false, kvlStatusOk},          // steps are only tested >= 1
      {{0, 2}, {4, 4}, 4, 4, 0, 0, false, kvlStatusBadSize},
      {{2, 2}, {4, 0}, 4, 4, 0, 0, false, kvlStatusBadSize},
      {{2, 2}, {4, 4}, 4, 4, -1, 0, false, kvlStatusBadSize},
      {{2, 2}, {4, 4}, 4, 4, 0, -1, false, kvlStatusBadSize},
      {{2, 2}, {4, 4}, 4, 4, 0, 3, false, kvlStatusBadSize},  // dst width = src + left - 1
      {{2, 2}, {4, 4}, 4, 4, 3, 0, false, kvlStatusBadSize},
      {{2, 2}, {4, 4}, 4, 4, 2, 2, false, kvlStatusOk},
  };
  for (const FramedCase& c : cases) {
    Image<Kvl8u> src(4, 4), dst(4, 4);
    const Kvl8u* s = c.nullSrc ? nullptr : src.roi();
    EXPECT_EQ(kvliCopyReplicateBorder_8u_C1R(s, c.srcStep, c.src, dst.roi(), c.dstStep, c.dst,
                                             c.top, c.left),
              c.want);
    EXPECT_EQ(kvliCopyConstBorder_8u_C1R(s, c.srcStep, c.src, dst.roi(), c.dstStep, c.dst, c.top,
                                         c.left, 5),
              c.want);
    EXPECT_TRUE(c.want == kvlStatusOk || dst.unchanged());
  }
}

// A 0/1 image packed at bit offset 6 (its margin from bit 2), copied to bit offset 5; the bits
// around the copy keep their values.
TEST(InMemCopy, BitImagesFollowTheSameRules) {
  const int w = 13, h = 3, W = 3 + w + 2, H = 4 + h + 1;
  Image<Kvl8u> img(w, h, 4, 1);
  img.fillRandom(2, 0, 1);
  std::vector<Kvl8u> src(4 * (h + 8), 0);
  for (int y = -4; y < h + 4; ++y)
    for (int x = -4; x < w + 4; ++x) src[(y + 4) * 4 + (6 + x) / 8] |= img.px(x, y) << (6 + x) % 8;
  for (int bt : kTypes) {
    std::vector<Kvl8u> dst(4 * H, 0xa5), bits(W * H);
    ASSERT_EQ(
        ownkvliCopyInMemBorder_1u_C1R(&src[16], 4, 6, {w, h}, dst.data(), 4, 5, 4, 1, 3, 2, bt, 1),
        kvlStatusOk);
    for (int r = 0; r < H; ++r)
      for (int b = 0; b < 32; ++b) {
        const int v = (dst[r * 4 + b / 8] >> b % 8) & 1;
        if (b >= 5 && b < 5 + W) {
          bits[r * W + b - 5] = static_cast<Kvl8u>(v);
        } else {
          ASSERT_EQ(v, (0xa5 >> b % 8) & 1) << "bit " << b << " of row " << r;
        }
      }
    EXPECT_TRUE(extends(img, bits.data(), W, kMargins, bt, Kvl8u(1)));
  }
  EXPECT_EQ(
      ownkvliCopyInMemBorder_1u_C1R(src.data(), 4, -1, {w, h}, src.data(), 4, 0, 0, 0, 0, 0, 1, 0),
      kvlStatusBadSize);
}

}  // namespace
