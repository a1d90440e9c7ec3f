// The algorithms over a small sliding window give the events of the whole list in memory, byte for byte: with
// windows that must move, grow for events longer than they hold, and start over on input out of time order. (File
// to file, the tool's memory test compares the streamed event files with the in-memory ones.)

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "RandomPhotons.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using namespace kovra::tpx3spidr;

namespace {

using random_photons::bytes_of;
using random_photons::flashes;
using random_photons::unlimited;

constexpr std::size_t smallWindow = 128;  // the least a window holds

/// Hands out the photons of a list a few at a time, with its order unknown, like a file.
class Trickle_Source final : public PhotonSource {
 public:
  explicit Trickle_Source(const std::vector<PhotonEvent>& photons_) : PhotonSource(smallWindow), photons(photons_) {}
  std::uint64_t size() const override { return photons.size(); }
  std::size_t read(PhotonEvent* destination, std::size_t capacity) override {
    const std::size_t n = std::min({capacity, photons.size() - position, std::size_t{1} + (position * 7919) % 37});
    std::copy_n(photons.begin() + static_cast<std::ptrdiff_t>(position), n, destination);
    position += n;
    return n;
  }
  void rewind() override {
    position = 0;
    ++rewinds;
  }
  int rewinds = 0;

 private:
  const std::vector<PhotonEvent>& photons;
  std::size_t position = 0;
};

constexpr std::int32_t px = 65536;

struct Dataset {
  const char* name;
  std::vector<PhotonEvent> photons;
  bool outOfOrder;
  bool startsOver = outOfOrder;  // whether a pass over it must drop its shortcuts and start over
};

/// Swaps photons i and j and moves both far from all others, so that no event takes a photon earlier than its
/// first (which stops the program on an assertion, tested elsewhere).
void swap_apart(std::vector<PhotonEvent>& photons, std::size_t i, std::size_t j) {
  std::swap(photons[i], photons[j]);
  photons[i].x = Length{1000 * px};
  photons[j].x = Length{2000 * px};
}

/// Flashes of four photons within two pixels on a 64-pixel square, in steps of 1/16 pixel.
std::vector<PhotonEvent> flashes(unsigned seed, std::size_t n, double perTick, long t0 = 1000) {
  return flashes(seed, n, {perTick, t0, 64 * 16, 2 * 16, px / 16});
}

std::vector<Dataset> datasets() {
  std::vector<Dataset> sets;
  sets.push_back({"sparse", flashes(1, 3000, 0.05), false});
  sets.push_back({"crowded", flashes(2, 3000, 8.0), false});
  // Sparse and crowded stretches in turn: over a small window the passes change their path between seeds many
  // times, while the whole list in memory is judged once.
  std::vector<PhotonEvent> turns;
  for (unsigned k = 0; k < 8; ++k) {
    const auto part = flashes(10 + k, 400, k % 2 == 0 ? 0.05 : 8.0, turns.empty() ? 1000 : turns.back().toa.value + 1);
    turns.insert(turns.end(), part.begin(), part.end());
  }
  sets.push_back({"sparse and crowded in turn", turns, false});
  // One pixel firing every tick, for longer than the window holds: with an unlimited duration one event.
  std::vector<PhotonEvent> hot;
  for (std::int64_t t = 0; t < 2000; ++t) hot.push_back({Length{5 * px}, Length{5 * px}, Time{t}});
  sets.push_back({"hot pixel", hot, false});
  // Out of order only late, after many events were written: the pass starts over.
  auto late = flashes(3, 3000, 1.0);
  swap_apart(late, 2500, 2600);
  sets.push_back({"swapped late", late, true});
  auto early = flashes(4, 600, 1.0);
  swap_apart(early, 3, 400);
  sets.push_back({"swapped early", early, true});
  // In order, but spanning more than 2^63 ticks: differences wrap, so no shortcut applies.
  auto wide = flashes(5, 400, 0.5);
  for (std::size_t i = 0; i < wide.size(); ++i) {
    wide[i].toa = Time{wide[i].toa.value +
                       (i < 200 ? -(std::int64_t{1} << 62) - (std::int64_t{1} << 40) : std::int64_t{1} << 62)};
  }
  sets.push_back({"wider than 2^63 ticks", wide, false, true});
  return sets;
}

const random_photons::Settings settings[] = {{3 * px / 2, 4, unlimited, std::nullopt},
                                             {3 * px, 20, unlimited, 0.5},
                                             {3 * px, 20, 0, std::nullopt},
                                             {2 * px, 8, 30, 0.0},
                                             {px / 2, 1, 5, 2.0},
                                             {6 * px, 200, unlimited, 1.0}};

const char* const algorithms[] = {"default", "noBranchChain_direct", "forwardChain_photonBuildup", "fullChain_direct"};

TEST(ReconstructionStreamingTest, SmallWindowsGiveTheEventsOfTheWholeList) {
  int compared = 0;
  for (const auto& set : datasets()) {
    const Data_PhotonEvents whole{set.photons, std::nullopt};
    for (const auto& s : settings) {
      std::vector<std::string> told;
      auto r = s.reconstruction();
      r.inform = [&told](const std::string& line) { told.push_back(line); };
      for (const char* algorithm : algorithms) {
        SCOPED_TRACE(testing::Message() << set.name << ", " << algorithm << ", " << s);
        // Out of order, a photon opening a chain earlier than the chain before stops the forward chain on an
        // assertion, in memory as over a window.
        if (set.outOfOrder && std::string(algorithm) == "forwardChain_photonBuildup") continue;
        // A run without the shortcuts is told once, with the reason; a list in memory is known to be out of
        // order before the pass, a source only during it.
        told.clear();
        const auto expected = reconstructEvents_switchAlgorithm(r, whole, algorithm);
        EXPECT_EQ(told,
                  set.startsOver ? std::vector<std::string>{kovra::inputOrder_notOrdered} : std::vector<std::string>{});
        told.clear();
        Trickle_Source source(set.photons);
        kovra::EventList<Event> out;
        reconstructEvents_switchAlgorithm(r, source, algorithm, out);
        EXPECT_EQ(bytes_of(out.events), bytes_of(expected.events));
        EXPECT_EQ(source.rewinds, set.startsOver ? 1 : 0);
        EXPECT_EQ(told, set.startsOver ? std::vector<std::string>{kovra::inputOrder_brokenDuringPass}
                                       : std::vector<std::string>{});
        ++compared;
      }
    }
  }
  EXPECT_GT(compared, 60);
}

// One event of 5000 photons, far more than the window of 128 holds: the window grows and the event stays exact.
TEST(ReconstructionStreamingTest, OneEventLongerThanTheWindowStaysExact) {
  std::vector<PhotonEvent> photons;
  for (std::int64_t t = 0; t < 5000; ++t)
    photons.push_back({Length{5 * px}, Length{5 * px + static_cast<std::int32_t>(t % 2) * px}, Time{3 * t}});
  const Reconstruction_Events r{Length{2 * px}, Time{3}, std::nullopt, Time{Time::max_ticks}};
  for (const char* algorithm : algorithms) {
    Trickle_Source source(photons);
    kovra::EventList<Event> out;
    reconstructEvents_switchAlgorithm(r, source, algorithm, out);
    ASSERT_EQ(out.events.size(), 1u) << algorithm;
    EXPECT_EQ(out.events[0].nPhotons, 5000u) << algorithm;
    EXPECT_EQ(bytes_of(out.events),
              bytes_of(reconstructEvents_switchAlgorithm(r, Data_PhotonEvents{photons, {}}, algorithm).events))
        << algorithm;
  }
}

}  // namespace
