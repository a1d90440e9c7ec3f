#pragma once

// Photon files (".kovraphot", type 2): a "photons" block of 16-byte records (x, y: signed 32-bit raw lengths;
// time of arrival: signed 64-bit raw time) and optionally an "extTrigs" block of signed 64-bit raw times.

#include <cstddef>
#include <cstdint>
#include <istream>
#include <stdexcept>
#include <string>
#include <utility>

#include "kovra/Data_PhotonEvents.hpp"
#include "kovra/FileHandler_KovraData.hpp"

namespace kovra {

/// Reads and writes photon files; the width arguments are the on-disk bytes of one length and one time value.
template <typename Length_Type, typename Time_Type, std::size_t length_bytes, std::size_t time_bytes,
          std::uint64_t file_type_index>
class FileHandler_PhotonEvents
    : public FileHandler_KovraData<file_type_index, Data_PhotonEvents<PhotonEvent<Length_Type, Time_Type>>> {
  using Base = FileHandler_KovraData<file_type_index, Data_PhotonEvents<PhotonEvent<Length_Type, Time_Type>>>;

 public:
  using PhotonEvent_Type = PhotonEvent<Length_Type, Time_Type>;
  using Data_Type = Data_PhotonEvents<PhotonEvent_Type>;
  using IO_Photons = typename Base::template IO_Records<PhotonEvent_Type, detail::make_identifier("photons")>;
  using IO_ExtTriggers = typename Base::template IO_Records<Time_Type, Base::extTrigs_identifier>;

  static File_Layout read_layout_at(std::istream& stream, std::streampos end) {
    return Base::template read_layout<PhotonEvent_Type, Time_Type>(
        stream, end, IO_Photons::identifier, "File contains partial photons!", "File does not contain photon data!");
  }

  static_assert(sizeof(Length_Type) == length_bytes && sizeof(Time_Type) == time_bytes);
  static_assert(sizeof(PhotonEvent_Type) == 2 * length_bytes + time_bytes, "photon records have no padding");

  Data_Type read_implementationSpecific(std::istream& stream, std::streampos end) const override {
    const File_Layout layout = read_layout_at(stream, end);
    auto lists = Base::template read_lists<PhotonEvent_Type, Time_Type>(stream, layout);
    return Data_Type{std::move(lists.first), std::move(lists.second)};
  }

  /// Opens and checks a file, every block's framing included, and returns where its lists lie, for reading
  /// them in pieces with a RecordCursor.
  static File_Layout read_layout(const std::string& file_name) {
    auto opened = Base::open_file(file_name);
    return read_layout_at(opened.stream, opened.end);
  }

  /// Writes the photons and, when present (even empty), the trigger list.
  static void save_file(const std::string& file_name, const Data_Type& data) {
    Base::template save_content<IO_Photons>(file_name, data.photonEvents, data.extTriggers);
  }
};

}  // namespace kovra
