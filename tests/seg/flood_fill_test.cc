// Flood fills over the member table: every target against a breadth-first model of the region
// (exact and Range rules, and Grad with zero deltas, where the region does not depend on the
// order), Grad's ramps and neighbour closure, the Range cap, float specials, the region record,
// the early return, the size queries and the validation order with its step table.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "seg/flood_fill_members.h"
#include "support/support.h"

namespace {

using kvl::seg::FloodFillMember;
using kvl::seg::kFillExact;
using kvl::seg::kFillGrad;
using kvl::seg::kFillRange;

const FloodFillMember kMembers[] = {KVL_FLOOD_FILL_MEMBERS(KVL_FLOOD_FILL_MEMBER_RECORD)};

static_assert(sizeof(KvliConnectedComp) == 48 && offsetof(KvliConnectedComp, rect) == 32);

// A call's values, per channel.
struct Values {
  double newVal[3], lo[3], hi[3];
};

// Pixels as doubles (w x h x channels), the image a fill starts from.
struct Picture {
  int w, h, c;
  std::vector<double> v;
  double at(int x, int y, int k) const { return v[(static_cast<size_t>(y) * w + x) * c + k]; }
};

// The outcome of one call.
struct Outcome {
  KvlStatus status;
  std::vector<double> pixels;
  KvliConnectedComp region;
};

template <class T, int kC>
Outcome call(const FloodFillMember& m, const Picture& p, KvliPoint seed, const Values& val) {
  kvl::test::Image<T, kC> img(p.w, p.h, 1, static_cast<uint32_t>(p.w * 31 + p.h));
  img.fill([&](int x, int y, int k) { return static_cast<T>(p.at(x, y, k)); });
  int bytes = 0;
  EXPECT_EQ(m.getSize({p.w, p.h}, &bytes), kvlStatusOk);
  kvl::test::GuardedBlock buffer(static_cast<size_t>(bytes), 1, 5);
  Outcome o{};
  std::memset(&o.region, 0xab, sizeof o.region);
  o.status = m.run(img.roi(), img.step(), {p.w, p.h}, seed, val.newVal, val.lo, val.hi, &o.region,
                   buffer.data());
  EXPECT_TRUE(img.outsideUnchanged()) << m.name;
  for (T t : img.pixels()) o.pixels.push_back(static_cast<double>(t));
  return o;
}

Outcome call(const FloodFillMember& m, const Picture& p, KvliPoint seed, const Values& val) {
  const int key = m.kind * 100 + m.bytes * 10 + m.channels;
  switch (key) {
    case 'u' * 100 + 11: return call<Kvl8u, 1>(m, p, seed, val);
    case 'u' * 100 + 13: return call<Kvl8u, 3>(m, p, seed, val);
    case 'u' * 100 + 21: return call<Kvl16u, 1>(m, p, seed, val);
    case 'u' * 100 + 23: return call<Kvl16u, 3>(m, p, seed, val);
    case 's' * 100 + 41: return call<Kvl32s, 1>(m, p, seed, val);
    case 'f' * 100 + 41: return call<Kvl32f, 1>(m, p, seed, val);
    default: return call<Kvl32f, 3>(m, p, seed, val);
  }
}

// The region by breadth-first search: exact (every channel equal to the seed's), Range (every
// channel within the clamped interval and not already newVal) or Grad with zero deltas (equal
// to the neighbour it is reached from, which is the exact region again). Returns the filled
// picture and the record; `runs` receives the region's maximal runs.
Outcome model(const FloodFillMember& m, const Picture& p, KvliPoint seed, const Values& val,
              long long* runs) {
  const int c = p.c;
  double lo[3], hi[3];
  const double top = m.kind == 'f' ? HUGE_VAL : std::ldexp(1.0, 8 * m.bytes) - 1;
  for (int k = 0; k < c; ++k) {
    const double s = p.at(seed.x, seed.y, k);
    if (m.kind == 'f') {
      lo[k] = static_cast<float>(static_cast<float>(s) - static_cast<float>(val.lo[k]));
      hi[k] = static_cast<float>(static_cast<float>(s) + static_cast<float>(val.hi[k]));
    } else {
      lo[k] = std::max(0.0, s - val.lo[k]), hi[k] = std::min(top, s + val.hi[k]);
    }
  }
  auto joins = [&](int x, int y) {
    bool painted = true;
    for (int k = 0; k < c; ++k) {
      const double v = p.at(x, y, k), s = p.at(seed.x, seed.y, k);
      if (m.rule != kFillRange ? !(v == s) : !(lo[k] <= v && v <= hi[k])) return false;
      painted = painted && v == val.newVal[k];
    }
    return m.rule != kFillRange || !painted;
  };
  std::vector<char> in(static_cast<size_t>(p.w) * p.h, 0);
  std::vector<KvliPoint> queue{seed};
  in[static_cast<size_t>(seed.y) * p.w + seed.x] = 1;
  for (size_t i = 0; i < queue.size(); ++i)
    for (int dy = -1; dy <= 1; ++dy)
      for (int dx = -1; dx <= 1; ++dx) {
        const int x = queue[i].x + dx, y = queue[i].y + dy;
        if ((dx == 0 && dy == 0) || (m.conn == 4 && dx != 0 && dy != 0)) continue;
        if (x < 0 || y < 0 || x >= p.w || y >= p.h || in[static_cast<size_t>(y) * p.w + x])
          continue;
        if (!joins(x, y)) continue;
        in[static_cast<size_t>(y) * p.w + x] = 1;
        queue.push_back({x, y});
      }
  Outcome o{kvlStatusOk, p.v, {}};
  int x0 = p.w, y0 = p.h, x1 = -1, y1 = -1;
  *runs = 0;
  for (int y = 0; y < p.h; ++y)
    for (int x = 0; x < p.w; ++x) {
      if (!in[static_cast<size_t>(y) * p.w + x]) continue;
      *runs += x == 0 || !in[static_cast<size_t>(y) * p.w + x - 1];
      for (int k = 0; k < c; ++k) o.pixels[(static_cast<size_t>(y) * p.w + x) * c + k] = val.newVal[k];
      x0 = std::min(x0, x), x1 = std::max(x1, x), y0 = std::min(y0, y), y1 = std::max(y1, y);
    }
  o.region.area = static_cast<double>(queue.size());
  for (int k = 0; k < c; ++k) o.region.value[k] = val.newVal[k];
  o.region.rect = {x0, y0, x1 - x0 + 1, y1 - y0 + 1};
  return o;
}

bool sameRecord(const KvliConnectedComp& a, const KvliConnectedComp& b) {
  return a.area == b.area && a.value[0] == b.value[0] && a.value[1] == b.value[1] &&
         a.value[2] == b.value[2] && a.rect.x == b.rect.x && a.rect.y == b.rect.y &&
         a.rect.width == b.rect.width && a.rect.height == b.rect.height;
}

bool samePixels(const std::vector<double>& a, const std::vector<double>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (!(a[i] == b[i] || (std::isnan(a[i]) && std::isnan(b[i])))) return false;
  return true;
}

// A picture of few values (so regions grow), in blocks and stripes whose runs cross the
// 16-pixel groups, with values a member can hold.
Picture pattern(const FloodFillMember& m, int w, int h, int kind, uint32_t seed) {
  Picture p{w, h, m.channels, std::vector<double>(static_cast<size_t>(w) * h * m.channels)};
  std::mt19937 rng(seed);
  const int bar = 1 + static_cast<int>(rng() % 40);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int k = 0; k < m.channels; ++k) {
        double v;
        if (kind == 0) v = static_cast<double>(rng() % 3);                    // speckle
        else if (kind == 1) v = ((x / bar + y / 3) % 2) * 2.0 + (k == 1);     // blocks
        else if (kind == 2) v = (rng() % 8 == 0) ? 1.0 : 2.0;                 // mostly one value
        else v = ((x + y) % 2 == 0 || rng() % 5 == 0) ? 1.0 : 0.0;            // diagonals
        p.v[(static_cast<size_t>(y) * w + x) * m.channels + k] = v;
      }
  return p;
}

