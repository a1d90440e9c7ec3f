#pragma once

// No-branch-chain direct reconstruction.
//
// Every free photon seeds a chain and is taken at once. The chain then walks the later photons: a free photon
// joins when it is within dSpace of the photon added last on each axis (strict <, x first). Photons that are
// taken or too far are passed over without ending the chain; the first photon later than
// min(t_last + d, seed time + durationMax) ends it (both bounds inclusive). The window d starts at dTime and
// grows by trunc((t_new - t_last) * dTime_ext) with every photon added.
//
// Over a window: a chain reads only its seed and the photons up to the one that ends it, and nothing from
// before its seed; so the window releases everything before the current seed, and what crosses a window border
// is the taken bits of the photons ahead of the seed, which live in the window.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "kovra/Quantities.hpp"
#include "kovra/reconstruction/Cells_FreePhotons.hpp"
#include "kovra/reconstruction/Crowding.hpp"
#include "kovra/reconstruction/EventMembership.hpp"
#include "kovra/reconstruction/Reconstruction_Pass.hpp"

namespace kovra {

namespace detail {

/// Where a growing chain learns which photons are free: by walking every candidate (any input); from counts by
/// cell, which end the chain once no free photon is left near its last photon; or from the cells' lists of free
/// photons (the last two on time-ordered input only; Cells_FreePhotons.hpp).
enum class Free_Photons { walked, counted, listed };

/// Whether a growing chain marks each photon that was its last one with how far past it it looked, for a chain
/// seeded there later (the ghost-photon chains on time-ordered input).
enum class Resume_Marks { skipped, noted };

/// The rule of the no-branch chains with the settings of a run, read once per call: which photon is near the
/// last one, how far in time a chain searches, and how a chain grows.
template <typename Length_Type, typename Time_Type>
struct NoBranchChain_Rule {
  Length_Type dSpace;
  Time_Type dTime;
  double factor;
  Time_Type durationMax;

  /// Where the chain of a seed stops looking: min(t_last + searchTime, tEnd). The sum saturates, so that a search
  /// time widened beyond every time stays unlimited instead of wrapping.
  static Time_Type limit_of(Time_Type tLast, Time_Type searchTime, Time_Type tEnd) {
    return std::min(tEnd, add_saturating(tLast, searchTime));
  }

  /// Chains look this many candidates in a row past their last photon before asking the cell counts whether
  /// any free photon is left near it: most chains find their next photon sooner, and the question costs about
  /// as much as six candidate tests. (Measured on the dense benchmark: 4 and 8 were both slightly slower. On 20
  /// million photons, -s 5 -t 5e-7 -D 2e-6, processor seconds, fastest of 5, asking after 2 / 6 / 12 misses: the
  /// default on nominal 0.46 / 0.47 / 0.47, hot spot 0.65 / 0.63 / 0.65, dense 0.88 / 0.88 / 0.90; the no-branch
  /// chain on dense 0.49 / 0.48 / 0.48: flat around 6.)
  static constexpr unsigned missesBeforeAsking = 6;

  /// |a - b| < dSpace on the wrapped 32-bit difference, as one unsigned comparison: the difference shifted by
  /// dSpace - 1 must fall in [0, 2 dSpace - 2]. A distance of 0 or less admits nothing.
  auto near_test() const {
    const std::int64_t offset = static_cast<std::int64_t>(dSpace.value) - 1;
    const std::uint64_t width = dSpace.value > 0 ? 2 * static_cast<std::uint64_t>(dSpace.value) - 1 : 0;
    return [offset, width](Length_Type a, Length_Type b) {
      return static_cast<std::uint64_t>(static_cast<std::int64_t>((a - b).value) + offset) < width;
    };
  }

  /// A chain to grow: its seed, the first photon offered to it, the latest time it may take (the seed's time +
  /// durationMax) and the event it becomes.
  struct Chain_Start {
    std::size_t seed;
    std::size_t firstCandidate;
    Time_Type tEnd;
    std::uint64_t eventIndex;
  };

  /// Who hears of the photons a chain takes: the membership sink, and the output (see Output_Part).
  template <typename Membership_Type, typename Out_Type>
  struct Listeners {
    Membership_Type& membership;
    Out_Type& out;
  };

