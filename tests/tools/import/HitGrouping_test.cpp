// The hit grouping against hand-worked cases and against the rule written the plain way.

#include "common/import/HitGrouping.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <tuple>
#include <vector>

#include "GroupingReference.hpp"

using namespace kovra::import;

namespace {

Timed_Item to_item(const Reference_Hit& h) {
  return Timed_Item{h.time, static_cast<std::uint16_t>(h.x), static_cast<std::uint16_t>(h.y),
                    static_cast<std::uint16_t>(h.tot), 0};
}

/// What a grouping gave: the photons in the order written, and each hit's first hit (add_hit's answer).
struct Grouped {
  std::vector<Reference_Photon> photons;
  std::vector<std::size_t> firstHits;
};

Grouped group(const std::vector<Reference_Hit>& hits, unsigned radius, Ticks window, Photon_Time photonTime,
              unsigned size = 256) {
  Hit_Grouping grouping(size, size, radius, window, photonTime);
  Grouped out;
  const auto sink = [&](const Hit_Grouping::Photon& p, std::uint64_t) {
    out.photons.push_back({p.x.value, p.y.value, p.toa.value});
  };
  for (std::size_t i = 0; i < hits.size(); ++i) out.firstHits.push_back(grouping.add_hit(to_item(hits[i]), i, sink));
  grouping.finish(sink);
  return out;
}

/// `count` hits on a `size` x `size` frame, several per tick where hitsPerTick > 1: long chains, shared pixels.
std::vector<Reference_Hit> make_crowdedHits(std::mt19937_64& random, int count, unsigned size, unsigned hitsPerTick) {
  std::vector<Reference_Hit> hits;
  long t = 0;
  for (int i = 0; i < count; ++i) {
    if (random() % hitsPerTick == 0) t += static_cast<long>(random() % 4);
    hits.push_back(
        {t, static_cast<int>(random() % size), static_cast<int>(random() % size), static_cast<unsigned>(random() % 6)});
  }
  return hits;
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
      {"at the frame's corners",
       {{0, 0, 0, 1}, {1, 255, 255, 1}, {2, 1, 1, 1}, {3, 254, 254, 1}, {4, 0, 255, 1}},
       {{32768, 32768, 0}, {254 * px + 32768, 254 * px + 32768, 1}, {0, 255 * px, 4}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(group(c.hits, 1, 100, Photon_Time::strongest).photons, c.photons);
    EXPECT_EQ(group(c.hits, 1, 100, Photon_Time::strongest).photons, group_byRule(c.hits, 1, 100, true));
    EXPECT_EQ(group(c.hits, 1, 100, Photon_Time::earliest).photons, group_byRule(c.hits, 1, 100, false));
  }
}

/// Photon A grows along row y from x0 in steps of r; B opens at x0 + 4r before A gets near; A's hit at B's
/// pixel, at t + 50, puts A over B there (with a window of at least 50). Once A has closed (window 100: after
/// t + 100), a hit at x0 + 5r, at t + 105, is near B's pixel only and joins B (unless left out).
enum class Last_Hit { added, leftOut };
void add_photonOverAnother(std::vector<Reference_Hit>& hits, long t, int x0, int y, int r, Last_Hit last) {
  for (const auto& [dt, dx] : {std::pair{0, 0}, {10, 4}, {20, 1}, {30, 2}, {40, 3}, {50, 4}, {105, 5}}) {
    if (dt < 105 || last == Last_Hit::added) hits.push_back({t + dt, x0 + dx * r, y, 1});
  }
}

TEST(HitGroupingTest, APhotonUnderAClosedOneAtAPixelStillTakesHits) {
  // Radii 1 and 2 look at every pixel of the square, 3 and 5 at the marked ones.
  for (const int r : {1, 2, 3, 5}) {
    SCOPED_TRACE(testing::Message() << "radius " << r);
    std::vector<Reference_Hit> hits;
    add_photonOverAnother(hits, 0, 0, 5, r, Last_Hit::added);
    constexpr int px = 65536;
    const Grouped got = group(hits, static_cast<unsigned>(r), 100, Photon_Time::strongest);
    EXPECT_EQ(got.photons, (std::vector<Reference_Photon>{{2 * r * px, 5 * px, 0}, {9 * r * px / 2, 5 * px, 10}}));
    EXPECT_EQ(got.firstHits, (std::vector<std::size_t>{0, 1, 0, 0, 0, 0, 1}));
  }
}

TEST(HitGroupingTest, APixelWhoseNodeWasReusedHoldsNothing) {
  // The pixel holding A over B at row 5 is left alone; 64 more such pixels elsewhere, each long after the one
  // before, take the 64 places of the ring of nodes in turn without growing it, the last one the place the
  // first pixel's node had. A hit beside that first pixel, while the last B is open, must find it empty: it
  // opens a photon of its own instead of joining the last B, far away.
  for (const int r : {1, 3}) {
    SCOPED_TRACE(testing::Message() << "radius " << r);
    std::vector<Reference_Hit> hits;
    for (int i = 0; i <= 64; ++i) {
      const int x0 = i == 0 ? 0 : 100 + 40 * (i % 8);
      add_photonOverAnother(hits, 1000L * i, x0, i == 0 ? 5 : 10 + 8 * (i / 8), r, Last_Hit::leftOut);
    }
    hits.push_back({64000 + 60, 4 * r, 6, 1});
    std::vector<std::size_t> firstHits;
    const auto expected = group_byRule(hits, r, 100, true, &firstHits);
    const Grouped got = group(hits, static_cast<unsigned>(r), 100, Photon_Time::strongest, 512);
    EXPECT_EQ(got.photons, expected);
    EXPECT_EQ(got.firstHits, firstHits);
    EXPECT_EQ(got.firstHits.back(), hits.size() - 1);
  }
}

TEST(HitGroupingTest, AgreesWithThePlainRuleOnCrowdedRandomHits) {
  // Radius, window, frame side, hits per tick. Several hits per tick on a small frame make long chains, shared
  // pixels and pixels holding several open photons; the long windows keep hundreds of those at once (the ring
  // of nodes grows, and reuses nodes once they have expired). Radii up to 2 look at every pixel around a hit,
  // larger ones at the marked pixels only; small frames put many hits at the edges.
  const std::tuple<unsigned, Ticks, unsigned, unsigned> settings[] = {
      {1, 160, 16, 1},  {0, 50, 8, 2},    {1, 0, 4, 2},     {2, 60, 12, 3},  {3, 40, 20, 2},
      {16, 200, 64, 4}, {1, 3000, 24, 4}, {2, 2000, 40, 8}, {5, 1000, 70, 4}};
  std::mt19937_64 random(17);
  for (const auto& [radius, window, size, hitsPerTick] : settings) {
    SCOPED_TRACE(testing::Message() << "radius " << radius << " window " << window << " size " << size);
    const std::vector<Reference_Hit> hits = make_crowdedHits(random, 20000, size, hitsPerTick);
    for (const bool strongest : {true, false}) {
      std::vector<std::size_t> firstHits;
      const auto expected = group_byRule(hits, static_cast<int>(radius), window, strongest, &firstHits);
      const auto got = group(hits, radius, window, strongest ? Photon_Time::strongest : Photon_Time::earliest, size);
      ASSERT_EQ(got.photons.size(), expected.size());
      EXPECT_EQ(got.photons, expected);
      EXPECT_EQ(got.firstHits, firstHits);
    }
  }
}

TEST(HitGroupingTest, ARestartedGroupingIsAFreshOne) {
  // One grouping object runs over the hits from several places on, each after a restart, in an order that goes
  // back and forth in time; each run must give what a new object gives from there: the same first hits and
  // photons, and, stopped at a hit with finish_closed, the photons of the full run already closed there.
  std::mt19937_64 random(5);
  for (const unsigned radius : {1U, 4U}) {
    SCOPED_TRACE(testing::Message() << "radius " << radius);
    constexpr Ticks window = 40;
    const std::vector<Reference_Hit> hits = make_crowdedHits(random, 6000, 24, 3);
    Hit_Grouping reused(24, 24, radius, window, Photon_Time::strongest);
    for (const std::size_t from : {std::size_t{3000}, std::size_t{100}, std::size_t{5000}, std::size_t{2999}}) {
      SCOPED_TRACE(testing::Message() << "from hit " << from);
      Hit_Grouping fresh(24, 24, radius, window, Photon_Time::strongest);
      std::vector<std::pair<Reference_Photon, std::uint64_t>> fromFresh, fromReused;
      const auto into = [](auto& list) {
        return [&list](const Hit_Grouping::Photon& p, std::uint64_t first) {
          list.push_back({{p.x.value, p.y.value, p.toa.value}, first});
        };
      };
      reused.restart();
      const std::size_t stop = std::min(hits.size(), from + 800);
      for (std::size_t i = from; i < stop; ++i) {
        ASSERT_EQ(reused.add_hit(to_item(hits[i]), i, into(fromReused)),
                  fresh.add_hit(to_item(hits[i]), i, into(fromFresh)));
      }
      reused.finish_closed(into(fromReused));
      fresh.finish(into(fromFresh));
      std::vector<std::pair<Reference_Photon, std::uint64_t>> closedAtStop;
      for (const auto& p : fromFresh) {
        if (hits[p.second].time + window < hits[stop - 1].time) closedAtStop.push_back(p);
      }
      EXPECT_EQ(fromReused, closedAtStop);
      EXPECT_LT(closedAtStop.size(), fromFresh.size());
    }
  }
}

}  // namespace
