#pragma once

// The command line of kovra_inspect: every option, its default, and the checks of its value.

#include <getopt.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "common/CommandLine.hpp"
#include "common/Options.hpp"
#include "kovra/Record_Selection.hpp"
#include "kovra/TimeOfFlight_Bins.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::inspect {

/// The bounds of a selection as given, in pixels and seconds; converted to raw units with the library's rounding.
struct Selection_Options {
  std::optional<double> psdMin_s, psdMax_s;
  std::optional<std::uint64_t> photonsMin, photonsMax;
  std::optional<double> tofMin_s, tofMax_s;
  std::optional<std::array<double, 4>> region_px;  ///< x0, y0, x1, y1
  std::string text;                                ///< the options as given, for the outputs to name them

  bool uses_eventFields() const { return psdMin_s || psdMax_s || photonsMin || photonsMax; }

  kovra::Record_Selection<tpx3spidr::Length> get_selection() const {
    using tpx3spidr::Length;
    using tpx3spidr::Time;
    kovra::Record_Selection<Length> s;
    s.psdMin = psdMin_s;
    s.psdMax = psdMax_s;
    s.photonsMin = photonsMin;
    s.photonsMax = photonsMax;
    if (tofMin_s) s.tofMin = static_cast<TimeOfFlight_Ticks>(Time::make_from_seconds<true>(*tofMin_s).value);
    if (tofMax_s) s.tofMax = static_cast<TimeOfFlight_Ticks>(Time::make_from_seconds<true>(*tofMax_s).value);
    if (region_px) {
      const auto& r = *region_px;
      s.region = kovra::Detector_Region<Length>{Length::from_pixels(r[0]), Length::from_pixels(r[1]),
                                                Length::from_pixels(r[2]), Length::from_pixels(r[3])};
    }
    return s;
  }
};

/// The settings of one run. Without an export option the summary is printed; `--summary` prints it as well.
struct Inspect_Options {
  std::string inputFile;
  bool summary = false;
  bool helpRequested = false;
  bool versionRequested = false;
  std::optional<std::string> csvFile;  ///< "-" for standard output
  std::optional<std::string> hdf5File;
  std::optional<std::string> imageFile;
  int size_px = 256;
  double binning = 1.0;
  bool binningGiven = false;                ///< the figure's map chooses its own cells otherwise
  std::optional<std::string> spectrumFile;  ///< "-" for standard output
  std::optional<std::string> stackHdf5File;
  std::optional<std::string> stackTiffFile;
  std::optional<std::string> plotFile;
  std::size_t tofBins = 100;
  kovra::TimeOfFlight_Bins::Spacing tofSpacing = kovra::TimeOfFlight_Bins::Spacing::linear;
  std::uint64_t stackMemory_MiB = 1024;
  Selection_Options selection;
  std::optional<std::string> hotPixelsFile;  ///< the hot pixels as a mask file; "-" for standard output
  double hotFactor = 10;                     ///< hot: more than this times the median count

  bool wants_stack() const { return stackHdf5File || stackTiffFile; }
  /// Whether the run needs the time of flight of every record, so a trigger list.
  bool wants_timeOfFlight() const { return spectrumFile || wants_stack() || selection.tofMin_s || selection.tofMax_s; }
  bool wants_histogramPass() const { return spectrumFile || wants_stack() || plotFile; }
};

/// Values getopt_long returns for the long options without a short form.
enum Inspect_LongOption : int {
  spectrum = 0x100,
  stackHdf5,
  stackTiff,
  plot,
  tofBins,
  tofLog,
  tofMin,
  tofMax,
  psdMin,
  psdMax,
  photonsMin,
  photonsMax,
  region,
  stackMemory,
  hotPixels,
  hotFactor
};

