#pragma once

// An output written by a library that takes a file name (HDF5, libtiff) that appears at its path whole or not
// at all: the library writes a hidden name beside the target, and only `commit` flushes that file and renames it
// over the target. Destroyed without a commit (a failure, an exception), the hidden file is removed and an
// earlier file at the target stays as it was.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>

namespace kovra::inspect {

/// A hidden temporary name beside a target, renamed over it on commit, removed otherwise.
class OutputPath_Atomic {
 public:
  /// `target` is the path the output is to have; `what` names it in messages ("HDF5 file").
  OutputPath_Atomic(std::string target_, std::string what_) : target(std::move(target_)), what(std::move(what_)) {
    const std::filesystem::path path(target);
    const std::string hidden = "." + path.filename().string() + "." + std::to_string(::getpid()) + ".partial";
    temporary = (path.parent_path() / hidden).string();
  }
  OutputPath_Atomic(const OutputPath_Atomic&) = delete;
  OutputPath_Atomic& operator=(const OutputPath_Atomic&) = delete;
  ~OutputPath_Atomic() {
    if (!committed) ::unlink(temporary.c_str());
  }

  /// The name to hand to the library that writes the output.
  const std::string& get_temporary() const { return temporary; }
  const std::string& get_target() const { return target; }

  /// Creates the temporary file empty, for a writer that reports a failure less clearly (HDF5);
  /// throws std::runtime_error with the reason when the target's folder cannot take it.
  void create() const {
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) fail(errno);
    ::close(fd);
  }

  /// Makes the written file durable and moves it over the target; throws std::runtime_error with the reason.
  void commit() {
    const int fd = ::open(temporary.c_str(), O_RDONLY | O_CLOEXEC);
    const bool flushed = fd >= 0 && ::fsync(fd) == 0;
    const int error = errno;
    if (fd >= 0) ::close(fd);
    if (!flushed) fail(error);
    if (::rename(temporary.c_str(), target.c_str()) != 0) fail(errno);
    committed = true;
    const std::string parent = std::filesystem::path(target).parent_path().string();
    const int directory = ::open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory >= 0) {
      ::fsync(directory);
      ::close(directory);
    }
  }

 private:
  [[noreturn]] void fail(int error) const {
    throw std::runtime_error("cannot write " + what + " \"" + target + "\": " + std::strerror(error));
  }

  std::string target;
  std::string what;
  std::string temporary;
  bool committed = false;
};

}  // namespace kovra::inspect
