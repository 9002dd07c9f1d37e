// The detection component: the cascade loader against broken and hostile files, the tilted
// rectangles, scales, resizing and grouping rules, and the frontal face of the sample photograph.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "detector.h"
#include "image_io.h"

namespace kvl::detect {
namespace {

// A small valid cascade: an 8x8 window, one stage of an upright and a tilted stump.
const std::string kValid = R"(<?xml version="1.0"?>
<opencv_storage>
<cascade type_id="opencv-cascade-classifier"><stageType>BOOST</stageType>
  <featureType>HAAR</featureType>
  <height>8</height>
  <width>8</width>
  <stageParams><maxWeakCount>2</maxWeakCount></stageParams>
  <featureParams><maxCatCount>0</maxCatCount></featureParams>
  <stageNum>1</stageNum>
  <stages>
    <_>
      <maxWeakCount>2</maxWeakCount>
      <stageThreshold>-0.5</stageThreshold>
      <weakClassifiers>
        <_><internalNodes>0 -1 0 1.5e-02</internalNodes><leafValues>1. -1.</leafValues></_>
        <_><internalNodes>-1 0 1 -2.e-02</internalNodes><leafValues>-0.5 0.75</leafValues></_>
      </weakClassifiers></_>
  </stages>
  <features>
    <_><rects><_>0 0 8 4 -1.</_><_>0 4 8 4 1.</_></rects></_>
    <_><rects><_>4 0 2 2 -1.</_><_>4 1 2 1 2.</_></rects><tilted>1</tilted></_>
  </features></cascade>
</opencv_storage>
)";

Cascade parse(const std::string& s) { return parseCascade(s.data(), s.size()); }

TEST(CascadeLoader, ReadsTheStumpsAndFeatures) {
  const Cascade c = parse(kValid);
  EXPECT_EQ(c.width, 8);
  ASSERT_EQ(c.stages.size(), 1u);
  ASSERT_EQ(c.stages[0].weak.size(), 2u);
  EXPECT_FLOAT_EQ(c.stages[0].threshold, -0.5f);
  const WeakClassifier& w = c.stages[0].weak[1];  // children swapped: leaf 1 below the threshold
  EXPECT_EQ(w.feature, 1);
  EXPECT_FLOAT_EQ(w.threshold, -0.02f);
  EXPECT_FLOAT_EQ(w.below, 0.75f);
  EXPECT_FLOAT_EQ(w.above, -0.5f);
  EXPECT_TRUE(c.hasTilted());
  EXPECT_EQ(c.features[0].rects[1].y, 4);
  EXPECT_FLOAT_EQ(c.features[1].rects[1].weight, 2.f);
}

struct Broken {
  const char* from;  // replaced (first occurrence) in kValid
  std::string to;
  const char* expect;  // part of the error line
};

class CascadeBroken : public ::testing::TestWithParam<Broken> {};

TEST_P(CascadeBroken, IsRefusedWithOneLine) {
  const Broken& b = GetParam();
  std::string text = kValid;
  const size_t at = text.find(b.from);
  ASSERT_NE(at, std::string::npos) << b.from;
  text.replace(at, std::string(b.from).size(), b.to);
  try {
    parse(text);
    FAIL() << "accepted: " << b.to;
  } catch (const CascadeError& e) {
    const std::string msg = e.what();
    EXPECT_NE(msg.find(b.expect), std::string::npos) << msg;
    EXPECT_EQ(msg.find('\n'), std::string::npos) << msg;
  }
}

std::string nested(int n) {
  std::string s;
  for (int i = 0; i < n; ++i) s += "<_>";
  for (int i = 0; i < n; ++i) s += "</_>";
  return s;
}

INSTANTIATE_TEST_SUITE_P(
    Table, CascadeBroken,
    ::testing::Values(
        Broken{"<stageNum>1<", "<stageNum>1000000000<", "<stageNum> says 1000000000 stages, the file holds 1"},
        Broken{"<maxWeakCount>2</maxWeakCount>\n      <stage", "<maxWeakCount>3</maxWeakCount><stage", "stage 0: <maxWeakCount> says 3"},
        Broken{"0 -1 0 1.5e-02", "0 -1 7 0.5", "stage 0, classifier 0: feature index 7 outside 0..1"},
        Broken{"0 -1 0 1.5e-02", "0 -1 -1 0.5", "feature index -1"},
        Broken{"0 -1 0 1.5e-02", "1 -1 0 0.5 0 -2 1 0.5", "a tree of 2 splits"},
        Broken{"0 -1 0 1.5e-02", "0 -1 0", "4 numbers per split"},
        Broken{"0 -1 0 1.5e-02", "0 0 0 0.5", "children must be leaves 0 and 1"},
        Broken{"0 -1 0 1.5e-02", "0 -1 0 0x1p3", "'0x1p3' is not a finite number"},
        Broken{"0 -1 0 1.5e-02", "0 -1 0 nan", "is not a finite number"},
        Broken{"0 -1 0 1.5e-02", "0 -1 0 1e39", "is not a finite number"},
        Broken{"1. -1.", "1.", "a stump has 2 leaf values, not 1"},
        Broken{"<stageThreshold>-0.5", "<stageThreshold>-0.5 2", "must hold one number"},
        Broken{"0 0 8 4 -1.", "0 0 9 4 -1.", "feature 0, rectangle 0: rectangle 0 0 9 4 is empty or leaves the 8x8 window"},
        Broken{"0 0 8 4 -1.", "0 0 0 4 -1.", "is empty"},
        Broken{"0 0 8 4 -1.", "-1 0 8 4 -1.", "leaves the 8x8"},
        Broken{"0 0 8 4 -1.", "8 0 2147483647 4 -1.", "leaves the 8x8"},
        Broken{"4 0 2 2 -1.", "4 2147483647 2 2 -1.", "leaves the 8x8"},
        Broken{"0 0 8 4 -1.", "0 0 8 4", "5 numbers"},
        Broken{"0 0 8 4 -1.", "0 0 8 4e0 -1.", "height '4e0' is not an integer"},
        Broken{"4 0 2 2 -1.", "1 0 2 2 -1.", "feature 1, rectangle 0: tilted rectangle 1 0 2 2"},
        Broken{"4 1 2 1 2.", "4 5 2 2 2.", "tilted rectangle 4 5 2 2"},
        Broken{"<tilted>1", "<tilted>2", "<tilted> must be 0 or 1"},
        Broken{"<_>0 4 8 4 1.</_>", "<_>0 4 8 4 1.</_><_>0 4 8 4 1.</_><_>0 4 8 4 1.</_>", "4 rectangles (1 to 3"},
        Broken{"<_><rects><_>0 0 8 4 -1.</_><_>0 4 8 4 1.</_></rects></_>", "<_><rects></rects></_>", "0 rectangles"},
        Broken{"<width>8</width>", "<width>100000</width>", "window 100000x8"},
        Broken{"<width>8</width>", "<width>2</width>", "window 2x8"},
        Broken{"<width>8</width>", "<width>8 px</width>", "must hold one integer"},
        Broken{"<width>8</width>", "<width></width>", "<width> holds no value"},
        Broken{"<height>8</height>", "", "no <height>"},
        Broken{"HAAR", "LBP", "<featureType> must be HAAR"},
        Broken{"BOOST", "TREE", "<stageType> must be BOOST"},
        Broken{"<maxCatCount>0", "<maxCatCount>256", "categorical features"},
        Broken{"<features>", "<feature>", "not well-formed XML"},
        Broken{"<weakClassifiers>", "<weakClassifiers><oops/>", "unexpected <oops>"},
        Broken{"type_id=\"opencv-cascade-classifier\"", "type_id=\"opencv-haar-classifier\"", "older cascade layout"},
        Broken{"<opencv_storage>", "<storage/><opencv_storage>", "root element must be <opencv_storage>"},
        Broken{"<cascade type", "<classifier/><cascade type", "<classifier> where <cascade> was expected"},
        Broken{"<stageParams>", nested(200) + "<stageParams>", "XML_ELEMENT_DEPTH_EXCEEDED"}));

// Every cut of a valid file short of its closing tag is an error, never a crash or a cascade.
TEST(CascadeLoader, RefusesEveryTruncation) {
  const size_t end = kValid.rfind("</opencv_storage>");
  for (size_t n = 0; n < end; ++n) EXPECT_THROW(parseCascade(kValid.data(), n), CascadeError) << n;
}

// A file that is no cascade (missing, a folder, an endless device) is named in the error.
TEST(CascadeLoader, FilesThatAreNoCascade) {
  for (const char* path : {"/nonexistent/c.xml", "/tmp", "/dev/zero"}) {
    try {
      loadCascade(path);
      ADD_FAILURE() << path;
    } catch (const CascadeError& e) {
      EXPECT_EQ(std::string(e.what()).rfind(std::string("cascade '") + path + "': ", 0), 0u) << e.what();
    }
  }
}

// Rows of a tilted rectangle, hand-drawn: (4, 0, 3, 2) hangs from the corner above pixel 3.
TEST(TiltedRows, CoverTheRotatedRectangle) {
  std::vector<KvliRect> rows;
  tiltedRows({4, 0, 3, 2, 1.f}, &rows);
  const int expect[][2] = {{3, 3}, {2, 4}, {2, 5}, {3, 5}, {4, 4}};
  ASSERT_EQ(rows.size(), 5u);
  for (int k = 0; k < 5; ++k)
    EXPECT_TRUE(rows[k].y == k && rows[k].height == 1 && rows[k].x == expect[k][0] &&
                rows[k].x + rows[k].width - 1 == expect[k][1]) << k;
  for (int w = 1; w < 7; ++w)
    for (int h = 1; h < 7; ++h) {
      rows.clear();
      tiltedRows({h, 0, w, h, 1.f}, &rows);
      int area = 0;
      for (const KvliRect& r : rows) {
        area += r.width;
        EXPECT_GE(r.x, 0);
        EXPECT_LE(r.x + r.width, h + w);
      }
      EXPECT_EQ(area, 2 * w * h) << w << "x" << h;
    }
}

TEST(Scales, FollowMinAndMaxSize) {
  DetectParams p;
  p.scaleFactor = 1.25;
  // Windows of 24, 30, 37.5, 46.9 and 58.6: the last on 60 / 1.25^4 = 24.6 rows, rounded to 25.
  EXPECT_EQ(searchScales(100, 60, 24, 24, p).size(), 5u);
  p.minSize = 30;
  EXPECT_EQ(searchScales(100, 60, 24, 24, p).front(), 1.25);
  p.maxSize = 40;
  EXPECT_EQ(searchScales(100, 60, 24, 24, p).size(), 2u);
  p.scaleFactor = 1.0;
  EXPECT_TRUE(searchScales(100, 60, 24, 24, p).empty());
}

TEST(Resize, KeepsSizeAndLevels) {
  std::vector<uint8_t> src(37 * 23), dst(37 * 23);
  for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i * 7);
  resizeBilinear(src.data(), 37, 37, 23, dst.data(), 37, 37, 23);
  EXPECT_EQ(src, dst);
  std::vector<uint8_t> flat(37 * 23, 201), small(11 * 5);
  resizeBilinear(flat.data(), 37, 37, 23, small.data(), 11, 11, 5);
  EXPECT_TRUE(std::all_of(small.begin(), small.end(), [](uint8_t v) { return v == 201; }));
  const uint8_t two[2] = {0, 255};  // halfway between the samples of a 2x1 image made 4x1
  std::vector<uint8_t> four(4);
  resizeBilinear(two, 2, 2, 1, four.data(), 4, 4, 1);
  EXPECT_EQ(four, (std::vector<uint8_t>{0, 64, 191, 255}));
}

