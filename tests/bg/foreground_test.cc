// Foreground models over the member table: the Gaussian model on every target against a plain
// model of its rules over hundreds of frames, the states' layouts, validation orders, allocation
// failures, thread invariance, and the histogram model separating moving shapes from a static
// background.
#include <array>
#include <cmath>
#include <cstring>
#include <type_traits>
#include <random>
#include <vector>

#include "bg/foreground.h"
#include "core/parallel.h"
#include "support/failing_alloc.h"
#include "support/support.h"

namespace {

using kvl::bg::ForegroundMember;
using kvl::test::Image;

const ForegroundMember kMembers[] = {KVL_FG_MEMBERS(KVL_FG_MEMBER_RECORD)};
const int kModelTag = 7;  // any non-null pModel

// ---- A plain model of the Gaussian rules, one pixel at a time ----

// Grey pixels in double precision, colour pixels as one joint mixture in single precision.
template <int C>
struct GaussModel {
  using F = std::conditional_t<C == 1, double, float>;
  struct Comp {
    int count;
    F weight, variance, mean[C];
  };
  using Mixture = std::array<Comp, 5>;
  std::vector<Mixture> mix;
  int frame = 0;

  explicit GaussModel(const std::vector<Kvl8u>& first) {
    for (size_t i = 0; i < first.size(); i += C) {
      Mixture m;
      m.fill({0, 0, F(12.5), {}});
      m[0] = {1, 1, F(12.5), {}};
      for (int c = 0; c < C; ++c) m[0].mean[c] = first[i + c];
      mix.push_back(m);
    }
  }

  // One frame: C background bytes and one foreground flag per pixel.
  void step(const std::vector<Kvl8u>& frame_, std::vector<Kvl8u>& bg, std::vector<Kvl8u>& fg) {
    ++frame;
    bg.resize(mix.size() * C);
    fg.resize(mix.size());
    for (size_t s = 0; s < mix.size(); ++s) {
      Mixture& m = mix[s];
      F x[C], dev[C], dist = 0;
      for (int c = 0; c < C; ++c) x[c] = frame_[s * C + c];
      std::array<int, 5> hit{};
      int which = -1;
      for (int k = 0; k < 5 && which < 0; ++k) {
        F e = 0;
        for (int c = 0; c < C; ++c) {
          dev[c] = x[c] - m[k].mean[c];
          e = c == 0 ? dev[c] * dev[c] : e + dev[c] * dev[c];
        }
        // the distance per channel within 2.5 standard deviations
        if (F(6.25) * m[k].variance * C > e) which = k, hit[k] = 1, dist = e;
      }
      auto moveMatched = [&](F rho) {
        Comp& c = m[which];
        for (int ch = 0; ch < C; ++ch) c.mean[ch] += rho * dev[ch];
        c.variance += rho * (dist / C - c.variance);
      };
      auto replaceLast = [&] {
        m[4].count = 1;
        m[4].variance = 900;
        for (int c = 0; c < C; ++c) m[4].mean[c] = x[c];
        int total = 0;
        for (const Comp& c : m) total += c.count;
        return total;
      };
      if (frame != 200) {
        int total = 0;
        for (const Comp& c : m) total += c.count;
        const F r = F(1) / F(1 + total);
        for (int k = 0; k < 5; ++k) {
          m[k].count += hit[k];
          m[k].weight += r * (F(hit[k]) - m[k].weight);
        }
        if (which >= 0) {
          moveMatched(F(1) / F(m[which].count));
        } else {
          const int sum = replaceLast();
          for (Comp& c : m) c.weight = F(c.count) / F(sum);
        }
      } else {
        for (int k = 0; k < 5; ++k) m[k].weight += (F(1) / 200) * (F(hit[k]) - m[k].weight);
        if (which >= 0) {
          moveMatched(F(1) / (200 * m[which].weight));
        } else {
          m[4].weight = F(1) / F(replaceLast());
          for (int k = 0; k < 4; ++k) m[k].weight *= F(1) - F(1) / 200;
        }
      }
      auto key = [](const Comp& c) { return c.count == 0 ? F(0) : c.weight / std::sqrt(c.variance); };
      for (int k = 1; k < 5; ++k)
        for (int j = k; j > 0 && key(m[j - 1]) < key(m[j]); --j) std::swap(m[j - 1], m[j]);
      for (int c = 0; c < C; ++c) bg[s * C + c] = Kvl8u(int(m[0].mean[c] + F(0.5)));
      Kvl8u out = 255;
      F acc = 0;
      for (int k = 0; k < 5; ++k) {
        acc += m[k].weight;
        if (hit[k]) out = 0;  // the flag of the pre-ranking position k
        if (acc > F(0.7)) break;
      }
      fg[s] = out;
    }
  }
};

// A pixel's records as the model holds them (count, weight, variance, means), from the state.
template <int C>
typename GaussModel<C>::Comp recordOf(KvliFGGaussianState* st, long long pixel, int k) {
  typename GaussModel<C>::Comp c{};
  if constexpr (C == 1) {
    const KvliFGGaussComponent& r = st->pPixels[pixel][k];
    EXPECT_EQ(r.pad, 0);
    c = {r.count, r.weight, r.variance, {r.mean}};
  } else {
    const auto& r = reinterpret_cast<const KvliFGGaussColourComponent*>(st->pPixels[pixel])[k];
    EXPECT_TRUE(r.reserved[0] == 0 && r.reserved[1] == 0);
    c = {r.count, r.weight, r.variance, {r.mean[0], r.mean[1], r.mean[2]}};
  }
  return c;
}

template <class Comp>
bool sameRecord(const Comp& a, const Comp& b) {
  return a.count == b.count && std::memcmp(&a.weight, &b.weight, sizeof a.weight) == 0 &&
         std::memcmp(&a.variance, &b.variance, sizeof a.variance) == 0 &&
         std::memcmp(a.mean, b.mean, sizeof a.mean) == 0;
}

// A video whose samples exercise every rule: constant samples, small noise, values near 0 (which
// the empty components match), two far levels alternating (replacement and reuse of the last
// component), uniform noise (ties and many replacements).
std::vector<Kvl8u> videoFrame(int t, int w, int h, int C) {
  std::vector<Kvl8u> f(static_cast<size_t>(w) * h * C);
  std::mt19937 rng(1000u + t);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < C; ++c) {
        const int kind = (x + 3 * y + c) % 5;
        int v = 0;
        switch (kind) {
          case 0: v = 90 + x; break;
          case 1: v = 120 + static_cast<int>(rng() % 7) - 3; break;
          case 2: v = static_cast<int>(rng() % 9); break;
          case 3: v = (t / (3 + x % 5)) % 2 ? 230 : 15 + y; break;
          default: v = static_cast<int>(rng() % 256); break;
        }
        f[(static_cast<size_t>(y) * w + x) * C + c] = static_cast<Kvl8u>(v);
      }
  return f;
}

