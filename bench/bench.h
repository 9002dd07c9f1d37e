// Benchmark helpers: paired registration of a kvlCV case and its OpenCV peer (or, for a family
// without a peer, its scalar reference), memory bounds, thread setting, images. The suite's
// reporter prints throughput ratios of each pair at the end.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

#include "kvlcv.h"

#ifdef KVL_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace kvl::bench {

using Body = std::function<void(benchmark::State&)>;

struct Size {
  int width, height;
  std::string name() const { return std::to_string(width) + "x" + std::to_string(height); }
};
inline const std::vector<Size> kSizes = {{640, 480}, {1920, 1080}, {3840, 2160}};

// The peer's body of a pair when OpenCV is present, else no peer:
// pair(name, threads, pixels, kvlBody, KVL_PEER([=](benchmark::State& st) { ... })).
#ifdef KVL_HAVE_OPENCV
#define KVL_PEER(...) __VA_ARGS__
#else
#define KVL_PEER(...) nullptr
#endif

// Real time, plus the best repetition as the "min" statistic the ratio table uses.
benchmark::internal::Benchmark* timed(benchmark::internal::Benchmark* b);

// Registers "<name>/kvl" and, when `peer` is set and OpenCV is present, "<name>/cv". Both run
// with `threads` permitted threads in their library; items are pixels.
void pair(const std::string& name, int threads, long long pixels, Body kvl, Body peer);

// Registers "<name>/t<threads>/bound" beside a pair: a loop that reads and writes the same bytes
// as the case with no arithmetic to speak of (see touchBytes). The ratio table then prints the
// peer's time over it as the case's ceiling: the most a kernel writing with ordinary stores could
// gain on the peer on this machine, where the case is bound by memory rather than by its
// arithmetic. Registered only when OpenCV is present.
void bound(const std::string& name, int threads, long long pixels, Body body);

// Writes `rows` rows of `dstBytes` at dst (rows `dstStep` apart) while reading the first
// `srcBytes` of source row min(r, srcRows - 1) for each: the traffic of a table made from an
// image, at the machine's speed of plain vector stores and with one add per 64 bytes.
void touchBytes(const void* src, int srcStep, int srcBytes, int srcRows, void* dst, int dstStep,
                int dstBytes, int rows);

// For a family without a peer: registers "<name>/t1/kvl" (the best vector target, or the one
// --kvl_target caps it to) and "<name>/t1/ref" (the same body on the scalar reference), and the
// ratio table compares the two.
void versusReference(const std::string& name, long long pixels, Body kvl);

// Bytes of an image with rows padded to 64 bytes, filled with a smooth pattern plus noise.
std::vector<unsigned char> makeImage(int width, int height, int bytesPerPixel, int* step);

}  // namespace kvl::bench
