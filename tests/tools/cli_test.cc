// End-to-end runs of the kvlcv program on generated images: outputs equal the library's, and
// every error path gives a one-line message and a non-zero exit status.
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string>

#include "image_io.h"
#include "support/support.h"

namespace {

using kvlcli::Picture;

struct Outcome {
  int exitCode;
  std::string output;
};

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer reserves terabytes of address space, so its own allocation cap stands in for a
// limit on the address space, and no allocation failure can be recovered from.
constexpr bool kCanCapMemory = false;
const std::string kLimits =
    "ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}max_allocation_size_mb=512 timeout 20 ";
#else
constexpr bool kCanCapMemory = true;
const std::string kLimits = "ulimit -v 524288 && timeout 20 ";
#endif

// Runs the program with `args` in the folder `cwd` (empty: the current one); `limits` prefixes
// the command (for example a memory and time cap).
Outcome run(const std::string& args, const std::string& cwd = "", const std::string& limits = "") {
  const std::string cmd = (cwd.empty() ? "" : "cd " + cwd + " && ") + limits + KVL_CLI_PROGRAM +
                          " " + args + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  std::string out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
  const int status = pclose(p);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

class Cli : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/kvlcv-cli-XXXXXX";
    dir_ = mkdtemp(tmpl);
    grey_ = make(61, 37, 1, 8, "grey.png");
    rgb_ = make(40, 23, 3, 8, "rgb.png");
    deep_ = make(33, 21, 1, 16, "deep.png");
    rgb16_ = make(17, 9, 3, 16, "rgb16.ppm");
  }
  void TearDown() override { std::system(("rm -rf " + dir_).c_str()); }

  Picture make(int w, int h, int c, int d, const std::string& name) {
    Picture p;
    p.allocate(w, h, c, d);
    std::mt19937 rng(w * 31 + h);
    for (size_t i = 0; i < p.data.size(); ++i) p.data[i] = static_cast<uint8_t>((i * 7) % 251 ^ (rng() & 31));
    EXPECT_EQ(kvlcli::writeImage(path(name), p), "");
    return p;
  }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  void write(const std::string& name, const std::string& bytes) const {
    FILE* f = std::fopen(path(name).c_str(), "wb");
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
  }
  Picture read(const std::string& name) const {
    Picture p;
    EXPECT_EQ(kvlcli::readImage(path(name), &p), "");
    return p;
  }

  std::string dir_;
  Picture grey_, rgb_, deep_, rgb16_;
};

// A work buffer of the size a query reports.
template <class Query>
std::vector<Kvl8u> buffer(Query query) {
  int bytes = 0;
  EXPECT_EQ(query(&bytes), kvlStatusOk);
  return std::vector<Kvl8u>(static_cast<size_t>(bytes));
}

// Filter outputs equal the library's calls with the options given: raw 16-bit derivatives
// offset by 32768, Canny on the luma of an RGB image, and 16-bit inputs kept at their depth.
TEST_F(Cli, FiltersEqualTheLibraryCalls) {
  ASSERT_EQ(run("sobel --dir vert --mask 5 --border mirror --raw " + path("grey.png") + " " + path("o.png")).exitCode, 0);
  const KvliSize roi{grey_.width, grey_.height};
  auto buf = buffer([&](int* n) { return kvliFilterSobelNegVertGetBufferSize_8u16s_C1R(roi, kvlMaskSize5x5, n); });
  std::vector<Kvl16s> want(static_cast<size_t>(roi.width) * roi.height);
  ASSERT_EQ(kvliFilterSobelNegVertBorder_8u16s_C1R(grey_.data.data(), grey_.step(), want.data(), roi.width * 2, roi,
                                                   kvlMaskSize5x5, kvlBorderMirror, 0, buf.data()),
            kvlStatusOk);
  const Picture got = read("o.png");
  ASSERT_EQ(got.depth, 16);
  const auto* g = reinterpret_cast<const uint16_t*>(got.data.data());
  for (size_t i = 0; i < want.size(); ++i) ASSERT_EQ(g[i], want[i] + 32768) << i;

  ASSERT_EQ(run("canny --low 20 --high 60 --norm l1 " + path("rgb.png") + " " + path("e.pgm")).exitCode, 0);
  Picture luma;
  luma.allocate(rgb_.width, rgb_.height, 1, 8);
  for (int i = 0; i < rgb_.width * rgb_.height; ++i) {
    const uint8_t* s = rgb_.data.data() + 3 * i;
    luma.data[i] = static_cast<uint8_t>((77 * s[0] + 150 * s[1] + 29 * s[2] + 128) >> 8);
  }
  const KvliSize rgb{rgb_.width, rgb_.height};
  auto cannyBuf = buffer([&](int* n) { return kvliCannyBorderGetSize(rgb, kvlFilterSobel, kvlMaskSize3x3, kvl8u, n); });
  std::vector<Kvl8u> edges(static_cast<size_t>(rgb.width) * rgb.height);
  ASSERT_EQ(kvliCannyBorder_8u_C1R(luma.data.data(), rgb.width, edges.data(), rgb.width, rgb, kvlFilterSobel,
                                   kvlMaskSize3x3, kvlBorderRepl, 0, 20.f, 60.f, kvlNormL1, cannyBuf.data()),
            kvlStatusOk);
  EXPECT_EQ(read("e.pgm").data, edges);

  ASSERT_EQ(run("gradient-gray --norm l1 " + path("rgb16.ppm") + " " + path("g.png")).exitCode, 0);
  const Picture grad = read("g.png");
  ASSERT_EQ(grad.depth, 16);
  std::vector<Kvl16u> gray(static_cast<size_t>(rgb16_.width) * rgb16_.height);
  ASSERT_EQ(kvliGradientColorToGray_16u_C3C1R(reinterpret_cast<const Kvl16u*>(rgb16_.data.data()), rgb16_.step(),
                                              gray.data(), rgb16_.width * 2, {rgb16_.width, rgb16_.height}, 1),
            kvlStatusOk);
  EXPECT_EQ(std::memcmp(grad.data.data(), gray.data(), gray.size() * 2), 0);
  // A 16-bit grey image is filtered in floating point.
  EXPECT_EQ(run("laplacian " + path("deep.png") + " " + path("l.png")).exitCode, 0);
}

