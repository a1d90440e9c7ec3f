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
#include <limits>
#include <utility>
#include <vector>

#include "kovra/Reconstruction_Events.hpp"
#include "kovra/reconstruction/NoBranchChain_Direct.hpp"
#include "kovra/reconstruction/Reconstruction_Detail.hpp"

namespace kovra {

template <typename Length_Type, typename Time_Type, typename PSD_Type>
auto Reconstruction_Events<Length_Type, Time_Type, PSD_Type>::reconstruct_noBranchChain_ghostPhoton_direct(
    const Data_PhotonEvents_Type& photons) const -> Data_Events_Type {
  const auto window = detail::make_noBranchChain_window(*this);
  const std::size_t nPhotons = photons.photonEvents.size();
  const PhotonEvent_Type* const photon = photons.photonEvents.data();
  std::vector<Event_Type> events;
  detail::reserve_records(events, nPhotons);
  detail::Bits_Packed taken(nPhotons);

  const auto run = [&]<bool ordered>() {
    // How far past a taken photon its own chain looked while the photon was its last one; see grow().
    std::vector<std::uint8_t> resume(ordered ? nPhotons : 0);
    // In time order and crowded windows, the free photons of [i + 1, windowEnd), which holds every photon a
    // chain seeded by i can take first, are counted by cell: a taken seed with no free photon near it there has
    // no partner and gives no event, without looking at its window photon by photon.
    const bool countCells = ordered && nPhotons <= std::numeric_limits<std::uint32_t>::max() &&
                            detail::is_crowded(photons.photonEvents, dTime, 4);
    detail::Cells_FreePhotons<Length_Type> freeCells(dSpace);
    std::size_t windowEnd = 0;
    const auto on_take = [&](std::size_t j) {
      if (countCells && j < windowEnd) freeCells.remove(photon[j]);
    };

    for (std::size_t i = 0; i < nPhotons; ++i) {
      const PhotonEvent_Type& seed = photon[i];
      const bool seedTaken = taken.test(i);
      const Time_Type tEnd = seed.toa + durationMax;
      std::size_t first = i + 1;
      if constexpr (ordered) {
        if (countCells) {
          if (i < windowEnd && !seedTaken) freeCells.remove(seed);
          windowEnd = std::max(windowEnd, i + 1);
          const Time_Type reach = detail::add_saturating(seed.toa, dTime);
          for (; windowEnd < nPhotons && photon[windowEnd].toa <= reach; ++windowEnd) {
            if (!taken.test(windowEnd)) freeCells.add(photon[windowEnd]);
          }
          if (seedTaken && !freeCells.any_near(seed)) continue;
        }
        if (seedTaken && resume[i] != 0) first = i + resume[i];
        first = taken.find_clear(first, nPhotons);
      }
      if (first < nPhotons && photon[first].toa <= window.limit_of(seed.toa, dTime, tEnd)) {
        const auto chain = window.template grow<ordered, PhotonEventChain_Type>(
            photon, nPhotons, i, first, tEnd, taken, ordered ? resume.data() : nullptr, on_take);
        if (chain.nPhotons > 1) {
          events.push_back(Event_Type{chain.x, chain.y, chain.t_first, chain.nPhotons, chain.psd.value});
          continue;
        }
      }
      if (!seedTaken) events.push_back(Event_Type{seed.x, seed.y, seed.toa, 1, 0.0});
    }
  };
  if (detail::is_timeOrdered(photons.photonEvents)) {
    run.template operator()<true>();
  } else {
    run.template operator()<false>();
  }

  return Data_Events_Type(std::move(events), detail::copy_extTriggers(photons));
}

}  // namespace kovra
