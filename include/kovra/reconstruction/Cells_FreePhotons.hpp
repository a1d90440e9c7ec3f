#pragma once

// Counts of free photons by spatial cell over a sliding range of the window: a quick "no" to the question
// whether any free photon lies within dSpace (per axis) of a position. The no-branch chains use them in crowded
// windows, where they save scans; with a few photons per window they cost more than they save.

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kovra/reconstruction/Reconstruction_Pass.hpp"

namespace kovra::detail {

/// Counts of free photons per spatial cell. Cells are at least dSpace wide, so a photon within dSpace of a
/// position lies in one of the 3 x 3 cells around it, counted with the same 32-bit wrap-around as the distance
/// test. The table folds the cell grid onto 128 x 128 slots (a torus), so cells 128 apart share a slot: that can
/// turn a true "no" into "maybe", never a "yes" into "no". Counts are exact while fewer than 2^32 photons are
/// counted, which the window's size guarantees.
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
  bool any_near(Length_Type x, Length_Type y) const {
    const std::uint32_t cx = cell_of(x);
    const std::uint32_t cy = cell_of(y);
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

/// The free photons of a range [begin, end) of a time-ordered window, counted by cell. The range only moves
/// forward: photons enter at its end (counted when free) and leave at its begin (uncounted when still free); a
/// photon taken while inside is uncounted at once. So the counts always hold exactly the free photons inside.
/// The caller releases no photon of the window at or after `get_begin()`.
template <typename Window_Type, typename Length_Type, typename Time_Type>
class Range_FreePhotons {
 public:
  Range_FreePhotons(Window_Type& window_, Length_Type dSpace) : window(window_), cells(dSpace) {}

  /// Photons before `index` leave the range.
  void drop_before(std::size_t index) {
    for (; begin < index && begin < end; ++begin) {
      if (!window.is_taken(begin)) cells.remove(window[begin]);
    }
    begin = std::max(begin, index);
    end = std::max(end, begin);
  }

  /// Photons up to time `limit` enter the range; afterwards it holds every photon from begin to that time.
  void extend_to(Time_Type limit) {
    for (; window.fetch(end) && window[end].toa <= limit; ++end) {
      if (!window.is_taken(end)) cells.add(window[end]);
    }
  }

  /// To be called right after photon `index` is marked taken.
  void note_taken(std::size_t index) {
    if (index >= begin && index < end) cells.remove(window[index]);
  }

  /// False only when no free photon of the range lies within dSpace of (x, y) on both axes.
  bool any_free_near(Length_Type x, Length_Type y) const { return cells.any_near(x, y); }

  std::size_t get_begin() const { return begin; }

 private:
  Window_Type& window;
  Cells_FreePhotons<Length_Type> cells;
  std::size_t begin = 0;
  std::size_t end = 0;
};

/// Samples taken to judge how crowded the photons are: 256 spread over the first window, each counting at most
/// 64 followers, so the judgement costs at most 16384 comparisons whatever the list.
inline constexpr std::size_t crowding_samples = 256;
inline constexpr std::size_t crowding_sampleCap = 64;

/// Whether time windows of `span` after a photon hold, on average over a sample of the photons read first, at
/// least `atLeast` photons. Only decides which exact path is faster.
template <typename Window_Type, typename Time_Type>
bool is_crowded(Window_Type& window, Time_Type span, std::size_t atLeast) {
  if (!window.fetch(1)) return false;
  const std::size_t n = window.get_end();
  const std::size_t step = std::max<std::size_t>(1, n / crowding_samples);
  std::size_t seen = 0;
  std::size_t sampled = 0;
  for (std::size_t i = 0; i + 1 < n; i += step, ++sampled) {
    const Time_Type reach = add_saturating(window[i].toa, span);
    for (std::size_t j = i + 1; j < n && j <= i + crowding_sampleCap && window[j].toa <= reach; ++j) ++seen;
  }
  return seen >= atLeast * sampled;
}

}  // namespace kovra::detail
