// Reading and writing PNG (8/16-bit grey or RGB) and PGM/PPM images for the kvlcv tool.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvlcli {

// An interleaved image of 1 or 3 channels, 8 or 16 bits per sample, rows packed.
struct Picture {
  int width = 0;
  int height = 0;
  int channels = 0;  // 1 grey, 3 RGB
  int depth = 8;     // bits per sample: 8 or 16
  std::vector<uint8_t> data;  // 16-bit samples are stored as uint16_t in host order

  int step() const { return width * channels * (depth / 8); }
  uint8_t* row(int y) { return data.data() + static_cast<size_t>(step()) * y; }
  const uint8_t* row(int y) const { return data.data() + static_cast<size_t>(step()) * y; }
  // Sample i of row y (x * channels + c) at its own depth, and scaled to 8 bits (the high byte).
  int sample(int y, int i) const {
    return depth == 8 ? row(y)[i] : reinterpret_cast<const uint16_t*>(row(y))[i];
  }
  int sample8(int y, int i) const { return depth == 8 ? row(y)[i] : sample(y, i) >> 8; }
  void allocate(int w, int h, int c, int d) {
    width = w, height = h, channels = c, depth = d;
    data.assign(static_cast<size_t>(step()) * h, 0);
  }
};

// Images with more pixels than this are refused before any sample memory is allocated: a small
// compressed file can claim a size that would exhaust memory. A side is at most kMaxSide pixels.
constexpr uint64_t kDefaultMaxPixels = 100000000;
constexpr uint32_t kMaxSide = 1u << 24;

// A file that is not regular (a pipe, a device) has no size to check a header against, so at
// most this many bytes are taken from it: room for the largest sample data the limit allows.
constexpr uint64_t streamByteCap(uint64_t maxPixels) { return maxPixels * 8 + (64u << 20); }

// Each returns an empty string on success, else a one-line message naming the problem. The type
// is recognised from the first bytes, and a binary PGM/PPM is checked against the bytes the file
// really holds before its samples are allocated.
std::string readImage(const std::string& path, Picture* out,
                      uint64_t maxPixels = kDefaultMaxPixels);
std::string readPngMemory(const uint8_t* bytes, size_t size, Picture* out);
// The format follows the extension: .png, .pgm (grey) or .ppm (RGB). Every failed write, flush
// or close is reported.
std::string writeImage(const std::string& path, const Picture& pic);

// 8-bit grey samples of any picture, rows packed: RGB as luma (77 R + 150 G + 29 B + 128) >> 8,
// 16-bit samples by their high byte.
std::vector<uint8_t> greySamples(const Picture& in);

}  // namespace kvlcli
