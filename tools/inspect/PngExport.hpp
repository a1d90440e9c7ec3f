#pragma once

// A map of where the records lie: a 2D histogram of their positions written as an 8-bit RGB PNG with a
// logarithmic colour scale.
//
// The image covers the detector square [0, size) x [0, size) pixels; each image pixel is `binning` detector
// pixels on a side (1 by default; 0.5 gives two image pixels per detector pixel), so the image is
// ceil(size / binning) pixels wide and high. Row 0 is y = 0 (top, as image viewers show it), column 0 is x = 0.
// Records outside the image are counted and left out. An empty bin is black; a bin of n records gets the colour
// at log(1 + n) / log(1 + largest n) along a dark-purple-to-pale-yellow ramp.

#include <png.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/OutputFile_Checked.hpp"
#include "common/Progress.hpp"
#include "inspect/RecordFile.hpp"

namespace kovra::inspect {

/// Largest width or height of an image, to keep its memory bounded.
inline constexpr std::int64_t max_imageSide = 8192;

/// Counts of records per image pixel; the bin of a position is its raw count divided by the bin width in raw
/// units, rounded down, so the binning is exact integer arithmetic.
class Position_Histogram2D {
 public:
  /// Bin width in raw units and image side in pixels for `size_px` detector pixels per side and `binning`
  /// detector pixels per image pixel.
  struct Geometry {
    std::int64_t binUnits;
    std::int64_t side;
  };

  /// Throws std::invalid_argument when the image would be empty or larger than max_imageSide on a side.
  static Geometry get_geometry(int size_px, double binning) {
    const double units = std::round(binning * static_cast<double>(Length::units_per_pixel));
    if (!(size_px > 0) || !(units >= 1.0) || !(units <= 1e15)) {
      throw std::invalid_argument("the image needs a positive size and a binning of at least 1/65536 pixel");
    }
    const auto binUnits = static_cast<std::int64_t>(units);
    const std::int64_t sizeUnits = std::int64_t{size_px} * Length::units_per_pixel;
    const std::int64_t side = (sizeUnits + binUnits - 1) / binUnits;
    if (side > max_imageSide) {
      throw std::invalid_argument("an image of " + std::to_string(side) + " x " + std::to_string(side) +
                                  " pixels is too large (at most " + std::to_string(max_imageSide) + " a side)");
    }
    return {binUnits, side};
  }

  Position_Histogram2D(int size_px, double binning) {
    const Geometry geometry = get_geometry(size_px, binning);
    binUnits = geometry.binUnits;
    side = geometry.side;
    counts.assign(static_cast<std::size_t>(side * side), 0);
  }

  int get_width() const { return static_cast<int>(side); }
  int get_height() const { return static_cast<int>(side); }

  void add(Length x, Length y) {
    const std::int64_t column = floor_div(x.value);
    const std::int64_t row = floor_div(y.value);
    if (column < 0 || column >= side || row < 0 || row >= side) {
      ++outside;
      return;
    }
    ++counts[static_cast<std::size_t>(row * side + column)];
  }

  std::uint64_t get_count(int column, int row) const {
    return counts[static_cast<std::size_t>(std::int64_t{row} * side + column)];
  }
  std::uint64_t get_outside() const { return outside; }
  /// Every bin, row after row from y = 0.
  const std::vector<std::uint64_t>& get_counts() const { return counts; }
  /// The width of a bin in pixels.
  double get_bin_px() const { return static_cast<double>(binUnits) / static_cast<double>(Length::units_per_pixel); }

  /// The image as rows of RGB bytes, top row first.
  std::vector<std::uint8_t> render_rgb() const {
    std::uint64_t maxCount = 0;
    for (const std::uint64_t c : counts) maxCount = std::max(maxCount, c);
    std::vector<std::uint8_t> rgb(counts.size() * 3, 0);
    const double logMax = std::log1p(static_cast<double>(maxCount));
    for (std::size_t i = 0; i < counts.size(); ++i) {
      if (counts[i] == 0) continue;
      const auto colour = get_colour(std::log1p(static_cast<double>(counts[i])) / logMax);
      for (std::size_t k = 0; k < 3; ++k) rgb[3 * i + k] = colour[k];
    }
    return rgb;
  }

  /// The colour at `level` in [0, 1] along the ramp, interpolated linearly between its stops.
  static std::array<std::uint8_t, 3> get_colour(double level) {
    static constexpr std::array<std::array<double, 3>, 5> stops = {
        {{40, 11, 84}, {101, 21, 110}, {188, 55, 84}, {249, 142, 9}, {252, 255, 164}}};
    const double position = std::clamp(level, 0.0, 1.0) * static_cast<double>(stops.size() - 1);
    const auto lower = std::min(static_cast<std::size_t>(position), stops.size() - 2);
    const double fraction = position - static_cast<double>(lower);
    std::array<std::uint8_t, 3> colour{};
    for (std::size_t k = 0; k < 3; ++k) {
      const double value = stops[lower][k] + (stops[lower + 1][k] - stops[lower][k]) * fraction;
      colour[k] = static_cast<std::uint8_t>(std::lround(value));
    }
    return colour;
  }

 private:
  std::int64_t floor_div(std::int64_t raw) const {
    const std::int64_t quotient = raw / binUnits;
    return (raw % binUnits != 0 && raw < 0) ? quotient - 1 : quotient;
  }

  std::int64_t binUnits = 0;
  std::int64_t side = 0;
  std::vector<std::uint64_t> counts;
  std::uint64_t outside = 0;
};

/// Writes the histogram as a PNG file, which appears whole or not at all; throws std::runtime_error with libpng's
/// reason when the image cannot be made, or the system's when the file cannot be written. (Encoded in memory:
/// libpng's own file writer empties an earlier file at the target before it starts, and says only "Write Error".)
inline void write_png(const std::string& fileName, const Position_Histogram2D& histogram) {
  const std::vector<std::uint8_t> rgb = histogram.render_rgb();
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(histogram.get_width());
  image.height = static_cast<png_uint_32>(histogram.get_height());
  image.format = PNG_FORMAT_RGB;
  png_alloc_size_t size = 0;
  std::vector<char> bytes;
  bool made = png_image_write_get_memory_size(image, size, 0, rgb.data(), 0, nullptr) != 0;
  if (made) {
    bytes.resize(size);
    made = png_image_write_to_memory(&image, bytes.data(), &size, 0, rgb.data(), 0, nullptr) != 0;
  }
  const std::string failure = "cannot write PNG file \"" + fileName + "\"";
  if (!made) {
    const std::string reason = image.message;
    png_image_free(&image);
    throw std::runtime_error(failure + ": " + reason);
  }
  tools::OutputFile_Checked output(fileName, failure);
  output.stream().write(bytes.data(), static_cast<std::streamsize>(size));
  output.commit();
}

/// Bins the positions of every record of the file that `accepts` (by default all) and writes the image; returns
/// the number of those that fell outside it.
template <typename Record_Type, typename Accept_Type = bool (*)(const Record_Type&)>
std::uint64_t write_positionImage(
    const std::string& fileName, const RecordFile<Record_Type>& file, int size_px, double binning,
    tools::Progress* progress = nullptr, Accept_Type&& accepts = [](const Record_Type&) { return true; }) {
  Position_Histogram2D histogram(size_px, binning);
  file.for_each_chunk(
      [&](std::span<const Record_Type> chunk) {
    for (const Record_Type& record : chunk) {
      if (accepts(record)) histogram.add(record.x, record.y);
    }
      },
      progress);
  write_png(fileName, histogram);
  return histogram.get_outside();
}

}  // namespace kovra::inspect
