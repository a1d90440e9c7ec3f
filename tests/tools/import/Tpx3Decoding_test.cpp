// The packet fields, the clock through roll-overs, and the reorder window's rule.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <span>
#include <tuple>
#include <vector>

#include "common/import/ClockFollower.hpp"
#include "common/import/ReorderWindow.hpp"
#include "kovra/tpx3spidr/Tpx3Packets.hpp"

using namespace kovra::import;

namespace {

TEST(Tpx3PacketsTest, HitFieldsFromHandBuiltWords) {
  // Fields set bit by bit: dcol 53-59, spix 47-52, pix 44-46, ToA 30-43, ToT 20-29, fine 16-19, stamp 0-15.
  const struct {
    unsigned dcol, spix, pix, toa, tot, fine, stamp, column, row;
    std::uint64_t ticks;
  } cases[] = {
      {0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
      {127, 63, 7, 0, 0, 0, 0, 255, 255, 0},
      {5, 9, 6, 0, 0, 0, 0, 11, 38, 0},
      {0, 0, 0, 0x3FFF, 0x3FF, 0, 0, 0, 0, std::uint64_t{0x3FFF} << 4},
      {0, 0, 0, 1, 0, 3, 2, 0, 0, ((std::uint64_t{2} << 14 | 1) << 4) - 3},
      // Stamp and ToA all zero with a fine part: the time wraps to just below 2^34.
      {0, 0, 0, 0, 0, 15, 0, 0, 0, (std::uint64_t{1} << 34) - 15},
      {0, 0, 0, 0x3FFF, 0, 0, 0xFFFF, 0, 0, (std::uint64_t{1} << 34) - 16},
  };
  for (const auto& c : cases) {
    const std::uint64_t w = 0xB000000000000000 | std::uint64_t{c.dcol} << 53 | std::uint64_t{c.spix} << 47 |
                            std::uint64_t{c.pix} << 44 | std::uint64_t{c.toa} << 30 | std::uint64_t{c.tot} << 20 |
                            std::uint64_t{c.fine} << 16 | c.stamp;
    EXPECT_EQ(std::tuple(get_packetKind(w), get_hitColumn(w), get_hitRow(w), get_hitToa(w), get_hitTot(w),
                         get_hitFineToa(w), get_hitStamp(w), get_hitTicks(w)),
              std::tuple(Packet_Kind::hit, c.column, c.row, c.toa, c.tot, c.fine, c.stamp, c.ticks))
        << std::hex << w;
  }
}

TEST(Tpx3PacketsTest, TdcFieldsAndFineRounding) {
  struct Case {
    std::uint64_t word;
    unsigned edge, counter;
    std::uint64_t coarse;
    std::uint64_t ticks;
  };
  const std::uint64_t coarse = std::uint64_t{0x123456789};
  const auto tdc = [&](std::uint64_t top, unsigned fine) {
    return (top << 56) | (std::uint64_t{0xABC} << 44) | (coarse << 9) | (std::uint64_t{fine} << 5);
  };
  const Case cases[] = {
      {tdc(0x6A, 3), 0xA, 0xABC, coarse, 2 * coarse},
      {tdc(0x6E, 4), 0xE, 0xABC, coarse, 2 * coarse + 1},
      {tdc(0x6B, 9), 0xB, 0xABC, coarse, 2 * coarse + 1},
      {tdc(0x6F, 10), 0xF, 0xABC, coarse, 2 * coarse + 2},
      {tdc(0x6F, 0), 0xF, 0xABC, coarse, 2 * coarse},
      {tdc(0x6F, 15), 0xF, 0xABC, coarse, 2 * coarse + 2},
      // The largest coarse time with the largest fine part wraps at 2^36 ticks.
      {(std::uint64_t{0x6F} << 56) | (((std::uint64_t{1} << 35) - 1) << 9) | (std::uint64_t{12} << 5), 0xF, 0,
       (std::uint64_t{1} << 35) - 1, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << c.word);
    const std::uint64_t w = c.word;
    EXPECT_EQ(std::tuple(get_packetKind(w), get_tdcEdge(w), get_tdcCounter(w), get_tdcCoarse(w), get_tdcTicks(w)),
              std::tuple(Packet_Kind::tdc, c.edge, c.counter, c.coarse, c.ticks));
  }
}

// (Packet kinds: counted in ImportTest.EveryPacketTypeInAQuadFile.)
TEST(Tpx3PacketsTest, TheQuickHitTestAgreesWithThePacketKind) {
  // Every top byte (type and subtype nibbles), with the low bits empty and full.
  for (std::uint64_t top = 0; top < 256; ++top) {
    for (const std::uint64_t low : {std::uint64_t{0}, (std::uint64_t{1} << 56) - 1}) {
      const std::uint64_t p = top << 56 | low;
      EXPECT_EQ(is_hit(p), get_packetKind(p) == Packet_Kind::hit) << std::hex << p;
    }
  }
}

TEST(Tpx3PacketsTest, ChunkHeaderAndHeartbeat) {
  const std::uint64_t header = 0x1FF8'00'02'33585054;  // "TPX3", chip 2, 8184 bytes
  EXPECT_TRUE(is_chunkHeader(header));
  EXPECT_EQ(get_chunkChip(header), 2u);
  EXPECT_EQ(get_chunkBytes(header), 0x1FF8u);
  EXPECT_FALSE(is_chunkHeader(header ^ 1));
  EXPECT_EQ(make_chunkHeader(2, 0x1FF8), header);
  EXPECT_EQ(get_heartbeatTicks(0x7100000000001234), std::uint64_t{0x1234} << 18);
}

constexpr Ticks hitPeriod = Ticks{1} << 34;
constexpr Ticks tdcPeriod = Ticks{1} << 36;

TEST(ClockFollowerTest, StartsAtTheFirstRawValueAndFollowsRollOvers) {
  Clock_Follower clock;
  EXPECT_EQ(clock.place_hitClock(hitPeriod - 100), hitPeriod - 100);
  EXPECT_EQ(clock.place_hitClock(50), hitPeriod + 50);                // rolled over
  EXPECT_EQ(clock.place_hitClock(hitPeriod - 120), hitPeriod - 120);  // a little late, before the roll-over
  EXPECT_EQ(clock.get_latest(), hitPeriod + 50);
  EXPECT_EQ(clock.get_hitRollovers(), 1u);
  EXPECT_EQ(clock.get_start(), hitPeriod - 100);
  // A TDC agrees with hits only modulo 2^34: its own upper bits say nothing.
  EXPECT_EQ(clock.place_tdc(3 * hitPeriod + 60), hitPeriod + 60);
}

TEST(ClockFollowerTest, TdcsFiftySecondsApartAreFollowed) {
  // Only TDCs for 50 s: each 36-bit reading measures its distance from the previous one. (Hits far apart with
  // heartbeats between them: ImportTest.SparseHitsAcrossRollOversAndLatePackets.)
  const Ticks second = 640000000;
  Clock_Follower triggers;
  EXPECT_EQ(triggers.place_hitClock(7), 7);
  for (const Ticks t : {Ticks{7}, 7 + 50 * second, 7 + 100 * second, 7 + 150 * second}) {
    EXPECT_EQ(triggers.place_tdc(static_cast<std::uint64_t>(t % tdcPeriod)), t);
  }
  EXPECT_EQ(triggers.place_hitClock(static_cast<std::uint64_t>((9 + 150 * second) % hitPeriod)), 9 + 150 * second);
  EXPECT_EQ(triggers.get_hitRollovers(), 5u);  // and the TDC's own counter rolled over at 107 s
}

/// What a window releases, every field, in order.
struct Released {
  std::vector<std::tuple<Ticks, int, int, int, int>> items;
  void operator()(const Timed_Item* released, std::size_t n) {
    for (const Timed_Item& i : std::span(released, n)) items.emplace_back(i.time, i.x, i.y, i.tot, i.kind);
  }
};
/// `items` as a window must release them: by time, equal times in arrival order.
std::vector<std::tuple<Ticks, int, int, int, int>> in_timeOrder(std::vector<Timed_Item> items) {
  std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) { return a.time < b.time; });
  Released sorted;
  sorted(items.data(), items.size());
  return sorted.items;
}

