#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "RandomPhotons.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using namespace kovra::tpx3spidr;

namespace {

using random_photons::photon;
using random_photons::unlimited;
constexpr int px = 65536;
constexpr int lowest = std::numeric_limits<int>::min();
constexpr int highest = std::numeric_limits<int>::max();
constexpr double infinity = std::numeric_limits<double>::infinity();
const std::string F = "fullChain_direct", W = "forwardChain_photonBuildup", N = "noBranchChain_direct",
                  G = "noBranchChain_ghostPhoton_direct";

/// Photons at one position.
std::vector<PhotonEvent> train(std::initializer_list<long> times) {
  std::vector<PhotonEvent> list;
  for (const long t : times) list.push_back(photon(0, 0, t));
  return list;
}

Reconstruction_Events settings(int dSpace, long dTime, long durationMax = unlimited,
                               std::optional<double> factor = std::nullopt) {
  return Reconstruction_Events{Length{dSpace}, Time{dTime}, factor, Time{durationMax}};
}

/// Position, time and photon count of each event (the pulse-shape value is compared on random lists).
using Summary = std::tuple<int, int, long, std::uint64_t>;
std::vector<Summary> run(const Reconstruction_Events& s, const std::vector<PhotonEvent>& photons,
                         const std::string& name) {
  std::vector<Summary> out;
  for (const auto& e : reconstructEvents_switchAlgorithm(s, Data_PhotonEvents{photons, {}}, name).events) {
    out.emplace_back(e.x.value, e.y.value, e.t.value, e.nPhotons);
  }
  return out;
}

const long late = (long{1} << 62) - 100;

/// A hand-built list, named for the situation it pins down, and the events each algorithm listed by its letter
/// (F, W, N, G) must give.
void expect(const char* situation, const std::string& letters, const Reconstruction_Events& s,
            const std::vector<PhotonEvent>& photons, const std::vector<Summary>& expected) {
  for (const char letter : letters) {
    const std::string& name = letter == 'F' ? F : letter == 'W' ? W : letter == 'N' ? N : G;
    EXPECT_EQ(run(s, photons, name), expected) << name << ": " << situation;
  }
}

}  // namespace

TEST(ReconstructionTest, FullChainBranchesThroughAnyMember) {
  expect("a photon near a later member only is offered before that member joins and stays free", "F",
         settings(6 * px, 10), {photon(0, 0, 0), photon(10 * px, 0, 1), photon(5 * px, 0, 2)},
         {{5 * px / 2, 0, 0, 2}, {10 * px, 0, 1, 1}});
  expect("3-4-5 triangle: the full chain branches to a photon near the seed only", "F", settings(5, 10),
         {photon(0, 0, 0), photon(3, 4, 4), photon(-5, 0, 8)}, {{-1, 2, 0, 3}});
  expect("3-4-5 triangle: the no-branch chain does not", "N", settings(5, 10),
         {photon(0, 0, 0), photon(3, 4, 4), photon(-5, 0, 8)}, {{1, 2, 0, 2}, {-5, 0, 8, 1}});
  expect("a gap of exactly dTime joins", "F", settings(3, 10), train({100, 110}), {{0, 0, 100, 2}});
  expect("a gap of dTime + 1 does not", "F", settings(3, 10), train({100, 111}), {{0, 0, 100, 1}, {0, 0, 111, 1}});
  expect("a train spaced by dTime ends at the duration cap, inclusive", "F", settings(3, 10, 30),
         train({0, 10, 20, 30, 40}), {{0, 0, 0, 4}, {0, 0, 40, 1}});
  expect("a zero duration keeps only photons at the seed's time", "F", settings(3, 10, 0),
         {photon(0, 0, 5), photon(1, 0, 5), photon(0, 0, 6)}, {{0, 0, 5, 2}, {0, 0, 6, 1}});
  expect("out of order: the last photon is near the second only, found by searching back from the photon before", "F",
         settings(6 * px, 10), {photon(0, 0, 0), photon(5 * px, 0, 10), photon(0, 0, 3), photon(-3 * px, 0, 18)},
         {{32769, 0, 0, 4}});
}

