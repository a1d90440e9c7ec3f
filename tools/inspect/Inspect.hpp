#pragma once

// One run of kovra_inspect: open the file through the reader of its type, then the summary and the exports
// asked for, each a walk over the records.

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

#include "common/Counts.hpp"
#include "common/OutputFolders.hpp"
#include "common/Progress.hpp"
#include "inspect/CsvExport.hpp"
#include "inspect/Hdf5Export.hpp"
#include "inspect/HistogramPass.hpp"
#include "inspect/HotPixels.hpp"
#include "inspect/InspectOptions.hpp"
#include "inspect/PngExport.hpp"
#include "inspect/RecordFile.hpp"
#include "inspect/Summary.hpp"
#include "inspect/TriggerFile.hpp"

namespace kovra::inspect {

/// The image of the records the selection takes (all of them when there is none); returns how many of those lie
/// outside it.
template <typename Record_Type>
std::uint64_t write_selectedImage(const Inspect_Options& options, const RecordFile<Record_Type>& file,
                                  tools::Progress& progress) {
  const Record_Selection<Length> selection = options.selection.get_selection();
  if (options.selection.text.empty()) {
    return write_positionImage(*options.imageFile, file, options.size_px, options.binning, &progress);
  }
  std::optional<TriggerFile_Clock<Record_Type>> clock;
  if (selection.uses_timeOfFlight()) clock.emplace(file);
  return write_positionImage(*options.imageFile, file, options.size_px, options.binning, &progress,
                             [&](const Record_Type& record) {
    return selection.accepts(record) && (!clock || selection.accepts_timeOfFlight(clock->get(get_recordTime(record))));
  });
}

/// Makes the missing folders of every output file asked for; throws std::runtime_error naming the first output
/// whose folder cannot be made, with the reason.
inline void create_exportFolders(const Inspect_Options& options) {
  const std::pair<const std::optional<std::string>&, const char*> outputs[] = {
      {options.csvFile, "CSV file"},      {options.hdf5File, "HDF5 file"},      {options.imageFile, "PNG file"},
      {options.spectrumFile, "CSV file"}, {options.stackHdf5File, "HDF5 file"}, {options.stackTiffFile, "TIFF file"},
      {options.plotFile, "PNG file"},     {options.hotPixelsFile, "mask file"}};
  for (const auto& [path, what] : outputs) {
    if (!path || *path == "-") continue;
    if (const std::error_code error = tools::create_outputFolders(*path)) {
      throw std::runtime_error(std::string("cannot write ") + what + " \"" + *path + "\": " + error.message());
    }
  }
}

/// Writes the hot pixels of `counts` to the file --hot-pixels names, whole or not at all, or to `out` for "-".
inline void write_hotPixelsOutput(const Inspect_Options& options, const Pixel_Counts& counts, std::ostream& out,
                                  const char* unit) {
  const Hot_Pixels hot = find_hotPixels(counts, options.hotFactor);
  if (*options.hotPixelsFile == "-") return write_hotPixels(out, hot, options.inputFile, options.hotFactor, unit);
  kovra::OutputFile_Atomic file(*options.hotPixelsFile);
  write_hotPixels(file.stream(), hot, options.inputFile, options.hotFactor, unit);
  if (!file.stream() || file.get_error() != 0) {
    throw std::runtime_error("cannot write mask file \"" + *options.hotPixelsFile +
                             "\": " + std::strerror(file.get_error() != 0 ? file.get_error() : EIO));
  }
  try {
    file.commit();
  } catch (const std::runtime_error&) {
    throw std::runtime_error("cannot write mask file \"" + *options.hotPixelsFile + "\": " + std::strerror(errno));
  }
}

/// Writes the outputs of one opened file. `out` takes the summary and `--csv -`, `notes` the remarks.
template <typename Record_Type>
void run_inspect(const Inspect_Options& options, const RecordFile<Record_Type>& file, std::ostream& out,
                 std::ostream& notes, tools::Progress& progress) {
  if (options.imageFile || (options.plotFile && options.binningGiven)) {
    Position_Histogram2D::get_geometry(options.size_px, options.binning);  // fails before any walk
  }
  // The trigger list, the bins and the stack's size are checked before anything is written.
  std::optional<Histogram_Outputs<Record_Type>> histograms;
  if (options.wants_histogramPass()) {
    histograms.emplace(options, file);
  } else if (options.wants_timeOfFlight()) {
    const TriggerFile_Clock<Record_Type> check(file);
  }
  create_exportFolders(options);
  if (options.summary) {
    progress.set_label("summary");
    print_summary(out, summarize_file(file, &progress));
  }
  if (options.csvFile) {
    progress.set_label("csv");
    if (*options.csvFile == "-") {
      write_csv(out, file, &progress);
    } else {
      write_csvFile(*options.csvFile, file, &progress);
    }
  }
  if (options.hdf5File) {
    progress.set_label("hdf5");
    write_hdf5(*options.hdf5File, file, &progress);
  }
  if (options.imageFile) {
    progress.set_label("image");
    const std::uint64_t outside = write_selectedImage(options, file, progress);
    if (outside != 0) {
      using Traits = Record_Traits<Record_Type>;
      notes << "kovra_inspect: " << outside << " of " << tools::format_count(file.size(), Traits::oneName, Traits::name)
            << (outside == 1 ? " lies" : " lie") << " outside the image of " << options.size_px << " x "
            << options.size_px << " pixels and " << (outside == 1 ? "was" : "were") << " left out\n";
    }
  }
  if (histograms) histograms->run(out, notes, progress);
  if constexpr (std::is_same_v<Record_Type, PhotonEvent>) {
    if (options.hotPixelsFile) {
      progress.set_label("hot pixels");
      write_hotPixelsOutput(options, count_photonPixels(file, &progress), out, "photons");
    }
  }
}

/// Picks the reader by the file's extension and runs; the library reader's exceptions pass through.
inline void run_inspect(const Inspect_Options& options, std::ostream& out, std::ostream& notes,
                        tools::Progress& progress) {
  if (options.inputFile.ends_with(".tpx3")) {
    create_exportFolders(options);
    write_hotPixelsOutput(options, count_rawPixels(options.inputFile), out, "hits");
  } else if (options.inputFile.ends_with(Record_Traits<PhotonEvent>::extension)) {
    run_inspect(options, RecordFile<PhotonEvent>(options.inputFile), out, notes, progress);
  } else if (options.inputFile.ends_with(Record_Traits<Event>::extension)) {
    run_inspect(options, RecordFile<Event>(options.inputFile), out, notes, progress);
  } else {
    throw std::invalid_argument("input file \"" + options.inputFile +
                                "\" must end in .kovraphot or .kovraevent (or .tpx3 for --hot-pixels)");
  }
}

}  // namespace kovra::inspect
