#pragma once

// Forward-chain photon build-up reconstruction.
//
// One pass in photon order. Each photon looks back over the photons at most dTime before it, latest first, and
// joins the chain of the first one within dSpace (Euclidean, <=, against that photon's own position) whose chain
// started at most durationMax before it; otherwise it opens a chain. Chains become events in order of creation.
//
// The chain list is reserved for one chain per photon so it never moves; each photon keeps the index of its
// chain, 32 bits wide whenever the photon count allows it.

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "kovra/Quantities.hpp"
#include "kovra/Reconstruction_Events.hpp"
#include "kovra/reconstruction/EventMembership.hpp"
#include "kovra/reconstruction/Reconstruction_Detail.hpp"

namespace kovra {

namespace detail {

template <typename Index_Type, typename Reconstruction_Type, typename Membership_Type>
std::vector<typename Reconstruction_Type::PhotonEventChain_Type> build_forwardChains(
    const Reconstruction_Type& settings, const typename Reconstruction_Type::Data_PhotonEvents_Type& photons,
    Membership_Type& membership) {
  using Chain_Type = typename Reconstruction_Type::PhotonEventChain_Type;
  const std::size_t nPhotons = photons.photonEvents.size();
  const auto dSpace = settings.dSpace;
  const auto dTime = settings.dTime;
  const auto durationMax = settings.durationMax;

  std::vector<Chain_Type> chains;
  reserve_records(chains, nPhotons);
  // Every entry is written before it is read (photon i is given a chain before any later photon looks at it).
  const auto chainOfPhoton = std::make_unique_for_overwrite<Index_Type[]>(nPhotons);

  for (std::size_t i = 0; i < nPhotons; ++i) {
    const auto& current = photons.photonEvents[i];
    bool joined = false;
    for (std::size_t j = i; j-- > 0;) {
      const auto& earlier = photons[j];
      if (current.toa - earlier.toa > dTime) break;
      if (!within_euclidean(current.x - earlier.x, current.y - earlier.y, dSpace)) continue;
      Chain_Type& chain = chains[chainOfPhoton[j]];
      if (durationMax >= current.toa - chain.get_t_first()) {
        chain.add_photon(current);
        chainOfPhoton[i] = chainOfPhoton[j];
        joined = true;
        break;
      }
    }
    if (!joined) {
      const Chain_Type newChain(current);
      assert(chains.empty() || chains.back().get_t_first() <= newChain.get_t_first());
      chainOfPhoton[i] = static_cast<Index_Type>(chains.size());
      chains.push_back(newChain);
    }
    report_member(membership, chainOfPhoton[i], i);
  }
  return chains;
}

}  // namespace detail

template <typename Length_Type, typename Time_Type, typename PSD_Type>
template <typename Membership_Type>
auto Reconstruction_Events<Length_Type, Time_Type, PSD_Type>::reconstruct_forwardChain_photonBuildup(
    const Data_PhotonEvents_Type& photons, Membership_Type& membership) const -> Data_Events_Type {
  if (dTime_ext) detail::print_extensionFactorWarning();

  const auto chains = photons.size() <= std::numeric_limits<std::uint32_t>::max()
                          ? detail::build_forwardChains<std::uint32_t>(*this, photons, membership)
                          : detail::build_forwardChains<std::size_t>(*this, photons, membership);

  std::vector<Event_Type> events;
  detail::reserve_records(events, chains.size());
  for (const auto& chain : chains) events.push_back(chain.to_event());

  return Data_Events_Type(std::move(events), detail::copy_extTriggers(photons));
}

}  // namespace kovra
