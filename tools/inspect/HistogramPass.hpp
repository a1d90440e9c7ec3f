#pragma once

// The time-of-flight spectrum, the stacks and the figure of one run, which share one walk over the records.
//
// Everything that can fail before writing is checked when the outputs are set up, before the run writes any
// output: the trigger list (present, not empty, in order), the time-of-flight range and bins, the size of the
// stack against --stack-memory, the size of the figure's map. The walk then takes each record's time of flight
// once and hands the record to the histogram (spectrum and stack) and to the figure.
//
// The range of the bins is [--tof-min, --tof-max): 0 and the longest interval between consecutive triggers unless
// given, so that for a regular pulse train every record between the first and the last trigger and the records
// up to a period after the last are counted. The figure shows the selected records; the time-of-flight bounds
// select it only when given.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <optional>
#include <ostream>
#include <span>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "common/Counts.hpp"
#include "common/Progress.hpp"
#include "inspect/Format.hpp"
#include "inspect/InspectOptions.hpp"
#include "inspect/PlotExport.hpp"
#include "inspect/RecordFile.hpp"
#include "inspect/StackExport.hpp"
#include "inspect/TriggerFile.hpp"

namespace kovra::inspect {

template <typename Record_Type>
class Histogram_Outputs {
 public:
  /// Sets up every output asked for; throws std::invalid_argument for what would make one fail.
  Histogram_Outputs(const Inspect_Options& options_, const RecordFile<Record_Type>& file_)
      : options(options_), file(file_), selection(options.selection.get_selection()) {
    const bool hasTriggers = file.has_extTriggers() && file.get_extTriggerCount() != 0;
    if (options.wants_timeOfFlight() || (options.plotFile && hasTriggers)) clock.emplace(file);
    if (clock) set_upHistogram();
    if constexpr (std::is_same_v<Record_Type, Event>) {
      if (options.plotFile) {
        plot.emplace(options.size_px, get_plotBinning());
        if (!hasTriggers) note = file.has_extTriggers() ? "the trigger list is empty" : "the file has no trigger list";
      }
    }
  }

  /// The walk, then the outputs; `out` takes `--spectrum -`, `notes` the tally.
  void run(std::ostream& out, std::ostream& notes, tools::Progress& progress) {
    progress.set_label("time of flight");
    file.for_each_chunk(
        [&](std::span<const Record_Type> chunk) {
      for (const Record_Type& record : chunk) add(record);
        },
        &progress);
    const std::string recordName = Record_Traits<Record_Type>::name;
    if (histogram) {
      if (options.spectrumFile == "-") write_spectrumCsv(out, *histogram, recordName);
      if (options.spectrumFile && options.spectrumFile != "-") {
        write_spectrumFile(*options.spectrumFile, *histogram, recordName);
      }
      if (options.stackHdf5File) write_stackHdf5(*options.stackHdf5File, *histogram, options.selection.text);
      if (options.stackTiffFile) write_stackTiff(*options.stackTiffFile, *histogram);
      write_tallyNote(notes);
    }
    if (plot) {
      write_plot(*options.plotFile, *plot, histogram, file.get_fileName(), options.selection.text, note, file.size());
    }
  }

  const std::optional<Histogram_Tof>& get_histogram() const { return histogram; }

 private:
  void set_upHistogram() {
    const TimeOfFlight_Ticks lo = selection.tofMin.value_or(0);
    const TimeOfFlight_Ticks longest = clock->get_check().get_longestInterval();
    if (!selection.tofMax && longest == 0) {
      const std::string why =
          "no time-of-flight range: the triggers give no interval between two of them; give --tof-max";
      if (options.wants_timeOfFlight()) throw std::invalid_argument(why);
      note = why;
      return;
    }
    if (!selection.tofMax && lo >= longest) {
      throw std::invalid_argument("--tof-min is not below the longest interval between triggers (" +
                                  format_rounded(get_edgeSeconds(longest), 9) + " s), the default --tof-max");
    }
    const TimeOfFlight_Bins bins(options.tofSpacing, lo, selection.tofMax.value_or(longest), options.tofBins);
    std::optional<Position_Binning<Length>> grid;
    if (options.wants_stack()) {
      grid = Position_Binning<Length>::make(options.size_px, options.binning);
      check_stackSize(Histogram_Tof::get_stackBytes(bins.size(), *grid), bins.size(), grid->side);
    }
    histogram.emplace(bins, selection, grid);
  }