template <int C>
void fillImage(Image<Kvl8u, C>& img, const std::vector<Kvl8u>& f) {
  img.fill([&](int x, int y, int c) { return f[(static_cast<size_t>(y) * img.width() + x) * C + c]; });
}


template <int C>
void runAgainstModel(const ForegroundMember& m, int w, int h, int frames) {
  kvl::test::forEachTarget([&](int target) {
    SCOPED_TRACE(kvl::test::targetName(target));
    std::vector<Kvl8u> f = videoFrame(0, w, h, C);
    Image<Kvl8u, C> src(w, h, 0, 3);
    fillImage(src, f);
    KvliFGGaussianState* st = nullptr;
    ASSERT_EQ(m.gaussInit(src.roi(), src.step(), {w, h}, &kModelTag, &st), kvlStatusOk);
    GaussModel<C> model(f);
    std::vector<Kvl8u> wantBg, wantFg;
    Image<Kvl8u, C> bg(w, h, 0, 5);
    Image<Kvl8u, 1> fg(w, h, 0, 6);
    for (int t = 1; t <= frames; ++t) {
      f = videoFrame(t, w, h, C);
      fillImage(src, f);
      ASSERT_EQ(m.gauss(src.roi(), src.step(), bg.roi(), bg.step(), fg.roi(), fg.step(), {w, h}, st),
                kvlStatusOk);
      model.step(f, wantBg, wantFg);
      ASSERT_TRUE(kvl::test::sameBytes(bg.pixels(), wantBg, w, C)) << "frame " << t;
      ASSERT_TRUE(kvl::test::sameBytes(fg.pixels(), wantFg, w)) << "frame " << t;
      ASSERT_TRUE(bg.outsideUnchanged() && fg.outsideUnchanged());
    }
    EXPECT_EQ(st->frameCount, frames);
    for (size_t s = 0; s < model.mix.size(); ++s)
      for (int k = 0; k < 5; ++k)
        ASSERT_TRUE(sameRecord(recordOf<C>(st, static_cast<long long>(s), k), model.mix[s][k]))
            << s << " " << k;
    EXPECT_EQ(m.gaussFree(st), kvlStatusOk);
  });
}

