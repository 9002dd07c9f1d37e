// Integral images against OpenCV's integral over the member table (one thread on both sides;
// OpenCV's tilted form also fills the upright sum and square tables, so those pairs compare time
// only; the upright ones also measure their memory bound, the same bytes moved by plain stores),
// and the rectangle standard deviation of a 24 x 24 window on its own.
#include <memory>
#include <type_traits>

#include "bench.h"
#include "detect/integral.h"

namespace kvl::bench {
namespace {

// The source (8-bit, or its values as floats) and tables big enough for either shape.
struct Planes {
  int srcStep = 0, src32Step = 0, tableStep = 0;
  std::vector<unsigned char> src;
  std::vector<float> src32;
  std::vector<double> sum, sqr;  // 8-byte elements: room for every table type
  Planes(int w, int h) {
    src = makeImage(w, h, 1, &srcStep);
    src32Step = (w * 4 + 63) / 64 * 64;
    src32.resize(static_cast<size_t>(src32Step / 4) * h);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) src32[static_cast<size_t>(y) * (src32Step / 4) + x] = src[y * srcStep + x];
    tableStep = ((w + 2) * 8 + 63) / 64 * 64;
    sum.resize(static_cast<size_t>(tableStep / 8) * (h + 2));
    sqr.resize(sum.size());
  }
};

#ifdef KVL_HAVE_OPENCV
template <class T>
constexpr int cvDepth() {
  return std::is_same_v<T, Kvl32s> ? CV_32S : std::is_same_v<T, Kvl32f> ? CV_32F : CV_64F;
}

// OpenCV's integral with the member's types into the same tables.
template <class Src, class Sum, class Sqr, detect::Shape kShape, class Get>
Body peer(Get get, Size s) {
  return [=](benchmark::State& st) {
    Planes& p = get();
    const bool f = std::is_same_v<Src, Kvl32f>;
    cv::Mat src = f ? cv::Mat(s.height, s.width, CV_32F, p.src32.data(), p.src32Step)
                    : cv::Mat(s.height, s.width, CV_8U, p.src.data(), p.srcStep);
    cv::Mat sum(s.height + 1, s.width + 1, cvDepth<Sum>(), p.sum.data(), p.tableStep);
    constexpr int sqDepth = std::is_void_v<Sqr> ? CV_64F : cvDepth<detect::SqrElem<Sqr>>();
    cv::Mat sqr(s.height + 1, s.width + 1, sqDepth, p.sqr.data(), p.tableStep);
    std::vector<double> tilt(p.sum.size());
    cv::Mat tilted(s.height + 1, s.width + 1, cvDepth<Sum>(), tilt.data(), p.tableStep);
    for (auto _ : st) {
      if constexpr (kShape == detect::Shape::kTilted) {
        cv::integral(src, sum, sqr, tilted, cvDepth<Sum>(), sqDepth);
      } else if constexpr (std::is_void_v<Sqr>) {
        cv::integral(src, sum, cvDepth<Sum>());
      } else {
        cv::integral(src, sum, sqr, cvDepth<Sum>(), sqDepth);
      }
    }
  };
}
#endif

// The bound of an upright member: its source read and its tables written by touchBytes.
template <class Get>
Body traffic(Get get, Size s, detect::IntegralMember m) {
  return [=](benchmark::State& st) {
    Planes& p = get();
    const void* src = m.src.real ? static_cast<const void*>(p.src32.data()) : p.src.data();
    const int srcStep = m.src.real ? p.src32Step : p.srcStep;
    for (auto _ : st) {
      touchBytes(src, srcStep, s.width * m.src.bytes, s.height, p.sum.data(), p.tableStep,
                 (s.width + m.pad) * m.sum.bytes, s.height + m.pad);
      if (m.sqr.bytes)
        touchBytes(src, srcStep, s.width * m.src.bytes, s.height, p.sqr.data(), p.tableStep,
                   (s.width + m.pad) * m.sqr.bytes, s.height + m.pad);
    }
  };
}

const bool registered = [] {
  for (const Size& s : kSizes) {
    // 4K frames for the sum-only tables of 8-bit sources (the ones that may stream) only.
    const bool big = s.width > 1920;
    auto planes = std::make_shared<std::unique_ptr<Planes>>();
    auto get = [planes, s]() -> Planes& {
      if (!*planes) *planes = std::make_unique<Planes>(s.width, s.height);
      return **planes;
    };
    const long long pixels = 1LL * s.width * s.height;
    size_t i = 0;
    const detect::IntegralMember members[] = {KVL_INTEGRAL_MEMBERS(KVL_INTEGRAL_MEMBER_RECORD)};
#define KVL_CASE(Name, types, Src, Sum, Sqr, shape, form)                                        \
  {                                                                                              \
    const detect::IntegralMember m = members[i++];                                              \
    const std::string name = std::string(m.name) + "/" + s.name();                              \
    if (!big || (m.sqr.bytes == 0 && m.pad == 1 && !m.src.real)) {                              \
      pair(                                                                                      \
          name, 1, pixels,                                                                       \
          [=](benchmark::State& st) {                                                            \
            Planes& p = get();                                                                   \
            const void* src =                                                                    \
                m.src.real ? static_cast<const void*>(p.src32.data()) : p.src.data();            \
            const int srcStep = m.src.real ? p.src32Step : p.srcStep;                           \
            for (auto _ : st)                                                                    \
              m.run(src, srcStep, p.sum.data(), p.tableStep, p.sqr.data(), p.tableStep,         \
                    {s.width, s.height}, 1, 2);                                                  \
          },                                                                                     \
          KVL_PEER((peer<Src, Sum, Sqr, detect::Shape::k##shape>(get, s))));                   \
      if (m.pad == 1) bound(name, 1, pixels, traffic(get, s, m));                                \
    }                                                                                            \
  }
    KVL_INTEGRAL_MEMBERS(KVL_CASE)
#undef KVL_CASE
    if (big) continue;
    // The window normalisation of a detector: a 24 x 24 upright or 12 x 12 tilted rectangle at
    // every position, on the tables the matching square-integral member makes.
    const detect::StdDevMember devs[] = {KVL_RECT_STDDEV_MEMBERS(KVL_STDDEV_MEMBER_RECORD)};
    auto same = [](detect::Elem a, detect::Elem b) { return a.bytes == b.bytes && a.real == b.real; };
    for (const detect::StdDevMember& m : devs) {
      const detect::IntegralMember* tables = nullptr;
      for (const detect::IntegralMember& t : members)
        if (t.pad == (m.tilted ? 2 : 1) && same(t.sum, m.sum) && same(t.sqr, m.sqr)) tables = &t;
      const detect::IntegralMember make = *tables;
      const KvliSize roi{s.width - 48, s.height - 48};
      const KvliRect rect = m.tilted ? KvliRect{24, 0, 12, 12} : KvliRect{12, 12, 24, 24};
      for (int threads : {1, 2}) {
        if (threads == 2 && !m.threaded) continue;
        pair(std::string(m.name) + "/" + s.name(), threads, 1LL * roi.width * roi.height,
             [=](benchmark::State& st) {
               Planes& p = get();
               make.run(p.src.data(), p.srcStep, p.sum.data(), p.tableStep, p.sqr.data(),
                        p.tableStep, {s.width, s.height}, 0, 0);
               std::vector<double> out(static_cast<size_t>(roi.width) * roi.height / 2 + 1);
               for (auto _ : st)
                 m.run(p.sum.data(), p.tableStep, p.sqr.data(), p.tableStep, out.data(),
                       roi.width * 4, roi, rect, 0);
             },
             nullptr);
      }
    }
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
