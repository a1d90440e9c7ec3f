// The raw reader on built bytes: the words it hands on, the stretches it skips and where it says a file ended, at
// damage, at every cut of a simulated file's last two chunks (through the whole import, on one thread and on
// three), and across the boundaries of the blocks it reads.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "ImportRuns.hpp"
#include "RawBytes.hpp"
#include "TempDir.hpp"
#include "common/import/Import.hpp"

namespace {

using namespace kovra::import;
using import_runs::get_chunkStarts, import_runs::get_word, import_runs::Imported, import_runs::Kept_Output,
    import_runs::simulate_raw;
using Stretch = std::tuple<std::uint64_t, std::uint64_t, std::string>;

/// What a walk over a file handed on and said.
struct Walk {
  std::vector<std::uint64_t> chunks;  ///< their byte offsets
  std::vector<std::uint64_t> words;
  std::vector<Stretch> skipped;
  std::optional<Unfinished_End> end;
};

Walk walk(const std::string& file, Damage_Policy damage, unsigned fittingChip = 0) {
  Raw_Reader reader(file, Raw_Reading{damage, {}}, [&](unsigned chip) { return chip == fittingChip; });
  Walk w;
  w.end = reader.read_all([&](unsigned, std::uint64_t at) { w.chunks.push_back(at); },
                          [&](const std::uint64_t* p, std::size_t n) { w.words.insert(w.words.end(), p, p + n); },
                          [](std::uint64_t, std::uint64_t) {},
                          [&](const Skipped_Stretch& s) { w.skipped.emplace_back(s.at, s.bytes, s.cause); });
  return w;
}

constexpr std::uint64_t p(unsigned i) { return (std::uint64_t{0xB} << 60) | i; }  // a packet to recognise

std::string no_header(std::uint64_t at) {
  return "no chunk header at byte offset " + std::to_string(at) + " where the previous chunk ends";
}
std::string ends_without(std::uint64_t at, std::uint64_t end) {
  return "the chunk at byte offset " + std::to_string(at) + " ends at byte offset " + std::to_string(end) +
         ", where no chunk header begins";
}

TEST(RawReaderTest, SkippingHandsOnNoWordOfAStretchItSkips) {
  const std::string A = RawBytes().chunk(0, {p(1), p(2)}).data;  // 24 bytes
  const std::string B = RawBytes().chunk(0, {p(3), p(4)}).data;  // 24 bytes
  const std::string C = RawBytes().chunk(0, {p(5)}).data;        // 16 bytes
  struct Case {
    const char* what;
    std::string bytes;
    std::vector<std::uint64_t> chunks, words;
    std::vector<Stretch> skipped;
  };
  const Case cases[] = {
      {"a packet in place of B's header",
       A + RawBytes().word(p(9)).word(p(3)).word(p(4)).data + C,
       {0, 48},
       {p(1), p(2), p(5)},
       {{24, 24, no_header(24)}}},
      {"B 8 bytes longer than it is",
       A + RawBytes().word(make_chunkHeader(0, 24)).word(p(3)).word(p(4)).data + C,
       {0, 48},
       {p(1), p(2), p(5)},
       {{24, 24, ends_without(24, 56)}}},
      {"B's size no multiple of 8",
       A + RawBytes().word(make_chunkHeader(0, 20)).word(p(3)).word(p(4)).data + C,
       {0, 48},
       {p(1), p(2), p(5)},
       {{24, 24, "chunk at byte offset 24 has a size of 20 bytes, not a multiple of 8"}}},
      // Three bytes more: B's payload may hold them (its last packet then read wrong), so B goes too; C and what
      // follows lie off the word boundaries.
      {"3 bytes between B and C",
       A + B + "abc" + C + C,
       {0, 51, 67},
       {p(1), p(2), p(5), p(5)},
       {{24, 27, ends_without(24, 48)}}},
      {"two packets between B and C",
       A + B + RawBytes().word(p(7)).word(p(8)).data + C,
       {0, 24, 64},
       {p(1), p(2), p(3), p(4), p(5)},
       {{48, 16, no_header(48)}}},
      // B's payload holds a marker (of a chunk too long for the file): B cannot be told from damage.
      {"a marker in B's payload",
       A + RawBytes().chunk(0, {p(3), make_chunkHeader(0, 0xFFF0)}).word(p(7)).word(p(8)).data + C,
       {0, 64},
       {p(1), p(2), p(5)},
       {{24, 40, ends_without(24, 48)}}},
      {"bytes before the first chunk",
       "junk!" + A + C,
       {5, 29},
       {p(1), p(2), p(5)},
       {{0, 5, "no chunk header at byte offset 0"}}},
      // Markers that are no plausible chunk header: of a chip that does not fit, and one whose chunk is not
      // followed by a marker.
      {"a marker of another chip",
       A + RawBytes().word(p(9)).chunk(7, {p(6)}).data + C,
       {0, 48},
       {p(1), p(2), p(5)},
       {{24, 24, no_header(24)}}},
      {"a marker whose chunk ends where none begins",
       A + RawBytes().word(p(9)).word(make_chunkHeader(0, 16)).word(p(6)).data + C,
       {0, 48},
       {p(1), p(2), p(5)},
       {{24, 24, no_header(24)}}},
      {"8 bytes at the end",
       A + B + RawBytes().word(p(9)).data,
       {0, 24},
       {p(1), p(2), p(3), p(4)},
       {{48, 8, no_header(48)}}},
      {"5 bytes at the end", A + B + "junk!", {0}, {p(1), p(2)}, {{24, 29, ends_without(24, 48)}}},
  };
  TempDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    write_bytes(dir.file("raw.tpx3"), c.bytes);
    const Walk w = walk(dir.file("raw.tpx3"), Damage_Policy::skip);
    EXPECT_EQ(w.chunks, c.chunks);
    EXPECT_EQ(w.words, c.words);
    EXPECT_EQ(w.skipped, c.skipped);
    EXPECT_FALSE(w.end);
  }
}