TEST(ForegroundGaussian, EveryTargetFollowsTheRulesPastTheHistoryFrame) {
  for (const ForegroundMember& m : kMembers) {
    SCOPED_TRACE(m.suffix);
    if (m.channels == 1)
      runAgainstModel<1>(m, 37, 5, 230);
    else
      runAgainstModel<3>(m, 13, 4, 230);
  }
}

// Calls fn with std::integral_constant<int, C> for the member's channel count.
template <class Fn>
void withChannels(const ForegroundMember& m, Fn fn) {
  if (m.channels == 1)
    fn(std::integral_constant<int, 1>{});
  else
    fn(std::integral_constant<int, 3>{});
}

TEST(ForegroundGaussian, StateAtCreation) {
  for (const ForegroundMember& m : kMembers) withChannels(m, [&](auto channels) {
    constexpr int C = decltype(channels)::value;
    const int w = 9, h = 4;
    std::vector<Kvl8u> src(static_cast<size_t>(w * C + 5) * h);
    for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<Kvl8u>(i * 37);
    KvliFGGaussianState* st = nullptr;
    ASSERT_EQ(m.gaussInit(src.data(), w * C + 5, {w, h}, &kModelTag, &st), kvlStatusOk);
    EXPECT_EQ(st->backgroundStep, w * C);
    EXPECT_EQ(st->foregroundStep, w);
    EXPECT_EQ(st->history, 200);
    EXPECT_EQ(st->numGauss, 5);
    EXPECT_EQ(st->bgRatio, 0.7);
    EXPECT_EQ(st->stdThreshold, 2.5);
    EXPECT_EQ(st->reserved1, 15.0);
    EXPECT_EQ(st->reserved2, 0.05);
    EXPECT_EQ(st->initVariance, 900.0);
    EXPECT_EQ(st->frameCount, 0);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const long long px = static_cast<long long>(y) * w + x;
        const Kvl8u* v = &src[static_cast<size_t>(y) * (w * C + 5) + x * C];
        EXPECT_EQ(std::memcmp(st->pBackground + px * C, v, C), 0);
        EXPECT_EQ(reinterpret_cast<Kvl8u*>(st->pPixels[px]),
                  reinterpret_cast<Kvl8u*>(st->pPixels[0]) + px * 160);  // one block, pixel order
        typename GaussModel<C>::Comp first{1, 1, 12.5, {}}, other{0, 0, 12.5, {}};
        for (int c = 0; c < C; ++c) first.mean[c] = v[c];
        EXPECT_TRUE(sameRecord(recordOf<C>(st, px, 0), first));
        for (int k = 1; k < 5; ++k) EXPECT_TRUE(sameRecord(recordOf<C>(st, px, k), other));
      }
    EXPECT_EQ(m.gaussFree(st), kvlStatusOk);
  });
}

// A constant video: the first component keeps matching, the mask stays 0 and the background is
// the input; then one sample jumps far: the last component becomes {1, _, 900, x} and the mask is
// 255 there (the matched flags are all clear).
TEST(ForegroundGaussian, ConstantVideoThenAJump) {
  for (const ForegroundMember& m : kMembers) {
    const int w = 21, h = 3, C = m.channels;
    Image<Kvl8u, 3> src(w, h, 0, 11);  // three channels of room for either member
    src.fill([](int x, int y, int c) { return static_cast<Kvl8u>(40 + 7 * x + y + c); });
    const int step = src.step();
    KvliFGGaussianState* st = nullptr;
    ASSERT_EQ(m.gaussInit(src.roi(), step, {w, h}, &kModelTag, &st), kvlStatusOk);
    std::vector<Kvl8u> bg(static_cast<size_t>(w) * h * C), fg(static_cast<size_t>(w) * h, 99);
    for (int t = 0; t < 12; ++t) {
      ASSERT_EQ(m.gauss(src.roi(), step, bg.data(), w * C, fg.data(), w, {w, h}, st), kvlStatusOk);
      for (int y = 0; y < h; ++y)
        for (int i = 0; i < w * C; ++i)
          ASSERT_EQ(bg[static_cast<size_t>(y) * w * C + i], src.roi()[y * step + i]);
      for (Kvl8u v : fg) ASSERT_EQ(v, 0);
    }
    src.roi()[step + 5 * C] = 250;  // pixel (5, 1), first channel
    ASSERT_EQ(m.gauss(src.roi(), step, bg.data(), w * C, fg.data(), w, {w, h}, st), kvlStatusOk);
    bool replaced = false;
    withChannels(m, [&](auto channels) {
      constexpr int C3 = decltype(channels)::value;
      for (int k = 0; k < 5; ++k) {
        const auto r = recordOf<C3>(st, 1LL * w + 5, k);
        replaced |= r.count == 1 && r.variance == 900 && r.mean[0] == 250;
      }
    });
    EXPECT_TRUE(replaced);
    EXPECT_EQ(fg[static_cast<size_t>(w) + 5], 255);
    EXPECT_EQ(fg[static_cast<size_t>(w) + 6], 0);
    EXPECT_EQ(m.gaussFree(st), kvlStatusOk);
  }
}

