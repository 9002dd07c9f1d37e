// The loader of trained cascades: XML read with tinyxml2, every count checked against what the
// file holds, every number and rectangle checked before the cascade is returned.
#include "cascade.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <tinyxml2.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace kvl::detect {
namespace {

using tinyxml2::XMLElement;

[[noreturn]] void fail(const std::string& where, const std::string& what) {
  throw CascadeError(where.empty() ? what : where + ": " + what);
}

// At most 40 characters of file text, control characters shown as '?', for an error line.
std::string quote(const char* s, size_t n) {
  std::string out = "'";
  for (size_t i = 0; i < n && i < 40; ++i) out += static_cast<unsigned char>(s[i]) < 32 ? '?' : s[i];
  return out + (n > 40 ? "...'" : "'");
}

const XMLElement* child(const XMLElement* e, const char* name, const std::string& where) {
  const XMLElement* c = e->FirstChildElement(name);
  if (!c) fail(where, std::string("no <") + name + ">");
  return c;
}

// The list items (<_>) of an element; any other element among them is an error.
std::vector<const XMLElement*> items(const XMLElement* e, const std::string& where) {
  std::vector<const XMLElement*> out;
  for (const XMLElement* c = e->FirstChildElement(); c; c = c->NextSiblingElement()) {
    if (std::strcmp(c->Name(), "_") != 0)
      fail(where, std::string("unexpected <") + c->Name() + "> in <" + e->Name() + ">");
    out.push_back(c);
  }
  return out;
}

// The whitespace-separated words of an element's text.
std::vector<std::pair<const char*, size_t>> words(const XMLElement* e, const std::string& where) {
  const char* t = e->GetText();
  if (!t) fail(where, std::string("<") + e->Name() + "> holds no value");
  std::vector<std::pair<const char*, size_t>> out;
  const char* p = t;
  while (*p) {
    while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r') ++p;
    const char* b = p;
    while (*p && *p != ' ' && *p != '\t' && *p != '\n' && *p != '\r') ++p;
    if (p > b) out.emplace_back(b, static_cast<size_t>(p - b));
  }
  return out;
}

int toInt(std::pair<const char*, size_t> w, const std::string& where, const char* what) {
  int v = 0;
  const char* b = w.first + (w.second > 1 && w.first[0] == '+');
  const auto r = std::from_chars(b, w.first + w.second, v);
  if (r.ec != std::errc() || r.ptr != w.first + w.second)
    fail(where, std::string(what) + " " + quote(w.first, w.second) + " is not an integer");
  return v;
}

float toFloat(std::pair<const char*, size_t> w, const std::string& where, const char* what) {
  double v = 0;
  const char* b = w.first + (w.second > 1 && w.first[0] == '+');
  const auto r = std::from_chars(b, w.first + w.second, v);
  if (r.ec != std::errc() || r.ptr != w.first + w.second || !std::isfinite(v) ||
      std::fabs(v) > std::numeric_limits<float>::max())
    fail(where, std::string(what) + " " + quote(w.first, w.second) + " is not a finite number");
  return static_cast<float>(v);
}

// An element holding exactly one number.
int intOf(const XMLElement* e, const std::string& where) {
  const auto w = words(e, where);
  if (w.size() != 1) fail(where, std::string("<") + e->Name() + "> must hold one integer");
  return toInt(w[0], where, e->Name());
}
float floatOf(const XMLElement* e, const std::string& where) {
  const auto w = words(e, where);
  if (w.size() != 1) fail(where, std::string("<") + e->Name() + "> must hold one number");
  return toFloat(w[0], where, e->Name());
}

std::string textOf(const XMLElement* e, const std::string& where) {
  const auto w = words(e, where);
  if (w.size() != 1) fail(where, std::string("<") + e->Name() + "> must hold one word");
  return std::string(w[0].first, w[0].second);
}

// A rectangle must lie inside the window: upright ones as they are; tilted ones with all four
// corners (top (x, y), right (x+w, y+w), left (x-h, y+h), bottom (x+w-h, y+w+h)) inside.
void checkRect(const CascadeRect& r, bool tilted, int W, int H, const std::string& where) {
  // In 64 bits: the file's numbers may be anywhere in the 32-bit range.
  const long long x = r.x, y = r.y, w = r.width, h = r.height;
  const bool inside = tilted ? w >= 1 && h >= 1 && y >= 0 && x - h >= 0 && x + w <= W && y + w + h <= H
                             : w >= 1 && h >= 1 && x >= 0 && y >= 0 && x + w <= W && y + h <= H;
  if (!inside)
    fail(where, std::string(tilted ? "tilted " : "") + "rectangle " + std::to_string(r.x) + " " +
                    std::to_string(r.y) + " " + std::to_string(r.width) + " " +
                    std::to_string(r.height) + " is empty or leaves the " + std::to_string(W) +
                    "x" + std::to_string(H) + " window");
}

Feature parseFeature(const XMLElement* e, int W, int H, const std::string& where) {
  Feature f;
  if (const XMLElement* t = e->FirstChildElement("tilted")) {
    const int v = intOf(t, where);
    if (v != 0 && v != 1) fail(where, "<tilted> must be 0 or 1");
    f.tilted = v == 1;
  }
  const auto rects = items(child(e, "rects", where), where);
  if (rects.empty() || rects.size() > static_cast<size_t>(kMaxRects))
    fail(where, std::to_string(rects.size()) + " rectangles (1 to " + std::to_string(kMaxRects) +
                    " are supported)");
  for (size_t i = 0; i < rects.size(); ++i) {
    const std::string at = where + ", rectangle " + std::to_string(i);
    const auto w = words(rects[i], at);
    if (w.size() != 5) fail(at, "a rectangle is 5 numbers: x y width height weight");
    CascadeRect r{toInt(w[0], at, "x"), toInt(w[1], at, "y"), toInt(w[2], at, "width"),
                  toInt(w[3], at, "height"), toFloat(w[4], at, "weight")};
    checkRect(r, f.tilted, W, H, at);
    f.rects.push_back(r);
  }
  return f;
}

WeakClassifier parseWeak(const XMLElement* e, const std::string& where) {
  const auto nodes = words(child(e, "internalNodes", where), where);
  const auto leaves = words(child(e, "leafValues", where), where);
  if (nodes.size() % 4 != 0 || nodes.empty())
    fail(where, "<internalNodes> must hold 4 numbers per split");
  if (nodes.size() > 4)
    fail(where, "a tree of " + std::to_string(nodes.size() / 4) +
                    " splits (only single-split stumps are supported)");
  if (leaves.size() != 2) fail(where, "a stump has 2 leaf values, not " + std::to_string(leaves.size()));
  // A child <= 0 is leaf number -child; a stump's two children are both leaves.
  const int left = toInt(nodes[0], where, "left child"), right = toInt(nodes[1], where, "right child");
  if (left > 0 || right > 0 || left < -1 || right < -1 || left == right)
    fail(where, "a stump's children must be leaves 0 and 1 (found " + std::to_string(left) + " " +
                    std::to_string(right) + ")");
  WeakClassifier w{toInt(nodes[2], where, "feature index"), toFloat(nodes[3], where, "threshold"),
                   0, 0};
  const float l0 = toFloat(leaves[0], where, "leaf value"), l1 = toFloat(leaves[1], where, "leaf value");
  w.below = left == 0 ? l0 : l1;
  w.above = right == 0 ? l0 : l1;
  return w;
}

}  // namespace

