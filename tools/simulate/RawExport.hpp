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
#include <stdexcept>
#include <string>
#include <vector>

#include "import/Tpx3Packets.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"
#include "simulate/Random.hpp"

namespace kovra::simulate {

/// One hit as the raw file holds it, in frame pixels: what the importer should read back.
struct Raw_Hit {
  long time;
  unsigned x;
  unsigned y;
  unsigned tot;
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

/// Writes the raw form of `data` (a frame of `width` x `height` pixels) to `out`, calling `onHit(const Raw_Hit&)`
/// for every hit in the order the file holds them. Trigger times become input-1 rising edges. Throws
/// std::invalid_argument when the frame is larger than a quad or the file cannot be written.
template <typename OnHit_Type>
void write_raw(const kovra::tpx3spidr::Data_PhotonEvents& data, int width, int height, std::uint64_t seed,
               std::FILE* out, OnHit_Type&& onHit) {
  using namespace kovra::import;
  if (width > 512 || height > 512) throw std::invalid_argument("a raw file holds at most 512 x 512 pixels");
  const bool quad = width > 256 || height > 256;
  const unsigned nChips = quad ? 4 : 1;
  constexpr long slice = 1L << 17;
  constexpr long quietest = 1L << 30;
  constexpr std::size_t chunkPackets = 8000;
  Random_Generator random(seed ^ 0x7261772064617461u);
  std::vector<std::vector<detail::Raw_Packet>> chips(nChips);
  std::vector<std::uint64_t> payload;

  const auto& photons = data.photonEvents;
  static const std::vector<kovra::tpx3spidr::Time> noTriggers;
  const auto& triggers = data.extTriggers ? *data.extTriggers : noTriggers;
  std::size_t nextPhoton = 0;
  std::size_t nextTrigger = 0;
  long lastHeartbeat = 0;

  const auto write_words = [&](const std::uint64_t* words, std::size_t n) {
    if (std::fwrite(words, 8, n, out) != n) throw std::invalid_argument("cannot write the raw file");
  };
  const auto write_slice = [&](long begin) {
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
        if (done == 0) payload.push_back(make_heartbeatPacket(static_cast<std::uint64_t>(begin)));
        for (; done < packets.size() && payload.size() < chunkPackets; ++done) {
          payload.push_back(packets[done].word);
          if (packets[done].isHit) onHit(packets[done].hit);
        }
        const std::uint64_t header = make_chunkHeader(chip, payload.size() * 8);
        write_words(&header, 1);
        write_words(payload.data(), payload.size());
      } while (done < packets.size());
      packets.clear();
    }
    lastHeartbeat = begin;
  };
  const auto add_hit = [&](long time, unsigned x, unsigned y, unsigned tot) {
    unsigned chip = 0, c = 0, r = 0;
    detail::place_onChip(quad, x, y, chip, c, r);
    chips[chip].push_back({make_hitPacket(c, r, tot, static_cast<std::uint64_t>(time)), {time, x, y, tot}, true});
  };

  for (long begin = 0;;) {
    const long end = begin + slice;
    for (; nextPhoton < photons.size() && photons[nextPhoton].toa.value < end; ++nextPhoton) {
      const auto& p = photons[nextPhoton];
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
    }
    for (; nextTrigger < triggers.size() && triggers[nextTrigger].value < end; ++nextTrigger) {
      const std::uint64_t word = make_tdcPacket(0xF, static_cast<unsigned>(nextTrigger % 4096),
                                                static_cast<std::uint64_t>(triggers[nextTrigger].value));
      for (auto& packets : chips) packets.push_back({word, {}, false});
    }
    bool any = begin == 0;
    for (const auto& packets : chips) any = any || !packets.empty();
    if (any || begin - lastHeartbeat >= quietest) write_slice(begin);
    if (nextPhoton == photons.size() && nextTrigger == triggers.size()) break;
    // Skip empty slices up to the next photon or trigger, but not past the next heartbeat that is due.
    long next = end;
    long upcoming = nextPhoton < photons.size() ? photons[nextPhoton].toa.value : INT64_MAX;
    if (nextTrigger < triggers.size()) upcoming = std::min(upcoming, triggers[nextTrigger].value);
    if (upcoming >= end) next = std::max(end, std::min(upcoming, lastHeartbeat + quietest) / slice * slice);
    begin = next;
  }
}

}  // namespace kovra::simulate
