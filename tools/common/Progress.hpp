#pragma once

// A progress line for long walks over a file: "\r<label> 42%", rewritten only when the percentage changes, or a
// line of text for a walk of unknown length.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

namespace kovra::tools {

/// Writes to `out` when given one (the program passes standard error only when it is a terminal); silent on
/// a null stream. `done` never exceeds `total` between `start` and `finish`.
class Progress {
 public:
  explicit Progress(std::ostream* out_) : out(out_) {}

  /// Names the walk that follows, e.g. "summary", "csv".
  void set_label(std::string label_) { label = std::move(label_); }

  void start(std::uint64_t total_) {
    total = total_;
    done = 0;
    shown = -1;
    show();
  }

  void advance(std::uint64_t n) {
    done += n;
    show();
  }

  /// Shows `text` in place of the line.
  void show_text(const std::string& text) {
    if (!out) return;
    *out << '\r' << text;
    if (text.size() < width) *out << std::string(width - text.size(), ' ');
    *out << std::flush;
    width = text.size();
  }

  /// Clears the line so that what follows starts on a clean one; the next step shows it again.
  void finish() {
    if (out) *out << '\r' << std::string(std::max(width, label.size() + 6), ' ') << '\r' << std::flush;
    width = 0;
    shown = -1;
  }

 private:
  void show() {
    if (!out) return;
    const int percent = total == 0 ? 100 : static_cast<int>(done * 100 / total);
    if (percent == shown) return;
    shown = percent;
    const std::string text = label + ' ' + std::to_string(percent) + '%';
    show_text(text);
  }

  std::ostream* out;
  std::string label = "reading";
  std::uint64_t total = 0;
  std::uint64_t done = 0;
  int shown = -1;
  std::size_t width = 0;  ///< of the text shown last
};

}  // namespace kovra::tools
