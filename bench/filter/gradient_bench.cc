// Colour-to-grey gradient throughput per member and norm (no OpenCV peer), 1 and 2 threads.
#include <memory>

#include "bench.h"

namespace kvl::bench {
namespace {

template <class T>
void registerMember(const char* name, KvlStatus (*fn)(const T*, int, T*, int, KvliSize, int)) {
  for (const Size& s : kSizes) {
    struct Images {
      int srcStep = 0, dstStep = 0;
      std::vector<unsigned char> src, dst;
    };
    auto im = std::make_shared<std::unique_ptr<Images>>();
    auto get = [im, s]() -> Images& {
      if (!*im) {
        auto p = std::make_unique<Images>();
        // Byte noise reinterpreted; float members get small exponents so values stay finite.
        p->src = makeImage(s.width * 3, s.height, sizeof(T), &p->srcStep);
        if (sizeof(T) == 4)
          for (size_t i = 3; i < p->src.size(); i += 4) p->src[i] &= 0x3f;
        p->dst = makeImage(s.width, s.height, sizeof(T), &p->dstStep);
        *im = std::move(p);
      }
      return **im;
    };
    for (int norm = 0; norm < 3; ++norm)
      for (int threads : {1, 2})
        pair(
            std::string(name) + "/norm" + std::to_string(norm) + "/" + s.name(), threads,
            1LL * s.width * s.height,
            [=](benchmark::State& st) {
              Images& m = get();
              for (auto _ : st)
                fn(reinterpret_cast<const T*>(m.src.data()), m.srcStep,
                   reinterpret_cast<T*>(m.dst.data()), m.dstStep, {s.width, s.height}, norm);
              st.SetBytesProcessed(st.iterations() * s.width * s.height * 4LL * sizeof(T));
            },
            nullptr);
  }
}

const bool registered = [] {
  registerMember<Kvl8u>("GradientColorToGray_8u_C3C1R", &kvliGradientColorToGray_8u_C3C1R);
  registerMember<Kvl16u>("GradientColorToGray_16u_C3C1R", &kvliGradientColorToGray_16u_C3C1R);
  registerMember<Kvl32f>("GradientColorToGray_32f_C3C1R", &kvliGradientColorToGray_32f_C3C1R);
  return true;
}();

}  // namespace
}  // namespace kvl::bench
