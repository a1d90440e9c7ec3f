#pragma once

// The summary of a photon or event file: counts, time span and rate, triggers, position extent and, for event
// files, the distributions of photon count and pulse-shape value.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <type_traits>
#include <utility>

#include "common/Counts.hpp"
#include "common/Progress.hpp"
#include "inspect/Format.hpp"
#include "inspect/Histogram.hpp"
#include "inspect/RecordFile.hpp"

namespace kovra::inspect {

/// Smallest and largest of the values seen; empty until the first one.
template <typename Value_Type>
struct Value_Range {
  std::optional<Value_Type> min;
  std::optional<Value_Type> max;

  void add(Value_Type value) {
    if (!min || value < *min) min = value;
    if (!max || *max < value) max = value;
  }
};

/// The figures of an event file that a photon file does not have.
struct Event_Summary {
  Histogram_PowerOfTwo nPhotons;
  std::uint64_t onePhoton = 0;
  /// Pulse-shape values of the events with more than one photon (seconds); non-finite ones counted apart.
  std::optional<Histogram_Linear> psd;
  std::uint64_t psdNonFinite = 0;
};

/// Everything the summary prints; raw counts kept so that tests can compare them exactly.
struct File_Summary {
  std::string fileName;
  std::string recordName;  ///< "photons" or "events"
  std::uint64_t count = 0;
  Value_Range<Time> time;
  Value_Range<Length> x;
  Value_Range<Length> y;
  std::optional<std::uint64_t> extTriggerCount;  ///< absent when the file has no trigger list
  Value_Range<Time> extTriggerTime;
  std::optional<Event_Summary> events;
  /// Photon files: records earlier than the one before them, and the index of the first. kovra_brantel
  /// reconstructs a file that has any through its slower step-by-step path.
  std::uint64_t stepsBack = 0;
  std::uint64_t firstStepBack = 0;

  /// Span between the earliest and the latest record in seconds; 0 for an empty file.
  double get_span_s() const { return time.min ? get_span_s(time) : 0.0; }

  /// Difference of two raw times taken in double, so that it cannot wrap around; exact up to 2^53 ticks.
  static double get_span_s(const Value_Range<Time>& range) {
    return (static_cast<double>(range.max->value) - static_cast<double>(range.min->value)) * Time::tick_seconds;
  }

  /// Records per second over the span; absent when the span is zero.
  std::optional<double> get_rate() const {
    const double span = get_span_s();
    if (span <= 0.0) return std::nullopt;
    return static_cast<double>(count) / span;
  }
};

inline constexpr std::size_t psd_bins = 10;

/// Walks the file once (twice for an event file: the pulse-shape bins need the value range first).
template <typename Record_Type>
File_Summary summarize_file(const RecordFile<Record_Type>& file, tools::Progress* progress = nullptr) {
  using Traits = Record_Traits<Record_Type>;
  File_Summary summary;
  summary.fileName = file.get_fileName();
  summary.recordName = Traits::name;
  summary.count = file.size();

  if (file.has_extTriggers()) {
    summary.extTriggerCount = file.get_extTriggerCount();
    file.for_each_extTriggerChunk([&](std::span<const Time> chunk) {
      for (const Time t : chunk) summary.extTriggerTime.add(t);
    });
  }

  Value_Range<double> psdRange;
  Event_Summary events;
  std::uint64_t index = 0;
  std::optional<Time> previous;
  file.for_each_chunk(
      [&](std::span<const Record_Type> chunk) {
    for (const Record_Type& record : chunk) {
      const Time t = Traits::get_time(record);
      if (previous && t.value < previous->value && summary.stepsBack++ == 0) summary.firstStepBack = index;
      previous = t;
      ++index;
      summary.time.add(t);
      summary.x.add(record.x);
      summary.y.add(record.y);
      if constexpr (std::is_same_v<Record_Type, Event>) {
        events.nPhotons.add(record.nPhotons);
        if (record.nPhotons == 1) ++events.onePhoton;
        if (record.nPhotons > 1) {
          if (std::isfinite(record.psd)) {
            psdRange.add(record.psd);
          } else {
            ++events.psdNonFinite;
          }
        }
      }
    }
      },
      progress);

  if constexpr (std::is_same_v<Record_Type, Event>) {
    if (psdRange.min) {
      events.psd.emplace(*psdRange.min, *psdRange.max, psd_bins);
      file.for_each_chunk(
          [&](std::span<const Event> chunk) {
        for (const Event& event : chunk) {
          if (event.nPhotons > 1 && std::isfinite(event.psd)) events.psd->add(event.psd);
        }
          },
          progress);
    }
    summary.events = std::move(events);
  }
  return summary;
}

/// The summary as aligned "name  value" lines, the histograms below their headings.
inline void print_summary(std::ostream& out, const File_Summary& s) {
  const auto seconds = [](Time t) { return format_rounded(t.get_seconds(), 9) + " s"; };
  const auto pixels = [](const Value_Range<Length>& r) {
    return format_rounded(r.min->get_pixels(), 8) + " .. " + format_rounded(r.max->get_pixels(), 8) + " px";
  };

  out << "file          " << s.fileName << '\n';
  out << "type          " << s.recordName << '\n';
  out << "records       " << s.count << '\n';
  if (s.count != 0) {
    out << "time          " << seconds(*s.time.min) << " .. " << seconds(*s.time.max) << '\n';
    out << "span          " << format_rounded(s.get_span_s(), 9) << " s\n";
    const auto rate = s.get_rate();
    out << "mean rate     " << (rate ? format_rounded(*rate) + " per s" : std::string("n/a (zero span)")) << '\n';
    out << "x extent      " << pixels(s.x) << '\n';
    out << "y extent      " << pixels(s.y) << '\n';
    if (!s.events) {
      out << "time order    ";
      if (s.stepsBack == 0) {
        out << "non-decreasing\n";
      } else {
        out << tools::format_count(s.stepsBack, "record") << " earlier than the one before, the first is record "
            << s.firstStepBack << " (kovra_brantel takes its slower step-by-step path)\n";
      }
    }
  }
  out << "ext. triggers ";
  if (!s.extTriggerCount) {
    out << "absent\n";
  } else if (*s.extTriggerCount == 0) {
    out << "empty\n";
  } else {
    const Value_Range<Time>& r = s.extTriggerTime;
    out << *s.extTriggerCount << ", " << seconds(*r.min) << " .. " << seconds(*r.max) << ", span "
        << format_rounded(File_Summary::get_span_s(r), 9) << " s\n";
  }

  if (!s.events || s.count == 0) return;
  const Event_Summary& e = *s.events;
  out << "one-photon    " << e.onePhoton << " (" << format_percent(e.onePhoton, s.count) << "%)\n";
  out << "\nphotons per event\n";
  draw_bars(out, e.nPhotons.get_bars(), s.count);
  const std::uint64_t multi = s.count - e.onePhoton - e.nPhotons.get_count(0);
  out << "\npulse-shape value of events with more than one photon, ns\n";
  if (e.psd) draw_bars(out, e.psd->get_bars(1e9), multi);
  if (!e.psd) out << "  (none)\n";
  if (e.psdNonFinite != 0) out << "  not finite: " << e.psdNonFinite << '\n';
}

}  // namespace kovra::inspect
