#pragma once

// Forward-chain photon build-up reconstruction.
//
// One pass in photon order. Each photon looks back over the photons at most dTime before it, latest first, and
// joins the chain of the first one within dSpace (Euclidean, <=, against that photon's own position) whose chain
// started at most durationMax before it; otherwise it opens a chain. Chains become events in order of creation.
//
// Each photon's window mark is the number of its chain (in order of creation). The chains not yet written are
// kept in order of creation; a chain is written once it is the oldest kept and can take no further photon.
//
// Over a window, in time order: the look-back of every later photon stops at the latest photon more than dTime
// before the current one (the "stop"), since all times ahead are at least the current one and every difference
// is its true value (the window makes sure of both). So photons before the stop are released, and a chain whose
// last photon is not after the stop is complete. What crosses a window border is the photons from the stop on
// and the chains not yet written; an event that stays open (a chain fed for longer than the window holds)
// holds back the chains created after it until it is complete. Out of order nothing can be let go: a photon
// earlier than those before it may look back to the first photon, so the window then keeps the whole list.

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <deque>

#include "kovra/Quantities.hpp"
#include "kovra/reconstruction/EventMembership.hpp"
#include "kovra/reconstruction/Reconstruction_Pass.hpp"

namespace kovra {

/// Runs the forward chain over `source`, appending each event to `out` once its chain is complete, in order of
/// creation.
template <typename PhotonEventChain_Type, typename Settings_Type, typename PhotonEvent_Type, typename Out_Type,
          typename Membership_Type>
void run_forwardChain_photonBuildup(const Settings_Type& settings, PhotonSource<PhotonEvent_Type>& source,
                                    Out_Type& out, Membership_Type& membership) {
  if (settings.dTime_ext && settings.warn) settings.warn(extensionFactor_notSupported);
  const auto dSpace = settings.dSpace;
  const auto dTime = settings.dTime;
  const auto durationMax = settings.durationMax;

  using Time_Type = typename PhotonEvent_Type::time_type;

  /// A chain not yet written, with its first and its latest photon.
  struct Open_Chain : PhotonEventChain_Type {
    std::size_t firstPhoton;
    std::size_t lastPhoton;
  };

  detail::run_pass<std::uint64_t>(source, out, detail::wants_membership<Membership_Type>, settings.inform,
                                  [&]<bool ordered>(auto& window) {
    std::deque<Open_Chain> chains;  // the chains not yet written, oldest first
    std::uint64_t firstKept = 0;    // number of the oldest chain kept
    std::size_t stop = 0;           // the latest photon more than dTime before the current one, once there is one
    bool haveStop = false;
    std::size_t next = 0;  // the first photon not known to be that far back

    const auto write_complete = [&](bool all) {
      while (!chains.empty() && (all || (haveStop && chains.front().lastPhoton <= stop))) {
        out.append(chains.front().to_event());
        chains.pop_front();
        ++firstKept;
      }
    };

    for (std::size_t i = 0; window.fetch(i); ++i) {
      const PhotonEvent_Type current = window[i];
      if constexpr (ordered) {
        for (; next < i && current.toa - window[next].toa > dTime; ++next) {
          stop = next;
          haveStop = true;
        }
        if (haveStop) {
          window.release_before(stop);
          write_complete(false);
        }
      }
      if (detail::stops_before_photon(out, i, current.toa)) return;
      bool joined = false;
      for (std::size_t j = i; j-- > 0;) {
        const PhotonEvent_Type& earlier = window[j];
        if (current.toa - earlier.toa > dTime) break;
        if (!within_euclidean(current.x - earlier.x, current.y - earlier.y, dSpace)) continue;
        const std::uint64_t number = window.mark(j);
        Open_Chain& open = chains[static_cast<std::size_t>(number - firstKept)];
        if (durationMax >= current.toa - open.get_t_first()) {
          open.add_photon(current);
          open.lastPhoton = i;
          window.mark(i) = number;
          detail::report_member(membership, number, i);
          detail::note_chainOf<Time_Type>(out, i, open.firstPhoton);
          joined = true;
          break;
        }
      }
      if (!joined) {
        const PhotonEventChain_Type newChain(current);
        assert(chains.empty() || chains.back().get_t_first() <= newChain.get_t_first());
        const std::uint64_t number = firstKept + chains.size();
        window.mark(i) = number;
        chains.push_back(Open_Chain{newChain, i, i});
        detail::report_member(membership, number, i);
        detail::note_chainOf<Time_Type>(out, i, i);
      }
    }
    write_complete(true);
  });
}

}  // namespace kovra
