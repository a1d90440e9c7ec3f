#pragma once

// The flash of every photon of a simulated photon file: a small binary file beside it ("run.kovraphot" gives
// "run.truth.kovraflash"), read back by kovra_evaluate. Layout, all little-endian (see docs/simulator.md):
//
//   offset  size  field
//   0       8     "KOVRAFLS"
//   8       4     version, 1
//   12      4     bytes per entry, 4 or 8
//   16      8     photon count (entries)
//   24      8     flash count (lines of the truth CSV)
//   32      8     fingerprint of the photons (fingerprint_photons)
//   40      ...   one signed entry per photon, in photon-file order: the flash index, or -1 for a dark count

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/Counts.hpp"
#include "common/PathSuffix.hpp"
#include "kovra/OutputFile_Atomic.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::tools {

/// Where the flash of every photon of a photon file goes: ".kovraphot" replaced by ".truth.kovraflash".
inline std::string get_photonFlashesPath(const std::string& photonPath) {
  return replace_suffix(photonPath, ".kovraphot", ".truth.kovraflash");
}

/// A 64-bit digest of the photons' positions and times, in order, taken a piece at a time: a flash list made for
/// other photons (another seed, another length) almost surely carries another one.
class Photon_Fingerprint {
 public:
  void add(std::span<const kovra::tpx3spidr::PhotonEvent> photons) {
    for (const auto& p : photons) {
      mix(static_cast<std::uint64_t>(static_cast<std::uint32_t>(p.x.value)) << 32 |
          static_cast<std::uint32_t>(p.y.value));
      mix(static_cast<std::uint64_t>(p.toa.value));
    }
  }
  std::uint64_t value() const { return h ^ (h >> 31); }

 private:
  void mix(std::uint64_t v) { h = std::rotl(h ^ v, 27) * 0xBF58476D1CE4E5B9ULL; }
  std::uint64_t h = 0x9E3779B97F4A7C15ULL;
};

/// The fingerprint of a whole photon list.
inline std::uint64_t fingerprint_photons(std::span<const kovra::tpx3spidr::PhotonEvent> photons) {
  Photon_Fingerprint fingerprint;
  fingerprint.add(photons);
  return fingerprint.value();
}

namespace flashes_detail {

inline void put_le(std::string& bytes, std::uint64_t value, int width) {
  for (int i = 0; i < width; ++i) bytes.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

inline std::uint64_t get_le(const unsigned char* bytes, int width) {
  std::uint64_t value = 0;
  for (int i = 0; i < width; ++i) value |= static_cast<std::uint64_t>(bytes[i]) << (8 * i);
  return value;
}

}  // namespace flashes_detail

/// The layout the simulator's truth files share (this one, and the photon of every hit in HitPhotons.hpp): a
/// 40-byte header (magic, version 1, bytes per entry, two counts, the photons' fingerprint), then one
/// little-endian entry per item.
inline constexpr std::uint32_t truthFile_version = 1;
inline constexpr std::size_t truthFile_headerBytes = 40;

/// Streams a truth file's entries through an OutputFile_Atomic: `finish` writes the header, `commit` moves the
/// file into place, so it appears whole or not at all. Throws std::runtime_error with the system's reason when a
/// write fails.
class TruthFile_Writer {
 public:
  TruthFile_Writer(std::string path, const char (&magic_)[8], int width_)
      : file(std::move(path)), magic(magic_), width(width_) {
    check();
    file.stream().write(std::string(truthFile_headerBytes, '\0').data(), truthFile_headerBytes);
    buffer.reserve(buffered);
  }

  const std::string& get_path() const { return file.get_path(); }
  int get_width() const { return width; }

  void add(std::uint64_t entry) {
    flashes_detail::put_le(buffer, entry, width);
    ++nEntries;
    if (buffer.size() >= buffered) flush();
  }

  /// Throws when a write so far has failed (one still in the buffer may fail later, in `finish`).
  void check() {
    if (!file.stream()) {
      throw std::runtime_error("cannot write '" + get_path() + "': " + std::strerror(file.get_error()));
    }
  }

  /// Writes the header (the entry count, then `otherCount`) and hands every byte to the file; throws when that or
  /// an earlier write failed.
  void finish(std::uint64_t otherCount, std::uint64_t fingerprint) {
    flush();
    std::string header(magic, sizeof magic_type{});
    flashes_detail::put_le(header, truthFile_version, 4);
    flashes_detail::put_le(header, static_cast<std::uint64_t>(width), 4);
    flashes_detail::put_le(header, nEntries, 8);
    flashes_detail::put_le(header, otherCount, 8);
    flashes_detail::put_le(header, fingerprint, 8);
    file.stream().seekp(0);
    file.stream().write(header.data(), static_cast<std::streamsize>(header.size()));
    file.stream().flush();
    check();
  }

  /// Moves the finished file into place; throws std::runtime_error when that fails.
  void commit() { file.commit(); }

 private:
  using magic_type = char[8];
  static constexpr std::size_t buffered = std::size_t{1} << 16;

  void flush() {
    file.stream().write(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    buffer.clear();
  }

  OutputFile_Atomic file;
  const char* magic;
  int width;
  std::string buffer;
  std::uint64_t nEntries = 0;
};

/// A truth file read whole and checked against the photons it claims to describe.
struct TruthFile_Contents {
  std::string bytes;
  int width = 0;
  std::uint64_t entries = 0;
  std::uint64_t otherCount = 0;  ///< the header's other count

