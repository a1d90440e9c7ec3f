// kovra_import run on raw files built packet by packet and on the simulator's raw output: what it writes, what
// it says, and what it refuses.

#include <fcntl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "FileBytes.hpp"
#include "GroupingReference.hpp"
#include "ImportRuns.hpp"
#include "RawBytes.hpp"
#include "RunProgram.hpp"
#include "TempDir.hpp"
#include "common/PhotonFlashes.hpp"
#include "common/import/PixelMask.hpp"
#include "kovra/tpx3spidr/Tpx3Packets.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"
#include "simulate/PhotonSimulation.hpp"
#include "simulate/RawExport.hpp"

namespace {

using namespace kovra::tpx3spidr::raw;
using import_runs::get_chunkStarts, import_runs::get_word, import_runs::simulate_raw, import_runs::write_simulatedRaw;
using testing::HasSubstr;
using namespace std::string_literals;
constexpr int px = 65536;

using Photon = Reference_Photon;

/// A photon file's content, read with the library's reader.
struct PhotonFile {
  std::vector<Photon> photons;
  std::optional<std::vector<long>> triggers;
};
PhotonFile load(const std::string& name) {
  const auto data = kovra::tpx3spidr::FileHandler_PhotonEvents().load_file(name);
  PhotonFile file;
  for (const auto& p : data.photonEvents) file.photons.push_back({p.x.value, p.y.value, p.toa.value});
  if (data.extTriggers) {
    file.triggers.emplace();
    for (const auto& t : *data.extTriggers) file.triggers->push_back(t.value);
  }
  return file;
}

constexpr auto hit = make_hitPacket;
constexpr auto heartbeat = make_heartbeatPacket;

class ImportTest : public ::testing::Test {
 protected:
  /// Runs the built program in the test's directory, with the environment variables `environment` (NAME=value
  /// words) set; returns its exit status, its output in `out` and `err`.
  int run(const std::string& arguments, const std::string& environment = "") {
    Program_Outcome outcome =
        run_program(dir, "/usr/bin/env", environment + " '" + KOVRA_IMPORT_PATH + "' " + arguments);
    out = std::move(outcome.out), err = std::move(outcome.err);
    return outcome.status;
  }

