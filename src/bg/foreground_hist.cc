// Histogram foreground model: per pixel, tables of quantised colour and colour-change statistics
// with their probabilities given the background, learnt from classified frames.
#include <climits>
#include <cstdlib>
#include <cstring>

#include "bg/foreground.h"
#include "core/check.h"
#include "core/pixel.h"
#include "core/services.h"
#include "impl_decls.h"

namespace kvl::bg {
namespace {

constexpr KvliFGHistogramParams kHistParams{128, 15, 25, 64, 25, 40, 1, 1,
                                            0.1f, 0.005f, 0.1f, 2.0f, 0.9f, 15.0f};
constexpr float kClearBelow = 1e-10f;

Kvl8u* allocBytes(long long bytes) {
  return bytes > INT_MAX ? nullptr : kvlsMalloc_8u(static_cast<int>(bytes));
}

void releaseHistogram(KvliFGHistogramState* st) {
  kvlsFree(st->pChange);
  kvlsFree(st->pColour);
  kvlsFree(st->pPixels);
  kvlsFree(st->pChanged);
  kvlsFree(st->pForeground);
  kvlsFree(st->pPrevious);
  kvlsFree(st->pBackground);
  kvlsFree(st);
}

// Level widths of the two tables (4 and 8 with the fixed parameters).
int colourWidth(const KvliFGHistogramParams& q) {
  return static_cast<int>(256.0f * q.levelScale / static_cast<float>(q.colourLevels));
}
int changeWidth(const KvliFGHistogramParams& q) {
  return static_cast<int>(256.0f * q.levelScale / static_cast<float>(q.changeLevels));
}

// A quantised feature: up to six level numbers (colour: 3 used; change: previous then current).
struct Feature {
  Kvl8u v[6];
};

// Two level numbers match when they are at most one level apart: noise across a level boundary
// does not make a new colour.
inline bool near(Kvl8u a, Kvl8u b) { return std::abs(a - b) <= 1; }

template <int C>
bool changedPixel(const Kvl8u* s, const Kvl8u* prev, int width) {
  for (int c = 0; c < C; ++c)
    if (std::abs(s[c] - prev[c]) > width) return true;
  return false;
}

template <int C>
bool colourMatch(const KvliFGColourEntry& e, const Feature& f) {
  if (!e.used) return false;
  for (int c = 0; c < C; ++c)
    if (!near(e.v[c], f.v[c])) return false;
  return true;
}
template <int C>
bool changeMatch(const KvliFGChangeEntry& e, const Feature& f) {
  if (!e.used) return false;
  for (int c = 0; c < C; ++c)
    if (!near(e.prev[c], f.v[c]) || !near(e.cur[c], f.v[3 + c])) return false;
  return true;
}

template <int C>
Feature colourFeature(const Kvl8u* s, int width) {
  Feature f{};
  for (int c = 0; c < C; ++c) f.v[c] = static_cast<Kvl8u>(s[c] / width);
  return f;
}
template <int C>
Feature changeFeature(const Kvl8u* prev, const Kvl8u* s, int width) {
  Feature f{};
  for (int c = 0; c < C; ++c) {
    f.v[c] = static_cast<Kvl8u>(prev[c] / width);
    f.v[3 + c] = static_cast<Kvl8u>(s[c] / width);
  }
  return f;
}

template <int C>
KvlStatus histogramInitAlloc(const Kvl8u* src, int srcStep, KvliSize roi, const void* model,
                             KvliFGHistogramState** out) {
  KVL_TRY(check::nonNull(src, model, out));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, check::Step<Kvl8u, C>{srcStep}));
  const long long pixels = static_cast<long long>(roi.width) * roi.height;
  const KvliFGHistogramParams& q = kHistParams;

