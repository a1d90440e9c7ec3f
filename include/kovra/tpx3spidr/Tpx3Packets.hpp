#pragma once

// The fields of Timepix3 raw data: chunk headers and the 64-bit packets inside them. Pure bit arithmetic, no
// state; docs/raw-data.md has the bit layout in a table.

#include <cstdint>

namespace kovra::tpx3spidr::raw {

/// Ticks of 1.5625 ns: the unit of every time the importer handles.
using Ticks = std::int64_t;

/// A hit's stamp and ToA together count 2^30 steps of 25 ns, i.e. 2^34 ticks, before they roll over.
inline constexpr int hit_clock_bits = 34;
/// A TDC's coarse time counts 2^35 steps of 3.125 ns, i.e. 2^36 ticks.
inline constexpr int tdc_clock_bits = 36;
/// A heartbeat carries the 16-bit readout stamp, in steps of 2^14 x 25 ns = 2^18 ticks.
inline constexpr int heartbeat_shift = 18;

/// The low 32 bits of every chunk header: the bytes "TPX3".
inline constexpr std::uint64_t chunk_magic = 0x33585054;

inline constexpr bool is_chunkHeader(std::uint64_t word) { return (word & 0xFFFFFFFFu) == chunk_magic; }
inline constexpr unsigned get_chunkChip(std::uint64_t word) { return static_cast<unsigned>((word >> 32) & 0xFF); }
inline constexpr std::uint64_t get_chunkBytes(std::uint64_t word) { return word >> 48; }

/// What a packet is, from its top four bits (and, for TDCs and control packets, the next four).
enum class Packet_Kind : std::uint8_t { hit, countingHit, tdc, globalTime, heartbeat, other };
inline constexpr int packet_kinds = 6;

inline constexpr Packet_Kind get_packetKind(std::uint64_t p) {
  switch (p >> 60) {
    case 0xB:
      return Packet_Kind::hit;
    case 0xA:
      return Packet_Kind::countingHit;
    case 0x6: {
      const auto edge = (p >> 56) & 0xF;
      return edge == 0xF || edge == 0xA || edge == 0xE || edge == 0xB ? Packet_Kind::tdc : Packet_Kind::other;
    }
    case 0x4:
      return Packet_Kind::globalTime;
    case 0x7: {
      const auto sub = (p >> 56) & 0xF;
      return sub == 0x1 || sub == 0x2 ? Packet_Kind::heartbeat : Packet_Kind::other;
    }
    default:
      return Packet_Kind::other;
  }
}

/// Whether a packet is a hit (get_packetKind() says Packet_Kind::hit), from its top four bits alone: the first
/// question a reader asks of every packet.
inline constexpr bool is_hit(std::uint64_t p) { return p >> 60 == 0xB; }

inline constexpr const char* get_packetKindName(Packet_Kind kind) {
  constexpr const char* names[packet_kinds] = {"hit", "counting-mode hit", "TDC", "global time", "heartbeat", "other"};
  return names[static_cast<int>(kind)];
}

// Pixel hits (type 0xB).
inline constexpr unsigned get_hitColumn(std::uint64_t p) {
  return static_cast<unsigned>(((p >> 52) & 0xFE) + (((p >> 44) & 7) >> 2));
}
inline constexpr unsigned get_hitRow(std::uint64_t p) {
  return static_cast<unsigned>(((p >> 45) & 0xFC) + ((p >> 44) & 3));
}
inline constexpr unsigned get_hitToa(std::uint64_t p) { return static_cast<unsigned>((p >> 30) & 0x3FFF); }
inline constexpr unsigned get_hitTot(std::uint64_t p) { return static_cast<unsigned>((p >> 20) & 0x3FF); }
inline constexpr unsigned get_hitFineToa(std::uint64_t p) { return static_cast<unsigned>((p >> 16) & 0xF); }
inline constexpr unsigned get_hitStamp(std::uint64_t p) { return static_cast<unsigned>(p & 0xFFFF); }

/// A hit's time modulo 2^34 ticks: ((stamp << 14 | ToA) << 4) - fineToA, wrapped into [0, 2^34).
inline constexpr std::uint64_t get_hitTicks(std::uint64_t p) {
  const std::uint64_t coarse = (static_cast<std::uint64_t>(get_hitStamp(p)) << 14) | get_hitToa(p);
  return ((coarse << 4) - get_hitFineToa(p)) & ((std::uint64_t{1} << hit_clock_bits) - 1);
}

// TDC packets (type 0x6).
/// The edge nibble: 0xF input 1 rising, 0xA input 1 falling, 0xE input 2 rising, 0xB input 2 falling.
inline constexpr unsigned get_tdcEdge(std::uint64_t p) { return static_cast<unsigned>((p >> 56) & 0xF); }
inline constexpr unsigned get_tdcCounter(std::uint64_t p) { return static_cast<unsigned>((p >> 44) & 0xFFF); }
inline constexpr std::uint64_t get_tdcCoarse(std::uint64_t p) { return (p >> 9) & ((std::uint64_t{1} << 35) - 1); }
inline constexpr unsigned get_tdcFine(std::uint64_t p) { return static_cast<unsigned>((p >> 5) & 0xF); }

/// A TDC's time modulo 2^36 ticks: coarse x 2 plus the fine part rounded to the nearest tick. Fine step f
/// (1 to 12) lies (f - 1)/12 of a coarse step, i.e. (f - 1)/6 ticks, past the coarse time; halves round up,
/// so 1-3 add 0 ticks, 4-9 add 1 and 10-12 add 2. A fine value of 0 reads as 1, values above 12 as 12.
inline constexpr std::uint64_t get_tdcTicks(std::uint64_t p) {
  unsigned fine = get_tdcFine(p);
  fine = fine < 1 ? 1 : (fine > 12 ? 12 : fine);
  return ((get_tdcCoarse(p) << 1) + (fine + 2) / 6) & ((std::uint64_t{1} << tdc_clock_bits) - 1);
}

// Heartbeats (type 0x7, 0x71 and 0x72).
/// The heartbeat's readout stamp as ticks modulo 2^34 (the start of its 409.6 us step).
inline constexpr std::uint64_t get_heartbeatTicks(std::uint64_t p) { return (p & 0xFFFF) << heartbeat_shift; }

// Builders, the inverse of the readers above, for the simulator's raw output and the tests.

/// A hit packet at chip pixel (column, row) with ToT (raw 25 ns units) at `ticks` (taken modulo 2^34).
inline constexpr std::uint64_t make_hitPacket(unsigned column, unsigned row, unsigned tot, std::uint64_t ticks) {
  ticks &= (std::uint64_t{1} << hit_clock_bits) - 1;
  const std::uint64_t coarse = (ticks + 15) >> 4;    // 30 bits of stamp and ToA, rounded up ...
  const std::uint64_t fine = (coarse << 4) - ticks;  // ... and the fine ToA counted back from there
  const std::uint64_t pixel = ((column & 1u) << 2) | (row & 3u);
  return (std::uint64_t{0xB} << 60) | (std::uint64_t{column >> 1} << 53) | (std::uint64_t{row >> 2} << 47) |
         (pixel << 44) | ((coarse & 0x3FFF) << 30) | (std::uint64_t{tot & 0x3FFu} << 20) | (fine << 16) |
         ((coarse >> 14) & 0xFFFF);
}

/// A TDC packet of the given edge nibble and counter at `ticks` (taken modulo 2^36), exact to the tick.
inline constexpr std::uint64_t make_tdcPacket(unsigned edge, unsigned counter, std::uint64_t ticks) {
  ticks &= (std::uint64_t{1} << tdc_clock_bits) - 1;
  const std::uint64_t fine = (ticks & 1) != 0 ? 7 : 1;  // 7 adds exactly one tick, 1 adds none
  return (std::uint64_t{0x6} << 60) | (std::uint64_t{edge & 0xFu} << 56) | (std::uint64_t{counter & 0xFFFu} << 44) |
         ((ticks >> 1) << 9) | (fine << 5);
}

/// A heartbeat (0x71) carrying the readout stamp of `ticks`.
inline constexpr std::uint64_t make_heartbeatPacket(std::uint64_t ticks) {
  return (std::uint64_t{0x71} << 56) | ((ticks >> heartbeat_shift) & 0xFFFF);
}

inline constexpr std::uint64_t make_chunkHeader(unsigned chip, std::uint64_t payloadBytes) {
  return chunk_magic | (std::uint64_t{chip & 0xFFu} << 32) | (payloadBytes << 48);
}

}  // namespace kovra::tpx3spidr::raw