// Any two non-null model pointers give the same bytes: the pointer is never read.
TEST(ForegroundModels, ModelPointerIsNotRead) {
  for (const ForegroundMember& m : kMembers) {
    const int w = 16, h = 3, C = m.channels;
    const double someModel[4] = {1, 2, 3, 4};
    std::vector<Kvl8u> outs[2];
    const void* models[2] = {&kModelTag, someModel};
    for (int i = 0; i < 2; ++i) {
      KvliFGGaussianState* st = nullptr;
      KvliFGHistogramState* hs = nullptr;
      std::vector<Kvl8u> f = videoFrame(0, w, h, C), prev = f;
      ASSERT_EQ(m.gaussInit(f.data(), w * C, {w, h}, models[i], &st), kvlStatusOk);
      ASSERT_EQ(m.histInit(f.data(), w * C, {w, h}, models[i], &hs), kvlStatusOk);
      std::vector<Kvl8u> bg(f.size()), fg(static_cast<size_t>(w) * h);
      for (int t = 1; t < 6; ++t) {
        f = videoFrame(t, w, h, C);
        ASSERT_EQ(m.gauss(f.data(), w * C, bg.data(), w * C, fg.data(), w, {w, h}, st), kvlStatusOk);
        outs[i].insert(outs[i].end(), bg.begin(), bg.end());
        outs[i].insert(outs[i].end(), fg.begin(), fg.end());
        ASSERT_EQ(m.hist(f.data(), w * C, bg.data(), w * C, fg.data(), w, {w, h}, hs), kvlStatusOk);
        ASSERT_EQ(m.histUpdate(f.data(), w * C, fg.data(), w, prev.data(), w * C, {w, h}, hs),
                  kvlStatusOk);
        prev = f;
        outs[i].insert(outs[i].end(), bg.begin(), bg.end());
        outs[i].insert(outs[i].end(), fg.begin(), fg.end());
      }
      m.gaussFree(st);
      m.histFree(hs);
    }
    EXPECT_EQ(outs[0], outs[1]);
  }
}

// Near ties in the ranking: two unmatched components whose weights and variances differ by a
// few units in the last place, so their keys round equal or either way. Every target's kernel
// ranks them as the reference does, records included (grey and colour records).
template <class Rec, class F, class Fn>
void nearTies(Fn refRow, const kvl::simd::Kernel<Fn>& kernel, int C) {
  constexpr int n = 203;  // vector groups and a tail
  std::mt19937_64 rng(77);
  std::vector<Rec> start(static_cast<size_t>(n) * 5);
  std::vector<Kvl8u> src(static_cast<size_t>(n) * C, 100);  // matches the first component only
  auto ulps = [&](F v) {
    const int steps = static_cast<int>(rng() % 9) - 4;
    for (int s = 0; s < std::abs(steps); ++s) v = std::nextafter(v, steps > 0 ? F(1e30) : F(0));
    return v;
  };
  auto rec = [](int count, F w, F v, F mean) {
    Rec r{};
    r.count = count, r.weight = w, r.variance = v;
    if constexpr (std::is_same_v<Rec, KvliFGGaussComponent>)
      r.mean = mean;
    else
      r.mean[0] = r.mean[1] = r.mean[2] = mean;
    return r;
  };
  for (int i = 0; i < n; ++i) {
    Rec* c = &start[static_cast<size_t>(i) * 5];
    const F w = F(0.05 + 0.2 * static_cast<double>(rng() % 1000) / 1000);
    const F v = F(20.0 + static_cast<double>(rng() % 500));
    c[0] = rec(40, 0.5, 9.0, 100);
    c[1] = rec(3, w, v, 10);
    c[2] = rec(3, ulps(w), ulps(v), 240);
    c[3] = rec(i % 3 == 0 ? 0 : 2, ulps(w), ulps(v), 30);
    c[4] = rec(1, i % 2 ? w : ulps(w), v, 200);
  }
  for (bool atHistory : {false, true}) {
    const kvl::bg::GaussParams p{6.25, 0.7, 900.0, 200, atHistory};
    std::vector<Rec> want = start;
    std::vector<Kvl8u> wantBg(src.size()), wantFg(n);
    refRow(src.data(), n, want.data(), p, wantBg.data(), wantFg.data());
    kvl::test::forEachTarget([&](int target) {
      std::vector<Rec> got = start;
      std::vector<Kvl8u> bg(src.size()), fg(n);
      kernel.at(target)(src.data(), n, got.data(), p, bg.data(), fg.data());
      EXPECT_EQ(std::memcmp(got.data(), want.data(), got.size() * sizeof got[0]), 0)
          << kvl::test::targetName(target) << " " << atHistory;
      EXPECT_EQ(bg, wantBg);
      EXPECT_EQ(fg, wantFg);
    });
  }
}