  const TempDir dir;
  std::string out, err;
};

// Status 2 and one message; the reader of each kind of value once. (Help, version and getopt's messages:
// ToolCommandLineTest.)
TEST_F(ImportTest, BadCommandLines) {
  write_bytes(dir.file("a.tpx3"), RawBytes().chunk(0, {heartbeat(0)}).data);
  const std::pair<std::string, std::string> cases[] = {
      {"a.tpx3", "no output file given (-o OUT.kovraphot)"},
      {"-o a.kovraphot", "no raw file given"},
      {"a.tpx3 -o a.txt", "the output file must end in .kovraphot, not \"a.txt\""},
      {"a.tpx3 -o a.kovraphot --radius 17", "option --radius needs a whole number of pixels from 0 to 16, not \"17\""},
      {"a.tpx3 -o a.kovraphot --window -1e-9", "option --window needs a number of seconds from 0 to 1, not \"-1e-9\""},
      {"a.tpx3 -o a.kovraphot --trigger tdc3-rising",
       "option --trigger needs tdc1-rising, tdc1-falling, tdc2-rising, tdc2-falling or none, not \"tdc3-rising\""},
      {"a.tpx3 a.tpx3 -o a.kovraphot", "the raw file \"a.tpx3\" is given twice"},
      {"a.tpx3 -o a.kovraphot --time-walk ''", "option --time-walk needs a file name"},
      {"a.tpx3 -o a.kovraphot --mask ''", "option --mask needs a file name"},
      {"a.tpx3 -o a.kovraphot --threads 0", "option --threads must be a whole number from 1 to 1024, not \"0\""},
      {"a.tpx3 -o a.kovraphot KOVRA_THREADS=x", "KOVRA_THREADS must be a whole number from 1 to 1024, not \"x\""},
      {"a.tpx3 -o a.kovraphot KOVRA_PIECE_HITS=0",
       "KOVRA_PIECE_HITS must be a whole number from 1 to 1073741824, not \"0\""},
  };
  for (const auto& [arguments, message] : cases) {
    const auto at = arguments.find("KOVRA_");  // environment variables set for the run, not arguments
    const std::string environment = at == std::string::npos ? "" : arguments.substr(at);
    EXPECT_EQ(std::tuple(run(arguments.substr(0, at), environment), err),
              std::tuple(2, "kovra_import: " + message + "\nTry 'kovra_import --help'.\n"));
  }
  // The option wins over the environment, which is then not read.
  EXPECT_EQ(run("a.tpx3 -o a.kovraphot --threads 3 --verbose 4", "KOVRA_THREADS=x"), 0) << err;
  EXPECT_THAT(out, HasSubstr(" piece on 3 threads: "));

  // A table that cannot be used stops the run with status 1 before any output (each kind of bad table:
  // TimeWalkTest, PixelMaskTest); a mask is read for the layout's frame.
  write_bytes(dir.file("quad.txt"), "300 2\n");
  write_bytes(dir.file("old.kovraphot"), "earlier");
  const std::pair<std::string, std::string> tables[] = {
      {"--time-walk missing.txt", "time-walk table 'missing.txt': cannot be read"},
      {"--mask quad.txt",
       "pixel mask 'quad.txt': line 1: expected a pixel's x and y, whole numbers from 0 to 255, got "
       "'300 2'"}};
  for (const auto& [options, message] : tables) {
    EXPECT_EQ(std::tuple(run("a.tpx3 -o old.kovraphot " + options), err),
              std::tuple(1, "kovra_import: " + message + "\n"));
  }
  EXPECT_EQ(read_bytes(dir.file("old.kovraphot")), "earlier");
}

TEST_F(ImportTest, EveryPacketTypeInAQuadFile) {
  const std::uint64_t edge1 = make_tdcPacket(0xF, 1, 3000);
  const std::uint64_t edge1b = make_tdcPacket(0xF, 2, 5001);
  RawBytes raw;
  raw.chunk(0, {std::uint64_t{0x50} << 56, heartbeat(0), hit(1, 2, 10, 2000), std::uint64_t{0x44} << 56,
                std::uint64_t{0x45} << 56, edge1, hit(0, 0, 3, 1000)})
      .chunk(1, {std::uint64_t{0xA} << 60, edge1, hit(1, 2, 10, 2500), make_tdcPacket(0xE, 1, 4000)})
      .chunk(2, {edge1, std::uint64_t{0x73} << 56, hit(1, 2, 10, 1500), edge1b})
      .chunk(3, {edge1, hit(1, 2, 10, 2000), edge1b, std::uint64_t{0}, make_tdcPacket(0xA, 1, 3500),
                 std::uint64_t{0x6C} << 56, std::uint64_t{0x72} << 56, ~std::uint64_t{0}});
  write_bytes(dir.file("q.tpx3"), raw.data);

  ASSERT_EQ(run("q.tpx3 -o q.kovraphot --layout quad --hits-as-photons"), 0) << err;
  const PhotonFile file = load(dir.file("q.kovraphot"));
  // Chip 0 at (c + 256, r), 1 at (511 - c, 511 - r), 2 at (255 - c, 511 - r), 3 at (c, r); equal times keep
  // file order.
  EXPECT_EQ(file.photons, (std::vector<Photon>{{256 * px, 0, 1000},
                                               {254 * px, 509 * px, 1500},
                                               {257 * px, 2 * px, 2000},
                                               {1 * px, 2 * px, 2000},
                                               {510 * px, 509 * px, 2500}}));
  EXPECT_EQ(file.triggers, (std::vector<long>{3000, 5001}));
  EXPECT_EQ(out,
            "info:    packets: 5 hit, 1 counting-mode hit, 8 TDC, 2 global time, 2 heartbeat, 5 other in 4 chunks\n"
            "info:    hits: 5 read, 0 dropped below the ToT threshold, 0 dropped as late\n"
            "info:    photons: 5 written (one per hit)\n"
            "info:    triggers: 2 written, 0 dropped as late; 4 repeated TDC packets merged\n"
            "info:    clock: 0 roll-overs of the hit counter followed, time span 0.000008 s (ticks 0 to 5001)\n");
  EXPECT_EQ(err, "");

  ASSERT_EQ(run("q.tpx3 -o falling.kovraphot --layout quad --trigger tdc1-falling --min-tot 250 --verbose 0"), 0);
  EXPECT_EQ(out, "");
  const PhotonFile falling = load(dir.file("falling.kovraphot"));
  EXPECT_EQ(falling.triggers, (std::vector<long>{3500}));
  // ToT 10 (250 ns) passes the threshold, ToT 3 does not; the four hits at pixel (1, 2) make one photon each
  // on their chips.
  EXPECT_EQ(falling.photons.size(), 4u);
  ASSERT_EQ(run("q.tpx3 -o none.kovraphot --layout quad --trigger none"), 0);
  EXPECT_EQ(load(dir.file("none.kovraphot")).triggers, std::nullopt);
}

TEST_F(ImportTest, AFileWithoutHitsGivesAnEmptyPhotonFile) {
  write_bytes(dir.file("quiet.tpx3"), RawBytes().chunk(0, {heartbeat(0), heartbeat(1 << 18)}).chunk(0, {}).data);
  ASSERT_EQ(run("quiet.tpx3 -o quiet.kovraphot"), 0) << err;
  const FileBytes expected = FileBytes::file(2, FileBytes().block("photons", {}).block("extTrigs", {}));
  EXPECT_EQ(read_bytes(dir.file("quiet.kovraphot")), expected.data);
}

// With --charge, each photon's summed ToT and hit count go beside the photon file, in its order, with its count
// and fingerprint; a run that fails leaves neither file.
TEST_F(ImportTest, ChargesGoBesideThePhotonFile) {
  write_bytes(dir.file("two.tpx3"),
              RawBytes().chunk(0, {heartbeat(0), hit(4, 4, 30, 20), hit(5, 4, 10, 22), hit(9, 9, 5, 21)}).data);
  ASSERT_EQ(run("two.tpx3 -o two.kovraphot --charge"), 0) << err;
  const auto photons = kovra::tpx3spidr::FileHandler_PhotonEvents().load_file(dir.file("two.kovraphot"));
  ASSERT_EQ(photons.size(), 2U);  // the lone hit's photon (time 21) after the pair's (time 20)
  const auto le = [](std::uint64_t value, int width) {
    std::string bytes;
    for (int i = 0; i < width; ++i) bytes.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    return bytes;
  };
  EXPECT_EQ(read_bytes(dir.file("two.kovracharge")),
            "KOVRACHG" + le(1, 4) + le(8, 4) + le(2, 8) +
                le(kovra::tools::fingerprint_photons(photons.photonEvents), 8) + le(40, 4) + le(2, 4) + le(5, 4) +
                le(1, 4));
  ASSERT_EQ(run("two.tpx3 -o plain.kovraphot"), 0) << err;
  EXPECT_FALSE(std::filesystem::exists(dir.file("plain.kovracharge")));
  write_bytes(dir.file("bad.tpx3"), RawBytes().chunk(0, {hit(1, 1, 1, 1)}).data + "x");
  EXPECT_EQ(run("bad.tpx3 -o bad.kovraphot --charge"), 1);
  EXPECT_FALSE(std::filesystem::exists(dir.file("bad.kovraphot")));
  EXPECT_FALSE(std::filesystem::exists(dir.file("bad.kovracharge")));
}

TEST_F(ImportTest, SparseHitsAcrossRollOversAndLatePackets) {
  // Hits 40 s apart, heartbeats every 10 s: the hit counter rolls over once between them.
  const long second = 640000000;
  const long hitPeriod = 1L << 34;
  RawBytes raw;
  raw.chunk(0, {hit(5, 5, 1, 100)});
  for (long t = 10 * second; t < 40 * second; t += 10 * second) {
    raw.chunk(0, {heartbeat(static_cast<std::uint64_t>(t % hitPeriod))});
  }
  // Then one hit 2 ms behind the latest (kept by the default 5 ms window) and one 6 ms behind (dropped).
  const long last = 40 * second;
  raw.chunk(0, {hit(6, 6, 1, static_cast<std::uint64_t>(last % hitPeriod)),
                hit(7, 7, 1, static_cast<std::uint64_t>((last - 1280000) % hitPeriod)),
                hit(8, 8, 1, static_cast<std::uint64_t>((last - 3840000) % hitPeriod))});
  write_bytes(dir.file("sparse.tpx3"), raw.data);
  ASSERT_EQ(run("sparse.tpx3 -o sparse.kovraphot --trigger none"), 0) << err;
  EXPECT_EQ(load(dir.file("sparse.kovraphot")).photons,
            (std::vector<Photon>{{5 * px, 5 * px, 100}, {7 * px, 7 * px, last - 1280000}, {6 * px, 6 * px, last}}));
  EXPECT_EQ(err,
            "warning: 1 hit and 0 trigger edges came later than the reorder window allows (0.005000 s) and were "
            "dropped; a larger --reorder-window keeps them\n");
  EXPECT_THAT(out, HasSubstr("1 dropped as late"));
  EXPECT_THAT(out, HasSubstr("clock: 1 roll-over of the hit counter followed"));
}

// The same messages on several threads, after many pieces went to them: ParallelImportTest.
TEST_F(ImportTest, DamagedFilesAreRefusedWithTheByteOffsetAndTheOutputLeftAsItWas) {
  const std::string first = RawBytes().chunk(0, {heartbeat(0), hit(1, 1, 1, 10)}).data;  // 24 bytes
  const std::string skip = "; --skip-damaged imports the rest";
  const std::tuple<std::string, const char*, std::string> cases[] = {
      // content, more options, message
      {"", "", "not Timepix3 raw data: the file is empty"},
      {"TPX4 and some text", "", "not Timepix3 raw data: no chunk header at byte offset 0"},
      {"TPX4 and some text", " --skip-damaged",
       "not Timepix3 raw data: no plausible chunk header anywhere in the file"},
      {"TP4", "", "not Timepix3 raw data: no chunk header at byte offset 0"},
      {first + RawBytes().word(make_chunkHeader(0, 32)).word(hit(0, 0, 0, 0)).chunk(0, {}).data, "",
       "chunk at byte offset 24 has a size of 32 bytes but only 16 are left in the file, among them a chunk header "
       "at byte offset 40" +
           skip},
      {first + RawBytes().word(make_chunkHeader(0, 12)).word(0).word(0).data, "",
       "chunk at byte offset 24 has a size of 12 bytes, not a multiple of 8" + skip},
      {first + "TPY", "", "no chunk header at byte offset 24 where the previous chunk ends" + skip},
      {first + RawBytes().word(hit(0, 0, 0, 0)).data, "",
       "no chunk header at byte offset 24 where the previous chunk ends" + skip},
      {RawBytes().chunk(4, {}).data, " --layout quad",
       "chunk at byte offset 0 is of chip 4, but a quad has chips 0 to 3"},
      {first + RawBytes().chunk(1, {}).data, " --skip-damaged",
       "chunk at byte offset 24 is of chip 1 after chunks of chip 0: the file holds several chips, which --layout "
       "single cannot place (try --layout quad)"},
  };
  write_bytes(dir.file("out.kovraphot"), "earlier");
  for (const auto& [bytes, options, message] : cases) {
    write_bytes(dir.file("bad.tpx3"), bytes);
    EXPECT_EQ(std::tuple(run("bad.tpx3 -o out.kovraphot" + std::string(options)), err),
              std::tuple(1, "kovra_import: bad.tpx3: " + message + "\n"));
  }
  EXPECT_EQ(std::tuple(run("missing.tpx3 -o out.kovraphot"), err),
            std::tuple(1, "kovra_import: missing.tpx3: cannot open: No such file or directory\n"s));
  EXPECT_EQ(read_bytes(dir.file("out.kovraphot")), "earlier");
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    EXPECT_THAT(entry.path().filename().string(), testing::Not(HasSubstr("kovraphot.")));  // no temporary left
  }
}

