// The kovra_simulate program run as a user runs it: exit status, the two output streams and the files written.

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "RunProgram.hpp"
#include "TempDir.hpp"
#include "common/HitPhotons.hpp"
#include "common/PhotonFlashes.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"
#include "simulate/PhotonSimulation.hpp"
#include "simulate/RawExport.hpp"
#include "tools/common/EarlierFiles.hpp"

namespace {

using namespace std::string_literals;

Program_Outcome run_simulate(const TempDir& dir, const std::string& args) {
  return run_program(dir, KOVRA_SIMULATE_PATH, args);
}

}  // namespace

// The rules of kovra_simulate's own, and one option of each of its readers of numbers. (The grammar of numbers:
// ToolOptionsTest; help, version and getopt's messages: ToolCommandLineTest.)
TEST(SimulateProgramTest, BadCommandLinesGetStatusTwoOneMessageAndNoFile) {
  const std::string classRule =
      "option --class needs NAME:WEIGHT:SLOW with a name without ',', '\"' or ':', a "
      "weight greater than 0 and a slow fraction from 0 to 1, not \"";
  const std::string hotRule =
      "option --hot-pixels needs N:RATE with a whole number of pixels from 0 to 1000000 and "
      "a rate in hertz greater than 0, not \"";
  const std::string tooMany = "1e+10 photons expected, more than the limit of 1e+09; shorten --duration";
  // The arguments follow "-o a.kovraphot" unless they start with -o.
  const struct {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{}, "no output file given (-o FILE.kovraphot)"},
      {{"-o", "a.kovraevent"}, "output file \"a.kovraevent\" must end in .kovraphot"},
      {{"-d", "0"}, "option --duration needs a number of seconds greater than 0 and at most 1000000, not \"0\""},
      {{"--height", "32768"}, "option --height needs a whole number of pixels from 1 to 32767, not \"32768\""},
      {{"--class", "a,b:1:0.1"}, classRule + "a,b:1:0.1\""},
      {{"--class", "a:1:1.5"}, classRule + "a:1:1.5\""},
      {{"--triggers", "0"}, "option --triggers needs none, empty or a frequency in hertz greater than 0, not \"0\""},
      {{"--triggers", "1e9"}, "option --triggers: more than 1e8 triggers in the acquisition"},
      {{"--hot-pixels", "2.5:1e5"}, hotRule + "2.5:1e5\""},
      {{"--hot-pixels", "1:1e10"}, tooMany},
      {{"--seed", "18446744073709551616"},
       "option --seed needs a whole number from 0 to 18446744073709551615, not \"18446744073709551616\""},
      {{"-r", "1e9", "-n", "10"}, tooMany},
      {{"extra"}, "unexpected argument \"extra\""},
  };
  for (const auto& c : cases) {
    TempDir dir;
    std::string args = c.args.empty() || c.args[0] == "-o" ? "" : "-o a.kovraphot";
    for (const auto& a : c.args) args += " '" + a + "'";
    const auto r = run_simulate(dir, args);
    EXPECT_EQ(std::tuple(r.status, r.err),
              std::tuple(2, "kovra_simulate: " + c.message + "\nTry 'kovra_simulate --help'.\n"));
    EXPECT_TRUE(r.out.empty() && !std::filesystem::exists(dir.file("a.kovraphot"))) << args;
  }
}

