#pragma once

// Full-chain direct reconstruction.
//
// Seeds are taken in photon order; a free seed starts an event and offers it every later photon in turn until
// the event's reach closes. The reach is the latest (photon time + dTime) over the event's photons, capped at
// seed time + durationMax. An offered free photon j joins when an event photon found by the neighbour search
// lies within dSpace (Euclidean, <=). The neighbour search starts at j - 1, steps back while the previous
// photon is not earlier than t_j - dTime (never below the seed), then scans forward while photons are not later
// than min(t_j + dTime, cap). On time-ordered input this amounts to "some event photon in [t_j - dTime, t_j]".
//
// On time-ordered input the search looks only at the event's own photons not earlier than t_j - dTime, kept in
// a list and, in crowded data, also by cell (Cells_EventMembers.hpp). Out of order it walks the photons as
// described, and the window mark of a photon says it belongs to the event being built (cleared over the event's
// range when it is done), so "belongs to the current event" needs no index.
//
// Over a window: an event reads nothing before its seed, so the window releases everything before the current
// seed; the taken bits of the photons ahead of it cross window borders inside the window.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kovra/Quantities.hpp"
#include "kovra/reconstruction/Cells_EventMembers.hpp"
#include "kovra/reconstruction/Crowding.hpp"
#include "kovra/reconstruction/EventMembership.hpp"
#include "kovra/reconstruction/Reconstruction_Pass.hpp"

namespace kovra {

namespace detail {

/// The full chain's steps over one window, for one run: its settings, output and membership sink.
template <typename PhotonEventChain_Type, typename PhotonEvent_Type, typename Out_Type, typename Membership_Type>
class FullChain_Builder {
 public:
  using Time_Type = typename PhotonEvent_Type::time_type;
  using Length_Type = typename PhotonEvent_Type::length_type;

  FullChain_Builder(Length_Type dSpace_, Time_Type dTime_, Time_Type durationMax_, Out_Type& out_,
                    Membership_Type& membership_)
      : dSpace(dSpace_), dTime(dTime_), durationMax(durationMax_), out(out_), membership(membership_) {}

  /// Builds the events of the seeds from `s` up to `until` (or the end of the list) and returns the seed it
  /// stopped at (the end of the list when the pass is to stop); `members` is used on ordered input only. An
  /// event holds nothing once it is written, so the next stretch may keep its members the other way.
  template <bool ordered, typename Window_Type, typename Members_Type>
  std::size_t build(Window_Type& window, Members_Type& members, std::size_t s, std::size_t until) {
    for (; s < until && window.fetch(s); ++s) {
      window.release_before(s);
      const bool taken = window.is_taken(s);
      if (stops_before_seed<Time_Type>(out, s, taken)) return window.size();  // a part stops: no seed is left
      if (taken) continue;
      window.set_taken(s);
      PhotonEventChain_Type chain(window[s]);
      report_member(membership, out.size(), s);
      const std::size_t lastMember = grow<ordered>(window, members, s, chain);
      out.append(chain.to_event());
      note_chainEnd<Time_Type>(out, lastMember);
      if constexpr (!ordered) {
        for (std::size_t k = s; k <= lastMember; ++k) window.mark(k) = 0;
      }
    }
    return s;
  }

 private:
  /// Offers the event seeded at `s` every later photon until its reach closes; returns its last member.
  template <bool ordered, typename Window_Type, typename Members_Type>
  [[gnu::always_inline]] std::size_t grow(Window_Type& window, Members_Type& members, std::size_t s,
                                          PhotonEventChain_Type& chain) {
    const Time_Type tLimit = window[s].toa + durationMax;
    Time_Type tReach = window[s].toa + dTime;
    std::size_t lastMember = s;
    if constexpr (ordered) {
      members.restart(window[s]);
    } else {
      window.mark(s) = 1;
    }
    for (std::size_t j = s + 1; window.fetch(j) && window[j].toa <= std::min(tReach, tLimit); ++j) {
      if (window.is_taken(j) || !touches<ordered>(window, members, s, j, tLimit)) continue;
      const PhotonEvent_Type& offered = window[j];
      chain.add_photon(offered);
      window.set_taken(j);
      report_member(membership, out.size(), j);
      note_taken<Time_Type>(out, j);
      if constexpr (ordered) {
        members.add(offered);
      } else {
        window.mark(j) = 1;
      }
      lastMember = j;
      tReach = std::max(tReach, std::min(offered.toa + dTime, tLimit));
    }
    return lastMember;
  }

