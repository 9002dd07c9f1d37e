// Sub-pixel copies and the pyramidal Lucas-Kanade tracker: validation, the state, and the
// per-point loop over the levels. Always on the calling thread.
#include "pyramid/optical_flow.h"

#include <climits>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "core/check.h"
#include "core/services.h"
#include "filter/deriv.h"
#include "impl_decls.h"

namespace kvl::pyramid {
namespace {

namespace dv = kvl::filter::deriv;

// ---- Sub-pixel copies. ----

template <class Src>
KvlStatus copySubpix(const Src* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roi,
                     Kvl32f dx, Kvl32f dy) {
  KVL_TRY(check::nonNull(pSrc, pDst));
  KVL_TRY(check::roi(roi));
  KVL_TRY(check::steps(roi.width, check::Step<Src>{srcStep}, check::Step<Kvl32f>{dstStep}));
  if (!(dx >= 0.0f && dx < 1.0f && dy >= 0.0f && dy < 1.0f)) return kvlStatusBadArgument;
  FlowKernels<Src>::subpix.pick()(pSrc, srcStep, pDst, dstStep, roi.width, roi.height,
                                  subpixOf(dx, dy));
  return kvlStatusOk;
}

template <class Src>
KvlStatus copySubpixIntersect(const Src* pSrc, int srcStep, KvliSize srcRoi, Kvl32f* pDst,
                              int dstStep, KvliSize dstRoi, KvliPoint32f point, KvliRect* pRect) {
  KVL_TRY(check::nonNull(pSrc, pDst, pRect));
  KVL_TRY(check::roi(srcRoi));
  KVL_TRY(check::roi(dstRoi));
  KVL_TRY(check::stepsCover(srcRoi.width, check::Step<Src>{srcStep}));
  KVL_TRY(check::stepsCover(dstRoi.width, check::Step<Kvl32f>{dstStep}));
  KVL_TRY(check::stepMultiples(check::Step<Src>{srcStep}, check::Step<Kvl32f>{dstStep}));
  if (!std::isfinite(point.x) || !std::isfinite(point.y)) return kvlStatusBadArgument;
  Corner cx{}, cy{};
  Span in{0, 0, 0, 0};
  if (cornerOf(point.x, &cx) && cornerOf(point.y, &cy))
    in = insideOf(cx, cy, dstRoi.width, dstRoi.height, srcRoi.width, srcRoi.height);
  if (in.w > 0) {
    const Src* src = rowPtr(pSrc, srcStep, static_cast<int>(cy.c + in.y)) + (cx.c + in.x);
    FlowKernels<Src>::subpix.pick()(src, srcStep, rowPtr(pDst, dstStep, in.y) + in.x, dstStep,
                                    in.w, in.h, subpixOf(cx.f, cy.f));
  }
  storeAny(pRect, KvliRect{in.x, in.y, in.w, in.h});
  return kvlStatusOk;
}

// ---- The state. ----

// The scratch block's size for an image of W x H and window side L, in 64 bits.
template <class Src>
long long scratchBytes(KvliSize roi, int L) {
  const KvliSize big{roi.width + 5, roi.height + 5};
  int sh = 0, sv = 0;
  if constexpr (std::is_same_v<Src, Kvl8u>) {
    impl_kvliFilterScharrHorizGetBufferSize_8u16s_C1R(big, &sh);
    impl_kvliFilterScharrVertGetBufferSize_8u16s_C1R(big, &sv);
  } else {
    impl_kvliFilterScharrHorizGetBufferSize_32f_C1R(big, &sh);
    impl_kvliFilterScharrVertGetBufferSize_32f_C1R(big, &sv);
  }
  const long long S = sh > sv ? sh : sv;
  const long long W = roi.width, H = roi.height, l = L;
  return 4 * (S + 2 * (W + 5) * (H + 5) + (4 * l + 12) * (l + 3) + (8 * l + 24) * (l + 3)) + 68;
}

template <class Src>
constexpr int32_t dataTypeOf() {
  return std::is_same_v<Src, Kvl8u> ? kvl8u : std::is_same_v<Src, Kvl16u> ? kvl16u : kvl32f;
}

template <class Src>
KvlStatus initAlloc(KvliOptFlowPyrLKState** ppState, KvliSize roi, int winSize, int hint) {
  KVL_TRY(check::nonNull(ppState));
  if (winSize < 1 || roi.width < 1 || roi.height < 1) return kvlStatusBadSize;
  const long long bytes = scratchBytes<Src>(roi, winSize);
  if (bytes > INT_MAX) return kvlStatusNoMemory;
  auto* st = reinterpret_cast<KvliOptFlowPyrLKState*>(
      kvlsMalloc_8u(static_cast<int>(sizeof(KvliOptFlowPyrLKState))));
  if (st == nullptr) return kvlStatusNoMemory;
  uint8_t* scratch = kvlsMalloc_8u(static_cast<int>(bytes));
  if (scratch == nullptr) {
    kvlsFree(st);
    return kvlStatusNoMemory;
  }
  *st = KvliOptFlowPyrLKState{roi.width, roi.height, kStateWord, dataTypeOf<Src>(),
                              static_cast<int32_t>(bytes), hint, winSize, scratch};
  storeAny(ppState, st);
  return kvlStatusOk;
}

template <class Src>
bool isStateOf(const KvliOptFlowPyrLKState* st) {
  return st->word == kStateWord && st->dataType == dataTypeOf<Src>();
}

template <class Src>
KvlStatus freeState(KvliOptFlowPyrLKState* st) {
  KVL_TRY(check::nonNull(st));
  if (!isStateOf<Src>(st)) return kvlStatusBadContext;
  kvlsFree(st->pScratch);
  kvlsFree(st);
  return kvlStatusOk;
}

// ---- Tracking. ----

// One level of a pyramid as the tracker reads it.
template <class Src>
struct Level {
  const Src* image;
  int step;
  int w, h;
  double rate;
  const Src* row(long long y) const { return rowPtr(image, step, static_cast<int>(y)); }
};

// Reads and checks levels 0 .. maxLev of a pyramid (see the validation order in the header); the
// checks of one kind run over both pyramids before the next kind.
template <class Src>
struct Levels {
  const KvliPyramid* pyr;
  int maxLev;
  // f(record, k) for k = 0 .. maxLev: the first failing status.
  template <class F>
  KvlStatus each(F f) const {
    const KvliPyramid p = loadAny(pyr);
    for (int k = 0; k <= maxLev; ++k) KVL_TRY(f(p, k));
    return kvlStatusOk;
  }
  KvlStatus arrays() const {
    const KvliPyramid p = loadAny(pyr);
    if (!p.pImage || !p.pRoi || !p.pStep || !p.pRate) return kvlStatusNullPointer;
    return each([](const KvliPyramid& r, int k) {
      return loadAny(r.pImage + k) == nullptr ? kvlStatusNullPointer : kvlStatusOk;
    });
  }
  KvlStatus sizes(KvliSize limit) const {
    return each([limit](const KvliPyramid& r, int k) {
      const KvliSize s = loadAny(r.pRoi + k);
      const bool over = k == 0 && (s.width > limit.width || s.height > limit.height);
      return s.width < 1 || s.height < 1 || over ? kvlStatusBadSize : kvlStatusOk;
    });
  }
  KvlStatus steps(bool multiples) const {
    return each([multiples](const KvliPyramid& r, int k) {
      const check::Step<Src> s{loadAny(r.pStep + k)};
      if (!multiples && !s.covers(loadAny(r.pRoi + k).width)) return kvlStatusBadStep;
      if (multiples && !s.multiple()) return kvlStatusStepNotMultiple;
      return kvlStatusOk;
    });
  }
  KvlStatus rates() const {
    return each([](const KvliPyramid& r, int k) {
      const double v = loadAny(r.pRate + k);
      return std::isfinite(v) && v > 0.0 ? kvlStatusOk : kvlStatusBadArgument;
    });
  }
  Level<Src> at(int k) const {
    const KvliPyramid p = loadAny(pyr);
    const KvliSize s = loadAny(p.pRoi + k);
    return {reinterpret_cast<const Src*>(loadAny(p.pImage + k)), loadAny(p.pStep + k), s.width,
            s.height, loadAny(p.pRate + k)};
  }
};

// Points are tracked in batches of up to kBatch: the batch's previous patches (each with a
// one-pixel frame) lie side by side in one wide image, so that each level's two Scharr passes
// run once over the whole batch with long rows. A point's gradients depend only on its own
// patch: the columns where two patches meet are computed and never used.
constexpr int kBatch = 16;

// The tracker's work memory, carved from the state's scratch: the wide patch image, its two
// Scharr results, one point's scaled gradients as double, and the Scharr ring. Each region has
// padding behind it for the vector kernels' last steps.
struct Work {
  int batch;     // points per batch
  int stride;    // floats per row of the wide images: batch x (L + 2)
  float* patch;  // (L + 2) rows
  float* ix;     // L rows; column b (L + 2) + x is window column x of point b
  float* iy;
  double* gx;  // L x L
  double* gy;
  uint8_t* ring;
  long long ringBytes;
};
constexpr long long kPadBytes = 128;
inline long long carve(long long& at, long long bytes) {
  at = roundUp(at, 64);
  const long long r = at;
  at += bytes + kPadBytes;
  return r;
}
// The layout for `batch` points; its end offset in *bytes.
Work layoutWork(uint8_t* base, int L, int batch, long long* bytes) {
  const long long l = L, e = l + 2, stride = batch * e;
  long long at = 64;  // room to align the state's block
  Work w{};
  w.batch = batch;
  w.stride = static_cast<int>(stride);
  const long long patch = carve(at, 4 * stride * e), ix = carve(at, 4 * stride * l),
                  iy = carve(at, 4 * stride * l), gx = carve(at, 8 * l * l), gy = carve(at, 8 * l * l);
  w.ringBytes = 12 * stride + 64;  // three float rows of the wide image, and alignment
  const long long ring = carve(at, w.ringBytes);
  *bytes = at;
  uint8_t* b = alignUp(base, 64) - 64;
  w.patch = reinterpret_cast<float*>(b + patch);
  w.ix = reinterpret_cast<float*>(b + ix);
  w.iy = reinterpret_cast<float*>(b + iy);
  w.gx = reinterpret_cast<double*>(b + gx);
  w.gy = reinterpret_cast<double*>(b + gy);
  w.ring = b + ring;
  return w;
}
// The largest batch the scratch holds (at least one point: the scratch size formula leaves room
// for it at any image size).
Work carveWork(uint8_t* scratch, long long scratchBytes, int L) {
  long long bytes = 0;
  for (int batch = kBatch; batch > 1; --batch) {
    const Work w = layoutWork(scratch, L, batch, &bytes);
    if (bytes <= scratchBytes) return w;
  }
  return layoutWork(scratch, L, 1, &bytes);
}

// One point of a batch at one level.
struct Point {
  KvliPoint32f p, q;  // the point and the estimate, level-0 pixels
  int status;
  float error;
  bool prepared;  // its patch is in the batch at this level
  float px, py;   // the point in this level's pixels
  Corner cx, cy;  // and its window's corner
  Span r;         // the copied part of its patch
};

template <class Src>
class Tracker {
 public:
  Tracker(int L, int maxIter, float threshold, const Work& work)
      : L_(L),
        maxIter_(maxIter),
        threshold2_(static_cast<double>(threshold) * static_cast<double>(threshold)),
        half_(0.5f * static_cast<float>(L - 1)),
        w_(work),
        subpix_(FlowKernels<Src>::subpix.pick()),
        sums_(FlowKernels<Src>::sums.pick()),
        error_(FlowKernels<Src>::error.pick()),
        matrix_(kMatrix.pick()),
        scharrX_(dv::kernelFor({dv::Kind::kScharrVert, 3, dv::Out::k32f}).pick()),
        scharrY_(dv::kernelFor({dv::Kind::kScharrHoriz, 3, dv::Out::k32f}).pick()) {}

