#pragma once

// The members of the event a full chain is building, on time-ordered input, with the question the chain asks
// of them for every photon it offers: does a member not earlier than `lo` lie within dSpace (Euclidean, <=)?
// The members are kept in the order they joined, which is time order, in one of two ways with one interface:
//
// - Walk_EventMembers, a plain list gone through from its first member not earlier than `lo`: cheapest where
//   flashes rarely overlap in time, so that an event is offered mostly its own photons.
// - Cells_EventMembers, for crowded data: a photon outside the box around all members (widened by dSpace) is
//   turned away at once. Otherwise the recent members are gone through in order, which finds a neighbour at once
//   in the usual compact flash. Only an event where that walk keeps coming back empty-handed over many members (a
//   spread-out event, many photons of other flashes inside its box) gets a grid of cells, built then from the
//   members it has and kept from then on, so that an offered photon looks only at the members around it.

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "kovra/Quantities.hpp"

namespace kovra::detail {

/// Above this many members not earlier than `lo`, an event that has its cells asks through them. Measured on 10
/// million photons of the dense and nominal benchmark datasets (-s 5 -t 5e-7 -D 2e-6, processor seconds), with
/// cells kept for every event and without the box test: always cells 1.01 / 0.39, from 3 on 0.93 / 0.37, from 8
/// on 0.90 / 0.35, from 32 on 1.05 / 0.41, never 2.0 / 0.39.
inline constexpr std::size_t eventMembers_cellsFrom = 8;

/// An event gets its cells once one walk through its recent members has tested this many of them without finding
/// a neighbour. Keeping cells for every event cost the compact flashes of the sparse benchmark dataset (20 million
/// photons, -s 5 -t 5e-7 -D 2e-6) 0.42 processor seconds against 0.30 without cells, and with the box test the
/// walk alone was faster on the nominal (0.39 against 0.50) and dense (0.76 against 0.92) datasets too.
inline constexpr std::uint64_t eventMembers_walkBeforeCells = 32;

/// Below this many photons, on average, within dTime after a photon (Crowding_Judge), the full chain keeps its
/// members in the plain list. Measured on 20 million photons of each benchmark dataset (-s 5 -t 5e-7 -D 2e-6,
/// processor seconds, plain list / cells): sparse (8 to 16 photons per window) 0.22 / 0.31, nominal (24 to 32)
/// 0.75 / 0.41, dense 0.81 / 0.80, hot spot 0.99 / 0.63; every threshold from 16 to 24 tells them apart.
inline constexpr std::size_t eventMembers_crowdedFrom = 16;

/// Members earlier than lo are never read again: once there are at least this many and they are most of the
/// list, they leave it, so that a long event (a hot pixel with an unlimited durationMax, say) holds only its
/// recent members. The count only spares short events the move; no answer depends on it.
inline constexpr std::size_t eventMembers_dropFrom = 1024;

/// The members as a plain list, walked from the first member not earlier than `lo`.
template <typename PhotonEvent_Type>
class Walk_EventMembers {
 public:
  using Length_Type = typename PhotonEvent_Type::length_type;
  using Time_Type = typename PhotonEvent_Type::time_type;

  explicit Walk_EventMembers(Length_Type dSpace_) : dSpace(dSpace_) {}

  void restart(const PhotonEvent_Type& seed) {
    members.clear();
    firstRecent = 0;
    members.push_back(seed);
  }

  void add(const PhotonEvent_Type& p) {
    if (firstRecent >= eventMembers_dropFrom && 2 * firstRecent >= members.size()) {
      members.erase(members.begin(), members.begin() + static_cast<std::ptrdiff_t>(firstRecent));
      firstRecent = 0;
    }
    members.push_back(p);
  }

  /// As Cells_EventMembers::any_within, under the same conditions.
  bool any_within(const PhotonEvent_Type& p, Time_Type lo) {
    while (firstRecent < members.size() && members[firstRecent].toa < lo) ++firstRecent;
    for (std::size_t m = firstRecent; m < members.size(); ++m) {
      if (within_euclidean(members[m].x - p.x, members[m].y - p.y, dSpace)) return true;
    }
    return false;
  }

 private:
  Length_Type dSpace;
  std::vector<PhotonEvent_Type> members;  // reused from event to event
  std::size_t firstRecent = 0;            // the first member not earlier than the latest lo
};

template <typename PhotonEvent_Type>
class Cells_EventMembers {
 public:
  using Length_Type = typename PhotonEvent_Type::length_type;
  using Time_Type = typename PhotonEvent_Type::time_type;

