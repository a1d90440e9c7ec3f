// The cells that let the reconstruction skip scans, checked against direct tests across the whole 32-bit
// coordinate range, at cell borders and where the range wraps. The cell counts of the no-branch chains: a "no"
// must be true, for cells from one raw unit to half the range wide. The members of a full chain's event, asked
// by cell or through the plain list: the answer must be the one a walk over every member not earlier than `lo`
// gives, for events small and crowded, and distances from zero to beyond the cells' use.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <vector>

#include "RandomPhotons.hpp"
#include "kovra/PhotonSource.hpp"
#include "kovra/PhotonWindow.hpp"
#include "kovra/reconstruction/Cells_EventMembers.hpp"
#include "kovra/reconstruction/Cells_FreePhotons.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::Time;

namespace {

constexpr std::int32_t lowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t highest = std::numeric_limits<std::int32_t>::max();

std::int32_t wrapped(std::int64_t v) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(v)); }

/// |a - b| < dSpace on the 32-bit wrapped difference, as the no-branch chains test it.
bool near(std::int32_t a, std::int32_t b, std::int32_t dSpace) {
  return std::llabs(static_cast<long long>(wrapped(std::int64_t{a} - b))) < dSpace;
}

/// Coordinates that matter for cells of width 2^shift: both ends of the range, zero, and each side of cell
/// borders spread over the range; plus random ones.
std::vector<std::int32_t> coordinates(int shift, std::mt19937& random) {
  std::vector<std::int32_t> values = {lowest, lowest + 1, -1, 0, 1, highest - 1, highest};
  const std::int64_t width = std::int64_t{1} << shift;
  for (const std::int64_t border :
       {std::int64_t{lowest}, std::int64_t{-2} * width, -width, width, 2 * width, std::int64_t{127} * width,
        std::int64_t{128} * width, std::int64_t{highest} + 1 - width}) {
    for (const std::int64_t offset : {std::int64_t{-1}, std::int64_t{0}, std::int64_t{1}}) {
      const std::int64_t v = border + offset;
      if (v >= lowest && v <= highest) values.push_back(static_cast<std::int32_t>(v));
    }
  }
  std::uniform_int_distribution<std::int32_t> any(lowest, highest);
  for (int k = 0; k < 8; ++k) values.push_back(any(random));
  return values;
}

/// Every member not earlier than lo (members are in time order), tested in turn: the formulation the cells must
/// agree with.
bool plainAnyWithin(const std::vector<PhotonEvent>& members, const PhotonEvent& p, Time lo, Length dSpace) {
  for (auto m = members.rbegin(); m != members.rend() && m->toa >= lo; ++m) {
    if (kovra::within_euclidean(m->x - p.x, m->y - p.y, dSpace)) return true;
  }
  return false;
}

struct Case {
  const char* name;
  std::int32_t dSpace;
  std::int64_t around;  // where the photons gather (wrapping at 32 bits)
  std::int32_t spread;  // how far from it they fall on each axis
};

}  // namespace

TEST(CellsFreePhotonsTest, NoIsTrueAcrossTheWholeRangeAndAtCellBorders) {
  std::mt19937 random(17);
  int nearPairs = 0;
  int farNo = 0;
  for (const std::int32_t dSpace : {1, 2, 3, 65536, 5 * 65536, 65537, 1 << 30, highest}) {
    kovra::detail::Cells_FreePhotons<Length> cells{Length{dSpace}};
    // The width the cells get: the least power of two not below dSpace.
    int shift = 0;
    while ((std::int64_t{1} << shift) < dSpace) ++shift;
    const std::vector<std::int32_t> values = coordinates(shift, random);
    for (std::size_t i = 0; i < values.size(); ++i) {
      const PhotonEvent counted{Length{values[i]}, Length{values[(7 * i) % values.size()]}, Time{0}};
      cells.add(counted);
      for (const std::int32_t qx : values) {
        for (const std::int64_t step : {std::int64_t{0}, std::int64_t{dSpace} - 1, -(std::int64_t{dSpace} - 1)}) {
          const auto qy =
              static_cast<std::int32_t>(static_cast<std::uint32_t>(counted.y.value) + static_cast<std::uint32_t>(step));
          const bool isNear = near(qx, counted.x.value, dSpace) && near(qy, counted.y.value, dSpace);
          const bool maybe = cells.any_near(Length{qx}, Length{qy});
          if (isNear) {
            ++nearPairs;
            EXPECT_TRUE(maybe) << "dSpace " << dSpace << ": photon (" << counted.x.value << ", " << counted.y.value
                               << "), query (" << qx << ", " << qy << ")";
          }
          if (!maybe) ++farNo;
        }
      }
      cells.remove(counted);
      // Uncounted again: nothing is near anything.
      EXPECT_FALSE(cells.any_near(counted.x, counted.y)) << "dSpace " << dSpace;
    }
  }
  EXPECT_GT(nearPairs, 1000);
  EXPECT_GT(farNo, 1000) << "the counts must also say no";
}

