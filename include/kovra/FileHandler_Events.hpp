#pragma once

// Event files (".kovraevent", type 3): an "events" block of 32-byte records (x, y: signed 32-bit raw lengths;
// t: signed 64-bit raw time; photon count: unsigned 64-bit; pulse-shape value: binary64 seconds) and optionally
// an "extTrigs" block of signed 64-bit raw times carried over from the photon file.

#include <cstddef>
#include <cstdint>
#include <istream>
#include <stdexcept>
#include <string>
#include <utility>

#include "kovra/Data_PhotonEvents.hpp"
#include "kovra/FileHandler_KovraData.hpp"

namespace kovra {

/// Reads and writes event files; the width arguments are the on-disk bytes of one length and one time value.
template <typename Length_Type, typename Time_Type, typename PSD_Type, std::size_t length_bytes, std::size_t time_bytes,
          std::uint64_t file_type_index>
class FileHandler_Events
    : public FileHandler_KovraData<file_type_index, Data_Events<Event<Length_Type, Time_Type, PSD_Type>>> {
  using Base = FileHandler_KovraData<file_type_index, Data_Events<Event<Length_Type, Time_Type, PSD_Type>>>;

 public:
  using Event_Type = Event<Length_Type, Time_Type, PSD_Type>;
  using Data_Type = Data_Events<Event_Type>;
  using IO_Events = typename Base::template IO_Records<Event_Type, detail::make_identifier("events")>;
  using IO_ExtTriggers = typename Base::template IO_Records<Time_Type, Base::extTrigs_identifier>;

  static File_Layout read_layout_at(std::istream& stream, std::streampos end) {
    return Base::template read_layout<Event_Type, Time_Type>(
        stream, end, IO_Events::identifier, "File contains partial events!", "File does not contain event data!");
  }

  static_assert(sizeof(Length_Type) == length_bytes && sizeof(Time_Type) == time_bytes);
  static_assert(sizeof(Event_Type) == 2 * length_bytes + time_bytes + 16, "event records have no padding");

  Data_Type read_implementationSpecific(std::istream& stream, std::streampos end) const override {
    const File_Layout layout = read_layout_at(stream, end);
    auto lists = Base::template read_lists<Event_Type, Time_Type>(stream, layout);
    return Data_Type(std::move(lists.first), std::move(lists.second));
  }

  /// Opens and checks a file, every block's framing included, and returns where its lists lie, for reading
  /// them in pieces with a RecordCursor.
  static File_Layout read_layout(const std::string& file_name) {
    auto opened = Base::open_file(file_name);
    return read_layout_at(opened.stream, opened.end);
  }

  /// Writes the events and, when present (even empty), the trigger list.
  static void save_file(const std::string& file_name, const Data_Type& data) {
    Base::template save_content<IO_Events>(file_name, data.events, data.extTriggers);
  }
};

}  // namespace kovra
