#pragma once

// Where a time-ordered photon list can be cut so that its pieces, reconstructed on their own, give exactly the
// events of one run over the whole list.
//
// A cut before photon c is exact when no chain started before c takes (or, for the forward chain, lets join) a
// photon from c on: all four algorithms read only forward from a seed (the forward chain looks back only dTime,
// and only to join), so the photons from c on then meet the same state as at the start of a list, and since every
// algorithm emits its events in the order of the photon that starts them, the pieces' events in piece order are
// the events of the whole run. Every piece keeps absolute times: the pulse-shape value is computed from seconds,
// and a shifted time would round differently.
//
// All figures are in the integer ticks the settings were converted to, never in seconds. For the gap
// G = t_c - t_(c-1) between two photons (never 0: equal times may belong to one event):
//
// - Full chain: an event offers photon c only if t_c <= min(tReach, tLimit), where tReach is at most
//   t_(c-1) + dTime (the latest member is not after c - 1) and tLimit = t_seed + durationMax <= t_(c-1) +
//   durationMax. So G > min(dTime, durationMax) is a cut, and G equal to the bound is not (the bound is inclusive).
// - Forward chain: photon i >= c looks back only to photons at most dTime before it, so to none before c when
//   G > dTime; and a chain opened before c is older than durationMax for it when G > durationMax. Same bound.
// - No-branch and ghost-photon chains: a chain reaches photon c only if t_c <= t_last + d and t_c <= t_seed +
//   durationMax, where t_last <= t_(c-1) is its last photon and d its window. When the window cannot widen
//   (no or non-positive factor, dTime <= 0, or double(dTime) * factor < 1, where every increment
//   trunc(gap * factor) of a gap <= d = dTime truncates to 0), d <= dTime and the bound is min(dTime,
//   durationMax). When it can, d <= dTime + factor * (t_last - t_seed) (truncation only lowers the increments),
//   and t_last - t_seed <= durationMax - G; so G <= dTime + factor * (durationMax - G), that is
//   G <= (dTime + factor * durationMax) / (1 + factor), and G <= durationMax. That bound B is computed in double
//   and a cut needs G > ceil(B), which absorbs its rounding while B stays below 2^40 ticks (about half an hour;
//   beyond, a double's rounding may exceed a tick and no static cut is taken). With a widening window and no
//   durationMax, B is unbounded: no gap is a static cut. Neighbouring pieces can still agree on a cut
//   (Piece_Runs.hpp).

#include <cmath>
#include <cstdint>
#include <optional>

#include "kovra/Reconstruction_Switch.hpp"

namespace kovra::detail {

/// Beyond this bound (in ticks) no static cut is taken: a double's rounding of the bound could exceed a tick.
inline constexpr double staticCut_largestBound = 1099511627776.0;  // 2^40

/// The largest gap (in ticks) that a chain of `algorithm` can cross with these settings: a gap longer than this,
/// and not 0, is an exact cut. Nothing where no gap is (a widening window without a durationMax).
template <typename Settings_Type>
std::optional<std::int64_t> find_staticCutBound(const Settings_Type& settings, Algorithm algorithm) {
  const std::int64_t dTime = settings.dTime.value;
  const std::int64_t durationMax = settings.durationMax.value;
  const std::int64_t plain = std::min(dTime, durationMax);
  if (algorithm == Algorithm::fullChain || algorithm == Algorithm::forwardChain)
    return std::max<std::int64_t>(plain, 0);
  const double factor = settings.dTime_ext.value_or(0.0);
  if (std::isnan(factor)) return std::nullopt;
  const bool widens = factor > 0 && dTime > 0 && static_cast<double>(dTime) * factor >= 1;
  if (!widens) return std::max<std::int64_t>(plain, 0);
  const double bound =
      std::min(static_cast<double>(durationMax),
               (static_cast<double>(dTime) + factor * static_cast<double>(durationMax)) / (1 + factor));
  if (!(bound <= staticCut_largestBound)) return std::nullopt;
  return std::max<std::int64_t>(static_cast<std::int64_t>(std::ceil(bound)), 0);
}

/// Whether a cut before a photon `gap` ticks after the one before is exact, for a bound from find_staticCutBound.
inline bool is_staticCut(std::int64_t gap, std::int64_t bound) { return gap > 0 && gap > bound; }

}  // namespace kovra::detail
