// The photon model: the shape of the file it produces (time order, quantisation, bounds, triggers), that a
// seed fixes it whatever the slicing, and that the physics comes out as set: rates, photon counts, spatial
// spread, decay times per class and the pulse-shape separation of the classes.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
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
};

Simulated_Run simulate(const Simulation_Settings& settings, long sliceTicks = 0) {
  Simulated_Run run;
  run.result = simulate_photonEvents(settings, [&](const True_Event& e) { run.truth.push_back(e); }, sliceTicks);
  return run;
}

bool same_photons(const std::vector<PhotonEvent>& a, const std::vector<PhotonEvent>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(PhotonEvent)) == 0;
}

}  // namespace

// A busy acquisition with every kind of photon: flashes that overlap, dark counts, triggers.
class SimulatedFileTest : public ::testing::Test {
 protected:
  static Simulation_Settings busy() {
    Simulation_Settings s;
    s.duration_s = 0.004;
    s.eventRate_Hz = 2.0e6;
    s.darkRate_Hz = 1.0e6;
    s.triggerMode = Trigger_Mode::periodic;
    s.triggerFrequency_Hz = 1000.0;
    s.seed = 5;
    return s;
  }
  Simulated_Run run = simulate(busy());
};

TEST_F(SimulatedFileTest, PhotonsAreInTimeOrderInsideDetectorAndAcquisition) {
  const auto& photons = run.result.photons.photonEvents;
  ASSERT_GT(photons.size(), 100000u);
  EXPECT_TRUE(std::is_sorted(photons.begin(), photons.end(),
                             [](const PhotonEvent& a, const PhotonEvent& b) { return a.toa < b.toa; }));
  const long endTicks = static_cast<long>(std::ceil(busy().duration_s / tick));
  const int limit = 256 * Length::units_per_pixel;
  for (const auto& p : photons) {
    ASSERT_GE(p.toa.value, 0);
    ASSERT_LT(p.toa.value, endTicks);
    ASSERT_TRUE(p.x.value >= 0 && p.x.value < limit && p.y.value >= 0 && p.y.value < limit);
  }
}

TEST_F(SimulatedFileTest, CountsAndTrueFlashesAgree) {
  const auto& r = run.result;
  EXPECT_EQ(r.photons.size(), r.nEventPhotons + r.nDarkPhotons);
  ASSERT_EQ(run.truth.size(), r.nEvents);
  std::uint64_t sum = 0;
  for (const auto& e : run.truth) sum += e.nPhotons;
  EXPECT_EQ(sum, r.nEventPhotons);
  EXPECT_TRUE(std::is_sorted(run.truth.begin(), run.truth.end(),
                             [](const True_Event& a, const True_Event& b) { return a.t_s < b.t_s; }));
  EXPECT_LT(run.truth.back().t_s, busy().duration_s);
  // Poisson counts: 8000 flashes and 4000 dark counts expected.
  EXPECT_NEAR(static_cast<double>(r.nEvents), 8000.0, 450.0);
  EXPECT_NEAR(static_cast<double>(r.nDarkPhotons), 4000.0, 320.0);
}

TEST_F(SimulatedFileTest, PeriodicTriggersStartAtZeroAndFillTheAcquisition) {
  ASSERT_TRUE(run.result.photons.extTriggers.has_value());
  const auto& triggers = *run.result.photons.extTriggers;
  ASSERT_EQ(triggers.size(), 4u);  // 0, 1, 2, 3 ms; 4 ms is the end
  for (std::size_t k = 0; k < triggers.size(); ++k) EXPECT_EQ(triggers[k].value, static_cast<long>(k) * 640000);
}

TEST_F(SimulatedFileTest, SeedFixesTheFileAndSlicingChangesNothing) {
  const Simulated_Run again = simulate(busy());
  EXPECT_TRUE(same_photons(run.result.photons.photonEvents, again.result.photons.photonEvents));
  // Slices far shorter than a flash's light, a few flashes long, and the whole acquisition at once.
  for (const long slice : {7L, 1000L, 10000000L}) {
    SCOPED_TRACE(slice);
    const Simulated_Run sliced = simulate(busy(), slice);
    EXPECT_TRUE(same_photons(run.result.photons.photonEvents, sliced.result.photons.photonEvents));
  }
  auto other = busy();
  other.seed = 6;
  EXPECT_FALSE(same_photons(run.result.photons.photonEvents, simulate(other).result.photons.photonEvents));
}

