// Fuzz target: bit-image erosion and dilation, every member of the family's table. The state is
// built inside the call (it lives in scratch memory, which each target refills with noise).
#include <string>
#include <vector>

#include "fuzz.h"
#include "morph/morph_1u.h"

namespace {

using namespace kvl::fuzz;

using Fn1u = KvlStatus (*)(const Kvl8u*, int, int, Kvl8u*, int, int, KvliSize, int, int,
                           const KvliMorphState*, Kvl8u*);
struct Member {
  const char* name;
  Fn1u call;
};
#define KVL_MEMBER(Op, erode) {"kvli" #Op "Border_1u_C1R", kvli##Op##Border_1u_C1R},
const Member kMembers[] = {KVL_MORPH_1U_MEMBERS(KVL_MEMBER)};
#undef KVL_MEMBER

// Bytes of a bit row of w pixels at bit offset off.
int rowBytes(int off, int w) { return (off + (w > 0 ? w : 1) + 7) / 8; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const Member& m = pickMember(in, kMembers);
  Session s(in);
  const KvliSize roi = in.roi(400, 20000);

  // The mask: mostly small, sometimes one long row or column; dense, sparse or empty.
  // One in four: the 3x3 rectangle or cross with both offsets 0, which has row passes of its own.
  const bool small = in.oneIn(4), plus = small && in.flag();
  const bool line = !small && in.oneIn(6);
  const int mw = small ? 3 : line && in.flag() ? 1 : static_cast<int>(in.range(1, line ? 90 : 13));
  const int mh = small ? 3 : line && mw != 1 ? 1 : static_cast<int>(in.range(1, line ? 40 : 11));
  const int density = small ? 4 : static_cast<int>(in.range(0, 4));  // 0: empty, 4: full
  std::vector<Kvl8u> mask(static_cast<size_t>(mw) * mh);
  for (auto& v : mask)
    v = density == 4 ? static_cast<Kvl8u>(in.range(1, 255))
                     : (density > 0 && static_cast<int>(in.range(0, 3)) < density
                            ? static_cast<Kvl8u>(in.range(1, 255))
                            : 0);
  if (plus)
    for (int k : {0, 2, 6, 8}) mask[k] = 0;

  const int soff = small ? 0 : in.oneIn(40) ? -1 : static_cast<int>(in.range(0, in.oneIn(4) ? 70 : 7));
  const int doff = small ? 0 : in.oneIn(40) ? -1 : static_cast<int>(in.range(0, in.oneIn(4) ? 70 : 7));
  int bt = in.pick<int>({1, 6, 1 | 16, 1 | 32, 1 | 64, 1 | 128, 6 | 64});
  if (in.flag()) bt = 1 | (static_cast<int>(in.range(0, 15)) << 4);
  if (in.oneIn(20)) bt = in.pick<int>({0, 2, 3, 4, 5, 7, 256 + 1, 16 + 5});
  // The state's width: usually the ROI's, sometimes far narrower (strips of a small buffer).
  const int stateWidth = in.oneIn(4) ? static_cast<int>(in.range(1, 64))
                                     : (roi.width > 0 ? roi.width : 1);
  const bool inPlace = in.oneIn(40);

  // Memory the border reads: the mask's reach beyond the ROI on each flagged side, in bytes.
  const int ax = (mw - 1) >> 1, ay = (mh - 1) >> 1;
  const int mode = bt & 15;
  const bool all = mode == kvlBorderInMem;
  const int sw = roi.width > 0 ? roi.width : 1, so = soff > 0 ? soff : 0;
  Around readable;
  if (all || (bt & kvlBorderInMemLeft)) readable.left = (ax - so + 7 > 0 ? ax - so + 7 : 0) / 8;
  if (all || (bt & kvlBorderInMemRight))
    readable.right = ((so + sw - 1 + (mw - ax - 1)) >> 3) - ((so + sw - 1) >> 3);
  if (all || (bt & kvlBorderInMemTop)) readable.top = ay;
  if (all || (bt & kvlBorderInMemBottom)) readable.bottom = mh - ay - 1;

  std::string drawn;  // the mask's rows, '#' an element
  for (int k = 0; k < mw * mh && k < 400; ++k) drawn += (k % mw == 0 ? "/" : "") + std::string(mask[k] ? "#" : ".");
  s.note("roi %dx%d, mask %dx%d %s, offsets %d %d, border %d, state width %d", roi.width,
         roi.height, mw, mh, drawn.c_str(), soff, doff, bt, stateWidth);
  Image& src = s.image("src", Role::kIn, typeOf<Kvl8u>(), {rowBytes(so, roi.width), roi.height},
                       1, readable, false);
  Image& dst = s.image("dst", Role::kOut, typeOf<Kvl8u>(),
                       {rowBytes(doff > 0 ? doff : 0, roi.width), roi.height}, 1, {}, false);
  int stateBlockSize = 0, bufSize = 0;
  if (kvliMorphologyBorderGetSize_1u_C1R(stateWidth, {mw, mh}, &stateBlockSize, &bufSize) != kvlStatusOk)
    return 0;
  Kvl8u* stateBlock = s.scratch("state", static_cast<size_t>(stateBlockSize));
  Kvl8u* buffer = s.scratch("buffer", static_cast<size_t>(bufSize));
  // Now and then a source step below the ROI's (roiWidth + 7) / 8 bytes: a BadStep path.
  const bool shortStep = in.oneIn(30);
  const int badStep = static_cast<int>(in.range(-3, ((sw + 7) >> 3) - 1));
  s.run(m.name, [&] {
    const KvlStatus st = kvliMorphologyBorderInit_1u_C1R(stateWidth, mask.data(), {mw, mh},
                                                         reinterpret_cast<KvliMorphState*>(stateBlock),
                                                         buffer);
    if (st != kvlStatusOk) return st;
    const Kvl8u* sp = src.ptr<Kvl8u>();
    Kvl8u* dp = inPlace ? const_cast<Kvl8u*>(sp) : dst.ptr<Kvl8u>();
    return m.call(sp, shortStep ? badStep : src.step(), soff, dp, dst.step(), doff, roi,
                  bt, 0, reinterpret_cast<const KvliMorphState*>(stateBlock), buffer);
  });
  return 0;
}
