// Row extension, bordered, framed and in-memory copies against a plain model of the border rules.
#include <array>

#include "core/border.h"
#include "core/services.h"
#include "support/support.h"

namespace {

using kvl::test::Image;

// The border rule for one index, written straight from the mode table.
template <class V>
V model(const std::vector<V>& row, int i, int mode, V value) {
  const int w = static_cast<int>(row.size());
  while (i < 0 || i >= w) {  // fold until inside
    switch (mode) {
      case 0: return value;
      case 1: i = i < 0 ? 0 : w - 1; break;
      case 2: i = i < 0 ? w + i : i - w; break;
      case 3: i = w == 1 ? 0 : (i < 0 ? -i : 2 * w - 2 - i); break;
      case 4: i = i < 0 ? -i - 1 : 2 * w - 1 - i; break;
    }
  }
  return row[i];
}

struct RowCase {
  int mode;
  std::array<int, 9> want;
};

TEST(FillBorder, TheTenToFiftyRowInEveryMode) {
  const RowCase cases[] = {
      {1, {10, 10, 10, 20, 30, 40, 50, 50, 50}}, {2, {40, 50, 10, 20, 30, 40, 50, 10, 20}},
      {3, {30, 20, 10, 20, 30, 40, 50, 40, 30}}, {4, {20, 10, 10, 20, 30, 40, 50, 50, 40}},
      {0, {7, 7, 10, 20, 30, 40, 50, 7, 7}},
  };
  const Kvl8u row[5] = {10, 20, 30, 40, 50};
  for (const RowCase& c : cases) {
    Kvl8u out[9];
    FillBorder_8u_C1(row, out, 5, 5, 2, c.mode, 7);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(out[i], c.want[i]) << "mode " << c.mode << " i " << i;
  }
}

// Every member, mode, anchor and narrow width against the model; flags read the stored pixels.
template <class T, int kC>
void checkFill(void (*fill)(const T*, T*, int, int, int, int, T)) {
  std::mt19937 rng(5);
  for (int w = 1; w <= 7; ++w)
    for (int K : {1, 2, 3, 5, 9, 17})
      for (int A = 0; A < K; ++A)
        for (int bt : {0, 1, 2, 3, 4, 6, 1 | kvlBorderInMemLeft, 3 | kvlBorderInMemRight,
                       2 | kvlBorderInMemLeft | kvlBorderInMemRight}) {
          Image<T, kC> img(w, 1, K, static_cast<uint32_t>(w * 100 + K));
          img.fillRandom(rng(), T(0), T(100));
          std::vector<T> out((w + K - 1) * kC);
          fill(img.roi(), out.data(), w, K, A, bt, T(77));
          const int mode = bt & 15;
          for (int i = -A; i < w + K - 1 - A; ++i)
            for (int c = 0; c < kC; ++c) {
              const bool mem = mode == 6 || (i < 0 && (bt & kvlBorderInMemLeft)) ||
                               (i >= w && (bt & kvlBorderInMemRight));
              std::vector<T> row(w);
              for (int x = 0; x < w; ++x) row[x] = img.px(x, 0, c);
              const T want = mem ? img.px(i, 0, c) : model<T>(row, i, mode, T(77));
              ASSERT_EQ(out[(i + A) * kC + c], T(want))
                  << "w " << w << " K " << K << " A " << A << " bt " << bt << " i " << i;
            }
        }
}

TEST(FillBorder, EveryMemberAgainstTheModel) {
  checkFill<Kvl8u, 1>(FillBorder_8u_C1);
  checkFill<Kvl8u, 3>(FillBorder_8u_C3);
  checkFill<Kvl16s, 1>(FillBorder_16s_C1);
  checkFill<Kvl16s, 3>(FillBorder_16s_C3);
  checkFill<Kvl16u, 3>(FillBorder_16u_C3);
  checkFill<Kvl32f, 1>(FillBorder_32f_C1);
  checkFill<Kvl32f, 3>(FillBorder_32f_C3);
}

TEST(CopyWithBorder, MarginsFollowTheRowThenColumnRule) {
  for (int mode = 0; mode <= 4; ++mode)
    for (int w : {1, 2, 5})
      for (int h : {1, 3}) {
        Image<Kvl32f, 3> img(w, h, 0, 3);
        img.fillRandom(9, 0.f, 50.f);
        const int L = 3, R = 2, T = 4, B = 1;
        Kvl32f* out = ownCopyWithBorder_32f_C3R(img.roi(), img.step(), {w, h}, mode, L, R, T, B, -1.f);
        ASSERT_NE(out, nullptr);
        const int rowLen = (L + w + R) * 3;
        for (int y = -T; y < h + B; ++y)
          for (int x = -L; x < w + R; ++x)
            for (int c = 0; c < 3; ++c) {
              std::vector<int> cols(w), rows(h);
              for (int i = 0; i < w; ++i) cols[i] = i;
              for (int i = 0; i < h; ++i) rows[i] = i;
              const int xs = model(cols, x, mode, -1), ys = model(rows, y, mode, -1);
              const float want = (xs < 0 || ys < 0) ? -1.f : img.px(xs, ys, c);
              ASSERT_EQ(out[(y + T) * rowLen + (x + L) * 3 + c], want)
                  << "mode " << mode << " x " << x << " y " << y;
            }
        kvlsFree(out);
      }
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
    if (c.want != kvlStatusOk) { EXPECT_TRUE(dst.unchanged()); }
  }
}

