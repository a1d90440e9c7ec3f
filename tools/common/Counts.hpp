#pragma once

// A count and what it counts, as the tools' messages write it: the singular for exactly one ("1 photon",
// "0 photons", "2 photons").

#include <cstdint>
#include <string>
#include <string_view>

namespace kovra::tools {

/// "1 flash", "3 flashes": `n` and the noun that fits it.
inline std::string format_count(std::uint64_t n, std::string_view singular, std::string_view plural) {
  return std::to_string(n) + ' ' + std::string(n == 1 ? singular : plural);
}

/// The same for a noun whose plural adds an "s".
inline std::string format_count(std::uint64_t n, std::string_view singular) {
  return format_count(n, singular, std::string(singular) + 's');
}

}  // namespace kovra::tools
