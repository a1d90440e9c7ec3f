// The position image: its size for each binning, where records land, the colour order, and valid empty images.

#include "inspect/PngExport.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <png.h>

#include <cstdint>
#include <string>
#include <vector>

#include "InspectFiles.hpp"
#include "TempDir.hpp"

namespace {

using namespace kovra::inspect;

std::uint32_t read_be32(const std::string& bytes, std::size_t offset) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) value = (value << 8) | static_cast<unsigned char>(bytes[offset + i]);
  return value;
}

/// Width and height from the PNG signature and header chunk, read by hand.
std::pair<std::uint32_t, std::uint32_t> read_pngSize(const std::string& file) {
  const std::string bytes = read_bytes(file);
  EXPECT_GE(bytes.size(), 24u);
  EXPECT_EQ(bytes.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
  EXPECT_EQ(bytes.substr(12, 4), "IHDR");
  return {read_be32(bytes, 16), read_be32(bytes, 20)};
}

/// The decoded image as RGB bytes, through libpng (which checks every chunk's CRC).
std::vector<std::uint8_t> decode_rgb(const std::string& file, std::uint32_t& width, std::uint32_t& height) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  EXPECT_NE(png_image_begin_read_from_file(&image, file.c_str()), 0) << image.message;
  image.format = PNG_FORMAT_RGB;
  std::vector<std::uint8_t> rgb(PNG_IMAGE_SIZE(image));
  EXPECT_NE(png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr), 0) << image.message;
  width = image.width;
  height = image.height;
  return rgb;
}

TEST(PngExportTest, ImageSizeFollowsDetectorSizeAndBinning) {
  const TempDir dir;
  const std::string name = dir.file("e.kovraevent");
  write_bytes(name, event_file({{10 * px, 10 * px, 0, 1, 0.0}}));
  const RecordFile<Event> file(name);
  const struct {
    int size;
    double binning;
    std::uint32_t side;
  } cases[] = {{256, 1.0, 256}, {256, 2.0, 128}, {256, 0.5, 512}, {100, 3.0, 34}, {10, 0.3, 34}, {2, 1.0 / 1024, 2048}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.binning);
    write_positionImage(dir.file("m.png"), file, c.size, c.binning);
    EXPECT_EQ(read_pngSize(dir.file("m.png")), std::make_pair(c.side, c.side));
  }
}

TEST(PngExportTest, EmptyFileGivesAValidBlackImage) {
  const TempDir dir;
  const std::string name = dir.file("p.kovraphot");
  write_bytes(name, photon_file({}));
  EXPECT_EQ(write_positionImage(dir.file("m.png"), RecordFile<PhotonEvent>(name), 256, 1.0), 0u);
  std::uint32_t width = 0, height = 0;
  const auto rgb = decode_rgb(dir.file("m.png"), width, height);
  EXPECT_EQ(width, 256u);
  EXPECT_EQ(height, 256u);
  ASSERT_EQ(rgb.size(), 256u * 256u * 3u);
  for (const auto byte : rgb) ASSERT_EQ(byte, 0);
}

TEST(PngExportTest, RecordsLandInTheirPixelRowDownColumnAcross) {
  Position_Histogram2D histogram(4, 1.0);
  histogram.add({2 * px + px / 2}, {1 * px});      // x 2.5, y 1
  histogram.add({4 * px - 1}, {4 * px - 1});      // last pixel, just inside
  histogram.add({-1}, {0});                       // just left of the image: floor, not truncation
  histogram.add({0}, {4 * px});                   // just below the image
  EXPECT_EQ(histogram.get_count(2, 1), 1u);
  EXPECT_EQ(histogram.get_count(1, 2), 0u);
  EXPECT_EQ(histogram.get_count(3, 3), 1u);
  EXPECT_EQ(histogram.get_count(0, 0), 0u);
  EXPECT_EQ(histogram.get_outside(), 2u);

  Position_Histogram2D coarse(4, 2.0);
  coarse.add({3 * px}, {px});
  EXPECT_EQ(coarse.get_count(1, 0), 1u);
}

TEST(PngExportTest, MoreRecordsAreBrighterAndTheMostGetTheTopColour) {
  const TempDir dir;
  const std::string name = dir.file("p.kovraphot");
  std::vector<Photon_Row> rows;
  for (int i = 0; i < 99; ++i) rows.push_back({0, 0, i});  // pixel (0, 0): 99
  for (int i = 0; i < 9; ++i) rows.push_back({px, 0, i});  // pixel (1, 0): 9
  rows.push_back({2 * px, 0, 0});                          // pixel (2, 0): 1
  write_bytes(name, photon_file(rows));
  write_positionImage(dir.file("m.png"), RecordFile<PhotonEvent>(name), 4, 1.0);
  std::uint32_t width = 0, height = 0;
  const auto rgb = decode_rgb(dir.file("m.png"), width, height);
  ASSERT_EQ(rgb.size(), 4u * 4u * 3u);
  const auto brightness = [&](std::size_t column) { return rgb[3 * column] + rgb[3 * column + 1] + rgb[3 * column + 2]; };
  EXPECT_EQ(std::vector<int>(rgb.begin(), rgb.begin() + 3), (std::vector<int>{252, 255, 164}));
  EXPECT_GT(brightness(0), brightness(1));
  EXPECT_GT(brightness(1), brightness(2));
  EXPECT_GT(brightness(2), 0);
  EXPECT_EQ(brightness(3), 0);
  // Logarithmic: 9 of 99 sits at log 10 / log 100 = half way, the middle stop of the ramp.
  EXPECT_EQ(std::vector<int>(rgb.begin() + 3, rgb.begin() + 6), (std::vector<int>{188, 55, 84}));
}

TEST(PngExportTest, OversizedImageIsRefusedBeforeAnyWork) {
  EXPECT_NO_THROW(Position_Histogram2D::get_geometry(256, 1.0 / 32));
  EXPECT_THAT([] { Position_Histogram2D::get_geometry(257, 1.0 / 32); },
              ::testing::ThrowsMessage<std::invalid_argument>(
                  ::testing::StrEq("an image of 8224 x 8224 pixels is too large (at most 8192 a side)")));
}

TEST(PngExportTest, UnwritablePathIsReported) {
  const Position_Histogram2D histogram(2, 1.0);
  EXPECT_THROW(write_png("/nonexistent/dir/m.png", histogram), std::runtime_error);
}

}  // namespace
