#pragma once

// Where the photons of a reconstruction come from: a photon file read a chunk at a time, or a list in memory.
// A source hands out the photons in list order into a buffer the caller owns, and can start over.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>

#include "kovra/ContainerFile_Reader.hpp"

namespace kovra {

/// Whether a time-ordered reading of photons still holds: non-decreasing times that all lie less than 2^63
/// ticks after the first one, so that every difference of two of them is its true value. The algorithms'
/// shortcuts for ordered input rely on both.
template <typename Time_Type>
class TimeOrder_Check {
 public:
  /// Takes the next photons' times; false as soon as one breaks the order.
  template <typename PhotonEvent_Type>
  bool accept(std::span<const PhotonEvent_Type> photons) {
    if (photons.empty()) return true;
    if (!started) {
      started = true;
      first = photons.front().toa.value;
      last = first;
    }
    bool ordered = true;
    for (const auto& p : photons) {
      ordered &= p.toa.value >= last;
      last = p.toa.value;
    }
    using U = std::make_unsigned_t<Value_Type>;
    const bool within = static_cast<U>(static_cast<U>(last) - static_cast<U>(first)) < (U{1} << (8 * sizeof(U) - 1));
    return ordered && within;
  }

 private:
  using Value_Type = typename Time_Type::value_type;
  bool started = false;
  Value_Type first{};
  Value_Type last{};
};

/// A list of photons read in order, in pieces.
template <typename PhotonEvent_Type>
class PhotonSource {
 public:
  /// Photons a window over a source holds at first: 2^18 photons are 4 MiB of records, read half a window at a
  /// time. (2^16 and 2^20 measured the same on the benchmark datasets; below 2^14 the reading calls start to
  /// show.)
  static constexpr std::size_t default_windowCapacity = std::size_t{1} << 18;

  explicit PhotonSource(std::size_t windowCapacity_ = default_windowCapacity) : windowCapacity(windowCapacity_) {}
  virtual ~PhotonSource() = default;

  /// Photons a window over this source should hold at first.
  std::size_t get_windowCapacity() const { return windowCapacity; }

  /// The number of photons in the whole list.
  virtual std::uint64_t size() const = 0;

  /// Copies up to `capacity` of the next photons to `destination`; returns how many, 0 once all were read.
  virtual std::size_t read(PhotonEvent_Type* destination, std::size_t capacity) = 0;

  /// Starts over at the first photon.
  virtual void rewind() = 0;

  /// Whether the whole list is in time order (as TimeOrder_Check has it), where that is known before reading.
  virtual std::optional<bool> get_knownOrder() const { return std::nullopt; }

 private:
  std::size_t windowCapacity;
};

/// When a source over a list in memory learns whether the list is in time order.
enum class Order_Known {
  upFront,   // checked once, when the source is made
  whenRead,  // not known: the window checks what it reads (for a part of a list whose order is known elsewhere)
};

/// The photons of a list in memory.
template <typename PhotonEvent_Type>
class PhotonSource_Memory final : public PhotonSource<PhotonEvent_Type> {
 public:
  /// A window over a short list needs no more room than the list.
  explicit PhotonSource_Memory(std::span<const PhotonEvent_Type> photons_,
                               std::size_t capacity = PhotonSource<PhotonEvent_Type>::default_windowCapacity,
                               Order_Known known = Order_Known::upFront)
      : PhotonSource<PhotonEvent_Type>(std::min(capacity, photons_.size())), photons(photons_) {
    if (known == Order_Known::upFront) {
      TimeOrder_Check<typename PhotonEvent_Type::time_type> check;
      ordered = check.accept(photons);
    }
  }

  std::uint64_t size() const override { return photons.size(); }

  std::size_t read(PhotonEvent_Type* destination, std::size_t capacity) override {
    const std::size_t n = std::min(capacity, photons.size() - position);
    if (n != 0) std::memcpy(static_cast<void*>(destination), photons.data() + position, n * sizeof(PhotonEvent_Type));
    position += n;
    return n;
  }

  void rewind() override { position = 0; }
  std::optional<bool> get_knownOrder() const override { return ordered; }

 private:
  std::span<const PhotonEvent_Type> photons;
  std::size_t position = 0;
  std::optional<bool> ordered;
};

/// The photons of a photon file, read a chunk at a time from the block its layout names.
template <typename PhotonEvent_Type>
class PhotonSource_File final : public PhotonSource<PhotonEvent_Type> {
 public:
  PhotonSource_File(const std::string& file_name, Block_Location photons,
                    std::size_t capacity = PhotonSource<PhotonEvent_Type>::default_windowCapacity)
      : PhotonSource<PhotonEvent_Type>(capacity), cursor(file_name, photons) {}

  std::uint64_t size() const override { return cursor.size(); }
  std::size_t read(PhotonEvent_Type* destination, std::size_t capacity) override {
    return cursor.read(destination, capacity);
  }
  void rewind() override { cursor.rewind(); }

 private:
  RecordCursor<PhotonEvent_Type> cursor;
};

}  // namespace kovra
