#pragma once

// The hits of a simulated raw file as the import groups them, with the true photon of each.
//
// The hits are read with the importer's own clock, chip placement and reorder rule (a hit more than the reorder
// window behind the clock's latest time is dropped), and put in the order its reorder window releases them: by
// time, equal times in file order. The simulator's hit file names the photon of every hit in file order, so
// each hit keeps its true photon through the sort. The true photons become the "flashes" of a Truth, one level
// down from the reconstruction's scoring: a true photon stands for a flash, a hit for a photon, and a photon made
// from hits for an event, so that Evaluator scores a grouping exactly as it scores a reconstruction.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/HitPhotons.hpp"
#include "common/import/Import.hpp"
#include "common/import/TimeWalk.hpp"
#include "evaluate/Truth.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::evaluate {

using kovra::import::Ticks;
using kovra::import::Timed_Item;

/// The hits in grouping order, the truth over them, and the frame they lie in.
struct Grouping_Truth {
  std::vector<Timed_Item> hits;  ///< in the order the import groups them
  /// One flash per true photon (class "photon"); flashOfPhoton gives the true photon of each hit of `hits`.
  Truth truth;
  unsigned frameSize = 256;  ///< 512 when the file holds chips other than 0: a quad
  std::uint64_t lateHits = 0;
  std::vector<Ticks> rawTimes;  ///< each hit's time before a time-walk correction, aligned with `hits`
};

namespace grouping_detail {

/// A hit as read, before it is placed in the frame: chip pixel (column, row), chip and its place in the file.
struct Read_Hit {
  Ticks time;
  Ticks rawTime;
  std::uint16_t column, row, tot, chip;
  std::uint64_t order;
};

/// Every hit of the raw file that the reorder window would keep, in file order, with the clock of the import.
inline std::vector<Read_Hit> read_rawHits(const std::string& rawPath, const import::Time_Walk* walk,
                                          std::uint64_t& nHitPackets, std::uint64_t& lateHits) {
  import::Raw_Reader reader(rawPath);
  import::Clock_Follower clock;
  import::detail::Tdc_Repeats repeats;
  const Ticks reorderWindow = import::Import_Options{}.reorderWindow;
  std::vector<Read_Hit> hits;
  unsigned chip = 0;
  const auto on_packets = [&](const std::uint64_t* words, std::size_t count) {
    using namespace kovra::tpx3spidr::raw;
    for (std::size_t i = 0; i < count; ++i) {
      const std::uint64_t p = words[i];
      switch (get_packetKind(p)) {
        case Packet_Kind::hit: {
          const Ticks raw = clock.place_hitClock(get_hitTicks(p));
          const auto tot = static_cast<std::uint16_t>(get_hitTot(p));
          const Ticks t = walk != nullptr ? walk->correct(raw, tot) : raw;
          if (t < clock.get_latest() - reorderWindow) {
            ++lateHits;
          } else {
            hits.push_back({t, raw, static_cast<std::uint16_t>(get_hitColumn(p)),
                            static_cast<std::uint16_t>(get_hitRow(p)), tot, static_cast<std::uint16_t>(chip),
                            nHitPackets});
          }
          ++nHitPackets;
          break;
        }
        case Packet_Kind::tdc:
          if (!repeats.is_repeat(p)) clock.place_tdc(get_tdcTicks(p));
          break;
        case Packet_Kind::heartbeat:
          clock.place_hitClock(get_heartbeatTicks(p));
          break;
        default:
          break;
      }
    }
  };
  reader.read_all([&](unsigned c, std::uint64_t) { chip = c; }, on_packets, [](std::uint64_t, std::uint64_t) {},
                  [](const import::Skipped_Stretch&) {});
  return hits;
}

}  // namespace grouping_detail

/// Reads the raw file and its hit file, checked against the simulated photons they were made from (`photons`:
/// the photon file the simulator wrote with them); without a hit file (an empty path), the hits alone, with an
/// empty truth. With `walk`, hit times are corrected by it before they are ordered, as kovra_import --time-walk
/// does. Throws std::invalid_argument with one line saying what is wrong.
inline Grouping_Truth load_groupingTruth(const std::string& rawPath, const std::string& hitPhotonsPath,
                                         const std::vector<kovra::tpx3spidr::PhotonEvent>& photons,
                                         const import::Time_Walk* walk = nullptr) {
  const bool withTruth = !hitPhotonsPath.empty();
  const std::vector<std::uint32_t> photonOfHit =
      withTruth ? kovra::tools::read_hitPhotons(hitPhotonsPath, photons) : std::vector<std::uint32_t>{};
  std::uint64_t nHitPackets = 0;
  Grouping_Truth result;
  auto read = grouping_detail::read_rawHits(rawPath, walk, nHitPackets, result.lateHits);
  if (withTruth && nHitPackets != photonOfHit.size()) {
    throw std::invalid_argument("hit truth file '" + hitPhotonsPath + "' names the photons of " +
                                tools::format_count(photonOfHit.size(), "hit") + ", the raw file has " +
                                std::to_string(nHitPackets));
  }
  std::stable_sort(read.begin(), read.end(), [](const auto& a, const auto& b) { return a.time < b.time; });

  const bool quad = std::any_of(read.begin(), read.end(), [](const auto& h) { return h.chip != 0; });
  result.frameSize = import::get_frameSide(quad ? import::Frame_Layout::quad : import::Frame_Layout::single);
  result.hits.reserve(read.size());
  result.rawTimes.reserve(read.size());
  if (withTruth) result.truth.flashOfPhoton.reserve(read.size());
  for (const auto& h : read) {
    if (quad && h.chip > 3) {
      throw std::invalid_argument("the raw file holds chip " + std::to_string(h.chip) +
                                  ", but a quad has chips 0 to 3");
    }
    const auto place = import::detail::get_placement(quad, h.chip);
    result.hits.push_back({h.time, static_cast<std::uint16_t>(place.get_x(h.column)),
                           static_cast<std::uint16_t>(place.get_y(h.row)), h.tot, 0});
    result.rawTimes.push_back(h.rawTime);
    if (withTruth) result.truth.flashOfPhoton.push_back(photonOfHit[static_cast<std::size_t>(h.order)]);
  }

  if (!withTruth) return result;
  result.truth.classNames = {"photon"};
  result.truth.flashes.reserve(photons.size());
  for (const auto& p : photons)
    result.truth.flashes.push_back({p.toa.get_seconds(), p.x.get_pixels(), p.y.get_pixels(), 0, 0});
  for (const std::int64_t f : result.truth.flashOfPhoton) ++result.truth.flashes[static_cast<std::size_t>(f)].nPhotons;
  return result;
}

}  // namespace kovra::evaluate
