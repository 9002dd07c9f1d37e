// Haar classifier apply, every member: one stage of 10 or 200 stumps in a 24x24 window over the
// integral tables of a 640x480 scene, with a dense mask (every window a candidate) and a sparse
// one (about 5% of the windows, in small clusters, as after the first stages of a cascade). No
// peer has a single stage, so each case runs against the scalar reference. The mask is restored
// before every call (a copy of 300 KB, timed on both sides).
#include <cmath>
#include <cstring>
#include <memory>
#include <random>

#include "bench.h"
#include "detect/haar_members.h"
#include "scene.h"

namespace kvl::bench {
namespace {

constexpr int kWidth = 640, kHeight = 480, kWindow = 24;
constexpr int kRoiW = kWidth - kWindow, kRoiH = kHeight - kWindow;

struct Scene {
  // Upright (641 x 481) and tilted (642 x 482) tables as Kvl32s and Kvl32f.
  std::vector<Kvl32s> upI, tlI;
  std::vector<Kvl32f> upF, tlF;
  std::vector<Kvl32f> normF;  // window standard deviation
  std::vector<Kvl32s> normI;
  std::vector<Kvl8u> dense, sparse;
  Scene() {
    int step = 0;
    const std::vector<uint8_t> img = renderScene(kWidth, kHeight, &step);
    const int uc = kWidth + 1, tc = kWidth + 2;
    std::vector<int64_t> up(static_cast<size_t>(uc) * (kHeight + 1), 0), sq(up.size(), 0);
    std::vector<int64_t> tl(static_cast<size_t>(tc) * (kHeight + 2), 0);
    auto px = [&](int y, int x) -> int64_t { return img[static_cast<size_t>(y) * step + x]; };
    auto T = [&](int y, int x) -> int64_t& { return tl[static_cast<size_t>(y) * tc + x]; };
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        const size_t o = static_cast<size_t>(y + 1) * uc + x + 1;
        up[o] = px(y, x) + up[o - uc] + up[o - 1] - up[o - uc - 1];
        sq[o] = px(y, x) * px(y, x) + sq[o - uc] + sq[o - 1] - sq[o - uc - 1];
      }
      T(y + 2, 0) = T(y + 1, 1);
      for (int x = 1; x < kWidth; ++x)
        T(y + 2, x) = px(y, x - 1) + px(y, x) + T(y + 1, x - 1) + T(y + 1, x + 1) - T(y, x);
      T(y + 2, kWidth) =
          px(y, kWidth - 1) + T(y + 1, kWidth - 1) + T(y + 1, kWidth + 1) - T(y, kWidth);
      T(y + 2, kWidth + 1) = T(y + 1, kWidth);
    }
    for (int64_t v : up)
      upI.push_back(static_cast<Kvl32s>(v)), upF.push_back(static_cast<float>(v));
    for (int64_t v : tl)
      tlI.push_back(static_cast<Kvl32s>(v)), tlF.push_back(static_cast<float>(v));
    const double n = kWindow * kWindow;
    for (int y = 0; y < kRoiH; ++y) {
      for (int x = 0; x < kRoiW; ++x) {
        auto box = [&](const std::vector<int64_t>& t) {
          const size_t a = static_cast<size_t>(y) * uc + x, b = a + kWindow * uc;
          return static_cast<double>(t[b + kWindow] - t[b] - t[a + kWindow] + t[a]);
        };
        const double mean = box(up) / n;
        const double sd = std::sqrt(std::max(box(sq) / n - mean * mean, 1.0));
        normF.push_back(static_cast<float>(sd * n));
        normI.push_back(static_cast<Kvl32s>(sd * n));
      }
    }
    dense.assign(static_cast<size_t>(kRoiW) * kRoiH, 255);
    sparse.assign(dense.size(), 0);
    std::mt19937 rng(7);
    for (int k = 0; k < kRoiW * kRoiH / 20 / 9; ++k) {  // 3x3 clusters, about 5%
      const int cx = 1 + static_cast<int>(rng() % (kRoiW - 2)),
                cy = 1 + static_cast<int>(rng() % (kRoiH - 2));
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx)
          sparse[static_cast<size_t>(cy + dy) * kRoiW + cx + dx] = 255;
    }
  }
};