// The frame holds the nearest source pixel (replicate) or the constant 99; an equal pointer works
// in place inside the larger buffer.
template <class T>
using FramedFn = std::function<KvlStatus(const T*, int, KvliSize, T*, int, KvliSize, int, int)>;

template <class T, int kC>
void checkFramed(const FramedFn<T>& fn, bool constant, bool inPlace) {
  const KvliSize s{3, 2}, d{7, 6};
  const int top = 1, left = 2;
  Image<T, kC> src(s.width, s.height), dst(d.width, d.height);
  src.fillRandom(4, T(1), T(90));
  T* out = dst.roi();
  const T* in = src.roi();
  int srcStep = src.step();
  if (inPlace) {  // place the source inside the destination first
    for (int y = 0; y < s.height; ++y)
      for (int x = 0; x < s.width; ++x)
        for (int c = 0; c < kC; ++c) dst.px(x + left, y + top, c) = src.px(x, y, c);
    dst.snapshot();
    out = dst.at(left, top);
    in = out;
    srcStep = dst.step();
  }
  ASSERT_EQ(fn(in, srcStep, s, out, dst.step(), d, top, left), kvlStatusOk);
  for (int y = 0; y < d.height; ++y)
    for (int x = 0; x < d.width; ++x)
      for (int c = 0; c < kC; ++c) {
        const int sx = x - left, sy = y - top;
        const bool inside = sx >= 0 && sx < s.width && sy >= 0 && sy < s.height;
        const T want = inside || !constant
                           ? src.px(std::clamp(sx, 0, s.width - 1), std::clamp(sy, 0, s.height - 1), c)
                           : T(99);
        ASSERT_EQ(dst.px(x, y, c), want) << "x " << x << " y " << y;
      }
  EXPECT_TRUE(dst.outsideUnchanged());
}

template <class T>
FramedFn<T> withConst(KvlStatus (*f)(const T*, int, KvliSize, T*, int, KvliSize, int, int, T)) {
  return [f](const T* s, int ss, KvliSize sz, T* d, int ds, KvliSize dz, int t, int l) {
    return f(s, ss, sz, d, ds, dz, t, l, T(99));
  };
}

template <class T>
FramedFn<T> inPlaceMember(KvlStatus (*f)(T*, int, KvliSize, KvliSize, int, int)) {
  return [f](const T*, int, KvliSize sz, T* d, int ds, KvliSize dz, int t, int l) {
    return f(d, ds, sz, dz, t, l);
  };
}

