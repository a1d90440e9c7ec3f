#pragma once

// Picks a reconstruction algorithm by its name and runs it with an event-membership sink.

#include <stdexcept>
#include <string>

#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

/// As reconstructEvents_switchAlgorithm (same names, same message for an unknown one), and tells `membership`
/// which event each photon went into (see kovra/reconstruction/EventMembership.hpp).
template <typename Membership_Type>
kovra::tpx3spidr::Data_Events reconstructEvents_switchAlgorithm_withMembership(
    const kovra::tpx3spidr::Reconstruction_Events& reconstruction, const kovra::tpx3spidr::Data_PhotonEvents& photons,
    const std::string& algorithm, Membership_Type& membership) {
  if (algorithm == "default" || algorithm == "noBranchChain_ghostPhoton_direct") {
    return reconstruction.reconstruct_noBranchChain_ghostPhoton_direct(photons, membership);
  }
  if (algorithm == "noBranchChain_direct") return reconstruction.reconstruct_noBranchChain_direct(photons, membership);
  if (algorithm == "forwardChain_photonBuildup") {
    return reconstruction.reconstruct_forwardChain_photonBuildup(photons, membership);
  }
  if (algorithm == "fullChain_direct") return reconstruction.reconstruct_fullChain_direct(photons, membership);
  throw std::invalid_argument("algorithm \"" + algorithm + "\" does not exist!");
}
