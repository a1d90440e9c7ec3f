#pragma once

// Walks a Timepix3 raw file: chunks back to back, each a header word and a payload of 64-bit packets, read in
// large blocks so that memory stays the same whatever the file's length. Every chunk is checked before its
// packets are handed on, so damage stops the walk before a misread byte can become a hit.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Packets.hpp"

namespace kovra::import {

using namespace kovra::tpx3spidr::raw;  // the packet layout

/// An open raw file. Reading throws std::invalid_argument naming the byte offset of any damage.
class Raw_Reader {
 public:
  static constexpr std::size_t block_words = std::size_t{1} << 19;  // 4 MiB

  explicit Raw_Reader(const std::string& path) : fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (fd < 0) throw std::invalid_argument(std::string("cannot open: ") + std::strerror(errno));
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
      ::close(fd);
      throw std::invalid_argument("not a regular file");
    }
    fileBytes = static_cast<std::uint64_t>(status.st_size);
  }
  ~Raw_Reader() { ::close(fd); }
  Raw_Reader(const Raw_Reader&) = delete;
  Raw_Reader& operator=(const Raw_Reader&) = delete;

  std::uint64_t get_fileBytes() const { return fileBytes; }

  /// Reads the whole file. For each chunk calls `onChunk(chip, byteOffset)`, then `onPackets(words, count)`
  /// for its payload (possibly in several pieces); after each block read, `onBlock(bytesDone)`.
  template <typename OnChunk_Type, typename OnPackets_Type, typename OnBlock_Type>
  void read_all(OnChunk_Type&& onChunk, OnPackets_Type&& onPackets, OnBlock_Type&& onBlock) {
    if (fileBytes == 0) throw std::invalid_argument("not Timepix3 raw data: the file is empty");
    std::vector<std::uint64_t> block(block_words);
    std::uint64_t offset = 0;     // file offset of block[0]
    std::uint64_t chunkLeft = 0;  // payload words of the current chunk not yet handed on
    while (offset < fileBytes) {
      const std::size_t bytes = read_block(block, offset);
      const std::size_t words = bytes / 8;
      std::size_t i = 0;
      while (i < words) {
        if (chunkLeft == 0) {
          const std::uint64_t at = offset + 8 * i;
          const std::uint64_t header = block[i++];
          check_header(header, at);
          chunkLeft = get_chunkBytes(header) / 8;
          onChunk(get_chunkChip(header), at);
          continue;
        }
        const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(chunkLeft, words - i));
        onPackets(static_cast<const std::uint64_t*>(block.data() + i), n);
        chunkLeft -= n;
        i += n;
      }
      offset += 8 * words;
      if (bytes % 8 != 0) {
        // Only the file's last few bytes can fall short of a word, and a header that was checked never
        // reaches them, so they are where a chunk header should begin.
        throw std::invalid_argument("truncated chunk header at byte offset " + std::to_string(offset) + " (" +
                                    std::to_string(bytes % 8) + " bytes left)");
      }
      onBlock(offset);
    }
  }

 private:
  void check_header(std::uint64_t header, std::uint64_t at) const {
    if (!is_chunkHeader(header)) {
      if (at == 0) throw std::invalid_argument("not Timepix3 raw data: no chunk header at byte offset 0");
      throw std::invalid_argument("no chunk header at byte offset " + std::to_string(at) +
                                  " where the previous chunk ends");
    }
    const std::uint64_t size = get_chunkBytes(header);
    if (size % 8 != 0) {
      throw std::invalid_argument("chunk at byte offset " + std::to_string(at) + " has a size of " +
                                  std::to_string(size) + " bytes, not a multiple of 8");
    }
    if (size > fileBytes - at - 8) {
      throw std::invalid_argument("chunk at byte offset " + std::to_string(at) + " has a size of " +
                                  std::to_string(size) + " bytes but only " + std::to_string(fileBytes - at - 8) +
                                  " are left in the file");
    }
  }

  /// Fills the block from `offset` with up to its size in bytes (less only at the end of the file).
  std::size_t read_block(std::vector<std::uint64_t>& block, std::uint64_t offset) const {
    const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(block.size() * 8, fileBytes - offset));
    auto* target = reinterpret_cast<char*>(block.data());
    std::size_t got = 0;
    while (got < want) {
      const ssize_t n = ::pread(fd, target + got, want - got, static_cast<off_t>(offset + got));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        throw std::invalid_argument("read failed at byte offset " + std::to_string(offset + got) + ": " +
                                    (n < 0 ? std::strerror(errno) : "the file ended early"));
      }
      got += static_cast<std::size_t>(n);
    }
    return got;
  }

  int fd;
  std::uint64_t fileBytes = 0;
};

}  // namespace kovra::import