  /// A chain being grown: its summary, its last photon and how far it looks.
  template <typename PhotonEventChain_Type>
  struct Growing {
    PhotonEventChain_Type chain;
    std::size_t last;
    Length_Type lastX;
    Length_Type lastY;
    Time_Type tLast;
    Time_Type searchTime;  // from its last photon: dTime, widened by the factor at every photon taken
    Time_Type limit;
    Time_Type tEnd;
    std::uint64_t eventIndex;
    Resume_Marks marks;
  };

  /// Grows the chain of `start.seed`, offering it the photons from `start.firstCandidate` on and taking (marking)
  /// the free photons that join, finding free photons as `freePhotons` says: `range` counts (and for
  /// Free_Photons::listed lists) the free photons from before the first candidate on. The caller has fetched the
  /// first candidate and checked that it lies inside the seed's limit, and that the photons it passed over could
  /// not have joined.
  ///
  /// With Resume_Marks::noted, each photon that was the chain's last one gets as its window mark how far past it
  /// the chain looked while it was last (capped at 255): the photons in between were taken or out of its reach,
  /// and stay so, so a chain seeded later by that photon can start looking there.
  ///
  /// Every photon that joins is reported to `told.membership` as a member of event `start.eventIndex` (the seed is
  /// not) and to `told.out`.
  ///
  /// Returns the chain as grown: its summary in `chain`, and in `last` the last photon it took (the seed when it
  /// took none), which is also the furthest, since photons join in list order.
  template <typename PhotonEventChain_Type, typename Window_Type, typename Range_Type, typename Listeners_Type>
  Growing<PhotonEventChain_Type> grow(Free_Photons freePhotons, Window_Type& window, const Chain_Start& start,
                                      Range_Type& range, Listeners_Type told, Resume_Marks marks) const {
    auto g = begin_chain<PhotonEventChain_Type>(window, start, marks);
    switch (freePhotons) {
      case Free_Photons::listed:
        grow_listed(g, window, start.firstCandidate, range, told);
        break;
      case Free_Photons::counted:
        grow_walking<true>(g, window, start.firstCandidate, range, told);
        break;
      case Free_Photons::walked:
        grow_walking<false>(g, window, start.firstCandidate, range, told);
        break;
    }
    return g;
  }

 private:
  template <typename PhotonEventChain_Type, typename Window_Type>
  Growing<PhotonEventChain_Type> begin_chain(const Window_Type& window, const Chain_Start& start,
                                             Resume_Marks marks) const {
    const auto& seed = window[start.seed];
    const Time_Type limit = limit_of(seed.toa, dTime, start.tEnd);
    return {PhotonEventChain_Type(seed),
            start.seed,
            seed.x,
            seed.y,
            seed.toa,
            dTime,
            limit,
            start.tEnd,
            start.eventIndex,
            marks};
  }

  /// The resume mark of photon `from`, the chain's last one while it looked up to `to` (see grow()).
  template <typename PhotonEventChain_Type, typename Window_Type>
  static void note_resume(const Growing<PhotonEventChain_Type>& g, Window_Type& window, std::size_t from,
                          std::size_t to) {
    if (g.marks == Resume_Marks::noted) {
      window.mark(from) = static_cast<std::uint8_t>(std::min<std::size_t>(to - from, 255));
    }
  }

  /// Photon j joins the chain: it is taken, reported to `membership` as a member of the chain's event, becomes
  /// the last photon, and its time gap widens the chain's search time by the factor.
  template <typename PhotonEventChain_Type, typename Window_Type, typename Listeners_Type>
  void join(Growing<PhotonEventChain_Type>& g, Window_Type& window, std::size_t j, Listeners_Type told) const {
    const auto& candidate = window[j];
    g.chain.add_photon(candidate);
    window.set_taken(j);
    report_member(told.membership, g.eventIndex, j);
    note_taken<Time_Type>(told.out, j);
    // With a factor of 0.0 the product is always 0 ticks, so the search time stays as it is.
    if (factor != 0.0) g.searchTime = add_saturating(g.searchTime, (candidate.toa - g.tLast).scaled(factor));
    note_resume(g, window, g.last, j + 1);
    g.last = j;
    g.tLast = candidate.toa;
    g.lastX = candidate.x;
    g.lastY = candidate.y;
    g.limit = limit_of(g.tLast, g.searchTime, g.tEnd);
  }

