// Gradient segmentation over its member table: every target against a plain model of the relief,
// the minima seeds, the flooding and the boundary pass; flat regions with one seed each; buffer
// sizes; validation order with nothing written.
#include <algorithm>
#include <deque>
#include <random>
#include <vector>

#include "seg/gradient_seg_members.h"
#include "support/support.h"

namespace {

using kvl::seg::GradientSegMember;
using kvl::test::Image;

const GradientSegMember kMembers[] = {KVL_GRADIENT_SEG_MEMBERS(KVL_GRADIENT_SEG_RECORD)};

// The model works on a framed label map: the frame holds -1, which no rule counts as a label.
struct Model {
  int w, h, n;
  std::vector<int> g, lab;
  int& at(int x, int y) { return lab[(y + 1) * (w + 2) + x + 1]; }
  int rel(int x, int y) const { return g[y * w + x]; }
  bool in(int x, int y) const { return x >= 0 && y >= 0 && x < w && y < h; }
};
const int kDx[8] = {-1, 1, 0, 0, -1, 1, -1, 1};
const int kDy[8] = {0, 0, -1, 1, -1, -1, 1, 1};

template <int kC>
std::vector<Kvl8u> model(const Image<Kvl8u, kC>& src, const Image<Kvl8u>& marker, int norm,
                         int flag) {
  Model m{src.width(), src.height(), norm == 0 ? 8 : 4, {}, {}};
  const int w = m.w, h = m.h;
  m.lab.assign((w + 2) * (h + 2), -1);
  m.g.assign(w * h, 0);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      m.at(x, y) = marker.px(x, y);
      int best = 0;
      for (int c = 0; c < kC; ++c) {
        int lo = 255, hi = 0;
        for (int k = -1; k < m.n; ++k) {
          const int nx = std::clamp(x + (k < 0 ? 0 : kDx[k]), 0, w - 1);
          const int ny = std::clamp(y + (k < 0 ? 0 : kDy[k]), 0, h - 1);
          lo = std::min<int>(lo, src.px(nx, ny, c));
          hi = std::max<int>(hi, src.px(nx, ny, c));
        }
        best = std::max(best, hi - lo);
      }
      m.g[y * w + x] = best;
    }
  bool any = false;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) any = any || m.at(x, y) > 0;
  if (!any) {  // regional minima of g / 16, numbered in row order of their first pixel
    std::vector<int> seen(w * h, 0);
    int count = 0;
    for (int i = 0; i < w * h; ++i) {
      if (seen[i]) continue;
      std::vector<int> plateau{i};
      seen[i] = 1;
      bool minimum = true;
      for (size_t k = 0; k < plateau.size(); ++k) {
        const int x = plateau[k] % w, y = plateau[k] / w;
        for (int d = 0; d < m.n; ++d) {
          const int nx = x + kDx[d], ny = y + kDy[d];
          if (!m.in(nx, ny)) continue;
          const int here = m.rel(x, y) / 16, there = m.rel(nx, ny) / 16;
          if (there < here) minimum = false;
          if (there == here && !seen[ny * w + nx]) {
            seen[ny * w + nx] = 1;
            plateau.push_back(ny * w + nx);
          }
        }
      }
      if (minimum) {
        for (int p : plateau) m.at(p % w, p / w) = 1 + count % 254;
        ++count;
      }
    }
  }
  std::deque<int> queue[256];
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      bool open = false;
      for (int d = 0; d < m.n; ++d) open = open || m.at(x + kDx[d], y + kDy[d]) == 0;
      if (m.at(x, y) > 0 && open) queue[m.rel(x, y)].push_back(y * w + x);
    }
  for (int level = 0; level < 256; ++level) {
    while (!queue[level].empty()) {
      const int p = queue[level].front(), px = p % w, py = p / w;
      queue[level].pop_front();
      for (int d = 0; d < m.n; ++d) {
        const int qx = px + kDx[d], qy = py + kDy[d];
        if (m.at(qx, qy) != 0) continue;
        queue[std::max(m.rel(qx, qy), level)].push_back(qy * w + qx);
        int v = m.at(px, py);
        for (int e = 0; e < m.n; ++e) {
          const int rx = qx + kDx[e], ry = qy + kDy[e];
          const int lr = m.at(rx, ry);
          if ((rx == px && ry == py) || lr < 1 || lr > 254 || lr == v) continue;
          if (v < 255) {
            v = 255;
            break;
          }
          v = lr;
        }
        m.at(qx, qy) = v;
      }
    }
  }
  const int bounds = flag & 128 ? 8 : flag & 64 ? 4 : 0;
  std::vector<Kvl8u> out;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      int& l = m.at(x, y);
      if (l >= 1 && l <= 254)
        for (int d = 0; d < bounds; ++d) {
          const int o = m.at(x + kDx[d], y + kDy[d]);
          if (o >= 1 && o <= 254 && o != l) {
            l = 255;
            break;
          }
        }
      out.push_back(static_cast<Kvl8u>(l));
    }
  return out;
}

