// kovra_simulate: writes a photon file of a simulated scintillator, and optionally the true flashes beside it.

#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/CommandLine.hpp"
#include "common/Counts.hpp"
#include "common/HitPhotons.hpp"
#include "common/OutputFolders.hpp"
#include "common/PhotonFlashes.hpp"
#include "kovra/ContainerFile_Writer.hpp"
#include "kovra/OutputFile_Atomic.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"
#include "simulate/PhotonSimulation.hpp"
#include "simulate/RawExport.hpp"
#include "simulate/SimulateOptions.hpp"

namespace {

using namespace kovra::simulate;

/// Throws the message that `path` cannot be written, with the system's reason (an errno value).
[[noreturn]] void throw_cannotWrite(const std::string& path, int error) {
  throw std::runtime_error("cannot write '" + path + "': " + std::strerror(error));
}

/// Throws when a write to `file` has failed (one still in its buffer shows once the buffer is handed over).
void check_output(kovra::OutputFile_Atomic& file) {
  if (!file.stream()) throw_cannotWrite(file.get_path(), file.get_error());
}

void check_flushedOutput(kovra::OutputFile_Atomic& file) {
  file.stream().flush();
  check_output(file);
}

/// Counts the raw form's hits and, with the truth, records the photon of each.
struct Hit_Tally {
  std::uint64_t* nHits;
  std::optional<kovra::tools::HitPhotons_Writer>* hitPhotons;
  void operator()(const Raw_Hit& hit) const {
    ++*nHits;
    if (*hitPhotons) (*hitPhotons)->add(hit.photon);
  }
};

// Every output is written as the photons are drawn, a slice at a time: the run holds one slice of photons (and of
// raw packets), however long the acquisition. A write that fails (a full disk) stops the run at the end of its
// slice with the system's reason, and no output changes: each is written beside its target, and none is moved
// into place before every byte of all of them has been handed to the system.
class Simulation_Outputs {
 public:
  using PhotonEvent = kovra::tpx3spidr::PhotonEvent;
  using Time = kovra::tpx3spidr::Time;

  explicit Simulation_Outputs(const Simulate_Options& options_)
      : options(options_), photonFile(probe_outputs(options_)), truthPath(get_truthPath(options.outputPath)) {
    if (options.writeTruth) {
      truth.emplace(truthPath);
      check_output(*truth);
      truth->stream() << "t_s,x_px,y_px,nPhotons,class\n";
      flashes.emplace(kovra::tools::get_photonFlashesPath(options.outputPath), get_flashBound(options.settings));
    }
    if (!options.rawPath.empty()) open_raw();
  }

  /// The line of one true flash in the truth table.
  void add_flash(const True_Event& e) {
    if (!truth) return;
    char line[160];
    std::snprintf(line, sizeof line, "%.12f,%.4f,%.4f,%llu,", e.t_s, e.x_px, e.y_px,
                  static_cast<unsigned long long>(e.nPhotons));
    truth->stream() << line << options.settings.classes[e.classIndex].name << '\n';
  }

  /// One slice of photons, with the flash of each, into every output.
  void add_photons(std::span<const PhotonEvent> photons, std::span<const std::int64_t> flashOf) {
    photonFile.append(photons);
    nPhotons += photons.size();
    if (flashes) {
      fingerprint.add(photons);
      flashes->append(flashOf);
    }
    if (raw) {
      for (const auto& p : photons) raw->add_photon(p);
    }
    check_all();
  }

  void begin_photons() { photonFile.begin_block(kovra::detail::make_identifier("photons")); }
  void end_photons() {
    check_photonFile();
    photonFile.end_block();
  }

  /// The trigger list, when the run has one, a piece at a time.
  void write_triggers() {
    Trigger_Times triggers(options.settings);
    if (!triggers.present()) return;
    hasTriggers = true;
    photonFile.begin_block(kovra::detail::make_identifier("extTrigs"));
    std::vector<Time> piece;
    constexpr std::size_t pieceTriggers = 1 << 16;
    for (bool more = true; more;) {
      piece.clear();
      for (Time t; piece.size() < pieceTriggers && (more = triggers.next(t));) piece.push_back(t);
      photonFile.append(std::span<const Time>(piece));
      nTriggers += piece.size();
    }
    check_photonFile();
    photonFile.end_block();
  }

  /// Hands over every byte, then moves the outputs into place: the companions first, the photon file last, so
  /// that whoever waits for it finds them in place.
  void commit(const Simulation_Counts& counts) {
    check_photonFile();  // commit() then only fills in the photon file's size, in place
    if (raw) {
      raw->finish();
      check_flushedOutput(*rawFile);
      if (hitPhotons) hitPhotons->finish(nPhotons, fingerprint.value());
    }
    if (truth) check_flushedOutput(*truth);
    if (flashes) flashes->finish(counts.nEvents, fingerprint.value());
    if (rawFile) rawFile->commit();
    if (hitPhotons) hitPhotons->commit();
    if (truth) truth->commit();
    if (flashes) flashes->commit();
    photonFile.commit();
  }

