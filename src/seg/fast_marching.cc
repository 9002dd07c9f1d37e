// Fast marching: validation, the sweeps until nothing changes, and the final bound.
//
// Every sweep visits the pixels in one of the four row-major orders and updates each in place
// from its neighbours' current times, so each pixel reads the values the plain serial order
// gives it. Threads take stripes of rows; a stripe works through its rows block of columns by
// block, and starts a block only when the stripe before it in the sweep (above when going down,
// below when going up) has finished that block. The rows a stripe reads from its neighbour are
// then already final where the serial order has them final and not yet touched where it has them
// untouched, so the times are the serial ones for any team.
#include "seg/fast_marching.h"

#include <climits>
#include <cstring>
#include <new>

#include "core/check.h"
#include "core/parallel.h"
#include "core/pixel.h"
#include "core/services.h"
#include "impl_decls.h"

namespace kvl::seg {

int sweepSpan(const MarchField& f, int y, int x0, int x1, int k) {
  const int w = f.width;
  Kvl32f* row = rowPtr(f.time, f.step, y);
  const Kvl32f* up = y > 0 ? rowPtr(f.time, f.step, y - 1) : nullptr;
  const Kvl32f* down = y + 1 < f.height ? rowPtr(f.time, f.step, y + 1) : nullptr;
  uint8_t* m = f.mark + static_cast<size_t>(y) * w;
  const uint8_t* mUp = up ? m - w : nullptr;
  const uint8_t* mDown = down ? m + w : nullptr;
  const uint8_t cur = sweepMark(k), prev = sweepMark(k - 1);
  auto recent = [cur, prev](uint8_t v) { return v == cur || v == prev; };
  // Nothing recent in the span's rows (and the pixels either side of it in its own row): no
  // pixel of it can change.
  auto anyRecent = [cur, prev](const uint8_t* p, int a, int b) {
    const size_t n = static_cast<size_t>(b - a);
    return std::memchr(p + a, cur, n) != nullptr || std::memchr(p + a, prev, n) != nullptr;
  };
  if (!anyRecent(m, x0 > 0 ? x0 - 1 : 0, x1 < w ? x1 + 1 : w) &&
      !(mUp && anyRecent(mUp, x0, x1)) && !(mDown && anyRecent(mDown, x0, x1)))
    return 0;
  const bool right = sweepRight(k);
  int changes = 0;
  for (int i = 0; i < x1 - x0; ++i) {
    const int x = right ? x0 + i : x1 - 1 - i;
    const bool stale = recent(m[x]) || (x > 0 && recent(m[x - 1])) ||
                       (x + 1 < w && recent(m[x + 1])) || (mUp && recent(mUp[x])) ||
                       (mDown && recent(mDown[x]));
    if (!stale) continue;
    const float t = loadAny(row + x);
    if (t == 0.0f) continue;  // a feature pixel: every update is positive
    float t1 = x > 0 ? loadAny(row + x - 1) : kUnreached;
    if (x + 1 < w) {
      const float r = loadAny(row + x + 1);
      t1 = r < t1 ? r : t1;
    }
    float t2 = up ? loadAny(up + x) : kUnreached;
    if (down) {
      const float d = loadAny(down + x);
      t2 = d < t2 ? d : t2;
    }
    const float c = arrivalTime(t1, t2);
    if (c < t) {
      storeAny(row + x, c);
      m[x] = cur;
      ++changes;
    }
  }
  return changes;
}

namespace {

KvlStatus marchBufferSize(KvliSize roi, int* bytes) {
  KVL_TRY(check::nonNull(bytes));
  KVL_TRY(check::roi(roi));
  const long long w32 = (static_cast<long long>(roi.width) + 31) / 32 * 32;
  const long long total = (static_cast<long long>(roi.height) + 34) * (w32 + 5) + 40;
  if (total > INT_MAX) return kvlStatusBadSize;
  *bytes = static_cast<int>(total);
  return kvlStatusOk;
}

// One stripe of sweep k.
void sweepStripe(const MarchField& f, const par::Stripe& s, int k, MarchSlot* slots) {
  const bool down = sweepDown(k), right = sweepRight(k);
  const int blocks = (f.width + kMarchBlock - 1) / kMarchBlock;
  const int before = down ? s.index - 1 : s.index + 1;  // the stripe this one waits for
  const bool waits = before >= 0 && before < s.team;
  int changes = 0;
  for (int j = 0; j < blocks; ++j) {
    if (waits) par::waitUntil(slots[before].progress, j + 1);
    const int b = right ? j : blocks - 1 - j;
    const int x0 = b * kMarchBlock;
    const int x1 = f.width - x0 < kMarchBlock ? f.width : x0 + kMarchBlock;
    for (int i = 0; i < s.rows; ++i) {
      const int y = down ? s.y0 + i : s.y0 + s.rows - 1 - i;
      changes += sweepSpan(f, y, x0, x1, k);
    }
    slots[s.index].progress.store(j + 1, std::memory_order_release);
  }
  slots[s.index].changes = changes;
}

KvlStatus fastMarching(const Kvl8u* src, int srcStep, Kvl32f* dst, int dstStep, KvliSize roi,
                       Kvl32f radius, Kvl8u* buffer) {
  KVL_TRY(check::nonNull(src, dst, buffer));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, check::Step<Kvl8u>{srcStep}, check::Step<Kvl32f>{dstStep}));
  if (radius < 0.0f) return kvlStatusBadArgument;

