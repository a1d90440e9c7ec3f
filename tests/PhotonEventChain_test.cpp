#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <tuple>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using namespace kovra::tpx3spidr;

namespace {

PhotonEvent photon(int x, int y, long toa) { return {Length{x}, Length{y}, Time{toa}}; }

TEST(PhotonEventChainTest, CentroidTruncatesAndPulseShapeIsTheRunningMean) {
  PhotonEventChain chain(photon(10, 10, 0));
  const Event alone = chain.to_event();
  EXPECT_EQ(std::make_tuple(alone.x.value, alone.y.value, alone.t.value, alone.nPhotons, alone.psd),
            std::make_tuple(10, 10, 0L, std::uint64_t{1}, 0.0));
  chain.add_photon(photon(13, 7, 100));
  EXPECT_EQ(chain.x.value, 11);
  EXPECT_EQ(chain.y.value, 9);  // -3 / 2 truncates toward zero
  EXPECT_DOUBLE_EQ(chain.psd.value, 7.8125e-8);
  EXPECT_EQ(chain.get_t_first().value, 0);

  // Raw x 0, 1, 1: the incremental integer mean stays 0 where the exact mean is 0.67.
  PhotonEventChain drift(photon(0, 0, 0));
  drift.add_photon(photon(1, 0, 0));
  drift.add_photon(photon(1, 0, 0));
  EXPECT_EQ(drift.x.value, 0);
  EXPECT_EQ(drift.nPhotons, 3u);
  EXPECT_EQ(drift.psd.value, 0.0);  // photons at the first photon's time add a distance of 0
}

TEST(PhotonEventChainTest, PulseShapeFollowsTheStatedOrderOfOperations) {
  // Times whose running mean rounds differently from a plain sum divided by the count.
  const std::vector<long> ticks = {1000000007L, 1000000011L, 1000000013L, 1000000101L, 1000000999L};
  PhotonEventChain chain(photon(0, 0, ticks[0]));
  double expected = 0.0;
  const double first = Time{ticks[0]}.get_seconds();
  for (std::size_t i = 1; i < ticks.size(); ++i) {
    chain.add_photon(photon(0, 0, ticks[i]));
    const double m = static_cast<double>(i);
    expected = (expected * m + (Time{ticks[i]}.get_seconds() - first)) / (m + 1.0);
    EXPECT_EQ(chain.psd.value, expected) << i;
  }
}

TEST(PhotonEventChainDeathTest, PhotonBeforeTheFirstStops) {
  PhotonEventChain chain(photon(0, 0, 100));
  EXPECT_DEATH(chain.add_photon(photon(0, 0, 99)), "firstPhoton.get_toa\\(\\).get_seconds\\(\\) >= t_first_abs_s");
  chain.nPhotons = 0;
  EXPECT_DEATH(chain.get_t_first(), "nPhotons != 0");
}

TEST(DataSetsDeathTest, IndexingPastTheLastPhotonStops) {
  const Data_PhotonEvents photons{{photon(1, 2, 3)}, std::nullopt};
  EXPECT_EQ(photons[0].toa.value, 3);
  EXPECT_DEATH(photons[1], "index < photonEvents.size\\(\\)");
}

}  // namespace
