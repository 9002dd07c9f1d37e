// Chamfer distance transforms over the member table: every target against a plain model of the
// two passes (weights that take each shortcut, saturation, images without features, chunk and
// vector edges), hand-computed distances, the mask query's constants and both validation orders.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "seg/dist_chamfer_members.h"
#include "support/support.h"

namespace {

using kvl::seg::ChamferMember;
using kvl::test::Image;

const ChamferMember kMembers[] = {KVL_CHAMFER_MEMBERS(KVL_CHAMFER_MEMBER_RECORD)};

// Weights as the caller gives them; the integer members read them as Kvl32s.
struct Weights {
  double a, b, c;
};

// The two passes on a grid with two rows and columns of infinity around the image, in the
// output's arithmetic: integers saturate each sum at the maximum (64-bit, so huge weights need
// no clamping first), floats add once in single precision.
template <class Out>
std::vector<Out> model(const std::vector<Kvl8u>& src, int w, int h, Weights wt, int taps) {
  constexpr bool kReal = std::is_floating_point_v<Out>;
  const double far = kReal ? static_cast<double>(std::numeric_limits<float>::max())
                           : static_cast<double>(std::numeric_limits<Out>::max());
  const int pw = w + 4;
  std::vector<Out> g(static_cast<size_t>(pw) * (h + 4), static_cast<Out>(far));
  auto at = [&](int x, int y) -> Out& { return g[static_cast<size_t>(y + 2) * pw + x + 2]; };
  auto sum = [&](Out d, double weight) -> Out {
    if constexpr (kReal) {
      return d + static_cast<float>(weight);
    } else {
      const long long s = static_cast<long long>(d) + static_cast<long long>(weight);
      return static_cast<Out>(std::min<long long>(s, static_cast<long long>(far)));
    }
  };
  struct Tap {
    int dx, dy;
    double weight;
  };
  std::vector<Tap> taps3 = {{-1, 0, wt.a}, {-1, -1, wt.b}, {0, -1, wt.a}, {1, -1, wt.b}};
  if (taps == 5) {
    for (Tap t : {Tap{-1, -2, wt.c}, Tap{1, -2, wt.c}, Tap{-2, -1, wt.c}, Tap{2, -1, wt.c}})
      taps3.push_back(t);
  }
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      Out v = src[static_cast<size_t>(y) * w + x] == 0 ? Out(0) : static_cast<Out>(far);
      if (v != 0)
        for (const Tap& t : taps3) v = std::min(v, sum(at(x + t.dx, y + t.dy), t.weight));
      at(x, y) = v;
    }
  for (int y = h - 1; y >= 0; --y)
    for (int x = w - 1; x >= 0; --x) {
      Out v = at(x, y);
      for (const Tap& t : taps3) v = std::min(v, sum(at(x - t.dx, y - t.dy), t.weight));
      at(x, y) = v;
    }
  std::vector<Out> out;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) out.push_back(at(x, y));
  return out;
}

// Calls a member on src (w x h) and returns its output, checked against guarded memory.
template <class Out>
std::vector<Out> runMember(const ChamferMember& m, const std::vector<Kvl8u>& src, int w, int h,
                           Weights wt, uint32_t seed) {
  auto asInt = [&](double v) { return m.realMetric ? 0 : static_cast<Kvl32s>(v); };
  Kvl32s wi[3] = {asInt(wt.a), asInt(wt.b), asInt(wt.c)};
  Kvl32f wf[3] = {static_cast<Kvl32f>(wt.a), static_cast<Kvl32f>(wt.b),
                  static_cast<Kvl32f>(wt.c)};
  void* metrics = m.realMetric ? static_cast<void*>(wf) : static_cast<void*>(wi);
  Image<Kvl8u> s(w, h, 1, seed);
  s.fill([&](int x, int y, int) { return src[static_cast<size_t>(y) * w + x]; });
  Image<Out> d(w, h, 2, seed + 1);
  if (m.inPlace) d.fill([&](int x, int y, int) { return static_cast<Out>(src[static_cast<size_t>(y) * w + x]); });
  EXPECT_EQ(m.run(s.roi(), s.step(), d.roi(), d.step(), {w, h}, metrics), kvlStatusOk) << m.name;
  EXPECT_TRUE(d.outsideUnchanged()) << m.name;
  EXPECT_TRUE(s.unchanged()) << m.name;
  return d.pixels();
}