  int batch() const { return w_.batch; }

  // Levels maxLev .. 0 of the n <= batch() points of pts (status maxLev + 1, q = p on entry).
  void run(const Levels<Src>& A, const Levels<Src>& B, int maxLev, Point* pts, int n) {
    for (int k = maxLev; k >= 0; --k) {
      const Level<Src> a = A.at(k), b = B.at(k);
      bool any = false;
      for (int i = 0; i < n; ++i) {
        Point& t = pts[i];
        t.prepared = t.status == k + 1 && copyPatch(a, i, &t);
        any = any || t.prepared;
      }
      if (!any) return;
      // Both gradients of every patch of the batch: output column c is wide column c + 1.
      const int e = L_ + 2;
      dv::Job job{w_.patch + w_.stride + 1, w_.stride * 4, nullptr, w_.stride * 4,
                  n * e - 2, L_, 0, L_, check::kInMemFlags, 0.0f, 1.0f, 0, w_.ring,
                  w_.ringBytes, false, 0};
      job.dst = w_.ix;
      scharrX_(job);
      job.dst = w_.iy;
      scharrY_(job);
      for (int i = 0; i < n; ++i) {
        Point& t = pts[i];
        if (!t.prepared) continue;
        float qx = static_cast<float>(t.q.x * b.rate), qy = static_cast<float>(t.q.y * b.rate);
        if (!level(b, i, t, &qx, &qy, k == 0 ? &t.error : nullptr)) continue;
        t.status = k;
        t.q = {static_cast<float>(qx / b.rate), static_cast<float>(qy / b.rate)};
      }
    }
  }

