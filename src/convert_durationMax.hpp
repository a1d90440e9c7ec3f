#pragma once

#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

/// The maximum event duration in ticks. Up to max_seconds it is converted (the bound itself gives 2^62 ticks);
/// beyond it, the default +infinity included, it saturates to max_ticks (2^62 - 1), which means unlimited.
/// The one-tick step at the bound is intended. A negative or NaN value must not get here.
inline kovra::tpx3spidr::Time convert_durationMax(double durationMax_s) {
  using kovra::tpx3spidr::Time;
  if (durationMax_s <= Time::max_seconds) return Time::make_from_seconds<true>(durationMax_s);
  return Time{Time::max_ticks};
}
