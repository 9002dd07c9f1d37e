// PNG through libpng, PGM/PPM (binary P5/P6 and plain P2/P3) by hand.
#include "image_io.h"

#include <png.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

namespace kvlcli {
namespace {

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string extension(const std::string& path) {
  const size_t dot = path.find_last_of('.');
  const size_t slash = path.find_last_of('/');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  return lower(path.substr(dot + 1));
}

std::string dims(uint64_t w, uint64_t h) { return std::to_string(w) + "x" + std::to_string(h); }

std::string tooLarge(const std::string& name, uint64_t w, uint64_t h, uint64_t maxPixels) {
  return name + ": " + dims(w, h) + " is " + std::to_string(w * h) +
         " pixels, above the limit of " + std::to_string(maxPixels) + " (--max-pixels)";
}

// The bytes of an input: a memory block or an open file. The first bytes can be looked at before
// they are read, so the type is known before anything else is taken. A regular file's size is
// known; a stream's is not, and at most `cap` bytes are taken from it.
class Source {
 public:
  Source(const uint8_t* bytes, size_t size)
      : mem_(bytes), size_(size), sized_(true), inMemory_(true) {}
  Source(FILE* f, bool regular, uint64_t size, uint64_t cap)
      : file_(f), size_(size), cap_(cap), sized_(regular) {}

  // Up to `n` of the first bytes, without consuming them.
  const uint8_t* peek(size_t n, size_t* got) {
    if (inMemory_) {
      *got = std::min<size_t>(n, size_);
      return mem_;
    }
    while (head_.size() < n) {
      const int c = std::fgetc(file_);
      if (c == EOF) break;
      head_.push_back(static_cast<uint8_t>(c));
    }
    *got = std::min(n, head_.size());
    return head_.data();
  }
  // Copies up to `n` bytes to `dst`; fewer at the end of the input, on a read error or at the cap.
  size_t read(uint8_t* dst, size_t n) {
    size_t done = 0;
    if (inMemory_) {
      done = static_cast<size_t>(std::min<uint64_t>(n, size_ - pos_));
      std::memcpy(dst, mem_ + pos_, done);
    } else {
      for (; done < n && pos_ + done < head_.size(); ++done) dst[done] = head_[pos_ + done];
      if (done < n) {
        const uint64_t room = pos_ + done < cap_ ? cap_ - pos_ - done : 0;
        const size_t want = static_cast<size_t>(std::min<uint64_t>(n - done, room));
        const size_t got = std::fread(dst + done, 1, want, file_);
        if (got < want && std::ferror(file_)) error_ = errno;
        if (got == want && want < n - done) capped_ = true;
        done += got;
      }
    }
    pos_ += done;
    return done;
  }
  // The next byte, or -1.
  int get() {
    if (!inMemory_ && pos_ >= head_.size() && pos_ < cap_) {
      const int c = getc_unlocked(file_);
      if (c == EOF) {
        if (std::ferror(file_)) error_ = errno;
        return -1;
      }
      ++pos_;
      return c;
    }
    uint8_t c;
    return read(&c, 1) == 1 ? c : -1;
  }
  bool sized() const { return sized_; }
  uint64_t left() const { return size_ > pos_ ? size_ - pos_ : 0; }

  // The message for an input that stopped short, given what a complete one would have had.
  std::string shortMessage(const std::string& name, const std::string& what) const {
    if (error_) return name + ": read error (" + std::strerror(error_) + ")";
    if (capped_)
      return name + ": a stream (not a regular file) longer than " + std::to_string(cap_) +
             " bytes (--max-pixels raises the limit)";
    return name + ": the file ends early (" + what + ")";
  }

