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

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/PathSuffix.hpp"
#include "common/PhotonFlashes.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::tools {

inline constexpr char hitPhotons_magic[8] = {'K', 'O', 'V', 'R', 'A', 'H', 'I', 'T'};

/// Where the photon of every hit of a raw file goes: ".tpx3" replaced by ".truth.kovrahit".
inline std::string get_hitPhotonsPath(const std::string& rawPath) {
  return replace_suffix(rawPath, ".tpx3", ".truth.kovrahit");
}

/// The photon of every hit, in the raw file's order.
class HitPhotons_Writer : public TruthFile_Writer {
 public:
  explicit HitPhotons_Writer(const std::string& path) : TruthFile_Writer(path, hitPhotons_magic, 4) {}
};

/// Reads a hit file and checks it against the photons it claims to describe: the photon of each hit, in the raw
/// file's order. Throws std::invalid_argument with one line saying what is wrong.
inline std::vector<std::uint32_t> read_hitPhotons(const std::string& path,
                                                  std::span<const kovra::tpx3spidr::PhotonEvent> photons) {
  const TruthFile_Contents contents = read_truthFile(path, hitPhotons_magic, "hit truth file", {4}, false, photons);
  const std::string where = "hit truth file '" + path + "': ";
  std::vector<std::uint32_t> photonOfHit(static_cast<std::size_t>(contents.entries));
  for (std::size_t i = 0; i < photonOfHit.size(); ++i) {
    const std::uint64_t p = contents.get_entry(i);
    if (p >= photons.size()) {
      throw std::invalid_argument(where + "hit " + std::to_string(i) + " names photon " + std::to_string(p) +
                                  ", not one of the " + std::to_string(photons.size()));
    }
    photonOfHit[i] = static_cast<std::uint32_t>(p);
  }
  return photonOfHit;
}

}  // namespace kovra::tools
