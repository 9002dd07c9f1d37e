// Derivative filters with border against their OpenCV peers (replicated border): Sobel, Scharr,
// Laplacian and the box filter, 8u->16s (8u->8u for the box) and 32f, 3x3 and 5x5.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench.h"
#include "filter/deriv.h"  // the internal members of the table

namespace kvl::bench {
namespace {

enum class Peer { kNone, kSobelDx, kSobelDy, kScharrDx, kScharrDy, kLaplacian, kBox };

// The OpenCV function that computes the same derivative (up to the sign convention).
Peer peerOf(filter::deriv::Kind k) {
  using filter::deriv::Kind;
  switch (k) {
    case Kind::kSobelNegVert: return Peer::kSobelDx;
    case Kind::kSobelHoriz: return Peer::kSobelDy;
    case Kind::kScharrVert: return Peer::kScharrDx;
    case Kind::kScharrHoriz: return Peer::kScharrDy;
    case Kind::kLaplacian: return Peer::kLaplacian;
    case Kind::kLowpass: return Peer::kBox;
    default: return Peer::kNone;
  }
}

struct Case {
  std::string name;
  bool f32;     // 32f in and out; otherwise 8u in, 16s out (8u out for the box)
  int mask;     // 33 or 55
  Peer peer;
  bool serial;  // the general-filter members run on the calling thread: 1 thread only
  const filter::deriv::Member* member;
};

// Every member of the table whose output OpenCV also computes (16s, the box's 8u, 32f), at each
// of its mask sizes.
std::vector<Case> cases() {
  using filter::deriv::Args;
  using filter::deriv::Out;
  static const filter::deriv::Member kMembers[] = {KVL_DERIV_MEMBERS(KVL_DERIV_MEMBER_RECORD)};
  std::vector<Case> r;
  for (const filter::deriv::Member& m : kMembers) {
    const Peer peer = peerOf(m.kind);
    if (peer == Peer::kNone || m.out == Out::k8s) continue;
    for (int mask : {33, 55}) {
      if (mask == 55 && m.args == Args::NoMask) continue;
      r.push_back({std::string(m.name) + (m.args == Args::NoMask ? "" : mask == 33 ? "_3x3" : "_5x5"),
                   m.out == Out::k32f, mask, peer, m.args == Args::General, &m});
    }
  }
  return r;
}

#ifdef KVL_HAVE_OPENCV
void runPeer(const Case& c, const cv::Mat& a, cv::Mat& b) {
  const int k = c.mask == 55 ? 5 : 3;
  const int depth = c.f32 ? CV_32F : CV_16S;
  switch (c.peer) {
    case Peer::kNone: break;
    case Peer::kSobelDx: cv::Sobel(a, b, depth, 1, 0, k, 1, 0, cv::BORDER_REPLICATE); break;
    case Peer::kSobelDy: cv::Sobel(a, b, depth, 0, 1, k, 1, 0, cv::BORDER_REPLICATE); break;
    case Peer::kScharrDx: cv::Scharr(a, b, depth, 1, 0, 1, 0, cv::BORDER_REPLICATE); break;
    case Peer::kScharrDy: cv::Scharr(a, b, depth, 0, 1, 1, 0, cv::BORDER_REPLICATE); break;
    case Peer::kLaplacian: cv::Laplacian(a, b, depth, k, 1, 0, cv::BORDER_REPLICATE); break;
    case Peer::kBox:
      if (c.f32)
        cv::boxFilter(a, b, -1, cv::Size(k, k), cv::Point(-1, -1), false, cv::BORDER_REPLICATE);
      else
        cv::blur(a, b, cv::Size(k, k), cv::Point(-1, -1), cv::BORDER_REPLICATE);
      break;
  }
}
#endif

const bool registered = [] {
  for (const Case& c : cases())
    for (const Size& s : kSizes)
      for (int threads : {1, 2}) {
        if (c.serial && threads > 1) continue;
        const int inBytes = c.f32 ? 4 : 1;
        const int outBytes = c.f32 ? 4 : (c.peer == Peer::kBox ? 1 : 2);
        auto srcStep = std::make_shared<int>();
        auto src = std::make_shared<std::vector<unsigned char>>(
            makeImage(s.width, s.height, inBytes, srcStep.get()));
        if (c.f32) {  // small float values from the byte pattern
          for (size_t i = 0; i + 4 <= src->size(); i += 4) {
            const float v = static_cast<float>((*src)[i]) * 0.5f;
            std::memcpy(src->data() + i, &v, 4);
          }
        }
        const int dstStep = (s.width * outBytes + 63) / 64 * 64;
        auto dst = std::make_shared<std::vector<unsigned char>>(
            static_cast<size_t>(dstStep) * s.height + 64);
        const KvliSize roi{s.width, s.height};
        const std::string name = "Deriv/" + c.name + "/" + s.name();
        pair(
            name, threads, 1LL * s.width * s.height,
            [=](benchmark::State& st) {
              int bytes = 0;
              c.member->size(roi, c.mask, &bytes);  // sized with this case's thread count
              std::vector<Kvl8u> buf(bytes);
              for (auto _ : st)
                c.member->run(src->data(), *srcStep, dst->data(), dstStep, roi, c.mask,
                              kvlBorderRepl, 0.f, 1, buf.data());
            },
            KVL_PEER([=](benchmark::State& st) {
              const cv::Mat a(s.height, s.width, c.f32 ? CV_32F : CV_8U, src->data(), *srcStep);
              cv::Mat b(s.height, s.width,
                        c.f32 ? CV_32F : (c.peer == Peer::kBox ? CV_8U : CV_16S), dst->data(),
                        dstStep);
              for (auto _ : st) runPeer(c, a, b);
            }));
      }
  return true;
}();

}  // namespace
}  // namespace kvl::bench
