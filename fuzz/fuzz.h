// Differential fuzzing support: the input decoder, guarded images and the every-target runner.
//
// A target decodes a member, sizes, steps and arguments from the fuzzer's bytes, allocates its
// images through a Session and hands the call to Session::run, which runs it under the scalar
// reference and then under every vector target this CPU has, each time from the same bytes, and
// aborts with a description when any target disagrees with the reference in a single byte.
#pragma once

#include <bit>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "core/simd.h"
#include "kvlcv.h"
#include "support/guarded.h"

namespace kvl::fuzz {

// KVL_FUZZ_LENIENT in the environment, a comma-separated list, relaxes a check so that fuzzing
// can go on past a known finding: "nan" lets two float NaNs compare equal whatever their
// payloads.
inline bool lenient(const char* what) {
  const char* env = getenv("KVL_FUZZ_LENIENT");
  std::string list(",");
  list.append(env ? env : "").append(",");
  std::string word(",");
  word.append(what).append(",");
  return list.find(word) != std::string::npos;
}

// Reads values off the fuzzer's bytes, front to back. Past the end a generator seeded from all
// the bytes takes over, so short inputs still fill large images and every input replays alike.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : p_(data), end_(data + size) {
    state_ = 0xcbf29ce484222325ull ^ size;
    for (size_t i = 0; i < size; ++i) state_ = (state_ ^ data[i]) * 0x100000001b3ull;
  }

  uint8_t byte() { return p_ < end_ ? *p_++ : static_cast<uint8_t>(next() >> 56); }

  // lo .. hi, both included; takes as many bytes as the span needs (none for a single value).
  long long range(long long lo, long long hi) {
    const uint64_t span = static_cast<uint64_t>(hi - lo);
    uint64_t v = 0;
    for (uint64_t s = span; s != 0; s >>= 8) v = (v << 8) | byte();
    return lo + static_cast<long long>(span == UINT64_MAX ? v : v % (span + 1));
  }
  bool flag() { return byte() & 1; }
  // True for about one input in n: the rare paths (errors, null pointers, odd layouts).
  bool oneIn(int n) { return range(0, n - 1) == 0; }
  template <class T>
  T pick(std::initializer_list<T> values) {
    return values.begin()[range(0, static_cast<long long>(values.size()) - 1)];
  }

  // Any float, weighted towards the values that break vector code: signed zeros, infinities,
  // NaNs with payloads, subnormals, extremes, and small exact values that tie.
  float f32() {
    const uint8_t kind = byte();
    const uint32_t sign = (kind & 0x80u) << 24;
    switch (kind & 15) {
      case 0:
        return std::bit_cast<float>(sign);
      case 1:
        return std::bit_cast<float>(sign | 0x7f800000u);
      case 2:
        return std::bit_cast<float>(sign | 0x7fc00000u | bits(22));
      case 3:
        return std::bit_cast<float>(sign | 0x7f800001u | bits(22));  // signalling
      case 4:
        return std::bit_cast<float>(sign | (bits(23) | 1));  // subnormal
      case 5:
        return std::bit_cast<float>(sign | 0x7f7fffffu);
      case 6:
        return std::bit_cast<float>(sign | 0x00800000u);
      case 7:
        return std::bit_cast<float>(bits(32));
      default:
        return static_cast<float>(static_cast<int8_t>(byte())) /
               static_cast<float>(1 << (kind & 3));
    }
  }

  // An ROI side: mostly short (heads and tails of the vector loops), sometimes long enough for
  // several unrolled AVX-512 iterations, rarely zero or negative.
  int side(int longest) {
    switch (byte() & 7) {
      case 0:
        return oneIn(8) ? static_cast<int>(range(-2, 0)) : 1;
      case 1:
      case 2:
      case 3:
        return static_cast<int>(range(1, 9));
      case 4:
      case 5:
        return static_cast<int>(range(10, 70));
      default:
        return static_cast<int>(range(1, longest));
    }
  }
  // An ROI of at most `maxPixels` pixels, 1xN and Nx1 included.
  KvliSize roi(int longest = 300, long long maxPixels = 12000) {
    KvliSize s{side(longest), side(longest)};
    while (static_cast<long long>(s.width) * s.height > maxPixels) s.height = s.height / 2 + 1;
    return s;
  }

 private:
  uint64_t next() {  // splitmix64
    uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
  }
  uint32_t bits(int n) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = (v << 8) | byte();
    return n >= 32 ? v : v & ((1u << n) - 1);
  }

  const uint8_t* p_;
  const uint8_t* end_;
  uint64_t state_;
};

