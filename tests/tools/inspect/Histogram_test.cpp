// Histogram bins: every 64-bit photon count in exactly one bin, and real ranges too wide for plain arithmetic.

#include "inspect/Histogram.hpp"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

using kovra::inspect::Histogram_PowerOfTwo;

TEST(HistogramTest, PowerOfTwoBinsCoverEveryValueOnceInOrder) {
  EXPECT_EQ(Histogram_PowerOfTwo::get_bin(4), 4u);
  EXPECT_EQ(Histogram_PowerOfTwo::get_bin(5), 5u);
  EXPECT_EQ(Histogram_PowerOfTwo::get_bin(8), 5u);
  EXPECT_EQ(Histogram_PowerOfTwo::get_bin(9), 6u);
  std::uint64_t next = 0;
  for (std::size_t bin = 0; bin < Histogram_PowerOfTwo::n_bins; ++bin) {
    const auto [lo, hi] = Histogram_PowerOfTwo::get_range(bin);
    EXPECT_EQ(lo, next) << bin;
    EXPECT_EQ(Histogram_PowerOfTwo::get_bin(lo), bin);
    EXPECT_EQ(Histogram_PowerOfTwo::get_bin(hi), bin);
    next = hi + 1;
  }
  EXPECT_EQ(next, 0u);  // the last bin ends at the largest 64-bit value
}

TEST(HistogramTest, LinearBinsSpanningMoreThanTheLargestDouble) {
  kovra::inspect::Histogram_Linear histogram(-1e308, 1e308, 10);
  for (const double v : {-1e308, 0.0, 1e308}) histogram.add(v);
  EXPECT_EQ(histogram.get_count(0), 1u);
  EXPECT_EQ(histogram.get_count(5), 1u);
  EXPECT_EQ(histogram.get_count(9), 1u);
  EXPECT_EQ(histogram.get_edge(5), 0.0);
}

}  // namespace
