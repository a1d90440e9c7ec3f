#pragma once

// A scan: every setting of a grid run over one loaded photon list, scored, the best one picked, and the table
// written as CSV.

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/Counts.hpp"
#include "common/OutputFile_Checked.hpp"
#include "common/Progress.hpp"
#include "evaluate/EvaluateOptions.hpp"
#include "evaluate/Metrics.hpp"
#include "kovra/Worker_Pool.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::evaluate {

/// One setting of the grid.
struct Setting {
  double dSpace_px;
  double dTime_s;
  std::string algorithm;
  double durationMax_s;
  std::optional<double> dTime_ext;

  kovra::tpx3spidr::Reconstruction_Events get_reconstruction() const {
    using kovra::tpx3spidr::Length;
    using kovra::tpx3spidr::Time;
    return {Length::from_pixels(dSpace_px), Time::make_from_seconds<true>(dTime_s), dTime_ext,
            kovra::tpx3spidr::convert_durationMax(durationMax_s)};
  }
};

struct Scan_Row {
  Setting setting;
  Reconstruction_Metrics metrics;
};

/// Every setting of the grid, algorithms outermost, then maximum durations, times, and distances innermost.
inline std::vector<Setting> get_settings(const Settings_Grid& grid) {
  std::vector<Setting> settings;
  for (const auto& algorithm : grid.algorithms) {
    for (const double durationMax : grid.durationMax_s) {
      for (const double dTime : grid.dTime_s) {
        for (const double dSpace : grid.dSpace_px) {
          settings.push_back({dSpace, dTime, algorithm, durationMax, grid.dTime_ext});
        }
      }
    }
  }
  return settings;
}

/// Runs one setting and scores it; `eventClasses` as for Evaluator::evaluate.
inline Reconstruction_Metrics evaluate_setting(const Setting& setting,
                                               const kovra::tpx3spidr::Data_PhotonEvents& photons,
                                               const Evaluator& evaluator, Photon_Memberships& memberships,
                                               std::uint64_t fomMinPhotons,
                                               std::vector<Event_Class>* eventClasses = nullptr) {
  memberships.reset();
  const auto events =
      reconstructEvents_switchAlgorithm(setting.get_reconstruction(), photons, setting.algorithm, memberships);
  return evaluator.evaluate(events.events, memberships, fomMinPhotons, eventClasses);
}

/// Scores every setting with `score(setting, buffers)`, in their order, with a progress line; `threads` settings at
/// once, each thread with buffers of its own from `make_buffers()` (the rows are the same whatever the count).
template <typename Row_Type, typename Setting_Type, typename MakeBuffers_Type, typename Score_Type>
std::vector<Row_Type> scan_settings(const std::vector<Setting_Type>& settings, kovra::tools::Progress& progress,
                                    unsigned threads, MakeBuffers_Type&& make_buffers, Score_Type&& score) {
  std::vector<Row_Type> rows(settings.size());
  progress.set_label("scan");
  progress.start(settings.size());
  std::atomic<std::size_t> next{0};
  std::mutex progressMutex;
  kovra::Worker_Pool pool(static_cast<unsigned>(std::min<std::size_t>(threads, settings.size())), [&](unsigned) {
    auto buffers = make_buffers();
    for (std::size_t k = next++; k < settings.size(); k = next++) {
      rows[k] = {settings[k], score(settings[k], buffers)};
      const std::lock_guard lock(progressMutex);
      progress.advance(1);
    }
  });
  pool.join();
  progress.finish();
  return rows;
}

/// Every setting in grid order, with a progress line; `threads` settings at once, each with memberships of its
/// own (the rows are the same whatever the count).
inline std::vector<Scan_Row> run_scan(const Settings_Grid& grid, const kovra::tpx3spidr::Data_PhotonEvents& photons,
                                      const Evaluator& evaluator, std::uint64_t fomMinPhotons,
                                      kovra::tools::Progress& progress, unsigned threads) {
  return scan_settings<Scan_Row>(
      get_settings(grid), progress, threads, [&] { return Photon_Memberships(photons.size()); },
      [&](const Setting& setting, Photon_Memberships& memberships) {
    return evaluate_setting(setting, photons, evaluator, memberships, fomMinPhotons);
      });
}

/// The best row: the highest efficiency among rows with a merge rate at most mergeMax (ties: the higher product of
/// photon purity and completeness, which counts stray photons of splits and merges, then the higher figure of
/// merit, or whatever `lastTie(metrics)` gives, the higher the better, then the earlier row); when no row qualifies,
/// the lowest merge rate.
template <typename Row_Type, typename Tie_Type>
std::size_t find_best(const std::vector<Row_Type>& rows, double mergeMax, Tie_Type&& lastTie) {
  const auto better = [](double a, double b) { return !std::isnan(a) && (std::isnan(b) || a > b); };
  std::optional<std::size_t> best;
  for (std::size_t r = 0; r < rows.size(); ++r) {
    const auto& m = rows[r].metrics;
    if (!(m.merge_rate <= mergeMax)) continue;
    if (!best) {
      best = r;
      continue;
    }
    const auto& b = rows[*best].metrics;
    const double photons = m.purity * m.completeness;
    const double bestPhotons = b.purity * b.completeness;
    if (better(m.efficiency, b.efficiency) ||
        (m.efficiency == b.efficiency &&
         (better(photons, bestPhotons) || (photons == bestPhotons && better(lastTie(m), lastTie(b)))))) {
      best = r;
    }
  }
  if (best) return *best;
  std::size_t lowest = 0;
  for (std::size_t r = 1; r < rows.size(); ++r) {
    if (better(-rows[r].metrics.merge_rate, -rows[lowest].metrics.merge_rate)) lowest = r;
  }
  return lowest;
}

