#pragma once

// Which open photon a hit joins, found from the pixels around it: per pixel, the photons holding a hit there.
//
// Photons are numbered in opening order (the grouping's sequence numbers, from 1), and the open ones are exactly
// those numbered from the grouping's oldest open photon on: photons close in opening order. A hit joins the
// lowest-numbered open photon holding a hit within the radius, so the answer is the least open number over the
// pixels of the square around the hit.
//
// Why one number per pixel nearly always suffices: at a pixel q, the open photons holding hits there are
// numbered lower the later their hit at q came. A hit h at q that arrives while photon P, holding an earlier hit
// at q, is still open joins P or a photon opened before P, since P holds a hit at distance 0. So the open
// numbers at q, latest hit first, only grow: a stack with the least on top. A number is pushed when a hit at q
// joins a photon numbered below the top, popped when its photon has closed (below the oldest open number, which
// then lies below every number under it too, so popping from the top alone is exact). The top, once popped
// down to an open number, is the least open number at q. Deeper entries live in a ring of nodes; a node pushed
// at time T holds photons that had a hit at q by T, so all of them have closed once the time is past T + window,
// and only then may its place in the ring be reused (the ring doubles otherwise). A link to a node whose place
// was reused therefore leads only to closed photons, and reads as the end of the stack.
//
// For small radii every pixel of the square is read, without a branch; for larger ones a bit per pixel marks
// those whose stack may hold anything, and only those are visited. Starting over (a new run from some hit on)
// keeps every structure: numbers only grow, so what earlier runs left lies below the oldest open number and
// reads as closed, and nodes from before the restart are never followed.

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Packets.hpp"

namespace kovra::import {

using namespace kovra::tpx3spidr::raw;  // the packet layout

/// Per pixel, the stack of open photon numbers (least on top) of the hits there. Numbers start at 1; 0 means
/// none.
class Pixel_Stacks {
 public:
  Pixel_Stacks(unsigned width_, unsigned height_, unsigned radius_)
      : width(width_),
        height(height_),
        radius(static_cast<int>(radius_)),
        sparse(radius_ > direct_radius),
        rowBytes((width_ + 7) / 8),
        stride(width_ + 2 * border),
        cells(std::size_t{stride} * (height_ + 2 * border)),
        used(sparse ? std::size_t{rowBytes} * height_ + 8 : 0),
        nodes(initial_nodes) {}

  /// Forgets every node: a new run begins, whose numbers are all above those held so far.
  void restart() {
    firstNode = nextNode;
    deeperUntil = INT64_MIN;
  }

  /// The least open number (at least `oldestOpen`) of a pixel within the radius in x and in y of (x, y), at
  /// time t; 0 for none. R is the radius when it is at most direct_radius, and -1 otherwise.
  template <int R>
  std::uint64_t find_leastOpen(int x, int y, Ticks t, std::uint64_t oldestOpen) {
    if constexpr (R < 0) {
      return find_marked(x, y, oldestOpen);
    } else {
      // A node pushed at time T holds photons that had a hit at its pixel by T, all closed after T + window:
      // once the time is past that for the latest node, no closed top hides an open photon, none needs popping.
      return t <= deeperUntil ? find_direct<R, true>(x, y, oldestOpen) : find_direct<R, false>(x, y, oldestOpen);
    }
  }

  /// Records a hit at (x, y), at time `t`, in photon `photon`, the least open photon near (x, y) (or a new
  /// photon where none is): the photon is at most the pixel's least open number.
  void add_hit(int x, int y, Ticks t, Ticks window, std::uint64_t photon, std::uint64_t oldestOpen) {
    const std::uint64_t cell = cells[index(x, y)];
    if (cell >> 1 >= oldestOpen ? photon == cell >> 1 : (cell & 1) == 0) [[likely]] {
      if (cell >> 1 < oldestOpen) set_top(x, y, photon);  // nothing open here: the photon is the first
      return;
    }
    add_hitRarely(x, y, t, window, photon, oldestOpen);
  }

