// The kovra_simulate program run as a user runs it: exit status, the two output streams and the files written.

#include <sys/wait.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "TempDir.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"
#include "simulate/PhotonSimulation.hpp"

namespace {

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

Outcome run_simulate(const TempDir& dir, const std::string& args) {
  const std::string out = dir.file("stdout.txt");
  const std::string err = dir.file("stderr.txt");
  const std::string command =
      "cd '" + dir.path().string() + "' && '" KOVRA_SIMULATE_PATH "' " + args + " >'" + out + "' 2>'" + err + "'";
  const int raw = std::system(command.c_str());
  EXPECT_TRUE(WIFEXITED(raw));
  return {WEXITSTATUS(raw), read_bytes(out), read_bytes(err)};
}

}  // namespace

TEST(SimulateProgramTest, HelpGoesToStandardOutputWithStatusZero) {
  TempDir dir;
  const auto r = run_simulate(dir, "--help");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("Usage: kovra_simulate -o FILE.kovraphot"), std::string::npos);
  EXPECT_EQ(r.err, "");
}

TEST(SimulateProgramTest, BadArgumentGivesStatusTwoAndWritesNothing) {
  TempDir dir;
  const auto r = run_simulate(dir, "-o bad.kovraphot --sigma=-1");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "kovra_simulate: --sigma: expected pixels at least 0, got '-1'\nTry 'kovra_simulate --help'.\n");
  EXPECT_FALSE(std::filesystem::exists(dir.file("bad.kovraphot")));
}

TEST(SimulateProgramTest, UnwritableOutputGivesStatusOne) {
  TempDir dir;
  const auto r = run_simulate(dir, "-o missing/dir/a.kovraphot");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "kovra_simulate: cannot write 'missing/dir/a.kovraphot'\n");
}

TEST(SimulateProgramTest, FileHoldsTheModelsPhotonsAndTruthListsEveryFlash) {
  TempDir dir;
  const auto r = run_simulate(dir, "-o run.kovraphot -d 0.002 -r 5e5 -n 8 --sigma 2 --width 64 --height 32 --snap "
                                   "--tau-fast 4e-9 --tau-slow 1e-7 --class p:1:0.2 --class q:1:0.6 "
                                   "--dark-rate 2e5 --triggers empty --seed 99 --truth");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");

  // The same settings given to the model directly: the program must have passed every option through.
  kovra::simulate::Simulation_Settings s;
  s.duration_s = 0.002, s.eventRate_Hz = 5e5, s.photonsPerEvent = 8, s.sigma_px = 2, s.width_px = 64;
  s.height_px = 32, s.snapToPixels = true, s.tauFast_s = 4e-9, s.tauSlow_s = 1e-7;
  s.classes = {{"p", 1, 0.2}, {"q", 1, 0.6}};
  s.darkRate_Hz = 2e5, s.triggerMode = kovra::simulate::Trigger_Mode::empty, s.seed = 99;
  std::ostringstream expectedTruth;
  expectedTruth << "t_s,x_px,y_px,nPhotons,class\n";
  const auto expected = kovra::simulate::simulate_photonEvents(s, [&](const kovra::simulate::True_Event& e) {
    char line[200];
    std::snprintf(line, sizeof line, "%.12f,%.4f,%.4f,%llu,%s\n", e.t_s, e.x_px, e.y_px,
                  static_cast<unsigned long long>(e.nPhotons), e.classIndex == 0 ? "p" : "q");
    expectedTruth << line;
  });

  const auto loaded = kovra::tpx3spidr::FileHandler_PhotonEvents().load_file(dir.file("run.kovraphot"));
  ASSERT_EQ(loaded.size(), expected.photons.size());
  EXPECT_EQ(std::memcmp(loaded.photonEvents.data(), expected.photons.photonEvents.data(), 16 * loaded.size()), 0);
  ASSERT_TRUE(loaded.extTriggers.has_value());
  EXPECT_TRUE(loaded.extTriggers->empty());
  EXPECT_EQ(read_bytes(dir.file("run.truth.csv")), expectedTruth.str());

  const std::string summary = "kovra_simulate: wrote " + std::to_string(expected.photons.size()) + " photons (" +
                              std::to_string(expected.nEventPhotons) + " from " +
                              std::to_string(expected.nEvents) + " flashes, " +
                              std::to_string(expected.nDarkPhotons) + " dark counts, 0 triggers) to run.kovraphot\n"
                              "kovra_simulate: true flashes in run.truth.csv\n";
  EXPECT_EQ(r.out, summary);
}
