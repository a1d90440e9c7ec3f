// The summary's figures and text on small files whose answers are known by hand.

#include "inspect/Summary.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>

#include "InspectFiles.hpp"
#include "TempDir.hpp"

namespace {

using namespace kovra::inspect;
using ::testing::HasSubstr;

TEST(SummaryTest, KnownEventFile) {
  const TempDir dir;
  const std::string name = dir.file("known.kovraevent");
  // Out of time order on purpose: the span runs from the earliest to the latest, not first to last.
  write_bytes(name, event_file({{10 * px, 20 * px, 1000, 1, 0.0},
                                {100 * px + px / 2, 5 * px, 2000, 3, 2e-9},
                                {255 * px, 255 * px, 5000, 2, 5e-9},
                                {-px, 3 * px, 4000, 20, 1e-8},
                                {3 * px, 300 * px, 3000, 1, 0.0},
                                {7 * px, 7 * px, 3500, 5, std::numeric_limits<double>::quiet_NaN()}},
                               std::vector<std::int64_t>{500, 100, 900}));
  const File_Summary s = summarize_file(RecordFile<Event>(name, 4));
  EXPECT_EQ(s.count, 6u);
  EXPECT_EQ(s.time.min->value, 1000);
  EXPECT_EQ(s.time.max->value, 5000);
  EXPECT_EQ(s.x.min->value, -px);
  EXPECT_EQ(s.y.max->value, 300 * px);
  // One-photon events have no pulse shape, the NaN is counted apart: 2, 5 and 10 ns in ten bins of 0.8 ns.
  ASSERT_TRUE(s.events && s.events->psd);
  EXPECT_EQ(s.events->psdNonFinite, 1u);
  EXPECT_EQ(s.events->psd->get_count(0), 1u);
  EXPECT_EQ(s.events->psd->get_count(3), 1u);
  EXPECT_EQ(s.events->psd->get_count(9), 1u);

  std::ostringstream out;
  print_summary(out, s);
  const std::string text = out.str();
  EXPECT_THAT(text, HasSubstr("type          events\nrecords       6\n"
                              "time          1.5625e-06 s .. 7.8125e-06 s\n"
                              "span          6.25e-06 s\n"
                              "mean rate     960000 per s\n"
                              "x extent      -1 .. 255 px\n"
                              "y extent      3 .. 300 px\n"
                              "ext. triggers 3, 1.5625e-07 s .. 1.40625e-06 s, span 1.25e-06 s\n"
                              "one-photon    2 (33.3%)\n"));
  EXPECT_THAT(text, HasSubstr("photons per event\n"
                              "      1 |########################################| 2 (33.3%)\n"
                              "      2 |####################                    | 1 (16.7%)\n"
                              "      3 |####################                    | 1 (16.7%)\n"
                              "      4 |                                        | 0 (0.0%)\n"
                              "    5-8 |####################                    | 1 (16.7%)\n"
                              "   9-16 |                                        | 0 (0.0%)\n"
                              "  17-32 |####################                    | 1 (16.7%)\n"));
  EXPECT_THAT(text, HasSubstr("    [2, 2.8) |########################################| 1 (25.0%)\n"));
  EXPECT_THAT(text, HasSubstr("  not finite: 1\n"));
}

TEST(SummaryTest, PhotonFilesAndEmptyFiles) {
  const TempDir dir;
  const std::string name = dir.file("p.kovraphot");
  write_bytes(name, photon_file({{0, 0, 10}, {2 * px, px / 4, 10}}));
  std::ostringstream photons;
  print_summary(photons, summarize_file(RecordFile<PhotonEvent>(name)));
  EXPECT_EQ(photons.str(), "file          " + name +
                               "\ntype          photons\nrecords       2\n"
                               "time          1.5625e-08 s .. 1.5625e-08 s\n"
                               "span          0 s\n"
                               "mean rate     n/a (zero span)\n"
                               "x extent      0 .. 2 px\n"
                               "y extent      0 .. 0.25 px\n"
                               "ext. triggers absent\n");

  write_bytes(name, event_file({}, std::vector<std::int64_t>{}));
  std::ostringstream empty;
  print_summary(empty, summarize_file(RecordFile<Event>(name)));
  EXPECT_EQ(empty.str(), "file          " + name + "\ntype          events\nrecords       0\next. triggers empty\n");
}

}  // namespace
