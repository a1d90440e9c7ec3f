#pragma once

// The figure of an event file (`--plot`): what it shows is gathered in the walk over the events, written to a
// small HDF5 file in a temporary folder, and drawn by kovra_plot_inspect.py (installed beside the program) with
// matplotlib, in the same folder. The figure is then copied to its target, where it appears whole or not at all.
//
// The data file: /map (unsigned 64-bit [rows, columns], events per cell, attribute cell_px), /photons_n and
// /photons_events (events per photon count, counts that occur), /psd_edges_s and /psd_counts (pulse-shape value
// of the events with more than one photon, 50 logarithmic bins per decade from 10 ps to 1 ms; attributes
// psd_zero, psd_not_finite and psd_outside count the rest), /tof_edges_s and /tof_counts when there is a spectrum;
// on the root: title, selection, note (why there is no spectrum), events and events_shown.

#include <hdf5.h>
#include <stdlib.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/OutputFile_Checked.hpp"
#include "common/PythonScript.hpp"
#include "inspect/Hdf5Export.hpp"
#include "inspect/PngExport.hpp"
#include "inspect/StackExport.hpp"

namespace kovra::inspect {

/// What the figure shows of the selected events, besides the spectrum.
class Plot_Data {
 public:
  static constexpr int psd_binsPerDecade = 50;
  static constexpr int psd_lowestDecade = -11;  // 10 ps
  static constexpr std::size_t psd_bins = 8 * psd_binsPerDecade;

  Plot_Data(int size_px, double binning) : map(size_px, binning), psdCounts(psd_bins, 0) {}

  void add(const Event& event) {
    ++shown;
    map.add(event.x, event.y);
    ++nPhotons[event.nPhotons];
    if (event.nPhotons <= 1) return;
    if (!std::isfinite(event.psd)) {
      ++psdNotFinite;
    } else if (event.psd <= 0.0) {
      ++psdZero;
    } else {
      const double position = (std::log10(event.psd) - psd_lowestDecade) * psd_binsPerDecade;
      if (position >= 0.0 && position < static_cast<double>(psd_bins)) {
        ++psdCounts[static_cast<std::size_t>(position)];
      } else {
        ++psdOutside;
      }
    }
  }

  /// Writes the data file the plotting script reads.
  void write(const std::string& fileName, const std::optional<Histogram_Tof>& spectrum, const std::string& title,
             const std::string& selection, const std::string& note, std::uint64_t events) const {
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
    const hdf5_detail::H5_Writer writer(fileName);
    const H5_Handle file =
        writer.handle(H5Fcreate(fileName.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT), H5Fclose);
    const auto side = static_cast<hsize_t>(map.get_width());
    const H5_Handle mapSet = writer.create_array(file.get(), "map", H5T_STD_U64LE, {side, side});
    writer.write_all(mapSet.get(), H5T_NATIVE_UINT64, map.get_counts().data());
    writer.write_doubleAttribute(mapSet.get(), "cell_px", map.get_bin_px());

    std::vector<std::uint64_t> n, count;
    for (const auto& [photons, eventCount] : nPhotons) {
      n.push_back(photons);
      count.push_back(eventCount);
    }
    write_array(writer, file.get(), "photons_n", n);
    write_array(writer, file.get(), "photons_events", count);
    std::vector<double> psdEdges;
    for (std::size_t i = 0; i <= psd_bins; ++i) {
      psdEdges.push_back(std::pow(10.0, psd_lowestDecade + static_cast<double>(i) / psd_binsPerDecade));
    }
    write_array(writer, file.get(), "psd_edges_s", psdEdges);
    const H5_Handle psd = write_array(writer, file.get(), "psd_counts", psdCounts);
    writer.write_countAttribute(psd.get(), "psd_zero", psdZero);
    writer.write_countAttribute(psd.get(), "psd_not_finite", psdNotFinite);
    writer.write_countAttribute(psd.get(), "psd_outside", psdOutside);
    if (spectrum) {
      std::vector<double> tofEdges;
      for (const TimeOfFlight_Ticks edge : spectrum->get_bins().get_edges()) tofEdges.push_back(get_edgeSeconds(edge));
      const H5_Handle edges = write_array(writer, file.get(), "tof_edges_s", tofEdges);
      writer.write_stringAttribute(
          edges.get(), "spacing",
          spectrum->get_bins().get_spacing() == TimeOfFlight_Bins::Spacing::linear ? "linear" : "log");
      write_array(writer, file.get(), "tof_counts", spectrum->get_spectrum());
    }
    writer.write_stringAttribute(file.get(), "title", title);
    writer.write_stringAttribute(file.get(), "selection", selection);
    writer.write_stringAttribute(file.get(), "note", note);
    writer.write_countAttribute(file.get(), "events", events);
    writer.write_countAttribute(file.get(), "events_shown", shown);
    writer.check(H5Fflush(file.get(), H5F_SCOPE_GLOBAL));
  }

 private:
  template <typename Value_Type>
  static H5_Handle write_array(const hdf5_detail::H5_Writer& writer, hid_t file, const char* name,
                               const std::vector<Value_Type>& values) {
    const hid_t type = std::is_same_v<Value_Type, double> ? H5T_NATIVE_DOUBLE : H5T_NATIVE_UINT64;
    H5_Handle dataset = writer.create_array(file, name, type, {values.size()});
    if (!values.empty()) writer.write_all(dataset.get(), type, values.data());
    return dataset;
  }

  Position_Histogram2D map;
  std::map<std::uint64_t, std::uint64_t> nPhotons;
  std::vector<std::uint64_t> psdCounts;
  std::uint64_t shown = 0;
  std::uint64_t psdZero = 0;
  std::uint64_t psdNotFinite = 0;
  std::uint64_t psdOutside = 0;
};

/// A temporary folder, removed with its content when the object goes.
class Temporary_Folder {
 public:
  Temporary_Folder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kovra_plot_XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a temporary folder for the plot");
    path = pattern;
  }
  Temporary_Folder(const Temporary_Folder&) = delete;
  Temporary_Folder& operator=(const Temporary_Folder&) = delete;
  ~Temporary_Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  std::string file(const std::string& name) const { return (path / name).string(); }

 private:
  std::filesystem::path path;
};

/// Draws the figure to `fileName` through the plotting script. The script draws it in the temporary folder (and
/// says why when it cannot); the figure is then copied to its target through OutputFile_Checked, so that a
/// target that cannot take it is named with the system's reason.
inline void write_plot(const std::string& fileName, const Plot_Data& data, const std::optional<Histogram_Tof>& spectrum,
                       const std::string& title, const std::string& selection, const std::string& note,
                       std::uint64_t events) {
  const Temporary_Folder folder;
  const std::string dataFile = folder.file("plot.h5");
  data.write(dataFile, spectrum, title, selection, note, events);
  const std::string figure = folder.file("plot.png");
  tools::run_pythonScript("kovra_plot_inspect.py", {dataFile, figure});
  std::ifstream drawn(figure, std::ios::binary);
  if (!drawn) throw std::runtime_error("the plotting script drew no figure at \"" + figure + "\"");
  tools::OutputFile_Checked output(fileName, "cannot write PNG file \"" + fileName + "\"");
  output.stream() << drawn.rdbuf();
  output.commit();
}

}  // namespace kovra::inspect