 private:
  // Window pixel (x, y) of point i in the wide images.
  ptrdiff_t slot(int i) const { return static_cast<ptrdiff_t>(i) * (L_ + 2); }
  const float* prevAt(int i, Span s) const {
    return w_.patch + static_cast<ptrdiff_t>(s.y + 1) * w_.stride + slot(i) + (s.x + 1);
  }
  ptrdiff_t gradAt(int i, Span s) const {
    return static_cast<ptrdiff_t>(s.y) * w_.stride + slot(i) + s.x;
  }
  ptrdiff_t at(Span s) const { return static_cast<ptrdiff_t>(s.y) * L_ + s.x; }
  static const Src* nextAt(const Level<Src>& b, Corner cx, Corner cy, Span u) {
    return b.row(cy.c + u.y) + (cx.c + u.x);
  }

  // Copies point i's framed patch into its slot; false when too little of it is inside the
  // image for a single gradient.
  bool copyPatch(const Level<Src>& a, int i, Point* t) {
    t->px = static_cast<float>(t->p.x * a.rate);
    t->py = static_cast<float>(t->p.y * a.rate);
    if (!cornerOf(t->px - half_, &t->cx) || !cornerOf(t->py - half_, &t->cy)) return false;
    const Corner ex{t->cx.c - 1, t->cx.f}, ey{t->cy.c - 1, t->cy.f};
    const int e = L_ + 2;
    t->r = insideOf(ex, ey, e, e, a.w, a.h);
    if (t->r.w < 3 || t->r.h < 3) return false;
    subpix_(a.row(ey.c + t->r.y) + (ex.c + t->r.x), a.step,
            w_.patch + static_cast<ptrdiff_t>(t->r.y) * w_.stride + slot(i) + t->r.x, w_.stride * 4,
            t->r.w, t->r.h, subpixOf(t->cx.f, t->cy.f));
    return true;
  }

