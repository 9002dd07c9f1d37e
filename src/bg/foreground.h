// Foreground models: the state layouts, the member table and the Gaussian model's row kernel.
//
// The states are plain structs so the tests read their fields here. The Gaussian model keeps
// five 32-byte component records per pixel (grey: one value; colour: a joint mixture of the
// three channels), laid out in one block in pixel order, so the records of neighbouring pixels
// are 160 bytes apart; the per-pixel pointer table points at them and the kernels walk the block
// directly.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bg/foreground_members.h"
#include "core/simd.h"
#include "kvlcv.h"

// One component of a sample's mixture.
struct KvliFGGaussComponent {
  Kvl32s count;
  Kvl32s pad;  // always 0
  Kvl64f weight;
  Kvl64f variance;
  Kvl64f mean;
};
static_assert(sizeof(KvliFGGaussComponent) == 32, "a component record is 32 bytes");

// One component of a colour pixel's joint mixture: one variance for the three channels.
struct KvliFGGaussColourComponent {
  Kvl32s count;
  Kvl32f weight;
  Kvl32f variance;
  Kvl32f mean[3];
  Kvl32s reserved[2];  // always 0
};
static_assert(sizeof(KvliFGGaussColourComponent) == 32, "a colour record is 32 bytes too");

struct KvliFGGaussianState {
  Kvl8u* pBackground;  // width x height x channels bytes
  int backgroundStep;  // width x channels
  Kvl8u* pForeground;  // width x height bytes
  int foregroundStep;  // width
  int history;         // 200
  int numGauss;        // 5
  Kvl64f bgRatio;      // 0.7
  Kvl64f stdThreshold; // 2.5
  Kvl64f reserved1;    // 15.0
  Kvl64f reserved2;    // 0.05
  Kvl64f initVariance; // 900.0
  KvliFGGaussComponent** pPixels;  // one per pixel into the record block (colour records in C3)
  int frameCount;
  int height;  // the ROI height (in the padding after frameCount)
};
static_assert(sizeof(KvliFGGaussianState) == 96, "the Gaussian state is 96 bytes");
static_assert(offsetof(KvliFGGaussianState, bgRatio) == 40, "three pointers' worth, then doubles");
static_assert(offsetof(KvliFGGaussianState, pPixels) == 80, "five doubles, then the table");
static_assert(offsetof(KvliFGGaussianState, frameCount) == 88, "the frame count last");

// Histogram model records.
struct KvliFGColourEntry {  // 12 bytes
  Kvl32f pv;    // P(v)
  Kvl32f pvb;   // P(v | background)
  Kvl8u v[3];   // quantised colour (C1: v[0], the rest 0)
  Kvl8u used;   // 1 when the entry holds a colour
};
static_assert(sizeof(KvliFGColourEntry) == 12, "a colour entry is 12 bytes");
struct KvliFGChangeEntry {  // 16 bytes
  Kvl32f pv;
  Kvl32f pvb;
  Kvl8u prev[3];  // quantised previous colour
  Kvl8u cur[3];   // quantised current colour
  Kvl8u used;
  Kvl8u pad;
};
static_assert(sizeof(KvliFGChangeEntry) == 16, "a change entry is 16 bytes");
struct KvliFGHistPixel {  // 32 bytes
  KvliFGColourEntry* colour;  // this pixel's run of colourEntries entries
  KvliFGChangeEntry* change;  // this pixel's run of changeEntries entries
  Kvl32f priorStill;          // P(background) among unchanged observations
  Kvl32f priorChange;         // P(background) among changed observations
  Kvl32s reserved[2];
};
static_assert(sizeof(KvliFGHistPixel) == 32, "a pixel record is 32 bytes");

struct KvliFGHistogramState {
  Kvl8u* pBackground;  // width x height x channels, first frame at creation
  Kvl8u* pPrevious;    // width x height x channels, first frame at creation
  Kvl8u* pForeground;  // width x height
  Kvl8u* pChanged;     // width x height, 255 where the last classified frame changed
  KvliFGHistPixel* pPixels;       // width x height records
  KvliFGColourEntry* pColour;     // width x height x 25 entries
  KvliFGChangeEntry* pChange;     // width x height x 40 entries
  int width;
  int height;
  int channels;
  int frameCount;  // classified frames
  int reserved[2];
  KvliFGHistogramParams params;
};
static_assert(sizeof(KvliFGHistogramParams) == 56, "fourteen parameters");
static_assert(sizeof(KvliFGHistogramState) == 136, "the histogram state is 136 bytes");
static_assert(offsetof(KvliFGHistogramState, params) == 80, "the parameters at the end");

namespace kvl::bg {

constexpr int kComponents = 5;
constexpr int kHistory = 200;
constexpr double kBgRatio = 0.7;
constexpr double kStdThreshold = 2.5;
constexpr double kInitVariance = 900.0;
constexpr double kFirstVariance = 12.5;
// Bytes of the per-sample pointer table and of the record block, per sample plus slack.
constexpr long long kTableSlack = 2048;
constexpr long long kBlockSlack = 20480;
constexpr int kRecordAlign = 64;  // the first record's alignment inside the block

// The model's constants as the kernels use them (read from the state on every call).
struct GaussParams {
  double threshold2;     // stdThreshold * stdThreshold
  double bgRatio;
  double initVariance;
  int history;
  bool atHistory;        // this call is the history-th
};

// n consecutive grey samples: their values, their records (kComponents each, contiguous), the
// background byte and the foreground flag (255 / 0) of each sample.
using GaussRowFn = void (*)(const Kvl8u* src, int n, KvliFGGaussComponent* recs,
                            const GaussParams& p, Kvl8u* bg, Kvl8u* fg);
// n consecutive colour pixels: 3n values, their records, 3n background bytes and n flags.
using GaussRow3Fn = void (*)(const Kvl8u* src, int n, KvliFGGaussColourComponent* recs,
                             const GaussParams& p, Kvl8u* bg, Kvl8u* fg);
extern const simd::Kernel<GaussRowFn> kGaussRow;
extern const simd::Kernel<GaussRow3Fn> kGaussRow3;

namespace ref {
void gaussRow(const Kvl8u* src, int n, KvliFGGaussComponent* recs, const GaussParams& p,
              Kvl8u* bg, Kvl8u* fg);
void gaussRow3(const Kvl8u* src, int n, KvliFGGaussColourComponent* recs, const GaussParams& p,
               Kvl8u* bg, Kvl8u* fg);
}  // namespace ref

}  // namespace kvl::bg