TEST(ReconstructionTest, ForwardChainJoinsTheLatestNearPhotonsYoungChain) {
  expect("Euclidean distance of exactly dSpace joins", "W", settings(5, 10), {photon(0, 0, 0), photon(3, 4, 10)},
         {{1, 2, 0, 2}});
  expect("Euclidean distance just over dSpace does not", "W", settings(5, 10), {photon(0, 0, 0), photon(3, 5, 10)},
         {{0, 0, 0, 1}, {3, 5, 10, 1}});
  expect("a gap of dTime + 1 does not join", "W", settings(5, 10), {photon(0, 0, 0), photon(3, 4, 11)},
         {{0, 0, 0, 1}, {3, 4, 11, 1}});
  expect("within dSpace on each axis but not in Euclidean distance", "W", settings(5, 10),
         {photon(0, 0, 0), photon(4, 4, 1)}, {{0, 0, 0, 1}, {4, 4, 1, 1}});
  expect("a chain exactly durationMax old still takes a photon", "W", settings(1, 10, 20), train({0, 10, 20}),
         {{0, 0, 0, 3}});
  expect("a chain older than durationMax does not", "W", settings(1, 10, 19), train({0, 10, 20}),
         {{0, 0, 0, 2}, {0, 0, 20, 1}});
  expect("a photon far from the latest one joins through an earlier near one", "W", settings(5, 10),
         {photon(0, 0, 0), photon(4, 0, 1), photon(-4, 0, 2)}, {{0, 0, 0, 3}});
  expect("the nearest chain is too old: the search goes on to an earlier photon's chain", "W", settings(2, 10, 8),
         {photon(0, 0, 0), photon(3, 0, 2), photon(0, 0, 6), photon(1, 0, 9)}, {{0, 0, 0, 2}, {2, 0, 2, 2}});
  expect("equally near two photons: joins the later one", "W", settings(10, 10),
         {photon(0, 0, 0), photon(20, 0, 1), photon(10, 0, 2)}, {{0, 0, 0, 1}, {15, 0, 1, 2}});
  expect("equally near two photons at equal times: joins the later in the input", "W", settings(10, 10),
         {photon(0, 0, 0), photon(20, 0, 0), photon(10, 0, 2)}, {{0, 0, 0, 1}, {15, 0, 0, 2}});
}

TEST(ReconstructionTest, NoBranchChainsCompareEachAxisWithThePhotonAddedLast) {
  expect("x difference of exactly dSpace does not join (strict)", "NG", settings(10, 10),
         {photon(100, 100, 0), photon(110, 100, 1)}, {{100, 100, 0, 1}, {110, 100, 1, 1}});
  expect("y difference of exactly dSpace does not join (strict)", "NG", settings(10, 10),
         {photon(100, 100, 0), photon(100, 90, 1)}, {{100, 100, 0, 1}, {100, 90, 1, 1}});
  expect("dSpace - 1 on both axes joins (a per-axis test, not Euclidean)", "NG", settings(10, 10),
         {photon(100, 100, 0), photon(91, 109, 1)}, {{96, 104, 0, 2}});
  expect("near the seed but not the photon added last: an event of its own", "NG", settings(10, 10),
         {photon(0, 0, 0), photon(8, 0, 1), photon(-8, 0, 2)}, {{4, 0, 0, 2}, {-8, 0, 2, 1}});
  expect("a line of steps under dSpace is one event", "NG", settings(10, 10),
         {photon(0, 0, 0), photon(8, 0, 1), photon(16, 0, 2)}, {{8, 0, 0, 3}});
  expect("a far photon is passed over and does not end the chain", "NG", settings(10, 10),
         {photon(0, 0, 0), photon(500, 0, 1), photon(3, 0, 2)}, {{1, 0, 0, 2}, {500, 0, 1, 1}});
}

TEST(ReconstructionTest, NoBranchChainWindowAndDurationCap) {
  expect("window from the photon added last, inclusive", "N", settings(1, 10), train({0, 10, 20}), {{0, 0, 0, 3}});
  expect("a gap of dTime + 1 ends the chain", "N", settings(1, 10), train({0, 10, 21}), {{0, 0, 0, 2}, {0, 0, 21, 1}});
  expect("a photon exactly durationMax after the seed joins", "N", settings(1, 10, 15), train({0, 10, 15}),
         {{0, 0, 0, 3}});
  expect("a photon durationMax + 1 after the seed does not", "N", settings(1, 10, 15), train({0, 10, 16}),
         {{0, 0, 0, 2}, {0, 0, 16, 1}});
  expect("a zero duration takes only photons at the seed's time", "N", settings(1, 10, 0), train({0, 0, 1}),
         {{0, 0, 0, 2}, {0, 0, 1, 1}});
  expect("a factor of 1.0 widens the window by the gap", "N", settings(1, 10, unlimited, 1.0), train({0, 5, 20}),
         {{0, 0, 0, 3}});
  expect("a factor of 1.0: one tick beyond the widened window ends the chain", "N", settings(1, 10, unlimited, 1.0),
         train({0, 5, 21}), {{0, 0, 0, 2}, {0, 0, 21, 1}});
  expect("an infinite factor removes the window", "N", settings(1, 10, unlimited, infinity), train({0, 5, 1000000}),
         {{0, 0, 0, 3}});
  expect("an infinite factor leaves the duration cap", "N", settings(1, 10, 999999, infinity), train({0, 5, 1000000}),
         {{0, 0, 0, 2}, {0, 0, 1000000, 1}});
  expect("a negative infinite factor closes the window after the first gap", "N", settings(1, 10, unlimited, -infinity),
         train({0, 5, 6}), {{0, 0, 0, 2}, {0, 0, 6, 1}});
  expect("a window widened near the end of time stays open instead of wrapping", "NG",
         settings(1, 10, unlimited, infinity), train({late, late + 5, late + 90}), {{0, 0, late, 3}});
}

