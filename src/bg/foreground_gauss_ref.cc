// Scalar reference of the Gaussian foreground model: one channel sample at a time, the rules in
// the order they are stated, in double precision.
#include <cmath>

#include "bg/foreground.h"

namespace kvl::bg::ref {

void gaussRow(const Kvl8u* src, int n, KvliFGGaussComponent* recs, const GaussParams& p,
              Kvl8u* bg, Kvl8u* fg) {
  constexpr int K = kComponents;
  for (int i = 0; i < n; ++i) {
    KvliFGGaussComponent* c = recs + static_cast<std::ptrdiff_t>(i) * K;
    const double x = src[i];

    // The first component within the threshold matches.
    int matched[K] = {};
    int m = -1;
    for (int k = 0; k < K; ++k) {
      const double d = x - c[k].mean;
      if (p.threshold2 * c[k].variance > d * d) {
        matched[k] = 1;
        m = k;
        break;
      }
    }

    // The matched component's mean and variance move towards x by rho.
    auto learn = [&](KvliFGGaussComponent& ck, double rho) {
      const double d = x - ck.mean;
      ck.mean += rho * d;
      ck.variance += rho * (d * d - ck.variance);
    };
    // Nothing matched: the last component starts again at x; the sum of the counts after that.
    auto replaceLast = [&] {
      c[K - 1].count = 1;
      c[K - 1].variance = p.initVariance;
      c[K - 1].mean = x;
      int total = 0;
      for (int k = 0; k < K; ++k) total += c[k].count;
      return total;
    };

    if (!p.atHistory) {
      int sum = 0;
      for (int k = 0; k < K; ++k) sum += c[k].count;
      const double r = 1.0 / (1 + sum);
      for (int k = 0; k < K; ++k) {
        c[k].count += matched[k];
        c[k].weight += r * (matched[k] - c[k].weight);
        if (matched[k] && c[k].count > 0) learn(c[k], 1.0 / c[k].count);
      }
      if (m < 0) {
        const int total = replaceLast();
        for (int k = 0; k < K; ++k) c[k].weight = static_cast<double>(c[k].count) / total;
      }
    } else {
      const double r = 1.0 / p.history;
      for (int k = 0; k < K; ++k) {
        c[k].weight += r * (matched[k] - c[k].weight);
        if (matched[k]) learn(c[k], 1.0 / (p.history * c[k].weight));
      }
      if (m < 0) {
        c[K - 1].weight = 1.0 / replaceLast();
        for (int k = 0; k < K - 1; ++k) c[k].weight *= 1.0 - r;
      }
    }

    // Rank by weight / sqrt(variance), descending; a record moves up only past smaller keys.
    double key[K];
    for (int k = 0; k < K; ++k)
      key[k] = c[k].count == 0 ? 0.0 : c[k].weight / std::sqrt(c[k].variance);
    for (int k = 1; k < K; ++k) {
      for (int j = k; j > 0 && key[j - 1] < key[j]; --j) {
        const double tk = key[j];
        key[j] = key[j - 1];
        key[j - 1] = tk;
        const KvliFGGaussComponent tc = c[j];
        c[j] = c[j - 1];
        c[j - 1] = tc;
      }
    }

    bg[i] = static_cast<Kvl8u>(static_cast<int>(c[0].mean + 0.5));
    // The flags keep the matching order while the weights are the ranked ones.
    Kvl8u out = 255;
    double acc = 0.0;
    for (int k = 0; k < K; ++k) {
      acc += c[k].weight;
      if (matched[k]) out = 0;
      if (acc > p.bgRatio) break;
    }
    fg[i] = out;
  }
}

}  // namespace kvl::bg::ref
