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

#include "PlainReconstruction.hpp"
#include "RandomPhotons.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using kovra::tpx3spidr::Event;
using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::PhotonEventChain;
using kovra::tpx3spidr::Reconstruction_Events;
using kovra::tpx3spidr::Time;

namespace {

using namespace plain_reconstruction;
using random_photons::Disorder;
using random_photons::Settings;
using random_photons::unlimited;
const Settings settingsTable[] = {
    {8, 5, unlimited, std::nullopt},
    {8, 5, 12, 0.5},
    {16, 3, 40, 1.0},
    {12, 6, 0, std::nullopt},
    {4, 0, unlimited, 2.5},
    {20, 8, 25, -0.3},
    {8, 5, 12, 0.0},
    {64, 10, 60, 0.25},
    // Crowded windows (a dozen to forty photons), where the ghost-photon chains count free photons by cell and the
    // full chain keeps its members' box and cells.
    {8, 30, unlimited, std::nullopt},
    {12, 40, 50, 0.5},
    {8, 90, 120, 0.1},
    {1, 60, unlimited, 1.0},
    {64, 90, unlimited, std::nullopt},
    // Pile-up (about a hundred photons per window), where the no-branch chains count free photons by cell too and
    // the ghost-photon chains look for their next photon in the cells' lists.
    {8, 240, unlimited, std::nullopt},
    {12, 200, 260, 0.5},
    {4, 300, 400, -0.3}};

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
      const auto photons = random_photons::generate(seed, swapped ? 150 : 500,
                                                    swapped ? Disorder::swapNeighbours : Disorder::none, true);
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
          if (std::ranges::any_of(
                  groups,
                  [&](const auto& g) {
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
