#pragma once

// The photon model of the simulator. Particles hit a scintillator as a Poisson process in time, each at a
// uniformly random place on the detector; each flash sends a Poisson number of photons, spread around the hit
// with a Gaussian in space and delayed by a two-component (fast, slow) scintillation decay whose slow share
// depends on the particle class. Dark counts add uniform photons. The photons are quantised to the camera's
// 1.5625 ns tick and come out in non-decreasing time, as the camera writes them. Hot pixels, if asked for, are
// pixels at uniformly random places that each fire single photons as a Poisson process of their own rate.
//
// Generation runs slice by slice in time: the flashes of one slice are drawn, their photons sorted, and those
// earlier than the slice's end are final, because every later flash starts at or after it; the rest carry over
// into the next slice. Flashes and dark counts draw from two separate generators, so the slice length changes
// nothing in the result.

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Spidr.hpp"
#include "simulate/Random.hpp"

namespace kovra::simulate {

using kovra::tpx3spidr::Data_PhotonEvents;
using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::Time;

/// A kind of particle: its share of the flashes (relative weight) and the share of its light in the slow decay.
struct Particle_Class {
  std::string name;
  double weight;
  double slowFraction;
};

enum class Trigger_Mode { absent, empty, periodic };

/// Every setting of one simulation, in the units of the command line (seconds, hertz, pixels).
struct Simulation_Settings {
  double duration_s = 1.0;
  double eventRate_Hz = 1.0e5;
  double photonsPerEvent = 20.0;
  double sigma_px = 1.0;
  int width_px = 256;
  int height_px = 256;
  bool snapToPixels = false;
  double tauFast_s = 5.0e-9;
  double tauSlow_s = 150.0e-9;
  std::vector<Particle_Class> classes = {{"gamma", 0.7, 0.10}, {"neutron", 0.3, 0.35}};
  double flashesFrom_s = 0.0;  ///< no flash before this time: a dark start, the beam switched on later
  double darkRate_Hz = 1.0e3;
  int hotPixels = 0;  ///< pixels firing on their own, each at hotPixelRate_Hz
  double hotPixelRate_Hz = 0.0;
  Trigger_Mode triggerMode = Trigger_Mode::absent;
  double triggerFrequency_Hz = 0.0;
  std::uint64_t seed = 1;

  /// Photons expected before losses at the detector's edges and the end of the acquisition.
  double get_expectedPhotons() const {
    return std::max(0.0, duration_s - flashesFrom_s) * eventRate_Hz * photonsPerEvent +
           duration_s * (darkRate_Hz + hotPixels * hotPixelRate_Hz);
  }
};

/// More flashes than a run with these settings can have, short of a Poisson draw 10 standard deviations out (the
/// room a flash file is made with).
inline std::uint64_t get_flashBound(const Simulation_Settings& settings) {
  const double expected = settings.duration_s * settings.eventRate_Hz;
  return static_cast<std::uint64_t>(std::min(expected + 10.0 * std::sqrt(expected) + 1024.0, 0x1.0p63));
}

/// One simulated flash as it really happened: start time, position, photons that reached the file, class.
struct True_Event {
  double t_s;
  double x_px;
  double y_px;
  std::uint64_t nPhotons;
  std::size_t classIndex;
};

/// How many flashes and photons a run drew.
struct Simulation_Counts {
  std::uint64_t nEvents = 0;
  std::uint64_t nEventPhotons = 0;
  std::uint64_t nDarkPhotons = 0;  ///< photons of no flash: dark counts and hot-pixel hits
};

/// The photon file's content and the counts behind it.
struct Simulation_Result : Simulation_Counts {
  Data_PhotonEvents photons;
};

/// No per-photon flash index wanted.
struct PhotonFlashes_None {};

/// The trigger times of a run, in order, one at a time: none at all (`absent`), an empty list, or one every
/// period from time 0 up to the end of the acquisition. Drawn when asked, so a long run holds none of them.
class Trigger_Times {
 public:
  explicit Trigger_Times(const Simulation_Settings& settings)
      : mode(settings.triggerMode),
        end(settings.duration_s / Time::tick_seconds),
        period(mode == Trigger_Mode::periodic ? 1.0 / (settings.triggerFrequency_Hz * Time::tick_seconds) : 0.0) {}

  /// Whether the file carries a trigger list at all (it may be empty).
  bool present() const { return mode != Trigger_Mode::absent; }

  /// The next trigger time into `time`; false once there is none left.
  bool next(Time& time) {
    if (mode != Trigger_Mode::periodic || static_cast<double>(k) * period >= end) return false;
    time = Time{static_cast<long>(static_cast<double>(k) * period)};
    ++k;
    return true;
  }