  /// Cells are wider than 2 |dSpace| on each axis (a power of two of units), so the positions within dSpace of
  /// a point reach at most one cell further on each axis, on the side the point is near: at most 2 x 2 cells
  /// hold every member within dSpace of it, with the distances wrapping at 32 bits as the Euclidean test does.
  /// The cell grid is folded onto 64 x 64 slots (low bits of the cell numbers): cells 64 apart share a slot,
  /// which only adds members to look at, each of them tested in full. Distances of 2^22 units and more (64
  /// pixels) leave so few cells that the grid is never used.
  explicit Cells_EventMembers(Length_Type dSpace_)
      : dSpace(dSpace_),
        radius(static_cast<std::uint32_t>(std::min<std::int64_t>(dSpace_.abs(), std::int64_t{1} << 30))),
        shift(static_cast<int>(std::bit_width(2 * std::uint64_t{radius}))),
        useCells(shift <= 23),
        heads(side * side, Slot{}) {}

  /// Starts a new event with one member.
  void restart(const PhotonEvent_Type& seed) {
    members.clear();
    dropped = 0;
    firstRecent = 0;
    indexed = false;
    if (++event == 0) {  // the number wrapped: slots stamped by earlier events could look current, so clear all
      std::fill(heads.begin(), heads.end(), Slot{});
      event = 1;
    }
    add(seed);
  }

  void add(const PhotonEvent_Type& p) {
    if (size() == 0) {
      low = high = Box{p.x.value, p.y.value};
    } else {
      low = Box{std::min<std::int64_t>(low.x, p.x.value), std::min<std::int64_t>(low.y, p.y.value)};
      high = Box{std::max<std::int64_t>(high.x, p.x.value), std::max<std::int64_t>(high.y, p.y.value)};
    }
    widen_box();
    members.push_back(Member{p.x, p.y, p.toa, none});
    if (indexed) link(size() - 1);
  }

  /// Whether a member not earlier than `lo` lies within dSpace of p. The members must have joined in time
  /// order and `lo` must not decrease from one call to the next within an event (both hold on ordered input:
  /// lo is the offered photon's time minus dTime): members earlier than lo are then never asked about again.
  [[gnu::always_inline]] bool any_within(const PhotonEvent_Type& p, Time_Type lo) {
    if (outside_box(p)) return false;
    while (firstRecent < size() && at(firstRecent).toa < lo) ++firstRecent;
    drop_old();
    if (!indexed || size() - firstRecent <= eventMembers_cellsFrom) {
      for (std::uint64_t m = firstRecent; m < size(); ++m) {
        if (within_euclidean(at(m).x - p.x, at(m).y - p.y, dSpace)) return true;
      }
      // A long fruitless walk: from now on this event keeps its members in cells as well.
      if (!indexed && useCells && size() - firstRecent > eventMembers_walkBeforeCells) {
        for (std::uint64_t m = dropped; m < size(); ++m) link(m);
        indexed = true;
      }
      return false;
    }
    // Each slot's members are linked latest first, so a slot is left at its first member earlier than lo:
    // all that follow are earlier still. Together the slots of the (up to) 2 x 2 cells hold every member near
    // p, so exactly the members the loop above would find within dSpace are found here.
    const auto [x0, x1] = cells_near(p.x);
    const auto [y0, y1] = cells_near(p.y);
    for (std::uint32_t cx = x0;; cx = x1) {
      for (std::uint32_t cy = y0;; cy = y1) {
        const Slot& slot = heads[slot_of(cx, cy)];
        if (slot.event == event) {
          // Members dropped from the list were earlier than lo, so the walk would have stopped there too.
          for (std::uint64_t m = slot.last; m != none && m >= dropped && at(m).toa >= lo; m = at(m).previous) {
            if (within_euclidean(at(m).x - p.x, at(m).y - p.y, dSpace)) return true;
          }
        }
        if (cy == y1) break;
      }
      if (cx == x1) break;
    }
    return false;
  }

  /// Members of the event so far (including those dropped from memory).
  std::uint64_t size() const { return dropped + members.size(); }

 private:
  static constexpr std::uint32_t side = 64;  // a power of two: folding keeps neighbouring cells adjacent
  static constexpr std::uint64_t none = ~std::uint64_t{0};

  struct Member {
    Length_Type x;
    Length_Type y;
    Time_Type toa;
    std::uint64_t previous;  // the member before it in the same slot, or none
  };
  /// The latest member in a slot; valid only when `event` is the current one, so a new event clears nothing.
  struct Slot {
    std::uint32_t event = 0;
    std::uint64_t last = none;
  };

