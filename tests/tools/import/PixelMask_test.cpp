// Pixel masks: the pixels a file names, and one exact message for each kind of bad mask file.

#include "common/import/PixelMask.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "TempDir.hpp"

using kovra::import::read_pixelMask;
using testing::StrEq;
using testing::ThrowsMessage;

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

TEST(PixelMaskTest, BadMasksAreRefusedWithOneMessage) {
  TempDir dir;
  const std::string path = dir.file("m.txt");
  const struct {
    std::string text;
    unsigned side;
    std::string message;
  } cases[] = {
      {"3\n", 256, "line 1: expected a pixel's x and y, whole numbers from 0 to 255, got '3'"},
      {"1 2\n3 4 5\n", 256, "line 2: expected a pixel's x and y, whole numbers from 0 to 255, got '3 4 5'"},
      {"256 0\n", 256, "line 1: expected a pixel's x and y, whole numbers from 0 to 255, got '256 0'"},
      {"0 512\n", 512, "line 1: expected a pixel's x and y, whole numbers from 0 to 511, got '0 512'"},
      {"-1 0\n", 256, "line 1: expected a pixel's x and y, whole numbers from 0 to 255, got '-1 0'"},
      {"1.5 0\n", 256, "line 1: expected a pixel's x and y, whole numbers from 0 to 255, got '1.5 0'"},
      {"0001 0\n", 256, "line 1: expected a pixel's x and y, whole numbers from 0 to 255, got '0001 0'"},
  };
  for (const auto& c : cases) {
    write_bytes(path, c.text);
    EXPECT_THAT([&] { read_pixelMask(path, c.side); },
                ThrowsMessage<std::invalid_argument>(StrEq("pixel mask '" + path + "': " + c.message)))
        << c.text;
  }
  EXPECT_THAT([&] { read_pixelMask(dir.path().string(), 256); },
              ThrowsMessage<std::invalid_argument>(StrEq("pixel mask '" + dir.path().string() + "': cannot be read")));
}
