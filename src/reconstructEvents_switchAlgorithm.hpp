#pragma once

// Picks a reconstruction algorithm by its name and runs it.

#include <stdexcept>
#include <string>

#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

/// Runs the algorithm named `algorithm` (exact, case-sensitive; "default" is the ghost-photon no-branch chain)
/// and returns its events. Any other name throws std::invalid_argument.
inline kovra::tpx3spidr::Data_Events reconstructEvents_switchAlgorithm(
    const kovra::tpx3spidr::Reconstruction_Events& reconstruction,
    const kovra::tpx3spidr::Data_PhotonEvents& photons, const std::string& algorithm) {
  if (algorithm == "default") return reconstruction.reconstruct_noBranchChain_ghostPhoton_direct(photons);
  if (algorithm == "noBranchChain_direct") return reconstruction.reconstruct_noBranchChain_direct(photons);
  if (algorithm == "noBranchChain_ghostPhoton_direct") {
    return reconstruction.reconstruct_noBranchChain_ghostPhoton_direct(photons);
  }
  if (algorithm == "forwardChain_photonBuildup") return reconstruction.reconstruct_forwardChain_photonBuildup(photons);
  if (algorithm == "fullChain_direct") return reconstruction.reconstruct_fullChain_direct(photons);
  throw std::invalid_argument("algorithm \"" + algorithm + "\" does not exist!");
}