bool Cascade::hasTilted() const {
  for (const Feature& f : features)
    if (f.tilted) return true;
  return false;
}

Cascade parseCascade(const char* data, size_t size) {
  if (size > kMaxCascadeBytes)
    fail("", "larger than " + std::to_string(kMaxCascadeBytes >> 20) + " MiB");
  tinyxml2::XMLDocument doc;
  if (doc.Parse(data, size) != tinyxml2::XML_SUCCESS)
    fail("", std::string("not well-formed XML (") + doc.ErrorName() + " at line " +
                 std::to_string(doc.ErrorLineNum()) + ")");
  const XMLElement* root = doc.RootElement();
  if (!root || std::strcmp(root->Name(), "opencv_storage") != 0)
    fail("", "not a cascade: the root element must be <opencv_storage>");
  const XMLElement* c = root->FirstChildElement();
  if (!c) fail("", "no cascade in <opencv_storage>");
  if (const char* type = c->Attribute("type_id"); type && std::strcmp(type, "opencv-haar-classifier") == 0)
    fail("", "the older cascade layout (<size> and <trees>) is not supported; use one with "
             "<stages> and <features>");
  if (std::strcmp(c->Name(), "cascade") != 0)
    fail("", std::string("not a cascade: <") + c->Name() + "> where <cascade> was expected");
  if (textOf(child(c, "stageType", ""), "") != "BOOST") fail("", "<stageType> must be BOOST");
  if (textOf(child(c, "featureType", ""), "") != "HAAR")
    fail("", "<featureType> must be HAAR (other feature types are not supported)");
  if (const XMLElement* fp = c->FirstChildElement("featureParams"))
    if (const XMLElement* cat = fp->FirstChildElement("maxCatCount"); cat && intOf(cat, "") != 0)
      fail("", "categorical features (maxCatCount > 0) are not supported");
  Cascade out;
  out.width = intOf(child(c, "width", ""), "");
  out.height = intOf(child(c, "height", ""), "");
  if (out.width < 3 || out.height < 3 || out.width > kMaxWindowSide || out.height > kMaxWindowSide)
    fail("", "window " + std::to_string(out.width) + "x" + std::to_string(out.height) +
                 " (each side must be 3 to " + std::to_string(kMaxWindowSide) + ")");

  const auto featureItems = items(child(c, "features", ""), "<features>");
  if (featureItems.empty()) fail("", "no features");
  out.features.reserve(featureItems.size());
  for (size_t i = 0; i < featureItems.size(); ++i)
    out.features.push_back(parseFeature(featureItems[i], out.width, out.height, "feature " + std::to_string(i)));

  const auto stageItems = items(child(c, "stages", ""), "<stages>");
  const int stageNum = intOf(child(c, "stageNum", ""), "");
  if (stageNum != static_cast<int>(stageItems.size()) || stageItems.empty())
    fail("", "<stageNum> says " + std::to_string(stageNum) + " stages, the file holds " +
                 std::to_string(stageItems.size()));
  out.stages.reserve(stageItems.size());
  for (size_t s = 0; s < stageItems.size(); ++s) {
    const std::string at = "stage " + std::to_string(s);
    Stage st;
    st.threshold = floatOf(child(stageItems[s], "stageThreshold", at), at);
    const auto weak = items(child(stageItems[s], "weakClassifiers", at), at);
    const int count = intOf(child(stageItems[s], "maxWeakCount", at), at);
    if (count != static_cast<int>(weak.size()) || weak.empty())
      fail(at, "<maxWeakCount> says " + std::to_string(count) + " classifiers, the stage holds " +
                   std::to_string(weak.size()));
    st.weak.reserve(weak.size());
    for (size_t k = 0; k < weak.size(); ++k) {
      const std::string wat = at + ", classifier " + std::to_string(k);
      WeakClassifier w = parseWeak(weak[k], wat);
      if (w.feature < 0 || w.feature >= static_cast<int>(out.features.size()))
        fail(wat, "feature index " + std::to_string(w.feature) + " outside 0.." +
                      std::to_string(out.features.size() - 1));
      st.weak.push_back(w);
    }
    out.stages.push_back(std::move(st));
  }
  return out;
}

