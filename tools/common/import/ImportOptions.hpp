#pragma once

// The command line of kovra_import: every option, its default, and the checks of its value.

#include <getopt.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "common/CommandLine.hpp"
#include "common/Options.hpp"
#include "common/import/HitGrouping.hpp"
#include "common/import/InputFiles.hpp"
#include "common/import/PixelMask.hpp"
#include "common/import/RawReader.hpp"
#include "common/import/TimeWalk.hpp"
#include "kovra/Worker_Pool.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::import {

enum class Frame_Layout { single, quad };

/// Pixels along a side of the frame: a chip is 256 x 256, a quad 512 x 512.
inline constexpr unsigned get_frameSide(Frame_Layout layout) { return layout == Frame_Layout::quad ? 512 : 256; }

/// The settings of one run. Times are in ticks of 1.5625 ns, rounded to the nearest tick from the seconds given.
struct Import_Options {
  /// Items per piece when KOVRA_PIECE_HITS does not say: 512 KiB of packed items, about 3 ms of the benchmark's
  /// camera, next to which the work at a cut (a few windows of hits grouped twice) is lost. On 2 threads, pieces
  /// of 16, 32, 64 and 128 Ki items took the benchmark's camera 0.70, 0.68, 0.69 and 0.70 s and crowded flashes
  /// 0.32, 0.31, 0.32 and 0.31 s (best of 5, interleaved): a tie, within which memory grows with the size.
  static constexpr std::size_t default_pieceItems = std::size_t{1} << 16;

  std::string inputFile;                ///< the first raw file
  std::vector<std::string> inputFiles;  ///< every raw file, read in this order as one stream
  std::string outputFile;
  Frame_Layout layout = Frame_Layout::single;
  bool hitsAsPhotons = false;
  unsigned radius_px = 1;
  Ticks window = 160;  ///< 250 ns
  double minTot_ns = 0.0;
  Photon_Time photonTime = Photon_Time::strongest;
  int triggerEdge = 0xF;                      ///< the TDC edge nibble kept as triggers; -1 for none
  Ticks reorderWindow = 3200000;              ///< 5 ms
  std::string timeWalkFile;                   ///< --time-walk: the table of delays by ToT, when given
  std::shared_ptr<const Time_Walk> timeWalk;  ///< read from timeWalkFile by the program before the run
  std::string maskFile;                       ///< --mask: pixels whose hits are dropped, when given
  std::shared_ptr<const Pixel_Mask> mask;     ///< read from maskFile by the program before the run
  bool writeCharge = false;                   ///< --charge: each photon's summed ToT and hits beside the photon file
  int logLevel = 2;
  Damage_Policy damage = Damage_Policy::stop;  ///< --skip-damaged: skip
  std::optional<double> followSeconds;         ///< --follow: how long the file must stay the same size to be done
  /// Threads that work: 1 does everything on the calling thread; more run that many less one workers beside
  /// it. The default (taken by parse_importOptions): KOVRA_THREADS, else every core the run may use.
  unsigned threads = 1;
  /// Items (hits and trigger edges) per piece handed to a worker: KOVRA_PIECE_HITS, else default_pieceItems.
  std::size_t pieceItems = default_pieceItems;
  bool helpRequested = false;
  bool versionRequested = false;
};

