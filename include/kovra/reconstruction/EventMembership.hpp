#pragma once

// The optional event-membership sink of the reconstruction algorithms: told, for every photon of every emitted
// event, which event took it.

#include <cstdint>
#include <type_traits>

namespace kovra {

/// No membership wanted: an algorithm given this type reports nothing and pays nothing.
struct EventMembership_None {};

namespace detail {

/// Tells `membership` that photon `photonIndex` belongs to event `eventIndex`; compiled out for
/// EventMembership_None.
template <typename Membership_Type>
inline void report_member(Membership_Type& membership, std::uint64_t eventIndex, std::uint64_t photonIndex) {
  if constexpr (!std::is_same_v<Membership_Type, EventMembership_None>) membership(eventIndex, photonIndex);
}

}  // namespace detail

}  // namespace kovra