TEST(SimulationTriggerTest, AbsentAndEmptyAreDifferentStates) {
  Simulation_Settings s;
  s.duration_s = 0.001;
  EXPECT_FALSE(simulate(s).result.photons.extTriggers.has_value());
  s.triggerMode = Trigger_Mode::empty;
  const auto triggers = simulate(s).result.photons.extTriggers;
  ASSERT_TRUE(triggers.has_value());
  EXPECT_TRUE(triggers->empty());
}

// Flashes so rare that each one's photons can be told apart by time alone: they lie between its start and the
// next flash's start.
class IsolatedFlashesTest : public ::testing::Test {
 protected:
  static constexpr double sigma = 1.5;
  static constexpr double meanPhotons = 30.0;
  static constexpr double tauFast = 5e-9;
  static constexpr double tauSlow = 150e-9;

  void SetUp() override {
    Simulation_Settings s;
    s.duration_s = 2.0;
    s.eventRate_Hz = 200.0;
    s.photonsPerEvent = meanPhotons;
    s.sigma_px = sigma;
    s.width_px = 1024;
    s.height_px = 1024;
    s.darkRate_Hz = 0.0;
    s.tauFast_s = tauFast;
    s.tauSlow_s = tauSlow;
    s.classes = {{"gamma", 1.0, 0.1}, {"neutron", 1.0, 0.4}};
    s.seed = 3;
    run = simulate(s);
    const auto& photons = run.result.photons.photonEvents;
    std::size_t next = 0;
    for (std::size_t e = 0; e < run.truth.size(); ++e) {
      const long nextStart = e + 1 < run.truth.size() ? static_cast<long>(run.truth[e + 1].t_s / tick) : 1L << 62;
      std::vector<PhotonEvent> group;
      while (next < photons.size() && photons[next].toa.value < nextStart) group.push_back(photons[next++]);
      groups.push_back(std::move(group));
    }
  }

  Simulated_Run run;
  std::vector<std::vector<PhotonEvent>> groups;
};

TEST_F(IsolatedFlashesTest, EachFlashHasItsOwnPhotonsAroundItsPosition) {
  ASSERT_NEAR(static_cast<double>(run.truth.size()), 400.0, 100.0);
  double sumSquares = 0.0;
  double nPhotons = 0.0;
  for (std::size_t e = 0; e < groups.size(); ++e) {
    ASSERT_EQ(groups[e].size(), run.truth[e].nPhotons) << "flash " << e;
    for (const auto& p : groups[e]) {
      const double dx = p.x.get_pixels() - run.truth[e].x_px;
      const double dy = p.y.get_pixels() - run.truth[e].y_px;
      sumSquares += dx * dx + dy * dy;
      nPhotons += 2.0;
    }
  }
  EXPECT_NEAR(nPhotons / 2.0 / static_cast<double>(groups.size()), meanPhotons, 1.0);
  EXPECT_NEAR(std::sqrt(sumSquares / nPhotons), sigma, 0.03 * sigma);
}

TEST_F(IsolatedFlashesTest, DelaysFollowTheTwoComponentDecayOfEachClass) {
  double sumDelay[2] = {0.0, 0.0};
  double count[2] = {0.0, 0.0};
  for (std::size_t e = 0; e < groups.size(); ++e) {
    const auto c = run.truth[e].classIndex;
    for (const auto& p : groups[e]) {
      sumDelay[c] += p.toa.get_seconds() - run.truth[e].t_s;
      count[c] += 1.0;
    }
  }
  // Truncation to the tick takes half a tick off the mean on average.
  for (const auto& [c, slow] : {std::pair{0, 0.1}, std::pair{1, 0.4}}) {
    SCOPED_TRACE(c);
    ASSERT_GT(count[c], 3000.0);
    const double expected = (1.0 - slow) * tauFast + slow * tauSlow - 0.5 * tick;
    EXPECT_NEAR(sumDelay[c] / count[c], expected, 6e-9);
  }
}

