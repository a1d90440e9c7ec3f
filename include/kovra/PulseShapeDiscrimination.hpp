#pragma once

// The pulse-shape parameter of an event: the running mean, over its photons, of each photon's time distance to
// the first one, in seconds. Slow scintillation light gives a larger value than fast light.

#include <cassert>
#include <cstdint>

namespace kovra {

/// Running mean of the photons' time distances to the first photon, in seconds; `value` is 0.0 for one photon.
/// Holds only the mean: the event's first time and photon count are the chain's, passed in.
struct PSD_Parameter_SumTimeDistToFirst {
  double value = 0.0;

  /// Folds in a further photon of an event whose first photon arrived at `t_first` and which held
  /// `nPhotonsBefore` photons; it must not be earlier than the first one. The order of operations (multiply, add
  /// the distance, divide) is part of the result.
  template <typename PhotonEvent_Type, typename Time_Type>
  void add_photon(const PhotonEvent_Type& photon, Time_Type t_first, std::uint64_t nPhotonsBefore) {
    const double t_first_s = t_first.get_seconds();
    assert(photon.get_toa().get_seconds() >= t_first_s);
    const double m = static_cast<double>(nPhotonsBefore);
    value = (value * m + (photon.get_toa().get_seconds() - t_first_s)) / static_cast<double>(nPhotonsBefore + 1);
  }
};

}  // namespace kovra
