// The morphology operations: erode, dilate, and open, close and gradient made of them, by a
// structuring element anchored at its centre, with replicated borders. The library's border
// interface does the work: one state per element and image width, one work buffer.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "morph/morph_members.h"
#include "ops.h"

namespace kvlcli {

const std::vector<Option>& morphOptions() {
  static const std::vector<Option> options = {
      {"shape", "the element: a shape of --size, or a PNG whose non-zero pixels are the element",
       {"rect", "ellipse", "cross"}, "rect", Kind::kFile},
      {"size", "element width x height (WxH, or N for NxN), up to 255x255", {}, "3x3", Kind::kSize,
       1, 255},
      {"iterations", "times each erosion or dilation is applied", {}, "1", Kind::kInteger, 1, 1000},
      {"binary", "threshold the grey image and work on 1-bit pixels (output 0 or 255)", {}, "off",
       Kind::kFlag},
      {"threshold", "--binary: a pixel is set when its grey value is at least this", {}, "128",
       Kind::kInteger, 0, 65535},
  };
  return options;
}

const char* const kMorphDetails =
    "  erode takes the minimum over the element placed on each pixel, dilate the maximum; open is\n"
    "  erode then dilate, close dilate then erode, gradient dilate minus erode (each --iterations\n"
    "  times). The anchor is the element's centre ((w-1)/2, (h-1)/2); pixels outside the image\n"
    "  repeat the nearest edge pixel. ellipse: the elements (i, j) with ((i - cx) / (w/2))^2 +\n"
    "  ((j - cy) / (h/2))^2 <= 1; cross: the centre row and column. A mask file (grey PNG, at most\n"
    "  255x255) gives the element and its size, so --size is not used with it. 8-bit grey and RGB\n"
    "  use the 8-bit members, 16-bit grey the 16u member, 16-bit RGB the float member on the\n"
    "  sample values. --binary makes a 1-bit image of grey >= --threshold (RGB as luma, 16-bit by\n"
    "  its samples) and writes set pixels as 255.";

namespace {

struct Element {
  int w = 0, h = 0;
  std::vector<Kvl8u> mask;
};

// Parses "WxH" or "N" (already checked by the option's kind).
KvliSize parseSize(const std::string& s) {
  const size_t x = s.find('x');
  const int w = std::atoi(s.c_str());
  return {w, x == std::string::npos ? w : std::atoi(s.c_str() + x + 1)};
}

std::string makeElement(const Args& a, Element* e) {
  const auto shape = a.find("shape");
  const std::string name = shape == a.end() ? "rect" : shape->second;
  if (name != "rect" && name != "ellipse" && name != "cross") {
    if (a.count("size")) return "--size cannot be combined with a mask file (the file gives the size)";
    Picture m;
    std::string err = readImage(name, &m, 255 * 255);
    if (!err.empty()) return err;
    if (m.width > 255 || m.height > 255)
      return name + ": the element is " + std::to_string(m.width) + "x" +
             std::to_string(m.height) + " (at most 255x255)";
    e->w = m.width, e->h = m.height;
    const std::vector<uint8_t> g = greySamples(m);
    e->mask.assign(g.size(), 0);
    for (size_t i = 0; i < g.size(); ++i) e->mask[i] = g[i] != 0;
    return "";
  }
  const auto size = a.find("size");
  const KvliSize s = parseSize(size == a.end() ? "3x3" : size->second);
  e->w = s.width, e->h = s.height;
  e->mask.assign(static_cast<size_t>(s.width) * s.height, 0);
  const int ax = (s.width - 1) / 2, ay = (s.height - 1) / 2;
  const double cx = (s.width - 1) / 2.0, cy = (s.height - 1) / 2.0;
  for (int j = 0; j < s.height; ++j)
    for (int i = 0; i < s.width; ++i) {
      const double u = (i - cx) / (s.width / 2.0), v = (j - cy) / (s.height / 2.0);
      e->mask[static_cast<size_t>(j) * s.width + i] =
          name == "rect" || (name == "cross" && (i == ax || j == ay)) ||
          (name == "ellipse" && u * u + v * v <= 1.0);
    }
  return "";
}

namespace km = kvl::morph;

const km::MorphMember kMembers[] = {KVL_MORPH_BORDER_MEMBERS(KVL_MORPH_BORDER_RECORD)};

// The border-interface member for samples of `bytes` bytes (float or not) and `channels`.
const km::MorphMember& member(int bytes, bool real, int channels) {
  for (const km::MorphMember& m : kMembers)
    if (m.elemBytes == bytes && m.real == real && m.channels == channels && m.dataType != 7)
      return m;
  return kMembers[0];  // not reached: every picture the tool reads has a member
}

// The 1-bit member through the same record, on rows at bit offset 0.
const km::MorphMember kBits{
    "Border_1u_C1R", true, 1, 1, false, 1,
    [](int w, const Kvl8u*, KvliSize m, int* s, int* b) {
      return kvliMorphologyBorderGetSize_1u_C1R(w, m, s, b);
    },
    [](int w, const Kvl8u* mask, KvliSize m, KvliPoint, KvliMorphState* st, Kvl8u* buf) {
      return kvliMorphologyBorderInit_1u_C1R(w, mask, m, st, buf);
    },
    nullptr,
    [](bool erode, const void* s, int ss, void* d, int ds, KvliSize r, int bt,
       const KvliMorphState* st, Kvl8u* buf) {
      auto* f = erode ? kvliErodeBorder_1u_C1R : kvliDilateBorder_1u_C1R;
      return f(static_cast<const Kvl8u*>(s), ss, 0, static_cast<Kvl8u*>(d), ds, 0, r, bt, 0, st, buf);
    }};

// Runs the operation's erosions and dilations on `img` (rows of `step` bytes) and leaves the
// result there; gradient subtracts the eroded image from the dilated one with `minus`.
template <class Minus>
RunResult sequence(const std::string& opName, const km::MorphMember& m, const Element& e, int iterations,
                   std::vector<Kvl8u>* img, int width, int height, int step, Minus minus) {
  RunResult r;
  const KvliSize roi{width, height}, ms{e.w, e.h};
  int stateBlockBytes = 0, bufBytes = 0;
  if ((r.status = m.getSize(width, e.mask.data(), ms, &stateBlockBytes, &bufBytes))) return r;
  std::vector<Kvl8u> stateBlock(static_cast<size_t>(stateBlockBytes) + 64), buffer(static_cast<size_t>(bufBytes));
  // The state starts at a 64-byte boundary of its block.
  auto* state = reinterpret_cast<KvliMorphState*>(
      stateBlock.data() + (64 - reinterpret_cast<uintptr_t>(stateBlock.data()) % 64) % 64);
  if ((r.status = m.init(width, e.mask.data(), ms, {0, 0}, state, buffer.data()))) return r;
  std::vector<Kvl8u> tmp(img->size());
  const auto t0 = std::chrono::steady_clock::now();
  auto apply = [&](int which, std::vector<Kvl8u>* cur) {  // erosion 0 or dilation 1, in place
    for (int k = 0; k < iterations && r.status == kvlStatusOk; ++k) {
      r.status = m.run(which == 0, cur->data(), step, tmp.data(), step, roi, kvlBorderRepl, state,
                       buffer.data());
      cur->swap(tmp);
    }
  };
  if (opName == "erode" || opName == "dilate") {
    apply(opName == "dilate", img);
  } else if (opName == "open" || opName == "close") {
    const int first = opName == "close";
    apply(first, img);
    apply(1 - first, img);
  } else {  // gradient
    std::vector<Kvl8u> eroded = *img;
    apply(1, img);
    apply(0, &eroded);
    if (r.status == kvlStatusOk) minus(*img, &eroded);
    img->swap(eroded);
  }
  r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  return r;
}

}  // namespace

RunResult runMorph(const char* opName, const Args& a, const Picture& in, Picture* out) {
  RunResult r;
  Element e;
  r.error = makeElement(a, &e);
  if (!r.error.empty()) return r;
  const auto it = a.find("iterations");
  const int iterations = it == a.end() ? 1 : std::atoi(it->second.c_str());
  const int w = in.width, h = in.height;
  if (a.count("binary")) {
    const auto th = a.find("threshold");
    const int threshold = th == a.end() ? 128 : std::atoi(th->second.c_str());
    const int step = (w + 7) / 8;
    std::vector<Kvl8u> bits(static_cast<size_t>(step) * h, 0);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const int c = in.channels;
        auto s = [&](int k) { return in.sample(y, x * c + k); };
        const int grey = c == 1 ? s(0) : (77 * s(0) + 150 * s(1) + 29 * s(2) + 128) >> 8;
        if (grey >= threshold) bits[static_cast<size_t>(y) * step + x / 8] |= Kvl8u(1u << (x & 7));
      }
    r = sequence(opName, kBits, e, iterations, &bits, w, h, step,
                 [](const std::vector<Kvl8u>& dil, std::vector<Kvl8u>* ero) {
                   for (size_t i = 0; i < ero->size(); ++i) (*ero)[i] = dil[i] & Kvl8u(~(*ero)[i]);
                 });
    if (r.status || !r.error.empty()) return r;
    out->allocate(w, h, 1, 8);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        out->row(y)[x] = (bits[static_cast<size_t>(y) * step + x / 8] >> (x & 7)) & 1 ? 255 : 0;
    return r;
  }
  if (in.depth == 8) {
    std::vector<Kvl8u> img = in.data;
    r = sequence(opName, member(1, false, in.channels), e, iterations, &img, w, h, in.step(),
                 [](const std::vector<Kvl8u>& dil, std::vector<Kvl8u>* ero) {
                   for (size_t i = 0; i < ero->size(); ++i) (*ero)[i] = Kvl8u(dil[i] - (*ero)[i]);
                 });
    if (r.status || !r.error.empty()) return r;
    *out = in;
    out->data = std::move(img);
    return r;
  }
  // 16-bit: grey on the 16u member; RGB on the float member (the sample values are exact floats).
  const size_t n = static_cast<size_t>(w) * h * in.channels;
  const auto* s16 = reinterpret_cast<const uint16_t*>(in.data.data());
  const bool grey = in.channels == 1;
  const size_t es = grey ? 2 : 4;
  std::vector<Kvl8u> img(n * es);
  for (size_t i = 0; i < n; ++i) {
    if (grey) std::memcpy(&img[2 * i], &s16[i], 2);
    else {
      const float f = s16[i];
      std::memcpy(&img[4 * i], &f, 4);
    }
  }
  r = sequence(opName, grey ? member(2, false, 1) : member(4, true, 3), e, iterations, &img, w, h,
               static_cast<int>(w * in.channels * es),
               [&](const std::vector<Kvl8u>& dil, std::vector<Kvl8u>* ero) {
                 for (size_t i = 0; i < n; ++i) {
                   if (grey) {
                     uint16_t p, q;
                     std::memcpy(&p, &dil[2 * i], 2), std::memcpy(&q, &(*ero)[2 * i], 2);
                     p = static_cast<uint16_t>(p - q);
                     std::memcpy(&(*ero)[2 * i], &p, 2);
                   } else {
                     float p, q;
                     std::memcpy(&p, &dil[4 * i], 4), std::memcpy(&q, &(*ero)[4 * i], 4);
                     p -= q;
                     std::memcpy(&(*ero)[4 * i], &p, 4);
                   }
                 }
               });
  if (r.status || !r.error.empty()) return r;
  out->allocate(w, h, in.channels, 16);
  auto* d16 = reinterpret_cast<uint16_t*>(out->data.data());
  for (size_t i = 0; i < n; ++i) {
    if (grey) std::memcpy(&d16[i], &img[2 * i], 2);
    else {
      float f;
      std::memcpy(&f, &img[4 * i], 4);
      d16[i] = static_cast<uint16_t>(f);
    }
  }
  return r;
}

}  // namespace kvlcli