  // The gradient matrix and the steps of point i at one level; false when the point is lost.
  // error (when asked) gets the final RMS difference.
  bool level(const Level<Src>& b, int i, const Point& t, float* qx, float* qy, float* error) {
    // The window pixels whose 3 x 3 neighbourhood was copied.
    p_ = Span{t.r.x, t.r.y, t.r.w - 2, t.r.h - 2};
    double g[3];
    matrix_(w_.ix + gradAt(i, p_), w_.iy + gradAt(i, p_), w_.stride, p_.w, p_.h, w_.gx + at(p_),
            w_.gy + at(p_), L_, g);
    const double gxx = g[0], gxy = g[1], gyy = g[2];
    const double det = gxx * gyy - gxy * gxy;
    if (det < kDetMin) return false;
    double pdx = 0.0, pdy = 0.0;
    for (int it = 1; it <= maxIter_; ++it) {
      Span u;
      Corner cx, cy;
      if (!nextWindow(b, *qx, *qy, &u, &cx, &cy)) return false;
      double bxy[2];
      sums_(nextAt(b, cx, cy, u), b.step, static_cast<int>(b.w - (cx.c + u.x)),
            subpixOf(cx.f, cy.f), prevAt(i, u), w_.stride, w_.gx + at(u), w_.gy + at(u), L_, u.w,
            u.h, bxy);
      const double dx = (bxy[0] * gyy - gxy * bxy[1]) / det;
      const double dy = (bxy[1] * gxx - gxy * bxy[0]) / det;
      *qx = static_cast<float>(static_cast<double>(*qx) + dx);
      *qy = static_cast<float>(static_cast<double>(*qy) + dy);
      if (dx * dx + dy * dy < threshold2_) break;
      if (it > 1 && std::fabs(dx + pdx) < kOscillation && std::fabs(dy + pdy) < kOscillation) {
        *qx = static_cast<float>(static_cast<double>(*qx) - dx * 0.5);
        *qy = static_cast<float>(static_cast<double>(*qy) - dy * 0.5);
        break;
      }
      pdx = dx;
      pdy = dy;
    }
    if (error == nullptr) return true;
    Span u;
    Corner cx, cy;
    if (!nextWindow(b, *qx, *qy, &u, &cx, &cy)) return false;
    double sum = 0.0;
    error_(nextAt(b, cx, cy, u), b.step, static_cast<int>(b.w - (cx.c + u.x)),
           subpixOf(cx.f, cy.f), prevAt(i, u), w_.stride, nullptr, nullptr, 0, u.w, u.h, &sum);
    const double pixels = static_cast<double>(u.w) * u.h;
    *error = sum > 0.0 ? static_cast<float>(std::sqrt(sum / pixels)) : 0.0f;
    return true;
  }

