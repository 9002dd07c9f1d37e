// Accumulation and absolute difference against their OpenCV peers, plus a streaming copy of the
// same bytes as the memory-bound yardstick (bytes/s: sources read, accumulator read and written).
#include <omp.h>

#include <cstring>
#include <memory>

#include "bench.h"

namespace kvl::bench {
namespace {

// An image of w x h elements of T with 64-byte rows, values from the shared pattern.
template <class T>
struct Plane {
  int step = 0;
  std::vector<unsigned char> bytes;
  Plane(int w, int h, int channels = 1) {
    int s8 = 0;
    const std::vector<unsigned char> base = makeImage(w * channels, h, 1, &s8);
    step = (w * channels * static_cast<int>(sizeof(T)) + 63) / 64 * 64;
    bytes.assign(static_cast<size_t>(step) * h + 64, 0);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w * channels; ++x) {
        const T v =
            static_cast<T>(base[static_cast<size_t>(y) * s8 + x] * (sizeof(T) == 2 ? 251 : 1));
        std::memcpy(&bytes[static_cast<size_t>(y) * step + x * sizeof(T)], &v, sizeof(T));
      }
  }
  T* data() { return reinterpret_cast<T*>(bytes.data()); }
#ifdef KVL_HAVE_OPENCV
  cv::Mat mat(int w, int h, int type) { return cv::Mat(h, w, type, bytes.data(), step); }
#endif
};

// Every case owns its planes; the accumulator starts at zero.
struct Planes {
  Plane<Kvl8u> a8, b8, mask, a8c3, b8c3;
  Plane<Kvl16u> a16, b16;
  Plane<Kvl32f> a32, b32, acc, d32;
  Plane<Kvl8u> d8, d8c3;
  Plane<Kvl16u> d16;
  Planes(int w, int h)
      : a8(w, h),
        b8(w, h),
        mask(w, h),
        a8c3(w, h, 3),
        b8c3(w, h, 3),
        a16(w, h),
        b16(w, h),
        a32(w, h),
        b32(w, h),
        acc(w, h),
        d32(w, h),
        d8(w, h),
        d8c3(w, h, 3),
        d16(w, h) {
    for (auto& v : mask.bytes) v = (v & 4) ? 255 : 0;  // about half the pixels
    std::fill(acc.bytes.begin(), acc.bytes.end(), 0);
    for (size_t i = 0; i < b8.bytes.size(); ++i) b8.bytes[i] ^= 0x5a;
  }
};

using Kvl = std::function<void(Planes&, KvliSize)>;
#ifdef KVL_HAVE_OPENCV
using Cv = std::function<void(Planes&, int, int)>;
#define KVL_CV(...) [](Planes& p, int w, int h) { __VA_ARGS__; }
#else
using Cv = std::nullptr_t;
#define KVL_CV(...) nullptr
#endif

struct Case {
  const char* name;
  int bytesPerPixel;  // bytes moved per pixel
  Kvl kvl;
  Cv cv;
};

const bool registered = [] {
  const Case cases[] = {
      {"Add_8u32f_C1IR", 9, [](Planes& p, KvliSize r) { kvliAdd_8u32f_C1IR(p.a8.data(), p.a8.step, p.acc.data(), p.acc.step, r); },
       KVL_CV(cv::accumulate(p.a8.mat(w, h, CV_8U), p.acc.mat(w, h, CV_32F)))},
      {"Add_8u32f_C1IMR", 10, [](Planes& p, KvliSize r) { kvliAdd_8u32f_C1IMR(p.a8.data(), p.a8.step, p.mask.data(), p.mask.step, p.acc.data(), p.acc.step, r); },
       KVL_CV(cv::accumulate(p.a8.mat(w, h, CV_8U), p.acc.mat(w, h, CV_32F), p.mask.mat(w, h, CV_8U)))},
      {"Add_16u32f_C1IR", 10, [](Planes& p, KvliSize r) { kvliAdd_16u32f_C1IR(p.a16.data(), p.a16.step, p.acc.data(), p.acc.step, r); },
       KVL_CV(cv::accumulate(p.a16.mat(w, h, CV_16U), p.acc.mat(w, h, CV_32F)))},
      {"Add_32f_C1IMR", 13, [](Planes& p, KvliSize r) { kvliAdd_32f_C1IMR(p.a32.data(), p.a32.step, p.mask.data(), p.mask.step, p.acc.data(), p.acc.step, r); },
       KVL_CV(cv::accumulate(p.a32.mat(w, h, CV_32F), p.acc.mat(w, h, CV_32F), p.mask.mat(w, h, CV_8U)))},
      {"AddSquare_8u32f_C1IR", 9, [](Planes& p, KvliSize r) { kvliAddSquare_8u32f_C1IR(p.a8.data(), p.a8.step, p.acc.data(), p.acc.step, r); },
       KVL_CV(cv::accumulateSquare(p.a8.mat(w, h, CV_8U), p.acc.mat(w, h, CV_32F)))},
      {"AddSquare_8u32f_C1IMR", 10, [](Planes& p, KvliSize r) { kvliAddSquare_8u32f_C1IMR(p.a8.data(), p.a8.step, p.mask.data(), p.mask.step, p.acc.data(), p.acc.step, r); },
       KVL_CV(cv::accumulateSquare(p.a8.mat(w, h, CV_8U), p.acc.mat(w, h, CV_32F), p.mask.mat(w, h, CV_8U)))},
      {"AddSquare_32f_C1IR", 12, [](Planes& p, KvliSize r) { kvliAddSquare_32f_C1IR(p.a32.data(), p.a32.step, p.acc.data(), p.acc.step, r); },
       KVL_CV(cv::accumulateSquare(p.a32.mat(w, h, CV_32F), p.acc.mat(w, h, CV_32F)))},
      {"AddProduct_8u32f_C1IR", 10, [](Planes& p, KvliSize r) { kvliAddProduct_8u32f_C1IR(p.a8.data(), p.a8.step, p.b8.data(), p.b8.step, p.acc.data(), p.acc.step, r); },
       KVL_CV(cv::accumulateProduct(p.a8.mat(w, h, CV_8U), p.b8.mat(w, h, CV_8U), p.acc.mat(w, h, CV_32F)))},
      {"AddProduct_8u32f_C1IMR", 11, [](Planes& p, KvliSize r) { kvliAddProduct_8u32f_C1IMR(p.a8.data(), p.a8.step, p.b8.data(), p.b8.step, p.mask.data(), p.mask.step, p.acc.data(), p.acc.step, r); },
       KVL_CV(cv::accumulateProduct(p.a8.mat(w, h, CV_8U), p.b8.mat(w, h, CV_8U), p.acc.mat(w, h, CV_32F), p.mask.mat(w, h, CV_8U)))},
      {"AddProduct_32f_C1IR", 16, [](Planes& p, KvliSize r) { kvliAddProduct_32f_C1IR(p.a32.data(), p.a32.step, p.b32.data(), p.b32.step, p.acc.data(), p.acc.step, r); },
       KVL_CV(cv::accumulateProduct(p.a32.mat(w, h, CV_32F), p.b32.mat(w, h, CV_32F), p.acc.mat(w, h, CV_32F)))},
      {"AddWeighted_8u32f_C1IR", 9, [](Planes& p, KvliSize r) { kvliAddWeighted_8u32f_C1IR(p.a8.data(), p.a8.step, p.acc.data(), p.acc.step, r, 0.125f); },
       KVL_CV(cv::accumulateWeighted(p.a8.mat(w, h, CV_8U), p.acc.mat(w, h, CV_32F), 0.125))},
      {"AddWeighted_8u32f_C1IMR", 10, [](Planes& p, KvliSize r) { kvliAddWeighted_8u32f_C1IMR(p.a8.data(), p.a8.step, p.mask.data(), p.mask.step, p.acc.data(), p.acc.step, r, 0.125f); },
       KVL_CV(cv::accumulateWeighted(p.a8.mat(w, h, CV_8U), p.acc.mat(w, h, CV_32F), 0.125, p.mask.mat(w, h, CV_8U)))},
      {"AddWeighted_32f_C1IR", 12, [](Planes& p, KvliSize r) { kvliAddWeighted_32f_C1IR(p.a32.data(), p.a32.step, p.acc.data(), p.acc.step, r, 0.125f); },
       KVL_CV(cv::accumulateWeighted(p.a32.mat(w, h, CV_32F), p.acc.mat(w, h, CV_32F), 0.125))},
      {"AbsDiff_8u_C1R", 3, [](Planes& p, KvliSize r) { kvliAbsDiff_8u_C1R(p.a8.data(), p.a8.step, p.b8.data(), p.b8.step, p.d8.data(), p.d8.step, r); },
       KVL_CV(cv::Mat d = p.d8.mat(w, h, CV_8U); cv::absdiff(p.a8.mat(w, h, CV_8U), p.b8.mat(w, h, CV_8U), d))},
      {"AbsDiff_8u_C3R", 9, [](Planes& p, KvliSize r) { kvliAbsDiff_8u_C3R(p.a8c3.data(), p.a8c3.step, p.b8c3.data(), p.b8c3.step, p.d8c3.data(), p.d8c3.step, r); },
       KVL_CV(cv::Mat d = p.d8c3.mat(w, h, CV_8UC3); cv::absdiff(p.a8c3.mat(w, h, CV_8UC3), p.b8c3.mat(w, h, CV_8UC3), d))},
      {"AbsDiff_16u_C1R", 6, [](Planes& p, KvliSize r) { kvliAbsDiff_16u_C1R(p.a16.data(), p.a16.step, p.b16.data(), p.b16.step, p.d16.data(), p.d16.step, r); },
       KVL_CV(cv::Mat d = p.d16.mat(w, h, CV_16U); cv::absdiff(p.a16.mat(w, h, CV_16U), p.b16.mat(w, h, CV_16U), d))},
      {"AbsDiff_32f_C1R", 12, [](Planes& p, KvliSize r) { kvliAbsDiff_32f_C1R(p.a32.data(), p.a32.step, p.b32.data(), p.b32.step, p.d32.data(), p.d32.step, r); },
       KVL_CV(cv::Mat d = p.d32.mat(w, h, CV_32F); cv::absdiff(p.a32.mat(w, h, CV_32F), p.b32.mat(w, h, CV_32F), d))},
      {"AbsDiffC_8u_C1R", 2, [](Planes& p, KvliSize r) { kvliAbsDiffC_8u_C1R(p.a8.data(), p.a8.step, p.d8.data(), p.d8.step, r, 77); },
       KVL_CV(cv::Mat d = p.d8.mat(w, h, CV_8U); cv::absdiff(p.a8.mat(w, h, CV_8U), cv::Scalar(77), d))},
      {"AbsDiffC_16u_C1R", 4, [](Planes& p, KvliSize r) { kvliAbsDiffC_16u_C1R(p.a16.data(), p.a16.step, p.d16.data(), p.d16.step, r, 7777); },
       KVL_CV(cv::Mat d = p.d16.mat(w, h, CV_16U); cv::absdiff(p.a16.mat(w, h, CV_16U), cv::Scalar(7777), d))},
      {"AbsDiffC_32f_C1R", 8, [](Planes& p, KvliSize r) { kvliAbsDiffC_32f_C1R(p.a32.data(), p.a32.step, p.d32.data(), p.d32.step, r, 77.5f); },
       KVL_CV(cv::Mat d = p.d32.mat(w, h, CV_32F); cv::absdiff(p.a32.mat(w, h, CV_32F), cv::Scalar(77.5), d))},
  };
  for (const Size& s : kSizes) {
    auto planes = std::make_shared<std::unique_ptr<Planes>>();  // made on first use
    auto get = [planes, s]() -> Planes& {
      if (!*planes) *planes = std::make_unique<Planes>(s.width, s.height);
      return **planes;
    };
    const long long pixels = 1LL * s.width * s.height;
    for (int threads : {1, 2}) {
      for (const Case& c : cases) {
        const long long bytes = pixels * c.bytesPerPixel;
        Body kvlBody = [=, fn = c.kvl](benchmark::State& st) {
          Planes& p = get();
          for (auto _ : st) fn(p, {s.width, s.height});
          st.SetBytesProcessed(st.iterations() * bytes);
        };
        const Body cvBody = KVL_PEER([=, fn = c.cv](benchmark::State& st) {
          Planes& p = get();
          for (auto _ : st) fn(p, s.width, s.height);
          st.SetBytesProcessed(st.iterations() * bytes);
        });
        pair(std::string(c.name) + "/" + s.name(), threads, pixels, kvlBody, cvBody);
      }
      // The yardstick: a streaming copy of the 32f accumulator's bytes split over the same threads.
      timed(benchmark::RegisterBenchmark(
          ("StreamCopy_32f/" + s.name() + "/t" + std::to_string(threads)).c_str(),
          [=](benchmark::State& st) {
            Planes& p = get();
            const size_t rowBytes = static_cast<size_t>(p.acc.step);
            for (auto _ : st) {
#pragma omp parallel for num_threads(threads) schedule(static)
              for (int y = 0; y < s.height; ++y)
                std::memcpy(p.d32.bytes.data() + y * rowBytes, p.a32.bytes.data() + y * rowBytes,
                            rowBytes);
            }
            st.SetBytesProcessed(st.iterations() * pixels * 8);
          }));
    }
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
