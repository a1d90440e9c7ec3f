// The tables an import reads before it starts. The time-walk table: the delay of every ToT step from a few rows
// (interpolated, rounded, held beyond the ends), corrections that never go below 0. The pixel mask: the pixels a
// file names. For both, one exact message for each kind of bad file.

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "TempDir.hpp"
#include "common/import/PixelMask.hpp"
#include "common/import/TimeWalk.hpp"

using namespace kovra::import;

namespace {

/// What reading `path` with `read` throws, after `text` was written to it (none written when not given).
template <typename Read_Type>
std::string message_of(const std::string& path, const std::optional<std::string>& text, const Read_Type& read) {
  if (text) write_bytes(path, *text);
  try {
    read(path);
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "(read)";
}

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

TEST(PixelMaskTest, LinesNamePixelsOfTheFrame) {
  TempDir dir;
  write_bytes(dir.file("m.txt"), "# hot pixels\n\n3 4  # 120 hits\n 255\t0\n3 4\n0 255");
  const auto mask = read_pixelMask(dir.file("m.txt"), 256);
  EXPECT_EQ(mask.get_count(), 3U);  // a pixel named twice counts once
  EXPECT_TRUE(mask.is_masked(3, 4) && mask.is_masked(255, 0) && mask.is_masked(0, 255));
  EXPECT_FALSE(mask.is_masked(4, 3) || mask.is_masked(0, 0));
  EXPECT_TRUE(read_pixelMask(dir.file("m.txt"), 512).is_masked(255, 0));
  write_bytes(dir.file("empty.txt"), "# nothing is hot\n");
  EXPECT_EQ(read_pixelMask(dir.file("empty.txt"), 256).get_count(), 0U);
}

TEST(TimeWalkTest, BadTablesAreRefusedWithOneMessage) {
  TempDir dir;
  const std::string path = dir.file("walk.txt");
  const std::string expected =
      ": expected a ToT in whole nanoseconds (0 to 25575) and a delay in whole ticks (at most 1000000 either way), "
      "got '";
  const std::pair<std::string, std::string> cases[] = {
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
  for (const auto& [text, message] : cases) {
    EXPECT_EQ(message_of(path, text, read_timeWalk), "time-walk table '" + path + "': " + message) << text;
  }
}

TEST(PixelMaskTest, BadMasksAreRefusedWithOneMessage) {
  TempDir dir;
  const std::string path = dir.file("m.txt");
  const std::string expected = "expected a pixel's x and y, whole numbers from 0 to ";
  const struct {
    std::string text;
    unsigned side;
    std::string message;
  } cases[] = {
      {"3\n", 256, "line 1: " + expected + "255, got '3'"},
      {"1 2\n3 4 5\n", 256, "line 2: " + expected + "255, got '3 4 5'"},
      {"256 0\n", 256, "line 1: " + expected + "255, got '256 0'"},
      {"0 512\n", 512, "line 1: " + expected + "511, got '0 512'"},
      {"-1 0\n", 256, "line 1: " + expected + "255, got '-1 0'"},
      {"1.5 0\n", 256, "line 1: " + expected + "255, got '1.5 0'"},
      {"0001 0\n", 256, "line 1: " + expected + "255, got '0001 0'"},
  };
  for (const auto& c : cases) {
    const auto read = [&](const std::string& name) { read_pixelMask(name, c.side); };
    EXPECT_EQ(message_of(path, c.text, read), "pixel mask '" + path + "': " + c.message) << c.text;
  }
}

// A table or mask that is missing, or a folder, cannot be read.
TEST(ImportTablesTest, AFileThatCannotBeReadIsRefused) {
  TempDir dir;
  const auto read_mask = [](const std::string& name) { read_pixelMask(name, 256); };
  for (const std::string& name : {dir.file("missing.txt"), dir.path().string()}) {
    EXPECT_EQ(message_of(name, std::nullopt, read_timeWalk), "time-walk table '" + name + "': cannot be read");
    EXPECT_EQ(message_of(name, std::nullopt, read_mask), "pixel mask '" + name + "': cannot be read");
  }
}

}  // namespace
