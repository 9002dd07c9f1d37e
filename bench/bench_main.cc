// The benchmark driver: runs every registered case and ends with the ratio table of each
// kvlCV case against its OpenCV peer measured in the same run.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>

#include "bench.h"
#include "core/simd.h"

namespace kvl::bench {

benchmark::internal::Benchmark* timed(benchmark::internal::Benchmark* b) {
  return b->UseRealTime()->ComputeStatistics(
      "min", [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); });
}

void pair(const std::string& name, int threads, long long pixels, Body kvl, Body peer) {
  const std::string base = name + "/t" + std::to_string(threads);
  timed(benchmark::RegisterBenchmark((base + "/kvl").c_str(), [=](benchmark::State& st) {
    kvlSetNumThreads(threads);
    kvl(st);
    st.SetItemsProcessed(st.iterations() * pixels);
  }));
#ifdef KVL_HAVE_OPENCV
  if (peer) {
    timed(benchmark::RegisterBenchmark((base + "/cv").c_str(), [=](benchmark::State& st) {
      cv::setNumThreads(threads);
      peer(st);
      st.SetItemsProcessed(st.iterations() * pixels);
    }));
  }
#else
  (void)peer;
#endif
}

void bound(const std::string& name, int threads, long long pixels, Body body) {
#ifdef KVL_HAVE_OPENCV
  timed(benchmark::RegisterBenchmark((name + "/t" + std::to_string(threads) + "/bound").c_str(),
                                     [=](benchmark::State& st) {
                                       body(st);
                                       st.SetItemsProcessed(st.iterations() * pixels);
                                     }));
#else
  (void)name, (void)threads, (void)pixels, (void)body;  // the bound only serves a peer's ceiling
#endif
}

namespace {
// The loop of touchBytes, compiled into each of the functions below for its own vector width:
// 64 bytes at a time as one, two or four vectors, each the running sum of the source's blocks so
// far (one add per block while the source row lasts, none after it).
typedef unsigned char Block __attribute__((vector_size(64)));
__attribute__((always_inline)) inline void touchRows(const void* src, int srcStep, int srcBytes,
                                                     int srcRows, void* dst, int dstStep,
                                                     int dstBytes, int rows) {
  for (int r = 0; r < rows; ++r) {
    const auto* s = static_cast<const unsigned char*>(src) +
                    static_cast<size_t>(std::min(r, srcRows - 1)) * srcStep;
    auto* d = static_cast<unsigned char*>(dst) + static_cast<size_t>(r) * dstStep;
    Block acc = {};
    int i = 0;
    for (; i + 64 <= dstBytes; i += 64) {
      if (i + 64 <= srcBytes) {
        Block v;
        std::memcpy(&v, s + i, 64);
        acc += v;
      }
      std::memcpy(d + i, &acc, 64);
    }
    for (; i < dstBytes; ++i) d[i] = acc[i % 64];
  }
}
using TouchFn = void (*)(const void*, int, int, int, void*, int, int, int);
__attribute__((target("avx512f,avx512bw,prefer-vector-width=512"))) void touch512(
    const void* src, int srcStep, int srcBytes, int srcRows, void* dst, int dstStep, int dstBytes,
    int rows) {
  touchRows(src, srcStep, srcBytes, srcRows, dst, dstStep, dstBytes, rows);
}
__attribute__((target("avx2"))) void touch256(const void* src, int srcStep, int srcBytes,
                                              int srcRows, void* dst, int dstStep, int dstBytes,
                                              int rows) {
  touchRows(src, srcStep, srcBytes, srcRows, dst, dstStep, dstBytes, rows);
}
void touch128(const void* src, int srcStep, int srcBytes, int srcRows, void* dst, int dstStep,
              int dstBytes, int rows) {
  touchRows(src, srcStep, srcBytes, srcRows, dst, dstStep, dstBytes, rows);
}
}  // namespace

// The widest vectors the CPU has (by its features, not its model): at cache-resident sizes
// narrower loads and stores would understate the bound.
void touchBytes(const void* src, int srcStep, int srcBytes, int srcRows, void* dst, int dstStep,
                int dstBytes, int rows) {
  static const TouchFn fn = __builtin_cpu_supports("avx512bw") ? touch512
                            : __builtin_cpu_supports("avx2")   ? touch256
                                                               : touch128;
  fn(src, srcStep, srcBytes, srcRows, dst, dstStep, dstBytes, rows);
  benchmark::ClobberMemory();
}

namespace {
int gTargetCap = -1;  // --kvl_target
}

