#pragma once

// No-branch-chain direct reconstruction.
//
// Every free photon seeds a chain and is taken at once. The chain then walks the later photons: a free photon
// joins when it is within dSpace of the photon added last on each axis (strict <, x first). Photons that are
// taken or too far are passed over without ending the chain; the first photon later than
// min(t_last + d, seed time + durationMax) ends it (both bounds inclusive). The window d starts at dTime and
// grows by trunc((t_new - t_last) * dTime_ext) with every photon added.

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "kovra/Quantities.hpp"
#include "kovra/Reconstruction_Events.hpp"
#include "kovra/reconstruction/Reconstruction_Detail.hpp"

namespace kovra {

namespace detail {

/// The settings of a no-branch chain, read once per call.
template <typename Length_Type, typename Time_Type>
struct NoBranchChain_Window {
  std::int64_t dSpace;
  Time_Type dTime;
  double factor;
  Time_Type durationMax;

  /// Where the chain of the seed stops looking: min(t_last + d, tEnd). The sum saturates, so that a window
  /// widened beyond every time stays unlimited instead of wrapping.
  static Time_Type limit_of(Time_Type tLast, Time_Type d, Time_Type tEnd) {
    return std::min(tEnd, add_saturating(tLast, d));
  }

  /// Grows the chain of the seed at `seedIndex` over the photons after it, taking (and marking) the free photons
  /// that join. The caller has checked that the photon after the seed lies inside the seed's window.
  template <typename PhotonEventChain_Type, typename PhotonEvent_Type>
  PhotonEventChain_Type grow(const PhotonEvent_Type* photon, std::size_t nPhotons, std::size_t seedIndex,
                             Time_Type tEnd, Bits_Packed& taken) const {
    const PhotonEvent_Type& seed = photon[seedIndex];
    PhotonEventChain_Type chain(seed);
    Length_Type lastX = seed.x;
    Length_Type lastY = seed.y;
    Time_Type tLast = seed.toa;
    Time_Type d = dTime;
    Time_Type limit = limit_of(tLast, d, tEnd);
    std::size_t j = seedIndex + 1;
    do {
      const PhotonEvent_Type& candidate = photon[j];
      if (!taken.test(j) && (lastX - candidate.x).abs() < dSpace && (lastY - candidate.y).abs() < dSpace) {
        chain.add_photon(candidate);
        taken.set(j);
        // With a factor of 0.0 the product is always 0 ticks, so the window stays as it is.
        if (factor != 0.0) d = add_saturating(d, (candidate.toa - tLast).scaled(factor));
        tLast = candidate.toa;
        lastX = candidate.x;
        lastY = candidate.y;
        limit = limit_of(tLast, d, tEnd);
      }
      ++j;
    } while (j < nPhotons && photon[j].toa <= limit);
    return chain;
  }
};

template <typename Reconstruction_Type>
auto make_noBranchChain_window(const Reconstruction_Type& settings) {
  using Length_Type = decltype(settings.dSpace);
  using Time_Type = decltype(settings.dTime);
  return NoBranchChain_Window<Length_Type, Time_Type>{settings.dSpace.value, settings.dTime,
                                                       settings.dTime_ext.value_or(0.0), settings.durationMax};
}

}  // namespace detail

template <typename Length_Type, typename Time_Type, typename PSD_Type>
auto Reconstruction_Events<Length_Type, Time_Type, PSD_Type>::reconstruct_noBranchChain_direct(
    const Data_PhotonEvents_Type& photons) const -> Data_Events_Type {
  const auto window = detail::make_noBranchChain_window(*this);
  const std::size_t nPhotons = photons.photonEvents.size();
  const PhotonEvent_Type* const photon = photons.photonEvents.data();
  std::vector<Event_Type> events;
  events.reserve(nPhotons);
  detail::Bits_Packed taken(nPhotons);

  for (std::size_t i = 0; i < nPhotons; ++i) {
    if (taken.test(i)) continue;
    taken.set(i);
    const PhotonEvent_Type& seed = photon[i];
    const Time_Type tEnd = seed.toa + durationMax;
    if (i + 1 < nPhotons && photon[i + 1].toa <= window.limit_of(seed.toa, dTime, tEnd)) {
      const auto chain = window.template grow<PhotonEventChain_Type>(photon, nPhotons, i, tEnd, taken);
      events.push_back(chain.to_event());
    } else {
      events.push_back(Event_Type{seed.x, seed.y, seed.toa, 1, 0.0});
    }
  }

  return Data_Events_Type(std::move(events), detail::copy_extTriggers(photons));
}

}  // namespace kovra