template <class Out>
void checkAgainstModel(const ChamferMember& m, const std::vector<Kvl8u>& src, int w, int h,
                       Weights wt, const char* what) {
  const std::vector<Out> want = model<Out>(src, w, h, wt, m.taps);
  kvl::test::forEachTarget([&](int target) {
    const std::vector<Out> got = runMember<Out>(m, src, w, h, wt, static_cast<uint32_t>(w + h));
    ASSERT_TRUE(kvl::test::sameBytes(got, want, w))
        << m.name << " " << what << " " << w << "x" << h << " weights " << wt.a << "," << wt.b
        << "," << wt.c << " target " << kvl::test::targetName(target);
  });
}

// Sources: 0 = feature; the pattern names say where the features are.
std::vector<Kvl8u> pattern(int w, int h, int kind, uint32_t seed) {
  std::vector<Kvl8u> s(static_cast<size_t>(w) * h, 1);
  std::mt19937 rng(seed);
  switch (kind) {
    case 0:  // none
      break;
    case 1:  // top-left corner
      s.front() = 0;
      break;
    case 2:  // bottom-right corner
      s.back() = 0;
      break;
    case 3:  // top-right and bottom-left corners
      s[static_cast<size_t>(w) - 1] = 0;
      s[static_cast<size_t>(h - 1) * w] = 0;
      break;
    default:  // sparse random seeds, about one in `kind` pixels, with any non-zero value else
      for (auto& v : s) v = rng() % static_cast<unsigned>(kind) == 0 ? 0 : 1 + rng() % 255;
  }
  return s;
}

template <class Out>
void sweepMember(const ChamferMember& m) {
  // Weights by the path they take: the table's, b >= 2a (axis steps alone), a > b, weights
  // that are not small integers, and weights beyond the output's maximum.
  std::vector<Weights> weights = {{1, 1, 2}, {1, 2, 3}, {2, 3, 11}, {5, 7, 11}, {3, 6, 9},
                                  {2, 5, 5}, {4, 3, 7}, {7, 2, 4},  {1, 3, 2}};
  if (m.realMetric) {
    weights.insert(weights.end(), {{0.955, 1.3693, 3}, {1, 1.4, 2.1969}, {0.3, 0.7, 0.9},
                                   {0.5, 1, 1.5}, {1e-3, 3e-3, 4e-3}, {1e30, 1e31, 3e38}});
  } else {
    weights.insert(weights.end(), {{300, 2, 70000}, {70000, 80000, 90000}, {1, 2147483647, 3},
                                   {40, 90, 200}});
  }
  const int sizes[][2] = {{1, 1}, {1, 7}, {7, 1}, {2, 2}, {3, 5}, {17, 4},
                          {70, 9}, {131, 3}, {1030, 2}, {2100, 3}};
  int k = 0;
  for (const auto& sz : sizes) {
    const int w = sz[0], h = sz[1];
    for (int kind : {0, 1, 2, 3, 7, 60}) {
      const Weights& wt = weights[static_cast<size_t>(k++) % weights.size()];
      checkAgainstModel<Out>(m, pattern(w, h, kind, static_cast<uint32_t>(k)), w, h, wt,
                             "pattern");
    }
  }
  // Every weight set on one mid-sized image with few features (long in-row runs).
  for (const Weights& wt : weights)
    checkAgainstModel<Out>(m, pattern(300, 23, 400, 9), 300, 23, wt, "sparse");
}

TEST(DistanceChamfer, EveryMemberMatchesTheTwoPasses) {
  for (const ChamferMember& m : kMembers) {
    switch (m.outBytes) {
      case 1: sweepMember<Kvl8u>(m); break;
      case 2: sweepMember<Kvl16u>(m); break;
      default: sweepMember<Kvl32f>(m); break;
    }
  }
}

// Long distances saturate at 255 and 65535 and stay there; 32f infinity is the largest float.
TEST(DistanceChamfer, SaturationAndInfinity) {
  const int w = 700, h = 3;
  std::vector<Kvl8u> src(static_cast<size_t>(w) * h, 9);
  src[0] = 0;  // one feature: the distance along row 0 is 100 x a
  for (const ChamferMember& m : kMembers) {
    if (m.outBytes == 1) {
      const auto got = runMember<Kvl8u>(m, src, w, h, {1, 2, 3}, 3);
      EXPECT_EQ(got[254], 254) << m.name;
      EXPECT_EQ(got[255], 255) << m.name;
      EXPECT_EQ(got[w - 1], 255) << m.name;
    } else if (m.outBytes == 2) {
      const auto got = runMember<Kvl16u>(m, src, w, h, {100, 200, 300}, 3);
      EXPECT_EQ(got[655], 65500) << m.name;
      EXPECT_EQ(got[656], 65535) << m.name;
    } else {
      const std::vector<Kvl8u> none(static_cast<size_t>(w) * h, 1);
      for (float v : runMember<Kvl32f>(m, none, w, h, {1, 1, 1}, 3))
        ASSERT_EQ(v, 3.4028235e38f) << m.name;
    }
  }
}

