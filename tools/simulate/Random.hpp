#pragma once

// The simulator's random numbers: a small, fast generator and the few distributions the photon model draws
// from. All of them are written out here rather than taken from <random>, whose distributions differ between
// standard libraries. What holds: the integer stream and uniform() are the same on every machine; the
// exponential, normal and Poisson draws (and the photon model) go through std::log, std::exp and std::sqrt of
// the C maths library, so a seed gives the same photon file for a given build and C library (Debian's glibc
// here), while another maths library may round a last bit differently and, rarely, move a photon by a clock
// tick or change a count.

#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

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

  /// Standard normal (Marsaglia and Tsang's ziggurat with 128 layers; layer and value from separate bits).
  double normal() {
    const auto& z = get_ziggurat();
    for (;;) {
      const std::uint64_t bits = next();
      const auto hz = static_cast<std::int32_t>(static_cast<std::uint32_t>(bits));
      const auto iz = static_cast<std::size_t>((bits >> 32) & 127);
      const double x = hz * z.w[iz];
      if (std::abs(static_cast<std::int64_t>(hz)) < z.k[iz]) return x;  // inside the layer's rectangle: most draws
      if (iz == 0) {                                                    // the tail beyond r
        double tx = 0.0;
        double ty = 0.0;
        do {
          tx = -std::log(1.0 - uniform()) / Ziggurat::r;
          ty = -std::log(1.0 - uniform());
        } while (ty + ty < tx * tx);
        return hz > 0 ? Ziggurat::r + tx : -Ziggurat::r - tx;
      }
      if (z.f[iz] + uniform() * (z.f[iz - 1] - z.f[iz]) < std::exp(-0.5 * x * x)) return x;
    }
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

  /// The layers of the normal ziggurat for 32-bit signed draws: k, the draw below which a value is accepted at
  /// once; w, the scale from draw to value; f, the density at the layer's edge.
  struct Ziggurat {
    static constexpr double r = 3.442619855899;       // edge of the base layer
    static constexpr double v = 9.91256303526217e-3;  // area of each layer
    std::int64_t k[128];
    double w[128];
    double f[128];

    Ziggurat() {
      const double m = 2147483648.0;
      double d = r;
      double t = r;
      const double q = v / std::exp(-0.5 * d * d);
      k[0] = static_cast<std::int64_t>(d / q * m);
      k[1] = 0;
      w[0] = q / m;
      w[127] = d / m;
      f[0] = 1.0;
      f[127] = std::exp(-0.5 * d * d);
      for (int i = 126; i >= 1; --i) {
        d = std::sqrt(-2.0 * std::log(v / d + std::exp(-0.5 * d * d)));
        k[i + 1] = static_cast<std::int64_t>(d / t * m);
        t = d;
        f[i] = std::exp(-0.5 * d * d);
        w[i] = d / m;
      }
    }
  };

  static const Ziggurat& get_ziggurat() {
    static const Ziggurat ziggurat;
    return ziggurat;
  }

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