// Every accepted word of every option, and every flag, works alone on a real image: the defaults
// of the other options must suit each choice. The operations come from the tool's own listing.
// The input files an operation takes, from its usage line: the input given once or twice.
std::string inputsOf(const std::string& op, const std::string& file) {
  const bool two = run(op + " --help").output.find("<second>") != std::string::npos;
  return two ? file + " " + file : file;
}

TEST_F(Cli, EveryAcceptedValueWorksWithTheDefaults) {
  const Outcome list = run("--list-ops"), help = run("--help");
  ASSERT_EQ(list.exitCode, 0);
  std::set<std::string> listed;
  std::istringstream lines(list.output);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string op, opt, kind, value;
    words >> op >> opt >> kind;
    listed.insert(op);
    std::vector<std::string> choices;
    if (kind == "flag") choices.push_back(opt);
    while (words >> value) choices.push_back(opt + " " + value);
    for (const std::string& c : choices) {
      const Outcome o = run(op + " " + c + " " + inputsOf(op, path("rgb.png")) + " " + path("o.png"));
      EXPECT_EQ(o.exitCode, 0) << op << " " << c << ": " << o.output;
    }
  }
  for (const std::string& op : listed) {  // --time reports the speed; the output is 8-bit
    const Outcome o = run(op + " --time " + inputsOf(op, path("rgb.png")) + " " + path("t.png"));
    EXPECT_NE(o.output.find("Mpixel/s"), std::string::npos) << op << ": " << o.output;
    const Picture p = read("t.png");
    const int width = op == "pyrdown" ? (rgb_.width + 1) / 2 : op == "pyrup" ? 2 * rgb_.width : rgb_.width;
    EXPECT_TRUE(p.depth == 8 && p.width == width) << op;
  }
  // The listing covers every operation that --help names.
  std::istringstream helpLines(help.output.substr(help.output.find("operations:")));
  std::string line;
  std::getline(helpLines, line);
  size_t named = 0;
  for (; std::getline(helpLines, line) && !line.empty(); ++named)
    EXPECT_TRUE(listed.count(line.substr(2, line.find(' ', 2) - 2))) << line;
  EXPECT_EQ(named, listed.size());
  EXPECT_GE(named, 6u);
}

// Each level of a pyramid is the library's step on the level before; the output file holds the
// last one and, with --levels N > 1, <name>-k every level k. 16-bit images go through the 32f
// members, rounded per level.
TEST_F(Cli, PyramidLevelsEqualTheLibrarySteps) {
  ASSERT_EQ(run("pyrdown --levels 3 " + path("rgb.png") + " " + path("down.png")).exitCode, 0);
  std::vector<Kvl8u> cur = rgb_.data;
  KvliSize s{rgb_.width, rgb_.height};
  for (int k = 1; k <= 3; ++k) {
    const KvliSize d{(s.width + 1) / 2, (s.height + 1) / 2};
    auto buf = buffer([&](int* n) { return kvliPyrDownGetBufSize_Gauss5x5(s.width, kvl8u, 3, n); });
    std::vector<Kvl8u> next(static_cast<size_t>(d.width) * d.height * 3);
    ASSERT_EQ(kvliPyrDown_Gauss5x5_8u_C3R(cur.data(), s.width * 3, next.data(), d.width * 3, s, buf.data()),
              kvlStatusOk);
    EXPECT_EQ(read("down-" + std::to_string(k) + ".png").data, next) << k;
    cur = next;
    s = d;
  }
  EXPECT_EQ(read("down.png").data, cur);
  EXPECT_NE(access(path("down-4.png").c_str(), F_OK), 0);

  ASSERT_EQ(run("pyrup " + path("deep.png") + " " + path("up.png")).exitCode, 0);
  EXPECT_NE(access(path("up-1.png").c_str(), F_OK), 0);  // one level: no numbered file
  const Picture up = read("up.png");
  ASSERT_TRUE(up.depth == 16 && up.width == 2 * deep_.width && up.height == 2 * deep_.height);
  const auto* d16 = reinterpret_cast<const uint16_t*>(deep_.data.data());
  std::vector<float> src(d16, d16 + deep_.width * deep_.height), want(up.width * up.height);
  auto buf = buffer([&](int* n) { return kvliPyrUpGetBufSize_Gauss5x5(deep_.width, kvl32f, 1, n); });
  ASSERT_EQ(kvliPyrUp_Gauss5x5_32f_C1R(src.data(), deep_.width * 4, want.data(), up.width * 4,
                                       {deep_.width, deep_.height}, buf.data()),
            kvlStatusOk);
  const auto* got = reinterpret_cast<const uint16_t*>(up.data.data());
  for (size_t i = 0; i < want.size(); ++i) ASSERT_EQ(got[i], std::lround(want[i])) << i;
}

