// Fuzz target: the separable row and column passes, every member of both tables.
#include "filter/pipeline.h"
#include "fuzz.h"

namespace {

using namespace kvl::fuzz;

// The arguments of both passes; each member passes on the ones its prototype has.
struct Args {
  const void* src;  // row pass: the image; column pass: the row-pointer array
  int srcStep;
  void* dst;        // row pass: the row-pointer array; column pass: the image
  int dstStep;
  KvliSize roi;
  const void* kernel;
  int K, anchor, border, divisor;
  float value;
  Kvl8u* buffer;
};

struct Member {
  const char* name;
  bool row;
  Type src, dst, ker;
  int channels;
  KvlStatus (*call)(const Args&);
  KvlStatus (*size)(KvliSize, int, int*);
};

#define KVL_PIPELINE_DIV_kNonZero x.divisor,
#define KVL_PIPELINE_DIV_kPositive x.divisor,
#define KVL_PIPELINE_DIV_kNone
#define KVL_ROW(types, S, D, Kt, C, member, rule, threaded, kern)                              \
  {"kvliFilterRowBorderPipeline_" #types, true, typeOf<S>(), typeOf<D>(), typeOf<Kt>(), C,     \
   [](const Args& x) {                                                                          \
     return kvliFilterRowBorderPipeline_##types(                                                \
         static_cast<const S*>(x.src), x.srcStep, static_cast<D**>(x.dst), x.roi,               \
         static_cast<const Kt*>(x.kernel), x.K, x.anchor, x.border, static_cast<S>(x.value),    \
         KVL_PIPELINE_DIV_##rule x.buffer);                                                     \
   },                                                                                           \
   kvliFilterRowBorderPipelineGetBufferSize_##types},
#define KVL_COLUMN(types, S, D, Kt, C, member, rule, threaded, kern)                           \
  {"kvliFilterColumnPipeline_" #types, false, typeOf<S>(), typeOf<D>(), typeOf<Kt>(), C,       \
   [](const Args& x) {                                                                          \
     return kvliFilterColumnPipeline_##types(                                                   \
         static_cast<const S**>(const_cast<void*>(x.src)), static_cast<D*>(x.dst), x.dstStep,   \
         x.roi, static_cast<const Kt*>(x.kernel), x.K, KVL_PIPELINE_DIV_##rule x.buffer);       \
   },                                                                                           \
   kvliFilterColumnPipelineGetBufferSize_##types},
const Member kMembers[] = {KVL_ROW_PIPELINE_MEMBERS(KVL_ROW) KVL_COLUMN_PIPELINE_MEMBERS(KVL_COLUMN)};

// Row pointers to every row of an image (none when it is null or has no rows).
std::vector<void*> rowsOf(Image& img, int rows) {
  std::vector<void*> r;
  char* base = img.ptr<char>();
  for (int y = 0; base && y < rows; ++y) r.push_back(base + static_cast<ptrdiff_t>(img.step()) * y);
  return r;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const Member& m = pickMember(in, kMembers);
  Session s(in);
  Args x{};
  x.roi = in.roi(200, 6000);
  x.K = in.oneIn(16) ? static_cast<int>(in.range(-1, 70)) : static_cast<int>(in.range(1, 9));
  x.anchor = in.oneIn(16) ? static_cast<int>(in.range(-1, 10)) : static_cast<int>(in.range(0, x.K > 0 ? x.K - 1 : 0));
  x.border = in.oneIn(16) ? static_cast<int>(in.range(-1, 8)) : in.pick<int>({0, 1, 6});
  x.divisor = in.oneIn(16) ? static_cast<int>(in.range(-5, 0)) : static_cast<int>(in.range(1, 40000));
  x.value = m.src.kind == 'f' ? in.f32() : static_cast<float>(in.range(0, 255));
  s.note("%s roi %dx%d, K %d, anchor %d, border %d, divisor %d, value %.9g", m.name, x.roi.width,
         x.roi.height, x.K, x.anchor, x.border, x.divisor, x.value);
  const int taps = x.K > 0 && x.K <= 70 ? x.K : 1;
  Image& kernel = s.image("kernel", Role::kIn, m.ker, {taps, 1}, 1, {}, false);
  x.kernel = kernel.ptr<void>();
  const int h = x.roi.height > 0 ? x.roi.height : 1;
  std::vector<void*> rows;
  if (m.row) {
    // Mode 6 reads the anchor's pixels left of each row and the rest right of it.
    const bool inMem = x.border == kvlBorderInMem;
    const Around readable{inMem ? taps : 0, 0, inMem ? taps : 0, 0};
    Image& src = s.image("src", Role::kIn, m.src, x.roi, m.channels, readable);
    Image& dst = s.image("dst", Role::kOut, m.dst, x.roi, m.channels, {}, false);
    x.src = src.ptr<void>(), x.srcStep = src.step();
    rows = rowsOf(dst, h);
    x.dst = rows.empty() ? nullptr : rows.data();
  } else {
    Image& src = s.image("src", Role::kIn, m.src, {x.roi.width, h + taps - 1}, m.channels, {}, false);
    Image& dst = s.image("dst", Role::kOut, m.dst, x.roi, m.channels);
    rows = rowsOf(src, h + taps - 1);
    x.src = rows.empty() ? nullptr : rows.data();
    x.dst = dst.ptr<void>(), x.dstStep = dst.step();
  }
  int bytes = 0;
  if (m.size({x.roi.width > 0 ? x.roi.width : 1, h}, taps, &bytes) != kvlStatusOk) return 0;
  x.buffer = s.scratch("buffer", static_cast<size_t>(bytes));
  s.run(m.name, [&] { return m.call(x); });
  return 0;
}
