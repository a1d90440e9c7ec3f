#pragma once

// The bytes of a raw file around the place a walk has reached, read in large blocks: the window holds the file's
// bytes [begin, end) and the walk says which of them it still needs (from `keep` on: a chunk and the start of the
// next, at most), so that memory stays the same whatever the file's length. A followed file may grow while it is
// read: at the end of what is known, the window waits for more and takes the end as final once the file has not
// grown for the time given.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kovra::import {

/// An open raw file and the window of its bytes in memory. Throws std::invalid_argument when the file cannot be
/// opened or read, or shrinks while it is followed.
class Raw_Window {
 public:
  /// Bytes read at a time.
  static constexpr std::size_t block_bytes = std::size_t{1} << 22;  // 4 MiB
  /// The most bytes the walk keeps while it reads on: a chunk header, the largest payload its 16-bit size allows
  /// (a multiple of 8) and the next chunk header.
  static constexpr std::size_t most_keptBytes = 8 + 0xFFF8 + 8;

  /// `followSeconds`: follow the file as it grows, its end final once it has not grown for this long.
  Raw_Window(const std::string& path, std::optional<double> followSeconds_)
      : fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)),
        followSeconds(followSeconds_),
        buffer((block_bytes + most_keptBytes) / 8),
        lastGrowth(std::chrono::steady_clock::now()) {
    if (fd < 0) throw std::invalid_argument(std::string("cannot open: ") + std::strerror(errno));
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
      ::close(fd);
      throw std::invalid_argument("not a regular file");
    }
    knownBytes = static_cast<std::uint64_t>(status.st_size);
  }
  ~Raw_Window() { ::close(fd); }
  Raw_Window(const Raw_Window&) = delete;
  Raw_Window& operator=(const Raw_Window&) = delete;

  /// Called after each read with the bytes read so far and the file's size as known, and every poll while a
  /// followed file is waited for.
  void set_onRead(std::function<void(std::uint64_t, std::uint64_t)> onRead_) { onRead = std::move(onRead_); }

  /// The file's size as far as it is known: at the open, or as last seen when following.
  std::uint64_t get_fileBytes() const { return knownBytes; }
  /// The end of the bytes in the window; the end of the file once has() returned false.
  std::uint64_t get_end() const { return begin + bytes; }

  const unsigned char* get_bytes(std::uint64_t at) const {
    assert(at >= begin && at <= get_end());
    return reinterpret_cast<const unsigned char*>(buffer.data()) + (at - begin);
  }
  std::uint64_t get_word(std::uint64_t at) const {
    std::uint64_t word = 0;
    std::memcpy(&word, get_bytes(at), 8);
    return word;
  }

  /// Makes sure the bytes up to `end` are in the window, keeping those from `keep` on; false when the file ends
  /// before `end` for good (when following: once it has not grown for the time given).
  bool has(std::uint64_t keep, std::uint64_t end) {
    assert(keep >= begin && end >= keep && end - keep <= most_keptBytes);
    while (get_end() < end) {
      if (!read_more(keep)) return false;
    }
    return true;
  }

  /// The `count` words from `at` (in the window) on whole words in memory: in place, or, where they lie off the
  /// buffer's word boundaries (after damage of a length that is no multiple of 8), a copy that lasts until the
  /// next call.
  const std::uint64_t* get_words(std::uint64_t at, std::size_t count) {
    assert(at + 8 * count <= get_end());
    if ((at - begin) % 8 == 0) return buffer.data() + (at - begin) / 8;
    aligned.resize(count);
    std::memcpy(aligned.data(), get_bytes(at), 8 * count);
    return aligned.data();
  }

 private:
  void drop_before(std::uint64_t keep) {
    const auto drop = static_cast<std::size_t>(std::min(keep, get_end()) - begin);
    if (drop == 0) return;
    auto* first = reinterpret_cast<unsigned char*>(buffer.data());
    std::memmove(first, first + drop, bytes - drop);
    bytes -= drop;
    begin += drop;
  }

  /// Reads the next block behind the bytes kept (all that is known of the file, up to a block); false at the
  /// final end.
  bool read_more(std::uint64_t keep) {
    drop_before(keep);
    while (get_end() == knownBytes) {
      if (!wait_forGrowth()) return false;
    }
    const std::uint64_t at = get_end();
    const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size() * 8 - bytes, knownBytes - at));
    assert(want > 0);
    read_exactly(reinterpret_cast<char*>(buffer.data()) + bytes, want, at);
    bytes += want;
    if (onRead) onRead(get_end(), knownBytes);
    return true;
  }

  /// Waits until a followed file has grown past what is known (true) or has not grown for the time given (false,
  /// and from then on its end is final). Without following, the size at the open is final.
  bool wait_forGrowth() {
    if (!followSeconds || ended) return false;
    using Clock = std::chrono::steady_clock;
    const auto quiet = std::chrono::duration<double>(*followSeconds);
    const auto poll = std::chrono::duration<double>(std::clamp(*followSeconds / 4, 0.001, 0.1));
    for (;;) {
      struct stat status {};
      if (::fstat(fd, &status) != 0) throw std::invalid_argument(std::string("cannot follow: ") + std::strerror(errno));
      const auto size = static_cast<std::uint64_t>(status.st_size);
      if (size < knownBytes) {
        throw std::invalid_argument("the file shrank from " + std::to_string(knownBytes) + " to " +
                                    std::to_string(size) + " bytes while it was followed");
      }
      if (size > knownBytes) {
        knownBytes = size;
        lastGrowth = Clock::now();
        return true;
      }
      if (Clock::now() - lastGrowth >= quiet) {
        ended = true;
        return false;
      }
      if (onRead) onRead(get_end(), knownBytes);
      std::this_thread::sleep_for(poll);
    }
  }

  void read_exactly(char* target, std::size_t want, std::uint64_t offset) const {
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
  }

  int fd;
  std::optional<double> followSeconds;
  std::function<void(std::uint64_t, std::uint64_t)> onRead;
  std::vector<std::uint64_t> buffer;   ///< words, so that chunks aligned in it lie on whole words
  std::vector<std::uint64_t> aligned;  ///< a copy of words that lie off them
  std::uint64_t begin = 0;             ///< the file offset of the buffer's first byte
  std::size_t bytes = 0;               ///< bytes in the buffer
  std::uint64_t knownBytes = 0;
  std::chrono::steady_clock::time_point lastGrowth;
  bool ended = false;  ///< a followed file's end is final
};

}  // namespace kovra::import
