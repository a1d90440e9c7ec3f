// The tool reads its photons in pieces and writes its events as a stream. Its memory does not grow with the
// photon file: every algorithm runs under a data-size limit of a fraction of the file's size and writes the
// same events as the library's in-memory path on the whole list (nothing here is timed). And a run that fails
// in the middle leaves the output as it was, with no other file beside it.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <sys/wait.h>

#include <filesystem>

#include "FileBytes.hpp"
#include "TempDir.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using namespace kovra::tpx3spidr;

namespace {

constexpr std::uint64_t photonCount = 5'000'000;                   // an 80 MB photon file
constexpr std::uint64_t dataLimitBytes = std::uint64_t{24} << 20;  // a quarter of it, heap and stack included

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

  const Reconstruction_Events settings{Length::from_pixels(5), Time::make_from_seconds<true>(5e-7), std::nullopt,
                                       Time::make_from_seconds<true>(2e-6)};
  for (const std::string algorithm : {"default", "noBranchChain_direct", "forwardChain_photonBuildup", "fullChain_direct"}) {
    const std::string output = dir.file(algorithm + ".kovraevent");
    const std::string command = "prlimit --data=" + std::to_string(dataLimitBytes) + " " KOVRA_BRANTEL_PATH
                                " -s 5 -t 5e-7 -D 2e-6 --verbose -1 --algorithm " + algorithm + " -i " + input +
                                " -o " + output;
    const int status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command;

    FileHandler_Events::save_file(dir.file("memory.kovraevent"),
                                  reconstructEvents_switchAlgorithm(settings, photons, algorithm));
    EXPECT_TRUE(read_bytes(output) == read_bytes(dir.file("memory.kovraevent"))) << algorithm;
  }
}

/// Runs the tool on `photons` with an output that already exists; returns the wait status.
int run_over_existingOutput(const TempDir& dir, const std::string& photons, const std::string& algorithm) {
  write_bytes(dir.file("in.kovraphot"), photons);
  write_bytes(dir.file("out.kovraevent"), "previous run");
  const std::string command = std::string(KOVRA_BRANTEL_PATH) + " -s 1 -t 1e-7 --verbose -1 --algorithm " +
                              algorithm + " -i " + dir.file("in.kovraphot") + " -o " + dir.file("out.kovraevent") +
                              " 2>" + dir.file("stderr.txt");
  return std::system(command.c_str());
}

TEST(StreamingFailureTest, AFailedRunLeavesTheOutputAsItWasAndNothingBeside) {
  const auto photon = [](std::int32_t x, std::int64_t t) { return FileBytes().i32(x).i32(0).i64(t); };
  FileBytes photonList;
  for (int i = 0; i < 1000; ++i) photonList.raw(photon(0, 1000 * i).data);  // 1000 events of one photon
  struct Case {
    const char* what;
    std::string bytes;
    const char* algorithm;
    const char* message;
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
  };
  for (const auto& c : cases) {
    TempDir dir;
    const int status = run_over_existingOutput(dir, c.bytes, c.algorithm);
    EXPECT_TRUE(WIFSIGNALED(status) || (WIFEXITED(status) && WEXITSTATUS(status) != 0)) << c.what;
    EXPECT_NE(read_bytes(dir.file("stderr.txt")).find(c.message), std::string::npos) << c.what;
    EXPECT_EQ(read_bytes(dir.file("out.kovraevent")), "previous run") << c.what;
    std::size_t files = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir.path())) ++files;
    EXPECT_EQ(files, 3u) << c.what << ": input, output and captured messages only";
  }
}

}  // namespace
