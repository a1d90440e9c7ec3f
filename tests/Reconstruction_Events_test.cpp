#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Spidr.hpp"
#include "reconstructEvents_switchAlgorithm.hpp"

using kovra::tpx3spidr::Data_Events;
using kovra::tpx3spidr::Data_PhotonEvents;
using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::Reconstruction_Events;
using kovra::tpx3spidr::Time;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrEq;
using testing::ThrowsMessage;

namespace {

constexpr int px = 65536;
constexpr long unlimited = Time::max_ticks;

PhotonEvent photon(int x, int y, long t) { return PhotonEvent{Length{x}, Length{y}, Time{t}}; }

Data_PhotonEvents photonsOf(std::vector<PhotonEvent> list) { return Data_PhotonEvents{std::move(list), {}}; }

Reconstruction_Events settings(int dSpace, long dTime, long durationMax = unlimited,
                               std::optional<double> factor = std::nullopt) {
  return Reconstruction_Events{Length{dSpace}, Time{dTime}, factor, Time{durationMax}};
}

/// Position, time and photon count of each event; the pulse-shape value is checked where it matters.
using Summary = std::tuple<int, int, long, std::uint64_t>;
std::vector<Summary> summary(const Data_Events& data) {
  std::vector<Summary> out;
  for (const auto& e : data.events) out.emplace_back(e.x.value, e.y.value, e.t.value, e.nPhotons);
  return out;
}

using Algorithm = Data_Events (Reconstruction_Events::*)(const Data_PhotonEvents&) const;
struct NamedAlgorithm {
  const char* name;
  Algorithm run;
};
const NamedAlgorithm algorithms[] = {
    {"fullChain_direct", &Reconstruction_Events::reconstruct_fullChain_direct},
    {"forwardChain_photonBuildup", &Reconstruction_Events::reconstruct_forwardChain_photonBuildup},
    {"noBranchChain_direct", &Reconstruction_Events::reconstruct_noBranchChain_direct},
    {"noBranchChain_ghostPhoton_direct", &Reconstruction_Events::reconstruct_noBranchChain_ghostPhoton_direct},
};

}  // namespace

TEST(FullChainDirectTest, PhotonReachableOnlyThroughALaterOneStaysFree) {
  const auto result = settings(6 * px, 10).reconstruct_fullChain_direct(
      photonsOf({photon(0, 0, 0), photon(10 * px, 0, 1), photon(5 * px, 0, 2)}));
  EXPECT_THAT(summary(result), ElementsAre(Summary{5 * px / 2, 0, 0, 2}, Summary{10 * px, 0, 1, 1}));
  EXPECT_EQ(result.events[0].psd, (Time{2}.get_seconds() - 0.0) / 2.0);
  EXPECT_EQ(result.events[1].psd, 0.0);
}

TEST(FullChainDirectTest, BranchesFromAnyMemberWithinEuclideanDistance) {
  // C is near A only; B is near A. The full chain takes C through A, the no-branch chain does not.
  // B sits exactly dSpace from A (3-4-5), which still counts.
  const auto photons = photonsOf({photon(0, 0, 0), photon(3, 4, 4), photon(-5, 0, 8)});
  const auto s = settings(5, 10);
  // Centroid: x 0 -> 0 + 3 / 2 = 1 -> 1 + (-5 - 1) / 3 = -1; y 0 -> 2 -> 2 + (0 - 2) / 3 = 2.
  EXPECT_THAT(summary(s.reconstruct_fullChain_direct(photons)), ElementsAre(Summary{-1, 2, 0, 3}));
  EXPECT_THAT(summary(s.reconstruct_noBranchChain_direct(photons)),
              ElementsAre(Summary{1, 2, 0, 2}, Summary{-5, 0, 8, 1}));
}

