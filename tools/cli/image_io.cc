// PNG through libpng, PGM/PPM (binary P5/P6 and plain P2/P3) by hand.
#include "image_io.h"

#include <png.h>

#include <cctype>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>

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

struct PngSource {
  const uint8_t* bytes;
  size_t size;
  size_t pos;
};

void readFromMemory(png_structp png, png_bytep out, png_size_t n) {
  auto* src = static_cast<PngSource*>(png_get_io_ptr(png));
  if (src->pos + n > src->size) png_error(png, "the file ends early");
  std::memcpy(out, src->bytes + src->pos, n);
  src->pos += n;
}

void pngError(png_structp png, png_const_charp msg) {
  auto* text = static_cast<std::string*>(png_get_error_ptr(png));
  *text = msg;
  png_longjmp(png, 1);
}
void pngWarning(png_structp, png_const_charp) {}

// Decodes PNG bytes; grey, grey+alpha, RGB, RGBA and palette images of any depth become 8- or
// 16-bit grey or RGB (alpha dropped, palettes and low depths expanded).
std::string decodePng(const uint8_t* bytes, size_t size, Picture* out, const std::string& name) {
  if (size < 8 || png_sig_cmp(bytes, 0, 8) != 0) return name + ": not a PNG image";
  std::string error;
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &error, pngError, pngWarning);
  if (!png) return name + ": out of memory";
  png_infop info = png_create_info_struct(png);
  PngSource src{bytes, size, 0};
  std::vector<png_bytep> rows;
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, &info, nullptr);
    return name + ": damaged PNG (" + error + ")";
  }
  png_set_read_fn(png, &src, readFromMemory);
  png_read_info(png, info);
  const int color = png_get_color_type(png, info);
  const int bits = png_get_bit_depth(png, info);
  if (color == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
  if (color == PNG_COLOR_TYPE_GRAY && bits < 8) png_set_expand_gray_1_2_4_to_8(png);
  if (png_get_valid(png, info, PNG_INFO_tRNS)) png_set_tRNS_to_alpha(png);
  png_set_strip_alpha(png);
  if (bits == 16) png_set_swap(png);  // host order (little endian)
  png_read_update_info(png, info);
  const int w = static_cast<int>(png_get_image_width(png, info));
  const int h = static_cast<int>(png_get_image_height(png, info));
  const int channels = png_get_channels(png, info);
  const int depth = png_get_bit_depth(png, info);
  if ((channels != 1 && channels != 3) || (depth != 8 && depth != 16)) {
    png_destroy_read_struct(&png, &info, nullptr);
    return name + ": unsupported PNG layout (" + std::to_string(channels) + " channels, " +
           std::to_string(depth) + " bits)";
  }
  out->allocate(w, h, channels, depth);
  rows.resize(h);
  for (int y = 0; y < h; ++y) rows[y] = out->row(y);
  png_read_image(png, rows.data());
  png_read_end(png, nullptr);
  png_destroy_read_struct(&png, &info, nullptr);
  return "";
}

std::string readFile(const std::string& path, std::vector<uint8_t>* bytes) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return path + ": cannot open (" + std::strerror(errno) + ")";
  uint8_t buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof(buf), f)) > 0) bytes->insert(bytes->end(), buf, buf + n);
  const bool bad = std::ferror(f);
  std::fclose(f);
  if (bad) return path + ": read error";
  return "";
}

