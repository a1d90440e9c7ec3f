#pragma once

// The companion files of a file are named after it: its suffix replaced ("run.kovraphot" gives "run.truth.csv").

#include <string>
#include <string_view>

namespace kovra::tools {

/// `path` with its ending `from` replaced by `to`; where it does not end so, `to` is added.
inline std::string replace_suffix(const std::string& path, std::string_view from, std::string_view to) {
  return (path.ends_with(from) ? path.substr(0, path.size() - from.size()) : path) + std::string(to);
}

}  // namespace kovra::tools
