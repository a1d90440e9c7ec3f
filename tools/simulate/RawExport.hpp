#pragma once

// The raw form of a simulation: what a Timepix3 readout would record for the simulated photons. Each photon
// lights a blob of pixels: the pixel it falls in with a large ToT, and the eight around it with a ToT that
// falls with their distance from the photon (a neighbour below 2 steps of 25 ns stays dark). Every hit comes
// late by a time walk that grows as its ToT shrinks (256 / ToT ticks, plus up to 3 ticks of jitter). Hits and
// trigger edges are cut into time slices of 2^17 ticks (205 us); per slice each chip gets its chunks, each
// led by one readout record (type 0x5), the first by a heartbeat; every trigger edge is repeated in every
// chip's chunks, and packets are shuffled locally (each swapped with one of the next 8), as real readouts
// deliver them. A frame up to 256 x 256 is one chip; up to 512 x 512 a 2 x 2 quad in the layout of
// docs/raw-data.md. Heartbeats keep the clock readable through quiet stretches: at least one every 2^30 ticks.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Packets.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"
#include "simulate/Random.hpp"

namespace kovra::simulate {

/// One hit as the raw file holds it, in frame pixels: what the importer should read back.
struct Raw_Hit {
  long time;
  unsigned x;
  unsigned y;
  unsigned tot;
  std::uint64_t photon;  ///< the index of the photon that lit it, in the order the photons were handed over
};

namespace detail {

struct Raw_Packet {
  std::uint64_t word;
  Raw_Hit hit;
  bool isHit;
};

/// Chip and chip pixel (column, row) of frame pixel (x, y): the inverse of the quad layout.
inline void place_onChip(bool quad, unsigned x, unsigned y, unsigned& chip, unsigned& c, unsigned& r) {
  if (!quad) {
    chip = 0, c = x, r = y;
  } else if (x >= 256) {
    chip = y < 256 ? 0 : 1;
    c = y < 256 ? x - 256 : 511 - x;
    r = y < 256 ? y : 511 - y;
  } else {
    chip = y < 256 ? 3 : 2;
    c = y < 256 ? x : 255 - x;
    r = y < 256 ? y : 511 - y;
  }
}

}  // namespace detail

/// Writes the raw form of photons handed over in time order, a frame of `width` x `height` pixels, through
/// `writeWords(const std::uint64_t* words, std::size_t n)`, calling `onHit(const Raw_Hit&)` for every hit in the
/// order the file holds them. Trigger times, pulled in order from `nextTrigger(Time&)` (false when there are no
/// more), become input-1 rising edges. Holds one slice of packets at a time. Throws std::invalid_argument when
/// the frame is larger than a quad.
template <typename OnHit_Type>
class Raw_Writer {
 public:
  using Time = kovra::tpx3spidr::Time;
  using Words_Function = std::function<void(const std::uint64_t*, std::size_t)>;
  using Trigger_Function = std::function<bool(Time&)>;

  Raw_Writer(int width_, int height_, std::uint64_t seed, Words_Function writeWords_, Trigger_Function nextTrigger_,
             OnHit_Type onHit_)
      : width(width_),
        height(height_),
        quad(width_ > 256 || height_ > 256),
        random(seed ^ 0x7261772064617461u),
        writeWords(std::move(writeWords_)),
        nextTrigger(std::move(nextTrigger_)),
        onHit(std::forward<OnHit_Type>(onHit_)) {
    if (width > 512 || height > 512) throw std::invalid_argument("a raw file holds at most 512 x 512 pixels");
    chips.resize(quad ? 4 : 1);
    pull_trigger();
  }

  /// The next photon; not earlier than the one before.
  void add_photon(const kovra::tpx3spidr::PhotonEvent& p) {
    while (p.toa.value >= begin + slice) close_slice(p.toa.value);
    const double fx = p.x.value / 65536.0;
    const double fy = p.y.value / 65536.0;
    const auto px = static_cast<int>(std::floor(fx));
    const auto py = static_cast<int>(std::floor(fy));
    const double centreTot = 20.0 + 40.0 * random.uniform();
    for (int dy = -1; dy <= 1; ++dy) {
      for (int dx = -1; dx <= 1; ++dx) {
        const int x = px + dx;
        const int y = py + dy;
        if (x < 0 || y < 0 || x >= width || y >= height) continue;
        const double ex = x + 0.5 - fx;
        const double ey = y + 0.5 - fy;
        const double share = dx == 0 && dy == 0 ? 1.0 : std::exp(-(ex * ex + ey * ey) / 0.6);
        const auto tot = static_cast<unsigned>(centreTot * share + random.uniform());
        if (tot < 2) continue;
        const long walk = 256 / static_cast<long>(tot) + static_cast<long>(random.next() % 4);
        add_hit(p.toa.value + walk, static_cast<unsigned>(x), static_cast<unsigned>(y), tot);
      }
    }
    ++nPhotons;
  }

