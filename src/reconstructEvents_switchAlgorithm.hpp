#pragma once

// Picks a reconstruction algorithm by its name and runs it: over a photon list in memory (optionally telling a
// membership sink which event each photon went into), or over a photon source with the events handed to an
// output as they are complete.

#include <stdexcept>
#include <string>

#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace algorithm_switch {

enum class Algorithm { ghostPhoton, noBranch, forwardChain, fullChain };

/// The algorithm named `algorithm` (exact, case-sensitive; "default" is the ghost-photon no-branch chain). Any
/// other name throws std::invalid_argument.
inline Algorithm find(const std::string& algorithm) {
  if (algorithm == "default" || algorithm == "noBranchChain_ghostPhoton_direct") return Algorithm::ghostPhoton;
  if (algorithm == "noBranchChain_direct") return Algorithm::noBranch;
  if (algorithm == "forwardChain_photonBuildup") return Algorithm::forwardChain;
  if (algorithm == "fullChain_direct") return Algorithm::fullChain;
  throw std::invalid_argument("algorithm \"" + algorithm + "\" does not exist!");
}

/// Calls the chosen member function of `reconstruction` with `arguments`.
template <typename... Argument_Types>
decltype(auto) run(const kovra::tpx3spidr::Reconstruction_Events& reconstruction, const std::string& algorithm,
                   Argument_Types&&... arguments) {
  switch (find(algorithm)) {
    case Algorithm::ghostPhoton:
      return reconstruction.reconstruct_noBranchChain_ghostPhoton_direct(arguments...);
    case Algorithm::noBranch:
      return reconstruction.reconstruct_noBranchChain_direct(arguments...);
    case Algorithm::forwardChain:
      return reconstruction.reconstruct_forwardChain_photonBuildup(arguments...);
    case Algorithm::fullChain:
      break;
  }
  return reconstruction.reconstruct_fullChain_direct(arguments...);
}

}  // namespace algorithm_switch

/// Runs the algorithm named `algorithm` over the photons and returns its events. An unknown name throws
/// std::invalid_argument.
inline kovra::tpx3spidr::Data_Events reconstructEvents_switchAlgorithm(
    const kovra::tpx3spidr::Reconstruction_Events& reconstruction,
    const kovra::tpx3spidr::Data_PhotonEvents& photons, const std::string& algorithm) {
  return algorithm_switch::run(reconstruction, algorithm, photons);
}

/// The same, telling `membership` which event each photon went into (see kovra/reconstruction/EventMembership.hpp).
template <typename Membership_Type>
kovra::tpx3spidr::Data_Events reconstructEvents_switchAlgorithm(
    const kovra::tpx3spidr::Reconstruction_Events& reconstruction, const kovra::tpx3spidr::Data_PhotonEvents& photons,
    const std::string& algorithm, Membership_Type& membership) {
  return algorithm_switch::run(reconstruction, algorithm, photons, membership);
}

/// The same over a photon source, each event handed to `out` as soon as it is complete.
template <typename Out_Type>
void reconstructEvents_switchAlgorithm(const kovra::tpx3spidr::Reconstruction_Events& reconstruction,
                                       kovra::tpx3spidr::PhotonSource& source, const std::string& algorithm,
                                       Out_Type& out) {
  algorithm_switch::run(reconstruction, algorithm, source, out);
}
