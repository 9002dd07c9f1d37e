// Colour-to-grey gradient over its member table: reference rows at odd steps and with threads,
// validation, golden pixels. Every target against the scalar kernels over awkward sizes and
// values is the fuzz target's (fuzz/filter_gradient.cc).
#include "filter/gradient.h"

#include <cstring>

#include "core/parallel.h"
#include "support/support.h"

namespace {

using kvl::test::Image;

template <class T>
using GradCall = KvlStatus (*)(const T*, int, T*, int, KvliSize, int);

template <class T>
void checkMember(GradCall<T> fn, const char* name) {
  static constexpr void (*kRef[3])(const T*, T*, int) = {&kvl::filter::ref::gradientRow<T, 0>,
                                                         &kvl::filter::ref::gradientRow<T, 1>,
                                                         &kvl::filter::ref::gradientRow<T, 2>};
  // Steps that are not element multiples put rows at odd addresses; they are accepted, and every
  // row is the reference row of its source row with 1, 2 and 3 threads (the team rule splits).
  const int w = 700, h = 400, srcStep = 3 * w * sizeof(T) + 1, dstStep = w * sizeof(T) + 3;
  const Image<T, 3> src(w, h, 0, 8);
  std::vector<uint8_t> in(srcStep * h + 1), out(dstStep * h + 1);
  for (int y = 0; y < h; ++y) std::memcpy(&in[1 + y * srcStep], src.at(0, y), 3 * w * sizeof(T));
  std::vector<T> want(w);
  for (int norm = 0; norm < 3; ++norm)
    for (int threads : {1, 2, 3}) {
      kvl::test::ThreadScope scope(threads);
      ASSERT_EQ(kvl::par::teamGradient({w, h}) > 1, threads > 1);
      ASSERT_EQ(fn(reinterpret_cast<const T*>(&in[1]), srcStep, reinterpret_cast<T*>(&out[1]),
                   dstStep, {w, h}, norm),
                kvlStatusOk);
      for (int y = 0; y < h; ++y) {
        kRef[norm](src.at(0, y), want.data(), w);
        ASSERT_EQ(std::memcmp(&out[1 + y * dstStep], want.data(), w * sizeof(T)), 0)
            << name << " norm " << norm << " threads " << threads << " row " << y;
      }
    }

  // Validation in order: pointers, sizes, steps, norm; failures write nothing.
  struct Row {
    const char* what;
    bool nullSrc, nullDst;
    KvliSize roi;
    int srcDelta, dstDelta, norm;
    KvlStatus want;
  };
  const Row rows[] = {
      {"null destination", false, true, {0, 1}, 0, 0, 7, kvlStatusNullPointer},
      {"null source", true, false, {4, 1}, 0, 0, 0, kvlStatusNullPointer},
      {"zero width", false, false, {0, 2}, -1, 0, 7, kvlStatusBadSize},
      {"source step short", false, false, {4, 2}, -1, 0, 7, kvlStatusBadStep},
      {"destination step short", false, false, {4, 2}, 0, -1, 1, kvlStatusBadStep},
      {"norm 3", false, false, {4, 2}, 1, 1, 3, kvlStatusBadArgument},
      {"norm -1", false, false, {4, 2}, 0, 0, -1, kvlStatusBadArgument},
  };
  for (const Row& r : rows) {
    Image<T, 3> s(4, 2, 1, 1);
    Image<T> d(4, 2, 1, 2);
    EXPECT_EQ(fn(r.nullSrc ? nullptr : s.roi(), 12 * sizeof(T) + r.srcDelta,
                 r.nullDst ? nullptr : d.roi(), 4 * sizeof(T) + r.dstDelta, r.roi, r.norm),
              r.want)
        << name << ": " << r.what;
    EXPECT_TRUE(d.unchanged()) << name << ": " << r.what;
  }
}
TEST(GradientColorToGray, EveryMemberAndNorm) {
#define KVL_CHECK(suffix, T) checkMember<T>(&kvliGradientColorToGray_##suffix##_C3C1R, #suffix);
  KVL_GRADIENT_MEMBERS(KVL_CHECK)
#undef KVL_CHECK
}

// Hand-computed values; each pixel is repeated so both the vector body and the tail see it.
template <class T>
void golden(GradCall<T> fn, T c0, T c1, T c2, int norm, T want) {
  std::vector<T> src, dst(41);
  for (int i = 0; i < 41; ++i) src.insert(src.end(), {c0, c1, c2});
  kvl::test::forEachTarget([&](int) {
    ASSERT_EQ(fn(src.data(), 123 * sizeof(T), dst.data(), 41 * sizeof(T), {41, 1}, norm),
              kvlStatusOk);
    for (T v : dst) EXPECT_EQ(v, want) << +c0 << "," << +c1 << "," << +c2 << " norm " << norm;
  });
}

TEST(GradientColorToGray, GoldenPixels) {
  const auto g8 = &kvliGradientColorToGray_8u_C3C1R;
  golden<Kvl8u>(g8, 255, 255, 255, 1, 255);
  golden<Kvl8u>(g8, 1, 1, 0, 1, 1);  // (2 x 1365 + 2048) >> 12
  golden<Kvl8u>(g8, 1, 0, 0, 1, 0);
  golden<Kvl8u>(g8, 255, 255, 255, 2, 255);
  golden<Kvl8u>(g8, 3, 0, 0, 2, 2);  // sqrt(3) + 0.5 truncated
  golden<Kvl8u>(g8, 7, 200, 9, 0, 200);
  const auto g16 = &kvliGradientColorToGray_16u_C3C1R;
  // The fixed-point third 5461 / 16384 is slightly below 1/3: three maxima give 65531.
  golden<Kvl16u>(g16, 65535, 65535, 65535, 1, 65531);
  golden<Kvl16u>(g16, 65535, 65535, 65535, 2, 65535);
  golden<Kvl16u>(g16, 3, 0, 0, 2, 2);
  golden<Kvl16u>(g16, 0, 65535, 4, 0, 65535);
  const auto g32 = &kvliGradientColorToGray_32f_C3C1R;
  golden<Kvl32f>(g32, 1, -2, 3, 1, 6);  // no division by 3
  golden<Kvl32f>(g32, 1, -2, 3, 0, 3);
  golden<Kvl32f>(g32, -7, 2, 6, 0, 7);
  golden<Kvl32f>(g32, 3, -4, 0, 2, 5);
}

}  // namespace