  /// The raw bits of entry i.
  std::uint64_t get_entry(std::size_t i) const {
    return flashes_detail::get_le(reinterpret_cast<const unsigned char*>(bytes.data()) + truthFile_headerBytes +
                                      i * static_cast<std::size_t>(width),
                                  width);
  }
};

/// Reads a truth file (`kind` names it in messages: "photon flash file") whose entries are `widths` bytes wide (one
/// of them); the photon count (the entries when `entriesArePhotons`, else the other count) and the fingerprint
/// must be those of `photons`. Throws std::invalid_argument with one line saying what is wrong.
inline TruthFile_Contents read_truthFile(const std::string& path, const char (&magic)[8], const std::string& kind,
                                         std::initializer_list<int> widths, bool entriesArePhotons,
                                         std::span<const kovra::tpx3spidr::PhotonEvent> photons) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) throw std::invalid_argument("cannot read the " + kind + " '" + path + "'");
  TruthFile_Contents contents;
  std::string& bytes = contents.bytes;
  bytes.resize(static_cast<std::size_t>(std::max<std::streamoff>(file.tellg(), 0)));
  file.seekg(0);
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!file) throw std::invalid_argument("cannot read the " + kind + " '" + path + "'");
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::string where = kind + " '" + path + "': ";
  if (bytes.size() < truthFile_headerBytes || bytes.compare(0, 8, magic, 8) != 0) {
    throw std::invalid_argument(where + "not a " + kind);
  }
  if (flashes_detail::get_le(data + 8, 4) != truthFile_version) throw std::invalid_argument(where + "unknown version");
  contents.width = static_cast<int>(flashes_detail::get_le(data + 12, 4));
  if (std::find(widths.begin(), widths.end(), contents.width) == widths.end()) {
    throw std::invalid_argument(where + "bad entry width");
  }
  contents.entries = flashes_detail::get_le(data + 16, 8);
  contents.otherCount = flashes_detail::get_le(data + 24, 8);
  const std::uint64_t nPhotons = entriesArePhotons ? contents.entries : contents.otherCount;
  if (nPhotons != photons.size()) {
    throw std::invalid_argument(where + "made for " + tools::format_count(nPhotons, "photon") +
                                ", the photon file has " + std::to_string(photons.size()));
  }
  const auto width = static_cast<std::size_t>(contents.width);
  if ((bytes.size() - truthFile_headerBytes) % width != 0 ||
      (bytes.size() - truthFile_headerBytes) / width != contents.entries) {
    throw std::invalid_argument(where + "truncated or overlong");
  }
  if (flashes_detail::get_le(data + 32, 8) != fingerprint_photons(photons)) {
    throw std::invalid_argument(where + "made for other photons (another seed or other settings)");
  }
  return contents;
}

inline constexpr char photonFlashes_magic[8] = {'K', 'O', 'V', 'R', 'A', 'F', 'L', 'S'};

/// The flash index of every photon, a slice at a time; 4-byte entries whenever they suffice.
class PhotonFlashes_Writer : public TruthFile_Writer {
 public:
  /// `flashBound`: more flashes than the run can have.
  PhotonFlashes_Writer(std::string path, std::uint64_t flashBound)
      : TruthFile_Writer(std::move(path), photonFlashes_magic,
                         flashBound < static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max()) ? 4 : 8) {}

  void append(std::span<const std::int64_t> flashes) {
    for (const std::int64_t f : flashes) {
      if (get_width() == 4 && f > std::numeric_limits<std::int32_t>::max()) {
        throw std::runtime_error("flash index beyond the 4-byte entries of '" + get_path() + "'");
      }
      add(static_cast<std::uint64_t>(f));
    }
  }

  void finish(std::uint64_t nFlashes, std::uint64_t fingerprint) { TruthFile_Writer::finish(nFlashes, fingerprint); }
};

/// The flash index of every photon of one photon file.
struct Photon_Flashes {
  std::vector<std::int64_t> flashOfPhoton;  ///< -1 for a dark count, else below nFlashes
  std::uint64_t nFlashes = 0;
};

/// Reads a flash file and checks it against the photons it claims to describe. Throws std::invalid_argument
/// with one line saying what is wrong.
inline Photon_Flashes read_photonFlashes(const std::string& path,
                                         const std::vector<kovra::tpx3spidr::PhotonEvent>& photons) {
  const TruthFile_Contents contents =
      read_truthFile(path, photonFlashes_magic, "photon flash file", {4, 8}, true, photons);
  const std::string where = "photon flash file '" + path + "': ";
  Photon_Flashes result;
  result.nFlashes = contents.otherCount;
  result.flashOfPhoton.resize(contents.entries);
  for (std::size_t i = 0; i < result.flashOfPhoton.size(); ++i) {
    const std::uint64_t raw = contents.get_entry(i);
    // Sign-extend the 4-byte entries.
    const std::int64_t f = contents.width == 4 ? static_cast<std::int32_t>(static_cast<std::uint32_t>(raw))
                                               : static_cast<std::int64_t>(raw);
    if (f < -1 || (f >= 0 && static_cast<std::uint64_t>(f) >= result.nFlashes)) {
      throw std::invalid_argument(where + "photon " + std::to_string(i) + " names flash " + std::to_string(f) +
                                  ", not one of the " + std::to_string(result.nFlashes));
    }
    result.flashOfPhoton[i] = f;
  }
  return result;
}

}  // namespace kovra::tools