 private:
  const uint8_t* mem_ = nullptr;
  FILE* file_ = nullptr;
  std::vector<uint8_t> head_;
  uint64_t size_ = 0;
  uint64_t cap_ = UINT64_MAX;
  uint64_t pos_ = 0;
  bool sized_ = false;
  bool inMemory_ = false;
  bool capped_ = false;
  int error_ = 0;
};

// ---- PNG ---------------------------------------------------------------------------------------

// The libpng state of one decode. libpng reports errors by longjmp, so everything that must
// survive one lives here, reached through a pointer, and is released by the destructor.
struct PngRead {
  png_structp png = nullptr;
  png_infop info = nullptr;
  Source* src = nullptr;
  std::string error;
  std::vector<png_bytep> rows;
  ~PngRead() {
    if (png) png_destroy_read_struct(&png, info ? &info : nullptr, nullptr);
  }
};

void pngError(png_structp png, png_const_charp msg) {
  *static_cast<std::string*>(png_get_error_ptr(png)) = msg;
  png_longjmp(png, 1);
}
void pngWarning(png_structp, png_const_charp) {}

void readFromSource(png_structp png, png_bytep out, png_size_t n) {
  if (static_cast<Source*>(png_get_io_ptr(png))->read(out, n) != n) png_error(png, "short read");
}

// Decodes into `out`; false when libpng stopped (its message is in r->error). Grey, grey+alpha,
// RGB, RGBA and palette images of any depth become 8- or 16-bit grey or RGB (alpha dropped,
// palettes and low depths expanded). The sample memory is allocated only for an image within
// `maxPixels`; an allocation failure throws std::bad_alloc.
bool runPng(PngRead* r, Picture* out, const std::string& name, uint64_t maxPixels,
            std::string* refused) {
  if (setjmp(png_jmpbuf(r->png))) return false;
  png_set_read_fn(r->png, r->src, readFromSource);
  const uint32_t side = static_cast<uint32_t>(std::min<uint64_t>(maxPixels, kMaxSide));
  png_set_user_limits(r->png, side, side);
  png_set_chunk_malloc_max(r->png, 16u << 20);  // one ancillary chunk (text, profile)
  png_set_chunk_cache_max(r->png, 1000);        // ancillary chunks kept
  png_read_info(r->png, r->info);
  const int color = png_get_color_type(r->png, r->info);
  const int bits = png_get_bit_depth(r->png, r->info);
  if (color == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(r->png);
  if (color == PNG_COLOR_TYPE_GRAY && bits < 8) png_set_expand_gray_1_2_4_to_8(r->png);
  if (png_get_valid(r->png, r->info, PNG_INFO_tRNS)) png_set_tRNS_to_alpha(r->png);
  png_set_strip_alpha(r->png);
  if (bits == 16) png_set_swap(r->png);  // host order (little endian)
  png_read_update_info(r->png, r->info);
  const uint32_t w = png_get_image_width(r->png, r->info);
  const uint32_t h = png_get_image_height(r->png, r->info);
  const int channels = png_get_channels(r->png, r->info);
  const int depth = png_get_bit_depth(r->png, r->info);
  if (static_cast<uint64_t>(w) * h > maxPixels) {
    *refused = tooLarge(name, w, h, maxPixels);
    return true;
  }
  if ((channels != 1 && channels != 3) || (depth != 8 && depth != 16)) {
    *refused = name + ": unsupported PNG layout (" + std::to_string(channels) + " channels, " +
               std::to_string(depth) + " bits)";
    return true;
  }
  out->allocate(static_cast<int>(w), static_cast<int>(h), channels, depth);
  r->rows.resize(h);
  for (uint32_t y = 0; y < h; ++y) r->rows[y] = out->row(static_cast<int>(y));
  png_read_image(r->png, r->rows.data());
  png_read_end(r->png, nullptr);
  return true;
}

std::string decodePng(Source* src, Picture* out, const std::string& name, uint64_t maxPixels) {
  // The size is in the first chunk, IHDR: refuse an oversized image before libpng starts.
  size_t got = 0;
  const uint8_t* b = src->peek(24, &got);
  if (got == 24 && std::memcmp(b + 12, "IHDR", 4) == 0) {
    const uint32_t w = png_get_uint_32(b + 16), h = png_get_uint_32(b + 20);
    if (w <= PNG_UINT_31_MAX && h <= PNG_UINT_31_MAX) {
      if (static_cast<uint64_t>(w) * h > maxPixels) return tooLarge(name, w, h, maxPixels);
      if (w > kMaxSide || h > kMaxSide)
        return name + ": unsupported image size " + dims(w, h) + " (at most " +
               std::to_string(kMaxSide) + " a side)";
    }
  }
  PngRead r;
  r.src = src;
  r.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &r.error, pngError, pngWarning);
  if (r.png) r.info = png_create_info_struct(r.png);
  if (!r.png || !r.info) return name + ": out of memory";
  std::string refused;
  try {
    if (!runPng(&r, out, name, maxPixels, &refused)) {
      if (r.error == "short read") return src->shortMessage(name, "truncated PNG");
      return name + ": damaged PNG (" + r.error + ")";
    }
  } catch (const std::bad_alloc&) {
    return name + ": out of memory for a " + dims(png_get_image_width(r.png, r.info),
                                                  png_get_image_height(r.png, r.info)) +
           " image";
  }
  return refused;
}

// ---- PGM/PPM -----------------------------------------------------------------------------------

// Netpbm: P2/P5 grey, P3/P6 RGB; maxval up to 255 gives 8 bits, up to 65535 gives 16.
std::string decodePnm(Source* src, Picture* out, const std::string& name, uint64_t maxPixels) {
  src->get();
  const char kind = static_cast<char>(src->get());
  int pending = src->get();  // the byte after the last token, not yet used
  // The next decimal number; false when something else comes first. Values above 1e9 saturate.
  auto next = [&](long* v) -> bool {
    for (;; pending = src->get()) {
      if (pending == '#') {
        while (pending != '\n' && pending != -1) pending = src->get();
      }
      if (pending == -1 || !std::isspace(pending)) break;
    }
    if (pending == -1 || !std::isdigit(pending)) return false;
    long value = 0;
    for (; pending != -1 && std::isdigit(pending); pending = src->get())
      value = std::min(value * 10 + (pending - '0'), 1000000001L);
    *v = value;
    return true;
  };
  long w, h, maxval;
  if (!next(&w) || !next(&h) || !next(&maxval)) return name + ": damaged PGM/PPM header";
  if (w < 1 || h < 1 || w > 65535 || h > 65535) return name + ": unsupported image size";
  if (maxval < 1 || maxval > 65535)
    return name + ": unsupported bit depth (maxval " + std::to_string(maxval) + ")";
  const int channels = (kind == '3' || kind == '6') ? 3 : 1;
  const int depth = maxval > 255 ? 16 : 8;
  const size_t samples = static_cast<size_t>(w) * h * channels;
  const size_t need = samples * (depth / 8);
  const bool binary = kind == '5' || kind == '6';
  const std::string what = dims(w, h) + (channels == 3 ? " RGB" : " grey") + " needs " +
                           (binary ? "" : "at least ") +
                           std::to_string(binary ? need : 2 * samples - 1) + " bytes of samples";
  // A sized input must hold the samples (a plain sample takes a digit and a separator) before
  // any memory is set aside for them; the single white-space byte after maxval is `pending`.
  if (src->sized() && src->left() < (binary ? need : 2 * samples - 1))
    return name + ": the file ends early (" + what + ", it has " + std::to_string(src->left()) +
           ")";
  if (static_cast<uint64_t>(w) * h > maxPixels) return tooLarge(name, w, h, maxPixels);
  // The samples grow as they arrive, so a stream that ends early never costs the full size.
  std::vector<uint8_t> data;
  if (src->sized()) data.reserve(need);
  if (binary) {
    for (size_t at = 0; at < need;) {
      const size_t n = std::min<size_t>(need - at, 1u << 20);
      data.resize(at + n);
      const size_t got = src->read(data.data() + at, n);
      if (got < n) return src->shortMessage(name, what);
      at += got;
    }
    if (depth == 16)
      for (size_t i = 0; i < need; i += 2) {
        const uint16_t v = static_cast<uint16_t>(data[i] << 8 | data[i + 1]);
        std::memcpy(&data[i], &v, 2);
      }
  } else {
    for (size_t i = 0; i < samples; ++i) {
      long v;
      if (!next(&v)) {
        if (pending == -1) return src->shortMessage(name, what);
        return name + ": damaged plain PGM/PPM data";
      }
      if (v > maxval) return name + ": damaged plain PGM/PPM data";
      if (depth == 8) {
        data.push_back(static_cast<uint8_t>(v));
      } else {
        const uint16_t s = static_cast<uint16_t>(v);
        data.insert(data.end(), reinterpret_cast<const uint8_t*>(&s),
                    reinterpret_cast<const uint8_t*>(&s) + 2);
      }
    }
  }
  out->width = static_cast<int>(w), out->height = static_cast<int>(h);
  out->channels = channels, out->depth = depth;
  out->data = std::move(data);
  return "";
}

std::string decode(Source* src, Picture* out, const std::string& name, uint64_t maxPixels) {
  size_t got = 0;
  const uint8_t* b = src->peek(8, &got);
  if (got == 8 && png_sig_cmp(b, 0, 8) == 0) return decodePng(src, out, name, maxPixels);
  if (got >= 2 && b[0] == 'P' && (b[1] == '2' || b[1] == '3' || b[1] == '5' || b[1] == '6')) {
    try {
      return decodePnm(src, out, name, maxPixels);
    } catch (const std::bad_alloc&) {
      return name + ": out of memory";
    }
  }
  return name + ": not an image this tool reads (PNG, PGM or PPM)";
}

// ---- Writing -----------------------------------------------------------------------------------

// The first failure of the writes to one file; the file is flushed and closed in any case.
struct Sink {
  FILE* f;
  int error = 0;
  void write(const void* data, size_t n) {
    errno = 0;
    if (!error && std::fwrite(data, 1, n, f) != n) error = errno ? errno : EIO;
  }
  std::string close(const std::string& path) {
    if (std::fflush(f) != 0 && !error) error = errno;
    if (std::ferror(f) && !error) error = EIO;
    if (std::fclose(f) != 0 && !error) error = errno;
    return error ? path + ": write error (" + std::strerror(error) + ")" : "";
  }
};

void writeToSink(png_structp png, png_bytep data, png_size_t n) {
  Sink* s = static_cast<Sink*>(png_get_io_ptr(png));
  s->write(data, n);
  if (s->error) png_error(png, "write error");
}
void flushSink(png_structp png) {
  Sink* s = static_cast<Sink*>(png_get_io_ptr(png));
  if (!s->error && std::fflush(s->f) != 0) s->error = errno;
  if (s->error) png_error(png, "write error");
}

struct PngWrite {
  png_structp png = nullptr;
  png_infop info = nullptr;
  std::string error;
  ~PngWrite() {
    if (png) png_destroy_write_struct(&png, info ? &info : nullptr);
  }
};

// Encodes `pic`; false when libpng stopped (its message is in w->error).
bool runPngWrite(PngWrite* w, Sink* sink, const Picture& pic) {
  if (setjmp(png_jmpbuf(w->png))) return false;
  png_set_write_fn(w->png, sink, writeToSink, flushSink);
  png_set_IHDR(w->png, w->info, pic.width, pic.height, pic.depth,
               pic.channels == 3 ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(w->png, w->info);
  if (pic.depth == 16) png_set_swap(w->png);
  for (int y = 0; y < pic.height; ++y) png_write_row(w->png, const_cast<uint8_t*>(pic.row(y)));
  png_write_end(w->png, nullptr);
  return true;
}

std::string writePng(const std::string& path, const Picture& pic) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return path + ": cannot write (" + std::strerror(errno) + ")";
  Sink sink{f};
  PngWrite w;
  w.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &w.error, pngError, pngWarning);
  if (w.png) w.info = png_create_info_struct(w.png);
  const bool ok = w.png && w.info && runPngWrite(&w, &sink, pic);
  std::string err = sink.close(path);
  if (!err.empty()) return err;
  if (!ok) return path + ": cannot write PNG (" + (w.png ? w.error : "out of memory") + ")";
  return "";
}

std::string writePnm(const std::string& path, const Picture& pic, bool rgb) {
  if ((pic.channels == 3) != rgb)
    return path + ": " + (rgb ? ".ppm needs an RGB result; use .pgm or .png"
                              : ".pgm needs a grey result; use .ppm or .png");
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return path + ": cannot write (" + std::strerror(errno) + ")";
  Sink sink{f};
  const std::string header = std::string("P") + (rgb ? '6' : '5') + "\n" +
                             std::to_string(pic.width) + " " + std::to_string(pic.height) + "\n" +
                             (pic.depth == 16 ? "65535" : "255") + "\n";
  sink.write(header.data(), header.size());
  if (pic.depth == 8) {
    sink.write(pic.data.data(), pic.data.size());
  } else {
    // Samples are stored big-endian, a row at a time.
    std::vector<uint8_t> be(static_cast<size_t>(pic.step()));
    for (int y = 0; y < pic.height && !sink.error; ++y) {
      const auto* s = reinterpret_cast<const uint16_t*>(pic.row(y));
      for (size_t i = 0; i < be.size() / 2; ++i) {
        be[2 * i] = static_cast<uint8_t>(s[i] >> 8);
        be[2 * i + 1] = static_cast<uint8_t>(s[i]);
      }
      sink.write(be.data(), be.size());
    }
  }
  return sink.close(path);
}

}  // namespace

