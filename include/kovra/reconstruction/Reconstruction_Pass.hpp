#pragma once

// What every reconstruction pass shares: where its events go, how it is started over a photon source, and the
// one piece of time arithmetic the no-branch chains need.
//
// A pass reads its photons through a PhotonWindow. Input in time order lets the algorithms take shortcuts that
// are exact only there; whether a file is in order is known only once it has been read, so a pass over a file
// starts with the shortcuts and a window that requires the order. Should a photon break it, the pass is
// abandoned before that photon is looked at, the events written so far are dropped, and the pass runs again
// from the first photon without shortcuts. A list in memory is checked up front and never starts over.

#include <cassert>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "kovra/PhotonSource.hpp"
#include "kovra/PhotonWindow.hpp"
#include "kovra/detail/RecordIO.hpp"
#include "kovra/reconstruction/EventMembership.hpp"

namespace kovra {

/// Events collected in memory, in the order the algorithm emits them.
template <typename Event_Type>
class EventList {
 public:
  void append(const Event_Type& event) { events.push_back(event); }
  std::uint64_t size() const { return events.size(); }
  void restart() { events.clear(); }
  /// Room for `count` events, reserved once.
  void reserve(std::size_t count) { detail::reserve_records(events, count); }

  std::vector<Event_Type> events;
};

/// The line reported, once per call, by the algorithms that have no use for a window extension factor.
inline constexpr const char* extensionFactor_notSupported = "Extension factor is not supported for the chosen algorithm!";
/// The lines told, at most once per call, when the input is not in time order: found so during the pass (which
/// then starts over), or known so before it.
inline constexpr const char* inputOrder_brokenDuringPass =
    "Photons are not in time order: reconstruction started over from the first photon without the shortcuts for "
    "ordered input (such a run takes about 4 to 9 times as long)";
inline constexpr const char* inputOrder_notOrdered =
    "Photons are not in time order: reconstruction runs without the shortcuts for ordered input (such a run takes "
    "about 4 to 9 times as long)";

namespace detail {

/// a + b, held at the type's bounds instead of wrapping. Equal to the plain sum wherever that one is defined;
/// lets an unlimited window stay unlimited.
template <typename Time_Type>
constexpr Time_Type add_saturating(Time_Type a, Time_Type b) {
  using Value_Type = typename Time_Type::value_type;
  constexpr Value_Type highest = std::numeric_limits<Value_Type>::max();
  constexpr Value_Type lowest = std::numeric_limits<Value_Type>::min();
  if (b.value > 0 && a.value > highest - b.value) return Time_Type{highest};
  if (b.value < 0 && a.value < lowest - b.value) return Time_Type{lowest};
  return Time_Type{static_cast<Value_Type>(a.value + b.value)};
}

/// Runs `pass.template operator()<ordered>(window)` over the source: with the shortcuts for ordered input when
/// the order holds (or may hold), otherwise, or after the order broke, without; `inform` (when set) is told
/// once why when the pass runs without them. `Mark_Type` is the pass's own entry per photon in the window. A
/// membership sink cannot take calls back, so it needs a source whose order is known up front.
template <typename Mark_Type, typename PhotonEvent_Type, typename Out_Type, typename Pass_Type>
void run_pass(PhotonSource<PhotonEvent_Type>& source, Out_Type& out, bool reportsMembers,
              const std::function<void(const std::string&)>& inform, Pass_Type&& pass) {
  const std::optional<bool> knownOrder = source.get_knownOrder();
  assert(!reportsMembers || knownOrder.has_value());
  if (!knownOrder || *knownOrder) {
    try {
      PhotonWindow<PhotonEvent_Type, Mark_Type> window(source, !knownOrder.has_value());
      pass.template operator()<true>(window);
      return;
    } catch (const PhotonWindow_OrderBroken&) {
      source.rewind();
      out.restart();
      if (inform) inform(inputOrder_brokenDuringPass);
    }
  } else if (inform) {
    inform(inputOrder_notOrdered);
  }
  PhotonWindow<PhotonEvent_Type, Mark_Type> window(source, false);
  pass.template operator()<false>(window);
}

}  // namespace detail

}  // namespace kovra
