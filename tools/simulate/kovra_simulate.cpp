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

/// Says on standard error that `path` cannot be written and the system's reason (an errno value), and gives the
/// status for it.
int cannot_write(const std::string& path, int error) {
  std::cerr << "kovra_simulate: cannot write '" << path << "': " << std::strerror(error) << "\n";
  return kovra::tools::exit_failure;
}

// Every output is written as the photons are drawn, a slice at a time, and appears at its path only once it is
// complete: the run holds one slice of photons (and of raw packets), however long the acquisition.
int run_simulate(const Simulate_Options& options) {
  using kovra::tpx3spidr::PhotonEvent;
  using kovra::tpx3spidr::Time;

  // Missing folders are made, as kovra_brantel makes those of its output (the truth files go beside the photons).
  for (const std::string& path : {options.outputPath, options.rawPath}) {
    if (const std::error_code error = kovra::tools::create_outputFolders(path)) return cannot_write(path, error.value());
  }
  // The photon file's writer stops the program on a target it cannot write; ask first, with a message.
  {
    kovra::OutputFile_Atomic probe(options.outputPath);
    if (!probe.stream()) return cannot_write(options.outputPath, probe.get_error());
  }
  kovra::ContainerFile_Writer<2> photonFile(options.outputPath);

  const std::string truthPath = get_truthPath(options.outputPath);
  std::optional<kovra::OutputFile_Atomic> truth;
  std::optional<kovra::tools::PhotonFlashes_Writer> flashes;
  if (options.writeTruth) {
    truth.emplace(truthPath);
    if (!truth->stream()) return cannot_write(truthPath, truth->get_error());
    truth->stream() << "t_s,x_px,y_px,nPhotons,class\n";
    try {
      flashes.emplace(kovra::tools::get_photonFlashesPath(options.outputPath), get_flashBound(options.settings));
    } catch (const std::runtime_error& e) {
      std::cerr << "kovra_simulate: " << e.what() << "\n";
      return kovra::tools::exit_failure;
    }
  }

  std::optional<kovra::OutputFile_Atomic> rawFile;
  // With the truth, the raw file gets the photon of each of its hits beside it, for scoring the import.
  std::optional<kovra::tools::HitPhotons_Writer> hitPhotons;
  if (options.writeTruth && !options.rawPath.empty()) {
    hitPhotons.emplace(kovra::tools::get_hitPhotonsPath(options.rawPath));
    if (!hitPhotons->good()) return cannot_write(hitPhotons->get_path(), hitPhotons->get_error());
  }
  std::uint64_t nHits = 0;
  const auto countHit = [&nHits, &hitPhotons](const Raw_Hit& hit) {
    ++nHits;
    if (hitPhotons) hitPhotons->add(hit.photon);
  };
  std::optional<Raw_Writer<decltype(countHit)>> raw;
  if (!options.rawPath.empty()) {
    rawFile.emplace(options.rawPath);
    if (!rawFile->stream()) return cannot_write(options.rawPath, rawFile->get_error());
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
      });
  if (!photonFile.good()) return cannot_write(options.outputPath, photonFile.get_error());
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
    if (!photonFile.good()) return cannot_write(options.outputPath, photonFile.get_error());
    photonFile.end_block();
  }

  // The companions first, the photon file last: whoever waits for it finds them in place.
  try {
    if (raw) {
      raw->finish();
      rawFile->commit();
      if (hitPhotons) hitPhotons->finish(nPhotons, fingerprint.value());
    }
    if (truth) truth->commit();
    if (flashes) flashes->finish(counts.nEvents, fingerprint.value());
    photonFile.commit();
  } catch (const std::exception& e) {
    std::cerr << "kovra_simulate: " << e.what() << "\n";
    return kovra::tools::exit_failure;
  }

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
  return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
  return kovra::tools::run_tool("kovra_simulate", get_simulateHelp(), argc, argv, parse_simulateOptions, run_simulate);
}
