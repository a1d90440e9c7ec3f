#pragma once

// The command line of kovra_simulate: every option, its unit and default, and the checks of its value.

#include <getopt.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/CommandLine.hpp"
#include "common/Options.hpp"
#include "simulate/PhotonSimulation.hpp"

namespace kovra::simulate {

/// The outcome of reading the command line: the settings, or the one message that says what is wrong with it.
struct Simulate_Options {
  Simulation_Settings settings;
  std::string outputPath;
  bool writeTruth = false;
  std::string rawPath;  ///< also the raw form (Timepix3 packets) to this file, when given
  bool helpRequested = false;
  bool versionRequested = false;
};

/// Most photons one run may be expected to produce: a 16 GB photon file.
inline constexpr double max_expectedPhotons = 1.0e9;

inline std::string get_simulateHelp() {
  const Simulation_Settings d;
  char text[4096];
  std::snprintf(text, sizeof text,
                "Usage: kovra_simulate -o FILE.kovraphot [options]\n"
                "Writes a photon file of a simulated scintillator read out by a Timepix3 camera.\n"
                "\n"
                "  -o, --output FILE       photon file to write; must end in .kovraphot (required)\n"
                "  -d, --duration S        length of the acquisition in seconds (default %g, at most 1e6)\n"
                "  -r, --event-rate HZ     mean rate of flashes (particle hits) per second (default %g)\n"
                "  -n, --photons N         mean number of photons per flash, Poisson distributed (default %g)\n"
                "      --sigma PX          Gaussian spread of a flash's photons per axis, in pixels (default %g)\n"
                "      --width PX          detector width in pixels, 1 to 32767 (default %d)\n"
                "      --height PX         detector height in pixels, 1 to 32767 (default %d)\n"
                "      --snap              snap photon positions to whole pixels (default: 1/65536 pixel)\n"
                "      --tau-fast S        decay time of the fast scintillation component, seconds (default %g)\n"
                "      --tau-slow S        decay time of the slow scintillation component, seconds (default %g)\n"
                "      --class NAME:WEIGHT:SLOW\n"
                "                          a particle class: relative share of the flashes and the fraction of\n"
                "                          its light in the slow component (0 to 1); repeat for each class;\n"
                "                          given once, it replaces the defaults %s:%g:%g and %s:%g:%g\n"
                "      --dark-rate HZ      dark-count photons per second over the whole detector (default %g)\n"
                "      --hot-pixels N:RATE N pixels at random places, each firing single photons at RATE per\n"
                "                          second (hot pixels of a real detector; default none)\n"
                "      --flashes-from S    no flash before S seconds into the acquisition, only dark counts and\n"
                "                          hot pixels: a beam switched on late (default 0)\n"
                "      --triggers MODE     external triggers: 'none' (no trigger list, the default), 'empty'\n"
                "                          (a trigger list without entries) or a frequency in hertz\n"
                "      --seed N            seed of the random numbers, 0 to 2^64-1 (default %llu); the same seed\n"
                "                          and options give the same file\n"
                "      --truth             also write the true flashes beside the photon file, run.kovraphot\n"
                "                          giving run.truth.csv (columns t_s, x_px, y_px, nPhotons, class), and\n"
                "                          the flash of each photon in run.truth.kovraflash (for kovra_evaluate)\n"
                "      --raw FILE          also write what a Timepix3 readout would record (hits with ToT and time\n"
                "                          walk, chunks per chip, triggers as TDC edges), for kovra_import;\n"
                "                          a frame up to 256 x 256 is one chip, up to 512 x 512 a quad\n"
                "  -h, --help              print this help and exit\n"
                "      --version           print the version and exit\n"
                "\n"
                "Exit status: 0 on success, 2 for a bad command line, 1 when the file cannot be written.\n",
                d.duration_s, d.eventRate_Hz, d.photonsPerEvent, d.sigma_px, d.width_px, d.height_px, d.tauFast_s,
                d.tauSlow_s, d.classes[0].name.c_str(), d.classes[0].weight, d.classes[0].slowFraction,
                d.classes[1].name.c_str(), d.classes[1].weight, d.classes[1].slowFraction, d.darkRate_Hz,
                static_cast<unsigned long long>(d.seed));
  return text;
}

namespace options_detail {

/// The options that set one number of the settings, with the range each must lie in.
struct Number_Option {
  int code;
  const char* name;
  tools::Number_Range range;
  double Simulation_Settings::*target;
};

enum : int { sigma = 256, width, height, snap, tauFast, tauSlow, particleClass, darkRate, triggers, seed, truth, raw };
enum : int { hotPixels = raw + 1, flashesFrom };

inline const std::vector<Number_Option>& get_numberOptions() {
  static const std::vector<Number_Option> numbers = {
      {'d', "duration", {"a number of seconds", 0, 1e6, true}, &Simulation_Settings::duration_s},
      {'r', "event-rate", {"a rate in hertz", 0}, &Simulation_Settings::eventRate_Hz},
      {'n', "photons", {"a mean photon count", 0, 1e6}, &Simulation_Settings::photonsPerEvent},
      {sigma, "sigma", {"a number of pixels", 0}, &Simulation_Settings::sigma_px},
      {tauFast, "tau-fast", {"a number of seconds", 0, 1, true}, &Simulation_Settings::tauFast_s},
      {tauSlow, "tau-slow", {"a number of seconds", 0, 1, true}, &Simulation_Settings::tauSlow_s},
      {darkRate, "dark-rate", {"a rate in hertz", 0}, &Simulation_Settings::darkRate_Hz},
      {flashesFrom, "flashes-from", {"a number of seconds", 0, 1e6}, &Simulation_Settings::flashesFrom_s}};
  return numbers;
}

/// --class NAME:WEIGHT:SLOW.
inline Particle_Class parse_class(const std::string& text) {
  const auto bad = [&] {
    return tools::bad_value("class",
                            "NAME:WEIGHT:SLOW with a name without ',', '\"' or ':', a weight greater than 0 "
                            "and a slow fraction from 0 to 1",
                            text);
  };
  const auto colon1 = text.find(':');
  const auto colon2 = colon1 == std::string::npos ? colon1 : text.find(':', colon1 + 1);
  if (colon2 == std::string::npos) throw bad();
  Particle_Class pc;
  pc.name = text.substr(0, colon1);
  if (pc.name.empty() || pc.name.find_first_of(",\"\n") != std::string::npos) throw bad();
  try {
    pc.weight = tools::parse_number("class", text.substr(colon1 + 1, colon2 - colon1 - 1), {"", 0, INFINITY, true});
    pc.slowFraction = tools::parse_number("class", text.substr(colon2 + 1), {"", 0, 1});
  } catch (const std::invalid_argument&) {
    throw bad();
  }
  return pc;
}

/// --hot-pixels N:RATE.
inline void parse_hotPixels(const std::string& text, Simulation_Settings& s) {
  const auto colon = text.find(':');
  try {
    if (colon == std::string::npos) throw std::invalid_argument("");
    s.hotPixels = tools::parse_number<int>("hot-pixels", text.substr(0, colon), {"", 0, 1e6, false, true});
    s.hotPixelRate_Hz = tools::parse_number("hot-pixels", text.substr(colon + 1), {"", 0, INFINITY, true});
  } catch (const std::invalid_argument&) {
    throw tools::bad_value("hot-pixels",
                           "N:RATE with a whole number of pixels from 0 to 1000000 and a rate in hertz "
                           "greater than 0",
                           text);
  }
}

/// --triggers none|empty|HZ.
inline void parse_triggers(const std::string& text, Simulation_Settings& s) {
  if (text == "none") {
    s.triggerMode = Trigger_Mode::absent;
  } else if (text == "empty") {
    s.triggerMode = Trigger_Mode::empty;
  } else {
    try {
      s.triggerFrequency_Hz = tools::parse_number("triggers", text, {"", 0, INFINITY, true});
    } catch (const std::invalid_argument&) {
      throw tools::bad_value("triggers", "none, empty or a frequency in hertz greater than 0", text);
    }
    s.triggerMode = Trigger_Mode::periodic;
  }
}

/// Takes one option's value into `options`.
inline void take_simulateOption(int c, const std::string& value, Simulate_Options& options, bool& classesGiven) {
  auto& s = options.settings;
  for (const auto& number : get_numberOptions()) {
    if (number.code == c) {
      s.*number.target = tools::parse_number(number.name, value, number.range);
      return;
    }
  }
  switch (c) {
    case 'o':
      options.outputPath = value;
      break;
    case width:
    case height:
      (c == width ? s.width_px : s.height_px) = tools::parse_number<int>(
          c == width ? "width" : "height", value, {"a whole number of pixels", 1, 32767, false, true});
      break;
    case snap:
      s.snapToPixels = true;
      break;
    case particleClass:
      if (!classesGiven) s.classes.clear();
      classesGiven = true;
      s.classes.push_back(parse_class(value));
      break;
    case hotPixels:
      parse_hotPixels(value, s);
      break;
    case triggers:
      parse_triggers(value, s);
      break;
    case seed: {
      const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), s.seed);
      if (value.empty() || value[0] == '-' || value[0] == '+' || error != std::errc() ||
          end != value.data() + value.size()) {
        throw tools::bad_value("seed", "a whole number from 0 to 18446744073709551615", value);
      }
      break;
    }
    case truth:
      options.writeTruth = true;
      break;
    case raw:
      options.rawPath = value;
      break;
  }
}

