// The four algorithms, selected by name, against slow formulations written plainly here (photon groups, no bits,
// no early exits) on seeded random photon lists, in time order and out of it: the events, the members each
// algorithm reports to a membership sink, and the invariants that hold on every such list.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "PlainReconstruction.hpp"
#include "RandomPhotons.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using kovra::tpx3spidr::Event;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::PhotonEventChain;

namespace {

using namespace plain_reconstruction;
using random_photons::bytes_of;
using random_photons::Disorder;

/// Centroids and pulse-shape values come from the chain class, tested on its own.
std::vector<Event> events_of(const std::vector<PhotonEvent>& p, const Groups& groups) {
  std::vector<Event> events;
  for (const auto& g : groups) {
    PhotonEventChain chain(p[g[0]]);
    for (std::size_t k = 1; k < g.size(); ++k) chain.add_photon(p[g[k]]);
    events.push_back(chain.to_event());
  }
  return events;
}

}  // namespace

TEST(ReconstructionPropertiesTest, AlgorithmsByNameMatchPlainFormulations) {
  // The library prints nothing: an ignored factor is reported to the settings' warning callback, once per call.
  std::vector<std::string> warned;
  const auto warn = [&warned](const std::string& message) { warned.push_back(message); };
  int compared = 0;
  std::uint64_t ghosts = 0;
  // In time order; some neighbours swapped; some swapped after moving the earlier away (no algorithm aborts).
  for (const Disorder disorder : {Disorder::none, Disorder::swapNeighbours, Disorder::swapIsolated}) {
    for (unsigned seed = 1; seed <= 16; ++seed) {
      const auto photons = random_photons::generate(seed, disorder == Disorder::none ? 500 : 200, disorder, true);
      const auto& p = photons.photonEvents;
      for (const auto& s : random_photons::settingsTable) {
        auto r = s.reconstruction();
        r.warn = warn;
        for (const auto& [name, plain] : algorithms) {
          SCOPED_TRACE(testing::Message()
                       << name << ", seed " << seed << ", disorder " << static_cast<int>(disorder) << ", " << s);
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
          EXPECT_EQ(bytes_of(result.events), bytes_of(events_of(p, groups)));
          EXPECT_EQ(result.extTriggers, photons.extTriggers);
          ++compared;

          // The members reported are the plain groups (in no promised order), and the sink changes no event.
          Groups members;
          auto sink = [&members](std::uint64_t event, std::uint64_t photon) {
            if (event >= members.size()) members.resize(event + 1);
            members[event].push_back(photon);
          };
          const auto told = reconstructEvents_switchAlgorithm(r, photons, name, sink);
          for (auto& m : members) std::ranges::sort(m);
          EXPECT_EQ(members, groups);
          EXPECT_EQ(bytes_of(told.events), bytes_of(result.events));

          // The full and forward chains ignore the factor; the no-branch chains read 0.0 as no factor.
          if (s.factor && (!noBranch || *s.factor == 0.0)) {
            const random_photons::Settings none{s.dSpace, s.dTime, s.durationMax, std::nullopt};
            EXPECT_EQ(bytes_of(reconstructEvents_switchAlgorithm(none.reconstruction(), photons, name).events),
                      bytes_of(result.events));
          }
          if (disorder != Disorder::none) continue;
          std::uint64_t counted = 0;
          for (const auto& e : result.events) counted += e.nPhotons;
          EXPECT_TRUE(plain == &plainNoBranchChain<true> ? counted >= p.size() : counted == p.size()) << counted;
          if (plain == &plainNoBranchChain<true>) ghosts += counted - p.size();
          EXPECT_TRUE(std::ranges::is_sorted(result.events, {}, &Event::t));
        }
      }
    }
  }
  EXPECT_GT(compared, 2800);  // of 3840: the lists out of order are compared too, not all skipped
  EXPECT_GT(ghosts, 0u);      // the ghost photons are exercised, not only allowed
}