TEST(FullChainDirectTest, TimeBoundsAreInclusive) {
  struct Case {
    std::vector<PhotonEvent> photons;
    long durationMax;
    std::vector<Summary> expected;
  };
  const std::vector<Case> cases = {
      {{photon(0, 0, 100), photon(0, 0, 110)}, unlimited, {{0, 0, 100, 2}}},
      {{photon(0, 0, 100), photon(0, 0, 111)}, unlimited, {{0, 0, 100, 1}, {0, 0, 111, 1}}},
      // A train spaced by dTime ends at the last photon within the cap; the next one seeds anew.
      {{photon(0, 0, 0), photon(0, 0, 10), photon(0, 0, 20), photon(0, 0, 30), photon(0, 0, 40)},
       30,
       {{0, 0, 0, 4}, {0, 0, 40, 1}}},
      // With no duration only photons at the seed's own time join.
      {{photon(0, 0, 5), photon(1, 0, 5), photon(0, 0, 6)}, 0, {{0, 0, 5, 2}, {0, 0, 6, 1}}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(summary(settings(3, 10, c.durationMax).reconstruct_fullChain_direct(photonsOf(c.photons))),
              c.expected);
  }
}

TEST(FullChainDirectTest, OutOfOrderInputFollowsBackwardThenForwardSearch) {
  // The last photon is far from P1 (the only member in [t - dTime, t]) but near P2, an out-of-order member
  // that the search reaches because it starts at the photon just before.
  const auto photons =
      photonsOf({photon(0, 0, 0), photon(5 * px, 0, 10), photon(0, 0, 3), photon(-3 * px, 0, 18)});
  // Centroid: 0 -> 163840 -> 109227 -> 109227 + (-196608 - 109227) / 4 = 32769.
  EXPECT_THAT(summary(settings(6 * px, 10).reconstruct_fullChain_direct(photons)),
              ElementsAre(Summary{32769, 0, 0, 4}));
}

TEST(ForwardChainPhotonBuildupTest, EuclideanAndTimeBoundsAreInclusive) {
  struct Case {
    std::vector<PhotonEvent> photons;
    std::size_t nEvents;
  };
  const std::vector<Case> cases = {
      {{photon(0, 0, 0), photon(3, 4, 10)}, 1},
      {{photon(0, 0, 0), photon(3, 5, 10)}, 2},
      {{photon(0, 0, 0), photon(3, 4, 11)}, 2},
      // Per-axis within dSpace but beyond it in Euclidean distance.
      {{photon(0, 0, 0), photon(4, 4, 1)}, 2},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(settings(5, 10).reconstruct_forwardChain_photonBuildup(photonsOf(c.photons)).size(), c.nEvents);
  }
}

TEST(ForwardChainPhotonBuildupTest, ChainAgeAgainstDurationMax) {
  const auto train = photonsOf({photon(0, 0, 0), photon(0, 0, 10), photon(0, 0, 20)});
  EXPECT_THAT(summary(settings(1, 10, 20).reconstruct_forwardChain_photonBuildup(train)),
              ElementsAre(Summary{0, 0, 0, 3}));
  EXPECT_THAT(summary(settings(1, 10, 19).reconstruct_forwardChain_photonBuildup(train)),
              ElementsAre(Summary{0, 0, 0, 2}, Summary{0, 0, 20, 1}));
}

TEST(ForwardChainPhotonBuildupTest, SearchesPastNonQualifyingPhotons) {
  // C is far from B, near A: it joins A's chain through A.
  EXPECT_THAT(summary(settings(5, 10).reconstruct_forwardChain_photonBuildup(
                  photonsOf({photon(0, 0, 0), photon(4, 0, 1), photon(-4, 0, 2)}))),
              ElementsAre(Summary{0, 0, 0, 3}));
  // D's nearest earlier neighbour C belongs to a chain that is too old; the search goes on to B's chain.
  EXPECT_THAT(summary(settings(2, 10, 8).reconstruct_forwardChain_photonBuildup(
                  photonsOf({photon(0, 0, 0), photon(3, 0, 2), photon(0, 0, 6), photon(1, 0, 9)}))),
              ElementsAre(Summary{0, 0, 0, 2}, Summary{2, 0, 2, 2}));
}

TEST(ForwardChainPhotonBuildupTest, LatestQualifyingPhotonWins) {
  // C is exactly dSpace from both A and B and joins B's chain, the later one; with equal times the photon
  // later in the input is tried first.
  for (const long tB : {1L, 0L}) {
    EXPECT_THAT(summary(settings(10, 10).reconstruct_forwardChain_photonBuildup(
                    photonsOf({photon(0, 0, 0), photon(20, 0, tB), photon(10, 0, 2)}))),
                ElementsAre(Summary{0, 0, 0, 1}, Summary{15, 0, tB, 2}));
  }
}

TEST(NoBranchChainDirectTest, SpatialTestIsPerAxisAndStrict) {
  struct Case {
    int dx;
    int dy;
    std::size_t nEvents;
  };
  const std::vector<Case> cases = {{10, 0, 2}, {0, 10, 2}, {-10, 0, 2}, {9, 9, 1}, {-9, -9, 1}, {9, 10, 2}};
  for (const auto& c : cases) {
    const auto photons = photonsOf({photon(100, 100, 0), photon(100 + c.dx, 100 + c.dy, 1)});
    EXPECT_EQ(settings(10, 10).reconstruct_noBranchChain_direct(photons).size(), c.nEvents) << c.dx << "," << c.dy;
  }
}

TEST(NoBranchChainDirectTest, ComparesWithPhotonAddedLast) {
  const auto s = settings(10, 10);
  // A, B, C: B near A, C near A but not near B. C seeds its own event.
  EXPECT_THAT(summary(s.reconstruct_noBranchChain_direct(
                  photonsOf({photon(0, 0, 0), photon(8, 0, 1), photon(-8, 0, 2)}))),
              ElementsAre(Summary{4, 0, 0, 2}, Summary{-8, 0, 2, 1}));
  // A drifting chain follows its last photon away from the seed.
  EXPECT_THAT(summary(s.reconstruct_noBranchChain_direct(
                  photonsOf({photon(0, 0, 0), photon(8, 0, 1), photon(16, 0, 2)}))),
              ElementsAre(Summary{8, 0, 0, 3}));
  // A far photon inside the window is passed over without ending the chain.
  EXPECT_THAT(summary(s.reconstruct_noBranchChain_direct(
                  photonsOf({photon(0, 0, 0), photon(500, 0, 1), photon(3, 0, 2)}))),
              ElementsAre(Summary{1, 0, 0, 2}, Summary{500, 0, 1, 1}));
}

TEST(NoBranchChainDirectTest, WindowBoundsAndExtension) {
  struct Case {
    std::vector<long> times;
    long durationMax;
    std::optional<double> factor;
    std::vector<std::uint64_t> counts;
  };
  const std::vector<Case> cases = {
      {{0, 10, 20}, unlimited, std::nullopt, {3}},
      {{0, 10, 21}, unlimited, std::nullopt, {2, 1}},
      {{0, 10, 15}, 15, std::nullopt, {3}},
      {{0, 10, 16}, 15, std::nullopt, {2, 1}},
      {{0, 0, 1}, 0, std::nullopt, {2, 1}},
      // After B the window is 10 + 5 * 1.0 = 15 ticks from B: C at 20 is exactly on the bound.
      {{0, 5, 20}, unlimited, 1.0, {3}},
      {{0, 5, 21}, unlimited, 1.0, {2, 1}},
      {{0, 5, 20}, unlimited, 0.0, {2, 1}},
      // 5 * 0.5 = 2.5 truncates to 2; 5 * -0.5 = -2.5 truncates to -2.
      {{0, 5, 17}, unlimited, 0.5, {3}},
      {{0, 5, 18}, unlimited, 0.5, {2, 1}},
      {{0, 5, 13}, unlimited, -0.5, {3}},
      {{0, 5, 14}, unlimited, -0.5, {2, 1}},
      // An infinite factor opens the window completely; the cap still holds.
      {{0, 5, 1000000}, unlimited, std::numeric_limits<double>::infinity(), {3}},
      {{0, 5, 1000000}, 999999, std::numeric_limits<double>::infinity(), {2, 1}},
      {{0, 5, 6}, unlimited, -std::numeric_limits<double>::infinity(), {2, 1}},
  };
  for (const auto& c : cases) {
    std::vector<PhotonEvent> list;
    for (const long t : c.times) list.push_back(photon(0, 0, t));
    std::vector<std::uint64_t> counts;
    for (const auto& e : settings(1, 10, c.durationMax, c.factor).reconstruct_noBranchChain_direct(photonsOf(list))
                             .events) {
      counts.push_back(e.nPhotons);
    }
    EXPECT_EQ(counts, c.counts) << "last time " << c.times.back() << ", factor " << c.factor.value_or(0.0);
  }
}

TEST(NoBranchChainDirectTest, WindowNearTheEndOfTimeDoesNotWrap) {
  const long late = (long{1} << 62) - 100;
  const auto photons = photonsOf({photon(0, 0, late), photon(0, 0, late + 5), photon(0, 0, late + 90)});
  const auto s = settings(1, 10, unlimited, std::numeric_limits<double>::infinity());
  EXPECT_THAT(summary(s.reconstruct_noBranchChain_direct(photons)), ElementsAre(Summary{0, 0, late, 3}));
  EXPECT_THAT(summary(s.reconstruct_noBranchChain_ghostPhoton_direct(photons)), ElementsAre(Summary{0, 0, late, 3}));
}

TEST(NoBranchChainGhostPhotonDirectTest, TakenSeedEmitsOnlyWithFreePartners) {
  const auto s = settings(10, 10, 5);
  // A, B, C together: B and C find no free partner and emit nothing.
  const auto together = photonsOf({photon(0, 0, 0), photon(2, 0, 1), photon(4, 0, 2)});
  EXPECT_THAT(summary(s.reconstruct_noBranchChain_ghostPhoton_direct(together)), ElementsAre(Summary{2, 0, 0, 3}));
  // The cap ends A's chain after B; C, near B, continues from B as a ghost event sharing B.
  const auto capped = photonsOf({photon(0, 0, 0), photon(4, 0, 4), photon(8, 0, 9)});
  EXPECT_THAT(summary(s.reconstruct_noBranchChain_direct(capped)),
              ElementsAre(Summary{2, 0, 0, 2}, Summary{8, 0, 9, 1}));
  const auto ghost = s.reconstruct_noBranchChain_ghostPhoton_direct(capped);
  EXPECT_THAT(summary(ghost), ElementsAre(Summary{2, 0, 0, 2}, Summary{6, 0, 4, 2}));
  EXPECT_EQ(ghost.events[1].psd, (Time{9}.get_seconds() - Time{4}.get_seconds()) / 2.0);
  // E near A but not B seeds its own event; B as a ghost seed finds nobody.
  EXPECT_THAT(summary(s.reconstruct_noBranchChain_ghostPhoton_direct(
                  photonsOf({photon(0, 0, 0), photon(8, 0, 1), photon(-8, 0, 2)}))),
              ElementsAre(Summary{4, 0, 0, 2}, Summary{-8, 0, 2, 1}));
}

TEST(ReconstructionTest, ExtremeCoordinatesWrapWithoutOverflow) {
  const int lowest = std::numeric_limits<int>::min();
  const int highest = std::numeric_limits<int>::max();
  // Differences of -2^31 on both axes: 2^62 + 2^62 must not come out negative and pass the test.
  const auto opposite = photonsOf({photon(0, 0, 0), photon(lowest, lowest, 0)});
  const auto wide = settings(highest, 10);
  EXPECT_EQ(wide.reconstruct_fullChain_direct(opposite).size(), 2U);
  EXPECT_EQ(wide.reconstruct_forwardChain_photonBuildup(opposite).size(), 2U);
  // Differences are 32-bit: the two edges of the range are one unit apart.
  const auto edges = photonsOf({photon(highest, 0, 0), photon(lowest, 0, 1)});
  for (const auto& a : algorithms) EXPECT_EQ((settings(2, 10).*a.run)(edges).size(), 1U) << a.name;
}

TEST(ReconstructionTest, EmptyInputAndTriggersCarriedThrough) {
  const std::vector<std::optional<std::vector<Time>>> triggerLists = {
      std::nullopt, std::vector<Time>{}, std::vector<Time>{Time{7}, Time{3}, Time{7}}};
  for (const auto& a : algorithms) {
    for (const auto& triggers : triggerLists) {
      for (const auto& list : {std::vector<PhotonEvent>{}, std::vector<PhotonEvent>{photon(0, 0, 0)}}) {
        const Data_PhotonEvents photons{list, triggers};
        const auto result = (settings(1, 10).*a.run)(photons);
        EXPECT_EQ(result.size(), list.size()) << a.name;
        EXPECT_EQ(result.extTriggers, triggers) << a.name;
      }
    }
  }
}

TEST(ReconstructionTest, ExtensionFactorWarningOnlyWhereUnsupported) {
  const auto photons = photonsOf({photon(0, 0, 0), photon(0, 0, 5), photon(0, 0, 20)});
  for (const auto& a : algorithms) {
    testing::internal::CaptureStdout();
    const auto without = (settings(1, 10).*a.run)(photons);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), IsEmpty()) << a.name;

    testing::internal::CaptureStdout();
    const auto with = (settings(1, 10, unlimited, 1.0).*a.run)(photons);
    const std::string printed = testing::internal::GetCapturedStdout();
    const bool supported = std::string(a.name).starts_with("noBranchChain");
    if (supported) {
      EXPECT_THAT(printed, IsEmpty());
      EXPECT_NE(summary(with), summary(without)) << a.name;  // the factor lets the third photon join
    } else {
      EXPECT_EQ(printed, "WARNING: Extension factor is not supported for the chosen algorithm!\n") << a.name;
      EXPECT_EQ(summary(with), summary(without)) << a.name;
    }
  }
}