Kept_Output import_file(const std::string& file, unsigned threads, std::optional<Unfinished_End>* end = nullptr) {
  Import_Options options;
  options.inputFile = file;
  Imported imported = import_runs::import_file(options, threads, 1);
  const auto& ended = imported.summary.endedEarly;
  if (end != nullptr) *end = ended.empty() ? std::nullopt : std::optional(ended.front().end);
  return imported.output;
}

/// Every cut of the simulator's raw output in its last two chunks: the photons and triggers are those of the
/// whole file that holds the complete packets before the cut (the cut chunk's size set to match), and the end is
/// reported where the cut chunk (or header) begins, with the bytes after its last complete packet.
TEST(RawReaderTest, EveryCutOfTheLastTwoChunksGivesThePhotonsOfItsCompletePackets) {
  TempDir dir;
  const std::string whole = simulate_raw(dir, 0.01, 3);
  const std::vector<std::size_t> starts = get_chunkStarts(whole);  // the file's size last
  ASSERT_GT(starts.size(), 20u);

  std::size_t distinct = 0;
  std::string referenceBytes;
  Kept_Output reference;
  for (std::size_t cut = starts[starts.size() - 3] + 1; cut < whole.size(); ++cut) {
    const std::size_t at = *std::prev(std::upper_bound(starts.begin(), starts.end(), cut));
    const std::size_t packets = cut >= at + 8 ? (cut - at - 8) / 8 : 0;
    std::string bytes = whole.substr(0, at);
    if (cut >= at + 8) {
      bytes += RawBytes().word(make_chunkHeader(get_chunkChip(get_word(whole, at)), 8 * packets)).data +
               whole.substr(at + 8, 8 * packets);
    }
    if (bytes != referenceBytes) {
      write_bytes(dir.file("reference.tpx3"), bytes);
      reference = import_file(dir.file("reference.tpx3"), 1);
      referenceBytes = bytes;
      ++distinct;
    }
    write_bytes(dir.file("cut.tpx3"), whole.substr(0, cut));
    for (const unsigned threads : {1U, 3U}) {
      SCOPED_TRACE(testing::Message() << "cut at " << cut << ", " << threads << " threads");
      std::optional<Unfinished_End> end;
      EXPECT_TRUE(import_file(dir.file("cut.tpx3"), threads, &end) == reference);
      if (cut == at) {
        EXPECT_FALSE(end);
        continue;
      }
      ASSERT_TRUE(end);
      const bool inHeader = cut < at + 8;
      const std::uint64_t unreadAt = inHeader ? at : at + 8 + 8 * packets;
      EXPECT_EQ(std::tuple(end->at, end->inHeader, end->chunkBytes, end->unreadAt, end->unreadBytes),
                std::tuple(at, inHeader, inHeader ? 0 : get_chunkBytes(get_word(whole, at)), unreadAt, cut - unreadAt));
    }
  }
  EXPECT_GT(distinct, 40u);
}