struct GroupCase {
  const char* name;
  std::vector<Box> hits;
  int minNeighbors;
  std::vector<Box> expect;
};

class Grouping : public ::testing::TestWithParam<GroupCase> {};

TEST_P(Grouping, Rule) { EXPECT_EQ(groupBoxes(GetParam().hits, GetParam().minNeighbors), GetParam().expect); }

INSTANTIATE_TEST_SUITE_P(
    Table, Grouping,
    ::testing::Values(
        GroupCase{"mean of a group", {{10, 10, 50, 50, 1}, {12, 11, 50, 50, 1}, {11, 13, 52, 52, 1}}, 2, {{11, 11, 51, 51, 3}}},
        GroupCase{"too few neighbours", {{10, 10, 50, 50, 1}, {12, 11, 50, 50, 1}, {11, 13, 52, 52, 1}}, 3, {}},
        GroupCase{"lone hits kept at 0", {{10, 10, 24, 24, 1}, {100, 5, 24, 24, 1}}, 0, {{100, 5, 24, 24, 1}, {10, 10, 24, 24, 1}}},
        GroupCase{"apart: two groups", {{200, 10, 40, 40, 1}, {202, 10, 40, 40, 1}, {10, 90, 40, 40, 1}, {10, 92, 40, 40, 1}}, 1,
                  {{201, 10, 40, 40, 2}, {10, 91, 40, 40, 2}}},
        GroupCase{"chained through a middle hit", {{0, 0, 50, 50, 1}, {9, 0, 50, 50, 1}, {18, 0, 50, 50, 1}}, 2, {{9, 0, 50, 50, 3}}},
        GroupCase{"inside a stronger box", {{0, 0, 100, 100, 1}, {1, 0, 100, 100, 1}, {0, 1, 100, 100, 1}, {30, 30, 30, 30, 1}, {31, 30, 30, 30, 1}}, 1,
                  {{0, 0, 100, 100, 3}}},
        GroupCase{"inside a weaker box", {{0, 0, 100, 100, 1}, {1, 0, 100, 100, 1}, {30, 30, 30, 30, 1}, {31, 30, 30, 30, 1}, {30, 31, 30, 30, 1}}, 1,
                  {{1, 0, 100, 100, 2}, {30, 30, 30, 30, 3}}}),
    [](const auto& info) {
      std::string n = info.param.name;
      std::replace(n.begin(), n.end(), ' ', '_');
      std::replace(n.begin(), n.end(), ':', '_');
      return n;
    });

