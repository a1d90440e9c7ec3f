#pragma once

// Timepix3 raw bytes built word by word and chunk by chunk, for the tests of the import and of the inspector.

#include <cstdint>
#include <string>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Packets.hpp"

struct RawBytes {
  RawBytes& word(std::uint64_t w) {
    data.append(reinterpret_cast<const char*>(&w), 8);  // host order, little-endian here
    return *this;
  }
  RawBytes& words(const std::uint64_t* w, std::size_t n) {
    data.append(reinterpret_cast<const char*>(w), 8 * n);
    return *this;
  }
  /// A chunk of `chip` holding `packets`, given as words.
  RawBytes& chunk(unsigned chip, const std::vector<std::uint64_t>& packets) {
    word(kovra::tpx3spidr::raw::make_chunkHeader(chip, 8 * packets.size()));
    return words(packets.data(), packets.size());
  }
  std::string data;
};