struct ErrorCase {
  std::string args;    // $G stands for the grey input, $D for the 16-bit one, $T for the folder
  std::string expect;  // part of the one-line message
  int exitCode;
  bool needsMemoryCap = false;  // expects a recovered allocation failure
};

// A PNG whose header claims `w` x `h` grey pixels, followed by a few bytes of image data.
std::string claimingPng(uint32_t w, uint32_t h) {
  auto be = [](uint32_t v) {
    return std::string{char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
  };
  const std::string ihdr = "IHDR" + be(w) + be(h) + std::string("\x08\0\0\0\0", 5);
  const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(ihdr.data()), ihdr.size());
  return std::string("\x89PNG\r\n\x1a\n\0\0\0\x0d", 12) + ihdr + be(crc) +
         std::string("\0\0\x40\0IDATx\x9c", 10);
}

// Each error is one line and exit status 1, reached quickly and within a bounded amount of memory
// whatever the input claims.
TEST_F(Cli, ErrorsAreOneActionableLine) {
  const std::pair<const char*, std::string> files[] = {
      {"text.png", "hello"}, {"deep.pgm", "P5\n2 2\n70000\n"}, {"header.pgm", "P5 65535 65535 255\n"},
      {"huge.png", claimingPng(100000, 100000)}, {"empty.txt", "# none\n\n"}, {"one.txt", "1 2\n3\n"},
      {"three.txt", "1 2 3\n"}, {"nan.txt", "nan 4\n"}, {"far.txt", "1e30 4\n"},
      {"binary.txt", std::string("1 2\0\x01", 5)}};
  for (const auto& [name, bytes] : files) write(name, bytes);
  for (auto [target, name] : {std::pair{"/dev/zero", "zero.png"}, {"/dev/full", "full.pgm"},
                              {"/dev/full", "full.png"}})
    ASSERT_EQ(symlink(target, path(name).c_str()), 0) << name;
  const ErrorCase cases[] = {
      {"sobel $T/missing.png $T/o.png", "cannot open", 1},
      {"sobel $T/text.png $T/o.png", "not an image", 1},
      {"sobel $T/deep.pgm $T/o.png", "unsupported bit depth", 1},
      {"sobel $T/header.pgm $T/o.png", "header.pgm: the file ends early", 1},
      {"sobel $T/huge.png $T/o.png", "100000x100000 is 10000000000 pixels, above the limit", 1},
      {"sobel --max-pixels 2000 $G $T/o.png", "61x37 is 2257 pixels, above the limit of 2000", 1},
      {"sobel --max-pixels 10000000000 $T/huge.png $T/o.png", "out of memory", 1, true},
      {"sobel $T/zero.png $T/o.png", "zero.png: not an image", 1},
      {"sobel $G $T/full.pgm", "full.pgm: write error (No space left on device)", 1},
      {"sobel $G $T/full.png", "full.png: write error (No space left on device)", 1},
      {"canny $D $T/o.png", "needs an 8-bit image", 1},
      {"sobel --dir horiz $D $T/o.png", "(--dir horiz offers no 32f type)", 1},
      {"sobel --dir horiz --type 16s $G $T/o.png", "not available for --dir horiz (it offers 8s)",
       1},
      {"sobel --mask 7 $G $T/o.png", "--mask takes one of 3, 5, not '7'", 1},
      {"sobel --value abc $G $T/o.png", "--value: 'abc' is not a number", 1},
      {"sobel --value 300 $G $T/o.png", "--value: 300 is outside 0..255 for an 8-bit image", 1},
      {"canny --value 2.5 $G $T/o.png", "--value: 2.5 is not an integer", 1},
      {"sobel --type 8s --divisor 2.5 $G $T/o.png", "--divisor: 2.5 is not an integer", 1},
      {"sobel --type 8s --divisor 0 $G $T/o.png", "--divisor: 0 is not allowed", 1},
      {"canny --low -1 $G $T/o.png", "--low: -1 is below 0", 1},
      {"canny --low 200 --high 100 $G $T/o.png", "canny: --low 200 is above --high 100", 1},
      {"sobel --bogus 1 $G $T/o.png", "unknown option --bogus", 1},
      {"sobel --threads 0 $G $T/o.png", "--threads: 0 is outside 1..1024", 1},
      {"sobel --raw 1 $G $T/o.png", "unexpected argument '1' (--raw takes no value)", 1},
      {"sobel --raw=1 $G $T/o.png", "--raw takes no value", 1},
      {"sobel $G $T/o.png $T/p.png", "unexpected argument '" + dir_ + "/p.png'", 1},
      {"sobel $G", "needs an input and an output", 1},
      {"sobel $G $T/o.bmp", "unknown output format", 1},
      {"sobel $G $T/nodir/o.png", "cannot write", 1},
      {"frobnicate $G $T/o.png", "unknown operation 'frobnicate'", 1},
      {"canny --kernel scharr --mask 5 $G $T/o.png", "kvlStatusBadMaskSize", 1},
      {"integral --window 62 $G $T/o.png", "--window 62 is larger than the image (61x37)", 1},
      {"integral --scale 17 $G $T/o.png", "--scale: 17 is outside -16..16", 1},
      {"detect --cascade $T/missing.xml $G $T/o.png", "missing.xml': No such file or directory", 1},
      {"detect --cascade $T/text.png $G $T/o.png", "text.png': not well-formed XML", 1},
      {"detect --cascade $T/zero.png $G $T/o.png", "zero.png': larger than 64 MiB", 1},
      {"detect --cascade= $G $T/o.png", "--cascade: needs a file name", 1},
      {"detect --scale-factor 1 $G $T/o.png", "--scale-factor: 1 is not above 1", 1},
      {"detect --min-neighbors -1 $G $T/o.png", "--min-neighbors: -1 is outside 0..1000000", 1},
      {"detect --min-size 30 --max-size 20 $G $T/o.png", "--max-size 20 is below --min-size 30", 1},
      {"track $G $T/o.png", "track needs two input files and an output file", 1},
      {"track $G $T/rgb.png $T/o.png", "the images differ in size (61x37 and 40x23)", 1},
      {"track --window 0 $G $G $T/o.png", "--window: 0 is outside 1..255", 1},
      {"track --points $T/missing.txt $G $G $T/o.png", "missing.txt: cannot be opened", 1},
      {"track --points $T/empty.txt $G $G $T/o.png", "empty.txt: no points", 1},
      {"track --points $T/one.txt $G $G $T/o.png", "one.txt: line 2: expected two numbers", 1},
      {"track --points $T/three.txt $G $G $T/o.png", "three.txt: line 1: unexpected text after", 1},
      {"track --points $T/nan.txt $G $G $T/o.png", "nan.txt: line 1: a coordinate is not a finite", 1},
      {"track --points $T/far.txt $G $G $T/o.png", "far.txt: line 1: a coordinate is not a finite", 1},
      {"track --points $T/binary.txt $G $G $T/o.png", "binary.txt: line 1: not text", 1},
      {"track --points $T/zero.png $G $G $T/o.png", "zero.png: larger than 64 MiB", 1},
      {"pyrup --levels 9 $G $T/o.png", "--levels: 9 is outside 1..8", 1},
      {"erode --size 3y3 $G $T/o.png", "--size: '3y3' is not a size WxH within 1x1..255x255", 1},
      {"dilate --size 256x1 $G $T/o.png", "--size: '256x1' is not a size WxH", 1},
      {"open --shape $T/rgb.png --size 3 $G $T/o.png", "--size cannot be combined with a mask file", 1},
      {"close --shape $T/missing.png $G $T/o.png", "missing.png", 1},
      {"gradient --iterations 0 $G $T/o.png", "--iterations: 0 is outside 1..1000", 1},
      {"pyrdown --levels 0 $G $T/o.png", "--levels: 0 is outside 1..30", 1},
      {"distance --metric exact --radius 4 $G $T/o.png", "--radius applies to marching only", 1},
      {"distance --threshold 0 $G $T/o.png", "--threshold: 0 is outside 1..256", 1},
      {"watershed --markers $T/rgb.png $G $T/o.png", "the markers are 40x23, the image 61x37", 1},
      {"gradseg --markers $T/rgb.png $G $T/o.png", "the markers are 40x23, the input 61x37", 1},
      {"", "usage:", 2},
  };
  for (ErrorCase c : cases) {
    if (c.needsMemoryCap && !kCanCapMemory) continue;
    for (auto [key, value] : {std::pair<std::string, std::string>{"$G", path("grey.png")}, {"$D", path("deep.png")}, {"$T", dir_}})
      for (size_t at; (at = c.args.find(key)) != std::string::npos;) c.args.replace(at, 2, value);
    const Outcome o = run(c.args, "", kLimits);
    EXPECT_EQ(o.exitCode, c.exitCode) << c.args << "\n" << o.output;
    EXPECT_NE(o.output.find(c.expect), std::string::npos) << c.args << "\n" << o.output;
    const long newlines = std::count(o.output.begin(), o.output.end(), '\n');
    EXPECT_TRUE(c.exitCode != 1 || newlines == 1) << o.output;
  }
}