void expectModel(const FloodFillMember& m, const Picture& p, KvliPoint seed, const Values& val,
                 const char* what) {
  long long runs = 0;
  Outcome want = model(m, p, seed, val, &runs);
  bool same = m.rule != kFillGrad;
  for (int k = 0; k < p.c; ++k) same = same && p.at(seed.x, seed.y, k) == val.newVal[k];
  if (same) {  // returns at once: nothing written
    want.pixels = p.v;
    std::memset(&want.region, 0xab, sizeof want.region);
  }
  // Range keeps at most w*h/4 records: the model holds while the region has fewer runs.
  if (m.rule == kFillRange && runs >= static_cast<long long>(p.w) * p.h / 4) return;
  kvl::test::forEachTarget([&](int target) {
    const Outcome got = call(m, p, seed, val);
    ASSERT_EQ(got.status, kvlStatusOk) << m.name;
    ASSERT_TRUE(samePixels(got.pixels, want.pixels) && sameRecord(got.region, want.region))
        << m.name << " " << what << " " << p.w << "x" << p.h << " seed " << seed.x << ","
        << seed.y << " target " << kvl::test::targetName(target) << " area " << got.region.area
        << " want " << want.region.area;
  });
}

TEST(FloodFill, EveryMemberMatchesTheRegionModel) {
  const int sizes[][2] = {{1, 1}, {1, 9}, {40, 1}, {2, 2}, {5, 3}, {17, 6}, {33, 17}, {70, 9}};
  uint32_t k = 0;
  for (const FloodFillMember& m : kMembers) {
    for (const auto& sz : sizes) {
      const int w = sz[0], h = sz[1];
      for (int kind = 0; kind < 4; ++kind) {
        const Picture p = pattern(m, w, h, kind, ++k);
        // The seed on every edge, in a corner and inside.
        const KvliPoint seeds[] = {{0, 0}, {w - 1, h - 1}, {w / 2, 0}, {0, h / 2},
                                   {w - 1, h / 3}, {w / 3, h - 1}, {w / 2, h / 2}};
        for (const KvliPoint s : seeds) {
          Values val{{7, 5, 6}, {0, 0, 0}, {0, 0, 0}};
          if (m.rule == kFillRange) {  // an interval around the seed that may reach 0 (clamped)
            const double d = static_cast<double>(k % 3);
            val = {{7, 5, 6}, {d + 1, d, 2}, {d, 1, 0}};
            if (k % 2) val.newVal[0] = val.newVal[1] = val.newVal[2] = 1;  // inside the interval
          }
          expectModel(m, p, s, val, "pattern");
        }
      }
    }
  }
}

