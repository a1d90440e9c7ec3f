#pragma once

// Where a run of the grouping that started fresh in the middle of the stream may take over from the run
// before it: the exact cut between two pieces grouped on different threads.
//
// The stream's items (hits and trigger edges) are numbered in time order; a photon is known by the number of
// its first hit, the order in which photons open. A piece's worker starts fresh at the piece's first item n:
// it knows nothing of the photons open there. The worker of the piece before runs on past n, its own photons
// still open, and beside it a second grouping that starts fresh at n exactly as the next worker does (the
// grouping is deterministic: same hits, same numbers, same photons). For every hit h from n on both give the
// number of the photon h joins, E(h) for the run from before and F(h) for the fresh one.
//
// The condition. Let d be the last item before or at hit m where they differ (n - 1 when none does: every
// item before n counts as differing, as only the run from before saw it). They agree from hit m on when every
// hit after d up to m got the same photon in both runs, and hit d lies more than the window before hit m:
// t(d) + window < t(m).
//
// Why that suffices. A photon open at hit m (or later) has its first hit within the window before m, so after
// d. Each such photon's hits all lie after d, and each of them got the same photon in both runs: both runs
// hold the very same open photons at m, with the same hits. What a hit does depends only on the open photons
// and their hits, so every hit after m joins the same photon in both runs, by induction: from hit d + 1 on,
// both runs make the same photons. A photon of the run from before that opened at or before d closed before
// m (it opened more than a window before m), complete. So the cut is d + 1: the run from before writes the
// photons that opened before the cut, the next worker those that opened from the cut on, and each photon is
// written once, exactly as one thread makes it. The run from before stops at m.
//
// How long a disagreement lasts. A hit can differ between the runs only if the runs differ in an open photon
// holding a hit within the radius of it: there is an earlier hit, within the radius in x and in y and within
// the window in time, that differs or came before n. A disagreement travels only along such chains, each
// step at most a radius in space and a window in time, and dies as soon as a window passes without a hit
// continuing it. In a camera's data chains break within a few windows; where they never break (a pixel firing
// every half window, for instance), no cut comes within the next piece, and the worker of the piece before
// takes that piece on (see the import on several threads).
//
// The order of photons across the cut. Photons are written in time, equal times in opening order. A photon of
// the next worker opened at or after the cut, so its time is at least t(d); one of the run from before with a
// time at most t(d) opened before the cut, so it comes first even at an equal time. Only the photons of the
// run from before later than t(d) need merging with the next worker's.

#include <cstdint>

#include "kovra/tpx3spidr/Tpx3Packets.hpp"

namespace kovra::import {

using namespace kovra::tpx3spidr::raw;  // the packet layout

/// Follows a run from before a nominal cut and a fresh run from it, hit by hit, until they agree.
class Cut_Search {
 public:
  /// `lastBefore`: the number of the last item before the nominal cut, `lastBeforeTime` its time.
  Cut_Search(Ticks window_, std::uint64_t lastBefore, Ticks lastBeforeTime)
      : window(window_), differing(lastBefore), differingTime(lastBeforeTime) {}

  /// Takes hit number `hit` at time `t`, which the run from before gave to photon `before` and the fresh run to
  /// `fresh`; true once the runs agree from this hit on.
  bool agree_after(std::uint64_t hit, Ticks t, std::uint64_t before, std::uint64_t fresh) {
    if (before != fresh) {
      differing = hit;
      differingTime = t;
      return false;
    }
    return differingTime + window < t;
  }

  /// The first item of the next worker's photons: the one after the last that differed.
  std::uint64_t get_cut() const { return differing + 1; }
  /// A time at or before every photon of the next worker's: that of the last item that differed.
  Ticks get_cutTime() const { return differingTime; }

 private:
  const Ticks window;
  std::uint64_t differing;
  Ticks differingTime;
};

}  // namespace kovra::import
