#pragma once

// Hits to photons: the blob of pixels one photon lights in an intensified camera becomes one photon.
//
// The rule, exactly: hits are taken in time order (arrival order on equal times). A hit joins the
// earliest-opened photon that is still open and holds a hit within `radius` pixels in x and in y; a photon is
// open while the hit's time is at most `window` ticks after the photon's first hit. Otherwise the hit opens a
// new photon. Position: the ToT-weighted mean of the hits' pixel coordinates, rounded to the nearest 1/65536
// pixel, halves up (the plain mean when every ToT is 0). Time: that of the largest-ToT hit (the earliest of
// equals), or of the first hit. Photons come out in non-decreasing time, photons of equal time in the order
// they were opened.
//
// What crosses from one hit to the next: the open photons (a photon opened more than `window` ago can take no
// hit, so it closes), the hits of the last `window` ticks with a per-pixel chain through them (the only hits a
// new hit can meet), and the closed photons whose time a still-open or future photon could undercut. All three
// span one window of time, whatever the file's length.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <queue>
#include <vector>

#include "import/ReorderWindow.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::import {

enum class Photon_Time { strongest, earliest };

namespace detail {

/// A first-in, first-out ring of values that doubles when full; indexing from the front is one mask away.
template <typename Value_Type>
class Fifo_Ring {
 public:
  bool empty() const { return count == 0; }
  std::size_t size() const { return count; }
  Value_Type& front() { return values[head]; }
  Value_Type& operator[](std::size_t i) { return values[(head + i) & (values.size() - 1)]; }
  void pop_front() {
    head = (head + 1) & (values.size() - 1);
    --count;
  }
  void push_back(const Value_Type& value) {
    if (count == values.size()) {
      std::vector<Value_Type> larger(values.size() * 2);
      for (std::size_t i = 0; i < count; ++i) larger[i] = (*this)[i];
      values.swap(larger);
      head = 0;
    }
    values[(head + count++) & (values.size() - 1)] = value;
  }

 private:
  std::vector<Value_Type> values = std::vector<Value_Type>(64);
  std::size_t head = 0;
  std::size_t count = 0;
};

/// Eight 16-bit pixel coordinates side by side: one vector register on the machines we build for (the compiler
/// spells the operations out lane by lane where there is none).
using Pixel_Lanes = std::uint16_t __attribute__((vector_size(16)));

/// A coordinate no real pixel comes within 2^14 of (-20000 as 16 bits): the unused places in a photon's hits.
inline constexpr std::uint16_t far_away_pixel = 45536;

}  // namespace detail

/// Groups time-ordered hits of a `width` x `height` frame into photons.
class Hit_Grouping {
 public:
  using Photon = kovra::tpx3spidr::PhotonEvent;

  Hit_Grouping(unsigned width_, unsigned height_, unsigned radius_, Ticks window_, Photon_Time photonTime_)
      : width(width_),
        height(height_),
        radius(static_cast<int>(radius_)),
        window(window_),
        photonTime(photonTime_),
        lastHitAt(std::size_t{width_} * height_, 0),
        ring(1024) {}

