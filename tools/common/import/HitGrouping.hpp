#pragma once

// Hits to photons: the blob of pixels one photon lights in an intensified camera becomes one photon.
//
// The rule, exactly: hits are taken in time order (arrival order on equal times). A hit joins the
// earliest-opened photon that is still open and holds a hit within `radius` pixels in x and in y; a photon is
// open while the hit's time is at most `window` ticks after the photon's first hit. Otherwise the hit opens a
// new photon. Position: the ToT-weighted mean of the hits' pixel coordinates, rounded to the nearest 1/65536
// pixel, halves up (the plain mean when every ToT is 0). Time: that of the largest-ToT hit (the earliest of
// equals), or of the first hit. Photons come out in non-decreasing time, photons of equal time in the order
// they were opened, which is the order of their first hits.
//
// What crosses from one hit to the next: the open photons (a photon opened more than `window` ago can take no
// hit, so it closes), per pixel the open photons holding a hit there (Pixel_Stacks, which says why one number
// per pixel nearly always suffices), and the closed photons whose time an open or future photon could still
// undercut. All of them span one window of time, whatever the file's length.
//
// The caller numbers the hits, in time order (other items may take numbers between them); every photon carries
// the number of its first hit, its place in the opening order, the same in every run that makes it.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <queue>
#include <span>
#include <type_traits>
#include <vector>

#include "common/import/PixelStacks.hpp"
#include "common/import/ReorderWindow.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::import {

enum class Photon_Time { strongest, earliest };

/// The charge of a photon: the sum of its hits' ToT, in steps of 25 ns, and their number (each held to 2^32 - 1).
struct Photon_Charge {
  std::uint32_t tot;
  std::uint32_t hits;
};

namespace detail {

/// A first-in, first-out ring of values that doubles when full; indexing from the front is one mask away.
template <typename Value_Type>
class Fifo_Ring {
 public:
  bool empty() const { return count == 0; }
  std::size_t size() const { return count; }
  Value_Type& front() { return values[head]; }
  Value_Type& operator[](std::size_t i) { return values[(head + i) & mask]; }
  void pop_front() {
    head = (head + 1) & mask;
    --count;
  }
  void clear() { head = count = 0; }
  void push_back(const Value_Type& value) {
    if (count == values.size()) {
      std::vector<Value_Type> larger(values.size() * 2);
      for (std::size_t i = 0; i < count; ++i) larger[i] = (*this)[i];
      values.swap(larger);
      mask = values.size() - 1;
      head = 0;
    }
    values[(head + count++) & mask] = value;
  }

 private:
  std::vector<Value_Type> values = std::vector<Value_Type>(64);
  std::size_t mask = 63;
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
      : radius(static_cast<int>(radius_)),
        search(choose_search(radius_)),
        window(window_),
        photonTime(photonTime_),
        pixels(width_, height_, radius_) {}

  /// Drops everything held, unwritten: a run that begins with the next hit.
  void restart() {
    frontSeq += open.size();
    open.clear();
    closed = {};
    pixels.restart();
  }

  /// Takes the next hit, number `number` (times and numbers never decrease from one call to the next); hands
  /// finished photons to `sink(const Photon&, firstHit)`, or `sink(const Photon&, firstHit, const Photon_Charge&)`
  /// where the sink takes the charge too. Returns the number of the first hit of the photon the
  /// hit joined.
  template <typename Sink_Type>
  std::uint64_t add_hit(const Timed_Item& hit, std::uint64_t number, Sink_Type&& sink) {
    switch (search) {
      case Search::pixel:
        return add_hitBy<Search::pixel>(hit, number, sink);
      case Search::square:
        return add_hitBy<Search::square>(hit, number, sink);
      default:
        return add_hitBy<Search::photons>(hit, number, sink);
    }
  }

