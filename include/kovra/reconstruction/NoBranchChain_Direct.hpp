#pragma once

// No-branch-chain direct reconstruction.
//
// Every free photon seeds a chain and is taken at once. The chain then walks the later photons: a free photon
// joins when it is within dSpace of the photon added last on each axis (strict <, x first). Photons that are
// taken or too far are passed over without ending the chain; the first photon later than
// min(t_last + d, seed time + durationMax) ends it (both bounds inclusive). The window d starts at dTime and
// grows by trunc((t_new - t_last) * dTime_ext) with every photon added.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "kovra/Quantities.hpp"
#include "kovra/Reconstruction_Events.hpp"
#include "kovra/reconstruction/EventMembership.hpp"
#include "kovra/reconstruction/Reconstruction_Detail.hpp"

namespace kovra {

namespace detail {

/// The settings of a no-branch chain, read once per call.
template <typename Length_Type, typename Time_Type>
struct NoBranchChain_Window {
  Length_Type dSpace;
  Time_Type dTime;
  double factor;
  Time_Type durationMax;

  /// Where the chain of the seed stops looking: min(t_last + d, tEnd). The sum saturates, so that a window
  /// widened beyond every time stays unlimited instead of wrapping.
  static Time_Type limit_of(Time_Type tLast, Time_Type d, Time_Type tEnd) {
    return std::min(tEnd, add_saturating(tLast, d));
  }