TEST(ReorderWindowTest, ShuffledItemsAndJumpsFarBeyondTheWindowComeOutInTimeOrderEqualTimesInArrivalOrder) {
  // A window of 16 buckets; items spread over it, then the clock jumps by far more than the ring spans, twice.
  // Every time comes twice; x carries the arrival rank.
  const Ticks window = Ticks{1} << 20;
  Reorder_Window reorder(window);
  Released out;
  std::vector<Timed_Item> in;
  Ticks latest = 70000;
  const auto push = [&](Ticks t) {
    in.push_back({t, static_cast<std::uint16_t>(in.size()), 0, 0, 0});
    return reorder.push(in.back(), latest, out);
  };
  // The first items step back, before the first one's time and below zero.
  for (const Ticks t : {Ticks{70000}, Ticks{500}, Ticks{-300}, Ticks{-200}}) ASSERT_TRUE(push(t));
  for (const Ticks base : {Ticks{0}, Ticks{1} << 40, (Ticks{1} << 40) + (Ticks{1} << 22)}) {
    for (Ticks i = 0; i < 200; ++i) {
      const Ticks t = base + (i * 7919 % 100) * 10000;  // shuffled within one window
      latest = std::max(latest, t);
      ASSERT_TRUE(push(t));
    }
  }
  // Exactly at the cut, behind a bucket that went out already.
  latest = (((latest >> 16) + 40) << 16) + window - 1;  // the cut is a bucket's last tick
  ASSERT_TRUE(push(latest));
  ASSERT_TRUE(push(latest - window));
  reorder.finish(out);
  EXPECT_EQ(out.items, in_timeOrder(in));
}

