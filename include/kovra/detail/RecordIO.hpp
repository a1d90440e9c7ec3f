#pragma once

// Moving fixed-width records between streams and vectors in large blocks.
//
// The container files hold little-endian integers and doubles with no padding, and every record type we store
// (photon, event, trigger time) has exactly that layout in memory on a little-endian machine. So records are
// copied as raw bytes, a block at a time, never a call per record.

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <ostream>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <vector>

#if __has_include(<sys/mman.h>)
#include <sys/mman.h>
#endif

namespace kovra::detail {

static_assert(std::endian::native == std::endian::little,
              "container files are read and written as raw little-endian records");

/// An 8-byte block identifier as the little-endian value of its bytes, the name padded with zeros.
constexpr std::uint64_t make_identifier(std::string_view name) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < name.size() && i < 8; ++i) {
    value |= static_cast<std::uint64_t>(static_cast<unsigned char>(name[i])) << (8 * i);
  }
  return value;
}

template <typename Record_Type>
concept RawRecord = std::is_trivially_copyable_v<Record_Type> && std::is_standard_layout_v<Record_Type>;

inline constexpr std::size_t io_block_bytes = std::size_t{1} << 20;

/// Asks the kernel to back a large, not yet touched range with huge pages. Filling fresh memory is dominated by
/// page faults; with 2 MiB pages there are 512 times fewer. A hint only: nothing changes where it is refused.
inline void advise_huge_pages([[maybe_unused]] const void* begin, [[maybe_unused]] std::size_t bytes) {
#if defined(MADV_HUGEPAGE)
  constexpr std::uintptr_t huge = std::uintptr_t{1} << 21;
  const auto first = (reinterpret_cast<std::uintptr_t>(begin) + huge - 1) & ~(huge - 1);
  const auto last = (reinterpret_cast<std::uintptr_t>(begin) + bytes) & ~(huge - 1);
  if (last > first) madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
#endif
}

/// Reserves room for `count` more records and advises huge pages for it.
template <typename Record_Type>
void reserve_records(std::vector<Record_Type>& records, std::size_t count) {
  records.reserve(records.size() + count);
  advise_huge_pages(records.data() + records.size(), count * sizeof(Record_Type));
}

template <RawRecord Record_Type>
void write_records(std::ostream& stream, const std::vector<Record_Type>& records) {
  stream.write(reinterpret_cast<const char*>(records.data()),
               static_cast<std::streamsize>(records.size() * sizeof(Record_Type)));
}

inline std::uint64_t read_u64(std::istream& stream) {
  std::uint64_t value = 0;
  stream.read(reinterpret_cast<char*>(&value), sizeof value);
  if (!stream || stream.gcount() != static_cast<std::streamsize>(sizeof value)) {
    throw std::invalid_argument("Read Error!");
  }
  return value;
}

inline void write_u64(std::ostream& stream, std::uint64_t value) {
  stream.write(reinterpret_cast<const char*>(&value), sizeof value);
}

}  // namespace kovra::detail