// A stage of `stumps` weak classifiers of 2 and 3 rectangles (one in ten tilted when `tilted`),
// thresholds spread over the features' range relative to the norm.
struct Stage {
  std::vector<KvliRect> rects;
  std::vector<float> wF, tF, v1F, v2F;
  std::vector<Kvl32s> wI, tI, v1I, v2I;
  std::vector<int> num;
  std::vector<Kvl8u> tiltMask;
  Stage(int stumps, bool tilted) {
    std::mt19937 rng(stumps);
    auto pick = [&](int lo, int hi) { return lo + static_cast<int>(rng() % (hi - lo + 1)); };
    for (int i = 0; i < stumps; ++i) {
      const int n = pick(0, 3) == 0 ? 3 : 2;
      const int w = pick(2, 6), h = pick(2, 8);
      const int x = pick(0, kWindow - n * w), y = pick(0, kWindow - h);
      for (int k = 0; k < n; ++k) {
        rects.push_back({x + k * w, y, w, h});
        const int weight = k == 1 ? -n : 1;
        wF.push_back(static_cast<float>(weight)), wI.push_back(weight);
      }
      const float thr = static_cast<float>(pick(-40, 40)) / 1000.0f;
      tF.push_back(thr), tI.push_back(pick(-40, 40) / 8);
      v1F.push_back(static_cast<float>(pick(-60, 60)) / 100.0f), v1I.push_back(pick(-60, 60));
      v2F.push_back(static_cast<float>(pick(-60, 60)) / 100.0f), v2I.push_back(pick(-60, 60));
      num.push_back(n);
      tiltMask.push_back(tilted && i % 10 == 5);
    }
  }
};

const bool registered = [] {
  auto scene = std::make_shared<std::unique_ptr<Scene>>();
  auto get = [scene]() -> Scene& {
    if (!*scene) *scene = std::make_unique<Scene>();
    return **scene;
  };
  static const detect::HaarApplyMember members[] = {
      KVL_HAAR_APPLY_MEMBERS(KVL_HAAR_APPLY_MEMBER_RECORD)};
  for (const detect::HaarApplyMember& m : members) {
    for (const int stumps : {10, 200}) {
      for (const bool sparse : {false, true}) {
        const std::string name = std::string(m.name + 4) + "/" + std::to_string(stumps) +
                                 "stumps/" + (sparse ? "sparse" : "dense") + "/640x480";
        auto body = [=, &m](benchmark::State& st) {
          Scene& sc = get();
          const Stage stage(stumps, m.mixed);
          void* state = nullptr;
          if (m.intValue) {
            kvliHaarClassifierInitAlloc_32s(reinterpret_cast<KvliHaarClassifier_32s**>(&state),
                                            stage.rects.data(), stage.wI.data(), stage.tI.data(),
                                            stage.v1I.data(), stage.v2I.data(), stage.num.data(),
                                            stumps);
            if (m.mixed)
              kvliTiltHaarFeatures_32s(stage.tiltMask.data(), 1,
                                       static_cast<KvliHaarClassifier_32s*>(state));
          } else {
            kvliHaarClassifierInitAlloc_32f(reinterpret_cast<KvliHaarClassifier_32f**>(&state),
                                            stage.rects.data(), stage.wF.data(), stage.tF.data(),
                                            stage.v1F.data(), stage.v2F.data(), stage.num.data(),
                                            stumps);
            if (m.mixed)
              kvliTiltHaarFeatures_32f(stage.tiltMask.data(), 1,
                                       static_cast<KvliHaarClassifier_32f*>(state));
          }
          const std::vector<Kvl8u>& pristine = sparse ? sc.sparse : sc.dense;
          std::vector<Kvl8u> mask(pristine);
          const void* up = m.intTable ? static_cast<const void*>(sc.upI.data()) : sc.upF.data();
          const void* tl = m.intTable ? static_cast<const void*>(sc.tlI.data()) : sc.tlF.data();
          const void* norm =
              m.intValue ? static_cast<const void*>(sc.normI.data()) : sc.normF.data();
          int positive = 0;
          for (auto _ : st) {
            std::memcpy(mask.data(), pristine.data(), mask.size());
            m.call(up, 4 * (kWidth + 1), tl, 4 * (kWidth + 2), norm, 4 * kRoiW, mask.data(), kRoiW,
                   {kRoiW, kRoiH}, &positive, 0.0f, 0, state, 0);
            benchmark::DoNotOptimize(positive);
          }
          st.counters["stay%"] = 100.0 * positive / (static_cast<double>(kRoiW) * kRoiH);
          if (m.intValue) {
            kvliHaarClassifierFree_32s(static_cast<KvliHaarClassifier_32s*>(state));
          } else {
            kvliHaarClassifierFree_32f(static_cast<KvliHaarClassifier_32f*>(state));
          }
        };
        versusReference(name, 1LL * kRoiW * kRoiH, body);
      }
    }
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
