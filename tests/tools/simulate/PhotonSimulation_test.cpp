// The photon model: the shape of the file (time order, bounds, whole pixels, triggers), the flash of every
// photon, that a seed fixes both whatever the slicing, and that the physics comes out as set. Every run has a
// fixed seed and the statistical bounds are about five standard errors wide, so they never flake.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <span>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "kovra/tpx3spidr/Tpx3Spidr.hpp"
#include "simulate/PhotonSimulation.hpp"

using namespace kovra::simulate;

namespace {

constexpr double tick = Time::tick_seconds;

struct Simulated_Run {
  Simulation_Result result;
  std::vector<True_Event> truth;
  std::vector<std::int64_t> flashOfPhoton;
};

Simulated_Run simulate(const Simulation_Settings& settings, long sliceTicks = 0) {
  Simulated_Run run;
  run.result = simulate_photonEvents_withFlashes(
      settings, [&](const True_Event& e) { run.truth.push_back(e); },
      [&](std::span<const std::int64_t> f) { run.flashOfPhoton.insert(run.flashOfPhoton.end(), f.begin(), f.end()); },
      sliceTicks);
  return run;
}

/// The same photons, and the same flash for each.
bool same_photons(const Simulated_Run& a, const Simulated_Run& b) {
  const auto &pa = a.result.photons.photonEvents, &pb = b.result.photons.photonEvents;
  return pa.size() == pb.size() && std::memcmp(pa.data(), pb.data(), pa.size() * sizeof(PhotonEvent)) == 0 &&
         a.flashOfPhoton == b.flashOfPhoton;
}

// Overlapping flashes and dark counts on a detector wider than it is high, snapped to whole pixels; a slow
// decay long enough for light to spread over many slices and past the end of the acquisition.
Simulation_Settings busy() {
  Simulation_Settings s;
  s.duration_s = 0.004, s.eventRate_Hz = 2.0e6, s.darkRate_Hz = 1.0e6, s.height_px = 64, s.snapToPixels = true;
  s.tauSlow_s = 2e-6, s.seed = 1;
  return s;
}

}  // namespace

TEST(PhotonSimulationTest, PhotonsAreOrderedInsideTheAcquisitionLabelledAndFixedBySeedWhateverTheSlicing) {
  Simulation_Settings s = busy();
  s.flashesFrom_s = 0.003;  // flashes in the last quarter only, dark counts from zero
  const Simulated_Run first = simulate(s);
  const auto& r = first.result;
  const auto& photons = r.photons.photonEvents;
  EXPECT_TRUE(std::is_sorted(photons.begin(), photons.end(),
                             [](const PhotonEvent& a, const PhotonEvent& b) { return a.toa < b.toa; }));
  const long endTicks = static_cast<long>(std::ceil(s.duration_s / tick));
  ASSERT_EQ(first.flashOfPhoton.size(), photons.size());
  std::vector<std::uint64_t> perFlash(first.truth.size(), 0);
  for (std::size_t i = 0; i < photons.size(); ++i) {
    const PhotonEvent& p = photons[i];
    ASSERT_TRUE(p.toa.value >= 0 && p.toa.value < endTicks) << p.toa.value;
    ASSERT_TRUE(p.x.value >= 0 && p.x.get_pixels() < 256.0 && p.y.value >= 0 && p.y.get_pixels() < 64.0);
    ASSERT_TRUE(p.x.value % Length::units_per_pixel == 0 && p.y.value % Length::units_per_pixel == 0);
    // The flash that sent it (-1: a dark count): light comes after the flash, around it (sigma 1 pixel).
    const std::int64_t f = first.flashOfPhoton[i];
    ASSERT_TRUE(f >= -1 && f < static_cast<std::int64_t>(first.truth.size())) << f;
    if (f < 0) continue;
    const True_Event& flash = first.truth[static_cast<std::size_t>(f)];
    ++perFlash[static_cast<std::size_t>(f)];
    ASSERT_GE(p.toa.get_seconds(), flash.t_s - tick) << i;
    ASSERT_LT(std::hypot(p.x.get_pixels() - flash.x_px, p.y.get_pixels() - flash.y_px), 8.0) << i;
  }
  EXPECT_EQ(photons.size(), r.nEventPhotons + r.nDarkPhotons);
  EXPECT_EQ(std::ranges::count(first.flashOfPhoton, -1), static_cast<long>(r.nDarkPhotons));
  ASSERT_EQ(first.truth.size(), r.nEvents);
  for (std::size_t f = 0; f < first.truth.size(); ++f) {
    ASSERT_GE(first.truth[f].t_s, 0.003);
    ASSERT_EQ(perFlash[f], first.truth[f].nPhotons) << f;
  }
  EXPECT_NEAR(static_cast<double>(r.nEvents), 2000.0, 230.0);  // 2e6 per second over 1 ms
  EXPECT_NEAR(static_cast<double>(r.nDarkPhotons), 4000.0, 320.0);

  // Slices far shorter than a flash's light, and the whole acquisition in one.
  for (const long slice : {7L, 10000000L}) EXPECT_TRUE(same_photons(first, simulate(s, slice))) << slice;
  s.seed = 2;
  EXPECT_FALSE(same_photons(first, simulate(s)));
}