inline const std::vector<option>& get_inspectLongOptions() {
  static const std::vector<option> options = {{"summary", no_argument, nullptr, 's'},
                                              {"csv", required_argument, nullptr, 'c'},
                                              {"hdf5", required_argument, nullptr, 'H'},
                                              {"image", required_argument, nullptr, 'i'},
                                              {"binning", required_argument, nullptr, 'b'},
                                              {"size", required_argument, nullptr, 'S'},
                                              {"spectrum", required_argument, nullptr, spectrum},
                                              {"stack-hdf5", required_argument, nullptr, stackHdf5},
                                              {"stack-tiff", required_argument, nullptr, stackTiff},
                                              {"plot", required_argument, nullptr, plot},
                                              {"tof-bins", required_argument, nullptr, tofBins},
                                              {"tof-log", no_argument, nullptr, tofLog},
                                              {"tof-min", required_argument, nullptr, tofMin},
                                              {"tof-max", required_argument, nullptr, tofMax},
                                              {"psd-min", required_argument, nullptr, psdMin},
                                              {"psd-max", required_argument, nullptr, psdMax},
                                              {"photons-min", required_argument, nullptr, photonsMin},
                                              {"photons-max", required_argument, nullptr, photonsMax},
                                              {"region", required_argument, nullptr, region},
                                              {"stack-memory", required_argument, nullptr, stackMemory},
                                              {"hot-pixels", required_argument, nullptr, hotPixels},
                                              {"hot-factor", required_argument, nullptr, hotFactor},
                                              {"help", no_argument, nullptr, 'h'},
                                              tools::versionLongOption,
                                              {nullptr, 0, nullptr, 0}};
  return options;
}

inline std::string get_inspectHelp() {
  return "Usage: kovra_inspect FILE [options]\n"
         "Shows what a photon file (.kovraphot) or an event file (.kovraevent) holds, and exports its records.\n"
         "Of a Timepix3 raw file (.tpx3) it lists the hot pixels (--hot-pixels), and nothing else.\n"
         "\n"
         "  -s, --summary           print the summary (the default when no export is asked for): record count,\n"
         "                          time span and mean rate, external triggers, position extent and, for event\n"
         "                          files, the distributions of photons per event and of the pulse-shape value\n"
         "  -c, --csv FILE          write every record as a CSV line to FILE ('-' for standard output): raw\n"
         "                          counts, then positions in pixels and times in seconds\n"
         "      --hdf5 FILE         write the records as an HDF5 file: dataset /photons or /events of the raw\n"
         "                          records with units as attributes, /extTriggers when the file has triggers\n"
         "  -i, --image FILE.png    write a map of the record positions as a PNG image, log colour scale\n"
         "  -b, --binning PX        detector pixels per image pixel, at least 1/65536 (default 1)\n"
         "      --size PX           detector width and height in pixels covered by the image (default 256)\n"
         "      --spectrum FILE     write the time-of-flight spectrum as CSV to FILE ('-' for standard output)\n"
         "      --stack-hdf5 FILE   write an image per time-of-flight bin (bins x rows x columns, cells of\n"
         "                          --binning pixels over --size) as an HDF5 file\n"
         "      --stack-tiff FILE   write the same stack as a multi-page TIFF, one page per bin\n"
         "      --plot FILE.png     draw a figure of an event file: event map, photons per event, pulse-shape\n"
         "                          value and, when the file has triggers, the time-of-flight spectrum\n"
         "      --hot-pixels FILE   list the pixels of a raw or photon file that fire more than --hot-factor\n"
         "                          times the median of the pixels that fired, as 'X Y' lines kovra_import --mask\n"
         "                          reads ('-' for standard output)\n"
         "      --hot-factor F      the factor above the median, more than 1 (default 10)\n"
         "\n"
         "Time of flight: a record's time minus the latest trigger at or before it.\n"
         "      --tof-bins N        number of time-of-flight bins, 1 to 1000000 (default 100)\n"
         "      --tof-log           logarithmic bins instead of equal ones (needs --tof-min above 0)\n"
         "      --tof-min S         start of the bins, seconds (default 0)\n"
         "      --tof-max S         end of the bins, seconds (default: the longest interval between\n"
         "                          consecutive triggers)\n"
         "      --stack-memory MIB  largest stack to hold in memory, MiB (default 1024)\n"
         "\n"
         "Selections, for the spectrum, the stacks, the image and the plot (--tof-min and --tof-max, when given,\n"
         "select the time of flight in [min, max) as well):\n"
         "      --psd-min S, --psd-max S          pulse-shape value within these, seconds (event files)\n"
         "      --photons-min N, --photons-max N  photons per event within these (event files)\n"
         "      --region X0,Y0,X1,Y1              position in [X0, X1) x [Y0, Y1), pixels\n"
         "\n"
         "  -h, --help              print this help and exit\n"
         "      --version           print the version and exit\n"
         "\n"
         "Files are read in blocks of records, so memory stays bounded whatever the file size; a progress line\n"
         "is shown on standard error when it is a terminal. All numbers are written the same in every locale.\n"
         "\n"
         "Exit status: 0 on success, 1 when the file cannot be read or an output cannot be written, 2 for a bad\n"
         "command line.\n";
}

