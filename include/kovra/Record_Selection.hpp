#pragma once

// Which records a histogram counts: bounds on an event's pulse-shape value and photon count, on the time of
// flight, and a region of the detector. Every bound is optional; one left out selects nothing away.
//
//   pulse-shape value   psdMin <= psd <= psdMax (seconds; a value that is not a number fails any bound)
//   photon count        photonsMin <= nPhotons <= photonsMax
//   time of flight      tofMin <= tof < tofMax (ticks; a record without one fails either bound)
//   region              x0 <= x < x1 and y0 <= y < y1 (raw length units)
//
// The time of flight is half open like the bins it is histogrammed in, so that the bins of [tofMin, tofMax)
// hold exactly the records that pass it; the same goes for the region and the cells of an image.

#include <cstdint>
#include <optional>

#include "kovra/TimeOfFlight.hpp"

namespace kovra {

/// A rectangle of the detector in raw length units, its lower bounds inside and its upper bounds outside.
template <typename Length_Type>
struct Detector_Region {
  Length_Type x0, y0, x1, y1;

  bool contains(Length_Type x, Length_Type y) const { return x0 <= x && x < x1 && y0 <= y && y < y1; }
};

/// The bounds of a selection; see the top of this header.
template <typename Length_Type>
struct Record_Selection {
  std::optional<double> psdMin, psdMax;
  std::optional<std::uint64_t> photonsMin, photonsMax;
  std::optional<TimeOfFlight_Ticks> tofMin, tofMax;
  std::optional<Detector_Region<Length_Type>> region;

  /// Whether a bound applies to fields only events have (a photon list cannot be selected by them).
  bool uses_eventFields() const { return psdMin || psdMax || photonsMin || photonsMax; }
  bool uses_timeOfFlight() const { return tofMin || tofMax; }

  /// Every bound but the time of flight; a record without event fields is judged by its position alone.
  template <typename Record_Type>
  bool accepts(const Record_Type& record) const {
    if (region && !region->contains(record.x, record.y)) return false;
    if constexpr (requires {
                    record.nPhotons;
                    record.psd;
                  }) {
      if (photonsMin && record.nPhotons < *photonsMin) return false;
      if (photonsMax && record.nPhotons > *photonsMax) return false;
      if (psdMin && !(record.psd >= *psdMin)) return false;
      if (psdMax && !(record.psd <= *psdMax)) return false;
    }
    return true;
  }

  /// The time-of-flight bounds; `tof` is none for a record before the first trigger.
  bool accepts_timeOfFlight(std::optional<TimeOfFlight_Ticks> tof) const {
    if (!uses_timeOfFlight()) return true;
    return tof && (!tofMin || *tof >= *tofMin) && (!tofMax || *tof < *tofMax);
  }
};

}  // namespace kovra
