// Photon-count bins: every 64-bit value in exactly one bin, the bins in order and meeting at powers of two.

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

}  // namespace