TEST_F(IsolatedFlashesTest, PulseShapeValueSeparatesTheClasses) {
  std::vector<double> psd[2];
  for (std::size_t e = 0; e < groups.size(); ++e) {
    if (groups[e].size() < 2) continue;
    kovra::tpx3spidr::PhotonEventChain chain(groups[e][0]);
    for (std::size_t i = 1; i < groups[e].size(); ++i) chain.add_photon(groups[e][i]);
    psd[run.truth[e].classIndex].push_back(chain.psd.value);
  }
  const auto mean = [](const std::vector<double>& v) {
    double sum = 0.0;
    for (double x : v) sum += x;
    return sum / static_cast<double>(v.size());
  };
  const double gammaMean = mean(psd[0]);
  const double neutronMean = mean(psd[1]);
  EXPECT_GT(neutronMean, 2.0 * gammaMean);
  const double cut = 0.5 * (gammaMean + neutronMean);
  const auto correct = std::count_if(psd[0].begin(), psd[0].end(), [&](double v) { return v < cut; }) +
                       std::count_if(psd[1].begin(), psd[1].end(), [&](double v) { return v >= cut; });
  EXPECT_GT(static_cast<double>(correct), 0.8 * static_cast<double>(psd[0].size() + psd[1].size()));
}

TEST(SimulationModelTest, ClassWeightsSetTheShareOfFlashes) {
  Simulation_Settings s;
  s.duration_s = 0.01;
  s.eventRate_Hz = 1.0e6;
  s.classes = {{"a", 1.0, 0.0}, {"b", 3.0, 1.0}};
  const Simulated_Run run = simulate(s);
  const auto b =
      std::count_if(run.truth.begin(), run.truth.end(), [](const True_Event& e) { return e.classIndex == 1; });
  EXPECT_NEAR(static_cast<double>(b) / static_cast<double>(run.truth.size()), 0.75, 0.025);
}

TEST(SimulationModelTest, PhotonsFallingOffTheDetectorAreLostAndSnappingGivesWholePixels) {
  Simulation_Settings s;
  s.duration_s = 0.02;
  s.width_px = 4;
  s.height_px = 3;
  s.sigma_px = 10.0;
  s.darkRate_Hz = 1.0e5;
  s.snapToPixels = true;
  const Simulated_Run run = simulate(s);
  ASSERT_GT(run.result.photons.size(), 1000u);
  for (const auto& p : run.result.photons.photonEvents) {
    ASSERT_EQ(p.x.value % Length::units_per_pixel, 0);
    ASSERT_EQ(p.y.value % Length::units_per_pixel, 0);
    ASSERT_TRUE(p.x.value >= 0 && p.x.get_pixels() <= 3.0 && p.y.value >= 0 && p.y.get_pixels() <= 2.0);
  }
  // A 4 x 3 pixel patch catches well under a tenth of a 10-pixel spread.
  const double perFlash = static_cast<double>(run.result.nEventPhotons) / static_cast<double>(run.result.nEvents);
  EXPECT_LT(perFlash, 0.1 * s.photonsPerEvent);
  EXPECT_GT(perFlash, 0.0);
}

TEST(SimulationModelTest, DarkCountsAloneAreUniform) {
  Simulation_Settings s;
  s.duration_s = 0.01;
  s.eventRate_Hz = 0.0;
  s.darkRate_Hz = 1.0e6;
  s.width_px = 100;
  const Simulated_Run run = simulate(s);
  EXPECT_EQ(run.result.nEvents, 0u);
  EXPECT_TRUE(run.truth.empty());
  EXPECT_NEAR(static_cast<double>(run.result.photons.size()), 1.0e4, 500.0);
  double sumX = 0.0;
  double sumT = 0.0;
  for (const auto& p : run.result.photons.photonEvents) sumX += p.x.get_pixels(), sumT += p.toa.get_seconds();
  const double n = static_cast<double>(run.result.photons.size());
  EXPECT_NEAR(sumX / n, 50.0, 1.5);   // sd of the mean 0.29
  EXPECT_NEAR(sumT / n, 0.005, 1.5e-4);  // sd of the mean 2.9e-5
}

TEST(SimulationModelTest, PhotonsAfterTheEndOfTheAcquisitionAreLost) {
  // With a 20 ms decay and 10 ms of acquisition only about 21 % of the light arrives in time.
  Simulation_Settings s;
  s.duration_s = 0.01;
  s.eventRate_Hz = 1.0e4;
  s.darkRate_Hz = 0.0;
  s.tauSlow_s = 0.02;
  s.classes = {{"slow", 1.0, 1.0}};
  const Simulated_Run run = simulate(s);
  const long endTicks = static_cast<long>(std::ceil(s.duration_s / tick));
  for (const auto& p : run.result.photons.photonEvents) ASSERT_LT(p.toa.value, endTicks);
  const double kept = static_cast<double>(run.result.nEventPhotons) /
                      (static_cast<double>(run.result.nEvents) * s.photonsPerEvent);
  EXPECT_NEAR(kept, 0.213, 0.04);
}