  const int w = roi.width, h = roi.height;
  const MarchField f{dst, dstStep, buffer, w, h};
  MarchSlot* slots = reinterpret_cast<MarchSlot*>(alignUp(buffer + static_cast<size_t>(w) * h, 64));
  int team = par::teamDistance(roi);
  if (team > kMarchMaxTeam) team = kMarchMaxTeam;
  if (team > h / kMarchMinRows) team = h / kMarchMinRows;
  if (team < 1) team = 1;

  // Feature pixels start at 0, the others unreached; every pixel counts as changed in sweep 0.
  par::runStripes(team, h, [&](const par::Stripe& s) {
    for (int y = s.y0; y < s.y0 + s.rows; ++y) {
      const Kvl8u* in = rowPtr(src, srcStep, y);
      Kvl32f* out = rowPtr(dst, dstStep, y);
      for (int x = 0; x < w; ++x) storeAny(out + x, in[x] == 0 ? 0.0f : kUnreached);
      std::memset(buffer + static_cast<size_t>(y) * w, sweepMark(0), static_cast<size_t>(w));
    }
  });

  // A sweep that changes nothing leaves every pixel at its update from its final neighbours, so
  // no later sweep of any order would change anything either.
  for (int k = 1;; ++k) {
    for (int i = 0; i < kMarchMaxTeam; ++i) new (&slots[i]) MarchSlot{{0}, 0};
    par::runStripes(team, h, [&](const par::Stripe& s) { sweepStripe(f, s, k, slots); });
    int changes = 0;
    for (int i = 0; i < kMarchMaxTeam; ++i) changes += slots[i].changes;
    if (changes == 0) break;
  }

  // Times beyond the bound become the bound.
  const float bound = radius + kRadiusSlack;
  par::runStripes(team, h, [&](const par::Stripe& s) {
    for (int y = s.y0; y < s.y0 + s.rows; ++y) {
      Kvl32f* out = rowPtr(dst, dstStep, y);
      for (int x = 0; x < w; ++x)
        if (loadAny(out + x) > bound) storeAny(out + x, bound);
    }
  });
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::seg

#define KVL_FAST_MARCHING(types)                                                                  \
  extern "C" KvlStatus impl_kvliFastMarchingGetBufferSize_##types##_C1R(KvliSize roiSize,         \
                                                                        int* pBufferSize) {       \
    return kvl::seg::marchBufferSize(roiSize, pBufferSize);                                       \
  }                                                                                               \
  extern "C" KvlStatus impl_kvliFastMarching_##types##_C1R(                                       \
      const Kvl8u* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl32f radius, \
      Kvl8u* pBuffer) {                                                                           \
    return kvl::seg::fastMarching(pSrc, srcStep, pDst, dstStep, roiSize, radius, pBuffer);        \
  }
KVL_FAST_MARCHING_MEMBERS(KVL_FAST_MARCHING)
#undef KVL_FAST_MARCHING
