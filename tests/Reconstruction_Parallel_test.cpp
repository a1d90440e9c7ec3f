// Reconstruction on several threads gives the bytes of one: at every thread count and piece size, on lists made
// to be hard to cut (gaps at the cut bound and one above it, ties, bursts, a hot pixel faster than dTime, windows
// that widen without a durationMax, fewer photons than workers, input out of order); and the static cut rule
// holds against the plain formulations.

#include <gtest/gtest.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "PlainReconstruction.hpp"
#include "RandomPhotons.hpp"
#include "kovra/Reconstruction_Parallel.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using namespace kovra::tpx3spidr;
using kovra::Algorithm;

namespace {

using random_photons::bytes_of;
using random_photons::Flashes;
using random_photons::flashes;
using random_photons::photon;
using random_photons::Settings;
using random_photons::unlimited;

const std::pair<const char*, Algorithm> algorithms[] = {{"default", Algorithm::ghostPhoton},
                                                        {"noBranchChain_direct", Algorithm::noBranch},
                                                        {"forwardChain_photonBuildup", Algorithm::forwardChain},
                                                        {"fullChain_direct", Algorithm::fullChain}};

/// Every piece border cut (no run takes over a piece just because no worker has taken it yet), however fast the
/// first run is; and the same with every limit of a run shrunk, so that short lists take every path: agreement
/// zones of a few photons, blocks of one or two events, runs that wait for room after one block, looks at every
/// hook or every other, a static cut searched among a few photons only.
const kovra::detail::Piece_Tuning cutEverywhere{.takeOverUntaken = false};
const kovra::detail::Piece_Tuning shrunk[] = {
    {.zonePhotons = 3,
     .blockEvents = 2,
     .blocksHeld = 1,
     .staticSearchPhotons = 2,
     .hooksBetweenLooks = 1,
     .takeOverUntaken = false},
    {.zonePhotons = 40,
     .blockEvents = 1,
     .blocksHeld = 2,
     .staticSearchPhotons = 8,
     .hooksBetweenLooks = 2,
     .takeOverUntaken = false},
    {.zonePhotons = 17, .blockEvents = 3, .blocksHeld = 1, .staticSearchPhotons = 1, .hooksBetweenLooks = 4}};

/// The events of a run on `threads` workers in pieces of `piece` photons.
std::vector<Event> run_parallel(const Reconstruction_Events& r, Algorithm algorithm,
                                const std::vector<PhotonEvent>& photons, unsigned threads, std::uint64_t piece,
                                const kovra::detail::Piece_Tuning& tuning = cutEverywhere) {
  kovra::EventList<Event> out;
  kovra::reconstruct_parallel(r, algorithm, kovra::make_photonList(std::span<const PhotonEvent>(photons)),
                              kovra::Parallel_Settings{threads, piece, tuning}, out);
  return out.events;
}

/// Pairs of photons at one place, every gap between pairs `gap` or `gap + 1` in turn: cuts lie exactly at the
/// bound and one above it.
std::vector<PhotonEvent> gaps_around(long gap, std::size_t n) {
  std::vector<PhotonEvent> photons;
  long t = 0;
  for (std::size_t k = 0; photons.size() < n; ++k) {
    photons.push_back(photon(0, 0, t));
    t += k % 2 == 0 ? gap : gap + 1;
  }
  return photons;
}

struct Dataset {
  const char* name;
  std::vector<PhotonEvent> photons;
  std::vector<Settings> settings;
};

std::vector<Dataset> datasets() {
  const std::vector<Settings> usual = {
      {8, 5, unlimited, std::nullopt}, {8, 5, 12, 0.5}, {12, 6, 0, std::nullopt}, {20, 8, 25, -0.3}, {8, 30, 40, 1.0},
      {4, 3, unlimited, 2.0}};
  std::vector<Dataset> sets;
  sets.push_back({"sparse flashes", flashes(1, 600, {0.05}), usual});
  sets.push_back({"bursts", flashes(2, 600, {3.0}), usual});
  std::vector<PhotonEvent> turns;
  for (unsigned k = 0; k < 6; ++k) {
    const auto part = flashes(10 + k, 120, {k % 2 == 0 ? 0.05 : 4.0, turns.empty() ? 0 : turns.back().toa.value + 1});
    turns.insert(turns.end(), part.begin(), part.end());
  }
  sets.push_back({"sparse and crowded in turn", turns, usual});
  sets.push_back({"random with ties",
                  random_photons::generate(3, 500, random_photons::Disorder::none, false).photonEvents, usual});
  // Gaps exactly at each setting's static bound and one above (min(dTime, durationMax) = 5 here; with the
  // factor 1.0 and durationMax 12 the widened bound is (5 + 12) / 2 = 8.5, so 9 and 10).
  sets.push_back({"gaps at the bound",
                  gaps_around(5, 300),
                  {{1, 5, unlimited, std::nullopt}, {1, 9, 5, std::nullopt}, {1, 5, 12, 0.0}}});
  sets.push_back({"gaps at the widened bound", gaps_around(9, 300), {{1, 5, 12, 1.0}, {1, 9, 9, std::nullopt}}});
  // A hot pixel firing every 2 ticks with dTime 3 among other photons: no cut at all without a durationMax.
  std::vector<PhotonEvent> hot = flashes(4, 300, {0.5});
  for (long t = 1000; t < 1600; t += 2) hot.push_back(photon(100, 100, t));
  std::ranges::stable_sort(hot, {}, [](const PhotonEvent& p) { return p.toa.value; });
  sets.push_back(
      {"hot pixel faster than dTime",
       hot,
       {{2, 3, unlimited, std::nullopt}, {2, 3, 40, std::nullopt}, {2, 3, unlimited, 0.5}, {2, 3, 40, 0.5}}});
  sets.push_back({"fewer photons than workers", flashes(5, 3, {1.0}), usual});
  sets.push_back({"no photon", {}, usual});
  return sets;
}

TEST(ReconstructionParallelTest, EveryThreadCountAndPieceSizeGivesTheBytesOfOneThread) {
  int compared = 0;
  for (const auto& set : datasets()) {
    const Data_PhotonEvents whole{set.photons, std::nullopt};
    for (const auto& s : set.settings) {
      // An ignored factor is reported once per run, as on one thread, not once per worker or piece (a worker
      // that reported it would call from its own thread).
      std::vector<std::string> warned;
      std::mutex warning;
      auto r = s.reconstruction();
      r.warn = [&](const std::string& line) {
        const std::lock_guard lock(warning);
        warned.push_back(line);
      };
      for (const auto& [name, algorithm] : algorithms) {
        warned.clear();
        const std::string expected = bytes_of(reconstructEvents_switchAlgorithm(r, whole, name).events);
        const auto warnedAlone = warned;
        // Every thread count at one small piece size, then tiny and uneven pieces, shrunk limits, and pieces
        // taken over wherever a run gets there first (as the tool runs).
        struct Run {
          unsigned threads;
          std::uint64_t piece;
          kovra::detail::Piece_Tuning tuning = cutEverywhere;
        };
        std::vector<Run> runs;
        for (unsigned threads = 1; threads <= 8; ++threads) runs.push_back({threads, 64});
        for (const std::uint64_t piece : {1U, 2U, 7U, 100U, 1000U}) runs.push_back({3, piece});
        for (const auto& tuning : shrunk) runs.push_back({4, 50, tuning});
        runs.push_back({3, 64, kovra::detail::Piece_Tuning{}});
        for (std::size_t k = 0; k < runs.size(); ++k) {
          const auto& run = runs[k];
          SCOPED_TRACE(testing::Message() << set.name << ", " << name << ", " << s << ", " << run.threads
                                          << " threads, pieces of " << run.piece << ", run " << k);
          warned.clear();
          EXPECT_EQ(bytes_of(run_parallel(r, algorithm, set.photons, run.threads, run.piece, run.tuning)), expected);
          EXPECT_EQ(warned, warnedAlone);
          ++compared;
        }
      }
    }
  }
  EXPECT_GT(compared, 3000);
}

TEST(ReconstructionParallelTest, InputOutOfOrderRunsAsOneThreadWould) {
  auto photons = flashes(6, 2000, {0.3});
  // Late in the list, after many pieces: two neighbours swapped, the earlier moved away from everything, so that
  // no algorithm meets a photon earlier than its event's first one.
  std::swap(photons[1700], photons[1701]);
  photons[1701].x = Length{5000};
  const Data_PhotonEvents whole{photons, std::nullopt};
  for (const auto& [name, algorithm] : algorithms) {
    if (algorithm == Algorithm::forwardChain) continue;  // stops on an assertion out of order, tested end to end
    std::vector<std::string> told;
    auto r = Settings{8, 20, 40, 0.5}.reconstruction();
    r.inform = [&told](const std::string& line) { told.push_back(line); };
    const std::string expected = bytes_of(reconstructEvents_switchAlgorithm(r, whole, name).events);
    const auto toldAlone = told;
    for (const std::uint64_t piece : {1U, 50U, 300U}) {
      told.clear();
      EXPECT_EQ(bytes_of(run_parallel(r, algorithm, photons, 4, piece)), expected) << name << ", pieces of " << piece;
      EXPECT_EQ(told, toldAlone) << name;
    }
  }
}

/// Whether an event of `groups` has photons on both sides of the cut before photon c (for the ghost-photon chain,
/// a chain started before c that took a photon from c on).
bool crosses(const plain_reconstruction::Groups& groups, std::size_t c) {
  for (const auto& g : groups) {
    const bool before = g.front() < c;
    for (const std::size_t m : g) {
      if (before && m >= c) return true;
    }
  }
  return false;
}

TEST(PieceCutsTest, NoEventOfThePlainFormulationsCrossesAStaticCut) {
  using namespace plain_reconstruction;
  std::vector<Settings> table(std::begin(random_photons::settingsTable), std::end(random_photons::settingsTable));
  table.insert(table.end(), {{8, 4, 30, 3.0}, {8, 30, 50, 0.1}});  // bounds of durationMax and of the factor
  int cuts = 0;
  int crossedAtTheBound = 0;
  for (unsigned seed = 1; seed <= 12; ++seed) {
    // Sparse enough for gaps beyond every bound.
    auto p = random_photons::generate(seed, 400, random_photons::Disorder::none, false).photonEvents;
    for (std::size_t i = 0; i < p.size(); ++i) p[i].toa = Time{p[i].toa.value * (1 + static_cast<long>(seed % 4))};
    for (const auto& s : table) {
      for (const auto& [name, plain] : plain_reconstruction::algorithms) {
        const auto bound = kovra::detail::find_staticCutBound(s.reconstruction(), kovra::find_algorithm(name));
        if (!bound) continue;
        const auto groups = plain(p, s);
        for (std::size_t c = 1; c < p.size(); ++c) {
          const long gap = t(p[c]) - t(p[c - 1]);
          if (kovra::detail::is_staticCut(gap, *bound)) {
            ++cuts;
            EXPECT_FALSE(crosses(groups, c))
                << "seed " << seed << ", cut before " << c << ", gap " << gap << ", bound " << *bound << ", " << s;
          } else if (gap == *bound && crosses(groups, c)) {
            ++crossedAtTheBound;
          }
        }
      }
    }
  }
  EXPECT_GT(cuts, 10000);
  EXPECT_GT(crossedAtTheBound, 100);  // the bound is where events do cross: not a cut
}

TEST(PieceCutsTest, BoundsInTicks) {
  struct Case {
    Settings s;
    Algorithm algorithm;
    std::optional<long> bound;
  };
  const Case cases[] = {
      {{8, 5, unlimited, std::nullopt}, Algorithm::fullChain, 5},
      {{8, 5, 3, std::nullopt}, Algorithm::forwardChain, 3},
      {{8, 5, 3, 2.0}, Algorithm::forwardChain, 3},  // the factor means nothing to it
      {{8, 5, 12, std::nullopt}, Algorithm::noBranch, 5},
      {{8, 5, 12, 0.0}, Algorithm::ghostPhoton, 5},
      {{8, 5, 12, -0.5}, Algorithm::ghostPhoton, 5},
      {{8, 5, 12, 0.19}, Algorithm::noBranch, 5},                      // 5 * 0.19 < 1: every increment truncates to 0
      {{8, 5, 12, 0.2}, Algorithm::noBranch, 7},                       // (5 + 2.4) / 1.2 = 6.17
      {{8, 5, 12, 1.0}, Algorithm::ghostPhoton, 9},                    // (5 + 12) / 2 = 8.5
      {{8, 5, 7, 9.0}, Algorithm::ghostPhoton, 7},                     // min(7, 6.8): durationMax itself
      {{8, 5, unlimited, 0.5}, Algorithm::ghostPhoton, std::nullopt},  // widens without end
      {{8, 0, 12, 1.0}, Algorithm::noBranch, 0},
      {{8, -4, 12, std::nullopt}, Algorithm::fullChain, 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(kovra::detail::find_staticCutBound(c.s.reconstruction(), c.algorithm), c.bound) << c.s;
  }
  EXPECT_FALSE(kovra::detail::is_staticCut(5, 5));
  EXPECT_TRUE(kovra::detail::is_staticCut(6, 5));
  EXPECT_FALSE(kovra::detail::is_staticCut(0, -1));  // equal times never
}

}  // namespace