// Grad fills track what they admitted in a visited map of a bit per pixel: the widths from 1 to
// 40 put the run ends and the map's frame on every bit of a byte, and the stripes' runs start
// and end at every offset of a byte and of a vector group.
TEST(FloodFill, GradVisitedMapAtEveryWidth) {
  uint32_t k = 1000;
  for (const FloodFillMember& m : kMembers) {
    if (m.rule != kFillGrad) continue;
    for (int w = 1; w <= 40; ++w)
      for (int kind : {1, 3}) {
        const int h = 2 + w % 5;
        const Picture p = pattern(m, w, h, kind, ++k);
        expectModel(m, p, {w - 1 - w / 3, h / 2}, {{7, 5, 6}, {0, 0, 0}, {0, 0, 0}}, "widths");
      }
  }
}

// Float seeds: -0.0 equals 0.0 (and is already "equal" to a 0.0 newVal); NaN equals nothing,
// so a NaN seed fills itself alone.
TEST(FloodFill, FloatSpecials) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (const FloodFillMember& m : kMembers) {
    if (m.kind != 'f' || m.rule == kFillGrad) continue;
    Picture p{6, 3, m.channels, std::vector<double>(18 * m.channels, -0.0)};
    for (int k = 0; k < m.channels; ++k) p.v[5 * m.channels + k] = 0.0, p.v[7 * m.channels + k] = nan;
    expectModel(m, p, {0, 0}, {{3, 3, 3}, {}, {}}, "signed zeros");
    expectModel(m, p, {1, 1}, {{3, 3, 3}, {1, 1, 1}, {1, 1, 1}}, "nan seed");
    const Outcome same = call(m, p, {5, 0}, {{-0.0, -0.0, -0.0}, {}, {}});
    EXPECT_TRUE(samePixels(same.pixels, p.v) && same.region.rect.x == static_cast<int>(0xabababab))
        << m.name << ": a seed equal to newVal returns at once";
  }
}