  auto* st = reinterpret_cast<KvliFGHistogramState*>(allocBytes(sizeof(KvliFGHistogramState)));
  if (st == nullptr) return kvlStatusNoMemory;
  std::memset(st, 0, sizeof *st);
  // Each allocation only when every one before it succeeded; a failure releases them all.
  bool ok = (st->pBackground = allocBytes(pixels * C)) != nullptr &&
            (st->pPrevious = allocBytes(pixels * C)) != nullptr &&
            (st->pForeground = allocBytes(pixels)) != nullptr &&
            (st->pChanged = allocBytes(pixels)) != nullptr &&
            (st->pPixels = reinterpret_cast<KvliFGHistPixel*>(
                 allocBytes(pixels * static_cast<long long>(sizeof(KvliFGHistPixel))))) != nullptr &&
            (st->pColour = reinterpret_cast<KvliFGColourEntry*>(allocBytes(
                 pixels * q.colourEntries * static_cast<long long>(sizeof(KvliFGColourEntry))))) !=
                nullptr &&
            (st->pChange = reinterpret_cast<KvliFGChangeEntry*>(allocBytes(
                 pixels * q.changeEntries * static_cast<long long>(sizeof(KvliFGChangeEntry))))) !=
                nullptr;
  if (!ok) {
    releaseHistogram(st);
    return kvlStatusNoMemory;
  }
  st->width = roi.width;
  st->height = roi.height;
  st->channels = C;
  st->params = q;
  std::memset(st->pForeground, 0, static_cast<size_t>(pixels));
  std::memset(st->pChanged, 0, static_cast<size_t>(pixels));
  std::memset(st->pColour, 0, static_cast<size_t>(pixels) * q.colourEntries * sizeof(KvliFGColourEntry));
  std::memset(st->pChange, 0, static_cast<size_t>(pixels) * q.changeEntries * sizeof(KvliFGChangeEntry));
  const int cw = colourWidth(q);
  for (int y = 0; y < roi.height; ++y) {
    const Kvl8u* row = rowPtr(src, srcStep, y);
    const long long first = static_cast<long long>(y) * roi.width;
    std::memcpy(st->pBackground + first * C, row, static_cast<size_t>(roi.width) * C);
    std::memcpy(st->pPrevious + first * C, row, static_cast<size_t>(roi.width) * C);
    for (int x = 0; x < roi.width; ++x) {
      KvliFGHistPixel& px = st->pPixels[first + x];
      px = KvliFGHistPixel{st->pColour + (first + x) * q.colourEntries,
                           st->pChange + (first + x) * q.changeEntries, 1.0f, 0.0f, {0, 0}};
      const Feature f = colourFeature<C>(row + x * C, cw);
      KvliFGColourEntry& e = px.colour[0];
      e.pv = 1.0f;
      e.pvb = 1.0f;
      for (int c = 0; c < C; ++c) e.v[c] = f.v[c];
      e.used = 1;
    }
  }
  *out = st;
  return kvlStatusOk;
}

template <int C>
KvlStatus checkState(KvliSize roi, const KvliFGHistogramState* st) {
  if (roi.width != st->width || roi.height != st->height) return kvlStatusBadSize;
  if (st->channels != C) return kvlStatusBadContext;
  return kvlStatusOk;
}

