// Marker watershed over its member table: both methods against the plain model of the rules on
// small random reliefs, hand-worked plateaus, boundary marking, thread invariance of the distance
// method, buffer sizes and the validation order with nothing written.
#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "core/parallel.h"
#include "seg/watershed.h"
#include "seg/watershed_ref.h"
#include "support/support.h"

namespace {

using kvl::seg::WatershedMember;
using kvl::test::Image;

const WatershedMember kMembers[] = {KVL_WATERSHED_MEMBERS(KVL_WATERSHED_RECORD)};

// The markers of one call in guarded memory, as 32-bit values for comparison.
struct Markers {
  Image<Kvl8u> m8;
  Image<Kvl16u> m16;
  int bytes;
  Markers(int w, int h, int bytes, uint32_t seed) : m8(w, h, 2, seed), m16(w, h, 2, seed), bytes(bytes) {}
  void set(const std::vector<uint32_t>& v) {
    const int w = m8.width();
    m8.fill([&](int x, int y, int) { return static_cast<Kvl8u>(v[y * w + x]); });
    m16.fill([&](int x, int y, int) { return static_cast<Kvl16u>(v[y * w + x]); });
  }
  void* roi() { return bytes == 1 ? static_cast<void*>(m8.roi()) : m16.roi(); }
  int step() { return bytes == 1 ? m8.step() : m16.step(); }
  std::vector<uint32_t> get() const {
    std::vector<uint32_t> out;
    if (bytes == 1) {
      for (Kvl8u v : m8.pixels()) out.push_back(v);
    } else {
      for (Kvl16u v : m16.pixels()) out.push_back(v);
    }
    return out;
  }
  bool outsideUnchanged() const { return bytes == 1 ? m8.outsideUnchanged() : m16.outsideUnchanged(); }
};

// Runs a member on relief and labels; checks nothing outside the marker ROI or in the relief
// changed, and returns the labels.
std::vector<uint32_t> run(const WatershedMember& m, const Image<Kvl8u>& src,
                          const std::vector<uint32_t>& labels, int norm, int flag) {
  const KvliSize roi{src.width(), src.height()};
  Markers mk(roi.width, roi.height, m.markerBytes, roi.width * 7 + roi.height);
  mk.set(labels);
  int bytes = 0;
  EXPECT_EQ(m.getBufferSize(roi, &bytes), kvlStatusOk);
  std::vector<Kvl8u> buffer(bytes + 1);
  // An odd address: the family aligns inside the buffer itself.
  EXPECT_EQ(m.run(src.roi(), src.step(), mk.roi(), mk.step(), roi, norm, flag, buffer.data() + 1),
            kvlStatusOk);
  EXPECT_TRUE(mk.outsideUnchanged() && src.unchanged()) << m.name;
  return mk.get();
}

std::vector<uint32_t> model(const Image<Kvl8u>& src, const std::vector<uint32_t>& labels,
                            uint32_t boundary, int norm, int flag) {
  kvl::seg::model::Image im{src.width(), src.height(), src.pixels(), labels, boundary};
  kvl::seg::model::watershed(im, norm, flag);
  return im.labels;
}

// A relief of a few levels (plateaus are common) or of any level, and sparse labels drawn from
// `count` values (some of them the boundary value now and then).
void randomCase(std::mt19937& rng, Image<Kvl8u>& src, std::vector<uint32_t>& labels,
                uint32_t boundary) {
  const bool coarse = rng() % 2;
  src.fill([&](int, int, int) -> Kvl8u {
    return static_cast<Kvl8u>(coarse ? (rng() % 4) * 60 : rng() % 256);
  });
  const int count = 1 + rng() % 5, density = 2 + rng() % 20;
  for (uint32_t& v : labels) {
    v = rng() % density != 0 ? 0 : rng() % 16 == 0 ? boundary : 1 + rng() % count;
    if (boundary > 255 && v != 0 && v != boundary && rng() % 2) v += 300;
  }
}

struct Method {
  int flag, norm;
};
const Method kMethods[] = {{1, 0}, {1, 1}, {1 | 64, 0}, {1 | 128, 1}, {3, 0},
                           {2, 0}, {2, 1}, {2, 2},      {2, 3},       {2 | 64, 2},
                           {2 | 192, 3}};

TEST(Watershed, MatchesModel) {
  for (const WatershedMember& m : kMembers) {
    std::mt19937 rng(m.markerBytes);
    for (int w : {1, 2, 3, 5, 8, 17, 31}) {
      for (int h : {1, 2, 4, 9, 20}) {
        for (const Method& me : kMethods) {
          Image<Kvl8u> src(w, h, 1, w + 31 * h);
          std::vector<uint32_t> labels(w * h);
          randomCase(rng, src, labels, m.boundary);
          std::string text;
          for (int i = 0; i < w * h; ++i)
            text += std::to_string(src.pixels()[i]) + "/" + std::to_string(labels[i]) + " ";
          ASSERT_TRUE(kvl::test::sameBytes(run(m, src, labels, me.norm, me.flag),
                                           model(src, labels, m.boundary, me.norm, me.flag), w))
              << text << m.name << " " << w << "x" << h << " flag " << me.flag << " norm " << me.norm;
        }
      }
    }
  }
}

// Images large enough for the queues' longest chunks, with long queues on many levels at once:
// chunks fill, chain and return to the free list in every pattern (both methods queue pixels),
// and, at the default thread count, the distance method's stripes trade their edge rows.
TEST(Watershed, QueuesMatchModelOnLargeImages) {
  for (const WatershedMember& m : kMembers) {
    std::mt19937 rng(17 + m.markerBytes);
    for (const KvliSize roi : {KvliSize{300, 230}, KvliSize{700, 97}}) {
      for (const Method& me : {Method{1, 0}, Method{1, 1}, Method{1 | 128, 0}, Method{2, 0},
                               Method{2, 1}, Method{2 | 64, 1}, Method{2, 2}, Method{2, 3}}) {
        Image<Kvl8u> src(roi.width, roi.height, 1, roi.width + 5);
        std::vector<uint32_t> labels(static_cast<size_t>(roi.width) * roi.height);
        randomCase(rng, src, labels, m.boundary);
        EXPECT_EQ(run(m, src, labels, me.norm, me.flag),
                  model(src, labels, m.boundary, me.norm, me.flag))
            << m.name << " " << roi.width << "x" << roi.height << " flag " << me.flag;
      }
    }
  }
}

// Two labels across a flat row meet in the middle: the pixel that sees both becomes the boundary.
TEST(Watershed, PlateauBetweenTwoLabels) {
  for (const WatershedMember& m : kMembers) {
    Image<Kvl8u> src(5, 1, 1, 3);
    src.fill([](int, int, int) -> Kvl8u { return 7; });
    const std::vector<uint32_t> labels = {1, 0, 0, 0, 2};
    const std::vector<uint32_t> want = {1, 1, m.boundary, 2, 2};
    for (const Method& me : {Method{1, 1}, Method{2, 1}, Method{2, 0}, Method{2, 3}})
      EXPECT_EQ(run(m, src, labels, me.norm, me.flag), want) << m.name << " flag " << me.flag;
    // An even gap: the pixels meet between two pixels, and no pixel sees both sides first.
    Image<Kvl8u> src6(6, 1, 1, 4);
    src6.fill([](int, int, int) -> Kvl8u { return 7; });
    EXPECT_EQ(run(m, src6, {1, 0, 0, 0, 0, 2}, 1, 1),
              (std::vector<uint32_t>{1, 1, 1, m.boundary, 2, 2}));
    EXPECT_EQ(run(m, src6, {1, 0, 0, 0, 0, 2}, 1, 2),
              (std::vector<uint32_t>{1, 1, 1, 2, 2, 2}));
  }
}

// A ridge in the relief decides where two labels meet, not the distance on the plateau.
TEST(Watershed, RidgeDecides) {
  for (const WatershedMember& m : kMembers) {
    Image<Kvl8u> src(7, 1, 1, 5);
    const Kvl8u relief[7] = {0, 0, 0, 0, 0, 90, 0};
    src.fill([&](int x, int, int) { return relief[x]; });
    const std::vector<uint32_t> labels = {1, 0, 0, 0, 0, 0, 2};
    for (const Method& me : {Method{1, 0}, Method{2, 0}, Method{2, 2}, Method{2, 3}}) {
      const std::vector<uint32_t> got = run(m, src, labels, me.norm, me.flag);
      // The queue method labels the ridge pixel when it is first reached, from the right; the
      // meeting pixel left of it sees both labels. The distance method gives the ridge pixel to
      // the label that reaches it first, at the ridge's level.
      const std::vector<uint32_t> want =
          me.flag == 1 ? std::vector<uint32_t>{1, 1, 1, 1, m.boundary, 2, 2}
                       : std::vector<uint32_t>{1, 1, 1, 1, 1, 2, 2};
      EXPECT_EQ(got, want) << me.flag << " " << me.norm;
    }
  }
}

TEST(Watershed, NoLabelsLeavesMarkersUnchanged) {
  for (const WatershedMember& m : kMembers) {
    Image<Kvl8u> src(9, 6, 1, 9);
    src.fillRandom(9);
    const std::vector<uint32_t> empty(9 * 6, 0);
    for (const Method& me : kMethods) EXPECT_EQ(run(m, src, empty, me.norm, me.flag), empty);
  }
}

// Bits 64 and 128: of two touching regions the pixel scanned first becomes the boundary.
TEST(Watershed, BoundaryMarking) {
  for (const WatershedMember& m : kMembers) {
    Image<Kvl8u> src(2, 2, 1, 2);
    src.fill([](int, int, int) -> Kvl8u { return 0; });
    const uint32_t b = m.boundary;
    // Diagonal contact only: 4-connected marking leaves it, 8-connected marks the first pixel.
    const std::vector<uint32_t> diagonal = {1, b, b, 2};
    EXPECT_EQ(run(m, src, diagonal, 0, 1 | 64), diagonal);
    EXPECT_EQ(run(m, src, diagonal, 0, 1 | 128), (std::vector<uint32_t>{b, b, b, 2}));
    EXPECT_EQ(run(m, src, diagonal, 0, 2 | 128), (std::vector<uint32_t>{b, b, b, 2}));
    EXPECT_EQ(run(m, src, {1, 2, 1, 2}, 0, 1 | 64), (std::vector<uint32_t>{b, 2, b, 2}));
  }
}

// Every pixel a label can reach ends labelled or on a boundary.
TEST(Watershed, DistanceMethodReachesEveryPixel) {
  for (const WatershedMember& m : kMembers) {
    std::mt19937 rng(5);
    for (int norm = 0; norm <= 3; ++norm) {
      Image<Kvl8u> src(40, 30, 1, norm);
      src.fill([&](int, int, int) -> Kvl8u { return static_cast<Kvl8u>(rng() % 3 * 100); });
      std::vector<uint32_t> labels(40 * 30, 0);
      for (int k = 1; k <= 4; ++k) labels[rng() % labels.size()] = k;
      for (uint32_t v : run(m, src, labels, norm, 2)) EXPECT_NE(v, 0u) << norm;
    }
  }
}

// 1, 2 and 3 threads give the same labels on images the rule splits: wide plateaus and a maze of
// walls, so labels travel back and forth across the stripes; and a checkerboard of the lowest and
// highest levels with its labels in the top rows only, which the lower stripes learn of from
// their copies alone, with most of their pixels waiting to be revisited at once.
TEST(Watershed, DistanceMethodThreadInvariance) {
  const KvliSize roi{300, 260};
  {
    kvl::test::ThreadScope two(2);
    ASSERT_GT(kvl::par::teamWatershed(roi), 1) << "the image must be split for this test to count";
  }
  for (const WatershedMember& m : kMembers) {
    for (int scene = 0; scene < 2; ++scene) {
      for (int norm = 0; norm <= 3; ++norm) {
        std::mt19937 rng(norm);
        Image<Kvl8u> src(roi.width, roi.height, 0, norm);
        std::vector<uint32_t> labels(roi.width * roi.height, 0);
        if (scene == 0) {
          src.fill([&](int x, int y, int) -> Kvl8u { return static_cast<Kvl8u>((x / 40 + y / 50) % 3 * 20); });
          for (int k = 1; k <= 12; ++k) labels[rng() % labels.size()] = k;
          for (int y = 20; y < roi.height; y += 60)
            for (int x = 0; x < roi.width - 30; ++x) labels[y * roi.width + x + (y / 60 % 2) * 30] = m.boundary;
        } else {
          src.fill([&](int x, int y, int) -> Kvl8u { return (x + y) % 2 ? 255 : 0; });
          for (int k = 1; k <= 6; ++k) labels[rng() % (3 * roi.width)] = k;
        }
        std::vector<std::vector<uint32_t>> results;
        for (int threads : {1, 2, 3}) {
          kvl::test::ThreadScope scope(threads);
          results.push_back(run(m, src, labels, norm, 2 | 128));
        }
        EXPECT_EQ(results[1], results[0]) << m.name << " scene " << scene << " norm " << norm;
        EXPECT_EQ(results[2], results[0]) << m.name << " scene " << scene << " norm " << norm;
      }
    }
  }
}

TEST(Watershed, BufferSizes) {
  struct Case {
    KvliSize roi;
    int size8, size16;
  };
  // W = align32(width * s); max(h + 4hW + 66 + 2(W + hW), 16wh + s(w + 2)(h + 2) + 48).
  const Case cases[] = {
      {{1, 1}, 1 + 128 + 66 + 128, 1 + 128 + 66 + 128},
      {{64, 64}, 16 * 4096 + 66 * 66 + 48, 16 * 4096 + 2 * 66 * 66 + 48},
      {{100, 3}, 16 * 300 + 102 * 5 + 48, 16 * 300 + 2 * 102 * 5 + 48},
      {{1, 100}, 100 + 400 * 32 + 66 + 2 * 101 * 32, 100 + 400 * 32 + 66 + 2 * 101 * 32},
      // 16 * 20000 * 8000 wraps in 32 bits; A does not.
      {{20000, 8000}, 8000 + 4 * 8000 * 20000 + 66 + 2 * (20000 + 8000 * 20000), -1},
  };
  for (const Case& c : cases) {
    for (const WatershedMember& m : kMembers) {
      const int want = m.markerBytes == 1 ? c.size8 : c.size16;
      if (want < 0) continue;
      int bytes = 0;
      ASSERT_EQ(m.getBufferSize(c.roi, &bytes), kvlStatusOk);
      EXPECT_EQ(bytes, want) << m.name << " " << c.roi.width << "x" << c.roi.height;
    }
  }
  int bytes = 7;
  for (const WatershedMember& m : kMembers) {
    EXPECT_EQ(m.getBufferSize({0, 5}, nullptr), kvlStatusNullPointer);
    EXPECT_EQ(m.getBufferSize({5, 0}, &bytes), kvlStatusBadSize);
    EXPECT_EQ(bytes, 7);
  }
  // Both methods' layouts fit the formula, the distance method's threaded layouts included, and
  // the queue chunks can hold every pixel however the pixels spread over the levels.
  for (int s : {1, 2})
    for (int w = 1; w <= 300; w += (w < 20 ? 1 : 37))
      for (int h = 1; h <= 300; h += (h < 20 ? 1 : 41)) {
        const long long bytes = kvl::seg::watershedBytes({w, h}, s);
        const kvl::seg::QueueLayout q = kvl::seg::queueLayout({w, h}, s, bytes);
        const size_t n = static_cast<size_t>(w) * h, c = static_cast<size_t>(q.chunk);
        EXPECT_LE(q.end + 7, static_cast<size_t>(bytes)) << w << "x" << h;
        EXPECT_GE((q.end - q.chunks) / (4 * c), std::min(n, n / (c - 1) + 256)) << w << "x" << h;
        EXPECT_GE(q.chunk, 2) << w << "x" << h;
        if (n >= 1 << 16) {
          EXPECT_EQ(q.chunk, 64) << w << "x" << h;
        }
        // The key-order distance layout, where it is used, fits and holds each stripe's queues.
        for (int stripes : {1, 2, 16}) {
          if (stripes > 1 && h < 8 * stripes) continue;
          const kvl::seg::BreadthLayout b = kvl::seg::breadthLayout({w, h}, bytes, stripes);
          if (n >= 1 << 16) {
            EXPECT_EQ(b.stripes, stripes) << w << "x" << h;
          }
          if (b.stripes == 0) continue;
          const size_t cb = static_cast<size_t>(b.chunk);
          EXPECT_LE(b.end + 7, static_cast<size_t>(bytes)) << w << "x" << h;
          for (int t = 0; t < stripes; ++t) {
            const size_t ns = static_cast<size_t>(w) * b.rows[t];
            const size_t next = t + 1 < stripes ? b.chunks[t + 1] : b.end;
            EXPECT_GE((next - b.chunks[t]) / (4 * cb), std::min(ns, ns / (cb - 1) + 1 + kvl::seg::kBreadthQueues))
                << w << "x" << h << " stripe " << t;
          }
        }
        for (int team : {1, 16}) {
          if (team > 1 && h < 8 * team) continue;
          EXPECT_LE(kvl::seg::distanceLayout({w, h}, s, team).end + 7,
                    static_cast<size_t>(kvl::seg::watershedBytes({w, h}, s)))
              << w << "x" << h << " team " << team;
        }
      }
}

TEST(Watershed, ValidationOrderWritesNothing) {
  struct Row {
    const char* what;
    bool nullSrc, nullMarker, nullBuf;
    KvliSize roi;
    int srcDelta, markerDelta, norm, flag;
    KvlStatus want;
  };
  // clang-format off
  const Row rows[] = {
      {"null source",     true,  false, false, {0, 3}, -1, 0,  9, 0, kvlStatusNullPointer},
      {"null markers",    false, true,  false, {0, 3}, 0,  0,  9, 0, kvlStatusNullPointer},
      {"null buffer",     false, false, true,  {8, 3}, -1, 0,  0, 1, kvlStatusNullPointer},
      {"zero width",      false, false, false, {0, 3}, -9, 0,  9, 0, kvlStatusBadSize},
      {"zero height",     false, false, false, {8, 0}, -1, 0,  9, 0, kvlStatusBadSize},
      {"source step",     false, false, false, {8, 3}, -1, 0,  9, 0, kvlStatusBadStep},
      {"marker step",     false, false, false, {8, 3}, 0,  -1, 9, 0, kvlStatusBadStep},
      {"flag 0",          false, false, false, {8, 3}, 0,  0,  0, 0, kvlStatusBadArgument},
      {"flag 64 only",    false, false, false, {8, 3}, 0,  0,  0, 64, kvlStatusBadArgument},
      {"distance norm 4", false, false, false, {8, 3}, 0,  0,  4, 2, kvlStatusBadArgument},
      {"distance norm -1",false, false, false, {8, 3}, 0,  0, -1, 2, kvlStatusBadArgument},
      {"queue norm 2",    false, false, false, {8, 3}, 0,  0,  2, 1, kvlStatusBadArgument},
      {"queue norm 2, bit 2 too", false, false, false, {8, 3}, 0, 0, 2, 3, kvlStatusBadArgument},
  };
  // clang-format on
  for (const WatershedMember& m : kMembers) {
    for (const Row& r : rows) {
      Image<Kvl8u> src(8, 3, 1, 4);
      Markers mk(8, 3, m.markerBytes, 5);
      mk.set(std::vector<uint32_t>(24, 0));
      mk.m8.px(0, 0) = 1;
      mk.m16.px(0, 0) = 1;
      mk.m8.snapshot();
      mk.m16.snapshot();
      std::vector<Kvl8u> buffer(4096, 0xab);
      // The marker step is checked against the width in bytes for both members.
      const KvlStatus got =
          m.run(r.nullSrc ? nullptr : src.roi(), 8 + r.srcDelta, r.nullMarker ? nullptr : mk.roi(),
                8 + r.markerDelta, r.roi, r.norm, r.flag, r.nullBuf ? nullptr : buffer.data());
      EXPECT_EQ(got, r.want) << m.name << ": " << r.what;
      EXPECT_TRUE(m.markerBytes == 1 ? mk.m8.unchanged() : mk.m16.unchanged()) << r.what;
      EXPECT_TRUE(std::all_of(buffer.begin(), buffer.end(), [](Kvl8u b) { return b == 0xab; }));
    }
  }
}

}  // namespace
