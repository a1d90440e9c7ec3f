#pragma once

// Small pieces shared by the reconstruction algorithms.

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <limits>
#include <optional>
#include <vector>

#include "kovra/detail/RecordIO.hpp"

namespace kovra::detail {

/// One bit per photon, all clear at the start.
class Bits_Packed {
 public:
  explicit Bits_Packed(std::size_t size) : words((size + 63) / 64, 0) {}

  bool test(std::size_t index) const { return (words[index >> 6] >> (index & 63)) & 1U; }
  void set(std::size_t index) { words[index >> 6] |= std::uint64_t{1} << (index & 63); }

  /// The first index from `from` on whose bit is clear, or `size` when there is none before it.
  std::size_t find_clear(std::size_t from, std::size_t size) const {
    if (from >= size) return size;
    std::size_t word = from >> 6;
    std::uint64_t clear = ~words[word] >> (from & 63);
    if (clear != 0) return std::min(size, from + static_cast<std::size_t>(std::countr_zero(clear)));
    const std::size_t lastWord = (size - 1) >> 6;
    while (++word <= lastWord) {
      clear = ~words[word];
      if (clear != 0) return std::min(size, (word << 6) + static_cast<std::size_t>(std::countr_zero(clear)));
    }
    return size;
  }

  /// Clears the bits first..last, both included.
  void clear_range(std::size_t first, std::size_t last) {
    const std::size_t firstWord = first >> 6;
    const std::size_t lastWord = last >> 6;
    const std::uint64_t lowMask = ~std::uint64_t{0} << (first & 63);   // bits >= first in its word
    const std::uint64_t highMask = ~std::uint64_t{0} >> (63 - (last & 63));  // bits <= last in its word
    if (firstWord == lastWord) {
      words[firstWord] &= ~(lowMask & highMask);
      return;
    }
    words[firstWord] &= ~lowMask;
    std::fill(words.begin() + static_cast<std::ptrdiff_t>(firstWord + 1),
              words.begin() + static_cast<std::ptrdiff_t>(lastWord), std::uint64_t{0});
    words[lastWord] &= ~highMask;
  }

 private:
  std::vector<std::uint64_t> words;
};

/// a + b, held at the type's bounds instead of wrapping. Equal to the plain sum wherever that one is defined;
/// lets an unlimited window stay unlimited.
template <typename Time_Type>
constexpr Time_Type add_saturating(Time_Type a, Time_Type b) {
  using Value_Type = typename Time_Type::value_type;
  constexpr Value_Type highest = std::numeric_limits<Value_Type>::max();
  constexpr Value_Type lowest = std::numeric_limits<Value_Type>::min();
  if (b.value > 0 && a.value > highest - b.value) return Time_Type{highest};
  if (b.value < 0 && a.value < lowest - b.value) return Time_Type{lowest};
  return Time_Type{static_cast<Value_Type>(a.value + b.value)};
}

/// Counts of free photons per spatial cell, over a sliding range of the photon list: a quick answer to "is there
/// any free photon within dSpace (per axis) of this position in the range?". Cells are at least dSpace wide, so
/// such a photon lies in one of the 3 x 3 cells around the position, counted with the same 32-bit wrap-around
/// as the distance test. The table folds the cell grid onto 128 x 128 slots (a torus), so cells 128 apart share
/// a slot: that can turn a true "no" into "maybe", never a "yes" into "no". Counts are exact while fewer than
/// 2^32 photons are counted.
template <typename Length_Type>
class Cells_FreePhotons {
 public:
  explicit Cells_FreePhotons(Length_Type dSpace)
      : shift(dSpace.value <= 1 ? 0 : static_cast<int>(std::bit_width(static_cast<std::uint32_t>(dSpace.value - 1)))),
        cellMask(~std::uint32_t{0} >> shift),
        counts(side * side, 0) {}

  template <typename PhotonEvent_Type>
  void add(const PhotonEvent_Type& p) {
    ++counts[slot_of(cell_of(p.x), cell_of(p.y))];
  }
  template <typename PhotonEvent_Type>
  void remove(const PhotonEvent_Type& p) {
    --counts[slot_of(cell_of(p.x), cell_of(p.y))];
  }

  /// False only when no counted photon lies within dSpace of the position on both axes.
  template <typename PhotonEvent_Type>
  bool any_near(const PhotonEvent_Type& p) const {
    const std::uint32_t cx = cell_of(p.x);
    const std::uint32_t cy = cell_of(p.y);
    std::uint32_t any = 0;
    for (const std::uint32_t dx : {cellMask, std::uint32_t{0}, std::uint32_t{1}}) {  // -1, 0, +1 (mod cells)
      for (const std::uint32_t dy : {cellMask, std::uint32_t{0}, std::uint32_t{1}}) {
        any |= counts[slot_of((cx + dx) & cellMask, (cy + dy) & cellMask)];
      }
    }
    return any != 0;
  }

 private:
  static constexpr std::uint32_t side = 128;  // a power of two, so that folding keeps neighbouring cells adjacent