  // The part of the gradient window whose next samples at q lie inside the next image.
  bool nextWindow(const Level<Src>& b, float qx, float qy, Span* u, Corner* cx, Corner* cy) const {
    if (!cornerOf(qx - half_, cx) || !cornerOf(qy - half_, cy)) return false;
    *u = intersect(p_, insideOf(*cx, *cy, L_, L_, b.w, b.h));
    return u->w > 0;
  }

  int L_, maxIter_;
  double threshold2_;
  float half_;
  Work w_;
  SubpixFn<Src> subpix_;
  SumsFn<Src> sums_, error_;
  MatrixFn matrix_;
  dv::Fn scharrX_, scharrY_;
  Span p_{};
};

// The largest maxLev: a lost point's status, maxLev + 1, must fit the signed status byte.
constexpr int kMaxLevel = 126;

template <class Src>
KvlStatus track(const KvliPyramid* pPyr1, const KvliPyramid* pPyr2, const KvliPoint32f* pPrev,
                KvliPoint32f* pNext, Kvl8s* pStatus, Kvl32f* pError, int numFeat, int winSize,
                int maxLev, int maxIter, float threshold, KvliOptFlowPyrLKState* pState) {
  KVL_TRY(check::nonNull(pPyr1, pPyr2, pState, pPrev, pNext, pStatus, pError));
  if (numFeat < 1 || winSize < 1) return kvlStatusBadSize;
  const KvliOptFlowPyrLKState st = loadAny(pState);
  if (!isStateOf<Src>(&st)) return kvlStatusBadContext;
  if (winSize != st.winSize) return kvlStatusBadSize;
  if (maxLev < 0 || maxLev > kMaxLevel || maxIter < 1 || !(threshold >= 0.0f))
    return kvlStatusBadArgument;
  const Levels<Src> A{pPyr1, maxLev}, B{pPyr2, maxLev};
  if (maxLev > loadAny(pPyr1).level || maxLev > loadAny(pPyr2).level) return kvlStatusBadArgument;
  KVL_TRY(A.arrays());
  KVL_TRY(B.arrays());
  KVL_TRY(A.sizes({st.roiWidth, st.roiHeight}));
  KVL_TRY(B.sizes({st.roiWidth, st.roiHeight}));
  KVL_TRY(A.steps(false));
  KVL_TRY(B.steps(false));
  KVL_TRY(A.steps(true));
  KVL_TRY(B.steps(true));
  KVL_TRY(A.rates());
  KVL_TRY(B.rates());
  const uintptr_t p0 = reinterpret_cast<uintptr_t>(pPrev), n0 = reinterpret_cast<uintptr_t>(pNext);
  const uintptr_t bytes = static_cast<uintptr_t>(numFeat) * sizeof(KvliPoint32f);
  if (p0 != n0 && p0 < n0 + bytes && n0 < p0 + bytes) return kvlStatusInPlaceNotSupported;

  Tracker<Src> tracker(winSize, maxIter, threshold,
                       carveWork(st.pScratch, st.scratchBytes, winSize));
  Point pts[kBatch];
  for (int first = 0; first < numFeat; first += tracker.batch()) {
    const int n = numFeat - first < tracker.batch() ? numFeat - first : tracker.batch();
    for (int i = 0; i < n; ++i) {
      const KvliPoint32f p = loadAny(pPrev + first + i);
      pts[i] = Point{p, p, maxLev + 1, 0.0f, false, 0, 0, {}, {}, {}};
    }
    tracker.run(A, B, maxLev, pts, n);
    for (int i = 0; i < n; ++i) {
      storeAny(pNext + first + i, pts[i].q);
      pStatus[first + i] = static_cast<Kvl8s>(pts[i].status);
      storeAny(pError + first + i, pts[i].status == 0 ? pts[i].error : 0.0f);
    }
  }
  return kvlStatusOk;
}

}  // namespace
}  // namespace kvl::pyramid