/// Chunks across the boundaries of the blocks read, whole and after damage: 3 bytes that put every later chunk
/// off the word boundaries, and a stretch of more than a block with the next marker across the end of the first
/// block read (the reader's first read takes block_bytes + most_keptBytes).
TEST(RawReaderTest, ChunksAcrossBlockBoundariesComeWholeAfterDamageToo) {
  TempDir dir;
  RawBytes chunks;
  std::vector<std::uint64_t> words;
  const auto add_chunk = [&](std::size_t count) {
    std::vector<std::uint64_t> payload;
    while (payload.size() < count) payload.push_back(p(static_cast<unsigned>(words.size() + payload.size())));
    words.insert(words.end(), payload.begin(), payload.end());
    chunks.chunk(0, payload);
  };
  for (unsigned i = 0; chunks.data.size() < 5 * Raw_Window::block_bytes / 2; ++i) {
    add_chunk(i % 5 == 0 ? 0x1FFF : 97 * (i % 7) + 1);  // up to the largest payload, 0xFFF8 bytes
  }
  add_chunk(0x1FFF);
  const std::string first = RawBytes().chunk(0, {p(0x7FFFFFF)}).data;  // 16 bytes, skipped with the damage after it
  const std::size_t firstRead = Raw_Window::block_bytes + Raw_Window::most_keptBytes;
  std::vector<std::tuple<std::string, std::string, std::vector<std::uint64_t>, std::vector<Stretch>>> cases = {
      {"whole", chunks.data, words, {}},
      {"3 bytes after the first chunk", first + "abc" + chunks.data, words, {{0, 19, ends_without(0, 16)}}}};
  for (const std::size_t markerAt : {firstRead - 3, firstRead - 2, firstRead - 1, firstRead}) {
    // The first chunk is used when the next marker lies a whole number of packets past its end.
    const bool sound = (markerAt - 16) % 8 == 0;
    std::vector<std::uint64_t> expected = words;
    if (sound) expected.insert(expected.begin(), p(0x7FFFFFF));
    cases.emplace_back("marker at " + std::to_string(markerAt), first + std::string(markerAt - 16, 'x') + chunks.data,
                       expected,
                       std::vector<Stretch>{sound ? Stretch{16, markerAt - 16, no_header(16)}
                                                  : Stretch{0, markerAt, ends_without(0, 16)}});
  }
  for (const auto& [what, bytes, expected, skipped] : cases) {
    SCOPED_TRACE(what);
    write_bytes(dir.file("raw.tpx3"), bytes);
    const Walk w = walk(dir.file("raw.tpx3"), Damage_Policy::skip);
    EXPECT_TRUE(w.words == expected);
    EXPECT_EQ(w.skipped, skipped);
    // Cut inside the last chunk's payload, 3 bytes into a packet: the packets before it still come.
    write_bytes(dir.file("cut.tpx3"), bytes.substr(0, bytes.size() - 8 * 100 - 5));
    const Walk cut = walk(dir.file("cut.tpx3"), Damage_Policy::skip);
    EXPECT_TRUE(std::equal(cut.words.begin(), cut.words.end(), expected.begin(), expected.end() - 101));
    ASSERT_TRUE(cut.end);
    EXPECT_EQ(cut.end->unreadBytes, 3u);
  }
}

}  // namespace
