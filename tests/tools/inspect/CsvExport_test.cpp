// CSV round trip: every field read back from the text equals the record, in raw counts and in units.

#include "inspect/CsvExport.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "InspectFiles.hpp"
#include "TempDir.hpp"

namespace {

using namespace kovra::inspect;

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  for (std::size_t end; (end = text.find(separator, begin)) != std::string::npos; begin = end + 1) {
    parts.push_back(text.substr(begin, end - begin));
  }
  parts.push_back(text.substr(begin));
  return parts;
}

template <typename Number_Type>
Number_Type parse(const std::string& field) {
  Number_Type value{};
  const auto [ptr, error] = std::from_chars(field.data(), field.data() + field.size(), value);
  EXPECT_TRUE(error == std::errc() && ptr == field.data() + field.size()) << '"' << field << '"';
  return value;
}

bool same_bits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST(CsvExportTest, EventRoundTrip) {
  const std::vector<Event_Row> rows = {
      {0, 0, 0, 1, 0.0},
      {-1, std::numeric_limits<std::int32_t>::max(), std::numeric_limits<std::int64_t>::min(), 2, 0.1 + 0.2},
      {std::numeric_limits<std::int32_t>::min(), 3, std::numeric_limits<std::int64_t>::max(),
       std::numeric_limits<std::uint64_t>::max(), 1e-300},
      {12345, -px / 3, 987654321, 7, std::numeric_limits<double>::quiet_NaN()},
      {5 * px, 6 * px, 1, 0, -2.5e-9}};
  const TempDir dir;
  const std::string name = dir.file("e.kovraevent");
  write_bytes(name, event_file(rows));
  std::ostringstream out;
  write_csv(out, RecordFile<Event>(name, 2));

  const auto lines = split(out.str(), '\n');
  ASSERT_EQ(lines.size(), rows.size() + 2);  // header, rows, nothing after the last newline
  EXPECT_EQ(lines.front(), "x,y,t,x_px,y_px,t_s,nPhotons,psd_s");
  EXPECT_EQ(lines.back(), "");
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(lines[i + 1]);
    const auto f = split(lines[i + 1], ',');
    ASSERT_EQ(f.size(), 8u);
    EXPECT_EQ(parse<std::int32_t>(f[0]), rows[i].x);
    EXPECT_EQ(parse<std::int32_t>(f[1]), rows[i].y);
    EXPECT_EQ(parse<std::int64_t>(f[2]), rows[i].t);
    EXPECT_EQ(parse<double>(f[3]), rows[i].x / 65536.0);
    EXPECT_EQ(parse<double>(f[4]), rows[i].y / 65536.0);
    EXPECT_EQ(parse<double>(f[5]), static_cast<double>(rows[i].t) * 1.5625e-9);
    EXPECT_EQ(parse<std::uint64_t>(f[6]), rows[i].nPhotons);
    const double psd = parse<double>(f[7]);
    EXPECT_TRUE(same_bits(psd, rows[i].psd) || (std::isnan(psd) && std::isnan(rows[i].psd)));
  }
}

TEST(CsvExportTest, PhotonRoundTripAndEmptyFile) {
  const std::vector<Photon_Row> rows = {{px / 2, 3 * px, 640000000}, {-7, 0, -1}, {1, 2, 3}};
  const TempDir dir;
  const std::string name = dir.file("p.kovraphot");
  write_bytes(name, photon_file(rows, std::vector<std::int64_t>{1, 2}));
  std::ostringstream out;
  write_csv(out, RecordFile<PhotonEvent>(name));
  const auto lines = split(out.str(), '\n');
  ASSERT_EQ(lines.size(), rows.size() + 2);
  EXPECT_EQ(lines[0], "x,y,toa,x_px,y_px,toa_s");
  EXPECT_EQ(lines[1], "32768,196608,640000000,0.5,3,1");
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto f = split(lines[i + 1], ',');
    ASSERT_EQ(f.size(), 6u);
    EXPECT_EQ(parse<std::int32_t>(f[0]), rows[i].x);
    EXPECT_EQ(parse<std::int32_t>(f[1]), rows[i].y);
    EXPECT_EQ(parse<std::int64_t>(f[2]), rows[i].toa);
    EXPECT_EQ(parse<double>(f[3]), rows[i].x / 65536.0);
    EXPECT_EQ(parse<double>(f[5]), static_cast<double>(rows[i].toa) * 1.5625e-9);
  }

  write_bytes(name, photon_file({}));
  std::ostringstream empty;
  write_csv(empty, RecordFile<PhotonEvent>(name));
  EXPECT_EQ(empty.str(), "x,y,toa,x_px,y_px,toa_s\n");
}

TEST(CsvExportTest, FailedStreamIsReported) {
  const TempDir dir;
  const std::string name = dir.file("p.kovraphot");
  write_bytes(name, photon_file({{1, 2, 3}}));
  std::ostringstream out;
  out.setstate(std::ios::badbit);
  EXPECT_THROW(write_csv(out, RecordFile<PhotonEvent>(name)), std::runtime_error);
}

}  // namespace
