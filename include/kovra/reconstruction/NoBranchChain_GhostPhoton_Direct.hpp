#pragma once

// No-branch-chain ghost-photon reconstruction (the default).
//
// Grows the same chains as the no-branch chain, with the same tests, window and cap, but every photon seeds a
// chain, taken or not, and a seed is never marked as taken. A taken seed (a ghost photon) gives an event only
// when at least one free photon joins it; it then counts in that event as its first photon, so the event
// continues a chain where an earlier one ended or passed it by. A free seed gives an event in any case.
//
// Over a window: as for the no-branch chain, a chain reads nothing before its seed, so the window releases
// everything before the current seed. What crosses a window border is the taken bits and resume marks of the
// photons ahead of the seed; both live in the window.

#include <cstddef>
#include <cstdint>

#include "kovra/reconstruction/Cells_FreePhotons.hpp"
#include "kovra/reconstruction/Crowding.hpp"
#include "kovra/reconstruction/EventMembership.hpp"
#include "kovra/reconstruction/NoBranchChain_Direct.hpp"
#include "kovra/reconstruction/Reconstruction_Pass.hpp"

namespace kovra {

namespace detail {

/// In time order, the ghost-photon chains count free photons by cell where windows of dTime hold on average at
/// least this many photons: every photon seeds here, so a taken seed turned away without a scan pays off much
/// earlier than for the no-branch chain. Measured on 20 million photons of each benchmark dataset (-s 5 -t 5e-7
/// -D 2e-6, processor seconds, fastest of 7, counting from 4 / from 16 / from 24 on): sparse (about 10 photons
/// per window) 0.41 / 0.28 / 0.28, nominal (about 29) 0.46 / 0.47 / 0.48, hot spot (about 31) 0.63 / 0.63 /
/// 0.64; never counting, nominal took 1.08.
inline constexpr std::size_t ghostPhoton_crowdedFrom = 16;
/// From this many photons per window on, the cells also list their photons and the chains look there for their
/// next photon (grow_listed). On pile-up most ghost seeds have some free photon in the cells around them but none
/// near enough, and walked their whole window (about 200 candidates) to find that out. Measured on 10 million
/// photons (-s 5 -t 5e-7 -D 2e-6, processor time against listing never): dense 0.70; nominal (about 20 photons
/// per window) 1.33 when listing from 24 on, unchanged from 48 on.
inline constexpr std::size_t ghostPhoton_listedFrom = 48;

/// How the free photons after seed i are to be found in the stretch `judge` has just judged, where they were found
/// as `was` before: a range of them taken up (again), or its kind changed, starts empty at i + 1. Called once per
/// stretch of seeds, and kept out of line: inlined, it cost the seed loop about 1 % more instructions (callgrind,
/// nominal golden file).
template <typename Judge_Type, typename Range_Type>
[[gnu::noinline]] Free_Photons rejudge_freePhotons(const Judge_Type& judge, Free_Photons was, Range_Type& freePhotons,
                                                   std::size_t i) {
  const Free_Photons judged = !judge.at_least(ghostPhoton_crowdedFrom)  ? Free_Photons::walked
                              : !judge.at_least(ghostPhoton_listedFrom) ? Free_Photons::counted
                                                                        : Free_Photons::listed;
  if (judged != Free_Photons::walked && judged != was) {
    freePhotons.restart_at(i + 1, judged == Free_Photons::listed ? Kept_ByCell::lists : Kept_ByCell::counts);
  }
  return judged;
}

/// In time order, for a taken seed i whose window ends before `first`, the first free photon after it: the seeds
/// between it and that photon are taken too and have the same first free photon, so each of them whose window
/// also ends before it gives no event either. Returns the last seed so passed over (i itself when none is).
template <typename Rule_Type, typename Settings_Type, typename Window_Type>
std::size_t pass_overLoneSeeds(const Rule_Type& rule, const Settings_Type& settings, const Window_Type& window,
                               std::size_t i, std::size_t first) {
  const auto tFree = window[first].toa;
  while (i + 1 < first) {
    const auto t = window[i + 1].toa;
    if (rule.limit_of(t, settings.dTime, t + settings.durationMax) >= tFree) break;
    ++i;
  }
  return i;
}

}  // namespace detail

/// Runs the ghost-photon chain over `source`, appending each event to `out` as soon as it is complete.
template <typename PhotonEventChain_Type, typename Settings_Type, typename PhotonEvent_Type, typename Out_Type,
          typename Membership_Type>
void run_noBranchChain_ghostPhoton_direct(const Settings_Type& settings, PhotonSource<PhotonEvent_Type>& source,
                                          Out_Type& out, Membership_Type& membership) {
  using Length_Type = typename PhotonEvent_Type::length_type;
  using Time_Type = typename PhotonEvent_Type::time_type;
  using Event_Type = typename PhotonEventChain_Type::Event_Type;
  using detail::Free_Photons;
  const auto rule = detail::make_noBranchChain_rule(settings);
  using Listeners = typename decltype(rule)::template Listeners<Membership_Type, Out_Type>;

  // The window mark of a photon: how far past it its own chain looked while the photon was its last one; see
  // grow(). Every taken photon was its chain's last one for a while, so its mark is written before it is read
  // as a seed.
  detail::run_pass<std::uint8_t>(source, out, detail::wants_membership<Membership_Type>, settings.inform,
                                 [&]<bool ordered>(auto& window) {
    using Window_Type = std::remove_reference_t<decltype(window)>;
    // In time order and crowded stretches, the free photons from i + 1 on are counted by cell: a taken seed
    // with no free photon near it in its window has no partner and gives no event, without a look at its
    // window, and every chain stops as soon as no free photon is left near its last one. In pile-up they are
    // also listed by cell, and chains look there for their next photon. A range taken up at seed i starts
    // empty at i + 1 and fills as the seeds' windows reach further, as it does at the first seed.
    detail::Crowding_Judge judge(window, settings.dTime);
    Free_Photons freeFound = Free_Photons::walked;
    detail::Range_FreePhotons<Window_Type, Length_Type, Time_Type> freePhotons(window, settings.dSpace,
                                                                               detail::Kept_ByCell::counts);
    const auto marks = ordered ? detail::Resume_Marks::noted : detail::Resume_Marks::skipped;

    for (std::size_t i = 0; window.fetch(i); ++i) {
      window.release_before(i);
      if (ordered && judge.due(i)) freeFound = detail::rejudge_freePhotons(judge, freeFound, freePhotons, i);
      const bool countCells = freeFound != Free_Photons::walked;
      const PhotonEvent_Type seed = window[i];
      const bool seedTaken = window.is_taken(i);
      if (detail::stops_before_seed<Time_Type>(out, i, seedTaken)) return;
      const Time_Type tEnd = seed.toa + settings.durationMax;
      const Time_Type limit = rule.limit_of(seed.toa, settings.dTime, tEnd);
      std::size_t first = i + 1;
      if constexpr (ordered) {
        if (countCells) {
          freePhotons.drop_before(i + 1);
          freePhotons.extend_to(limit);
          if (seedTaken && !freePhotons.any_free_near(seed.x, seed.y)) continue;
        }
        first = window.find_free(i + 1);
        if (seedTaken) {
          // A taken seed whose window ends before the first free photon after it has no partner and gives no
          // event, nor do the seeds after it passed over here (in sparse data, every photon of a flash after
          // its first).
          if (window.fetch(first) && window[first].toa > limit) {
            i = detail::pass_overLoneSeeds(rule, settings, window, i, first);
            if (countCells) freePhotons.drop_before(i + 1);  // as the seeds passed over would have
            continue;
          }
          // The photons before the seed's window mark are taken or out of its reach (see grow()).
          if (i + window.mark(i) > first) first = window.find_free(i + window.mark(i));
        }
      }
      if (window.fetch(first) && window[first].toa <= limit) {
        const auto grown = rule.template grow<PhotonEventChain_Type>(freeFound, window, {i, first, tEnd, out.size()},
                                                                     freePhotons, Listeners{membership, out}, marks);
        const auto& chain = grown.chain;
        if (chain.nPhotons > 1) {
          // Only now is the seed known to give an event (no photon joined a chain of one).
          detail::report_member(membership, out.size(), i);
          out.append(chain.to_event());
          detail::note_chainEnd<Time_Type>(out, grown.last);
          continue;
        }
      }
      if (!seedTaken) {
        detail::report_member(membership, out.size(), i);
        out.append(Event_Type{seed.x, seed.y, seed.toa, 1, 0.0});
      }
    }
  });
}

}  // namespace kovra