TEST(FramedCopy, FramesOfEveryMember) {
  for (bool inPlace : {false, true}) {
    SCOPED_TRACE(inPlace ? "in place" : "separate");
    checkFramed<Kvl8u, 1>(kvliCopyReplicateBorder_8u_C1R, false, inPlace);
    checkFramed<Kvl8u, 3>(kvliCopyReplicateBorder_8u_C3R, false, inPlace);
    checkFramed<Kvl8u, 4>(kvliCopyReplicateBorder_8u_C4R, false, inPlace);
    checkFramed<Kvl16s, 1>(kvliCopyReplicateBorder_16s_C1R, false, inPlace);
    checkFramed<Kvl16u, 1>(kvliCopyReplicateBorder_16u_C1R, false, inPlace);
    checkFramed<Kvl32s, 1>(kvliCopyReplicateBorder_32s_C1R, false, inPlace);
    checkFramed<Kvl32s, 3>(kvliCopyReplicateBorder_32s_C3R, false, inPlace);
    checkFramed<Kvl32s, 4>(kvliCopyReplicateBorder_32s_C4R, false, inPlace);
    checkFramed<Kvl32f, 1>(kvliCopyReplicateBorder_32f_C1R, false, inPlace);
    checkFramed<Kvl32f, 3>(kvliCopyReplicateBorder_32f_C3R, false, inPlace);
    checkFramed<Kvl32f, 4>(kvliCopyReplicateBorder_32f_C4R, false, inPlace);
    checkFramed<Kvl8u, 1>(withConst<Kvl8u>(kvliCopyConstBorder_8u_C1R), true, inPlace);
    checkFramed<Kvl16s, 1>(withConst<Kvl16s>(kvliCopyConstBorder_16s_C1R), true, inPlace);
    checkFramed<Kvl16u, 1>(withConst<Kvl16u>(kvliCopyConstBorder_16u_C1R), true, inPlace);
    checkFramed<Kvl32s, 1>(withConst<Kvl32s>(kvliCopyConstBorder_32s_C1R), true, inPlace);
    checkFramed<Kvl32f, 1>(withConst<Kvl32f>(kvliCopyConstBorder_32f_C1R), true, inPlace);
  }
  checkFramed<Kvl8u, 1>(inPlaceMember<Kvl8u>(kvliCopyReplicateBorder_8u_C1IR), false, true);
  checkFramed<Kvl8u, 4>(inPlaceMember<Kvl8u>(kvliCopyReplicateBorder_8u_C4IR), false, true);
  checkFramed<Kvl16s, 1>(inPlaceMember<Kvl16s>(kvliCopyReplicateBorder_16s_C1IR), false, true);
  checkFramed<Kvl32s, 1>(inPlaceMember<Kvl32s>(kvliCopyReplicateBorder_32s_C1IR), false, true);
}

TEST(FramedCopy, ZeroOffsetsAndEqualSizesIsAPlainCopy) {
  Image<Kvl32f> src(9, 4), dst(9, 4);
  src.fillRandom(1);
  ASSERT_EQ(kvliCopyReplicateBorder_32f_C1R(src.roi(), src.step(), {9, 4}, dst.roi(), dst.step(),
                                            {9, 4}, 0, 0),
            kvlStatusOk);
  EXPECT_EQ(src.pixels(), dst.pixels());
}

TEST(CopyAndSet, CopyChecksPointersThenSizeAndMovesRows) {
  Image<Kvl8u, 3> src(700, 3), dst(700, 3);  // rows above 1024 bytes take the block copy
  src.fillRandom(3);
  EXPECT_EQ(kvliCopy_8u_C3R(nullptr, src.step(), dst.roi(), dst.step(), {0, 0}), kvlStatusNullPointer);
  EXPECT_EQ(kvliCopy_8u_C3R(src.roi(), src.step(), dst.roi(), dst.step(), {0, 3}), kvlStatusBadSize);
  EXPECT_TRUE(dst.unchanged());
  ASSERT_EQ(kvliCopy_8u_C3R(src.roi(), src.step(), dst.roi(), dst.step(), {700, 3}), kvlStatusOk);
  EXPECT_EQ(src.pixels(), dst.pixels());
  EXPECT_TRUE(dst.outsideUnchanged());

  Image<Kvl16s> img(5, 3);
  ASSERT_EQ(kvliSet_16s_C1R(-9, img.roi(), img.step(), {5, 3}), kvlStatusOk);
  EXPECT_EQ(img.pixels(), std::vector<Kvl16s>(15, -9));
  EXPECT_TRUE(img.outsideUnchanged());
}

