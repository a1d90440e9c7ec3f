#pragma once

// Fixed-point quantities: every position and time in records, files and algorithms is an integer count of a
// fixed unit. Floating point appears only at the edges (user settings in pixels and seconds).
//
// All arithmetic that may wrap is done on the unsigned twin of the storage type and converted back, so it is
// two's-complement wrap-around and never undefined behaviour.

#include <cassert>
#include <cmath>
#include <compare>
#include <concepts>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace kovra {

namespace detail {

template <std::signed_integral T>
constexpr T wrapping_add(T a, T b) {
  using U = std::make_unsigned_t<T>;
  return static_cast<T>(static_cast<U>(a) + static_cast<U>(b));
}

template <std::signed_integral T>
constexpr T wrapping_sub(T a, T b) {
  using U = std::make_unsigned_t<T>;
  return static_cast<T>(static_cast<U>(a) - static_cast<U>(b));
}

/// Signed division truncating toward zero, defined for every dividend (the one overflowing case,
/// minimum / -1, wraps like the other wrapping operations).
template <std::signed_integral T>
constexpr T wrapping_div(T a, T b) {
  assert(b != 0);
  if (b == -1) return wrapping_sub(T{0}, a);
  return a / b;
}

/// Double to signed integer, truncating toward zero. Values beyond the target's range saturate, NaN gives 0;
/// the plain conversion would be undefined behaviour there.
template <std::signed_integral T>
T saturating_trunc(double value) {
  constexpr double bound = -static_cast<double>(std::numeric_limits<T>::min());  // 2^(bits-1), exact
  if (std::isnan(value)) return 0;
  if (value >= bound) return std::numeric_limits<T>::max();
  if (value <= -bound) return std::numeric_limits<T>::min();
  return static_cast<T>(value);
}

}  // namespace detail

/// A position on the detector: a signed count of 1/unitsPerPixel of a pixel.
template <std::signed_integral Value_Type, Value_Type unitsPerPixel>
struct Length {
  using value_type = Value_Type;
  static constexpr Value_Type units_per_pixel = unitsPerPixel;

  Value_Type value;

  /// Pixels to units: multiply, round halves away from zero, truncate to the storage width. There is no
  /// range check; a product beyond the storage range gives an unusable (but defined) count.
  static Length from_pixels(double pixels) {
    const double units = std::round(pixels * static_cast<double>(unitsPerPixel));
    const auto wide = detail::saturating_trunc<std::int64_t>(units);
    using U = std::make_unsigned_t<Value_Type>;
    return Length{static_cast<Value_Type>(static_cast<U>(static_cast<std::uint64_t>(wide)))};
  }

  double get_pixels() const { return static_cast<double>(value) / static_cast<double>(unitsPerPixel); }

  friend constexpr Length operator-(Length a, Length b) { return Length{detail::wrapping_sub(a.value, b.value)}; }
  friend constexpr Length operator+(Length a, Length b) { return Length{detail::wrapping_add(a.value, b.value)}; }
  friend constexpr auto operator<=>(Length, Length) = default;

  /// Magnitude, widened so that the most negative count has one too.
  constexpr std::int64_t abs() const { return value < 0 ? -static_cast<std::int64_t>(value) : value; }

  /// Square after widening to 64 bits; as unsigned so that two squares always add without overflow.
  constexpr std::uint64_t squared() const {
    const auto wide = static_cast<std::int64_t>(value);
    return static_cast<std::uint64_t>(wide * wide);
  }

  /// One step of the running integer mean: mean += (sample - mean) / n, with the difference wrapping and the
  /// division truncating toward zero, n taken at the storage width.
  constexpr void add_to_mean(Length sample, std::uint64_t n) {
    const auto divisor = static_cast<Value_Type>(static_cast<std::make_unsigned_t<Value_Type>>(n));
    value = detail::wrapping_add(value, detail::wrapping_div(detail::wrapping_sub(sample.value, value), divisor));
  }
};

/// Squared Euclidean distance of two positions in 64 bits; true when it does not exceed distance².
template <typename Length_Type>
constexpr bool within_euclidean(Length_Type dx, Length_Type dy, Length_Type distance) {
  return dx.squared() + dy.squared() <= distance.squared();
}

/// A point or span in time: a signed count of ticks of tickSeconds.
template <std::signed_integral Value_Type, double tickSeconds>
struct Time {
  using value_type = Value_Type;
  static constexpr double tick_seconds = tickSeconds;

  /// Largest magnitude accepted from seconds: 2^62 ticks, so that the sum of two times never overflows.
  static constexpr double max_seconds = 4611686018427387904.0 * tickSeconds;
  /// Stands for an unlimited span.
  static constexpr Value_Type max_ticks = 0x3FFFFFFFFFFFFFFF;

  Value_Type value;

  /// Seconds to ticks, rounding halves away from zero. The checked form throws beyond +-max_seconds (NaN
  /// included); the unchecked form saturates instead.
  template <bool checked>
  static Time make_from_seconds(double seconds) {
    if constexpr (checked) {
      if (!(seconds >= -max_seconds && seconds <= max_seconds)) {
        throw std::invalid_argument("Value " + std::to_string(seconds) + " s out of range!");
      }
    }
    return Time{detail::saturating_trunc<Value_Type>(std::round(seconds / tickSeconds))};
  }

  constexpr double get_seconds() const { return static_cast<double>(value) * tickSeconds; }

  /// The span multiplied by a real factor, truncated toward zero (saturating beyond the storage range).
  Time scaled(double factor) const {
    return Time{detail::saturating_trunc<Value_Type>(static_cast<double>(value) * factor)};
  }

  friend constexpr Time operator-(Time a, Time b) { return Time{detail::wrapping_sub(a.value, b.value)}; }
  friend constexpr Time operator+(Time a, Time b) { return Time{detail::wrapping_add(a.value, b.value)}; }
  friend constexpr auto operator<=>(Time, Time) = default;
};

}  // namespace kovra