  /// Takes the next hit (times never decrease from one call to the next); hands finished photons to
  /// `sink(const Photon&)`.
  template <typename Sink_Type>
  void add_hit(const Timed_Item& hit, Sink_Type&& sink) {
    const Ticks t = hit.time;
    __builtin_prefetch(&lastHitAt[pixel_index(hit.x, hit.y)]);  // read and written at the end, seldom in cache
    while (!open.empty() && open.front().first + window < t) {
      closed.push(get_photon(open.front()));
      open.pop_front();
      ++frontSeq;
    }
    emit_upTo(open.empty() ? t : std::min(t, open.front().first), sink);

    // The earliest-opened open photon with a hit in the neighbourhood. The open photons are looked at in
    // opening order: a box around a photon's hits (grown by the radius) rules most of them out at once, and a
    // photon of a few hits has them at hand to check. A photon with more hits, or more than a few open photons
    // to look at, hands over to the chains of recent hits at each pixel around, which stop as soon as they meet
    // the earliest photon not ruled out.
    const int x = hit.x;
    const int y = hit.y;
    std::uint64_t found = UINT64_MAX;
    std::uint64_t lowest = UINT64_MAX;  // no photon opened before this one can take the hit
    const std::size_t looked = std::min<std::size_t>(open.size(), 32);
    for (std::size_t i = 0; i < looked && lowest == UINT64_MAX; ++i) {
      const Open_Photon& p = open[i];
      if (x + radius < p.xLow || x - radius > p.xHigh || y + radius < p.yLow || y - radius > p.yHigh) continue;
      if (p.hits > Open_Photon::kept_hits) {
        lowest = frontSeq + i;
        break;
      }
      if (holds_hitNear(p, x, y)) {
        found = frontSeq + i;
        break;
      }
    }
    if (found == UINT64_MAX && lowest == UINT64_MAX && open.size() > looked) lowest = frontSeq + looked;
    if (lowest != UINT64_MAX) {
      for (int py = std::max(0, y - radius); py <= std::min(static_cast<int>(height) - 1, y + radius); ++py) {
        for (int px = std::max(0, x - radius); px <= std::min(static_cast<int>(width) - 1, x + radius); ++px) {
          for (std::uint64_t k = lastHitAt[pixel_index(px, py)]; k != 0;) {
            const std::uint64_t index = k - 1;
            if (index < firstKept || index + ring.size() < nextHit) break;  // gone: older than any hit that matters
            const Hit_Memo& memo = ring[index & ringMask];
            if (memo.time + window < t) break;  // this hit's photon, and every older one here, is closed
            if (memo.photon >= lowest) found = std::min(found, memo.photon);
            k = memo.previousAtPixel;
          }
          if (found == lowest) goto searched;
        }
      }
    }
  searched:
    if (found == UINT64_MAX) {
      found = frontSeq + open.size();
      open.push_back(Open_Photon{t, t, found, x, x, y, y});
    }
    Open_Photon& photon = open[static_cast<std::size_t>(found - frontSeq)];
    photon.xLow = std::min(photon.xLow, x);
    photon.xHigh = std::max(photon.xHigh, x);
    photon.yLow = std::min(photon.yLow, y);
    photon.yHigh = std::max(photon.yHigh, y);
    photon.weight += hit.tot;
    photon.weightedX += std::uint64_t{hit.tot} * hit.x;
    photon.weightedY += std::uint64_t{hit.tot} * hit.y;
    if (photon.hits < Open_Photon::kept_hits) {
      photon.hitX[photon.hits / 8][photon.hits % 8] = static_cast<std::uint16_t>(x);
      photon.hitY[photon.hits / 8][photon.hits % 8] = static_cast<std::uint16_t>(y);
    }
    photon.sumX += hit.x;
    photon.sumY += hit.y;
    ++photon.hits;
    if (hit.tot > photon.strongestTot) {
      photon.strongestTot = hit.tot;
      photon.strongestTime = t;
    }
    remember(hit, found);
  }

  /// Closes every photon and hands the rest over: the end of the input.
  template <typename Sink_Type>
  void finish(Sink_Type&& sink) {
    for (; !open.empty(); open.pop_front(), ++frontSeq) closed.push(get_photon(open.front()));
    emit_upTo(INT64_MAX, sink);
  }

  std::size_t get_ringCapacity() const { return ring.size(); }

 private:
  struct Open_Photon {
    Ticks first = 0;
    Ticks strongestTime = 0;
    std::uint64_t seq = 0;
    int xLow = 0, xHigh = 0, yLow = 0, yHigh = 0;  ///< the box around its hits
    /// Two lanes of eight: a photon of the simulated camera has about 7 hits, so nearly every photon is checked
    /// with its hits at hand. Checking all 16 at once instead of the first 12 one by one took the grouping from
    /// 23.7 to 19.4 ns per hit on the 17 million hits of 128 MiB of the benchmark's camera (best of 7 runs,
    /// four times each, alternating).
    static constexpr std::size_t kept_hits = 16;
    /// Its first hits' pixels, hit h in lane h % 8 of entry h / 8; far away where unused.
    detail::Pixel_Lanes hitX[2] = {far_lanes(), far_lanes()};
    detail::Pixel_Lanes hitY[2] = {far_lanes(), far_lanes()};
    unsigned strongestTot = 0;
    std::uint64_t hits = 0;
    std::uint64_t weight = 0;
    std::uint64_t weightedX = 0;
    std::uint64_t weightedY = 0;
    std::uint64_t sumX = 0;
    std::uint64_t sumY = 0;
  };

  static constexpr detail::Pixel_Lanes far_lanes() {
    constexpr std::uint16_t f = detail::far_away_pixel;
    return detail::Pixel_Lanes{f, f, f, f, f, f, f, f};
  }