// Range ties at the interval ends join; integer intervals clamp at 0 and the maximum.
TEST(FloodFill, RangeEndsAndClamping) {
  for (const FloodFillMember& m : kMembers) {
    if (m.rule != kFillRange) continue;
    Picture p{20, 2, m.channels, {}};
    const double top = m.kind == 'f' ? 1e6 : std::ldexp(1.0, 8 * m.bytes) - 1;
    for (int y = 0; y < 2; ++y)
      for (int x = 0; x < 20; ++x)
        for (int k = 0; k < m.channels; ++k) p.v.push_back(x < 10 ? 3 + x % 3 : top - x % 3);
    expectModel(m, p, {0, 0}, {{9, 9, 9}, {10, 10, 10}, {2, 2, 2}}, "low end clamps, ties join");
    expectModel(m, p, {15, 1}, {{9, 9, 9}, {2, 2, 2}, {10, 10, 10}}, "high end clamps");
  }
}

// The Range stack holds (w*h)/4 records: with room for one, only the seed run is filled.
TEST(FloodFill, RangeCapacityOneFillsTheSeedRun) {
  for (const FloodFillMember& m : kMembers) {
    if (m.rule != kFillRange) continue;
    for (const auto& sz : {std::pair{2, 2}, std::pair{1, 3}, std::pair{7, 1}}) {
      Picture p{sz.first, sz.second, m.channels,
                std::vector<double>(static_cast<size_t>(sz.first) * sz.second * m.channels, 4)};
      kvl::test::forEachTarget([&](int) {
        const Outcome o = call(m, p, {0, 0}, {{9, 9, 9}, {1, 1, 1}, {1, 1, 1}});
        EXPECT_EQ(o.region.area, sz.first) << m.name;
        EXPECT_EQ(o.region.rect.height, 1) << m.name;
      });
    }
  }
}

// Grad admits a ramp of any height whose steps stay within the deltas, and nothing beyond a
// larger step; with zero deltas its region is the exact one (checked against the model).
TEST(FloodFill, GradRampsAndSteps) {
  for (const FloodFillMember& m : kMembers) {
    if (m.rule != kFillGrad) continue;
    const int w = 37, h = 25;
    Picture p{w, h, m.channels, {}};
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        for (int k = 0; k < m.channels; ++k)
          p.v.push_back(x < 30 ? 2.0 * x + 3.0 * y + k : 250.0);  // a cliff at x = 30
    kvl::test::forEachTarget([&](int target) {
      const Outcome o = call(m, p, {w / 2, h / 2}, {{1, 1, 1}, {3, 3, 3}, {3, 3, 3}});
      EXPECT_EQ(o.region.area, 30.0 * h) << m.name << " " << kvl::test::targetName(target);
      EXPECT_EQ(o.region.rect.width, 30) << m.name;
      const Outcome tight = call(m, p, {0, 0}, {{1, 1, 1}, {2, 2, 2}, {2, 2, 2}});
      EXPECT_EQ(tight.region.area, 30.0) << m.name << ": steps of 3 down the columns stop it";
    });
    for (int kind = 0; kind < 4; ++kind)
      expectModel(m, pattern(m, 45, 13, kind, 77 + kind), {3, 4}, {{9, 9, 9}, {}, {}}, "zero deltas");
  }
}

// 4-connected fills stop at a diagonal-only contact; 8-connected fills cross it.
TEST(FloodFill, DiagonalContacts) {
  for (const FloodFillMember& m : kMembers) {
    Picture p{4, 4, m.channels, std::vector<double>(16 * m.channels, 0)};
    for (int i = 0; i < 4; ++i)
      for (int k = 0; k < m.channels; ++k) p.v[(i * 4 + i) * m.channels + k] = 1;
    const Outcome o = call(m, p, {0, 0}, {{2, 2, 2}, {0, 0, 0}, {0, 0, 0}});
    EXPECT_EQ(o.region.area, m.conn == 8 ? 4.0 : 1.0) << m.name;
    EXPECT_EQ(o.region.value[1], m.channels == 3 ? 2.0 : 0.0) << m.name;
  }
}

TEST(FloodFill, SizeQueries) {
  int n = 0;
  EXPECT_EQ(kvliFloodFillGetSize({7, 5}, &n), kvlStatusOk);
  EXPECT_EQ(n, 6 * 35 + 32);
  EXPECT_EQ(kvliFloodFillGetSize_Grad({7, 5}, &n), kvlStatusOk);
  EXPECT_EQ(n, 9 * 7 + 16 * 35 + 64);
  EXPECT_EQ(kvliFloodFillGetSize({0, 0}, nullptr), kvlStatusNullPointer);
  EXPECT_EQ(kvliFloodFillGetSize_Grad({3, 0}, &n), kvlStatusBadSize);
}