// Netpbm: P2/P5 grey, P3/P6 RGB; maxval up to 255 gives 8 bits, up to 65535 gives 16.
std::string decodePnm(const std::vector<uint8_t>& b, Picture* out, const std::string& name) {
  size_t pos = 2;
  auto next = [&](long* v) -> bool {
    while (pos < b.size()) {
      if (b[pos] == '#') {
        while (pos < b.size() && b[pos] != '\n') ++pos;
      } else if (std::isspace(b[pos])) {
        ++pos;
      } else {
        break;
      }
    }
    if (pos >= b.size() || !std::isdigit(b[pos])) return false;
    long value = 0;
    while (pos < b.size() && std::isdigit(b[pos]) && value < 1000000000) value = value * 10 + (b[pos++] - '0');
    *v = value;
    return true;
  };
  const char kind = static_cast<char>(b[1]);
  long w, h, maxval;
  if (!next(&w) || !next(&h) || !next(&maxval)) return name + ": damaged PGM/PPM header";
  if (w < 1 || h < 1 || w > 65535 || h > 65535) return name + ": unsupported image size";
  if (maxval < 1 || maxval > 65535) return name + ": unsupported bit depth (maxval " + std::to_string(maxval) + ")";
  const int channels = (kind == '3' || kind == '6') ? 3 : 1;
  const int depth = maxval > 255 ? 16 : 8;
  out->allocate(static_cast<int>(w), static_cast<int>(h), channels, depth);
  const size_t samples = static_cast<size_t>(w) * h * channels;
  if (kind == '5' || kind == '6') {
    ++pos;  // the single white-space byte after maxval
    const size_t need = samples * (depth / 8);
    if (b.size() < pos + need) return name + ": the file ends early";
    if (depth == 8) {
      std::memcpy(out->data.data(), b.data() + pos, need);
    } else {
      auto* d = reinterpret_cast<uint16_t*>(out->data.data());
      for (size_t i = 0; i < samples; ++i) d[i] = static_cast<uint16_t>(b[pos + 2 * i] << 8 | b[pos + 2 * i + 1]);
    }
  } else {
    for (size_t i = 0; i < samples; ++i) {
      long v;
      if (!next(&v) || v > maxval) return name + ": damaged plain PGM/PPM data";
      if (depth == 8) out->data[i] = static_cast<uint8_t>(v);
      else reinterpret_cast<uint16_t*>(out->data.data())[i] = static_cast<uint16_t>(v);
    }
  }
  return "";
}

std::string writePng(const std::string& path, const Picture& pic) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return path + ": cannot write (" + std::strerror(errno) + ")";
  std::string error;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &error, pngError, pngWarning);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!png || !info) {
    std::fclose(f);
    return path + ": out of memory";
  }
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    std::fclose(f);
    return path + ": cannot write PNG (" + error + ")";
  }
  png_init_io(png, f);
  png_set_IHDR(png, info, pic.width, pic.height, pic.depth,
               pic.channels == 3 ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  if (pic.depth == 16) png_set_swap(png);
  for (int y = 0; y < pic.height; ++y) png_write_row(png, const_cast<uint8_t*>(pic.row(y)));
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  if (std::fclose(f) != 0) return path + ": write error";
  return "";
}

std::string writePnm(const std::string& path, const Picture& pic, bool rgb) {
  if ((pic.channels == 3) != rgb)
    return path + ": " + (rgb ? ".ppm needs an RGB result; use .pgm or .png" : ".pgm needs a grey result; use .ppm or .png");
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return path + ": cannot write (" + std::strerror(errno) + ")";
  std::fprintf(f, "P%c\n%d %d\n%d\n", rgb ? '6' : '5', pic.width, pic.height, pic.depth == 16 ? 65535 : 255);
  if (pic.depth == 8) {
    std::fwrite(pic.data.data(), 1, pic.data.size(), f);
  } else {
    const auto* s = reinterpret_cast<const uint16_t*>(pic.data.data());
    for (size_t i = 0; i < pic.data.size() / 2; ++i) {
      const uint8_t be[2] = {static_cast<uint8_t>(s[i] >> 8), static_cast<uint8_t>(s[i])};
      std::fwrite(be, 1, 2, f);
    }
  }
  if (std::fclose(f) != 0) return path + ": write error";
  return "";
}

}  // namespace

std::string readPngMemory(const uint8_t* bytes, size_t size, Picture* out) {
  return decodePng(bytes, size, out, "embedded sample");
}

std::string readImage(const std::string& path, Picture* out) {
  std::vector<uint8_t> bytes;
  std::string err = readFile(path, &bytes);
  if (!err.empty()) return err;
  if (bytes.size() >= 8 && png_sig_cmp(bytes.data(), 0, 8) == 0) return decodePng(bytes.data(), bytes.size(), out, path);
  if (bytes.size() >= 2 && bytes[0] == 'P' && (bytes[1] == '2' || bytes[1] == '3' || bytes[1] == '5' || bytes[1] == '6'))
    return decodePnm(bytes, out, path);
  return path + ": not an image this tool reads (PNG, PGM or PPM)";
}

std::string writeImage(const std::string& path, const Picture& pic) {
  const std::string ext = extension(path);
  if (ext == "png") return writePng(path, pic);
  if (ext == "pgm") return writePnm(path, pic, false);
  if (ext == "ppm") return writePnm(path, pic, true);
  return path + ": unknown output format (use .png, .pgm or .ppm)";
}

}  // namespace kvlcli
