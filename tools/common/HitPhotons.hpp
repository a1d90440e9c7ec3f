#pragma once

// The photon of every hit of a simulated raw file: a small binary file beside it ("run.tpx3" gives
// "run.truth.kovrahit"), written by kovra_simulate --raw --truth and read back by kovra_evaluate to score the
// grouping of hits into photons. Layout, all little-endian (see docs/simulator.md):
//
//   offset  size  field
//   0       8     "KOVRAHIT"
//   8       4     version, 1
//   12      4     bytes per entry, 4
//   16      8     hit count (entries): every hit packet of the raw file
//   24      8     photon count of the simulated photon file
//   32      8     fingerprint of those photons (fingerprint_photons)
//   40      ...   one unsigned 4-byte entry per hit, in the raw file's order: the index of its photon in the
//                 photon file (the simulator makes at most 1e9 photons, so 4 bytes always suffice)

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/PhotonFlashes.hpp"
#include "kovra/OutputFile_Atomic.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::tools {

inline constexpr char hitPhotons_magic[8] = {'K', 'O', 'V', 'R', 'A', 'H', 'I', 'T'};
inline constexpr std::uint32_t hitPhotons_version = 1;
inline constexpr std::size_t hitPhotons_headerBytes = 40;

/// Where the photon of every hit of a raw file goes: ".tpx3" replaced by ".truth.kovrahit".
inline std::string get_hitPhotonsPath(const std::string& rawPath) {
  const std::string suffix = ".tpx3";
  return (rawPath.ends_with(suffix) ? rawPath.substr(0, rawPath.size() - suffix.size()) : rawPath) + ".truth.kovrahit";
}

/// Streams the entries through an OutputFile_Atomic: `finish` writes the header, `commit` moves the file into
/// place, so it appears whole or not at all. Throws std::runtime_error with the system's reason when a write fails.
class HitPhotons_Writer {
 public:
  explicit HitPhotons_Writer(const std::string& path) : file(path) {
    check();
    file.stream().write(std::string(hitPhotons_headerBytes, '\0').data(), hitPhotons_headerBytes);
    buffer.reserve(buffered);
  }

  const std::string& get_path() const { return file.get_path(); }

  void add(std::uint64_t photon) {
    flashes_detail::put_le(buffer, photon, 4);
    ++nHits;
    if (buffer.size() >= buffered) flush();
  }

  /// Throws when a write so far has failed (one still in the buffer may fail later, in `finish`).
  void check() {
    if (!file.stream()) {
      throw std::runtime_error("cannot write '" + get_path() + "': " + std::strerror(file.get_error()));
    }
  }

  /// Writes the header and hands every byte to the file; throws when that or an earlier write failed.
  void finish(std::uint64_t nPhotons, std::uint64_t fingerprint) {
    flush();
    std::string header(hitPhotons_magic, sizeof hitPhotons_magic);
    flashes_detail::put_le(header, hitPhotons_version, 4);
    flashes_detail::put_le(header, 4, 4);
    flashes_detail::put_le(header, nHits, 8);
    flashes_detail::put_le(header, nPhotons, 8);
    flashes_detail::put_le(header, fingerprint, 8);
    file.stream().seekp(0);
    file.stream().write(header.data(), static_cast<std::streamsize>(header.size()));
    file.stream().flush();
    check();
  }

  /// Moves the finished file into place; throws std::runtime_error when that fails.
  void commit() { file.commit(); }

 private:
  static constexpr std::size_t buffered = std::size_t{1} << 16;

  void flush() {
    file.stream().write(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    buffer.clear();
  }

  kovra::OutputFile_Atomic file;
  std::string buffer;
  std::uint64_t nHits = 0;
};

/// Reads a hit file and checks it against the photons it claims to describe: the photon of each hit, in the raw
/// file's order. Throws std::invalid_argument with one line saying what is wrong.
inline std::vector<std::uint32_t> read_hitPhotons(const std::string& path,
                                                  std::span<const kovra::tpx3spidr::PhotonEvent> photons) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) throw std::invalid_argument("cannot read the hit truth file '" + path + "'");
  std::string bytes(static_cast<std::size_t>(std::max<std::streamoff>(file.tellg(), 0)), '\0');
  file.seekg(0);
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!file) throw std::invalid_argument("cannot read the hit truth file '" + path + "'");
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::string where = "hit truth file '" + path + "': ";
  if (bytes.size() < hitPhotons_headerBytes || bytes.compare(0, 8, hitPhotons_magic, 8) != 0) {
    throw std::invalid_argument(where + "not a hit truth file");
  }
  if (flashes_detail::get_le(data + 8, 4) != hitPhotons_version) throw std::invalid_argument(where + "unknown version");
  if (flashes_detail::get_le(data + 12, 4) != 4) throw std::invalid_argument(where + "bad entry width");
  const std::uint64_t nHits = flashes_detail::get_le(data + 16, 8);
  const std::uint64_t nPhotons = flashes_detail::get_le(data + 24, 8);
  if (nPhotons != photons.size()) {
    throw std::invalid_argument(where + "made for " + format_count(nPhotons, "photon") + ", the photon file has " +
                                std::to_string(photons.size()));
  }
  if ((bytes.size() - hitPhotons_headerBytes) % 4 != 0 || (bytes.size() - hitPhotons_headerBytes) / 4 != nHits) {
    throw std::invalid_argument(where + "truncated or overlong");
  }
  if (flashes_detail::get_le(data + 32, 8) != fingerprint_photons(photons)) {
    throw std::invalid_argument(where + "made for other photons (another seed or other settings)");
  }
  std::vector<std::uint32_t> photonOfHit(static_cast<std::size_t>(nHits));
  for (std::size_t i = 0; i < photonOfHit.size(); ++i) {
    const std::uint64_t p = flashes_detail::get_le(data + hitPhotons_headerBytes + 4 * i, 4);
    if (p >= nPhotons) {
      throw std::invalid_argument(where + "hit " + std::to_string(i) + " names photon " + std::to_string(p) +
                                  ", not one of the " + std::to_string(nPhotons));
    }
    photonOfHit[i] = static_cast<std::uint32_t>(p);
  }
  return photonOfHit;
}

}  // namespace kovra::tools