 private:
  Trigger_Mode mode;
  double end;
  double period;
  std::uint64_t k = 0;
};

namespace simulation_detail {

/// A photon of the slice being drawn, with the index of its flash (-1 for a dark count).
struct Slice_Photon {
  PhotonEvent photon;
  std::int64_t flash;
};

/// Stable least-significant-digit radix sort of photons by time of arrival, all at or after `origin`.
inline void sort_byToa(std::vector<Slice_Photon>& photons, std::vector<Slice_Photon>& scratch, long origin) {
  if (photons.size() < 2) return;
  std::uint64_t maxKey = 0;
  for (const auto& p : photons) {
    assert(p.photon.toa.value >= origin);
    maxKey = std::max(maxKey, static_cast<std::uint64_t>(p.photon.toa.value - origin));
  }
  // As few passes as the key width needs, with digits of at most 11 bits (a count table that stays in cache).
  const int keyBits = static_cast<int>(std::bit_width(maxKey));
  const int nPasses = (keyBits + 10) / 11;
  if (nPasses == 0) return;
  const int digitBits = (keyBits + nPasses - 1) / nPasses;
  const std::size_t nBuckets = std::size_t{1} << digitBits;
  scratch.resize(photons.size());
  std::array<std::size_t, 2048> offsets{};
  for (int pass = 0; pass < nPasses; ++pass) {
    const int shift = pass * digitBits;
    const auto digit = [&](const Slice_Photon& p) {
      return static_cast<std::size_t>((static_cast<std::uint64_t>(p.photon.toa.value - origin) >> shift) &
                                      (nBuckets - 1));
    };
    std::fill_n(offsets.begin(), nBuckets, 0);
    for (const auto& p : photons) ++offsets[digit(p)];
    std::size_t sum = 0;
    for (std::size_t b = 0; b < nBuckets; ++b) sum += std::exchange(offsets[b], sum);
    for (const auto& p : photons) scratch[offsets[digit(p)]++] = p;
    photons.swap(scratch);
  }
}

}  // namespace simulation_detail

namespace simulation_detail {

/// The sources of one acquisition, drawn slice by slice: flashes, dark counts and hot pixels, each from its own
/// generator, into one buffer of photons not yet final. The draws happen in the same order for every slice length.
class Photon_Sources {
 public:
  explicit Photon_Sources(const Simulation_Settings& settings_)
      : settings(settings_),
        end(settings.duration_s / tick),
        eventGap(settings.eventRate_Hz > 0.0 ? 1.0 / (settings.eventRate_Hz * tick) : 0.0),
        darkGap(settings.darkRate_Hz > 0.0 ? 1.0 / (settings.darkRate_Hz * tick) : 0.0),
        hotGap(settings.hotPixelRate_Hz > 0.0 ? 1.0 / (settings.hotPixelRate_Hz * tick) : 0.0),
        eventRandom(settings.seed),
        darkRandom(~settings.seed) {
    assert(!settings.classes.empty());
    for (const auto& c : settings.classes) totalWeight += c.weight;
    nextEvent = eventGap > 0.0 ? settings.flashesFrom_s / tick + eventRandom.exponential(eventGap) : end;
    nextDark = darkGap > 0.0 ? darkRandom.exponential(darkGap) : end;
    place_hotPixels();
  }

  /// The acquisition's end in ticks; photons at or after it are lost.
  double get_end() const { return end; }

  /// A slice of about 16 thousand photons, small enough for the sort to run in cache.
  long get_defaultSliceTicks() const {
    const double photonsPerTick = settings.get_expectedPhotons() / std::max(end, 1.0);
    const double ticks = photonsPerTick > 0.0 ? std::clamp(0x1.0p14 / photonsPerTick, 1024.0, 0x1.0p40) : end + 1.0;
    return static_cast<long>(ticks);
  }

  /// Draws every flash starting before `sliceEnd`, handing each to `onEvent` once its photons are drawn.
  template <typename OnEvent_Type>
  void draw_flashes(double sliceEnd, std::vector<Slice_Photon>& buffer, Simulation_Counts& counts,
                    OnEvent_Type&& onEvent) {
    for (; nextEvent < sliceEnd; nextEvent += eventRandom.exponential(eventGap)) {
      const std::size_t classIndex = pick_class();
      const double x0 = eventRandom.uniform() * settings.width_px;
      const double y0 = eventRandom.uniform() * settings.height_px;
      const std::uint64_t nDetected = draw_flashPhotons(x0, y0, settings.classes[classIndex].slowFraction,
                                                        static_cast<std::int64_t>(counts.nEvents), buffer);
      ++counts.nEvents;
      counts.nEventPhotons += nDetected;
      onEvent(True_Event{nextEvent * tick, x0, y0, nDetected, classIndex});
    }
  }

