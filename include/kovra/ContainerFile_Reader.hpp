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
#include <istream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

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
  /// Reads from a file of its own.
  RecordCursor(const std::string& file_name, Block_Location where_)
      : owned(std::make_unique<std::ifstream>(file_name, std::ios::binary)), stream(*owned), where(where_) {
    if (!owned->is_open()) throw std::invalid_argument("file \"" + file_name + "\" could not be opened!");
    stream.seekg(static_cast<std::streamoff>(where.offset));
  }

  /// Reads from a stream the caller keeps open, which it then uses alone.
  RecordCursor(std::istream& stream_, Block_Location where_) : stream(stream_), where(where_) {
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

  /// The remaining entries appended to `entries`, room reserved once, read a chunk of 1 MiB at a time.
  void read_all(std::vector<Entry_Type>& entries) {
    const std::uint64_t left = where.count - done;
    detail::reserve_records(entries, static_cast<std::size_t>(left));
    std::vector<Entry_Type> chunk(static_cast<std::size_t>(
        std::min<std::uint64_t>(left, std::max<std::size_t>(1, detail::io_block_bytes / sizeof(Entry_Type)))));
    while (const std::size_t n = read(chunk.data(), chunk.size())) {
      entries.insert(entries.end(), chunk.begin(), chunk.begin() + static_cast<std::ptrdiff_t>(n));
    }
  }

  /// Back to the first entry.
  void rewind() {
    stream.clear();
    stream.seekg(static_cast<std::streamoff>(where.offset));
    done = 0;
  }

 private:
  std::unique_ptr<std::ifstream> owned;
  std::istream& stream;
  Block_Location where;
  std::uint64_t done = 0;
};

}  // namespace kovra
