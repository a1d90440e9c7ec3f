#pragma once

// Positions binned into a square grid of cells, exactly: a cell is a whole number of raw length units on a side,
// and a position falls in the cell of its raw count divided by that width, rounded down.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>

namespace kovra {

/// A grid of `side` x `side` cells, each `binUnits` raw units on a side, from position (0, 0): columns along x,
/// rows along y. Cell (column, row) holds column * binUnits <= x < (column + 1) * binUnits, and the same in y.
template <typename Length_Type>
struct Position_Binning {
  std::int64_t binUnits = 1;
  std::int64_t side = 0;

  /// The grid that covers `size_px` pixels on a side with cells of `binning_px` pixels (rounded to whole raw
  /// units; a last cell that sticks out is whole). Throws std::invalid_argument for a size below one pixel or a
  /// cell below one raw unit.
  static Position_Binning make(double size_px, double binning_px) {
    constexpr auto perPixel = static_cast<double>(Length_Type::units_per_pixel);
    const double units = std::round(binning_px * perPixel);
    const double sizeUnits = std::round(size_px * perPixel);
    if (!(sizeUnits >= perPixel) || !(sizeUnits <= 1e15) || !(units >= 1.0) || !(units <= 1e15)) {
      throw std::invalid_argument(
          "a position grid needs a size of at least one pixel and cells of at least one "
          "raw unit");
    }
    const auto cell = static_cast<std::int64_t>(units);
    const auto size = static_cast<std::int64_t>(sizeUnits);
    return {cell, (size + cell - 1) / cell};
  }

  std::size_t get_cellCount() const { return static_cast<std::size_t>(side) * static_cast<std::size_t>(side); }

  /// The index row * side + column of the cell holding (x, y); none outside the grid.
  std::optional<std::size_t> get_cell(Length_Type x, Length_Type y) const {
    const std::int64_t column = floor_div(x.value);
    const std::int64_t row = floor_div(y.value);
    if (column < 0 || column >= side || row < 0 || row >= side) return std::nullopt;
    return static_cast<std::size_t>(row * side + column);
  }

  std::int64_t floor_div(std::int64_t raw) const {
    const std::int64_t quotient = raw / binUnits;
    return (raw % binUnits != 0 && raw < 0) ? quotient - 1 : quotient;
  }
};

}  // namespace kovra
