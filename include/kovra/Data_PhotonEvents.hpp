#pragma once

// The records that flow through the tool (one photon, one event) and the two data sets that hold them.

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace kovra {

/// One detected photon: position (x, y) and time of arrival.
template <typename Length_Type, typename Time_Type>
struct PhotonEvent {
  using length_type = Length_Type;
  using time_type = Time_Type;

  Length_Type x;
  Length_Type y;
  Time_Type toa;

  constexpr Time_Type get_toa() const { return toa; }
};

/// One reconstructed event: integer centroid, time of its first photon, photon count (at least 1) and
/// pulse-shape value in seconds (0.0 for a one-photon event).
template <typename Length_Type, typename Time_Type, typename PSD_Type>
struct Event {
  using length_type = Length_Type;
  using time_type = Time_Type;
  using psd_type = PSD_Type;

  Length_Type x;
  Length_Type y;
  Time_Type t;
  std::uint64_t nPhotons;
  double psd;
};

/// The photons of one photon file, in non-decreasing time of arrival, and its external trigger times
/// (absent when the file has none; an empty list is a different state).
template <typename PhotonEvent_Type>
struct Data_PhotonEvents {
  using photon_type = PhotonEvent_Type;
  using time_type = typename PhotonEvent_Type::time_type;

  std::vector<PhotonEvent_Type> photonEvents;
  std::optional<std::vector<time_type>> extTriggers;

  const PhotonEvent_Type& operator[](std::size_t index) const {
    assert(index < photonEvents.size());
    return photonEvents[index];
  }

  std::size_t size() const { return photonEvents.size(); }
};

/// The events of one reconstruction, in the order they were emitted, and the input's external trigger times
/// carried through unchanged. Filled only by moving both lists in.
template <typename Event_Type>
struct Data_Events {
  using event_type = Event_Type;
  using time_type = typename Event_Type::time_type;

  std::vector<Event_Type> events;
  std::optional<std::vector<time_type>> extTriggers;

  Data_Events(std::vector<Event_Type>&& events_, std::optional<std::vector<time_type>>&& extTriggers_)
      : events(std::move(events_)) {
    if (extTriggers_) extTriggers.emplace(std::move(*extTriggers_));
  }

  std::size_t size() const { return events.size(); }
};

}  // namespace kovra