  /// The chain walks the candidates one by one. When `counted`, `range` counts the free photons from before the
  /// first candidate on; the chain extends it over its limit and ends as soon as no free photon is left near its
  /// last photon, since only such a photon could join next.
  ///
  /// Each walk is a function of its own (not inlined into grow()), so that the compiler inlines the step that
  /// takes a photon into it, as when each walk was called directly (inlined together, they cost the default
  /// algorithm 3-4 % more instructions).
  template <bool counted, typename PhotonEventChain_Type, typename Window_Type, typename Range_Type,
            typename Listeners_Type>
  [[gnu::noinline]] void grow_walking(Growing<PhotonEventChain_Type>& g, Window_Type& window,
                                      std::size_t firstCandidate, Range_Type& range, Listeners_Type told) const {
    const auto near = near_test();
    // The answer for one last photon cannot change while it stays last, so it is asked at most once per last
    // photon.
    const auto exhausted = [&]() {
      range.extend_to(g.limit);
      return !range.any_free_near(g.lastX, g.lastY);
    };
    unsigned misses = 0;
    std::size_t j = firstCandidate;
    for (;;) {
      if constexpr (counted) {
        if (misses == missesBeforeAsking && exhausted()) break;
        ++misses;
      }
      const auto& candidate = window[j];
      // One branch for the three tests: most candidates fail one of them at random.
      if (near(g.lastX, candidate.x) & near(g.lastY, candidate.y) & !window.is_taken(j)) {
        join(g, window, j, told);
        if constexpr (counted) range.note_taken(j);
        misses = 0;
      }
      ++j;
      if (!window.fetch(j) || window[j].toa > g.limit) break;
    }
    note_resume(g, window, g.last, j);
  }

  /// Chains that look into the cells walk this many candidates past their last photon first: the next photon
  /// is usually among them, and the walk is cheaper than a look into the cells. Measured on 10 million photons
  /// of the dense benchmark dataset (default algorithm, processor seconds): 4: 0.70, 8: 0.73, 16: 0.70,
  /// 32: 0.67, within the noise of one another; 8 kept.
  static constexpr std::size_t walkBeforeAsking = 8;

