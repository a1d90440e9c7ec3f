// The figures of kovra_evaluate on hand-built reconstructions whose answer is known, the figure of merit on
// small samples, and the choice of the best setting.

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "evaluate/Metrics.hpp"
#include "evaluate/Scan.hpp"

using namespace kovra::evaluate;
using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::PhotonEventChain;
using kovra::tpx3spidr::Time;

namespace {

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
using Members = std::vector<std::vector<std::size_t>>;

/// Flash 0 (class a) at (10, 10) and time 0 sends photons 0-3, flash 1 (class b) at (50, 50), 1 µs later,
/// photons 4-7; photons 8 and 9 are dark counts when `dark`. Flash 0's photons sit at (13, 14): 5 pixels off.
struct Scene {
  Truth truth;
  std::vector<PhotonEvent> photons;

  explicit Scene(bool dark) {
    truth.classNames = {"a", "b"};
    truth.flashes = {{0.0, 10.0, 10.0, 4, 0}, {1e-6, 50.0, 50.0, 4, 1}};
    for (int i = 0; i < 8; ++i) {
      const bool first = i < 4;
      truth.flashOfPhoton.push_back(first ? 0 : 1);
      photons.push_back({Length::from_pixels(first ? 13.0 : 50.0), Length::from_pixels(first ? 14.0 : 50.0),
                         Time::make_from_seconds<true>(first ? 0.0 : 1e-6)});
    }
    for (int i = 0; dark && i < 2; ++i) {
      truth.flashOfPhoton.push_back(-1);
      photons.push_back({Length::from_pixels(100.0), Length::from_pixels(100.0), Time::make_from_seconds<true>(5e-6)});
    }
  }

  /// Events made of the given members, as an algorithm would report them.
  Reconstruction_Metrics evaluate(const Members& members, Found_Rule rule = Found_Rule::mainEvent) const {
    const Evaluator evaluator(truth, rule);
    Photon_Memberships memberships(photons.size());
    std::vector<kovra::tpx3spidr::Event> events;
    for (std::size_t e = 0; e < members.size(); ++e) {
      PhotonEventChain chain(photons[members[e][0]]);
      for (std::size_t k = 1; k < members[e].size(); ++k) chain.add_photon(photons[members[e][k]]);
      events.push_back(chain.to_event());
      for (const std::size_t i : members[e]) memberships(e, i);
    }
    return evaluator.evaluate(events, memberships, 1);
  }
};

}  // namespace

