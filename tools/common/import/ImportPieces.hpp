#pragma once

// The work of one thread of the import on several threads: a piece of the released stream turned into photons.
//
// A piece is a run of whole buckets as the reorder window released them, packed and unsorted; sorting each
// bucket gives the piece's items in the stream's order. Items are numbered through the whole stream (a piece
// knows the number of its first), so photons carry the same first-hit numbers on every thread.
//
// A run over piece k groups its hits from a fresh start, or, when the run before left its grouping open,
// continuing that grouping. Unless k is the last piece, it then runs on into piece k + 1 beside a second
// grouping that starts fresh there, exactly as the run over k + 1 does, until Cut_Search finds the cut where
// the two agree. The run's photons are all it wrote, in order; which of them count is for the writer to say
// (those opened from where the run's own start was settled up to the cut). Where no cut comes before piece
// k + 1 ends, the run hands its grouping on, and the piece after continues it: one worker's grouping takes that
// stretch, as one thread would. With hits as photons a piece is simply converted.

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "common/import/CutSearch.hpp"
#include "common/import/HitGrouping.hpp"
#include "common/import/ImportOptions.hpp"
#include "common/import/ReorderWindow.hpp"

namespace kovra::import {

/// A photon and the number of its first hit: its place in the opening order, which orders photons of equal time
/// and says which side of a cut it lies on.
struct Numbered_Photon {
  Hit_Grouping::Photon photon;
  std::uint64_t firstHit;
  Photon_Charge charge;
};

/// A stretch of the released stream: whole buckets, packed, in the order released.
struct Piece_Input {
  struct Bucket {
    std::size_t offset;  ///< of its first word in `words`
    std::size_t count;
    Ticks begin;
  };
  std::uint64_t first = 0;  ///< the number of its first item
  std::vector<std::uint64_t> words;
  std::vector<Bucket> buckets;
  bool last = false;  ///< whether the stream ends with it

  /// One more released bucket.
  void add(const Packed_Bucket& bucket) {
    buckets.push_back(Bucket{words.size(), bucket.count, bucket.begin});
    words.insert(words.end(), bucket.words, bucket.words + bucket.count);
  }
  Packed_Bucket get_bucket(std::size_t i) const {
    return Packed_Bucket{words.data() + buckets[i].offset, buckets[i].count, buckets[i].begin};
  }
};

/// How a run ended.
enum class Run_End {
  input,  ///< at the end of the input: it wrote every photon it made
  cut,    ///< at a cut where the next piece's run agrees with it
  open    ///< no cut through the next piece: its grouping is left for the piece after that
};

/// What a run made.
struct Run_Output {
  std::vector<Numbered_Photon> photons;  ///< in the order written: by time, equal times by first hit
  std::vector<Ticks> triggers;           ///< the piece's trigger edges, in order
  Run_End end = Run_End::input;
  std::uint64_t cut = 0;                   ///< Run_End::cut: the first item whose photons the next piece's run writes
  Ticks cutTime = 0;                       ///< ... and a time no photon of the next run precedes
  std::unique_ptr<Hit_Grouping> grouping;  ///< Run_End::open: the grouping after the next piece
};

/// One thread's groupings and buffers, kept from run to run.
class Piece_Worker {
 public:
  explicit Piece_Worker(const Import_Options& options_) : options(options_) {}

  /// Runs over `piece` into `out` (whose buffers it reuses): from a fresh start, or continuing `continued`.
  /// `get_next()` gives the next piece (waiting for it if need be), or nullptr when the run is to give up.
  void run(const Piece_Input& piece, std::unique_ptr<Hit_Grouping> continued,
           const std::function<const Piece_Input*()>& get_next, Run_Output& out) {
    out.photons.clear();
    out.triggers.clear();
    out.end = Run_End::input;
    out.grouping.reset();
    if (options.hitsAsPhotons) {
      convert_hits(piece, out);
    } else {
      group_hits(piece, std::move(continued), get_next, out);
    }
  }

 private:
  /// Every hit a photon: the next piece's own run is right from its start, the cut where the piece ends.
  void convert_hits(const Piece_Input& piece, Run_Output& out) {
    out.photons.reserve(piece.words.size());
    std::uint64_t number = piece.first;
    Ticks lastTime = 0;
    for_eachItem(piece, [&](const Timed_Item& item) {
      if (item.is_trigger()) {
        out.triggers.push_back(item.time);
      } else {
        out.photons.push_back({{{item.x * 65536}, {item.y * 65536}, {item.time}}, number, {item.tot, 1}});
      }
      lastTime = item.time;
      ++number;
    });
    if (!piece.last) {
      out.end = Run_End::cut;
      out.cut = number;
      out.cutTime = lastTime;
    }
  }

