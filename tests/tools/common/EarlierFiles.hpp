#pragma once

// For a tool's run that must fail and leave every output as it was: files put in place beforehand, each holding
// "earlier NAME", the ones among them that changed, and what the folder holds afterwards.

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "TempDir.hpp"

/// Writes "earlier NAME" into each named file of `dir`, making its folder first.
inline void write_earlierFiles(const TempDir& dir, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    std::filesystem::create_directories(std::filesystem::path(dir.file(name)).parent_path());
    write_bytes(dir.file(name), "earlier " + name);
  }
}

/// The files of `names` that no longer hold "earlier NAME".
inline std::vector<std::string> get_changedFiles(const TempDir& dir, const std::vector<std::string>& names) {
  std::vector<std::string> changed;
  for (const std::string& name : names) {
    if (read_bytes(dir.file(name)) != "earlier " + name) changed.push_back(name);
  }
  return changed;
}

/// Every file and folder under `dir`, relative to it and sorted, without run_program's stdout.txt and stderr.txt.
inline std::vector<std::string> list_folder(const TempDir& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path())) {
    const std::string name = entry.path().lexically_relative(dir.path());
    if (name != "stdout.txt" && name != "stderr.txt") names.push_back(name);
  }
  std::ranges::sort(names);
  return names;
}