template <int C>
KvlStatus histogramClassify(const Kvl8u* src, int srcStep, Kvl8u* bg, int bgStep, Kvl8u* fg,
                            int fgStep, KvliSize roi, KvliFGHistogramState* st) {
  KVL_TRY(check::nonNull(src, bg, fg, st));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, check::Step<Kvl8u, C>{srcStep}, check::Step<Kvl8u, C>{bgStep},
                       check::Step<Kvl8u, 1>{fgStep}));
  KVL_TRY(checkState<C>(roi, st));
  const KvliFGHistogramParams& q = st->params;
  const int cw = colourWidth(q), chw = changeWidth(q);
  const int w = roi.width, h = roi.height;

  // The raw decision of every pixel, into the caller's mask.
  for (int y = 0; y < h; ++y) {
    const Kvl8u* s = rowPtr(src, srcStep, y);
    const long long first = static_cast<long long>(y) * w;
    Kvl8u* out = rowPtr(fg, fgStep, y);
    for (int x = 0; x < w; ++x) {
      const Kvl8u* prev = st->pPrevious + (first + x) * C;
      const KvliFGHistPixel& px = st->pPixels[first + x];
      const bool changed = changedPixel<C>(s + x * C, prev, chw);
      st->pChanged[first + x] = changed ? 255 : 0;
      bool background = false;
      if (!changed) {
        const Feature f = colourFeature<C>(s + x * C, cw);
        for (int e = 0; e < q.colourKept; ++e) {
          if (!colourMatch<C>(px.colour[e], f)) continue;
          background = 2.0f * px.colour[e].pvb * px.priorStill > px.colour[e].pv;
          break;
        }
      } else {
        const Feature f = changeFeature<C>(prev, s + x * C, chw);
        for (int e = 0; e < q.changeKept; ++e) {
          if (!changeMatch<C>(px.change[e], f)) continue;
          background = 2.0f * px.change[e].pvb * px.priorChange > px.change[e].pv;
          break;
        }
      }
      out[x] = background ? 0 : 255;
    }
  }

  // Holes: a background pixel whose (inside) four neighbours are all foreground.
  for (int y = 0; y < h; ++y) {
    const Kvl8u* m = rowPtr(fg, fgStep, y);
    Kvl8u* o = st->pForeground + static_cast<long long>(y) * w;
    for (int x = 0; x < w; ++x) {
      o[x] = m[x];
      if (!q.fillHoles || m[x] != 0) continue;
      int inside = 0, set = 0;
      auto look = [&](int xx, int yy) {
        if (xx < 0 || yy < 0 || xx >= w || yy >= h) return;
        ++inside;
        set += rowPtr(fg, fgStep, yy)[xx] != 0;
      };
      look(x - 1, y);
      look(x + 1, y);
      look(x, y - 1);
      look(x, y + 1);
      if (inside > 0 && set == inside) o[x] = 255;
    }
  }
  // Isolated foreground pixels: none of the (inside) eight neighbours is foreground.
  for (int y = 0; y < h; ++y) {
    const Kvl8u* m = st->pForeground + static_cast<long long>(y) * w;
    Kvl8u* o = rowPtr(fg, fgStep, y);
    for (int x = 0; x < w; ++x) {
      o[x] = m[x];
      if (!q.cleanMask || m[x] == 0) continue;
      bool alone = true;
      for (int dy = -1; dy <= 1 && alone; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
          const int xx = x + dx, yy = y + dy;
          if ((dx == 0 && dy == 0) || xx < 0 || yy < 0 || xx >= w || yy >= h) continue;
          if (st->pForeground[static_cast<long long>(yy) * w + xx] != 0) {
            alone = false;
            break;
          }
        }
      if (alone) o[x] = 0;
    }
  }
  for (int y = 0; y < h; ++y) {
    const long long first = static_cast<long long>(y) * w;
    std::memcpy(st->pForeground + first, rowPtr(fg, fgStep, y), static_cast<size_t>(w));
    std::memcpy(rowPtr(bg, bgStep, y), st->pBackground + first * C, static_cast<size_t>(w) * C);
    std::memcpy(st->pPrevious + first * C, rowPtr(src, srcStep, y), static_cast<size_t>(w) * C);
  }
  st->frameCount += 1;
  return kvlStatusOk;
}

// One pixel's run: decay every entry towards the observation, add the feature when it is new,
// take a long-held unchanged colour as background, clear the improbable, re-sort by P(v).
template <class Entry, class Match, class Make>
void learnRun(Entry* run, int entries, bool background, float rate, float share, bool still,
              Match match, Make make) {
  int found = -1;
  for (int e = 0; e < entries; ++e)
    if (match(run[e])) {
      found = e;
      break;
    }
  const float keep = 1.0f - rate;
  for (int e = 0; e < entries; ++e) {
    if (!run[e].used) continue;
    const float hit = e == found ? 1.0f : 0.0f;
    run[e].pv = keep * run[e].pv + rate * hit;
    run[e].pvb = keep * run[e].pvb + rate * (background ? hit : 0.0f);
  }
  if (found < 0) {
    found = entries - 1;
    run[found] = make();
    run[found].pv = rate;
    run[found].pvb = background ? rate : 0.0f;
    run[found].used = 1;
  }
  if (still && run[found].pv > share) run[found].pvb = run[found].pv;
  for (int e = 0; e < entries; ++e)
    if (run[e].used && run[e].pv < kClearBelow) run[e] = Entry{};
  for (int e = 1; e < entries; ++e)
    for (int j = e; j > 0 && run[j - 1].pv < run[j].pv; --j) {
      const Entry t = run[j];
      run[j] = run[j - 1];
      run[j - 1] = t;
    }
}

