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

TEST(RandomGeneratorTest, NormalPairIsTwoIndependentStandardNormals) {
  Random_Generator random(13);
  const std::size_t n = 100000;
  double sumA = 0.0, sumB = 0.0, sumAA = 0.0, sumBB = 0.0, sumAB = 0.0;
  std::size_t beyondTwoSigma = 0;
  for (std::size_t i = 0; i < n; ++i) {
    double a = 0.0;
    double b = 0.0;
    random.normal_pair(a, b);
    sumA += a, sumB += b, sumAA += a * a, sumBB += b * b, sumAB += a * b;
    beyondTwoSigma += std::abs(a) > 2.0;
  }
  const double dn = static_cast<double>(n);
  EXPECT_NEAR(sumA / dn, 0.0, 0.016);
  EXPECT_NEAR(sumB / dn, 0.0, 0.016);
  EXPECT_NEAR(sumAA / dn, 1.0, 0.025);
  EXPECT_NEAR(sumBB / dn, 1.0, 0.025);
  EXPECT_NEAR(sumAB / dn, 0.0, 0.016);
  // The tail, which a uniform or triangular stand-in with the right variance would miss: 4.55 % beyond 2 sigma.
  EXPECT_NEAR(static_cast<double>(beyondTwoSigma) / dn, 0.0455, 0.0035);
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