// An element type: 'u' unsigned, 's' signed or 'f' float, and its size.
struct Type {
  char kind;
  int bytes;
};
template <class T>
constexpr Type typeOf() {
  return {std::is_floating_point_v<T> ? 'f'
          : std::is_signed_v<T>       ? 's'
                                      : 'u',
          static_cast<int>(sizeof(T))};
}

// Pixels around the ROI, per side.
struct Around {
  int left = 0, top = 0, right = 0, bottom = 0;
};

// What a call does with an image: reads it, writes it (in place counts as written), or uses it
// as a work buffer whose contents before and after mean nothing.
enum class Role { kIn, kOut, kScratch };

// An image of w x h pixels of `channels` elements inside a block that ends right before a
// PROT_NONE page: margins around the ROI, random row padding, and values decoded from the input.
// The `readable` margins are part of the input (border modes that read memory); every other byte
// outside the ROI is noise that must not change any result.
class Image {
 public:
  Image(Input& in, std::string name, Role role, Type type, KvliSize roi, int channels,
        Around readable, bool shortSteps)
      : name_(std::move(name)),
        role_(role),
        type_(type),
        w_(roi.width),
        h_(roi.height),
        c_(channels),
        readable_(readable) {
    const int w = w_ > 0 ? w_ : 1, h = h_ > 0 ? h_ : 1;
    // Margins: at least the readable band, sometimes more; right and bottom mostly none, so the
    // ROI's last byte meets the guard page.
    auto grow = [&](int need, int chance) {
      return need + (in.oneIn(chance) ? static_cast<int>(in.range(1, 3)) : 0);
    };
    margin_ = {grow(readable.left, 2), grow(readable.top, 2), grow(readable.right, 6),
               grow(readable.bottom, 6)};
    const long long elem = static_cast<long long>(c_) * type_.bytes;
    const long long rowBytes = (margin_.left + w + margin_.right) * elem;
    long long step = rowBytes;
    const int layout = in.byte() & 15;  // 0..5: no padding
    if (layout >= 6 && layout <= 9) {
      step += type_.bytes * in.range(1, 8);
    } else if (layout == 10) {
      step += in.range(1, 7);  // not an element multiple
    } else if (layout == 11) {
      step += in.range(64, 300);
    } else if (layout == 12 && shortSteps && margin_.left + margin_.right == 0) {
      step = w * elem - in.range(1, w * elem);  // shorter than the ROI row: a BadStep path
    } else if (layout >= 13) {
      step += type_.bytes * in.range(0, 3);
    }
    step_ = static_cast<int>(step);
    const int rows = margin_.top + h + margin_.bottom;
    // Now and then the block ends a few bytes short of the guard, so element pointers are
    // misaligned (the interface assumes no alignment).
    const int shift = in.oneIn(8) ? static_cast<int>(in.range(1, 7)) : 0;
    allocate(static_cast<size_t>(step_ > 0 ? step_ : 0) * (rows - 1) + rowBytes, shift);
    roi_ = block_ + static_cast<ptrdiff_t>(step_) * margin_.top + margin_.left * elem;
    null_ = in.oneIn(64);
    fill(in);
    initial_.assign(block_, block_ + bytes_);
  }
  // A work buffer of exactly `bytes` bytes.
  Image(std::string name, size_t bytes)
      : name_(std::move(name)),
        role_(Role::kScratch),
        type_{'u', 1},
        w_(static_cast<int>(bytes)),
        h_(1),
        c_(1) {
    step_ = w_;
    allocate(bytes > 0 ? bytes : 1, 0);
    roi_ = block_;
    initial_.assign(block_, block_ + bytes_);
  }
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  template <class T>
  T* ptr() const {
    return null_ ? nullptr : reinterpret_cast<T*>(roi_);
  }
  int step() const { return step_; }
  const std::string& name() const { return name_; }
  Role role() const { return role_; }

