#pragma once

// Records as an HDF5 file that h5py, HDF5's own tools and other readers open directly:
//
//   /photons or /events   one-dimensional compound dataset of the raw records, fields named as in the records
//                         (x, y, toa | x, y, t, nPhotons, psd), little-endian, in file order
//   /extTriggers          one-dimensional signed 64-bit raw trigger times; present exactly when the file has a
//                         trigger list, with zero entries when that list is empty
//
// Each field's unit is stated by two attributes on the dataset: "<field>_unit" (text) and "<field>_scale" (the
// unit per raw count), so x_px = x * x_scale; the trigger dataset carries "unit" and "scale". Text attributes are
// variable-length UTF-8 strings, which h5py reads as str. Objects are created without modification times, so the
// same input always gives the same bytes.

#include <hdf5.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/Progress.hpp"
#include "inspect/OutputPath_Atomic.hpp"
#include "inspect/RecordFile.hpp"

namespace kovra::inspect {

/// One HDF5 identifier, closed with its kind's close function when it goes out of scope.
class H5_Handle {
 public:
  H5_Handle(hid_t id_, herr_t (*close_)(hid_t)) : id(id_), close(close_) {}
  H5_Handle(const H5_Handle&) = delete;
  H5_Handle& operator=(const H5_Handle&) = delete;
  H5_Handle(H5_Handle&& other) noexcept : id(std::exchange(other.id, -1)), close(other.close) {}
  H5_Handle& operator=(H5_Handle&&) = delete;
  ~H5_Handle() {
    if (id >= 0) close(id);
  }
  hid_t get() const { return id; }
  bool is_valid() const { return id >= 0; }

 private:
  hid_t id;
  herr_t (*close)(hid_t);
};

/// The unit of one record field: its name in the compound type, its unit text and the unit per raw count.
struct H5_FieldUnit {
  const char* field;
  const char* unit;
  double scale;
};

template <typename Record_Type>
std::vector<H5_FieldUnit> get_h5FieldUnits() {
  const double pixel = 1.0 / static_cast<double>(Length::units_per_pixel);
  if constexpr (std::is_same_v<Record_Type, Event>) {
    return {{"x", "pixel", pixel},
            {"y", "pixel", pixel},
            {"t", "s", Time::tick_seconds},
            {"nPhotons", "photons", 1.0},
            {"psd", "s", 1.0}};
  } else {
    return {{"x", "pixel", pixel}, {"y", "pixel", pixel}, {"toa", "s", Time::tick_seconds}};
  }
}

namespace hdf5_detail {

/// HDF5's own words for the failure it just reported: the most specific entry of its error stack.
inline std::string get_h5ErrorText() {
  std::string text = "HDF5 error";
  H5Ewalk2(
      H5E_DEFAULT, H5E_WALK_UPWARD,
      [](unsigned n, const H5E_error2_t* entry, void* found) -> herr_t {
        if (n == 0 && entry->desc != nullptr) *static_cast<std::string*>(found) = entry->desc;
        return 0;
      },
      &text);
  return text;
}

class H5_Writer {
 public:
  /// `fileName` is the name the messages give (the target, when the library writes a temporary beside it).
  explicit H5_Writer(std::string fileName_) : fileName(std::move(fileName_)) { errno = 0; }

  /// Throws the one message of every HDF5 failure unless `status` says success, with the reason: the system's
  /// where a system call failed (errno is cleared after every success, so a value belongs to the failing call),
  /// else HDF5's.
  template <typename Status_Type>
  Status_Type check(Status_Type status) const {
    if (status < 0) {
      const int error = errno;
      throw std::runtime_error("cannot write HDF5 file \"" + fileName +
                               "\": " + (error != 0 ? std::string(std::strerror(error)) : get_h5ErrorText()));
    }
    errno = 0;
    return status;
  }

  H5_Handle handle(hid_t id, herr_t (*close)(hid_t)) const { return H5_Handle(check(id), close); }