  /// Up to this radius every pixel of the square is looked at, without a branch; beyond it only those the bit
  /// map marks (and Hit_Grouping asks only when its open photons cannot tell). Radius 1 this way took 12.4 ns
  /// per hit against 15.4 the other way, radius 2 19.5 against 14.7 (grouping alone, 3 million hits of the
  /// benchmark's camera, kovra_grouping_bench, fastest of 3).
  static constexpr unsigned direct_radius = 1;

 private:
  /// 64 nodes: pixels holding two open photons at once are rare; the ring doubles when they are not.
  static constexpr std::size_t initial_nodes = 64;
  /// Cells around the frame, enough for the square of the direct search at any pixel.
  static constexpr int border = direct_radius;

  struct Node {
    Ticks time;  ///< when it was pushed: every photon from it down has closed once the time is past time + window
    std::uint64_t cell;  ///< the cell it was pushed from
    std::uint64_t link;
  };

  /// Pixel (x, y)'s cell: x and y may lie up to `border` outside the frame.
  std::size_t index(int x, int y) const {
    return static_cast<std::size_t>(y + border) * stride + static_cast<std::size_t>(x + border);
  }
  static std::uint8_t bit_of(int x) { return static_cast<std::uint8_t>(1u << (x & 7)); }

  /// Every pixel of the square, R = the radius, without a branch. With d = cell - 2 oldestOpen taken modulo
  /// 2^64, an open top gives d = 2 (top - oldestOpen) + deeper, below 2^63, and a closed one (or 0, none) d
  /// at or above 2^63 (numbers stay below 2^62): the least d gives the least open top, and the square holds
  /// none when it is 2^63 or more. The border around the frame holds only 0. When a closed top may hide an
  /// open photon (CheckDeeper), a closed top with more below is popped, and the square looked at again.
  template <int R, bool CheckDeeper>
  std::uint64_t find_direct(int x, int y, std::uint64_t oldestOpen) {
    const std::uint64_t base = 2 * oldestOpen;
    const std::uint64_t* row = &cells[index(x - R, y - R)];
    std::uint64_t least = UINT64_MAX;
    std::uint64_t closedDeeper = 0;  // bit 63: some closed top has more below
    for (int dy = -R; dy <= R; ++dy, row += stride) {
      for (int dx = 0; dx <= 2 * R; ++dx) {
        const std::uint64_t d = row[dx] - base;
        least = std::min(least, d);
        if constexpr (CheckDeeper) closedDeeper |= d & row[dx] << 63;
      }
    }
    if (CheckDeeper && closedDeeper >> 63 != 0) {
      least = UINT64_MAX;
      for (int dy = -R; dy <= R; ++dy) {
        for (int dx = -R; dx <= R; ++dx)
          least = std::min(least, 2 * (pop_closed(x + dx, y + dy, oldestOpen) - oldestOpen));
      }
    }
    return least >> 63 == 0 ? oldestOpen + (least >> 1) : 0;
  }

  /// The pixels of the square whose bit is set: the 8 bytes of a row's bits from the one holding column x0 on
  /// (the map has 8 spare bytes at its end), shifted down to x0, hold 57 columns from x0 on, more than the
  /// square's 2 radius + 1 <= 33; the mask keeps the square's columns within the frame (bits past a row's end
  /// are the next row's).
  std::uint64_t find_marked(int x, int y, std::uint64_t oldestOpen) {
    const int x0 = std::max(0, x - radius);
    const int x1 = std::min(static_cast<int>(width) - 1, x + radius);
    const int y1 = std::min(static_cast<int>(height) - 1, y + radius);
    const std::uint64_t span = (std::uint64_t{1} << (x1 - x0 + 1)) - 1;
    std::uint64_t least = UINT64_MAX;
    for (int row = std::max(0, y - radius); row <= y1; ++row) {
      std::uint64_t bits = 0;
      std::memcpy(&bits, &used[static_cast<std::size_t>(row) * rowBytes + static_cast<std::size_t>(x0 >> 3)], 8);
      for (bits = (bits >> (x0 & 7)) & span; bits != 0; bits &= bits - 1) {
        least = std::min(least, pop_closed(x0 + std::countr_zero(bits), row, oldestOpen) - oldestOpen);
        if (least == 0) return oldestOpen;  // nothing open lies lower
      }
    }
    return least >> 63 == 0 ? oldestOpen + least : 0;
  }

