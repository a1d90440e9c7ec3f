#pragma once

// What every reconstruction pass shares: where its events go, how it is started over a photon source, and the
// one piece of time arithmetic the no-branch chains need.
//
// A pass reads its photons through a PhotonWindow. Input in time order lets the algorithms take shortcuts that
// are exact only there; whether a file is in order is known only once it has been read, so a pass over a file
// starts with the shortcuts and a window that requires the order. Should a photon break it, the pass is
// abandoned before that photon is looked at, the events written so far are dropped, and the pass runs again
// from the first photon without shortcuts. A list in memory is checked up front and never starts over.
//
// A pass may also be one part of a parallel run (Reconstruction_Parallel.hpp): its output then hears where each
// cut may lie (a seed, or for the forward chain a photon) and how far the chains reached, and says when the pass is
// to stop. Such a pass never starts over: a break of the time order goes to the parallel run, which then runs the
// whole list on one thread.

#include <cassert>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <span>
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
  void append(std::span<const Event_Type> more) { events.insert(events.end(), more.begin(), more.end()); }
  std::uint64_t size() const { return events.size(); }
  void restart() { events.clear(); }
  /// Room for `count` events, reserved once.
  void reserve(std::size_t count) { detail::reserve_records(events, count); }

  std::vector<Event_Type> events;
};

/// The line reported, once per call, by the algorithms that have no use for a window extension factor.
inline constexpr const char* extensionFactor_notSupported =
    "Extension factor is not supported for the chosen algorithm!";
/// The lines told, at most once per call, when the input is not in time order: found so during the pass (which
/// then starts over), or known so before it.
inline constexpr const char* inputOrder_brokenDuringPass =
    "Photons are not in time order: reconstruction started over from the first photon without the shortcuts for "
    "ordered input (such a run takes about 4 to 9 times as long)";
inline constexpr const char* inputOrder_notOrdered =
    "Photons are not in time order: reconstruction runs without the shortcuts for ordered input (such a run takes "
    "about 4 to 9 times as long)";

/// The output of one part of a parallel run. Seed by seed (no-branch, ghost-photon and full chains), it is asked
/// before each seed (saying whether it is taken) whether the pass stops there, told each photon a chain takes, and
/// the last photon of each chain; photon by photon (forward chain), it is asked before each photon, with that
/// photon's time, and told which photon opened the chain each photon joined or opened. Indices count from the
/// part's first photon. Its hooks may throw Part_GivenUp, which ends the pass.
template <typename Out_Type, typename Time_Type>
concept Output_Part = requires(Out_Type& out, std::size_t i, Time_Type t, bool taken) {
  { out.stops_before_seed(i, taken) } -> std::same_as<bool>;
  out.note_taken(i);
  out.note_chainEnd(i);
  { out.stops_before_photon(i, t) } -> std::same_as<bool>;
  out.note_chainOf(i, i);
};

/// Thrown by a part's output when its pass is to end at once: its run was taken over, or the parallel run stops.
struct Part_GivenUp {};

namespace detail {

/// Whether a part's pass stops before seed `i` (`taken` by a chain before it, or free); never for a whole run.
template <typename Time_Type, typename Out_Type>
bool stops_before_seed(Out_Type& out, std::size_t i, bool taken) {
  if constexpr (Output_Part<Out_Type, Time_Type>) {
    return out.stops_before_seed(i, taken);
  } else {
    return false;
  }
}

/// Tells a part's output that a chain took photon `j`.
template <typename Time_Type, typename Out_Type>
void note_taken(Out_Type& out, std::size_t j) {
  if constexpr (Output_Part<Out_Type, Time_Type>) out.note_taken(j);
}

/// Tells a part's output the last photon a chain took.
template <typename Time_Type, typename Out_Type>
void note_chainEnd(Out_Type& out, std::size_t last) {
  if constexpr (Output_Part<Out_Type, Time_Type>) out.note_chainEnd(last);
}

/// Whether a part's pass stops before photon `i` (at time `t`); never for a whole run.
template <typename Time_Type, typename Out_Type>
bool stops_before_photon(Out_Type& out, std::size_t i, Time_Type t) {
  if constexpr (Output_Part<Out_Type, Time_Type>) {
    return out.stops_before_photon(i, t);
  } else {
    return false;
  }
}

/// Tells a part's output that photon `i` is in the chain that photon `opener` opened.
template <typename Time_Type, typename Out_Type>
void note_chainOf(Out_Type& out, std::size_t i, std::size_t opener) {
  if constexpr (Output_Part<Out_Type, Time_Type>) out.note_chainOf(i, opener);
}

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
      PhotonWindow<PhotonEvent_Type, Mark_Type> window(source,
                                                       knownOrder ? Order_Check::skipped : Order_Check::required);
      pass.template operator()<true>(window);
      return;
    } catch (const PhotonWindow_OrderBroken&) {
      if constexpr (Output_Part<Out_Type, typename PhotonEvent_Type::time_type>) throw;
      source.rewind();
      out.restart();
      if (inform) inform(inputOrder_brokenDuringPass);
    }
  } else if (inform) {
    inform(inputOrder_notOrdered);
  }
  PhotonWindow<PhotonEvent_Type, Mark_Type> window(source, Order_Check::skipped);
  pass.template operator()<false>(window);
}

}  // namespace detail

}  // namespace kovra
