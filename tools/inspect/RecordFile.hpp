#pragma once

// Reading a photon or event file a block of records at a time, so that memory stays bounded however large the
// file is.
//
// Opening runs the library's own checks and block walk, so every message is the library's; the records are then
// read on demand, a chunk at a time, through the library's record cursor. Since every block is known to fit in
// the file once it is opened, reading a chunk can fail only if the file changes underneath.

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <ios>
#include <istream>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/Progress.hpp"
#include "kovra/ContainerFile_Reader.hpp"
#include "kovra/detail/RecordIO.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::inspect {

using tpx3spidr::Event;
using tpx3spidr::Length;
using tpx3spidr::PhotonEvent;
using tpx3spidr::Time;

/// What distinguishes the two file types for reading: handler, name (plural, and `oneName` for one record) and
/// extension.
template <typename Record_Type>
struct Record_Traits;

template <>
struct Record_Traits<PhotonEvent> {
  using Handler = tpx3spidr::FileHandler_PhotonEvents;
  static constexpr const char* name = "photons";
  static constexpr const char* oneName = "photon";
  static constexpr const char* extension = ".kovraphot";
  static Time get_time(const PhotonEvent& photon) { return photon.toa; }
};

template <>
struct Record_Traits<Event> {
  using Handler = tpx3spidr::FileHandler_Events;
  static constexpr const char* name = "events";
  static constexpr const char* oneName = "event";
  static constexpr const char* extension = ".kovraevent";
  static Time get_time(const Event& event) { return event.t; }
};

/// One opened photon or event file, read again from disk on every walk over its records or triggers.
template <typename Record_Type>
class RecordFile {
 public:
  using record_type = Record_Type;
  using traits = Record_Traits<Record_Type>;

  static constexpr std::uint64_t default_chunkRecords = std::uint64_t{1} << 16;

  /// Opens and checks the file; throws std::invalid_argument with the library reader's message when it is bad.
  explicit RecordFile(std::string fileName_, std::uint64_t chunkRecords_ = default_chunkRecords)
      : fileName(std::move(fileName_)),
        chunkRecords(std::max<std::uint64_t>(1, chunkRecords_)),
        layout(traits::Handler::read_layout(fileName)) {}

  const std::string& get_fileName() const { return fileName; }
  std::uint64_t size() const { return layout.records.count; }
  bool has_extTriggers() const { return layout.extTriggers.has_value(); }
  std::uint64_t get_extTriggerCount() const { return layout.extTriggers ? layout.extTriggers->count : 0; }

  /// Calls `function(std::span<const Record_Type>)` for consecutive chunks of the records, in file order.
  template <typename Function_Type>
  void for_each_chunk(Function_Type&& function, tools::Progress* progress = nullptr) const {
    walk<Record_Type>(layout.records, function, progress);
  }

  /// Reads `destination.size()` trigger times from the one at `first` on; the caller keeps within the list.
  void read_extTriggers(std::uint64_t first, std::span<Time> destination) const {
    const Block_Location& all = layout.extTriggers.value();
    RecordCursor<Time> cursor(fileName, Block_Location{all.offset + first * sizeof(Time), all.count - first});
    if (cursor.read(destination.data(), destination.size()) != destination.size()) {
      throw std::invalid_argument("Read Error!");
    }
  }

  /// The same over the trigger times; calls nothing when the file has no trigger list or an empty one.
  template <typename Function_Type>
  void for_each_extTriggerChunk(Function_Type&& function) const {
    if (layout.extTriggers) walk<Time>(*layout.extTriggers, function, nullptr);
  }

 private:
  template <typename Entry_Type, typename Function_Type>
  void walk(const Block_Location& where, Function_Type& function, tools::Progress* progress) const {
    if (progress) progress->start(where.count);
    RecordCursor<Entry_Type> cursor(fileName, where);
    std::vector<Entry_Type> chunk(static_cast<std::size_t>(std::min(where.count, chunkRecords)));
    while (const std::size_t n = cursor.read(chunk.data(), chunk.size())) {
      function(std::span<const Entry_Type>(chunk.data(), n));
      if (progress) progress->advance(n);
    }
    if (progress) progress->finish();
  }

  std::string fileName;
  std::uint64_t chunkRecords;
  File_Layout layout;
};

}  // namespace kovra::inspect
