#pragma once

// The command line of kovra_inspect: every option, its default, and the checks of its value.

#include <getopt.h>

#include <charconv>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "common/CommandLine.hpp"

namespace kovra::inspect {

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
};

inline const std::vector<option>& get_inspectLongOptions() {
  static const std::vector<option> options = {
      {"summary", no_argument, nullptr, 's'},       {"csv", required_argument, nullptr, 'c'},
      {"hdf5", required_argument, nullptr, 'H'},    {"image", required_argument, nullptr, 'i'},
      {"binning", required_argument, nullptr, 'b'}, {"size", required_argument, nullptr, 'S'},
      {"help", no_argument, nullptr, 'h'},          tools::versionLongOption,
      {nullptr, 0, nullptr, 0}};
  return options;
}

inline std::string get_inspectHelp() {
  return "Usage: kovra_inspect FILE [options]\n"
         "Shows what a photon file (.kovraphot) or an event file (.kovraevent) holds, and exports its records.\n"
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

template <typename Number_Type>
Number_Type parse_number(const char* name, const char* text) {
  Number_Type value{};
  const char* end = text + std::char_traits<char>::length(text);
  const auto [ptr, error] = std::from_chars(text, end, value);
  if (error != std::errc() || ptr != end || text == end) {
    throw std::invalid_argument(std::string("option --") + name + " needs a number, not \"" + text + "\"");
  }
  return value;
}

}  // namespace options_detail

/// Reads the command line; throws std::invalid_argument with one line saying what is wrong with it.
inline Inspect_Options parse_inspectOptions(int argc, char* argv[]) {
  Inspect_Options options;
  optind = 0;
  opterr = 0;
  const auto& longOptions = get_inspectLongOptions();
  int c = 0;
  while ((c = getopt_long(argc, argv, ":sc:i:b:h", longOptions.data(), nullptr)) != -1) {
    switch (c) {
      case 's':
        options.summary = true;
        break;
      case 'c':
        options.csvFile = optarg;
        break;
      case 'H':
        options.hdf5File = optarg;
        break;
      case 'i':
        options.imageFile = optarg;
        break;
      case 'b':
        options.binning = options_detail::parse_number<double>("binning", optarg);
        if (!(options.binning * 65536.0 >= 1.0) || !(options.binning <= 1e9)) {
          throw std::invalid_argument("option --binning must be between 1/65536 and 1e9 pixels");
        }
        break;
      case 'S':
        options.size_px = options_detail::parse_number<int>("size", optarg);
        if (options.size_px < 1 || options.size_px > 32768) {
          throw std::invalid_argument("option --size must be between 1 and 32768 pixels");
        }
        break;
      case 'h':
        options.helpRequested = true;
        return options;
      case tools::versionOption:
        options.versionRequested = true;
        return options;
      default:
        tools::throw_getoptError(c, argv);
    }
  }
  options.inputFile = tools::take_singleInput(argc, argv);
  if (!options.csvFile && !options.hdf5File && !options.imageFile) options.summary = true;
  if (options.summary && options.csvFile == "-") {
    throw std::invalid_argument("the summary and --csv - cannot share standard output");
  }
  return options;
}

}  // namespace kovra::inspect