  void group_hits(const Piece_Input& piece, std::unique_ptr<Hit_Grouping> continued,
                  const std::function<const Piece_Input*()>& get_next, Run_Output& out) {
    const bool fresh = continued == nullptr;
    std::unique_ptr<Hit_Grouping> grouping = fresh ? take_grouping(own) : std::move(continued);
    if (fresh) grouping->restart();
    const auto sink = [&](const Hit_Grouping::Photon& p, std::uint64_t firstHit, const Photon_Charge& charge) {
      out.photons.push_back({p, firstHit, charge});
    };
    std::uint64_t number = piece.first;
    Ticks lastTime = 0;
    for (std::size_t b = 0; b < piece.buckets.size(); ++b) {
      const std::span<const Timed_Item> items = sorter.sort(piece.get_bucket(b));
      for (const Timed_Item& item : items) {
        if (item.is_trigger()) out.triggers.push_back(item.time);
      }
      grouping->add_hits(items, number, sink);
      number += items.size();
      lastTime = items.back().time;
    }
    const Piece_Input* next = piece.last ? nullptr : get_next();
    if (!piece.last && next == nullptr) return;  // giving up
    if (next == nullptr || !run_on(*grouping, *next, number - 1, lastTime, out)) {
      if (next == nullptr || next->last) {  // through to the end of the input
        grouping->finish(sink);
        out.end = Run_End::input;
      } else {
        out.end = Run_End::open;
        out.grouping = std::move(grouping);
      }
    }
    if (grouping) own = std::move(grouping);
  }

  /// Calls `f(item)` for each item of the piece in the stream's order.
  template <typename F>
  void for_eachItem(const Piece_Input& piece, F&& f) {
    for (std::size_t b = 0; b < piece.buckets.size(); ++b) {
      for (const Timed_Item& item : sorter.sort(piece.get_bucket(b))) f(item);
    }
  }

  /// Runs `grouping` on into `next` beside a fresh one from there, up to the cut where they agree (true) or
  /// through the whole piece (false). `lastBefore` and `lastTime`: the number and time of the item before.
  bool run_on(Hit_Grouping& grouping, const Piece_Input& next, std::uint64_t lastBefore, Ticks lastTime,
              Run_Output& out) {
    std::unique_ptr<Hit_Grouping> fresh = take_grouping(shadow);
    fresh->restart();
    Cut_Search search(grouping.get_window(), lastBefore, lastTime);
    const auto sink = [&](const Hit_Grouping::Photon& p, std::uint64_t firstHit, const Photon_Charge& charge) {
      out.photons.push_back({p, firstHit, charge});
    };
    const auto discard = [](const Hit_Grouping::Photon&, std::uint64_t) {};
    std::uint64_t number = next.first;
    bool agreed = false;
    for (std::size_t b = 0; b < next.buckets.size() && !agreed; ++b) {
      for (const Timed_Item& item : sorter.sort(next.get_bucket(b))) {
        if (!item.is_trigger()) {
          const std::uint64_t before = grouping.add_hit(item, number, sink);
          if (search.agree_after(number, item.time, before, fresh->add_hit(item, number, discard))) {
            agreed = true;
            break;
          }
        }
        ++number;
      }
    }
    shadow = std::move(fresh);
    if (!agreed) return false;
    grouping.finish_closed(sink);
    out.end = Run_End::cut;
    out.cut = search.get_cut();
    out.cutTime = search.get_cutTime();
    return true;
  }

  std::unique_ptr<Hit_Grouping> take_grouping(std::unique_ptr<Hit_Grouping>& kept) const {
    if (kept) return std::move(kept);
    const unsigned side = get_frameSide(options.layout);
    return std::make_unique<Hit_Grouping>(side, side, options.radius_px, options.window, options.photonTime);
  }

  const Import_Options& options;
  Bucket_Sorter sorter;
  std::unique_ptr<Hit_Grouping> own;     ///< for fresh starts
  std::unique_ptr<Hit_Grouping> shadow;  ///< for the fresh run beside a run going on past its piece
};

}  // namespace kovra::import
