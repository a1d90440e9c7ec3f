#pragma once

// The raw files of one run. A run of a camera is often many raw files (RUN_0001.tpx3, RUN_0002.tpx3, ...): given
// several names, or one folder (whose .tpx3 files are taken in the byte order of their names), the import reads
// them one after the other as one stream, exactly as it would read their concatenation.

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace kovra::import {

/// The raw files named on the command line, a folder's .tpx3 files in name order; throws std::invalid_argument
/// with one line for a list that names nothing to read, a folder among several names, or a name given twice.
inline std::vector<std::string> list_rawInputs(const std::vector<std::string>& names) {
  namespace fs = std::filesystem;
  std::error_code error;
  if (names.size() == 1 && fs::is_directory(names.front(), error)) {
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(names.front(), error)) {
      if (entry.path().extension() == ".tpx3" && entry.is_regular_file(error)) files.push_back(entry.path().string());
    }
    if (error) throw std::invalid_argument("cannot list the folder \"" + names.front() + "\": " + error.message());
    if (files.empty()) throw std::invalid_argument("the folder \"" + names.front() + "\" holds no .tpx3 file");
    std::sort(files.begin(), files.end());
    return files;
  }
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (names.size() > 1 && fs::is_directory(names[i], error)) {
      throw std::invalid_argument("a folder of raw files must be the only input, not one of several: \"" + names[i] +
                                  "\"");
    }
    if (std::find(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(i), names[i]) !=
        names.begin() + static_cast<std::ptrdiff_t>(i)) {
      throw std::invalid_argument("the raw file \"" + names[i] + "\" is given twice");
    }
  }
  return names;
}

}  // namespace kovra::import