/// A file cut in one of its last two chunks is read as far as its last complete packet: status 0 and a warning
/// that says where the file ended and what was left unread. Each kind of cut once here, on three threads; the
/// photons of every cut, on one thread and on three, in RawReaderTest.
TEST_F(ImportTest, AFileCutInItsLastChunksSaysWhereItEnded) {
  const std::string whole = simulate_raw(dir, 0.01, 3);
  const std::vector<std::size_t> starts = get_chunkStarts(whole);
  ASSERT_GT(starts.size(), 20u);
  const std::size_t last = starts[starts.size() - 2];
  ASSERT_GT(whole.size() - last, 40u);  // a last chunk long enough for the cuts below
  const std::string L = std::to_string(last), size = std::to_string(whole.size() - last - 8);
  const auto warning = [](const std::string& where, const std::string& unread) {
    return "warning: the raw file ended early, inside " + where +
           "; every complete packet before the end was imported, " + unread + " left unread\n";
  };
  const auto in_chunk = [&](int present) {
    return "the chunk at byte offset " + L + " (" + std::to_string(present) + " of its " + size + " bytes present)";
  };
  // Between two chunks (a whole file), then in the last: in its header, at the end of its header, one byte into a
  // packet, and a few packets in.
  const std::pair<std::size_t, std::string> cuts[] = {
      {last, ""},
      {last + 7, warning("a chunk header at byte offset " + L, "7 bytes at byte offset " + L + " were")},
      {last + 8, warning(in_chunk(0), "0 bytes at byte offset " + std::to_string(last + 8) + " were")},
      {last + 9, warning(in_chunk(1), "1 byte at byte offset " + std::to_string(last + 8) + " was")},
      {last + 21, warning(in_chunk(13), "5 bytes at byte offset " + std::to_string(last + 16) + " were")}};
  for (const auto& [cut, expected] : cuts) {
    write_bytes(dir.file("cut.tpx3"), whole.substr(0, cut));
    SCOPED_TRACE(testing::Message() << "cut at " << cut);
    ASSERT_EQ(run("cut.tpx3 -o cut.kovraphot --verbose 0 --threads 3", "KOVRA_PIECE_HITS=1"), 0) << err;
    EXPECT_EQ(err, expected);
  }
  // The summary says so too.
  ASSERT_EQ(run("cut.tpx3 -o cut.kovraphot"), 0);
  EXPECT_THAT(out, HasSubstr("\ninfo:    raw file: ended early, inside the chunk at byte offset " +
                             std::to_string(last) + " (5 bytes left unread)\n"));
}

