// HDF5 round trip: the file is read back with the HDF5 library through a type built here by field name, so a
// wrong name, type or offset in the export shows up as a difference.

#include "inspect/Hdf5Export.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hdf5.h>

#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "InspectFiles.hpp"
#include "TempDir.hpp"

namespace {

using namespace kovra::inspect;

/// Deliberately not the record layout: other order, padding, native types.
struct Read_Event {
  double psd;
  std::uint64_t nPhotons;
  std::int64_t t;
  int pad;
  std::int32_t y;
  std::int32_t x;
};

struct Read_Photon {
  std::int64_t toa;
  std::int32_t y;
  std::int32_t x;
};

class H5_ReadFile {
 public:
  explicit H5_ReadFile(const std::string& name) : id(H5Fopen(name.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT)) {}
  ~H5_ReadFile() {
    if (id >= 0) H5Fclose(id);
  }
  bool has(const char* path) const { return H5Lexists(id, path, H5P_DEFAULT) > 0; }

  template <typename Entry_Type>
  std::vector<Entry_Type> read(const char* path, hid_t type) const {
    const hid_t dataset = H5Dopen2(id, path, H5P_DEFAULT);
    EXPECT_GE(dataset, 0) << path;
    const hid_t space = H5Dget_space(dataset);
    EXPECT_EQ(H5Sget_simple_extent_ndims(space), 1);
    hsize_t n = 0;
    H5Sget_simple_extent_dims(space, &n, nullptr);
    std::vector<Entry_Type> entries(n);
    if (n != 0) {
      EXPECT_GE(H5Dread(dataset, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, entries.data()), 0);
    }
    H5Sclose(space);
    H5Dclose(dataset);
    return entries;
  }

  double read_doubleAttribute(const char* path, const char* name) const {
    double value = std::numeric_limits<double>::quiet_NaN();
    const hid_t attribute = H5Aopen_by_name(id, path, name, H5P_DEFAULT, H5P_DEFAULT);
    EXPECT_GE(attribute, 0) << name;
    H5Aread(attribute, H5T_NATIVE_DOUBLE, &value);
    H5Aclose(attribute);
    return value;
  }

  std::string read_stringAttribute(const char* path, const char* name) const {
    const hid_t attribute = H5Aopen_by_name(id, path, name, H5P_DEFAULT, H5P_DEFAULT);
    EXPECT_GE(attribute, 0) << name;
    const hid_t type = H5Aget_type(attribute);
    std::string value(H5Tget_size(type), '\0');
    H5Aread(attribute, type, value.data());
    H5Tclose(type);
    H5Aclose(attribute);
    return value.substr(0, value.find('\0'));
  }