TEST(RangeFreePhotonsTest, ARangeTakenUpAgainAtASeedHoldsEveryFreePhotonAfterIt) {
  using Window = kovra::PhotonWindow<PhotonEvent>;
  using Range = kovra::detail::Range_FreePhotons<Window, Length, Time>;
  const Length dSpace{8};
  const auto photons = random_photons::generate(5, 3000, random_photons::Disorder::none, false).photonEvents;
  std::mt19937 random(5);
  auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
  kovra::PhotonSource_Memory<PhotonEvent> source(photons, 256);
  Window window(source, kovra::Order_Check::skipped);
  Range range(window, dSpace, kovra::detail::Kept_ByCell::lists);
  const auto nearBoth = [&](const PhotonEvent& a, const PhotonEvent& b) {
    return near(a.x.value, b.x.value, dSpace.value) && near(a.y.value, b.y.value, dSpace.value);
  };
  int checked = 0;
  for (std::size_t i = 0; window.fetch(i); ++i) {
    window.release_before(i);
    // Taken up again every so often, listing or not, as the passes do when a stretch turns crowded.
    if (uniform(0, 40) == 0)
      range.restart_at(i + 1,
                       uniform(0, 1) == 1 ? kovra::detail::Kept_ByCell::lists : kovra::detail::Kept_ByCell::counts);
    range.drop_before(i + 1);
    const Time limit = window[i].toa + Time{60};
    range.extend_to(limit);
    // Every free photon of the range is counted, and listed where the range lists: the first free photon near
    // the seed found through the lists is the one a walk finds.
    std::size_t walk = Range::none;
    for (std::size_t j = i + 1; window.fetch(j) && window[j].toa <= limit; ++j) {
      if (window.is_taken(j)) continue;
      EXPECT_TRUE(range.any_free_near(window[j].x, window[j].y)) << "photon " << j << " at seed " << i;
      if (walk == Range::none && nearBoth(window[j], window[i])) walk = j;
      ++checked;
    }
    if (range.is_listed()) {
      const PhotonEvent seed = window[i];
      EXPECT_EQ(
          range.first_free_near(seed.x, seed.y, i + 1, limit, [&](const PhotonEvent& p) { return nearBoth(p, seed); }),
          walk)
          << "seed " << i;
    }
    // The seed takes a photon now and then, as a chain would.
    if (walk != Range::none && uniform(0, 1) == 0) {
      window.set_taken(walk);
      range.note_taken(walk);
    }
  }
  EXPECT_GT(checked, 10000);
}

