// The event-membership sink: the members each algorithm reports, folded through the event chain in the order
// they joined, give back its event records bit for bit, on seeded random photon lists in time order and out of it.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "RandomPhotons.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using kovra::tpx3spidr::Data_Events;
using kovra::tpx3spidr::Data_PhotonEvents;
using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::PhotonEventChain;
using kovra::tpx3spidr::Reconstruction_Events;
using kovra::tpx3spidr::Time;

namespace {

using random_photons::Disorder;
using random_photons::Settings;
using random_photons::unlimited;
// With and without a cap and a factor; the last rows are crowded enough for the chains' free-photon counts.
const Settings settingsTable[] = {{8, 5, unlimited, std::nullopt},  {8, 5, 12, 0.5},   {16, 3, 40, 1.0},
                                  {12, 6, 0, std::nullopt},         {20, 8, 25, -0.3}, {64, 10, 60, 0.25},
                                  {8, 30, unlimited, std::nullopt}, {12, 40, 50, 0.5}, {64, 90, unlimited, 1.0}};

using Members = std::vector<std::vector<std::uint64_t>>;

struct Algorithm {
  std::string name;
  bool ghosts;    // a photon may belong to two events
  bool anyOrder;  // has a separate walk for input out of time order (the forward chain has one walk, and
                  // aborts on a chain starting earlier than the one before)
};

/// Collects the reported members by event.
struct Collector {
  Members& members;
  void operator()(std::uint64_t eventIndex, std::uint64_t photonIndex) {
    if (eventIndex >= members.size()) members.resize(eventIndex + 1);
    members[eventIndex].push_back(photonIndex);
  }
};

Data_Events run_with(const Reconstruction_Events& r, const Data_PhotonEvents& p, const std::string& name, Members& m) {
  Collector sink{m};
  return reconstructEvents_switchAlgorithm(r, p, name, sink);
}

const Algorithm algorithms[] = {{"fullChain_direct", false, true},
                                {"forwardChain_photonBuildup", false, false},
                                {"noBranchChain_direct", false, true},
                                {"noBranchChain_ghostPhoton_direct", true, true}};

std::string bytes_of(const kovra::tpx3spidr::Event& e) { return {reinterpret_cast<const char*>(&e), sizeof e}; }

}  // namespace

TEST(EventMembershipTest, MembersRebuildTheEventsBitForBit) {
  int ghostsSeen = 0;
  for (const bool outOfOrder : {false, true}) {
    for (unsigned seed = 1; seed <= 8; ++seed) {
      const auto photons =
          random_photons::generate(seed, 400, outOfOrder ? Disorder::swapIsolated : Disorder::none, false);
      const auto& p = photons.photonEvents;
      ASSERT_EQ(std::ranges::is_sorted(p, {}, &PhotonEvent::toa), !outOfOrder);
      for (const auto& s : settingsTable) {
        const Reconstruction_Events r{Length{s.dSpace}, Time{s.dTime}, s.factor, Time{s.durationMax}};
        for (const auto& algorithm : algorithms) {
          if (outOfOrder && !algorithm.anyOrder) continue;
          SCOPED_TRACE(testing::Message() << algorithm.name << ", seed " << seed << (outOfOrder ? " out of order" : "")
                                          << ", dSpace " << s.dSpace << ", dTime " << s.dTime << ", durationMax "
                                          << s.durationMax << ", factor " << s.factor.value_or(-99));
          Members members;
          testing::internal::CaptureStdout();  // the extension-factor warning
          const auto events = run_with(r, photons, algorithm.name, members);
          // The sink changes nothing: the form without it gives the same events.
          const auto plain = reconstructEvents_switchAlgorithm(r, photons, algorithm.name);
          testing::internal::GetCapturedStdout();
          ASSERT_EQ(members.size(), events.events.size());
          ASSERT_EQ(plain.events.size(), events.events.size());

          std::vector<int> timesReported(p.size(), 0);
          for (std::size_t e = 0; e < members.size(); ++e) {
            auto joined = members[e];
            // Every algorithm takes its members in photon order, the event's first photon first.
            std::ranges::sort(joined);
            ASSERT_FALSE(joined.empty()) << "event " << e;
            ASSERT_EQ(std::ranges::adjacent_find(joined), joined.end()) << "event " << e << " reports a photon twice";
            PhotonEventChain chain(p[joined[0]]);
            for (std::size_t k = 1; k < joined.size(); ++k) chain.add_photon(p[joined[k]]);
            // Whole records, bit for bit (the pulse-shape value included).
            EXPECT_EQ(bytes_of(chain.to_event()), bytes_of(events.events[e])) << "event " << e;
            EXPECT_EQ(bytes_of(plain.events[e]), bytes_of(events.events[e])) << "event " << e;
            for (const auto i : joined) ++timesReported[i];
          }
          for (std::size_t i = 0; i < p.size(); ++i) {
            EXPECT_GE(timesReported[i], 1) << "photon " << i;
            EXPECT_LE(timesReported[i], algorithm.ghosts ? 2 : 1) << "photon " << i;
            ghostsSeen += timesReported[i] == 2;
          }
        }
      }
    }
  }
  EXPECT_GT(ghostsSeen, 0);  // the ghost-photon case is exercised, not only allowed
}