// One face on the sample photograph, where the peer's detector with the same cascade and settings
// puts it, and the same hits with any thread count.
TEST(Detector, FindsTheFaceWithAnyThreadCount) {
  kvlcli::Picture photo;
  ASSERT_EQ(kvlcli::readImage(KVL_SOURCE_DIR "/data/astronaut.png", &photo), "");
  const std::vector<uint8_t> grey = kvlcli::greySamples(photo);
  const Detector d(loadCascade(KVL_SOURCE_DIR "/data/cascades/frontalface_default.xml"));
  DetectParams p;
  p.threads = 1;
  const std::vector<Box> one = d.hits(grey.data(), photo.width, photo.width, photo.height, p);
  const std::vector<Box> faces = groupBoxes(one, p.minNeighbors);
  ASSERT_EQ(faces.size(), 1u);
  EXPECT_TRUE(faces[0].x == 176 && faces[0].y == 66 && faces[0].width == 96 && faces[0].height == 96)
      << faces[0].x << " " << faces[0].y << " " << faces[0].width;
  EXPECT_GE(faces[0].neighbors, 20);
  for (int t : {2, 3}) {
    p.threads = t;
    EXPECT_EQ(d.hits(grey.data(), photo.width, photo.width, photo.height, p), one) << t << " threads";
  }
}

}  // namespace
}  // namespace kvl::detect
