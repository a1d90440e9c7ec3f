#pragma once

// What really happened in a simulated photon file: the flash list written by kovra_simulate --truth
// (run.truth.csv) and the flash of every photon (run.truth.kovraflash), checked against each other and against
// the photons.

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "common/Counts.hpp"
#include "common/PathSuffix.hpp"
#include "common/PhotonFlashes.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::evaluate {

/// One true flash: start time, position, photons that reached the file, class (index into the class names).
struct True_Flash {
  double t_s;
  double x_px;
  double y_px;
  std::uint64_t nPhotons;
  std::size_t classIndex;
};

/// The flashes of one photon file, the names of their classes in order of first appearance, and the flash of
/// each photon (-1 for a dark count). Every flash's nPhotons equals the number of photons naming it.
struct Truth {
  std::vector<True_Flash> flashes;
  std::vector<std::string> classNames;
  std::vector<std::int64_t> flashOfPhoton;
};

/// The truth files of a photon file as kovra_simulate names them: run.kovraphot gives run.truth.csv.
inline std::string get_truthCsvPath(const std::string& photonPath) {
  return tools::replace_suffix(photonPath, ".kovraphot", ".truth.csv");
}

/// The flash file that goes with a truth CSV: run.truth.csv gives run.truth.kovraflash.
inline std::string get_flashPath(const std::string& truthCsvPath) {
  return tools::replace_suffix(truthCsvPath, ".csv", ".kovraflash");
}

namespace truth_detail {

template <typename Number_Type>
bool parse_field(std::string_view text, Number_Type& value) {
  const auto [ptr, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && ptr == text.data() + text.size() && !text.empty();
}

}  // namespace truth_detail

/// Reads the flash list and the flash file and checks them against each other and the photons. Throws
/// std::invalid_argument with one line saying what is wrong.
inline Truth read_truth(const std::string& csvPath, const std::vector<kovra::tpx3spidr::PhotonEvent>& photons) {
  std::ifstream csv(csvPath);
  if (!csv) throw std::invalid_argument("cannot read the truth file '" + csvPath + "'");
  Truth truth;
  std::string line;
  if (!std::getline(csv, line) || line != "t_s,x_px,y_px,nPhotons,class") {
    throw std::invalid_argument("truth file '" + csvPath + "': the first line must be t_s,x_px,y_px,nPhotons,class");
  }
  for (std::size_t lineNumber = 2; std::getline(csv, line); ++lineNumber) {
    std::vector<std::string_view> fields;
    std::string_view rest = line;
    for (std::size_t comma; (comma = rest.find(',')) != std::string_view::npos; rest.remove_prefix(comma + 1)) {
      fields.push_back(rest.substr(0, comma));
    }
    fields.push_back(rest);
    True_Flash flash{};
    if (fields.size() != 5 || !truth_detail::parse_field(fields[0], flash.t_s) ||
        !truth_detail::parse_field(fields[1], flash.x_px) || !truth_detail::parse_field(fields[2], flash.y_px) ||
        !truth_detail::parse_field(fields[3], flash.nPhotons) || fields[4].empty()) {
      throw std::invalid_argument("truth file '" + csvPath + "' line " + std::to_string(lineNumber) +
                                  ": expected time, x, y, photon count and class, got '" + line + "'");
    }
    std::size_t c = 0;
    while (c < truth.classNames.size() && truth.classNames[c] != fields[4]) ++c;
    if (c == truth.classNames.size()) truth.classNames.emplace_back(fields[4]);
    flash.classIndex = c;
    truth.flashes.push_back(flash);
  }

  auto flashes = kovra::tools::read_photonFlashes(get_flashPath(csvPath), photons);
  if (flashes.nFlashes != truth.flashes.size()) {
    throw std::invalid_argument("truth file '" + csvPath + "' lists " + std::to_string(truth.flashes.size()) +
                                " flashes, its photon flash file " + std::to_string(flashes.nFlashes));
  }
  std::vector<std::uint64_t> counted(truth.flashes.size(), 0);
  for (const std::int64_t f : flashes.flashOfPhoton) {
    if (f >= 0) ++counted[static_cast<std::size_t>(f)];
  }
  for (std::size_t f = 0; f < counted.size(); ++f) {
    if (counted[f] != truth.flashes[f].nPhotons) {
      throw std::invalid_argument("truth file '" + csvPath + "': flash " + std::to_string(f) + " has " +
                                  tools::format_count(truth.flashes[f].nPhotons, "photon") +
                                  ", its photon flash file " + std::to_string(counted[f]));
    }
  }
  truth.flashOfPhoton = std::move(flashes.flashOfPhoton);
  return truth;
}

}  // namespace kovra::evaluate
