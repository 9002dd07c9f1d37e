// A whole separable filter through the row and column passes (a ring of intermediate rows filled
// chunk by chunk, replicated borders) against OpenCV's separable filter.
#include <algorithm>
#include <memory>

#include "bench.h"

namespace kvl::bench {
namespace {

// Output rows per pair of pass calls: more rows per call when threads share the work, so that a
// parallel region has enough rows to pay for itself.
int chunkRows(int threads) { return threads > 1 ? 256 : 64; }

// Filters a W x H single-channel image: rows enter a ring of chunk + K - 1 intermediate rows,
// the column pass reads the ring through pointers chosen for each chunk (the first and last
// image rows repeat at the vertical border).
template <class Src, class Mid, class Dst, class Ker>
struct Separable {
  int W, H, K, rowsPerChunk;
  std::vector<Ker> kx, ky;
  std::vector<Mid> ring;
  std::vector<Mid*> slots;
  std::vector<Mid*> rowPtrs;
  std::vector<const Mid*> colPtrs;
  std::vector<Kvl8u> rowBuffer, colBuffer;

  Separable(int w, int h, int chunk, std::vector<Ker> x, std::vector<Ker> y, int rowBytes,
            int colBytes)
      : W(w),
        H(h),
        K(static_cast<int>(x.size())),
        rowsPerChunk(chunk),
        kx(std::move(x)),
        ky(std::move(y)) {
    const int M = rowsPerChunk + K - 1;
    ring.resize(static_cast<size_t>(M) * W);
    for (int i = 0; i < M; ++i) slots.push_back(ring.data() + static_cast<size_t>(i) * W);
    rowPtrs.resize(M);
    colPtrs.resize(M);
    rowBuffer.resize(rowBytes);
    colBuffer.resize(colBytes);
  }

