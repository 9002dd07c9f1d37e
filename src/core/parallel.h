// Threading: the two decision rules and the one stripe runner every threaded family uses.
//
// A family validates everything on the calling thread, asks a rule for its team size, then calls
// runStripes with a body that runs the serial kernel on one stripe of rows. A team of one is the
// serial path, so threaded and serial results are the same bytes.
#pragma once

#include <immintrin.h>
#include <omp.h>
#include <sched.h>

#include <atomic>

#include "kvlcv.h"
#include "services.h"

namespace kvl::par {

// Per-pixel families: serial below 262144 pixels, otherwise a team of `threads`.
constexpr int kPerPixelMin = 262144;
inline int teamPerPixel(KvliSize roi, int threads) {
  if (static_cast<long long>(roi.width) * roi.height < kPerPixelMin) return 1;
  return threads > 1 ? threads : 1;
}
inline int teamPerPixel(KvliSize roi) { return teamPerPixel(roi, ownGetNumThreads()); }

// Neighbourhood filters with border: parallel only when height >= 5 T, width >= 256, T >= 2,
// height >= 256 and runomp() != 0 (runomp() reports a core count, 0 when the die has one); the
// team is min(height / 128, cores, threads).
inline int teamBorderFilter(KvliSize roi, int maxThreads, int cores, int runompResult,
                            int threads) {
  const int t = maxThreads;
  const bool mayFork = runompResult != 0;
  if (!(roi.height >= 5 * t && roi.width >= 256 && t >= 2 && roi.height >= 256 && mayFork))
    return 1;
  int team = roi.height / 128;
  if (cores < team) team = cores;
  if (threads < team) team = threads;
  return team > 1 ? team : 1;
}
inline int teamBorderFilter(KvliSize roi) {
  return teamBorderFilter(roi, owncvGetMaxNumThreads(), kvlGetNumCoresOnDie(), runomp(),
                          ownGetNumThreads());
}

// Separable pipelines (the row passes of 8u16s and 16s, the column passes of 16s, 16s8u, 16s8s
// and Low_16s): a team of `threads` from width x height >= 32768 x maxThreads pixels; the column
// passes also need runsepomp(kernelSize) != 0, so kernels of 3 and 5 taps go parallel only on a
// die with several cores.
constexpr long long kPipelineMinPixelsPerThread = 32768;
inline int teamPipeline(KvliSize roi, int maxThreads, int threads) {
  if (static_cast<long long>(roi.width) * roi.height < kPipelineMinPixelsPerThread * maxThreads)
    return 1;
  return threads > 1 ? threads : 1;
}
inline int teamPipelineRow(KvliSize roi) {
  return teamPipeline(roi, owncvGetMaxNumThreads(), ownGetNumThreads());
}
inline int teamPipelineColumn(KvliSize roi, int kernelSize) {
  return runsepomp(kernelSize) != 0 ? teamPipelineRow(roi) : 1;
}

// Colour-to-grey gradient: min(width x height / 1024, height / 16, threads); 1 or less is serial.
inline int teamGradient(KvliSize roi, int threads) {
  long long team = static_cast<long long>(roi.width) * roi.height / 1024;
  if (roi.height / 16 < team) team = roi.height / 16;
  if (threads < team) team = threads;
  return team > 1 ? static_cast<int>(team) : 1;
}
inline int teamGradient(KvliSize roi) { return teamGradient(roi, ownGetNumThreads()); }

// Rectangle standard deviation over float tables: min(maxThreads, width x height / 1024); 1 or
// less is serial, otherwise the team is capped at 32 and at the permitted threads.
constexpr int kRectStdDevMaxTeam = 32;
inline int teamRectStdDev(KvliSize roi, int maxThreads, int threads) {
  long long team = static_cast<long long>(roi.width) * roi.height / 1024;
  if (maxThreads < team) team = maxThreads;
  if (team <= 1) return 1;
  if (team > kRectStdDevMaxTeam) team = kRectStdDevMaxTeam;
  if (threads < team) team = threads;
  return team > 1 ? static_cast<int>(team) : 1;
}
inline int teamRectStdDev(KvliSize roi) {
  return teamRectStdDev(roi, owncvGetMaxNumThreads(), ownGetNumThreads());
}

// Distance fields (the exact transform's passes and fast marching's sweeps): a team of the
// permitted thread count T when T >= 2, runomp() != 0 and the image has at least 65536 pixels;
// smaller images are not worth a region.
constexpr long long kDistanceMinPixels = 65536;
inline int teamDistance(KvliSize roi, int maxThreads, int runompResult) {
  if (maxThreads < 2 || runompResult == 0 ||
      static_cast<long long>(roi.width) * roi.height < kDistanceMinPixels)
    return 1;
  return maxThreads;
}
inline int teamDistance(KvliSize roi) {
  return teamDistance(roi, owncvGetMaxNumThreads(), runomp());
}

// Watershed distance method: the distance-field team, capped at 16 stripes of at least 8 rows.
constexpr int kWatershedMaxTeam = 16;
constexpr int kWatershedMinRows = 8;
inline int teamWatershed(KvliSize roi) {
  int team = teamDistance(roi);
  if (team > kWatershedMaxTeam) team = kWatershedMaxTeam;
  if (team > roi.height / kWatershedMinRows) team = roi.height / kWatershedMinRows;
  return team > 1 ? team : 1;
}

// One thread's share of the rows. Stripe edges inside the image are marked in memory, so a
// neighbourhood filter reads its neighbours' rows there instead of extending the border.
struct Stripe {
  int index;   // thread number t
  int team;    // threads n in the region
  int y0;      // first row
  int rows;    // number of rows (>= 1 when the body runs)
  int height;  // the whole image's height