TEST_F(Cli, HelpVersionAndDemo) {
  EXPECT_NE(run("--version").output.find("8.2.1 (r44077)"), std::string::npos);
  const Outcome help = run("canny --help");
  EXPECT_EQ(help.exitCode, 0);
  for (const char* o : {"--low", "--high", "--kernel", "--mask", "--norm", "--border", "--threads", "--time"})
    EXPECT_NE(help.output.find(o), std::string::npos) << o;
  const Outcome demo = run("demo --threads 2", dir_);
  EXPECT_EQ(demo.exitCode, 0) << demo.output;
  EXPECT_NE(demo.output.find("Mpixel/s"), std::string::npos);
  const Picture canny = read("demo-out/canny.png"), level4 = read("demo-out/pyrdown-4.png");
  const Picture up = read("demo-out/pyrup.png");
  EXPECT_TRUE(canny.width == 512 && level4.width == 32 && level4.channels == 3 && up.width == 1024);
  EXPECT_NE(demo.output.find("x=176 y=66 width=96"), std::string::npos) << demo.output;
  EXPECT_NE(demo.output.find("64.0000 64.0000 -> 70.4"), std::string::npos) << demo.output;
  const Picture coins = read("demo-out/coins-clean.png"), horse = read("demo-out/horse-outline.png");
  EXPECT_TRUE(coins.width == 384 && coins.height == 303 && horse.width == 400 && horse.height == 328);
  const auto outline = std::count(horse.data.begin(), horse.data.end(), 255) * 100 / horse.data.size();
  EXPECT_TRUE(outline >= 1 && outline <= 5) << outline << "%: the outline is a thin line";
  EXPECT_NE(demo.output.find("largest distance 53.3"), std::string::npos) << demo.output;
  for (const char* model : {"gaussian", "histogram"}) {  // a dozen masks of the moving shapes
    const Picture mask = read(std::string("demo-out/foreground-") + model + "/mask-0012.png");
    const auto set = std::count(mask.data.begin(), mask.data.end(), 255) * 100 / mask.data.size();
    EXPECT_TRUE(mask.width == 512 && set >= 2 && set <= 20) << model << " " << set << "%";
  }
}