TEST(PhotonSimulationTest, HotPixelsFireAtTheirRateOnFewPixelsWhateverTheSlicing) {
  Simulation_Settings s = busy();
  s.darkRate_Hz = 0.0, s.eventRate_Hz = 1.0e5;
  const Simulated_Run plain = simulate(s);
  s.hotPixels = 3, s.hotPixelRate_Hz = 2.0e6;  // 8000 hits each over 4 ms
  const Simulated_Run hot = simulate(s);
  const auto& photons = hot.result.photons.photonEvents;
  // The flashes are those of the run without hot pixels; the extra photons sit on three fixed pixels.
  ASSERT_EQ(hot.truth.size(), plain.truth.size());
  EXPECT_EQ(hot.result.nEventPhotons, plain.result.nEventPhotons);
  EXPECT_EQ(photons.size(), hot.result.nEventPhotons + hot.result.nDarkPhotons);
  EXPECT_NEAR(static_cast<double>(hot.result.nDarkPhotons), 24000.0, 800.0);
  EXPECT_TRUE(std::is_sorted(photons.begin(), photons.end(),
                             [](const PhotonEvent& a, const PhotonEvent& b) { return a.toa < b.toa; }));
  std::map<std::pair<int, int>, std::size_t> perPlace;
  for (const auto& p : photons) ++perPlace[{p.x.value, p.y.value}];
  std::vector<std::size_t> runs;  // photons per place, for places hit more than 1000 times
  for (const auto& [place, n] : perPlace)
    if (n > 1000) runs.push_back(n);
  ASSERT_EQ(runs.size(), 3u);
  for (const std::size_t n : runs) EXPECT_NEAR(static_cast<double>(n), 8000.0, 450.0);
  for (const long slice : {7L, 10000000L}) EXPECT_TRUE(same_photons(hot, simulate(s, slice))) << slice;
}

TEST(PhotonSimulationTest, TriggersAreAbsentEmptyOrPeriodicFromZero) {
  // Expected count, -1 for no trigger list; at 1 kHz over 4 ms every 640000 ticks, the end excluded.
  for (const auto& [mode, frequency_Hz, count] :
       {std::tuple{Trigger_Mode::absent, 0.0, -1}, {Trigger_Mode::empty, 0.0, 0}, {Trigger_Mode::periodic, 1e3, 4}}) {
    Simulation_Settings s;
    s.duration_s = 0.004, s.triggerMode = mode, s.triggerFrequency_Hz = frequency_Hz;
    const auto triggers = simulate(s).result.photons.extTriggers;
    ASSERT_EQ(triggers ? static_cast<int>(triggers->size()) : -1, count);
    for (std::size_t k = 0; triggers && k < triggers->size(); ++k)
      EXPECT_EQ((*triggers)[k].value, 640000 * static_cast<long>(k)) << k;
  }
}

// Flashes so rare that each one's photons lie between its start and the next flash's start; more than 500
// photons per flash, which the Poisson draw splits into pieces.
TEST(PhotonSimulationTest, RatesSpreadDecaysAndPulseShapeComeOutAsSet) {
  Simulation_Settings s;
  s.duration_s = 4.0, s.eventRate_Hz = 200.0, s.photonsPerEvent = 600.0, s.sigma_px = 1.5, s.darkRate_Hz = 0.0;
  s.width_px = 1024, s.height_px = 512, s.classes = {{"gamma", 1.0, 0.1}, {"neutron", 3.0, 0.4}}, s.seed = 3;
  const Simulated_Run run = simulate(s);
  const auto& photons = run.result.photons.photonEvents;
  double nPhotons = 0.0, flashX = 0.0, spreadSquares = 0.0, delay[2] = {}, nInClass[2] = {};
  std::vector<double> psd[2];
  std::size_t next = 0;
  for (std::size_t e = 0; e < run.truth.size(); ++e) {
    const auto& flash = run.truth[e];
    const long nextStart = e + 1 < run.truth.size() ? static_cast<long>(run.truth[e + 1].t_s / tick) : 1L << 62;
    std::vector<PhotonEvent> group;
    while (next < photons.size() && photons[next].toa.value < nextStart) group.push_back(photons[next++]);
    ASSERT_TRUE(!group.empty() && group.size() == flash.nPhotons) << "flash " << e;
    kovra::tpx3spidr::PhotonEventChain chain(group[0]);
    for (std::size_t i = 1; i < group.size(); ++i) chain.add_photon(group[i]);
    psd[flash.classIndex].push_back(chain.psd.value);
    for (const auto& p : group) {
      spreadSquares += std::pow(p.x.get_pixels() - flash.x_px, 2) + std::pow(p.y.get_pixels() - flash.y_px, 2);
      delay[flash.classIndex] += p.toa.get_seconds() - flash.t_s, nInClass[flash.classIndex] += 1.0;
    }
    nPhotons += static_cast<double>(group.size()), flashX += flash.x_px;
  }

  const double n = static_cast<double>(run.truth.size());
  const struct {
    const char* what;
    double measured, expected, tolerance;
  } stats[] = {
      {"flashes", n, 800.0, 140.0},
      {"mean flash x (px)", flashX / n, 512.0, 60.0},
      {"share of neutrons", static_cast<double>(psd[1].size()) / n, 0.75, 0.08},
      {"photons per flash", nPhotons / n, 600.0, 6.0},  // a few lost over the detector's edges
      {"spread per axis", std::sqrt(spreadSquares / (2.0 * nPhotons)), 1.5, 0.03},
      // Fast 5 ns and slow 150 ns; truncation to the tick takes half a tick off.
      {"gamma mean delay (s)", delay[0] / nInClass[0], 0.9 * 5e-9 + 0.1 * 150e-9 - 0.5 * tick, 1e-9},
      {"neutron mean delay (s)", delay[1] / nInClass[1], 0.6 * 5e-9 + 0.4 * 150e-9 - 0.5 * tick, 1e-9},
  };
  for (const auto& stat : stats) EXPECT_NEAR(stat.measured, stat.expected, stat.tolerance) << stat.what;
  // The pulse-shape value (mean delay to the first photon) of every gamma lies below that of every neutron.
  EXPECT_LT(*std::max_element(psd[0].begin(), psd[0].end()), *std::min_element(psd[1].begin(), psd[1].end()));
}
