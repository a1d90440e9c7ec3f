// The time-walk table: the delay of every ToT step from a few rows (interpolated, rounded, held beyond the ends),
// corrections that never go below 0, and one exact message for each kind of bad table file.

#include "common/import/TimeWalk.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "TempDir.hpp"

using kovra::import::read_timeWalk;
using kovra::import::Time_Walk;
using testing::StrEq;
using testing::ThrowsMessage;

TEST(TimeWalkTest, RowsGiveEveryToTStepItsDelay) {
  TempDir dir;
  write_bytes(dir.file("walk.txt"), "# tot_ns delay_ticks\n\n50 100  # two steps\n100 -3\n\t125   7\n");
  const Time_Walk walk = read_timeWalk(dir.file("walk.txt"));
  // Below the first row and above the last: held. Between: linear, to the nearest tick, halves away from 0.
  const struct {
    unsigned tot;
    long delay;
  } cases[] = {{0, 100}, {2, 100}, {3, 49}, {4, -3}, {5, 7}, {1023, 7}};  // 100 - 103 / 2 = 48.5 -> 49
  for (const auto& c : cases) EXPECT_EQ(walk.get_delay(c.tot), c.delay) << c.tot;
  // Halfway values, rising and falling, either side of 0.
  EXPECT_EQ(Time_Walk({{0, -3}, {50, 100}}).get_delay(1), 49);  // -3 + 51.5
  EXPECT_EQ(Time_Walk({{0, 7}, {50, -4}}).get_delay(1), 2);     // 7 - 5.5
  EXPECT_EQ(Time_Walk({{0, -4}, {50, 7}}).get_delay(1), 2);     // -4 + 5.5
  EXPECT_EQ(Time_Walk({{0, -7}, {50, 4}}).get_delay(1), -2);    // -7 + 5.5
  EXPECT_EQ(Time_Walk({{0, 0}, {75, 4}}).get_delay(1), 1);      // 1.33
  EXPECT_EQ(walk.correct(1000, 2), 900);
  EXPECT_EQ(walk.correct(1000, 4), 1003);
  EXPECT_EQ(walk.correct(60, 2), 0);  // never before the clock can start
}

TEST(TimeWalkTest, BadTablesAreRefusedWithOneMessage) {
  TempDir dir;
  const std::string path = dir.file("walk.txt");
  const std::string where = "time-walk table '" + path + "': ";
  const std::string expected =
      ": expected a ToT in whole nanoseconds (0 to 25575) and a delay in whole ticks (at most 1000000 either way), "
      "got '";
  const struct {
    std::string text;
    std::string message;
  } cases[] = {
      {"", "no rows"},
      {"# only a comment\n", "no rows"},
      {"50\n", "line 1" + expected + "50'"},
      {"50 1 2\n", "line 1" + expected + "50 1 2'"},
      {"50 1.5\n", "line 1" + expected + "50 1.5'"},
      {"\n25.0 1\n", "line 2" + expected + "25.0 1'"},
      {"-25 1\n", "line 1" + expected + "-25 1'"},
      {"25600 1\n", "line 1" + expected + "25600 1'"},
      {"25 1000001\n", "line 1" + expected + "25 1000001'"},
      {"50 1\n50 2\n", "line 2: ToT 50 ns does not follow 50 ns"},
      {"50 1\n25 2\n", "line 2: ToT 25 ns does not follow 50 ns"},
  };
  for (const auto& c : cases) {
    write_bytes(path, c.text);
    EXPECT_THAT([&] { read_timeWalk(path); }, ThrowsMessage<std::invalid_argument>(StrEq(where + c.message))) << c.text;
  }
  const std::string missing = dir.file("missing.txt");
  EXPECT_THAT([&] { read_timeWalk(missing); },
              ThrowsMessage<std::invalid_argument>(StrEq("time-walk table '" + missing + "': cannot be read")));
  EXPECT_THAT(
      [&] { read_timeWalk(dir.path().string()); },
      ThrowsMessage<std::invalid_argument>(StrEq("time-walk table '" + dir.path().string() + "': cannot be read")));
}