  /// The cell number along one axis, modulo 2^(32 - shift): wrapping like the 32-bit differences.
  std::uint32_t cell_of(Length_Type v) const {
    return static_cast<std::uint32_t>(static_cast<std::uint32_t>(v.value) >> shift);
  }
  /// Files member m, the latest so far in its slot, under its cell: it points to the member before it there.
  void link(std::uint64_t m) {
    Member& member = members[static_cast<std::size_t>(m - dropped)];
    Slot& slot = heads[slot_of(cell_of(member.x), cell_of(member.y))];
    member.previous = slot.event == event ? slot.last : none;
    slot = Slot{event, m};
  }

  /// Member m (counted from the event's first), which must not have been dropped.
  const Member& at(std::uint64_t m) const { return members[static_cast<std::size_t>(m - dropped)]; }

  /// Drops the members earlier than the latest lo (see eventMembers_dropFrom).
  void drop_old() {
    const std::uint64_t old = firstRecent - dropped;
    if (old < eventMembers_dropFrom || 2 * old < members.size()) return;
    members.erase(members.begin(), members.begin() + static_cast<std::ptrdiff_t>(old));
    dropped = firstRecent;
  }

  /// A corner of the box around all members, in plain (unwrapped) coordinates.
  struct Box {
    std::int64_t x;
    std::int64_t y;
  };

  /// True only when no member lies within dSpace of p: p is more than |dSpace| outside the box around all
  /// members on one axis. Decided only where the box widened by |dSpace| stays inside the 32-bit range: then a
  /// wrapped difference within |dSpace| is a plain one too, so a member that near lies inside the widened box.
  /// (A full chain's event is mostly one compact flash, while most photons it is offered belong to others.)
  bool outside_box(const PhotonEvent_Type& p) const {
    return p.x.value < nearLow.x || p.x.value > nearHigh.x || p.y.value < nearLow.y || p.y.value > nearHigh.y;
  }
  /// The box widened by |dSpace|, for outside_box(); where it leaves the 32-bit range it decides nothing and
  /// becomes the whole range instead, which no position lies outside of.
  void widen_box() {
    constexpr std::int64_t lowest = std::numeric_limits<std::int32_t>::min();
    constexpr std::int64_t highest = std::numeric_limits<std::int32_t>::max();
    const std::int64_t r = dSpace.abs();
    nearLow = Box{low.x - r, low.y - r};
    nearHigh = Box{high.x + r, high.y + r};
    if (nearLow.x < lowest || nearLow.y < lowest || nearHigh.x > highest || nearHigh.y > highest) {
      nearLow = Box{lowest, lowest};
      nearHigh = Box{highest, highest};
    }
  }

  /// The first and last cell holding positions within dSpace of v along one axis (equal when one does).
  std::pair<std::uint32_t, std::uint32_t> cells_near(Length_Type v) const {
    const auto u = static_cast<std::uint32_t>(v.value);
    const std::uint32_t cell = u >> shift;
    const std::uint32_t offset = u & ((std::uint32_t{1} << shift) - 1);
    if (offset < radius) return {cell - 1, cell};
    if (offset + radius >= (std::uint32_t{1} << shift)) return {cell, cell + 1};
    return {cell, cell};
  }
  /// Cell numbers wrap at 2^(32 - shift), a multiple of side (shift <= 23), so taking the low bits keeps the
  /// cells on either side of a wrap adjacent too.
  static std::size_t slot_of(std::uint32_t cx, std::uint32_t cy) {
    return static_cast<std::size_t>((cx & (side - 1)) * side + (cy & (side - 1)));
  }

  Length_Type dSpace;
  std::uint32_t radius;  // |dSpace|, held below 2^30 (beyond 2^22 the cells are not used)
  int shift;
  bool useCells;
  std::vector<Slot> heads;
  std::vector<Member> members;
  Box low{0, 0};      // the least coordinates of all members
  Box high{0, 0};     // the largest
  Box nearLow{0, 0};  // the box widened by |dSpace| (see widen_box)
  Box nearHigh{0, 0};
  std::uint64_t dropped = 0;      // members before this one are no longer in `members`
  std::uint64_t firstRecent = 0;  // the first member not earlier than the latest lo
  std::uint32_t event = 0;        // the current event's number; slots of no event hold 0
  bool indexed = false;           // the current event's members are filed in the cells
};

}  // namespace kovra::detail
