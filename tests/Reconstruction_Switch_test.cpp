#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using kovra::tpx3spidr::Time;

TEST(ConvertDurationMaxTest, SaturatesBeyondTheBound) {
  const double inf = std::numeric_limits<double>::infinity();
  // The bound itself converts to 2^62 ticks, one above the saturated value 2^62 - 1.
  for (const auto& [seconds, ticks] :
       std::vector<std::pair<double, long>>{{0.0, 0},
                                            {1e-6, 640},
                                            {Time::max_seconds, 1L << 62},
                                            {std::nextafter(Time::max_seconds, inf), (1L << 62) - 1},
                                            {1e10, (1L << 62) - 1},
                                            {inf, (1L << 62) - 1}}) {
    EXPECT_EQ(kovra::tpx3spidr::convert_durationMax(seconds).value, ticks) << seconds;
  }
}
