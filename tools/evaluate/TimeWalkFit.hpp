#pragma once

// Fitting a time-walk table (common/import/TimeWalk.hpp) to a raw file: for every ToT step, the median delay of its
// hits against a reference time. Against the truth, the reference is the hit's true photon, and the table gives the
// absolute delay. From the data alone, the reference is the strongest hit of the photon the import's grouping put
// the hit in (the one with the least walk), and the table gives the delay relative to the strongest hits: it
// gathers a photon's hits in time, and leaves the small common delay of strong hits in the photon times (its
// strongest hits also get a delay of about 0 where a photon's strongest hit is weaker than they are).
//
// The median is robust: hits of merged photons and stray pairings fall in the tails. A ToT step with fewer than
// min_hits hits gets no row; the import interpolates between the rows around it.

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/import/HitGrouping.hpp"
#include "common/import/TimeWalk.hpp"
#include "evaluate/GroupingTruth.hpp"
#include "kovra/OutputFile_Atomic.hpp"

namespace kovra::evaluate {

enum class Fit_Reference { truth, data };

/// The delays of one ToT step's hits: how many, their median and the 16th and 84th percentiles, in ticks.
struct TimeWalk_Point {
  unsigned tot;  ///< in steps of 25 ns
  std::uint64_t hits;
  std::int64_t median, low, high;
};

namespace walk_detail {

inline constexpr std::uint64_t min_hits = 20;

/// The q-quantile by nearest rank (the lower of two middles for the median); reorders `values`.
inline std::int64_t get_rank(std::vector<std::int64_t>& values, double q) {
  auto rank = static_cast<std::size_t>(q * static_cast<double>(values.size() - 1) + 0.5);
  rank = std::min(rank, values.size() - 1);
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(rank), values.end());
  return values[rank];
}

/// Every hit's delay from the strongest hit of the photon the grouping puts it in (the largest ToT, the earliest
/// of equals, as a photon's time is taken); the strongest hit itself, 0 by definition, gives none.
inline void collect_fromData(const Grouping_Truth& data, unsigned radius, Ticks window,
                             std::vector<std::vector<std::int64_t>>& byTot) {
  const std::size_t n = data.hits.size();
  import::Hit_Grouping grouping(data.frameSize, data.frameSize, radius, window, import::Photon_Time::strongest);
  std::vector<std::uint64_t> joined(n);
  constexpr std::size_t none = SIZE_MAX;
  std::vector<std::size_t> strongest(n, none);  // by the photon's first hit
  const auto discard = [](const import::Hit_Grouping::Photon&, std::uint64_t) {};
  for (std::size_t k = 0; k < n; ++k) {
    joined[k] = grouping.add_hit(data.hits[k], k, discard);
    std::size_t& s = strongest[joined[k]];
    if (s == none || data.hits[k].tot > data.hits[s].tot) s = k;
  }
  grouping.finish(discard);
  for (std::size_t k = 0; k < n; ++k) {
    const std::size_t s = strongest[joined[k]];
    if (s != k) byTot[data.hits[k].tot].push_back(data.rawTimes[k] - data.rawTimes[s]);
  }
}

}  // namespace walk_detail

/// The fitted points, in increasing ToT. From the truth, `photons` are the simulated photons the truth names;
/// from the data, `radius` and `window` set the grouping. The hits must not be corrected already.
inline std::vector<TimeWalk_Point> fit_timeWalk(const Grouping_Truth& data,
                                                const std::vector<kovra::tpx3spidr::PhotonEvent>& photons,
                                                Fit_Reference reference, unsigned radius, Ticks window) {
  std::vector<std::vector<std::int64_t>> byTot(import::Time_Walk::tot_steps);
  if (reference == Fit_Reference::truth) {
    for (std::size_t k = 0; k < data.hits.size(); ++k) {
      const auto& photon = photons[static_cast<std::size_t>(data.truth.flashOfPhoton[k])];
      byTot[data.hits[k].tot].push_back(data.rawTimes[k] - photon.toa.value);
    }
  } else {
    walk_detail::collect_fromData(data, radius, window, byTot);
  }
  std::vector<TimeWalk_Point> points;
  for (unsigned tot = 0; tot < byTot.size(); ++tot) {
    auto& delays = byTot[tot];
    if (delays.size() < walk_detail::min_hits) continue;
    const std::int64_t median = walk_detail::get_rank(delays, 0.5);
    points.push_back(
        {tot, delays.size(), median, walk_detail::get_rank(delays, 0.16), walk_detail::get_rank(delays, 0.84)});
  }
  if (points.empty()) {
    throw std::invalid_argument("too few hits to fit a time walk: no ToT value has " +
                                std::to_string(walk_detail::min_hits) + " of them");
  }
  return points;
}

/// Writes the table kovra_import --time-walk reads, with the figures of each row as a comment; whole or not at all.
inline void write_timeWalkTable(const std::string& path, const std::vector<TimeWalk_Point>& points,
                                const std::string& origin) {
  kovra::OutputFile_Atomic file(path);
  std::ostream& out = file.stream();
  out << "# time walk of " << origin << "\n# tot_ns delay_ticks  (hits of that ToT; 16th to 84th percentile)\n";
  for (const auto& p : points) {
    out << 25 * p.tot << ' ' << p.median << "  # " << p.hits << " hits; " << p.low << " to " << p.high << '\n';
  }
  file.commit();
}

/// The points as CSV for the plot.
inline void write_timeWalkCsv(const std::string& path, const std::vector<TimeWalk_Point>& points) {
  kovra::OutputFile_Atomic file(path);
  file.stream() << "tot_ns,hits,delay_ticks,p16_ticks,p84_ticks\n";
  for (const auto& p : points) {
    file.stream() << 25 * p.tot << ',' << p.hits << ',' << p.median << ',' << p.low << ',' << p.high << '\n';
  }
  file.commit();
}

}  // namespace kovra::evaluate
