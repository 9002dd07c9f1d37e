// Plain versions of the integral-image entry points for builds whose library does
// not export them yet (no validation beyond what the detector needs, no threads).
#include "pending_lib.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {
template <class T>
T* rowOf(T* base, int step, int y) {
  return reinterpret_cast<T*>(reinterpret_cast<uintptr_t>(base) + static_cast<intptr_t>(step) * y);
}
}  // namespace

extern "C" {

KvlStatus kvliIntegral_8u32s_C1R(const Kvl8u* s, int ss, Kvl32s* d, int ds, KvliSize roi, Kvl32s val) {
  for (int x = 0; x <= roi.width; ++x) d[x] = val;
  for (int y = 0; y < roi.height; ++y) {
    const Kvl8u* sr = rowOf(s, ss, y);
    Kvl32s* up = rowOf(d, ds, y);
    Kvl32s* dr = rowOf(d, ds, y + 1);
    dr[0] = val;
    uint32_t run = 0;
    for (int x = 0; x < roi.width; ++x) {
      run += sr[x];
      dr[x + 1] = static_cast<Kvl32s>(run + static_cast<uint32_t>(up[x + 1]));
    }
  }
  return kvlStatusOk;
}

KvlStatus kvliSqrIntegral_8u32f64f_C1R(const Kvl8u* s, int ss, Kvl32f* d, int ds, Kvl64f* q, int qs,
                                       KvliSize roi, Kvl32f val, Kvl64f valSqr) {
  for (int x = 0; x <= roi.width; ++x) d[x] = val, q[x] = valSqr;
  for (int y = 0; y < roi.height; ++y) {
    const Kvl8u* sr = rowOf(s, ss, y);
    Kvl32f *up = rowOf(d, ds, y), *dr = rowOf(d, ds, y + 1);
    Kvl64f *qu = rowOf(q, qs, y), *qr = rowOf(q, qs, y + 1);
    dr[0] = val, qr[0] = valSqr;
    int32_t run = 0;
    double runq = 0;
    for (int x = 0; x < roi.width; ++x) {
      run += sr[x];
      runq += static_cast<double>(sr[x]) * sr[x];
      dr[x + 1] = static_cast<float>(run) + up[x + 1];
      qr[x + 1] = runq + qu[x + 1];
    }
  }
  return kvlStatusOk;
}

KvlStatus kvliRectStdDev_32f_C1R(const Kvl32f* s, int ss, const Kvl64f* q, int qs, Kvl32f* d, int ds,
                                 KvliSize roi, KvliRect r) {
  const float n = static_cast<float>(r.width * r.height);
  for (int y = 0; y < roi.height; ++y)
    for (int x = 0; x < roi.width; ++x) {
      const int x0 = x + r.x, y0 = y + r.y, x1 = x0 + r.width, y1 = y0 + r.height;
      auto I = [&](int yy, int xx) { return static_cast<double>(rowOf(s, ss, yy)[xx]); };
      auto Q = [&](int yy, int xx) { return rowOf(q, qs, yy)[xx]; };
      const float sum = static_cast<float>(I(y1, x1) - I(y0, x1) + I(y0, x0) - I(y1, x0));
      const float sq = static_cast<float>(Q(y1, x1) - Q(y0, x1) + Q(y0, x0) - Q(y1, x0));
      const float mean = sum / n;
      float var = sq / n - mean * mean;
      if (var < 0) var = 0;
      rowOf(d, ds, y)[x] = std::sqrt(var);
    }
  return kvlStatusOk;
}

}  // extern "C"