Cascade loadCascade(const std::string& path) {
  const std::string name = "cascade '" + path + "'";
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail(name, std::strerror(errno));
  struct stat st {};
  std::string text;
  std::string problem;
  if (fstat(fd, &st) != 0) {
    problem = std::strerror(errno);
  } else if (S_ISDIR(st.st_mode)) {
    problem = "is a directory";
  } else if (S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) > kMaxCascadeBytes) {
    problem = "larger than " + std::to_string(kMaxCascadeBytes >> 20) + " MiB";
  } else {
    // A pipe or device has no size: read at most one byte past the limit, to see it is exceeded.
    char buf[1 << 16];
    for (;;) {
      const ssize_t n = read(fd, buf, sizeof(buf));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        problem = std::string("read error (") + std::strerror(errno) + ")";
        break;
      }
      if (n == 0) break;
      text.append(buf, static_cast<size_t>(n));
      if (text.size() > kMaxCascadeBytes) {
        problem = "larger than " + std::to_string(kMaxCascadeBytes >> 20) + " MiB";
        break;
      }
    }
  }
  close(fd);
  if (!problem.empty()) fail(name, problem);
  try {
    return parseCascade(text.data(), text.size());
  } catch (const CascadeError& e) {
    fail(name, e.what());
  }
}

}  // namespace kvl::detect