/// Damage in the middle (a chunk's size 16 bytes too large) skipped with --skip-damaged: the photons are those of
/// the file without the chunk it makes unsound, on three threads. Each kind of damage skipped, word by word:
/// RawReaderTest.SkippingHandsOnNoWordOfAStretchItSkips; refused without the option: the table of
/// DamagedFilesAreRefusedWithTheByteOffsetAndTheOutputLeftAsItWas.
TEST_F(ImportTest, DamageInTheMiddleIsSkippedWithoutReadingIt) {
  const std::string whole = simulate_raw(dir, 0.01, 5);
  const std::vector<std::size_t> starts = get_chunkStarts(whole);
  const std::size_t k = starts.size() / 2;  // the chunk damaged
  const std::size_t s = starts[k], next = starts[k + 1];
  ASSERT_GT(next - s, 24u);
  ASSERT_GT(starts[k + 2] - next, 24u);
  const std::string without = whole.substr(0, s) + whole.substr(next);  // the chunk left out
  const std::string damaged =
      whole.substr(0, s) + RawBytes().word(get_word(whole, s) + (std::uint64_t{16} << 48)).data + whole.substr(s + 8);
  const std::string S = std::to_string(s), end = std::to_string(next + 16);
  write_bytes(dir.file("reference.tpx3"), without);
  ASSERT_EQ(run("reference.tpx3 -o reference.kovraphot --threads 1"), 0) << err;
  write_bytes(dir.file("damaged.tpx3"), damaged);
  ASSERT_EQ(run("damaged.tpx3 -o out.kovraphot --skip-damaged --threads 3", "KOVRA_PIECE_HITS=1"), 0);
  EXPECT_EQ(err, "warning: skipped " + std::to_string(next - s) + " damaged bytes at byte offset " + S +
                     ": the chunk at byte offset " + S + " ends at byte offset " + end +
                     ", where no chunk header begins\n");
  EXPECT_THAT(out, HasSubstr("\ninfo:    raw file: 1 damaged stretch skipped ("));
  EXPECT_TRUE(read_bytes(dir.file("out.kovraphot")) == read_bytes(dir.file("reference.kovraphot")));
  // The chunk left out held photons of its own.
  write_bytes(dir.file("whole.tpx3"), whole);
  ASSERT_EQ(run("whole.tpx3 -o whole.kovraphot"), 0);
  EXPECT_NE(load(dir.file("whole.kovraphot")).photons.size(), load(dir.file("reference.kovraphot")).photons.size());
}

