#pragma once

// Puts the locally ordered stream of hits and trigger edges into time order through a bounded window.
//
// The rule: an item is late, and dropped, when its time is more than `window` ticks before the latest time of
// the clock (the largest time read so far, this item's own included). Every item that is not late comes out,
// in non-decreasing time, items of equal time in the order they came in. What crosses from one release to the
// next is only the items the window still holds: an item at or before `latest - window` can no longer be
// overtaken, because any later item earlier than it would be late, so it is released. Releases happen in
// batches, once the release point has moved by a step of about one window, so each item is scanned about twice
// and sorted once (least-significant-digit radix on its time, which keeps equal times in arrival order). What
// the window holds is the items of about two windows of time: its memory grows with the hit rate, not with the
// file's length.

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
  explicit Reorder_Window(Ticks window_) : window(window_), step(std::max<Ticks>(window_, Ticks{1} << 16)) {}

  /// Takes an item, `latest` being the clock's latest time after reading it. Returns false, keeping nothing,
  /// when the item is late. Releases to `sink(const Timed_Item*, std::size_t)` what can no longer move.
  template <typename Sink_Type>
  bool push(const Timed_Item& item, Ticks latest, Sink_Type&& sink) {
    if (item.time < latest - window) return false;
    pending.push_back(item);
    if (latest - window >= releasedTo + step) release(latest - window, sink);
    return true;
  }

  /// Releases everything still held: the end of the input.
  template <typename Sink_Type>
  void finish(Sink_Type&& sink) {
    if (pending.empty()) return;
    Ticks last = pending.front().time;
    for (const auto& item : pending) last = std::max(last, item.time);
    release(last, sink);
  }

  std::size_t get_held() const { return pending.size(); }
  std::size_t get_mostHeld() const { return mostHeld; }

 private:
  template <typename Sink_Type>
  void release(Ticks cut, Sink_Type& sink) {
    mostHeld = std::max(mostHeld, pending.size());
    ready.clear();
    std::size_t kept = 0;
    for (const auto& item : pending) {
      if (item.time <= cut) {
        ready.push_back(item);
      } else {
        pending[kept++] = item;
      }
    }
    pending.resize(kept);
    releasedTo = cut;
    if (ready.empty()) return;
    sort_byTime(ready, scratch);
    sink(static_cast<const Timed_Item*>(ready.data()), ready.size());
  }

  /// Stable radix sort by time, with as few passes of at most 12 bits as the spread of the times needs.
  static void sort_byTime(std::vector<Timed_Item>& items, std::vector<Timed_Item>& spare) {
    Ticks low = items.front().time;
    Ticks high = low;
    bool sorted = true;
    for (std::size_t i = 1; i < items.size(); ++i) {
      low = std::min(low, items[i].time);
      high = std::max(high, items[i].time);
      sorted = sorted && items[i - 1].time <= items[i].time;
    }
    if (sorted) return;
    const auto keyBits = static_cast<int>(std::bit_width(static_cast<std::uint64_t>(high - low)));
    const int passes = (keyBits + 11) / 12;
    const int digitBits = (keyBits + passes - 1) / passes;
    const std::size_t mask = (std::size_t{1} << digitBits) - 1;
    spare.resize(items.size());
    std::array<std::size_t, 4096> offsets{};
    for (int shift = 0; shift < keyBits; shift += digitBits) {
      const auto digit = [&](const Timed_Item& item) {
        return static_cast<std::size_t>(static_cast<std::uint64_t>(item.time - low) >> shift) & mask;
      };
      std::fill_n(offsets.begin(), mask + 1, 0);
      for (const auto& item : items) ++offsets[digit(item)];
      std::size_t sum = 0;
      for (std::size_t d = 0; d <= mask; ++d) sum += std::exchange(offsets[d], sum);
      for (const auto& item : items) spare[offsets[digit(item)]++] = item;
      items.swap(spare);
    }
  }

  const Ticks window;
  const Ticks step;
  Ticks releasedTo = INT64_MIN / 2;
  std::vector<Timed_Item> pending;
  std::vector<Timed_Item> ready;
  std::vector<Timed_Item> scratch;
  std::size_t mostHeld = 0;
};

}  // namespace kovra::import