  /// Grows the chain of the seed at `seedIndex`, offering it the photons from `firstCandidate` on and taking
  /// (marking) the free photons that join. The caller has checked that `firstCandidate` lies inside the seed's
  /// window, and that the photons it passed over could not have joined.
  ///
  /// `resume`, when given, receives for each photon that was the chain's last one how far past it the chain
  /// looked while it was last (capped at 255): the photons in between were taken or out of its reach, and
  /// stay so, so a chain seeded later by that photon can start looking there.
  ///
  /// Every photon that joins is reported to `membership` as a member of event `eventIndex`; the seed is not.
  ///
  /// `freePhotons`, used when `counted` (time-ordered input only), counts the free photons from before `firstCandidate`
  /// on; the chain extends it over its window and ends as soon as no free photon is left near its last photon,
  /// since only such a photon could join next.
  template <typename PhotonEventChain_Type, bool counted, typename PhotonEvent_Type, typename Membership_Type>
  PhotonEventChain_Type grow(const PhotonEvent_Type* photon, std::size_t nPhotons, std::size_t seedIndex,
                             std::size_t firstCandidate, Time_Type tEnd, Bits_Packed& taken, std::uint8_t* resume,
                             Range_FreePhotons<PhotonEvent_Type>* freePhotons, Membership_Type& membership,
                             std::uint64_t eventIndex) const {
    // |a - b| < dSpace on the wrapped 32-bit difference, as one unsigned comparison: the difference shifted by
    // dSpace - 1 must fall in [0, 2 dSpace - 2]. A distance of 0 or less admits nothing.
    const std::int64_t offset = static_cast<std::int64_t>(dSpace.value) - 1;
    const std::uint64_t width = dSpace.value > 0 ? 2 * static_cast<std::uint64_t>(dSpace.value) - 1 : 0;
    const auto near = [offset, width](Length_Type a, Length_Type b) {
      return static_cast<std::uint64_t>(static_cast<std::int64_t>((a - b).value) + offset) < width;
    };
    const auto note_resume = [resume](std::size_t from, std::size_t to) {
      if (resume) resume[from] = static_cast<std::uint8_t>(std::min<std::size_t>(to - from, 255));
    };

    const PhotonEvent_Type& seed = photon[seedIndex];
    PhotonEventChain_Type chain(seed);
    std::size_t last = seedIndex;
    Length_Type lastX = seed.x;
    Length_Type lastY = seed.y;
    Time_Type tLast = seed.toa;
    Time_Type d = dTime;
    Time_Type limit = limit_of(tLast, d, tEnd);
    // The answer for one last photon cannot change while it stays last, so it is asked at most once per last
    // photon, and only after a few candidates in a row failed: most chains find their next photon sooner.
    const auto exhausted = [&](const PhotonEvent_Type& lastPhoton) {
      freePhotons->extend_to(limit);
      return !freePhotons->any_free_near(lastPhoton);
    };
    constexpr unsigned missesBeforeAsking = 6;
    unsigned misses = 0;
    std::size_t j = firstCandidate;
    for (;;) {
      if constexpr (counted) {
        if (misses == missesBeforeAsking && exhausted(photon[last])) break;
        ++misses;
      }
      const PhotonEvent_Type& candidate = photon[j];
      // One branch for the three tests: most candidates fail one of them at random.
      if (near(lastX, candidate.x) & near(lastY, candidate.y) & !taken.test(j)) {
        chain.add_photon(candidate);
        taken.set(j);
        report_member(membership, eventIndex, j);
        if constexpr (counted) freePhotons->note_taken(j);
        // With a factor of 0.0 the product is always 0 ticks, so the window stays as it is.
        if (factor != 0.0) d = add_saturating(d, (candidate.toa - tLast).scaled(factor));
        note_resume(last, j + 1);
        last = j;
        tLast = candidate.toa;
        lastX = candidate.x;
        lastY = candidate.y;
        limit = limit_of(tLast, d, tEnd);
        misses = 0;
      }
      ++j;
      if (j == nPhotons || photon[j].toa > limit) break;
    }
    note_resume(last, j);
    return chain;
  }
};

template <typename Reconstruction_Type>
auto make_noBranchChain_window(const Reconstruction_Type& settings) {
  using Length_Type = decltype(settings.dSpace);
  using Time_Type = decltype(settings.dTime);
  return NoBranchChain_Window<Length_Type, Time_Type>{settings.dSpace, settings.dTime,
                                                       settings.dTime_ext.value_or(0.0), settings.durationMax};
}

}  // namespace detail

template <typename Length_Type, typename Time_Type, typename PSD_Type>
template <typename Membership_Type>
auto Reconstruction_Events<Length_Type, Time_Type, PSD_Type>::reconstruct_noBranchChain_direct(
    const Data_PhotonEvents_Type& photons, Membership_Type& membership) const -> Data_Events_Type {
  const auto window = detail::make_noBranchChain_window(*this);
  const std::size_t nPhotons = photons.photonEvents.size();
  const PhotonEvent_Type* const photon = photons.photonEvents.data();
  std::vector<Event_Type> events;
  detail::reserve_records(events, nPhotons);
  detail::Bits_Packed taken(nPhotons);

  const auto run = [&]<bool ordered>() {
    // In time order and very crowded windows, chains stop as soon as no free photon is left near their last one.
    // (With a few photons per window the bookkeeping costs more than the scans it saves.)
    const bool countCells = ordered && detail::is_crowded(photons.photonEvents, dTime, 24);
    detail::Range_FreePhotons<PhotonEvent_Type> freePhotons(photons.photonEvents, taken, dSpace);
    for (std::size_t i = 0; i < nPhotons; ++i) {
      if (taken.test(i)) continue;
      if (countCells) freePhotons.drop_before(i + 1);
      taken.set(i);
      detail::report_member(membership, events.size(), i);
      const PhotonEvent_Type& seed = photon[i];
      const Time_Type tEnd = seed.toa + durationMax;
      const std::size_t first = ordered ? taken.find_clear(i + 1, nPhotons) : i + 1;
      if (first < nPhotons && photon[first].toa <= window.limit_of(seed.toa, dTime, tEnd)) {
        const auto chain =
            countCells
                ? window.template grow<PhotonEventChain_Type, true>(photon, nPhotons, i, first, tEnd, taken, nullptr,
                                                                    &freePhotons, membership, events.size())
                : window.template grow<PhotonEventChain_Type, false>(photon, nPhotons, i, first, tEnd, taken,
                                                                     nullptr, &freePhotons, membership, events.size());
        events.push_back(chain.to_event());
      } else {
        events.push_back(Event_Type{seed.x, seed.y, seed.toa, 1, 0.0});
      }
    }
  };
  detail::run_for_order(photons.photonEvents, run);

  return Data_Events_Type(std::move(events), detail::copy_extTriggers(photons));
}

}  // namespace kovra