// The morphology operations against a plain model of the minimum and maximum under the element
// (edges repeated), on grey, RGB and 16-bit images, by a rectangle, a cross, an ellipse and a
// mask file, with iterations; --binary on the thresholded grey image.
TEST_F(Cli, MorphologyMatchesAPlainModel) {
  Picture cross;  // a 3x2 mask file: the element {(1,0), (0,1), (2,1)}
  cross.allocate(3, 2, 1, 8);
  cross.data = {0, 9, 0, 1, 0, 255};
  ASSERT_EQ(kvlcli::writeImage(path("mask.png"), cross), "");
  struct Element {
    std::string args;
    int w, h;
    std::vector<int> on;
  };
  const Element elements[] = {
      {"--size 3x3", 3, 3, {1, 1, 1, 1, 1, 1, 1, 1, 1}},
      {"--shape cross --size 3x5", 3, 5, {0, 1, 0, 0, 1, 0, 1, 1, 1, 0, 1, 0, 0, 1, 0}},
      {"--shape ellipse --size 5x3", 5, 3, {0, 1, 1, 1, 0, 1, 1, 1, 1, 1, 0, 1, 1, 1, 0}},
      {"--shape " + path("mask.png"), 3, 2, {0, 1, 0, 1, 0, 1}},
  };
  // One erosion (max = false) or dilation of p, every channel.
  auto step = [](const Picture& p, const Element& e, bool max) {
    Picture o = p;
    const int ax = (e.w - 1) / 2, ay = (e.h - 1) / 2;
    for (int y = 0; y < p.height; ++y)
      for (int i = 0; i < p.width * p.channels; ++i) {
        const int x = i / p.channels, c = i % p.channels;
        int best = max ? -1 : 1 << 30;
        for (int j = 0; j < e.h; ++j)
          for (int k = 0; k < e.w; ++k)
            if (e.on[j * e.w + k]) {
              const int sy = std::clamp(y + j - ay, 0, p.height - 1);
              const int sx = std::clamp(x + k - ax, 0, p.width - 1);
              const int v = p.sample(sy, sx * p.channels + c);
              best = max ? std::max(best, v) : std::min(best, v);
            }
        if (p.depth == 8) o.row(y)[i] = static_cast<uint8_t>(best);
        else reinterpret_cast<uint16_t*>(o.row(y))[i] = static_cast<uint16_t>(best);
      }
    return o;
  };
  auto model = [&](const std::string& op, Picture p, const Element& e, int n) {
    auto times = [&](Picture q, bool max) {
      for (int k = 0; k < n; ++k) q = step(q, e, max);
      return q;
    };
    if (op == "erode" || op == "dilate") return times(p, op == "dilate");
    if (op == "open" || op == "close") return times(times(p, op == "close"), op == "open");
    Picture d = times(p, true), r = times(p, false);
    for (int y = 0; y < p.height; ++y)
      for (int i = 0; i < p.width * p.channels; ++i) {
        if (p.depth == 8) d.row(y)[i] = static_cast<uint8_t>(d.row(y)[i] - r.row(y)[i]);
        else reinterpret_cast<uint16_t*>(d.row(y))[i] -= reinterpret_cast<uint16_t*>(r.row(y))[i];
      }
    return d;
  };
  const std::pair<const char*, const Picture*> inputs[] = {
      {"grey.png", &grey_}, {"rgb.png", &rgb_}, {"deep.png", &deep_}};
  for (const char* op : {"erode", "dilate", "open", "close", "gradient"})
    for (const Element& e : elements)
      for (const auto& [file, pic] : inputs) {
        const int n = e.w == 3 && e.h == 3 ? 2 : 1;
        const std::string args = std::string(op) + " " + e.args + " --iterations " +
                                 std::to_string(n) + " " + path(file) + " " + path("m.png");
        ASSERT_EQ(run(args).exitCode, 0) << args;
        EXPECT_EQ(read("m.png").data, model(op, *pic, e, n).data) << args;
      }
  // --binary: the grey image thresholded at 100, eroded by the cross; set pixels are 255.
  ASSERT_EQ(run("erode --binary --threshold 100 --shape cross " + path("grey.png") + " " + path("b.png")).exitCode, 0);
  Picture bits = grey_;
  for (uint8_t& v : bits.data) v = v >= 100 ? 255 : 0;
  EXPECT_EQ(read("b.png").data, step(bits, {"", 3, 3, {0, 1, 0, 1, 1, 1, 0, 1, 0}}, false).data);
}

