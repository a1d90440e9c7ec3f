// The position image: its size for each binning, where records land, the colour order, and valid empty images.

#include "inspect/PngExport.hpp"

#include <gtest/gtest.h>
#include <png.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "InspectFiles.hpp"
#include "TempDir.hpp"

namespace {

using namespace kovra::inspect;

/// The decoded image as RGB bytes, through libpng (which checks every chunk).
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

TEST(PngExportTest, SizeFollowsDetectorSizeAndBinningAndAnEmptyFileIsBlack) {
  const TempDir dir;
  write_bytes(dir.file("p.kovraphot"), photon_file({}));
  const RecordFile<PhotonEvent> file(dir.file("p.kovraphot"));
  const struct {
    int size;
    double binning;
    std::uint32_t side;
  } cases[] = {{256, 1.0, 256}, {256, 2.0, 128}, {256, 0.5, 512}, {100, 3.0, 34}, {10, 0.3, 34}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.binning);
    write_positionImage(dir.file("m.png"), file, c.size, c.binning);
    std::uint32_t width = 0, height = 0;
    const auto rgb = decode_rgb(dir.file("m.png"), width, height);
    EXPECT_EQ(width, c.side);
    EXPECT_EQ(height, c.side);
    EXPECT_EQ(rgb, std::vector<std::uint8_t>(std::size_t{c.side} * c.side * 3, 0));
  }
  EXPECT_THROW(Position_Histogram2D::get_geometry(257, 1.0 / 32), std::invalid_argument);  // 8224 a side
}

TEST(PngExportTest, RecordsLandInTheirPixelRowDownColumnAcross) {
  Position_Histogram2D histogram(4, 1.0);
  histogram.add({2 * px + px / 2}, {px});  // x 2.5, y 1
  histogram.add({4 * px - 1}, {4 * px - 1});
  histogram.add({-1}, {0});  // just left of the image: rounded down, not toward zero
  histogram.add({0}, {4 * px});
  EXPECT_EQ(histogram.get_count(2, 1), 1u);
  EXPECT_EQ(histogram.get_count(3, 3), 1u);
  EXPECT_EQ(histogram.get_count(0, 0), 0u);
  EXPECT_EQ(histogram.get_outside(), 2u);
}

TEST(PngExportTest, MoreRecordsAreBrighterOnALogarithmicScale) {
  const TempDir dir;
  std::vector<Photon_Row> rows(99, {0, 0, 0});  // pixel (0, 0): 99
  rows.insert(rows.end(), 9, {px, 0, 0});       // pixel (1, 0): 9
  write_bytes(dir.file("p.kovraphot"), photon_file(rows));
  write_positionImage(dir.file("m.png"), RecordFile<PhotonEvent>(dir.file("p.kovraphot")), 4, 1.0);
  std::uint32_t width = 0, height = 0;
  const auto rgb = decode_rgb(dir.file("m.png"), width, height);
  ASSERT_EQ(rgb.size(), 4u * 4u * 3u);
  const auto pixel = [&](std::ptrdiff_t i) { return std::vector<int>(rgb.begin() + 3 * i, rgb.begin() + 3 * i + 3); };
  EXPECT_EQ(pixel(0), (std::vector<int>{252, 255, 164}));  // the most: top of the ramp
  EXPECT_EQ(pixel(1), (std::vector<int>{188, 55, 84}));    // log 10 / log 100: the middle of the ramp
  EXPECT_EQ(pixel(2), (std::vector<int>{0, 0, 0}));
}

}  // namespace
