#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <utility>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::Time;
using testing::StrEq;
using testing::ThrowsMessage;

TEST(TimeTest, ConstantsAndBounds) {
  EXPECT_EQ(std::bit_cast<std::uint64_t>(Time::max_seconds), 0x41FAD7F29ABCAF48u);
  EXPECT_EQ(Time::max_ticks, 4611686018427387903L);
  EXPECT_EQ(Time::make_from_seconds<true>(Time::max_seconds).value, 4611686018427387904L);
  EXPECT_EQ(Time::make_from_seconds<true>(-Time::max_seconds).value, -4611686018427387904L);
  EXPECT_THAT([] { Time::make_from_seconds<true>(1e10); },
              ThrowsMessage<std::invalid_argument>(StrEq("Value 10000000000.000000 s out of range!")));
  EXPECT_THROW(Time::make_from_seconds<true>(std::nextafter(Time::max_seconds, 1e300)), std::invalid_argument);
  EXPECT_THROW(Time::make_from_seconds<true>(-1e10), std::invalid_argument);
  EXPECT_THROW(Time::make_from_seconds<true>(std::numeric_limits<double>::quiet_NaN()), std::invalid_argument);
}

// Settings in seconds: the maximum event duration saturates beyond the bound, the bound itself converts to 2^62
// ticks, one above the saturated value 2^62 - 1.
TEST(TimeTest, DurationMaxSaturatesBeyondTheBound) {
  const double inf = std::numeric_limits<double>::infinity();
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

TEST(TimeTest, SecondsRoundHalvesAwayFromZero) {
  EXPECT_EQ(Time::make_from_seconds<true>(1e-6).value, 640);
  EXPECT_EQ(Time::make_from_seconds<true>(2.34375e-9).value, 2);
  EXPECT_EQ(Time::make_from_seconds<true>(-2.34375e-9).value, -2);
  EXPECT_EQ(Time::make_from_seconds<true>(0.0).value, 0);
  EXPECT_EQ(Time{640}.get_seconds(), 1e-06);
  EXPECT_EQ(Time::tick_seconds, 1.5625e-9);
}

TEST(TimeTest, ScalingTruncatesAndSaturates) {
  EXPECT_EQ(Time{3}.scaled(0.5).value, 1);
  EXPECT_EQ(Time{3}.scaled(-0.5).value, -1);
  EXPECT_EQ(Time{10}.scaled(1.0).value, 10);
  EXPECT_EQ(Time{10}.scaled(std::numeric_limits<double>::infinity()).value, std::numeric_limits<long>::max());
  EXPECT_EQ(Time{0}.scaled(std::numeric_limits<double>::infinity()).value, 0);  // 0 * inf is NaN
}

TEST(TimeTest, SumsAndDifferencesWrapWithoutOverflow) {
  const Time bound{std::int64_t{1} << 62};
  EXPECT_EQ((bound + bound).value, std::numeric_limits<long>::min());
  EXPECT_EQ((Time{std::numeric_limits<long>::min()} - Time{1}).value, std::numeric_limits<long>::max());
  EXPECT_EQ((Time{5} - Time{7}).value, -2);
  EXPECT_LT(Time{1}, Time{2});
  EXPECT_EQ(std::min(Time{4}, Time{3}), Time{3});
}

TEST(LengthTest, FromPixels) {
  EXPECT_EQ(Length::from_pixels(0.5).value, 32768);
  EXPECT_EQ(Length::from_pixels(10.0).value, 655360);
  EXPECT_EQ(Length::from_pixels(-0.5 / 65536).value, -1);                          // half a unit rounds away from zero
  EXPECT_EQ(Length::from_pixels(32768.0).value, std::numeric_limits<int>::min());  // truncated to 32 bits
}

TEST(LengthTest, DifferencesSquaresAndMeans) {
  const Length minimum{std::numeric_limits<int>::min()};
  const Length maximum{std::numeric_limits<int>::max()};
  EXPECT_EQ((minimum - Length{1}).value, std::numeric_limits<int>::max());
  EXPECT_EQ(minimum.abs(), std::int64_t{1} << 31);
  // Two differences of -2^31 square to 2^62 each; their sum is 2^63 and must not overflow.
  EXPECT_EQ(minimum.squared() + minimum.squared(), std::uint64_t{1} << 63);
  EXPECT_FALSE(kovra::within_euclidean(minimum, minimum, maximum));
  EXPECT_TRUE(kovra::within_euclidean(Length{3}, Length{4}, Length{5}));
  EXPECT_FALSE(kovra::within_euclidean(Length{3}, Length{5}, Length{5}));

  Length mean{10};
  mean.add_to_mean(Length{13}, 2);
  EXPECT_EQ(mean.value, 11);
  mean = Length{10};
  mean.add_to_mean(Length{7}, 2);
  EXPECT_EQ(mean.value, 9);  // -3 / 2 truncates to -1
}
