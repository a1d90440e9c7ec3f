#pragma once

// The four algorithms written plainly (photon groups, no bits, no early exits, no windows), as the reference the
// tests hold the library's algorithms and its parallel cuts against.

#include <algorithm>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "RandomPhotons.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace plain_reconstruction {

using kovra::tpx3spidr::PhotonEvent;
using random_photons::Settings;

/// Each event as the photon indices it took, in the order they joined (its first photon first). Positions stay
/// small.
using Groups = std::vector<std::vector<std::size_t>>;
inline long x(const PhotonEvent& p) { return p.x.value; }
inline long y(const PhotonEvent& p) { return p.y.value; }
inline long t(const PhotonEvent& p) { return p.toa.value; }
inline bool euclidean(const PhotonEvent& a, const PhotonEvent& b, const Settings& s) {
  return (x(a) - x(b)) * (x(a) - x(b)) + (y(a) - y(b)) * (y(a) - y(b)) <= long{s.dSpace} * s.dSpace;
}

/// The neighbour search walks the photons index by index: back from j - 1 while the previous photon is not
/// earlier than t_j - dTime (never below the seed), then forward while not later than min(t_j + dTime, cap).
inline Groups plainFullChain(const std::vector<PhotonEvent>& p, const Settings& s) {
  Groups groups;
  std::vector<std::size_t> groupOf(p.size(), p.size());
  for (std::size_t seed = 0; seed < p.size(); ++seed) {
    if (groupOf[seed] != p.size()) continue;
    const std::size_t g = groups.size();
    groups.push_back({seed});
    groupOf[seed] = g;
    const long cap = t(p[seed]) + s.durationMax;
    long reach = t(p[seed]) + s.dTime;
    for (std::size_t j = seed + 1; j < p.size() && t(p[j]) <= std::min(reach, cap); ++j) {
      if (groupOf[j] != p.size()) continue;
      std::size_t k = j - 1;
      while (k > seed && t(p[k - 1]) >= t(p[j]) - s.dTime) --k;
      bool touches = false;
      for (; k < j && t(p[k]) <= std::min(t(p[j]) + s.dTime, cap); ++k) {
        touches = touches || (groupOf[k] == g && euclidean(p[k], p[j], s));
      }
      if (!touches) continue;
      groups[g].push_back(j);
      groupOf[j] = g;
      reach = std::max(reach, std::min(t(p[j]) + s.dTime, cap));
    }
  }
  return groups;
}

inline Groups plainForwardChain(const std::vector<PhotonEvent>& p, const Settings& s) {
  Groups groups;
  std::vector<std::size_t> groupOf(p.size());
  for (std::size_t i = 0; i < p.size(); ++i) {
    groupOf[i] = groups.size();
    for (std::size_t j = i; j-- > 0 && t(p[i]) - t(p[j]) <= s.dTime;) {
      if (euclidean(p[i], p[j], s) && t(p[i]) - t(p[groups[groupOf[j]][0]]) <= s.durationMax) {
        groupOf[i] = groupOf[j];
        break;
      }
    }
    if (groupOf[i] == groups.size()) groups.emplace_back();
    groups[groupOf[i]].push_back(i);
  }
  return groups;
}

template <bool ghosts>
Groups plainNoBranchChain(const std::vector<PhotonEvent>& p, const Settings& s) {
  Groups groups;
  std::vector<bool> taken(p.size(), false);
  for (std::size_t seed = 0; seed < p.size(); ++seed) {
    if (taken[seed] && !ghosts) continue;
    std::vector<std::size_t> g{seed};
    long d = s.dTime;
    const long cap = t(p[seed]) + s.durationMax;
    for (std::size_t j = seed + 1; j < p.size() && t(p[j]) <= std::min(t(p[g.back()]) + d, cap); ++j) {
      const auto& last = p[g.back()];
      if (taken[j] || std::abs(x(last) - x(p[j])) >= s.dSpace || std::abs(y(last) - y(p[j])) >= s.dSpace) continue;
      d += static_cast<long>(static_cast<double>(t(p[j]) - t(last)) * s.factor.value_or(0.0));
      g.push_back(j);
      taken[j] = true;
    }
    if (g.size() > 1 || !taken[seed]) groups.push_back(g);
    if (!ghosts) taken[seed] = true;
  }
  return groups;
}

using Plain = Groups (*)(const std::vector<PhotonEvent>&, const Settings&);
inline const std::pair<std::string, Plain> algorithms[] = {
    {"fullChain_direct", &plainFullChain},
    {"forwardChain_photonBuildup", &plainForwardChain},
    {"noBranchChain_direct", &plainNoBranchChain<false>},
    {"noBranchChain_ghostPhoton_direct", &plainNoBranchChain<true>},
    {"default", &plainNoBranchChain<true>}};

}  // namespace plain_reconstruction
