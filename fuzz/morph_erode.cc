// Fuzz target: erosion and dilation, every member of both interfaces, every mask class and
// border mode, the vector paths against the plain reference.
#include <cmath>

#include "fuzz.h"
#include "morph/morph_members.h"

namespace {

using namespace kvl::fuzz;
using kvl::morph::MorphMember;

const MorphMember kMembers[] = {KVL_MORPH_BORDER_MEMBERS(KVL_MORPH_BORDER_RECORD)
                                    KVL_MORPH_OLDER_MEMBERS(KVL_MORPH_OLDER_RECORD)};

Type typeOfMember(const MorphMember& m) {
  return {m.real ? 'f' : (m.dataType == kvl16s ? 's' : 'u'), m.elemBytes};
}

// A mask of one of the shapes that pick the paths: scattered elements, a solid rectangle
// somewhere in the mask, one run per row through the anchor column, or nothing.
std::vector<Kvl8u> decodeMask(Input& in, KvliSize m, KvliPoint a) {
  std::vector<Kvl8u> mask(static_cast<size_t>(m.width) * m.height, 0);
  auto at = [&](int x, int y) -> Kvl8u& { return mask[static_cast<size_t>(y) * m.width + x]; };
  switch (in.range(0, 7)) {
    case 0:
      break;  // empty
    case 1:
    case 2: {
      const int x0 = static_cast<int>(in.range(0, m.width - 1));
      const int y0 = static_cast<int>(in.range(0, m.height - 1));
      const int x1 = static_cast<int>(in.range(x0, m.width - 1));
      const int y1 = static_cast<int>(in.range(y0, m.height - 1));
      for (int y = y0; y <= y1; ++y)
        for (int x = x0; x <= x1; ++x) at(x, y) = static_cast<Kvl8u>(in.range(1, 255));
      break;
    }
    case 3:
    case 4: {
      const int ax = std::min(std::max(a.x, 0), m.width - 1);
      for (int y = 0; y < m.height; ++y) {
        if (in.oneIn(4)) continue;
        const int x0 = static_cast<int>(in.range(0, ax));
        const int x1 = static_cast<int>(in.range(ax, m.width - 1));
        for (int x = x0; x <= x1; ++x) at(x, y) = 1;
      }
      break;
    }
    default: {
      const int density = static_cast<int>(in.range(1, 4));
      for (auto& b : mask) b = in.range(0, 4) < density ? 1 : 0;
    }
  }
  return mask;
}

// The source with every NaN replaced by a number and every -0 by +0, for the length of a call:
// the rectangle filters and the reference need not agree on those.
class Finite {
 public:
  Finite(const MorphMember& m, Kvl8u* roi, int step, KvliSize size, Around around)
      : active_(m.real && roi != nullptr) {
    if (!active_) return;
    for (int y = -around.top; y < size.height + around.bottom; ++y) {
      Kvl8u* row = roi + static_cast<std::ptrdiff_t>(step) * y;
      for (int x = -around.left * m.channels; x < (size.width + around.right) * m.channels; ++x) {
        Kvl8u* p = row + static_cast<std::ptrdiff_t>(x) * 4;
        float v;
        std::memcpy(&v, p, 4);
        saved_.push_back({p, v});
        if (std::isnan(v)) v = 1.5f;
        if (v == 0) v = 0;
        std::memcpy(p, &v, 4);
      }
    }
  }
  ~Finite() {
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it)  // rows may overlap
      std::memcpy(it->first, &it->second, 4);
  }

 private:
  bool active_;
  std::vector<std::pair<Kvl8u*, float>> saved_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const MorphMember& m = pickMember(in, kMembers);
  const bool erode = in.flag();
  Session s(in);
  const KvliSize maskSize{static_cast<int>(in.range(1, 7)), static_cast<int>(in.range(1, 7))};
  KvliPoint anchor{(maskSize.width - 1) >> 1, (maskSize.height - 1) >> 1};
  if (!m.border) {
    anchor = {static_cast<int>(in.range(0, maskSize.width - 1)),
              static_cast<int>(in.range(0, maskSize.height - 1))};
  }
  const std::vector<Kvl8u> mask = decodeMask(in, maskSize, anchor);
  const KvliSize roi = in.roi(80, 3000);
  int roiWidth = std::max(roi.width, 1) + static_cast<int>(in.range(0, 3));
  if (in.oneIn(16)) roiWidth = roi.width - 1;  // narrower than the ROI
  roiWidth = std::max(roiWidth, 1);

  int borderType = kvlBorderRepl;
  if (m.border) {
    borderType = in.pick<int>({kvlBorderRepl, kvlBorderRepl, kvlBorderInMem, kvlBorderRepl | 16,
                               kvlBorderRepl | 32, kvlBorderRepl | 64, kvlBorderRepl | 128});
    if (in.oneIn(3)) borderType |= static_cast<int>(in.range(0, 15)) << 4;
    if (in.oneIn(16)) borderType = in.pick<int>({0, 2, 3, 5, 7, 1 | 256, 6 | 512});
  } else if (in.oneIn(16)) {
    borderType = in.pick<int>({0, 6, 1 | 16, 2});
  }
  auto mem = [&](int flag) { return (borderType & 15) == kvlBorderInMem || (borderType & flag); };
  const Around around{mem(kvlBorderInMemLeft) ? anchor.x : 0,
                      mem(kvlBorderInMemTop) ? anchor.y : 0,
                      mem(kvlBorderInMemRight) ? maskSize.width - anchor.x - 1 : 0,
                      mem(kvlBorderInMemBottom) ? maskSize.height - anchor.y - 1 : 0};
  s.note("%s %s, mask %dx%d anchor %d,%d, roi %dx%d, state width %d, border %d", m.name,
         erode ? "erode" : "dilate", maskSize.width, maskSize.height, anchor.x, anchor.y,
         roi.width, roi.height, roiWidth, borderType);

  // The state, built outside the comparison (the older interface's also serves as its scratch).
  int stateBlockBytes = 0, bufferBytes = 0;
  if (m.getSize(roiWidth, mask.data(), maskSize, &stateBlockBytes, &bufferBytes) != kvlStatusOk) return 0;
  std::vector<uint64_t> block((static_cast<size_t>(stateBlockBytes) + 7) / 8);
  KvliMorphState* state = reinterpret_cast<KvliMorphState*>(block.data());
  Kvl8u* buffer = m.border ? s.scratch("buffer", static_cast<size_t>(bufferBytes)) : nullptr;
  if (m.init(roiWidth, mask.data(), maskSize, anchor, state, buffer) != kvlStatusOk) abort();
  if (in.oneIn(32)) state = nullptr;
  if (m.border && in.oneIn(32)) buffer = nullptr;

  Image& src = s.image("src", Role::kIn, typeOfMember(m), roi, m.channels, around);
  Image& dst = s.image("dst", Role::kOut, typeOfMember(m), roi, m.channels);
  s.run(m.name, [&] {
    const Finite finite(m, src.ptr<Kvl8u>(), src.step(), roi, around);
    return m.run(erode, src.ptr<void>(), src.step(), dst.ptr<void>(), dst.step(), roi,
                 borderType, state, buffer);
  });
  return 0;
}