// The distance metrics as raw 16-bit values (round(16 d)) against brute-force nearest-feature
// searches: exact Euclidean, the 3x3 l1 mask (city block) and the 5x5 inf mask (chessboard); the
// marching bound; the false-colour map's feature colour and the black of an image without one.
TEST_F(Cli, DistanceMatchesBruteForce) {
  const int w = grey_.width, h = grey_.height;
  auto nearest = [&](auto norm) {
    std::vector<uint16_t> want(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        double best = 1e30;
        for (int v = 0; v < h; ++v)
          for (int u = 0; u < w; ++u)
            if (grey_.row(v)[u] < 100) best = std::min(best, norm(std::abs(u - x), std::abs(v - y)));
        want[static_cast<size_t>(y) * w + x] = static_cast<uint16_t>(std::nearbyint(16.0 * best));
      }
    return want;
  };
  const std::pair<std::string, std::vector<uint16_t>> cases[] = {
      {"--metric exact", nearest([](int dx, int dy) {
         return static_cast<double>(std::sqrt(static_cast<float>(dx * dx + dy * dy)));
       })},
      {"--metric chamfer3 --norm l1", nearest([](int dx, int dy) { return double(dx + dy); })},
      {"--metric chamfer5 --norm inf", nearest([](int dx, int dy) { return double(std::max(dx, dy)); })},
  };
  for (const auto& [args, want] : cases) {
    const std::string cmd = "distance --raw --threshold 100 " + args + " " + path("grey.png") + " " + path("d.png");
    ASSERT_EQ(run(cmd).exitCode, 0) << cmd;
    const Picture got = read("d.png");
    ASSERT_EQ(got.depth, 16);
    EXPECT_TRUE(std::equal(want.begin(), want.end(), reinterpret_cast<const uint16_t*>(got.data.data())))
        << cmd;
  }
  ASSERT_EQ(run("distance --raw --metric marching --radius 2 --threshold 100 " + path("grey.png") + " " + path("m.png")).exitCode, 0);
  const Picture m = read("m.png");
  const auto* mv = reinterpret_cast<const uint16_t*>(m.data.data());
  EXPECT_EQ(*std::max_element(mv, mv + w * h), 32);  // 16 x (2 + 0.00001), rounded
  ASSERT_EQ(run("distance --threshold 100 " + path("grey.png") + " " + path("c.png")).exitCode, 0);
  const Picture c = read("c.png");
  for (int i = 0; i < w * h; ++i)
    if (grey_.data[i] < 100) {
      ASSERT_EQ(c.data[3 * i] + c.data[3 * i + 1] + c.data[3 * i + 2], 96);
    }
  const Outcome none = run("distance --threshold 256 --invert " + path("grey.png") + " " + path("n.png"));
  EXPECT_NE(none.output.find("no feature pixels"), std::string::npos) << none.output;
  const Picture n = read("n.png");
  EXPECT_EQ(std::count(n.data.begin(), n.data.end(), 0), static_cast<long>(n.data.size()));
}

// floodfill repaints what the library's fill repaints and reports the region record; a seed
// outside the image is the library's status.
TEST_F(Cli, FloodFillMatchesTheLibrary) {
  const int w = grey_.width, h = grey_.height;
  std::vector<Kvl8u> want = grey_.data;
  std::vector<Kvl8u> buffer(static_cast<size_t>(6 * w * h + 32));
  KvliConnectedComp r{};
  ASSERT_EQ(kvliFloodFill_Range8Con_8u_C1IR(want.data(), w, {w, h}, {3, 4}, 7, 30, 40, &r, buffer.data()),
            kvlStatusOk);
  const Outcome o = run("floodfill --seed 3,4 --value 7 --rule range --lo 30 --hi 40 --connectivity 8 " +
                        path("grey.png") + " " + path("f.png"));
  ASSERT_EQ(o.exitCode, 0) << o.output;
  EXPECT_EQ(read("f.png").data, want);
  char line[120];
  std::snprintf(line, sizeof line, "region: %.0f pixels, value 7, rect x=%d y=%d width=%d height=%d",
                r.area, r.rect.x, r.rect.y, r.rect.width, r.rect.height);
  EXPECT_NE(o.output.find(line), std::string::npos) << o.output;
  const Outcome far = run("floodfill --seed 61,0 " + path("grey.png") + " " + path("f.png"));
  EXPECT_NE(far.output.find("kvlStatusOutOfRange"), std::string::npos) << far.output;
}

