#pragma once

// The running summary of an event under construction.

#include <cassert>
#include <cstdint>

#include "kovra/Data_PhotonEvents.hpp"

namespace kovra {

/// An event being built: truncating integer centroid, first time, photon count and pulse-shape parameter.
/// Keeps no list of its photons; an algorithm that needs the last photon or a window keeps it beside.
template <typename Length_Type, typename Time_Type, typename PSD_Type>
struct PhotonEventChain {
  using Event_Type = Event<Length_Type, Time_Type, PSD_Type>;

  Length_Type x;
  Length_Type y;
  Time_Type t_first;
  std::uint64_t nPhotons;
  PSD_Type psd;

  template <typename PhotonEvent_Type>
  explicit PhotonEventChain(const PhotonEvent_Type& first)
      : x(first.x), y(first.y), t_first(first.toa), nPhotons(1), psd() {
    psd.add_photon_first(first);
  }

  template <typename PhotonEvent_Type>
  void add_photon(const PhotonEvent_Type& p) {
    nPhotons = nPhotons + 1;
    x.add_to_mean(p.x, nPhotons);
    y.add_to_mean(p.y, nPhotons);
    psd.add_photon_notFirst(p);
  }

  Time_Type get_t_first() const {
    assert(nPhotons != 0);
    return t_first;
  }

  Event_Type to_event() const { return Event_Type{x, y, get_t_first(), nPhotons, psd.value}; }
};

}  // namespace kovra
