#pragma once

// Histograms small enough to print: photon counts in power-of-two bins, real values in equal bins, and the
// bar drawing that shows either in a terminal.

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "inspect/Format.hpp"

namespace kovra::inspect {

/// One bar of a printed histogram.
struct Histogram_Bar {
  std::string label;
  std::uint64_t count = 0;
};

/// Counts of whole numbers in the bins 0, 1, 2, 3, 4, 5-8, 9-16, 17-32, ... (upper bounds powers of two), so
/// that the full 64-bit range fits in 67 bins.
class Histogram_PowerOfTwo {
 public:
  static constexpr std::size_t n_bins = 67;

  static std::size_t get_bin(std::uint64_t value) {
    if (value <= 4) return static_cast<std::size_t>(value);
    return static_cast<std::size_t>(std::bit_width(value - 1)) + 2;
  }

  /// Smallest and largest value of a bin.
  static std::pair<std::uint64_t, std::uint64_t> get_range(std::size_t bin) {
    assert(bin < n_bins);
    if (bin <= 4) return {bin, bin};
    const unsigned power = static_cast<unsigned>(bin - 2);
    const std::uint64_t hi = power == 64 ? ~std::uint64_t{0} : std::uint64_t{1} << power;
    return {(std::uint64_t{1} << (power - 1)) + 1, hi};
  }

  void add(std::uint64_t value) { ++counts[get_bin(value)]; }

  std::uint64_t get_count(std::size_t bin) const { return counts[bin]; }

  /// The bins from the first to the last that holds anything, empty ones between included.
  std::vector<Histogram_Bar> get_bars() const {
    std::vector<Histogram_Bar> bars;
    const auto first = std::find_if(counts.begin(), counts.end(), [](std::uint64_t c) { return c != 0; });
    if (first == counts.end()) return bars;
    const auto last = std::find_if(counts.rbegin(), counts.rend(), [](std::uint64_t c) { return c != 0; }).base();
    for (auto it = first; it != last; ++it) {
      const auto [lo, hi] = get_range(static_cast<std::size_t>(it - counts.begin()));
      bars.push_back({lo == hi ? std::to_string(lo) : std::to_string(lo) + "-" + std::to_string(hi), *it});
    }
    return bars;
  }

 private:
  std::array<std::uint64_t, n_bins> counts{};
};

/// Counts of real values in `nBins` equal bins over [lo, hi]; the last bin is closed so that `hi` falls in it.
/// With lo == hi there is one bin holding exactly that value. Values outside the range are a caller's fault.
class Histogram_Linear {
 public:
  Histogram_Linear(double lo_, double hi_, std::size_t nBins_) : lo(lo_), hi(hi_), counts(lo_ == hi_ ? 1 : nBins_, 0) {
    assert(lo <= hi && nBins_ > 0);
  }

  std::size_t get_bin(double value) const {
    assert(value >= lo && value <= hi);
    if (counts.size() == 1) return 0;
    // Halves first, so that a range wider than the largest double does not overflow to infinity.
    const double fraction = (value * 0.5 - lo * 0.5) / (hi * 0.5 - lo * 0.5);
    const double position = fraction * static_cast<double>(counts.size());
    return std::min(static_cast<std::size_t>(position), counts.size() - 1);
  }

  void add(double value) { ++counts[get_bin(value)]; }

  std::uint64_t get_count(std::size_t bin) const { return counts[bin]; }
  std::size_t size() const { return counts.size(); }

  double get_edge(std::size_t i) const {
    if (i == counts.size()) return hi;
    const double fraction = static_cast<double>(i) / static_cast<double>(counts.size());
    return lo * (1.0 - fraction) + hi * fraction;
  }

  /// Every bin, labelled by its edges times `labelScale` with `digits` significant digits: "[a, b)", the last
  /// "[a, b]".
  std::vector<Histogram_Bar> get_bars(double labelScale = 1.0, int digits = 4) const {
    const auto edge = [&](std::size_t i) { return format_rounded(get_edge(i) * labelScale, digits); };
    std::vector<Histogram_Bar> bars;
    if (counts.size() == 1) return {{edge(0), counts[0]}};
    for (std::size_t i = 0; i < counts.size(); ++i) {
      std::string label = "[";
      label.append(edge(i)).append(", ").append(edge(i + 1));
      label.push_back(i + 1 == counts.size() ? ']' : ')');
      bars.push_back({std::move(label), counts[i]});
    }
    return bars;
  }

 private:
  double lo;
  double hi;
  std::vector<std::uint64_t> counts;
};

/// Draws one line per bar: the label right-aligned, a bar of '#' as long as `width` for the largest count (at
/// least one '#' for any count above zero), the count and its share of `total`.
inline void draw_bars(std::ostream& out, const std::vector<Histogram_Bar>& bars, std::uint64_t total,
                      std::size_t width = 40, const std::string& indent = "  ") {
  std::size_t labelWidth = 0;
  std::uint64_t maxCount = 0;
  for (const auto& bar : bars) {
    labelWidth = std::max(labelWidth, bar.label.size());
    maxCount = std::max(maxCount, bar.count);
  }
  for (const auto& bar : bars) {
    std::size_t length = 0;
    if (bar.count != 0) {
      const double scaled = static_cast<double>(bar.count) / static_cast<double>(maxCount) * static_cast<double>(width);
      length = std::max<std::size_t>(1, static_cast<std::size_t>(std::lround(scaled)));
    }
    out << indent << std::string(labelWidth - bar.label.size(), ' ') << bar.label << " |" << std::string(length, '#')
        << std::string(width - length, ' ') << "| " << bar.count << " (" << format_percent(bar.count, total) << "%)\n";
  }
}

}  // namespace kovra::inspect
