#pragma once

// The command line of kovra_simulate: every option, its unit and default, and the checks of its value.

#include <getopt.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/CommandLine.hpp"
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

/// The whole of `text` as a finite number, or false.
inline bool parse_number(const std::string& text, double& value) {
  if (text.empty()) return false;
  char* endOfNumber = nullptr;
  errno = 0;
  value = std::strtod(text.c_str(), &endOfNumber);
  return errno == 0 && *endOfNumber == '\0' && std::isfinite(value);
}

}  // namespace options_detail

/// Reads the command line; throws std::invalid_argument with one line saying what is wrong with it.
inline Simulate_Options parse_simulateOptions(int argc, char* const argv[]) {
  enum : int { sigma = 256, width, height, snap, tauFast, tauSlow, particleClass, darkRate, triggers, seed, truth };
  enum : int { raw = truth + 1, hotPixels, flashesFrom };
  static const option longOptions[] = {
      {"output", required_argument, nullptr, 'o'},        {"duration", required_argument, nullptr, 'd'},
      {"event-rate", required_argument, nullptr, 'r'},    {"photons", required_argument, nullptr, 'n'},
      {"sigma", required_argument, nullptr, sigma},       {"width", required_argument, nullptr, width},
      {"height", required_argument, nullptr, height},     {"snap", no_argument, nullptr, snap},
      {"tau-fast", required_argument, nullptr, tauFast},  {"tau-slow", required_argument, nullptr, tauSlow},
      {"class", required_argument, nullptr, particleClass}, {"dark-rate", required_argument, nullptr, darkRate},
      {"triggers", required_argument, nullptr, triggers}, {"seed", required_argument, nullptr, seed},
      {"truth", no_argument, nullptr, truth},             {"help", no_argument, nullptr, 'h'},
      {"raw", required_argument, nullptr, raw},           {"hot-pixels", required_argument, nullptr, hotPixels},
      {"flashes-from", required_argument, nullptr, flashesFrom},
      tools::versionLongOption,                           {nullptr, 0, nullptr, 0}};

  Simulate_Options options;
  auto& s = options.settings;
  bool classesGiven = false;
  const auto fail = [](const std::string& message) -> Simulate_Options { throw std::invalid_argument(message); };
  // A number from the option's argument within [low, high] (an open low end when lowOpen); throws otherwise.
  const auto read_number = [&](const char* name, const char* unit, double low, bool lowOpen, double high,
                               double& target) {
    double value = 0.0;
    const std::string text = optarg;
    char bounds[160];
    std::snprintf(bounds, sizeof bounds, "%s %g", lowOpen ? "greater than" : "at least", low);
    if (!options_detail::parse_number(text, value) || value < low || (lowOpen && value == low) || value > high) {
      fail(std::string("--") + name + ": expected " + unit + " " + bounds +
           (std::isinf(high) ? "" : " and at most " + std::to_string(static_cast<long long>(high))) + ", got '" +
           text + "'");
    }
    target = value;
    return true;
  };
  const double inf = INFINITY;

  optind = 0;
  opterr = 0;
  int c = 0;
  while ((c = getopt_long(argc, argv, ":o:d:r:n:h", longOptions, nullptr)) != -1) {
    double value = 0.0;
    switch (c) {
      case 'o':
        options.outputPath = optarg;
        break;
      case 'd':
        if (!read_number("duration", "seconds", 0.0, true, 1.0e6, s.duration_s)) return options;
        break;
      case 'r':
        if (!read_number("event-rate", "a rate in hertz", 0.0, false, inf, s.eventRate_Hz)) return options;
        break;
      case 'n':
        if (!read_number("photons", "a mean photon count", 0.0, false, 1.0e6, s.photonsPerEvent)) return options;
        break;
      case sigma:
        if (!read_number("sigma", "pixels", 0.0, false, inf, s.sigma_px)) return options;
        break;
      case width:
      case height: {
        const char* name = c == width ? "width" : "height";
        if (!read_number(name, "a whole number of pixels", 1.0, false, 32767.0, value)) return options;
        if (value != std::floor(value)) {
          return fail(std::string("--") + name + ": expected a whole number of pixels, got '" + optarg + "'");
        }
        (c == width ? s.width_px : s.height_px) = static_cast<int>(value);
        break;
      }
      case snap:
        s.snapToPixels = true;
        break;
      case tauFast:
        if (!read_number("tau-fast", "seconds", 0.0, true, 1.0, s.tauFast_s)) return options;
        break;
      case tauSlow:
        if (!read_number("tau-slow", "seconds", 0.0, true, 1.0, s.tauSlow_s)) return options;
        break;
      case particleClass: {
        const std::string text = optarg;
        const auto colon1 = text.find(':');
        const auto colon2 = colon1 == std::string::npos ? colon1 : text.find(':', colon1 + 1);
        Particle_Class pc;
        const std::string bad = "--class: expected NAME:WEIGHT:SLOW with a name without ',', '\"' or ':', a weight "
                                "greater than 0 and a slow fraction from 0 to 1, got '" + text + "'";
        if (colon2 == std::string::npos) return fail(bad);
        pc.name = text.substr(0, colon1);
        if (pc.name.empty() || pc.name.find_first_of(",\"\n") != std::string::npos) return fail(bad);
        if (!options_detail::parse_number(text.substr(colon1 + 1, colon2 - colon1 - 1), pc.weight) || !(pc.weight > 0.0))
          return fail(bad);
        if (!options_detail::parse_number(text.substr(colon2 + 1), pc.slowFraction) || pc.slowFraction < 0.0 ||
            pc.slowFraction > 1.0)
          return fail(bad);
        if (!classesGiven) s.classes.clear();
        classesGiven = true;
        s.classes.push_back(pc);
        break;
      }
      case darkRate:
        if (!read_number("dark-rate", "a rate in hertz", 0.0, false, inf, s.darkRate_Hz)) return options;
        break;
      case flashesFrom:
        if (!read_number("flashes-from", "seconds", 0.0, false, 1.0e6, s.flashesFrom_s)) return options;
        break;
      case hotPixels: {
        const std::string text = optarg;
        const auto colon = text.find(':');
        double count = 0.0;
        double rate = 0.0;
        if (colon == std::string::npos || !options_detail::parse_number(text.substr(0, colon), count) ||
            count < 0.0 || count > 1.0e6 || count != std::floor(count) ||
            !options_detail::parse_number(text.substr(colon + 1), rate) || !(rate > 0.0)) {
          return fail("--hot-pixels: expected N:RATE with a whole number of pixels from 0 to 1000000 and a rate in "
                      "hertz greater than 0, got '" + text + "'");
        }
        s.hotPixels = static_cast<int>(count);
        s.hotPixelRate_Hz = rate;
        break;
      }
      case triggers: {
        const std::string text = optarg;
        if (text == "none") {
          s.triggerMode = Trigger_Mode::absent;
        } else if (text == "empty") {
          s.triggerMode = Trigger_Mode::empty;
        } else if (options_detail::parse_number(text, value) && value > 0.0) {
          s.triggerMode = Trigger_Mode::periodic;
          s.triggerFrequency_Hz = value;
        } else {
          return fail("--triggers: expected 'none', 'empty' or a frequency in hertz greater than 0, got '" + text +
                      "'");
        }
        break;
      }
      case seed: {
        const std::string text = optarg;
        char* endOfNumber = nullptr;
        errno = 0;
        const unsigned long long v = std::strtoull(text.c_str(), &endOfNumber, 10);
        if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || errno != 0)
          return fail("--seed: expected a whole number from 0 to 18446744073709551615, got '" + text + "'");
        (void)endOfNumber;
        s.seed = v;
        break;
      }
      case truth:
        options.writeTruth = true;
        break;
      case raw:
        options.rawPath = optarg;
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
  if (optind < argc) return fail(std::string("unexpected argument '") + argv[optind] + "'");

  const std::string suffix = ".kovraphot";
  if (options.outputPath.empty()) return fail("no output file given (-o FILE.kovraphot)");
  if (options.outputPath.size() <= suffix.size() ||
      options.outputPath.compare(options.outputPath.size() - suffix.size(), suffix.size(), suffix) != 0)
    return fail("the output file must end in .kovraphot, got '" + options.outputPath + "'");
  if (!options.rawPath.empty() && (s.width_px > 512 || s.height_px > 512))
    return fail("--raw: a raw file holds at most 512 x 512 pixels");
  if (s.triggerMode == Trigger_Mode::periodic && s.triggerFrequency_Hz * s.duration_s > 1.0e8)
    return fail("--triggers: more than 1e8 triggers in the acquisition");
  if (s.get_expectedPhotons() > max_expectedPhotons) {
    char text[200];
    std::snprintf(text, sizeof text, "%.3g photons expected, more than the limit of %.0e; shorten --duration",
                  s.get_expectedPhotons(), max_expectedPhotons);
    return fail(text);
  }
  return options;
}

/// Where the true flashes of a photon file go: the same path with ".kovraphot" replaced by ".truth.csv".
inline std::string get_truthPath(const std::string& photonPath) {
  return photonPath.substr(0, photonPath.size() - std::string(".kovraphot").size()) + ".truth.csv";
}

}  // namespace kovra::simulate
