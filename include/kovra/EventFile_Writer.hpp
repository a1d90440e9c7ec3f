#pragma once

// Writing an event file while the events are still being found: events are appended as they are complete and
// go to the file a large block at a time; the trigger list is copied at the end straight from the photon file
// it came with. The file appears at its path only when finish() has written it completely (ContainerFile_Writer),
// with the bytes of an event file written in one piece from the same events and triggers.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "kovra/ContainerFile_Reader.hpp"
#include "kovra/ContainerFile_Writer.hpp"
#include "kovra/detail/RecordIO.hpp"

namespace kovra {

/// An event file written as a stream. The file is opened with the first block of events (or by finish()), so
/// that a target that cannot be written stops the program no earlier than a whole-file write would.
template <typename Event_Type, typename Time_Type, std::uint64_t file_type_index = 3>
class EventFile_Writer {
 public:
  /// Events held before they are written: 32768 events are 1 MiB, the block size of the other file writes.
  static constexpr std::size_t buffered_events = detail::io_block_bytes / sizeof(Event_Type);

  explicit EventFile_Writer(std::string path_) : path(std::move(path_)) { buffer.reserve(buffered_events); }

  void append(const Event_Type& event) {
    buffer.push_back(event);
    if (buffer.size() == buffered_events) flush();
  }

  /// Appends events in one go: a few through the buffer, a block of 128 KiB or more straight to the file (the
  /// parallel run's blocks; copying them into the buffer doubled the time its writer took: 12-25 ms against
  /// 10 ms for 37 MB of events).
  void append(std::span<const Event_Type> events) {
    if (events.size() < buffered_events / 8 && buffer.size() + events.size() <= buffered_events) {
      buffer.insert(buffer.end(), events.begin(), events.end());
      if (buffer.size() == buffered_events) flush();
      return;
    }
    flush();
    open();
    writer->append(events);
    written += events.size();
  }

  /// The file's bytes start their way to the disk as they are written (a writer on a thread of its own: see
  /// OutputFile_Atomic::start_writeBackAsWritten).
  void start_writeBackAsWritten() {
    writeBackAsWritten = true;
    if (writer) writer->start_writeBackAsWritten();
  }

  /// Events appended so far.
  std::uint64_t size() const { return written + buffer.size(); }

  /// Drops every event appended so far; nothing of them reaches the target.
  void restart() {
    writer.reset();
    buffer.clear();
    written = 0;
  }

  /// Writes the trigger block, when the photon file has one, copied from `triggerFile` at `triggers`, and moves
  /// the finished file into place.
  void finish(const std::string& triggerFile, const std::optional<Block_Location>& triggers) {
    flush();
    open();
    writer->end_block();
    if (triggers) {
      writer->begin_block(detail::make_identifier("extTrigs"));
      RecordCursor<Time_Type> cursor(triggerFile, *triggers);
      std::vector<Time_Type> chunk(static_cast<std::size_t>(std::min<std::uint64_t>(triggers->count, buffered_events)));
      while (const std::size_t n = cursor.read(chunk.data(), chunk.size())) {
        writer->append(std::span<const Time_Type>(chunk.data(), n));
      }
      writer->end_block();
    }
    writer->commit();
  }

 private:
  void open() {
    if (writer) return;
    writer.emplace(path);
    if (writeBackAsWritten) writer->start_writeBackAsWritten();
    writer->begin_block(detail::make_identifier("events"));
  }

  void flush() {
    if (buffer.empty()) return;
    open();
    writer->append(std::span<const Event_Type>(buffer));
    written += buffer.size();
    buffer.clear();
  }

  std::string path;
  std::optional<ContainerFile_Writer<file_type_index>> writer;
  std::vector<Event_Type> buffer;
  std::uint64_t written = 0;
  bool writeBackAsWritten = false;
};

}  // namespace kovra