  /// Writes what is left: the last photons' slice and the triggers after them.
  void finish() {
    while (!close_slice(INT64_MAX)) {
    }
  }

 private:
  static constexpr long slice = 1L << 17;
  static constexpr long quietest = 1L << 30;
  static constexpr std::size_t chunkPackets = 8000;

  void pull_trigger() { hasTrigger = nextTrigger(trigger); }

  void add_hit(long time, unsigned x, unsigned y, unsigned tot) {
    unsigned chip = 0, c = 0, r = 0;
    detail::place_onChip(quad, x, y, chip, c, r);
    chips[chip].push_back({kovra::tpx3spidr::raw::make_hitPacket(c, r, tot, static_cast<std::uint64_t>(time)),
                           {time, x, y, tot, nPhotons},
                           true});
  }

  /// Ends the slice at `begin`: adds its trigger edges, writes it when it holds anything (or a heartbeat is
  /// due) and moves to the next slice worth writing, given the time of the next photon (`upcoming`, INT64_MAX
  /// when there is none). True when nothing is left at all.
  bool close_slice(long upcoming) {
    const long end = begin + slice;
    for (; hasTrigger && trigger.value < end; pull_trigger(), ++nTriggers) {
      const std::uint64_t word = kovra::tpx3spidr::raw::make_tdcPacket(0xF, static_cast<unsigned>(nTriggers % 4096),
                                                                       static_cast<std::uint64_t>(trigger.value));
      for (auto& packets : chips) packets.push_back({word, {}, false});
    }
    bool any = begin == 0;
    for (const auto& packets : chips) any = any || !packets.empty();
    if (any || begin - lastHeartbeat >= quietest) write_slice();
    if (upcoming == INT64_MAX && !hasTrigger) return true;
    // Skip empty slices up to the next photon or trigger, but not past the next heartbeat that is due.
    if (hasTrigger) upcoming = std::min(upcoming, trigger.value);
    begin = upcoming >= end ? std::max(end, std::min(upcoming, lastHeartbeat + quietest) / slice * slice) : end;
    return false;
  }

  void write_slice() {
    const auto nChips = static_cast<unsigned>(chips.size());
    for (unsigned chip = 0; chip < nChips; ++chip) {
      auto& packets = chips[chip];
      for (std::size_t i = 0; i + 1 < packets.size(); ++i) {
        const std::size_t reach = std::min<std::size_t>(8, packets.size() - i);
        std::swap(packets[i], packets[i + random.next() % reach]);
      }
      std::size_t done = 0;
      do {
        payload.clear();
        payload.push_back(std::uint64_t{0x50} << 56 | chip);  // the readout's own record
        if (done == 0)
          payload.push_back(kovra::tpx3spidr::raw::make_heartbeatPacket(static_cast<std::uint64_t>(begin)));
        for (; done < packets.size() && payload.size() < chunkPackets; ++done) {
          payload.push_back(packets[done].word);
          if (packets[done].isHit) onHit(packets[done].hit);
        }
        const std::uint64_t header = kovra::tpx3spidr::raw::make_chunkHeader(chip, payload.size() * 8);
        writeWords(&header, 1);
        writeWords(payload.data(), payload.size());
      } while (done < packets.size());
      packets.clear();
    }
    lastHeartbeat = begin;
  }

  int width;
  int height;
  bool quad;
  Random_Generator random;
  Words_Function writeWords;
  Trigger_Function nextTrigger;
  OnHit_Type onHit;
  std::vector<std::vector<detail::Raw_Packet>> chips;
  std::vector<std::uint64_t> payload;
  long begin = 0;  ///< start of the slice being filled
  long lastHeartbeat = 0;
  Time trigger{0};
  bool hasTrigger = false;
  std::uint64_t nTriggers = 0;
  std::uint64_t nPhotons = 0;  ///< photons handed over so far: the index of the one being added
};

/// The raw form of a photon list in memory, written to `out`. Throws std::invalid_argument when the frame is
/// larger than a quad or the file cannot be written.
template <typename OnHit_Type>
void write_raw(const kovra::tpx3spidr::Data_PhotonEvents& data, int width, int height, std::uint64_t seed,
               std::FILE* out, OnHit_Type&& onHit) {
  std::size_t nextTrigger = 0;
  Raw_Writer<OnHit_Type&> writer(
      width, height, seed,
      [out](const std::uint64_t* words, std::size_t n) {
    if (std::fwrite(words, 8, n, out) != n) throw std::invalid_argument("cannot write the raw file");
      },
      [&](kovra::tpx3spidr::Time& t) {
    if (!data.extTriggers || nextTrigger == data.extTriggers->size()) return false;
    t = (*data.extTriggers)[nextTrigger++];
    return true;
  },
      onHit);
  for (const auto& p : data.photonEvents) writer.add_photon(p);
  writer.finish();
}

}  // namespace kovra::simulate
