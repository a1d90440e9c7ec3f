// The block-wise reader accepts and rejects exactly what the library's readers do, with their messages, and
// delivers the same records whatever the chunk size.

#include "inspect/RecordFile.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "InspectFiles.hpp"
#include "TempDir.hpp"

namespace {

using namespace kovra::inspect;

template <typename Function_Type>
std::string get_message(Function_Type&& function) {
  try {
    function();
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "(no exception)";
}

const std::vector<Event_Row> some_events = {{px, 2 * px, 100, 1, 0.0}, {-3, 7 * px, 250, 4, 3.5e-9}};

TEST(RecordFileTest, BadFilesGiveTheLibraryReadersMessage) {
  const FileBytes events = events_block(some_events);
  const std::string good = event_file(some_events, std::vector<std::int64_t>{5});
  const struct {
    std::string bytes;
    const char* message;
  } cases[] = {
      {"", "Read Error!"},
      {good.substr(0, 100), "Block size is indicated as 136 but only 84 bytes are left in the file!"},
      {good + "x", "File size mismatch!"},
      {FileBytes().block("KOVRA", events).data, "File is missing build information!"},
      {FileBytes::file(3, events, 1).data, "File has wrong version!"},
      {photon_file({{1, 2, 3}}), "File has wrong type!"},
      {FileBytes::file(3, triggers_block({1, 2})).data, "File does not contain event data!"},
      {FileBytes::file(3, FileBytes(events).block("photons", FileBytes())).data, "Block identifier not recognized!"},
      {FileBytes::file(3, FileBytes().block("events", FileBytes().raw(std::string(40, 'a')))).data,
       "File contains partial events!"},
      {FileBytes::file(3, FileBytes(events).block("extTrigs", FileBytes().raw("abc"))).data,
       "File contains partial external triggers!"},
  };
  const TempDir dir;
  const std::string name = dir.file("bad.kovraevent");
  for (const auto& bad : cases) {
    SCOPED_TRACE(bad.message);
    write_bytes(name, bad.bytes);
    EXPECT_EQ(get_message([&] { RecordFile<Event>{name}; }), bad.message);
    EXPECT_EQ(get_message([&] { kovra::tpx3spidr::FileHandler_Events().load_file(name); }), bad.message);
  }
  // The photon side of the same walk: its own record size and messages.
  write_bytes(name, FileBytes::file(2, FileBytes().block("photons", FileBytes().raw(std::string(24, 'a')))).data);
  EXPECT_EQ(get_message([&] { RecordFile<PhotonEvent>{name}; }), "File contains partial photons!");
  write_bytes(name, FileBytes::file(2, events).data);
  EXPECT_EQ(get_message([&] { RecordFile<PhotonEvent>{name}; }), "Block identifier not recognized!");
}

TEST(RecordFileTest, EveryTruncationFailsAsInTheLibrary) {
  const TempDir dir;
  const std::string name = dir.file("cut.kovraevent");
  const std::string good = event_file(some_events, std::vector<std::int64_t>{5, 6});
  for (std::size_t length = 0; length < good.size(); ++length) {
    SCOPED_TRACE(length);
    write_bytes(name, good.substr(0, length));
    const std::string expected = get_message([&] { kovra::tpx3spidr::FileHandler_Events().load_file(name); });
    ASSERT_NE(expected, "(no exception)");
    EXPECT_EQ(get_message([&] { RecordFile<Event>{name}; }), expected);
  }
}

TEST(RecordFileTest, ChunksJoinToTheLibrarysRecordsForEveryChunkSize) {
  // Triggers first, then an events block that a second one replaces: only the second one counts.
  std::vector<Event_Row> second;
  for (int i = 0; i < 7; ++i)
    second.push_back({i * px + i, -i, 1000L * i, static_cast<std::uint64_t>(i + 1), 1e-9 * i});
  const TempDir dir;
  const std::string name = dir.file("walk.kovraevent");
  write_bytes(name, FileBytes::file(
                        3, triggers_block({9, 8, 7}).raw(events_block(some_events).data).raw(events_block(second).data))
                        .data);
  const auto expected = kovra::tpx3spidr::FileHandler_Events().load_file(name);
  ASSERT_EQ(expected.events.size(), 7u);
  for (const std::uint64_t chunkRecords : {1u, 3u, 7u, 1000u}) {
    SCOPED_TRACE(chunkRecords);
    const RecordFile<Event> file(name, chunkRecords);
    std::vector<Event> events;
    file.for_each_chunk([&](std::span<const Event> chunk) {
      EXPECT_LE(chunk.size(), chunkRecords);
      events.insert(events.end(), chunk.begin(), chunk.end());
    });
    ASSERT_EQ(events.size(), 7u);
    EXPECT_EQ(std::memcmp(events.data(), expected.events.data(), events.size() * sizeof(Event)), 0);
    std::vector<long> triggers;
    file.for_each_extTriggerChunk([&](std::span<const Time> chunk) {
      for (const Time t : chunk) triggers.push_back(t.value);
    });
    EXPECT_EQ(triggers, (std::vector<long>{9, 8, 7}));
  }
}

}  // namespace
