#pragma once

// Time of flight: how long after the latest external trigger a record (an event, or a photon) came.
//
// At a pulsed source every trigger marks a pulse. A record's time of flight is its time minus the time of the
// latest trigger at or before it, in ticks, exact: a record at exactly a trigger's time has 0 from that trigger,
// a record one tick before it belongs to the trigger before. A record earlier than the first trigger (or any
// record when the list is empty) has none. Equal trigger times are allowed and act as one trigger; a trigger
// earlier than the one before it is an error, because "the latest trigger" would then depend on where in the
// list one looks.
//
// The difference is taken in unsigned 64-bit arithmetic: for a record at or after its trigger it is exact for
// any two 64-bit times (up to 2^64 - 1 ticks), with no overflow to guard against.

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

namespace kovra {

/// Ticks from the latest trigger at or before a record to the record.
using TimeOfFlight_Ticks = std::uint64_t;

/// The time of flight of a record at `t` from a trigger at `trigger`, which must not be later.
template <typename Time_Type>
constexpr TimeOfFlight_Ticks get_timeOfFlight(Time_Type t, Time_Type trigger) {
  assert(trigger <= t);
  return static_cast<TimeOfFlight_Ticks>(t.value) - static_cast<TimeOfFlight_Ticks>(trigger.value);
}

/// The index of the latest trigger at or before `t` in a non-decreasing list; none when `t` is earlier than the
/// first trigger or the list is empty. Of equal triggers it gives the last, which changes no time of flight.
template <typename Time_Type>
std::optional<std::size_t> find_latestTrigger(std::span<const Time_Type> triggers, Time_Type t) {
  const auto after = std::upper_bound(triggers.begin(), triggers.end(), t);
  if (after == triggers.begin()) return std::nullopt;
  return static_cast<std::size_t>(after - triggers.begin()) - 1;
}

/// Checks a trigger list chunk after chunk as it is read, and keeps what the time of flight needs from it: the
/// count, the first and last time and the longest interval between consecutive triggers (the pulse period of a
/// regular source). Throws std::invalid_argument at the first trigger earlier than the one before it.
template <typename Time_Type>
class TriggerList_Check {
 public:
  void add(std::span<const Time_Type> chunk) {
    for (const Time_Type t : chunk) {
      if (count != 0) {
        if (t < last) {
          throw std::invalid_argument("Trigger times out of order: trigger " + std::to_string(count) + " (" +
                                      std::to_string(t.value) + " ticks) is earlier than trigger " +
                                      std::to_string(count - 1) + " (" + std::to_string(last.value) + " ticks)!");
        }
        longestInterval = std::max(longestInterval, get_timeOfFlight(t, last));
      } else {
        first = t;
      }
      last = t;
      ++count;
    }
  }

  std::uint64_t get_count() const { return count; }
  Time_Type get_first() const { return first; }
  Time_Type get_last() const { return last; }
  /// 0 for fewer than two triggers or when all are equal.
  TimeOfFlight_Ticks get_longestInterval() const { return longestInterval; }

 private:
  std::uint64_t count = 0;
  Time_Type first{};
  Time_Type last{};
  TimeOfFlight_Ticks longestInterval = 0;
};

/// Times of flight over a checked, non-decreasing trigger list held by the caller. Records may come in any order;
/// when they come in time order (as reconstructed events and photons do) each one costs a step or two from the
/// trigger of the one before, otherwise a binary search.
template <typename Time_Type>
class TimeOfFlight_Clock {
 public:
  explicit TimeOfFlight_Clock(std::span<const Time_Type> triggers_) : triggers(triggers_) {}

  /// The time of flight of a record at `t`; none before the first trigger.
  std::optional<TimeOfFlight_Ticks> get(Time_Type t) {
    if (!covers(current, t)) {
      // Forward by a few triggers first: the next record is usually no more than a pulse or two later.
      std::size_t step = current + 1;
      for (const std::size_t end = std::min(triggers.size(), current + 4); step < end && !covers(step, t); ++step) {
      }
      if (step < triggers.size() && covers(step, t)) {
        current = step;
      } else {
        const auto found = find_latestTrigger(triggers, t);
        if (!found) return std::nullopt;
        current = *found;
      }
    }
    return get_timeOfFlight(t, triggers[current]);
  }

 private:
  /// Whether trigger `i` is the latest at or before `t` (the last of equal ones counts as well as any other).
  bool covers(std::size_t i, Time_Type t) const {
    return i < triggers.size() && triggers[i] <= t && (i + 1 == triggers.size() || t < triggers[i + 1]);
  }

  std::span<const Time_Type> triggers;
  std::size_t current = 0;
};

}  // namespace kovra