  // The border flags this stripe adds to the caller's border type.
  int inMemFlags() const {
    return (y0 > 0 ? kvlBorderInMemTop : 0) | (y0 + rows < height ? kvlBorderInMemBottom : 0);
  }
  // This thread's part of a shared work buffer: bufferSize / n bytes at t * (bufferSize / n).
  long long bufferOffset(long long bufferSize) const { return index * (bufferSize / team); }
  long long bufferPart(long long bufferSize) const { return bufferSize / team; }
};

// Thread t of n over `height` rows: height / n rows each, the last thread takes the rest too.
inline Stripe stripeOf(int t, int n, int height) {
  const int rows = height / n;
  const int rest = height % n;
  return Stripe{t, n, t * rows, t == n - 1 ? rows + rest : rows, height};
}

// Thread t of n over `height` rows in stripes that differ by at most one row: rows
// t * height / n up to (t + 1) * height / n.
inline Stripe evenStripeOf(int t, int n, int height) {
  const int y0 = static_cast<int>(static_cast<long long>(t) * height / n);
  const int y1 = static_cast<int>(static_cast<long long>(t + 1) * height / n);
  return Stripe{t, n, y0, y1 - y0, height};
}

// How a region divides the rows: height / n each with the rest to the last thread (the common
// rule), or stripes of equal size to within one row.
enum class Split { kRestToLast, kEven };

// Runs body(const Stripe&) over `height` rows with a team of `team` threads. The master computes
// the split and publishes it through a barrier; a thread with no rows does nothing; a region that
// cannot fork runs as a team of one that takes every row.
// Calls body(stripe) on every thread of a team of up to `team` threads, the stripes split over
// the team the runtime gave (the master reads its size once); a team of one takes every row.
template <class Body>
void runTeamStripes(int team, int height, Split split, Body&& body) {
  if (team <= 1) {
    body(Stripe{0, 1, 0, height, height});
    return;
  }
  int n = 1;
#pragma omp parallel num_threads(team)
  {
#pragma omp master
    n = owncvGetNumThreads();
#pragma omp barrier
    const int t = owncvGetIdThreads();
    body(split == Split::kEven ? evenStripeOf(t, n, height) : stripeOf(t, n, height));
  }
}

template <class Body>
void runStripes(int team, int height, Body&& body, Split split = Split::kRestToLast) {
  runTeamStripes(team, height, split, [&](const Stripe& s) {
    if (s.rows >= 1) body(s);
  });
}

// Runs first(const Stripe&) on every stripe, waits for the whole team, then second(const Stripe&)
// on the same stripes: for a step whose stripes read what the others wrote in the step before.
template <class First, class Second>
void runStripesPhased(int team, int height, First&& first, Second&& second) {
  runTeamStripes(team, height, Split::kRestToLast, [&](const Stripe& s) {
    if (s.rows >= 1) first(s);
#pragma omp barrier
    if (s.rows >= 1) second(s);
  });
}

// Runs body(i) for every i in 0 .. count - 1, over a team of up to `team` threads: thread t of
// the n the runtime gave takes t, t + n, ... A team of one runs them in order on the caller.
// For work split into a fixed number of parts (so that the parts' layout in a buffer does not
// depend on how many threads the runtime grants).
template <class Body>
void runEach(int team, int count, Body&& body) {
  if (team <= 1 || count <= 1) {
    for (int i = 0; i < count; ++i) body(i);
    return;
  }
#pragma omp parallel num_threads(team)
  {
    const int n = owncvGetNumThreads(), t = owncvGetIdThreads();
    for (int i = t; i < count; i += n) body(i);
  }
}

// Spins (then yields) until `counter` reaches `target`; its acquire load orders what the threads
// that raised it wrote before they did.
inline void waitUntil(const std::atomic<int>& counter, int target) {
  for (int spins = 0; counter.load(std::memory_order_acquire) < target; ++spins) {
    if (spins < 64) {
      _mm_pause();
    } else {
      sched_yield();
    }
  }
}

}  // namespace kvl::par
