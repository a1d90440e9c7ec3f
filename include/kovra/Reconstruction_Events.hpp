#pragma once

// Event reconstruction: the search settings and the four algorithms that group a photon list into events
// (input in time order takes a faster path; see Reconstruction_Pass.hpp). Each algorithm lives in its own header under
// kovra/reconstruction/ and runs over a photon source (a file read a chunk at a time, or a list in memory) through a
// sliding window, handing each event to an output as soon as it is complete; the functions here run them over a list in
// memory or over any source.

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "kovra/Data_PhotonEvents.hpp"
#include "kovra/PhotonEventChain.hpp"
#include "kovra/PhotonSource.hpp"
#include "kovra/reconstruction/EventMembership.hpp"
#include "kovra/reconstruction/ForwardChain_PhotonBuildup.hpp"
#include "kovra/reconstruction/FullChain_Direct.hpp"
#include "kovra/reconstruction/NoBranchChain_Direct.hpp"
#include "kovra/reconstruction/NoBranchChain_GhostPhoton_Direct.hpp"
#include "kovra/reconstruction/Reconstruction_Pass.hpp"

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
  using PhotonSource_Type = PhotonSource<PhotonEvent_Type>;

  /// Search distance in space: Euclidean (<=) for the full and forward chains, per axis (<) for the no-branch
  /// chains.
  Length_Type dSpace;
  /// Search distance in time between neighbouring photons.
  Time_Type dTime;
  /// Factor by which the no-branch chains widen their time window as they grow; absent means 0.0.
  std::optional<double> dTime_ext;
  /// Longest span from an event's first photon to any photon it takes.
  Time_Type durationMax;
  /// Told, once per call, when a setting is ignored by the chosen algorithm; the library prints nothing itself.
  std::function<void(const std::string&)> warn = {};
  /// Told, at most once per call, why a run takes longer than it might: the input is not in time order.
  std::function<void(const std::string&)> inform = {};

  // Each algorithm comes in three forms. Over a list in memory it returns the events; a second form also calls
  // membership(eventIndex, photonIndex) once for every photon of every emitted event (a ghost photon for both of
  // its events), in no promised order: eventIndex is the event's position in the returned events, photonIndex
  // the photon's position in photons.photonEvents. Over a source it hands each event to out.append(event) as
  // soon as the event is complete (out also offers size() and restart(), see EventList).

  /// Every free photon seeds an event that grows forward, branching: a later photon joins when it is near
  /// (in space and in time, looking back) to any photon already in the event.
  Data_Events_Type reconstruct_fullChain_direct(const Data_PhotonEvents_Type& photons) const {
    EventMembership_None none;
    return reconstruct_fullChain_direct(photons, none);
  }
  template <typename Membership_Type>
  Data_Events_Type reconstruct_fullChain_direct(const Data_PhotonEvents_Type& photons,
                                                Membership_Type& membership) const {
    return in_memory(photons, membership, [&](auto& source, auto& out, auto& m) {
      run_fullChain_direct<PhotonEventChain_Type>(*this, source, out, m);
    });
  }
  template <typename Out_Type>
  void reconstruct_fullChain_direct(PhotonSource_Type& source, Out_Type& out) const {
    EventMembership_None none;
    run_fullChain_direct<PhotonEventChain_Type>(*this, source, out, none);
  }

  /// Each photon joins the chain of the latest earlier photon within reach whose chain is still young enough,
  /// or opens a chain of its own.
  Data_Events_Type reconstruct_forwardChain_photonBuildup(const Data_PhotonEvents_Type& photons) const {
    EventMembership_None none;
    return reconstruct_forwardChain_photonBuildup(photons, none);
  }
  template <typename Membership_Type>
  Data_Events_Type reconstruct_forwardChain_photonBuildup(const Data_PhotonEvents_Type& photons,
                                                          Membership_Type& membership) const {
    return in_memory(photons, membership, [&](auto& source, auto& out, auto& m) {
      run_forwardChain_photonBuildup<PhotonEventChain_Type>(*this, source, out, m);
    });
  }
  template <typename Out_Type>
  void reconstruct_forwardChain_photonBuildup(PhotonSource_Type& source, Out_Type& out) const {
    EventMembership_None none;
    run_forwardChain_photonBuildup<PhotonEventChain_Type>(*this, source, out, none);
  }

  /// Every free photon seeds a chain without branches: the next free photon joins when it is near, on each
  /// axis, to the photon added last, within a time window that may widen as the chain grows.
  Data_Events_Type reconstruct_noBranchChain_direct(const Data_PhotonEvents_Type& photons) const {
    EventMembership_None none;
    return reconstruct_noBranchChain_direct(photons, none);
  }
  template <typename Membership_Type>
  Data_Events_Type reconstruct_noBranchChain_direct(const Data_PhotonEvents_Type& photons,
                                                    Membership_Type& membership) const {
    return in_memory(photons, membership, [&](auto& source, auto& out, auto& m) {
      run_noBranchChain_direct<PhotonEventChain_Type>(*this, source, out, m);
    });
  }
  template <typename Out_Type>
  void reconstruct_noBranchChain_direct(PhotonSource_Type& source, Out_Type& out) const {
    EventMembership_None none;
    run_noBranchChain_direct<PhotonEventChain_Type>(*this, source, out, none);
  }

  /// As the no-branch chain, but every photon seeds a chain, taken or not; a taken seed that finds free
  /// partners gives a further event that shares it.
  Data_Events_Type reconstruct_noBranchChain_ghostPhoton_direct(const Data_PhotonEvents_Type& photons) const {
    EventMembership_None none;
    return reconstruct_noBranchChain_ghostPhoton_direct(photons, none);
  }
  template <typename Membership_Type>
  Data_Events_Type reconstruct_noBranchChain_ghostPhoton_direct(const Data_PhotonEvents_Type& photons,
                                                                Membership_Type& membership) const {
    return in_memory(photons, membership, [&](auto& source, auto& out, auto& m) {
      run_noBranchChain_ghostPhoton_direct<PhotonEventChain_Type>(*this, source, out, m);
    });
  }
  template <typename Out_Type>
  void reconstruct_noBranchChain_ghostPhoton_direct(PhotonSource_Type& source, Out_Type& out) const {
    EventMembership_None none;
    run_noBranchChain_ghostPhoton_direct<PhotonEventChain_Type>(*this, source, out, none);
  }

 private:
  /// An algorithm over a list in memory: the same pass as over a file, with the events collected in a list
  /// and the triggers carried over (absent stays absent, empty stays empty).
  template <typename Membership_Type, typename Run_Type>
  Data_Events_Type in_memory(const Data_PhotonEvents_Type& photons, Membership_Type& membership, Run_Type&& run) const {
    PhotonSource_Memory<PhotonEvent_Type> source(photons.photonEvents);
    EventList<Event_Type> out;
    out.reserve(photons.size());
    run(source, out, membership);
    std::optional<std::vector<Time_Type>> extTriggers(photons.extTriggers);
    return Data_Events_Type(std::move(out.events), std::move(extTriggers));
  }
};

}  // namespace kovra
