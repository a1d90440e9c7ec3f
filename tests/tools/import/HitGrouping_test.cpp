// The hit grouping against hand-worked cases and against the rule written the plain way.

#include "import/HitGrouping.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <tuple>
#include <vector>

#include "GroupingReference.hpp"

using namespace kovra::import;

namespace {

std::vector<Reference_Photon> group(const std::vector<Reference_Hit>& hits, unsigned radius, Ticks window,
                                    Photon_Time photonTime, unsigned size = 256) {
  Hit_Grouping grouping(size, size, radius, window, photonTime);
  std::vector<Reference_Photon> out;
  const auto sink = [&](const Hit_Grouping::Photon& p) { out.push_back({p.x.value, p.y.value, p.toa.value}); };
  for (const auto& h : hits) {
    grouping.add_hit(Timed_Item{h.time, static_cast<std::uint16_t>(h.x), static_cast<std::uint16_t>(h.y),
                                static_cast<std::uint16_t>(h.tot), 0},
                     sink);
  }
  grouping.finish(sink);
  return out;
}

TEST(HitGroupingTest, HandWorkedCases) {
  constexpr int px = 65536;
  struct Case {
    const char* what;
    std::vector<Reference_Hit> hits;  // in time order
    std::vector<Reference_Photon> photons;
  };
  const Case cases[] = {
      {"one hit is one photon at its pixel", {{10, 3, 4, 7}}, {{3 * px, 4 * px, 10}}},
      {"ToT-weighted mean, time of the strongest hit", {{10, 3, 4, 1}, {12, 4, 4, 3}}, {{3 * px + 49152, 4 * px, 12}}},
      {"the earliest of equal ToTs", {{10, 3, 4, 5}, {12, 4, 4, 5}}, {{3 * px + 32768, 4 * px, 10}}},
      {"a mean of a third rounds to the nearest unit", {{0, 0, 0, 2}, {1, 1, 0, 1}}, {{21845, 0, 0}}},
      {"a half rounds up", {{0, 0, 0, 1}, {1, 1, 0, 0}, {2, 0, 0, 0}, {3, 1, 1, 1}}, {{32768, 32768, 0}}},
      {"all ToTs zero: the plain mean", {{0, 0, 0, 0}, {1, 1, 1, 0}}, {{32768, 32768, 0}}},
      {"two pixels away is another photon", {{0, 0, 0, 1}, {1, 2, 0, 1}}, {{0, 0, 0}, {2 * px, 0, 1}}},
      {"exactly the window after the first hit still joins", {{0, 5, 5, 1}, {100, 6, 6, 1}}, {{360448, 360448, 0}}},
      {"one tick later opens a new photon",
       {{0, 5, 5, 1}, {101, 6, 6, 1}},
       {{5 * px, 5 * px, 0}, {6 * px, 6 * px, 101}}},
      {"a chain of neighbours grows one photon",
       {{0, 0, 0, 1}, {1, 1, 0, 1}, {2, 2, 0, 1}, {3, 3, 0, 1}},
       {{98304, 0, 0}}},
      {"between two photons, the earlier-opened one takes the hit",
       {{0, 0, 0, 1}, {1, 2, 0, 1}, {2, 1, 0, 1}},
       {{32768, 0, 0}, {2 * px, 0, 1}}},
      {"a photon whose time is later comes out after a later-opened one",
       {{0, 0, 0, 1}, {5, 9, 9, 1}, {90, 1, 1, 9}},
       {{9 * px, 9 * px, 5}, {58982, 58982, 90}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(group(c.hits, 1, 100, Photon_Time::strongest), c.photons);
    EXPECT_EQ(group(c.hits, 1, 100, Photon_Time::strongest), group_byRule(c.hits, 1, 100, true));
    EXPECT_EQ(group(c.hits, 1, 100, Photon_Time::earliest), group_byRule(c.hits, 1, 100, false));
  }
}

TEST(HitGroupingTest, AgreesWithThePlainRuleOnCrowdedRandomHits) {
  // Radius, window, frame side, hits per tick: several hits per tick on a small frame make long chains and shared
  // pixels.
  const std::tuple<unsigned, Ticks, unsigned, unsigned> settings[] = {
      {1, 160, 16, 1}, {0, 50, 8, 2}, {1, 0, 4, 2}, {16, 200, 64, 4}};
  std::mt19937_64 random(17);
  for (const auto& [radius, window, size, hitsPerTick] : settings) {
    SCOPED_TRACE(testing::Message() << "radius " << radius << " window " << window << " size " << size);
    std::vector<Reference_Hit> hits;
    long t = 0;
    for (int i = 0; i < 20000; ++i) {
      if (random() % hitsPerTick == 0) t += static_cast<long>(random() % 4);
      hits.push_back({t, static_cast<int>(random() % size), static_cast<int>(random() % size),
                      static_cast<unsigned>(random() % 6)});
    }
    for (const bool strongest : {true, false}) {
      const auto expected = group_byRule(hits, static_cast<int>(radius), window, strongest);
      const auto got = group(hits, radius, window, strongest ? Photon_Time::strongest : Photon_Time::earliest, size);
      ASSERT_EQ(got.size(), expected.size());
      EXPECT_EQ(got, expected);
    }
  }
}

TEST(HitGroupingTest, HitsBeyondTheFirstSixteenOfAPhotonStillCount) {
  // A photon keeps its first 16 hits at hand and finds later ones through the hits of each pixel. Photon A opens
  // first; photon B grows along row 5, one pixel a tick, to 20 hits; a last hit two rows below B's hit number n
  // lies near B's hits around n only, or (besideA) near A's hit too, which then takes it, having opened first.
  for (const int n : {8, 9, 15, 16, 17, 20}) {
    for (const bool besideA : {false, true}) {
      SCOPED_TRACE(testing::Message() << "below hit " << n << (besideA ? ", and beside photon A" : ""));
      std::vector<Reference_Hit> hits = {{0, besideA ? n : 100, besideA ? 1 : 100, 1}};
      for (int i = 1; i <= 20; ++i) hits.push_back({i, i, 5, static_cast<unsigned>(i % 3)});
      hits.push_back({30, n, 3, 2});
      EXPECT_EQ(group(hits, 2, 100, Photon_Time::strongest), group_byRule(hits, 2, 100, true));
      EXPECT_EQ(group(hits, 2, 100, Photon_Time::strongest).size(), 2u);
    }
  }
}

}  // namespace