  std::uint32_t cell_of(Length_Type v) const { return static_cast<std::uint32_t>(v.value) >> shift; }
  /// Folding onto the torus is taking the low bits: where side divides the number of cells, neighbours stay
  /// neighbours; where it does not, no two cells share a slot.
  static std::size_t slot_of(std::uint32_t cx, std::uint32_t cy) {
    return static_cast<std::size_t>((cx & (side - 1)) * side + (cy & (side - 1)));
  }

  int shift;
  std::uint32_t cellMask;
  std::vector<std::uint32_t> counts;
};

/// The free photons of a range [begin, end) of a time-ordered photon list, counted by cell. The range only moves
/// forward: photons enter at its end (counted when free) and leave at its begin (uncounted when still free); a
/// photon taken while inside is uncounted at once. So the counts always hold exactly the free photons inside.
template <typename PhotonEvent_Type>
class Range_FreePhotons {
 public:
  using Length_Type = typename PhotonEvent_Type::length_type;
  using Time_Type = typename PhotonEvent_Type::time_type;

  Range_FreePhotons(const std::vector<PhotonEvent_Type>& photons, const Bits_Packed& takenBits, Length_Type dSpace)
      : photon(photons.data()), nPhotons(photons.size()), taken(takenBits), cells(dSpace) {}

  /// Photons before `index` leave the range.
  void drop_before(std::size_t index) {
    for (; begin < index && begin < end; ++begin) {
      if (!taken.test(begin)) cells.remove(photon[begin]);
    }
    begin = std::max(begin, index);
    end = std::max(end, begin);
  }

  /// Photons up to time `limit` enter the range; afterwards it holds every photon from begin to that time.
  void extend_to(Time_Type limit) {
    for (; end < nPhotons && photon[end].toa <= limit; ++end) {
      if (!taken.test(end)) cells.add(photon[end]);
    }
  }

  /// To be called right after photon `index` is marked taken.
  void note_taken(std::size_t index) {
    if (index >= begin && index < end) cells.remove(photon[index]);
  }

  /// False only when no free photon of the range lies within dSpace of `p` on both axes.
  bool any_free_near(const PhotonEvent_Type& p) const { return cells.any_near(p); }

 private:
  const PhotonEvent_Type* photon;
  std::size_t nPhotons;
  const Bits_Packed& taken;
  Cells_FreePhotons<Length_Type> cells;
  std::size_t begin = 0;
  std::size_t end = 0;
};

/// Whether time windows of `span` after a photon hold, on average over a sample, at least `atLeast` photons.
/// Decides whether bookkeeping that pays off only in crowded windows is worth its cost. Lists of 2^32 photons
/// or more never count as crowded, so that the 32-bit cell counts stay exact.
template <typename PhotonEvent_Type, typename Time_Type>
bool is_crowded(const std::vector<PhotonEvent_Type>& photons, Time_Type span, std::size_t atLeast) {
  constexpr std::size_t samples = 256;
  if (photons.size() > std::numeric_limits<std::uint32_t>::max()) return false;
  constexpr std::size_t cap = 64;
  if (photons.size() < 2) return false;
  const std::size_t step = std::max<std::size_t>(1, photons.size() / samples);
  std::size_t seen = 0;
  std::size_t sampled = 0;
  for (std::size_t i = 0; i + 1 < photons.size(); i += step, ++sampled) {
    const Time_Type reach = add_saturating(photons[i].toa, span);
    for (std::size_t j = i + 1; j < photons.size() && j <= i + cap && photons[j].toa <= reach; ++j) ++seen;
  }
  return seen >= atLeast * sampled;
}

/// Whether the photons are in non-decreasing time of arrival. The algorithms take shortcuts that rely on it
/// (skipping photons that cannot join without reading their times) only when it holds; otherwise they walk
/// every photon, and input out of order meets the same comparisons and assertions as it would in a plain walk.
template <typename PhotonEvent_Type>
bool is_timeOrdered(const std::vector<PhotonEvent_Type>& photons) {
  return std::is_sorted(photons.begin(), photons.end(),
                        [](const PhotonEvent_Type& a, const PhotonEvent_Type& b) { return a.toa < b.toa; });
}

/// Runs `run.template operator()<ordered>()`, with `ordered` telling whether the photons are in time order, so that
/// each algorithm compiles its shortcuts for ordered input and its literal walk for the rest.
template <typename PhotonEvent_Type, typename Run_Type>
void run_for_order(const std::vector<PhotonEvent_Type>& photons, Run_Type&& run) {
  if (is_timeOrdered(photons)) {
    run.template operator()<true>();
  } else {
    run.template operator()<false>();
  }
}

/// The line the algorithms without a window extension print when a factor is given anyway. Written straight to
/// standard output and flushed, so that it shows whatever the log level.
inline void print_extensionFactorWarning() {
  std::cout << "WARNING: Extension factor is not supported for the chosen algorithm!\n" << std::flush;
}

/// The output's copy of the input's trigger list: absent stays absent, empty stays empty.
template <typename Data_PhotonEvents_Type>
auto copy_extTriggers(const Data_PhotonEvents_Type& photons) {
  return std::optional<std::vector<typename Data_PhotonEvents_Type::time_type>>(photons.extTriggers);
}

}  // namespace kovra::detail