TEST(ReconstructionTest, GhostPhotonsSeedFurtherEvents) {
  expect("taken seeds without free partners emit nothing", "G", settings(10, 10, 5),
         {photon(0, 0, 0), photon(2, 0, 1), photon(4, 0, 2)}, {{2, 0, 0, 3}});
  expect("a chain cut by the cap: the no-branch chain leaves the rest alone", "N", settings(10, 10, 5),
         {photon(0, 0, 0), photon(4, 0, 4), photon(8, 0, 9)}, {{2, 0, 0, 2}, {8, 0, 9, 1}});
  expect("a chain cut by the cap: the ghost photon continues it in an event that shares it", "G", settings(10, 10, 5),
         {photon(0, 0, 0), photon(4, 0, 4), photon(8, 0, 9)}, {{2, 0, 0, 2}, {6, 0, 4, 2}});
}

TEST(ReconstructionTest, CoordinatesAtTheEdgesOfTheRange) {
  expect("differences of -2^31 on both axes: the squared sum 2^63 must not come out negative", "FW",
         settings(highest, 10), {photon(0, 0, 0), photon(lowest, lowest, 0)}, {{0, 0, 0, 1}, {lowest, lowest, 0, 1}});
  expect("differences are 32-bit, so the two edges of the range are neighbours", "FWNG", settings(2, 10),
         {photon(highest, 0, 0), photon(lowest, 0, 1)}, {{highest, 0, 0, 2}});
}

// A chain notes, on each photon that was its last, how far past it it looked (a resume mark, at most 255); a
// ghost chain seeded later by that photon starts looking there. Between B and C lie `gap` far photons, so B's
// mark reaches the cap when gap > 254: the ghost chain of B must still look past C and find D, near B only.
TEST(ReconstructionTest, GhostSeedResumesWhereItsChainLookedUpToTheCap) {
  for (const int gap : {10, 253, 254, 255, 300, 600}) {
    std::vector<PhotonEvent> photons = {photon(0, 0, 0), photon(6 * px, 0, 1)};  // A, B
    for (int k = 0; k < gap; ++k) photons.push_back(photon(100 * px * (k + 1), 0, 2 + k));
    photons.push_back(photon(12 * px, 0, 2 + gap));  // C: near B, joins A's chain
    photons.push_back(photon(0, 0, 3 + gap));        // D: near B, 12 px from C, so left free by A's chain
    std::vector<Summary> expected = {{6 * px, 0, 0, 3}, {3 * px, 0, 1, 2}};
    for (int k = 0; k < gap; ++k) expected.emplace_back(100 * px * (k + 1), 0, 2 + k, 1);
    EXPECT_EQ(run(settings(10 * px, 10000), photons, G), expected) << gap << " far photons between B and C";
  }
}

TEST(ReconstructionTest, EmptyInputAndTriggersCarriedThrough) {
  for (const auto& name : {F, W, N, G}) {
    using Triggers = std::optional<std::vector<Time>>;
    for (const auto& triggers : {Triggers{}, Triggers{std::vector<Time>{}}, Triggers{{Time{7}, Time{3}, Time{7}}}}) {
      for (const auto& list : {std::vector<PhotonEvent>{}, train({0})}) {
        const auto result = reconstructEvents_switchAlgorithm(settings(1, 10), Data_PhotonEvents{list, triggers}, name);
        EXPECT_EQ(result.size(), list.size()) << name;
        EXPECT_EQ(result.extTriggers, triggers) << name;
      }
    }
  }
}

TEST(ReconstructionTest, UnknownNamesThrow) {
  for (const std::string name : {"", "Default", "default ", " default", "fullchain_direct", "noBranchChain"}) {
    EXPECT_THAT(
        [&] {
      reconstructEvents_switchAlgorithm(settings(1, 10), Data_PhotonEvents{train({0}), {}}, name);
        },
        testing::ThrowsMessage<std::invalid_argument>(testing::StrEq("algorithm \"" + name + "\" does not exist!")));
  }
}

TEST(ReconstructionDeathTest, PhotonsOutOfOrderAbort) {
  // The seed is later than the photon after it, which joins.
  for (const auto& name : {F, W, N, G}) {
    EXPECT_DEATH(run(settings(6 * px, 10), train({100, 95}), name),
                 "firstPhoton\\.get_toa\\(\\)\\.get_seconds\\(\\) >= t_first_abs_s");
  }
  EXPECT_DEATH(run(settings(6 * px, 10), {photon(0, 0, 100), photon(100 * px, 0, 95)}, W),
               "chains\\.empty\\(\\) \\|\\| chains\\.back\\(\\)\\.get_t_first\\(\\) <= newChain\\.get_t_first\\(\\)");
}
