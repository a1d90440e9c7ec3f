// HDF5 round trip: the file is read back with the HDF5 library through a type built here by field name, in
// another order and with native types, so a wrong name, type or offset in the export shows as a difference.

#include "inspect/Hdf5Export.hpp"

#include <gtest/gtest.h>
#include <hdf5.h>

#include <cstddef>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "InspectFiles.hpp"
#include "TempDir.hpp"

namespace {

using namespace kovra::inspect;

struct Read_Event {
  double psd;
  std::uint64_t nPhotons;
  std::int64_t t;
  std::int32_t y;
  std::int32_t x;
};

template <typename Entry_Type>
std::vector<Entry_Type> read_dataset(hid_t file, const char* path, hid_t type) {
  const hid_t dataset = H5Dopen2(file, path, H5P_DEFAULT);
  const hid_t space = H5Dget_space(dataset);
  std::vector<Entry_Type> entries(static_cast<std::size_t>(H5Sget_simple_extent_npoints(space)));
  if (!entries.empty()) {
    EXPECT_GE(H5Dread(dataset, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, entries.data()), 0);
  }
  H5Sclose(space);
  H5Dclose(dataset);
  return entries;
}

double read_scale(hid_t file, const char* path, const char* name) {
  double value = 0.0;
  const hid_t attribute = H5Aopen_by_name(file, path, name, H5P_DEFAULT, H5P_DEFAULT);
  H5Aread(attribute, H5T_NATIVE_DOUBLE, &value);
  H5Aclose(attribute);
  return value;
}

TEST(Hdf5ExportTest, EventRoundTripWithTriggersAndUnits) {
  std::vector<Event_Row> rows;
  for (int i = 0; i < 9; ++i)
    rows.push_back({i * px - 5, -i * px, 1000000L * i - 3, std::uint64_t{1} << i, 1.25e-9 * i});
  rows.push_back({std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max(),
                  std::numeric_limits<std::int64_t>::max(), ~std::uint64_t{0}, -0.0});
  const std::vector<std::int64_t> triggers = {7, -3, std::numeric_limits<std::int64_t>::min()};
  const TempDir dir;
  write_bytes(dir.file("e.kovraevent"), event_file(rows, triggers));
  write_hdf5(dir.file("e.h5"), RecordFile<Event>(dir.file("e.kovraevent"), 4));  // chunks of 4, 4 and 2

  const hid_t file = H5Fopen(dir.file("e.h5").c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  ASSERT_GE(file, 0);
  const hid_t type = H5Tcreate(H5T_COMPOUND, sizeof(Read_Event));
  H5Tinsert(type, "x", offsetof(Read_Event, x), H5T_NATIVE_INT32);
  H5Tinsert(type, "y", offsetof(Read_Event, y), H5T_NATIVE_INT32);
  H5Tinsert(type, "t", offsetof(Read_Event, t), H5T_NATIVE_INT64);
  H5Tinsert(type, "nPhotons", offsetof(Read_Event, nPhotons), H5T_NATIVE_UINT64);
  H5Tinsert(type, "psd", offsetof(Read_Event, psd), H5T_NATIVE_DOUBLE);
  const auto events = read_dataset<Read_Event>(file, "events", type);
  ASSERT_EQ(events.size(), rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(events[i].x, rows[i].x);
    EXPECT_EQ(events[i].y, rows[i].y);
    EXPECT_EQ(events[i].t, rows[i].t);
    EXPECT_EQ(events[i].nPhotons, rows[i].nPhotons);
    EXPECT_EQ(std::memcmp(&events[i].psd, &rows[i].psd, sizeof(double)), 0);
  }
  EXPECT_EQ(read_dataset<std::int64_t>(file, "extTriggers", H5T_NATIVE_INT64), triggers);
  EXPECT_EQ(read_scale(file, "events", "x_scale"), 1.0 / 65536);
  EXPECT_EQ(read_scale(file, "events", "t_scale"), 1.5625e-9);
  EXPECT_EQ(read_scale(file, "events", "psd_scale"), 1.0);
  EXPECT_EQ(read_scale(file, "extTriggers", "scale"), 1.5625e-9);
  H5Tclose(type);
  H5Fclose(file);
}

TEST(Hdf5ExportTest, AbsentTriggersStayAbsentAndEmptyStayEmpty) {
  const TempDir dir;
  const std::string name = dir.file("p.kovraphot");
  const std::string h5 = dir.file("p.h5");
  const hid_t toaOnly = H5Tcreate(H5T_COMPOUND, sizeof(std::int64_t));
  H5Tinsert(toaOnly, "toa", 0, H5T_NATIVE_INT64);
  write_bytes(name, photon_file({{1, 2, 3}}));
  write_hdf5(h5, RecordFile<PhotonEvent>(name));
  hid_t file = H5Fopen(h5.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  EXPECT_EQ(read_dataset<std::int64_t>(file, "photons", toaOnly), std::vector<std::int64_t>{3});
  EXPECT_EQ(H5Lexists(file, "extTriggers", H5P_DEFAULT), 0);
  H5Fclose(file);

  write_bytes(name, photon_file({}, std::vector<std::int64_t>{}));
  write_hdf5(h5, RecordFile<PhotonEvent>(name));
  file = H5Fopen(h5.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  EXPECT_TRUE(read_dataset<std::int64_t>(file, "photons", toaOnly).empty());
  ASSERT_GT(H5Lexists(file, "extTriggers", H5P_DEFAULT), 0);
  EXPECT_TRUE(read_dataset<std::int64_t>(file, "extTriggers", H5T_NATIVE_INT64).empty());
  H5Fclose(file);
  H5Tclose(toaOnly);
}

}  // namespace