std::string readPngMemory(const uint8_t* bytes, size_t size, Picture* out) {
  Source src(bytes, size);
  return decode(&src, out, "embedded sample", kDefaultMaxPixels);
}

std::string readImage(const std::string& path, Picture* out, uint64_t maxPixels) {
  std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(path.c_str(), "rb"), std::fclose);
  if (!f) return path + ": cannot open (" + std::strerror(errno) + ")";
  struct stat st;
  if (fstat(fileno(f.get()), &st) != 0)
    return path + ": cannot open (" + std::strerror(errno) + ")";
  if (S_ISDIR(st.st_mode)) return path + ": is a folder, not an image";
  const bool regular = S_ISREG(st.st_mode);
  Source src(f.get(), regular, regular ? static_cast<uint64_t>(st.st_size) : 0,
             regular ? UINT64_MAX : streamByteCap(maxPixels));
  return decode(&src, out, path, maxPixels);
}

std::string writeImage(const std::string& path, const Picture& pic) {
  const std::string ext = extension(path);
  if (ext == "png") return writePng(path, pic);
  if (ext == "pgm") return writePnm(path, pic, false);
  if (ext == "ppm") return writePnm(path, pic, true);
  return path + ": unknown output format (use .png, .pgm or .ppm)";
}

std::vector<uint8_t> greySamples(const Picture& in) {
  std::vector<uint8_t> g(static_cast<size_t>(in.width) * in.height);
  for (int y = 0; y < in.height; ++y)
    for (int x = 0; x < in.width; ++x) {
      auto s = [&](int c) { return in.sample8(y, x * in.channels + c); };
      g[static_cast<size_t>(y) * in.width + x] = static_cast<uint8_t>(
          in.channels == 1 ? s(0) : (77 * s(0) + 150 * s(1) + 29 * s(2) + 128) >> 8);
    }
  return g;
}

}  // namespace kvlcli