/// Writes `bytes` to the end of `file` in 15 bursts that end anywhere (in packets, in chunk headers), each after a
/// pause of 60 ms: another process writing an acquisition for longer than the run waits for growth.
void write_inBursts(const std::string& file, const std::string& bytes) {
  const int fd = ::open(file.c_str(), O_WRONLY | O_APPEND);
  const std::size_t burst = bytes.size() / 15 + 1;
  for (std::size_t at = 0; fd >= 0 && at < bytes.size(); at += burst) {
    const timespec pause{0, 60'000'000};
    ::nanosleep(&pause, nullptr);
    if (::write(fd, bytes.data() + at, std::min(burst, bytes.size() - at)) < 0) break;
  }
  ::close(fd);
}

/// A file that another process writes in bursts while --follow reads it gives the photon file of the finished
/// file, on one thread and on three; a writer that stops inside a chunk gives the same warning as the file read
/// whole. On a terminal a line shows what was read, the rates so far and how long the file has not grown.
TEST_F(ImportTest, AFollowedFileGivesThePhotonsOfTheFinishedFile) {
  const std::string whole = simulate_raw(dir, 0.05, 11);
  const std::pair<const char*, std::size_t> cases[] = {{"1", whole.size()}, {"3", whole.size() - 100}};
  for (const auto& [threads, bytes] : cases) {
    SCOPED_TRACE(testing::Message() << threads << " threads, " << bytes << " bytes");
    write_bytes(dir.file("finished.tpx3"), whole.substr(0, bytes));
    ASSERT_EQ(run("finished.tpx3 -o finished.kovraphot --verbose 0"), 0) << err;
    const std::string warnings = err;
    write_bytes(dir.file("growing.tpx3"), "");
    std::fflush(nullptr);  // nothing buffered twice
    const pid_t writer = ::fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      write_inBursts(dir.file("growing.tpx3"), whole.substr(0, bytes));
      ::_exit(0);
    }
    const int status = run("growing.tpx3 -o growing.kovraphot --follow 0.6 --verbose 0 --threads "s + threads);
    ::waitpid(writer, nullptr, 0);
    EXPECT_EQ(std::tuple(status, err), std::tuple(0, warnings));
    EXPECT_TRUE(read_bytes(dir.file("growing.kovraphot")) == read_bytes(dir.file("finished.kovraphot")));
  }
  // On a terminal (script gives the run one).
  const Program_Outcome terminal = run_program(
      dir, "script", "-qec \"'" KOVRA_IMPORT_PATH "' finished.tpx3 -o terminal.kovraphot --follow 0.2\" /dev/null");
  EXPECT_EQ(terminal.status, 0) << terminal.out;
  EXPECT_THAT(terminal.out, testing::ContainsRegex("\rfollowing: 0\\.[0-9] MB read, [0-9.]+ MB/s, [0-9]+ hits/s; "
                                                   "unchanged for 0\\.[0-9] s"));
}