  /// add_hit for each hit of `items`, numbered from `first` on; items of another kind (trigger edges) take
  /// their number and are passed over. The way to search is chosen once for them all.
  template <typename Sink_Type>
  void add_hits(std::span<const Timed_Item> items, std::uint64_t first, Sink_Type&& sink) {
    switch (search) {
      case Search::pixel:
        return add_hitsBy<Search::pixel>(items, first, sink);
      case Search::square:
        return add_hitsBy<Search::square>(items, first, sink);
      default:
        return add_hitsBy<Search::photons>(items, first, sink);
    }
  }

  /// Closes every photon and hands the rest over: the end of the input.
  template <typename Sink_Type>
  void finish(Sink_Type&& sink) {
    for (; !open.empty(); open.pop_front(), ++frontSeq) closed.push(get_photon(open.front()));
    emit_upTo(INT64_MAX, sink);
  }

  /// Hands over the photons already closed and drops the open ones: the end of a run whose later photons another
  /// run writes.
  template <typename Sink_Type>
  void finish_closed(Sink_Type&& sink) {
    frontSeq += open.size();
    open.clear();
    emit_upTo(INT64_MAX, sink);
  }

  Ticks get_window() const { return window; }

 private:
  /// How the photon a hit joins is found: the hit's pixel alone (radius 0), every pixel of the square around it
  /// (radius 1), or the open photons first (larger radii; find_amongPhotons).
  enum class Search { pixel, square, photons };
  static Search choose_search(unsigned radius) {
    return radius == 0 ? Search::pixel : radius <= Pixel_Stacks::direct_radius ? Search::square : Search::photons;
  }

  template <Search S, typename Sink_Type>
  void add_hitsBy(std::span<const Timed_Item> items, std::uint64_t first, Sink_Type& sink) {
    for (const Timed_Item& item : items) {
      if (!item.is_trigger()) add_hitBy<S>(item, first, sink);
      ++first;
    }
  }

  template <Search S, typename Sink_Type>
  std::uint64_t add_hitBy(const Timed_Item& hit, std::uint64_t number, Sink_Type& sink) {
    const Ticks t = hit.time;
    while (!open.empty() && open.front().first + window < t) {
      closed.push(get_photon(open.front()));
      open.pop_front();
      ++frontSeq;
    }
    emit_upTo(open.empty() ? t : std::min(t, open.front().first), sink);

    const int x = hit.x;
    const int y = hit.y;
    std::uint64_t seq = 0;
    if constexpr (S == Search::photons) {
      seq = find_amongPhotons(x, y, t);
    } else {
      seq = pixels.find_leastOpen < S == Search::pixel ? 0 : 1 > (x, y, t, frontSeq);
    }
    if (seq == 0) {
      seq = frontSeq + open.size();
      open.push_back(Open_Photon{t, t, number, {x, x, y, y}});
    }
    pixels.add_hit(x, y, t, window, seq, frontSeq);
    Open_Photon& photon = open[static_cast<std::size_t>(seq - frontSeq)];
    if constexpr (S == Search::photons) keep_hit(photon, x, y);
    photon.weight += hit.tot;
    photon.weightedX += std::uint64_t{hit.tot} * hit.x;
    photon.weightedY += std::uint64_t{hit.tot} * hit.y;
    photon.sumX += hit.x;
    photon.sumY += hit.y;
    ++photon.hits;
    if (hit.tot > photon.strongestTot) {
      photon.strongestTot = hit.tot;
      photon.strongestTime = t;
    }
    return photon.firstHit;
  }

  struct Open_Photon {
    Ticks first = 0;
    Ticks strongestTime = 0;
    std::uint64_t firstHit = 0;
    std::array<int, 4> box{};  ///< x low, x high, y low, y high of its hits; kept for wide radii only
    unsigned strongestTot = 0;
    std::uint64_t hits = 0;
    std::uint64_t weight = 0;
    std::uint64_t weightedX = 0;
    std::uint64_t weightedY = 0;
    std::uint64_t sumX = 0;
    std::uint64_t sumY = 0;
    /// For wide radii, its first hits' pixels, hit h in lane h % 8 of entry h / 8; far away where unused. Two
    /// lanes of eight: a photon of the simulated camera has about 7 hits.
    static constexpr std::size_t kept_hits = 16;
    detail::Pixel_Lanes hitX[2] = {far_lanes(), far_lanes()};
    detail::Pixel_Lanes hitY[2] = {far_lanes(), far_lanes()};
  };

