#pragma once

// Hot pixels: pixels that fire far above the usual rate, listed as a mask file kovra_import --mask reads
// (common/import/PixelMask.hpp). The count of every pixel that fired is taken from a raw file's hits (frame pixels as
// the import places them: one chip, or a quad when chips other than 0 appear) or a photon file's photons (the
// pixel a photon's position lies in). A pixel is hot when its count is more than `factor` times the median
// count of the pixels that fired (at least 1): the median stands for a pixel that sees only light and dark
// counts, and one hot pixel, or a few, cannot move it. Memory: one counter per pixel that fired.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/import/Import.hpp"
#include "common/import/RawReader.hpp"
#include "inspect/RecordFile.hpp"
#include "kovra/OutputFile_Atomic.hpp"
#include "kovra/tpx3spidr/Tpx3Packets.hpp"

namespace kovra::inspect {

/// How often each pixel fired: (x, y) packed as x << 32 | y, for x and y taken as 32-bit unsigned numbers.
using Pixel_Counts = std::unordered_map<std::uint64_t, std::uint64_t>;

inline std::uint64_t pack_pixel(std::int64_t x, std::int64_t y) {
  return static_cast<std::uint64_t>(static_cast<std::uint32_t>(x)) << 32 | static_cast<std::uint32_t>(y);
}

/// The hits of every frame pixel of a raw file. Throws std::invalid_argument where the file is damaged.
inline Pixel_Counts count_rawPixels(const std::string& path) {
  using namespace kovra::tpx3spidr::raw;
  std::vector<std::uint64_t> perChip(4 * 65536, 0);  // chip, column, row
  unsigned chip = 0;
  kovra::import::Raw_Reader reader(path);
  reader.read_all(
      [&](unsigned c, std::uint64_t offset) {
    if (c > 3) {
      throw std::invalid_argument("chunk at byte offset " + std::to_string(offset) + " is of chip " +
                                  std::to_string(c) + ", but a frame has chips 0 to 3");
    }
    chip = c;
      },
      [&](const std::uint64_t* words, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      if (!is_hit(words[i])) continue;
      ++perChip[std::size_t{chip} << 16 | get_hitColumn(words[i]) << 8 | get_hitRow(words[i])];
    }
  },
      [](std::uint64_t, std::uint64_t) {}, [](const kovra::import::Skipped_Stretch&) {});
  const bool quad = std::any_of(perChip.begin() + 65536, perChip.end(), [](std::uint64_t n) { return n != 0; });
  Pixel_Counts counts;
  for (std::size_t k = 0; k < perChip.size(); ++k) {
    if (perChip[k] == 0) continue;
    const auto place = kovra::import::detail::get_placement(quad, static_cast<unsigned>(k >> 16));
    counts[pack_pixel(place.get_x(static_cast<int>((k >> 8) & 255)), place.get_y(static_cast<int>(k & 255)))] =
        perChip[k];
  }
  return counts;
}

/// The photons in every pixel of a photon file.
inline Pixel_Counts count_photonPixels(const RecordFile<kovra::tpx3spidr::PhotonEvent>& file,
                                       tools::Progress* progress) {
  Pixel_Counts counts;
  file.for_each_chunk(
      [&](std::span<const kovra::tpx3spidr::PhotonEvent> photons) {
    for (const auto& p : photons) {
      // Floor division: a position of -0.5 pixel lies in pixel -1.
      const auto pixel = [](std::int64_t units) { return units >= 0 ? units / 65536 : -((-units + 65535) / 65536); };
      ++counts[pack_pixel(pixel(p.x.value), pixel(p.y.value))];
    }
      },
      progress);
  return counts;
}

struct Hot_Pixel {
  std::int32_t x, y;
  std::uint64_t count;
};

struct Hot_Pixels {
  std::vector<Hot_Pixel> pixels;  ///< by y, then x
  std::size_t fired = 0;          ///< pixels that fired at all
  std::uint64_t median = 0;       ///< their median count (the lower of two middles)
};

/// The pixels whose count is more than `factor` times the median of all that fired (the median taken as at least 1).
inline Hot_Pixels find_hotPixels(const Pixel_Counts& counts, double factor) {
  Hot_Pixels hot;
  hot.fired = counts.size();
  if (counts.empty()) return hot;
  std::vector<std::uint64_t> values;
  values.reserve(counts.size());
  for (const auto& [pixel, n] : counts) values.push_back(n);
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>((values.size() - 1) / 2);
  std::nth_element(values.begin(), middle, values.end());
  hot.median = *middle;
  const double bound = factor * static_cast<double>(std::max<std::uint64_t>(hot.median, 1));
  for (const auto& [pixel, n] : counts) {
    if (static_cast<double>(n) > bound) {
      hot.pixels.push_back({static_cast<std::int32_t>(pixel >> 32), static_cast<std::int32_t>(pixel & 0xFFFFFFFF), n});
    }
  }
  std::sort(hot.pixels.begin(), hot.pixels.end(),
            [](const Hot_Pixel& a, const Hot_Pixel& b) { return a.y != b.y ? a.y < b.y : a.x < b.x; });
  return hot;
}

/// The list as a mask file: "X Y" lines with each pixel's count as a comment, and a comment saying how it was made.
inline void write_hotPixels(std::ostream& out, const Hot_Pixels& hot, const std::string& source, double factor,
                            const char* unit) {
  out << "# hot pixels of " << source << ": " << hot.pixels.size() << " of the " << hot.fired << " pixels that fired "
      << "have more than " << factor << " x the median of " << hot.median << ' ' << unit << "\n# x y\n";
  for (const auto& p : hot.pixels) out << p.x << ' ' << p.y << "  # " << p.count << ' ' << unit << '\n';
}

}  // namespace kovra::inspect
