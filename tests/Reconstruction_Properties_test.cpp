// The four algorithms on seeded random photon lists: each against a slow formulation written plainly here
// (member lists, no bits, no early exits), and the invariants that hold between and across them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Spidr.hpp"
#include "reconstructEvents_switchAlgorithm.hpp"

using kovra::tpx3spidr::Data_Events;
using kovra::tpx3spidr::Data_PhotonEvents;
using kovra::tpx3spidr::Event;
using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::Reconstruction_Events;
using kovra::tpx3spidr::Time;

namespace {

/// Photons on a coarse grid with small, often equal time gaps, so that equal distances and equal times (the
/// boundaries of every test) come up often.
Data_PhotonEvents generate(unsigned seed, std::size_t n) {
  std::mt19937 random(seed);
  auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
  std::vector<PhotonEvent> list;
  long t = uniform(-50, 50);
  for (std::size_t i = 0; i < n; ++i) {
    t += uniform(0, 3) == 0 ? 0 : uniform(0, 6);
    list.push_back(PhotonEvent{Length{uniform(0, 12) * 4}, Length{uniform(0, 12) * 4}, Time{t}});
  }
  return Data_PhotonEvents{std::move(list), std::vector<Time>{Time{t}}};
}

struct Settings {
  int dSpace;
  long dTime;
  long durationMax;
  std::optional<double> factor;
};
const Settings settingsTable[] = {
    {8, 5, Time::max_ticks, std::nullopt}, {8, 5, 12, 0.5},  {16, 3, 40, 1.0},  {12, 6, 0, std::nullopt},
    {4, 0, Time::max_ticks, 2.5},          {20, 8, 25, -0.3}, {8, 5, 12, 0.0},  {24, 10, 60, 0.25},
    // Crowded windows (a dozen photons and more), where the chains keep extra bookkeeping.
    {8, 30, Time::max_ticks, std::nullopt}, {12, 40, 50, 0.5},  {8, 90, 120, 0.1},
};

Reconstruction_Events make(const Settings& s) {
  return Reconstruction_Events{Length{s.dSpace}, Time{s.dTime}, s.factor, Time{s.durationMax}};
}

// --- The plain formulations. Positions stay small, so long arithmetic equals the 32-bit one. ---

long x(const PhotonEvent& p) { return p.x.value; }
long y(const PhotonEvent& p) { return p.y.value; }
long t(const PhotonEvent& p) { return p.toa.value; }
long distance2(const PhotonEvent& a, const PhotonEvent& b) {
  return (x(a) - x(b)) * (x(a) - x(b)) + (y(a) - y(b)) * (y(a) - y(b));
}

/// An event from its photons in the order they joined: running truncating mean, running pulse-shape mean.
Event eventOf(const std::vector<PhotonEvent>& p, const std::vector<std::size_t>& members) {
  long mx = x(p[members[0]]);
  long my = y(p[members[0]]);
  double v = 0.0;
  const double s0 = p[members[0]].toa.get_seconds();
  for (std::size_t k = 1; k < members.size(); ++k) {
    const auto n = static_cast<long>(k + 1);
    mx += (x(p[members[k]]) - mx) / n;
    my += (y(p[members[k]]) - my) / n;
    v = (v * static_cast<double>(k) + (p[members[k]].toa.get_seconds() - s0)) / static_cast<double>(k + 1);
  }
  return Event{Length{static_cast<int>(mx)}, Length{static_cast<int>(my)}, p[members[0]].toa, members.size(), v};
}

std::vector<Event> plainFullChain(const std::vector<PhotonEvent>& p, const Settings& s) {
  std::vector<Event> events;
  std::vector<long> eventOfPhoton(p.size(), -1);
  for (std::size_t seed = 0; seed < p.size(); ++seed) {
    if (eventOfPhoton[seed] >= 0) continue;
    const auto e = static_cast<long>(events.size());
    std::vector<std::size_t> members{seed};
    eventOfPhoton[seed] = e;
    const long cap = t(p[seed]) + s.durationMax;
    long reach = t(p[seed]) + s.dTime;
    for (std::size_t j = seed + 1; j < p.size() && t(p[j]) <= std::min(reach, cap); ++j) {
      if (eventOfPhoton[j] >= 0) continue;
      const bool touches = std::any_of(members.begin(), members.end(), [&](std::size_t m) {
        return t(p[m]) >= t(p[j]) - s.dTime && t(p[m]) <= t(p[j]) && distance2(p[m], p[j]) <= long{s.dSpace} * s.dSpace;
      });
      if (!touches) continue;
      members.push_back(j);
      eventOfPhoton[j] = e;
      reach = std::max(reach, std::min(t(p[j]) + s.dTime, cap));
    }
    events.push_back(eventOf(p, members));
  }
  return events;
}

/// The full chain with its neighbour search spelled out index by index, as it behaves on input out of order.
/// `aborts` is set when a photon earlier than its seed joins.
std::vector<Event> plainFullChainWalk(const std::vector<PhotonEvent>& p, const Settings& s, bool* aborts) {
  std::vector<Event> events;
  std::vector<long> eventOfPhoton(p.size(), -1);
  for (std::size_t seed = 0; seed < p.size(); ++seed) {
    if (eventOfPhoton[seed] >= 0) continue;
    const auto e = static_cast<long>(events.size());
    std::vector<std::size_t> members{seed};
    eventOfPhoton[seed] = e;
    const long cap = t(p[seed]) + s.durationMax;
    long reach = t(p[seed]) + s.dTime;
    for (std::size_t j = seed + 1; j < p.size() && t(p[j]) <= std::min(reach, cap); ++j) {
      if (eventOfPhoton[j] >= 0) continue;
      const long lo = t(p[j]) - s.dTime;
      const long hi = std::min(t(p[j]) + s.dTime, cap);
      std::size_t k = j - 1;
      while (k > seed && t(p[k - 1]) >= lo) --k;
      bool touches = false;
      for (; k < p.size() && t(p[k]) <= hi && !touches; ++k) {
        touches = eventOfPhoton[k] == e && distance2(p[k], p[j]) <= long{s.dSpace} * s.dSpace;
      }
      if (!touches) continue;
      if (t(p[j]) < t(p[seed])) *aborts = true;
      members.push_back(j);
      eventOfPhoton[j] = e;
      reach = std::max(reach, std::min(t(p[j]) + s.dTime, cap));
    }
    events.push_back(eventOf(p, members));
  }
  return events;
}

std::vector<Event> plainForwardChain(const std::vector<PhotonEvent>& p, const Settings& s) {
  std::vector<std::vector<std::size_t>> chains;
  std::vector<std::size_t> chainOfPhoton(p.size());
  for (std::size_t i = 0; i < p.size(); ++i) {
    std::optional<std::size_t> chosen;
    for (std::size_t j = i; j-- > 0 && t(p[i]) - t(p[j]) <= s.dTime;) {
      const auto& chain = chains[chainOfPhoton[j]];
      if (distance2(p[i], p[j]) <= long{s.dSpace} * s.dSpace && t(p[i]) - t(p[chain[0]]) <= s.durationMax) {
        chosen = chainOfPhoton[j];
        break;
      }
    }
    if (!chosen) {
      chosen = chains.size();
      chains.emplace_back();
    }
    chains[*chosen].push_back(i);
    chainOfPhoton[i] = *chosen;
  }
  std::vector<Event> events;
  for (const auto& chain : chains) events.push_back(eventOf(p, chain));
  return events;
}

/// `aborts`, when given, is set when a photon earlier than its seed joins (the real algorithm asserts there).
std::vector<Event> plainNoBranchChain(const std::vector<PhotonEvent>& p, const Settings& s, bool ghosts,
                                      bool* aborts = nullptr) {
  std::vector<Event> events;
  std::vector<bool> taken(p.size(), false);
  const double f = s.factor.value_or(0.0);
  for (std::size_t seed = 0; seed < p.size(); ++seed) {
    const bool seedTaken = taken[seed];
    if (seedTaken && !ghosts) continue;
    if (!ghosts) taken[seed] = true;
    std::vector<std::size_t> members{seed};
    long d = s.dTime;
    const long cap = t(p[seed]) + s.durationMax;
    for (std::size_t j = seed + 1; j < p.size() && t(p[j]) <= std::min(t(p[members.back()]) + d, cap); ++j) {
      const auto& last = p[members.back()];
      if (taken[j] || std::abs(x(last) - x(p[j])) >= s.dSpace || std::abs(y(last) - y(p[j])) >= s.dSpace) continue;
      if (aborts && t(p[j]) < t(p[seed])) *aborts = true;
      d += static_cast<long>(static_cast<double>(t(p[j]) - t(last)) * f);
      members.push_back(j);
      taken[j] = true;
    }
    if (members.size() > 1 || !seedTaken) events.push_back(eventOf(p, members));
  }
  return events;
}

// --- Comparison ---

bool sameEvents(const std::vector<Event>& a, const std::vector<Event>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const Event& l, const Event& r) {
    return l.x == r.x && l.y == r.y && l.t == r.t && l.nPhotons == r.nPhotons && l.psd == r.psd;
  });
}