  /// A pixel with nothing open gets its first open photon.
  void set_top(int x, int y, std::uint64_t photon) {
    cells[index(x, y)] = photon << 1;
    if (sparse) used[static_cast<std::size_t>(y) * rowBytes + static_cast<std::size_t>(x >> 3)] |= bit_of(x);
  }

  /// add_hit where a node is pushed (the photon lies below the open top) or a closed top has more below.
  [[gnu::noinline]] void add_hitRarely(int x, int y, Ticks t, Ticks window, std::uint64_t photon,
                                       std::uint64_t oldestOpen) {
    const std::size_t i = index(x, y);
    std::uint64_t top = cells[i] >> 1;
    if (top < oldestOpen && (t > deeperUntil || (top = pop_closed(x, y, oldestOpen)) == 0)) {
      links.erase(i);  // what lay below has closed
      set_top(x, y, photon);
      return;
    }
    assert(photon <= top);
    if (photon == top) return;
    const std::uint64_t node = allocate_node(t, window);
    std::uint64_t& link = links[i];
    nodes[node & nodeMask] = Node{t, cells[i], (cells[i] & 1) != 0 ? link : 0};
    cells[i] = photon << 1 | 1;
    link = node;
    deeperUntil = t + window;
  }

  /// Pops the closed numbers off the stack at (x, y) and returns its top, 0 (clearing the pixel's bit) when none
  /// is left.
  std::uint64_t pop_closed(int x, int y, std::uint64_t oldestOpen) {
    const std::size_t i = index(x, y);
    while (cells[i] >> 1 < oldestOpen) {
      const auto link = (cells[i] & 1) != 0 ? links.find(i) : links.end();
      const std::uint64_t node = link != links.end() ? link->second : 0;
      if (link == links.end() || node < firstNode || node + nodeMask < nextNode) {  // none, or reused
        if (link != links.end()) links.erase(link);
        cells[i] = 0;
        if (sparse)
          used[static_cast<std::size_t>(y) * rowBytes + static_cast<std::size_t>(x >> 3)] &=
              static_cast<std::uint8_t>(~bit_of(x));
        return 0;
      }
      const Node& n = nodes[node & nodeMask];
      cells[i] = n.cell;
      if ((n.cell & 1) != 0) {
        link->second = n.link;
      } else {
        links.erase(link);
      }
    }
    return cells[i] >> 1;
  }

  /// The next node's number, doubling the ring when the node whose place it takes may still be needed.
  std::uint64_t allocate_node(Ticks t, Ticks window) {
    const std::uint64_t capacity = nodeMask + 1;
    if (nextNode >= firstNode + capacity && nodes[nextNode & nodeMask].time + window >= t) {
      std::vector<Node> larger(capacity * 2);
      for (std::uint64_t i = nextNode - capacity; i < nextNode; ++i)
        larger[i & (2 * capacity - 1)] = nodes[i & nodeMask];
      firstNode = nextNode - capacity;
      nodes.swap(larger);
      nodeMask = 2 * capacity - 1;
    }
    return nextNode++;
  }

  const unsigned width;
  const unsigned height;
  const int radius;
  const bool sparse;  ///< whether the bit map is kept and searched
  const unsigned rowBytes;
  const unsigned stride;             ///< cells per row, the border's included
  std::vector<std::uint64_t> cells;  ///< per pixel: 2 x its top number, + 1 when a node lies below
  /// Per pixel whose cell is odd, the node below its top: few pixels at a time, and a map keeps a grouping's
  /// memory at its cells' (half of it for a quad: 2 MiB less per grouping).
  std::unordered_map<std::size_t, std::uint64_t> links;
  std::vector<std::uint8_t> used;  ///< bit x % 8 of byte y * rowBytes + x / 8: the stack at (x, y) may hold some
  std::vector<Node> nodes;         ///< node i at i & nodeMask
  std::uint64_t nodeMask = initial_nodes - 1;
  std::uint64_t nextNode = 0;
  std::uint64_t firstNode = 0;    ///< nodes before this one are of an earlier run, or were not kept when the ring grew
  Ticks deeperUntil = INT64_MIN;  ///< the latest node's time + window: after it, every node holds closed photons
};

}  // namespace kovra::import
