// CSV round trip: every field read back from the text equals the record, as raw count and in its unit.

#include "inspect/CsvExport.hpp"

#include <gtest/gtest.h>

#include <charconv>
#include <cstring>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "InspectFiles.hpp"
#include "TempDir.hpp"

namespace {

using namespace kovra::inspect;

template <typename Number_Type>
Number_Type parse_next(std::istringstream& line) {
  std::string field;
  std::getline(line, field, ',');
  Number_Type value{};
  const auto [ptr, error] = std::from_chars(field.data(), field.data() + field.size(), value);
  EXPECT_TRUE(error == std::errc() && ptr == field.data() + field.size()) << '"' << field << '"';
  return value;
}

TEST(CsvExportTest, EventRoundTrip) {
  using limits32 = std::numeric_limits<std::int32_t>;
  using limits64 = std::numeric_limits<std::int64_t>;
  const std::vector<Event_Row> rows = {{0, 0, 0, 1, 0.0},
                                       {-1, limits32::max(), limits64::min(), 2, 0.1 + 0.2},
                                       {limits32::min(), -px / 3, limits64::max(), ~std::uint64_t{0}, 1e-300},
                                       {12345, 6 * px, 987654321, 7, -2.5e-9}};
  const TempDir dir;
  const std::string name = dir.file("e.kovraevent");
  write_bytes(name, event_file(rows));
  std::ostringstream out;
  write_csv(out, RecordFile<Event>(name, 3));

  std::istringstream text(out.str());
  std::string line;
  std::getline(text, line);
  EXPECT_EQ(line, "x,y,t,x_px,y_px,t_s,nPhotons,psd_s");
  for (const Event_Row& row : rows) {
    ASSERT_TRUE(std::getline(text, line));
    SCOPED_TRACE(line);
    std::istringstream fields(line);
    EXPECT_EQ(parse_next<std::int32_t>(fields), row.x);
    EXPECT_EQ(parse_next<std::int32_t>(fields), row.y);
    EXPECT_EQ(parse_next<std::int64_t>(fields), row.t);
    EXPECT_EQ(parse_next<double>(fields), row.x / 65536.0);
    EXPECT_EQ(parse_next<double>(fields), row.y / 65536.0);
    EXPECT_EQ(parse_next<double>(fields), static_cast<double>(row.t) * 1.5625e-9);
    EXPECT_EQ(parse_next<std::uint64_t>(fields), row.nPhotons);
    const double psd = parse_next<double>(fields);
    EXPECT_EQ(std::memcmp(&psd, &row.psd, sizeof psd), 0);
    EXPECT_TRUE(fields.eof());
  }
  EXPECT_FALSE(std::getline(text, line));
}

TEST(CsvExportTest, PhotonLinesAndEmptyFile) {
  const TempDir dir;
  const std::string name = dir.file("p.kovraphot");
  write_bytes(name, photon_file({{px / 2, 3 * px, 640000000}, {-7, 0, -1}}, std::vector<std::int64_t>{1}));
  std::ostringstream out;
  write_csv(out, RecordFile<PhotonEvent>(name));
  EXPECT_EQ(out.str(),
            "x,y,toa,x_px,y_px,toa_s\n32768,196608,640000000,0.5,3,1\n-7,0,-1,-0.0001068115234375,0,-1.5625e-09\n");

  write_bytes(name, photon_file({}));
  std::ostringstream empty;
  write_csv(empty, RecordFile<PhotonEvent>(name));
  EXPECT_EQ(empty.str(), "x,y,toa,x_px,y_px,toa_s\n");
}

}  // namespace