TEST(ReconstructEventsSwitchAlgorithmTest, NamesSelectAlgorithms) {
  // Three groups that the four algorithms treat differently: a photon reachable only through a later one,
  // a chain cut by the cap and continued from its last photon, and a branch.
  const auto photons = photonsOf({photon(0, 0, 0), photon(15, 0, 1), photon(8, 0, 2),         //
                                  photon(100, 0, 20), photon(104, 0, 24), photon(108, 0, 28),  //
                                  photon(200, 0, 40), photon(208, 0, 41), photon(192, 0, 42)});
  const auto s = settings(10, 5, 6);
  std::vector<std::vector<Summary>> seen;
  for (const auto& a : algorithms) {
    const auto events = summary((s.*a.run)(photons));
    for (const auto& other : seen) EXPECT_NE(events, other) << a.name;
    seen.push_back(events);
    EXPECT_EQ(summary(reconstructEvents_switchAlgorithm(s, photons, a.name)), summary((s.*a.run)(photons))) << a.name;
  }
  EXPECT_EQ(summary(reconstructEvents_switchAlgorithm(s, photons, "default")),
            summary(s.reconstruct_noBranchChain_ghostPhoton_direct(photons)));
}

TEST(ReconstructEventsSwitchAlgorithmTest, UnknownNamesThrow) {
  const auto photons = photonsOf({photon(0, 0, 0)});
  for (const std::string name : {"", "Default", "default ", " default", "fullchain_direct", "noBranchChain"}) {
    EXPECT_THAT([&] { reconstructEvents_switchAlgorithm(settings(1, 10), photons, name); },
                ThrowsMessage<std::invalid_argument>(StrEq("algorithm \"" + name + "\" does not exist!")));
  }
}

TEST(ReconstructionDeathTest, PhotonsOutOfOrderAbort) {
  const auto s = settings(6 * px, 10);
  // The seed is later than the photon after it; the forward scan reaches the seed and takes the earlier photon.
  const auto earlierNear = photonsOf({photon(0, 0, 100), photon(0, 0, 95)});
  const char* psdAssertion = "firstPhoton\\.get_toa\\(\\)\\.get_seconds\\(\\) >= t_first_abs_s";
  EXPECT_DEATH(s.reconstruct_fullChain_direct(earlierNear), psdAssertion);
  EXPECT_DEATH(s.reconstruct_forwardChain_photonBuildup(earlierNear), psdAssertion);
  EXPECT_DEATH(s.reconstruct_noBranchChain_direct(earlierNear), psdAssertion);
  EXPECT_DEATH(s.reconstruct_noBranchChain_ghostPhoton_direct(earlierNear), psdAssertion);
  EXPECT_DEATH(s.reconstruct_forwardChain_photonBuildup(photonsOf({photon(0, 0, 100), photon(100 * px, 0, 95)})),
               "chains\\.empty\\(\\) \\|\\| chains\\.back\\(\\)\\.get_t_first\\(\\) <= newChain\\.get_t_first\\(\\)");
}