  // Back to the decoded bytes, then the bytes outside the ROI and its readable band replaced by
  // noise that differs per `variant` (scratch: all of it).
  void reset(uint32_t variant) {
    std::memcpy(block_, initial_.data(), bytes_);
    uint64_t s = variant * 0x9e3779b97f4a7c15ull + bytes_;
    for (size_t i = 0; i < bytes_; ++i) {
      if (role_ != Role::kScratch && inBand(i)) continue;
      s = s * 6364136223846793005ull + 1442695040888963407ull;
      block_[i] = static_cast<uint8_t>(s >> 56);
    }
    before_.assign(block_, block_ + bytes_);
  }
  const std::vector<uint8_t>& before() const { return before_; }
  std::vector<uint8_t> now() const { return {block_, block_ + bytes_}; }
  // True when byte i of the block lies in the ROI.
  bool inRoi(size_t i) const { return where(i, Around{}); }
  // Where byte i of the block lies: pixel, channel and the offset of its element.
  struct Spot {
    ptrdiff_t x, y;
    int channel;
    ptrdiff_t first;
  };
  Spot spot(size_t i) const;
  // Pixel, channel and value of byte i, for reports.
  std::string describe(size_t i, const std::vector<uint8_t>& bytes) const;
  // Every channel of ROI pixel (x, y), for reports; empty outside the ROI.
  std::string pixelText(ptrdiff_t x, ptrdiff_t y, const std::vector<uint8_t>& bytes) const;
  std::string valueText(ptrdiff_t first, const std::vector<uint8_t>& bytes) const;
  std::string layout() const;
  // Two float NaNs at byte i, when "nan" is lenient.
  bool bothNaN(size_t i, const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) const {
    if (!lenient("nan") || type_.kind != 'f') return false;
    const ptrdiff_t first = spot(i).first;
    if (first < 0 || static_cast<size_t>(first) + type_.bytes > a.size()) return false;
    if (type_.bytes == 8) {
      uint64_t u, v;
      std::memcpy(&u, a.data() + first, 8);
      std::memcpy(&v, b.data() + first, 8);
      const uint64_t inf = 0x7ff0000000000000ull, mag = ~(1ull << 63);
      return (u & mag) > inf && (v & mag) > inf;
    }
    uint32_t u, v;
    std::memcpy(&u, a.data() + first, 4);
    std::memcpy(&v, b.data() + first, 4);
    return (u & 0x7fffffffu) > 0x7f800000u && (v & 0x7fffffffu) > 0x7f800000u;
  }

 private:
  // Places the block so that its last byte (+ shift) is followed by an inaccessible page.
  void allocate(size_t bytes, int shift) {
    pages_ = std::make_unique<test::GuardedPages>(bytes + shift);
    bytes_ = bytes;
    shift_ = shift;
    block_ = pages_->end() - shift - bytes;
  }
  bool inBand(size_t i) const { return where(i, readable_); }
  bool where(size_t i, Around a) const;
  void fill(Input& in);
  template <class T>
  void fillAs(Input& in);

  std::string name_;
  Role role_;
  Type type_;
  int w_, h_, c_;
  Around readable_, margin_;
  int step_ = 0, shift_ = 0;
  bool null_ = false;
  std::unique_ptr<test::GuardedPages> pages_;
  uint8_t* block_ = nullptr;
  uint8_t* roi_ = nullptr;
  size_t bytes_ = 0;
  std::vector<uint8_t> initial_, before_;
};

