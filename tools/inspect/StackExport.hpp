#pragma once

// The time-of-flight spectrum and stack as files: the spectrum as CSV, the stack (an image of record positions
// per time-of-flight bin) as HDF5 and as a multi-page TIFF. Each file is written beside its target and moved into
// place when complete.
//
//   spectrum CSV   bin,tof_lo,tof_hi,tof_lo_s,tof_hi_s,<events|photons>: one line per bin, edges in ticks and
//                  in seconds, [tof_lo, tof_hi)
//   stack HDF5     /stack       unsigned 32-bit [bins, rows, columns], chunks of one bin and up to 256 x 256
//                               cells, shuffled and deflated; attributes axes "tof,y,x", cell_px (cell side in
//                               pixels), selection (the options) and records_* (the tally: seen, counted, and
//                               left out by the selection, before the first trigger, outside the range or grid)
//                  /tof_edges   unsigned 64-bit [bins + 1] in ticks; attributes unit "s" and scale (s per tick)
//                  /x_edges_px, /y_edges_px   the cell edges in pixels [columns + 1]
//   stack TIFF     one page per bin, columns x rows, unsigned 32-bit grey, uncompressed; a page's description
//                  names its bin and time-of-flight range. BigTIFF only when the stack does not fit in 4 GB.

#include <hdf5.h>
#include <tiffio.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/OutputFile_Checked.hpp"
#include "inspect/Format.hpp"
#include "inspect/Hdf5Export.hpp"
#include "inspect/OutputPath_Atomic.hpp"
#include "inspect/RecordFile.hpp"
#include "kovra/Histogram_TimeOfFlight.hpp"

