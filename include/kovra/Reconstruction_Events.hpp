#pragma once

// Event reconstruction: the search settings and the four algorithms that group a time-ordered photon list into
// events. Each algorithm lives in its own header under kovra/reconstruction/, included at the end of this one.
//
// Every algorithm makes one pass over the photons, reads them in place, reserves its lists once before the pass
// and keeps at most a bit or an index per photon beside them. The work for one seed touches only the photons of
// that seed's time window, so the passes lend themselves to running over a sliding window of a photon stream.

#include <cstddef>
#include <optional>
#include <vector>

#include "kovra/Data_PhotonEvents.hpp"
#include "kovra/PhotonEventChain.hpp"
#include "kovra/reconstruction/EventMembership.hpp"

namespace kovra {

/// The settings shared by the four reconstruction algorithms, and the algorithms themselves. A plain value:
/// the algorithms are constant and change neither the settings nor the photons.
template <typename Length_Type, typename Time_Type, typename PSD_Type>
struct Reconstruction_Events {
  using PhotonEvent_Type = PhotonEvent<Length_Type, Time_Type>;
  using Event_Type = Event<Length_Type, Time_Type, PSD_Type>;
  using PhotonEventChain_Type = PhotonEventChain<Length_Type, Time_Type, PSD_Type>;
  using Data_PhotonEvents_Type = Data_PhotonEvents<PhotonEvent_Type>;
  using Data_Events_Type = Data_Events<Event_Type>;

  /// Search distance in space: Euclidean (<=) for the full and forward chains, per axis (<) for the no-branch
  /// chains.
  Length_Type dSpace;
  /// Search distance in time between neighbouring photons.
  Time_Type dTime;
  /// Factor by which the no-branch chains widen their time window as they grow; absent means 0.0.
  std::optional<double> dTime_ext;
  /// Longest span from an event's first photon to any photon it takes.
  Time_Type durationMax;

  // Each algorithm has a second form that also calls membership(eventIndex, photonIndex) once for every photon
  // of every emitted event (a ghost photon for both of its events), in no promised order: eventIndex is the
  // event's position in the returned events, photonIndex the photon's position in photons.photonEvents.

  /// Every free photon seeds an event that grows forward, branching: a later photon joins when it is near
  /// (in space and in time, looking back) to any photon already in the event.
  Data_Events_Type reconstruct_fullChain_direct(const Data_PhotonEvents_Type& photons) const {
    EventMembership_None none;
    return reconstruct_fullChain_direct(photons, none);
  }
  template <typename Membership_Type>
  Data_Events_Type reconstruct_fullChain_direct(const Data_PhotonEvents_Type& photons, Membership_Type& membership) const;

  /// Each photon joins the chain of the latest earlier photon within reach whose chain is still young enough,
  /// or opens a chain of its own.
  Data_Events_Type reconstruct_forwardChain_photonBuildup(const Data_PhotonEvents_Type& photons) const {
    EventMembership_None none;
    return reconstruct_forwardChain_photonBuildup(photons, none);
  }
  template <typename Membership_Type>
  Data_Events_Type reconstruct_forwardChain_photonBuildup(const Data_PhotonEvents_Type& photons, Membership_Type& membership) const;

  /// Every free photon seeds a chain without branches: the next free photon joins when it is near, on each
  /// axis, to the photon added last, within a time window that may widen as the chain grows.
  Data_Events_Type reconstruct_noBranchChain_direct(const Data_PhotonEvents_Type& photons) const {
    EventMembership_None none;
    return reconstruct_noBranchChain_direct(photons, none);
  }
  template <typename Membership_Type>
  Data_Events_Type reconstruct_noBranchChain_direct(const Data_PhotonEvents_Type& photons, Membership_Type& membership) const;

  /// As the no-branch chain, but every photon seeds a chain, taken or not; a taken seed that finds free
  /// partners gives a further event that shares it.
  Data_Events_Type reconstruct_noBranchChain_ghostPhoton_direct(const Data_PhotonEvents_Type& photons) const {
    EventMembership_None none;
    return reconstruct_noBranchChain_ghostPhoton_direct(photons, none);
  }
  template <typename Membership_Type>
  Data_Events_Type reconstruct_noBranchChain_ghostPhoton_direct(const Data_PhotonEvents_Type& photons, Membership_Type& membership) const;
};

}  // namespace kovra

#include "kovra/reconstruction/FullChain_Direct.hpp"
#include "kovra/reconstruction/ForwardChain_PhotonBuildup.hpp"
#include "kovra/reconstruction/NoBranchChain_Direct.hpp"
#include "kovra/reconstruction/NoBranchChain_GhostPhoton_Direct.hpp"