TEST(ForegroundGaussian, NearTiesRankAsTheReference) {
  nearTies<KvliFGGaussComponent, double>(&kvl::bg::ref::gaussRow, kvl::bg::kGaussRow, 1);
  nearTies<KvliFGGaussColourComponent, float>(&kvl::bg::ref::gaussRow3, kvl::bg::kGaussRow3, 3);
}

// Rows split over 2 and 3 threads give the serial bytes.
TEST(ForegroundGaussian, ThreadInvariance) {
  const int w = 512, h = 512;
  ASSERT_GT(kvl::par::teamPerPixel({w, h}, 2), 1);
  for (const ForegroundMember& m : kMembers) {
    const int C = m.channels;
    std::vector<Kvl8u> results[3];
    for (int threads = 1; threads <= 3; ++threads) {
      kvl::test::ThreadScope scope(threads);
      std::vector<Kvl8u> f = videoFrame(0, w, h, C);
      KvliFGGaussianState* st = nullptr;
      ASSERT_EQ(m.gaussInit(f.data(), w * C, {w, h}, &kModelTag, &st), kvlStatusOk);
      std::vector<Kvl8u> bg(f.size()), fg(static_cast<size_t>(w) * h);
      for (int t = 1; t < 4; ++t) {
        f = videoFrame(t, w, h, C);
        ASSERT_EQ(m.gauss(f.data(), w * C, bg.data(), w * C, fg.data(), w, {w, h}, st), kvlStatusOk);
      }
      results[threads - 1] = bg;
      results[threads - 1].insert(results[threads - 1].end(), fg.begin(), fg.end());
      m.gaussFree(st);
    }
    EXPECT_EQ(results[1], results[0]);
    EXPECT_EQ(results[2], results[0]);
  }
}

// ---- Validation: every row also checks that nothing was written ----

struct Call {
  const Kvl8u* src;
  int srcStep;
  Kvl8u* bg;
  int bgStep;
  Kvl8u* fg;
  int fgStep;
  KvliSize roi;
  bool nullState;
  bool otherState;  // a state of the other channel count
};