TEST(ReorderWindowTest, EveryFieldOfAnItemComesOutAsItWentIn) {
  // The window holds items packed into one word: each field at its extremes, times at both ends of a bucket,
  // in a bucket that arrives in order (only unpacked) and in one that must be sorted.
  const Ticks bucket = Ticks{1} << Reorder_Window::bucket_bits;
  struct Case {
    const char* what;
    std::vector<Timed_Item> items;
  };
  const Case cases[] = {
      {"in order", {{5 * bucket, 0, 0, 0, 0}, {5 * bucket + 1, 65535, 1, 1023, 0}, {6 * bucket - 1, 1, 65535, 1, 0xF}}},
      {"shuffled, ties in arrival order",
       {{6 * bucket - 1, 511, 7, 1023, 0},
        {5 * bucket, 3, 65535, 0, 0xB},
        {6 * bucket - 1, 65535, 0, 1, 0},
        {5 * bucket + 256, 9, 9, 512, 0xE},
        {5 * bucket, 65535, 65535, 1023, 0xA},
        {-bucket + 255, 4, 4, 4, 0}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Reorder_Window window(8 * bucket);
    Released out;
    for (const auto& item : c.items) ASSERT_TRUE(window.push(item, 6 * bucket - 1, out));
    window.finish(out);
    EXPECT_EQ(out.items, in_timeOrder(c.items));
  }
}

TEST(ReorderWindowTest, AnItemMoreThanTheWindowBehindTheLatestTimeIsDropped) {
  Reorder_Window window(100);
  Released out;
  const auto push = [&](Ticks t, Ticks latest) { return window.push({t, 0, 0, 0, 0}, latest, out); };
  EXPECT_TRUE(push(1000000, 1000000));
  EXPECT_TRUE(push(999900, 1000000));   // exactly the window behind: kept
  EXPECT_FALSE(push(999899, 1000000));  // one tick more: dropped
  EXPECT_TRUE(push(5000000, 5000000));
  EXPECT_FALSE(push(1000001, 5000000));
  window.finish(out);
  EXPECT_EQ(out.items, in_timeOrder({{999900, 0, 0, 0, 0}, {1000000, 0, 0, 0, 0}, {5000000, 0, 0, 0, 0}}));
}

}  // namespace
