#pragma once

// The pulse-shape parameter of an event: the running mean, over its photons, of each photon's time distance to
// the first one, in seconds. Slow scintillation light gives a larger value than fast light.

#include <cassert>
#include <cstdint>

namespace kovra {

/// Running mean of the photons' time distances to the first photon, in seconds; `value` is 0.0 for one photon.
struct PSD_Parameter_SumTimeDistToFirst {
  double t_first_abs_s = 0.0;
  double value = 0.0;
  std::uint64_t nPhotons = 0;

  template <typename PhotonEvent_Type>
  void add_photon_first(const PhotonEvent_Type& firstPhoton) {
    t_first_abs_s = firstPhoton.get_toa().get_seconds();
    value = 0.0;
    nPhotons = 1;
  }

  /// Folds in a further photon; it must not be earlier than the first one. The order of operations
  /// (multiply, add the distance, divide) is part of the result.
  template <typename PhotonEvent_Type>
  void add_photon_notFirst(const PhotonEvent_Type& firstPhoton) {
    assert(firstPhoton.get_toa().get_seconds() >= t_first_abs_s);
    const double m = static_cast<double>(nPhotons);
    value = (value * m + (firstPhoton.get_toa().get_seconds() - t_first_abs_s)) / static_cast<double>(nPhotons + 1);
    nPhotons = nPhotons + 1;
  }
};

}  // namespace kovra
