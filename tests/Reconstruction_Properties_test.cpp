// The four algorithms, selected by name, against slow formulations written plainly here (photon groups, no bits,
// no early exits) on seeded random photon lists, in time order and with some neighbours swapped; and the
// invariants that hold on every such list.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "RandomPhotons.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using kovra::tpx3spidr::Event;
using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::PhotonEventChain;
using kovra::tpx3spidr::Reconstruction_Events;
using kovra::tpx3spidr::Time;

namespace {

using random_photons::Disorder;
using random_photons::Settings;
using random_photons::unlimited;
const Settings settingsTable[] = {
    {8, 5, unlimited, std::nullopt}, {8, 5, 12, 0.5},   {16, 3, 40, 1.0}, {12, 6, 0, std::nullopt},
    {4, 0, unlimited, 2.5},          {20, 8, 25, -0.3}, {8, 5, 12, 0.0},  {64, 10, 60, 0.25},
    // Crowded windows (a dozen to forty photons), where the ghost-photon chains count free photons by cell and the
    // full chain keeps its members' box and cells.
    {8, 30, unlimited, std::nullopt}, {12, 40, 50, 0.5}, {8, 90, 120, 0.1}, {1, 60, unlimited, 1.0},
    {64, 90, unlimited, std::nullopt},
    // Pile-up (about a hundred photons per window), where the no-branch chains count free photons by cell too and
    // the ghost-photon chains look for their next photon in the cells' lists.
    {8, 240, unlimited, std::nullopt}, {12, 200, 260, 0.5}, {4, 300, 400, -0.3}};

// --- The plain formulations, as groups of photon indices in the order they joined. Positions stay small. ---

using Groups = std::vector<std::vector<std::size_t>>;
long x(const PhotonEvent& p) { return p.x.value; }
long y(const PhotonEvent& p) { return p.y.value; }
long t(const PhotonEvent& p) { return p.toa.value; }
bool euclidean(const PhotonEvent& a, const PhotonEvent& b, const Settings& s) {
  return (x(a) - x(b)) * (x(a) - x(b)) + (y(a) - y(b)) * (y(a) - y(b)) <= long{s.dSpace} * s.dSpace;
}

/// The neighbour search walks the photons index by index: back from j - 1 while the previous photon is not
/// earlier than t_j - dTime (never below the seed), then forward while not later than min(t_j + dTime, cap).
Groups plainFullChain(const std::vector<PhotonEvent>& p, const Settings& s) {
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

Groups plainForwardChain(const std::vector<PhotonEvent>& p, const Settings& s) {
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
const std::pair<std::string, Plain> algorithms[] = {
    {"fullChain_direct", &plainFullChain},
    {"forwardChain_photonBuildup", &plainForwardChain},
    {"noBranchChain_direct", &plainNoBranchChain<false>},
    {"noBranchChain_ghostPhoton_direct", &plainNoBranchChain<true>},
    {"default", &plainNoBranchChain<true>}};

using Summary = std::tuple<int, int, long, std::uint64_t, double>;
std::vector<Summary> summary(const std::vector<Event>& events) {
  std::vector<Summary> out;
  for (const auto& e : events) out.emplace_back(e.x.value, e.y.value, e.t.value, e.nPhotons, e.psd);
  return out;
}
/// Centroids and pulse-shape values come from the chain class, tested on its own.
std::vector<Summary> summary(const std::vector<PhotonEvent>& p, const Groups& groups) {
  std::vector<Event> events;
  for (const auto& g : groups) {
    PhotonEventChain chain(p[g[0]]);
    for (std::size_t k = 1; k < g.size(); ++k) chain.add_photon(p[g[k]]);
    events.push_back(chain.to_event());
  }
  return summary(events);
}

}  // namespace

TEST(ReconstructionPropertiesTest, AlgorithmsByNameMatchPlainFormulations) {
  // The library prints nothing: an ignored factor is reported to the settings' warning callback, once per call.
  std::vector<std::string> warned;
  const auto warn = [&warned](const std::string& message) { warned.push_back(message); };
  int compared = 0;
  for (const bool swapped : {false, true}) {
    for (unsigned seed = 1; seed <= 16; ++seed) {
      const auto photons = random_photons::generate(seed, swapped ? 150 : 500, swapped ? Disorder::swapNeighbours : Disorder::none, true);
      const auto& p = photons.photonEvents;
      for (const auto& s : settingsTable) {
        const Reconstruction_Events r{Length{s.dSpace}, Time{s.dTime}, s.factor, Time{s.durationMax}, warn};
        for (const auto& [name, plain] : algorithms) {
          SCOPED_TRACE(testing::Message() << name << ", seed " << seed << (swapped ? " swapped" : "") << ", dSpace "
                                          << s.dSpace << ", dTime " << s.dTime << ", durationMax " << s.durationMax
                                          << ", factor " << s.factor.value_or(-99));
          // Out of order, the algorithms abort where a photon earlier than its event's first one would join,
          // and the forward chain also where a chain would start earlier than the one before.
          const auto groups = plain(p, s);
          const auto firstTime = [&](const std::vector<std::size_t>& g) { return t(p[g[0]]); };
          if (std::ranges::any_of(groups, [&](const auto& g) {
                return std::ranges::any_of(g, [&](std::size_t m) { return t(p[m]) < firstTime(g); });
              }) ||
              (plain == &plainForwardChain && !std::ranges::is_sorted(groups, {}, firstTime))) {
            continue;
          }
          warned.clear();
          const auto result = reconstructEvents_switchAlgorithm(r, photons, name);
          const bool noBranch = plain != &plainFullChain && plain != &plainForwardChain;
          EXPECT_EQ(warned, s.factor && !noBranch ? std::vector<std::string>{kovra::extensionFactor_notSupported}
                                                  : std::vector<std::string>{});
          EXPECT_EQ(summary(result.events), summary(p, groups));
          EXPECT_EQ(result.extTriggers, photons.extTriggers);
          ++compared;
          // The full and forward chains ignore the factor; the no-branch chains read 0.0 as no factor.
          if (s.factor && (!noBranch || *s.factor == 0.0)) {
            const Reconstruction_Events none{r.dSpace, r.dTime, std::nullopt, r.durationMax};
            EXPECT_EQ(summary(reconstructEvents_switchAlgorithm(none, photons, name).events), summary(result.events));
          }
          if (swapped) continue;
          std::uint64_t counted = 0;
          for (const auto& e : result.events) counted += e.nPhotons;
          EXPECT_TRUE(plain == &plainNoBranchChain<true> ? counted >= p.size() : counted == p.size()) << counted;
          EXPECT_TRUE(std::ranges::is_sorted(result.events, {}, &Event::t));
        }
      }
    }
  }
  EXPECT_GT(compared, 1400);  // the swapped lists are compared too, not all skipped
}
