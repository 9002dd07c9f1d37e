// The tracker on the sample photograph, smoothed (twice by the binomial 1 4 6 4 1) so that a
// copy moved by cubic interpolation is close to a true move: known sub-pixel moves of the whole
// picture are found at its textured points, by every member, within 0.05 pixel.
#include <cmath>
#include <vector>

#include "flow_support.h"
#include "image_io.h"
#include "pyramid/optical_flow_members.h"
#include "support/support.h"

namespace {

using kvl::pyramid::FlowMember;

const FlowMember kMembers[] = {KVL_OPTFLOW_MEMBERS(KVL_OPTFLOW_MEMBER_RECORD)};

struct Photo {
  int w = 0, h = 0;
  std::vector<float> grey;
};
const Photo& photo() {
  static const Photo p = [] {
    Photo r;
    kvlcli::Picture pic;
    if (kvlcli::readImage(KVL_SOURCE_DIR "/data/astronaut.png", &pic).empty()) {
      const std::vector<uint8_t> g = kvlcli::greySamples(pic);
      r.w = pic.width, r.h = pic.height;
      r.grey = kvl::test::smoothed(
          kvl::test::smoothed(std::vector<float>(g.begin(), g.end()), r.w, r.h), r.w, r.h);
    }
    return r;
  }();
  return p;
}

template <class Src>
void checkMoves(const FlowMember& m) {
  const Photo& ph = photo();
  ASSERT_GT(ph.w, 0) << "the sample photograph could not be read";
  // 16-bit frames use the whole range.
  const float scale = sizeof(Src) == 2 ? 257.0f : 1.0f;
  std::vector<float> a = ph.grey;
  for (float& v : a) v *= scale;
  const std::vector<KvliPoint32f> pts = kvl::test::texturedPoints(a, ph.w, ph.h, 60, 8, 40, 7);
  KvliOptFlowPyrLKState* st = nullptr;
  ASSERT_EQ(m.initAlloc(&st, {ph.w, ph.h}, 21, 0), kvlStatusOk);
  kvl::test::TestPyramid<Src> p1(a, ph.w, ph.h, 2);
  for (const auto& [sx, sy] : {std::pair{0.3, -0.7}, {1.6, 0.45}, {-4.25, 3.5}}) {
    kvl::test::TestPyramid<Src> p2(kvl::test::shifted(a, ph.w, ph.h, sx, sy), ph.w, ph.h, 2);
    std::vector<KvliPoint32f> next(pts.size());
    std::vector<Kvl8s> status(pts.size());
    std::vector<Kvl32f> error(pts.size());
    ASSERT_EQ(m.track(p1.get(), p2.get(), pts.data(), next.data(), status.data(), error.data(),
                      static_cast<int>(pts.size()), 21, 2, 30, 0.001f, st),
              kvlStatusOk);
    double worst = 0;
    for (size_t i = 0; i < pts.size(); ++i) {
      EXPECT_EQ(status[i], 0) << i;
      const double ex = next[i].x - pts[i].x - sx, ey = next[i].y - pts[i].y - sy;
      worst = std::max({worst, std::fabs(ex), std::fabs(ey)});

    }
    EXPECT_LT(worst, 0.05) << m.name << " move " << sx << ", " << sy;
  }
  m.release(st);
}

TEST(OpticalFlowPhoto, SubpixelMovesFound) {
#define KVL_CHECK(Src, copySfx, flowSfx, code)  \
  for (const FlowMember& m : kMembers)          \
    if (m.elemBytes == sizeof(Src) && m.real == std::is_floating_point_v<Src>) checkMoves<Src>(m);
  KVL_OPTFLOW_MEMBERS(KVL_CHECK)
#undef KVL_CHECK
}

}  // namespace
