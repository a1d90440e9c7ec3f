#pragma once

// The hit-to-photon rule written the plain way, straight from its wording, to check the importer against:
// every open photon is looked at for every hit, in opening order.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <ostream>
#include <vector>

struct Reference_Hit {
  long time;
  int x;
  int y;
  unsigned tot;
};

struct Reference_Photon {
  int x;  // 1/65536 pixel
  int y;
  long time;
  bool operator==(const Reference_Photon&) const = default;
};
inline std::ostream& operator<<(std::ostream& os, const Reference_Photon& p) {
  return os << '(' << p.x << ", " << p.y << ", " << p.time << ')';
}

/// Photons of `hits` (any order; sorted by time here, stably) in non-decreasing time, ties in opening order.
/// When `firstHits` is given, it receives for each hit (in time order) the index of its photon's first hit.
inline std::vector<Reference_Photon> group_byRule(std::vector<Reference_Hit> hits, int radius, long window,
                                                  bool strongest, std::vector<std::size_t>* firstHits = nullptr) {
  std::stable_sort(hits.begin(), hits.end(), [](const auto& a, const auto& b) { return a.time < b.time; });
  std::vector<std::vector<Reference_Hit>> photons;
  std::vector<std::size_t> photonFirst;
  std::size_t firstOpen = 0;  // photons open in time order, so the closed ones are a prefix
  for (std::size_t i = 0; i < hits.size(); ++i) {
    const auto& hit = hits[i];
    while (firstOpen < photons.size() && hit.time - photons[firstOpen].front().time > window) ++firstOpen;
    std::size_t joined = photons.size();
    for (std::size_t p = firstOpen; p < photons.size() && joined == photons.size(); ++p) {
      for (const auto& other : photons[p]) {
        if (std::abs(other.x - hit.x) <= radius && std::abs(other.y - hit.y) <= radius) joined = p;
      }
    }
    if (joined == photons.size()) photons.emplace_back(), photonFirst.push_back(i);
    photons[joined].push_back(hit);
    if (firstHits != nullptr) firstHits->push_back(photonFirst[joined]);
  }
  std::vector<Reference_Photon> result;
  for (const auto& p : photons) {
    double weight = 0, wx = 0, wy = 0;
    for (const auto& h : p) weight += h.tot, wx += double(h.tot) * h.x, wy += double(h.tot) * h.y;
    if (weight == 0) {
      for (const auto& h : p) weight += 1, wx += h.x, wy += h.y;
    }
    const Reference_Hit* best = &p.front();
    for (const auto& h : p) best = h.tot > best->tot ? &h : best;
    // The sums are small integers, exact in a double; halves round up.
    result.push_back({static_cast<int>(std::floor(wx * 65536 / weight + 0.5)),
                      static_cast<int>(std::floor(wy * 65536 / weight + 0.5)),
                      strongest ? best->time : p.front().time});
  }
  std::stable_sort(result.begin(), result.end(), [](const auto& a, const auto& b) { return a.time < b.time; });
  return result;
}