  hid_t id;
};

hid_t make_readEventType() {
  const hid_t type = H5Tcreate(H5T_COMPOUND, sizeof(Read_Event));
  H5Tinsert(type, "x", offsetof(Read_Event, x), H5T_NATIVE_INT32);
  H5Tinsert(type, "y", offsetof(Read_Event, y), H5T_NATIVE_INT32);
  H5Tinsert(type, "t", offsetof(Read_Event, t), H5T_NATIVE_INT64);
  H5Tinsert(type, "nPhotons", offsetof(Read_Event, nPhotons), H5T_NATIVE_UINT64);
  H5Tinsert(type, "psd", offsetof(Read_Event, psd), H5T_NATIVE_DOUBLE);
  return type;
}

hid_t make_readPhotonType() {
  const hid_t type = H5Tcreate(H5T_COMPOUND, sizeof(Read_Photon));
  H5Tinsert(type, "x", offsetof(Read_Photon, x), H5T_NATIVE_INT32);
  H5Tinsert(type, "y", offsetof(Read_Photon, y), H5T_NATIVE_INT32);
  H5Tinsert(type, "toa", offsetof(Read_Photon, toa), H5T_NATIVE_INT64);
  return type;
}

TEST(Hdf5ExportTest, EventRoundTripWithTriggers) {
  std::vector<Event_Row> rows;
  for (int i = 0; i < 9; ++i) {
    rows.push_back({i * px - 5, -i * px, 1000000L * i - 3, static_cast<std::uint64_t>(1) << i, 1.25e-9 * i});
  }
  rows.push_back({std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max(),
                  std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::uint64_t>::max(), -0.0});
  const std::vector<std::int64_t> triggers = {7, -3, std::numeric_limits<std::int64_t>::min()};
  const TempDir dir;
  const std::string name = dir.file("e.kovraevent");
  const std::string h5 = dir.file("e.h5");
  write_bytes(name, event_file(rows, triggers));
  write_hdf5(h5, RecordFile<Event>(name, 4));  // chunks of 4, 4 and 2 records

  const H5_ReadFile file(h5);
  ASSERT_GE(file.id, 0);
  const hid_t type = make_readEventType();
  const auto events = file.read<Read_Event>("events", type);
  H5Tclose(type);
  ASSERT_EQ(events.size(), rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(events[i].x, rows[i].x);
    EXPECT_EQ(events[i].y, rows[i].y);
    EXPECT_EQ(events[i].t, rows[i].t);
    EXPECT_EQ(events[i].nPhotons, rows[i].nPhotons);
    EXPECT_EQ(std::memcmp(&events[i].psd, &rows[i].psd, sizeof(double)), 0);
  }
  EXPECT_EQ(file.read<std::int64_t>("extTriggers", H5T_NATIVE_INT64), triggers);

  EXPECT_EQ(file.read_stringAttribute("events", "x_unit"), "pixel");
  EXPECT_EQ(file.read_doubleAttribute("events", "x_scale"), 1.0 / 65536);
  EXPECT_EQ(file.read_doubleAttribute("events", "y_scale"), 1.0 / 65536);
  EXPECT_EQ(file.read_stringAttribute("events", "t_unit"), "s");
  EXPECT_EQ(file.read_doubleAttribute("events", "t_scale"), 1.5625e-9);
  EXPECT_EQ(file.read_stringAttribute("events", "psd_unit"), "s");
  EXPECT_EQ(file.read_doubleAttribute("events", "psd_scale"), 1.0);
  EXPECT_EQ(file.read_stringAttribute("extTriggers", "unit"), "s");
  EXPECT_EQ(file.read_doubleAttribute("extTriggers", "scale"), 1.5625e-9);
}

TEST(Hdf5ExportTest, PhotonsWithAbsentAndEmptyTriggerLists) {
  const std::vector<Photon_Row> rows = {{1, 2, 3}, {-px, px, -640000000}};
  const TempDir dir;
  const std::string name = dir.file("p.kovraphot");
  const std::string h5 = dir.file("p.h5");
  const hid_t type = make_readPhotonType();

  write_bytes(name, photon_file(rows));
  write_hdf5(h5, RecordFile<PhotonEvent>(name));
  {
    const H5_ReadFile file(h5);
    const auto photons = file.read<Read_Photon>("photons", type);
    ASSERT_EQ(photons.size(), 2u);
    EXPECT_EQ(photons[1].x, -px);
    EXPECT_EQ(photons[1].y, px);
    EXPECT_EQ(photons[1].toa, -640000000);
    EXPECT_EQ(photons[0].toa, 3);
    EXPECT_EQ(file.read_stringAttribute("photons", "toa_unit"), "s");
    EXPECT_FALSE(file.has("extTriggers"));
  }

  write_bytes(name, photon_file({}, std::vector<std::int64_t>{}));
  write_hdf5(h5, RecordFile<PhotonEvent>(name));  // replaces the earlier file
  {
    const H5_ReadFile file(h5);
    EXPECT_TRUE(file.read<Read_Photon>("photons", type).empty());
    ASSERT_TRUE(file.has("extTriggers"));
    EXPECT_TRUE(file.read<std::int64_t>("extTriggers", H5T_NATIVE_INT64).empty());
  }
  H5Tclose(type);
}

TEST(Hdf5ExportTest, UnwritablePathIsOneError) {
  const TempDir dir;
  const std::string name = dir.file("p.kovraphot");
  write_bytes(name, photon_file({{1, 2, 3}}));
  EXPECT_THAT([&] { write_hdf5(dir.file("missing/p.h5"), RecordFile<PhotonEvent>(name)); },
              ::testing::ThrowsMessage<std::runtime_error>(
                  ::testing::StrEq("cannot write HDF5 file \"" + dir.file("missing/p.h5") + "\"")));
}

}  // namespace
