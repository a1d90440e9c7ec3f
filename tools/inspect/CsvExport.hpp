#pragma once

// Records as comma-separated text: one header line, then one line per record in file order. Every field comes
// twice: as the raw count stored in the file and in pixels or seconds, written with the fewest digits that read
// back as the same double. The pulse-shape value is stored in seconds and written once.
//
//   photons: x,y,toa,x_px,y_px,toa_s
//   events:  x,y,t,x_px,y_px,t_s,nPhotons,psd_s

#include <ostream>
#include <span>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "common/OutputFile_Checked.hpp"
#include "common/Progress.hpp"
#include "inspect/Format.hpp"
#include "inspect/RecordFile.hpp"

namespace kovra::inspect {

template <typename Record_Type>
const char* get_csvHeader() {
  if constexpr (std::is_same_v<Record_Type, Event>) return "x,y,t,x_px,y_px,t_s,nPhotons,psd_s";
  return "x,y,toa,x_px,y_px,toa_s";
}

inline void append_csvRow(std::string& line, const PhotonEvent& photon) {
  line += std::to_string(photon.x.value) + ',' + std::to_string(photon.y.value) + ',' +
          std::to_string(photon.toa.value) + ',' + format_exact(photon.x.get_pixels()) + ',' +
          format_exact(photon.y.get_pixels()) + ',' + format_exact(photon.toa.get_seconds()) + '\n';
}

inline void append_csvRow(std::string& line, const Event& event) {
  line += std::to_string(event.x.value) + ',' + std::to_string(event.y.value) + ',' + std::to_string(event.t.value) +
          ',' + format_exact(event.x.get_pixels()) + ',' + format_exact(event.y.get_pixels()) + ',' +
          format_exact(event.t.get_seconds()) + ',' + std::to_string(event.nPhotons) + ',' + format_exact(event.psd) +
          '\n';
}

/// Writes the whole file as CSV to `out`, one chunk of records at a time; `check()` runs after each chunk and
/// throws when the stream has failed, so that a full disk stops the walk.
template <typename Record_Type, typename Check_Type>
void write_csv(std::ostream& out, const RecordFile<Record_Type>& file, Check_Type&& check,
               tools::Progress* progress = nullptr) {
  out << get_csvHeader<Record_Type>() << '\n';
  std::string text;
  file.for_each_chunk(
      [&](std::span<const Record_Type> chunk) {
    text.clear();
    for (const Record_Type& record : chunk) append_csvRow(text, record);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    check();
      },
      progress);
}

/// The CSV to standard output (`--csv -`); throws std::runtime_error when a write fails.
template <typename Record_Type>
void write_csv(std::ostream& out, const RecordFile<Record_Type>& file, tools::Progress* progress = nullptr) {
  const auto check = [&out] {
    if (!out) throw std::runtime_error("writing the CSV output failed");
  };
  write_csv(out, file, check, progress);
  out.flush();
  check();
}

/// The CSV as a file, which appears whole or not at all; throws std::runtime_error with the system's reason when
/// a write fails.
template <typename Record_Type>
void write_csvFile(const std::string& fileName, const RecordFile<Record_Type>& file,
                   tools::Progress* progress = nullptr) {
  tools::OutputFile_Checked output(fileName, "cannot write CSV file \"" + fileName + "\"");
  write_csv(
      output.stream(), file, [&output] { output.check(); }, progress);
  output.commit();
}

}  // namespace kovra::inspect