  /// A text attribute as a variable-length UTF-8 string (h5py reads a fixed-length one as bytes).
  void write_stringAttribute(hid_t object, const std::string& name, const std::string& value) const {
    const H5_Handle type = handle(H5Tcopy(H5T_C_S1), H5Tclose);
    check(H5Tset_size(type.get(), H5T_VARIABLE));
    check(H5Tset_cset(type.get(), H5T_CSET_UTF8));
    const H5_Handle space = handle(H5Screate(H5S_SCALAR), H5Sclose);
    const H5_Handle attribute =
        handle(H5Acreate2(object, name.c_str(), type.get(), space.get(), H5P_DEFAULT, H5P_DEFAULT), H5Aclose);
    const char* text = value.c_str();
    check(H5Awrite(attribute.get(), type.get(), &text));
  }

  void write_doubleAttribute(hid_t object, const std::string& name, double value) const {
    const H5_Handle space = handle(H5Screate(H5S_SCALAR), H5Sclose);
    const H5_Handle attribute =
        handle(H5Acreate2(object, name.c_str(), H5T_IEEE_F64LE, space.get(), H5P_DEFAULT, H5P_DEFAULT), H5Aclose);
    check(H5Awrite(attribute.get(), H5T_NATIVE_DOUBLE, &value));
  }

  void write_countAttribute(hid_t object, const std::string& name, std::uint64_t value) const {
    const H5_Handle space = handle(H5Screate(H5S_SCALAR), H5Sclose);
    const H5_Handle attribute =
        handle(H5Acreate2(object, name.c_str(), H5T_STD_U64LE, space.get(), H5P_DEFAULT, H5P_DEFAULT), H5Aclose);
    check(H5Awrite(attribute.get(), H5T_NATIVE_UINT64, &value));
  }