// Distances around one feature in the middle of a 7x7 image, by hand.
TEST(DistanceChamfer, HandComputedNeighbourhood) {
  std::vector<Kvl8u> src(49, 1);
  src[24] = 0;
  auto row = [](int y) { return static_cast<size_t>(y) * 7; };
  for (const ChamferMember& m : kMembers) {
    if (m.outBytes == 4 && m.taps == 5) {
      const auto d = runMember<Kvl32f>(m, src, 7, 7, {1, 1.4, 2.1969}, 5);
      EXPECT_EQ(d[row(3) + 4], 1.0f);
      EXPECT_EQ(d[row(2) + 2], 1.4f);
      EXPECT_EQ(d[row(2) + 5], 2.1969f);  // a (2,1) step
      EXPECT_EQ(d[row(1) + 1], 1.4f + 1.4f);
      EXPECT_EQ(d[row(0) + 3], 1.0f + 1.0f + 1.0f);
    } else if (m.outBytes == 1 && m.taps == 3) {
      const auto d = runMember<Kvl8u>(m, src, 7, 7, {2, 3, 0}, 5);
      EXPECT_EQ(d[row(0) + 0], 9);  // three diagonal steps
      EXPECT_EQ(d[row(0) + 2], 7);  // one diagonal step and two axis steps
      EXPECT_EQ(d[row(3) + 6], 6);
    } else if (m.outBytes == 2 && m.taps == 5) {
      const auto d = runMember<Kvl16u>(m, src, 7, 7, {5, 7, 11}, 5);
      EXPECT_EQ(d[row(1) + 4], 11);
      EXPECT_EQ(d[row(0) + 6], 21);
      EXPECT_EQ(d[row(3) + 0], 15);
    }
  }
}

TEST(DistanceChamfer, MaskQueryConstants) {
  struct Row {
    int ker, norm;
    Kvl32s i[3];
    Kvl32f f[3];
  };
  const Row rows[] = {{3, 0, {1, 1}, {1.0f, 1.0f}},       {3, 1, {1, 2}, {1.0f, 2.0f}},
                      {3, 2, {2, 3}, {0.955f, 1.3693f}},  {5, 0, {1, 1, 2}, {1.0f, 1.0f, 2.0f}},
                      {5, 1, {1, 2, 3}, {1.0f, 2.0f, 3.0f}},
                      {5, 2, {5, 7, 11}, {1.0f, 1.4f, 2.1969f}}};
  for (const Row& r : rows) {
    const int n = r.ker == 5 ? 3 : 2;
    Kvl32s gi[4] = {-9, -9, -9, -9};
    Kvl32f gf[4] = {-9, -9, -9, -9}, gm[4] = {-9, -9, -9, -9};
    ASSERT_EQ(kvliGetDistanceTransformMask_32s(r.ker, r.norm, gi), kvlStatusOk);
    ASSERT_EQ(kvliGetDistanceTransformMask_32f(r.ker, r.norm, gf), kvlStatusOk);
    ASSERT_EQ(kvliGetDistanceTransformMask(10 * r.ker + r.norm, gm), kvlStatusOk);
    for (int k = 0; k < 4; ++k) {
      EXPECT_EQ(gi[k], k < n ? r.i[k] : -9) << r.ker << r.norm;
      EXPECT_EQ(std::memcmp(&gf[k], k < n ? &r.f[k] : &gm[3], 4), 0) << r.ker << r.norm << k;
      EXPECT_EQ(std::memcmp(&gm[k], &gf[k], 4), 0);
    }
  }
  // Failures, in order, write nothing.
  struct Bad {
    int ker, norm, maskType;
    bool null;
    KvlStatus want, wantType;
  };
  const Bad bad[] = {{4, 7, 47, true, kvlStatusNullPointer, kvlStatusBadArgument},
                     {4, 0, 40, false, kvlStatusBadSize, kvlStatusBadSize},
                     {0, 1, 1, false, kvlStatusBadSize, kvlStatusBadSize},
                     {3, 3, 33, false, kvlStatusBadArgument, kvlStatusBadArgument},
                     {5, -1, -51, false, kvlStatusBadArgument, kvlStatusBadArgument},
                     {3, 0, 30, true, kvlStatusNullPointer, kvlStatusNullPointer}};
  for (const Bad& b : bad) {
    Kvl32s gi[3] = {-9, -9, -9};
    Kvl32f gf[3] = {-9, -9, -9};
    EXPECT_EQ(kvliGetDistanceTransformMask_32s(b.ker, b.norm, b.null ? nullptr : gi), b.want);
    EXPECT_EQ(kvliGetDistanceTransformMask_32f(b.ker, b.norm, b.null ? nullptr : gf), b.want);
    EXPECT_EQ(kvliGetDistanceTransformMask(b.maskType, b.null ? nullptr : gf), b.wantType);
    for (int k = 0; k < 3; ++k) EXPECT_TRUE(gi[k] == -9 && gf[k] == -9.0f);
  }
}

