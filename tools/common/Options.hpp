#pragma once

// Reading option values the same way in every companion tool, with one grammar for what is wrong:
//
//   option --NAME needs WHAT, not "TEXT"
//
// where WHAT says the kind of value and its range ("a number of seconds greater than 0 and at most 1000000",
// "a whole number of pixels from 0 to 16", "single or quad"). And what every option switch ends with: help,
// version and getopt's own complaints.

#include <charconv>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/CommandLine.hpp"

namespace kovra::tools {

/// The range a number given to an option must lie in, and how the messages name its kind.
struct Number_Range {
  const char* kind;  ///< "a number of seconds", "a whole number of pixels", ...
  double low;
  double high = std::numeric_limits<double>::infinity();
  bool lowOpen = false;   ///< greater than `low`, not at least
  bool whole = false;     ///< a whole number (written without a fraction or exponent)
  bool infinity = false;  ///< "inf" stands for +infinity, beyond `high`
};

/// A bound as the messages show it: whole numbers in full ("1000000"), others in the shortest exact form.
inline std::string format_bound(double value) {
  if (value == std::floor(value) && std::fabs(value) < 1e15) return std::to_string(static_cast<std::int64_t>(value));
  char text[32];
  const auto result = std::to_chars(text, text + sizeof text, value);
  return {text, result.ptr};
}

/// What a range asks for, as the messages say it: "a number of seconds greater than 0 and at most 1000000".
inline std::string describe_range(const Number_Range& range) {
  std::string text = range.kind;
  const bool bounded = std::isfinite(range.high);
  if (range.lowOpen) {
    text += " greater than " + format_bound(range.low) + (bounded ? " and at most " + format_bound(range.high) : "");
  } else if (bounded) {
    text += " from " + format_bound(range.low) + " to " + format_bound(range.high);
  } else {
    text += ", at least " + format_bound(range.low);
  }
  if (range.infinity) text += " (or inf)";
  return text;
}

/// The bad-usage line for a value of `--option`: option --OPTION needs WHAT, not "TEXT".
inline std::invalid_argument bad_value(std::string_view option, const std::string& what, std::string_view text) {
  return std::invalid_argument("option --" + std::string(option) + " needs " + what + ", not \"" + std::string(text) +
                               "\"");
}

/// The number `text` given to `--option`, checked against `range`; throws the bad-usage line otherwise.
template <typename Number_Type = double>
Number_Type parse_number(std::string_view option, std::string_view text, const Number_Range& range) {
  if (range.infinity && text == "inf") return std::numeric_limits<Number_Type>::infinity();
  const auto fail = [&] { return bad_value(option, describe_range(range), text); };
  double value = 0;
  const char* end = text.data() + text.size();
  if (range.whole) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) throw fail();
    std::uint64_t whole = 0;
    const auto [ptr, error] = std::from_chars(text.data(), end, whole);
    if (error != std::errc() || ptr != end) throw fail();
    if (static_cast<double>(whole) > range.high) throw fail();
    value = static_cast<double>(whole);
    if (value < range.low || (range.lowOpen && value == range.low)) throw fail();
    if constexpr (std::is_integral_v<Number_Type>) return static_cast<Number_Type>(whole);
  } else {
    const auto [ptr, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || ptr != end || !std::isfinite(value)) throw fail();
    if (value < range.low || (range.lowOpen && value == range.low) || value > range.high) throw fail();
  }
  return static_cast<Number_Type>(value);
}

/// The value of the choice named `text` given to `--option`; throws the bad-usage line naming every choice
/// ("A, B or C").
template <typename Value_Type>
Value_Type parse_choice(std::string_view option, std::string_view text,
                        std::initializer_list<std::pair<std::string_view, Value_Type>> choices) {
  std::string names;
  std::size_t k = 0;
  for (const auto& [name, value] : choices) {
    if (name == text) return value;
    ++k;
    names += (k == 1 ? "" : k == choices.size() ? " or " : ", ") + std::string(name);
  }
  throw bad_value(option, names, text);
}

/// The entries of a comma-separated list given to `--option`; none may be empty.
inline std::vector<std::string> split_list(std::string_view option, std::string_view text) {
  std::vector<std::string> items;
  std::size_t begin = 0;
  for (;;) {
    const std::size_t comma = text.find(',', begin);
    items.emplace_back(text.substr(begin, comma == std::string_view::npos ? std::string_view::npos : comma - begin));
    if (items.back().empty()) throw bad_value(option, "a comma-separated list without empty entries", text);
    if (comma == std::string_view::npos) return items;
    begin = comma + 1;
  }
}

/// Whether getopt_long returned what every tool handles alike: -h/--help, --version, or a complaint.
inline bool is_commonOption(int c) { return c == 'h' || c == versionOption || c == '?' || c == ':'; }

/// Handles what is_commonOption() says: help and version end the parse, a complaint is the bad-usage line.
/// `Options_Type` has `helpRequested` and `versionRequested`.
template <typename Options_Type>
void take_commonOption(int c, char* const argv[], Options_Type& options) {
  if (c == 'h') {
    options.helpRequested = true;
  } else if (c == versionOption) {
    options.versionRequested = true;
  } else {
    throw_getoptError(c, argv);
  }
}

/// Reads the options of a command line with getopt_long (`shortOptions` begins with ':'), handing each to
/// `take(c, value)` (value "" for an option without one) except those every tool handles alike. Returns false
/// when help or version ended the parse; a complaint throws the bad-usage line. getopt's state is reset first, so
/// a process may parse more than once (the tests do).
template <typename Options_Type, typename Take_Type>
bool read_options(int argc, char* const argv[], const char* shortOptions, const option* longOptions,
                  Options_Type& options, Take_Type&& take) {
  optind = 0;
  opterr = 0;
  for (int c = 0; (c = getopt_long(argc, argv, shortOptions, longOptions, nullptr)) != -1;) {
    if (is_commonOption(c)) {
      take_commonOption(c, argv, options);
      return false;
    }
    take(c, std::string(optarg != nullptr ? optarg : ""));
  }
  return true;
}

}  // namespace kovra::tools
