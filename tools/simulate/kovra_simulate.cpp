// kovra_simulate: writes a photon file of a simulated scintillator, and optionally the true flashes beside it.

#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <stdexcept>
#include <vector>

#include "common/CommandLine.hpp"
#include "common/HitPhotons.hpp"
#include "common/Counts.hpp"
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

// Every output is written as the photons are drawn, a slice at a time: the run holds one slice of photons (and of
// raw packets), however long the acquisition. A write that fails (a full disk) stops the run at the end of its
// slice with the system's reason, and no output changes: each is written beside its target, and none is moved
// into place before every byte of all of them has been handed to the system.
void write_simulation(const Simulate_Options& options) {
  using kovra::tpx3spidr::PhotonEvent;
  using kovra::tpx3spidr::Time;

  // Missing folders are made, as kovra_brantel makes those of its output (the truth files go beside the photons).
  for (const std::string& path : {options.outputPath, options.rawPath}) {
    if (const std::error_code error = kovra::tools::create_outputFolders(path)) throw_cannotWrite(path, error.value());
  }
  // The photon file's writer stops the program on a target it cannot write; ask first, with a message.
  {
    kovra::OutputFile_Atomic probe(options.outputPath);
    check_output(probe);
  }
  kovra::ContainerFile_Writer<2> photonFile(options.outputPath);
  // Asked before every end_block, whose size check would stop the program on a failed write.
  const auto check_photonFile = [&] {
    if (!photonFile.good()) throw_cannotWrite(options.outputPath, photonFile.get_error());
  };

  const std::string truthPath = get_truthPath(options.outputPath);
  std::optional<kovra::OutputFile_Atomic> truth;
  std::optional<kovra::tools::PhotonFlashes_Writer> flashes;
  if (options.writeTruth) {
    truth.emplace(truthPath);
    check_output(*truth);
    truth->stream() << "t_s,x_px,y_px,nPhotons,class\n";
    flashes.emplace(kovra::tools::get_photonFlashesPath(options.outputPath), get_flashBound(options.settings));
  }

  std::optional<kovra::OutputFile_Atomic> rawFile;
  // With the truth, the raw file gets the photon of each of its hits beside it, for scoring the import.
  std::optional<kovra::tools::HitPhotons_Writer> hitPhotons;
  if (options.writeTruth && !options.rawPath.empty()) {
    hitPhotons.emplace(kovra::tools::get_hitPhotonsPath(options.rawPath));
  }
  std::uint64_t nHits = 0;
  const auto countHit = [&nHits, &hitPhotons](const Raw_Hit& hit) {
    ++nHits;
    if (hitPhotons) hitPhotons->add(hit.photon);
  };
  std::optional<Raw_Writer<decltype(countHit)>> raw;
  if (!options.rawPath.empty()) {
    rawFile.emplace(options.rawPath);
    check_output(*rawFile);
    raw.emplace(
        options.settings.width_px, options.settings.height_px, options.settings.seed,
        [&rawFile](const std::uint64_t* words, std::size_t n) {
          rawFile->stream().write(reinterpret_cast<const char*>(words), static_cast<std::streamsize>(8 * n));
        },
        [triggers = Trigger_Times(options.settings)](Time& t) mutable { return triggers.next(t); }, countHit);
  }

  const auto& classes = options.settings.classes;
  const auto onEvent = [&](const True_Event& e) {
    if (!truth) return;
    char line[160];
    std::snprintf(line, sizeof line, "%.12f,%.4f,%.4f,%llu,", e.t_s, e.x_px, e.y_px,
                  static_cast<unsigned long long>(e.nPhotons));
    truth->stream() << line << classes[e.classIndex].name << '\n';
  };
  kovra::tools::Photon_Fingerprint fingerprint;
  std::uint64_t nPhotons = 0;
  photonFile.begin_block(kovra::detail::make_identifier("photons"));
  const Simulation_Counts counts = simulate_photonSlices(
      options.settings, onEvent, [&](std::span<const PhotonEvent> photons, std::span<const std::int64_t> flashOf) {
        photonFile.append(photons);
        nPhotons += photons.size();
        if (flashes) {
          fingerprint.add(photons);
          flashes->append(flashOf);
        }
        if (raw) {
          for (const auto& p : photons) raw->add_photon(p);
        }
        check_photonFile();
        if (truth) check_output(*truth);
        if (flashes) flashes->check();
        if (rawFile) check_output(*rawFile);
        if (hitPhotons) hitPhotons->check();
      });
  check_photonFile();
  photonFile.end_block();

  Trigger_Times triggers(options.settings);
  std::uint64_t nTriggers = 0;
  if (triggers.present()) {
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

  // Every byte handed over before anything moves; commit() then only fills in the photon file's size, in place.
  check_photonFile();
  if (raw) {
    raw->finish();
    check_flushedOutput(*rawFile);
    if (hitPhotons) hitPhotons->finish(nPhotons, fingerprint.value());
  }
  if (truth) check_flushedOutput(*truth);
  if (flashes) flashes->finish(counts.nEvents, fingerprint.value());
  // The companions first, the photon file last: whoever waits for it finds them in place.
  if (rawFile) rawFile->commit();
  if (hitPhotons) hitPhotons->commit();
  if (truth) truth->commit();
  if (flashes) flashes->commit();
  photonFile.commit();

  using kovra::tools::format_count;
  std::cout << "kovra_simulate: wrote " << format_count(nPhotons, "photon") << " (" << counts.nEventPhotons << " from "
            << format_count(counts.nEvents, "flash", "flashes") << ", "
            << format_count(counts.nDarkPhotons, "dark count");
  if (triggers.present()) std::cout << ", " << format_count(nTriggers, "trigger");
  std::cout << ") to " << options.outputPath << "\n";
  if (truth) std::cout << "kovra_simulate: true flashes in " << truthPath << "\n";
  if (flashes) std::cout << "kovra_simulate: the flash of each photon in " << flashes->get_path() << "\n";
  if (raw) {
    std::cout << "kovra_simulate: wrote the raw form, " << format_count(nHits, "hit") << ", to " << options.rawPath
              << "\n";
    if (hitPhotons) std::cout << "kovra_simulate: the photon of each hit in " << hitPhotons->get_path() << "\n";
  }
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