// Each row mutates valid arguments; the first failing check decides and nothing is written.
TEST(DistanceChamfer, ValidationOrder) {
  struct Row {
    const char* what;
    bool nullSrc, nullDst, nullMetrics;
    KvliSize roi;
    int srcDelta, dstDelta;  // added to the exact steps
    double badWeight;        // placed at index `weight`, 0 = none
    int weight;
    KvlStatus want;
  };
  const double nan = std::nan("");
  // clang-format off
  const Row rows[] = {
      {"null source",        true,  false, false, {0, 4}, -1, -1, 0,   0, kvlStatusNullPointer},
      {"null destination",   false, true,  false, {8, 0}, 0,  0,  0,   0, kvlStatusNullPointer},
      {"null metrics",       false, false, true,  {8, 4}, -1, 0,  0,   0, kvlStatusNullPointer},
      {"zero width",         false, false, false, {0, 4}, -1, -1, 0,   1, kvlStatusBadSize},
      {"negative height",    false, false, false, {8, -1}, 0, 0,  0,   0, kvlStatusBadSize},
      {"source step short",  false, false, false, {8, 4}, -1, 1,  0,   1, kvlStatusBadStep},
      {"dest step short",    false, false, false, {8, 4}, 0,  -1, 0,   1, kvlStatusBadStep},
      {"both steps short",   false, false, false, {8, 4}, -1, -1, 0,   1, kvlStatusBadStep},
      {"zero a",             false, false, false, {8, 4}, 0,  0,  0,   1, kvlStatusBadMetric},
      {"negative b",         false, false, false, {8, 4}, 0,  0,  -1,  2, kvlStatusBadMetric},
      {"NaN last weight",    false, false, false, {8, 4}, 0,  0,  nan, 3, kvlStatusBadMetric},
  };
  // clang-format on
  for (const ChamferMember& m : kMembers) {
    const int wide = 8 * m.outBytes;
    for (const Row& r : rows) {
      if (r.weight == 3 && m.taps == 3) continue;
      Kvl32s wi[3] = {1, 2, 3};
      Kvl32f wf[3] = {1, 2, 3};
      if (r.weight > 0) {
        wi[r.weight - 1] = static_cast<Kvl32s>(std::isnan(r.badWeight) ? 0 : r.badWeight);
        wf[r.weight - 1] = static_cast<Kvl32f>(r.badWeight);
      }
      Image<Kvl8u> s(8, 4, 1, 3);
      Image<Kvl8u> d(wide, 4, 1, 4);  // bytes, so any write shows
      const int srcStep = m.inPlace ? wide + r.dstDelta : 8 + r.srcDelta;
      const bool nullSrc = m.inPlace ? r.nullDst : r.nullSrc;
      const KvlStatus got =
          m.run(nullSrc ? nullptr : s.roi(), srcStep, r.nullDst ? nullptr : d.roi(),
                wide + r.dstDelta, r.roi,
                r.nullMetrics ? nullptr : (m.realMetric ? static_cast<void*>(wf) : wi));
      const bool skip = m.inPlace && (r.nullSrc || (r.srcDelta < 0) != (r.dstDelta < 0));
      if (!skip) {
        EXPECT_EQ(got, r.want) << m.name << ": " << r.what;
      }
      EXPECT_TRUE(d.unchanged() && s.unchanged()) << m.name << ": " << r.what;
    }
    if (m.outBytes > 1) {  // a step one byte over the row: not an element multiple
      Image<Kvl8u> s(8, 4, 1, 3);
      Image<Kvl8u> d(wide + 1, 4, 1, 4);
      Kvl32s wi[3] = {0, 0, 0};  // also bad: the step check comes first
      Kvl32f wf[3] = {0, 0, 0};
      EXPECT_EQ(m.run(s.roi(), 8, d.roi(), wide + 1, {8, 4},
                      m.realMetric ? static_cast<void*>(wf) : wi),
                kvlStatusStepNotMultiple)
          << m.name;
      EXPECT_TRUE(d.unchanged()) << m.name;
    }
  }
}

}  // namespace