// The face of the sample photograph, as JSON and as lines, drawn on an RGB copy.
TEST_F(Cli, DetectListsAndDrawsTheFace) {
  const std::string photo = KVL_SOURCE_DIR "/data/astronaut.png";
  const Outcome json = run("detect --json " + photo + " " + path("faces.png"));
  EXPECT_EQ(json.exitCode, 0) << json.output;
  EXPECT_EQ(json.output.rfind("[\n  {\"x\": 176, \"y\": 66, \"width\": 96, \"height\": 96, \"neighbors\": ", 0), 0u)
      << json.output;
  EXPECT_EQ(json.output.substr(json.output.size() - 4), "}\n]\n") << json.output;
  const Picture drawn = read("faces.png");
  EXPECT_EQ(drawn.channels, 3);
  EXPECT_EQ(drawn.row(66)[3 * 200 + 1], 255);  // the top edge of the box is green
  const Outcome lines = run("detect --min-neighbors 1000 --scale-factor 1.3 " + photo + " " + path("none.png"));
  EXPECT_EQ(lines.exitCode, 0);
  EXPECT_EQ(lines.output, "");
  const Outcome grey = run("detect --json " + path("grey.png") + " " + path("g.png"));
  EXPECT_EQ(grey.output, "[]\n");
}

// Points of the sample photograph followed into a copy moved by (3, 2) pixels: the listing, the
// JSON and the drawing.
TEST_F(Cli, TrackFollowsAMovedPhotograph) {
  const std::string photoPath = KVL_SOURCE_DIR "/data/astronaut.png";
  Picture photo;
  ASSERT_EQ(kvlcli::readImage(photoPath, &photo), "");
  Picture moved = photo;
  for (int y = 0; y < photo.height; ++y)
    for (int x = 0; x < photo.width * 3; ++x)
      moved.row(y)[x] = photo.row(std::max(y - 2, 0))[std::max(x - 9, x % 3)];
  ASSERT_EQ(kvlcli::writeImage(path("moved.png"), moved), "");
  write("points.txt", "# x y\n200 150\n  330.5 260.25  \n\n-500 10\n");
  const Outcome listed = run("track --points " + path("points.txt") + " " + photoPath + " " +
                             path("moved.png") + " " + path("t.png"));
  ASSERT_EQ(listed.exitCode, 0) << listed.output;
  std::istringstream lines(listed.output);
  std::vector<std::array<double, 6>> rows;
  for (std::string line; std::getline(lines, line);) {
    std::array<double, 6>& v = rows.emplace_back();
    ASSERT_EQ(std::sscanf(line.c_str(), "%lf %lf -> %lf %lf status %lf error %lf", &v[0], &v[1],
                          &v[2], &v[3], &v[4], &v[5]), 6) << line;
  }
  ASSERT_EQ(rows.size(), 3u);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(rows[i][4], 0);
    EXPECT_NEAR(rows[i][2] - rows[i][0], 3.0, 0.1);
    EXPECT_NEAR(rows[i][3] - rows[i][1], 2.0, 0.1);
  }
  EXPECT_EQ(rows[1][1], 260.25);
  EXPECT_EQ(rows[2][4], 4);  // outside the image: lost at the coarsest of levels 0..3
  const Picture drawn = read("t.png");
  EXPECT_EQ(drawn.channels, 3);
  EXPECT_EQ(drawn.row(152)[3 * 203 + 1], 255);  // the green end of the first vector
  const Outcome json = run("track --json --grid 256 --levels 1 " + photoPath + " " + path("moved.png") +
                           " " + path("j.png"));
  ASSERT_EQ(json.exitCode, 0) << json.output;
  EXPECT_EQ(json.output.rfind("[\n  {\"from\": [128.0000, 128.0000], \"to\": [131.", 0), 0u) << json.output;
  EXPECT_EQ(std::count(json.output.begin(), json.output.end(), '{'), 4);
  EXPECT_EQ(json.output.substr(json.output.size() - 4), "}\n]\n") << json.output;
}

}  // namespace

namespace {

// The frames of a short video: a textured background and a bright square moving right.
Picture videoFrame(int t, int channels) {
  Picture p;
  p.allocate(32, 24, channels, 8);
  for (int y = 0; y < 24; ++y)
    for (int x = 0; x < 32; ++x)
      for (int c = 0; c < channels; ++c)
        p.row(y)[x * channels + c] = (x >= 3 + 4 * t && x < 9 + 4 * t && y >= 8 && y < 14)
                                         ? 240
                                         : static_cast<uint8_t>(60 + (x * 5 + y * 3 + c * 11) % 70);
  return p;
}

}  // namespace

