// Fuzz target: integral images and rectangle standard deviation, every member of both tables.
#include "detect/integral_members.h"
#include "fuzz.h"

namespace {

using namespace kvl::fuzz;
using kvl::detect::Elem;

const kvl::detect::IntegralMember kTables[] = {KVL_INTEGRAL_MEMBERS(KVL_INTEGRAL_MEMBER_RECORD)};
const kvl::detect::StdDevMember kStdDevs[] = {KVL_RECT_STDDEV_MEMBERS(KVL_STDDEV_MEMBER_RECORD)};

Type typeOf(Elem e) { return {e.real ? 'f' : e.bytes == 1 ? 'u' : 's', e.bytes}; }

// A val for elements of kind e: any int32 for integer tables; for float tables mostly small exact
// values, now and then a float of any kind (NaN, infinity, subnormal) widened.
double value(Input& in, Elem e) {
  if (!e.real) return static_cast<double>(in.range(INT32_MIN, INT32_MAX));
  return in.flag() ? static_cast<double>(in.f32()) : static_cast<double>(in.range(-3000, 3000)) / 4;
}

void fuzzTable(Input& in, const kvl::detect::IntegralMember& m) {
  Session s(in);
  const KvliSize roi = in.roi();
  const KvliSize table{roi.width + m.pad, roi.height + m.pad};
  const double val = value(in, m.sum), valSqr = value(in, m.sqr);
  s.note("roi %dx%d, val %.17g, valSqr %.17g", roi.width, roi.height, val, valSqr);
  Image& src = s.image("src", Role::kIn, typeOf(m.src), roi);
  Image& sum = s.image("sum", Role::kOut, typeOf(m.sum), table);
  Image* sqr = m.sqr.bytes ? &s.image("sqr", Role::kOut, typeOf(m.sqr), table) : nullptr;
  s.run(m.name, [&] {
    return m.run(src.ptr<void>(), src.step(), sum.ptr<void>(), sum.step(),
                 sqr ? sqr->ptr<void>() : nullptr, sqr ? sqr->step() : 0, roi, val, valSqr);
  });
}

void fuzzStdDev(Input& in, const kvl::detect::StdDevMember& m) {
  Session s(in);
  const KvliSize roi = in.roi(200, 6000);
  KvliRect r{static_cast<int>(in.range(0, 6)), static_cast<int>(in.range(0, 6)),
             static_cast<int>(in.range(1, 8)), static_cast<int>(in.range(1, 8))};
  if (in.oneIn(16)) (in.flag() ? r.x : r.width) -= static_cast<int>(in.range(1, 9));
  const int scale = static_cast<int>(in.range(-40, 40));
  s.note("roi %dx%d, rect %d,%d %dx%d, scale %d", roi.width, roi.height, r.x, r.y, r.width,
         r.height, scale);
  const int w = roi.width > 0 ? roi.width : 1, h = roi.height > 0 ? roi.height : 1;
  auto atLeast1 = [](long long v) { return static_cast<int>(v > 1 ? v : 1); };
  // The table elements the rectangle reads, from the ROI's first output on.
  const KvliSize table =
      m.tilted ? KvliSize{atLeast1(0LL + r.x + r.y + r.width + r.height + w - 1),
                          atLeast1(0LL + h + r.x + r.y + r.width + r.height)}
               : KvliSize{atLeast1(0LL + r.x + r.width + w), atLeast1(0LL + h + r.y + r.height)};
  Around left;
  if (m.tilted) left.left = atLeast1(0LL + r.y + r.height - r.x);
  Image& sum = s.image("sum", Role::kIn, typeOf(m.sum), table, 1, left);
  Image& sqr = s.image("sqr", Role::kIn, typeOf(m.sqr), table, 1, left);
  Image& dst = s.image("dst", Role::kOut, typeOf(m.dst), roi);
  s.run(m.name, [&] {
    return m.run(sum.ptr<void>(), sum.step(), sqr.ptr<void>(), sqr.step(), dst.ptr<void>(),
                 dst.step(), roi, r, scale);
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  constexpr size_t kTableCount = sizeof(kTables) / sizeof(kTables[0]);
  constexpr size_t kAll = kTableCount + sizeof(kStdDevs) / sizeof(kStdDevs[0]);
  const size_t k = static_cast<size_t>(in.range(0, kAll - 1));
  if (k < kTableCount) {
    fuzzTable(in, kTables[k]);
  } else {
    fuzzStdDev(in, kStdDevs[k - kTableCount]);
  }
  return 0;
}
