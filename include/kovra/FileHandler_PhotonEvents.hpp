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

  static_assert(sizeof(Length_Type) == length_bytes && sizeof(Time_Type) == time_bytes);
  static_assert(sizeof(PhotonEvent_Type) == 2 * length_bytes + time_bytes, "photon records have no padding");

  Data_Type read_implementationSpecific(std::istream& stream, std::streampos end) const override {
    auto content = Base::template read_content<PhotonEvent_Type, Time_Type>(stream, end, IO_Photons::identifier,
                                                                           "File contains partial photons!");
    if (!content.records) throw std::invalid_argument("File does not contain photon data!");
    return Data_Type{std::move(*content.records), std::move(content.extTriggers)};
  }

  /// Writes the photons and, when present (even empty), the trigger list.
  static void save_file(const std::string& file_name, const Data_Type& data) {
    Base::template save_content<IO_Photons>(file_name, data.photonEvents, data.extTriggers);
  }
};

}  // namespace kovra
