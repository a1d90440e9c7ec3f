#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "convert_durationMax.hpp"

using kovra::tpx3spidr::Time;

TEST(ConvertDurationMaxTest, SaturatesBeyondTheBound) {
  const double inf = std::numeric_limits<double>::infinity();
  const struct {
    double seconds;
    long ticks;
  } rows[] = {
      {0.0, 0},
      {1e-6, 640},
      {Time::max_seconds, 4611686018427387904L},  // converted: one tick above the saturated value
      {std::nextafter(Time::max_seconds, inf), 4611686018427387903L},
      {1e10, 4611686018427387903L},
      {inf, 4611686018427387903L},
  };
  for (const auto& [seconds, ticks] : rows) EXPECT_EQ(convert_durationMax(seconds).value, ticks) << seconds;
}