  /// For radii beyond the direct search of Pixel_Stacks, where a hit has hundreds of pixels around it: the open
  /// photons in opening order, most ruled out at once by the box around their hits grown by the radius, and a
  /// photon of few hits checked against them all at once. The first photon found is the one the hit joins. A
  /// photon with more hits than kept, or more open photons than `looked`, hands over to the pixels' stacks,
  /// which give the least open photon near the hit (none before it is near). At radius 4 this took the
  /// grouping from 39 ns per hit (the stacks alone) to 15 on the benchmark's camera, and to 21 on crowded flashes
  /// (3 million hits each, kovra_grouping_bench, fastest of 3).
  std::uint64_t find_amongPhotons(int x, int y, Ticks t) {
    constexpr std::size_t looked = 32;
    const std::size_t n = std::min(open.size(), looked);
    for (std::size_t i = 0; i < n; ++i) {
      const Open_Photon& p = open[i];
      if (x + radius < p.box[0] || x - radius > p.box[1] || y + radius < p.box[2] || y - radius > p.box[3]) continue;
      if (p.hits > Open_Photon::kept_hits) return pixels.find_leastOpen<-1>(x, y, t, frontSeq);
      if (holds_hitNear(p, x, y)) return frontSeq + i;
    }
    return open.size() > n ? pixels.find_leastOpen<-1>(x, y, t, frontSeq) : 0;
  }

  void keep_hit(Open_Photon& p, int x, int y) const {
    p.box = {std::min(p.box[0], x), std::max(p.box[1], x), std::min(p.box[2], y), std::max(p.box[3], y)};
    if (p.hits < Open_Photon::kept_hits) {  // the hit is not counted yet
      p.hitX[p.hits / 8][p.hits % 8] = static_cast<std::uint16_t>(x);
      p.hitY[p.hits / 8][p.hits % 8] = static_cast<std::uint16_t>(y);
    }
  }

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

  struct Closed_Photon {
    Photon photon;
    std::uint64_t firstHit;
    Photon_Charge charge;
    bool operator>(const Closed_Photon& other) const {
      return photon.toa.value != other.photon.toa.value ? photon.toa.value > other.photon.toa.value
                                                        : firstHit > other.firstHit;
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
    const auto held = [](std::uint64_t n) {
      return static_cast<std::uint32_t>(std::min<std::uint64_t>(n, UINT32_MAX));
    };
    return Closed_Photon{Photon{{px}, {py}, {t}}, p.firstHit, {held(p.weight), held(p.hits)}};
  }

  template <typename Sink_Type>
  void emit_upTo(Ticks bound, Sink_Type& sink) {
    while (!closed.empty() && closed.top().photon.toa.value <= bound) {
      if constexpr (std::is_invocable_v<Sink_Type&, const Photon&, std::uint64_t, const Photon_Charge&>) {
        sink(closed.top().photon, closed.top().firstHit, closed.top().charge);
      } else {
        sink(closed.top().photon, closed.top().firstHit);
      }
      closed.pop();
    }
  }

  const int radius;
  const Search search;
  const Ticks window;
  const Photon_Time photonTime;
  Pixel_Stacks pixels;
  detail::Fifo_Ring<Open_Photon> open;  ///< in opening order; the first has sequence number frontSeq
  std::uint64_t frontSeq = 1;           ///< sequence numbers start at 1: Pixel_Stacks takes 0 for none
  std::priority_queue<Closed_Photon, std::vector<Closed_Photon>, std::greater<>> closed;
};

}  // namespace kovra::import