TEST(CellsEventMembersTest, BothKindsAnswerAsTheWalkOverRecentMembers) {
  const Case cases[] = {
      {"five pixels, one chip", 5 * 65536, 128 * 65536, 256 * 65536},
      {"five pixels, crowded spot", 5 * 65536, 100 * 65536, 12 * 65536},
      {"five pixels, a few spots", 5 * 65536, 50 * 65536, 24 * 65536},
      {"small raw distance, cell borders", 3, 0, 40},
      {"distance 0", 0, 7, 3},
      {"negative distance reads as its magnitude", -6, 1000, 30},
      {"around the wrap of the coordinates", 2 * 65536, std::int64_t{highest} + 1, 20 * 65536},
      {"around the most negative coordinate", 9, std::int64_t{lowest}, 60},
      {"too wide for cells", 200 * 65536, 0, 1000 * 65536},
  };
  std::mt19937 random(5);
  int asked = 0;
  int yes = 0;
  for (const auto& c : cases) {
    const Length dSpace{c.dSpace};
    kovra::detail::Cells_EventMembers<PhotonEvent> cells(dSpace);
    kovra::detail::Walk_EventMembers<PhotonEvent> walk(dSpace);
    std::uniform_int_distribution<std::int32_t> offset(-c.spread, c.spread);
    const auto photon = [&](std::int64_t t) {
      return PhotonEvent{Length{wrapped(c.around + offset(random))}, Length{wrapped(c.around + offset(random))},
                         Time{t}};
    };
    // Several events in a row: a new one must forget the slots of the one before.
    for (int event = 0; event < 6; ++event) {
      std::int64_t t = 0;
      std::vector<PhotonEvent> members{photon(t)};
      cells.restart(members[0]);
      walk.restart(members[0]);
      // Few or many members in reach; time steps of 0 to 2 make members at exactly lo common.
      const std::int64_t dTime = event % 2 == 0 ? 4 : 400;
      // The last event is long enough for the members older than dTime to leave the list.
      for (int k = 0; k < (event == 5 ? 6000 : 600); ++k) {
        t += std::uniform_int_distribution<int>(0, 2)(random);
        const PhotonEvent offered = photon(t);
        const Time lo{t - dTime};
        const bool expected = plainAnyWithin(members, offered, lo, dSpace);
        ASSERT_EQ(cells.any_within(offered, lo), expected) << c.name << ", event " << event << ", photon " << k;
        ASSERT_EQ(walk.any_within(offered, lo), expected) << c.name << ", event " << event << ", photon " << k;
        ++asked;
        yes += expected ? 1 : 0;
        if (expected || k % 3 == 0) {
          members.push_back(offered);
          cells.add(offered);
          walk.add(offered);
        }
      }
      EXPECT_EQ(cells.size(), members.size());
    }
  }
  // Both answers come up often enough to mean something.
  EXPECT_GT(yes, asked / 10);
  EXPECT_LT(yes, asked - asked / 10);
}

TEST(CellsEventMembersTest, AMemberAtExactlyLoCountsInACrowdedEvent) {
  const Length dSpace{5 * 65536};
  for (const std::int64_t lo : {5, 6}) {
    kovra::detail::Cells_EventMembers<PhotonEvent> cells(dSpace);
    const PhotonEvent alone{Length{0}, Length{0}, Time{5}};
    cells.restart(alone);
    // Many members far away, and a first question that walks through all of them in vain, so that the event
    // gets its cells and the second question goes through them.
    for (std::int64_t t = 10; t < 70; ++t)
      cells.add(PhotonEvent{Length{1000 * 65536}, Length{wrapped(t * 65536)}, Time{t}});
    ASSERT_FALSE(cells.any_within(PhotonEvent{Length{500 * 65536}, Length{35 * 65536}, Time{75}}, Time{lo}));
    EXPECT_EQ(cells.any_within(PhotonEvent{Length{3 * 65536}, Length{4 * 65536}, Time{80}}, Time{lo}), lo == 5) << lo;
  }
}

TEST(CellsEventMembersTest, ALongEventKeepsTheMembersItsNextQuestionsCanReach) {
  // One member per tick, each far from every other; each photon offered at the place of the member exactly
  // dTime earlier, twice at the same time (equal times come up in real data), must find it: members leave the
  // list while the event goes on, but never one a question can still reach.
  const Length dSpace{5 * 65536};
  const std::int64_t dTime = 10;
  const auto member = [](std::int64_t t) {
    return PhotonEvent{Length{wrapped(t % 1500 * 20 * 65536)}, Length{0}, Time{t}};
  };
  const auto check = [&](auto& members) {
    members.restart(member(0));
    for (std::int64_t t = 1; t < 5000; ++t) {
      const Time lo{t - dTime};
      const PhotonEvent offered{member(std::max<std::int64_t>(t - dTime, 0)).x, Length{0}, Time{t}};
      ASSERT_TRUE(members.any_within(offered, lo)) << t;
      members.add(member(t));
      ASSERT_TRUE(members.any_within(offered, lo)) << t;
    }
  };
  kovra::detail::Walk_EventMembers<PhotonEvent> walk(dSpace);
  check(walk);
  kovra::detail::Cells_EventMembers<PhotonEvent> cells(dSpace);
  check(cells);
}
