#pragma once

// Walks a Timepix3 raw file: chunks back to back, each a header word and a payload of 64-bit packets, through a
// Raw_Window. A chunk's packets are handed on only once the whole chunk is in memory and checked, so no misread
// byte becomes a hit.
//
// Besides being whole, a file can (docs/raw-data.md, "Unfinished and damaged files"):
// - End inside a chunk or a chunk header (an interrupted acquisition): the complete packets before the end are
//   used and the end is reported, unless a chunk marker lies among the bytes the chunk claims, which makes its
//   size damage.
// - Hold damage where a chunk header should be (no marker, or a size that is not a multiple of 8): the walk stops,
//   or with Damage_Policy::skip goes on from the next plausible chunk header: the marker, a size that is a
//   multiple of 8, a chip that fits, and a marker or the file's end where that chunk ends. When skipping, a chunk
//   is used right away only when a marker or the file's end follows it. One that is not followed so is held back
//   until the next plausible header is found, and used only when that header lies a whole number of packets
//   beyond its end and its own payload holds no marker: the damage then began where it ends. Otherwise its size
//   or its payload is damaged, and it is skipped with the rest.
// - Grow while it is read (Raw_Reading::followSeconds): see Raw_Window.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/import/RawWindow.hpp"
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
  /// `fitsChip(chip)` says whether a chunk of that chip may be a place to go on from (when skipping damage).
  explicit Raw_Reader(
      const std::string& path, Raw_Reading reading = {},
      std::function<bool(unsigned)> fitsChip_ = [](unsigned) { return true; })
      : window(path, reading.followSeconds), damage(reading.damage), fitsChip(std::move(fitsChip_)) {}

  /// The file's size as far as it is known: at the open, or as last seen when following.
  std::uint64_t get_fileBytes() const { return window.get_fileBytes(); }

  /// Reads the whole file. For each chunk used calls `onChunk(chip, byteOffset)`, then `onPackets(words, count)`
  /// with its complete packets; after each block read, and while waiting for a followed file to grow,
  /// `onRead(bytesRead, fileBytes)`; for each stretch skipped, `onSkipped(const Skipped_Stretch&)`. Returns where
  /// the file ended when it ended inside a chunk.
  template <typename OnChunk_Type, typename OnPackets_Type, typename OnRead_Type, typename OnSkipped_Type>
  std::optional<Unfinished_End> read_all(OnChunk_Type&& onChunk, OnPackets_Type&& onPackets, OnRead_Type&& onRead,
                                         OnSkipped_Type&& onSkipped_) {
    window.set_onRead(onRead);
    onSkipped = onSkipped_;
    const auto use = [&](std::uint64_t at, std::uint64_t header, const std::uint64_t* words, std::uint64_t count) {
      onChunk(get_chunkChip(header), at);
      onPackets(words, static_cast<std::size_t>(count));
      anyChunk = true;
    };
    std::uint64_t pos = 0;
    for (;;) {
      if (!window.has(pos, pos + 8)) return end_at(pos);
      const std::uint64_t header = window.get_word(pos);
      const std::uint64_t size = get_chunkBytes(header);
      if (!is_chunkHeader(header)) {
        pos = on_damage(pos, pos == 0 ? std::string() : get_noHeaderCause(pos));
        continue;
      }
      if (size % 8 != 0) {
        pos = on_damage(pos, "chunk at byte offset " + std::to_string(pos) + " has a size of " + std::to_string(size) +
                                 " bytes, not a multiple of 8");
        continue;
      }
      const std::uint64_t end = pos + 8 + size;
      if (!window.has(pos, end)) {  // the file ends inside the chunk, for good
        const std::uint64_t left = window.get_end() - pos - 8;
        if (const auto inner = find_markerWord(pos + 8, left / 8)) {
          pos = on_damage(pos, "chunk at byte offset " + std::to_string(pos) + " has a size of " +
                                   std::to_string(size) + " bytes but only " + std::to_string(left) +
                                   " are left in the file, among them a chunk header at byte offset " +
                                   std::to_string(*inner));
          continue;
        }
        use(pos, header, window.get_words(pos + 8, left / 8), left / 8);
        return Unfinished_End{pos, false, size, pos + 8 + left / 8 * 8, left % 8};
      }
      if (damage == Damage_Policy::skip && !is_followedByHeader(pos, end)) {
        const auto [next, sound] = skip_afterChunk(pos, end);
        if (sound) use(pos, header, held.data(), held.size());
        pos = next;
        continue;
      }
      use(pos, header, window.get_words(pos + 8, size / 8), size / 8);
      pos = end;
    }
  }

 private:
  bool is_marker(std::uint64_t at) const {
    std::uint32_t low = 0;
    std::memcpy(&low, window.get_bytes(at), 4);
    return low == chunk_magic;
  }
  /// Whether the bytes from `at` to the end of the window are the start of a chunk marker (none: true).
  bool is_markerPrefix(std::uint64_t at) const {
    const std::uint64_t n = std::min<std::uint64_t>(window.get_end() - at, 4);
    const std::uint32_t magic = chunk_magic;
    return std::memcmp(window.get_bytes(at), &magic, static_cast<std::size_t>(n)) == 0;
  }

  static std::string get_noHeaderCause(std::uint64_t at) {
    return "no chunk header at byte offset " + std::to_string(at) + " where the previous chunk ends";
  }

  /// The offset of the first of `words` payload words from `at` that carries the chunk marker.
  std::optional<std::uint64_t> find_markerWord(std::uint64_t at, std::uint64_t words) const {
    for (std::uint64_t i = 0; i < words; ++i) {
      if (is_marker(at + 8 * i)) return at + 8 * i;
    }
    return std::nullopt;
  }

  /// Whether a marker, or the end of the file (a final one, or the start of a marker before it), follows the
  /// chunk from `at` to `end`.
  bool is_followedByHeader(std::uint64_t at, std::uint64_t end) {
    if (window.has(at, end + 4)) return is_marker(end);
    return is_markerPrefix(end);
  }

  /// Whether a chunk header at `at` (its marker found) is a plausible place to go on from.
  bool is_plausible(std::uint64_t at) {
    if (!window.has(at, at + 8)) return false;
    const std::uint64_t header = window.get_word(at);
    const std::uint64_t size = get_chunkBytes(header);
    if (size % 8 != 0 || !fitsChip(get_chunkChip(header))) return false;
    const std::uint64_t end = at + 8 + size;
    return window.has(at, end) && is_followedByHeader(at, end);
  }

  /// The first plausible chunk header from `from` on, or the end of the file when there is none.
  std::uint64_t find_plausible(std::uint64_t from) {
    std::uint64_t scan = from;
    const std::uint32_t magic = chunk_magic;
    for (;;) {
      if (!window.has(scan, scan + 4)) return window.get_end();
      const unsigned char* first = window.get_bytes(scan);
      const auto n = static_cast<std::size_t>(window.get_end() - scan);
      const void* found = ::memmem(first, n, &magic, 4);
      if (found == nullptr) {
        scan = window.get_end() - 3;  // a marker may begin in the last 3 bytes
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
    if (damage == Damage_Policy::stop) {
      if (cause.empty()) throw std::invalid_argument("not Timepix3 raw data: no chunk header at byte offset 0");
      throw std::invalid_argument(cause + "; --skip-damaged imports the rest");
    }
    const std::uint64_t next = find_plausible(at + 1);
    if (!anyChunk && at == 0 && next == window.get_end()) {
      throw std::invalid_argument("not Timepix3 raw data: no plausible chunk header anywhere in the file");
    }
    onSkipped(Skipped_Stretch{at, next - at, cause.empty() ? "no chunk header at byte offset 0" : cause});
    return next;
  }

  /// The chunk from `at` to `end` is whole but no chunk header follows it: it is held back (in `held`) while the
  /// next plausible chunk header is found. Returns where the walk goes on and whether the chunk is sound (see the
  /// top); an unsound one is skipped with the rest.
  std::pair<std::uint64_t, bool> skip_afterChunk(std::uint64_t at, std::uint64_t end) {
    const auto count = static_cast<std::size_t>((end - at - 8) / 8);
    const std::uint64_t* words = window.get_words(at + 8, count);
    held.assign(words, words + count);
    const std::uint64_t next = find_plausible(at + 1);
    if (next > end && (next - end) % 8 == 0 && std::none_of(held.begin(), held.end(), is_chunkHeader)) {
      onSkipped(Skipped_Stretch{end, next - end, get_noHeaderCause(end)});
      return {next, true};
    }
    onSkipped(Skipped_Stretch{at, next - at,
                              "the chunk at byte offset " + std::to_string(at) + " ends at byte offset " +
                                  std::to_string(end) + ", where no chunk header begins"});
    return {next, false};
  }

  /// At the end of the file, `pos` being where the next chunk header would begin.
  std::optional<Unfinished_End> end_at(std::uint64_t pos) {
    const std::uint64_t left = window.get_end() - pos;
    if (left == 0) {
      if (pos == 0) throw std::invalid_argument("not Timepix3 raw data: the file is empty");
      return std::nullopt;
    }
    if (is_markerPrefix(pos)) return Unfinished_End{pos, true, 0, pos, left};
    on_damage(pos, pos == 0 ? std::string() : get_noHeaderCause(pos));
    return std::nullopt;
  }

  Raw_Window window;
  Damage_Policy damage;
  std::function<bool(unsigned)> fitsChip;
  std::function<void(const Skipped_Stretch&)> onSkipped;
  bool anyChunk = false;  ///< a chunk was used
  std::vector<std::uint64_t> held;
};

}  // namespace kovra::import