  void print_summary(const Simulation_Counts& counts) const {
    using kovra::tools::format_count;
    std::cout << "kovra_simulate: wrote " << format_count(nPhotons, "photon") << " (" << counts.nEventPhotons
              << " from " << format_count(counts.nEvents, "flash", "flashes") << ", "
              << format_count(counts.nDarkPhotons, "dark count");
    if (hasTriggers) std::cout << ", " << format_count(nTriggers, "trigger");
    std::cout << ") to " << options.outputPath << "\n";
    if (truth) std::cout << "kovra_simulate: true flashes in " << truthPath << "\n";
    if (flashes) std::cout << "kovra_simulate: the flash of each photon in " << flashes->get_path() << "\n";
    if (raw) {
      std::cout << "kovra_simulate: wrote the raw form, " << format_count(nHits, "hit") << ", to " << options.rawPath
                << "\n";
      if (hitPhotons) std::cout << "kovra_simulate: the photon of each hit in " << hitPhotons->get_path() << "\n";
    }
  }

 private:
  /// Makes the outputs' missing folders, as kovra_brantel makes those of its output, and makes sure the photon
  /// file can be written: its writer would stop the program on a target it cannot write. Returns its path.
  static const std::string& probe_outputs(const Simulate_Options& options) {
    for (const std::string& path : {options.outputPath, options.rawPath}) {
      if (const std::error_code error = kovra::tools::create_outputFolders(path)) {
        throw_cannotWrite(path, error.value());
      }
    }
    kovra::OutputFile_Atomic probe(options.outputPath);
    check_output(probe);
    return options.outputPath;
  }

  void open_raw() {
    // With the truth, the raw file gets the photon of each of its hits beside it, for scoring the import.
    if (options.writeTruth) hitPhotons.emplace(kovra::tools::get_hitPhotonsPath(options.rawPath));
    rawFile.emplace(options.rawPath);
    check_output(*rawFile);
    raw.emplace(
        options.settings.width_px, options.settings.height_px, options.settings.seed,
        [this](const std::uint64_t* words, std::size_t n) {
      rawFile->stream().write(reinterpret_cast<const char*>(words), static_cast<std::streamsize>(8 * n));
        },
        [triggers = Trigger_Times(options.settings)](Time& t) mutable { return triggers.next(t); },
        Hit_Tally{&nHits, &hitPhotons});
  }

  /// Asked before every end_block, whose size check would stop the program on a failed write, and after every
  /// slice; the buffered bytes are handed over first, so that a write that fails shows here.
  void check_photonFile() {
    photonFile.flush();
    if (!photonFile.good()) throw_cannotWrite(options.outputPath, photonFile.get_error());
  }

  void check_all() {
    check_photonFile();
    if (truth) check_output(*truth);
    if (flashes) flashes->check();
    if (rawFile) check_output(*rawFile);
    if (hitPhotons) hitPhotons->check();
  }

  const Simulate_Options& options;
  kovra::ContainerFile_Writer<2> photonFile;
  std::string truthPath;
  std::optional<kovra::OutputFile_Atomic> truth;
  std::optional<kovra::tools::PhotonFlashes_Writer> flashes;
  std::optional<kovra::OutputFile_Atomic> rawFile;
  std::optional<kovra::tools::HitPhotons_Writer> hitPhotons;
  std::optional<Raw_Writer<Hit_Tally>> raw;
  kovra::tools::Photon_Fingerprint fingerprint;
  std::uint64_t nPhotons = 0;
  std::uint64_t nHits = 0;
  std::uint64_t nTriggers = 0;
  bool hasTriggers = false;
};

void write_simulation(const Simulate_Options& options) {
  Simulation_Outputs outputs(options);
  outputs.begin_photons();
  const Simulation_Counts counts = simulate_photonSlices(
      options.settings, [&](const True_Event& e) { outputs.add_flash(e); },
      [&](std::span<const Simulation_Outputs::PhotonEvent> photons, std::span<const std::int64_t> flashOf) {
    outputs.add_photons(photons, flashOf);
      });
  outputs.end_photons();
  outputs.write_triggers();
  outputs.commit(counts);
  outputs.print_summary(counts);
}

int run_simulate(const Simulate_Options& options) {
  try {
    write_simulation(options);
  } catch (const std::runtime_error& e) {
    std::cerr << "kovra_simulate: " << e.what() << "\n";
    return kovra::tools::exit_failure;
  }
  return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
  return kovra::tools::run_tool("kovra_simulate", get_simulateHelp(), argc, argv, parse_simulateOptions, run_simulate);
}
