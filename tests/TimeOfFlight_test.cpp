// Time of flight at the edges of the trigger list, its bins, the selection and the two histograms filled from it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <random>
#include <ranges>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "kovra/Histogram_TimeOfFlight.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace {

using namespace kovra;
using testing::StrEq;
using testing::ThrowsMessage;
using tpx3spidr::Event;
using tpx3spidr::Length;
using tpx3spidr::Time;
using Tof = std::optional<TimeOfFlight_Ticks>;
using L64 = std::numeric_limits<std::int64_t>;
constexpr std::int32_t px = 65536;

std::vector<Time> times(std::initializer_list<std::int64_t> values) {
  std::vector<Time> result;
  for (const std::int64_t v : values) result.push_back(Time{v});
  return result;
}

/// The definition written out plainly: the largest trigger not above t, by a walk over all of them.
Tof plain_timeOfFlight(const std::vector<Time>& triggers, Time t) {
  Tof best;
  for (const Time trigger : triggers) {
    if (trigger <= t) best = static_cast<TimeOfFlight_Ticks>(t.value) - static_cast<TimeOfFlight_Ticks>(trigger.value);
  }
  return best;
}

TEST(TimeOfFlightTest, TriggerEdges) {
  const std::vector<Time> triggers = times({100, 200, 200, 350});
  const std::tuple<std::int64_t, Tof> cases[] = {
      {99, std::nullopt},                            // before the first trigger
      {100, 0},                                      // exactly at a trigger
      {199, 99},                                     // one tick before the next
      {200, 0},                                      // at two equal triggers
      {349, 149},         {350, 0}, {10'000, 9650},  // after the last trigger
  };
  TimeOfFlight_Clock<Time> clock(triggers);
  for (const auto& [t, expected] : cases) EXPECT_EQ(clock.get(Time{t}), expected) << t;
  for (const auto& [t, expected] : cases | std::views::reverse) EXPECT_EQ(clock.get(Time{t}), expected) << t;

  EXPECT_EQ(TimeOfFlight_Clock<Time>({}).get(Time{5}), std::nullopt);
  // The widest difference two 64-bit times have, exact.
  const std::vector<Time> lowest = times({L64::min()});
  EXPECT_EQ(TimeOfFlight_Clock<Time>(lowest).get(Time{L64::max()}), std::numeric_limits<std::uint64_t>::max());
}

TEST(TimeOfFlightTest, ClockMatchesThePlainDefinitionInAnyOrder) {
  std::mt19937_64 random(7);
  std::vector<Time> triggers;
  for (int i = 0; i < 300; ++i) triggers.push_back(Time{static_cast<std::int64_t>(random() % 5000)});
  std::sort(triggers.begin(), triggers.end());
  std::vector<Time> records;
  for (int i = 0; i < 2000; ++i) records.push_back(Time{static_cast<std::int64_t>(random() % 5200) - 100});
  std::vector<Time> ordered = records;
  std::sort(ordered.begin(), ordered.end());
  for (const auto* list : {&records, &ordered}) {
    TimeOfFlight_Clock<Time> clock(triggers);
    for (const Time t : *list) ASSERT_EQ(clock.get(t), plain_timeOfFlight(triggers, t)) << t.value;
  }
}

TEST(TimeOfFlightTest, TriggerListCheck) {
  TriggerList_Check<Time> check;
  check.add(std::vector<Time>(times({5, 5, 40})));
  check.add(std::vector<Time>(times({41, 100})));
  EXPECT_EQ(std::tuple(check.get_count(), check.get_first().value, check.get_last().value, check.get_longestInterval()),
            std::tuple(5u, 5, 100, 59u));
  // Out of order across a chunk border, with the triggers' places in the whole list.
  EXPECT_THAT([&] { check.add(std::vector<Time>(times({99}))); },
              ThrowsMessage<std::invalid_argument>(
                  StrEq("Trigger times out of order: trigger 5 (99 ticks) is earlier than trigger 4 (100 ticks)!")));
  TriggerList_Check<Time> one;
  one.add(std::vector<Time>(times({L64::min()})));
  EXPECT_EQ(one.get_longestInterval(), 0u);
}

TEST(TimeOfFlightBinsTest, Edges) {
  using Spacing = TimeOfFlight_Bins::Spacing;
  const std::tuple<Spacing, TimeOfFlight_Ticks, TimeOfFlight_Ticks, std::size_t, std::vector<TimeOfFlight_Ticks>>
      cases[] = {
          {Spacing::linear, 0, 10, 3, {0, 4, 7, 10}},  // ceil(10/3) = 4, ceil(20/3) = 7
          {Spacing::linear, 5, 6, 1, {5, 6}},
          {Spacing::linear, 0, 18446744073709551615u, 2, {0, 9223372036854775808u, 18446744073709551615u}},
          {Spacing::logarithmic, 1, 1000, 3, {1, 10, 100, 1000}},
          {Spacing::logarithmic, 10, 40, 2, {10, 20, 40}},
      };
  for (const auto& [spacing, lo, hi, n, edges] : cases) {
    EXPECT_EQ(TimeOfFlight_Bins(spacing, lo, hi, n).get_edges(), edges) << lo << ".." << hi << " in " << n;
  }
  const std::tuple<Spacing, TimeOfFlight_Ticks, TimeOfFlight_Ticks, std::size_t, const char*> refused[] = {
      {Spacing::linear, 10, 10, 1, "the time-of-flight range is empty: its end must lie after its start"},
      {Spacing::linear, 0, 10, 0, "the number of time-of-flight bins must be between 1 and 1000000"},
      {Spacing::linear, 0, 10, 11, "11 time-of-flight bins from 0 to 10 ticks would be narrower than one tick"},
      {Spacing::logarithmic, 0, 10, 2, "logarithmic time-of-flight bins need a start above 0"},
      {Spacing::logarithmic, 1, 100, 20, "20 time-of-flight bins from 1 to 100 ticks would be narrower than one tick"},
  };
  for (const auto& [spacing, lo, hi, n, message] : refused) {
    EXPECT_THAT([&] { TimeOfFlight_Bins(spacing, lo, hi, n); }, ThrowsMessage<std::invalid_argument>(StrEq(message)));
  }
}

TEST(TimeOfFlightBinsTest, LinearBinIsTheIntegerQuotient) {
  const TimeOfFlight_Bins bins(TimeOfFlight_Bins::Spacing::linear, 7, 1007, 7);
  for (TimeOfFlight_Ticks tof = 0; tof < 1020; ++tof) {
    const Tof expected = tof < 7 || tof >= 1007 ? Tof() : Tof((tof - 7) * 7 / 1000);
    const auto bin = bins.get_bin(tof);
    ASSERT_EQ(bin ? Tof(*bin) : Tof(), expected) << tof;
  }
}

TEST(RecordSelectionTest, Bounds) {
  Record_Selection<Length> s;
  s.psdMin = 1e-9;
  s.psdMax = 5e-9;
  s.photonsMin = 2;
  s.photonsMax = 4;
  s.region = Detector_Region<Length>{{0}, {px}, {10 * px}, {20 * px}};
  const std::tuple<Event, bool> cases[] = {
      {{{0}, {px}, {0}, 2, 1e-9}, true},  // every lower bound, exactly
      {{{10 * px - 1}, {20 * px - 1}, {0}, 4, 5e-9}, true},
      {{{10 * px}, {px}, {0}, 2, 1e-9}, false},  // on the region's upper x bound
      {{{-1}, {px}, {0}, 2, 1e-9}, false},
      {{{0}, {20 * px}, {0}, 2, 1e-9}, false},
      {{{0}, {px}, {0}, 1, 1e-9}, false},
      {{{0}, {px}, {0}, 5, 1e-9}, false},
      {{{0}, {px}, {0}, 2, 0.99e-9}, false},
      {{{0}, {px}, {0}, 2, 5.01e-9}, false},
      {{{0}, {px}, {0}, 2, std::numeric_limits<double>::quiet_NaN()}, false},
  };
  for (const auto& [event, accepted] : cases) {
    EXPECT_EQ(s.accepts(event), accepted)
        << event.x.value << ' ' << event.y.value << ' ' << event.nPhotons << ' ' << event.psd;
  }
  EXPECT_TRUE(s.accepts_timeOfFlight(std::nullopt));  // no time-of-flight bound
  s.tofMax = 10;
  EXPECT_EQ(std::tuple(s.accepts_timeOfFlight(std::nullopt), s.accepts_timeOfFlight(0), s.accepts_timeOfFlight(9),
                       s.accepts_timeOfFlight(10)),
            std::tuple(false, true, true, false));
}

TEST(HistogramTimeOfFlightTest, StackSummedOverBinsIsTheMapOfTheCountedRecords) {
  std::mt19937_64 random(3);
  const std::vector<Time> triggers = times({1000, 2000, 3000});
  std::vector<Event> events;
  for (int i = 0; i < 5000; ++i) {
    const auto x = static_cast<std::int32_t>(random() % (9 * px)) - px;  // some left of the grid
    const auto y = static_cast<std::int32_t>(random() % (8 * px));
    events.push_back({{x}, {y}, {static_cast<long>(random() % 4000)}, 1 + random() % 4, 0.0});
  }
  Record_Selection<Length> selection;
  selection.photonsMin = 2;
  const auto grid = Position_Binning<Length>::make(8, 2);  // 4 x 4 cells of 2 pixels
  Histogram_TimeOfFlight<Length> histogram(TimeOfFlight_Bins(TimeOfFlight_Bins::Spacing::linear, 100, 900, 4),
                                           selection, grid);
  TimeOfFlight_Clock<Time> clock(triggers);
  histogram.add_records<Event>(events, clock);

  std::vector<std::uint64_t> map(16, 0), spectrum(4, 0);
  TimeOfFlight_Tally plain;
  for (const Event& e : events) {
    const Tof tof = plain_timeOfFlight(triggers, e.t);
    const bool counted = e.nPhotons >= 2 && tof && *tof >= 100 && *tof < 900;
    plain.deselected += e.nPhotons < 2;
    plain.beforeFirstTrigger += e.nPhotons >= 2 && !tof;
    plain.outsideRange += e.nPhotons >= 2 && tof && !counted;
    if (!counted) continue;
    ++spectrum[(*tof - 100) / 200];
    if (e.x.value < 0) {
      ++plain.outsideStack;
      continue;
    }
    ++map[static_cast<std::size_t>(e.y.value / (2 * px) * 4 + e.x.value / (2 * px))];
  }
  std::vector<std::uint64_t> summed(16, 0);
  for (std::size_t i = 0; i < histogram.get_stack().size(); ++i) summed[i % 16] += histogram.get_stack()[i];
  EXPECT_EQ(summed, map);
  EXPECT_EQ(histogram.get_spectrum(), spectrum);
  const TimeOfFlight_Tally& tally = histogram.get_tally();
  EXPECT_EQ(std::tuple(tally.seen, tally.deselected, tally.beforeFirstTrigger, tally.outsideRange, tally.outsideStack),
            std::tuple(std::uint64_t{5000}, plain.deselected, plain.beforeFirstTrigger, plain.outsideRange,
                       plain.outsideStack));
  EXPECT_GT(plain.beforeFirstTrigger * plain.outsideRange * plain.outsideStack, 0u);  // every way out was taken
  EXPECT_EQ(Histogram_TimeOfFlight<Length>::get_stackBytes(100, Position_Binning<Length>::make(512, 1)),
            std::uint64_t{512} * 512 * 100 * 4);
}

}  // namespace
