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
// On time-ordered input the search looks only at the event's own photons, kept in a short list, from the first
// one not earlier than t_j - dTime on. Out of order it walks the photons as described, and a second bit per
// photon marks the event being built (cleared over the event's range when it is done), so "belongs to the
// current event" needs no index.

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "kovra/Quantities.hpp"
#include "kovra/Reconstruction_Events.hpp"
#include "kovra/reconstruction/EventMembership.hpp"
#include "kovra/reconstruction/Reconstruction_Detail.hpp"

namespace kovra {

template <typename Length_Type, typename Time_Type, typename PSD_Type>
template <typename Membership_Type>
auto Reconstruction_Events<Length_Type, Time_Type, PSD_Type>::reconstruct_fullChain_direct(
    const Data_PhotonEvents_Type& photons, Membership_Type& membership) const -> Data_Events_Type {
  if (dTime_ext) detail::print_extensionFactorWarning();

  const std::size_t nPhotons = photons.photonEvents.size();
  const PhotonEvent_Type* const photon = photons.photonEvents.data();
  std::vector<Event_Type> events;
  detail::reserve_records(events, nPhotons);
  detail::Bits_Packed taken(nPhotons);

  // Members of the event being built, in the order they joined (time order when the photons are). Reused from
  // event to event; it grows only past the largest event seen so far.
  std::vector<std::size_t> members;
  members.reserve(64);

  const auto run = [&]<bool ordered>() {
    detail::Bits_Packed inEvent(ordered ? 0 : nPhotons);
    for (std::size_t s = 0; s < nPhotons; ++s) {
      if (taken.test(s)) continue;
      taken.set(s);
      PhotonEventChain_Type chain(photon[s]);
      detail::report_member(membership, events.size(), s);
      const Time_Type tLimit = photon[s].toa + durationMax;
      Time_Type tReach = photon[s].toa + dTime;
      std::size_t lastMember = s;
      std::size_t firstRecent = 0;  // first member not earlier than t_j - dTime (ordered input)
      if constexpr (ordered) {
        members.clear();
        members.push_back(s);
      } else {
        inEvent.set(s);
      }

      if (s + 1 < nPhotons && photon[s + 1].toa <= std::min(tReach, tLimit)) {
        for (std::size_t j = s + 1;; ++j) {
          if (!taken.test(j)) {
            const PhotonEvent_Type& offered = photon[j];
            const Time_Type lo = offered.toa - dTime;
            bool touches = false;
            if constexpr (ordered) {
              // In time order the search below finds exactly the members in [t_j - dTime, t_j]; members are
              // fewer than photons, and the window's lower end only moves forward.
              while (firstRecent < members.size() && photon[members[firstRecent]].toa < lo) ++firstRecent;
              for (std::size_t m = firstRecent; m < members.size() && !touches; ++m) {
                const PhotonEvent_Type& member = photon[members[m]];
                touches = within_euclidean(member.x - offered.x, member.y - offered.y, dSpace);
              }
            } else {
              // Back from j - 1 while the previous photon is not earlier than lo (never below the seed), then
              // forward while photons are not later than hi. Photons from j on are never in the event yet, so
              // the forward scan may stop at j.
              const Time_Type hi = std::min(offered.toa + dTime, tLimit);
              std::size_t k = j - 1;
              while (k > s && photons[k - 1].toa >= lo) --k;
              for (; k < j && photon[k].toa <= hi; ++k) {
                if (inEvent.test(k) && within_euclidean(photon[k].x - offered.x, photon[k].y - offered.y, dSpace)) {
                  touches = true;
                  break;
                }
              }
            }
            if (touches) {
              chain.add_photon(offered);
              taken.set(j);
              detail::report_member(membership, events.size(), j);
              if constexpr (ordered) {
                members.push_back(j);
              } else {
                inEvent.set(j);
              }
              lastMember = j;
              tReach = std::max(tReach, std::min(offered.toa + dTime, tLimit));
            }
          }
          if (j + 1 == nPhotons || photon[j + 1].toa > std::min(tReach, tLimit)) break;
        }
      }

      events.push_back(chain.to_event());
      if constexpr (!ordered) inEvent.clear_range(s, lastMember);
    }
  };
  detail::run_for_order(photons.photonEvents, run);

  return Data_Events_Type(std::move(events), detail::copy_extTriggers(photons));
}

}  // namespace kovra
