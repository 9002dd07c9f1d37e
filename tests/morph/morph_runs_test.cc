// The run engine over its member table: every target against a plain model of the definition
// (min/max over the mask's non-zero elements, borders replicated or read from memory), on mask
// shapes with one or several runs per row, anchors on zero elements, every side flag, and work
// buffers from the full ring down to one-pixel tiles and one byte short of those.
#include "morph/morph_runs.h"

#include <cmath>
#include <tuple>

#include "support/support.h"

namespace {

using kvl::test::Image;

template <class T, int C>
struct Member {
  using Type = T;
  static constexpr int kC = C;
};
template <class Tuple>
struct ToTypes;
template <class... Ts>
struct ToTypes<std::tuple<void, Ts...>> {
  using type = ::testing::Types<Ts...>;
};
#define KVL_ENTRY(sfx, T, C) , Member<T, C>
using Members = ToTypes<std::tuple<void KVL_MORPH_RUNS_MEMBERS(KVL_ENTRY)>>::type;
#undef KVL_ENTRY

// a before b in the order the engine promises: the value order, with -0 before +0.
template <class T>
bool before(T a, T b) {
  if constexpr (std::is_floating_point_v<T>) {
    if (a == b) return std::signbit(a) && !std::signbit(b);
  }
  return a < b;
}

struct Mask {
  int w, h, ax, ay;
  std::vector<Kvl8u> m;
};

// Shapes: 0 random, 1 ellipse, 2 cross through the anchor, 3 plus (short arms), 4 two runs per
// row, 5 one element off the anchor (anchor on a zero element), 6 solid rectangle.
Mask makeMask(int kind, int w, int h, std::mt19937& rng) {
  Mask k{w, h, static_cast<int>(rng() % w), static_cast<int>(rng() % h), {}};
  k.m.assign(static_cast<size_t>(w) * h, 0);
  auto set = [&](int i, int j) {
    k.m[static_cast<size_t>(j) * w + i] = static_cast<Kvl8u>(1 + rng() % 255);
  };
  for (int j = 0; j < h; ++j)
    for (int i = 0; i < w; ++i) {
      const double dx = (i + 0.5) / w - 0.5, dy = (j + 0.5) / h - 0.5;
      const bool on[] = {rng() % 2 == 0,
                         dx * dx + dy * dy <= 0.25,
                         i == k.ax || j == k.ay,
                         (i == w / 2 && std::abs(j - h / 2) <= 1) || (j == h / 2),
                         i % 4 == j % 2 || i == w - 1,
                         false,
                         true};
      if (on[kind]) set(i, j);
    }
  if (kind == 5) {  // one element, never the anchor's
    if (w * h == 1) k.w = w = 2, k.m.assign(2, 0), k.ax = 0;
    int p = static_cast<int>(rng() % (w * h - 1));
    if (p >= k.ay * w + k.ax) ++p;
    set(p % w, p / w);
  } else if (std::count(k.m.begin(), k.m.end(), 0) == static_cast<long>(k.m.size())) {
    set(static_cast<int>(rng() % w), static_cast<int>(rng() % h));
  }
  return k;
}

// The definition, pixel by pixel.
template <class T, int C>
std::vector<T> model(const Image<T, C>& src, const Mask& k, int bt, bool erode) {
  const int W = src.width(), H = src.height();
  const bool all = (bt & 15) == kvlBorderInMem;
  auto coord = [&](int v, int n, bool lowMem, bool highMem) {
    if (v < 0 && !(all || lowMem)) return 0;
    if (v >= n && !(all || highMem)) return n - 1;
    return v;
  };
  std::vector<T> out;
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x)
      for (int c = 0; c < C; ++c) {
        bool first = true;
        T best{};
        for (int j = 0; j < k.h; ++j)
          for (int i = 0; i < k.w; ++i) {
            if (!k.m[static_cast<size_t>(j) * k.w + i]) continue;
            const int sx =
                coord(x + i - k.ax, W, bt & kvlBorderInMemLeft, bt & kvlBorderInMemRight);
            const int sy =
                coord(y + j - k.ay, H, bt & kvlBorderInMemTop, bt & kvlBorderInMemBottom);
            const T v = src.px(sx, sy, c);
            if (first || (erode ? before(v, best) : before(best, v))) best = v;
            first = false;
          }
        out.push_back(best);
      }
  return out;
}

const int kBorders[] = {kvlBorderInMem,
                        1,
                        1 + 16,
                        1 + 32,
                        1 + 64,
                        1 + 128,
                        1 + 16 + 64,
                        1 + 32 + 128,
                        1 + 16 + 32 + 64 + 128,
                        1 + 64 + 128,
                        1 + 16 + 32};

template <class M>
class MorphRuns : public ::testing::Test {};
TYPED_TEST_SUITE(MorphRuns, Members);

