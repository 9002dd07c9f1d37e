// The multi-scale detector: per scale a resized image, its integral tables, the window standard
// deviation and one classifier call per stage over a mask of candidate windows.
#include "detector.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <unordered_map>

namespace kvl::detect {
namespace {

// The window's standard deviation is taken over the window less a one-pixel frame, and the
// cascade's thresholds are relative to that area times that deviation.
constexpr int kFrame = 1;

// Windows are tried on every second row and column while the image is scaled down by at most
// this factor, on every one beyond.
constexpr double kSparseUpTo = 2.0;

std::string statusText(const char* call, KvlStatus s) {
  return std::string(call) + " returned status " + std::to_string(s);
}

// Uninitialised storage that keeps its largest size: the library writes every element the
// search reads, and one thread's scales reuse the memory of its largest one.
template <class T>
class Buffer {
 public:
  T* get(size_t n) {
    if (n > size_) data_.reset(new T[n]), size_ = n;
    return data_.get();
  }

 private:
  std::unique_ptr<T[]> data_;
  size_t size_ = 0;
};

std::string tooManyHits() {
  return "more than " + std::to_string(kMaxHits) +
         " windows pass the cascade: it accepts too much to be grouped";
}

}  // namespace

// A tilted rectangle's top corner (x, y) is the top-right corner of its top pixel (x - 1, y);
// row k below the top runs from the left edge (going down-left for `height` rows, then
// down-right) to the right edge (down-right for `width` rows, then down-left): width + height
// rows of 2 x width x height pixels in all. The library's tilted table places its cones' apexes between two pixels, so
// no combination of its corners gives these runs; the upright table gives them exactly.
void tiltedRows(const CascadeRect& r, std::vector<KvliRect>* out) {
  for (int k = 0; k < r.width + r.height; ++k) {
    const int left = k < r.height ? r.x - 1 - k : r.x - 2 * r.height + k;
    const int right = k < r.width ? r.x - 1 + k : r.x + 2 * r.width - k - 2;
    out->push_back(KvliRect{left, r.y + k, right - left + 1, 1});
  }
}

std::vector<double> searchScales(int width, int height, int winWidth, int winHeight,
                                 const DetectParams& p) {
  std::vector<double> out;
  if (!(p.scaleFactor > 1.0) || winWidth < 1 || winHeight < 1) return out;
  for (double s = 1.0;; s *= p.scaleFactor) {
    const double bw = winWidth * s, bh = winHeight * s;
    const long sw = std::lround(width / s), sh = std::lround(height / s);
    if (sw < winWidth || sh < winHeight) break;
    if (p.maxSize > 0 && (bw > p.maxSize || bh > p.maxSize)) break;
    if (bw >= p.minSize && bh >= p.minSize) out.push_back(s);
  }
  return out;
}

void resizeBilinear(const uint8_t* src, int srcStep, int sw, int sh, uint8_t* dst, int dstStep,
                    int dw, int dh) {
  constexpr int kBits = 11, kOne = 1 << kBits;
  std::vector<int> x0(dw), fx(dw);
  const double rx = static_cast<double>(sw) / dw, ry = static_cast<double>(sh) / dh;
  for (int x = 0; x < dw; ++x) {
    const double c = std::clamp((x + 0.5) * rx - 0.5, 0.0, sw - 1.0);
    x0[x] = std::min(static_cast<int>(c), std::max(sw - 2, 0));
    fx[x] = static_cast<int>(std::lround((c - x0[x]) * kOne));
  }
  const int last = sw > 1 ? 1 : 0;
  std::vector<int> r0(dw), r1(dw);
  for (int y = 0; y < dh; ++y) {
    const double c = std::clamp((y + 0.5) * ry - 0.5, 0.0, sh - 1.0);
    const int y0 = std::min(static_cast<int>(c), std::max(sh - 2, 0));
    const int fy = static_cast<int>(std::lround((c - y0) * kOne));
    const uint8_t* a = src + static_cast<ptrdiff_t>(srcStep) * y0;
    const uint8_t* b = src + static_cast<ptrdiff_t>(srcStep) * std::min(y0 + 1, sh - 1);
    for (int x = 0; x < dw; ++x) {
      const int i = x0[x], f = fx[x];
      r0[x] = a[i] * (kOne - f) + a[i + last] * f;
      r1[x] = b[i] * (kOne - f) + b[i + last] * f;
    }
    uint8_t* d = dst + static_cast<ptrdiff_t>(dstStep) * y;
    for (int x = 0; x < dw; ++x)
      d[x] = static_cast<uint8_t>((r0[x] * (kOne - fy) + r1[x] * fy + (1 << (2 * kBits - 1))) >> (2 * kBits));
  }
}

namespace {

bool similar(const Box& a, const Box& b) {
  const double d = 0.2 * (std::min(a.width, b.width) + std::min(a.height, b.height)) * 0.5;
  return std::abs(a.x - b.x) <= d && std::abs(a.y - b.y) <= d &&
         std::abs(a.x + a.width - b.x - b.width) <= d &&
         std::abs(a.y + a.height - b.y - b.height) <= d;
}

uint64_t cellKey(long long cx, long long cy) {
  return (static_cast<uint64_t>(cy) << 32) ^ static_cast<uint32_t>(cx);
}

// Joins every pair of similar hits. Hits of one size come from one scale, so the pairs are
// sought between size classes whose widths are close enough to be similar (within 40%), through
// a grid whose cells are as large as the distance two similar corners can have: a hit meets only
// the hits of its own and the eight neighbouring cells, and grouping stays near-linear in the
// number of hits.
void joinSimilar(const std::vector<Box>& hits, std::vector<size_t>* parent) {
  auto root = [&](size_t i) {
    while ((*parent)[i] != i) i = (*parent)[i] = (*parent)[(*parent)[i]];
    return i;
  };
  std::map<std::pair<int, int>, std::vector<size_t>> classes;
  for (size_t i = 0; i < hits.size(); ++i) classes[{hits[i].width, hits[i].height}].push_back(i);
  std::unordered_map<uint64_t, std::vector<size_t>> grid;
  for (auto a = classes.begin(); a != classes.end(); ++a)
    for (auto b = a; b != classes.end() && b->first.first <= a->first.first * 1.4 + 1; ++b) {
      const double d = 0.1 * (std::min(a->first.first, b->first.first) +
                              std::min(a->first.second, b->first.second));
      const long long cell = static_cast<long long>(d) + 1;
      grid.clear();
      for (size_t j : b->second) grid[cellKey(hits[j].x / cell, hits[j].y / cell)].push_back(j);
      for (size_t i : a->second) {
        const long long cx = hits[i].x / cell, cy = hits[i].y / cell;
        for (long long y = cy - 1; y <= cy + 1; ++y)
          for (long long x = cx - 1; x <= cx + 1; ++x) {
            auto it = grid.find(cellKey(x, y));
            if (it == grid.end()) continue;
            for (size_t j : it->second)
              if (j != i && similar(hits[i], hits[j])) (*parent)[root(j)] = root(i);
          }
      }
    }
}

}  // namespace

std::vector<Box> groupBoxes(const std::vector<Box>& hits, int minNeighbors) {
  const size_t n = hits.size();
  std::vector<size_t> parent(n);
  for (size_t i = 0; i < n; ++i) parent[i] = i;
  joinSimilar(hits, &parent);
  auto root = [&](size_t i) {
    while (parent[i] != i) i = parent[i] = parent[parent[i]];
    return i;
  };
  struct Sum {
    long long x = 0, y = 0, w = 0, h = 0;
    int members = 0, count = 0;
  };
  std::vector<Sum> sums(n);
  for (size_t i = 0; i < n; ++i) {
    Sum& s = sums[root(i)];
    s.x += hits[i].x, s.y += hits[i].y, s.w += hits[i].width, s.h += hits[i].height;
    s.count += std::max(hits[i].neighbors, 1);
    ++s.members;
  }
  std::vector<Box> groups;
  for (size_t i = 0; i < n; ++i) {
    const Sum& s = sums[i];
    if (s.members == 0 || s.count < minNeighbors + 1) continue;
    const long long k = s.members;
    auto mean = [k](long long v) { return static_cast<int>((2 * v + k) / (2 * k)); };
    groups.push_back({mean(s.x), mean(s.y), mean(s.w), mean(s.h), s.count});
  }
  // A box is dropped when it lies inside a wider box (grown by a fifth of its size on each side)
  // with at least as many hits. Each box is entered in the grid cells its grown area covers, so a
  // box meets only the boxes that cover its centre.
  constexpr int kCell = 64;
  std::unordered_map<uint64_t, std::vector<size_t>> covering;
  for (size_t j = 0; j < groups.size(); ++j) {
    const Box& b = groups[j];
    const long long dx = b.width / 5, dy = b.height / 5;
    for (long long y = (std::max(0LL, b.y - dy)) / kCell; y <= (b.y + b.height + dy) / kCell; ++y)
      for (long long x = (std::max(0LL, b.x - dx)) / kCell; x <= (b.x + b.width + dx) / kCell; ++x)
        covering[cellKey(x, y)].push_back(j);
  }
  std::vector<Box> out;
  for (size_t i = 0; i < groups.size(); ++i) {
    const Box& a = groups[i];
    bool inside = false;
    auto it = covering.find(cellKey((a.x + a.width / 2) / kCell, (a.y + a.height / 2) / kCell));
    for (size_t j : it == covering.end() ? std::vector<size_t>{} : it->second) {
      const Box& b = groups[j];
      if (j == i || b.neighbors < a.neighbors || b.width <= a.width) continue;
      const int dx = b.width / 5, dy = b.height / 5;
      inside |= a.x >= b.x - dx && a.y >= b.y - dy && a.x + a.width <= b.x + b.width + dx &&
                a.y + a.height <= b.y + b.height + dy;
    }
    if (!inside) out.push_back(a);
  }
  std::sort(out.begin(), out.end(), [](const Box& a, const Box& b) {
    if (a.y != b.y) return a.y < b.y;
    if (a.x != b.x) return a.x < b.x;
    return a.width < b.width;
  });
  return out;
}

Detector::Detector(const Cascade& c) : width_(c.width), height_(c.height) {
  const float area = static_cast<float>((c.width - 2 * kFrame) * (c.height - 2 * kFrame));
  try {
    for (size_t s = 0; s < c.stages.size(); ++s) {
      const Stage& st = c.stages[s];
      std::vector<KvliRect> rects;
      std::vector<Kvl32f> weights, thresholds, below, above;
      std::vector<int> counts;
      for (const WeakClassifier& w : st.weak) {
        const Feature& f = c.features[static_cast<size_t>(w.feature)];
        const size_t first = rects.size();
        for (const CascadeRect& r : f.rects) {
          if (f.tilted) tiltedRows(r, &rects);
          else rects.push_back({r.x, r.y, r.width, r.height});
          weights.resize(rects.size(), r.weight);
        }
        counts.push_back(static_cast<int>(rects.size() - first));
        thresholds.push_back(w.threshold * area);
        below.push_back(w.below);
        above.push_back(w.above);
      }
      KvliHaarClassifier_32f* state = nullptr;
      KvlStatus r = kvliHaarClassifierInitAlloc_32f(&state, rects.data(), weights.data(),
                                                    thresholds.data(), below.data(), above.data(),
                                                    counts.data(), static_cast<int>(counts.size()));
      if (r != kvlStatusOk) throw CascadeError("stage " + std::to_string(s) + ": " + statusText("kvliHaarClassifierInitAlloc_32f", r));
      stages_.push_back({state, st.threshold});
    }
  } catch (...) {
    for (const StageState& s : stages_) kvliHaarClassifierFree_32f(s.state);
    throw;
  }
}

Detector::~Detector() {
  for (const StageState& s : stages_) kvliHaarClassifierFree_32f(s.state);
}

struct Detector::Workspace {
  Buffer<uint8_t> resized, mask;
  Buffer<Kvl32s> sum;
  Buffer<Kvl32f> sumf, norm;
  Buffer<Kvl64f> sqr;
};

std::vector<Box> Detector::searchScale(const uint8_t* grey, int step, int width, int height,
                                       double scale, Workspace& ws) const {
  const int sw = static_cast<int>(std::lround(width / scale));
  const int sh = static_cast<int>(std::lround(height / scale));
  const uint8_t* img = grey;
  int istep = step;
  if (sw != width || sh != height) {
    uint8_t* resized = ws.resized.get(static_cast<size_t>(sw) * sh);
    resizeBilinear(grey, step, width, height, resized, sw, sw, sh);
    img = resized;
    istep = sw;
  }
  const KvliSize size{sw, sh};
  const int tw = sw + 1;
  const size_t cells = static_cast<size_t>(tw) * (sh + 1);
  Kvl32s* sum = ws.sum.get(cells);
  Kvl32f* sumf = ws.sumf.get(cells);
  Kvl64f* sqr = ws.sqr.get(cells);
  KvlStatus r = kvliIntegral_8u32s_C1R(img, istep, sum, tw * 4, size, 0);
  if (r != kvlStatusOk) throw CascadeError(statusText("kvliIntegral_8u32s_C1R", r));
  r = kvliSqrIntegral_8u32f64f_C1R(img, istep, sumf, tw * 4, sqr, tw * 8, size, 0, 0);
  if (r != kvlStatusOk) throw CascadeError(statusText("kvliSqrIntegral_8u32f64f_C1R", r));
  const KvliSize roi{sw - width_ + 1, sh - height_ + 1};
  const size_t windows = static_cast<size_t>(roi.width) * roi.height;
  Kvl32f* norm = ws.norm.get(windows);
  r = kvliRectStdDev_32f_C1R(sumf, tw * 4, sqr, tw * 8, norm, roi.width * 4, roi,
                             KvliRect{kFrame, kFrame, width_ - 2 * kFrame, height_ - 2 * kFrame});
  if (r != kvlStatusOk) throw CascadeError(statusText("kvliRectStdDev_32f_C1R", r));
  // A flat window has deviation 0; it is taken as 1 / area, so that its classifiers compare the
  // feature (0 on a flat window) with the sign of their threshold, as the cascades were trained.
  const float flat = 1.0f / static_cast<float>((width_ - 2 * kFrame) * (height_ - 2 * kFrame));
  for (size_t i = 0; i < windows; ++i) norm[i] = norm[i] > 0 ? norm[i] : flat;
  const int grid = scale <= kSparseUpTo ? 2 : 1;
  Kvl8u* mask = ws.mask.get(windows);
  for (int y = 0; y < roi.height; ++y)
    for (int x = 0; x < roi.width; ++x)
      mask[static_cast<size_t>(y) * roi.width + x] = y % grid == 0 && x % grid == 0;
  int positive = 1;
  for (const StageState& s : stages_) {
    r = kvliApplyHaarClassifier_32s32f_C1R(sum, tw * 4, norm, roi.width * 4, mask, roi.width, roi,
                                           &positive, s.threshold, s.state);
    if (r != kvlStatusOk) throw CascadeError(statusText("kvliApplyHaarClassifier_32s32f_C1R", r));
    if (positive == 0) return {};
  }
  if (static_cast<size_t>(positive) > kMaxHits) throw CascadeError(tooManyHits());
  std::vector<Box> out;
  out.reserve(static_cast<size_t>(positive));
  const int bw = static_cast<int>(std::lround(width_ * scale));
  const int bh = static_cast<int>(std::lround(height_ * scale));
  for (int y = 0; y < roi.height; ++y)
    for (int x = 0; x < roi.width; ++x)
      if (mask[static_cast<size_t>(y) * roi.width + x])
        out.push_back({static_cast<int>(std::lround(x * scale)), static_cast<int>(std::lround(y * scale)), bw, bh, 1});
  return out;
}

std::vector<Box> Detector::hits(const uint8_t* grey, int step, int width, int height,
                                const DetectParams& p) const {
  const std::vector<double> scales = searchScales(width, height, width_, height_, p);
  std::vector<std::vector<Box>> perScale(scales.size());
  int threads = p.threads;
  if (threads < 1) kvlGetNumThreads(&threads);
  threads = std::clamp(threads, 1, std::max(1, static_cast<int>(scales.size())));
  if (threads == 1) {
    Workspace ws;
    for (size_t i = 0; i < scales.size(); ++i)
      perScale[i] = searchScale(grey, step, width, height, scales[i], ws);
  } else {
    // The largest images first, each thread taking the next scale as it frees and reusing its
    // memory; the first failure is kept and rethrown once every thread is done.
    std::exception_ptr error;
#pragma omp parallel num_threads(threads)
    {
      Workspace ws;
#pragma omp for schedule(dynamic, 1)
      for (size_t i = 0; i < scales.size(); ++i) {
        try {
          perScale[i] = searchScale(grey, step, width, height, scales[i], ws);
        } catch (...) {
#pragma omp critical(kvl_detect_error)
          if (!error) error = std::current_exception();
        }
      }
    }
    if (error) std::rethrow_exception(error);
  }
  size_t total = 0;
  for (const auto& v : perScale) total += v.size();
  if (total > kMaxHits) throw CascadeError(tooManyHits());
  std::vector<Box> out;
  out.reserve(total);
  for (const auto& v : perScale) out.insert(out.end(), v.begin(), v.end());
  return out;
}

std::vector<Box> Detector::detect(const uint8_t* grey, int step, int width, int height,
                                  const DetectParams& p) const {
  return groupBoxes(hits(grey, step, width, height, p), p.minNeighbors);
}

}  // namespace kvl::detect