void versusReference(const std::string& name, long long pixels, Body kvl) {
  const std::string base = name + "/t1";
  timed(benchmark::RegisterBenchmark((base + "/kvl").c_str(), [=](benchmark::State& st) {
    kvlSetNumThreads(1);
    kvl(st);
    st.SetItemsProcessed(st.iterations() * pixels);
  }));
  timed(benchmark::RegisterBenchmark((base + "/ref").c_str(), [=](benchmark::State& st) {
    kvlSetNumThreads(1);
    simd::forceTarget(simd::kRef);
    kvl(st);
    simd::forceTarget(gTargetCap);
    st.SetItemsProcessed(st.iterations() * pixels);
  }));
}

std::vector<unsigned char> makeImage(int width, int height, int bytesPerPixel, int* step) {
  *step = (width * bytesPerPixel + 63) / 64 * 64;
  std::vector<unsigned char> v(static_cast<size_t>(*step) * height + 64);
  std::mt19937 rng(42);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < *step; ++x)
      v[static_cast<size_t>(y) * *step + x] =
          static_cast<unsigned char>(((x / 7) ^ (y / 5)) * 9 + (x * y) / 64 + rng() % 16);
  return v;
}

namespace {
// Prints the usual console table, then kvl/cv throughput ratios per pair (with the peer over the
// memory bound where a case has one).
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs) {
      if (r.error_occurred) continue;
      // With repetitions the best one stands for the case (the noise of a shared machine only
      // ever adds time); otherwise the single run does.
      const bool best = r.run_type == Run::RT_Aggregate && r.aggregate_name == "min";
      if (r.run_type != Run::RT_Iteration && !best) continue;
      if (r.run_type == Run::RT_Iteration && r.repetitions > 1) continue;
      std::string n = r.run_name.function_name;
      const double t = r.GetAdjustedRealTime();
      auto ends = [&](const std::string& s) {
        return n.size() > s.size() && n.compare(n.size() - s.size(), s.size(), s) == 0;
      };
      if (ends("/kvl")) kvl_[n.substr(0, n.size() - 4)] = t;
      if (ends("/cv")) cv_[n.substr(0, n.size() - 3)] = t;
      if (ends("/ref")) ref_[n.substr(0, n.size() - 4)] = t;
      if (ends("/bound")) bound_[n.substr(0, n.size() - 6)] = t;
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    if (!ref_.empty()) {
      std::printf("\n%-56s %10s\n", "case (kvlCV vector vs its scalar reference)", "speed-up");
      for (const auto& [name, t] : kvl_) {
        auto it = ref_.find(name);
        if (it != ref_.end()) std::printf("%-56s %9.2fx\n", name.c_str(), it->second / t);
      }
    }
    if (cv_.empty()) {
      std::printf("\nNo OpenCV peer measured in this run: no ratios.\n");
      return;
    }
    // The ceiling, where a case has a bound: the peer's time over the bound's.
    std::printf("\n%-56s %10s %10s\n", "case (kvlCV vs OpenCV, same run)", "speed-up", "ceiling");
    for (const auto& [name, t] : kvl_) {
      auto it = cv_.find(name);
      if (it == cv_.end()) continue;
      std::printf("%-56s %9.2fx", name.c_str(), it->second / t);
      auto b = bound_.find(name);
      if (b != bound_.end()) std::printf(" %9.2fx", it->second / b->second);
      std::printf("\n");
    }
  }

 private:
  std::map<std::string, double> kvl_, cv_, ref_, bound_;
};
}  // namespace

}  // namespace kvl::bench

// --kvl_target=avx3|avx2|sse4|scalar caps the vector target kvlCV uses (default: the best the
// CPU runs), to compare the targets on one machine.
int main(int argc, char** argv) {
  const std::string flag = "--kvl_target=";
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a.compare(0, flag.size(), flag) != 0) continue;
    const std::string t = a.substr(flag.size());
    const int level = t == "avx3" ? kvl::simd::kAVX3 : t == "avx2" ? kvl::simd::kAVX2
                    : t == "sse4" ? kvl::simd::kSSE4 : t == "scalar" ? kvl::simd::kRef : -1;
    if (level < 0) {
      std::fprintf(stderr, "unknown target '%s' (avx3, avx2, sse4 or scalar)\n", t.c_str());
      return 1;
    }
    kvl::simd::forceTarget(level);
    kvl::bench::gTargetCap = level;
    for (int j = i; j + 1 < argc; ++j) argv[j] = argv[j + 1];
    --argc;
    --i;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  kvl::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
