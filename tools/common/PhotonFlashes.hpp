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
#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/Counts.hpp"
#include "kovra/OutputFile_Atomic.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::tools {

inline constexpr char photonFlashes_magic[8] = {'K', 'O', 'V', 'R', 'A', 'F', 'L', 'S'};
inline constexpr std::uint32_t photonFlashes_version = 1;
inline constexpr std::size_t photonFlashes_headerBytes = 40;

/// Where the flash of every photon of a photon file goes: ".kovraphot" replaced by ".truth.kovraflash".
inline std::string get_photonFlashesPath(const std::string& photonPath) {
  const std::string suffix = ".kovraphot";
  const std::string stem =
      photonPath.ends_with(suffix) ? photonPath.substr(0, photonPath.size() - suffix.size()) : photonPath;
  return stem + ".truth.kovraflash";
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

/// Streams the entries through an OutputFile_Atomic: `finish` writes the header, `commit` moves the file into
/// place, so it appears whole or not at all. Throws std::runtime_error with the system's reason when a write
/// fails.
class PhotonFlashes_Writer {
 public:
  /// `flashBound`: more flashes than the run can have; picks 4-byte entries whenever they suffice.
  PhotonFlashes_Writer(std::string path, std::uint64_t flashBound)
      : file(std::move(path)),
        width(flashBound < static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max()) ? 4 : 8) {
    check();
    file.stream().write(std::string(photonFlashes_headerBytes, '\0').data(), photonFlashes_headerBytes);
  }

  const std::string& get_path() const { return file.get_path(); }

  void append(std::span<const std::int64_t> flashes) {
    buffer.clear();
    for (const std::int64_t f : flashes) {
      if (width == 4 && f > std::numeric_limits<std::int32_t>::max()) {
        throw std::runtime_error("flash index beyond the 4-byte entries of '" + get_path() + "'");
      }
      flashes_detail::put_le(buffer, static_cast<std::uint64_t>(f), width);
    }
    file.stream().write(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    nPhotons += flashes.size();
  }

  /// Throws when a write so far has failed (one still in the buffer may fail later, in `finish`).
  void check() {
    if (!file.stream()) {
      throw std::runtime_error("cannot write '" + get_path() + "': " + std::strerror(file.get_error()));
    }
  }

  /// Writes the header and hands every byte to the file; throws when that or an earlier write failed.
  void finish(std::uint64_t nFlashes, std::uint64_t fingerprint) {
    std::string header(photonFlashes_magic, sizeof photonFlashes_magic);
    flashes_detail::put_le(header, photonFlashes_version, 4);
    flashes_detail::put_le(header, static_cast<std::uint64_t>(width), 4);
    flashes_detail::put_le(header, nPhotons, 8);
    flashes_detail::put_le(header, nFlashes, 8);
    flashes_detail::put_le(header, fingerprint, 8);
    file.stream().seekp(0);
    file.stream().write(header.data(), static_cast<std::streamsize>(header.size()));
    file.stream().flush();
    check();
  }

  /// Moves the finished file into place; throws std::runtime_error when that fails.
  void commit() { file.commit(); }

 private:
  OutputFile_Atomic file;
  int width;
  std::string buffer;
  std::uint64_t nPhotons = 0;
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
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::invalid_argument("cannot read the photon flash file '" + path + "'");
  file.seekg(0, std::ios::end);
  std::string bytes(static_cast<std::size_t>(std::max<std::streamoff>(file.tellg(), 0)), '\0');
  file.seekg(0);
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!file) throw std::invalid_argument("cannot read the photon flash file '" + path + "'");
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::string where = "photon flash file '" + path + "': ";
  if (bytes.size() < photonFlashes_headerBytes || bytes.compare(0, 8, photonFlashes_magic, 8) != 0) {
    throw std::invalid_argument(where + "not a photon flash file");
  }
  if (flashes_detail::get_le(data + 8, 4) != photonFlashes_version)
    throw std::invalid_argument(where + "unknown version");
  const auto width = static_cast<int>(flashes_detail::get_le(data + 12, 4));
  if (width != 4 && width != 8) throw std::invalid_argument(where + "bad entry width");
  const std::uint64_t nPhotons = flashes_detail::get_le(data + 16, 8);
  Photon_Flashes result;
  result.nFlashes = flashes_detail::get_le(data + 24, 8);
  if (nPhotons != photons.size()) {
    throw std::invalid_argument(where + "made for " + tools::format_count(nPhotons, "photon") +
                                ", the photon file has " + std::to_string(photons.size()));
  }
  if ((bytes.size() - photonFlashes_headerBytes) / static_cast<std::size_t>(width) != nPhotons ||
      (bytes.size() - photonFlashes_headerBytes) % static_cast<std::size_t>(width) != 0) {
    throw std::invalid_argument(where + "truncated or overlong");
  }
  if (flashes_detail::get_le(data + 32, 8) != fingerprint_photons(photons)) {
    throw std::invalid_argument(where + "made for other photons (another seed or other settings)");
  }
  result.flashOfPhoton.resize(nPhotons);
  for (std::size_t i = 0; i < nPhotons; ++i) {
    const std::uint64_t raw =
        flashes_detail::get_le(data + photonFlashes_headerBytes + i * static_cast<std::size_t>(width), width);
    // Sign-extend the 4-byte entries.
    const std::int64_t f =
        width == 4 ? static_cast<std::int32_t>(static_cast<std::uint32_t>(raw)) : static_cast<std::int64_t>(raw);
    if (f < -1 || (f >= 0 && static_cast<std::uint64_t>(f) >= result.nFlashes)) {
      throw std::invalid_argument(where + "photon " + std::to_string(i) + " names flash " + std::to_string(f) +
                                  ", not one of the " + std::to_string(result.nFlashes));
    }
    result.flashOfPhoton[i] = f;
  }
  return result;
}

}  // namespace kovra::tools