template <int kC>
std::vector<Kvl8u> runMember(const GradientSegMember& mem, const Image<Kvl8u, kC>& src,
                             Image<Kvl8u>& marker, int norm, int flag) {
  const KvliSize roi{src.width(), src.height()};
  int bytes = 0;
  EXPECT_EQ(mem.getBufferSize(roi, &bytes), kvlStatusOk);
  std::vector<Kvl8u> buffer(bytes + 1);
  EXPECT_EQ(mem.run(src.roi(), src.step(), marker.roi(), marker.step(), roi, norm, flag,
                    buffer.data() + 1),
            kvlStatusOk);
  EXPECT_TRUE(marker.outsideUnchanged() && src.unchanged()) << mem.name;
  return marker.pixels();
}

// Random images with few grey values (plateaus) or the full range; seeds sparse or none.
template <int kC>
void sweep(const GradientSegMember& mem) {
  kvl::test::forEachTarget([&](int target) {
    for (int w : {1, 2, 3, 17, 34, 70}) {
      for (int h : {1, 2, 5, 23}) {
        for (int levels : {3, 256}) {
          for (int seeds : {0, 40}) {
            const uint32_t seed = w * 1009 + h * 31 + levels + seeds;
            Image<Kvl8u, kC> src(w, h, 1, seed);
            std::mt19937 rng(seed);
            src.fill([&](int, int, int) { return static_cast<Kvl8u>(rng() % levels * 97 % 256); });
            for (int norm : {0, 1}) {
              for (int flag : {0, 64, 128, 192}) {
                Image<Kvl8u> marker(w, h, 1, seed + 5);
                marker.fill([&](int, int, int) {
                  return seeds && rng() % seeds == 0 ? static_cast<Kvl8u>(1 + rng() % 4) : 0;
                });
                const std::vector<Kvl8u> want = model(src, marker, norm, flag);
                ASSERT_TRUE(kvl::test::sameBytes(runMember(mem, src, marker, norm, flag), want, w))
                    << mem.name << " " << kvl::test::targetName(target) << " " << w << "x" << h
                    << " levels " << levels << " seeds " << seeds << " norm " << norm << " flag "
                    << flag;
              }
            }
          }
        }
      }
    }
  });
}

TEST(SegmentGradient, MatchesModelOnEveryTarget) {
  sweep<1>(kMembers[0]);
  sweep<3>(kMembers[1]);
}

// Three flat colour regions (left, right top, right bottom), one seed in each: every region takes
// its seed's label away from the edges, and 255 lines separate the regions.
TEST(SegmentGradient, FlatRegionsWithOneSeedEach) {
  const int w = 40, h = 30;
  auto region = [](int x, int y) { return x < 16 ? 0 : y < 12 ? 1 : 2; };
  const Kvl8u colours[3][3] = {{200, 30, 30}, {30, 200, 30}, {30, 30, 200}};
  Image<Kvl8u, 3> src3(w, h, 0, 1);
  src3.fill([&](int x, int y, int c) { return colours[region(x, y)][c]; });
  Image<Kvl8u> src1(w, h, 0, 2);
  src1.fill([&](int x, int y, int) { return static_cast<Kvl8u>(60 * region(x, y)); });
  for (int norm : {0, 1}) {
    for (int flag : {0, 128}) {
      for (const GradientSegMember& mem : kMembers) {
        Image<Kvl8u> marker(w, h, 0, 3);
        marker.fill([](int x, int y, int) -> Kvl8u {
          return x == 3 && y == 3 ? 10 : x == 30 && y == 4 ? 20 : x == 30 && y == 25 ? 30 : 0;
        });
        const std::vector<Kvl8u> got = mem.channels == 3
                                           ? runMember(mem, src3, marker, norm, flag)
                                           : runMember(mem, src1, marker, norm, flag);
        for (int y = 0; y < h; ++y)
          for (int x = 0; x < w; ++x) {
            const Kvl8u v = got[y * w + x];
            const bool edge = (x >= 14 && x <= 17) || (x >= 16 && y >= 10 && y <= 13);
            // Pixels of the edge band (non-zero relief) go to whichever front reaches them.
            if (edge) {
              EXPECT_TRUE(v == 10 || v == 20 || v == 30 || v == 255) << x << "," << y;
            } else {
              EXPECT_EQ(v, 10 * (region(x, y) + 1)) << mem.name << " " << x << "," << y;
            }
          }
        // A closed line: walking along a row from left to right crosses a 255.
        for (int y : {5, 20}) {
          const auto row = got.begin() + y * w;
          EXPECT_NE(std::find(row, row + w, 255), row + w) << mem.name << " row " << y;
        }
        if (flag == 128) {
          for (int y = 0; y + 1 < h; ++y)
            for (int x = 0; x + 1 < w; ++x) {
              const Kvl8u a = got[y * w + x], b = got[y * w + x + 1], c = got[(y + 1) * w + x];
              EXPECT_FALSE(a != 255 && b != 255 && a != b) << x << "," << y;
              EXPECT_FALSE(a != 255 && c != 255 && a != c) << x << "," << y;
            }
        }
      }
    }
  }
}