  /// Whether one of the photon's kept hits lies within the radius of (x, y) in x and in y. All kept_hits places
  /// are looked at at once, without a branch: a place not yet used holds a pixel far outside any frame, which is
  /// within no radius of a pixel, so it never counts. |d| <= radius is tested as (d + radius), taken as an
  /// unsigned 16-bit number, <= 2 radius: a negative sum wraps to above 32767, and |d| stays below 2^15 - 16 for
  /// real and far-away pixels alike.
  bool holds_hitNear(const Open_Photon& p, int x, int y) const {
    const detail::Pixel_Lanes zero{};
    const detail::Pixel_Lanes shiftX = zero + static_cast<std::uint16_t>(radius - x);
    const detail::Pixel_Lanes shiftY = zero + static_cast<std::uint16_t>(radius - y);
    const detail::Pixel_Lanes span = zero + static_cast<std::uint16_t>(2 * radius);
    const auto near = ((p.hitX[0] + shiftX <= span) & (p.hitY[0] + shiftY <= span)) |
                      ((p.hitX[1] + shiftX <= span) & (p.hitY[1] + shiftY <= span));
    std::uint64_t halves[2];
    std::memcpy(halves, &near, sizeof halves);
    return (halves[0] | halves[1]) != 0;
  }

  struct Hit_Memo {
    Ticks time;
    std::uint64_t photon;
    std::uint64_t previousAtPixel;  ///< 1 + the index of the previous hit at the same pixel; 0 for none
  };

  struct Closed_Photon {
    Photon photon;
    std::uint64_t seq;
    bool operator>(const Closed_Photon& other) const {
      return photon.toa.value != other.photon.toa.value ? photon.toa.value > other.photon.toa.value : seq > other.seq;
    }
  };

  /// numerator / denominator x 65536 rounded to the nearest unit, halves up.
  static std::int32_t get_mean(std::uint64_t numerator, std::uint64_t denominator) {
    return static_cast<std::int32_t>((2 * 65536 * numerator + denominator) / (2 * denominator));
  }

  Closed_Photon get_photon(const Open_Photon& p) const {
    const bool weighted = p.weight != 0;
    const std::uint64_t denominator = weighted ? p.weight : p.hits;
    const std::int32_t px = get_mean(weighted ? p.weightedX : p.sumX, denominator);
    const std::int32_t py = get_mean(weighted ? p.weightedY : p.sumY, denominator);
    const Ticks t = photonTime == Photon_Time::strongest ? p.strongestTime : p.first;
    return Closed_Photon{Photon{{px}, {py}, {t}}, p.seq};
  }

  template <typename Sink_Type>
  void emit_upTo(Ticks bound, Sink_Type& sink) {
    while (!closed.empty() && closed.top().photon.toa.value <= bound) {
      sink(closed.top().photon);
      closed.pop();
    }
  }

  std::size_t pixel_index(int px, int py) const {
    return static_cast<std::size_t>(py) * width + static_cast<std::size_t>(px);
  }

  /// Stores the hit in the ring, doubling the ring when the slot it needs still holds a hit that matters.
  void remember(const Timed_Item& hit, std::uint64_t photon) {
    if (nextHit >= ring.size() && ring[nextHit & ringMask].time + window >= hit.time) {
      std::vector<Hit_Memo> larger(ring.size() * 2);
      for (std::uint64_t i = nextHit - ring.size(); i < nextHit; ++i) {
        larger[i & (larger.size() - 1)] = ring[i & ringMask];
      }
      firstKept = nextHit - ring.size();
      ring.swap(larger);
      ringMask = ring.size() - 1;
    }
    std::uint64_t& last = lastHitAt[pixel_index(hit.x, hit.y)];
    ring[nextHit & ringMask] = Hit_Memo{hit.time, photon, last};
    last = ++nextHit;
  }

  const unsigned width;
  const unsigned height;
  const int radius;
  const Ticks window;
  const Photon_Time photonTime;
  std::vector<std::uint64_t> lastHitAt;  ///< per pixel: 1 + the index of its latest hit; 0 for none
  std::vector<Hit_Memo> ring;            ///< the latest hits, hit i at i modulo the (power-of-two) size
  std::uint64_t nextHit = 0;
  std::uint64_t ringMask = 1023;
  std::uint64_t firstKept = 0;          ///< hits before this index were not carried over when the ring last grew
  detail::Fifo_Ring<Open_Photon> open;  ///< in opening order; the first has sequence number frontSeq
  std::uint64_t frontSeq = 0;
  std::priority_queue<Closed_Photon, std::vector<Closed_Photon>, std::greater<>> closed;
};

}  // namespace kovra::import
