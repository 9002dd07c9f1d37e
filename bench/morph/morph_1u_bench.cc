// Bit-image erosion and dilation over the member table, against the 8u member on the same
// picture at eight bits per pixel (one thread on both sides; the ratio table's "peer" column is
// that 8u member here, not OpenCV): the bit members must win by the eight pixels each byte holds.
// Masks as the peer library draws them: 3x3 and 15x15 rectangles, 5x5 and 11x11 ellipses, a 3x3
// cross, with replicated borders.
#include <memory>
#include <string>
#include <vector>

#include "bench.h"
#include "morph/morph_1u.h"

namespace kvl::bench {
namespace {

struct Shape {
  const char* name;
  int w, h;
  int kind;  // 0 rectangle, 1 ellipse, 2 cross
};
const Shape kShapes[] = {
    {"rect3x3", 3, 3, 0}, {"rect15x15", 15, 15, 0}, {"ellipse5x5", 5, 5, 1},
    {"ellipse11x11", 11, 11, 1}, {"cross3x3", 3, 3, 2},
};

// The mask bytes: from the peer's structuring element where there is one, so both sides run the
// same shape; else drawn the same way (a disc inside the box, a plus through the centre).
std::vector<Kvl8u> maskOf(const Shape& sh) {
  std::vector<Kvl8u> m(static_cast<size_t>(sh.w) * sh.h, 0);
#ifdef KVL_HAVE_OPENCV
  const int kinds[] = {cv::MORPH_RECT, cv::MORPH_ELLIPSE, cv::MORPH_CROSS};
  cv::Mat e = cv::getStructuringElement(kinds[sh.kind], cv::Size(sh.w, sh.h));
  for (int y = 0; y < sh.h; ++y)
    for (int x = 0; x < sh.w; ++x) m[y * sh.w + x] = e.at<unsigned char>(y, x);
#else
  for (int y = 0; y < sh.h; ++y)
    for (int x = 0; x < sh.w; ++x) {
      const double dx = (x - sh.w / 2) / (sh.w / 2.0 + 0.5), dy = (y - sh.h / 2) / (sh.h / 2.0 + 0.5);
      m[y * sh.w + x] = sh.kind == 0 || (sh.kind == 1 && dx * dx + dy * dy <= 1.0) ||
                        (sh.kind == 2 && (x == sh.w / 2 || y == sh.h / 2));
    }
#endif
  return m;
}

// The picture at eight bits and as bits (a pixel is set where the byte is at least 128).
struct Frames {
  int step8 = 0, step1 = 0;
  std::vector<unsigned char> src8, dst8, src1, dst1;
  Frames(int w, int h) {
    src8 = makeImage(w, h, 1, &step8);
    dst8.assign(src8.size(), 0);
    step1 = ((w + 7) / 8 + 63) / 64 * 64;
    src1.assign(static_cast<size_t>(step1) * h, 0);
    dst1.assign(src1.size(), 0);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        if (src8[static_cast<size_t>(y) * step8 + x] >= 128)
          src1[static_cast<size_t>(y) * step1 + x / 8] |= static_cast<unsigned char>(1 << (x % 8));
  }
};

// A state and work buffer for the shape at a width.
struct State1u {
  std::vector<Kvl8u> stateBlock, buffer;
  State1u(int w, const std::vector<Kvl8u>& mask, const Shape& sh) {
    int stateBlockSize = 0, bufSize = 0;
    kvliMorphologyBorderGetSize_1u_C1R(w, {sh.w, sh.h}, &stateBlockSize, &bufSize);
    stateBlock.resize(stateBlockSize);
    buffer.resize(bufSize);
    kvliMorphologyBorderInit_1u_C1R(w, mask.data(), {sh.w, sh.h},
                                    reinterpret_cast<KvliMorphState*>(stateBlock.data()), buffer.data());
  }
};

using Fn1u = KvlStatus (*)(const Kvl8u*, int, int, Kvl8u*, int, int, KvliSize, int, int,
                           const KvliMorphState*, Kvl8u*);
struct Member {
  const char* name;
  bool erode;
  Fn1u fn;
};
#define KVL_MEMBER(Op, erode) {#Op, erode, kvli##Op##Border_1u_C1R},
const Member kMembers[] = {KVL_MORPH_1U_MEMBERS(KVL_MEMBER)};
#undef KVL_MEMBER

const bool registered = [] {
  for (const Size& s : kSizes) {
    if (s.width < 1920) continue;
    auto frames = std::make_shared<std::unique_ptr<Frames>>();
    auto get = [frames, s]() -> Frames& {
      if (!*frames) *frames = std::make_unique<Frames>(s.width, s.height);
      return **frames;
    };
    for (const Shape& sh : kShapes)
      for (const Member& mb : kMembers) {
        const std::vector<Kvl8u> mask = maskOf(sh);
        const KvliSize roi{s.width, s.height};
        // The peer is the 8u member on the same picture with the same mask and border.
        Body peer = [=](benchmark::State& st) {
          Frames& f = get();
          int stateBlockSize = 0, bufSize = 0;
          kvliMorphologyBorderGetSize_8u_C1R(s.width, {sh.w, sh.h}, &stateBlockSize, &bufSize);
          std::vector<Kvl8u> stateBlock(stateBlockSize), buffer(bufSize);
          auto* state = reinterpret_cast<KvliMorphState*>(stateBlock.data());
          kvliMorphologyBorderInit_8u_C1R(s.width, mask.data(), {sh.w, sh.h}, state, buffer.data());
          for (auto _ : st)
            (mb.erode ? kvliErodeBorder_8u_C1R : kvliDilateBorder_8u_C1R)(
                f.src8.data(), f.step8, f.dst8.data(), f.step8, roi, kvlBorderRepl, 0, state,
                buffer.data());
        };
        pair(std::string(mb.name) + "Border_1u_C1R_vs_8u_C1R/" + sh.name + "/" + s.name(), 1,
             1LL * s.width * s.height,
             [=](benchmark::State& st) {
               Frames& f = get();
               State1u stateBlock(s.width, mask, sh);
               for (auto _ : st)
                 mb.fn(f.src1.data(), f.step1, 0, f.dst1.data(), f.step1, 0, roi, kvlBorderRepl,
                       0, reinterpret_cast<const KvliMorphState*>(stateBlock.stateBlock.data()),
                       stateBlock.buffer.data());
             },
             peer);
      }
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
