#pragma once

// The import run in-process into an output that keeps what it is given, and the simulator's raw output with
// its hits and where its chunks begin: shared by the tests of the reader, of the parallel import and of the
// program.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "GroupingReference.hpp"
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

/// A simulated acquisition written as raw data to `file` (its frame as the settings say; `seed` draws the ToTs):
/// the photons with their triggers, and the hits the raw file holds.
struct Simulated_Raw {
  kovra::tpx3spidr::Data_PhotonEvents photons;
  std::vector<Reference_Hit> hits;
};
inline Simulated_Raw write_simulatedRaw(const std::string& file, const kovra::simulate::Simulation_Settings& settings,
                                        std::uint64_t seed) {
  Simulated_Raw raw{kovra::simulate::simulate_photonEvents(settings, [](const auto&) {}).photons, {}};
  std::FILE* out = std::fopen(file.c_str(), "wb");
  if (out == nullptr) throw std::runtime_error("cannot write " + file);
  kovra::simulate::write_raw(raw.photons, settings.width_px, settings.height_px, seed, out,
                             [&](const kovra::simulate::Raw_Hit& h) {
    raw.hits.push_back({h.time, static_cast<int>(h.x), static_cast<int>(h.y), h.tot});
  });
  std::fclose(out);
  return raw;
}

/// A simulated acquisition's raw file, written to simulated.tpx3 in `dir`: flashes of a few photons and periodic
/// triggers, one chunk per 205 us of a few dozen packets.
inline std::string simulate_raw(const TempDir& dir, double duration_s, std::uint64_t seed) {
  kovra::simulate::Simulation_Settings settings;
  settings.duration_s = duration_s, settings.eventRate_Hz = 2e4, settings.photonsPerEvent = 2, settings.seed = seed;
  settings.triggerMode = kovra::simulate::Trigger_Mode::periodic;
  settings.triggerFrequency_Hz = 2e4;
  write_simulatedRaw(dir.file("simulated.tpx3"), settings, seed);
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
