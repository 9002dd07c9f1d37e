// The foreground operation: a background model over a sequence of frames.
//
//   kvlcv foreground [--model gaussian|histogram] <frame>... <outdir>
//
// The frames are taken in name order; frame k (counted from 1 in that order) gives
// <outdir>/mask-kkkk.png and <outdir>/background-kkkk.png. The first frame creates the model and
// is classified like the others.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

#include "bg/foreground_members.h"
#include "ops.h"

namespace kvlcli {
namespace {

const kvl::bg::ForegroundMember kMembers[] = {KVL_FG_MEMBERS(KVL_FG_MEMBER_RECORD)};

std::string numbered(const std::string& dir, const char* what, size_t k) {
  char name[32];
  std::snprintf(name, sizeof name, "%s-%04zu.png", what, k);
  return dir + "/" + name;
}

}  // namespace

const char* const kForegroundDetails =
    "Separates moving objects from a static background over a sequence of frames of one size\n"
    "(grey or RGB, 8-bit), taken in name order. The first frame creates the model; every frame,\n"
    "the first included, is then classified. Frame k (from 1) gives <outdir>/mask-kkkk.png (255\n"
    "foreground, 0 background) and <outdir>/background-kkkk.png (the model's background).\n"
    "gaussian: a mixture of five Gaussians per sample; histogram: quantised colour and change\n"
    "statistics per pixel, learnt from each classified frame.";

const std::vector<Option>& foregroundOptions() {
  static const std::vector<Option> opts = {
      {"model", "the background model", {"gaussian", "histogram"}, "gaussian"},
  };
  return opts;
}

RunResult runForegroundFrames(const Args& args, const std::vector<Picture>& frames,
                              std::vector<Picture>* masks, std::vector<Picture>* backgrounds) {
  RunResult r;
  if (frames.empty()) return r;
  const Picture& first = frames[0];
  if (first.depth != 8) {
    r.error = "needs 8-bit frames";
    return r;
  }
  const bool histogram = args.count("model") && args.at("model") == "histogram";
  const kvl::bg::ForegroundMember& m = kMembers[first.channels == 3 ? 1 : 0];
  const int w = first.width, h = first.height, C = first.channels;
  const KvliSize roi{w, h};
  const int model = 0;  // never read
  KvliFGGaussianState* gs = nullptr;
  KvliFGHistogramState* hs = nullptr;
  const auto t0 = std::chrono::steady_clock::now();
  r.status = histogram ? m.histInit(first.data.data(), first.step(), roi, &model, &hs)
                       : m.gaussInit(first.data.data(), first.step(), roi, &model, &gs);
  for (size_t k = 0; k < frames.size() && r.status == kvlStatusOk; ++k) {
    const Picture& f = frames[k];
    Picture mask, bg;
    mask.allocate(w, h, 1, 8);
    bg.allocate(w, h, C, 8);
    if (histogram) {
      r.status = m.hist(f.data.data(), f.step(), bg.row(0), bg.step(), mask.row(0), mask.step(),
                        roi, hs);
      const Picture& prev = frames[k == 0 ? 0 : k - 1];
      if (r.status == kvlStatusOk)
        r.status = m.histUpdate(f.data.data(), f.step(), mask.row(0), mask.step(),
                                prev.data.data(), prev.step(), roi, hs);
    } else {
      r.status = m.gauss(f.data.data(), f.step(), bg.row(0), bg.step(), mask.row(0), mask.step(),
                         roi, gs);
    }
    masks->push_back(std::move(mask));
    backgrounds->push_back(std::move(bg));
  }
  r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  if (gs) m.gaussFree(gs);
  if (hs) m.histFree(hs);
  return r;
}

int runForeground(const Args& args, std::vector<std::string> files, const std::string& outDir,
                  uint64_t maxPixels, bool time) {
  auto fail = [](const std::string& msg) {
    std::fprintf(stderr, "kvlcv: foreground: %s\n", msg.c_str());
    return 1;
  };
  std::sort(files.begin(), files.end());
  std::vector<Picture> frames(files.size());
  for (size_t k = 0; k < files.size(); ++k) {
    const std::string err = readImage(files[k], &frames[k], maxPixels);
    if (!err.empty()) return fail(err);
    const Picture& a = frames[0];
    const Picture& b = frames[k];
    if (b.width != a.width || b.height != a.height || b.channels != a.channels ||
        b.depth != a.depth) {
      auto describe = [](const Picture& p) {
        return std::to_string(p.width) + "x" + std::to_string(p.height) +
               (p.channels == 3 ? " RGB" : " grey") + (p.depth == 16 ? " 16-bit" : "");
      };
      return fail("frames differ: " + files[0] + " is " + describe(a) + ", " + files[k] + " is " +
                  describe(b));
    }
  }
  std::vector<Picture> masks, backgrounds;
  const RunResult r = runForegroundFrames(args, frames, &masks, &backgrounds);
  if (!r.error.empty()) return fail(r.error);
  if (r.status != kvlStatusOk) {
    const StatusInfo s = statusInfo(r.status);
    return fail(std::string("the library returned ") + s.name + " (" + std::to_string(r.status) +
                "): " + s.meaning);
  }
  mkdir(outDir.c_str(), 0777);
  for (size_t k = 0; k < masks.size(); ++k) {
    std::string err = writeImage(numbered(outDir, "mask", k + 1), masks[k]);
    if (err.empty()) err = writeImage(numbered(outDir, "background", k + 1), backgrounds[k]);
    if (!err.empty()) return fail(err);
  }
  const double fps = r.seconds > 0 ? static_cast<double>(frames.size()) / r.seconds : 0.0;
  std::printf("foreground: %zu frames of %dx%d, %s model: %.1f frames/s\n", frames.size(),
              frames[0].width, frames[0].height,
              args.count("model") ? args.at("model").c_str() : "gaussian", fps);
  if (time)
    std::printf("foreground %dx%d: %.3f ms, %.1f Mpixel/s\n", frames[0].width, frames[0].height,
                r.seconds * 1e3,
                static_cast<double>(frames[0].width) * frames[0].height * frames.size() / 1e6 /
                    r.seconds);
  return 0;
}

std::vector<Picture> syntheticVideo(const Picture& photo, int count) {
  std::vector<Picture> frames;
  uint32_t seed = 2024;
  for (int t = 0; t < count; ++t) {
    Picture f = photo;
    for (int y = 0; y < f.height; ++y)
      for (int x = 0; x < f.width; ++x) {
        const double dx1 = x - (60 + 28.0 * t), dy1 = y - 0.55 * f.height;
        const double dx2 = x - (0.8 * f.width - 18.0 * t), dy2 = y - (0.25 * f.height + 6.0 * t);
        const bool disc = dx1 * dx1 + dy1 * dy1 < 40.0 * 40.0;
        const bool box = std::fabs(dx2) < 30 && std::fabs(dy2) < 22;
        for (int c = 0; c < f.channels; ++c) {
          int v = f.row(y)[x * f.channels + c];
          if (disc) v = 40 + 80 * c;
          if (box) v = 230 - 50 * c;
          seed = seed * 1664525u + 1013904223u;
          v += static_cast<int>((seed >> 24) % 5) - 2;
          f.row(y)[x * f.channels + c] = static_cast<uint8_t>(std::clamp(v, 0, 255));
        }
      }
    frames.push_back(std::move(f));
  }
  return frames;
}

}  // namespace kvlcli
