// The block-wise reader must accept and reject exactly what the library's readers do, with their messages, and
// deliver the same records whatever the chunk size.

#include "inspect/RecordFile.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "InspectFiles.hpp"
#include "TempDir.hpp"

namespace {

using namespace kovra::inspect;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

template <typename Function_Type>
std::string get_message(Function_Type&& function) {
  try {
    function();
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "(no exception)";
}

const std::vector<Event_Row> some_events = {
    {1 * px, 2 * px, 100, 1, 0.0}, {-3, 7 * px, 250, 4, 3.5e-9}, {255 * px, 0, 251, 2, 1e-8}};

struct Bad_File {
  const char* what;
  std::string bytes;
  const char* message;
};

std::vector<Bad_File> get_badEventFiles() {
  const FileBytes events = events_block(some_events);
  const std::string good = event_file(some_events, std::vector<std::int64_t>{5});
  std::string kovraX = good;
  kovraX[5] = 'X';
  std::string biggerOuter = good;
  biggerOuter[8] = static_cast<char>(biggerOuter[8] + 1);
  std::string smallerOuter = good;
  smallerOuter[8] = static_cast<char>(smallerOuter[8] - 1);
  return {
      {"empty file", "", "Read Error!"},
      {"shorter than a block header", good.substr(0, 10), "Read Error!"},
      {"not KOVRA", kovraX, "Not a valid KOVRA file!"},
      {"outer size too large", biggerOuter,
       "Block size is indicated as 169 but only 168 bytes are left in the file!"},
      {"outer size too small", smallerOuter, "File size mismatch!"},
      {"trailing byte", good + "x", "File size mismatch!"},
      {"no build block", FileBytes().block("KOVRA", events).data, "File is missing build information!"},
      {"build of 24 bytes",
       FileBytes().block("KOVRA", FileBytes().block("build", FileBytes().u64(0).u64(3).u64(0)).raw(events.data)).data,
       "Build info size missmatch! File corrupted?"},
      {"version 1", FileBytes::file(3, events, 1).data, "File has wrong version!"},
      {"photon file", photon_file({{1, 2, 3}}), "File has wrong type!"},
      {"only header and build", FileBytes::file(3, FileBytes()).data, "File does not contain event data!"},
      {"triggers only", FileBytes::file(3, triggers_block({1, 2})).data, "File does not contain event data!"},
      {"unknown block", FileBytes::file(3, FileBytes(events).block("photons", FileBytes())).data,
       "Block identifier not recognized!"},
      {"partial events", FileBytes::file(3, FileBytes().block("events", FileBytes().raw(std::string(40, 'a')))).data,
       "File contains partial events!"},
      {"partial triggers",
       FileBytes::file(3, FileBytes(events).block("extTrigs", FileBytes().raw(std::string(12, 'a')))).data,
       "File contains partial external triggers!"},
      {"the first bad block is the one reported",
       FileBytes::file(3, FileBytes().block("extTrigs", FileBytes().raw("123")).block("events", FileBytes().raw("x")))
           .data,
       "File contains partial external triggers!"},
  };
}

TEST(RecordFileTest, BadEventFilesGiveTheLibraryReadersMessage) {
  const TempDir dir;
  const std::string name = dir.file("bad.kovraevent");
  for (const Bad_File& bad : get_badEventFiles()) {
    SCOPED_TRACE(bad.what);
    write_bytes(name, bad.bytes);
    EXPECT_EQ(get_message([&] { RecordFile<Event>{name}; }), bad.message);
    EXPECT_EQ(get_message([&] { kovra::tpx3spidr::FileHandler_Events().load_file(name); }), bad.message);
  }
}

TEST(RecordFileTest, BadPhotonFilesGiveTheLibraryReadersMessage) {
  const TempDir dir;
  const std::string name = dir.file("bad.kovraphot");
  const std::vector<Bad_File> cases = {
      {"event file", event_file(some_events), "File has wrong type!"},
      {"events block", FileBytes::file(2, events_block(some_events)).data, "Block identifier not recognized!"},
      {"partial photons", FileBytes::file(2, FileBytes().block("photons", FileBytes().raw(std::string(24, 'a')))).data,
       "File contains partial photons!"},
      {"no photons", FileBytes::file(2, triggers_block({})).data, "File does not contain photon data!"},
  };
  for (const Bad_File& bad : cases) {
    SCOPED_TRACE(bad.what);
    write_bytes(name, bad.bytes);
    EXPECT_EQ(get_message([&] { RecordFile<PhotonEvent>{name}; }), bad.message);
    EXPECT_EQ(get_message([&] { kovra::tpx3spidr::FileHandler_PhotonEvents().load_file(name); }), bad.message);
  }
}

TEST(RecordFileTest, EveryTruncationFailsAsInTheLibrary) {
  const TempDir dir;
  const std::string name = dir.file("cut.kovraevent");
  const std::string good = event_file(some_events, std::vector<std::int64_t>{5, 6});
  for (std::size_t length = 0; length < good.size(); ++length) {
    SCOPED_TRACE(length);
    write_bytes(name, good.substr(0, length));
    const std::string expected =
        get_message([&] { kovra::tpx3spidr::FileHandler_Events().load_file(name); });
    ASSERT_NE(expected, "(no exception)");
    EXPECT_EQ(get_message([&] { RecordFile<Event>{name}; }), expected);
  }
}

TEST(RecordFileTest, MissingFileHasTheLibraryMessage) {
  EXPECT_THAT([] { RecordFile<Event>("/nonexistent/x.kovraevent"); },
              ThrowsMessage<std::invalid_argument>(StrEq("file \"/nonexistent/x.kovraevent\" could not be opened!")));
}

class RecordFileWalkTest : public ::testing::Test {
 protected:
  /// Triggers first, then an events block that a second one replaces: only the second one counts.
  void SetUp() override {
    std::vector<Event_Row> second;
    for (int i = 0; i < 7; ++i) {
      second.push_back({i * px + i, -i, 1000L * i, static_cast<std::uint64_t>(i + 1), 1e-9 * i});
    }
    write_bytes(name, FileBytes::file(3, FileBytes(triggers_block({9, 8, 7}))
                                             .raw(events_block(some_events).data)
                                             .raw(events_block(second).data))
                          .data);
  }

  TempDir dir;
  std::string name = dir.file("walk.kovraevent");
};

TEST_F(RecordFileWalkTest, ChunksJoinToTheLibrarysRecordsForEveryChunkSize) {
  const auto expected = kovra::tpx3spidr::FileHandler_Events().load_file(name);
  ASSERT_EQ(expected.events.size(), 7u);
  for (const std::uint64_t chunkRecords : {1u, 2u, 3u, 6u, 7u, 8u, 1000u}) {
    SCOPED_TRACE(chunkRecords);
    const RecordFile<Event> file(name, chunkRecords);
    EXPECT_EQ(file.size(), 7u);
    std::vector<Event> events;
    file.for_each_chunk([&](std::span<const Event> chunk) {
      EXPECT_GE(chunk.size(), 1u);
      EXPECT_LE(chunk.size(), chunkRecords);
      events.insert(events.end(), chunk.begin(), chunk.end());
    });
    ASSERT_EQ(events.size(), expected.events.size());
    EXPECT_EQ(std::memcmp(events.data(), expected.events.data(), events.size() * sizeof(Event)), 0);

    std::vector<long> triggers;
    file.for_each_extTriggerChunk([&](std::span<const kovra::tpx3spidr::Time> chunk) {
      for (const auto t : chunk) triggers.push_back(t.value);
    });
    EXPECT_EQ(triggers, (std::vector<long>{9, 8, 7}));
  }
}

TEST(RecordFileTest, AbsentAndEmptyTriggerListsStayApart) {
  const TempDir dir;
  const std::string name = dir.file("t.kovraphot");
  write_bytes(name, photon_file({}));
  const RecordFile<PhotonEvent> absent(name);
  EXPECT_FALSE(absent.has_extTriggers());
  EXPECT_EQ(absent.size(), 0u);
  int calls = 0;
  absent.for_each_chunk([&](std::span<const PhotonEvent>) { ++calls; });
  EXPECT_EQ(calls, 0);

  write_bytes(name, photon_file({}, std::vector<std::int64_t>{}));
  const RecordFile<PhotonEvent> empty(name);
  EXPECT_TRUE(empty.has_extTriggers());
  EXPECT_EQ(empty.get_extTriggerCount(), 0u);
}

}  // namespace
