#pragma once

// Random photon lists and search settings for the tests that check the algorithms as a whole: positions on a
// coarse grid and small, often equal time gaps, so that equal distances and equal times (the boundaries of every
// test) come up often.

#include <algorithm>
#include <cstddef>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace random_photons {

using kovra::tpx3spidr::Data_PhotonEvents;
using kovra::tpx3spidr::Event;
using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::Reconstruction_Events;
using kovra::tpx3spidr::Time;

inline PhotonEvent photon(int x, int y, long t) { return PhotonEvent{Length{x}, Length{y}, Time{t}}; }

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

/// Photons in flashes of four on a square `side` steps wide, each up to `spread` steps from its flash's corner;
/// `perTick` photons per tick on average, times quantised so that ties are common. A step is `step` raw units.
struct Flashes {
  double perTick;
  long t0 = 1000;
  int side = 40, spread = 2, step = 1;
};
inline std::vector<PhotonEvent> flashes(unsigned seed, std::size_t n, const Flashes& f) {
  std::mt19937_64 random(seed);
  auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
  std::vector<PhotonEvent> photons;
  double t = static_cast<double>(f.t0);
  while (photons.size() < n) {
    t += std::exponential_distribution<double>(f.perTick / 4)(random);
    const int x = uniform(0, f.side), y = uniform(0, f.side);
    for (int k = 0; k < 4 && photons.size() < n; ++k) {
      photons.push_back(photon((x + uniform(0, f.spread)) * f.step, (y + uniform(0, f.spread)) * f.step,
                               static_cast<long>(t) + uniform(0, 3)));
    }
  }
  std::ranges::stable_sort(photons, {}, [](const PhotonEvent& p) { return p.toa.value; });
  return photons;
}

/// One search setting, in raw units.
struct Settings {
  int dSpace;
  long dTime;
  long durationMax;
  std::optional<double> factor;
  Reconstruction_Events reconstruction() const { return {Length{dSpace}, Time{dTime}, factor, Time{durationMax}}; }
};
constexpr long unlimited = Time::max_ticks;
inline std::ostream& operator<<(std::ostream& out, const Settings& s) {
  return out << "dSpace " << s.dSpace << ", dTime " << s.dTime << ", durationMax " << s.durationMax << ", factor "
             << s.factor.value_or(-99);
}

/// Settings with and without a cap and a factor, on the lists of generate().
const Settings settingsTable[] = {
    {8, 5, unlimited, std::nullopt},
    {8, 5, 12, 0.5},
    {16, 3, 40, 1.0},
    {12, 6, 0, std::nullopt},
    {4, 0, unlimited, 2.5},
    {20, 8, 25, -0.3},
    {8, 5, 12, 0.0},
    {64, 10, 60, 0.25},
    // Crowded windows (a dozen to forty photons), where the ghost-photon chains count free photons by cell and the
    // full chain keeps its members' box and cells.
    {8, 30, unlimited, std::nullopt},
    {12, 40, 50, 0.5},
    {8, 90, 120, 0.1},
    {1, 60, unlimited, 1.0},
    {64, 90, unlimited, std::nullopt},
    // Pile-up (about a hundred photons per window), where the no-branch chains count free photons by cell too and
    // the ghost-photon chains look for their next photon in the cells' lists.
    {8, 240, unlimited, std::nullopt},
    {12, 200, 260, 0.5},
    {4, 300, 400, -0.3}};

/// The events as bytes: equal bytes are equal events, the pulse-shape value bit for bit.
inline std::string bytes_of(const std::vector<Event>& events) {
  return {reinterpret_cast<const char*>(events.data()), events.size() * sizeof(Event)};
}

}  // namespace random_photons
