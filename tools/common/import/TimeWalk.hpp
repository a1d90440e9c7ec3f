#pragma once

// Time walk: a Timepix3 pixel's discriminator fires later the smaller the charge, so a hit's time lags its
// photon by a delay that falls with its ToT. A table per detector gives that delay; the import subtracts it from
// every hit's time before the hits are ordered and grouped, so photon times lose their ToT-dependent bias and the
// hits of one photon come closer together in time.
//
// The table is a text file of rows "TOT_NS DELAY_TICKS": a ToT in whole nanoseconds and the delay of a hit of
// that ToT in ticks of 1.5625 ns (a whole number, which may be negative); '#' starts a comment, blank lines are
// skipped, ToTs strictly increase. Between two rows the delay is interpolated linearly and rounded to the
// nearest tick (halves away from zero); below the first row it is the first row's, above the last the last's.
// The table is turned once into one delay per ToT step (10 bits of 25 ns), so correcting a hit is one lookup
// and every run computes the same integers.

#include <array>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Packets.hpp"

namespace kovra::import {

using kovra::tpx3spidr::raw::Ticks;

/// The delay of every ToT step; corrects a hit's time by it.
class Time_Walk {
 public:
  static constexpr std::size_t tot_steps = 1024;
  static constexpr std::int64_t most_ticks = 1000000;  ///< 1.5625 ms: far beyond any real time walk

  /// A row of the table: ToT in nanoseconds, delay in ticks.
  struct Row {
    std::int64_t tot_ns;
    std::int64_t delay;
  };

  /// From rows in increasing ToT (at least one); throws std::invalid_argument otherwise.
  explicit Time_Walk(const std::vector<Row>& rows) {
    if (rows.empty()) throw std::invalid_argument("no rows");
    for (std::size_t step = 0; step < tot_steps; ++step)
      delays[step] = interpolate(rows, 25 * static_cast<std::int64_t>(step));
  }

  /// The hit's time without its delay; never before 0, where the clock of a run can begin.
  Ticks correct(Ticks t, unsigned tot) const {
    const Ticks corrected = t - delays[tot];
    return corrected < 0 ? 0 : corrected;
  }

  std::int64_t get_delay(unsigned tot) const { return delays[tot]; }

 private:
  static std::int64_t interpolate(const std::vector<Row>& rows, std::int64_t ns) {
    if (ns <= rows.front().tot_ns) return rows.front().delay;
    if (ns >= rows.back().tot_ns) return rows.back().delay;
    std::size_t k = 1;
    while (rows[k].tot_ns < ns) ++k;
    const Row& a = rows[k - 1];
    const Row& b = rows[k];
    // (a.delay (b - a) + (b.delay - a.delay) (ns - a)) / (b - a), rounded to the nearest, halves away from zero.
    const std::int64_t denominator = b.tot_ns - a.tot_ns;
    const std::int64_t numerator = a.delay * denominator + (b.delay - a.delay) * (ns - a.tot_ns);
    return numerator >= 0 ? (2 * numerator + denominator) / (2 * denominator)
                          : -((-2 * numerator + denominator) / (2 * denominator));
  }

  std::array<std::int64_t, tot_steps> delays{};
};

/// Reads a table file; throws std::invalid_argument with one line naming the file and what is wrong.
inline Time_Walk read_timeWalk(const std::string& path) {
  std::ifstream file(path);
  const std::string where = "time-walk table '" + path + "': ";
  if (!file) throw std::invalid_argument(where + "cannot be read");
  std::vector<Time_Walk::Row> rows;
  std::string line;
  for (std::size_t number = 1; std::getline(file, line); ++number) {
    const std::string content = line.substr(0, line.find('#'));
    std::istringstream fields(content);
    std::string totText, delayText, extra;
    if (!(fields >> totText)) continue;  // blank or comment
    const auto whole = [](const std::string& text, std::int64_t low, std::int64_t high, std::int64_t& value) {
      std::size_t used = 0;
      try {
        value = std::stoll(text, &used);
      } catch (const std::exception&) {
        return false;
      }
      return used == text.size() && value >= low && value <= high;
    };
    Time_Walk::Row row{};
    if (!(fields >> delayText) || (fields >> extra) || !whole(totText, 0, 25 * 1023, row.tot_ns) ||
        !whole(delayText, -Time_Walk::most_ticks, Time_Walk::most_ticks, row.delay)) {
      throw std::invalid_argument(where + "line " + std::to_string(number) +
                                  ": expected a ToT in whole nanoseconds (0 to 25575) and a delay in whole ticks "
                                  "(at most 1000000 either way), got '" +
                                  line + "'");
    }
    if (!rows.empty() && row.tot_ns <= rows.back().tot_ns) {
      throw std::invalid_argument(where + "line " + std::to_string(number) + ": ToT " + totText +
                                  " ns does not follow " + std::to_string(rows.back().tot_ns) + " ns");
    }
    rows.push_back(row);
  }
  if (file.bad()) throw std::invalid_argument(where + "cannot be read");
  if (rows.empty()) throw std::invalid_argument(where + "no rows");
  return Time_Walk(rows);
}

}  // namespace kovra::import