namespace kovra::inspect {

using Histogram_Tof = Histogram_TimeOfFlight<Length>;

/// An edge in ticks in seconds, as every output shows it.
inline double get_edgeSeconds(TimeOfFlight_Ticks ticks) { return static_cast<double>(ticks) * Time::tick_seconds; }

/// The spectrum as CSV text; `recordName` heads the count column.
inline void write_spectrumCsv(std::ostream& out, const Histogram_Tof& histogram, const std::string& recordName) {
  const auto& edges = histogram.get_bins().get_edges();
  out << "bin,tof_lo,tof_hi,tof_lo_s,tof_hi_s," << recordName << '\n';
  for (std::size_t i = 0; i + 1 < edges.size(); ++i) {
    out << i << ',' << edges[i] << ',' << edges[i + 1] << ',' << format_exact(get_edgeSeconds(edges[i])) << ','
        << format_exact(get_edgeSeconds(edges[i + 1])) << ',' << histogram.get_spectrum()[i] << '\n';
  }
}

inline void write_spectrumFile(const std::string& fileName, const Histogram_Tof& histogram,
                               const std::string& recordName) {
  tools::OutputFile_Checked output(fileName, "cannot write CSV file \"" + fileName + "\"");
  write_spectrumCsv(output.stream(), histogram, recordName);
  output.commit();
}

/// The cell edges of the stack in pixels, for the HDF5 file and the figure.
inline std::vector<double> get_cellEdges_px(const Position_Binning<Length>& grid) {
  std::vector<double> edges;
  for (std::int64_t i = 0; i <= grid.side; ++i) {
    edges.push_back(static_cast<double>(i * grid.binUnits) / static_cast<double>(Length::units_per_pixel));
  }
  return edges;
}

inline void write_stackHdf5(const std::string& fileName, const Histogram_Tof& histogram,
                            const std::string& selectionText) {
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  OutputPath_Atomic output(fileName, "HDF5 file");
  {
    const hdf5_detail::H5_Writer writer(fileName);
    const H5_Handle h5File =
        writer.handle(H5Fcreate(output.get_temporary().c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT), H5Fclose);
    const Position_Binning<Length>& grid = histogram.get_grid().value();
    const auto side = static_cast<hsize_t>(grid.side);
    const auto nBins = static_cast<hsize_t>(histogram.get_bins().size());
    const H5_Handle stack = writer.create_array(h5File.get(), "stack", H5T_STD_U32LE, {nBins, side, side},
                                                {1, std::min<hsize_t>(side, 256), std::min<hsize_t>(side, 256)});
    writer.write_all(stack.get(), H5T_NATIVE_UINT32, histogram.get_stack().data());
    writer.write_stringAttribute(stack.get(), "axes", "tof,y,x");
    writer.write_stringAttribute(stack.get(), "unit", "records per cell");
    writer.write_doubleAttribute(stack.get(), "cell_px",
                                 static_cast<double>(grid.binUnits) / static_cast<double>(Length::units_per_pixel));
    writer.write_stringAttribute(stack.get(), "selection", selectionText);
    const TimeOfFlight_Tally& tally = histogram.get_tally();
    const std::pair<const char*, std::uint64_t> counts[] = {{"seen", tally.seen},
                                                            {"counted", tally.counted},
                                                            {"deselected", tally.deselected},
                                                            {"before_first_trigger", tally.beforeFirstTrigger},
                                                            {"outside_tof_range", tally.outsideRange},
                                                            {"outside_stack", tally.outsideStack}};
    for (const auto& [name, count] : counts) {
      writer.write_countAttribute(stack.get(), std::string("records_") + name, count);
    }

    const auto& tofEdges = histogram.get_bins().get_edges();
    const H5_Handle edges = writer.create_array(h5File.get(), "tof_edges", H5T_STD_U64LE, {tofEdges.size()});
    writer.write_all(edges.get(), H5T_NATIVE_UINT64, tofEdges.data());
    writer.write_stringAttribute(edges.get(), "unit", "s");
    writer.write_doubleAttribute(edges.get(), "scale", Time::tick_seconds);
    const std::vector<double> cellEdges = get_cellEdges_px(grid);
    for (const char* name : {"x_edges_px", "y_edges_px"}) {
      const H5_Handle axis = writer.create_array(h5File.get(), name, H5T_IEEE_F64LE, {cellEdges.size()});
      writer.write_all(axis.get(), H5T_NATIVE_DOUBLE, cellEdges.data());
    }
    writer.check(H5Fflush(h5File.get(), H5F_SCOPE_GLOBAL));
  }
  output.commit();
}

namespace tiff_detail {

/// libtiff's last error: it reports through a handler instead of a return value, and its text for a failed write
/// ("IO error writing tag data") names no reason, so the system's error number at that moment is kept beside it.
/// The writer clears errno before each call, so that a number set earlier is not taken for the reason.
struct Tiff_Error {
  std::string text;
  int systemError = 0;
};

inline Tiff_Error& get_lastError() {
  static thread_local Tiff_Error error;
  return error;
}

inline void keep_error(const char* module, const char* format, va_list arguments) {
  const int systemError = errno;
  char text[512];
  std::vsnprintf(text, sizeof text, format, arguments);
  get_lastError() = {std::string(module ? module : "libtiff") + ": " + text, systemError};
}

inline void ignore_warning(const char*, const char*, va_list) {}

}  // namespace tiff_detail

inline void write_stackTiff(const std::string& fileName, const Histogram_Tof& histogram) {
  TIFFSetErrorHandler(tiff_detail::keep_error);
  TIFFSetWarningHandler(tiff_detail::ignore_warning);
  tiff_detail::get_lastError() = {"unknown failure", 0};
  const auto fail = [&] {
    const tiff_detail::Tiff_Error& error = tiff_detail::get_lastError();
    throw std::runtime_error("cannot write TIFF file \"" + fileName +
                             "\": " + (error.systemError != 0 ? std::strerror(error.systemError) : error.text));
  };
  OutputPath_Atomic output(fileName, "TIFF file");
  const Position_Binning<Length>& grid = histogram.get_grid().value();
  const auto side = static_cast<std::uint32_t>(grid.side);
  const std::size_t nBins = histogram.get_bins().size();
  const bool big = Histogram_Tof::get_stackBytes(nBins, grid) > (std::uint64_t{1} << 32) - (std::uint64_t{1} << 26);
  errno = 0;
  TIFF* tiff = TIFFOpen(output.get_temporary().c_str(), big ? "w8" : "w");
  if (!tiff) fail();
  const auto& edges = histogram.get_bins().get_edges();
  const std::uint32_t* cells = histogram.get_stack().data();
  bool written = true;
  for (std::size_t bin = 0; bin < nBins && written; ++bin) {
    const std::string description = "time of flight bin " + std::to_string(bin) + " of " + std::to_string(nBins) +
                                    ": [" + format_exact(get_edgeSeconds(edges[bin])) + ", " +
                                    format_exact(get_edgeSeconds(edges[bin + 1])) + ") s";
    errno = 0;
    written = TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, side) && TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, side) &&
              TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 32) && TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1) &&
              TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT) &&
              TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK) &&
              TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
              TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_NONE) &&
              TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, std::max<std::uint32_t>(1, 16384 / side)) &&
              TIFFSetField(tiff, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE) &&
              TIFFSetField(tiff, TIFFTAG_PAGENUMBER, static_cast<std::uint16_t>(std::min<std::size_t>(bin, 65535)),
                           static_cast<std::uint16_t>(std::min<std::size_t>(nBins, 65535))) &&
              TIFFSetField(tiff, TIFFTAG_IMAGEDESCRIPTION, description.c_str());
    for (std::uint32_t row = 0; row < side && written; ++row) {
      // libtiff does not change a row it writes uncompressed in the machine's byte order.
      void* data = const_cast<std::uint32_t*>(cells + (bin * side + row) * side);
      errno = 0;
      written = TIFFWriteScanline(tiff, data, row, 0) == 1;
    }
    errno = 0;
    written = written && TIFFWriteDirectory(tiff);
  }
  // TIFFClose says nothing of a write that fails in it; what is left to write is written, and checked, first.
  errno = 0;
  written = written && TIFFFlush(tiff);
  TIFFClose(tiff);
  if (!written) fail();
  output.commit();
}

}  // namespace kovra::inspect