namespace options_detail {

/// The name of an image output, which is always a PNG file; throws the bad-usage line for another extension.
inline std::string take_pngName(const char* option, const std::string& name) {
  if (!name.ends_with(".png")) throw tools::bad_value(option, "a file name ending in .png", name);
  return name;
}

inline std::array<double, 4> parse_region(const std::string& text) {
  std::array<double, 4> corners{};
  std::string rest = text;
  for (std::size_t i = 0; i < 4; ++i) {
    const std::size_t comma = rest.find(',');
    if ((comma == std::string::npos) != (i == 3)) {
      throw tools::bad_value("region", "X0,Y0,X1,Y1 in pixels", text);
    }
    corners[i] = tools::parse_number("region", rest.substr(0, comma), {"a number of pixels", -32768, 32768});
    rest = comma == std::string::npos ? "" : rest.substr(comma + 1);
  }
  if (!(corners[0] < corners[2] && corners[1] < corners[3])) {
    throw std::invalid_argument("option --region needs X0 < X1 and Y0 < Y1");
  }
  return corners;
}

/// Reads one option of the time-of-flight outputs or the selection; false for an option of neither.
inline bool parse_timeOfFlightOption(int c, const std::string& value, Inspect_Options& options) {
  using tpx3spidr::Time;
  const tools::Number_Range wholeCount{"a whole number", 0, INFINITY, false, true};
  Selection_Options& s = options.selection;
  switch (c) {
    case spectrum:
      options.spectrumFile = value;
      return true;
    case stackHdf5:
      options.stackHdf5File = value;
      return true;
    case stackTiff:
      options.stackTiffFile = value;
      return true;
    case plot:
      options.plotFile = take_pngName("plot", value);
      return true;
    case tofBins:
      options.tofBins = tools::parse_number<std::size_t>("tof-bins", value, {"a whole number", 1, 1e6, false, true});
      return true;
    case tofLog:
      options.tofSpacing = kovra::TimeOfFlight_Bins::Spacing::logarithmic;
      return true;
    case stackMemory:
      options.stackMemory_MiB =
          tools::parse_number<std::uint64_t>("stack-memory", value, {"a whole number of MiB", 1, 0x1p30, false, true});
      return true;
    default:
      break;
  }
  // The selection: its text is kept as given, for the outputs to say what they hold.
  switch (c) {
    case tofMin:
      s.tofMin_s = tools::parse_number("tof-min", value, {"a number of seconds", 0, Time::max_seconds});
      break;
    case tofMax:
      s.tofMax_s = tools::parse_number("tof-max", value, {"a number of seconds", 0, Time::max_seconds});
      break;
    case psdMin:
      s.psdMin_s = tools::parse_number("psd-min", value, {"a number of seconds", 0, 1e6});
      break;
    case psdMax:
      s.psdMax_s = tools::parse_number("psd-max", value, {"a number of seconds", 0, 1e6});
      break;
    case photonsMin:
      s.photonsMin = tools::parse_number<std::uint64_t>("photons-min", value, wholeCount);
      break;
    case photonsMax:
      s.photonsMax = tools::parse_number<std::uint64_t>("photons-max", value, wholeCount);
      break;
    case region:
      s.region_px = parse_region(value);
      break;
    default:
      return false;
  }
  const option& named = *std::find_if(get_inspectLongOptions().begin(), get_inspectLongOptions().end(),
                                      [c](const option& o) { return o.val == c; });
  s.text += std::string(s.text.empty() ? "" : " ") + "--" + named.name + " " + value;
  return true;
}

/// The checks between options, once all are read.
inline void check_inspectOptions(const Inspect_Options& options) {
  const Selection_Options& s = options.selection;
  if (s.tofMin_s && s.tofMax_s && !(*s.tofMin_s < *s.tofMax_s)) {
    throw std::invalid_argument("option --tof-max must be larger than --tof-min");
  }
  if (options.tofSpacing == kovra::TimeOfFlight_Bins::Spacing::logarithmic && !(s.tofMin_s.value_or(0) > 0)) {
    throw std::invalid_argument("option --tof-log needs --tof-min above 0");
  }
  if (s.psdMin_s && s.psdMax_s && *s.psdMin_s > *s.psdMax_s) {
    throw std::invalid_argument("option --psd-max must not be smaller than --psd-min");
  }
  if (s.photonsMin && s.photonsMax && *s.photonsMin > *s.photonsMax) {
    throw std::invalid_argument("option --photons-max must not be smaller than --photons-min");
  }
  const bool events = options.inputFile.ends_with(".kovraevent");
  const bool raw = options.inputFile.ends_with(".tpx3");
  if (raw && (!options.hotPixelsFile || options.summary || options.csvFile || options.hdf5File || options.imageFile ||
              options.wants_histogramPass() || options.wants_timeOfFlight() || !s.text.empty())) {
    throw std::invalid_argument("a raw file (.tpx3) takes only --hot-pixels and --hot-factor");
  }
  if (events && options.hotPixelsFile) {
    throw std::invalid_argument("option --hot-pixels needs a raw file (.tpx3) or a photon file (.kovraphot)");
  }
  if (!events && s.uses_eventFields()) {
    throw std::invalid_argument("the selections by pulse-shape value and photon count need an event file");
  }
  if (!events && options.plotFile) throw std::invalid_argument("option --plot needs an event file (.kovraevent)");
  const int onStandardOutput = int{options.summary} + int{options.csvFile == "-"} + int{options.spectrumFile == "-"};
  if (onStandardOutput > 1) {
    throw std::invalid_argument(options.summary && options.csvFile == "-"
                                    ? "the summary and --csv - cannot share standard output"
                                    : "only one of the summary, --csv - and --spectrum - can go to standard output");
  }
  if (onStandardOutput + int{options.hotPixelsFile == "-"} > 1) {
    throw std::invalid_argument(
        "--hot-pixels - cannot share standard output with the summary, --csv - or --spectrum -");
  }
}

/// Takes one option of the command line (`c` as getopt_long returns it).
inline void take_inspectOption(int c, const std::string& value, Inspect_Options& options) {
  switch (c) {
    case 's':
      options.summary = true;
      break;
    case 'c':
      options.csvFile = value;
      break;
    case 'H':
      options.hdf5File = value;
      break;
    case 'i':
      options.imageFile = options_detail::take_pngName("image", value);
      break;
    case 'b':
      options.binning = tools::parse_number("binning", value, {"a number of pixels", 0x1p-16, 1e9});
      options.binningGiven = true;
      break;
    case 'S':
      options.size_px = tools::parse_number<int>("size", value, {"a whole number of pixels", 1, 32768, false, true});
      break;
    case hotPixels:
      options.hotPixelsFile = value;
      break;
    case hotFactor:
      options.hotFactor = tools::parse_number("hot-factor", value, {"a number", 1, 1e12, true});
      break;
    default:
      parse_timeOfFlightOption(c, value, options);
  }
}

}  // namespace options_detail

/// Reads the command line; throws std::invalid_argument with one line saying what is wrong with it.
inline Inspect_Options parse_inspectOptions(int argc, char* argv[]) {
  Inspect_Options options;
  const auto take = [&](int c, const std::string& value) { options_detail::take_inspectOption(c, value, options); };
  if (!tools::read_options(argc, argv, ":sc:i:b:h", get_inspectLongOptions().data(), options, take)) return options;
  options.inputFile = tools::take_singleInput(argc, argv);
  if (!options.csvFile && !options.hdf5File && !options.imageFile && !options.wants_histogramPass() &&
      !options.hotPixelsFile) {
    options.summary = true;
  }
  options_detail::check_inspectOptions(options);
  return options;
}

}  // namespace kovra::inspect
