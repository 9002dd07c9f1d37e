// Gaussian foreground model: creation, classification and release, expanded from the member
// table.
#include <climits>
#include <cstring>
#include <type_traits>

#include "bg/foreground.h"
#include "core/check.h"
#include "core/parallel.h"
#include "core/pixel.h"
#include "core/services.h"
#include "impl_decls.h"

namespace kvl::bg {
namespace {

// The block's base is kept in the pointer table's slack, right after the per-pixel pointers.
void** blockBaseCell(KvliFGGaussianState* st) {
  const long long pixels = static_cast<long long>(st->foregroundStep) * st->height;
  return reinterpret_cast<void**>(st->pPixels + pixels);
}

void releaseGaussian(KvliFGGaussianState* st) {
  if (st->pPixels != nullptr) {
    kvlsFree(*blockBaseCell(st));
    kvlsFree(st->pPixels);
  }
  kvlsFree(st->pForeground);
  kvlsFree(st->pBackground);
  kvlsFree(st);
}

// kvlsMalloc_8u for a 64-bit byte count: null when it does not fit an int.
Kvl8u* allocBytes(long long bytes) {
  return bytes > INT_MAX ? nullptr : kvlsMalloc_8u(static_cast<int>(bytes));
}

template <int C>
KvlStatus gaussianInitAlloc(const Kvl8u* src, int srcStep, KvliSize roi, const void* model,
                            KvliFGGaussianState** out) {
  KVL_TRY(check::nonNull(src, model, out));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, check::Step<Kvl8u, C>{srcStep}));
  const long long rowSamples = static_cast<long long>(roi.width) * C;
  const long long samples = rowSamples * roi.height, pixels = samples / C;

  auto* st = reinterpret_cast<KvliFGGaussianState*>(allocBytes(sizeof(KvliFGGaussianState)));
  if (st == nullptr) return kvlStatusNoMemory;
  std::memset(st, 0, sizeof *st);
  st->backgroundStep = static_cast<int>(rowSamples);
  st->foregroundStep = roi.width;
  st->height = roi.height;
  st->pBackground = allocBytes(samples);
  st->pForeground = st->pBackground ? allocBytes(pixels) : nullptr;
  st->pPixels = st->pForeground ? reinterpret_cast<KvliFGGaussComponent**>(allocBytes(
                                      pixels * static_cast<long long>(sizeof(void*)) + kTableSlack))
                                : nullptr;
  Kvl8u* block = st->pPixels ? allocBytes(pixels * kComponents * 32 + kBlockSlack) : nullptr;
  if (block == nullptr) {
    if (st->pPixels) kvlsFree(st->pPixels);
    st->pPixels = nullptr;
    releaseGaussian(st);
    return kvlStatusNoMemory;
  }
  *blockBaseCell(st) = block;

  st->history = kHistory;
  st->numGauss = kComponents;
  st->bgRatio = kBgRatio;
  st->stdThreshold = kStdThreshold;
  st->reserved1 = 15.0;
  st->reserved2 = 0.05;
  st->initVariance = kInitVariance;
  st->frameCount = 0;

  const uintptr_t a = reinterpret_cast<uintptr_t>(block);
  Kvl8u* recs = block + ((kRecordAlign - a % kRecordAlign) % kRecordAlign);
  std::memset(recs, 0, static_cast<size_t>(pixels) * kComponents * 32);
  std::memset(st->pForeground, 0, static_cast<size_t>(pixels));
  for (int y = 0; y < roi.height; ++y) {
    const Kvl8u* row = rowPtr(src, srcStep, y);
    std::memcpy(st->pBackground + y * rowSamples, row, static_cast<size_t>(rowSamples));
    for (long long i = 0; i < roi.width; ++i) {
      const long long s = y * static_cast<long long>(roi.width) + i;
      Kvl8u* at = recs + s * kComponents * 32;
      st->pPixels[s] = reinterpret_cast<KvliFGGaussComponent*>(at);
      if constexpr (C == 1) {
        auto* c = reinterpret_cast<KvliFGGaussComponent*>(at);
        c[0] = {1, 0, 1.0, kFirstVariance, static_cast<double>(row[i])};
        for (int k = 1; k < kComponents; ++k) c[k] = {0, 0, 0.0, kFirstVariance, 0.0};
      } else {
        auto* c = reinterpret_cast<KvliFGGaussColourComponent*>(at);
        const float v = static_cast<float>(kFirstVariance);
        const Kvl8u* px = row + 3 * i;
        c[0] = {1, 1.0f, v, {float(px[0]), float(px[1]), float(px[2])}, {0, 0}};
        for (int k = 1; k < kComponents; ++k) c[k] = {0, 0.0f, v, {0, 0, 0}, {0, 0}};
      }
    }
  }
  *out = st;
  return kvlStatusOk;
}

