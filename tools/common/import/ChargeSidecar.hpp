#pragma once

// The charge of every photon of an imported photon file, beside it ("run.kovraphot" gives "run.kovracharge"): the
// photon file's records are fixed at 16 bytes, so what the grouping knows of each photon besides its position and
// time (the summed ToT its hits used for the centroid, and their number) goes into a file of its own, aligned
// with the photons. Layout, all little-endian (docs/raw-data.md):
//
//   offset  size  field
//   0       8     "KOVRACHG"
//   8       4     version, 1
//   12      4     bytes per record, 8
//   16      8     photon count, equal to the photon file's
//   24      8     fingerprint of the photons (the simulator's flash file uses the same)
//   32      ...   one record per photon, in the photon file's order: summed ToT in steps of 25 ns (uint32),
//                 hit count (uint32), each held to 2^32 - 1
//
// It is written as the photons are, through an atomic output file, and appears only when the photon file does.

#include <bit>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>

#include "common/PathSuffix.hpp"
#include "common/import/HitGrouping.hpp"
#include "kovra/OutputFile_Atomic.hpp"

namespace kovra::import {

inline constexpr char charge_magic[8] = {'K', 'O', 'V', 'R', 'A', 'C', 'H', 'G'};
inline constexpr std::size_t charge_headerBytes = 32;

/// Where the charges of a photon file go: ".kovraphot" replaced by ".kovracharge".
inline std::string get_chargePath(const std::string& photonPath) {
  return tools::replace_suffix(photonPath, ".kovraphot", ".kovracharge");
}

/// An output of the import cannot be written: the message names it and gives the system's reason.
struct Output_Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Streams the charges; `commit` writes the header and moves the file into place. Throws Output_Failure
/// naming the file and the system's reason when it cannot be written. Header and records are written as they lie
/// in memory, which is their layout on a little-endian machine (the only kind the container files are made on).
class Charge_Writer {
 public:
  explicit Charge_Writer(const std::string& path) : file(path) {
    file.stream().write(std::string(charge_headerBytes, '\0').data(), charge_headerBytes);
    check();
  }

  void add(std::span<const Photon_Charge> charges) {
    count += charges.size();
    file.stream().write(reinterpret_cast<const char*>(charges.data()),
                        static_cast<std::streamsize>(charges.size_bytes()));
  }

  /// `fingerprint`: of the photons, in order (kovra::tools::Photon_Fingerprint).
  void commit(std::uint64_t fingerprint) {
    Header header{{}, 1, sizeof(Photon_Charge), count, fingerprint};
    std::memcpy(header.magic, charge_magic, sizeof charge_magic);
    file.stream().seekp(0);
    file.stream().write(reinterpret_cast<const char*>(&header), sizeof header);
    check();
    try {
      file.commit();
    } catch (const std::runtime_error& e) {
      throw Output_Failure(e.what());
    }
  }

 private:
  struct Header {
    char magic[8];
    std::uint32_t version;
    std::uint32_t recordBytes;
    std::uint64_t count;
    std::uint64_t fingerprint;
  };
  static_assert(sizeof(Header) == charge_headerBytes && sizeof(Photon_Charge) == 8);
  static_assert(std::endian::native == std::endian::little);

  void check() const {
    if (file.get_error() != 0) {
      throw Output_Failure("cannot write \"" + file.get_path() + "\": " + std::strerror(file.get_error()));
    }
  }

  kovra::OutputFile_Atomic file;
  std::uint64_t count = 0;
};

}  // namespace kovra::import
