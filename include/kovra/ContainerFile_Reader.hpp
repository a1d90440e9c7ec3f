#pragma once

// Reading a container file's lists in pieces. Opening a file checks its header, its build block and the
// framing of every content block (reading headers only), and keeps where the list that counts lies and, when
// the file has one, where the trigger list that counts lies. A RecordCursor then hands out the records of one
// such list a chunk at a time, so memory stays bounded however long the list is.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <ios>
#include <optional>
#include <stdexcept>
#include <string>

#include "kovra/detail/RecordIO.hpp"

namespace kovra {

/// Where a block's content starts in the file and how many fixed-width entries it holds.
struct Block_Location {
  std::uint64_t offset = 0;
  std::uint64_t count = 0;
};

/// The lists of a checked file as its blocks lie: the record list that counts (the last one) and, when the file
/// has one, the trigger list that counts (absent and empty stay apart, as in the data sets).
struct File_Layout {
  Block_Location records;
  std::optional<Block_Location> extTriggers;
};

/// Hands out the entries of one list of a checked file, in file order, a chunk at a time. A file that vanishes
/// or shrinks underneath ends with "Read Error!" (or the open message, when it cannot be opened again).
template <detail::RawRecord Entry_Type>
class RecordCursor {
 public:
  RecordCursor(const std::string& file_name, Block_Location where_)
      : stream(file_name, std::ios::binary), where(where_) {
    if (!stream.is_open()) throw std::invalid_argument("file \"" + file_name + "\" could not be opened!");
    stream.seekg(static_cast<std::streamoff>(where.offset));
  }

  std::uint64_t size() const { return where.count; }
  std::uint64_t get_position() const { return done; }

  /// Reads up to `capacity` entries into `destination`; returns how many, 0 once the list is exhausted.
  std::size_t read(Entry_Type* destination, std::size_t capacity) {
    const auto n = static_cast<std::size_t>(std::min<std::uint64_t>(capacity, where.count - done));
    if (n == 0) return 0;
    const auto bytes = static_cast<std::streamsize>(n * sizeof(Entry_Type));
    stream.read(reinterpret_cast<char*>(destination), bytes);
    if (!stream || stream.gcount() != bytes) throw std::invalid_argument("Read Error!");
    done += n;
    return n;
  }

  /// Back to the first entry.
  void rewind() {
    stream.clear();
    stream.seekg(static_cast<std::streamoff>(where.offset));
    done = 0;
  }

 private:
  std::ifstream stream;
  Block_Location where;
  std::uint64_t done = 0;
};

}  // namespace kovra
