// The run engine against OpenCV's erode and dilate with a replicated border, on the same mask
// bytes (from getStructuringElement), with the work buffer the border interface gives it.
#include <cstdlib>
#include <memory>

#include "bench.h"
#include "morph/morph_runs.h"

namespace kvl::bench {
namespace {

struct Shape {
  const char* name;
  int kind;  // 0 rectangle, 1 cross, 2 ellipse (the peer's codes)
  int w, h;
};
const Shape kShapes[] = {{"Ellipse5x5", 2, 5, 5}, {"Ellipse11x11", 2, 11, 11},
                         {"Cross3x3", 1, 3, 3},   {"Cross5x5", 1, 5, 5},
                         {"Cross9x9", 1, 9, 9},   {"Rect3x3", 0, 3, 3},
                         {"Rect15x15", 0, 15, 15}};

// The same shapes the peer builds: rectangle, cross through the centre, and the ellipse
// inscribed in the box (row half-widths from the circle equation, rounded).
std::vector<Kvl8u> shapeMask(const Shape& s) {
  std::vector<Kvl8u> m(static_cast<size_t>(s.w) * s.h, 0);
#ifdef KVL_HAVE_OPENCV
  const int codes[] = {cv::MORPH_RECT, cv::MORPH_CROSS, cv::MORPH_ELLIPSE};
  cv::Mat k = cv::getStructuringElement(codes[s.kind], cv::Size(s.w, s.h));
  for (int j = 0; j < s.h; ++j)
    for (int i = 0; i < s.w; ++i) m[static_cast<size_t>(j) * s.w + i] = k.at<unsigned char>(j, i);
#else
  for (int j = 0; j < s.h; ++j)
    for (int i = 0; i < s.w; ++i)
      m[static_cast<size_t>(j) * s.w + i] = s.kind == 0 || i == s.w / 2 || j == s.h / 2;
#endif
  return m;
}

template <class T, int kC>
struct Images {
  int step = 0;
  std::vector<T> src, dst;
  Images(int w, int h) {
    int step8 = 0;
    const std::vector<unsigned char> base = makeImage(w, h, kC, &step8);
    step = step8 * static_cast<int>(sizeof(T));
    src.resize(base.size());
    for (size_t i = 0; i < base.size(); ++i)
      src[i] = static_cast<T>(sizeof(T) == 1 ? base[i] : base[i] * 97 + (i & 63));
    dst.assign(src.size(), T{});
  }
};

template <class T, int kC>
void registerType(const char* typeName, int cvType) {
  for (const Size& sz : kSizes) {
    if (sz.width < 1920 && !getenv("KVL_BENCH_SMALL")) continue;
    for (const Shape& shape : kShapes) {
      auto im = std::make_shared<std::unique_ptr<Images<T, kC>>>();
      auto get = [im, sz]() -> Images<T, kC>& {
        if (!*im) *im = std::make_unique<Images<T, kC>>(sz.width, sz.height);
        return **im;
      };
      const auto mask = std::make_shared<std::vector<Kvl8u>>(shapeMask(shape));
      // The border interface's row-run budget: one channel's worth for 8u.
      const int es = static_cast<int>(sizeof(T));
      const int rowBytes = sz.width * (es == 1 ? 1 : kC * es) + 32;
      const auto buffer = std::make_shared<std::vector<Kvl8u>>(
          static_cast<size_t>(shape.h * shape.h + 1) * rowBytes + 40 * shape.h + 40);
      for (int threads : {1, 2}) {
        (void)cvType;
        pair(
            std::string("MorphRuns_") + typeName + "/" + shape.name + "/" + sz.name(), threads,
            1LL * sz.width * sz.height,
            [=](benchmark::State& st) {
              Images<T, kC>& m = get();
              for (auto _ : st) {
                const bool ok = morph::morphRuns<T, kC>(
                    m.src.data(), m.step, m.dst.data(), m.step, {sz.width, sz.height}, mask->data(),
                    {shape.w, shape.h}, {(shape.w - 1) / 2, (shape.h - 1) / 2}, kvlBorderRepl, true,
                    buffer->data(), buffer->size());
                if (!ok) st.SkipWithError("buffer refused");
              }
            },
            KVL_PEER([=](benchmark::State& st) {
              Images<T, kC>& m = get();
              cv::Mat src(sz.height, sz.width, CV_MAKETYPE(cvType, kC), m.src.data(), m.step);
              cv::Mat dst(sz.height, sz.width, CV_MAKETYPE(cvType, kC), m.dst.data(), m.step);
              cv::Mat k(shape.h, shape.w, CV_8U, mask->data());
              for (auto _ : st) cv::erode(src, dst, k, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
            }));
      }
    }
  }
}

const bool registered = [] {
#ifdef KVL_HAVE_OPENCV
  registerType<Kvl8u, 1>("8u_C1", CV_8U);
  registerType<Kvl8u, 3>("8u_C3", CV_8U);
  registerType<Kvl16u, 1>("16u_C1", CV_16U);
  registerType<Kvl32f, 1>("32f_C1", CV_32F);
#else
  registerType<Kvl8u, 1>("8u_C1", 0);
  registerType<Kvl8u, 3>("8u_C3", 0);
  registerType<Kvl16u, 1>("16u_C1", 0);
  registerType<Kvl32f, 1>("32f_C1", 0);
#endif
  return true;
}();

}  // namespace
}  // namespace kvl::bench