/// A write that fails (here at a file-size limit, its signal ignored; a full disk fails the same way) ends the run
/// with the system's reason and status 1; the output stays as it was and nothing is left beside it. (A failing
/// output on one thread and on several: ParallelImportTest.)
TEST_F(ImportTest, AFailedWriteEndsTheRunWithTheSystemsReason) {
  simulate_raw(dir, 0.05, 7);  // about 100 KB of photons, one per hit
  write_bytes(dir.file("out.kovraphot"), "earlier");
  const Program_Outcome outcome = run_program(dir, "bash",
                                              "-c 'trap \"\" XFSZ; ulimit -f 16; exec " KOVRA_IMPORT_PATH
                                              " simulated.tpx3 -o out.kovraphot --hits-as-photons --threads 3'");
  EXPECT_EQ(std::tuple(outcome.status, outcome.out, outcome.err),
            std::tuple(1, ""s, "kovra_import: cannot write \"out.kovraphot\": File too large\n"s));
  EXPECT_EQ(read_bytes(dir.file("out.kovraphot")), "earlier");
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) files.push_back(entry.path().filename());
  std::ranges::sort(files);
  EXPECT_EQ(files, (std::vector<std::string>{"out.kovraphot", "simulated.tpx3", "stderr.txt", "stdout.txt"}));
}

/// The simulator's raw output read back: photons exactly as the rule makes them from the hits it wrote; with a
/// time-walk table, from the hits each moved by its ToT's delay before they are ordered and grouped (the same on
/// one thread and on several: ParallelImportTest).
TEST_F(ImportTest, SimulatorRawOutputRoundTrips) {
  // Steps 2 and 4 have rows; step 3 lies between them (60 + (20 - 60) / 2 = 40); beyond step 4, 20 ticks.
  write_bytes(dir.file("walk.txt"), "50 60\n100 20\n");
  const auto delay = [](unsigned tot) { return tot <= 2 ? 60L : tot == 3 ? 40L : 20L; };
  // Frame side, options, the radius, window (5 ns: 3 ticks) and photon time they mean, and whether time walks.
  const std::tuple<int, const char*, int, long, bool, bool> cases[] = {
      {256, "", 1, 160, true, false},
      {512, "--layout quad --radius 2 --window 1e-7 --photon-time earliest", 2, 64, false, false},
      {256, "--window 5e-9 --time-walk walk.txt", 1, 3, true, true}};
  for (const auto& [width, options, radius, window, strongest, walks] : cases) {
    SCOPED_TRACE(options);
    kovra::simulate::Simulation_Settings settings;
    settings.duration_s = 0.03, settings.eventRate_Hz = 2e4, settings.width_px = settings.height_px = width;
    settings.triggerMode = kovra::simulate::Trigger_Mode::periodic;
    settings.triggerFrequency_Hz = 3e5;  // 9000 edges, 60 per chunk: more than the trigger counter holds
    auto simulated = write_simulatedRaw(dir.file("sim.tpx3"), settings, 5);
    ASSERT_GT(simulated.hits.size(), 10000u);
    for (auto& h : simulated.hits) h.time = walks ? std::max(0L, h.time - delay(h.tot)) : h.time;
    const std::vector<Photon> expected = group_byRule(simulated.hits, radius, window, strongest);
    std::vector<long> triggers;
    for (const auto& t : *simulated.photons.extTriggers) triggers.push_back(t.value);
    // On several threads (the same photons and summary as on one: ParallelImportTest).
    ASSERT_EQ(run(std::string("sim.tpx3 -o sim.kovraphot ") + options, "KOVRA_THREADS=4 KOVRA_PIECE_HITS=1"), 0) << err;
    const PhotonFile imported = load(dir.file("sim.kovraphot"));
    ASSERT_EQ(imported.photons.size(), expected.size());
    EXPECT_EQ(imported.photons, expected);
    EXPECT_EQ(imported.triggers, triggers);
    EXPECT_THAT(out, HasSubstr("0 dropped as late"));
  }
}