template <int C>
KvlStatus histogramUpdate(const Kvl8u* src, int srcStep, const Kvl8u* mask, int maskStep,
                          const Kvl8u* ref, int refStep, KvliSize roi, KvliFGHistogramState* st) {
  KVL_TRY(check::nonNull(src, mask, ref, st));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, check::Step<Kvl8u, C>{srcStep}, check::Step<Kvl8u, 1>{maskStep},
                       check::Step<Kvl8u, C>{refStep}));
  KVL_TRY(checkState<C>(roi, st));
  const KvliFGHistogramParams& q = st->params;
  const int cw = colourWidth(q), chw = changeWidth(q);
  const float rate = q.statRate, keep = 1.0f - rate;
  for (int y = 0; y < roi.height; ++y) {
    const Kvl8u* s = rowPtr(src, srcStep, y);
    const Kvl8u* m = rowPtr(mask, maskStep, y);
    const Kvl8u* r = rowPtr(ref, refStep, y);
    const long long first = static_cast<long long>(y) * roi.width;
    for (int x = 0; x < roi.width; ++x) {
      KvliFGHistPixel& px = st->pPixels[first + x];
      const bool background = m[x] == 0;
      const float b = background ? 1.0f : 0.0f;
      if (!changedPixel<C>(s + x * C, r + x * C, chw)) {
        const Feature f = colourFeature<C>(s + x * C, cw);
        learnRun(
            px.colour, q.colourEntries, background, rate, q.backgroundShare, true,
            [&](const KvliFGColourEntry& e) { return colourMatch<C>(e, f); },
            [&] {
              KvliFGColourEntry e{};
              for (int c = 0; c < C; ++c) e.v[c] = f.v[c];
              return e;
            });
        px.priorStill = keep * px.priorStill + rate * b;
      } else {
        const Feature f = changeFeature<C>(r + x * C, s + x * C, chw);
        learnRun(
            px.change, q.changeEntries, background, rate, q.backgroundShare, false,
            [&](const KvliFGChangeEntry& e) { return changeMatch<C>(e, f); },
            [&] {
              KvliFGChangeEntry e{};
              for (int c = 0; c < C; ++c) {
                e.prev[c] = f.v[c];
                e.cur[c] = f.v[3 + c];
              }
              return e;
            });
        px.priorChange = keep * px.priorChange + rate * b;
      }
      if (background) {
        Kvl8u* est = st->pBackground + (first + x) * C;
        for (int c = 0; c < C; ++c)
          est[c] = static_cast<Kvl8u>(static_cast<int>(
              (1.0f - q.referenceRate) * est[c] + q.referenceRate * s[x * C + c] + 0.5f));
      }
    }
  }
  return kvlStatusOk;
}

KvlStatus histogramFree(KvliFGHistogramState* st) {
  if (st == nullptr) return kvlStatusNullPointer;
  releaseHistogram(st);
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::bg

#define KVL_FG_HIST(suffix, C)                                                                    \
  extern "C" KvlStatus impl_kvliForegroundHistogramInitAlloc_8u_##suffix(                         \
      const Kvl8u* pSrc, int srcStep, KvliSize roiSize, const void* pModel,                       \
      KvliFGHistogramState** ppState) {                                                           \
    return kvl::bg::histogramInitAlloc<C>(pSrc, srcStep, roiSize, pModel, ppState);               \
  }                                                                                               \
  extern "C" KvlStatus impl_kvliForegroundHistogram_8u_##suffix(                                  \
      const Kvl8u* pSrc, int srcStep, Kvl8u* pBackground, int backgroundStep, Kvl8u* pForeground, \
      int foregroundStep, KvliSize roiSize, KvliFGHistogramState* pState) {                       \
    return kvl::bg::histogramClassify<C>(pSrc, srcStep, pBackground, backgroundStep, pForeground, \
                                         foregroundStep, roiSize, pState);                        \
  }                                                                                               \
  extern "C" KvlStatus impl_kvliForegroundHistogramUpdate_8u_##suffix(                            \
      const Kvl8u* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, const Kvl8u* pRef,        \
      int refStep, KvliSize roiSize, KvliFGHistogramState* pState) {                              \
    return kvl::bg::histogramUpdate<C>(pSrc, srcStep, pMask, maskStep, pRef, refStep, roiSize,    \
                                       pState);                                                   \
  }                                                                                               \
  extern "C" KvlStatus impl_kvliForegroundHistogramFree_8u_##suffix(                              \
      KvliFGHistogramState* pState) {                                                             \
    return kvl::bg::histogramFree(pState);                                                        \
  }
KVL_FG_MEMBERS(KVL_FG_HIST)
#undef KVL_FG_HIST