TEST(ForegroundModels, ClassificationValidation) {
  const int w = 6, h = 3;
  for (const ForegroundMember& m : kMembers) {
    const int C = m.channels;
    const ForegroundMember& other = kMembers[C == 1 ? 1 : 0];
    std::vector<Kvl8u> src(static_cast<size_t>(w + 2) * (h + 1) * 3, 50);
    std::vector<Kvl8u> bg(src.size(), 7), fg(src.size(), 7);
    const int s = (w + 2) * 3;  // generous steps: a larger ROI still has room
    using Mut = void (*)(Call&, int C);
    const struct {
      Mut mutate;
      KvlStatus want;
    } rows[] = {
        {[](Call& c, int) { c.src = nullptr; }, kvlStatusNullPointer},
        {[](Call& c, int) { c.bg = nullptr; }, kvlStatusNullPointer},
        {[](Call& c, int) { c.fg = nullptr; }, kvlStatusNullPointer},
        {[](Call& c, int) { c.nullState = true; }, kvlStatusNullPointer},
        {[](Call& c, int) { c.fg = nullptr, c.roi.width = 0; }, kvlStatusNullPointer},
        {[](Call& c, int) { c.roi.width = 0; }, kvlStatusBadSize},
        {[](Call& c, int) { c.roi.height = -1, c.srcStep = 0; }, kvlStatusBadSize},
        {[](Call& c, int C) { c.srcStep = 6 * C - 1; }, kvlStatusBadStep},
        {[](Call& c, int C) { c.bgStep = 6 * C - 1; }, kvlStatusBadStep},
        {[](Call& c, int) { c.fgStep = 5; }, kvlStatusBadStep},
        {[](Call& c, int) { c.fgStep = 5, c.otherState = true; }, kvlStatusBadStep},
        {[](Call& c, int) { c.roi.width = 7; }, kvlStatusBadSize},
        {[](Call& c, int) { c.roi.height = 4; }, kvlStatusBadSize},
        {[](Call& c, int) { c.roi.height = 2; }, kvlStatusBadSize},
        {[](Call& c, int) { c.otherState = true; }, kvlStatusBadContext},
        {[](Call& c, int C) { c.srcStep = c.bgStep = 6 * C, c.fgStep = 6; }, kvlStatusOk},
    };
    KvliFGGaussianState *gs = nullptr, *gOther = nullptr;
    KvliFGHistogramState *hs = nullptr, *hOther = nullptr;
    ASSERT_EQ(m.gaussInit(src.data(), s, {w, h}, &kModelTag, &gs), kvlStatusOk);
    ASSERT_EQ(other.gaussInit(src.data(), s, {w, h}, &kModelTag, &gOther), kvlStatusOk);
    ASSERT_EQ(m.histInit(src.data(), s, {w, h}, &kModelTag, &hs), kvlStatusOk);
    ASSERT_EQ(other.histInit(src.data(), s, {w, h}, &kModelTag, &hOther), kvlStatusOk);
    int row = 0;
    for (const auto& r : rows) {
      Call c{src.data(), s, bg.data(), s, fg.data(), s, {w, h}, false, false};
      r.mutate(c, C);
      for (int model = 0; model < 2; ++model) {
        const std::vector<Kvl8u> bg0 = bg, fg0 = fg;
        const int frames = gs->frameCount, hFrames = hs->frameCount;
        KvlStatus got;
        if (model == 0) {
          got = m.gauss(c.src, c.srcStep, c.bg, c.bgStep, c.fg, c.fgStep, c.roi,
                        c.nullState ? nullptr : c.otherState ? gOther : gs);
        } else {
          got = m.hist(c.src, c.srcStep, c.bg, c.bgStep, c.fg, c.fgStep, c.roi,
                       c.nullState ? nullptr : c.otherState ? hOther : hs);
        }
        EXPECT_EQ(got, r.want) << m.suffix << " row " << row << " model " << model;
        if (r.want != kvlStatusOk) {
          EXPECT_EQ(bg, bg0) << row;
          EXPECT_EQ(fg, fg0) << row;
          EXPECT_EQ(gs->frameCount, frames);
          EXPECT_EQ(hs->frameCount, hFrames);
        }
      }
      ++row;
    }
    // Update: its three images, then the state.
    std::vector<Kvl8u> mask(src.size(), 0);
    const struct {
      const Kvl8u *s, *m, *r;
      int ss, ms, rs;
      KvliSize roi;
      KvliFGHistogramState* st;
      KvlStatus want;
    } updates[] = {
        {nullptr, mask.data(), src.data(), s, s, s, {w, h}, hs, kvlStatusNullPointer},
        {src.data(), nullptr, src.data(), s, s, s, {w, h}, hs, kvlStatusNullPointer},
        {src.data(), mask.data(), nullptr, s, s, s, {0, h}, hs, kvlStatusNullPointer},
        {src.data(), mask.data(), src.data(), s, s, s, {w, h}, nullptr, kvlStatusNullPointer},
        {src.data(), mask.data(), src.data(), s, s, s, {w, 0}, hs, kvlStatusBadSize},
        {src.data(), mask.data(), src.data(), w * C - 1, s, s, {w, h}, hs, kvlStatusBadStep},
        {src.data(), mask.data(), src.data(), s, w - 1, s, {w, h}, hs, kvlStatusBadStep},
        {src.data(), mask.data(), src.data(), s, s, w * C - 1, {w, h}, hs, kvlStatusBadStep},
        {src.data(), mask.data(), src.data(), s, s, s, {w - 1, h}, hs, kvlStatusBadSize},
        {src.data(), mask.data(), src.data(), s, s, s, {w, h}, hOther, kvlStatusBadContext},
        {src.data(), mask.data(), src.data(), s, s, s, {w, h}, hs, kvlStatusOk},
    };
    for (const auto& u : updates)
      EXPECT_EQ(m.histUpdate(u.s, u.ss, u.m, u.ms, u.r, u.rs, u.roi, u.st), u.want) << m.suffix;
    EXPECT_EQ(m.gaussFree(gs), kvlStatusOk);
    EXPECT_EQ(other.gaussFree(gOther), kvlStatusOk);
    EXPECT_EQ(m.histFree(hs), kvlStatusOk);
    EXPECT_EQ(other.histFree(hOther), kvlStatusOk);
    EXPECT_EQ(m.gaussFree(nullptr), kvlStatusNullPointer);
    EXPECT_EQ(m.histFree(nullptr), kvlStatusNullPointer);
  }
}