// Hot pixels found by kovra_inspect and masked: their hits are dropped before grouping and counted, so they
// make no photon (the same on one thread and on several: ParallelImportTest); without the mask they make
// thousands.
TEST_F(ImportTest, AMaskedHotPixelContributesNoPhoton) {
  kovra::simulate::Simulation_Settings settings;
  settings.duration_s = 0.01, settings.eventRate_Hz = 1e4, settings.hotPixels = 2, settings.hotPixelRate_Hz = 2e5;
  const std::vector<Reference_Hit> hits = write_simulatedRaw(dir.file("hot.tpx3"), settings, 5).hits;
  ASSERT_EQ(run_program(dir, KOVRA_INSPECT_PATH, "hot.tpx3 --hot-pixels hot.txt").status, 0);
  // Each hot pixel's photons light it and three neighbours: 8 pixels, each far above the rest.
  const kovra::import::Pixel_Mask mask = kovra::import::read_pixelMask(dir.file("hot.txt"), 256);
  ASSERT_EQ(mask.get_count(), 8U) << read_bytes(dir.file("hot.txt"));
  const auto is_masked = [&](int x, int y) {
    return mask.is_masked(static_cast<unsigned>(x), static_cast<unsigned>(y));
  };
  std::size_t maskedHits = 0;
  for (const auto& h : hits) maskedHits += is_masked(h.x, h.y);
  ASSERT_GT(maskedHits, 10000U);

  const auto count_onMask = [&](const std::string& name) {
    std::size_t n = 0;
    for (const auto& p : load(dir.file(name)).photons) n += is_masked(p.x / px, p.y / px);
    return n;
  };
  ASSERT_EQ(run("hot.tpx3 -o plain.kovraphot"), 0) << err;
  EXPECT_GT(count_onMask("plain.kovraphot"), 1000U);
  ASSERT_EQ(run("hot.tpx3 -o masked.kovraphot --mask hot.txt"), 0) << err;
  EXPECT_THAT(out, HasSubstr("info:    mask: " + std::to_string(maskedHits) + " hits of 8 masked pixels dropped\n"));
  EXPECT_EQ(count_onMask("masked.kovraphot"), 0U);
  // The photon file's own hot pixels: where the unmasked photons of the hot pixels lie, and none once masked.
  EXPECT_THAT(run_program(dir, KOVRA_INSPECT_PATH, "plain.kovraphot --hot-pixels -").out, HasSubstr(": 2 of the "));
  EXPECT_THAT(run_program(dir, KOVRA_INSPECT_PATH, "masked.kovraphot --hot-pixels -").out, HasSubstr(": 0 of the "));
}

