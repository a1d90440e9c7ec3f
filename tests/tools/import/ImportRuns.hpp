#pragma once

// The import run in-process into an output that keeps what it is given, and the simulator's raw output with
// where its chunks begin: shared by the tests of the reader, of the parallel import and of the program.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "TempDir.hpp"
#include "common/import/Import.hpp"
#include "simulate/PhotonSimulation.hpp"
#include "simulate/RawExport.hpp"

namespace import_runs {

/// An output that keeps what it is given.
struct Kept_Output {
  std::vector<std::tuple<int, int, long>> photons;
  std::vector<long> triggers;
  std::vector<std::pair<unsigned, unsigned>> charges;  ///< summed ToT and hits of each photon
  void add_photons(const kovra::import::Hit_Grouping::Photon* p, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) photons.emplace_back(p[i].x.value, p[i].y.value, p[i].toa.value);
  }
  void add_charges(const kovra::import::Photon_Charge* c, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) charges.emplace_back(c[i].tot, c[i].hits);
  }
  void add_trigger(long t) { triggers.push_back(t); }
  bool operator==(const Kept_Output&) const = default;
};

struct Imported {
  Kept_Output output;
  kovra::import::Import_Summary summary;
};

inline Imported import_file(kovra::import::Import_Options options, unsigned threads, std::size_t pieceItems) {
  options.threads = threads;
  options.pieceItems = pieceItems;
  Imported result;
  kovra::import::Import_Observer quiet;
  result.summary = kovra::import::run_import(options, result.output, quiet);
  return result;
}

/// A simulated acquisition's raw file, written to simulated.tpx3 in `dir`: flashes of a few photons and periodic
/// triggers, one chunk per 205 us of a few dozen packets.
inline std::string simulate_raw(const TempDir& dir, double duration_s, std::uint64_t seed) {
  kovra::simulate::Simulation_Settings settings;
  settings.duration_s = duration_s, settings.eventRate_Hz = 2e4, settings.photonsPerEvent = 2, settings.seed = seed;
  settings.triggerMode = kovra::simulate::Trigger_Mode::periodic;
  settings.triggerFrequency_Hz = 2e4;
  const auto simulated = kovra::simulate::simulate_photonEvents(settings, [](const auto&) {});
  std::FILE* file = std::fopen(dir.file("simulated.tpx3").c_str(), "wb");
  if (file == nullptr) return {};
  kovra::simulate::write_raw(simulated.photons, 256, 256, seed, file, [](const kovra::simulate::Raw_Hit&) {});
  std::fclose(file);
  return read_bytes(dir.file("simulated.tpx3"));
}

inline std::uint64_t get_word(const std::string& raw, std::size_t at) {
  std::uint64_t w = 0;
  std::memcpy(&w, raw.data() + at, 8);
  return w;
}

/// Where a raw file's chunks begin, and its size last.
inline std::vector<std::size_t> get_chunkStarts(const std::string& raw) {
  std::vector<std::size_t> starts;
  for (std::size_t at = 0; at < raw.size(); at += 8 + kovra::import::get_chunkBytes(get_word(raw, at))) {
    starts.push_back(at);
  }
  starts.push_back(raw.size());
  return starts;
}

}  // namespace import_runs
