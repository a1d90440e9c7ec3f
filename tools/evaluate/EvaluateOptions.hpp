#pragma once

// The command line of kovra_evaluate: the photon file, the truth beside it, one setting or a grid of them, and
// the outputs. Bad usage throws std::invalid_argument with one line; the program exits with status 2.

#include <getopt.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "common/CommandLine.hpp"
#include "kovra/Worker_Pool.hpp"

namespace kovra::evaluate {

/// The algorithm names kovra_brantel accepts.
inline const std::vector<std::string>& get_algorithmNames() {
  static const std::vector<std::string> names = {"default", "noBranchChain_ghostPhoton_direct",
                                                 "noBranchChain_direct", "forwardChain_photonBuildup",
                                                 "fullChain_direct"};
  return names;
}

/// The settings to try: every combination of the four lists, with one extension factor (absent: none).
struct Settings_Grid {
  std::vector<double> dSpace_px;
  std::vector<double> dTime_s;
  std::vector<std::string> algorithms = {"default"};
  std::vector<double> durationMax_s = {std::numeric_limits<double>::infinity()};
  std::optional<double> dTime_ext;

  std::size_t size() const { return dSpace_px.size() * dTime_s.size() * algorithms.size() * durationMax_s.size(); }
};

struct Evaluate_Options {
  std::string inputFile;
  std::string truthFile;  ///< the flash list; the flash file is found beside it
  Settings_Grid grid;
  std::uint64_t fomMinPhotons = 10;
  double mergeMax = 0.02;
  std::optional<std::string> csvFile;
  std::optional<std::string> plotDir;
  std::optional<unsigned> threads;  ///< settings scanned at once; none: get_threadCount()
  bool helpRequested = false;
  bool versionRequested = false;
};

inline std::string get_evaluateHelp() {
  return "Usage: kovra_evaluate FILE.kovraphot [options]\n"
         "Scores event reconstructions of a simulated photon file against the flashes that really happened\n"
         "(kovra_simulate --truth), for one setting or a grid of settings.\n"
         "\n"
         "  -s, --dSpace PX           search distance in space, pixels (as kovra_brantel)\n"
         "  -t, --dTime S             search distance in time, seconds (as kovra_brantel)\n"
         "      --dTime_ext F         extension factor of the no-branch chains (default: none)\n"
         "  -D, --durationMax S       longest event, seconds (default: unlimited)\n"
         "      --algorithm NAME      default, noBranchChain_ghostPhoton_direct, noBranchChain_direct,\n"
         "                            forwardChain_photonBuildup or fullChain_direct (default: default)\n"
         "      --dSpace-grid LIST    comma-separated distances in space to scan, instead of -s\n"
         "      --dTime-grid LIST     comma-separated distances in time to scan, instead of -t\n"
         "      --algorithm-grid LIST comma-separated algorithms to scan, instead of --algorithm\n"
         "      --durationMax-grid LIST comma-separated longest events to scan ('inf' for unlimited), instead of -D\n"
         "      --truth FILE          the flash list (default: FILE.truth.csv beside the photon file); the\n"
         "                            flash of each photon is read from the .truth.kovraflash beside it\n"
         "      --fom-photons N       events with at least N photons enter the figure of merit (default 10)\n"
         "      --merge-max R         the best setting is the most efficient one with a merge rate at most R\n"
         "                            (default 0.02)\n"
         "      --csv FILE            write one row per setting to FILE\n"
         "      --plots DIR           write heat maps over the grid and the pulse-shape histograms of the best\n"
         "                            setting as PNG files into DIR (needs Debian's python3-matplotlib)\n"
         "      --threads N           settings scanned at once (default: the cores it may use, or KOVRA_THREADS)\n"
         "  -h, --help                print this help and exit\n"
         "      --version             print the version and exit\n"
         "\n"
         "Exit status: 0 on success, 1 when a file cannot be read or written or does not match the photon file,\n"
         "2 for a bad command line.\n";
}

namespace options_detail {

inline double parse_value(const std::string& option, const std::string& text, bool allowInfinity) {
  double value = 0;
  const auto [ptr, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (allowInfinity && text == "inf") return std::numeric_limits<double>::infinity();
  if (text.empty() || error != std::errc() || ptr != text.data() + text.size() || !std::isfinite(value)) {
    throw std::invalid_argument("option " + option + " needs a number, not \"" + text + "\"");
  }
  if (value < 0) throw std::invalid_argument("option " + option + " must not be negative, got \"" + text + "\"");
  return value;
}

/// A comma-separated list of non-negative numbers, or of algorithm names.
inline std::vector<std::string> split_list(const std::string& option, const std::string& text) {
  std::vector<std::string> items;
  std::size_t begin = 0;
  for (;;) {
    const std::size_t comma = text.find(',', begin);
    items.push_back(text.substr(begin, comma == std::string::npos ? std::string::npos : comma - begin));
    if (items.back().empty()) {
      throw std::invalid_argument("option " + option + " needs a comma-separated list without empty entries, not \"" +
                                  text + "\"");
    }
    if (comma == std::string::npos) return items;
    begin = comma + 1;
  }
}

inline std::vector<double> parse_grid(const std::string& option, const std::string& text, bool allowInfinity) {
  std::vector<double> values;
  for (const auto& item : split_list(option, text)) values.push_back(parse_value(option, item, allowInfinity));
  return values;
}

inline std::string check_algorithm(const std::string& option, const std::string& name) {
  for (const auto& known : get_algorithmNames()) {
    if (known == name) return name;
  }
  throw std::invalid_argument("option " + option + ": unknown algorithm \"" + name + "\"");
}

}  // namespace options_detail

/// Reads the command line; throws std::invalid_argument with one line saying what is wrong with it.
inline Evaluate_Options parse_evaluateOptions(int argc, char* argv[]) {
  enum : int {
    dTimeExt = 256, algorithm, dSpaceGrid, dTimeGrid, algorithmGrid, durationMaxGrid, truth, fomPhotons, mergeMax,
    csv, plots, threads
  };
  static const option longOptions[] = {{"dSpace", required_argument, nullptr, 's'},
                                       {"dTime", required_argument, nullptr, 't'},
                                       {"dTime_ext", required_argument, nullptr, dTimeExt},
                                       {"durationMax", required_argument, nullptr, 'D'},
                                       {"algorithm", required_argument, nullptr, algorithm},
                                       {"dSpace-grid", required_argument, nullptr, dSpaceGrid},
                                       {"dTime-grid", required_argument, nullptr, dTimeGrid},
                                       {"algorithm-grid", required_argument, nullptr, algorithmGrid},
                                       {"durationMax-grid", required_argument, nullptr, durationMaxGrid},
                                       {"truth", required_argument, nullptr, truth},
                                       {"fom-photons", required_argument, nullptr, fomPhotons},
                                       {"merge-max", required_argument, nullptr, mergeMax},
                                       {"csv", required_argument, nullptr, csv},
                                       {"plots", required_argument, nullptr, plots},
                                       {"threads", required_argument, nullptr, threads},
                                       {"help", no_argument, nullptr, 'h'},
                                       tools::versionLongOption,
                                       {nullptr, 0, nullptr, 0}};
  Evaluate_Options options;
  auto& grid = options.grid;
  // Each quantity comes from its single option or its grid option, not both.
  std::string dSpaceFrom, dTimeFrom, algorithmFrom, durationFrom;
  const auto once = [](std::string& from, const std::string& option) {
    if (!from.empty()) {
      throw std::invalid_argument(from == option ? "option " + option + " given twice"
                                                 : "options " + from + " and " + option + " exclude each other");
    }
    from = option;
  };

  optind = 0;
  opterr = 0;
  int c = 0;
  while ((c = getopt_long(argc, argv, ":s:t:D:h", longOptions, nullptr)) != -1) {
    const std::string value = optarg ? optarg : "";
    switch (c) {
      case 's':
        once(dSpaceFrom, "--dSpace");
        grid.dSpace_px = {options_detail::parse_value("--dSpace", value, false)};
        break;
      case 't':
        once(dTimeFrom, "--dTime");
        grid.dTime_s = {options_detail::parse_value("--dTime", value, false)};
        break;
      case 'D':
        once(durationFrom, "--durationMax");
        grid.durationMax_s = {options_detail::parse_value("--durationMax", value, true)};
        break;
      case dTimeExt: {
        double factor = 0;
        const auto [ptr, error] = std::from_chars(value.data(), value.data() + value.size(), factor);
        if (value.empty() || error != std::errc() || ptr != value.data() + value.size() || !std::isfinite(factor)) {
          throw std::invalid_argument("option --dTime_ext needs a number, not \"" + value + "\"");
        }
        grid.dTime_ext = factor;
        break;
      }
      case algorithm:
        once(algorithmFrom, "--algorithm");
        grid.algorithms = {options_detail::check_algorithm("--algorithm", value)};
        break;
      case dSpaceGrid:
        once(dSpaceFrom, "--dSpace-grid");
        grid.dSpace_px = options_detail::parse_grid("--dSpace-grid", value, false);
        break;
      case dTimeGrid:
        once(dTimeFrom, "--dTime-grid");
        grid.dTime_s = options_detail::parse_grid("--dTime-grid", value, false);
        break;
      case algorithmGrid:
        once(algorithmFrom, "--algorithm-grid");
        grid.algorithms.clear();
        for (const auto& name : options_detail::split_list("--algorithm-grid", value)) {
          grid.algorithms.push_back(options_detail::check_algorithm("--algorithm-grid", name));
        }
        break;
      case durationMaxGrid:
        once(durationFrom, "--durationMax-grid");
        grid.durationMax_s = options_detail::parse_grid("--durationMax-grid", value, true);
        break;
      case truth:
        options.truthFile = value;
        break;
      case fomPhotons: {
        const double n = options_detail::parse_value("--fom-photons", value, false);
        if (n < 1 || n != std::floor(n) || n > 1e9) {
          throw std::invalid_argument("option --fom-photons needs a whole number from 1 to 1e9, not \"" + value + "\"");
        }
        options.fomMinPhotons = static_cast<std::uint64_t>(n);
        break;
      }
      case mergeMax:
        options.mergeMax = options_detail::parse_value("--merge-max", value, false);
        if (options.mergeMax > 1) throw std::invalid_argument("option --merge-max must be from 0 to 1");
        break;
      case csv:
        options.csvFile = value;
        break;
      case plots:
        options.plotDir = value;
        break;
      case threads:
        options.threads = static_cast<unsigned>(kovra::parse_count("option --threads", value, 1, kovra::max_threads));
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
  if (!options.inputFile.ends_with(".kovraphot")) {
    throw std::invalid_argument("input file \"" + options.inputFile + "\" must end in .kovraphot");
  }
  if (grid.dSpace_px.empty()) throw std::invalid_argument("no distance in space given (-s or --dSpace-grid)");
  if (grid.dTime_s.empty()) throw std::invalid_argument("no distance in time given (-t or --dTime-grid)");
  if (grid.size() > 100000) throw std::invalid_argument("more than 100000 settings to scan");
  if (options.truthFile.empty()) {
    const std::string stem = options.inputFile.substr(0, options.inputFile.size() - std::string(".kovraphot").size());
    options.truthFile = stem + ".truth.csv";
  } else if (!options.truthFile.ends_with(".truth.csv")) {
    throw std::invalid_argument("truth file \"" + options.truthFile + "\" must end in .truth.csv");
  }
  return options;
}

}  // namespace kovra::evaluate
