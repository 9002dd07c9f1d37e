// Fuzz target of the cascade loader: any bytes give a cascade or one error line, never a crash,
// an unbounded allocation or a multi-line message; a cascade that loads is built into a detector
// and run over a small image.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "detector.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kvl::detect;
  try {
    const Cascade c = parseCascade(reinterpret_cast<const char*>(data), size);
    // Keep each run short: small windows only, searched over an image of twice their size.
    if (c.width > 64 || c.height > 64) return 0;
    const Detector d(c);
    const int w = 2 * c.width + 3, h = 2 * c.height + 1;
    std::vector<uint8_t> img(static_cast<size_t>(w) * h);
    for (size_t i = 0; i < img.size(); ++i) img[i] = static_cast<uint8_t>(i * 37 + (i >> 3));
    DetectParams p;
    p.minNeighbors = 0;
    p.threads = 1;
    for (const Box& b : d.detect(img.data(), w, w, h, p))
      if (b.x < 0 || b.y < 0 || b.x + b.width > w + 1 || b.y + b.height > h + 1) abort();
  } catch (const CascadeError& e) {
    if (std::strchr(e.what(), '\n') || !*e.what()) {
      std::fprintf(stderr, "error message not one line: '%s'\n", e.what());
      abort();
    }
  }
  return 0;
}