// The images of one call and the runner that compares the targets.
class Session {
 public:
  explicit Session(Input& in) : in_(in) {}
  // `shortSteps` false keeps every step at least the row's bytes, for functions that take the
  // caller's word for the step.
  Image& image(const char* name, Role role, Type type, KvliSize roi, int channels = 1,
               Around readable = {}, bool shortSteps = true) {
    images_.push_back(
        std::make_unique<Image>(in_, name, role, type, roi, channels, readable, shortSteps));
    return *images_.back();
  }
  // A work buffer of exactly `bytes` bytes: any overrun faults on the guard page.
  uint8_t* scratch(const char* name, size_t bytes) {
    images_.push_back(std::make_unique<Image>(name, bytes));
    return images_.back()->ptr<uint8_t>();
  }
  // Records the decoded arguments for the failure report.
  void note(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  // Runs `call` under the scalar reference, then under every vector target up to the best this
  // CPU has; aborts on the first difference from the reference (status, bytes in any output's
  // ROI), on any write outside an output's ROI or to an input, and on any write at all by a call
  // that failed.
  void run(const char* function, const std::function<KvlStatus()>& call);

 private:
  [[noreturn]] void fail(const char* function, int target, const std::string& what) const;

  Input& in_;
  std::vector<std::unique_ptr<Image>> images_;
  std::string notes_;
};

// Picks one entry of a member table.
template <class M, size_t kN>
const M& pickMember(Input& in, const M (&table)[kN]) {
  return table[in.range(0, kN - 1)];
}

// --- Implementation ---------------------------------------------------------------------------

inline bool Image::where(size_t i, Around a) const {
  const ptrdiff_t elem = static_cast<ptrdiff_t>(c_) * type_.bytes;
  const ptrdiff_t at = static_cast<ptrdiff_t>(i);
  const ptrdiff_t y = (step_ > 0 ? at / step_ : 0) - margin_.top;
  const ptrdiff_t x = (step_ > 0 ? at % step_ : at) - margin_.left * elem;
  return y >= -a.top && y < h_ + a.bottom && x >= -a.left * elem && x < (w_ + a.right) * elem;
}

template <class T>
void Image::fillAs(Input& in) {
  const int style = in.byte() % 4;
  for (size_t i = 0; i + sizeof(T) <= bytes_; i += sizeof(T)) {
    T v;
    if constexpr (std::is_floating_point_v<T>) {
      if (style == 0)
        v = in.f32();
      else if (style == 1)
        v = static_cast<T>(static_cast<int8_t>(in.byte()) % 5);
      else
        v = static_cast<T>(static_cast<int16_t>(in.range(-32768, 32767))) / T(8);
    } else {
      using L = std::numeric_limits<T>;
      if (style == 0)
        v = static_cast<T>(in.range(L::min(), L::max()));
      else if (style == 1)
        v = static_cast<T>(in.range(std::is_signed_v<T> ? -2 : 0, 3));
      else if (style == 2)
        v = in.pick<T>({L::min(), L::max(), T(0), T(1), static_cast<T>(L::max() - 1)});
      else
        v = static_cast<T>(in.range(L::min() / 16, L::max() / 16));
    }
    std::memcpy(block_ + i, &v, sizeof(T));
  }
}

inline void Image::fill(Input& in) {
  if (role_ == Role::kScratch) return;
  switch (type_.kind * 16 + type_.bytes) {
    case 'u' * 16 + 1:
      fillAs<Kvl8u>(in);
      break;
    case 's' * 16 + 1:
      fillAs<Kvl8s>(in);
      break;
    case 'u' * 16 + 2:
      fillAs<Kvl16u>(in);
      break;
    case 's' * 16 + 2:
      fillAs<Kvl16s>(in);
      break;
    case 's' * 16 + 4:
      fillAs<Kvl32s>(in);
      break;
    case 'f' * 16 + 4:
      fillAs<Kvl32f>(in);
      break;
    case 'f' * 16 + 8:
      fillAs<Kvl64f>(in);
      break;
    default:
      abort();
  }
}

inline Image::Spot Image::spot(size_t i) const {
  const ptrdiff_t elem = static_cast<ptrdiff_t>(c_) * type_.bytes;
  const ptrdiff_t at = static_cast<ptrdiff_t>(i);
  const ptrdiff_t row = step_ > 0 ? at % step_ : at;
  const ptrdiff_t x = row - margin_.left * elem;
  const ptrdiff_t within = ((x % elem) + elem) % elem;
  return {(x - within) / elem, (step_ > 0 ? at / step_ : 0) - margin_.top,
          static_cast<int>(within / type_.bytes), at - within % type_.bytes};
}

inline std::string Image::valueText(ptrdiff_t first, const std::vector<uint8_t>& bytes) const {
  if (first < 0 || static_cast<size_t>(first + type_.bytes) > bytes.size()) return "?";
  const uint8_t* p = bytes.data() + first;
  char out[48];
  if (type_.kind == 'f' && type_.bytes == 8) {
    uint64_t u;
    std::memcpy(&u, p, 8);
    snprintf(out, sizeof out, "%.17g (0x%016llx)", std::bit_cast<double>(u),
             static_cast<unsigned long long>(u));
  } else if (type_.kind == 'f') {
    uint32_t u;
    std::memcpy(&u, p, 4);
    snprintf(out, sizeof out, "%.9g (0x%08x)", std::bit_cast<float>(u), u);
  } else if (type_.bytes == 4) {
    int32_t v;
    std::memcpy(&v, p, 4);
    snprintf(out, sizeof out, "%d", v);
  } else if (type_.bytes == 1) {
    snprintf(out, sizeof out, "%d", type_.kind == 's' ? static_cast<int8_t>(*p) : *p);
  } else if (type_.bytes == 4) {
    int32_t v;
    std::memcpy(&v, p, 4);
    snprintf(out, sizeof out, "%d", v);
  } else {
    uint16_t u;
    std::memcpy(&u, p, 2);
    snprintf(out, sizeof out, "%d", type_.kind == 's' ? static_cast<int16_t>(u) : u);
  }
  return out;
}

inline std::string Image::describe(size_t i, const std::vector<uint8_t>& bytes) const {
  const Spot s = spot(i);
  char out[120];
  snprintf(out, sizeof out, "%s x=%td y=%td channel=%d (byte %zu of the block): ", name_.c_str(),
           s.x, s.y, s.channel, i);
  return out + valueText(s.first, bytes);
}

inline std::string Image::pixelText(ptrdiff_t x, ptrdiff_t y,
                                    const std::vector<uint8_t>& bytes) const {
  if (role_ == Role::kScratch || x < 0 || x >= w_ || y < 0 || y >= h_) return "";
  std::string out = name_ + " =";
  const ptrdiff_t first = (roi_ - block_) + y * step_ + x * c_ * type_.bytes;
  for (int c = 0; c < c_; ++c) out.append(" ").append(valueText(first + c * type_.bytes, bytes));
  return out;
}

inline std::string Image::layout() const {
  char out[200];
  snprintf(out, sizeof out,
           "%s: %dx%d x%d of %c%d, step %d, margins l%d t%d r%d b%d, readable l%d t%d r%d b%d, "
           "shift %d%s",
           name_.c_str(), w_, h_, c_, type_.kind, type_.bytes * 8, step_, margin_.left, margin_.top,
           margin_.right, margin_.bottom, readable_.left, readable_.top, readable_.right,
           readable_.bottom, shift_, null_ ? ", passed as NULL" : "");
  return out;
}

inline void Session::note(const char* fmt, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  notes_ += notes_.empty() ? "" : ", ";
  notes_ += buf;
}

inline void Session::fail(const char* function, int target, const std::string& what) const {
  static const char* names[] = {"scalar", "SSE4", "AVX2", "AVX3"};
  fprintf(stderr, "\n*** %s, %s target: %s\n    arguments: %s\n", function,
          target >= 0 && target <= 3 ? names[target] : "?", what.c_str(), notes_.c_str());
  for (const auto& img : images_) fprintf(stderr, "    %s\n", img->layout().c_str());
  fflush(stderr);
  abort();
}

inline void Session::run(const char* function, const std::function<KvlStatus()>& call) {
  std::vector<std::vector<uint8_t>> ref(images_.size());
  KvlStatus refStatus = 0;
  const int best = simd::bestTarget();
  for (int t = simd::kRef; t <= best; ++t) {
    for (auto& img : images_) img->reset(static_cast<uint32_t>(t));
    simd::forceTarget(t);
    const KvlStatus status = call();
    simd::forceTarget(-1);
    if (t == simd::kRef) refStatus = status;
    if (status != refStatus) {
      fail(function, t,
           "status " + std::to_string(status) + ", the reference returned " +
               std::to_string(refStatus));
    }
    for (size_t k = 0; k < images_.size(); ++k) {
      const Image& img = *images_[k];
      if (img.role() == Role::kScratch) continue;
      const std::vector<uint8_t> now = img.now();
      const std::vector<uint8_t>& before = img.before();
      for (size_t i = 0; i < now.size(); ++i) {
        if (now[i] == before[i]) continue;
        if (img.role() == Role::kIn) fail(function, t, "wrote input " + img.describe(i, now));
        if (status < 0) {
          fail(function, t,
               "returned " + std::to_string(status) + " but wrote " + img.describe(i, now));
        }
        if (!img.inRoi(i)) fail(function, t, "wrote outside the ROI at " + img.describe(i, now));
      }
      if (t == simd::kRef) {
        ref[k] = now;
        continue;
      }
      for (size_t i = 0; i < now.size(); ++i) {
        if (img.inRoi(i) && now[i] != ref[k][i]) {
          if (img.bothNaN(i, now, ref[k])) continue;
          // The same pixel of every image before the call: the whole story for per-pixel
          // families, and a start for the others.
          std::string inputs;
          const Image::Spot at = img.spot(i);
          for (const auto& other : images_) {
            const std::string text = other->pixelText(at.x, at.y, other->before());
            if (!text.empty()) inputs += (inputs.empty() ? "" : ", ") + text;
          }
          fail(function, t,
               "got " + img.describe(i, now) + "; the reference has " + img.describe(i, ref[k]) +
                   "\n    at that pixel before the call: " + inputs);
        }
      }
    }
  }
}

}  // namespace kvl::fuzz