  /// Draws the dark counts and hot-pixel hits before `sliceEnd`.
  void draw_strays(double sliceEnd, std::vector<Slice_Photon>& buffer, Simulation_Counts& counts) {
    for (; nextDark < sliceEnd; nextDark += darkRandom.exponential(darkGap)) {
      const double x = darkRandom.uniform() * settings.width_px;
      const double y = darkRandom.uniform() * settings.height_px;
      buffer.push_back({PhotonEvent{to_units(x), to_units(y), Time{static_cast<long>(nextDark)}}, -1});
      ++counts.nDarkPhotons;
    }
    for (auto& hot : hotPixels) {
      for (; hot.next < sliceEnd; hot.next += hot.random.exponential(hotGap)) {
        buffer.push_back({PhotonEvent{hot.x, hot.y, Time{static_cast<long>(hot.next)}}, -1});
        ++counts.nDarkPhotons;
      }
    }
  }

 private:
  static constexpr double tick = Time::tick_seconds;

  // Each hot pixel draws its place and its firing times from a generator of its own, so that neither the slice
  // length nor the other sources change them.
  struct Hot_Pixel {
    Random_Generator random;
    Length x;
    Length y;
    double next;
  };

  void place_hotPixels() {
    for (int k = 0; k < settings.hotPixels && hotGap > 0.0; ++k) {
      const std::uint64_t number = static_cast<std::uint64_t>(k) + 1;
      Random_Generator random(settings.seed ^ (std::uint64_t{0x9E3779B97F4A7C15} * number));
      const double x = std::floor(random.uniform() * settings.width_px);
      const double y = std::floor(random.uniform() * settings.height_px);
      const double first = random.exponential(hotGap);
      hotPixels.push_back(Hot_Pixel{random, to_units(x), to_units(y), first});
    }
  }

  std::size_t pick_class() {
    double pick = eventRandom.uniform() * totalWeight;
    std::size_t classIndex = 0;
    while (classIndex + 1 < settings.classes.size() && pick >= settings.classes[classIndex].weight) {
      pick -= settings.classes[classIndex].weight;
      ++classIndex;
    }
    return classIndex;
  }

  /// Draws the photons of the flash at (x0, y0) starting at `nextEvent`; returns how many reached the detector
  /// before the end.
  std::uint64_t draw_flashPhotons(double x0, double y0, double slowFraction, std::int64_t flash,
                                  std::vector<Slice_Photon>& buffer) {
    const double tauFast = settings.tauFast_s / tick;
    const double tauSlow = settings.tauSlow_s / tick;
    const std::uint64_t nEmitted = eventRandom.poisson(settings.photonsPerEvent);
    std::uint64_t nDetected = 0;
    for (std::uint64_t i = 0; i < nEmitted; ++i) {
      // One uniform picks the component and, rescaled, gives that component's exponential delay.
      const double u = eventRandom.uniform();
      const double delay = u < slowFraction ? -tauSlow * std::log(1.0 - u / slowFraction)
                                            : -tauFast * std::log(1.0 - (u - slowFraction) / (1.0 - slowFraction));
      const double x = x0 + settings.sigma_px * eventRandom.normal();
      const double y = y0 + settings.sigma_px * eventRandom.normal();
      const double t = nextEvent + delay;
      if (x < 0.0 || x >= settings.width_px || y < 0.0 || y >= settings.height_px || t >= end) continue;
      buffer.push_back({PhotonEvent{to_units(x), to_units(y), Time{static_cast<long>(t)}}, flash});
      ++nDetected;
    }
    return nDetected;
  }

  Length to_units(double pixels) const {
    const double units = settings.snapToPixels ? std::floor(pixels) * Length::units_per_pixel
                                               : std::floor(pixels * Length::units_per_pixel);
    return Length{static_cast<int>(units)};
  }

  const Simulation_Settings& settings;
  double end;
  double eventGap;
  double darkGap;
  double hotGap;
  double totalWeight = 0.0;
  Random_Generator eventRandom;
  Random_Generator darkRandom;
  double nextEvent = 0.0;
  double nextDark = 0.0;
  std::vector<Hot_Pixel> hotPixels;
};

/// The photons drawn and not yet handed on, and room to sort and hand them on: what one slice needs.
struct Slice_Buffers {
  std::vector<Slice_Photon> pending;
  std::vector<Slice_Photon> scratch;
  std::vector<PhotonEvent> photons;
  std::vector<std::int64_t> flashes;

