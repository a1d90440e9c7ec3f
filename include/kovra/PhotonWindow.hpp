#pragma once

// A sliding window over a photon list: the photons an algorithm may still read, with a "taken" bit and one
// mark per photon beside them, addressed by the photon's index in the whole list.
//
// The algorithm asks for photon j with fetch(j), which reads further chunks from the source as needed, and
// says with release_before(j) that it will not read the photons before j again. Released photons are dropped
// the next time room is needed. So memory follows the span of photons the algorithm needs at once (a seed and
// the photons its event can still reach), not the length of the list; only an event that genuinely spans more
// photons than the window holds makes the window grow, to twice the photons it must keep.
//
// A reading that may move the window invalidates references to its photons: copy a photon that must outlive a
// fetch.
//
// A window made with `Order_Check::required` throws PhotonWindow_OrderBroken as soon as a photon read from the
// source breaks the time order (TimeOrder_Check), before the algorithm can see it, so that shortcuts relying on
// the order are never taken on input that does not have it.

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <vector>

#include "kovra/PhotonSource.hpp"

namespace kovra {

/// Thrown by a window that requires time order when the source breaks it.
struct PhotonWindow_OrderBroken {};

/// Whether a window checks that the photons it reads come in time order.
enum class Order_Check { skipped, required };

/// The window; `Mark_Type` is the algorithm's own per-photon entry, zero when a photon enters the window.
template <typename PhotonEvent_Type, typename Mark_Type = std::uint8_t>
class PhotonWindow {
 public:
  /// Holds at first the photons the source suggests (at least 128, a whole number of 64).
  PhotonWindow(PhotonSource<PhotonEvent_Type>& source_, Order_Check check)
      : source(source_), total(static_cast<std::size_t>(source_.size())), requireOrder(check == Order_Check::required) {
    resize(std::max<std::size_t>(128, (source_.get_windowCapacity() + 63) & ~std::size_t{63}));
  }

  PhotonWindow(const PhotonWindow&) = delete;
  PhotonWindow& operator=(const PhotonWindow&) = delete;

  /// The number of photons in the whole list.
  std::size_t size() const { return total; }

  /// One past the last photon read so far.
  std::size_t get_end() const { return end; }

  /// Makes photon j readable; false when the list has no photon j.
  bool fetch(std::size_t j) { return j < end || load(j); }

  /// Photon j, which must have been fetched and not released.
  const PhotonEvent_Type& operator[](std::size_t j) const { return photons[j - first]; }

  bool is_taken(std::size_t j) const {
    const std::size_t k = j - first;
    return (taken[k >> 6] >> (k & 63)) & 1U;
  }
  void set_taken(std::size_t j) {
    const std::size_t k = j - first;
    taken[k >> 6] |= std::uint64_t{1} << (k & 63);
  }

  /// The first photon from `from` on that is not taken, among those read so far; get_end() when there is none
  /// (photons not read yet are all free).
  std::size_t find_free(std::size_t from) const {
    if (from >= end) return from;
    const std::size_t k = from - first;
    std::size_t word = k >> 6;
    std::uint64_t clear = ~taken[word] >> (k & 63);
    if (clear != 0) return std::min(end, from + static_cast<std::size_t>(std::countr_zero(clear)));
    const std::size_t lastWord = (end - 1 - first) >> 6;
    while (++word <= lastWord) {
      clear = ~taken[word];
      if (clear != 0) return std::min(end, first + (word << 6) + static_cast<std::size_t>(std::countr_zero(clear)));
    }
    return end;
  }

  Mark_Type& mark(std::size_t j) { return marks[j - first]; }

  /// The photons before j will not be read again.
  void release_before(std::size_t j) { released = std::max(released, j); }

  /// Photons the window holds room for now.
  std::size_t get_capacity() const { return photons.size(); }

 private:
  /// Reads chunks until photon j is in; false when the list has no photon j.
  bool load(std::size_t j) {
    if (j >= total) return false;
    while (end <= j) {
      make_room();
      const std::size_t offset = end - first;
      const std::size_t n = source.read(photons.data() + offset, std::min(photons.size() - offset, total - end));
      if (n == 0) throw std::invalid_argument("Read Error!");  // fewer photons than the list announced
      if (requireOrder && !order.accept(std::span<const PhotonEvent_Type>(photons.data() + offset, n))) {
        throw PhotonWindow_OrderBroken{};
      }
      clear_entries(offset, offset + n);
      end += n;
    }
    return true;
  }

  /// Drops released photons and makes sure at least half of the window is free for the next chunk.
  void make_room() {
    const std::size_t keep = std::max(first, released & ~std::size_t{63});  // whole words of taken bits move
    const std::size_t live = end - keep;
    const std::size_t shift = keep - first;
    if (shift != 0 && live != 0) {
      std::memmove(static_cast<void*>(photons.data()), photons.data() + shift, live * sizeof(PhotonEvent_Type));
      std::memmove(static_cast<void*>(marks.data()), marks.data() + shift, live * sizeof(Mark_Type));
      std::memmove(taken.data(), taken.data() + (shift >> 6), ((live + 63) >> 6) * sizeof(std::uint64_t));
    }
    first = keep;
    if (live > photons.size() / 2) resize(2 * photons.size());
  }

  void resize(std::size_t capacity) {
    photons.resize(capacity);
    marks.resize(capacity);
    taken.resize(capacity / 64);
  }

  /// New photons start free and with a zero mark.
  void clear_entries(std::size_t from, std::size_t to) {
    std::fill(marks.begin() + static_cast<std::ptrdiff_t>(from), marks.begin() + static_cast<std::ptrdiff_t>(to),
              Mark_Type{});
    const std::size_t firstWord = from >> 6;
    const std::size_t lastWord = (to + 63) >> 6;
    taken[firstWord] &= (from & 63) == 0 ? 0 : ~std::uint64_t{0} >> (64 - (from & 63));
    std::fill(taken.begin() + static_cast<std::ptrdiff_t>(firstWord + 1),
              taken.begin() + static_cast<std::ptrdiff_t>(lastWord), std::uint64_t{0});
  }

  PhotonSource<PhotonEvent_Type>& source;
  std::size_t total;
  bool requireOrder;
  TimeOrder_Check<typename PhotonEvent_Type::time_type> order;
  std::vector<PhotonEvent_Type> photons;  // photons first .. end - 1, at 0 ..
  std::vector<Mark_Type> marks;
  std::vector<std::uint64_t> taken;
  std::size_t first = 0;     // index of the photon at the start of the buffers; a multiple of 64
  std::size_t end = 0;       // one past the last photon read
  std::size_t released = 0;  // photons before this one may be dropped
};

}  // namespace kovra
