// The summary's figures on small files whose answers are known by hand.

#include "inspect/Summary.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <string>

#include "InspectFiles.hpp"
#include "TempDir.hpp"

namespace {

using namespace kovra::inspect;
using ::testing::HasSubstr;
using ::testing::Not;

const double nan = std::numeric_limits<double>::quiet_NaN();

class EventSummaryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Out of time order on purpose: the span runs from the earliest to the latest, not first to last.
    write_bytes(name, event_file({{10 * px, 20 * px, 1000, 1, 0.0},
                                  {100 * px + px / 2, 5 * px, 2000, 3, 2e-9},
                                  {255 * px, 255 * px, 5000, 2, 5e-9},
                                  {-px, 3 * px, 4000, 20, 1e-8},
                                  {3 * px, 300 * px, 3000, 1, 0.0},
                                  {7 * px, 7 * px, 3500, 5, nan}},
                                 std::vector<std::int64_t>{500, 100, 900}));
  }

  File_Summary summarize() const { return summarize_file(RecordFile<Event>(name, 2)); }

  TempDir dir;
  std::string name = dir.file("known.kovraevent");
};

TEST_F(EventSummaryTest, CountsSpanRateExtentAndTriggers) {
  const File_Summary s = summarize();
  EXPECT_EQ(s.recordName, "events");
  EXPECT_EQ(s.count, 6u);
  EXPECT_EQ(s.time.min->value, 1000);
  EXPECT_EQ(s.time.max->value, 5000);
  EXPECT_DOUBLE_EQ(s.get_span_s(), 4000 * 1.5625e-9);
  ASSERT_TRUE(s.get_rate());
  EXPECT_DOUBLE_EQ(*s.get_rate(), 6 / (4000 * 1.5625e-9));
  EXPECT_EQ(s.x.min->value, -px);
  EXPECT_EQ(s.x.max->value, 255 * px);
  EXPECT_EQ(s.y.min->value, 3 * px);
  EXPECT_EQ(s.y.max->value, 300 * px);
  EXPECT_EQ(s.extTriggerCount, 3u);
  EXPECT_EQ(s.extTriggerTime.min->value, 100);
  EXPECT_EQ(s.extTriggerTime.max->value, 900);
}

TEST_F(EventSummaryTest, PhotonCountAndPulseShapeDistributions) {
  const File_Summary s = summarize();
  ASSERT_TRUE(s.events);
  const Event_Summary& e = *s.events;
  EXPECT_EQ(e.onePhoton, 2u);
  EXPECT_EQ(e.nPhotons.get_count(1), 2u);
  EXPECT_EQ(e.nPhotons.get_count(2), 1u);
  EXPECT_EQ(e.nPhotons.get_count(3), 1u);
  EXPECT_EQ(e.nPhotons.get_count(5), 1u);  // 5-8
  EXPECT_EQ(e.nPhotons.get_count(7), 1u);  // 17-32
  // One-photon events have no pulse shape; the NaN is counted apart; 2, 5 and 10 ns span ten bins of 0.8 ns.
  EXPECT_EQ(e.psdNonFinite, 1u);
  ASSERT_TRUE(e.psd);
  ASSERT_EQ(e.psd->size(), psd_bins);
  EXPECT_DOUBLE_EQ(e.psd->get_edge(0), 2e-9);
  EXPECT_DOUBLE_EQ(e.psd->get_edge(psd_bins), 1e-8);
  EXPECT_EQ(e.psd->get_count(0), 1u);
  EXPECT_EQ(e.psd->get_count(3), 1u);
  EXPECT_EQ(e.psd->get_count(9), 1u);
}

TEST_F(EventSummaryTest, PrintedSummary) {
  std::ostringstream out;
  print_summary(out, summarize());
  const std::string text = out.str();
  EXPECT_THAT(text, HasSubstr("records       6\n"));
  EXPECT_THAT(text, HasSubstr("time          1.5625e-06 s .. 7.8125e-06 s\n"));
  EXPECT_THAT(text, HasSubstr("span          6.25e-06 s\n"));
  EXPECT_THAT(text, HasSubstr("mean rate     960000 per s\n"));
  EXPECT_THAT(text, HasSubstr("x extent      -1 .. 255 px\n"));
  EXPECT_THAT(text, HasSubstr("ext. triggers 3, 1.5625e-07 s .. 1.40625e-06 s, span 1.25e-06 s\n"));
  EXPECT_THAT(text, HasSubstr("one-photon    2 (33.3%)\n"));
  EXPECT_THAT(text, HasSubstr("photons per event\n"
                              "      1 |########################################| 2 (33.3%)\n"
                              "      2 |####################                    | 1 (16.7%)\n"
                              "      3 |####################                    | 1 (16.7%)\n"
                              "      4 |                                        | 0 (0.0%)\n"
                              "    5-8 |####################                    | 1 (16.7%)\n"
                              "   9-16 |                                        | 0 (0.0%)\n"
                              "  17-32 |####################                    | 1 (16.7%)\n"));
  EXPECT_THAT(text, HasSubstr("  [2, 2.8) |"));
  EXPECT_THAT(text, HasSubstr("  not finite: 1\n"));
}

TEST(PhotonSummaryTest, PhotonFileHasNoEventFigures) {
  const TempDir dir;
  const std::string name = dir.file("p.kovraphot");
  write_bytes(name, photon_file({{0, 0, 10}, {2 * px, px / 4, 10}}));
  const File_Summary s = summarize_file(RecordFile<PhotonEvent>(name));
  EXPECT_EQ(s.count, 2u);
  EXPECT_FALSE(s.events);
  EXPECT_FALSE(s.extTriggerCount);
  EXPECT_FALSE(s.get_rate());  // both at the same time

  std::ostringstream out;
  print_summary(out, s);
  EXPECT_THAT(out.str(), HasSubstr("type          photons\n"));
  EXPECT_THAT(out.str(), HasSubstr("mean rate     n/a (zero span)\n"));
  EXPECT_THAT(out.str(), HasSubstr("y extent      0 .. 0.25 px\n"));
  EXPECT_THAT(out.str(), HasSubstr("ext. triggers absent\n"));
  EXPECT_THAT(out.str(), Not(HasSubstr("photons per event")));
}

TEST(PhotonSummaryTest, EmptyFileWithEmptyTriggerList) {
  const TempDir dir;
  const std::string name = dir.file("e.kovraevent");
  write_bytes(name, event_file({}, std::vector<std::int64_t>{}));
  std::ostringstream out;
  print_summary(out, summarize_file(RecordFile<Event>(name)));
  EXPECT_EQ(out.str(), "file          " + name +
                           "\n"
                           "type          events\n"
                           "records       0\n"
                           "ext. triggers empty\n");
}

}  // namespace
