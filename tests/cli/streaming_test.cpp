// The tool reads its photons in pieces and writes its events as a stream. Its memory does not grow with the
// photon file: every algorithm runs under a data-size limit of a fraction of the file's size and writes the
// same events as the library's in-memory path on the whole list (nothing here is timed). On any number of
// threads and pieces of any size it writes the same file and says the same. And a run that fails in the middle
// leaves the output as it was, with no other file beside it, whatever the threads.

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

#include <filesystem>
#include <regex>

#include "FileBytes.hpp"
#include "RunProgram.hpp"
#include "TempDir.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using namespace kovra::tpx3spidr;

namespace {

constexpr std::uint64_t photonCount = 5'000'000;  // an 80 MB photon file
// The data limit (heap and thread stacks included): 24 MiB on one thread, a quarter of the file; each further
// thread may add 12 MiB (its stack reserves 8, its window and the events of its piece the rest), so that three
// threads run under 48 MiB, still well below the file.
constexpr std::uint64_t dataLimitBytes = std::uint64_t{24} << 20;
constexpr std::uint64_t dataPerThreadBytes = std::uint64_t{12} << 20;

/// Flashes of about 20 photons within 2 pixels and 300 ns, 100000 per second, in time order; written through
/// the streaming writer, so the test itself never holds the list either.
void write_photonFile(const std::string& file) {
  std::mt19937_64 random(7);
  std::uniform_int_distribution<std::int32_t> where(0, 250 * 65536);
  std::uniform_int_distribution<std::int32_t> spread(0, 2 * 65536);
  std::uniform_int_distribution<std::int64_t> delay(0, 190);
  kovra::ContainerFile_Writer<2> writer(file);
  writer.begin_block(FileHandler_PhotonEvents::IO_Photons::identifier);
  std::vector<PhotonEvent> flash;
  std::int64_t t = 0;
  for (std::uint64_t written = 0; written < photonCount;) {
    t += 6400;  // 10 microseconds
    const std::int32_t x = where(random);
    const std::int32_t y = where(random);
    flash.clear();
    for (int k = 0; k < 20 && written + flash.size() < photonCount; ++k) {
      flash.push_back({Length{x + spread(random)}, Length{y + spread(random)}, Time{t + delay(random)}});
    }
    std::ranges::sort(flash, {}, [](const PhotonEvent& p) { return p.toa.value; });
    writer.append(std::span<const PhotonEvent>(flash));
    written += flash.size();
  }
  writer.end_block();
  writer.begin_block(kovra::detail::make_identifier("extTrigs"));
  const Time triggers[] = {Time{5}, Time{t / 2}};
  writer.append(std::span<const Time>(triggers));
  writer.end_block();
  writer.commit();
}

TEST(MemoryBoundTest, EveryAlgorithmRunsUnderALimitFarBelowTheFileSize) {
  TempDir dir;
  const std::string input = dir.file("large.kovraphot");
  write_photonFile(input);
  const Data_PhotonEvents photons = FileHandler_PhotonEvents().load_file(input);
  ASSERT_EQ(photons.size(), photonCount);
  ASSERT_GT(photonCount * sizeof(PhotonEvent), 3 * dataLimitBytes);
  ASSERT_GT(photonCount * sizeof(PhotonEvent), 3 * (dataLimitBytes + 2 * dataPerThreadBytes) / 2);

  const Reconstruction_Events settings{Length::from_pixels(5), Time::make_from_seconds<true>(5e-7), std::nullopt,
                                       Time::make_from_seconds<true>(2e-6)};
  for (const std::string algorithm :
       {"default", "noBranchChain_direct", "forwardChain_photonBuildup", "fullChain_direct"}) {
    FileHandler_Events::save_file(dir.file("memory.kovraevent"),
                                  reconstructEvents_switchAlgorithm(settings, photons, algorithm));
    for (const std::uint64_t threads : {1U, 3U}) {
      const std::string output = dir.file(algorithm + ".kovraevent");
      const std::string command =
          "KOVRA_THREADS=" + std::to_string(threads) +
          " prlimit --data=" + std::to_string(dataLimitBytes + (threads - 1) * dataPerThreadBytes) +
          " " KOVRA_BRANTEL_PATH " -s 5 -t 5e-7 -D 2e-6 --verbose -1 --algorithm " + algorithm + " -i " + input +
          " -o " + output;
      const int status = std::system(command.c_str());
      ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command;
      EXPECT_TRUE(read_bytes(output) == read_bytes(dir.file("memory.kovraevent"))) << algorithm << " " << threads;
    }
  }
}

/// The log without its time stamps.
std::string unstamp(const std::string& text) {
  static const std::regex stamp(R"((ERROR:   |info:    |trace:   )\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC[+-]\d{4}: )");
  return std::regex_replace(text, stamp, "$1@");
}

/// Flashes of a few photons, crowded (about 40 photons within dTime) or sparse, in turns.
FileBytes photonList(unsigned seed, std::size_t n) {
  std::mt19937_64 random(seed);
  std::uniform_int_distribution<std::int32_t> where(0, 60 * 65536);
  std::uniform_int_distribution<std::int32_t> spread(0, 65536);
  std::uniform_int_distribution<std::int64_t> delay(0, 20);
  FileBytes list;
  std::int64_t t = 0;
  for (std::size_t i = 0; i < n;) {
    t += (i / 5000) % 2 == 0 ? 8 : 700;
    const std::int32_t x = where(random), y = where(random);
    std::vector<std::pair<std::int64_t, std::pair<std::int32_t, std::int32_t>>> flash;
    for (int k = 0; k < 5 && i < n; ++k, ++i)
      flash.push_back({t + delay(random), {x + spread(random), y + spread(random)}});
    std::ranges::sort(flash);
    for (const auto& [time, position] : flash) list.i32(position.first).i32(position.second).i64(time);
    t = flash.back().first;
  }
  return list;
}

TEST(ThreadsTest, EveryThreadCountAndPieceSizeWritesTheSameFileAndSaysTheSame) {
  const FileBytes list = photonList(3, 60000);
  struct Input {
    const char* what;
    std::string bytes;
  };
  const Input inputs[] = {
      {"triggers",
       FileBytes::file(2, FileBytes().block("photons", list).block("extTrigs", FileBytes().i64(3).i64(9))).data},
      {"no triggers", FileBytes::file(2, FileBytes().block("photons", list)).data},
      // The last photon block counts; an empty trigger list stays an empty one.
      {"two photon blocks, empty triggers",
       FileBytes::file(
           2, FileBytes().block("photons", photonList(4, 100)).block("extTrigs", FileBytes()).block("photons", list))
           .data}};
  const char* const runs[] = {"-s 3 -t 1e-7", "-s 2 -t 5e-8 -D 3e-7 --dTime_ext 0.5",
                              "-s 2 -t 5e-8 --dTime_ext 0.5 --algorithm noBranchChain_direct",
                              "-s 3 -t 1e-7 -D 2e-7 --dTime_ext 1 --algorithm forwardChain_photonBuildup",
                              "-s 3 -t 2e-7 -D 5e-7 --algorithm fullChain_direct"};
  for (const auto& input : inputs) {
    TempDir dir;
    write_bytes(dir.file("in.kovraphot"), input.bytes);
    for (const char* run : runs) {
      const std::string arguments = std::string(run) + " -i in.kovraphot -o out.kovraevent";
      const auto alone = run_program(dir, "env", "KOVRA_THREADS=1 " KOVRA_BRANTEL_PATH " " + arguments);
      ASSERT_EQ(alone.status, 0) << alone.err;
      const std::string expected = read_bytes(dir.file("out.kovraevent"));
      // The library's test sweeps every thread count and piece size; here the tool takes both from its environment.
      for (const char* environment : {"KOVRA_THREADS=3 ", "KOVRA_THREADS=8 KOVRA_PIECE_PHOTONS=997 "}) {
        const auto outcome = run_program(dir, "env", environment + std::string(KOVRA_BRANTEL_PATH " ") + arguments);
        SCOPED_TRACE(testing::Message() << input.what << ", " << run << ", " << environment);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(unstamp(outcome.out), unstamp(alone.out));
        EXPECT_EQ(outcome.err, alone.err);
        EXPECT_TRUE(read_bytes(dir.file("out.kovraevent")) == expected);
      }
    }
  }
}

/// Runs the tool on `photons` with an output that already exists, after `shell` (environment and limits);
/// returns the wait status.
int run_over_existingOutput(const TempDir& dir, const std::string& photons, const std::string& algorithm,
                            const std::string& shell) {
  write_bytes(dir.file("in.kovraphot"), photons);
  write_bytes(dir.file("out.kovraevent"), "previous run");
  const std::string command =
      "bash -c '" + shell + " exec " + KOVRA_BRANTEL_PATH + " -s 1 -t 1e-7 --verbose -1 --algorithm " + algorithm +
      " -i " + dir.file("in.kovraphot") + " -o " + dir.file("out.kovraevent") + "' 2>" + dir.file("stderr.txt");
  return std::system(command.c_str());
}

TEST(StreamingFailureTest, AFailedRunLeavesTheOutputAsItWasAndNothingBeside) {
  const auto photon = [](std::int32_t x, std::int64_t t) { return FileBytes().i32(x).i32(0).i64(t); };
  FileBytes photonList;
  for (int i = 0; i < 1000; ++i) photonList.raw(photon(0, 1000 * i).data);  // 1000 events of one photon
  const std::string valid = FileBytes::file(2, FileBytes().block("photons", photonList)).data;
  struct Case {
    const char* what;
    std::string bytes;
    const char* algorithm;
    const char* message;
    const char* shell = "";
  };
  const Case cases[] = {
      // The structure behind the photons is checked before the first photon is reconstructed.
      {"bad block behind the photons",
       FileBytes::file(2, FileBytes().block("photons", photonList).block("bogus", FileBytes())).data, "default",
       "Block identifier not recognized!"},
      // A photon earlier than its event's first one stops the program in the middle of the pass.
      {"assertion in the middle of the pass",
       FileBytes::file(2, FileBytes().block("photons", FileBytes(photonList).raw(photon(0, 998990).data))).data,
       "fullChain_direct", "firstPhoton.get_toa().get_seconds() >= t_first_abs_s"},
      // Out of order, the forward chain opens a chain earlier than the one before.
      {"out of order, forward chain",
       FileBytes::file(2, FileBytes().block("photons", FileBytes(photonList).raw(photon(100 * 65536, 500).data))).data,
       "forwardChain_photonBuildup", "chains.empty() || chains.back().get_t_first() <= newChain.get_t_first()"},
      // A full disk (here a file-size limit, its signal ignored) fails the writes; the size check stops the run.
      {"write error", valid, "default", "end_content - begin_content == size_content", "trap \"\" XFSZ; ulimit -f 8;"},
      // Counts in the environment that are not whole numbers in range end the run before it writes.
      {"zero threads", valid, "default", "KOVRA_THREADS must be a whole number from 1 to 1024, not \"0\"",
       "export KOVRA_THREADS=0;"},
      {"negative piece size", valid, "default",
       "KOVRA_PIECE_PHOTONS must be a whole number from 1 to 4611686018427387904, not \"-5\"",
       "export KOVRA_PIECE_PHOTONS=-5;"},
  };
  for (const char* threads : {"", "export KOVRA_THREADS=4 KOVRA_PIECE_PHOTONS=7;"}) {
    for (const auto& c : cases) {
      TempDir dir;
      const int status = run_over_existingOutput(dir, c.bytes, c.algorithm, std::string(threads) + c.shell);
      SCOPED_TRACE(testing::Message() << c.what << " " << threads);
      EXPECT_TRUE(WIFSIGNALED(status) || (WIFEXITED(status) && WEXITSTATUS(status) != 0));
      EXPECT_NE(read_bytes(dir.file("stderr.txt")).find(c.message), std::string::npos);
      EXPECT_EQ(read_bytes(dir.file("out.kovraevent")), "previous run");
      std::size_t files = 0;
      for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir.path())) ++files;
      EXPECT_EQ(files, 3u) << "input, output and captured messages only";
    }
  }
}

}  // namespace