  void check_stackSize(std::uint64_t bytes, std::size_t nBins, std::int64_t side) const {
    const std::uint64_t mebibyte = std::uint64_t{1} << 20;
    if (bytes <= options.stackMemory_MiB * mebibyte) return;
    const std::uint64_t needed = bytes / mebibyte + (bytes % mebibyte != 0 ? 1 : 0);
    throw std::invalid_argument("the time-of-flight stack needs " + std::to_string(needed) + " MiB (" +
                                tools::format_count(nBins, "bin") + " x " + std::to_string(side) + " x " +
                                std::to_string(side) + " cells x 4 bytes), more than --stack-memory " +
                                std::to_string(options.stackMemory_MiB) +
                                " MiB; use fewer --tof-bins, a larger --binning or a smaller --size, or raise "
                                "--stack-memory");
  }

  /// The figure's map cells: --binning when given, else a power of two from 1 to 16 pixels for about four
  /// events a cell or more (a file of a thousand events is a map of 16 x 16 cells), and at most 2048 cells a side.
  double get_plotBinning() const {
    if (options.binningGiven) return options.binning;
    const double cellsWanted = std::max(1.0, static_cast<double>(file.size()) / 4.0);
    double cell = 1.0;
    const auto side = [&] { return std::ceil(options.size_px / cell); };
    while ((cell < 16.0 && side() * side() > cellsWanted) || side() > 2048.0) cell *= 2.0;
    return cell;
  }

  void add(const Record_Type& record) {
    const std::optional<TimeOfFlight_Ticks> tof = clock ? clock->get(get_recordTime(record)) : std::nullopt;
    if (histogram) histogram->add(record, tof);
    if constexpr (std::is_same_v<Record_Type, Event>) {
      if (plot && selection.accepts(record) && selection.accepts_timeOfFlight(tof)) plot->add(record);
    }
  }

  /// One line on what the histograms left out, when they left out anything.
  void write_tallyNote(std::ostream& notes) const {
    const TimeOfFlight_Tally& t = histogram->get_tally();
    if (t.counted == t.seen && t.outsideStack == 0) return;
    const auto& bins = histogram->get_bins();
    using Traits = Record_Traits<Record_Type>;
    notes << "kovra_inspect: time of flight: " << t.counted << " of "
          << tools::format_count(t.seen, Traits::oneName, Traits::name) << " counted";
    if (t.deselected != 0) notes << ", " << t.deselected << " left out by the selection";
    if (t.beforeFirstTrigger != 0) notes << ", " << t.beforeFirstTrigger << " before the first trigger";
    if (t.outsideRange != 0) {
      notes << ", " << t.outsideRange << " outside [" << format_rounded(get_edgeSeconds(bins.get_lo()), 9) << " s, "
            << format_rounded(get_edgeSeconds(bins.get_hi()), 9) << " s)";
    }
    if (t.outsideStack != 0) notes << ", " << t.outsideStack << " of those outside the stack's square";
    notes << '\n';
  }

  const Inspect_Options& options;
  const RecordFile<Record_Type>& file;
  Record_Selection<Length> selection;
  std::optional<TriggerFile_Clock<Record_Type>> clock;
  std::optional<Histogram_Tof> histogram;
  std::optional<Plot_Data> plot;
  std::string note;  ///< why the figure has no spectrum
};

}  // namespace kovra::inspect