namespace kp = kvl::pyramid;

#define KVL_OPTFLOW_DEFINE(Src, copySfx, flowSfx, code)                                          \
  extern "C" KvlStatus impl_kvliCopySubpix_##copySfx##_C1R(const Src* pSrc, int srcStep,        \
                                                           Kvl32f* pDst, int dstStep,           \
                                                           KvliSize roiSize, Kvl32f dx,         \
                                                           Kvl32f dy) {                         \
    return kp::copySubpix<Src>(pSrc, srcStep, pDst, dstStep, roiSize, dx, dy);                  \
  }                                                                                             \
  extern "C" KvlStatus impl_kvliCopySubpixIntersect_##copySfx##_C1R(                             \
      const Src* pSrc, int srcStep, KvliSize srcRoiSize, Kvl32f* pDst, int dstStep,              \
      KvliSize dstRoiSize, KvliPoint32f point, KvliRect* pRect) {                               \
    return kp::copySubpixIntersect<Src>(pSrc, srcStep, srcRoiSize, pDst, dstStep, dstRoiSize,   \
                                        point, pRect);                                          \
  }                                                                                             \
  extern "C" KvlStatus impl_kvliOpticalFlowPyrLKInitAlloc_##flowSfx##_C1R(                       \
      KvliOptFlowPyrLKState** ppState, KvliSize roiSize, int winSize, int hint) {               \
    return kp::initAlloc<Src>(ppState, roiSize, winSize, hint);                                 \
  }                                                                                             \
  extern "C" KvlStatus impl_kvliOpticalFlowPyrLK_##flowSfx##_C1R(                                \
      const KvliPyramid* pPyr1, const KvliPyramid* pPyr2, const KvliPoint32f* pPrev,            \
      KvliPoint32f* pNext, Kvl8s* pStatus, Kvl32f* pError, int numFeat, int winSize,            \
      int maxLev, int maxIter, Kvl32f threshold, KvliOptFlowPyrLKState* pState) {               \
    return kp::track<Src>(pPyr1, pPyr2, pPrev, pNext, pStatus, pError, numFeat, winSize, maxLev, \
                          maxIter, threshold, pState);                                          \
  }                                                                                             \
  extern "C" KvlStatus impl_kvliOpticalFlowPyrLKFree_##flowSfx##_C1R(                            \
      KvliOptFlowPyrLKState* pState) {                                                          \
    return kp::freeState<Src>(pState);                                                          \
  }
KVL_OPTFLOW_MEMBERS(KVL_OPTFLOW_DEFINE)
#undef KVL_OPTFLOW_DEFINE
