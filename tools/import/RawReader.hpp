#pragma once

// Walks a Timepix3 raw file: chunks back to back, each a header word and a payload of 64-bit packets, read in
// large blocks so that memory stays the same whatever the file's length. A chunk's packets are handed on only
// once the whole chunk has been read and checked, so no misread byte becomes a hit.
//
// Three things a file can do besides being whole, each in docs/raw-data.md ("Unfinished and damaged files"):
// - End inside a chunk (an interrupted acquisition): the complete packets before the end are used and the end
//   is reported, unless a chunk marker lies among the bytes the chunk claims, which makes its size damage.
// - Hold damage where a chunk header should be: the walk stops, or with Damage_Policy::skip goes on from the
//   next plausible chunk header (the marker, a size that is a multiple of 8 and fits, a chip that fits, and a
//   marker or the file's end where that chunk ends). When skipping, a chunk is used only when a marker or the
//   file's end follows it; when neither does, it is held back until the next plausible header is found, and
//   used only if that header lies beyond its end by a whole number of packets (the damage then began where it
//   ends); otherwise its size or its payload is damaged, and it is skipped with the rest.
// - Grow while it is read (Raw_Reading::followSeconds): the walk waits at the end for more bytes and takes the
//   end as final once the file has not grown for that long.

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
#include <utility>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Packets.hpp"

namespace kovra::import {

using namespace kovra::tpx3spidr::raw;  // the packet layout

/// What a walk does at damage: stop with the reason, or skip to the next plausible chunk header.
enum class Damage_Policy { stop, skip };

/// How a file is read besides its damage policy.
struct Raw_Reading {
  Damage_Policy damage = Damage_Policy::stop;
  /// When set, the file is followed as it grows; its end is final once it has not grown for this many seconds.
  std::optional<double> followSeconds;
};

/// Where a file that ends inside a chunk (or a chunk header) ends: every complete packet before was used.
struct Unfinished_End {
  std::uint64_t at;           ///< byte offset of the chunk, or of the chunk header, that the file ends in
  bool inHeader;              ///< whether it ends inside the header
  std::uint64_t chunkBytes;   ///< the chunk's payload size as its header says (0 inside a header)
  std::uint64_t unreadAt;     ///< byte offset of the bytes after the last complete packet (or of the header)
  std::uint64_t unreadBytes;  ///< how many there are, up to the end of the file
};

/// A stretch of damaged bytes that a walk skipped: none of its bytes became a packet.
struct Skipped_Stretch {
  std::uint64_t at;
  std::uint64_t bytes;
  std::string cause;  ///< what was found at its start
};

/// An open raw file. Reading throws std::invalid_argument naming the byte offset of any damage it stops at.
class Raw_Reader {
 public:
  /// Bytes read at a time.
  static constexpr std::size_t block_bytes = std::size_t{1} << 22;  // 4 MiB
  /// The most bytes a chunk takes: its header and the largest payload the 16-bit size allows, a multiple of 8.
  static constexpr std::size_t max_chunkBytes = 8 + 0xFFF8;