  template <class RowFn, class ColFn>
  void run(const Src* src, int srcStep, Dst* dst, int dstStep, RowFn rowPass, ColFn colPass) {
    const int M = rowsPerChunk + K - 1;
    const int A = K / 2, R = K - 1 - A;
    int next = 0;  // next source row to filter horizontally
    for (int y0 = 0; y0 < H; y0 += rowsPerChunk) {
      const int rows = std::min(rowsPerChunk, H - y0);
      const int last = std::min(H - 1, y0 + rows - 1 + R);
      if (last >= next) {
        for (int r = next; r <= last; ++r) rowPtrs[r - next] = slots[r % M];
        rowPass(reinterpret_cast<const Src*>(reinterpret_cast<const char*>(src) +
                                             static_cast<size_t>(srcStep) * next),
                srcStep, rowPtrs.data(), KvliSize{W, last - next + 1});
        next = last + 1;
      }
      for (int j = 0; j < rows + K - 1; ++j)
        colPtrs[j] = slots[std::clamp(y0 - A + j, 0, H - 1) % M];
      colPass(
          colPtrs.data(),
          reinterpret_cast<Dst*>(reinterpret_cast<char*>(dst) + static_cast<size_t>(dstStep) * y0),
          dstStep, KvliSize{W, rows});
    }
  }
};

std::vector<Kvl16s> kernel16s(int K) {
  return K == 3 ? std::vector<Kvl16s>{1, 2, 1} : std::vector<Kvl16s>{1, 4, 6, 4, 1};
}
std::vector<Kvl16s> deriv16s(int K) {
  return K == 3 ? std::vector<Kvl16s>{-1, 0, 1} : std::vector<Kvl16s>{-1, -2, 0, 2, 1};
}

#ifdef KVL_HAVE_OPENCV
template <class T>
cv::Mat asMat(const std::vector<T>& v) {
  cv::Mat m(1, static_cast<int>(v.size()), CV_32F);
  for (size_t i = 0; i < v.size(); ++i)
    m.at<float>(0, static_cast<int>(i)) = static_cast<float>(v[i]);
  return m;
}
#endif

const bool registered = [] {
  for (const Size& s : kSizes) {
    for (int K : {3, 5}) {
      for (int threads : {1, 2}) {
        const long long pixels = 1LL * s.width * s.height;
        const std::string sfx = "_k" + std::to_string(K) + "/" + s.name();
        // 8u -> 16s rows -> 16s.
        {
          auto srcStep = std::make_shared<int>();
          auto src = std::make_shared<std::vector<unsigned char>>(
              makeImage(s.width, s.height, 1, srcStep.get()));
          const int dstStep = (s.width * 2 + 63) / 64 * 64;
          auto dst =
              std::make_shared<std::vector<Kvl16s>>(static_cast<size_t>(dstStep / 2) * s.height);
          pair(
              "SepFilter_8u16s" + sfx, threads, pixels,
              [=](benchmark::State& st) {
                kvlSetNumThreads(threads);
                const int chunk = chunkRows(threads);
                int rowBytes = 0, colBytes = 0;
                kvliFilterRowBorderPipelineGetBufferSize_8u16s_C1R({s.width, chunk + K - 1}, K,
                                                                   &rowBytes);
                kvliFilterColumnPipelineGetBufferSize_16s_C1R({s.width, chunk}, K, &colBytes);
                Separable<Kvl8u, Kvl16s, Kvl16s, Kvl16s> f(s.width, s.height, chunk, kernel16s(K),
                                                           deriv16s(K), rowBytes, colBytes);
                for (auto _ : st)
                  f.run(
                      src->data(), *srcStep, dst->data(), dstStep,
                      [&](const Kvl8u* p, int step, Kvl16s** rows, KvliSize roi) {
                        kvliFilterRowBorderPipeline_8u16s_C1R(p, step, rows, roi, f.kx.data(), K,
                                                              K / 2, kvlBorderRepl, 0, 1,
                                                              f.rowBuffer.data());
                      },
                      [&](const Kvl16s** rows, Kvl16s* d, int step, KvliSize roi) {
                        kvliFilterColumnPipeline_16s_C1R(rows, d, step, roi, f.ky.data(), K, 1,
                                                         f.colBuffer.data());
                      });
              },
              KVL_PEER([=](benchmark::State& st) {
                cv::Mat a(s.height, s.width, CV_8U, src->data(), *srcStep);
                cv::Mat b(s.height, s.width, CV_16S, dst->data(), dstStep);
                const cv::Mat kx = asMat(kernel16s(K)), ky = asMat(deriv16s(K));
                for (auto _ : st)
                  cv::sepFilter2D(a, b, CV_16S, kx, ky, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);
              }));
        }
        // 32f -> 32f rows -> 32f.
        {
          const int step = (s.width * 4 + 63) / 64 * 64;
          auto src = std::make_shared<std::vector<float>>(static_cast<size_t>(step / 4) * s.height);
          for (size_t i = 0; i < src->size(); ++i)
            (*src)[i] = static_cast<float>((i * 7919) % 1000) * 0.01f;
          auto dst = std::make_shared<std::vector<float>>(src->size());
          const std::vector<float> kx =
              K == 3 ? std::vector<float>{0.25f, 0.5f, 0.25f}
                     : std::vector<float>{0.0625f, 0.25f, 0.375f, 0.25f, 0.0625f};
          const std::vector<float> ky = K == 3 ? std::vector<float>{-0.5f, 0.0f, 0.5f}
                                               : std::vector<float>{-0.1f, -0.2f, 0.0f, 0.2f, 0.1f};
          pair(
              "SepFilter_32f" + sfx, threads, pixels,
              [=](benchmark::State& st) {
                kvlSetNumThreads(threads);
                const int chunk = chunkRows(threads);
                int rowBytes = 0, colBytes = 0;
                kvliFilterRowBorderPipelineGetBufferSize_32f_C1R({s.width, chunk + K - 1}, K,
                                                                 &rowBytes);
                kvliFilterColumnPipelineGetBufferSize_32f_C1R({s.width, chunk}, K, &colBytes);
                Separable<Kvl32f, Kvl32f, Kvl32f, Kvl32f> f(s.width, s.height, chunk, kx, ky,
                                                            rowBytes, colBytes);
                for (auto _ : st)
                  f.run(
                      src->data(), step, dst->data(), step,
                      [&](const Kvl32f* p, int st2, Kvl32f** rows, KvliSize roi) {
                        kvliFilterRowBorderPipeline_32f_C1R(p, st2, rows, roi, f.kx.data(), K,
                                                            K / 2, kvlBorderRepl, 0.0f,
                                                            f.rowBuffer.data());
                      },
                      [&](const Kvl32f** rows, Kvl32f* d, int st2, KvliSize roi) {
                        kvliFilterColumnPipeline_32f_C1R(rows, d, st2, roi, f.ky.data(), K,
                                                         f.colBuffer.data());
                      });
              },
              KVL_PEER([=](benchmark::State& st) {
                cv::Mat a(s.height, s.width, CV_32F, src->data(), step);
                cv::Mat b(s.height, s.width, CV_32F, dst->data(), step);
                const cv::Mat mx = asMat(kx), my = asMat(ky);
                for (auto _ : st)
                  cv::sepFilter2D(a, b, CV_32F, mx, my, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);
              }));
        }
      }
    }
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
