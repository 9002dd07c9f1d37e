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
  void allocate(int w, int h, int c, int d) {
    width = w, height = h, channels = c, depth = d;
    data.assign(static_cast<size_t>(step()) * h, 0);
  }
};

// Each returns an empty string on success, else a one-line message naming the problem.
std::string readImage(const std::string& path, Picture* out);
std::string readPngMemory(const uint8_t* bytes, size_t size, Picture* out);
// The format follows the extension: .png, .pgm (grey) or .ppm (RGB).
std::string writeImage(const std::string& path, const Picture& pic);

}  // namespace kvlcli