  /// `fitsChip(chip)` says whether a chunk of that chip may be a resynchronisation point (when skipping damage).
  explicit Raw_Reader(const std::string& path, Raw_Reading reading_ = {},
                      std::function<bool(unsigned)> fitsChip_ = [](unsigned) { return true; })
      : fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)),
        reading(reading_),
        fitsChip(std::move(fitsChip_)),
        buffer((block_bytes + 2 * max_chunkBytes) / 8),
        lastGrowth(std::chrono::steady_clock::now()) {
    if (fd < 0) throw std::invalid_argument(std::string("cannot open: ") + std::strerror(errno));
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
      ::close(fd);
      throw std::invalid_argument("not a regular file");
    }
    knownBytes = static_cast<std::uint64_t>(status.st_size);
  }
  ~Raw_Reader() { ::close(fd); }
  Raw_Reader(const Raw_Reader&) = delete;
  Raw_Reader& operator=(const Raw_Reader&) = delete;

  /// The file's size as far as it is known: at the open, or as last seen when following.
  std::uint64_t get_fileBytes() const { return knownBytes; }

  /// Reads the whole file. For each chunk used calls `onChunk(chip, byteOffset)`, then `onPackets(words, count)`
  /// with its complete packets; after each block read, and while waiting for a followed file to grow,
  /// `onRead(bytesRead, fileBytes)`; for each stretch skipped, `onSkipped(const Skipped_Stretch&)`. Returns where
  /// the file ended when it ended inside a chunk.
  template <typename OnChunk_Type, typename OnPackets_Type, typename OnRead_Type, typename OnSkipped_Type>
  std::optional<Unfinished_End> read_all(OnChunk_Type&& onChunk, OnPackets_Type&& onPackets, OnRead_Type&& onRead_,
                                         OnSkipped_Type&& onSkipped_) {
    onRead = onRead_;
    onSkipped = onSkipped_;
    const auto take = [&](std::uint64_t at, std::uint64_t header, std::uint64_t words) {
      onChunk(get_chunkChip(header), at);
      align_at(at);
      onPackets(reinterpret_cast<const std::uint64_t*>(get_bytes(at + 8)), static_cast<std::size_t>(words));
      anyChunk = true;
    };
    std::uint64_t pos = 0;
    for (;;) {
      if (!has(pos, pos + 8)) return end_at(pos);
      const std::uint64_t header = get_word(pos);
      const std::uint64_t size = get_chunkBytes(header);
      if (!is_chunkHeader(header)) {
        pos = on_damage(pos, pos == 0 ? std::string() : get_noHeaderCause(pos));
        continue;
      }
      if (size % 8 != 0) {
        pos = on_damage(pos, "chunk at byte offset " + std::to_string(pos) + " has a size of " +
                                 std::to_string(size) + " bytes, not a multiple of 8");
        continue;
      }
      const std::uint64_t end = pos + 8 + size;
      if (!has(pos, end)) {  // the file ends inside the chunk, for good
        const std::uint64_t left = get_endBytes() - pos - 8;
        if (const auto inner = find_markerWord(pos + 8, left / 8)) {
          pos = on_damage(pos, "chunk at byte offset " + std::to_string(pos) + " has a size of " +
                                   std::to_string(size) + " bytes but only " + std::to_string(left) +
                                   " are left in the file, among them a chunk header at byte offset " +
                                   std::to_string(*inner));
          continue;
        }
        take(pos, header, left / 8);
        return Unfinished_End{pos, false, size, pos + 8 + left / 8 * 8, left % 8};
      }
      if (reading.damage == Damage_Policy::skip && !is_followedByHeader(pos, end)) {
        const auto [next, useHeld] = skip_afterChunk(pos, end);
        if (useHeld) {
          onChunk(get_chunkChip(header), pos);
          onPackets(static_cast<const std::uint64_t*>(held.data()), held.size());
          anyChunk = true;
        }
        pos = next;
        continue;
      }
      take(pos, header, size / 8);
      pos = end;
    }
  }

 private:
  // The buffer holds the file's bytes [bufferBegin, bufferBegin + bufferBytes); the walk keeps the bytes it still
  // needs (a chunk and the start of the next, at most) and reads blocks behind them.

  std::uint64_t get_endBytes() const { return bufferBegin + bufferBytes; }
  unsigned char* get_bytes(std::uint64_t at) {
    return reinterpret_cast<unsigned char*>(buffer.data()) + (at - bufferBegin);
  }
  std::uint64_t get_word(std::uint64_t at) {
    std::uint64_t word = 0;
    std::memcpy(&word, get_bytes(at), 8);
    return word;
  }
  bool is_marker(std::uint64_t at) {
    std::uint32_t low = 0;
    std::memcpy(&low, get_bytes(at), 4);
    return low == chunk_magic;
  }
  /// Whether the bytes from `at` to the end of what was read are the start of a chunk marker (none: true).
  bool is_markerPrefix(std::uint64_t at) {
    const std::uint64_t n = std::min<std::uint64_t>(get_endBytes() - at, 4);
    const std::uint32_t magic = chunk_magic;
    return std::memcmp(get_bytes(at), &magic, static_cast<std::size_t>(n)) == 0;
  }

  /// Makes sure the bytes up to `end` are read, keeping those from `keep` on; false when the file ends before
  /// `end` for good (when following: once it has not grown for the time given).
  bool has(std::uint64_t keep, std::uint64_t end) {
    assert(keep >= bufferBegin && end - keep <= buffer.size() * 8 - 16);
    while (get_endBytes() < end) {
      if (!read_more(keep)) return false;
    }
    return true;
  }

  bool read_more(std::uint64_t keep) {
    if (keep > bufferBegin) {
      const auto drop = static_cast<std::size_t>(std::min(keep, get_endBytes()) - bufferBegin);
      auto* bytes = reinterpret_cast<unsigned char*>(buffer.data());
      std::memmove(bytes, bytes + drop, bufferBytes - drop);
      bufferBytes -= drop;
      bufferBegin += drop;
    }
    while (get_endBytes() == knownBytes) {
      if (!wait_forGrowth()) return false;
    }
    const std::uint64_t at = get_endBytes();
    const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size() * 8 - bufferBytes, knownBytes - at));
    read_exactly(reinterpret_cast<char*>(buffer.data()) + bufferBytes, want, at);
    bufferBytes += want;
    onRead(get_endBytes(), knownBytes);
    return true;
  }

  /// Moves the bytes from `at` to the front of the buffer when a chunk there would not lie on whole words.
  void align_at(std::uint64_t at) {
    if ((at - bufferBegin) % 8 == 0) return;
    auto* bytes = reinterpret_cast<unsigned char*>(buffer.data());
    const auto drop = static_cast<std::size_t>(at - bufferBegin);
    std::memmove(bytes, bytes + drop, bufferBytes - drop);
    bufferBytes -= drop;
    bufferBegin = at;
  }

  /// Waits until a followed file grows past what is known (true) or has not grown for the time given (false,
  /// and from then on the end is final). Without following, the size at the open is final.
  bool wait_forGrowth() {
    if (!reading.followSeconds || ended) return false;
    using Clock = std::chrono::steady_clock;
    const auto quiet = std::chrono::duration<double>(*reading.followSeconds);
    const auto poll = std::chrono::duration<double>(std::clamp(*reading.followSeconds / 4, 0.001, 0.1));
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
      onRead(get_endBytes(), knownBytes);
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

  static std::string get_noHeaderCause(std::uint64_t at) {
    return "no chunk header at byte offset " + std::to_string(at) + " where the previous chunk ends";
  }

  /// The offset of the first of `words` payload words from `at` that carries the chunk marker.
  std::optional<std::uint64_t> find_markerWord(std::uint64_t at, std::uint64_t words) {
    for (std::uint64_t i = 0; i < words; ++i) {
      if (is_marker(at + 8 * i)) return at + 8 * i;
    }
    return std::nullopt;
  }

  /// Whether a marker, or the end of the file (a final one, or the start of a marker before it), follows the
  /// chunk that ends at `end`.
  bool is_followedByHeader(std::uint64_t keep, std::uint64_t end) {
    if (has(keep, end + 4)) return is_marker(end);
    return is_markerPrefix(end);
  }

  /// Whether a chunk header at `at` (its marker found) is a plausible place to go on from.
  bool is_plausible(std::uint64_t at) {
    if (!has(at, at + 8)) return false;
    const std::uint64_t header = get_word(at);
    const std::uint64_t size = get_chunkBytes(header);
    if (size % 8 != 0 || !fitsChip(get_chunkChip(header))) return false;
    const std::uint64_t end = at + 8 + size;
    return has(at, end) && is_followedByHeader(at, end);
  }

  /// The first plausible chunk header from `from` on, or the end of the file when there is none.
  std::uint64_t find_plausible(std::uint64_t from) {
    std::uint64_t scan = from;
    const std::uint32_t magic = chunk_magic;
    for (;;) {
      if (!has(scan, scan + 4)) return get_endBytes();
      const unsigned char* first = get_bytes(scan);
      const auto n = static_cast<std::size_t>(get_endBytes() - scan);
      const void* found = ::memmem(first, n, &magic, 4);
      if (found == nullptr) {
        scan = get_endBytes() - 3;  // a marker may begin in the last 3 bytes
        continue;
      }
      const std::uint64_t at = scan + static_cast<std::uint64_t>(static_cast<const unsigned char*>(found) - first);
      if (is_plausible(at)) return at;
      scan = at + 1;
    }
  }

  /// Damage where a chunk header should be, at `at`: stops with `cause`, or skips to the next plausible chunk
  /// header and returns its offset. An empty cause: the file's first word is no chunk header.
  std::uint64_t on_damage(std::uint64_t at, const std::string& cause) {
    if (reading.damage == Damage_Policy::stop) {
      if (cause.empty()) throw std::invalid_argument("not Timepix3 raw data: no chunk header at byte offset 0");
      throw std::invalid_argument(cause + "; --skip-damaged imports the rest");
    }
    const std::uint64_t next = find_plausible(at + 1);
    if (!anyChunk && at == 0 && next == get_endBytes()) {
      throw std::invalid_argument("not Timepix3 raw data: no plausible chunk header anywhere in the file");
    }
    onSkipped(Skipped_Stretch{at, next - at, cause.empty() ? "no chunk header at byte offset 0" : cause});
    return next;
  }

  /// The chunk from `at` to `end` is sound but no chunk header follows it: it is held back (in `held`) while the
  /// next plausible chunk header is found, and used when that lies a whole number of packets past `end` (the
  /// damage began there), else skipped with the rest. Returns where the walk goes on and whether to use `held`.
  std::pair<std::uint64_t, bool> skip_afterChunk(std::uint64_t at, std::uint64_t end) {
    align_at(at);
    const auto* words = reinterpret_cast<const std::uint64_t*>(get_bytes(at + 8));
    held.assign(words, words + (end - at - 8) / 8);
    const std::uint64_t next = find_plausible(at + 1);
    if (next > end && (next - end) % 8 == 0) {
      onSkipped(Skipped_Stretch{end, next - end, get_noHeaderCause(end)});
      return {next, true};
    }
    onSkipped(Skipped_Stretch{at, next - at,
                              "the chunk at byte offset " + std::to_string(at) + " ends at byte offset " +
                                  std::to_string(end) + ", where no chunk header begins"});
    return {next, false};
  }

  /// At the end of what the file holds, `pos` being where the next chunk header would begin.
  std::optional<Unfinished_End> end_at(std::uint64_t pos) {
    const std::uint64_t left = get_endBytes() - pos;
    if (left == 0) {
      if (pos == 0) throw std::invalid_argument("not Timepix3 raw data: the file is empty");
      return std::nullopt;
    }
    if (is_markerPrefix(pos)) return Unfinished_End{pos, true, 0, pos, left};
    on_damage(pos, pos == 0 ? std::string() : get_noHeaderCause(pos));
    return std::nullopt;
  }

  int fd;
  Raw_Reading reading;
  std::function<bool(unsigned)> fitsChip;
  std::function<void(std::uint64_t, std::uint64_t)> onRead;
  std::function<void(const Skipped_Stretch&)> onSkipped;
  std::vector<std::uint64_t> buffer;
  std::uint64_t bufferBegin = 0;  ///< the file offset of the buffer's first byte
  std::size_t bufferBytes = 0;
  std::uint64_t knownBytes = 0;
  std::chrono::steady_clock::time_point lastGrowth;
  bool ended = false;     ///< a followed file's end is final
  bool anyChunk = false;  ///< a chunk was used
  std::vector<std::uint64_t> held;
};

}  // namespace kovra::import