TEST(SimulateProgramTest, EveryFileIsTheModelsAndIsWrittenAsTheRunGoesUnderAMemoryLimitFarBelowItsSize) {
  TempDir dir;
  // About 3 million photons (48 MB) with triggers, truth and raw output (about 150 MB), in a process whose data
  // may not exceed 16 MiB: only a run that writes as it goes gets through. Every setting differs from its
  // default, so the model below must get them all; given classes replace the default ones.
  constexpr long dataLimitBytes = 16L << 20;
  const auto r = run_program(
      dir, "prlimit",
      "--data=" + std::to_string(dataLimitBytes) +
          " " KOVRA_SIMULATE_PATH
          " --output=run.kovraphot -d 0.075 -r 2e6 -n 25 --sigma 2 --width 400 --height 300 --snap "
          "--tau-fast 4e-9 --tau-slow 1e-7 --class p:1:0.2 --class q:1:0.6 --dark-rate 2e5 --hot-pixels 2:1e4 "
          "--flashes-from 0.001 --triggers 2e5 --seed 18446744073709551615 --truth --raw run.tpx3");
  ASSERT_TRUE(r.status == 0 && r.err.empty()) << r.status << r.err;

  kovra::simulate::Simulation_Settings s;
  s.duration_s = 0.075, s.eventRate_Hz = 2e6, s.photonsPerEvent = 25, s.sigma_px = 2, s.width_px = 400;
  s.height_px = 300, s.snapToPixels = true, s.tauFast_s = 4e-9, s.tauSlow_s = 1e-7, s.darkRate_Hz = 2e5;
  s.classes = {{"p", 1, 0.2}, {"q", 1, 0.6}}, s.hotPixels = 2, s.hotPixelRate_Hz = 1e4, s.flashesFrom_s = 0.001;
  s.triggerMode = kovra::simulate::Trigger_Mode::periodic, s.triggerFrequency_Hz = 2e5, s.seed = ~0ULL;
  std::string truth = "t_s,x_px,y_px,nPhotons,class\n";
  std::vector<std::int64_t> flashOfPhoton;
  const auto expected = kovra::simulate::simulate_photonEvents_withFlashes(
      s,
      [&](const kovra::simulate::True_Event& e) {
    char line[200];
    std::snprintf(line, sizeof line, "%.12f,%.4f,%.4f,%llu,%s\n", e.t_s, e.x_px, e.y_px,
                  static_cast<unsigned long long>(e.nPhotons), e.classIndex == 0 ? "p" : "q");
    truth += line;
      },
      [&](std::span<const std::int64_t> f) { flashOfPhoton.insert(flashOfPhoton.end(), f.begin(), f.end()); }, 0);
  ASSERT_GT(expected.photons.size() * sizeof(kovra::tpx3spidr::PhotonEvent), 2u * dataLimitBytes);

  kovra::tpx3spidr::FileHandler_PhotonEvents::save_file(dir.file("memory.kovraphot"), expected.photons);
  EXPECT_TRUE(read_bytes(dir.file("run.kovraphot")) == read_bytes(dir.file("memory.kovraphot")));
  EXPECT_TRUE(read_bytes(dir.file("run.truth.csv")) == truth);
  EXPECT_EQ(
      kovra::tools::read_photonFlashes(dir.file("run.truth.kovraflash"), expected.photons.photonEvents).flashOfPhoton,
      flashOfPhoton);
  std::FILE* raw = std::fopen(dir.file("memory.tpx3").c_str(), "wb");
  ASSERT_NE(raw, nullptr);
  std::vector<std::uint32_t> photonOfHit;
  kovra::simulate::write_raw(expected.photons, s.width_px, s.height_px, s.seed, raw,
                             [&](const auto& hit) { photonOfHit.push_back(static_cast<std::uint32_t>(hit.photon)); });
  std::fclose(raw);
  const std::size_t nHits = photonOfHit.size();
  EXPECT_TRUE(read_bytes(dir.file("run.tpx3")) == read_bytes(dir.file("memory.tpx3")));
  EXPECT_TRUE(kovra::tools::read_hitPhotons(dir.file("run.truth.kovrahit"), expected.photons.photonEvents) ==
              photonOfHit);
  EXPECT_EQ(r.out, "kovra_simulate: wrote " + std::to_string(expected.photons.size()) + " photons (" +
                       std::to_string(expected.nEventPhotons) + " from " + std::to_string(expected.nEvents) +
                       " flashes, " + std::to_string(expected.nDarkPhotons) + " dark counts, " +
                       std::to_string(expected.photons.extTriggers->size()) +
                       " triggers) to run.kovraphot\nkovra_simulate: true flashes in run.truth.csv\n"
                       "kovra_simulate: the flash of each photon in run.truth.kovraflash\n"
                       "kovra_simulate: wrote the raw form, " +
                       std::to_string(nHits) +
                       " hits, to run.tpx3\n"
                       "kovra_simulate: the photon of each hit in run.truth.kovrahit\n");
}

TEST(SimulateProgramTest, AnOutputThatCannotBeWrittenIsNamedWithTheReasonAndNoFileChanges) {
  // What stands in the way of an output: a folder in its place, or a full disk, played by a file-size limit whose
  // signal is ignored, so that the write fails instead; each limit makes another output the first to outgrow it.
  // (A file where a folder should be: ToolOutputFoldersTest.)
  const std::tuple<std::string, int, std::string, std::string> cases[] = {
      // arguments, file-size limit in bytes (0: none), the output that fails, the reason
      {"-o folder.kovraphot -d 0.001", 0, "folder.kovraphot", "Is a directory"},
      {"-o run.kovraphot -d 0.001 --truth --raw folder.tpx3", 0, "folder.tpx3", "Is a directory"},
      {"-o folder.kovraphot.kovraphot -d 0.001 --truth", 0, "folder.kovraphot.truth.csv", "Is a directory"},
      // Halfway through the 6 MB photon file; then its 67 kB still in the buffer at the end.
      {"-o run.kovraphot -d 0.2 --truth", 1000000, "run.kovraphot", "File too large"},
      {"-o run.kovraphot -d 0.002 --truth --triggers 1e5", 16000, "run.kovraphot", "File too large"},
      {"-o run.kovraphot -d 0.002 --raw run.tpx3", 100000, "run.tpx3", "File too large"},    // 205 kB, photons 67 kB
      {"-o run.kovraphot -d 0.05 -n 1 --truth", 100000, "run.truth.csv", "File too large"},  // 205 kB, photons 80 kB
  };
  const std::vector<std::string> earlier = {"run.kovraphot", "run.tpx3", "run.truth.csv", "run.truth.kovraflash"};
  std::vector<std::string> all = {"folder.kovraphot", "folder.kovraphot.truth.csv", "folder.tpx3"};
  all.insert(all.end(), earlier.begin(), earlier.end());
  std::ranges::sort(all);
  for (const auto& [args, limit, failing, reason] : cases) {
    TempDir dir;
    write_earlierFiles(dir, earlier);
    for (const char* folder : {"folder.kovraphot", "folder.tpx3", "folder.kovraphot.truth.csv"}) {
      std::filesystem::create_directory(dir.file(folder));
    }
    const auto r = limit == 0 ? run_simulate(dir, args)
                              : run_program(dir, "env",
                                            "--ignore-signal=XFSZ prlimit --fsize=" + std::to_string(limit) +
                                                " " KOVRA_SIMULATE_PATH " " + args);
    EXPECT_EQ(std::tuple(r.status, r.out, r.err),
              std::tuple(1, ""s, "kovra_simulate: cannot write '" + failing + "': " + reason + "\n"))
        << args;
    EXPECT_EQ(get_changedFiles(dir, earlier), std::vector<std::string>{}) << args;
    EXPECT_EQ(list_folder(dir), all) << args;
  }
}
