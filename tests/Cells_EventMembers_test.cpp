// The members of a full chain's event, asked by cell or through the plain list: the answer must be the one a
// walk over every member not earlier than `lo` gives, for events small and crowded, members near cell borders
// and where the 32-bit coordinates wrap, and distances from zero to beyond the cells' use.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "kovra/reconstruction/Cells_EventMembers.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::Time;

namespace {

constexpr std::int32_t lowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t highest = std::numeric_limits<std::int32_t>::max();

std::int32_t wrapped(std::int64_t v) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(v)); }

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