TEST(ForegroundModels, InitAllocValidationAndNoMemory) {
  const Kvl8u src[64] = {};
  for (const ForegroundMember& m : kMembers) {
    const int C = m.channels;
    KvliFGGaussianState* const gMark = reinterpret_cast<KvliFGGaussianState*>(&gFailAt);
    KvliFGHistogramState* const hMark = reinterpret_cast<KvliFGHistogramState*>(&gFailAt);
    const struct {
      const Kvl8u* src;
      int step;
      KvliSize roi;
      const void* model;
      bool nullOut;
      KvlStatus want;
    } rows[] = {
        {nullptr, 4 * C, {4, 4}, &kModelTag, false, kvlStatusNullPointer},
        {src, 4 * C, {4, 4}, nullptr, false, kvlStatusNullPointer},
        {src, 4 * C, {4, 4}, &kModelTag, true, kvlStatusNullPointer},
        {nullptr, 4 * C, {0, 4}, &kModelTag, false, kvlStatusNullPointer},
        {src, 4 * C, {0, 4}, &kModelTag, false, kvlStatusBadSize},
        {src, 0, {4, -4}, &kModelTag, false, kvlStatusBadSize},
        {src, 4 * C - 1, {4, 4}, &kModelTag, false, kvlStatusBadStep},
    };
    for (const auto& r : rows) {
      KvliFGGaussianState* g = gMark;
      KvliFGHistogramState* hh = hMark;
      EXPECT_EQ(m.gaussInit(r.src, r.step, r.roi, r.model, r.nullOut ? nullptr : &g), r.want);
      EXPECT_EQ(m.histInit(r.src, r.step, r.roi, r.model, r.nullOut ? nullptr : &hh), r.want);
      EXPECT_EQ(g, gMark);
      EXPECT_EQ(hh, hMark);
    }
    // Every allocation failing in turn: NoMemory, nothing kept (the sanitizer build checks the
    // leaks) and the caller's pointer alone. The Gaussian model allocates 5 blocks, the
    // histogram model 8.
    for (int failing = 1; failing <= 8; ++failing) {
      KvliFGGaussianState* g = gMark;
      KvliFGHistogramState* hh = hMark;
      if (failing <= 5) {
        gFailAt = failing;
        EXPECT_EQ(m.gaussInit(src, 4 * C, {4, 4}, &kModelTag, &g), kvlStatusNoMemory) << failing;
        EXPECT_EQ(g, gMark);
      }
      gFailAt = failing;
      EXPECT_EQ(m.histInit(src, 4 * C, {4, 4}, &kModelTag, &hh), kvlStatusNoMemory) << failing;
      EXPECT_EQ(hh, hMark);
    }
    gFailAt = 6;
    KvliFGGaussianState* g = nullptr;
    EXPECT_EQ(m.gaussInit(src, 4 * C, {4, 4}, &kModelTag, &g), kvlStatusOk);
    EXPECT_EQ(gFailAt, 1);
    gFailAt = 9;
    KvliFGHistogramState* hh = nullptr;
    EXPECT_EQ(m.histInit(src, 4 * C, {4, 4}, &kModelTag, &hh), kvlStatusOk);
    EXPECT_EQ(gFailAt, 1);
    gFailAt = 0;
    EXPECT_EQ(m.gaussFree(g), kvlStatusOk);
    EXPECT_EQ(m.histFree(hh), kvlStatusOk);
  }
}

// ---- Histogram model ----

