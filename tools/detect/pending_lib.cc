// Plain versions of the integral-image and classifier entry points for builds whose library does
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
struct Pt { int c, r; };
struct Rec {
  std::vector<Pt> pts;  // 4 per rectangle
  std::vector<float> w;
  float thr, v1, v2;
  int index;  // i << 8, bit 0 tilted
};
}  // namespace

struct KvliHaarClassifier_32f {
  std::vector<Rec> recs;
  int tilted = 0;
};

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

KvlStatus kvliHaarClassifierInitAlloc_32f(KvliHaarClassifier_32f** pp, const KvliRect* f, const Kvl32f* w,
                                          const Kvl32f* thr, const Kvl32f* v1, const Kvl32f* v2,
                                          const int* num, int length) {
  auto* st = new KvliHaarClassifier_32f;
  std::vector<int> first(length);
  int k = 0;
  for (int i = 0; i < length; ++i) first[i] = k, k += num[i];
  for (int pass = 0; pass < 3; ++pass)
    for (int i = 0; i < length; ++i) {
      const bool take = pass == 0 ? num[i] == 2 : pass == 1 ? num[i] == 3 : (num[i] != 2 && num[i] != 3);
      if (!take) continue;
      Rec r{{}, {}, thr[i], v1[i], v2[i], i << 8};
      for (int j = 0; j < num[i]; ++j) {
        const KvliRect q = f[first[i] + j];
        if (q.x < 0 || q.y < 0 || q.width < 1 || q.height < 1) {
          delete st;
          *pp = nullptr;
          return kvlStatusBadArgument;
        }
        r.pts.push_back({q.x + q.width, q.y + q.height});
        r.pts.push_back({q.x, q.y + q.height});
        r.pts.push_back({q.x + q.width, q.y});
        r.pts.push_back({q.x, q.y});
        r.w.push_back(w[first[i] + j]);
      }
      st->recs.push_back(std::move(r));
    }
  *pp = st;
  return kvlStatusOk;
}

KvlStatus kvliHaarClassifierFree_32f(KvliHaarClassifier_32f* st) {
  delete st;
  return kvlStatusOk;
}

KvlStatus kvliApplyHaarClassifier_32s32f_C1R(const Kvl32s* src, int ss, const Kvl32f* norm, int ns,
                                             Kvl8u* mask, int ms, KvliSize roi, int* pos,
                                             Kvl32f threshold, KvliHaarClassifier_32f* st) {
  int count = 0;
  for (int y = 0; y < roi.height; ++y)
    for (int x = 0; x < roi.width; ++x) {
      Kvl8u* m = rowOf(mask, ms, y) + x;
      if (!*m) continue;
      float stage = 0;
      const float nv = rowOf(norm, ns, y)[x];
      for (const Rec& r : st->recs) {
        const Kvl32s* base = rowOf(src, ss, y) + x;
        const int step = ss / 4;
        float f = 0;
        for (size_t j = 0; j < r.w.size(); ++j) {
          const Pt* p = &r.pts[4 * j];
          auto at = [&](Pt q) { return static_cast<uint32_t>(base[q.r * step + q.c]); };
          const int32_t sum = static_cast<int32_t>(at(p[0]) - at(p[1]) - at(p[2]) + at(p[3]));
          f += r.w[j] * static_cast<float>(sum);
        }
        stage += nv * r.thr > f ? r.v1 : r.v2;
      }
      if (threshold > stage) *m = 0;
      else ++count;
    }
  *pos = count;
  return kvlStatusOk;
}

}  // extern "C"
