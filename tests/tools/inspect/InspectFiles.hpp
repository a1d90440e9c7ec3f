#pragma once

// Photon and event files for the inspector's tests, built byte by byte (not with the library's writer).

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "FileBytes.hpp"

struct Photon_Row {
  std::int32_t x;
  std::int32_t y;
  std::int64_t toa;
};

struct Event_Row {
  std::int32_t x;
  std::int32_t y;
  std::int64_t t;
  std::uint64_t nPhotons;
  double psd;
};

inline FileBytes photons_block(const std::vector<Photon_Row>& rows) {
  FileBytes content;
  for (const auto& r : rows) content.i32(r.x).i32(r.y).i64(r.toa);
  return FileBytes().block("photons", content);
}

inline FileBytes events_block(const std::vector<Event_Row>& rows) {
  FileBytes content;
  for (const auto& r : rows) content.i32(r.x).i32(r.y).i64(r.t).u64(r.nPhotons).f64(r.psd);
  return FileBytes().block("events", content);
}

inline FileBytes triggers_block(const std::vector<std::int64_t>& times) {
  FileBytes content;
  for (const auto t : times) content.i64(t);
  return FileBytes().block("extTrigs", content);
}

/// A file of the usual shape: the record block, then the trigger block when there is a trigger list.
inline std::string photon_file(const std::vector<Photon_Row>& rows,
                               const std::optional<std::vector<std::int64_t>>& triggers = std::nullopt) {
  FileBytes content = photons_block(rows);
  if (triggers) content.raw(triggers_block(*triggers).data);
  return FileBytes::file(2, content).data;
}

inline std::string event_file(const std::vector<Event_Row>& rows,
                              const std::optional<std::vector<std::int64_t>>& triggers = std::nullopt) {
  FileBytes content = events_block(rows);
  if (triggers) content.raw(triggers_block(*triggers).data);
  return FileBytes::file(3, content).data;
}

inline constexpr std::int32_t px = 65536;
