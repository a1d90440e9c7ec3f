#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "FileBytes.hpp"
#include "TempDir.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using namespace kovra::tpx3spidr;
using testing::HasSubstr;
using testing::StrEq;
using testing::ThrowsMessage;

namespace {

FileBytes photon(std::int32_t x, std::int32_t y, std::int64_t toa) { return FileBytes().i32(x).i32(y).i64(toa); }

FileBytes photons_block(std::initializer_list<FileBytes> records) {
  FileBytes content;
  for (const auto& r : records) content.raw(r.data);
  return FileBytes().block("photons", content);
}

class ContainerFileTest : public testing::Test {
 protected:
  std::string write(const std::string& bytes, const std::string& name = "f.kovraphot") {
    const std::string file = dir.file(name);
    write_bytes(file, bytes);
    return file;
  }
  Data_PhotonEvents load_photons(const std::string& bytes) {
    return FileHandler_PhotonEvents().load_file(write(bytes));
  }
  Data_Events load_events(const std::string& bytes) { return FileHandler_Events().load_file(write(bytes)); }

  TempDir dir;
};

TEST_F(ContainerFileTest, ReadsPhotonsAndTriggersFromLiteralBytes) {
  const FileBytes photons =
      photons_block({photon(1, -2, 3), photon(-65536, 7, std::numeric_limits<std::int64_t>::min())});
  const std::pair<FileBytes, std::string> cases[] = {
      {FileBytes(photons).block("extTrigs", FileBytes().i64(-5).i64(9)), "1,-2,3 -65536,7,-9223372036854775808 | -5 9"},
      // Triggers may come first; an empty trigger block is present and empty; no block is absent.
      {FileBytes().block("extTrigs", FileBytes()).raw(photons_block({}).data), "|"},
      {photons_block({photon(1, 1, 1)}), "1,1,1 | absent"},
      // A second block of a kind replaces the first.
      {FileBytes(photons_block({photon(1, 1, 1), photon(2, 2, 2)}))
           .raw(photons_block({photon(3, 3, 3)}).data)
           .block("extTrigs", FileBytes().i64(1))
           .block("extTrigs", FileBytes().i64(2).i64(3)),
       "3,3,3 | 2 3"},
  };
  for (const auto& [content, expected] : cases) {
    const auto data = load_photons(FileBytes::file(2, content).data);
    std::ostringstream read;
    for (const auto& p : data.photonEvents) read << p.x.value << ',' << p.y.value << ',' << p.toa.value << ' ';
    read << '|';
    if (!data.extTriggers) read << " absent";
    for (const Time t : data.extTriggers.value_or(std::vector<Time>{})) read << ' ' << t.value;
    EXPECT_EQ(read.str(), expected);
  }
}

TEST_F(ContainerFileTest, RejectsMalformedFilesWithExactMessages) {
  const std::string valid_photons = photons_block({photon(1, 2, 3)}).data;
  auto file_with_sizes = [](std::uint64_t outer, std::uint64_t build) {
    return FileBytes().id("KOVRA").u64(outer).id("build").u64(build).u64(0).u64(2).raw(photons_block({}).data).data;
  };
  struct Case {
    const char* what;
    std::string bytes;
    std::string message;
    bool events = false;  // read as an event file
  };
  const std::vector<Case> cases = {
      {"empty file", "", "Read Error!"},
      {"shorter than a header", "KOVRA", "Read Error!"},
      {"wrong magic", FileBytes::file(2, FileBytes(photons_block({}))).data.replace(5, 1, "X"),
       "Not a valid KOVRA file!"},
      {"outer size too large", file_with_sizes(1000, 16),
       "Block size is indicated as 1000 but only 48 bytes are left in the file!"},
      // The fit test adds position and size as signed 64-bit values: a sum of 2^63 or more is negative, passes,
      // and the next check decides.
      {"outer block ending at 2^63 - 1", file_with_sizes((std::uint64_t{1} << 63) - 17, 16),
       "Block size is indicated as 9223372036854775791 but only 48 bytes are left in the file!"},
      {"outer block ending at 2^63", file_with_sizes((std::uint64_t{1} << 63) - 16, 16), "File size mismatch!"},
      {"outer size of 2^64 - 1", file_with_sizes(std::numeric_limits<std::uint64_t>::max(), 16), "File size mismatch!"},
      {"build size of 2^63", file_with_sizes(48, std::uint64_t{1} << 63), "Build info size missmatch! File corrupted?"},
      {"unknown block of size 2^63", FileBytes::file(2, FileBytes().id("other").u64(std::uint64_t{1} << 63)).data,
       "Block identifier not recognized!"},
      {"partial photons of size 2^63 + 8",
       FileBytes::file(2, FileBytes().id("photons").u64((std::uint64_t{1} << 63) + 8)).data,
       "File contains partial photons!"},
      {"outer size too small", file_with_sizes(40, 16), "File size mismatch!"},
      {"trailing bytes", FileBytes::file(2, FileBytes(photons_block({}))).raw("x").data, "File size mismatch!"},
      {"no build block", FileBytes().block("KOVRA", FileBytes().block("photons", FileBytes())).data,
       "File is missing build information!"},
      {"build block of 24 bytes",
       FileBytes().block("KOVRA", FileBytes().block("build", FileBytes().u64(0).u64(2).u64(0))).data,
       "Build info size missmatch! File corrupted?"},
      {"build block past the end", FileBytes().block("KOVRA", FileBytes().id("build").u64(100).u64(0)).data,
       "Block size is indicated as 100 but only 8 bytes are left in the file!"},
      {"wrong version before wrong type", FileBytes::file(3, FileBytes(photons_block({})), 1).data,
       "File has wrong version!"},
      {"wrong type", FileBytes::file(3, FileBytes(photons_block({}))).data, "File has wrong type!"},
      {"only header and build block", FileBytes::file(2, FileBytes()).data, "File does not contain photon data!"},
      {"triggers but no photons", FileBytes::file(2, FileBytes().block("extTrigs", FileBytes().i64(1))).data,
       "File does not contain photon data!"},
      {"unknown block", FileBytes::file(2, FileBytes(photons_block({})).block("events", FileBytes())).data,
       "Block identifier not recognized!"},
      {"identifier with non-zero padding", FileBytes::file(2, FileBytes().id("photons\x01").u64(0)).data,
       "Block identifier not recognized!"},
      {"partial photon", FileBytes::file(2, FileBytes().block("photons", FileBytes().u64(1).u64(2).u64(3))).data,
       "File contains partial photons!"},
      {"partial trigger",
       FileBytes::file(2, FileBytes(photons_block({})).block("extTrigs", FileBytes().u64(1).i32(2))).data,
       "File contains partial external triggers!"},
      {"content block past the end",
       FileBytes::file(2, FileBytes().id("photons").u64(32).raw(photon(1, 1, 1).data)).data,
       "Block size is indicated as 32 but only 16 bytes are left in the file!"},
      {"partial event",
       FileBytes::file(3, FileBytes().block("events", FileBytes().u64(0).u64(0).u64(0).u64(0).u64(0))).data,
       "File contains partial events!", true},
      {"triggers but no events", FileBytes::file(3, FileBytes().block("extTrigs", FileBytes())).data,
       "File does not contain event data!", true},
  };
  for (const auto& c : cases) {
    EXPECT_THAT([&] { c.events ? (void)load_events(c.bytes) : (void)load_photons(c.bytes); },
                ThrowsMessage<std::invalid_argument>(StrEq(c.message)))
        << c.what;
  }
  // A list of 2^59 photons or 2^60 triggers fits no vector: it fails as reserving room for it would.
  for (const char* name : {"photons", "extTrigs"}) {
    EXPECT_THAT([&] { load_photons(FileBytes::file(2, FileBytes().id(name).u64(std::uint64_t{1} << 63)).data); },
                ThrowsMessage<std::length_error>(StrEq("vector::reserve")))
        << name;
  }
  EXPECT_THAT([&] { FileHandler_PhotonEvents().load_file(dir.file("missing.kovraphot")); },
              ThrowsMessage<std::invalid_argument>(
                  StrEq("file \"" + dir.file("missing.kovraphot") + "\" could not be opened!")));
}

TEST_F(ContainerFileTest, EveryTruncationOfAValidFileIsRejected) {
  const std::string valid =
      FileBytes::file(
          2, FileBytes(photons_block({photon(1, 2, 3), photon(4, 5, 6)})).block("extTrigs", FileBytes().i64(7)))
          .data;
  ASSERT_EQ(load_photons(valid).size(), 2u);
  for (std::size_t length = 0; length < valid.size(); ++length) {
    EXPECT_THROW(load_photons(valid.substr(0, length)), std::invalid_argument) << "length " << length;
  }
}

TEST_F(ContainerFileTest, RoundTripsKeepEveryFieldAndTheTriggerState) {
  std::vector<PhotonEvent> photons;
  for (int i = 0; i < 200000; ++i) {  // more than one read chunk
    photons.push_back({Length{i * 7 - 5000}, Length{-i}, Time{static_cast<long>(i) * 1000003L}});
  }
  for (const std::optional<std::vector<Time>>& triggers :
       {std::optional<std::vector<Time>>{}, std::optional<std::vector<Time>>{std::vector<Time>{}},
        std::optional<std::vector<Time>>{std::vector<Time>{Time{1}, Time{std::numeric_limits<long>::max()}}}}) {
    const std::string photon_file = dir.file("p.kovraphot");
    FileHandler_PhotonEvents::save_file(photon_file, Data_PhotonEvents{photons, triggers});
    const auto back = FileHandler_PhotonEvents().load_file(photon_file);
    ASSERT_EQ(back.size(), photons.size());
    for (std::size_t i = 0; i < photons.size(); ++i) {
      ASSERT_TRUE(back[i].x == photons[i].x && back[i].y == photons[i].y && back[i].toa == photons[i].toa) << i;
    }
    EXPECT_EQ(back.extTriggers, triggers);

    const std::vector<Event> events = {{Length{1}, Length{-2}, Time{3}, 1, 0.0},
                                       {Length{std::numeric_limits<int>::min()}, Length{5}, Time{-6},
                                        std::numeric_limits<std::uint64_t>::max(), -1.25e-7}};
    const std::string event_file = dir.file("e.kovraevent");
    FileHandler_Events::save_file(event_file, Data_Events(std::vector<Event>(events), std::optional(triggers)));
    const auto events_back = FileHandler_Events().load_file(event_file);
    ASSERT_EQ(events_back.events.size(), events.size());
    for (std::size_t i = 0; i < events.size(); ++i) {
      const Event &a = events_back.events[i], &b = events[i];
      EXPECT_TRUE(a.x == b.x && a.y == b.y && a.t == b.t && a.nPhotons == b.nPhotons && a.psd == b.psd) << i;
    }
    EXPECT_EQ(events_back.extTriggers, triggers);
  }
}

}  // namespace
