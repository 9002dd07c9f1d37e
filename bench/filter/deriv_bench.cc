// Derivative filters with border against their OpenCV peers (replicated border): Sobel, Scharr,
// Laplacian and the box filter, 8u->16s (8u->8u for the box) and 32f, 3x3 and 5x5.
#include <cstring>
#include <memory>

#include "bench.h"
#include "filter/deriv.h"

namespace kvl::bench {
namespace {

enum class Peer { kSobelDx, kSobelDy, kScharrDx, kScharrDy, kLaplacian, kBox };

struct Case {
  const char* name;
  bool f32;     // 32f in and out; otherwise 8u in, 16s out (8u out for the box)
  int mask;     // 33 or 55
  Peer peer;
  bool serial;  // the general-filter members run on the calling thread: 1 thread only
  // kvlCV call: src, srcStep, dst, dstStep, roi, mask, buffer
  KvlStatus (*call)(const void*, int, void*, int, KvliSize, int, Kvl8u*);
  KvlStatus (*size)(KvliSize, int, int*);
};

#define KVL_BENCH_8U16S(Name)                                                                \
  [](const void* s, int ss, void* d, int ds, KvliSize r, int m, Kvl8u* b) {                  \
    return kvliFilter##Name##Border_8u16s_C1R(static_cast<const Kvl8u*>(s), ss,              \
                                              static_cast<Kvl16s*>(d), ds, r, m, kvlBorderRepl, 0, b); \
  },                                                                                         \
      [](KvliSize r, int m, int* p) { return kvliFilter##Name##GetBufferSize_8u16s_C1R(r, m, p); }
#define KVL_BENCH_32F(Name)                                                                  \
  [](const void* s, int ss, void* d, int ds, KvliSize r, int m, Kvl8u* b) {                  \
    return kvliFilter##Name##Border_32f_C1R(static_cast<const Kvl32f*>(s), ss,               \
                                            static_cast<Kvl32f*>(d), ds, r, m, kvlBorderRepl, 0.f, b); \
  },                                                                                         \
      [](KvliSize r, int m, int* p) { return kvliFilter##Name##GetBufferSize_32f_C1R(r, m, p); }
#define KVL_BENCH_SCHARR_8U16S(Name)                                                         \
  [](const void* s, int ss, void* d, int ds, KvliSize r, int, Kvl8u* b) {                    \
    return kvliFilter##Name##Border_8u16s_C1R(static_cast<const Kvl8u*>(s), ss,              \
                                              static_cast<Kvl16s*>(d), ds, r, kvlBorderRepl, 0, b); \
  },                                                                                         \
      [](KvliSize r, int, int* p) { return kvliFilter##Name##GetBufferSize_8u16s_C1R(r, p); }
#define KVL_BENCH_SCHARR_32F(Name)                                                           \
  [](const void* s, int ss, void* d, int ds, KvliSize r, int, Kvl8u* b) {                    \
    return kvliFilter##Name##Border_32f_C1R(static_cast<const Kvl32f*>(s), ss,               \
                                            static_cast<Kvl32f*>(d), ds, r, kvlBorderRepl, 0.f, b); \
  },                                                                                         \
      [](KvliSize r, int, int* p) { return kvliFilter##Name##GetBufferSize_32f_C1R(r, p); }

const Case kCases[] = {
    {"SobelNegVert_8u16s_3x3", false, 33, Peer::kSobelDx, false, KVL_BENCH_8U16S(SobelNegVert)},
    {"SobelNegVert_8u16s_5x5", false, 55, Peer::kSobelDx, false, KVL_BENCH_8U16S(SobelNegVert)},
    {"SobelNegVert_32f_3x3", true, 33, Peer::kSobelDx, false, KVL_BENCH_32F(SobelNegVert)},
    {"SobelNegVert_32f_5x5", true, 55, Peer::kSobelDx, false, KVL_BENCH_32F(SobelNegVert)},
    {"SobelHoriz_8u16s_3x3", false, 33, Peer::kSobelDy, true, KVL_BENCH_8U16S(SobelHoriz)},
    {"SobelHoriz_8u16s_5x5", false, 55, Peer::kSobelDy, true, KVL_BENCH_8U16S(SobelHoriz)},
    {"SobelHoriz_32f_3x3", true, 33, Peer::kSobelDy, true, KVL_BENCH_32F(SobelHoriz)},
    {"ScharrVert_8u16s", false, 33, Peer::kScharrDx, false, KVL_BENCH_SCHARR_8U16S(ScharrVert)},
    {"ScharrVert_32f", true, 33, Peer::kScharrDx, false, KVL_BENCH_SCHARR_32F(ScharrVert)},
    {"ScharrHoriz_8u16s", false, 33, Peer::kScharrDy, false, KVL_BENCH_SCHARR_8U16S(ScharrHoriz)},
    {"ScharrHoriz_32f", true, 33, Peer::kScharrDy, false, KVL_BENCH_SCHARR_32F(ScharrHoriz)},
    {"Laplacian_8u16s_3x3", false, 33, Peer::kLaplacian, false, KVL_BENCH_8U16S(Laplacian)},
    {"Laplacian_8u16s_5x5", false, 55, Peer::kLaplacian, false, KVL_BENCH_8U16S(Laplacian)},
    {"Laplacian_32f_3x3", true, 33, Peer::kLaplacian, false, KVL_BENCH_32F(Laplacian)},
    {"Laplacian_32f_5x5", true, 55, Peer::kLaplacian, false, KVL_BENCH_32F(Laplacian)},
    {"Lowpass_8u_3x3", false, 33, Peer::kBox, false,
     [](const void* s, int ss, void* d, int ds, KvliSize r, int m, Kvl8u* b) {
       return kvliFilterLowpassBorder_8u_C1R(static_cast<const Kvl8u*>(s), ss,
                                             static_cast<Kvl8u*>(d), ds, r, m, kvlBorderRepl, 0, b);
     },
     [](KvliSize r, int m, int* p) { return kvliFilterLowpassGetBufferSize_8u_C1R(r, m, p); }},
    {"Lowpass_8u_5x5", false, 55, Peer::kBox, false,
     [](const void* s, int ss, void* d, int ds, KvliSize r, int m, Kvl8u* b) {
       return kvliFilterLowpassBorder_8u_C1R(static_cast<const Kvl8u*>(s), ss,
                                             static_cast<Kvl8u*>(d), ds, r, m, kvlBorderRepl, 0, b);
     },
     [](KvliSize r, int m, int* p) { return kvliFilterLowpassGetBufferSize_8u_C1R(r, m, p); }},
    {"Lowpass_32f_3x3", true, 33, Peer::kBox, false, KVL_BENCH_32F(Lowpass)},
    {"Lowpass_32f_5x5", true, 55, Peer::kBox, false, KVL_BENCH_32F(Lowpass)},
};

#ifdef KVL_HAVE_OPENCV
void runPeer(const Case& c, const cv::Mat& a, cv::Mat& b) {
  const int k = c.mask == 55 ? 5 : 3;
  const int depth = c.f32 ? CV_32F : CV_16S;
  switch (c.peer) {
    case Peer::kSobelDx: cv::Sobel(a, b, depth, 1, 0, k, 1, 0, cv::BORDER_REPLICATE); break;
    case Peer::kSobelDy: cv::Sobel(a, b, depth, 0, 1, k, 1, 0, cv::BORDER_REPLICATE); break;
    case Peer::kScharrDx: cv::Scharr(a, b, depth, 1, 0, 1, 0, cv::BORDER_REPLICATE); break;
    case Peer::kScharrDy: cv::Scharr(a, b, depth, 0, 1, 1, 0, cv::BORDER_REPLICATE); break;
    case Peer::kLaplacian: cv::Laplacian(a, b, depth, k, 1, 0, cv::BORDER_REPLICATE); break;
    case Peer::kBox:
      if (c.f32)
        cv::boxFilter(a, b, -1, cv::Size(k, k), cv::Point(-1, -1), false, cv::BORDER_REPLICATE);
      else
        cv::blur(a, b, cv::Size(k, k), cv::Point(-1, -1), cv::BORDER_REPLICATE);
      break;
  }
}
#endif

const bool registered = [] {
  for (const Case& c : kCases)
    for (const Size& s : kSizes)
      for (int threads : {1, 2}) {
        if (c.serial && threads > 1) continue;
        const int inBytes = c.f32 ? 4 : 1;
        const int outBytes = c.f32 ? 4 : (c.peer == Peer::kBox ? 1 : 2);
        auto srcStep = std::make_shared<int>();
        auto src = std::make_shared<std::vector<unsigned char>>(
            makeImage(s.width, s.height, inBytes, srcStep.get()));
        if (c.f32) {  // small float values from the byte pattern
          for (size_t i = 0; i + 4 <= src->size(); i += 4) {
            const float v = static_cast<float>((*src)[i]) * 0.5f;
            std::memcpy(src->data() + i, &v, 4);
          }
        }
        const int dstStep = (s.width * outBytes + 63) / 64 * 64;
        auto dst = std::make_shared<std::vector<unsigned char>>(
            static_cast<size_t>(dstStep) * s.height + 64);
        const KvliSize roi{s.width, s.height};
        const std::string name = std::string("Deriv/") + c.name + "/" + s.name();
        pair(
            name, threads, 1LL * s.width * s.height,
            [=](benchmark::State& st) {
              int bytes = 0;
              c.size(roi, c.mask, &bytes);  // sized with this case's thread count
              std::vector<Kvl8u> buf(bytes);
              for (auto _ : st)
                c.call(src->data(), *srcStep, dst->data(), dstStep, roi, c.mask, buf.data());
            },
            KVL_PEER([=](benchmark::State& st) {
              const cv::Mat a(s.height, s.width, c.f32 ? CV_32F : CV_8U, src->data(), *srcStep);
              cv::Mat b(s.height, s.width,
                        c.f32 ? CV_32F : (c.peer == Peer::kBox ? CV_8U : CV_16S), dst->data(),
                        dstStep);
              for (auto _ : st) runPeer(c, a, b);
            }));
      }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