// Validation in order, each failure writing nothing; the step table by member.
TEST(FloodFill, ValidationOrderAndSteps) {
  for (const FloodFillMember& m : kMembers) {
    const int w = 5, h = 3, elem = m.bytes * m.channels;
    std::vector<uint8_t> image(static_cast<size_t>(w) * h * elem + 64, 9);
    std::vector<Kvl8u> buffer(4096);
    KvliConnectedComp region;
    std::memset(&region, 0xab, sizeof region);
    const double v[3] = {1, 1, 1};
    const int bound = w * m.bytes * m.stepChannels;
    const int good = w * elem;
    struct Case {
      void* image;
      int step;
      KvliSize roi;
      KvliPoint seed;
      const double* arrays;
      KvliConnectedComp* region;
      Kvl8u* buffer;
      KvlStatus want;
    } cases[] = {
        {nullptr, 0, {0, 0}, {9, 9}, v, &region, buffer.data(), kvlStatusNullPointer},
        {image.data(), good, {w, h}, {0, 0}, v, nullptr, buffer.data(), kvlStatusNullPointer},
        {image.data(), good, {w, h}, {0, 0}, v, &region, nullptr, kvlStatusNullPointer},
        {image.data(), 0, {w, 0}, {9, 9}, v, &region, buffer.data(), kvlStatusBadSize},
        {image.data(), bound - 1, {w, h}, {9, 9}, v, &region, buffer.data(), kvlStatusBadStep},
        {image.data(), good + (m.bytes > 1 ? 1 : 0) + (m.bytes == 1 ? 99 : 0), {w, h}, {-1, 0},
         v, &region, buffer.data(),
         m.bytes > 1 ? kvlStatusStepNotMultiple : kvlStatusOutOfRange},
        {image.data(), good, {w, h}, {w, 0}, v, &region, buffer.data(), kvlStatusOutOfRange},
        {image.data(), good, {w, h}, {0, h}, v, &region, buffer.data(), kvlStatusOutOfRange},
        {image.data(), good, {w, h}, {0, -1}, v, &region, buffer.data(), kvlStatusOutOfRange},
    };
    for (const Case& c : cases) {
      EXPECT_EQ(m.run(c.image, c.step, c.roi, c.seed, c.arrays, c.arrays, c.arrays, c.region,
                      c.buffer),
                c.want)
          << m.name << " step " << c.step;
    }
    if (m.channels == 3) {
      EXPECT_EQ(m.run(image.data(), good, {w, h}, {0, 0}, nullptr, v, v, &region, buffer.data()),
                kvlStatusNullPointer)
          << m.name;
      if (m.rule != kFillExact) {
        EXPECT_EQ(m.run(image.data(), good, {w, h}, {0, 0}, v, v, nullptr, &region,
                        buffer.data()),
                  kvlStatusNullPointer)
            << m.name;
      }
    }
    EXPECT_TRUE(std::all_of(image.begin(), image.end(), [](uint8_t b) { return b == 9; }) &&
                region.rect.x == static_cast<int>(0xabababab))
        << m.name << ": a failing call wrote";
    // The step bound itself is accepted (the 8u and 32f three-channel forms count one channel).
    const int smallest = (bound + m.bytes - 1) / m.bytes * m.bytes;
    EXPECT_EQ(m.run(image.data(), smallest, {w, 1}, {0, 0}, v, v, v, &region, buffer.data()),
              kvlStatusOk)
        << m.name;
    // The seed already equal to newVal: exact and Range leave everything untouched.
    std::fill(image.begin(), image.end(), 0);
    std::memset(&region, 0xab, sizeof region);
    const double zero[3] = {0, 0, 0};
    EXPECT_EQ(m.run(image.data(), good, {w, h}, {1, 1}, zero, zero, zero, &region, buffer.data()),
              kvlStatusOk);
    const bool untouched = region.rect.width == static_cast<int>(0xabababab);
    EXPECT_EQ(untouched, m.rule != kFillGrad) << m.name;
    if (m.rule == kFillGrad) {
      EXPECT_EQ(region.area, w * h) << m.name;
    }
  }
}

}  // namespace