  /// Hands on the pending photons earlier than `finalBefore` (all at or after `sliceBegin`) in time order, keeping
  /// the rest for the next slice.
  template <typename OnSlice_Type>
  void release_final(long sliceBegin, long finalBefore, OnSlice_Type&& onSlice) {
    sort_byToa(pending, scratch, sliceBegin);
    const auto firstCarried = std::partition_point(
        pending.begin(), pending.end(), [&](const Slice_Photon& p) { return p.photon.toa.value < finalBefore; });
    photons.clear();
    flashes.clear();
    for (auto p = pending.begin(); p != firstCarried; ++p) {
      photons.push_back(p->photon);
      flashes.push_back(p->flash);
    }
    if (!photons.empty()) onSlice(std::span<const PhotonEvent>(photons), std::span<const std::int64_t>(flashes));
    pending.erase(pending.begin(), firstCarried);
  }
};

}  // namespace simulation_detail

/// Draws the flashes and dark counts of one acquisition. Each flash goes to `onEvent` (a `True_Event`, in time
/// order) once its photons are drawn; the photons go to `onSlice(std::span<const PhotonEvent>,
/// std::span<const std::int64_t>)` a slice at a time, in file order, with the flash index of each photon (its
/// flash's position in the `onEvent` calls, -1 for a dark count). Memory stays with one slice: `sliceTicks` 0
/// picks a slice of about 16 thousand photons, small enough for the sort to run in cache.
template <typename OnEvent_Type, typename OnSlice_Type>
Simulation_Counts simulate_photonSlices(const Simulation_Settings& settings, OnEvent_Type&& onEvent,
                                        OnSlice_Type&& onSlice, long sliceTicks = 0) {
  simulation_detail::Photon_Sources sources(settings);
  if (sliceTicks <= 0) sliceTicks = sources.get_defaultSliceTicks();
  Simulation_Counts counts;
  simulation_detail::Slice_Buffers buffers;
  for (long sliceBegin = 0; static_cast<double>(sliceBegin) < sources.get_end(); sliceBegin += sliceTicks) {
    const double sliceEnd = std::min(static_cast<double>(sliceBegin + sliceTicks), sources.get_end());
    sources.draw_flashes(sliceEnd, buffers.pending, counts, onEvent);
    sources.draw_strays(sliceEnd, buffers.pending, counts);
    buffers.release_final(sliceBegin, sliceBegin + sliceTicks, onSlice);
  }
  assert(buffers.pending.empty());
  return counts;
}

/// The whole acquisition in memory: photons, trigger list and counts. `onPhotonFlashes`, unless
/// PhotonFlashes_None, receives the flash index of every photon in photon order, a slice at a time, as a
/// std::span<const std::int64_t>.
template <typename OnEvent_Type, typename OnPhotonFlashes_Type>
Simulation_Result simulate_photonEvents_withFlashes(const Simulation_Settings& settings, OnEvent_Type&& onEvent,
                                                    OnPhotonFlashes_Type&& onPhotonFlashes, long sliceTicks) {
  constexpr bool keepFlashes = !std::is_same_v<std::remove_cvref_t<OnPhotonFlashes_Type>, PhotonFlashes_None>;
  Simulation_Result result;
  auto& output = result.photons.photonEvents;
  static_cast<Simulation_Counts&>(result) = simulate_photonSlices(
      settings, std::forward<OnEvent_Type>(onEvent),
      [&](std::span<const PhotonEvent> photons, std::span<const std::int64_t> flashes) {
    output.insert(output.end(), photons.begin(), photons.end());
    if constexpr (keepFlashes) onPhotonFlashes(flashes);
      },
      sliceTicks);
  Trigger_Times triggers(settings);
  if (triggers.present()) {
    auto& list = result.photons.extTriggers.emplace();
    for (Time t; triggers.next(t);) list.push_back(t);
  }
  return result;
}

/// The simulation without per-photon flash indexes.
template <typename OnEvent_Type>
Simulation_Result simulate_photonEvents(const Simulation_Settings& settings, OnEvent_Type&& onEvent,
                                        long sliceTicks = 0) {
  return simulate_photonEvents_withFlashes(settings, std::forward<OnEvent_Type>(onEvent), PhotonFlashes_None{},
                                           sliceTicks);
}

}  // namespace kovra::simulate
