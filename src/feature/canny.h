// Canny edge detection: row kernels (magnitude and direction class, suppression, seeds, final
// map to edges) and their dispatch. CannyBorder takes its derivatives from the derivative filters.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "core/simd.h"
#include "kvlcv.h"

namespace kvl::feature {

// Columns are classified in groups of this many; in the 16s detector the columns after the last
// whole group use the double-precision rule, everything else the single-precision products.
constexpr int kCannyGroup = 4;

// tan 67.5 and tan 22.5 degrees in single precision, and the tail rule's double constants.
inline const float kTan67 = std::bit_cast<float>(0x401A827Au);
inline const float kTan22 = std::bit_cast<float>(0x3ED413CDu);
constexpr double kTan67d = 2.414213562373095;
constexpr double kTan22d = 0.41421356237309503;

// Direction classes: which pair of neighbours a pixel is compared with.
enum : uint8_t {
  kClassHoriz = 1,     // left, right
  kClassAntiDiag = 2,  // up-right, down-left
  kClassVert = 3,      // above, below
  kClassDiag = 4,      // up-left, down-right
};

// Map cells: 0 not a candidate, kCandidate survived suppression, kEdge marked as an edge and
// expanded (or queued), kPending marked as an edge but not yet expanded (stack was full).
constexpr uint8_t kCandidate = 128;
constexpr uint8_t kEdge = 255;
constexpr uint8_t kPending = 192;

// --- Row kernels ------------------------------------------------------------------------------
// Magnitude and class of one row: mag[1 .. w] receives the thresholded magnitude of columns
// 0 .. w-1 (mag[0] and mag[w + 1] are left alone), cls[0 .. w-1] the direction class.
// 16s gradients: integer L1 magnitude kept when > low (truncated threshold).
using MagClass16sFn = void (*)(const Kvl16s* dx, const Kvl16s* dy, int w, int32_t low, int32_t* mag,
                               uint8_t* cls);
// 32f gradients: float L1 magnitude kept when > low.
using MagClass32fFn = void (*)(const Kvl32f* dx, const Kvl32f* dy, int w, float low, float* mag,
                               uint8_t* cls);
// Derivatives computed from an 8-bit image: float L1 (l2 = false) or L2 magnitude.
using MagClassBorderFn = void (*)(const Kvl16s* dx, const Kvl16s* dy, int w, float low, bool l2,
                                  float* mag, uint8_t* cls);

// Suppression of one row: prev/cur/next are magnitude rows (w + 2 elements, zero at both ends),
// cls the classes of the current row. Writes mapRow[0 .. w-1] = 0, kCandidate or kEdge (a
// survivor whose magnitude exceeds high).
using Nms32sFn = void (*)(const int32_t* prev, const int32_t* cur, const int32_t* next,
                          const uint8_t* cls, int w, int32_t high, uint8_t* mapRow);
using Nms32fFn = void (*)(const float* prev, const float* cur, const float* next,
                          const uint8_t* cls, int w, float high, uint8_t* mapRow);

// Seeds of the edge growth in one map row: every kCandidate cell of cur[0 .. w-1] with a kEdge
// among its eight neighbours becomes kEdge and its column goes to cols[] (room for w). prev, cur
// and next are map rows, readable at -1 .. w. Returns the number of columns written. Which cells
// a call marks may depend on the order within the row; the grown edges do not.
using LinkFn = int (*)(const uint8_t* prev, uint8_t* cur, const uint8_t* next, int w,
                       uint32_t* cols);

// out[c] = 255 where mapRow[c] is kEdge, else 0.
using EdgesFn = void (*)(const uint8_t* mapRow, int w, Kvl8u* out);

namespace ref {
void magClass16s(const Kvl16s* dx, const Kvl16s* dy, int w, int32_t low, int32_t* mag,
                 uint8_t* cls);
void magClass16sRange(const Kvl16s* dx, const Kvl16s* dy, int w, int c0, int32_t low, int32_t* mag,
                      uint8_t* cls);
void magClass32f(const Kvl32f* dx, const Kvl32f* dy, int w, float low, float* mag, uint8_t* cls);
void magClassBorder(const Kvl16s* dx, const Kvl16s* dy, int w, float low, bool l2, float* mag,
                    uint8_t* cls);
void nms32s(const int32_t* prev, const int32_t* cur, const int32_t* next, const uint8_t* cls, int w,
            int32_t high, uint8_t* mapRow);
void nms32f(const float* prev, const float* cur, const float* next, const uint8_t* cls, int w,
            float high, uint8_t* mapRow);
int link(const uint8_t* prev, uint8_t* cur, const uint8_t* next, int w, uint32_t* cols);
void edges(const uint8_t* mapRow, int w, Kvl8u* out);
}  // namespace ref

extern const simd::Kernel<MagClass16sFn> kMagClass16s;
extern const simd::Kernel<MagClass32fFn> kMagClass32f;
extern const simd::Kernel<MagClassBorderFn> kMagClassBorder;
extern const simd::Kernel<Nms32sFn> kNms32s;
extern const simd::Kernel<Nms32fFn> kNms32f;
extern const simd::Kernel<EdgesFn> kEdges;
extern const simd::Kernel<LinkFn> kLink;

}  // namespace kvl::feature
