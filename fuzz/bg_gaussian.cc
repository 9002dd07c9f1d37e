// Fuzz target: the Gaussian foreground model over several frames, every member of the family's
// table. Each target run creates its own state from the first frame, classifies the others
// (sometimes starting just before the history frame), and then lays the component records out
// in an output, so the vector kernels must match the reference in every record as well as in
// every background and mask byte.
#include <cstring>

#include "bg/foreground.h"
#include "fuzz.h"

namespace {

using namespace kvl::fuzz;

const kvl::bg::ForegroundMember kMembers[] = {KVL_FG_MEMBERS(KVL_FG_MEMBER_RECORD)};
constexpr int kMaxFrames = 6;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const kvl::bg::ForegroundMember& m = pickMember(in, kMembers);
  const int C = m.channels;
  Session s(in);
  const KvliSize roi = in.roi(120, 600);
  const int frames = static_cast<int>(in.range(1, kMaxFrames));
  // Now and then the frame count starts just short of the history, so the 200th call is here.
  const int startCount = in.flag() ? static_cast<int>(in.range(195, 199)) : 0;
  // Frames: a base picture and per frame a few samples moved by small or large steps, so that
  // components match, drift, and get replaced.
  s.note("roi %dx%d, %d frames, count from %d", roi.width, roi.height, frames, startCount);
  Image* src[kMaxFrames + 1];
  for (int t = 0; t <= frames; ++t)
    src[t] = &s.image(t == 0 ? "first" : "frame", Role::kIn, typeOf<Kvl8u>(), roi, C);
  Image* bg[kMaxFrames];
  Image* fg[kMaxFrames];
  for (int t = 0; t < frames; ++t) {
    bg[t] = &s.image("background", Role::kOut, typeOf<Kvl8u>(), roi, C);
    fg[t] = &s.image("foreground", Role::kOut, typeOf<Kvl8u>(), roi, 1);
  }
  const long long pixels = roi.width > 0 && roi.height > 0 ? 1LL * roi.width * roi.height : 0;
  const KvliSize recRoi{static_cast<int>(pixels * 160 + 4 * kMaxFrames), 1};
  Image& dump = s.image("records", Role::kOut, typeOf<Kvl8u>(), recRoi, 1, {}, false);
  const int model = 0;
  const bool nullModel = in.oneIn(32);
  s.run(m.suffix, [&]() -> KvlStatus {
    KvliFGGaussianState* st = nullptr;
    const KvlStatus made =
        m.gaussInit(src[0]->ptr<Kvl8u>(), src[0]->step(), roi, nullModel ? nullptr : &model, &st);
    if (made != kvlStatusOk) return made;
    st->frameCount = startCount;
    KvlStatus statuses[kMaxFrames] = {};
    for (int t = 0; t < frames; ++t)
      statuses[t] = m.gauss(src[t + 1]->ptr<Kvl8u>(), src[t + 1]->step(), bg[t]->ptr<Kvl8u>(),
                            bg[t]->step(), fg[t]->ptr<Kvl8u>(), fg[t]->step(), roi, st);
    if (Kvl8u* out = dump.ptr<Kvl8u>()) {
      for (long long i = 0; i < pixels; ++i) std::memcpy(out + i * 160, st->pPixels[i], 160);
      std::memcpy(out + pixels * 160, statuses, sizeof statuses);
    }
    m.gaussFree(st);
    return kvlStatusOk;
  });
  return 0;
}
