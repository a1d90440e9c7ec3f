#pragma once

// Pixel masks: pixels whose hits the import drops before anything else sees them (hot and noisy pixels, which
// fire far more often than light reaches them). A mask file is plain text, one pixel per line as "X Y", frame
// coordinates as the photon file has them (x = column, y = row on one chip; the quad's frame with --layout
// quad); '#' starts a comment and blank lines are skipped, so `kovra_inspect --hot-pixels` writes exactly such a
// file, with each pixel's count as a comment. A pixel may be named more than once.

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace kovra::import {

/// The masked pixels of a square frame, one bit each (32 KiB for a quad).
class Pixel_Mask {
 public:
  explicit Pixel_Mask(unsigned side_) : side(side_), bits(std::size_t{side_} * side_, false) {}

  unsigned get_side() const { return side; }
  std::size_t get_count() const { return count; }

  void add(unsigned x, unsigned y) {
    auto bit = bits[std::size_t{y} * side + x];
    if (!bit) ++count;
    bit = true;
  }
  bool is_masked(unsigned x, unsigned y) const { return bits[std::size_t{y} * side + x]; }

 private:
  unsigned side;
  std::vector<bool> bits;
  std::size_t count = 0;
};

/// Reads a mask file for a frame of `side` x `side` pixels; throws std::invalid_argument with one line naming the
/// file and what is wrong.
inline Pixel_Mask read_pixelMask(const std::string& path, unsigned side) {
  std::ifstream file(path);
  const std::string where = "pixel mask '" + path + "': ";
  if (!file) throw std::invalid_argument(where + "cannot be read");
  Pixel_Mask mask(side);
  const auto coordinate = [side](const std::string& text, unsigned& value) {
    if (text.empty() || text.size() > 3 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    value = static_cast<unsigned>(std::stoul(text));
    return value < side;
  };
  std::string line;
  for (std::size_t number = 1; std::getline(file, line); ++number) {
    std::istringstream fields(line.substr(0, line.find('#')));
    std::string xText, yText, extra;
    if (!(fields >> xText)) continue;  // blank or comment
    unsigned x = 0, y = 0;
    if (!(fields >> yText) || (fields >> extra) || !coordinate(xText, x) || !coordinate(yText, y)) {
      throw std::invalid_argument(where + "line " + std::to_string(number) + ": expected a pixel's x and y, whole " +
                                  "numbers from 0 to " + std::to_string(side - 1) + ", got '" + line + "'");
    }
    mask.add(x, y);
  }
  if (file.bad()) throw std::invalid_argument(where + "cannot be read");
  return mask;
}

}  // namespace kovra::import
