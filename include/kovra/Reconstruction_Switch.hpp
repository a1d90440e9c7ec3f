#pragma once

// What every front end (the tool, the Python package, the evaluator, the benchmarks) shares between the user's
// settings and the algorithms: the maximum event duration in ticks, and the algorithm picked by its name.

#include <stdexcept>
#include <string>

#include "kovra/Data_PhotonEvents.hpp"
#include "kovra/Reconstruction_Events.hpp"

namespace kovra {

/// The maximum event duration in ticks. Up to Time_Type::max_seconds it is converted (the bound itself gives 2^62
/// ticks); beyond it, the default +infinity included, it saturates to max_ticks (2^62 - 1), which means unlimited.
/// The one-tick step at the bound is intended. A negative or NaN value must not get here.
template <typename Time_Type>
Time_Type convert_durationMax(double durationMax_s) {
  if (durationMax_s <= Time_Type::max_seconds) return Time_Type::template make_from_seconds<true>(durationMax_s);
  return Time_Type{Time_Type::max_ticks};
}

/// The four algorithms.
enum class Algorithm { ghostPhoton, noBranch, forwardChain, fullChain };

/// The algorithm named `algorithm` (exact, case-sensitive; "default" is the ghost-photon no-branch chain). Any
/// other name throws std::invalid_argument.
inline Algorithm find_algorithm(const std::string& algorithm) {
  if (algorithm == "default" || algorithm == "noBranchChain_ghostPhoton_direct") return Algorithm::ghostPhoton;
  if (algorithm == "noBranchChain_direct") return Algorithm::noBranch;
  if (algorithm == "forwardChain_photonBuildup") return Algorithm::forwardChain;
  if (algorithm == "fullChain_direct") return Algorithm::fullChain;
  throw std::invalid_argument("algorithm \"" + algorithm + "\" does not exist!");
}

/// Calls the member function of `reconstruction` for `algorithm` with `arguments`.
template <typename Reconstruction_Type, typename... Argument_Types>
decltype(auto) run_algorithm(const Reconstruction_Type& reconstruction, Algorithm algorithm,
                             Argument_Types&&... arguments) {
  switch (algorithm) {
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

/// Runs the algorithm named `algorithm` over the photons and returns its events. An unknown name throws
/// std::invalid_argument.
template <typename Length_Type, typename Time_Type, typename PSD_Type>
Data_Events<Event<Length_Type, Time_Type, PSD_Type>> reconstructEvents_switchAlgorithm(
    const Reconstruction_Events<Length_Type, Time_Type, PSD_Type>& reconstruction,
    const Data_PhotonEvents<PhotonEvent<Length_Type, Time_Type>>& photons, const std::string& algorithm) {
  return run_algorithm(reconstruction, find_algorithm(algorithm), photons);
}

/// The same, telling `membership` which event each photon went into (see kovra/reconstruction/EventMembership.hpp).
template <typename Length_Type, typename Time_Type, typename PSD_Type, typename Membership_Type>
Data_Events<Event<Length_Type, Time_Type, PSD_Type>> reconstructEvents_switchAlgorithm(
    const Reconstruction_Events<Length_Type, Time_Type, PSD_Type>& reconstruction,
    const Data_PhotonEvents<PhotonEvent<Length_Type, Time_Type>>& photons, const std::string& algorithm,
    Membership_Type& membership) {
  return run_algorithm(reconstruction, find_algorithm(algorithm), photons, membership);
}

/// The same over a photon source, each event handed to `out` as soon as it is complete.
template <typename Length_Type, typename Time_Type, typename PSD_Type, typename Out_Type>
void reconstructEvents_switchAlgorithm(const Reconstruction_Events<Length_Type, Time_Type, PSD_Type>& reconstruction,
                                       PhotonSource<PhotonEvent<Length_Type, Time_Type>>& source,
                                       const std::string& algorithm, Out_Type& out) {
  run_algorithm(reconstruction, find_algorithm(algorithm), source, out);
}

}  // namespace kovra
