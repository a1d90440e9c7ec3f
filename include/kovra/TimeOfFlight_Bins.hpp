#pragma once

// Bins of time of flight with whole-tick edges, so that every record falls in exactly one bin or none, decided
// by integer comparisons alone.
//
// N bins between `lo` and `hi` ticks have edges e_0 = lo < e_1 < ... < e_N = hi; bin i holds e_i <= tof <
// e_(i+1). Linear bins: e_i = lo + ceil(i (hi - lo) / N), exact integer arithmetic, so that bin i holds exactly
// the tof with floor((tof - lo) N / (hi - lo)) = i. Logarithmic bins (lo > 0): e_i = ceil(lo (hi / lo)^(i / N)),
// from the C maths library in double precision, rounded up to whole ticks; e_0 and e_N are lo and hi exactly.
// Bins narrower than a tick, where two edges would fall on the same tick, are refused.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kovra/TimeOfFlight.hpp"

namespace kovra {

/// Most bins a histogram of time of flight may have.
inline constexpr std::size_t max_timeOfFlightBins = 1000000;

/// The bin edges of a time-of-flight histogram, strictly increasing whole ticks.
class TimeOfFlight_Bins {
 public:
  enum class Spacing { linear, logarithmic };

  /// Throws std::invalid_argument when the range is empty, `n` is 0 or above max_timeOfFlightBins, logarithmic
  /// bins start at 0, or a bin would be narrower than a tick.
  TimeOfFlight_Bins(Spacing spacing_, TimeOfFlight_Ticks lo, TimeOfFlight_Ticks hi, std::size_t n) : spacing(spacing_) {
    if (!(lo < hi)) throw std::invalid_argument("the time-of-flight range is empty: its end must lie after its start");
    if (n == 0 || n > max_timeOfFlightBins) {
      throw std::invalid_argument("the number of time-of-flight bins must be between 1 and " +
                                  std::to_string(max_timeOfFlightBins));
    }
    if (spacing == Spacing::logarithmic && lo == 0) {
      throw std::invalid_argument("logarithmic time-of-flight bins need a start above 0");
    }
    edges.resize(n + 1);
    for (std::size_t i = 0; i <= n; ++i) {
      edges[i] = spacing == Spacing::linear ? linear_edge(lo, hi, i, n) : log_edge(lo, hi, i, n);
    }
    for (std::size_t i = 0; i < n; ++i) {
      if (!(edges[i] < edges[i + 1])) {
        throw std::invalid_argument(std::to_string(n) + " time-of-flight bins from " + std::to_string(lo) + " to " +
                                    std::to_string(hi) + " ticks would be narrower than one tick");
      }
    }
  }

  std::size_t size() const { return edges.size() - 1; }
  Spacing get_spacing() const { return spacing; }
  const std::vector<TimeOfFlight_Ticks>& get_edges() const { return edges; }
  TimeOfFlight_Ticks get_lo() const { return edges.front(); }
  TimeOfFlight_Ticks get_hi() const { return edges.back(); }

  /// The bin holding `tof`; none below the first edge or at or above the last.
  std::optional<std::size_t> get_bin(TimeOfFlight_Ticks tof) const {
    if (tof < edges.front() || tof >= edges.back()) return std::nullopt;
    return static_cast<std::size_t>(std::upper_bound(edges.begin(), edges.end(), tof) - edges.begin()) - 1;
  }

 private:
  /// lo + ceil(i w / n) with w = hi - lo, as i (w / n) + ceil(i (w % n) / n): no product exceeds 64 bits for
  /// i <= n <= max_timeOfFlightBins.
  static TimeOfFlight_Ticks linear_edge(TimeOfFlight_Ticks lo, TimeOfFlight_Ticks hi, std::uint64_t i,
                                        std::uint64_t n) {
    const TimeOfFlight_Ticks width = hi - lo;
    const std::uint64_t rest = i * (width % n);
    return lo + i * (width / n) + rest / n + (rest % n != 0 ? 1 : 0);
  }

  static TimeOfFlight_Ticks log_edge(TimeOfFlight_Ticks lo, TimeOfFlight_Ticks hi, std::size_t i, std::size_t n) {
    if (i == 0) return lo;
    if (i == n) return hi;
    const double ratio = static_cast<double>(hi) / static_cast<double>(lo);
    const double edge =
        std::ceil(static_cast<double>(lo) * std::pow(ratio, static_cast<double>(i) / static_cast<double>(n)));
    // Within [lo, hi] whatever the rounding of the power; 2^64 itself is not a tick count.
    if (!(edge < 18446744073709551616.0)) return hi;
    return std::clamp(static_cast<TimeOfFlight_Ticks>(edge), lo, hi);
  }

  Spacing spacing;
  std::vector<TimeOfFlight_Ticks> edges;
};

}  // namespace kovra
