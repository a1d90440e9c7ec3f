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
//
// A held item is packed into one 64-bit word (its time within the bucket, x, y, ToT and kind), half the bytes of
// a Timed_Item, so the window needs half the memory, and the radix sort's last pass unpacks as it places. On the
// 17 million hits of 128 MiB of the benchmark's simulated camera, decoding, reordering and turning hits into
// photons took 11.3 ns per hit with packed words against 11.9 ns with whole items (best of 9 runs, four times
// each, alternating). Unpacking gives back the very same item: the bucket's first tick plus the time within it
// is the item's time, and x, y, ToT and kind keep all their bits (a ToT has 10, a kind 4).
//
// A sink may take the released buckets whole, packed and unsorted, and sort them elsewhere (the import on
// several threads sorts them on its workers): the order that comes out is the same.

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Packets.hpp"

namespace kovra::import {

using namespace kovra::tpx3spidr::raw;  // the packet layout

/// One hit (kind 0) or trigger edge (kind = the TDC's edge nibble) on its way to the output, at frame pixel
/// (x, y) with ToT in 25 ns units; x, y and ToT are 0 for an edge.
struct Timed_Item {
  /// The kind of a hit; a trigger's kind is the edge nibble of its TDC packet, never 0.
  static constexpr std::uint16_t hit_kind = 0;

  Ticks time;
  std::uint16_t x;
  std::uint16_t y;
  std::uint16_t tot;
  std::uint16_t kind;

  constexpr bool is_trigger() const { return kind != hit_kind; }
};
static_assert(sizeof(Timed_Item) == 16);

/// One bucket's items as the window holds them, packed and in arrival order: what a bucket sink receives.
struct Packed_Bucket {
  const std::uint64_t* words;
  std::size_t count;
  Ticks begin;  ///< the bucket's first tick
};

/// A word's item: the bucket's first tick plus the time within it is the item's time, and x, y, ToT and kind
/// keep all their bits (a ToT has 10, a kind 4).
inline Timed_Item unpack_item(std::uint64_t word, Ticks begin) {
  return Timed_Item{begin + static_cast<Ticks>(word >> 48), static_cast<std::uint16_t>(word >> 32),
                    static_cast<std::uint16_t>(word >> 16), static_cast<std::uint16_t>((word >> 4) & 1023),
                    static_cast<std::uint16_t>(word & 15)};
}

/// Puts a bucket's items, sorted stably by time, in a buffer of its own: a radix sort of two passes of 8 bits
/// over the time within the bucket, the second pass unpacking as it places (a sorted bucket is only unpacked).
class Bucket_Sorter {
 public:
  /// The bucket's items in time order, equal times in arrival order; valid until the next call.
  std::span<const Timed_Item> sort(const Packed_Bucket& bucket) {
    const std::uint64_t* words = bucket.words;
    const std::size_t n = bucket.count;
    if (released.size() < n) released.resize(n);
    bool sorted = true;
    for (std::size_t i = 1; i < n && sorted; ++i) sorted = words[i - 1] >> 48 <= words[i] >> 48;
    if (sorted) {
      for (std::size_t i = 0; i < n; ++i) released[i] = unpack_item(words[i], bucket.begin);
      return {released.data(), n};
    }
    if (spare.size() < n) spare.resize(n);
    std::array<std::array<std::uint32_t, 256>, 2> offsets{};
    for (std::size_t i = 0; i < n; ++i) {
      ++offsets[0][(words[i] >> 48) & 255];
      ++offsets[1][words[i] >> 56];
    }
    for (auto& pass : offsets) {
      std::uint32_t sum = 0;
      for (auto& offset : pass) sum += std::exchange(offset, sum);
    }
    for (std::size_t i = 0; i < n; ++i) spare[offsets[0][(words[i] >> 48) & 255]++] = words[i];
    for (std::size_t i = 0; i < n; ++i) released[offsets[1][spare[i] >> 56]++] = unpack_item(spare[i], bucket.begin);
    return {released.data(), n};
  }

 private:
  std::vector<std::uint64_t> spare;
  std::vector<Timed_Item> released;
};

/// The window. Holds only items not yet released; everything released is in non-decreasing time.
class Reorder_Window {
 public:
  static constexpr int bucket_bits = 16;
  static_assert(bucket_bits == 16, "a packed item has 16 bits for its time within the bucket");