// The rows of one stripe: the kernel over each row's pixels, then the state's rows out.
template <int C, class Fn>
void gaussianRows(Fn fn, const GaussParams& p, KvliFGGaussianState* st, const Kvl8u* src,
                  int srcStep, Kvl8u* bgOut, int bgStep, Kvl8u* fgOut, int fgStep, int width,
                  int y0, int rows) {
  using Rec = std::conditional_t<C == 1, KvliFGGaussComponent, KvliFGGaussColourComponent>;
  const long long rowSamples = static_cast<long long>(width) * C;
  for (int y = y0; y < y0 + rows; ++y) {
    const Kvl8u* s = rowPtr(src, srcStep, y);
    Kvl8u* bg = st->pBackground + y * rowSamples;
    Kvl8u* fg = st->pForeground + static_cast<long long>(y) * width;
    fn(s, width, reinterpret_cast<Rec*>(st->pPixels[static_cast<long long>(y) * width]), p, bg, fg);
    std::memcpy(rowPtr(bgOut, bgStep, y), bg, static_cast<size_t>(rowSamples));
    std::memcpy(rowPtr(fgOut, fgStep, y), fg, static_cast<size_t>(width));
  }
}

template <int C>
KvlStatus gaussianClassify(const Kvl8u* src, int srcStep, Kvl8u* bg, int bgStep, Kvl8u* fg,
                           int fgStep, KvliSize roi, KvliFGGaussianState* st) {
  KVL_TRY(check::nonNull(src, bg, fg, st));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, check::Step<Kvl8u, C>{srcStep}, check::Step<Kvl8u, C>{bgStep},
                       check::Step<Kvl8u, 1>{fgStep}));
  if (roi.width != st->foregroundStep || roi.height != st->height) return kvlStatusBadSize;
  if (st->backgroundStep != roi.width * C) return kvlStatusBadContext;

  st->frameCount += 1;
  const GaussParams p{st->stdThreshold * st->stdThreshold, st->bgRatio, st->initVariance,
                      st->history, st->frameCount == st->history};
  const auto fn = [] {
    if constexpr (C == 1)
      return kGaussRow.pick();
    else
      return kGaussRow3.pick();
  }();
  // Rows are independent: any split gives the serial bytes.
  par::runStripes(par::teamPerPixel(roi), roi.height, [&](const par::Stripe& s) {
    gaussianRows<C>(fn, p, st, src, srcStep, bg, bgStep, fg, fgStep, roi.width, s.y0, s.rows);
  });
  return kvlStatusOk;
}

KvlStatus gaussianFree(KvliFGGaussianState* st) {
  if (st == nullptr) return kvlStatusNullPointer;
  releaseGaussian(st);
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::bg

#define KVL_FG_GAUSS(suffix, C)                                                                   \
  extern "C" KvlStatus impl_kvliForegroundGaussianInitAlloc_8u_##suffix(                          \
      const Kvl8u* pSrc, int srcStep, KvliSize roiSize, const void* pModel,                       \
      KvliFGGaussianState** ppState) {                                                            \
    return kvl::bg::gaussianInitAlloc<C>(pSrc, srcStep, roiSize, pModel, ppState);                \
  }                                                                                               \
  extern "C" KvlStatus impl_kvliForegroundGaussian_8u_##suffix(                                   \
      const Kvl8u* pSrc, int srcStep, Kvl8u* pBackground, int backgroundStep, Kvl8u* pForeground, \
      int foregroundStep, KvliSize roiSize, KvliFGGaussianState* pState) {                        \
    return kvl::bg::gaussianClassify<C>(pSrc, srcStep, pBackground, backgroundStep, pForeground,  \
                                        foregroundStep, roiSize, pState);                         \
  }                                                                                               \
  extern "C" KvlStatus impl_kvliForegroundGaussianFree_8u_##suffix(KvliFGGaussianState* pState) { \
    return kvl::bg::gaussianFree(pState);                                                         \
  }
KVL_FG_MEMBERS(KVL_FG_GAUSS)
#undef KVL_FG_GAUSS
