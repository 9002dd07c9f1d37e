// Test support: guarded images, seeded fills, vector-target forcing and thread-count scopes.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "core/simd.h"
#include "kvlcv.h"
#include "support/guarded.h"

namespace kvl::test {

// A block of memory whose last byte is followed by an inaccessible page, so any read past the end
// faults. Every byte starts with seeded noise.
class GuardedBlock {
 public:
  GuardedBlock(size_t bytes, size_t align, uint32_t seed);
  uint8_t* data() const { return data_; }
  size_t size() const { return bytes_; }

 private:
  GuardedPages pages_;
  uint8_t* data_ = nullptr;
  size_t bytes_ = 0;
};

// An image of width x height pixels of kC channels of T inside a guarded block, surrounded by
// `margin` pixels of valid memory on every side and with random row padding. roi() points at the
// first pixel of the ROI; everything else is noise that a correct function never writes.
template <class T, int kC = 1>
class Image {
 public:
  Image(int width, int height, int margin = 0, uint32_t seed = 1)
      : w_(width), h_(height), m_(margin) {
    std::mt19937 rng(seed * 7919u + 13u);
    const int pad = static_cast<int>(rng() % 4);
    step_ = static_cast<int>(((w_ + 2 * m_) * kC + pad) * sizeof(T));
    const size_t bytes =
        static_cast<size_t>(step_) * (h_ + 2 * m_ - 1) + (w_ + 2 * m_) * kC * sizeof(T);
    block_ = std::make_unique<GuardedBlock>(bytes, alignof(T), seed);
    for (size_t i = 0; i < bytes / sizeof(T); ++i) {  // valid values everywhere (floats finite)
      const T v = uniform(rng, std::numeric_limits<T>::lowest(), std::numeric_limits<T>::max());
      std::memcpy(block_->data() + i * sizeof(T), &v, sizeof(T));
    }
    snapshot();
  }
  T* roi() const { return at(0, 0); }
  int step() const { return step_; }
  int width() const { return w_; }
  int height() const { return h_; }
  // Pixel (x, y) relative to the ROI; -margin <= x, y allowed.
  T* at(int x, int y) const {
    return reinterpret_cast<T*>(block_->data() + static_cast<std::ptrdiff_t>(step_) * (y + m_)) +
           (x + m_) * kC;
  }
  T& px(int x, int y, int c = 0) const { return at(x, y)[c]; }
  void fill(const std::function<T(int x, int y, int c)>& f) {
    for (int y = 0; y < h_; ++y)
      for (int x = 0; x < w_; ++x)
        for (int c = 0; c < kC; ++c) px(x, y, c) = f(x, y, c);
    snapshot();
  }
  void fillRandom(uint32_t seed, T lo = std::numeric_limits<T>::lowest(),
                  T hi = std::numeric_limits<T>::max()) {
    std::mt19937 rng(seed);
    for (int y = -m_; y < h_ + m_; ++y)
      for (int x = -m_; x < w_ + m_; ++x)
        for (int c = 0; c < kC; ++c) px(x, y, c) = uniform(rng, lo, hi);
    snapshot();
  }
  // Records the current bytes as the reference for unchanged().
  void snapshot() { saved_.assign(block_->data(), block_->data() + block_->size()); }
  // True when every byte outside the ROI is as recorded.
  bool outsideUnchanged() const {
    std::vector<uint8_t> now(block_->data(), block_->data() + block_->size());
    for (int y = 0; y < h_; ++y) {  // the ROI may change: take its bytes from the record
      const size_t o = reinterpret_cast<const uint8_t*>(at(0, y)) - block_->data();
      std::memcpy(&now[o], &saved_[o], static_cast<size_t>(w_) * kC * sizeof(T));
    }
    return now == saved_;
  }
  // True when no byte at all changed.
  bool unchanged() const { return std::memcmp(saved_.data(), block_->data(), saved_.size()) == 0; }
  // The ROI pixels in row order.
  std::vector<T> pixels() const {
    std::vector<T> v;
    v.reserve(static_cast<size_t>(w_) * h_ * kC);
    for (int y = 0; y < h_; ++y) v.insert(v.end(), at(0, y), at(0, y) + w_ * kC);
    return v;
  }

  // lo .. hi; the full float range stands for -1000 .. 1000.
  static T uniform(std::mt19937& rng, T lo, T hi) {
    using L = std::numeric_limits<T>;
    if constexpr (std::is_floating_point_v<T>) {
      return std::uniform_real_distribution<T>(lo == L::lowest() ? T(-1000) : lo,
                                               hi == L::max() ? T(1000) : hi)(rng);
    } else {
      return static_cast<T>(std::uniform_int_distribution<long long>(lo, hi)(rng));
    }
  }

 private:
  int w_, h_, m_;
  int step_ = 0;
  std::unique_ptr<GuardedBlock> block_;
  std::vector<uint8_t> saved_;
};

// Runs fn(target) once per vector target this CPU supports, the scalar reference included, with
// the library forced to that target; the cap is lifted afterwards.
void forEachTarget(const std::function<void(int target)>& fn);
const char* targetName(int target);

// Sets the permitted thread count for a scope.
class ThreadScope {
 public:
  explicit ThreadScope(int n);
  ~ThreadScope();

 private:
  int saved_;
};

// Compares two arrays element by element; reports the first difference with its position.
template <class T>
::testing::AssertionResult sameBytes(const std::vector<T>& got, const std::vector<T>& want,
                                     int width, int channels = 1) {
  if (got.size() != want.size()) return ::testing::AssertionFailure() << "size differs";
  for (size_t i = 0; i < got.size(); ++i) {
    if (std::memcmp(&got[i], &want[i], sizeof(T)) != 0) {
      const size_t px = i / channels;
      return ::testing::AssertionFailure()
             << "first difference at x=" << px % width << " y=" << px / width
             << " c=" << i % channels << ": got " << +got[i] << ", want " << +want[i];
    }
  }
  return ::testing::AssertionSuccess();
}

}  // namespace kvl::test