// In-memory copies read memory on flagged sides, extend the others; 6 is all four flags.
TEST(InMemCopy, FlagsReadMemoryAndModesExtendTheRest) {
  const int w = 4, h = 3, T = 2, B = 1, L = 2, R = 3;
  for (int bt : {1, 6, 240, 1 | 16, 1 | 64 | 32, 0 | 128}) {
    Image<Kvl8u> src(w, h, 3, 11);
    src.fillRandom(bt + 1);
    std::vector<Kvl8u> out((L + w + R) * (T + h + B), 0);
    ASSERT_EQ(ownkvliCopyInMemBorder_8u_C1R(src.roi(), src.step(), {w, h}, out.data(), L + w + R, T,
                                            B, L, R, bt, 9),
              kvlStatusOk);
    const int flags = (bt & 15) == 6 ? 240 : bt & 240;
    const int mode = (bt & 15) == 6 ? 0 : bt & 15;
    for (int y = -T; y < h + B; ++y)
      for (int x = -L; x < w + R; ++x) {
        // Row rule first: the row a margin row comes from, then the column within it.
        const bool memY = (y < 0 && (flags & 16)) || (y >= h && (flags & 32));
        const bool memX = (x < 0 && (flags & 64)) || (x >= w && (flags & 128));
        int want;
        const int ys = (y >= 0 && y < h) || memY ? y : (mode == 0 ? -99 : std::clamp(y, 0, h - 1));
        const int xs = (x >= 0 && x < w) || memX ? x : (mode == 0 ? -99 : std::clamp(x, 0, w - 1));
        want = (ys == -99 || xs == -99) ? 9 : src.px(xs, ys);
        ASSERT_EQ(out[(y + T) * (L + w + R) + x + L], want) << "bt " << bt << " x " << x << " y " << y;
      }
  }
  Kvl8u dummy[4];
  EXPECT_EQ(ownkvliCopyInMemBorder_8u_C1R(dummy, 0, {1, 1}, dummy, 4, 0, 0, 0, 0, 1, 0), kvlStatusBadStep);
  EXPECT_EQ(ownkvliCopyInMemBorder_8u_C1R(dummy, 4, {1, 1}, dummy, 4, -1, 0, 0, 0, 1, 0), kvlStatusBadSize);
}

TEST(InMemCopy, BitImagesFollowTheSameRules) {
  // A 5x2 bit image at bit offset 3, extended by one pixel all round; left and top from memory.
  Kvl8u src[3 * 2] = {0};
  const int step = 2;
  auto setBit = [&](int x, int y) { src[(y + 1) * step + (3 + x) / 8] |= 1 << ((3 + x) & 7); };
  setBit(0, 0); setBit(4, 1); setBit(-1, -1);  // (-1,-1) lies in memory above-left
  Kvl8u dst[4 * 2] = {0};
  ASSERT_EQ(ownkvliCopyInMemBorder_1u_C1R(src + step, step, 3, {5, 2}, dst, 2, 0, 1, 1, 1, 1,
                                          1 | 16 | 64, 0),
            kvlStatusOk);
  auto bit = [&](int c, int r) { return (dst[r * 2 + c / 8] >> (c & 7)) & 1; };
  EXPECT_EQ(bit(0, 0), 1);  // memory corner
  EXPECT_EQ(bit(1, 1), 1);  // source (0,0)
  EXPECT_EQ(bit(6, 2), 1);  // right margin replicates (4,1)
  EXPECT_EQ(bit(6, 3), 1);  // bottom-right corner replicates too
  EXPECT_EQ(bit(1, 3), 0);
  EXPECT_EQ(ownkvliCopyInMemBorder_1u_C1R(src, step, -1, {5, 2}, dst, 2, 0, 1, 1, 1, 1, 1, 0),
            kvlStatusBadSize);
}

}  // namespace