inline std::string get_importHelp() {
  return "Usage: kovra_import RAW.tpx3 [RAW.tpx3 ...] -o OUT.kovraphot [options]\n"
         "       kovra_import FOLDER -o OUT.kovraphot [options]\n"
         "Turns a Timepix3 raw data file into a photon file for kovra_brantel: photons in time order and the\n"
         "trigger times of one TDC edge. Several raw files (or a folder's .tpx3 files, in name order) are read\n"
         "as one stream, as their concatenation would be.\n"
         "\n"
         "  -o, --output FILE         photon file to write; must end in .kovraphot (required)\n"
         "      --layout single|quad  how chips map into the frame: one chip as 256 x 256 (the default; a file\n"
         "                            with chunks of several chips is refused), or a 2 x 2 quad as 512 x 512\n"
         "      --hits-as-photons     every hit becomes a photon at its pixel, at the hit's time (no grouping)\n"
         "      --radius PX           grouping: a hit joins a photon holding a hit at most PX pixels away in x\n"
         "                            and in y, 0 to 16 (default 1)\n"
         "      --window SECONDS      grouping: a photon takes hits up to this long after its first hit\n"
         "                            (default 250e-9)\n"
         "      --min-tot NS          hits whose time over threshold is below NS nanoseconds are dropped and\n"
         "                            counted (default 0)\n"
         "      --photon-time strongest|earliest\n"
         "                            a photon's time: that of its largest-ToT hit (the default) or its first\n"
         "      --trigger EDGE        TDC edges that become trigger times: tdc1-rising (the default),\n"
         "                            tdc1-falling, tdc2-rising, tdc2-falling, or none for no trigger list\n"
         "      --charge              also write each photon's summed ToT and hit count to OUT.kovracharge\n"
         "      --mask FILE           drop the hits of the pixels listed in FILE ('X Y' lines, as kovra_inspect\n"
         "                            --hot-pixels writes them) before they are ordered and grouped\n"
         "      --time-walk FILE      subtract from each hit's time the delay its ToT has in this table (rows\n"
         "                            'TOT_NS DELAY_TICKS'), before hits are ordered and grouped\n"
         "      --reorder-window SECONDS\n"
         "                            packets more than this much older than the latest time read are dropped\n"
         "                            and counted; the rest are put in time order (default 5e-3, at most 10)\n"
         "      --skip-damaged        at damage in the file (bytes where a chunk header should be), skip to the\n"
         "                            next plausible chunk header and go on, with a warning for each stretch\n"
         "                            skipped; without it the run stops there\n"
         "      --follow SECONDS      read a file that is still being written: keep reading as it grows and\n"
         "                            finish once it has not grown for SECONDS (at most 86400)\n"
         "      --threads N           threads that work: one reads, orders and writes, the others group hits\n"
         "                            beside it; 1 does all on one (default: KOVRA_THREADS, else every core)\n"
         "      --verbose N           log level: -1 errors only, 0 adds warnings, 2 (default) adds the summary\n"
         "                            and other info lines, 4 adds trace lines\n"
         "  -h, --help                print this help and exit\n"
         "      --version             print the version and exit\n"
         "\n"
         "Memory stays bounded whatever the file size; a progress line is shown on standard error when it is a\n"
         "terminal. A file that ends inside a chunk (an interrupted acquisition) gives the photons of every\n"
         "complete packet before its end, with a warning. The output appears whole or not at all: an existing\n"
         "file is replaced only after a complete run.\n"
         "\n"
         "Exit status: 0 on success (a file that ended early included), 1 when the raw file is damaged\n"
         "(without --skip-damaged) or unreadable or the output cannot be written, 2 for a bad command line.\n";
}

