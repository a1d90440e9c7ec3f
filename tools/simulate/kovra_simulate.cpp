// kovra_simulate: writes a photon file of a simulated scintillator, and optionally the true flashes beside it.

#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "common/CommandLine.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"
#include "simulate/PhotonFlashes.hpp"
#include "simulate/PhotonSimulation.hpp"
#include "simulate/RawExport.hpp"
#include "simulate/SimulateOptions.hpp"

namespace {

using namespace kovra::simulate;

int run_simulate(const Simulate_Options& options) {

  // The library's writer does not report an unwritable path, so find out before the work is done.
  if (!std::ofstream(options.outputPath, std::ios::binary | std::ios::trunc)) {
    std::cerr << "kovra_simulate: cannot write '" << options.outputPath << "'\n";
    return kovra::tools::exit_failure;
  }
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> truth(nullptr, &std::fclose);
  const std::string truthPath = get_truthPath(options.outputPath);
  if (options.writeTruth) {
    truth.reset(std::fopen(truthPath.c_str(), "w"));
    if (!truth) {
      std::cerr << "kovra_simulate: cannot write '" << truthPath << "'\n";
      return kovra::tools::exit_failure;
    }
    std::fputs("t_s,x_px,y_px,nPhotons,class\n", truth.get());
  }

  const auto& classes = options.settings.classes;
  const auto onEvent = [&](const True_Event& e) {
    if (truth) {
      std::fprintf(truth.get(), "%.12f,%.4f,%.4f,%llu,%s\n", e.t_s, e.x_px, e.y_px,
                   static_cast<unsigned long long>(e.nPhotons), classes[e.classIndex].name.c_str());
    }
  };
  std::optional<PhotonFlashes_Writer> flashes;
  try {
    if (options.writeTruth) flashes.emplace(get_photonFlashesPath(options.outputPath), get_flashBound(options.settings));
  } catch (const std::runtime_error& e) {
    std::cerr << "kovra_simulate: " << e.what() << "\n";
    return kovra::tools::exit_failure;
  }
  const Simulation_Result result =
      options.writeTruth ? simulate_photonEvents_withFlashes(
                               options.settings, onEvent,
                               [&](const std::vector<std::int64_t>& slice) { flashes->append(slice); }, 0)
                         : simulate_photonEvents(options.settings, onEvent);
  if (truth && std::fclose(truth.release()) != 0) {
    std::cerr << "kovra_simulate: cannot write '" << truthPath << "'\n";
    return kovra::tools::exit_failure;
  }

  kovra::tpx3spidr::FileHandler_PhotonEvents::save_file(options.outputPath, result.photons);
  try {
    if (flashes) flashes->finish(result.nEvents, fingerprint_photons(result.photons.photonEvents));
  } catch (const std::runtime_error& e) {
    std::cerr << "kovra_simulate: " << e.what() << "\n";
    return kovra::tools::exit_failure;
  }

  std::cout << "kovra_simulate: wrote " << result.photons.size() << " photons (" << result.nEventPhotons
            << " from " << result.nEvents << " flashes, " << result.nDarkPhotons << " dark counts";
  if (result.photons.extTriggers) std::cout << ", " << result.photons.extTriggers->size() << " triggers";
  std::cout << ") to " << options.outputPath << "\n";
  if (options.writeTruth) std::cout << "kovra_simulate: true flashes in " << truthPath << "\n";
  if (flashes) std::cout << "kovra_simulate: the flash of each photon in " << flashes->get_path() << "\n";
  if (!options.rawPath.empty()) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> raw(std::fopen(options.rawPath.c_str(), "wb"), &std::fclose);
    std::uint64_t nHits = 0;
    try {
      if (!raw) throw std::invalid_argument("cannot write");
      write_raw(result.photons, options.settings.width_px, options.settings.height_px, options.settings.seed,
                raw.get(), [&](const Raw_Hit&) { ++nHits; });
      if (std::fclose(raw.release()) != 0) throw std::invalid_argument("cannot write");
    } catch (const std::invalid_argument& e) {
      std::cerr << "kovra_simulate: '" << options.rawPath << "': " << e.what() << "\n";
      return 1;
    }
    std::cout << "kovra_simulate: wrote the raw form, " << nHits << " hits, to " << options.rawPath << "\n";
  }
  return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
  return kovra::tools::run_tool("kovra_simulate", get_simulateHelp(), argc, argv, parse_simulateOptions, run_simulate);
}