// A run of many raw files is read as one stream: the photons, triggers and summary of their concatenation, on one
// thread and on several, whether the files are named or their folder is; bad lists are refused.
TEST_F(ImportTest, ARunOfManyFilesIsItsConcatenation) {
  kovra::simulate::Simulation_Settings settings;
  settings.duration_s = 0.02, settings.eventRate_Hz = 3e4, settings.width_px = settings.height_px = 400;
  settings.triggerMode = kovra::simulate::Trigger_Mode::periodic, settings.triggerFrequency_Hz = 2e4;
  write_simulatedRaw(dir.file("whole.tpx3"), settings, 5);
  // Cut into three files at chunk boundaries, a quarter and two thirds of the way.
  const std::string whole = read_bytes(dir.file("whole.tpx3"));
  std::vector<std::size_t> cuts;
  for (const std::size_t at : get_chunkStarts(whole)) {
    if (cuts.size() < 2 && at >= whole.size() * (cuts.empty() ? 1 : 8) / (cuts.empty() ? 4 : 12)) cuts.push_back(at);
  }
  ASSERT_EQ(cuts.size(), 2U);
  std::filesystem::create_directory(dir.file("run"));
  write_bytes(dir.file("run/RUN_0001.tpx3"), whole.substr(0, cuts[0]));
  write_bytes(dir.file("run/RUN_0002.tpx3"), whole.substr(cuts[0], cuts[1] - cuts[0]));
  write_bytes(dir.file("run/RUN_0003.tpx3"), whole.substr(cuts[1]));
  write_bytes(dir.file("run/notes.txt"), "not raw data");

  ASSERT_EQ(run("whole.tpx3 -o whole.kovraphot --layout quad", "KOVRA_THREADS=1"), 0) << err;
  const std::string expected = read_bytes(dir.file("whole.kovraphot"));
  const std::string summary = out;
  ASSERT_THAT(summary, HasSubstr("0 dropped as late"));
  const std::string files = "run/RUN_0001.tpx3 run/RUN_0002.tpx3 run/RUN_0003.tpx3";
  // The files named on one thread, their folder on three.
  const std::pair<std::string, const char*> runs[] = {{files, "KOVRA_THREADS=1"},
                                                      {"run", "KOVRA_THREADS=3 KOVRA_PIECE_HITS=2000"}};
  for (const auto& [inputs, threads] : runs) {
    ASSERT_EQ(run(inputs + " -o many.kovraphot --layout quad", threads), 0) << err;
    EXPECT_TRUE(read_bytes(dir.file("many.kovraphot")) == expected) << inputs << ", " << threads;
    EXPECT_EQ(out, summary) << inputs << ", " << threads;
  }

  // A file of the run cut short names itself: only the last file may end early, the others are damage.
  std::filesystem::create_directory(dir.file("run2"));
  write_bytes(dir.file("run2/RUN_0001.tpx3"), whole.substr(0, cuts[0]));
  write_bytes(dir.file("run2/RUN_0002.tpx3"), whole.substr(cuts[0], 100));
  EXPECT_EQ(run("run2 -o short.kovraphot --layout quad"), 0) << err;
  EXPECT_THAT(err, testing::StartsWith("warning: run2/RUN_0002.tpx3: the raw file ended early, inside the chunk at "
                                       "byte offset 0 "));
  write_bytes(dir.file("run2/RUN_0003.tpx3"), whole.substr(cuts[1]));
  EXPECT_EQ(run("run2 -o bad.kovraphot --layout quad"), 1);
  EXPECT_EQ(err,
            "kovra_import: run2/RUN_0002.tpx3: the file ends inside a chunk (at byte offset 0), and only the "
            "last file of a run may end early; --skip-damaged imports the rest\n");
  EXPECT_FALSE(std::filesystem::exists(dir.file("bad.kovraphot")));
  EXPECT_EQ(run("run2 -o skipped.kovraphot --layout quad --skip-damaged"), 0) << err;
  EXPECT_THAT(err, HasSubstr("warning: run2/RUN_0002.tpx3: the raw file ended early"));
  std::filesystem::create_directory(dir.file("empty"));
  const std::pair<std::string, std::string> lists[] = {
      {"empty", "the folder \"empty\" holds no .tpx3 file"},
      {"run run/RUN_0001.tpx3", "a folder of raw files must be the only input, not one of several: \"run\""},
      {"run/RUN_0001.tpx3 run/RUN_0002.tpx3 run/RUN_0001.tpx3", "the raw file \"run/RUN_0001.tpx3\" is given twice"},
  };
  for (const auto& [inputs, message] : lists) {
    EXPECT_EQ(std::tuple(run(inputs + " -o list.kovraphot"), err),
              std::tuple(2, "kovra_import: " + message + "\nTry 'kovra_import --help'.\n"));
  }
  EXPECT_EQ(run("run/RUN_0001.tpx3 run/missing.tpx3 -o list.kovraphot --layout quad"), 1);
  EXPECT_EQ(err, "kovra_import: run/missing.tpx3: cannot open: No such file or directory\n");
  EXPECT_FALSE(std::filesystem::exists(dir.file("list.kovraphot")));
}

}  // namespace
