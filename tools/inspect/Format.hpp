#pragma once

// Numbers as text, independent of the locale: every figure the inspector prints or exports goes through here.

#include <charconv>
#include <cstdint>
#include <string>
#include <system_error>

namespace kovra::inspect {

/// The shortest text that reads back as exactly `value` ("0.5", "1e-09", "-3"); "nan" and "inf" as such.
inline std::string format_exact(double value) {
  char text[32];
  const auto result = std::to_chars(text, text + sizeof text, value);
  return {text, result.ptr};
}

/// `value` rounded to `digits` significant digits, in plain or exponent notation, whichever is shorter.
inline std::string format_rounded(double value, int digits = 6) {
  char text[48];
  const auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::general, digits);
  return {text, result.ptr};
}

/// A share as a percentage with one decimal, "0.0" for an empty whole.
inline std::string format_percent(std::uint64_t part, std::uint64_t whole) {
  const double percent = whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
  char text[32];
  const auto result = std::to_chars(text, text + sizeof text, percent, std::chars_format::fixed, 1);
  return {text, result.ptr};
}

}  // namespace kovra::inspect