  /// The walk with counts for a range that also lists its photons by cell (time-ordered input only): after a
  /// short walk that found no photon to join, the chain asks the range for the next one instead of walking on:
  /// the first free photon near its last one and not later than its limit, which is exactly the photon the walk
  /// would stop at (Range_FreePhotons::first_free_near), or none, where the walk would reach the limit with no
  /// photon joined. The resume marks are those of the walk.
  template <typename PhotonEventChain_Type, typename Window_Type, typename Range_Type, typename Listeners_Type>
  [[gnu::noinline]] void grow_listed(Growing<PhotonEventChain_Type>& g, Window_Type& window, std::size_t firstCandidate,
                                     Range_Type& range, Listeners_Type told) const {
    const auto near = near_test();
    const auto nearLast = [&](const auto& candidate) {
      return near(g.lastX, candidate.x) & near(g.lastY, candidate.y);
    };

    for (std::size_t j = firstCandidate;; ++j) {
      bool found = false;
      for (const std::size_t walkEnd = j + walkBeforeAsking; j < walkEnd; ++j) {
        if (!window.fetch(j) || window[j].toa > g.limit) {
          note_resume(g, window, g.last, j);
          return;
        }
        if (nearLast(window[j]) & !window.is_taken(j)) {
          found = true;
          break;
        }
      }
      if (!found) {
        range.extend_to(g.limit);
        j = range.first_free_near(g.lastX, g.lastY, j, g.limit, nearLast);
        if (j == Range_Type::none) break;
      }
      join(g, window, j, told);
      range.note_taken(j);
    }
    // No free photon near the last one before the limit: the walk would have gone to the first photon past it.
    note_resume(g, window, g.last, range.end_of_reach(g.last, g.limit, 255));
  }
};

template <typename Settings_Type>
auto make_noBranchChain_rule(const Settings_Type& settings) {
  using Length_Type = decltype(settings.dSpace);
  using Time_Type = decltype(settings.dTime);
  return NoBranchChain_Rule<Length_Type, Time_Type>{settings.dSpace, settings.dTime, settings.dTime_ext.value_or(0.0),
                                                    settings.durationMax};
}

/// In time order, chains of this algorithm ask the cell counts only where windows of dTime hold on average at
/// least this many photons: below it the counting costs more than the scans it saves. Measured on 20 million
/// photons of each benchmark dataset (-s 5 -t 5e-7 -D 2e-6, processor seconds, fastest of 7, counting from 24 /
/// from 48 on): nominal (about 29 photons per window) 0.33 / 0.28, hot spot (about 31) 0.45 / 0.41, dense (64
/// and more) 0.49 / 0.50, counted either way.
inline constexpr std::size_t noBranchChain_crowdedFrom = 48;

}  // namespace detail

/// Runs the no-branch chain over `source`, appending each event to `out` as soon as it is complete.
template <typename PhotonEventChain_Type, typename Settings_Type, typename PhotonEvent_Type, typename Out_Type,
          typename Membership_Type>
void run_noBranchChain_direct(const Settings_Type& settings, PhotonSource<PhotonEvent_Type>& source, Out_Type& out,
                              Membership_Type& membership) {
  using Length_Type = typename PhotonEvent_Type::length_type;
  using Time_Type = typename PhotonEvent_Type::time_type;
  using Event_Type = typename PhotonEventChain_Type::Event_Type;
  using detail::Free_Photons;
  const auto rule = detail::make_noBranchChain_rule(settings);
  using Listeners = typename decltype(rule)::template Listeners<Membership_Type, Out_Type>;

  detail::run_pass<std::uint8_t>(source, out, detail::wants_membership<Membership_Type>, settings.inform,
                                 [&]<bool ordered>(auto& window) {
    using Window_Type = std::remove_reference_t<decltype(window)>;
    // In crowded stretches of ordered input the free photons from i + 1 on are counted by cell (taken up at a
    // seed as an empty range at i + 1). Chains of this algorithm do not look into listed cells
    // (Free_Photons::listed): its chains start only at free seeds, and on the dense benchmark dataset the lists
    // cost more than the walks they saved (about 13 %).
    detail::Crowding_Judge judge(window, settings.dTime);
    Free_Photons freeFound = Free_Photons::walked;
    detail::Range_FreePhotons<Window_Type, Length_Type, Time_Type> freePhotons(window, settings.dSpace,
                                                                               detail::Kept_ByCell::counts);
    for (std::size_t i = 0; window.fetch(i); ++i) {
      window.release_before(i);
      if (ordered && judge.due(i)) {
        const bool crowded = judge.at_least(detail::noBranchChain_crowdedFrom);
        if (crowded && freeFound == Free_Photons::walked) freePhotons.restart_at(i + 1, detail::Kept_ByCell::counts);
        freeFound = crowded ? Free_Photons::counted : Free_Photons::walked;
      }
      // Every seed moves the counted range past itself: photons before a seed can join none of its chains.
      if (freeFound == Free_Photons::counted) freePhotons.drop_before(i + 1);
      const bool taken = window.is_taken(i);
      if (detail::stops_before_seed<Time_Type>(out, i, taken)) return;
      if (taken) continue;
      window.set_taken(i);
      detail::report_member(membership, out.size(), i);
      const PhotonEvent_Type seed = window[i];
      const Time_Type tEnd = seed.toa + settings.durationMax;
      const std::size_t first = ordered ? window.find_free(i + 1) : i + 1;
      if (window.fetch(first) && window[first].toa <= rule.limit_of(seed.toa, settings.dTime, tEnd)) {
        const auto grown =
            rule.template grow<PhotonEventChain_Type>(freeFound, window, {i, first, tEnd, out.size()}, freePhotons,
                                                      Listeners{membership, out}, detail::Resume_Marks::skipped);
        out.append(grown.chain.to_event());
        detail::note_chainEnd<Time_Type>(out, grown.last);
      } else {
        out.append(Event_Type{seed.x, seed.y, seed.toa, 1, 0.0});
      }
    }
  });
}

}  // namespace kovra
