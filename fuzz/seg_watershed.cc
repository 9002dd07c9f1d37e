// Fuzz target: the marker watershed, every member and both methods, against the plain model of
// the rules (a std::deque per level; keys by whole-image iteration, labels in key order).
#include <cstring>
#include <vector>

#include "fuzz.h"
#include "seg/watershed_members.h"
#include "seg/watershed_ref.h"

namespace {

using namespace kvl::fuzz;

const kvl::seg::WatershedMember kMembers[] = {KVL_WATERSHED_MEMBERS(KVL_WATERSHED_RECORD)};

// The w x h elements of an image, as 32-bit values.
std::vector<uint32_t> read(const uint8_t* p, int step, KvliSize roi, int bytes) {
  std::vector<uint32_t> out;
  for (int y = 0; y < roi.height; ++y)
    for (int x = 0; x < roi.width; ++x) {
      const uint8_t* e = p + static_cast<ptrdiff_t>(y) * step + x * bytes;
      uint16_t v16 = *e;
      if (bytes == 2) std::memcpy(&v16, e, 2);
      out.push_back(v16);
    }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const kvl::seg::WatershedMember& m = pickMember(in, kMembers);
  Session s(in);
  // The model's distance keys iterate over the whole image: keep the images small.
  const KvliSize roi = in.roi(120, 3000);
  int flag = in.pick({1, 2, 3, 1 | 64, 1 | 128, 2 | 64, 2 | 128, 2 | 192, 1 | 192});
  int norm = static_cast<int>(in.range(0, (flag & 1) ? 1 : 3));
  if (in.oneIn(16)) flag = static_cast<int>(in.range(-1, 260));
  if (in.oneIn(16)) norm = static_cast<int>(in.range(-2, 5));
  s.note("roi %dx%d, norm %d, flag %d", roi.width, roi.height, norm, flag);
  Image& src = s.image("src", Role::kIn, typeOf<Kvl8u>(), roi);
  // 16-bit markers are checked against the width in bytes only, so a shorter step than their
  // row is accepted (rows overlap) and writes where the guarded image expects none: keep their
  // steps at least a row (the unit tests cover the step check).
  Image& marker =
      s.image("marker", Role::kOut, m.markerBytes == 1 ? typeOf<Kvl8u>() : typeOf<Kvl16u>(), roi,
              1, {}, m.markerBytes == 1);
  int bytes = 0;
  const KvlStatus sized = m.getBufferSize(roi, &bytes);
  // A size the query refuses still gets a call, so the validation order runs.
  Kvl8u* buffer = s.scratch("buffer", sized == kvlStatusOk ? static_cast<size_t>(bytes) : 64);
  if (in.oneIn(64)) buffer = nullptr;

  // The model's answer, when the call can succeed on rows that do not overlap.
  const bool modelled = src.ptr<Kvl8u>() != nullptr && marker.ptr<Kvl8u>() != nullptr &&
                        buffer != nullptr && sized == kvlStatusOk && src.step() >= roi.width &&
                        marker.step() >= roi.width * m.markerBytes &&
                        ((flag & 1) ? (norm == 0 || norm == 1)
                                    : ((flag & 2) && norm >= 0 && norm <= 3));
  kvl::seg::model::Image want{roi.width, roi.height, {}, {}, m.boundary};
  if (modelled) {
    for (uint32_t v : read(src.ptr<uint8_t>(), src.step(), roi, 1))
      want.relief.push_back(static_cast<uint8_t>(v));
    want.labels = read(marker.ptr<uint8_t>(), marker.step(), roi, m.markerBytes);
    kvl::seg::model::watershed(want, norm, flag);
  }
  KvlStatus status = kvlStatusOk;
  s.run(m.name, [&] {
    status = m.run(src.ptr<Kvl8u>(), src.step(), marker.ptr<void>(), marker.step(), roi, norm,
                   flag, buffer);
    return status;
  });
  if (modelled) {
    const std::vector<uint32_t> got =
        read(marker.ptr<uint8_t>(), marker.step(), roi, m.markerBytes);
    if (status != kvlStatusOk || got != want.labels) {
      size_t i = 0;
      while (i < got.size() && got[i] == want.labels[i]) ++i;
      fprintf(stderr, "\n*** %s (roi %dx%d, norm %d, flag %d): status %d, ", m.name, roi.width,
              roi.height, norm, flag, status);
      if (i < got.size())
        fprintf(stderr, "x=%zu y=%zu got %u, the model has %u\n", i % roi.width, i / roi.width,
                got[i], want.labels[i]);
      abort();
    }
  }
  return 0;
}