namespace detail {

inline Ticks to_ticks(double seconds) {
  return static_cast<Ticks>(std::llround(seconds / kovra::tpx3spidr::Time::tick_seconds));
}

/// What getopt_long returns for the long options without a short form.
enum Import_LongOption : int {
  layout = 256,
  hitsAsPhotons,
  radius,
  window,
  minTot,
  photonTime,
  trigger,
  reorder,
  verbose,
  threads,
  timeWalk,
  mask,
  charge,
  skipDamaged,
  follow
};

inline const option* get_importLongOptions() {
  static const option longOptions[] = {{"output", required_argument, nullptr, 'o'},
                                       {"layout", required_argument, nullptr, layout},
                                       {"hits-as-photons", no_argument, nullptr, hitsAsPhotons},
                                       {"radius", required_argument, nullptr, radius},
                                       {"window", required_argument, nullptr, window},
                                       {"min-tot", required_argument, nullptr, minTot},
                                       {"photon-time", required_argument, nullptr, photonTime},
                                       {"trigger", required_argument, nullptr, trigger},
                                       {"reorder-window", required_argument, nullptr, reorder},
                                       {"verbose", required_argument, nullptr, verbose},
                                       {"threads", required_argument, nullptr, threads},
                                       {"time-walk", required_argument, nullptr, timeWalk},
                                       {"mask", required_argument, nullptr, mask},
                                       {"charge", no_argument, nullptr, charge},
                                       {"skip-damaged", no_argument, nullptr, skipDamaged},
                                       {"follow", required_argument, nullptr, follow},
                                       {"help", no_argument, nullptr, 'h'},
                                       kovra::tools::versionLongOption,
                                       {nullptr, 0, nullptr, 0}};
  return longOptions;
}

/// A number of seconds from 0 to `high`.
inline double parse_seconds(std::string_view option, std::string_view text, double high) {
  return kovra::tools::parse_number(option, text, {"a number of seconds", 0, high});
}

/// The grouping settings, as the import and the evaluator's scan of them take them.
inline unsigned parse_radius(std::string_view option, std::string_view text) {
  return kovra::tools::parse_number<unsigned>(option, text, {"a whole number of pixels", 0, 16, false, true});
}
inline double parse_window(std::string_view option, std::string_view text) { return parse_seconds(option, text, 1.0); }
inline Photon_Time parse_photonTime(std::string_view option, std::string_view text) {
  return kovra::tools::parse_choice<Photon_Time>(
      option, text, {{"strongest", Photon_Time::strongest}, {"earliest", Photon_Time::earliest}});
}

/// A file name, which may not be empty.
inline std::string take_fileName(std::string_view option, const std::string& value) {
  if (value.empty()) throw std::invalid_argument("option --" + std::string(option) + " needs a file name");
  return value;
}

/// The log level: any whole number, negative ones included.
inline int parse_logLevel(const std::string& value) {
  int level = 0;
  const auto [ptr, error] = std::from_chars(value.data(), value.data() + value.size(), level);
  if (error != std::errc() || ptr != value.data() + value.size() || value.empty()) {
    throw kovra::tools::bad_value("verbose", "a whole number", value);
  }
  return level;
}

/// Takes one option of the command line (`c` as getopt_long returns it); --threads goes to `threadsGiven`.
inline void take_importOption(int c, const std::string& value, Import_Options& options,
                              std::optional<unsigned>& threadsGiven) {
  using kovra::tools::parse_choice;
  using kovra::tools::parse_number;
  switch (c) {
    case 'o':
      options.outputFile = value;
      break;
    case layout:
      options.layout =
          parse_choice<Frame_Layout>("layout", value, {{"single", Frame_Layout::single}, {"quad", Frame_Layout::quad}});
      break;
    case hitsAsPhotons:
      options.hitsAsPhotons = true;
      break;
    case radius:
      options.radius_px = parse_radius("radius", value);
      break;
    case window:
      options.window = to_ticks(parse_window("window", value));
      break;
    case minTot:
      options.minTot_ns = parse_number("min-tot", value, {"a number of nanoseconds", 0});
      break;
    case photonTime:
      options.photonTime = parse_photonTime("photon-time", value);
      break;
    case trigger:
      options.triggerEdge = parse_choice<int>(
          "trigger", value,
          {{"tdc1-rising", 0xF}, {"tdc1-falling", 0xA}, {"tdc2-rising", 0xE}, {"tdc2-falling", 0xB}, {"none", -1}});
      break;
    case reorder:
      options.reorderWindow = to_ticks(parse_seconds("reorder-window", value, 10.0));
      break;
    case verbose:
      options.logLevel = parse_logLevel(value);
      break;
    case charge:
      options.writeCharge = true;
      break;
    case mask:
      options.maskFile = take_fileName("mask", value);
      break;
    case timeWalk:
      options.timeWalkFile = take_fileName("time-walk", value);
      break;
    case skipDamaged:
      options.damage = Damage_Policy::skip;
      break;
    case follow:
      options.followSeconds = parse_seconds("follow", value, 86400.0);
      break;
    case threads:
      threadsGiven = static_cast<unsigned>(kovra::parse_count("option --threads", value, 1, kovra::max_threads));
      break;
    default:
      break;
  }
}

}  // namespace detail

/// Reads the command line; throws std::invalid_argument with one line saying what is wrong with it.
inline Import_Options parse_importOptions(int argc, char* argv[]) {
  Import_Options options;
  std::optional<unsigned> threadsGiven;
  const auto take = [&](int c, const std::string& value) {
    detail::take_importOption(c, value, options, threadsGiven);
  };
  if (!kovra::tools::read_options(argc, argv, ":o:h", detail::get_importLongOptions(), options, take)) {
    return options;
  }
  if (optind == argc) throw std::invalid_argument("no raw file given");
  options.inputFiles = list_rawInputs(std::vector<std::string>(argv + optind, argv + argc));
  options.inputFile = options.inputFiles.front();
  if (options.outputFile.empty()) throw std::invalid_argument("no output file given (-o OUT.kovraphot)");
  if (!options.outputFile.ends_with(".kovraphot")) {
    throw std::invalid_argument("the output file must end in .kovraphot, not \"" + options.outputFile + "\"");
  }
  options.threads = threadsGiven ? *threadsGiven : kovra::get_threadCount();
  options.pieceItems =
      kovra::read_countVariable("KOVRA_PIECE_HITS", 1, std::size_t{1} << 30).value_or(options.pieceItems);
  return options;
}

}  // namespace kovra::import