// One call on a fresh image; buffer bytes from the tile width (tile < 0: the full ROI), minus
// `short` bytes. Checks the result (or, on false, that nothing was written).
template <class T, int C>
void runCase(int roiW, int roiH, const Mask& k, int bt, bool erode, int tile, int shortBy,
             uint32_t seed, int plan = 0, bool expectOk = true) {
  const int margin = std::max(k.w, k.h);
  Image<T, C> src(roiW, roiH, margin, seed), dst(roiW, roiH, 1, seed + 1);
  if constexpr (std::is_floating_point_v<T>) {  // signed zeros and ties now and then
    std::mt19937 rng(seed);
    const T pool[] = {T(0), T(-0.0), T(1), T(-1), T(3.5), T(-1e30), T(1e30)};
    for (int y = -margin; y < roiH + margin; ++y)
      for (int x = -margin; x < roiW + margin; ++x)
        for (int c = 0; c < C; ++c)
          if (rng() % 2) src.px(x, y, c) = pool[rng() % 7];
    src.snapshot();
  }
  const std::size_t need = kvl::morph::morphRunsBytes(
      k.m.data(), {k.w, k.h}, C, sizeof(kvl::morph::KeyOf<T>), tile < 0 ? roiW : tile, plan);
  ASSERT_GT(need, 0u);
  // Aligned buffers end right at the guard page; odd seeds pass a misaligned one with the slack.
  const bool misaligned = shortBy == 0 && seed % 2;
  const std::size_t bytes = need - shortBy + (misaligned ? 15 : 0);
  kvl::test::GuardedBlock buf(bytes, misaligned ? 1 : 16, seed);
  const bool ok = kvl::morph::morphRuns<T, C>(src.roi(), src.step(), dst.roi(), dst.step(),
                                              {roiW, roiH}, k.m.data(), {k.w, k.h}, {k.ax, k.ay},
                                              bt, erode, buf.data(), bytes);
  ASSERT_EQ(ok, expectOk) << "bytes " << bytes;
  ASSERT_TRUE(src.unchanged());
  if (!ok) {
    ASSERT_TRUE(dst.unchanged());
    return;
  }
  ASSERT_TRUE(dst.outsideUnchanged());
  ASSERT_TRUE(kvl::test::sameBytes(dst.pixels(), model(src, k, bt, erode), roiW, C))
      << "roi " << roiW << "x" << roiH << " mask " << k.w << "x" << k.h << " anchor " << k.ax << ","
      << k.ay << " border " << bt << (erode ? " erode" : " dilate") << " tile " << tile;
}

TYPED_TEST(MorphRuns, MatchesTheDefinitionOnEveryTarget) {
  using T = typename TypeParam::Type;
  constexpr int C = TypeParam::kC;
  kvl::test::forEachTarget([&](int target) {
    SCOPED_TRACE(kvl::test::targetName(target));
    std::mt19937 rng(7);
    for (int w = 1; w <= 70; ++w) {
      const int kind = w % 7;
      const Mask k =
          makeMask(kind, 1 + rng() % (kind == 0 || kind == 4 ? 9 : 11), 1 + rng() % 5, rng);
      const int bt = kBorders[w % std::size(kBorders)];
      runCase<T, C>(w, 1 + w % 5, k, bt, w % 2 == 0, -1, 0, w);
      if (::testing::Test::HasFatalFailure()) return;
    }
  });
}

// Long runs (masks up to 70 wide) and many distinct lengths, on the best target only.
TYPED_TEST(MorphRuns, WideMasks) {
  using T = typename TypeParam::Type;
  constexpr int C = TypeParam::kC;
  std::mt19937 rng(11);
  for (int i = 0; i < 12; ++i) {
    const Mask k = makeMask(i % 7, 30 + rng() % 41, 1 + i % 5, rng);
    runCase<T, C>(20 + rng() % 90, 1 + i % 4, k, kBorders[i % std::size(kBorders)], i % 2, -1, 0,
                  i);
    if (::testing::Test::HasFatalFailure()) return;
  }
}

// Small buffers: column tiles down to one pixel give the same result; one byte less than the
// one-pixel tile needs returns false and writes nothing.
TYPED_TEST(MorphRuns, TilesAndRefusal) {
  using T = typename TypeParam::Type;
  constexpr int C = TypeParam::kC;
  kvl::test::forEachTarget([&](int target) {
    SCOPED_TRACE(kvl::test::targetName(target));
    std::mt19937 rng(5);
    for (int kind = 0; kind < 7; ++kind) {
      const Mask k = makeMask(kind, 2 + kind, 1 + kind % 5, rng);
      const int bt = kBorders[kind];
      for (int plan = 0; plan < 4; ++plan) {
        for (int tile : {1, 3, 17, 40})
          runCase<T, C>(61, 4, k, bt, kind % 2, tile, tile == 17 ? 1 : 0, 100 + tile, plan);
        runCase<T, C>(600, 3, k, bt, kind % 2, 260, 0, 4, plan);  // wide tiles, each plan
      }
      runCase<T, C>(61, 4, k, bt, kind % 2, 1, 1, 3, 3, false);
      if (::testing::Test::HasFatalFailure()) return;
    }
  });
}

}  // namespace

