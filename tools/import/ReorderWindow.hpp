#pragma once

// Puts the locally ordered stream of hits and trigger edges into time order through a bounded window.
//
// The rule: an item is late, and dropped, when its time is more than `window` ticks before the latest time of
// the clock (the largest time read so far, this item's own included). Every item that is not late comes out,
// in non-decreasing time, items of equal time in the order they came in.
//
// How: items wait in buckets of 2^16 ticks (102 us) of time, in a ring that spans the window. A bucket whose
// last tick is at or before `latest - window` can no longer receive an item (any item that early would be
// late), so it is sorted (least-significant-digit radix on the time within the bucket, which keeps equal
// times in arrival order) and released. What crosses from one release to the next is only the buckets of the
// last window; each item is written once on arrival and sorted while its bucket is small enough to stay in the
// cache. Memory grows with the hit rate times the window, not with the file's length.

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "import/Tpx3Packets.hpp"

namespace kovra::import {

/// One hit (kind 0) or trigger edge (kind = the TDC's edge nibble) on its way to the output, at frame pixel
/// (x, y) with ToT in 25 ns units; x, y and ToT are 0 for an edge.
struct Timed_Item {
  Ticks time;
  std::uint16_t x;
  std::uint16_t y;
  std::uint16_t tot;
  std::uint16_t kind;
};
static_assert(sizeof(Timed_Item) == 16);

/// The window. Holds only items not yet released; everything released is in non-decreasing time.
class Reorder_Window {
 public:
  static constexpr int bucket_bits = 16;

  explicit Reorder_Window(Ticks window_)
      : window(window_), buckets(std::bit_ceil(static_cast<std::uint64_t>((window_ >> bucket_bits) + 2))) {}

  /// Takes an item, `latest` being the clock's latest time after reading it. Returns false, keeping nothing,
  /// when the item is late. Releases to `sink(const Timed_Item*, std::size_t)` what can no longer move.
  template <typename Sink_Type>
  bool push(const Timed_Item& item, Ticks latest, Sink_Type&& sink) {
    const Ticks cut = latest - window;
    if (item.time < cut) return false;
    if (!started) {
      started = true;
      nextRelease = cut >> bucket_bits;  // no item that is not late can lie in an earlier bucket
    }
    if (((nextRelease + 1) << bucket_bits) - 1 <= cut) release_upTo(cut, sink);
    const Ticks bucket = item.time >> bucket_bits;
    if (bucket < nextRelease) {
      sink(&item, 1);  // exactly at the cut, behind a bucket already released: nothing later can precede it
      return true;
    }
    buckets[slot(bucket)].push_back(item);
    ++held;
    return true;
  }

  /// Releases everything still held: the end of the input.
  template <typename Sink_Type>
  void finish(Sink_Type&& sink) {
    if (started) release_upTo((nextRelease + static_cast<Ticks>(buckets.size())) << bucket_bits, sink);
  }

  std::size_t get_mostHeld() const { return mostHeld; }

 private:
  std::size_t slot(Ticks bucket) const { return static_cast<std::size_t>(bucket) & (buckets.size() - 1); }

  /// Releases, in order, every bucket whose last tick is at or before `cut`.
  template <typename Sink_Type>
  void release_upTo(Ticks cut, Sink_Type& sink) {
    mostHeld = std::max(mostHeld, held);
    // Every held item lies in the ring's span from nextRelease on, however far the cut has jumped.
    const Ticks last = std::min(((cut + 1) >> bucket_bits) - 1, nextRelease + static_cast<Ticks>(buckets.size()) - 1);
    for (; nextRelease <= last; ++nextRelease) {
      auto& items = buckets[slot(nextRelease)];
      if (items.empty()) continue;
      sort_byTime(items, nextRelease << bucket_bits);
      sink(static_cast<const Timed_Item*>(items.data()), items.size());
      held -= items.size();
      items.clear();
    }
    nextRelease = std::max(nextRelease, ((cut + 1) >> bucket_bits));
  }

  /// Stable radix sort of one bucket by time, two passes of 8 bits over the time within the bucket.
  void sort_byTime(std::vector<Timed_Item>& items, Ticks begin) {
    bool sorted = true;
    for (std::size_t i = 1; i < items.size() && sorted; ++i) sorted = items[i - 1].time <= items[i].time;
    if (sorted) return;
    spare.resize(items.size());
    std::array<std::array<std::size_t, 256>, 2> offsets{};
    for (const auto& item : items) {
      const auto key = static_cast<std::size_t>(item.time - begin);
      ++offsets[0][key & 255];
      ++offsets[1][(key >> 8) & 255];
    }
    for (int pass = 0; pass < 2; ++pass) {
      std::size_t sum = 0;
      for (auto& offset : offsets[static_cast<std::size_t>(pass)]) sum += std::exchange(offset, sum);
      auto& offset = offsets[static_cast<std::size_t>(pass)];
      for (const auto& item : items) {
        spare[offset[(static_cast<std::size_t>(item.time - begin) >> (8 * pass)) & 255]++] = item;
      }
      items.swap(spare);
    }
  }

  const Ticks window;
  std::vector<std::vector<Timed_Item>> buckets;  ///< bucket b (time >> bucket_bits) at b modulo the ring's size
  std::vector<Timed_Item> spare;
  bool started = false;
  Ticks nextRelease = 0;  ///< the earliest bucket not yet released
  std::size_t held = 0;
  std::size_t mostHeld = 0;
};

}  // namespace kovra::import