// The foreground command takes the frames in name order and writes a mask and a background per
// frame, numbered from 0001, equal to the library's calls in that order (the first frame creates
// the model and is classified too); frames of different sizes or an unreadable frame stop it with
// one line.
TEST_F(Cli, ForegroundFollowsTheFramesInNameOrder) {
  for (int channels : {1, 3}) {
    std::vector<Picture> frames;
    std::string names;
    for (int t = 0; t < 5; ++t) {
      frames.push_back(videoFrame(t, channels));
      const std::string name = "f" + std::to_string(channels) + "-" + std::to_string(t) + ".png";
      EXPECT_EQ(kvlcli::writeImage(path(name), frames.back()), "");
      names = path(name) + " " + names;  // given in reverse order
    }
    for (const char* model : {"gaussian", "histogram"}) {
      const std::string out = "out-" + std::to_string(channels) + model;
      const Outcome o = run(std::string("foreground --model ") + model + " " + names + path(out));
      ASSERT_EQ(o.exitCode, 0) << o.output;
      EXPECT_NE(o.output.find("5 frames of 32x24"), std::string::npos) << o.output;
      EXPECT_NE(o.output.find("frames/s"), std::string::npos) << o.output;
      const KvliSize roi{32, 24};
      const int tag = 1;
      KvliFGGaussianState* gs = nullptr;
      KvliFGHistogramState* hs = nullptr;
      const bool gauss = std::string(model) == "gaussian";
      const Picture& f0 = frames[0];
      if (channels == 1)
        ASSERT_EQ(gauss ? kvliForegroundGaussianInitAlloc_8u_C1R(f0.row(0), f0.step(), roi, &tag, &gs)
                        : kvliForegroundHistogramInitAlloc_8u_C1R(f0.row(0), f0.step(), roi, &tag, &hs),
                  kvlStatusOk);
      else
        ASSERT_EQ(gauss ? kvliForegroundGaussianInitAlloc_8u_C3R(f0.row(0), f0.step(), roi, &tag, &gs)
                        : kvliForegroundHistogramInitAlloc_8u_C3R(f0.row(0), f0.step(), roi, &tag, &hs),
                  kvlStatusOk);
      int foreground = 0;
      for (int t = 0; t < 5; ++t) {
        Picture mask, bg;
        mask.allocate(32, 24, 1, 8);
        bg.allocate(32, 24, channels, 8);
        const Picture& f = frames[t];
        const Picture& prev = frames[t == 0 ? 0 : t - 1];
        auto classify = channels == 1 ? (gauss ? nullptr : &kvliForegroundHistogram_8u_C1R)
                                      : (gauss ? nullptr : &kvliForegroundHistogram_8u_C3R);
        if (gauss) {
          auto g = channels == 1 ? &kvliForegroundGaussian_8u_C1R : &kvliForegroundGaussian_8u_C3R;
          ASSERT_EQ(g(f.row(0), f.step(), bg.row(0), bg.step(), mask.row(0), 32, roi, gs), kvlStatusOk);
        } else {
          auto u = channels == 1 ? &kvliForegroundHistogramUpdate_8u_C1R
                                 : &kvliForegroundHistogramUpdate_8u_C3R;
          ASSERT_EQ(classify(f.row(0), f.step(), bg.row(0), bg.step(), mask.row(0), 32, roi, hs),
                    kvlStatusOk);
          ASSERT_EQ(u(f.row(0), f.step(), mask.row(0), 32, prev.row(0), prev.step(), roi, hs),
                    kvlStatusOk);
        }
        char name[64];
        std::snprintf(name, sizeof name, "%s/mask-%04d.png", out.c_str(), t + 1);
        EXPECT_EQ(read(name).data, mask.data) << model << " " << name;
        std::snprintf(name, sizeof name, "%s/background-%04d.png", out.c_str(), t + 1);
        EXPECT_EQ(read(name).data, bg.data) << model << " " << name;
        foreground += static_cast<int>(std::count(mask.data.begin(), mask.data.end(), 255));
      }
      EXPECT_GT(foreground, 0) << model;
      if (gs) kvliForegroundGaussianFree_8u_C1R(gs);
      if (hs) kvliForegroundHistogramFree_8u_C1R(hs);
    }
  }
  const ErrorCase cases[] = {
      {"foreground $T/f1-0.png $T/rgb.png $T/out", "frames differ: ", 1},
      {"foreground $T/f1-0.png $T/f3-1.png $T/out", "is 32x24 grey, ", 1},
      {"foreground $T/f1-0.png $T/missing.png $T/out", "missing.png: cannot open", 1},
      {"foreground $T/f1-0.png", "needs one or more frames and an output directory", 1},
      {"foreground --model mog $T/f1-0.png $T/out", "--model takes one of gaussian, histogram", 1},
      {"foreground $D $T/out", "needs 8-bit frames", 1},
  };
  for (ErrorCase c : cases) {
    for (auto [key, value] : {std::pair<std::string, std::string>{"$D", path("deep.png")}, {"$T", dir_}})
      for (size_t at; (at = c.args.find(key)) != std::string::npos;) c.args.replace(at, 2, value);
    const Outcome o = run(c.args);
    EXPECT_EQ(o.exitCode, c.exitCode) << c.args << "\n" << o.output;
    EXPECT_NE(o.output.find(c.expect), std::string::npos) << c.args << "\n" << o.output;
    EXPECT_EQ(std::count(o.output.begin(), o.output.end(), '\n'), 1) << o.output;
  }
}
