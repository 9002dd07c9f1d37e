// The watershed rules written out plainly, for the tests and the fuzz target: labels in a
// std::vector without a frame (a pixel outside the image reads as the boundary value), the level
// queues as std::deque, and the distance method's keys by whole-image (Jacobi) iteration, its
// labels in ascending key order. The library never calls this.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <numeric>
#include <vector>

#include "seg/watershed_members.h"

namespace kvl::seg::model {

// left, right, up, down, up-left, up-right, down-left, down-right
constexpr int kNx[8] = {-1, 1, 0, 0, -1, 1, -1, 1};
constexpr int kNy[8] = {0, 0, -1, 1, -1, -1, 1, 1};

struct Image {
  int w, h;
  std::vector<uint8_t> relief;   // w * h
  std::vector<uint32_t> labels;  // w * h, read and written
  uint32_t boundary;             // 255 or 65535
  bool inside(int x, int y) const { return x >= 0 && y >= 0 && x < w && y < h; }
  uint32_t at(int x, int y) const { return inside(x, y) ? labels[y * w + x] : boundary; }
  bool region(uint32_t v) const { return v != 0 && v != boundary; }
};

// In row order and in place: a region pixel with a neighbour of another region label becomes the
// boundary value.
inline void markBounds(Image& m, int neighbours) {
  for (int y = 0; y < m.h; ++y)
    for (int x = 0; x < m.w; ++x) {
      const uint32_t v = m.labels[y * m.w + x];
      if (!m.region(v)) continue;
      for (int k = 0; k < neighbours; ++k) {
        const uint32_t u = m.at(x + kNx[k], y + kNy[k]);
        if (m.region(u) && u != v) {
          m.labels[y * m.w + x] = m.boundary;
          break;
        }
      }
    }
}

inline int boundsOf(int flag) { return (flag & 128) ? 8 : (flag & 64) ? 4 : 0; }

// Priority-queue flooding.
inline void queueMethod(Image& m, int norm, int flag) {
  const int n = norm == 0 ? 8 : 4;
  std::vector<std::deque<int>> queue(256);
  for (int y = 0; y < m.h; ++y)
    for (int x = 0; x < m.w; ++x) {
      if (m.labels[y * m.w + x] == 0) continue;
      bool open = false;
      for (int k = 0; k < n; ++k) open = open || m.at(x + kNx[k], y + kNy[k]) == 0;
      if (open) queue[m.relief[y * m.w + x]].push_back(y * m.w + x);
    }
  if (boundsOf(flag) != 0) markBounds(m, boundsOf(flag));
  for (int level = 0; level < 256; ++level) {
    while (!queue[level].empty()) {
      const int p = queue[level].front();
      queue[level].pop_front();
      const int px = p % m.w, py = p / m.w;
      const uint32_t lp = m.labels[p];
      for (int k = 0; k < n; ++k) {
        const int qx = px + kNx[k], qy = py + kNy[k];
        if (m.at(qx, qy) != 0) continue;
        const int q = qy * m.w + qx;
        queue[std::max<int>(m.relief[q], level)].push_back(q);
        uint32_t v = lp;
        for (int j = 0; j < n; ++j) {
          const int rx = qx + kNx[j], ry = qy + kNy[j];
          if (rx == px && ry == py) continue;
          const uint32_t u = m.at(rx, ry);
          if (!m.region(u) || u == v) continue;
          if (v != m.boundary) {
            v = m.boundary;
            break;
          }
          v = u;
        }
        m.labels[q] = v;
      }
    }
  }
}

// The distance method.
inline void distanceMethod(Image& m, int norm, int flag) {
  const int64_t kUnreached = 0x7FC00000, kWall = 0x7FFFFFFF;
  const int w = m.w, h = m.h;
  std::vector<int64_t> key(w * h);
  for (int i = 0; i < w * h; ++i)
    key[i] = m.labels[i] == 0 ? kUnreached
             : m.labels[i] == m.boundary ? kWall
                                         : int64_t{m.relief[i]} << 23;
  auto keyAt = [&](const std::vector<int64_t>& k, int x, int y) {
    return m.inside(x, y) ? k[y * w + x] : kWall;
  };
  // The cost into (x, y) from its neighbours and the neighbours it comes from.
  auto arrival = [&](const std::vector<int64_t>& k, int x, int y, std::vector<int>* from) {
    int64_t nb[8];
    for (int i = 0; i < 8; ++i) {
      nb[i] = keyAt(k, x + kNx[i], y + kNy[i]);
      if (nb[i] >= kUnreached) nb[i] = -1;  // not reached
    }
    int64_t best = -1;
    std::vector<int> f;
    if (norm == 3) {
      auto least = [](int64_t a, int64_t b) { return a < 0 ? b : b < 0 ? a : std::min(a, b); };
      const int64_t t1 = least(nb[0], nb[1]), t2 = least(nb[2], nb[3]);
      if (t1 < 0 && t2 < 0) return kUnreached;
      bool ux = t1 >= 0, uy = t2 >= 0;
      if (ux && uy && std::abs(t1 - t2) < 16) {
        const int64_t d = std::abs(t1 - t2);
        int64_t r = 0;
        while ((r + 1) * (r + 1) <= 512 - d * d) ++r;
        best = std::max((t1 + t2 + r) / 2, std::max(t1, t2) + 1);
      } else {
        ux = ux && (!uy || t1 < t2);
        uy = !ux;
        best = (ux ? t1 : t2) + 16;
      }
      for (int i = 0; i < 4; ++i)
        if ((i < 2 ? ux : uy) && nb[i] >= 0 && nb[i] == (i < 2 ? t1 : t2)) f.push_back(i);
    } else {
      const int axis = norm == 2 ? 5 : 1, diag = norm == 2 ? 7 : norm == 0 ? 1 : 0;
      for (int i = 0; i < (diag ? 8 : 4); ++i) {
        if (nb[i] < 0) continue;
        const int64_t c = nb[i] + (i < 4 ? axis : diag);
        if (best < 0 || c < best) {
          best = c;
          f.assign(1, i);
        } else if (c == best) {
          f.push_back(i);
        }
      }
    }
    if (best < 0 || best >= kUnreached) return kUnreached;
    if (from) *from = f;
    return best;
  };
  for (bool changed = true; changed;) {
    changed = false;
    std::vector<int64_t> next = key;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        if (m.labels[y * w + x] != 0) continue;
        const int64_t c = arrival(key, x, y, nullptr);
        if (c >= kUnreached) continue;
        const int64_t v = std::max(c, int64_t{m.relief[y * w + x]} << 23);
        if (v < next[y * w + x]) {
          next[y * w + x] = v;
          changed = true;
        }
      }
    key.swap(next);
  }
  // Labels in ascending key order: parents come first.
  std::vector<int> order(w * h);
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return key[a] < key[b]; });
  std::vector<uint8_t> mixed(w * h, 0);
  for (int p : order) {
    if (m.labels[p] != 0 || key[p] >= kUnreached) continue;
    std::vector<int> from;
    arrival(key, p % w, p / w, &from);
    uint32_t plain = 0, least = 0;
    bool several = false;
    for (int i : from) {
      const int q = (p / w + kNy[i]) * w + p % w + kNx[i];
      const uint32_t u = m.labels[q];
      least = least == 0 ? u : std::min(least, u);
      if (mixed[q]) continue;
      if (plain != 0 && u != plain) several = true;
      plain = plain == 0 ? u : std::min(plain, u);
    }
    m.labels[p] = plain != 0 ? plain : least;
    mixed[p] = several;
  }
  for (int i = 0; i < w * h; ++i)
    if (mixed[i]) m.labels[i] = m.boundary;
  if (boundsOf(flag) != 0) markBounds(m, boundsOf(flag));
}

inline void watershed(Image& m, int norm, int flag) {
  if (flag & 1) {
    queueMethod(m, norm, flag);
  } else {
    distanceMethod(m, norm, flag);
  }
}

}  // namespace kvl::seg::model
