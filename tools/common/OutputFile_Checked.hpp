#pragma once

// An output file of a companion tool written through the library's OutputFile_Atomic, so that it appears at its
// path whole or not at all, and whose failed writes end with the tool's own words and the system's reason
// ("cannot write CSV file "out.csv": No space left on device").

#include <cstring>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>

#include "kovra/OutputFile_Atomic.hpp"

namespace kovra::tools {

/// An OutputFile_Atomic that throws std::runtime_error "<failure>: <reason>" when a write fails.
class OutputFile_Checked {
 public:
  /// `failure` begins the message, such as `cannot write CSV file "out.csv"`; throws when the target cannot be
  /// written at all (a missing folder, a folder in its place).
  OutputFile_Checked(std::string path, std::string failure_) : file(std::move(path)), failure(std::move(failure_)) {
    check();
  }

  std::ostream& stream() { return file.stream(); }

  /// Throws when a write so far has failed; one whose bytes still wait in the buffer shows in commit().
  void check() {
    if (!file.stream()) throw std::runtime_error(failure + ": " + std::strerror(file.get_error()));
  }

  /// Hands every byte to the system, checks, and moves the file into place.
  void commit() {
    file.stream().flush();
    check();
    file.commit();
  }

 private:
  OutputFile_Atomic file;
  std::string failure;
};

}  // namespace kovra::tools
