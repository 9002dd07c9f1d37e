// The streaming copy: the yardstick for the memory-bound families.
#include <cstring>
#include <memory>

#include "bench.h"
#include "core/border.h"

namespace kvl::bench {
namespace {

const bool registered = [] {
  for (const Size& s : kSizes) {
    auto step = std::make_shared<int>();
    auto src = std::make_shared<std::vector<unsigned char>>(makeImage(s.width, s.height, 4, step.get()));
    auto dst = std::make_shared<std::vector<unsigned char>>(src->size());
    const KvliSize roi{s.width, s.height};
    pair("Copy_32f/" + s.name(), 1, 1LL * s.width * s.height,
         [=](benchmark::State& st) {
           for (auto _ : st)
             kvliCopy_32f_C1R(reinterpret_cast<const Kvl32f*>(src->data()), *step,
                              reinterpret_cast<Kvl32f*>(dst->data()), *step, roi);
         },
         KVL_PEER([=](benchmark::State& st) {
           cv::Mat a(s.height, s.width, CV_32F, src->data(), *step);
           cv::Mat b(s.height, s.width, CV_32F, dst->data(), *step);
           for (auto _ : st) a.copyTo(b);
         }));
  }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