  /// Whether the event being built has a photon within dSpace of the offered photon j among those the neighbour
  /// search reaches.
  template <bool ordered, typename Window_Type, typename Members_Type>
  [[gnu::always_inline]] bool touches(Window_Type& window, Members_Type& members, std::size_t s, std::size_t j,
                                      Time_Type tLimit) const {
    const PhotonEvent_Type& offered = window[j];
    const Time_Type lo = offered.toa - dTime;
    if constexpr (ordered) {
      // In time order the search below finds exactly the members in [t_j - dTime, t_j]; members are fewer than
      // photons, and the window's lower end only moves forward.
      return members.any_within(offered, lo);
    } else {
      // Back from j - 1 while the previous photon is not earlier than lo (never below the seed), then forward
      // while photons are not later than hi. Photons from j on are never in the event yet, so the forward scan
      // may stop at j.
      const Time_Type hi = std::min(offered.toa + dTime, tLimit);
      std::size_t k = j - 1;
      while (k > s && window[k - 1].toa >= lo) --k;
      for (; k < j && window[k].toa <= hi; ++k) {
        if (window.mark(k) != 0 && within_euclidean(window[k].x - offered.x, window[k].y - offered.y, dSpace)) {
          return true;
        }
      }
      return false;
    }
  }

  Length_Type dSpace;
  Time_Type dTime;
  Time_Type durationMax;
  Out_Type& out;
  Membership_Type& membership;
};

}  // namespace detail

/// Runs the full chain over `source`, appending each event to `out` as soon as it is complete.
template <typename PhotonEventChain_Type, typename Settings_Type, typename PhotonEvent_Type, typename Out_Type,
          typename Membership_Type>
void run_fullChain_direct(const Settings_Type& settings, PhotonSource<PhotonEvent_Type>& source, Out_Type& out,
                          Membership_Type& membership) {
  if (settings.dTime_ext && settings.warn) settings.warn(extensionFactor_notSupported);
  detail::FullChain_Builder<PhotonEventChain_Type, PhotonEvent_Type, Out_Type, Membership_Type> builder(
      settings.dSpace, settings.dTime, settings.durationMax, out, membership);

  // Members of the event being built (ordered input), reused from event to event: the plain list where flashes
  // rarely overlap, cells where the data is crowded (judged afresh every stretch of seeds).
  detail::Walk_EventMembers<PhotonEvent_Type> walkMembers(settings.dSpace);
  detail::Cells_EventMembers<PhotonEvent_Type> cellMembers(settings.dSpace);

  constexpr std::size_t allSeeds = ~std::size_t{0};
  detail::run_pass<std::uint8_t>(source, out, detail::wants_membership<Membership_Type>, settings.inform,
                                 [&]<bool ordered>(auto& window) {
    if constexpr (ordered) {
      detail::Crowding_Judge judge(window, settings.dTime);
      for (std::size_t s = 0; window.fetch(s);) {
        window.release_before(s);
        judge.due(s);
        s = judge.at_least(detail::eventMembers_crowdedFrom)
                ? builder.template build<true>(window, cellMembers, s, judge.next_due())
                : builder.template build<true>(window, walkMembers, s, judge.next_due());
      }
    } else {
      builder.template build<false>(window, walkMembers, 0, allSeeds);
    }
  });
}

}  // namespace kovra
