// Scalar reference of the Gaussian foreground model: one sample at a time, the rules in the order
// they are stated; grey samples in double precision, colour pixels (one joint mixture each) in
// single precision.
#include <cmath>

#include "bg/foreground.h"

namespace kvl::bg::ref {
namespace {

inline double& meanOf(KvliFGGaussComponent& c, int) { return c.mean; }
inline float& meanOf(KvliFGGaussColourComponent& c, int ch) { return c.mean[ch]; }

// C channels per sample, arithmetic in F. The squared distance sums the channels' squares in
// order; the match test and the variance's step take it per channel (divided by C).
template <int C, class F, class Rec>
void gaussRowT(const Kvl8u* src, int n, Rec* recs, const GaussParams& p, Kvl8u* bg, Kvl8u* fg) {
  constexpr int K = kComponents;
  const F thr2 = static_cast<F>(p.threshold2), initVar = static_cast<F>(p.initVariance);
  const F bgRatio = static_cast<F>(p.bgRatio);
  for (int i = 0; i < n; ++i) {
    Rec* c = recs + static_cast<std::ptrdiff_t>(i) * K;
    F x[C];
    for (int ch = 0; ch < C; ++ch) x[ch] = src[i * C + ch];

    // The first component within the threshold matches.
    int matched[K] = {};
    int m = -1;
    F dev[C], dist = 0;
    for (int k = 0; k < K; ++k) {
      F e = 0;
      for (int ch = 0; ch < C; ++ch) {
        const F d = x[ch] - meanOf(c[k], ch);
        e = ch == 0 ? d * d : e + d * d;
        dev[ch] = d;
      }
      if (thr2 * c[k].variance * C > e) {
        matched[k] = 1;
        m = k;
        dist = e;
        break;
      }
    }

    // The matched component's mean and variance move towards x by rho.
    auto learn = [&](Rec& ck, F rho) {
      for (int ch = 0; ch < C; ++ch) meanOf(ck, ch) += rho * dev[ch];
      ck.variance += rho * (dist / C - ck.variance);
    };
    // Nothing matched: the last component starts again at x; the sum of the counts after that.
    auto replaceLast = [&] {
      c[K - 1].count = 1;
      c[K - 1].variance = initVar;
      for (int ch = 0; ch < C; ++ch) meanOf(c[K - 1], ch) = x[ch];
      int total = 0;
      for (int k = 0; k < K; ++k) total += c[k].count;
      return total;
    };

    if (!p.atHistory) {
      int sum = 0;
      for (int k = 0; k < K; ++k) sum += c[k].count;
      const F r = F(1) / static_cast<F>(1 + sum);
      for (int k = 0; k < K; ++k) {
        c[k].count += matched[k];
        c[k].weight += r * (static_cast<F>(matched[k]) - c[k].weight);
        if (matched[k] && c[k].count > 0) learn(c[k], F(1) / static_cast<F>(c[k].count));
      }
      if (m < 0) {
        const int total = replaceLast();
        for (int k = 0; k < K; ++k)
          c[k].weight = static_cast<F>(c[k].count) / static_cast<F>(total);
      }
    } else {
      const F r = F(1) / static_cast<F>(p.history);
      for (int k = 0; k < K; ++k) {
        c[k].weight += r * (static_cast<F>(matched[k]) - c[k].weight);
        if (matched[k]) learn(c[k], F(1) / (static_cast<F>(p.history) * c[k].weight));
      }
      if (m < 0) {
        c[K - 1].weight = F(1) / static_cast<F>(replaceLast());
        for (int k = 0; k < K - 1; ++k) c[k].weight *= F(1) - r;
      }
    }

    // Rank by weight / sqrt(variance), descending; a record moves up only past smaller keys.
    F key[K];
    for (int k = 0; k < K; ++k)
      key[k] = c[k].count == 0 ? F(0) : c[k].weight / std::sqrt(c[k].variance);
    for (int k = 1; k < K; ++k) {
      for (int j = k; j > 0 && key[j - 1] < key[j]; --j) {
        const F tk = key[j];
        key[j] = key[j - 1];
        key[j - 1] = tk;
        const Rec tc = c[j];
        c[j] = c[j - 1];
        c[j - 1] = tc;
      }
    }

    for (int ch = 0; ch < C; ++ch)
      bg[i * C + ch] = static_cast<Kvl8u>(static_cast<int>(meanOf(c[0], ch) + F(0.5)));
    // The flags keep the matching order while the weights are the ranked ones.
    Kvl8u out = 255;
    F acc = 0;
    for (int k = 0; k < K; ++k) {
      acc += c[k].weight;
      if (matched[k]) out = 0;
      if (acc > bgRatio) break;
    }
    fg[i] = out;
  }
}

}  // namespace

void gaussRow(const Kvl8u* src, int n, KvliFGGaussComponent* recs, const GaussParams& p,
              Kvl8u* bg, Kvl8u* fg) {
  gaussRowT<1, double>(src, n, recs, p, bg, fg);
}

void gaussRow3(const Kvl8u* src, int n, KvliFGGaussColourComponent* recs, const GaussParams& p,
               Kvl8u* bg, Kvl8u* fg) {
  gaussRowT<3, float>(src, n, recs, p, bg, fg);
}

}  // namespace kvl::bg::ref