namespace {

// Rows at odd byte addresses (steps that are no multiple of the element size) give the same
// bytes as the aligned image.
TYPED_TEST(MorphRuns, ImagesAtAnyAddress) {
  using T = typename TypeParam::Type;
  constexpr int C = TypeParam::kC;
  std::mt19937 rng(3);
  const Mask k = makeMask(1, 5, 5, rng);
  const int w = 45, h = 6, row = w * C * static_cast<int>(sizeof(T)), step = row + 3;
  Image<T, C> src(w, h, 0, 9), want(w, h, 0, 10);
  std::vector<Kvl8u> buffer(kvl::morph::morphRunsBytes(k.m.data(), {k.w, k.h}, C, sizeof(T), w, 0) +
                            15);
  for (bool erode : {true, false}) {
    ASSERT_TRUE((kvl::morph::morphRuns<T, C>(src.roi(), src.step(), want.roi(), want.step(), {w, h},
                                             k.m.data(), {k.w, k.h}, {k.ax, k.ay}, 1, erode,
                                             buffer.data(), buffer.size())));
    std::vector<Kvl8u> in(static_cast<size_t>(step) * h + 1), out(in.size());
    for (int y = 0; y < h; ++y) std::memcpy(&in[1 + y * step], src.at(0, y), row);
    kvl::test::forEachTarget([&](int) {
      ASSERT_TRUE((kvl::morph::morphRuns<T, C>(
          reinterpret_cast<const T*>(&in[1]), step, reinterpret_cast<T*>(&out[1]), step, {w, h},
          k.m.data(), {k.w, k.h}, {k.ax, k.ay}, 1, erode, buffer.data(), buffer.size())));
      for (int y = 0; y < h; ++y)
        ASSERT_EQ(std::memcmp(&out[1 + y * step], want.at(0, y), row), 0) << "row " << y;
    });
  }
}

// Hand-computed rows: a lone element off the anchor shifts the image (replicating the edge),
// ties between -0 and +0 resolve by sign, and a plus takes the minimum of five pixels.
TEST(MorphRunsGolden, ShiftsSignedZerosAndPlus) {
  const Kvl8u corner[9] = {0, 0, 0, 0, 0,
                           0, 0, 0, 1};  // bottom-right element, anchor at the centre
  const Kvl8u src8[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};  // 4 x 3
  Kvl8u out8[12];
  Kvl8u buf[4096];
  ASSERT_TRUE((kvl::morph::morphRuns<Kvl8u, 1>(src8, 4, out8, 4, {4, 3}, corner, {3, 3}, {1, 1}, 1,
                                               true, buf, sizeof buf)));
  const Kvl8u shifted[12] = {6, 7, 8, 8, 10, 11, 12, 12, 10, 11, 12, 12};
  EXPECT_EQ(std::memcmp(out8, shifted, 12), 0);

  const Kvl8u row3[3] = {1, 1, 1};
  const Kvl32f zeros[4] = {0.0f, -0.0f, 0.0f, 0.0f};
  Kvl32f outF[4];
  for (bool erode : {true, false}) {
    ASSERT_TRUE((kvl::morph::morphRuns<Kvl32f, 1>(zeros, 16, outF, 16, {4, 1}, row3, {3, 1}, {1, 0},
                                                  1, erode, buf, sizeof buf)));
    // Windows: {+0,+0,-0}, {+0,-0,+0}, {-0,+0,+0}, {+0,+0,+0}.
    for (int x = 0; x < 4; ++x)
      EXPECT_EQ(std::signbit(outF[x]), erode && x < 3)
          << "x " << x << (erode ? " erode" : " dilate");
  }

  const Kvl8u plus[9] = {0, 1, 0, 1, 1, 1, 0, 1, 0};
  const Kvl16u src16[9] = {9, 8, 7, 6, 50, 4, 3, 2, 1};
  Kvl16u out16[9];
  ASSERT_TRUE((kvl::morph::morphRuns<Kvl16u, 1>(src16, 6, out16, 6, {3, 3}, plus, {3, 3}, {1, 1}, 1,
                                                false, buf, sizeof buf)));
  const Kvl16u maxima[9] = {9, 50, 8, 50, 50, 50, 6, 50, 4};
  EXPECT_EQ(std::memcmp(out16, maxima, sizeof out16), 0);
}

// Masks beyond the engine's limits are refused before anything is written.
TEST(MorphRunsGolden, RefusesMasksBeyondTheLimits) {
  std::vector<Kvl8u> comb(2 * (kvl::morph::kMaxRuns + 1), 0);
  for (size_t i = 0; i < comb.size(); i += 2) comb[i] = 1;
  Image<Kvl8u> src(8, 2, 0, 1), dst(8, 2, 0, 2);
  std::vector<Kvl8u> buf(1 << 20);
  EXPECT_FALSE((kvl::morph::morphRuns<Kvl8u, 1>(
      src.roi(), src.step(), dst.roi(), dst.step(), {8, 2}, comb.data(),
      {static_cast<int>(comb.size()), 1}, {0, 0}, kvlBorderInMem, true, buf.data(), buf.size())));
  EXPECT_TRUE(dst.unchanged());
  EXPECT_EQ(kvl::morph::morphRunsBytes(comb.data(), {static_cast<int>(comb.size()), 1}, 1, 1, 8, 0),
            0u);
}

}  // namespace
