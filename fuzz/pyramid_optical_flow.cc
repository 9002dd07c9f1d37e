// Fuzz target: the sub-pixel copies and the Lucas-Kanade tracker, every member of the family's
// table: each call on every vector target against the scalar reference, in guarded memory.
#include <cmath>
#include <vector>

#include "fuzz.h"
#include "pyramid/optical_flow_members.h"

namespace {

using namespace kvl::fuzz;
using kvl::pyramid::FlowMember;

const FlowMember kMembers[] = {KVL_OPTFLOW_MEMBERS(KVL_OPTFLOW_MEMBER_RECORD)};

Type sourceType(const FlowMember& m) {
  return m.real ? typeOf<Kvl32f>() : m.elemBytes == 2 ? typeOf<Kvl16u>() : typeOf<Kvl8u>();
}

// A fraction in [0, 1): 0 often (the pixel after is then not read), now and then any float.
float fraction(Input& in) {
  if (in.oneIn(16)) return in.f32();
  if (in.oneIn(3)) return 0.0f;
  return static_cast<float>(in.range(0, 4095)) / 4096.0f;
}

// A coordinate about [lo, hi], with fractions, now and then any float.
float coordinate(Input& in, int lo, int hi) {
  if (in.oneIn(24)) return in.f32();
  return static_cast<float>(in.range(lo * 8, hi * 8)) / 8.0f + fraction(in) / 8.0f;
}

void copy(Input& in, Session& s, const FlowMember& m) {
  const KvliSize roi = in.roi();
  const float dx = fraction(in), dy = fraction(in);
  s.note("copy roi %dx%d, dx %.9g, dy %.9g", roi.width, roi.height, dx, dy);
  // The column and row after the ROI are read when their fraction is not 0.
  const Around readable{0, 0, dx > 0 && dx < 1, dy > 0 && dy < 1};
  Image& src = s.image("src", Role::kIn, sourceType(m), roi, 1, readable);
  Image& dst = s.image("dst", Role::kOut, typeOf<Kvl32f>(), roi);
  s.run("kvliCopySubpix", [&] {
    return m.copy(src.ptr<void>(), src.step(), dst.ptr<Kvl32f>(), dst.step(), roi, dx, dy);
  });
}

void intersect(Input& in, Session& s, const FlowMember& m) {
  const KvliSize srcRoi = in.roi(80, 4000), win = in.roi(40, 1600);
  const KvliPoint32f p{coordinate(in, -win.width - 3, srcRoi.width + 3),
                       coordinate(in, -win.height - 3, srcRoi.height + 3)};
  s.note("intersect source %dx%d, window %dx%d at %.9g, %.9g", srcRoi.width, srcRoi.height,
         win.width, win.height, p.x, p.y);
  Image& src = s.image("src", Role::kIn, sourceType(m), srcRoi);
  Image& dst = s.image("dst", Role::kOut, typeOf<Kvl32f>(), win);
  Image& rect = s.image("rect", Role::kOut, typeOf<Kvl32s>(), {4, 1}, 1, {}, false);
  s.run("kvliCopySubpixIntersect", [&] {
    return m.intersect(src.ptr<void>(), src.step(), srcRoi, dst.ptr<Kvl32f>(), dst.step(), win, p,
                       rect.ptr<KvliRect>());
  });
}

void track(Input& in, Session& s, const FlowMember& m) {
  // Two pyramids of up to three levels, each level half the one below (rounded up).
  const KvliSize base = in.roi(90, 5000);
  const int top = static_cast<int>(in.range(0, 2));
  const int winSize = static_cast<int>(in.range(1, 15));
  std::vector<Kvl8u*> images[2];
  std::vector<KvliSize> rois;
  std::vector<int> steps[2];
  std::vector<double> rates;
  KvliSize size = base;
  for (int k = 0; k <= top; ++k) {
    rois.push_back(size);
    rates.push_back(in.oneIn(64) ? std::nan("") : std::ldexp(1.0, -k));
    for (int f = 0; f < 2; ++f) {
      Image& level = s.image(f ? "next level" : "prev level", Role::kIn, sourceType(m), size);
      images[f].push_back(level.ptr<Kvl8u>());
      steps[f].push_back(level.step());
    }
    size = {size.width > 1 ? (size.width + 1) / 2 : 1, size.height > 1 ? (size.height + 1) / 2 : 1};
  }
  KvliPyramid pyr[2];
  for (int f = 0; f < 2; ++f)
    pyr[f] = {images[f].data(), rois.data(), rates.data(), steps[f].data(), nullptr, top};
  const int n = static_cast<int>(in.range(in.oneIn(32) ? 0 : 1, 24));
  const int cells = n > 0 ? n : 1;
  // Points about the image (an ordinary array: the sanitizers watch its bounds).
  std::vector<KvliPoint32f> pts(cells);
  const bool nullPrev = in.oneIn(64);
  for (auto& p : pts)
    p = {coordinate(in, -winSize, base.width + winSize), coordinate(in, -winSize, base.height + winSize)};
  // Arrays as one-row images (their steps mean nothing to the call).
  Image& next = s.image("next points", Role::kOut, typeOf<Kvl32f>(), {2 * cells, 1}, 1, {}, false);
  Image& status = s.image("status", Role::kOut, typeOf<Kvl8s>(), {cells, 1}, 1, {}, false);
  Image& error = s.image("error", Role::kOut, typeOf<Kvl32f>(), {cells, 1}, 1, {}, false);
  const int maxLev = static_cast<int>(in.range(in.oneIn(16) ? -1 : 0, top + (in.oneIn(16) ? 1 : 0)));
  const int maxIter = static_cast<int>(in.range(in.oneIn(16) ? 0 : 1, 12));
  const float threshold = in.oneIn(8) ? in.f32() : in.pick<float>({0.0f, 0.001f, 0.01f, 0.2f});
  const KvliSize stateRoi = in.oneIn(16) ? KvliSize{base.width - 1, base.height} : base;
  const int stateWin = in.oneIn(16) ? winSize + 1 : winSize;
  s.note("track %dx%d levels 0..%d, window %d (state %d), %d points, maxLev %d, maxIter %d, "
         "threshold %.9g", base.width, base.height, top, winSize, stateWin, n, maxLev, maxIter,
         threshold);
  KvliOptFlowPyrLKState* st = nullptr;
  if (stateRoi.width < 1 || m.initAlloc(&st, stateRoi, stateWin, 0) != kvlStatusOk) return;
  s.run("kvliOpticalFlowPyrLK", [&] {
    return m.track(&pyr[0], &pyr[1], nullPrev ? nullptr : pts.data(), next.ptr<KvliPoint32f>(), status.ptr<Kvl8s>(),
                   error.ptr<Kvl32f>(), n, winSize, maxLev, maxIter, threshold, st);
  });
  m.release(st);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const FlowMember& m = pickMember(in, kMembers);
  Session s(in);
  switch (in.range(0, 2)) {
    case 0:
      copy(in, s, m);
      break;
    case 1:
      intersect(in, s, m);
      break;
    default:
      track(in, s, m);
  }
  return 0;
}
