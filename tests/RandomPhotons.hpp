#pragma once

// Random photon lists and search settings for the tests that check the algorithms as a whole: positions on a
// coarse grid and small, often equal time gaps, so that equal distances and equal times (the boundaries of every
// test) come up often.

#include <cstddef>
#include <optional>
#include <random>
#include <utility>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace random_photons {

using kovra::tpx3spidr::Data_PhotonEvents;
using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::Time;

enum class Disorder {
  none,            // in time order
  swapNeighbours,  // some neighbours swapped
  // some neighbours of different times swapped after moving the earlier one far from every other photon: it is
  // out of time order but can join no event, so no algorithm meets a photon earlier than its event's first one
  swapIsolated,
};

/// n photons from `seed`; the triggers, when asked for, are the latest photon time.
inline Data_PhotonEvents generate(unsigned seed, std::size_t n, Disorder disorder, bool withTrigger) {
  std::mt19937 random(seed);
  auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
  std::vector<PhotonEvent> list;
  long t = uniform(-50, 50);
  int isolated = 0;
  for (std::size_t i = 0; i < n; ++i) {
    t += uniform(0, 3) == 0 ? 0 : uniform(0, 6);
    list.push_back(PhotonEvent{Length{uniform(0, 12) * 4}, Length{uniform(0, 12) * 4}, Time{t}});
    if (disorder == Disorder::swapNeighbours && i > 0 && uniform(0, 7) == 0) std::swap(list[i - 1], list[i]);
    if (disorder == Disorder::swapIsolated && i > 0 && list[i - 1].toa < list[i].toa && uniform(0, 7) == 0) {
      list[i - 1].x = Length{1000 + 1000 * ++isolated};
      std::swap(list[i - 1], list[i]);
    }
  }
  std::optional<std::vector<Time>> triggers;
  if (withTrigger) triggers = std::vector<Time>{Time{t}};
  return Data_PhotonEvents{std::move(list), std::move(triggers)};
}

/// One search setting, in raw units.
struct Settings {
  int dSpace;
  long dTime;
  long durationMax;
  std::optional<double> factor;
};
constexpr long unlimited = Time::max_ticks;

}  // namespace random_photons