/// What the options say together.
inline void check_simulateOptions(const Simulate_Options& options) {
  const auto& s = options.settings;
  const auto fail = [](const std::string& message) { throw std::invalid_argument(message); };
  if (options.outputPath.empty()) fail("no output file given (-o FILE.kovraphot)");
  if (!options.outputPath.ends_with(".kovraphot") || options.outputPath == ".kovraphot") {
    fail("output file \"" + options.outputPath + "\" must end in .kovraphot");
  }
  if (!options.rawPath.empty() && (s.width_px > 512 || s.height_px > 512)) {
    fail("option --raw: a raw file holds at most 512 x 512 pixels");
  }
  if (s.triggerMode == Trigger_Mode::periodic && s.triggerFrequency_Hz * s.duration_s > 1.0e8) {
    fail("option --triggers: more than 1e8 triggers in the acquisition");
  }
  if (s.get_expectedPhotons() > max_expectedPhotons) {
    char text[200];
    std::snprintf(text, sizeof text, "%.3g photons expected, more than the limit of %.0e; shorten --duration",
                  s.get_expectedPhotons(), max_expectedPhotons);
    fail(text);
  }
}

}  // namespace options_detail

/// Reads the command line; throws std::invalid_argument with one line saying what is wrong with it.
inline Simulate_Options parse_simulateOptions(int argc, char* const argv[]) {
  using namespace options_detail;
  static const option longOptions[] = {{"output", required_argument, nullptr, 'o'},
                                       {"duration", required_argument, nullptr, 'd'},
                                       {"event-rate", required_argument, nullptr, 'r'},
                                       {"photons", required_argument, nullptr, 'n'},
                                       {"sigma", required_argument, nullptr, sigma},
                                       {"width", required_argument, nullptr, width},
                                       {"height", required_argument, nullptr, height},
                                       {"snap", no_argument, nullptr, snap},
                                       {"tau-fast", required_argument, nullptr, tauFast},
                                       {"tau-slow", required_argument, nullptr, tauSlow},
                                       {"class", required_argument, nullptr, particleClass},
                                       {"dark-rate", required_argument, nullptr, darkRate},
                                       {"triggers", required_argument, nullptr, triggers},
                                       {"seed", required_argument, nullptr, seed},
                                       {"truth", no_argument, nullptr, truth},
                                       {"help", no_argument, nullptr, 'h'},
                                       {"raw", required_argument, nullptr, raw},
                                       {"hot-pixels", required_argument, nullptr, hotPixels},
                                       {"flashes-from", required_argument, nullptr, flashesFrom},
                                       tools::versionLongOption,
                                       {nullptr, 0, nullptr, 0}};
  Simulate_Options options;
  bool classesGiven = false;
  const auto take = [&](int c, const std::string& value) { take_simulateOption(c, value, options, classesGiven); };
  if (!tools::read_options(argc, argv, ":o:d:r:n:h", longOptions, options, take)) return options;
  if (optind < argc) throw std::invalid_argument(std::string("unexpected argument \"") + argv[optind] + "\"");
  check_simulateOptions(options);
  return options;
}

/// Where the true flashes of a photon file go: the same path with ".kovraphot" replaced by ".truth.csv".
inline std::string get_truthPath(const std::string& photonPath) {
  return photonPath.substr(0, photonPath.size() - std::string(".kovraphot").size()) + ".truth.csv";
}

}  // namespace kovra::simulate
