#pragma once

// How crowded the photons ahead are: the mean number of photons within a time span after a photon, judged from a
// sample. Each algorithm has an exact path for sparse data and one for crowded data, with the same answers; the
// judgement only picks the faster one. It is made again every stretch of photons, at a point between two seeds
// where the algorithm holds nothing that depends on the path, so that a file whose rate changes (a dark start,
// a beam switched on, a hot spot that develops) takes the faster path in each stretch.

#include <algorithm>
#include <cstddef>

#include "kovra/reconstruction/Reconstruction_Pass.hpp"

namespace kovra::detail {

/// Samples per judgement: 256 spread over the photons judged, each counting at most 64 followers, so a judgement
/// costs at most 16384 comparisons (a quarter of a comparison per photon at the stride below). The cap bounds the
/// thresholds that can be told apart: every one in use (16 and 48) lies below it.
inline constexpr std::size_t crowding_samples = 256;
inline constexpr std::size_t crowding_sampleCap = 64;

/// Photons between two judgements, at most: a quarter of the default window (2^18 photons), so that the photons
/// judged and their followers are read ahead within the room the window keeps for reading and never make it grow.
/// Smaller windows judge every quarter window (at least 16 photons; a window of fewer than 512 grows to 512 for
/// the followers of the last samples).
inline constexpr std::size_t crowding_stride = std::size_t{1} << 16;

/// Judges the photons ahead of a seed every stride of seeds.
template <typename Window_Type, typename Time_Type>
class Crowding_Judge {
 public:
  Crowding_Judge(Window_Type& window_, Time_Type span_)
      : window(window_),
        span(span_),
        stride(std::clamp<std::size_t>(window_.get_capacity() / 4, 16, crowding_stride)) {}

  /// Whether a new judgement is made at seed i (the first at the first seed asked about, then every stride): the
  /// caller then looks at at_least() again. The window may read further photons, so the caller must hold no
  /// reference into it.
  bool due(std::size_t i) {
    if (i < next) return false;
    next = i + stride;
    judge(i);
    return true;
  }

  /// The seed at which the next judgement is due.
  std::size_t next_due() const { return next; }

  /// Whether spans after the photons judged last hold, on average, at least `count` photons.
  bool at_least(std::size_t count) const { return seen >= count * sampled; }

 private:
  /// Samples the photons from i to the end of the stride, each with its followers.
  void judge(std::size_t i) {
    window.fetch(std::min(i + stride + crowding_sampleCap, window.size()) - 1);
    const std::size_t end = window.get_end();
    const std::size_t n = std::min(end, i + stride);
    const std::size_t step = std::max<std::size_t>(1, (n - i) / crowding_samples);
    seen = 0;
    sampled = 0;
    for (std::size_t k = i; k < n; k += step, ++sampled) {
      const Time_Type reach = add_saturating(window[k].toa, span);
      for (std::size_t j = k + 1; j < end && j <= k + crowding_sampleCap && window[j].toa <= reach; ++j) ++seen;
    }
  }

  Window_Type& window;
  Time_Type span;
  std::size_t stride;
  std::size_t next = 0;
  std::size_t seen = 0;
  std::size_t sampled = 0;
};

}  // namespace kovra::detail
