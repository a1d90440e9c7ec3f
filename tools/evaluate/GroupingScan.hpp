#pragma once

// A scan of the import's grouping settings (--radius, --window, --photon-time) over the hits of one simulated
// raw file: each setting groups the hits with the importer's Hit_Grouping and is scored against the true
// photons (GroupingTruth.hpp says how the reconstruction's figures carry over), the best one picked as for the
// reconstruction, and the table written as CSV.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include "common/Progress.hpp"
#include "common/import/HitGrouping.hpp"
#include "common/import/ImportOptions.hpp"
#include "evaluate/EvaluateOptions.hpp"
#include "evaluate/GroupingTruth.hpp"
#include "evaluate/Metrics.hpp"
#include "evaluate/Scan.hpp"

namespace kovra::evaluate {

using kovra::import::Photon_Time;

struct Grouping_Setting {
  unsigned radius_px;
  double window_s;
  Photon_Time photonTime;
};

struct Grouping_Row {
  Grouping_Setting setting;
  Reconstruction_Metrics metrics;
};

inline const char* get_photonTimeName(Photon_Time t) { return t == Photon_Time::earliest ? "earliest" : "strongest"; }

/// Every setting of the grid, photon times outermost, then windows, and radii innermost.
inline std::vector<Grouping_Setting> get_groupingSettings(const Grouping_Grid& grid) {
  std::vector<Grouping_Setting> settings;
  for (const Photon_Time t : grid.photonTimes) {
    for (const double window : grid.window_s) {
      for (const unsigned radius : grid.radius_px) settings.push_back({radius, window, t});
    }
  }
  return settings;
}

/// One thread's buffers for scoring settings one after the other.
struct Grouping_Buffers {
  explicit Grouping_Buffers(std::size_t nHits) : memberships(nHits), eventOfFirstHit(nHits) {}
  Photon_Memberships memberships;
  std::vector<std::uint64_t> eventOfFirstHit;
  std::vector<Event> events;
};

/// Groups the hits with one setting, as the import does on one thread, and scores the photons made. A photon
/// is an event whose members are its hits; its time and position are the import's.
inline Reconstruction_Metrics evaluate_grouping(const Grouping_Setting& setting, const Grouping_Truth& data,
                                                const Evaluator& evaluator, Grouping_Buffers& buffers) {
  import::Hit_Grouping grouping(data.frameSize, data.frameSize, setting.radius_px,
                                import::detail::to_ticks(setting.window_s), setting.photonTime);
  auto& events = buffers.events;
  auto& joined = buffers.memberships.first;
  events.clear();
  const auto sink = [&](const import::Hit_Grouping::Photon& p, std::uint64_t firstHit) {
    buffers.eventOfFirstHit[firstHit] = events.size();
    events.push_back(Event{p.x, p.y, p.toa, 0, 0.0});
  };
  for (std::size_t k = 0; k < data.hits.size(); ++k) joined[k] = grouping.add_hit(data.hits[k], k, sink);
  grouping.finish(sink);
  for (auto& e : joined) {
    e = buffers.eventOfFirstHit[e];
    ++events[e].nPhotons;
  }
  return evaluator.evaluate(events, buffers.memberships, std::numeric_limits<std::uint64_t>::max());
}

/// Every setting in grid order, `threads` at once (the rows are the same whatever the count).
inline std::vector<Grouping_Row> run_groupingScan(const Grouping_Grid& grid, const Grouping_Truth& data,
                                                  const Evaluator& evaluator, kovra::tools::Progress& progress,
                                                  unsigned threads) {
  return scan_settings<Grouping_Row>(
      get_groupingSettings(grid), progress, threads, [&] { return Grouping_Buffers(data.hits.size()); },
      [&](const Grouping_Setting& setting, Grouping_Buffers& buffers) {
    return evaluate_grouping(setting, data, evaluator, buffers);
      });
}

inline double get_timeSpread(const Reconstruction_Metrics& m) {
  if (std::isnan(m.time_rms_ns)) return m.time_rms_ns;
  return std::sqrt(std::max(0.0, m.time_rms_ns * m.time_rms_ns - m.time_mean_ns * m.time_mean_ns));
}

inline void write_groupingCsv(const std::string& path, const std::vector<Grouping_Row>& rows, std::size_t best) {
  write_fileWhole(path, [&](std::ostream& out) {
    out << "radius_px,window_s,photon_time,true_photons,photons,efficiency,split_rate,merge_rate,purity,"
           "completeness,iou,position_rms_px,position_p95_px,time_mean_ns,time_sd_ns,time_rms_ns,time_p95_ns,best\n";
    for (std::size_t r = 0; r < rows.size(); ++r) {
      const auto& s = rows[r].setting;
      const auto& m = rows[r].metrics;
      out << s.radius_px << ',' << format_number(s.window_s) << ',' << get_photonTimeName(s.photonTime) << ','
          << m.nFlashes << ',' << m.nEvents << ',' << format_number(m.efficiency) << ',' << format_number(m.split_rate)
          << ',' << format_number(m.merge_rate) << ',' << format_number(m.purity) << ','
          << format_number(m.completeness) << ',' << format_number(m.iou) << ',' << format_number(m.centroid_rms_px)
          << ',' << format_number(m.centroid_p95_px) << ',' << format_number(m.time_mean_ns) << ','
          << format_number(get_timeSpread(m)) << ',' << format_number(m.time_rms_ns) << ','
          << format_number(m.time_p95_ns) << ',' << (r == best ? 1 : 0) << '\n';
    }
  });
}

inline void print_groupingTable(std::ostream& out, const std::vector<Grouping_Row>& rows, std::size_t best) {
  char line[256];
  std::snprintf(line, sizeof line, "%6s %10s %-9s %8s %8s %8s %8s %9s %9s\n", "radius", "window_s", "time", "photons",
                "effic.", "split", "merge", "pos_px", "t_sd_ns");
  out << line;
  for (std::size_t r = 0; r < rows.size(); ++r) {
    const auto& s = rows[r].setting;
    const auto& m = rows[r].metrics;
    std::snprintf(line, sizeof line, "%6u %10.4g %-9s %8llu %8.4f %8.4f %8.4f %9.4f %9.4f%s\n", s.radius_px, s.window_s,
                  get_photonTimeName(s.photonTime), static_cast<unsigned long long>(m.nEvents), m.efficiency,
                  m.split_rate, m.merge_rate, m.centroid_rms_px, get_timeSpread(m), r == best ? "  <- best" : "");
    out << line;
  }
}

/// The report of one setting, a line per figure.
inline void print_groupingReport(std::ostream& out, const Grouping_Row& row, const Grouping_Truth& data) {
  const auto& s = row.setting;
  const auto& m = row.metrics;
  const auto percent = [](double share) { return format_number(100 * share) + " %"; };
  out << "setting:        --radius " << s.radius_px << " --window " << format_number(s.window_s) << " --photon-time "
      << get_photonTimeName(s.photonTime) << "\ntrue photons:   " << m.nFlashes << " with hits ("
      << tools::format_count(data.hits.size(), "hit");
  if (data.lateHits != 0) out << ", " << data.lateHits << " more dropped as late";
  out << "); photons made: " << m.nEvents << "\nefficiency:     " << percent(m.efficiency)
      << " (true photons with more than half their hits in a photon made mostly of them)"
      << "\nsplit rate:     " << percent(m.split_rate) << " (true photons whose hits went into several photons)"
      << "\nmerge rate:     " << percent(m.merge_rate) << " (photons holding hits of several true photons)"
      << "\npurity:         " << percent(m.purity) << "; completeness: " << percent(m.completeness)
      << "; mean IoU: " << format_number(m.iou) << "\nposition error: RMS " << format_number(m.centroid_rms_px)
      << " px, 95 % below " << format_number(m.centroid_p95_px) << " px"
      << "\ntime error:     mean " << format_number(m.time_mean_ns) << " ns, spread (SD) "
      << format_number(get_timeSpread(m)) << " ns, RMS " << format_number(m.time_rms_ns) << " ns, 95 % below "
      << format_number(m.time_p95_ns) << " ns\n";
}

}  // namespace kovra::evaluate