TEST(MetricsTest, HandBuiltReconstructionsGiveTheKnownFigures) {
  const struct {
    const char* name;
    bool dark;
    Members members;
    double efficiency, split, merge, fake, purity, completeness, iou;
  } cases[] = {
      {"perfect", false, {{0, 1, 2, 3}, {4, 5, 6, 7}}, 1, 0, 0, 0, 1, 1, 1},
      // Three of flash 0's four photons stay together: still found, but split.
      {"one split", false, {{0, 1, 2}, {3}, {4, 5, 6, 7}}, 1, 0.5, 0, 0, 1, 7.0 / 8, (0.75 + 1) / 2},
      // Two of four photons are not "more than half": flash 0 is lost.
      {"even split", false, {{0, 1}, {2, 3}, {4, 5, 6, 7}}, 0.5, 0.5, 0, 0, 1, 6.0 / 8, (0.5 + 1) / 2},
      {"one merge", false, {{0, 1, 2, 3, 4, 5, 6, 7}}, 1, 0, 1, 0, 0.5, 1, 0.5},
      {"one fake", true, {{0, 1, 2, 3}, {4, 5, 6, 7}, {8, 9}}, 1, 0, 0, 1.0 / 3, 0.8, 1, 1},
      // A dark count inside a flash's event: neither a merge nor a fake, but impure.
      {"dark count joins", true, {{0, 1, 2, 3, 8}, {4, 5, 6, 7}, {9}}, 1, 0, 0, 1.0 / 3, 0.8, 1, (0.8 + 1) / 2},
      // Photon 3 is a ghost: in flash 0's event and again in flash 1's, which makes a split and a merge.
      {"ghost photon", false, {{0, 1, 2, 3}, {3, 4, 5, 6, 7}}, 1, 0.5, 0.5, 0, 8.0 / 9, 1, (1 + 0.8) / 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto m = Scene(c.dark).evaluate(c.members);
    EXPECT_EQ(m.nFlashes, 2U);
    EXPECT_EQ(m.nEvents, c.members.size());
    const double got[] = {m.efficiency, m.split_rate, m.merge_rate, m.fake_rate, m.purity, m.completeness, m.iou};
    const double want[] = {c.efficiency, c.split, c.merge, c.fake, c.purity, c.completeness, c.iou};
    for (int i = 0; i < 7; ++i) EXPECT_DOUBLE_EQ(got[i], want[i]) << "figure " << i;
  }
}

TEST(MetricsTest, UnderTheOwnEventRuleAMergeFindsOnlyTheFlashThatDominates) {
  const Scene scene(false);
  // Flash 0 gives 4 of the big event's 7 photons, flash 1 three of its four.
  const Members lopsided = {{0, 1, 2, 3, 4, 5, 6}, {7}};
  EXPECT_DOUBLE_EQ(scene.evaluate(lopsided).efficiency, 1.0);
  EXPECT_DOUBLE_EQ(scene.evaluate(lopsided, Found_Rule::ownEvent).efficiency, 0.5);
  // An even merge finds neither; clean events are found under both rules.
  EXPECT_DOUBLE_EQ(scene.evaluate({{0, 1, 2, 3, 4, 5, 6, 7}}, Found_Rule::ownEvent).efficiency, 0.0);
  EXPECT_DOUBLE_EQ(scene.evaluate({{0, 1, 2}, {3}, {4, 5, 6, 7}}, Found_Rule::ownEvent).efficiency, 1.0);
}

TEST(MetricsTest, CentroidAndTimeErrorsComeFromFoundFlashesOnly) {
  const Scene scene(false);
  const auto perfect = scene.evaluate({{0, 1, 2, 3}, {4, 5, 6, 7}});
  EXPECT_DOUBLE_EQ(perfect.centroid_rms_px, std::sqrt(25.0 / 2));  // 5 px and 0 px
  EXPECT_DOUBLE_EQ(perfect.centroid_p95_px, 5.0);
  EXPECT_NEAR(perfect.time_rms_ns, 0.0, 1e-6);  // both events start at their flash's time
  // Flash 0 lost in halves: only flash 1 is measured.
  const auto halves = scene.evaluate({{0, 1}, {2, 3}, {4, 5, 6, 7}});
  EXPECT_DOUBLE_EQ(halves.centroid_rms_px, 0.0);
  EXPECT_DOUBLE_EQ(halves.centroid_p95_px, 0.0);
}

TEST(MetricsTest, FigureOfMeritUsesPeakAndWidthThatIgnoreTails) {
  const double fwhmOfMad1 = 2.3548200450309493 * 1.482602218505602;
  EXPECT_DOUBLE_EQ(get_figureOfMerit({0, 1, 2}, {10, 11, 12}), 10.0 / (2 * fwhmOfMad1));
  // One far outlier moves neither the peak nor the width.
  EXPECT_DOUBLE_EQ(get_figureOfMerit({0, 1, 2, 1, 1e6}, {10, 11, 12}), 10.0 / (2 * fwhmOfMad1));
  EXPECT_TRUE(std::isnan(get_figureOfMerit({1}, {10, 11, 12})));
  EXPECT_TRUE(std::isnan(get_figureOfMerit({0, 1, 2}, {})));
}

TEST(MetricsTest, BestSettingIsTheMostEfficientWithinTheMergeLimit) {
  const auto row = [](double efficiency, double merge, double purity, double fom) {
    Scan_Row r{};
    r.metrics.efficiency = efficiency, r.metrics.merge_rate = merge, r.metrics.purity = purity;
    r.metrics.completeness = 1, r.metrics.fom = fom;
    return r;
  };
  const struct {
    const char* name;
    std::vector<Scan_Row> rows;
    std::size_t best;
  } cases[] = {
      {"merge limit", {row(0.9, 0.01, 1, 1), row(0.99, 0.05, 1, 1), row(0.95, 0.02, 1, 1)}, 2},
      {"tie on efficiency: purer", {row(1, 0, 0.98, 2), row(1, 0, 0.99, 1)}, 1},
      {"tie on both: higher FoM", {row(1, 0, 1, 0.5), row(1, 0, 1, 1.5), row(1, 0, 1, notANumber)}, 1},
      {"NaN efficiency never wins", {row(notANumber, 0, 1, 1), row(0.1, 0, 1, 1)}, 1},
      {"none within the limit: least merged", {row(1, 0.3, 1, 1), row(0.5, 0.1, 1, 1), row(1, 0.2, 1, 1)}, 1},
  };
  for (const auto& c : cases) EXPECT_EQ(find_best(c.rows, 0.02), c.best) << c.name;
}