// Without seeds the regional minima seed: two flat halves of different grey give two labels,
// and a ramp of steps below 16 inside a half does not split it.
TEST(SegmentGradient, MinimaSeedsWhenNoLabels) {
  Image<Kvl8u> src(20, 8, 0, 4);
  src.fill([](int x, int y, int) -> Kvl8u { return x < 10 ? 40 + 5 * (x % 3) + y : 180; });
  Image<Kvl8u> marker(20, 8, 0, 5);
  marker.fill([](int, int, int) -> Kvl8u { return 0; });
  const std::vector<Kvl8u> got = runMember(kMembers[0], src, marker, 0, 0);
  EXPECT_EQ(got[0], 1);
  EXPECT_EQ(got[19], 2);
  EXPECT_EQ(std::count(got.begin(), got.end(), 0), 0);
}

TEST(SegmentGradient, BufferSizes) {
  for (const GradientSegMember& m : kMembers) {
    int bytes = -1;
    ASSERT_EQ(m.getBufferSize({1, 1}, &bytes), kvlStatusOk);
    EXPECT_EQ(bytes, 17 + 115);
    ASSERT_EQ(m.getBufferSize({1920, 1080}, &bytes), kvlStatusOk);
    EXPECT_EQ(bytes, 17 * 1920 * 1080 + 115);
    ASSERT_EQ(m.getBufferSize({126322560, 1}, &bytes), kvlStatusOk);  // the largest
    EXPECT_EQ(bytes, 2147483635);
    bytes = 7;
    EXPECT_EQ(m.getBufferSize({1, 126322561}, &bytes), kvlStatusBadSize);
    EXPECT_EQ(m.getBufferSize({1 << 30, 1 << 30}, &bytes), kvlStatusBadSize);
    EXPECT_EQ(m.getBufferSize({0, 5}, nullptr), kvlStatusNullPointer);
    EXPECT_EQ(m.getBufferSize({5, 0}, &bytes), kvlStatusBadSize);
    EXPECT_EQ(m.getBufferSize({-1, 5}, &bytes), kvlStatusBadSize);
    EXPECT_EQ(bytes, 7);
  }
}

TEST(SegmentGradient, ValidationOrderWritesNothing) {
  struct Row {
    const char* what;
    bool nullSrc, nullMarker, nullBuf;
    KvliSize roi;
    int srcDelta, markerDelta, norm, flag;
    KvlStatus want;
  };
  // clang-format off
  const Row rows[] = {
      {"null source",   true,  false, false, {0, 3},      -1, 0,  2, 1,  kvlStatusNullPointer},
      {"null marker",   false, true,  false, {8, 3},      0,  0,  0, 0,  kvlStatusNullPointer},
      {"null buffer",   false, false, true,  {8, 0},      0,  0,  0, 0,  kvlStatusNullPointer},
      {"zero width",    false, false, false, {0, 3},      -9, -9, 5, 1,  kvlStatusBadSize},
      {"zero height",   false, false, false, {8, 0},      -1, 0,  0, 0,  kvlStatusBadSize},
      {"huge roi",      false, false, false, {1 << 16, 1 << 16}, -1, 0, 0, 0, kvlStatusBadSize},
      {"source step",   false, false, false, {8, 3},      -1, 0,  2, 1,  kvlStatusBadStep},
      {"marker step",   false, false, false, {8, 3},      0,  -1, 2, 1,  kvlStatusBadStep},
      {"norm 2",        false, false, false, {8, 3},      0,  0,  2, 1,  kvlStatusBadArgument},
      {"norm -1",       false, false, false, {8, 3},      0,  0,  -1, 0, kvlStatusBadArgument},
      {"flag 1",        false, false, false, {8, 3},      0,  0,  0, 1,  kvlStatusBadArgument},
      {"flag 256",      false, false, false, {8, 3},      0,  0,  1, 256, kvlStatusBadArgument},
      {"valid",         false, false, false, {8, 3},      0,  0,  1, 192, kvlStatusOk},
  };
  // clang-format on
  for (const GradientSegMember& m : kMembers) {
    for (const Row& r : rows) {
      Image<Kvl8u> src(8 * m.channels, 3, 1, 4);
      Image<Kvl8u> marker(8, 3, 1, 5);
      std::vector<Kvl8u> buffer(17 * 24 + 115, 0xab);
      const KvlStatus got = m.run(r.nullSrc ? nullptr : src.roi(), 8 * m.channels + r.srcDelta,
                                  r.nullMarker ? nullptr : marker.roi(), 8 + r.markerDelta, r.roi,
                                  r.norm, r.flag, r.nullBuf ? nullptr : buffer.data());
      EXPECT_EQ(got, r.want) << m.name << ": " << r.what;
      EXPECT_TRUE(src.unchanged()) << m.name << ": " << r.what;
      if (got != kvlStatusOk) {
        EXPECT_TRUE(marker.unchanged()) << m.name << ": " << r.what;
        EXPECT_TRUE(std::all_of(buffer.begin(), buffer.end(), [](Kvl8u b) { return b == 0xab; }));
      }
    }
  }
}

}  // namespace
