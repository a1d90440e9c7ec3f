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
#include "common/HitPhotons.hpp"
#include "common/Options.hpp"
#include "common/import/HitGrouping.hpp"
#include "common/import/ImportOptions.hpp"
#include "kovra/Worker_Pool.hpp"

namespace kovra::evaluate {

/// The algorithm names kovra_brantel accepts.
inline const std::vector<std::string>& get_algorithmNames() {
  static const std::vector<std::string> names = {"default", "noBranchChain_ghostPhoton_direct", "noBranchChain_direct",
                                                 "forwardChain_photonBuildup", "fullChain_direct"};
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

/// The import's grouping settings to try, for a raw file: every combination of the three lists.
struct Grouping_Grid {
  std::vector<unsigned> radius_px = {1};
  std::vector<double> window_s = {250e-9};
  std::vector<import::Photon_Time> photonTimes = {import::Photon_Time::strongest};

  std::size_t size() const { return radius_px.size() * window_s.size() * photonTimes.size(); }
};

struct Evaluate_Options {
  std::string inputFile;
  /// The flash list, whose flash file is found beside it; for a raw file, its hit file (.truth.kovrahit).
  std::string truthFile;
  Settings_Grid grid;
  bool rawInput = false;        ///< a simulated raw file: its grouping into photons is scored, not a reconstruction
  Grouping_Grid groupingGrid;   ///< for a raw file
  std::string simulatedFile;    ///< for a raw file: the photon file simulated with it, whose photons are the truth
  std::string timeWalkFile;     ///< for a raw file: hit times are corrected by this table, as kovra_import does
  std::string fitTimeWalkFile;  ///< for a raw file: where a fitted time-walk table goes
  bool fitFromData = false;     ///< fit against the strongest hit of each photon instead of the truth
  std::uint64_t fomMinPhotons = 10;
  /// The highest merge rate of the best setting; none: 0.02 for a reconstruction, 1 for a grouping (whose
  /// efficiency already counts a merge against the photons merged).
  std::optional<double> mergeMax;
  std::optional<std::string> csvFile;
  std::optional<std::string> plotDir;
  std::optional<unsigned> threads;  ///< settings scanned at once; none: get_threadCount()
  bool helpRequested = false;
  bool versionRequested = false;
};

inline std::string get_evaluateHelp() {
  return "Usage: kovra_evaluate FILE.kovraphot [options]\n"
         "       kovra_evaluate RAW.tpx3 --simulated FILE.kovraphot [options]\n"
         "Scores event reconstructions of a simulated photon file against the flashes that really happened\n"
         "(kovra_simulate --truth), for one setting or a grid of settings. Given a simulated raw file\n"
         "(kovra_simulate --truth --raw RAW.tpx3), it scores instead how kovra_import groups its hits into\n"
         "photons, against the photons of FILE.kovraphot.\n"
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
         "                            (default 0.02; 1 for a raw file)\n"
         "      --csv FILE            write one row per setting to FILE\n"
         "      --plots DIR           write heat maps over the grid and the pulse-shape histograms of the best\n"
         "                            setting as PNG files into DIR (needs Debian's python3-matplotlib)\n"
         "      --threads N           settings scanned at once (default: the cores it may use, or KOVRA_THREADS)\n"
         "\n"
         "For a raw file (the grouping of kovra_import; -s, -t and the other settings above do not apply):\n"
         "      --simulated FILE      the photon file simulated with the raw file (required)\n"
         "      --radius PX, --radius-grid LIST            as kovra_import --radius, 0 to 16 (default 1)\n"
         "      --window S, --window-grid LIST             as kovra_import --window (default 250e-9)\n"
         "      --photon-time T, --photon-time-grid LIST   strongest or earliest (default strongest)\n"
         "      --truth FILE          the hit file (default: RAW.truth.kovrahit beside the raw file)\n"
         "      --time-walk FILE      correct hit times by this table first, as kovra_import --time-walk\n"
         "      --fit-time-walk FILE  fit a table of the hits' delays by ToT and write it to FILE (with --plots,\n"
         "                            also DIR/time_walk.png)\n"
         "      --fit-from truth|data against each hit's true photon (the default), or, needing no truth, the\n"
         "                            strongest hit of its photon as grouped with the first radius and window\n"
         "  -h, --help                print this help and exit\n"
         "      --version             print the version and exit\n"
         "\n"
         "Exit status: 0 on success, 1 when a file cannot be read or written or does not match the photon file,\n"
         "2 for a bad command line.\n";
}

namespace options_detail {

enum : int {
  dTimeExt = 256,
  algorithm,
  dSpaceGrid,
  dTimeGrid,
  algorithmGrid,
  durationMaxGrid,
  truth,
  fomPhotons,
  mergeMax,
  csv,
  plots,
  threads,
  simulated,
  radius,
  radiusGrid,
  window,
  windowGrid,
  photonTime,
  photonTimeGrid,
  timeWalk,
  fitTimeWalk,
  fitFrom
};

/// A distance or duration: a number, at least 0 (a duration may be inf, unlimited).
inline tools::Number_Range settingRange(bool duration) { return {"a number", 0, INFINITY, false, false, duration}; }

inline std::vector<double> parse_grid(const char* option, const std::string& text, bool duration) {
  std::vector<double> values;
  for (const auto& item : tools::split_list(option, text))
    values.push_back(tools::parse_number(option, item, settingRange(duration)));
  return values;
}

inline std::string check_algorithm(const char* option, const std::string& name) {
  for (const auto& known : get_algorithmNames()) {
    if (known == name) return name;
  }
  throw tools::bad_value(option, "an algorithm the reconstruction knows", name);
}

/// Each of the scanned quantities comes from its single option or its grid option, not both.
struct Given_Once {
  std::string dSpace, dTime, algorithm, duration, radius, window, photonTime;

  static void note(std::string& from, const std::string& option) {
    if (!from.empty()) {
      throw std::invalid_argument(from == option ? "option --" + option + " given twice"
                                                 : "options --" + from + " and --" + option + " exclude each other");
    }
    from = option;
  }
};

/// The scanned numbers: each from its single option or its grid option.
struct Scanned_Number {
  int single;
  int gridded;
  const char* name;  // of the single option; the grid option adds "-grid"
  std::vector<double> Settings_Grid::*target;
  std::string Given_Once::*given;
  bool duration;
};

inline const std::vector<Scanned_Number>& get_scannedNumbers() {
  static const std::vector<Scanned_Number> numbers = {
      {'s', dSpaceGrid, "dSpace", &Settings_Grid::dSpace_px, &Given_Once::dSpace, false},
      {'t', dTimeGrid, "dTime", &Settings_Grid::dTime_s, &Given_Once::dTime, false},
      {'D', durationMaxGrid, "durationMax", &Settings_Grid::durationMax_s, &Given_Once::duration, true}};
  return numbers;
}

/// Takes one scanned quantity, as a single setting or a grid, into `grid`; false for another option.
inline bool take_gridOption(int c, const std::string& value, Settings_Grid& grid, Given_Once& given) {
  for (const auto& number : get_scannedNumbers()) {
    if (c != number.single && c != number.gridded) continue;
    const std::string option = std::string(number.name) + (c == number.gridded ? "-grid" : "");
    Given_Once::note(given.*number.given, option);
    grid.*number.target = c == number.gridded
                              ? parse_grid(option.c_str(), value, number.duration)
                              : std::vector{tools::parse_number(option, value, settingRange(number.duration))};
    return true;
  }
  if (c == algorithm || c == algorithmGrid) {
    const char* option = c == algorithm ? "algorithm" : "algorithm-grid";
    Given_Once::note(given.algorithm, option);
    grid.algorithms.clear();
    const auto names = c == algorithm ? std::vector<std::string>{value} : tools::split_list(option, value);
    for (const auto& name : names) grid.algorithms.push_back(check_algorithm(option, name));
    return true;
  }
  if (c == dTimeExt) {
    grid.dTime_ext = tools::parse_number("dTime_ext", value, {"a number", -INFINITY});
    return true;
  }
  return false;
}

/// Takes one of the grouping settings of a raw file, as a single setting or a grid, into `grid`; false for
/// another option.
inline bool take_groupingOption(int c, const std::string& value, Grouping_Grid& grid, Given_Once& given) {
  const bool gridded = c == radiusGrid || c == windowGrid || c == photonTimeGrid;
  const auto items = [&](const std::string& option) {
    return gridded ? tools::split_list(option.c_str(), value) : std::vector<std::string>{value};
  };
  if (c == radius || c == radiusGrid) {
    const std::string option = gridded ? "radius-grid" : "radius";
    Given_Once::note(given.radius, option);
    grid.radius_px.clear();
    for (const auto& item : items(option)) {
      grid.radius_px.push_back(import::detail::parse_radius(option, item));
    }
  } else if (c == window || c == windowGrid) {
    const std::string option = gridded ? "window-grid" : "window";
    Given_Once::note(given.window, option);
    grid.window_s.clear();
    for (const auto& item : items(option)) {
      grid.window_s.push_back(import::detail::parse_window(option, item));
    }
  } else if (c == photonTime || c == photonTimeGrid) {
    const std::string option = gridded ? "photon-time-grid" : "photon-time";
    Given_Once::note(given.photonTime, option);
    grid.photonTimes.clear();
    for (const auto& item : items(option)) grid.photonTimes.push_back(import::detail::parse_photonTime(option, item));
  } else {
    return false;
  }
  return true;
}

/// Takes one of the other options into `options`.
inline void take_evaluateOption(int c, const std::string& value, Evaluate_Options& options) {
  switch (c) {
    case truth:
      options.truthFile = value;
      break;
    case fomPhotons:
      options.fomMinPhotons =
          tools::parse_number<std::uint64_t>("fom-photons", value, {"a whole number", 1, 1e9, false, true});
      break;
    case mergeMax:
      options.mergeMax = tools::parse_number("merge-max", value, {"a share", 0, 1});
      break;
    case csv:
      options.csvFile = value;
      break;
    case plots:
      options.plotDir = value;
      break;
    case simulated:
      options.simulatedFile = value;
      break;
    case timeWalk:
      options.timeWalkFile = value;
      break;
    case fitTimeWalk:
      options.fitTimeWalkFile = value;
      break;
    case fitFrom:
      options.fitFromData = tools::parse_choice<bool>("fit-from", value, {{"truth", false}, {"data", true}});
      break;
    case threads:
      options.threads =
          tools::parse_number<unsigned>("threads", value, {"a whole number", 1, kovra::max_threads, false, true});
      break;
  }
}

/// What the options say together, and the files' names.
inline void check_evaluateOptions(Evaluate_Options& options, const Given_Once& given) {
  const auto& grid = options.grid;
  options.rawInput = options.inputFile.ends_with(".tpx3");
  const bool groupingGiven = !given.radius.empty() || !given.window.empty() || !given.photonTime.empty() ||
                             !options.simulatedFile.empty() || !options.timeWalkFile.empty() ||
                             !options.fitTimeWalkFile.empty();
  if (options.rawInput) {
    if (!grid.dSpace_px.empty() || !grid.dTime_s.empty() || !given.algorithm.empty() || !given.duration.empty()) {
      throw std::invalid_argument(
          "a raw file is scored by its grouping into photons (--radius, --window, "
          "--photon-time), not by the settings of a reconstruction");
    }
    if (!options.fitTimeWalkFile.empty() && !options.timeWalkFile.empty()) {
      throw std::invalid_argument("--fit-time-walk fits the hits as read, which --time-walk would correct first");
    }
    if (options.simulatedFile.empty() && !(options.fitFromData && !options.fitTimeWalkFile.empty())) {
      throw std::invalid_argument("a raw file needs --simulated FILE.kovraphot, the photons it was simulated from");
    }
    if (!options.simulatedFile.empty() && !options.simulatedFile.ends_with(".kovraphot")) {
      throw std::invalid_argument("simulated photon file \"" + options.simulatedFile + "\" must end in .kovraphot");
    }
    if (options.groupingGrid.size() > 100000) throw std::invalid_argument("more than 100000 settings to scan");
    if (options.truthFile.empty()) {
      options.truthFile = tools::get_hitPhotonsPath(options.inputFile);
    } else if (!options.truthFile.ends_with(".truth.kovrahit")) {
      throw std::invalid_argument("hit truth file \"" + options.truthFile + "\" must end in .truth.kovrahit");
    }
    return;
  }
  if (groupingGiven) {
    throw std::invalid_argument(
        "--simulated, --radius, --window, --photon-time and the time-walk options are "
        "for a raw file (.tpx3), not a photon file");
  }
  if (!options.inputFile.ends_with(".kovraphot")) {
    throw std::invalid_argument("input file \"" + options.inputFile + "\" must end in .kovraphot or .tpx3");
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
}

}  // namespace options_detail

/// Reads the command line; throws std::invalid_argument with one line saying what is wrong with it.
inline Evaluate_Options parse_evaluateOptions(int argc, char* argv[]) {
  using namespace options_detail;
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
                                       {"simulated", required_argument, nullptr, simulated},
                                       {"radius", required_argument, nullptr, radius},
                                       {"radius-grid", required_argument, nullptr, radiusGrid},
                                       {"window", required_argument, nullptr, window},
                                       {"window-grid", required_argument, nullptr, windowGrid},
                                       {"photon-time", required_argument, nullptr, photonTime},
                                       {"photon-time-grid", required_argument, nullptr, photonTimeGrid},
                                       {"time-walk", required_argument, nullptr, timeWalk},
                                       {"fit-time-walk", required_argument, nullptr, fitTimeWalk},
                                       {"fit-from", required_argument, nullptr, fitFrom},
                                       {"help", no_argument, nullptr, 'h'},
                                       tools::versionLongOption,
                                       {nullptr, 0, nullptr, 0}};
  Evaluate_Options options;
  Given_Once given;
  const auto take = [&](int c, const std::string& value) {
    if (!take_gridOption(c, value, options.grid, given) &&
        !take_groupingOption(c, value, options.groupingGrid, given)) {
      take_evaluateOption(c, value, options);
    }
  };
  if (!tools::read_options(argc, argv, ":s:t:D:h", longOptions, options, take)) return options;
  options.inputFile = tools::take_singleInput(argc, argv);
  check_evaluateOptions(options, given);
  return options;
}

}  // namespace kovra::evaluate
