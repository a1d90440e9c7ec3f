#pragma once

// No-branch-chain ghost-photon reconstruction (the default).
//
// Grows the same chains as the no-branch chain, with the same tests, window and cap, but every photon seeds a
// chain, taken or not, and a seed is never marked as taken. A taken seed (a ghost photon) gives an event only
// when at least one free photon joins it; it then counts in that event as its first photon, so the event
// continues a chain where an earlier one ended or passed it by. A free seed gives an event in any case.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "kovra/Reconstruction_Events.hpp"
#include "kovra/reconstruction/EventMembership.hpp"
#include "kovra/reconstruction/NoBranchChain_Direct.hpp"
#include "kovra/reconstruction/Reconstruction_Detail.hpp"

namespace kovra {

template <typename Length_Type, typename Time_Type, typename PSD_Type>
template <typename Membership_Type>
auto Reconstruction_Events<Length_Type, Time_Type, PSD_Type>::reconstruct_noBranchChain_ghostPhoton_direct(
    const Data_PhotonEvents_Type& photons, Membership_Type& membership) const -> Data_Events_Type {
  const auto window = detail::make_noBranchChain_window(*this);
  const std::size_t nPhotons = photons.photonEvents.size();
  const PhotonEvent_Type* const photon = photons.photonEvents.data();
  std::vector<Event_Type> events;
  detail::reserve_records(events, nPhotons);
  detail::Bits_Packed taken(nPhotons);

  const auto run = [&]<bool ordered>() {
    // How far past a taken photon its own chain looked while the photon was its last one; see grow(). Every
    // taken photon was its chain's last one for a while, so its entry is written before it is read as a seed.
    const auto resume = std::make_unique_for_overwrite<std::uint8_t[]>(ordered ? nPhotons : 0);
    detail::advise_huge_pages(resume.get(), ordered ? nPhotons : 0);
    // In time order and crowded windows, the free photons from i + 1 on are counted by cell: a taken seed with
    // no free photon near it in its window has no partner and gives no event, without a look at its window,
    // and every chain stops as soon as no free photon is left near its last one.
    const bool countCells = ordered && detail::is_crowded(photons.photonEvents, dTime, 4);
    detail::Range_FreePhotons<PhotonEvent_Type> freePhotons(photons.photonEvents, taken, dSpace);

    for (std::size_t i = 0; i < nPhotons; ++i) {
      const PhotonEvent_Type& seed = photon[i];
      const bool seedTaken = taken.test(i);
      const Time_Type tEnd = seed.toa + durationMax;
      std::size_t first = i + 1;
      if constexpr (ordered) {
        if (countCells) {
          freePhotons.drop_before(i + 1);
          freePhotons.extend_to(window.limit_of(seed.toa, dTime, tEnd));
          if (seedTaken && !freePhotons.any_free_near(seed)) continue;
        }
        if (seedTaken && resume[i] != 0) first = i + resume[i];
        first = taken.find_clear(first, nPhotons);
      }
      if (first < nPhotons && photon[first].toa <= window.limit_of(seed.toa, dTime, tEnd)) {
        std::uint8_t* const resumeMarks = ordered ? resume.get() : nullptr;
        const auto chain =
            countCells ? window.template grow<PhotonEventChain_Type, true>(photon, nPhotons, i, first, tEnd, taken,
                                                                           resumeMarks, &freePhotons, membership,
                                                                           events.size())
                       : window.template grow<PhotonEventChain_Type, false>(photon, nPhotons, i, first, tEnd, taken,
                                                                            resumeMarks, &freePhotons, membership,
                                                                            events.size());
        if (chain.nPhotons > 1) {
          // Only now is the seed known to give an event (no photon joined a chain of one).
          detail::report_member(membership, events.size(), i);
          events.push_back(Event_Type{chain.x, chain.y, chain.t_first, chain.nPhotons, chain.psd.value});
          continue;
        }
      }
      if (!seedTaken) {
        detail::report_member(membership, events.size(), i);
        events.push_back(Event_Type{seed.x, seed.y, seed.toa, 1, 0.0});
      }
    }
  };
  detail::run_for_order(photons.photonEvents, run);

  return Data_Events_Type(std::move(events), detail::copy_extTriggers(photons));
}

}  // namespace kovra
