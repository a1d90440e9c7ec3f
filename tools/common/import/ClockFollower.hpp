#pragma once

// One clock for the whole file, followed through the roll-overs of every counter that reads it.
//
// Hits and heartbeats read the clock modulo 2^34 ticks (26.8 s), TDCs modulo 2^36 ticks (107 s), and the two
// agree modulo 2^34. The clock starts at the first time-carrying packet's raw value. Every later reading is
// placed at the time congruent to it modulo 2^34 that lies nearest to the clock's latest time (the largest time
// placed so far): packets are only locally out of order, and TDCs and heartbeats come regularly, so the true time
// is never half a period away from it. One exception stretches the reach in files where only triggers come for a
// while: a TDC that follows a TDC with no other time-carrying packet between is placed by its own 36-bit
// distance from that TDC, which stays exact across gaps of up to 53 s.

#include <cstdint>

#include "kovra/tpx3spidr/Tpx3Packets.hpp"

namespace kovra::import {

using namespace kovra::tpx3spidr::raw;  // the packet layout

/// Turns wrapped counter readings into times on one growing clock. `get_latest()` never decreases.
class Clock_Follower {
 public:
  /// The time of a hit or heartbeat reading (ticks modulo 2^34).
  Ticks place_hitClock(std::uint64_t raw) {
    lastWasTdc = false;
    return place(raw, hit_clock_bits);
  }

  /// The time of a TDC reading (ticks modulo 2^36).
  Ticks place_tdc(std::uint64_t raw) {
    Ticks t = 0;
    if (lastWasTdc) {
      t = lastTdcTime + wrap_signed(raw - lastTdcRaw, tdc_clock_bits);
      advance(t);
    } else {
      t = place(raw, hit_clock_bits);  // TDCs and hits agree only modulo 2^34
    }
    lastWasTdc = true;
    lastTdcRaw = raw;
    lastTdcTime = t;
    return t;
  }

  bool is_started() const { return started; }
  Ticks get_latest() const { return latest; }
  /// The first time-carrying packet's time (its raw value); meaningful once started.
  Ticks get_start() const { return start; }
  /// How often the latest time crossed a multiple of 2^34 ticks, i.e. roll-overs of the hits' counter.
  std::uint64_t get_hitRollovers() const { return rollovers; }

 private:
  static Ticks wrap_signed(std::uint64_t difference, int bits) {
    const std::uint64_t period = std::uint64_t{1} << bits;
    difference &= period - 1;
    return difference >= period / 2 ? static_cast<Ticks>(difference) - static_cast<Ticks>(period)
                                    : static_cast<Ticks>(difference);
  }

  Ticks place(std::uint64_t raw, int bits) {
    if (!started) {
      started = true;
      start = static_cast<Ticks>(raw);
      latest = start;
      return latest;
    }
    const Ticks t = latest + wrap_signed(raw - static_cast<std::uint64_t>(latest), bits);
    advance(t);
    return t;
  }

  void advance(Ticks t) {
    if (t <= latest) return;
    rollovers += static_cast<std::uint64_t>((t >> hit_clock_bits) - (latest >> hit_clock_bits));
    latest = t;
  }

  bool started = false;
  bool lastWasTdc = false;
  Ticks start = 0;
  Ticks latest = 0;
  std::uint64_t lastTdcRaw = 0;
  Ticks lastTdcTime = 0;
  std::uint64_t rollovers = 0;
};

}  // namespace kovra::import
