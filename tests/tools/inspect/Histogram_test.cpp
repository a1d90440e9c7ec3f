// Bin boundaries of the printed histograms and the scaling of their bars.

#include "inspect/Histogram.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace kovra::inspect;

TEST(HistogramPowerOfTwoTest, BinsMeetAtThePowersOfTwo) {
  const std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
  const std::vector<std::pair<std::uint64_t, std::size_t>> cases = {
      {0, 0}, {1, 1}, {4, 4}, {5, 5}, {8, 5}, {9, 6}, {16, 6}, {17, 7}, {std::uint64_t{1} << 63, 65},
      {(std::uint64_t{1} << 63) + 1, 66}, {max, 66}};
  for (const auto& [value, bin] : cases) EXPECT_EQ(Histogram_PowerOfTwo::get_bin(value), bin) << value;
}

TEST(HistogramPowerOfTwoTest, RangesCoverEveryValueOnceInOrder) {
  std::uint64_t next = 0;
  for (std::size_t bin = 0; bin < Histogram_PowerOfTwo::n_bins; ++bin) {
    const auto [lo, hi] = Histogram_PowerOfTwo::get_range(bin);
    EXPECT_EQ(lo, next) << bin;
    EXPECT_LE(lo, hi);
    EXPECT_EQ(Histogram_PowerOfTwo::get_bin(lo), bin);
    EXPECT_EQ(Histogram_PowerOfTwo::get_bin(hi), bin);
    next = hi + 1;
  }
  EXPECT_EQ(next, 0u);  // the last bin ends at the largest value
}

TEST(HistogramPowerOfTwoTest, BarsRunFromFirstToLastFilledBin) {
  Histogram_PowerOfTwo histogram;
  EXPECT_TRUE(histogram.get_bars().empty());
  for (const std::uint64_t v : {3u, 3u, 7u, 8u}) histogram.add(v);
  const auto bars = histogram.get_bars();
  ASSERT_EQ(bars.size(), 3u);
  EXPECT_EQ(bars[0].label, "3");
  EXPECT_EQ(bars[0].count, 2u);
  EXPECT_EQ(bars[1].label, "4");
  EXPECT_EQ(bars[1].count, 0u);
  EXPECT_EQ(bars[2].label, "5-8");
  EXPECT_EQ(bars[2].count, 2u);
}

TEST(HistogramLinearTest, EdgesAndTheClosedLastBin) {
  Histogram_Linear histogram(0.0, 1.0, 4);
  for (const double v : {0.0, 0.2499, 0.25, 0.75, 1.0}) histogram.add(v);
  EXPECT_EQ(histogram.get_count(0), 2u);
  EXPECT_EQ(histogram.get_count(1), 1u);
  EXPECT_EQ(histogram.get_count(2), 0u);
  EXPECT_EQ(histogram.get_count(3), 2u);
  const auto bars = histogram.get_bars(10.0);
  ASSERT_EQ(bars.size(), 4u);
  EXPECT_EQ(bars[0].label, "[0, 2.5)");
  EXPECT_EQ(bars[3].label, "[7.5, 10]");
}

TEST(HistogramLinearTest, OneValueMakesOneBin) {
  Histogram_Linear histogram(2e-9, 2e-9, 10);
  histogram.add(2e-9);
  histogram.add(2e-9);
  ASSERT_EQ(histogram.size(), 1u);
  const auto bars = histogram.get_bars(1e9);
  ASSERT_EQ(bars.size(), 1u);
  EXPECT_EQ(bars[0].label, "2");
  EXPECT_EQ(bars[0].count, 2u);
}

TEST(DrawBarsTest, BarsScaleToTheLargestAndSmallCountsStayVisible) {
  std::ostringstream out;
  draw_bars(out, {{"a", 4}, {"bb", 2}, {"c", 0}, {"d", 1}}, 8, 8, "");
  EXPECT_EQ(out.str(),
            " a |########| 4 (50.0%)\n"
            "bb |####    | 2 (25.0%)\n"
            " c |        | 0 (0.0%)\n"
            " d |##      | 1 (12.5%)\n");

  std::ostringstream tiny;
  draw_bars(tiny, {{"x", 1000}, {"y", 1}}, 1001, 4, "");
  EXPECT_EQ(tiny.str(), "x |####| 1000 (99.9%)\ny |#   | 1 (0.1%)\n");
}

}  // namespace
