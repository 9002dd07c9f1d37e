// Fuzz target: Canny edges from 16s and 32f gradients and from an 8u image with its border.
#include <utility>

#include "fuzz.h"

namespace {

using namespace kvl::fuzz;

// A threshold: mostly a small exact value (down to the magnitudes of the -2 .. 3 fills), sometimes any float (NaN and infinities included).
float threshold(Input& in) {
  if (in.oneIn(8)) return in.f32();
  return static_cast<float>(in.range(0, in.pick({8, 40, 600, 20000}))) / in.pick({1.0f, 4.0f});
}

void gradients(Input& in, Session& s, KvliSize roi, float low, float high, bool f32) {
  const Type t = f32 ? typeOf<Kvl32f>() : typeOf<Kvl16s>();
  Image& dx = s.image("dx", Role::kIn, t, roi);
  Image& dy = s.image("dy", Role::kIn, t, roi);
  Image& dst = s.image("dst", Role::kOut, typeOf<Kvl8u>(), roi);
  int bytes = 64;
  if (kvliCannyGetSize(roi, &bytes) != kvlStatusOk) bytes = 64;
  Kvl8u* buffer = in.oneIn(64) ? nullptr : s.scratch("buffer", bytes);
  if (f32) {
    s.run("kvliCanny_32f8u_C1R", [&] {
      return kvliCanny_32f8u_C1R(dx.ptr<Kvl32f>(), dx.step(), dy.ptr<Kvl32f>(), dy.step(),
                                 dst.ptr<Kvl8u>(), dst.step(), roi, low, high, buffer);
    });
  } else {
    s.run("kvliCanny_16s8u_C1R", [&] {
      return kvliCanny_16s8u_C1R(dx.ptr<Kvl16s>(), dx.step(), dy.ptr<Kvl16s>(), dy.step(),
                                 dst.ptr<Kvl8u>(), dst.step(), roi, low, high, buffer);
    });
  }
}

void border(Input& in, Session& s, KvliSize roi, float low, float high) {
  const int filter =
      in.oneIn(16) ? static_cast<int>(in.range(0, 6)) : in.pick({kvlFilterSobel, kvlFilterScharr});
  const int mask =
      in.oneIn(16) ? in.pick({0, 35, 53, 77}) : in.pick({kvlMaskSize3x3, kvlMaskSize5x5});
  const int mode = in.oneIn(16) ? static_cast<int>(in.range(0, 15))
                                : in.pick({kvlBorderConst, kvlBorderRepl, kvlBorderInMem});
  const int borderType = mode | static_cast<int>(in.range(0, 15) << 4) | (in.oneIn(32) ? 256 : 0);
  const Kvl8u value = in.byte();
  const int norm =
      in.oneIn(16) ? static_cast<int>(in.range(0, 5)) : in.pick({kvlNormL1, kvlNormL2});
  // The sides read from memory must be valid memory as deep as the kernel reaches.
  const int k = mask == kvlMaskSize5x5 ? 2 : 1;
  const int sides = mode == kvlBorderInMem ? 240 : borderType;
  const Around readable{sides & kvlBorderInMemLeft ? k : 0, sides & kvlBorderInMemTop ? k : 0,
                        sides & kvlBorderInMemRight ? k : 0, sides & kvlBorderInMemBottom ? k : 0};
  s.note("filter %d, mask %d, border %d (value %d), norm %d", filter, mask, borderType, value,
         norm);
  // CannyBorder checks no step: both are taken as given, so neither is ever short.
  Image& src = s.image("src", Role::kIn, typeOf<Kvl8u>(), roi, 1, readable, false);
  Image& dst = s.image("dst", Role::kOut, typeOf<Kvl8u>(), roi, 1, {}, false);
  int bytes = 64;
  if (kvliCannyBorderGetSize(roi, filter, mask, kvl8u, &bytes) != kvlStatusOk) bytes = 64;
  Kvl8u* buffer = s.scratch("buffer", bytes);
  s.run("kvliCannyBorder_8u_C1R", [&] {
    return kvliCannyBorder_8u_C1R(src.ptr<Kvl8u>(), src.step(), dst.ptr<Kvl8u>(), dst.step(), roi,
                                  filter, mask, borderType, value, low, high, norm, buffer);
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const int member = static_cast<int>(in.range(0, 2));
  Session s(in);
  const KvliSize roi = in.roi(200, 6000);
  float low = threshold(in), high = threshold(in);
  if (low > high && !in.oneIn(8)) std::swap(low, high);
  s.note("roi %dx%d, thresholds %.9g %.9g", roi.width, roi.height, low, high);
  if (member < 2) {
    gradients(in, s, roi, low, high, member == 1);
  } else {
    border(in, s, roi, low, high);
  }
  return 0;
}