std::uint64_t photonCount(const Data_Events& data) {
  std::uint64_t sum = 0;
  for (const auto& e : data.events) sum += e.nPhotons;
  return sum;
}

/// Runs an algorithm with its output captured, so that warnings do not clutter the test log.
template <typename Run>
Data_Events quietly(Run run, std::string* printed = nullptr) {
  testing::internal::CaptureStdout();
  auto result = run();
  const std::string out = testing::internal::GetCapturedStdout();
  if (printed) *printed = out;
  return result;
}

}  // namespace

TEST(ReconstructionPropertiesTest, AlgorithmsMatchPlainFormulations) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    const auto photons = generate(seed, 300);
    const auto& p = photons.photonEvents;
    for (const auto& s : settingsTable) {
      const auto r = make(s);
      SCOPED_TRACE(testing::Message() << "seed " << seed << ", dSpace " << s.dSpace << ", dTime " << s.dTime
                                      << ", durationMax " << s.durationMax << ", factor " << s.factor.value_or(0));
      EXPECT_TRUE(sameEvents(quietly([&] { return r.reconstruct_fullChain_direct(photons); }).events,
                             plainFullChain(p, s)));
      EXPECT_TRUE(sameEvents(quietly([&] { return r.reconstruct_forwardChain_photonBuildup(photons); }).events,
                             plainForwardChain(p, s)));
      EXPECT_TRUE(sameEvents(r.reconstruct_noBranchChain_direct(photons).events, plainNoBranchChain(p, s, false)));
      EXPECT_TRUE(sameEvents(r.reconstruct_noBranchChain_ghostPhoton_direct(photons).events,
                             plainNoBranchChain(p, s, true)));
    }
  }
}

