#pragma once

// The time of flight of a file's records, with its trigger list read from the file a chunk at a time, so that
// memory stays bounded however many triggers the file has.
//
// Opening walks the list once: the library's check (order, count, longest interval) and the first trigger of
// every chunk (of 4096 by default). A record's time then picks its chunk from those (the last whose first trigger
// is at or before it), and the library's clock answers within the chunk. Records in time order read each chunk once.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "inspect/RecordFile.hpp"
#include "kovra/TimeOfFlight.hpp"

namespace kovra::inspect {

/// Times of flight over the trigger list of an opened file; throws std::invalid_argument at opening when the
/// file has no trigger times or they are out of order.
template <typename Record_Type>
class TriggerFile_Clock {
 public:
  static constexpr std::uint64_t default_chunkTriggers = 4096;

  explicit TriggerFile_Clock(const RecordFile<Record_Type>& file_, std::uint64_t chunkTriggers_ = default_chunkTriggers)
      : file(file_), chunkTriggers(std::max<std::uint64_t>(1, chunkTriggers_)) {
    if (!file.has_extTriggers() || file.get_extTriggerCount() == 0) {
      throw std::invalid_argument(std::string("no time of flight: the file's trigger list is ") +
                                  (file.has_extTriggers() ? "empty" : "absent"));
    }
    std::uint64_t next = 0;  // the index of the next chunk's first trigger in the whole list
    file.for_each_extTriggerChunk([&](std::span<const Time> times) {
      const std::uint64_t start = check.get_count();
      check.add(times);
      for (; next < check.get_count(); next += chunkTriggers) firsts.push_back(times[next - start]);
    });
  }

  // The clock looks into `chunk`: the object stays where it was made.
  TriggerFile_Clock(const TriggerFile_Clock&) = delete;
  TriggerFile_Clock& operator=(const TriggerFile_Clock&) = delete;

  const TriggerList_Check<Time>& get_check() const { return check; }

  /// The time of flight of a record at `t`; none before the first trigger.
  std::optional<TimeOfFlight_Ticks> get(Time t) {
    if (!clock || !covers(loaded, t)) {
      const auto after = std::upper_bound(firsts.begin(), firsts.end(), t);
      if (after == firsts.begin()) return std::nullopt;
      load(static_cast<std::size_t>(after - firsts.begin()) - 1);
    }
    return clock->get(t);
  }

 private:
  /// Whether the latest trigger at or before `t` lies in chunk `k`.
  bool covers(std::size_t k, Time t) const { return firsts[k] <= t && (k + 1 == firsts.size() || t < firsts[k + 1]); }

  void load(std::size_t k) {
    const std::uint64_t first = k * chunkTriggers;
    chunk.resize(static_cast<std::size_t>(std::min(chunkTriggers, check.get_count() - first)));
    file.read_extTriggers(first, chunk);
    loaded = k;
    clock.emplace(chunk);
  }

  const RecordFile<Record_Type>& file;
  std::uint64_t chunkTriggers;
  TriggerList_Check<Time> check;
  std::vector<Time> firsts;  ///< the first trigger of every chunk
  std::vector<Time> chunk;
  std::size_t loaded = 0;
  std::optional<TimeOfFlight_Clock<Time>> clock;
};

}  // namespace kovra::inspect
