#pragma once

// Levelled, time-stamped log lines. Errors go to standard error, everything else to standard output; every
// line is flushed so that the two streams stay in order when piped.

#include <chrono>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <string>
#include <string_view>

/// Severity of a log line. The gaps between the values leave room for further levels.
enum class LogLevel : int { error = -1, info = 2, trace = 4 };

/// Threshold: a line prints when logLevel >= its level. Set by --verbose; any integer is allowed.
extern LogLevel logLevel;

namespace kovra::logging_detail {

/// The label of a level, padded with blanks to 9 characters.
template <LogLevel level>
constexpr std::string_view get_logPrefix() {
  static_assert(level == LogLevel::error || level == LogLevel::info || level == LogLevel::trace);
  if constexpr (level == LogLevel::error) return "ERROR:   ";
  if constexpr (level == LogLevel::info) return "info:    ";
  return "trace:   ";
}

}  // namespace kovra::logging_detail

/// Writes "WARNING: <message>" as one flushed line on standard output, whatever the log level: a warning that
/// must always be seen, with no time stamp.
void print_warning(const std::string& message);

/// Writes "<label><local time>: <message>" as one flushed line when the level passes the threshold. Below it
/// nothing is formatted and the clock is not read.
template <LogLevel level>
void logging(const std::string& message) {
  if (logLevel < level) return;

  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const std::time_t seconds = std::chrono::duration_cast<std::chrono::seconds>(now).count();
  std::tm localTime{};
  localtime_r(&seconds, &localTime);

  std::ostream& stream = level == LogLevel::error ? std::cerr : std::cout;
  stream << kovra::logging_detail::get_logPrefix<level>() << std::put_time(&localTime, "%Y-%m-%d %X UTC%z") << ": "
         << message << '\n'
         << std::flush;
}