TEST(ReconstructionPropertiesTest, InvariantsOnRandomLists) {
  for (unsigned seed = 100; seed < 110; ++seed) {
    const auto photons = generate(seed, 2000);
    const std::uint64_t n = photons.size();
    for (const auto& s : settingsTable) {
      const auto r = make(s);
      auto withoutFactor = s;
      withoutFactor.factor.reset();
      auto zeroFactor = s;
      zeroFactor.factor = 0.0;
      SCOPED_TRACE(testing::Message() << "seed " << seed << ", durationMax " << s.durationMax);

      std::string printed;
      const auto full = quietly([&] { return r.reconstruct_fullChain_direct(photons); }, &printed);
      EXPECT_EQ(printed.empty(), !s.factor.has_value());
      const auto forward = quietly([&] { return r.reconstruct_forwardChain_photonBuildup(photons); }, &printed);
      EXPECT_EQ(printed.empty(), !s.factor.has_value());
      const auto noBranch = r.reconstruct_noBranchChain_direct(photons);
      const auto ghost = r.reconstruct_noBranchChain_ghostPhoton_direct(photons);

      EXPECT_EQ(photonCount(full), n);
      EXPECT_EQ(photonCount(forward), n);
      EXPECT_EQ(photonCount(noBranch), n);
      EXPECT_GE(photonCount(ghost), n);
      for (const auto* result : {&full, &forward, &noBranch, &ghost}) {
        EXPECT_TRUE(std::is_sorted(result->events.begin(), result->events.end(),
                                   [](const Event& a, const Event& b) { return a.t < b.t; }));
        EXPECT_EQ(result->extTriggers, photons.extTriggers);
      }
      EXPECT_TRUE(sameEvents(ghost.events, reconstructEvents_switchAlgorithm(r, photons, "default").events));

      // The full and forward chains ignore the factor; the no-branch chains read an absent one as 0.0.
      const auto plain = make(withoutFactor);
      EXPECT_TRUE(sameEvents(full.events, plain.reconstruct_fullChain_direct(photons).events));
      EXPECT_TRUE(sameEvents(forward.events, plain.reconstruct_forwardChain_photonBuildup(photons).events));
      const auto zero = make(zeroFactor);
      EXPECT_TRUE(sameEvents(zero.reconstruct_noBranchChain_direct(photons).events,
                             plain.reconstruct_noBranchChain_direct(photons).events));
      EXPECT_TRUE(sameEvents(zero.reconstruct_noBranchChain_ghostPhoton_direct(photons).events,
                             plain.reconstruct_noBranchChain_ghostPhoton_direct(photons).events));
    }
  }
}

TEST(ReconstructionPropertiesTest, OutOfOrderInputWalksEveryPhoton) {
  // Lists with some neighbours swapped: the chains must compare exactly the photons that a plain walk compares.
  // Lists on which a photon earlier than its seed would join (where the algorithms abort) are left out.
  int compared = 0;
  for (unsigned seed = 200; seed < 260; ++seed) {
    auto photons = generate(seed, 200);
    std::mt19937 random(seed);
    for (std::size_t i = 0; i + 1 < photons.size(); ++i) {
      if (random() % 8 == 0) std::swap(photons.photonEvents[i], photons.photonEvents[i + 1]);
    }
    for (const auto& s : settingsTable) {
      const auto r = make(s);
      const auto& p = photons.photonEvents;
      bool aborts = false;
      auto expected = plainNoBranchChain(p, s, false, &aborts);
      if (!aborts) {
        EXPECT_TRUE(sameEvents(r.reconstruct_noBranchChain_direct(photons).events, expected)) << seed;
        ++compared;
      }
      aborts = false;
      expected = plainNoBranchChain(p, s, true, &aborts);
      if (!aborts) {
        EXPECT_TRUE(sameEvents(r.reconstruct_noBranchChain_ghostPhoton_direct(photons).events, expected)) << seed;
        ++compared;
      }
      aborts = false;
      expected = plainFullChainWalk(p, s, &aborts);
      if (!aborts) {
        EXPECT_TRUE(sameEvents(quietly([&] { return r.reconstruct_fullChain_direct(photons); }).events, expected))
            << seed;
        ++compared;
      }
    }
  }
  EXPECT_GT(compared, 300);
}
