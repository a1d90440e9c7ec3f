#pragma once

// A fresh directory under the system's temporary directory, removed with everything in it at the end of scope.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kovra_cli_XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

  /// Writes text to a file in the directory and returns its full path.
  std::string write(const std::string& name, const std::string& text) const {
    const std::string fileName = *this / name;
    std::ofstream(fileName, std::ios::binary) << text;
    return fileName;
  }

 private:
  std::filesystem::path path_;
};
