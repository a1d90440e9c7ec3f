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

/// Runs the full chain over `source`, appending each event to `out` as soon as it is complete.
template <typename PhotonEventChain_Type, typename Settings_Type, typename PhotonEvent_Type, typename Out_Type,
          typename Membership_Type>
void run_fullChain_direct(const Settings_Type& settings, PhotonSource<PhotonEvent_Type>& source, Out_Type& out,
                          Membership_Type& membership) {
  using Time_Type = typename PhotonEvent_Type::time_type;
  if (settings.dTime_ext && settings.warn) settings.warn(extensionFactor_notSupported);
  const auto dSpace = settings.dSpace;
  const auto dTime = settings.dTime;
  const auto durationMax = settings.durationMax;

  // Members of the event being built (ordered input), reused from event to event: the plain list where flashes
  // rarely overlap, cells where the data is crowded (judged afresh every stretch of seeds).
  detail::Walk_EventMembers<PhotonEvent_Type> walkMembers(dSpace);
  detail::Cells_EventMembers<PhotonEvent_Type> cellMembers(dSpace);

  // Builds the events of the seeds from `s` up to `until` (or the end of the list) and returns the seed it
  // stopped at (the end of the list when the pass is to stop); `members` is used on ordered input only. An event holds nothing once it is written, so the
  // next stretch may keep its members the other way.
  const auto build = [&]<bool ordered>(auto& window, auto& members, std::size_t s, std::size_t until,
                                       std::bool_constant<ordered>) {
    for (; s < until && window.fetch(s); ++s) {
      window.release_before(s);
      if (window.is_taken(s)) continue;
      if (detail::stops_before_seed<Time_Type>(out, s)) return window.size();  // a part stops: no seed is left
      window.set_taken(s);
      const PhotonEvent_Type seed = window[s];
      PhotonEventChain_Type chain(seed);
      detail::report_member(membership, out.size(), s);
      const Time_Type tLimit = seed.toa + durationMax;
      Time_Type tReach = seed.toa + dTime;
      std::size_t lastMember = s;
      if constexpr (ordered) {
        members.restart(seed);
      } else {
        window.mark(s) = 1;
      }

      if (window.fetch(s + 1) && window[s + 1].toa <= std::min(tReach, tLimit)) {
        for (std::size_t j = s + 1;; ++j) {
          if (!window.is_taken(j)) {
            const PhotonEvent_Type& offered = window[j];
            const Time_Type lo = offered.toa - dTime;
            bool touches = false;
            if constexpr (ordered) {
              // In time order the search below finds exactly the members in [t_j - dTime, t_j]; members are
              // fewer than photons, and the window's lower end only moves forward.
              touches = members.any_within(offered, lo);
            } else {
              // Back from j - 1 while the previous photon is not earlier than lo (never below the seed), then
              // forward while photons are not later than hi. Photons from j on are never in the event yet, so
              // the forward scan may stop at j.
              const Time_Type hi = std::min(offered.toa + dTime, tLimit);
              std::size_t k = j - 1;
              while (k > s && window[k - 1].toa >= lo) --k;
              for (; k < j && window[k].toa <= hi; ++k) {
                if (window.mark(k) != 0 && within_euclidean(window[k].x - offered.x, window[k].y - offered.y, dSpace)) {
                  touches = true;
                  break;
                }
              }
            }
            if (touches) {
              chain.add_photon(offered);
              window.set_taken(j);
              detail::report_member(membership, out.size(), j);
              if constexpr (ordered) {
                members.add(offered);
              } else {
                window.mark(j) = 1;
              }
              lastMember = j;
              tReach = std::max(tReach, std::min(offered.toa + dTime, tLimit));
            }
          }
          if (!window.fetch(j + 1) || window[j + 1].toa > std::min(tReach, tLimit)) break;
        }
      }

      out.append(chain.to_event());
      detail::note_chainEnd<Time_Type>(out, lastMember);
      if constexpr (!ordered) {
        for (std::size_t k = s; k <= lastMember; ++k) window.mark(k) = 0;
      }
    }
    return s;
  };

  constexpr std::size_t allSeeds = ~std::size_t{0};
  detail::run_pass<std::uint8_t>(source, out, detail::wants_membership<Membership_Type>, settings.inform, [&]<bool ordered>(auto& window) {
    if constexpr (ordered) {
      detail::Crowding_Judge judge(window, dTime);
      for (std::size_t s = 0; window.fetch(s);) {
        window.release_before(s);
        judge.due(s);
        s = judge.at_least(detail::eventMembers_crowdedFrom)
                ? build(window, cellMembers, s, judge.next_due(), std::true_type{})
                : build(window, walkMembers, s, judge.next_due(), std::true_type{});
      }
    } else {
      build(window, walkMembers, 0, allSeeds, std::false_type{});
    }
  });
}

}  // namespace kovra
