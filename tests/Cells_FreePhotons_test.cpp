// The cell counts that let the no-branch chains skip scans: a "no" must be true. Checked against a direct test
// across the whole 32-bit coordinate range, at cell borders and where the range wraps, for cells from one raw
// unit to half the range wide.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <vector>

#include "RandomPhotons.hpp"
#include "kovra/PhotonSource.hpp"
#include "kovra/PhotonWindow.hpp"
#include "kovra/reconstruction/Cells_FreePhotons.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::Time;

namespace {

constexpr std::int32_t lowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t highest = std::numeric_limits<std::int32_t>::max();

/// |a - b| < dSpace on the 32-bit wrapped difference, as the no-branch chains test it.
bool near(std::int32_t a, std::int32_t b, std::int32_t dSpace) {
  const auto difference = static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
  return std::llabs(static_cast<long long>(difference)) < dSpace;
}

/// Coordinates that matter for cells of width 2^shift: both ends of the range, zero, and each side of cell
/// borders spread over the range; plus random ones.
std::vector<std::int32_t> coordinates(int shift, std::mt19937& random) {
  std::vector<std::int32_t> values = {lowest, lowest + 1, -1, 0, 1, highest - 1, highest};
  const std::int64_t width = std::int64_t{1} << shift;
  for (const std::int64_t border :
       {std::int64_t{lowest}, std::int64_t{-2} * width, -width, width, 2 * width, std::int64_t{127} * width,
        std::int64_t{128} * width, std::int64_t{highest} + 1 - width}) {
    for (const std::int64_t offset : {std::int64_t{-1}, std::int64_t{0}, std::int64_t{1}}) {
      const std::int64_t v = border + offset;
      if (v >= lowest && v <= highest) values.push_back(static_cast<std::int32_t>(v));
    }
  }
  std::uniform_int_distribution<std::int32_t> any(lowest, highest);
  for (int k = 0; k < 8; ++k) values.push_back(any(random));
  return values;
}

}  // namespace

TEST(CellsFreePhotonsTest, NoIsTrueAcrossTheWholeRangeAndAtCellBorders) {
  std::mt19937 random(17);
  int nearPairs = 0;
  int farNo = 0;
  for (const std::int32_t dSpace : {1, 2, 3, 65536, 5 * 65536, 65537, 1 << 30, highest}) {
    kovra::detail::Cells_FreePhotons<Length> cells{Length{dSpace}};
    // The width the cells get: the least power of two not below dSpace.
    int shift = 0;
    while ((std::int64_t{1} << shift) < dSpace) ++shift;
    const std::vector<std::int32_t> values = coordinates(shift, random);
    for (std::size_t i = 0; i < values.size(); ++i) {
      const PhotonEvent counted{Length{values[i]}, Length{values[(7 * i) % values.size()]}, Time{0}};
      cells.add(counted);
      for (const std::int32_t qx : values) {
        for (const std::int64_t step : {std::int64_t{0}, std::int64_t{dSpace} - 1, -(std::int64_t{dSpace} - 1)}) {
          const auto qy =
              static_cast<std::int32_t>(static_cast<std::uint32_t>(counted.y.value) + static_cast<std::uint32_t>(step));
          const bool isNear = near(qx, counted.x.value, dSpace) && near(qy, counted.y.value, dSpace);
          const bool maybe = cells.any_near(Length{qx}, Length{qy});
          if (isNear) {
            ++nearPairs;
            EXPECT_TRUE(maybe) << "dSpace " << dSpace << ": photon (" << counted.x.value << ", " << counted.y.value
                               << "), query (" << qx << ", " << qy << ")";
          }
          if (!maybe) ++farNo;
        }
      }
      cells.remove(counted);
      // Uncounted again: nothing is near anything.
      EXPECT_FALSE(cells.any_near(counted.x, counted.y)) << "dSpace " << dSpace;
    }
  }
  EXPECT_GT(nearPairs, 1000);
  EXPECT_GT(farNo, 1000) << "the counts must also say no";
}

TEST(RangeFreePhotonsTest, ARangeTakenUpAgainAtASeedHoldsEveryFreePhotonAfterIt) {
  using Window = kovra::PhotonWindow<PhotonEvent>;
  using Range = kovra::detail::Range_FreePhotons<Window, Length, Time>;
  const Length dSpace{8};
  const auto photons = random_photons::generate(5, 3000, random_photons::Disorder::none, false).photonEvents;
  std::mt19937 random(5);
  auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
  kovra::PhotonSource_Memory<PhotonEvent> source(photons, 256);
  Window window(source, kovra::Order_Check::skipped);
  Range range(window, dSpace, kovra::detail::Kept_ByCell::lists);
  const auto nearBoth = [&](const PhotonEvent& a, const PhotonEvent& b) {
    return near(a.x.value, b.x.value, dSpace.value) && near(a.y.value, b.y.value, dSpace.value);
  };
  int checked = 0;
  for (std::size_t i = 0; window.fetch(i); ++i) {
    window.release_before(i);
    // Taken up again every so often, listing or not, as the passes do when a stretch turns crowded.
    if (uniform(0, 40) == 0)
      range.restart_at(i + 1,
                       uniform(0, 1) == 1 ? kovra::detail::Kept_ByCell::lists : kovra::detail::Kept_ByCell::counts);
    range.drop_before(i + 1);
    const Time limit = window[i].toa + Time{60};
    range.extend_to(limit);
    // Every free photon of the range is counted, and listed where the range lists: the first free photon near
    // the seed found through the lists is the one a walk finds.
    std::size_t walk = Range::none;
    for (std::size_t j = i + 1; window.fetch(j) && window[j].toa <= limit; ++j) {
      if (window.is_taken(j)) continue;
      EXPECT_TRUE(range.any_free_near(window[j].x, window[j].y)) << "photon " << j << " at seed " << i;
      if (walk == Range::none && nearBoth(window[j], window[i])) walk = j;
      ++checked;
    }
    if (range.is_listed()) {
      const PhotonEvent seed = window[i];
      EXPECT_EQ(
          range.first_free_near(seed.x, seed.y, i + 1, limit, [&](const PhotonEvent& p) { return nearBoth(p, seed); }),
          walk)
          << "seed " << i;
    }
    // The seed takes a photon now and then, as a chain would.
    if (walk != Range::none && uniform(0, 1) == 0) {
      window.set_taken(walk);
      range.note_taken(walk);
    }
  }
  EXPECT_GT(checked, 10000);
}