  explicit Reorder_Window(Ticks window_)
      : window(window_), buckets(std::bit_ceil(static_cast<std::uint64_t>((window_ >> bucket_bits) + 2))) {}

  /// Takes an item, `latest` being the clock's latest time after reading it. Returns false, keeping nothing,
  /// when the item is late. Releases to `sink` what can no longer move: sorted items to `sink(const
  /// Timed_Item*, std::size_t)`, or, where the sink takes them, whole buckets to `sink(const Packed_Bucket&)`,
  /// unsorted, for the receiver to sort with a Bucket_Sorter. Inlined where it is called (once per hit): left to
  /// the compiler, the call fell out of the decoding loop when unrelated code around it grew, and crowded flashes
  /// (58 MB of raw data, one thread) took 3.05 instead of 2.81 billion instructions (cachegrind), 5 % more time.
  template <typename Sink_Type>
  [[gnu::always_inline]] bool push(const Timed_Item& item, Ticks latest, Sink_Type&& sink) {
    const Ticks cut = latest - window;
    if (item.time < cut) return false;
    // releaseAt is the last tick of bucket nextRelease (the lowest value before the first item), so this one
    // comparison stands for "not started, or the cut has passed a bucket that is still held". Were it ever
    // stale, buckets would only go out later, still in order: release_upTo works out its own range.
    if (cut >= releaseAt) [[unlikely]] {
      if (!started) {
        started = true;
        nextRelease = cut >> bucket_bits;  // no item that is not late can lie in an earlier bucket
      }
      releaseAt = ((nextRelease + 1) << bucket_bits) - 1;
      if (releaseAt <= cut) release_upTo(cut, sink);
    }
    const Ticks bucket = item.time >> bucket_bits;
    if (bucket < nextRelease) [[unlikely]] {
      // Exactly at the cut, behind a bucket already released: nothing later can precede it.
      if constexpr (std::is_invocable_v<Sink_Type&, const Packed_Bucket&>) {
        const std::uint64_t word = pack(item);
        sink(Packed_Bucket{&word, 1, bucket << bucket_bits});
      } else {
        sink(&item, 1);
      }
      return true;
    }
    assert(item.tot < 1024 && item.kind < 16);
    buckets[slot(bucket)].push_back(pack(item));
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

  /// The packed form of an item: its time within its bucket in the top 16 bits (the sort key), then x, y, ToT
  /// (10 bits) and kind (4 bits).
  static std::uint64_t pack(const Timed_Item& item) {
    const auto within = static_cast<std::uint64_t>(item.time) & ((std::uint64_t{1} << bucket_bits) - 1);
    return within << 48 | std::uint64_t{item.x} << 32 | std::uint64_t{item.y} << 16 | std::uint64_t{item.tot} << 4 |
           item.kind;
  }
  /// Releases, in order, every bucket whose last tick is at or before `cut`.
  template <typename Sink_Type>
  void release_upTo(Ticks cut, Sink_Type& sink) {
    mostHeld = std::max(mostHeld, held);
    // Every held item lies in the ring's span from nextRelease on, however far the cut has jumped.
    const Ticks last = std::min(((cut + 1) >> bucket_bits) - 1, nextRelease + static_cast<Ticks>(buckets.size()) - 1);
    for (; nextRelease <= last; ++nextRelease) {
      auto& words = buckets[slot(nextRelease)];
      if (words.empty()) continue;
      const Packed_Bucket packed{words.data(), words.size(), nextRelease << bucket_bits};
      if constexpr (std::is_invocable_v<Sink_Type&, const Packed_Bucket&>) {
        sink(packed);
      } else {
        const std::span<const Timed_Item> items = sorter.sort(packed);
        sink(items.data(), items.size());
      }
      held -= words.size();
      words.clear();
    }
    nextRelease = std::max(nextRelease, ((cut + 1) >> bucket_bits));
    releaseAt = ((nextRelease + 1) << bucket_bits) - 1;
  }

  const Ticks window;
  std::vector<std::vector<std::uint64_t>> buckets;  ///< bucket b (time >> bucket_bits) at b modulo the ring's size
  Bucket_Sorter sorter;
  bool started = false;
  Ticks releaseAt = INT64_MIN;  ///< the last tick of bucket nextRelease; the lowest value until the first item
  Ticks nextRelease = 0;        ///< the earliest bucket not yet released
  std::size_t held = 0;
  std::size_t mostHeld = 0;
};

}  // namespace kovra::import
