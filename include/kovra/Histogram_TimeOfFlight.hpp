#pragma once

// The two histograms of time of flight: a spectrum (records per bin) and a stack (an image of record positions
// per bin), filled in one walk over the records, and the tally of the records they left out and why.
//
// A record is counted when it passes the selection's bounds other than the time of flight, has a time of flight
// (it is not before the first trigger) and that time lies in the bins' range, which is the selection's time of
// flight. The stack also needs the position in its grid; a record outside it is still in the spectrum. So the
// stack summed over its bins is the map of the counted records, cell by cell.
//
// Stack cells hold 32-bit counts, half the memory of 64-bit ones; a cell that would pass 2^32 - 1 is an error.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <stdexcept>
#include <utility>
#include <vector>

#include "kovra/Position_Binning.hpp"
#include "kovra/Record_Selection.hpp"
#include "kovra/TimeOfFlight.hpp"
#include "kovra/TimeOfFlight_Bins.hpp"

namespace kovra {

/// The time of a record: an event's first photon, a photon's arrival.
template <typename Record_Type>
auto get_recordTime(const Record_Type& record) {
  if constexpr (requires { record.toa; }) {
    return record.toa;
  } else {
    return record.t;
  }
}

/// Why records were left out of the histograms; `counted` + the rest = `seen`.
struct TimeOfFlight_Tally {
  std::uint64_t seen = 0;
  std::uint64_t counted = 0;
  std::uint64_t deselected = 0;          ///< failed a bound on pulse shape, photon count or region
  std::uint64_t beforeFirstTrigger = 0;  ///< have no time of flight
  std::uint64_t outsideRange = 0;        ///< time of flight outside the bins
  std::uint64_t outsideStack = 0;        ///< counted in the spectrum, but outside the stack's grid
};

/// Counts per time-of-flight bin and, when a grid is given, per bin and grid cell: stack[(bin * side + row) *
/// side + column].
template <typename Length_Type>
class Histogram_TimeOfFlight {
 public:
  using Stack_Count = std::uint32_t;

  /// Bytes the stack of `nBins` over `grid` takes; saturates instead of overflowing.
  static std::uint64_t get_stackBytes(std::size_t nBins, const Position_Binning<Length_Type>& grid) {
    const auto side = static_cast<std::uint64_t>(grid.side);
    std::uint64_t bytes = sizeof(Stack_Count);
    for (const std::uint64_t factor : {side, side, static_cast<std::uint64_t>(nBins)}) {
      if (factor != 0 && bytes > std::numeric_limits<std::uint64_t>::max() / factor) {
        return std::numeric_limits<std::uint64_t>::max();
      }
      bytes *= factor;
    }
    return bytes;
  }

  Histogram_TimeOfFlight(TimeOfFlight_Bins bins_, Record_Selection<Length_Type> selection_,
                         std::optional<Position_Binning<Length_Type>> grid_)
      : bins(std::move(bins_)), selection(std::move(selection_)), grid(grid_), spectrum(bins.size(), 0) {
    if (grid) stack.assign(bins.size() * grid->get_cellCount(), 0);
  }

  /// Counts one record; `tof` is its time of flight, none before the first trigger.
  template <typename Record_Type>
  void add(const Record_Type& record, std::optional<TimeOfFlight_Ticks> tof) {
    ++tally.seen;
    if (!selection.accepts(record)) {
      ++tally.deselected;
      return;
    }
    if (!tof) {
      ++tally.beforeFirstTrigger;
      return;
    }
    const std::optional<std::size_t> bin = bins.get_bin(*tof);
    if (!bin) {
      ++tally.outsideRange;
      return;
    }
    ++tally.counted;
    ++spectrum[*bin];
    if (!grid) return;
    const std::optional<std::size_t> cell = grid->get_cell(record.x, record.y);
    if (!cell) {
      ++tally.outsideStack;
      return;
    }
    if (++stack[*bin * grid->get_cellCount() + *cell] == 0) {
      throw std::invalid_argument("a cell of the time-of-flight stack holds more than 4294967295 records");
    }
  }

  /// Counts a chunk of records, their times of flight from `clock` (anything with get(time) -> optional ticks).
  template <typename Record_Type, typename Clock_Type>
  void add_records(std::span<const Record_Type> records, Clock_Type& clock) {
    for (const Record_Type& record : records) add(record, clock.get(get_recordTime(record)));
  }

  const TimeOfFlight_Bins& get_bins() const { return bins; }
  const Record_Selection<Length_Type>& get_selection() const { return selection; }
  const std::optional<Position_Binning<Length_Type>>& get_grid() const { return grid; }
  const std::vector<std::uint64_t>& get_spectrum() const { return spectrum; }
  const std::vector<Stack_Count>& get_stack() const { return stack; }
  std::vector<Stack_Count>&& take_stack() { return std::move(stack); }
  const TimeOfFlight_Tally& get_tally() const { return tally; }

 private:
  TimeOfFlight_Bins bins;
  Record_Selection<Length_Type> selection;
  std::optional<Position_Binning<Length_Type>> grid;
  std::vector<std::uint64_t> spectrum;
  std::vector<Stack_Count> stack;
  TimeOfFlight_Tally tally;
};

}  // namespace kovra