inline std::size_t find_best(const std::vector<Scan_Row>& rows, double mergeMax) {
  return find_best(rows, mergeMax, [](const Reconstruction_Metrics& m) { return m.fom; });
}

inline std::string format_number(double value) {
  if (std::isnan(value)) return "nan";
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  return text;
}

inline void write_csvHeader(std::ostream& out) {
  out << "dSpace_px,dTime_s,algorithm,durationMax_s,dTime_ext,flashes,events,efficiency,split_rate,merge_rate,"
         "fake_rate,purity,completeness,iou,centroid_rms_px,centroid_p95_px,time_rms_ns,time_p95_ns,fom,fom_events,"
         "best\n";
}

inline void write_csvRow(std::ostream& out, const Scan_Row& row, bool best) {
  const auto& s = row.setting;
  const auto& m = row.metrics;
  out << format_number(s.dSpace_px) << ',' << format_number(s.dTime_s) << ',' << s.algorithm << ','
      << format_number(s.durationMax_s) << ',' << (s.dTime_ext ? format_number(*s.dTime_ext) : "") << ',' << m.nFlashes
      << ',' << m.nEvents << ',' << format_number(m.efficiency) << ',' << format_number(m.split_rate) << ','
      << format_number(m.merge_rate) << ',' << format_number(m.fake_rate) << ',' << format_number(m.purity) << ','
      << format_number(m.completeness) << ',' << format_number(m.iou) << ',' << format_number(m.centroid_rms_px) << ','
      << format_number(m.centroid_p95_px) << ',' << format_number(m.time_rms_ns) << ',' << format_number(m.time_p95_ns)
      << ',' << format_number(m.fom) << ',' << m.fomEvents << ',' << (best ? 1 : 0) << '\n';
}

/// Writes `write(stream)` to `path`, which appears whole or not at all; throws std::runtime_error with the
/// system's reason when that fails.
template <typename Write_Type>
void write_fileWhole(const std::string& path, Write_Type&& write) {
  tools::OutputFile_Checked out(path, "cannot write '" + path + "'");
  write(out.stream());
  out.commit();
}

inline void write_scanCsv(const std::string& path, const std::vector<Scan_Row>& rows, std::size_t best) {
  write_fileWhole(path, [&](std::ostream& out) {
    write_csvHeader(out);
    for (std::size_t r = 0; r < rows.size(); ++r) write_csvRow(out, rows[r], r == best);
  });
}

/// The pulse-shape value of every event whose class is known and that has at least `minPhotons` photons, for
/// the histograms.
inline void write_psdCsv(const std::string& path, const std::vector<Event_Class>& events,
                         const std::vector<std::string>& classNames, std::uint64_t minPhotons) {
  write_fileWhole(path, [&](std::ostream& out) {
    out << "class,psd_ns,nPhotons\n";
    for (const auto& e : events) {
      if (e.classIndex < 0 || e.nPhotons < minPhotons) continue;
      out << classNames[static_cast<std::size_t>(e.classIndex)] << ',' << format_number(e.psd_s * 1e9) << ','
          << e.nPhotons << '\n';
    }
  });
}

/// The report of one setting, a line per figure.
inline void print_report(std::ostream& out, const Scan_Row& row, const std::array<std::string, 2>& fomClasses,
                         std::uint64_t fomMinPhotons) {
  const auto& s = row.setting;
  const auto& m = row.metrics;
  const auto percent = [](double share) { return format_number(100 * share) + " %"; };
  out << "setting:        -s " << format_number(s.dSpace_px) << " -t " << format_number(s.dTime_s) << " -D "
      << format_number(s.durationMax_s) << " --algorithm " << s.algorithm;
  if (s.dTime_ext) out << " --dTime_ext " << format_number(*s.dTime_ext);
  out << "\nflashes:        " << m.nFlashes << " with photons; events: " << m.nEvents
      << "\nefficiency:     " << percent(m.efficiency) << " (flashes with more than half their photons in one event)"
      << "\nsplit rate:     " << percent(m.split_rate) << " (flashes spread over several events)"
      << "\nmerge rate:     " << percent(m.merge_rate) << " (events with photons of several flashes)"
      << "\nfake rate:      " << percent(m.fake_rate) << " (events of dark counts only)"
      << "\npurity:         " << percent(m.purity) << "; completeness: " << percent(m.completeness)
      << "; mean IoU: " << format_number(m.iou) << "\ncentroid error: RMS " << format_number(m.centroid_rms_px)
      << " px, 95 % below " << format_number(m.centroid_p95_px) << " px"
      << "\ntime error:     RMS " << format_number(m.time_rms_ns) << " ns, 95 % below " << format_number(m.time_p95_ns)
      << " ns"
      << "\nFoM:            " << format_number(m.fom) << " (" << fomClasses[0] << " vs " << fomClasses[1] << ", "
      << tools::format_count(m.fomEvents, "event") << " with at least " << tools::format_count(fomMinPhotons, "photon")
      << ")\n";
}

}  // namespace kovra::evaluate
