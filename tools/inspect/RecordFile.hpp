#pragma once

// Reading a photon or event file a block of records at a time, so that memory stays bounded however large the
// file is.
//
// Opening runs the library's own `load_file` and block walk, so every check and message is the library's; the
// walk here only steps over the record contents and keeps where they are. The records are then read on demand,
// a chunk at a time, with the library's raw record reader. Since every block is known to fit in the file once it
// is opened, reading a chunk can fail only if the file changes underneath.

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

#include "inspect/Progress.hpp"
#include "kovra/FileHandler_KovraData.hpp"
#include "kovra/detail/RecordIO.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::inspect {

using tpx3spidr::Event;
using tpx3spidr::Length;
using tpx3spidr::PhotonEvent;
using tpx3spidr::Time;

/// What distinguishes the two file types for reading: handler, record block and the readers' messages.
template <typename Record_Type>
struct Record_Traits;

template <>
struct Record_Traits<PhotonEvent> {
  using Handler = tpx3spidr::FileHandler_PhotonEvents;
  static constexpr std::uint64_t identifier = Handler::IO_Photons::identifier;
  static constexpr const char* partial_message = "File contains partial photons!";
  static constexpr const char* missing_message = "File does not contain photon data!";
  static constexpr const char* name = "photons";
  static constexpr const char* extension = ".kovraphot";
  static Time get_time(const PhotonEvent& photon) { return photon.toa; }
};

template <>
struct Record_Traits<Event> {
  using Handler = tpx3spidr::FileHandler_Events;
  static constexpr std::uint64_t identifier = Handler::IO_Events::identifier;
  static constexpr const char* partial_message = "File contains partial events!";
  static constexpr const char* missing_message = "File does not contain event data!";
  static constexpr const char* name = "events";
  static constexpr const char* extension = ".kovraevent";
  static Time get_time(const Event& event) { return event.t; }
};

/// Where a block's content starts in the file and how many fixed-width entries it holds.
struct Block_Location {
  std::streamoff offset = 0;
  std::uint64_t count = 0;
};

/// The content of a file as its blocks lie: the record block that counts and, when the file has one, the
/// trigger block that counts (absent and empty stay apart, as in the library's data sets).
struct File_Layout {
  Block_Location records;
  std::optional<Block_Location> extTriggers;
};

/// A handler of the library's container format whose content walk records the block locations.
template <typename Record_Type>
class Layout_Handler : public FileHandler_KovraData<Record_Traits<Record_Type>::Handler::file_type_index, File_Layout> {
  using Base = FileHandler_KovraData<Record_Traits<Record_Type>::Handler::file_type_index, File_Layout>;
  using Traits = Record_Traits<Record_Type>;

 public:
  File_Layout read_implementationSpecific(std::istream& stream, std::streampos end) const override {
    std::optional<Block_Location> records;
    std::optional<Block_Location> extTriggers;
    // The library's own walk, with its checks and messages; only the block contents are stepped over.
    const auto skip_to = [&stream](std::optional<Block_Location>& where, std::uint64_t count, std::uint64_t width) {
      where = Block_Location{static_cast<std::streamoff>(stream.tellg()), count};
      stream.seekg(static_cast<std::streamoff>(count * width), std::ios::cur);
    };
    Base::template walk_content<Record_Type, Time>(
        stream, end, Traits::identifier, Traits::partial_message,
        [&](std::uint64_t count) { skip_to(records, count, sizeof(Record_Type)); },
        [&](std::uint64_t count) { skip_to(extTriggers, count, sizeof(Time)); });
    if (!records) throw std::invalid_argument(Traits::missing_message);
    return {*records, extTriggers};
  }
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
        layout(Layout_Handler<Record_Type>().load_file(fileName)) {}

  const std::string& get_fileName() const { return fileName; }
  std::uint64_t size() const { return layout.records.count; }
  bool has_extTriggers() const { return layout.extTriggers.has_value(); }
  std::uint64_t get_extTriggerCount() const { return layout.extTriggers ? layout.extTriggers->count : 0; }

  /// Calls `function(std::span<const Record_Type>)` for consecutive chunks of the records, in file order.
  template <typename Function_Type>
  void for_each_chunk(Function_Type&& function, Progress* progress = nullptr) const {
    walk<Record_Type>(layout.records, function, progress);
  }

  /// The same over the trigger times; calls nothing when the file has no trigger list or an empty one.
  template <typename Function_Type>
  void for_each_extTriggerChunk(Function_Type&& function) const {
    if (layout.extTriggers) walk<Time>(*layout.extTriggers, function, nullptr);
  }

 private:
  template <typename Entry_Type, typename Function_Type>
  void walk(const Block_Location& where, Function_Type& function, Progress* progress) const {
    if (progress) progress->start(where.count);
    std::ifstream stream(fileName, std::ios::binary);
    if (!stream.is_open()) throw std::invalid_argument("file \"" + fileName + "\" could not be opened!");
    stream.seekg(where.offset);
    std::vector<Entry_Type> chunk;
    for (std::uint64_t done = 0; done < where.count;) {
      const std::uint64_t n = std::min(where.count - done, chunkRecords);
      chunk.clear();
      detail::read_records(stream, n, chunk);
      function(std::span<const Entry_Type>(chunk));
      done += n;
      if (progress) progress->advance(n);
    }
    if (progress) progress->finish();
  }

  std::string fileName;
  std::uint64_t chunkRecords;
  File_Layout layout;
};

}  // namespace kovra::inspect