  /// A one-dimensional dataset of `count` entries of `type`, without modification times.
  H5_Handle create_dataset(hid_t file, const char* name, hid_t type, std::uint64_t count) const {
    const hsize_t dims[1] = {count};
    const H5_Handle space = handle(H5Screate_simple(1, dims, nullptr), H5Sclose);
    const H5_Handle properties = handle(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
    check(H5Pset_obj_track_times(properties.get(), false));
    return handle(H5Dcreate2(file, name, type, space.get(), H5P_DEFAULT, properties.get(), H5P_DEFAULT), H5Dclose);
  }

  /// An n-dimensional dataset of `type`, without modification times; with `chunk` given, stored in chunks of that
  /// shape, byte-shuffled and deflated (level 4).
  H5_Handle create_array(hid_t file, const char* name, hid_t type, const std::vector<hsize_t>& dims,
                         const std::vector<hsize_t>& chunk = {}) const {
    const H5_Handle space = handle(H5Screate_simple(static_cast<int>(dims.size()), dims.data(), nullptr), H5Sclose);
    const H5_Handle properties = handle(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
    check(H5Pset_obj_track_times(properties.get(), false));
    if (!chunk.empty()) {
      check(H5Pset_chunk(properties.get(), static_cast<int>(chunk.size()), chunk.data()));
      check(H5Pset_shuffle(properties.get()));
      check(H5Pset_deflate(properties.get(), 4));
    }
    return handle(H5Dcreate2(file, name, type, space.get(), H5P_DEFAULT, properties.get(), H5P_DEFAULT), H5Dclose);
  }

  /// Writes a whole dataset at once from memory laid out as `type`.
  void write_all(hid_t dataset, hid_t type, const void* data) const {
    check(H5Dwrite(dataset, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, data));
  }

  /// Writes `entries` (in memory as `type`) to the dataset at entry `offset`.
  template <typename Entry_Type>
  void write_entries(hid_t dataset, hid_t type, std::uint64_t offset, std::span<const Entry_Type> entries) const {
    if (entries.empty()) return;
    const hsize_t start[1] = {offset};
    const hsize_t count[1] = {entries.size()};
    const H5_Handle fileSpace = handle(H5Dget_space(dataset), H5Sclose);
    check(H5Sselect_hyperslab(fileSpace.get(), H5S_SELECT_SET, start, nullptr, count, nullptr));
    const H5_Handle memorySpace = handle(H5Screate_simple(1, count, nullptr), H5Sclose);
    check(H5Dwrite(dataset, type, memorySpace.get(), fileSpace.get(), H5P_DEFAULT, entries.data()));
  }

  /// The compound type of the records, little-endian, laid out as in memory (the records have no padding).
  template <typename Record_Type>
  H5_Handle create_recordType() const {
    H5_Handle type = handle(H5Tcreate(H5T_COMPOUND, sizeof(Record_Type)), H5Tclose);
    check(H5Tinsert(type.get(), "x", offsetof(Record_Type, x), H5T_STD_I32LE));
    check(H5Tinsert(type.get(), "y", offsetof(Record_Type, y), H5T_STD_I32LE));
    if constexpr (std::is_same_v<Record_Type, Event>) {
      check(H5Tinsert(type.get(), "t", offsetof(Event, t), H5T_STD_I64LE));
      check(H5Tinsert(type.get(), "nPhotons", offsetof(Event, nPhotons), H5T_STD_U64LE));
      check(H5Tinsert(type.get(), "psd", offsetof(Event, psd), H5T_IEEE_F64LE));
    } else {
      check(H5Tinsert(type.get(), "toa", offsetof(PhotonEvent, toa), H5T_STD_I64LE));
    }
    return type;
  }

  const std::string fileName;
};

}  // namespace hdf5_detail

/// The content of the HDF5 export, written to `temporary`; `fileName` names it in messages.
template <typename Record_Type>
void write_hdf5Content(const std::string& temporary, const std::string& fileName, const RecordFile<Record_Type>& file,
                       tools::Progress* progress) {
  const hdf5_detail::H5_Writer writer(fileName);
  const H5_Handle h5File =
      writer.handle(H5Fcreate(temporary.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT), H5Fclose);
  const H5_Handle recordType = writer.create_recordType<Record_Type>();
  const H5_Handle records =
      writer.create_dataset(h5File.get(), Record_Traits<Record_Type>::name, recordType.get(), file.size());
  for (const H5_FieldUnit& unit : get_h5FieldUnits<Record_Type>()) {
    writer.write_stringAttribute(records.get(), std::string(unit.field) + "_unit", unit.unit);
    writer.write_doubleAttribute(records.get(), std::string(unit.field) + "_scale", unit.scale);
  }
  std::uint64_t done = 0;
  file.for_each_chunk(
      [&](std::span<const Record_Type> chunk) {
    writer.write_entries(records.get(), recordType.get(), done, chunk);
    done += chunk.size();
      },
      progress);

  if (file.has_extTriggers()) {
    const H5_Handle triggers =
        writer.create_dataset(h5File.get(), "extTriggers", H5T_STD_I64LE, file.get_extTriggerCount());
    writer.write_stringAttribute(triggers.get(), "unit", "s");
    writer.write_doubleAttribute(triggers.get(), "scale", Time::tick_seconds);
    std::uint64_t written = 0;
    file.for_each_extTriggerChunk([&](std::span<const Time> chunk) {
      writer.write_entries(triggers.get(), H5T_STD_I64LE, written, chunk);
      written += chunk.size();
    });
  }
  writer.check(H5Fflush(h5File.get(), H5F_SCOPE_GLOBAL));
}

/// Writes the whole file as HDF5 to `fileName` (replacing it once complete), one chunk of records at a time;
/// throws std::runtime_error with the reason when the file cannot be written.
template <typename Record_Type>
void write_hdf5(const std::string& fileName, const RecordFile<Record_Type>& file, tools::Progress* progress = nullptr) {
  static_assert(sizeof(Length) == 4 && sizeof(Time) == 8);
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);  // failures become one exception, not a printed error stack
  OutputPath_Atomic output(fileName, "HDF5 file");
  output.create();
  write_hdf5Content(output.get_temporary(), fileName, file, progress);
  output.commit();
}

}  // namespace kovra::inspect
