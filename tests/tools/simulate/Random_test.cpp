// The simulator's random numbers: reproducible per seed, and the normal and Poisson samplers with the moments
// they claim (the uniform and exponential ones are checked through the model: dark counts and decay delays).
// Every sample comes from a fixed seed, so the bounds (about five standard errors) never flake.

#include <cmath>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "simulate/Random.hpp"

using kovra::simulate::Random_Generator;

namespace {

struct Moments {
  double mean = 0.0;
  double variance = 0.0;
};

template <typename Draw_Type>
Moments sample_moments(std::size_t n, Draw_Type&& draw) {
  double sum = 0.0;
  double sumSquares = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    const double v = draw();
    sum += v;
    sumSquares += v * v;
  }
  const double mean = sum / static_cast<double>(n);
  return {mean, sumSquares / static_cast<double>(n) - mean * mean};
}

}  // namespace

TEST(RandomGeneratorTest, SeedFixesTheSequence) {
  Random_Generator a(42);
  Random_Generator b(42);
  Random_Generator c(43);
  Random_Generator d(~std::uint64_t{42});
  int equalToOtherSeed = 0;
  for (int i = 0; i < 1000; ++i) {
    const auto va = a.next();
    EXPECT_EQ(va, b.next());
    equalToOtherSeed += va == c.next();
    equalToOtherSeed += va == d.next();
  }
  EXPECT_EQ(equalToOtherSeed, 0);
}

TEST(RandomGeneratorTest, NormalHasUnitMomentsAndBothTails) {
  Random_Generator random(13);
  const std::size_t n = 200000;
  double sum = 0.0, sumSquares = 0.0, sumProducts = 0.0, previous = 0.0;
  std::size_t beyondTwo = 0, beyondBase = 0, negative = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const double v = random.normal();
    sum += v, sumSquares += v * v, sumProducts += v * previous, previous = v;
    beyondTwo += std::abs(v) > 2.0;
    beyondBase += std::abs(v) > 3.442619855899;  // drawn only through the ziggurat's tail branch
    negative += v < 0.0;
  }
  const double dn = static_cast<double>(n);
  EXPECT_NEAR(sum / dn, 0.0, 0.012);
  EXPECT_NEAR(sumSquares / dn, 1.0, 0.016);
  EXPECT_NEAR(sumProducts / dn, 0.0, 0.012);  // successive draws independent
  EXPECT_NEAR(static_cast<double>(negative) / dn, 0.5, 0.006);
  EXPECT_NEAR(static_cast<double>(beyondTwo) / dn, 0.0455, 0.0025);    // expected 9100, sd 93
  EXPECT_NEAR(static_cast<double>(beyondBase), 0.000576 * dn, 40.0);  // expected 115, sd 11
}

TEST(RandomGeneratorTest, PoissonHasMeanEqualToVarianceForSmallAndSplitMeans) {
  // 1200 goes through the split into pieces of at most 500; 0 must always give 0.
  for (const double mean : {0.0, 0.3, 4.0, 25.0, 1200.0}) {
    SCOPED_TRACE(mean);
    Random_Generator random(17);
    const auto m = sample_moments(40000, [&] { return static_cast<double>(random.poisson(mean)); });
    EXPECT_NEAR(m.mean, mean, 5.0 * std::sqrt(mean / 40000.0) + 1e-12);
    EXPECT_NEAR(m.variance, mean, 0.05 * mean + 1e-12);
  }
}