TEST(ForegroundHistogram, StateAndParameters) {
  for (const ForegroundMember& m : kMembers) {
    const int w = 5, h = 3, C = m.channels;
    std::vector<Kvl8u> src(static_cast<size_t>(w) * h * C);
    for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<Kvl8u>(i * 29);
    KvliFGHistogramState* st = nullptr;
    ASSERT_EQ(m.histInit(src.data(), w * C, {w, h}, &kModelTag, &st), kvlStatusOk);
    const KvliFGHistogramParams& q = st->params;
    const int ints[8] = {q.colourLevels, q.colourKept, q.colourEntries, q.changeLevels,
                         q.changeKept, q.changeEntries, q.fillHoles, q.cleanMask};
    const int wantInts[8] = {128, 15, 25, 64, 25, 40, 1, 1};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(ints[i], wantInts[i]) << i;
    const float floats[6] = {q.backgroundRate, q.statRate, q.referenceRate,
                             q.levelScale, q.backgroundShare, q.minArea};
    const float wantFloats[6] = {0.1f, 0.005f, 0.1f, 2.0f, 0.9f, 15.0f};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(floats[i], wantFloats[i]) << i;
    EXPECT_EQ(reinterpret_cast<const char*>(&st->params) + sizeof q,
              reinterpret_cast<const char*>(st) + 136);
    EXPECT_EQ(st->width, w);
    EXPECT_EQ(st->height, h);
    EXPECT_EQ(st->channels, C);
    EXPECT_EQ(std::vector<Kvl8u>(st->pBackground, st->pBackground + src.size()), src);
    EXPECT_EQ(std::vector<Kvl8u>(st->pPrevious, st->pPrevious + src.size()), src);
    for (int p = 0; p < w * h; ++p) {
      const KvliFGHistPixel& px = st->pPixels[p];
      EXPECT_EQ(px.colour, st->pColour + p * 25);
      EXPECT_EQ(px.change, st->pChange + p * 40);
      EXPECT_EQ(px.colour[0].pv, 1.0f);
      EXPECT_EQ(px.colour[0].v[C - 1], src[static_cast<size_t>(p) * C + C - 1] / 4);
      EXPECT_EQ(px.colour[1].used, 0);
      EXPECT_EQ(px.change[0].used, 0);
      EXPECT_EQ(st->pForeground[p], 0);
    }
    EXPECT_EQ(m.histFree(st), kvlStatusOk);
  }
}

// A static textured background with noise and two shapes moving across it: after a short
// learning phase the mask covers the shapes and hardly anything else.
TEST(ForegroundHistogram, SeparatesMovingShapesFromAStaticBackground) {
  const int w = 96, h = 64;
  for (const ForegroundMember& m : kMembers) {
    SCOPED_TRACE(m.suffix);
    const int C = m.channels;
    std::mt19937 rng(5);
    std::vector<Kvl8u> scene(static_cast<size_t>(w) * h * C);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        for (int c = 0; c < C; ++c)
          scene[(static_cast<size_t>(y) * w + x) * C + c] =
              static_cast<Kvl8u>(100 + 40 * std::sin(x * 0.2 + c) + 30 * std::cos(y * 0.15));
    auto inShape = [&](int t, int x, int y) {
      const bool square = x >= 5 + 2 * t && x < 17 + 2 * t && y >= 10 && y < 22;
      const int cx = w - 10 - t, cy = 45;
      const bool disc = (x - cx) * (x - cx) + (y - cy) * (y - cy) <= 36;
      return square || disc;
    };
    auto frame = [&](int t) {
      std::vector<Kvl8u> f = scene;
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
          for (int c = 0; c < C; ++c) {
            Kvl8u& v = f[(static_cast<size_t>(y) * w + x) * C + c];
            v = static_cast<Kvl8u>(v + static_cast<int>(rng() % 5) - 2);
            if (inShape(t, x, y)) v = static_cast<Kvl8u>(t % 2 ? 235 : 230);
          }
      return f;
    };
    std::vector<Kvl8u> prev = scene;
    KvliFGHistogramState* st = nullptr;
    ASSERT_EQ(m.histInit(prev.data(), w * C, {w, h}, &kModelTag, &st), kvlStatusOk);
    std::vector<Kvl8u> bg(scene.size()), fg(static_cast<size_t>(w) * h);
    long long hits = 0, shape = 0, wrong = 0, rest = 0;
    for (int t = 1; t <= 30; ++t) {
      const std::vector<Kvl8u> f = frame(t);
      ASSERT_EQ(m.hist(f.data(), w * C, bg.data(), w * C, fg.data(), w, {w, h}, st), kvlStatusOk);
      ASSERT_EQ(m.histUpdate(f.data(), w * C, fg.data(), w, prev.data(), w * C, {w, h}, st),
                kvlStatusOk);
      prev = f;
      if (t < 5) continue;
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
          const bool on = fg[static_cast<size_t>(y) * w + x] != 0;
          if (inShape(t, x, y)) {
            ++shape;
            hits += on;
          } else if (!inShape(t - 1, x, y)) {  // the uncovered trail may show for a frame
            ++rest;
            wrong += on;
          }
        }
    }
    EXPECT_GT(hits, shape * 95 / 100) << hits << " of " << shape;
    EXPECT_LT(wrong, rest / 100) << wrong << " of " << rest;
    // The background estimate stays the scene's within the noise.
    int far = 0;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        for (int c = 0; c < C; ++c) {
          const size_t i = (static_cast<size_t>(y) * w + x) * C + c;
          far += std::abs(bg[i] - scene[i]) > 3;
        }
    EXPECT_LT(far, w * h * C / 100);
    EXPECT_EQ(st->frameCount, 30);
    EXPECT_EQ(m.histFree(st), kvlStatusOk);
  }
}

}  // namespace
