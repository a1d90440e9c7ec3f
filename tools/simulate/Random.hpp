#pragma once

// The simulator's random numbers: a small, fast generator and the few distributions the photon model draws
// from. All of them are written out here rather than taken from <random>, whose distributions differ between
// standard libraries: a seed must give the same photon file on every machine we build on.

#include <cassert>
#include <cmath>
#include <cstdint>

namespace kovra::simulate {

/// xoshiro256** seeded through splitmix64: 256 bits of state, period 2^256 − 1, never all-zero state.
class Random_Generator {
 public:
  explicit Random_Generator(std::uint64_t seed) {
    for (auto& word : state) {
      seed += 0x9E3779B97F4A7C15ULL;
      std::uint64_t z = seed;
      z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
      z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
      word = z ^ (z >> 31);
    }
  }

  std::uint64_t next() {
    const std::uint64_t result = rotl(state[1] * 5, 7) * 9;
    const std::uint64_t t = state[1] << 17;
    state[2] ^= state[0];
    state[3] ^= state[1];
    state[1] ^= state[2];
    state[0] ^= state[3];
    state[2] ^= t;
    state[3] = rotl(state[3], 45);
    return result;
  }

  /// Uniform in [0, 1), on the grid of 2^-53.
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }

  /// Exponential with the given mean (inversion; 1 − u lies in (0, 1], so the logarithm is finite).
  double exponential(double mean) { return -mean * std::log(1.0 - uniform()); }

  /// Two independent standard normal values (Marsaglia's polar method).
  void normal_pair(double& a, double& b) {
    double u = 0.0;
    double v = 0.0;
    double s = 0.0;
    do {
      u = 2.0 * uniform() - 1.0;
      v = 2.0 * uniform() - 1.0;
      s = u * u + v * v;
    } while (s >= 1.0 || s == 0.0);
    const double factor = std::sqrt(-2.0 * std::log(s) / s);
    a = u * factor;
    b = v * factor;
  }

  /// Poisson with the given mean, exact for every mean: sequential inversion, whose cost is about the mean and
  /// so constant per photon drawn; means above 500 are split into a sum of smaller Poisson draws, since e^-mean
  /// would underflow.
  std::uint64_t poisson(double mean) {
    assert(mean >= 0.0);
    constexpr double piece = 500.0;
    std::uint64_t total = 0;
    while (mean > piece) {
      total += poisson_inversion(piece);
      mean -= piece;
    }
    return total + poisson_inversion(mean);
  }

 private:
  std::uint64_t state[4];

  static std::uint64_t rotl(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

  std::uint64_t poisson_inversion(double mean) {
    const double u = uniform();
    double probability = std::exp(-mean);
    double cumulative = probability;
    std::uint64_t k = 0;
    // The upper bound on k only guards against rounding leaving the cumulative sum just below u.
    while (u >= cumulative && k < 100000) {
      ++k;
      probability *= mean / static_cast<double>(k);
      cumulative += probability;
      if (probability == 0.0 && static_cast<double>(k) > mean) break;
    }
    return k;
  }
};

}  // namespace kovra::simulate
